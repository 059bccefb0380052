// kvcam stream's button, trigger, still and still-event handling.
#include "stream_events.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include "device/descriptors.h"
#include "ksmedia.h"

namespace kvcam {
namespace {

constexpr LONGLONG kHundredNsPerMs = 10'000;
constexpr LONGLONG kHundredNsPerSecond = 10'000'000;
// How the button's gestures are played: a click is held 100 ms; a double
// click's second press comes 250 ms after the first (the driver's window for
// the second click is 400 ms); a long press is held past the driver's 2 s.
constexpr LONGLONG kClickHold = 100 * kHundredNsPerMs;
constexpr LONGLONG kDoubleGap = 250 * kHundredNsPerMs;
constexpr LONGLONG kLongHold = 2500 * kHundredNsPerMs;
// The still pin's stream index in the video-control properties.
constexpr ULONG kStillStreamIndex = 2;
constexpr ULONG kStillBuffers = 2;

}  // namespace

bool ParseEventTime(std::string_view text, LONGLONG* at)
{
    LONGLONG unit = kHundredNsPerSecond;
    if (text.size() > 2 && text.substr(text.size() - 2) == "ms") {
        unit = kHundredNsPerMs;
        text.remove_suffix(2);
    } else if (!text.empty() && text.back() == 's') {
        text.remove_suffix(1);
    }
    const std::string number(text);
    char* end = nullptr;
    const double value = std::strtod(number.c_str(), &end);
    if (number.empty() || end != number.c_str() + number.size() || !(value >= 0) || value > 3600.0 * 1000) {
        return false;
    }
    *at = static_cast<LONGLONG>(value * double(unit));
    return true;
}

std::string ParseButtonAt(std::string_view text, std::vector<ButtonPacket>& packets)
{
    const size_t colon = text.find(':');
    LONGLONG at = 0;
    if (colon == std::string_view::npos || !ParseEventTime(text.substr(0, colon), &at)) {
        return "--button-at '" + std::string(text) + "' is not TIME:KIND (e.g. 2s:click)";
    }
    const std::string_view kind = text.substr(colon + 1);
    auto click = [&](LONGLONG t) {
        packets.push_back({t, true});
        packets.push_back({t + kClickHold, false});
    };
    if (kind == "press") {
        packets.push_back({at, true});
    } else if (kind == "release") {
        packets.push_back({at, false});
    } else if (kind == "click") {
        click(at);
    } else if (kind == "double") {
        click(at);
        click(at + kDoubleGap);
    } else if (kind == "long") {
        packets.push_back({at, true});
        packets.push_back({at + kLongHold, false});
    } else {
        return "--button-at: unknown button action '" + std::string(kind) + "' (press, release, click, double, long)";
    }
    return {};
}

StreamTimeline::StreamTimeline(std::vector<ButtonPacket> buttons, std::vector<LONGLONG> triggers)
    : buttons_(std::move(buttons)), triggers_(std::move(triggers))
{
    std::stable_sort(buttons_.begin(), buttons_.end(),
                     [](const ButtonPacket& a, const ButtonPacket& b) { return a.at < b.at; });
    std::sort(triggers_.begin(), triggers_.end());
}

void StreamTimeline::Run(LONGLONG elapsed, kvharness::System& system)
{
    for (; nextButton_ < buttons_.size() && buttons_[nextButton_].at <= elapsed; ++nextButton_) {
        if (system.camera()) system.camera()->QueueButton(buttons_[nextButton_].pressed);
    }
    for (; nextTrigger_ < triggers_.size() && triggers_[nextTrigger_] <= elapsed; ++nextTrigger_) {
        // The trigger as a still-capture application sends it: MODE of the
        // still stream with the trigger flag.
        KSPROPERTY_VIDEOCONTROL_MODE_S mode{};
        mode.StreamIndex = kStillStreamIndex;
        mode.Mode = KS_VideoControlFlag_Trigger;
        const auto reply = system.filter()->Property(
            PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_MODE, KSPROPERTY_TYPE_SET, &mode, sizeof(mode),
            reinterpret_cast<const uint8_t*>(&mode) + sizeof(KSPROPERTY), sizeof(mode) - sizeof(KSPROPERTY));
        if (reply.status != STATUS_SUCCESS) ++triggersRefused_;
    }
}

bool StillSink::Open(kvharness::System& system, LONG captureWidth, LONG captureHeight, std::string path,
                     std::string* error)
{
    path_ = std::move(path);
    const auto offers = kvharness::PinOffers(*system.filter(), KV_PIN_STILL);
    if (offers.empty()) {
        *error = "the still pin offers no format";
        return false;
    }
    const kvharness::CaptureOffer* chosen = &offers.front();
    for (const auto& offer : offers) {
        if (offer.Width() == captureWidth && offer.Height() == captureHeight) {
            chosen = &offer;
            break;
        }
    }
    kvharness::CaptureOffer offer = *chosen;
    format_.width = static_cast<uint32_t>(offer.Width());
    format_.height = static_cast<uint32_t>(offer.Height() < 0 ? -offer.Height() : offer.Height());
    format_.layout = offer.Compression() == 0 ? kvharness::PixelLayout::Bgr24BottomUp : kvharness::PixelLayout::Yuy2;
    imageSize_ = offer.ImageSize();
    NTSTATUS status = system.filter()->CreatePin(KV_PIN_STILL, &offer.format.DataFormat, &pin_);
    if (status == STATUS_SUCCESS) status = pin_->SetState(KSSTATE_RUN);
    if (status != STATUS_SUCCESS) {
        char text[64];
        std::snprintf(text, sizeof text, "the still pin did not open (0x%08X)", static_cast<unsigned>(status));
        *error = text;
        Close();
        return false;
    }
    pin_->QueueBuffers(kStillBuffers, imageSize_);
    return true;
}

bool StillSink::Collect(LONGLONG elapsed, std::string* error)
{
    if (!pin_) return true;
    for (auto& frame : pin_->CollectFrames()) {
        pin_->QueueBuffers(1, imageSize_);
        // A buffer the driver passed over (too small) comes back empty.
        if (frame.status != STATUS_SUCCESS || frame.data.size() < kvharness::FrameBytes(format_)) continue;
        ++written_;
        std::string file = path_;
        if (written_ > 1) {
            const std::filesystem::path p(path_);
            file = (p.parent_path() / (p.stem().string() + "-" + std::to_string(written_) + p.extension().string()))
                       .string();
        }
        if (!kvharness::WritePng(file, frame.data, format_, error)) return false;
        files_.push_back(file);
        times_.push_back(elapsed);
    }
    return true;
}

void StillSink::Close()
{
    if (!pin_) return;
    pin_->SetState(KSSTATE_STOP);
    pin_->CollectFrames();
    pin_->Close();
    pin_.reset();
}

bool StillEventCounter::Enable(kvsim::client::Filter& filter)
{
    waiter_ = std::make_unique<kvsim::client::EventWaiter>();
    return waiter_->Enable(filter, KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER) == STATUS_SUCCESS;
}

void StillEventCounter::Poll()
{
    if (waiter_ && waiter_->IsSignalled()) {
        waiter_->Wait(0);
        ++count_;
    }
}

}  // namespace kvcam
