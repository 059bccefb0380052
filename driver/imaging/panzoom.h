// Digital pan and zoom: the window onto the frame that the pan, zoom and
// reset commands move. Until the operation is filled in, the frame is shown
// whole and the work area is only claimed.
#pragma once
#include "wdk.h"

// Prepares the work area (width x height x 9 + 40000 bytes) for a stream of
// this size.
NTSTATUS PanZoomStart(PUCHAR pWorkArea, ULONG Width, ULONG Height);
// One frame (RGB, bottom-up; FourCC names the format the direction commands
// are read for).
void PanZoomFrame(PUCHAR pFrame, ULONG FourCC, ULONG Width, ULONG Height);
