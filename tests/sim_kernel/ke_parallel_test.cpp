// Tests of the simulated kernel in Parallel mode (the mode of the
// ThreadSanitizer runs): no baton, several DPC threads, host-clock time.
// The mode is set before the simulation is first used in this process.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>

#include "kvsim/sched.h"
#include "wdm.h"

namespace {

using kvsim::kMillisecond;

const bool g_parallel = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Parallel);
    return true;
}();

struct ParallelDpcState {
    std::atomic<int> running{0};
    std::atomic<int> maxRunning{0};
    std::atomic<int> done{0};
    std::mutex lock;
    std::set<PKTHREAD> threads;
    LONG counter = 0;
    KSPIN_LOCK spin = 0;
};

// Each DPC waits (busily, as a DPC may) until another one is running too,
// which shows that DPCs run on several threads at once.
void OverlappingDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* s = static_cast<ParallelDpcState*>(context);
    int now = ++s->running;
    int seen = s->maxRunning.load();
    while (now > seen && !s->maxRunning.compare_exchange_weak(seen, now)) {
    }
    {
        std::lock_guard<std::mutex> guard(s->lock);
        s->threads.insert(KeGetCurrentThread());
    }
    LONGLONG until = kvsim::Now() + 200 * kMillisecond;
    while (s->maxRunning.load() < 2 && kvsim::Now() < until) {
    }
    for (int i = 0; i < 1000; ++i) {
        KeAcquireSpinLockAtDpcLevel(&s->spin);
        s->counter++;
        KeReleaseSpinLockFromDpcLevel(&s->spin);
    }
    --s->running;
    ++s->done;
}

TEST(KeParallel, DpcsRunOnSeveralThreadsAtOnceUnderARealSpinLock) {
    ParallelDpcState state;
    KeInitializeSpinLock(&state.spin);
    KDPC dpcs[3];
    for (auto& dpc : dpcs) KeInitializeDpc(&dpc, OverlappingDpc, &state);
    for (auto& dpc : dpcs) EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_TRUE(kvsim::RunUntil([&] { return state.done.load() == 3; }, 5000 * kMillisecond));
    KeFlushQueuedDpcs();
    EXPECT_GE(state.maxRunning.load(), 2);
    EXPECT_GE(state.threads.size(), 2u);
    EXPECT_EQ(state.counter, 3000);
}

void CountingTimerDpc(PKDPC, PVOID context, PVOID, PVOID) { InterlockedIncrement(static_cast<LONG*>(context)); }

TEST(KeParallel, PeriodicTimerFiresOnTheHostClock) {
    LONG count = 0;
    KDPC dpc;
    KeInitializeDpc(&dpc, CountingTimerDpc, &count);
    KTIMER timer;
    KeInitializeTimerEx(&timer, SynchronizationTimer);
    LARGE_INTEGER due;
    due.QuadPart = -10 * kMillisecond;
    KeSetTimerEx(&timer, due, 10, &dpc);
    EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_TRUE(kvsim::RunUntil([&] { return InterlockedCompareExchange(&count, 0, 0) >= 3; }, 2000 * kMillisecond));
    EXPECT_TRUE(KeCancelTimer(&timer));
    KeFlushQueuedDpcs();
}

// Producers are DPCs, consumers are system threads: a semaphore counts the
// entries of an interlocked list, as the driver's frame queue does.
struct Queue {
    LIST_ENTRY head;
    KSPIN_LOCK lock;
    KSEMAPHORE count;
    std::atomic<int> consumed{0};
    std::atomic<long> sum{0};
    KEVENT stop;
};
struct Entry {
    LIST_ENTRY link;
    int value;
};
constexpr int kEntries = 200;
constexpr int kConsumers = 3;

void ProduceDpc(PKDPC, PVOID context, PVOID arg1, PVOID) {
    auto* q = static_cast<Queue*>(context);
    auto* e = static_cast<Entry*>(arg1);
    ExInterlockedInsertTailList(&q->head, &e->link, &q->lock);
    KeReleaseSemaphore(&q->count, IO_NO_INCREMENT, 1, FALSE);
}

void Consumer(PVOID context) {
    auto* q = static_cast<Queue*>(context);
    PVOID objects[2] = {&q->stop, &q->count};
    for (;;) {
        NTSTATUS status =
            KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
        if (status == STATUS_WAIT_0) break;
        PLIST_ENTRY e = ExInterlockedRemoveHeadList(&q->head, &q->lock);
        if (e == nullptr) {
            ADD_FAILURE() << "semaphore count without a list entry";
            continue;
        }
        q->sum += CONTAINING_RECORD(e, Entry, link)->value;
        ++q->consumed;
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST(KeParallel, DpcProducersAndThreadConsumersShareAnInterlockedList) {
    Queue q;
    InitializeListHead(&q.head);
    KeInitializeSpinLock(&q.lock);
    KeInitializeSemaphore(&q.count, 0, 0x7fffffff);
    KeInitializeEvent(&q.stop, NotificationEvent, FALSE);
    PVOID threads[kConsumers];
    for (auto& t : threads) {
        HANDLE h;
        ASSERT_EQ(PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Consumer, &q),
                  STATUS_SUCCESS);
        ASSERT_EQ(ObReferenceObjectByHandle(h, SYNCHRONIZE, *PsThreadType, KernelMode, &t, nullptr), STATUS_SUCCESS);
        ZwClose(h);
    }
    static Entry entries[kEntries];
    static KDPC dpcs[kEntries];
    long expected = 0;
    for (int i = 0; i < kEntries; ++i) {
        entries[i].value = i + 1;
        expected += i + 1;
        KeInitializeDpc(&dpcs[i], ProduceDpc, &q);
        KeInsertQueueDpc(&dpcs[i], &entries[i], nullptr);
    }
    EXPECT_TRUE(kvsim::RunUntil([&] { return q.consumed.load() == kEntries; }, 5000 * kMillisecond));
    KeSetEvent(&q.stop, IO_NO_INCREMENT, FALSE);
    for (PVOID t : threads) {
        EXPECT_EQ(KeWaitForSingleObject(t, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
        ObDereferenceObject(t);
    }
    KeFlushQueuedDpcs();
    EXPECT_EQ(q.sum.load(), expected);
    EXPECT_TRUE(IsListEmpty(&q.head));
}

void WaitForever() {
    KEVENT never;
    KeInitializeEvent(&never, SynchronizationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
}

TEST(KeParallelDeathTest, DeadlockIsDetectedWithoutABatonToo) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(WaitForever(), "deadlock: no thread can run(.|\n)*'main thread' waits for any of: synchronization event");
}

}  // namespace
