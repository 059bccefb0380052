// The simulated run-time library's counted strings and conversions (WCHAR is
// 2 bytes on the host: these routines must not use the C library's wcs*);
// the pool (fill pattern, per-tag accounting, leak report, fault injection
// and the rules on frees and IRQL); debug output, assertions and the object
// manager.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "wdm.h"

TEST(Rtl, InitUnicodeStringCountsBytesWithoutTheTerminator) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, L"Data");
    EXPECT_EQ(s.Length, 8);
    EXPECT_EQ(s.MaximumLength, 10);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.Buffer, nullptr);
    ANSI_STRING a;
    RtlInitAnsiString(&a, "abc");
    EXPECT_EQ(a.Length, 3);
    EXPECT_EQ(a.MaximumLength, 4);
    UNICODE_STRING c = RTL_CONSTANT_STRING(L"\\Data");
    EXPECT_EQ(c.Length, 10);
    EXPECT_EQ(c.MaximumLength, 12);
}

TEST(Rtl, CopyTruncatesToTheDestinationAndAppendFailsWhenFull) {
    WCHAR buffer[6];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    UNICODE_STRING src;
    RtlInitUnicodeString(&src, L"Property");
    RtlCopyUnicodeString(&dest, &src);
    EXPECT_EQ(dest.Length, 12);  // 6 characters fit, no room for a terminator
    EXPECT_EQ(buffer[5], L'r');
    dest.Length = 4;  // "Pr"
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"op"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Length, 8);
    EXPECT_EQ(buffer[4], 0);  // terminated: there was room
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"erty"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.Length, 8);  // unchanged
    UNICODE_STRING tail;
    RtlInitUnicodeString(&tail, L"e");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &tail), STATUS_SUCCESS);
    EXPECT_EQ(dest.Length, 10);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"Prope");
    EXPECT_TRUE(RtlEqualUnicodeString(&dest, &expect, FALSE));
}

TEST(Rtl, CompareAndEqualHonourCase) {
    UNICODE_STRING a, b, c;
    RtlInitUnicodeString(&a, L"DeviceExist");
    RtlInitUnicodeString(&b, L"deviceexist");
    RtlInitUnicodeString(&c, L"DeviceExists");
    EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
    EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
    EXPECT_LT(RtlCompareUnicodeString(&a, &b, FALSE), 0);  // 'D' < 'd'
    EXPECT_EQ(RtlCompareUnicodeString(&a, &b, TRUE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&a, &c, TRUE), 0);
    EXPECT_GT(RtlCompareUnicodeString(&c, &a, TRUE), 0);
}

TEST(Rtl, IntegerToUnicodeStringAndBack) {
    WCHAR buffer[12];
    UNICODE_STRING s;
    RtlInitEmptyUnicodeString(&s, buffer, sizeof(buffer));
    ASSERT_EQ(RtlIntegerToUnicodeString(1234, 10, &s), STATUS_SUCCESS);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"1234");
    EXPECT_TRUE(RtlEqualUnicodeString(&s, &expect, FALSE));
    ASSERT_EQ(RtlIntegerToUnicodeString(0xBEEF, 16, &s), STATUS_SUCCESS);
    RtlInitUnicodeString(&expect, L"BEEF");
    EXPECT_TRUE(RtlEqualUnicodeString(&s, &expect, FALSE));
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, &s), STATUS_INVALID_PARAMETER);
    WCHAR tiny[2];
    UNICODE_STRING small;
    RtlInitEmptyUnicodeString(&small, tiny, sizeof(tiny));
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &small), STATUS_BUFFER_OVERFLOW);

    ULONG value = 0;
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, L"  -42");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 0, &value), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<LONG>(value), -42);
    RtlInitUnicodeString(&text, L"0x1F tail");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 0, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 31u);
    RtlInitUnicodeString(&text, L"777");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 8, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 511u);
    EXPECT_EQ(RtlUnicodeStringToInteger(&text, 3, &value), STATUS_INVALID_PARAMETER);
}

TEST(Rtl, AnsiConversionAllocatesFromPoolAndFrees) {
    ANSI_STRING a;
    RtlInitAnsiString(&a, "snapshot.bmp");
    UNICODE_STRING u;
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&u, &a, TRUE), STATUS_SUCCESS);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"snapshot.bmp");
    EXPECT_TRUE(RtlEqualUnicodeString(&u, &expect, FALSE));
    ANSI_STRING back;
    ASSERT_EQ(RtlUnicodeStringToAnsiString(&back, &u, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(back.Buffer, back.Length), "snapshot.bmp");
    RtlFreeUnicodeString(&u);
    RtlFreeAnsiString(&back);
    EXPECT_EQ(u.Buffer, nullptr);
}

TEST(Rtl, CompareMemoryCountsMatchingBytesAndMacrosWork) {
    UCHAR a[8], b[8];
    RtlFillMemory(a, sizeof(a), 0x5A);
    RtlCopyMemory(b, a, sizeof(b));
    EXPECT_TRUE(RtlEqualMemory(a, b, sizeof(a)));
    b[5] = 0;
    EXPECT_EQ(RtlCompareMemory(a, b, sizeof(a)), 5u);
    RtlZeroMemory(a, sizeof(a));
    EXPECT_EQ(a[7], 0);
}

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

TEST(Diag, DbgPrintKeepsEachMessageExactlyAsFormatted) {
    kvsim::ClearDebugLog();
    DbgPrint("Kvdrv PnP start exit1 (Status 0x%X )", 0xC000000Du);
    DbgPrint("PnP Remove\n");
    auto messages = kvsim::DebugMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "Kvdrv PnP start exit1 (Status 0xC000000D )");
    EXPECT_EQ(messages[1], "PnP Remove\n");
    auto lines = kvsim::DebugLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Kvdrv PnP start exit1 (Status 0xC000000D )PnP Remove");
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
