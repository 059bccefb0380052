// Digital pan and zoom: while the tracking method is 1 and the zoom switch
// is on, a window of the RGB frame, sized by the zoom level and moved by
// one-shot direction commands, is enlarged to the whole frame. The settings
// record carries the commands in and the window's edge indications out:
// a direction slot holding exactly 1 asks for one step that way, and after
// each frame holds -1 when the window touches that edge, else 0.
#pragma once
#include "wdk.h"

struct DeviceProperty;

// The largest zoom level taken (1 shows the whole frame; 61, a quarter of
// it each way). Larger levels are ignored.
constexpr LONG kZoomLevelLargest = 61;

// The format code PanZoomFrame reads the direction commands for. The frame
// loop passes the RGB frame's 0; with the YUY2 code, up and down exchange
// their slots (the RGB frame is stored bottom-up, YUY2 top-down).
constexpr ULONG kPanZoomRgbFrame = 0;

// The work area the stream allocates for a frame of this size: the state,
// the enlargement's index and weight tables, one row and the crop of up to
// a whole frame fit with room to spare.
constexpr SIZE_T PanZoomWorkAreaSize(ULONG Width, ULONG Height)
{
    return static_cast<SIZE_T>(Width) * Height * 9 + 40000;
}

// At stream start: the state for this frame size inside pWorkArea
// (PanZoomWorkAreaSize bytes), the window the whole frame, level 1.
// Frames under 4 pixels a side get a state that leaves them alone.
NTSTATUS PanZoomStart(PUCHAR pWorkArea, ULONG Width, ULONG Height);

// One RGB frame (bottom-up, rows of Width * 3 bytes) in place: reads and
// writes back the zoom level, the direction and reset slots of pProperty.
void PanZoomFrame(PUCHAR pWorkArea, DeviceProperty* pProperty, PUCHAR pFrame, ULONG FourCC);
