// SSE2 row kernels of the classifier primitives: the blocks of
// classifier_rows.h compiled for x64's baseline instruction set (no
// processor check, no state to save in kernel mode).
#include <emmintrin.h>

#include "imaging/classifier_rows.h"

// The square root below passes a 32-byte vector to a lambda inlined here;
// no call between units carries one.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace kv::imaging {

unsigned HaarRowSse2(const HaarStageRun& stage, const HaarRow& row, unsigned* pKept)
{
    // Two blocks at a time: each block's vectors take two registers here.
    return HaarRowLanes<2>(stage, row, pKept);
}

unsigned SpreadRowSse2(const SpreadRow& row)
{
    return SpreadRowLanes(row, [](Lanes4d v) {
        __m128d lo, hi;
        __builtin_memcpy(&lo, &v, sizeof lo);
        __builtin_memcpy(&hi, reinterpret_cast<const char*>(&v) + sizeof lo, sizeof hi);
        lo = _mm_sqrt_pd(lo);
        hi = _mm_sqrt_pd(hi);
        Lanes4d out;
        __builtin_memcpy(&out, &lo, sizeof lo);
        __builtin_memcpy(reinterpret_cast<char*>(&out) + sizeof lo, &hi, sizeof hi);
        return out;
    });
}

}  // namespace kv::imaging
