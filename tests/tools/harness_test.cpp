// The system harness (tools/harness): the machine it assembles for kvcam and
// the driver's tests. Registry files are created when missing, reloaded when
// present and never overwritten when unreadable; camera files are found; the
// driver loads and starts on the built-in camera and on the shared real
// cameras; the start's status and failing line are those the driver printed;
// the capture filter is found by category and read like a client does.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "camera/camera_model.h"
#include "filter_view.h"
#include "kvsim/diag.h"
#include "kvsim/files.h"
#include "kvsim/registry.h"
#include "report.h"
#include "system.h"

namespace {

namespace fs = std::filesystem;

const std::string kService = kvharness::kServiceKey;
const std::string kData = kService + "\\Data";

constexpr const char* kNoStillMessage = "Kvdrv PnP start : ExtractStillInfo return error (Status 0xC000000D )";

class HarnessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        kvsim::RegReset();
        dir_ = fs::temp_directory_path() /
               ("kvharness_" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override
    {
        kvsim::RegReset();
        fs::remove_all(dir_);
    }

    std::string Path(const char* name) const { return (dir_ / name).string(); }

    static std::string CamerasDir() { return kvharness::SharedCamerasDir(KV_SHARED_DIR); }

    static kvsim::camera::DescriptorSet SharedCamera(const std::string& name)
    {
        std::string error;
        auto set = kvharness::LoadCameraFiles(CamerasDir() + "/" + name + ".cfg_desc.bin", "", &error);
        EXPECT_TRUE(set.has_value()) << error;
        return set.value_or(kvsim::camera::DescriptorSet{});
    }

    fs::path dir_;
};

TEST_F(HarnessTest, LoadsTheDriverAndPlugsTheDefaultCameraAtHighSpeed)
{
    kvharness::System system({});
    ASSERT_TRUE(system.Boot());
    ASSERT_NE(system.camera(), nullptr);
    EXPECT_TRUE(system.camera()->HighSpeed());
    EXPECT_EQ(system.camera()->Model().idProduct, 0x8034);
    std::vector<std::string> log = system.DebugMessages();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), "init Driver entry get called\n");
    EXPECT_TRUE(system.Shutdown());
    EXPECT_TRUE(system.Shutdown()) << "a second shutdown is harmless";
}

TEST_F(HarnessTest, InstallsTheServiceKeyAndItsSubkeysWhereMissing)
{
    kvharness::System system({});
    ASSERT_TRUE(system.Boot());
    EXPECT_EQ(kvsim::RegGetDword(kService, "Type"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kService, "Start"), 3u);
    for (const char* subkey : {"\\Data", "\\Property\\Default", "\\Property\\Last", "\\Property\\Customer"}) {
        EXPECT_TRUE(kvsim::RegKeyExists(kService + subkey)) << subkey;
    }
}

TEST_F(HarnessTest, RegistryFileIsCreatedWhenMissingAndReloadedNextTime)
{
    const std::string reg = Path("r.reg");
    {
        kvharness::SystemOptions options;
        options.registryFile = reg;
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        // A setting made during the run, as a property set would.
        kvsim::RegSetDword(kService + "\\Property\\Last", "Brightness", 77);
        ASSERT_TRUE(system.Shutdown());
    }
    ASSERT_TRUE(fs::exists(reg));
    kvsim::RegReset();
    ASSERT_FALSE(kvsim::RegKeyExists(kService));
    {
        kvharness::SystemOptions options;
        options.registryFile = reg;
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        EXPECT_EQ(kvsim::RegGetDword(kService + "\\Property\\Last", "Brightness"), 77u);
        EXPECT_EQ(kvsim::RegGetString(kService, "ImagePath"), "\\SystemRoot\\System32\\drivers\\kvdrv.sys");
    }
}

TEST_F(HarnessTest, ValuesOfTheRegistryFileReachTheDriverAndAreKept)
{
    const std::string reg = Path("in.reg");
    std::ofstream(reg) << "Windows Registry Editor Version 5.00\r\n\r\n"
                          "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\r\n"
                          "\"TrackingWindowSize\"=dword:00000007\r\n";
    kvharness::SystemOptions options;
    options.registryFile = reg;
    {
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        ASSERT_TRUE(system.Shutdown());
    }
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(reg).ok());
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 7u) << "the driver reads it and must not replace it";
}

TEST_F(HarnessTest, UnreadableRegistryFileFailsTheBootAndIsNotOverwritten)
{
    const std::string reg = Path("bad.reg");
    const std::string text = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\X]\r\n\"v\"=dword:zz\r\n";
    std::ofstream(reg) << text;
    kvharness::SystemOptions options;
    options.registryFile = reg;
    kvharness::System system(options);
    EXPECT_FALSE(system.Boot());
    ASSERT_FALSE(system.errors().empty());
    EXPECT_NE(system.errors().front().find("bad.reg"), std::string::npos) << system.errors().front();
    system.Shutdown();
    std::ifstream in(reg, std::ios::binary);
    std::string after((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(after, text);
}

TEST_F(HarnessTest, CameraFilesAreFoundBesideTheConfigurationDescriptor)
{
    std::string error;
    auto set = kvharness::LoadCameraFiles(CamerasDir() + "/trust_webcam.cfg_desc.bin", "", &error);
    ASSERT_TRUE(set.has_value()) << error;
    EXPECT_EQ(set->device.size(), 18u);
    EXPECT_GT(set->configuration.size(), 9u);

    EXPECT_FALSE(kvharness::LoadCameraFiles(Path("none.cfg_desc.bin"), "", &error));
    EXPECT_NE(error.find("none.cfg_desc.bin"), std::string::npos) << error;
    EXPECT_FALSE(kvharness::LoadCameraFiles(Path("odd.bin"), "", &error)) << "no suffix to derive --device from";
}

TEST_F(HarnessTest, SystemRootIsMappedWhileTheSystemRuns)
{
    std::ofstream(Path("1_640_480.bmp")) << "BM";
    kvharness::SystemOptions options;
    options.systemRoot = dir_.string();
    {
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        EXPECT_EQ(kvsim::HostPathOf("\\SystemRoot\\1_640_480.BMP"), Path("1_640_480.bmp"));
    }
    EXPECT_EQ(kvsim::HostPathOf("\\SystemRoot\\1_640_480.bmp"), std::nullopt) << "unmapped at shutdown";
}

TEST_F(HarnessTest, UnusableCameraDescriptorsFailTheBoot)
{
    kvharness::SystemOptions options;
    options.camera = kvsim::camera::DescriptorSet{{1, 2, 3}, {4, 5}};
    kvharness::System system(options);
    EXPECT_FALSE(system.Boot());
    EXPECT_FALSE(system.errors().empty());
}

// ---- End to end: these need the driver's PnP start ----

TEST_F(HarnessTest, DefaultCameraStartsAndTheFilterIsFoundByVideoAndCaptureCategory)
{
    kvharness::System system({});
    ASSERT_TRUE(system.Boot());
    ASSERT_EQ(system.startStatus(), STATUS_SUCCESS) << system.startMessage().value_or("(no message)");
    EXPECT_EQ(system.startMessage(), std::nullopt);
    ASSERT_EQ(system.OpenFilter(), STATUS_SUCCESS);
    ASSERT_NE(system.filter(), nullptr);

    std::vector<kvharness::PinView> pins;
    ASSERT_EQ(kvharness::ReadPins(*system.filter(), &pins), STATUS_SUCCESS);
    ASSERT_EQ(pins.size(), 3u);
    EXPECT_EQ(kvharness::GuidName(pins[0].category), "PINNAME_VIDEO_CAPTURE");
    EXPECT_EQ(kvharness::GuidName(pins[2].category), "PINNAME_VIDEO_STILL");
}

TEST_F(HarnessTest, DefaultCamerasRangesMatchItsFramesAndStillSizes)
{
    kvharness::System system({});
    ASSERT_TRUE(system.Boot());
    kvcam::FormatsReport report = kvcam::CollectFormats(system);
    ASSERT_TRUE(report.started) << kvharness::FormatStatus(report.startStatus);
    ASSERT_EQ(report.error, "");
    ASSERT_FALSE(report.capture.empty());
    ASSERT_FALSE(report.still.empty());
    const kvsim::camera::CameraModel& model = system.camera()->Model();
    auto hasFrame = [&](LONG w, LONG h) {
        for (const auto& vs : model.streaming)
            for (const auto& f : vs.formats)
                for (const auto& fr : f.frames)
                    if (fr.width == w && fr.height == std::abs(h)) return true;
        return false;
    };
    auto hasStill = [&](LONG w, LONG h) {
        for (const auto& vs : model.streaming)
            for (const auto& f : vs.formats)
                for (const auto& s : f.stills)
                    if (s.width == w && s.height == std::abs(h)) return true;
        return false;
    };
    for (const KS_DATARANGE_VIDEO& r : report.capture) {
        const auto& bmi = r.VideoInfoHeader.bmiHeader;
        EXPECT_TRUE(hasFrame(bmi.biWidth, bmi.biHeight)) << bmi.biWidth << "x" << bmi.biHeight;
    }
    for (const KS_DATARANGE_VIDEO& r : report.still) {
        const auto& bmi = r.VideoInfoHeader.bmiHeader;
        EXPECT_TRUE(hasStill(bmi.biWidth, bmi.biHeight)) << bmi.biWidth << "x" << bmi.biHeight;
    }
}

TEST_F(HarnessTest, RegistryFileHoldsTheDataValuesOfStartAndStop)
{
    const std::string reg = Path("r.reg");
    {
        kvharness::SystemOptions options;
        options.registryFile = reg;
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        ASSERT_TRUE(system.started()) << kvharness::FormatStatus(system.startStatus());
        ASSERT_TRUE(system.Shutdown());
    }
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(reg).ok());
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 2u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 4u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 2u);
}

TEST_F(HarnessTest, SharedCamerasStartOnlyWithAStillImageDescriptor)
{
    int cameras = 0;
    for (const fs::directory_entry& e : fs::directory_iterator(CamerasDir())) {
        std::string file = e.path().filename().string();
        const std::string suffix = ".cfg_desc.bin";
        if (!file.ends_with(suffix)) continue;
        std::string name = file.substr(0, file.size() - suffix.size());
        SCOPED_TRACE(name);
        ++cameras;
        kvsim::camera::DescriptorSet set = SharedCamera(name);
        kvsim::camera::ParseResult parsed = kvsim::camera::ParseCameraModel(set.device, set.configuration);
        bool hasStill = false;
        for (const auto& vs : parsed.model.streaming)
            for (const auto& f : vs.formats) hasStill = hasStill || !f.stills.empty();

        kvharness::SystemOptions options;
        options.camera = set;
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        if (hasStill) {
            EXPECT_EQ(system.startStatus(), STATUS_SUCCESS) << system.startMessage().value_or("");
            EXPECT_EQ(system.startMessage(), std::nullopt);
        } else {
            EXPECT_EQ(system.startStatus(), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(system.startMessage(), kNoStillMessage);
        }
        system.Shutdown();
    }
    EXPECT_GE(cameras, 3);
}

}  // namespace
