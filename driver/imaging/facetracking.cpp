#include "imaging/facetracking.h"

NTSTATUS FaceTrackStart(ULONG Width, ULONG Height)
{
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    return STATUS_SUCCESS;
}

void FaceTrackFrame(const UCHAR* pSource, PUCHAR pFrame, ULONG Width, ULONG Height, ULONG WindowDivisor)
{
    UNREFERENCED_PARAMETER(pSource);
    UNREFERENCED_PARAMETER(pFrame);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    UNREFERENCED_PARAMETER(WindowDivisor);
}

void FaceTrackRelease() {}
