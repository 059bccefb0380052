// The stored frontal-face cascade: a published rectangle-feature cascade
// (stump-based, gentle AdaBoost) turned into const tables at build time by
// tools/cascade/kvcascade, which keeps the cascade's licence notice with the
// generated tables. Nothing is read from a file at run time.
#pragma once
#include "imaging/primitives.h"
#include "wdk.h"

namespace kv {

struct CascadeTable {
    ImageSize window;              // the size the cascade was trained at
    LONG nStages;
    const LONG* pStageLengths;     // features of each stage, in order
    const float* pStageThresholds;
    LONG nFeatures;                // over all stages
    const LONG* pRectCounts;       // rectangles of each feature (1 to 3)
    const ImageRect* pRects;       // relative to the window's corner, in feature order
    const float* pWeights;         // one per rectangle
    const float* pThresholds;      // one per feature, per unit of window area and spread
    const float* pLeaves;          // two per feature: below, then at or above the threshold
};

extern const CascadeTable g_FrontalFaceCascade;

}  // namespace kv
