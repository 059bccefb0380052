// The simulated power manager: PoRequestPowerIrp, PoSetPowerState,
// PoCallDriver, PoStartNextPowerIrp.
//
// From learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-porequestpowerirp:
// the IRP goes to the top of the device stack the given device object
// belongs to; minor functions SET_POWER, QUERY_POWER (device power states)
// and WAIT_WAKE (a system state) are accepted, others give
// STATUS_INVALID_PARAMETER_2; no IRP gives STATUS_INSUFFICIENT_RESOURCES;
// otherwise STATUS_PENDING, and when the IRP has completed the power manager
// calls the PowerCompletion routine and frees the IRP.
//
// Since Windows Vista PoCallDriver is IoCallDriver and PoStartNextPowerIrp
// does nothing (nf-wdm-postartnextpowerirp); the simulation counts the calls.
// PoSetPowerState keeps the states in the DEVOBJ_EXTENSION's PowerFlags as
// Windows does (system state in bits 0-3, device state in bits 4-7).
#include <atomic>

#include "io_internal.h"
#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/object.h"

namespace kvsim {
namespace {

std::atomic<uint64_t> g_startNextCount{0};

struct PowerRequest {
    PDEVICE_OBJECT device;
    UCHAR minor;
    POWER_STATE state;
    PREQUEST_POWER_COMPLETE completion;
    PVOID context;
};

NTSTATUS PowerRequestDone(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* request = static_cast<PowerRequest*>(context);
    if (request->completion) {
        request->completion(request->device, request->minor, request->state, request->context, &irp->IoStatus);
    }
    delete request;
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

DEVICE_POWER_STATE RecordedDevicePowerState(PDEVICE_OBJECT device) {
    return static_cast<DEVICE_POWER_STATE>((device->DeviceObjectExtension->PowerFlags >> 4) & 0xF);
}

uint64_t PoStartNextPowerIrpCount() { return g_startNextCount.load(); }

namespace io {
void ResetPowerCounters() { g_startNextCount.store(0); }
}  // namespace io

}  // namespace kvsim

extern "C" NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                      PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp) {
    kvsim::io::CheckIrqlAtMost(DISPATCH_LEVEL, "PoRequestPowerIrp");
    if (MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER &&
        MinorFunction != IRP_MN_WAIT_WAKE) {
        return STATUS_INVALID_PARAMETER_2;
    }
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(DeviceObject);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (irp == nullptr) {
        ObDereferenceObject(top);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // Power IRPs start out as STATUS_NOT_SUPPORTED (as the PnP manager's do).
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_POWER;
    next->MinorFunction = MinorFunction;
    if (MinorFunction == IRP_MN_WAIT_WAKE) {
        next->Parameters.WaitWake.PowerState = PowerState.SystemState;
    } else {
        next->Parameters.Power.SystemContext = 0;
        next->Parameters.Power.Type = DevicePowerState;
        next->Parameters.Power.State = PowerState;
        next->Parameters.Power.ShutdownType = PowerActionNone;
    }
    auto* request = new kvsim::PowerRequest{DeviceObject, MinorFunction, PowerState, CompletionFunction, Context};
    IoSetCompletionRoutine(irp, kvsim::PowerRequestDone, request, TRUE, TRUE, TRUE);
    if (Irp) *Irp = irp;
    PoCallDriver(top, irp);
    ObDereferenceObject(top);
    return STATUS_PENDING;
}

extern "C" POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
    kvsim::io::CheckIrqlAtMost(DISPATCH_LEVEL, "PoSetPowerState");
    ULONG& flags = DeviceObject->DeviceObjectExtension->PowerFlags;
    POWER_STATE previous;
    if (Type == SystemPowerState) {
        previous.SystemState = static_cast<SYSTEM_POWER_STATE>(flags & 0xF);
        flags = (flags & ~0xFu) | (static_cast<ULONG>(State.SystemState) & 0xF);
    } else {
        previous.DeviceState = static_cast<DEVICE_POWER_STATE>((flags >> 4) & 0xF);
        flags = (flags & ~0xF0u) | ((static_cast<ULONG>(State.DeviceState) & 0xF) << 4);
    }
    return previous;
}

extern "C" NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return IofCallDriver(DeviceObject, Irp); }

extern "C" VOID PoStartNextPowerIrp(PIRP Irp) {
    kvsim::io::CheckIrqlAtMost(DISPATCH_LEVEL, "PoStartNextPowerIrp");
    kvsim::g_startNextCount.fetch_add(1);
}
