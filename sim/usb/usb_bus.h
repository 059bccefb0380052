// The simulated USB bus: the host side that plugs a
// virtual camera (sim/camera) into a port and gives the driver under test the
// physical device object (PDO) that the USB hub would enumerate for it. The
// PDO answers IRP_MJ_INTERNAL_DEVICE_CONTROL / IOCTL_INTERNAL_USB_SUBMIT_URB
// as the Windows USB stack does (descriptors, select configuration and
// interface, class/vendor requests, isochronous and interrupt transfers,
// reset and abort pipe), IRP_MJ_PNP (start, capabilities, the USBDI bus
// interface) and IRP_MJ_POWER (D0/D3). Isochronous packets are produced one
// per (micro)frame slot on the simulated clock: 125 us at high speed, 1 ms at
// full speed. Behaviour and the status codes chosen are described, with the
// pages they follow, in usb_bus.cpp.
//
// Not visible to the driver (host API, namespace kvsim::usb).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera/uvc_camera.h"
#include "kv/io.h"

namespace kvsim::usb {

enum class Speed { kFull, kHigh };

// Plugs `camera` into a new port at `speed` and returns its PDO (owned by the
// simulated bus driver "\Driver\usbhub"). The device starts unconfigured in
// D0.
PDEVICE_OBJECT PlugCamera(std::shared_ptr<camera::UvcCamera> camera, Speed speed);

// The device is pulled out while in use: the camera stops answering, every
// pending transfer completes with STATUS_NO_SUCH_DEVICE (URB status
// USBD_STATUS_DEVICE_GONE), later URBs fail at once with
// STATUS_DEVICE_NOT_CONNECTED. The PDO stays until Unplug (the PnP manager
// deletes it after IRP_MN_REMOVE_DEVICE).
void SurpriseRemove(PDEVICE_OBJECT pdo);

// Removes the device for good: what is still pending completes as for a
// surprise removal, scheduled work is cancelled and the PDO is deleted.
// Whatever is attached above the PDO must have detached first.
void Unplug(PDEVICE_OBJECT pdo);

// The state of a plugged device, for tests.
struct DeviceState {
    bool present = false;           // not surprise-removed
    bool configured = false;
    DEVICE_POWER_STATE power = PowerDeviceD0;
    size_t pendingTransfers = 0;    // URBs pending (control, isochronous, interrupt)
    size_t openPipes = 0;
    long busInterfaceReferences = 0;
    uint64_t isoPacketsDelivered = 0;  // packet slots the camera was asked for
};
DeviceState GetDeviceState(PDEVICE_OBJECT pdo);
std::shared_ptr<camera::UvcCamera> CameraOf(PDEVICE_OBJECT pdo);

// The latency of a control transfer on the default pipe (its completion
// comes this long after submission, at DISPATCH_LEVEL).
inline constexpr LONGLONG kControlTransferLatency = 250 * 10;  // 250 us in 100 ns units

// End-of-test check: one line per device still plugged; those devices are
// unplugged.
std::vector<std::string> UsbEndOfTestCheck();

}  // namespace kvsim::usb
