// The filter as a client of the simulated ks.sys sees it once the device has
// started: its categories and pins, and the filter object each open creates.
#include <gtest/gtest.h>

#include <cstring>

#include "controls/filter.h"
#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

const GUID kBridgeName = {0x1B6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xB0}};

bool Same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

class Filter : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(rig_.AddAndStart(), STATUS_SUCCESS); }
    Rig rig_;
};

TEST_F(Filter, TheFilterIsFoundUnderItsThreeCategoriesOnly)
{
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).size(), 1u);
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).size(), 1u);
    EXPECT_EQ(kvsim::client::EnumerateFilters(PINNAME_VIDEO_STILL).size(), 1u);
    EXPECT_TRUE(kvsim::client::EnumerateFilters(PINNAME_VIDEO_CAPTURE).empty());
    EXPECT_TRUE(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO_CAMERA).empty());
}

// Graph-building clients see the pins in the order capture, bridge, still,
// each with its category and data flow, and the data ranges of the capture
// and still pins are the format tables the start made.
TEST_F(Filter, PinsAppearInTheOrderCaptureBridgeStillWithTheFormatTablesAsDataRanges)
{
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    ULONG count = 0;
    ASSERT_EQ(filter->PinCount(&count), STATUS_SUCCESS);
    ASSERT_EQ(count, 3u);
    const FormatTables& t = rig_.Dev().m_Formats;
    const GUID categories[3] = {PINNAME_VIDEO_CAPTURE, kBridgeName, PINNAME_VIDEO_STILL};
    const KSPIN_DATAFLOW flows[3] = {KSPIN_DATAFLOW_OUT, KSPIN_DATAFLOW_IN, KSPIN_DATAFLOW_OUT};
    const std::pair<const KS_DATARANGE_VIDEO*, ULONG> tables[3] = {
        {t.m_pCaptureTable, t.m_nCaptureTable}, {nullptr, 0}, {t.m_pStillTable, t.m_nStillTable}};
    for (ULONG pin = 0; pin < 3; ++pin) {
        SCOPED_TRACE("pin " + std::to_string(pin));
        GUID category{};
        ASSERT_EQ(filter->PinCategory(pin, &category), STATUS_SUCCESS);
        EXPECT_TRUE(Same(category, categories[pin]));
        KSPIN_DATAFLOW flow{};
        ASSERT_EQ(filter->PinDataFlow(pin, &flow), STATUS_SUCCESS);
        EXPECT_EQ(flow, flows[pin]);
        std::vector<std::vector<uint8_t>> ranges;
        ASSERT_EQ(filter->PinDataRanges(pin, &ranges), STATUS_SUCCESS);
        ASSERT_EQ(ranges.size(), tables[pin].second);
        for (size_t i = 0; i < ranges.size(); ++i) {
            ASSERT_EQ(ranges[i].size(), sizeof(KS_DATARANGE_VIDEO));
            EXPECT_EQ(std::memcmp(ranges[i].data(), &tables[pin].first[i], sizeof(KS_DATARANGE_VIDEO)), 0) << i;
        }
    }
}

// Each open makes a filter object ("KVFl") on the device; the device points
// at the most recent one, and the last close clears it. Without the object
// the open fails and is not counted.
TEST_F(Filter, EachOpenMakesAFilterObjectWithTheDevicesBackPointer)
{
    kvsim::PoolFailTag(kvsim::PoolTag("KVFl"));
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(rig_.OpenFilter(KSCATEGORY_VIDEO, &status), nullptr);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(rig_.Idle().m_OpenFilterCount, 0u);

    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVFl")).currentCount, 1u);
    CCaptureFilter* object = rig_.Dev().m_pCaptureFilter;
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->m_pDevice, &rig_.Dev());
    ASSERT_NE(object->m_pKsFilter, nullptr);
    EXPECT_EQ(object->m_pKsFilter->Context, object);
    auto second = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(rig_.Dev().m_pCaptureFilter, object);
    filter->Close();
    second->Close();
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVFl")).currentCount, 0u);
    EXPECT_EQ(rig_.Dev().m_pCaptureFilter, nullptr);
}

}  // namespace
