// `kvcam stream`: the main job. Opens the capture pin as a video application
// does (a format the filter offers, a master clock, buffers queued, run,
// frames collected, stop) and writes what arrives to files any player opens.
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "camera/frame_source.h"
#include "capture_offers.h"
#include "commands.h"
#include "controls/settings.h"
#include "device/device.h"
#include "json.h"
#include "media_files.h"
#include "system_options.h"
#include "stream_events.h"
#include "tunnel.h"

namespace kvcam {
namespace {

constexpr ULONG kBuffersQueued = 4;
constexpr LONGLONG kHundredNsPerSecond = 10'000'000;

struct FormatName {
    std::string_view name;
    ULONG compression;
    kvharness::PixelLayout layout;
};
constexpr FormatName kFormats[] = {
    {"yuy2", kv::kFourccYuy2, kvharness::PixelLayout::Yuy2},
    {"rgb24", 0, kvharness::PixelLayout::Bgr24BottomUp},
    {"mjpg", kv::kFourccMjpg, kvharness::PixelLayout::Mjpeg},
    {"i420", kv::kFourccI420, kvharness::PixelLayout::Yuy2},
};

struct StreamOptions {
    const FormatName* format = &kFormats[0];
    uint32_t width = 0, height = 0;  // 0: the format's first size
    uint32_t fps = 0;                // 0: the format's default interval
    uint64_t frames = 0;             // 0: by time
    double seconds = 5;
    std::string output;
    std::string pngDirectory;
    uint64_t pngEvery = 1;
    std::string snapshot;
    std::string source;
    std::vector<std::pair<std::string, std::string>> settings;  // --set NAME=VALUE, in order
    bool savedSettings = false;  // --registry: the driver loads its saved settings at set-up
    std::vector<ButtonPacket> buttons;  // --button-at
    std::vector<LONGLONG> triggers;     // --trigger-at, 100 ns after the start
    std::string still;                  // --still FILE.png
    bool json = false;
};

std::string_view NameOf(ULONG compression)
{
    for (const FormatName& f : kFormats) {
        if (f.compression == compression) return f.name;
    }
    return "other";
}

bool ParseUnsigned(std::string_view text, uint64_t& value)
{
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool ParseSize(std::string_view text, uint32_t& width, uint32_t& height)
{
    const size_t x = text.find('x');
    uint64_t w = 0, h = 0;
    if (x == std::string_view::npos || !ParseUnsigned(text.substr(0, x), w) || !ParseUnsigned(text.substr(x + 1), h) ||
        w == 0 || h == 0 || w > 8192 || h > 8192) {
        return false;
    }
    width = static_cast<uint32_t>(w);
    height = static_cast<uint32_t>(h);
    return true;
}

// The stream's own options; anything wrong is a usage error.
std::string ParseStreamOptions(std::span<const std::string_view> args, StreamOptions& o)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view a = args[i];
        const bool hasValue = i + 1 < args.size();
        const std::string_view v = hasValue ? args[i + 1] : std::string_view();
        uint64_t n = 0;
        if (a == "--json") {
            o.json = true;
            continue;
        }
        if (!hasValue) return "option '" + std::string(a) + "' needs a value";
        ++i;
        if (a == "--format") {
            o.format = nullptr;
            for (const FormatName& f : kFormats) {
                if (f.name == v) o.format = &f;
            }
            if (o.format == nullptr) return "unknown format '" + std::string(v) + "' (yuy2, rgb24, mjpg or i420)";
        } else if (a == "--size") {
            if (!ParseSize(v, o.width, o.height)) return "size '" + std::string(v) + "' is not WxH";
        } else if (a == "--fps") {
            if (!ParseUnsigned(v, n) || n == 0 || n > 1000) return "frame rate '" + std::string(v) + "' is not 1..1000";
            o.fps = static_cast<uint32_t>(n);
        } else if (a == "--frames") {
            if (!ParseUnsigned(v, n) || n == 0) return "frame count '" + std::string(v) + "' is not a positive number";
            o.frames = n;
        } else if (a == "--seconds") {
            char* end = nullptr;
            const std::string text(v);
            o.seconds = std::strtod(text.c_str(), &end);
            if (end == text.c_str() || *end != '\0' || !(o.seconds > 0) || o.seconds > 3600) {
                return "seconds '" + text + "' is not in (0, 3600]";
            }
        } else if (a == "--output") {
            o.output = std::string(v);
        } else if (a == "--png") {
            o.pngDirectory = std::string(v);
        } else if (a == "--png-every") {
            if (!ParseUnsigned(v, n) || n == 0) return "--png-every '" + std::string(v) + "' is not a positive number";
            o.pngEvery = n;
        } else if (a == "--snapshot") {
            o.snapshot = std::string(v);
        } else if (a == "--source") {
            o.source = std::string(v);
        } else if (a == "--button-at") {
            std::string problem = ParseButtonAt(v, o.buttons);
            if (!problem.empty()) return problem;
        } else if (a == "--trigger-at") {
            LONGLONG at = 0;
            if (!ParseEventTime(v, &at)) return "--trigger-at '" + std::string(v) + "' is not a time (e.g. 2s)";
            o.triggers.push_back(at);
        } else if (a == "--still") {
            o.still = std::string(v);
        } else if (a == "--set") {
            const size_t eq = v.find('=');
            if (eq == std::string_view::npos || eq == 0) return "--set '" + std::string(v) + "' is not NAME=VALUE";
            o.settings.emplace_back(std::string(v.substr(0, eq)), std::string(v.substr(eq + 1)));
        } else {
            --i;
            return "unexpected argument '" + std::string(a) + "'";
        }
    }
    return {};
}

// The offer the options ask for, or a message listing what the camera offers.
const kvharness::CaptureOffer* ChooseOffer(const std::vector<kvharness::CaptureOffer>& offers,
                                           const StreamOptions& o, std::string* error)
{
    for (const auto& offer : offers) {
        if (offer.Compression() != o.format->compression) continue;
        if (o.width != 0 && (offer.Width() != LONG(o.width) || offer.Height() != LONG(o.height))) continue;
        return &offer;
    }
    std::string list;
    for (const auto& offer : offers) {
        list += (list.empty() ? "" : ", ") + std::string(NameOf(offer.Compression())) + " " +
                std::to_string(offer.Width()) + "x" + std::to_string(offer.Height());
    }
    *error = "the camera offers no " + std::string(o.format->name) +
             (o.width != 0 ? " " + std::to_string(o.width) + "x" + std::to_string(o.height) : std::string()) +
             "; it offers: " + (list.empty() ? "nothing" : list);
    return nullptr;
}

// Where the frames go.
class Sinks {
public:
    bool Open(const StreamOptions& o, const kvharness::VideoFormat& format, std::string* error)
    {
        options_ = &o;
        format_ = format;
        if (!o.pngDirectory.empty()) {
            std::error_code ec;
            std::filesystem::create_directories(o.pngDirectory, ec);
            if (ec) {
                *error = "cannot create '" + o.pngDirectory + "': " + ec.message();
                return false;
            }
        }
        if (o.output.empty()) return true;
        const std::string ext = std::filesystem::path(o.output).extension().string();
        if (ext == ".y4m") {
            y4m_ = kvharness::Y4mWriter::Create(o.output, format, error);
            return y4m_ != nullptr;
        }
        if (ext == ".mjpeg" || ext == ".mjpg") {
            if (format.layout != kvharness::PixelLayout::Mjpeg) {
                *error = "'" + o.output + "': a .mjpeg file holds motion-JPEG frames; stream with --format mjpg";
                return false;
            }
            mjpeg_ = kvharness::MjpegWriter::Create(o.output, error);
            return mjpeg_ != nullptr;
        }
        *error = "'" + o.output + "': write .y4m or .mjpeg";
        return false;
    }

    bool Write(uint64_t index, const std::vector<uint8_t>& frame, std::string* error)
    {
        last_ = frame;
        if (y4m_ && !y4m_->Write(frame)) return Fail(error, y4m_->error());
        if (mjpeg_ && !mjpeg_->Write(frame)) return Fail(error, mjpeg_->error());
        if (!options_->pngDirectory.empty() && index % options_->pngEvery == 0) {
            char name[32];
            std::snprintf(name, sizeof name, "frame%06" PRIu64 ".png", index);
            const std::string path = (std::filesystem::path(options_->pngDirectory) / name).string();
            if (!kvharness::WritePng(path, frame, format_, error)) return false;
        }
        return true;
    }

    bool Close(std::string* error)
    {
        if (y4m_ && !y4m_->Close()) return Fail(error, y4m_->error());
        if (mjpeg_ && !mjpeg_->Close()) return Fail(error, mjpeg_->error());
        if (!options_->snapshot.empty()) {
            if (last_.empty()) {
                *error = "no frame arrived to write '" + options_->snapshot + "'";
                return false;
            }
            return kvharness::WritePng(options_->snapshot, last_, format_, error);
        }
        return true;
    }

private:
    // The writer's own message names the file and what went wrong.
    static bool Fail(std::string* error, const std::string& message)
    {
        *error = message;
        return false;
    }
    const StreamOptions* options_ = nullptr;
    kvharness::VideoFormat format_;
    std::unique_ptr<kvharness::Y4mWriter> y4m_;
    std::unique_ptr<kvharness::MjpegWriter> mjpeg_;
    std::vector<uint8_t> last_;
};

struct Summary {
    std::string format;
    uint32_t width = 0, height = 0;
    LONGLONG interval = 0;
    uint64_t delivered = 0;
    uint64_t failedBuffers = 0;
    LONGLONG droppedByDriver = 0;  // the last frame's KS_FRAME_INFO.DropCount
    // Why the driver delivered no frame, as it counts them.
    ULONG badFrames = 0, jpegFailures = 0, noBuffer = 0, startupSkipped = 0;
    // The filter's dropped-frames property after the stream, as an
    // application reads it (nullopt when the request failed).
    std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> droppedProperty;
    LONGLONG firstTime = -1, lastTime = -1;
    double simulatedSeconds = 0, hostSeconds = 0;
    size_t stillEvents = 0;     // still-button events the filter raised
    size_t triggersRefused = 0; // software triggers refused (a countdown was running)
    std::vector<std::string> stillFiles;
    std::vector<double> stillSeconds;  // when each still arrived, since the start
};

void PrintSummary(const Summary& s, bool json)
{
    const double simFps = s.simulatedSeconds > 0 ? double(s.delivered) / s.simulatedSeconds : 0;
    const double hostFps = s.hostSeconds > 0 ? double(s.delivered) / s.hostSeconds : 0;
    if (json) {
        Json j;
        j["format"] = s.format;
        j["width"] = s.width;
        j["height"] = s.height;
        j["frame_interval_100ns"] = s.interval;
        j["frames_delivered"] = s.delivered;
        j["frames_dropped"] = s.droppedByDriver;
        j["buffers_failed"] = s.failedBuffers;
        j["not_delivered"] = {{"bad_frame", s.badFrames},
                              {"jpeg_failed", s.jpegFailures},
                              {"no_buffer_queued", s.noBuffer},
                              {"startup_skipped", s.startupSkipped}};
        if (s.droppedProperty) {
            j["dropped_frames_property"] = {{"picture_number", s.droppedProperty->PictureNumber},
                                            {"drop_count", s.droppedProperty->DropCount},
                                            {"average_frame_size", s.droppedProperty->AverageFrameSize}};
        }
        j["first_presentation_time_100ns"] = s.firstTime;
        j["last_presentation_time_100ns"] = s.lastTime;
        j["still_events"] = s.stillEvents;
        j["stills"] = s.stillFiles;
        j["still_seconds"] = s.stillSeconds;
        j["triggers_refused"] = s.triggersRefused;
        j["simulated_seconds"] = s.simulatedSeconds;
        j["host_seconds"] = s.hostSeconds;
        std::printf("%s\n", JsonText(j).c_str());
        return;
    }
    std::fprintf(stderr,
                 "kvcam stream: %s %ux%u, %" PRIu64 " frames delivered, %lld dropped (bad %u, JPEG %u, no buffer %u, "
                 "start-up %u), %.2f s simulated (%.1f frames/s), %.2f s host (%.1f frames/s)\n",
                 s.format.c_str(), s.width, s.height, s.delivered, static_cast<long long>(s.droppedByDriver),
                 s.badFrames, s.jpegFailures, s.noBuffer, s.startupSkipped, s.simulatedSeconds, simFps,
                 s.hostSeconds, hostFps);
    if (s.stillEvents != 0 || !s.stillFiles.empty() || s.triggersRefused != 0) {
        std::fprintf(stderr, "kvcam stream: %zu still-button events, %zu stills", s.stillEvents, s.stillFiles.size());
        for (const std::string& file : s.stillFiles) std::fprintf(stderr, " %s", file.c_str());
        if (s.triggersRefused != 0) std::fprintf(stderr, ", %zu triggers refused (a countdown ran)", s.triggersRefused);
        std::fputc('\n', stderr);
    }
}

void Progress(const Summary& s, bool terminal)
{
    if (!terminal) return;
    std::fprintf(stderr, "\r  %" PRIu64 " frames, %.2f s simulated, %lld dropped   ", s.delivered, s.simulatedSeconds,
                 static_cast<long long>(s.droppedByDriver));
}

// --set NAME=VALUE, each through the driver-control tunnel before the
// stream runs, as an application sets controls before it starts capturing.
// The driver applies its saved settings when the stream is set up, so with
// a registry file they are set once more after the first frame (the driver
// refuses controls from the run transition until then).
bool ApplySettings(kvsim::client::Filter& filter, const StreamOptions& o, std::string* error)
{
    kvharness::Tunnel tunnel(filter);
    for (const auto& [name, text] : o.settings) {
        USHORT id = 0;
        long value = 0;
        auto [end, parseError] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (!SettingIdFromText(name, &id)) {
            *error = "--set: unknown setting '" + name + "'";
            return false;
        }
        if (parseError != std::errc() || end != text.data() + text.size() || value < -32768 || value > 32767) {
            *error = "--set: value '" + text + "' is not a number in -32768..32767";
            return false;
        }
        // The RGB effects and the photo frames show only while the driver's
        // software-effects switch is on; choosing one turns it on, as the
        // camera's settings application does.
        if ((id == PROPID_SPECIAL_EFFECT || id == PROPID_SPECIAL_FRAME) && value != 0 &&
            tunnel.Write(PROPID_SWSETTING_OPTION, 1) != STATUS_SUCCESS) {
            *error = "--set: the driver refused its software-effects switch";
            return false;
        }
        if (tunnel.Write(id, static_cast<LONG>(value)) != STATUS_SUCCESS) {
            *error = "--set: the driver refused " + name;
            return false;
        }
    }
    return true;
}

bool Stream(kvharness::System& system, const StreamOptions& o, Summary& summary)
{
    auto fail = [](const std::string& message) {
        std::fprintf(stderr, "kvcam stream: %s\n", message.c_str());
        return false;
    };
    if (!system.started()) return fail("the device did not start");
    if (system.OpenFilter() != STATUS_SUCCESS) return fail("the capture filter could not be opened");
    const auto offers = kvharness::CaptureOffers(*system.filter());
    std::string error;
    const kvharness::CaptureOffer* chosen = ChooseOffer(offers, o, &error);
    if (chosen == nullptr) return fail(error);
    if (!ApplySettings(*system.filter(), o, &error)) return fail(error);
    kvharness::CaptureOffer offer = *chosen;
    if (o.fps != 0) {
        // The range gives the camera's slowest and fastest intervals for
        // this size; a rate between them that the camera does not list gets
        // the frame's first interval from the driver.
        const LONGLONG interval = kHundredNsPerSecond / o.fps;
        const auto& caps = offer.range.ConfigCaps;
        if (interval < caps.MinFrameInterval || interval > caps.MaxFrameInterval) {
            char text[160];
            std::snprintf(text, sizeof text, "%u frames a second is not offered at %ux%u: %.1f to %.1f", o.fps,
                          static_cast<unsigned>(offer.Width()), static_cast<unsigned>(offer.Height()),
                          double(kHundredNsPerSecond) / double(caps.MaxFrameInterval),
                          double(kHundredNsPerSecond) / double(caps.MinFrameInterval));
            return fail(text);
        }
        offer.format.VideoInfoHeader.AvgTimePerFrame = interval;
    }

    kvharness::VideoFormat format;
    format.width = static_cast<uint32_t>(offer.Width());
    format.height = static_cast<uint32_t>(offer.Height());
    format.layout = o.format->layout;
    const LONGLONG interval = offer.format.VideoInfoHeader.AvgTimePerFrame;
    format.fpsNumerator = static_cast<uint32_t>(kHundredNsPerSecond);
    format.fpsDenominator = static_cast<uint32_t>(interval > 0 ? interval : 333333);
    summary.format = std::string(o.format->name);
    summary.width = format.width;
    summary.height = format.height;
    summary.interval = interval;

    Sinks sinks;
    if (!sinks.Open(o, format, &error)) return fail(error);
    std::unique_ptr<kvsim::client::Pin> pin;
    kvsim::client::MasterClock clock;
    NTSTATUS status = system.filter()->CreatePin(KV_PIN_CAPTURE, &offer.format.DataFormat, &pin);
    if (status == STATUS_SUCCESS) status = pin->SetMasterClock(clock.handle());
    if (status == STATUS_SUCCESS) status = pin->SetState(KSSTATE_RUN);
    if (status != STATUS_SUCCESS) {
        char text[64];
        std::snprintf(text, sizeof text, "the capture pin did not run (0x%08X)", static_cast<unsigned>(status));
        if (pin) pin->SetState(KSSTATE_STOP);
        return fail(text);
    }
    StillSink stills;
    if (!o.still.empty() && !stills.Open(system, offer.Width(), offer.Height(), o.still, &error)) {
        pin->SetState(KSSTATE_STOP);
        return fail(error);
    }
    StillEventCounter stillEvents;
    stillEvents.Enable(*system.filter());
    StreamTimeline timeline(o.buttons, o.triggers);
    const bool terminal = isatty(STDERR_FILENO) != 0 && !o.json;
    const LONGLONG start = kvsim::Now();
    const LONGLONG deadline = start + static_cast<LONGLONG>(o.seconds * kHundredNsPerSecond);
    const auto hostStart = std::chrono::steady_clock::now();
    pin->QueueBuffers(kBuffersQueued, offer.ImageSize());
    bool ok = true;
    bool resettled = false;
    while (ok && (o.frames != 0 ? summary.delivered < o.frames : kvsim::Now() < deadline)) {
        // Without a frame for 10 s of the simulation's time the stream has
        // stopped for good.
        timeline.Run(kvsim::Now() - start, system);
        stillEvents.Poll();
        if (!stills.Collect(kvsim::Now() - start, &error)) {
            ok = fail(error);
            break;
        }
        if (!pin->WaitForFrames(1, 10 * kHundredNsPerSecond)) {
            ok = fail("no frame for 10 seconds");
            break;
        }
        if (!resettled && !o.settings.empty() && o.savedSettings) {
            resettled = true;
            if (!ApplySettings(*system.filter(), o, &error)) {
                ok = fail(error);
                break;
            }
        }
        for (auto& frame : pin->CollectFrames()) {
            pin->QueueBuffers(1, offer.ImageSize());
            if (frame.status != STATUS_SUCCESS) {
                ++summary.failedBuffers;
                continue;
            }
            if (o.frames != 0 && summary.delivered >= o.frames) continue;
            if (summary.firstTime < 0) summary.firstTime = frame.header.PresentationTime.Time;
            summary.lastTime = frame.header.PresentationTime.Time;
            if (frame.hasFrameInfo) summary.droppedByDriver = frame.frameInfo.DropCount;
            if (!sinks.Write(summary.delivered, frame.data, &error)) {
                ok = fail(error);
                break;
            }
            ++summary.delivered;
        }
        summary.simulatedSeconds = double(kvsim::Now() - start) / kHundredNsPerSecond;
        Progress(summary, terminal);
    }
    if (terminal) std::fputc('\n', stderr);
    stillEvents.Poll();
    if (ok && !stills.Collect(kvsim::Now() - start, &error)) ok = fail(error);
    stills.Close();
    summary.stillEvents = stillEvents.count();
    summary.stillFiles = stills.files();
    for (LONGLONG t : stills.times()) summary.stillSeconds.push_back(double(t) / kHundredNsPerSecond);
    summary.triggersRefused = timeline.triggersRefused();
    pin->SetState(KSSTATE_STOP);
    pin->CollectFrames();
    pin->Close();
    summary.hostSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - hostStart).count();
    KSPROPERTY_DROPPEDFRAMES_CURRENT_S dropped{};
    const auto reply = system.filter()->Property(PROPSETID_VIDCAP_DROPPEDFRAMES, KSPROPERTY_DROPPEDFRAMES_CURRENT,
                                                 KSPROPERTY_TYPE_GET, &dropped, sizeof(dropped),
                                                 reinterpret_cast<uint8_t*>(&dropped) + sizeof(KSPROPERTY),
                                                 sizeof(dropped) - sizeof(KSPROPERTY));
    if (reply.status == STATUS_SUCCESS) summary.droppedProperty = dropped;
    if (const CCaptureDevice* device = system.device()) {
        summary.badFrames = device->m_FrameLoop.m_BadFrames;
        summary.jpegFailures = device->m_FrameLoop.m_JpegFailures;
        summary.noBuffer = device->m_FrameLoop.m_NoBufferFrames;
        summary.startupSkipped = device->m_FrameLoop.m_SkipCounter;
    }
    if (!sinks.Close(&error)) ok = fail(error);
    return ok;
}

}  // namespace

void PrintStreamHelp()
{
    std::printf("usage: kvcam stream [--format yuy2|rgb24|mjpg|i420] [--size WxH] [--fps N]\n"
                "                    [--frames N | --seconds S] [--output FILE.y4m|FILE.mjpeg]\n"
                "                    [--png DIR [--png-every N]] [--snapshot FILE.png] [--source FILE|DIR]\n"
                "                    [--set NAME=VALUE ...] [--button-at T:KIND ...] [--trigger-at T ...]\n"
                "                    [--still FILE.png]\n"
                "                    [system options] [--json]\n\n"
                "Streams from the camera through kvdrv's capture pin as a video application does (the\n"
                "format chosen among those the pin offers, a master clock, buffers queued, run, frames\n"
                "collected, stop) and writes what arrives:\n"
                "  --format F           the output format (default yuy2); rgb24 is the camera's motion JPEG\n"
                "                       decoded by the driver\n"
                "  --size WxH           the frame size (default: the format's first)\n"
                "  --fps N              the frame rate asked for (the driver takes the frame's first\n"
                "                       interval when the camera does not list it)\n"
                "  --frames N           stop after N frames; --seconds S: after S seconds of the\n"
                "                       simulation's time (default 5)\n"
                "  --output FILE        .y4m (YUV4MPEG2: YUY2 as 4:2:2, RGB24 as 4:4:4) or .mjpeg\n"
                "  --png DIR            every frame as DIR/frameNNNNNN.png (--png-every N: every Nth)\n"
                "  --snapshot FILE.png  the last frame\n"
                "  --source FILE|DIR    what the virtual camera sends: a .y4m video, a PNG or JPEG\n"
                "                       picture, or a folder of pictures shown in turn (default: a\n"
                "                       moving test pattern)\n"
                "  --set NAME=VALUE     a setting through the driver-control property before the stream\n"
                "                       runs (repeatable; a registry name or 0xID as kvcam get takes\n"
                "                       them); an effect or a photo frame also turns the driver's\n"
                "                       software-effects switch (0x0905) on\n"
                "  --button-at T:KIND   the camera's button at T (2s, 2.5, 500ms): press, release, click,\n"
                "                       double or long (held 2.5 s), as status packets on its interrupt\n"
                "                       endpoint (repeatable)\n"
                "  --trigger-at T       the software trigger at T through the video-control MODE property\n"
                "                       of the still stream (repeatable)\n"
                "  --still FILE.png     opens the still pin; each still as FILE.png, FILE-2.png, ...\n"
                "%s"
                "  --json               print the summary as JSON\n\n"
                "Play the result with, e.g., ffplay out.y4m.\n"
                "exit codes: 0 streamed, 1 the start, the negotiation or a file failed, 2 bad command line\n",
                kSystemOptionsHelp);
}

int RunStreamCommand(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed = ParseSystemOptions(args);
    StreamOptions options;
    if (parsed.error.empty()) parsed.error = ParseStreamOptions(parsed.rest, options);
    options.savedSettings = !parsed.system.registryFile.empty();
    std::optional<std::vector<kvsim::camera::Yuy2Picture>> pictures;
    if (parsed.error.empty() && parsed.inputError.empty() && !options.source.empty()) {
        std::string error;
        pictures = kvharness::LoadSourcePictures(options.source, &error);
        if (!pictures) parsed.inputError = error;
    }
    Summary summary;
    return RunOnSystem("stream", parsed, [&](kvharness::System& system) {
        if (pictures && system.camera()) {
            system.camera()->SetFrameSource(kvsim::camera::MakeSequenceSource(*pictures, /*stamp=*/false));
        }
        const bool ok = Stream(system, options, summary);
        PrintSummary(summary, options.json);
        return ok;
    });
}

}  // namespace kvcam
