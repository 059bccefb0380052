// Host helpers of the simulated I/O manager: sending an IRP down a device
// stack and waiting for it, as the PnP manager, the power manager or a test
// does (kvsim/io.h).
#include "io_internal.h"
#include "kvsim/io.h"
#include "kvsim/object.h"

namespace kvsim {
namespace {

NTSTATUS SignalWhenDone(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

IrpResult SendAndFree(PDEVICE_OBJECT device, PIRP irp) {
    IrpResult result;
    result.status = CallDriverAndWait(device, irp);
    result.information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    return result;
}

}  // namespace

NTSTATUS CallDriverAndWait(PDEVICE_OBJECT device, PIRP irp) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, SignalWhenDone, &done, TRUE, TRUE, TRUE);
    // A dispatch routine that neither pends nor completes the IRP, or returns
    // another status than the IRP's, is reported by IoCallDriver; the wait
    // is for the completion whatever the routine returned.
    IoCallDriver(device, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return irp->IoStatus.Status;
}

IrpResult SendIrpAndWait(PDEVICE_OBJECT device, UCHAR major, UCHAR minor,
                         const std::function<void(PIO_STACK_LOCATION)>& setup) {
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
    PIRP irp = io::AllocateIrp(top->StackSize, false);
    irp->IoStatus.Status = (major == IRP_MJ_PNP || major == IRP_MJ_POWER) ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->MinorFunction = minor;
    if (setup) setup(next);
    IrpResult result = SendAndFree(top, irp);
    ObDereferenceObject(top);
    return result;
}

IrpResult SendPnpIrp(PDEVICE_OBJECT device, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup) {
    return SendIrpAndWait(device, IRP_MJ_PNP, minor, setup);
}

IrpResult SendSystemPowerIrp(PDEVICE_OBJECT device, UCHAR minor, SYSTEM_POWER_STATE state, POWER_ACTION action) {
    return SendIrpAndWait(device, IRP_MJ_POWER, minor, [&](PIO_STACK_LOCATION sp) {
        sp->Parameters.Power.SystemContext = 0;
        sp->Parameters.Power.Type = SystemPowerState;
        sp->Parameters.Power.State.SystemState = state;
        sp->Parameters.Power.ShutdownType = action;
    });
}

IrpResult SendDevicePowerIrp(PDEVICE_OBJECT device, UCHAR minor, DEVICE_POWER_STATE state) {
    return SendIrpAndWait(device, IRP_MJ_POWER, minor, [&](PIO_STACK_LOCATION sp) {
        sp->Parameters.Power.SystemContext = 0;
        sp->Parameters.Power.Type = DevicePowerState;
        sp->Parameters.Power.State.DeviceState = state;
        sp->Parameters.Power.ShutdownType = PowerActionNone;
    });
}

}  // namespace kvsim
