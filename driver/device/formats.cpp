// The format tables from the camera's video-streaming descriptors.
// ExtractVSInfo turns the uncompressed (YUY2) and motion-JPEG frame
// descriptors into the capture table, and records the camera terminal's and
// processing unit's control bitmaps; ExtractStillInfo turns the still-image
// frame descriptors into the still table. Entries are complete
// KS_DATARANGE_VIDEO records copied from the templates at the end of this
// file and filled from the descriptor.
//
// Descriptors come from the camera and are not trusted:
//  - Every read is bounded by the descriptor's bLength, by wTotalLength and
//    by the bytes held (descriptor_reader.h); a descriptor too short for the
//    fields read is skipped.
//  - A frame descriptor whose bFrameIntervalType claims more intervals than
//    its bLength holds uses the intervals that are there; bFrameIntervalType
//    0 (continuous) takes dwMaxFrameInterval (offset 30) as MaxFrameInterval.
//  - dwFrameInterval[0] == 0 would divide by zero: the frame is skipped with
//    a debug line.
//  - A list abandoned because a second format (or still) descriptor of the
//    same kind starts a new one is freed, and its entries are taken off the
//    caller's count, so that the count always equals the table's entries.
//  - The frame bound n (bNumFrameDescriptors of the latest format
//    descriptor) is shared by both kinds, but no entry is ever written past
//    the list it belongs to (each list keeps its own size).
//  - Any allocation failure (a temporary list or the final table) returns
//    STATUS_INSUFFICIENT_RESOURCES, frees everything, hands back no table and
//    leaves the count as it was on entry.
#include "device/formats.h"

#include "device/descriptor_reader.h"
#include "pooltag.h"
#include "uvc.h"

namespace kv {

namespace {

// Further offsets in the video-class descriptors (UVC 1.1, 3.7.2.1, 3.7.2.5,
// 3.9.2.3, 3.9.2.5, 3.9.2.6); the shared ones are in uvc.h.
constexpr ULONG kCameraTerminalControlsOffset = 15;
constexpr ULONG kProcessingUnitControlsOffset = 8;
constexpr ULONG kNumFrameDescriptorsOffset = 4;
constexpr ULONG kFrameMinBitRateOffset = 9;
constexpr ULONG kFrameMaxBitRateOffset = 13;
constexpr ULONG kContinuousMaxIntervalOffset = 30;
constexpr ULONG kStillNumSizesOffset = 4;
constexpr ULONG kStillSizesOffset = 5;

// Bit-rate numerators: dwBitRate = width x height x (numerator / interval).
// The RGB figure counts 3 bytes, not 24 bits, a pixel; applications read the
// advertised rate as it has always been, so it stays.
constexpr ULONG kYuy2BitRateNumerator = 160000000;
constexpr ULONG kRgb24BitRateNumerator = 30000000;

// One temporary list of entries, in untagged non-paged pool: it lives only
// for the walk.
struct EntryList {
    PKS_DATARANGE_VIDEO pEntries = nullptr;
    ULONG nCapacity = 0;
    ULONG nUsed = 0;
};

void FreeList(EntryList* pList)
{
    if (pList->pEntries != nullptr) {
        ExFreePool(pList->pEntries);
        pList->pEntries = nullptr;
    }
    pList->nCapacity = 0;
    pList->nUsed = 0;
}

// Starts a new list of n entries, abandoning (freeing) the previous one and
// taking its entries off the count. n == 0 leaves no list.
NTSTATUS RestartList(EntryList* pList, ULONG n, USHORT* pnCount)
{
    *pnCount = static_cast<USHORT>(*pnCount - pList->nUsed);
    FreeList(pList);
    if (n == 0) {
        return STATUS_SUCCESS;
    }
    pList->pEntries = static_cast<PKS_DATARANGE_VIDEO>(ExAllocatePool(NonPagedPoolNx, n * sizeof(KS_DATARANGE_VIDEO)));
    if (pList->pEntries == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pList->nCapacity = n;
    return STATUS_SUCCESS;
}

// The fields shared by capture and still entries: the frame size.
void FillSize(PKS_DATARANGE_VIDEO pEntry, USHORT width, USHORT height)
{
    KS_VIDEO_STREAM_CONFIG_CAPS& caps = pEntry->ConfigCaps;
    const SIZE size = {static_cast<LONG>(width), static_cast<LONG>(height)};
    caps.InputSize = size;
    caps.MinCroppingSize = size;
    caps.MaxCroppingSize = size;
    caps.MinOutputSize = size;
    caps.MaxOutputSize = size;
    pEntry->VideoInfoHeader.bmiHeader.biWidth = width;
    pEntry->VideoInfoHeader.bmiHeader.biHeight = height;
    pEntry->VideoInfoHeader.bmiHeader.biSizeImage =
        static_cast<ULONG>(width) * height * pEntry->VideoInfoHeader.bmiHeader.biBitCount / 8;
}

// What a frame descriptor says, once its length has been checked.
struct FrameFields {
    USHORT width;
    USHORT height;
    ULONG minBitRate;
    ULONG maxBitRate;
    ULONG firstInterval;
    ULONG maxInterval;
};

// Reads a frame descriptor; false when it is too short for the fields read.
bool ReadFrame(const DescriptorView& d, FrameFields* pFields)
{
    if (!d.Has(UVC_FRAME_INTERVALS_OFFSET + 4)) {
        return false;
    }
    pFields->width = d.U16(UVC_FRAME_WIDTH_OFFSET);
    pFields->height = d.U16(UVC_FRAME_HEIGHT_OFFSET);
    pFields->minBitRate = d.U32(kFrameMinBitRateOffset);
    pFields->maxBitRate = d.U32(kFrameMaxBitRateOffset);
    pFields->firstInterval = d.U32(UVC_FRAME_INTERVALS_OFFSET);
    const UCHAR intervalType = d.U8(UVC_FRAME_INTERVAL_TYPE_OFFSET);
    if (intervalType == 0) {
        // Continuous: dwMinFrameInterval, dwMaxFrameInterval, dwFrameIntervalStep.
        if (!d.Has(kContinuousMaxIntervalOffset + 4)) {
            return false;
        }
        pFields->maxInterval = d.U32(kContinuousMaxIntervalOffset);
        return true;
    }
    // Discrete: the last listed interval that the descriptor really holds.
    ULONG nPresent = (d.length - UVC_FRAME_INTERVALS_OFFSET) / 4;
    ULONG nListed = intervalType < nPresent ? intervalType : nPresent;
    pFields->maxInterval = d.U32(UVC_FRAME_INTERVALS_OFFSET + (nListed - 1) * 4);
    return true;
}

// Fills a capture entry from its template and the frame.
void FillCaptureEntry(PKS_DATARANGE_VIDEO pEntry, const KS_DATARANGE_VIDEO& rTemplate, const FrameFields& f,
                      ULONG bytesPerPixel, ULONG bitRateNumerator)
{
    *pEntry = rTemplate;
    FillSize(pEntry, f.width, f.height);
    pEntry->DataRange.SampleSize = static_cast<ULONG>(f.width) * f.height * bytesPerPixel;
    // Intervals are 32-bit on the wire and sign-extended into 64 bits.
    const LONGLONG first = static_cast<LONG>(f.firstInterval);
    pEntry->ConfigCaps.MinFrameInterval = first;
    pEntry->ConfigCaps.MaxFrameInterval = static_cast<LONG>(f.maxInterval);
    pEntry->ConfigCaps.MinBitsPerSecond = static_cast<LONG>(f.minBitRate);
    pEntry->ConfigCaps.MaxBitsPerSecond = static_cast<LONG>(f.maxBitRate);
    pEntry->VideoInfoHeader.AvgTimePerFrame = first;
    // Integer division first, then the multiplication, all in 32 bits.
    pEntry->VideoInfoHeader.dwBitRate =
        static_cast<ULONG>(f.width) * f.height * (bitRateNumerator / f.firstInterval);
}

// Fills a still entry.
void FillStillEntry(PKS_DATARANGE_VIDEO pEntry, bool fMjpeg, USHORT width, USHORT height)
{
    *pEntry = fMjpeg ? g_StillTemplateMjpeg : g_CaptureTemplateYuy2;
    if (fMjpeg) {
        pEntry->DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_RGB24;  // the driver delivers decoded pictures
    }
    pEntry->DataRange.SampleSize = 0;
    pEntry->StreamDescriptionFlags = 0;
    pEntry->ConfigCaps.MinFrameInterval = kStillFrameInterval;
    pEntry->ConfigCaps.MaxFrameInterval = kStillFrameInterval;
    pEntry->ConfigCaps.MinBitsPerSecond = 0;
    pEntry->ConfigCaps.MaxBitsPerSecond = 0;
    pEntry->VideoInfoHeader.dwBitRate = 0;
    pEntry->VideoInfoHeader.AvgTimePerFrame = kStillFrameInterval;
    FillSize(pEntry, width, height);
}

// Allocates the final table ("KVVd" or "KVVs") and copies list a, then b.
NTSTATUS BuildFinalTable(const EntryList& a, const EntryList& b, ULONG tag, PKS_DATARANGE_VIDEO* ppTable)
{
    const ULONG n = a.nUsed + b.nUsed;
    auto pTable = static_cast<PKS_DATARANGE_VIDEO>(ExAllocatePoolWithTag(NonPagedPoolNx, n * sizeof(KS_DATARANGE_VIDEO), tag));
    if (pTable == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (ULONG i = 0; i < a.nUsed; i++) {
        pTable[i] = a.pEntries[i];
    }
    for (ULONG i = 0; i < b.nUsed; i++) {
        pTable[a.nUsed + i] = b.pEntries[i];
    }
    *ppTable = pTable;
    return STATUS_SUCCESS;
}

// The end of both walks: no entry made is STATUS_INVALID_PARAMETER, else the
// final table is built; on any failure the count goes back to its value on
// entry. The temporary lists are freed in every case.
NTSTATUS FinishTable(NTSTATUS status, EntryList* pA, EntryList* pB, ULONG tag, PKS_DATARANGE_VIDEO* ppTable,
                     USHORT* pnCount, USHORT nCountOnEntry, const char* pRoutine)
{
    if (NT_SUCCESS(status) && *pnCount == nCountOnEntry) {
        status = STATUS_INVALID_PARAMETER;
    }
    if (NT_SUCCESS(status)) {
        status = BuildFinalTable(*pA, *pB, tag, ppTable);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s failed (Status 0x%X)\n", pRoutine, static_cast<ULONG>(status));
        *pnCount = nCountOnEntry;
    }
    FreeList(pA);
    FreeList(pB);
    return status;
}

}  // namespace
}  // namespace kv

using namespace kv;

FormatTables::FormatTables()
    : CameraTerminalControls(0),
      ProcessingUnitControls(0),
      WideFrameWidth(0),
      m_pCaptureTable(nullptr),
      m_nCaptureTable(0),
      m_pCaptureRanges(nullptr),
      m_pStillTable(nullptr),
      m_nStillTable(0),
      m_pStillRanges(nullptr)
{
}

FormatTables::~FormatTables()
{
    Release();
}

void FormatTables::Release()
{
    FreeTagged(m_pCaptureRanges, kTagCaptureRanges);
    FreeTagged(m_pCaptureTable, kTagCaptureTable);
    m_nCaptureTable = 0;
    FreeTagged(m_pStillRanges, kTagStillRanges);
    FreeTagged(m_pStillTable, kTagStillTable);
    m_nStillTable = 0;
}

NTSTATUS FormatTables::ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor,
                                       PKS_DATARANGE_VIDEO* pVSDataRage, USHORT* pnCount)
{
    const ULONG cb = pConfigurationDescriptor != nullptr ? pConfigurationDescriptor->wTotalLength : 0;
    return ExtractVSInfo(pConfigurationDescriptor, cb, pVSDataRage, pnCount);
}

NTSTATUS FormatTables::ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor,
                                          PKS_DATARANGE_VIDEO* pVSDataRage, USHORT* pnCount)
{
    const ULONG cb = pConfigurationDescriptor != nullptr ? pConfigurationDescriptor->wTotalLength : 0;
    return ExtractStillInfo(pConfigurationDescriptor, cb, pVSDataRage, pnCount);
}

// cb is the number of bytes of the configuration descriptor held in memory.
NTSTATUS FormatTables::ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                                       PKS_DATARANGE_VIDEO* pVSDataRage, USHORT* pnCount)
{
    ASSERT(pVSDataRage);
    if (pConfigurationDescriptor == nullptr || pVSDataRage == nullptr || pnCount == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const USHORT nCountOnEntry = *pnCount;
    const UCHAR* pBytes = reinterpret_cast<const UCHAR*>(pConfigurationDescriptor);
    DescriptorWalker walker(pBytes, ConfigurationWalkLength(pBytes, cb));

    EntryList yuy2;
    EntryList mjpeg;
    ULONG nBound = 0;         // bNumFrameDescriptors of the latest format descriptor, either kind
    UCHAR subClass = 0;       // of the current interface
    NTSTATUS status = STATUS_SUCCESS;
    DescriptorView d;
    while (NT_SUCCESS(status) && walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE) {
            subClass = d.Has(UVC_INTERFACE_SUBCLASS_OFFSET + 1) ? d.U8(UVC_INTERFACE_SUBCLASS_OFFSET) : 0;
            continue;
        }
        if (d.Type() != UVC_CS_INTERFACE) {
            continue;
        }
        if (subClass == UVC_SC_VIDEOCONTROL) {
            if (d.Subtype() == UVC_VC_INPUT_TERMINAL && d.Has(kCameraTerminalControlsOffset + 2)) {
                CameraTerminalControls = d.U16(kCameraTerminalControlsOffset);
            } else if (d.Subtype() == UVC_VC_PROCESSING_UNIT && d.Has(kProcessingUnitControlsOffset + 2)) {
                ProcessingUnitControls = d.U16(kProcessingUnitControlsOffset);
            }
            continue;
        }
        if (subClass != UVC_SC_VIDEOSTREAMING) {
            continue;
        }
        switch (d.Subtype()) {
        case UVC_VS_FORMAT_UNCOMPRESSED:
        case UVC_VS_FORMAT_MJPEG:
            if (!d.Has(kNumFrameDescriptorsOffset + 1)) {
                break;
            }
            nBound = d.U8(kNumFrameDescriptorsOffset);
            status = RestartList(d.Subtype() == UVC_VS_FORMAT_UNCOMPRESSED ? &yuy2 : &mjpeg, nBound, pnCount);
            break;
        case UVC_VS_FRAME_UNCOMPRESSED:
        case UVC_VS_FRAME_MJPEG: {
            const bool fYuy2 = d.Subtype() == UVC_VS_FRAME_UNCOMPRESSED;
            EntryList& list = fYuy2 ? yuy2 : mjpeg;
            if (list.pEntries == nullptr || list.nUsed >= nBound || list.nUsed >= list.nCapacity) {
                if (fYuy2) {
                    DbgPrint("CCaptureDevice::ExtractVSInfo() Not enough space for VS frame descriptor\n");
                }
                break;
            }
            FrameFields f;
            if (!ReadFrame(d, &f)) {
                DbgPrint("CCaptureDevice::ExtractVSInfo() frame descriptor too short (bLength %u), skipped\n",
                         d.length);
                break;
            }
            if (f.firstInterval == 0) {
                DbgPrint("CCaptureDevice::ExtractVSInfo() frame %ux%u has frame interval 0, skipped\n", f.width,
                         f.height);
                break;
            }
            PKS_DATARANGE_VIDEO pEntry = &list.pEntries[list.nUsed];
            if (fYuy2) {
                FillCaptureEntry(pEntry, g_CaptureTemplateYuy2, f, 2, kYuy2BitRateNumerator);
                // The wide-frame width the frame loop works with: of the widths
                // from 640 up to 1599, exactly 640 and 1280 count.
                if (f.width == 640 || f.width == 1280) {
                    WideFrameWidth = f.width;
                }
            } else {
                FillCaptureEntry(pEntry, g_CaptureTemplateRgb24, f, 3, kRgb24BitRateNumerator);
            }
            list.nUsed++;
            (*pnCount)++;
            break;
        }
        default:
            break;
        }
    }

    return FinishTable(status, &yuy2, &mjpeg, kTagCaptureTable, pVSDataRage, pnCount, nCountOnEntry,
                       "CCaptureDevice::ExtractVSInfo()");
}

NTSTATUS FormatTables::ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                                          PKS_DATARANGE_VIDEO* pVSDataRage, USHORT* pnCount)
{
    ASSERT(pVSDataRage);
    if (pConfigurationDescriptor == nullptr || pVSDataRage == nullptr || pnCount == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const USHORT nCountOnEntry = *pnCount;
    const UCHAR* pBytes = reinterpret_cast<const UCHAR*>(pConfigurationDescriptor);
    DescriptorWalker walker(pBytes, ConfigurationWalkLength(pBytes, cb));

    enum class Kind { kNone, kYuy2, kMjpeg };
    Kind kind = Kind::kNone;
    EntryList yuy2;
    EntryList mjpeg;
    UCHAR subClass = 0;
    NTSTATUS status = STATUS_SUCCESS;
    DescriptorView d;
    while (NT_SUCCESS(status) && walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE) {
            subClass = d.Has(UVC_INTERFACE_SUBCLASS_OFFSET + 1) ? d.U8(UVC_INTERFACE_SUBCLASS_OFFSET) : 0;
            continue;
        }
        if (d.Type() != UVC_CS_INTERFACE || subClass != UVC_SC_VIDEOSTREAMING) {
            continue;
        }
        if (d.Subtype() == UVC_VS_FORMAT_UNCOMPRESSED) {
            kind = Kind::kYuy2;
        } else if (d.Subtype() == UVC_VS_FORMAT_MJPEG) {
            kind = Kind::kMjpeg;
        } else if (d.Subtype() == UVC_VS_STILL_IMAGE_FRAME && kind != Kind::kNone && d.Has(kStillNumSizesOffset + 1)) {
            // The sizes the descriptor really holds, at most bNumImageSizePatterns.
            const ULONG nListed = d.U8(kStillNumSizesOffset);
            const ULONG nPresent = (d.length - kStillSizesOffset) / 4;
            const ULONG n = nListed < nPresent ? nListed : nPresent;
            const bool fMjpeg = kind == Kind::kMjpeg;
            EntryList& list = fMjpeg ? mjpeg : yuy2;
            status = RestartList(&list, n, pnCount);
            for (ULONG i = 0; NT_SUCCESS(status) && i < n; i++) {
                const ULONG offset = kStillSizesOffset + i * 4;
                FillStillEntry(&list.pEntries[i], fMjpeg, d.U16(offset), d.U16(offset + 2));
                list.nUsed++;
                (*pnCount)++;
            }
        }
    }

    return FinishTable(status, &yuy2, &mjpeg, kTagStillTable, pVSDataRage, pnCount, nCountOnEntry,
                       "CCaptureDevice::ExtractStillInfo()");
}

// ---- Templates ---------------------------------------------------------------------------
// One initialiser per template, in field order; sizes, sample sizes and bit
// rates are filled per entry.
namespace kv {

#define KV_DATARANGE_TEMPLATE(subFormat, sampleSize, fixedSize, temporal, streamFlags, bitCount, compression) \
    {                                                                                                        \
        {{sizeof(KS_DATARANGE_VIDEO), 0, (sampleSize), 0, {STATICGUIDOF(KSDATAFORMAT_TYPE_VIDEO)}, subFormat, {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO)}}},     \
        (fixedSize),                   /* bFixedSizeSamples */                                               \
        (temporal),                    /* bTemporalCompression */                                            \
        (streamFlags),                 /* StreamDescriptionFlags */                                          \
        0,                             /* MemoryAllocationFlags */                                           \
        {                                                                                                    \
            {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO)},         /* guid */                                                            \
            0,                         /* VideoStandard: no analog standard */                               \
            {640, 480},                /* InputSize */                                                       \
            {640, 480},                /* MinCroppingSize */                                                 \
            {640, 480},                /* MaxCroppingSize */                                                 \
            1, 1,                      /* CropGranularityX, Y */                                             \
            1, 1,                      /* CropAlignX, Y */                                                   \
            {640, 480},                /* MinOutputSize */                                                   \
            {640, 480},                /* MaxOutputSize */                                                   \
            1, 1,                      /* OutputGranularityX, Y */                                           \
            0, 0,                      /* StretchTapsX, Y */                                                 \
            0, 0,                      /* ShrinkTapsX, Y */                                                  \
            400000,                    /* MinFrameInterval */                                                \
            1666667,                   /* MaxFrameInterval */                                                \
            0, 0,                      /* Min/MaxBitsPerSecond */                                            \
        },                                                                                                   \
        {                                                                                                    \
            {0, 0, 0, 0},              /* rcSource */                                                        \
            {0, 0, 0, 0},              /* rcTarget */                                                        \
            0,                         /* dwBitRate */                                                       \
            0,                         /* dwBitErrorRate */                                                  \
            400000,                    /* AvgTimePerFrame */                                                 \
            {40, 640, 480, 1, (bitCount), (compression), 0, 0, 0, 0, 0}, /* bmiHeader */                     \
        },                                                                                                   \
    }

// Capture, uncompressed YUY2 (frame subtype 0x05).
const KS_DATARANGE_VIDEO g_CaptureTemplateYuy2 =
    KV_DATARANGE_TEMPLATE({STATICGUIDOF(KSDATAFORMAT_SUBTYPE_YUY2)}, 640 * 480 * 2, TRUE, FALSE, KS_VIDEOSTREAM_CAPTURE, 16, kFourccYuy2);
// Capture, motion JPEG advertised as RGB24 (frame subtype 0x07).
const KS_DATARANGE_VIDEO g_CaptureTemplateRgb24 =
    KV_DATARANGE_TEMPLATE({STATICGUIDOF(KSDATAFORMAT_SUBTYPE_RGB24)}, 640 * 480 * 3, FALSE, TRUE, KS_VIDEOSTREAM_CAPTURE, 24, 0);
// Still under motion JPEG: subformat MJPG until the entry is made RGB24.
const KS_DATARANGE_VIDEO g_StillTemplateMjpeg =
    KV_DATARANGE_TEMPLATE({STATICGUIDOF(KSDATAFORMAT_SUBTYPE_MJPG)}, 0, FALSE, TRUE, 0, 24, 0);

}  // namespace kv
