// Host-side control of the simulated pool allocator (sim/kernel/ex/pool.cpp):
// per-tag accounting, the list of blocks still held, fault injection, and the
// end-of-test leak check. Not visible to the driver.
//
// Tags are shown as their four characters in memory order, as pool tools
// (poolmon, !poolused) show them: the driver's 'CaVK' literal is "KVaC".
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kv/ex.h"

namespace kvsim {

// "KVaC" -> the ULONG whose bytes in memory read K, V, a, C. Shorter
// strings are padded with spaces, as '...' literals in pool tags usually are.
ULONG PoolTag(const char* fourChars);
// The reverse: the tag's four characters in memory order; non-printable
// bytes are shown as '?'.
std::string PoolTagText(ULONG tag);

struct PoolTagStats {
    ULONG tag = 0;
    uint64_t currentBytes = 0;
    uint64_t peakBytes = 0;
    uint64_t currentCount = 0;
    uint64_t peakCount = 0;
    uint64_t totalAllocations = 0;  // successful ones since the last reset
};

struct PoolBlock {
    const void* address = nullptr;
    ULONG tag = 0;
    size_t size = 0;
    uint64_t sequence = 0;  // 1 for the first allocation after a reset
    POOL_TYPE poolType = NonPagedPool;
};

// Accounting for one tag (all zero when the tag was never used) and for all
// tags seen since the last reset, sorted by tag text.
PoolTagStats PoolStatsForTag(ULONG tag);
std::vector<PoolTagStats> PoolStatsByTag();

// Every block still held, oldest first.
std::vector<PoolBlock> PoolLiveBlocks();
size_t PoolLiveBlockCount();
// One line per live block: "pool block still held: tag KVaC, 48 bytes,
// allocation #3".
std::vector<std::string> PoolLeakReport();

// ---- Fault injection --------------------------------------------------------
// Every allocation request (ExAllocatePool*, and the pool-backed allocations of
// other modules that call PoolTakeInjectedFailure) counts, failed ones too:
// IoAllocateIrp (tag "Irp "), IoAllocateWorkItem ("IoWk"), IoCreateDevice
// ("Devi"), the I/O manager's buffers ("IoBf"), ...
uint64_t PoolAllocationCount();
// Makes the n-th allocation request from now fail (n = 1: the next one);
// n = 0 disarms. Only one such trigger is armed at a time.
void PoolFailNthAllocation(uint64_t n);
// Makes every allocation with this tag fail until PoolResetFaultInjection.
void PoolFailTag(ULONG tag);
// Fails each request with a chance of `chancesIn10000` in 10,000 (600 is the
// 6% of Driver Verifier's low resources simulation by default), drawn from a
// generator seeded with `seed`: the same seed and the same requests fail the
// same ones. 0 disarms.
void PoolFailRandomly(ULONG chancesIn10000, uint64_t seed);
void PoolResetFaultInjection();
// Number of allocation requests refused by fault injection since the reset.
uint64_t PoolInjectedFailureCount();

// For other simulation modules whose objects Windows takes from pool (IRPs,
// device objects, work items): counts one allocation request with `tag` and
// says whether fault injection wants it to fail. The object itself is not
// a pool block (it is not in the accounting nor in the leak report).
bool PoolTakeInjectedFailure(ULONG tag);

// ---- End of test --------------------------------------------------------------
// Returns one failure line per block still held (see PoolLeakReport), frees
// those blocks, resets accounting, the allocation counter and fault injection.
std::vector<std::string> PoolEndOfTestCheck();

}  // namespace kvsim
