// Part 1.1: Driver entry and device lifecycle.
// Until the Part lands, only the driver entry is here so that both worlds
// build and link.
#include "wdk.h"

// Part 1.1: driver entry registers the device dispatch table with ks.sys.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    DbgPrint("init Driver entry get called\n");
    return KsInitializeDriver(DriverObject, RegistryPath, nullptr);
}
