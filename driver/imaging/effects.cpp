#include "imaging/effects.h"

void ApplySpecialEffect(LONG Effect, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource)
{
    UNREFERENCED_PARAMETER(Effect);
    UNREFERENCED_PARAMETER(Width);
    UNREFERENCED_PARAMETER(Height);
    UNREFERENCED_PARAMETER(pDestination);
    UNREFERENCED_PARAMETER(pSource);
}

void RotateFrame(LONG QuarterTurns, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource)
{
    UNREFERENCED_PARAMETER(QuarterTurns);
    // Until the turns are filled in, the frame keeps its orientation.
    RtlCopyMemory(pDestination, pSource, static_cast<SIZE_T>(Width) * Height * 3);
}
