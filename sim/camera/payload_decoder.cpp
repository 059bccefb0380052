// The reference payload reassembler (payload_decoder.h).
#include "payload_decoder.h"

namespace kvsim::camera {

void Reassembler::Push(const IsoPacket& p) { Push(p.data, p.status); }

void Reassembler::Close(bool eof) {
    if (!current_) return;
    current_->eof = eof;
    done_.push_back(std::move(*current_));
    current_.reset();
}

void Reassembler::Push(std::span<const uint8_t> d, PacketStatus status) {
    maxPacket_ = std::max(maxPacket_, d.size());
    if (status != PacketStatus::kOk) {
        if (current_) current_->bad = true;
        else pendingBad_ = true;  // e.g. the lost first packet of a frame
    }
    if (d.empty()) {
        ++empty_;
        return;
    }
    uint8_t hl = d[0];
    if (hl < 2 || hl > d.size()) {
        ++badHeaders_;
        if (current_) current_->bad = true;
        return;
    }
    uint8_t info = d[1];
    uint8_t fid = info & uvc::kHeaderFid;
    bool eof = (info & uvc::kHeaderEof) != 0;
    if (current_ && current_->fid != fid) Close(false);
    auto payload = d.subspan(hl);
    if (!current_) {
        if (payload.empty() && eof) return;  // an EOF for a frame we never saw
        current_.emplace();
        current_->fid = fid;
        current_->bad = pendingBad_;
        pendingBad_ = false;
    }
    ++current_->packets;
    if ((info & uvc::kHeaderPts) && hl >= 6 && !current_->pts) current_->pts = uvc::Rd32(d, 2);
    if (info & uvc::kHeaderError) current_->bad = current_->errBit = true;
    current_->data.insert(current_->data.end(), payload.begin(), payload.end());
    if (eof) {
        if (payload.empty() && hl == uvc::kPayloadHeaderSize) ++current_->headerOnlyEof;
        Close(true);
    }
}

std::vector<ReassembledFrame> Reassembler::TakeFrames() {
    auto out = std::move(done_);
    done_.clear();
    return out;
}

}  // namespace kvsim::camera
