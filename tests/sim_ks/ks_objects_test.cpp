// The ks.sys simulation's objects: the filter's object bag is emptied (free
// routines run) when the filter closes, and a filter opens by its reference
// string only.
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

}  // namespace
}  // namespace kvtest::ks
