// The ks.sys simulation's objects: the filter's object bag is emptied (free
// routines run) when the filter closes, a filter opens by its reference
// string only, and a property read made by the client "as a 32-bit caller"
// reaches the minidriver's handler with IoIs32bitProcess(Irp) TRUE (a WOW64
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
