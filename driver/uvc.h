// USB Video Class wire constants: the one home of every code the driver
// sends to or reads from the camera. Each name is the one the
// USB Video Class specification gives (UVC 1.1, appendix A unless noted),
// with a UVC_ prefix.
// https://www.usb.org/document-library/video-class-v11-document-set
#pragma once
#include "wdk.h"

// Descriptor types (A.4) and the interface association descriptor (USB 2.0 ECN).
enum : UCHAR {
    UVC_INTERFACE_ASSOCIATION = 0x0B,
    UVC_CS_INTERFACE = 0x24,
    UVC_CS_ENDPOINT = 0x25,
};

// Video interface class, subclasses (A.1, A.2).
enum : UCHAR {
    UVC_CC_VIDEO = 0x0E,
    UVC_SC_VIDEOCONTROL = 0x01,
    UVC_SC_VIDEOSTREAMING = 0x02,
};

// Field offsets the driver reads: the standard interface descriptor's
// bInterfaceSubClass (USB 2.0, 9.6.5), the format descriptors' bFormatIndex
// and GUID (3.9.2.3), the frame descriptors' size and intervals (3.9.2.4,
// 3.9.2.6).
constexpr ULONG UVC_INTERFACE_SUBCLASS_OFFSET = 6;
constexpr ULONG UVC_FORMAT_INDEX_OFFSET = 3;
constexpr ULONG UVC_FORMAT_GUID_OFFSET = 5;
constexpr ULONG UVC_FRAME_WIDTH_OFFSET = 5;
constexpr ULONG UVC_FRAME_HEIGHT_OFFSET = 7;
constexpr ULONG UVC_FRAME_INTERVAL_TYPE_OFFSET = 25;
constexpr ULONG UVC_FRAME_INTERVALS_OFFSET = 26;

// Class-specific video-control interface descriptor subtypes (A.5).
enum : UCHAR {
    UVC_VC_HEADER = 0x01,
    UVC_VC_INPUT_TERMINAL = 0x02,
    UVC_VC_OUTPUT_TERMINAL = 0x03,
    UVC_VC_PROCESSING_UNIT = 0x05,
    UVC_VC_EXTENSION_UNIT = 0x06,
};

// Class-specific video-streaming interface descriptor subtypes (A.6).
enum : UCHAR {
    UVC_VS_INPUT_HEADER = 0x01,
    UVC_VS_STILL_IMAGE_FRAME = 0x03,
    UVC_VS_FORMAT_UNCOMPRESSED = 0x04,
    UVC_VS_FRAME_UNCOMPRESSED = 0x05,
    UVC_VS_FORMAT_MJPEG = 0x06,
    UVC_VS_FRAME_MJPEG = 0x07,
};

// Request codes, bRequest (A.8).
enum : UCHAR {
    UVC_SET_CUR = 0x01,
    UVC_GET_CUR = 0x81,
    UVC_GET_MIN = 0x82,
    UVC_GET_MAX = 0x83,
    UVC_GET_RES = 0x84,
    UVC_GET_INFO = 0x86,
    UVC_GET_DEF = 0x87,
};

// wIndex of a unit's requests: entity id << 8, video-control interface 0.
// The camera family this driver serves has the camera terminal as entity 1,
// the processing unit as 3 and its extension unit as 4.
enum : USHORT {
    UVC_ENTITY_CAMERA_TERMINAL = 0x0100,
    UVC_ENTITY_PROCESSING_UNIT = 0x0300,
    UVC_ENTITY_EXTENSION_UNIT = 0x0400,
};

// Control selectors (A.9), as the wValue they travel in (selector << 8).
enum : USHORT {
    UVC_CT_AE_MODE_CONTROL = 0x0200,
    UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL = 0x0400,
    UVC_PU_BACKLIGHT_COMPENSATION_CONTROL = 0x0100,
    UVC_PU_BRIGHTNESS_CONTROL = 0x0200,
    UVC_PU_CONTRAST_CONTROL = 0x0300,
    UVC_PU_POWER_LINE_FREQUENCY_CONTROL = 0x0500,
    UVC_PU_HUE_CONTROL = 0x0600,
    UVC_PU_SATURATION_CONTROL = 0x0700,
    UVC_PU_SHARPNESS_CONTROL = 0x0800,
    UVC_PU_GAMMA_CONTROL = 0x0900,
    UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL = 0x0A00,
    UVC_PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL = 0x0B00,
    UVC_VS_PROBE_CONTROL = 0x0100,
    UVC_VS_COMMIT_CONTROL = 0x0200,
    // The extension unit's selector 3: the camera's register window.
    UVC_XU_REGISTER_WINDOW = 0x0300,
};

// bmControls bits of the processing unit (3.7.2.5) and of the camera
// terminal (3.7.2.3): which controls the camera has.
enum : ULONG {
    UVC_PU_BM_BRIGHTNESS = 1u << 0,
    UVC_PU_BM_CONTRAST = 1u << 1,
    UVC_PU_BM_HUE = 1u << 2,
    UVC_PU_BM_SATURATION = 1u << 3,
    UVC_PU_BM_SHARPNESS = 1u << 4,
    UVC_PU_BM_GAMMA = 1u << 5,
    UVC_PU_BM_WHITE_BALANCE_TEMPERATURE = 1u << 6,
    UVC_PU_BM_BACKLIGHT_COMPENSATION = 1u << 8,
    UVC_PU_BM_GAIN = 1u << 9,
    UVC_PU_BM_POWER_LINE_FREQUENCY = 1u << 10,
    UVC_PU_BM_WHITE_BALANCE_TEMPERATURE_AUTO = 1u << 12,
    UVC_CT_BM_AE_MODE = 1u << 1,
    UVC_CT_BM_EXPOSURE_TIME_ABSOLUTE = 1u << 3,
};

// Auto-exposure mode bits of CT_AE_MODE_CONTROL (4.2.2.1.2).
enum : UCHAR {
    UVC_AE_MODE_MANUAL = 0x01,
    UVC_AE_MODE_APERTURE_PRIORITY = 0x08,
};

// The payload header the driver recognises: 12 bytes, PTS and SCR included
// (2.4.3.3); byte 0 is its length, byte 1 its bmHeaderInfo.
constexpr ULONG UVC_PAYLOAD_HEADER_LENGTH = 12;

// Payload header, bmHeaderInfo bits (2.4.3.3).
enum : UCHAR {
    UVC_STREAM_FID = 0x01,
    UVC_STREAM_EOF = 0x02,
    UVC_STREAM_PTS = 0x04,
    UVC_STREAM_SCR = 0x08,
    UVC_STREAM_RES = 0x10,
    UVC_STREAM_STI = 0x20,
    UVC_STREAM_ERR = 0x40,
    UVC_STREAM_EOH = 0x80,
};
