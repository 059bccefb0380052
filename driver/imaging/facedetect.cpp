// The face detector (facedetect.h). The frame is turned into a grey
// picture, rows top-down, once per picture; each level of the pyramid is
// that picture reduced so that the cascade's fixed window covers faces of
// one size, with its integral images, the spread of every window and a
// mask of the window positions still in the running. Levels searched every
// few columns fold their integral's columns (FoldColumns) so that eight
// neighbouring positions still fill a vector. The whole cascade runs on one
// row of positions before the next (ApplyHaarCascade), so the integral rows
// its windows read stay in the cache. The positions that pass every stage
// are hits; hits of about the same place and size are grouped into faces.
#include "imaging/facedetect.h"

#include "imaging/cascade.h"
#include "imaging/classifier.h"
#include "imaging/primitives.h"

using namespace kv;

namespace {

// Levels are on one ladder, scale = kLevelFactor^k for whole k (a level
// reduces the picture by its scale): searches with different minimum sizes
// share their levels.
constexpr double kLevelFactor = 1.2;
constexpr LONG kLowestLevel = -16;  // scale 0.22: faces of 4.4 pixels for a 20-pixel window
constexpr LONG kMostLevels = 64;
constexpr LONG kMostStages = 64;
constexpr LONG kMostHits = 2048;
constexpr LONG kMostFaces = 32;
// Hits grouped together: corners and sizes within this share of the
// smaller size (the usual rule of cascade detectors).
constexpr double kGroupShare = 0.2;
// A face inside a larger one by this margin, with no more hits, is a part
// of it (an eye found as a face).
constexpr double kNestedMargin = 0.2;
// Grey from B, G, R: the luma weights of ITU-R BT.601, 8 fraction bits.
constexpr ULONG kGreyFromB = 29;
constexpr ULONG kGreyFromG = 150;
constexpr ULONG kGreyFromR = 77;
constexpr ULONG kGreyRound = 128;
constexpr LONG kWeightOne = 256;  // the grey reduction's 8-bit weights
// From this scale on (faces of twice the cascade's window, 40 pixels for a
// 20-pixel window) positions are search.columnStep apart along rows; below
// it they are rowStep apart along rows as well as down. That step is at
// most a tenth of those levels' windows, and those levels hold three
// quarters of all positions (common cascade detectors step the same way).
constexpr double kDenseColumnsScale = 2.0;

// Eight grey pixels and their weighted values (GCC's vector extensions:
// SSE2 on x64, which needs no state saved in kernel mode).
typedef UCHAR Pixels8 __attribute__((vector_size(8)));
typedef USHORT Weighted8 __attribute__((vector_size(16)));
constexpr LONG kBlendLanes = 8;

struct Hit {
    LONG x, y, size;
    LONG level;  // its index on the ladder, from kLowestLevel
    LONG group;
};

struct ColumnTap {
    LONG x0, x1, weight;
};

}  // namespace

struct kv::FaceDetector {
    FaceSearch search;
    const CascadeTable* pCascade;
    LONG nStages;
    HaarClassifier* pStages[kMostStages];
    ImageSize window;
    ImageRect normRect;
    float areaOfNorm;

    // Buffers for frames of bufferWidth x bufferHeight, down to bufferScale.
    ULONG bufferWidth, bufferHeight;
    double bufferScale;
    UCHAR* pGrey;
    UCHAR* pLevel;
    USHORT* pBlend;  // a row of the grey picture's width
    ColumnTap* pTaps;
    UCHAR* pImages;  // the integral, squares, spread and mask (HaarBufferSize)
    LONG* pSum;
    ULONG* pSquares;
    float* pNorm;
    UCHAR* pMask;
    LONG sumStep, normStep, maskStep;

    // The picture in hand.
    bool greyReady;
    bool scanned[kMostLevels];
    Hit* pHits;
    LONG nHits;
    FaceBox faces[kMostFaces];
    LONG nFaces;
};

namespace {

template <typename T>
T Smaller(T a, T b)
{
    return a < b ? a : b;
}

template <typename T>
T Larger(T a, T b)
{
    return a < b ? b : a;
}

LONG Round(double v)
{
    return static_cast<LONG>(v >= 0 ? v + 0.5 : v - 0.5);
}

double LevelScale(LONG level)
{
    double scale = 1.0;
    for (LONG k = 0; k < level; ++k) {
        scale *= kLevelFactor;
    }
    for (LONG k = 0; k > level; --k) {
        scale /= kLevelFactor;
    }
    return scale;
}

// The first level whose window covers faces of at least minSize.
LONG FirstLevel(double minSize, LONG windowSide)
{
    LONG level = kLowestLevel;
    while (level < kLowestLevel + kMostLevels - 1 && windowSide * LevelScale(level) < minSize - 1e-9) {
        ++level;
    }
    return level;
}

LONG Levels(double scale, ULONG side)
{
    return static_cast<LONG>(side / scale);
}

void FreeBuffers(FaceDetector* p)
{
    FreeImageBuffer(p->pGrey);
    FreeImageBuffer(p->pLevel);
    FreeImageBuffer(p->pBlend);
    FreeImageBuffer(p->pTaps);
    FreeImageBuffer(p->pImages);
    FreeImageBuffer(p->pHits);
    p->bufferWidth = p->bufferHeight = 0;
}

// Buffers for a W x H frame searched down to `scale` (the largest level).
bool EnsureBuffers(FaceDetector* p, ULONG W, ULONG H, double scale)
{
    if (p->bufferWidth == W && p->bufferHeight == H && p->bufferScale <= scale && p->pHits != nullptr) {
        return true;
    }
    FreeBuffers(p);
    const ImageSize largest = {Levels(scale, W), Levels(scale, H)};
    LONG imageBytes = 0;
    if (!NT_SUCCESS(HaarBufferSize(largest, p->window, &imageBytes))) {
        return false;
    }
    p->pGrey = static_cast<UCHAR*>(AllocImageBuffer(static_cast<SIZE_T>(W) * H));
    p->pLevel = static_cast<UCHAR*>(AllocImageBuffer(static_cast<SIZE_T>(largest.width) * largest.height));
    p->pBlend = static_cast<USHORT*>(AllocImageBuffer(sizeof(USHORT) * static_cast<SIZE_T>(W)));
    p->pTaps = static_cast<ColumnTap*>(AllocImageBuffer(sizeof(ColumnTap) * static_cast<SIZE_T>(largest.width)));
    p->pImages = static_cast<UCHAR*>(AllocImageBuffer(static_cast<SIZE_T>(imageBytes)));
    if (p->pGrey == nullptr || p->pLevel == nullptr || p->pBlend == nullptr || p->pTaps == nullptr ||
        p->pImages == nullptr) {
        DbgPrint("FaceTracking: Memory allocating fail, exit.\n");
        FreeBuffers(p);
        return false;
    }
    p->pHits = static_cast<Hit*>(AllocImageBuffer(sizeof(Hit) * kMostHits));
    if (p->pHits == nullptr) {
        DbgPrint("FaceTracking: Memory allocating fail (data point), exit.\n");
        FreeBuffers(p);
        return false;
    }
    // The images as HaarBufferSize lays them out, with one step for every
    // level (the largest's), so that the levels searched at every column
    // share the stages' corners (a folded level's depend on its width).
    const LONG columns = largest.width + p->window.width + 1;
    const LONG rows = largest.height + p->window.height + 1;
    const SIZE_T integralBytes =
        (static_cast<SIZE_T>(columns) * rows * sizeof(LONG) + kImageBufferAlignment - 1) & ~(kImageBufferAlignment - 1);
    const SIZE_T normBytes = (static_cast<SIZE_T>(largest.width) * largest.height * sizeof(float) +
                              kImageBufferAlignment - 1) & ~(kImageBufferAlignment - 1);
    p->pSum = reinterpret_cast<LONG*>(p->pImages);
    p->pSquares = reinterpret_cast<ULONG*>(p->pImages + integralBytes);
    p->pNorm = reinterpret_cast<float*>(p->pImages + 2 * integralBytes);
    p->pMask = p->pImages + 2 * integralBytes + normBytes;
    p->sumStep = columns * static_cast<LONG>(sizeof(LONG));
    p->normStep = largest.width * static_cast<LONG>(sizeof(float));
    p->maskStep = largest.width;
    p->bufferWidth = W;
    p->bufferHeight = H;
    p->bufferScale = scale;
    return true;
}

// The bottom-up B,G,R frame as a top-down grey picture.
void MakeGrey(const UCHAR* pFrame, ULONG W, ULONG H, UCHAR* pGrey)
{
    for (ULONG row = 0; row < H; ++row) {
        const UCHAR* pIn = pFrame + static_cast<SIZE_T>(H - 1 - row) * W * 3;
        UCHAR* pOut = pGrey + static_cast<SIZE_T>(row) * W;
        for (ULONG x = 0; x < W; ++x, pIn += 3) {
            pOut[x] = static_cast<UCHAR>((pIn[0] * kGreyFromB + pIn[1] * kGreyFromG + pIn[2] * kGreyFromR + kGreyRound) >> 8);
        }
    }
}

// Where a level's pixel centre falls in the grey picture: the pixel at or
// before it, the next one (held inside) and the next one's 8-bit weight.
ColumnTap PlaceCentre(LONG i, double scale, LONG count)
{
    double point = (i + 0.5) * scale - 0.5;
    const double last = count - 1;
    point = point < 0.0 ? 0.0 : (point > last ? last : point);
    ColumnTap tap;
    tap.x0 = static_cast<LONG>(point);
    tap.x1 = tap.x0 + 1 < count ? tap.x0 + 1 : tap.x0;
    tap.weight = Round((point - tap.x0) * kWeightOne);
    return tap;
}

// The grey picture reduced (or enlarged) by `scale`, bilinear with 8-bit
// weights: the level image, or the grey picture itself at scale 1. Each
// row blends its two source rows first, along the whole row at once, then
// picks its columns from the blend; the sum of the four weighted pixels is
// the same either way round.
const UCHAR* MakeLevel(FaceDetector* p, ImageSize level, double scale)
{
    const LONG W = static_cast<LONG>(p->bufferWidth), H = static_cast<LONG>(p->bufferHeight);
    if (level.width == W && level.height == H) {
        return p->pGrey;
    }
    for (LONG i = 0; i < level.width; ++i) {
        p->pTaps[i] = PlaceCentre(i, scale, W);
    }
    USHORT* pBlend = p->pBlend;
    for (LONG j = 0; j < level.height; ++j) {
        const ColumnTap rowTap = PlaceCentre(j, scale, H);
        const UCHAR* pA = p->pGrey + static_cast<SIZE_T>(rowTap.x0) * W;
        const UCHAR* pB = p->pGrey + static_cast<SIZE_T>(rowTap.x1) * W;
        const USHORT wb = static_cast<USHORT>(rowTap.weight), wa = static_cast<USHORT>(kWeightOne - wb);
        LONG x = 0;
        for (; x + kBlendLanes <= W; x += kBlendLanes) {
            Pixels8 a, b;
            RtlCopyMemory(&a, pA + x, sizeof a);
            RtlCopyMemory(&b, pB + x, sizeof b);
            const Weighted8 blend =
                __builtin_convertvector(a, Weighted8) * wa + __builtin_convertvector(b, Weighted8) * wb;
            RtlCopyMemory(pBlend + x, &blend, sizeof blend);
        }
        for (; x < W; ++x) {
            pBlend[x] = static_cast<USHORT>(pA[x] * wa + pB[x] * wb);
        }
        UCHAR* pOut = p->pLevel + static_cast<SIZE_T>(j) * level.width;
        for (LONG i = 0; i < level.width; ++i) {
            const ColumnTap& t = p->pTaps[i];
            const LONG sum = pBlend[t.x0] * (kWeightOne - t.weight) + pBlend[t.x1] * t.weight;
            pOut[i] = static_cast<UCHAR>((sum + (1 << 15)) >> 16);
        }
    }
    return p->pLevel;
}

// Only every `step`-th spread of each row is searched: those, packed to
// the row's start.
void KeepColumns(float* pNorm, LONG normStep, ImageSize positions, LONG step)
{
    for (LONG y = 0; y < positions.height; ++y) {
        float* pRow = reinterpret_cast<float*>(reinterpret_cast<UCHAR*>(pNorm) + static_cast<SIZE_T>(y) * normStep);
        for (LONG j = 0, x = 0; x < positions.width; ++j, x += step) {
            pRow[j] = pRow[x];
        }
    }
}

LONG ColumnStepAt(const FaceDetector* p, double scale)
{
    return scale < kDenseColumnsScale ? Larger(p->search.columnStep, p->search.rowStep) : p->search.columnStep;
}

void AddHit(FaceDetector* p, LONG x, LONG y, LONG level, double scale)
{
    if (p->nHits >= kMostHits) {
        return;
    }
    Hit& hit = p->pHits[p->nHits++];
    hit.x = Round(x * scale);
    hit.y = Round(y * scale);
    hit.size = Round(p->window.width * scale);
    hit.level = level;
    hit.group = -1;
}

// The stages over one level; the positions left are hits.
NTSTATUS SearchLevel(FaceDetector* p, LONG level)
{
    const double scale = LevelScale(level);
    const ImageSize size = {Levels(scale, p->bufferWidth), Levels(scale, p->bufferHeight)};
    const ImageSize positions = {size.width - p->window.width + 1, size.height - p->window.height + 1};
    const LONG columnStep = ColumnStepAt(p, scale);
    const UCHAR* pLevel = MakeLevel(p, size, scale);
    NTSTATUS status = SqrIntegral(pLevel, size.width, p->pSum, p->sumStep, p->pSquares, p->sumStep, size);
    if (NT_SUCCESS(status)) {
        status = RectStdDev(p->pSum, p->sumStep, p->pSquares, p->sumStep, p->pNorm, p->normStep, positions,
                            p->normRect);
    }
    // Positions every few columns read the sums folded (the squares, no
    // longer needed, make room for them).
    const LONG* pSum = p->pSum;
    HaarColumns columns = kHaarEveryColumn;
    ImageSize searched = positions;
    if (NT_SUCCESS(status) && columnStep > 1) {
        LONG* pFolded = reinterpret_cast<LONG*>(p->pSquares);
        status = FoldColumns(p->pSum, p->sumStep, pFolded, p->sumStep, {size.width + 1, size.height + 1}, columnStep);
        KeepColumns(p->pNorm, p->normStep, positions, columnStep);
        pSum = pFolded;
        columns = {columnStep, size.width + 1};
        searched.width = (positions.width + columnStep - 1) / columnStep;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SetImage(0, p->pMask, p->maskStep, searched);
    for (LONG y = 0; y < searched.height; y += p->search.rowStep) {
        SetBytes(1, p->pMask + static_cast<SIZE_T>(y) * p->maskStep, searched.width);
    }
    LONG kept = 0;
    status = ApplyHaarCascade(pSum, p->sumStep, p->pNorm, p->normStep, p->pMask, p->maskStep, searched, &kept,
                              p->pCascade->pStageThresholds, p->pStages, p->nStages, columns);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (LONG y = 0; y < searched.height && kept != 0; y += p->search.rowStep) {
        const UCHAR* pRow = p->pMask + static_cast<SIZE_T>(y) * p->maskStep;
        for (LONG j = 0; j < searched.width; ++j) {
            if (pRow[j] != 0) {
                AddHit(p, j * columnStep, y, level, scale);
            }
        }
    }
    return STATUS_SUCCESS;
}

bool Similar(const Hit& a, const Hit& b)
{
    const double delta = kGroupShare * Smaller(a.size, b.size);
    auto within = [delta](LONG u, LONG v) { return (u > v ? u - v : v - u) <= delta; };
    return within(a.x, b.x) && within(a.y, b.y) && within(a.x + a.size, b.x + b.size) &&
           within(a.y + a.size, b.y + b.size);
}

LONG FindGroup(Hit* pHits, LONG i)
{
    while (pHits[i].group != i) {
        pHits[i].group = pHits[pHits[i].group].group;
        i = pHits[i].group;
    }
    return i;
}

// A face already in the list (found again by a later search of the same
// picture).
bool Listed(const FaceDetector* p, const FaceBox& face)
{
    const Hit candidate = {face.x, face.y, face.size, 0, 0};
    for (LONG i = 0; i < p->nFaces; ++i) {
        const Hit listed = {p->faces[i].x, p->faces[i].y, p->faces[i].size, 0, 0};
        if (Similar(candidate, listed)) {
            return true;
        }
    }
    return false;
}

bool Nested(const FaceBox& inner, const FaceBox& outer)
{
    const LONG margin = Round(outer.size * kNestedMargin);
    return inner.size < outer.size && inner.x >= outer.x - margin && inner.y >= outer.y - margin &&
           inner.x + inner.size <= outer.x + outer.size + margin &&
           inner.y + inner.size <= outer.y + outer.size + margin && inner.hits <= outer.hits;
}

// Groups the hits of levels from `firstLevel` on and adds their faces.
void GroupHits(FaceDetector* p, LONG firstLevel)
{
    Hit* pHits = p->pHits;
    for (LONG i = 0; i < p->nHits; ++i) {
        pHits[i].group = i;
    }
    for (LONG i = 0; i < p->nHits; ++i) {
        for (LONG j = i + 1; j < p->nHits && pHits[i].level >= firstLevel; ++j) {
            if (pHits[j].level >= firstLevel && Similar(pHits[i], pHits[j])) {
                const LONG a = FindGroup(pHits, i), b = FindGroup(pHits, j);
                pHits[a > b ? a : b].group = a < b ? a : b;
            }
        }
    }
    FaceBox found[kMostFaces];
    LONG nFound = 0;
    for (LONG i = 0; i < p->nHits; ++i) {
        if (pHits[i].level < firstLevel || FindGroup(pHits, i) != i) {
            continue;
        }
        LONGLONG x = 0, y = 0, size = 0, n = 0;
        for (LONG j = i; j < p->nHits; ++j) {
            if (pHits[j].level >= firstLevel && FindGroup(pHits, j) == i) {
                x += pHits[j].x, y += pHits[j].y, size += pHits[j].size, ++n;
            }
        }
        if (n > p->search.minHits && nFound < kMostFaces) {
            found[nFound++] = {static_cast<LONG>((x + n / 2) / n), static_cast<LONG>((y + n / 2) / n),
                               static_cast<LONG>((size + n / 2) / n), static_cast<LONG>(n)};
        }
    }
    for (LONG i = 0; i < nFound; ++i) {
        bool part = false;
        for (LONG j = 0; j < nFound && !part; ++j) {
            part = j != i && Nested(found[i], found[j]);
        }
        if (!part && !Listed(p, found[i]) && p->nFaces < kMostFaces) {
            p->faces[p->nFaces++] = found[i];
        }
    }
}

}  // namespace

namespace kv {

NTSTATUS CreateFaceDetector(FaceDetector** ppDetector, const FaceSearch& search)
{
    const CascadeTable& cascade = g_FrontalFaceCascade;
    // Positions further apart than the window would leave faces unsearched.
    if (ppDetector == nullptr || cascade.nStages > kMostStages || search.columnStep < 1 ||
        search.rowStep < 1 || search.columnStep > cascade.window.width || search.rowStep > cascade.window.height) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* p = static_cast<FaceDetector*>(AllocImageBuffer(sizeof(FaceDetector)));
    if (p == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(p, sizeof(FaceDetector));
    p->search = search;
    p->pCascade = &cascade;
    p->window = cascade.window;
    // The spread is measured inside the window less a one-pixel border, as
    // the published cascades were trained; their thresholds are per unit of
    // that area and of the spread.
    p->normRect = {1, 1, cascade.window.width - 2, cascade.window.height - 2};
    p->areaOfNorm = static_cast<float>(p->normRect.width * p->normRect.height);
    float thresholds[256];
    LONG feature = 0, rect = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (LONG s = 0; s < cascade.nStages && NT_SUCCESS(status); ++s) {
        const LONG n = cascade.pStageLengths[s];
        if (n > static_cast<LONG>(sizeof(thresholds) / sizeof(thresholds[0]))) {
            status = STATUS_NOT_SUPPORTED;
            break;
        }
        for (LONG f = 0; f < n; ++f) {
            thresholds[f] = cascade.pThresholds[feature + f] * p->areaOfNorm;
        }
        status = HaarClassifierInit(&p->pStages[s], cascade.pRects + rect, cascade.pWeights + rect, thresholds,
                                    cascade.pLeaves + 2 * feature, cascade.pRectCounts + feature, n);
        if (NT_SUCCESS(status)) {
            p->nStages = s + 1;
            ImageSize stageWindow = {};
            HaarClassifierSize(p->pStages[s], &stageWindow);
            p->window.width = Larger(p->window.width, stageWindow.width);
            p->window.height = Larger(p->window.height, stageWindow.height);
        }
        for (LONG f = 0; f < n; ++f) {
            rect += cascade.pRectCounts[feature + f];
        }
        feature += n;
    }
    if (!NT_SUCCESS(status)) {
        FreeFaceDetector(p);
        return status;
    }
    *ppDetector = p;
    return STATUS_SUCCESS;
}

void FreeFaceDetector(FaceDetector*& pDetector)
{
    if (pDetector == nullptr) {
        return;
    }
    for (LONG s = 0; s < pDetector->nStages; ++s) {
        HaarClassifierFree(pDetector->pStages[s]);
    }
    FreeBuffers(pDetector);
    FreeImageBuffer(pDetector);
}

void SetFaceMinSize(FaceDetector* pDetector, double minSize)
{
    pDetector->search.minSize = minSize;
}

void BeginFacePicture(FaceDetector* pDetector)
{
    pDetector->greyReady = false;
    pDetector->nHits = 0;
    pDetector->nFaces = 0;
    RtlZeroMemory(pDetector->scanned, sizeof(pDetector->scanned));
}

NTSTATUS DetectFaces(FaceDetector* p, const UCHAR* pFrame, ULONG Width, ULONG Height)
{
    if (p == nullptr || pFrame == nullptr || Width < static_cast<ULONG>(p->window.width) ||
        Height < static_cast<ULONG>(p->window.height)) {
        return STATUS_INVALID_PARAMETER;
    }
    const LONG first = FirstLevel(p->search.minSize, p->window.width);
    const double shorter = Width < Height ? Width : Height;
    const double largest = shorter * p->search.maxSizePercent / 100.0;
    if (!EnsureBuffers(p, Width, Height, LevelScale(first))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!p->greyReady) {
        MakeGrey(pFrame, Width, Height, p->pGrey);
        p->greyReady = true;
    }
    for (LONG level = first; level < kLowestLevel + kMostLevels; ++level) {
        const double scale = LevelScale(level);
        if (Levels(scale, Width) < p->window.width || Levels(scale, Height) < p->window.height ||
            p->window.width * scale > largest + 1e-9) {
            break;
        }
        if (p->scanned[level - kLowestLevel]) {
            continue;
        }
        const NTSTATUS status = SearchLevel(p, level);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        p->scanned[level - kLowestLevel] = true;
    }
    GroupHits(p, first);
    return STATUS_SUCCESS;
}

LONG FaceCount(const FaceDetector* pDetector)
{
    return pDetector != nullptr ? pDetector->nFaces : 0;
}

const FaceBox* Faces(const FaceDetector* pDetector)
{
    return pDetector != nullptr ? pDetector->faces : nullptr;
}

}  // namespace kv
