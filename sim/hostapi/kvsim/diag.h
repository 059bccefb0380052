// Host-side view of the simulation's diagnostics (sim/kernel/base/diag.cpp):
// the debug output of DbgPrint/KdPrint, and the violations of documented
// kernel rules (a wait at DISPATCH_LEVEL, a registry call above
// PASSIVE_LEVEL, a failed ASSERT, a breakpoint, ...) that fail a test.
#pragma once
#include <string>
#include <vector>

namespace kvsim {

// Records a violation. The test support fails the running test with it; the
// text is also written to stderr at once so that a hang is explained.
void ReportViolation(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::vector<std::string> TakeViolations();

// The debug output: each DbgPrint call is one message, exactly as formatted
// (messages without a line end stay as they are).
std::vector<std::string> DebugMessages();
// The same output joined and split at line ends (a last unterminated piece
// counts as a line).
std::vector<std::string> DebugLines();
void ClearDebugLog();
// Echo every message to stderr as it is printed (kvcam --verbose, debugging).
void SetDebugEcho(bool on);
// Writes every message from now on to `path`, each on a line that begins with
// the virtual time in seconds ("12.3456789 text"); an empty path stops. The
// environment variable KVSIM_TRACE=FILE does the same from the start. With
// the same seed (KVSIM_SEED), two runs write the same trace.
void SetTraceFile(const std::string& path);

}  // namespace kvsim
