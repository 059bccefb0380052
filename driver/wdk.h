// The seam: the one header through which driver code sees Windows.
//  - KV_TARGET_WINDOWS: the WDK headers of mingw-w64 (include/ddk), for the
//    real kvdrv.sys.
//  - KV_TARGET_HOST: the simulation's headers under sim/include, which
//    declare the same names with the Windows x64 layouts; the functions are
//    real functions of the simulation, nothing is #define'd away.
// Driver code includes nothing else from the platform.
#pragma once

#if defined(KV_TARGET_WINDOWS) && defined(KV_TARGET_HOST)
#error "define only one of KV_TARGET_WINDOWS and KV_TARGET_HOST"
#elif defined(KV_TARGET_WINDOWS)
// mingw-w64 quirks when its DDK headers are compiled as C++: these two
// intrinsics are declared twice unless marked as already defined.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#include <ntddk.h>
#include "windows_ddk_fixups.h"
#include <ks.h>
#include <ksmedia.h>
#include <usb.h>
// mingw-w64's usbdlib.h declares the usbd.sys routines without extern "C";
// usbd.sys exports them with C names.
extern "C" {
#include <usbdlib.h>
}
#include <usbbusif.h>
#elif defined(KV_TARGET_HOST)
#include <ntddk.h>
#include <ks.h>
#include <ksmedia.h>
#include <usb.h>
#include <usbdlib.h>
#include <usbbusif.h>
#else
#error "driver/wdk.h: define KV_TARGET_WINDOWS (kvdrv.sys) or KV_TARGET_HOST (simulation)"
#endif

#include "layout_asserts.h"
