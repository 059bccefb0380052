// The ks.sys simulation's checks of Driver Verifier's rules for AVStream
// drivers, each broken on purpose by one callback of the test minidriver:
// callbacks slower than 500 ms (KsTimedDeviceCallbacks and its filter and pin
// forms), the processing mutex held longer than 100 ms
// (KsTimedProcessingMutex) or taken again by its holder (KsProcessingMutex),
// KsAcquireDevice and KsReleaseDevice out of balance (KsDeviceMutex), a lock
// kept past the end of a callback, a stream pointer locked twice
// (KsStreamPointerLock) or still locked when the pin stops
// (KsStreamPointerUnlock). And closing a handle reaches the minidriver even
// when no IRP can be allocated.
// https://learn.microsoft.com/windows-hardware/drivers/devtest/rules-for-avstream-drivers
#include <gmock/gmock.h>

#include "kvsim/diag.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

// The time budgets are judged in simulated time.
const bool g_virtual = (kvsim::SetClockMode(kvsim::ClockMode::Virtual), true);
FAST_MUTEX g_fast;

void Delay(LONGLONG ms) {
    LARGE_INTEGER interval;
    interval.QuadPart = -ms * kvsim::kMillisecond;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}
PKSSTREAM_POINTER LockedEdge() {
    return KsPinGetLeadingEdgeStreamPointer(Recorder().capturePin, KSSTREAM_POINTER_STATE_LOCKED);
}

struct RuleCase {
    const char* name;
    const char* callback;  // the minidriver's callback that runs the misstep
    void (*misstep)();
    const char* expected;
};
void PrintTo(const RuleCase& c, std::ostream* os) { *os << c.name; }

class BrokenRule : public KsTest, public ::testing::WithParamInterface<RuleCase> {};

// Start, connect, run, one buffer (Process), stop, close: the misstep runs in
// its callback on the way.
TEST_P(BrokenRule, IsReported) {
    ExInitializeFastMutex(&g_fast);
    Recorder().misstepIn = GetParam().callback;
    Recorder().misstep = GetParam().misstep;
    ASSERT_NO_FATAL_FAILURE(RunWithBuffers(1, 4096, false));
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    pin_->Close();
    EXPECT_THAT(kvsim::TakeViolations(), ::testing::Contains(::testing::HasSubstr(GetParam().expected)));
}

INSTANTIATE_TEST_SUITE_P(
    Minidriver, BrokenRule,
    ::testing::Values(
        RuleCase{"SlowPostStart", "PostStart", [] { Delay(600); },
                 "KS device callback PostStart took 600 ms (KsTimedDeviceCallbacks"},
        RuleCase{"SlowProcess", "Process", [] { Delay(150); }, "held for 150 ms (KsTimedProcessingMutex"},
        RuleCase{"DeviceMutexKept", "PostStart", [] { KsAcquireDevice(Recorder().device); },
                 "PostStart returned with the device mutex acquired 1 more time(s) than released"},
        RuleCase{"DeviceMutexReleasedTooOften", "PostStart", [] { KsReleaseDevice(Recorder().device); },
                 "PostStart released the device mutex 1 more time(s) than it acquired it"},
        RuleCase{"FastMutexKept", "SetDeviceState", [] { ExAcquireFastMutex(&g_fast); },
                 "KS pin callback SetDeviceState"},
        RuleCase{"ProcessingMutexTakenAgain", "Process",
                 [] {
                     KsPinAcquireProcessingMutex(Recorder().capturePin);
                     KsPinReleaseProcessingMutex(Recorder().capturePin);
                 },
                 "acquired again by the thread that holds it (KsProcessingMutex"},
        RuleCase{"StreamPointerLockedTwice", "Process",
                 [] {
                     PKSSTREAM_POINTER edge = LockedEdge();
                     KsStreamPointerLock(edge);
                     KsStreamPointerUnlock(edge, FALSE);
                 },
                 "is locked already"},
        RuleCase{"StreamPointerLockedAtStop", "Process", [] { LockedEdge(); },
                 "stopped with its leading-edge stream pointer"}),
    [](const auto& info) { return std::string(info.param.name); });

// Closing a handle cannot fail for want of memory: with every IRP allocation
// failing, the pin and the filter still close (the device is then removed
// without a filter left open).
TEST_F(KsTest, ClosesReachTheMinidriverWhenIrpsCannotBeAllocated) {
    OpenCapturePin();
    kvsim::PoolFailTag(kvsim::PoolTag("Irp "));
    EXPECT_EQ(pin_->Close(), STATUS_SUCCESS);
    EXPECT_EQ(filter_->Close(), STATUS_SUCCESS);
    kvsim::PoolResetFaultInjection();
}

}  // namespace
}  // namespace kvtest::ks
