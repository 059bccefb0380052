// kvcam's commands: each takes the arguments after its name and returns the
// process exit code (see ExitCode).
#pragma once

#include <span>
#include <string_view>

namespace kvcam {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,  // the command ran and failed (unreadable or malformed input, ...)
    kExitUsage = 2,    // bad command line
};

// `kvcam driver [--sys PATH] [--json]`: describes a built kvdrv.sys.
int RunDriverCommand(std::span<const std::string_view> args);
void PrintDriverHelp();

}  // namespace kvcam
