// Kernel-internal side of the lock and freed-memory checks (kvsim/verifier.h,
// sim/kernel/ke/verifier.cpp): the lock routines record what the calling
// thread acquires and releases, the schedulers' service threads check after
// each callback, and work items answer for the memory they live in.
#pragma once
#include <string>
#include <vector>

#include "kv/ke.h"

namespace kvsim::ke {

enum class LockKind {
    SpinLock,
    FastMutex,        // ExAcquireFastMutex / ExTryToAcquireFastMutex (and the guarded-mutex names)
    FastMutexUnsafe,  // ExAcquireFastMutexUnsafe
    Mutex,            // KMUTEX, once per (recursive) acquisition
};

// Called by the lock routines once the calling thread holds / no longer
// holds `lock`; `irqlBefore` is the IRQL it had before it acquired the lock
// (restored when the check releases a lock a callback kept).
void NoteLockAcquired(const void* lock, LockKind kind, KIRQL irqlBefore);
void NoteLockReleased(const void* lock);

// After a DPC routine, a scheduled callback, a work item or a posted function
// returned on a service thread (which holds nothing between callbacks):
// reports and releases every lock still held. Driver Verifier stops the
// system with bug check 0xC7 parameter 0x4 when a DPC routine returns with a
// mutex still held (the thread's APC disable count changed).
void CheckLocksAfterCallback(const char* what, const void* routine);
// When a system thread ends: the same for the locks it still holds.
void CheckLocksAtThreadEnd(const char* threadName);

// Work items (sched.cpp's counterpart for memory): removes from the work-item
// records every item in [begin, end) that IoInitializeWorkItem set up and
// IoUninitializeWorkItem has not taken down, and returns one line per item
// (it is reported as freed while still initialised, or even queued).
std::vector<std::string> TakeWorkItemsIn(const char* begin, const char* end);

}  // namespace kvsim::ke
