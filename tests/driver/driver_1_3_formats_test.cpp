// Part 1.3: video-streaming descriptor parsing and format tables.
// ExtractVSInfo and ExtractStillInfo over descriptor blobs: the Part's edge
// cases and worked numbers, the safe readings, every real camera
// entry by entry against the camera model's independent parse, and pool
// fault injection at every allocation.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "camera/camera_model.h"
#include "camera/descriptor_builder.h"
#include "device/device.h"
#include "device/formats.h"
#include "driver/descriptor_blob.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"

namespace {

using blob::Config;
namespace cam = kvsim::camera;

struct Tables {
    NTSTATUS vsStatus = 0, stillStatus = 0;
    std::vector<KS_DATARANGE_VIDEO> capture, still;
    ULONG cameraTerminal = 0;
    USHORT processingUnit = 0;
    ULONG wideFrameWidth = 0;
};

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// Runs both walks on a copy of the bytes held in a buffer of exactly that size.
Tables Extract(const std::vector<uint8_t>& bytes)
{
    Tables t;
    CCaptureDevice device(nullptr);
    std::vector<uint8_t> copy = bytes;
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(copy.data());
    USHORT n = 0;
    PKS_DATARANGE_VIDEO pTable = nullptr;
    t.vsStatus = device.ExtractVSInfo(pConfig, static_cast<ULONG>(copy.size()), &pTable, &n);
    if (NT_SUCCESS(t.vsStatus)) {
        t.capture.assign(pTable, pTable + n);
        device.m_pCaptureTable = pTable;
    } else {
        EXPECT_EQ(pTable, nullptr);
        EXPECT_EQ(n, 0);
    }
    USHORT nStill = 0;
    PKS_DATARANGE_VIDEO pStill = nullptr;
    t.stillStatus = device.ExtractStillInfo(pConfig, static_cast<ULONG>(copy.size()), &pStill, &nStill);
    if (NT_SUCCESS(t.stillStatus)) {
        t.still.assign(pStill, pStill + nStill);
        device.m_pStillTable = pStill;
    }
    t.cameraTerminal = device.CameraTerminalControls;
    t.processingUnit = device.ProcessingUnitControls;
    t.wideFrameWidth = device.WideFrameWidth;
    return t;
}

bool DebugSaid(const std::string& text)
{
    for (const auto& m : kvsim::DebugMessages()) {
        if (m.find(text) != std::string::npos) return true;
    }
    return false;
}

// Part 1.3's capture table, the common rows and the per-format rows.
void ExpectCaptureEntry(const KS_DATARANGE_VIDEO& e, bool yuy2, uint16_t w, uint16_t h, uint32_t first,
                        uint32_t last, uint32_t minRate, uint32_t maxRate, const std::string& where)
{
    SCOPED_TRACE(where);
    EXPECT_EQ(e.DataRange.FormatSize, 296u);
    EXPECT_EQ(e.DataRange.Flags, 0u);
    EXPECT_EQ(e.DataRange.Reserved, 0u);
    EXPECT_TRUE(SameGuid(e.DataRange.MajorFormat, KSDATAFORMAT_TYPE_VIDEO));
    EXPECT_TRUE(SameGuid(e.DataRange.Specifier, KSDATAFORMAT_SPECIFIER_VIDEOINFO));
    EXPECT_TRUE(SameGuid(e.DataRange.SubFormat, yuy2 ? KSDATAFORMAT_SUBTYPE_YUY2 : KSDATAFORMAT_SUBTYPE_RGB24));
    EXPECT_EQ(e.DataRange.SampleSize, uint32_t(w) * h * (yuy2 ? 2 : 3));
    EXPECT_EQ(e.bFixedSizeSamples, yuy2 ? 1 : 0);
    EXPECT_EQ(e.bTemporalCompression, yuy2 ? 0 : 1);
    EXPECT_EQ(e.StreamDescriptionFlags, 2u);
    EXPECT_EQ(e.MemoryAllocationFlags, 0u);
    const auto& c = e.ConfigCaps;
    EXPECT_TRUE(SameGuid(c.guid, KSDATAFORMAT_SPECIFIER_VIDEOINFO));
    EXPECT_EQ(c.VideoStandard, 0u);
    for (const SIZE* s : {&c.InputSize, &c.MinCroppingSize, &c.MaxCroppingSize, &c.MinOutputSize, &c.MaxOutputSize}) {
        EXPECT_EQ(s->cx, w);
        EXPECT_EQ(s->cy, h);
    }
    EXPECT_EQ(c.CropGranularityX, 1); EXPECT_EQ(c.CropGranularityY, 1);
    EXPECT_EQ(c.CropAlignX, 1); EXPECT_EQ(c.CropAlignY, 1);
    EXPECT_EQ(c.OutputGranularityX, 1); EXPECT_EQ(c.OutputGranularityY, 1);
    EXPECT_EQ(c.StretchTapsX, 0); EXPECT_EQ(c.StretchTapsY, 0);
    EXPECT_EQ(c.ShrinkTapsX, 0); EXPECT_EQ(c.ShrinkTapsY, 0);
    EXPECT_EQ(c.MinFrameInterval, LONGLONG(LONG(first)));
    EXPECT_EQ(c.MaxFrameInterval, LONGLONG(LONG(last)));
    EXPECT_EQ(ULONG(c.MinBitsPerSecond), minRate);
    EXPECT_EQ(ULONG(c.MaxBitsPerSecond), maxRate);
    const auto& v = e.VideoInfoHeader;
    EXPECT_EQ(v.rcSource.left | v.rcSource.top | v.rcSource.right | v.rcSource.bottom, 0);
    EXPECT_EQ(v.rcTarget.left | v.rcTarget.top | v.rcTarget.right | v.rcTarget.bottom, 0);
    EXPECT_EQ(v.dwBitErrorRate, 0u);
    EXPECT_EQ(v.AvgTimePerFrame, LONGLONG(first));
    EXPECT_EQ(v.dwBitRate, uint32_t(uint32_t(w) * h * ((yuy2 ? 160000000u : 30000000u) / first)));
    EXPECT_EQ(v.bmiHeader.biSize, 40u);
    EXPECT_EQ(v.bmiHeader.biWidth, w);
    EXPECT_EQ(v.bmiHeader.biHeight, h);
    EXPECT_EQ(v.bmiHeader.biPlanes, 1);
    EXPECT_EQ(v.bmiHeader.biBitCount, yuy2 ? 16 : 24);
    EXPECT_EQ(v.bmiHeader.biCompression, yuy2 ? 0x32595559u : 0u);
    EXPECT_EQ(v.bmiHeader.biSizeImage, uint32_t(w) * h * (yuy2 ? 16 : 24) / 8);
    EXPECT_EQ(v.bmiHeader.biXPelsPerMeter | v.bmiHeader.biYPelsPerMeter, 0);
    EXPECT_EQ(v.bmiHeader.biClrUsed | v.bmiHeader.biClrImportant, 0u);
}

void ExpectStillEntry(const KS_DATARANGE_VIDEO& e, bool yuy2, uint16_t w, uint16_t h, const std::string& where)
{
    SCOPED_TRACE(where);
    EXPECT_EQ(e.DataRange.FormatSize, 296u);
    EXPECT_TRUE(SameGuid(e.DataRange.MajorFormat, KSDATAFORMAT_TYPE_VIDEO));
    EXPECT_TRUE(SameGuid(e.DataRange.Specifier, KSDATAFORMAT_SPECIFIER_VIDEOINFO));
    EXPECT_TRUE(SameGuid(e.DataRange.SubFormat, yuy2 ? KSDATAFORMAT_SUBTYPE_YUY2 : KSDATAFORMAT_SUBTYPE_RGB24));
    EXPECT_EQ(e.DataRange.SampleSize, 0u);
    EXPECT_EQ(e.bFixedSizeSamples, yuy2 ? 1 : 0);
    EXPECT_EQ(e.bTemporalCompression, yuy2 ? 0 : 1);
    EXPECT_EQ(e.StreamDescriptionFlags, 0u);
    EXPECT_EQ(e.ConfigCaps.MinFrameInterval, 10000000);
    EXPECT_EQ(e.ConfigCaps.MaxFrameInterval, 10000000);
    EXPECT_EQ(e.VideoInfoHeader.AvgTimePerFrame, 10000000);
    EXPECT_EQ(e.ConfigCaps.MinBitsPerSecond, 0);
    EXPECT_EQ(e.ConfigCaps.MaxBitsPerSecond, 0);
    EXPECT_EQ(e.VideoInfoHeader.dwBitRate, 0u);
    EXPECT_EQ(e.ConfigCaps.InputSize.cx, w);
    EXPECT_EQ(e.ConfigCaps.MaxOutputSize.cy, h);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biWidth, w);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biHeight, h);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biBitCount, yuy2 ? 16 : 24);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biCompression, yuy2 ? 0x32595559u : 0u);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biSizeImage, uint32_t(w) * h * (yuy2 ? 16 : 24) / 8);
}

// A streaming interface with YUY2 640x480 and 1280x720 and MJPEG frames.
std::vector<uint8_t> TwoFormatCamera()
{
    return Config()
        .Interface(0, 0, 1).CameraTerminal(0x0A).ProcessingUnit(0x175F)
        .Interface(1, 0, 2)
        .Format(0x06, 1, 2)
        .Frame(0x07, 1, 1280, 720, {333333, 666666})
        .Frame(0x07, 2, 640, 480, {333333})
        .Format(0x04, 2, 2)
        .Frame(0x05, 1, 640, 480, {333333, 500000, 1000000})
        .Frame(0x05, 2, 1280, 720, {1000000, 2000000})
        .Still({{640, 480}})
        .Finish();
}

// ---- Edge cases worth testing (Part 1.3) -------------------------------------------

TEST(Part13Formats, CameraWithYuy2640And1280AndMjpegPutsYuy2FramesFirstAndWideFrameWidth1280)
{
    Tables t = Extract(TwoFormatCamera());
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.capture.size(), 4u);
    ExpectCaptureEntry(t.capture[0], true, 640, 480, 333333, 1000000, 640 * 480 * 16 * 5, 640 * 480 * 16 * 30, "yuy2 0");
    ExpectCaptureEntry(t.capture[1], true, 1280, 720, 1000000, 2000000, 1280 * 720 * 16 * 5, 1280 * 720 * 16 * 30,
                       "yuy2 1");
    ExpectCaptureEntry(t.capture[2], false, 1280, 720, 333333, 666666, 1280 * 720 * 16 * 5, 1280 * 720 * 16 * 30,
                       "rgb 0");
    ExpectCaptureEntry(t.capture[3], false, 640, 480, 333333, 333333, 640 * 480 * 16 * 5, 640 * 480 * 16 * 30, "rgb 1");
    EXPECT_EQ(t.wideFrameWidth, 1280u);
}

TEST(Part13Formats, Mjpeg1280x720At333333GivesSampleSize2764800AndBitRate82944000)
{
    Tables t = Extract(TwoFormatCamera());
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    const KS_DATARANGE_VIDEO& e = t.capture[2];
    EXPECT_EQ(e.DataRange.SampleSize, 2764800u);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biSizeImage, 2764800u);
    EXPECT_EQ(e.VideoInfoHeader.dwBitRate, 82944000u);
    EXPECT_EQ(e.VideoInfoHeader.AvgTimePerFrame, 333333);
}

TEST(Part13Formats, Yuy2640x480At333333GivesSampleSize614400AndBitRate147456000)
{
    Tables t = Extract(TwoFormatCamera());
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    EXPECT_EQ(t.capture[0].DataRange.SampleSize, 614400u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.dwBitRate, 147456000u);
}

TEST(Part13Formats, StillDescriptorWithThreeSizesUnderMjpegGivesThreeRgb24EntriesWithOneSecondIntervals)
{
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x06, 1, 1).Frame(0x07, 1, 640, 480, {333333})
                     .Still({{1280, 960}, {640, 480}, {320, 240}})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.stillStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.still.size(), 3u);
    ExpectStillEntry(t.still[0], false, 1280, 960, "still 0");
    ExpectStillEntry(t.still[1], false, 640, 480, "still 1");
    ExpectStillEntry(t.still[2], false, 320, 240, "still 2");
}

// ---- The rest of the Part's rules ------------------------------------------------------

TEST(Part13Formats, ControlBitmapsComeFromCameraTerminalAndProcessingUnit)
{
    Tables t = Extract(TwoFormatCamera());
    EXPECT_EQ(t.cameraTerminal, 0x0Au);   // first two bytes of bmControls only
    EXPECT_EQ(t.processingUnit, 0x175F);
}

TEST(Part13Formats, StillSizesUnderYuy2ComeBeforeRgb24Sizes)
{
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x06, 1, 1).Frame(0x07, 1, 640, 480, {333333}).Still({{800, 600}})
                     .Format(0x04, 2, 1).Frame(0x05, 1, 640, 480, {333333}).Still({{320, 240}, {160, 120}})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.stillStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.still.size(), 3u);
    ExpectStillEntry(t.still[0], true, 320, 240, "yuy2 still 0");
    ExpectStillEntry(t.still[1], true, 160, 120, "yuy2 still 1");
    ExpectStillEntry(t.still[2], false, 800, 600, "rgb still");
}

TEST(Part13Formats, LaterStillDescriptorOfSameKindReplacesTheEarlierOne)
{
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333})
                     .Still({{640, 480}, {320, 240}}).Still({{176, 144}})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.stillStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.still.size(), 1u);
    ExpectStillEntry(t.still[0], true, 176, 144, "last still");
}

TEST(Part13Formats, SurplusYuy2FramesAreDroppedWithMessageAndMjpegSilently)
{
    kvsim::ClearDebugLog();
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333}).Frame(0x05, 2, 320, 240, {333333})
                     .Format(0x06, 2, 1).Frame(0x07, 1, 640, 480, {333333}).Frame(0x07, 2, 320, 240, {333333})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.capture.size(), 2u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 640);
    EXPECT_EQ(t.capture[1].VideoInfoHeader.bmiHeader.biWidth, 640);
    int said = 0;
    for (const auto& m : kvsim::DebugMessages()) {
        said += m == "CCaptureDevice::ExtractVSInfo() Not enough space for VS frame descriptor\n";
    }
    EXPECT_EQ(said, 1);
}

TEST(Part13Formats, SecondFormatOfSameKindStartsANewListAndCountMatchesTable)
{
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x04, 1, 2).Frame(0x05, 1, 640, 480, {333333}).Frame(0x05, 2, 320, 240, {333333})
                     .Format(0x04, 2, 1).Frame(0x05, 1, 1280, 720, {333333})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 1280);
}

TEST(Part13Formats, WideFrameWidthTakesTheLastQualifyingYuy2Frame)
{
    auto bytes = Config().Interface(1, 0, 2)
                     .Format(0x04, 1, 4)
                     .Frame(0x05, 1, 1280, 720, {333333}).Frame(0x05, 2, 640, 480, {333333})
                     .Frame(0x05, 3, 800, 600, {333333}).Frame(0x05, 4, 1600, 1200, {333333})
                     .Finish();
    EXPECT_EQ(Extract(bytes).wideFrameWidth, 640u);
    auto mjpegOnly = Config().Interface(1, 0, 2).Format(0x06, 1, 1).Frame(0x07, 1, 1280, 720, {333333}).Finish();
    EXPECT_EQ(Extract(mjpegOnly).wideFrameWidth, 0u);
}

TEST(Part13Formats, CameraWithoutFrameDescriptorsGivesInvalidParameter)
{
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 0).Finish();
    Tables t = Extract(bytes);
    EXPECT_EQ(t.vsStatus, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(t.stillStatus, STATUS_INVALID_PARAMETER);
}

TEST(Part13Formats, NullDescriptorGivesInvalidParameter)
{
    CCaptureDevice device(nullptr);
    USHORT n = 0;
    PKS_DATARANGE_VIDEO p = nullptr;
    EXPECT_EQ(device.ExtractVSInfo(nullptr, &p, &n), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(device.ExtractStillInfo(nullptr, &p, &n), STATUS_INVALID_PARAMETER);
}

TEST(Part13Formats, NullTableArgumentTripsAssertionPVSDataRage)
{
    auto bytes = TwoFormatCamera();
    CCaptureDevice device(nullptr);
    USHORT n = 0;
    EXPECT_EQ(device.ExtractStillInfo(reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data()), nullptr, &n),
              STATUS_INVALID_PARAMETER);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("pVSDataRage"), std::string::npos);
}

TEST(Part13Formats, DescriptorsOutsideStreamingInterfacesAreIgnored)
{
    // A frame descriptor under a video-control interface is not a frame.
    auto bytes = Config().Interface(0, 0, 1).Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333})
                     .Interface(1, 0, 2).Format(0x06, 1, 1).Frame(0x07, 1, 320, 240, {333333})
                     .Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 320);
}

// ---- The safe readings ----------------------------------------------------------

TEST(Part13Formats, IntervalTypeClaimingMoreIntervalsThanBLengthUsesThoseThere)
{
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 1)
                     .Frame(0x05, 1, 640, 480, {333333, 500000}, /*intervalType*/ 9).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].ConfigCaps.MaxFrameInterval, 500000);
}

TEST(Part13Formats, ContinuousIntervalsTakeDwMaxFrameIntervalAtOffset30)
{
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 1)
                     .Frame(0x05, 1, 640, 480, {333333, 2000000, 333333}, /*intervalType*/ 0).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].ConfigCaps.MinFrameInterval, 333333);
    EXPECT_EQ(t.capture[0].ConfigCaps.MaxFrameInterval, 2000000);
}

TEST(Part13Formats, ContinuousFrameTooShortForItsMaximumIsSkipped)
{
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 2)
                     .Frame(0x05, 1, 640, 480, {333333}, /*intervalType*/ 0)
                     .Frame(0x05, 2, 320, 240, {333333}).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 320);
}

TEST(Part13Formats, FrameIntervalZeroSkipsTheFrameWithADebugLine)
{
    kvsim::ClearDebugLog();
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 2)
                     .Frame(0x05, 1, 640, 480, {0, 333333})
                     .Frame(0x05, 2, 320, 240, {333333}).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 320);
    EXPECT_TRUE(DebugSaid("CCaptureDevice::ExtractVSInfo() frame 640x480 has frame interval 0"));
}

TEST(Part13Formats, FrameDescriptorTooShortForItsFieldsIsSkipped)
{
    // 29 bytes: dwFrameInterval[0] would end at byte 30.
    std::vector<uint8_t> shortFrame = {29, 0x24, 0x05, 1, 0};
    shortFrame.resize(29, 0x11);
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 2).Raw(shortFrame)
                     .Frame(0x05, 2, 320, 240, {333333}).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.capture.size(), 1u);
    EXPECT_EQ(t.capture[0].VideoInfoHeader.bmiHeader.biWidth, 320);
}

TEST(Part13Formats, ShortCameraTerminalAndProcessingUnitAreSkipped)
{
    auto bytes = Config().Interface(0, 0, 1).Raw({16, 0x24, 0x02, 1, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0xFF})
                     .Raw({9, 0x24, 0x05, 3, 1, 0, 0, 2, 0xFF})
                     .Interface(1, 0, 2).Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333}).Finish();
    Tables t = Extract(bytes);
    EXPECT_EQ(t.cameraTerminal, 0u);
    EXPECT_EQ(t.processingUnit, 0);
}

TEST(Part13Formats, StillCountClaimingMoreSizesThanBLengthUsesThoseThere)
{
    auto bytes = Config().Interface(1, 0, 2).Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333})
                     .Still({{640, 480}, {320, 240}}, /*claimed*/ 40).Finish();
    Tables t = Extract(bytes);
    ASSERT_EQ(t.stillStatus, STATUS_SUCCESS);
    ASSERT_EQ(t.still.size(), 2u);
}

TEST(Part13Formats, WalkStopsAtWTotalLengthAndAtBLengthZero)
{
    auto full = TwoFormatCamera();
    // wTotalLength cut just before the last YUY2 frame: that frame is not seen.
    auto cut = full;
    const size_t stillSize = 10, lastFrameSize = 26 + 4 * 2;
    const size_t newTotal = full.size() - stillSize - lastFrameSize;
    cut[2] = newTotal & 0xFF;
    cut[3] = newTotal >> 8;
    Tables t = Extract(cut);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    EXPECT_EQ(t.capture.size(), 3u);
    EXPECT_EQ(t.stillStatus, STATUS_INVALID_PARAMETER);
    // A zero bLength ends the walk.
    auto zero = full;
    zero[full.size() - stillSize - lastFrameSize] = 0;
    EXPECT_EQ(Extract(zero).capture.size(), 3u);
}

TEST(Part13Formats, WalkNeverReadsPastTheBytesHeldEvenWhenWTotalLengthLies)
{
    auto bytes = TwoFormatCamera();
    bytes[2] = 0xFF;
    bytes[3] = 0xFF;  // claims 65535 bytes; the buffer ends earlier (ASan watches)
    Tables t = Extract(bytes);
    EXPECT_EQ(t.capture.size(), 4u);
}

// ---- Pool: tags, no leaks, fault injection ------------------------------------------------

TEST(Part13Formats, TablesCarryTheirTagsAndTemporariesAreFreed)
{
    auto bytes = TwoFormatCamera();
    CCaptureDevice device(nullptr);
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    USHORT n = 0, nStill = 0;
    ASSERT_EQ(device.ExtractVSInfo(pConfig, &device.m_pCaptureTable, &n), STATUS_SUCCESS);
    ASSERT_EQ(device.ExtractStillInfo(pConfig, &device.m_pStillTable, &nStill), STATUS_SUCCESS);
    auto live = kvsim::PoolLiveBlocks();
    ASSERT_EQ(live.size(), 2u);
    EXPECT_EQ(kvsim::PoolTagText(live[0].tag), "KVVd");
    EXPECT_EQ(live[0].size, 4u * 296);
    EXPECT_EQ(kvsim::PoolTagText(live[1].tag), "KVVs");
    EXPECT_EQ(live[1].size, 296u);
    device.ReleaseAllocations();
    EXPECT_EQ(device.m_pCaptureTable, nullptr);
    device.ReleaseAllocations();  // a second release is harmless
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
}

// Fails each allocation of one run in turn: the routine returns
// STATUS_INSUFFICIENT_RESOURCES, hands back no table and nothing stays held.
void FailEachAllocation(bool still)
{
    auto bytes = TwoFormatCamera();
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    uint64_t nAllocations = 0;
    {
        CCaptureDevice device(nullptr);
        USHORT n = 0;
        PKS_DATARANGE_VIDEO p = nullptr;
        const uint64_t before = kvsim::PoolAllocationCount();
        ASSERT_EQ(still ? device.ExtractStillInfo(pConfig, &p, &n) : device.ExtractVSInfo(pConfig, &p, &n),
                  STATUS_SUCCESS);
        nAllocations = kvsim::PoolAllocationCount() - before;
        ExFreePool(p);
    }
    ASSERT_EQ(nAllocations, still ? 2u : 3u);  // the temporary lists (1 still, 2 capture) and the final table
    for (uint64_t i = 1; i <= nAllocations; i++) {
        SCOPED_TRACE("failing allocation " + std::to_string(i));
        CCaptureDevice device(nullptr);
        USHORT n = 0;
        PKS_DATARANGE_VIDEO p = nullptr;
        kvsim::PoolFailNthAllocation(i);
        NTSTATUS status = still ? device.ExtractStillInfo(pConfig, &p, &n) : device.ExtractVSInfo(pConfig, &p, &n);
        kvsim::PoolResetFaultInjection();
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(n, 0);
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    }
}

TEST(Part13Formats, ExtractVSInfoAllocationFailureAtEveryAllocationReturnsInsufficientResourcesAndLeaksNothing)
{
    FailEachAllocation(false);
}

TEST(Part13Formats, ExtractStillInfoAllocationFailureAtEveryAllocationReturnsInsufficientResourcesAndLeaksNothing)
{
    FailEachAllocation(true);
}

// ---- Cameras: the tables as the Part defines them, entry by entry --------------------------
// The expected tables are built from the camera model's own parse
// (sim/camera), an implementation independent of the driver's.

struct Expected {
    std::vector<KS_DATARANGE_VIDEO> unused;
};

void ExpectCameraTables(const cam::DescriptorSet& set, const std::string& name)
{
    auto parsed = cam::ParseCameraModel(set.device, set.configuration);
    ASSERT_TRUE(parsed.ok) << name;
    const cam::CameraModel& m = parsed.model;
    // Per kind: the frames of the last format descriptor of that kind
    // (a later one abandons the earlier list), in descriptor order.
    const cam::Format* pYuy2 = nullptr;
    const cam::Format* pMjpeg = nullptr;
    for (const auto& s : m.streaming) {
        for (const auto& f : s.formats) {
            if (f.kind == cam::FormatKind::kUncompressed) pYuy2 = &f;
            if (f.kind == cam::FormatKind::kMjpeg) pMjpeg = &f;
        }
    }
    Tables t = Extract(set.configuration);
    size_t expectedCount = 0;
    ULONG wide = 0;
    for (const cam::Format* pf : {pYuy2, pMjpeg}) {
        if (pf == nullptr) continue;
        for (const auto& fr : pf->frames) {
            const bool yuy2 = pf == pYuy2;
            const uint32_t first = fr.intervals.empty() ? 0 : fr.intervals[0];
            const uint32_t last = fr.continuous ? fr.intervals.at(1) : fr.intervals.back();
            ASSERT_LT(expectedCount, t.capture.size()) << name;
            ExpectCaptureEntry(t.capture[expectedCount], yuy2, fr.width, fr.height, first, last, fr.minBitRate,
                               fr.maxBitRate, name + " entry " + std::to_string(expectedCount));
            if (yuy2 && (fr.width == 640 || fr.width == 1280)) wide = fr.width;
            expectedCount++;
        }
    }
    ASSERT_EQ(t.vsStatus, expectedCount ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER) << name;
    EXPECT_EQ(t.capture.size(), expectedCount) << name;
    EXPECT_EQ(t.wideFrameWidth, wide) << name;
    const cam::Entity* ct = m.FindByKind(cam::EntityKind::kCameraTerminal);
    const cam::Entity* pu = m.FindByKind(cam::EntityKind::kProcessingUnit);
    if (ct) {
        EXPECT_EQ(t.cameraTerminal, ct->controls & 0xFFFF) << name;
    }
    if (pu) {
        EXPECT_EQ(t.processingUnit, pu->controls & 0xFFFF) << name;
    }

    size_t nStill = 0;
    for (const cam::Format* pf : {pYuy2, pMjpeg}) {
        if (pf == nullptr) continue;
        for (const auto& s : pf->stills) {
            ASSERT_LT(nStill, t.still.size()) << name;
            ExpectStillEntry(t.still[nStill], pf == pYuy2, s.width, s.height,
                             name + " still " + std::to_string(nStill));
            nStill++;
        }
    }
    EXPECT_EQ(t.stillStatus, nStill ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER) << name;
    EXPECT_EQ(t.still.size(), nStill) << name;
}

TEST(Part13Cameras, TrustWebcamGivesYuy2CaptureAndStillTables)
{
    auto set = blob::LoadReal("trust_webcam");
    ASSERT_FALSE(set.configuration.empty());
    ExpectCameraTables(set, "trust_webcam");
    Tables t = Extract(set.configuration);
    EXPECT_EQ(t.stillStatus, STATUS_SUCCESS);
    EXPECT_GT(t.capture.size(), 0u);
}

TEST(Part13Cameras, LogitechC270GivesYuy2AndRgb24TablesAndFailsExtractStillInfo)
{
    auto set = blob::LoadReal("logitech_c270");
    ASSERT_FALSE(set.configuration.empty());
    ExpectCameraTables(set, "logitech_c270");
    Tables t = Extract(set.configuration);
    EXPECT_EQ(t.capture.size(), 38u);
    EXPECT_EQ(t.stillStatus, STATUS_INVALID_PARAMETER);
}

TEST(Part13Cameras, ElpH264IgnoresFrameBasedFormatAndFailsExtractStillInfo)
{
    auto set = blob::LoadReal("elp_h264");
    ASSERT_FALSE(set.configuration.empty());
    ExpectCameraTables(set, "elp_h264");
    EXPECT_EQ(Extract(set.configuration).stillStatus, STATUS_INVALID_PARAMETER);
}

TEST(Part13Cameras, DefaultVirtualCameraTablesMatchItsDescriptors)
{
    ExpectCameraTables(cam::BuildDescriptors(cam::DefaultCameraSpec()), "default");
}

}  // namespace
