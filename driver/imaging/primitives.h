// The frame loop's pixel work: the two colour conversions between the
// camera's YUY2 and the 24-bit RGB that video applications ask for, the
// vertical turn of an RGB frame in place, the flipped and mirrored copies
// the picture settings ask for, bilinear scaling and turning of RGB
// pictures, the quarter turns of the rotation setting, and the small
// buffer operations face detection builds on. Pure functions over caller
// buffers: only AllocImageBuffer (and RotateFrame, through it) allocates.
// Callable at IRQL <= DISPATCH_LEVEL.
//
// Byte orders: YUY2 is packed 4:2:2, one 4-byte group (Y0 U Y1 V) per two
// pixels, rows top-down. RGB24 is three bytes per pixel in the order B, G, R
// (Windows' RGB24 and libyuv's "RGB24").
//
// The two conversions and Resize have a scalar, an SSE2 and an AVX2 path,
// which give the same bytes. InitPrimitives (DriverEntry) picks the fastest
// the processor and the system support.
//
// The status-returning operations return STATUS_SUCCESS (0) or a negative
// NTSTATUS, and on failure write nothing.
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
// overlap. YUY2 is mirrored pixel by pixel, each pixel's chroma the byte
// before its luma (see primitives.cpp); flip and mirror together walk the
// whole picture backwards.
void FlipMirrorYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);
void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);

// ---- picture geometry ---------------------------------------------------------
// A region's size and a rectangle in pixels; an image is a pointer to its
// first pixel, a step (bytes from one row to the next, positive here) and a
// size.
struct ImageSize {
    LONG width;
    LONG height;
};
struct ImageRect {
    LONG x;
    LONG y;
    LONG width;
    LONG height;
};

// The interpolation Resize and Rotate implement.
constexpr int kInterpolationBilinear = 2;

// ---- buffers ------------------------------------------------------------------
// Work buffers for the picture operations, from nonpaged pool (tag "KVMI"),
// the first byte aligned to kImageBufferAlignment so that vector loads of
// any width start on their natural boundary. Null when the pool has no room
// or size is 0. Free with FreeImageBuffer only.
constexpr SIZE_T kImageBufferAlignment = 64;
PVOID AllocImageBuffer(SIZE_T size);
// Releases a buffer of AllocImageBuffer and clears the pointer (null: nothing).
void FreeImageBufferBlock(PVOID pBuffer);
template <typename T>
void FreeImageBuffer(T*& pBuffer)
{
    FreeImageBufferBlock(const_cast<void*>(static_cast<const void*>(pBuffer)));
    pBuffer = nullptr;
}

// `length` bytes; a negative length, or a null pointer with a positive
// length, is STATUS_INVALID_PARAMETER. CopyBytes' buffers must not overlap.
LONG CopyBytes(const void* pSource, void* pDestination, LONG length);
LONG SetBytes(UCHAR value, void* pDestination, LONG length);
LONG ZeroBytes(void* pDestination, LONG length);
// Every pixel of a one-channel 8-bit region set to `value`.
LONG SetImage(UCHAR value, UCHAR* pDestination, LONG step, ImageSize size);

// ---- scaling and turning (8-bit, three channels) --------------------------------
// Bytes of the work buffer Resize needs for these rectangles, into *pSize.
// Only 3 channels and bilinear interpolation are implemented
// (STATUS_NOT_SUPPORTED otherwise).
LONG ResizeBufferSize(ImageRect sourceRect, ImageRect destinationRect, int channels, int interpolation,
                      LONG* pSize);

// Bilinear scaling. Destination pixel (i, j), counted from the corner of
// destinationRect, shows the source point
//     (i / xFactor + xShift, j / yFactor + yShift)
// counted from the corner of sourceRect, with xFactor and yFactor the ratios
// destination size / source size. At the borders the point is held inside
// the rectangle: a point left of its first column takes the first column,
// one right of its last column the last, and likewise for rows, so every
// destination pixel is written and nothing outside sourceRect is read.
// Passing shifts of 0.5 / factor - 0.5 centres the pixels (the picture's
// edges meet), which is what a plain change of size wants.
// Both rectangles must lie inside their images (the destination's rows
// inside destinationStep); pWork holds ResizeBufferSize's bytes.
// The weights are fixed point (8 bits between rows, 14 between columns,
// rounded to nearest), so a result may differ from exact arithmetic by 1.
LONG Resize(const UCHAR* pSource, ImageSize sourceSize, LONG sourceStep, ImageRect sourceRect, UCHAR* pDestination,
            LONG destinationStep, ImageRect destinationRect, double xFactor, double yFactor, double xShift,
            double yShift, int interpolation, UCHAR* pWork);

// Turns the pixels of sourceRect by `angle` degrees about the source's origin
// (its first pixel), then moves them by the shifts:
//     x' =  x cos(angle) + y sin(angle) + xShift
//     y' = -x sin(angle) + y cos(angle) + yShift
// x to the right along a row, y to later rows. With the first row shown at
// the top (a top-down picture), a positive angle turns counter-clockwise;
// with the first row at the bottom (the bottom-up RGB frame), clockwise.
// Each pixel of destinationRect (counted from the destination's origin)
// whose point in the source lies inside sourceRect, its border included,
// gets that point bilinearly; the others keep what they held. Multiples of
// 90 degrees with whole-pixel shifts move pixels exactly, without
// interpolation.
LONG Rotate(const UCHAR* pSource, ImageSize sourceSize, LONG sourceStep, ImageRect sourceRect, UCHAR* pDestination,
            LONG destinationStep, ImageRect destinationRect, double angle, double xShift, double yShift,
            int interpolation);

// The frame loop's rotation: the bottom-up RGB frame in pSource (rows of
// Width * 3 bytes) turned into pDestination by `Rotate` quarter turns,
// clockwise as the viewer sees the picture. The setting counts modulo 4
// (4 is no turn, -1 three quarters, that is one the other way). A quarter
// or three-quarter turn of a frame that is not square would not fit: the
// picture is first shrunk so that its turned form fits, and shown centred
// on black. STATUS_INSUFFICIENT_RESOURCES (destination = a copy of the
// source) when the work buffers cannot be had; STATUS_INVALID_PARAMETER
// (nothing written) for a null buffer or an empty or oversized frame.
NTSTATUS RotateFrame(LONG Rotate, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource);

// Which implementation the colour conversions and Resize use.
enum class PrimitivesPath { Scalar, Sse2, Avx2 };

// Once, at PASSIVE_LEVEL, before the first conversion (DriverEntry): picks
// AVX2 when the processor has it and the system saves the AVX state,
// else SSE2 (every x64 processor has it), which is also the path until then.
void InitPrimitives();
PrimitivesPath CurrentPrimitivesPath();
// Calls pWork(path, pContext) once, with the path whose kernels it may use
// now: for AVX2, inside a save of the AVX state (SSE2 when that save
// fails). For the other imaging units' vector kernels (face detection).
void RunOnPath(void (*pWork)(PrimitivesPath path, void* pContext), void* pContext);
// Tests and benchmarks: use `path` from now on. False (and no change) when
// this machine cannot run it.
bool SetPrimitivesPathForTest(PrimitivesPath path);

}  // namespace kv
