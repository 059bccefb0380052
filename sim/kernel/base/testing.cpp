// End-of-test checks: one call per module of the simulated kernel. Each call
// is a direct reference, so that a module's check is always linked in.
#include "kvsim/testing.h"

#include "kvsim/diag.h"
#include "kvsim/object.h"

namespace kvsim {

std::vector<std::string> RunEndOfTestChecks() {
    std::vector<std::string> failures;
    for (auto& v : TakeViolations()) failures.push_back("kernel rule violated: " + v);
    return failures;
}

}  // namespace kvsim
