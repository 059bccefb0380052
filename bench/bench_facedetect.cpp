// Face detection and tracking, on a real photograph (tests/data/faces):
//  - Compare/FaceDetect/kv/640x480: one detection as the frame loop runs it
//    in detector mode 2 (the bottom-up RGB frame to grey, the searches from
//    20 and from 40 pixels, the grouping), on the path InitPrimitives picks.
//  - Compare/FaceDetect/opencv/640x480: OpenCV's CascadeClassifier::
//    detectMultiScale with the same cascade XML, one thread, scale factor
//    1.1, 3 neighbours, minimum size 20, from the BGR picture (its grey
//    conversion included). Built when OpenCV is found.
//  - Stream/FaceTrack/640x480: the whole simulated system streaming YUY2
//    with tracking method 2 on the photograph, in host frames a second.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "capture_offers.h"
#include "controls/settings.h"
#include "device/formats.h"
#include "imaging/facedetect.h"
#include "imaging/facetracking.h"
#include "imaging/primitives.h"
#include "media_files.h"
#include "stream_loop.h"
#include "system.h"
#include "tunnel.h"
#ifdef KV_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>
#endif

namespace {

constexpr ULONG kWidth = 640, kHeight = 480;
const std::string kPhotograph = std::string(KV_SOURCE_DIR) + "/tests/data/faces/astronaut_640x480.jpg";

std::vector<kvsim::camera::Yuy2Picture> LoadPhotograph()
{
    std::string error;
    auto pictures = kvharness::LoadSourcePictures(kPhotograph, &error);
    return pictures ? *pictures : std::vector<kvsim::camera::Yuy2Picture>{};
}

// The photograph as the frame loop hands it on: bottom-up B, G, R.
std::vector<UCHAR> PhotographRgb()
{
    const auto pictures = LoadPhotograph();
    if (pictures.empty() || pictures[0].width != kWidth || pictures[0].height != kHeight) return {};
    std::vector<UCHAR> rgb(size_t(kWidth) * kHeight * 3);
    kv::Yuy2ToRgb24(pictures[0].pixels.data(), kWidth * 2, rgb.data(), kWidth * 3, kWidth, kHeight);
    kv::MirrorInPlace(rgb.data(), LONG(kWidth * 3), kWidth, kHeight, kv::kMirrorAxisRows);
    return rgb;
}

void KvFaceDetect(benchmark::State& state)
{
    kv::InitPrimitives();
    const std::vector<UCHAR> rgb = PhotographRgb();
    kv::FaceDetector* detector = nullptr;
    if (rgb.empty() || kv::CreateFaceDetector(&detector, FaceTrackSearch(2)) != STATUS_SUCCESS) {
        state.SkipWithError("the photograph or the detector could not be had");
        return;
    }
    for (auto _ : state) {
        FaceTrackDetect(detector, 2, rgb.data(), kWidth, kHeight);
        benchmark::DoNotOptimize(kv::FaceCount(detector));
    }
    state.counters["faces"] = double(kv::FaceCount(detector));
    kv::FreeFaceDetector(detector);
}

#ifdef KV_HAVE_OPENCV
void OpenCvFaceDetect(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::CascadeClassifier cascade(KV_CASCADE_XML);
    const std::vector<UCHAR> rgb = PhotographRgb();
    if (cascade.empty() || rgb.empty()) {
        state.SkipWithError("the cascade or the photograph could not be loaded");
        return;
    }
    cv::Mat bottomUp(int(kHeight), int(kWidth), CV_8UC3, const_cast<UCHAR*>(rgb.data()));
    cv::Mat bgr;
    cv::flip(bottomUp, bgr, 0);
    std::vector<cv::Rect> faces;
    for (auto _ : state) {
        cv::Mat grey;
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
        faces.clear();
        cascade.detectMultiScale(grey, faces, 1.1, 3, 0, cv::Size(20, 20));
        benchmark::DoNotOptimize(faces.data());
    }
    state.counters["faces"] = double(faces.size());
}
#endif

// The system streaming 640 x 480 YUY2 with face tracking on.
void StreamFaceTrack(benchmark::State& state)
{
    kvharness::System system(kvharness::SystemOptions{});
    const auto pictures = LoadPhotograph();
    if (pictures.empty() || !system.Boot() || !system.started() || system.OpenFilter() != STATUS_SUCCESS) {
        state.SkipWithError("the system did not start");
        return;
    }
    system.camera()->SetFrameSource(kvsim::camera::MakeSequenceSource(pictures, /*stamp=*/false));
    USHORT tracking = 0;
    kvharness::Tunnel tunnel(*system.filter());
    if (!SettingIdForName(reinterpret_cast<PCWSTR>(u"TrackingMethod"), &tracking) ||
        tunnel.Write(tracking, 2) != STATUS_SUCCESS) {
        state.SkipWithError("tracking could not be switched on");
        return;
    }
    kvbench::StreamFrames(state, system, kv::kFourccYuy2, kWidth, kHeight);
}

BENCHMARK(KvFaceDetect)->Name("Compare/FaceDetect/kv/640x480")->Unit(benchmark::kMillisecond);
#ifdef KV_HAVE_OPENCV
BENCHMARK(OpenCvFaceDetect)->Name("Compare/FaceDetect/opencv/640x480")->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(StreamFaceTrack)->Name("Stream/FaceTrack/640x480")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
