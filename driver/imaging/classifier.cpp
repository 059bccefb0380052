// The classifier primitives (classifier.h): integral images, the windows'
// spread, and the stages of a rectangle-feature cascade, with the choice of
// row kernels by the imaging primitives' path. The per-window arithmetic is
// defined once, in classifier_rows.h.
#include "imaging/classifier.h"

#include <emmintrin.h>

#include "imaging/classifier_rows.h"

using namespace kv;
using namespace kv::imaging;

static_assert(sizeof(LONG) == sizeof(int) && sizeof(ULONG) == sizeof(unsigned), "the row kernels see LONG as int");

namespace {

// A corner of a feature's rectangles, relative to the window's corner.
struct CornerPoint {
    LONG x;
    LONG y;
};

}  // namespace

struct kv::HaarClassifier {
    LONG nFeatures;
    ImageSize window;
    LONG cornersStep;  // the integral step (elements) the corners were made for; 0: none yet
    HaarColumns cornersColumns;  // and the columns' layout
    HaarFeatureRun* pRun;    // in the stored order: by the number of corners (below)
    CornerPoint* pCorners;   // kHaarMostCorners a feature, in pRun's order
};

namespace {

constexpr ULONG kMaxPixelValue = 255;
// A stage's rectangles lie within this many pixels of the window's corner,
// and its weights within +-kLargestWeight: a feature's value then fits a
// LONG at any window position.
constexpr LONG kLargestWindowSide = 256;
constexpr float kLargestWeight = 16.0f;
constexpr ULONGLONG kLargestSquaresWindow = 0xFFFFFFFFull / (kMaxPixelValue * kMaxPixelValue);

template <typename T>
T* Row(T* pImage, LONG step, LONG y)
{
    return reinterpret_cast<T*>(reinterpret_cast<UCHAR*>(pImage) + static_cast<LONG_PTR>(y) * step);
}

template <typename T>
const T* Row(const T* pImage, LONG step, LONG y)
{
    return reinterpret_cast<const T*>(reinterpret_cast<const UCHAR*>(pImage) + static_cast<LONG_PTR>(y) * step);
}

bool Positive(ImageSize size)
{
    return size.width > 0 && size.height > 0;
}

bool RowFits(LONG step, LONGLONG elements, SIZE_T elementBytes)
{
    return step > 0 && elements * static_cast<LONGLONG>(elementBytes) <= step;
}

// A window's corners are offsets in elements (int): the farthest, `rows`
// rows of `step` bytes down and `columns` across, must fit one.
bool CornersFit(LONG rows, LONG step, SIZE_T elementBytes, LONGLONG columns)
{
    return static_cast<LONGLONG>(rows) * (step / static_cast<LONGLONG>(elementBytes)) + columns <= 0x7FFFFFFFLL;
}

// The four corners of a rectangle in an image of `step` elements a row.
void MakeCorners(const ImageRect& rect, LONG step, int* corner)
{
    const LONG top = rect.y * step, bottom = (rect.y + rect.height) * step;
    corner[0] = top + rect.x;
    corner[1] = top + rect.x + rect.width;
    corner[2] = bottom + rect.x;
    corner[3] = bottom + rect.x + rect.width;
}

double SquareRoot(double value)
{
    return _mm_cvtsd_f64(_mm_sqrt_sd(_mm_setzero_pd(), _mm_set_sd(value)));
}

// ---- integral images ---------------------------------------------------------

template <typename Squares>
LONG SqrIntegralRows(const UCHAR* pSource, LONG sourceStep, LONG* pSum, LONG sumStep, Squares* pSquares,
                     LONG squaresStep, ImageSize size)
{
    if (pSource == nullptr || pSum == nullptr || pSquares == nullptr || !Positive(size) ||
        !RowFits(sourceStep, size.width, 1) || !RowFits(sumStep, size.width + 1LL, sizeof(LONG)) ||
        !RowFits(squaresStep, size.width + 1LL, sizeof(Squares)) ||
        static_cast<ULONGLONG>(size.width) * static_cast<ULONGLONG>(size.height) * kMaxPixelValue > 0x7FFFFFFFull) {
        return STATUS_INVALID_PARAMETER;
    }
    RtlZeroMemory(pSum, (static_cast<SIZE_T>(size.width) + 1) * sizeof(LONG));
    RtlZeroMemory(pSquares, (static_cast<SIZE_T>(size.width) + 1) * sizeof(Squares));
    for (LONG y = 0; y < size.height; ++y) {
        const UCHAR* pPixels = Row(pSource, sourceStep, y);
        const LONG* pSumAbove = Row(pSum, sumStep, y);
        LONG* pSumRow = Row(pSum, sumStep, y + 1);
        const Squares* pSquaresAbove = Row(pSquares, squaresStep, y);
        Squares* pSquaresRow = Row(pSquares, squaresStep, y + 1);
        pSumRow[0] = 0;
        pSquaresRow[0] = 0;
        LONG rowSum = 0;
        Squares rowSquares = 0;
        for (LONG x = 0; x < size.width; ++x) {
            const LONG v = pPixels[x];
            rowSum += v;
            rowSquares += static_cast<Squares>(v * v);
            pSumRow[x + 1] = pSumAbove[x + 1] + rowSum;
            pSquaresRow[x + 1] = pSquaresAbove[x + 1] + rowSquares;  // ULONG: modulo 2^32 on purpose
        }
    }
    return STATUS_SUCCESS;
}

// ---- spread ----------------------------------------------------------------------

using SpreadKernel = unsigned (*)(const SpreadRow&);

SpreadKernel SpreadKernelFor(PrimitivesPath path)
{
    switch (path) {
    case PrimitivesPath::Avx2: return SpreadRowAvx2;
    case PrimitivesPath::Sse2: return SpreadRowSse2;
    case PrimitivesPath::Scalar: break;
    }
    return nullptr;
}

template <typename Squares>
double SquaresSum(const Squares* p, const int* corner)
{
    return static_cast<double>(RectSum(p, corner));  // ULONG: the wrapped sum is the true one
}

template <typename Squares>
struct SpreadJob {
    const LONG* pSum;
    LONG sumStep;
    const Squares* pSquares;
    LONG squaresStep;
    float* pDestination;
    LONG destinationStep;
    ImageSize size;
    ImageRect window;
};

template <typename Squares>
void SpreadRows(const SpreadJob<Squares>& job, SpreadKernel pKernel)
{
    SpreadRow row = {};
    MakeCorners(job.window, job.sumStep / static_cast<LONG>(sizeof(LONG)), row.sumCorner);
    MakeCorners(job.window, job.squaresStep / static_cast<LONG>(sizeof(Squares)), row.squaresCorner);
    row.area = static_cast<double>(job.window.width) * job.window.height;
    row.width = static_cast<unsigned>(job.size.width);
    for (LONG y = 0; y < job.size.height; ++y) {
        row.pSum = reinterpret_cast<const int*>(Row(job.pSum, job.sumStep, y));
        const Squares* pSquaresRow = Row(job.pSquares, job.squaresStep, y);
        row.pSquares = reinterpret_cast<const unsigned*>(pSquaresRow);
        row.pOut = Row(job.pDestination, job.destinationStep, y);
        const unsigned done = pKernel != nullptr ? pKernel(row) : 0;
        for (unsigned x = done; x < row.width; ++x) {
            const double s = static_cast<double>(RectSum(row.pSum + x, row.sumCorner));
            const double q = SquaresSum(pSquaresRow + x, row.squaresCorner);
            const double variance = row.area * q - s * s;
            row.pOut[x] = static_cast<float>(variance > 0.0 ? SquareRoot(variance) / row.area : 1.0);
        }
    }
}

template <typename Squares>
LONG RectStdDevRows(const SpreadJob<Squares>& job, bool wrapped)
{
    const ImageRect& w = job.window;
    if (job.pSum == nullptr || job.pSquares == nullptr || job.pDestination == nullptr || !Positive(job.size) ||
        w.x < 0 || w.y < 0 || w.width <= 0 || w.height <= 0 || w.x + w.width > kLargestWindowSide ||
        w.y + w.height > kLargestWindowSide || !RowFits(job.sumStep, job.size.width + w.x + w.width + 0LL, sizeof(LONG)) ||
        !RowFits(job.squaresStep, job.size.width + w.x + w.width + 0LL, sizeof(Squares)) ||
        !RowFits(job.destinationStep, job.size.width, sizeof(float)) || job.sumStep % sizeof(LONG) != 0 ||
        job.squaresStep % sizeof(Squares) != 0 || !CornersFit(w.y + w.height, job.sumStep, sizeof(LONG), w.x + w.width) ||
        !CornersFit(w.y + w.height, job.squaresStep, sizeof(Squares), w.x + w.width)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!wrapped) {
        SpreadRows(job, nullptr);  // 64-bit squares: no vector kernel
        return STATUS_SUCCESS;
    }
    if (static_cast<ULONGLONG>(w.width) * static_cast<ULONGLONG>(w.height) > kLargestSquaresWindow) {
        return STATUS_NOT_SUPPORTED;
    }
    RunOnPath([](PrimitivesPath path, void* pContext) {
        SpreadRows(*static_cast<const SpreadJob<Squares>*>(pContext), SpreadKernelFor(path));
    }, const_cast<SpreadJob<Squares>*>(&job));
    return STATUS_SUCCESS;
}

// ---- stages ------------------------------------------------------------------------

using HaarKernel = unsigned (*)(const HaarStageRun&, const HaarRow&, unsigned*);

HaarKernel HaarKernelFor(PrimitivesPath path)
{
    switch (path) {
    case PrimitivesPath::Avx2: return HaarRowAvx2;
    case PrimitivesPath::Sse2: return HaarRowSse2;
    case PrimitivesPath::Scalar: break;
    }
    return nullptr;
}

bool WholeWeight(float weight)
{
    return weight >= -kLargestWeight && weight <= kLargestWeight &&
           static_cast<float>(static_cast<LONG>(weight)) == weight;
}

bool RectInWindow(const ImageRect& r)
{
    return r.x >= 0 && r.y >= 0 && r.width > 0 && r.height > 0 && r.x + r.width <= kLargestWindowSide &&
           r.y + r.height <= kLargestWindowSide;
}

// Where column dx of a window lies from the window's own column in a row
// folded by `columns` (FoldColumns): its plane, columns with the same
// remainder, starts after the planes of the smaller remainders.
LONG FoldedColumn(LONG dx, HaarColumns columns)
{
    const LONG plane = dx % columns.step;
    LONG start = 0;
    for (LONG q = 0; q < plane; ++q) {
        start += (columns.columns - q + columns.step - 1) / columns.step;
    }
    return start + dx / columns.step;
}

void PrepareCorners(HaarClassifier* pClassifier, LONG step, HaarColumns columns)
{
    if (pClassifier->cornersStep == step && pClassifier->cornersColumns.step == columns.step &&
        pClassifier->cornersColumns.columns == columns.columns) {
        return;
    }
    for (LONG f = 0; f < pClassifier->nFeatures; ++f) {
        HaarFeatureRun& run = pClassifier->pRun[f];
        const CornerPoint* pPoints = pClassifier->pCorners + f * kHaarMostCorners;
        for (int k = 0; k < run.nCorners; ++k) {
            run.corner[k] = pPoints[k].y * step + FoldedColumn(pPoints[k].x, columns);
        }
    }
    pClassifier->cornersStep = step;
    pClassifier->cornersColumns = columns;
}

// A feature's rectangles as corners of the integral image, each with the
// sum of the weights it carries (a rectangle's sum is its top-left and
// bottom-right corners less the other two); corners whose weights cancel
// are dropped. Returns the number of corners.
int MergeCorners(const ImageRect* pRects, const float* pWeights, LONG nRects, CornerPoint* pPoints, int* pWeightsOut)
{
    int n = 0;
    for (LONG r = 0; r < nRects; ++r) {
        const ImageRect& box = pRects[r];
        const int weight = static_cast<int>(pWeights[r]);
        const CornerPoint points[4] = {{box.x, box.y}, {box.x + box.width, box.y}, {box.x, box.y + box.height},
                                       {box.x + box.width, box.y + box.height}};
        const int signs[4] = {1, -1, -1, 1};
        for (int c = 0; c < 4; ++c) {
            int k = 0;
            while (k < n && (pPoints[k].x != points[c].x || pPoints[k].y != points[c].y)) {
                ++k;
            }
            if (k == n) {
                pPoints[n] = points[c];
                pWeightsOut[n++] = 0;
            }
            pWeightsOut[k] += signs[c] * weight;
        }
    }
    int kept = 0;
    for (int k = 0; k < n; ++k) {
        if (pWeightsOut[k] != 0) {
            pPoints[kept] = pPoints[k];
            pWeightsOut[kept++] = pWeightsOut[k];
        }
    }
    return kept;
}

// The features in the stored order: those of fewer corners first, each
// count in the stage's own order. A vector unit then meets long runs of
// the same count, whose loops it predicts, and all paths add the leaves in
// this one order, so they agree to the bit.
void StoreFeatures(HaarClassifier* pClassifier, const ImageRect* pRects, const float* pWeights,
                   const float* pThresholds, const float* pLeaves, const LONG* pRectCounts)
{
    LONG stored = 0;
    for (int count = 0; count <= kHaarMostCorners; ++count) {
        LONG rect = 0;
        for (LONG f = 0; f < pClassifier->nFeatures; rect += pRectCounts[f], ++f) {
            CornerPoint points[kHaarMostCorners];
            int weights[kHaarMostCorners];
            const int n = MergeCorners(pRects + rect, pWeights + rect, pRectCounts[f], points, weights);
            if (n != count) {
                continue;
            }
            HaarFeatureRun& run = pClassifier->pRun[stored];
            run.nCorners = n;
            for (int k = 0; k < n; ++k) {
                pClassifier->pCorners[stored * kHaarMostCorners + k] = points[k];
                run.coefficient[k] = static_cast<unsigned>(weights[k]);
            }
            run.threshold = pThresholds[f];
            run.below = pLeaves[2 * f];
            run.above = pLeaves[2 * f + 1];
            ++stored;
        }
    }
}

LONG CountMarked(const UCHAR* pMask, LONG maskStep, ImageSize size)
{
    LONG kept = 0;
    for (LONG y = 0; y < size.height; ++y) {
        const UCHAR* pRow = Row(pMask, maskStep, y);
        for (LONG x = 0; x < size.width; ++x) {
            kept += pRow[x] != 0;
        }
    }
    return kept;
}

template <typename Sum>
struct StageJob {
    const Sum* pSum;
    LONG sumStep;
    const float* pNorm;
    LONG normStep;
    UCHAR* pMask;
    LONG maskStep;
    ImageSize size;
    HaarStageRun stage;
    LONG kept;
};

template <typename Sum>
void StageRows(StageJob<Sum>& job, HaarKernel pKernel)
{
    LONG kept = 0;
    for (LONG y = 0; y < job.size.height; ++y) {
        const Sum* pSumRow = Row(job.pSum, job.sumStep, y);
        const float* pNormRow = Row(job.pNorm, job.normStep, y);
        UCHAR* pMaskRow = Row(job.pMask, job.maskStep, y);
        unsigned done = 0;
        if (pKernel != nullptr) {
            unsigned rowKept = 0;
            const HaarRow row = {reinterpret_cast<const int*>(pSumRow), pNormRow, pMaskRow,
                                 static_cast<unsigned>(job.size.width)};
            done = pKernel(job.stage, row, &rowKept);
            kept += static_cast<LONG>(rowKept);
        }
        for (LONG x = static_cast<LONG>(done); x < job.size.width; ++x) {
            if (pMaskRow[x] == 0) {
                continue;
            }
            if (StageKeeps(job.stage, pSumRow + x, pNormRow[x])) {
                ++kept;
            } else {
                pMaskRow[x] = 0;
            }
        }
    }
    job.kept = kept;
}

template <typename Sum>
LONG ApplyStage(const Sum* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask, LONG maskStep,
                ImageSize size, LONG* pKept, float threshold, HaarClassifier* pClassifier, bool vectors)
{
    if (pSum == nullptr || pNorm == nullptr || pMask == nullptr || pKept == nullptr || pClassifier == nullptr ||
        !Positive(size) || sumStep % static_cast<LONG>(sizeof(Sum)) != 0 ||
        !RowFits(sumStep, static_cast<LONGLONG>(size.width) + pClassifier->window.width, sizeof(Sum)) ||
        !CornersFit(pClassifier->window.height, sumStep, sizeof(Sum), pClassifier->window.width) ||
        !RowFits(normStep, size.width, sizeof(float)) || !RowFits(maskStep, size.width, 1)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (threshold <= kHaarAcceptAll) {
        *pKept = CountMarked(pMask, maskStep, size);
        return STATUS_SUCCESS;
    }
    PrepareCorners(pClassifier, sumStep / static_cast<LONG>(sizeof(Sum)), kHaarEveryColumn);
    StageJob<Sum> job = {pSum, sumStep, pNorm, normStep, pMask, maskStep, size,
                         {pClassifier->pRun, static_cast<int>(pClassifier->nFeatures), threshold}, 0};
    if (vectors) {
        RunOnPath([](PrimitivesPath path, void* pContext) {
            StageRows(*static_cast<StageJob<Sum>*>(pContext), HaarKernelFor(path));
        }, &job);
    } else {
        StageRows(job, nullptr);
    }
    *pKept = job.kept;
    return STATUS_SUCCESS;
}

// ---- a cascade of stages ------------------------------------------------------

struct CascadeJob {
    const LONG* pSum;
    LONG sumStep;
    const float* pNorm;
    LONG normStep;
    UCHAR* pMask;
    LONG maskStep;
    ImageSize size;
    const float* pThresholds;
    HaarClassifier* const* ppStages;
    LONG nStages;
    LONG kept;
};

// Positions a strip of the picture holds. Each row of a strip reads every
// stage's features again, so wider strips read them less often; 512 holds
// a whole row of every level of a 640-pixel frame (measured: narrower
// strips were slower), and the 21 integral rows of a strip's windows (a
// 20-pixel window: 45 KB, twice that folded) stay in the second-level cache.
constexpr LONG kCascadeStrip = 512;

// Every stage on one row of a strip's positions before the next row: the
// windows of a row and of the rows below it read mostly the same integral
// rows, which then stay in the cache through the whole cascade.
void CascadeRows(CascadeJob& job, HaarKernel pKernel)
{
    LONG kept = 0;
    for (LONG left = 0; left < job.size.width; left += kCascadeStrip) {
        const LONG width = job.size.width - left < kCascadeStrip ? job.size.width - left : kCascadeStrip;
        for (LONG y = 0; y < job.size.height; ++y) {
            const int* pSumRow = reinterpret_cast<const int*>(Row(job.pSum, job.sumStep, y)) + left;
            const float* pNormRow = Row(job.pNorm, job.normStep, y) + left;
            UCHAR* pMaskRow = Row(job.pMask, job.maskStep, y) + left;
            LONG rowKept = CountMarked(pMaskRow, job.maskStep, {width, 1});
            for (LONG s = 0; s < job.nStages && rowKept != 0; ++s) {
                if (job.pThresholds[s] <= kHaarAcceptAll) {
                    continue;
                }
                const HaarStageRun stage = {job.ppStages[s]->pRun, static_cast<int>(job.ppStages[s]->nFeatures),
                                            job.pThresholds[s]};
                unsigned done = 0;
                unsigned blocksKept = 0;
                if (pKernel != nullptr) {
                    const HaarRow row = {pSumRow, pNormRow, pMaskRow, static_cast<unsigned>(width)};
                    done = pKernel(stage, row, &blocksKept);
                }
                rowKept = static_cast<LONG>(blocksKept);
                for (LONG x = static_cast<LONG>(done); x < width; ++x) {
                    if (pMaskRow[x] == 0) {
                        continue;
                    }
                    if (StageKeeps(stage, pSumRow + x, pNormRow[x])) {
                        ++rowKept;
                    } else {
                        pMaskRow[x] = 0;
                    }
                }
            }
            kept += rowKept;
        }
    }
    job.kept = kept;
}

// The integral columns a row of `size` positions laid out by `columns`
// reads for windows of `window`, or -1 when the layout is not one.
LONGLONG ColumnsRead(ImageSize size, LONG window, HaarColumns columns)
{
    if (columns.step == 1) {
        return static_cast<LONGLONG>(size.width) + window;
    }
    const LONGLONG reach = static_cast<LONGLONG>(size.width - 1) * columns.step + window + 1;
    return columns.step > 1 && columns.step <= kLargestWindowSide && reach <= columns.columns ? columns.columns : -1;
}

}  // namespace

namespace kv {

LONG ApplyHaarCascade(const LONG* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                      LONG maskStep, ImageSize size, LONG* pKept, const float* pThresholds,
                      HaarClassifier* const* ppStages, LONG nStages, HaarColumns columns)
{
    if (pSum == nullptr || pNorm == nullptr || pMask == nullptr || pKept == nullptr || pThresholds == nullptr ||
        ppStages == nullptr || nStages <= 0 || !Positive(size) || sumStep % static_cast<LONG>(sizeof(LONG)) != 0 ||
        !RowFits(normStep, size.width, sizeof(float)) || !RowFits(maskStep, size.width, 1)) {
        return STATUS_INVALID_PARAMETER;
    }
    for (LONG s = 0; s < nStages; ++s) {
        if (ppStages[s] == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        const LONGLONG read = ColumnsRead(size, ppStages[s]->window.width, columns);
        if (read < 0 || !RowFits(sumStep, read, sizeof(LONG)) ||
            !CornersFit(ppStages[s]->window.height, sumStep, sizeof(LONG), read)) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    for (LONG s = 0; s < nStages; ++s) {
        PrepareCorners(ppStages[s], sumStep / static_cast<LONG>(sizeof(LONG)), columns);
    }
    CascadeJob job = {pSum, sumStep, pNorm, normStep, pMask, maskStep, size, pThresholds, ppStages, nStages, 0};
    RunOnPath([](PrimitivesPath path, void* pContext) {
        CascadeRows(*static_cast<CascadeJob*>(pContext), HaarKernelFor(path));
    }, &job);
    *pKept = job.kept;
    return STATUS_SUCCESS;
}

LONG FoldColumns(const LONG* pSource, LONG sourceStep, LONG* pDestination, LONG destinationStep, ImageSize size,
                 LONG step)
{
    if (pSource == nullptr || pDestination == nullptr || !Positive(size) || step < 1 || step > kLargestWindowSide ||
        !RowFits(sourceStep, size.width, sizeof(LONG)) || !RowFits(destinationStep, size.width, sizeof(LONG))) {
        return STATUS_INVALID_PARAMETER;
    }
    for (LONG y = 0; y < size.height; ++y) {
        const LONG* pIn = Row(pSource, sourceStep, y);
        LONG* pOut = Row(pDestination, destinationStep, y);
        for (LONG plane = 0; plane < step; ++plane) {
            for (LONG x = plane; x < size.width; x += step) {
                *pOut++ = pIn[x];
            }
        }
    }
    return STATUS_SUCCESS;
}

LONG SqrIntegral(const UCHAR* pSource, LONG sourceStep, LONG* pSum, LONG sumStep, ULONG* pSquares,
                 LONG squaresStep, ImageSize size)
{
    return SqrIntegralRows(pSource, sourceStep, pSum, sumStep, pSquares, squaresStep, size);
}

LONG SqrIntegral(const UCHAR* pSource, LONG sourceStep, LONG* pSum, LONG sumStep, LONGLONG* pSquares,
                 LONG squaresStep, ImageSize size)
{
    return SqrIntegralRows(pSource, sourceStep, pSum, sumStep, pSquares, squaresStep, size);
}

LONG RectStdDev(const LONG* pSum, LONG sumStep, const ULONG* pSquares, LONG squaresStep, float* pDestination,
                LONG destinationStep, ImageSize size, ImageRect window)
{
    const SpreadJob<ULONG> job = {pSum, sumStep, pSquares, squaresStep, pDestination, destinationStep, size, window};
    return RectStdDevRows(job, true);
}

LONG RectStdDev(const LONG* pSum, LONG sumStep, const LONGLONG* pSquares, LONG squaresStep, float* pDestination,
                LONG destinationStep, ImageSize size, ImageRect window)
{
    const SpreadJob<LONGLONG> job = {pSum, sumStep, pSquares, squaresStep, pDestination, destinationStep, size,
                                     window};
    return RectStdDevRows(job, false);
}

LONG HaarClassifierInit(HaarClassifier** ppClassifier, const ImageRect* pRects, const float* pWeights,
                        const float* pThresholds, const float* pLeaves, const LONG* pRectCounts, LONG nFeatures)
{
    if (ppClassifier == nullptr || pRects == nullptr || pWeights == nullptr || pThresholds == nullptr ||
        pLeaves == nullptr || pRectCounts == nullptr || nFeatures <= 0 || nFeatures > 0x100000) {
        return STATUS_INVALID_PARAMETER;
    }
    LONG rect = 0;
    ImageSize window = {0, 0};
    for (LONG f = 0; f < nFeatures; ++f) {
        if (pRectCounts[f] < 1 || pRectCounts[f] > kHaarMostRects) {
            return STATUS_INVALID_PARAMETER;
        }
        for (LONG r = 0; r < pRectCounts[f]; ++r, ++rect) {
            if (!RectInWindow(pRects[rect])) {
                return STATUS_INVALID_PARAMETER;
            }
            if (!WholeWeight(pWeights[rect])) {
                return STATUS_NOT_SUPPORTED;
            }
            const ImageRect& box = pRects[rect];
            window.width = box.x + box.width > window.width ? box.x + box.width : window.width;
            window.height = box.y + box.height > window.height ? box.y + box.height : window.height;
        }
    }
    const SIZE_T runBytes = sizeof(HaarFeatureRun) * static_cast<SIZE_T>(nFeatures);
    const SIZE_T cornerBytes = sizeof(CornerPoint) * kHaarMostCorners * static_cast<SIZE_T>(nFeatures);
    auto* pBlock = static_cast<UCHAR*>(AllocImageBuffer(sizeof(HaarClassifier) + runBytes + cornerBytes));
    if (pBlock == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pBlock, sizeof(HaarClassifier) + runBytes + cornerBytes);
    auto* pClassifier = reinterpret_cast<HaarClassifier*>(pBlock);
    pClassifier->nFeatures = nFeatures;
    pClassifier->window = window;
    pClassifier->pRun = reinterpret_cast<HaarFeatureRun*>(pBlock + sizeof(HaarClassifier));
    pClassifier->pCorners = reinterpret_cast<CornerPoint*>(pBlock + sizeof(HaarClassifier) + runBytes);
    StoreFeatures(pClassifier, pRects, pWeights, pThresholds, pLeaves, pRectCounts);
    *ppClassifier = pClassifier;
    return STATUS_SUCCESS;
}

LONG HaarClassifierSize(const HaarClassifier* pClassifier, ImageSize* pWindow)
{
    if (pClassifier == nullptr || pWindow == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *pWindow = pClassifier->window;
    return STATUS_SUCCESS;
}

void HaarClassifierFree(HaarClassifier*& pClassifier)
{
    FreeImageBuffer(pClassifier);
}

LONG HaarBufferSize(ImageSize size, ImageSize window, LONG* pSize)
{
    if (pSize == nullptr || !Positive(size) || window.width < 0 || window.height < 0 ||
        window.width > kLargestWindowSide || window.height > kLargestWindowSide) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONGLONG columns = static_cast<ULONGLONG>(size.width) + window.width + 1;
    const ULONGLONG rows = static_cast<ULONGLONG>(size.height) + window.height + 1;
    const ULONGLONG positions = static_cast<ULONGLONG>(size.width) * size.height;
    const ULONGLONG alignment = kImageBufferAlignment;
    auto aligned = [alignment](ULONGLONG bytes) { return (bytes + alignment - 1) / alignment * alignment; };
    const ULONGLONG total = 2 * aligned(columns * rows * sizeof(LONG)) + aligned(positions * sizeof(float)) +
                            aligned(positions);
    if (total > 0x7FFFFFFFull) {
        return STATUS_INVALID_PARAMETER;
    }
    *pSize = static_cast<LONG>(total);
    return STATUS_SUCCESS;
}

LONG ApplyHaarClassifier(const LONG* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                         LONG maskStep, ImageSize size, LONG* pKept, float threshold, HaarClassifier* pClassifier)
{
    return ApplyStage(pSum, sumStep, pNorm, normStep, pMask, maskStep, size, pKept, threshold, pClassifier, true);
}

LONG ApplyHaarClassifier(const float* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                         LONG maskStep, ImageSize size, LONG* pKept, float threshold, HaarClassifier* pClassifier)
{
    return ApplyStage(pSum, sumStep, pNorm, normStep, pMask, maskStep, size, pKept, threshold, pClassifier, false);
}

}  // namespace kv
