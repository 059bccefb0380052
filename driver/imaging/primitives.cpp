// The imaging primitives (primitives.h): the scalar conversions and resize
// passes, which define the bytes every path must give, the choice of path,
// the AVX state save around the AVX2 kernels, the row turns and copies, the
// image buffers, Resize, Rotate and the frame loop's quarter turns.
#include "imaging/primitives.h"

#include <cpuid.h>
#include <emmintrin.h>

#include "imaging/primitives_rows.h"
#include "pooltag.h"

using namespace kv;
using namespace kv::imaging;

namespace {

constexpr ULONG kRgbBytes = 3;   // bytes of a B,G,R pixel
constexpr ULONG kYuy2Bytes = 2;  // bytes of a YUY2 pixel (a group is two)
constexpr ULONG kGroupBytes = 4;
constexpr unsigned kCpuidAvx = 1u << 28;   // CPUID.1:ECX
constexpr unsigned kCpuidAvx2 = 1u << 5;   // CPUID.(7,0):EBX

// Written by InitPrimitives in DriverEntry before any stream exists (and by
// tests); only read afterwards. SSE2 needs nothing but x64.
PrimitivesPath g_Path = PrimitivesPath::Sse2;

// ---- scalar YUY2 to RGB -----------------------------------------------------

UCHAR ClampFraction(LONG value)
{
    value >>= kYuvFractionBits;
    return static_cast<UCHAR>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

// One pixel; u and v are U - 128 and V - 128.
void YuvToBgr(ULONG y, LONG u, LONG v, UCHAR* pBgr)
{
    const LONG luma = static_cast<LONG>((y * kLumaSpread * kLumaGain) >> 16) + kLumaBias;
    pBgr[0] = ClampFraction(luma + u * kUToB);
    pBgr[1] = ClampFraction(luma - (u * kUToG + v * kVToG));
    pBgr[2] = ClampFraction(luma + v * kVToR);
}

// Pixels [from, width) of one row; `from` is even.
void Yuy2ToRgb24Row(const UCHAR* pSrc, UCHAR* pDst, ULONG from, ULONG width)
{
    const UCHAR* pGroup = pSrc + static_cast<SIZE_T>(from) * kYuy2Bytes;
    UCHAR* pOut = pDst + static_cast<SIZE_T>(from) * kRgbBytes;
    ULONG x = from;
    for (; x + 1 < width; x += 2, pGroup += kGroupBytes, pOut += 2 * kRgbBytes) {
        const LONG u = pGroup[1] - kChromaZero;
        const LONG v = pGroup[3] - kChromaZero;
        YuvToBgr(pGroup[0], u, v, pOut);
        YuvToBgr(pGroup[2], u, v, pOut + kRgbBytes);
    }
    if (x < width) {
        // Odd width: the row ends after this group's Y and U, so its V is
        // not ours to read; the group before has the nearest one.
        const LONG v = x >= 2 ? pGroup[-1] - kChromaZero : 0;
        YuvToBgr(pGroup[0], pGroup[1] - kChromaZero, v, pOut);
    }
}

// ---- scalar RGB to YUY2 -----------------------------------------------------

LONG Weigh(const UCHAR* pBgr, LONG fromR, LONG fromG, LONG fromB)
{
    return fromR * pBgr[2] + fromG * pBgr[1] + fromB * pBgr[0];
}

// The rule keeps the low 8 bits of the sum, shifted arithmetically.
UCHAR Scale(LONG sum, LONG offset)
{
    return static_cast<UCHAR>(((sum >> kRgbFractionBits) + offset) & 0xFF);
}

void Rgb24ToYuy2Row(const UCHAR* pSrc, UCHAR* pDst, ULONG from, ULONG width)
{
    const UCHAR* pPixel = pSrc + static_cast<SIZE_T>(from) * kRgbBytes;
    UCHAR* pGroup = pDst + static_cast<SIZE_T>(from) * kYuy2Bytes;
    ULONG x = from;
    for (; x + 1 < width; x += 2, pPixel += 2 * kRgbBytes, pGroup += kGroupBytes) {
        const UCHAR* pSecond = pPixel + kRgbBytes;
        pGroup[0] = Scale(Weigh(pPixel, kYFromR, kYFromG, kYFromB), kYOffset);
        pGroup[1] = Scale(Weigh(pPixel, kUFromR, kUFromG, kUFromB), kChromaZero);
        pGroup[2] = Scale(Weigh(pSecond, kYFromR, kYFromG, kYFromB), kYOffset);
        pGroup[3] = Scale(Weigh(pSecond, kVFromR, kVFromG, kVFromB), kChromaZero);
    }
    if (x < width) {  // odd width: a lone pixel, whose two bytes are Y and U
        pGroup[0] = Scale(Weigh(pPixel, kYFromR, kYFromG, kYFromB), kYOffset);
        pGroup[1] = Scale(Weigh(pPixel, kUFromR, kUFromG, kUFromB), kChromaZero);
    }
}

// ---- paths ------------------------------------------------------------------

using RowKernel = unsigned (*)(const unsigned char*, unsigned char*, unsigned);
using RowFinish = void (*)(const UCHAR*, UCHAR*, ULONG from, ULONG width);

struct Conversion {
    RowKernel pSse2;
    RowKernel pAvx2;
    RowFinish pScalar;
    bool fBottomUp;  // output row r from source row height-1-r
};

const Conversion g_Yuy2ToRgb24 = {Yuy2ToRgb24RowSse2, Yuy2ToRgb24RowAvx2, Yuy2ToRgb24Row, false};
const Conversion g_Rgb24ToYuy2 = {Rgb24ToYuy2RowSse2, Rgb24ToYuy2RowAvx2, Rgb24ToYuy2Row, true};

struct Picture {
    const UCHAR* pSrc;
    ULONG srcStride;
    UCHAR* pDst;
    ULONG dstStride;
    ULONG width;
    ULONG height;
};

// pVector null: scalar only.
void ConvertRows(const Conversion& conversion, RowKernel pVector, const Picture& picture)
{
    for (ULONG row = 0; row < picture.height; ++row) {
        const ULONG srcRow = conversion.fBottomUp ? picture.height - 1 - row : row;
        const UCHAR* pSrcRow = picture.pSrc + static_cast<SIZE_T>(srcRow) * picture.srcStride;
        UCHAR* pDstRow = picture.pDst + static_cast<SIZE_T>(row) * picture.dstStride;
        const ULONG done = pVector != nullptr ? pVector(pSrcRow, pDstRow, picture.width) : 0;
        conversion.pScalar(pSrcRow, pDstRow, done, picture.width);
    }
}

// x64 kernel code may use the SSE registers freely, but the upper halves of
// the AVX registers belong to whatever the processor was running: the AVX2
// kernels run between a save and a restore of the AVX state. The save can
// fail (it may need memory), and then SSE2 does the work. `work` is called
// once with the path whose kernels it may use.
// https://learn.microsoft.com/windows-hardware/drivers/kernel/using-floating-point-in-a-wdm-driver
template <class Work>
void OnPath(Work work)
{
    switch (g_Path) {
    case PrimitivesPath::Avx2: {
        XSTATE_SAVE state;
        if (NT_SUCCESS(KeSaveExtendedProcessorState(XSTATE_MASK_AVX, &state))) {
            work(PrimitivesPath::Avx2);
            KeRestoreExtendedProcessorState(&state);
            return;
        }
        work(PrimitivesPath::Sse2);
        return;
    }
    case PrimitivesPath::Sse2:
        work(PrimitivesPath::Sse2);
        return;
    case PrimitivesPath::Scalar:
        work(PrimitivesPath::Scalar);
        return;
    }
}

void Convert(const Conversion& conversion, const Picture& picture)
{
    OnPath([&](PrimitivesPath path) {
        const RowKernel pVector = path == PrimitivesPath::Avx2   ? conversion.pAvx2
                                  : path == PrimitivesPath::Sse2 ? conversion.pSse2
                                                                 : nullptr;
        ConvertRows(conversion, pVector, picture);
    });
}

bool ProcessorHasAvx2()
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx) || (ecx & kCpuidAvx) == 0) {
        return false;
    }
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & kCpuidAvx2) != 0;
}

// A processor with AVX2 is of no use while the system does not save the AVX
// state on a thread switch (then it has not enabled it either).
bool Avx2Usable()
{
    return ProcessorHasAvx2() && (RtlGetEnabledExtendedFeatures(XSTATE_MASK_AVX) & XSTATE_MASK_AVX) != 0;
}

// ---- turns and copies -------------------------------------------------------

void SwapBytes(UCHAR* pA, UCHAR* pB, SIZE_T count)
{
    SIZE_T i = 0;
    for (; i + sizeof(__m128i) <= count; i += sizeof(__m128i)) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pA + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pB + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pA + i), b);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pB + i), a);
    }
    for (; i < count; ++i) {
        const UCHAR a = pA[i];
        pA[i] = pB[i];
        pB[i] = a;
    }
}

void MirrorRowRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w)
{
    const UCHAR* pFrom = pSrc + static_cast<SIZE_T>(w) * kRgbBytes;
    for (ULONG x = 0; x < w; ++x, pDst += kRgbBytes) {
        pFrom -= kRgbBytes;
        pDst[0] = pFrom[0];
        pDst[1] = pFrom[1];
        pDst[2] = pFrom[2];
    }
}

// A run of w pixels read backwards, pixel by pixel: output pixel p takes the
// luma of source pixel w-1-p and, as its chroma, the byte just before that
// luma; the last output pixel, whose source luma has no byte before it,
// takes the run's first byte and fourth byte. Even outputs so get the U of
// their source's own group, odd ones the V of the group to its left (the
// red difference lands two pixels off the blue one at vertical edges); the
// mirror's output is kept byte for byte as the rule gives it. The run is a
// row (mirror) or the whole picture (flip and mirror: one
// backward walk that carries on from row to row).
void MirrorRowYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w)
{
    for (ULONG p = 0; p < w; ++p) {
        const SIZE_T source = static_cast<SIZE_T>(w - 1 - p) * kYuy2Bytes;
        pDst[static_cast<SIZE_T>(p) * kYuy2Bytes] = pSrc[source];
        if (source != 0) {
            pDst[static_cast<SIZE_T>(p) * kYuy2Bytes + 1] = pSrc[source - 1];
        } else {
            // A lone pixel has no fourth byte: its own chroma.
            pDst[static_cast<SIZE_T>(p) * kYuy2Bytes + 1] = pSrc[w >= 2 ? 3 : 1];
        }
    }
}

using RowMirror = void (*)(const UCHAR* pSrc, UCHAR* pDst, ULONG w);

void CopyRows(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, ULONG pixelBytes, bool flip, RowMirror pMirror)
{
    const SIZE_T rowBytes = static_cast<SIZE_T>(w) * pixelBytes;
    for (ULONG row = 0; row < h; ++row) {
        const UCHAR* pFrom = pSrc + static_cast<SIZE_T>(flip ? h - 1 - row : row) * rowBytes;
        UCHAR* pTo = pDst + static_cast<SIZE_T>(row) * rowBytes;
        if (pMirror != nullptr) {
            pMirror(pFrom, pTo, w);
        } else {
            RtlCopyMemory(pTo, pFrom, rowBytes);
        }
    }
}

// ---- geometry checks ----------------------------------------------------------

// Coordinates, factors and shifts beyond this many pixels are refused: no
// picture is that large, and every conversion to an integer stays exact.
constexpr double kLargestCoordinate = 1.0e9;
constexpr LONG kLargestLong = 0x7FFFFFFF;
// A point this close outside a rectangle still counts as on its border:
// the sine and cosine of an angle are rounded.
constexpr double kBorderTolerance = 1.0e-6;
constexpr double kPi = 3.14159265358979323846;
constexpr double kDegreesPerQuarter = 90.0;

// False for NaN and the infinities too.
bool Moderate(double value)
{
    return value > -kLargestCoordinate && value < kLargestCoordinate;
}

bool PositiveFactor(double factor)
{
    return factor > 1.0 / kLargestCoordinate && factor < kLargestCoordinate;
}

bool NonEmpty(const ImageRect& rect)
{
    return rect.x >= 0 && rect.y >= 0 && rect.width > 0 && rect.height > 0;
}

bool InsideImage(const ImageRect& rect, ImageSize size, LONG step)
{
    return NonEmpty(rect) && static_cast<LONGLONG>(rect.x) + rect.width <= size.width &&
           static_cast<LONGLONG>(rect.y) + rect.height <= size.height &&
           static_cast<LONGLONG>(size.width) * kRgbBytes <= step;
}

// The destination's height is the caller's to know; its rows must fit its step.
bool InsideRows(const ImageRect& rect, LONG step)
{
    return NonEmpty(rect) && (static_cast<LONGLONG>(rect.x) + rect.width) * kRgbBytes <= step;
}

UCHAR* PixelAt(UCHAR* pImage, LONG step, LONG x, LONG y)
{
    return pImage + static_cast<LONG_PTR>(y) * step + static_cast<LONG_PTR>(x) * kRgbBytes;
}

const UCHAR* PixelAt(const UCHAR* pImage, LONG step, LONG x, LONG y)
{
    return pImage + static_cast<LONG_PTR>(y) * step + static_cast<LONG_PTR>(x) * kRgbBytes;
}

// Floor of a moderate value (the C library's floor is not in the kernel).
LONGLONG Floor(double value)
{
    LONGLONG whole = static_cast<LONGLONG>(value);
    return static_cast<double>(whole) > value ? whole - 1 : whole;
}

LONGLONG RoundToNearest(double value)
{
    return Floor(value + 0.5);
}

bool IsWhole(double value)
{
    return static_cast<double>(Floor(value)) == value;
}

// sin and cos of a moderate angle in degrees, without the C library: the
// angle is brought within 45 degrees of a multiple of 90, where the Taylor
// series reaches double precision by its ninth term, and the quadrant
// exchanges and negates the two.
void SinCosDegrees(double degrees, double* pSin, double* pCos)
{
    const LONGLONG quarters = RoundToNearest(degrees / kDegreesPerQuarter);
    const double r = (degrees - kDegreesPerQuarter * static_cast<double>(quarters)) * (kPi / 180.0);
    const double r2 = r * r;
    double sine = 0.0, cosine = 0.0, sineTerm = r, cosineTerm = 1.0;
    for (int n = 1; n <= 9; ++n) {
        sine += sineTerm;
        cosine += cosineTerm;
        sineTerm *= -r2 / ((2.0 * n) * (2.0 * n + 1.0));
        cosineTerm *= -r2 / ((2.0 * n - 1.0) * (2.0 * n));
    }
    switch (quarters & 3) {
    case 0: *pSin = sine, *pCos = cosine; break;
    case 1: *pSin = cosine, *pCos = -sine; break;
    case 2: *pSin = -sine, *pCos = -cosine; break;
    default: *pSin = -cosine, *pCos = sine; break;
    }
}

// ---- Resize -------------------------------------------------------------------
// The work buffer: the column taps, the row taps, and one blended row of
// 16-bit values (see primitives_rows.h), the rectangle's width plus one
// pixel, a copy of its last, for the last column's neighbour, and room for
// the vector loads behind it.

struct RowTap {
    LONG row0;    // the row at or above the point, and the one below it
    LONG row1;
    LONG weight;  // of row1, 8 bits
};

constexpr SIZE_T kBlendedRoom = 8;  // values a vector load may read behind the row
constexpr SIZE_T kPartAlignment = 16;

SIZE_T AlignPart(SIZE_T bytes)
{
    return (bytes + kPartAlignment - 1) & ~(kPartAlignment - 1);
}

struct ResizeLayout {
    SIZE_T rowTaps;  // offsets into the work buffer; column taps come first
    SIZE_T blended;
    SIZE_T total;
};

ResizeLayout LayoutResize(LONG sourceWidth, LONG destinationWidth, LONG destinationHeight)
{
    ResizeLayout layout;
    layout.rowTaps = AlignPart(sizeof(ColumnTap) * static_cast<SIZE_T>(destinationWidth));
    layout.blended = layout.rowTaps + AlignPart(sizeof(RowTap) * static_cast<SIZE_T>(destinationHeight));
    const SIZE_T values = (static_cast<SIZE_T>(sourceWidth) + 1) * kResizeChannels + kBlendedRoom;
    layout.total = layout.blended + AlignPart(values * sizeof(short));
    return layout;
}

// Where a point falls between the pixels 0..count-1: held inside them, the
// pixel at or before it and the weight of the next one (of `one`), rounded
// to nearest; a weight that rounds to `one` is the next pixel alone.
struct Place {
    LONG index;
    LONG weight;
};

Place PlacePoint(double point, LONG count, LONG one)
{
    const double last = static_cast<double>(count - 1);
    if (!(point > 0.0)) {
        point = 0.0;
    } else if (point > last) {
        point = last;
    }
    Place place;
    place.index = static_cast<LONG>(point);  // not negative: truncation is the floor
    place.weight = static_cast<LONG>(RoundToNearest((point - place.index) * one));
    if (place.weight >= one) {
        place.index++;
        place.weight = 0;
    }
    return place;
}

void BuildColumnTaps(ColumnTap* pTaps, LONG count, double factor, double shift, LONG sourceWidth)
{
    for (LONG i = 0; i < count; ++i) {
        const Place place = PlacePoint(i / factor + shift, sourceWidth, kColumnWeightOne);
        pTaps[i].offset = place.index * static_cast<LONG>(kResizeChannels);
        pTaps[i].weights = (kColumnWeightOne - place.weight) | (place.weight << 16);
    }
}

void BuildRowTaps(RowTap* pTaps, LONG count, double factor, double shift, LONG sourceHeight)
{
    for (LONG j = 0; j < count; ++j) {
        const Place place = PlacePoint(j / factor + shift, sourceHeight, kRowWeightOne);
        pTaps[j].row0 = place.index;
        pTaps[j].row1 = place.index + 1 < sourceHeight ? place.index + 1 : place.index;
        pTaps[j].weight = place.weight;
    }
}

void BlendRowsScalar(const UCHAR* pA, const UCHAR* pB, short* pOut, ULONG from, ULONG count, LONG fy)
{
    for (ULONG k = from; k < count; ++k) {
        pOut[k] = static_cast<short>((pA[k] * (kRowWeightOne - fy) + pB[k] * fy) >> kRowBlendShift);
    }
}

void SampleColumnsScalar(const short* pRow, const ColumnTap* pTaps, UCHAR* pDst, ULONG from, ULONG width)
{
    for (ULONG i = from; i < width; ++i) {
        const short* pPair = pRow + pTaps[i].offset;
        const LONG w0 = pTaps[i].weights & 0xFFFF;
        const LONG w1 = static_cast<LONG>(static_cast<ULONG>(pTaps[i].weights) >> 16);
        UCHAR* pOut = pDst + static_cast<SIZE_T>(i) * kRgbBytes;
        for (ULONG c = 0; c < kResizeChannels; ++c) {
            pOut[c] = static_cast<UCHAR>((pPair[c] * w0 + pPair[c + kResizeChannels] * w1 + kColumnRound) >>
                                         kColumnShift);
        }
    }
}

using BlendKernel = unsigned (*)(const unsigned char*, const unsigned char*, short*, unsigned, int);
using SampleKernel = unsigned (*)(const short*, const ColumnTap*, unsigned char*, unsigned);

struct ResizeKernels {
    BlendKernel pBlend;  // null: scalar only
    SampleKernel pSample;
};

ResizeKernels ResizeKernelsFor(PrimitivesPath path)
{
    switch (path) {
    case PrimitivesPath::Avx2: return {BlendRowsAvx2, SampleColumnsAvx2};
    case PrimitivesPath::Sse2: return {BlendRowsSse2, SampleColumnsSse2};
    case PrimitivesPath::Scalar: break;
    }
    return {nullptr, nullptr};
}

// One resize, its arguments checked and its taps built.
struct ResizeJob {
    const UCHAR* pSourceOrigin;  // the source rectangle's first pixel
    LONG sourceStep;
    LONG sourceWidth;
    UCHAR* pDestinationOrigin;
    LONG destinationStep;
    LONG destinationWidth;
    LONG destinationHeight;
    const ColumnTap* pColumns;
    const RowTap* pRows;
    short* pBlended;
};

void RunResize(const ResizeJob& job, const ResizeKernels& kernels)
{
    // Only the source columns some tap reads are blended (the taps climb
    // with the column).
    const LONG first = job.pColumns[0].offset / static_cast<LONG>(kResizeChannels);
    LONG last = job.pColumns[job.destinationWidth - 1].offset / static_cast<LONG>(kResizeChannels) + 1;
    if (last > job.sourceWidth - 1) {
        last = job.sourceWidth - 1;
    }
    const ULONG spanValues = static_cast<ULONG>(last - first + 1) * kResizeChannels;
    const SIZE_T firstValue = static_cast<SIZE_T>(first) * kResizeChannels;
    const SIZE_T lastValue = static_cast<SIZE_T>(last) * kResizeChannels;
    const RowTap* pBlendedFor = nullptr;
    for (LONG j = 0; j < job.destinationHeight; ++j) {
        const RowTap& rows = job.pRows[j];
        // Rows that enlarge from the same two source rows share one blend.
        if (pBlendedFor == nullptr || pBlendedFor->row0 != rows.row0 || pBlendedFor->row1 != rows.row1 ||
            pBlendedFor->weight != rows.weight) {
            const UCHAR* pA = job.pSourceOrigin + static_cast<LONG_PTR>(rows.row0) * job.sourceStep + firstValue;
            const UCHAR* pB = job.pSourceOrigin + static_cast<LONG_PTR>(rows.row1) * job.sourceStep + firstValue;
            short* pOut = job.pBlended + firstValue;
            const ULONG done = kernels.pBlend != nullptr ? kernels.pBlend(pA, pB, pOut, spanValues, rows.weight) : 0;
            BlendRowsScalar(pA, pB, pOut, done, spanValues, rows.weight);
            for (ULONG c = 0; c < kResizeChannels; ++c) {
                job.pBlended[lastValue + kResizeChannels + c] = job.pBlended[lastValue + c];
            }
            pBlendedFor = &rows;
        }
        UCHAR* pDst = job.pDestinationOrigin + static_cast<LONG_PTR>(j) * job.destinationStep;
        const ULONG width = static_cast<ULONG>(job.destinationWidth);
        const ULONG done = kernels.pSample != nullptr ? kernels.pSample(job.pBlended, job.pColumns, pDst, width) : 0;
        SampleColumnsScalar(job.pBlended, job.pColumns, pDst, done, width);
    }
}

// ---- Rotate -------------------------------------------------------------------

struct Turn {
    const UCHAR* pSource;
    LONG sourceStep;
    ImageRect sourceRect;
    UCHAR* pDestination;
    LONG destinationStep;
    ImageRect destinationRect;
    double xShift;
    double yShift;
};

// The destination columns X of one row whose source point
// coefficient * X + constant lies in [low, high]; false when none does.
bool ColumnsInside(LONGLONG coefficient, LONGLONG constant, LONGLONG low, LONGLONG high, LONGLONG* pFrom,
                   LONGLONG* pTo)
{
    if (coefficient == 0) {
        return constant >= low && constant <= high;
    }
    LONGLONG a = (low - constant) * coefficient;  // coefficient is 1 or -1
    LONGLONG b = (high - constant) * coefficient;
    if (a > b) {
        const LONGLONG t = a;
        a = b;
        b = t;
    }
    if (a > *pFrom) *pFrom = a;
    if (b < *pTo) *pTo = b;
    return *pFrom <= *pTo;
}

// A multiple of 90 degrees with whole-pixel shifts: each destination pixel
// is one source pixel, found by integer steps. The source point of
// destination (X, Y) is (u c - v s, u s + v c) with u = X - xShift,
// v = Y - yShift.
void TurnByQuarters(const Turn& turn, LONGLONG quarters)
{
    static const LONG kCos[4] = {1, 0, -1, 0};
    static const LONG kSin[4] = {0, 1, 0, -1};
    const LONG c = kCos[quarters & 3];
    const LONG s = kSin[quarters & 3];
    const LONGLONG xs = static_cast<LONGLONG>(turn.xShift);
    const LONGLONG ys = static_cast<LONGLONG>(turn.yShift);
    const ImageRect& from = turn.sourceRect;
    const ImageRect& to = turn.destinationRect;
    // Bytes between the source pixels of two neighbouring destination pixels.
    const LONG_PTR stride = static_cast<LONG_PTR>(c) * kRgbBytes + static_cast<LONG_PTR>(s) * turn.sourceStep;
    for (LONG Y = to.y; Y < to.y + to.height; ++Y) {
        const LONGLONG v = Y - ys;
        // source x = c X + (-c xs - v s), source y = s X + (-s xs + v c)
        const LONGLONG xConstant = -c * xs - v * s;
        const LONGLONG yConstant = -s * xs + v * c;
        LONGLONG first = to.x, last = static_cast<LONGLONG>(to.x) + to.width - 1;
        if (!ColumnsInside(c, xConstant, from.x, static_cast<LONGLONG>(from.x) + from.width - 1, &first, &last) ||
            !ColumnsInside(s, yConstant, from.y, static_cast<LONGLONG>(from.y) + from.height - 1, &first, &last)) {
            continue;
        }
        const UCHAR* pFrom = PixelAt(turn.pSource, turn.sourceStep, static_cast<LONG>(c * first + xConstant),
                                     static_cast<LONG>(s * first + yConstant));
        UCHAR* pTo = PixelAt(turn.pDestination, turn.destinationStep, static_cast<LONG>(first), Y);
        const SIZE_T count = static_cast<SIZE_T>(last - first + 1);
        if (stride == static_cast<LONG_PTR>(kRgbBytes)) {
            RtlCopyMemory(pTo, pFrom, count * kRgbBytes);
            continue;
        }
        for (SIZE_T i = 0; i < count; ++i, pFrom += stride, pTo += kRgbBytes) {
            pTo[0] = pFrom[0];
            pTo[1] = pFrom[1];
            pTo[2] = pFrom[2];
        }
    }
}

// Any other angle: each destination pixel's source point, bilinear with
// 8-bit weights, held inside the source rectangle at its border.
void TurnByAngle(const Turn& turn, double angle)
{
    double s = 0.0, c = 0.0;
    SinCosDegrees(angle, &s, &c);
    const ImageRect& from = turn.sourceRect;
    const ImageRect& to = turn.destinationRect;
    const double left = from.x, top = from.y;
    const double right = static_cast<double>(from.x) + from.width - 1;
    const double bottom = static_cast<double>(from.y) + from.height - 1;
    for (LONG Y = to.y; Y < to.y + to.height; ++Y) {
        const double v = Y - turn.yShift;
        for (LONG X = to.x; X < to.x + to.width; ++X) {
            const double u = X - turn.xShift;
            double sx = u * c - v * s;
            double sy = u * s + v * c;
            if (sx < left - kBorderTolerance || sx > right + kBorderTolerance || sy < top - kBorderTolerance ||
                sy > bottom + kBorderTolerance) {
                continue;
            }
            const Place px = PlacePoint(sx - left, from.width, kRowWeightOne);
            const Place py = PlacePoint(sy - top, from.height, kRowWeightOne);
            const LONG x0 = from.x + px.index, y0 = from.y + py.index;
            const LONG x1 = px.index + 1 < from.width ? x0 + 1 : x0;
            const LONG y1 = py.index + 1 < from.height ? y0 + 1 : y0;
            const UCHAR* p00 = PixelAt(turn.pSource, turn.sourceStep, x0, y0);
            const UCHAR* p01 = PixelAt(turn.pSource, turn.sourceStep, x1, y0);
            const UCHAR* p10 = PixelAt(turn.pSource, turn.sourceStep, x0, y1);
            const UCHAR* p11 = PixelAt(turn.pSource, turn.sourceStep, x1, y1);
            UCHAR* pOut = PixelAt(turn.pDestination, turn.destinationStep, X, Y);
            const LONG wx = px.weight, wy = py.weight;
            for (ULONG k = 0; k < kRgbBytes; ++k) {
                const LONG upper = p00[k] * (kRowWeightOne - wx) + p01[k] * wx;
                const LONG lower = p10[k] * (kRowWeightOne - wx) + p11[k] * wx;
                pOut[k] = static_cast<UCHAR>((upper * (kRowWeightOne - wy) + lower * wy + (1 << 15)) >> 16);
            }
        }
    }
}

// ---- the frame loop's quarter turns --------------------------------------------

// Frames up to this many pixels a side (their rows fit a LONG step).
constexpr ULONG kLargestFrameSide = 16384;

// The shifts that put a w x h picture, turned by `quarters`, with its
// corner at (x, y) of the destination: the turned picture covers
// x' in {x c + y s} + xShift, y' in {-x s + y c} + yShift.
void QuarterTurnShifts(LONG quarters, LONG w, LONG h, LONG x, LONG y, double* pXShift, double* pYShift)
{
    switch (quarters) {
    case 1: *pXShift = x, *pYShift = y + w - 1; break;          // x' = y, y' = -x
    case 2: *pXShift = x + w - 1, *pYShift = y + h - 1; break;  // x' = -x, y' = -y
    case 3: *pXShift = x + h - 1, *pYShift = y; break;          // x' = -y, y' = x
    default: *pXShift = x, *pYShift = y; break;
    }
}

// A quarter turn of a frame that is not square: the picture shrunk by
// short side / long side keeps its shape and, turned, fits the frame; it
// is shown centred on black. An odd margin leaves its extra column on the
// right and its extra row at the top (the frame is bottom-up).
NTSTATUS ShrinkAndTurn(LONG quarters, LONG w, LONG h, PUCHAR pDestination, const UCHAR* pSource)
{
    const LONGLONG shortSide = w < h ? w : h, longSide = w < h ? h : w;
    LONG smallW = static_cast<LONG>(w * shortSide / longSide);
    LONG smallH = static_cast<LONG>(h * shortSide / longSide);
    smallW = smallW > 0 ? smallW : 1;
    smallH = smallH > 0 ? smallH : 1;
    const ImageRect whole = {0, 0, w, h};
    const ImageRect small = {0, 0, smallW, smallH};
    LONG workSize = 0;
    NTSTATUS status = ResizeBufferSize(whole, small, static_cast<int>(kResizeChannels), kInterpolationBilinear, &workSize);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PUCHAR pWork = static_cast<PUCHAR>(AllocImageBuffer(static_cast<SIZE_T>(workSize)));
    PUCHAR pSmall = static_cast<PUCHAR>(AllocImageBuffer(static_cast<SIZE_T>(smallW) * smallH * kRgbBytes));
    const SIZE_T frameBytes = static_cast<SIZE_T>(w) * h * kRgbBytes;
    if (pWork == nullptr || pSmall == nullptr) {
        FreeImageBuffer(pWork);
        FreeImageBuffer(pSmall);
        RtlCopyMemory(pDestination, pSource, frameBytes);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // Centred pixels: the picture's edges land on the small picture's edges.
    const double xFactor = static_cast<double>(smallW) / w;
    const double yFactor = static_cast<double>(smallH) / h;
    status = Resize(pSource, ImageSize{w, h}, w * static_cast<LONG>(kRgbBytes), whole, pSmall,
                    smallW * static_cast<LONG>(kRgbBytes), small, xFactor, yFactor, 0.5 / xFactor - 0.5,
                    0.5 / yFactor - 0.5, kInterpolationBilinear, pWork);
    if (NT_SUCCESS(status)) {
        RtlZeroMemory(pDestination, frameBytes);
        // Turned, the small picture is smallH wide and smallW tall.
        const ImageRect place = {(w - smallH) / 2, (h - smallW) / 2, smallH, smallW};
        double xShift = 0.0, yShift = 0.0;
        QuarterTurnShifts(quarters, smallW, smallH, place.x, place.y, &xShift, &yShift);
        status = Rotate(pSmall, ImageSize{smallW, smallH}, smallW * static_cast<LONG>(kRgbBytes), small, pDestination,
                        w * static_cast<LONG>(kRgbBytes), place, kDegreesPerQuarter * quarters, xShift, yShift,
                        kInterpolationBilinear);
    }
    FreeImageBuffer(pWork);
    FreeImageBuffer(pSmall);
    return status;
}

}  // namespace

namespace kv {

void Yuy2ToRgb24(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height)
{
    Convert(g_Yuy2ToRgb24, Picture{pSrc, srcStride, pDst, dstStride, width, height});
}

void Rgb24ToYuy2BottomUp(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width,
                         ULONG height)
{
    Convert(g_Rgb24ToYuy2, Picture{pSrc, srcStride, pDst, dstStride, width, height});
}

LONG MirrorInPlace(UCHAR* pImage, LONG step, ULONG width, ULONG height, int axis)
{
    if (axis != kMirrorAxisRows) {
        return STATUS_NOT_SUPPORTED;
    }
    const SIZE_T rowBytes = static_cast<SIZE_T>(width) * kRgbBytes;
    const SIZE_T stepBytes = step < 0 ? static_cast<SIZE_T>(-static_cast<LONGLONG>(step)) : static_cast<SIZE_T>(step);
    if ((pImage == nullptr && height > 0) || (height > 1 && stepBytes < rowBytes)) {
        return STATUS_INVALID_PARAMETER;
    }
    for (ULONG row = 0; row < height / 2; ++row) {
        SwapBytes(pImage + static_cast<LONG_PTR>(row) * step, pImage + static_cast<LONG_PTR>(height - 1 - row) * step,
                  rowBytes);
    }
    return STATUS_SUCCESS;
}

void FlipMirrorYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror)
{
    if (flip && mirror) {
        MirrorRowYuy2(pSrc, pDst, w * h);
        return;
    }
    CopyRows(pSrc, pDst, w, h, kYuy2Bytes, flip, mirror ? MirrorRowYuy2 : nullptr);
}

void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror)
{
    CopyRows(pSrc, pDst, w, h, kRgbBytes, flip, mirror ? MirrorRowRgb : nullptr);
}

// ---- buffers ------------------------------------------------------------------
// The pool block's own address is kept just before the aligned start.

PVOID AllocImageBuffer(SIZE_T size)
{
    constexpr SIZE_T kOverhead = kImageBufferAlignment + sizeof(PVOID);
    if (size == 0 || size > ~static_cast<SIZE_T>(0) - kOverhead) {
        return nullptr;
    }
    auto* pBlock = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, size + kOverhead, kTagImage));
    if (pBlock == nullptr) {
        return nullptr;
    }
    const ULONG_PTR start =
        (reinterpret_cast<ULONG_PTR>(pBlock) + sizeof(PVOID) + kImageBufferAlignment - 1) & ~(kImageBufferAlignment - 1);
    reinterpret_cast<PVOID*>(start)[-1] = pBlock;
    return reinterpret_cast<PVOID>(start);
}

void FreeImageBufferBlock(PVOID pBuffer)
{
    if (pBuffer != nullptr) {
        PVOID pBlock = static_cast<PVOID*>(pBuffer)[-1];
        FreeTagged(pBlock, kTagImage);
    }
}

LONG CopyBytes(const void* pSource, void* pDestination, LONG length)
{
    if (length < 0 || (length > 0 && (pSource == nullptr || pDestination == nullptr))) {
        return STATUS_INVALID_PARAMETER;
    }
    if (length > 0) {
        RtlCopyMemory(pDestination, pSource, static_cast<SIZE_T>(length));
    }
    return STATUS_SUCCESS;
}

LONG SetBytes(UCHAR value, void* pDestination, LONG length)
{
    if (length < 0 || (length > 0 && pDestination == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (length > 0) {
        RtlFillMemory(pDestination, static_cast<SIZE_T>(length), value);
    }
    return STATUS_SUCCESS;
}

LONG ZeroBytes(void* pDestination, LONG length)
{
    return SetBytes(0, pDestination, length);
}

LONG SetImage(UCHAR value, UCHAR* pDestination, LONG step, ImageSize size)
{
    if (size.width < 0 || size.height < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (size.width == 0 || size.height == 0) {
        return STATUS_SUCCESS;
    }
    if (pDestination == nullptr || (size.height > 1 && step < size.width)) {
        return STATUS_INVALID_PARAMETER;
    }
    for (LONG row = 0; row < size.height; ++row) {
        RtlFillMemory(pDestination + static_cast<LONG_PTR>(row) * step, static_cast<SIZE_T>(size.width), value);
    }
    return STATUS_SUCCESS;
}

// ---- Resize and Rotate ----------------------------------------------------------

LONG ResizeBufferSize(ImageRect sourceRect, ImageRect destinationRect, int channels, int interpolation,
                      LONG* pSize)
{
    if (pSize == nullptr || !NonEmpty(sourceRect) || !NonEmpty(destinationRect)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (channels != static_cast<int>(kResizeChannels) || interpolation != kInterpolationBilinear) {
        return STATUS_NOT_SUPPORTED;
    }
    const SIZE_T total = LayoutResize(sourceRect.width, destinationRect.width, destinationRect.height).total;
    if (total > static_cast<SIZE_T>(kLargestLong)) {
        return STATUS_INVALID_PARAMETER;
    }
    *pSize = static_cast<LONG>(total);
    return STATUS_SUCCESS;
}

LONG Resize(const UCHAR* pSource, ImageSize sourceSize, LONG sourceStep, ImageRect sourceRect, UCHAR* pDestination,
            LONG destinationStep, ImageRect destinationRect, double xFactor, double yFactor, double xShift,
            double yShift, int interpolation, UCHAR* pWork)
{
    if (interpolation != kInterpolationBilinear) {
        return STATUS_NOT_SUPPORTED;
    }
    if (pSource == nullptr || pDestination == nullptr || pWork == nullptr ||
        !InsideImage(sourceRect, sourceSize, sourceStep) || !InsideRows(destinationRect, destinationStep) ||
        !PositiveFactor(xFactor) || !PositiveFactor(yFactor) || !Moderate(xShift) || !Moderate(yShift)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ResizeLayout layout = LayoutResize(sourceRect.width, destinationRect.width, destinationRect.height);
    ResizeJob job;
    job.pSourceOrigin = PixelAt(pSource, sourceStep, sourceRect.x, sourceRect.y);
    job.sourceStep = sourceStep;
    job.sourceWidth = sourceRect.width;
    job.pDestinationOrigin = PixelAt(pDestination, destinationStep, destinationRect.x, destinationRect.y);
    job.destinationStep = destinationStep;
    job.destinationWidth = destinationRect.width;
    job.destinationHeight = destinationRect.height;
    auto* pColumns = reinterpret_cast<ColumnTap*>(pWork);
    auto* pRows = reinterpret_cast<RowTap*>(pWork + layout.rowTaps);
    job.pColumns = pColumns;
    job.pRows = pRows;
    job.pBlended = reinterpret_cast<short*>(pWork + layout.blended);
    BuildColumnTaps(pColumns, destinationRect.width, xFactor, xShift, sourceRect.width);
    BuildRowTaps(pRows, destinationRect.height, yFactor, yShift, sourceRect.height);
    // The room behind the row is read by vector loads but never used.
    RtlZeroMemory(job.pBlended + (static_cast<SIZE_T>(sourceRect.width) + 1) * kResizeChannels,
                  kBlendedRoom * sizeof(short));
    OnPath([&](PrimitivesPath path) { RunResize(job, ResizeKernelsFor(path)); });
    return STATUS_SUCCESS;
}

LONG Rotate(const UCHAR* pSource, ImageSize sourceSize, LONG sourceStep, ImageRect sourceRect, UCHAR* pDestination,
            LONG destinationStep, ImageRect destinationRect, double angle, double xShift, double yShift,
            int interpolation)
{
    if (interpolation != kInterpolationBilinear) {
        return STATUS_NOT_SUPPORTED;
    }
    if (pSource == nullptr || pDestination == nullptr || !InsideImage(sourceRect, sourceSize, sourceStep) ||
        !InsideRows(destinationRect, destinationStep) || !Moderate(angle) || !Moderate(xShift) ||
        !Moderate(yShift)) {
        return STATUS_INVALID_PARAMETER;
    }
    const Turn turn = {pSource, sourceStep, sourceRect, pDestination, destinationStep, destinationRect, xShift, yShift};
    const double quarters = angle / kDegreesPerQuarter;
    if (IsWhole(quarters) && IsWhole(xShift) && IsWhole(yShift)) {
        TurnByQuarters(turn, Floor(quarters));
    } else {
        TurnByAngle(turn, angle);
    }
    return STATUS_SUCCESS;
}

NTSTATUS RotateFrame(LONG Rotate, ULONG Width, ULONG Height, PUCHAR pDestination, const UCHAR* pSource)
{
    if (pDestination == nullptr || pSource == nullptr || Width == 0 || Height == 0 || Width > kLargestFrameSide ||
        Height > kLargestFrameSide) {
        return STATUS_INVALID_PARAMETER;
    }
    // The setting is a count of quarter turns; any value means its
    // remainder: 4 turns are none, -1 is 3.
    const LONG quarters = ((Rotate % 4) + 4) % 4;
    const LONG w = static_cast<LONG>(Width), h = static_cast<LONG>(Height);
    if (quarters == 0) {
        RtlCopyMemory(pDestination, pSource, static_cast<SIZE_T>(Width) * Height * kRgbBytes);
        return STATUS_SUCCESS;
    }
    if (quarters == 2 || w == h) {
        double xShift = 0.0, yShift = 0.0;
        QuarterTurnShifts(quarters, w, h, 0, 0, &xShift, &yShift);
        const ImageRect whole = {0, 0, w, h};
        const LONG step = w * static_cast<LONG>(kRgbBytes);
        return kv::Rotate(pSource, ImageSize{w, h}, step, whole, pDestination, step, whole,
                          kDegreesPerQuarter * quarters, xShift, yShift, kInterpolationBilinear);
    }
    return ShrinkAndTurn(quarters, w, h, pDestination, pSource);
}

void InitPrimitives()
{
    g_Path = Avx2Usable() ? PrimitivesPath::Avx2 : PrimitivesPath::Sse2;
}

void RunOnPath(void (*pWork)(PrimitivesPath path, void* pContext), void* pContext)
{
    OnPath([&](PrimitivesPath path) { pWork(path, pContext); });
}

PrimitivesPath CurrentPrimitivesPath()
{
    return g_Path;
}

bool SetPrimitivesPathForTest(PrimitivesPath path)
{
    if (path == PrimitivesPath::Avx2 && !Avx2Usable()) {
        return false;
    }
    g_Path = path;
    return true;
}

}  // namespace kv
