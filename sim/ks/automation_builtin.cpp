// The simulated ks.sys: the property sets ks.sys answers itself. On a
// filter: KSPROPSETID_Pin (from the filter descriptor's pin descriptors),
// KSPROPSETID_Topology (categories, nodes, connections, node names) and
// KSPROPSETID_General (component id); on a pin: KSPROPSETID_Connection
// (state, data format, extended allocator framing) and KSPROPSETID_Stream
// (master clock). Also KsPinDataIntersection
// and KsPinDataIntersectionEx, which share the intersection walk.
//
// Documented behaviour followed (learn.microsoft.com/windows-hardware/drivers/
// stream/ and .../ddi/ks/):
//  - KSPROPERTY_PIN_CTYPES: a ULONG, the number of pin factories; every other
//    Pin property takes a KSP_PIN whose PinId must name one (else
//    STATUS_INVALID_PARAMETER).
//  - KSPROPERTY_PIN_CINSTANCES / GLOBALCINSTANCES: KSPIN_CINSTANCES
//    (PossibleCount, CurrentCount); NECESSARYINSTANCES a ULONG; DATAFLOW and
//    COMMUNICATION the descriptor's values; CATEGORY the category GUID;
//    NAME a UTF-16 string, the name of KSPIN_DESCRIPTOR.Name or, when that is
//    NULL, of the Category ("If this member is NULL, the category is used").
//  - KSPROPERTY_PIN_DATARANGES / CONSTRAINEDDATARANGES / INTERFACES / MEDIUMS
//    and the Topology lists: a KSMULTIPLE_ITEM followed by the items, each
//    data range on an 8-byte boundary (FILE_QUAD_ALIGNMENT). Sized lists
//    follow KS's size query: a zero-length buffer answers
//    STATUS_BUFFER_OVERFLOW with the size, a ULONG-sized buffer receives the
//    size, a KSMULTIPLE_ITEM-sized one the header, a short one
//    STATUS_BUFFER_TOO_SMALL. A pin with no interfaces (mediums) reports the
//    standard streaming interface (standard DEVIO medium)
//    (DEFINE_KSPIN_DEFAULT_INTERFACES / _MEDIUMS).
//  - KSPROPERTY_PIN_DATAINTERSECTION (KsPinDataIntersectionEx): the request
//    is a KSP_PIN followed by a KSMULTIPLE_ITEM of data ranges; for each of
//    the caller's ranges in turn, each of the pin's ranges that matches it
//    (major format, subformat, specifier; KSDATAFORMAT_*_WILDCARD matches
//    anything) is given to the pin's intersect handler (AVStream passes the
//    KSFILTER as its context) with the caller's buffer size; STATUS_NO_MATCH
//    moves on, any other answer ends the walk with Information = *DataSize
//    (a zero-size buffer gets STATUS_BUFFER_OVERFLOW and the size needed).
//    Nothing matched: STATUS_NO_MATCH.
//  - KSFILTER_DESCRIPTOR: ConnectionsCount 0 with Connections NULL
//    (DEFINE_KSFILTER_DEFAULT_CONNECTIONS) is the default topology: every
//    input pin connected to every output pin through the filter.
//  - KSPROPERTY_GENERAL_COMPONENTID: the descriptor's KSCOMPONENTID, not
//    found when it has none.
//  - KSPROPERTY_CONNECTION_STATE: get returns the state the client asked for
//    last, set walks the pin there one state at a time (ChangePinState);
//    DATAFORMAT: the connection's format; ALLOCATORFRAMING_EX: the pin
//    descriptor's framing.
//  - KSPROPERTY_STREAM_MASTERCLOCK (a pin's KSPROPSETID_Stream): the value
//    is a HANDLE. "The property returns a NULL handle when queried"; a set
//    with a handle makes it the pin's master clock: "the pin references the
//    underlying file object" (ObReferenceObjectByHandle, file object type;
//    a bad handle fails with its status) and keeps it until another set, a
//    set with NULL, or the pin's close; the client closes its handle.
//    KsPinGetReferenceClockInterface works while a clock is assigned.
//    https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-stream-masterclock
//    Not simulated: ks.sys asks the clock object for its function table
//    (KSPROPERTY_CLOCK_FUNCTIONTABLE); the simulation accepts any file
//    object and its reference clock reads the simulated clock.
#include <cstring>
#include <functional>
#include <vector>

#include "automation.h"
#include "ksmedia.h"
#include "kvsim/diag.h"

namespace kvsim::ks {
namespace {

constexpr ULONG kAlign = 8;
constexpr ULONG AlignUp(ULONG n) { return (n + kAlign - 1) & ~(kAlign - 1); }

ULONG DataLength(PIRP irp) { return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength; }
ULONG RequestLength(PIRP irp) { return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.InputBufferLength; }

// A variable-size answer by KS's size query.
NTSTATUS Answer(PIRP irp, PVOID data, const void* bytes, ULONG size) {
    ULONG length = DataLength(irp);
    irp->IoStatus.Information = size;
    if (length == 0 && size != 0) return STATUS_BUFFER_OVERFLOW;
    if (length < size) return STATUS_BUFFER_TOO_SMALL;
    if (size != 0) std::memcpy(data, bytes, size);
    return STATUS_SUCCESS;
}

// A KSMULTIPLE_ITEM list (header included in `list`): also answers a
// ULONG-sized buffer with the size and a header-sized one with the header.
NTSTATUS AnswerList(PIRP irp, PVOID data, const std::vector<UCHAR>& list) {
    ULONG length = DataLength(irp);
    ULONG size = ULONG(list.size());
    if (length == sizeof(ULONG) && size > length) {
        std::memcpy(data, &size, sizeof size);
        irp->IoStatus.Information = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    if (length == sizeof(KSMULTIPLE_ITEM) && size > length) {
        std::memcpy(data, list.data(), sizeof(KSMULTIPLE_ITEM));
        irp->IoStatus.Information = sizeof(KSMULTIPLE_ITEM);
        return STATUS_SUCCESS;
    }
    return Answer(irp, data, list.data(), size);
}

// Builds a KSMULTIPLE_ITEM list of `count` items of `itemSize` bytes each.
std::vector<UCHAR> FixedList(const void* items, ULONG count, ULONG itemSize) {
    std::vector<UCHAR> list(sizeof(KSMULTIPLE_ITEM) + size_t(count) * itemSize);
    KSMULTIPLE_ITEM header{ULONG(list.size()), count};
    std::memcpy(list.data(), &header, sizeof header);
    if (count != 0) std::memcpy(list.data() + sizeof header, items, size_t(count) * itemSize);
    return list;
}

std::vector<UCHAR> RangeList(const PKSDATARANGE* ranges, ULONG count) {
    std::vector<UCHAR> list(sizeof(KSMULTIPLE_ITEM));
    for (ULONG i = 0; i < count; ++i) {
        size_t at = list.size();
        list.resize(at + AlignUp(ranges[i]->FormatSize), 0);
        std::memcpy(list.data() + at, ranges[i], ranges[i]->FormatSize);
    }
    KSMULTIPLE_ITEM header{ULONG(list.size()), count};
    std::memcpy(list.data(), &header, sizeof header);
    return list;
}

NTSTATUS AnswerString(PIRP irp, PVOID data, const char16_t* text) {
    ULONG units = 0;
    while (text[units] != 0) ++units;
    return Answer(irp, data, text, (units + 1) * sizeof(char16_t));
}

KsFilter* CurrentFilter() { return AsFilter(CurrentAutomationObject()); }
KsPin* CurrentPin() { return AsPin(CurrentAutomationObject()); }

const KSPIN_DESCRIPTOR_EX* PinDescriptorAt(const KSFILTER_DESCRIPTOR* descriptor, ULONG pinId) {
    if (descriptor == nullptr || pinId >= descriptor->PinDescriptorsCount) return nullptr;
    ULONG stride = descriptor->PinDescriptorSize ? descriptor->PinDescriptorSize : sizeof(KSPIN_DESCRIPTOR_EX);
    return reinterpret_cast<const KSPIN_DESCRIPTOR_EX*>(reinterpret_cast<const UCHAR*>(descriptor->PinDescriptors) +
                                                        size_t(pinId) * stride);
}

// The pin factory a KSP_PIN request names, or an error status.
NTSTATUS RequestedPin(PKSIDENTIFIER request, KsFilter** filter, const KSPIN_DESCRIPTOR_EX** pin, ULONG* pinId) {
    *filter = CurrentFilter();
    if (*filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    *pinId = reinterpret_cast<PKSP_PIN>(request)->PinId;
    *pin = PinDescriptorAt((*filter)->pub.Descriptor, *pinId);
    return *pin ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

ULONG InstancesOpen(KsFilter* filter, ULONG pinId) {
    return pinId < filter->pinInstanceCounts.size() ? filter->pinInstanceCounts[pinId] : 0;
}

// Declares a filter Pin-set get handler body that has the pin descriptor.
#define KV_PIN_HANDLER(name)                                                            \
    NTSTATUS name##Body(PIRP irp, PKSIDENTIFIER request, KsFilter* filter, ULONG pinId,   \
                        const KSPIN_DESCRIPTOR_EX* pin, PVOID data);                    \
    NTSTATUS name(PIRP irp, PKSIDENTIFIER request, PVOID data) {                        \
        KsFilter* filter;                                                               \
        const KSPIN_DESCRIPTOR_EX* pin;                                                 \
        ULONG pinId;                                                                    \
        NTSTATUS status = RequestedPin(request, &filter, &pin, &pinId);                 \
        if (!NT_SUCCESS(status)) return status;                                         \
        return name##Body(irp, request, filter, pinId, pin, data);                      \
    }                                                                                   \
    NTSTATUS name##Body(PIRP irp, [[maybe_unused]] PKSIDENTIFIER request, [[maybe_unused]] KsFilter* filter, \
                        [[maybe_unused]] ULONG pinId,                                   \
                        [[maybe_unused]] const KSPIN_DESCRIPTOR_EX* pin, PVOID data)

template <typename T>
NTSTATUS AnswerValue(PIRP irp, PVOID data, const T& value) {
    std::memcpy(data, &value, sizeof value);
    irp->IoStatus.Information = sizeof value;
    return STATUS_SUCCESS;
}

// ---- KSPROPSETID_Pin ----------------------------------------------------------------------
NTSTATUS PinCTypes(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSFILTER_DESCRIPTOR* descriptor = filter->pub.Descriptor;
    return AnswerValue(irp, data, ULONG(descriptor ? descriptor->PinDescriptorsCount : 0));
}

KV_PIN_HANDLER(PinCInstances) {
    return AnswerValue(irp, data, KSPIN_CINSTANCES{pin->InstancesPossible, InstancesOpen(filter, pinId)});
}

KV_PIN_HANDLER(PinNecessaryInstances) { return AnswerValue(irp, data, ULONG(pin->InstancesNecessary)); }
KV_PIN_HANDLER(PinDataFlow) { return AnswerValue(irp, data, pin->PinDescriptor.DataFlow); }
KV_PIN_HANDLER(PinCommunication) { return AnswerValue(irp, data, pin->PinDescriptor.Communication); }

KV_PIN_HANDLER(PinDataRanges) {
    return AnswerList(irp, data, RangeList(pin->PinDescriptor.DataRanges, pin->PinDescriptor.DataRangesCount));
}

KV_PIN_HANDLER(PinConstrainedDataRanges) {
    const KSPIN_DESCRIPTOR& d = pin->PinDescriptor;
    if (d.ConstrainedDataRangesCount != 0) {
        return AnswerList(irp, data, RangeList(d.ConstrainedDataRanges, d.ConstrainedDataRangesCount));
    }
    return AnswerList(irp, data, RangeList(d.DataRanges, d.DataRangesCount));
}

KV_PIN_HANDLER(PinInterfaces) {
    const KSPIN_DESCRIPTOR& d = pin->PinDescriptor;
    if (d.InterfacesCount != 0) return AnswerList(irp, data, FixedList(d.Interfaces, d.InterfacesCount, sizeof(KSPIN_INTERFACE)));
    KSPIN_INTERFACE standard{};
    standard.Set = KSINTERFACESETID_Standard;
    standard.Id = KSINTERFACE_STANDARD_STREAMING;
    return AnswerList(irp, data, FixedList(&standard, 1, sizeof standard));
}

KV_PIN_HANDLER(PinMediums) {
    const KSPIN_DESCRIPTOR& d = pin->PinDescriptor;
    if (d.MediumsCount != 0) return AnswerList(irp, data, FixedList(d.Mediums, d.MediumsCount, sizeof(KSPIN_MEDIUM)));
    KSPIN_MEDIUM standard{};
    standard.Set = KSMEDIUMSETID_Standard;
    standard.Id = KSMEDIUM_TYPE_ANYINSTANCE;
    return AnswerList(irp, data, FixedList(&standard, 1, sizeof standard));
}

KV_PIN_HANDLER(PinCategory) {
    if (pin->PinDescriptor.Category == nullptr) return STATUS_NOT_FOUND;
    return AnswerValue(irp, data, *pin->PinDescriptor.Category);
}

KV_PIN_HANDLER(PinName) {
    const GUID* guid = pin->PinDescriptor.Name ? pin->PinDescriptor.Name : pin->PinDescriptor.Category;
    const char16_t* name = guid ? MediaCategoryName(*guid) : nullptr;
    if (name == nullptr) return STATUS_NOT_FOUND;
    return AnswerString(irp, data, name);
}

NTSTATUS PinDataIntersection(PIRP irp, PKSIDENTIFIER request, PVOID data);  // after the shared walk

// ---- KSPROPSETID_Topology --------------------------------------------------------------------
const KSNODE_DESCRIPTOR* NodeAt(const KSFILTER_DESCRIPTOR* descriptor, ULONG nodeId) {
    if (descriptor == nullptr || nodeId >= descriptor->NodeDescriptorsCount) return nullptr;
    ULONG stride = descriptor->NodeDescriptorSize ? descriptor->NodeDescriptorSize : sizeof(KSNODE_DESCRIPTOR);
    return reinterpret_cast<const KSNODE_DESCRIPTOR*>(reinterpret_cast<const UCHAR*>(descriptor->NodeDescriptors) +
                                                      size_t(nodeId) * stride);
}

NTSTATUS TopologyCategories(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSFILTER_DESCRIPTOR* d = filter->pub.Descriptor;
    return AnswerList(irp, data, FixedList(d->Categories, d->CategoriesCount, sizeof(GUID)));
}

NTSTATUS TopologyNodes(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSFILTER_DESCRIPTOR* d = filter->pub.Descriptor;
    std::vector<GUID> types;
    for (ULONG i = 0; i < d->NodeDescriptorsCount; ++i) {
        const KSNODE_DESCRIPTOR* node = NodeAt(d, i);
        types.push_back(node->Type ? *node->Type : GUID_NULL);
    }
    return AnswerList(irp, data, FixedList(types.data(), ULONG(types.size()), sizeof(GUID)));
}

NTSTATUS TopologyConnections(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSFILTER_DESCRIPTOR* d = filter->pub.Descriptor;
    if (d->ConnectionsCount != 0 || d->Connections != nullptr) {
        return AnswerList(irp, data, FixedList(d->Connections, d->ConnectionsCount, sizeof(KSTOPOLOGY_CONNECTION)));
    }
    std::vector<KSTOPOLOGY_CONNECTION> connections;
    for (ULONG in = 0; in < d->PinDescriptorsCount; ++in) {
        if (PinDescriptorAt(d, in)->PinDescriptor.DataFlow != KSPIN_DATAFLOW_IN) continue;
        for (ULONG out = 0; out < d->PinDescriptorsCount; ++out) {
            if (PinDescriptorAt(d, out)->PinDescriptor.DataFlow != KSPIN_DATAFLOW_OUT) continue;
            connections.push_back({KSFILTER_NODE, in, KSFILTER_NODE, out});
        }
    }
    return AnswerList(irp, data,
                      FixedList(connections.data(), ULONG(connections.size()), sizeof(KSTOPOLOGY_CONNECTION)));
}

NTSTATUS TopologyName(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSNODE_DESCRIPTOR* node = NodeAt(filter->pub.Descriptor, reinterpret_cast<PKSP_NODE>(request)->NodeId);
    if (node == nullptr) return STATUS_INVALID_PARAMETER;
    const GUID* guid = node->Name ? node->Name : node->Type;
    const char16_t* name = guid ? MediaCategoryName(*guid) : nullptr;
    if (name == nullptr) return STATUS_NOT_FOUND;
    return AnswerString(irp, data, name);
}

// ---- KSPROPSETID_General -------------------------------------------------------------------
NTSTATUS GeneralComponentId(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsFilter* filter = CurrentFilter();
    if (filter == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSCOMPONENTID* id = filter->pub.Descriptor->ComponentId;
    if (id == nullptr) return STATUS_NOT_FOUND;
    return AnswerValue(irp, data, *id);
}

// ---- KSPROPSETID_Connection (pins) -----------------------------------------------------------------
NTSTATUS ConnectionStateGet(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsPin* pin = CurrentPin();
    if (pin == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    return AnswerValue(irp, data, pin->pub.ClientState);
}

NTSTATUS ConnectionStateSet(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsPin* pin = CurrentPin();
    if (pin == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    KSSTATE state;
    std::memcpy(&state, data, sizeof state);
    if (state < KSSTATE_STOP || state > KSSTATE_RUN) return STATUS_INVALID_PARAMETER;
    irp->IoStatus.Information = 0;
    return ChangePinState(pin, state);
}

NTSTATUS ConnectionDataFormat(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsPin* pin = CurrentPin();
    if (pin == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSDATAFORMAT* format = pin->pub.ConnectionFormat;
    if (format == nullptr) return STATUS_NOT_FOUND;
    return Answer(irp, data, format, format->FormatSize);
}

NTSTATUS ConnectionFramingEx(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsPin* pin = CurrentPin();
    if (pin == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    const KSALLOCATOR_FRAMING_EX* framing = pin->pub.Descriptor ? pin->pub.Descriptor->AllocatorFraming : nullptr;
    if (framing == nullptr) return STATUS_NOT_FOUND;
    ULONG size = ULONG(offsetof(KSALLOCATOR_FRAMING_EX, FramingItem) + framing->CountItems * sizeof(KS_FRAMING_ITEM));
    return Answer(irp, data, framing, size);
}

// ---- KSPROPSETID_Stream (pins) ---------------------------------------------------------------------
NTSTATUS StreamMasterClockGet(PIRP irp, PKSIDENTIFIER, PVOID data) {
    if (CurrentPin() == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    return AnswerValue(irp, data, HANDLE(nullptr));
}

NTSTATUS StreamMasterClockSet(PIRP irp, PKSIDENTIFIER, PVOID data) {
    KsPin* pin = CurrentPin();
    if (pin == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    HANDLE handle;
    std::memcpy(&handle, data, sizeof handle);
    irp->IoStatus.Information = 0;
    PVOID clock = nullptr;
    if (handle != nullptr) {
        NTSTATUS status = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, irp->RequestorMode, &clock, nullptr);
        if (!NT_SUCCESS(status)) return status;
    }
    SetPinMasterClock(pin, clock);
    return STATUS_SUCCESS;
}

// ---- the intersection walk -----------------------------------------------------------------------
bool GuidMatches(const GUID& a, const GUID& b) {
    return IsEqualGUID(a, b) || IsEqualGUID(a, GUID_NULL) || IsEqualGUID(b, GUID_NULL);
}

bool RangesMatch(const KSDATARANGE& a, const KSDATARANGE& b) {
    return GuidMatches(a.MajorFormat, b.MajorFormat) && GuidMatches(a.SubFormat, b.SubFormat) &&
           GuidMatches(a.Specifier, b.Specifier);
}

// Calls `handler(callerRange, pinRange, &dataSize)` for each matching pair in
// the order described above. The caller's list follows the KSP_PIN in the
// request of `requestLength` bytes.
using IntersectStep = std::function<NTSTATUS(PKSDATARANGE caller, PKSDATARANGE matching, ULONG* dataSize)>;

NTSTATUS WalkIntersection(PIRP irp, PKSP_PIN request, ULONG requestLength, const KSPIN_DESCRIPTOR& pin,
                          const IntersectStep& step) {
    if (requestLength < sizeof(KSP_PIN) + sizeof(KSMULTIPLE_ITEM)) return STATUS_INVALID_PARAMETER;
    const auto* list = reinterpret_cast<const KSMULTIPLE_ITEM*>(request + 1);
    ULONG available = requestLength - sizeof(KSP_PIN);
    if (list->Size < sizeof(KSMULTIPLE_ITEM) || list->Size > available) return STATUS_INVALID_PARAMETER;
    auto* at = const_cast<UCHAR*>(reinterpret_cast<const UCHAR*>(list + 1));
    ULONG left = list->Size - sizeof(KSMULTIPLE_ITEM);
    for (ULONG i = 0; i < list->Count; ++i) {
        auto* caller = reinterpret_cast<PKSDATARANGE>(at);
        if (left < sizeof(KSDATARANGE) || caller->FormatSize < sizeof(KSDATARANGE) || caller->FormatSize > left) {
            return STATUS_INVALID_PARAMETER;
        }
        for (ULONG j = 0; j < pin.DataRangesCount; ++j) {
            PKSDATARANGE mine = pin.DataRanges[j];
            if (!RangesMatch(*caller, *mine)) continue;
            ULONG dataSize = 0;
            NTSTATUS status = step(caller, mine, &dataSize);
            if (status == STATUS_NO_MATCH) continue;
            irp->IoStatus.Information = dataSize;
            return status;
        }
        ULONG advance = AlignUp(caller->FormatSize);
        if (advance >= left) break;
        at += advance;
        left -= advance;
    }
    return STATUS_NO_MATCH;
}

// Without a handler, ks.sys offers the pin's matching range as the format.
NTSTATUS DefaultIntersect(PKSDATARANGE matching, ULONG bufferSize, PVOID data, ULONG* dataSize) {
    *dataSize = matching->FormatSize;
    if (bufferSize == 0) return STATUS_BUFFER_OVERFLOW;
    if (bufferSize < matching->FormatSize) return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(data, matching, matching->FormatSize);
    return STATUS_SUCCESS;
}

KV_PIN_HANDLER(PinDataIntersection) {
    auto* pinRequest = reinterpret_cast<PKSP_PIN>(request);
    ULONG bufferSize = DataLength(irp);
    PFNKSINTERSECTHANDLEREX handler = pin->IntersectHandler;
    return WalkIntersection(irp, pinRequest, RequestLength(irp), pin->PinDescriptor,
                            [&](PKSDATARANGE caller, PKSDATARANGE matching, ULONG* dataSize) {
                                if (handler == nullptr) return DefaultIntersect(matching, bufferSize, data, dataSize);
                                return handler(&filter->pub, irp, pinRequest, caller, matching, bufferSize, data,
                                               dataSize);
                            });
}

#undef KV_PIN_HANDLER

// ---- the tables --------------------------------------------------------------------------------
#define KV_GET_ITEM(id, handler, minProperty, minData) \
    DEFINE_KSPROPERTY_ITEM(id, handler, minProperty, minData, nullptr, nullptr, 0, nullptr, nullptr, 0)

const KSPROPERTY_ITEM kPinItems[] = {
    KV_GET_ITEM(KSPROPERTY_PIN_CINSTANCES, PinCInstances, sizeof(KSP_PIN), sizeof(KSPIN_CINSTANCES)),
    KV_GET_ITEM(KSPROPERTY_PIN_CTYPES, PinCTypes, sizeof(KSPROPERTY), sizeof(ULONG)),
    KV_GET_ITEM(KSPROPERTY_PIN_DATAFLOW, PinDataFlow, sizeof(KSP_PIN), sizeof(KSPIN_DATAFLOW)),
    KV_GET_ITEM(KSPROPERTY_PIN_DATARANGES, PinDataRanges, sizeof(KSP_PIN), 0),
    KV_GET_ITEM(KSPROPERTY_PIN_DATAINTERSECTION, PinDataIntersection, sizeof(KSP_PIN) + sizeof(KSMULTIPLE_ITEM), 0),
    KV_GET_ITEM(KSPROPERTY_PIN_INTERFACES, PinInterfaces, sizeof(KSP_PIN), 0),
    KV_GET_ITEM(KSPROPERTY_PIN_MEDIUMS, PinMediums, sizeof(KSP_PIN), 0),
    KV_GET_ITEM(KSPROPERTY_PIN_COMMUNICATION, PinCommunication, sizeof(KSP_PIN), sizeof(KSPIN_COMMUNICATION)),
    KV_GET_ITEM(KSPROPERTY_PIN_GLOBALCINSTANCES, PinCInstances, sizeof(KSP_PIN), sizeof(KSPIN_CINSTANCES)),
    KV_GET_ITEM(KSPROPERTY_PIN_NECESSARYINSTANCES, PinNecessaryInstances, sizeof(KSP_PIN), sizeof(ULONG)),
    KV_GET_ITEM(KSPROPERTY_PIN_CATEGORY, PinCategory, sizeof(KSP_PIN), sizeof(GUID)),
    KV_GET_ITEM(KSPROPERTY_PIN_NAME, PinName, sizeof(KSP_PIN), 0),
    KV_GET_ITEM(KSPROPERTY_PIN_CONSTRAINEDDATARANGES, PinConstrainedDataRanges, sizeof(KSP_PIN), 0),
};

const KSPROPERTY_ITEM kTopologyItems[] = {
    KV_GET_ITEM(KSPROPERTY_TOPOLOGY_CATEGORIES, TopologyCategories, sizeof(KSPROPERTY), 0),
    KV_GET_ITEM(KSPROPERTY_TOPOLOGY_NODES, TopologyNodes, sizeof(KSPROPERTY), 0),
    KV_GET_ITEM(KSPROPERTY_TOPOLOGY_CONNECTIONS, TopologyConnections, sizeof(KSPROPERTY), 0),
    KV_GET_ITEM(KSPROPERTY_TOPOLOGY_NAME, TopologyName, sizeof(KSP_NODE), 0),
};

constexpr ULONG kGeneralComponentId = 0;  // KSPROPERTY_GENERAL_COMPONENTID
const KSPROPERTY_ITEM kGeneralItems[] = {
    KV_GET_ITEM(kGeneralComponentId, GeneralComponentId, sizeof(KSPROPERTY), sizeof(KSCOMPONENTID)),
};

const KSPROPERTY_ITEM kConnectionItems[] = {
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_CONNECTION_STATE, ConnectionStateGet, sizeof(KSPROPERTY), sizeof(KSSTATE),
                           ConnectionStateSet, nullptr, 0, nullptr, nullptr, 0),
    KV_GET_ITEM(KSPROPERTY_CONNECTION_DATAFORMAT, ConnectionDataFormat, sizeof(KSPROPERTY), 0),
    KV_GET_ITEM(KSPROPERTY_CONNECTION_ALLOCATORFRAMING_EX, ConnectionFramingEx, sizeof(KSPROPERTY), 0),
};

const KSPROPERTY_ITEM kStreamItems[] = {
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_STREAM_MASTERCLOCK, StreamMasterClockGet, sizeof(KSPROPERTY), sizeof(HANDLE),
                           StreamMasterClockSet, nullptr, 0, nullptr, nullptr, 0),
};

#undef KV_GET_ITEM

const KSPROPERTY_SET kFilterSets[] = {
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Pin, SIZEOF_ARRAY(kPinItems), kPinItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Topology, SIZEOF_ARRAY(kTopologyItems), kTopologyItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_General, SIZEOF_ARRAY(kGeneralItems), kGeneralItems, 0, nullptr),
};

const KSPROPERTY_SET kPinSets[] = {
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Connection, SIZEOF_ARRAY(kConnectionItems), kConnectionItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Stream, SIZEOF_ARRAY(kStreamItems), kStreamItems, 0, nullptr),
};

struct NamedGuid {
    GUID guid;
    const char16_t* name;
};

// The names of the standard video pin categories (MediaCategories in the
// Windows registry, written by ks.inf/kscaptur.inf).
const NamedGuid kMediaCategoryNames[] = {
    {PINNAME_VIDEO_CAPTURE, u"Capture"},
    {PINNAME_VIDEO_PREVIEW, u"Preview"},
    {PINNAME_VIDEO_STILL, u"Still"},
    {PINNAME_VIDEO_ANALOGVIDEOIN, u"Analog Video In"},
    {PINNAME_VIDEO_VBI, u"VBI"},
    {PINNAME_VIDEO_VIDEOPORT, u"VideoPort"},
};

}  // namespace

BuiltinSets BuiltinPropertySets(ObjectKind kind) {
    switch (kind) {
        case ObjectKind::Filter:
            return {kFilterSets, SIZEOF_ARRAY(kFilterSets)};
        case ObjectKind::Pin:
            return {kPinSets, SIZEOF_ARRAY(kPinSets)};
        default:
            return {};
    }
}

const char16_t* MediaCategoryName(const GUID& guid) {
    for (const NamedGuid& entry : kMediaCategoryNames) {
        if (IsEqualGUID(entry.guid, guid)) return entry.name;
    }
    return nullptr;
}

}  // namespace kvsim::ks

// ---- KsPinDataIntersection(Ex): a minidriver's own intersection dispatch ------------------------
namespace {

const KSPIN_DESCRIPTOR* DescriptorAt(const KSPIN_DESCRIPTOR* base, ULONG stride, ULONG index) {
    return reinterpret_cast<const KSPIN_DESCRIPTOR*>(reinterpret_cast<const UCHAR*>(base) + size_t(index) * stride);
}

}  // namespace

extern "C" NTSTATUS KsPinDataIntersectionEx(PIRP Irp, PKSP_PIN Pin, PVOID Data, ULONG DescriptorsCount,
                                            const KSPIN_DESCRIPTOR* Descriptor, ULONG DescriptorSize,
                                            PFNKSINTERSECTHANDLEREX IntersectHandler, PVOID HandlerContext) {
    using namespace kvsim::ks;
    if (Pin->PinId >= DescriptorsCount) return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR* pin = DescriptorAt(Descriptor, DescriptorSize, Pin->PinId);
    ULONG bufferSize = DataLength(Irp);
    return WalkIntersection(Irp, Pin, RequestLength(Irp), *pin,
                            [&](PKSDATARANGE caller, PKSDATARANGE matching, ULONG* dataSize) {
                                if (IntersectHandler == nullptr) {
                                    return DefaultIntersect(matching, bufferSize, Data, dataSize);
                                }
                                return IntersectHandler(HandlerContext, Irp, Pin, caller, matching, bufferSize, Data,
                                                        dataSize);
                            });
}

extern "C" NTSTATUS KsPinDataIntersection(PIRP Irp, PKSP_PIN Pin, PVOID Data, ULONG DescriptorsCount,
                                          const KSPIN_DESCRIPTOR* Descriptor, PFNKSINTERSECTHANDLER IntersectHandler) {
    using namespace kvsim::ks;
    if (Pin->PinId >= DescriptorsCount) return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR* pin = &Descriptor[Pin->PinId];
    ULONG bufferSize = DataLength(Irp);
    // The older handler form gets the caller's range only and sets
    // Irp->IoStatus.Information itself.
    return WalkIntersection(Irp, Pin, RequestLength(Irp), *pin,
                            [&](PKSDATARANGE caller, PKSDATARANGE matching, ULONG* dataSize) {
                                if (IntersectHandler == nullptr) {
                                    return DefaultIntersect(matching, bufferSize, Data, dataSize);
                                }
                                NTSTATUS status = IntersectHandler(Irp, Pin, caller, Data);
                                *dataSize = ULONG(Irp->IoStatus.Information);
                                return status;
                            });
}
