// Descriptor builder and the built-in default camera (descriptor_builder.h).
// Layouts: USB 2.0 section 9.6 (device, configuration, interface, endpoint),
// the interface association ECN, UVC 1.0/1.1 sections 3.7 (video control)
// and 3.9 (video streaming), and the UVC payload format specifications for
// uncompressed (YUY2) and motion-JPEG formats.
#include "descriptor_builder.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "uvc_spec.h"

namespace kvsim::camera {

namespace {

// Appends little-endian fields; Descriptor() opens a descriptor whose
// bLength is patched when it is closed.
class Writer {
public:
    std::vector<uint8_t> bytes;
    void U8(uint32_t v) { bytes.push_back(static_cast<uint8_t>(v)); }
    void U16(uint32_t v) { U8(v); U8(v >> 8); }
    void U24(uint32_t v) { U16(v); U8(v >> 16); }
    void U32(uint32_t v) { U16(v); U16(v >> 16); }
    void Bytes(const uint8_t* p, size_t n) { bytes.insert(bytes.end(), p, p + n); }
    size_t Open(uint8_t type, int subtype = -1) {
        size_t at = bytes.size();
        U8(0);
        U8(type);
        if (subtype >= 0) U8(subtype);
        return at;
    }
    void Close(size_t at) { bytes[at] = static_cast<uint8_t>(bytes.size() - at); }
    void Patch16(size_t at, uint32_t v) { bytes[at] = static_cast<uint8_t>(v); bytes[at + 1] = static_cast<uint8_t>(v >> 8); }
};

constexpr uint8_t kCameraTerminalId = 1;
constexpr uint8_t kProcessingUnitId = 3;
constexpr uint8_t kOutputTerminalId = 5;
constexpr uint8_t kInterruptEp = 0x83;
constexpr uint8_t kIsoEp = 0x81;

void Interface(Writer& w, uint8_t number, uint8_t alt, uint8_t endpoints, uint8_t subclass) {
    size_t d = w.Open(uvc::kDescInterface);
    w.U8(number);
    w.U8(alt);
    w.U8(endpoints);
    w.U8(uvc::kClassVideo);
    w.U8(subclass);
    w.U8(0);  // bInterfaceProtocol (PC_PROTOCOL_UNDEFINED)
    w.U8(0);  // iInterface
    w.Close(d);
}

void Endpoint(Writer& w, uint8_t address, uint8_t attributes, uint16_t packetSize, uint8_t interval) {
    size_t d = w.Open(uvc::kDescEndpoint);
    w.U8(address);
    w.U8(attributes);
    w.U16(packetSize);
    w.U8(interval);
    w.Close(d);
}

void VideoControl(Writer& w, const CameraSpec& s) {
    size_t header = w.Open(uvc::kDescCsInterface, uvc::kVcHeader);
    w.U16(0x0100);  // bcdUVC
    size_t totalAt = w.bytes.size();
    w.U16(0);
    w.U32(s.clockFrequency);
    w.U8(1);  // bInCollection
    w.U8(1);  // baInterfaceNr(1): the streaming interface
    w.Close(header);

    size_t ct = w.Open(uvc::kDescCsInterface, uvc::kVcInputTerminal);
    w.U8(kCameraTerminalId);
    w.U16(uvc::kIttCamera);
    w.U8(0);   // bAssocTerminal
    w.U8(0);   // iTerminal
    w.U16(0);  // wObjectiveFocalLengthMin
    w.U16(0);  // wObjectiveFocalLengthMax
    w.U16(0);  // wOcularFocalLength
    w.U8(3);   // bControlSize
    w.U24(s.cameraTerminalControls);
    w.Close(ct);

    size_t pu = w.Open(uvc::kDescCsInterface, uvc::kVcProcessingUnit);
    w.U8(kProcessingUnitId);
    w.U8(kCameraTerminalId);  // bSourceID
    w.U16(0);                 // wMaxMultiplier
    w.U8(2);                  // bControlSize
    w.U16(s.processingUnitControls);
    w.U8(0);  // iProcessing
    w.Close(pu);

    size_t xu = w.Open(uvc::kDescCsInterface, uvc::kVcExtensionUnit);
    w.U8(s.extensionUnitId);
    w.Bytes(s.extensionUnitGuid.data(), 16);
    w.U8(s.extensionUnitNumControls);
    w.U8(1);  // bNrInPins
    w.U8(kProcessingUnitId);
    w.U8(2);  // bControlSize
    w.U16(s.extensionUnitControls);
    w.U8(0);  // iExtension
    w.Close(xu);

    size_t ot = w.Open(uvc::kDescCsInterface, uvc::kVcOutputTerminal);
    w.U8(kOutputTerminalId);
    w.U16(uvc::kTtStreaming);
    w.U8(0);                   // bAssocTerminal
    w.U8(s.extensionUnitId);   // bSourceID
    w.U8(0);                   // iTerminal
    w.Close(ot);
    w.Patch16(totalAt, static_cast<uint32_t>(w.bytes.size() - header));

    if (s.interruptPacketSize == 0) return;
    Endpoint(w, kInterruptEp, 0x03, s.interruptPacketSize, s.highSpeed ? 6 : 8);
    size_t cse = w.Open(uvc::kDescCsEndpoint, 0x03);  // EP_INTERRUPT
    w.U16(s.interruptPacketSize);                     // wMaxTransferSize
    w.Close(cse);
}

uint32_t FrameBytes(const FrameSpec& f) { return uint32_t{f.width} * f.height * 2; }

void FrameDescriptor(Writer& w, const FormatSpec& fmt, const FrameSpec& f, uint8_t index) {
    uint8_t sub = fmt.kind == FormatKind::kMjpeg ? uvc::kVsFrameMjpeg : uvc::kVsFrameUncompressed;
    size_t d = w.Open(uvc::kDescCsInterface, sub);
    uint32_t minInterval = f.intervals.front(), maxInterval = f.intervals.front();
    for (uint32_t i : f.intervals) { minInterval = std::min(minInterval, i); maxInterval = std::max(maxInterval, i); }
    if (f.continuous && f.intervals.size() >= 2) { minInterval = f.intervals[0]; maxInterval = f.intervals[1]; }
    minInterval = std::max(minInterval, 1u);
    maxInterval = std::max(maxInterval, 1u);
    uint64_t bitsPerFrame = uint64_t{FrameBytes(f)} * 8;
    w.U8(index);
    w.U8(0);  // bmCapabilities
    w.U16(f.width);
    w.U16(f.height);
    w.U32(static_cast<uint32_t>(bitsPerFrame * 10000000 / maxInterval));  // dwMinBitRate
    w.U32(static_cast<uint32_t>(bitsPerFrame * 10000000 / minInterval));  // dwMaxBitRate
    w.U32(FrameBytes(f));                                                // dwMaxVideoFrameBufferSize
    w.U32(f.intervals.front());                                          // dwDefaultFrameInterval
    w.U8(f.continuous ? 0 : static_cast<uint32_t>(f.intervals.size()));  // bFrameIntervalType
    for (uint32_t i : f.intervals) w.U32(i);
    w.Close(d);
}

void FormatDescriptors(Writer& w, const FormatSpec& fmt, uint8_t index) {
    if (fmt.kind == FormatKind::kMjpeg) {
        size_t d = w.Open(uvc::kDescCsInterface, uvc::kVsFormatMjpeg);
        w.U8(index);
        w.U8(static_cast<uint32_t>(fmt.frames.size()));
        w.U8(1);  // bmFlags: fixed-size samples
        w.U8(1);  // bDefaultFrameIndex
        w.U8(0);  // bAspectRatioX
        w.U8(0);  // bAspectRatioY
        w.U8(0);  // bmInterlaceFlags
        w.U8(0);  // bCopyProtect
        w.Close(d);
    } else {
        size_t d = w.Open(uvc::kDescCsInterface, uvc::kVsFormatUncompressed);
        w.U8(index);
        w.U8(static_cast<uint32_t>(fmt.frames.size()));
        w.Bytes(uvc::kGuidYuy2, 16);
        w.U8(16);  // bBitsPerPixel
        w.U8(1);   // bDefaultFrameIndex
        w.U8(0);
        w.U8(0);
        w.U8(0);
        w.U8(0);
        w.Close(d);
    }
    uint8_t frameIndex = 1;
    for (const auto& f : fmt.frames) FrameDescriptor(w, fmt, f, frameIndex++);
    if (!fmt.stills.empty()) {
        size_t d = w.Open(uvc::kDescCsInterface, uvc::kVsStillImageFrame);
        w.U8(0);  // bEndpointAddress: method 2 (still through the video pipe)
        w.U8(static_cast<uint32_t>(fmt.stills.size()));
        for (const auto& s : fmt.stills) { w.U16(s.width); w.U16(s.height); }
        w.U8(0);  // bNumCompressionPattern
        w.Close(d);
    }
    size_t cm = w.Open(uvc::kDescCsInterface, uvc::kVsColorFormat);
    w.U8(1);  // BT.709 primaries
    w.U8(1);  // BT.709 transfer characteristics
    w.U8(4);  // SMPTE 170M matrix
    w.Close(cm);
}

void VideoStreaming(Writer& w, const CameraSpec& s) {
    Interface(w, 1, 0, 0, uvc::kSubclassVideoStreaming);
    size_t header = w.Open(uvc::kDescCsInterface, uvc::kVsInputHeader);
    w.U8(static_cast<uint32_t>(s.formats.size()));
    size_t totalAt = w.bytes.size();
    w.U16(0);
    w.U8(kIsoEp);
    w.U8(0);                  // bmInfo
    w.U8(kOutputTerminalId);  // bTerminalLink
    w.U8(2);                  // bStillCaptureMethod
    w.U8(1);                  // bTriggerSupport
    w.U8(0);                  // bTriggerUsage
    w.U8(1);                  // bControlSize
    for (size_t i = 0; i < s.formats.size(); ++i) w.U8(0);
    w.Close(header);
    uint8_t index = 1;
    for (const auto& f : s.formats) FormatDescriptors(w, f, index++);
    w.Patch16(totalAt, static_cast<uint32_t>(w.bytes.size() - header));
    uint8_t alt = 1;
    for (uint16_t mps : s.altPacketSizes) {
        Interface(w, 1, alt++, 1, uvc::kSubclassVideoStreaming);
        Endpoint(w, kIsoEp, 0x05, mps, 1);  // isochronous, asynchronous
    }
}

}  // namespace

DescriptorSet BuildDescriptors(const CameraSpec& s) {
    DescriptorSet set;
    Writer dev;
    size_t d = dev.Open(uvc::kDescDevice);
    dev.U16(s.highSpeed ? 0x0200 : 0x0110);
    dev.U8(0xEF);  // miscellaneous class with an interface association
    dev.U8(0x02);
    dev.U8(0x01);
    dev.U8(64);    // bMaxPacketSize0
    dev.U16(s.idVendor);
    dev.U16(s.idProduct);
    dev.U16(s.bcdDevice);
    dev.U8(0);     // iManufacturer
    dev.U8(0);     // iProduct
    dev.U8(0);     // iSerialNumber
    dev.U8(1);     // bNumConfigurations
    dev.Close(d);
    set.device = std::move(dev.bytes);

    Writer w;
    size_t cfg = w.Open(uvc::kDescConfiguration);
    w.U16(0);   // wTotalLength, patched below
    w.U8(2);    // bNumInterfaces
    w.U8(1);    // bConfigurationValue
    w.U8(0);    // iConfiguration
    w.U8(0x80); // bmAttributes: bus powered
    w.U8(250);  // bMaxPower: 500 mA
    w.Close(cfg);
    size_t iad = w.Open(uvc::kDescInterfaceAssociation);
    w.U8(0);  // bFirstInterface
    w.U8(2);  // bInterfaceCount
    w.U8(uvc::kClassVideo);
    w.U8(uvc::kSubclassVideoInterfaceCollection);
    w.U8(0);
    w.U8(0);
    w.Close(iad);
    Interface(w, 0, 0, s.interruptPacketSize != 0 ? 1 : 0, uvc::kSubclassVideoControl);
    VideoControl(w, s);
    VideoStreaming(w, s);
    w.Patch16(2, static_cast<uint32_t>(w.bytes.size()));
    set.configuration = std::move(w.bytes);
    return set;
}

const CameraSpec& DefaultCameraSpec() {
    static const CameraSpec spec = [] {
        CameraSpec s;
        s.idVendor = 0x0C45;  // Sonix, like the trust_webcam of ../shared/cameras
        s.idProduct = 0x8034;
        s.bcdDevice = 0x0100;
        s.highSpeed = true;
        // Camera terminal: D1 auto-exposure mode, D3 exposure time (absolute).
        s.cameraTerminalControls = 0x00000A;
        // Processing unit: D0 brightness, D1 contrast, D2 hue, D3 saturation,
        // D4 sharpness, D5 gamma, D6 white-balance temperature, D8 backlight
        // compensation, D9 gain, D10 power-line frequency, D12 white-balance
        // temperature auto.
        s.processingUnitControls = 0x177F;
        s.extensionUnitId = 4;
        s.extensionUnitGuid = {0x70, 0x33, 0xF0, 0x28, 0x11, 0x63, 0x2E, 0x4A,
                               0xBA, 0x2C, 0x68, 0x90, 0xEB, 0x33, 0x40, 0x16};
        s.extensionUnitControls = 0x0004;  // selector 3: the register window
        s.extensionUnitNumControls = 1;
        const std::vector<uint32_t> vga = {333333, 400000, 500000, 666666, 1000000, 2000000};
        const std::vector<uint32_t> hd = {1000000, 2000000};
        FormatSpec yuy2{FormatKind::kUncompressed,
                        {{640, 480, vga}, {352, 288, vga}, {320, 240, vga}, {176, 144, vga}, {160, 120, vga},
                         {1280, 720, hd}},
                        {{640, 480}, {352, 288}, {320, 240}, {1280, 720}}};
        FormatSpec mjpeg{FormatKind::kMjpeg,
                         {{640, 480, vga}, {1280, 720, vga}, {320, 240, vga}, {160, 120, vga}},
                         {{640, 480}, {1280, 720}, {320, 240}}};
        s.formats = {yuy2, mjpeg};
        // 128, 256, 512, 1024, 2 x 768, 2 x 1024, 3 x 896, 3 x 1024 bytes.
        s.altPacketSizes = {0x0080, 0x0100, 0x0200, 0x0400, 0x0B00, 0x0C00, 0x1380, 0x1400};
        return s;
    }();
    return spec;
}

std::optional<DescriptorSet> LoadDescriptorFiles(const std::string& dir, const std::string& name) {
    auto read = [](const std::string& path) -> std::optional<std::vector<uint8_t>> {
        std::ifstream in(path, std::ios::binary);
        if (!in) return std::nullopt;
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    auto dev = read(dir + "/" + name + ".dev_desc.bin");
    auto cfg = read(dir + "/" + name + ".cfg_desc.bin");
    if (!dev || !cfg) return std::nullopt;
    return DescriptorSet{std::move(*dev), std::move(*cfg)};
}

}  // namespace kvsim::camera
