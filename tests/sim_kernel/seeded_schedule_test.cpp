// Seeded interleavings of the virtual scheduler: a seed replays the same
// interleaving, different seeds give different ones, and a sweep of seeds
// finds a race that the fixed schedule hides. Runs in Virtual mode whatever
// KVSIM_MODE says: seeds exist only there.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "kvsim/sched.h"
#include "wdm.h"

namespace {

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

LARGE_INTEGER Relative(LONGLONG duration100ns)
{
    LARGE_INTEGER li;
    li.QuadPart = -duration100ns;
    return li;
}

// Runs `fn` on a new system thread; returns its thread object (referenced).
template <typename Fn>
PVOID StartThread(Fn* fn)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                   [](PVOID ctx) { (*static_cast<Fn*>(ctx))(); }, fn),
              STATUS_SUCCESS);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    return object;
}

void JoinThread(PVOID object)
{
    EXPECT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    ObDereferenceObject(object);
}

// Two threads and a DPC, each stepping through kernel calls that are
// preemption points; the order of their steps is the interleaving.
std::string Interleaving(uint64_t seed)
{
    kvsim::SetSeed(seed);
    std::string order;
    KEVENT spare;
    KeInitializeEvent(&spare, NotificationEvent, FALSE);
    KDPC dpc;
    KeInitializeDpc(
        &dpc, [](PKDPC, PVOID context, PVOID, PVOID) { *static_cast<std::string*>(context) += 'D'; }, &order);
    auto steps = [&](char name) {
        for (int i = 0; i < 4; ++i) {
            order += name;
            if (name == 'a' && i == 1) KeInsertQueueDpc(&dpc, nullptr, nullptr);
            KeSetEvent(&spare, IO_NO_INCREMENT, FALSE);
            KeClearEvent(&spare);
        }
    };
    auto a = [&] { steps('a'); };
    auto b = [&] { steps('b'); };
    PVOID threadA = StartThread(&a);
    PVOID threadB = StartThread(&b);
    JoinThread(threadA);
    JoinThread(threadB);
    KeFlushQueuedDpcs();
    kvsim::SetSeed(0);
    return order;
}

TEST(SeededSchedule, TheSameSeedReplaysTheSameInterleavingAndSeedsDiffer)
{
    const std::string fixed = Interleaving(0);
    EXPECT_EQ(fixed, "aaaaDbbbb") << "without a seed a thread runs until it blocks, and a DPC it queued runs then";
    std::set<std::string> seen;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        const std::string once = Interleaving(seed);
        EXPECT_EQ(Interleaving(seed), once) << "seed " << seed;
        EXPECT_EQ(once.size(), fixed.size());
        seen.insert(once);
    }
    EXPECT_GE(seen.size(), 4u) << "seeds should give several interleavings";
}

// A planted race of the kind a driver's stop path has: a worker re-arms a
// timer when a flag says the scheme is active, reading the flag without the
// lock that stop clears it under; stop then cancels the timer. If the worker
// read the flag before stop cleared it and arms the timer after stop
// cancelled it, the timer outlives stop.
bool TimerOutlivesStop(uint64_t seed)
{
    kvsim::SetSeed(seed);
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    volatile LONG active = 1;
    KTIMER timer;
    KeInitializeTimer(&timer);
    KEVENT stopping;
    KeInitializeEvent(&stopping, NotificationEvent, FALSE);
    auto restart = [&] {
        if (active != 0) {
            KeSetTimer(&timer, Relative(kvsim::kSecond), nullptr);
        }
    };
    PVOID worker = StartThread(&restart);
    KeSetEvent(&stopping, IO_NO_INCREMENT, FALSE);
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    active = 0;
    KeReleaseSpinLock(&lock, irql);
    KeCancelTimer(&timer);
    JoinThread(worker);
    const bool outlived = KeCancelTimer(&timer) != FALSE;
    kvsim::SetSeed(0);
    return outlived;
}

TEST(SeededSchedule, ASweepOfSeedsFindsAPlantedRaceAndItsSeedReplaysIt)
{
    EXPECT_FALSE(TimerOutlivesStop(0)) << "the fixed schedule hides the race";
    uint64_t found = 0;
    for (uint64_t seed = 1; seed <= 50 && found == 0; ++seed) {
        if (TimerOutlivesStop(seed)) found = seed;
    }
    ASSERT_NE(found, 0u) << "no seed of 1-50 found the race";
    EXPECT_TRUE(TimerOutlivesStop(found)) << "seed " << found << " does not replay the race";
}

// Timers expire on the clock tick unless a test asks for exact expiry.
TEST(SeededSchedule, TimersExpireOnTheClockTick)
{
    const LONGLONG tick = KeQueryTimeIncrement();
    KTIMER timer;
    KeInitializeTimer(&timer);
    const LONGLONG start = kvsim::Now();
    KeSetTimer(&timer, Relative(10 * kvsim::kMillisecond), nullptr);
    KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(kvsim::Now(), (start + 10 * kvsim::kMillisecond + tick - 1) / tick * tick);
    EXPECT_EQ(static_cast<LONGLONG>(timer.DueTime.QuadPart), start + 10 * kvsim::kMillisecond)
        << "DueTime keeps the time asked for";

    kvsim::SetExactTimers(true);
    const LONGLONG exactStart = kvsim::Now();
    KeSetTimer(&timer, Relative(10 * kvsim::kMillisecond), nullptr);
    KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(kvsim::Now(), exactStart + 10 * kvsim::kMillisecond);
}

// Each test starts at boot time: its times do not depend on the tests before.
TEST(SeededSchedule, EachTestStartsAtBootTimeA)
{
    EXPECT_EQ(kvsim::Now(), 0);
    kvsim::RunFor(3 * kvsim::kSecond);
}

TEST(SeededSchedule, EachTestStartsAtBootTimeB)
{
    EXPECT_EQ(kvsim::Now(), 0);
}

}  // namespace
