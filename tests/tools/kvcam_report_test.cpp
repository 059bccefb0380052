// kvcam's output building blocks: GUID and NTSTATUS text, the JSON writer,
// the JSON object of one KS_DATARANGE_VIDEO (its fields' names, in order) and
// the `kvcam formats --json` object for a failed and a successful start.
// The JSON is parsed back with the tests' own reader (json_reader.h).
#include <gtest/gtest.h>

#include <regex>

#include "filter_view.h"
#include "json.h"
#include "report.h"
#include "tools/json_reader.h"

namespace {

const std::vector<std::string> kRangeKeys = {
    "SubFormat",        "SampleSize",       "bFixedSizeSamples", "bTemporalCompression", "StreamDescriptionFlags",
    "MinFrameInterval", "MaxFrameInterval", "MinBitsPerSecond",  "MaxBitsPerSecond",     "AvgTimePerFrame",
    "dwBitRate",        "biWidth",          "biHeight",          "biBitCount",           "biCompression",
    "biSizeImage"};

// A range whose every field has its own value, so that a field written under
// the wrong key shows.
KS_DATARANGE_VIDEO DistinctRange()
{
    KS_DATARANGE_VIDEO r{};
    r.DataRange.SubFormat = GUID{0x0abcdef1, 0x0023, 0xa045, {0x8f, 0x01, 0x00, 0xaa, 0x0b, 0x0c, 0x0d, 0xe0}};
    r.DataRange.SampleSize = 614400;
    r.bFixedSizeSamples = 1;
    r.bTemporalCompression = 0;
    r.StreamDescriptionFlags = 3;
    r.ConfigCaps.MinFrameInterval = 333333;
    r.ConfigCaps.MaxFrameInterval = 10000000;
    r.ConfigCaps.MinBitsPerSecond = 4915200;
    r.ConfigCaps.MaxBitsPerSecond = 147456000;
    r.VideoInfoHeader.AvgTimePerFrame = 666666;
    r.VideoInfoHeader.dwBitRate = 73728000;
    r.VideoInfoHeader.bmiHeader.biWidth = 640;
    r.VideoInfoHeader.bmiHeader.biHeight = -480;
    r.VideoInfoHeader.bmiHeader.biBitCount = 16;
    r.VideoInfoHeader.bmiHeader.biCompression = 0x32595559;  // 'YUY2'
    r.VideoInfoHeader.bmiHeader.biSizeImage = 614401;
    return r;
}

jsonr::Value ParseOrFail(const std::string& text)
{
    std::string error;
    std::optional<jsonr::Value> v = jsonr::Parse(text, &error);
    EXPECT_TRUE(v.has_value()) << error << "\n" << text;
    return v.value_or(jsonr::Value{});
}

TEST(KvcamGuidText, IsUpperCaseHexInFiveGroupsWithoutBraces)
{
    EXPECT_EQ(kvharness::FormatGuid(KSCATEGORY_VIDEO), "6994AD05-93EF-11D0-A3CC-00A0C9223196");
    EXPECT_EQ(kvharness::FormatGuid(DistinctRange().DataRange.SubFormat), "0ABCDEF1-0023-A045-8F01-00AA0B0C0DE0");
    EXPECT_EQ(kvharness::FormatGuid(GUID{}), "00000000-0000-0000-0000-000000000000");
}

TEST(KvcamGuidText, NamesTheFilterCategoriesAndPinNames)
{
    EXPECT_EQ(kvharness::GuidName(KSCATEGORY_CAPTURE), "KSCATEGORY_CAPTURE");
    EXPECT_EQ(kvharness::GuidName(PINNAME_VIDEO_STILL), "PINNAME_VIDEO_STILL");
    EXPECT_EQ(kvharness::GuidName(DistinctRange().DataRange.SubFormat), std::nullopt);
}

TEST(KvcamStatusText, IsZeroPaddedUpperCaseHex)
{
    EXPECT_EQ(kvharness::FormatStatus(STATUS_SUCCESS), "0x00000000");
    EXPECT_EQ(kvharness::FormatStatus(STATUS_INVALID_PARAMETER), "0xC000000D");
    EXPECT_EQ(kvharness::FormatStatus(STATUS_INSUFFICIENT_RESOURCES), "0xC000009A");
}

TEST(KvcamJson, EscapesQuotesBackslashesAndControlCharacters)
{
    std::string quoted = kvcam::JsonQuote("a \"b\" \\ c\n\x01");
    EXPECT_EQ(quoted, "\"a \\\"b\\\" \\\\ c\\u000a\\u0001\"");
    jsonr::Value v = ParseOrFail(quoted);
    EXPECT_EQ(v.text, "a \"b\" \\ c\n\x01");
}

TEST(KvcamJson, ObjectsKeepMemberOrderAndParseBack)
{
    kvcam::JsonObject o;
    o.Add("z", int64_t(-5)).AddUnsigned("a", 4294967295u).AddNullable("n", std::nullopt).AddBool("t", true);
    o.AddRaw("list", kvcam::JsonArray({"1", "2"}, true));
    for (const std::string& text : {o.Compact(), o.Pretty()}) {
        jsonr::Value v = ParseOrFail(text);
        EXPECT_EQ(v.Keys(), (std::vector<std::string>{"z", "a", "n", "t", "list"}));
        EXPECT_EQ(v.Find("z")->AsInt(), -5);
        EXPECT_EQ(v.Find("a")->AsInt(), 4294967295);
        EXPECT_TRUE(v.Find("n")->isNull());
        EXPECT_EQ(v.Find("list")->items.size(), 2u);
    }
}

TEST(KvcamFormatsJson, RangeObjectHasExactlyTheFieldNamesInOrderWithTheirValues)
{
    jsonr::Value v = ParseOrFail(kvcam::DataRangeJson(DistinctRange()));
    ASSERT_EQ(v.Keys(), kRangeKeys);
    EXPECT_EQ(v.Find("SubFormat")->text, "0ABCDEF1-0023-A045-8F01-00AA0B0C0DE0");
    const std::pair<const char*, int64_t> numbers[] = {
        {"SampleSize", 614400},       {"bFixedSizeSamples", 1},       {"bTemporalCompression", 0},
        {"StreamDescriptionFlags", 3}, {"MinFrameInterval", 333333},   {"MaxFrameInterval", 10000000},
        {"MinBitsPerSecond", 4915200}, {"MaxBitsPerSecond", 147456000}, {"AvgTimePerFrame", 666666},
        {"dwBitRate", 73728000},      {"biWidth", 640},               {"biHeight", -480},
        {"biBitCount", 16},           {"biCompression", 0x32595559},  {"biSizeImage", 614401}};
    for (const auto& [key, value] : numbers) {
        const jsonr::Value* member = v.Find(key);
        ASSERT_NE(member, nullptr) << key;
        EXPECT_TRUE(member->isInteger()) << key << " is not a JSON integer: " << member->text;
        EXPECT_EQ(member->AsInt(), value) << key;
    }
}

TEST(KvcamFormatsJson, FailedStartHasStatusAndMessageOnly)
{
    kvcam::FormatsReport report;
    report.startStatus = STATUS_INVALID_PARAMETER;
    report.startMessage = "Kvdrv PnP start : ExtractStillInfo return error (Status 0xC000000D )";
    jsonr::Value v = ParseOrFail(kvcam::FormatsJson(report));
    EXPECT_EQ(v.Keys(), (std::vector<std::string>{"start_status", "start_message"}));
    EXPECT_EQ(v.Find("start_status")->text, "0xC000000D");
    EXPECT_EQ(v.Find("start_message")->text, *report.startMessage);
}

TEST(KvcamFormatsJson, StartedHasNullMessageAndBothRangeArrays)
{
    kvcam::FormatsReport report;
    report.startStatus = STATUS_SUCCESS;
    report.started = true;
    report.capture = {DistinctRange(), DistinctRange()};
    report.capture[1].VideoInfoHeader.bmiHeader.biWidth = 320;
    jsonr::Value v = ParseOrFail(kvcam::FormatsJson(report));
    ASSERT_EQ(v.Keys(), (std::vector<std::string>{"start_status", "start_message", "capture", "still"}));
    EXPECT_EQ(v.Find("start_status")->text, "0x00000000");
    EXPECT_TRUE(v.Find("start_message")->isNull());
    const jsonr::Value& capture = *v.Find("capture");
    ASSERT_EQ(capture.kind, jsonr::Value::Kind::kArray);
    ASSERT_EQ(capture.items.size(), 2u);
    EXPECT_EQ(capture.items[1].Find("biWidth")->AsInt(), 320);
    EXPECT_EQ(v.Find("still")->kind, jsonr::Value::Kind::kArray);
    EXPECT_TRUE(v.Find("still")->items.empty());
}

TEST(KvcamFormatsTable, ShowsStatusMessageAndOneRowPerRange)
{
    kvcam::FormatsReport failed;
    failed.startStatus = STATUS_INVALID_PARAMETER;
    failed.startMessage = "Kvdrv PnP start exit1 (Status 0xC000000D )";
    std::string text = kvcam::FormatsTable(failed);
    EXPECT_NE(text.find("0xC000000D (failed)"), std::string::npos) << text;
    EXPECT_NE(text.find(*failed.startMessage), std::string::npos) << text;

    kvcam::FormatsReport started;
    started.startStatus = STATUS_SUCCESS;
    started.started = true;
    started.capture = {DistinctRange()};
    started.still = {DistinctRange(), DistinctRange()};
    text = kvcam::FormatsTable(started);
    EXPECT_NE(text.find("capture pin 0 data ranges: 1"), std::string::npos) << text;
    EXPECT_NE(text.find("still pin 2 data ranges: 2"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 2 + 2 + 3) << text;
    EXPECT_NE(text.find("640 x -480"), std::string::npos) << text;
    EXPECT_NE(text.find("YUY2"), std::string::npos) << text;
}

TEST(JsonReader, RejectsMalformedText)
{
    for (const char* bad : {"{", "{\"a\" 1}", "[1,]", "{\"a\":1,\"a\":2}", "01", "\"x", "{} x"}) {
        EXPECT_FALSE(jsonr::Parse(bad).has_value()) << bad;
    }
}

}  // namespace
