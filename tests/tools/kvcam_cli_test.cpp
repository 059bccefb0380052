// The kvcam binary of this build tree, run as a user runs it: `formats` and
// `info` on the built-in camera and on every shared real camera, --json
// parsed back with the tests' JSON reader, --registry creating and reloading
// its file, exit codes (0 ok, 1 start failed / bad input, 2 usage) and
// --help listing every command.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>

#include "camera/camera_model.h"
#include "kvsim/registry.h"
#include "system.h"
#include "tools/json_reader.h"

namespace {

namespace fs = std::filesystem;

struct KvcamRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string Quote(const std::string& arg) { return "'" + arg + "'"; }

KvcamRun RunKvcam(const std::vector<std::string>& args)
{
    fs::path errFile = fs::temp_directory_path() / ("kvcam_cli_err_" + std::to_string(::getpid()));
    std::string command = Quote(KVCAM_EXE);
    for (const std::string& a : args) command += " " + Quote(a);
    command += " 2>" + Quote(errFile.string());
    KvcamRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.out.append(buffer.data(), n);
    int status = ::pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(errFile);
    run.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    fs::remove(errFile);
    return run;
}

std::string CamerasDir() { return kvharness::SharedCamerasDir(KV_SHARED_DIR); }

std::vector<std::string> SharedCameraNames()
{
    std::vector<std::string> names;
    const std::string suffix = ".cfg_desc.bin";
    for (const fs::directory_entry& e : fs::directory_iterator(CamerasDir())) {
        std::string file = e.path().filename().string();
        if (file.ends_with(suffix)) names.push_back(file.substr(0, file.size() - suffix.size()));
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool HasStillDescriptor(const std::string& name)
{
    std::string error;
    auto set = kvharness::LoadCameraFiles(CamerasDir() + "/" + name + ".cfg_desc.bin", "", &error);
    if (!set) return false;
    auto parsed = kvsim::camera::ParseCameraModel(set->device, set->configuration);
    for (const auto& vs : parsed.model.streaming)
        for (const auto& f : vs.formats)
            if (!f.stills.empty()) return true;
    return false;
}

const std::vector<std::string> kRangeKeys = {
    "SubFormat",        "SampleSize",       "bFixedSizeSamples", "bTemporalCompression", "StreamDescriptionFlags",
    "MinFrameInterval", "MaxFrameInterval", "MinBitsPerSecond",  "MaxBitsPerSecond",     "AvgTimePerFrame",
    "dwBitRate",        "biWidth",          "biHeight",          "biBitCount",           "biCompression",
    "biSizeImage"};

void ExpectRangeObjects(const jsonr::Value& array)
{
    static const std::regex kGuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    ASSERT_EQ(array.kind, jsonr::Value::Kind::kArray);
    for (const jsonr::Value& range : array.items) {
        ASSERT_EQ(range.Keys(), kRangeKeys);
        EXPECT_TRUE(std::regex_match(range.Find("SubFormat")->text, kGuid)) << range.Find("SubFormat")->text;
        for (size_t i = 1; i < kRangeKeys.size(); ++i) {
            EXPECT_TRUE(range.Find(kRangeKeys[i])->isInteger()) << kRangeKeys[i];
        }
        EXPECT_GT(range.Find("biWidth")->AsInt(), 0);
        EXPECT_GT(range.Find("biSizeImage")->AsInt(), 0);
    }
}

jsonr::Value ParseOrFail(const KvcamRun& run)
{
    std::string error;
    std::optional<jsonr::Value> v = jsonr::Parse(run.out, &error);
    EXPECT_TRUE(v.has_value()) << error << "\nstdout:\n" << run.out << "\nstderr:\n" << run.err;
    return v.value_or(jsonr::Value{});
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
    fs::path dir_;
};

TEST_F(KvcamCli, HelpListsEveryCommand)
{
    KvcamRun run = RunKvcam({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    for (const char* command : {"driver", "formats", "info"}) {
        EXPECT_TRUE(std::regex_search(run.out, std::regex(std::string("\\n  ") + command + " "))) << run.out;
    }
    KvcamRun formatsHelp = RunKvcam({"formats", "--help"});
    EXPECT_EQ(formatsHelp.exitCode, 0);
    EXPECT_NE(formatsHelp.out.find("--registry FILE.reg"), std::string::npos) << formatsHelp.out;
}

TEST_F(KvcamCli, BadCommandLinesExitWithTwo)
{
    EXPECT_EQ(RunKvcam({"formats", "--no-such-option"}).exitCode, 2);
    EXPECT_EQ(RunKvcam({"formats", "--registry"}).exitCode, 2);
    EXPECT_EQ(RunKvcam({"info", "--device", "x.bin"}).exitCode, 2) << "--device needs --camera";
    EXPECT_EQ(RunKvcam({"no-such-command"}).exitCode, 2);
}

TEST_F(KvcamCli, UnreadableCameraFileExitsWithOne)
{
    KvcamRun run = RunKvcam({"formats", "--camera", (dir_ / "missing.cfg_desc.bin").string()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("missing.cfg_desc.bin"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
}

TEST_F(KvcamCli, FormatsJsonOnTheDefaultCameraListsCaptureAndStillRanges)
{
    KvcamRun run = RunKvcam({"formats", "--json"});
    jsonr::Value v = ParseOrFail(run);
    ASSERT_EQ(v.Keys(), (std::vector<std::string>{"start_status", "start_message", "capture", "still"})) << run.out;
    EXPECT_EQ(v.Find("start_status")->text, "0x00000000");
    EXPECT_TRUE(v.Find("start_message")->isNull());
    ExpectRangeObjects(*v.Find("capture"));
    ExpectRangeObjects(*v.Find("still"));
    EXPECT_FALSE(v.Find("capture")->items.empty());
    EXPECT_FALSE(v.Find("still")->items.empty());
    EXPECT_EQ(run.exitCode, 0) << run.err;
}

TEST_F(KvcamCli, FormatsJsonOnEverySharedCamera)
{
    std::vector<std::string> names = SharedCameraNames();
    ASSERT_GE(names.size(), 3u);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        // Both spellings of the camera: the NAME shortcut and the file path.
        for (const std::string& camera : {name, CamerasDir() + "/" + name + ".cfg_desc.bin"}) {
            KvcamRun run = RunKvcam({"formats", "--json", "--camera", camera});
            jsonr::Value v = ParseOrFail(run);
            if (HasStillDescriptor(name)) {
                EXPECT_EQ(run.exitCode, 0) << run.err;
                EXPECT_EQ(v.Find("start_status")->text, "0x00000000");
                ASSERT_NE(v.Find("capture"), nullptr) << run.out;
                ExpectRangeObjects(*v.Find("capture"));
                ExpectRangeObjects(*v.Find("still"));
                EXPECT_FALSE(v.Find("capture")->items.empty());
                EXPECT_FALSE(v.Find("still")->items.empty());
            } else {
                EXPECT_EQ(run.exitCode, 1);
                EXPECT_EQ(v.Keys(), (std::vector<std::string>{"start_status", "start_message"})) << run.out;
                EXPECT_EQ(v.Find("start_status")->text, "0xC000000D");
                EXPECT_EQ(v.Find("start_message")->text,
                          "Kvdrv PnP start : ExtractStillInfo return error (Status 0xC000000D )");
            }
        }
    }
}

TEST_F(KvcamCli, TrustWebcamTableListsItsYuy2CaptureAndStillSizes)
{
    KvcamRun run = RunKvcam({"formats", "--camera", "trust_webcam"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("start: 0x00000000 (started)"), std::string::npos) << run.out;
    EXPECT_TRUE(std::regex_search(run.out, std::regex("YUY2 +640 x 480"))) << run.out;
    EXPECT_TRUE(std::regex_search(run.out, std::regex("still pin 2 data ranges: [1-9]"))) << run.out;
}

TEST_F(KvcamCli, RegistryFileIsCreatedWithTheDataValuesAndReloaded)
{
    const std::string reg = (dir_ / "r.reg").string();
    KvcamRun first = RunKvcam({"formats", "--registry", reg});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    ASSERT_TRUE(fs::exists(reg)) << first.err;
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(reg).ok());
    const std::string data = std::string(kvharness::kServiceKey) + "\\Data";
    EXPECT_EQ(kvsim::RegGetDword(data, "DeviceExist"), 2u);
    EXPECT_EQ(kvsim::RegGetDword(data, "TrackingWindowSize"), 4u);
    EXPECT_EQ(kvsim::RegGetDword(data, "TrackingFocus"), 2u);

    // A value changed between runs (as regedit would) is what the next run
    // starts with, and it survives that run.
    kvsim::RegSetDword(data, "TrackingFocus", 1);
    ASSERT_TRUE(kvsim::RegSaveFile(reg));
    KvcamRun second = RunKvcam({"formats", "--registry", reg});
    EXPECT_EQ(second.exitCode, 0) << second.err;
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(reg).ok());
    EXPECT_EQ(kvsim::RegGetDword(data, "TrackingFocus"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(data, "DeviceExist"), 2u);
}

TEST_F(KvcamCli, InfoDescribesSpeedInterfacesPinsTopologyAndLog)
{
    KvcamRun run = RunKvcam({"info", "--verbose"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    for (const char* expected : {"high speed", "interface 0: video control", "interface 1: video streaming",
                                 "alternate 1: isochronous 0x81", "filter pins:", "PINNAME_VIDEO_CAPTURE",
                                 "PINNAME_VIDEO_STILL", "KSNODETYPE_VIDEO_CAMERA_TERMINAL", "filter pin 1 -> node 0",
                                 "debug log:", "init Driver entry get called"}) {
        EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\n" << run.out;
    }
    KvcamRun quiet = RunKvcam({"info"});
    EXPECT_EQ(quiet.out.find("debug log:"), std::string::npos) << "the log only with --verbose";
}

TEST_F(KvcamCli, InfoOnACameraWithoutStillShowsTheFailedStart)
{
    KvcamRun run = RunKvcam({"info", "--camera", "logitech_c270"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("046D:0825"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("0xC000000D (failed)"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("ExtractStillInfo return error"), std::string::npos) << run.out;
}

}  // namespace
