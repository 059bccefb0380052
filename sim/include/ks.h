// Placeholder: the simulated ks.h (types: issue 2; functions: issue 4).
#pragma once
#include "wdm.h"
typedef struct _KSDEVICE_DESCRIPTOR KSDEVICE_DESCRIPTOR, *PKSDEVICE_DESCRIPTOR;
KV_EXTERN_C NTSTATUS KsInitializeDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPathName, const KSDEVICE_DESCRIPTOR* Descriptor);
