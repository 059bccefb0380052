// The frame loop's colour conversions against libyuv, like for like:
//  - Compare/Yuy2ToBgr24: a top-down YUY2 frame to a bottom-up B,G,R frame.
//    kv: Yuy2ToRgb24, then MirrorInPlace (as the frame loop does); libyuv:
//    YUY2ToARGB writing rows bottom-up (a negative height), then ARGBToRGB24.
//    Before timing, the two must give the same bytes.
//  - Compare/Bgr24ToYuy2: a bottom-up B,G,R frame to top-down YUY2. kv:
//    Rgb24ToYuy2BottomUp; libyuv: RGB24ToARGB reading rows bottom-up, then
//    ARGBToYUY2 (its own rule: speed only, the bytes differ).
// kv runs the path InitPrimitives picks; Paths/... time each path this
// machine has, and the vertical turn alone. One iteration is one frame;
// each benchmark first converts a few untimed frames, so that the first
// one registered does not pay for the process's start (its buffers' first
// touch, the simulation's threads).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "imaging/primitives.h"
#include "measure.h"
#include "wdm.h"
#ifdef KV_HAVE_LIBYUV
#include <libyuv.h>
#endif

namespace {

using Bytes = std::vector<UCHAR>;
using kv::PrimitivesPath;

constexpr int kWarmUpFrames = 50;

struct FrameSize {
    ULONG width, height;
};
constexpr FrameSize kSizes[] = {{640, 480}, {1280, 720}};

Bytes RandomFrame(size_t bytes)
{
    std::mt19937 rng(2024);
    Bytes frame(bytes);
    for (auto& b : frame) b = UCHAR(rng());
    return frame;
}

std::string SizeName(FrameSize size)
{
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

void KvYuy2ToBottomUpBgr24(const Bytes& yuy2, Bytes& bgr, FrameSize s)
{
    kv::Yuy2ToRgb24(yuy2.data(), 2 * s.width, bgr.data(), 3 * s.width, s.width, s.height);
    kv::MirrorInPlace(bgr.data(), LONG(3 * s.width), s.width, s.height, kv::kMirrorAxisRows);
}

void KvYuy2ToBgr24(benchmark::State& state, FrameSize s)
{
    const Bytes yuy2 = RandomFrame(size_t(2) * s.width * s.height);
    Bytes bgr(size_t(3) * s.width * s.height);
    kvbench::Measure(state, [&] {
        KvYuy2ToBottomUpBgr24(yuy2, bgr, s);
        benchmark::DoNotOptimize(bgr.data());
    }, kWarmUpFrames);
}

void KvBgr24ToYuy2(benchmark::State& state, FrameSize s)
{
    const Bytes bgr = RandomFrame(size_t(3) * s.width * s.height);
    Bytes yuy2(size_t(2) * s.width * s.height);
    kvbench::Measure(state, [&] {
        kv::Rgb24ToYuy2BottomUp(bgr.data(), 3 * s.width, yuy2.data(), 2 * s.width, s.width, s.height);
        benchmark::DoNotOptimize(yuy2.data());
    }, kWarmUpFrames);
}

void MirrorOnly(benchmark::State& state, FrameSize s)
{
    Bytes bgr = RandomFrame(size_t(3) * s.width * s.height);
    kvbench::Measure(state, [&] {
        kv::MirrorInPlace(bgr.data(), LONG(3 * s.width), s.width, s.height, kv::kMirrorAxisRows);
        benchmark::DoNotOptimize(bgr.data());
    }, kWarmUpFrames);
}

#ifdef KV_HAVE_LIBYUV
void LibyuvYuy2ToBottomUpBgr24(const Bytes& yuy2, Bytes& argb, Bytes& bgr, FrameSize s)
{
    const int w = int(s.width), h = int(s.height);
    libyuv::YUY2ToARGB(yuy2.data(), 2 * w, argb.data(), 4 * w, w, -h);
    libyuv::ARGBToRGB24(argb.data(), 4 * w, bgr.data(), 3 * w, w, h);
}

void LibyuvYuy2ToBgr24(benchmark::State& state, FrameSize s)
{
    const Bytes yuy2 = RandomFrame(size_t(2) * s.width * s.height);
    Bytes argb(size_t(4) * s.width * s.height), bgr(size_t(3) * s.width * s.height), ours(bgr.size());
    LibyuvYuy2ToBottomUpBgr24(yuy2, argb, bgr, s);
    kv::InitPrimitives();
    KvYuy2ToBottomUpBgr24(yuy2, ours, s);
    if (ours != bgr) {
        state.SkipWithError("kv and libyuv give different bytes");
        return;
    }
    kvbench::Measure(state, [&] {
        LibyuvYuy2ToBottomUpBgr24(yuy2, argb, bgr, s);
        benchmark::DoNotOptimize(bgr.data());
    }, kWarmUpFrames);
}

void LibyuvBgr24ToYuy2(benchmark::State& state, FrameSize s)
{
    const int w = int(s.width), h = int(s.height);
    const Bytes bgr = RandomFrame(size_t(3) * w * h);
    Bytes argb(size_t(4) * w * h), yuy2(size_t(2) * w * h);
    kvbench::Measure(state, [&] {
        libyuv::RGB24ToARGB(bgr.data(), 3 * w, argb.data(), 4 * w, w, -h);
        libyuv::ARGBToYUY2(argb.data(), 4 * w, yuy2.data(), 2 * w, w, h);
        benchmark::DoNotOptimize(yuy2.data());
    }, kWarmUpFrames);
}
#endif

// Runs `body` with `path` chosen, then goes back to InitPrimitives' choice.
template <class Body>
auto OnPath(PrimitivesPath path, Body body)
{
    return [path, body](benchmark::State& state, FrameSize s) {
        if (!kv::SetPrimitivesPathForTest(path)) {
            state.SkipWithError("path not available on this machine");
            return;
        }
        body(state, s);
        kv::InitPrimitives();
    };
}

// The path InitPrimitives picks (the driver's), set when the benchmark runs:
// registration happens before main, when the simulation may not be up yet.
template <class Body>
auto Chosen(Body body)
{
    return [body](benchmark::State& state, FrameSize s) {
        kv::InitPrimitives();
        body(state, s);
    };
}

const bool g_registered = [] {
    for (FrameSize s : kSizes) {
        const std::string size = SizeName(s);
        benchmark::RegisterBenchmark(("Compare/Yuy2ToBgr24/kv/" + size).c_str(), Chosen(KvYuy2ToBgr24), s);
        benchmark::RegisterBenchmark(("Compare/Bgr24ToYuy2/kv/" + size).c_str(), Chosen(KvBgr24ToYuy2), s);
#ifdef KV_HAVE_LIBYUV
        benchmark::RegisterBenchmark(("Compare/Yuy2ToBgr24/libyuv/" + size).c_str(), LibyuvYuy2ToBgr24, s);
        benchmark::RegisterBenchmark(("Compare/Bgr24ToYuy2/libyuv/" + size).c_str(), LibyuvBgr24ToYuy2, s);
#endif
        const std::pair<PrimitivesPath, const char*> paths[] = {
            {PrimitivesPath::Scalar, "scalar"}, {PrimitivesPath::Sse2, "sse2"}, {PrimitivesPath::Avx2, "avx2"}};
        for (const auto& [path, name] : paths) {
            benchmark::RegisterBenchmark(("Paths/Yuy2ToBgr24/" + std::string(name) + "/" + size).c_str(),
                                         OnPath(path, KvYuy2ToBgr24), s);
            benchmark::RegisterBenchmark(("Paths/Bgr24ToYuy2/" + std::string(name) + "/" + size).c_str(),
                                         OnPath(path, KvBgr24ToYuy2), s);
        }
        benchmark::RegisterBenchmark(("Paths/MirrorInPlace/" + size).c_str(), MirrorOnly, s);
    }
    return true;
}();

}  // namespace
