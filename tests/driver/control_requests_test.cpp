// Video-class control requests against the virtual camera, seen by the
// recording lower filter of controls_rig.h.
#include <gtest/gtest.h>

#include "controls_rig.h"
#include "kvsim/pool.h"

using namespace controls_rig;

namespace {

// The default camera, started as far as the settings.
class CameraControls : public ::testing::Test {
protected:
    void SetUp() override { rig.Start(); }
    Rig rig;
};

// The URB carries the direction of the request; only the request context
// stays held. Without a URB: STATUS_INSUFFICIENT_RESOURCES, nothing sent.
TEST_F(CameraControls, AClassInterfaceUrbCarriesTheDirectionOfTheRequest)
{
    UCHAR data[2] = {0x05, 0x00};
    ULONG length = 2;
    const USHORT pu = UVC_ENTITY_PROCESSING_UNIT;
    ASSERT_EQ(rig.Req().SendClassRequest(pu, UVC_SET_CUR, 0x0200, data, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 2u);
    UCHAR in[2] = {0, 0};
    ASSERT_EQ(rig.Req().SendClassRequest(pu, UVC_GET_CUR, 0x0200, in, &length), STATUS_SUCCESS);
    EXPECT_EQ(in[0], 0x05);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].flags, static_cast<ULONG>(USBD_TRANSFER_DIRECTION_OUT));
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x05, 0x00}));
    EXPECT_EQ(Seen()[0].index, 0x0300);
    EXPECT_EQ(Seen()[1].flags, static_cast<ULONG>(USBD_TRANSFER_DIRECTION_IN));
    EXPECT_EQ(Seen()[1].request, 0x81);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 5);
    EXPECT_EQ(kvsim::PoolStatsForTag(kv::kTagRequest).currentCount, 1u);

    kvsim::PoolFailTag(kv::kTagRequest);
    EXPECT_EQ(rig.Req().SendClassRequest(pu, UVC_GET_CUR, 0x0200, in, &length), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(rig.RequestCount(), 2u);
}

// Processing-unit controls go as two bytes (the one-byte power-line
// frequency too) and are stored even when the camera stalls the request;
// GET_CUR answers from the settings record, without the bus.
TEST_F(CameraControls, ProcessingUnitSetsSendTwoBytesAndGetCurAnswersFromTheRecord)
{
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_POWER_LINE, 2), STATUS_SUCCESS);
    EXPECT_EQ(rig.CameraValue(3, 0x05), 2);
    ASSERT_EQ(rig.RequestCount(), 1u);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x02, 0x00}));
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_BRIGHTNESS, 1000), STATUS_SUCCESS);  // outside -64..64
    EXPECT_EQ(rig.CameraValue(3, 0x02), 0);
    Seen().clear();
    LONG value = 0;
    EXPECT_EQ(rig.Req().GetDeviceProperty(PROPID_POWER_LINE, UVC_GET_CUR, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(rig.Req().GetDeviceProperty(PROPID_BRIGHTNESS, UVC_GET_CUR, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 1000);
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// Other requests ask the camera with the control's entity and length and
// read the answer as signed 16 bits, signed 32 bits (exposure time) or one
// byte (power-line frequency, asked with 2 bytes).
TEST_F(CameraControls, OtherGetRequestsAskTheCameraWithTheEntityValueAndLengthOfTheControl)
{
    LONG value = 0;
    ASSERT_EQ(rig.Req().GetDeviceProperty(PROPID_BRIGHTNESS, UVC_GET_MIN, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, -64);
    ASSERT_EQ(rig.Req().GetDeviceProperty(PROPID_EXPOSURE_TIME, UVC_GET_MAX, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 2047);
    ASSERT_EQ(rig.Req().GetDeviceProperty(PROPID_POWER_LINE, UVC_GET_DEF, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(rig.RequestCount(), 3u);
    EXPECT_EQ(Seen()[0].index, 0x0300);
    EXPECT_EQ(Seen()[0].value, 0x0200);
    EXPECT_EQ(Seen()[0].length, 2u);
    EXPECT_EQ(Seen()[1].index, 0x0100);  // camera terminal
    EXPECT_EQ(Seen()[1].length, 4u);
    EXPECT_EQ(Seen()[2].length, 2u);
}

// The device values are answered without the bus; the one-shot value is
// cleared by its read; an unknown id succeeds without writing the result.
TEST_F(CameraControls, DeviceValuesAreAnsweredWithoutTheBus)
{
    LONG value = 0;
    rig.Req().m_CapturePinRunning = 0x101;
    rig.Req().GetDeviceProperty(PROPID_PIN_RUNNING, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 1);  // low byte
    rig.Req().m_ControlReady = 5;
    rig.Req().GetDeviceProperty(PROPID_CONTROL_READY, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(rig.Req().SetDeviceProperty(PROPID_ONE_SHOT, 3), STATUS_SUCCESS);
    rig.Req().GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 3);
    rig.Req().GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 0);
    value = 4321;
    EXPECT_EQ(rig.Req().GetDeviceProperty(0x0777, UVC_GET_CUR, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 4321);
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// While auto exposure is on an exposure time only changes slot 10; turning
// it off sends mode 1 (manual) and then the stored time; a time the camera
// refuses is not stored.
TEST_F(CameraControls, ExposureTimeReachesTheCameraOnlyWithManualExposure)
{
    rig.SetSlot(SLOT_AUTO_EXPOSURE, 8);
    const int64_t cameraBefore = rig.CameraValue(1, 0x04);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXPOSURE_TIME, 900), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 900);
    EXPECT_EQ(rig.RequestCount(), 0u);
    EXPECT_EQ(rig.CameraValue(1, 0x04), cameraBefore);

    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_AUTO_EXPOSURE, 0), STATUS_SUCCESS);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].value, 0x0200);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x01}));
    EXPECT_EQ(Seen()[1].value, 0x0400);
    EXPECT_EQ(Seen()[1].out, (std::vector<UCHAR>{0x84, 0x03, 0x00, 0x00}));
    EXPECT_EQ(rig.CameraValue(1, 0x02), 1);
    EXPECT_EQ(rig.CameraValue(1, 0x04), 900);
    EXPECT_EQ(rig.Slot(SLOT_AUTO_EXPOSURE), 0);

    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXPOSURE_TIME, 400), STATUS_SUCCESS);
    EXPECT_EQ(rig.CameraValue(1, 0x04), 400);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXPOSURE_TIME, 5000), STATUS_UNSUCCESSFUL);  // max 2047
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 400);
    // Auto exposure back on: one byte 8 only.
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_AUTO_EXPOSURE, 1), STATUS_SUCCESS);
    EXPECT_EQ(Seen().back().out, (std::vector<UCHAR>{0x08}));
    EXPECT_EQ(rig.Slot(SLOT_AUTO_EXPOSURE), 1);
}

TEST_F(CameraControls, TurningAutoWhiteBalanceOffResendsTheStoredTemperature)
{
    rig.SetSlot(SLOT_WB_AUTO, 1);
    rig.SetSlot(SLOT_WB_TEMPERATURE, 3200);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_WB_AUTO, 0), STATUS_SUCCESS);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].value, 0x0B00);
    EXPECT_EQ(Seen()[1].value, 0x0A00);
    EXPECT_EQ(Seen()[1].out, (std::vector<UCHAR>{0x80, 0x0C}));  // 3200
    EXPECT_EQ(rig.CameraValue(3, 0x0B), 0);
    EXPECT_EQ(rig.CameraValue(3, 0x0A), 3200);
    EXPECT_EQ(rig.Slot(SLOT_WB_AUTO), 0);

    // Already off, or turned on: no re-send.
    for (LONG value : {0, 1}) {
        Seen().clear();
        rig.Req().SetDeviceProperty(PROPID_WB_AUTO, value);
        EXPECT_EQ(rig.RequestCount(), 1u) << value;
    }
}

// The self-timer takes -2..10; -2 marks it not supported, after which every
// set fails with STATUS_NOT_SUPPORTED.
TEST_F(CameraControls, TheSelfTimerTakesMinus2To10AndAfterMinus2NothingMore)
{
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, 11), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, -3), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -1);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, 10), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), 10);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, -2), STATUS_SUCCESS);
    for (LONG v : {-3, -2, -1, 0, 5, 10, 11}) {
        EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, v), STATUS_NOT_SUPPORTED) << v;
    }
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -2);
}

// Options are stored without a request: range-checked ones ignore values
// out of range silently, and any request reads them from the record; photo
// frame 11 asks the frame loop to reload its picture; an unknown id does
// nothing.
TEST_F(CameraControls, OptionsAreStoredRangeCheckedOnesIgnoringValuesOutOfRange)
{
    struct Case {
        USHORT id;
        ULONG slot;
        LONG lo, hi;
    };
    for (const Case& c : {Case{PROPID_TRACKING_METHOD, SLOT_TRACKING_METHOD, 0, 3},
                          Case{PROPID_ZOOM_LEVEL, SLOT_ZOOM_LEVEL, 1, 62}, Case{PROPID_PAN_UP, SLOT_PAN_UP, -1, 1}}) {
        SCOPED_TRACE(c.id);
        EXPECT_EQ(rig.Req().SetDeviceProperty(c.id, c.hi), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(c.slot), c.hi);
        EXPECT_EQ(rig.Req().SetDeviceProperty(c.id, c.hi + 1), STATUS_SUCCESS);
        EXPECT_EQ(rig.Req().SetDeviceProperty(c.id, c.lo - 1), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(c.slot), c.hi);
        EXPECT_EQ(rig.Req().SetDeviceProperty(c.id, c.lo), STATUS_SUCCESS);
        LONG value = 99;
        EXPECT_EQ(rig.Req().GetDeviceProperty(c.id, UVC_GET_MAX, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, c.lo);
    }
    rig.Req().SetDeviceProperty(PROPID_SPECIAL_FRAME, 3);
    EXPECT_EQ(rig.Req().m_SpecialFrameReload, 0u);
    rig.Req().SetDeviceProperty(PROPID_SPECIAL_FRAME, 11);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_FRAME), 11);
    EXPECT_EQ(rig.Req().m_SpecialFrameReload, 1u);
    EXPECT_EQ(rig.Req().SetDeviceProperty(0x0777, 5), STATUS_SUCCESS);
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// Id 0x0909 sets or clears one bit of camera register 0x17 through the
// extension unit's register window (and always sets that bit in register
// 0x18): bit 0x40 on product 0x0100, bit 0x20 on product 0x8034. Each
// register is selected with SET {0x80, reg}, read with a 2-byte GET,
// written with SET {0, reg, value} and read back with a 3-byte GET.
TEST(CameraControlsOtherCameras, TheExtensionOptionTogglesTheProductsBitOfRegister0x17)
{
    {
        Rig rig(SpecWithProduct(0x0100));
        rig.Start();
        rig.Camera().SetRegister(0x17, 0x01);
        rig.Camera().SetRegister(0x18, 0x00);
        EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 1);
        EXPECT_EQ(rig.Camera().Register(0x18), 0x40);
        EXPECT_EQ(rig.Camera().Register(0x17), 0x41);
        ASSERT_EQ(rig.RequestCount(), 8u);
        EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x80, 0x18}));
        EXPECT_EQ(Seen()[0].index, 0x0400);
        EXPECT_EQ(Seen()[0].value, 0x0300);
        EXPECT_EQ(Seen()[1].request, UVC_GET_CUR);
        EXPECT_EQ(Seen()[1].length, 2u);
        EXPECT_EQ(Seen()[2].out, (std::vector<UCHAR>{0x00, 0x18, 0x40}));
        EXPECT_EQ(Seen()[3].length, 3u);

        EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 0), STATUS_SUCCESS);
        EXPECT_EQ(rig.Camera().Register(0x17), 0x01);  // bit cleared
        EXPECT_EQ(rig.Camera().Register(0x18), 0x40);  // register 0x18 is always set

        // A value other than 0 or 1 sends nothing.
        Seen().clear();
        rig.SetSlot(SLOT_EXTENSION_OPTION, 0);
        EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 2), STATUS_SUCCESS);
        EXPECT_EQ(rig.RequestCount(), 0u);
        EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 0);
    }
    {
        Rig rig(SpecWithProduct(0x8034));
        rig.Start();
        rig.Camera().SetRegister(0x17, 0xFF);
        EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 0), STATUS_SUCCESS);
        EXPECT_EQ(rig.Camera().Register(0x17), 0xDF);
        EXPECT_EQ(rig.Camera().Register(0x18), 0x20);
    }
    // Without the extension unit the first failing request ends the set.
    CameraSpec noUnit = SpecWithProduct(0x0100);
    noUnit.extensionUnitControls = 0;
    noUnit.extensionUnitNumControls = 0;
    noUnit.extensionUnitId = 6;  // no entity 4
    Rig rig(noUnit);
    rig.Start();
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(rig.RequestCount(), 1u);
}

// On another product id 0x0909 only selects and reads the registers, with
// two 10 ms pauses per register.
TEST(CameraControlsOtherCameras, OnAnotherProductTheExtensionOptionOnlyReadsTheRegisters)
{
    Rig rig(SpecWithProduct(0x1234));
    rig.Start();
    rig.Camera().SetRegister(0x17, 0x5A);
    rig.Camera().SetRegister(0x18, 0x00);
    const LONGLONG t0 = kvsim::Now();
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 1);
    EXPECT_EQ(rig.Camera().Register(0x17), 0x5A);
    EXPECT_EQ(rig.Camera().Register(0x18), 0x00);
    ASSERT_EQ(rig.RequestCount(), 4u);
    for (const auto& r : Seen()) {
        if (r.request == UVC_SET_CUR) {
            EXPECT_EQ(r.out.size(), 2u);
            EXPECT_EQ(r.out[0], 0x80);
        }
    }
    EXPECT_GE(kvsim::Now() - t0, 40 * kvsim::kMillisecond);
}

}  // namespace
