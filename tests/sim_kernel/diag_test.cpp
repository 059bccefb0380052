// The simulation's diagnostics: debug output, assertions, the object manager.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "wdm.h"

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
    EXPECT_NE(v[0].find("diag_test.cpp"), std::string::npos);
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
