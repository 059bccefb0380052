// Inside the imaging primitives: the colour constants of the two conversions
// and the fixed point of Resize (their one home), and the vector row kernels
// that primitives.cpp runs.
//
// This header includes nothing and speaks plain C++ types: the AVX2 unit is
// compiled for AVX2, and an inline function it shared with the other units
// (every header of wdk.h has some) could be kept by the linker in its AVX2
// form for all callers, including those that run on processors without it.
#pragma once

namespace kv::imaging {

// ---- YUY2 to RGB: BT.601 studio range in libyuv's fixed point -------------
// Each of B, G, R is computed with 6 fraction bits, then shifted down and
// clamped to 0..255:
//   luma = ((y * 0x0101 * kLumaGain) >> 16) + kLumaBias
//   B = luma + (U - 128) * kUToB
//   G = luma - ((U - 128) * kUToG + (V - 128) * kVToG)
//   R = luma + (V - 128) * kVToR
// (the matrix of ITU-R BT.601 for Y in 16..235, scaled by 64).
constexpr unsigned kLumaSpread = 0x0101;  // y repeated in both bytes of 16 bits
constexpr int kLumaGain = 18997;          // 1.164 * 64 * 65536 / 257
constexpr int kLumaBias = -1160;          // -16 * 1.164 * 64, plus 32 to round the final shift
constexpr int kUToB = 128;                // 2.018 * 64 = 129, held at 128 by libyuv's BT.601 table
constexpr int kUToG = 25;                 // 0.391 * 64
constexpr int kVToG = 52;                 // 0.813 * 64
constexpr int kVToR = 102;                // 1.596 * 64
constexpr int kYuvFractionBits = 6;
constexpr int kChromaZero = 128;          // U and V of no colour difference

// ---- RGB to YUY2: the driver's rule (see primitives.h), 8 fraction bits ---
constexpr int kYFromR = 66;
constexpr int kYFromG = 128;
constexpr int kYFromB = 25;
constexpr int kUFromR = -38;
constexpr int kUFromG = -74;
constexpr int kUFromB = 112;
constexpr int kVFromR = 112;
constexpr int kVFromG = -94;
constexpr int kVFromB = -18;
constexpr int kYOffset = 16;
constexpr int kRgbFractionBits = 8;

// ---- Resize: two passes in fixed point --------------------------------------
// For each destination row, the two source rows around its point are first
// blended, byte by byte, into a row of 16-bit values:
//   t = (a * (256 - fy) + b * fy) >> 1            fy in 0..256, 8 bits
// (at most 255 * 128, so t fits a signed 16-bit lane and SSE2's multiply-add
// takes it); then each destination byte blends two of those values, the
// pixel's own channel and the same channel one pixel on:
//   out = (t0 * (16384 - fx) + t1 * fx + 2^20) >> 21   fx in 0..16384, 14 bits
// Total error below one unit against exact arithmetic (the row weight's
// rounding 255/512, the column weight's 255/32768, the halving 1/256).
constexpr int kRowWeightBits = 8;
constexpr int kRowWeightOne = 1 << kRowWeightBits;
constexpr int kRowBlendShift = 1;
constexpr int kColumnWeightBits = 14;
constexpr int kColumnWeightOne = 1 << kColumnWeightBits;
constexpr int kColumnShift = kRowWeightBits - kRowBlendShift + kColumnWeightBits;
constexpr int kColumnRound = 1 << (kColumnShift - 1);
constexpr unsigned kResizeChannels = 3;

// One destination pixel's two source pixels: the first's index in the
// blended row (pixel * 3; the second follows it) and the weights packed as
// multiply-add wants them: (16384 - fx) in the low 16 bits, fx in the high.
struct ColumnTap {
    int offset;
    int weights;
};

// ---- row kernels ----------------------------------------------------------
// Each converts the longest start of one row that fills whole vector blocks
// and returns the number of pixels it converted; primitives.cpp finishes the
// row with the scalar code. None reads or writes outside the row's pixels.
// The AVX2 kernels run only inside a save of the AVX state (primitives.cpp).
unsigned Yuy2ToRgb24RowSse2(const unsigned char* pSrc, unsigned char* pDst, unsigned width);
unsigned Yuy2ToRgb24RowAvx2(const unsigned char* pSrc, unsigned char* pDst, unsigned width);
unsigned Rgb24ToYuy2RowSse2(const unsigned char* pSrc, unsigned char* pDst, unsigned width);
unsigned Rgb24ToYuy2RowAvx2(const unsigned char* pSrc, unsigned char* pDst, unsigned width);

// Resize's passes, each over the longest start of its run that fills whole
// vector blocks, returning how many values (BlendRows) or pixels
// (SampleColumns) it wrote. SampleColumns may read up to 8 values from each
// tap's offset: the blended row has room behind its last pixel.
unsigned BlendRowsSse2(const unsigned char* pA, const unsigned char* pB, short* pOut, unsigned count, int fy);
unsigned BlendRowsAvx2(const unsigned char* pA, const unsigned char* pB, short* pOut, unsigned count, int fy);
unsigned SampleColumnsSse2(const short* pRow, const ColumnTap* pTaps, unsigned char* pDst, unsigned width);
unsigned SampleColumnsAvx2(const short* pRow, const ColumnTap* pTaps, unsigned char* pDst, unsigned width);

}  // namespace kv::imaging
