// kvcam's reports of a booted system (formats and info), as text and JSON,
// built from what a client reads from the capture filter (see
// tools/harness/filter_view.h) and what the bus knows about the camera.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "filter_view.h"
#include "json.h"
#include "system.h"

namespace kvcam {

// The driver's pin ids: capture, video input bridge, still (the order of its
// filter descriptor's pin table).
inline constexpr ULONG kCapturePinId = 0;
inline constexpr ULONG kStillPinId = 2;

struct FormatsReport {
    NTSTATUS startStatus = STATUS_UNSUCCESSFUL;
    std::optional<std::string> startMessage;
    bool started = false;
    std::vector<KS_DATARANGE_VIDEO> capture;
    std::vector<KS_DATARANGE_VIDEO> still;
    // Per capture range, the intervals KSPROPERTY_VIDEOCONTROL_FRAME_RATES
    // reports (empty when the query failed).
    std::vector<std::vector<LONGLONG>> captureRates;
    std::string error;  // set when the started filter could not be read
};

// Opens the system's filter (when started) and reads both pins' ranges.
FormatsReport CollectFormats(kvharness::System& system);

// One KS_DATARANGE_VIDEO as a JSON object named by the structures' own
// fields, in this order: SubFormat, SampleSize, bFixedSizeSamples,
// bTemporalCompression, StreamDescriptionFlags, MinFrameInterval,
// MaxFrameInterval, MinBitsPerSecond, MaxBitsPerSecond, AvgTimePerFrame,
// dwBitRate, biWidth, biHeight, biBitCount, biCompression, biSizeImage.
Json DataRangeJson(const KS_DATARANGE_VIDEO& range);
// The `kvcam formats --json` object: start_status, start_message, and when
// started capture, capture_frame_rates (per capture range, the intervals in
// 100 ns units) and still.
Json FormatsJson(const FormatsReport& report);
// The same as a readable table.
std::string FormatsTable(const FormatsReport& report);

// `kvcam info`: the camera on the bus, the start, the formats, the filter's
// pins and topology, and with `verbose` the driver's debug log.
std::string InfoText(kvharness::System& system, const FormatsReport& formats, bool verbose);

}  // namespace kvcam
