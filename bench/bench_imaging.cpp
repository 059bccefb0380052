// The frame loop's picture operations, one frame per iteration:
//  - Compare/Resize: a 1280 x 720 picture to 640 x 480, bilinear. kv:
//    Resize on 24-bit B,G,R with centred pixels; libyuv: ARGBScale with
//    kFilterBilinear on 32-bit pixels of the same sizes, the scaler a user
//    of libyuv would reach for.
//  - Rotate/kv/...: RotateFrame, the rotation setting's quarter turns (a
//    half turn, and a quarter turn that shrinks and letterboxes).
//  - DeadPixel/kv/...: CorrectDeadPixels on a YUY2 frame with a few
//    defects, the phase cycling as frames go by (one search, three repairs).
//  - PanZoom/kv/41/...: PanZoomFrame at zoom level 41 (a half-size window
//    enlarged to the frame).
// kv runs the path InitPrimitives picks; Paths/Resize/... time each path.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "controls/settings.h"
#include "imaging/deadpixel.h"
#include "imaging/panzoom.h"
#include "imaging/primitives.h"
#include "measure.h"
#include "wdm.h"
#ifdef KV_HAVE_LIBYUV
#include <libyuv.h>
#endif

namespace {

using Bytes = std::vector<UCHAR>;
using kv::PrimitivesPath;

constexpr int kWarmUpFrames = 20;

Bytes RandomFrame(size_t bytes)
{
    std::mt19937 rng(2024);
    Bytes frame(bytes);
    for (auto& b : frame) b = UCHAR(rng());
    return frame;
}

constexpr LONG kFromW = 1280, kFromH = 720, kToW = 640, kToH = 480;

void KvResize(benchmark::State& state)
{
    const Bytes src = RandomFrame(size_t(3) * kFromW * kFromH);
    Bytes dst(size_t(3) * kToW * kToH);
    const kv::ImageRect from{0, 0, kFromW, kFromH}, to{0, 0, kToW, kToH};
    LONG workSize = 0;
    kv::ResizeBufferSize(from, to, 3, kv::kInterpolationBilinear, &workSize);
    Bytes work(static_cast<size_t>(workSize));
    const double xf = double(kToW) / kFromW, yf = double(kToH) / kFromH;
    kvbench::Measure(state, [&] {
        kv::Resize(src.data(), kv::ImageSize{kFromW, kFromH}, 3 * kFromW, from, dst.data(), 3 * kToW, to, xf, yf,
                   0.5 / xf - 0.5, 0.5 / yf - 0.5, kv::kInterpolationBilinear, work.data());
        benchmark::DoNotOptimize(dst.data());
    }, kWarmUpFrames);
}

#ifdef KV_HAVE_LIBYUV
void LibyuvResize(benchmark::State& state)
{
    const Bytes src = RandomFrame(size_t(4) * kFromW * kFromH);
    Bytes dst(size_t(4) * kToW * kToH);
    kvbench::Measure(state, [&] {
        libyuv::ARGBScale(src.data(), 4 * kFromW, kFromW, kFromH, dst.data(), 4 * kToW, kToW, kToH,
                          libyuv::kFilterBilinear);
        benchmark::DoNotOptimize(dst.data());
    }, kWarmUpFrames);
}
#endif

void KvRotate(benchmark::State& state, LONG quarters, ULONG w, ULONG h)
{
    const Bytes src = RandomFrame(size_t(3) * w * h);
    Bytes dst(src.size());
    kvbench::Measure(state, [&] {
        kv::RotateFrame(quarters, w, h, dst.data(), src.data());
        benchmark::DoNotOptimize(dst.data());
    }, kWarmUpFrames);
}

// A YUY2 frame of mid-grey luma with a few dozen bright defects; frame k
// searches band k % 4 and repairs the others.
void KvDeadPixel(benchmark::State& state)
{
    constexpr ULONG w = 640, h = 480;
    Bytes frame(size_t(2) * w * h);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = i % 2 == 0 ? UCHAR(100 + (i / 2) % 7) : 128;
    std::mt19937 rng(7);
    for (int i = 0; i < 40; ++i) frame[(size_t(rng() % h) * w + rng() % w) * 2] = 250;
    const Bytes original = frame;
    auto pState = std::make_unique<DeadPixelState>();
    ResetDeadPixelState(pState.get());
    ULONG phase = 0;
    kvbench::Measure(state, [&] {
        std::copy(original.begin(), original.end(), frame.begin());
        CorrectDeadPixels(frame.data(), pState.get(), w, h, phase++ % kDeadPixelBands, 12, 0);
        benchmark::DoNotOptimize(frame.data());
    }, kWarmUpFrames);
}

void KvPanZoom(benchmark::State& state)
{
    constexpr ULONG w = 640, h = 480;
    Bytes work(PanZoomWorkAreaSize(w, h));
    PanZoomStart(work.data(), w, h);
    DeviceProperty property = {};
    property.Slot[SLOT_TRACKING_METHOD] = 1;
    property.Slot[SLOT_ZOOM_SWITCH] = 1;
    property.Slot[SLOT_ZOOM_LEVEL] = 41;
    Bytes frame = RandomFrame(size_t(3) * w * h);
    kvbench::Measure(state, [&] {
        PanZoomFrame(work.data(), &property, frame.data(), kPanZoomRgbFrame);
        benchmark::DoNotOptimize(frame.data());
    }, kWarmUpFrames);
}

// Runs `body` with `path` chosen, then goes back to InitPrimitives' choice.
template <class Body>
auto OnPath(PrimitivesPath path, Body body)
{
    return [path, body](benchmark::State& state) {
        if (!kv::SetPrimitivesPathForTest(path)) {
            state.SkipWithError("path not available on this machine");
            return;
        }
        body(state);
        kv::InitPrimitives();
    };
}

// The driver's path, chosen when the benchmark runs (registration happens
// before main, when the simulation may not be up yet).
template <class Body>
auto Chosen(Body body)
{
    return [body](benchmark::State& state) {
        kv::InitPrimitives();
        body(state);
    };
}

const bool g_registered = [] {
    benchmark::RegisterBenchmark("Compare/Resize/kv/1280x720to640x480", Chosen(KvResize));
#ifdef KV_HAVE_LIBYUV
    benchmark::RegisterBenchmark("Compare/Resize/libyuv/1280x720to640x480", LibyuvResize);
#endif
    const std::pair<PrimitivesPath, const char*> paths[] = {
        {PrimitivesPath::Scalar, "scalar"}, {PrimitivesPath::Sse2, "sse2"}, {PrimitivesPath::Avx2, "avx2"}};
    for (const auto& [path, name] : paths) {
        benchmark::RegisterBenchmark(("Paths/Resize/" + std::string(name) + "/1280x720to640x480").c_str(),
                                     OnPath(path, KvResize));
    }
    benchmark::RegisterBenchmark("Rotate/kv/180/1280x720",
                                 Chosen([](benchmark::State& state) { KvRotate(state, 2, 1280, 720); }));
    benchmark::RegisterBenchmark("Rotate/kv/90/640x480",
                                 Chosen([](benchmark::State& state) { KvRotate(state, 1, 640, 480); }));
    benchmark::RegisterBenchmark("DeadPixel/kv/640x480", KvDeadPixel);
    benchmark::RegisterBenchmark("PanZoom/kv/41/640x480", KvPanZoom);
    return true;
}();

}  // namespace
