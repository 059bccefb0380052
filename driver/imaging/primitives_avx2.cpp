// AVX2 row kernels of the colour conversions (16 pixels per step) and of
// Resize's two passes (32 bytes and 8 pixels per step). This unit
// alone is compiled for AVX2 (driver/CMakeLists.txt, driver/windows.cmake);
// primitives.cpp calls it only on processors that have AVX2, inside a save
// of the AVX state. The arithmetic is the SSE2 kernels' (see there for why
// it equals the scalar code), on two 128-bit lanes of 8 pixels each; the
// byte shuffles work within a lane.
#include <immintrin.h>

#include "imaging/primitives_rows.h"

namespace kv::imaging {
namespace {

constexpr unsigned kBlock = 16;  // pixels per step, both directions
constexpr unsigned kYuy2BlockBytes = 32;
constexpr unsigned kRgbBlockBytes = 48;
constexpr char Z = -128;  // a shuffle index that writes 0

// ---- YUY2 to RGB ------------------------------------------------------------

// A byte shuffle, the same for both lanes.
__m256i Lanes(char a0, char a1, char a2, char a3, char a4, char a5, char a6, char a7, char a8, char a9, char a10,
              char a11, char a12, char a13, char a14, char a15)
{
    return _mm256_setr_epi8(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a0, a1, a2, a3, a4,
                            a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15);
}

// Eight pixels per lane, clamped to bytes, into B,G,R order: per lane the
// first 16 output bytes (pixels 0..4 and B of 5), then the other 8.
void StoreBgr24(unsigned char* pDst, __m256i b, __m256i g, __m256i r)
{
    const __m256i bg = _mm256_packus_epi16(b, g);  // per lane: B0..B7 G0..G7
    const __m256i rr = _mm256_packus_epi16(r, r);  // per lane: R0..R7 R0..R7
    const __m256i head = _mm256_or_si256(
        _mm256_shuffle_epi8(bg, Lanes(0, 8, Z, 1, 9, Z, 2, 10, Z, 3, 11, Z, 4, 12, Z, 5)),
        _mm256_shuffle_epi8(rr, Lanes(Z, Z, 0, Z, Z, 1, Z, Z, 2, Z, Z, 3, Z, Z, 4, Z)));
    const __m256i tail = _mm256_or_si256(
        _mm256_shuffle_epi8(bg, Lanes(13, Z, 6, 14, Z, 7, 15, Z, Z, Z, Z, Z, Z, Z, Z, Z)),
        _mm256_shuffle_epi8(rr, Lanes(Z, 5, Z, Z, 6, Z, Z, 7, Z, Z, Z, Z, Z, Z, Z, Z)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst), _mm256_castsi256_si128(head));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(pDst + 16), _mm256_castsi256_si128(tail));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + 24), _mm256_extracti128_si256(head, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(pDst + 40), _mm256_extracti128_si256(tail, 1));
}

// Byte pairs as multipliers of vpmaddubsw (unsigned, so 128 fits).
__m256i Weights(int first, int second)
{
    return _mm256_set1_epi16(static_cast<short>((second << 8) | first));
}

// Unlike the SSE2 kernel, each pixel's 16-bit lane gets its own copy of its
// group's chroma by a byte shuffle, and one multiply-add per colour.
void Yuy2ToBgr24(const unsigned char* pSrc, unsigned char* pDst)
{
    const __m256i yuy2 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pSrc));
    // y * 0x0101: the pixel's Y in both bytes of its lane.
    const __m256i spread = _mm256_shuffle_epi8(yuy2, Lanes(0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14));
    // U - 128 and V - 128 of the pixel's group, as signed bytes.
    const __m256i chroma = _mm256_xor_si256(yuy2, _mm256_set1_epi8(static_cast<char>(kChromaZero)));
    const __m256i uv = _mm256_shuffle_epi8(chroma, Lanes(1, 3, 1, 3, 5, 7, 5, 7, 9, 11, 9, 11, 13, 15, 13, 15));
    const __m256i b = _mm256_maddubs_epi16(Weights(kUToB, 0), uv);
    const __m256i g = _mm256_maddubs_epi16(Weights(kUToG, kVToG), uv);
    const __m256i r = _mm256_maddubs_epi16(Weights(0, kVToR), uv);
    const __m256i luma =
        _mm256_add_epi16(_mm256_mulhi_epu16(spread, _mm256_set1_epi16(kLumaGain)), _mm256_set1_epi16(kLumaBias));
    StoreBgr24(pDst, _mm256_srai_epi16(_mm256_adds_epi16(luma, b), kYuvFractionBits),
               _mm256_srai_epi16(_mm256_subs_epi16(luma, g), kYuvFractionBits),
               _mm256_srai_epi16(_mm256_adds_epi16(luma, r), kYuvFractionBits));
}

// ---- RGB to YUY2 ------------------------------------------------------------

__m256i Repeat8(short a, short b, short c, short d)
{
    return _mm256_setr_epi16(a, b, c, d, a, b, c, d, a, b, c, d, a, b, c, d);
}

// Sixteen output bytes (as 16-bit lanes) of four pixels per lane, each at
// bytes 0..11 of its lane: output byte j is Y, U, Y, V (j % 4) of pixel j / 2.
__m256i Yuy2Lanes(__m256i pixels)
{
    const __m256i r = _mm256_shuffle_epi8(pixels, Lanes(2, Z, 2, Z, 5, Z, 5, Z, 8, Z, 8, Z, 11, Z, 11, Z));
    const __m256i g = _mm256_shuffle_epi8(pixels, Lanes(1, Z, 1, Z, 4, Z, 4, Z, 7, Z, 7, Z, 10, Z, 10, Z));
    const __m256i b = _mm256_shuffle_epi8(pixels, Lanes(0, Z, 0, Z, 3, Z, 3, Z, 6, Z, 6, Z, 9, Z, 9, Z));
    const short y = kYOffset << kRgbFractionBits;
    const short c = static_cast<short>(kChromaZero << kRgbFractionBits);
    __m256i sum = _mm256_mullo_epi16(r, Repeat8(kYFromR, kUFromR, kYFromR, kVFromR));
    sum = _mm256_add_epi16(sum, _mm256_mullo_epi16(g, Repeat8(kYFromG, kUFromG, kYFromG, kVFromG)));
    sum = _mm256_add_epi16(sum, _mm256_mullo_epi16(b, Repeat8(kYFromB, kUFromB, kYFromB, kVFromB)));
    return _mm256_srli_epi16(_mm256_add_epi16(sum, Repeat8(y, c, y, c)), kRgbFractionBits);
}

__m128i Load12(const unsigned char* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// The last four pixels of a block end the 48 bytes: loaded from 4 bytes
// earlier and shifted down, so that no load leaves the block.
__m128i Load12AtEnd(const unsigned char* p)
{
    return _mm_srli_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p - 4)), 4);
}

void Bgr24ToYuy2(const unsigned char* pSrc, unsigned char* pDst)
{
    // Lanes hold pixels 0..3 | 8..11 and 4..7 | 12..15, so that the pack
    // below puts the outputs in pixel order.
    const __m256i first = _mm256_set_m128i(Load12(pSrc + 24), Load12(pSrc));
    const __m256i second = _mm256_set_m128i(Load12AtEnd(pSrc + 36), Load12(pSrc + 12));
    const __m256i out = _mm256_packus_epi16(Yuy2Lanes(first), Yuy2Lanes(second));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), out);
}

// ---- Resize ------------------------------------------------------------------
// The arithmetic of the SSE2 kernels (primitives_sse2.cpp), twice as wide.

constexpr unsigned kBlendBlock = 32;
constexpr unsigned kSampleBlock = 8;

__m256i Blend16(const unsigned char* pA, const unsigned char* pB, __m256i weightA, __m256i weightB)
{
    const __m256i a = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pA)));
    const __m256i b = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pB)));
    const __m256i sum = _mm256_add_epi16(_mm256_mullo_epi16(a, weightA), _mm256_mullo_epi16(b, weightB));
    return _mm256_srli_epi16(sum, kRowBlendShift);
}

// Two destination pixels, one per lane, their channels in 32-bit lanes 0..2.
__m256i SampleTaps(const short* pRow, const ColumnTap* pTap)
{
    const __m256i v = _mm256_set_m128i(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pRow + pTap[1].offset)),
                                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(pRow + pTap[0].offset)));
    const __m256i pairs = _mm256_unpacklo_epi16(v, _mm256_srli_si256(v, 2 * kResizeChannels));
    const __m256i weights = _mm256_set_m128i(_mm_set1_epi32(pTap[1].weights), _mm_set1_epi32(pTap[0].weights));
    const __m256i sum = _mm256_madd_epi16(pairs, weights);
    return _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(kColumnRound)), kColumnShift);
}

}  // namespace

unsigned BlendRowsAvx2(const unsigned char* pA, const unsigned char* pB, short* pOut, unsigned count, int fy)
{
    const __m256i weightA = _mm256_set1_epi16(static_cast<short>(kRowWeightOne - fy));
    const __m256i weightB = _mm256_set1_epi16(static_cast<short>(fy));
    const unsigned blocks = count / kBlendBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        const unsigned at = i * kBlendBlock;
        __m256i* pTo = reinterpret_cast<__m256i*>(pOut + at);
        _mm256_storeu_si256(pTo, Blend16(pA + at, pB + at, weightA, weightB));
        _mm256_storeu_si256(pTo + 1, Blend16(pA + at + 16, pB + at + 16, weightA, weightB));
    }
    return blocks * kBlendBlock;
}

unsigned SampleColumnsAvx2(const short* pRow, const ColumnTap* pTaps, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kSampleBlock;
    // After the packs, lane 0 holds pixels 0 2 4 6 and lane 1 pixels
    // 1 3 5 7 (4 bytes each): the permutation puts them in order, the
    // shuffle drops each fourth byte.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256i drop = Lanes(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, Z, Z, Z, Z);
    for (unsigned i = 0; i < blocks; ++i) {
        const ColumnTap* pTap = pTaps + i * kSampleBlock;
        const __m256i p01 = SampleTaps(pRow, pTap);
        const __m256i p23 = SampleTaps(pRow, pTap + 2);
        const __m256i p45 = SampleTaps(pRow, pTap + 4);
        const __m256i p67 = SampleTaps(pRow, pTap + 6);
        const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(p01, p23), _mm256_packs_epi32(p45, p67));
        const __m256i packed = _mm256_shuffle_epi8(_mm256_permutevar8x32_epi32(bytes, order), drop);
        unsigned char* pOut = pDst + i * kSampleBlock * kResizeChannels;
        const __m128i high = _mm256_extracti128_si256(packed, 1);
        // Bytes 12..15 of the first store are written again by the second.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut), _mm256_castsi256_si128(packed));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut + 12), high);
        _mm_storeu_si32(pOut + 20, _mm_srli_si128(high, 8));
    }
    return blocks * kSampleBlock;
}

unsigned Yuy2ToRgb24RowAvx2(const unsigned char* pSrc, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        Yuy2ToBgr24(pSrc + i * kYuy2BlockBytes, pDst + i * kRgbBlockBytes);
    }
    return blocks * kBlock;
}

unsigned Rgb24ToYuy2RowAvx2(const unsigned char* pSrc, unsigned char* pDst, unsigned width)
{
    const unsigned blocks = width / kBlock;
    for (unsigned i = 0; i < blocks; ++i) {
        Bgr24ToYuy2(pSrc + i * kRgbBlockBytes, pDst + i * kYuy2BlockBytes);
    }
    return blocks * kBlock;
}

}  // namespace kv::imaging
