// The format tables: the camera's video-streaming descriptors turned into
// KS_DATARANGE_VIDEO entries. The capture table lists every uncompressed
// frame size as YUY2, then every motion-JPEG frame size as RGB24 (the driver
// decodes motion JPEG itself); the still table lists the still-image sizes.
// The walk also records the camera terminal's and processing unit's control
// bitmaps, which decide the camera controls the driver offers.
#pragma once

#include "wdk.h"

class FormatTables {
public:
    FormatTables();
    ~FormatTables();
    FormatTables(const FormatTables&) = delete;
    FormatTables& operator=(const FormatTables&) = delete;

    // The capture table and the control bitmaps. *pnCount is the caller's
    // running count: one increment per entry made, and left as it was on
    // entry when the walk fails. The walk never reads past wTotalLength.
    NTSTATUS ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, PKS_DATARANGE_VIDEO* ppVSDataRange,
                           USHORT* pnCount);
    // The still table, YUY2 still sizes first.
    NTSTATUS ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor,
                              PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);
    // The same walks over a buffer of cb bytes: never past min(cb, wTotalLength).
    NTSTATUS ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                           PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);
    NTSTATUS ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                              PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);
    // Frees both tables and the pins' pointer arrays (a second call is harmless).
    void Release();

    ULONG CameraTerminalControls;           // bmControls of the input terminal
    USHORT ProcessingUnitControls;          // bmControls of the processing unit
    ULONG WideFrameWidth;                   // 640 or 1280 when the camera offers it, else 0
    PKS_DATARANGE_VIDEO m_pCaptureTable;    // "KVVd"
    USHORT m_nCaptureTable;
    PKSDATARANGE* m_pCaptureRanges;         // the capture pin's pointer array, "KVVp"
    PKS_DATARANGE_VIDEO m_pStillTable;      // "KVVs"
    USHORT m_nStillTable;
    PKSDATARANGE* m_pStillRanges;           // the still pin's pointer array, "KVVr"
};

namespace kv {

// Four-character codes of biCompression: "YUY2", "MJPG", "I420"; 0 is
// uncompressed RGB.
constexpr ULONG kFourccYuy2 = 0x32595559;
constexpr ULONG kFourccMjpg = 0x47504A4D;
constexpr ULONG kFourccI420 = 0x30323449;
// Still entries run at one picture a second.
constexpr LONGLONG kStillFrameInterval = 10000000;

// The templates every entry starts from (their 640x480 size, frame
// intervals and bit rates are overwritten by every entry).
extern const KS_DATARANGE_VIDEO g_CaptureTemplateYuy2;   // capture, uncompressed
extern const KS_DATARANGE_VIDEO g_CaptureTemplateRgb24;  // capture, motion JPEG advertised as RGB24
extern const KS_DATARANGE_VIDEO g_StillTemplateMjpeg;    // still under motion JPEG (subformat MJPG)

}  // namespace kv
