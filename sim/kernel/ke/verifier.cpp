// Driver Verifier's lock and freed-memory checks of the simulated kernel
// (kvsim/verifier.h, verifier_internal.h).
//
// Locks: every simulated thread is one host thread, so the locks a thread
// holds are a thread_local list that the lock routines keep (irql.cpp,
// dispatcher.cpp). A callback that returns holding a lock it acquired is a
// violation: a DPC routine returning with a mutex held is bug check 0xC7
// TIMER_OR_DPC_INVALID parameter 0x4 (the thread's APC disable count
// changed), a spin lock kept past a DPC or a work item leaves the processor at
// DISPATCH_LEVEL or deadlocks the next acquirer
// (learn.microsoft.com/windows-hardware/drivers/debugger/bug-check-0xc7--timer-or-dpc-invalid,
// learn.microsoft.com/windows-hardware/drivers/kernel/introduction-to-spin-locks).
// The lock is released after the report so that the rest of the test runs.
//
// Freed memory: a pool block freed while it holds a set timer or a queued DPC
// is bug check 0xC7 (parameters 0x0 and 0x1); one that holds a work item
// initialised with IoInitializeWorkItem and not uninitialised breaks
// IoInitializeWorkItem's rule ("must be uninitialized by IoUninitializeWorkItem
// before it is freed", learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-ioinitializeworkitem;
// Driver Verifier's Miscellaneous Checks catch queued work items in freed
// memory, learn.microsoft.com/windows-hardware/drivers/devtest/miscellaneous-checks).
#include <algorithm>
#include <cstdio>

#include "ke_internal.h"
#include "kvsim/diag.h"
#include "kvsim/verifier.h"
#include "verifier_internal.h"

namespace kvsim::ke {
namespace {

struct Held {
    const void* lock;
    LockKind kind;
    KIRQL irqlBefore;
};

thread_local std::vector<Held> t_held;

const char* KindName(LockKind kind) {
    switch (kind) {
        case LockKind::SpinLock: return "spin lock";
        case LockKind::FastMutex:
        case LockKind::FastMutexUnsafe: return "fast mutex";
        case LockKind::Mutex: return "mutex (KMUTEX)";
    }
    return "lock";
}

// Releases a lock the thread kept, as its owner would have, and goes back to
// the IRQL from before its acquisition.
void ForceRelease(const Held& h) {
    void* lock = const_cast<void*>(h.lock);
    switch (h.kind) {
        case LockKind::SpinLock:
            __atomic_store_n(static_cast<PKSPIN_LOCK>(lock), ULONG_PTR{0}, __ATOMIC_RELEASE);
            NoteLockReleased(h.lock);
            break;
        case LockKind::FastMutex:
        case LockKind::FastMutexUnsafe: ExReleaseFastMutexUnsafe(static_cast<PFAST_MUTEX>(lock)); break;
        case LockKind::Mutex: KeReleaseMutex(static_cast<PKMUTEX>(lock), FALSE); break;
    }
    if (KeGetCurrentIrql() > h.irqlBefore) KeLowerIrql(h.irqlBefore);
}

// Reports and releases `leaked` (newest first); `prefix` says who kept them.
void ReportAndRelease(const std::vector<Held>& leaked, const std::string& prefix) {
    for (auto it = leaked.rbegin(); it != leaked.rend(); ++it) {
        ReportViolation("%s holding %s %p (acquired there and never released)", prefix.c_str(), KindName(it->kind),
                        it->lock);
        ForceRelease(*it);
    }
}

bool Within(const void* p, const char* begin, const char* end) {
    auto* c = static_cast<const char*>(p);
    return c >= begin && c < end;
}

}  // namespace

void NoteLockAcquired(const void* lock, LockKind kind, KIRQL irqlBefore) {
    t_held.push_back({lock, kind, irqlBefore});
}

void NoteLockReleased(const void* lock) {
    for (auto it = t_held.rbegin(); it != t_held.rend(); ++it) {
        if (it->lock == lock) {
            t_held.erase(std::next(it).base());
            return;
        }
    }
}

void CheckLocksAfterCallback(const char* what, const void* routine) {
    if (t_held.empty()) return;
    std::string prefix = std::string(what) + (routine ? " " + RoutineName(routine) : std::string()) + " returned";
    ReportAndRelease(t_held, prefix);
}

void CheckLocksAtThreadEnd(const char* threadName) {
    if (t_held.empty()) return;
    ReportAndRelease(t_held, std::string("system thread '") + threadName + "' ended");
}

}  // namespace kvsim::ke

namespace kvsim {
using namespace kvsim::ke;

HeldLocks CurrentHeldLocks() {
    HeldLocks out;
    out.locks.reserve(t_held.size());
    for (const Held& h : t_held) out.locks.push_back(h.lock);
    return out;
}

size_t HoldCount(const void* lock) {
    return static_cast<size_t>(
        std::count_if(t_held.begin(), t_held.end(), [lock](const Held& h) { return h.lock == lock; }));
}

void CheckLocksReleased(const HeldLocks& before, const char* what, const void* routine, const void* exempt) {
    if (t_held.empty()) return;
    std::vector<const void*> remaining = before.locks;
    std::vector<Held> leaked;
    for (const Held& h : t_held) {
        auto it = std::find(remaining.begin(), remaining.end(), h.lock);
        if (it != remaining.end()) {
            remaining.erase(it);
        } else if (h.lock != exempt) {
            leaked.push_back(h);
        }
    }
    if (leaked.empty()) return;
    ReportAndRelease(leaked, std::string(what) + (routine ? " " + ke::RoutineName(routine) : std::string()) +
                                 " returned");
}

std::string RoutineName(const void* routine) { return kvsim::ke::RoutineName(routine); }

void CheckFreedMemory(const void* block, size_t size, const char* routine) {
    const char* begin = static_cast<const char*>(block);
    const char* end = begin + size;
    std::vector<std::string> lines;
    char text[256];
    if (Kernel* kp = KernelIfStarted()) {
        Kernel& k = *kp;
        std::lock_guard<std::mutex> guard(k.m);
        for (auto it = k.timers.begin(); it != k.timers.end();) {
            KTIMER* timer = it->first;
            KDPC* dpc = it->second.dpc;
            if (Within(timer, begin, end)) {
                snprintf(text, sizeof text,
                         "the block holds timer %p, still set (bug check 0xC7 TIMER_OR_DPC_INVALID, 0x0): cancelled",
                         static_cast<void*>(timer));
            } else if (dpc != nullptr && Within(dpc, begin, end)) {
                snprintf(text, sizeof text,
                         "the block holds DPC %p of timer %p, which is still set (bug check 0xC7 "
                         "TIMER_OR_DPC_INVALID, 0x1): the timer is cancelled",
                         static_cast<void*>(dpc), static_cast<void*>(timer));
            } else {
                ++it;
                continue;
            }
            lines.emplace_back(text);
            timer->Header.Inserted = FALSE;
            it = k.timers.erase(it);
        }
        for (auto it = k.dpcQueue.begin(); it != k.dpcQueue.end();) {
            if (it->dpc == nullptr || !Within(it->dpc, begin, end)) {
                ++it;
                continue;
            }
            snprintf(text, sizeof text,
                     "the block holds DPC %p (%s), still queued (bug check 0xC7 TIMER_OR_DPC_INVALID, 0x1): "
                     "removed from the queue",
                     static_cast<void*>(it->dpc),
                     ke::RoutineName(reinterpret_cast<const void*>(it->dpc->DeferredRoutine)).c_str());
            lines.emplace_back(text);
            it->dpc->DpcData = nullptr;
            it = k.dpcQueue.erase(it);
        }
    }
    for (auto& line : TakeWorkItemsIn(begin, end)) lines.push_back(std::move(line));
    for (const auto& line : lines) ReportViolation("%s(%p): %s", routine, block, line.c_str());
}

}  // namespace kvsim
