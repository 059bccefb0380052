// The simulated PnP manager and power manager, as far as a device stack of a
// kernel-streaming driver sees them (host API, not visible to the driver).
// Each call sends the IRPs Windows would send, in Windows' order, to the top
// of the PDO's stack and waits for them (simulated time runs meanwhile):
//   AddDevice       the driver's AddDevice with the PDO
//   StartDevice     IRP_MN_START_DEVICE (no resources: a USB device has none)
//   QueryCapabilities IRP_MN_QUERY_CAPABILITIES (Size/Version set, Address and
//                   UINumber -1, as the PnP manager initializes it)
//   StopDevice      IRP_MN_QUERY_STOP_DEVICE, then IRP_MN_STOP_DEVICE, or
//                   IRP_MN_CANCEL_STOP_DEVICE when the query failed
//   RemoveDevice    IRP_MN_QUERY_REMOVE_DEVICE, then IRP_MN_REMOVE_DEVICE, or
//                   IRP_MN_CANCEL_REMOVE_DEVICE when the query failed
//   SurpriseRemoveDevice IRP_MN_SURPRISE_REMOVAL (the PnP manager sends
//                   IRP_MN_REMOVE_DEVICE once the last handle is closed:
//                   FinishSurpriseRemoval)
//   SleepSystem     IRP_MN_QUERY_POWER (system state, power action), then
//                   IRP_MN_SET_POWER (system); the device's power policy
//                   owner (ks.sys) asks for the matching D-IRP itself
//   WakeSystem      IRP_MN_SET_POWER (system, S0)
//   SetDevicePower  IRP_MN_SET_POWER (device state), as a policy owner's
//                   PoRequestPowerIrp would
// https://learn.microsoft.com/windows-hardware/drivers/kernel/understanding-when-remove-irps-are-issued
// https://learn.microsoft.com/windows-hardware/drivers/kernel/system-power-actions
#pragma once
#include <string>

#include "wdm.h"

namespace kvsim::pnp {

// Loads a driver ("\Driver\<name>", registry path
// \Registry\Machine\System\CurrentControlSet\Services\<name>) by calling its
// DriverEntry; null when DriverEntry failed (status in *status).
PDRIVER_OBJECT LoadDriver(const std::u16string& name, PDRIVER_INITIALIZE driverEntry, NTSTATUS* status = nullptr);
void UnloadDriver(PDRIVER_OBJECT driver);

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS StartDevice(PDEVICE_OBJECT pdo);
NTSTATUS QueryCapabilities(PDEVICE_OBJECT pdo, DEVICE_CAPABILITIES* capabilities = nullptr);
NTSTATUS StopDevice(PDEVICE_OBJECT pdo);
NTSTATUS RemoveDevice(PDEVICE_OBJECT pdo);
NTSTATUS SurpriseRemoveDevice(PDEVICE_OBJECT pdo);
NTSTATUS FinishSurpriseRemoval(PDEVICE_OBJECT pdo);

NTSTATUS SleepSystem(PDEVICE_OBJECT pdo, SYSTEM_POWER_STATE state = PowerSystemSleeping3,
                     POWER_ACTION action = PowerActionSleep);
NTSTATUS WakeSystem(PDEVICE_OBJECT pdo);
NTSTATUS SetDevicePower(PDEVICE_OBJECT pdo, DEVICE_POWER_STATE state);

// True while a function device object is attached above the PDO.
bool HasFunctionDevice(PDEVICE_OBJECT pdo);

}  // namespace kvsim::pnp
