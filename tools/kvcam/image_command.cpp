// `kvcam image IN OUT [options]`: the driver's own picture stages run on a
// picture file as the frame loop runs them on a frame of that size, so that
// an effect, a photo frame, a zoom or a rotation can be previewed without a
// stream. The picture goes in as the camera would send it (YUY2); the
// stages are the frame loop's routine itself (RunPictureStages), with the
// same effect, photo-frame, dead-pixel and pan-and-zoom state kept from
// frame to frame.
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"
#include "controls/settings.h"
#include "imaging/deadpixel.h"
#include "imaging/effects.h"
#include "imaging/panzoom.h"
#include "imaging/photoframes.h"
#include "imaging/primitives.h"
#include "media_files.h"
#include "streaming/stages.h"
#include "system_options.h"

namespace kvcam {
namespace {

namespace fs = std::filesystem;

// The zoom and pan slots' command value: one step.
constexpr LONG kCommandOn = 1;
constexpr LONG kLargestZoomLevel = 61;  // 62 reads past the zoom table

struct ImageOptions {
    std::string input, output;
    Stages stages{};
    LONG zoom = 0;                   // 0: no pan and zoom
    std::vector<ULONG> pans;         // slots, one command a frame
    uint64_t frames = 1;
    bool all = false;
};

bool ParseNumber(std::string_view text, long low, long high, long* value)
{
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && *value >= low && *value <= high;
}

// The pan direction's slot: left, right, up, down as the picture is seen.
std::optional<ULONG> PanSlot(std::string_view direction)
{
    if (direction == "left") return SLOT_PAN_LEFT;
    if (direction == "right") return SLOT_PAN_RIGHT;
    if (direction == "up") return SLOT_PAN_UP;
    if (direction == "down") return SLOT_PAN_DOWN;
    return std::nullopt;
}

std::string ParseImageOptions(std::span<const std::string_view> args, ImageOptions& o)
{
    std::vector<std::string_view> positional;
    o.stages.countdown = -1;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view a = args[i];
        if (a == "--flip") {
            o.stages.flip = true;
            continue;
        }
        if (a == "--mirror") {
            o.stages.mirror = true;
            continue;
        }
        if (a == "--dead-pixels") {
            o.stages.deadPixel = true;
            continue;
        }
        if (a == "--all") {
            o.all = true;
            continue;
        }
        if (!a.starts_with("--")) {
            positional.push_back(a);
            continue;
        }
        if (i + 1 >= args.size()) return "option '" + std::string(a) + "' needs a value";
        const std::string_view v = args[++i];
        long n = 0;
        if (a == "--effect") {
            if (!ParseNumber(v, 0, 0xFFFF, &n)) return "--effect '" + std::string(v) + "' is not a number";
            o.stages.effect = n;
            o.stages.effectsOn = true;
        } else if (a == "--frame") {
            if (!ParseNumber(v, 0, 11, &n)) return "--frame '" + std::string(v) + "' is not a photo frame 0..11";
            o.stages.photoFrame = n;
            o.stages.effectsOn = true;
        } else if (a == "--countdown") {
            if (!ParseNumber(v, 1, 10, &n)) return "--countdown '" + std::string(v) + "' is not 1..10";
            o.stages.countdown = n;
        } else if (a == "--rotate") {
            if (!ParseNumber(v, -32768, 32767, &n)) return "--rotate '" + std::string(v) + "' is not a number";
            o.stages.rotate = n;
        } else if (a == "--zoom") {
            if (!ParseNumber(v, 1, kLargestZoomLevel, &n)) return "--zoom '" + std::string(v) + "' is not a level 1..61";
            o.zoom = n;
            o.stages.tracking = kTrackingPanZoom;
        } else if (a == "--pan") {
            auto slot = PanSlot(v);
            if (!slot) return "--pan '" + std::string(v) + "' is not left, right, up or down";
            o.pans.push_back(*slot);
            o.stages.tracking = kTrackingPanZoom;
        } else if (a == "--frames") {
            if (!ParseNumber(v, 1, 100000, &n)) return "--frames '" + std::string(v) + "' is not 1..100000";
            o.frames = static_cast<uint64_t>(n);
        } else {
            return "unexpected argument '" + std::string(a) + "'";
        }
    }
    if (positional.size() != 2) return "expected an input and an output picture";
    o.input = std::string(positional[0]);
    o.output = std::string(positional[1]);
    if (o.stages.tracking == kTrackingPanZoom && o.zoom == 0) o.zoom = 1;
    // Each pan command is one frame's; the last command's frame is shown.
    if (o.pans.size() + 1 > o.frames) o.frames = o.pans.size() + 1;
    return {};
}

bool IsY4m(const std::string& path) { return fs::path(path).extension() == ".y4m"; }

// Output file of frame `index` of `count` written: the name itself for one,
// NAME-0001.EXT ... for --all.
std::string OutputName(const ImageOptions& o, uint64_t index)
{
    if (!o.all || IsY4m(o.output)) return o.output;
    const fs::path p(o.output);
    char suffix[24];
    std::snprintf(suffix, sizeof suffix, "-%04llu", static_cast<unsigned long long>(index + 1));
    return (p.parent_path() / (p.stem().string() + suffix + p.extension().string())).string();
}

// The state the frame loop keeps for a stream, for one picture size.
class Preview {
public:
    Preview(const ImageOptions& o, ULONG width, ULONG height)
        : o_(o), width_(width), height_(height), a_(size_t(width) * height * 3), b_(a_.size()),
          panZoom_(PanZoomWorkAreaSize(width, height))
    {
        InitEffectState(&effects_);
        InitPhotoFrameState(&frames_, a_.size());
        ResetDeadPixelState(&deadPixels_);
        PanZoomStart(panZoom_.data(), width, height);
        property_.Slot[SLOT_TRACKING_METHOD] = static_cast<LONG>(o.stages.tracking);
        property_.Slot[SLOT_ZOOM_SWITCH] = o.zoom != 0 ? 1 : 0;
        property_.Slot[SLOT_ZOOM_LEVEL] = o.zoom;
    }
    ~Preview()
    {
        ApplySpecialEffect(&effects_, 0, 0, 0, nullptr, nullptr);
        ReleasePhotoFrames(&frames_);
    }
    Preview(const Preview&) = delete;
    Preview& operator=(const Preview&) = delete;

    // Frame `index` from a YUY2 picture; the result in `out` as `format`.
    void Run(uint64_t index, const std::vector<uint8_t>& yuy2, std::vector<uint8_t>* out,
             kvharness::VideoFormat* format)
    {
        if (index < o_.pans.size()) property_.Slot[o_.pans[index]] = kCommandOn;
        std::copy(yuy2.begin(), yuy2.end(), a_.begin());
        StageContext c{};
        c.Width = width_;
        c.Height = height_;
        c.pA = a_.data();
        c.pB = b_.data();
        c.pEffects = &effects_;
        c.pPhotoFrames = &frames_;
        c.pDeadPixels = &deadPixels_;
        c.DeadPixelPhase = static_cast<ULONG>(index % kDeadPixelBands);
        c.pPanZoomWork = panZoom_.data();
        c.pProperty = &property_;
        c.pFrameReload = &reload_;
        c.ShowCountdown = true;
        const bool isRgb = RunPictureStages(o_.stages, c, false);
        format->width = width_;
        format->height = height_;
        // A .y4m output is YUY2 as the capture pin delivers it: the RGB
        // frame goes back through the driver's own conversion.
        if (isRgb && IsY4m(o_.output)) {
            out->resize(size_t(width_) * height_ * 2);
            kv::Rgb24ToYuy2BottomUp(a_.data(), width_ * 3, out->data(), width_ * 2, width_, height_);
            format->layout = kvharness::PixelLayout::Yuy2;
        } else {
            out->assign(a_.begin(), a_.begin() + static_cast<std::ptrdiff_t>(width_ * height_ * (isRgb ? 3 : 2)));
            format->layout = isRgb ? kvharness::PixelLayout::Bgr24BottomUp : kvharness::PixelLayout::Yuy2;
        }
    }

private:
    const ImageOptions& o_;
    ULONG width_, height_;
    std::vector<uint8_t> a_, b_, panZoom_;
    EffectState effects_{};
    PhotoFrameState frames_{};
    DeadPixelState deadPixels_{};
    DeviceProperty property_{};
    ULONG reload_ = 0;
};

bool RunImage(const ImageOptions& o, std::string* error)
{
    auto pictures = kvharness::LoadSourcePictures(o.input, error);
    if (!pictures) return false;
    const auto& first = pictures->front();
    Preview preview(o, first.width, first.height);
    std::unique_ptr<kvharness::Y4mWriter> y4m;
    std::vector<uint8_t> out;
    kvharness::VideoFormat format;
    for (uint64_t i = 0; i < o.frames; ++i) {
        const auto& picture = (*pictures)[i % pictures->size()];
        if (picture.width != first.width || picture.height != first.height) {
            *error = o.input + ": the pictures differ in size; a stream has one size";
            return false;
        }
        preview.Run(i, picture.pixels, &out, &format);
        const bool write = o.all || i + 1 == o.frames;
        if (!write) continue;
        if (IsY4m(o.output)) {
            if (!y4m) y4m = kvharness::Y4mWriter::Create(o.output, format, error);
            if (!y4m) return false;
            if (!y4m->Write(out)) {
                *error = y4m->error();
                return false;
            }
        } else if (!kvharness::WritePicture(OutputName(o, i), out, format, error)) {
            return false;
        }
    }
    if (y4m && !y4m->Close()) {
        *error = y4m->error();
        return false;
    }
    return true;
}

}  // namespace

void PrintImageHelp()
{
    std::printf("usage: kvcam image IN OUT [--effect N] [--frame K] [--countdown N] [--rotate R] [--flip]\n"
                "                  [--mirror] [--dead-pixels] [--zoom L] [--pan left|right|up|down ...]\n"
                "                  [--frames N [--all]] [system options]\n\n"
                "Runs the driver's own picture stages on a picture, as the frame loop runs them on a frame of\n"
                "that size: IN (PNG, JPEG, 24-bit BMP or a .y4m video) goes in as the camera sends it (YUY2),\n"
                "OUT is a .png, a .bmp or a .y4m (YUY2, as the capture pin delivers it).\n"
                "  --effect N        special effect 1..17 (3, 16 and 17 work on YUY2)\n"
                "  --frame K         photo frame 1..11 from \\SystemRoot (the driver's own are installed)\n"
                "  --countdown N     the self-timer's countdown picture for N seconds left\n"
                "  --rotate R        quarter turns clockwise\n"
                "  --flip, --mirror  the vertical flip and the mirror\n"
                "  --dead-pixels     dead-pixel correction (one band searched per frame)\n"
                "  --zoom L          digital zoom level 1..61 (41: half the width)\n"
                "  --pan DIR         one pan step per frame, in order (repeatable)\n"
                "  --frames N        runs N frames (the animated effects move) and writes the last;\n"
                "                    --all writes each (OUT-0001.png ..., or every frame into a .y4m)\n\n%s",
                kSystemOptionsHelp);
}

int RunImageCommand(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed = ParseSystemOptions(args);
    ImageOptions options;
    if (parsed.error.empty()) parsed.error = ParseImageOptions(parsed.rest, options);
    return RunOnSystem("image", parsed, [&](kvharness::System&) {
        std::string error;
        if (!RunImage(options, &error)) {
            std::fprintf(stderr, "kvcam image: %s\n", error.c_str());
            return false;
        }
        return true;
    });
}

}  // namespace kvcam
