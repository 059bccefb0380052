// Reading an open filter with the client API (filter_view.h).
#include "filter_view.h"

#include <cstdio>
#include <algorithm>
#include <cstring>

namespace kvharness {
namespace {

// Well-known GUIDs by their text form (values from ks.h / ksmedia.h / uuids.h).
struct NamedGuid {
    std::string_view text;
    std::string_view name;
};
constexpr NamedGuid kGuidNames[] = {
    {"6994AD05-93EF-11D0-A3CC-00A0C9223196", "KSCATEGORY_VIDEO"},
    {"65E8773D-8F56-11D0-A3B9-00A0C9223196", "KSCATEGORY_CAPTURE"},
    {"E5323777-F976-4F5B-9B55-B94699C46E44", "KSCATEGORY_VIDEO_CAMERA"},
    {"FB6C4281-0353-11D1-905F-0000C0CC16BA", "PINNAME_VIDEO_CAPTURE"},
    {"FB6C428A-0353-11D1-905F-0000C0CC16BA", "PINNAME_VIDEO_STILL"},
    {"1B6C4281-0353-11D1-905F-0000C0CC16B0", "video input bridge"},
    {"DFF229E6-F70F-11D0-B917-00A0C9223196", "KSNODETYPE_VIDEO_CAMERA_TERMINAL"},
    {"DFF229E1-F70F-11D0-B917-00A0C9223196", "KSNODETYPE_VIDEO_STREAMING"},
    {"DFF229E5-F70F-11D0-B917-00A0C9223196", "KSNODETYPE_VIDEO_PROCESSING"},
    {"941C7AC0-C559-11D0-8A2B-00A0C9255AC1", "KSNODETYPE_DEV_SPECIFIC"},
    {"73646976-0000-0010-8000-00AA00389B71", "MEDIATYPE_Video"},
    {"32595559-0000-0010-8000-00AA00389B71", "MEDIASUBTYPE_YUY2"},
    {"47504A4D-0000-0010-8000-00AA00389B71", "MEDIASUBTYPE_MJPG"},
    {"E436EB7D-524F-11CE-9F53-0020AF0BA770", "MEDIASUBTYPE_RGB24"},
    {"05589F80-C356-11CE-BF01-00AA0055595A", "FORMAT_VideoInfo"},
};

// A KSMULTIPLE_ITEM answer read with a size query first, as clients do.
NTSTATUS ReadList(kvsim::client::KsObject& object, const GUID& set, ULONG id, std::vector<uint8_t>* items,
                  ULONG* count)
{
    kvsim::client::IoResult size = object.Property(set, id, KSPROPERTY_TYPE_GET, nullptr, 0);
    if (size.status != STATUS_BUFFER_OVERFLOW) {
        return NT_SUCCESS(size.status) ? STATUS_UNSUCCESSFUL : size.status;
    }
    std::vector<uint64_t> buffer((size.information + 7) / 8);
    kvsim::client::IoResult r =
        object.Property(set, id, KSPROPERTY_TYPE_GET, buffer.data(), static_cast<ULONG>(size.information));
    if (!NT_SUCCESS(r.status)) {
        return r.status;
    }
    if (r.information < sizeof(KSMULTIPLE_ITEM)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    KSMULTIPLE_ITEM header;
    std::memcpy(&header, buffer.data(), sizeof(header));
    auto* bytes = reinterpret_cast<const uint8_t*>(buffer.data());
    items->assign(bytes + sizeof(header), bytes + r.information);
    *count = header.Count;
    return STATUS_SUCCESS;
}

template <class T>
NTSTATUS ReadFixedList(kvsim::client::KsObject& object, const GUID& set, ULONG id, std::vector<T>* out)
{
    std::vector<uint8_t> items;
    ULONG count = 0;
    NTSTATUS status = ReadList(object, set, id, &items, &count);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (static_cast<size_t>(count) * sizeof(T) > items.size()) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    out->resize(count);
    std::memcpy(out->data(), items.data(), static_cast<size_t>(count) * sizeof(T));
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS ReadFrameRates(kvsim::client::Filter& filter, ULONG rangeIndex, std::vector<LONGLONG>* intervals)
{
    intervals->clear();
    KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S request{};
    request.StreamIndex = 0;
    request.RangeIndex = rangeIndex;
    const auto* pExtra = reinterpret_cast<const uint8_t*>(&request) + sizeof(KSPROPERTY);
    const ULONG extra = sizeof(request) - sizeof(KSPROPERTY);
    auto ask = [&](std::vector<uint8_t>& out) {
        return filter.Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_FRAME_RATES,
                               KSPROPERTY_TYPE_GET, out.empty() ? nullptr : out.data(), ULONG(out.size()), pExtra,
                               extra);
    };
    std::vector<uint8_t> none;
    const auto size = ask(none);
    if (size.status != STATUS_BUFFER_OVERFLOW) return size.status;
    if (size.information < sizeof(KSMULTIPLE_ITEM)) return STATUS_INVALID_BUFFER_SIZE;
    std::vector<uint8_t> list(size.information);
    const auto result = ask(list);
    if (result.status != STATUS_SUCCESS) return result.status;
    KSMULTIPLE_ITEM item;
    std::memcpy(&item, list.data(), sizeof(item));
    const size_t count = std::min<size_t>(item.Count, (list.size() - sizeof(item)) / sizeof(LONGLONG));
    intervals->resize(count);
    std::memcpy(intervals->data(), list.data() + sizeof(item), count * sizeof(LONGLONG));
    return STATUS_SUCCESS;
}

NTSTATUS ReadVideoRanges(kvsim::client::Filter& filter, ULONG pinId, std::vector<KS_DATARANGE_VIDEO>* ranges,
                         size_t* otherRanges)
{
    std::vector<std::vector<uint8_t>> raw;
    NTSTATUS status = filter.PinDataRanges(pinId, &raw);
    ranges->clear();
    if (otherRanges != nullptr) {
        *otherRanges = 0;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (const std::vector<uint8_t>& bytes : raw) {
        if (bytes.size() < sizeof(KS_DATARANGE_VIDEO)) {
            if (otherRanges != nullptr) {
                ++*otherRanges;
            }
            continue;
        }
        KS_DATARANGE_VIDEO range;
        std::memcpy(&range, bytes.data(), sizeof(range));
        ranges->push_back(range);
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReadPins(kvsim::client::Filter& filter, std::vector<PinView>* pins)
{
    ULONG count = 0;
    NTSTATUS status = filter.PinCount(&count);
    pins->clear();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (ULONG id = 0; id < count; ++id) {
        PinView pin;
        pin.id = id;
        NTSTATUS steps[] = {
            filter.PinDataFlow(id, &pin.dataFlow),
            filter.PinCommunication(id, &pin.communication),
            filter.PinCategory(id, &pin.category),
            filter.PinInstances(id, &pin.instances),
        };
        for (NTSTATUS s : steps) {
            if (!NT_SUCCESS(s) && NT_SUCCESS(pin.status)) {
                pin.status = s;
            }
        }
        std::vector<std::vector<uint8_t>> ranges;
        if (NT_SUCCESS(filter.PinDataRanges(id, &ranges))) {
            pin.rangeCount = ranges.size();
        }
        pins->push_back(pin);
    }
    return STATUS_SUCCESS;
}

TopologyView ReadTopology(kvsim::client::Filter& filter)
{
    TopologyView view;
    NTSTATUS steps[] = {
        ReadFixedList(filter, KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CATEGORIES, &view.categories),
        ReadFixedList(filter, KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_NODES, &view.nodes),
        ReadFixedList(filter, KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CONNECTIONS, &view.connections),
    };
    for (NTSTATUS s : steps) {
        if (!NT_SUCCESS(s) && NT_SUCCESS(view.status)) {
            view.status = s;
        }
    }
    return view;
}

std::string FormatGuid(const GUID& g)
{
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                  g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

std::string FormatStatus(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::optional<std::string_view> GuidName(const GUID& guid)
{
    std::string text = FormatGuid(guid);
    for (const NamedGuid& n : kGuidNames) {
        if (n.text == text) {
            return n.name;
        }
    }
    return std::nullopt;
}

std::string FourCcText(uint32_t fourcc)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((fourcc >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    return text;
}

}  // namespace kvharness
