// The settings store against the simulated registry and the virtual camera.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "controls_rig.h"
#include "kvsim/pool.h"

using namespace controls_rig;

// Without the service key every operation returns STATUS_INVALID_HANDLE and
// creates nothing. CloseSubkey drops only the last component: after
// "\Property\Last" the path names "\USBKV\Property", and the next open
// appends below it.
TEST(RegistryKeyPath, FailsWithoutTheServiceKeyAndAfterATwoComponentSubkeyOpensBelowProperty)
{
    kvsim::RegReset();
    RegistryKeyPath path;
    EXPECT_FALSE(NT_SUCCESS(path.OpenRoot(KV_REGISTRY_SERVICE)));
    ULONG where = 7;
    EXPECT_EQ(path.OpenSubkey(KV_REGISTRY_DATA), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.ReadDword(L"BW", &where), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.WriteDword(L"BW", 1), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.Close(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(where, 7u);
    EXPECT_FALSE(kvsim::RegKeyExists(kService));

    kvsim::RegCreateKey(kLast);
    kvsim::RegCreateKey(kData);
    kvsim::RegCreateKey(kService + "\\Property\\Data");
    kvsim::RegSetDword(kService + "\\Property\\Data", "Where", 2);
    kvsim::RegSetDword(kData, "Where", 1);

    ASSERT_EQ(path.OpenRoot(KV_REGISTRY_SERVICE), STATUS_SUCCESS);
    ASSERT_EQ(path.OpenSubkey(KV_REGISTRY_LAST), STATUS_SUCCESS);
    ASSERT_EQ(path.CloseSubkey(KV_REGISTRY_LAST), STATUS_SUCCESS);
    ASSERT_EQ(path.OpenSubkey(KV_REGISTRY_DATA), STATUS_SUCCESS);
    EXPECT_EQ(path.ReadDword(L"Where", &where), STATUS_SUCCESS);
    EXPECT_EQ(where, 2u);  // "\USBKV\Property\Data", not "\USBKV\Data"
    EXPECT_EQ(path.Close(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegOpenKeyCount(), 0u);

    // Without "\USBKV\Property\Data" that open fails and leaves no handle.
    kvsim::RegDeleteKeyTree(kService + "\\Property\\Data");
    ASSERT_EQ(path.OpenRoot(KV_REGISTRY_SERVICE), STATUS_SUCCESS);
    path.OpenSubkey(KV_REGISTRY_LAST);
    path.CloseSubkey(KV_REGISTRY_LAST);
    EXPECT_FALSE(NT_SUCCESS(path.OpenSubkey(KV_REGISTRY_DATA)));
    EXPECT_EQ(path.KeyHandle(), nullptr);
}

// Of "\Data" only the two values the driver owns are created when missing,
// and "DeviceExist" = 1; the start sends no control request. Present values
// are read and not rewritten; a value shorter than four bytes is read into a
// zeroed word, never mixed with the upper bytes of the value read before it.
TEST(DeviceStartSettings, OnlyTheDriversOwnDataValuesAreCreatedAndShortValuesAreReadIntoAZeroedWord)
{
    {
        Rig rig;
        rig.Start();
        EXPECT_EQ(rig.RequestCount(), 0u);
        EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 4u);
        EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 2u);
        auto names = kvsim::RegListValues(kData);
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, (std::vector<std::string>{"DeviceExist", "TrackingFocus", "TrackingWindowSize"}));
        EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
        // Without "ReadDef" (never created then) the camera's defaults are not read.
        EXPECT_EQ(rig.Settings().CheckReadDef(), STATUS_SUCCESS);
        EXPECT_EQ(rig.RequestCount(), 0u);
        EXPECT_TRUE(kvsim::RegListValues(kLast).empty());
        EXPECT_FALSE(kvsim::RegGetDword(kData, "ReadDef").has_value());
    }
    Rig rig;
    kvsim::RegSetDword(kData, "TrackingWindowSize", 0);
    kvsim::RegSetDword(kData, "BW", 0x12345678);
    kvsim::RegSetValue(kData, "SaveFileMJPEG", REG_BINARY, {0x01});
    kvsim::RegSetValue(kData, "DropFrameCntVGA", REG_DWORD, {0x0C, 0x00});
    rig.Start();
    const DeviceSettings& s = rig.Settings();
    EXPECT_EQ(s.m_TrackingWindowSize, 0u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 0u);
    EXPECT_EQ(s.m_BW, 0x12345678u);
    EXPECT_EQ(s.m_SaveFileMJPEG, 1u);
    EXPECT_EQ(s.m_DropFrameCntVGA, 12u);
}

// "SWSetting": three bytes, default 00 C0 01 (mirror, flip and dead-pixel
// correction enabled, idle power off); a value of another length leaves the
// default. Bit 0 is idle power, bit 13 slot 16's initial value; a feature
// whose bit is clear takes effect as 0 whatever its slot holds.
TEST(DeviceStartSettings, SWSettingSetsIdlePowerSlot16AndWhichOfMirrorFlipAndDeadPixelTakeEffect)
{
    struct Case {
        std::vector<uint8_t> value;  // empty: absent
        ULONG idlePower;
        LONG slot16, effective;
    };
    for (const Case& c :
         {Case{{}, 0, 0, 1}, Case{{0xFF, 0xFF, 0xFF, 0xFF}, 0, 0, 1}, Case{{0x01, 0x20, 0x00}, 1, 1, 0}}) {
        SCOPED_TRACE(c.value.size());
        Rig rig;
        if (!c.value.empty()) kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, c.value);
        rig.Start();
        const DeviceSettings& s = rig.Settings();
        EXPECT_EQ(rig.Dev().m_Idle.m_IdlePowerEnabled, c.idlePower);
        EXPECT_EQ(rig.Slot(SLOT_SWSETTING_OPTION), c.slot16);
        for (USHORT id : {PROPID_MIRROR, PROPID_VFLIP, PROPID_DEAD_PIXEL}) rig.Req().SetDeviceProperty(id, 1);
        EXPECT_EQ(rig.Slot(SLOT_MIRROR), 1);
        EXPECT_EQ(s.m_EffectiveMirror, c.effective);
        EXPECT_EQ(s.m_EffectiveVflip, c.effective);
        EXPECT_EQ(s.m_EffectiveDeadPixel, c.effective);
        rig.Req().SetDeviceProperty(PROPID_MIRROR, 0);
        EXPECT_EQ(s.m_EffectiveMirror, 0);
    }
}

TEST(DeviceStartSettings, WithoutTheControlRequestContextNothingIsRead)
{
    Rig rig;
    ASSERT_EQ(rig.Dev().m_Usb.ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    kvsim::PoolFailTag(kv::kTagRequest);
    EXPECT_EQ(rig.Dev().InitDeviceSettings(), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_FALSE(kvsim::RegGetDword(kData, "TrackingWindowSize").has_value());
    EXPECT_FALSE(kvsim::RegGetDword(kData, "DeviceExist").has_value());
    EXPECT_EQ(rig.Settings().m_Property, nullptr);
}

// A "ReadDef" other than the processing unit's bitmap: the camera's defaults
// are read into the record and saved to "\Property\Last", and "ReadDef"
// takes the bitmap. Above APC_LEVEL CheckReadDef prints the pageable line and
// leaves the registry alone.
TEST(CheckReadDef, ADifferentReadDefReadsTheCameraDefaultsIntoPropertyLast)
{
    Rig rig;
    kvsim::RegSetDword(kData, "ReadDef", 0);
    kvsim::RegSetDword(kDefault, "fVflip", 1);
    rig.Start();
    kvsim::ClearDebugLog();
    AtDispatchLevel([&] { return rig.Settings().CheckReadDef(); });
    EXPECT_TRUE(DebugSaid("EX: Pageable code called at IRQL 2\n"));
    EXPECT_EQ(kvsim::RegGetDword(kData, "ReadDef"), 0u);
    EXPECT_EQ(rig.RequestCount(), 0u);
    rig.Settings().CheckReadDef();

    // The virtual camera's defaults (sim/camera/uvc_camera.cpp's table).
    EXPECT_EQ(rig.Slot(SLOT_CONTRAST), 32);
    EXPECT_EQ(rig.Slot(SLOT_WB_TEMPERATURE), 4600);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 156);
    // Every request was a GET_DEF; exposure time is asked of the camera
    // terminal only, never as gain, whose default is not read.
    for (const auto& r : Seen()) {
        EXPECT_EQ(r.request, UVC_GET_DEF);
        if (r.value == 0x0400) {
            EXPECT_EQ(r.index, UVC_ENTITY_CAMERA_TERMINAL);
        }
    }
    EXPECT_EQ(rig.RequestCount(), 12u);  // 10 PU controls (not gain) + 2 CT controls

    // "\Property\Default" orientation applied, then saved to "\Property\Last".
    EXPECT_EQ(rig.Slot(SLOT_VFLIP), 1);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "Contrast"), 32u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "AETarget"), 156u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "Gain"), 156u);  // slot 10, twice
    EXPECT_EQ(kvsim::RegGetDword(kLast, "fVflip"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "ReadDef"), 0x177Fu);

    // Run again: ReadDef now matches, nothing more is asked.
    Seen().clear();
    rig.Settings().CheckReadDef();
    EXPECT_EQ(rig.RequestCount(), 0u);
}

// A camera without hue while the bitmap claims hue: its GET_DEF stalls, the
// slot becomes 0, and the pass goes on.
TEST(CheckReadDef, AFailedDefaultSetsItsSlotTo0AndPrintsTheLine)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.processingUnitControls = 0x0002;  // contrast only
    Rig rig(spec);
    rig.Start();
    rig.Dev().m_Formats.ProcessingUnitControls = 0x0006;  // contrast, hue
    rig.SetSlot(SLOT_HUE, 99);
    kvsim::ClearDebugLog();
    EXPECT_EQ(rig.Settings().InitLastValue(), 1);
    EXPECT_EQ(rig.Slot(SLOT_HUE), 0);
    EXPECT_EQ(rig.Slot(SLOT_CONTRAST), 32);
    EXPECT_TRUE(DebugSaid("InitLastValue() Retrieve properties fail."));
}

TEST(PropertySets, Slot10IsSavedUnderTheNamesOfTheControlsTheCameraHas)
{
    for (bool hasGain : {false, true}) {
        SCOPED_TRACE(hasGain ? "no exposure-time bit" : "no gain bit");
        CameraSpec spec = kvsim::camera::DefaultCameraSpec();
        if (hasGain) {
            spec.cameraTerminalControls &= ~0x8;
        } else {
            spec.processingUnitControls &= ~0x0200;
        }
        Rig rig(spec);
        rig.Start();
        rig.SetSlot(SLOT_EXPOSURE_TIME, 300);
        rig.Settings().SavePropertySet(PropertySetLast);
        EXPECT_FALSE(kvsim::RegGetDword(kLast, hasGain ? "AETarget" : "Gain").has_value());
        EXPECT_EQ(kvsim::RegGetDword(kLast, hasGain ? "Gain" : "AETarget"), 300u);
        if (!hasGain) continue;
        kvsim::RegSetDword(kLast, "Gain", 500);
        kvsim::RegSetDword(kLast, "fAE", 0);
        Seen().clear();
        rig.Settings().LoadPropertySet(PropertySetLast);
        EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 500);
        bool sentAsExposure = false;
        for (const auto& r : Seen()) {
            if (r.request == UVC_SET_CUR && r.value == 0x0400 && r.index == UVC_ENTITY_CAMERA_TERMINAL) {
                sentAsExposure = true;
            }
            EXPECT_FALSE(r.index == UVC_ENTITY_PROCESSING_UNIT && r.value == 0x0400);
        }
        EXPECT_TRUE(sentAsExposure);
    }
}

TEST(PropertySets, ACustomerSetSavedAndLoadedBackReachesTheCamera)
{
    Rig rig;
    rig.Start();
    // Manual exposure, so that exposure times reach the camera.
    rig.SetSlot(SLOT_EXPOSURE_TIME, 156);
    ASSERT_EQ(rig.Req().SetDeviceProperty(PROPID_AUTO_EXPOSURE, 0), STATUS_SUCCESS);
    const std::pair<USHORT, LONG> saved[] = {
        {PROPID_BRIGHTNESS, -20}, {PROPID_CONTRAST, 40},     {PROPID_GAMMA, 200},          {PROPID_WB_AUTO, 0},
        {PROPID_WB_TEMPERATURE, 5000}, {PROPID_EXPOSURE_TIME, 700}, {PROPID_ROTATE, 1}, {PROPID_SPECIAL_EFFECT, 4},
        {PROPID_SELF_TIMER, 5},
    };
    for (const auto& [id, value] : saved) ASSERT_EQ(rig.Req().SetDeviceProperty(id, value), STATUS_SUCCESS) << id;
    ASSERT_EQ(rig.Req().SetDeviceProperty(PROPID_SAVE_CUSTOMER, 0), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "Brightness"), static_cast<uint32_t>(-20));
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "AETarget"), 700u);
    EXPECT_TRUE(kvsim::RegListValues(kLast).empty());  // the Customer set only

    // Change everything.
    const std::pair<USHORT, LONG> changed[] = {
        {PROPID_BRIGHTNESS, 10},  {PROPID_CONTRAST, 1}, {PROPID_GAMMA, 300},          {PROPID_WB_TEMPERATURE, 3000},
        {PROPID_EXPOSURE_TIME, 50}, {PROPID_ROTATE, 0}, {PROPID_SPECIAL_EFFECT, 0}, {PROPID_SELF_TIMER, -1},
    };
    for (const auto& [id, value] : changed) rig.Req().SetDeviceProperty(id, value);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 10);

    // Load back: the camera's state carries the saved values.
    ASSERT_EQ(rig.Req().SetDeviceProperty(PROPID_LOAD_CUSTOMER, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.CameraValue(3, 0x02), -20);   // brightness
    EXPECT_EQ(rig.CameraValue(3, 0x03), 40);    // contrast
    EXPECT_EQ(rig.CameraValue(3, 0x09), 200);   // gamma
    EXPECT_EQ(rig.CameraValue(3, 0x0A), 5000);  // white-balance temperature
    EXPECT_EQ(rig.CameraValue(3, 0x0B), 0);     // white-balance auto off
    EXPECT_EQ(rig.CameraValue(1, 0x02), 1);     // auto-exposure mode manual
    EXPECT_EQ(rig.CameraValue(1, 0x04), 700);   // exposure time
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), -20);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 700);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 4);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), 5);
}

// A value missing from the set re-sends the slot's current value; a value
// wider than 16 bits reaches the camera as its low 16 bits and stays whole
// in the slot (an option's goes through SetDeviceProperty as 16 bits).
TEST(PropertySets, LoadingSendsMissingValuesFromTheirSlotsAndWideValuesAs16Bits)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_SHARPNESS, 5);
    kvsim::RegSetDword(kLast, "Brightness", 0x00010005);  // low 16 bits: 5
    kvsim::RegSetDword(kLast, "fRotate", 0x00020001);
    rig.Settings().LoadPropertySet(PropertySetLast);
    EXPECT_EQ(rig.Slot(SLOT_SHARPNESS), 5);
    EXPECT_EQ(rig.CameraValue(3, 0x08), 5);  // sharpness re-sent from its slot
    EXPECT_EQ(rig.CameraValue(3, 0x02), 5);
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 0x00010005);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
}

TEST(PropertySets, LoadingFromAKeyThatCannotBeOpenedLeavesTheRecordAsItIs)
{
    Rig rig;
    rig.Start();
    kvsim::RegDeleteKeyTree(kCustomer);
    rig.SetSlot(SLOT_CONTRAST, 20);
    rig.SetSlot(SLOT_ROTATE, 1);
    EXPECT_FALSE(NT_SUCCESS(rig.Settings().LoadPropertySet(PropertySetCustomer)));
    EXPECT_EQ(rig.Slot(SLOT_CONTRAST), 20);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    EXPECT_EQ(kvsim::RegOpenKeyCount(), 0u);
}

// Id 0x0916 applies only the effect values of "\Property\Default", id 0x0915
// only the orientation values; id 0x0917 resets tracking and the self-timer.
TEST(PropertyDefaults, EffectsOrientationAndResetEachApplyOnlyTheirOwnValues)
{
    Rig rig;
    kvsim::RegSetDword(kDefault, "fRotate", 1);
    kvsim::RegSetDword(kDefault, "fMirror", 1);
    kvsim::RegSetDword(kDefault, "fDeadPixelCorrection", 1);
    kvsim::RegSetDword(kDefault, "SpecialEffectNo", 9);
    kvsim::RegSetDword(kDefault, "SpecialFrameNo", 11);
    rig.Start();
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_DEFAULT_EFFECTS, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 9);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_FRAME), 11);
    EXPECT_EQ(rig.Req().m_SpecialFrameReload, 1u);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 0);

    rig.SetSlot(SLOT_SPECIAL_EFFECT, 0);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_DEFAULT_ORIENTATION, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    EXPECT_EQ(rig.Slot(SLOT_MIRROR), 1);
    EXPECT_EQ(rig.Slot(SLOT_VFLIP), 0);
    EXPECT_EQ(rig.Slot(SLOT_DEAD_PIXEL), 1);
    EXPECT_EQ(rig.Settings().m_EffectiveMirror, 1);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 0);

    rig.Req().SetDeviceProperty(PROPID_TRACKING_METHOD, 2);
    rig.Req().SetDeviceProperty(PROPID_SELF_TIMER, 5);
    EXPECT_EQ(rig.Req().SetDeviceProperty(PROPID_RESET_TRACKING, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_TRACKING_METHOD), 0);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -1);
}

// Photo frames 7-11 are the customer's, saved as "CustomerFrame0".."4" with
// the units and a terminating zero; any other index, no text or no units
// fail with STATUS_INVALID_PARAMETER and write nothing.
TEST(SaveSpecialFrameString, Index7To11WriteCustomerFrame0To4AndOthersFail)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(6, L"frame.bmp", 9), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(12, L"frame.bmp", 9), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(8, nullptr, 9), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(8, L"frame.bmp", 0), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(kvsim::RegListValues(kLast).empty());

    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(7, L"C:\\a.bmp", 8), STATUS_SUCCESS);
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(11, L"C:\\b.bmpXX", 8), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetString(kLast, "CustomerFrame0"), "C:\\a.bmp");
    EXPECT_EQ(kvsim::RegGetString(kLast, "CustomerFrame4"), "C:\\b.bmp");
    EXPECT_EQ(kvsim::RegGetValue(kLast, "CustomerFrame4")->data.size(), 18u);  // (8 + 1) x 2
    EXPECT_FALSE(kvsim::RegGetValue(kLast, "CustomerFrame5").has_value());
}
