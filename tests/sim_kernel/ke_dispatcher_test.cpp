// Tests of the simulated kernel's dispatcher objects, waits, timers, DPCs,
// IRQL and spin locks, system threads, work items, the end-of-test check and
// deadlock detection, in the default Virtual clock mode.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {

using kvsim::kMillisecond;
using kvsim::kSecond;

// These tests check exact virtual times and the baton's fixed order, so they
// run in Virtual mode without a seed even where KVSIM_MODE or KVSIM_SEED say
// otherwise; ke_parallel_test covers Parallel mode, seeded_schedule_test the
// seeds.
const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    kvsim::SetSeed(0);
    return true;
}();

LARGE_INTEGER Relative(LONGLONG duration100ns) {
    LARGE_INTEGER li;
    li.QuadPart = -duration100ns;
    return li;
}

// Runs `fn` on a new system thread and returns its thread object (referenced).
template <typename Fn>
PVOID StartThread(Fn* fn) {
    HANDLE handle = nullptr;
    NTSTATUS status = PsCreateSystemThread(
        &handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
        [](PVOID ctx) { (*static_cast<Fn*>(ctx))(); }, fn);
    EXPECT_EQ(status, STATUS_SUCCESS);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    return object;
}

void JoinThread(PVOID object) {
    EXPECT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    ObDereferenceObject(object);
}

bool ContainsViolation(const std::vector<std::string>& violations, const std::string& part) {
    for (auto& v : violations)
        if (v.find(part) != std::string::npos) return true;
    return false;
}

TEST(KeEvents, NotificationAndSynchronizationEventsSignalAndWakeAsWindowsDoes) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_WAIT_0);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_WAIT_0);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);

    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_WAIT_0);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);

    // KeSetEvent wakes one waiter of a synchronization event, every waiter
    // of a notification event.
    KEVENT sync, notification;
    KeInitializeEvent(&sync, SynchronizationEvent, FALSE);
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    int syncWoken = 0, notificationWoken = 0;
    auto syncWaiter = [&] {
        LARGE_INTEGER timeout = Relative(1 * kSecond);
        if (KeWaitForSingleObject(&sync, Executive, KernelMode, FALSE, &timeout) == STATUS_WAIT_0) ++syncWoken;
    };
    auto notificationWaiter = [&] {
        KeWaitForSingleObject(&notification, Executive, KernelMode, FALSE, nullptr);
        ++notificationWoken;
    };
    std::vector<PVOID> threads;
    for (int i = 0; i < 3; ++i) threads.push_back(StartThread(&syncWaiter));
    for (int i = 0; i < 3; ++i) threads.push_back(StartThread(&notificationWaiter));
    kvsim::RunUntilIdle();
    KeSetEvent(&sync, IO_NO_INCREMENT, FALSE);
    KeSetEvent(&notification, IO_NO_INCREMENT, FALSE);
    for (PVOID t : threads) JoinThread(t);
    EXPECT_EQ(syncWoken, 1);
    EXPECT_EQ(notificationWoken, 3);
}

TEST(KeSemaphores, ReleasedNTimesSatisfiesNWaitsAndReleasePastTheLimitIsAViolation) {
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 0, 10);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, SEMAPHORE_INCREMENT, 3, FALSE), 0);
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 3);
    LARGE_INTEGER zero{};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_WAIT_0) << i;
    EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);

    KeInitializeSemaphore(&semaphore, 1, 1);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, SEMAPHORE_INCREMENT, 1, FALSE), 1);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "STATUS_SEMAPHORE_LIMIT_EXCEEDED"));
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 1);
}

TEST(KeMutexes, OwnerMayAcquireRecursivelyAndOthersWait) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    NTSTATUS otherResult = STATUS_SUCCESS;
    auto other = [&] {
        LARGE_INTEGER zero{};
        otherResult = KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, &zero);
    };
    JoinThread(StartThread(&other));
    EXPECT_EQ(otherResult, STATUS_TIMEOUT);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "STATUS_MUTANT_NOT_OWNED"));
}

TEST(KeWaits, ManyObjectsNeedAWaitBlockArray) {
    KEVENT events[5];
    PVOID objects[5];
    for (int i = 0; i < 5; ++i) {
        KeInitializeEvent(&events[i], NotificationEvent, TRUE);
        objects[i] = &events[i];
    }
    KWAIT_BLOCK blocks[5];
    EXPECT_EQ(KeWaitForMultipleObjects(5, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, blocks),
              STATUS_WAIT_0);
    EXPECT_EQ(KeWaitForMultipleObjects(5, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "WaitBlockArray"));
}

TEST(KeWaits, RelativeAndAbsoluteTimeoutsTakeExactlyTheirVirtualTime) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LONGLONG start = kvsim::Now();
    LARGE_INTEGER timeout = Relative(250 * kMillisecond);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
    EXPECT_EQ(kvsim::Now() - start, 250 * kMillisecond);
    // An absolute time-out is system time.
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    LARGE_INTEGER due;
    due.QuadPart = now.QuadPart + 2 * kSecond;
    start = kvsim::Now();
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &due), STATUS_TIMEOUT);
    EXPECT_EQ(kvsim::Now() - start, 2 * kSecond);
    // Ten seconds of virtual time take milliseconds of real time.
    auto realStart = std::chrono::steady_clock::now();
    start = kvsim::Now();
    LARGE_INTEGER interval = Relative(10 * kSecond);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::Now() - start, 10 * kSecond);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(2));
}

TEST(KeWaits, WaitAtDispatchLevelIsAViolation) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    EXPECT_TRUE(kvsim::TakeViolations().empty()) << "a zero time-out is allowed at DISPATCH_LEVEL";
    LARGE_INTEGER timeout = Relative(1 * kSecond);
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    KeLowerIrql(old);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("KeWaitForSingleObject at IRQL 2"), std::string::npos) << violations[0];
}

// ---- timers and DPCs --------------------------------------------------------------------
struct DpcLog {
    std::vector<LONGLONG> times;
    std::vector<KIRQL> irqls;
};

void LoggingDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* log = static_cast<DpcLog*>(context);
    log->times.push_back(kvsim::Now());
    log->irqls.push_back(KeGetCurrentIrql());
}

TEST(KeTimers, PeriodicTimerDpcRunsOncePerPeriodAtDispatchLevel) {
    DpcLog log;
    KDPC dpc;
    KeInitializeDpc(&dpc, LoggingDpc, &log);
    KTIMER timer;
    KeInitializeTimerEx(&timer, NotificationTimer);
    LONGLONG start = kvsim::Now();
    EXPECT_FALSE(KeSetTimerEx(&timer, Relative(5 * kSecond), 5000, &dpc));
    kvsim::RunFor(20 * kSecond);
    ASSERT_EQ(log.times.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(log.times[i] - start, static_cast<LONGLONG>(i + 1) * 5 * kSecond) << i;
        EXPECT_EQ(log.irqls[i], DISPATCH_LEVEL);
    }
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_TRUE(KeCancelTimer(&timer));
    kvsim::RunFor(20 * kSecond);
    EXPECT_EQ(log.times.size(), 4u) << "KeCancelTimer stops the periodic timer";
    EXPECT_FALSE(KeCancelTimer(&timer));
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
}

TEST(KeDpcs, DpcQueuedTwiceRunsOnce) {
    DpcLog log;
    KDPC dpc;
    KeInitializeDpc(&dpc, LoggingDpc, &log);
    uint64_t before = kvsim::GetSchedCounters().dpcsRun;
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_EQ(kvsim::GetSchedCounters().dpcsQueued, 1u);
    KeFlushQueuedDpcs();
    ASSERT_EQ(log.times.size(), 1u);
    EXPECT_EQ(log.irqls[0], DISPATCH_LEVEL);
    EXPECT_EQ(kvsim::GetSchedCounters().dpcsRun - before, 1u);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr)) << "may be queued again once it ran";
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    kvsim::RunUntilIdle();
    EXPECT_EQ(log.times.size(), 1u);
}

void RaisingDpc(PKDPC, PVOID, PVOID, PVOID) {
    KIRQL old;
    KeRaiseIrql(HIGH_LEVEL, &old);
}

TEST(KeDpcs, DpcReturningAtAnotherIrqlIsAViolation) {
    KDPC dpc;
    KeInitializeDpc(&dpc, RaisingDpc, nullptr);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    kvsim::RunUntilIdle();
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "returned at IRQL 15"));
}

// ---- IRQL and spin locks ------------------------------------------------------------------
TEST(KeIrql, RaiseAndLowerFollowTheRules) {
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KIRQL ignored;
    KeRaiseIrql(PASSIVE_LEVEL, &ignored);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "KeRaiseIrql"));
    KeLowerIrql(DISPATCH_LEVEL);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "KeLowerIrql"));
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(KeSpinLocks, AcquireRaisesToDispatchAndReleaseRestores) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_FALSE(KeTestSpinLock(&lock));
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(KeTestSpinLock(&lock));

    KLOCK_QUEUE_HANDLE handle;
    KeAcquireInStackQueuedSpinLock(&lock, &handle);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseInStackQueuedSpinLock(&handle);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(KeSpinLocks, MisuseIsReported) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "not held"));
    KeAcquireSpinLockAtDpcLevel(&lock);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "must be >= DISPATCH_LEVEL"));
    KeReleaseSpinLockFromDpcLevel(&lock);
    kvsim::TakeViolations();
    KIRQL old, old2;
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLock(&lock, &old2);
    EXPECT_TRUE(ContainsViolation(kvsim::TakeViolations(), "already held by this thread"));
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

// ---- system threads ------------------------------------------------------------------------
TEST(KeSystemThreads, TerminateFromANonSystemThreadIsAViolation) {
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("not a driver-created system thread"), std::string::npos);
}

void BlockForever(PVOID context) {
    kvsim::SetCurrentThreadName("blocker");
    KeWaitForSingleObject(context, Executive, KernelMode, FALSE, nullptr);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST(KeSystemThreads, EndOfTestCheckNamesAThreadStillRunning) {
    static KEVENT never;  // outlives the test: the thread stays blocked on it
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, BlockForever, &never),
              STATUS_SUCCESS);
    ZwClose(handle);
    kvsim::RunUntilIdle();
    auto problems = kvsim::SchedEndOfTestCheck();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].find("system thread 'blocker'"), std::string::npos) << problems[0];
    // Let it end so that the real end-of-test check passes.
    EXPECT_TRUE(kvsim::SchedEndOfTestCheck().empty()) << "reported once only";
    KeSetEvent(&never, IO_NO_INCREMENT, FALSE);
    kvsim::RunUntilIdle();
    EXPECT_EQ(kvsim::GetSchedCounters().liveSystemThreads, 0u);
}

// ---- work items ---------------------------------------------------------------------------
struct DummyDevice {
    bool destroyed = false;
};

void DestroyDummy(void* body) { static_cast<DummyDevice*>(body)->destroyed = true; }

struct WorkContext {
    DummyDevice* device;
    KIRQL irql = 0xFF;
    bool deviceAliveDuringRoutine = false;
    PDEVICE_OBJECT deviceSeen = nullptr;
    PIO_WORKITEM item = nullptr;
};

void WorkRoutine(PDEVICE_OBJECT device, PVOID context) {
    auto* c = static_cast<WorkContext*>(context);
    c->irql = KeGetCurrentIrql();
    c->deviceSeen = device;
    c->deviceAliveDuringRoutine = !c->device->destroyed;
    IoFreeWorkItem(c->item);  // drivers commonly free the item here
}

TEST(KeWorkItems, RunAtPassiveLevelAndDropTheDeviceReferenceAfterwards) {
    DummyDevice dummy;
    kvsim::ObRegisterObject(&dummy, nullptr, DestroyDummy);
    auto* device = reinterpret_cast<PDEVICE_OBJECT>(&dummy);
    WorkContext context{&dummy};
    context.item = IoAllocateWorkItem(device);
    ASSERT_NE(context.item, nullptr);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);  // work items may be queued from a DPC
    IoQueueWorkItem(context.item, WorkRoutine, DelayedWorkQueue, &context);
    KeLowerIrql(old);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsPending, 1u);
    ObDereferenceObject(device);  // the driver's own reference goes first
    EXPECT_FALSE(dummy.destroyed) << "the queued work item holds a reference";
    kvsim::RunUntilIdle();
    EXPECT_EQ(context.irql, PASSIVE_LEVEL);
    EXPECT_EQ(context.deviceSeen, device);
    EXPECT_TRUE(context.deviceAliveDuringRoutine);
    EXPECT_TRUE(dummy.destroyed) << "the reference is dropped after the routine returned";
    auto counters = kvsim::GetSchedCounters();
    EXPECT_EQ(counters.workItemsQueued, 1u);
    EXPECT_EQ(counters.workItemsRun, 1u);
    EXPECT_EQ(counters.workItemsPending, 0u);
}

TEST(KeEndOfTest, ArmedTimerIsReportedAndCancelled) {
    static KTIMER timer;
    KeInitializeTimer(&timer);
    LARGE_INTEGER due;
    due.QuadPart = -1 * kSecond;
    KeSetTimer(&timer, due, nullptr);
    kvsim::ScheduleAt(kvsim::Now() + kSecond, [] {});
    auto problems = kvsim::SchedEndOfTestCheck();
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_NE(problems[0].find("timer"), std::string::npos);
    EXPECT_NE(problems[1].find("scheduled callback"), std::string::npos);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().scheduledPending, 0u);
}

// ---- deadlock ----------------------------------------------------------------------------------
void WaitOnContext(PVOID context) {
    KeWaitForSingleObject(context, Executive, KernelMode, FALSE, nullptr);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

void DeadlockedWait() {
    KEVENT a, b;
    KeInitializeEvent(&a, NotificationEvent, FALSE);
    KeInitializeEvent(&b, NotificationEvent, FALSE);
    HANDLE handle;
    PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, WaitOnContext, &b);
    KeWaitForSingleObject(&a, Executive, KernelMode, FALSE, nullptr);
}

TEST(KeDeadlockDeathTest, AllThreadsBlockedWithNothingDueAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(DeadlockedWait(), "deadlock: no thread can run(.|\n)*'main thread' waits for any of: notification event");
}

}  // namespace
