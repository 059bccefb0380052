// Part 3.2: video-class control requests. SendClassRequest builds one
// class-interface URB per request and sends it down the default control pipe
// (synchronously at PASSIVE_LEVEL, from a work item when called at
// DISPATCH_LEVEL); GetDeviceProperty / SetDeviceProperty translate a
// PropertyId into requests and keep DeviceProperty (Part 3.1) in step with
// the camera; AccessExtensionRegister toggles one bit of a camera register
// through extension unit 4.
//
// Decisions the spec leaves to us:
// - Camera answers are read little-endian: 2-byte controls sign-extended
//   from 16 bits (values travel as 16-bit signed numbers, Part 3.1), the
//   4-byte exposure time as a 32-bit signed value, power-line frequency as
//   its first byte. The receive buffer is zeroed, so a short answer (a
//   1-byte control asked for 2 bytes) reads as its value.
// - A deferred request (Part 3.2 step 1) works on copies kept with its
//   record - the data after the 56-byte record, the length in the record -
//   not on the caller's buffer and length: the callers here pass stack
//   buffers, and the caller never learns the result anyway.
// - Steps that send several requests (0x0C00, 0x0909, the extension register)
//   end at the first failing request and return its status.
#include "controls/requests.h"

#include "controls/settings.h"
#include "device/device.h"

namespace {

// Request block size (Part 3.2's table: header length 136).
constexpr USHORT kClassRequestUrbSize = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
static_assert(kClassRequestUrbSize == 136, "Part 3.2: the class request URB is 136 bytes");

// 10 ms relative, in 100 ns units: AccessExtensionRegister's pause.
constexpr LONGLONG kRegisterPause = -100000;

LONG ReadLe16Signed(const UCHAR* p)
{
    return static_cast<LONG>(static_cast<SHORT>(static_cast<USHORT>(p[0] | (p[1] << 8))));
}

LONG ReadLe32Signed(const UCHAR* p)
{
    return static_cast<LONG>(static_cast<ULONG>(p[0]) | (static_cast<ULONG>(p[1]) << 8) |
                             (static_cast<ULONG>(p[2]) << 16) | (static_cast<ULONG>(p[3]) << 24));
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
// sent, the length, and the slot that answers GET_CUR.
struct CameraControl {
    USHORT Id;
    USHORT Entity;
    USHORT wValue;
    ULONG Length;
    ULONG Slot;
};
const CameraControl kCameraControls[] = {
    {PROPID_BACKLIGHT, UVC_ENTITY_PROCESSING_UNIT, 0x0100, 2, SLOT_BACKLIGHT},
    {PROPID_BRIGHTNESS, UVC_ENTITY_PROCESSING_UNIT, 0x0200, 2, SLOT_BRIGHTNESS},
    {PROPID_CONTRAST, UVC_ENTITY_PROCESSING_UNIT, 0x0300, 2, SLOT_CONTRAST},
    {PROPID_EXPOSURE_TIME, UVC_ENTITY_CAMERA_TERMINAL, 0x0400, 4, SLOT_EXPOSURE_TIME},
    {PROPID_POWER_LINE, UVC_ENTITY_PROCESSING_UNIT, 0x0500, 2, SLOT_POWER_LINE},
    {PROPID_HUE, UVC_ENTITY_PROCESSING_UNIT, 0x0600, 2, SLOT_HUE},
    {PROPID_SATURATION, UVC_ENTITY_PROCESSING_UNIT, 0x0700, 2, SLOT_SATURATION},
    {PROPID_SHARPNESS, UVC_ENTITY_PROCESSING_UNIT, 0x0800, 2, SLOT_SHARPNESS},
    {PROPID_GAMMA, UVC_ENTITY_PROCESSING_UNIT, 0x0900, 2, SLOT_GAMMA},
    {PROPID_WB_TEMPERATURE, UVC_ENTITY_PROCESSING_UNIT, 0x0A00, 2, SLOT_WB_TEMPERATURE},
    {PROPID_WB_AUTO, UVC_ENTITY_PROCESSING_UNIT, 0x0B00, 2, SLOT_WB_AUTO},
    {PROPID_AUTO_EXPOSURE, UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_AE_MODE, 2, SLOT_AUTO_EXPOSURE},
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
    {PROPID_TRACKING_0638, SLOT_TRACKING_0638},
    {0x063A, 22},
    {0x063B, 23},
    {0x063C, 24},
    {0x063D, 25},
    {0x063E, 26},
    {0x063F, 27},
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
    {PROPID_TRACKING_0638, SLOT_TRACKING_0638, 1, 62},
    {0x063A, 22, 0, 1},
    {0x063B, 23, -1, 1},
    {0x063C, 24, -1, 1},
    {0x063D, 25, -1, 1},
    {0x063E, 26, -1, 1},
    {0x063F, 27, -1, 1},
    {PROPID_SWSETTING_OPTION, SLOT_SWSETTING_OPTION, 0, 1},
};

const CameraControl* FindCameraControl(USHORT id)
{
    for (const CameraControl& control : kCameraControls) {
        if (control.Id == id) {
            return &control;
        }
    }
    return nullptr;
}

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

void PauseTenMilliseconds()
{
    LARGE_INTEGER interval;
    interval.QuadPart = kRegisterPause;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// Steps 2-5 of SendClassRequest at PASSIVE_LEVEL: one URB, one IRP, wait.
NTSTATUS SubmitClassRequest(const ControlRequestContext* pContext, USHORT wIndex, UCHAR request, USHORT wValue,
                            PVOID pBuffer, ULONG length, PULONG pLength)
{
    auto pUrb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPoolNx, kClassRequestUrbSize, KV_TAG_REQUEST));
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
        ExFreePoolWithTag(pUrb, KV_TAG_REQUEST);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION pNextStack = IoGetNextIrpStackLocation(pIrp);
    ASSERT(pNextStack != NULL);
    pNextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNextStack->Parameters.Others.Argument1 = pUrb;

    NTSTATUS status = IoCallDriver(pContext->pNextDeviceObject, pIrp);
    if (status == STATUS_PENDING) {
        // The wait's own result replaces the status (Part 3.2 step 4); the
        // URB's status below tells whether the request itself succeeded.
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
    ExFreePoolWithTag(pUrb, KV_TAG_REQUEST);
    return status;
}

}  // namespace

// Part 3.2 SendClassRequest.
NTSTATUS CCaptureDevice::SendClassRequest(USHORT wIndex, UCHAR Request, USHORT wValue, PVOID pBuffer,
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
        if (cbData > 0xFFFF) {
            // A control transfer's wLength is 16 bits: the bus would fail it
            // as the synchronous path reports it.
            return STATUS_UNSUCCESSFUL;
        }
        auto pRecord = static_cast<DeferredClassRequest*>(
            ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(DeferredClassRequest) + cbData, KV_TAG_REQUEST));
        if (pRecord == nullptr) {
            DbgPrint("SendClassRequest: Failed to allocate the deferred request\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(pRecord, sizeof(DeferredClassRequest));
        pRecord->pWorkItem = IoAllocateWorkItem(m_pControlContext->pFunctionalDeviceObject);
        if (pRecord->pWorkItem == nullptr) {
            DbgPrint("SendClassRequest: Failed to allocate a work item\n");
            ExFreePoolWithTag(pRecord, KV_TAG_REQUEST);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        pRecord->Function = URB_FUNCTION_CLASS_INTERFACE;
        pRecord->Request = Request;
        pRecord->Value = wValue;
        pRecord->Index = wIndex;
        pRecord->pBuffer = cbData != 0 ? pRecord + 1 : nullptr;
        if (cbData != 0) {
            RtlCopyMemory(pRecord->pBuffer, pBuffer, cbData);
        }
        pRecord->Direction = Request == UVC_SET_CUR ? USBD_TRANSFER_DIRECTION_OUT : USBD_TRANSFER_DIRECTION_IN;
        pRecord->Length = length;
        pRecord->pLength = &pRecord->Length;  // the caller never learns the result
        pRecord->pDevice = this;
        IoQueueWorkItem(pRecord->pWorkItem, DeferredRequestWorker, DelayedWorkQueue, pRecord);
        return STATUS_PENDING;
    }
    return SubmitClassRequest(m_pControlContext, wIndex, Request, wValue, pBuffer, length, pLength);
}

// The deferred request's work routine: steps 2-5 with the saved arguments,
// then the work item and the record are freed. Nobody learns the result.
VOID CCaptureDevice::DeferredRequestWorker(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto pRecord = static_cast<DeferredClassRequest*>(pContext);
    CCaptureDevice* pDevice = pRecord->pDevice;
    if (pDevice->m_pControlContext != nullptr) {
        pRecord->Status = SubmitClassRequest(pDevice->m_pControlContext, pRecord->Index, pRecord->Request, pRecord->Value,
                           pRecord->pBuffer, pRecord->Length, pRecord->pLength);
    }
    IoFreeWorkItem(pRecord->pWorkItem);
    pRecord->pWorkItem = nullptr;
    ExFreePoolWithTag(pRecord, KV_TAG_REQUEST);
}

// Part 3.2 SetProcessingUnit: SET_CUR of the low 16 bits, little-endian.
// The request's status is ignored: always 0.
NTSTATUS CCaptureDevice::SetProcessingUnit(USHORT wValue, LONG Value)
{
    UCHAR data[2] = {static_cast<UCHAR>(Value & 0xFF), static_cast<UCHAR>((Value >> 8) & 0xFF)};
    ULONG length = sizeof(data);
    SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, wValue, data, &length);
    return STATUS_SUCCESS;
}

NTSTATUS CCaptureDevice::GetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength)
{
    return SendClassRequest(wIndex, UVC_GET_CUR, wValue, pBuffer, pLength);
}

NTSTATUS CCaptureDevice::SetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength)
{
    return SendClassRequest(wIndex, UVC_SET_CUR, wValue, pBuffer, pLength);
}

// Part 3.2 GetDeviceProperty.
NTSTATUS CCaptureDevice::GetDeviceProperty(USHORT Id, UCHAR Request, PLONG pValue)
{
    if (m_Property == nullptr) {
        DbgPrint("GetDeviceProperty: no settings record\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (const CameraControl* pControl = FindCameraControl(Id)) {
        if (Request == UVC_GET_CUR) {
            *pValue = m_Property->Slot[pControl->Slot];
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
        *pValue = m_Property->Slot[pRecord->Slot];
        return STATUS_SUCCESS;
    }
    switch (Id) {
    case PROPID_PU_BITMAP:
        *pValue = ProcessingUnitControls;
        break;
    case PROPID_CT_BITMAP:
        *pValue = static_cast<LONG>(CameraTerminalControls);
        break;
    case PROPID_PIN_RUNNING:
        *pValue = static_cast<LONG>(m_CapturePinRunning & 0xFF);
        break;
    case PROPID_CONTROL_READY:
        *pValue = m_ControlReady != 0 ? 1 : 0;
        break;
    case PROPID_ONE_SHOT:
        *pValue = m_OneShotValue;
        m_OneShotValue = 0;
        break;
    default:
        break;  // any other id: success, the result is not written
    }
    return STATUS_SUCCESS;
}

// Part 3.2 SetDeviceProperty.
NTSTATUS CCaptureDevice::SetDeviceProperty(USHORT Id, LONG Value)
{
    if (m_Property == nullptr) {
        DbgPrint("SetDeviceProperty: no settings record\n");
        return STATUS_UNSUCCESSFUL;
    }
    LONG* pSlot = m_Property->Slot;
    if (IsPlainProcessingUnitId(Id)) {
        const CameraControl* pControl = FindCameraControl(Id);
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
        SetProcessingUnit(PROPID_WB_AUTO, Value);
        // Leaving automatic white balance: the camera gets the stored
        // temperature back.
        if (pSlot[SLOT_WB_AUTO] != 0 && Value == 0) {
            SetProcessingUnit(PROPID_WB_TEMPERATURE, pSlot[SLOT_WB_TEMPERATURE]);
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
        status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, PROPID_EXPOSURE_TIME, data, &length);
        if (NT_SUCCESS(status)) {
            pSlot[SLOT_EXPOSURE_TIME] = Value;
        }
        break;
    }

    case PROPID_AUTO_EXPOSURE: {
        // Auto-exposure mode bits: 8 aperture priority, 1 manual.
        UCHAR mode = Value != 0 ? 8 : 1;
        ULONG length = 1;
        status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, UVC_CT_AE_MODE, &mode, &length);
        if (NT_SUCCESS(status) && Value == 0) {
            UCHAR data[4];
            WriteLe32(data, pSlot[SLOT_EXPOSURE_TIME]);
            length = sizeof(data);
            status = SetCur(UVC_ENTITY_CAMERA_TERMINAL, PROPID_EXPOSURE_TIME, data, &length);
        }
        if (NT_SUCCESS(status)) {
            pSlot[SLOT_AUTO_EXPOSURE] = Value;
        }
        break;
    }

    case PROPID_VFLIP:
        pSlot[SLOT_VFLIP] = Value;
        m_EffectiveVflip = SwSettingBit(m_SWSetting, SWBIT_VFLIP) ? Value : 0;
        break;
    case PROPID_MIRROR:
        pSlot[SLOT_MIRROR] = Value;
        m_EffectiveMirror = SwSettingBit(m_SWSetting, SWBIT_MIRROR) ? Value : 0;
        break;
    case PROPID_DEAD_PIXEL:
        pSlot[SLOT_DEAD_PIXEL] = Value;
        m_EffectiveDeadPixel = SwSettingBit(m_SWSetting, SWBIT_DEAD_PIXEL) ? Value : 0;
        break;

    case PROPID_ROTATE:
        pSlot[SLOT_ROTATE] = Value;
        break;
    case PROPID_SPECIAL_EFFECT:
        pSlot[SLOT_SPECIAL_EFFECT] = Value;
        break;
    case PROPID_SPECIAL_FRAME:
        pSlot[SLOT_SPECIAL_FRAME] = Value;
        if (Value == 11) {
            m_SpecialFrameReload = 1;
        }
        break;

    case PROPID_SAVE_CUSTOMER:
        SavePropertySet(PropertySetCustomer);  // registry failures are ignored
        break;
    case PROPID_LOAD_CUSTOMER:
        LoadPropertySet(PropertySetCustomer);
        break;

    case PROPID_EXTENSION_OPTION:
        if (Value < 0 || Value > 1) {
            break;
        }
        pSlot[SLOT_EXTENSION_OPTION] = Value;
        status = AccessExtensionRegister(0x18, 1);
        if (NT_SUCCESS(status)) {
            status = AccessExtensionRegister(0x17, static_cast<ULONG>(Value));
        }
        break;

    case PROPID_SELF_TIMER:
        if (pSlot[SLOT_SELF_TIMER] == SELF_TIMER_NOT_SUPPORTED) {
            status = STATUS_NOT_SUPPORTED;
        } else if (Value >= -2 && Value <= 10) {
            pSlot[SLOT_SELF_TIMER] = Value;
        } else {
            status = STATUS_INVALID_PARAMETER;
        }
        break;

    case PROPID_DEFAULT_ORIENTATION:
        LoadDefaultOrientation();
        break;
    case PROPID_DEFAULT_EFFECTS:
        LoadDefaultEffects();
        break;
    case PROPID_RESET_TRACKING:
        ResetTrackingAndTimer();
        break;

    case PROPID_ONE_SHOT:
        m_OneShotValue = Value;
        break;

    default:
        break;  // ids with no action: success
    }
    return status;
}

// Part 3.2 AccessExtensionRegister: read-modify-write of one bit of a camera
// register through extension unit 4, selector 3.
NTSTATUS CCaptureDevice::AccessExtensionRegister(UCHAR Register, ULONG Set)
{
    UCHAR data[3] = {0x80, Register, 0};
    ULONG length = 2;
    NTSTATUS status = SetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    length = 2;
    status = GetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    const UCHAR oldValue = data[1];

    // The bit is the camera firmware's, by product id; other cameras are
    // only read.
    const USHORT productId = m_pDeviceDescriptor != nullptr ? m_pDeviceDescriptor->idProduct : 0;
    UCHAR bit = 0;
    if (productId == 0x0100) {
        bit = 0x40;
    } else if (productId == 0x8034) {
        bit = 0x20;
    } else {
        return status;
    }
    data[0] = 0x00;
    data[1] = Register;
    data[2] = Set != 0 ? static_cast<UCHAR>(oldValue | bit) : static_cast<UCHAR>(oldValue & ~bit);
    length = 3;
    status = SetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PauseTenMilliseconds();
    length = 3;
    return GetCur(UVC_ENTITY_EXTENSION_UNIT, UVC_XU_REGISTER_WINDOW, data, &length);
}
