// The main of every test executable: GoogleTest with the simulation's
// end-of-test checks, so that a violated kernel rule, a leaked pool
// allocation or a simulated thread left running fails the test that did it.
#include <gtest/gtest.h>

#include <cstdio>

#include "kvsim/testing.h"

namespace {

// As in GoogleTest's own leak-checker sample: a failure raised in OnTestEnd
// counts against the test that just ended. Appended after the default
// printer, this listener sees OnTestEnd first (end events go in reverse
// order), so the printed verdict includes these failures.
class SimulationChecks : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { kvsim::PrepareNextTest(); }
    void OnTestEnd(const testing::TestInfo&) override {
        for (const auto& line : kvsim::RunEndOfTestChecks()) ADD_FAILURE() << line;
    }
};

}  // namespace

int main(int argc, char** argv) {
    // Death tests re-execute the test binary instead of forking it: a forked
    // child would inherit the simulation's state without its DPC and worker
    // threads, and hang at its first wait.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new SimulationChecks);
    return RUN_ALL_TESTS();
}
