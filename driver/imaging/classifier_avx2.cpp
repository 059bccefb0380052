// AVX2 row kernels of the classifier primitives: the blocks of
// classifier_rows.h compiled for AVX2 (eight windows in one register). This
// unit is compiled with -mavx2 (driver/CMakeLists.txt, driver/windows.cmake)
// and called only inside a save of the AVX state, on processors that have it.
#include <immintrin.h>

#include "imaging/classifier_rows.h"

namespace kv::imaging {

unsigned HaarRowAvx2(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept)
{
    // Four blocks at a time: their values, totals and spreads fill twelve of
    // the sixteen vector registers.
    return HaarRowLanes<4>(stage, row, pKept);
}

unsigned SpreadRowAvx2(const SpreadRow& row)
{
    return SpreadRowLanes(row, [](Lanes4d v) {
        __m256d d;
        __builtin_memcpy(&d, &v, sizeof d);
        d = _mm256_sqrt_pd(d);
        Lanes4d out;
        __builtin_memcpy(&out, &d, sizeof d);
        return out;
    });
}

}  // namespace kv::imaging
