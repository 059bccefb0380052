// Shared between the I/O manager's source files (sim/kernel/io/): IRP
// allocation without fault injection for the simulation's own requests, the
// pool tags under which fault injection sees I/O objects, and small checks.
#pragma once
#include "kv/io.h"

namespace kvsim::io {

// Tags Windows charges these objects to (as pool tools show them).
inline constexpr const char* kIrpTag = "Irp ";
inline constexpr const char* kDeviceTag = "Devi";
inline constexpr const char* kDriverTag = "Driv";
inline constexpr const char* kIoBufferTag = "IoBf";
inline constexpr const char* kCompletionExTag = "IoCc";

// IoAllocateIrp's work; `injectable` = false for the simulation's own IRPs
// (SendIrpAndWait), which must not consume a test's fault-injection count.
PIRP AllocateIrp(CCHAR stackSize, bool injectable);

// Reports a violation when the current IRQL is above `max`; `routine` names
// the caller for the message.
void CheckIrqlAtMost(KIRQL max, const char* routine);

// The I/O manager's default dispatch routine: completes the IRP with
// STATUS_INVALID_DEVICE_REQUEST.
NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp);

// Resets PoStartNextPowerIrpCount (end of test).
void ResetPowerCounters();

}  // namespace kvsim::io
