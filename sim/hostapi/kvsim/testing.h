// End-of-test checks of the simulation: what a test left behind that a real
// kernel would have complained about. The test support (tests/support) runs
// them after every test and fails the test with each line returned.
#pragma once
#include <functional>
#include <string>
#include <vector>

namespace kvsim {

// Runs every module's end-of-test check (violations reported, pool
// allocations still held, simulated threads still running, open handles ...)
// and returns one line per problem. Each module's check also resets what it
// checked, so that the next test starts clean.
std::vector<std::string> RunEndOfTestChecks();

// Before each test: the clock, the seeded schedule, thread and handle
// numbering start as they did for the first test, so that a test's times,
// ids and interleaving do not depend on which tests ran before it.
void PrepareNextTest();

// Components above the kernel (the USB bus, ks.sys) register their own check
// when they are first used, so that a test executable that never uses them
// does not link them. Checks with a lower `order` run first; a component
// whose check completes IRPs or cancels callbacks runs before the kernel's
// own checks (order 0), which then see the result. Registering the same
// name again replaces the check.
using EndOfTestCheck = std::function<std::vector<std::string>()>;
void RegisterEndOfTestCheck(const std::string& name, int order, EndOfTestCheck check);

}  // namespace kvsim
