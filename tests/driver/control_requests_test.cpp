// Video-class control requests against the virtual camera on the simulated
// USB bus: the request block, GET_CUR answered from the settings record, the
// other requests on the bus, SetDeviceProperty's table, and the extension
// unit's register window. A recording lower filter (controls_rig.h) counts
// and keeps every class request that goes down. The requests deferred from
// DISPATCH_LEVEL are in deferred_requests_test.cpp.
#include <gtest/gtest.h>

#include "controls_rig.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"

using namespace controls_rig;

namespace {

constexpr NTSTATUS kInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS kNotSupported = static_cast<NTSTATUS>(0xC00000BB);

}  // namespace

// ---- SendClassRequest ---------------------------------------------------

TEST(SendClassRequest, BuildsAClassInterfaceUrbWithTheDirectionOfTheRequest)
{
    Rig rig;
    rig.Start();
    UCHAR data[2] = {0x05, 0x00};
    ULONG length = 2;
    ASSERT_EQ(rig.SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, 0x0200, data, &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length, 2u);
    UCHAR in[2] = {0, 0};
    length = 2;
    ASSERT_EQ(rig.SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_GET_CUR, 0x0200, in, &length),
              STATUS_SUCCESS);
    EXPECT_EQ(in[0], 0x05);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].flags, static_cast<ULONG>(USBD_TRANSFER_DIRECTION_OUT));
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x05, 0x00}));
    EXPECT_EQ(Seen()[0].index, 0x0300);
    EXPECT_EQ(Seen()[1].flags, static_cast<ULONG>(USBD_TRANSFER_DIRECTION_IN));
    EXPECT_EQ(Seen()[1].request, 0x81);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 5);
    EXPECT_EQ(kvsim::PoolStatsForTag(kv::kTagRequest).currentCount, 1u);  // only the context is held
}

TEST(SendClassRequest, AStalledRequestReturnsStatusUnsuccessful)
{
    Rig rig;
    rig.Start();
    UCHAR data[2] = {0xE8, 0x03};  // brightness 1000: outside -64..64
    ULONG length = 2;
    EXPECT_EQ(rig.SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, 0x0200, data, &length),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 0);
}

TEST(SendClassRequest, UrbAllocationFailureReturnsInsufficientResources)
{
    Rig rig;
    rig.Start();
    UCHAR data[2] = {0, 0};
    ULONG length = 2;
    kvsim::PoolFailTag(kv::kTagRequest);
    EXPECT_EQ(rig.GetCur(UVC_ENTITY_PROCESSING_UNIT, 0x0200, data, &length), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// ---- GetDeviceProperty ----------------------------------------------------

TEST(GetDeviceProperty, GetCurOfACameraControlNeverTouchesTheBus)
{
    Rig rig;
    rig.Start();
    const USHORT ids[] = {0x0100, 0x0200, 0x0300, 0x0400, 0x0500, 0x0600,
                          0x0700, 0x0800, 0x0900, 0x0A00, 0x0B00, 0x0C00};
    const ULONG slots[] = {11, 0, 1, 10, 6, 4, 2, 3, 5, 8, 9, 7};
    for (size_t i = 0; i < std::size(ids); ++i) rig.SetSlot(slots[i], 100 + static_cast<LONG>(i));
    for (size_t i = 0; i < std::size(ids); ++i) {
        LONG value = -1;
        EXPECT_EQ(rig.GetDeviceProperty(ids[i], UVC_GET_CUR, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 100 + static_cast<LONG>(i)) << std::hex << ids[i];
    }
    EXPECT_EQ(rig.RequestCount(), 0u);
}

TEST(GetDeviceProperty, OtherRequestsAskTheCameraWithTheTablesEntityValueAndLength)
{
    Rig rig;
    rig.Start();
    LONG value = 0;
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_BRIGHTNESS, UVC_GET_MIN, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, -64);  // 2 bytes, signed
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_WB_TEMPERATURE, UVC_GET_MAX, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 6500);
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_EXPOSURE_TIME, UVC_GET_MAX, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 2047);
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_POWER_LINE, UVC_GET_DEF, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_AUTO_EXPOSURE, UVC_GET_DEF, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 8);
    ASSERT_EQ(rig.GetDeviceProperty(PROPID_CONTRAST, UVC_GET_RES, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 1);

    ASSERT_EQ(rig.RequestCount(), 6u);
    EXPECT_EQ(Seen()[0].index, 0x0300);
    EXPECT_EQ(Seen()[0].value, 0x0200);
    EXPECT_EQ(Seen()[0].length, 2u);
    EXPECT_EQ(Seen()[2].index, 0x0100);  // exposure time: camera terminal, 4 bytes
    EXPECT_EQ(Seen()[2].length, 4u);
    EXPECT_EQ(Seen()[3].length, 2u);     // power-line frequency asked with 2 bytes
    EXPECT_EQ(Seen()[4].index, 0x0100);  // auto exposure: CT selector 2
    EXPECT_EQ(Seen()[4].value, 0x0200);
    EXPECT_EQ(Seen()[5].request, UVC_GET_RES);
}

TEST(GetDeviceProperty, AFailedCameraRequestIsReturnedAsUnsuccessful)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.processingUnitControls = 0x0001;  // no contrast on the camera
    Rig rig(spec);
    rig.Start();
    LONG value = 1234;
    EXPECT_EQ(rig.GetDeviceProperty(PROPID_CONTRAST, UVC_GET_MAX, &value), STATUS_UNSUCCESSFUL);
}

TEST(GetDeviceProperty, DriverIdsAndDeviceValuesAreAnsweredWithoutTheBus)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_TRACKING_0637, 2);
    rig.SetSlot(26, 1);
    LONG value = 0;
    EXPECT_EQ(rig.GetDeviceProperty(PROPID_TRACKING_0637, UVC_GET_MAX, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 2);
    rig.GetDeviceProperty(0x063E, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 1);
    rig.GetDeviceProperty(PROPID_SELF_TIMER, UVC_GET_DEF, &value);
    EXPECT_EQ(value, -1);
    rig.GetDeviceProperty(PROPID_PU_BITMAP, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 0x177F);
    rig.GetDeviceProperty(PROPID_CT_BITMAP, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 0x0A);
    rig.RequestsValue(&ControlRequests::m_CapturePinRunning) = 0x101;
    rig.GetDeviceProperty(PROPID_PIN_RUNNING, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 1);  // low byte
    rig.RequestsValue(&ControlRequests::m_ControlReady) = 5;
    rig.GetDeviceProperty(PROPID_CONTROL_READY, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(rig.RequestCount(), 0u);
}

TEST(GetDeviceProperty, TheOneShotValueIsClearedByItsRead)
{
    Rig rig;
    rig.Start();
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_ONE_SHOT, 3), STATUS_SUCCESS);
    LONG value = 0;
    rig.GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 3);
    rig.GetDeviceProperty(PROPID_ONE_SHOT, UVC_GET_CUR, &value);
    EXPECT_EQ(value, 0);
}

TEST(GetDeviceProperty, AnUnknownIdSucceedsWithoutWritingTheResult)
{
    Rig rig;
    rig.Start();
    LONG value = 4321;
    EXPECT_EQ(rig.GetDeviceProperty(0x0777, UVC_GET_CUR, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 4321);
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// ---- SetDeviceProperty ----------------------------------------------------

TEST(SetDeviceProperty, ProcessingUnitIdsSendTwoBytesAndStoreEvenWhenTheCameraRefuses)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_POWER_LINE, 2), STATUS_SUCCESS);
    EXPECT_EQ(rig.CameraValue(3, 0x05), 2);
    ASSERT_EQ(rig.RequestCount(), 1u);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x02, 0x00}));  // 2 bytes for a 1-byte control
    EXPECT_EQ(rig.Slot(SLOT_POWER_LINE), 2);

    EXPECT_EQ(rig.SetDeviceProperty(PROPID_BRIGHTNESS, 1000), STATUS_SUCCESS);  // camera stalls
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 1000);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 0);
}

TEST(SetDeviceProperty, SettingExposureTimeWhileAutoExposureIsOnOnlyChangesSlot10)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_AUTO_EXPOSURE, 8);
    const int64_t cameraBefore = rig.CameraValue(1, 0x04);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXPOSURE_TIME, 900), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 900);
    EXPECT_EQ(rig.RequestCount(), 0u);
    EXPECT_EQ(rig.CameraValue(1, 0x04), cameraBefore);

    // Turning auto exposure off then sends it: mode 1 (manual), then the time.
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_AUTO_EXPOSURE, 0), STATUS_SUCCESS);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].value, 0x0200);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x01}));
    EXPECT_EQ(Seen()[1].value, 0x0400);
    EXPECT_EQ(Seen()[1].out, (std::vector<UCHAR>{0x84, 0x03, 0x00, 0x00}));
    EXPECT_EQ(rig.CameraValue(1, 0x02), 1);
    EXPECT_EQ(rig.CameraValue(1, 0x04), 900);
    EXPECT_EQ(rig.Slot(SLOT_AUTO_EXPOSURE), 0);

    // With manual exposure a new time goes straight to the camera.
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXPOSURE_TIME, 400), STATUS_SUCCESS);
    EXPECT_EQ(rig.CameraValue(1, 0x04), 400);
    // Auto exposure back on: one byte 8 only.
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_AUTO_EXPOSURE, 1), STATUS_SUCCESS);
    EXPECT_EQ(Seen().back().out, (std::vector<UCHAR>{0x08}));
    EXPECT_EQ(rig.Slot(SLOT_AUTO_EXPOSURE), 1);
}

TEST(SetDeviceProperty, AnExposureTimeTheCameraRefusesIsNotStored)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_EXPOSURE_TIME, 300);
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_AUTO_EXPOSURE, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXPOSURE_TIME, 5000), STATUS_UNSUCCESSFUL);  // max 2047
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 300);
}

TEST(SetDeviceProperty, TurningAutoWhiteBalanceOffResendsTheStoredTemperature)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_WB_AUTO, 1);
    rig.SetSlot(SLOT_WB_TEMPERATURE, 3200);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_WB_AUTO, 0), STATUS_SUCCESS);
    ASSERT_EQ(rig.RequestCount(), 2u);
    EXPECT_EQ(Seen()[0].value, 0x0B00);
    EXPECT_EQ(Seen()[1].value, 0x0A00);
    EXPECT_EQ(Seen()[1].out, (std::vector<UCHAR>{0x80, 0x0C}));  // 3200
    EXPECT_EQ(rig.CameraValue(3, 0x0B), 0);
    EXPECT_EQ(rig.CameraValue(3, 0x0A), 3200);
    EXPECT_EQ(rig.Slot(SLOT_WB_AUTO), 0);

    // Already off: no re-send.
    Seen().clear();
    rig.SetDeviceProperty(PROPID_WB_AUTO, 0);
    EXPECT_EQ(rig.RequestCount(), 1u);
    // Turning it on: no re-send either.
    Seen().clear();
    rig.SetDeviceProperty(PROPID_WB_AUTO, 1);
    EXPECT_EQ(rig.RequestCount(), 1u);
}

TEST(SetDeviceProperty, ASelfTimerValueOf11OrMinus3FailsWithInvalidParameter)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_SELF_TIMER, 11), kInvalidParameter);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_SELF_TIMER, -3), kInvalidParameter);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -1);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_SELF_TIMER, 10), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), 10);
}

TEST(SetDeviceProperty, WithSlot34AtMinus2EverySelfTimerSetFailsWithNotSupported)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_SELF_TIMER, -2), STATUS_SUCCESS);
    for (LONG v : {-3, -2, -1, 0, 5, 10, 11}) {
        EXPECT_EQ(rig.SetDeviceProperty(PROPID_SELF_TIMER, v), kNotSupported) << v;
    }
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -2);
}

TEST(SetDeviceProperty, RangeCheckedIdsIgnoreOutOfRangeValuesSilently)
{
    Rig rig;
    rig.Start();
    struct Case { USHORT id; ULONG slot; LONG lo, hi; };
    const Case cases[] = {{0x0635, 19, 0, 3}, {0x0636, 21, 0, 2}, {0x0637, 20, 0, 2}, {0x0638, 28, 1, 62},
                          {0x063A, 22, 0, 1}, {0x063B, 23, -1, 1}, {0x063F, 27, -1, 1}, {0x0905, 16, 0, 1}};
    for (const Case& c : cases) {
        EXPECT_EQ(rig.SetDeviceProperty(c.id, c.hi), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(c.slot), c.hi) << std::hex << c.id;
        EXPECT_EQ(rig.SetDeviceProperty(c.id, c.hi + 1), STATUS_SUCCESS);
        EXPECT_EQ(rig.SetDeviceProperty(c.id, c.lo - 1), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(c.slot), c.hi) << std::hex << c.id;
        EXPECT_EQ(rig.SetDeviceProperty(c.id, c.lo), STATUS_SUCCESS);
        EXPECT_EQ(rig.Slot(c.slot), c.lo) << std::hex << c.id;
    }
    EXPECT_EQ(rig.RequestCount(), 0u);
}

TEST(SetDeviceProperty, PlainOptionsAreStoredAndFrame11SetsTheReloadFlag)
{
    Rig rig;
    rig.Start();
    rig.SetDeviceProperty(PROPID_ROTATE, 1);
    rig.SetDeviceProperty(PROPID_SPECIAL_EFFECT, 16);
    rig.SetDeviceProperty(PROPID_SPECIAL_FRAME, 3);
    EXPECT_EQ(rig.RequestsValue(&ControlRequests::m_SpecialFrameReload), 0u);
    rig.SetDeviceProperty(PROPID_SPECIAL_FRAME, 11);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 16);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_FRAME), 11);
    EXPECT_EQ(rig.RequestsValue(&ControlRequests::m_SpecialFrameReload), 1u);
    EXPECT_EQ(rig.SetDeviceProperty(0x0777, 5), STATUS_SUCCESS);  // no action
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// ---- AccessExtensionRegister / id 0x0909 ------------------------------------------

TEST(ExtensionRegister, ProductId0x0100TogglesBit0x40)
{
    Rig rig(SpecWithProduct(0x0100));
    rig.Start();
    rig.Camera().SetRegister(0x17, 0x01);
    rig.Camera().SetRegister(0x18, 0x00);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 1);
    EXPECT_EQ(rig.Camera().Register(0x18), 0x40);
    EXPECT_EQ(rig.Camera().Register(0x17), 0x41);
    // Request pattern per register: SET {0x80, reg}, GET 2, SET {0, reg, v}, GET 3.
    ASSERT_EQ(rig.RequestCount(), 8u);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x80, 0x18}));
    EXPECT_EQ(Seen()[0].index, 0x0400);
    EXPECT_EQ(Seen()[0].value, 0x0300);
    EXPECT_EQ(Seen()[1].request, UVC_GET_CUR);
    EXPECT_EQ(Seen()[1].length, 2u);
    EXPECT_EQ(Seen()[2].out, (std::vector<UCHAR>{0x00, 0x18, 0x40}));
    EXPECT_EQ(Seen()[3].length, 3u);

    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Camera().Register(0x17), 0x01);  // bit cleared
    EXPECT_EQ(rig.Camera().Register(0x18), 0x40);  // register 0x18 is always set
}

TEST(ExtensionRegister, ProductId0x8034TogglesBit0x20)
{
    Rig rig(SpecWithProduct(0x8034));
    rig.Start();
    rig.Camera().SetRegister(0x17, 0xFF);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Camera().Register(0x17), 0xDF);
    EXPECT_EQ(rig.Camera().Register(0x18), 0x20);
}

TEST(ExtensionRegister, OnAnotherProductIdId0909OnlyReadsTheRegisters)
{
    Rig rig(SpecWithProduct(0x1234));
    rig.Start();
    rig.Camera().SetRegister(0x17, 0x5A);
    rig.Camera().SetRegister(0x18, 0x00);
    const LONGLONG t0 = kvsim::Now();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 1);
    EXPECT_EQ(rig.Camera().Register(0x17), 0x5A);
    EXPECT_EQ(rig.Camera().Register(0x18), 0x00);
    ASSERT_EQ(rig.RequestCount(), 4u);  // per register: select, read
    for (const auto& r : Seen()) {
        if (r.request == UVC_SET_CUR) {
            EXPECT_EQ(r.out.size(), 2u);
            EXPECT_EQ(r.out[0], 0x80);
        }
    }
    // Two 10 ms pauses per register.
    EXPECT_GE(kvsim::Now() - t0, 40 * kvsim::kMillisecond);
}

TEST(ExtensionRegister, AnOutOfRangeValueSendsNothing)
{
    Rig rig(SpecWithProduct(0x0100));
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 2), STATUS_SUCCESS);
    EXPECT_EQ(rig.RequestCount(), 0u);
    EXPECT_EQ(rig.Slot(SLOT_EXTENSION_OPTION), 0);
}

TEST(ExtensionRegister, ACameraWithoutTheExtensionUnitFailsTheSet)
{
    CameraSpec spec = SpecWithProduct(0x0100);
    spec.extensionUnitControls = 0;
    spec.extensionUnitNumControls = 0;
    spec.extensionUnitId = 6;  // no entity 4
    Rig rig(spec);
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_EXTENSION_OPTION, 1), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(rig.RequestCount(), 1u);  // the first failing request ends it
}
