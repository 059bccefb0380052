#include "packet_feeder.h"

#include "random.h"

#include <algorithm>
#include <cstring>

// The driver's stream record lets the feeder set up what its start would.
class IsoStreamFeederAccess {
public:
    static NTSTATUS Prepare(IsoStream& s, ULONG width, ULONG height, bool uncompressed, PUSBD_PIPE_INFORMATION pipe)
    {
        s.Attach(nullptr);
        s.m_Width = width;
        s.m_Height = height;
        s.m_Width2 = width * 2;
        s.m_Width3 = width * 3;
        s.m_Uncompressed = uncompressed ? 1 : 0;
        s.m_OutputCompression = 0;
        s.m_ExpectedFrameSize = width * height * 2;
        s.m_StartupPackets = 0;
        s.m_AfterEndOfFrame = 0;
        const SIZE_T cb = FIELD_OFFSET(StreamObject, TransferObjectList) + sizeof(TransferObject*) * MAX_TRANSFERS_IN_FLIGHT;
        s.m_streamObject = static_cast<StreamObject*>(ExAllocatePool(NonPagedPool, cb));
        if (s.m_streamObject == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
        std::memset(s.m_streamObject, 0, cb);
        s.m_streamObject->pPipeInformation = pipe;
        NTSTATUS status = s.AllocateStreamBuffers();
        if (NT_SUCCESS(status)) status = s.AllocateLists();
        if (!NT_SUCCESS(status)) return status;
        // As the transfers at start do: the one descriptor on the free list.
        s.m_streamObject->pFrame = s.m_pFrameBuffer;
        for (ULONG i = 0; i < MAX_TRANSFERS_IN_FLIGHT; ++i) {
            ExInterlockedInsertTailList(s.m_pFreeList, &s.m_pFrameBuffer->ListEntry, s.m_pFreeLock);
        }
        s.m_pCurrentFrame = nullptr;
        return STATUS_SUCCESS;
    }
    static void Release(IsoStream& s)
    {
        if (s.m_streamObject != nullptr) {
            ExFreePool(s.m_streamObject);
            s.m_streamObject = nullptr;
        }
        s.FreeBuffers();
    }
};

namespace kvharness {

PreparedRequest::PreparedRequest(std::span<const IsoPacketIn> packets, ULONG maxPacket)
    : urb_(sizeof(_URB_ISOCH_TRANSFER) + sizeof(USBD_ISO_PACKET_DESCRIPTOR) * std::max<size_t>(packets.size(), 1)),
      data_(std::max<size_t>(packets.size(), 1) * maxPacket)
{
    auto* urb = reinterpret_cast<PURB>(urb_.data());
    auto& iso = urb->UrbIsochronousTransfer;
    iso.Hdr.Length = static_cast<USHORT>(urb_.size());
    iso.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
    iso.Hdr.Status = USBD_STATUS_SUCCESS;
    iso.NumberOfPackets = static_cast<ULONG>(packets.size());
    iso.TransferBuffer = data_.data();
    iso.TransferBufferLength = static_cast<ULONG>(data_.size());
    for (size_t i = 0; i < packets.size(); ++i) {
        // The bus never hands over more than the slot holds.
        const size_t length = std::min<size_t>(packets[i].bytes.size(), maxPacket);
        iso.IsoPacket[i].Offset = static_cast<ULONG>(i * maxPacket);
        iso.IsoPacket[i].Length = static_cast<ULONG>(length);
        iso.IsoPacket[i].Status = packets[i].status;
        std::copy_n(packets[i].bytes.begin(), length, data_.begin() + static_cast<ptrdiff_t>(i * maxPacket));
    }
    transfer_.pUrb = urb;
    transfer_.pDataBuffer = data_.data();
}

PreparedRequest::~PreparedRequest() = default;

IsoStreamFeeder::IsoStreamFeeder(ULONG width, ULONG height, bool uncompressed, ULONG maxPacket)
    : maxPacket_(maxPacket)
{
    pipe_.MaximumPacketSize = static_cast<USHORT>(maxPacket);
    pipe_.PipeType = UsbdPipeTypeIsochronous;
    ok_ = NT_SUCCESS(IsoStreamFeederAccess::Prepare(stream_, width, height, uncompressed, &pipe_));
}

IsoStreamFeeder::~IsoStreamFeeder() { IsoStreamFeederAccess::Release(stream_); }

void IsoStreamFeeder::Process(PreparedRequest& request)
{
    request.transfer().pStream = stream_.m_streamObject;
    request.transfer().FrameSize = stream_.m_pFrameBuffer->Capacity;
    stream_.ProcessRequest(&request.transfer());
}

void IsoStreamFeeder::Feed(std::span<const IsoPacketIn> packets)
{
    PreparedRequest request(packets, maxPacket_);
    Process(request);
}

LONG IsoStreamFeeder::Signalled() { return KeReadStateSemaphore(&stream_.m_FrameSemaphore); }

FrameTally IsoStreamFeeder::Drain()
{
    FrameTally tally;
    LARGE_INTEGER now{};
    while (KeWaitForSingleObject(&stream_.m_FrameSemaphore, Executive, KernelMode, FALSE, &now) == STATUS_SUCCESS) {
        FrameBuffer* frame = stream_.TakeReadyFrame();
        if (frame == nullptr) continue;
        if (InterlockedExchange(&frame->ReadyBad, 0) != 0) {
            ++tally.dropped;
        } else {
            ++tally.delivered;
        }
    }
    return tally;
}

std::vector<IsoPacketIn> FramePackets(std::span<const uint8_t> payload, ULONG maxPacket, uint8_t fid)
{
    constexpr size_t kHeader = 12;
    std::vector<IsoPacketIn> out;
    const size_t chunk = maxPacket - kHeader;
    auto header = [&](uint8_t bits) {
        std::vector<uint8_t> h(kHeader, 0);
        h[0] = kHeader;
        h[1] = static_cast<uint8_t>(0x80 | (fid & 1) | bits);
        return h;
    };
    for (size_t at = 0; at < payload.size(); at += chunk) {
        IsoPacketIn p;
        p.bytes = header(0);
        const size_t n = std::min(chunk, payload.size() - at);
        p.bytes.insert(p.bytes.end(), payload.begin() + static_cast<ptrdiff_t>(at),
                       payload.begin() + static_cast<ptrdiff_t>(at + n));
        out.push_back(std::move(p));
    }
    out.push_back({header(0x02), 0});
    return out;
}

}  // namespace kvharness

namespace kvharness {
namespace {

IsoPacketIn RandomPacket(SplitMix64& r, ULONG maxPacket)
{
    IsoPacketIn p;
    const uint32_t kind = r.Below(10);
    size_t length = kind == 0 ? 0 : kind == 1 ? 12 : r.Below(maxPacket + 1);
    p.bytes.resize(length);
    for (auto& b : p.bytes) b = static_cast<uint8_t>(r.Next());
    if (length > 0 && !r.OneIn(8)) p.bytes[0] = 12;  // mostly a payload header
    if (length > 1 && r.OneIn(6)) p.bytes[1] |= 0x02;
    if (r.OneIn(30)) p.status = static_cast<LONG>(USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);
    return p;
}

}  // namespace

FuzzReport FuzzPackets(uint64_t seed, uint64_t packetCount)
{
    FuzzReport report;
    SplitMix64 r(seed);
    constexpr ULONG kSizes[][2] = {{16, 8}, {32, 4}, {8, 2}};
    for (int round = 0; report.packets < packetCount && report.problem.empty(); ++round) {
        const auto* size = kSizes[round % 3];
        IsoStreamFeeder feeder(size[0], size[1], (round & 1) == 0, 16 + r.Below(64));
        if (!feeder.ok()) {
            report.problem = "the stream could not be set up";
            break;
        }
        for (int request = 0; request < 64 && report.packets < packetCount; ++request) {
            std::vector<IsoPacketIn> packets(1 + r.Below(32));
            for (auto& p : packets) p = RandomPacket(r, feeder.maxPacket());
            feeder.Feed(packets);
            report.packets += packets.size();
            ++report.requests;
            const FrameBuffer* current = feeder.stream().m_pCurrentFrame;
            if (current != nullptr && current->WriteOffset > current->Capacity) {
                report.problem = "a frame grew past its capacity";
                break;
            }
            const LONG signalled = feeder.Signalled();
            const FrameTally tally = feeder.Drain();
            if (tally.delivered + tally.dropped != static_cast<uint64_t>(signalled)) {
                report.problem = "a finished frame was neither delivered nor dropped";
                break;
            }
            report.frames.delivered += tally.delivered;
            report.frames.dropped += tally.dropped;
        }
    }
    return report;
}

}  // namespace kvharness
