// The AVStream test minidriver of the ks.sys simulation's tests (see
// test_minidriver.h). Written as a minidriver is: descriptor tables as data,
// dispatch routines that record what they saw in the recorder.
#include "sim_ks/test_minidriver.h"

#include <algorithm>
#include <cstring>

namespace kvtest::ks {
namespace {

TestRecorder g_recorder;

void Record(const char* call) {
    g_recorder.calls.emplace_back(call);
    if (g_recorder.misstep && strcmp(call, g_recorder.misstepIn) == 0) g_recorder.misstep();
}

// ---- data ranges ---------------------------------------------------------------------
KS_DATARANGE_VIDEO MakeRange(ULONG index) {
    KS_DATARANGE_VIDEO r{};
    LONG w = kRangeWidth[index], h = kRangeHeight[index];
    ULONG image = static_cast<ULONG>(w * h * 2);
    r.DataRange.FormatSize = sizeof(KS_DATARANGE_VIDEO);
    r.DataRange.SampleSize = image;
    r.DataRange.MajorFormat = KSDATAFORMAT_TYPE_VIDEO;
    r.DataRange.SubFormat = KSDATAFORMAT_SUBTYPE_YUY2;
    r.DataRange.Specifier = KSDATAFORMAT_SPECIFIER_VIDEOINFO;
    r.bFixedSizeSamples = TRUE;
    r.StreamDescriptionFlags = KS_VIDEOSTREAM_CAPTURE;
    r.ConfigCaps.guid = KSDATAFORMAT_SPECIFIER_VIDEOINFO;
    r.ConfigCaps.InputSize = {w, h};
    r.ConfigCaps.MinCroppingSize = {w, h};
    r.ConfigCaps.MaxCroppingSize = {w, h};
    r.ConfigCaps.MinOutputSize = {w, h};
    r.ConfigCaps.MaxOutputSize = {w, h};
    r.ConfigCaps.MinFrameInterval = kFrameInterval;
    r.ConfigCaps.MaxFrameInterval = kFrameInterval;
    r.ConfigCaps.MinBitsPerSecond = static_cast<LONG>(image * 8 * 30);
    r.ConfigCaps.MaxBitsPerSecond = static_cast<LONG>(image * 8 * 30);
    r.VideoInfoHeader.rcSource = {0, 0, w, h};
    r.VideoInfoHeader.rcTarget = {0, 0, w, h};
    r.VideoInfoHeader.dwBitRate = image * 8 * 30;
    r.VideoInfoHeader.AvgTimePerFrame = kFrameInterval;
    r.VideoInfoHeader.bmiHeader.biSize = sizeof(KS_BITMAPINFOHEADER);
    r.VideoInfoHeader.bmiHeader.biWidth = w;
    r.VideoInfoHeader.bmiHeader.biHeight = h;
    r.VideoInfoHeader.bmiHeader.biPlanes = 1;
    r.VideoInfoHeader.bmiHeader.biBitCount = 16;
    r.VideoInfoHeader.bmiHeader.biCompression = 0x32595559;  // 'YUY2'
    r.VideoInfoHeader.bmiHeader.biSizeImage = image;
    return r;
}

const KS_DATARANGE_VIDEO g_ranges[kRangeCount] = {MakeRange(0), MakeRange(1)};
const PKSDATARANGE g_captureRanges[kRangeCount] = {
    const_cast<PKSDATARANGE>(&g_ranges[0].DataRange),
    const_cast<PKSDATARANGE>(&g_ranges[1].DataRange),
};

const KSDATARANGE g_bridgeRange = {{sizeof(KSDATARANGE), 0, 0, 0, {STATIC_KSDATAFORMAT_TYPE_ANALOGVIDEO},
                                    {STATIC_KSDATAFORMAT_SUBTYPE_NONE}, {STATIC_KSDATAFORMAT_SPECIFIER_ANALOGVIDEO}}};
struct LongRange {  // FormatSize 68: 4 bytes of its own behind the header
    KSDATARANGE range;
    ULONG extra;
};
const LongRange g_bridgeLongRange = {{{68, 0, 0, 0, {STATIC_KSDATAFORMAT_TYPE_ANALOGVIDEO},
                                       {STATIC_KSDATAFORMAT_SUBTYPE_NONE}, {STATIC_KSDATAFORMAT_SPECIFIER_ANALOGVIDEO}}},
                                     0xABCD};
const PKSDATARANGE g_bridgeRanges[] = {const_cast<PKSDATARANGE>(&g_bridgeRange),
                                       const_cast<PKSDATARANGE>(&g_bridgeLongRange.range)};

ULONG FrameBytesOf(const KSPIN* pin) {
    auto* format = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER*>(pin->ConnectionFormat);
    if (!format) return 0;
    return format->VideoInfoHeader.bmiHeader.biSizeImage;
}

// ---- intersection --------------------------------------------------------------------
bool Matches(const GUID& wanted, const GUID& ours) { return wanted == GUID_NULL || wanted == ours; }

NTSTATUS IntersectHandler(PVOID context, PIRP, PKSP_PIN, PKSDATARANGE callerRange, PKSDATARANGE ourRange,
                          ULONG bufferSize, PVOID data, PULONG dataSize) {
    Record("Intersect");
    g_recorder.intersectContext = context;
    if (!Matches(callerRange->MajorFormat, ourRange->MajorFormat) ||
        !Matches(callerRange->SubFormat, ourRange->SubFormat) ||
        !Matches(callerRange->Specifier, ourRange->Specifier)) {
        return STATUS_NO_MATCH;
    }
    auto* ours = reinterpret_cast<const KS_DATARANGE_VIDEO*>(ourRange);
    if (callerRange->FormatSize >= sizeof(KS_DATARANGE_VIDEO) && callerRange->Specifier != GUID_NULL) {
        auto* theirs = reinterpret_cast<const KS_DATARANGE_VIDEO*>(callerRange);
        if (theirs->VideoInfoHeader.bmiHeader.biWidth != ours->VideoInfoHeader.bmiHeader.biWidth ||
            theirs->VideoInfoHeader.bmiHeader.biHeight != ours->VideoInfoHeader.bmiHeader.biHeight) {
            return STATUS_NO_MATCH;
        }
    }
    // The size query: a zero-length buffer asks how big the format is.
    *dataSize = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
    if (bufferSize == 0) return STATUS_BUFFER_OVERFLOW;
    if (bufferSize < sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) return STATUS_BUFFER_TOO_SMALL;
    auto* out = static_cast<KS_DATAFORMAT_VIDEOINFOHEADER*>(data);
    out->DataFormat = ours->DataRange;
    out->DataFormat.FormatSize = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
    out->VideoInfoHeader = ours->VideoInfoHeader;
    return STATUS_SUCCESS;
}

// ---- pin dispatch ----------------------------------------------------------------------
void PinSleep(PKSPIN, DEVICE_POWER_STATE) { Record("PinSleep"); }
void PinWake(PKSPIN, DEVICE_POWER_STATE) { Record("PinWake"); }

NTSTATUS PinCreate(PKSPIN pin, PIRP) {
    Record("PinCreate");
    if (pin->Id == kCapturePinId) {
        g_recorder.capturePin = pin;
        KsPinRegisterPowerCallbacks(pin, PinSleep, PinWake);
    }
    return STATUS_SUCCESS;
}

NTSTATUS PinClose(PKSPIN pin, PIRP) {
    Record("PinClose");
    if (g_recorder.capturePin == pin) g_recorder.capturePin = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS PinSetDataFormat(PKSPIN pin, PKSDATAFORMAT, PKSMULTIPLE_ITEM, const KSDATARANGE* range,
                          const KSATTRIBUTE_LIST*) {
    Record("SetDataFormat");
    g_recorder.lastMatchedRange = range;
    // ks.sys matched the GUIDs; the frame size is the minidriver's to check.
    auto* format = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER*>(pin->ConnectionFormat);
    auto* ours = reinterpret_cast<const KS_DATARANGE_VIDEO*>(range);
    if (format->VideoInfoHeader.bmiHeader.biWidth != ours->VideoInfoHeader.bmiHeader.biWidth ||
        format->VideoInfoHeader.bmiHeader.biHeight != ours->VideoInfoHeader.bmiHeader.biHeight) {
        return STATUS_NO_MATCH;
    }
    return STATUS_SUCCESS;
}

NTSTATUS PinSetDeviceState(PKSPIN, KSSTATE to, KSSTATE from) {
    Record("SetDeviceState");
    if (g_recorder.failStateEnabled && to == g_recorder.failStateTo) return STATUS_UNSUCCESSFUL;
    g_recorder.stateSteps.push_back({to, from});
    return STATUS_SUCCESS;
}

void FillFrame(PKSPIN pin, PKSSTREAM_POINTER sp) {
    ++g_recorder.framesFilled;
    ULONG bytes = std::min(sp->OffsetOut.Remaining, FrameBytesOf(pin));
    memset(sp->OffsetOut.Data, static_cast<int>(g_recorder.framesFilled & 0xff), bytes);
    PKSSTREAM_HEADER header = sp->StreamHeader;
    header->DataUsed = bytes;
    header->Duration = kFrameInterval;
    header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;
    PIKSREFERENCECLOCK clock = nullptr;
    if (NT_SUCCESS(KsPinGetReferenceClockInterface(pin, &clock))) {
        header->PresentationTime.Time = clock->GetTime();
        header->PresentationTime.Numerator = header->PresentationTime.Denominator = 1;
        header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
        clock->Release();
    }
    if (header->Size >= sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO)) {
        auto* info = reinterpret_cast<PKS_FRAME_INFO>(header + 1);
        info->ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
        info->PictureNumber = g_recorder.framesFilled;
        info->DropCount = 0;
    }
}

NTSTATUS PinProcess(PKSPIN pin) {
    Record("Process");
    ++g_recorder.processCalls;
    if (!g_recorder.fillOnProcess) return STATUS_PENDING;
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    if (!sp) return STATUS_SUCCESS;
    FillFrame(pin, sp);
    KsStreamPointerUnlock(sp, TRUE);
    return STATUS_SUCCESS;
}

const KSPIN_DISPATCH g_captureDispatch = {
    PinCreate, PinClose, PinProcess, nullptr, PinSetDataFormat, PinSetDeviceState, nullptr, nullptr, nullptr, nullptr,
};

// Not const: SetCapturePinFlags changes the capture pin's flags for a test.
KSPIN_DESCRIPTOR_EX g_pins[kPinCount] = {
    {&g_captureDispatch,
     nullptr,
     {0, nullptr, 0, nullptr, kRangeCount, g_captureRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK,
      &PINNAME_VIDEO_CAPTURE, nullptr, {0}},
     kDefaultCaptureFlags,
     1,
     0,
     nullptr,
     IntersectHandler},
    {nullptr,
     nullptr,
     {0, nullptr, 0, nullptr, 2, g_bridgeRanges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_BRIDGE,
      &PINNAME_VIDEO_ANALOGVIDEOIN, nullptr, {0}},
     0,
     0,
     0,
     nullptr,
     nullptr},
};

// ---- filter --------------------------------------------------------------------------
void FreeBagItem(PVOID item) {
    ++g_recorder.bagItemsFreed;
    ExFreePoolWithTag(item, 'tsVK');
}

NTSTATUS FilterCreate(PKSFILTER filter, PIRP) {
    Record("FilterCreate");
    PVOID item = ExAllocatePoolWithTag(NonPagedPool, 32, 'tsVK');
    if (!item) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = KsAddItemToObjectBag(filter->Bag, item, FreeBagItem);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(item, 'tsVK');
        return status;
    }
    g_recorder.filter = filter;
    return STATUS_SUCCESS;
}

NTSTATUS FilterClose(PKSFILTER filter, PIRP) {
    Record("FilterClose");
    if (g_recorder.filter == filter) g_recorder.filter = nullptr;
    return STATUS_SUCCESS;
}

const KSFILTER_DISPATCH g_filterDispatch = {FilterCreate, FilterClose, nullptr, nullptr};

// The test property set.
void Note(PIRP irp) {
    ++g_recorder.propertyCalls;
    g_recorder.propertyIrql = KeGetCurrentIrql();
    g_recorder.valueReadFrom32bit = IoIs32bitProcess(irp) != FALSE;
}
NTSTATUS GetValue(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Note(irp);
    *static_cast<PLONG>(data) = g_recorder.propertyValue;
    irp->IoStatus.Information = sizeof(LONG);
    return STATUS_SUCCESS;
}
NTSTATUS SetValue(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Note(irp);
    g_recorder.propertyValue = *static_cast<PLONG>(data);
    return STATUS_SUCCESS;
}
NTSTATUS GetReadOnly(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Note(irp);
    *static_cast<PLONG>(data) = kTestReadOnlyValue;
    irp->IoStatus.Information = sizeof(LONG);
    return STATUS_SUCCESS;
}
// Answers its own size query, as driver handlers with MinData 0 do.
NTSTATUS GetBlob(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Note(irp);
    ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    irp->IoStatus.Information = kTestBlobSize;
    if (length == 0) return STATUS_BUFFER_OVERFLOW;
    if (length < kTestBlobSize) return STATUS_BUFFER_TOO_SMALL;
    for (ULONG i = 0; i < kTestBlobSize; ++i) static_cast<PUCHAR>(data)[i] = static_cast<UCHAR>(0xB0 + i);
    return STATUS_SUCCESS;
}
NTSTATUS GetGlobalInstances(PIRP irp, PKSIDENTIFIER, PVOID data) {
    *static_cast<PKSPIN_CINSTANCES>(data) = {kTestGlobalInstances, kTestGlobalInstances};
    irp->IoStatus.Information = sizeof(KSPIN_CINSTANCES);
    return STATUS_SUCCESS;
}

const KSPROPERTY_STEPPING_LONG g_valueStepping[] = {{1, 0, {{kTestValueMin, kTestValueMax}}}};
const KSPROPERTY_MEMBERSLIST g_valueMembers[] = {
    {{KSPROPERTY_MEMBER_STEPPEDRANGES, sizeof(KSPROPERTY_STEPPING_LONG), 1, 0}, g_valueStepping}};
const KSPROPERTY_VALUES g_valueValues = {{{{{STATIC_KSPROPTYPESETID_General}, VT_I4, 0}}}, 1, g_valueMembers};

DEFINE_KSPROPERTY_TABLE(g_testProperties){
    DEFINE_KSPROPERTY_ITEM(kTestPropertyValue, GetValue, sizeof(KSPROPERTY), sizeof(LONG), SetValue, &g_valueValues,
                           0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(kTestPropertyReadOnly, GetReadOnly, sizeof(KSPROPERTY), sizeof(LONG), nullptr, nullptr, 0,
                           nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(kTestPropertyBlob, GetBlob, sizeof(KSPROPERTY), 0, nullptr, nullptr, 0, nullptr, nullptr,
                           0),
    DEFINE_KSPROPERTY_ITEM(kTestPropertyNodeLike, GetReadOnly, sizeof(KSP_NODE), sizeof(LONG), nullptr, nullptr, 0,
                           nullptr, nullptr, 0),
};
DEFINE_KSPROPERTY_TABLE(g_pinOverride){
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_PIN_GLOBALCINSTANCES, GetGlobalInstances, sizeof(KSP_PIN),
                           sizeof(KSPIN_CINSTANCES), nullptr, nullptr, 0, nullptr, nullptr, 0),
};
DEFINE_KSPROPERTY_SET_TABLE(g_propertySets){
    DEFINE_KSPROPERTY_SET(&kTestPropertySet, SIZEOF_ARRAY(g_testProperties), g_testProperties, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Pin, SIZEOF_ARRAY(g_pinOverride), g_pinOverride, 0, nullptr),
};
DEFINE_KSEVENT_TABLE(g_testEvents){
    DEFINE_KSEVENT_ITEM(kTestEventTick, sizeof(KSEVENTDATA), 0, nullptr, nullptr, nullptr),
    DEFINE_KSEVENT_ITEM(kTestEventOther, sizeof(KSEVENTDATA), 16, nullptr, nullptr, nullptr),
};
DEFINE_KSEVENT_SET_TABLE(g_eventSets){
    DEFINE_KSEVENT_SET(&kTestEventSet, SIZEOF_ARRAY(g_testEvents), g_testEvents),
};
DEFINE_KSAUTOMATION_TABLE(g_filterAutomation){
    DEFINE_KSAUTOMATION_PROPERTIES(g_propertySets),
    DEFINE_KSAUTOMATION_METHODS_NULL,
    DEFINE_KSAUTOMATION_EVENTS(g_eventSets),
};

const GUID g_categories[] = {{STATIC_KSCATEGORY_CAPTURE}, {STATIC_KSCATEGORY_VIDEO}};

const KSFILTER_DESCRIPTOR g_filter = {
    &g_filterDispatch,
    &g_filterAutomation,
    KSFILTER_DESCRIPTOR_VERSION,
    0,
    &KSNAME_Filter,
    DEFINE_KSFILTER_PIN_DESCRIPTORS(g_pins),
    DEFINE_KSFILTER_CATEGORIES(g_categories),
    DEFINE_KSFILTER_NODE_DESCRIPTORS_NULL,
    DEFINE_KSFILTER_DEFAULT_CONNECTIONS,
    nullptr,
};

// ---- device ----------------------------------------------------------------------------
NTSTATUS DeviceAdd(PKSDEVICE device) {
    Record("Add");
    g_recorder.device = device;
    return STATUS_SUCCESS;
}

NTSTATUS DeviceStart(PKSDEVICE device, PIRP irp, PCM_RESOURCE_LIST, PCM_RESOURCE_LIST) {
    Record("Start");
    g_recorder.startHadIrp = irp != nullptr;
    g_recorder.startSawStartedFalse = !device->Started;
    if (g_recorder.failStart) return STATUS_UNSUCCESSFUL;
    KsAcquireDevice(device);
    PKSFILTERFACTORY factory = nullptr;
    NTSTATUS status = KsCreateFilterFactory(device->FunctionalDeviceObject, &g_filter,
                                            reinterpret_cast<PWSTR>(const_cast<char16_t*>(kReferenceString)),
                                            nullptr, KSCREATE_ITEM_FREEONSTOP, nullptr, nullptr, &factory);
    KsReleaseDevice(device);
    return status;
}

NTSTATUS DevicePostStart(PKSDEVICE) {
    Record("PostStart");
    return STATUS_SUCCESS;
}
NTSTATUS DeviceQueryStop(PKSDEVICE, PIRP) {
    Record("QueryStop");
    return g_recorder.failQueryStop ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}
void DeviceCancelStop(PKSDEVICE, PIRP) { Record("CancelStop"); }
void DeviceStop(PKSDEVICE, PIRP) { Record("Stop"); }  // KSCREATE_ITEM_FREEONSTOP: ks.sys frees the factory
NTSTATUS DeviceQueryRemove(PKSDEVICE, PIRP) {
    Record("QueryRemove");
    return g_recorder.failQueryRemove ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}
void DeviceCancelRemove(PKSDEVICE, PIRP) { Record("CancelRemove"); }
void DeviceRemove(PKSDEVICE, PIRP) { Record("Remove"); }
void DeviceSurpriseRemoval(PKSDEVICE, PIRP) { Record("SurpriseRemoval"); }
NTSTATUS DeviceQueryPower(PKSDEVICE, PIRP, DEVICE_POWER_STATE, DEVICE_POWER_STATE, SYSTEM_POWER_STATE systemTo,
                          SYSTEM_POWER_STATE, POWER_ACTION action) {
    Record("QueryPower");
    g_recorder.lastQueryPowerSystemTo = systemTo;
    g_recorder.lastQueryPowerAction = action;
    return STATUS_SUCCESS;
}
void DeviceSetPower(PKSDEVICE, PIRP, DEVICE_POWER_STATE to, DEVICE_POWER_STATE from) {
    Record("SetPower");
    g_recorder.lastSetPowerTo = to;
    g_recorder.lastSetPowerFrom = from;
}

const KSDEVICE_DISPATCH g_deviceDispatch = {
    DeviceAdd,          DeviceStart,       DevicePostStart,         DeviceQueryStop,       DeviceCancelStop,
    DeviceStop,         DeviceQueryRemove, DeviceCancelRemove,      DeviceRemove,          nullptr,
    DeviceSurpriseRemoval, DeviceQueryPower, DeviceSetPower,        nullptr,
};

const KSDEVICE_DESCRIPTOR g_device = {&g_deviceDispatch, 0, nullptr, KSDEVICE_DESCRIPTOR_VERSION};

}  // namespace

TestRecorder& Recorder() { return g_recorder; }
void ResetTestRecorder() {
    g_recorder = TestRecorder{};
    g_pins[kCapturePinId].Flags = kDefaultCaptureFlags;
}

void SetCapturePinFlags(ULONG flags) { g_pins[kCapturePinId].Flags = flags; }

NTSTATUS TestDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    return KsInitializeDriver(driver, registryPath, &g_device);
}

const KS_DATARANGE_VIDEO& TestRange(ULONG index) { return g_ranges[index]; }

KS_DATAFORMAT_VIDEOINFOHEADER MakeTestFormat(ULONG index) {
    KS_DATAFORMAT_VIDEOINFOHEADER f{};
    f.DataFormat = g_ranges[index].DataRange;
    f.DataFormat.FormatSize = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
    f.VideoInfoHeader = g_ranges[index].VideoInfoHeader;
    return f;
}

ULONG TestFrameBytes(ULONG index) { return static_cast<ULONG>(kRangeWidth[index] * kRangeHeight[index] * 2); }

void FireTestEvent(PKSFILTER filter, ULONG id) {
    KsFilterGenerateEvents(filter, &kTestEventSet, id, 0, nullptr, nullptr, nullptr);
}

}  // namespace kvtest::ks
