// The simulated power manager: PoRequestPowerIrp through a device stack to
// the bus driver's PDO, PoSetPowerState, the PDO's default power handling.
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "wdm.h"

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
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);  // the power manager freed it

    IoDetachDevice(pdo);
    IoDeleteDevice(fdo);
    kvsim::UnloadDriver(driver);
    kvsim::DeleteBusPdo(pdo);
}

TEST(Power, RequestPowerIrpRejectsOtherMinorFunctions) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", {});
    POWER_STATE d0;
    d0.DeviceState = PowerDeviceD0;
    EXPECT_EQ(PoRequestPowerIrp(pdo, IRP_MN_POWER_SEQUENCE, d0, nullptr, nullptr, nullptr),
              STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);
    kvsim::DeleteBusPdo(pdo);
}

TEST(Power, RequestPowerIrpFailsWhenNoIrpCanBeAllocated) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", {});
    POWER_STATE d0;
    d0.DeviceState = PowerDeviceD0;
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(PoRequestPowerIrp(pdo, IRP_MN_SET_POWER, d0, nullptr, nullptr, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::DeleteBusPdo(pdo);
}

TEST(Power, SetPowerStateReturnsThePreviousState) {
    PDEVICE_OBJECT pdo = kvsim::CreateBusPdo(u"PowerBus", {});
    POWER_STATE s;
    s.DeviceState = PowerDeviceD0;
    EXPECT_EQ(PoSetPowerState(pdo, DevicePowerState, s).DeviceState, PowerDeviceUnspecified);
    s.DeviceState = PowerDeviceD2;
    EXPECT_EQ(PoSetPowerState(pdo, DevicePowerState, s).DeviceState, PowerDeviceD0);
    s.SystemState = PowerSystemSleeping3;
    EXPECT_EQ(PoSetPowerState(pdo, SystemPowerState, s).SystemState, PowerSystemUnspecified);
    EXPECT_EQ(kvsim::RecordedDevicePowerState(pdo), PowerDeviceD2);
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
