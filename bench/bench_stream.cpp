// Benchmark of an isochronous stream on the simulated USB bus: the default
// virtual camera streams 640x480 YUY2 at 30 frames a second (simulated)
// through isochronous URBs that the benchmark, in a client driver's role,
// keeps in flight; the packets are reassembled into frames. One iteration
// is one whole frame delivered; the figures are host time per frame, frames
// and bytes of picture a (host) second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "camera/payload_decoder.h"
#include "camera/uvc_camera.h"
#include "kvsim/sched.h"
#include "usb/usb_bus.h"
#include "usbdlib.h"

namespace {

namespace cam = kvsim::camera;

constexpr UCHAR kStreamingInterface = 1;  // the default camera's
constexpr UCHAR kYuy2Format = 1, kVgaFrame = 1;
constexpr ULONG kInterval = 333333;
constexpr ULONG kFrameBytes = 640 * 480 * 2;
constexpr ULONG kPacketsPerTransfer = 64;
constexpr size_t kTransfersInFlight = 3;

// An IRP sent down with an URB and kept by its completion routine.
class UrbIrp {
public:
    explicit UrbIrp(PDEVICE_OBJECT pdo) : pdo_(pdo), irp_(IoAllocateIrp(pdo->StackSize, FALSE)) {}
    ~UrbIrp() { IoFreeIrp(irp_); }
    UrbIrp(const UrbIrp&) = delete;
    UrbIrp& operator=(const UrbIrp&) = delete;

    void Send(PURB urb) {
        IoReuseIrp(irp_, STATUS_NOT_SUPPORTED);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        next->Parameters.Others.Argument1 = urb;
        IoSetCompletionRoutine(irp_, &UrbIrp::Completed, this, TRUE, TRUE, TRUE);
        done_ = false;
        IoCallDriver(pdo_, irp_);
    }
    bool Wait() { return kvsim::RunUntil([this] { return done_; }, kvsim::kSecond); }
    NTSTATUS Status() const { return status_; }

private:
    static NTSTATUS Completed(PDEVICE_OBJECT, PIRP irp, PVOID context) {
        auto* self = static_cast<UrbIrp*>(context);
        self->status_ = irp->IoStatus.Status;
        self->done_ = true;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    PDEVICE_OBJECT pdo_;
    PIRP irp_;
    volatile bool done_ = false;
    NTSTATUS status_ = STATUS_PENDING;
};

NTSTATUS SubmitAndWait(PDEVICE_OBJECT pdo, PURB urb) {
    UrbIrp irp(pdo);
    irp.Send(urb);
    return irp.Wait() ? irp.Status() : STATUS_IO_TIMEOUT;
}

// 8-byte aligned zeroed URB storage, never smaller than the URB union (the
// usbdlib builders write through a PURB).
std::vector<uint64_t> UrbStorage(size_t bytes) {
    return std::vector<uint64_t>((std::max(bytes, sizeof(URB)) + 7) / 8 + 1, 0);
}

std::vector<uint8_t> ReadConfiguration(PDEVICE_OBJECT pdo) {
    auto read = [&](ULONG length) -> std::vector<uint8_t> {
        auto storage = UrbStorage(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
        auto* urb = reinterpret_cast<PURB>(storage.data());
        std::vector<uint8_t> buffer(length);
        UsbBuildGetDescriptorRequest(urb, (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                     USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0, buffer.data(), nullptr, length, nullptr);
        if (!NT_SUCCESS(SubmitAndWait(pdo, urb))) return {};
        buffer.resize(urb->UrbControlDescriptorRequest.TransferBufferLength);
        return buffer;
    };
    std::vector<uint8_t> head = read(9);
    if (head.size() < 9) return {};
    return read(head[2] | head[3] << 8);
}

// SELECT_CONFIGURATION with alternate setting 0 everywhere.
USBD_CONFIGURATION_HANDLE SelectConfiguration(PDEVICE_OBJECT pdo, std::vector<uint8_t>& config) {
    auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
    std::vector<USBD_INTERFACE_LIST_ENTRY> list;
    for (LONG n = 0; n < cd->bNumInterfaces; ++n) {
        if (auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, n, 0, -1, -1, -1)) list.push_back({d, nullptr});
    }
    list.push_back({nullptr, nullptr});
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list.data());
    if (!urb) return nullptr;
    USBD_CONFIGURATION_HANDLE handle = nullptr;
    if (NT_SUCCESS(SubmitAndWait(pdo, urb))) handle = urb->UrbSelectConfiguration.ConfigurationHandle;
    ExFreePool(urb);
    return handle;
}

NTSTATUS ClassRequest(PDEVICE_OBJECT pdo, bool in, UCHAR request, USHORT value, USHORT index,
                      std::vector<uint8_t>& data) {
    auto storage = UrbStorage(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
    auto* urb = reinterpret_cast<PURB>(storage.data());
    UsbBuildVendorRequest(urb, URB_FUNCTION_CLASS_INTERFACE, (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                          in ? (USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK) : 0, 0, request, value, index,
                          data.data(), nullptr, (ULONG)data.size(), nullptr);
    NTSTATUS status = SubmitAndWait(pdo, urb);
    if (in) data.resize(urb->UrbControlVendorClassRequest.TransferBufferLength);
    return status;
}

// Probe and commit; the camera's answer (dwMaxPayloadTransferSize).
std::optional<cam::ProbeControl> ProbeCommit(PDEVICE_OBJECT pdo) {
    cam::ProbeControl want;
    want.formatIndex = kYuy2Format;
    want.frameIndex = kVgaFrame;
    want.frameInterval = kInterval;
    auto bytes = want.Pack();
    if (!NT_SUCCESS(ClassRequest(pdo, false, cam::uvc::kSetCur, 0x0100, kStreamingInterface, bytes))) return {};
    std::vector<uint8_t> got(26);
    if (!NT_SUCCESS(ClassRequest(pdo, true, cam::uvc::kGetCur, 0x0100, kStreamingInterface, got)) || got.size() < 26) {
        return {};
    }
    if (!NT_SUCCESS(ClassRequest(pdo, false, cam::uvc::kSetCur, 0x0200, kStreamingInterface, got))) return {};
    return cam::ProbeControl::Unpack(got);
}

// The smallest alternate setting whose endpoint carries `payload` bytes a
// microframe; selects it and returns its pipe.
std::optional<USBD_PIPE_INFORMATION> SelectAlternate(PDEVICE_OBJECT pdo, std::vector<uint8_t>& config,
                                                     USBD_CONFIGURATION_HANDLE handle, ULONG payload) {
    auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
    for (LONG alt = 1; alt < 32; ++alt) {
        auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, kStreamingInterface, alt, -1, -1, -1);
        if (!d) continue;
        auto* e = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
            USBD_ParseDescriptors(cd, cd->wTotalLength, d, USB_ENDPOINT_DESCRIPTOR_TYPE));
        if (!e || cam::uvc::IsoCapacity(e->wMaxPacketSize) < payload) continue;
        auto size = (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(1);
        auto storage = UrbStorage(size);
        auto* urb = reinterpret_cast<PURB>(storage.data());
        UsbBuildSelectInterfaceRequest(urb, size, handle, kStreamingInterface, static_cast<UCHAR>(alt));
        if (!NT_SUCCESS(SubmitAndWait(pdo, urb)) || urb->UrbSelectInterface.Interface.NumberOfPipes < 1) return {};
        return urb->UrbSelectInterface.Interface.Pipes[0];
    }
    return {};
}

// One isochronous transfer kept in flight.
struct IsoTransfer {
    IsoTransfer(PDEVICE_OBJECT pdo, ULONG packetSize)
        : irp(pdo), storage(UrbStorage(GET_ISO_URB_SIZE(kPacketsPerTransfer))),
          buffer(size_t(kPacketsPerTransfer) * packetSize), packetSize(packetSize) {}
    PURB urb() { return reinterpret_cast<PURB>(storage.data()); }
    void Submit(USBD_PIPE_HANDLE pipe) {
        std::memset(storage.data(), 0, storage.size() * sizeof(uint64_t));
        auto& u = urb()->UrbIsochronousTransfer;
        u.Hdr.Length = (USHORT)GET_ISO_URB_SIZE(kPacketsPerTransfer);
        u.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
        u.PipeHandle = pipe;
        u.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK | USBD_START_ISO_TRANSFER_ASAP;
        u.TransferBuffer = buffer.data();
        u.TransferBufferLength = kPacketsPerTransfer * packetSize;
        u.NumberOfPackets = kPacketsPerTransfer;
        for (ULONG i = 0; i < kPacketsPerTransfer; ++i) u.IsoPacket[i].Offset = i * packetSize;
        irp.Send(urb());
    }
    void FeedTo(cam::Reassembler& decoder) {
        auto& u = urb()->UrbIsochronousTransfer;
        for (ULONG i = 0; i < u.NumberOfPackets; ++i) {
            const auto& d = u.IsoPacket[i];
            decoder.Push(std::span<const uint8_t>(buffer.data() + d.Offset, d.Length),
                         USBD_SUCCESS(d.Status) ? cam::PacketStatus::kOk : cam::PacketStatus::kNotAccessed);
        }
    }
    UrbIrp irp;
    std::vector<uint64_t> storage;
    std::vector<uint8_t> buffer;
    ULONG packetSize;
};

void AbortPipe(PDEVICE_OBJECT pdo, USBD_PIPE_HANDLE pipe) {
    auto storage = UrbStorage(sizeof(struct _URB_PIPE_REQUEST));
    auto* urb = reinterpret_cast<PURB>(storage.data());
    urb->UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
    urb->UrbHeader.Function = URB_FUNCTION_ABORT_PIPE;
    urb->UrbPipeRequest.PipeHandle = pipe;
    SubmitAndWait(pdo, urb);
}

void BM_IsochronousStreamVgaYuy2(benchmark::State& state) {
    std::shared_ptr<cam::UvcCamera> camera = cam::UvcCamera::CreateDefault();
    PDEVICE_OBJECT pdo = kvsim::usb::PlugCamera(camera, kvsim::usb::Speed::kHigh);
    std::vector<uint8_t> config = ReadConfiguration(pdo);
    USBD_CONFIGURATION_HANDLE handle = config.empty() ? nullptr : SelectConfiguration(pdo, config);
    auto committed = handle ? ProbeCommit(pdo) : std::nullopt;
    auto pipe = committed ? SelectAlternate(pdo, config, handle, committed->maxPayloadTransferSize) : std::nullopt;
    if (!pipe) {
        state.SkipWithError("could not set up the stream");
        kvsim::usb::Unplug(pdo);
        return;
    }
    std::vector<std::unique_ptr<IsoTransfer>> transfers;
    for (size_t i = 0; i < kTransfersInFlight; ++i) {
        transfers.push_back(std::make_unique<IsoTransfer>(pdo, pipe->MaximumPacketSize));
        transfers.back()->Submit(pipe->PipeHandle);
    }
    cam::Reassembler decoder;
    size_t next = 0, frames = 0, badFrames = 0;
    LONGLONG simulatedStart = kvsim::Now();
    bool failed = false;
    for (auto _ : state) {
        // Complete transfers in order until one more whole frame is out.
        for (;;) {
            IsoTransfer& t = *transfers[next];
            if (!t.irp.Wait() || !NT_SUCCESS(t.irp.Status())) {
                failed = true;
                break;
            }
            t.FeedTo(decoder);
            t.Submit(pipe->PipeHandle);
            next = (next + 1) % transfers.size();
            auto done = decoder.TakeFrames();
            size_t whole = 0;
            for (auto& f : done) {
                if (!f.bad && f.eof && f.data.size() == kFrameBytes) ++whole;
                else ++badFrames;
            }
            if (whole) {
                frames += whole;
                break;
            }
        }
        if (failed) break;
    }
    LONGLONG simulated = kvsim::Now() - simulatedStart;
    AbortPipe(pdo, pipe->PipeHandle);
    for (auto& t : transfers) t->irp.Wait();
    transfers.clear();
    kvsim::usb::Unplug(pdo);
    if (failed) {
        state.SkipWithError("a transfer failed");
        return;
    }
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.SetBytesProcessed(static_cast<int64_t>(frames) * kFrameBytes);
    state.counters["bad_frames"] = static_cast<double>(badFrames);
    // Simulated frames a simulated second (30 when the bus keeps up).
    state.counters["sim_fps"] = simulated > 0 ? double(frames) * kvsim::kSecond / double(simulated) : 0.0;
}
BENCHMARK(BM_IsochronousStreamVgaYuy2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
