// Feeds isochronous requests built in memory through the driver's payload
// processing, with no bus and no scheduler: what a transfer's completion
// does with its packets (parse, collect, hand finished frames to the ready
// list), and what the frame loop does with each finished frame (take it,
// count it as delivered or dropped). For the payload tests, the fuzzer and
// the reassembly benchmark.
#pragma once
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "streaming/isostream.h"

namespace kvharness {

struct IsoPacketIn {
    std::vector<uint8_t> bytes;  // what the camera sent in this slot (may be longer than the slot)
    LONG status = 0;             // its USBD status (USBD_STATUS_SUCCESS or an error)
};

// One request as the bus completes it: its URB and data buffer.
class PreparedRequest {
public:
    PreparedRequest(std::span<const IsoPacketIn> packets, ULONG maxPacket);
    ~PreparedRequest();
    PreparedRequest(const PreparedRequest&) = delete;
    PreparedRequest& operator=(const PreparedRequest&) = delete;
    TransferObject& transfer() { return transfer_; }

private:
    TransferObject transfer_{};
    std::vector<uint8_t> urb_;
    std::vector<uint8_t> data_;
};

struct FrameTally {
    uint64_t delivered = 0;
    uint64_t dropped = 0;
};

class IsoStreamFeeder {
public:
    // A stream of width x height frames (uncompressed: YUY2, else motion
    // JPEG) whose requests carry up to `maxPacket` bytes a packet.
    IsoStreamFeeder(ULONG width, ULONG height, bool uncompressed, ULONG maxPacket = 3072);
    ~IsoStreamFeeder();
    IsoStreamFeeder(const IsoStreamFeeder&) = delete;
    IsoStreamFeeder& operator=(const IsoStreamFeeder&) = delete;
    bool ok() const { return ok_; }
    ULONG maxPacket() const { return maxPacket_; }

    // The completion path's processing of one request.
    void Process(PreparedRequest& request);
    void Feed(std::span<const IsoPacketIn> packets);
    // Every finished frame taken as the frame loop takes them.
    FrameTally Drain();
    // Finished frames signalled and not yet taken.
    LONG Signalled();

    IsoStream& stream() { return stream_; }
    const uint8_t* ready() const { return stream_.m_pReadyBuffer; }
    ULONG capacity() const { return stream_.m_ExpectedFrameSize; }

private:
    IsoStream stream_;
    USBD_PIPE_INFORMATION pipe_{};
    ULONG maxPacket_;
    bool ok_ = false;
};

// Packets of one whole frame as a camera sends it: 12-byte headers (the
// end-of-frame bit on a header-only packet closing the frame).
std::vector<IsoPacketIn> FramePackets(std::span<const uint8_t> payload, ULONG maxPacket, uint8_t fid);

}  // namespace kvharness

namespace kvharness {

// Random packet sequences through the payload path (lengths 0 to the slot
// size, random header bytes and bits, error statuses, ends of frame at
// random places), on small YUY2 and motion-JPEG streams in turn. Every
// finished frame must be taken as delivered or dropped, and no frame may
// grow past its capacity; the first broken rule is reported.
struct FuzzReport {
    uint64_t packets = 0;
    uint64_t requests = 0;
    FrameTally frames;
    std::string problem;  // empty when every rule held
};
FuzzReport FuzzPackets(uint64_t seed, uint64_t packetCount);

}  // namespace kvharness
