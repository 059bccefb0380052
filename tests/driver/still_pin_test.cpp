// Stills as a still-capture application receives them: the still pin opened
// beside a running capture stream, the software trigger sent, the still-
// button event signalled, the picture delivered at the still's own size and
// written as "snapshot.bmp"; with no still pin the trigger changes nothing
// for the capture stream.
#include <gtest/gtest.h>

#include <filesystem>

#include "kvsim/files.h"
#include "stream_rig.h"

namespace {

using namespace stream_rig;
namespace fs = std::filesystem;

class StillPin : public ::testing::Test {
protected:
    void SetUp() override
    {
        root_ = fs::temp_directory_path() / ("still_pin_test_" + std::to_string(::getpid()));
        fs::create_directories(root_);
        kvsim::MapRoot("\\SystemRoot", root_.string());
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
        filter = rig.OpenFilter(KSCATEGORY_VIDEO);
        ASSERT_TRUE(filter);
    }
    void TearDown() override
    {
        if (filter) filter->Close();
        kvsim::UnmapAllRoots();
        fs::remove_all(root_);
    }
    NTSTATUS Trigger()
    {
        KSPROPERTY_VIDEOCONTROL_MODE_S mode{};
        mode.StreamIndex = 2;
        mode.Mode = KS_VideoControlFlag_Trigger;
        return filter
            ->Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_MODE, KSPROPERTY_TYPE_SET, &mode,
                       sizeof(mode), reinterpret_cast<uint8_t*>(&mode) + sizeof(KSPROPERTY), 8)
            .status;
    }
    // The still pin's offer of this size and compression.
    Offer StillOffer(LONG width, ULONG compression)
    {
        for (const Offer& o : kvharness::PinOffers(*filter, KV_PIN_STILL)) {
            if (o.Width() == width && o.Compression() == compression) return o;
        }
        ADD_FAILURE() << "no still offer " << width << " " << compression;
        return {};
    }

    std::shared_ptr<cam::UvcCamera> camera = DefaultCamera();
    Rig rig{camera};
    std::unique_ptr<kvsim::client::Filter> filter;
    fs::path root_;
};

// Stills from a YUY2 stream and from an RGB (motion-JPEG) stream, of the
// capture size and of another size and format: each comes once with the
// event, with no time stamp, fills exactly its own size, and leaves a
// snapshot of the frame at the stream's size.
TEST_F(StillPin, ATriggerDeliversAStillOfTheStillsOwnSize)
{
    struct Case {
        ULONG capture;  // the stream's output: YUY2 or RGB24 (0)
        LONG width;
        ULONG compression;
        size_t bytes;
    } const cases[] = {{kv::kFourccYuy2, 640, kv::kFourccYuy2, 640 * 480 * 2},
                       {kv::kFourccYuy2, 320, 0, 320 * 240 * 3},
                       {kv::kFourccYuy2, 320, kv::kFourccYuy2, 320 * 240 * 2},
                       {0, 640, 0, 640 * 480 * 3},
                       {0, 640, kv::kFourccYuy2, 640 * 480 * 2}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.capture) + " " + std::to_string(c.width) + " " + std::to_string(c.compression));
        Offer capture{};
        for (const Offer& o : CaptureOffers(*filter)) {
            if (o.Compression() == c.capture && o.Width() == 640) capture = o;
        }
        Stream stream(*filter, capture);
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        ASSERT_FALSE(stream.Collect(1).empty());
        Offer offer = StillOffer(c.width, c.compression);
        std::unique_ptr<kvsim::client::Pin> still;
        ASSERT_EQ(filter->CreatePin(KV_PIN_STILL, &offer.format.DataFormat, &still), STATUS_SUCCESS);
        ASSERT_EQ(still->SetState(KSSTATE_RUN), STATUS_SUCCESS);
        still->QueueBuffers(1, offer.ImageSize());
        kvsim::client::EventWaiter event;
        ASSERT_EQ(event.Enable(*filter, KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER), STATUS_SUCCESS);
        fs::remove(root_ / "snapshot.bmp");
        ASSERT_EQ(Trigger(), STATUS_SUCCESS);
        stream.Collect(3);
        ASSERT_TRUE(still->WaitForFrames(1, kvsim::kSecond));
        const auto stills = still->CollectFrames();
        ASSERT_EQ(stills.size(), 1u);
        EXPECT_EQ(stills[0].data.size(), c.bytes);
        EXPECT_EQ(stills[0].header.PresentationTime.Time, 0) << "a still carries no time stamp";
        EXPECT_EQ(stills[0].header.Duration, 0);
        EXPECT_EQ(stills[0].header.OptionsFlags, ULONG(KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT));
        EXPECT_NE(std::count(stills[0].data.begin(), stills[0].data.end(), 0), std::ptrdiff_t(c.bytes));
        EXPECT_TRUE(event.Wait(0));
        EXPECT_FALSE(event.Wait(kvsim::kSecond / 2)) << "one event a still";
        EXPECT_EQ(fs::file_size(root_ / "snapshot.bmp"), 54u + 640 * 480 * 3) << "the frame, at the stream's size";
        event.Disable();
        still->SetState(KSSTATE_STOP);
        still->Close();
    }
}

// A still taken from a stream's very first frame carries no time, and the
// capture frames after it count their pictures from the first of them, with
// nothing dropped; an earlier stream's first time does not carry over.
TEST_F(StillPin, AStillFromTheFirstFrameLeavesThePictureCountToTheCaptureFrames)
{
    Offer capture{};
    for (const Offer& o : CaptureOffers(*filter)) {
        if (o.Compression() == kv::kFourccYuy2 && o.Width() == 640) capture = o;
    }
    {
        Stream earlier(*filter, capture);
        ASSERT_EQ(earlier.Run(), STATUS_SUCCESS);
        ASSERT_GE(earlier.Collect(5).size(), 5u);
    }
    Stream stream(*filter, capture);
    const Offer offer = StillOffer(640, kv::kFourccYuy2);
    std::unique_ptr<kvsim::client::Pin> still;
    ASSERT_EQ(filter->CreatePin(KV_PIN_STILL, &offer.format.DataFormat, &still), STATUS_SUCCESS);
    ASSERT_EQ(still->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    still->QueueBuffers(1, offer.ImageSize());
    ASSERT_EQ(Trigger(), STATUS_SUCCESS);
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_TRUE(still->WaitForFrames(1, kvsim::kSecond));
    const auto frames = stream.Collect(4);
    ASSERT_GE(frames.size(), 4u);
    const LONGLONG period = capture.format.VideoInfoHeader.AvgTimePerFrame;
    const LONGLONG first = frames.front().header.PresentationTime.Time;
    for (const auto& f : frames) {
        EXPECT_EQ(f.frameInfo.PictureNumber, (f.header.PresentationTime.Time - first) / period);
        EXPECT_EQ(f.frameInfo.DropCount, 0);
    }
    still->SetState(KSSTATE_STOP);
    still->Close();
}

// Without a still pin the request waits and every frame goes on to the
// capture pin; no snapshot is written.
TEST_F(StillPin, WithoutAStillPinTheTriggerLeavesTheCaptureStreamAlone)
{
    Stream stream(*filter, CaptureOffers(*filter).front());
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream.Collect(1).empty());
    ASSERT_EQ(Trigger(), STATUS_SUCCESS);
    const auto frames = stream.Collect(5);
    ASSERT_GE(frames.size(), 5u);
    for (const auto& f : frames) EXPECT_EQ(f.data.size(), size_t{stream.bufferSize()});
    EXPECT_FALSE(fs::exists(root_ / "snapshot.bmp"));
}

}  // namespace
