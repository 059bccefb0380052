// Dead-pixel correction of the YUY2 frame. Until the correction is filled
// in, the table is empty and frames pass through unchanged.
#pragma once
#include "wdk.h"

// Prepares the correction state for a stream; the table's address for the
// device.
PVOID DeadPixelStart(ULONG Width, ULONG Height);
void DeadPixelCorrect(PUCHAR pFrame, PVOID pTable, ULONG Width, ULONG Height, ULONG Phase, ULONG Threshold,
                      ULONG Mode);
