// The streaming half of the stream benchmarks: the capture pin opened with
// the built-in camera's offer of this format and size, run with a master
// clock and four buffers, and each iteration one frame collected (and its
// buffer queued again). The caller boots the system and sets it up first.
#pragma once
#include <benchmark/benchmark.h>

#include <memory>

#include "capture_offers.h"
#include "kvsim/sched.h"
#include "system.h"

namespace kvbench {

inline void StreamFrames(benchmark::State& state, kvharness::System& system, ULONG compression, ULONG width,
                         ULONG height)
{
    std::unique_ptr<kvsim::client::Pin> pin;
    kvsim::client::MasterClock clock;
    ULONG bufferSize = 0;
    for (auto& offer : kvharness::CaptureOffers(*system.filter())) {
        if (offer.Compression() == compression && offer.Width() == LONG(width) && offer.Height() == LONG(height)) {
            system.filter()->CreatePin(KV_PIN_CAPTURE, &offer.format.DataFormat, &pin);
            bufferSize = offer.ImageSize();
            break;
        }
    }
    if (!pin || pin->SetMasterClock(clock.handle()) != STATUS_SUCCESS || pin->SetState(KSSTATE_RUN) != STATUS_SUCCESS) {
        state.SkipWithError("the capture pin did not run");
        return;
    }
    pin->QueueBuffers(4, bufferSize);
    int64_t frames = 0;
    for (auto _ : state) {
        if (!pin->WaitForFrames(1, 10 * kvsim::kSecond)) {
            state.SkipWithError("no frame within 10 s");
            break;
        }
        for (auto& f : pin->CollectFrames()) {
            frames += f.status == STATUS_SUCCESS;
            pin->QueueBuffers(1, bufferSize);
        }
    }
    pin->SetState(KSSTATE_STOP);
    pin->Close();
    system.Shutdown();
    state.SetItemsProcessed(frames);
}

}  // namespace kvbench
