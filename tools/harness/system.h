// The system harness: assembles a simulated Windows machine with kvdrv.sys
// and one camera the way Windows would bring it up, for kvcam and for the
// driver's and tools' tests.
//
//   kvharness::SystemOptions options;          // default camera, no files
//   options.registryFile = "settings.reg";     // loaded before, saved after
//   kvharness::System system(options);
//   if (system.Boot() && system.started()) { system.OpenFilter(); ... }
//   system.Shutdown();                         // also done by the destructor
//
// Boot, in Windows' order: the clock mode; "\SystemRoot" mapped to a host
// folder; the .reg file loaded into the simulated registry (as the hive a
// machine boots with) and the keys an installation of the driver creates
// added where missing; the driver loaded ("\Driver\USBKV", its DriverEntry);
// the camera plugged into a port of the USB bus; AddDevice and
// IRP_MN_START_DEVICE through the PnP manager. The start's NTSTATUS and the
// first failing step's debug line (exactly as printed) are recorded.
//
// "\SystemRoot" stays mapped until Shutdown, which unmaps every root.
//
// Shutdown, in Windows' order: the client's handles closed; the device
// removed (IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE: ks.sys calls the
// driver's Stop before its Remove for a started device, which is where the
// driver writes "DeviceExist" = 2); the camera unplugged; the driver unloaded;
// the registry saved back to the .reg file.
// https://learn.microsoft.com/windows-hardware/drivers/kernel/removing-a-device-in-a-function-driver
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-_ksdevice_dispatch
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "camera/descriptor_builder.h"
#include "camera/uvc_camera.h"
#include "client/ks_client.h"
#include "kvsim/sched.h"
#include "wdm.h"

class CCaptureDevice;

namespace kvharness {

// The driver's service name: the driver's registry root (its settings under
// \Data and \Property) is fixed to "...\Services\USBKV", so the service is
// installed as USBKV.
inline constexpr char16_t kServiceName[] = u"USBKV";
inline constexpr char kServiceKey[] = "\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\USBKV";

struct SystemOptions {
    // The scheduler's mode; nullopt: as chosen already (KVSIM_MODE, or
    // Virtual). It can only be chosen before the simulation is first used.
    std::optional<kvsim::ClockMode> clock;
    // Host folder for "\SystemRoot"; empty: a temporary folder, removed at
    // Shutdown. Either way the driver's pictures (photo frames, countdown)
    // are installed into it where missing, as the driver's package installs
    // them beside Windows.
    std::string systemRoot;
    std::string registryFile;  // .reg file loaded before and saved after; empty: none
    // The camera's descriptors; nullopt: the built-in default camera.
    std::optional<kvsim::camera::DescriptorSet> camera;
    bool echoDebug = false;    // every DbgPrint to stderr as it is printed
};

class System {
public:
    explicit System(SystemOptions options);
    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // Brings the machine up to the device's start. False when the machine
    // could not be assembled (unreadable registry file, unusable camera
    // descriptors, DriverEntry failure): errors() says why. A failed device
    // start is not a Boot failure: see started() and startStatus().
    bool Boot();
    const std::vector<std::string>& errors() const { return errors_; }

    bool started() const { return booted_ && NT_SUCCESS(startStatus_); }
    // The status of IRP_MN_START_DEVICE (or of AddDevice when that failed).
    NTSTATUS startStatus() const { return startStatus_; }
    // The first failing start step's debug line, exactly as printed; nullopt
    // after a successful start or when the driver printed nothing.
    const std::optional<std::string>& startMessage() const { return startMessage_; }

    PDEVICE_OBJECT pdo() const { return pdo_; }
    // The driver's per-device object while the device is added (null
    // otherwise), for tools that show what the driver counts.
    CCaptureDevice* device() const;
    std::shared_ptr<kvsim::camera::UvcCamera> camera() const { return camera_; }

    // Opens the capture filter as a video application finds it: an enabled
    // interface of KSCATEGORY_VIDEO whose filter is also in
    // KSCATEGORY_CAPTURE, on this system's device.
    NTSTATUS OpenFilter();
    kvsim::client::Filter* filter() const { return filter_.get(); }
    void CloseFilter();

    // The driver's debug output since Boot began, one DbgPrint each.
    std::vector<std::string> DebugMessages() const;

    // Everything Windows does on the way out (see the file comment). Safe to
    // call twice. False when the registry file could not be written.
    bool Shutdown();

private:
    bool LoadRegistry();
    void MapSystemRoot();
    void InstallServiceKeys();
    bool PlugCamera();
    void StartDevice();
    std::optional<std::string> FindStartMessage(size_t firstMessage) const;

    SystemOptions options_;
    std::vector<std::string> errors_;
    size_t firstMessage_ = 0;
    bool booted_ = false;
    bool registryLoaded_ = false;  // the hive may be saved back
    std::string temporaryRoot_;    // the "\SystemRoot" folder made for this run
    bool added_ = false;
    bool shutDown_ = false;
    NTSTATUS startStatus_ = STATUS_UNSUCCESSFUL;
    std::optional<std::string> startMessage_;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
    std::shared_ptr<kvsim::camera::UvcCamera> camera_;
    std::unique_ptr<kvsim::client::Filter> filter_;
};

// Reads a camera's descriptor files. `devicePath` empty: the file beside
// `configPath` with ".cfg_desc.bin" replaced by ".dev_desc.bin"; when there
// is no such file (many published dumps hold the configuration descriptor
// alone) the device descriptor is PlainDeviceDescriptor's and *deviceBuilt,
// when given, is set. nullopt with *error set when a file cannot be read.
std::optional<kvsim::camera::DescriptorSet> LoadCameraFiles(const std::string& configPath, std::string devicePath,
                                                            std::string* error, bool* deviceBuilt = nullptr);

// The device descriptor of a plain high-speed USB 2.0 device with the given
// configuration (USB 2.0 section 9.6.1): bcdUSB 0x0200, bMaxPacketSize0 64,
// vendor, product and bcdDevice 0, no strings, one configuration. The device
// class is the one a composite device with an interface association
// announces (0xEF/0x02/0x01, the IAD ECN) when the configuration holds an
// interface association descriptor, else 0/0/0 (class per interface).
std::vector<uint8_t> PlainDeviceDescriptor(const std::vector<uint8_t>& configuration);

// The folder of the shared real cameras: $KV_SHARED_DIR/cameras when the
// variable is set, else `fallbackSharedDir`/cameras.
std::string SharedCamerasDir(const std::string& fallbackSharedDir);

}  // namespace kvharness
