// `kvcam detect PICTURE`: the driver's face detector on one picture, as a
// detection frame of face tracking runs it. The picture goes the way a
// camera frame goes (YUY2 from the virtual camera's loader, the driver's
// conversion to bottom-up RGB), and the faces are listed as shown: the
// square's left column, top row and size in pixels.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "imaging/facetracking.h"
#include "imaging/primitives.h"
#include "json.h"
#include "media_files.h"

namespace kvcam {
namespace {

constexpr ULONG kDefaultMode = 2;

struct DetectOptions {
    std::string picture;
    std::string out;
    bool json = false;
    ULONG mode = kDefaultMode;
};

std::string Parse(std::span<const std::string_view> args, DetectOptions* o)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view a = args[i];
        if (a == "--json") {
            o->json = true;
        } else if (a == "--out" || a == "--focus") {
            if (i + 1 >= args.size()) return std::string(a) + " needs a value";
            const std::string v(args[++i]);
            if (a == "--out") {
                o->out = v;
            } else if (v == "0" || v == "1" || v == "2") {
                o->mode = ULONG(v[0] - '0');
            } else {
                return "--focus takes 0, 1 or 2";
            }
        } else if (!a.empty() && a[0] == '-') {
            return "unknown option '" + std::string(a) + "'";
        } else if (o->picture.empty()) {
            o->picture = a;
        } else {
            return "unexpected argument '" + std::string(a) + "'";
        }
    }
    return o->picture.empty() ? "no picture given" : "";
}

// A 2-pixel yellow square outline on the bottom-up RGB picture.
void DrawBox(std::vector<UCHAR>& rgb, ULONG w, ULONG h, const kv::FaceBox& f)
{
    auto paint = [&](LONG x, LONG yShown) {
        if (x < 0 || yShown < 0 || ULONG(x) >= w || ULONG(yShown) >= h) return;
        UCHAR* p = &rgb[(size_t(h - 1 - yShown) * w + x) * 3];
        p[0] = 0, p[1] = 255, p[2] = 255;
    };
    for (LONG k = 0; k < 2; ++k) {
        for (LONG i = 0; i < f.size; ++i) {
            paint(f.x + i, f.y + k), paint(f.x + i, f.y + f.size - 1 - k);
            paint(f.x + k, f.y + i), paint(f.x + f.size - 1 - k, f.y + i);
        }
    }
}

}  // namespace

void PrintDetectHelp()
{
    std::printf("usage: kvcam detect PICTURE [--json] [--out FILE.png] [--focus 0|1|2]\n\n"
                "Runs the driver's face detector on a picture (PNG, JPEG, or the first frame of a .y4m),\n"
                "as face tracking's detection frame does, and lists the faces: left column, top row\n"
                "and size of each square, in pixels of the picture as shown.\n\n"
                "  --json          the result as JSON\n"
                "  --out FILE.png  also write the picture with a yellow box around each face\n"
                "  --focus N       the detector mode (the \"TrackingFocus\" value); default 2\n\n"
                "exit codes: 0 detection ran (whatever it found), 1 unreadable picture or no memory,\n"
                "2 bad command line\n");
}

int RunDetectCommand(std::span<const std::string_view> args)
{
    DetectOptions o;
    if (const std::string error = Parse(args, &o); !error.empty()) {
        std::fprintf(stderr, "kvcam detect: %s (see kvcam detect --help)\n", error.c_str());
        return kExitUsage;
    }
    std::string error;
    const auto pictures = kvharness::LoadSourcePictures(o.picture, &error);
    if (!pictures) {
        std::fprintf(stderr, "kvcam detect: %s\n", error.c_str());
        return kExitFailure;
    }
    const auto& yuy2 = pictures->front();
    const ULONG w = yuy2.width, h = yuy2.height;
    std::vector<UCHAR> rgb(size_t(w) * h * 3);
    kv::InitPrimitives();
    kv::Yuy2ToRgb24(yuy2.pixels.data(), w * 2, rgb.data(), w * 3, w, h);
    kv::MirrorInPlace(rgb.data(), LONG(w * 3), w, h, kv::kMirrorAxisRows);

    kv::FaceDetector* detector = nullptr;
    if (kv::CreateFaceDetector(&detector, FaceTrackSearch(o.mode)) != STATUS_SUCCESS) {
        std::fprintf(stderr, "kvcam detect: the detector could not be set up\n");
        return kExitFailure;
    }
    if (const NTSTATUS status = FaceTrackDetect(detector, o.mode, rgb.data(), w, h); status != STATUS_SUCCESS) {
        std::fprintf(stderr, "kvcam detect: %s (%ux%u): %s\n", o.picture.c_str(), unsigned(w), unsigned(h),
                     status == STATUS_INVALID_PARAMETER ? "smaller than the detector's window"
                                                        : "no memory for the search");
        kv::FreeFaceDetector(detector);
        return kExitFailure;
    }
    const std::vector<kv::FaceBox> faces(kv::Faces(detector), kv::Faces(detector) + kv::FaceCount(detector));
    kv::FreeFaceDetector(detector);

    if (o.json) {
        Json list = Json::array();
        for (const kv::FaceBox& f : faces) list.push_back({{"x", f.x}, {"y", f.y}, {"size", f.size}, {"hits", f.hits}});
        const Json result = {{"picture", o.picture}, {"width", w}, {"height", h}, {"focus", o.mode}, {"faces", list}};
        std::printf("%s\n", JsonText(result).c_str());
    } else {
        std::printf("%s (%ux%u): %zu face%s\n", o.picture.c_str(), unsigned(w), unsigned(h), faces.size(),
                    faces.size() == 1 ? "" : "s");
        for (const kv::FaceBox& f : faces) {
            std::printf("  x %4d  y %4d  size %4d  (%d hits)\n", int(f.x), int(f.y), int(f.size), int(f.hits));
        }
    }
    if (!o.out.empty()) {
        for (const kv::FaceBox& f : faces) DrawBox(rgb, w, h, f);
        const kvharness::VideoFormat format{w, h, kvharness::PixelLayout::Bgr24BottomUp};
        if (!kvharness::WritePng(o.out, rgb, format, &error)) {
            std::fprintf(stderr, "kvcam detect: %s\n", error.c_str());
            return kExitFailure;
        }
    }
    return kExitOk;
}

}  // namespace kvcam
