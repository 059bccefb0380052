// Benchmarks of the simulated kernel: the scheduler (a virtual-time delay of
// the calling thread; an event ping-pong between two system threads) and
// the pool allocator. All figures are host (wall-clock) time per operation.
#include <benchmark/benchmark.h>

#include <atomic>

#include "kvsim/sched.h"
#include "wdm.h"

namespace {

// KeDelayExecutionThread of 1 ms: the clock jumps (virtual mode), so this
// is the cost of one block/wake-up through the scheduler.
void BM_SchedDelayExecution(benchmark::State& state) {
    LARGE_INTEGER interval;
    interval.QuadPart = -kvsim::kMillisecond;
    for (auto _ : state) {
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SchedDelayExecution)->UseRealTime();

// Two system threads: A waits for `go`, signals `ping`, waits for `pong`,
// signals `done`; B answers each `ping` with `pong`. One iteration is one
// ping-pong between A and B (plus the benchmark thread's go/done).
struct PingPong {
    KEVENT go, ping, pong, done;
    std::atomic<bool> stop{false};
};

void ThreadA(PVOID context) {
    auto* p = static_cast<PingPong*>(context);
    for (;;) {
        KeWaitForSingleObject(&p->go, Executive, KernelMode, FALSE, nullptr);
        if (p->stop) break;
        KeSetEvent(&p->ping, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&p->pong, Executive, KernelMode, FALSE, nullptr);
        KeSetEvent(&p->done, IO_NO_INCREMENT, FALSE);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

void ThreadB(PVOID context) {
    auto* p = static_cast<PingPong*>(context);
    for (;;) {
        KeWaitForSingleObject(&p->ping, Executive, KernelMode, FALSE, nullptr);
        if (p->stop) break;
        KeSetEvent(&p->pong, IO_NO_INCREMENT, FALSE);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

PVOID StartThread(PKSTART_ROUTINE routine, PVOID context) {
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context))) {
        return nullptr;
    }
    PVOID thread = nullptr;
    ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr);
    ZwClose(handle);
    return thread;
}

void BM_SchedEventPingPong(benchmark::State& state) {
    PingPong p;
    for (KEVENT* e : {&p.go, &p.ping, &p.pong, &p.done}) KeInitializeEvent(e, SynchronizationEvent, FALSE);
    PVOID a = StartThread(ThreadA, &p);
    PVOID b = StartThread(ThreadB, &p);
    if (!a || !b) {
        state.SkipWithError("PsCreateSystemThread failed");
        return;
    }
    for (auto _ : state) {
        KeSetEvent(&p.go, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&p.done, Executive, KernelMode, FALSE, nullptr);
    }
    p.stop = true;
    KeSetEvent(&p.go, IO_NO_INCREMENT, FALSE);
    KeSetEvent(&p.ping, IO_NO_INCREMENT, FALSE);
    for (PVOID t : {a, b}) {
        KeWaitForSingleObject(t, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(t);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SchedEventPingPong)->UseRealTime();

// ExAllocatePoolWithTag + ExFreePoolWithTag of Arg(0) bytes (the pool keeps
// per-tag accounting and a block list for the leak check).
void BM_PoolAllocateFree(benchmark::State& state) {
    const auto size = static_cast<SIZE_T>(state.range(0));
    const ULONG tag = 'hcnB';
    for (auto _ : state) {
        PVOID p = ExAllocatePoolWithTag(NonPagedPool, size, tag);
        benchmark::DoNotOptimize(p);
        if (p) ExFreePoolWithTag(p, tag);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolAllocateFree)->Arg(64)->Arg(4096)->Arg(640 * 480 * 2);

}  // namespace
