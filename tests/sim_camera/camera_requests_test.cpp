// The virtual camera's class requests. Probe/commit: every format and frame
// of every camera negotiates; bad indexes stall; intervals snap to the
// nearest supported one; the payload size is an alternate setting's
// capacity chosen as real cameras do. Controls: ranges of every announced
// camera-terminal and processing-unit control, stalls like a real camera,
// the request error code control, and the interrupt endpoint's status
// packets (the still-image button).
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
                uint32_t unlisted = fr.intervals.empty() ? 0 : fr.intervals.back() + 1;  // snaps
                ASSERT_TRUE(Probe(*cam, vs.number, false, Pc(f.index, fr.index, unlisted)).ok());
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
                         testing::ValuesIn(kAllCameras));

TEST(ProbeCommit, BadFormatOrFrameIndexStalls) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    auto before = ProbeGet(*cam, 1);
    ASSERT_TRUE(before);
    for (auto [format, frame] : {std::pair{0, 1}, {3, 1}, {1, 0}, {1, 7}, {2, 5}}) {
        ProbeControl p = Pc(static_cast<uint8_t>(format), static_cast<uint8_t>(frame));
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
        EXPECT_TRUE(Probe(*cam, 1, false, Pc(format, frame, interval)).ok());
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
    ASSERT_TRUE(Probe(*cam, 1, false, Pc(1, 5, 333333)).ok());  // 160x120
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
        EXPECT_TRUE(Probe(*cam, 1, false, Pc(1, 1, interval)).ok());
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
            ASSERT_TRUE(Probe(*cam, 1, false, Pc(f.index, fr.index)).ok());
            auto got = ProbeGet(*cam, 1);
            EXPECT_LE(got->maxPayloadTransferSize, 1023u);
            EXPECT_GT(got->maxPayloadTransferSize, 12u);
        }
}

namespace {

int64_t Le(const std::vector<uint8_t>& b, bool isSigned) {
    uint64_t v = 0;
    for (size_t i = 0; i < b.size() && i < 8; ++i) v |= uint64_t{b[i]} << (8 * i);
    if (isSigned && !b.empty() && b.size() < 8 && (b.back() & 0x80)) v |= ~uint64_t{0} << (8 * b.size());
    return static_cast<int64_t>(v);
}

uint8_t ErrorCode(UvcCamera& c) {
    std::vector<uint8_t> b;
    EXPECT_TRUE(VcGet(c, uvc::kGetCur, 0, uvc::kVcRequestErrorCodeControl, 1, &b).ok());
    return b.empty() ? 0xEE : b[0];
}

// Selectors (and their bmControls bits) whose values are signed.
bool SignedControl(EntityKind k, uint8_t sel) {
    return (k == EntityKind::kProcessingUnit && (sel == uvc::kPuBrightness || sel == uvc::kPuHue)) ||
           (k == EntityKind::kCameraTerminal && (sel == uvc::kCtRollAbsolute || sel == 0x05 || sel == 0x0A));
}

struct Known { EntityKind kind; uint8_t bit; uint8_t selector; bool plain; };
// bmControls bit -> selector, plain = a single scalar with min <= def <= max.
const Known kKnown[] = {
    {EntityKind::kCameraTerminal, 0, uvc::kCtScanningMode, true},
    {EntityKind::kCameraTerminal, 1, uvc::kCtAeMode, false},
    {EntityKind::kCameraTerminal, 2, uvc::kCtAePriority, true},
    {EntityKind::kCameraTerminal, 3, uvc::kCtExposureTimeAbsolute, true},
    {EntityKind::kCameraTerminal, 5, uvc::kCtFocusAbsolute, true},
    {EntityKind::kCameraTerminal, 9, uvc::kCtZoomAbsolute, true},
    {EntityKind::kCameraTerminal, 11, uvc::kCtPanTiltAbsolute, false},
    {EntityKind::kCameraTerminal, 13, uvc::kCtRollAbsolute, true},
    {EntityKind::kCameraTerminal, 17, uvc::kCtFocusAuto, true},
    {EntityKind::kCameraTerminal, 18, uvc::kCtPrivacy, true},
    {EntityKind::kProcessingUnit, 0, uvc::kPuBrightness, true},
    {EntityKind::kProcessingUnit, 1, uvc::kPuContrast, true},
    {EntityKind::kProcessingUnit, 2, uvc::kPuHue, true},
    {EntityKind::kProcessingUnit, 3, uvc::kPuSaturation, true},
    {EntityKind::kProcessingUnit, 4, uvc::kPuSharpness, true},
    {EntityKind::kProcessingUnit, 5, uvc::kPuGamma, true},
    {EntityKind::kProcessingUnit, 6, uvc::kPuWhiteBalanceTemperature, true},
    {EntityKind::kProcessingUnit, 8, uvc::kPuBacklightCompensation, true},
    {EntityKind::kProcessingUnit, 9, uvc::kPuGain, true},
    {EntityKind::kProcessingUnit, 10, uvc::kPuPowerLineFrequency, true},
    {EntityKind::kProcessingUnit, 11, uvc::kPuHueAuto, true},
    {EntityKind::kProcessingUnit, 12, uvc::kPuWhiteBalanceTemperatureAuto, true},
};

}  // namespace

class EveryAnnouncedControl : public testing::TestWithParam<std::string> {};

TEST_P(EveryAnnouncedControl, AnswersInfoLenMinMaxResDefCurAndStallsWhenUnannounced) {
    auto cam = Camera(GetParam());
    ASSERT_TRUE(cam && Configure(*cam));
    int checked = 0, unannounced = 0;
    for (const Entity& e : cam->Model().entities) {
        if (e.kind != EntityKind::kCameraTerminal && e.kind != EntityKind::kProcessingUnit) continue;
        for (const Known& k : kKnown) {
            if (k.kind != e.kind) continue;
            std::vector<uint8_t> info, len, cur, def, mn, mx, res;
            if (!((e.controls >> k.bit) & 1)) {
                EXPECT_FALSE(VcGet(*cam, uvc::kGetCur, e.id, k.selector, 8, &cur).ok()) << int(k.selector);
                EXPECT_EQ(ErrorCode(*cam), uint8_t(uvc::RequestError::kInvalidControl));
                ++unannounced;
                continue;
            }
            SCOPED_TRACE(testing::Message() << GetParam() << " entity " << int(e.id) << " selector " << int(k.selector));
            ASSERT_TRUE(VcGet(*cam, uvc::kGetInfo, e.id, k.selector, 1, &info).ok());
            EXPECT_TRUE(info[0] & uvc::kInfoGet);
            ASSERT_TRUE(VcGet(*cam, uvc::kGetLen, e.id, k.selector, 2, &len).ok());
            uint16_t size = uvc::Rd16(len, 0);
            ASSERT_GE(size, 1);
            ASSERT_TRUE(VcGet(*cam, uvc::kGetCur, e.id, k.selector, size, &cur).ok());
            ASSERT_TRUE(VcGet(*cam, uvc::kGetDef, e.id, k.selector, size, &def).ok());
            ASSERT_TRUE(VcGet(*cam, uvc::kGetRes, e.id, k.selector, size, &res).ok());
            EXPECT_EQ(cur.size(), size);
            EXPECT_EQ(cur, def);  // a fresh camera starts at its defaults
            EXPECT_EQ(ErrorCode(*cam), 0);
            if (!k.plain) { ++checked; continue; }
            ASSERT_TRUE(VcGet(*cam, uvc::kGetMin, e.id, k.selector, size, &mn).ok());
            ASSERT_TRUE(VcGet(*cam, uvc::kGetMax, e.id, k.selector, size, &mx).ok());
            bool s = SignedControl(e.kind, k.selector);
            EXPECT_LE(Le(mn, s), Le(def, s));
            EXPECT_LE(Le(def, s), Le(mx, s));
            EXPECT_GE(Le(res, s), 1);
            if (info[0] & uvc::kInfoSet && !(info[0] & uvc::kInfoDisabledByAuto)) {
                // Out of range stalls and leaves the value.
                auto above = mx;
                int64_t v = Le(mx, s) + 1;
                for (size_t i = 0; i < above.size(); ++i) above[i] = static_cast<uint8_t>(uint64_t(v) >> (8 * i));
                if (Le(above, s) == v) {
                    EXPECT_FALSE(VcSet(*cam, e.id, k.selector, above).ok());
                    EXPECT_EQ(ErrorCode(*cam), uint8_t(uvc::RequestError::kOutOfRange));
                }
                EXPECT_TRUE(VcSet(*cam, e.id, k.selector, mx).ok());
                ASSERT_TRUE(VcGet(*cam, uvc::kGetCur, e.id, k.selector, size, &cur).ok());
                EXPECT_EQ(cur, mx);
                EXPECT_TRUE(VcSet(*cam, e.id, k.selector, def).ok());
            }
            ++checked;
        }
    }
    EXPECT_GT(checked, 3);
    if (GetParam() == "default") { EXPECT_GT(unannounced, 0); }
}

INSTANTIATE_TEST_SUITE_P(AllCameras, EveryAnnouncedControl,
                         testing::ValuesIn(kAllCameras));

TEST(CameraControls, OutOfRangeAndOffGridValuesStallAndSetTheErrorCode) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuBrightness, {65, 0}).ok());
    EXPECT_EQ(ErrorCode(*cam), uint8_t(uvc::RequestError::kOutOfRange));
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuBrightness, {0xBF, 0xFF}).ok());  // -65
    EXPECT_TRUE(VcSet(*cam, 3, uvc::kPuBrightness, {0xC0, 0xFF}).ok());   // -64
    EXPECT_EQ(cam->ControlValue(3, uvc::kPuBrightness), -64);
    EXPECT_EQ(ErrorCode(*cam), 0);
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuBrightness, {1}).ok());  // shorter than the control
    EXPECT_FALSE(VcSet(*cam, 9, uvc::kPuBrightness, {1, 0}).ok());
    EXPECT_EQ(ErrorCode(*cam), uint8_t(uvc::RequestError::kInvalidUnit));
    // Auto-exposure mode: only the modes in GET_RES (manual 1, aperture priority 8).
    std::vector<uint8_t> res;
    ASSERT_TRUE(VcGet(*cam, uvc::kGetRes, 1, uvc::kCtAeMode, 1, &res).ok());
    EXPECT_EQ(res[0], 0x09);
    EXPECT_FALSE(VcSet(*cam, 1, uvc::kCtAeMode, {2}).ok());
    EXPECT_FALSE(VcGet(*cam, uvc::kGetMin, 1, uvc::kCtAeMode, 1, nullptr).ok());
    // The register window of extension unit 4 (selector 3) refuses a command
    // it does not know, and selector 1 is not announced. (Its reads and
    // writes: the driver's control_requests_test, its extension option.)
    cam->SetRegister(0x17, 0x05);
    EXPECT_FALSE(VcSet(*cam, 4, 3, {0x42, 0x17}).ok());
    EXPECT_FALSE(VcSet(*cam, 4, 1, {0, 0}).ok());
    EXPECT_EQ(cam->Register(0x17), 0x05);
}

TEST(CameraControls, ExposureTimeIsOwnedByAutoExposureUntilManualMode) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    std::vector<uint8_t> info;
    ASSERT_TRUE(VcGet(*cam, uvc::kGetInfo, 1, uvc::kCtExposureTimeAbsolute, 1, &info).ok());
    EXPECT_TRUE(info[0] & uvc::kInfoDisabledByAuto);
    EXPECT_FALSE(VcSet(*cam, 1, uvc::kCtExposureTimeAbsolute, {100, 0, 0, 0}).ok());
    EXPECT_EQ(ErrorCode(*cam), uint8_t(uvc::RequestError::kWrongState));
    // As kvdrv sets PROPID_AUTO_EXPOSURE to manual (driver/controls/requests.cpp):
    // the mode in 2 bytes {1, x}, then the time.
    EXPECT_TRUE(VcSet(*cam, 1, uvc::kCtAeMode, {1, 0}).ok());
    EXPECT_TRUE(VcSet(*cam, 1, uvc::kCtExposureTimeAbsolute, {100, 0, 0, 0}).ok());
    EXPECT_EQ(cam->ControlValue(1, uvc::kCtExposureTimeAbsolute), 100);
    // White-balance temperature likewise while its auto is on.
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuWhiteBalanceTemperature, {0xA0, 0x0F}).ok());
    EXPECT_TRUE(VcSet(*cam, 3, uvc::kPuWhiteBalanceTemperatureAuto, {0, 0}).ok());
    EXPECT_TRUE(VcSet(*cam, 3, uvc::kPuWhiteBalanceTemperature, {0xA0, 0x0F}).ok());  // 4000 K
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuWhiteBalanceTemperature, {0xA5, 0x0F}).ok());  // off the 10 K grid
    EXPECT_EQ(cam->ControlValue(3, uvc::kPuWhiteBalanceTemperature), 4000);
}

TEST(CameraControls, PowerLineFrequencyAcceptsTheDriversTwoByteRequests) {
    auto cam = UvcCamera::CreateDefault();
    ASSERT_TRUE(Configure(*cam));
    EXPECT_TRUE(VcSet(*cam, 3, uvc::kPuPowerLineFrequency, {2, 0}).ok());
    std::vector<uint8_t> b;
    ASSERT_TRUE(VcGet(*cam, uvc::kGetCur, 3, uvc::kPuPowerLineFrequency, 2, &b).ok());
    ASSERT_EQ(b.size(), 1u);  // a one-byte control answers one byte
    EXPECT_EQ(b[0], 2);
    EXPECT_FALSE(VcSet(*cam, 3, uvc::kPuPowerLineFrequency, {3, 0}).ok());
}

TEST(CameraControls, ClassRequestsNeedAConfiguredDevice) {
    auto cam = UvcCamera::CreateDefault();
    EXPECT_FALSE(VcGet(*cam, uvc::kGetCur, 3, uvc::kPuBrightness, 2, nullptr).ok());
    EXPECT_FALSE(SetInterface(*cam, 1, 1));
    ASSERT_TRUE(Configure(*cam));
    EXPECT_TRUE(VcGet(*cam, uvc::kGetCur, 3, uvc::kPuBrightness, 2, nullptr).ok());
    EXPECT_FALSE(SetInterface(*cam, 1, 9));  // no such alternate setting
}

TEST(CameraInterrupt, StatusPacketsComeOutInOrderAndCutToTheTransferLength) {
    auto cam = UvcCamera::CreateDefault();
    EXPECT_FALSE(cam->ReadInterrupt(64).has_value());
    cam->QueueButton(true);
    cam->QueueButton(false);
    cam->QueueStatusPacket({0x01, 0x03, 0x00, 0x02, 0x05, 0x01});
    auto a = cam->ReadInterrupt(64);
    auto b = cam->ReadInterrupt(64);
    auto c = cam->ReadInterrupt(2);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(*a, (std::vector<uint8_t>{0x02, 0x01, 0x00, 0x01}));
    EXPECT_EQ(*b, (std::vector<uint8_t>{0x02, 0x01, 0x00, 0x00}));
    EXPECT_EQ(*c, (std::vector<uint8_t>{0x01, 0x03}));
    EXPECT_EQ(cam->PendingInterruptPackets(), 0u);
}
