// The per-frame image operations the frame loop runs: the special effects
// (17, 3 and 16 on YUY2, the others on RGB) and the quarter turns of the
// rotation setting. Until the operations are filled in, every frame passes
// through unchanged.
#pragma once
#include "wdk.h"

// The effects that work on YUY2 frames; every other nonzero effect works on
// the RGB frame.
constexpr bool IsYuy2Effect(LONG Effect) { return Effect == 17 || Effect == 3 || Effect == 16; }

// Effect `Effect` from pSource into pDestination (pSource null: in place).
void ApplySpecialEffect(LONG Effect, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource);
// Turns the RGB frame in pSource by `QuarterTurns` into pDestination.
void RotateFrame(LONG QuarterTurns, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource);
