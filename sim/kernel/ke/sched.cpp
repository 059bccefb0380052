// The simulated kernel's scheduler: simulated threads, the baton, waits,
// the clock (virtual jumps or host time), timer/time-out/callback expiry,
// the DPC threads and the system worker threads, deadlock detection.
// Behaviour and modes are described in kvsim/sched.h.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "ke_internal.h"
#include "kvsim/diag.h"
#include "verifier_internal.h"

namespace kvsim::ke {
namespace {

constexpr int kWorkerThreads = 4;
constexpr int kDpcThreadsParallel = 3;

std::atomic<Kernel*> g_kernel{nullptr};
std::atomic<int> g_requestedMode{-1};
thread_local SimThread* tls_self = nullptr;

int64_t HostMonotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// KVSIM_SEED=N: seeded interleavings from the first use on (0: none).
uint64_t SeedFromEnvironment() {
    const char* env = getenv("KVSIM_SEED");
    if (env == nullptr || *env == '\0') return 0;
    char* end = nullptr;
    unsigned long long seed = strtoull(env, &end, 10);
    if (end == env || *end != '\0') {
        fprintf(stderr, "kvsim: KVSIM_SEED=%s is not a number; no seed\n", env);
        return 0;
    }
    return seed;
}

// splitmix64: small, fast and the same on every host, so that a seed
// replays the same interleaving anywhere.
uint64_t NextRandomLocked(Kernel& k) {
    uint64_t z = (k.rng += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

ClockMode ModeFromEnvironment() {
    const char* env = getenv("KVSIM_MODE");
    if (env == nullptr || *env == '\0' || strcmp(env, "virtual") == 0) return ClockMode::Virtual;
    if (strcmp(env, "realtime") == 0) return ClockMode::RealTime;
    if (strcmp(env, "parallel") == 0) return ClockMode::Parallel;
    fprintf(stderr, "kvsim: KVSIM_MODE=%s is not virtual|realtime|parallel; using virtual\n", env);
    return ClockMode::Virtual;
}

const char* TypeName(const DISPATCHER_HEADER* h) {
    switch (h->Type) {
        case KV_OBJECT_EVENT_NOTIFICATION: return "notification event";
        case KV_OBJECT_EVENT_SYNCHRONIZATION: return "synchronization event";
        case KV_OBJECT_MUTANT: return "mutex";
        case KV_OBJECT_SEMAPHORE: return "semaphore";
        case KV_OBJECT_THREAD: return "thread";
        case KV_OBJECT_TIMER_NOTIFICATION: return "notification timer";
        case KV_OBJECT_TIMER_SYNCHRONIZATION: return "synchronization timer";
        default: return "object of unknown type";
    }
}

// ---- dispatcher-object semantics ------------------------------------------------
bool IsSignaledFor(const DISPATCHER_HEADER* h, SimThread* t) {
    if (h->Type == KV_OBJECT_MUTANT) {
        auto* mutant = reinterpret_cast<const KMUTANT*>(h);
        return h->SignalState > 0 || (mutant->OwnerThread != nullptr && mutant->OwnerThread == KThreadOf(t));
    }
    return h->SignalState > 0;
}

// What a satisfied wait does to the object (docs: "Defining Dispatcher
// Objects"/KeWaitForSingleObject remarks: synchronization events and timers
// reset, semaphores count down, mutexes become owned, recursively).
void ConsumeFor(DISPATCHER_HEADER* h, SimThread* t) {
    switch (h->Type) {
        case KV_OBJECT_EVENT_SYNCHRONIZATION:
        case KV_OBJECT_TIMER_SYNCHRONIZATION: h->SignalState = 0; break;
        case KV_OBJECT_SEMAPHORE: h->SignalState--; break;
        case KV_OBJECT_MUTANT:
            h->SignalState--;
            reinterpret_cast<KMUTANT*>(h)->OwnerThread = KThreadOf(t);
            break;
        default: break;
    }
}

bool TrySatisfyLocked(SimThread* t) {
    auto& objs = t->waitObjects;
    if (t->waitType == WaitAny) {
        for (size_t i = 0; i < objs.size(); ++i) {
            if (IsSignaledFor(objs[i], t)) {
                ConsumeFor(objs[i], t);
                t->waitResult = STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
                return true;
            }
        }
        return false;
    }
    for (auto* h : objs)
        if (!IsSignaledFor(h, t)) return false;
    for (auto* h : objs) ConsumeFor(h, t);
    t->waitResult = STATUS_WAIT_0;
    return true;
}

void RemoveWaiterLocked(Kernel& k, SimThread* t) {
    auto it = std::find(k.waiters.begin(), k.waiters.end(), t);
    if (it != k.waiters.end()) k.waiters.erase(it);
}

void WakeLocked(Kernel& k, SimThread* t, NTSTATUS result) {
    RemoveWaiterLocked(k, t);
    t->waitResult = result;
    t->waitKind = WaitKind::None;
    t->waitObjects.clear();
    MakeReadyLocked(k, t);
}

void WakeAllOfKindLocked(Kernel& k, WaitKind kind) {
    std::vector<SimThread*> woken;
    for (auto* t : k.waiters)
        if (t->waitKind == kind) woken.push_back(t);
    for (auto* t : woken) WakeLocked(k, t, STATUS_SUCCESS);
}

// ---- time-driven events -----------------------------------------------------------
std::optional<LONGLONG> NextDueLocked(Kernel& k) {
    std::optional<LONGLONG> next;
    auto consider = [&](LONGLONG due) {
        if (!next || due < *next) next = due;
    };
    for (auto& [timer, armed] : k.timers) consider(armed.due);
    for (auto& [id, call] : k.scheduled) consider(call.due);
    for (auto* t : k.waiters)
        if (t->deadline != kNever) consider(t->deadline);
    return next;
}

enum class DueKind { Timer, Scheduled, Waiter };
struct DueEvent {
    LONGLONG due;
    uint64_t seq;
    DueKind kind;
    KTIMER* timer;
    uint64_t scheduledId;
    SimThread* waiter;
};

void FireTimerLocked(Kernel& k, KTIMER* timer) {
    auto it = k.timers.find(timer);
    if (it == k.timers.end()) return;
    ArmedTimer armed = it->second;
    if (armed.periodMs > 0) {
        it->second.requested = armed.requested + static_cast<LONGLONG>(armed.periodMs) * kMillisecond;
        it->second.due = ExpiryLocked(k, it->second.requested);
        it->second.seq = ++k.seq;
        timer->DueTime.QuadPart = static_cast<ULONGLONG>(it->second.requested);
    } else {
        k.timers.erase(it);
        timer->Header.Inserted = FALSE;
    }
    timer->Header.SignalState = 1;
    SignalLocked(k, &timer->Header);
    if (armed.dpc != nullptr && armed.dpc->DpcData == nullptr) {
        // The timer DPC gets the expiry's system time in its two system
        // arguments (low and high part), as on Windows.
        LONGLONG systemTime = kSystemTimeEpoch + armed.due;  // the clock tick it expired on
        armed.dpc->SystemArgument1 = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(systemTime & 0xFFFFFFFF));
        armed.dpc->SystemArgument2 = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(systemTime >> 32));
        armed.dpc->DpcData = armed.dpc;
        QueueDpcLocked(k, DpcEntry{armed.dpc, 0, {}}, armed.dpc->Importance == HighImportance);
    }
}

// Fires everything due at or before `now`, in the order of (due, arming).
bool FireDueLocked(Kernel& k, LONGLONG now) {
    std::vector<DueEvent> due;
    for (auto& [timer, armed] : k.timers)
        if (armed.due <= now) due.push_back({armed.due, armed.seq, DueKind::Timer, timer, 0, nullptr});
    for (auto& [id, call] : k.scheduled)
        if (call.due <= now) due.push_back({call.due, call.seq, DueKind::Scheduled, nullptr, id, nullptr});
    for (auto* t : k.waiters)
        if (t->deadline <= now) due.push_back({t->deadline, t->waitSeq, DueKind::Waiter, nullptr, 0, t});
    std::sort(due.begin(), due.end(), [](const DueEvent& a, const DueEvent& b) {
        return a.due != b.due ? a.due < b.due : a.seq < b.seq;
    });
    for (auto& e : due) {
        switch (e.kind) {
            case DueKind::Timer: FireTimerLocked(k, e.timer); break;
            case DueKind::Scheduled: {
                auto it = k.scheduled.find(e.scheduledId);
                if (it == k.scheduled.end()) break;
                DpcEntry entry{nullptr, e.scheduledId, std::move(it->second.fn)};
                k.scheduled.erase(it);
                QueueDpcLocked(k, std::move(entry), false);
                break;
            }
            case DueKind::Waiter:
                // An object wait may have been satisfied by a timer fired
                // just before in this same pass.
                if (e.waiter->state != ThreadState::Waiting || e.waiter->deadline > now) break;
                WakeLocked(k, e.waiter, e.waiter->waitKind == WaitKind::Objects ? STATUS_TIMEOUT : STATUS_SUCCESS);
                break;
        }
    }
    return !due.empty();
}

// ---- deadlock -------------------------------------------------------------------------
std::string DescribeWaitLocked(const SimThread* t) {
    char buf[256];
    switch (t->waitKind) {
        case WaitKind::Objects: {
            std::string s = t->waitType == WaitAll ? "all of:" : "any of:";
            for (auto* h : t->waitObjects) {
                snprintf(buf, sizeof buf, " %s %p (signal state %d)", TypeName(h), static_cast<const void*>(h),
                         static_cast<int>(h->SignalState));
                s += buf;
            }
            return s;
        }
        case WaitKind::Delay: return "a delay";
        case WaitKind::Idle: return "the simulation to become idle";
        case WaitKind::ClockMove: return "the clock to move";
        case WaitKind::DpcFlush: return "queued DPCs (KeFlushQueuedDpcs)";
        default: return "nothing";
    }
}

[[noreturn]] void DeadlockLocked(Kernel& k) {
    std::string text = "deadlock: no thread can run, no DPC is queued and nothing is due; blocked threads:";
    for (auto* t : k.waiters) text += "\n  '" + t->name + "' waits for " + DescribeWaitLocked(t);
    ReportViolation("%s", text.c_str());
    fflush(stderr);
    abort();
}

// How long a suspected deadlock must last before it is reported.
constexpr auto kDeadlockGrace = std::chrono::milliseconds(1000);

void SuspectDeadlockLocked(Kernel& k) {
    if (k.deadlockSuspected && k.suspectedAtProgress == k.progress) return;
    k.deadlockSuspected = true;
    k.suspectedAtProgress = k.progress;
    k.watchdogCv.notify_all();
}

bool StillDeadlockedLocked(Kernel& k) {
    return k.progress == k.suspectedAtProgress && k.running == 0 && k.ready.empty() && !k.waiters.empty() &&
           !NextDueLocked(k);
}

// A host thread: confirms a suspected deadlock after the grace period.
void WatchdogThreadMain(Kernel& k) {
    std::unique_lock<std::mutex> lk(k.m);
    for (;;) {
        k.watchdogCv.wait(lk, [&] { return k.deadlockSuspected; });
        uint64_t at = k.suspectedAtProgress;
        k.watchdogCv.wait_for(lk, kDeadlockGrace, [&] { return k.progress != at; });
        if (k.progress == at && StillDeadlockedLocked(k)) DeadlockLocked(k);
        if (k.suspectedAtProgress == at) k.deadlockSuspected = false;
    }
}

// ---- service threads ------------------------------------------------------------------------
void AwaitBatonLocked(std::unique_lock<std::mutex>& lk, SimThread* t) {
    while (t->state != ThreadState::Running) t->cv.wait(lk);
}

void DpcThreadMain(Kernel& k, SimThread* self) {
    tls_self = self;
    std::unique_lock<std::mutex> lk(k.m);
    AwaitBatonLocked(lk, self);
    for (;;) {
        while (k.dpcQueue.empty() || !DpcsMayRunLocked(k)) {
            self->waitKind = WaitKind::ServiceIdle;
            k.idleDpcThreads.push_back(self);
            BlockLocked(k, lk, self);
        }
        DpcEntry entry = std::move(k.dpcQueue.front());
        k.dpcQueue.pop_front();
        k.dpcRunning++;
        KDPC* dpc = entry.dpc;
        PKDEFERRED_ROUTINE routine = nullptr;
        PVOID context = nullptr, arg1 = nullptr, arg2 = nullptr;
        if (dpc != nullptr) {
            // Cleared before the routine runs, so that it may queue itself again.
            dpc->DpcData = nullptr;
            routine = dpc->DeferredRoutine;
            context = dpc->DeferredContext;
            arg1 = dpc->SystemArgument1;
            arg2 = dpc->SystemArgument2;
        }
        lk.unlock();
        self->irql = DISPATCH_LEVEL;
        if (dpc != nullptr) {
            routine(dpc, context, arg1, arg2);
            CheckLocksAfterCallback("DPC routine", reinterpret_cast<const void*>(routine));
            CheckIrqlAfterCallback(self, DISPATCH_LEVEL, "DPC routine", reinterpret_cast<const void*>(routine));
            CheckXStateAfterCallback(self, "DPC routine", reinterpret_cast<const void*>(routine));
        } else {
            entry.fn();
            CheckLocksAfterCallback("scheduled callback", nullptr);
            CheckIrqlAfterCallback(self, DISPATCH_LEVEL, "scheduled callback", nullptr);
            CheckXStateAfterCallback(self, "scheduled callback", nullptr);
        }
        entry.fn = nullptr;  // destroy captured state outside the lock
        self->irql = PASSIVE_LEVEL;
        lk.lock();
        k.dpcRunning--;
        k.counters.dpcsRun++;
        if (k.dpcQueue.empty() && k.dpcRunning == 0) WakeAllOfKindLocked(k, WaitKind::DpcFlush);
    }
}

void WorkerThreadMain(Kernel& k, SimThread* self) {
    tls_self = self;
    std::unique_lock<std::mutex> lk(k.m);
    AwaitBatonLocked(lk, self);
    for (;;) {
        while (k.workQueue.empty()) {
            self->waitKind = WaitKind::ServiceIdle;
            k.idleWorkers.push_back(self);
            BlockLocked(k, lk, self);
        }
        WorkEntry entry = std::move(k.workQueue.front());
        k.workQueue.pop_front();
        lk.unlock();
        entry.fn();
        CheckLocksAfterCallback(entry.isWorkItem ? "work item" : "posted function", nullptr);
        CheckIrqlAfterCallback(self, PASSIVE_LEVEL, entry.isWorkItem ? "work item" : "posted function", nullptr);
        CheckXStateAfterCallback(self, entry.isWorkItem ? "work item" : "posted function", nullptr);
        entry.fn = nullptr;
        lk.lock();
        if (entry.isWorkItem) {
            k.counters.workItemsRun++;
            k.counters.workItemsPending--;
        }
    }
}

SimThread* NewThreadLocked(Kernel& k, ThreadKind kind, std::string name) {
    auto* t = new SimThread;
    t->kind = kind;
    t->name = std::move(name);
    t->ethread = new ETHREAD{};
    t->ethread->Tcb.Header.Type = KV_OBJECT_THREAD;
    t->ethread->Tcb.Header.SignalState = 0;
    InitializeListHead(&t->ethread->Tcb.Header.WaitListHead);
    t->ethread->Tcb.SimThread = t;
    ++k.threadNumber;
    t->ethread->Cid.UniqueProcess = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4));
    t->ethread->Cid.UniqueThread = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4 * (k.threadNumber + 1)));
    k.threads.push_back(t);
    return t;
}

void StartServiceThreadLocked(Kernel& k, ThreadKind kind, const std::string& name) {
    SimThread* t = NewThreadLocked(k, kind, name);
    MakeReadyLocked(k, t);
    std::thread([&k, t, kind] {
        if (kind == ThreadKind::Dpc)
            DpcThreadMain(k, t);
        else
            WorkerThreadMain(k, t);
    }).detach();
}

// RealTime and Parallel: fires due events as host time passes.
void ClockThreadMain(Kernel& k) {
    std::unique_lock<std::mutex> lk(k.m);
    for (;;) {
        if (FireDueLocked(k, NowLocked(k))) WakeAllOfKindLocked(k, WaitKind::ClockMove);
        DispatchLocked(k);
        auto next = NextDueLocked(k);
        LONGLONG now = NowLocked(k);
        LONGLONG sleep100ns = next ? std::max<LONGLONG>(0, *next - now) : 100 * kMillisecond;
        sleep100ns = std::min<LONGLONG>(sleep100ns, 100 * kMillisecond);
        if (sleep100ns > 0) k.clockCv.wait_for(lk, std::chrono::nanoseconds(sleep100ns * 100));
    }
}

Kernel* CreateKernel() {
    auto* k = new Kernel;
    int requested = g_requestedMode.load();
    k->mode = requested >= 0 ? static_cast<ClockMode>(requested) : ModeFromEnvironment();
    k->maxRunning = k->mode == ClockMode::Parallel ? std::numeric_limits<int>::max() : 1;
    k->hostStartNs = HostMonotonicNs();
    {
        std::unique_lock<std::mutex> lk(k->m);
        int dpcThreads = k->mode == ClockMode::Parallel ? kDpcThreadsParallel : 1;
        for (int i = 0; i < dpcThreads; ++i) StartServiceThreadLocked(*k, ThreadKind::Dpc, "DPC thread " + std::to_string(i));
        for (int i = 0; i < kWorkerThreads; ++i)
            StartServiceThreadLocked(*k, ThreadKind::Worker, "system worker thread " + std::to_string(i));
        DispatchLocked(*k);
    }
    k->serviceThreadNumber = k->threadNumber;
    k->seed = k->mode == ClockMode::Virtual ? SeedFromEnvironment() : 0;
    k->rng = k->seed;
    if (k->mode != ClockMode::Virtual) std::thread([k] { ClockThreadMain(*k); }).detach();
    std::thread([k] { WatchdogThreadMain(*k); }).detach();
    g_kernel.store(k);
    return k;
}

// Releases the baton when an adopted host thread ends (not the process's
// main thread: its thread_local destructors run during exit()).
struct AdoptedThreadGuard {
    SimThread* thread = nullptr;
    ~AdoptedThreadGuard() {
        if (thread == nullptr || getpid() == static_cast<pid_t>(syscall(SYS_gettid))) return;
        Kernel& k = K();
        std::unique_lock<std::mutex> lk(k.m);
        if (thread->state == ThreadState::Running) k.running--;
        thread->state = ThreadState::Ended;
        thread->ethread->Tcb.Header.SignalState = 1;
        SignalLocked(k, &thread->ethread->Tcb.Header);
        k.threads.erase(std::find(k.threads.begin(), k.threads.end(), thread));
        // The record stays allocated: a thread object pointer may survive it.
        thread->ethread->Tcb.SimThread = nullptr;
        k.endedHostThreads.push_back(thread);
        DispatchLocked(k);
    }
};
thread_local AdoptedThreadGuard tls_adopted;

SimThread* Adopt() {
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    bool isMain = getpid() == static_cast<pid_t>(syscall(SYS_gettid));
    std::string name = isMain ? "main thread" : "host thread " + std::to_string(k.threadNumber + 1);
    SimThread* t = NewThreadLocked(k, ThreadKind::Adopted, name);
    tls_self = t;
    tls_adopted.thread = t;
    MakeReadyLocked(k, t);
    DispatchLocked(k);
    AwaitBatonLocked(lk, t);
    return t;
}

}  // namespace

// ---- the internal interface --------------------------------------------------------------------
Kernel& K() {
    static Kernel* k = CreateKernel();
    return *k;
}

Kernel* KernelIfStarted() { return g_kernel.load(); }

SimThread* Self() { return tls_self != nullptr ? tls_self : Adopt(); }
SimThread* SelfIfAdopted() { return tls_self; }
SimThread** CurrentThreadSlot() { return &tls_self; }

LONGLONG NowLocked(Kernel& k) {
    if (k.mode == ClockMode::Virtual) return k.virtualNow.load();
    return (HostMonotonicNs() - k.hostStartNs) / 100;
}

LONGLONG DeadlineFromTimeout(Kernel& k, const LARGE_INTEGER* timeout) {
    if (timeout == nullptr) return kNever;
    LONGLONG v = timeout->QuadPart;
    if (v < 0) return NowLocked(k) + (-v);
    return v - kSystemTimeEpoch;  // absolute system time
}

void MakeReadyLocked(Kernel& k, SimThread* t, bool front) {
    k.progress++;
    t->state = ThreadState::Ready;
    if (front)
        k.ready.push_front(t);
    else
        k.ready.push_back(t);
}

void DispatchLocked(Kernel& k) {
    for (;;) {
        while (k.running < k.maxRunning && !k.ready.empty()) {
            SimThread* t = k.ready.front();
            k.ready.pop_front();
            t->state = ThreadState::Running;
            k.running++;
            t->cv.notify_one();
        }
        if (k.running > 0 || !k.ready.empty()) return;
        // Idle: nothing runs and nothing is ready.
        bool idleWaiters = std::any_of(k.waiters.begin(), k.waiters.end(),
                                       [](SimThread* t) { return t->waitKind == WaitKind::Idle; });
        if (idleWaiters) {
            WakeAllOfKindLocked(k, WaitKind::Idle);
            continue;
        }
        // Nobody waits for anything: no one needs time to move.
        if (k.waiters.empty()) return;
        auto next = NextDueLocked(k);
        if (!next) {
            SuspectDeadlockLocked(k);
            return;
        }
        if (k.mode != ClockMode::Virtual) {
            k.clockCv.notify_all();
            return;
        }
        if (*next > k.virtualNow.load()) {
            k.virtualNow.store(*next);
            WakeAllOfKindLocked(k, WaitKind::ClockMove);
        }
        FireDueLocked(k, k.virtualNow.load());
    }
}

void BlockLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self) {
    self->state = ThreadState::Waiting;
    k.running--;
    DispatchLocked(k);
    AwaitBatonLocked(lk, self);
}

void YieldLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self) {
    k.running--;
    MakeReadyLocked(k, self);
    DispatchLocked(k);
    AwaitBatonLocked(lk, self);
}

// The queued DPCs run now, then the caller goes on (before other ready
// threads), as a DPC interrupts the code running on its processor.
void YieldToDpcsLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self) {
    k.running--;
    MakeReadyLocked(k, self, /*front=*/true);
    std::stable_partition(k.ready.begin(), k.ready.end(), [](SimThread* t) { return t->kind == ThreadKind::Dpc; });
    DispatchLocked(k);
    AwaitBatonLocked(lk, self);
}


NTSTATUS WaitObjectsLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self,
                           std::vector<DISPATCHER_HEADER*> objects, WAIT_TYPE type, LONGLONG deadline, bool poll) {
    self->waitObjects = std::move(objects);
    self->waitType = type;
    if (TrySatisfyLocked(self)) {
        self->waitObjects.clear();
        return self->waitResult;
    }
    if (poll || deadline <= NowLocked(k)) {
        self->waitObjects.clear();
        return STATUS_TIMEOUT;
    }
    self->waitKind = WaitKind::Objects;
    self->deadline = deadline;
    self->waitSeq = ++k.seq;
    k.waiters.push_back(self);
    if (deadline != kNever) NotifyClockLocked(k);
    BlockLocked(k, lk, self);
    self->deadline = kNever;
    return self->waitResult;
}

void WaitKindLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self, WaitKind kind, LONGLONG deadline) {
    self->waitKind = kind;
    self->deadline = deadline;
    self->waitSeq = ++k.seq;
    k.waiters.push_back(self);
    if (deadline != kNever) NotifyClockLocked(k);
    BlockLocked(k, lk, self);
    self->deadline = kNever;
}

void SignalLocked(Kernel& k, DISPATCHER_HEADER* object) {
    std::vector<SimThread*> candidates;
    for (auto* t : k.waiters)
        if (t->waitKind == WaitKind::Objects &&
            std::find(t->waitObjects.begin(), t->waitObjects.end(), object) != t->waitObjects.end())
            candidates.push_back(t);
    for (auto* t : candidates) {
        if (!IsSignaledFor(object, t)) {
            // A mutex is signalled for its owner only; others may still follow.
            if (object->Type != KV_OBJECT_MUTANT) break;
            continue;
        }
        if (TrySatisfyLocked(t)) WakeLocked(k, t, t->waitResult);
    }
}

void QueueDpcLocked(Kernel& k, DpcEntry entry, bool front) {
    if (front)
        k.dpcQueue.push_front(std::move(entry));
    else
        k.dpcQueue.push_back(std::move(entry));
    if (DpcsMayRunLocked(k) && !k.idleDpcThreads.empty()) {
        SimThread* t = k.idleDpcThreads.front();
        k.idleDpcThreads.pop_front();
        t->waitKind = WaitKind::None;
        MakeReadyLocked(k, t, /*front=*/true);
    }
}

bool DpcsMayRunLocked(const Kernel& k) { return !k.dpcsHeld || k.dpcFlushers > 0; }

void WakeDpcThreadsLocked(Kernel& k) {
    if (k.dpcQueue.empty() || !DpcsMayRunLocked(k)) return;
    while (!k.idleDpcThreads.empty()) {
        SimThread* t = k.idleDpcThreads.front();
        k.idleDpcThreads.pop_front();
        t->waitKind = WaitKind::None;
        MakeReadyLocked(k, t, /*front=*/true);
    }
}

void QueueWorkLocked(Kernel& k, WorkEntry entry) {
    k.workQueue.push_back(std::move(entry));
    if (!k.idleWorkers.empty()) {
        SimThread* t = k.idleWorkers.front();
        k.idleWorkers.pop_front();
        t->waitKind = WaitKind::None;
        MakeReadyLocked(k, t);
    }
}

void NotifyClockLocked(Kernel& k) {
    if (k.mode != ClockMode::Virtual) k.clockCv.notify_all();
}

std::string RoutineName(const void* routine) {
    char buf[64];
    Dl_info info{};
    if (routine != nullptr && dladdr(routine, &info) != 0 && info.dli_sname != nullptr) return info.dli_sname;
    snprintf(buf, sizeof buf, "%p", routine);
    return buf;
}

void CheckIrqlAfterCallback(SimThread* self, KIRQL expected, const char* what, const void* routine) {
    if (self->irql == expected) return;
    ReportViolation("%s %s returned at IRQL %u, but was called at IRQL %u", what,
                    routine ? RoutineName(routine).c_str() : "", self->irql, expected);
    self->irql = expected;
}

}  // namespace kvsim::ke

// ---- the host control API ------------------------------------------------------------------------
namespace kvsim {
using namespace kvsim::ke;

void SetClockMode(ClockMode mode) {
    Kernel* k = KernelIfStarted();
    if (k != nullptr) {
        if (k->mode != mode) ReportViolation("kvsim::SetClockMode after the simulation started: ignored");
        return;
    }
    g_requestedMode.store(static_cast<int>(mode));
}

ClockMode GetClockMode() {
    Kernel* k = KernelIfStarted();
    if (k != nullptr) return k->mode;
    int requested = g_requestedMode.load();
    return requested >= 0 ? static_cast<ClockMode>(requested) : ModeFromEnvironment();
}

LONGLONG Now() {
    Kernel& k = K();
    return NowLocked(k);
}

namespace {
void RequirePassive(SimThread* self, const char* what) {
    if (self->irql != PASSIVE_LEVEL) ReportViolation("%s called at IRQL %u (needs PASSIVE_LEVEL)", what, self->irql);
}
// How long RunUntil/RunUntilIdle wait at most in the host-clock modes
// before looking again (their "idle" may never come there).
constexpr LONGLONG kHostPoll = 1 * kMillisecond;
}  // namespace

void RunFor(LONGLONG duration100ns) {
    SimThread* self = Self();
    RequirePassive(self, "kvsim::RunFor");
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    WaitKindLocked(k, lk, self, WaitKind::Delay, NowLocked(k) + std::max<LONGLONG>(duration100ns, 0));
}

void RunUntilIdle() {
    SimThread* self = Self();
    RequirePassive(self, "kvsim::RunUntilIdle");
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    LONGLONG deadline = k.mode == ClockMode::Virtual ? kNever : NowLocked(k) + 100 * kMillisecond;
    WaitKindLocked(k, lk, self, WaitKind::Idle, deadline);
}

bool RunUntil(std::function<bool()> predicate, LONGLONG timeout100ns) {
    SimThread* self = Self();
    RequirePassive(self, "kvsim::RunUntil");
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    LONGLONG deadline = NowLocked(k) + std::max<LONGLONG>(timeout100ns, 0);
    bool virtualClock = k.mode == ClockMode::Virtual;
    for (;;) {
        // Let everything settle at the current time, then look.
        WaitKindLocked(k, lk, self, WaitKind::Idle,
                       virtualClock ? kNever : std::min(deadline, NowLocked(k) + kHostPoll));
        lk.unlock();
        bool done = predicate();
        lk.lock();
        if (done) return true;
        LONGLONG now = NowLocked(k);
        if (now >= deadline) return false;
        // Then let the clock move to the next due event (at most the deadline).
        if (virtualClock)
            WaitKindLocked(k, lk, self, WaitKind::ClockMove, deadline);
        else
            WaitKindLocked(k, lk, self, WaitKind::Delay, std::min(deadline, now + kHostPoll));
    }
}

uint64_t ScheduleAt(LONGLONG due, std::function<void()> fn) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    uint64_t id = k.nextScheduledId++;
    k.scheduled[id] = ScheduledCall{due, std::move(fn), ++k.seq};
    NotifyClockLocked(k);
    // From a host thread outside the simulation while it is idle: someone
    // has to move the clock.
    DispatchLocked(k);
    return id;
}

bool CancelScheduled(uint64_t id) {
    Kernel& k = K();
    std::function<void()> doomed;  // destroyed outside the lock
    std::lock_guard<std::mutex> guard(k.m);
    auto it = k.scheduled.find(id);
    if (it != k.scheduled.end()) {
        doomed = std::move(it->second.fn);
        k.scheduled.erase(it);
        return true;
    }
    for (auto q = k.dpcQueue.begin(); q != k.dpcQueue.end(); ++q) {
        if (q->dpc == nullptr && q->scheduledId == id) {
            doomed = std::move(q->fn);
            k.dpcQueue.erase(q);
            return true;
        }
    }
    return false;
}

void Post(std::function<void()> fn) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    QueueWorkLocked(k, WorkEntry{std::move(fn), false});
    DispatchLocked(k);
}

void PreemptionPoint() {
    Kernel* kp = KernelIfStarted();
    SimThread* self = SelfIfAdopted();
    if (kp == nullptr || self == nullptr || kp->seed == 0 || self->irql > APC_LEVEL || self->kind == ThreadKind::Dpc)
        return;
    Kernel& k = *kp;
    std::unique_lock<std::mutex> lk(k.m);
    if (self->state != ThreadState::Running) return;
    const uint64_t r = NextRandomLocked(k);
    // One point in four, timers due by now expire here rather than at the
    // next idle moment.
    if ((r & 3) == 0) FireDueLocked(k, NowLocked(k));
    // Half the time queued DPCs run at once, as another processor (or an
    // interrupt of this one) would run them.
    if (!k.dpcQueue.empty() && DpcsMayRunLocked(k) && ((r >> 2) & 1) != 0) {
        YieldToDpcsLocked(k, lk, self);
        return;
    }
    // One point in four, another ready thread runs first. The preempted
    // thread then sits out 0, 1, 3, ... 127 points (each length as likely):
    // short stays let two threads alternate closely, long ones let the other
    // get well into its work, as on a machine with more than one processor.
    ++k.preemptionPoints;
    if (k.ready.empty() || ((r >> 3) & 3) != 0 || k.ready.front()->heldOffUntil > k.preemptionPoints) return;
    self->heldOffUntil = k.preemptionPoints + (uint64_t{1} << ((r >> 5) & 7)) - 1;
    YieldLocked(k, lk, self);
}

void SetSeed(uint64_t seed) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.seed = k.mode == ClockMode::Virtual ? seed : 0;
    k.rng = k.seed;
}

uint64_t GetSeed() {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    return k.seed;
}

void HoldDpcs(bool hold) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.dpcsHeld = hold;
    WakeDpcThreadsLocked(k);
    DispatchLocked(k);
}

void SetExactTimers(bool exact) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.exactTimers = exact;
}

void ResetSchedulerForNextTest() {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.rng = k.seed;
    k.preemptionPoints = 0;
    for (SimThread* t : k.threads) t->heldOffUntil = 0;
    k.exactTimers = false;
    k.dpcsHeld = false;
    k.threadNumber = k.serviceThreadNumber;
    // The clock goes back to boot only when nothing waits on it: the
    // end-of-test checks cancelled every timer and callback.
    bool timed = !k.timers.empty() || !k.scheduled.empty() ||
                 std::any_of(k.waiters.begin(), k.waiters.end(), [](SimThread* t) { return t->deadline != kNever; });
    if (k.mode == ClockMode::Virtual && !timed) k.virtualNow.store(0);
}

SchedCounters GetSchedCounters() {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    SchedCounters c = k.counters;
    c.dpcsQueued = k.dpcQueue.size();
    c.timersArmed = k.timers.size();
    c.scheduledPending = k.scheduled.size();
    c.liveSystemThreads = static_cast<uint64_t>(
        std::count_if(k.threads.begin(), k.threads.end(), [](SimThread* t) { return t->kind == ThreadKind::System; }));
    return c;
}

void ResetSchedCounters() {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.counters.dpcsRun = 0;
    k.counters.workItemsQueued = 0;
    k.counters.workItemsRun = 0;
}

std::vector<std::string> SchedEndOfTestCheck() {
    std::vector<std::string> problems;
    Kernel* kp = KernelIfStarted();
    if (kp == nullptr) return problems;
    Kernel& k = *kp;
    std::vector<std::function<void()>> doomed;
    {
        std::lock_guard<std::mutex> guard(k.m);
        for (auto* t : k.threads) {
            if (t->kind != ThreadKind::System || t->reportedAlive) continue;
            t->reportedAlive = true;  // a thread left running fails one test, not every later one
            problems.push_back("system thread '" + t->name + "' is still running at the end of the test");
        }
        if (k.counters.workItemsPending > 0)
            problems.push_back(std::to_string(k.counters.workItemsPending) +
                               " work item(s) still queued or running at the end of the test");
        for (auto& e : k.dpcQueue) {
            if (e.dpc != nullptr) {
                problems.push_back("DPC " + RoutineName(reinterpret_cast<const void*>(e.dpc->DeferredRoutine)) +
                                   " still queued at the end of the test (removed)");
                e.dpc->DpcData = nullptr;
            } else {
                problems.push_back("scheduled callback still queued at the end of the test (removed)");
                doomed.push_back(std::move(e.fn));
            }
        }
        k.dpcQueue.clear();
        for (auto& [timer, armed] : k.timers) {
            char buf[160];
            snprintf(buf, sizeof buf, "timer %p still set at the end of the test (due at %lld, period %d ms): cancelled",
                     static_cast<void*>(timer), static_cast<long long>(armed.due), static_cast<int>(armed.periodMs));
            problems.push_back(buf);
        }
        k.timers.clear();
        for (auto& [id, call] : k.scheduled) {
            problems.push_back("scheduled callback " + std::to_string(id) +
                               " still pending at the end of the test: cancelled");
            doomed.push_back(std::move(call.fn));
        }
        k.scheduled.clear();
        k.counters.dpcsRun = 0;
        k.counters.workItemsQueued = 0;
        k.counters.workItemsRun = 0;
    }
    // The test's own thread: extended state it saved and never restored.
    if (SimThread* self = SelfIfAdopted()) {
        const std::string left = TakeUnrestoredXState(self);
        if (!left.empty()) problems.push_back("the test's thread ended with " + left);
    }
    return problems;
}

void SetCurrentThreadName(const std::string& name) {
    SimThread* self = Self();
    std::lock_guard<std::mutex> guard(K().m);
    self->name = name;
}

}  // namespace kvsim
