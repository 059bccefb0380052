// The capture formats a filter advertises, each as the range the pin
// answered and the format a client would connect with (the range's video
// info as it stands), as an application's format enumeration gives them.
#pragma once
#include <cstring>
#include <vector>

#include "client/ks_client.h"
#include "device/descriptors.h"

namespace kvharness {

struct CaptureOffer {
    KS_DATARANGE_VIDEO range;
    KS_DATAFORMAT_VIDEOINFOHEADER format;
    LONG Width() const { return format.VideoInfoHeader.bmiHeader.biWidth; }
    LONG Height() const { return format.VideoInfoHeader.bmiHeader.biHeight; }
    ULONG Compression() const { return format.VideoInfoHeader.bmiHeader.biCompression; }
    ULONG ImageSize() const { return format.VideoInfoHeader.bmiHeader.biSizeImage; }
};

// The offers of pin `pinId` (the capture pin's or the still pin's).
inline std::vector<CaptureOffer> PinOffers(kvsim::client::Filter& filter, ULONG pinId)
{
    std::vector<std::vector<uint8_t>> ranges;
    std::vector<CaptureOffer> offers;
    if (filter.PinDataRanges(pinId, &ranges) != STATUS_SUCCESS) return offers;
    for (const auto& bytes : ranges) {
        if (bytes.size() < sizeof(KS_DATARANGE_VIDEO)) continue;
        CaptureOffer o{};
        std::memcpy(&o.range, bytes.data(), sizeof(o.range));
        std::memcpy(&o.format.DataFormat, &o.range.DataRange, sizeof(KSDATAFORMAT));
        o.format.DataFormat.FormatSize = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
        o.format.VideoInfoHeader = o.range.VideoInfoHeader;
        offers.push_back(o);
    }
    return offers;
}

inline std::vector<CaptureOffer> CaptureOffers(kvsim::client::Filter& filter)
{
    return PinOffers(filter, KV_PIN_CAPTURE);
}

}  // namespace kvharness
