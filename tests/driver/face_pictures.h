// The photographs of tests/data/faces as the frame loop hands them to face
// tracking: loaded as the virtual camera would send them (YUY2), turned into
// bottom-up RGB by the driver's own conversion, and cut or scaled into
// frames.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imaging/primitives.h"
#include "media_files.h"

namespace facetest {

struct Picture {
    ULONG width = 0, height = 0;
    std::vector<UCHAR> rgb;  // bottom-up B, G, R

    // The w x h part whose top-left corner (as shown) is at (x, y).
    Picture Crop(ULONG x, ULONG y, ULONG w, ULONG h) const
    {
        Picture out{w, h, std::vector<UCHAR>(size_t(w) * h * 3)};
        for (ULONG row = 0; row < h; ++row) {
            const UCHAR* from = &rgb[(size_t(height - 1 - (y + row)) * width + x) * 3];
            std::copy(from, from + size_t(w) * 3, &out.rgb[size_t(h - 1 - row) * w * 3]);
        }
        return out;
    }
};

inline Picture LoadPicture(const std::string& name)
{
    std::string error;
    const auto pictures = kvharness::LoadSourcePictures(std::string(KV_SOURCE_DIR) + "/tests/data/faces/" + name, &error);
    EXPECT_TRUE(pictures.has_value()) << error;
    if (!pictures) return {};
    const auto& yuy2 = pictures->front();
    Picture p{yuy2.width, yuy2.height, std::vector<UCHAR>(size_t(yuy2.width) * yuy2.height * 3)};
    kv::Yuy2ToRgb24(yuy2.pixels.data(), p.width * 2, p.rgb.data(), p.width * 3, p.width, p.height);
    kv::MirrorInPlace(p.rgb.data(), LONG(p.width * 3), p.width, p.height, kv::kMirrorAxisRows);
    return p;
}

// Every path this machine can run, the current one restored afterwards.
inline std::vector<kv::PrimitivesPath> RunnablePaths()
{
    const kv::PrimitivesPath was = kv::CurrentPrimitivesPath();
    std::vector<kv::PrimitivesPath> paths;
    for (auto path : {kv::PrimitivesPath::Scalar, kv::PrimitivesPath::Sse2, kv::PrimitivesPath::Avx2}) {
        if (kv::SetPrimitivesPathForTest(path)) paths.push_back(path);
    }
    kv::SetPrimitivesPathForTest(was);
    return paths;
}

}  // namespace facetest
