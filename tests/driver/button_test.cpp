// The camera's button as a user presses it, in the simulation's time: status
// packets on the interrupt endpoint become long presses, clicks and double
// clicks, which take stills, start the self-timer, step through the effects
// and photo frames, or only set report bits, as "Key1Function" and
// "Key2Function" say.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "controls/settings.h"
#include "kvsim/files.h"
#include "stream_rig.h"

namespace {

using namespace stream_rig;
namespace fs = std::filesystem;

class Button : public ::testing::Test {
protected:
    // Starts the device with the button functions given.
    void Start(ULONG key1, ULONG key2 = 0)
    {
        kvsim::RegSetDword(kData, "Key1Function", key1);
        kvsim::RegSetDword(kData, "Key2Function", key2);
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    }
    // A button state packet; the interrupt endpoint is polled, so a little
    // time passes for it to arrive and its work item to run.
    void Packet(std::vector<uint8_t> bytes, LONGLONG after = 20 * kvsim::kMillisecond)
    {
        camera->QueueStatusPacket(std::move(bytes));
        kvsim::RunFor(after);
    }
    void Press(LONGLONG after = 20 * kvsim::kMillisecond) { Packet({0x02, 1, 0x00, 1}, after); }
    void Release(LONGLONG after = 20 * kvsim::kMillisecond) { Packet({0x02, 1, 0x00, 0}, after); }
    LONG& Slot(ULONG index) { return rig.Dev().m_Settings.m_Property->Slot[index]; }
    SelfTimer& Timer() { return rig.Dev().m_SelfTimer; }

    std::shared_ptr<cam::UvcCamera> camera = DefaultCamera();
    Rig rig{camera};
};

// Mode 1: a press held 2 s takes a still without waiting for the release.
TEST_F(Button, ALongPressInModeOneTakesAStillAtTwoSeconds)
{
    Start(1);
    Press(1900 * kvsim::kMillisecond);
    EXPECT_EQ(Timer().m_StillRequest, 0u) << "not yet at 1.9 s";
    kvsim::RunFor(300 * kvsim::kMillisecond);
    EXPECT_EQ(Timer().m_StillRequest, 1u);
    EXPECT_EQ(Timer().m_TriggerSource, 0u) << "the button, not software";
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0) << "the late release is not a click";
}

// Mode 1: a click steps at once; a second click within 400 ms is a double
// click and clears effect and frame; a click after the window steps again.
TEST_F(Button, TwoClicksWithin400msStepOnceThenClear)
{
    Start(1);
    Slot(SLOT_SPECIAL_EFFECT) = 5;
    Press();
    Release(100 * kvsim::kMillisecond);
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 6);
    Press();
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0);
    EXPECT_EQ(Slot(SLOT_SPECIAL_FRAME), 0);
    kvsim::RunFor(kvsim::kSecond);
    Press();
    Release(600 * kvsim::kMillisecond);
    Press();
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 2) << "two single clicks 600 ms apart";
}

// Mode 0 with "Key2Function" 1: the button only sets report bits, which a
// read of id 0x0918 returns and clears.
TEST_F(Button, ReportModeOnlySetsBitsThatOneReadClears)
{
    Start(0, 1);
    for (uint8_t value : {1, 0, 2, 3}) Packet({0x02, 1, 0x00, value});
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0);
    EXPECT_EQ(Timer().m_StillRequest, 0u);
    LONG mask = 0;
    ASSERT_EQ(rig.Dev().m_Requests.GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &mask), STATUS_SUCCESS);
    EXPECT_EQ(mask, 0xF);
    ASSERT_EQ(rig.Dev().m_Requests.GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &mask), STATUS_SUCCESS);
    EXPECT_EQ(mask, 0);
}

// Packets that are not a streaming interface's button are passed over; one
// too short to be a status packet is dropped with its message.
TEST_F(Button, ForeignAndBrokenPacketsChangeNothing)
{
    Start(1);
    Packet({0x01, 1, 0x00, 1});
    Packet({0x02, 1, 0x01, 1});
    Packet({0x02});
    kvsim::RunFor(3 * kvsim::kSecond);
    EXPECT_EQ(Timer().m_StillRequest, 0u);
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0);
    EXPECT_TRUE(drvtest::DebugSaid("InterruptWorkItem() get one broken interrupt packet ( len < 2), drop it.\n"));
}

// Mode 0 while streaming: a press takes a still at once, or with a
// self-timer of 3 the still is asked for 4 s later; a second press while
// the countdown runs is refused and does not restart it.
TEST_F(Button, ThePressStartsTheSelfTimerAndASecondPressIsRefused)
{
    Start(0);
    auto filter = rig.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_TRUE(filter);
    Stream stream(*filter, CaptureOffers(*filter).front());
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream.Collect(1).empty());
    Slot(SLOT_SELF_TIMER) = 3;
    Press();
    Release();
    kvsim::RunFor(kvsim::kSecond);
    Press();
    Release();
    kvsim::RunFor(2800 * kvsim::kMillisecond);
    EXPECT_EQ(Timer().m_StillRequest, 0u) << "3.8 s after the press";
    kvsim::RunFor(400 * kvsim::kMillisecond);
    EXPECT_EQ(Timer().m_StillRequest, 1u) << "4.2 s after the press";
    EXPECT_EQ(Timer().m_CountdownCounter, -1);
}

// Mode 0 while streaming: a press takes the still at once (no self-timer).
TEST_F(Button, APressWhileStreamingTakesAStillAtOnce)
{
    Start(0);
    auto filter = rig.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_TRUE(filter);
    Stream stream(*filter, CaptureOffers(*filter).front());
    ASSERT_EQ(stream.Run(), STATUS_SUCCESS);
    ASSERT_FALSE(stream.Collect(1).empty());
    ASSERT_LT(Slot(SLOT_SELF_TIMER), 0);
    Press();
    EXPECT_EQ(Timer().m_StillRequest, 1u);
    EXPECT_EQ(Timer().m_TriggerSource, 0u);
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0) << "in this mode values 1 and 0 do not step";
}

// The camera stopped or removed while the button is held (its long-press
// timer ticking) and a countdown runs: the transfer, the button's timers and
// the countdown all end with the device (a timer or DPC left in freed
// memory is bug check 0xC7, which the simulation reports).
TEST_F(Button, StopOrRemoveWhileTheButtonIsHeldLeavesNoTimer)
{
    for (bool remove : {false, true}) {
        SCOPED_TRACE(remove ? "remove" : "stop");
        auto local = DefaultCamera();
        Rig device(local);
        kvsim::RegSetDword(kData, "Key1Function", 1);
        ASSERT_EQ(device.AddAndStart(), STATUS_SUCCESS);
        device.Dev().m_Settings.m_Property->Slot[SLOT_SELF_TIMER] = 3;
        local->QueueStatusPacket({0x02, 1, 0x00, 1});
        kvsim::RunFor(2300 * kvsim::kMillisecond);
        ASSERT_GE(device.Dev().m_SelfTimer.m_CountdownCounter, 0) << "the long press started the countdown";
        local->QueueStatusPacket({0x02, 1, 0x00, 1});
        ASSERT_EQ(remove ? device.Remove() : device.Stop(), STATUS_SUCCESS);
        kvsim::RunFor(10 * kvsim::kSecond);
        if (!remove) {
            EXPECT_EQ(device.Dev().m_SelfTimer.m_CountdownCounter, -1);
            EXPECT_EQ(device.Dev().m_SelfTimer.m_StillRequest, 0u);
        }
    }
}

// Stepping goes through effects 1..17 and then the photo frames, skipping a
// frame whose picture is not there.
TEST_F(Button, SteppingPassesOverPhotoFramesThatDoNotLoad)
{
    const fs::path root = fs::temp_directory_path() / ("button_test_" + std::to_string(::getpid()));
    fs::create_directories(root);
    {
        // A picture of the right size is all a step checks for.
        std::vector<char> bitmap(54 + 640 * 480 * 3, 0);
        const uint32_t w = 640, h = 480;
        std::memcpy(&bitmap[18], &w, 4);
        std::memcpy(&bitmap[22], &h, 4);
        std::ofstream(root / "3_640_480.bmp", std::ios::binary).write(bitmap.data(), std::streamsize(bitmap.size()));
    }
    kvsim::MapRoot("\\SystemRoot", root.string());
    Start(1);
    Slot(SLOT_SPECIAL_EFFECT) = 17;
    Press();
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_EFFECT), 0);
    EXPECT_EQ(Slot(SLOT_SPECIAL_FRAME), 3) << "frames 1 and 2 have no picture";
    kvsim::RunFor(kvsim::kSecond);
    Press();
    Release();
    EXPECT_EQ(Slot(SLOT_SPECIAL_FRAME), 0) << "no later frame loads: back to no frame";
    kvsim::UnmapAllRoots();
    fs::remove_all(root);
}

}  // namespace
