// Face tracking on real photographs: the faces the detector finds against
// boxes marked by hand, the same faces on every primitives path, and what
// the tracked picture does: it follows an off-centre face and a panning
// one, holds still for small movements, shows the whole picture for a face
// too large to zoom on and when the face leaves, restarts when tracking was
// switched away, and boxes the face in the thumbnail.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "face_pictures.h"
#include "imaging/facedetect.h"
#include "imaging/facetracking.h"
#include "kvsim/pool.h"

namespace {

using facetest::Picture;

struct Face {
    LONG cx, cy, size;  // centre and size as shown, marked by hand
};

// Faces found by the detector as the tracker runs it in mode 2 (two
// searches: from 20 and from 40 pixels).
std::vector<kv::FaceBox> Detect(const Picture& p)
{
    kv::FaceDetector* detector = nullptr;
    EXPECT_EQ(kv::CreateFaceDetector(&detector, FaceTrackSearch(2)), STATUS_SUCCESS);
    FaceTrackDetect(detector, 2, p.rgb.data(), p.width, p.height);
    std::vector<kv::FaceBox> faces(kv::Faces(detector), kv::Faces(detector) + kv::FaceCount(detector));
    kv::FreeFaceDetector(detector);
    return faces;
}

// A found box matches a marked face when its centre lies within a quarter
// of the face's size and its size within a third.
bool Matches(const kv::FaceBox& box, const Face& face)
{
    const double dx = box.x + box.size / 2.0 - face.cx, dy = box.y + box.size / 2.0 - face.cy;
    return std::hypot(dx, dy) <= face.size / 4.0 && std::abs(box.size - face.size) <= face.size / 3.0;
}

struct Photograph {
    const char* file;
    std::vector<Face> faces;
};

const Photograph kPhotographs[] = {
    {"astronaut_640x480.jpg", {{281, 148, 122}}},
    {"two_faces_640x480.jpg", {{108, 140, 78}, {473, 340, 40}}},
    {"coffee_640x480.jpg", {}},
};

TEST(FaceDetection, FindsTheMarkedFacesAndNothingElseOnEveryPath)
{
    const kv::PrimitivesPath was = kv::CurrentPrimitivesPath();
    for (const Photograph& photo : kPhotographs) {
        const Picture picture = facetest::LoadPicture(photo.file);
        std::vector<kv::FaceBox> first;
        for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
            SCOPED_TRACE(std::string(photo.file) + " path " + std::to_string(int(path)));
            ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
            const std::vector<kv::FaceBox> found = Detect(picture);
            ASSERT_EQ(found.size(), photo.faces.size());
            for (const Face& face : photo.faces) {
                EXPECT_TRUE(std::any_of(found.begin(), found.end(), [&](auto& b) { return Matches(b, face); }))
                    << "no box near the face at (" << face.cx << "," << face.cy << ")";
            }
            if (first.empty()) first = found;
            for (size_t i = 0; i < found.size() && i < first.size(); ++i) {
                EXPECT_EQ(found[i].x, first[i].x);
                EXPECT_EQ(found[i].y, first[i].y);
                EXPECT_EQ(found[i].size, first[i].size);
                EXPECT_EQ(found[i].hits, first[i].hits);
            }
        }
    }
    kv::SetPrimitivesPathForTest(was);
}

// ---- tracking -------------------------------------------------------------------

// A picture scaled by the driver's Resize (centred pixels).
Picture Scaled(const Picture& p, ULONG w, ULONG h)
{
    Picture out{w, h, std::vector<UCHAR>(size_t(w) * h * 3)};
    const kv::ImageRect from{0, 0, LONG(p.width), LONG(p.height)}, to{0, 0, LONG(w), LONG(h)};
    LONG bytes = 0;
    EXPECT_EQ(kv::ResizeBufferSize(from, to, 3, kv::kInterpolationBilinear, &bytes), STATUS_SUCCESS);
    std::vector<UCHAR> work(bytes);
    const double fx = double(w) / p.width, fy = double(h) / p.height;
    EXPECT_EQ(kv::Resize(p.rgb.data(), {LONG(p.width), LONG(p.height)}, LONG(p.width * 3), from, out.rgb.data(),
                         LONG(w * 3), to, fx, fy, 0.5 / fx - 0.5, 0.5 / fy - 0.5, kv::kInterpolationBilinear,
                         work.data()),
              STATUS_SUCCESS);
    return out;
}

struct Shown {
    double x, y, zoom;  // centre as shown (rows from the top) and zoom
};

// A tracker fed frames as the frame loop feeds it: the frame, and an
// untouched copy as the source.
class Tracker {
public:
    Tracker(ULONG w, ULONG h, ULONG mode = 2) : m_W(w), m_H(h)
    {
        EXPECT_EQ(FaceTrackStart(&m_Tracker, w, h, mode), STATUS_SUCCESS);
    }
    ~Tracker() { FaceTrackStop(m_Tracker); }

    const std::vector<UCHAR>& Run(const Picture& frame, ULONG divisor = 0)
    {
        m_Source = frame.rgb;
        m_Output = frame.rgb;
        FaceTrackFrame(m_Tracker, m_Source.data(), m_Output.data(), m_W, m_H, divisor);
        return m_Output;
    }
    // Frames until `done` says so (or `most` frames); false when it never did.
    bool RunUntil(const std::function<Picture(int)>& frame, const std::function<bool(const Shown&)>& done, int most)
    {
        for (int i = 0; i < most; ++i) {
            Run(frame(i));
            if (done(Now())) return true;
        }
        return false;
    }
    Shown Now() const
    {
        double x = 0, y = 0, zoom = 0;
        FaceTrackShownPart(m_Tracker, &x, &y, &zoom);
        return {x, m_H - y, zoom};
    }
    FaceTracker* get() { return m_Tracker; }

private:
    ULONG m_W, m_H;
    FaceTracker* m_Tracker = nullptr;
    std::vector<UCHAR> m_Source, m_Output;
};

// 160 x 120 frames cut from the astronaut photograph scaled by a third
// (213 x 160): her face, about 41 pixels, is centred at (94, 49) of the
// scaled picture.
constexpr ULONG kW = 160, kH = 120;
constexpr double kFaceX = 94, kFaceY = 49;

const Picture& Scene()
{
    static const Picture scene = Scaled(facetest::LoadPicture("astronaut_640x480.jpg"), 213, 160);
    return scene;
}

TEST(FaceTracking, GlidesSmoothlyOntoAnOffCentreFace)
{
    const Picture frame = Scene().Crop(24, 0, kW, kH);  // the face at (70, 49): left of and above the middle
    Tracker tracker(kW, kH);
    Shown last = tracker.Now();
    for (int i = 0; i < 300; ++i) {
        tracker.Run(frame);
        const Shown now = tracker.Now();
        if (i > 0) {
            EXPECT_LT(std::abs(now.x - last.x), 1.0) << "frame " << i;
            EXPECT_LT(std::abs(now.zoom - last.zoom), 0.05) << "frame " << i;
        }
        last = now;
    }
    EXPECT_NEAR(last.x, kFaceX - 24, 12.0);
    EXPECT_NEAR(last.y, kFaceY, 12.0);
    EXPECT_GT(last.zoom, 1.3);
}

TEST(FaceTracking, KeepsAPanningFaceNearTheMiddle)
{
    Tracker tracker(kW, kH);
    // The camera pans right by a pixel every ten frames: the face drifts
    // left in the picture, from 94 to 54.
    auto frame = [](int i) { return Scene().Crop(std::min(i / 10, 40), 0, kW, kH); };
    for (int i = 0; i < 600; ++i) tracker.Run(frame(i));
    const Shown now = tracker.Now();
    const double faceX = kFaceX - 40;
    EXPECT_LT(std::abs(faceX - now.x), std::abs(faceX - kW / 2.0) / 2) << "the shown part lags the face";
    EXPECT_GT(now.zoom, 1.3);
}

struct StillCase {
    LONG shift;  // pixels the face moves once the picture has settled on it
    bool moves;
};

// Once the face is within reach of the centre the picture holds still,
// until the face moves away.
TEST(FaceTracking, AFaceWithinReachDoesNotMoveThePicture)
{
    for (const StillCase c : {StillCase{0, false}, StillCase{30, true}}) {
        SCOPED_TRACE("shift " + std::to_string(c.shift));
        Tracker tracker(kW, kH);
        const Picture before = Scene().Crop(34, 10, kW, kH);
        for (int i = 0; i < 400; ++i) tracker.Run(before);
        const Shown settled = tracker.Now();
        const Picture after = Scene().Crop(34 - c.shift, 10, kW, kH);
        for (int i = 0; i < 30; ++i) tracker.Run(after);
        // Still: the centre only rounds to its whole pixel (the target is
        // kept in whole pixels).
        EXPECT_EQ(std::abs(tracker.Now().x - settled.x) > 1.0, c.moves);
    }
}

TEST(FaceTracking, AFaceTooLargeToZoomOnShowsTheWholePicture)
{
    // Halved, the photograph's face is 61 pixels: the zoom that would give
    // it its share of a 160-pixel frame is below 1.
    const Picture frame = Scaled(facetest::LoadPicture("astronaut_640x480.jpg"), 320, 240).Crop(60, 10, kW, kH);
    Tracker tracker(kW, kH);
    for (int i = 0; i < 60; ++i) {
        ASSERT_EQ(tracker.Run(frame), frame.rgb) << "frame " << i;
    }
}

TEST(FaceTracking, WithoutAFaceThePictureReturnsSmoothlyToTheWhole)
{
    Tracker tracker(kW, kH);
    const Picture face = Scene().Crop(24, 0, kW, kH);
    for (int i = 0; i < 200; ++i) tracker.Run(face);
    const double zoomed = tracker.Now().zoom;
    ASSERT_GT(zoomed, 1.2);
    const Picture empty = Scaled(facetest::LoadPicture("coffee_640x480.jpg"), kW, kH);
    double last = zoomed;
    for (int i = 0; i < 400; ++i) {
        tracker.Run(empty);
        EXPECT_LE(tracker.Now().zoom, last) << "frame " << i;
        last = tracker.Now().zoom;
    }
    EXPECT_LT(last - 1.0, (zoomed - 1.0) / 10);
    EXPECT_NEAR(tracker.Now().x, kW / 2.0, 2.0);
}

TEST(FaceTracking, SwitchingTrackingAwayAndBackStartsFromTheWholePicture)
{
    Tracker tracker(kW, kH);
    const Picture face = Scene().Crop(24, 0, kW, kH);
    for (int i = 0; i < 100; ++i) tracker.Run(face);
    ASSERT_GT(tracker.Now().zoom, 1.05);
    FaceTrackEndFrame(tracker.get());  // the last tracked frame ends
    FaceTrackEndFrame(tracker.get());  // a frame with another tracking method
    tracker.Run(face);
    EXPECT_EQ(tracker.Now().zoom, 1.0);
    EXPECT_EQ(tracker.Now().x, kW / 2.0);
    EXPECT_EQ(tracker.Now().y, kH / 2.0);
}

// A detection that finds no memory for its search leaves the frame as it
// came, without the thumbnail; with memory back the next frame is tracked.
TEST(FaceTracking, ADetectionWithoutMemoryLeavesTheFrameAsItCame)
{
    Tracker tracker(kW, kH);
    const Picture face = Scene().Crop(24, 0, kW, kH);
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(tracker.Run(face, 4), face.rgb);
    EXPECT_EQ(kvsim::PoolInjectedFailureCount(), 1u);
    kvsim::PoolResetFaultInjection();
    EXPECT_NE(tracker.Run(face, 4), face.rgb);
}

bool Yellow(const std::vector<UCHAR>& rgb, ULONG x, ULONG yShown)
{
    const UCHAR* p = &rgb[(size_t(kH - 1 - yShown) * kW + x) * 3];
    return p[0] < 60 && p[1] > 200 && p[2] > 200;
}

TEST(FaceTracking, TheThumbnailInTheLowerRightCornerBoxesTheFace)
{
    Tracker tracker(kW, kH);
    const Picture face = Scene().Crop(24, 0, kW, kH);
    std::vector<UCHAR> out;
    for (int i = 0; i < 30; ++i) out = tracker.Run(face, 4);
    auto yellowIn = [&](ULONG x0, ULONG y0) {
        int n = 0;
        for (ULONG y = y0; y < y0 + kH / 4; ++y)
            for (ULONG x = x0; x < x0 + kW / 4; ++x) n += Yellow(out, x, y);
        return n;
    };
    EXPECT_GT(yellowIn(kW * 3 / 4, kH * 3 / 4), 10) << "no face box in the thumbnail";
    EXPECT_EQ(yellowIn(0, 0), 0);
    EXPECT_EQ(yellowIn(kW * 3 / 4, 0), 0);
}

TEST(FaceTracking, EveryPathShowsTheSamePictures)
{
    const kv::PrimitivesPath was = kv::CurrentPrimitivesPath();
    std::vector<std::vector<UCHAR>> outputs;
    for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
        ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
        Tracker tracker(kW, kH);
        std::vector<UCHAR> all;
        for (int i = 0; i < 40; ++i) {
            const auto& out = tracker.Run(Scene().Crop(24 + i / 4, 0, kW, kH), 4);
            all.insert(all.end(), out.begin(), out.end());
        }
        outputs.push_back(all);
    }
    kv::SetPrimitivesPathForTest(was);
    for (size_t i = 1; i < outputs.size(); ++i) EXPECT_TRUE(outputs[i] == outputs[0]) << "path " << i;
}

}  // namespace
