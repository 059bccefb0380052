// Benchmark of the driver's ExtractVSInfo (the capture format
// table from the configuration descriptor) on each real camera's
// descriptors in the shared cameras folder (KV_SHARED_DIR/cameras). One
// iteration: the walk, the table allocation and its release.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include "camera/descriptor_builder.h"
#include "device/formats.h"

namespace {

void ExtractVSInfoOn(benchmark::State& state, const std::vector<uint8_t>& configuration) {
    std::vector<uint8_t> copy = configuration;
    auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(copy.data());
    FormatTables formats;
    USHORT entries = 0;
    for (auto _ : state) {
        USHORT n = 0;
        PKS_DATARANGE_VIDEO table = nullptr;
        NTSTATUS status = formats.ExtractVSInfo(config, static_cast<ULONG>(copy.size()), &table, &n);
        if (!NT_SUCCESS(status)) {
            state.SkipWithError("ExtractVSInfo failed");
            break;
        }
        entries = n;
        formats.m_pCaptureTable = table;  // released with the tables
        formats.Release();
    }
    state.counters["entries"] = entries;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(copy.size()));
}

// One benchmark per "<name>.cfg_desc.bin" with its "<name>.dev_desc.bin".
int RegisterCameras() {
    const std::string dir = std::string(KV_SHARED_DIR) + "/cameras";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
        std::string file = entry.path().filename().string();
        const std::string suffix = ".cfg_desc.bin";
        if (file.size() <= suffix.size() || file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) {
            continue;
        }
        std::string name = file.substr(0, file.size() - suffix.size());
        auto set = kvsim::camera::LoadDescriptorFiles(dir, name);
        if (!set) continue;
        benchmark::RegisterBenchmark(("BM_ExtractVSInfo/" + name).c_str(), ExtractVSInfoOn, set->configuration);
    }
    return 0;
}
const int g_registered = RegisterCameras();

}  // namespace
