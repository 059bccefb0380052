// The system harness (system.h): boot and shutdown of a simulated machine
// with kvdrv.sys and one camera.
#include "system.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include <unistd.h>

#include "camera/uvc_spec.h"
#include "kvsim/diag.h"
#include "kvsim/devinterface.h"
#include "kvsim/files.h"
#include "kvsim/registry.h"
#include "ks/pnp.h"
#include "usb/usb_bus.h"

// The driver's entry (driver/device/device.cpp, linked from kvdrv_host).
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace kvharness {
namespace {

// What an installation of the driver puts in the registry (the INF's
// AddService and AddReg): the service key with its standard values for a
// demand-start kernel driver, and the empty subkeys that hold the driver's
// settings (the driver opens them, it never creates them).
// https://learn.microsoft.com/windows-hardware/drivers/install/inf-addservice-directive
struct InstallDword {
    const char* name;
    uint32_t value;
};
constexpr InstallDword kServiceValues[] = {
    {"Type", 1},          // SERVICE_KERNEL_DRIVER
    {"Start", 3},         // SERVICE_DEMAND_START
    {"ErrorControl", 1},  // SERVICE_ERROR_NORMAL
};
constexpr const char* kServiceImagePath = "\\SystemRoot\\System32\\drivers\\kvdrv.sys";
constexpr const char* kInstalledSubkeys[] = {"\\Data", "\\Property\\Default", "\\Property\\Last",
                                             "\\Property\\Customer"};

// The debug lines that name a failing start step (the driver's PnP start,
// and the capture filter's InitNodeAndTopologyDescriptor, whose step has no
// line of its own); a step's own callee may print other lines first.
constexpr std::string_view kStartStepPrefixes[] = {
    "Kvdrv PnP start",
    "CCaptureDevice::InitNodeAndTopologyDescriptor()",
};

std::optional<std::vector<uint8_t>> ReadBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

System::System(SystemOptions options) : options_(std::move(options)) {}

System::~System() { Shutdown(); }

bool System::Boot()
{
    if (booted_ || shutDown_) {
        errors_.push_back("the system was already booted");
        return false;
    }
    // A mode other than the running one is a violation of the scheduler's
    // rules (it is fixed at first use), reported there.
    if (options_.clock && kvsim::GetClockMode() != *options_.clock) {
        kvsim::SetClockMode(*options_.clock);
    }
    kvsim::SetDebugEcho(options_.echoDebug);
    firstMessage_ = kvsim::DebugMessages().size();
    MapSystemRoot();
    if (!LoadRegistry()) {
        return false;
    }
    InstallServiceKeys();

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    driver_ = kvsim::pnp::LoadDriver(kServiceName, DriverEntry, &status);
    if (driver_ == nullptr) {
        char line[64];
        std::snprintf(line, sizeof(line), "DriverEntry failed (Status 0x%08X)", static_cast<unsigned>(status));
        errors_.push_back(line);
        return false;
    }
    if (!PlugCamera()) {
        return false;
    }
    booted_ = true;
    StartDevice();
    return true;
}

bool System::LoadRegistry()
{
    if (options_.registryFile.empty()) {
        return true;
    }
    // A missing file is a first run: it is created at shutdown.
    if (std::filesystem::exists(options_.registryFile)) {
        kvsim::RegFileResult result = kvsim::RegLoadFile(options_.registryFile);
        if (!result.ok()) {
            for (const std::string& e : result.errors) {
                errors_.push_back(options_.registryFile + ": " + e);
            }
            return false;  // never overwrite a file we could not read
        }
    }
    registryLoaded_ = true;
    return true;
}

void System::InstallServiceKeys()
{
    const std::string service = kServiceKey;
    if (!kvsim::RegKeyExists(service)) {
        for (const InstallDword& v : kServiceValues) {
            kvsim::RegSetDword(service, v.name, v.value);
        }
        kvsim::RegSetString(service, "ImagePath", kServiceImagePath, REG_EXPAND_SZ);
    }
    for (const char* subkey : kInstalledSubkeys) {
        kvsim::RegCreateKey(service + subkey);
    }
}

bool System::PlugCamera()
{
    std::unique_ptr<kvsim::camera::UvcCamera> camera =
        options_.camera ? kvsim::camera::UvcCamera::Create(*options_.camera) : kvsim::camera::UvcCamera::CreateDefault();
    if (!camera) {
        errors_.push_back("the camera's descriptors are unusable (no device or configuration header)");
        return false;
    }
    camera_ = std::move(camera);
    pdo_ = kvsim::usb::PlugCamera(camera_, camera_->HighSpeed() ? kvsim::usb::Speed::kHigh : kvsim::usb::Speed::kFull);
    return pdo_ != nullptr;
}

void System::StartDevice()
{
    size_t before = kvsim::DebugMessages().size();
    startStatus_ = kvsim::pnp::AddDevice(driver_, pdo_);
    added_ = kvsim::pnp::HasFunctionDevice(pdo_);
    if (NT_SUCCESS(startStatus_)) {
        startStatus_ = kvsim::pnp::StartDevice(pdo_);
    }
    if (!NT_SUCCESS(startStatus_)) {
        startMessage_ = FindStartMessage(before);
    }
}

std::optional<std::string> System::FindStartMessage(size_t firstMessage) const
{
    std::vector<std::string> messages = kvsim::DebugMessages();
    for (size_t i = firstMessage; i < messages.size(); ++i) {
        for (std::string_view prefix : kStartStepPrefixes) {
            if (std::string_view(messages[i]).starts_with(prefix)) {
                return messages[i];
            }
        }
    }
    return std::nullopt;
}

NTSTATUS System::OpenFilter()
{
    if (!started()) {
        return STATUS_DEVICE_NOT_READY;
    }
    if (filter_) {
        return STATUS_SUCCESS;
    }
    std::vector<kvsim::DeviceInterface> capture = kvsim::EnabledDeviceInterfaces(KSCATEGORY_CAPTURE);
    for (const kvsim::client::FilterInterface& video : kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO)) {
        if (video.pdo != pdo_) {
            continue;
        }
        for (const kvsim::DeviceInterface& c : capture) {
            if (c.pdo == pdo_ && c.referenceString == video.referenceString) {
                return kvsim::client::Filter::Open(video, &filter_);
            }
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

void System::CloseFilter()
{
    if (filter_) {
        filter_->Close();
        filter_.reset();
    }
}

std::vector<std::string> System::DebugMessages() const
{
    std::vector<std::string> all = kvsim::DebugMessages();
    if (firstMessage_ >= all.size()) {
        return {};
    }
    return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(firstMessage_), all.end());
}

// "\SystemRoot" with the driver's pictures: linked from the build's pictures
// folder (copying 17 full-size bitmaps for every boot would be waste); a
// file already there (a user's own "3_640_480.bmp", say) is kept.
void System::MapSystemRoot()
{
    std::string root = options_.systemRoot;
    std::error_code ec;
    if (root.empty()) {
        static int serial = 0;
        root = (std::filesystem::temp_directory_path() /
                ("kvsim-systemroot-" + std::to_string(::getpid()) + "-" + std::to_string(++serial)))
                   .string();
        std::filesystem::create_directories(root, ec);
        temporaryRoot_ = root;
    }
    kvsim::MapRoot("\\SystemRoot", root);
#ifdef KV_PICTURES_DIR
    for (const auto& entry : std::filesystem::directory_iterator(KV_PICTURES_DIR, ec)) {
        const std::filesystem::path target = std::filesystem::path(root) / entry.path().filename();
        if (!std::filesystem::exists(target, ec)) std::filesystem::create_symlink(entry.path(), target, ec);
    }
#endif
}

bool System::Shutdown()
{
    if (shutDown_) {
        return true;
    }
    shutDown_ = true;
    CloseFilter();
    if (added_ && kvsim::pnp::HasFunctionDevice(pdo_)) {
        kvsim::pnp::RemoveDevice(pdo_);
    }
    if (pdo_ != nullptr) {
        kvsim::usb::Unplug(pdo_);
        pdo_ = nullptr;
    }
    if (driver_ != nullptr) {
        kvsim::pnp::UnloadDriver(driver_);
        driver_ = nullptr;
    }
    camera_.reset();
    bool saved = true;
    if (registryLoaded_ && !options_.registryFile.empty()) {
        saved = kvsim::RegSaveFile(options_.registryFile);
        if (!saved) {
            errors_.push_back(options_.registryFile + ": cannot be written");
        }
    }
    kvsim::UnmapAllRoots();
    if (!temporaryRoot_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(temporaryRoot_, ec);
        temporaryRoot_.clear();
    }
    kvsim::SetDebugEcho(false);
    return saved;
}

std::optional<kvsim::camera::DescriptorSet> LoadCameraFiles(const std::string& configPath, std::string devicePath,
                                                            std::string* error, bool* deviceBuilt)
{
    constexpr std::string_view kConfigSuffix = ".cfg_desc.bin";
    if (deviceBuilt != nullptr) {
        *deviceBuilt = false;
    }
    bool buildDevice = false;
    if (devicePath.empty()) {
        if (std::string_view(configPath).ends_with(kConfigSuffix)) {
            devicePath = configPath.substr(0, configPath.size() - kConfigSuffix.size()) + ".dev_desc.bin";
        }
        buildDevice = devicePath.empty() || !std::filesystem::exists(devicePath);
    }
    kvsim::camera::DescriptorSet set;
    std::optional<std::vector<uint8_t>> configuration = ReadBytes(configPath);
    if (!configuration) {
        *error = configPath + ": cannot be read";
        return std::nullopt;
    }
    set.configuration = std::move(*configuration);
    if (buildDevice) {
        set.device = PlainDeviceDescriptor(set.configuration);
        if (deviceBuilt != nullptr) {
            *deviceBuilt = true;
        }
        return set;
    }
    std::optional<std::vector<uint8_t>> device = ReadBytes(devicePath);
    if (!device) {
        *error = devicePath + ": cannot be read";
        return std::nullopt;
    }
    set.device = std::move(*device);
    return set;
}

std::vector<uint8_t> PlainDeviceDescriptor(const std::vector<uint8_t>& configuration)
{
    // Walk the configuration's descriptors (bLength, bDescriptorType, ...)
    // as far as they are whole, looking for an interface association.
    bool hasIad = false;
    for (size_t at = 0; at + 2 <= configuration.size() && !hasIad; at += configuration[at]) {
        if (configuration[at] < 2 || at + configuration[at] > configuration.size()) {
            break;
        }
        hasIad = configuration[at + 1] == kvsim::camera::uvc::kDescInterfaceAssociation;
    }
    const uint8_t deviceClass = hasIad ? 0xEF : 0x00;     // miscellaneous
    const uint8_t deviceSubClass = hasIad ? 0x02 : 0x00;  // common class
    const uint8_t deviceProtocol = hasIad ? 0x01 : 0x00;  // interface association
    return {
        18, kvsim::camera::uvc::kDescDevice,
        0x00, 0x02,  // bcdUSB 2.00
        deviceClass, deviceSubClass, deviceProtocol,
        64,          // bMaxPacketSize0
        0, 0,        // idVendor
        0, 0,        // idProduct
        0, 0,        // bcdDevice
        0, 0, 0,     // iManufacturer, iProduct, iSerialNumber
        1,           // bNumConfigurations
    };
}

std::string SharedCamerasDir(const std::string& fallbackSharedDir)
{
    const char* env = std::getenv("KV_SHARED_DIR");
    std::string shared = (env != nullptr && *env != '\0') ? env : fallbackSharedDir;
    return shared + "/cameras";
}

CCaptureDevice* System::device() const
{
    if (pdo_ == nullptr || pdo_->AttachedDevice == nullptr) return nullptr;
    PKSDEVICE ksDevice = KsGetDeviceForDeviceObject(pdo_->AttachedDevice);
    return ksDevice != nullptr ? static_cast<CCaptureDevice*>(ksDevice->Context) : nullptr;
}

}  // namespace kvharness
