// Video-class control requests: one class-interface request on the default
// control pipe per call (synchronous at PASSIVE_LEVEL, from a work item when
// called at DISPATCH_LEVEL), and the translation of a PropertyId into
// requests that keeps the settings record in step with the camera.
#pragma once

#include "wdk.h"
#include "controls/settings.h"

class FormatTables;
class UsbConfiguration;

// What a request needs to reach the camera: the next lower device object for
// the URB IRPs and our functional device object for the work items.
struct ControlRequestContext {
    PDEVICE_OBJECT pFunctionalDeviceObject;
    PDEVICE_OBJECT pNextDeviceObject;
};

// Every id that addresses a slot of the settings record, camera controls
// first, for the tools and tests that list the settings as an application
// sees them. A camera control carries its unit (UVC_ENTITY_*) and the
// unit's bmControls bit, by which a client tells whether the camera has it;
// the driver's own options carry 0 for both.
struct SettingSlotId {
    USHORT Id;
    ULONG Slot;
    USHORT Entity;
    ULONG ControlMask;
};
// Fills up to nMax entries and returns how many there are.
ULONG ListSettingIds(SettingSlotId* pOut, ULONG nMax);

class ControlRequests {
public:
    ControlRequests(DeviceSettings* pSettings, const FormatTables* pFormats, const UsbConfiguration* pUsb);
    ~ControlRequests();
    ControlRequests(const ControlRequests&) = delete;
    ControlRequests& operator=(const ControlRequests&) = delete;

    // Allocates the control-request context ("KVrb") at device start.
    NTSTATUS Initialize(PDEVICE_OBJECT pFunctionalDeviceObject, PDEVICE_OBJECT pNextDeviceObject);
    // Waits until no deferred request is queued or running (stop and remove:
    // a deferred request uses the context and the device).
    void WaitForDeferredRequests();
    void Release();

    // Synchronous at PASSIVE_LEVEL; at DISPATCH_LEVEL it queues a work item
    // with a copy of the data and returns STATUS_PENDING (the caller never
    // learns the result).
    NTSTATUS SendClassRequest(USHORT wIndex, UCHAR Request, USHORT wValue, PVOID pBuffer, PULONG pLength);
    // SET_CUR of the low 16 bits to the processing unit; always succeeds.
    NTSTATUS SetProcessingUnit(USHORT wValue, LONG Value);
    NTSTATUS GetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength);
    NTSTATUS SetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength);
    NTSTATUS GetDeviceProperty(USHORT Id, UCHAR Request, PLONG pValue);
    NTSTATUS SetDeviceProperty(USHORT Id, LONG Value);
    // The two property routines as the settings store calls them.
    PropertyAccess Access();
    // Read-modify-write of one bit of a camera register through the
    // extension unit's register window.
    NTSTATUS AccessExtensionRegister(UCHAR Register, ULONG Set);

    // Device values that ids 0x0639, 0x0660 and 0x0610 read or set.
    ULONG m_CapturePinRunning;   // 1 from the capture pin's run transition until it stops
    ULONG m_ControlReady;        // set at device start
    ULONG m_SpecialFrameReload;  // photo frame 11 asks the frame loop to reload its picture

private:
    struct DeferredOperation;
    static IO_WORKITEM_ROUTINE DeferredRequestWorker;
    NTSTATUS QueueDeferred(DeferredOperation* pOperation, const char* pRoutine);
    void RunQueuedLocked();
    void RunDeferred(DeferredOperation* pOperation);
    NTSTATUS DeferPropertySet(USHORT Id, LONG Value);

    ControlRequestContext* m_pControlContext;  // "KVrb"
    // Deferred operations run one at a time, in the order they were queued:
    // each work item runs every operation queued before its own first. The
    // delayed work queue has several threads, so without this two requests
    // could reach the camera in the other order.
    LIST_ENTRY m_DeferredList;
    KSPIN_LOCK m_DeferredLock;
    KMUTEX m_DeferredRunMutex;
    // While open: 1 (the device's own count, dropped by the wait) plus the
    // operations queued or running. It reaches 0 once per start, after the
    // wait closed the queue, and the operation that brings it there sets
    // m_NoDeferredEvent as the last thing it does with the device.
    LONG m_nDeferred;
    BOOLEAN m_DeferredOpen;
    KEVENT m_NoDeferredEvent;
    DeviceSettings* m_pSettings;
    const FormatTables* m_pFormats;
    const UsbConfiguration* m_pUsb;
};

// A request deferred from DISPATCH_LEVEL to a work item (56 bytes on x64).
// It is kept in a deferred operation, with a copy of the caller's data after
// it; pBuffer points at that copy and pLength at Length, so the caller's own
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
    ControlRequests* pRequests;
};
#if defined(_WIN64) || defined(__x86_64__) || defined(_M_X64)
static_assert(sizeof(DeferredClassRequest) == 56, "the deferred request record is 56 bytes on x64");
#endif
