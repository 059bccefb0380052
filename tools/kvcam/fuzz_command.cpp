// `kvcam fuzz packets [--count N] [--seed S]`: random isochronous packet
// sequences through the driver's payload path (kvharness::FuzzPackets), for
// runs longer than the test suite's. The same seed replays the same run.
// There is no simulated system to trace, so --trace is taken and ignored.
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "commands.h"
#include "packet_feeder.h"
#include "property_fuzzer.h"
#include "system_options.h"

namespace kvcam {
namespace {

struct FuzzOptions {
    bool properties = false;
    uint64_t count = 1'000'000;
    uint64_t seed = 1;
};

bool ParseNumber(std::string_view text, uint64_t& value)
{
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool ParseOptions(std::span<const std::string_view> args, FuzzOptions& options)
{
    if (args.empty() || (args[0] != "packets" && args[0] != "props")) {
        std::fprintf(stderr, "kvcam fuzz: the targets are 'packets' and 'props' (try kvcam fuzz --help)\n");
        return false;
    }
    options.properties = args[0] == "props";
    if (options.properties) {
        options.count = 100'000;
    }
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string_view a = args[i];
        const bool hasValue = i + 1 < args.size();
        if (a == "--count" && hasValue && ParseNumber(args[i + 1], options.count)) {
            ++i;
        } else if (a == "--seed" && hasValue && ParseNumber(args[i + 1], options.seed)) {
            ++i;
        } else if (a == "--trace" && hasValue) {
            ++i;
        } else {
            std::fprintf(stderr, "kvcam fuzz: unexpected argument '%.*s' (try kvcam fuzz --help)\n",
                         static_cast<int>(a.size()), a.data());
            return false;
        }
    }
    return true;
}

}  // namespace

void PrintFuzzHelp()
{
    std::printf("usage: kvcam fuzz packets [--count N] [--seed S]\n"
                "       kvcam fuzz props [--count N] [--seed S]\n\n"
                "props: N random property requests (default 100000) against the started device's capture\n"
                "filter: the driver's property sets and an unknown one, any id and flags, buffers of any\n"
                "length, 32- and 64-bit callers. Fails on any kernel rule broken or anything left behind.\n\n"
                "Feeds N random isochronous packets (default 1000000) through the driver's payload\n"
                "path: lengths 0 to the packet size, random header bytes and bits, error statuses,\n"
                "ends of frame anywhere, on small YUY2 and motion-JPEG streams. Fails when a frame\n"
                "grows past its capacity or a finished frame is neither delivered nor dropped.\n"
                "The same seed (default 1) gives the same run.\n");
}

int RunFuzzCommand(std::span<const std::string_view> args)
{
    FuzzOptions options;
    if (!ParseOptions(args, options)) {
        return kExitUsage;
    }
    if (options.properties) {
        ParsedSystemOptions parsed;
        return RunOnSystem("fuzz", parsed, [&](kvharness::System& system) {
            if (!system.started() || system.OpenFilter() != STATUS_SUCCESS) {
                std::fprintf(stderr, "kvcam fuzz: the device did not start\n");
                return false;
            }
            const auto report = kvharness::FuzzProperties(*system.filter(), options.seed, options.count);
            std::printf("requests   %" PRIu64 "\nsucceeded  %" PRIu64 " (driver control %" PRIu64
                        ", video control %" PRIu64 ", dropped frames %" PRIu64 ", unknown set %" PRIu64 ")\n",
                        report.requests, report.succeeded, report.succeededBySet[0], report.succeededBySet[1],
                        report.succeededBySet[2], report.succeededBySet[3]);
            return report.succeededBySet[3] == 0;
        });
    }
    const kvharness::FuzzReport report = kvharness::FuzzPackets(options.seed, options.count);
    std::printf("packets    %" PRIu64 "\nrequests   %" PRIu64 "\ndelivered  %" PRIu64 "\ndropped    %" PRIu64 "\n",
                report.packets, report.requests, report.frames.delivered, report.frames.dropped);
    if (!report.problem.empty()) {
        std::printf("FAILED     %s (seed %" PRIu64 ")\n", report.problem.c_str(), options.seed);
        return kExitFailure;
    }
    std::printf("every frame delivered or dropped, none past its capacity\n");
    return kExitOk;
}

}  // namespace kvcam
