// USB 2.0 and USB Video Class 1.1 constants used by the virtual camera
// (sim/camera): descriptor types and subtypes, request codes, control
// selectors, payload-header bits. Facts from chapter 9 of the USB specification
// (revision 2.0) and from the USB Video Class specification (UVC 1.1,
// appendix A and section 2.4.3.3).
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvsim::camera::uvc {

// Standard descriptor types (USB 2.0 table 9-5) and the class-specific ones.
inline constexpr uint8_t kDescDevice = 0x01;
inline constexpr uint8_t kDescConfiguration = 0x02;
inline constexpr uint8_t kDescString = 0x03;
inline constexpr uint8_t kDescInterface = 0x04;
inline constexpr uint8_t kDescEndpoint = 0x05;
inline constexpr uint8_t kDescInterfaceAssociation = 0x0B;
inline constexpr uint8_t kDescCsInterface = 0x24;
inline constexpr uint8_t kDescCsEndpoint = 0x25;

// Interface class and subclasses (UVC A.1, A.2).
inline constexpr uint8_t kClassVideo = 0x0E;
inline constexpr uint8_t kSubclassVideoControl = 0x01;
inline constexpr uint8_t kSubclassVideoStreaming = 0x02;
inline constexpr uint8_t kSubclassVideoInterfaceCollection = 0x03;

// Video-control descriptor subtypes (A.5).
inline constexpr uint8_t kVcHeader = 0x01;
inline constexpr uint8_t kVcInputTerminal = 0x02;
inline constexpr uint8_t kVcOutputTerminal = 0x03;
inline constexpr uint8_t kVcSelectorUnit = 0x04;
inline constexpr uint8_t kVcProcessingUnit = 0x05;
inline constexpr uint8_t kVcExtensionUnit = 0x06;

// Video-streaming descriptor subtypes (A.6).
inline constexpr uint8_t kVsInputHeader = 0x01;
inline constexpr uint8_t kVsStillImageFrame = 0x03;
inline constexpr uint8_t kVsFormatUncompressed = 0x04;
inline constexpr uint8_t kVsFrameUncompressed = 0x05;
inline constexpr uint8_t kVsFormatMjpeg = 0x06;
inline constexpr uint8_t kVsFrameMjpeg = 0x07;
inline constexpr uint8_t kVsColorFormat = 0x0D;
inline constexpr uint8_t kVsFormatFrameBased = 0x10;
inline constexpr uint8_t kVsFrameFrameBased = 0x11;

// Terminal types (UVC B.1, B.2).
inline constexpr uint16_t kTtStreaming = 0x0101;
inline constexpr uint16_t kIttCamera = 0x0201;

// Standard requests (USB 2.0 table 9-4).
inline constexpr uint8_t kReqGetStatus = 0x00;
inline constexpr uint8_t kReqClearFeature = 0x01;
inline constexpr uint8_t kReqSetFeature = 0x03;
inline constexpr uint8_t kReqGetDescriptor = 0x06;
inline constexpr uint8_t kReqGetConfiguration = 0x08;
inline constexpr uint8_t kReqSetConfiguration = 0x09;
inline constexpr uint8_t kReqGetInterface = 0x0A;
inline constexpr uint8_t kReqSetInterface = 0x0B;
inline constexpr uint16_t kFeatureEndpointHalt = 0x0000;

// Video-class request codes (A.8).
inline constexpr uint8_t kSetCur = 0x01;
inline constexpr uint8_t kGetCur = 0x81;
inline constexpr uint8_t kGetMin = 0x82;
inline constexpr uint8_t kGetMax = 0x83;
inline constexpr uint8_t kGetRes = 0x84;
inline constexpr uint8_t kGetLen = 0x85;
inline constexpr uint8_t kGetInfo = 0x86;
inline constexpr uint8_t kGetDef = 0x87;

// Interface control selectors (A.9.1, A.9.7).
inline constexpr uint8_t kVcRequestErrorCodeControl = 0x02;
inline constexpr uint8_t kVsProbeControl = 0x01;
inline constexpr uint8_t kVsCommitControl = 0x02;
inline constexpr uint8_t kVsStreamErrorCodeControl = 0x06;

// Camera-terminal selectors (A.9.4).
inline constexpr uint8_t kCtScanningMode = 0x01;
inline constexpr uint8_t kCtAeMode = 0x02;
inline constexpr uint8_t kCtAePriority = 0x03;
inline constexpr uint8_t kCtExposureTimeAbsolute = 0x04;
inline constexpr uint8_t kCtFocusAbsolute = 0x06;
inline constexpr uint8_t kCtFocusAuto = 0x08;
inline constexpr uint8_t kCtIrisAbsolute = 0x09;
inline constexpr uint8_t kCtZoomAbsolute = 0x0B;
inline constexpr uint8_t kCtPanTiltAbsolute = 0x0D;
inline constexpr uint8_t kCtRollAbsolute = 0x0F;
inline constexpr uint8_t kCtPrivacy = 0x11;

// Processing-unit selectors (A.9.5).
inline constexpr uint8_t kPuBacklightCompensation = 0x01;
inline constexpr uint8_t kPuBrightness = 0x02;
inline constexpr uint8_t kPuContrast = 0x03;
inline constexpr uint8_t kPuGain = 0x04;
inline constexpr uint8_t kPuPowerLineFrequency = 0x05;
inline constexpr uint8_t kPuHue = 0x06;
inline constexpr uint8_t kPuSaturation = 0x07;
inline constexpr uint8_t kPuSharpness = 0x08;
inline constexpr uint8_t kPuGamma = 0x09;
inline constexpr uint8_t kPuWhiteBalanceTemperature = 0x0A;
inline constexpr uint8_t kPuWhiteBalanceTemperatureAuto = 0x0B;
inline constexpr uint8_t kPuHueAuto = 0x10;

// Request error codes (4.2.1.2) reported by VC_REQUEST_ERROR_CODE_CONTROL.
enum class RequestError : uint8_t {
    kNoError = 0x00,
    kNotReady = 0x01,
    kWrongState = 0x02,
    kPower = 0x03,
    kOutOfRange = 0x04,
    kInvalidUnit = 0x05,
    kInvalidControl = 0x06,
    kInvalidRequest = 0x07,
    kInvalidValueWithinRange = 0x08,
    kUnknown = 0xFF,
};

// GET_INFO bits (4.1.2).
inline constexpr uint8_t kInfoGet = 0x01;
inline constexpr uint8_t kInfoSet = 0x02;
inline constexpr uint8_t kInfoDisabledByAuto = 0x04;
inline constexpr uint8_t kInfoAutoUpdate = 0x08;

// Payload header (2.4.3.3): bHeaderLength, bmHeaderInfo, dwPresentationTime,
// scrSourceClock (32-bit source time clock + 11-bit SOF counter).
inline constexpr size_t kPayloadHeaderSize = 12;
inline constexpr uint8_t kHeaderFid = 0x01;
inline constexpr uint8_t kHeaderEof = 0x02;
inline constexpr uint8_t kHeaderPts = 0x04;
inline constexpr uint8_t kHeaderScr = 0x08;
inline constexpr uint8_t kHeaderStillImage = 0x20;
inline constexpr uint8_t kHeaderError = 0x40;
inline constexpr uint8_t kHeaderEndOfHeader = 0x80;

// Status packets on the interrupt endpoint (2.4.2.2).
inline constexpr uint8_t kStatusTypeVideoControl = 0x01;
inline constexpr uint8_t kStatusTypeVideoStreaming = 0x02;
inline constexpr uint8_t kStatusEventButton = 0x00;

// Probe/commit block (4.3.1.1): 26 bytes in UVC 1.0, 34 in UVC 1.1.
inline constexpr size_t kProbeSize10 = 26;
inline constexpr size_t kProbeSize11 = 34;

// The YUY2 format GUID 32595559-0000-0010-8000-00AA00389B71 as it is laid
// out in a format descriptor.
inline constexpr uint8_t kGuidYuy2[16] = {'Y', 'U', 'Y', '2', 0x00, 0x00, 0x10, 0x00,
                                          0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
inline constexpr uint8_t kGuidH264[16] = {'H', '2', '6', '4', 0x00, 0x00, 0x10, 0x00,
                                          0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

// Bounds-checked little-endian access: reads past the end give 0, writes
// past the end are dropped, so a malformed blob never reads or writes out of
// its buffer.
inline uint8_t Rd8(std::span<const uint8_t> b, size_t off) { return off < b.size() ? b[off] : 0; }
inline uint16_t Rd16(std::span<const uint8_t> b, size_t off) {
    return static_cast<uint16_t>(Rd8(b, off) | (Rd8(b, off + 1) << 8));
}
inline uint32_t Rd32(std::span<const uint8_t> b, size_t off) {
    return static_cast<uint32_t>(Rd16(b, off)) | (static_cast<uint32_t>(Rd16(b, off + 2)) << 16);
}
inline void Wr16(std::span<uint8_t> b, size_t off, uint16_t v) {
    if (off + 2 <= b.size()) { b[off] = static_cast<uint8_t>(v); b[off + 1] = static_cast<uint8_t>(v >> 8); }
}
inline void Wr32(std::span<uint8_t> b, size_t off, uint32_t v) {
    if (off + 4 <= b.size()) {
        for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

// Bytes one isochronous (micro)frame carries on an endpoint: wMaxPacketSize
// bits 0-10 times (1 + bits 11-12), the additional high-speed transactions.
inline uint32_t IsoCapacity(uint16_t wMaxPacketSize) {
    uint32_t extra = (wMaxPacketSize >> 11) & 0x3;
    if (extra == 3) extra = 2;  // reserved value: treat as the largest legal one
    return (wMaxPacketSize & 0x7FFu) * (1 + extra);
}

}  // namespace kvsim::camera::uvc
