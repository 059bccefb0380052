// Dispatcher objects of the simulated kernel: events, semaphores, mutexes,
// fast mutexes, timers, DPCs, and the wait functions, on top of the
// scheduler (sched.cpp). Semantics as documented on learn.microsoft.com
// (windows-hardware/drivers/ddi/wdm/nf-wdm-kewaitformultipleobjects,
// nf-wdm-kesetevent, nf-wdm-kereleasesemaphore, nf-wdm-kereleasemutex,
// nf-wdm-kesettimerex, nf-wdm-keinsertqueuedpc, nf-wdm-exacquirefastmutex).
#include "ke_internal.h"
#include "kvsim/diag.h"
#include "verifier_internal.h"

using namespace kvsim::ke;

namespace {

constexpr UCHAR kDpcObjectType = 19;  // KOBJECTS DpcObject

void InitHeader(DISPATCHER_HEADER* h, UCHAR type, size_t size, LONG state) {
    h->Type = type;
    h->Absolute = 0;
    h->Size = static_cast<UCHAR>(size / sizeof(LONG));
    h->Inserted = 0;
    h->SignalState = state;
    InitializeListHead(&h->WaitListHead);
}

// KeSetEvent, KeReleaseSemaphore, KeReleaseMutex, KeInsertQueueDpc: IRQL <= DISPATCH_LEVEL.
// They are also points where another processor's work may interleave.
SimThread* RequireAtMostDispatch(const char* what) {
    kvsim::PreemptionPoint();
    SimThread* self = Self();
    if (self->irql > DISPATCH_LEVEL)
        kvsim::ReportViolation("%s called at IRQL %u (must be <= DISPATCH_LEVEL)", what, self->irql);
    return self;
}

LONG ReadState(DISPATCHER_HEADER* h) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    return h->SignalState;
}

// The wait functions' IRQL rule: at DISPATCH_LEVEL only with a zero
// time-out (a poll); never above. A violating wait is reported and then
// treated as a poll so that the simulation does not block at DISPATCH_LEVEL.
bool CheckWaitIrql(SimThread* self, const char* what, PLARGE_INTEGER timeout) {
    bool poll = timeout != nullptr && timeout->QuadPart == 0;
    if (self->irql > DISPATCH_LEVEL || (self->irql == DISPATCH_LEVEL && !poll)) {
        kvsim::ReportViolation("%s at IRQL %u with %s time-out", what, self->irql,
                               timeout == nullptr ? "an infinite (NULL)" : "a non-zero");
        return true;
    }
    return poll;
}

// False (and nothing acquired) for a recursive acquisition.
bool FastMutexAcquireLocked(Kernel& k, std::unique_lock<std::mutex>& lk, SimThread* self, PFAST_MUTEX m,
                            LockKind kind, KIRQL irqlBefore) {
    if (m->Count == 0 && m->Owner == KThreadOf(self)) {
        kvsim::ReportViolation("fast mutex %p acquired again by its owner (a deadlock on Windows)",
                               static_cast<void*>(m));
        return false;
    }
    while (m->Count == 0) {
        m->Contention++;
        WaitObjectsLocked(k, lk, self, {&m->Event.Header}, WaitAny, kNever, false);
        m->Contention--;
    }
    m->Count = 0;
    m->Owner = KThreadOf(self);
    NoteLockAcquired(m, kind, irqlBefore);
    return true;
}

bool FastMutexReleaseLocked(Kernel& k, SimThread* self, PFAST_MUTEX m, const char* what) {
    if (m->Count != 0 || m->Owner != KThreadOf(self)) {
        kvsim::ReportViolation("%s: fast mutex %p is not owned by this thread", what, static_cast<void*>(m));
        return false;
    }
    m->Count = 1;
    m->Owner = nullptr;
    NoteLockReleased(m);
    if (m->Contention > 0) {
        m->Event.Header.SignalState = 1;
        SignalLocked(k, &m->Event.Header);
        DispatchLocked(k);
    }
    return true;
}

// After a satisfied wait: the mutexes it acquired go on the thread's list of
// held locks (WaitAny: the object that satisfied it; WaitAll: all of them).
void NoteMutexesAcquired(const std::vector<DISPATCHER_HEADER*>& objects, WAIT_TYPE type, NTSTATUS status) {
    if (status < STATUS_WAIT_0 || status >= STATUS_WAIT_0 + static_cast<NTSTATUS>(objects.size())) return;
    for (size_t i = 0; i < objects.size(); ++i) {
        bool acquired = type == WaitAll || static_cast<NTSTATUS>(i) == status - STATUS_WAIT_0;
        if (acquired && objects[i]->Type == KV_OBJECT_MUTANT)
            NoteLockAcquired(objects[i], LockKind::Mutex, KeGetCurrentIrql());
    }
}

void ArmTimerLocked(Kernel& k, PKTIMER timer, LONGLONG due, LONG period, PKDPC dpc) {
    timer->DueTime.QuadPart = static_cast<ULONGLONG>(due);
    timer->Period = period;
    timer->Dpc = dpc;
    timer->Header.Inserted = TRUE;
    k.timers[timer] = ArmedTimer{ExpiryLocked(k, due), period, dpc, ++k.seq, due};
    NotifyClockLocked(k);
}

}  // namespace

extern "C" {

// ---- events ---------------------------------------------------------------------
VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    InitHeader(&Event->Header,
               Type == NotificationEvent ? KV_OBJECT_EVENT_NOTIFICATION : KV_OBJECT_EVENT_SYNCHRONIZATION,
               sizeof(KEVENT), State ? 1 : 0);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    // Wait=TRUE keeps the dispatcher locked on Windows until the caller's
    // next wait; with one global lock here there is nothing to keep.
    (void)Increment;
    (void)Wait;
    RequireAtMostDispatch("KeSetEvent");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    if (previous == 0) {
        SignalLocked(k, &Event->Header);
        DispatchLocked(k);
    }
    return previous;
}

LONG KeResetEvent(PRKEVENT Event) {
    RequireAtMostDispatch("KeResetEvent");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

VOID KeClearEvent(PRKEVENT Event) { (void)KeResetEvent(Event); }

LONG KeReadStateEvent(PRKEVENT Event) { return ReadState(&Event->Header); }

// ---- semaphores -----------------------------------------------------------------
VOID KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
    InitHeader(&Semaphore->Header, KV_OBJECT_SEMAPHORE, sizeof(KSEMAPHORE), Count);
    Semaphore->Limit = Limit;
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait) {
    (void)Increment;
    (void)Wait;
    RequireAtMostDispatch("KeReleaseSemaphore");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    LONG previous = Semaphore->Header.SignalState;
    LONGLONG next = static_cast<LONGLONG>(previous) + Adjustment;
    if (Adjustment <= 0 || next > Semaphore->Limit) {
        // Windows raises STATUS_SEMAPHORE_LIMIT_EXCEEDED here.
        kvsim::ReportViolation(
            "KeReleaseSemaphore(%p, adjustment %d): count %d would pass the limit %d "
            "(STATUS_SEMAPHORE_LIMIT_EXCEEDED)",
            static_cast<void*>(Semaphore), static_cast<int>(Adjustment), static_cast<int>(previous),
            static_cast<int>(Semaphore->Limit));
        return previous;
    }
    Semaphore->Header.SignalState = static_cast<LONG>(next);
    if (previous == 0) {
        SignalLocked(k, &Semaphore->Header);
        DispatchLocked(k);
    }
    return previous;
}

LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore) { return ReadState(&Semaphore->Header); }

// ---- mutexes --------------------------------------------------------------------
VOID KeInitializeMutex(PRKMUTEX Mutex, ULONG Level) {
    (void)Level;
    InitHeader(&Mutex->Header, KV_OBJECT_MUTANT, sizeof(KMUTEX), 1);
    InitializeListHead(&Mutex->MutantListEntry);
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
}

LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait) {
    (void)Wait;
    SimThread* self = RequireAtMostDispatch("KeReleaseMutex");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    LONG previous = Mutex->Header.SignalState;
    if (Mutex->OwnerThread != KThreadOf(self) || previous > 0) {
        // Windows raises STATUS_MUTANT_NOT_OWNED.
        kvsim::ReportViolation("KeReleaseMutex(%p): the mutex is not owned by this thread (STATUS_MUTANT_NOT_OWNED)",
                               static_cast<void*>(Mutex));
        return previous;
    }
    Mutex->Header.SignalState = previous + 1;
    NoteLockReleased(Mutex);
    if (Mutex->Header.SignalState == 1) {
        Mutex->OwnerThread = nullptr;
        SignalLocked(k, &Mutex->Header);
        DispatchLocked(k);
    }
    return previous;
}

LONG KeReadStateMutex(PRKMUTEX Mutex) { return ReadState(&Mutex->Header); }

// ---- fast mutexes -----------------------------------------------------------------
VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
    FastMutex->Count = 1;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
    FastMutex->OldIrql = PASSIVE_LEVEL;
}

VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex) {
    SimThread* self = Self();
    KIRQL old = self->irql;
    if (old > APC_LEVEL)
        kvsim::ReportViolation("ExAcquireFastMutex called at IRQL %u (must be <= APC_LEVEL)", old);
    else
        self->irql = APC_LEVEL;
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    if (FastMutexAcquireLocked(k, lk, self, FastMutex, LockKind::FastMutex, old))
        FastMutex->OldIrql = old;
    else
        self->irql = old;
}

VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
    SimThread* self = Self();
    Kernel& k = K();
    KIRQL restore;
    {
        std::lock_guard<std::mutex> guard(k.m);
        restore = static_cast<KIRQL>(FastMutex->OldIrql);
        if (!FastMutexReleaseLocked(k, self, FastMutex, "ExReleaseFastMutex")) return;
    }
    if (self->irql != APC_LEVEL)
        kvsim::ReportViolation("ExReleaseFastMutex called at IRQL %u (must be APC_LEVEL)", self->irql);
    self->irql = restore;
    kvsim::PreemptionPoint();
}

BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex) {
    SimThread* self = Self();
    KIRQL old = self->irql;
    if (old > APC_LEVEL) {
        kvsim::ReportViolation("ExTryToAcquireFastMutex called at IRQL %u (must be <= APC_LEVEL)", old);
        return FALSE;
    }
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    if (FastMutex->Count == 0) return FALSE;
    FastMutex->Count = 0;
    FastMutex->Owner = KThreadOf(self);
    FastMutex->OldIrql = old;
    self->irql = APC_LEVEL;
    NoteLockAcquired(FastMutex, LockKind::FastMutex, old);
    return TRUE;
}

VOID ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex) {
    SimThread* self = Self();
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    FastMutexAcquireLocked(k, lk, self, FastMutex, LockKind::FastMutexUnsafe, self->irql);
}

VOID ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex) {
    SimThread* self = Self();
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    FastMutexReleaseLocked(k, self, FastMutex, "ExReleaseFastMutexUnsafe");
}

// ---- waits --------------------------------------------------------------------------
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout) {
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    SimThread* self = Self();
    bool poll = CheckWaitIrql(self, "KeWaitForSingleObject", Timeout);
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    NTSTATUS status = WaitObjectsLocked(k, lk, self, {header}, WaitAny, DeadlineFromTimeout(k, Timeout), poll);
    NoteMutexesAcquired({header}, WaitAny, status);
    return status;
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray) {
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    SimThread* self = Self();
    bool poll = CheckWaitIrql(self, "KeWaitForMultipleObjects", Timeout);
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS) {
        kvsim::ReportViolation("KeWaitForMultipleObjects: %u objects (bug check MAXIMUM_WAIT_OBJECTS_EXCEEDED)",
                               Count);
        return STATUS_INVALID_PARAMETER;
    }
    if (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr) {
        kvsim::ReportViolation(
            "KeWaitForMultipleObjects: %u objects need a WaitBlockArray (only %d built-in wait blocks)", Count,
            THREAD_WAIT_OBJECTS);
        return STATUS_INVALID_PARAMETER;
    }
    if (WaitType != WaitAll && WaitType != WaitAny) {
        kvsim::ReportViolation("KeWaitForMultipleObjects: wait type %d is neither WaitAll nor WaitAny",
                               static_cast<int>(WaitType));
        return STATUS_INVALID_PARAMETER;
    }
    std::vector<DISPATCHER_HEADER*> objects;
    for (ULONG i = 0; i < Count; ++i) objects.push_back(static_cast<DISPATCHER_HEADER*>(Object[i]));
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    NTSTATUS status = WaitObjectsLocked(k, lk, self, objects, WaitType, DeadlineFromTimeout(k, Timeout), poll);
    NoteMutexesAcquired(objects, WaitType, status);
    return status;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
    (void)WaitMode;
    (void)Alertable;
    SimThread* self = Self();
    if (self->irql > APC_LEVEL) {
        kvsim::ReportViolation("KeDelayExecutionThread called at IRQL %u (must be <= APC_LEVEL)", self->irql);
        return STATUS_SUCCESS;
    }
    if (Interval == nullptr) {
        kvsim::ReportViolation("KeDelayExecutionThread with a NULL interval");
        return STATUS_INVALID_PARAMETER;
    }
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    LONGLONG deadline = DeadlineFromTimeout(k, Interval);
    if (deadline <= NowLocked(k)) {
        // A zero (or past) interval gives up the rest of the time slice.
        YieldLocked(k, lk, self);
        return STATUS_SUCCESS;
    }
    WaitKindLocked(k, lk, self, WaitKind::Delay, deadline);
    return STATUS_SUCCESS;
}

// ---- timers ---------------------------------------------------------------------------
VOID KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

VOID KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    k.timers.erase(Timer);  // re-initializing a set timer (memory reused)
    InitHeader(&Timer->Header,
               Type == NotificationTimer ? KV_OBJECT_TIMER_NOTIFICATION : KV_OBJECT_TIMER_SYNCHRONIZATION,
               sizeof(KTIMER), 0);
    Timer->DueTime.QuadPart = 0;
    InitializeListHead(&Timer->TimerListEntry);
    Timer->Dpc = nullptr;
    Timer->Processor = 0;
    Timer->Period = 0;
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) { return KeSetTimerEx(Timer, DueTime, 0, Dpc); }

// Setting a set timer cancels it first; the timer becomes not signalled.
BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    RequireAtMostDispatch("KeSetTimerEx");
    if (Period < 0) {
        kvsim::ReportViolation("KeSetTimerEx: negative period %d", static_cast<int>(Period));
        Period = 0;
    }
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    bool wasSet = k.timers.erase(Timer) > 0;
    Timer->Header.SignalState = 0;
    ArmTimerLocked(k, Timer, DeadlineFromTimeout(k, &DueTime), Period, Dpc);
    return wasSet ? TRUE : FALSE;
}

BOOLEAN KeCancelTimer(PKTIMER Timer) {
    RequireAtMostDispatch("KeCancelTimer");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    bool wasSet = k.timers.erase(Timer) > 0;
    Timer->Header.Inserted = FALSE;
    return wasSet ? TRUE : FALSE;
}

BOOLEAN KeReadStateTimer(PKTIMER Timer) { return ReadState(&Timer->Header) != 0 ? TRUE : FALSE; }

// ---- DPCs -----------------------------------------------------------------------------
VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    Dpc->Type = kDpcObjectType;
    Dpc->Importance = MediumImportance;
    Dpc->Number = 0;
    InitializeListHead(&Dpc->DpcListEntry);
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = nullptr;
    Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = nullptr;
}

// Threaded DPCs run at PASSIVE_LEVEL on Windows when threaded DPCs are
// enabled; the simulation runs them as ordinary DPCs (what Windows does with
// threaded DPCs disabled).
VOID KeInitializeThreadedDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    KeInitializeDpc(Dpc, DeferredRoutine, DeferredContext);
}

VOID KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance) { Dpc->Importance = static_cast<UCHAR>(Importance); }

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    RequireAtMostDispatch("KeInsertQueueDpc");
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    if (Dpc->DpcData != nullptr) return FALSE;  // already queued
    Dpc->SystemArgument1 = SystemArgument1;
    Dpc->SystemArgument2 = SystemArgument2;
    Dpc->DpcData = Dpc;
    QueueDpcLocked(k, DpcEntry{Dpc, 0, {}}, Dpc->Importance == HighImportance);
    DispatchLocked(k);
    return TRUE;
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    for (auto it = k.dpcQueue.begin(); it != k.dpcQueue.end(); ++it) {
        if (it->dpc == Dpc) {
            k.dpcQueue.erase(it);
            Dpc->DpcData = nullptr;
            return TRUE;
        }
    }
    return FALSE;
}

VOID KeFlushQueuedDpcs(VOID) {
    SimThread* self = Self();
    if (self->irql != PASSIVE_LEVEL)
        kvsim::ReportViolation("KeFlushQueuedDpcs called at IRQL %u (must be PASSIVE_LEVEL)", self->irql);
    Kernel& k = K();
    std::unique_lock<std::mutex> lk(k.m);
    if (k.dpcQueue.empty() && k.dpcRunning == 0) return;
    // DPCs held on a busy processor run once it is free; the flush waits.
    ++k.dpcFlushers;
    WakeDpcThreadsLocked(k);
    WaitKindLocked(k, lk, self, WaitKind::DpcFlush, kNever);
    --k.dpcFlushers;
}

}  // extern "C"
