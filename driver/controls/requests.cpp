// Video-class control requests. SendClassRequest builds one class-interface
// URB per request and sends it down the default control pipe;
// GetDeviceProperty / SetDeviceProperty translate a PropertyId into requests
// and keep DeviceProperty in step with the camera; AccessExtensionRegister
// toggles one bit of a camera register through the extension unit.
//
// Choices worth knowing:
// - Camera answers are read little-endian: 2-byte controls sign-extended
//   from 16 bits (values travel as 16-bit signed numbers), the 4-byte
//   exposure time as a 32-bit signed value, power-line frequency as its
//   first byte. The receive buffer is zeroed, so a short answer (a 1-byte
//   control asked for 2 bytes) reads as its value.
// - A deferred request works on copies kept with its record - the data after
//   the operation, the length in the record - not on the caller's buffer and
//   length: the callers here pass stack buffers, and the caller never learns
//   the result anyway.
// - Deferred operations (class requests at DISPATCH_LEVEL, and the ids whose
//   action needs PASSIVE_LEVEL) reach the camera in the order they were
//   made, also relative to requests made at PASSIVE_LEVEL, which run what is
//   still queued first; stop and remove wait until none is queued or running.
// - Steps that send several requests (0x0C00, 0x0909, the extension register)
//   end at the first failing request and return its status.
#include "controls/requests.h"

#include "device/descriptor_reader.h"
#include "device/formats.h"
#include "device/usb.h"
#include "pooltag.h"
#include "uvc.h"

using namespace kv;

namespace {

constexpr USHORT kClassRequestUrbSize = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
static_assert(kClassRequestUrbSize == 136, "the class request URB is 136 bytes on x64");

// 10 ms relative, in 100 ns units: the camera needs this long between two
// accesses to its register window.
constexpr LONGLONG kRegisterPause = -100000;

// A control transfer's wLength is 16 bits.
constexpr ULONG kMaximumControlLength = 0xFFFF;

// The register window's requests: command and register (2 bytes), or
// command, register and value (3 bytes).
constexpr ULONG kWindowSelectLength = 2;
constexpr ULONG kWindowWriteLength = 3;

// The camera registers id 0x0909 writes: the first arms the option, the
// second holds its value.
constexpr UCHAR kRegisterOptionArm = 0x18;
constexpr UCHAR kRegisterOptionValue = 0x17;

// The register window's commands: byte 0 of the request.
constexpr UCHAR kWindowRead = 0x80;
constexpr UCHAR kWindowWrite = 0x00;

// The bit of those registers, by product id: each camera firmware puts it
// elsewhere; other cameras are only read.
struct RegisterBit {
    USHORT ProductId;
    UCHAR Bit;
};
const RegisterBit kRegisterBits[] = {
    {0x0100, 0x40},
    {0x8034, 0x20},
};

LONG ReadLe16Signed(const UCHAR* p)
{
    return static_cast<LONG>(static_cast<SHORT>(ReadLe16(p)));
}

LONG ReadLe32Signed(const UCHAR* p)
{
    return static_cast<LONG>(ReadLe32(p));
}

void WriteLe32(UCHAR* p, LONG value)
{
    const ULONG v = static_cast<ULONG>(value);
    p[0] = static_cast<UCHAR>(v);
    p[1] = static_cast<UCHAR>(v >> 8);
    p[2] = static_cast<UCHAR>(v >> 16);
    p[3] = static_cast<UCHAR>(v >> 24);
}

// A camera control of GetDeviceProperty's table: the entity, the wValue
// sent, the length, the slot that answers GET_CUR, and the unit's bmControls
// bit that says whether the camera has it.
struct CameraControl {
    USHORT Id;
    USHORT Entity;
    USHORT wValue;
    ULONG Length;
    ULONG Slot;
    ULONG Mask;
};
const CameraControl kCameraControls[] = {
    {PROPID_BACKLIGHT, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_BACKLIGHT_COMPENSATION_CONTROL, 2, SLOT_BACKLIGHT, UVC_PU_BM_BACKLIGHT_COMPENSATION},
    {PROPID_BRIGHTNESS, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_BRIGHTNESS_CONTROL, 2, SLOT_BRIGHTNESS, UVC_PU_BM_BRIGHTNESS},
    {PROPID_CONTRAST, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_CONTRAST_CONTROL, 2, SLOT_CONTRAST, UVC_PU_BM_CONTRAST},
    {PROPID_EXPOSURE_TIME, UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL, 4, SLOT_EXPOSURE_TIME, UVC_CT_BM_EXPOSURE_TIME_ABSOLUTE},
    {PROPID_POWER_LINE, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_POWER_LINE_FREQUENCY_CONTROL, 2, SLOT_POWER_LINE, UVC_PU_BM_POWER_LINE_FREQUENCY},
    {PROPID_HUE, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_HUE_CONTROL, 2, SLOT_HUE, UVC_PU_BM_HUE},
    {PROPID_SATURATION, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_SATURATION_CONTROL, 2, SLOT_SATURATION, UVC_PU_BM_SATURATION},
    {PROPID_SHARPNESS, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_SHARPNESS_CONTROL, 2, SLOT_SHARPNESS, UVC_PU_BM_SHARPNESS},
    {PROPID_GAMMA, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_GAMMA_CONTROL, 2, SLOT_GAMMA, UVC_PU_BM_GAMMA},
    {PROPID_WB_TEMPERATURE, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL, 2, SLOT_WB_TEMPERATURE, UVC_PU_BM_WHITE_BALANCE_TEMPERATURE},
    {PROPID_WB_AUTO, UVC_ENTITY_PROCESSING_UNIT, UVC_PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, 2, SLOT_WB_AUTO, UVC_PU_BM_WHITE_BALANCE_TEMPERATURE_AUTO},
    {PROPID_AUTO_EXPOSURE, UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_AE_MODE_CONTROL, 2, SLOT_AUTO_EXPOSURE, UVC_CT_BM_AE_MODE},
};

// The driver's own ids answered from the record whatever the request.
struct RecordId {
    USHORT Id;
    ULONG Slot;
};
const RecordId kRecordIds[] = {
    {PROPID_VFLIP, SLOT_VFLIP},
    {PROPID_MIRROR, SLOT_MIRROR},
    {PROPID_ROTATE, SLOT_ROTATE},
    {PROPID_SPECIAL_EFFECT, SLOT_SPECIAL_EFFECT},
    {PROPID_SPECIAL_FRAME, SLOT_SPECIAL_FRAME},
    {PROPID_TRACKING_METHOD, SLOT_TRACKING_METHOD},
    {PROPID_TRACKING_0636, SLOT_TRACKING_0636},
    {PROPID_TRACKING_0637, SLOT_TRACKING_0637},
    {PROPID_ZOOM_LEVEL, SLOT_ZOOM_LEVEL},
    {PROPID_ZOOM_SWITCH, SLOT_ZOOM_SWITCH},
    {PROPID_PAN_UP, SLOT_PAN_UP},
    {PROPID_PAN_DOWN, SLOT_PAN_DOWN},
    {PROPID_PAN_LEFT, SLOT_PAN_LEFT},
    {PROPID_PAN_RIGHT, SLOT_PAN_RIGHT},
    {PROPID_PAN_RESET, SLOT_PAN_RESET},
    {PROPID_OPTION_0640, SLOT_OPTION_0640},
    {PROPID_DEAD_PIXEL, SLOT_DEAD_PIXEL},
    {PROPID_SWSETTING_OPTION, SLOT_SWSETTING_OPTION},
    {PROPID_EXTENSION_OPTION, SLOT_EXTENSION_OPTION},
    {PROPID_SELF_TIMER, SLOT_SELF_TIMER},
};

// The ids SetDeviceProperty stores after a range check (success and nothing
// stored when out of range).
struct RangedId {
    USHORT Id;
    ULONG Slot;
    LONG Min;
    LONG Max;
};
const RangedId kRangedIds[] = {
    {PROPID_TRACKING_METHOD, SLOT_TRACKING_METHOD, 0, 3},
    {PROPID_TRACKING_0636, SLOT_TRACKING_0636, 0, 2},
    {PROPID_TRACKING_0637, SLOT_TRACKING_0637, 0, 2},
    {PROPID_ZOOM_LEVEL, SLOT_ZOOM_LEVEL, 1, 62},
    {PROPID_ZOOM_SWITCH, SLOT_ZOOM_SWITCH, 0, 1},
    {PROPID_PAN_UP, SLOT_PAN_UP, -1, 1},
    {PROPID_PAN_DOWN, SLOT_PAN_DOWN, -1, 1},
    {PROPID_PAN_LEFT, SLOT_PAN_LEFT, -1, 1},
    {PROPID_PAN_RIGHT, SLOT_PAN_RIGHT, -1, 1},
    {PROPID_PAN_RESET, SLOT_PAN_RESET, -1, 1},
    {PROPID_SWSETTING_OPTION, SLOT_SWSETTING_OPTION, 0, 1},
};

template <typename T, ULONG N>
const T* FindId(const T (&table)[N], USHORT id)
{
    for (const T& entry : table) {
        if (entry.Id == id) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

ULONG ListSettingIds(SettingSlotId* pOut, ULONG nMax)
{
    ULONG n = 0;
    auto put = [&](const SettingSlotId& entry) {
        if (pOut != nullptr && n < nMax) {
            pOut[n] = entry;
        }
        ++n;
    };
    for (const CameraControl& c : kCameraControls) {
        put({c.Id, c.Slot, c.Entity, c.Mask});
    }
    for (const RecordId& r : kRecordIds) {
        put({r.Id, r.Slot, 0, 0});
    }
    return n;
}

namespace {

// The processing-unit ids SetDeviceProperty sends with SetProcessingUnit
// and stores unconditionally.
bool IsPlainProcessingUnitId(USHORT id)
{
    switch (id) {
    case PROPID_BACKLIGHT:
    case PROPID_BRIGHTNESS:
    case PROPID_CONTRAST:
    case PROPID_POWER_LINE:
    case PROPID_HUE:
    case PROPID_SATURATION:
    case PROPID_SHARPNESS:
    case PROPID_GAMMA:
    case PROPID_WB_TEMPERATURE:
        return true;
    default:
        return false;
    }
}

// The ids whose action waits or touches the registry.
bool NeedsPassiveLevel(USHORT id)
{
    switch (id) {
    case PROPID_SAVE_CUSTOMER:
    case PROPID_LOAD_CUSTOMER:
    case PROPID_EXTENSION_OPTION:
    case PROPID_DEFAULT_ORIENTATION:
    case PROPID_DEFAULT_EFFECTS:
        return true;
    default:
        return false;
    }
}

void PauseTenMilliseconds()
{
    LARGE_INTEGER interval;
    interval.QuadPart = kRegisterPause;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// SendClassRequest at PASSIVE_LEVEL: one URB, one IRP, wait.
NTSTATUS SubmitClassRequest(const ControlRequestContext* pContext, USHORT wIndex, UCHAR request, USHORT wValue,
                            PVOID pBuffer, ULONG length, PULONG pLength)
{
    auto pUrb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPoolNx, kClassRequestUrbSize, kTagRequest));
    if (pUrb == nullptr) {
        DbgPrint("SendClassRequest: Failed to allocate memory for urb\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pUrb, kClassRequestUrbSize);
    const ULONG direction = request == UVC_SET_CUR ? USBD_TRANSFER_DIRECTION_OUT : USBD_TRANSFER_DIRECTION_IN;
    UsbBuildVendorRequest(pUrb, URB_FUNCTION_CLASS_INTERFACE, kClassRequestUrbSize, direction, 0, request, wValue,
                          wIndex, pBuffer, nullptr, length, nullptr);

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus;
    PIRP pIrp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, pContext->pNextDeviceObject, nullptr,
                                              0, nullptr, 0, TRUE, &event, &ioStatus);
    if (pIrp == nullptr) {
        DbgPrint("USBSubmitUrb: IoBuildDeviceIoControlRequest failed\n");
        ExFreePoolWithTag(pUrb, kTagRequest);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION pNextStack = IoGetNextIrpStackLocation(pIrp);
    ASSERT(pNextStack != NULL);
    pNextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNextStack->Parameters.Others.Argument1 = pUrb;

    NTSTATUS status = IoCallDriver(pContext->pNextDeviceObject, pIrp);
    if (status == STATUS_PENDING) {
        // The wait's own result replaces the status; the URB's status below
        // tells whether the request itself succeeded.
        status = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    if (NT_SUCCESS(status) && USBD_SUCCESS(pUrb->UrbHeader.Status)) {
        if (pLength != nullptr) {
            *pLength = pUrb->UrbControlVendorClassRequest.TransferBufferLength;
        }
    } else {
        DbgPrint("SendClassRequest: request 0x%02x wValue 0x%04x wIndex 0x%04x failed (0x%x, USBD 0x%x)\n", request,
                 wValue, wIndex, status, pUrb->UrbHeader.Status);
        status = STATUS_UNSUCCESSFUL;
    }
    ExFreePoolWithTag(pUrb, kTagRequest);
    return status;
}

}  // namespace

// A deferred operation: a class request (its data follows the operation) or
// a property set that must run at PASSIVE_LEVEL.
struct ControlRequests::DeferredOperation {
    LIST_ENTRY Link;
    BOOLEAN Executed;     // run, under the run mutex, by a work item or a PASSIVE_LEVEL request
    BOOLEAN PropertySet;  // else a class request
    USHORT Id;            // the property set's id and value
    LONG Value;
    DeferredClassRequest Request;  // the request, the work item and the owner
};

ControlRequests::ControlRequests(DeviceSettings* pSettings, const FormatTables* pFormats,
                                 const UsbConfiguration* pUsb)
    : m_CapturePinRunning(0),
      m_ControlReady(0),
      m_SpecialFrameReload(0),
      m_pControlContext(nullptr),
      m_DeferredList(),
      m_DeferredLock(0),
      m_DeferredRunMutex(),
      m_nDeferred(0),
      m_DeferredOpen(FALSE),
      m_NoDeferredEvent(),
      m_pSettings(pSettings),
      m_pFormats(pFormats),
      m_pUsb(pUsb)
{
    InitializeListHead(&m_DeferredList);
    KeInitializeSpinLock(&m_DeferredLock);
    KeInitializeMutex(&m_DeferredRunMutex, 0);
    KeInitializeEvent(&m_NoDeferredEvent, NotificationEvent, FALSE);
}

ControlRequests::~ControlRequests()
{
    Release();
}

PropertyAccess ControlRequests::Access()
{
    PropertyAccess access;
    access.pContext = this;
    access.pfnGetDeviceProperty = [](PVOID pContext, USHORT Id, UCHAR Request, PLONG pValue) {
        return static_cast<ControlRequests*>(pContext)->GetDeviceProperty(Id, Request, pValue);
    };
    access.pfnSetDeviceProperty = [](PVOID pContext, USHORT Id, LONG Value) {
        return static_cast<ControlRequests*>(pContext)->SetDeviceProperty(Id, Value);
    };
    return access;
}

NTSTATUS ControlRequests::Initialize(PDEVICE_OBJECT pFunctionalDeviceObject, PDEVICE_OBJECT pNextDeviceObject)
{
    if (m_pControlContext == nullptr) {
        m_pControlContext = static_cast<ControlRequestContext*>(
            ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ControlRequestContext), kTagRequest));
        if (m_pControlContext == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    m_pControlContext->pFunctionalDeviceObject = pFunctionalDeviceObject;
    m_pControlContext->pNextDeviceObject = pNextDeviceObject;
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_DeferredLock, &oldIrql);
    if (!m_DeferredOpen) {
        m_DeferredOpen = TRUE;
        m_nDeferred = 1;
        KeClearEvent(&m_NoDeferredEvent);
    }
    KeReleaseSpinLock(&m_DeferredLock, oldIrql);
    return STATUS_SUCCESS;
}

void ControlRequests::Release()
{
    FreeTagged(m_pControlContext, kTagRequest);
}

NTSTATUS ControlRequests::SendClassRequest(USHORT wIndex, UCHAR Request, USHORT wValue, PVOID pBuffer,
                                          PULONG pLength)
{
    if (m_pControlContext == nullptr) {
        DbgPrint("SendClassRequest: no control-request context\n");
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG length = pLength != nullptr ? *pLength : 0;

    if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
        // The record carries its own copy of the data: callers at raised
        // IRQL (SetProcessingUnit, SetDeviceProperty) pass buffers on their
        // stack, which are gone when the work item runs.
        const ULONG cbData = pBuffer != nullptr ? length : 0;
        if (cbData > kMaximumControlLength) {
            // A control transfer's wLength is 16 bits: the bus would fail it
            // as the synchronous path reports it.
            return STATUS_UNSUCCESSFUL;
        }
        auto pOperation = static_cast<DeferredOperation*>(
            ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(DeferredOperation) + cbData, kTagRequest));
        if (pOperation == nullptr) {
            DbgPrint("SendClassRequest: Failed to allocate the deferred request\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(pOperation, sizeof(DeferredOperation));
        DeferredClassRequest* pRecord = &pOperation->Request;
        pRecord->Function = URB_FUNCTION_CLASS_INTERFACE;
        pRecord->Request = Request;
        pRecord->Value = wValue;
        pRecord->Index = wIndex;
        pRecord->pBuffer = cbData != 0 ? pOperation + 1 : nullptr;
        if (cbData != 0) {
            RtlCopyMemory(pRecord->pBuffer, pBuffer, cbData);
        }
        pRecord->Direction = Request == UVC_SET_CUR ? USBD_TRANSFER_DIRECTION_OUT : USBD_TRANSFER_DIRECTION_IN;
        pRecord->Length = length;
        pRecord->pLength = &pRecord->Length;  // the caller never learns the result
        return QueueDeferred(pOperation, "SendClassRequest");
    }
    // Requests deferred earlier reach the camera first.
    KeWaitForSingleObject(&m_DeferredRunMutex, Executive, KernelMode, FALSE, nullptr);
    RunQueuedLocked();
    const NTSTATUS status = SubmitClassRequest(m_pControlContext, wIndex, Request, wValue, pBuffer, length, pLength);
    KeReleaseMutex(&m_DeferredRunMutex, FALSE);
    return status;
}

// Queues an operation with a work item of its own. Once the queue is
// closed (stop or remove has begun) nothing more is queued.
NTSTATUS ControlRequests::QueueDeferred(DeferredOperation* pOperation, const char* pRoutine)
{
    DeferredClassRequest* pRecord = &pOperation->Request;
    pRecord->pRequests = this;
    if (m_pControlContext == nullptr) {
        DbgPrint("%s: no control-request context\n", pRoutine);
        ExFreePoolWithTag(pOperation, kTagRequest);
        return STATUS_UNSUCCESSFUL;
    }
    pRecord->pWorkItem = IoAllocateWorkItem(m_pControlContext->pFunctionalDeviceObject);
    if (pRecord->pWorkItem == nullptr) {
        DbgPrint("%s: Failed to allocate a work item\n", pRoutine);
        ExFreePoolWithTag(pOperation, kTagRequest);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_DeferredLock, &oldIrql);
    const BOOLEAN open = m_DeferredOpen;
    if (open) {
        m_nDeferred++;
        InsertTailList(&m_DeferredList, &pOperation->Link);
    }
    KeReleaseSpinLock(&m_DeferredLock, oldIrql);
    if (!open) {
        DbgPrint("%s: the device is stopping, request dropped\n", pRoutine);
        IoFreeWorkItem(pRecord->pWorkItem);
        ExFreePoolWithTag(pOperation, kTagRequest);
        return STATUS_UNSUCCESSFUL;
    }
    IoQueueWorkItem(pRecord->pWorkItem, DeferredRequestWorker, DelayedWorkQueue, pOperation);
    return STATUS_PENDING;
}

// At PASSIVE_LEVEL, under the run mutex.
void ControlRequests::RunDeferred(DeferredOperation* pOperation)
{
    if (pOperation->PropertySet) {
        SetDeviceProperty(pOperation->Id, pOperation->Value);
        return;
    }
    DeferredClassRequest* pRecord = &pOperation->Request;
    pRecord->Status = SubmitClassRequest(m_pControlContext, pRecord->Index, pRecord->Request, pRecord->Value,
                                         pRecord->pBuffer, pRecord->Length, pRecord->pLength);
}

// Runs every queued operation, oldest first. With the run mutex held; an
// operation may be run here by another operation's work item or by a
// request made at PASSIVE_LEVEL, before its own work item comes.
void ControlRequests::RunQueuedLocked()
{
    for (;;) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&m_DeferredLock, &oldIrql);
        PLIST_ENTRY pEntry = IsListEmpty(&m_DeferredList) ? nullptr : RemoveHeadList(&m_DeferredList);
        KeReleaseSpinLock(&m_DeferredLock, oldIrql);
        if (pEntry == nullptr) {
            return;
        }
        DeferredOperation* pNext = CONTAINING_RECORD(pEntry, DeferredOperation, Link);
        RunDeferred(pNext);
        pNext->Executed = TRUE;
    }
}

// A deferred operation's work routine: runs, in order, every operation
// still queued (its own among them, unless it ran already), then frees its
// own. Nobody learns the results.
VOID ControlRequests::DeferredRequestWorker(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto pOwn = static_cast<DeferredOperation*>(pContext);
    ControlRequests* pRequests = pOwn->Request.pRequests;
    KeWaitForSingleObject(&pRequests->m_DeferredRunMutex, Executive, KernelMode, FALSE, nullptr);
    pRequests->RunQueuedLocked();
    ASSERT(pOwn->Executed);
    KeReleaseMutex(&pRequests->m_DeferredRunMutex, FALSE);

    PIO_WORKITEM pWorkItem = pOwn->Request.pWorkItem;
    ExFreePoolWithTag(pOwn, kTagRequest);
    IoFreeWorkItem(pWorkItem);
    KIRQL oldIrql;
    KeAcquireSpinLock(&pRequests->m_DeferredLock, &oldIrql);
    const LONG nLeft = --pRequests->m_nDeferred;
    KeReleaseSpinLock(&pRequests->m_DeferredLock, oldIrql);
    if (nLeft == 0) {
        KeSetEvent(&pRequests->m_NoDeferredEvent, IO_NO_INCREMENT, FALSE);
    }
}

void ControlRequests::WaitForDeferredRequests()
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_DeferredLock, &oldIrql);
    const BOOLEAN open = m_DeferredOpen;
    m_DeferredOpen = FALSE;
    const LONG nLeft = open ? --m_nDeferred : 0;
    KeReleaseSpinLock(&m_DeferredLock, oldIrql);
    if (nLeft != 0) {
        KeWaitForSingleObject(&m_NoDeferredEvent, Executive, KernelMode, FALSE, nullptr);
    }
}

// The registry and the camera's register window need PASSIVE_LEVEL (the
// register access waits between its steps and reads back what it wrote):
// these ids run from a work item when set at raised IRQL.
NTSTATUS ControlRequests::DeferPropertySet(USHORT Id, LONG Value)
{
    auto pOperation = static_cast<DeferredOperation*>(
        ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(DeferredOperation), kTagRequest));
    if (pOperation == nullptr) {
        DbgPrint("SetDeviceProperty: Failed to allocate the deferred request\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pOperation, sizeof(DeferredOperation));
    pOperation->PropertySet = TRUE;
    pOperation->Id = Id;
    pOperation->Value = Value;
    // These ids answer success; the work item's own result is not learnt.
    const NTSTATUS status = QueueDeferred(pOperation, "SetDeviceProperty");
    return status == STATUS_PENDING ? STATUS_SUCCESS : status;
}

// Little-endian; the request's status is ignored.
NTSTATUS ControlRequests::SetProcessingUnit(USHORT wValue, LONG Value)
{
    UCHAR data[2] = {static_cast<UCHAR>(Value & 0xFF), static_cast<UCHAR>((Value >> 8) & 0xFF)};
    ULONG length = sizeof(data);
    SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, wValue, data, &length);
    return STATUS_SUCCESS;
}

NTSTATUS ControlRequests::GetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength)
{
    return SendClassRequest(wIndex, UVC_GET_CUR, wValue, pBuffer, pLength);
}

NTSTATUS ControlRequests::SetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength)
{
    return SendClassRequest(wIndex, UVC_SET_CUR, wValue, pBuffer, pLength);
}

NTSTATUS ControlRequests::GetDeviceProperty(USHORT Id, UCHAR Request, PLONG pValue)
{
    const DeviceProperty* pProperty = m_pSettings->m_Property;
    if (pProperty == nullptr) {
        DbgPrint("GetDeviceProperty: no settings record\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (const CameraControl* pControl = FindId(kCameraControls, Id)) {
        if (Request == UVC_GET_CUR) {
            *pValue = pProperty->Slot[pControl->Slot];
            return STATUS_SUCCESS;
        }
        UCHAR data[4] = {0, 0, 0, 0};
        ULONG length = pControl->Length;
        NTSTATUS status = SendClassRequest(pControl->Entity, Request, pControl->wValue, data, &length);
        if (!NT_SUCCESS(status) || status == STATUS_PENDING) {
            return status;  // deferred at DISPATCH_LEVEL: there is no answer to give
        }
        if (Id == PROPID_POWER_LINE) {
            *pValue = data[0];
        } else if (pControl->Length == 4) {
            *pValue = ReadLe32Signed(data);
        } else {
            *pValue = ReadLe16Signed(data);
        }
        return status;
    }
    if (const RecordId* pRecord = FindId(kRecordIds, Id)) {
        *pValue = pProperty->Slot[pRecord->Slot];
        return STATUS_SUCCESS;
    }
    switch (Id) {
    case PROPID_PU_BITMAP:
        *pValue = m_pFormats->ProcessingUnitControls;
        break;
    case PROPID_CT_BITMAP:
        *pValue = static_cast<LONG>(m_pFormats->CameraTerminalControls);
        break;
    case PROPID_PIN_RUNNING:
        *pValue = static_cast<LONG>(m_CapturePinRunning & 0xFF);
        break;
    case PROPID_CONTROL_READY:
        *pValue = m_ControlReady != 0 ? 1 : 0;
        break;
    case PROPID_ONE_SHOT:
        *pValue = m_pSettings->m_OneShotValue;
        m_pSettings->m_OneShotValue = 0;
        break;
    default:
        break;  // any other id: success, the result is not written
    }
    return STATUS_SUCCESS;
}

NTSTATUS ControlRequests::SetDeviceProperty(USHORT Id, LONG Value)
{
    DeviceSettings& settings = *m_pSettings;
    if (settings.m_Property == nullptr) {
        DbgPrint("SetDeviceProperty: no settings record\n");
        return STATUS_UNSUCCESSFUL;
    }
    LONG* pSlot = settings.m_Property->Slot;
    if (KeGetCurrentIrql() >= DISPATCH_LEVEL && NeedsPassiveLevel(Id)) {
        return DeferPropertySet(Id, Value);
    }
    if (IsPlainProcessingUnitId(Id)) {
        const CameraControl* pControl = FindId(kCameraControls, Id);
        SetProcessingUnit(Id, Value);
        pSlot[pControl->Slot] = Value;  // stored even if the request failed
        return STATUS_SUCCESS;
    }
    if (const RangedId* pRanged = FindId(kRangedIds, Id)) {
        if (Value >= pRanged->Min && Value <= pRanged->Max) {
            pSlot[pRanged->Slot] = Value;
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS status = STATUS_SUCCESS;
    switch (Id) {
    case PROPID_WB_AUTO:
        SetProcessingUnit(UVC_PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, Value);
        // Leaving automatic white balance: the camera gets the stored
        // temperature back.
        if (pSlot[SLOT_WB_AUTO] != 0 && Value == 0) {
            SetProcessingUnit(UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL, pSlot[SLOT_WB_TEMPERATURE]);
        }
        pSlot[SLOT_WB_AUTO] = Value;
        break;

    case PROPID_EXPOSURE_TIME: {
        // While auto exposure is on the camera refuses the time: keep it.
        if (pSlot[SLOT_AUTO_EXPOSURE] != 0) {
            pSlot[SLOT_EXPOSURE_TIME] = Value;
            break;
        }
        UCHAR data[4];
        WriteLe32(data, Value);
        ULONG length = sizeof(data);
        status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL, data, &length);
        if (NT_SUCCESS(status)) {
            pSlot[SLOT_EXPOSURE_TIME] = Value;
        }
        break;
    }

    case PROPID_AUTO_EXPOSURE: {
        UCHAR mode = Value != 0 ? UVC_AE_MODE_APERTURE_PRIORITY : UVC_AE_MODE_MANUAL;
        ULONG length = 1;
        status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_AE_MODE_CONTROL, &mode, &length);
        if (NT_SUCCESS(status) && Value == 0) {
            UCHAR data[4];
            WriteLe32(data, pSlot[SLOT_EXPOSURE_TIME]);
            length = sizeof(data);
            status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL, data, &length);
        }
        if (NT_SUCCESS(status)) {
            pSlot[SLOT_AUTO_EXPOSURE] = Value;
        }
        break;
    }

    case PROPID_VFLIP:
        pSlot[SLOT_VFLIP] = Value;
        settings.m_EffectiveVflip = settings.SwBit(SWBIT_VFLIP) ? Value : 0;
        break;
    case PROPID_MIRROR:
        pSlot[SLOT_MIRROR] = Value;
        settings.m_EffectiveMirror = settings.SwBit(SWBIT_MIRROR) ? Value : 0;
        break;
    case PROPID_DEAD_PIXEL:
        pSlot[SLOT_DEAD_PIXEL] = Value;
        settings.m_EffectiveDeadPixel = settings.SwBit(SWBIT_DEAD_PIXEL) ? Value : 0;
        break;

    case PROPID_ROTATE:
        pSlot[SLOT_ROTATE] = Value;
        break;
    case PROPID_SPECIAL_EFFECT:
        pSlot[SLOT_SPECIAL_EFFECT] = Value;
        break;
    case PROPID_SPECIAL_FRAME:
        pSlot[SLOT_SPECIAL_FRAME] = Value;
        if (Value == SPECIAL_FRAME_RELOAD) {
            m_SpecialFrameReload = 1;
        }
        break;

    case PROPID_SAVE_CUSTOMER:
        settings.SavePropertySet(PropertySetCustomer);  // registry failures are ignored
        break;
    case PROPID_LOAD_CUSTOMER:
        settings.LoadPropertySet(PropertySetCustomer);
        break;

    case PROPID_EXTENSION_OPTION:
        if (Value != 0 && Value != 1) {
            break;  // an on/off option: other values are ignored
        }
        pSlot[SLOT_EXTENSION_OPTION] = Value;
        status = AccessExtensionRegister(kRegisterOptionArm, 1);
        if (NT_SUCCESS(status)) {
            status = AccessExtensionRegister(kRegisterOptionValue, static_cast<ULONG>(Value));
        }
        break;

    case PROPID_SELF_TIMER:
        if (pSlot[SLOT_SELF_TIMER] == SELF_TIMER_NOT_SUPPORTED) {
            status = STATUS_NOT_SUPPORTED;
        } else if (Value >= SELF_TIMER_NOT_SUPPORTED && Value <= SELF_TIMER_MAX_SECONDS) {
            pSlot[SLOT_SELF_TIMER] = Value;
        } else {
            status = STATUS_INVALID_PARAMETER;
        }
        break;

    case PROPID_DEFAULT_ORIENTATION:
        settings.LoadDefaultOrientation();
        break;
    case PROPID_DEFAULT_EFFECTS:
        settings.LoadDefaultEffects();
        break;
    case PROPID_RESET_TRACKING:
        settings.ResetTrackingAndTimer();
        break;

    case PROPID_ONE_SHOT:
        settings.m_OneShotValue = Value;
        break;

    default:
        break;  // ids with no action: success
    }
    return status;
}

NTSTATUS ControlRequests::AccessExtensionRegister(UCHAR Register, ULONG Set)
{
    UCHAR data[3] = {kWindowRead, Register, 0};
    ULONG length = kWindowSelectLength;
    NTSTATUS status = SetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    length = kWindowSelectLength;
    status = GetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    const UCHAR oldValue = data[1];

    const USHORT productId = m_pUsb->m_pDeviceDescriptor != nullptr ? m_pUsb->m_pDeviceDescriptor->idProduct : 0;
    UCHAR bit = 0;
    for (const RegisterBit& entry : kRegisterBits) {
        if (entry.ProductId == productId) {
            bit = entry.Bit;
        }
    }
    if (bit == 0) {
        return status;
    }
    data[0] = kWindowWrite;
    data[1] = Register;
    data[2] = Set != 0 ? static_cast<UCHAR>(oldValue | bit) : static_cast<UCHAR>(oldValue & ~bit);
    length = kWindowWriteLength;
    status = SetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    length = kWindowWriteLength;
    return GetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
}
