// The simulated ks.sys: automation (helper H8). Property, method and event
// requests on filters and pins, the property sets that ks.sys answers itself
// (KSPROPSETID_Pin, _Topology, _General on a filter; KSPROPSETID_Connection
// and _Stream on a pin), and the event list behind KsGenerateEvents.
//
// How a request travels (the convention H7's client follows)
// ------------------------------------------------------------
// IOCTL_KS_PROPERTY / _METHOD / _ENABLE_EVENT / _DISABLE_EVENT are
// METHOD_NEITHER controls (IRP_MJ_DEVICE_CONTROL) on the filter's or pin's
// file object, as DeviceIoControl builds them:
//   Parameters.DeviceIoControl.Type3InputBuffer   the KSPROPERTY / KSEVENT and
//                                                 whatever follows it (KSP_PIN,
//                                                 KSP_NODE, a range list ...)
//   Parameters.DeviceIoControl.InputBufferLength  its length
//   Irp->UserBuffer                               the property data (read for a
//                                                 set AND a get, written for a
//                                                 get) or the KSEVENTDATA
//   Parameters.DeviceIoControl.OutputBufferLength its length
//   Irp->RequestorMode                            UserMode for applications
// For IOCTL_KS_DISABLE_EVENT, Type3InputBuffer is the address of the
// KSEVENTDATA that enabled the event (its identity) and InputBufferLength
// sizeof(KSEVENTDATA); a null buffer of length 0 disables every event that
// the file object enabled.
//
// As ks.sys does for METHOD_NEITHER requests, the dispatcher copies the
// request and the data into kernel buffers of exactly the caller's sizes
// (so AddressSanitizer catches a handler that writes past the caller's
// buffer), calls the handler on them, and copies Irp->IoStatus.Information
// bytes of data back to the caller when the status is not an error.
// IOCTL_KS_PROPERTY (learn.microsoft.com/windows-hardware/drivers/ddi/ks/
// ni-ks-ioctl_ks_property): "Although this IOCTL is defined with the
// METHOD_NEITHER flag, the property data is passed as the output buffer to
// the IOCTL and probed for read access."
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "ks_internal.h"

namespace kvsim::ks {

// DispatchAutomationIoctl and AutomationObjectClosing are declared in
// ks_internal.h (H7 calls them).

// The property sets ks.sys adds to an object of `kind` (empty for devices
// and factories). A minidriver set with the same GUID is merged in front of
// them: its items win (KsMergeAutomationTables: "AutomationTableA ... is the
// dominant table with respect to duplicate entries"; AVStream merges the
// descriptor's table as table A over its own).
struct BuiltinSets {
    const KSPROPERTY_SET* sets = nullptr;
    ULONG count = 0;
};
BuiltinSets BuiltinPropertySets(ObjectKind kind);

// The property request of `irp` on `object`, without completing the IRP:
// returns the status and leaves the byte count in Irp->IoStatus.Information.
NTSTATUS PropertyRequest(PIRP irp, ObjectHeader* object);
// The same for IOCTL_KS_ENABLE_EVENT and IOCTL_KS_DISABLE_EVENT.
NTSTATUS EnableEventRequest(PIRP irp, ObjectHeader* object);
NTSTATUS DisableEventRequest(PIRP irp, ObjectHeader* object);

// KsGenerateEvents on an object given by its header (KsGenerateEvents maps
// the public object to it).
void GenerateEvents(ObjectHeader* object, const GUID* eventSet, ULONG eventId, PFNKSGENERATEEVENTCALLBACK callBack,
                    PVOID callBackContext);

// The object whose automation request is being dispatched on this thread
// (the built-in handlers and KsDefaultAddEventHandler use it), or null.
ObjectHeader* CurrentAutomationObject();
// Sets it; returns the previous one (to be restored).
ObjectHeader* SetCurrentAutomationObject(ObjectHeader* object);

// Events enabled now (all objects), for tests.
size_t EnabledEventCount();

// The names ks.sys reports for KSPROPERTY_PIN_NAME / KSPROPERTY_TOPOLOGY_NAME:
// Windows reads them from the registry's MediaCategories key; the simulation
// knows the standard pin names. Null when the GUID has no name.
const char16_t* MediaCategoryName(const GUID& guid);

}  // namespace kvsim::ks
