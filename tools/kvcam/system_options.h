// The command-line options that describe the simulated system, shared by
// `kvcam formats`, `kvcam info` and later commands:
//   --camera CFG.bin [--device DEV.bin]   a camera's captured descriptors (a
//                                         plain device descriptor when there
//                                         is no DEV.bin)
//   --camera NAME                         the shared camera NAME (both files)
//   --registry FILE.reg                   registry loaded before, saved after
//   --system-root DIR                     the host folder for \SystemRoot
//   --seed N                              seeded interleavings (0: the fixed schedule)
//   --trace FILE                          the debug log with the virtual time of each line
// Each option also accepts the --name=value form.
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "system.h"

namespace kvcam {

struct ParsedSystemOptions {
    kvharness::SystemOptions system;
    std::vector<std::string_view> rest;  // arguments that are not system options, in order
    std::string error;                   // usage error (exit 2)
    std::string inputError;              // unreadable camera files (exit 1)
    std::vector<std::string> notes;      // said on stderr before the run
    std::optional<uint64_t> seed;        // --seed
    std::string traceFile;               // --trace
};

ParsedSystemOptions ParseSystemOptions(std::span<const std::string_view> args);

// For commands whose only own option is --json: whether it was given; any
// other argument becomes the usage error.
bool TakeJsonOnly(ParsedSystemOptions& parsed);

// The common run of a command on the simulated system: reports usage and
// input errors (exit 2 / 1), boots, calls `body` (which prints its report
// and returns whether it succeeded), shuts down (the registry file saved),
// and reports what the simulation's end-of-run checks found (violated kernel
// rules, leaked pool, threads or handles left) on stderr as failures.
int RunOnSystem(const char* command, const ParsedSystemOptions& parsed,
                const std::function<bool(kvharness::System&)>& body);

// The help lines of the options above.
extern const char* const kSystemOptionsHelp;

}  // namespace kvcam
