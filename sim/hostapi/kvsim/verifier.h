// Driver Verifier's checks that the simulation's components run around their
// calls into a driver (the I/O manager around completion routines, ks.sys
// around a minidriver's callbacks) and that the pool runs when a block is
// freed. Not visible to the driver. The kernel runs the same checks itself
// after DPC routines, work items and system threads.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

namespace kvsim {

// The locks the calling simulated thread holds, oldest first: spin locks
// (every form, the cancel spin lock included), fast and guarded mutexes, and
// KMUTEXes (once per recursive acquisition).
struct HeldLocks {
    std::vector<const void*> locks;
};
HeldLocks CurrentHeldLocks();
// How many times the calling thread holds `lock` now (recursive KMUTEX
// acquisitions count one each).
size_t HoldCount(const void* lock);

// After a driver's callback returned on the calling thread: reports each lock
// that the callback acquired and still holds ("<what> <routine> returned
// holding ..."; `before` is what the thread held when it called), and
// releases it so that the simulation can go on. `exempt` is a lock the caller
// checks in its own terms (ks.sys's device mutex).
void CheckLocksReleased(const HeldLocks& before, const char* what, const void* routine,
                        const void* exempt = nullptr);

// The name of a routine (its symbol when the host can tell, else its address)
// for violation messages.
std::string RoutineName(const void* routine);

// Called by the pool before a block goes back: armed timers, queued DPCs and
// work items still initialised inside [block, block + size) are reported
// (Driver Verifier stops with bug check 0xC7 TIMER_OR_DPC_INVALID for timers
// and DPCs), and taken out of the kernel's queues so that nothing touches the
// freed memory later.
void CheckFreedMemory(const void* block, size_t size, const char* routine);

}  // namespace kvsim
