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

}  // namespace kvsim
