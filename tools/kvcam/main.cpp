// kvcam: the USBKV developer's command-line tool.
//
//   kvcam --help
//   kvcam driver [--sys PATH] [--json]
//   kvcam formats [--camera CFG.bin [--device DEV.bin]] [--registry FILE.reg] [--json]
//   kvcam info [...] [--verbose]
//
// Results go to stdout (text, or JSON with --json); errors go to stderr;
// exit codes are those of commands.h. A new command is one more entry in the
// table below.
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

#include "commands.h"

namespace {

struct Command {
    std::string_view name;
    std::string_view summary;
    int (*run)(std::span<const std::string_view>);
    void (*help)();
};

constexpr Command kCommands[] = {
    {"stream", "stream from the camera through the capture pin into .y4m / .mjpeg / PNG files",
     kvcam::RunStreamCommand, kvcam::PrintStreamHelp},
    {"driver", "describe the built kvdrv.sys (PE headers, sections, imports)", kvcam::RunDriverCommand,
     kvcam::PrintDriverHelp},
    {"formats", "start the driver on a camera; print the capture and still pins' formats", kvcam::RunFormatsCommand,
     kvcam::PrintFormatsHelp},
    {"info", "start the driver on a camera; describe the device, formats, pins and topology", kvcam::RunInfoCommand,
     kvcam::PrintInfoHelp},
    {"get", "read one setting through the filter's driver-control property", kvcam::RunGetCommand,
     kvcam::PrintGetHelp},
    {"set", "write one setting through the filter's driver-control property", kvcam::RunSetCommand,
     kvcam::PrintSetHelp},
    {"image", "run the driver's picture stages (effects, frames, zoom, rotation) on a picture file",
     kvcam::RunImageCommand, kvcam::PrintImageHelp},
    {"controls", "list every setting with its value and the camera's ranges", kvcam::RunControlsCommand,
     kvcam::PrintControlsHelp},
    {"fuzz", "random isochronous packets or property requests against the driver", kvcam::RunFuzzCommand,
     kvcam::PrintFuzzHelp},
    {"detect", "run the driver's face detector on a picture; list the faces", kvcam::RunDetectCommand,
     kvcam::PrintDetectHelp},
};

void PrintHelp(std::FILE* out)
{
    std::fprintf(out, "usage: kvcam <command> [options]\n"
                "       kvcam <command> --help\n\n"
                "commands:\n");
    for (const Command& c : kCommands) {
        std::fprintf(out, "  %-10.*s %.*s\n", static_cast<int>(c.name.size()), c.name.data(),
                    static_cast<int>(c.summary.size()), c.summary.data());
    }
    std::fprintf(out, "\nexit codes: 0 success, 1 failure (start failed, bad input), 2 bad command line\n");
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string_view> args(argv + 1, argv + argc);
    if (args.empty()) {
        PrintHelp(stderr);
        return kvcam::kExitUsage;
    }
    if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        PrintHelp(stdout);
        return kvcam::kExitOk;
    }
    for (const Command& c : kCommands) {
        if (args[0] == c.name) {
            std::span<const std::string_view> rest(args.data() + 1, args.size() - 1);
            for (std::string_view a : rest) {
                if (a == "--help" || a == "-h") {
                    c.help();
                    return kvcam::kExitOk;
                }
            }
            return c.run(rest);
        }
    }
    std::fprintf(stderr, "kvcam: unknown command '%.*s' (try kvcam --help)\n", static_cast<int>(args[0].size()),
                 args[0].data());
    return kvcam::kExitUsage;
}
