// A reference decoder of what the virtual camera sends: strips the
// UVC payload headers of isochronous packets and splits the payload into
// frames on FID changes and EOF bits, the way a careful host driver does
// (UVC 1.1 section 2.4.3.3; Linux uvcvideo's rules). Used by the camera's
// tests and by the bus tests; it is written apart from kvdrv's own
// reassembly, so that the two can be compared.
//
// Protocol, per packet:
//   status not kOk        -> the frame being collected is marked bad (a lost
//                            packet: its bytes are missing);
//   no data               -> ignored;
//   bad header            -> (bHeaderLength < 2 or beyond the packet) the
//                            frame is marked bad, the packet dropped;
//   FID differs from the frame being collected -> that frame is closed
//                            without EOF (missing end of frame), a new starts;
//   payload               -> appended;
//   EOF bit               -> the frame is closed with eof = true.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "uvc_camera.h"

namespace kvsim::camera {

struct ReassembledFrame {
    std::vector<uint8_t> data;
    uint8_t fid = 0;
    bool eof = false;          // closed by an EOF bit (else by a FID change)
    bool bad = false;          // a packet error status, a lost packet or the ERR bit
    bool errBit = false;       // the header's ERR bit was seen
    size_t packets = 0;        // packets with a header that belonged to it
    size_t headerOnlyEof = 0;  // 12-byte header-only packets with EOF that closed it
    std::optional<uint32_t> pts;
};

class Reassembler {
public:
    void Push(const IsoPacket& packet);
    void Push(std::span<const uint8_t> data, PacketStatus status = PacketStatus::kOk);
    // Frames closed so far, oldest first.
    std::vector<ReassembledFrame> TakeFrames();
    size_t MaxPacketSize() const { return maxPacket_; }
    size_t PacketsWithoutHeader() const { return badHeaders_; }
    size_t EmptyPackets() const { return empty_; }

private:
    void Close(bool eof);
    std::optional<ReassembledFrame> current_;
    std::vector<ReassembledFrame> done_;
    bool pendingBad_ = false;
    size_t maxPacket_ = 0, badHeaders_ = 0, empty_ = 0;
};

}  // namespace kvsim::camera
