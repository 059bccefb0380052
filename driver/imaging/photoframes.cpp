#include "imaging/photoframes.h"

void OverlayPhotoFrame(LONG FrameNumber, ULONG Width, ULONG Height, PUCHAR pFrame)
{
    UNREFERENCED_PARAMETER(FrameNumber);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    UNREFERENCED_PARAMETER(pFrame);
}

void OverlayCountdown(LONG Seconds, ULONG Width, ULONG Height, PUCHAR pFrame)
{
    UNREFERENCED_PARAMETER(Seconds);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    UNREFERENCED_PARAMETER(pFrame);
}

NTSTATUS WriteSnapshotFile(const UCHAR* pFrame, ULONG Width, ULONG Height)
{
    UNREFERENCED_PARAMETER(pFrame);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    return STATUS_NOT_IMPLEMENTED;
}

void ReleasePhotoFrames() {}
