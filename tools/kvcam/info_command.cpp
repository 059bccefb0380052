// `kvcam info`: the same start as `kvcam formats`, then the device as a
// person wants to see it: the camera on the bus (speed, interfaces,
// alternate settings and their pipes), the start, the formats, the filter's
// pins and topology, and with --verbose the driver's debug log.
#include <cstdio>

#include "commands.h"
#include "report.h"
#include "system_options.h"

namespace kvcam {

void PrintInfoHelp()
{
    std::printf("usage: kvcam info [--camera CFG.bin [--device DEV.bin] | --camera NAME] [--registry FILE.reg]\n"
                "                  [--system-root DIR] [--verbose]\n\n"
                "Starts the camera as `kvcam formats` does and describes it: USB speed, interfaces and\n"
                "pipes, the start's result, the formats, the filter's pins and topology, and the pool's\n"
                "use by tag.\n\n"
                "%s"
                "  --verbose            also print the driver's debug log (DbgPrint output)\n\n"
                "exit codes: 0 started, 1 the start failed or the input is unreadable, 2 bad command line\n",
                kSystemOptionsHelp);
}

int RunInfoCommand(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed = ParseSystemOptions(args);
    bool verbose = false;
    for (std::string_view a : parsed.rest) {
        if (a == "--verbose" || a == "-v") {
            verbose = true;
        } else if (parsed.error.empty()) {
            parsed.error = "unexpected argument '" + std::string(a) + "'";
        }
    }
    return RunOnSystem("info", parsed, [verbose](kvharness::System& system) {
        FormatsReport report = CollectFormats(system);
        std::fputs(InfoText(system, report, verbose).c_str(), stdout);
        if (!report.error.empty()) {
            std::fprintf(stderr, "kvcam info: %s\n", report.error.c_str());
        }
        return report.started && report.error.empty();
    });
}

}  // namespace kvcam
