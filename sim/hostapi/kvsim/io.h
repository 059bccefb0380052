// Host-side control of the simulated I/O manager (sim/kernel/io/): loading a
// driver, the stand-alone physical device objects of simulated bus drivers,
// sending an IRP to a device stack and waiting for it, the 32-bit-caller
// switch behind IoIs32bitProcess, and the IRP leak check. Not visible to the
// driver.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kv/io.h"

namespace kvsim {

// ---- drivers -----------------------------------------------------------------
// Creates a driver object named "\Driver\<name>" (MajorFunction slots start
// out as the I/O manager's "invalid device request" routine, as on Windows),
// and calls `init` (the DriverEntry) with it and the registry path, at
// PASSIVE_LEVEL in the calling thread. Returns the driver object, or null
// when `init` failed (its status in *status; the object is then deleted).
PDRIVER_OBJECT LoadDriver(const std::u16string& name, const std::u16string& registryPath, PDRIVER_INITIALIZE init,
                          NTSTATUS* status = nullptr);
// Calls DriverUnload (when set) and deletes the driver object. Every device
// object of the driver must have been deleted (a violation otherwise).
void UnloadDriver(PDRIVER_OBJECT driver);
// The PnP manager's call of the driver's AddDevice routine for `pdo`.
NTSTATUS CallAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);

// ---- physical device objects of simulated bus drivers ----------------------------
// A dispatch callback of a stand-alone PDO. It owns the IRP as a bus driver's
// dispatch routine does: it completes it now (IoCompleteRequest) or marks it
// pending, returns STATUS_PENDING and completes it later, from any thread and
// at up to DISPATCH_LEVEL (a ScheduleAt callback, say).
using PdoDispatch = std::function<NTSTATUS(PDEVICE_OBJECT pdo, PIRP irp)>;

struct PdoCallbacks {
    PdoDispatch internalDeviceControl;  // IRP_MJ_INTERNAL_DEVICE_CONTROL (URBs)
    PdoDispatch deviceControl;          // IRP_MJ_DEVICE_CONTROL
    PdoDispatch pnp;                    // IRP_MJ_PNP
    PdoDispatch power;                  // IRP_MJ_POWER
    PdoDispatch systemControl;          // IRP_MJ_SYSTEM_CONTROL
    PdoDispatch other;                  // any other major function
};
// What a PDO does with an IRP that has no callback: PnP and WMI IRPs are
// completed with the status they carry (a bus driver leaves unknown PnP IRPs
// alone), power IRPs likewise (after PoStartNextPowerIrp), everything else
// with STATUS_INVALID_DEVICE_REQUEST.

// Creates a PDO (DO_BUS_ENUMERATED_DEVICE, StackSize 1, initialized) owned by
// a simulated bus driver object named "\Driver\<busName>" (created on first
// use). `extensionSize` bytes of zeroed device extension.
PDEVICE_OBJECT CreateBusPdo(const std::u16string& busName, PdoCallbacks callbacks, ULONG extensionSize = 0,
                            DEVICE_TYPE type = FILE_DEVICE_UNKNOWN);
// IoDeleteDevice for the PDO, and its callbacks are dropped.
void DeleteBusPdo(PDEVICE_OBJECT pdo);

// ---- sending IRPs ---------------------------------------------------------------------
// Sends `irp` (whose next stack location the caller has filled) to `device`
// with a completion routine of the simulation in that location, waits
// (KeWaitForSingleObject, so simulated time runs) until it completes, and
// returns its final IoStatus.Status. The caller keeps the IRP and frees it.
NTSTATUS CallDriverAndWait(PDEVICE_OBJECT device, PIRP irp);

struct IrpResult {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};
// Builds an IRP for the top of the stack that `device` belongs to, sets its
// first stack location's major/minor function, lets `setup` fill the rest
// (parameters, Flags), sends it and waits, frees it and returns the result.
// The status starts as STATUS_NOT_SUPPORTED for PnP and power IRPs (as the
// PnP and power managers initialize them) and STATUS_SUCCESS otherwise.
IrpResult SendIrpAndWait(PDEVICE_OBJECT device, UCHAR major, UCHAR minor,
                         const std::function<void(PIO_STACK_LOCATION)>& setup = {});
// Shorthands for the PnP manager and the power manager.
IrpResult SendPnpIrp(PDEVICE_OBJECT device, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup = {});
IrpResult SendSystemPowerIrp(PDEVICE_OBJECT device, UCHAR minor, SYSTEM_POWER_STATE state, POWER_ACTION action);
IrpResult SendDevicePowerIrp(PDEVICE_OBJECT device, UCHAR minor, DEVICE_POWER_STATE state);

// ---- 32-bit callers --------------------------------------------------------------------
// IoIs32bitProcess(Irp) answers for the IRP: an IRP allocated while the
// calling thread was marked 32-bit counts as coming from a 32-bit process,
// and SetIrpFrom32bitProcess overrides that per IRP. IoIs32bitProcess(NULL)
// answers for the current thread.
void SetCurrentThreadIs32bit(bool is32bit);
void SetIrpFrom32bitProcess(PIRP irp, bool is32bit);

// ---- state for tests ---------------------------------------------------------------------
size_t LiveIrpCount();        // IRPs from IoAllocateIrp / IoBuild* not yet freed
size_t LiveDeviceObjectCount();
// Power state recorded by PoSetPowerState for the device.
DEVICE_POWER_STATE RecordedDevicePowerState(PDEVICE_OBJECT device);
// Number of PoStartNextPowerIrp calls so far (reset by the end-of-test check).
uint64_t PoStartNextPowerIrpCount();

// End-of-test check: one failure line per IRP still allocated ("IRP still
// allocated: #4, major 0x0f, ..."); the IRPs are freed and the 32-bit
// switches reset.
std::vector<std::string> IoEndOfTestCheck();

}  // namespace kvsim
