// The filter object: created by ks.sys's filter Create dispatch, freed with
// the filter's object bag.
#include "controls/filter.h"

#include "device/descriptor_reader.h"
#include "device/device.h"
#include "pageable.h"
#include "streaming/capture.h"
#include "uvc.h"
#include "pooltag.h"

using namespace kv;

namespace {

// The filter context's first value: the property handlers give it meaning.
constexpr ULONG kFilterDefaultValue = 15;

}  // namespace

void* CCaptureFilter::operator new(decltype(sizeof(0)) cb) noexcept
{
    return ExAllocatePoolWithTag(NonPagedPoolNx, cb, kTagFilter);
}

void CCaptureFilter::operator delete(void* p) noexcept
{
    if (p != nullptr) {
        ExFreePoolWithTag(p, kTagFilter);
    }
}

// An open filter counts against idle power-down only while the idle scheme
// is enabled, and asks for D0 so that the camera is powered before the first
// pin is created.
CCaptureFilter::CCaptureFilter(PKSFILTER pKsFilter, CCaptureDevice* pDevice)
    : m_pDevice(pDevice),
      m_pKsFilter(pKsFilter),
      m_DefaultValue(kFilterDefaultValue),
      m_TunnelPending(0),
      m_CurrentFormatIndex(0)
{
    m_pDevice->m_pCaptureFilter = this;
    if (m_pDevice->m_Idle.m_IdlePowerEnabled != 0) {
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&m_pDevice->m_Idle.m_OpenFilterCount));
        m_pDevice->m_Idle.RequestPowerUp();
    }
}

// The count goes down on every close, whatever the idle setting: with idle
// power disabled the count is never read, so its going below zero there is
// harmless.
CCaptureFilter::~CCaptureFilter()
{
    InterlockedDecrement(reinterpret_cast<volatile LONG*>(&m_pDevice->m_Idle.m_OpenFilterCount));
    // The back pointer names the most recent filter; it must not outlive it.
    if (m_pDevice->m_pCaptureFilter == this) {
        m_pDevice->m_pCaptureFilter = nullptr;
    }
}

void CCaptureFilter::Cleanup(PVOID pContext)
{
    delete static_cast<CCaptureFilter*>(pContext);
}

NTSTATUS CCaptureFilter::DispatchCreate(PKSFILTER pKsFilter, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    PKSDEVICE pKsDevice = KsFilterGetDevice(pKsFilter);
    ASSERT(pKsDevice != NULL);
    auto* pDevice = static_cast<CCaptureDevice*>(pKsDevice->Context);
    ASSERT(pDevice != NULL);

    CCaptureFilter* pFilter = new CCaptureFilter(pKsFilter, pDevice);
    if (pFilter == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = KsAddItemToObjectBag(pKsFilter->Bag, pFilter, CCaptureFilter::Cleanup);
    if (!NT_SUCCESS(status)) {
        delete pFilter;
        return status;
    }
    pKsFilter->Context = pFilter;
    return STATUS_SUCCESS;
}

// ---- Property handlers ------------------------------------------------------------------
//
// Choices worth knowing:
//  - The driver-control text pointer is the caller's; it is used only when
//    it is not null, and at most kMaxFrameStringChars UTF-16 units of it.
//  - A pageable handler called above APC_LEVEL prints its line and goes on.
//  - FRAME_RATES reads intervals only from within the descriptor that holds
//    them: a motion-JPEG match whose count exceeds what the uncompressed
//    descriptor it borrows from holds reports 0 for the rest.
//  - A driver-control request needs room for the header copy it carries
//    (24 bytes), and a get room for the value field (40 or 36 bytes), not
//    only the 4 bytes ks.sys checks, since they are read and written there.

namespace {

const GUID kSetDriverControl = PROPSETID_DriverControl;
const GUID kSetDroppedFrames = {STATICGUIDOF(PROPSETID_VIDCAP_DROPPEDFRAMES)};
const GUID kSetVideoControl = {STATICGUIDOF(PROPSETID_VIDCAP_VIDEOCONTROL)};

constexpr ULONG kStillStreamIndex = 2;
constexpr ULONG kDriverControlSaveString = 3;
constexpr ULONG kMaxFrameStringChars = 259;
// Frame heights and the rates the camera gives them.
constexpr LONGLONG kThirtyFps = 333333;
constexpr LONGLONG kSevenFps = 1428571;
constexpr LONG kThirtyFpsHeights[] = {120, 144, 240, 288, 480};
constexpr LONG kSevenFpsHeights[] = {600, 768, 800, 960, 1024, 1200};
// The request a driver-control get makes for each low nibble.
constexpr UCHAR kNibbleRequests[] = {UVC_GET_CUR, UVC_GET_MAX, UVC_GET_MIN, UVC_GET_RES, UVC_GET_DEF};

// The tunnel's values, shared by every filter of every device.
USHORT g_TunnelId = 0;
ULONG g_TunnelIdWithNibble = 0;
USHORT g_TunnelValue = 0;

// The driver-control data buffer after its 24-byte header copy.
struct TunnelLayout {
    ULONG textOffset, textSize, lengthOffset, valueOffset, returned;
};
constexpr TunnelLayout kTunnel64 = {24, 8, 32, 36, 40};
constexpr TunnelLayout kTunnel32 = {24, 4, 28, 32, 36};

CCaptureFilter* FilterOf(PIRP pIrp)
{
    PKSFILTER pKsFilter = KsGetFilterFromIrp(pIrp);
    if (pKsFilter == nullptr) {
        return nullptr;
    }
    return static_cast<CCaptureFilter*>(pKsFilter->Context);
}

// The checks every handler starts with.
NTSTATUS Enter(PIRP pIrp, PKSPROPERTY pProperty, const GUID& Set, CCaptureFilter** ppFilter)
{
    PageableCallTooHigh();
    if (pProperty->Set != Set) {
        return STATUS_NOT_FOUND;
    }
    *ppFilter = FilterOf(pIrp);
    return *ppFilter != nullptr ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

ULONG OutputLength(PIRP pIrp) { return IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl.OutputBufferLength; }

bool HeightIn(LONG Height, const LONG* pHeights, ULONG Count)
{
    for (ULONG i = 0; i < Count; ++i) {
        if (pHeights[i] == Height) {
            return true;
        }
    }
    return false;
}

}  // namespace

NTSTATUS CCaptureFilter::GetDroppedFrames(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData)
{
    CCaptureFilter* pFilter = nullptr;
    NTSTATUS status = Enter(pIrp, pProperty, kSetDroppedFrames, &pFilter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (pProperty->Id != KSPROPERTY_DROPPEDFRAMES_CURRENT) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* pOut = static_cast<PKSPROPERTY_DROPPEDFRAMES_CURRENT_S>(pData);
    const CCaptureDevice* pDevice = pFilter->m_pDevice;
    pOut->PictureNumber = pDevice->m_FrameLoop.m_FramesDelivered;
    pOut->DropCount = pDevice->m_FrameLoop.m_DropCount;
    pOut->AverageFrameSize = pDevice->m_Stream.m_ImageSize;
    pIrp->IoStatus.Information = sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S);
    return STATUS_SUCCESS;
}

namespace {

// The frame intervals the streaming descriptors give a format and size:
// the last matching descriptor wins; a motion-JPEG match takes its count
// from its own descriptor and its intervals from the uncompressed
// descriptor last seen (none seen: no intervals).
ULONG FindFrameRates(const UCHAR* pConfiguration, ULONG Length, ULONG FourCC, LONG Width, LONG Height,
                     const UCHAR** ppIntervals, PULONG pAvailable)
{
    DescriptorWalker walker(pConfiguration, Length);
    DescriptorView d;
    bool streaming = false;
    DescriptorView uncompressedFormat = {nullptr, 0};
    DescriptorView mjpegFormat = {nullptr, 0};
    DescriptorView currentUncompressed = {nullptr, 0};
    ULONG count = 0;
    *ppIntervals = nullptr;
    *pAvailable = 0;
    while (walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE) {
            streaming = d.Has(UVC_INTERFACE_SUBCLASS_OFFSET + 1) && d.U8(UVC_INTERFACE_SUBCLASS_OFFSET) == UVC_SC_VIDEOSTREAMING;
            continue;
        }
        if (!streaming || d.Type() != UVC_CS_INTERFACE || !d.Has(UVC_FRAME_INTERVALS_OFFSET)) {
            if (streaming && d.Type() == UVC_CS_INTERFACE && d.Subtype() == UVC_VS_FORMAT_UNCOMPRESSED) uncompressedFormat = d;
            if (streaming && d.Type() == UVC_CS_INTERFACE && d.Subtype() == UVC_VS_FORMAT_MJPEG) mjpegFormat = d;
            continue;
        }
        const UCHAR subtype = d.Subtype();
        const bool sizeMatches = d.U16(UVC_FRAME_WIDTH_OFFSET) == static_cast<ULONG>(Width) &&
                                 d.U16(UVC_FRAME_HEIGHT_OFFSET) == static_cast<ULONG>(Height);
        if (subtype == UVC_VS_FORMAT_UNCOMPRESSED || subtype == UVC_VS_FRAME_UNCOMPRESSED) {
            if (subtype == UVC_VS_FORMAT_UNCOMPRESSED) uncompressedFormat = d;
            currentUncompressed = d;
            if (uncompressedFormat.p != nullptr && sizeMatches && uncompressedFormat.Has(UVC_FORMAT_GUID_OFFSET + 4) &&
                uncompressedFormat.U32(UVC_FORMAT_GUID_OFFSET) == FourCC) {
                count = d.U8(UVC_FRAME_INTERVAL_TYPE_OFFSET);
                *ppIntervals = d.p + UVC_FRAME_INTERVALS_OFFSET;
                *pAvailable = (d.length - UVC_FRAME_INTERVALS_OFFSET) / 4;
            }
        } else if (subtype == UVC_VS_FORMAT_MJPEG || subtype == UVC_VS_FRAME_MJPEG) {
            if (subtype == UVC_VS_FORMAT_MJPEG) mjpegFormat = d;
            if (mjpegFormat.p != nullptr && sizeMatches) {
                count = d.U8(UVC_FRAME_INTERVAL_TYPE_OFFSET);
                *ppIntervals =
                    currentUncompressed.p != nullptr ? currentUncompressed.p + UVC_FRAME_INTERVALS_OFFSET : nullptr;
                *pAvailable = currentUncompressed.p != nullptr
                                  ? (currentUncompressed.length - UVC_FRAME_INTERVALS_OFFSET) / 4
                                  : 0;
            }
        }
    }
    return count;
}

}  // namespace

NTSTATUS CCaptureFilter::GetVideoControl(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData)
{
    CCaptureFilter* pFilter = nullptr;
    NTSTATUS status = Enter(pIrp, pProperty, kSetVideoControl, &pFilter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG cbOut = OutputLength(pIrp);
    switch (pProperty->Id) {
        case KSPROPERTY_VIDEOCONTROL_CAPS: {
            ASSERT(cbOut >= sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S));
            static_cast<PKSPROPERTY_VIDEOCONTROL_CAPS_S>(pData)->VideoControlCaps =
                KS_VideoControlFlag_ExternalTriggerEnable | KS_VideoControlFlag_Trigger;
            pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S);
            return STATUS_SUCCESS;
        }
        case KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE:
            return pFilter->ActualFrameRate(pIrp, reinterpret_cast<PKSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S>(pProperty),
                                            pData, cbOut);
        case KSPROPERTY_VIDEOCONTROL_FRAME_RATES:
            return pFilter->FrameRates(pIrp, reinterpret_cast<PKSPROPERTY_VIDEOCONTROL_FRAME_RATES_S>(pProperty), pData,
                                       cbOut);
        case KSPROPERTY_VIDEOCONTROL_MODE:
            if (cbOut == 0) {
                pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S);
                return STATUS_BUFFER_OVERFLOW;
            }
            if (cbOut < sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S)) {
                return STATUS_NOT_SUPPORTED;
            }
            static_cast<PKSPROPERTY_VIDEOCONTROL_MODE_S>(pData)->Mode = KS_VideoControlFlag_ExternalTriggerEnable;
            pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S);
            return STATUS_SUCCESS;
        default:
            DbgPrint("others status STATUS_NOT_SUPPORTED \n");
            return STATUS_NOT_SUPPORTED;
    }
}

NTSTATUS CCaptureFilter::ActualFrameRate(PIRP pIrp, PKSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S pRequest,
                                         PVOID pData, ULONG cbOut)
{
    if (pRequest->StreamIndex == kStillStreamIndex) {
        return STATUS_NOT_SUPPORTED;
    }
    if (cbOut == 0) {
        pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (cbOut < sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S)) {
        return STATUS_NOT_SUPPORTED;
    }
    auto* pOut = static_cast<PKSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S>(pData);
    const LONG height = static_cast<LONG>(m_pDevice->m_Stream.m_Height);
    if (HeightIn(height, kThirtyFpsHeights, ARRAYSIZE(kThirtyFpsHeights))) {
        pOut->CurrentActualFrameRate = kThirtyFps;
    } else if (HeightIn(height, kSevenFpsHeights, ARRAYSIZE(kSevenFpsHeights))) {
        pOut->CurrentActualFrameRate = kSevenFps;
    }
    pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S);
    return STATUS_SUCCESS;
}

NTSTATUS CCaptureFilter::FrameRates(PIRP pIrp, PKSPROPERTY_VIDEOCONTROL_FRAME_RATES_S pRequest, PVOID pData,
                                    ULONG cbOut)
{
    const FormatTables& formats = m_pDevice->m_Formats;
    if (formats.m_pCaptureTable != nullptr && pRequest->RangeIndex < formats.m_nCaptureTable) {
        m_CurrentFormatIndex = pRequest->RangeIndex;
    }
    if (formats.m_pCaptureTable == nullptr || m_CurrentFormatIndex >= formats.m_nCaptureTable) {
        return STATUS_NO_MATCH;
    }
    const KS_BITMAPINFOHEADER& bmi = formats.m_pCaptureTable[m_CurrentFormatIndex].VideoInfoHeader.bmiHeader;
    const ULONG fourcc = CCapturePin::CameraCode(bmi.biCompression);
    const UCHAR* pConfiguration = reinterpret_cast<const UCHAR*>(m_pDevice->m_Usb.m_pConfigurationDescriptor);
    const ULONG length = pConfiguration != nullptr ? ReadLe16(pConfiguration + 2) : 0;
    UCHAR formatIndex = 0;
    UCHAR frameIndex = 0;
    CCapturePin::FindFormatAndFrame(pConfiguration, length, bmi.biWidth, bmi.biHeight, fourcc, &formatIndex,
                                    &frameIndex);
    if (formatIndex == 0 || frameIndex == 0) {
        return STATUS_NOT_SUPPORTED;
    }
    const UCHAR* pIntervals = nullptr;
    ULONG available = 0;
    const ULONG count = FindFrameRates(pConfiguration, length, fourcc, bmi.biWidth, bmi.biHeight, &pIntervals, &available);
    const ULONG needed = count * sizeof(LONGLONG) + sizeof(KSMULTIPLE_ITEM);
    if (cbOut == 0) {
        pIrp->IoStatus.Information = needed;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (cbOut < 2 * sizeof(LONGLONG)) {
        DbgPrint("KSPROPERTY_VIDEOCONTROL_FRAME_RATES STATUS_BUFFER_TOO_SMALL \n");
        return STATUS_BUFFER_TOO_SMALL;
    }
    // What fits in the caller's buffer, of what the descriptor holds.
    ULONG written = (cbOut - sizeof(KSMULTIPLE_ITEM)) / sizeof(LONGLONG);
    if (written > count) written = count;
    auto* pItem = static_cast<PKSMULTIPLE_ITEM>(pData);
    pItem->Size = count * sizeof(LONGLONG);
    pItem->Count = count;
    auto* pOut = reinterpret_cast<PLONGLONG>(pItem + 1);
    for (ULONG i = 0; i < written; ++i) {
        pOut[i] = (pIntervals != nullptr && i < available) ? ReadLe32(pIntervals + 4 * i) : 0;
    }
    pIrp->IoStatus.Information = sizeof(KSMULTIPLE_ITEM) + written * sizeof(LONGLONG);
    return STATUS_SUCCESS;
}

NTSTATUS CCaptureFilter::SetVideoControlProperty(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData)
{
    DbgPrint("Filter :SetVideoControlProperty() Enter\n");
    CCaptureFilter* pFilter = nullptr;
    NTSTATUS status = Enter(pIrp, pProperty, kSetVideoControl, &pFilter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (pProperty->Id != KSPROPERTY_VIDEOCONTROL_MODE) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* pMode = static_cast<PKSPROPERTY_VIDEOCONTROL_MODE_S>(pData);
    const bool trigger = (pMode->Mode & (KS_VideoControlFlag_Trigger | KS_VideoControlFlag_ExternalTriggerEnable)) != 0;
    if (pMode->StreamIndex == kStillStreamIndex && trigger) {
        SelfTimer& timer = pFilter->m_pDevice->m_SelfTimer;
        timer.m_SoftwareTrigger = 1;
        const LONG seconds = pFilter->m_pDevice->m_Settings.m_Property != nullptr
                                 ? pFilter->m_pDevice->m_Settings.m_Property->Slot[SLOT_SELF_TIMER]
                                 : -1;
        status = timer.Trigger(seconds, 1);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    pIrp->IoStatus.Information = sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S);
    return STATUS_SUCCESS;
}

namespace {

// Driver-control id 3: the user's photo-frame file name, by index.
NTSTATUS SaveFrameString(CCaptureDevice* pDevice, const UCHAR* pBytes, ULONG cbData, const TunnelLayout& layout,
                         LONG Index)
{
    if (cbData < layout.valueOffset + sizeof(LONG)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONGLONG text = 0;
    RtlCopyMemory(&text, pBytes + layout.textOffset, layout.textSize);
    ULONG count = 0;
    RtlCopyMemory(&count, pBytes + layout.lengthOffset, sizeof(ULONG));
    if (count > kMaxFrameStringChars) {
        count = kMaxFrameStringChars;
    }
    NTSTATUS status = pDevice->m_Settings.SaveSpecialFrameString(
        static_cast<ULONG>(Index), reinterpret_cast<PCWSTR>(static_cast<ULONG_PTR>(text)), count);
    if (!NT_SUCCESS(status)) {
        DbgPrint("SaveSpecialFrameString fail st= %x\n", status);
    }
    return status;
}

}  // namespace

NTSTATUS CCaptureFilter::DriverControl(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData)
{
    CCaptureFilter* pFilter = nullptr;
    NTSTATUS status = Enter(pIrp, pProperty, kSetDriverControl, &pFilter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CCaptureDevice* pDevice = pFilter->m_pDevice;
    if (pDevice->m_Requests.m_ControlReady == 0) {
        return STATUS_SUCCESS;
    }
    if (pDevice->m_Idle.m_IdlePowerEnabled != 0 && pDevice->m_Idle.m_DevicePowerState > PowerDeviceD0) {
        pDevice->m_Idle.RequestPowerUp();
    }
    const TunnelLayout& layout = IoIs32bitProcess(pIrp) ? kTunnel32 : kTunnel64;
    auto* pBytes = static_cast<PUCHAR>(pData);
    const auto* pHeader = reinterpret_cast<const KSPROPERTY*>(pBytes);
    const ULONG cbOut = OutputLength(pIrp);
    // ks.sys lets 4 bytes through; the header copy alone is 24.
    if (cbOut < sizeof(KSPROPERTY)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const bool set = (pProperty->Flags & KSPROPERTY_TYPE_SET) != 0;
    // A set carries its value in the data buffer too: KS passes its length
    // as the output length either way.
    const ULONG cbData = cbOut;
    LONG value = 0;
    if (cbData >= layout.valueOffset + sizeof(LONG)) {
        RtlCopyMemory(&value, pBytes + layout.valueOffset, sizeof(LONG));
    }
    if (pHeader->Id == kDriverControlSaveString) {
        if (!set) {
            return STATUS_NOT_SUPPORTED;
        }
        return SaveFrameString(pDevice, pBytes, cbData, layout, value);
    }
    if (set) {
        if (pFilter->m_TunnelPending == 0) {
            g_TunnelId = static_cast<USHORT>(value);
            g_TunnelIdWithNibble = static_cast<ULONG>(value);
            pFilter->m_TunnelPending = 1;
            return STATUS_SUCCESS;
        }
        g_TunnelValue = static_cast<USHORT>(value);
        pFilter->m_TunnelPending = 0;
        USHORT id = g_TunnelId;
        const ULONG nibble = g_TunnelIdWithNibble & 0xF;
        if (nibble >= 1 && nibble <= 4) {
            id = static_cast<USHORT>(id - nibble);
        }
        pDevice->m_Requests.SetDeviceProperty(id, static_cast<SHORT>(g_TunnelValue));
        return STATUS_SUCCESS;
    }
    if (cbOut < sizeof(LONG) || cbOut < layout.returned) {
        pFilter->m_TunnelPending = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    const ULONG nibble = g_TunnelIdWithNibble & 0xF;
    const UCHAR request = nibble <= 4 ? kNibbleRequests[nibble] : static_cast<UCHAR>(UVC_GET_CUR);
    const ULONG id = g_TunnelIdWithNibble - ((nibble >= 1 && nibble <= 4) ? nibble : 0);
    LONG result = 0;
    pDevice->m_Requests.GetDeviceProperty(static_cast<USHORT>(id), request, &result);
    RtlCopyMemory(pBytes + layout.valueOffset, &result, sizeof(LONG));
    pIrp->IoStatus.Information = layout.returned;
    pFilter->m_TunnelPending = 0;
    return STATUS_SUCCESS;
}

// ---- Automation table ---------------------------------------------------------------------

namespace {

constexpr ULONG kDriverControlMinData = 4;

DEFINE_KSPROPERTY_TABLE(g_DriverControlProperties){
    DEFINE_KSPROPERTY_ITEM(1, CCaptureFilter::DriverControl, sizeof(KSPROPERTY), kDriverControlMinData,
                           CCaptureFilter::DriverControl, nullptr, 0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(2, CCaptureFilter::DriverControl, sizeof(KSPROPERTY), kDriverControlMinData,
                           CCaptureFilter::DriverControl, nullptr, 0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(3, CCaptureFilter::DriverControl, sizeof(KSPROPERTY), kDriverControlMinData,
                           CCaptureFilter::DriverControl, nullptr, 0, nullptr, nullptr, 0),
};

DEFINE_KSPROPERTY_TABLE(g_DroppedFramesProperties){
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_DROPPEDFRAMES_CURRENT, CCaptureFilter::GetDroppedFrames,
                           sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S), sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S),
                           nullptr, nullptr, 0, nullptr, nullptr, 0),
};

DEFINE_KSPROPERTY_TABLE(g_VideoControlProperties){
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_VIDEOCONTROL_CAPS, CCaptureFilter::GetVideoControl,
                           sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S), sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S), nullptr,
                           nullptr, 0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, CCaptureFilter::GetVideoControl,
                           sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S),
                           sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S), nullptr, nullptr, 0, nullptr, nullptr,
                           0),
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, CCaptureFilter::GetVideoControl,
                           sizeof(KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S), 0, nullptr, nullptr, 0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_VIDEOCONTROL_MODE, CCaptureFilter::GetVideoControl,
                           sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S), sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S),
                           CCaptureFilter::SetVideoControlProperty, nullptr, 0, nullptr, nullptr, 0),
};

DEFINE_KSPROPERTY_SET_TABLE(g_FilterPropertySets){
    DEFINE_KSPROPERTY_SET(&kSetDriverControl, SIZEOF_ARRAY(g_DriverControlProperties), g_DriverControlProperties, 0,
                          nullptr),
    DEFINE_KSPROPERTY_SET(&kSetDroppedFrames, SIZEOF_ARRAY(g_DroppedFramesProperties), g_DroppedFramesProperties, 0,
                          nullptr),
    DEFINE_KSPROPERTY_SET(&kSetVideoControl, SIZEOF_ARRAY(g_VideoControlProperties), g_VideoControlProperties, 0,
                          nullptr),
};

const GUID kEventSetStillButton = {STATICGUIDOF(KSEVENTSETID_VIDCAPTOSTI)};
constexpr ULONG kStillEventDataSize = 32;

DEFINE_KSEVENT_TABLE(g_StillButtonEvents){
    DEFINE_KSEVENT_ITEM(KSEVENT_VIDCAPTOSTI_EXT_TRIGGER, kStillEventDataSize, 0, nullptr, nullptr, nullptr),
};

DEFINE_KSEVENT_SET_TABLE(g_FilterEventSets){
    DEFINE_KSEVENT_SET(&kEventSetStillButton, SIZEOF_ARRAY(g_StillButtonEvents), g_StillButtonEvents),
};

}  // namespace

DEFINE_KSAUTOMATION_TABLE(g_FilterAutomationTable){
    DEFINE_KSAUTOMATION_PROPERTIES(g_FilterPropertySets),
    DEFINE_KSAUTOMATION_METHODS_NULL,
    DEFINE_KSAUTOMATION_EVENTS(g_FilterEventSets),
};
