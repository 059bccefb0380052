// The simulated USB bus: one PDO per plugged camera, the URB engine behind
// IOCTL_INTERNAL_USB_SUBMIT_URB, PnP and power on the PDO, the USBDI bus
// interface. See usb_bus.h for the host API.
//
// Behaviour followed (learn.microsoft.com/windows-hardware/drivers/ unless a
// full address is given), decisions marked "we":
//  - URB status -> IRP status (ddi/usbioctl/ni-usbioctl-ioctl_internal_usb_
//    submit_urb: STATUS_SUCCESS when the URB succeeds, otherwise an error
//    such as STATUS_INVALID_PARAMETER or STATUS_INSUFFICIENT_RESOURCES, with
//    the USBD status of ddi/usb/ns-usb-_urb_header in UrbHeader.Status). As
//    Windows's port driver maps it: success, CANCELED -> STATUS_CANCELLED,
//    DEVICE_GONE -> STATUS_DEVICE_NOT_CONNECTED, INSUFFICIENT_RESOURCES,
//    NOT_SUPPORTED, every other error STATUS_UNSUCCESSFUL; we add
//    INVALID_PARAMETER -> STATUS_INVALID_PARAMETER, the error that page names.
//    So a stalled control request is USBD_STATUS_STALL_PID +
//    STATUS_UNSUCCESSFUL, a bad pipe handle USBD_STATUS_INVALID_PIPE_HANDLE.
//  - Windows's hub driver fails every URB on its PDO at once with
//    STATUS_DEVICE_NOT_CONNECTED once the device is gone and with
//    STATUS_DEVICE_POWERED_OFF while it is not in D0 (its port suspended:
//    usbcon/comparing-usb-device-states-to-wdm-device-states); the URB
//    status is left as submitted, as the hub does.
//  - Transfers pending when the device disappears complete with
//    USBD_STATUS_DEVICE_GONE and (we) STATUS_NO_SUCH_DEVICE: the device
//    handle is gone, and a client's isochronous completion routine stops on
//    it instead of resubmitting.
//  - Control transfers (descriptors, class/vendor requests) are queued to
//    the default pipe and complete kControlTransferLatency later at
//    DISPATCH_LEVEL; short IN data is fine (USBPORT sets
//    USBD_SHORT_TRANSFER_OK on control transfers). SELECT_CONFIGURATION,
//    SELECT_INTERFACE, ABORT_PIPE and SYNC_RESET_PIPE_AND_CLEAR_STALL are
//    PASSIVE_LEVEL requests that the stack finishes before returning (ddi/usb
//    pages of each URB function); here they complete synchronously.
//  - USBD_PIPE_INFORMATION (ddi/usb/ns-usb-_usbd_pipe_information): for a
//    high-speed isochronous endpoint MaximumPacketSize includes the
//    additional transactions (0x1400 -> 3 x 1024 = 3072). MaximumTransferSize
//    is an input the current stack ignores: we leave what the client wrote.
//  - _URB_ISOCH_TRANSFER and "How to transfer data to USB isochronous
//    endpoints" (usbcon/transfer-data-to-isochronous-endpoints): one packet
//    per bus interval (microframe at high speed, frame at full speed); at
//    high speed NumberOfPackets is a multiple of 8 and at most 1024, at full
//    speed at most 255 (we reject 0 as well): USBD_STATUS_INVALID_PARAMETER.
//    USBD_START_ISO_TRANSFER_ASAP starts after the transfers queued on the
//    pipe, or at the next slot when none is queued (at high speed the next
//    frame's first microframe: we schedule high-speed transfers in whole
//    frames, which is why their packet count is a multiple of 8). Without it, a
//    StartFrame more than USBD_ISO_START_FRAME_RANGE frames away from the
//    current frame fails with USBD_STATUS_BAD_START_FRAME; slots already past
//    get USBD_STATUS_ISO_NA_LATE_USBPORT. Each packet's Length is what
//    arrived, its Status its own; ErrorCount counts failed packets; the URB
//    status is success unless every packet failed
//    (USBD_STATUS_ISOCH_REQUEST_FAILED, STATUS_UNSUCCESSFUL).
//  - Camera packet outcomes -> packet status (we): transmission error ->
//    USBD_STATUS_CRC (data kept, as EHCI reports it), lost packet ->
//    USBD_STATUS_ISO_NOT_ACCESSED_BY_HW (no data), babble ->
//    USBD_STATUS_BABBLE_DETECTED (data cut to the slot), stall ->
//    USBD_STATUS_STALL_PID and the pipe halts: later transfers on it fail at
//    once with USBD_STATUS_ENDPOINT_HALTED until SYNC_RESET_PIPE_AND_CLEAR_
//    STALL. Slots while the device is not in D0 are not accessed (a
//    suspended port has no SOFs).
//  - Cancel (IoCancelIrp) and ABORT_PIPE complete pending transfers with
//    USBD_STATUS_CANCELED / STATUS_CANCELLED. Every transfer must be aborted
//    or cancelled before a pipe is reset; a reset with transfers pending
//    fails with USBD_STATUS_ERROR_BUSY, "the endpoint has active transfers
//    pending" (ddi/usb/ns-usb-_urb_header, URB_FUNCTION_SYNC_RESET_PIPE*).
//  - An interrupt (or bulk IN) transfer stays pending until the camera has a
//    status packet; the bus polls every endpoint interval (at least 1 ms, we).
//    A packet shorter than the buffer without USBD_SHORT_TRANSFER_OK ends
//    with USBD_STATUS_ERROR_SHORT_TRANSFER (data kept).
#include "usb_bus.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/sched.h"
#include "kvsim/testing.h"
#include "usbbusif.h"
#include "usbdlib.h"

#ifndef STATUS_DEVICE_POWERED_OFF
#define STATUS_DEVICE_POWERED_OFF ((NTSTATUS)0x8000000FL)
#endif

namespace kvsim::usb {
namespace {

using camera::PacketStatus;
using camera::SetupPacket;
using camera::UvcCamera;

enum class Kind { kControl, kIso, kInterrupt };

struct Pipe;

// One URB the bus holds pending.
struct Pending {
    PIRP irp = nullptr;
    PURB urb = nullptr;
    Kind kind = Kind::kControl;
    Pipe* pipe = nullptr;        // null for the default pipe
    uint64_t scheduled = 0;      // ScheduleAt id of its completion or next poll
    uint64_t startSlot = 0;      // isochronous: the slot of packet 0
    uint64_t onTimeSlot = 0;     // isochronous: the first slot not begun at submission
};

struct Pipe {
    uint8_t interfaceNumber = 0, alternate = 0;
    uint8_t address = 0, attributes = 0, interval = 0;
    uint16_t wMaxPacketSize = 0;
    uint32_t maxPacket = 0;      // bytes per slot (with additional transactions)
    USBD_PIPE_TYPE type = UsbdPipeTypeControl;
    bool halted = false;
    uint64_t nextSlot = 0;       // first free slot after the queued isochronous transfers
    std::deque<Pending*> queue;  // isochronous transfers in slot order
};

struct InterfaceRecord { uint8_t number = 0, alternate = 0; };

struct Device {
    std::shared_ptr<UvcCamera> camera;
    Speed speed = Speed::kHigh;
    PDEVICE_OBJECT pdo = nullptr;
    std::mutex lock;
    bool present = true;
    bool configured = false;
    DEVICE_POWER_STATE power = PowerDeviceD0;
    std::unique_ptr<char> configHandle;                         // its address is the handle
    std::vector<std::unique_ptr<InterfaceRecord>> interfaces;   // addresses are handles
    std::vector<std::unique_ptr<Pipe>> pipes;                   // addresses are handles
    std::list<Pending*> pending;
    long busRefs = 0;
    uint64_t isoSlots = 0;

    LONGLONG SlotLength() const { return speed == Speed::kHigh ? 1250 : 10000; }
    Pipe* FindPipe(USBD_PIPE_HANDLE h) {
        for (auto& p : pipes)
            if (p.get() == h) return p.get();
        return nullptr;
    }
};

std::mutex g_lock;
std::map<PDEVICE_OBJECT, std::shared_ptr<Device>>& Devices() {
    static auto* devices = new std::map<PDEVICE_OBJECT, std::shared_ptr<Device>>;
    return *devices;
}

std::shared_ptr<Device> Find(PDEVICE_OBJECT pdo) {
    std::lock_guard<std::mutex> guard(g_lock);
    auto it = Devices().find(pdo);
    return it == Devices().end() ? nullptr : it->second;
}

// ---- status ----------------------------------------------------------------------
NTSTATUS NtStatusOf(USBD_STATUS s) {
    struct Map { USBD_STATUS usbd; NTSTATUS nt; };
    static constexpr Map kTable[] = {
        {USBD_STATUS_SUCCESS, STATUS_SUCCESS},
        {USBD_STATUS_INSUFFICIENT_RESOURCES, STATUS_INSUFFICIENT_RESOURCES},
        {USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED},
        {USBD_STATUS_CANCELED, STATUS_CANCELLED},
        {USBD_STATUS_NOT_SUPPORTED, STATUS_NOT_SUPPORTED},
        {USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
    };
    for (const auto& m : kTable)
        if (m.usbd == s) return m.nt;
    return USBD_SUCCESS(s) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

USBD_STATUS PacketUsbdStatus(PacketStatus s) {
    switch (s) {
    case PacketStatus::kOk: return USBD_STATUS_SUCCESS;
    case PacketStatus::kError: return USBD_STATUS_CRC;
    case PacketStatus::kNotAccessed: return USBD_STATUS_ISO_NOT_ACCESSED_BY_HW;
    case PacketStatus::kBabble: return USBD_STATUS_BABBLE_DETECTED;
    case PacketStatus::kStalled: return USBD_STATUS_STALL_PID;
    case PacketStatus::kDeviceGone: return USBD_STATUS_DEVICE_GONE;
    }
    return USBD_STATUS_INTERNAL_HC_ERROR;
}

// Completes an URB IRP now (the caller holds no lock and owns the IRP).
NTSTATUS CompleteUrb(PIRP irp, PURB urb, USBD_STATUS usbd, std::optional<NTSTATUS> nt = std::nullopt) {
    urb->UrbHeader.Status = usbd;
    NTSTATUS status = nt.value_or(NtStatusOf(usbd));
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

struct Done { Pending* p; USBD_STATUS usbd; std::optional<NTSTATUS> nt; };

void Finish(std::vector<Done>& done) {
    for (auto& d : done) {
        CompleteUrb(d.p->irp, d.p->urb, d.usbd, d.nt);
        delete d.p;
    }
    done.clear();
}

// Takes `p` out of the device's books (lock held). False when a cancel
// routine owns it now (it will complete it).
bool Detach(Device& dev, Pending* p) {
    if (IoSetCancelRoutine(p->irp, nullptr) == nullptr) return false;
    dev.pending.remove(p);
    if (p->pipe) {
        auto& q = p->pipe->queue;
        q.erase(std::remove(q.begin(), q.end(), p), q.end());
        if (q.empty()) p->pipe->nextSlot = 0;
    }
    if (p->scheduled) CancelScheduled(p->scheduled);
    p->scheduled = 0;
    return true;
}

// Every pending URB (or those of one pipe) with the given status (lock held).
void DetachAll(Device& dev, std::vector<Done>& out, USBD_STATUS usbd, std::optional<NTSTATUS> nt,
               Pipe* only = nullptr) {
    std::vector<Pending*> all(dev.pending.begin(), dev.pending.end());
    for (Pending* p : all) {
        if (only && p->pipe != only) continue;
        if (Detach(dev, p)) out.push_back({p, usbd, nt});
    }
}

void GoneLocked(Device& dev, std::vector<Done>& out) {
    dev.present = false;
    DetachAll(dev, out, USBD_STATUS_DEVICE_GONE, STATUS_NO_SUCH_DEVICE);
}

VOID CancelRoutine(PDEVICE_OBJECT pdo, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto dev = Find(pdo);
    if (!dev) return;
    Pending* found = nullptr;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        for (Pending* p : dev->pending)
            if (p->irp == irp) found = p;
        if (!found) return;
        dev->pending.remove(found);
        if (found->pipe) {
            auto& q = found->pipe->queue;
            q.erase(std::remove(q.begin(), q.end(), found), q.end());
            if (q.empty()) found->pipe->nextSlot = 0;
        }
        if (found->scheduled) CancelScheduled(found->scheduled);
    }
    CompleteUrb(found->irp, found->urb, USBD_STATUS_CANCELED);
    delete found;
}

// Registers `p` as pending (lock held) and returns STATUS_PENDING, or
// completes it as cancelled when the IRP was cancelled already.
NTSTATUS MakePending(Device& dev, Pending* p, std::vector<Done>& done) {
    IoMarkIrpPending(p->irp);
    dev.pending.push_back(p);
    if (p->pipe && p->kind == Kind::kIso) p->pipe->queue.push_back(p);
    IoSetCancelRoutine(p->irp, CancelRoutine);
    if (p->irp->Cancel && Detach(dev, p)) done.push_back({p, USBD_STATUS_CANCELED, std::nullopt});
    return STATUS_PENDING;
}

// ---- control transfers ---------------------------------------------------------------
struct ControlRequest {
    SetupPacket setup;
    uint8_t* buffer = nullptr;
    ULONG* length = nullptr;  // TransferBufferLength of the URB
};

std::optional<ControlRequest> ControlOf(PURB urb) {
    ControlRequest r;
    const USHORT f = urb->UrbHeader.Function;
    auto fromVendorClass = [&](uint8_t type, uint8_t recipient) {
        auto& u = urb->UrbControlVendorClassRequest;
        bool in = (u.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        r.setup = {static_cast<uint8_t>((in ? 0x80 : 0) | type << 5 | recipient | u.RequestTypeReservedBits),
                   u.Request, u.Value, u.Index, static_cast<uint16_t>(std::min<ULONG>(u.TransferBufferLength, 0xFFFF))};
        r.buffer = static_cast<uint8_t*>(u.TransferBuffer);
        r.length = &u.TransferBufferLength;
    };
    switch (f) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: {
        auto& u = urb->UrbControlDescriptorRequest;
        uint16_t lang = u.DescriptorType == USB_STRING_DESCRIPTOR_TYPE ? u.LanguageId : 0;
        r.setup = {0x80, USB_REQUEST_GET_DESCRIPTOR, static_cast<uint16_t>(u.DescriptorType << 8 | u.Index), lang,
                   static_cast<uint16_t>(std::min<ULONG>(u.TransferBufferLength, 0xFFFF))};
        r.buffer = static_cast<uint8_t*>(u.TransferBuffer);
        r.length = &u.TransferBufferLength;
        return r;
    }
    case URB_FUNCTION_VENDOR_DEVICE: fromVendorClass(2, 0); return r;
    case URB_FUNCTION_VENDOR_INTERFACE: fromVendorClass(2, 1); return r;
    case URB_FUNCTION_VENDOR_ENDPOINT: fromVendorClass(2, 2); return r;
    case URB_FUNCTION_CLASS_DEVICE: fromVendorClass(1, 0); return r;
    case URB_FUNCTION_CLASS_INTERFACE: fromVendorClass(1, 1); return r;
    case URB_FUNCTION_CLASS_ENDPOINT: fromVendorClass(1, 2); return r;
    case URB_FUNCTION_CONTROL_TRANSFER: {
        auto& u = urb->UrbControlTransfer;
        const UCHAR* s = u.SetupPacket;
        r.setup = {s[0], s[1], static_cast<uint16_t>(s[2] | s[3] << 8), static_cast<uint16_t>(s[4] | s[5] << 8),
                   static_cast<uint16_t>(std::min<ULONG>(u.TransferBufferLength, s[6] | s[7] << 8))};
        r.buffer = static_cast<uint8_t*>(u.TransferBuffer);
        r.length = &u.TransferBufferLength;
        return r;
    }
    default: return std::nullopt;
    }
}

// Runs on the camera at completion time (DISPATCH_LEVEL).
void RunControl(const std::shared_ptr<Device>& dev, Pending* p) {
    std::vector<Done> done;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        // A cancel or an unplug may have completed and freed the request
        // since this poll was scheduled: look it up before touching it.
        if (std::find(dev->pending.begin(), dev->pending.end(), p) == dev->pending.end()) return;
        p->scheduled = 0;
        auto req = ControlOf(p->urb);
        std::vector<uint8_t> data(req->setup.wLength);
        bool in = (req->setup.bmRequestType & 0x80) != 0;
        if (!in && req->buffer) std::memcpy(data.data(), req->buffer, data.size());
        auto result = dev->camera->Control(req->setup, data);
        if (!Detach(*dev, p)) return;
        if (result.status == camera::ControlResult::Status::kNoDevice) {
            done.push_back({p, USBD_STATUS_DEVICE_GONE, STATUS_NO_SUCH_DEVICE});
            GoneLocked(*dev, done);
        } else if (result.status == camera::ControlResult::Status::kStall) {
            *req->length = 0;
            done.push_back({p, USBD_STATUS_STALL_PID, std::nullopt});
        } else {
            if (in && req->buffer) std::memcpy(req->buffer, data.data(), result.length);
            *req->length = static_cast<ULONG>(in ? result.length : req->setup.wLength);
            done.push_back({p, USBD_STATUS_SUCCESS, std::nullopt});
        }
    }
    Finish(done);
}

NTSTATUS SubmitControl(const std::shared_ptr<Device>& dev, PIRP irp, PURB urb) {
    auto req = ControlOf(urb);
    if (!req->buffer && req->setup.wLength > 0) {
        // MDLs are not simulated: a transfer needs its buffer pointer.
        return CompleteUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
    }
    auto* p = new Pending{irp, urb, Kind::kControl};
    std::vector<Done> done;
    NTSTATUS status;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        status = MakePending(*dev, p, done);
        if (done.empty()) {
            std::weak_ptr<Device> weak = dev;
            p->scheduled = ScheduleAt(Now() + kControlTransferLatency, [weak, p] {
                if (auto d = weak.lock()) RunControl(d, p);
            });
        }
    }
    Finish(done);
    return status;
}

// A standard request the bus itself makes while handling an URB (PASSIVE).
bool DeviceRequest(Device& dev, uint8_t type, uint8_t request, uint16_t value, uint16_t index) {
    SetupPacket s{type, request, value, index, 0};
    return dev.camera->Control(s, {}).ok();
}

// ---- descriptors --------------------------------------------------------------------
struct ParsedInterface {
    const USB_INTERFACE_DESCRIPTOR* descriptor = nullptr;
    std::vector<const USB_ENDPOINT_DESCRIPTOR*> endpoints;
};

std::optional<ParsedInterface> FindInterface(const uint8_t* config, size_t size, uint8_t number, uint8_t alternate) {
    std::optional<ParsedInterface> found;
    for (size_t off = 0; off + 2 <= size;) {
        uint8_t len = config[off], type = config[off + 1];
        if (len < 2 || off + len > size) break;
        if (type == USB_INTERFACE_DESCRIPTOR_TYPE && len >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            if (found) break;
            auto* d = reinterpret_cast<const USB_INTERFACE_DESCRIPTOR*>(config + off);
            if (d->bInterfaceNumber == number && d->bAlternateSetting == alternate) found = ParsedInterface{d, {}};
        } else if (found && type == USB_ENDPOINT_DESCRIPTOR_TYPE && len >= sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            found->endpoints.push_back(reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(config + off));
        }
        off += len;
    }
    return found;
}

// Closes the pipes of one interface (or all): pending transfers on them
// complete as cancelled (lock held).
void ClosePipes(Device& dev, std::vector<Done>& done, std::optional<uint8_t> interfaceNumber) {
    for (auto it = dev.pipes.begin(); it != dev.pipes.end();) {
        if (!interfaceNumber || (*it)->interfaceNumber == *interfaceNumber) {
            DetachAll(dev, done, USBD_STATUS_CANCELED, std::nullopt, it->get());
            it = dev.pipes.erase(it);
        } else {
            ++it;
        }
    }
}

// Fills `info` for the interface and opens its pipes (lock held).
USBD_STATUS OpenInterface(Device& dev, const ParsedInterface& pi, PUSBD_INTERFACE_INFORMATION info) {
    if (info->Length < GET_USBD_INTERFACE_SIZE(pi.endpoints.size())) return USBD_STATUS_BUFFER_TOO_SMALL;
    const auto* d = pi.descriptor;
    dev.interfaces.push_back(std::make_unique<InterfaceRecord>(InterfaceRecord{d->bInterfaceNumber, d->bAlternateSetting}));
    info->InterfaceHandle = dev.interfaces.back().get();
    info->Class = d->bInterfaceClass;
    info->SubClass = d->bInterfaceSubClass;
    info->Protocol = d->bInterfaceProtocol;
    info->NumberOfPipes = static_cast<ULONG>(pi.endpoints.size());
    for (size_t i = 0; i < pi.endpoints.size(); ++i) {
        const auto* e = pi.endpoints[i];
        auto pipe = std::make_unique<Pipe>();
        pipe->interfaceNumber = d->bInterfaceNumber;
        pipe->alternate = d->bAlternateSetting;
        pipe->address = e->bEndpointAddress;
        pipe->attributes = e->bmAttributes;
        pipe->interval = e->bInterval;
        pipe->wMaxPacketSize = e->wMaxPacketSize;
        pipe->type = static_cast<USBD_PIPE_TYPE>(e->bmAttributes & USB_ENDPOINT_TYPE_MASK);
        bool highBandwidth = dev.speed == Speed::kHigh && (pipe->type == UsbdPipeTypeIsochronous ||
                                                            pipe->type == UsbdPipeTypeInterrupt);
        pipe->maxPacket = highBandwidth ? camera::uvc::IsoCapacity(e->wMaxPacketSize) : (e->wMaxPacketSize & 0x7FFu);
        PUSBD_PIPE_INFORMATION out = &info->Pipes[i];
        out->MaximumPacketSize = static_cast<USHORT>(pipe->maxPacket);
        out->EndpointAddress = e->bEndpointAddress;
        out->Interval = e->bInterval;
        out->PipeType = pipe->type;
        out->PipeHandle = pipe.get();
        dev.pipes.push_back(std::move(pipe));
    }
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS SelectConfiguration(Device& dev, PURB urb, std::vector<Done>& done) {
    auto& sc = urb->UrbSelectConfiguration;
    ClosePipes(dev, done, std::nullopt);
    dev.interfaces.clear();
    if (sc.ConfigurationDescriptor == nullptr) {
        DeviceRequest(dev, 0x00, USB_REQUEST_SET_CONFIGURATION, 0, 0);
        dev.configured = false;
        dev.configHandle.reset();
        sc.ConfigurationHandle = nullptr;
        return USBD_STATUS_SUCCESS;
    }
    const auto* cd = sc.ConfigurationDescriptor;
    if (cd->bLength < sizeof(USB_CONFIGURATION_DESCRIPTOR) || cd->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
        cd->wTotalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR))
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    const auto* base = reinterpret_cast<const uint8_t*>(cd);
    auto* cursor = reinterpret_cast<uint8_t*>(&sc.Interface);
    const auto* end = reinterpret_cast<const uint8_t*>(urb) + urb->UrbHeader.Length;
    std::vector<std::pair<PUSBD_INTERFACE_INFORMATION, ParsedInterface>> chosen;
    for (uint8_t i = 0; i < cd->bNumInterfaces; ++i) {
        auto* info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(cursor);
        if (cursor + sizeof(USBD_INTERFACE_INFORMATION) - sizeof(USBD_PIPE_INFORMATION) > end ||
            info->Length < sizeof(USBD_INTERFACE_INFORMATION) - sizeof(USBD_PIPE_INFORMATION) ||
            cursor + info->Length > end)
            return USBD_STATUS_INVALID_PARAMETER;
        auto pi = FindInterface(base, cd->wTotalLength, info->InterfaceNumber, info->AlternateSetting);
        if (!pi) return USBD_STATUS_INTERFACE_NOT_FOUND;
        if (info->Length < GET_USBD_INTERFACE_SIZE(pi->endpoints.size())) return USBD_STATUS_BUFFER_TOO_SMALL;
        chosen.emplace_back(info, *pi);
        cursor += info->Length;
    }
    if (!DeviceRequest(dev, 0x00, USB_REQUEST_SET_CONFIGURATION, cd->bConfigurationValue, 0))
        return USBD_STATUS_SET_CONFIG_FAILED;
    dev.configured = true;
    dev.configHandle = std::make_unique<char>(0);
    sc.ConfigurationHandle = dev.configHandle.get();
    for (auto& [info, pi] : chosen) {
        if (pi.descriptor->bAlternateSetting != 0 &&
            !DeviceRequest(dev, 0x01, USB_REQUEST_SET_INTERFACE, pi.descriptor->bAlternateSetting,
                           pi.descriptor->bInterfaceNumber))
            return USBD_STATUS_SET_CONFIG_FAILED;
        OpenInterface(dev, pi, info);
    }
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS SelectInterface(Device& dev, PURB urb, std::vector<Done>& done) {
    auto& si = urb->UrbSelectInterface;
    if (!dev.configured || si.ConfigurationHandle != dev.configHandle.get()) return USBD_STATUS_INVALID_PARAMETER;
    const auto& config = dev.camera->Descriptors().configuration;
    auto pi = FindInterface(config.data(), config.size(), si.Interface.InterfaceNumber, si.Interface.AlternateSetting);
    if (!pi) return USBD_STATUS_INTERFACE_NOT_FOUND;
    const size_t fixed = offsetof(struct _URB_SELECT_INTERFACE, Interface);
    if (si.Interface.Length < GET_USBD_INTERFACE_SIZE(pi->endpoints.size()) ||
        urb->UrbHeader.Length < fixed + si.Interface.Length)
        return USBD_STATUS_BUFFER_TOO_SMALL;
    ClosePipes(dev, done, si.Interface.InterfaceNumber);
    if (!DeviceRequest(dev, 0x01, USB_REQUEST_SET_INTERFACE, si.Interface.AlternateSetting,
                       si.Interface.InterfaceNumber))
        return USBD_STATUS_STALL_PID;
    return OpenInterface(dev, *pi, &si.Interface);
}

// ---- isochronous transfers --------------------------------------------------------------
void CompleteIso(const std::shared_ptr<Device>& dev, Pending* p) {
    std::vector<Done> done;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        // A cancel on another processor may have completed and freed the
        // request while this callback was on its way: look it up before
        // touching it.
        if (std::find(dev->pending.begin(), dev->pending.end(), p) == dev->pending.end()) return;
        p->scheduled = 0;
        auto& u = p->urb->UrbIsochronousTransfer;
        auto* buffer = static_cast<uint8_t*>(u.TransferBuffer);
        ULONG total = 0, errors = 0;
        bool stalled = false, gone = false;
        for (ULONG i = 0; i < u.NumberOfPackets; ++i) {
            auto& d = u.IsoPacket[i];
            ULONG room = (i + 1 < u.NumberOfPackets ? u.IsoPacket[i + 1].Offset : u.TransferBufferLength) - d.Offset;
            uint64_t slotTime = (p->startSlot + i) * dev->SlotLength();
            d.Length = 0;
            if (gone) {
                d.Status = USBD_STATUS_DEVICE_GONE;
            } else if (p->startSlot + i < p->onTimeSlot) {
                d.Status = USBD_STATUS_ISO_NA_LATE_USBPORT;  // its slot had passed when it was submitted
            } else if (dev->power != PowerDeviceD0) {
                d.Status = USBD_STATUS_ISO_NOT_ACCESSED_BY_HW;
            } else {
                size_t capacity = std::min<size_t>(room, p->pipe->maxPacket);
                auto pkt = dev->camera->NextPacket(slotTime, capacity, p->pipe->address);
                ++dev->isoSlots;
                size_t n = std::min(pkt.data.size(), capacity);
                if (pkt.status != PacketStatus::kNotAccessed && n > 0) std::memcpy(buffer + d.Offset, pkt.data.data(), n);
                d.Length = pkt.status == PacketStatus::kNotAccessed ? 0 : static_cast<ULONG>(n);
                d.Status = PacketUsbdStatus(pkt.status);
                if (pkt.status == PacketStatus::kStalled) stalled = true;
                if (pkt.status == PacketStatus::kDeviceGone) gone = true;
            }
            total += d.Length;
            if (USBD_ERROR(d.Status)) ++errors;
        }
        u.ErrorCount = errors;
        u.TransferBufferLength = total;
        if (!Detach(*dev, p)) return;
        if (gone) {
            done.push_back({p, USBD_STATUS_DEVICE_GONE, STATUS_NO_SUCH_DEVICE});
            GoneLocked(*dev, done);
        } else if (stalled) {
            p->pipe->halted = true;
            done.push_back({p, USBD_STATUS_STALL_PID, std::nullopt});
        } else if (errors == u.NumberOfPackets) {
            done.push_back({p, USBD_STATUS_ISOCH_REQUEST_FAILED, std::nullopt});
        } else {
            done.push_back({p, USBD_STATUS_SUCCESS, std::nullopt});
        }
    }
    Finish(done);
}

NTSTATUS SubmitIso(const std::shared_ptr<Device>& dev, PIRP irp, PURB urb) {
    auto& u = urb->UrbIsochronousTransfer;
    std::vector<Done> done;
    NTSTATUS status;
    {
        std::unique_lock<std::mutex> guard(dev->lock);
        Pipe* pipe = dev->FindPipe(u.PipeHandle);
        USBD_STATUS bad = USBD_STATUS_SUCCESS;
        const bool high = dev->speed == Speed::kHigh;
        const ULONG n = u.NumberOfPackets;
        if (!pipe || pipe->type != UsbdPipeTypeIsochronous) {
            bad = USBD_STATUS_INVALID_PIPE_HANDLE;
        } else if (pipe->halted) {
            bad = USBD_STATUS_ENDPOINT_HALTED;
        } else if (n == 0 || n > (high ? 1024u : 255u) || (high && n % 8 != 0) ||
                   urb->UrbHeader.Length < offsetof(struct _URB_ISOCH_TRANSFER, IsoPacket) +
                                               n * sizeof(USBD_ISO_PACKET_DESCRIPTOR) ||
                   u.TransferBuffer == nullptr || u.TransferBufferLength == 0) {
            bad = USBD_STATUS_INVALID_PARAMETER;
        } else {
            for (ULONG i = 0; i < n; ++i) {
                ULONG next = i + 1 < n ? u.IsoPacket[i + 1].Offset : u.TransferBufferLength;
                if (u.IsoPacket[i].Offset >= next) bad = USBD_STATUS_INVALID_PARAMETER;
            }
        }
        const LONGLONG slotLen = dev->SlotLength();
        // The next slot not begun; at high speed the next frame's microframe 0,
        // as transfers are scheduled in whole frames there (hence NumberOfPackets
        // a multiple of 8).
        uint64_t firstFree = static_cast<uint64_t>((Now() + slotLen - 1) / slotLen);
        if (high) firstFree = (firstFree + 7) / 8 * 8;
        uint64_t start = 0;
        if (bad == USBD_STATUS_SUCCESS) {
            if (u.TransferFlags & USBD_START_ISO_TRANSFER_ASAP) {
                start = pipe->queue.empty() ? firstFree : std::max(pipe->nextSlot, firstFree);
            } else {
                const uint64_t slotsPerFrame = high ? 8 : 1;
                const uint64_t frame = static_cast<uint64_t>(Now() / kMillisecond);
                uint64_t wanted = u.StartFrame;
                if (wanted + USBD_ISO_START_FRAME_RANGE < frame || wanted > frame + USBD_ISO_START_FRAME_RANGE)
                    bad = USBD_STATUS_BAD_START_FRAME;
                start = wanted * slotsPerFrame;
            }
        }
        if (bad != USBD_STATUS_SUCCESS) {
            guard.unlock();
            return CompleteUrb(irp, urb, bad);
        }
        u.StartFrame = static_cast<ULONG>(start / (high ? 8 : 1));
        u.ErrorCount = 0;
        auto* p = new Pending{irp, urb, Kind::kIso, pipe, 0, start, firstFree};
        pipe->nextSlot = std::max(pipe->nextSlot, start + n);
        status = MakePending(*dev, p, done);
        if (done.empty()) {
            std::weak_ptr<Device> weak = dev;
            p->scheduled = ScheduleAt(static_cast<LONGLONG>((start + n) * slotLen), [weak, p] {
                if (auto d = weak.lock()) CompleteIso(d, p);
            });
        }
    }
    Finish(done);
    return status;
}

// ---- interrupt transfers --------------------------------------------------------------------
LONGLONG PollPeriod(const Device& dev, const Pipe& pipe) {
    LONGLONG period = dev.speed == Speed::kHigh
                          ? dev.SlotLength() << std::min<int>(std::max<int>(pipe.interval, 1) - 1, 15)
                          : static_cast<LONGLONG>(std::max<int>(pipe.interval, 1)) * kMillisecond;
    return std::max<LONGLONG>(period, kMillisecond);
}

void PollInterrupt(const std::shared_ptr<Device>& dev, Pending* p) {
    std::vector<Done> done;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        p->scheduled = 0;
        if (std::find(dev->pending.begin(), dev->pending.end(), p) == dev->pending.end()) return;
        auto& u = p->urb->UrbBulkOrInterruptTransfer;
        if (!dev->camera->Connected()) {
            GoneLocked(*dev, done);
        } else if (dev->power != PowerDeviceD0) {
            // A suspended port polls nothing; the transfer waits.
        } else if (auto pkt = dev->camera->ReadInterrupt(u.TransferBufferLength)) {
            std::memcpy(u.TransferBuffer, pkt->data(), pkt->size());
            bool shortOk = (u.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
            bool isShort = pkt->size() < u.TransferBufferLength;
            u.TransferBufferLength = static_cast<ULONG>(pkt->size());
            if (Detach(*dev, p))
                done.push_back({p, isShort && !shortOk ? USBD_STATUS_ERROR_SHORT_TRANSFER : USBD_STATUS_SUCCESS,
                                std::nullopt});
        }
        if (done.empty()) {
            std::weak_ptr<Device> weak = dev;
            p->scheduled = ScheduleAt(Now() + PollPeriod(*dev, *p->pipe), [weak, p] {
                if (auto d = weak.lock()) PollInterrupt(d, p);
            });
        }
    }
    Finish(done);
}

NTSTATUS SubmitInterrupt(const std::shared_ptr<Device>& dev, PIRP irp, PURB urb) {
    auto& u = urb->UrbBulkOrInterruptTransfer;
    std::vector<Done> done;
    NTSTATUS status;
    {
        std::unique_lock<std::mutex> guard(dev->lock);
        Pipe* pipe = dev->FindPipe(u.PipeHandle);
        USBD_STATUS bad = USBD_STATUS_SUCCESS;
        if (!pipe || (pipe->type != UsbdPipeTypeInterrupt && pipe->type != UsbdPipeTypeBulk))
            bad = USBD_STATUS_INVALID_PIPE_HANDLE;
        else if (pipe->halted)
            bad = USBD_STATUS_ENDPOINT_HALTED;
        else if (!u.TransferBuffer && u.TransferBufferLength > 0)
            bad = USBD_STATUS_INVALID_PARAMETER;
        if (bad != USBD_STATUS_SUCCESS) {
            guard.unlock();
            return CompleteUrb(irp, urb, bad);
        }
        auto* p = new Pending{irp, urb, Kind::kInterrupt, pipe};
        status = MakePending(*dev, p, done);
        if (done.empty()) {
            std::weak_ptr<Device> weak = dev;
            p->scheduled = ScheduleAt(Now() + PollPeriod(*dev, *pipe), [weak, p] {
                if (auto d = weak.lock()) PollInterrupt(d, p);
            });
        }
    }
    Finish(done);
    return status;
}

// ---- pipe requests ---------------------------------------------------------------------------
void CheckPassive(const char* what) {
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        ReportViolation("%s must be sent at PASSIVE_LEVEL (IRQL %d)", what, KeGetCurrentIrql());
}

USBD_STATUS PipeRequest(Device& dev, PURB urb, std::vector<Done>& done) {
    Pipe* pipe = dev.FindPipe(urb->UrbPipeRequest.PipeHandle);
    if (!pipe) return USBD_STATUS_INVALID_PIPE_HANDLE;
    if (urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE) {
        CheckPassive("URB_FUNCTION_ABORT_PIPE");
        DetachAll(dev, done, USBD_STATUS_CANCELED, std::nullopt, pipe);
        pipe->nextSlot = 0;
        return USBD_STATUS_SUCCESS;
    }
    CheckPassive("URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL");
    for (Pending* p : dev.pending)
        if (p->pipe == pipe) return USBD_STATUS_ERROR_BUSY;
    pipe->halted = false;
    pipe->nextSlot = 0;
    // CLEAR_FEATURE(ENDPOINT_HALT) to the endpoint.
    DeviceRequest(dev, 0x02, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, pipe->address);
    return USBD_STATUS_SUCCESS;
}

// ---- URB dispatch -------------------------------------------------------------------------------
NTSTATUS SubmitUrb(const std::shared_ptr<Device>& dev, PIRP irp, PURB urb) {
    if (urb == nullptr) {
        irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INVALID_PARAMETER;
    }
    {
        std::unique_lock<std::mutex> guard(dev->lock);
        NTSTATUS refuse = STATUS_SUCCESS;
        if (!dev->present || !dev->camera->Connected()) {
            if (dev->present) {
                std::vector<Done> done;
                GoneLocked(*dev, done);
                guard.unlock();
                Finish(done);
                guard.lock();
            }
            refuse = STATUS_DEVICE_NOT_CONNECTED;
            urb->UrbHeader.Status = USBD_STATUS_DEVICE_GONE;
        } else if (dev->power != PowerDeviceD0) {
            refuse = STATUS_DEVICE_POWERED_OFF;
        }
        if (refuse != STATUS_SUCCESS) {
            guard.unlock();
            irp->IoStatus.Status = refuse;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return refuse;
        }
    }
    urb->UrbHeader.Status = USBD_STATUS_PENDING;
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_ISOCH_TRANSFER: return SubmitIso(dev, irp, urb);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER: return SubmitInterrupt(dev, irp, urb);
    case URB_FUNCTION_SELECT_CONFIGURATION:
    case URB_FUNCTION_SELECT_INTERFACE:
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL: {
        std::vector<Done> done;
        USBD_STATUS s;
        {
            std::lock_guard<std::mutex> guard(dev->lock);
            switch (urb->UrbHeader.Function) {
            case URB_FUNCTION_SELECT_CONFIGURATION:
                CheckPassive("URB_FUNCTION_SELECT_CONFIGURATION");
                s = SelectConfiguration(*dev, urb, done);
                break;
            case URB_FUNCTION_SELECT_INTERFACE:
                CheckPassive("URB_FUNCTION_SELECT_INTERFACE");
                s = SelectInterface(*dev, urb, done);
                break;
            default: s = PipeRequest(*dev, urb, done); break;
            }
        }
        Finish(done);
        return CompleteUrb(irp, urb, s);
    }
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
        urb->UrbGetCurrentFrameNumber.FrameNumber = static_cast<ULONG>(Now() / kMillisecond);
        return CompleteUrb(irp, urb, USBD_STATUS_SUCCESS);
    default:
        if (ControlOf(urb)) return SubmitControl(dev, irp, urb);
        return CompleteUrb(irp, urb, USBD_STATUS_INVALID_URB_FUNCTION);
    }
}

NTSTATUS InternalDeviceControl(PDEVICE_OBJECT pdo, PIRP irp) {
    auto dev = Find(pdo);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (dev && sp->Parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_USB_SUBMIT_URB)
        return SubmitUrb(dev, irp, static_cast<PURB>(sp->Parameters.Others.Argument1));
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    if (dev && sp->Parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_USB_GET_PORT_STATUS &&
        sp->Parameters.Others.Argument1) {
        std::lock_guard<std::mutex> guard(dev->lock);
        *static_cast<PULONG>(sp->Parameters.Others.Argument1) =
            dev->present ? (USBD_PORT_ENABLED | USBD_PORT_CONNECTED) : 0;
        status = STATUS_SUCCESS;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// ---- the USBDI bus interface -------------------------------------------------------------------
// BusContext is the PDO; every function looks the device up.
VOID BusReference(PVOID context) {
    if (auto dev = Find(static_cast<PDEVICE_OBJECT>(context))) {
        std::lock_guard<std::mutex> guard(dev->lock);
        ++dev->busRefs;
    }
}
VOID BusDereference(PVOID context) {
    if (auto dev = Find(static_cast<PDEVICE_OBJECT>(context))) {
        std::lock_guard<std::mutex> guard(dev->lock);
        if (--dev->busRefs < 0) ReportViolation("USBDI bus interface dereferenced more often than referenced");
    }
}
VOID BusGetUsbdiVersion(PVOID, PUSBD_VERSION_INFORMATION info, PULONG caps) {
    if (info) {
        info->USBDI_Version = USBDI_VERSION;
        info->Supported_USB_Version = 0x0200;
    }
    if (caps) *caps = 0;
}
NTSTATUS BusQueryBusTime(PVOID, PULONG frame) {
    if (frame) *frame = static_cast<ULONG>(Now() / kMillisecond);
    return STATUS_SUCCESS;
}
NTSTATUS BusSubmitIsoOutUrb(PVOID, PURB) { return STATUS_NOT_SUPPORTED; }
NTSTATUS BusQueryBusInformation(PVOID context, ULONG level, PVOID buffer, PULONG length, PULONG actual) {
    if (level != 0) return STATUS_NOT_SUPPORTED;
    if (actual) *actual = sizeof(USB_BUS_INFORMATION_LEVEL_0);
    if (!length || *length < sizeof(USB_BUS_INFORMATION_LEVEL_0) || !buffer) return STATUS_BUFFER_TOO_SMALL;
    auto dev = Find(static_cast<PDEVICE_OBJECT>(context));
    auto* info = static_cast<PUSB_BUS_INFORMATION_LEVEL_0>(buffer);
    info->TotalBandwidth = dev && dev->speed == Speed::kHigh ? 480000000u : 12000000u;
    info->ConsumedBandwidth = 0;
    *length = sizeof(USB_BUS_INFORMATION_LEVEL_0);
    return STATUS_SUCCESS;
}
BOOLEAN BusIsDeviceHighSpeed(PVOID context) {
    auto dev = Find(static_cast<PDEVICE_OBJECT>(context));
    return dev && dev->speed == Speed::kHigh;
}
NTSTATUS BusEnumLogEntry(PVOID, ULONG, ULONG, ULONG, ULONG) { return STATUS_SUCCESS; }

// IRP_MN_QUERY_INTERFACE (kernel/using-the-irp-mn-query-interface): versions
// 0-2 of USB_BUS_INTERFACE_USBDI_GUID; the bus references the interface once
// before returning it.
NTSTATUS QueryInterface(PDEVICE_OBJECT pdo, PIO_STACK_LOCATION sp) {
    const auto& q = sp->Parameters.QueryInterface;
    if (!q.InterfaceType || !IsEqualGUID(*q.InterfaceType, USB_BUS_INTERFACE_USBDI_GUID)) return STATUS_PENDING;
    static constexpr USHORT kSizes[] = {sizeof(USB_BUS_INTERFACE_USBDI_V0), sizeof(USB_BUS_INTERFACE_USBDI_V1),
                                        sizeof(USB_BUS_INTERFACE_USBDI_V2)};
    if (q.Version > USB_BUSIF_USBDI_VERSION_2) return STATUS_NOT_SUPPORTED;
    if (!q.Interface || q.Size < kSizes[q.Version]) return STATUS_INVALID_PARAMETER;
    auto* bi = reinterpret_cast<PUSB_BUS_INTERFACE_USBDI_V2>(q.Interface);
    bi->Size = kSizes[q.Version];
    bi->Version = q.Version;
    bi->BusContext = pdo;
    bi->InterfaceReference = BusReference;
    bi->InterfaceDereference = BusDereference;
    bi->GetUSBDIVersion = BusGetUsbdiVersion;
    bi->QueryBusTime = BusQueryBusTime;
    bi->SubmitIsoOutUrb = BusSubmitIsoOutUrb;
    bi->QueryBusInformation = BusQueryBusInformation;
    if (q.Version >= 1) bi->IsDeviceHighSpeed = BusIsDeviceHighSpeed;
    if (q.Version >= 2) bi->EnumLogEntry = BusEnumLogEntry;
    BusReference(pdo);
    return STATUS_SUCCESS;
}

// IRP_MN_QUERY_CAPABILITIES as a USB hub reports a port's device: removable,
// no silent surprise removal, D0 in S0 and D3 in every sleeping state.
void FillCapabilities(PDEVICE_CAPABILITIES caps) {
    caps->Removable = TRUE;
    caps->SurpriseRemovalOK = FALSE;
    caps->UniqueID = FALSE;
    caps->DeviceD1 = FALSE;
    caps->DeviceD2 = TRUE;
    caps->WakeFromD0 = FALSE;
    caps->Address = 1;
    caps->UINumber = 1;
    caps->DeviceState[PowerSystemUnspecified] = PowerDeviceUnspecified;
    caps->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    for (int s = PowerSystemSleeping1; s < PowerSystemMaximum; ++s) caps->DeviceState[s] = PowerDeviceD3;
    caps->SystemWake = PowerSystemUnspecified;
    caps->DeviceWake = PowerDeviceUnspecified;
}

NTSTATUS Pnp(PDEVICE_OBJECT pdo, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    switch (sp->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
    case IRP_MN_REMOVE_DEVICE:
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_QUERY_CAPABILITIES:
        if (sp->Parameters.DeviceCapabilities.Capabilities) {
            FillCapabilities(sp->Parameters.DeviceCapabilities.Capabilities);
            status = STATUS_SUCCESS;
        }
        break;
    case IRP_MN_QUERY_INTERFACE: {
        NTSTATUS s = QueryInterface(pdo, sp);
        if (s != STATUS_PENDING) status = s;  // STATUS_PENDING here: not our interface
        break;
    }
    default:
        break;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Power(PDEVICE_OBJECT pdo, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (sp->MinorFunction == IRP_MN_SET_POWER || sp->MinorFunction == IRP_MN_QUERY_POWER) {
        status = STATUS_SUCCESS;
        if (sp->MinorFunction == IRP_MN_SET_POWER && sp->Parameters.Power.Type == DevicePowerState) {
            if (auto dev = Find(pdo)) {
                std::lock_guard<std::mutex> guard(dev->lock);
                dev->power = sp->Parameters.Power.State.DeviceState;
            }
            PoSetPowerState(pdo, DevicePowerState, sp->Parameters.Power.State);
        }
    }
    PoStartNextPowerIrp(irp);
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void Remove(const std::shared_ptr<Device>& dev, bool unplug) {
    std::vector<Done> done;
    {
        std::lock_guard<std::mutex> guard(dev->lock);
        GoneLocked(*dev, done);
        if (dev->camera->Connected()) dev->camera->ArmFault(camera::Fault::kSurpriseRemoval);
    }
    Finish(done);
    if (!unplug) return;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        Devices().erase(dev->pdo);
    }
    DeleteBusPdo(dev->pdo);
}

}  // namespace

PDEVICE_OBJECT PlugCamera(std::shared_ptr<camera::UvcCamera> cam, Speed speed) {
    // The bus's check runs before the kernel's, so that the IRPs it completes
    // and the callbacks it cancels for a forgotten device are not reported
    // twice.
    static const bool registered = [] {
        RegisterEndOfTestCheck("USB bus", -10, UsbEndOfTestCheck);
        return true;
    }();
    (void)registered;
    auto dev = std::make_shared<Device>();
    dev->camera = std::move(cam);
    dev->speed = speed;
    PdoCallbacks callbacks;
    callbacks.internalDeviceControl = InternalDeviceControl;
    callbacks.pnp = Pnp;
    callbacks.power = Power;
    dev->pdo = CreateBusPdo(u"usbhub", std::move(callbacks), 0, FILE_DEVICE_UNKNOWN);
    if (!dev->pdo) return nullptr;
    dev->pdo->Flags |= DO_POWER_PAGABLE;
    std::lock_guard<std::mutex> guard(g_lock);
    Devices()[dev->pdo] = dev;
    return dev->pdo;
}

void SurpriseRemove(PDEVICE_OBJECT pdo) {
    if (auto dev = Find(pdo)) Remove(dev, false);
}

void Unplug(PDEVICE_OBJECT pdo) {
    auto dev = Find(pdo);
    if (!dev) {
        ReportViolation("kvsim::usb::Unplug: %p is not a plugged device", static_cast<void*>(pdo));
        return;
    }
    Remove(dev, true);
}

DeviceState GetDeviceState(PDEVICE_OBJECT pdo) {
    DeviceState st;
    auto dev = Find(pdo);
    if (!dev) return st;
    std::lock_guard<std::mutex> guard(dev->lock);
    st.present = dev->present;
    st.configured = dev->configured;
    st.power = dev->power;
    st.pendingTransfers = dev->pending.size();
    st.openPipes = dev->pipes.size();
    st.busInterfaceReferences = dev->busRefs;
    st.isoPacketsDelivered = dev->isoSlots;
    return st;
}

std::shared_ptr<camera::UvcCamera> CameraOf(PDEVICE_OBJECT pdo) {
    auto dev = Find(pdo);
    return dev ? dev->camera : nullptr;
}

std::vector<std::string> UsbEndOfTestCheck() {
    std::vector<std::shared_ptr<Device>> left;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        for (auto& [pdo, dev] : Devices()) left.push_back(dev);
    }
    std::vector<std::string> lines;
    for (auto& dev : left) {
        lines.push_back("USB device still plugged at the end of the test (kvsim::usb::Unplug it)");
        Remove(dev, true);
    }
    return lines;
}

}  // namespace kvsim::usb
