// The simulated I/O manager: driver and device objects (DriverEntry, the
// default dispatch routine, IoCreateDevice, device stacks, deletion rules);
// IoCallDriver down a three-device stack and IoCompleteRequest back up
// (completion routine order, invoke flags, PendingReturned,
// STATUS_MORE_PROCESSING_REQUIRED), threaded IRPs from
// IoBuildDeviceIoControlRequest, cancellation, IRP leaks, fault injection;
// the power manager (PoRequestPowerIrp through a device stack to the bus
// driver's PDO, PoSetPowerState, the PDO's default power handling).
#include <gtest/gtest.h>

#include <vector>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {
NTSTATUS EmptyEntry(PDRIVER_OBJECT, PUNICODE_STRING path) {
    return path != nullptr && path->Length > 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
}  // namespace

TEST(IoDevice, LoadDriverNamesItUnsetSlotsRejectRequestsAndAFailingEntryGivesNone) {
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
    // A failing DriverEntry gives no driver.
    NTSTATUS status = STATUS_SUCCESS;
    auto failing = [](PDRIVER_OBJECT, PUNICODE_STRING) -> NTSTATUS { return STATUS_DEVICE_CONFIGURATION_ERROR; };
    EXPECT_EQ(kvsim::LoadDriver(u"bad", u"\\Registry\\bad", failing, &status), nullptr);
    EXPECT_EQ(status, STATUS_DEVICE_CONFIGURATION_ERROR);
}

TEST(IoDevice, AttachBuildsTheStackReferencesKeepDeletedDevicesAliveAndDetachComesFirst) {
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
    EXPECT_TRUE(kvsim::TakeViolations().empty());
    // Deleting a device that is still attached is a violation.
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

// Each allocation of the I/O and power managers fails cleanly when the pool
// refuses it.
TEST(IoDevice, AllocationsFailUnderFaultInjection) {
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"fdo", u"\\Registry\\fdo", EmptyEntry);
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", {});
    PDEVICE_OBJECT fdo = nullptr;
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(fdo, nullptr);
    POWER_STATE d0;
    d0.DeviceState = PowerDeviceD0;
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(PoRequestPowerIrp(pdo, IRP_MN_SET_POWER, d0, nullptr, nullptr, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolFailTag(kvsim::PoolTag("Irp "));
    EXPECT_EQ(IoAllocateIrp(2, FALSE), nullptr);
    kvsim::PoolResetFaultInjection();
    kvsim::DeleteBusPdo(pdo);
    kvsim::UnloadDriver(driver);
}

namespace {

// A filter device: passes every IRP down with the completion routine the
// test configured in its extension.
struct FilterExt {
    PDEVICE_OBJECT lower;
    PIO_COMPLETION_ROUTINE routine;
    PVOID context;
    BOOLEAN onSuccess, onError, onCancel;
};

NTSTATUS FilterDispatch(PDEVICE_OBJECT device, PIRP irp) {
    auto* ext = static_cast<FilterExt*>(device->DeviceExtension);
    if (ext->routine) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, ext->routine, ext->context, ext->onSuccess, ext->onError, ext->onCancel);
    } else {
        IoSkipCurrentIrpStackLocation(irp);
    }
    return IoCallDriver(ext->lower, irp);
}

NTSTATUS FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& slot : driver->MajorFunction) slot = FilterDispatch;
    return STATUS_SUCCESS;
}

struct Call {
    int who;
    PDEVICE_OBJECT device;
    BOOLEAN pendingReturned;
};
std::vector<Call> g_calls;

NTSTATUS Record(int who, PDEVICE_OBJECT device, PIRP irp) {
    g_calls.push_back({who, device, irp->PendingReturned});
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_CONTINUE_COMPLETION;
}

NTSTATUS RoutineA(PDEVICE_OBJECT d, PIRP irp, PVOID ctx) { return Record(static_cast<int>(reinterpret_cast<intptr_t>(ctx)), d, irp); }

// The top-level owner's routine for its own IRP: stop completion.
NTSTATUS OwnerDone(PDEVICE_OBJECT d, PIRP irp, PVOID ctx) {
    g_calls.push_back({static_cast<int>(reinterpret_cast<intptr_t>(ctx)), d, irp->PendingReturned});
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// A fixture with PDO <- middle filter <- top filter. The PDO keeps every IRP
// pending until the test completes it.
class IoStack : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        kvsim::PdoCallbacks callbacks;
        callbacks.other = [this](PDEVICE_OBJECT, PIRP irp) {
            if (completeAtOnce_) {
                irp->IoStatus.Status = STATUS_SUCCESS;
                IoCompleteRequest(irp, IO_NO_INCREMENT);
                return STATUS_SUCCESS;
            }
            IoMarkIrpPending(irp);
            pending_ = irp;
            return STATUS_PENDING;
        };
        callbacks.internalDeviceControl = callbacks.other;
        pdo_ = kvsim::CreateBusPdo(u"TestBus", callbacks);
        driver_ = kvsim::LoadDriver(u"TestFilter", u"\\Registry\\Machine\\System\\TestFilter", FilterEntry);
        ASSERT_NE(driver_, nullptr);
        ASSERT_EQ(IoCreateDevice(driver_, sizeof(FilterExt), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &middle_),
                  STATUS_SUCCESS);
        ASSERT_EQ(IoCreateDevice(driver_, sizeof(FilterExt), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &top_),
                  STATUS_SUCCESS);
        Ext(middle_)->lower = IoAttachDeviceToDeviceStack(middle_, pdo_);
        Ext(top_)->lower = IoAttachDeviceToDeviceStack(top_, pdo_);
        ASSERT_EQ(Ext(top_)->lower, middle_);
        ASSERT_EQ(top_->StackSize, 3);
    }
    void TearDown() override {
        IoDetachDevice(middle_);
        IoDeleteDevice(top_);
        IoDetachDevice(pdo_);
        IoDeleteDevice(middle_);
        kvsim::UnloadDriver(driver_);
        kvsim::DeleteBusPdo(pdo_);
    }
    static FilterExt* Ext(PDEVICE_OBJECT d) { return static_cast<FilterExt*>(d->DeviceExtension); }
    void Configure(PDEVICE_OBJECT d, int who, bool onSuccess, bool onError) {
        *Ext(d) = FilterExt{Ext(d)->lower, RoutineA, reinterpret_cast<PVOID>(static_cast<intptr_t>(who)),
                            static_cast<BOOLEAN>(onSuccess), static_cast<BOOLEAN>(onError), TRUE};
    }
    // An IRP of the top's stack size with the owner's routine in its first
    // location, sent to the top; returns what IoCallDriver returned.
    NTSTATUS Send(PIRP irp) {
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        IoSetCompletionRoutine(irp, OwnerDone, reinterpret_cast<PVOID>(static_cast<intptr_t>(0)), TRUE, TRUE, TRUE);
        return IoCallDriver(top_, irp);
    }
    void CompletePending(NTSTATUS status) {
        ASSERT_NE(pending_, nullptr);
        PIRP irp = pending_;
        pending_ = nullptr;
        irp->IoStatus.Status = status;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }

    PDEVICE_OBJECT pdo_ = nullptr, middle_ = nullptr, top_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PIRP pending_ = nullptr;
    bool completeAtOnce_ = false;
};

}  // namespace

// The middle filter's routine sits in the PDO's location and gets the
// middle device; the top's gets the top; the owner's gets NULL. The middle
// one, invoked on errors only, is skipped on success.
TEST_F(IoStack, CompletionRoutinesRunBottomUpWithTheirDeviceAndContextWhenTheirFlagsSaySo) {
    Configure(top_, 1, true, true);
    Configure(middle_, 2, false, true);
    for (NTSTATUS status : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL}) {
        g_calls.clear();
        PIRP irp = IoAllocateIrp(top_->StackSize, FALSE);
        EXPECT_EQ(Send(irp), STATUS_PENDING);
        EXPECT_EQ(IoGetCurrentIrpStackLocation(pending_)->DeviceObject, pdo_);
        CompletePending(status);
        std::vector<std::pair<int, PDEVICE_OBJECT>> expected = {{1, top_}, {0, nullptr}};
        if (status != STATUS_SUCCESS) expected.insert(expected.begin(), {2, middle_});
        ASSERT_EQ(g_calls.size(), expected.size()) << status;
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(g_calls[i].who, expected[i].first) << i;
            EXPECT_EQ(g_calls[i].device, expected[i].second) << i;
        }
        IoFreeIrp(irp);
    }
}

TEST_F(IoStack, PendingReturnedPropagatesUpTheStackAndIsFalseForSynchronousCompletion) {
    Configure(middle_, 2, true, true);  // the top has no routine: the I/O manager propagates
    PIRP irp = IoAllocateIrp(top_->StackSize, FALSE);
    Send(irp);
    CompletePending(STATUS_SUCCESS);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_TRUE(g_calls[0].pendingReturned);  // the PDO marked its location pending
    EXPECT_TRUE(g_calls[1].pendingReturned);  // carried through the routine and the skipped location
    IoFreeIrp(irp);
    // Completed inside IoCallDriver: never pending.
    g_calls.clear();
    completeAtOnce_ = true;
    irp = IoAllocateIrp(top_->StackSize, FALSE);
    EXPECT_EQ(Send(irp), STATUS_SUCCESS);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_FALSE(g_calls[0].pendingReturned);
    EXPECT_FALSE(g_calls[1].pendingReturned);
    IoFreeIrp(irp);
}

namespace {
int g_stopCalls = 0;
NTSTATUS StopOnce(PDEVICE_OBJECT d, PIRP irp, PVOID) {
    ++g_stopCalls;
    // The middle's dispatch returned the PDO's STATUS_PENDING: its location
    // must be marked pending before it completes the IRP again.
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}
}  // namespace

TEST_F(IoStack, MoreProcessingRequiredStopsCompletionAndTheIrpCanBeCompletedAgain) {
    Configure(top_, 1, true, true);
    *Ext(middle_) = FilterExt{Ext(middle_)->lower, StopOnce, nullptr, TRUE, TRUE, TRUE};
    g_stopCalls = 0;
    PIRP irp = IoAllocateIrp(top_->StackSize, FALSE);
    Send(irp);
    PIRP held = pending_;
    CompletePending(STATUS_SUCCESS);
    EXPECT_EQ(g_stopCalls, 1);
    EXPECT_TRUE(g_calls.empty());           // the routines above did not run
    EXPECT_EQ(kvsim::LiveIrpCount(), 1u);   // and the IRP was not freed
    // The middle driver owns the IRP again and completes it once more: the
    // walk resumes at the middle driver's own location.
    held->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(held, IO_NO_INCREMENT);
    EXPECT_EQ(g_stopCalls, 1);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].who, 1);
    EXPECT_EQ(g_calls[1].who, 0);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
    IoFreeIrp(irp);
}

namespace {
PIRP g_cancelled = nullptr;
VOID CancelRoutine(PDEVICE_OBJECT device, PIRP irp) {
    g_cancelled = irp;
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}
}  // namespace

TEST_F(IoStack, CancelIrpCallsTheCancelRoutineOrOnlyMarksTheIrpWithoutOne) {
    Configure(top_, 1, true, true);
    PIRP irp = IoAllocateIrp(top_->StackSize, FALSE);
    Send(irp);
    IoSetCancelRoutine(pending_, CancelRoutine);
    g_cancelled = nullptr;
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(g_cancelled, irp);
    EXPECT_TRUE(irp->Cancel);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    ASSERT_EQ(g_calls.size(), 2u);  // completion reached the owner
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    pending_ = nullptr;
    IoFreeIrp(irp);
    // Without a cancel routine IoCancelIrp only marks the IRP.
    irp = IoAllocateIrp(top_->StackSize, FALSE);
    Send(irp);
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_TRUE(irp->Cancel);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    CompletePending(STATUS_CANCELLED);
    IoFreeIrp(irp);
}

TEST_F(IoStack, DeviceIoControlRequestSignalsItsEventAndFillsItsStatusBlock) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    iosb.Status = STATUS_PENDING;
    PIRP irp = IoBuildDeviceIoControlRequest(0x220003, top_, nullptr, 0, nullptr, 0, TRUE, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(IoGetNextIrpStackLocation(irp)->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
    EXPECT_EQ(IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode, 0x220003u);
    ASSERT_EQ(IoCallDriver(top_, irp), STATUS_PENDING);
    // The bus completes it 5 ms later from DISPATCH_LEVEL.
    PIRP held = pending_;
    kvsim::ScheduleAt(kvsim::Now() + 5 * kvsim::kMillisecond, [held] {
        held->IoStatus.Status = STATUS_SUCCESS;
        held->IoStatus.Information = 42;
        IoCompleteRequest(held, IO_NO_INCREMENT);
    });
    LARGE_INTEGER timeout;
    timeout.QuadPart = -kvsim::kSecond;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 42u);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);  // the I/O manager freed it
    pending_ = nullptr;
}

TEST_F(IoStack, CallingDownWithNoStackLocationLeftIsAViolation) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);  // its owner used the only location itself
    IoGetCurrentIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    EXPECT_NE(IoCallDriver(pdo_, irp), STATUS_PENDING);
    EXPECT_EQ(pending_, nullptr);  // the PDO was not called
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("NO_MORE_IRP_STACK_LOCATIONS"), std::string::npos) << v[0];
    IoFreeIrp(irp);
}

// An IRP from IoAllocateIrp whose owner stopped completion belongs to the
// owner again, who frees it; handing it to IoCompleteRequest instead would
// send the I/O manager's post-processing to a thread that never asked.
TEST_F(IoStack, CompletingAnAllocatedIrpPastItsTopIsAViolation) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    IoSetCompletionRoutine(irp, OwnerDone, nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(pdo_, irp);
    CompletePending(STATUS_SUCCESS);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    auto v = kvsim::TakeViolations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(v[0].find("not a threaded IRP"), std::string::npos) << v[0];
    IoFreeIrp(irp);
}

// The pattern of kvdrv's GetBusInterface (driver/device/usb.cpp): a
// synchronous IRP from IoBuildSynchronousFsdRequest whose owner's routine
// signals and stops completion; the owner then calls IoCompleteRequest,
// which lets the I/O manager finish it (status block, event, free).
TEST_F(IoStack, OwnerCompletesAThreadedIrpAfterStoppingCompletion) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, top_, nullptr, 0, nullptr, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoGetNextIrpStackLocation(irp)->MinorFunction = IRP_MN_QUERY_INTERFACE;
    IoSetCompletionRoutine(irp, OwnerDone, reinterpret_cast<PVOID>(static_cast<intptr_t>(7)), TRUE, TRUE, TRUE);
    // The bus PDO answers a query for an interface it does not have by
    // completing the IRP with its status unchanged.
    EXPECT_EQ(IoCallDriver(top_, irp), STATUS_NOT_SUPPORTED);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].who, 7);
    EXPECT_EQ(kvsim::LiveIrpCount(), 1u);      // stopped: the owner holds it
    EXPECT_EQ(KeReadStateEvent(&event), 0);    // the I/O manager has not finished it
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(iosb.Status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);
    EXPECT_TRUE(kvsim::TakeViolations().empty());
}

TEST(Irp, AllocatedIrpNeverFreedIsReportedAsALeakAndFreeingTwiceIsAViolation) {
    PIRP kept = IoAllocateIrp(2, FALSE);
    PIRP freed = IoAllocateIrp(1, FALSE);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kvsim::LiveIrpCount(), 2u);
    IoFreeIrp(freed);
    EXPECT_EQ(kvsim::LiveIrpCount(), 1u);
    auto lines = kvsim::IoEndOfTestCheck();  // also frees `kept`
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("IRP still allocated: #1"), std::string::npos) << lines[0];
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);
    IoFreeIrp(freed);
    EXPECT_EQ(kvsim::TakeViolations().size(), 1u);
}

namespace {

// An FDO that passes power IRPs down, as a function driver does.
PDEVICE_OBJECT g_lower = nullptr;
NTSTATUS PassPowerDown(PDEVICE_OBJECT, PIRP irp) {
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(g_lower, irp);
}
NTSTATUS FdoEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_POWER] = PassPowerDown;
    return STATUS_SUCCESS;
}

struct Seen {
    int calls = 0;
    UCHAR minor = 0xFF;
    POWER_STATE_TYPE type = SystemPowerState;
    DEVICE_POWER_STATE state = PowerDeviceUnspecified;
};

struct Done {
    int calls = 0;
    PDEVICE_OBJECT device = nullptr;
    UCHAR minor = 0xFF;
    DEVICE_POWER_STATE state = PowerDeviceUnspecified;
    NTSTATUS status = STATUS_PENDING;
    KEVENT event;
};

VOID PowerDone(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state, PVOID context, PIO_STATUS_BLOCK iosb) {
    auto* done = static_cast<Done*>(context);
    ++done->calls;
    done->device = device;
    done->minor = minor;
    done->state = state.DeviceState;
    done->status = iosb->Status;
    KeSetEvent(&done->event, IO_NO_INCREMENT, FALSE);
}

}  // namespace

TEST(Power, RequestPowerIrpReachesThePdoWithSetPowerAndTheStateThenCallsTheCompletion) {
    Seen seen;
    kvsim::PdoCallbacks callbacks;
    callbacks.power = [&seen](PDEVICE_OBJECT pdo, PIRP irp) {
        PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
        ++seen.calls;
        seen.minor = sp->MinorFunction;
        seen.type = sp->Parameters.Power.Type;
        seen.state = sp->Parameters.Power.State.DeviceState;
        // The bus finishes the transition 2 ms later, at DISPATCH_LEVEL.
        IoMarkIrpPending(irp);
        kvsim::ScheduleAt(kvsim::Now() + 2 * kvsim::kMillisecond, [pdo, irp] {
            PoSetPowerState(pdo, DevicePowerState, IoGetCurrentIrpStackLocation(irp)->Parameters.Power.State);
            PoStartNextPowerIrp(irp);
            irp->IoStatus.Status = STATUS_SUCCESS;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
        });
        return STATUS_PENDING;
    };
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", callbacks);
    PDRIVER_OBJECT driver = kvsim::LoadDriver(u"PowerFdo", u"\\Registry\\PowerFdo", FdoEntry);
    PDEVICE_OBJECT fdo = nullptr;
    ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo), STATUS_SUCCESS);
    g_lower = IoAttachDeviceToDeviceStack(fdo, pdo);
    ASSERT_EQ(g_lower, pdo);

    Done done;
    KeInitializeEvent(&done.event, NotificationEvent, FALSE);
    POWER_STATE d3;
    d3.DeviceState = PowerDeviceD3;
    // Requested from the PDO: the IRP still starts at the top of the stack.
    EXPECT_EQ(PoRequestPowerIrp(pdo, IRP_MN_SET_POWER, d3, PowerDone, &done, nullptr), STATUS_PENDING);
    EXPECT_EQ(done.calls, 0);
    EXPECT_EQ(KeWaitForSingleObject(&done.event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.minor, IRP_MN_SET_POWER);
    EXPECT_EQ(seen.type, DevicePowerState);
    EXPECT_EQ(seen.state, PowerDeviceD3);
    EXPECT_EQ(done.calls, 1);
    EXPECT_EQ(done.device, pdo);
    EXPECT_EQ(done.minor, IRP_MN_SET_POWER);
    EXPECT_EQ(done.state, PowerDeviceD3);
    EXPECT_EQ(done.status, STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RecordedDevicePowerState(pdo), PowerDeviceD3);
    EXPECT_EQ(kvsim::PoStartNextPowerIrpCount(), 2u);
    // The power manager frees the IRP once the callback has returned (in
    // Parallel mode on another thread, just after the event was set).
    EXPECT_TRUE(kvsim::RunUntil([] { return kvsim::LiveIrpCount() == 0; }, kvsim::kSecond));
    // Only set and query power requests are made this way.
    EXPECT_EQ(PoRequestPowerIrp(pdo, IRP_MN_POWER_SEQUENCE, d3, nullptr, nullptr, nullptr), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);

    IoDetachDevice(pdo);
    IoDeleteDevice(fdo);
    kvsim::UnloadDriver(driver);
    kvsim::DeleteBusPdo(pdo);
}

TEST(Power, PdoWithoutCallbacksSucceedsSetPowerAndStartDevice) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", {});
    EXPECT_EQ(kvsim::SendDevicePowerIrp(pdo, IRP_MN_SET_POWER, PowerDeviceD3).status, STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RecordedDevicePowerState(pdo), PowerDeviceD3);
    EXPECT_EQ(kvsim::SendSystemPowerIrp(pdo, IRP_MN_QUERY_POWER, PowerSystemSleeping3, PowerActionSleep).status,
              STATUS_SUCCESS);
    EXPECT_EQ(kvsim::SendPnpIrp(pdo, IRP_MN_START_DEVICE).status, STATUS_SUCCESS);
    EXPECT_EQ(kvsim::SendPnpIrp(pdo, IRP_MN_QUERY_BUS_INFORMATION).status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kvsim::SendIrpAndWait(pdo, IRP_MJ_READ, 0).status, STATUS_INVALID_DEVICE_REQUEST);
    kvsim::DeleteBusPdo(pdo);
}
