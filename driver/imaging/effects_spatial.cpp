// The special effects that move pixels about: the bilinear resize they
// share with the photo frames, the 3 x 3 picture grid (4), the compound eye
// (5), emboss (9), mosaic (10), the zoom animation (13) and brush strokes
// (14). Effects 5, 9 and 13 read a scratch copy of the frame taken for the
// call; effect 4 keeps its grid between frames in the stream's EffectState.
#include <emmintrin.h>

#include "imaging/effects.h"
#include "imaging/effects_internal.h"
#include "pooltag.h"

using namespace kv::effects;

namespace {

LONG Clamp(LONG value, LONG low, LONG high) { return value < low ? low : (value > high ? high : value); }
UCHAR ClampByte(LONG value) { return static_cast<UCHAR>(Clamp(value, 0, 255)); }

// ---- bilinear resize ---------------------------------------------------------------

constexpr ULONG kResizeFractionBits = 10;
constexpr LONG kResizeOne = 1 << kResizeFractionBits;
constexpr ULONG kResizeUnit = 1u << (2 * kResizeFractionBits);  // 0x100000
constexpr ULONG kMaxBytesPerPixel = 4;

// One axis of a resize: destination coordinate i maps to the source
// position i * step in 10-bit fixed point; its two taps are the source
// index below (held at span - 2, so the upper tap stays in the rectangle)
// and the one after it. A span of one has a single index, which both taps
// read; whatever the weights, the sample is then that pixel.
struct ResizeAxis {
    ULONG step;
    LONG lastLow;  // span - 2
    LONG span;
};

ResizeAxis MakeAxis(ULONG destinationSide, LONG span)
{
    const ULONG scale = (destinationSide << kResizeFractionBits) / static_cast<ULONG>(span);
    return {kResizeUnit / scale, span - 2, span};
}

struct Taps {
    LONG low;
    LONG high;
    LONG weight;  // of the high tap, in 1/1024; may exceed 1024 near the end
};

Taps TapsAt(const ResizeAxis& axis, ULONG position)
{
    LONG index = static_cast<LONG>(position >> kResizeFractionBits);
    index = index < axis.lastLow ? index : axis.lastLow;
    const LONG weight = static_cast<LONG>(position) - kResizeOne * index;
    if (axis.span == 1) {
        return {0, 0, weight};
    }
    return {index, index + 1, weight};
}

bool ResizeUsable(const ResizeSource* pSource, const ResizeDestination* pDestination, ULONG bytesPerPixel)
{
    if (pSource == nullptr || pDestination == nullptr || pSource->pPixels == nullptr ||
        pDestination->pPixels == nullptr || bytesPerPixel == 0 || bytesPerPixel > kMaxBytesPerPixel) {
        return false;
    }
    if (pDestination->Width == 0 || pDestination->Height == 0 || pDestination->Width > kMaxSide ||
        pDestination->Height > kMaxSide || pSource->Width > kMaxSide || pSource->Height > kMaxSide) {
        return false;
    }
    const ResizeSource& s = *pSource;
    if (s.X0 < 0 || s.Y0 < 0 || s.X0 > s.X1 || s.Y0 > s.Y1 || s.X1 >= static_cast<LONG>(s.Width) ||
        s.Y1 >= static_cast<LONG>(s.Height)) {
        return false;
    }
    // The scale must be at least 1/1024, or the step divides by zero.
    const ULONG spanX = static_cast<ULONG>(s.X1 - s.X0 + 1), spanY = static_cast<ULONG>(s.Y1 - s.Y0 + 1);
    return (pDestination->Width << kResizeFractionBits) >= spanX &&
           (pDestination->Height << kResizeFractionBits) >= spanY;
}

// One destination row from the two source rows of its taps. Each byte
// keeps the low 8 bits of the weighted sum shifted down by 20: with the
// weights beyond 1024 near the end of an enlargement the sum can leave
// 0..255, and the picture has always shown it wrapped, not clamped. The
// pixel size is a constant of each instance, so the byte loop unrolls.
template <ULONG kBytes>
void ResizeRow(const UCHAR* pLow, const UCHAR* pHigh, LONG rowWeight, const ResizeAxis& axisX, PUCHAR pOut,
               ULONG outWidth)
{
    const LONGLONG lowRowWeight = kResizeOne - rowWeight;
    ULONG position = 0;
    for (ULONG i = 0; i < outWidth; ++i, position += axisX.step, pOut += kBytes) {
        const Taps x = TapsAt(axisX, position);
        const LONG lowWeight = kResizeOne - x.weight;
        const UCHAR* pA = pLow + x.low * static_cast<LONG>(kBytes);
        const UCHAR* pB = pLow + x.high * static_cast<LONG>(kBytes);
        const UCHAR* pC = pHigh + x.low * static_cast<LONG>(kBytes);
        const UCHAR* pD = pHigh + x.high * static_cast<LONG>(kBytes);
        for (ULONG c = 0; c < kBytes; ++c) {
            const LONG upper = lowWeight * pA[c] + x.weight * pB[c];
            const LONG lower = lowWeight * pC[c] + x.weight * pD[c];
            const LONGLONG sum = lowRowWeight * upper + static_cast<LONGLONG>(rowWeight) * lower;
            pOut[c] = static_cast<UCHAR>((sum >> (2 * kResizeFractionBits)) & 0xFF);
        }
    }
}

using ResizeRowRoutine = void (*)(const UCHAR*, const UCHAR*, LONG, const ResizeAxis&, PUCHAR, ULONG);
const ResizeRowRoutine g_ResizeRows[kMaxBytesPerPixel] = {ResizeRow<1>, ResizeRow<2>, ResizeRow<3>, ResizeRow<4>};

// The faster way to the same bytes: blend the two source rows first, with
// the row's one pair of weights, into 32-bit sums (exact: the weighted sum
// is linear, so blending rows then columns equals columns then rows), then
// blend each destination pixel's two columns of those sums. The row blend
// runs 8 bytes at a time: SSE2's multiply-add takes the two weights as
// 16-bit numbers, which they are unless an extreme reduction pushes the
// lower weight past 32767; such rows take the scalar blend.
constexpr LONG kMaxPairedWeight = 32767;

void BlendRows(const UCHAR* pLow, const UCHAR* pHigh, LONG rowWeight, ULONG count, LONG* pSums)
{
    const LONG lowWeight = kResizeOne - rowWeight;
    ULONG i = 0;
    if (rowWeight <= kMaxPairedWeight && lowWeight >= -kMaxPairedWeight - 1) {
        const __m128i weights = _mm_set1_epi32(static_cast<int>((static_cast<ULONG>(rowWeight) << 16) |
                                                                (static_cast<ULONG>(lowWeight) & 0xFFFF)));
        const __m128i zero = _mm_setzero_si128();
        for (; i + 8 <= count; i += 8) {
            const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pLow + i));
            const __m128i high = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pHigh + i));
            const __m128i pairs = _mm_unpacklo_epi8(low, high);  // low0 high0 low1 high1 ...
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pSums + i),
                             _mm_madd_epi16(_mm_unpacklo_epi8(pairs, zero), weights));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pSums + i + 4),
                             _mm_madd_epi16(_mm_unpackhi_epi8(pairs, zero), weights));
        }
    }
    for (; i < count; ++i) {
        pSums[i] = lowWeight * pLow[i] + rowWeight * pHigh[i];
    }
}

template <ULONG kBytes>
void BlendColumns(const LONG* pSums, const ResizeAxis& axisX, PUCHAR pOut, ULONG outWidth)
{
    ULONG position = 0;
    for (ULONG i = 0; i < outWidth; ++i, position += axisX.step, pOut += kBytes) {
        const Taps x = TapsAt(axisX, position);
        const LONGLONG lowWeight = kResizeOne - x.weight;
        const LONG* pA = pSums + x.low * static_cast<LONG>(kBytes);
        const LONG* pB = pSums + x.high * static_cast<LONG>(kBytes);
        for (ULONG c = 0; c < kBytes; ++c) {
            const LONGLONG sum = lowWeight * pA[c] + static_cast<LONGLONG>(x.weight) * pB[c];
            pOut[c] = static_cast<UCHAR>((sum >> (2 * kResizeFractionBits)) & 0xFF);
        }
    }
}

using BlendColumnsRoutine = void (*)(const LONG*, const ResizeAxis&, PUCHAR, ULONG);
const BlendColumnsRoutine g_BlendColumns[kMaxBytesPerPixel] = {BlendColumns<1>, BlendColumns<2>, BlendColumns<3>,
                                                               BlendColumns<4>};

// ---- 4: 3 x 3 picture grid ---------------------------------------------------------

constexpr ULONG kGridCells = 9;
constexpr ULONG kGridSide = 3;
constexpr ULONG kGridCaptureEvery = 10;
// A new size sets the counter past the capture threshold, so the very next
// frame fills the first cell.
constexpr ULONG kGridCounterAtStart = 12;

struct GridGeometry {
    ULONG cellWidth;
    ULONG cellHeight;
    ULONG gapX;
    ULONG gapY;
};

struct GridRow {
    ULONG width;
    GridGeometry geometry;
};

// The cell sizes and gaps the camera's standard widths were designed with.
const GridRow g_GridRows[] = {
    {160, {51, 38, 2, 2}},   {176, {56, 45, 2, 2}},   {320, {101, 76, 4, 3}},
    {352, {112, 92, 4, 3}},  {640, {207, 154, 5, 4}}, {800, {258, 192, 6, 5}},
};
constexpr ULONG kGridReferenceRow = 4;  // 640 x 480, the camera's main size
constexpr ULONG kGridReferenceHeight = 480;

bool GridFits(const GridGeometry& g, ULONG width, ULONG height)
{
    return kGridSide * (g.cellWidth + g.gapX) <= width && kGridSide * (g.cellHeight + g.gapY) <= height;
}

// A width outside the table (or a table width whose frame is too short for
// its row, such as 640 x 360) takes the 640 x 480 row scaled to the frame
// on each axis: the grid then fills any frame in the proportions of the
// main size, and rounding down keeps three cells and gaps (636 of 640, 474
// of 480 in the reference) inside the frame on both axes, so no cell ever
// writes past it. The nearest smaller row would not: it can be too tall
// for a wide, short frame and leaves a large frame mostly black.
GridGeometry GridGeometryFor(ULONG width, ULONG height)
{
    for (const GridRow& row : g_GridRows) {
        if (row.width == width && GridFits(row.geometry, width, height)) {
            return row.geometry;
        }
    }
    const GridRow& reference = g_GridRows[kGridReferenceRow];
    const GridGeometry& g = reference.geometry;
    return {g.cellWidth * width / reference.width, g.cellHeight * height / kGridReferenceHeight,
            g.gapX * width / reference.width, g.gapY * height / kGridReferenceHeight};
}

// The grid and tile buffers, sized to the frame. A frame larger than the
// buffers replaces them, and the new grid starts again.
bool GridBuffersReady(EffectState* pState, SIZE_T bytes)
{
    if (pState->m_pGrid != nullptr && pState->m_pTile != nullptr && pState->m_GridBytes >= bytes) {
        return true;
    }
    kv::FreeTagged(pState->m_pGrid, kv::kTagImage);
    kv::FreeTagged(pState->m_pTile, kv::kTagImage);
    pState->m_GridBytes = 0;
    pState->m_GridWidth = 0;
    pState->m_pGrid = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, bytes, kv::kTagImage));
    pState->m_pTile = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, bytes, kv::kTagImage));
    if (pState->m_pGrid == nullptr || pState->m_pTile == nullptr) {
        kv::FreeTagged(pState->m_pGrid, kv::kTagImage);
        kv::FreeTagged(pState->m_pTile, kv::kTagImage);
        return false;
    }
    RtlZeroMemory(pState->m_pGrid, bytes);
    RtlZeroMemory(pState->m_pTile, bytes);
    pState->m_GridBytes = bytes;
    return true;
}

// The frame, reduced to one cell, into the grid's cell `cell`. Cells 0..2
// fill the band at the buffer's end (the top of the bottom-up picture),
// left to right.
void CaptureCell(EffectState* pState, const EffectFrame& frame, ULONG cell)
{
    const GridGeometry g = GridGeometryFor(frame.Width, frame.Height);
    if (g.cellWidth == 0 || g.cellHeight == 0) {
        return;  // a frame too small for cells shows the bare grid
    }
    const ResizeSource source = {frame.pFrame, frame.Width, frame.Height, 0, 0,
                                 static_cast<LONG>(frame.Width) - 1, static_cast<LONG>(frame.Height) - 1};
    const ResizeDestination tile = {pState->m_pTile, g.cellWidth, g.cellHeight};
    ResizeBilinear(&source, &tile, kRgbBytes);
    const ULONG band = kGridSide - 1 - cell / kGridSide;
    const ULONG column = cell % kGridSide;
    const SIZE_T stride = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    const SIZE_T lineBytes = static_cast<SIZE_T>(g.cellWidth) * kRgbBytes;
    PUCHAR pTo = pState->m_pGrid + (band * (g.cellHeight + g.gapY) + g.gapY) * stride +
                 (column * (g.cellWidth + g.gapX) + g.gapX) * kRgbBytes;
    for (ULONG line = 0; line < g.cellHeight; ++line, pTo += stride) {
        RtlCopyMemory(pTo, pState->m_pTile + line * lineBytes, lineBytes);
    }
}

}  // namespace

// ---- effects ------------------------------------------------------------------------

namespace kv::effects {

void ReleaseGrid(EffectState* pState, const EffectFrame&)
{
    kv::FreeTagged(pState->m_pGrid, kv::kTagImage);
    kv::FreeTagged(pState->m_pTile, kv::kTagImage);
    pState->m_GridBytes = 0;
    pState->m_GridWidth = 0;
}

// Every tenth frame a reduced copy of the frame goes into the next of nine
// cells; every frame shows the grid.
void PictureGrid(EffectState* pState, const EffectFrame& frame)
{
    const SIZE_T bytes = frame.RgbBytes();
    if (!GridBuffersReady(pState, bytes)) {
        return;
    }
    if (pState->m_GridWidth != frame.Width) {
        RtlZeroMemory(pState->m_pGrid, bytes);
        pState->m_GridWidth = frame.Width;
        pState->m_GridCell = 0;
        pState->m_GridCounter = kGridCounterAtStart;
    }
    if (++pState->m_GridCounter >= kGridCaptureEvery) {
        pState->m_GridCounter = 0;
        CaptureCell(pState, frame, pState->m_GridCell);
        pState->m_GridCell = (pState->m_GridCell + 1) % kGridCells;
    }
    RtlCopyMemory(frame.pFrame, pState->m_pGrid, bytes);
}

}  // namespace kv::effects

namespace {

// ---- 5: compound eye -----------------------------------------------------------------

constexpr LONG kEyeTile = 25;
constexpr LONG kEyeFirstTile = 12;  // outputs 0..11 belong to the tile at 0

// Output coordinate o lies in the tile whose centre is nearest (centres 0,
// 25, 50, ...; the first tile has only its upper half) and reads the source
// twice as far from that centre: each tile shows a half-size view around it.
LONG EyeSource(LONG output)
{
    if (output < kEyeFirstTile) {
        return 2 * output;
    }
    const LONG centre = kEyeTile * ((output - kEyeFirstTile) / kEyeTile + 1);
    return 2 * output - centre;
}

}  // namespace

namespace kv::effects {

// Columns reading left of the frame take column 0; columns reading past its
// right edge keep their own column (of the source row).
void CompoundEye(EffectState*, const EffectFrame& frame)
{
    const SIZE_T bytes = frame.RgbBytes();
    const LONG w = static_cast<LONG>(frame.Width), h = static_cast<LONG>(frame.Height);
    PUCHAR pScratch = CopyToScratch(frame.pFrame, bytes, frame.Width * sizeof(ULONG));
    if (pScratch == nullptr) {
        return;
    }
    auto* pColumns = reinterpret_cast<ULONG*>(pScratch + ScratchExtraOffset(bytes));
    for (LONG x = 0; x < w; ++x) {
        const LONG source = EyeSource(x);
        pColumns[x] = static_cast<ULONG>(source < 0 ? 0 : (source >= w ? x : source)) * kRgbBytes;
    }
    const SIZE_T stride = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    PUCHAR pOut = frame.pFrame;
    for (LONG y = 0; y < h; ++y) {
        const UCHAR* pRow = pScratch + static_cast<SIZE_T>(Clamp(EyeSource(y), 0, h - 1)) * stride;
        for (LONG x = 0; x < w; ++x, pOut += kRgbBytes) {
            const UCHAR* pIn = pRow + pColumns[x];
            pOut[0] = pIn[0];
            pOut[1] = pIn[1];
            pOut[2] = pIn[2];
        }
    }
    FreeScratch(pScratch);
}

// ---- 9: emboss ----------------------------------------------------------------------

// Byte n of the frame (rows 0 .. height-2) becomes
// clamp(s[n + stride] - s[n + 6] + 127): the pixel below, less the pixel two
// to the right, counted by plain byte offset, so that the last two pixels of
// a row take their partner from the start of the next row. That reach is at
// most 6 bytes into the row below, which exists for every row written (the
// last row keeps its input); on a frame one pixel wide it would pass two
// rows down, beyond the frame's end, so such a frame is left as it is.
void Emboss(EffectState*, const EffectFrame& frame)
{
    constexpr SIZE_T kReach = 2 * kRgbBytes;
    const SIZE_T stride = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    if (frame.Width < 2 || frame.Height < 2) {
        return;
    }
    PUCHAR pScratch = CopyToScratch(frame.pFrame, frame.RgbBytes(), 0);
    if (pScratch == nullptr) {
        return;
    }
    const SIZE_T count = (frame.Height - 1) * stride;
    const UCHAR* pBelow = pScratch + stride;
    const UCHAR* pRight = pScratch + kReach;
    PUCHAR pOut = frame.pFrame;
    const __m128i zero = _mm_setzero_si128();
    const __m128i grey = _mm_set1_epi16(127);
    SIZE_T n = 0;
    for (; n + sizeof(__m128i) <= count; n += sizeof(__m128i)) {
        const __m128i below = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBelow + n));
        const __m128i right = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pRight + n));
        const __m128i low = _mm_add_epi16(
            _mm_sub_epi16(_mm_unpacklo_epi8(below, zero), _mm_unpacklo_epi8(right, zero)), grey);
        const __m128i high = _mm_add_epi16(
            _mm_sub_epi16(_mm_unpackhi_epi8(below, zero), _mm_unpackhi_epi8(right, zero)), grey);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + n), _mm_packus_epi16(low, high));
    }
    for (; n < count; ++n) {
        pOut[n] = ClampByte(static_cast<LONG>(pBelow[n]) - pRight[n] + 127);
    }
    FreeScratch(pScratch);
}

// ---- 10: mosaic ---------------------------------------------------------------------

ULONG MosaicBlock(ULONG width)
{
    switch (width) {
    case 80:
        return 2;
    case 320:
        return 10;
    case 352:
    case 640:
        return 16;
    default:
        return 8;
    }
}

// Blocks of b x b pixels take their average colour. Where the width or
// height is not a multiple of b, the last blocks of a row or column are cut
// at the frame's edge and take the average of the pixels they cover: a full
// block there would read and write past the row (into the next one) or past
// the frame, and dividing a cut block by b * b would darken the edge.
void Mosaic(EffectState*, const EffectFrame& frame)
{
    const ULONG b = MosaicBlock(frame.Width);
    const SIZE_T stride = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    for (ULONG top = 0; top < frame.Height; top += b) {
        const ULONG rows = frame.Height - top < b ? frame.Height - top : b;
        for (ULONG left = 0; left < frame.Width; left += b) {
            const ULONG columns = frame.Width - left < b ? frame.Width - left : b;
            const SIZE_T runBytes = static_cast<SIZE_T>(columns) * kRgbBytes;
            PUCHAR pBlock = frame.pFrame + top * stride + static_cast<SIZE_T>(left) * kRgbBytes;
            ULONG sum[kRgbBytes] = {0, 0, 0};
            for (ULONG r = 0; r < rows; ++r) {
                const UCHAR* p = pBlock + r * stride;
                for (SIZE_T i = 0; i < runBytes; i += kRgbBytes) {
                    sum[0] += p[i];
                    sum[1] += p[i + 1];
                    sum[2] += p[i + 2];
                }
            }
            const ULONG pixels = rows * columns;
            const UCHAR average[kRgbBytes] = {static_cast<UCHAR>(sum[0] / pixels), static_cast<UCHAR>(sum[1] / pixels),
                                              static_cast<UCHAR>(sum[2] / pixels)};
            for (ULONG r = 0; r < rows; ++r) {
                PUCHAR p = pBlock + r * stride;
                for (SIZE_T i = 0; i < runBytes; i += kRgbBytes) {
                    p[i] = average[0];
                    p[i + 1] = average[1];
                    p[i + 2] = average[2];
                }
            }
        }
    }
}

}  // namespace kv::effects

namespace {

// ---- 13: zoom animation ---------------------------------------------------------------

constexpr ULONG kZoomVertical = 0;
constexpr ULONG kZoomHorizontal = 1;

LONG ZoomStep(ULONG width)
{
    switch (width) {
    case 80:
        return 2;
    case 320:
        return 6;
    case 640:
        return 8;
    default:
        return 4;
    }
}

// A new width starts the animation from its beginning: the whole frame, in
// the vertical phase, with the horizontal phase set to grow first. That
// first horizontal step finds the rectangle already whole, so the
// horizontal phase opens with one frame at full size before it shrinks.
void ZoomSetUp(EffectState* pState, ULONG width, ULONG height)
{
    pState->m_ZoomWidth = width;
    pState->m_ZoomHeight = height;
    pState->m_ZoomX0 = 0;
    pState->m_ZoomY0 = 0;
    pState->m_ZoomX1 = static_cast<LONG>(width) - 1;
    pState->m_ZoomY1 = static_cast<LONG>(height) - 1;
    pState->m_ZoomPhase = kZoomVertical;
    pState->m_fZoomWidening[kZoomHorizontal] = 1;
    pState->m_fZoomWidening[kZoomVertical] = 0;
    pState->m_fZoomWidenedOnce[kZoomHorizontal] = 0;
    pState->m_fZoomWidenedOnce[kZoomVertical] = 0;
}

// One step of the phase on the bounds low..high of an axis `side` long:
// shrink by `step` at both ends down to a third, then grow back to the
// whole side. True when the phase has shrunk and grown back.
bool ZoomAxisStep(EffectState* pState, ULONG phase, LONG& low, LONG& high, LONG side, LONG step)
{
    UCHAR& fWidening = pState->m_fZoomWidening[phase];
    UCHAR& fWidenedOnce = pState->m_fZoomWidenedOnce[phase];
    if (fWidening != 0) {
        low -= step;
        high += step;
    } else {
        low += step;
        high -= step;
    }
    if (high - low < side / 3) {
        fWidening = 1;
        fWidenedOnce = 1;
        return false;
    }
    if (high - low >= side - step - 1) {
        low = 0;
        high = side - 1;
        fWidening = 0;
        if (fWidenedOnce != 0) {
            fWidenedOnce = 0;
            return true;
        }
    }
    return false;
}

void ZoomAdvance(EffectState* pState, ULONG width, ULONG height)
{
    const LONG step = ZoomStep(width);
    if (pState->m_ZoomPhase == kZoomHorizontal) {
        if (ZoomAxisStep(pState, kZoomHorizontal, pState->m_ZoomX0, pState->m_ZoomX1, static_cast<LONG>(width),
                         step)) {
            pState->m_ZoomPhase = kZoomVertical;
        }
    } else if (ZoomAxisStep(pState, kZoomVertical, pState->m_ZoomY0, pState->m_ZoomY1, static_cast<LONG>(height),
                            step)) {
        pState->m_ZoomPhase = kZoomHorizontal;
    }
}

// ---- 14: brush strokes --------------------------------------------------------------

constexpr ULONG kStrokeMaxLength = 4 * 10 + 1;  // the longest stroke, in pixels
constexpr ULONG kStrokeLengthUnit = 0xFFFFF;    // EffectRandom's largest number
constexpr LONG kStrokeReach = 3 * kRgbBytes;    // a pixel's partner lies 3 pixels on

struct StrokeStyle {
    ULONG lengthFactor;
    LONG threshold;
};

StrokeStyle StrokeStyleFor(ULONG width)
{
    switch (width) {
    case 80:
        return {3, 3};
    case 160:
        return {4, 4};
    case 320:
        return {6, 6};
    default:
        return {10, 10};
    }
}

// The stroke's easing weights 0x10000 / (k (k + 1)), k = 1 .. the longest
// stroke, computed once.
struct StrokeWeights {
    LONG Value[kStrokeMaxLength + 1];
};

constexpr StrokeWeights MakeStrokeWeights()
{
    StrokeWeights weights = {};
    for (ULONG k = 1; k <= kStrokeMaxLength; ++k) {
        weights.Value[k] = static_cast<LONG>(0x10000 / (k * (k + 1)));
    }
    return weights;
}

constexpr StrokeWeights kStrokeWeights = MakeStrokeWeights();

// Whether pixel b stands out from pixel a: the first byte's distance, plus
// each other byte's rise over a, a fall counting as minus the first byte's
// distance (for both bytes, as the strokes have always been drawn).
bool PixelsDiffer(const UCHAR* pA, const UCHAR* pB, LONG threshold)
{
    const LONG d0 = pB[0] > pA[0] ? pB[0] - pA[0] : pA[0] - pB[0];
    const LONG rise1 = static_cast<LONG>(pB[1]) - pA[1];
    const LONG rise2 = static_cast<LONG>(pB[2]) - pA[2];
    const LONG sum = d0 + (rise1 > 0 ? rise1 : -d0) + (rise2 > 0 ? rise2 : -d0);
    return (sum >> 2) > threshold;
}

struct Stroke {
    LONG colour[kRgbBytes];  // the stroke's running colour
    LONG delta[kRgbBytes];   // towards its current target
    LONG weight;
    ULONG k;                 // pixels left
};

void Aim(Stroke& stroke, const UCHAR* pTarget)
{
    for (ULONG c = 0; c < kRgbBytes; ++c) {
        stroke.delta[c] = static_cast<LONG>(pTarget[c]) - stroke.colour[c];
    }
    stroke.weight = kStrokeWeights.Value[stroke.k];
}

// A stroke from pixel p (at byte `from` of the row) over the pixels after
// its partner q0, of a random length, easing from p's colour towards the
// target and blending each pixel a third of the way to itself. It ends early
// (by chance) on a pixel like p, and re-aims at any pixel that stands out
// from the one just painted. Nothing at or past `limit` is touched, which
// keeps every partner inside the row.
void DrawStroke(EffectState* pState, PUCHAR pRow, LONG from, LONG limit, const StrokeStyle& style)
{
    const UCHAR* p = pRow + from;
    const LONG start = from + kStrokeReach;
    const ULONG factor = EffectRandom(pState) % 3 != 0 ? style.lengthFactor : 4 * style.lengthFactor;
    const ULONG length = factor * EffectRandom(pState) / kStrokeLengthUnit + 1;
    const LONG reach = start + static_cast<LONG>(kRgbBytes * length);
    const LONG end = reach < limit ? reach : limit;
    Stroke stroke = {{p[0], p[1], p[2]}, {0, 0, 0}, 0, length};
    Aim(stroke, pRow + start);
    for (LONG at = start; at < end; at += kRgbBytes, --stroke.k) {
        PUCHAR q = pRow + at;
        if (!PixelsDiffer(p, q, style.threshold) && (EffectRandom(pState) & 1) != 0) {
            return;
        }
        const LONG ease = static_cast<LONG>(stroke.k) * stroke.weight;
        for (ULONG c = 0; c < kRgbBytes; ++c) {
            stroke.colour[c] = ClampByte(stroke.colour[c] + ((stroke.delta[c] * ease) >> 15));
            q[c] = static_cast<UCHAR>((q[c] + 2 * stroke.colour[c]) / 3);
        }
        if (PixelsDiffer(q, q + kStrokeReach, style.threshold)) {
            Aim(stroke, q + kStrokeReach);
        }
    }
}

}  // namespace

namespace kv::effects {

// The source rectangle, kept inside the frame, enlarged onto the whole
// frame; then the rectangle moves on for the next frame.
void ZoomAnimation(EffectState* pState, const EffectFrame& frame)
{
    PUCHAR pScratch = CopyToScratch(frame.pFrame, frame.RgbBytes(), 0);
    if (pScratch == nullptr) {
        return;
    }
    if (pState->m_ZoomWidth != frame.Width) {
        ZoomSetUp(pState, frame.Width, frame.Height);
    }
    const LONG lastX = static_cast<LONG>(frame.Width) - 1, lastY = static_cast<LONG>(frame.Height) - 1;
    pState->m_ZoomX0 = Clamp(pState->m_ZoomX0, 0, lastX);
    pState->m_ZoomX1 = Clamp(pState->m_ZoomX1, 0, lastX);
    pState->m_ZoomY0 = Clamp(pState->m_ZoomY0, 0, lastY);
    pState->m_ZoomY1 = Clamp(pState->m_ZoomY1, 0, lastY);
    const ResizeSource source = {pScratch,         frame.Width,      frame.Height,    pState->m_ZoomX0,
                                 pState->m_ZoomY0, pState->m_ZoomX1, pState->m_ZoomY1};
    const ResizeDestination whole = {frame.pFrame, frame.Width, frame.Height};
    ResizeBilinear(&source, &whole, kRgbBytes);
    FreeScratch(pScratch);
    ZoomAdvance(pState, frame.Width, frame.Height);
}

// Every second row, pixels that stand out from the pixel three further on
// start a stroke there.
void BrushStrokes(EffectState* pState, const EffectFrame& frame)
{
    const StrokeStyle style = StrokeStyleFor(frame.Width);
    const LONG limit = (static_cast<LONG>(frame.Width) - 3) * static_cast<LONG>(kRgbBytes);
    const SIZE_T stride = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    for (ULONG row = 0; row < frame.Height; row += 2) {
        PUCHAR pRow = frame.pFrame + row * stride;
        for (LONG at = 0; at < limit; at += kRgbBytes) {
            if (PixelsDiffer(pRow + at, pRow + at + kStrokeReach, style.threshold)) {
                DrawStroke(pState, pRow, at, limit, style);
            }
        }
    }
}

}  // namespace kv::effects

// ---- the resize's entry point ---------------------------------------------------------

bool ResizeBilinearAccepts(const ResizeSource* pSource, const ResizeDestination* pDestination, ULONG BytesPerPixel)
{
    return ResizeUsable(pSource, pDestination, BytesPerPixel);
}

void ResizeBilinear(const ResizeSource* pSource, const ResizeDestination* pDestination, ULONG BytesPerPixel)
{
    if (!ResizeUsable(pSource, pDestination, BytesPerPixel)) {
        return;
    }
    const ResizeSource& s = *pSource;
    const ResizeAxis axisX = MakeAxis(pDestination->Width, s.X1 - s.X0 + 1);
    const ResizeAxis axisY = MakeAxis(pDestination->Height, s.Y1 - s.Y0 + 1);
    const SIZE_T sourceStride = static_cast<SIZE_T>(s.Width) * BytesPerPixel;
    const UCHAR* pOrigin =
        s.pPixels + static_cast<SIZE_T>(s.Y0) * sourceStride + static_cast<SIZE_T>(s.X0) * BytesPerPixel;
    const SIZE_T outStride = static_cast<SIZE_T>(pDestination->Width) * BytesPerPixel;
    // The row sums of the faster way; without them, the direct way.
    const ULONG rowBytes = static_cast<ULONG>(axisX.span) * BytesPerPixel;
    auto* pSums = static_cast<LONG*>(ExAllocatePoolWithTag(NonPagedPool, rowBytes * sizeof(LONG), kv::kTagImage));
    ULONG position = 0;
    for (ULONG j = 0; j < pDestination->Height; ++j, position += axisY.step) {
        const Taps y = TapsAt(axisY, position);
        const UCHAR* pLow = pOrigin + y.low * sourceStride;
        const UCHAR* pHigh = pOrigin + y.high * sourceStride;
        PUCHAR pOut = pDestination->pPixels + j * outStride;
        if (pSums != nullptr) {
            BlendRows(pLow, pHigh, y.weight, rowBytes, pSums);
            g_BlendColumns[BytesPerPixel - 1](pSums, axisX, pOut, pDestination->Width);
        } else {
            g_ResizeRows[BytesPerPixel - 1](pLow, pHigh, y.weight, axisX, pOut, pDestination->Width);
        }
    }
    kv::FreeTagged(pSums, kv::kTagImage);
}
