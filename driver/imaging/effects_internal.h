// Inside the special effects: the frame record every effect receives, the
// effects that live in effects_spatial.cpp, and the scratch copies some of
// them take.
#pragma once
#include "imaging/effects.h"

namespace kv::effects {

constexpr ULONG kRgbBytes = 3;   // B, G, R
constexpr ULONG kYuy2Bytes = 2;  // a YUY2 pixel; a group Y0 U Y1 V is two
// No camera frame comes near this side; below it every byte count fits in
// 32 bits and every coordinate, and a side shifted by the resize's 10
// fraction bits, in a signed 32-bit number.
constexpr ULONG kMaxSide = 8192;

// One call's frame, checked by ApplySpecialEffect: both sides nonzero and
// small enough that no byte count or signed coordinate below overflows, and
// the buffers the effect uses present.
struct EffectFrame {
    ULONG Width;
    ULONG Height;
    PUCHAR pFrame;  // the RGB frame, or effect 17's output buffer
    PUCHAR pWork;   // the YUY2 working frame
    SIZE_T RgbBytes() const { return static_cast<SIZE_T>(Width) * Height * kRgbBytes; }
};

// A copy of `Bytes` bytes of pSource from the pool, followed by
// `ExtraBytes` of room (8-byte aligned) for the caller's tables, or null (the
// caller then leaves its frame alone). Freed with FreeScratch.
PUCHAR CopyToScratch(const UCHAR* pSource, SIZE_T Bytes, SIZE_T ExtraBytes);
// Where CopyToScratch's extra room starts.
constexpr SIZE_T ScratchExtraOffset(SIZE_T Bytes) { return (Bytes + 7) & ~static_cast<SIZE_T>(7); }
void FreeScratch(PUCHAR& pScratch);

// Effects 0, 4, 5, 9, 10, 13 and 14: the ones that move pixels about.
void ReleaseGrid(EffectState* pState, const EffectFrame& frame);
void PictureGrid(EffectState* pState, const EffectFrame& frame);
void CompoundEye(EffectState* pState, const EffectFrame& frame);
void Emboss(EffectState* pState, const EffectFrame& frame);
void Mosaic(EffectState* pState, const EffectFrame& frame);
void ZoomAnimation(EffectState* pState, const EffectFrame& frame);
void BrushStrokes(EffectState* pState, const EffectFrame& frame);

}  // namespace kv::effects
