// Random property requests against the capture filter, idle and while it
// streams: nothing is read or written outside the caller's buffers
// (AddressSanitizer watches), no kernel rule breaks, and the device still
// streams afterwards.
#include <gtest/gtest.h>

#include "property_fuzzer.h"
#include "stream_rig.h"

namespace {

using namespace stream_rig;

TEST(PropertyFuzz, RandomRequestsLeaveADeviceThatStillStreams)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    auto filter = rig.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_TRUE(filter);
    auto idle = kvharness::FuzzProperties(*filter, 1, 20000);
    // Each of the driver's sets was reached; the unknown one never answers.
    EXPECT_GT(idle.succeededBySet[0], 100u);
    EXPECT_GT(idle.succeededBySet[1], 100u);
    EXPECT_GT(idle.succeededBySet[2], 10u);
    EXPECT_EQ(idle.succeededBySet[3], 0u);
    {
        const Offer offer = CaptureOffers(*filter).front();
        Stream stream(*filter, offer);
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        ASSERT_FALSE(stream.Collect(1).empty());
        kvharness::FuzzProperties(*filter, 2, 5000);
        rig.Dev().m_SelfTimer.CancelCountdown();
        rig.Dev().m_SelfTimer.m_StillRequest = 0;
        EXPECT_GE(stream.Collect(3).size(), 3u) << "the stream goes on";
    }
    filter->Close();
}

}  // namespace
