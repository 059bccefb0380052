#include "imaging/panzoom.h"

NTSTATUS PanZoomStart(PUCHAR pWorkArea, ULONG Width, ULONG Height)
{
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    return pWorkArea != nullptr ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

void PanZoomFrame(PUCHAR pFrame, ULONG FourCC, ULONG Width, ULONG Height)
{
    UNREFERENCED_PARAMETER(pFrame);
    UNREFERENCED_PARAMETER(FourCC);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
}
