// The capture filter's property sets as an application reaches them: the
// driver-control tunnel (64- and 32-bit callers), the video-control set
// (capabilities, frame rates, trigger mode) and the dropped-frames set.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "controls/settings.h"
#include "stream_rig.h"
#include "tunnel.h"

namespace {

using namespace stream_rig;

const GUID kDriverControl = kvharness::kPropsetDriverControl;


using kvharness::Tunnel;
using kvharness::TunnelRequest;

class FilterProperties : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
        filter = rig.OpenFilter(KSCATEGORY_VIDEO);
        ASSERT_TRUE(filter);
    }
    void TearDown() override
    {
        if (filter) filter->Close();
    }
    std::shared_ptr<cam::UvcCamera> camera = DefaultCamera();
    Rig rig{camera};
    std::unique_ptr<kvsim::client::Filter> filter;
};

// Reads (a set of the id with its request nibble, then a get) and writes (a
// set of the id, then of the value) reach the camera, for both bitnesses.
TEST_F(FilterProperties, TheTunnelReadsAndWritesCameraControls)
{
    const uint8_t pu = 3, brightness = UVC_PU_BRIGHTNESS_CONTROL >> 8;
    for (bool as32 : {false, true}) {
        SCOPED_TRACE(as32 ? "32-bit" : "64-bit");
        Tunnel tunnel(*filter, as32);
        tunnel.Write(PROPID_BRIGHTNESS, 17 + as32);
        EXPECT_EQ(camera->ControlValue(pu, brightness), 17 + as32);
        EXPECT_EQ(tunnel.Read(PROPID_BRIGHTNESS), 17 + as32);
        size_t returned = 0;
        EXPECT_EQ(tunnel.Get(&returned), 17 + as32) << "a get alone reads the id remembered last";
        EXPECT_EQ(returned, as32 ? 36u : 40u);
        EXPECT_LT(tunnel.Read(PROPID_BRIGHTNESS, TunnelRequest::Minimum), tunnel.Read(PROPID_BRIGHTNESS, TunnelRequest::Maximum)) << "minimum below maximum";
        // A first step never followed: the next set is taken as the value.
        tunnel.Call(KSPROPERTY_TYPE_SET, PROPID_BRIGHTNESS);
        tunnel.Call(KSPROPERTY_TYPE_SET, -5);
        EXPECT_EQ(camera->ControlValue(pu, brightness), -5);
        // Buffers shorter than the header copy or the value field are
        // refused, never read or written past their end.
        for (ULONG flags : {ULONG(KSPROPERTY_TYPE_GET), ULONG(KSPROPERTY_TYPE_SET)}) {
            for (ULONG length : {4u, 24u, as32 ? 35u : 39u}) {
                std::vector<uint8_t> data(length, 0);
                auto result = filter->Property(kDriverControl, 1, flags, data.data(), length, nullptr, 0, as32);
                if (flags == KSPROPERTY_TYPE_GET || length < 24) {
                    EXPECT_EQ(result.status, STATUS_BUFFER_TOO_SMALL) << length;
                }
            }
        }
    }
}

// From the run transition until the first frame of the stream, the tunnel
// answers without acting.
TEST_F(FilterProperties, TheTunnelWaitsForTheFirstFrameOfAStream)
{
    Tunnel tunnel(*filter);
    const auto& offers = CaptureOffers(*filter);
    Stream stream(*filter, offers.front());
    ASSERT_EQ(stream.pin().SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(rig.Dev().m_Requests.m_ControlReady, 0u);
    tunnel.Write(PROPID_BRIGHTNESS, 9);
    EXPECT_NE(camera->ControlValue(3, UVC_PU_BRIGHTNESS_CONTROL >> 8), 9);
    stream.pin().QueueBuffers(2, stream.bufferSize());
    ASSERT_FALSE(stream.Collect(1).empty());
    tunnel.Write(PROPID_BRIGHTNESS, 9);
    EXPECT_EQ(camera->ControlValue(3, UVC_PU_BRIGHTNESS_CONTROL >> 8), 9);
}

// A client that enumerates the filter's automation finds the three property
// sets (set support on GUID_NULL lists them) and the still-button event set.
// https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-type-setsupport
TEST_F(FilterProperties, AClientEnumeratingTheAutomationFindsEverySet)
{
    auto listed = filter->Property(GUID_NULL, 0, KSPROPERTY_TYPE_SETSUPPORT, nullptr, 0);
    ASSERT_EQ(listed.status, STATUS_BUFFER_OVERFLOW);
    std::vector<GUID> sets(listed.information / sizeof(GUID));
    ASSERT_EQ(filter->Property(GUID_NULL, 0, KSPROPERTY_TYPE_SETSUPPORT, sets.data(), ULONG(sets.size() * sizeof(GUID)))
                  .status,
              STATUS_SUCCESS);
    for (const GUID& set : {kDriverControl, GUID(PROPSETID_VIDCAP_VIDEOCONTROL), GUID(PROPSETID_VIDCAP_DROPPEDFRAMES)}) {
        EXPECT_NE(std::find(sets.begin(), sets.end(), set), sets.end());
        EXPECT_EQ(filter->Property(set, 0, KSPROPERTY_TYPE_SETSUPPORT, nullptr, 0).status, STATUS_SUCCESS);
    }
    KSEVENT still{};
    still.Set = KSEVENTSETID_VIDCAPTOSTI;
    still.Id = KSEVENT_VIDCAPTOSTI_EXT_TRIGGER;
    still.Flags = KSEVENT_TYPE_SETSUPPORT;
    EXPECT_EQ(filter->Ioctl(IOCTL_KS_ENABLE_EVENT, &still, sizeof(still), nullptr, 0).status, STATUS_SUCCESS);
}

// FRAME_RATES: the size query, a buffer too small for one rate, and the
// descriptors' answer for the range asked for. The walk's last match wins,
// and a motion-JPEG frame of the same size matches too, taking its count
// from itself and its intervals from the uncompressed frame seen last: on
// the built-in camera the YUY2 640x480 range gets the count of the MJPEG
// 640x480 frame (6) and the two intervals of the YUY2 1280x720 frame (the
// values that frame does not hold are 0).
TEST_F(FilterProperties, FrameRatesAreTheDescriptorsIntervals)
{
    KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S request{};
    request.RangeIndex = 0;  // YUY2 640x480
    const ULONG extra = sizeof(request) - sizeof(KSPROPERTY);
    auto ask = [&](std::vector<uint8_t>& out) {
        return filter->Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_FRAME_RATES,
                                KSPROPERTY_TYPE_GET, out.empty() ? nullptr : out.data(), ULONG(out.size()),
                                reinterpret_cast<const uint8_t*>(&request) + sizeof(KSPROPERTY), extra);
    };
    std::vector<uint8_t> none;
    auto size = ask(none);
    EXPECT_EQ(size.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(size.information, 8u + 6 * 8);
    std::vector<uint8_t> small(8);
    EXPECT_EQ(ask(small).status, STATUS_BUFFER_TOO_SMALL);
    std::vector<uint8_t> exact(size.information);
    ASSERT_EQ(ask(exact).status, STATUS_SUCCESS);
    KSMULTIPLE_ITEM item;
    std::memcpy(&item, exact.data(), sizeof(item));
    EXPECT_EQ(item.Count, 6u);
    std::vector<LONGLONG> rates(6);
    std::memcpy(rates.data(), exact.data() + sizeof(item), 6 * 8);
    EXPECT_EQ(rates, (std::vector<LONGLONG>{1000000, 2000000, 0, 0, 0, 0}));
}

// The other video-control properties: the capabilities, the mode, the rate
// by frame height.
TEST_F(FilterProperties, VideoControlCapsModeAndActualRate)
{
    KSPROPERTY_VIDEOCONTROL_CAPS_S caps{};
    auto result = filter->Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_CAPS, KSPROPERTY_TYPE_GET,
                                   &caps, sizeof(caps), reinterpret_cast<uint8_t*>(&caps) + sizeof(KSPROPERTY), 8);
    ASSERT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(caps.VideoControlCaps, 12u);
    for (auto [height, rate] : {std::pair<ULONG, LONGLONG>{480, 333333}, {1024, 1428571}}) {
        rig.Dev().m_Stream.m_Height = height;
        KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S actual{};
        result = filter->Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE,
                                  KSPROPERTY_TYPE_GET, &actual, sizeof(actual),
                                  reinterpret_cast<uint8_t*>(&actual) + sizeof(KSPROPERTY), 32);
        ASSERT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(actual.CurrentActualFrameRate, rate) << height;
    }
}

// A MODE set with the trigger on the still stream: a still at once without
// a self-timer, a countdown with one, refused while a countdown runs.
TEST_F(FilterProperties, TheTriggerTakesAStillOrStartsTheSelfTimer)
{
    auto trigger = [&] {
        KSPROPERTY_VIDEOCONTROL_MODE_S mode{};
        mode.StreamIndex = 2;
        mode.Mode = KS_VideoControlFlag_Trigger;
        return filter
            ->Property(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_MODE, KSPROPERTY_TYPE_SET, &mode,
                       sizeof(mode), reinterpret_cast<uint8_t*>(&mode) + sizeof(KSPROPERTY), 8)
            .status;
    };
    SelfTimer& timer = rig.Dev().m_SelfTimer;
    ASSERT_LT(rig.Dev().m_Settings.m_Property->Slot[SLOT_SELF_TIMER], 0);
    EXPECT_EQ(trigger(), STATUS_SUCCESS);
    EXPECT_EQ(timer.m_StillRequest, 1u);
    EXPECT_EQ(timer.m_TriggerSource, 1u);

    timer.m_StillRequest = 0;
    rig.Dev().m_Settings.m_Property->Slot[SLOT_SELF_TIMER] = 3;
    EXPECT_EQ(trigger(), STATUS_SUCCESS);
    EXPECT_EQ(timer.m_CountdownCounter, 3);
    EXPECT_EQ(trigger(), kStatusCountdownRunning);
    EXPECT_EQ(timer.m_StillRequest, 0u);
    timer.CancelCountdown();
}

// The dropped-frames property counts what the frame loop delivered and
// threw away.
TEST_F(FilterProperties, DroppedFramesCountsAStreamsLosses)
{
    Stream stream(*filter, CaptureOffers(*filter).front(), /*withClock=*/false);
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_EQ(stream.Collect(2).size(), 2u);
    camera->ArmFault(cam::Fault::kPacketError);
    ASSERT_EQ(stream.Collect(2).size(), 2u);
    KSPROPERTY_DROPPEDFRAMES_CURRENT_S dropped{};
    auto result = filter->Property(PROPSETID_VIDCAP_DROPPEDFRAMES, KSPROPERTY_DROPPEDFRAMES_CURRENT,
                                   KSPROPERTY_TYPE_GET, &dropped, sizeof(dropped),
                                   reinterpret_cast<uint8_t*>(&dropped) + sizeof(KSPROPERTY), 24);
    ASSERT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, sizeof(dropped));
    EXPECT_EQ(dropped.PictureNumber, 4);
    EXPECT_EQ(dropped.DropCount, 1);
    EXPECT_EQ(dropped.AverageFrameSize, stream.bufferSize());
}

}  // namespace
