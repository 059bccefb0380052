// Streaming from the virtual camera as the host sees it on the wire: YUY2
// and motion-JPEG frames reassembled by the reference decoder carry their
// frame numbers; packets respect the capacity and the committed payload
// size; FID toggles; every frame ends with a header-only EOF packet (as the
// cameras kvdrv drives do); frames come at the committed interval; PTS and
// SCR are sensible. Then faults on demand: each armed fault is visible in
// the packets the camera produces, and the frames around it are intact.
#include <gtest/gtest.h>

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

TEST(CameraStreaming, ThirtyYuy2AndMjpegFramesArriveWithTheirFrameNumbers) {
    for (uint8_t format : {1, 2}) {  // 320x240 at 30 fps, YUY2 then MJPEG
        SCOPED_TRACE(format == 1 ? "YUY2" : "MJPEG");
        auto cam = UvcCamera::CreateDefault();
        auto c = StartStreaming(*cam, 1, format, 3, 333333);
        ASSERT_TRUE(c);
        if (format == 1) {
            EXPECT_EQ(c->maxVideoFrameSize, 320u * 240 * 2);
        }
        const size_t capacity = format == 1 ? 3072 : c->maxPayloadTransferSize;
        Capture cap = Poll(*cam, 30, capacity);
        ASSERT_EQ(cap.frames.size(), 30u);
        CheckPackets(cap, capacity, c->maxPayloadTransferSize);
        CheckFrameSequence(cap.frames);
        for (size_t i = 0; i < cap.frames.size(); ++i) {
            const auto& d = cap.frames[i].data;
            std::vector<uint8_t> pixels = d;
            if (format == 2) {
                ASSERT_GE(d.size(), 4u);
                EXPECT_TRUE(d[0] == 0xFF && d[1] == 0xD8 && HasDht(d));
                EXPECT_LE(d.size(), c->maxVideoFrameSize);
                auto pic = DecodeJpeg(d);
                ASSERT_TRUE(pic && pic->width == 320 && pic->height == 240) << i;
                pixels = pic->pixels;
            }
            ASSERT_EQ(pixels.size(), 320u * 240 * 2) << i;
            EXPECT_EQ(ReadFrameNumber(pixels, 320, 240), std::optional<uint32_t>(i));
        }
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

namespace {

constexpr uint32_t kYuy2Size = 160 * 120 * 2;

// The default camera streaming 160x120 YUY2 (after Start(2, 4): MJPEG) at 30
// frames a second.
class CameraFaults : public testing::Test {
protected:
    void SetUp() override {
        Start(1, 5);
        ASSERT_TRUE(committed);
    }
    void Start(uint8_t format, uint8_t frame) {
        cam = UvcCamera::CreateDefault();
        committed = StartStreaming(*cam, 1, format, frame, 333333);
    }
    std::unique_ptr<UvcCamera> cam;
    std::optional<ProbeControl> committed;
};

size_t CountStatus(const Capture& cap, PacketStatus s) {
    size_t n = 0;
    for (const auto& p : cap.packets) n += p.status == s;
    return n;
}

}  // namespace

TEST_F(CameraFaults, PacketWithAnErrorStatusSpoilsOnlyItsFrame) {
    Capture first = Poll(*cam, 1, 3072);
    cam->ArmFault(Fault::kPacketError);
    Capture cap = Poll(*cam, 2, 3072, first.endTime);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_EQ(CountStatus(cap, PacketStatus::kError), 1u);
    EXPECT_TRUE(cap.frames[0].bad);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size);  // the data itself arrived
    EXPECT_FALSE(cap.frames[1].bad);
}

TEST_F(CameraFaults, LostPacketLeavesAShortBadFrame) {
    cam->ArmFault(Fault::kLostPacket);
    Capture cap = Poll(*cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_EQ(CountStatus(cap, PacketStatus::kNotAccessed), 1u);
    EXPECT_TRUE(cap.frames[0].bad);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size - (committed->maxPayloadTransferSize - 12));
    EXPECT_EQ(cap.frames[1].data.size(), kYuy2Size);
}

TEST_F(CameraFaults, ShortAndLongFramesHaveTheArmedSizes) {
    cam->ArmFault(Fault::kShortFrame, 7);
    Capture a = Poll(*cam, 1, 3072);
    cam->ArmFault(Fault::kLongFrame, 5);
    Capture b = Poll(*cam, 2, 3072, a.endTime);
    ASSERT_EQ(a.frames.size(), 1u);
    ASSERT_EQ(b.frames.size(), 2u);
    EXPECT_EQ(a.frames[0].data.size(), kYuy2Size - 7);
    EXPECT_EQ(b.frames[0].data.size(), kYuy2Size + 5);
    EXPECT_EQ(b.frames[1].data.size(), kYuy2Size);
    EXPECT_TRUE(a.frames[0].eof && b.frames[0].eof);
}

TEST_F(CameraFaults, MissingEndOfFrameIsOnlySeenAsAFidChange) {
    cam->ArmFault(Fault::kMissingEof);
    Capture cap = Poll(*cam, 3, 3072);
    ASSERT_EQ(cap.frames.size(), 3u);
    EXPECT_FALSE(cap.frames[0].eof);
    EXPECT_EQ(cap.frames[0].headerOnlyEof, 0u);
    EXPECT_EQ(cap.frames[0].data.size(), kYuy2Size);
    EXPECT_NE(cap.frames[0].fid, cap.frames[1].fid);
    EXPECT_TRUE(cap.frames[1].eof);
    EXPECT_EQ(ReadFrameNumber(cap.frames[1].data, 160, 120), std::optional<uint32_t>(1));
}

TEST_F(CameraFaults, CorruptJpegDoesNotDecodeAndTheNextOneDoes) {
    Start(2, 4);  // MJPEG 160x120
    ASSERT_TRUE(committed);
    cam->ArmFault(Fault::kCorruptJpeg);
    Capture cap = Poll(*cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_NE(cap.frames[0].data[0], 0xFF);
    EXPECT_FALSE(DecodeJpeg(cap.frames[0].data).has_value());
    EXPECT_TRUE(DecodeJpeg(cap.frames[1].data).has_value());
}

TEST_F(CameraFaults, TruncatedJpegLacksItsEndMarker) {
    Start(2, 4);
    ASSERT_TRUE(committed);
    cam->ArmFault(Fault::kTruncatedJpeg, 300);
    Capture cap = Poll(*cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    const auto& d = cap.frames[0].data;
    ASSERT_EQ(d.size(), 300u);
    EXPECT_FALSE(d[298] == 0xFF && d[299] == 0xD9);
    const auto& good = cap.frames[1].data;
    EXPECT_TRUE(good[good.size() - 2] == 0xFF && good.back() == 0xD9);
}

TEST_F(CameraFaults, MorePayloadThanCommittedFitsTheSlotOrBabbles) {
    uint32_t payload = committed->maxPayloadTransferSize;
    // The slot is larger than what was committed: the packet is too.
    cam->ArmFault(Fault::kOverPayload, 100);
    Capture cap = Poll(*cam, 1, 3072);
    size_t over = 0;
    for (const auto& p : cap.packets) over += p.data.size() > payload;
    EXPECT_EQ(over, 1u);
    EXPECT_EQ(cap.MaxPacket(), payload + 100);
    // A slot of exactly the committed size: the device babbles.
    cam->ArmFault(Fault::kOverPayload, 100);
    Capture cap2 = Poll(*cam, 1, payload, cap.endTime);
    EXPECT_EQ(CountStatus(cap2, PacketStatus::kBabble), 1u);
    for (const auto& p : cap2.packets) EXPECT_LE(p.data.size(), payload);
}

TEST_F(CameraFaults, HeaderErrorBitSetsTheStreamErrorCode) {
    cam->ArmFault(Fault::kHeaderErrorBit);
    Capture cap = Poll(*cam, 2, 3072);
    ASSERT_EQ(cap.frames.size(), 2u);
    EXPECT_TRUE(cap.frames[0].errBit);
    EXPECT_FALSE(cap.frames[1].errBit);
    std::vector<uint8_t> code;
    ASSERT_TRUE(In(*cam, 0xA1, uvc::kGetCur, uvc::kVsStreamErrorCodeControl << 8, 1, 1, &code).ok());
    EXPECT_EQ(code[0], 3);
}

TEST_F(CameraFaults, StalledPipeStaysHaltedUntilClearFeature) {
    cam->ArmFault(Fault::kStallPipe);
    EXPECT_TRUE(cam->PipeStalled());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(cam->NextPacket(i * 1250, 3072).status, PacketStatus::kStalled);
    std::vector<uint8_t> status;
    ASSERT_TRUE(In(*cam, 0x82, uvc::kReqGetStatus, 0, 0x81, 2, &status).ok());
    EXPECT_EQ(status[0], 1);
    ASSERT_TRUE(Out(*cam, 0x02, uvc::kReqClearFeature, uvc::kFeatureEndpointHalt, 0x81).ok());
    EXPECT_FALSE(cam->PipeStalled());
    Capture cap = Poll(*cam, 1, 3072, 10000);
    EXPECT_EQ(cap.frames.size(), 1u);
}

TEST_F(CameraFaults, SurpriseRemovalFailsEverything) {
    cam->QueueButton(true);
    Capture before = Poll(*cam, 1, 3072);
    cam->ArmFault(Fault::kSurpriseRemoval);
    EXPECT_FALSE(cam->Connected());
    EXPECT_EQ(cam->NextPacket(before.endTime, 3072).status, PacketStatus::kDeviceGone);
    auto r = In(*cam, 0x80, uvc::kReqGetDescriptor, 0x0100, 0, 18, nullptr);
    EXPECT_EQ(r.status, ControlResult::Status::kNoDevice);
    EXPECT_FALSE(cam->ReadInterrupt(64).has_value());
}
