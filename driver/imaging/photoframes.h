// Photo frames, the self-timer's countdown picture and the snapshot file.
// Until they are filled in, nothing is drawn and no file is written.
#pragma once
#include "wdk.h"

void OverlayPhotoFrame(LONG FrameNumber, ULONG Width, ULONG Height, PUCHAR pFrame);
void OverlayCountdown(LONG Seconds, ULONG Width, ULONG Height, PUCHAR pFrame);
NTSTATUS WriteSnapshotFile(const UCHAR* pFrame, ULONG Width, ULONG Height);
// Frees the loaded photo-frame and overlay pictures.
void ReleasePhotoFrames();
