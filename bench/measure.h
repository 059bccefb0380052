// How the picture benchmarks time one frame: `warmUp` frames untimed (the
// caches and the branch predictors settle), then one frame an iteration.
#pragma once
#include <benchmark/benchmark.h>

namespace kvbench {

template <class Frame>
void Measure(benchmark::State& state, Frame frame, int warmUp)
{
    for (int i = 0; i < warmUp; ++i) frame();
    for (auto _ : state) frame();
    state.SetItemsProcessed(state.iterations());
}

}  // namespace kvbench
