// kvcam's output building blocks: the --json layout (json.h), the JSON
// object of one KS_DATARANGE_VIDEO (its fields' names, in order, with their
// values) and the formats table. (The `kvcam formats --json` object of a
// failed and a successful start: kvcam_cli_test.)
#include <gtest/gtest.h>

#include "filter_view.h"
#include "json.h"
#include "report.h"

namespace {

using kvcam::Json;

std::vector<std::string> Keys(const Json& object)
{
    std::vector<std::string> keys;
    for (const auto& member : object.items()) keys.push_back(member.key());
    return keys;
}

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

// The printed text of a value, parsed back (member order kept).
Json Reparsed(const Json& value)
{
    std::string text = kvcam::JsonText(value);
    Json back = Json::parse(text, nullptr, false);
    EXPECT_FALSE(back.is_discarded()) << text;
    return back;
}

TEST(KvcamJsonText, TopLevelMembersAndArrayObjectsGetALineEach)
{
    Json o = Json::object();
    o["name"] = "a \"b\"\n";
    o["damaged"] = ".te\xff";  // not UTF-8 (a name from a damaged file): replaced, not thrown
    o["n"] = nullptr;
    o["big"] = uint64_t(4294967295u);
    o["neg"] = int64_t(-5);
    o["flags"] = Json::array({"x", "y"});
    o["empty"] = Json::array();
    o["items"] = Json::array({Json::object({{"k", 1}, {"l", Json::array({2, 3})}}), Json::object({{"k", 2}})});
    EXPECT_EQ(kvcam::JsonText(o), "{\n"
                                  "  \"name\": \"a \\\"b\\\"\\n\",\n"
                                  "  \"damaged\": \".te\xEF\xBF\xBD\",\n"
                                  "  \"n\": null,\n"
                                  "  \"big\": 4294967295,\n"
                                  "  \"neg\": -5,\n"
                                  "  \"flags\": [\"x\", \"y\"],\n"
                                  "  \"empty\": [],\n"
                                  "  \"items\": [\n"
                                  "    {\"k\": 1, \"l\": [2, 3]},\n"
                                  "    {\"k\": 2}\n"
                                  "  ]\n"
                                  "}");
    o.erase("damaged");
    EXPECT_EQ(Reparsed(o), o);
    EXPECT_EQ(kvcam::JsonText(Json::object()), "{}");
}

TEST(KvcamFormatsJson, RangeObjectHasTheStructureFieldsInOrderWithTheirValues)
{
    Json v = Reparsed(kvcam::DataRangeJson(DistinctRange()));
    // SubFormat, then the numbers, in the structures' order.
    const std::pair<const char*, int64_t> numbers[] = {
        {"SampleSize", 614400},       {"bFixedSizeSamples", 1},       {"bTemporalCompression", 0},
        {"StreamDescriptionFlags", 3}, {"MinFrameInterval", 333333},   {"MaxFrameInterval", 10000000},
        {"MinBitsPerSecond", 4915200}, {"MaxBitsPerSecond", 147456000}, {"AvgTimePerFrame", 666666},
        {"dwBitRate", 73728000},      {"biWidth", 640},               {"biHeight", -480},
        {"biBitCount", 16},           {"biCompression", 0x32595559},  {"biSizeImage", 614401}};
    std::vector<std::string> keys = {"SubFormat"};
    for (const auto& [key, value] : numbers) keys.push_back(key);
    ASSERT_EQ(Keys(v), keys);
    // Upper-case hex in five groups, zero-padded, without braces.
    EXPECT_EQ(v["SubFormat"], "0ABCDEF1-0023-A045-8F01-00AA0B0C0DE0");
    for (const auto& [key, value] : numbers) {
        EXPECT_TRUE(v[key].is_number_integer()) << key << " is not a JSON integer: " << v[key].dump();
        EXPECT_EQ(v[key].get<int64_t>(), value) << key;
    }
}

// (A failed start's status and message in the table: kvcam_cli_test's info.)
TEST(KvcamFormatsTable, ShowsOneRowPerRange)
{
    kvcam::FormatsReport started;
    started.startStatus = STATUS_SUCCESS;
    started.started = true;
    started.capture = {DistinctRange()};
    started.still = {DistinctRange(), DistinctRange()};
    std::string text = kvcam::FormatsTable(started);
    EXPECT_NE(text.find("capture pin 0 data ranges: 1"), std::string::npos) << text;
    EXPECT_NE(text.find("still pin 2 data ranges: 2"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 2 + 2 + 3) << text;
    EXPECT_NE(text.find("640 x -480"), std::string::npos) << text;
    EXPECT_NE(text.find("YUY2"), std::string::npos) << text;
}

}  // namespace
