// `kvcam formats`: starts the driver on a camera in the simulation and
// prints the start's result and the capture and still pins' data ranges as
// a client reads them (KSPROPERTY_PIN_DATARANGES), as a table or as one JSON
// object.
#include <cstdio>

#include "commands.h"
#include "report.h"
#include "system_options.h"

namespace kvcam {

void PrintFormatsHelp()
{
    std::printf("usage: kvcam formats [--camera CFG.bin [--device DEV.bin] | --camera NAME] [--registry FILE.reg]\n"
                "                     [--system-root DIR] [--json]\n\n"
                "Loads kvdrv into the simulation, plugs in the camera, starts it and prints the start's\n"
                "status, the failing step's debug line, and the data ranges of the capture pin (0) and\n"
                "the still pin (2) as KSPROPERTY_PIN_DATARANGES returns them.\n\n"
                "%s"
                "  --json               print one JSON object: start_status, start_message, capture, still\n\n"
                "exit codes: 0 started, 1 the start failed or the input is unreadable, 2 bad command line\n",
                kSystemOptionsHelp);
}

int RunFormatsCommand(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed = ParseSystemOptions(args);
    const bool json = TakeJsonOnly(parsed);
    return RunOnSystem("formats", parsed, [json](kvharness::System& system) {
        FormatsReport report = CollectFormats(system);
        std::string out = json ? JsonText(FormatsJson(report)) + "\n" : FormatsTable(report);
        std::fputs(out.c_str(), stdout);
        if (!report.error.empty()) {
            std::fprintf(stderr, "kvcam formats: %s\n", report.error.c_str());
        }
        return report.started && report.error.empty();
    });
}

}  // namespace kvcam
