// Tests of the simulated ks.sys's property dispatch (sim/ks/automation*.cpp)
// with a filter built by hand in the test: an automation table of the test's
// own, the built-in KSPROPSETID_Pin / Topology / General sets answered from
// the filter descriptor, and IOCTL_KS_PROPERTY IRPs made by hand and sent
// straight to DispatchAutomationIoctl.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "../../sim/ks/automation.h"
#include "ksmedia.h"
#include "kvsim/io.h"
#include "kvsim/object.h"

// ---- the hand-made filter, its tables, and sending IRPs ------------------------------------------
namespace kvtest::ksauto {
using namespace kvsim::ks;

constexpr GUID kSet = {0x7e57a070, 0x1111, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
constexpr GUID kEventSet = {0x7e57a071, 0x1111, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
constexpr GUID kSubA = {0x7e57a0a0, 0x2222, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
constexpr GUID kSubB = {0x7e57a0b0, 0x2222, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
constexpr GUID kSubNone = {0x7e57a0c0, 0x2222, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
constexpr GUID kMajor = {0x7e57a0d0, 0x2222, 0x4c2e, {0x9b, 0x6f, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
enum : ULONG { kValueId = 0, kReadOnlyId = 1, kBlobId = 2, kNodeLikeId = 3 };
constexpr LONG kReadOnlyValue = 0x5150;
constexpr ULONG kBlobSize = 12;
constexpr LONG kValueMin = -10, kValueMax = 10;
constexpr ULONG kOverriddenCTypes = 99;
constexpr ULONG kIntersectFormatSize = 80;
enum : ULONG { kTickEvent = 0, kOtherEvent = 1 };

struct Log {
    ULONG calls = 0;
    LONG value = 0;
    KIRQL lastIrql = 0xFF;
    bool was32bit = false;
    ULONG intersectCalls = 0;
    PVOID intersectContext = nullptr;
    KSDATARANGE intersectMatching{};
};
inline Log g_log;
inline Log& HandlerLog() { return g_log; }
inline void ResetHandlerLog() { g_log = Log{}; }

inline void Note(PIRP irp) {
    ++g_log.calls;
    g_log.lastIrql = KeGetCurrentIrql();
    g_log.was32bit = IoIs32bitProcess(irp) != FALSE;
}

inline NTSTATUS GetValue(PIRP irp, PKSPROPERTY, PVOID data) {
    Note(irp);
    std::memcpy(data, &g_log.value, sizeof(LONG));
    irp->IoStatus.Information = sizeof(LONG);
    return STATUS_SUCCESS;
}
inline NTSTATUS SetValue(PIRP irp, PKSPROPERTY, PVOID data) {
    Note(irp);
    std::memcpy(&g_log.value, data, sizeof(LONG));
    return STATUS_SUCCESS;
}
inline NTSTATUS GetReadOnly(PIRP irp, PKSPROPERTY, PVOID data) {
    Note(irp);
    std::memcpy(data, &kReadOnlyValue, sizeof(LONG));
    irp->IoStatus.Information = sizeof(LONG);
    return STATUS_SUCCESS;
}
// Answers its own size query, as driver handlers with MinData 0 do.
inline NTSTATUS GetBlob(PIRP irp, PKSPROPERTY, PVOID data) {
    Note(irp);
    ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    irp->IoStatus.Information = kBlobSize;
    if (length == 0) return STATUS_BUFFER_OVERFLOW;
    if (length < kBlobSize) return STATUS_BUFFER_TOO_SMALL;
    auto* bytes = static_cast<UCHAR*>(data);
    for (ULONG i = 0; i < kBlobSize; ++i) bytes[i] = UCHAR(0xB0 + i);
    return STATUS_SUCCESS;
}
inline NTSTATUS GetCTypes(PIRP irp, PKSPROPERTY, PVOID data) {
    std::memcpy(data, &kOverriddenCTypes, sizeof(ULONG));
    irp->IoStatus.Information = sizeof(ULONG);
    return STATUS_SUCCESS;
}

inline const KSPROPERTY_STEPPING_LONG kValueStepping[] = {{1, 0, {{kValueMin, kValueMax}}}};
inline const KSPROPERTY_MEMBERSLIST kValueMembers[] = {
    {{KSPROPERTY_MEMBER_STEPPEDRANGES, sizeof(KSPROPERTY_STEPPING_LONG), 1, 0}, kValueStepping}};
inline const KSPROPERTY_VALUES kValueValues = {{{{{STATIC_KSPROPTYPESETID_General}, VT_I4, 0}}}, 1, kValueMembers};

inline const KSPROPERTY_ITEM kItems[] = {
    DEFINE_KSPROPERTY_ITEM(kValueId, GetValue, sizeof(KSPROPERTY), sizeof(LONG), SetValue, &kValueValues, 0, nullptr,
                           nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(kReadOnlyId, GetReadOnly, sizeof(KSPROPERTY), sizeof(LONG), nullptr, nullptr, 0, nullptr,
                           nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(kBlobId, GetBlob, sizeof(KSPROPERTY), 0, nullptr, nullptr, 0, nullptr, nullptr, 0),
    DEFINE_KSPROPERTY_ITEM(kNodeLikeId, GetReadOnly, sizeof(KSP_NODE), sizeof(LONG), nullptr, nullptr, 0, nullptr,
                           nullptr, 0),
};
inline const KSPROPERTY_ITEM kPinOverride[] = {
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_PIN_CTYPES, GetCTypes, sizeof(KSPROPERTY), sizeof(ULONG), nullptr, nullptr, 0,
                           nullptr, nullptr, 0),
};
inline const KSPROPERTY_SET kSets[] = {
    DEFINE_KSPROPERTY_SET(&kSet, SIZEOF_ARRAY(kItems), kItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&KSPROPSETID_Pin, SIZEOF_ARRAY(kPinOverride), kPinOverride, 0, nullptr),
};
inline const KSEVENT_ITEM kEvents[] = {
    DEFINE_KSEVENT_ITEM(kTickEvent, sizeof(KSEVENTDATA), 0, nullptr, nullptr, nullptr),
    DEFINE_KSEVENT_ITEM(kOtherEvent, sizeof(KSEVENTDATA), 16, nullptr, nullptr, nullptr),
};
inline const KSEVENT_SET kEventSets[] = {DEFINE_KSEVENT_SET(&kEventSet, SIZEOF_ARRAY(kEvents), kEvents)};
inline const KSAUTOMATION_TABLE kTable = {DEFINE_KSAUTOMATION_PROPERTIES(kSets), DEFINE_KSAUTOMATION_METHODS_NULL,
                                          DEFINE_KSAUTOMATION_EVENTS(kEventSets)};

inline KSDATARANGE MakeRange(const GUID& sub, ULONG formatSize = sizeof(KSDATARANGE)) {
    KSDATARANGE r{};
    r.FormatSize = formatSize;
    r.MajorFormat = kMajor;
    r.SubFormat = sub;
    r.Specifier = KSDATAFORMAT_SPECIFIER_NONE;
    return r;
}
// A range with 4 bytes of its own behind the header: FormatSize 68.
struct LongRange {
    KSDATARANGE range;
    ULONG extra;
};
inline KSDATARANGE g_rangeA = MakeRange(kSubA);
inline LongRange g_rangeB = {MakeRange(kSubB, 68), 0xABCD};
inline const PKSDATARANGE kCaptureRanges[] = {&g_rangeA, &g_rangeB.range};
inline KSDATARANGE g_bridgeRange = MakeRange(kSubNone);
inline const PKSDATARANGE kBridgeRanges[] = {&g_bridgeRange};

inline NTSTATUS Intersect(PVOID context, PIRP, PKSP_PIN, PKSDATARANGE, PKSDATARANGE matching, ULONG bufferSize,
                          PVOID data, PULONG dataSize) {
    ++g_log.intersectCalls;
    g_log.intersectContext = context;
    g_log.intersectMatching = *matching;
    *dataSize = kIntersectFormatSize;
    if (bufferSize == 0) return STATUS_BUFFER_OVERFLOW;
    if (bufferSize < kIntersectFormatSize) return STATUS_BUFFER_TOO_SMALL;
    std::memset(data, 0, kIntersectFormatSize);
    KSDATAFORMAT format = *matching;
    format.FormatSize = kIntersectFormatSize;
    std::memcpy(data, &format, sizeof format);
    return STATUS_SUCCESS;
}

inline const KSPIN_DESCRIPTOR_EX kPins[] = {
    {nullptr, nullptr,
     {0, nullptr, 0, nullptr, SIZEOF_ARRAY(kCaptureRanges), kCaptureRanges, KSPIN_DATAFLOW_OUT,
      KSPIN_COMMUNICATION_SINK, &PINNAME_VIDEO_CAPTURE, nullptr, {0}},
     0, 1, 0, nullptr, Intersect},
    {nullptr, nullptr,
     {0, nullptr, 0, nullptr, SIZEOF_ARRAY(kBridgeRanges), kBridgeRanges, KSPIN_DATAFLOW_IN,
      KSPIN_COMMUNICATION_BRIDGE, &PINNAME_VIDEO_ANALOGVIDEOIN, nullptr, {0}},
     0, 0, 0, nullptr, nullptr},
};
inline const GUID kCategories[] = {KSCATEGORY_VIDEO_CAMERA, KSCATEGORY_CAPTURE};
inline const KSFILTER_DESCRIPTOR kDescriptor = {
    nullptr, &kTable, KSFILTER_DESCRIPTOR_VERSION, 0, nullptr, DEFINE_KSFILTER_PIN_DESCRIPTORS(kPins),
    DEFINE_KSFILTER_CATEGORIES(kCategories), DEFINE_KSFILTER_NODE_DESCRIPTORS_NULL,
    DEFINE_KSFILTER_DEFAULT_CONNECTIONS, nullptr};

// A filter object as H7's code would make it, without a device behind it.
class FakeFilter {
public:
    FakeFilter() {
        filter_.pub.Descriptor = &kDescriptor;
        ObjectHeader& h = filter_.header;
        h.kind = ObjectKind::Filter;
        h.publicObject = &filter_;
        h.automationTable = kDescriptor.AutomationTable;
        h.fileObject = &file_;
        KeInitializeMutex(&h.controlMutex, 0);
        InitializeListHead(&h.eventList);
        KeInitializeSpinLock(&h.eventLock);
        file_.Type = IO_TYPE_FILE;
        file_.FsContext = &h;
    }
    ~FakeFilter() { AutomationObjectClosing(&filter_.header); }
    ObjectHeader* header() { return &filter_.header; }
    PFILE_OBJECT file() { return &file_; }
    KsFilter& filter() { return filter_; }

private:
    KsFilter filter_{};
    FILE_OBJECT file_{};
};

struct Result {
    NTSTATUS status;
    ULONG_PTR information;
};

inline NTSTATUS KeepIrp(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

// One METHOD_NEITHER KS ioctl as DeviceIoControl makes it, on `file`,
// dispatched by ks.sys's automation code; `fileForIrp` may differ from the
// object's own handle (another client's file object).
inline Result SendIoctl(ObjectHeader* object, PFILE_OBJECT file, ULONG code, const void* in, ULONG inLength, void* out,
                        ULONG outLength, bool from32bit = false) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    if (from32bit) kvsim::SetIrpFrom32bitProcess(irp, true);
    irp->RequestorMode = UserMode;
    irp->UserBuffer = out;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    sp->FileObject = file;
    sp->Parameters.DeviceIoControl.IoControlCode = code;
    sp->Parameters.DeviceIoControl.InputBufferLength = inLength;
    sp->Parameters.DeviceIoControl.OutputBufferLength = outLength;
    sp->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<void*>(in);
    IoSetCompletionRoutine(irp, KeepIrp, nullptr, TRUE, TRUE, TRUE);
    IoSetNextIrpStackLocation(irp);
    DispatchAutomationIoctl(irp, object);
    Result result{irp->IoStatus.Status, irp->IoStatus.Information};
    IoFreeIrp(irp);
    return result;
}

}  // namespace kvtest::ksauto

namespace kvsim::ks {
namespace {

using namespace kvtest::ksauto;

KSPROPERTY Prop(const GUID& set, ULONG id, ULONG flags) {
    KSPROPERTY p{};
    p.Set = set;
    p.Id = id;
    p.Flags = flags;
    return p;
}

KSP_PIN PinProp(ULONG id, ULONG pinId) {
    KSP_PIN p{};
    p.Property = Prop(KSPROPSETID_Pin, id, KSPROPERTY_TYPE_GET);
    p.PinId = pinId;
    return p;
}

class AutomationProperty : public ::testing::Test {
protected:
    void SetUp() override { ResetHandlerLog(); }
    FakeFilter filter_;
    Result Get(const void* request, ULONG requestLength, void* data, ULONG dataLength) {
        return SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_PROPERTY, request, requestLength, data, dataLength);
    }
};

TEST_F(AutomationProperty, UnknownSetIsPropertySetNotFoundAndUnknownIdIsNotFound) {
    const GUID unknown = {0x12345678, 0x1, 0x2, {3, 4, 5, 6, 7, 8, 9, 10}};
    KSPROPERTY p = Prop(unknown, 0, KSPROPERTY_TYPE_GET);
    LONG value = 0;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_PROPERTY_SET_NOT_FOUND);
    p = Prop(kSet, 77, KSPROPERTY_TYPE_GET);
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_NOT_FOUND);
    // A built-in set answers the same way for an id it lacks.
    p = Prop(KSPROPSETID_Topology, 55, KSPROPERTY_TYPE_GET);
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_NOT_FOUND);
}

TEST_F(AutomationProperty, GetAndSetReachTheHandlersWithTheCallersData) {
    KSPROPERTY p = Prop(kSet, kValueId, KSPROPERTY_TYPE_SET);
    LONG value = -42;
    Result r = Get(&p, sizeof p, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(HandlerLog().value, -42);
    EXPECT_EQ(HandlerLog().lastIrql, PASSIVE_LEVEL);
    p.Flags = KSPROPERTY_TYPE_GET;
    value = 0;
    r = Get(&p, sizeof p, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(LONG));
    EXPECT_EQ(value, -42);
}

TEST_F(AutomationProperty, ADirectionWithoutHandlerIsNotFound) {
    KSPROPERTY p = Prop(kSet, kReadOnlyId, KSPROPERTY_TYPE_SET);
    LONG value = 5;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_NOT_FOUND);
    EXPECT_EQ(HandlerLog().calls, 0u);
    p.Flags = KSPROPERTY_TYPE_GET;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_SUCCESS);
    EXPECT_EQ(value, kReadOnlyValue);
}

TEST_F(AutomationProperty, ShortRequestFailsTheMinPropertyCheck) {
    KSPROPERTY p = Prop(kSet, kNodeLikeId, KSPROPERTY_TYPE_GET);  // MinProperty is sizeof(KSP_NODE)
    LONG value = 0;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(HandlerLog().calls, 0u);
    // Shorter than any KSPROPERTY at all.
    EXPECT_EQ(Get(&p, sizeof(GUID), &value, sizeof value).status, STATUS_INVALID_BUFFER_SIZE);
    KSP_NODE node{};
    node.Property = p;
    EXPECT_EQ(Get(&node, sizeof node, &value, sizeof value).status, STATUS_SUCCESS);
}

TEST_F(AutomationProperty, MinDataSizeQueryThenShortBufferThenFill) {
    KSPROPERTY p = Prop(kSet, kValueId, KSPROPERTY_TYPE_GET);
    Result r = Get(&p, sizeof p, nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, sizeof(LONG));
    UCHAR two[2] = {};
    r = Get(&p, sizeof p, two, sizeof two);
    EXPECT_EQ(r.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(HandlerLog().calls, 0u);  // neither reached the handler
    LONG value = 0;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_SUCCESS);
    EXPECT_EQ(HandlerLog().calls, 1u);
}

TEST_F(AutomationProperty, HandlerSizeQueryReturnsItsInformation) {
    // The blob item has MinData 0: the handler answers the size query itself.
    KSPROPERTY p = Prop(kSet, kBlobId, KSPROPERTY_TYPE_GET);
    Result r = Get(&p, sizeof p, nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, kBlobSize);
    std::vector<UCHAR> blob(kBlobSize + 8, 0xEE);
    r = Get(&p, sizeof p, blob.data(), ULONG(blob.size()));
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, kBlobSize);
    for (ULONG i = 0; i < kBlobSize; ++i) EXPECT_EQ(blob[i], UCHAR(0xB0 + i)) << i;
    // Bytes past Information are not copied back.
    EXPECT_EQ(blob[kBlobSize], 0xEE);
}

TEST_F(AutomationProperty, BasicSupportReportsAccessAndValues) {
    KSPROPERTY p = Prop(kSet, kValueId, KSPROPERTY_TYPE_BASICSUPPORT);
    ULONG access = 0;
    Result r = Get(&p, sizeof p, &access, sizeof access);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(access, ULONG(KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET));
    p.Id = kReadOnlyId;
    Get(&p, sizeof p, &access, sizeof access);
    EXPECT_EQ(access, ULONG(KSPROPERTY_TYPE_GET));

    p.Id = kValueId;  // has a stepped range as its Values
    KSPROPERTY_DESCRIPTION header{};
    r = Get(&p, sizeof p, &header, sizeof header);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    ULONG full = sizeof(KSPROPERTY_DESCRIPTION) + sizeof(KSPROPERTY_MEMBERSHEADER) + sizeof(KSPROPERTY_STEPPING_LONG);
    EXPECT_EQ(header.DescriptionSize, full);
    EXPECT_EQ(header.MembersListCount, 1u);
    std::vector<UCHAR> all(full);
    r = Get(&p, sizeof p, all.data(), full);
    EXPECT_EQ(r.information, full);
    KSPROPERTY_STEPPING_LONG stepping;
    std::memcpy(&stepping, all.data() + sizeof(KSPROPERTY_DESCRIPTION) + sizeof(KSPROPERTY_MEMBERSHEADER),
                sizeof stepping);
    EXPECT_EQ(stepping.Bounds.SignedMinimum, kValueMin);
    EXPECT_EQ(stepping.Bounds.SignedMaximum, kValueMax);
}

TEST_F(AutomationProperty, SetSupportAnswersForKnownSetsOnly) {
    KSPROPERTY p = Prop(kSet, 0, KSPROPERTY_TYPE_SETSUPPORT);
    EXPECT_EQ(Get(&p, sizeof p, nullptr, 0).status, STATUS_SUCCESS);
    p.Set = KSPROPSETID_Topology;
    EXPECT_EQ(Get(&p, sizeof p, nullptr, 0).status, STATUS_SUCCESS);
    p.Set = KSPROPSETID_Connection;  // a pin set, not on a filter
    EXPECT_EQ(Get(&p, sizeof p, nullptr, 0).status, STATUS_PROPERTY_SET_NOT_FOUND);
}

TEST_F(AutomationProperty, ThirtyTwoBitCallerIsVisibleToTheHandler) {
    KSPROPERTY p = Prop(kSet, kValueId, KSPROPERTY_TYPE_GET);
    LONG value = 0;
    SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_PROPERTY, &p, sizeof p, &value, sizeof value, true);
    EXPECT_TRUE(HandlerLog().was32bit);
    SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_PROPERTY, &p, sizeof p, &value, sizeof value, false);
    EXPECT_FALSE(HandlerLog().was32bit);
}

// ---- built-in KSPROPSETID_Pin ----------------------------------------------------------------
TEST_F(AutomationProperty, MinidriverItemInABuiltinSetWinsTheMerge) {
    // The test table overrides KSPROPERTY_PIN_CTYPES; the other Pin items stay ks.sys's.
    KSPROPERTY p = Prop(KSPROPSETID_Pin, KSPROPERTY_PIN_CTYPES, KSPROPERTY_TYPE_GET);
    ULONG count = 0;
    EXPECT_EQ(Get(&p, sizeof p, &count, sizeof count).status, STATUS_SUCCESS);
    EXPECT_EQ(count, kOverriddenCTypes);
    KSP_PIN flow = PinProp(KSPROPERTY_PIN_DATAFLOW, 1);
    KSPIN_DATAFLOW dataFlow{};
    EXPECT_EQ(Get(&flow, sizeof flow, &dataFlow, sizeof dataFlow).status, STATUS_SUCCESS);
    EXPECT_EQ(dataFlow, KSPIN_DATAFLOW_IN);
}

TEST_F(AutomationProperty, PinIdIsValidated) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_DATAFLOW, 2);
    KSPIN_DATAFLOW dataFlow{};
    EXPECT_EQ(Get(&p, sizeof p, &dataFlow, sizeof dataFlow).status, STATUS_INVALID_PARAMETER);
}

TEST_F(AutomationProperty, CInstancesCountsOpenPins) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_CINSTANCES, 0);
    KSPIN_CINSTANCES ci{};
    EXPECT_EQ(Get(&p, sizeof p, &ci, sizeof ci).status, STATUS_SUCCESS);
    EXPECT_EQ(ci.PossibleCount, 1u);
    EXPECT_EQ(ci.CurrentCount, 0u);
    filter_.filter().pinInstanceCounts = {1, 0};
    Get(&p, sizeof p, &ci, sizeof ci);
    EXPECT_EQ(ci.CurrentCount, 1u);
    KSP_PIN n = PinProp(KSPROPERTY_PIN_NECESSARYINSTANCES, 1);
    ULONG necessary = 99;
    Get(&n, sizeof n, &necessary, sizeof necessary);
    EXPECT_EQ(necessary, 0u);
}

TEST_F(AutomationProperty, DataRangesAreAListOfEightByteAlignedRanges) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_DATARANGES, 0);
    Result r = Get(&p, sizeof p, nullptr, 0);
    ULONG expected = sizeof(KSMULTIPLE_ITEM) + sizeof(KSDATARANGE) + 72;  // 68 rounded up
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, expected);
    ULONG size = 0;
    r = Get(&p, sizeof p, &size, sizeof size);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(size, expected);
    std::vector<UCHAR> list(expected);
    r = Get(&p, sizeof p, list.data(), expected - 1);
    EXPECT_EQ(r.status, STATUS_BUFFER_TOO_SMALL);
    r = Get(&p, sizeof p, list.data(), expected);
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    KSMULTIPLE_ITEM header;
    std::memcpy(&header, list.data(), sizeof header);
    EXPECT_EQ(header.Size, expected);
    EXPECT_EQ(header.Count, 2u);
    KSDATARANGE first, second;
    std::memcpy(&first, list.data() + 8, sizeof first);
    std::memcpy(&second, list.data() + 8 + sizeof(KSDATARANGE), sizeof second);
    EXPECT_EQ(first.FormatSize, sizeof(KSDATARANGE));
    EXPECT_TRUE(IsEqualGUID(first.SubFormat, kSubA));
    EXPECT_EQ(second.FormatSize, 68u);
    EXPECT_TRUE(IsEqualGUID(second.SubFormat, kSubB));
}

TEST_F(AutomationProperty, CategoryNameAndCommunicationComeFromTheDescriptor) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_CATEGORY, 0);
    GUID category{};
    EXPECT_EQ(Get(&p, sizeof p, &category, sizeof category).status, STATUS_SUCCESS);
    EXPECT_TRUE(IsEqualGUID(category, PINNAME_VIDEO_CAPTURE));
    p = PinProp(KSPROPERTY_PIN_CATEGORY, 1);
    Get(&p, sizeof p, &category, sizeof category);
    EXPECT_TRUE(IsEqualGUID(category, PINNAME_VIDEO_ANALOGVIDEOIN));

    p = PinProp(KSPROPERTY_PIN_NAME, 0);  // no Name: the category's name
    Result r = Get(&p, sizeof p, nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, sizeof(u"Capture"));
    char16_t name[16] = {};
    r = Get(&p, sizeof p, name, sizeof name);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"Capture");

    p = PinProp(KSPROPERTY_PIN_COMMUNICATION, 1);
    KSPIN_COMMUNICATION communication{};
    Get(&p, sizeof p, &communication, sizeof communication);
    EXPECT_EQ(communication, KSPIN_COMMUNICATION_BRIDGE);

    p = PinProp(KSPROPERTY_PIN_INTERFACES, 0);  // none declared: standard streaming
    UCHAR interfaces[sizeof(KSMULTIPLE_ITEM) + sizeof(KSPIN_INTERFACE)] = {};
    r = Get(&p, sizeof p, interfaces, sizeof interfaces);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    KSPIN_INTERFACE standard;
    std::memcpy(&standard, interfaces + sizeof(KSMULTIPLE_ITEM), sizeof standard);
    EXPECT_TRUE(IsEqualGUID(standard.Set, KSINTERFACESETID_Standard));
    EXPECT_EQ(standard.Id, ULONG(KSINTERFACE_STANDARD_STREAMING));
}

// A KSP_PIN followed by a KSMULTIPLE_ITEM of the given ranges (8-aligned).
std::vector<UCHAR> IntersectionRequest(ULONG pinId, const std::vector<KSDATARANGE>& ranges) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_DATAINTERSECTION, pinId);
    std::vector<UCHAR> bytes(sizeof p + sizeof(KSMULTIPLE_ITEM) + ranges.size() * sizeof(KSDATARANGE));
    std::memcpy(bytes.data(), &p, sizeof p);
    KSMULTIPLE_ITEM header{ULONG(sizeof(KSMULTIPLE_ITEM) + ranges.size() * sizeof(KSDATARANGE)), ULONG(ranges.size())};
    std::memcpy(bytes.data() + sizeof p, &header, sizeof header);
    std::memcpy(bytes.data() + sizeof p + sizeof header, ranges.data(), ranges.size() * sizeof(KSDATARANGE));
    return bytes;
}

TEST_F(AutomationProperty, DataIntersectionSizeQueryThenFillThroughTheIntersectHandler) {
    // The caller offers a range the pin lacks, then one matching range B.
    std::vector<UCHAR> request = IntersectionRequest(0, {MakeRange(kSubNone), MakeRange(kSubB)});
    Result r = Get(request.data(), ULONG(request.size()), nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, kIntersectFormatSize);
    std::vector<UCHAR> format(kIntersectFormatSize);
    r = Get(request.data(), ULONG(request.size()), format.data(), ULONG(format.size()));
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, kIntersectFormatSize);
    KSDATAFORMAT answer;
    std::memcpy(&answer, format.data(), sizeof answer);
    EXPECT_TRUE(IsEqualGUID(answer.SubFormat, kSubB));
    // The handler saw the filter as its context and the matching pin range.
    EXPECT_EQ(HandlerLog().intersectContext, &filter_.filter().pub);
    EXPECT_TRUE(IsEqualGUID(HandlerLog().intersectMatching.SubFormat, kSubB));
}

TEST_F(AutomationProperty, DataIntersectionWithoutAMatchIsNoMatch) {
    std::vector<UCHAR> request = IntersectionRequest(0, {MakeRange(kSubNone)});
    UCHAR buffer[128];
    EXPECT_EQ(Get(request.data(), ULONG(request.size()), buffer, sizeof buffer).status, STATUS_NO_MATCH);
    EXPECT_EQ(HandlerLog().intersectCalls, 0u);
}

// ---- built-in Topology and General ---------------------------------------------------------
TEST_F(AutomationProperty, TopologyCategoriesInDescriptorOrder) {
    KSPROPERTY p = Prop(KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CATEGORIES, KSPROPERTY_TYPE_GET);
    UCHAR list[sizeof(KSMULTIPLE_ITEM) + 2 * sizeof(GUID)] = {};
    Result r = Get(&p, sizeof p, list, sizeof list);
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    GUID first, second;
    std::memcpy(&first, list + 8, sizeof first);
    std::memcpy(&second, list + 8 + sizeof(GUID), sizeof second);
    EXPECT_TRUE(IsEqualGUID(first, KSCATEGORY_VIDEO_CAMERA));
    EXPECT_TRUE(IsEqualGUID(second, KSCATEGORY_CAPTURE));
}

TEST_F(AutomationProperty, DefaultTopologyConnectsInputPinsToOutputPins) {
    KSPROPERTY p = Prop(KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CONNECTIONS, KSPROPERTY_TYPE_GET);
    UCHAR list[sizeof(KSMULTIPLE_ITEM) + sizeof(KSTOPOLOGY_CONNECTION)] = {};
    Result r = Get(&p, sizeof p, list, sizeof list);
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    KSTOPOLOGY_CONNECTION c;
    std::memcpy(&c, list + 8, sizeof c);
    EXPECT_EQ(c.FromNode, KSFILTER_NODE);
    EXPECT_EQ(c.FromNodePin, 1u);
    EXPECT_EQ(c.ToNode, KSFILTER_NODE);
    EXPECT_EQ(c.ToNodePin, 0u);
}

TEST_F(AutomationProperty, ComponentIdIsNotFoundWithoutOne) {
    KSPROPERTY p = Prop(KSPROPSETID_General, 0, KSPROPERTY_TYPE_GET);
    KSCOMPONENTID id{};
    EXPECT_EQ(Get(&p, sizeof p, &id, sizeof id).status, STATUS_NOT_FOUND);
}

}  // namespace
}  // namespace kvsim::ks

// ---- events -------------------------------------------------------------------------------------
namespace kvsim::ks {
namespace {

using namespace kvtest::ksauto;

// A client's event object: a KEVENT registered with the object manager and a
// handle to it, as a user-mode CreateEvent gives one.
class ClientEvent {
public:
    ClientEvent() {
        KeInitializeEvent(&event_, NotificationEvent, FALSE);
        kvsim::ObRegisterObject(&event_, *ExEventObjectType, [](void*) {});
        handle_ = kvsim::ObInsertHandle(&event_);
        data_.NotificationType = KSEVENTF_EVENT_HANDLE;
        data_.EventHandle.Event = handle_;
    }
    ~ClientEvent() {
        ZwClose(handle_);
        ObDereferenceObject(&event_);
    }
    bool Signalled() { return KeReadStateEvent(&event_) != 0; }
    void Reset() { KeClearEvent(&event_); }
    KSEVENTDATA* data() { return &data_; }

private:
    KEVENT event_;
    HANDLE handle_ = nullptr;
    KSEVENTDATA data_{};
};

KSEVENT EventRequest(const GUID& set, ULONG id, ULONG flags) {
    KSEVENT e{};
    e.Set = set;
    e.Id = id;
    e.Flags = flags;
    return e;
}

class AutomationEvents : public ::testing::Test {
protected:
    FakeFilter filter_;
    FILE_OBJECT otherClient_{};  // a second handle on the same filter
    void SetUp() override { otherClient_.FsContext = filter_.header(); }
    NTSTATUS Enable(PFILE_OBJECT file, ClientEvent& client, ULONG id = kTickEvent,
                    ULONG flags = KSEVENT_TYPE_ENABLE) {
        KSEVENT e = EventRequest(kEventSet, id, flags);
        return SendIoctl(filter_.header(), file, IOCTL_KS_ENABLE_EVENT, &e, sizeof e, client.data(),
                         sizeof(KSEVENTDATA))
            .status;
    }
    NTSTATUS Disable(PFILE_OBJECT file, ClientEvent& client) {
        return SendIoctl(filter_.header(), file, IOCTL_KS_DISABLE_EVENT, client.data(), sizeof(KSEVENTDATA), nullptr,
                         0)
            .status;
    }
    void Generate(ULONG id = kTickEvent) { GenerateEvents(filter_.header(), &kEventSet, id, nullptr, nullptr); }
};

TEST_F(AutomationEvents, GeneratedEventReachesTheEnabledClientAndNotTheDisabledOne) {
    ClientEvent a, b;
    ASSERT_EQ(Enable(filter_.file(), a), STATUS_SUCCESS);
    ASSERT_EQ(Enable(&otherClient_, b), STATUS_SUCCESS);
    EXPECT_EQ(EnabledEventCount(), 2u);
    EXPECT_EQ(Disable(&otherClient_, b), STATUS_SUCCESS);
    EXPECT_EQ(EnabledEventCount(), 1u);
    Generate();
    EXPECT_TRUE(a.Signalled());
    EXPECT_FALSE(b.Signalled());
    EXPECT_EQ(Disable(filter_.file(), a), STATUS_SUCCESS);
}

TEST_F(AutomationEvents, OnlyTheGeneratedIdIsSignalled) {
    ClientEvent tick, other;
    ASSERT_EQ(Enable(filter_.file(), tick, kTickEvent), STATUS_SUCCESS);
    ASSERT_EQ(Enable(filter_.file(), other, kOtherEvent), STATUS_SUCCESS);
    Generate(kOtherEvent);
    EXPECT_FALSE(tick.Signalled());
    EXPECT_TRUE(other.Signalled());
}

TEST_F(AutomationEvents, GenerateWorksAtDispatchLevel) {
    ClientEvent a;
    ASSERT_EQ(Enable(filter_.file(), a), STATUS_SUCCESS);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    Generate();
    KeLowerIrql(old);
    EXPECT_TRUE(a.Signalled());
}

TEST_F(AutomationEvents, OneShotEventFiresOnce) {
    ClientEvent a;
    ASSERT_EQ(Enable(filter_.file(), a, kTickEvent, KSEVENT_TYPE_ONESHOT), STATUS_SUCCESS);
    Generate();
    EXPECT_TRUE(a.Signalled());
    a.Reset();
    Generate();
    EXPECT_FALSE(a.Signalled());
}

TEST_F(AutomationEvents, EnableFailuresHaveTheirStatuses) {
    ClientEvent a;
    const GUID unknown = {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}};
    KSEVENT e = EventRequest(unknown, kTickEvent, KSEVENT_TYPE_ENABLE);
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, a.data(),
                        sizeof(KSEVENTDATA))
                  .status,
              STATUS_PROPERTY_SET_NOT_FOUND);
    EXPECT_EQ(Enable(filter_.file(), a, 42), STATUS_NOT_FOUND);
    e = EventRequest(kEventSet, kTickEvent, KSEVENT_TYPE_ENABLE);
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, a.data(), 8).status,
              STATUS_BUFFER_TOO_SMALL);
    KSEVENTDATA bad{};
    bad.NotificationType = KSEVENTF_EVENT_HANDLE;
    bad.EventHandle.Event = reinterpret_cast<HANDLE>(0x7777);
    EXPECT_FALSE(NT_SUCCESS(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &bad,
                                      sizeof bad)
                                .status));
    // Kernel pointers are not taken from user mode.
    KSEVENTDATA object{};
    object.NotificationType = KSEVENTF_EVENT_OBJECT;
    object.EventObject.Event = &bad;
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &object,
                        sizeof object)
                  .status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(EnabledEventCount(), 0u);
    EXPECT_EQ(Disable(filter_.file(), a), STATUS_UNSUCCESSFUL);
}

TEST_F(AutomationEvents, DisablingNeedsTheSameClient) {
    ClientEvent a;
    ASSERT_EQ(Enable(filter_.file(), a), STATUS_SUCCESS);
    EXPECT_EQ(Disable(&otherClient_, a), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_DISABLE_EVENT, nullptr, 0, nullptr, 0).status,
              STATUS_SUCCESS);  // no input: all of this client's events
    EXPECT_EQ(EnabledEventCount(), 0u);
}

TEST(AutomationEventsClose, ClosingTheObjectDisablesItsEvents) {
    ClientEvent a;
    {
        FakeFilter filter;
        KSEVENT e = EventRequest(kEventSet, kTickEvent, KSEVENT_TYPE_ENABLE);
        ASSERT_EQ(SendIoctl(filter.header(), filter.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, a.data(),
                            sizeof(KSEVENTDATA))
                      .status,
                  STATUS_SUCCESS);
        EXPECT_EQ(EnabledEventCount(), 1u);
    }  // AutomationObjectClosing
    EXPECT_EQ(EnabledEventCount(), 0u);
}

TEST_F(AutomationEvents, SupportQueries) {
    ClientEvent a;
    KSEVENT e = EventRequest(kEventSet, 0, KSEVENT_TYPE_SETSUPPORT);
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, nullptr, 0).status,
              STATUS_SUCCESS);
    e = EventRequest(kEventSet, kOtherEvent, KSEVENT_TYPE_BASICSUPPORT);
    EXPECT_EQ(SendIoctl(filter_.header(), filter_.file(), IOCTL_KS_ENABLE_EVENT, &e, sizeof e, nullptr, 0).status,
              STATUS_SUCCESS);
    EXPECT_EQ(EnabledEventCount(), 0u);
}

}  // namespace
}  // namespace kvsim::ks
