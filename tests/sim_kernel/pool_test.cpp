// The simulated pool: fill pattern, per-tag accounting, leak report, fault
// injection and the rules on frees and IRQL.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/pool.h"
#include "wdm.h"

namespace {

const ULONG kTagA = kvsim::PoolTag("KVaC");
const ULONG kTagB = kvsim::PoolTag("KVdd");

bool ContainsText(const std::vector<std::string>& lines, const std::string& text) {
    for (const auto& l : lines)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

// An operation with three allocations that cleans up on every failure, as
// driver code must: the model for fault-injection loops.
NTSTATUS ThreeAllocations() {
    void* a = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);
    if (!a) return STATUS_INSUFFICIENT_RESOURCES;
    void* b = ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTagB);
    if (!b) {
        ExFreePoolWithTag(a, kTagA);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    void* c = ExAllocatePoolWithTag(PagedPool, 8, kTagB);
    if (!c) {
        ExFreePoolWithTag(b, kTagB);
        ExFreePoolWithTag(a, kTagA);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ExFreePoolWithTag(c, kTagB);
    ExFreePoolWithTag(b, kTagB);
    ExFreePoolWithTag(a, kTagA);
    return STATUS_SUCCESS;
}

}  // namespace

TEST(Pool, TagTextIsTheFourCharactersInMemoryOrder) {
    EXPECT_EQ(kvsim::PoolTagText(kTagA), "KVaC");
    EXPECT_EQ(kvsim::PoolTagText(0x43615648u), "HVaC");  // 'CaVH' as a driver spells it
}

TEST(Pool, NewBlocksAreNotZeroed) {
    auto* p = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, 64, kTagA));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; ++i) ASSERT_NE(p[i], 0) << "byte " << i;
    ExFreePoolWithTag(p, kTagA);
    auto* z = static_cast<UCHAR*>(ExAllocatePoolZero(NonPagedPoolNx, 64, kTagA));
    for (int i = 0; i < 64; ++i) ASSERT_EQ(z[i], 0) << "byte " << i;
    ExFreePoolWithTag(z, kTagA);
}

TEST(Pool, AccountingKeepsCurrentAndPeakPerTag) {
    void* a = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTagA);
    void* b = ExAllocatePoolWithTag(NonPagedPoolNx, 50, kTagA);
    void* c = ExAllocatePoolWithTag(NonPagedPoolNx, 7, kTagB);
    ExFreePoolWithTag(a, kTagA);
    auto st = kvsim::PoolStatsForTag(kTagA);
    EXPECT_EQ(st.currentBytes, 50u);
    EXPECT_EQ(st.peakBytes, 150u);
    EXPECT_EQ(st.currentCount, 1u);
    EXPECT_EQ(st.peakCount, 2u);
    EXPECT_EQ(st.totalAllocations, 2u);
    EXPECT_EQ(kvsim::PoolStatsForTag(kTagB).currentBytes, 7u);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 2u);
    ExFreePoolWithTag(b, kTagA);
    ExFreePool(c);
    EXPECT_EQ(kvsim::PoolStatsForTag(kTagA).currentBytes, 0u);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
}

TEST(Pool, LeakedBlockIsReportedWithItsTagAndSize) {
    void* kept = ExAllocatePoolWithTag(NonPagedPoolNx, 48, kTagA);
    void* freed = ExAllocatePoolWithTag(NonPagedPoolNx, 12, kTagB);
    ExFreePoolWithTag(freed, kTagB);
    ASSERT_NE(kept, nullptr);
    auto lines = kvsim::PoolEndOfTestCheck();  // also frees `kept`
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("KVaC"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("48 bytes"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("#1"), std::string::npos) << lines[0];
    EXPECT_TRUE(kvsim::PoolEndOfTestCheck().empty());
}

TEST(Pool, ExAllocatePoolUsesTheTagNone) {
    void* p = ExAllocatePool(NonPagedPool, 4);
    auto blocks = kvsim::PoolLiveBlocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(kvsim::PoolTagText(blocks[0].tag), "None");
    ExFreePool(p);
}

TEST(Pool, FaultInjectionFailsExactlyTheNthAllocation) {
    kvsim::PoolFailNthAllocation(3);
    void* p[5];
    for (auto& slot : p) slot = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    EXPECT_NE(p[0], nullptr);
    EXPECT_NE(p[1], nullptr);
    EXPECT_EQ(p[2], nullptr);
    EXPECT_NE(p[3], nullptr);
    EXPECT_NE(p[4], nullptr);
    EXPECT_EQ(kvsim::PoolInjectedFailureCount(), 1u);
    for (auto* slot : p)
        if (slot) ExFreePoolWithTag(slot, kTagA);
}

TEST(Pool, FaultInjectionLoopCoversEveryAllocationOfAnOperation) {
    uint64_t before = kvsim::PoolAllocationCount();
    ASSERT_EQ(ThreeAllocations(), STATUS_SUCCESS);
    uint64_t n = kvsim::PoolAllocationCount() - before;
    ASSERT_EQ(n, 3u);
    for (uint64_t k = 1; k <= n; ++k) {
        kvsim::PoolFailNthAllocation(k);
        EXPECT_EQ(ThreeAllocations(), STATUS_INSUFFICIENT_RESOURCES) << "failing allocation " << k;
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << "leak when allocation " << k << " failed";
    }
}

TEST(Pool, TagFailureFailsEveryAllocationOfThatTag) {
    kvsim::PoolFailTag(kTagB);
    void* a = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 8, kTagB), nullptr);
    ExFreePoolWithTag(a, kTagA);
    kvsim::PoolResetFaultInjection();
    void* b = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
    EXPECT_NE(b, nullptr);
    ExFreePoolWithTag(b, kTagB);
}

TEST(Pool, DoubleFreeIsAViolation) {
    void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    ExFreePoolWithTag(p, kTagA);
    ExFreePoolWithTag(p, kTagA);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("double free"), std::string::npos) << v[0];
}

TEST(Pool, FreeingAnAddressThatIsNoBlockIsAViolation) {
    int local = 0;
    ExFreePool(&local);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("not the address of a pool block"), std::string::npos) << v[0];
}

TEST(Pool, TagMismatchOnFreeIsAViolation) {
    void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    ExFreePoolWithTag(p, kTagB);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("KVdd"), std::string::npos) << v[0];
    EXPECT_NE(v[0].find("KVaC"), std::string::npos) << v[0];
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 1u);  // the bad free did not free it
    ExFreePoolWithTag(p, kTagA);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(Pool, PagedAllocationAtDispatchLevelIsAViolation) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    void* nonpaged = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
    void* paged = ExAllocatePoolWithTag(PagedPool, 8, kTagB);
    ExFreePoolWithTag(nonpaged, kTagA);
    KeLowerIrql(old);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("paged pool"), std::string::npos) << v[0];
    EXPECT_NE(v[0].find("IRQL 2"), std::string::npos) << v[0];
    ExFreePoolWithTag(paged, kTagB);
}

TEST(Pool, PagedFreeAtDispatchLevelIsAViolation) {
    void* paged = ExAllocatePoolWithTag(PagedPool, 8, kTagB);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ExFreePoolWithTag(paged, kTagB);
    KeLowerIrql(old);
    EXPECT_EQ(kvsim::TakeViolations().size(), 1u);
}

TEST(Pool, ZeroByteRequestIsAViolationButReturnsADistinctBlock) {
    void* a = ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTagA);
    void* b = ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTagA);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(a, b);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 2u);
    EXPECT_NE(v[0].find("zero-byte"), std::string::npos) << v[0];
    ExFreePoolWithTag(a, kTagA);
    ExFreePoolWithTag(b, kTagA);
}
