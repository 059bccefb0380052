#include "property_fuzzer.h"

#include <cstring>
#include <vector>

#include "controls/filter.h"
#include "random.h"

namespace kvharness {
namespace {

const GUID kDriverControl = PROPSETID_DriverControl;
const GUID kUnknownSet = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

const GUID kSets[] = {kDriverControl, PROPSETID_VIDCAP_VIDEOCONTROL, PROPSETID_VIDCAP_DROPPEDFRAMES, kUnknownSet};

ULONG PickFlags(SplitMix64& r)
{
    static const ULONG flags[] = {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT,
                                  KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET};
    return r.Below(8) == 0 ? static_cast<ULONG>(r.Next()) : flags[r.Below(4)];
}

// A driver-control data buffer: mostly a well-formed header copy with a
// tunnel value; the text pointer, when the buffer reaches it, is a real
// string or null (the handler takes the caller's pointer as given, as a
// kernel driver takes a user address it is handed).
void FillTunnel(SplitMix64& r, std::vector<uint8_t>& data, ULONG id, ULONG flags, bool as32, const char16_t* text)
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
    SplitMix64 r(seed);
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
