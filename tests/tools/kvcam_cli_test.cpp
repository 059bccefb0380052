// kvcam. Its output's building blocks: the --json layout (json.h), the JSON
// object of one KS_DATARANGE_VIDEO (its fields' names, in order, with their
// values) and the formats table. And the kvcam binary of this build tree,
// run as a user runs it: exit codes (0 ok, 1 start failed / bad input, 2
// usage), the help naming every command, `formats --json` on the built-in
// camera and on every shared real camera (also with its configuration
// descriptor alone), `info`, and --registry reaching the simulated registry.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "camera/camera_model.h"
#include "camera/frame_source.h"
#include "json.h"
#include "media_files.h"
#include "kvsim/registry.h"
#include "report.h"
#include "system.h"

namespace {

namespace fs = std::filesystem;
using kvcam::Json;

std::string CamerasDir() { return kvharness::SharedCamerasDir(KV_SHARED_DIR); }

std::vector<std::string> Keys(const Json& object)
{
    std::vector<std::string> keys;
    for (const auto& member : object.items()) keys.push_back(member.key());
    return keys;
}

// A non-empty array of range objects with the keys of kvcam::DataRangeJson,
// a GUID and integers.
void ExpectRangeObjects(const Json& array)
{
    static const std::regex kGuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    static const std::vector<std::string> kRangeKeys = Keys(kvcam::DataRangeJson(KS_DATARANGE_VIDEO{}));
    ASSERT_TRUE(array.is_array());
    EXPECT_FALSE(array.empty());
    for (const Json& range : array) {
        ASSERT_EQ(Keys(range), kRangeKeys);
        EXPECT_TRUE(std::regex_match(range["SubFormat"].get<std::string>(), kGuid)) << range["SubFormat"];
        for (size_t i = 1; i < kRangeKeys.size(); ++i) {
            EXPECT_TRUE(range[kRangeKeys[i]].is_number_integer()) << kRangeKeys[i];
        }
        EXPECT_GT(range["biWidth"].get<int64_t>(), 0);
        EXPECT_GT(range["biSizeImage"].get<int64_t>(), 0);
    }
}

// ---- the output's building blocks ------------------------------------------
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

// (A failed start's status and message in the table: the info test below.)
TEST(KvcamFormatsTable, ShowsOneRowPerRange)
{
    kvcam::FormatsReport started;
    started.startStatus = STATUS_SUCCESS;
    started.started = true;
    started.capture = {DistinctRange()};
    started.still = {DistinctRange(), DistinctRange()};
    started.captureRates = {{333333, 0}};
    std::string text = kvcam::FormatsTable(started);
    EXPECT_NE(text.find("capture pin 0 data ranges: 1"), std::string::npos) << text;
    EXPECT_NE(text.find("still pin 2 data ranges: 2"), std::string::npos) << text;
    EXPECT_NE(text.find(" 30.00 -\n"), std::string::npos) << "a rate of 0 shows as '-': " << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 2 + 2 + 2 + 3) << text;
    EXPECT_NE(text.find("640 x -480"), std::string::npos) << text;
    EXPECT_NE(text.find("YUY2"), std::string::npos) << text;
}

// ---- the binary ------------------------------------------------------------
struct KvcamRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// kvcam's output, parsed; also printed exactly in kvcam's layout (json.h).
Json ParseOrFail(const std::string& out)
{
    Json v = Json::parse(out, nullptr, false);
    EXPECT_FALSE(v.is_discarded()) << out;
    if (v.is_discarded()) return Json::object();
    EXPECT_EQ(out, kvcam::JsonText(v) + "\n");
    return v;
}

// `kvcam formats --json` of a camera that starts: exit code 0, nothing on
// stderr, a null message and both pins' ranges.
void ExpectStarted(const KvcamRun& run)
{
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    Json v = ParseOrFail(run.out);
    ASSERT_EQ(Keys(v), (std::vector<std::string>{"start_status", "start_message", "capture", "still",
                                                 "capture_frame_rates"}))
        << run.out;
    EXPECT_EQ(v["start_status"], "0x00000000");
    EXPECT_TRUE(v["start_message"].is_null());
    ExpectRangeObjects(v["capture"]);
    ExpectRangeObjects(v["still"]);
    // Every capture range answers the frame-rate query with at least one
    // interval that the range itself allows.
    ASSERT_EQ(v["capture_frame_rates"].size(), v["capture"].size());
    for (size_t i = 0; i < v["capture"].size(); ++i) {
        const Json& rates = v["capture_frame_rates"][i];
        ASSERT_FALSE(rates.empty()) << i;
        EXPECT_GE(rates[0].get<int64_t>(), v["capture"][i]["MinFrameInterval"].get<int64_t>()) << i;
    }
}

class KvcamCli : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() /
               ("kvcam_cli_" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override
    {
        kvsim::RegReset();
        fs::remove_all(dir_);
    }

    // The kvcam binary of this build tree, run by the shell.
    KvcamRun RunKvcam(const std::vector<std::string>& args) const
    {
        auto quote = [](const std::string& arg) { return "'" + arg + "'"; };
        auto read = [](const fs::path& file) {
            std::ifstream in(file, std::ios::binary);
            return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        };
        std::string command = quote(KVCAM_EXE);
        for (const std::string& a : args) command += " " + quote(a);
        int status = std::system((command + " >" + quote(dir_ / "stdout") + " 2>" + quote(dir_ / "stderr")).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read(dir_ / "stdout"), read(dir_ / "stderr")};
    }

    fs::path dir_;
};

TEST_F(KvcamCli, ExitCodes)
{
    const std::string missing = (dir_ / "missing.cfg_desc.bin").string();
    const struct {
        std::vector<std::string> args;
        int exitCode;
        const char* stderrHas;  // "" when nothing is said
    } cases[] = {
        {{"--help"}, 0, ""},
        {{"formats", "--help"}, 0, ""},
        {{}, 2, "usage: kvcam"},
        {{"no-such-command"}, 2, "unknown command 'no-such-command'"},
        {{"formats", "--no-such-option"}, 2, "unexpected argument '--no-such-option'"},
        {{"formats", "--registry"}, 2, "--registry needs a value"},
        {{"info", "--device", "x.bin"}, 2, "--device needs --camera"},
        {{"driver", "--no-such-option"}, 2, "unexpected argument"},
        {{"formats", "--camera", missing}, 1, "missing.cfg_desc.bin: cannot be read"},
        {{"driver", "--sys", "/nonexistent/kvdrv.sys"}, 1, "cannot open"},
        {{"driver", "--sys", KV_SOURCE_DIR "/tests/windows/user_mode_import.c"}, 1, "MZ"},
        {{"stream", "--format", "h264"}, 2, "unknown format 'h264'"},
        {{"stream", "--size", "640"}, 2, "size '640' is not WxH"},
        {{"stream", "--fps", "0"}, 2, "frame rate '0' is not 1..1000"},
        {{"stream", "--output", "x.avi"}, 1, "write .y4m or .mjpeg"},
        {{"stream", "--format", "mjpg"}, 1, "offers no mjpg; it offers: yuy2 640x480"},
        {{"stream", "--size", "100x100"}, 1, "offers no yuy2 100x100"},
        {{"stream", "--fps", "60"}, 1, "60 frames a second is not offered at 640x480: 5.0 to 30.0"},
        {{"stream", "--source", missing}, 1, "missing.cfg_desc.bin"},
        {{"get", "Nope"}, 2, "unknown setting 'Nope'"},
        {{"stream", "--set", "Brightness"}, 2, "--set 'Brightness' is not NAME=VALUE"},
        {{"stream", "--set", "Nope=1"}, 1, "--set: unknown setting 'Nope'"},
        {{"get"}, 2, "expected one setting"},
        {{"set", "Brightness", "40000"}, 2, "value '40000' is not a number in -32768..32767"},
        {{"image", "in.png"}, 2, "expected an input and an output picture"},
        {{"image", "in.png", "out.png", "--zoom", "62"}, 2, "--zoom '62' is not a level 1..61"},
        {{"image", missing, "out.png"}, 1, "missing.cfg_desc.bin"},
        {{"stream", "--button-at", "2s:wave"}, 2, "unknown button action 'wave'"},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const std::string& a : c.args) line += " " + a;
        SCOPED_TRACE("kvcam" + line);
        KvcamRun run = RunKvcam(c.args);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        if (*c.stderrHas == '\0') {
            EXPECT_EQ(run.err, "");
        } else {
            EXPECT_NE(run.err.find(c.stderrHas), std::string::npos) << run.err;
            EXPECT_EQ(run.out, "") << "errors go to stderr only";
        }
    }
    EXPECT_THAT(RunKvcam({"--help"}).out, testing::ContainsRegex("usage: kvcam.*  driver .*  formats .*  info "))
        << "the help names every command";
}

// The main job: frames from the capture pin into a .y4m, a PNG of the last
// one, and a JSON summary whose counts add up.
TEST_F(KvcamCli, StreamWritesTheFramesItCounts)
{
    for (const char* format : {"yuy2", "rgb24"}) {
        SCOPED_TRACE(format);
        const std::string video = (dir_ / "out.y4m").string();
        const std::string last = (dir_ / "last.png").string();
        KvcamRun run = RunKvcam({"stream", "--format", format, "--size", "320x240", "--frames", "6", "--output", video,
                                 "--snapshot", last, "--json"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        auto summary = nlohmann::json::parse(run.out);
        EXPECT_EQ(summary["frames_delivered"], 6);
        EXPECT_EQ(summary["width"], 320);
        std::ifstream in(video, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        size_t frames = 0;
        for (size_t at = bytes.find("FRAME\n"); at != std::string::npos; at = bytes.find("FRAME\n", at + 1)) ++frames;
        EXPECT_EQ(frames, 6u);
        EXPECT_TRUE(fs::file_size(last) > 0);
    }
}

// The summary says why frames went undelivered: here the start-up skips
// the registry asks for.
TEST_F(KvcamCli, StreamSummaryCountsTheStartUpSkips)
{
    const std::string reg = (dir_ / "settings.reg").string();
    std::ofstream(reg) << "Windows Registry Editor Version 5.00\n\n"
                          "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\n"
                          "\"DropFrameCntVGA\"=dword:00000003\n";
    KvcamRun run = RunKvcam({"stream", "--registry", reg, "--size", "160x120", "--frames", "4", "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto summary = nlohmann::json::parse(run.out);
    EXPECT_EQ(summary["frames_delivered"], 4);
    EXPECT_EQ(summary["not_delivered"]["startup_skipped"], 3);
    EXPECT_EQ(summary["not_delivered"]["bad_frame"], 0);
    EXPECT_GE(summary["dropped_frames_property"]["picture_number"].get<int>(), 4);
}

// The camera sends a video's frames: a YUY2 stream gives them back byte for
// byte (from the second on: the frame the stream starts in is never
// delivered), an RGB24 stream (motion JPEG decoded by the driver) within
// JPEG's loss.
TEST_F(KvcamCli, StreamFromASourceVideoGivesItsFramesBack)
{
    const std::string source = (dir_ / "source.y4m").string();
    const std::string copy = (dir_ / "copy.y4m").string();
    ASSERT_EQ(RunKvcam({"stream", "--size", "320x240", "--frames", "8", "--output", source}).exitCode, 0);
    KvcamRun run = RunKvcam({"stream", "--source", source, "--size", "320x240", "--frames", "5", "--output", copy});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::string error;
    auto sent = kvharness::LoadSourcePictures(source, &error);
    auto got = kvharness::LoadSourcePictures(copy, &error);
    ASSERT_TRUE(sent && got) << error;
    ASSERT_EQ(got->size(), 5u);
    for (size_t i = 0; i < got->size(); ++i) EXPECT_EQ((*got)[i].pixels, (*sent)[i + 1].pixels) << "frame " << i;

    run = RunKvcam({"stream", "--source", source, "--format", "rgb24", "--size", "320x240", "--frames", "3", "--output",
                    copy});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    got = kvharness::LoadSourcePictures(copy, &error);
    ASSERT_TRUE(got) << error;
    for (size_t i = 0; i < got->size(); ++i) {
        const auto& a = (*got)[i].pixels;
        const auto& b = (*sent)[i + 1].pixels;
        ASSERT_EQ(a.size(), b.size());
        double squares = 0;
        for (size_t k = 0; k < a.size(); ++k) squares += (double(a[k]) - b[k]) * (double(a[k]) - b[k]);
        EXPECT_GT(10 * std::log10(255.0 * 255.0 / (squares / double(a.size()) + 1e-9)), 30.0) << "frame " << i;
    }
}

// --set reaches the frame loop before the stream runs: with the vertical
// flip on, each frame's stamp (its top rows) arrives at the bottom.
TEST_F(KvcamCli, StreamSetsControlsBeforeItRuns)
{
    const std::string video = (dir_ / "flipped.y4m").string();
    KvcamRun run = RunKvcam({"stream", "--set", "fVflip=1", "--size", "320x240", "--frames", "2", "--output", video});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::string error;
    auto frames = kvharness::LoadSourcePictures(video, &error);
    ASSERT_TRUE(frames) << error;
    for (auto& picture : *frames) {
        EXPECT_FALSE(kvsim::camera::ReadFrameNumber(picture.pixels, picture.width, picture.height));
        const size_t row = size_t(picture.width) * 2;
        for (size_t y = 0; y < picture.height / 2; ++y) {
            std::swap_ranges(picture.pixels.begin() + y * row, picture.pixels.begin() + (y + 1) * row,
                             picture.pixels.begin() + (picture.height - 1 - y) * row);
        }
        EXPECT_TRUE(kvsim::camera::ReadFrameNumber(picture.pixels, picture.width, picture.height));
    }
}

// `kvcam image` runs the frame loop's stages on a picture: unchanged without
// options (but for the YUY2 round trip), turned by a half turn, framed by a
// photo frame that leaves the middle alone, and a .y4m of every frame.
TEST_F(KvcamCli, ImageRunsTheDriversStagesOnAPicture)
{
    const std::string source = (dir_ / "source.png").string();
    ASSERT_EQ(RunKvcam({"stream", "--size", "320x240", "--frames", "1", "--snapshot", source}).exitCode, 0);
    auto load = [&](const std::string& name) {
        std::string error;
        auto pictures = kvharness::LoadSourcePictures((dir_ / name).string(), &error);
        EXPECT_TRUE(pictures) << error;
        return pictures ? pictures->front() : kvsim::camera::Yuy2Picture{};
    };
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"plain.png", {}}, {"turned.bmp", {"--rotate", "2"}}, {"framed.png", {"--frame", "1"}}}) {
        std::vector<std::string> command{"image", source, (dir_ / name).string()};
        command.insert(command.end(), args.begin(), args.end());
        KvcamRun run = RunKvcam(command);
        ASSERT_EQ(run.exitCode, 0) << name << ": " << run.err;
    }
    const auto in = load("source.png"), plain = load("plain.png"), turned = load("turned.bmp"),
               framed = load("framed.png");
    const size_t w = in.width, h = in.height;
    auto luma = [&](const kvsim::camera::Yuy2Picture& p, size_t x, size_t y) { return int(p.pixels[(y * w + x) * 2]); };
    int worstPlain = 0, worstTurn = 0;
    for (size_t y = 0; y < h; y += 7) {
        for (size_t x = 0; x < w; x += 5) {
            worstPlain = std::max(worstPlain, std::abs(luma(plain, x, y) - luma(in, x, y)));
            worstTurn = std::max(worstTurn, std::abs(luma(turned, x, y) - luma(in, w - 1 - x, h - 1 - y)));
        }
    }
    EXPECT_LE(worstPlain, 3);
    EXPECT_LE(worstTurn, 3);
    EXPECT_NEAR(luma(framed, w / 2, h / 2), luma(plain, w / 2, h / 2), 1) << "the video shows through";
    EXPECT_NE(luma(framed, 1, 1), luma(plain, 1, 1)) << "the frame covers the edge";

    const std::string video = (dir_ / "grid.y4m").string();
    ASSERT_EQ(RunKvcam({"image", source, video, "--effect", "4", "--frames", "12", "--all"}).exitCode, 0);
    std::string error;
    auto frames = kvharness::LoadSourcePictures(video, &error);
    ASSERT_TRUE(frames) << error;
    EXPECT_EQ(frames->size(), 12u);
}

// Settings reach the stream's picture stages: the negative (an RGB effect,
// which also turns the driver's software-effects switch on) inverts the
// picture, and zoom level 41 shows the middle half enlarged.
TEST_F(KvcamCli, StreamShowsTheEffectAndTheZoomAsked)
{
    const std::string source = (dir_ / "source.png").string();
    ASSERT_EQ(RunKvcam({"stream", "--size", "320x240", "--frames", "1", "--snapshot", source}).exitCode, 0);
    auto snap = [&](const std::string& name, std::vector<std::string> sets) {
        std::vector<std::string> args{"stream", "--source", source, "--size", "320x240", "--frames", "3",
                                      "--snapshot", (dir_ / name).string()};
        for (const std::string& set : sets) args.insert(args.end(), {"--set", set});
        KvcamRun run = RunKvcam(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        std::string error;
        auto pictures = kvharness::LoadSourcePictures((dir_ / name).string(), &error);
        EXPECT_TRUE(pictures) << error;
        return pictures ? pictures->front() : kvsim::camera::Yuy2Picture{};
    };
    const auto plain = snap("plain.png", {});
    const auto negative = snap("negative.png", {"SpecialEffectNo=6"});
    const auto zoomed = snap("zoomed.png", {"TrackingMethod=1", "0x063A=1", "0x0638=41"});
    ASSERT_EQ(negative.pixels.size(), plain.pixels.size());
    ASSERT_EQ(zoomed.pixels.size(), plain.pixels.size());
    const size_t w = plain.width;
    auto luma = [&](const kvsim::camera::Yuy2Picture& p, size_t x, size_t y) { return int(p.pixels[(y * w + x) * 2]); };
    // Studio-range luma inverts about 16..235: Y' = 251 - Y.
    for (size_t y = 20; y < 240; y += 40) {
        for (size_t x = 10; x < 320; x += 30) {
            EXPECT_NEAR(luma(negative, x, y), 251 - luma(plain, x, y), 4) << x << "," << y;
        }
    }
    // Level 41: the 160x120 window from column 80 fills the frame, output
    // column x taken from window column x * 159 / 320.
    for (size_t x = 8; x < 320; x += 24) {
        EXPECT_NEAR(luma(zoomed, x, 120), luma(plain, 80 + x * 159 / 320, 120), 4) << x;
    }
}

// The button and the trigger as a user plays them: a click takes a still at
// once, a trigger with a self-timer of 3 four seconds later; each still is a
// file and raises the still-button event.
TEST_F(KvcamCli, ButtonsAndTriggersDeliverStillsAtTheirTimes)
{
    const std::string still = (dir_ / "still.png").string();
    KvcamRun run = RunKvcam({"stream", "--seconds", "6", "--size", "320x240", "--button-at", "1s:click", "--set",
                             "SelfTimer=-1", "--still", still, "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto json = nlohmann::json::parse(run.out);
    ASSERT_EQ(json["still_seconds"].size(), 1u) << run.out;
    EXPECT_NEAR(json["still_seconds"][0].get<double>(), 1.1, 0.15);
    EXPECT_EQ(json["still_events"], 1);
    EXPECT_TRUE(fs::exists(still));

    run = RunKvcam({"stream", "--seconds", "6", "--size", "320x240", "--set", "SelfTimer=3", "--trigger-at", "1s",
                    "--trigger-at", "2s", "--still", still, "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    json = nlohmann::json::parse(run.out);
    ASSERT_EQ(json["still_seconds"].size(), 1u) << run.out;
    EXPECT_NEAR(json["still_seconds"][0].get<double>(), 5.1, 0.15);
    EXPECT_EQ(json["triggers_refused"], 1) << "the second trigger came during the countdown";
}

// A setting read and written through the driver-control tunnel, by name
// and by id, on the built-in camera and on a real camera's descriptors.
TEST_F(KvcamCli, GetAndSetGoThroughTheTunnel)
{
    for (const char* camera : {"", "trust_webcam"}) {
        SCOPED_TRACE(camera);
        auto with = [&](std::vector<std::string> args) {
            if (*camera) {
                args.push_back("--camera");
                args.push_back(camera);
            }
            return RunKvcam(args);
        };
        KvcamRun set = with({"set", "SpecialEffectNo", "3", "--json"});
        ASSERT_EQ(set.exitCode, 0) << set.err;
        auto json = nlohmann::json::parse(set.out);
        EXPECT_EQ(json["id"], "0x060F");
        EXPECT_EQ(json["value"], 3);
        KvcamRun brightness = with({"set", "0x0200", "7"});
        ASSERT_EQ(brightness.exitCode, 0) << brightness.err;
        EXPECT_EQ(brightness.out, "Brightness (0x0200) = 7\n");
        KvcamRun timer = with({"get", "SelfTimer"});
        EXPECT_EQ(timer.out, "SelfTimer (0x090B) = -1\n");
        // Values the camera or the driver would not take: exit code 1 and
        // the reason.
        KvcamRun outOfRange = with({"set", "Brightness", "9999"});
        EXPECT_EQ(outOfRange.exitCode, 1);
        EXPECT_EQ(outOfRange.err, "kvcam set: 9999 is out of range for Brightness: the camera takes -64..64\n");
        KvcamRun badTimer = with({"set", "SelfTimer", "44"});
        EXPECT_EQ(badTimer.exitCode, 1);
        EXPECT_EQ(badTimer.err, "kvcam set: SelfTimer kept -1; the driver did not take 44\n");
    }
}

// `kvcam controls` lists the whole record with the camera's ranges, and a
// camera control the camera lacks as absent (trust_webcam has no
// white-balance temperature), not as a value of 0.
TEST_F(KvcamCli, ControlsListsTheRecordWithRangesAndAbsentControls)
{
    for (const char* camera : {"", "trust_webcam"}) {
        SCOPED_TRACE(camera);
        std::vector<std::string> args{"controls", "--json"};
        if (*camera) args.insert(args.end(), {"--camera", camera});
        KvcamRun run = RunKvcam(args);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        std::map<std::string, nlohmann::json> byId;
        for (const auto& row : nlohmann::json::parse(run.out)) byId[row["id"]] = row;
        EXPECT_EQ(byId["0x0200"]["name"], "Brightness");
        EXPECT_EQ(byId["0x0200"]["minimum"], -64);
        EXPECT_EQ(byId["0x0200"]["maximum"], 64);
        EXPECT_EQ(byId["0x090B"]["current"], -1);
        EXPECT_FALSE(byId["0x090B"]["camera_control"]);
        EXPECT_TRUE(byId["0x0636"]["name"].is_null());
        const auto& temperature = byId["0x0A00"];
        EXPECT_EQ(temperature["present"], *camera == 0);
        EXPECT_EQ(temperature.contains("current"), *camera == 0);
    }
}

// With --registry a set value is there at the next run: the driver saves its
// record when a stream stops, and kvcam set runs one.
TEST_F(KvcamCli, ASetValuePersistsThroughTheRegistryFile)
{
    const std::string reg = (dir_ / "settings.reg").string();
    ASSERT_EQ(RunKvcam({"set", "Brightness", "23", "--registry", reg}).exitCode, 0);
    ASSERT_EQ(RunKvcam({"set", "SpecialEffectNo", "6", "--registry", reg}).exitCode, 0);
    EXPECT_EQ(RunKvcam({"get", "Brightness", "--registry", reg}).out, "Brightness (0x0200) = 23\n");
    EXPECT_EQ(RunKvcam({"get", "SpecialEffectNo", "--registry", reg}).out, "SpecialEffectNo (0x060F) = 6\n");
    EXPECT_EQ(RunKvcam({"get", "Brightness"}).out, "Brightness (0x0200) = 0\n") << "no file, no memory";
}

// Every shared camera that starts streams each of its formats.
TEST_F(KvcamCli, StreamRunsOnEverySharedCameraThatStarts)
{
    for (const auto& entry : fs::directory_iterator(std::string(KV_SHARED_DIR) + "/cameras")) {
        const std::string file = entry.path().filename().string();
        if (file.size() < 14 || file.substr(file.size() - 13) != ".cfg_desc.bin") continue;
        const std::string name = file.substr(0, file.size() - 13);
        SCOPED_TRACE(name);
        KvcamRun formats = RunKvcam({"formats", "--json", "--camera", name});
        if (formats.exitCode != 0) continue;  // the start fails: nothing to stream
        auto capture = nlohmann::json::parse(formats.out)["capture"];
        ASSERT_FALSE(capture.empty());
        for (const auto& range : capture) {
            const std::string size = std::to_string(range["biWidth"].get<int>()) + "x" +
                                     std::to_string(range["biHeight"].get<int>());
            KvcamRun run = RunKvcam({"stream", "--camera", name, "--format",
                                     range["biCompression"] == 0 ? "rgb24" : "yuy2", "--size", size, "--frames", "2"});
            EXPECT_EQ(run.exitCode, 0) << size << ": " << run.err;
        }
    }
}

TEST_F(KvcamCli, FormatsJsonOnTheDefaultCameraListsCaptureAndStillRangesAndKeepsTheRegistry)
{
    const std::string reg = (dir_ / "r.reg").string();
    KvcamRun run = RunKvcam({"formats", "--json", "--registry", reg});
    ExpectStarted(run);
    // --registry reaches the simulated registry: the file holds what the
    // driver wrote.
    ASSERT_TRUE(fs::exists(reg));
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(reg).ok());
    EXPECT_EQ(kvsim::RegGetDword(std::string(kvharness::kServiceKey) + "\\Data", "DeviceExist"), 2u);
}

// Every shared camera by its NAME, by its file, and by its configuration
// descriptor alone (copied to a folder without the device descriptor): the
// same JSON each time, a start without a still image frame descriptor
// failing in ExtractStillInfo.
TEST_F(KvcamCli, FormatsJsonOnEverySharedCamera)
{
    size_t cameras = 0;
    for (const fs::directory_entry& e : fs::directory_iterator(CamerasDir())) {
        const std::string config = e.path().string(), suffix = ".cfg_desc.bin";
        std::string name = e.path().filename().string();
        if (!name.ends_with(suffix)) continue;
        name.resize(name.size() - suffix.size());
        SCOPED_TRACE(name);
        ++cameras;
        std::string error;
        auto set = kvharness::LoadCameraFiles(config, "", &error);
        ASSERT_TRUE(set.has_value()) << error;
        bool hasStill = false;
        for (const auto& vs : kvsim::camera::ParseCameraModel(set->device, set->configuration).model.streaming)
            for (const auto& f : vs.formats) hasStill = hasStill || !f.stills.empty();
        const fs::path alone = dir_ / (name + suffix);
        fs::copy_file(config, alone);
        KvcamRun byName = RunKvcam({"formats", "--json", "--camera", name});
        KvcamRun byFile = RunKvcam({"formats", "--json", "--camera", config});
        KvcamRun byConfig = RunKvcam({"formats", "--json", "--camera", alone.string()});
        for (const KvcamRun* run : {&byFile, &byConfig}) {
            EXPECT_EQ(run->out, byName.out);
            EXPECT_EQ(run->exitCode, byName.exitCode);
        }
        EXPECT_EQ(byConfig.err, "kvcam: no device descriptor for " + alone.string() +
                                    "; using a plain USB 2.0 high-speed device descriptor\n" + byName.err);
        if (hasStill) {
            ExpectStarted(byName);
        } else {
            EXPECT_EQ(byName.exitCode, 1);
            EXPECT_EQ(byName.out, "{\n  \"start_status\": \"0xC000000D\",\n  \"start_message\": \"Kvdrv PnP start : "
                                  "ExtractStillInfo return error (Status 0xC000000D )\"\n}\n");
        }
    }
    EXPECT_GE(cameras, 3u);
}

TEST_F(KvcamCli, InfoDescribesTheCameraItsStartPinsTopologyAndLog)
{
    KvcamRun run = RunKvcam({"info", "--verbose"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "") << "nothing from the simulation's end-of-run checks";
    for (const char* expected : {"high speed", "interface 0: video control", "interface 1: video streaming",
                                 "alternate 1: isochronous 0x81", "filter pins:", "PINNAME_VIDEO_CAPTURE",
                                 "PINNAME_VIDEO_STILL", "KSNODETYPE_VIDEO_CAMERA_TERMINAL", "filter pin 1 -> node 0",
                                 "debug log:", "init Driver entry get called"}) {
        EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\n" << run.out;
    }
    KvcamRun quiet = RunKvcam({"info"});
    EXPECT_EQ(quiet.out.find("debug log:"), std::string::npos) << "the log only with --verbose";

    // A failed start, on the camera named by its descriptor files.
    const std::string camera = CamerasDir() + "/logitech_c270";
    KvcamRun failed = RunKvcam({"info", "--camera", camera + ".cfg_desc.bin", "--device", camera + ".dev_desc.bin"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_NE(failed.out.find("046D:0825"), std::string::npos) << failed.out;
    EXPECT_NE(failed.out.find("0xC000000D (failed)"), std::string::npos) << failed.out;
    EXPECT_NE(failed.out.find("ExtractStillInfo return error"), std::string::npos) << failed.out;
}

}  // namespace
