// The persistent settings store against the simulated registry and the
// virtual camera (through the simulated USB bus): the registry layer, the
// settings' share of the device start, CheckReadDef / InitLastValue, the
// Last and Customer sets, the "\Property\Default" operations, and
// SaveSpecialFrameString.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "controls_rig.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"

using namespace controls_rig;

namespace {

bool LogHas(const std::string& text)
{
    for (const auto& m : kvsim::DebugMessages())
        if (m.find(text) != std::string::npos) return true;
    return false;
}

std::u16string U16(const char* s)
{
    std::u16string out;
    while (*s) out.push_back(static_cast<char16_t>(*s++));
    return out;
}

}  // namespace

// ---- Registry layer -------------------------------------------------------

TEST(RegistryKeyPath, EveryOperationOnAnUnopenedKeyReturnsInvalidHandle)
{
    kvsim::RegReset();  // no "\USBKV" at all
    RegistryKeyPath path;
    EXPECT_FALSE(NT_SUCCESS(path.OpenRoot(KV_REGISTRY_SERVICE)));
    EXPECT_EQ(path.KeyHandle(), nullptr);
    ULONG value = 7, length = 4;
    EXPECT_EQ(path.OpenSubkey(KV_REGISTRY_DATA), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.ReadDword(L"BW", &value), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.ReadRaw(L"BW", &value, &length), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.WriteDword(L"BW", 1), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.WriteString(L"S", L"x", 1), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.CloseSubkey(KV_REGISTRY_DATA), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.Reopen(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(path.Close(), STATUS_INVALID_HANDLE);
    EXPECT_EQ(value, 7u);
    EXPECT_FALSE(kvsim::RegKeyExists(kService));  // nothing was created
}

TEST(RegistryKeyPath, AfterClosingATwoComponentSubkeyTheNextOpenAppendsBelowProperty)
{
    kvsim::RegReset();
    kvsim::RegCreateKey(kLast);
    kvsim::RegCreateKey(kData);
    kvsim::RegCreateKey(kService + "\\Property\\Data");
    kvsim::RegSetDword(kService + "\\Property\\Data", "Where", 2);
    kvsim::RegSetDword(kData, "Where", 1);

    RegistryKeyPath path;
    ASSERT_EQ(path.OpenRoot(KV_REGISTRY_SERVICE), STATUS_SUCCESS);
    ASSERT_EQ(path.OpenSubkey(KV_REGISTRY_LAST), STATUS_SUCCESS);
    ASSERT_EQ(path.CloseSubkey(KV_REGISTRY_LAST), STATUS_SUCCESS);
    // The path now names Property below "\USBKV", not "\USBKV" itself.
    const std::u16string expected = U16("\\Registry\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Property");
    std::u16string now(reinterpret_cast<const char16_t*>(path.Path().Buffer), path.Path().Length / 2);
    EXPECT_EQ(now, expected);
    ASSERT_EQ(path.OpenSubkey(KV_REGISTRY_DATA), STATUS_SUCCESS);
    ULONG where = 0;
    EXPECT_EQ(path.ReadDword(L"Where", &where), STATUS_SUCCESS);
    EXPECT_EQ(where, 2u);  // "\USBKV\Property\Data", not "\USBKV\Data"
    EXPECT_EQ(path.Close(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegOpenKeyCount(), 0u);
}

TEST(RegistryKeyPath, AnAbsentSubkeyBelowPropertyLeavesTheHandleNull)
{
    kvsim::RegReset();
    kvsim::RegCreateKey(kLast);
    RegistryKeyPath path;
    ASSERT_EQ(path.OpenRoot(KV_REGISTRY_SERVICE), STATUS_SUCCESS);
    path.OpenSubkey(KV_REGISTRY_LAST);
    path.CloseSubkey(KV_REGISTRY_LAST);
    EXPECT_FALSE(NT_SUCCESS(path.OpenSubkey(KV_REGISTRY_DATA)));  // "\USBKV\Property\Data" does not exist
    EXPECT_EQ(path.KeyHandle(), nullptr);
    ULONG v = 0;
    EXPECT_EQ(path.ReadDword(L"x", &v), STATUS_INVALID_HANDLE);
}

TEST(RegistryKeyPath, ARawReadCopiesOnlyWhenTheDataFits)
{
    kvsim::RegReset();
    kvsim::RegCreateKey(kData);
    kvsim::RegSetValue(kData, "Long", REG_BINARY, {1, 2, 3, 4, 5, 6, 7, 8});
    kvsim::RegSetValue(kData, "Short", REG_SZ, {0xAA, 0xBB});  // type is never checked
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_DATA);

    UCHAR buffer[4] = {9, 9, 9, 9};
    ULONG length = sizeof(buffer);
    EXPECT_FALSE(NT_SUCCESS(path.ReadRaw(L"Long", buffer, &length)));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer[0], 9);
    EXPECT_EQ(buffer[3], 9);

    length = sizeof(buffer);
    EXPECT_EQ(path.ReadRaw(L"Short", buffer, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(buffer[0], 0xAA);
    EXPECT_EQ(buffer[1], 0xBB);
    EXPECT_EQ(buffer[2], 9);  // nothing past the data

    // The temporary buffer is "KVaT" and goes back before the call returns.
    EXPECT_GT(kvsim::PoolStatsForTag(kvsim::PoolTag("KVaT")).totalAllocations, 0u);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVaT")).currentCount, 0u);
}

TEST(RegistryKeyPath, WriteStringStoresTheUnitsAndATerminatingZero)
{
    kvsim::RegReset();
    kvsim::RegCreateKey(kLast);
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_LAST);
    ASSERT_EQ(path.WriteString(L"Name", L"abcdef", 3), STATUS_SUCCESS);  // only "abc"
    auto value = kvsim::RegGetValue(kLast, "Name");
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->type, static_cast<uint32_t>(REG_SZ));
    EXPECT_EQ(value->data, (std::vector<uint8_t>{'a', 0, 'b', 0, 'c', 0, 0, 0}));
}

// ---- InitDeviceSettings ---------------------------------------------------

TEST(InitDeviceSettings, MissingTrackingWindowSizeAndTrackingFocusAreCreatedWith4And2)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 4u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 2u);
    EXPECT_EQ(rig.Settings().m_TrackingWindowSize, 4u);
    EXPECT_EQ(rig.Settings().m_TrackingFocus, 2u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
    // Nothing else is created.
    auto names = kvsim::RegListValues(kData);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"DeviceExist", "TrackingFocus", "TrackingWindowSize"}));
}

TEST(InitDeviceSettings, PresentDataValuesAreReadAndNotRewritten)
{
    Rig rig;
    kvsim::RegSetDword(kData, "TrackingWindowSize", 0);
    kvsim::RegSetDword(kData, "TrackingFocus", 5);
    kvsim::RegSetDword(kData, "BW", 3);
    kvsim::RegSetDword(kData, "SaveFileMJPEG", 1);
    kvsim::RegSetDword(kData, "SaveFileDroppedMJPEG", 1);
    kvsim::RegSetDword(kData, "DropFrameCntVGA", 12);
    kvsim::RegSetDword(kData, "Key1Function", 1);
    kvsim::RegSetDword(kData, "Key2Function", 2);
    rig.Start();
    EXPECT_EQ(rig.Settings().m_TrackingWindowSize, 0u);
    EXPECT_EQ(rig.Settings().m_TrackingFocus, 5u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 5u);
    EXPECT_EQ(rig.Settings().m_BW, 3u);
    EXPECT_EQ(rig.Settings().m_SaveFileMJPEG, 1u);
    EXPECT_EQ(rig.Settings().m_SaveFileDroppedMJPEG, 1u);
    EXPECT_EQ(rig.Settings().m_DropFrameCntVGA, 12u);
    EXPECT_EQ(rig.Settings().m_Key1Function, 1u);
    EXPECT_EQ(rig.Settings().m_Key2Function, 2u);
}

// A short value is taken as its data bytes in a zeroed word, never mixed
// with the upper bytes of the value read before it.
TEST(InitDeviceSettings, AValueShorterThanFourBytesIsReadIntoAZeroedWord)
{
    Rig rig;
    kvsim::RegSetDword(kData, "BW", 0x12345678);
    kvsim::RegSetValue(kData, "SaveFileMJPEG", REG_BINARY, {0x01});
    kvsim::RegSetValue(kData, "DropFrameCntVGA", REG_DWORD, {0x0C, 0x00});
    rig.Start();
    EXPECT_EQ(rig.Settings().m_BW, 0x12345678u);
    EXPECT_EQ(rig.Settings().m_SaveFileMJPEG, 1u);
    EXPECT_EQ(rig.Settings().m_DropFrameCntVGA, 12u);
}

TEST(InitDeviceSettings, TheRecordStartsWithTheTablesInitialValues)
{
    Rig rig;
    rig.Start();
    for (ULONG slot = 0; slot < DEVICE_PROPERTY_SLOTS; ++slot) {
        LONG expected = 0;
        if (slot == 21 || slot == 28) expected = 1;
        if (slot >= 23 && slot <= 27) expected = -1;
        if (slot == 34) expected = -1;
        EXPECT_EQ(rig.Slot(slot), expected) << "slot " << slot;
    }
    EXPECT_EQ(rig.Dev().m_Idle.m_IdlePowerEnabled, 0u);  // default SWSetting: bit 0 clear
    EXPECT_EQ(rig.RequestCount(), 0u);            // the start sends no control request
}

TEST(InitDeviceSettings, ASWSettingValueOf4BytesLeavesTheDefault00C001InForce)
{
    Rig rig;
    kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, {0xFF, 0xFF, 0xFF, 0xFF});
    rig.Start();
    EXPECT_EQ(rig.Settings().m_SWSetting[0], 0x00);
    EXPECT_EQ(rig.Settings().m_SWSetting[1], 0xC0);
    EXPECT_EQ(rig.Settings().m_SWSetting[2], 0x01);
    EXPECT_EQ(rig.Dev().m_Idle.m_IdlePowerEnabled, 0u);
    EXPECT_EQ(rig.Slot(SLOT_SWSETTING_OPTION), 0);
}

TEST(InitDeviceSettings, AThreeByteSWSettingSetsTheIdleFlagAndSlot16)
{
    Rig rig;
    // Bit 0 (idle power) and bit 13 (slot 16) set; bits 14-16 clear.
    kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, {0x01, 0x20, 0x00});
    rig.Start();
    EXPECT_EQ(rig.Dev().m_Idle.m_IdlePowerEnabled, 1u);
    EXPECT_EQ(rig.Slot(SLOT_SWSETTING_OPTION), 1);
    // Mirror, flip and dead-pixel correction are not enabled: effective 0.
    rig.SetDeviceProperty(PROPID_MIRROR, 1);
    rig.SetDeviceProperty(PROPID_VFLIP, 1);
    rig.SetDeviceProperty(PROPID_DEAD_PIXEL, 1);
    EXPECT_EQ(rig.Slot(SLOT_MIRROR), 1);
    EXPECT_EQ(rig.Settings().m_EffectiveMirror, 0);
    EXPECT_EQ(rig.Settings().m_EffectiveVflip, 0);
    EXPECT_EQ(rig.Settings().m_EffectiveDeadPixel, 0);
}

TEST(InitDeviceSettings, TheDefaultSWSettingEnablesMirrorFlipAndDeadPixelCorrection)
{
    Rig rig;
    rig.Start();
    rig.SetDeviceProperty(PROPID_MIRROR, 1);
    rig.SetDeviceProperty(PROPID_VFLIP, 1);
    rig.SetDeviceProperty(PROPID_DEAD_PIXEL, 1);
    EXPECT_EQ(rig.Settings().m_EffectiveMirror, 1);
    EXPECT_EQ(rig.Settings().m_EffectiveVflip, 1);
    EXPECT_EQ(rig.Settings().m_EffectiveDeadPixel, 1);
    rig.SetDeviceProperty(PROPID_MIRROR, 0);
    EXPECT_EQ(rig.Settings().m_EffectiveMirror, 0);
}

TEST(InitDeviceSettings, RecordAllocationFailureFailsTheStartWithItsMessage)
{
    Rig rig;
    ASSERT_EQ(rig.Dev().m_Usb.ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    kvsim::PoolFailTag(kvsim::PoolTag("KVaT"));  // the record and every registry buffer
    EXPECT_EQ(rig.Dev().InitDeviceSettings(), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_TRUE(LogHas("failed to alloc mem for m_Property\n"));
    EXPECT_EQ(rig.Settings().m_Property, nullptr);
}

TEST(InitDeviceSettings, ContextAllocationFailureReadsNothing)
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

// ---- CheckReadDef / InitLastValue ----------------------------------------

// A missing "ReadDef" (never created then) or one equal to the processing
// unit's bitmap: the camera's defaults are not read.
TEST(CheckReadDef, AMissingOrEqualReadDefReadsNothing)
{
    for (bool present : {false, true}) {
        SCOPED_TRACE(present ? "ReadDef 0x177F" : "no ReadDef");
        Rig rig;
        if (present) kvsim::RegSetDword(kData, "ReadDef", 0x177F);
        rig.Start();
        EXPECT_EQ(rig.Settings().CheckReadDef(), STATUS_SUCCESS);
        EXPECT_EQ(rig.RequestCount(), 0u);
        EXPECT_TRUE(kvsim::RegListValues(kLast).empty());
        EXPECT_EQ(kvsim::RegGetDword(kData, "ReadDef").has_value(), present);
    }
}

TEST(CheckReadDef, ADifferentReadDefReadsTheCameraDefaultsIntoPropertyLast)
{
    Rig rig;
    kvsim::RegSetDword(kData, "ReadDef", 0);
    kvsim::RegSetDword(kDefault, "fVflip", 1);
    kvsim::RegSetDword(kDefault, "fRotate", 1);
    rig.Start();
    rig.Settings().CheckReadDef();

    // The virtual camera's defaults (sim/camera/uvc_camera.cpp's table).
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 0);
    EXPECT_EQ(rig.Slot(SLOT_CONTRAST), 32);
    EXPECT_EQ(rig.Slot(SLOT_SATURATION), 64);
    EXPECT_EQ(rig.Slot(SLOT_SHARPNESS), 3);
    EXPECT_EQ(rig.Slot(SLOT_GAMMA), 100);
    EXPECT_EQ(rig.Slot(SLOT_WB_TEMPERATURE), 4600);
    EXPECT_EQ(rig.Slot(SLOT_BACKLIGHT), 1);
    EXPECT_EQ(rig.Slot(SLOT_POWER_LINE), 1);
    EXPECT_EQ(rig.Slot(SLOT_WB_AUTO), 1);
    EXPECT_EQ(rig.Slot(SLOT_AUTO_EXPOSURE), 8);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 156);
    // Every request was a GET_DEF; gain's default is not read.
    for (const auto& r : Seen()) {
        EXPECT_EQ(r.request, UVC_GET_DEF);
        // Exposure time is asked of the camera terminal only, never as gain.
        if (r.value == 0x0400) {
            EXPECT_EQ(r.index, UVC_ENTITY_CAMERA_TERMINAL);
        }
    }
    EXPECT_EQ(rig.RequestCount(), 12u);  // 10 PU controls (not gain) + 2 CT controls

    // "\Property\Default" orientation applied, then saved to "\Property\Last".
    EXPECT_EQ(rig.Slot(SLOT_VFLIP), 1);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "Contrast"), 32u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "WhiteBalanceAETarget"), 4600u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "AETarget"), 156u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "Gain"), 156u);  // slot 10, twice
    EXPECT_EQ(kvsim::RegGetDword(kLast, "fVflip"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "fRotate"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kLast, "SelfTimer"), 0xFFFFFFFFu);
    EXPECT_EQ(kvsim::RegGetDword(kData, "ReadDef"), 0x177Fu);

    // Run again: ReadDef now matches, nothing more is asked.
    Seen().clear();
    rig.Settings().CheckReadDef();
    EXPECT_EQ(rig.RequestCount(), 0u);
}

TEST(CheckReadDef, AFailedDefaultSetsItsSlotTo0AndPrintsTheMessage)
{
    // A camera without hue, while the driver's bitmap claims hue: its
    // GET_DEF stalls.
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.processingUnitControls = 0x0002;  // contrast only
    Rig rig(spec);
    rig.Start();
    rig.Dev().m_Formats.ProcessingUnitControls = 0x0006;  // contrast, hue
    rig.SetSlot(SLOT_HUE, 99);
    kvsim::ClearDebugLog();
    EXPECT_EQ(rig.Settings().InitLastValue(), 1);
    EXPECT_EQ(rig.Slot(SLOT_HUE), 0);
    EXPECT_EQ(rig.Slot(SLOT_CONTRAST), 32);  // the pass went on after the failure
    EXPECT_TRUE(LogHas("InitLastValue() Retrieve properties fail."));
}

TEST(CheckReadDef, CalledAboveApcLevelPrintsThePageableMessageAndLeavesTheRegistryAlone)
{
    Rig rig;
    kvsim::RegSetDword(kData, "ReadDef", 0);
    rig.Start();
    kvsim::ClearDebugLog();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    rig.Settings().CheckReadDef();
    KeLowerIrql(old);
    EXPECT_TRUE(LogHas("EX: Pageable code called at IRQL 2\n"));
    EXPECT_EQ(kvsim::RegGetDword(kData, "ReadDef"), 0u);
}

// ---- Gain and AETarget ------------------------------------------------------

TEST(SavePropertySet, ACameraWithoutTheGainBitNeverWritesGain)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.processingUnitControls &= ~0x0200;
    Rig rig(spec);
    rig.Start();
    rig.SetSlot(SLOT_EXPOSURE_TIME, 300);
    rig.Settings().SavePropertySet(PropertySetLast);
    EXPECT_FALSE(kvsim::RegGetDword(kLast, "Gain").has_value());
    EXPECT_EQ(kvsim::RegGetDword(kLast, "AETarget"), 300u);
}

TEST(SavePropertySet, ACameraWithoutTheExposureTimeBitNeverWritesAETargetAndSlot10IsStillShared)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.cameraTerminalControls &= ~0x8;
    Rig rig(spec);
    rig.Start();
    rig.SetSlot(SLOT_EXPOSURE_TIME, 300);
    rig.Settings().SavePropertySet(PropertySetLast);
    EXPECT_FALSE(kvsim::RegGetDword(kLast, "AETarget").has_value());
    EXPECT_EQ(kvsim::RegGetDword(kLast, "Gain"), 300u);

    // Loading "Gain" applies it as exposure time (id 0x0400) into slot 10.
    kvsim::RegSetDword(kLast, "Gain", 500);
    kvsim::RegSetDword(kLast, "fAE", 0);
    Seen().clear();
    rig.Settings().LoadPropertySet(PropertySetLast);
    EXPECT_EQ(rig.Slot(SLOT_EXPOSURE_TIME), 500);
    bool sentAsExposure = false;
    for (const auto& r : Seen())
        if (r.request == UVC_SET_CUR && r.value == 0x0400 && r.index == UVC_ENTITY_CAMERA_TERMINAL) sentAsExposure = true;
    EXPECT_TRUE(sentAsExposure);
    for (const auto& r : Seen()) EXPECT_FALSE(r.index == UVC_ENTITY_PROCESSING_UNIT && r.value == 0x0400);
}

TEST(SavePropertySet, WritesTheOptionsAlways)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_ROTATE, 1);
    rig.SetSlot(SLOT_SPECIAL_EFFECT, 5);
    rig.SetSlot(SLOT_SPECIAL_FRAME, 3);
    rig.SetSlot(SLOT_TRACKING_METHOD, 2);
    rig.Settings().SavePropertySet(PropertySetCustomer);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "fRotate"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "SpecialEffectNo"), 5u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "SpecialFrameNo"), 3u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "TrackingMethod"), 2u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "fDeadPixelCorrection"), 0u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "fMirror"), 0u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "fVflip"), 0u);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "SelfTimer"), 0xFFFFFFFFu);
    EXPECT_TRUE(kvsim::RegListValues(kLast).empty());
}

// ---- LoadPropertySet -----------------------------------------------------------

TEST(LoadPropertySet, CustomerRoundTripReachesTheCamera)
{
    Rig rig;
    rig.Start();
    // Manual exposure so that the exposure time reaches the camera (turning
    // auto exposure off re-sends slot 10, which must be in the camera's range).
    rig.SetSlot(SLOT_EXPOSURE_TIME, 156);
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_AUTO_EXPOSURE, 0), STATUS_SUCCESS);
    rig.SetDeviceProperty(PROPID_BRIGHTNESS, -20);
    rig.SetDeviceProperty(PROPID_CONTRAST, 40);
    rig.SetDeviceProperty(PROPID_GAMMA, 200);
    rig.SetDeviceProperty(PROPID_WB_AUTO, 0);
    rig.SetDeviceProperty(PROPID_WB_TEMPERATURE, 5000);
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_EXPOSURE_TIME, 700), STATUS_SUCCESS);
    rig.SetDeviceProperty(PROPID_ROTATE, 1);
    rig.SetDeviceProperty(PROPID_SPECIAL_EFFECT, 4);
    rig.SetDeviceProperty(PROPID_SELF_TIMER, 5);
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_SAVE_CUSTOMER, 0), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "Brightness"), static_cast<uint32_t>(-20));
    EXPECT_EQ(kvsim::RegGetDword(kCustomer, "AETarget"), 700u);

    // Change everything.
    rig.SetDeviceProperty(PROPID_BRIGHTNESS, 10);
    rig.SetDeviceProperty(PROPID_CONTRAST, 1);
    rig.SetDeviceProperty(PROPID_GAMMA, 300);
    rig.SetDeviceProperty(PROPID_WB_TEMPERATURE, 3000);
    rig.SetDeviceProperty(PROPID_EXPOSURE_TIME, 50);
    rig.SetDeviceProperty(PROPID_ROTATE, 0);
    rig.SetDeviceProperty(PROPID_SPECIAL_EFFECT, 0);
    rig.SetDeviceProperty(PROPID_SELF_TIMER, -1);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 10);

    // Load back: the camera's state carries the saved values.
    ASSERT_EQ(rig.SetDeviceProperty(PROPID_LOAD_CUSTOMER, 0), STATUS_SUCCESS);
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

TEST(LoadPropertySet, AMissingValueReappliesTheSlotsCurrentValue)
{
    Rig rig;
    rig.Start();
    rig.SetSlot(SLOT_SHARPNESS, 5);
    kvsim::RegSetDword(kLast, "Brightness", 7);  // only brightness is stored
    rig.Settings().LoadPropertySet(PropertySetLast);
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 7);
    EXPECT_EQ(rig.Slot(SLOT_SHARPNESS), 5);
    EXPECT_EQ(rig.CameraValue(3, 0x08), 5);  // sharpness re-sent from its slot
    EXPECT_EQ(rig.CameraValue(3, 0x02), 7);
}

TEST(LoadPropertySet, WideValuesReachTheCameraAs16BitsAndStayWholeInTheSlot)
{
    Rig rig;
    rig.Start();
    kvsim::RegSetDword(kLast, "Brightness", 0x00010005);  // low 16 bits: 5
    kvsim::RegSetDword(kLast, "fRotate", 0x00020001);     // options: low 16 bits through SetDeviceProperty
    rig.Settings().LoadPropertySet(PropertySetLast);
    EXPECT_EQ(rig.CameraValue(3, 0x02), 5);
    EXPECT_EQ(rig.Slot(SLOT_BRIGHTNESS), 0x00010005);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    bool sent = false;
    for (const auto& r : Seen())
        if (r.value == 0x0200 && r.index == UVC_ENTITY_PROCESSING_UNIT && r.request == UVC_SET_CUR) {
            EXPECT_EQ(r.out, (std::vector<UCHAR>{0x05, 0x00}));
            sent = true;
        }
    EXPECT_TRUE(sent);
}

TEST(LoadPropertySet, AnUnopenedKeyLeavesTheRecordAsItIs)
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

// ---- Defaults and reset ----------------------------------------------------------

TEST(LoadDefaults, Id0915AppliesTheOrientationValuesOfPropertyDefault)
{
    Rig rig;
    kvsim::RegSetDword(kDefault, "fRotate", 1);
    kvsim::RegSetDword(kDefault, "fMirror", 1);
    kvsim::RegSetDword(kDefault, "fDeadPixelCorrection", 1);
    kvsim::RegSetDword(kDefault, "SpecialEffectNo", 9);
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_DEFAULT_ORIENTATION, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 1);
    EXPECT_EQ(rig.Slot(SLOT_MIRROR), 1);
    EXPECT_EQ(rig.Slot(SLOT_VFLIP), 0);
    EXPECT_EQ(rig.Slot(SLOT_DEAD_PIXEL), 1);
    EXPECT_EQ(rig.Settings().m_EffectiveMirror, 1);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 0);  // not an orientation value
}

TEST(LoadDefaults, Id0916AppliesTheEffectValuesOfPropertyDefault)
{
    Rig rig;
    kvsim::RegSetDword(kDefault, "SpecialEffectNo", 9);
    kvsim::RegSetDword(kDefault, "SpecialFrameNo", 11);
    kvsim::RegSetDword(kDefault, "fRotate", 1);
    rig.Start();
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_DEFAULT_EFFECTS, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_EFFECT), 9);
    EXPECT_EQ(rig.Slot(SLOT_SPECIAL_FRAME), 11);
    EXPECT_EQ(rig.RequestsValue(&ControlRequests::m_SpecialFrameReload), 1u);
    EXPECT_EQ(rig.Slot(SLOT_ROTATE), 0);
}

TEST(LoadDefaults, Id0917ResetsTrackingAndTheSelfTimer)
{
    Rig rig;
    rig.Start();
    rig.SetDeviceProperty(PROPID_TRACKING_METHOD, 2);
    rig.SetDeviceProperty(PROPID_SELF_TIMER, 5);
    EXPECT_EQ(rig.SetDeviceProperty(PROPID_RESET_TRACKING, 0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Slot(SLOT_TRACKING_METHOD), 0);
    EXPECT_EQ(rig.Slot(SLOT_SELF_TIMER), -1);
}

// ---- SaveSpecialFrameString ----------------------------------------------------

TEST(SaveSpecialFrameString, Index6Or12FailsWith0xC000000DAndWritesNothing)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(6, L"frame.bmp", 9), static_cast<NTSTATUS>(0xC000000D));
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(12, L"frame.bmp", 9), static_cast<NTSTATUS>(0xC000000D));
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(8, nullptr, 9), static_cast<NTSTATUS>(0xC000000D));
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(8, L"frame.bmp", 0), static_cast<NTSTATUS>(0xC000000D));
    EXPECT_TRUE(kvsim::RegListValues(kLast).empty());
}

TEST(SaveSpecialFrameString, Index7To11WriteCustomerFrame0To4)
{
    Rig rig;
    rig.Start();
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(7, L"C:\\a.bmp", 8), STATUS_SUCCESS);
    EXPECT_EQ(rig.Settings().SaveSpecialFrameString(11, L"C:\\b.bmpXX", 8), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetString(kLast, "CustomerFrame0"), "C:\\a.bmp");
    EXPECT_EQ(kvsim::RegGetString(kLast, "CustomerFrame4"), "C:\\b.bmp");
    EXPECT_EQ(kvsim::RegGetValue(kLast, "CustomerFrame4")->data.size(), 18u);  // (8 + 1) x 2
    EXPECT_FALSE(kvsim::RegGetValue(kLast, "CustomerFrame5").has_value());
}
