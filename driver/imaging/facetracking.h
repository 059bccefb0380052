// Face tracking: keeps a detected face in the middle of a zoomed picture.
// Until it is filled in, frames pass through unchanged.
#pragma once
#include "wdk.h"

NTSTATUS FaceTrackStart(ULONG Width, ULONG Height);
void FaceTrackFrame(const UCHAR* pSource, PUCHAR pFrame, ULONG Width, ULONG Height, ULONG WindowDivisor);
void FaceTrackRelease();
