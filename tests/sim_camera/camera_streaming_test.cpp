// Streaming from the virtual camera (Part 2.2 from the device side): YUY2
// and motion-JPEG frames reassembled by the reference decoder carry their
// frame numbers; packets respect the capacity and the committed payload
// size; FID toggles; every frame ends with a header-only EOF packet; frames
// come at the committed interval; PTS and SCR are sensible.
#include <gtest/gtest.h>

#include <fstream>

#include "camera_test_util.h"

using namespace camtest;

namespace {

void CheckPackets(const Capture& cap, size_t capacity, uint32_t maxPayload) {
    for (const auto& p : cap.packets) {
        ASSERT_LE(p.data.size(), capacity);
        ASSERT_LE(p.data.size(), maxPayload);
        EXPECT_EQ(p.status, PacketStatus::kOk);
        if (!p.data.empty()) {
            ASSERT_EQ(p.data[0], 12);
            EXPECT_TRUE(p.data[1] & uvc::kHeaderPts);
            EXPECT_TRUE(p.data[1] & uvc::kHeaderScr);
        }
    }
}

void CheckFrameSequence(const std::vector<ReassembledFrame>& frames) {
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(frames[i].eof) << i;
        EXPECT_EQ(frames[i].headerOnlyEof, 1u) << i;
        EXPECT_FALSE(frames[i].bad) << i;
        if (i > 0) { EXPECT_NE(frames[i].fid, frames[i - 1].fid) << i; }
    }
}

}  // namespace

TEST(CameraStreaming, ThirtyYuy2FramesArriveWithTheirFrameNumbers) {
    auto cam = UvcCamera::CreateDefault();
    auto c = StartStreaming(*cam, 1, 1, 3, 333333);  // 320x240 at 30 fps
    ASSERT_TRUE(c);
    EXPECT_EQ(c->maxVideoFrameSize, 320u * 240 * 2);
    const size_t capacity = 3072;
    Capture cap = Poll(*cam, 30, capacity);
    ASSERT_EQ(cap.frames.size(), 30u);
    CheckPackets(cap, capacity, c->maxPayloadTransferSize);
    CheckFrameSequence(cap.frames);
    for (size_t i = 0; i < cap.frames.size(); ++i) {
        ASSERT_EQ(cap.frames[i].data.size(), 320u * 240 * 2) << i;
        EXPECT_EQ(ReadFrameNumber(cap.frames[i].data, 320, 240), std::optional<uint32_t>(i));
    }
}

TEST(CameraStreaming, ThirtyMjpegFramesDecodeWithTheirFrameNumbers) {
    auto cam = UvcCamera::CreateDefault();
    auto c = StartStreaming(*cam, 1, 2, 3, 333333);  // MJPEG 320x240
    ASSERT_TRUE(c);
    Capture cap = Poll(*cam, 30, c->maxPayloadTransferSize);
    ASSERT_EQ(cap.frames.size(), 30u);
    CheckPackets(cap, c->maxPayloadTransferSize, c->maxPayloadTransferSize);
    CheckFrameSequence(cap.frames);
    for (size_t i = 0; i < cap.frames.size(); ++i) {
        const auto& d = cap.frames[i].data;
        ASSERT_GE(d.size(), 4u);
        EXPECT_EQ(d[0], 0xFF);
        EXPECT_EQ(d[1], 0xD8);
        EXPECT_TRUE(HasDht(d));
        EXPECT_LE(d.size(), c->maxVideoFrameSize);
        auto pic = DecodeJpeg(d);
        ASSERT_TRUE(pic) << i;
        EXPECT_EQ(pic->width, 320);
        EXPECT_EQ(pic->height, 240);
        EXPECT_EQ(ReadFrameNumber(pic->pixels, pic->width, pic->height), std::optional<uint32_t>(i));
    }
}

TEST(CameraStreaming, MjpegWithoutDhtDecodesAfterTheStandardTablesAreInserted) {
    CameraOptions o;
    o.mjpegWithoutDht = true;
    auto cam = UvcCamera::CreateDefault(o);
    auto c = StartStreaming(*cam, 1, 2, 1, 333333);  // MJPEG 640x480
    ASSERT_TRUE(c);
    Capture cap = Poll(*cam, 3, 3072);
    ASSERT_EQ(cap.frames.size(), 3u);
    for (size_t i = 0; i < cap.frames.size(); ++i) {
        const auto& d = cap.frames[i].data;
        EXPECT_FALSE(HasDht(d));
        auto fixed = InsertStandardDht(d);
        EXPECT_TRUE(HasDht(fixed));
        EXPECT_EQ(fixed.size(), d.size() + 432u);  // four DHT segments (FFC4, length, class/id, table)
        auto pic = DecodeJpeg(fixed);
        ASSERT_TRUE(pic);
        EXPECT_EQ(ReadFrameNumber(pic->pixels, pic->width, pic->height), std::optional<uint32_t>(i));
    }
}

TEST(CameraStreaming, FramesComeAtTheCommittedInterval) {
    auto cam = UvcCamera::CreateDefault();
    auto c = StartStreaming(*cam, 1, 1, 5, 666666);  // 160x120 at 15 fps
    ASSERT_TRUE(c);
    EXPECT_EQ(c->frameInterval, 666666u);
    const uint64_t t0 = 5000000;
    Capture cap = Poll(*cam, 100, c->maxPayloadTransferSize, t0, 8000);  // one second of microframes
    // 15 frames a second: due at t0, t0 + 666666, ... (each starts at the first slot after it is due).
    ASSERT_GE(cap.frameStartTimes.size(), 15u);
    ASSERT_LE(cap.frameStartTimes.size(), 16u);
    for (size_t i = 0; i < cap.frameStartTimes.size(); ++i) {
        uint64_t due = t0 + i * 666666;
        EXPECT_GE(cap.frameStartTimes[i], due);
        EXPECT_LT(cap.frameStartTimes[i], due + 1250);
    }
    // PTS: the capture time in 48 MHz units; frames one interval apart.
    ASSERT_GE(cap.frames.size(), 2u);
    ASSERT_TRUE(cap.frames[0].pts && cap.frames[1].pts);
    EXPECT_EQ(*cap.frames[1].pts - *cap.frames[0].pts, 666666u * 48 / 10);
}

TEST(CameraStreaming, NothingIsSentBeforeCommitOrAtAlternateSettingZero) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    EXPECT_TRUE(cam->NextPacket(0, 3072).data.empty());
    ASSERT_TRUE(SetInterface(*cam, 1, 8));  // no commit yet
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(cam->NextPacket(i * 1250, 3072).data.empty());
    auto c = StartStreaming(*cam, 1, 1, 5, 333333);
    ASSERT_TRUE(c);
    Capture cap = Poll(*cam, 1, 3072);
    EXPECT_EQ(cap.frames.size(), 1u);
    ASSERT_TRUE(SetInterface(*cam, 1, 0));
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(cam->NextPacket(1000000 + i * 1250, 3072).data.empty());
}

TEST(CameraStreaming, HeaderOnlyIdlePacketsWhenAsked) {
    CameraOptions o;
    o.idle = IdleFill::kHeaderOnly;
    auto cam = UvcCamera::CreateDefault(o);
    ASSERT_TRUE(StartStreaming(*cam, 1, 1, 5, 2000000));
    Capture cap = Poll(*cam, 1, 3072);
    ASSERT_EQ(cap.frames.size(), 1u);
    auto idle = cam->NextPacket(cap.endTime + 1250, 3072);
    ASSERT_EQ(idle.data.size(), 12u);
    EXPECT_FALSE(idle.data[1] & uvc::kHeaderEof);
}

TEST(CameraStreaming, PicturesFromASequenceSourceArriveInTurn) {
    auto cam = UvcCamera::CreateDefault();
    std::vector<Yuy2Picture> pics;
    for (uint8_t luma : {40, 200}) pics.push_back(Yuy2Picture{160, 120, std::vector<uint8_t>(160 * 120 * 2, luma)});
    cam->SetFrameSource(MakeSequenceSource(pics));
    ASSERT_TRUE(StartStreaming(*cam, 1, 1, 5, 333333));
    Capture cap = Poll(*cam, 4, 3072);
    ASSERT_EQ(cap.frames.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        const auto& d = cap.frames[i].data;
        EXPECT_EQ(ReadFrameNumber(d, 160, 120), std::optional<uint32_t>(i));
        size_t bottom = (size_t(110) * 160 + 80) * 2;  // below the stamp
        EXPECT_EQ(d[bottom], i % 2 ? 200 : 40);
    }
}

TEST(CameraStreaming, RealCamerasStreamTheirFirstFormat) {
    for (const std::string name : {"trust_webcam", "logitech_c270", "elp_h264"}) {
        SCOPED_TRACE(name);
        auto cam = Camera(name);
        const auto& vs = cam->Model().streaming.front();
        // The smallest frame of the first format keeps the test fast.
        const Format& f = vs.formats.front();
        const Frame* small = &f.frames.front();
        for (const auto& fr : f.frames)
            if (uint32_t{fr.width} * fr.height < uint32_t{small->width} * small->height) small = &fr;
        auto c = StartStreaming(*cam, vs.number, f.index, small->index, small->defaultInterval);
        ASSERT_TRUE(c);
        Capture cap = Poll(*cam, 3, c->maxPayloadTransferSize);
        ASSERT_EQ(cap.frames.size(), 3u);
        CheckFrameSequence(cap.frames);
        for (size_t i = 0; i < 3; ++i) {
            std::optional<uint32_t> n;
            if (f.kind == FormatKind::kMjpeg) {
                auto pic = DecodeJpeg(cap.frames[i].data);
                ASSERT_TRUE(pic);
                n = ReadFrameNumber(pic->pixels, pic->width, pic->height);
            } else {
                n = ReadFrameNumber(cap.frames[i].data, small->width, small->height);
            }
            EXPECT_EQ(n, std::optional<uint32_t>(i));
        }
    }
}

TEST(CameraStreaming, AStillPictureFromAJpegFileIsSentScaled) {
    Yuy2Picture pic{64, 48, std::vector<uint8_t>(64 * 48 * 2, 128)};
    for (size_t i = 0; i < pic.pixels.size(); i += 2) pic.pixels[i] = 170;  // flat grey 170
    auto jpeg = EncodeJpeg(pic, 95);
    std::string path = testing::TempDir() + "/kvcam_still.jpg";
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
    }
    auto loaded = LoadPictureFile(path);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->width, 64);
    EXPECT_FALSE(LoadPictureFile(path + ".missing").has_value());
    auto cam = UvcCamera::CreateDefault();
    cam->SetFrameSource(MakeStillSource(*loaded, false));
    ASSERT_TRUE(StartStreaming(*cam, 1, 1, 5, 333333));
    Capture cap = Poll(*cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    const auto& d = cap.frames[1].data;
    ASSERT_EQ(d.size(), 160u * 120 * 2);
    EXPECT_FALSE(ReadFrameNumber(d, 160, 120).has_value());  // not stamped
    EXPECT_NEAR(d[(60 * 160 + 80) * 2], 170, 3);
}

TEST(CameraStreaming, RawYuy2PictureFilesNeedTheirSizeInTheName) {
    std::string good = testing::TempDir() + "/kvcam_raw.4x2.yuy2";
    std::string bad = testing::TempDir() + "/kvcam_raw.5x2.yuy2";
    for (const auto& path : {good, bad}) {
        std::ofstream out(path, std::ios::binary);
        out << std::string(16, 'A');
    }
    auto p = LoadPictureFile(good);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->width, 4);
    EXPECT_EQ(p->height, 2);
    EXPECT_EQ(p->pixels.size(), 16u);
    EXPECT_FALSE(LoadPictureFile(bad).has_value());  // 16 bytes are not 5 x 2 pixels
}
