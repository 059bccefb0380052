#include "imaging/deadpixel.h"

PVOID DeadPixelStart(ULONG Width, ULONG Height)
{
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    return nullptr;
}

void DeadPixelCorrect(PUCHAR pFrame, PVOID pTable, ULONG Width, ULONG Height, ULONG Phase, ULONG Threshold,
                      ULONG Mode)
{
    UNREFERENCED_PARAMETER(pFrame);
    UNREFERENCED_PARAMETER(pTable);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    UNREFERENCED_PARAMETER(Phase);
    UNREFERENCED_PARAMETER(Threshold);
    UNREFERENCED_PARAMETER(Mode);
}
