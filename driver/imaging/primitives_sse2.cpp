// SSE2 row kernels of the colour conversions and of Resize's two passes.
// SSE2 is part of x64 itself:
// no processor check, and x64 kernel code may use the XMM registers without
// saving anything. SSE2 has no byte shuffle, so the 3-byte pixels are spread
// and gathered with shifts and unpacks.
#include <emmintrin.h>

#include "imaging/primitives_rows.h"

namespace kv::imaging {
namespace {

constexpr unsigned kBlock = 8;           // pixels per step, both directions
constexpr unsigned kYuy2BlockBytes = 16;
constexpr unsigned kRgbBlockBytes = 24;

// ---- YUY2 to RGB ------------------------------------------------------------

struct Bgr16 {
    __m128i b, g, r;  // 8 pixels, 16-bit lanes, not yet clamped
};

// Eight pixels (16 bytes of YUY2) by the formula of primitives_rows.h.
Bgr16 Yuy2ToBgr16(__m128i yuy2)
{
    const __m128i y = _mm_and_si128(yuy2, _mm_set1_epi16(0x00FF));
    const __m128i uv = _mm_sub_epi16(_mm_srli_epi16(yuy2, 8), _mm_set1_epi16(kChromaZero));  // U0 V0 U1 V1 ...
    // One value per group from its (U, V) pair; |value| <= 128 * 128 + 128 * 128, so packing to 16 bits is exact.
    const __m128i toB = _mm_madd_epi16(uv, _mm_set1_epi32(kUToB));
    const __m128i toG = _mm_madd_epi16(uv, _mm_set1_epi32((kVToG << 16) | kUToG));
    const __m128i toR = _mm_madd_epi16(uv, _mm_set1_epi32(kVToR << 16));
    const __m128i groupBG = _mm_packs_epi32(toB, toG);
    const __m128i groupR = _mm_packs_epi32(toR, toR);
    // Both pixels of a group share its value.
    const __m128i b = _mm_unpacklo_epi16(groupBG, groupBG);
    const __m128i g = _mm_unpackhi_epi16(groupBG, groupBG);
    const __m128i r = _mm_unpacklo_epi16(groupR, groupR);
    const __m128i spread = _mm_or_si128(y, _mm_slli_epi16(y, 8));
    const __m128i luma = _mm_add_epi16(_mm_mulhi_epu16(spread, _mm_set1_epi16(kLumaGain)), _mm_set1_epi16(kLumaBias));
    // Saturating: a blue sum can pass 32767, and clamps to 255 either way.
    return {_mm_srai_epi16(_mm_adds_epi16(luma, b), kYuvFractionBits),
            _mm_srai_epi16(_mm_subs_epi16(luma, g), kYuvFractionBits),
            _mm_srai_epi16(_mm_adds_epi16(luma, r), kYuvFractionBits)};
}

// Four pixels held as B,G,R,0 in 32-bit lanes: their 12 bytes, exactly.
void Store4Pixels(unsigned char* pDst, __m128i bgr0)
{
    // In each 64-bit half: the second pixel moves from bit 32 down to bit 24.
    const __m128i halves = _mm_or_si128(_mm_and_si128(bgr0, _mm_set1_epi64x(0x0000000000FFFFFF)),
                                        _mm_and_si128(_mm_srli_epi64(bgr0, 8), _mm_set1_epi64x(0x0000FFFFFF000000)));
    // The upper half's six bytes right behind the lower half's six.
    const __m128i packed =
        _mm_or_si128(_mm_move_epi64(halves), _mm_slli_si128(_mm_unpackhi_epi64(halves, _mm_setzero_si128()), 6));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(pDst), packed);
    _mm_storeu_si32(pDst + 8, _mm_srli_si128(packed, 8));
}

void StoreBgr24(unsigned char* pDst, const Bgr16& px)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i bg = _mm_unpacklo_epi8(_mm_packus_epi16(px.b, px.b), _mm_packus_epi16(px.g, px.g));
    const __m128i r0 = _mm_unpacklo_epi8(_mm_packus_epi16(px.r, px.r), zero);
    Store4Pixels(pDst, _mm_unpacklo_epi16(bg, r0));
    Store4Pixels(pDst + 12, _mm_unpackhi_epi16(bg, r0));
}

// ---- RGB to YUY2 ------------------------------------------------------------
// Output byte j of a row is Y, U, Y, V (j % 4) of pixel j / 2. Each 16-bit
// lane computes one output byte from its pixel's B, G, R. With 8-bit samples
// every sum plus its offset * 256 lies in 0..65535 (Y 4096..59941, U and V
// 4208..61328), so 16-bit lanes hold it exactly and a logical shift by 8
// gives the scalar rule's arithmetic shift plus offset.

// Four pixels from 12 bytes (v's bytes 0..11), one per 32-bit lane; the
// fourth byte of each lane is whatever followed the pixel.
__m128i Spread4Pixels(__m128i v)
{
    const __m128i p01 = _mm_unpacklo_epi32(v, _mm_srli_si128(v, 3));
    const __m128i p23 = _mm_unpacklo_epi32(_mm_srli_si128(v, 6), _mm_srli_si128(v, 9));
    return _mm_unpacklo_epi64(p01, p23);
}

// One colour (its byte `byteIndex` in each pixel) in both 16-bit halves of the
// pixel's lane: output bytes 2k and 2k+1 belong to pixel k.
template <int byteIndex>
__m128i Channel(__m128i pixels)
{
    const __m128i c = _mm_and_si128(_mm_srli_epi32(pixels, 8 * byteIndex), _mm_set1_epi32(0xFF));
    return _mm_or_si128(c, _mm_slli_epi32(c, 16));
}

// Eight output bytes (as 16-bit lanes) of four pixels.
__m128i Yuy2Lanes(__m128i pixels)
{
    const __m128i fromR = _mm_setr_epi16(kYFromR, kUFromR, kYFromR, kVFromR, kYFromR, kUFromR, kYFromR, kVFromR);
    const __m128i fromG = _mm_setr_epi16(kYFromG, kUFromG, kYFromG, kVFromG, kYFromG, kUFromG, kYFromG, kVFromG);
    const __m128i fromB = _mm_setr_epi16(kYFromB, kUFromB, kYFromB, kVFromB, kYFromB, kUFromB, kYFromB, kVFromB);
    const short y = kYOffset << kRgbFractionBits;
    const short c = static_cast<short>(kChromaZero << kRgbFractionBits);
    const __m128i offset = _mm_setr_epi16(y, c, y, c, y, c, y, c);
    __m128i sum = _mm_mullo_epi16(Channel<2>(pixels), fromR);
    sum = _mm_add_epi16(sum, _mm_mullo_epi16(Channel<1>(pixels), fromG));
    sum = _mm_add_epi16(sum, _mm_mullo_epi16(Channel<0>(pixels), fromB));
    return _mm_srli_epi16(_mm_add_epi16(sum, offset), kRgbFractionBits);
}

// ---- Resize ------------------------------------------------------------------

constexpr unsigned kBlendBlock = 16;  // bytes of each source row per step
constexpr unsigned kSampleBlock = 4;  // destination pixels per step

// One destination pixel: its three channels in 32-bit lanes 0..2 (lane 3 is
// whatever the row held behind the pair, dropped when stored).
__m128i SampleTap(const short* pRow, ColumnTap tap)
{
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pRow + tap.offset));
    // (c0, c0'), (c1, c1'), (c2, c2'): each channel beside its neighbour's.
    const __m128i pairs = _mm_unpacklo_epi16(v, _mm_srli_si128(v, 2 * kResizeChannels));
    const __m128i sum = _mm_madd_epi16(pairs, _mm_set1_epi32(tap.weights));
    return _mm_srai_epi32(_mm_add_epi32(sum, _mm_set1_epi32(kColumnRound)), kColumnShift);
}

}  // namespace

unsigned BlendRowsSse2(const unsigned char* pA, const unsigned char* pB, short* pOut, unsigned count, int fy)
{
    // The products reach 65280, past a signed lane, but wrap alike in the
    // sum, which is at most 65280 again: the logical shift gives the
    // scalar's unsigned result.
    const __m128i weightA = _mm_set1_epi16(static_cast<short>(kRowWeightOne - fy));
    const __m128i weightB = _mm_set1_epi16(static_cast<short>(fy));
    const __m128i zero = _mm_setzero_si128();
    const unsigned blocks = count / kBlendBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pA + i * kBlendBlock));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pB + i * kBlendBlock));
        const __m128i lo = _mm_add_epi16(_mm_mullo_epi16(_mm_unpacklo_epi8(a, zero), weightA),
                                         _mm_mullo_epi16(_mm_unpacklo_epi8(b, zero), weightB));
        const __m128i hi = _mm_add_epi16(_mm_mullo_epi16(_mm_unpackhi_epi8(a, zero), weightA),
                                         _mm_mullo_epi16(_mm_unpackhi_epi8(b, zero), weightB));
        __m128i* pTo = reinterpret_cast<__m128i*>(pOut + i * kBlendBlock);
        _mm_storeu_si128(pTo, _mm_srli_epi16(lo, kRowBlendShift));
        _mm_storeu_si128(pTo + 1, _mm_srli_epi16(hi, kRowBlendShift));
    }
    return blocks * kBlendBlock;
}

unsigned SampleColumnsSse2(const short* pRow, const ColumnTap* pTaps, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kSampleBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        const ColumnTap* pTap = pTaps + i * kSampleBlock;
        const __m128i first = _mm_packs_epi32(SampleTap(pRow, pTap[0]), SampleTap(pRow, pTap[1]));
        const __m128i second = _mm_packs_epi32(SampleTap(pRow, pTap[2]), SampleTap(pRow, pTap[3]));
        Store4Pixels(pDst + i * kSampleBlock * kResizeChannels, _mm_packus_epi16(first, second));
    }
    return blocks * kSampleBlock;
}

unsigned Yuy2ToRgb24RowSse2(const unsigned char* pSrc, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        const __m128i yuy2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc + i * kYuy2BlockBytes));
        StoreBgr24(pDst + i * kRgbBlockBytes, Yuy2ToBgr16(yuy2));
    }
    return blocks * kBlock;
}

unsigned Rgb24ToYuy2RowSse2(const unsigned char* pSrc, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        const unsigned char* pBlock = pSrc + i * kRgbBlockBytes;
        // Pixels 0..3 are bytes 0..11, pixels 4..7 bytes 12..23: both loads stay inside the block.
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBlock));
        const __m128i second = _mm_srli_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pBlock + 8)), 4);
        const __m128i out = _mm_packus_epi16(Yuy2Lanes(Spread4Pixels(first)), Yuy2Lanes(Spread4Pixels(second)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + i * kYuy2BlockBytes), out);
    }
    return blocks * kBlock;
}

}  // namespace kv::imaging
