// Placeholder: filled by the kernel-simulation work of issue 2 (I/O manager).
#pragma once
#include "kv/ntbase.h"
typedef struct _DRIVER_OBJECT DRIVER_OBJECT, *PDRIVER_OBJECT;
typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
