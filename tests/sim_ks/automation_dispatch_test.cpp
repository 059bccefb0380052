// The simulated ks.sys's property and event dispatch (sim/ks/automation*.cpp)
// on the test minidriver's filter, through IOCTL_KS_PROPERTY,
// IOCTL_KS_ENABLE_EVENT and IOCTL_KS_DISABLE_EVENT as a client sends them:
// the minidriver's automation table (a property read "as a 32-bit caller"
// reaching its handler with IoIs32bitProcess(Irp) TRUE), and the built-in
// KSPROPSETID_Pin / Topology / General sets answered from the filter
// descriptor.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-iois32bitprocess
#include <algorithm>
#include <cstring>
#include <vector>

#include "../../sim/ks/automation.h"
#include "kvsim/object.h"
#include "kvsim/sched.h"
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

using kvsim::client::IoResult;

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

class Automation : public KsTest {
protected:
    void SetUp() override {
        KsTest::SetUp();
        if (HasFatalFailure()) return;
        AddAndStart();
        if (HasFatalFailure()) return;
        OpenFilter();
    }
    IoResult Get(const void* request, ULONG requestLength, void* data, ULONG dataLength) {
        return filter_->PropertyRaw(request, requestLength, data, dataLength);
    }
};

// Requests ks.sys refuses itself, before any handler of the minidriver runs:
// unknown sets and ids, a direction the item has no handler for, a request
// shorter than the item's MinProperty (or than any KSPROPERTY), and a data
// buffer shorter than its MinData (a zero-length one asks for the size).
TEST_F(Automation, RefusedRequestsHaveTheirStatusesAndNeverReachAHandler) {
    const GUID unknown = {0x12345678, 0x1, 0x2, {3, 4, 5, 6, 7, 8, 9, 10}};
    struct Row {
        GUID set;
        ULONG id, flags, requestSize, dataSize;
        NTSTATUS status;
        ULONG information;  // checked when not 0
    };
    const ULONG get = KSPROPERTY_TYPE_GET, request = sizeof(KSPROPERTY), four = sizeof(LONG);
    const Row rows[] = {
        {unknown, 0, get, request, four, STATUS_PROPERTY_SET_NOT_FOUND, 0},
        {kTestPropertySet, 77, get, request, four, STATUS_NOT_FOUND, 0},
        {KSPROPSETID_Topology, 55, get, request, four, STATUS_NOT_FOUND, 0},  // a built-in set likewise
        {kTestPropertySet, kTestPropertyReadOnly, KSPROPERTY_TYPE_SET, request, four, STATUS_NOT_FOUND, 0},
        {kTestPropertySet, kTestPropertyNodeLike, get, request, four, STATUS_INVALID_PARAMETER, 0},  // needs a KSP_NODE
        {kTestPropertySet, kTestPropertyNodeLike, get, sizeof(GUID), four, STATUS_INVALID_BUFFER_SIZE, 0},
        {kTestPropertySet, kTestPropertyValue, get, request, 0, STATUS_BUFFER_OVERFLOW, sizeof(LONG)},
        {kTestPropertySet, kTestPropertyValue, get, request, 2, STATUS_BUFFER_TOO_SMALL, 0},
        {KSPROPSETID_Connection, 0, KSPROPERTY_TYPE_SETSUPPORT, request, 0, STATUS_PROPERTY_SET_NOT_FOUND, 0},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row& row = rows[i];
        KSP_NODE node{};  // room for the longest request
        node.Property = Prop(row.set, row.id, row.flags);
        LONG value = 5;
        IoResult r = Get(&node, row.requestSize, row.dataSize ? &value : nullptr, row.dataSize);
        EXPECT_EQ(r.status, row.status) << "row " << i;
        if (row.information) { EXPECT_EQ(r.information, row.information) << "row " << i; }
    }
    EXPECT_EQ(Recorder().propertyCalls, 0u);
}

TEST_F(Automation, GetAndSetReachTheHandlersWithTheCallersData) {
    KSPROPERTY p = Prop(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_SET);
    LONG value = -42;
    IoResult r = Get(&p, sizeof p, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(Recorder().propertyValue, -42);
    EXPECT_EQ(Recorder().propertyIrql, PASSIVE_LEVEL);
    p.Flags = KSPROPERTY_TYPE_GET;
    value = 0;
    r = Get(&p, sizeof p, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(LONG));
    EXPECT_EQ(value, -42);
    EXPECT_FALSE(Recorder().valueReadFrom32bit);
    // A WOW64 application's read reaches the handler with IoIs32bitProcess TRUE.
    value = 0;
    r = filter_->Property(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_GET, &value, sizeof value, nullptr, 0,
                          /*as32bit=*/true);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(value, -42);
    EXPECT_TRUE(Recorder().valueReadFrom32bit);
    // A read-only item's get, and an item whose request is a KSP_NODE.
    p.Id = kTestPropertyReadOnly;
    EXPECT_EQ(Get(&p, sizeof p, &value, sizeof value).status, STATUS_SUCCESS);
    EXPECT_EQ(value, kTestReadOnlyValue);
    KSP_NODE node{};
    node.Property = Prop(kTestPropertySet, kTestPropertyNodeLike, KSPROPERTY_TYPE_GET);
    EXPECT_EQ(Get(&node, sizeof node, &value, sizeof value).status, STATUS_SUCCESS);
    EXPECT_EQ(Recorder().propertyCalls, 5u);
    // Set support of the minidriver's set and of a built-in one.
    p = Prop(kTestPropertySet, 0, KSPROPERTY_TYPE_SETSUPPORT);
    EXPECT_EQ(Get(&p, sizeof p, nullptr, 0).status, STATUS_SUCCESS);
    p.Set = KSPROPSETID_Topology;
    EXPECT_EQ(Get(&p, sizeof p, nullptr, 0).status, STATUS_SUCCESS);
}

TEST_F(Automation, HandlerSizeQueryReturnsItsInformation) {
    // The blob item has MinData 0: the handler answers the size query itself.
    KSPROPERTY p = Prop(kTestPropertySet, kTestPropertyBlob, KSPROPERTY_TYPE_GET);
    IoResult r = Get(&p, sizeof p, nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, kTestBlobSize);
    std::vector<UCHAR> blob(kTestBlobSize + 8, 0xEE);
    r = Get(&p, sizeof p, blob.data(), ULONG(blob.size()));
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, kTestBlobSize);
    for (ULONG i = 0; i < kTestBlobSize; ++i) EXPECT_EQ(blob[i], UCHAR(0xB0 + i)) << i;
    // Bytes past Information are not copied back.
    EXPECT_EQ(blob[kTestBlobSize], 0xEE);
}

TEST_F(Automation, BasicSupportReportsAccessAndValues) {
    KSPROPERTY p = Prop(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_BASICSUPPORT);
    ULONG access = 0;
    IoResult r = Get(&p, sizeof p, &access, sizeof access);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(access, ULONG(KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET));
    p.Id = kTestPropertyReadOnly;
    Get(&p, sizeof p, &access, sizeof access);
    EXPECT_EQ(access, ULONG(KSPROPERTY_TYPE_GET));

    p.Id = kTestPropertyValue;  // has a stepped range as its Values
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
    EXPECT_EQ(stepping.Bounds.SignedMinimum, kTestValueMin);
    EXPECT_EQ(stepping.Bounds.SignedMaximum, kTestValueMax);
}

// ---- built-in KSPROPSETID_Pin ----------------------------------------------------------------
TEST_F(Automation, MinidriverItemInABuiltinSetWinsTheMerge) {
    // The minidriver overrides KSPROPERTY_PIN_GLOBALCINSTANCES; the other Pin items stay ks.sys's.
    KSP_PIN global = PinProp(KSPROPERTY_PIN_GLOBALCINSTANCES, kCapturePinId);
    KSPIN_CINSTANCES ci{};
    EXPECT_EQ(Get(&global, sizeof global, &ci, sizeof ci).status, STATUS_SUCCESS);
    EXPECT_EQ(ci.PossibleCount, kTestGlobalInstances);
    KSP_PIN flow = PinProp(KSPROPERTY_PIN_DATAFLOW, kBridgePinId);
    KSPIN_DATAFLOW dataFlow{};
    EXPECT_EQ(Get(&flow, sizeof flow, &dataFlow, sizeof dataFlow).status, STATUS_SUCCESS);
    EXPECT_EQ(dataFlow, KSPIN_DATAFLOW_IN);
    // A pin id the descriptor lacks.
    flow = PinProp(KSPROPERTY_PIN_DATAFLOW, kPinCount);
    EXPECT_EQ(Get(&flow, sizeof flow, &dataFlow, sizeof dataFlow).status, STATUS_INVALID_PARAMETER);
}

TEST_F(Automation, DataRangesAreAListOfEightByteAlignedRanges) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_DATARANGES, kBridgePinId);
    IoResult r = Get(&p, sizeof p, nullptr, 0);
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
    EXPECT_TRUE(IsEqualGUID(first.MajorFormat, KSDATAFORMAT_TYPE_ANALOGVIDEO));
    EXPECT_EQ(second.FormatSize, 68u);
    ULONG extra = 0;
    std::memcpy(&extra, list.data() + 8 + 2 * sizeof(KSDATARANGE), sizeof extra);
    EXPECT_EQ(extra, 0xABCDu);  // the range's own bytes come along
}

// What ks.sys answers for what the descriptor leaves out. (Category, data
// flow, communication and instances straight from the descriptor: the
// driver's filter_test on kvdrv's pins.)
TEST_F(Automation, PinNameAndInterfacesDefaultWhenTheDescriptorHasNone) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_NAME, kCapturePinId);  // no Name: the category's name
    IoResult r = Get(&p, sizeof p, nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, sizeof(u"Capture"));
    char16_t name[16] = {};
    r = Get(&p, sizeof p, name, sizeof name);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"Capture");

    p = PinProp(KSPROPERTY_PIN_INTERFACES, kCapturePinId);  // none declared: standard streaming
    UCHAR interfaces[sizeof(KSMULTIPLE_ITEM) + sizeof(KSPIN_INTERFACE)] = {};
    r = Get(&p, sizeof p, interfaces, sizeof interfaces);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    KSPIN_INTERFACE standard;
    std::memcpy(&standard, interfaces + sizeof(KSMULTIPLE_ITEM), sizeof standard);
    EXPECT_TRUE(IsEqualGUID(standard.Set, KSINTERFACESETID_Standard));
    EXPECT_EQ(standard.Id, ULONG(KSINTERFACE_STANDARD_STREAMING));
}

// A KSP_PIN followed by a KSMULTIPLE_ITEM of video ranges with the given
// subformats (plain KSDATARANGEs, 8-aligned).
std::vector<UCHAR> IntersectionRequest(ULONG pinId, const std::vector<GUID>& subformats) {
    KSP_PIN p = PinProp(KSPROPERTY_PIN_DATAINTERSECTION, pinId);
    std::vector<KSDATARANGE> ranges;
    for (const GUID& sub : subformats) {
        KSDATARANGE r{};
        r.FormatSize = sizeof r;
        r.MajorFormat = KSDATAFORMAT_TYPE_VIDEO;
        r.SubFormat = sub;
        r.Specifier = KSDATAFORMAT_SPECIFIER_VIDEOINFO;
        ranges.push_back(r);
    }
    std::vector<UCHAR> bytes(sizeof p + sizeof(KSMULTIPLE_ITEM) + ranges.size() * sizeof(KSDATARANGE));
    std::memcpy(bytes.data(), &p, sizeof p);
    KSMULTIPLE_ITEM header{ULONG(sizeof(KSMULTIPLE_ITEM) + ranges.size() * sizeof(KSDATARANGE)), ULONG(ranges.size())};
    std::memcpy(bytes.data() + sizeof p, &header, sizeof header);
    std::memcpy(bytes.data() + sizeof p + sizeof header, ranges.data(), ranges.size() * sizeof(KSDATARANGE));
    return bytes;
}

size_t IntersectCalls() { return std::count(Recorder().calls.begin(), Recorder().calls.end(), "Intersect"); }

TEST_F(Automation, DataIntersectionSizeQueryThenFillThroughTheIntersectHandlerOrNoMatch) {
    // The caller offers a range the pin lacks (MJPG), then a YUY2 one.
    std::vector<UCHAR> request =
        IntersectionRequest(kCapturePinId, {KSDATAFORMAT_SUBTYPE_MJPG, KSDATAFORMAT_SUBTYPE_YUY2});
    IoResult r = Get(request.data(), ULONG(request.size()), nullptr, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(r.information, sizeof(KS_DATAFORMAT_VIDEOINFOHEADER));
    std::vector<UCHAR> format(sizeof(KS_DATAFORMAT_VIDEOINFOHEADER));
    r = Get(request.data(), ULONG(request.size()), format.data(), ULONG(format.size()));
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(KS_DATAFORMAT_VIDEOINFOHEADER));
    // The pin's first matching range answered.
    KS_DATAFORMAT_VIDEOINFOHEADER expected = MakeTestFormat(0);
    EXPECT_EQ(std::memcmp(format.data(), &expected, sizeof expected), 0);
    // The handler saw the filter as its context.
    EXPECT_EQ(Recorder().intersectContext, Recorder().filter);
    // Offered nothing the pin has: no match, and the handler is not called.
    size_t calls = IntersectCalls();
    request = IntersectionRequest(kCapturePinId, {KSDATAFORMAT_SUBTYPE_MJPG});
    EXPECT_EQ(Get(request.data(), ULONG(request.size()), format.data(), ULONG(format.size())).status, STATUS_NO_MATCH);
    EXPECT_EQ(IntersectCalls(), calls);
}

// ---- built-in Topology and General ---------------------------------------------------------
// (The categories in descriptor order: the driver's filter_test.)
TEST_F(Automation, TopologyDefaultConnectionsGoFromInputsToOutputs) {
    KSPROPERTY p = Prop(KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CONNECTIONS, KSPROPERTY_TYPE_GET);
    UCHAR connections[sizeof(KSMULTIPLE_ITEM) + sizeof(KSTOPOLOGY_CONNECTION)] = {};
    IoResult r = Get(&p, sizeof p, connections, sizeof connections);
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    KSTOPOLOGY_CONNECTION c;
    std::memcpy(&c, connections + 8, sizeof c);
    EXPECT_EQ(c.FromNode, KSFILTER_NODE);
    EXPECT_EQ(c.FromNodePin, kBridgePinId);
    EXPECT_EQ(c.ToNode, KSFILTER_NODE);
    EXPECT_EQ(c.ToNodePin, kCapturePinId);

    // No component id in the descriptor.
    p = Prop(KSPROPSETID_General, 0, KSPROPERTY_TYPE_GET);
    KSCOMPONENTID id{};
    EXPECT_EQ(Get(&p, sizeof p, &id, sizeof id).status, STATUS_NOT_FOUND);
}

// ---- events -------------------------------------------------------------------------------------
class AutomationEvents : public Automation {
protected:
    NTSTATUS Enable(kvsim::client::KsObject& object, const kvsim::client::EventWaiter& waiter, ULONG id, ULONG flags) {
        KSEVENT e{};
        e.Set = kTestEventSet;
        e.Id = id;
        e.Flags = flags;
        KSEVENTDATA data = waiter.eventData();
        return object.Ioctl(IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &data, sizeof data).status;
    }
    NTSTATUS Disable(kvsim::client::KsObject& object, const kvsim::client::EventWaiter& waiter) {
        KSEVENTDATA data = waiter.eventData();
        return object.Ioctl(IOCTL_KS_DISABLE_EVENT, &data, sizeof data, nullptr, 0).status;
    }
    // A second client's handle on the same filter.
    std::unique_ptr<kvsim::client::Filter> Second() {
        std::unique_ptr<kvsim::client::Filter> second;
        EXPECT_EQ(kvsim::client::Filter::Open(filter_->where(), &second), STATUS_SUCCESS);
        return second;
    }
    // The filter the minidriver sees for filter_ (the second open replaces Recorder().filter).
    PKSFILTER filter() { return KsGetFilterFromFileObject(filter_->fileObject()); }
};

TEST_F(AutomationEvents, GeneratedEventReachesTheEnabledClientAndNotTheDisabledOne) {
    auto other = Second();
    ASSERT_TRUE(other);
    kvsim::client::EventWaiter a, b;
    ASSERT_EQ(a.Enable(*filter_, kTestEventSet, kTestEventTick), STATUS_SUCCESS);
    ASSERT_EQ(b.Enable(*other, kTestEventSet, kTestEventTick), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 2u);
    EXPECT_EQ(b.Disable(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 1u);
    EXPECT_FALSE(a.IsSignalled());
    FireTestEvent(filter());
    EXPECT_TRUE(a.Wait(kvsim::kMillisecond));
    EXPECT_FALSE(b.IsSignalled());
    ASSERT_EQ(a.Disable(), STATUS_SUCCESS);
    FireTestEvent(filter());
    EXPECT_FALSE(a.Wait(kvsim::kMillisecond));
}

TEST_F(AutomationEvents, OnlyTheGeneratedIdIsSignalledAlsoAtDispatchLevel) {
    kvsim::client::EventWaiter tick, other;
    ASSERT_EQ(tick.Enable(*filter_, kTestEventSet, kTestEventTick), STATUS_SUCCESS);
    ASSERT_EQ(other.Enable(*filter_, kTestEventSet, kTestEventOther), STATUS_SUCCESS);
    FireTestEvent(filter(), kTestEventOther);
    EXPECT_FALSE(tick.IsSignalled());
    EXPECT_TRUE(other.IsSignalled());
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    FireTestEvent(filter(), kTestEventTick);
    KeLowerIrql(old);
    EXPECT_TRUE(tick.IsSignalled());
}

TEST_F(AutomationEvents, OneShotEventFiresOnce) {
    kvsim::client::EventWaiter a;
    ASSERT_EQ(Enable(*filter_, a, kTestEventTick, KSEVENT_TYPE_ONESHOT), STATUS_SUCCESS);
    FireTestEvent(filter());
    EXPECT_TRUE(a.Wait(kvsim::kMillisecond));  // and reset
    FireTestEvent(filter());
    EXPECT_FALSE(a.IsSignalled());
}

TEST_F(AutomationEvents, EnableFailuresHaveTheirStatuses) {
    kvsim::client::EventWaiter a;
    const GUID unknown = {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}};
    KSEVENT e{};
    e.Set = unknown;
    e.Flags = KSEVENT_TYPE_ENABLE;
    KSEVENTDATA data = a.eventData();
    EXPECT_EQ(filter_->Ioctl(IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &data, sizeof data).status,
              STATUS_PROPERTY_SET_NOT_FOUND);
    EXPECT_EQ(Enable(*filter_, a, 42, KSEVENT_TYPE_ENABLE), STATUS_NOT_FOUND);
    e.Set = kTestEventSet;
    e.Id = kTestEventTick;
    EXPECT_EQ(filter_->Ioctl(IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &data, 8).status, STATUS_BUFFER_TOO_SMALL);
    KSEVENTDATA bad{};
    bad.NotificationType = KSEVENTF_EVENT_HANDLE;
    bad.EventHandle.Event = reinterpret_cast<HANDLE>(0x7777);
    EXPECT_FALSE(NT_SUCCESS(filter_->Ioctl(IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &bad, sizeof bad).status));
    // Kernel pointers are not taken from user mode.
    KSEVENTDATA object{};
    object.NotificationType = KSEVENTF_EVENT_OBJECT;
    object.EventObject.Event = &bad;
    EXPECT_EQ(filter_->Ioctl(IOCTL_KS_ENABLE_EVENT, &e, sizeof e, &object, sizeof object).status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 0u);
    EXPECT_EQ(Disable(*filter_, a), STATUS_UNSUCCESSFUL);
}

TEST_F(AutomationEvents, DisablingNeedsTheSameClientAndClosingTheHandleDisablesItsEvents) {
    auto other = Second();
    ASSERT_TRUE(other);
    kvsim::client::EventWaiter a, b;
    ASSERT_EQ(Enable(*filter_, a, kTestEventTick, KSEVENT_TYPE_ENABLE), STATUS_SUCCESS);
    EXPECT_EQ(Disable(*other, a), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(filter_->Ioctl(IOCTL_KS_DISABLE_EVENT, nullptr, 0, nullptr, 0).status,
              STATUS_SUCCESS);  // no input: all of this client's events
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 0u);
    ASSERT_EQ(Enable(*other, b, kTestEventTick, KSEVENT_TYPE_ENABLE), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 1u);
    other.reset();
    EXPECT_EQ(kvsim::ks::EnabledEventCount(), 0u);
}

}  // namespace
}  // namespace kvtest::ks
