// The simulated PnP and power managers' requests to one device stack (see
// pnp.h), built on the I/O manager's host helpers (kvsim/io.h).
#include "pnp.h"

#include "kvsim/io.h"

namespace kvsim::pnp {
namespace {

NTSTATUS Pnp(PDEVICE_OBJECT pdo, UCHAR minor) { return SendPnpIrp(pdo, minor).status; }

}  // namespace

PDRIVER_OBJECT LoadDriver(const std::u16string& name, PDRIVER_INITIALIZE driverEntry, NTSTATUS* status) {
    return kvsim::LoadDriver(name, u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + name, driverEntry,
                             status);
}

void UnloadDriver(PDRIVER_OBJECT driver) { kvsim::UnloadDriver(driver); }

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) { return CallAddDevice(driver, pdo); }

NTSTATUS StartDevice(PDEVICE_OBJECT pdo) {
    return SendPnpIrp(pdo, IRP_MN_START_DEVICE, [](PIO_STACK_LOCATION sp) {
               sp->Parameters.StartDevice.AllocatedResources = nullptr;
               sp->Parameters.StartDevice.AllocatedResourcesTranslated = nullptr;
           }).status;
}

NTSTATUS QueryCapabilities(PDEVICE_OBJECT pdo, DEVICE_CAPABILITIES* capabilities) {
    DEVICE_CAPABILITIES caps{};
    caps.Size = sizeof(caps);
    caps.Version = 1;
    caps.Address = 0xFFFFFFFF;
    caps.UINumber = 0xFFFFFFFF;
    NTSTATUS status = SendPnpIrp(pdo, IRP_MN_QUERY_CAPABILITIES, [&](PIO_STACK_LOCATION sp) {
                          sp->Parameters.DeviceCapabilities.Capabilities = &caps;
                      }).status;
    if (capabilities) *capabilities = caps;
    return status;
}

NTSTATUS StopDevice(PDEVICE_OBJECT pdo) {
    NTSTATUS status = Pnp(pdo, IRP_MN_QUERY_STOP_DEVICE);
    if (!NT_SUCCESS(status)) {
        Pnp(pdo, IRP_MN_CANCEL_STOP_DEVICE);
        return status;
    }
    return Pnp(pdo, IRP_MN_STOP_DEVICE);
}

NTSTATUS RemoveDevice(PDEVICE_OBJECT pdo) {
    NTSTATUS status = Pnp(pdo, IRP_MN_QUERY_REMOVE_DEVICE);
    if (!NT_SUCCESS(status)) {
        Pnp(pdo, IRP_MN_CANCEL_REMOVE_DEVICE);
        return status;
    }
    return Pnp(pdo, IRP_MN_REMOVE_DEVICE);
}

NTSTATUS SurpriseRemoveDevice(PDEVICE_OBJECT pdo) { return Pnp(pdo, IRP_MN_SURPRISE_REMOVAL); }

NTSTATUS FinishSurpriseRemoval(PDEVICE_OBJECT pdo) { return Pnp(pdo, IRP_MN_REMOVE_DEVICE); }

NTSTATUS SleepSystem(PDEVICE_OBJECT pdo, SYSTEM_POWER_STATE state, POWER_ACTION action) {
    NTSTATUS status = SendSystemPowerIrp(pdo, IRP_MN_QUERY_POWER, state, action).status;
    if (!NT_SUCCESS(status)) return status;
    return SendSystemPowerIrp(pdo, IRP_MN_SET_POWER, state, action).status;
}

NTSTATUS WakeSystem(PDEVICE_OBJECT pdo) {
    return SendSystemPowerIrp(pdo, IRP_MN_SET_POWER, PowerSystemWorking, PowerActionNone).status;
}

NTSTATUS SetDevicePower(PDEVICE_OBJECT pdo, DEVICE_POWER_STATE state) {
    return SendDevicePowerIrp(pdo, IRP_MN_SET_POWER, state).status;
}

bool HasFunctionDevice(PDEVICE_OBJECT pdo) { return pdo->AttachedDevice != nullptr; }

}  // namespace kvsim::pnp
