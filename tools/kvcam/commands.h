// kvcam's commands: each takes the arguments after its name and returns the
// process exit code (see ExitCode).
#pragma once

#include <cstdint>
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

// `kvcam formats [system options] [--json]`: the start and the pins' data
// ranges (formats_command.cpp).
int RunFormatsCommand(std::span<const std::string_view> args);
void PrintFormatsHelp();

// `kvcam info [system options] [--verbose]`: the camera, the start, the
// formats, the filter's pins and topology (info_command.cpp).
int RunInfoCommand(std::span<const std::string_view> args);
void PrintInfoHelp();

// `kvcam stream [options]`: the capture pin streaming into files
// (stream_command.cpp).
int RunStreamCommand(std::span<const std::string_view> args);
void PrintStreamHelp();

// `kvcam get NAME|0xID` and `kvcam set NAME|0xID VALUE`: one setting through
// the driver-control tunnel (setting_commands.cpp).
int RunGetCommand(std::span<const std::string_view> args);
// A setting named as get and set take it: its registry name or 0xID.
bool SettingIdFromText(std::string_view text, uint16_t* id);
void PrintGetHelp();
int RunSetCommand(std::span<const std::string_view> args);
void PrintSetHelp();
// `kvcam controls [--json]`: every setting with its range (setting_commands.cpp).
int RunControlsCommand(std::span<const std::string_view> args);
void PrintControlsHelp();

// `kvcam image IN OUT [options]`: the driver's picture stages on a picture
// file (image_command.cpp).
int RunImageCommand(std::span<const std::string_view> args);
void PrintImageHelp();

// `kvcam fuzz packets [--count N] [--seed S]`: random packets through the
// driver's payload path (fuzz_command.cpp).
int RunFuzzCommand(std::span<const std::string_view> args);
void PrintFuzzHelp();

// `kvcam detect PICTURE [--json] [--out FILE.png]`: the driver's face
// detector on one picture (detect_command.cpp).
int RunDetectCommand(std::span<const std::string_view> args);
void PrintDetectHelp();

}  // namespace kvcam
