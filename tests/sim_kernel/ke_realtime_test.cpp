// Tests of the simulated kernel in RealTime mode (interactive kvcam): the
// clock follows the host's monotonic clock, and the baton still lets only
// one simulated thread run at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "kvsim/sched.h"
#include "wdm.h"

namespace {

using kvsim::kMillisecond;

const bool g_realtime = [] {
    kvsim::SetClockMode(kvsim::ClockMode::RealTime);
    return true;
}();

TEST(KeRealTime, DelayTakesHostTime) {
    EXPECT_EQ(kvsim::GetClockMode(), kvsim::ClockMode::RealTime);
    auto hostStart = std::chrono::steady_clock::now();
    LONGLONG start = kvsim::Now();
    LARGE_INTEGER interval;
    interval.QuadPart = -50 * kMillisecond;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    auto hostElapsed = std::chrono::steady_clock::now() - hostStart;
    EXPECT_GE(kvsim::Now() - start, 50 * kMillisecond);
    EXPECT_GE(hostElapsed, std::chrono::milliseconds(50));
    EXPECT_LT(hostElapsed, std::chrono::seconds(5));
}

struct BatonCheck {
    std::atomic<int> inside{0};
    std::atomic<int> maxInside{0};
};

void Worker(PVOID context) {
    auto* c = static_cast<BatonCheck*>(context);
    for (int i = 0; i < 5; ++i) {
        int now = ++c->inside;
        if (now > c->maxInside) c->maxInside = now;
        // Busy for a while without blocking: nobody else may run meanwhile.
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (std::chrono::steady_clock::now() < until) {
        }
        --c->inside;
        LARGE_INTEGER interval;
        interval.QuadPart = -1 * kMillisecond;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

TEST(KeRealTime, OnlyOneSimulatedThreadRunsAtATime) {
    BatonCheck check;
    PVOID threads[2];
    for (PVOID& t : threads) {
        HANDLE h;
        ASSERT_EQ(PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Worker, &check),
                  STATUS_SUCCESS);
        ASSERT_EQ(ObReferenceObjectByHandle(h, SYNCHRONIZE, *PsThreadType, KernelMode, &t, nullptr), STATUS_SUCCESS);
        ZwClose(h);
    }
    for (PVOID t : threads) {
        EXPECT_EQ(KeWaitForSingleObject(t, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
        ObDereferenceObject(t);
    }
    EXPECT_EQ(check.maxInside.load(), 1);
}

TEST(KeRealTime, ScheduledCallbackRunsNoEarlierThanItsTime) {
    std::atomic<LONGLONG> ranAt{-1};
    LONGLONG due = kvsim::Now() + 20 * kMillisecond;
    kvsim::ScheduleAt(due, [&] { ranAt = kvsim::Now(); });
    EXPECT_TRUE(kvsim::RunUntil([&] { return ranAt.load() >= 0; }, 2000 * kMillisecond));
    EXPECT_GE(ranAt.load(), due);
}

}  // namespace
