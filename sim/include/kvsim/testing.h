// End-of-test checks of the simulation: what a test left behind that a real
// kernel would have complained about. The test support (tests/support) runs
// them after every test and fails the test with each line returned.
#pragma once
#include <string>
#include <vector>

namespace kvsim {

// Runs every module's end-of-test check (violations reported, pool
// allocations still held, simulated threads still running, open handles ...)
// and returns one line per problem. Each module's check also resets what it
// checked, so that the next test starts clean.
std::vector<std::string> RunEndOfTestChecks();

}  // namespace kvsim
