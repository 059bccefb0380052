// Host control of the simulated kernel's scheduler (sim/kernel/ke/): the
// clock, running the simulation from a test, scheduled callbacks for other
// simulation modules, and counters. Not visible to the driver.
//
// How the scheduler works
// -----------------------
// Every host thread that calls into the simulated kernel is a simulated
// thread with its own IRQL; a host thread is adopted on first use at
// PASSIVE_LEVEL (the test's main thread, say). System threads
// (PsCreateSystemThread), the system worker threads (work items and Post)
// and the DPC threads are simulated threads on host threads of their own.
//
// One global dispatcher lock protects all dispatcher state (signal states,
// waiters, timers, the DPC queue); each simulated thread sleeps on its own
// condition variable. A "baton" limits how many simulated threads run at
// once: 1 in the Virtual and RealTime modes, unlimited in Parallel mode.
// Everything else is one code path.
//
//  - A thread gives the baton up only at a blocking point: an unsatisfied
//    wait, a delay, RunFor/RunUntil/RunUntilIdle, its end. There is no
//    preemption; a thread that never blocks keeps everyone else waiting (as a
//    thread spinning at DISPATCH_LEVEL on a single processor would).
//  - Ready threads get the baton in FIFO order, except that a DPC thread
//    with queued DPCs goes to the front: queued DPCs run before any thread.
//    A DPC queued by a running thread therefore runs at that thread's next
//    blocking point (on Windows it would interrupt it at once); DPCs run on a
//    DPC thread at DISPATCH_LEVEL, so KeGetCurrentThread() there is the DPC
//    thread. Priorities (KeSetPriorityThread) are recorded but do not change
//    the order.
//  - Virtual mode (default): when no thread is running or ready and no DPC is
//    queued, the clock jumps to the next due event (timer expiry, wait
//    time-out, delay end, ScheduleAt callback) and fires everything due then,
//    in the order it was armed. Timers expire at exactly their due time (no
//    15.625 ms tick rounding). KeStallExecutionProcessor adds its time to the
//    clock without giving up the baton. If nothing is due either, it is a
//    deadlock: a violation listing every blocked thread and what it waits
//    on is printed and the process aborts. (A watchdog confirms it after one
//    second of real time in which nothing became ready, because a host thread
//    outside the simulation may still call in or Post; the same detection
//    works in all modes.)
//  - RealTime mode: as Virtual, but the clock is the host's monotonic clock
//    since the simulation started, and a host clock thread fires due events
//    when their time comes.
//  - Parallel mode (ThreadSanitizer runs): no baton limit; three DPC threads
//    run DPCs and scheduled callbacks concurrently; clock and clock thread as
//    RealTime. Spin locks are real spin locks.
// The mode is chosen by SetClockMode before the simulation is first used, or
// else by the environment variable KVSIM_MODE=virtual|realtime|parallel.
//
// Four system worker threads serve all work-item queues and Post() in FIFO
// order (several, so that a work item may wait for another one).
//
// Rules reported as violations (kvsim::ReportViolation): see
// sim/kernel/ke/*.cpp; among them a wait with a non-zero time-out at
// DISPATCH_LEVEL or above, KeLowerIrql upwards / KeRaiseIrql downwards,
// spin-lock misuse, a DPC/work item returning at another IRQL, signalling
// above DISPATCH_LEVEL, KeReleaseSemaphore past the limit, releasing a mutex
// not owned, a DPC routine, work item or system thread that ends holding a
// lock it took (kvsim/verifier.h). A system thread may end by returning from its start routine:
// Windows ends the thread then as for PsTerminateSystemThread(STATUS_SUCCESS)
// (the documented way is PsTerminateSystemThread; returning is accepted).
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kv/ke.h"

namespace kvsim {

enum class ClockMode { Virtual, RealTime, Parallel };

// Chooses the mode; only before the simulation is first used (later calls
// with another mode are reported as violations and ignored).
void SetClockMode(ClockMode mode);
ClockMode GetClockMode();

// Interrupt time: 100-ns units since the simulated boot.
LONGLONG Now();

// Units.
constexpr LONGLONG kMicrosecond = 10;
constexpr LONGLONG kMillisecond = 10'000;
constexpr LONGLONG kSecond = 10'000'000;

// The calling thread blocks for `duration` (100 ns) of simulated time while
// everything else runs.
void RunFor(LONGLONG duration100ns);

// Runs the simulation until `predicate` (called on the calling thread,
// whenever the simulation is idle or the clock has moved) is true, or until
// `timeout100ns` of simulated time has passed. Returns the predicate's last
// value.
bool RunUntil(std::function<bool()> predicate, LONGLONG timeout100ns);

// Lets every runnable thread, DPC and work item run, without advancing the
// clock (Virtual mode; in the other modes it returns when nothing is running
// or ready, or after at most 100 ms).
void RunUntilIdle();

// Runs `fn` at DISPATCH_LEVEL in DPC context at interrupt time `due` (a
// time already past runs at the next opportunity). Returns an id for
// CancelScheduled, never 0.
uint64_t ScheduleAt(LONGLONG due, std::function<void()> fn);
// Removes a callback that has not started yet; false when it already ran,
// is running or the id is unknown.
bool CancelScheduled(uint64_t id);

// For host threads outside the simulation (kvcam's keyboard thread): runs
// `fn` at PASSIVE_LEVEL on a system worker thread. Does not adopt the caller.
void Post(std::function<void()> fn);

// Seeded interleavings (Virtual mode only). With a seed other than 0, every
// preemption point takes a seeded decision: whether timers due by now expire
// there, whether queued DPCs run at once (as another processor would run
// them), and whether another ready thread runs first. The same seed gives the
// same interleaving, and so the same trace. Preemption points: an IRQL
// lowered to APC_LEVEL or below (a spin lock released, a fast mutex
// released), the event, semaphore, mutex, timer and DPC routines, pool
// allocation and release, and IoCallDriver's return, each at APC_LEVEL or
// below and outside DPCs. The seed comes from KVSIM_SEED or SetSeed; 0 (the
// default) keeps the fixed schedule described above.
void SetSeed(uint64_t seed);
uint64_t GetSeed();
// Where other simulation components mark a preemption point (no lock held).
void PreemptionPoint();

// Another processor busy at DISPATCH_LEVEL for a long time: DPCs queued
// while the hold lasts stay queued (the clock goes on) until it ends or a
// KeFlushQueuedDpcs waits them out, which is the only way a driver can know
// that a DPC it queued has finished (until the end of the test).
void HoldDpcs(bool hold);

// Timers expire on the first clock tick (KeQueryTimeIncrement, 15.625 ms) at
// or after their due time, as on Windows; a test that needs exact expiry asks
// for it (until the end of the test).
void SetExactTimers(bool exact);

// Before every test (kvsim::PrepareNextTest): the virtual clock back to boot
// (when nothing is timed), the seed's generator to its start, exact timers
// off, thread numbering back to the first test's.
void ResetSchedulerForNextTest();

struct SchedCounters {
    uint64_t dpcsRun;            // DPC routines and scheduled callbacks run
    uint64_t dpcsQueued;         // DPCs queued now
    uint64_t timersArmed;        // timers set now
    uint64_t workItemsQueued;    // IoQueueWorkItem calls so far
    uint64_t workItemsRun;       // work routines that returned so far
    uint64_t workItemsPending;   // queued, not yet returned
    uint64_t liveSystemThreads;  // PsCreateSystemThread threads not yet ended
    uint64_t scheduledPending;   // ScheduleAt callbacks not yet run
};
SchedCounters GetSchedCounters();
// Zeroes the cumulative counters (the end-of-test check does it).
void ResetSchedCounters();

// The scheduler's end-of-test check (called from RunEndOfTestChecks): system
// threads still alive (by name; each thread is reported once, since it cannot
// be killed), work items and DPCs still queued (the DPCs removed), timers
// still armed and scheduled callbacks still pending (both cancelled). One
// line per problem.
std::vector<std::string> SchedEndOfTestCheck();

// Names the calling (adopted or system) thread in deadlock reports.
void SetCurrentThreadName(const std::string& name);

}  // namespace kvsim
