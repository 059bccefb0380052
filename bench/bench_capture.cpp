// The capture path's figures.
//
// Compare/Reassembly: the driver's packet processing of one whole YUY2
// frame, fed requests built in memory as the bus completes them (parse the
// payload headers, copy the payload into the collection buffer, copy the
// finished frame into the ready buffer; no bus, no scheduler), against one
// memcpy of the frame between buffers taken in turn from a 256 MiB pool, so
// that the copy meets cold caches as a frame arriving from the bus does.
//
// Stream: the whole simulated system streaming through the capture pin (the
// virtual camera, the bus, the driver, ks.sys, a client with a master
// clock), in host frames a second.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "capture_offers.h"
#include "device/formats.h"
#include "packet_feeder.h"
#include "stream_loop.h"
#include "system.h"

namespace {

// 3 x 1024 bytes a microframe, the largest high-speed isochronous packet.
constexpr ULONG kMaxPacket = 3072;
constexpr ULONG kPacketsPerRequest = 128;
constexpr size_t kColdPool = size_t{256} << 20;

struct Size {
    ULONG width, height;
};
constexpr Size kSizes[] = {{640, 480}, {1280, 720}};

void Reassembly(benchmark::State& state, Size size)
{
    kvharness::IsoStreamFeeder feeder(size.width, size.height, /*uncompressed=*/true, kMaxPacket);
    if (!feeder.ok()) {
        state.SkipWithError("the stream could not be set up");
        return;
    }
    std::vector<uint8_t> payload(feeder.capacity());
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
    // One frame's packets, in requests of 128 as a high-speed transfer has.
    auto packets = kvharness::FramePackets(payload, kMaxPacket, 0);
    std::vector<std::unique_ptr<kvharness::PreparedRequest>> requests;
    for (size_t at = 0; at < packets.size(); at += kPacketsPerRequest) {
        const size_t n = std::min<size_t>(kPacketsPerRequest, packets.size() - at);
        requests.push_back(std::make_unique<kvharness::PreparedRequest>(
            std::span<const kvharness::IsoPacketIn>(packets.data() + at, n), kMaxPacket));
    }
    // The first frames after start are spoiled on purpose; run past them.
    for (int i = 0; i < 3; ++i) {
        for (auto& r : requests) feeder.Process(*r);
    }
    feeder.Drain();
    for (auto _ : state) {
        for (auto& r : requests) feeder.Process(*r);
        benchmark::DoNotOptimize(feeder.ready()[0]);
    }
    if (feeder.Drain().delivered == 0) state.SkipWithError("no frame was delivered");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * feeder.capacity());
    state.SetItemsProcessed(state.iterations());
}

void MemcpyCold(benchmark::State& state, Size size)
{
    const size_t frame = size_t{size.width} * size.height * 2;
    std::vector<uint8_t> pool(kColdPool, 1);
    const size_t slots = kColdPool / frame;
    size_t slot = 0;
    for (auto _ : state) {
        uint8_t* from = pool.data() + slot * frame;
        uint8_t* to = pool.data() + ((slot + slots / 2) % slots) * frame;
        std::memcpy(to, from, frame);
        benchmark::DoNotOptimize(to[0]);
        slot = (slot + 1) % slots;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame));
    state.SetItemsProcessed(state.iterations());
}

// The system streaming one of the built-in camera's formats.
void Stream(benchmark::State& state, Size size, bool rgb)
{
    kvharness::System system(kvharness::SystemOptions{});
    if (!system.Boot() || !system.started() || system.OpenFilter() != STATUS_SUCCESS) {
        state.SkipWithError("the system did not start");
        return;
    }
    const ULONG compression = rgb ? 0 : kv::kFourccYuy2;
    kvbench::StreamFrames(state, system, compression, size.width, size.height);
}

void RegisterAll()
{
    for (Size s : kSizes) {
        const std::string name = std::to_string(s.width) + "x" + std::to_string(s.height);
        benchmark::RegisterBenchmark(("Compare/Reassembly/kv/" + name).c_str(), Reassembly, s)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Compare/Reassembly/memcpy_cold/" + name).c_str(), MemcpyCold, s)
            ->Unit(benchmark::kMicrosecond);
    }
    for (Size s : kSizes) {
        const std::string name = std::to_string(s.width) + "x" + std::to_string(s.height);
        benchmark::RegisterBenchmark(("Stream/YUY2/" + name).c_str(), Stream, s, false)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("Stream/MJPEG_to_RGB24/" + name).c_str(), Stream, s, true)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
}

const int kRegistered = (RegisterAll(), 0);

}  // namespace
