// The system harness (tools/harness): the machine it assembles for kvcam and
// the driver's tests. Registry files are created when missing, reloaded when
// present and never overwritten when unreadable; camera files are found, and
// a configuration descriptor alone gets a plain device descriptor; the
// driver loads and starts on the built-in camera; unusable descriptors fail
// the boot; the capture filter is found by category and read like a client
// does; \SystemRoot is mapped while the system runs. (The shared real
// cameras' starts: kvcam_cli_test.)
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "camera/camera_model.h"
#include "kvsim/files.h"
#include "kvsim/registry.h"
#include "report.h"
#include "system.h"

namespace {

namespace fs = std::filesystem;

const std::string kService = kvharness::kServiceKey;
const std::string kData = kService + "\\Data";

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

    fs::path dir_;
};

TEST_F(HarnessTest, BootInstallsTheDriversKeysMapsSystemRootAndStartsTheDefaultCameraAtHighSpeed)
{
    std::ofstream(Path("Some.Txt")) << "x";
    kvharness::SystemOptions options;
    options.systemRoot = dir_.string();
    kvharness::System system(options);
    ASSERT_TRUE(system.Boot());
    EXPECT_EQ(kvsim::HostPathOf("\\SystemRoot\\SOME.txt"), Path("Some.Txt")) << "mapped while the system runs";
    ASSERT_NE(system.camera(), nullptr);
    EXPECT_TRUE(system.camera()->HighSpeed());
    EXPECT_EQ(system.camera()->Model().idProduct, 0x8034);
    std::vector<std::string> log = system.DebugMessages();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), "init Driver entry get called\n");
    // The service key of a demand-start kernel driver, and the subkeys the
    // driver opens but never creates.
    EXPECT_EQ(kvsim::RegGetDword(kService, "Type"), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kService, "Start"), 3u);
    for (const char* subkey : {"\\Data", "\\Property\\Default", "\\Property\\Last", "\\Property\\Customer"}) {
        EXPECT_TRUE(kvsim::RegKeyExists(kService + subkey)) << subkey;
    }
    ASSERT_EQ(system.startStatus(), STATUS_SUCCESS) << system.startMessage().value_or("(no message)");
    EXPECT_EQ(system.startMessage(), std::nullopt);
    // The filter, opened as an application opens it, shows the camera's
    // frame and still sizes on the capture and still pins. (The pins' names:
    // kvcam_cli_test's info; their order: the driver's filter_test.)
    kvcam::FormatsReport report = kvcam::CollectFormats(system);
    ASSERT_TRUE(report.started) << kvharness::FormatStatus(report.startStatus);
    ASSERT_EQ(report.error, "");
    ASSERT_FALSE(report.capture.empty());
    ASSERT_FALSE(report.still.empty());
    std::set<std::pair<LONG, LONG>> frames, stills;  // width, height
    for (const auto& vs : system.camera()->Model().streaming) {
        for (const auto& f : vs.formats) {
            for (const auto& fr : f.frames) frames.emplace(fr.width, fr.height);
            for (const auto& s : f.stills) stills.emplace(s.width, s.height);
        }
    }
    for (bool still : {false, true}) {
        for (const KS_DATARANGE_VIDEO& r : still ? report.still : report.capture) {
            const auto& bmi = r.VideoInfoHeader.bmiHeader;
            EXPECT_TRUE((still ? stills : frames).contains({bmi.biWidth, std::abs(bmi.biHeight)}))
                << bmi.biWidth << "x" << bmi.biHeight;
        }
    }
    EXPECT_TRUE(system.Shutdown());
    EXPECT_EQ(kvsim::HostPathOf("\\SystemRoot\\Some.Txt"), std::nullopt) << "unmapped at shutdown";
    EXPECT_TRUE(system.Shutdown()) << "a second shutdown is harmless";
}

TEST_F(HarnessTest, RegistryFileIsCreatedWithTheDriversValuesAndReloadedNextTime)
{
    kvharness::SystemOptions options;
    options.registryFile = Path("r.reg");
    {
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        ASSERT_TRUE(system.started()) << kvharness::FormatStatus(system.startStatus());
        // A setting made during the run, as a property set would.
        kvsim::RegSetDword(kService + "\\Property\\Last", "Brightness", 77);
        ASSERT_TRUE(system.Shutdown());
    }
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(options.registryFile).ok());
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 2u) << "written by the driver's stop";
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 4u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 2u);
    // A value changed in the file between runs (as regedit would) reaches
    // the driver, which reads it and must not replace it.
    kvsim::RegSetDword(kData, "TrackingWindowSize", 7);
    ASSERT_TRUE(kvsim::RegSaveFile(options.registryFile));
    kvsim::RegReset();
    ASSERT_FALSE(kvsim::RegKeyExists(kService));
    {
        kvharness::System system(options);
        ASSERT_TRUE(system.Boot());
        EXPECT_EQ(kvsim::RegGetDword(kService + "\\Property\\Last", "Brightness"), 77u);
        EXPECT_EQ(kvsim::RegGetString(kService, "ImagePath"), "\\SystemRoot\\System32\\drivers\\kvdrv.sys");
        ASSERT_TRUE(system.Shutdown());
    }
    kvsim::RegReset();
    ASSERT_TRUE(kvsim::RegLoadFile(options.registryFile).ok());
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingWindowSize"), 7u);
}

TEST_F(HarnessTest, UnreadableRegistryFileOrUnusableDescriptorsFailTheBoot)
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
    EXPECT_EQ(after, text) << "not overwritten";

    kvharness::SystemOptions unusable;
    unusable.camera = kvsim::camera::DescriptorSet{{1, 2, 3}, {4, 5}};
    kvharness::System noCamera(unusable);
    EXPECT_FALSE(noCamera.Boot());
    EXPECT_FALSE(noCamera.errors().empty());
}

TEST_F(HarnessTest, CameraFilesAreFoundAndAConfigurationAloneGetsAPlainDeviceDescriptor)
{
    const std::string config = CamerasDir() + "/trust_webcam.cfg_desc.bin";
    const std::string device = CamerasDir() + "/trust_webcam.dev_desc.bin";
    std::string error;
    bool built = true;
    auto set = kvharness::LoadCameraFiles(config, "", &error, &built);
    ASSERT_TRUE(set.has_value()) << error;
    EXPECT_FALSE(built);
    EXPECT_EQ(set->device.size(), 18u);
    EXPECT_GT(set->configuration.size(), 9u);
    EXPECT_FALSE(kvharness::LoadCameraFiles(config, Path("none.bin"), &error)) << "a named device file must be there";
    EXPECT_NE(error.find("none.bin"), std::string::npos) << error;

    // The configuration alone, under any name; a named device file wins.
    fs::copy_file(config, Path("trust.bin"));
    auto alone = kvharness::LoadCameraFiles(Path("trust.bin"), "", &error, &built);
    ASSERT_TRUE(alone.has_value()) << error;
    EXPECT_TRUE(built);
    EXPECT_EQ(alone->configuration, set->configuration);
    EXPECT_EQ(alone->device, (std::vector<uint8_t>{18, 1, 0x00, 0x02, 0xEF, 0x02, 0x01, 64, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    auto given = kvharness::LoadCameraFiles(Path("trust.bin"), device, &error, &built);
    ASSERT_TRUE(given.has_value()) << error;
    EXPECT_FALSE(built);
    EXPECT_EQ(given->device, set->device);

    // Without an interface association the class is left to the interfaces
    // (0/0/0); a descriptor cut short (an association here) ends the walk.
    const std::vector<uint8_t> noIad = {9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 0xFF, 0, 0, 0};
    const std::vector<uint8_t> cut = {9, 2, 18, 0, 1, 1, 0, 0x80, 50, 8, 0x0B, 0, 2, 14, 3};
    for (const std::vector<uint8_t>& configuration : {noIad, cut}) {
        EXPECT_EQ(kvharness::PlainDeviceDescriptor(configuration),
                  (std::vector<uint8_t>{18, 1, 0x00, 0x02, 0, 0, 0, 64, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    }
}

}  // namespace
