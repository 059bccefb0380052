// A streaming client on top of the lifecycle rig: the capture pin opened with
// one of the formats the filter advertises, run with a master clock, buffers
// queued, frames collected and their stamps read back.
#pragma once
#include <cstring>
#include <optional>
#include <vector>

#include "camera/frame_source.h"
#include "imaging/primitives.h"
#include "lifecycle_rig.h"

namespace stream_rig {

using namespace lifecycle_rig;

// An advertised capture format: its range and the format made from it.
struct Offer {
    KS_DATARANGE_VIDEO range;
    KS_DATAFORMAT_VIDEOINFOHEADER format;
    LONG Width() const { return format.VideoInfoHeader.bmiHeader.biWidth; }
    LONG Height() const { return format.VideoInfoHeader.bmiHeader.biHeight; }
    ULONG Compression() const { return format.VideoInfoHeader.bmiHeader.biCompression; }
    ULONG ImageSize() const { return format.VideoInfoHeader.bmiHeader.biSizeImage; }
};

inline std::vector<Offer> CaptureOffers(kvsim::client::Filter& filter)
{
    std::vector<std::vector<uint8_t>> ranges;
    std::vector<Offer> offers;
    if (filter.PinDataRanges(KV_PIN_CAPTURE, &ranges) != STATUS_SUCCESS) return offers;
    for (const auto& bytes : ranges) {
        if (bytes.size() < sizeof(KS_DATARANGE_VIDEO)) continue;
        Offer o{};
        std::memcpy(&o.range, bytes.data(), sizeof(o.range));
        std::memcpy(&o.format.DataFormat, &o.range.DataRange, sizeof(KSDATAFORMAT));
        o.format.DataFormat.FormatSize = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
        o.format.VideoInfoHeader = o.range.VideoInfoHeader;
        offers.push_back(o);
    }
    return offers;
}

// The frame-number stamp of a delivered frame, read from YUY2 or from
// bottom-up RGB (turned back into YUY2 first).
inline std::optional<uint32_t> StampOf(const Offer& offer, const std::vector<uint8_t>& data)
{
    const auto w = static_cast<uint16_t>(offer.Width());
    const auto h = static_cast<uint16_t>(offer.Height());
    if (offer.Compression() != 0) return kvsim::camera::ReadFrameNumber(data, w, h);
    if (data.size() < size_t{w} * h * 3) return std::nullopt;
    std::vector<uint8_t> yuy2(size_t{w} * h * 2);
    Rgb24ToYuy2BottomUp(data.data(), w * 3, yuy2.data(), w * 2, w, h);
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
