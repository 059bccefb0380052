#include "property_fuzzer.h"

#include <cstring>
#include <vector>

#include "controls/filter.h"

namespace kvharness {
namespace {

const GUID kDriverControl = PROPSETID_DriverControl;
const GUID kUnknownSet = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

// splitmix64: the same seed gives the same requests.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t Next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t Below(uint32_t n) { return static_cast<uint32_t>(Next() % n); }

private:
    uint64_t state_;
};

const GUID kSets[] = {kDriverControl, PROPSETID_VIDCAP_VIDEOCONTROL, PROPSETID_VIDCAP_DROPPEDFRAMES, kUnknownSet};

ULONG PickFlags(Random& r)
{
    static const ULONG flags[] = {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT,
                                  KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET};
    return r.Below(8) == 0 ? static_cast<ULONG>(r.Next()) : flags[r.Below(4)];
}

// A driver-control data buffer: mostly a well-formed header copy with a
// tunnel value; the text pointer, when the buffer reaches it, is a real
// string or null (the handler takes the caller's pointer as given, as a
// kernel driver takes a user address it is handed).
void FillTunnel(Random& r, std::vector<uint8_t>& data, ULONG id, ULONG flags, bool as32, const char16_t* text)
{
    for (auto& b : data) b = static_cast<uint8_t>(r.Next());
    if (data.size() >= sizeof(KSPROPERTY) && r.Below(4) != 0) {
        KSPROPERTY header{};
        header.Set = kDriverControl;
        header.Id = id;
        header.Flags = flags;
        std::memcpy(data.data(), &header, sizeof(header));
    }
    const size_t textOffset = 24, textSize = as32 ? 4 : 8;
    if (data.size() >= textOffset + textSize) {
        const uint64_t pointer = r.Below(2) == 0 ? 0 : reinterpret_cast<uintptr_t>(text);
        std::memcpy(data.data() + textOffset, &pointer, textSize);
    }
}

}  // namespace

PropertyFuzzReport FuzzProperties(kvsim::client::Filter& filter, uint64_t seed, uint64_t count)
{
    static const char16_t kText[] = u"C:\\frames\\user.bmp";
    Random r(seed);
    PropertyFuzzReport report;
    for (; report.requests < count; ++report.requests) {
        const uint32_t which = r.Below(4);
        const GUID& set = kSets[which];
        const ULONG id = r.Below(6);
        const ULONG flags = PickFlags(r);
        const bool as32 = r.Below(2) == 0;
        std::vector<uint8_t> extra(r.Below(48));
        for (auto& b : extra) b = static_cast<uint8_t>(r.Next());
        std::vector<uint8_t> data(r.Below(8) == 0 ? 0 : r.Below(96));
        if (set == kDriverControl) {
            FillTunnel(r, data, id, flags, as32, kText);
        } else {
            for (auto& b : data) b = static_cast<uint8_t>(r.Next());
        }
        auto result = filter.Property(set, id, flags, data.empty() ? nullptr : data.data(), ULONG(data.size()),
                                      extra.empty() ? nullptr : extra.data(), ULONG(extra.size()), as32);
        if (NT_SUCCESS(result.status)) {
            ++report.succeeded;
            ++report.succeededBySet[which];
        }
    }
    return report;
}

}  // namespace kvharness
