// kvcam's formats and info reports (report.h).
#include "report.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "kvsim/pool.h"
#include "usb/usb_bus.h"

namespace kvcam {
namespace {

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...)
{
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    return line;
}

std::string GuidLabel(const GUID& guid)
{
    std::optional<std::string_view> name = kvharness::GuidName(guid);
    std::string text = kvharness::FormatGuid(guid);
    return name ? std::string(*name) + " (" + text + ")" : text;
}

// "YUY2" for MEDIASUBTYPE_YUY2 and the other FOURCC-based subtypes
// (Data1 = the FOURCC, the rest the media-type base GUID), "RGB24" for the
// named ones, else the GUID.
std::string SubFormatLabel(const GUID& guid)
{
    const std::string text = kvharness::FormatGuid(guid);
    if (text.substr(8) == "-0000-0010-8000-00AA00389B71") {
        return kvharness::FourCcText(guid.Data1);
    }
    constexpr std::string_view kPrefix = "MEDIASUBTYPE_";
    std::optional<std::string_view> name = kvharness::GuidName(guid);
    if (name && name->starts_with(kPrefix)) {
        return std::string(name->substr(kPrefix.size()));
    }
    return text;
}

// biCompression: BI_RGB (0) and BI_BITFIELDS (3) by name, else the FOURCC.
std::string CompressionLabel(uint32_t compression)
{
    if (compression == 0) {
        return "BI_RGB";
    }
    if (compression == 3) {
        return "BI_BITFIELDS";
    }
    return kvharness::FourCcText(compression);
}

double FramesPerSecond(LONGLONG interval100ns) { return interval100ns > 0 ? 1.0e7 / double(interval100ns) : 0.0; }

std::string RangesTable(const char* title, const std::vector<KS_DATARANGE_VIDEO>& ranges)
{
    std::string out = Printf("%s: %zu\n", title, ranges.size());
    if (ranges.empty()) {
        return out;
    }
    out += "    #  subformat  width x height  bits  compression   image bytes  frame rate (fps)  bit rate (bit/s)\n";
    for (size_t i = 0; i < ranges.size(); ++i) {
        const KS_DATARANGE_VIDEO& r = ranges[i];
        const KS_BITMAPINFOHEADER& bmi = r.VideoInfoHeader.bmiHeader;
        std::string size = Printf("%" PRId32 " x %" PRId32, static_cast<int32_t>(bmi.biWidth),
                                  static_cast<int32_t>(bmi.biHeight));
        std::string rates = Printf("%.2f .. %.2f", FramesPerSecond(r.ConfigCaps.MaxFrameInterval),
                                   FramesPerSecond(r.ConfigCaps.MinFrameInterval));
        out += Printf("  %3zu  %-9s  %-14s  %4u  %-12s  %11" PRIu32 "  %-16s  %" PRIu32 "\n", i,
                      SubFormatLabel(r.DataRange.SubFormat).c_str(), size.c_str(), unsigned(bmi.biBitCount),
                      CompressionLabel(bmi.biCompression).c_str(), static_cast<uint32_t>(bmi.biSizeImage),
                      rates.c_str(), static_cast<uint32_t>(r.VideoInfoHeader.dwBitRate));
    }
    return out;
}

// The frame rates an application reads per capture range; an interval of
// 0 (the driver reports as many intervals as the frame lists, taking them
// from the descriptor that holds them) shows as "-".
std::string FrameRatesTable(const FormatsReport& report)
{
    std::string out = "capture frame rates (KSPROPERTY_VIDEOCONTROL_FRAME_RATES, fps):\n";
    for (size_t i = 0; i < report.captureRates.size(); ++i) {
        const KS_BITMAPINFOHEADER& bmi = report.capture[i].VideoInfoHeader.bmiHeader;
        out += Printf("  %3zu  %-9s  %-14s ", i, SubFormatLabel(report.capture[i].DataRange.SubFormat).c_str(),
                      Printf("%" PRId32 " x %" PRId32, static_cast<int32_t>(bmi.biWidth),
                             static_cast<int32_t>(bmi.biHeight))
                          .c_str());
        if (report.captureRates[i].empty()) out += " (none)";
        for (LONGLONG interval : report.captureRates[i]) {
            out += interval > 0 ? Printf(" %.2f", FramesPerSecond(interval)) : std::string(" -");
        }
        out += "\n";
    }
    return out;
}

std::string StartText(const FormatsReport& report)
{
    std::string out = Printf("start: %s %s\n", kvharness::FormatStatus(report.startStatus).c_str(),
                             report.started ? "(started)" : "(failed)");
    if (report.startMessage) {
        out += "  debug: " + *report.startMessage + "\n";
    }
    if (!report.error.empty()) {
        out += "  error: " + report.error + "\n";
    }
    return out;
}

const char* DataFlowName(KSPIN_DATAFLOW flow)
{
    return flow == KSPIN_DATAFLOW_IN ? "in" : flow == KSPIN_DATAFLOW_OUT ? "out" : "?";
}

const char* CommunicationName(KSPIN_COMMUNICATION c)
{
    constexpr const char* kNames[] = {"none", "sink", "source", "both", "bridge"};
    return static_cast<size_t>(c) < std::size(kNames) ? kNames[c] : "?";
}

std::string NodeLabel(ULONG node) { return node == KSFILTER_NODE ? "filter" : Printf("node %lu", (unsigned long)node); }

std::string CameraText(kvharness::System& system)
{
    std::shared_ptr<kvsim::camera::UvcCamera> camera = system.camera();
    if (!camera) {
        return "camera: none\n";
    }
    const kvsim::camera::CameraModel& m = camera->Model();
    std::string out = Printf("camera: %04X:%04X, USB %x.%02x, %s, UVC %x.%02x\n", m.idVendor, m.idProduct,
                             m.bcdUsb >> 8, m.bcdUsb & 0xFF,
                             camera->HighSpeed() ? "high speed (480 Mbit/s)" : "full speed (12 Mbit/s)",
                             m.bcdUvc >> 8, m.bcdUvc & 0xFF);
    out += Printf("configuration %u: %u interfaces, %u bytes, attributes 0x%02X\n", m.configurationValue,
                  m.numInterfaces, m.totalLength, m.configAttributes);
    out += "interfaces and pipes:\n";
    if (m.controlInterface) {
        out += Printf("  interface %u: video control", *m.controlInterface);
        if (m.interruptEndpoint) {
            out += Printf(", interrupt IN 0x%02X, %u bytes, interval %u", m.interruptEndpoint->address,
                          m.interruptEndpoint->wMaxPacketSize, m.interruptEndpoint->interval);
        }
        out += "\n";
    }
    for (const kvsim::camera::StreamingInterface& vs : m.streaming) {
        out += Printf("  interface %u: video streaming, %zu formats, endpoint 0x%02X\n", vs.number, vs.formats.size(),
                      vs.endpointAddress);
        for (const kvsim::camera::AltSetting& alt : vs.alternates) {
            if (alt.endpointAddress == 0) {
                out += Printf("    alternate %u: no endpoint (zero bandwidth)\n", alt.alternate);
            } else {
                out += Printf("    alternate %u: %s 0x%02X, wMaxPacketSize 0x%04X, %u bytes a (micro)frame\n",
                              alt.alternate, alt.isochronous ? "isochronous" : "bulk", alt.endpointAddress,
                              alt.wMaxPacketSize, alt.capacity);
            }
        }
    }
    if (system.pdo() != nullptr) {
        kvsim::usb::DeviceState s = kvsim::usb::GetDeviceState(system.pdo());
        out += Printf("bus: %s, %s, open pipes %zu, power D%d\n", s.present ? "present" : "removed",
                      s.configured ? "configured" : "not configured", s.openPipes, int(s.power) - 1);
    }
    return out;
}

std::string FilterText(kvharness::System& system)
{
    kvsim::client::Filter* filter = system.filter();
    if (filter == nullptr) {
        return "filter: not open\n";
    }
    std::string out = "filter pins:\n";
    std::vector<kvharness::PinView> pins;
    NTSTATUS status = kvharness::ReadPins(*filter, &pins);
    if (!NT_SUCCESS(status)) {
        out += "  (pin count: " + kvharness::FormatStatus(status) + ")\n";
    }
    for (const kvharness::PinView& p : pins) {
        out += Printf("  %lu  %-3s  %-6s  instances %lu/%lu  ranges %zu  %s\n", (unsigned long)p.id,
                      DataFlowName(p.dataFlow), CommunicationName(p.communication),
                      (unsigned long)p.instances.CurrentCount, (unsigned long)p.instances.PossibleCount, p.rangeCount,
                      GuidLabel(p.category).c_str());
    }
    kvharness::TopologyView t = kvharness::ReadTopology(*filter);
    out += "topology:\n";
    if (!NT_SUCCESS(t.status)) {
        out += "  (read failed: " + kvharness::FormatStatus(t.status) + ")\n";
    }
    out += "  categories:\n";
    for (const GUID& g : t.categories) {
        out += "    " + GuidLabel(g) + "\n";
    }
    out += "  nodes:\n";
    for (size_t i = 0; i < t.nodes.size(); ++i) {
        out += Printf("    %zu  %s\n", i, GuidLabel(t.nodes[i]).c_str());
    }
    out += "  connections:\n";
    for (const KSTOPOLOGY_CONNECTION& c : t.connections) {
        out += Printf("    %s pin %lu -> %s pin %lu\n", NodeLabel(c.FromNode).c_str(), (unsigned long)c.FromNodePin,
                      NodeLabel(c.ToNode).c_str(), (unsigned long)c.ToNodePin);
    }
    return out;
}

}  // namespace

FormatsReport CollectFormats(kvharness::System& system)
{
    FormatsReport report;
    report.startStatus = system.startStatus();
    report.startMessage = system.startMessage();
    report.started = system.started();
    if (!report.started) {
        return report;
    }
    NTSTATUS status = system.OpenFilter();
    if (!NT_SUCCESS(status)) {
        report.error = "the capture filter cannot be opened (" + kvharness::FormatStatus(status) + ")";
        return report;
    }
    struct {
        ULONG pin;
        std::vector<KS_DATARANGE_VIDEO>* ranges;
    } const reads[] = {{kCapturePinId, &report.capture}, {kStillPinId, &report.still}};
    for (const auto& r : reads) {
        status = kvharness::ReadVideoRanges(*system.filter(), r.pin, r.ranges);
        if (!NT_SUCCESS(status) && report.error.empty()) {
            report.error = Printf("KSPROPERTY_PIN_DATARANGES of pin %lu failed (%s)", (unsigned long)r.pin,
                                  kvharness::FormatStatus(status).c_str());
        }
    }
    report.captureRates.resize(report.capture.size());
    for (size_t i = 0; i < report.capture.size(); ++i) {
        kvharness::ReadFrameRates(*system.filter(), ULONG(i), &report.captureRates[i]);
    }
    return report;
}

namespace {

// The driver's pool use so far, per tag, as poolmon would show it: what
// the start left allocated and the high-water mark.
std::string PoolText()
{
    std::string out = "pool (non-paged, driver and simulation, since the boot):\n";
    out += "  tag    blocks   bytes now   peak bytes\n";
    uint64_t nowTotal = 0;
    uint64_t peakTotal = 0;
    for (const kvsim::PoolTagStats& t : kvsim::PoolStatsByTag()) {
        out += Printf("  %-4s %8" PRIu64 " %11" PRIu64 " %12" PRIu64 "\n", kvsim::PoolTagText(t.tag).c_str(),
                      t.currentCount, t.currentBytes, t.peakBytes);
        nowTotal += t.currentBytes;
        peakTotal += t.peakBytes;
    }
    out += Printf("  all           %11" PRIu64 " %12" PRIu64 " (sum of the per-tag peaks)\n", nowTotal, peakTotal);
    return out;
}

}  // namespace

Json DataRangeJson(const KS_DATARANGE_VIDEO& r)
{
    const KS_BITMAPINFOHEADER& bmi = r.VideoInfoHeader.bmiHeader;
    Json o = Json::object();
    o["SubFormat"] = kvharness::FormatGuid(r.DataRange.SubFormat);
    o["SampleSize"] = uint32_t(r.DataRange.SampleSize);
    o["bFixedSizeSamples"] = int64_t(r.bFixedSizeSamples);
    o["bTemporalCompression"] = int64_t(r.bTemporalCompression);
    o["StreamDescriptionFlags"] = uint32_t(r.StreamDescriptionFlags);
    o["MinFrameInterval"] = int64_t(r.ConfigCaps.MinFrameInterval);
    o["MaxFrameInterval"] = int64_t(r.ConfigCaps.MaxFrameInterval);
    o["MinBitsPerSecond"] = int64_t(r.ConfigCaps.MinBitsPerSecond);
    o["MaxBitsPerSecond"] = int64_t(r.ConfigCaps.MaxBitsPerSecond);
    o["AvgTimePerFrame"] = int64_t(r.VideoInfoHeader.AvgTimePerFrame);
    o["dwBitRate"] = uint32_t(r.VideoInfoHeader.dwBitRate);
    o["biWidth"] = int64_t(bmi.biWidth);
    o["biHeight"] = int64_t(bmi.biHeight);
    o["biBitCount"] = uint32_t(bmi.biBitCount);
    o["biCompression"] = uint32_t(bmi.biCompression);
    o["biSizeImage"] = uint32_t(bmi.biSizeImage);
    return o;
}

Json FormatsJson(const FormatsReport& report)
{
    Json o = Json::object();
    o["start_status"] = kvharness::FormatStatus(report.startStatus);
    o["start_message"] = report.startMessage ? Json(*report.startMessage) : Json(nullptr);
    if (report.started) {
        for (const auto& [key, ranges] : {std::pair{"capture", &report.capture}, std::pair{"still", &report.still}}) {
            Json items = Json::array();
            for (const KS_DATARANGE_VIDEO& r : *ranges) {
                items.push_back(DataRangeJson(r));
            }
            o[key] = std::move(items);
        }
        Json rates = Json::array();
        for (const auto& intervals : report.captureRates) {
            Json list = Json::array();
            for (LONGLONG interval : intervals) list.push_back(int64_t(interval));
            rates.push_back(std::move(list));
        }
        o["capture_frame_rates"] = std::move(rates);
    }
    return o;
}

std::string FormatsTable(const FormatsReport& report)
{
    std::string out = StartText(report);
    if (report.started) {
        out += RangesTable("capture pin 0 data ranges", report.capture);
        out += FrameRatesTable(report);
        out += RangesTable("still pin 2 data ranges", report.still);
    }
    return out;
}

std::string InfoText(kvharness::System& system, const FormatsReport& formats, bool verbose)
{
    std::string out = CameraText(system);
    out += FormatsTable(formats);
    if (formats.started) {
        out += FilterText(system);
    }
    out += PoolText();
    if (verbose) {
        out += "debug log:\n";
        for (const std::string& message : system.DebugMessages()) {
            out += "  " + message;
            if (message.empty() || message.back() != '\n') {
                out += "\n";
            }
        }
    }
    return out;
}

}  // namespace kvcam
