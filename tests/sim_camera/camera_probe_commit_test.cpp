// Probe/commit on the virtual camera (Part 2.1 from the device side): every
// format and frame of every camera negotiates; bad indexes stall; intervals
// snap to the nearest supported one; the payload size is an alternate
// setting's capacity chosen as real cameras do.
#include <gtest/gtest.h>

#include <algorithm>

#include "camera_test_util.h"

using namespace camtest;

class ProbeCommitEveryFrame : public testing::TestWithParam<std::string> {};

TEST_P(ProbeCommitEveryFrame, NegotiatesAndCommitsEveryFormatAndFrame) {
    auto cam = Camera(GetParam());
    ASSERT_TRUE(cam && Configure(*cam));
    size_t done = 0;
    for (const auto& vs : cam->Model().streaming) {
        for (const auto& f : vs.formats)
            for (const auto& fr : f.frames) {
                SCOPED_TRACE(testing::Message() << GetParam() << " if " << int(vs.number) << " format "
                                                << int(f.index) << " frame " << int(fr.index));
                ProbeControl p;
                p.formatIndex = f.index;
                p.frameIndex = fr.index;
                p.frameInterval = fr.intervals.empty() ? 0 : fr.intervals.back() + 1;  // not listed: snaps
                ASSERT_TRUE(Probe(*cam, vs.number, false, p).ok());
                auto got = ProbeGet(*cam, vs.number);
                ASSERT_TRUE(got);
                EXPECT_EQ(got->formatIndex, f.index);
                EXPECT_EQ(got->frameIndex, fr.index);
                if (!fr.continuous) {
                    EXPECT_NE(std::find(fr.intervals.begin(), fr.intervals.end(), got->frameInterval),
                              fr.intervals.end());
                }
                uint32_t pixels = uint32_t{fr.width} * fr.height;
                if (f.kind == FormatKind::kUncompressed)
                    EXPECT_EQ(got->maxVideoFrameSize, pixels * f.bitsPerPixel / 8);
                else
                    EXPECT_GT(got->maxVideoFrameSize, 0u);
                bool isCapacity = false;
                for (const auto& a : vs.alternates) isCapacity |= a.capacity == got->maxPayloadTransferSize;
                EXPECT_TRUE(isCapacity) << got->maxPayloadTransferSize;
                ASSERT_TRUE(Probe(*cam, vs.number, true, *got).ok());
                auto committed = cam->Committed(vs.number);
                ASSERT_TRUE(committed);
                EXPECT_EQ(committed->frameIndex, fr.index);
                EXPECT_EQ(committed->maxPayloadTransferSize, got->maxPayloadTransferSize);
                auto commitCur = ProbeGet(*cam, vs.number, uvc::kGetCur, true);
                ASSERT_TRUE(commitCur);
                EXPECT_EQ(commitCur->Pack(), committed->Pack());
                ++done;
            }
    }
    EXPECT_GT(done, 5u);
}

INSTANTIATE_TEST_SUITE_P(AllCameras, ProbeCommitEveryFrame,
                         testing::Values("default", "trust_webcam", "logitech_c270", "elp_h264"));

TEST(ProbeCommit, BadFormatOrFrameIndexStalls) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    auto before = ProbeGet(*cam, 1);
    ASSERT_TRUE(before);
    for (auto [format, frame] : {std::pair{0, 1}, {3, 1}, {1, 0}, {1, 7}, {2, 5}}) {
        ProbeControl p;
        p.formatIndex = static_cast<uint8_t>(format);
        p.frameIndex = static_cast<uint8_t>(frame);
        EXPECT_FALSE(Probe(*cam, 1, false, p).ok()) << format << "/" << frame;
        EXPECT_FALSE(Probe(*cam, 1, true, p).ok()) << format << "/" << frame;
    }
    EXPECT_EQ(ProbeGet(*cam, 1)->Pack(), before->Pack());  // a stalled probe changes nothing
    EXPECT_FALSE(cam->Committed(1).has_value());
    std::vector<uint8_t> shortBlock(20);
    EXPECT_FALSE(Out(*cam, 0x21, uvc::kSetCur, 0x0100, 1, shortBlock).ok());
}

TEST(ProbeCommit, IntervalSnapsToTheNearestSupportedOne) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    auto snap = [&](uint8_t format, uint8_t frame, uint32_t interval) {
        ProbeControl p;
        p.formatIndex = format;
        p.frameIndex = frame;
        p.frameInterval = interval;
        EXPECT_TRUE(Probe(*cam, 1, false, p).ok());
        return ProbeGet(*cam, 1)->frameInterval;
    };
    EXPECT_EQ(snap(1, 1, 333333), 333333u);
    EXPECT_EQ(snap(1, 1, 350000), 333333u);
    EXPECT_EQ(snap(1, 1, 1), 333333u);
    EXPECT_EQ(snap(1, 1, 450000), 400000u);
    EXPECT_EQ(snap(1, 1, 90000000), 2000000u);
    EXPECT_EQ(snap(1, 1, 0), 333333u);     // 0: the frame's default
    EXPECT_EQ(snap(1, 6, 333333), 1000000u);  // 1280x720 YUY2: 10 and 5 fps only
}

TEST(ProbeCommit, MinMaxDefAndPayloadSizesAreThoseOfARealCamera) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    auto def = ProbeGet(*cam, 1, uvc::kGetDef);
    ASSERT_TRUE(def);
    EXPECT_EQ(def->formatIndex, 1);
    EXPECT_EQ(def->frameIndex, 1);
    EXPECT_EQ(def->frameInterval, 333333u);
    EXPECT_EQ(def->maxVideoFrameSize, 640u * 480 * 2);
    // 640x480 YUY2 at 30 fps needs 614400 / 266 + 12 = 2322 bytes a
    // microframe: the smallest setting that carries it is 3 x 896.
    EXPECT_EQ(def->maxPayloadTransferSize, 2688u);
    ProbeControl p;
    p.formatIndex = 1;
    p.frameIndex = 5;  // 160x120
    p.frameInterval = 333333;
    ASSERT_TRUE(Probe(*cam, 1, false, p).ok());
    auto cur = ProbeGet(*cam, 1);
    EXPECT_EQ(cur->maxPayloadTransferSize, 256u);  // 38400 / 266 + 12 = 157 -> the 256-byte setting
    auto mn = ProbeGet(*cam, 1, uvc::kGetMin);
    auto mx = ProbeGet(*cam, 1, uvc::kGetMax);
    ASSERT_TRUE(mn && mx);
    EXPECT_EQ(mn->frameIndex, 5);
    EXPECT_EQ(mn->frameInterval, 333333u);
    EXPECT_EQ(mx->frameInterval, 2000000u);
    EXPECT_LE(mx->maxPayloadTransferSize, mn->maxPayloadTransferSize);
    // GET_MIN is not defined for the commit control.
    EXPECT_FALSE(ProbeGet(*cam, 1, uvc::kGetMin, true).has_value());
}

TEST(ProbeCommit, CommitWhileStreamingStalls) {
    auto cam = UvcCamera::CreateDefault();
    auto committed = StartStreaming(*cam, 1, 1, 5, 333333);
    ASSERT_TRUE(committed);
    EXPECT_FALSE(Probe(*cam, 1, true, *committed).ok());
    EXPECT_EQ(cam->LastRequestError(), uvc::RequestError::kWrongState);
    ASSERT_TRUE(SetInterface(*cam, 1, 0));
    EXPECT_TRUE(Probe(*cam, 1, true, *committed).ok());
}

TEST(ProbeCommit, ContinuousIntervalsAreClampedAndPutOnTheStep) {
    CameraSpec spec = DefaultCameraSpec();
    spec.formats[0].frames[0] = FrameSpec{640, 480, {333333, 2000000, 333333}, true};
    auto cam = UvcCamera::Create(BuildDescriptors(spec));
    ASSERT_TRUE(cam && Configure(*cam));
    const Frame* fr = cam->Model().streaming[0].formats[0].FindFrame(1);
    ASSERT_TRUE(fr && fr->continuous);
    EXPECT_EQ(fr->intervals, (std::vector<uint32_t>{333333, 2000000, 333333}));
    auto snap = [&](uint32_t interval) {
        ProbeControl p;
        p.formatIndex = 1;
        p.frameIndex = 1;
        p.frameInterval = interval;
        EXPECT_TRUE(Probe(*cam, 1, false, p).ok());
        return ProbeGet(*cam, 1)->frameInterval;
    };
    EXPECT_EQ(snap(100), 333333u);
    EXPECT_EQ(snap(700000), 666666u);
    EXPECT_EQ(snap(900000), 999999u);
    EXPECT_EQ(snap(50000000), 1999998u);  // clamped to the maximum, then onto the step grid
    auto mx = ProbeGet(*cam, 1, uvc::kGetMax);
    ASSERT_TRUE(mx);
    EXPECT_EQ(mx->frameInterval, 1999998u);
}

TEST(ProbeCommit, FullSpeedPayloadsFitOneFullSpeedPacket) {
    CameraOptions o;
    o.highSpeed = false;
    auto cam = UvcCamera::CreateDefault(o);
    ASSERT_TRUE(Configure(*cam));
    for (const auto& f : cam->Model().streaming[0].formats)
        for (const auto& fr : f.frames) {
            ProbeControl p;
            p.formatIndex = f.index;
            p.frameIndex = fr.index;
            ASSERT_TRUE(Probe(*cam, 1, false, p).ok());
            auto got = ProbeGet(*cam, 1);
            EXPECT_LE(got->maxPayloadTransferSize, 1023u);
            EXPECT_GT(got->maxPayloadTransferSize, 12u);
        }
}
