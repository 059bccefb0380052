// Simulated Windows kernel headers: the device-interface routines of the
// I/O manager's share of wdm.h (IoRegisterDeviceInterface,
// IoSetDeviceInterfaceState), implemented in sim/kernel/io/devinterface.cpp.
// Clients find the registered interfaces through kvsim/devinterface.h.
#pragma once
#include "kv/ntbase.h"

typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;

KV_EXTERN_C_BEGIN
// Registers (or finds the registration of) an interface of `InterfaceClassGuid`
// for the PDO with an optional reference string, and returns its symbolic
// link name in a buffer the caller frees with RtlFreeUnicodeString. A new
// registration starts disabled.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-ioregisterdeviceinterface
NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID* InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
// Enables or disables a registered interface. Enabling an enabled one
// answers STATUS_OBJECT_NAME_EXISTS (a success code); disabling one that is
// not enabled, or an unknown link, STATUS_OBJECT_NAME_NOT_FOUND.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-iosetdeviceinterfacestate
NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
KV_EXTERN_C_END
