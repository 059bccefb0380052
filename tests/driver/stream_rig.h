// A streaming client on top of the lifecycle rig: the capture pin opened with
// one of the formats the filter advertises, run with a master clock, buffers
// queued, frames collected and their stamps read back.
#pragma once
#include <cstring>
#include <optional>
#include <vector>

#include "camera/frame_source.h"
#include "capture_offers.h"
#include "imaging/primitives.h"
#include "lifecycle_rig.h"

namespace stream_rig {

using namespace lifecycle_rig;

using Offer = kvharness::CaptureOffer;
using kvharness::CaptureOffers;

// The frame-number stamp of a delivered frame, read from YUY2 or from
// bottom-up RGB (turned back into YUY2 first).
inline std::optional<uint32_t> StampOf(const Offer& offer, const std::vector<uint8_t>& data)
{
    const auto w = static_cast<uint16_t>(offer.Width());
    const auto h = static_cast<uint16_t>(offer.Height());
    if (offer.Compression() != 0) return kvsim::camera::ReadFrameNumber(data, w, h);
    if (data.size() < size_t{w} * h * 3) return std::nullopt;
    std::vector<uint8_t> yuy2(size_t{w} * h * 2);
    kv::Rgb24ToYuy2BottomUp(data.data(), w * 3, yuy2.data(), w * 2, w, h);
    return kvsim::camera::ReadFrameNumber(yuy2, w, h);
}

// A capture pin streaming one offer.
class Stream {
public:
    Stream(kvsim::client::Filter& filter, const Offer& offer, bool withClock = true) : offer_(offer)
    {
        status_ = filter.CreatePin(KV_PIN_CAPTURE, &offer_.format.DataFormat, &pin_);
        if (status_ == STATUS_SUCCESS && withClock) status_ = pin_->SetMasterClock(clock_.handle());
    }
    ~Stream()
    {
        if (pin_) {
            pin_->SetState(KSSTATE_STOP);
            pin_->Close();
        }
    }
    NTSTATUS status() const { return status_; }
    kvsim::client::Pin& pin() { return *pin_; }
    const Offer& offer() const { return offer_; }

    NTSTATUS Run(ULONG buffers = 4)
    {
        NTSTATUS s = pin_->SetState(KSSTATE_RUN);
        if (s == STATUS_SUCCESS) pin_->QueueBuffers(buffers, bufferSize());
        return s;
    }
    ULONG bufferSize() const { return offer_.ImageSize(); }

    // Frames completed within `timeout`, with at least `count` wanted; each
    // completed buffer is queued again.
    std::vector<kvsim::client::Frame> Collect(size_t count, LONGLONG timeout = 10 * kvsim::kSecond)
    {
        std::vector<kvsim::client::Frame> all;
        LONGLONG left = timeout;
        while (all.size() < count && left > 0) {
            const LONGLONG slice = kvsim::kSecond / 10;
            pin_->WaitForFrames(1, slice);
            left -= slice;
            for (auto& f : pin_->CollectFrames()) {
                if (f.status == STATUS_SUCCESS) pin_->QueueBuffers(1, bufferSize());
                all.push_back(std::move(f));
            }
        }
        return all;
    }

private:
    Offer offer_;
    kvsim::client::MasterClock clock_;
    std::unique_ptr<kvsim::client::Pin> pin_;
    NTSTATUS status_ = STATUS_UNSUCCESSFUL;
};

}  // namespace stream_rig
