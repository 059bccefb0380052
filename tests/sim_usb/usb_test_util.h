// Helpers for the simulated USB bus's tests (tests/sim_usb): the client
// driver's side of the bus, written directly against the PDO with IRPs and
// URBs (no driver code): sending an URB and waiting, descriptor reads,
// configuration and interface selection through the usbd library, class
// requests, probe/commit, a set of isochronous transfers kept in flight, and
// a session on the default camera that streams a format.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "camera/payload_decoder.h"
#include "camera/uvc_camera.h"
#include "kvsim/io.h"
#include "kvsim/sched.h"
#include "usb/usb_bus.h"
#include "usbbusif.h"
#include "usbdlib.h"

namespace usbtest {

using namespace kvsim::camera;
using kvsim::usb::Speed;

constexpr UCHAR kVs = 1;  // the default camera's streaming interface

// URB storage, 8-byte aligned and zeroed.
class UrbBuffer {
public:
    explicit UrbBuffer(size_t size) : words_((size + 7) / 8 + 1, 0), size_(size) {}
    PURB get() { return reinterpret_cast<PURB>(words_.data()); }
    size_t size() const { return size_; }
private:
    std::vector<uint64_t> words_;
    size_t size_;
};

// One IRP the test owns and reuses: sent down with a completion routine that
// keeps it (STATUS_MORE_PROCESSING_REQUIRED).
class UrbIrp {
public:
    explicit UrbIrp(PDEVICE_OBJECT pdo) : pdo_(pdo), irp_(IoAllocateIrp(pdo->StackSize, FALSE)) {}
    ~UrbIrp() { IoFreeIrp(irp_); }
    UrbIrp(const UrbIrp&) = delete;
    UrbIrp& operator=(const UrbIrp&) = delete;

    NTSTATUS Send(PURB urb) {
        IoReuseIrp(irp_, STATUS_NOT_SUPPORTED);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        next->Parameters.Others.Argument1 = urb;
        IoSetCompletionRoutine(irp_, &UrbIrp::Completed, this, TRUE, TRUE, TRUE);
        done_.store(false);
        return IoCallDriver(pdo_, irp_);
    }
    bool Done() const { return done_.load(std::memory_order_acquire); }
    NTSTATUS Status() const { return status_; }
    PIRP irp() const { return irp_; }
    uint64_t CompletedAt() const { return completedAt_; }
    KIRQL CompletionIrql() const { return completionIrql_; }
    bool Wait(LONGLONG timeout = kvsim::kSecond) {
        return kvsim::RunUntil([this] { return Done(); }, timeout);
    }

private:
    static NTSTATUS Completed(PDEVICE_OBJECT, PIRP irp, PVOID context) {
        auto* self = static_cast<UrbIrp*>(context);
        self->status_ = irp->IoStatus.Status;
        self->completedAt_ = static_cast<uint64_t>(kvsim::Now());
        self->completionIrql_ = KeGetCurrentIrql();
        // Published last: in parallel mode the waiting thread reads the
        // results as soon as it sees done_.
        self->done_.store(true, std::memory_order_release);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    PDEVICE_OBJECT pdo_;
    PIRP irp_;
    std::atomic<bool> done_{false};
    NTSTATUS status_ = STATUS_PENDING;
    uint64_t completedAt_ = 0;
    KIRQL completionIrql_ = 0;
};

// Sends `urb` and waits for it; returns the IRP's final status.
inline NTSTATUS Submit(PDEVICE_OBJECT pdo, PURB urb) {
    UrbIrp irp(pdo);
    irp.Send(urb);
    EXPECT_TRUE(irp.Wait()) << "URB function " << urb->UrbHeader.Function << " never completed";
    return irp.Status();
}

// A _URB_PIPE_REQUEST (abort, reset and clear stall) for `pipe`.
inline NTSTATUS PipeRequest(PDEVICE_OBJECT pdo, USHORT function, USBD_PIPE_HANDLE pipe, USBD_STATUS* usbd = nullptr) {
    UrbBuffer urb(sizeof(struct _URB_PIPE_REQUEST));
    urb.get()->UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
    urb.get()->UrbHeader.Function = function;
    urb.get()->UrbPipeRequest.PipeHandle = pipe;
    NTSTATUS s = Submit(pdo, urb.get());
    if (usbd) *usbd = urb.get()->UrbHeader.Status;
    return s;
}

struct Plugged {
    std::shared_ptr<UvcCamera> camera;
    PDEVICE_OBJECT pdo = nullptr;
};

// The built-in camera ("default") or one of ../shared/cameras, plugged.
inline Plugged Plug(const std::string& name = "default", Speed speed = Speed::kHigh) {
    Plugged p;
    if (name == "default") {
        p.camera = UvcCamera::CreateDefault();
    } else if (auto set = LoadDescriptorFiles(std::string(KV_SHARED_DIR) + "/cameras", name)) {
        p.camera = UvcCamera::Create(*set);
    }
    if (p.camera) p.pdo = kvsim::usb::PlugCamera(p.camera, speed);
    return p;
}

// GET_DESCRIPTOR through URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE.
inline NTSTATUS GetDescriptor(PDEVICE_OBJECT pdo, UCHAR type, UCHAR index, ULONG length, std::vector<uint8_t>* out) {
    UrbBuffer urb(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    std::vector<uint8_t> buffer(length);
    UsbBuildGetDescriptorRequest(urb.get(), (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), type, index, 0,
                                 buffer.data(), nullptr, length, nullptr);
    NTSTATUS s = Submit(pdo, urb.get());
    buffer.resize(std::min<ULONG>(length, urb.get()->UrbControlDescriptorRequest.TransferBufferLength));
    if (out) *out = buffer;
    return s;
}

// The configuration descriptor in two reads (header, then wTotalLength).
inline std::vector<uint8_t> ReadConfiguration(PDEVICE_OBJECT pdo) {
    std::vector<uint8_t> head, all;
    if (!NT_SUCCESS(GetDescriptor(pdo, USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 9, &head)) || head.size() < 9) return {};
    ULONG total = head[2] | head[3] << 8;
    if (!NT_SUCCESS(GetDescriptor(pdo, USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, total, &all))) return {};
    return all;
}

struct Configured {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    USBD_STATUS usbd = 0;
    USBD_CONFIGURATION_HANDLE handle = nullptr;
    std::vector<std::vector<uint8_t>> interfaces;  // copies of each USBD_INTERFACE_INFORMATION
    const USBD_INTERFACE_INFORMATION* Interface(size_t i) const {
        return reinterpret_cast<const USBD_INTERFACE_INFORMATION*>(interfaces[i].data());
    }
};

// Selects the configuration with alternate setting 0 of every interface, as
// a client driver does: USBD_ParseConfigurationDescriptorEx per interface
// number, USBD_CreateConfigurationRequestEx, submit, ExFreePool.
inline Configured SelectConfiguration(PDEVICE_OBJECT pdo, std::vector<uint8_t>& config) {
    Configured c;
    auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
    std::vector<USBD_INTERFACE_LIST_ENTRY> list;
    for (LONG n = 0; static_cast<UCHAR>(list.size()) < cd->bNumInterfaces && n < 32; ++n) {
        auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, n, 0, -1, -1, -1);
        if (d) list.push_back({d, nullptr});
    }
    list.push_back({nullptr, nullptr});
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list.data());
    if (!urb) return c;
    c.status = Submit(pdo, urb);
    c.usbd = urb->UrbHeader.Status;
    c.handle = urb->UrbSelectConfiguration.ConfigurationHandle;
    for (auto& e : list)
        if (e.Interface) {
            auto* b = reinterpret_cast<const uint8_t*>(e.Interface);
            c.interfaces.emplace_back(b, b + e.Interface->Length);
        }
    ExFreePool(urb);
    return c;
}

struct Selected {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    USBD_STATUS usbd = 0;
    std::vector<USBD_PIPE_INFORMATION> pipes;
};

inline Selected SelectInterface(PDEVICE_OBJECT pdo, USBD_CONFIGURATION_HANDLE handle, UCHAR iface, UCHAR alt,
                                ULONG pipes, std::optional<USHORT> lengthOverride = std::nullopt) {
    Selected s;
    USHORT size = (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(pipes ? pipes : 1);
    UrbBuffer urb(size);
    UsbBuildSelectInterfaceRequest(urb.get(), size, handle, iface, alt);
    if (lengthOverride) urb.get()->UrbSelectInterface.Interface.Length = *lengthOverride;
    s.status = Submit(pdo, urb.get());
    s.usbd = urb.get()->UrbHeader.Status;
    if (NT_SUCCESS(s.status))
        for (ULONG i = 0; i < urb.get()->UrbSelectInterface.Interface.NumberOfPipes; ++i)
            s.pipes.push_back(urb.get()->UrbSelectInterface.Interface.Pipes[i]);
    return s;
}

// A class request to an interface (URB_FUNCTION_CLASS_INTERFACE, 136 bytes).
inline NTSTATUS ClassInterface(PDEVICE_OBJECT pdo, bool in, UCHAR request, USHORT value, USHORT index,
                               std::vector<uint8_t>& data, USBD_STATUS* usbd = nullptr) {
    UrbBuffer urb(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
    UsbBuildVendorRequest(urb.get(), URB_FUNCTION_CLASS_INTERFACE,
                          (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                          in ? (USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK) : 0, 0, request, value, index,
                          data.data(), nullptr, (ULONG)data.size(), nullptr);
    NTSTATUS s = Submit(pdo, urb.get());
    if (usbd) *usbd = urb.get()->UrbHeader.Status;
    if (in) data.resize(urb.get()->UrbControlVendorClassRequest.TransferBufferLength);
    return s;
}

// Probe (SET_CUR, GET_CUR) then commit on streaming interface `iface`.
inline std::optional<ProbeControl> ProbeCommit(PDEVICE_OBJECT pdo, UCHAR iface, UCHAR format, UCHAR frame,
                                               ULONG interval) {
    auto bytes = ProbeControl{.formatIndex = format, .frameIndex = frame, .frameInterval = interval}.Pack();
    if (!NT_SUCCESS(ClassInterface(pdo, false, uvc::kSetCur, 0x0100, iface, bytes))) return std::nullopt;
    std::vector<uint8_t> got(26);
    if (!NT_SUCCESS(ClassInterface(pdo, true, uvc::kGetCur, 0x0100, iface, got)) || got.size() < 26) return std::nullopt;
    ProbeControl p = ProbeControl::Unpack(got);
    if (!NT_SUCCESS(ClassInterface(pdo, false, uvc::kSetCur, 0x0200, iface, got))) return std::nullopt;
    return p;
}

// One isochronous transfer: IRP, URB and buffer.
struct IsoTransfer {
    IsoTransfer(PDEVICE_OBJECT pdo, ULONG packets, ULONG packetSize)
        : irp(pdo), urb(GET_ISO_URB_SIZE(packets)), buffer(packets * packetSize), packets(packets),
          packetSize(packetSize) {}
    void Build(USBD_PIPE_HANDLE pipe, ULONG flags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK |
                                                   USBD_START_ISO_TRANSFER_ASAP) {
        std::memset(urb.get(), 0, urb.size());
        auto& u = urb.get()->UrbIsochronousTransfer;
        u.Hdr.Length = (USHORT)GET_ISO_URB_SIZE(packets);
        u.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
        u.PipeHandle = pipe;
        u.TransferFlags = flags;
        u.TransferBuffer = buffer.data();
        u.TransferBufferLength = packets * packetSize;
        u.NumberOfPackets = packets;
        for (ULONG i = 0; i < packets; ++i) u.IsoPacket[i].Offset = i * packetSize;
    }
    NTSTATUS Submit(USBD_PIPE_HANDLE pipe) {
        Build(pipe);
        return irp.Send(urb.get());
    }
    _URB_ISOCH_TRANSFER& Iso() { return urb.get()->UrbIsochronousTransfer; }
    // The packets as the camera model's decoder takes them.
    std::vector<IsoPacket> Packets() {
        std::vector<IsoPacket> out;
        auto& u = Iso();
        for (ULONG i = 0; i < u.NumberOfPackets; ++i) {
            IsoPacket p;
            const auto& d = u.IsoPacket[i];
            p.data.assign(buffer.begin() + d.Offset, buffer.begin() + d.Offset + d.Length);
            p.status = USBD_SUCCESS(d.Status) ? PacketStatus::kOk
                       : d.Status == (USBD_STATUS)USBD_STATUS_CRC ? PacketStatus::kError
                                                                  : PacketStatus::kNotAccessed;
            out.push_back(std::move(p));
        }
        return out;
    }
    UrbIrp irp;
    UrbBuffer urb;
    std::vector<uint8_t> buffer;
    ULONG packets, packetSize;
};

// Keeps `inFlight` transfers of `packets` packets on a pipe, resubmitting
// each as it completes (they complete in submission order), and feeds the
// packets to the reference decoder.
struct PacketRecord {
    ULONG length = 0;
    USBD_STATUS status = 0;
};

class Streamer {
public:
    Streamer(PDEVICE_OBJECT pdo, const USBD_PIPE_INFORMATION& pipe, size_t inFlight = 3, ULONG packets = 128)
        : pdo_(pdo), pipe_(pipe) {
        for (size_t i = 0; i < inFlight; ++i) {
            xfers_.push_back(std::make_unique<IsoTransfer>(pdo, packets, pipe.MaximumPacketSize));
            xfers_.back()->Submit(pipe.PipeHandle);
        }
        active_.assign(inFlight, true);
    }
    ~Streamer() { Stop(); }

    // Waits for the oldest transfer, records it and resubmits it while the
    // transfers succeed. False when none completed in time.
    bool Step(LONGLONG timeout = kvsim::kSecond) {
        if (stopped_ || !active_[next_]) return false;
        auto& t = *xfers_[next_];
        if (!t.irp.Wait(timeout)) return false;
        statuses.push_back(t.irp.Status());
        usbdStatuses.push_back(t.Iso().Hdr.Status);
        completionTimes.push_back(t.irp.CompletedAt());
        startFrames.push_back(t.Iso().StartFrame);
        errorCounts.push_back(t.Iso().ErrorCount);
        if (t.irp.CompletionIrql() != DISPATCH_LEVEL) irqlOk = false;
        for (ULONG i = 0; i < t.Iso().NumberOfPackets; ++i)
            packets.push_back({t.Iso().IsoPacket[i].Length, t.Iso().IsoPacket[i].Status});
        for (auto& p : t.Packets()) {
            maxPacket = std::max(maxPacket, p.data.size());
            decoder_.Push(p);
        }
        for (auto& f : decoder_.TakeFrames()) frames.push_back(std::move(f));
        if (NT_SUCCESS(t.irp.Status())) {
            t.Submit(pipe_.PipeHandle);
        } else {
            failed_ = true;
            active_[next_] = false;
        }
        next_ = (next_ + 1) % xfers_.size();
        return true;
    }
    // Runs until `count` frames in all, a failed transfer, or `timeout`.
    void Frames(size_t count, LONGLONG timeout = 10 * kvsim::kSecond) {
        LONGLONG end = kvsim::Now() + timeout;
        while (frames.size() < count && !failed_ && kvsim::Now() < end && Step(end - kvsim::Now())) {
        }
    }
    // Aborts the pipe and waits for every transfer.
    void Stop() {
        if (stopped_) return;
        stopped_ = true;
        PipeRequest(pdo_, URB_FUNCTION_ABORT_PIPE, pipe_.PipeHandle);
        for (auto& t : xfers_) t->irp.Wait();
    }
    bool Failed() const { return failed_; }
    size_t CountStatus(USBD_STATUS status) const {
        size_t n = 0;
        for (const auto& p : packets) n += p.status == status;
        return n;
    }

    std::vector<ReassembledFrame> frames;
    std::vector<NTSTATUS> statuses;
    std::vector<USBD_STATUS> usbdStatuses;
    std::vector<uint64_t> completionTimes;
    std::vector<ULONG> startFrames, errorCounts;
    std::vector<PacketRecord> packets;
    size_t maxPacket = 0;
    bool irqlOk = true;

private:
    PDEVICE_OBJECT pdo_;
    USBD_PIPE_INFORMATION pipe_;
    std::vector<std::unique_ptr<IsoTransfer>> xfers_;
    Reassembler decoder_;
    std::vector<bool> active_;  // sent and not yet finished with a failure
    size_t next_ = 0;
    bool failed_ = false, stopped_ = false;
};

// The default camera plugged at `speed`, its configuration read and selected
// (alternate setting 0 everywhere); unplugged at the end.
struct Session {
    Plugged dev;
    std::vector<uint8_t> config;
    Configured cfg;
    std::optional<ProbeControl> committed;

    explicit Session(Speed speed = Speed::kHigh) : dev(Plug("default", speed)) {
        if (dev.pdo) config = ReadConfiguration(dev.pdo);
        if (!config.empty()) cfg = SelectConfiguration(dev.pdo, config);
    }
    ~Session() {
        if (dev.pdo) kvsim::usb::Unplug(dev.pdo);
    }
    // The configuration read back byte for byte and selected.
    bool Ready() const {
        return dev.pdo && config == dev.camera->Descriptors().configuration && cfg.status == STATUS_SUCCESS &&
               cfg.usbd == USBD_STATUS_SUCCESS && cfg.handle && cfg.interfaces.size() == 2;
    }
    UvcCamera& Camera() { return *dev.camera; }
    USBD_PIPE_INFORMATION InterruptPipe() const { return cfg.Interface(0)->Pipes[0]; }

    // The smallest alternate setting of the streaming interface whose
    // endpoint carries `payload` bytes a (micro)frame, read from the
    // configuration descriptor as a driver does: (alternate, endpoints).
    std::pair<UCHAR, ULONG> AlternateFor(ULONG payload) {
        auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
        for (LONG alt = 1; alt < 32; ++alt) {
            auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, kVs, alt, -1, -1, -1);
            if (!d) continue;
            auto* e = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
                USBD_ParseDescriptors(cd, cd->wTotalLength, d, USB_ENDPOINT_DESCRIPTOR_TYPE));
            if (e && uvc::IsoCapacity(e->wMaxPacketSize) >= payload) return {UCHAR(alt), d->bNumEndpoints};
        }
        return {0, 0};
    }
    // Probe/commit `format` and `frame` at 30 frames a second, then select
    // the smallest alternate setting that carries `payload` bytes (0: the
    // committed payload; 3072 is the 0x1400 setting, 3 x 1024).
    USBD_PIPE_INFORMATION Stream(UCHAR format = 1, UCHAR frame = 3, ULONG payload = 3072) {
        committed = ProbeCommit(dev.pdo, kVs, format, frame, 333333);
        EXPECT_TRUE(committed.has_value());
        if (!committed) return {};
        auto [alt, endpoints] = AlternateFor(payload ? payload : committed->maxPayloadTransferSize);
        EXPECT_NE(alt, 0);
        Selected sel = SelectInterface(dev.pdo, cfg.handle, kVs, alt, endpoints);
        EXPECT_EQ(sel.status, STATUS_SUCCESS);
        EXPECT_EQ(sel.pipes.size(), 1u);
        if (sel.pipes.empty()) return {};
        EXPECT_EQ(sel.pipes[0].PipeType, UsbdPipeTypeIsochronous);
        EXPECT_GE(sel.pipes[0].MaximumPacketSize, committed->maxPayloadTransferSize);
        return sel.pipes[0];
    }
    // Stream(format, frame, committed payload), `count` frames with
    // `inFlight` transfers, then back to alternate setting 0.
    std::unique_ptr<Streamer> RunFormat(UCHAR format, UCHAR frame, size_t count, size_t inFlight) {
        USBD_PIPE_INFORMATION pipe = Stream(format, frame, 0);
        if (!pipe.PipeHandle) return nullptr;
        auto r = std::make_unique<Streamer>(dev.pdo, pipe, inFlight);
        r->Frames(count);
        r->Stop();
        Selected zero = SelectInterface(dev.pdo, cfg.handle, kVs, 0, 0);
        EXPECT_EQ(zero.status, STATUS_SUCCESS);
        EXPECT_TRUE(zero.pipes.empty());
        return r;
    }
};

}  // namespace usbtest
