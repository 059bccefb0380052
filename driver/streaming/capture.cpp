// The capture pin.
//
// Choices worth knowing:
//  - The context's format copy is allocated with the context at create (88
//    bytes) and filled at every set-format and at pause-to-run; a
//    video-info header whose bitmap header is longer than 40 bytes is copied
//    only as far as the copy reaches.
//  - A frame descriptor with continuous intervals (bFrameIntervalType 0)
//    accepts an interval between its minimum and maximum; its first interval
//    is the minimum.
//  - A start of streaming that fails frees what it allocated at once (the
//    pin stays in pause and gets no run-to-pause to do it).
//  - When the probe succeeds but no alternate setting carries its payload,
//    the negotiation fails with STATUS_UNSUCCESSFUL rather than with the
//    probe's success.
//  - The pin's sleep stops the stream only when the pin runs: a pin in
//    acquire or pause has no stream to stop and must keep its slot.
//  - A create called above APC_LEVEL is refused after its message (the
//    pool and registry work that follows needs PASSIVE_LEVEL).
#include "streaming/capture.h"

#include "device/descriptor_reader.h"
#include "device/device.h"
#include "imaging/deadpixel.h"
#include "imaging/facetracking.h"
#include "pageable.h"
#include "pooltag.h"
#include "uvc.h"

using namespace kv;

namespace {

constexpr UCHAR kStreamingInterface = 1;
// The probe/commit block.
constexpr ULONG kProbeFormatIndex = 2;
constexpr ULONG kProbeFrameIndex = 3;
constexpr ULONG kProbeFrameInterval = 4;
constexpr ULONG kProbeMaxPayload = 22;
// wMaxPacketSize: the packet size and the additional transactions.
constexpr USHORT kPacketSizeMask = 0x07FF;
constexpr USHORT kThreeTransactions = 0x1000;
constexpr USHORT kTwoTransactions = 0x0800;
constexpr NTSTATUS kStatusNoFormatOrFrame = static_cast<NTSTATUS>(0xC0000719);
// The allocator: three frames of the image size.
constexpr ULONG kFramesInFlight = 3;
constexpr ULONG kCaptureHeaderSize = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
static_assert(kCaptureHeaderSize == 128, "the capture pin's stream header with its frame information");
// A video-info header is its bitmap header plus 48 bytes.
constexpr ULONG kVideoInfoPrefix = FIELD_OFFSET(KS_VIDEOINFOHEADER, bmiHeader);
constexpr ULONG kVideoInfo2Prefix = FIELD_OFFSET(KS_VIDEOINFOHEADER2, bmiHeader);
constexpr ULONG kMinimumFormatSize = 152;
constexpr ULONG kMinimumRangeSize = sizeof(KS_DATARANGE_VIDEO);

const GUID kSpecifierVideoInfo = {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO)};
const GUID kSpecifierVideoInfo2 = {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO2)};

CapturePinContext* ContextOf(PKSPIN pKsPin) { return static_cast<CapturePinContext*>(pKsPin->Context); }

CCaptureDevice* DeviceOf(PKSPIN pKsPin)
{
    PKSDEVICE pKsDevice = KsGetDevice(pKsPin);
    return static_cast<CCaptureDevice*>(pKsDevice->Context);
}

ULONG WalkLength(const UsbConfiguration& usb)
{
    const UCHAR* p = reinterpret_cast<const UCHAR*>(usb.m_pConfigurationDescriptor);
    return p != nullptr ? ReadLe16(p + 2) : 0;
}

// Whether a format descriptor is the camera code's: an uncompressed format
// whose GUID begins with the code, or the motion-JPEG format for "MJPG".
bool FormatMatches(const DescriptorView& d, ULONG CameraCode)
{
    if (d.Subtype() == UVC_VS_FORMAT_UNCOMPRESSED) {
        return d.Has(UVC_FORMAT_GUID_OFFSET + 4) && d.U32(UVC_FORMAT_GUID_OFFSET) == CameraCode;
    }
    return d.Subtype() == UVC_VS_FORMAT_MJPEG && CameraCode == kFourccMjpg;
}

bool IsFrame(const DescriptorView& d)
{
    return d.Subtype() == UVC_VS_FRAME_UNCOMPRESSED || d.Subtype() == UVC_VS_FRAME_MJPEG;
}

bool FrameIsSize(const DescriptorView& d, LONG Width, LONG Height)
{
    return d.Has(UVC_FRAME_HEIGHT_OFFSET + 2) && d.U16(UVC_FRAME_WIDTH_OFFSET) == static_cast<ULONG>(Width) &&
           d.U16(UVC_FRAME_HEIGHT_OFFSET) == static_cast<ULONG>(Height);
}

// The frame's interval for a request: the request when the frame has it,
// else its first interval.
LONGLONG IntervalFor(const DescriptorView& d, LONGLONG Interval)
{
    if (!d.Has(UVC_FRAME_INTERVALS_OFFSET + 4)) {
        return Interval;
    }
    const UCHAR type = d.U8(UVC_FRAME_INTERVAL_TYPE_OFFSET);
    const LONGLONG first = d.U32(UVC_FRAME_INTERVALS_OFFSET);
    if (type == 0) {
        const LONGLONG maximum = d.Has(UVC_FRAME_INTERVALS_OFFSET + 8) ? d.U32(UVC_FRAME_INTERVALS_OFFSET + 4) : first;
        return Interval >= first && Interval <= maximum ? Interval : first;
    }
    for (ULONG i = 0; i < type && d.Has(UVC_FRAME_INTERVALS_OFFSET + 4 * (i + 1)); ++i) {
        if (d.U32(UVC_FRAME_INTERVALS_OFFSET + 4 * i) == Interval) {
            return Interval;
        }
    }
    return first;
}

// Walks the class-specific descriptors of video-streaming interfaces and
// calls Visit(descriptor, inMatchingFormat) for each frame descriptor.
template <typename Visit>
void WalkStreamingFrames(const UCHAR* pConfiguration, ULONG Length, ULONG CameraCode, Visit visit)
{
    DescriptorWalker walker(pConfiguration, Length);
    DescriptorView d;
    bool streaming = false;
    bool formatMatches = false;
    while (walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE) {
            streaming = d.Has(UVC_INTERFACE_SUBCLASS_OFFSET + 1) && d.U8(UVC_INTERFACE_SUBCLASS_OFFSET) == UVC_SC_VIDEOSTREAMING;
            continue;
        }
        if (!streaming || d.Type() != UVC_CS_INTERFACE) {
            continue;
        }
        if (d.Subtype() == UVC_VS_FORMAT_UNCOMPRESSED || d.Subtype() == UVC_VS_FORMAT_MJPEG) {
            formatMatches = FormatMatches(d, CameraCode);
            if (formatMatches) {
                visit(d, true);
            }
        } else if (IsFrame(d) && formatMatches) {
            visit(d, false);
        }
    }
}

}  // namespace

bool CapturePinContext::StillPinExists() const
{
    return InterlockedCompareExchangePointer(reinterpret_cast<PVOID volatile*>(&pDevice->m_pStillPin), nullptr,
                                             nullptr) != nullptr;
}

ULONG CCapturePin::CameraCode(ULONG OutputCompression)
{
    return OutputCompression != 0 ? OutputCompression : kFourccMjpg;
}

// ---- descriptor walks --------------------------------------------------------------------------

LONGLONG CCapturePin::CheckFrameInterval(const UCHAR* pConfiguration, ULONG Length, LONG Width, LONG Height,
                                         ULONG CameraCode, LONGLONG Interval)
{
    LONGLONG result = Interval;
    WalkStreamingFrames(pConfiguration, Length, CameraCode, [&](const DescriptorView& d, bool isFormat) {
        if (!isFormat && FrameIsSize(d, Width, Height)) {
            result = IntervalFor(d, Interval);
        }
    });
    return result;
}

void CCapturePin::FindFormatAndFrame(const UCHAR* pConfiguration, ULONG Length, LONG Width, LONG Height,
                                     ULONG CameraCode, PUCHAR pFormatIndex, PUCHAR pFrameIndex)
{
    *pFormatIndex = 0;
    *pFrameIndex = 0;
    UCHAR format = 0;
    WalkStreamingFrames(pConfiguration, Length, CameraCode, [&](const DescriptorView& d, bool isFormat) {
        if (!d.Has(UVC_FORMAT_INDEX_OFFSET + 1)) {
            return;
        }
        if (isFormat) {
            format = d.U8(UVC_FORMAT_INDEX_OFFSET);
        } else if (FrameIsSize(d, Width, Height)) {
            *pFormatIndex = format;
            *pFrameIndex = d.U8(UVC_FORMAT_INDEX_OFFSET);
        }
    });
}

UCHAR CCapturePin::FindAlternateSetting(const UCHAR* pConfiguration, ULONG Length, ULONG MaxPayload)
{
    DescriptorWalker walker(pConfiguration, Length);
    DescriptorView d;
    bool streaming = false;
    UCHAR alternate = 0;
    while (walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.Has(7)) {
            streaming = d.U8(UVC_INTERFACE_SUBCLASS_OFFSET) == UVC_SC_VIDEOSTREAMING;
            alternate = d.U8(3);
        } else if (streaming && alternate != 0 && d.Type() == USB_ENDPOINT_DESCRIPTOR_TYPE && d.Has(6)) {
            const USHORT wMaxPacketSize = d.U16(4);
            ULONG capacity = wMaxPacketSize & kPacketSizeMask;
            if ((wMaxPacketSize & kThreeTransactions) != 0) {
                capacity *= 3;
            } else if ((wMaxPacketSize & kTwoTransactions) != 0) {
                capacity *= 2;
            }
            if (capacity >= MaxPayload) {
                DbgPrint("bAlternateSetting:%d\n", alternate);
                return alternate;
            }
        }
    }
    return 0;
}

// ---- bandwidth ---------------------------------------------------------------------------------

NTSTATUS CCapturePin::BandwidthNegotiation(CapturePinContext* pContext, LONG lHeight, LONG lWidth,
                                           LONGLONG llFrameInterval, ULONG dwDataFormat)
{
    CCaptureDevice* pDevice = pContext->pDevice;
    if (lHeight <= 0 || lWidth <= 0 || llFrameInterval < 1 || dwDataFormat == 0) {
        DbgPrint("CCapturePin::BandwidthNegotiation invalid parameter- lHeight=%d, lWidth=%d, llFrameInterval=%d, "
                 "dwDataFormat=%d( 0x%x)\n",
                 lHeight, lWidth, static_cast<LONG>(llFrameInterval), dwDataFormat, dwDataFormat);
        return STATUS_INVALID_PARAMETER;
    }
    const UCHAR* pConfiguration = reinterpret_cast<const UCHAR*>(pDevice->m_Usb.m_pConfigurationDescriptor);
    const ULONG length = WalkLength(pDevice->m_Usb);
    UCHAR formatIndex = 0;
    UCHAR frameIndex = 0;
    FindFormatAndFrame(pConfiguration, length, lWidth, lHeight, dwDataFormat, &formatIndex, &frameIndex);
    if (formatIndex == 0 || frameIndex == 0) {
        DbgPrint("CCapturePin::BandwidthNegotiation - No match format index or frame index.\n");
        return kStatusNoFormatOrFrame;
    }
    IsoStream& stream = pDevice->m_Stream;
    stream.m_Uncompressed = dwDataFormat != kFourccMjpg ? 1 : 0;
    stream.m_TransfersInFlight = stream.m_Uncompressed != 0 ? TRANSFERS_UNCOMPRESSED : TRANSFERS_MJPEG;

    ControlRequests& requests = pDevice->m_Requests;
    UCHAR probe[PROBE_COMMIT_SIZE] = {};
    ULONG cb = sizeof(probe);
    requests.SendClassRequest(kStreamingInterface, UVC_GET_CUR, UVC_VS_PROBE_CONTROL, probe, &cb);
    probe[kProbeFormatIndex] = formatIndex;
    probe[kProbeFrameIndex] = frameIndex;
    const ULONG interval = static_cast<ULONG>(llFrameInterval);
    for (ULONG i = 0; i < 4; ++i) {
        probe[kProbeFrameInterval + i] = static_cast<UCHAR>(interval >> (8 * i));
    }
    cb = sizeof(probe);
    NTSTATUS status = requests.SendClassRequest(kStreamingInterface, UVC_SET_CUR, UVC_VS_PROBE_CONTROL, probe, &cb);
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCapturePin::BandwidthNegotiation -  PROBE SET_CUR fail.Status = 0x%X\n", status);
        return status;
    }
    cb = sizeof(probe);
    status = requests.SendClassRequest(kStreamingInterface, UVC_GET_CUR, UVC_VS_PROBE_CONTROL, probe, &cb);
    const ULONG maxPayload = ReadLe32(probe + kProbeMaxPayload);
    const UCHAR alternate = NT_SUCCESS(status) ? FindAlternateSetting(pConfiguration, length, maxPayload) : 0;
    if (!NT_SUCCESS(status) || alternate == 0) {
        DbgPrint("CCapturePin::BandwidthNegotiation -  PROBE GET_CUR fail.Status = 0x%X, or can not find a interface "
                 "match MaxPayloadTransferSize(%d)\n",
                 status, maxPayload);
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    cb = sizeof(probe);
    status = requests.SendClassRequest(kStreamingInterface, UVC_SET_CUR, UVC_VS_COMMIT_CONTROL, probe, &cb);
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCapturePin::BandwidthNegotiation -  COMMIT SET_CUR fail.Status = 0x%X\n", status);
        return status;
    }
    status = pDevice->m_Usb.SelectAlternateInterface(kStreamingInterface, alternate, UVC_SC_VIDEOSTREAMING);
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCapturePin::BandwidthNegotiation -  SelectAlternateInterface fail fail.Status = 0x%X AltInterface "
                 "= %d\n",
                 status, alternate);
    }
    return status;
}

// ---- create, close, format ---------------------------------------------------------------------

namespace {

void FreeContext(PVOID pItem)
{
    auto* pContext = static_cast<CapturePinContext*>(pItem);
    FreeTagged(pContext->pFormat, kTagPinFormat);
    ExFreePoolWithTag(pContext, kTagPinFormat);
}

// The video-info header inside a format, or null when the format is not a
// video-info format the pin examines.
const KS_VIDEOINFOHEADER* VideoInfoOf(const KSDATAFORMAT* pFormat)
{
    if (pFormat == nullptr || pFormat->Specifier != kSpecifierVideoInfo || pFormat->FormatSize < kMinimumFormatSize) {
        return nullptr;
    }
    return &reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER*>(pFormat)->VideoInfoHeader;
}

void CopyVideoInfo(PKS_VIDEOINFOHEADER pCopy, const KS_VIDEOINFOHEADER* pSource, ULONG Available)
{
    ULONG cb = pSource->bmiHeader.biSize + kVideoInfoPrefix;
    if (cb > sizeof(KS_VIDEOINFOHEADER)) {
        cb = sizeof(KS_VIDEOINFOHEADER);
    }
    if (cb > Available) {
        cb = Available;
    }
    RtlZeroMemory(pCopy, sizeof(KS_VIDEOINFOHEADER));
    RtlCopyMemory(pCopy, pSource, cb);
}

}  // namespace

NTSTATUS CCapturePin::DispatchCreate(PKSPIN pKsPin, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    if (PageableCallTooHigh()) {
        return STATUS_UNSUCCESSFUL;
    }
    auto* pContext = static_cast<CapturePinContext*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(CapturePinContext), kTagPinFormat));
    if (pContext == nullptr) {
        DbgPrint("CCapturePin::DispatchCreate: failed to alloc pin context\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pContext, sizeof(CapturePinContext));
    pContext->pFormat = static_cast<PKS_VIDEOINFOHEADER>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(KS_VIDEOINFOHEADER), kTagPinFormat));
    pContext->pKsPin = pKsPin;
    pContext->pDevice = DeviceOf(pKsPin);
    NTSTATUS status = pContext->pFormat != nullptr ? KsAddItemToObjectBag(pKsPin->Bag, pContext, FreeContext)
                                                   : STATUS_INSUFFICIENT_RESOURCES;
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCapturePin::DispatchCreate: failed to keep pin context\n");
        FreeContext(pContext);
        return status;
    }
    pKsPin->Context = pContext;
    pKsPin->StreamHeaderSize = kCaptureHeaderSize;
    KsPinRegisterPowerCallbacks(pKsPin, Sleep, Wake);
    return CopyConnectionFormat(pKsPin, pContext->pFormat);
}

// The pin's own copy of its descriptor and framing: three frames of the
// image size.
NTSTATUS CCapturePin::EditFraming(PKSPIN pKsPin, ULONG ImageSize)
{
    auto* pDescriptor = static_cast<PKSPIN_DESCRIPTOR_EX>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(KSPIN_DESCRIPTOR_EX), kTagEditedDescriptor));
    auto* pFraming = static_cast<PKSALLOCATOR_FRAMING_EX>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(KSALLOCATOR_FRAMING_EX), kTagEditedDescriptor));
    if (pDescriptor == nullptr || pFraming == nullptr ||
        !NT_SUCCESS(KsAddItemToObjectBag(pKsPin->Bag, pDescriptor, nullptr))) {
        FreeTagged(pDescriptor, kTagEditedDescriptor);
        FreeTagged(pFraming, kTagEditedDescriptor);
        DbgPrint("CCapturePin::EditFraming: failed to alloc descriptor copy\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(KsAddItemToObjectBag(pKsPin->Bag, pFraming, nullptr))) {
        FreeTagged(pFraming, kTagEditedDescriptor);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(pDescriptor, pKsPin->Descriptor, sizeof(KSPIN_DESCRIPTOR_EX));
    RtlCopyMemory(pFraming, pKsPin->Descriptor->AllocatorFraming, sizeof(KSALLOCATOR_FRAMING_EX));
    KS_FRAMING_ITEM& item = pFraming->FramingItem[0];
    item.Frames = kFramesInFlight;
    item.PhysicalRange.MinFrameSize = ImageSize;
    item.PhysicalRange.MaxFrameSize = ImageSize;
    item.PhysicalRange.Stepping = 0;
    item.FramingRange.Range.MinFrameSize = ImageSize;
    item.FramingRange.Range.MaxFrameSize = ImageSize;
    item.FramingRange.Range.Stepping = 0;
    item.FramingRange.InPlaceWeight = 0;
    item.FramingRange.NotInPlaceWeight = 0;
    pDescriptor->AllocatorFraming = pFraming;
    pKsPin->Descriptor = pDescriptor;
    return STATUS_SUCCESS;
}

NTSTATUS CCapturePin::DispatchClose(PKSPIN pKsPin, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    CapturePinContext* pContext = ContextOf(pKsPin);
    if (pContext != nullptr) {
        FreeTagged(pContext->pFormat, kTagPinFormat);
    }
    return STATUS_SUCCESS;
}

NTSTATUS CCapturePin::SetDataFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, PKSMULTIPLE_ITEM pOldAttributeList,
                                    const KSDATARANGE* pDataRange, const KSATTRIBUTE_LIST* pAttributeRange)
{
    UNREFERENCED_PARAMETER(pOldAttributeList);
    UNREFERENCED_PARAMETER(pAttributeRange);
    return AcceptVideoFormat(pKsPin, pOldFormat, pDataRange, &ContextOf(pKsPin)->pFormat);
}

NTSTATUS AcceptVideoFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, const KSDATARANGE* pDataRange,
                           PKS_VIDEOINFOHEADER* ppCopy)
{
    const PKSDATAFORMAT pFormat = pKsPin->ConnectionFormat;
    const KS_VIDEOINFOHEADER* pInfo = VideoInfoOf(pFormat);
    if (pInfo == nullptr) {
        return STATUS_SUCCESS;
    }
    const ULONG available = pFormat->FormatSize - sizeof(KSDATAFORMAT);
    if (pInfo->bmiHeader.biSize > available || pInfo->bmiHeader.biSize + kVideoInfoPrefix > available) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* pRange = reinterpret_cast<const KS_DATARANGE_VIDEO*>(pDataRange);
    const KS_BITMAPINFOHEADER& want = pRange->VideoInfoHeader.bmiHeader;
    const KS_BITMAPINFOHEADER& got = pInfo->bmiHeader;
    if (got.biWidth != want.biWidth || got.biHeight != want.biHeight || got.biCompression != want.biCompression) {
        return STATUS_NO_MATCH;
    }
    const ULONGLONG height = got.biHeight < 0 ? -static_cast<LONGLONG>(got.biHeight) : got.biHeight;
    const ULONGLONG pixels = static_cast<ULONGLONG>(static_cast<ULONG>(got.biWidth)) * height;
    const ULONGLONG bytes = pixels * (got.biBitCount / 8);
    if (got.biWidth < 0 || pixels > 0xFFFFFFFFull || bytes > 0xFFFFFFFFull || bytes > got.biSizeImage) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pOldFormat == nullptr) {
        return STATUS_SUCCESS;
    }
    if (pKsPin->DeviceState != KSSTATE_STOP) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (*ppCopy == nullptr) {
        *ppCopy = static_cast<PKS_VIDEOINFOHEADER>(
            ExAllocatePoolWithTag(NonPagedPool, sizeof(KS_VIDEOINFOHEADER), kTagPinFormat));
        if (*ppCopy == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    CopyVideoInfo(*ppCopy, pInfo, available);
    return STATUS_SUCCESS;
}

NTSTATUS CopyConnectionFormat(PKSPIN pKsPin, PKS_VIDEOINFOHEADER pCopy)
{
    const KS_VIDEOINFOHEADER* pInfo = VideoInfoOf(pKsPin->ConnectionFormat);
    if (pInfo != nullptr && pCopy != nullptr) {
        CopyVideoInfo(pCopy, pInfo, pKsPin->ConnectionFormat->FormatSize - sizeof(KSDATAFORMAT));
        return CCapturePin::EditFraming(pKsPin, pInfo->bmiHeader.biSizeImage);
    }
    return STATUS_SUCCESS;
}

// ---- intersection ------------------------------------------------------------------------------

NTSTATUS CCapturePin::IntersectHandler(PVOID pContext, PIRP pIrp, PKSP_PIN pKspPinInstance,
                                       PKSDATARANGE pCallerDataRange, PKSDATARANGE pDescriptorDataRange,
                                       ULONG ulBufferSize, PVOID pData, PULONG pulDataSize)
{
    auto* pKsFilter = static_cast<PKSFILTER>(pContext);
    ASSERT(pKsFilter != NULL);
    ASSERT(pIrp != NULL);
    ASSERT(pKspPinInstance != NULL);
    ASSERT(pCallerDataRange != NULL);
    ASSERT(pDescriptorDataRange != NULL);
    ASSERT(pulDataSize != NULL);
    const bool info2 = pCallerDataRange->Specifier == kSpecifierVideoInfo2;
    if ((pCallerDataRange->Specifier != kSpecifierVideoInfo && !info2) ||
        pCallerDataRange->FormatSize < kMinimumRangeSize || pDescriptorDataRange->FormatSize < kMinimumRangeSize) {
        return STATUS_NO_MATCH;
    }
    auto* pCaller = reinterpret_cast<PKS_DATARANGE_VIDEO>(pCallerDataRange);
    const auto* pOurs = reinterpret_cast<const KS_DATARANGE_VIDEO*>(pDescriptorDataRange);
    if (pCaller->bFixedSizeSamples != pOurs->bFixedSizeSamples ||
        pCaller->bTemporalCompression != pOurs->bTemporalCompression ||
        pCaller->StreamDescriptionFlags != pOurs->StreamDescriptionFlags ||
        pCaller->MemoryAllocationFlags != pOurs->MemoryAllocationFlags ||
        RtlCompareMemory(&pCaller->ConfigCaps, &pOurs->ConfigCaps, sizeof(KS_VIDEO_STREAM_CONFIG_CAPS)) !=
            sizeof(KS_VIDEO_STREAM_CONFIG_CAPS)) {
        return STATUS_NO_MATCH;
    }
    // The caller's header: after the range's fixed part, its bitmap header
    // at 48 (video info) or 72 (video info 2) bytes.
    const ULONG headerOffset = FIELD_OFFSET(KS_DATARANGE_VIDEO, VideoInfoHeader);
    const ULONG prefix = info2 ? kVideoInfo2Prefix : kVideoInfoPrefix;
    auto* pHeader = reinterpret_cast<PUCHAR>(pCaller) + headerOffset;
    if (pCallerDataRange->FormatSize < headerOffset + prefix + sizeof(KS_BITMAPINFOHEADER)) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* pBitmap = reinterpret_cast<PKS_BITMAPINFOHEADER>(pHeader + prefix);
    const ULONGLONG headerSize = static_cast<ULONGLONG>(pBitmap->biSize) + prefix;
    if (headerOffset + headerSize > pCallerDataRange->FormatSize) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG resultSize = sizeof(KSDATAFORMAT) + static_cast<ULONG>(headerSize);
    if (ulBufferSize == 0) {
        *pulDataSize = resultSize;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (ulBufferSize < resultSize) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* pOut = static_cast<PUCHAR>(pData);
    RtlCopyMemory(pOut, pDescriptorDataRange, sizeof(KSDATAFORMAT));
    reinterpret_cast<PKSDATAFORMAT>(pOut)->FormatSize = resultSize;
    RtlCopyMemory(pOut + sizeof(KSDATAFORMAT), pHeader, static_cast<SIZE_T>(headerSize));

    // The frame's first interval goes back into the caller's range.
    CCaptureDevice* pDevice = static_cast<CCaptureDevice*>(KsGetDevice(pKsFilter)->Context);
    const LONG height = pBitmap->biHeight < 0 ? -pBitmap->biHeight : pBitmap->biHeight;
    const LONGLONG first = CheckFrameInterval(
        reinterpret_cast<const UCHAR*>(pDevice->m_Usb.m_pConfigurationDescriptor), WalkLength(pDevice->m_Usb),
        pBitmap->biWidth, height, CameraCode(pBitmap->biCompression), 0);
    auto* pAvgTime = reinterpret_cast<PLONGLONG>(pHeader + FIELD_OFFSET(KS_VIDEOINFOHEADER, AvgTimePerFrame));
    if (first != 0 && first != *pAvgTime) {
        *pAvgTime = first;
    }
    // Image size: rows padded to 32 bits.
    const ULONGLONG rowBytes = ((static_cast<ULONGLONG>(static_cast<ULONG>(pBitmap->biWidth)) * pBitmap->biBitCount + 31) &
                                ~static_cast<ULONGLONG>(31)) /
                               8;
    const ULONG imageSize = static_cast<ULONG>(rowBytes * static_cast<ULONG>(height));
    reinterpret_cast<PKSDATAFORMAT>(pOut)->SampleSize = imageSize;
    reinterpret_cast<PKS_BITMAPINFOHEADER>(pOut + sizeof(KSDATAFORMAT) + prefix)->biSizeImage = imageSize;
    *pulDataSize = resultSize;
    return STATUS_SUCCESS;
}

// ---- state ----------------------------------------------------------------------------------

NTSTATUS CCapturePin::SetState(PKSPIN pKsPin, KSSTATE ToState, KSSTATE FromState)
{
    CapturePinContext* pContext = ContextOf(pKsPin);
    CCaptureDevice* pDevice = pContext->pDevice;
    NTSTATUS status = STATUS_SUCCESS;
    switch (ToState) {
        case KSSTATE_ACQUIRE:
            if (FromState == KSSTATE_STOP) {
                if (InterlockedCompareExchange(&pDevice->m_StreamingSlot, 1, 0) != 0) {
                    return STATUS_SHARING_VIOLATION;
                }
                PIKSREFERENCECLOCK pClock = nullptr;
                if (NT_SUCCESS(KsPinGetReferenceClockInterface(pKsPin, &pClock))) {
                    pContext->pClock = pClock;
                }
            } else {
                InterlockedExchange(&pDevice->m_StreamingSlot, 0);
            }
            break;
        case KSSTATE_PAUSE:
            if (FromState == KSSTATE_RUN) {
                RunToPause(pContext);
            } else {
                pDevice->m_FrameLoop.ResetCounters();
            }
            break;
        case KSSTATE_RUN:
            status = PauseToRun(pContext);
            break;
        case KSSTATE_STOP:
        default:
            ToStop(pContext);
            break;
    }
    return status;
}

NTSTATUS CCapturePin::PauseToRun(CapturePinContext* pContext)
{
    CCaptureDevice* pDevice = pContext->pDevice;
    PKSPIN pKsPin = pContext->pKsPin;
    pDevice->m_FrameLoop.m_FrameSeen = 0;
    // Driver-control requests wait for the first frame of the new stream.
    pDevice->m_Requests.m_ControlReady = 0;
    pDevice->m_Idle.StreamStarts();

    const KS_VIDEOINFOHEADER* pInfo = VideoInfoOf(pKsPin->ConnectionFormat);
    if (pInfo == nullptr || pContext->pFormat == nullptr) {
        DbgPrint("CCapturePin::SetState(Pause to Run) - no video-info format to run with.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    CopyVideoInfo(pContext->pFormat, pInfo, pKsPin->ConnectionFormat->FormatSize - sizeof(KSDATAFORMAT));
    pDevice->m_Requests.m_CapturePinRunning = 1;

    const LONG height = pInfo->bmiHeader.biHeight < 0 ? -pInfo->bmiHeader.biHeight : pInfo->bmiHeader.biHeight;
    const LONG width = pInfo->bmiHeader.biWidth;
    const ULONG code = CameraCode(pInfo->bmiHeader.biCompression);
    LONGLONG interval = pInfo->AvgTimePerFrame;
    if (interval != 0) {
        interval = CheckFrameInterval(reinterpret_cast<const UCHAR*>(pDevice->m_Usb.m_pConfigurationDescriptor),
                                      WalkLength(pDevice->m_Usb), width, height, code, interval);
    }
    if (!NT_SUCCESS(BandwidthNegotiation(pContext, height, width, interval, code))) {
        DbgPrint("CCapturePin::SetState(Pause to Run) - Bandwidth negotiation fail.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // Tracking that cannot start leaves frames alone; the stream runs anyway.
    FaceTrackStart(&pDevice->m_FrameLoop.m_pFaceTracker, static_cast<ULONG>(width), static_cast<ULONG>(height),
                   pDevice->m_Settings.m_TrackingFocus);
    pDevice->m_Settings.CheckReadDef();

    pContext->StopByte = 0;
    pContext->StopValue = 0;
    pContext->Reserved = 0;
    ResetDeadPixelState(&pContext->DeadPixels);
    // Cleared before the thread exists, so that a stop right after this
    // start waits for this thread, not for the last one's signal.
    KeClearEvent(&pDevice->m_Stream.m_ThreadExitEvent);
    NTSTATUS status = pDevice->m_Stream.IsoUsb_StartIsoStream(pContext->pFormat, pInfo->bmiHeader.biCompression);
    if (NT_SUCCESS(status)) {
        HANDLE hThread = nullptr;
        status = PsCreateSystemThread(&hThread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, ThreadRoutine,
                                      pContext);
        if (NT_SUCCESS(status)) {
            if (!NT_SUCCESS(ObReferenceObjectByHandle(hThread, THREAD_ALL_ACCESS, nullptr, KernelMode,
                                                      &pContext->pThread, nullptr))) {
                pContext->StopByte = 1;
            }
            ZwClose(hThread);
        }
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCapturePin::IsoUsb_StartIsoStream return fail.\n");
        pDevice->m_Stream.IsoUsb_StopIsoStream(1);
    }
    return status;
}

void CCapturePin::RunToPause(CapturePinContext* pContext)
{
    CCaptureDevice* pDevice = pContext->pDevice;
    pContext->StopByte = 1;
    pContext->StopValue = 1;
    pDevice->m_Stream.IsoUsb_StopIsoStream(pContext->StopValue);
    if (pContext->pThread != nullptr) {
        ObDereferenceObject(pContext->pThread);
        pContext->pThread = nullptr;
    }
    pDevice->m_Usb.SelectAlternateInterface(kStreamingInterface, 0, UVC_SC_VIDEOSTREAMING);
    InterlockedExchange(&pDevice->m_StreamingSlot, 0);
    pDevice->m_Requests.m_CapturePinRunning = 0;
    // A countdown ends with the stream it would have taken its still from,
    // and a still not yet served does not wait for the next stream.
    pDevice->m_SelfTimer.CancelCountdown();
    pDevice->m_SelfTimer.m_StillRequest = 0;
    FaceTrackStop(pDevice->m_FrameLoop.m_pFaceTracker);
}

void CCapturePin::ToStop(CapturePinContext* pContext)
{
    CCaptureDevice* pDevice = pContext->pDevice;
    if (pContext->pClock != nullptr) {
        pContext->pClock->Release();
        pContext->pClock = nullptr;
    }
    pDevice->m_Idle.m_StreamBusy = 0;
    // A pin that went from acquire straight back to stop lets the slot go
    // too (the exchange is harmless when it is free already).
    InterlockedExchange(&pDevice->m_StreamingSlot, 0);
    SelfTimer& timer = pDevice->m_SelfTimer;
    timer.CancelCountdown();
}

VOID CCapturePin::ThreadRoutine(PVOID pStartContext)
{
    auto* pPin = static_cast<CapturePinContext*>(pStartContext);
    ASSERT(pPin != NULL);
    FrameLoop::ProcessFrame(pPin->pDevice, pPin);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// ---- power ----------------------------------------------------------------------------------

void CCapturePin::Sleep(PKSPIN pKsPin, DEVICE_POWER_STATE State)
{
    DbgPrint("Pin power Down\n");
    DbgPrint("Device State=%d\n", State);
    CapturePinContext* pContext = ContextOf(pKsPin);
    if (State == PowerDeviceD3 && pContext->StopValue != 1 && pKsPin->DeviceState == KSSTATE_RUN) {
        RunToPause(pContext);
        ToStop(pContext);
        DbgPrint("Pin power Down extra work!\n");
    }
}

void CCapturePin::Wake(PKSPIN pKsPin, DEVICE_POWER_STATE State)
{
    UNREFERENCED_PARAMETER(pKsPin);
    UNREFERENCED_PARAMETER(State);
    DbgPrint("Pin power Up\n");
}

const KSPIN_DISPATCH g_CapturePinDispatch = {
    CCapturePin::DispatchCreate,  // Create
    CCapturePin::DispatchClose,   // Close
    nullptr,                      // Process: the frame thread delivers
    nullptr,                      // Reset
    CCapturePin::SetDataFormat,   // SetDataFormat
    CCapturePin::SetState,        // SetDeviceState
    nullptr,                      // Connect
    nullptr,                      // Disconnect
    nullptr,                      // Clock
    nullptr,                      // Allocator
};
