// What a client reads from an open capture filter, as plain data: the pins
// (KSPROPSETID_Pin), their video data ranges (KSPROPERTY_PIN_DATARANGES) and
// the topology (KSPROPSETID_Topology); plus the text forms kvcam prints
// (GUIDs, NTSTATUS, the names of well-known GUIDs).
// https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-pin-dataranges
// https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-topology-connections
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ks_client.h"
#include "ks.h"
#include "ksmedia.h"

namespace kvharness {

// The pin's data ranges that are KS_DATARANGE_VIDEO (FormatSize of at least
// sizeof(KS_DATARANGE_VIDEO)); other ranges are counted in *otherRanges.
NTSTATUS ReadVideoRanges(kvsim::client::Filter& filter, ULONG pinId, std::vector<KS_DATARANGE_VIDEO>* ranges,
                         size_t* otherRanges = nullptr);

// The frame intervals (100 ns units) the filter's video-control property
// KSPROPERTY_VIDEOCONTROL_FRAME_RATES reports for capture range
// `rangeIndex`: the size query first, then the list.
// https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-videocontrol-frame-rates
NTSTATUS ReadFrameRates(kvsim::client::Filter& filter, ULONG rangeIndex, std::vector<LONGLONG>* intervals);

struct PinView {
    ULONG id = 0;
    KSPIN_DATAFLOW dataFlow = KSPIN_DATAFLOW_IN;
    KSPIN_COMMUNICATION communication = KSPIN_COMMUNICATION_NONE;
    GUID category{};
    KSPIN_CINSTANCES instances{};
    size_t rangeCount = 0;
    NTSTATUS status = STATUS_SUCCESS;  // the first failing request's status
};

struct TopologyView {
    std::vector<GUID> categories;
    std::vector<GUID> nodes;
    std::vector<KSTOPOLOGY_CONNECTION> connections;
    NTSTATUS status = STATUS_SUCCESS;
};

NTSTATUS ReadPins(kvsim::client::Filter& filter, std::vector<PinView>* pins);
TopologyView ReadTopology(kvsim::client::Filter& filter);

// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case, no braces.
std::string FormatGuid(const GUID& guid);
// "0x%08X".
std::string FormatStatus(NTSTATUS status);
// The name of a well-known kernel-streaming or media GUID ("KSCATEGORY_VIDEO",
// "MEDIASUBTYPE_YUY2", ...); nullopt for any other.
std::optional<std::string_view> GuidName(const GUID& guid);
// A four-character code as text ("YUY2"); non-printable bytes as '.'.
std::string FourCcText(uint32_t fourcc);

}  // namespace kvharness
