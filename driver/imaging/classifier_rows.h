// Inside the classifier primitives: one stage of a rectangle-feature cascade
// (Viola and Jones, "Rapid object detection using a boosted cascade of
// simple features", 2001) as classifier.cpp prepares it for a run, and the
// row kernels that evaluate it and the windows' spread of grey levels.
//
// Like primitives_rows.h, this header includes nothing and speaks plain C++
// types. Its functions live in an unnamed namespace on purpose: each unit
// that includes it (classifier.cpp, classifier_sse2.cpp, classifier_avx2.cpp)
// gets its own copy, compiled for that unit's instruction set, and the
// linker can never hand the AVX2 copy to a caller on a processor without it.
//
// The arithmetic is the same in every copy and in every lane, operation by
// operation (integer sums wrapping modulo 2^32, one conversion to float, one
// product, one comparison, float additions in the stage's stored feature
// order; double precision for the spread), so the scalar, SSE2 and AVX2
// paths give the same bits.
#pragma once

namespace kv::imaging {

constexpr int kHaarMostRects = 3;
constexpr int kHaarMostCorners = 4 * kHaarMostRects;

// One weak classifier: the weighted sum of its rectangles' pixel sums,
// compared with threshold x the window's spread, picks one of two leaf
// values. The sum is read as the integral image at the rectangles' corners,
// each corner once with the weights of the rectangles that share it added
// up and corners whose weights cancel dropped (classifier.cpp merges them):
// the published cascades' two-rectangle features read 6 or 8 values
// instead of 8, their three-rectangle ones 8 or 9 instead of 12.
struct HaarFeatureRun {
    int nCorners;
    // Each corner in elements from the window's own corner, and its weight.
    // Weights are unsigned: the products and their sum wrap modulo 2^32,
    // and the feature's true value, which always fits an int, comes out
    // exact whatever the integral values at the corners are.
    int corner[kHaarMostCorners];
    unsigned coefficient[kHaarMostCorners];
    float threshold;
    float below;  // the leaf when the feature value is below threshold x spread
    float above;
};

struct HaarStageRun {
    const HaarFeatureRun* pFeatures;  // in the stage's stored order (classifier.cpp)
    int nFeatures;
    float threshold;  // the stage keeps a window whose leaves sum to at least this
};

// One row of window positions: the integral image at the first window's
// corner, the windows' spreads and their mask bytes (nonzero: still a
// candidate).
struct HaarRow {
    const int* pIntegral;
    const float* pNorm;
    unsigned char* pMask;
    unsigned width;
};

// The spread of one row of windows: the standard deviation of the grey
// levels inside the window rectangle, from the integral and the squared
// integral (whose sums wrap modulo 2^32; a window's true sum fits).
struct SpreadRow {
    const int* pSum;          // at the first window's corner
    const unsigned* pSquares;
    float* pOut;
    unsigned width;
    int sumCorner[4];         // the rectangle's corners, as in HaarFeatureRun
    int squaresCorner[4];
    double area;
};

// Row kernels: each returns how many of the row's positions it handled;
// classifier.cpp finishes the row. A HaarRow kernel handles a row of eight
// or more positions whole and returns the candidates left through *pKept;
// a SpreadRow kernel handles blocks of four.
unsigned HaarRowSse2(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept);
unsigned HaarRowAvx2(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept);
unsigned SpreadRowSse2(const SpreadRow& row);
unsigned SpreadRowAvx2(const SpreadRow& row);

namespace {

// ---- one window, the definition every path follows ---------------------------

template <typename Sum>
inline Sum RectSum(const Sum* p, const int* corner)
{
    return p[corner[0]] - p[corner[1]] - p[corner[2]] + p[corner[3]];
}

template <typename Sum>
inline unsigned CornerValue(const Sum* p)
{
    return static_cast<unsigned>(*p);
}

// A float integral holds whole numbers, exact below 2^24; a value outside
// an int's range (or not a number) reads as 0 rather than as undefined.
inline unsigned CornerValue(const float* p)
{
    const float v = *p;
    return v > -2147483648.0f && v < 2147483648.0f ? static_cast<unsigned>(static_cast<int>(v)) : 0u;
}

template <typename Sum>
inline int FeatureValue(const HaarFeatureRun& feature, const Sum* p)
{
    unsigned value = 0;
    for (int k = 0; k < feature.nCorners; ++k) {
        value += feature.coefficient[k] * CornerValue(p + feature.corner[k]);
    }
    return static_cast<int>(value);
}

// The stage at the window whose integral corner is p: true when it stays a
// candidate.
template <typename Sum>
inline bool StageKeeps(const HaarStageRun& stage, const Sum* p, float norm)
{
    float total = 0.0f;
    for (int f = 0; f < stage.nFeatures; ++f) {
        const HaarFeatureRun& feature = stage.pFeatures[f];
        const float bound = feature.threshold * norm;
        total += static_cast<float>(FeatureValue(feature, p)) < bound ? feature.below : feature.above;
    }
    return total >= stage.threshold;
}

// ---- blocks of eight windows, for the vector units ------------------------------
// GCC's vector extensions: one source for both vector units, each compiled
// for its own instruction set (the SSE2 unit runs a 32-byte vector as two
// 16-byte halves). These functions are inlined within their unit, so how a
// 32-byte vector would be returned between units never matters.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"

typedef int Lanes8i __attribute__((vector_size(32)));
typedef unsigned Lanes8u __attribute__((vector_size(32)));
typedef float Lanes8f __attribute__((vector_size(32)));
typedef signed char Lanes8c __attribute__((vector_size(8)));
typedef int Lanes4i __attribute__((vector_size(16)));
typedef unsigned Lanes4u __attribute__((vector_size(16)));
typedef float Lanes4f __attribute__((vector_size(16)));
typedef double Lanes4d __attribute__((vector_size(32)));

constexpr unsigned kHaarBlock = 8;
constexpr unsigned kSpreadBlock = 4;

template <typename V>
inline V LoadLanes(const void* p)
{
    V v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}

template <typename V, typename T>
inline V RectSumLanes(const T* p, const int* corner)
{
    return LoadLanes<V>(p + corner[0]) - LoadLanes<V>(p + corner[1]) - LoadLanes<V>(p + corner[2]) +
           LoadLanes<V>(p + corner[3]);
}

// Eight neighbouring windows of a row from `x`; only lanes from `first` on
// are this block's: a row's last block is moved back to end at the row's
// end, so that every window is evaluated in a whole vector, and the lanes
// it then covers again belong to the blocks before it (or to no block, when
// they held no candidate).
struct HaarBlock {
    unsigned x;
    unsigned first;
};

// The stage on B blocks at once (-1 in each lane it keeps). Each feature's
// corners and weights are read once for all B blocks, and the B chains of
// leaf additions are independent, which keeps the unit busy while each
// waits. A block with a single candidate left is still evaluated whole:
// eight lanes cost about what one window costs alone. The loops over the
// blocks are unrolled (up to the largest group, four) so that each block's
// vectors stay in registers rather than in arrays on the stack.
template <unsigned B>
inline void StageKeepsBlocks(const HaarStageRun& stage, const HaarRow& row, const HaarBlock* pBlocks, Lanes8i* pKeep)
{
    const int* p[B];
    Lanes8f norm[B], total[B];
#pragma GCC unroll 4
    for (unsigned b = 0; b < B; ++b) {
        p[b] = row.pIntegral + pBlocks[b].x;
        norm[b] = LoadLanes<Lanes8f>(row.pNorm + pBlocks[b].x);
        total[b] = Lanes8f{};
    }
    for (int f = 0; f < stage.nFeatures; ++f) {
        const HaarFeatureRun& feature = stage.pFeatures[f];
        Lanes8u value[B] = {};
        for (int k = 0; k < feature.nCorners; ++k) {
            const unsigned weight = feature.coefficient[k];
            const int corner = feature.corner[k];
#pragma GCC unroll 4
            for (unsigned b = 0; b < B; ++b) {
                value[b] += weight * LoadLanes<Lanes8u>(p[b] + corner);
            }
        }
        const Lanes8f below = Lanes8f{} + feature.below;
        const Lanes8f above = Lanes8f{} + feature.above;
#pragma GCC unroll 4
        for (unsigned b = 0; b < B; ++b) {
            const Lanes8f bound = feature.threshold * norm[b];
            const Lanes8f v = __builtin_convertvector(reinterpret_cast<const Lanes8i&>(value[b]), Lanes8f);
            total[b] += v < bound ? below : above;
        }
    }
#pragma GCC unroll 4
    for (unsigned b = 0; b < B; ++b) {
        pKeep[b] = total[b] >= stage.threshold;
    }
}

// The high bit of every nonzero byte of w.
inline unsigned long long NonzeroBytes(unsigned long long w)
{
    constexpr unsigned long long kLow7 = 0x7F7F7F7F7F7F7F7Full;
    return (((w & kLow7) + kLow7) | w) & ~kLow7;
}

// The block's verdicts into its mask bytes from lane `first` on (the
// others are left as they are); returns the candidates left there.
inline unsigned ApplyBlock(unsigned char* pMask, unsigned first, Lanes8i keep)
{
    const Lanes8c keepBytes = __builtin_convertvector(keep, Lanes8c);
    unsigned long long keepWord = 0, word = 0;
    __builtin_memcpy(&keepWord, &keepBytes, sizeof keepWord);
    __builtin_memcpy(&word, pMask, sizeof word);
    const unsigned long long lanes = ~0ull << (8 * first);
    word &= keepWord | ~lanes;
    __builtin_memcpy(pMask, &word, sizeof word);
    // One bit per candidate at the top of its byte, counted by adding the
    // bytes together in the top byte.
    return static_cast<unsigned>(((NonzeroBytes(word & lanes) >> 7) * 0x0101010101010101ull) >> 56);
}

template <unsigned B>
inline unsigned RunBlocks(const HaarStageRun& stage, const HaarRow& row, const HaarBlock* pBlocks)
{
    Lanes8i keep[B];
    StageKeepsBlocks<B>(stage, row, pBlocks, keep);
    unsigned kept = 0;
    for (unsigned b = 0; b < B; ++b) {
        kept += ApplyBlock(row.pMask + pBlocks[b].x, pBlocks[b].first, keep[b]);
    }
    return kept;
}

// A row of at least eight positions, whole (returns its width); a shorter
// one is left to the caller (returns 0). Each block starts at the next
// candidate rather than on a multiple of eight: candidates come in runs
// (around a face, along an edge), and a run then fills fewer blocks. The
// blocks go Group at a time, however far apart.
template <unsigned Group>
inline unsigned HaarRowLanes(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept)
{
    *pKept = 0;
    if (row.width < kHaarBlock) {
        return 0;
    }
    const unsigned last = row.width - kHaarBlock;
    HaarBlock waiting[Group];
    unsigned nWaiting = 0, kept = 0;
    for (unsigned x = 0; x < row.width;) {
        const unsigned at = x <= last ? x : last;
        unsigned long long word = 0;
        __builtin_memcpy(&word, row.pMask + at, sizeof word);
        word &= ~0ull << (8 * (x - at));  // lanes before x are done
        if (word == 0) {
            x = at + kHaarBlock;
            continue;
        }
        const unsigned start = at + static_cast<unsigned>(__builtin_ctzll(word)) / 8;
        waiting[nWaiting++] = start <= last ? HaarBlock{start, 0} : HaarBlock{last, start - last};
        x = start + kHaarBlock;
        if (nWaiting == Group) {
            kept += RunBlocks<Group>(stage, row, waiting);
            nWaiting = 0;
        }
    }
    // Fewer than Group left: a pair, then a single one.
    unsigned done = 0;
    if (Group > 2 && nWaiting >= 2) {
        kept += RunBlocks<2>(stage, row, waiting);
        done = 2;
    }
    if (nWaiting > done) {
        kept += RunBlocks<1>(stage, row, waiting + done);
    }
    *pKept = kept;
    return row.width;
}

// Sqrt: the unit's square root of four doubles (correctly rounded, like
// the scalar square root).
template <typename Sqrt>
inline unsigned SpreadRowLanes(const SpreadRow& row, Sqrt sqrt4)
{
    const unsigned blocks = row.width / kSpreadBlock;
    for (unsigned b = 0; b < blocks; ++b) {
        const unsigned x = b * kSpreadBlock;
        const Lanes4d s = __builtin_convertvector(RectSumLanes<Lanes4i>(row.pSum + x, row.sumCorner), Lanes4d);
        const Lanes4d q =
            __builtin_convertvector(RectSumLanes<Lanes4u>(row.pSquares + x, row.squaresCorner), Lanes4d);
        const Lanes4d variance = row.area * q - s * s;
        const Lanes4d spread = variance > 0.0 ? sqrt4(variance) / row.area : Lanes4d{} + 1.0;
        const Lanes4f out = __builtin_convertvector(spread, Lanes4f);
        __builtin_memcpy(row.pOut + x, &out, sizeof out);
    }
    return blocks * kSpreadBlock;
}

#pragma GCC diagnostic pop

}  // namespace
}  // namespace kv::imaging
