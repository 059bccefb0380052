// Rig for the settings and control requests: a virtual camera on the simulated
// USB bus, a lower filter that records every class request and passes every
// IRP on, and a CCaptureDevice above it started as far as the settings need.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "camera/descriptor_builder.h"
#include "camera/uvc_camera.h"
#include "device/device.h"
#include "driver_test_support.h"
#include "kvsim/io.h"
#include "kvsim/registry.h"
#include "kvsim/sched.h"
#include "pooltag.h"
#include "usb/usb_bus.h"
#include "uvc.h"

namespace controls_rig {

using namespace drvtest;
using kvsim::camera::CameraSpec;
using kvsim::camera::UvcCamera;

inline const std::string kDefault = kService + "\\Property\\Default";
inline const std::string kLast = kService + "\\Property\\Last";
inline const std::string kCustomer = kService + "\\Property\\Customer";

// One class-interface request seen on its way down.
struct SeenRequest {
    UCHAR request = 0;
    USHORT value = 0, index = 0;
    ULONG length = 0, flags = 0;
    std::vector<UCHAR> out;  // the data of an OUT (SET_CUR) request
    KIRQL irql = 0;
};

// The filter's record (its dispatch routine is a plain function).
inline std::vector<SeenRequest>& Seen()
{
    static std::vector<SeenRequest> seen;
    return seen;
}

struct FilterExtension {
    PDEVICE_OBJECT lower;
};

inline NTSTATUS FilterPassThrough(PDEVICE_OBJECT device, PIRP irp)
{
    auto* ext = static_cast<FilterExtension*>(device->DeviceExtension);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL &&
        stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_USB_SUBMIT_URB) {
        auto* urb = static_cast<PURB>(stack->Parameters.Others.Argument1);
        if (urb->UrbHeader.Function == URB_FUNCTION_CLASS_INTERFACE) {
            const auto& r = urb->UrbControlVendorClassRequest;
            std::vector<UCHAR> out;
            if ((r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) == 0 && r.TransferBuffer != nullptr) {
                auto* p = static_cast<const UCHAR*>(r.TransferBuffer);
                out.assign(p, p + r.TransferBufferLength);
            }
            Seen().push_back(SeenRequest{r.Request, r.Value, r.Index, r.TransferBufferLength, r.TransferFlags, out,
                                         KeGetCurrentIrql()});
        }
    }
    if (stack->MajorFunction == IRP_MJ_POWER) PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(ext->lower, irp);
}

inline NTSTATUS FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& slot : driver->MajorFunction) slot = FilterPassThrough;
    return STATUS_SUCCESS;
}

class Rig {
public:
    explicit Rig(const CameraSpec& spec = kvsim::camera::DefaultCameraSpec())
    {
        kvsim::RegReset();
        for (const auto& key : {kData, kDefault, kLast, kCustomer}) kvsim::RegCreateKey(key);
        Seen().clear();

        camera_ = std::shared_ptr<UvcCamera>(UvcCamera::Create(kvsim::camera::BuildDescriptors(spec)));
        pdo_ = kvsim::usb::PlugCamera(camera_, kvsim::usb::Speed::kHigh);
        driver_ = kvsim::LoadDriver(u"kvtestfilter", u"\\Registry\\Machine\\System\\kvtestfilter", FilterEntry);
        IoCreateDevice(driver_, sizeof(FilterExtension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &filter_);
        static_cast<FilterExtension*>(filter_->DeviceExtension)->lower = IoAttachDeviceToDeviceStack(filter_, pdo_);
        filter_->Flags &= ~DO_DEVICE_INITIALIZING;

        ksDevice_.FunctionalDeviceObject = filter_;
        ksDevice_.PhysicalDeviceObject = pdo_;
        ksDevice_.NextDeviceObject = filter_;
        device_ = std::make_unique<CCaptureDevice>(&ksDevice_);
        // The format tables' walk would take these from the descriptors.
        device_->m_Formats.ProcessingUnitControls = spec.processingUnitControls;
        device_->m_Formats.CameraTerminalControls = spec.cameraTerminalControls;
    }

    ~Rig()
    {
        // Deferred requests still queued must finish before the device goes.
        kvsim::RunUntil([] { return kvsim::GetSchedCounters().workItemsPending == 0; }, 10 * kvsim::kSecond);
        // Released twice (here and by the destructor), which must be harmless.
        device_->ReleaseAllocations();
        device_.reset();
        IoDetachDevice(pdo_);
        IoDeleteDevice(filter_);
        kvsim::UnloadDriver(driver_);
        kvsim::usb::Unplug(pdo_);
    }

    // The camera configured, then the settings' share of the device start.
    void Start()
    {
        ASSERT_EQ(device_->m_Usb.ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
        ASSERT_EQ(device_->InitDeviceSettings(), STATUS_SUCCESS);
        Seen().clear();
    }

    CCaptureDevice& Dev() { return *device_; }
    DeviceSettings& Settings() { return device_->m_Settings; }

    ControlRequests& Req() { return device_->m_Requests; }
    UvcCamera& Camera() { return *camera_; }
    LONG Slot(ULONG n) const { return device_->m_Settings.m_Property->Slot[n]; }
    void SetSlot(ULONG n, LONG v) { device_->m_Settings.m_Property->Slot[n] = v; }
    // The camera's value of a control (entity 1 camera terminal, 3 processing unit).
    int64_t CameraValue(uint8_t entity, uint8_t selector) const
    {
        return camera_->ControlValue(entity, selector).value_or(INT64_MIN);
    }
    size_t RequestCount() const { return Seen().size(); }

private:
    std::shared_ptr<UvcCamera> camera_;
    PDEVICE_OBJECT pdo_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT filter_ = nullptr;
    KSDEVICE ksDevice_{};
    std::unique_ptr<CCaptureDevice> device_;
};

inline CameraSpec SpecWithProduct(USHORT productId)
{
    CameraSpec spec = kvsim::camera::DefaultCameraSpec();
    spec.idProduct = productId;
    return spec;
}

}  // namespace controls_rig
