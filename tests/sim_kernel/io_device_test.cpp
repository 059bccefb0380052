// The simulated I/O manager's driver and device objects: DriverEntry and the
// default dispatch routine, IoCreateDevice, device stacks, deletion rules.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "wdm.h"

namespace {
NTSTATUS EmptyEntry(PDRIVER_OBJECT, PUNICODE_STRING path) {
    return path != nullptr && path->Length > 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
NTSTATUS FailingEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_DEVICE_CONFIGURATION_ERROR; }
}  // namespace

TEST(IoDevice, LoadDriverNamesItAndUnsetSlotsRejectRequests) {
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"kvdrv", u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvdrv",
                                              EmptyEntry);
    ASSERT_NE(driver, nullptr);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"\\Driver\\kvdrv");
    EXPECT_TRUE(RtlEqualUnicodeString(&driver->DriverName, &expect, FALSE));
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(IoCreateDevice(driver, 24, nullptr, FILE_DEVICE_KS, 0, FALSE, &device), STATUS_SUCCESS);
    EXPECT_EQ(device->StackSize, 1);
    EXPECT_TRUE(device->Flags & DO_DEVICE_INITIALIZING);
    EXPECT_EQ(driver->DeviceObject, device);
    auto* ext = static_cast<UCHAR*>(device->DeviceExtension);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(ext[i], 0);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    EXPECT_EQ(kvsim::SendIrpAndWait(device, IRP_MJ_DEVICE_CONTROL, 0).status, STATUS_INVALID_DEVICE_REQUEST);
    IoDeleteDevice(device);
    EXPECT_EQ(driver->DeviceObject, nullptr);
    kvsim::UnloadDriver(driver);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(IoDevice, FailingDriverEntryGivesNoDriver) {
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(kvsim::LoadDriver(u"bad", u"\\Registry\\bad", FailingEntry, &status), nullptr);
    EXPECT_EQ(status, STATUS_DEVICE_CONFIGURATION_ERROR);
}

TEST(IoDevice, AttachBuildsTheStackAndReferencesKeepDeletedDevicesAlive) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"DevBus", {});
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"fdo", u"\\Registry\\fdo", EmptyEntry);
    PDEVICE_OBJECT fdo = nullptr;
    ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo), STATUS_SUCCESS);
    EXPECT_EQ(IoAttachDeviceToDeviceStack(fdo, pdo), pdo);
    EXPECT_EQ(fdo->StackSize, 2);
    EXPECT_EQ(pdo->AttachedDevice, fdo);
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(pdo);
    EXPECT_EQ(top, fdo);
    size_t objects = kvsim::ObLiveObjectCount();
    IoDetachDevice(pdo);
    EXPECT_EQ(pdo->AttachedDevice, nullptr);
    IoDeleteDevice(fdo);
    EXPECT_EQ(kvsim::ObLiveObjectCount(), objects);  // our reference keeps it
    ObDereferenceObject(top);
    EXPECT_EQ(kvsim::ObLiveObjectCount(), objects - 1);
    kvsim::UnloadDriver(driver);
    kvsim::DeleteBusPdo(pdo);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(IoDevice, DeletingADeviceStillAttachedIsAViolation) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"DevBus", {});
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"fdo", u"\\Registry\\fdo", EmptyEntry);
    PDEVICE_OBJECT fdo = nullptr;
    ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo), STATUS_SUCCESS);
    IoAttachDeviceToDeviceStack(fdo, pdo);
    IoDeleteDevice(fdo);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("IoDetachDevice must come first"), std::string::npos) << v[0];
    EXPECT_EQ(pdo->AttachedDevice, nullptr);
    kvsim::UnloadDriver(driver);
    kvsim::DeleteBusPdo(pdo);
}

TEST(IoDevice, CreateDeviceFailsUnderFaultInjection) {
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"fdo", u"\\Registry\\fdo", EmptyEntry);
    PDEVICE_OBJECT fdo = nullptr;
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(fdo, nullptr);
    kvsim::UnloadDriver(driver);
}
