// The simulated run-time library's counted strings at their buffers' edges;
// the pool (fill pattern, per-tag accounting, leak report, fault injection
// and the rules on frees and IRQL); assertions and the object manager.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "wdm.h"

// The routines kvdrv builds registry paths and value names with, at the
// edges of their buffers (WCHAR is 2 bytes here, so they must not use the C
// library's wcs*): nothing is written past MaximumLength, and a failed append
// leaves the destination as it was.
TEST(Rtl, CountedStringsStayInsideTheirBuffers) {
    WCHAR buffer[6];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    UNICODE_STRING src;
    RtlInitUnicodeString(&src, L"Property");
    EXPECT_EQ(src.Length, 16);
    RtlCopyUnicodeString(&dest, &src);
    EXPECT_EQ(dest.Length, 12);  // 6 characters fit, no room for a terminator
    EXPECT_EQ(buffer[5], L'r');
    dest.Length = 4;  // "Pr"
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"op"), STATUS_SUCCESS);
    EXPECT_EQ(buffer[4], 0);  // terminated: there was room
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"erty"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.Length, 8);  // unchanged
    WCHAR tiny[2];
    UNICODE_STRING digits;
    RtlInitEmptyUnicodeString(&digits, tiny, sizeof(tiny));
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &digits), STATUS_BUFFER_OVERFLOW);
    ASSERT_EQ(RtlIntegerToUnicodeString(7, 10, &digits), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &digits), STATUS_SUCCESS);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"Prop7");
    EXPECT_TRUE(RtlEqualUnicodeString(&dest, &expect, FALSE));
}

namespace {

const ULONG kTagA = kvsim::PoolTag("KVaC");
const ULONG kTagB = kvsim::PoolTag("KVdd");

}  // namespace

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

TEST(Pool, TagsReadInMemoryOrderAndExAllocatePoolUsesNone) {
    EXPECT_EQ(kvsim::PoolTagText(0x43615648u), "HVaC");  // 'CaVH' as a driver spells it
    void* p = ExAllocatePool(NonPagedPool, 4);
    auto blocks = kvsim::PoolLiveBlocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(kvsim::PoolTagText(blocks[0].tag), "None");
    ExFreePool(p);
}

// Failing the Nth request fails that one only, and every request counts,
// the failed one too (the driver tests' loops over N rely on both); failing
// a tag fails all of its allocations until the reset.
TEST(Pool, FaultInjectionFailsTheNthRequestOrATag) {
    uint64_t before = kvsim::PoolAllocationCount();
    kvsim::PoolFailNthAllocation(2);
    void* p[3];
    for (auto& slot : p) slot = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    EXPECT_TRUE(p[0] && !p[1] && p[2]);
    EXPECT_EQ(kvsim::PoolInjectedFailureCount(), 1u);
    EXPECT_EQ(kvsim::PoolAllocationCount() - before, 3u);
    ExFreePoolWithTag(p[0], kTagA);
    ExFreePoolWithTag(p[2], kTagA);

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

TEST(Pool, DoubleFreeFreeingANonBlockAndATagMismatchAreViolations) {
    void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    ExFreePoolWithTag(p, kTagA);
    ExFreePoolWithTag(p, kTagA);
    int local = 0;
    ExFreePool(&local);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 2u);
    EXPECT_NE(v[0].find("double free"), std::string::npos) << v[0];
    EXPECT_NE(v[1].find("not the address of a pool block"), std::string::npos) << v[1];
    // A free with another tag is reported and frees nothing.
    p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    ExFreePoolWithTag(p, kTagB);
    v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("KVdd"), std::string::npos) << v[0];
    EXPECT_NE(v[0].find("KVaC"), std::string::npos) << v[0];
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 1u);  // the bad free did not free it
    ExFreePoolWithTag(p, kTagA);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(Pool, PagedAllocationOrFreeAtDispatchLevelIsAViolation) {
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

TEST(Diag, FailedAssertIsReportedWithItsText) {
    int* pPin = nullptr;
    ASSERT(pPin != NULL);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("pPin != NULL"), std::string::npos);
    EXPECT_NE(v[0].find("runtime_test.cpp"), std::string::npos);
}

namespace {
int g_destroyed = 0;
void CountDestroy(void*) { ++g_destroyed; }
}  // namespace

TEST(ObjectManager, LastReferenceDestroysAndZwCloseRejectsStaleHandles) {
    static int body;
    g_destroyed = 0;
    kvsim::ObRegisterObject(&body, *PsThreadType, CountDestroy);
    HANDLE h = kvsim::ObInsertHandle(&body);
    ASSERT_NE(h, nullptr);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, &object, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    ASSERT_EQ(ObReferenceObjectByHandle(h, 0, *PsThreadType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(object, &body);
    ObDereferenceObject(&body);  // the creator's reference
    EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
    EXPECT_EQ(g_destroyed, 0);   // ObReferenceObjectByHandle's reference is still held
    ObDereferenceObject(object);
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_EQ(ZwClose(h), STATUS_INVALID_HANDLE);
    EXPECT_EQ(kvsim::TakeViolations().size(), 1u);  // closing a stale handle is reported
}
