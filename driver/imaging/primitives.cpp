// The imaging primitives (primitives.h): the scalar conversions, which
// define the bytes every path must give, the choice of path, the AVX state
// save around the AVX2 kernels, and the row turns and copies.
#include "imaging/primitives.h"

#include <cpuid.h>
#include <emmintrin.h>

#include "imaging/primitives_rows.h"

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
// fail (it may need memory), and then SSE2 does the work.
// https://learn.microsoft.com/windows-hardware/drivers/kernel/using-floating-point-in-a-wdm-driver
void Convert(const Conversion& conversion, const Picture& picture)
{
    switch (g_Path) {
    case PrimitivesPath::Avx2: {
        XSTATE_SAVE state;
        if (NT_SUCCESS(KeSaveExtendedProcessorState(XSTATE_MASK_AVX, &state))) {
            ConvertRows(conversion, conversion.pAvx2, picture);
            KeRestoreExtendedProcessorState(&state);
            return;
        }
        ConvertRows(conversion, conversion.pSse2, picture);
        return;
    }
    case PrimitivesPath::Sse2:
        ConvertRows(conversion, conversion.pSse2, picture);
        return;
    case PrimitivesPath::Scalar:
        ConvertRows(conversion, nullptr, picture);
        return;
    }
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

// The row's groups in reverse order, each as (Y1, U, Y0, V): output pixel p
// shows source pixel w-1-p, and a group's U and V still describe the two
// pixels they were measured on, now in the mirrored place, so colours stay
// on their pixels.
// Read byte by byte, "luma from the mirrored position, chroma from the byte
// before it, the last pixel from the row's first and fourth bytes" gives the
// same lumas, U bytes and last group; for the other V bytes, read literally,
// it would take the V of the group to the left, moving the red difference
// two pixels off the blue difference: a colour fringe at every vertical edge.
void MirrorRowYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w)
{
    const ULONG groups = w / 2;
    const UCHAR* pFrom = pSrc + static_cast<SIZE_T>(groups) * kGroupBytes;
    UCHAR* pTo = pDst;
    for (ULONG g = 0; g < groups; ++g, pTo += kGroupBytes) {
        pFrom -= kGroupBytes;
        pTo[0] = pFrom[2];
        pTo[1] = pFrom[1];
        pTo[2] = pFrom[0];
        pTo[3] = pFrom[3];
    }
    if (w % 2 != 0) {  // odd w: no group to mirror the lone pixel with
        pTo[0] = pSrc[static_cast<SIZE_T>(groups) * kGroupBytes];
        pTo[1] = pSrc[static_cast<SIZE_T>(groups) * kGroupBytes + 1];
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
    CopyRows(pSrc, pDst, w, h, kYuy2Bytes, flip, mirror ? MirrorRowYuy2 : nullptr);
}

void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror)
{
    CopyRows(pSrc, pDst, w, h, kRgbBytes, flip, mirror ? MirrorRowRgb : nullptr);
}

void InitPrimitives()
{
    g_Path = Avx2Usable() ? PrimitivesPath::Avx2 : PrimitivesPath::Sse2;
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
