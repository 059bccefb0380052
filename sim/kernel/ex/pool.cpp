// The simulated pool allocator: ExAllocatePoolWithTag and friends.
//
// Every block is its own host allocation of exactly the requested size, so
// AddressSanitizer catches an overrun by one byte and any use after free. New
// blocks are filled with 0xCD (Windows does not zero pool, and code that
// relies on zeroed pool should misbehave here as it would there); freed
// blocks are filled with 0xDD just before they go back to the host.
//
// Rules enforced (each a kvsim violation):
//  - IRQL: allocate or free paged pool above APC_LEVEL, nonpaged pool above
//    DISPATCH_LEVEL (learn.microsoft.com/windows-hardware/drivers/ddi/wdm/
//    nf-wdm-exallocatepoolwithtag and nf-wdm-exfreepoolwithtag, Remarks);
//  - a zero-byte request: Driver Verifier stops the system with bug check
//    0xC4 parameter 0x00 "the driver requested a zero-byte pool allocation"
//    (learn.microsoft.com/windows-hardware/drivers/debugger/
//    bug-check-0xc4--driver-verifier-detected-violation). The simulation
//    reports it and, as Windows without the verifier does, still returns a
//    distinct block of zero usable bytes;
//  - must-succeed pool types, which POOL_TYPE's page reserves for system
//    start-up;
//  - freeing an address that is not a live block (0xC4/0x10), a block freed
//    already (0xC4/0x13), a tag mismatch in ExFreePoolWithTag (bug check 0xC2
//    BAD_POOL_CALLER, 0x0A). A tag of 0 skips the tag check, as ExFreePool
//    does;
//  - freeing a block that holds a set timer, a queued DPC or a work item
//    still initialised (kvsim::CheckFreedMemory: bug check 0xC7
//    TIMER_OR_DPC_INVALID).
// Fault injection fails requests by count, by tag or at random with a seeded
// generator, as Driver Verifier's low resources simulation does (by default
// with a 6% chance): ExAllocatePool*, IoAllocateIrp, IoAllocateWorkItem and the
// other objects Windows takes from pool
// (learn.microsoft.com/windows-hardware/drivers/devtest/low-resources-simulation).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "kv/ke.h"
#include "kvsim/diag.h"
#include "kvsim/sched.h"
#include "kvsim/pool.h"
#include "kvsim/verifier.h"

namespace kvsim {
namespace {

constexpr unsigned char kFreshFill = 0xCD;
constexpr unsigned char kFreedFill = 0xDD;
constexpr ULONG kProtectedPoolBit = 0x80000000u;  // PROTECTED_POOL: ignored when tags are compared

struct BlockInfo {
    ULONG tag;
    size_t size;
    uint64_t sequence;
    POOL_TYPE poolType;
};

struct PoolState {
    std::mutex lock;
    std::unordered_map<const void*, BlockInfo> live;
    std::unordered_set<const void*> freed;  // addresses freed and not reused since
    std::map<ULONG, PoolTagStats> tags;
    uint64_t sequence = 0;
    // Fault injection.
    uint64_t requests = 0;
    uint64_t failAtRequest = 0;  // absolute request number; 0 = disarmed
    std::set<ULONG> failingTags;
    ULONG randomChancesIn10000 = 0;  // 0 = no random failures
    std::mt19937_64 random;
    uint64_t injectedFailures = 0;
};

PoolState& State() {
    static PoolState* state = new PoolState;  // never destroyed: threads may free during exit
    return *state;
}

bool IsPagedPool(POOL_TYPE type) {
    // Paged types are the odd base types (PagedPool 1, PagedPoolCacheAligned
    // 5) and their session forms (33, 37); modifier bits 8/16/256 and the
    // Nx bit 512 keep that parity.
    return (static_cast<ULONG>(type) & 1u) != 0;
}

bool IsMustSucceed(POOL_TYPE type) {
    ULONG base = static_cast<ULONG>(type) & 7u;
    return base == NonPagedPoolMustSucceed || base == NonPagedPoolCacheAlignedMustS;
}

// Checks the IRQL rule shared by allocation and free; `what` names the call.
void CheckIrql(POOL_TYPE type, const char* what, ULONG tag) {
    KIRQL irql = KeGetCurrentIrql();
    bool paged = IsPagedPool(type);
    KIRQL limit = paged ? APC_LEVEL : DISPATCH_LEVEL;
    if (irql > limit) {
        ReportViolation("%s of %s pool (tag %s) at IRQL %u; allowed up to %s", what, paged ? "paged" : "nonpaged",
                        PoolTagText(tag).c_str(), static_cast<unsigned>(irql),
                        paged ? "APC_LEVEL" : "DISPATCH_LEVEL");
    }
}

// Counts one request and decides whether fault injection fails it.
bool TakeFailureLocked(PoolState& s, ULONG tag) {
    ++s.requests;
    bool fail = false;
    if (s.failAtRequest != 0 && s.requests == s.failAtRequest) {
        fail = true;
        s.failAtRequest = 0;
    }
    if (s.failingTags.count(tag) != 0) fail = true;
    // Drawn for every request while armed, so that a seed gives the same
    // failures for the same sequence of requests.
    if (s.randomChancesIn10000 != 0 && s.random() % 10000 < s.randomChancesIn10000) fail = true;
    if (fail) ++s.injectedFailures;
    return fail;
}

void* Allocate(POOL_TYPE type, SIZE_T bytes, ULONG tag, bool zero) {
    PreemptionPoint();
    CheckIrql(type, "allocation", tag);
    if (bytes == 0) {
        ReportViolation("zero-byte pool allocation (tag %s); Driver Verifier bug check 0xC4/0x00",
                        PoolTagText(tag).c_str());
    }
    if (IsMustSucceed(type)) {
        ReportViolation("must-succeed pool type %u requested (tag %s); reserved for system start-up",
                        static_cast<unsigned>(type), PoolTagText(tag).c_str());
    }
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    if (TakeFailureLocked(s, tag)) return nullptr;
    void* p = std::malloc(bytes);
    if (p == nullptr) p = std::malloc(1);  // malloc(0) may return null; a zero-byte block must be distinct
    if (p == nullptr) return nullptr;
    std::memset(p, zero ? 0 : kFreshFill, bytes);
    s.freed.erase(p);
    s.live[p] = BlockInfo{tag, bytes, ++s.sequence, type};
    auto& st = s.tags[tag];
    st.tag = tag;
    st.currentBytes += bytes;
    st.currentCount += 1;
    st.totalAllocations += 1;
    if (st.currentBytes > st.peakBytes) st.peakBytes = st.currentBytes;
    if (st.currentCount > st.peakCount) st.peakCount = st.currentCount;
    return p;
}

void Free(void* p, ULONG tag, bool checkTag, const char* routine) {
    auto& s = State();
    BlockInfo info{};
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.live.find(p);
        if (it == s.live.end()) {
            if (s.freed.count(p) != 0) {
                ReportViolation("%s(%p): the block was freed already (double free; bug check 0xC4/0x13)", routine, p);
            } else {
                ReportViolation("%s(%p): not the address of a pool block (bug check 0xC4/0x10)", routine, p);
            }
            return;
        }
        info = it->second;
        if (checkTag && tag != 0 && (tag & ~kProtectedPoolBit) != (info.tag & ~kProtectedPoolBit)) {
            ReportViolation("%s(%p, tag %s): the block was allocated with tag %s (bug check 0xC2/0x0A)", routine, p,
                            PoolTagText(tag).c_str(), PoolTagText(info.tag).c_str());
            return;  // Windows stops here; keep the block so the leak check names it
        }
        s.live.erase(it);
        s.freed.insert(p);
        auto& st = s.tags[info.tag];
        st.currentBytes -= info.size;
        st.currentCount -= 1;
    }
    CheckIrql(info.poolType, routine, info.tag);
    CheckFreedMemory(p, info.size, routine);
    std::memset(p, kFreedFill, info.size);
    std::free(p);
}

}  // namespace

ULONG PoolTag(const char* fourChars) {
    unsigned char bytes[4] = {' ', ' ', ' ', ' '};
    for (int i = 0; i < 4 && fourChars[i] != '\0'; ++i) bytes[i] = static_cast<unsigned char>(fourChars[i]);
    return static_cast<ULONG>(bytes[0]) | (static_cast<ULONG>(bytes[1]) << 8) | (static_cast<ULONG>(bytes[2]) << 16) |
           (static_cast<ULONG>(bytes[3]) << 24);
}

std::string PoolTagText(ULONG tag) {
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        unsigned char c = static_cast<unsigned char>((tag >> (8 * i)) & 0xFF);
        if (i == 3) c &= 0x7F;  // the PROTECTED_POOL bit is not part of the text
        if (c >= 0x20 && c <= 0x7E) text[i] = static_cast<char>(c);
    }
    return text;
}

PoolTagStats PoolStatsForTag(ULONG tag) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.tags.find(tag);
    if (it == s.tags.end()) {
        PoolTagStats none;
        none.tag = tag;
        return none;
    }
    return it->second;
}

std::vector<PoolTagStats> PoolStatsByTag() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    std::vector<PoolTagStats> out;
    for (const auto& [tag, st] : s.tags) out.push_back(st);
    std::sort(out.begin(), out.end(),
              [](const PoolTagStats& a, const PoolTagStats& b) { return PoolTagText(a.tag) < PoolTagText(b.tag); });
    return out;
}

std::vector<PoolBlock> PoolLiveBlocks() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    std::vector<PoolBlock> out;
    out.reserve(s.live.size());
    for (const auto& [p, b] : s.live) out.push_back(PoolBlock{p, b.tag, b.size, b.sequence, b.poolType});
    std::sort(out.begin(), out.end(), [](const PoolBlock& a, const PoolBlock& b) { return a.sequence < b.sequence; });
    return out;
}

size_t PoolLiveBlockCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.live.size();
}

std::vector<std::string> PoolLeakReport() {
    std::vector<std::string> lines;
    for (const auto& b : PoolLiveBlocks()) {
        lines.push_back("pool block still held: tag " + PoolTagText(b.tag) + ", " + std::to_string(b.size) +
                        " bytes, allocation #" + std::to_string(b.sequence));
    }
    return lines;
}

uint64_t PoolAllocationCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.requests;
}

void PoolFailNthAllocation(uint64_t n) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failAtRequest = n == 0 ? 0 : s.requests + n;
}

void PoolFailTag(ULONG tag) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failingTags.insert(tag);
}

void PoolFailRandomly(ULONG chancesIn10000, uint64_t seed) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.randomChancesIn10000 = std::min<ULONG>(chancesIn10000, 10000);
    s.random.seed(seed);
}

void PoolResetFaultInjection() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failAtRequest = 0;
    s.failingTags.clear();
    s.randomChancesIn10000 = 0;
    s.injectedFailures = 0;
}

uint64_t PoolInjectedFailureCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.injectedFailures;
}

bool PoolTakeInjectedFailure(ULONG tag) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return TakeFailureLocked(s, tag);
}

std::vector<std::string> PoolEndOfTestCheck() {
    std::vector<std::string> lines = PoolLeakReport();
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    for (const auto& [p, b] : s.live) std::free(const_cast<void*>(p));
    s.live.clear();
    s.freed.clear();
    s.tags.clear();
    s.sequence = 0;
    s.requests = 0;
    s.failAtRequest = 0;
    s.failingTags.clear();
    s.randomChancesIn10000 = 0;
    s.injectedFailures = 0;
    return lines;
}

}  // namespace kvsim

extern "C" PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return kvsim::Allocate(PoolType, NumberOfBytes, Tag, false);
}

// Quota charging has no meaning in the simulation.
extern "C" PVOID ExAllocatePoolWithQuotaTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return kvsim::Allocate(PoolType, NumberOfBytes, Tag, false);
}

extern "C" PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return kvsim::Allocate(PoolType, NumberOfBytes, Tag, true);
}

extern "C" PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return kvsim::Allocate(PoolType, NumberOfBytes, Tag, false);
}

// ExAllocatePool2 zeroes unless POOL_FLAG_UNINITIALIZED
// (learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-exallocatepool2).
extern "C" PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag) {
    POOL_TYPE type = (Flags & POOL_FLAG_PAGED) ? PagedPool : NonPagedPoolNx;
    return kvsim::Allocate(type, NumberOfBytes, Tag, (Flags & POOL_FLAG_UNINITIALIZED) == 0);
}

#undef ExAllocatePool
extern "C" PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return kvsim::Allocate(PoolType, NumberOfBytes, 0x656E6F4EUL, false);
}

extern "C" VOID ExFreePoolWithTag(PVOID P, ULONG Tag) { kvsim::Free(P, Tag, true, "ExFreePoolWithTag"); }

extern "C" VOID ExFreePool(PVOID P) { kvsim::Free(P, 0, false, "ExFreePool"); }
