// Frames from end to end, as an application sees them: the capture pin
// opened with each format a camera advertises, run with a master clock,
// buffers queued and frames collected, stopped and run again.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "stream_rig.h"

namespace {

using namespace stream_rig;

struct CameraCase {
    const char* name;
    std::function<std::shared_ptr<cam::UvcCamera>()> make;
};

const CameraCase kCameras[] = {
    {"builtin", [] { return DefaultCamera(); }},
    {"trust_webcam", [] { return SharedCamera("trust_webcam"); }},
};

class StreamFixture {
public:
    explicit StreamFixture(std::shared_ptr<cam::UvcCamera> camera) : camera_(camera), rig(std::move(camera)) {}
    void Open()
    {
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
        filter = rig.OpenFilter(KSCATEGORY_VIDEO);
        ASSERT_TRUE(filter);
        offers = CaptureOffers(*filter);
        ASSERT_FALSE(offers.empty());
    }
    ~StreamFixture()
    {
        if (filter) filter->Close();
    }
    cam::UvcCamera& camera() { return *camera_; }

    std::shared_ptr<cam::UvcCamera> camera_;
    Rig rig;
    std::unique_ptr<kvsim::client::Filter> filter;
    std::vector<Offer> offers;
};

// Stamps strictly rise, every header is a whole frame with time, duration
// and frame information. With threads really running side by side the frame
// loop may copy a ready buffer that a completion is overwriting, or deliver
// the same ready frame twice (the engine holds one frame in hand): there a
// stamp may be unreadable and may repeat.
void ExpectGoodFrames(const Offer& offer, const std::vector<kvsim::client::Frame>& frames, size_t atLeast)
{
    const bool sideBySide = kvsim::GetClockMode() == kvsim::ClockMode::Parallel;
    ASSERT_GE(frames.size(), atLeast);
    std::optional<uint32_t> lastStamp;
    LONGLONG lastTime = -1;
    for (const auto& f : frames) {
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        const ULONG expected = offer.Compression() == 0 ? ULONG(offer.Width() * offer.Height() * 3)
                                                        : ULONG(offer.Width() * offer.Height() * 2);
        EXPECT_EQ(f.header.DataUsed, expected);
        EXPECT_EQ(f.header.OptionsFlags, 0x111u);
        EXPECT_EQ(f.header.Duration, offer.format.VideoInfoHeader.AvgTimePerFrame);
        EXPECT_GE(f.header.PresentationTime.Time, lastTime);
        lastTime = f.header.PresentationTime.Time;
        ASSERT_TRUE(f.hasFrameInfo);
        EXPECT_EQ(f.frameInfo.ExtendedHeaderSize, sizeof(KS_FRAME_INFO));
        auto stamp = StampOf(offer, f.data);
        if (sideBySide && !stamp) continue;
        ASSERT_TRUE(stamp.has_value()) << "frame without a readable stamp";
        if (lastStamp) {
            EXPECT_GE(*stamp, *lastStamp + (sideBySide ? 0 : 1));
        }
        lastStamp = stamp;
    }
}

// Every advertised format streams, stops and streams again.
class EveryFormat : public ::testing::TestWithParam<CameraCase> {};

TEST_P(EveryFormat, StreamsStopsAndStreamsAgain)
{
    auto camera = GetParam().make();
    ASSERT_TRUE(camera);
    StreamFixture fx(camera);
    fx.Open();
    for (const Offer& offer : fx.offers) {
        SCOPED_TRACE(::testing::Message() << offer.Width() << "x" << offer.Height() << " compression 0x" << std::hex
                                          << offer.Compression());
        Stream stream(*fx.filter, offer);
        ASSERT_EQ(stream.status(), STATUS_SUCCESS);
        for (int round = 0; round < 2; ++round) {
            ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
            ExpectGoodFrames(offer, stream.Collect(3), 3);
            ASSERT_EQ(stream.pin().SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
            stream.pin().SetState(KSSTATE_STOP);
            stream.pin().CollectFrames();
        }
        EXPECT_FALSE(fx.camera().Streaming(1));
    }
}

INSTANTIATE_TEST_SUITE_P(Cameras, EveryFormat, ::testing::ValuesIn(kCameras),
                         [](const auto& info) { return std::string(info.param.name); });

class CaptureStream : public ::testing::Test, public StreamFixture {
protected:
    CaptureStream() : StreamFixture(DefaultCamera()) {}
    void SetUp() override { Open(); }
    const Offer& Find(ULONG compression, LONG width) const
    {
        for (const Offer& o : offers) {
            if (o.Compression() == compression && o.Width() == width) return o;
        }
        return offers.front();
    }
};

// The frame the stream starts in is never delivered (no frame is being
// collected until the first end of frame), then "DropFrameCntVGA" good
// frames are skipped; nothing is counted as dropped.
TEST_F(CaptureStream, TheFirstFrameAndTheStartUpFramesAreNotDelivered)
{
    for (ULONG skip : {0u, 3u}) {
        SCOPED_TRACE(skip);
        kvsim::RegSetValue(kData, "DropFrameCntVGA", REG_DWORD, {static_cast<uint8_t>(skip), 0, 0, 0});
        // The value is read at device start.
        filter->Close();
        ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
        ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
        filter = rig.OpenFilter(KSCATEGORY_VIDEO);
        Stream stream(*filter, Find(kv::kFourccYuy2, 320));
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        auto frames = stream.Collect(2);
        ASSERT_FALSE(frames.empty());
        auto first = StampOf(stream.offer(), frames.front().data);
        ASSERT_TRUE(first.has_value());
        EXPECT_EQ(*first, 1 + skip);
        EXPECT_EQ(rig.Dev().m_FrameLoop.m_DropCount, 0);
    }
}

// Faults of the camera: each spoils the frame it falls in, which is counted
// as dropped and never delivered; the stream goes on.
TEST_F(CaptureStream, AFrameSpoiledByTheCameraIsDroppedAndTheStreamGoesOn)
{
    struct Case {
        cam::Fault fault;
        const char* what;
    };
    const Case cases[] = {
        {cam::Fault::kPacketError, "error packet"},
        {cam::Fault::kShortFrame, "one byte short"},
        {cam::Fault::kLongFrame, "one byte long"},
        {cam::Fault::kLostPacket, "lost packet"},
    };
    const Offer& offer = Find(kv::kFourccYuy2, 320);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // Without a clock the drop count is the frames the loop threw away
        // (with one, it is the clock's estimate).
        Stream stream(*filter, offer, /*withClock=*/false);
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        auto before = stream.Collect(2);
        ASSERT_EQ(before.size(), 2u);
        const LONG dropped = rig.Dev().m_FrameLoop.m_DropCount;
        camera().ArmFault(c.fault);
        auto after = stream.Collect(3);
        ASSERT_EQ(after.size(), 3u);
        EXPECT_EQ(rig.Dev().m_FrameLoop.m_DropCount, dropped + 1);
        // One stamp is missing between the frames around the fault.
        uint32_t previous = *StampOf(offer, before.back().data);
        uint32_t gaps = 0;
        for (const auto& f : after) {
            uint32_t stamp = *StampOf(offer, f.data);
            gaps += stamp - previous - 1;
            previous = stamp;
        }
        EXPECT_EQ(gaps, 1u);
    }
}

// RGB is the camera's motion JPEG decoded: each frame is the camera's
// picture for its stamp, within JPEG's loss, with or without Huffman tables
// in the frames.
TEST_F(CaptureStream, RgbFramesAreTheCamerasPictures)
{
    const Offer& offer = Find(0, 320);
    ASSERT_EQ(offer.Compression(), 0u);
    const auto w = static_cast<uint16_t>(offer.Width());
    const auto h = static_cast<uint16_t>(offer.Height());
    for (bool withoutTables : {false, true}) {
        SCOPED_TRACE(withoutTables ? "without DHT" : "with DHT");
        camera().SetMjpegWithoutDht(withoutTables);
        Stream stream(*filter, offer);
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        auto frames = stream.Collect(2);
        ASSERT_FALSE(frames.empty());
        for (const auto& f : frames) {
            auto stamp = StampOf(offer, f.data);
            ASSERT_TRUE(stamp.has_value());
            auto source = cam::MakeTestPatternSource()->Render(*stamp, w, h);
            std::vector<uint8_t> expected(size_t{w} * h * 3);
            kv::Yuy2ToRgb24(source.pixels.data(), w * 2, expected.data(), w * 3, w, h);
            kv::MirrorInPlace(expected.data(), w * 3, w, h, kv::kMirrorAxisRows);
            double squares = 0;
            for (size_t i = 0; i < expected.size(); ++i) {
                const double d = double(expected[i]) - double(f.data[i]);
                squares += d * d;
            }
            const double psnr = 10 * std::log10(255.0 * 255.0 / (squares / double(expected.size()) + 1e-9));
            EXPECT_GT(psnr, 30.0);
        }
    }
}

// A motion-JPEG frame the decoder cannot read (damaged, or cut short) is
// counted as dropped; the client's buffer waits for the next frame.
TEST_F(CaptureStream, AnUndecodableJpegFrameIsDropped)
{
    const Offer& offer = Find(0, 320);
    for (cam::Fault fault : {cam::Fault::kCorruptJpeg, cam::Fault::kTruncatedJpeg}) {
        Stream stream(*filter, offer, /*withClock=*/false);
        ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
        auto before = stream.Collect(1);
        ASSERT_EQ(before.size(), 1u);
        const LONG dropped = rig.Dev().m_FrameLoop.m_DropCount;
        camera().ArmFault(fault);
        auto after = stream.Collect(2);
        ASSERT_EQ(after.size(), 2u);
        EXPECT_EQ(rig.Dev().m_FrameLoop.m_DropCount, dropped + 1);
        EXPECT_EQ(*StampOf(offer, after.back().data) - *StampOf(offer, before.back().data), 3u);
    }
}

// With the client's clock, the time is the clock's, the picture number counts
// frame periods since the first frame, and frames the stream lost show in
// the drop count; a frame read before one period has passed reports none.
TEST_F(CaptureStream, TimesAndPictureNumbersComeFromTheClock)
{
    const Offer& offer = Find(kv::kFourccYuy2, 320);
    auto stream = std::make_unique<Stream>(*filter, offer);
    ASSERT_EQ(stream->Run(), STATUS_SUCCESS);
    auto frames = stream->Collect(4);
    ASSERT_GE(frames.size(), 4u);
    const LONGLONG period = offer.format.VideoInfoHeader.AvgTimePerFrame;
    const LONGLONG first = frames.front().header.PresentationTime.Time;
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto& f = frames[i];
        EXPECT_EQ(f.frameInfo.PictureNumber, (f.header.PresentationTime.Time - first) / period);
        EXPECT_EQ(f.frameInfo.DropCount, std::max<LONGLONG>(0, f.frameInfo.PictureNumber - LONGLONG(i + 1)));
    }
    // Without a clock: no time, a splice point only, the loop's drop count.
    stream.reset();
    Stream clockless(*filter, offer, /*withClock=*/false);
    ASSERT_EQ(clockless.Run(), STATUS_SUCCESS);
    auto plain = clockless.Collect(1);
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(plain.front().header.OptionsFlags, ULONG(KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT));
    EXPECT_EQ(plain.front().header.PresentationTime.Time, 0);
    EXPECT_EQ(plain.front().header.Duration, 0);
}

// A system sleep while frames flow: the pin's sleep stops the stream and
// gives the bandwidth back before the camera loses power; after the wake
// the client runs the pin again and frames flow again.
TEST_F(CaptureStream, ASystemSleepWhileStreamingStopsTheStreamAndItRunsAgainAfter)
{
    Stream stream(*filter, Find(kv::kFourccYuy2, 320));
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream.Collect(1).empty());
    ASSERT_EQ(pnp::SleepSystem(rig.Pdo()), STATUS_SUCCESS);
    EXPECT_TRUE(DebugSaid("Pin power Down extra work!\n"));
    EXPECT_EQ(rig.Dev().m_Stream.m_Streaming, 0);
    EXPECT_EQ(camera().CurrentAlternate(1), 0);
    ASSERT_EQ(pnp::WakeSystem(rig.Pdo()), STATUS_SUCCESS);
    EXPECT_TRUE(DebugSaid("Pin power Up\n"));
    ASSERT_EQ(stream.pin().SetState(KSSTATE_STOP), STATUS_SUCCESS);
    stream.pin().CollectFrames();
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    EXPECT_GE(stream.Collect(2).size(), 2u);
}

// Stopping while the thread waits for a frame ends it at once: the stop
// path does not sit out its 3-second wait.
TEST_F(CaptureStream, AStopWhileTheFrameThreadWaitsEndsAtOnce)
{
    Stream stream(*filter, Find(kv::kFourccYuy2, 320));
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream.Collect(1).empty());
    camera().ArmFault(cam::Fault::kStallPipe);
    kvsim::RunFor(kvsim::kSecond / 10);
    const LONGLONG before = kvsim::Now();
    ASSERT_EQ(stream.pin().SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_LT(kvsim::Now() - before, kvsim::kSecond);
}

// The device goes while frames flow: no transfer is resubmitted, the stream
// is torn down when the pin stops, and nothing leaks (the test main checks
// pool, IRPs and threads).
TEST_F(CaptureStream, SurpriseRemovalWhileStreamingLeavesNothingBehind)
{
    auto stream = std::make_unique<Stream>(*filter, Find(kv::kFourccYuy2, 320));
    ASSERT_EQ(stream->Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream->Collect(2).empty());
    camera().ArmFault(cam::Fault::kSurpriseRemoval);
    kvsim::RunFor(kvsim::kSecond / 10);
    usb::SurpriseRemove(rig.Pdo());
    ASSERT_EQ(pnp::SurpriseRemoveDevice(rig.Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(rig.Dev().m_Stream.m_Streaming, 0);
    stream.reset();
    filter->Close();
    rig.MarkRemoved();
    ASSERT_EQ(pnp::FinishSurpriseRemoval(rig.Pdo()), STATUS_SUCCESS);
}

// One pin streams at a time, whichever filter instance it belongs to: a
// second capture pin is refused at acquire until the first lets go.
TEST_F(CaptureStream, TheStreamingSlotTakesOnePinAtATime)
{
    auto second = rig.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_TRUE(second);
    const Offer& offer = Find(kv::kFourccYuy2, 320);
    {
        Stream first(*filter, offer);
        Stream other(*second, offer);
        ASSERT_EQ(first.pin().SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
        EXPECT_EQ(other.pin().SetState(KSSTATE_ACQUIRE), STATUS_SHARING_VIOLATION);
        ASSERT_EQ(first.pin().SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
        ASSERT_EQ(first.pin().SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
        EXPECT_EQ(other.pin().SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    }
    second->Close();
}

}  // namespace
