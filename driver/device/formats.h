// Part 1.3: video-streaming descriptor parsing and the format tables.
// The static templates from which every capture and still entry starts, and
// the video-class codes the walk understands. The parsers themselves are
// CCaptureDevice::ExtractVSInfo / ExtractStillInfo (device.h, formats.cpp).
#pragma once

#include "wdk.h"

namespace kv {

// Video-class descriptor codes read by Part 1.3 (UVC 1.1, A.5 and A.6).
constexpr UCHAR kCsInterface = 0x24;             // class-specific interface descriptor
constexpr UCHAR kSubclassVideoControl = 1;
constexpr UCHAR kSubclassVideoStreaming = 2;
constexpr UCHAR kVcInputTerminal = 0x02;
constexpr UCHAR kVcProcessingUnit = 0x05;
constexpr UCHAR kVsStillImageFrame = 0x03;
constexpr UCHAR kVsFormatUncompressed = 0x04;
constexpr UCHAR kVsFrameUncompressed = 0x05;
constexpr UCHAR kVsFormatMjpeg = 0x06;
constexpr UCHAR kVsFrameMjpeg = 0x07;

// Every entry is one KS_DATARANGE_VIDEO of 296 bytes.
constexpr ULONG kDataRangeVideoSize = sizeof(KS_DATARANGE_VIDEO);
static_assert(sizeof(KS_DATARANGE_VIDEO) == 296, "Part 1.3: a table entry is 296 bytes");

// "YUY2" as the four-character code of biCompression.
constexpr ULONG kFourccYuy2 = 0x32595559;
// Still entries run at one picture a second.
constexpr LONGLONG kStillFrameInterval = 10000000;

// The templates (their MinFrameInterval 400000, MaxFrameInterval 1666667 and
// AvgTimePerFrame 400000 are overwritten by every capture entry).
extern const KS_DATARANGE_VIDEO g_CaptureTemplateYuy2;   // capture, uncompressed
extern const KS_DATARANGE_VIDEO g_CaptureTemplateRgb24;  // capture, motion JPEG advertised as RGB24
extern const KS_DATARANGE_VIDEO g_StillTemplateMjpeg;    // still under motion JPEG (subformat MJPG)

extern const GUID g_SubtypeYuy2;
extern const GUID g_SubtypeRgb24;
extern const GUID g_SubtypeMjpg;

}  // namespace kv
