// The frame loop's pixel work: the two colour conversions between the
// camera's YUY2 and the 24-bit RGB that video applications ask for, the
// vertical turn of an RGB frame in place, and the flipped and mirrored copies
// the picture settings ask for. Pure functions over caller buffers: no
// allocation, callable at IRQL <= DISPATCH_LEVEL.
//
// Byte orders: YUY2 is packed 4:2:2, one 4-byte group (Y0 U Y1 V) per two
// pixels, rows top-down. RGB24 is three bytes per pixel in the order B, G, R
// (Windows' RGB24 and libyuv's "RGB24").
//
// The two conversions have a scalar, an SSE2 and an AVX2 path, which give the
// same bytes. InitPrimitives (DriverEntry) picks the fastest the processor
// and the system support.
#pragma once

#include "wdk.h"

namespace kv {

// YUY2 to B,G,R, each output row from the source row of the same index.
// BT.601 studio range (Y 16..235 is black..white) with libyuv's integer
// matrix and rounding, so the bytes equal libyuv's YUY2ToARGB followed by
// ARGBToRGB24. Each row reads 2*width source bytes and writes 3*width.
// YUY2 widths are even; for an odd width the last pixel is half a group
// whose V lies past the row, so it takes the V of the group before it (or
// 128, no red difference, when the width is 1).
void Yuy2ToRgb24(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height);

// B,G,R rows of a bottom-up picture to top-down YUY2: output row r comes
// from source row height-1-r. Per pair of pixels (0 and 1):
//   Y0 = ((66*R0 + 128*G0 + 25*B0) >> 8) + 16
//   U  = ((-38*R0 - 74*G0 + 112*B0) >> 8) + 128
//   Y1 = ((66*R1 + 128*G1 + 25*B1) >> 8) + 16
//   V  = ((112*R1 - 94*G1 - 18*B1) >> 8) + 128
// with an arithmetic shift and no clamping (the low 8 bits are stored). This
// is the driver's own rule, part of what applications see: U from the first
// pixel and V from the second, not averaged. An odd width ends with a lone
// pixel, which gets its Y and U (the row holds 2*width bytes).
void Rgb24ToYuy2BottomUp(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width,
                         ULONG height);

// MirrorInPlace's axis: exchange row i with row height-1-i (a vertical turn).
constexpr int kMirrorAxisRows = 0;

// Turns an RGB24 image of rows of width*3 bytes, `step` bytes apart, in place
// about `axis`. STATUS_SUCCESS; STATUS_NOT_SUPPORTED for another axis;
// STATUS_INVALID_PARAMETER when a row does not fit in `step` or the image is
// missing.
LONG MirrorInPlace(UCHAR* pImage, LONG step, ULONG width, ULONG height, int axis);

// Copies a w x h picture (rows packed, no padding) from pSrc to pDst with a
// vertical flip (rows in reverse order), a mirror (each row read right to
// left) or both (a half turn). Neither is a plain copy. The buffers must not
// overlap. YUY2 mirrors whole groups (see primitives.cpp); an odd w leaves
// the lone last pixel's two bytes in place.
void FlipMirrorYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);
void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);

// Which implementation the colour conversions use.
enum class PrimitivesPath { Scalar, Sse2, Avx2 };

// Once, at PASSIVE_LEVEL, before the first conversion (DriverEntry): picks
// AVX2 when the processor has it and the system saves the AVX state,
// else SSE2 (every x64 processor has it), which is also the path until then.
void InitPrimitives();
PrimitivesPath CurrentPrimitivesPath();
// Tests and benchmarks: use `path` from now on. False (and no change) when
// this machine cannot run it.
bool SetPrimitivesPathForTest(PrimitivesPath path);

}  // namespace kv
