// The ks.sys simulation's objects: the filter's object bag is emptied (free
// routines run) when the filter closes, the hierarchy accessors link
// device, factory, filters and pins, the IRP-to-object lookups work, and a
// property read made by the client "as a 32-bit caller" reaches the
// minidriver's handler with IoIs32bitProcess(Irp) TRUE (a WOW64
// application's request), a normal read with FALSE
// (https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-iois32bitprocess).


#include "kvsim/sched.h"
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

TEST_F(KsTest, ObjectBagFreeRoutinesRunWhenTheFilterCloses) {
    AddAndStart();
    OpenFilter();
    EXPECT_EQ(Recorder().bagItemsFreed, 0u);
    filter_.reset();
    EXPECT_EQ(Recorder().bagItemsFreed, 1u);
    EXPECT_EQ(Recorder().calls.back(), "FilterClose");
}

TEST_F(KsTest, BagItemsRemovedWithoutFreeStayAlive) {
    AddAndStart();
    OpenFilter();
    PKSFILTER filter = Recorder().filter;
    void* item = ExAllocatePoolWithTag(NonPagedPool, 16, 'xbVK');
    ASSERT_EQ(KsAddItemToObjectBag(filter->Bag, item, nullptr), STATUS_SUCCESS);
    KSOBJECT_BAG other = nullptr;
    ASSERT_EQ(KsAllocateObjectBag(Recorder().device, &other), STATUS_SUCCESS);
    ASSERT_EQ(KsAddItemToObjectBag(other, item, nullptr), STATUS_SUCCESS);
    // In two bags: leaving one keeps it.
    EXPECT_EQ(KsRemoveItemFromObjectBag(filter->Bag, item, TRUE), 1u);
    filter_.reset();
    // Still owned by `other`, which frees it (ExFreePool) when freed.
    KsFreeObjectBag(other);
}

TEST_F(KsTest, HierarchyLinksDeviceFactoryFiltersAndPins) {
    OpenCapturePin();
    PKSDEVICE device = Recorder().device;
    PKSFILTERFACTORY factory = KsDeviceGetFirstChildFilterFactory(device);
    ASSERT_EQ(factory, Recorder().factory);
    EXPECT_EQ(KsFilterFactoryGetParentDevice(factory), device);
    EXPECT_EQ(factory->FilterDescriptor, &TestFilterDescriptor());
    PKSFILTER first = KsFilterFactoryGetFirstChildFilter(factory);
    ASSERT_EQ(first, Recorder().filter);
    EXPECT_EQ(KsFilterGetParentFilterFactory(first), factory);
    EXPECT_EQ(KsFilterGetNextSiblingFilter(first), nullptr);
    // A second filter instance is the first one's sibling.
    std::unique_ptr<kvsim::client::Filter> second;
    ASSERT_EQ(kvsim::client::Filter::Open(filter_->where(), &second), STATUS_SUCCESS);
    PKSFILTER secondFilter = KsFilterGetNextSiblingFilter(first);
    ASSERT_NE(secondFilter, nullptr);
    EXPECT_EQ(Recorder().filter, secondFilter);
    EXPECT_EQ(KsFilterGetFirstChildPin(first, kCapturePinId), Recorder().capturePin);
    EXPECT_EQ(KsFilterGetFirstChildPin(secondFilter, kCapturePinId), nullptr);
    EXPECT_EQ(KsPinGetNextSiblingPin(Recorder().capturePin), nullptr);
    EXPECT_EQ(KsGetFilterFromFileObject(filter_->fileObject()), first);
    EXPECT_EQ(KsGetPinFromFileObject(pin_->fileObject()), Recorder().capturePin);
    second.reset();
    EXPECT_EQ(KsFilterGetNextSiblingFilter(first), nullptr);
}

TEST_F(KsTest, OpeningAnUnknownReferenceStringFails) {
    AddAndStart();
    auto where = kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).at(0);
    where.referenceString = u"NOSUCH";
    std::unique_ptr<kvsim::client::Filter> filter;
    EXPECT_EQ(kvsim::client::Filter::Open(where, &filter), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(filter, nullptr);
    // The reference string matches without regard to case.
    where.referenceString = u"global";
    EXPECT_EQ(kvsim::client::Filter::Open(where, &filter), STATUS_SUCCESS);
}

TEST_F(KsTest, APropertyReadAsA32BitCallerReachesTheHandlerAs32Bit) {
    AddAndStart();
    OpenFilter();
    Recorder().propertyValue = 41;
    LONG value = 0;
    auto r = filter_->Property(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_GET, &value, sizeof value,
                               nullptr, 0, /*as32bit=*/true);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(LONG));
    EXPECT_EQ(value, 41);
    EXPECT_TRUE(Recorder().valueReadFrom32bit);

    r = filter_->Property(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_GET, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_FALSE(Recorder().valueReadFrom32bit);
}

}  // namespace
}  // namespace kvtest::ks
