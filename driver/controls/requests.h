// Part 3.2: video-class control requests - the request codes and entities,
// the device's control-request context and the deferred request record. The
// routines (SendClassRequest, SetProcessingUnit, GetCur, SetCur,
// GetDeviceProperty, SetDeviceProperty, AccessExtensionRegister) are
// CCaptureDevice members, declared in device/device.h inside the Part 3.2
// block and defined in requests.cpp.
#pragma once

#include "wdk.h"
#include "pooltag.h"

class CCaptureDevice;

// UVC request codes (bRequest).
enum : UCHAR {
    UVC_SET_CUR = 0x01,
    UVC_GET_CUR = 0x81,
    UVC_GET_MIN = 0x82,
    UVC_GET_MAX = 0x83,
    UVC_GET_RES = 0x84,
    UVC_GET_INFO = 0x86,
    UVC_GET_DEF = 0x87,
};

// wIndex: entity id << 8, interface 0.
enum : USHORT {
    UVC_ENTITY_CAMERA_TERMINAL = 0x0100,
    UVC_ENTITY_PROCESSING_UNIT = 0x0300,
    UVC_ENTITY_EXTENSION_UNIT = 0x0400,
};

// wValue of the camera-terminal auto-exposure mode control; the property id
// 0x0C00 travels as this selector.
constexpr USHORT UVC_CT_AE_MODE = 0x0200;
// Extension unit selector 3: the register window of AccessExtensionRegister.
constexpr USHORT UVC_XU_REGISTER_WINDOW = 0x0300;

// The spec names no tag for the request blocks of this Part; Part 1.2's
// request blocks (the same 136-byte URB size) carry "KVrb", and so do ours,
// the deferred record and the control-request context.
constexpr ULONG KV_TAG_REQUEST = kv::PoolTag("KVrb");

// The device's control-request context (Part 3.1 step 1 allocates it): what
// SendClassRequest needs to reach the camera - the next lower device object
// for the URB IRPs and the functional device object for the work items.
struct ControlRequestContext {
    PDEVICE_OBJECT pFunctionalDeviceObject;
    PDEVICE_OBJECT pNextDeviceObject;
};

// A request deferred from DISPATCH_LEVEL to a work item (56 bytes on x64).
// The record is allocated with a copy of the caller's data after it;
// pBuffer points at that copy and pLength at Length, so the caller's own
// buffer and length may go away as soon as SendClassRequest returns.
struct DeferredClassRequest {
    PIO_WORKITEM pWorkItem;
    USHORT Function;   // URB_FUNCTION_CLASS_INTERFACE
    UCHAR Request;
    UCHAR Reserved;
    USHORT Value;      // wValue
    USHORT Index;      // wIndex
    PVOID pBuffer;
    PULONG pLength;    // &Length: the deferred request's own length
    ULONG Direction;   // USBD_TRANSFER_DIRECTION_IN or _OUT
    ULONG Length;      // the transfer length when the request was queued
    NTSTATUS Status;   // the final status, for a debugger only: the caller never learns it
    CCaptureDevice* pDevice;
};
#if defined(_WIN64) || defined(__x86_64__) || defined(_M_X64)
static_assert(sizeof(DeferredClassRequest) == 56, "Part 3.2: the deferred record is 56 bytes");
#endif
