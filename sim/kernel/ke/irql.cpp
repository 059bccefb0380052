// IRQL and spin locks of the simulated kernel. Each simulated thread has its
// own IRQL. A spin lock holds the KTHREAD pointer of its owner (0 = free),
// which lets the simulation see a recursive acquire (a deadlock on Windows)
// and a release by a thread that does not hold it.
// Docs: learn.microsoft.com/windows-hardware/drivers/kernel/introduction-to-spin-locks,
// .../ddi/wdm/nf-wdm-kelowerirql, .../ddi/wdm/nf-wdm-keraiseirql.
#include <sched.h>

#include <cstdio>
#include <cstdlib>

#include "ke_internal.h"
#include "kvsim/diag.h"
#include "verifier_internal.h"

using namespace kvsim::ke;

namespace {

ULONG_PTR OwnerValue(SimThread* self) { return reinterpret_cast<ULONG_PTR>(KThreadOf(self)); }

// In the baton modes the holder of a contended lock cannot run while we
// spin, so contention can only be a deadlock; Parallel mode spins for real.
void AcquireRaw(PKSPIN_LOCK lock, SimThread* self, const char* what, KIRQL irqlBefore) {
    ULONG_PTR me = OwnerValue(self);
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == me) {
        kvsim::ReportViolation("%s: spin lock %p is already held by this thread (a deadlock on Windows)", what,
                               static_cast<void*>(lock));
        return;
    }
    bool parallel = K().mode == kvsim::ClockMode::Parallel;
    for (uint64_t spins = 0;; ++spins) {
        ULONG_PTR expected = 0;
        if (__atomic_compare_exchange_n(lock, &expected, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            NoteLockAcquired(lock, LockKind::SpinLock, irqlBefore);
            return;
        }
        if (!parallel && spins > 1000) {
            kvsim::ReportViolation("%s: spin lock %p is held by another thread that is not running: deadlock", what,
                                   static_cast<void*>(lock));
            fflush(stderr);
            abort();
        }
        if (spins % 64 == 63) sched_yield();
    }
}

void ReleaseRaw(PKSPIN_LOCK lock, SimThread* self, const char* what) {
    ULONG_PTR me = OwnerValue(self);
    ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
    if (owner != me) {
        kvsim::ReportViolation("%s: spin lock %p is not held by this thread (%s)", what, static_cast<void*>(lock),
                               owner == 0 ? "it is free" : "another thread holds it");
        return;
    }
    __atomic_store_n(lock, ULONG_PTR{0}, __ATOMIC_RELEASE);
    NoteLockReleased(lock);
}

// Lowering to APC_LEVEL or below lets whatever waited for this processor
// run: a preemption point.
void LowerTo(SimThread* self, KIRQL newIrql, const char* what) {
    if (newIrql > self->irql)
        kvsim::ReportViolation("%s: new IRQL %u is above the current IRQL %u", what, newIrql, self->irql);
    const KIRQL old = self->irql;
    self->irql = newIrql;
    if (old > APC_LEVEL && newIrql <= APC_LEVEL) kvsim::PreemptionPoint();
}

KIRQL RaiseToDpc(SimThread* self, const char* what) {
    KIRQL old = self->irql;
    if (old > DISPATCH_LEVEL)
        kvsim::ReportViolation("%s called at IRQL %u (must be <= DISPATCH_LEVEL)", what, old);
    else
        self->irql = DISPATCH_LEVEL;
    return old;
}

void RequireDpcLevel(SimThread* self, const char* what) {
    if (self->irql < DISPATCH_LEVEL)
        kvsim::ReportViolation("%s called at IRQL %u (must be >= DISPATCH_LEVEL)", what, self->irql);
}

}  // namespace

extern "C" {

KIRQL KeGetCurrentIrql(VOID) { return Self()->irql; }

VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
    SimThread* self = Self();
    *OldIrql = self->irql;
    if (NewIrql < self->irql) {
        kvsim::ReportViolation("KeRaiseIrql: new IRQL %u is below the current IRQL %u", NewIrql, self->irql);
        return;
    }
    self->irql = NewIrql;
}

VOID KeLowerIrql(KIRQL NewIrql) { LowerTo(Self(), NewIrql, "KeLowerIrql"); }

KIRQL KeRaiseIrqlToDpcLevel(VOID) {
    KIRQL old = 0;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return old;
}

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { __atomic_store_n(SpinLock, ULONG_PTR{0}, __ATOMIC_RELEASE); }

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    SimThread* self = Self();
    KIRQL old = RaiseToDpc(self, "KeAcquireSpinLock");
    AcquireRaw(SpinLock, self, "KeAcquireSpinLock", old);
    return old;
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    SimThread* self = Self();
    ReleaseRaw(SpinLock, self, "KeReleaseSpinLock");
    LowerTo(self, NewIrql, "KeReleaseSpinLock");
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    SimThread* self = Self();
    RequireDpcLevel(self, "KeAcquireSpinLockAtDpcLevel");
    AcquireRaw(SpinLock, self, "KeAcquireSpinLockAtDpcLevel", self->irql);
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    SimThread* self = Self();
    RequireDpcLevel(self, "KeReleaseSpinLockFromDpcLevel");
    ReleaseRaw(SpinLock, self, "KeReleaseSpinLockFromDpcLevel");
}

BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock) { return __atomic_load_n(SpinLock, __ATOMIC_ACQUIRE) == 0; }

VOID KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle) {
    SimThread* self = Self();
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = RaiseToDpc(self, "KeAcquireInStackQueuedSpinLock");
    AcquireRaw(SpinLock, self, "KeAcquireInStackQueuedSpinLock", LockHandle->OldIrql);
}

VOID KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle) {
    SimThread* self = Self();
    ReleaseRaw(LockHandle->LockQueue.Lock, self, "KeReleaseInStackQueuedSpinLock");
    LowerTo(self, LockHandle->OldIrql, "KeReleaseInStackQueuedSpinLock");
}

VOID KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle) {
    SimThread* self = Self();
    RequireDpcLevel(self, "KeAcquireInStackQueuedSpinLockAtDpcLevel");
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = self->irql;
    AcquireRaw(SpinLock, self, "KeAcquireInStackQueuedSpinLockAtDpcLevel", self->irql);
}

VOID KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle) {
    SimThread* self = Self();
    RequireDpcLevel(self, "KeReleaseInStackQueuedSpinLockFromDpcLevel");
    ReleaseRaw(LockHandle->LockQueue.Lock, self, "KeReleaseInStackQueuedSpinLockFromDpcLevel");
}

// The ExInterlocked list routines may run at any IRQL up to the device's;
// they take the lock without changing the IRQL (Windows disables
// interrupts around it). They return the old first (head insert) or last
// (tail insert) entry, NULL for an empty list (docs: learn.microsoft.com/
// windows-hardware/drivers/ddi/wdm/nf-wdm-exinterlockedinserttaillist).
PLIST_ENTRY ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
    SimThread* self = Self();
    AcquireRaw(Lock, self, "ExInterlockedInsertHeadList", self->irql);
    PLIST_ENTRY first = IsListEmpty(ListHead) ? nullptr : ListHead->Flink;
    InsertHeadList(ListHead, ListEntry);
    ReleaseRaw(Lock, self, "ExInterlockedInsertHeadList");
    return first;
}

PLIST_ENTRY ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
    SimThread* self = Self();
    AcquireRaw(Lock, self, "ExInterlockedInsertTailList", self->irql);
    PLIST_ENTRY last = IsListEmpty(ListHead) ? nullptr : ListHead->Blink;
    InsertTailList(ListHead, ListEntry);
    ReleaseRaw(Lock, self, "ExInterlockedInsertTailList");
    return last;
}

PLIST_ENTRY ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
    SimThread* self = Self();
    AcquireRaw(Lock, self, "ExInterlockedRemoveHeadList", self->irql);
    PLIST_ENTRY first = IsListEmpty(ListHead) ? nullptr : RemoveHeadList(ListHead);
    ReleaseRaw(Lock, self, "ExInterlockedRemoveHeadList");
    return first;
}

PSINGLE_LIST_ENTRY ExInterlockedPushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY ListEntry,
                                              PKSPIN_LOCK Lock) {
    SimThread* self = Self();
    AcquireRaw(Lock, self, "ExInterlockedPushEntryList", self->irql);
    PSINGLE_LIST_ENTRY first = ListHead->Next;
    PushEntryList(ListHead, ListEntry);
    ReleaseRaw(Lock, self, "ExInterlockedPushEntryList");
    return first;
}

PSINGLE_LIST_ENTRY ExInterlockedPopEntryList(PSINGLE_LIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
    SimThread* self = Self();
    AcquireRaw(Lock, self, "ExInterlockedPopEntryList", self->irql);
    PSINGLE_LIST_ENTRY first = PopEntryList(ListHead);
    ReleaseRaw(Lock, self, "ExInterlockedPopEntryList");
    return first;
}

}  // extern "C"
