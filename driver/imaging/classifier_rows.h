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
// operation (integer sums, one conversion to float, one product, one
// comparison, float additions in feature order; double precision for the
// spread), so the scalar, SSE2 and AVX2 paths give the same bits.
#pragma once

namespace kv::imaging {

constexpr int kHaarMostRects = 3;

// One weak classifier: the weighted sum of its rectangles, compared with
// threshold x the window's spread, picks one of two leaf values.
struct HaarFeatureRun {
    int nRects;
    int weight[kHaarMostRects];
    // Each rectangle's corners in the integral image, in elements from the
    // window's own corner: sum = [0] - [1] - [2] + [3].
    int corner[kHaarMostRects][4];
    float threshold;
    float below;  // the leaf when the feature value is below threshold x spread
    float above;
};

struct HaarStageRun {
    const HaarFeatureRun* pFeatures;
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

// Row kernels: each handles the row's positions in blocks of eight and
// returns how many it handled; classifier.cpp finishes the row. HaarRow
// kernels return the handled count through *pKept too (candidates left).
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

// The stage at the window whose integral corner is p: true when it stays a
// candidate. Integer sums (Sum = int) are exact; float sums (Sum = float)
// follow the same order.
template <typename Sum>
inline bool StageKeeps(const HaarStageRun& stage, const Sum* p, float norm)
{
    float total = 0.0f;
    for (int f = 0; f < stage.nFeatures; ++f) {
        const HaarFeatureRun& feature = stage.pFeatures[f];
        Sum value = 0;
        for (int r = 0; r < feature.nRects; ++r) {
            value += static_cast<Sum>(feature.weight[r]) * RectSum(p, feature.corner[r]);
        }
        const float bound = feature.threshold * norm;
        total += static_cast<float>(value) < bound ? feature.below : feature.above;
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
typedef float Lanes8f __attribute__((vector_size(32)));
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

// A feature's value on eight neighbouring windows. Every feature is taken
// as three rectangles: a feature of fewer has its unused ones zero
// (HaarClassifierInit clears them), whose sum adds nothing. A fixed count
// keeps the loop free of a branch that the mix of two- and three-rectangle
// features would mispredict.
inline Lanes8i FeatureLanes(const HaarFeatureRun& feature, const int* p)
{
    Lanes8i value = feature.weight[0] * RectSumLanes<Lanes8i>(p, feature.corner[0]);
    value += feature.weight[1] * RectSumLanes<Lanes8i>(p, feature.corner[1]);
    value += feature.weight[2] * RectSumLanes<Lanes8i>(p, feature.corner[2]);
    return value;
}

inline Lanes8f LeafLanes(const HaarFeatureRun& feature, Lanes8i value, Lanes8f norm)
{
    const Lanes8f bound = feature.threshold * norm;
    const Lanes8f below = Lanes8f{} + feature.below;
    const Lanes8f above = Lanes8f{} + feature.above;
    return __builtin_convertvector(value, Lanes8f) < bound ? below : above;
}

// The stage on two blocks of eight windows at once (-1 in each lane it
// keeps): a block's leaves are added in feature order, one long chain of
// additions; two independent chains keep the unit busy while each waits.
inline void StageKeepsTwoBlocks(const HaarStageRun& stage, const int* pA, Lanes8f normA, const int* pB,
                                Lanes8f normB, Lanes8i* pKeepA, Lanes8i* pKeepB)
{
    Lanes8f totalA = {}, totalB = {};
    for (int f = 0; f < stage.nFeatures; ++f) {
        const HaarFeatureRun& feature = stage.pFeatures[f];
        totalA += LeafLanes(feature, FeatureLanes(feature, pA), normA);
        totalB += LeafLanes(feature, FeatureLanes(feature, pB), normB);
    }
    *pKeepA = totalA >= stage.threshold;
    *pKeepB = totalB >= stage.threshold;
}

inline Lanes8i StageKeepsLanes(const HaarStageRun& stage, const int* p, Lanes8f norm)
{
    Lanes8f total = {};
    for (int f = 0; f < stage.nFeatures; ++f) {
        const HaarFeatureRun& feature = stage.pFeatures[f];
        total += LeafLanes(feature, FeatureLanes(feature, p), norm);
    }
    return total >= stage.threshold;
}

// The block's verdicts into its mask bytes; returns the candidates left.
inline unsigned ApplyBlock(unsigned char* pMask, Lanes8i keep)
{
    unsigned kept = 0;
    for (unsigned i = 0; i < kHaarBlock; ++i) {
        if (pMask[i] != 0 && keep[i] != 0) {
            ++kept;
        } else {
            pMask[i] = 0;
        }
    }
    return kept;
}

inline unsigned HaarRowLanes(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept)
{
    unsigned kept = 0;
    const unsigned blocks = row.width / kHaarBlock;
    // Blocks with no candidate are skipped; the others go two at a time,
    // however far apart. A block with a single candidate left is still
    // evaluated whole: eight lanes cost about what one window costs alone.
    unsigned waiting = blocks;
    for (unsigned b = 0; b < blocks; ++b) {
        const unsigned x = b * kHaarBlock;
        unsigned long long word = 0;
        __builtin_memcpy(&word, row.pMask + x, sizeof word);
        if (word == 0) {
            continue;
        }
        if (waiting == blocks) {
            waiting = b;
            continue;
        }
        const unsigned w = waiting * kHaarBlock;
        Lanes8i keepW, keepX;
        StageKeepsTwoBlocks(stage, row.pIntegral + w, LoadLanes<Lanes8f>(row.pNorm + w), row.pIntegral + x,
                            LoadLanes<Lanes8f>(row.pNorm + x), &keepW, &keepX);
        kept += ApplyBlock(row.pMask + w, keepW);
        kept += ApplyBlock(row.pMask + x, keepX);
        waiting = blocks;
    }
    if (waiting != blocks) {
        const unsigned w = waiting * kHaarBlock;
        kept += ApplyBlock(row.pMask + w,
                           StageKeepsLanes(stage, row.pIntegral + w, LoadLanes<Lanes8f>(row.pNorm + w)));
    }
    *pKept = kept;
    return blocks * kHaarBlock;
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
