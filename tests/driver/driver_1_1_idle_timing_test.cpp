// Part 1.1: the idle timer's exact due times (5 s from the start, period
// 5000 ms; re-armed 5 s after the set-power that follows a system-sleep
// query). Split from driver_1_1_lifecycle_test.cpp because these tests read
// DueTime - Now() to the 100 ns, which only the virtual clock gives: in
// Parallel mode (the tsan preset) the clock is the host's and moves between
// the KeSetTimerEx and the read. So this executable forces Virtual mode, as
// ke_dispatcher_test does; the lifecycle file keeps its Parallel coverage.
#include <gtest/gtest.h>

#include "kvsim/sched.h"
#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

TEST(Part11IdleEnabled, StartArmsTheIdleTimerForFiveSecondsThenEvery5000ms)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    CCaptureDevice& dev = rig.Dev();
    EXPECT_EQ(dev.m_IdlePowerEnabled, 1u);
    EXPECT_EQ(dev.m_IdleActive, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_EQ(dev.m_IdleTimer.Period, 5000);
    EXPECT_EQ(static_cast<LONGLONG>(dev.m_IdleTimer.DueTime.QuadPart) - kvsim::Now(), 5 * kvsim::kSecond);
}

// Edge case: a system sleep (query-power action 2 or more) stops the idle
// timer; the set-power that follows restarts it once.
TEST(Part11SystemSleep, QueryPowerStopsTheIdleTimerAndTheNextSetPowerRestartsItOnce)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    CCaptureDevice& dev = rig.Dev();
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    kvsim::ClearDebugLog();
    ASSERT_EQ(g_KvDeviceDescriptor.Dispatch->QueryPower(rig.KsDevice(), nullptr, PowerDeviceD3, PowerDeviceD0,
                                                         PowerSystemSleeping3, PowerSystemWorking,
                                                         PowerActionSleep),
              STATUS_SUCCESS);
    EXPECT_TRUE(DebugSaid("CCaptureDevice::DispatchQueryPower \n"));
    EXPECT_TRUE(DebugSaid("CCaptureDevice::DispatchQueryPower exit\n"));
    EXPECT_EQ(dev.m_LastPowerAction, PowerActionSleep);
    EXPECT_EQ(dev.m_SystemStateTo, PowerSystemSleeping3);
    EXPECT_EQ(dev.m_SystemStateFrom, PowerSystemWorking);
    EXPECT_EQ(dev.m_ResumePending, 1);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);

    kvsim::ResetSchedCounters();
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD3), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(dev.m_ResumePending, 0);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsRun, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_EQ(static_cast<LONGLONG>(dev.m_IdleTimer.DueTime.QuadPart) - kvsim::Now(), 5 * kvsim::kSecond);

    // The next set-power does not restart it again.
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD0), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
}

}  // namespace
