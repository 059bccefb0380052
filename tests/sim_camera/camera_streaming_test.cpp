// Streaming from the virtual camera as the host sees it on the wire: YUY2
// and motion-JPEG frames reassembled by the reference decoder carry their
// frame numbers; packets respect the capacity and the committed payload
// size; FID toggles; every frame ends with a header-only EOF packet (as the
// cameras kvdrv drives do); frames come at the committed interval; PTS and
// SCR are sensible. Then faults on demand: each armed fault is visible in
// the packets the camera produces, and the frames around it are intact.
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

using namespace camtest;

namespace {

constexpr uint32_t kYuy2Size = 160 * 120 * 2;

struct Fixture {
    std::unique_ptr<UvcCamera> cam = UvcCamera::CreateDefault();
    std::optional<ProbeControl> committed;
    explicit Fixture(uint8_t format = 1, uint8_t frame = 5) {
        committed = StartStreaming(*cam, 1, format, frame, 333333);  // 160x120 (MJPEG: frame 4)
    }
};

size_t CountStatus(const Capture& cap, PacketStatus s) {
    size_t n = 0;
    for (const auto& p : cap.packets) n += p.status == s;
    return n;
}

}  // namespace

TEST(CameraFaults, PacketWithAnErrorStatusSpoilsOnlyItsFrame) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    Capture first = Poll(*f.cam, 1, 3072);
    f.cam->ArmFault(Fault::kPacketError);
    Capture cap = Poll(*f.cam, 2, 3072, first.endTime);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_EQ(CountStatus(cap, PacketStatus::kError), 1u);
    EXPECT_TRUE(cap.frames[0].bad);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size);  // the data itself arrived
    EXPECT_FALSE(cap.frames[1].bad);
}

TEST(CameraFaults, LostPacketLeavesAShortBadFrame) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kLostPacket);
    Capture cap = Poll(*f.cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_EQ(CountStatus(cap, PacketStatus::kNotAccessed), 1u);
    EXPECT_TRUE(cap.frames[0].bad);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size - (f.committed->maxPayloadTransferSize - 12));
    EXPECT_EQ(cap.frames[1].data.size(), kYuy2Size);
}

TEST(CameraFaults, ShortAndLongFramesHaveTheArmedSizes) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kShortFrame, 7);
    Capture a = Poll(*f.cam, 1, 3072);
    f.cam->ArmFault(Fault::kLongFrame, 5);
    Capture b = Poll(*f.cam, 2, 3072, a.endTime);
    ASSERT_EQ(a.frames.size(), 1u);
    ASSERT_EQ(b.frames.size(), 2u);
    EXPECT_EQ(a.frames[0].data.size(), kYuy2Size - 7);
    EXPECT_EQ(b.frames[0].data.size(), kYuy2Size + 5);
    EXPECT_EQ(b.frames[1].data.size(), kYuy2Size);
    EXPECT_TRUE(a.frames[0].eof && b.frames[0].eof);
}

TEST(CameraFaults, MissingEndOfFrameIsOnlySeenAsAFidChange) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kMissingEof);
    Capture cap = Poll(*f.cam, 3, 3072);
    ASSERT_EQ(cap.frames.size(), 3u);
    EXPECT_FALSE(cap.frames[0].eof);
    EXPECT_EQ(cap.frames[0].headerOnlyEof, 0u);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size);
    EXPECT_NE(cap.frames[0].fid, cap.frames[1].fid);
    EXPECT_TRUE(cap.frames[1].eof);
    EXPECT_EQ(ReadFrameNumber(cap.frames[1].data, 160, 120), std::optional<uint32_t>(1));
}

TEST(CameraFaults, CorruptJpegDoesNotDecodeAndTheNextOneDoes) {
    Fixture f(2, 4);  // MJPEG 160x120
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kCorruptJpeg);
    Capture cap = Poll(*f.cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_NE(cap.frames[0].data[0], 0xFF);
    EXPECT_FALSE(DecodeJpeg(cap.frames[0].data).has_value());
    EXPECT_TRUE(DecodeJpeg(cap.frames[1].data).has_value());
}

TEST(CameraFaults, TruncatedJpegLacksItsEndMarker) {
    Fixture f(2, 4);
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kTruncatedJpeg, 300);
    Capture cap = Poll(*f.cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    const auto& d = cap.frames[0].data;
    ASSERT_EQ(d.size(), 300u);
    EXPECT_FALSE(d[298] == 0xFF && d[299] == 0xD9);
    const auto& good = cap.frames[1].data;
    EXPECT_TRUE(good[good.size() - 2] == 0xFF && good.back() == 0xD9);
}

TEST(CameraFaults, MorePayloadThanCommittedFitsTheSlotOrBabbles) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    uint32_t committed = f.committed->maxPayloadTransferSize;
    // The slot is larger than what was committed: the packet is too.
    f.cam->ArmFault(Fault::kOverPayload, 100);
    Capture cap = Poll(*f.cam, 1, 3072);
    size_t over = 0;
    for (const auto& p : cap.packets) over += p.data.size() > committed;
    EXPECT_EQ(over, 1u);
    EXPECT_EQ(cap.MaxPacket(), committed + 100);
    // A slot of exactly the committed size: the device babbles.
    f.cam->ArmFault(Fault::kOverPayload, 100);
    Capture cap2 = Poll(*f.cam, 1, committed, cap.endTime);
    EXPECT_EQ(CountStatus(cap2, PacketStatus::kBabble), 1u);
    for (const auto& p : cap2.packets) EXPECT_LE(p.data.size(), committed);
}

TEST(CameraFaults, HeaderErrorBitSetsTheStreamErrorCode) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kHeaderErrorBit);
    Capture cap = Poll(*f.cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_TRUE(cap.frames[0].errBit);
    EXPECT_FALSE(cap.frames[1].errBit);
    std::vector<uint8_t> code;
    ASSERT_TRUE(In(*f.cam, 0xA1, uvc::kGetCur, uvc::kVsStreamErrorCodeControl << 8, 1, 1, &code).ok());
    EXPECT_EQ(code[0], 3);
}

TEST(CameraFaults, StalledPipeStaysHaltedUntilClearFeature) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->ArmFault(Fault::kStallPipe);
    EXPECT_TRUE(f.cam->PipeStalled());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(f.cam->NextPacket(i * 1250, 3072).status, PacketStatus::kStalled);
    std::vector<uint8_t> status;
    ASSERT_TRUE(In(*f.cam, 0x82, uvc::kReqGetStatus, 0, 0x81, 2, &status).ok());
    EXPECT_EQ(status[0], 1);
    ASSERT_TRUE(Out(*f.cam, 0x02, uvc::kReqClearFeature, uvc::kFeatureEndpointHalt, 0x81).ok());
    EXPECT_FALSE(f.cam->PipeStalled());
    Capture cap = Poll(*f.cam, 1, 3072, 10000);
    EXPECT_EQ(cap.frames.size(), 1u);
}

TEST(CameraFaults, SurpriseRemovalFailsEverything) {
    Fixture f;
    ASSERT_TRUE(f.committed);
    f.cam->QueueButton(true);
    Capture before = Poll(*f.cam, 1, 3072);
    f.cam->ArmFault(Fault::kSurpriseRemoval);
    EXPECT_FALSE(f.cam->Connected());
    EXPECT_EQ(f.cam->NextPacket(before.endTime, 3072).status, PacketStatus::kDeviceGone);
    auto r = In(*f.cam, 0x80, uvc::kReqGetDescriptor, 0x0100, 0, 18, nullptr);
    EXPECT_EQ(r.status, ControlResult::Status::kNoDevice);
    EXPECT_FALSE(f.cam->ReadInterrupt(64).has_value());
}
