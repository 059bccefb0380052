// Faults on demand (issue 3): each armed fault is visible in the packets
// the virtual camera produces; the frames around it are intact.
#include <gtest/gtest.h>

#include "camera_test_util.h"

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
