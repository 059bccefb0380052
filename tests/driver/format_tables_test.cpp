// The format tables: ExtractVSInfo and ExtractStillInfo over configuration
// descriptors written byte by byte (descriptor_blob.h) and over the real
// cameras' descriptors, and an allocation failure at every allocation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "camera/camera_model.h"
#include "camera/descriptor_builder.h"
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
    FormatTables tables;
    std::vector<uint8_t> copy = bytes;
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(copy.data());
    USHORT n = 0, nStill = 0;
    PKS_DATARANGE_VIDEO pTable = nullptr, pStill = nullptr;
    t.vsStatus = tables.ExtractVSInfo(pConfig, static_cast<ULONG>(copy.size()), &pTable, &n);
    if (NT_SUCCESS(t.vsStatus)) {
        t.capture.assign(pTable, pTable + n);
        tables.m_pCaptureTable = pTable;
    } else {
        EXPECT_EQ(pTable, nullptr);
        EXPECT_EQ(n, 0);
    }
    t.stillStatus = tables.ExtractStillInfo(pConfig, static_cast<ULONG>(copy.size()), &pStill, &nStill);
    if (NT_SUCCESS(t.stillStatus)) {
        t.still.assign(pStill, pStill + nStill);
        tables.m_pStillTable = pStill;
    }
    t.cameraTerminal = tables.CameraTerminalControls;
    t.processingUnit = tables.ProcessingUnitControls;
    t.wideFrameWidth = tables.WideFrameWidth;
    return t;
}

// One capture entry: the fields computed from its frame descriptor (the
// others are the template's).
void ExpectCaptureEntry(const KS_DATARANGE_VIDEO& e, bool yuy2, uint16_t w, uint16_t h, uint32_t first,
                        uint32_t last, uint32_t minRate, uint32_t maxRate, const std::string& where)
{
    SCOPED_TRACE(where);
    const auto& c = e.ConfigCaps;
    for (const SIZE* s : {&c.InputSize, &c.MinCroppingSize, &c.MaxCroppingSize, &c.MinOutputSize, &c.MaxOutputSize}) {
        EXPECT_EQ(s->cx, w);
        EXPECT_EQ(s->cy, h);
    }
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biWidth, w);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biHeight, h);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biSizeImage, uint32_t(w) * h * (yuy2 ? 2 : 3));
    EXPECT_EQ(e.DataRange.SampleSize, uint32_t(w) * h * (yuy2 ? 2 : 3));
    EXPECT_EQ(c.MinFrameInterval, LONGLONG(LONG(first)));
    EXPECT_EQ(c.MaxFrameInterval, LONGLONG(LONG(last)));
    EXPECT_EQ(e.VideoInfoHeader.AvgTimePerFrame, LONGLONG(first));
    EXPECT_EQ(ULONG(c.MinBitsPerSecond), minRate);
    EXPECT_EQ(ULONG(c.MaxBitsPerSecond), maxRate);
    EXPECT_EQ(e.VideoInfoHeader.dwBitRate, uint32_t(uint32_t(w) * h * ((yuy2 ? 160000000u : 30000000u) / first)));
}

// One still entry: its kind (a motion-JPEG still is delivered as RGB24) and size.
void ExpectStillEntry(const KS_DATARANGE_VIDEO& e, bool yuy2, uint16_t w, uint16_t h, const std::string& where)
{
    SCOPED_TRACE(where);
    EXPECT_TRUE(SameGuid(e.DataRange.SubFormat, yuy2 ? KSDATAFORMAT_SUBTYPE_YUY2 : KSDATAFORMAT_SUBTYPE_RGB24));
    EXPECT_EQ(e.ConfigCaps.InputSize.cx, w);
    EXPECT_EQ(e.ConfigCaps.MaxOutputSize.cy, h);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biWidth, w);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biHeight, h);
    EXPECT_EQ(e.VideoInfoHeader.bmiHeader.biSizeImage, uint32_t(w) * h * (yuy2 ? 2 : 3));
}

// A streaming interface with YUY2 640x480 and 1280x720 and MJPEG frames.
std::vector<uint8_t> TwoFormatCamera()
{
    return Config().Interface(0, 0, 1).CameraTerminal(0x0A).ProcessingUnit(0x175F).Interface(1, 0, 2)
        .Format(0x06, 1, 2).Frame(0x07, 1, 1280, 720, {333333, 666666}).Frame(0x07, 2, 640, 480, {333333})
        .Format(0x04, 2, 2).Frame(0x05, 1, 640, 480, {333333, 500000, 1000000})
        .Frame(0x05, 2, 1280, 720, {1000000, 2000000}).Still({{640, 480}}).Finish();
}

// Uncompressed frames come first as YUY2, motion-JPEG frames after them as
// RGB24 (the driver decodes motion JPEG itself), each in descriptor order;
// the sample size, bit rate and bitmap header follow from the size and the
// first frame interval. The bitmaps are the first two bytes of the camera
// terminal's and processing unit's bmControls.
TEST(FormatTables, Yuy2FramesComeFirstThenMotionJpegFramesAsRgb24AndTheWideFrameWidth)
{
    Tables t = Extract(TwoFormatCamera());
    ASSERT_EQ(t.capture.size(), 4u);
    ExpectCaptureEntry(t.capture[0], true, 640, 480, 333333, 1000000, 640 * 480 * 16 * 5, 640 * 480 * 16 * 30,
                       "yuy2 0");
    ExpectCaptureEntry(t.capture[1], true, 1280, 720, 1000000, 2000000, 1280 * 720 * 16 * 5, 1280 * 720 * 16 * 30,
                       "yuy2 1");
    ExpectCaptureEntry(t.capture[2], false, 1280, 720, 333333, 666666, 1280 * 720 * 16 * 5, 1280 * 720 * 16 * 30,
                       "rgb 0");
    ExpectCaptureEntry(t.capture[3], false, 640, 480, 333333, 333333, 640 * 480 * 16 * 5, 640 * 480 * 16 * 30, "rgb 1");
    EXPECT_EQ(t.cameraTerminal, 0x0Au);
    EXPECT_EQ(t.processingUnit, 0x175F);
    // WideFrameWidth: the last YUY2 frame 640 or 1280 wide; motion JPEG does not count.
    EXPECT_EQ(t.wideFrameWidth, 1280u);
    auto fourYuy2 = Config().Interface(1, 0, 2).Format(0x04, 1, 4)
                        .Frame(0x05, 1, 1280, 720, {333333}).Frame(0x05, 2, 640, 480, {333333})
                        .Frame(0x05, 3, 800, 600, {333333}).Frame(0x05, 4, 1600, 1200, {333333}).Finish();
    EXPECT_EQ(Extract(fourYuy2).wideFrameWidth, 640u);
    auto mjpegOnly = Config().Interface(1, 0, 2).Format(0x06, 1, 1).Frame(0x07, 1, 1280, 720, {333333}).Finish();
    EXPECT_EQ(Extract(mjpegOnly).wideFrameWidth, 0u);
}

// Still sizes: one entry per size, YUY2 sizes before
// RGB24 sizes, and a later still descriptor of the same kind replaces the
// earlier one.
TEST(FormatTables, StillSizesYuy2FirstAndTheLastDescriptorOfAKindCounts)
{
    Tables mjpeg = Extract(Config().Interface(1, 0, 2)
                               .Format(0x06, 1, 1).Frame(0x07, 1, 640, 480, {333333})
                               .Still({{1280, 960}, {640, 480}, {320, 240}}).Finish());
    ASSERT_EQ(mjpeg.still.size(), 3u);
    ExpectStillEntry(mjpeg.still[0], false, 1280, 960, "still 0");
    ExpectStillEntry(mjpeg.still[1], false, 640, 480, "still 1");
    ExpectStillEntry(mjpeg.still[2], false, 320, 240, "still 2");

    Tables both = Extract(Config().Interface(1, 0, 2)
                              .Format(0x06, 1, 1).Frame(0x07, 1, 640, 480, {333333}).Still({{800, 600}})
                              .Format(0x04, 2, 1).Frame(0x05, 1, 640, 480, {333333}).Still({{320, 240}, {160, 120}})
                              .Finish());
    ASSERT_EQ(both.still.size(), 3u);
    ExpectStillEntry(both.still[0], true, 320, 240, "yuy2 still 0");
    ExpectStillEntry(both.still[1], true, 160, 120, "yuy2 still 1");
    ExpectStillEntry(both.still[2], false, 800, 600, "rgb still");

    Tables replaced = Extract(Config().Interface(1, 0, 2)
                                  .Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333})
                                  .Still({{640, 480}, {320, 240}}).Still({{176, 144}}).Finish());
    ASSERT_EQ(replaced.still.size(), 1u);
    ExpectStillEntry(replaced.still[0], true, 176, 144, "last still");
}

// Which frames make entries, told by the entries' widths in order. Room is
// kept for bNumFrameDescriptors frames per format: a surplus YUY2 frame is
// dropped with a line, a surplus MJPEG frame silently. A later format of the
// same kind starts a new list. Frames outside a streaming interface, frames
// too short for their fields and frames with a zero interval are skipped;
// the walk ends at a zero bLength or at wTotalLength (the still descriptor
// after that point is not seen) and never reads past the bytes held, even
// when wTotalLength claims more (AddressSanitizer watches).
TEST(FormatTables, WhichFramesMakeEntries)
{
    std::vector<uint8_t> shortFrame = {29, 0x24, 0x05, 1, 0};  // dwFrameInterval[0] would end at byte 30
    shortFrame.resize(29, 0x11);
    const size_t lastYuy2Frame = TwoFormatCamera().size() - 10 - (26 + 4 * 2);
    auto zeroLength = TwoFormatCamera();
    zeroLength[lastYuy2Frame] = 0;  // its bLength
    auto cut = TwoFormatCamera();
    cut[2] = lastYuy2Frame & 0xFF;
    cut[3] = lastYuy2Frame >> 8;
    auto lyingTotal = TwoFormatCamera();
    lyingTotal[2] = lyingTotal[3] = 0xFF;
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        std::vector<LONG> widths;
        const char* line;  // printed once, or null
        bool still = false;  // a still table is made
    };
    const Case cases[] = {
        {"surplus frames",
         Config().Interface(1, 0, 2)
             .Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333}).Frame(0x05, 2, 320, 240, {333333})
             .Format(0x06, 2, 1).Frame(0x07, 1, 640, 480, {333333}).Frame(0x07, 2, 320, 240, {333333}).Finish(),
         {640, 640}, "CCaptureDevice::ExtractVSInfo() Not enough space for VS frame descriptor\n"},
        {"second format of a kind",
         Config().Interface(1, 0, 2)
             .Format(0x04, 1, 2).Frame(0x05, 1, 640, 480, {333333}).Frame(0x05, 2, 320, 240, {333333})
             .Format(0x04, 2, 1).Frame(0x05, 1, 1280, 720, {333333}).Finish(),
         {1280}, nullptr},
        {"outside a streaming interface",
         Config().Interface(0, 0, 1).Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333})
             .Interface(1, 0, 2).Format(0x06, 1, 1).Frame(0x07, 1, 320, 240, {333333}).Finish(),
         {320}, nullptr},
        {"continuous, too short for its maximum",
         Config().Interface(1, 0, 2).Format(0x04, 1, 2).Frame(0x05, 1, 640, 480, {333333}, /*intervalType*/ 0)
             .Frame(0x05, 2, 320, 240, {333333}).Finish(),
         {320}, nullptr},
        {"too short for its fields",
         Config().Interface(1, 0, 2).Format(0x04, 1, 2).Raw(shortFrame).Frame(0x05, 2, 320, 240, {333333}).Finish(),
         {320}, nullptr},
        {"frame interval 0",
         Config().Interface(1, 0, 2).Format(0x04, 1, 2).Frame(0x05, 1, 640, 480, {0, 333333})
             .Frame(0x05, 2, 320, 240, {333333}).Finish(),
         {320}, "CCaptureDevice::ExtractVSInfo() frame 640x480 has frame interval 0, skipped\n"},
        {"bLength 0", zeroLength, {640, 1280, 640}, nullptr},
        {"wTotalLength before the last YUY2 frame", cut, {640, 1280, 640}, nullptr},
        {"wTotalLength past the bytes held", lyingTotal, {640, 1280, 1280, 640}, nullptr, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        kvsim::ClearDebugLog();
        Tables t = Extract(c.bytes);
        ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
        std::vector<LONG> widths;
        for (const auto& e : t.capture) widths.push_back(e.VideoInfoHeader.bmiHeader.biWidth);
        EXPECT_EQ(widths, c.widths);
        EXPECT_EQ(t.stillStatus, c.still ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
        if (c.line != nullptr) {
            const auto all = kvsim::DebugMessages();
            EXPECT_EQ(std::count(all.begin(), all.end(), c.line), 1);
        }
    }
}

// No entry, or no descriptor: STATUS_INVALID_PARAMETER from both walks.
TEST(FormatTables, NoFrameOrNoDescriptorGivesInvalidParameter)
{
    Tables t = Extract(Config().Interface(1, 0, 2).Format(0x04, 1, 0).Finish());
    EXPECT_EQ(t.vsStatus, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(t.stillStatus, STATUS_INVALID_PARAMETER);
    FormatTables tables;
    USHORT n = 0;
    PKS_DATARANGE_VIDEO p = nullptr;
    EXPECT_EQ(tables.ExtractVSInfo(nullptr, &p, &n), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tables.ExtractStillInfo(nullptr, &p, &n), STATUS_INVALID_PARAMETER);
}

// Intervals: continuous ones (bFrameIntervalType 0) give dwMinFrameInterval
// and dwMaxFrameInterval, the latter at offset 30; a discrete count larger
// than bLength allows uses the intervals there, and a still count likewise
// the sizes there. A camera terminal or processing unit too short for its
// bmControls is skipped.
TEST(FormatTables, IntervalsSizesAndControlsAreReadOnlyWhereBLengthHoldsThem)
{
    Tables continuous = Extract(Config().Interface(1, 0, 2).Format(0x04, 1, 1)
                                    .Frame(0x05, 1, 640, 480, {333333, 2000000, 333333}, /*intervalType*/ 0).Finish());
    ASSERT_EQ(continuous.capture.size(), 1u);
    EXPECT_EQ(continuous.capture[0].ConfigCaps.MinFrameInterval, 333333);
    EXPECT_EQ(continuous.capture[0].ConfigCaps.MaxFrameInterval, 2000000);

    Tables claimed = Extract(Config().Interface(1, 0, 2).Format(0x04, 1, 1)
                                 .Frame(0x05, 1, 640, 480, {333333, 500000}, /*intervalType*/ 9)
                                 .Still({{640, 480}, {320, 240}}, /*claimed*/ 40).Finish());
    ASSERT_EQ(claimed.capture.size(), 1u);
    EXPECT_EQ(claimed.capture[0].ConfigCaps.MaxFrameInterval, 500000);
    ASSERT_EQ(claimed.still.size(), 2u);

    Tables shortUnits = Extract(Config().Interface(0, 0, 1)
                                    .Raw({16, 0x24, 0x02, 1, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0xFF})
                                    .Raw({9, 0x24, 0x05, 3, 1, 0, 0, 2, 0xFF})
                                    .Interface(1, 0, 2).Format(0x04, 1, 1).Frame(0x05, 1, 640, 480, {333333}).Finish());
    EXPECT_EQ(shortUnits.cameraTerminal, 0u);
    EXPECT_EQ(shortUnits.processingUnit, 0);
}

// Each allocation of one walk failing in turn (the temporary lists, two for
// the capture walk and one for the still walk, then the final table): the
// walk returns STATUS_INSUFFICIENT_RESOURCES, hands back no table and
// nothing stays held.
TEST(FormatTables, AnAllocationFailureAtAnyAllocationFailsTheWalkAndLeaksNothing)
{
    auto bytes = TwoFormatCamera();
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    for (bool still : {false, true}) {
        SCOPED_TRACE(still ? "ExtractStillInfo" : "ExtractVSInfo");
        auto walk = [&](FormatTables& tables, PKS_DATARANGE_VIDEO* p, USHORT* n) {
            return still ? tables.ExtractStillInfo(pConfig, p, n) : tables.ExtractVSInfo(pConfig, p, n);
        };
        uint64_t nAllocations = 0;
        {
            FormatTables tables;
            USHORT n = 0;
            PKS_DATARANGE_VIDEO p = nullptr;
            const uint64_t before = kvsim::PoolAllocationCount();
            ASSERT_EQ(walk(tables, &p, &n), STATUS_SUCCESS);
            nAllocations = kvsim::PoolAllocationCount() - before;
            ExFreePool(p);
        }
        ASSERT_EQ(nAllocations, still ? 2u : 3u);
        for (uint64_t i = 1; i <= nAllocations; i++) {
            SCOPED_TRACE("failing allocation " + std::to_string(i));
            FormatTables tables;
            USHORT n = 0;
            PKS_DATARANGE_VIDEO p = nullptr;
            kvsim::PoolFailNthAllocation(i);
            NTSTATUS status = walk(tables, &p, &n);
            kvsim::PoolResetFaultInjection();
            EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(p, nullptr);
            EXPECT_EQ(n, 0);
            EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
        }
    }
}

// The real cameras of ../shared/cameras and the virtual camera's default set,
// against the camera model's own parse (sim/camera), written apart from the
// driver's walk. The Trust webcam has still-image descriptors; the Logitech
// C270 (38 entries) and the ELP H.264 camera (its frame-based format is
// ignored) have none, so ExtractStillInfo fails for them.
struct CameraCase {
    const char* name;
    bool stills;
    size_t captureCount;  // 0: any number above 0
};
void PrintTo(const CameraCase& c, std::ostream* os) { *os << c.name; }

class CameraFormatTables : public ::testing::TestWithParam<CameraCase> {};

TEST_P(CameraFormatTables, MatchTheCamerasDescriptorsEntryByEntry)
{
    const CameraCase& c = GetParam();
    auto set = std::string(c.name) == "default" ? cam::BuildDescriptors(cam::DefaultCameraSpec())
                                                : blob::LoadReal(c.name);
    ASSERT_FALSE(set.configuration.empty());
    auto parsed = cam::ParseCameraModel(set.device, set.configuration);
    ASSERT_TRUE(parsed.ok);
    const cam::CameraModel& m = parsed.model;
    // Per kind, the last format descriptor counts (a later one starts a new list).
    const cam::Format* pYuy2 = nullptr;
    const cam::Format* pMjpeg = nullptr;
    for (const auto& s : m.streaming) {
        for (const auto& f : s.formats) {
            if (f.kind == cam::FormatKind::kUncompressed) pYuy2 = &f;
            if (f.kind == cam::FormatKind::kMjpeg) pMjpeg = &f;
        }
    }
    Tables t = Extract(set.configuration);
    ASSERT_EQ(t.vsStatus, STATUS_SUCCESS);
    size_t nCapture = 0, nStill = 0;
    ULONG wide = 0;
    for (const cam::Format* pf : {pYuy2, pMjpeg}) {
        if (pf == nullptr) continue;
        const bool yuy2 = pf == pYuy2;
        for (const auto& fr : pf->frames) {
            ASSERT_LT(nCapture, t.capture.size());
            const uint32_t last = fr.continuous ? fr.intervals.at(1) : fr.intervals.back();
            ExpectCaptureEntry(t.capture[nCapture], yuy2, fr.width, fr.height, fr.intervals.at(0), last,
                               fr.minBitRate, fr.maxBitRate, "entry " + std::to_string(nCapture));
            if (yuy2 && (fr.width == 640 || fr.width == 1280)) wide = fr.width;
            nCapture++;
        }
        for (const auto& s : pf->stills) {
            ASSERT_LT(nStill, t.still.size());
            ExpectStillEntry(t.still[nStill], yuy2, s.width, s.height, "still " + std::to_string(nStill));
            nStill++;
        }
    }
    EXPECT_EQ(t.capture.size(), nCapture);
    EXPECT_GT(nCapture, 0u);
    if (c.captureCount != 0) {
        EXPECT_EQ(nCapture, c.captureCount);
    }
    EXPECT_EQ(t.wideFrameWidth, wide);
    EXPECT_EQ(t.stillStatus, c.stills ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
    EXPECT_EQ(nStill > 0, c.stills);
    EXPECT_EQ(t.still.size(), nStill);
    if (const cam::Entity* ct = m.FindByKind(cam::EntityKind::kCameraTerminal)) {
        EXPECT_EQ(t.cameraTerminal, ct->controls & 0xFFFF);
    }
    if (const cam::Entity* pu = m.FindByKind(cam::EntityKind::kProcessingUnit)) {
        EXPECT_EQ(t.processingUnit, pu->controls & 0xFFFF);
    }
}

INSTANTIATE_TEST_SUITE_P(Cameras, CameraFormatTables,
                         ::testing::Values(CameraCase{"trust_webcam", true, 0}, CameraCase{"logitech_c270", false, 38},
                                           CameraCase{"elp_h264", false, 0}, CameraCase{"default", true, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
