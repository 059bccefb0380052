// What the driver must get right about time and order: requests deferred
// from DISPATCH_LEVEL reach the camera in the order they were made and only
// at PASSIVE_LEVEL, a camera without the optional interrupt endpoint still
// gets its streaming pipes, and values read again at the next start do not
// keep bytes of the previous one. Virtual mode: these tests look at the
// moment between a deferral and its work item.
#include <gtest/gtest.h>

#include "controls_rig.h"
#include "kvsim/registry.h"
#include "kvsim/sched.h"

using namespace controls_rig;

namespace {

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

NTSTATUS SetAtDispatchLevel(Rig& rig, USHORT id, LONG value)
{
    return AtDispatchLevel([&] { return rig.Req().SetDeviceProperty(id, value); });
}

// The brightness values of the SET_CUR requests the camera received, in order.
std::vector<int> BrightnessSent()
{
    std::vector<int> values;
    for (const SeenRequest& r : Seen()) {
        if (r.request == UVC_SET_CUR && r.value == UVC_PU_BRIGHTNESS_CONTROL && r.out.size() == 2) {
            values.push_back(r.out[0] | (r.out[1] << 8));
        }
    }
    return values;
}

TEST(DeferredOrder, ARequestAtPassiveLevelFollowsTheOnesStillDeferred)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(SetAtDispatchLevel(rig, PROPID_BRIGHTNESS, 10), STATUS_SUCCESS);
    EXPECT_EQ(SetAtDispatchLevel(rig, PROPID_BRIGHTNESS, 20), STATUS_SUCCESS);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_BRIGHTNESS, 30), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(BrightnessSent(), (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(rig.CameraValue(3, UVC_PU_BRIGHTNESS_CONTROL >> 8), 30) << "the camera ends with the last value set";
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 30);
}

// Ids whose action touches the registry or waits run from a work item when
// set at DISPATCH_LEVEL (the test fails on any registry call or wait above
// PASSIVE_LEVEL), and still in order with the requests around them.
TEST(DeferredOrder, RegistryAndRegisterIdsSetAtDispatchLevelRunAtPassiveLevelInOrder)
{
    Rig rig;  // product 0x8034: the option is bit 0x20 of register 0x17
    rig.Start();
    rig.Camera().SetRegister(0x17, 0x00);
    EXPECT_EQ(SetAtDispatchLevel(rig, PROPID_BRIGHTNESS, 12), STATUS_SUCCESS);
    EXPECT_EQ(SetAtDispatchLevel(rig, PROPID_SAVE_CUSTOMER, 0), STATUS_SUCCESS);
    EXPECT_EQ(SetAtDispatchLevel(rig, PROPID_EXTENSION_OPTION, 1), STATUS_SUCCESS);
    EXPECT_FALSE(kvsim::RegGetDword(kCustomer, "Brightness").has_value()) << "nothing ran at DISPATCH_LEVEL";
    kvsim::RunFor(kvsim::kSecond);  // the register window pauses 10 ms between its steps
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "Brightness"), 12u) << "saved after the brightness reached the record";
    EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 1);
    EXPECT_EQ(rig.Camera().Register(0x17), 0x20) << "the read-modify-write read the register first";
    for (const SeenRequest& r : Seen()) {
        EXPECT_EQ(r.irql, PASSIVE_LEVEL);
    }
}

// The video-control interface's interrupt endpoint is optional: a camera
// without it has no pipe on its first interface, and the alternate settings
// of its streaming interface must still bring their isochronous pipe.
TEST(OptionalInterruptEndpoint, ACameraWithoutItStillGetsItsStreamingPipe)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.interruptPacketSize = 0;
    Rig rig(spec);
    rig.Start();
    UsbConfiguration& usb = rig.Dev().m_Usb;
    EXPECT_EQ(usb.m_InterruptPipe, nullptr);
    EXPECT_EQ(usb.m_nPipes, 0u);
    ASSERT_EQ(usb.SelectAlternateInterface(1, 1, UVC_SC_VIDEOSTREAMING), STATUS_SUCCESS);
    ASSERT_NE(usb.m_pPipes, nullptr);
    EXPECT_EQ(usb.m_pPipes[0].PipeType, UsbdPipeTypeIsochronous);
    EXPECT_TRUE(USB_ENDPOINT_DIRECTION_IN(usb.m_pPipes[0].EndpointAddress));
    EXPECT_EQ(usb.m_pPipes[0].MaximumPacketSize, spec.altPacketSizes.front());
}

// A start reads "\Data" again: a value now shorter than four bytes must not
// keep the upper bytes of the one read at the start before.
TEST(DataValues, AShorterValueAtTheNextStartKeepsNothingOfThePreviousOne)
{
    Rig rig;
    kvsim::RegSetDword(kData, "TrackingWindowSize", 0x11223344);
    kvsim::RegSetDword(kData, "TrackingFocus", 0x55667788);
    rig.Start();
    EXPECT_EQ(rig.Settings().m_TrackingWindowSize, 0x11223344u);
    kvsim::RegSetValue(kData, "TrackingWindowSize", REG_BINARY, {0x05});
    kvsim::RegSetValue(kData, "TrackingFocus", REG_BINARY, {0x01, 0x00});
    ASSERT_EQ(rig.Dev().InitDeviceSettings(), STATUS_SUCCESS);
    EXPECT_EQ(rig.Settings().m_TrackingWindowSize, 5u);
    EXPECT_EQ(rig.Settings().m_TrackingFocus, 1u);
}

}  // namespace
