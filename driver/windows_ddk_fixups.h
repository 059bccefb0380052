// What the mingw-w64 DDK headers need, compiled as C++ for kvdrv.sys, between
// <ntddk.h> and <ks.h>/<ksmedia.h> (included only by wdk.h, Windows side):
//  - windef.h's plain types (BYTE, WORD, DWORD, FLOAT, RECT, SIZE) that
//    ksmedia.h uses but the DDK's ntddk.h does not declare;
//  - unknown.h (kernel-mode IUnknown), without which ks.h leaves out
//    IKsReferenceClock and KsPinGetReferenceClockInterface; it needs the two
//    DECLSPEC_ macros of winnt.h;
//  - TCHAR, used by one ksmedia.h record (kernel code is UNICODE);
//  - usbioctl.h, which the simulation's usb.h includes;
//  - InterlockedExchange8, a WDK intrinsic that mingw-w64's headers lack;
//  - the video subtype GUIDs that the WDK declares and mingw-w64 lacks (the simulation's headers declare the same
//    names, so the driver source is the same for both worlds).
//  - XSTATE_MASK_AVX: ntddk.h spells its XSTATE masks with MSVC's i64
//    suffix, which g++ rejects in C++, and has no AVX name at all.
#pragma once

#include <windef.h>

#ifndef DECLSPEC_NOVTABLE
#define DECLSPEC_NOVTABLE
#endif
#ifndef DECLSPEC_NOTHROW
#define DECLSPEC_NOTHROW
#endif
#include <unknown.h>

#ifndef InterlockedExchange8
inline CHAR InterlockedExchange8(CHAR volatile* Target, CHAR Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
#endif

#ifndef _TCHAR_DEFINED
#define _TCHAR_DEFINED
typedef WCHAR TCHAR, *PTCHAR;
#endif

// Video subtypes: {FourCC-0000-0010-8000-00AA00389B71}; RGB24 and RGB32 are
// the DirectShow subtypes. Defined in every translation unit (C++17 inline
// variables), as the simulation does.
#define KV_FOURCC_SUBTYPE(fourcc) (fourcc), 0x0000, 0x0010, 0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71
#define KV_WINDOWS_GUID(name) inline constexpr GUID name = {STATIC_##name}
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_YUY2
#define STATIC_KSDATAFORMAT_SUBTYPE_YUY2 KV_FOURCC_SUBTYPE(0x32595559)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_YUY2);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_UYVY
#define STATIC_KSDATAFORMAT_SUBTYPE_UYVY KV_FOURCC_SUBTYPE(0x59565955)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_UYVY);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_MJPG
#define STATIC_KSDATAFORMAT_SUBTYPE_MJPG KV_FOURCC_SUBTYPE(0x47504A4D)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_MJPG);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_I420
#define STATIC_KSDATAFORMAT_SUBTYPE_I420 KV_FOURCC_SUBTYPE(0x30323449)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_I420);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_IYUV
#define STATIC_KSDATAFORMAT_SUBTYPE_IYUV KV_FOURCC_SUBTYPE(0x56555949)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_IYUV);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_NV12
#define STATIC_KSDATAFORMAT_SUBTYPE_NV12 KV_FOURCC_SUBTYPE(0x3231564E)
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_NV12);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_RGB24
#define STATIC_KSDATAFORMAT_SUBTYPE_RGB24 0xe436eb7d, 0x524f, 0x11ce, 0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_RGB24);
#endif
#ifndef STATIC_KSDATAFORMAT_SUBTYPE_RGB32
#define STATIC_KSDATAFORMAT_SUBTYPE_RGB32 0xe436eb7e, 0x524f, 0x11ce, 0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70
KV_WINDOWS_GUID(KSDATAFORMAT_SUBTYPE_RGB32);
#endif

// The AVX state is XSAVE component 2 (Intel SDM vol. 1, 13.1), as in the WDK.
#undef XSTATE_MASK_AVX
#define XSTATE_MASK_AVX (1ULL << XSTATE_GSSE)

// The USB internal I/O controls (IOCTL_INTERNAL_USB_SUBMIT_URB ...) and the
// idle-request record: the simulation's usb.h brings them, mingw's does not.
#include <usbioctl.h>
