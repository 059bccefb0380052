// Frames from end to end, as an application sees them: the capture pin
// opened with each advertised format, run with a master clock, buffers
// queued and frames collected, stopped and run again.
#include <gtest/gtest.h>

#include "stream_rig.h"

namespace {

using namespace stream_rig;

class CaptureStream : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
        filter = rig.OpenFilter(KSCATEGORY_VIDEO);
        ASSERT_TRUE(filter);
        offers = CaptureOffers(*filter);
        ASSERT_FALSE(offers.empty());
    }
    void TearDown() override
    {
        if (filter) filter->Close();
    }
    Rig rig;
    std::unique_ptr<kvsim::client::Filter> filter;
    std::vector<Offer> offers;
};

TEST_F(CaptureStream, Yuy2FramesArriveInOrderWithStamps)
{
    const Offer& offer = offers.front();
    ASSERT_EQ(offer.Compression(), kv::kFourccYuy2);
    Stream stream(*filter, offer);
    ASSERT_EQ(stream.status(), STATUS_SUCCESS);
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    auto frames = stream.Collect(5);
    ASSERT_GE(frames.size(), 5u);
    std::optional<uint32_t> last;
    for (const auto& f : frames) {
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        ASSERT_EQ(f.header.DataUsed, offer.ImageSize());
        auto stamp = StampOf(offer, f.data);
        ASSERT_TRUE(stamp.has_value());
        if (last) {
            EXPECT_GT(*stamp, *last);
        }
        last = stamp;
    }
}

}  // namespace
