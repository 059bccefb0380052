// The special effects' constant data: the five tone curves, the tinted
// pixel tables built from them, and the film-grain texture with the byte
// patterns the grain is applied with. Built at compile time; shared by the
// effects and their tests.
#pragma once
#include "wdk.h"

constexpr ULONG kCurveEntries = 256;

// Tone curves, input level to output level.
extern const UCHAR EffectCurveWarmR[kCurveEntries];
extern const UCHAR EffectCurveWarmG[kCurveEntries];
extern const UCHAR EffectCurveWarmB[kCurveEntries];
extern const UCHAR EffectCurveHigh[kCurveEntries];
extern const UCHAR EffectCurveLow[kCurveEntries];

// A curve tint in one table per byte of the pixel: entry v of Channel[c]
// holds the curve's output t for v as (t >> 1) << kTintHalfShift plus
// t times the byte's share of the luma. The three shares add up to
// 1024 and the weighted sum of 255s is below 2^18, so the three entries of a
// pixel add without the weighted parts carrying into the halves.
constexpr ULONG kTintHalfShift = 24;
constexpr ULONG kTintWeightMask = (1u << kTintHalfShift) - 1;
struct TintTable {
    ULONG Channel[3][kCurveEntries];
};
extern const TintTable WarmTint;  // effect 8
extern const TintTable RedTint;   // effect 11
extern const TintTable BlueTint;  // effect 12

// The film grain: a 64 x 64 texture of signed offsets in -74..71, centred
// on zero, tiled over the frame.
constexpr ULONG kGrainSide = 64;
constexpr LONG kGrainMin = -74;
constexpr LONG kGrainMax = 71;
struct GrainTexture {
    SCHAR Values[kGrainSide * kGrainSide];  // row-major
};
extern const GrainTexture GrainTable;

// The grain of each texture row laid out over one period of an RGB row
// (64 pixels, 192 bytes: each offset repeated for B, G and R), split into
// the amount to add (positive offsets) and to subtract (negative ones), so
// that two saturating byte operations apply it 16 bytes at a time.
constexpr ULONG kGrainPeriodBytes = kGrainSide * 3;
struct GrainBytes {
    UCHAR Add[kGrainSide][kGrainPeriodBytes];
    UCHAR Sub[kGrainSide][kGrainPeriodBytes];
};
extern const GrainBytes GrainPattern;
