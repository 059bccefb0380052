// End-of-test checks: one call per module of the simulated kernel (each a
// direct reference, so that a module's check is always linked in), plus the
// checks that components above the kernel register when first used.
#include "kvsim/testing.h"

#include <algorithm>
#include <mutex>

#include "kvsim/devinterface.h"
#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "kvsim/registry.h"
#include "kvsim/sched.h"

namespace kvsim {
namespace {

struct Registered {
    std::string name;
    int order;
    EndOfTestCheck check;
};

std::mutex g_lock;
std::vector<Registered>& Checks() {
    static auto* checks = new std::vector<Registered>;
    return *checks;
}

void RunRegistered(bool early, std::vector<std::string>& failures) {
    std::vector<Registered> copy;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        copy = Checks();
    }
    for (auto& r : copy) {
        if ((r.order < 0) != early) continue;
        for (auto& line : r.check()) failures.push_back(r.name + ": " + line);
    }
}

}  // namespace

void RegisterEndOfTestCheck(const std::string& name, int order, EndOfTestCheck check) {
    std::lock_guard<std::mutex> guard(g_lock);
    auto& checks = Checks();
    checks.erase(std::remove_if(checks.begin(), checks.end(), [&](const Registered& r) { return r.name == name; }),
                 checks.end());
    checks.push_back({name, order, std::move(check)});
    std::stable_sort(checks.begin(), checks.end(),
                     [](const Registered& a, const Registered& b) { return a.order < b.order; });
}

void PrepareNextTest() {
    ResetSchedulerForNextTest();
    ObResetHandleNumbering();
}

std::vector<std::string> RunEndOfTestChecks() {
    std::vector<std::string> failures;
    RunRegistered(/*early=*/true, failures);
    for (auto& v : TakeViolations()) failures.push_back("kernel rule violated: " + v);
    for (auto& p : SchedEndOfTestCheck()) failures.push_back("scheduler: " + p);
    for (auto& line : CheckOpenKeysAndFiles()) failures.push_back(line);
    for (auto& line : IoEndOfTestCheck()) failures.push_back("I/O manager: " + line);
    for (auto& line : DeviceInterfaceEndOfTestCheck()) failures.push_back("I/O manager: " + line);
    RunRegistered(/*early=*/false, failures);
    for (auto& line : PoolEndOfTestCheck()) failures.push_back("pool: " + line);
    return failures;
}

}  // namespace kvsim
