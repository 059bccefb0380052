// Internal interface of the simulated kernel's scheduler (sim/kernel/ke):
// the simulated-thread record and the dispatcher state behind the one global
// dispatcher lock. Functions named ...Locked expect that lock held. See
// kvsim/sched.h for how the scheduler behaves.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kv/ke.h"
#include "kvsim/sched.h"

namespace kvsim::ke {

constexpr LONGLONG kNever = std::numeric_limits<LONGLONG>::max();
// KeQuerySystemTime = this epoch (2026-01-01 00:00:00 UTC as FILETIME:
// 100-ns units since 1601-01-01) + the interrupt time.
constexpr LONGLONG kSystemTimeEpoch = 134116992000000000LL;
// The clock interrupt's period, as KeQueryTimeIncrement reports it (15.625 ms
// by default): timers expire on a tick, never between two.
// https://learn.microsoft.com/windows-hardware/drivers/kernel/timer-accuracy
constexpr LONGLONG kClockTick = 156250;

enum class ThreadState { Ready, Running, Waiting, Ended };
enum class ThreadKind { Adopted, System, Dpc, Worker };
// What a waiting thread waits for.
enum class WaitKind { None, Objects, Delay, Idle, ClockMove, DpcFlush, ServiceIdle };

struct SimThread {
    std::string name;
    ThreadKind kind = ThreadKind::Adopted;
    ThreadState state = ThreadState::Waiting;
    std::condition_variable cv;
    KIRQL irql = PASSIVE_LEVEL;  // touched only by the thread itself
    KPRIORITY priority = 8;
    int criticalRegion = 0;  // KeEnterCriticalRegion depth (touched only by the thread)
    XSTATE_SAVE* xstateTop = nullptr;  // innermost extended state saved and not restored (the thread only)
    ETHREAD* ethread = nullptr;

    WaitKind waitKind = WaitKind::None;
    std::vector<DISPATCHER_HEADER*> waitObjects;
    WAIT_TYPE waitType = WaitAny;
    LONGLONG deadline = kNever;
    uint64_t waitSeq = 0;
    NTSTATUS waitResult = STATUS_SUCCESS;

    PKSTART_ROUTINE start = nullptr;  // system threads
    bool reportedAlive = false;       // by an end-of-test check (reported once)
    // A thread preempted at a seeded preemption point is not yielded to
    // again before the kernel's point count reaches this.
    uint64_t heldOffUntil = 0;
    PVOID startContext = nullptr;
};

struct ArmedTimer {
    LONGLONG due;        // when it expires: the first clock tick at or after `requested`
    LONG periodMs;
    KDPC* dpc;
    uint64_t seq;
    LONGLONG requested;  // the due time asked for (KTIMER.DueTime)
};

struct ScheduledCall {
    LONGLONG due;
    std::function<void()> fn;
    uint64_t seq;
};

// One entry of the DPC queue: a KDPC, or a ScheduleAt callback.
struct DpcEntry {
    KDPC* dpc = nullptr;
    uint64_t scheduledId = 0;
    std::function<void()> fn;
};

struct WorkEntry {
    std::function<void()> fn;
    bool isWorkItem;
};

struct Kernel {
    std::mutex m;
    ClockMode mode = ClockMode::Virtual;
    int maxRunning = 1;
    int running = 0;
    std::deque<SimThread*> ready;
    std::vector<SimThread*> threads;  // every live simulated thread
    std::vector<SimThread*> endedHostThreads;  // kept: their thread objects may still be referenced
    std::vector<SimThread*> waiters;  // waiting threads (not idle service threads), in wait order
    std::deque<SimThread*> idleDpcThreads;
    std::deque<SimThread*> idleWorkers;
    std::atomic<LONGLONG> virtualNow{0};
    int64_t hostStartNs = 0;
    uint64_t seq = 0;

    std::map<KTIMER*, ArmedTimer> timers;
    std::map<uint64_t, ScheduledCall> scheduled;
    uint64_t nextScheduledId = 1;
    std::deque<DpcEntry> dpcQueue;
    int dpcRunning = 0;
    std::deque<WorkEntry> workQueue;
    std::condition_variable clockCv;  // wakes the host clock thread (RealTime, Parallel)
    // Deadlock watchdog: a suspected deadlock is confirmed only when nothing
    // has become ready for a grace period, since a host thread outside the
    // simulation may still be about to call in (be adopted) or Post.
    uint64_t progress = 0;  // counts threads made ready
    bool deadlockSuspected = false;
    uint64_t suspectedAtProgress = 0;
    std::condition_variable watchdogCv;

    SchedCounters counters{};
    uint64_t threadNumber = 0;
    uint64_t serviceThreadNumber = 0;  // threadNumber once the service threads exist

    // Seeded interleavings (Virtual mode): 0 keeps the fixed schedule.
    uint64_t seed = 0;
    uint64_t rng = 0;  // the generator's state, reset to the seed at every test start
    uint64_t preemptionPoints = 0;  // seeded points passed, the clock of heldOffUntil
    // Timers expire on the clock tick unless a test asks for exact expiry.
    bool exactTimers = false;
    // Queued DPCs wait while held (HoldDpcs) unless a KeFlushQueuedDpcs waits.
    bool dpcsHeld = false;
    int dpcFlushers = 0;
};

Kernel& K();
Kernel* KernelIfStarted();
SimThread* Self();  // adopts the calling host thread on first use
SimThread* SelfIfAdopted();
// The calling host thread's "current simulated thread" slot.
SimThread** CurrentThreadSlot();

LONGLONG NowLocked(Kernel& k);
LONGLONG DeadlineFromTimeout(Kernel& k, const LARGE_INTEGER* timeout);  // kNever for NULL

// When a timer due at `requested` expires: on the next clock tick, or at
// once with exact timers.
inline LONGLONG ExpiryLocked(const Kernel& k, LONGLONG requested) {
    if (k.exactTimers || requested <= 0) return requested;
    return (requested + kClockTick - 1) / kClockTick * kClockTick;
}

void MakeReadyLocked(Kernel& k, SimThread* t, bool front = false);
void DispatchLocked(Kernel& k);
void BlockLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self);
void YieldLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self);
// Waits as KeWaitForMultipleObjects does, with the lock held; `poll` for a
// zero time-out.
NTSTATUS WaitObjectsLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self,
                           std::vector<DISPATCHER_HEADER*> objects, WAIT_TYPE type, LONGLONG deadline, bool poll);
// Blocks with a wait of another kind (Delay, Idle, ClockMove, DpcFlush).
void WaitKindLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self, WaitKind kind, LONGLONG deadline);
// After an object's signal state rose: satisfies the waiters it can.
void SignalLocked(Kernel& k, DISPATCHER_HEADER* object);
void QueueDpcLocked(Kernel& k, DpcEntry entry, bool front);
// Whether queued DPCs may run now, and waking the DPC threads when they may.
bool DpcsMayRunLocked(const Kernel& k);
void WakeDpcThreadsLocked(Kernel& k);
void QueueWorkLocked(Kernel& k, WorkEntry entry);
void NotifyClockLocked(Kernel& k);

// Thread object of a simulated thread, as drivers see it.
inline PKTHREAD KThreadOf(SimThread* t) { return t->ethread ? &t->ethread->Tcb : nullptr; }

// After a callback (DPC, scheduled callback, work item) returned: reports
// a callback that left the IRQL changed, and restores it.
void CheckIrqlAfterCallback(SimThread* self, KIRQL expected, const char* what, const void* routine);
std::string RoutineName(const void* routine);

// Extended processor state a thread saved and never restored (xstate.cpp):
// Take... forgets it and says what it was ("" when there is none); Check...
// reports it as a violation when a callback or system thread ends with it.
std::string TakeUnrestoredXState(SimThread* t);
void CheckXStateAfterCallback(SimThread* self, const char* what, const void* routine);

}  // namespace kvsim::ke
