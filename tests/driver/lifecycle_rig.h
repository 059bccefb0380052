// The whole device as Windows drives it: the driver loaded through DriverEntry,
// a virtual camera on the simulated USB bus, the device added, started,
// stopped and removed by the simulated PnP manager, and the filter opened.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "camera/descriptor_builder.h"
#include "camera/uvc_camera.h"
#include "client/ks_client.h"
#include "device/device.h"
#include "driver_test_support.h"
#include "ks/pnp.h"
#include "kvsim/pool.h"
#include "kvsim/registry.h"
#include "kvsim/sched.h"
#include "usb/usb_bus.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace lifecycle_rig {

using namespace drvtest;
namespace cam = kvsim::camera;
namespace pnp = kvsim::pnp;
namespace usb = kvsim::usb;

inline std::shared_ptr<cam::UvcCamera> DefaultCamera()
{
    return std::shared_ptr<cam::UvcCamera>(cam::UvcCamera::Create(cam::BuildDescriptors(cam::DefaultCameraSpec())));
}

// The default camera without its interrupt endpoint (no button): the bus
// then polls nothing, so the scheduler's counters see only the driver.
inline std::shared_ptr<cam::UvcCamera> CameraWithoutButton()
{
    cam::CameraSpec spec = cam::DefaultCameraSpec();
    spec.interruptPacketSize = 0;
    return std::shared_ptr<cam::UvcCamera>(cam::UvcCamera::Create(cam::BuildDescriptors(spec)));
}

// One of the real cameras of ../shared/cameras (null when unreadable).
inline std::shared_ptr<cam::UvcCamera> SharedCamera(const std::string& name)
{
    auto set = cam::LoadDescriptorFiles(std::string(KV_SHARED_DIR) + "/cameras", name);
    if (!set) return nullptr;
    return std::shared_ptr<cam::UvcCamera>(cam::UvcCamera::Create(*set));
}

class Rig {
public:
    // idlePower: "SWSetting" with bit 0 set, the other bytes at their default.
    explicit Rig(std::shared_ptr<cam::UvcCamera> camera = DefaultCamera(), bool idlePower = false)
        : camera_(std::move(camera))
    {
        kvsim::RegReset();
        for (const char* sub : {"\\Data", "\\Property\\Default", "\\Property\\Last", "\\Property\\Customer"}) {
            kvsim::RegCreateKey(kService + sub);
        }
        if (idlePower) kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, {0x01, 0xC0, 0x01});
        pdo_ = usb::PlugCamera(camera_, usb::Speed::kHigh);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = pnp::LoadDriver(u"USBKV", DriverEntry, &status);
        EXPECT_EQ(status, STATUS_SUCCESS);
    }

    ~Rig()
    {
        if (added_ && !removed_) Remove();
        if (driver_) pnp::UnloadDriver(driver_);
        usb::Unplug(pdo_);
    }

    NTSTATUS Add()
    {
        NTSTATUS status = pnp::AddDevice(driver_, pdo_);
        added_ = NT_SUCCESS(status);
        return status;
    }
    NTSTATUS Start() { return pnp::StartDevice(pdo_); }
    NTSTATUS AddAndStart()
    {
        NTSTATUS status = Add();
        return NT_SUCCESS(status) ? Start() : status;
    }
    NTSTATUS Stop() { return pnp::StopDevice(pdo_); }
    NTSTATUS Remove()
    {
        removed_ = true;
        return pnp::RemoveDevice(pdo_);
    }
    void MarkRemoved() { removed_ = true; }

    PDEVICE_OBJECT Pdo() const { return pdo_; }
    PKSDEVICE KsDevice() const { return KsGetDeviceForDeviceObject(pdo_->AttachedDevice); }
    CCaptureDevice& Dev() const { return *static_cast<CCaptureDevice*>(KsDevice()->Context); }
    IdlePower& Idle() const { return Dev().m_Idle; }
    DEVICE_POWER_STATE BusPower() const { return usb::GetDeviceState(pdo_).power; }

    // The filter, opened through its first device interface under `category`.
    std::unique_ptr<kvsim::client::Filter> OpenFilter(const GUID& category, NTSTATUS* status = nullptr)
    {
        auto found = kvsim::client::EnumerateFilters(category);
        std::unique_ptr<kvsim::client::Filter> filter;
        NTSTATUS s = STATUS_OBJECT_NAME_NOT_FOUND;
        if (!found.empty()) s = kvsim::client::Filter::Open(found.front(), &filter);
        if (status) *status = s;
        return filter;
    }

private:
    std::shared_ptr<cam::UvcCamera> camera_;
    PDEVICE_OBJECT pdo_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    bool added_ = false;
    bool removed_ = false;
};

}  // namespace lifecycle_rig
