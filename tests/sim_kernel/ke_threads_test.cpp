// Tests of the simulated kernel's system threads, work items, Post, the
// end-of-test check and deadlock detection (Virtual clock mode).
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {

using kvsim::kSecond;

// These tests check exact virtual times and the baton's order, so they run
// in Virtual mode even where KVSIM_MODE says otherwise (the tsan preset);
// ke_parallel_test covers Parallel mode.
const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

struct PriorityThreadContext {
    KEVENT started;
    KPRIORITY oldPriority = -1;
    KPRIORITY priority = -1;
    bool ran = false;
};

void PriorityThread(PVOID context) {
    auto* c = static_cast<PriorityThreadContext*>(context);
    c->oldPriority = KeSetPriorityThread(KeGetCurrentThread(), LOW_REALTIME_PRIORITY);
    c->priority = KeQueryPriorityThread(KeGetCurrentThread());
    c->ran = KeGetCurrentIrql() == PASSIVE_LEVEL;
    KeSetEvent(&c->started, IO_NO_INCREMENT, FALSE);
    PsTerminateSystemThread(STATUS_SUCCESS);
    ADD_FAILURE() << "PsTerminateSystemThread returned";
}

TEST(KeSystemThreads, ThreadAtPriority16RunsSignalsTerminatesAndItsObjectIsSignalled) {
    PriorityThreadContext context;
    KeInitializeEvent(&context.started, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    CLIENT_ID cid{};
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, &cid, PriorityThread, &context),
              STATUS_SUCCESS);
    EXPECT_NE(handle, nullptr);
    EXPECT_NE(cid.UniqueThread, nullptr);
    EXPECT_EQ(kvsim::GetSchedCounters().liveSystemThreads, 1u);
    PVOID thread = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(KeWaitForSingleObject(&context.started, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_EQ(static_cast<ETHREAD*>(thread)->ExitStatus, STATUS_SUCCESS);
    ObDereferenceObject(thread);
    EXPECT_TRUE(context.ran);
    EXPECT_EQ(context.oldPriority, 8);
    EXPECT_EQ(context.priority, LOW_REALTIME_PRIORITY);
    EXPECT_EQ(kvsim::GetSchedCounters().liveSystemThreads, 0u);
}

void ReturningThread(PVOID context) { *static_cast<int*>(context) = 42; }

TEST(KeSystemThreads, ReturningFromTheStartRoutineEndsTheThread) {
    int value = 0;
    HANDLE handle = nullptr;
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, ReturningThread, &value),
              STATUS_SUCCESS);
    PVOID thread = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    ObDereferenceObject(thread);
    EXPECT_EQ(value, 42);
}

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

TEST(KeWorkItems, PostRunsAtPassiveLevelOnAWorkerThread) {
    KIRQL irql = 0xFF;
    PKTHREAD thread = nullptr;
    kvsim::Post([&] {
        irql = KeGetCurrentIrql();
        thread = KeGetCurrentThread();
    });
    kvsim::RunUntilIdle();
    EXPECT_EQ(irql, PASSIVE_LEVEL);
    EXPECT_NE(thread, nullptr);
    EXPECT_NE(thread, KeGetCurrentThread());
}

TEST(KeHostThreads, AnAdoptedHostThreadRunsWhenTheBatonIsFreeAndReleasesItWhenItEnds) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    KIRQL irql = 0xFF;
    std::thread host([&] {
        irql = KeGetCurrentIrql();  // adopted here, at PASSIVE_LEVEL
        KeSetEvent(&done, IO_NO_INCREMENT, FALSE);
    });
    EXPECT_EQ(KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    host.join();
    EXPECT_EQ(irql, PASSIVE_LEVEL);
    kvsim::RunFor(kSecond);  // the ended host thread no longer holds the baton
}

TEST(KeCounters, NothingArmedWhenNothingWasUsed) {
    auto c = kvsim::GetSchedCounters();
    EXPECT_EQ(c.dpcsRun, 0u);
    EXPECT_EQ(c.dpcsQueued, 0u);
    EXPECT_EQ(c.timersArmed, 0u);
    EXPECT_EQ(c.workItemsQueued, 0u);
    EXPECT_EQ(c.liveSystemThreads, 0u);
    EXPECT_EQ(c.scheduledPending, 0u);
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
