// The idle timer's exact due times: 5 s from the start, period 5000 ms, and
// re-armed 5 s after the set-power that follows a system-sleep query. These
// tests read DueTime - Now() to the 100 ns, which only the virtual clock
// gives: in Parallel mode (the tsan preset) the clock is the host's and
// moves between the KeSetTimerEx and the read. So this executable forces
// Virtual mode, as ke_dispatcher_test does; idle_power_test.cpp keeps its
// Parallel coverage.
#include <gtest/gtest.h>

#include "kvsim/sched.h"
#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

TEST(IdleTimer, StartArmsItForFiveSecondsThenEvery5000ms)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    const IdlePower& idle = rig.Idle();
    EXPECT_EQ(idle.m_IdlePowerEnabled, 1u);
    EXPECT_EQ(idle.m_IdleActive, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_EQ(DriverTestAccess::IdleTimer(idle).Period, 5000);
    EXPECT_EQ(static_cast<LONGLONG>(DriverTestAccess::IdleTimer(idle).DueTime.QuadPart) - kvsim::Now(),
              5 * kvsim::kSecond);
}

// A system sleep (query-power action PowerActionSleep or beyond) stops the
// idle timer; the set-power that follows restarts it once.
TEST(IdleTimer, ASystemSleepQueryStopsItAndTheNextSetPowerRestartsItOnce)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    const IdlePower& idle = rig.Idle();
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    kvsim::ClearDebugLog();
    ASSERT_EQ(g_KvDeviceDescriptor.Dispatch->QueryPower(rig.KsDevice(), nullptr, PowerDeviceD3, PowerDeviceD0,
                                                         PowerSystemSleeping3, PowerSystemWorking,
                                                         PowerActionSleep),
              STATUS_SUCCESS);
    EXPECT_TRUE(DebugSaid("CCaptureDevice::DispatchQueryPower \n"));
    EXPECT_TRUE(DebugSaid("CCaptureDevice::DispatchQueryPower exit\n"));
    EXPECT_EQ(idle.m_LastPowerAction, PowerActionSleep);
    EXPECT_EQ(idle.m_SystemStateTo, PowerSystemSleeping3);
    EXPECT_EQ(idle.m_SystemStateFrom, PowerSystemWorking);
    EXPECT_EQ(idle.m_ResumePending, 1);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);

    kvsim::ResetSchedCounters();
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD3), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(idle.m_ResumePending, 0);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsRun, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_EQ(static_cast<LONGLONG>(DriverTestAccess::IdleTimer(idle).DueTime.QuadPart) - kvsim::Now(),
              5 * kvsim::kSecond);

    // The next set-power does not restart it again.
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD0), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
}

}  // namespace
