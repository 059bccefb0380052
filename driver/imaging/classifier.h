// The classifier primitives face detection builds on: integral images, the
// spread of grey levels under a sliding window, and stages of a cascade of
// rectangle features (Viola and Jones, 2001) evaluated at every window
// position still marked in a mask.
//
// Images follow primitives.h: a pointer to the first element, a step in
// bytes from one row to the next, a region size. Window positions are
// counted by their top-left corner; a window at (x, y) reads the integral
// images from element (x, y) to (x + window width, y + window height), so an
// integral image for positions 0..w-1 x 0..h-1 has w + window width columns
// and h + window height rows (a search every few columns reads its integral
// folded: below).
//
// Every operation returns STATUS_SUCCESS or a negative NTSTATUS and writes
// nothing on failure; only HaarClassifierInit allocates (through
// AllocImageBuffer). Callable at IRQL <= DISPATCH_LEVEL; floating point in
// SSE registers, the AVX2 paths inside a save of the AVX state.
#pragma once

#include "imaging/primitives.h"
#include "wdk.h"

namespace kv {

// ---- integral images ----------------------------------------------------------
// For an 8-bit picture of `size`, images of (width + 1) x (height + 1)
// elements: element (x, y) holds the sum of the pixels above and left of it
// (row 0 and column 0 are 0). The squared integral either wraps modulo 2^32
// (ULONG), which keeps every window sum exact whose true value fits 32 bits
// (a window of up to 66,051 pixels), or is 64 bits wide (LONGLONG).
// The sums themselves fit a LONG for pictures of up to 8,421,504 pixels.
LONG SqrIntegral(const UCHAR* pSource, LONG sourceStep, LONG* pSum, LONG sumStep, ULONG* pSquares,
                 LONG squaresStep, ImageSize size);
LONG SqrIntegral(const UCHAR* pSource, LONG sourceStep, LONG* pSum, LONG sumStep, LONGLONG* pSquares,
                 LONG squaresStep, ImageSize size);

// ---- the spread of every window -------------------------------------------------
// For every position (x, y) of `size`: the standard deviation of the grey
// levels inside `window` (a rectangle relative to the position), as float,
// 1.0 where the window is flat. The 32-bit squared variant refuses a window
// whose squared sum could pass 32 bits (STATUS_NOT_SUPPORTED).
LONG RectStdDev(const LONG* pSum, LONG sumStep, const ULONG* pSquares, LONG squaresStep, float* pDestination,
                LONG destinationStep, ImageSize size, ImageRect window);
LONG RectStdDev(const LONG* pSum, LONG sumStep, const LONGLONG* pSquares, LONG squaresStep, float* pDestination,
                LONG destinationStep, ImageSize size, ImageRect window);

// ---- stages -------------------------------------------------------------------------
// One stage of a cascade: nFeatures weak classifiers. Feature i has
// pRectCounts[i] rectangles (1 to 3), taken in order from pRects with their
// weights from pWeights (whole numbers, as rectangle features have; others
// are STATUS_NOT_SUPPORTED); its value is the weighted sum of its
// rectangles' pixel sums, and it adds pLeaves[2i] to the window's score when
// that value is below pThresholds[i] x the window's spread, else
// pLeaves[2i + 1]. Rectangles are relative to the window's corner. The
// stage adds its leaves in an order of its own (features reading fewer
// integral corners first), the same on every path: a window whose total
// lies within a rounding of the stage's threshold may go the other way
// than with the leaves added in the given order.
struct HaarClassifier;
LONG HaarClassifierInit(HaarClassifier** ppClassifier, const ImageRect* pRects, const float* pWeights,
                        const float* pThresholds, const float* pLeaves, const LONG* pRectCounts, LONG nFeatures);
// The smallest window holding every rectangle of the stage.
LONG HaarClassifierSize(const HaarClassifier* pClassifier, ImageSize* pWindow);
// Frees a stage of HaarClassifierInit and clears the pointer (null: nothing).
void HaarClassifierFree(HaarClassifier*& pClassifier);

// Bytes of the images a picture of `size` needs to be searched with
// windows of `window` (HaarClassifierSize, or larger): its integral and
// 32-bit squared integral, and the spread and the mask of every window
// position, each image starting on kImageBufferAlignment.
LONG HaarBufferSize(ImageSize size, ImageSize window, LONG* pSize);

// Accepting every position: the stage is not evaluated at all.
constexpr float kHaarAcceptAll = -16777216.0f;

// The stage at every position of `size` whose mask byte is nonzero: a
// position whose leaves sum to less than `threshold` has its mask byte
// cleared. *pKept: the positions left marked. The integral image holds
// 32-bit sums (LONG) or float sums (float, exact while they stay below 2^24).
LONG ApplyHaarClassifier(const LONG* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                         LONG maskStep, ImageSize size, LONG* pKept, float threshold, HaarClassifier* pClassifier);
LONG ApplyHaarClassifier(const float* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                         LONG maskStep, ImageSize size, LONG* pKept, float threshold, HaarClassifier* pClassifier);

// ---- positions every few columns ------------------------------------------------
// Window positions every `step`-th column are searched on an integral image
// whose rows are folded: columns 0, step, 2 step, ... first, then 1,
// step + 1, ..., and so on. Neighbouring positions then read neighbouring
// elements at every corner, as they do at step 1, and eight of them fill a
// vector. FoldColumns folds `size` (the integral's columns x rows) from
// pSource into pDestination (which must not overlap it).
LONG FoldColumns(const LONG* pSource, LONG sourceStep, LONG* pDestination, LONG destinationStep, ImageSize size,
                 LONG step);

// Where a search's positions lie on the integral's columns: every `step`-th
// column (1 to 256) of an integral folded by FoldColumns from `columns`
// columns (the width it was given); step 1 is the plain layout (columns
// then unused).
struct HaarColumns {
    LONG step;
    LONG columns;
};
constexpr HaarColumns kHaarEveryColumn = {1, 0};

// ---- a cascade of stages ------------------------------------------------------
// The stages ppStages[0..nStages) in order at every position of `size` whose
// mask byte is nonzero, stage s with threshold pThresholds[s]
// (kHaarAcceptAll: skipped), each on the windows the ones before it kept:
// the mask and *pKept come out exactly as from ApplyHaarClassifier with
// each stage in turn on the 32-bit integral (position j of a row being the
// integral's column j x columns.step). It runs the whole cascade on a row
// of positions before the next, so that the integral rows its windows read
// stay in the cache.
LONG ApplyHaarCascade(const LONG* pSum, LONG sumStep, const float* pNorm, LONG normStep, UCHAR* pMask,
                      LONG maskStep, ImageSize size, LONG* pKept, const float* pThresholds,
                      HaarClassifier* const* ppStages, LONG nStages, HaarColumns columns);

}  // namespace kv
