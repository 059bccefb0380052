// The special effects, one frame per iteration:
//  - Effects/kv/N/640x480: effect N on a 640 x 480 picture (a diagonal
//    gradient with noise, as a camera sees a lit wall), RGB for the RGB
//    effects and YUY2 for 3, 16 and 17. Each iteration starts from the same
//    picture (restored outside the timing), so that effects which would
//    wear the picture down (grain, emboss, strokes) are timed on a real one.
//  - Compare/Pipeline/kv/1280x720 and Compare/Pipeline/libyuv/1280x720:
//    what the frame loop does for the warm tone and a half turn on YUY2
//    output: YUY2 to RGB, the tone, the rotation setting's half turn, back
//    to YUY2. libyuv's nearest chain is YUY2ToARGB, ARGBColorTable (a
//    per-channel curve lookup, without the tint's luma mix), ARGBRotate by
//    180 and ARGBToYUY2. Speed only: the bytes differ.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "imaging/effects.h"
#include "imaging/primitives.h"
#include "wdm.h"
#ifdef KV_HAVE_LIBYUV
#include <libyuv.h>
#endif

namespace {

using Bytes = std::vector<UCHAR>;

constexpr ULONG kWidth = 640;
constexpr ULONG kHeight = 480;
constexpr int kWarmUpFrames = 20;
constexpr ULONG kWarmTone = 8;

constexpr ULONG kPipelineWidth = 1280;
constexpr ULONG kPipelineHeight = 720;
constexpr LONG kHalfTurn = 2;

// A diagonal gradient per channel with noise of +-16.
Bytes Picture(size_t bytesPerPixel, ULONG width = kWidth, ULONG height = kHeight)
{
    std::mt19937 rng(640480);
    Bytes picture(bytesPerPixel * width * height);
    for (ULONG y = 0; y < height; ++y) {
        for (ULONG x = 0; x < width; ++x) {
            for (size_t c = 0; c < bytesPerPixel; ++c) {
                const int base = int((x * (c + 1) + y * (3 - c % 3)) * 255 / (width * 2 + height * 3));
                const int noisy = base + int(rng() % 33) - 16;
                picture[(size_t(y) * width + x) * bytesPerPixel + c] = UCHAR(std::clamp(noisy, 0, 255));
            }
        }
    }
    return picture;
}

void OneEffect(benchmark::State& state, ULONG effect)
{
    const bool yuy2 = IsYuy2Effect(effect);
    const Bytes original = Picture(yuy2 ? 2 : 3);
    Bytes frame = original, output(original.size());
    EffectState effects;
    InitEffectState(&effects);
    auto run = [&] {
        if (yuy2) {
            ApplySpecialEffect(&effects, effect, kWidth, kHeight, output.data(), frame.data());
        } else {
            ApplySpecialEffect(&effects, effect, kWidth, kHeight, frame.data(), nullptr);
        }
    };
    for (int i = 0; i < kWarmUpFrames; ++i) run();
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(frame.data(), original.data(), original.size());
        state.ResumeTiming();
        run();
        benchmark::DoNotOptimize(frame.data());
    }
    state.SetItemsProcessed(state.iterations());
    ApplySpecialEffect(&effects, 0, 0, 0, nullptr, nullptr);
}

void KvChain(benchmark::State& state)
{
    kv::InitPrimitives();
    const ULONG w = kPipelineWidth, h = kPipelineHeight;
    const Bytes yuy2 = Picture(2, w, h);
    Bytes a(size_t(3) * w * h), b(a.size()), out(yuy2.size());
    EffectState effects;
    InitEffectState(&effects);
    auto frame = [&] {
        kv::Yuy2ToRgb24(yuy2.data(), 2 * w, a.data(), 3 * w, w, h);
        ApplySpecialEffect(&effects, kWarmTone, w, h, a.data(), nullptr);
        kv::RotateFrame(kHalfTurn, w, h, b.data(), a.data());
        kv::Rgb24ToYuy2BottomUp(b.data(), 3 * w, out.data(), 2 * w, w, h);
    };
    for (int i = 0; i < kWarmUpFrames; ++i) frame();
    for (auto _ : state) {
        frame();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}

#ifdef KV_HAVE_LIBYUV
void LibyuvChain(benchmark::State& state)
{
    const int w = int(kPipelineWidth), h = int(kPipelineHeight);
    const Bytes yuy2 = Picture(2, kPipelineWidth, kPipelineHeight);
    Bytes a(size_t(4) * w * h), b(a.size()), out(yuy2.size());
    // A warm curve per channel, ARGB order (B, G, R, A), alpha kept.
    uint8_t table[256 * 4];
    for (int v = 0; v < 256; ++v) {
        table[v * 4 + 0] = uint8_t(v * v / 255);
        table[v * 4 + 1] = uint8_t(v);
        table[v * 4 + 2] = uint8_t(255 - (255 - v) * (255 - v) / 255);
        table[v * 4 + 3] = uint8_t(v);
    }
    auto frame = [&] {
        libyuv::YUY2ToARGB(yuy2.data(), 2 * w, a.data(), 4 * w, w, h);
        libyuv::ARGBColorTable(a.data(), 4 * w, table, 0, 0, w, h);
        libyuv::ARGBRotate(a.data(), 4 * w, b.data(), 4 * w, w, h, libyuv::kRotate180);
        libyuv::ARGBToYUY2(b.data(), 4 * w, out.data(), 2 * w, w, h);
    };
    for (int i = 0; i < kWarmUpFrames; ++i) frame();
    for (auto _ : state) {
        frame();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}
#endif

const bool g_registered = [] {
    const std::string size = std::to_string(kWidth) + "x" + std::to_string(kHeight);
    for (ULONG effect = 1; effect <= 17; ++effect) {
        benchmark::RegisterBenchmark(("Effects/kv/" + std::to_string(effect) + "/" + size).c_str(), OneEffect, effect);
    }
    const std::string pipeline = std::to_string(kPipelineWidth) + "x" + std::to_string(kPipelineHeight);
    benchmark::RegisterBenchmark(("Compare/Pipeline/kv/" + pipeline).c_str(), KvChain);
#ifdef KV_HAVE_LIBYUV
    benchmark::RegisterBenchmark(("Compare/Pipeline/libyuv/" + pipeline).c_str(), LibyuvChain);
#endif
    return true;
}();

}  // namespace
