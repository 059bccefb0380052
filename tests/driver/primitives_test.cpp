// The frame loop's imaging primitives: the colour conversions give libyuv's
// bytes (YUY2 to RGB) and the driver's rule (RGB to YUY2) on every path the
// machine can run, whatever the size; the AVX2 path falls back when the AVX
// state cannot be saved; turned and mirrored pictures put a corner where a
// viewer expects it.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "driver_test_support.h"
#include "imaging/primitives.h"
#include "kvsim/pool.h"
#ifdef KV_HAVE_LIBYUV
#include <libyuv.h>
#endif

namespace {

using Bytes = std::vector<UCHAR>;
using kv::PrimitivesPath;

constexpr UCHAR kUntouched = 0xA5;  // padding a conversion must not write

testing::AssertionResult SameBytes(const Bytes& expected, const Bytes& actual)
{
    if (expected.size() != actual.size()) return testing::AssertionFailure() << "sizes differ";
    for (size_t i = 0; i < expected.size(); ++i) {
        if (expected[i] != actual[i]) {
            return testing::AssertionFailure() << "first difference at byte " << i << ": expected "
                                               << int(expected[i]) << ", got " << int(actual[i]);
        }
    }
    return testing::AssertionSuccess();
}

// Random samples with the extremes 0 and 255 frequent.
Bytes RandomBytes(size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes bytes(count);
    for (auto& b : bytes) {
        const unsigned r = rng();
        b = (r & 7) == 0 ? 0 : ((r & 7) == 1 ? 255 : UCHAR(r >> 8));
    }
    return bytes;
}

std::vector<PrimitivesPath> VectorPaths()
{
    std::vector<PrimitivesPath> paths;
    for (PrimitivesPath path : {PrimitivesPath::Sse2, PrimitivesPath::Avx2}) {
        if (kv::SetPrimitivesPathForTest(path)) paths.push_back(path);
    }
    kv::InitPrimitives();
    return paths;
}

const char* Name(PrimitivesPath path)
{
    return path == PrimitivesPath::Avx2 ? "AVX2" : (path == PrimitivesPath::Sse2 ? "SSE2" : "scalar");
}

// A picture of `height` rows `stride` bytes apart, sized exactly (the last
// row ends with its pixels), so that AddressSanitizer sees any overrun.
Bytes Picture(ULONG stride, ULONG rowBytes, ULONG height, UCHAR fill)
{
    return Bytes(height == 0 ? 0 : size_t(stride) * (height - 1) + rowBytes, fill);
}

struct Size {
    ULONG width, height;
};
void PrintTo(const Size& s, std::ostream* os) { *os << s.width << "x" << s.height; }

class PrimitivesEveryPath : public testing::TestWithParam<Size> {
protected:
    void TearDown() override { kv::InitPrimitives(); }
};

// Widths around the block sizes (8 and 16 pixels), odd ones, padded strides.
TEST_P(PrimitivesEveryPath, GiveTheScalarBytesWithoutTouchingPadding)
{
    const auto [w, h] = GetParam();
    const ULONG yuy2Stride = 2 * w + 6, rgbStride = 3 * w + 5;
    const Bytes yuy2 = RandomBytes(Picture(yuy2Stride, 2 * w, h, 0).size(), w * 131 + h);
    const Bytes rgb = RandomBytes(Picture(rgbStride, 3 * w, h, 0).size(), w * 17 + h);
    auto convert = [&](PrimitivesPath path, Bytes* pRgbOut, Bytes* pYuy2Out) {
        ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
        *pRgbOut = Picture(rgbStride, 3 * w, h, kUntouched);
        *pYuy2Out = Picture(yuy2Stride, 2 * w, h, kUntouched);
        kv::Yuy2ToRgb24(yuy2.data(), yuy2Stride, pRgbOut->data(), rgbStride, w, h);
        kv::Rgb24ToYuy2BottomUp(rgb.data(), rgbStride, pYuy2Out->data(), yuy2Stride, w, h);
    };
    Bytes scalarRgb, scalarYuy2;
    convert(PrimitivesPath::Scalar, &scalarRgb, &scalarYuy2);
    for (PrimitivesPath path : VectorPaths()) {
        Bytes rgbOut, yuy2Out;
        convert(path, &rgbOut, &yuy2Out);
        EXPECT_TRUE(SameBytes(scalarRgb, rgbOut)) << Name(path) << " YUY2 to RGB";
        EXPECT_TRUE(SameBytes(scalarYuy2, yuy2Out)) << Name(path) << " RGB to YUY2";
    }
    for (ULONG row = 0; row + 1 < h; ++row) {
        EXPECT_EQ(scalarRgb[row * rgbStride + 3 * w], kUntouched) << "row " << row;
        EXPECT_EQ(scalarYuy2[row * yuy2Stride + 2 * w], kUntouched) << "row " << row;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PrimitivesEveryPath,
                         testing::Values(Size{2, 1}, Size{6, 3}, Size{30, 7}, Size{640, 480}, Size{7, 3}, Size{1, 2},
                                         Size{18, 2}, Size{34, 3}, Size{48, 1}),
                         [](const testing::TestParamInfo<Size>& info) {
                             return std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
                         });

// Pixel pairs whose bytes tell the rule from its likely "fixes": green
// weighted 129, U and V averaged or both from one pixel, a shift that
// rounds toward zero. Each pair fills the last source row of a 32 x 2
// picture (whole vector blocks), the top of a bottom-up picture, so it is
// the first output row; the other source row is black.
TEST(Primitives, RgbToYuy2KeepsTheDriversRuleOnEveryPath)
{
    struct Case {
        const char* name;
        UCHAR first[3], second[3];  // B, G, R
        UCHAR yuy2[4];              // Y0 U Y1 V
    };
    const Case cases[] = {
        {"black", {0, 0, 0}, {0, 0, 0}, {16, 128, 16, 128}},
        {"white", {255, 255, 255}, {255, 255, 255}, {234, 128, 234, 128}},
        {"green: weight 128, negative sums round down", {0, 255, 0}, {0, 255, 0}, {143, 54, 143, 34}},
        {"blue then red: U from blue, V from red", {255, 0, 0}, {0, 0, 255}, {40, 239, 81, 239}},
        {"red then blue: U from red, V from blue", {0, 0, 255}, {255, 0, 0}, {81, 90, 40, 110}},
    };
    constexpr ULONG w = 32, h = 2;
    for (PrimitivesPath path : {PrimitivesPath::Scalar, PrimitivesPath::Sse2, PrimitivesPath::Avx2}) {
        if (!kv::SetPrimitivesPathForTest(path)) continue;
        for (const Case& c : cases) {
            Bytes rgb(3 * w * h, 0);
            for (ULONG x = 0; x < w; ++x) std::copy_n(x % 2 ? c.second : c.first, 3, &rgb[3 * (w + x)]);
            Bytes yuy2(2 * w * h);
            kv::Rgb24ToYuy2BottomUp(rgb.data(), 3 * w, yuy2.data(), 2 * w, w, h);
            for (ULONG g = 0; g < w / 2; ++g) {
                EXPECT_EQ(Bytes(&yuy2[4 * g], &yuy2[4 * g + 4]), Bytes(c.yuy2, c.yuy2 + 4))
                    << Name(path) << ", " << c.name << ", group " << g;
            }
            EXPECT_EQ(yuy2[2 * w], 16) << "the second output row is the first (black) source row";
        }
    }
    kv::InitPrimitives();
}

// libyuv's YUY2ToARGB then ARGBToRGB24, for every (Y, U, V): one row per
// (U, V), each row Y = 0..255.
TEST(Primitives, Yuy2ToRgbEqualsLibyuvForEveryYuvTriple)
{
#ifndef KV_HAVE_LIBYUV
    GTEST_SKIP() << "built without libyuv (Debian package libyuv-dev)";
#else
    constexpr int w = 256, h = 65536;
    Bytes yuy2(size_t(2) * w * h);
    for (int row = 0; row < h; ++row) {
        for (int g = 0; g < w / 2; ++g) {
            UCHAR* p = &yuy2[size_t(row) * 2 * w + 4 * g];
            p[0] = UCHAR(2 * g), p[1] = UCHAR(row >> 8), p[2] = UCHAR(2 * g + 1), p[3] = UCHAR(row);
        }
    }
    Bytes argb(size_t(4) * w * h), expected(size_t(3) * w * h);
    ASSERT_EQ(libyuv::YUY2ToARGB(yuy2.data(), 2 * w, argb.data(), 4 * w, w, h), 0);
    ASSERT_EQ(libyuv::ARGBToRGB24(argb.data(), 4 * w, expected.data(), 3 * w, w, h), 0);
    for (PrimitivesPath path : {PrimitivesPath::Scalar, PrimitivesPath::Sse2, PrimitivesPath::Avx2}) {
        if (!kv::SetPrimitivesPathForTest(path)) continue;
        Bytes rgb(expected.size());
        kv::Yuy2ToRgb24(yuy2.data(), 2 * w, rgb.data(), 3 * w, w, h);
        EXPECT_TRUE(SameBytes(expected, rgb)) << Name(path);
    }
    kv::InitPrimitives();
#endif
}

// The save may fail (the kernel may need memory for it): the conversion
// then runs without AVX and without restoring a state it never saved (the
// simulation reports an unpaired restore), at DISPATCH_LEVEL too.
TEST(Primitives, Avx2PathFallsBackWhenTheAvxStateCannotBeSaved)
{
    if (!kv::SetPrimitivesPathForTest(PrimitivesPath::Avx2)) GTEST_SKIP() << "no AVX2 here";
    constexpr ULONG w = 64, h = 4;
    const Bytes yuy2 = RandomBytes(2 * w * h, 7);
    Bytes expected(3 * w * h), rgb(3 * w * h);
    kv::SetPrimitivesPathForTest(PrimitivesPath::Scalar);
    kv::Yuy2ToRgb24(yuy2.data(), 2 * w, expected.data(), 3 * w, w, h);
    kv::SetPrimitivesPathForTest(PrimitivesPath::Avx2);
    kvsim::PoolFailTag(kvsim::PoolTag("XSav"));
    drvtest::AtDispatchLevel([&] {
        kv::Yuy2ToRgb24(yuy2.data(), 2 * w, rgb.data(), 3 * w, w, h);
        return 0;
    });
    EXPECT_GT(kvsim::PoolInjectedFailureCount(), 0u) << "the conversion asked to save the AVX state";
    kvsim::PoolResetFaultInjection();
    EXPECT_TRUE(SameBytes(expected, rgb));
    kv::InitPrimitives();
}

TEST(Primitives, MirrorInPlaceExchangesRowsAndLeavesTheirPadding)
{
    constexpr ULONG w = 5, step = 3 * w + 4;
    for (ULONG h = 1; h <= 4; ++h) {
        for (LONG sign : {1, -1}) {
            const Bytes original = RandomBytes(step * h, h);
            Bytes image = original;
            // A negative step walks up from the last row in memory.
            UCHAR* pFirst = sign > 0 ? image.data() : image.data() + step * (h - 1);
            ASSERT_EQ(kv::MirrorInPlace(pFirst, sign * LONG(step), w, h, kv::kMirrorAxisRows), STATUS_SUCCESS);
            for (ULONG row = 0; row < h; ++row) {
                const UCHAR* pWas = &original[step * (h - 1 - row)];
                EXPECT_EQ(Bytes(&image[step * row], &image[step * row] + 3 * w), Bytes(pWas, pWas + 3 * w))
                    << "height " << h << ", row " << row;
                EXPECT_EQ(Bytes(&image[step * row] + 3 * w, &image[step * row] + step),
                          Bytes(&original[step * row] + 3 * w, &original[step * row] + step));
            }
        }
    }
    Bytes image(3 * w * 2);
    EXPECT_EQ(kv::MirrorInPlace(image.data(), 3 * w, w, 2, 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kv::MirrorInPlace(image.data(), 3 * w - 1, w, 2, kv::kMirrorAxisRows), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(kv::MirrorInPlace(nullptr, 3 * w, w, 2, kv::kMirrorAxisRows), STATUS_INVALID_PARAMETER);
}

// A picture with a marker on its top-left pixel, flipped, mirrored or both,
// in either format: the marker is where a viewer expects it and alone. For
// YUY2 the marker's group has its own U and V, which must stay with it.
struct Corner {
    bool flip, mirror, yuy2;
    ULONG x, y;  // where the marker ends up (w = 6, h = 4)
};

void PrintTo(const Corner& c, std::ostream* os)
{
    *os << (c.yuy2 ? "YUY2" : "RGB") << (c.flip ? " flip" : "") << (c.mirror ? " mirror" : "");
}

class FlipMirror : public testing::TestWithParam<Corner> {};

TEST_P(FlipMirror, PutsTheTopLeftMarkerInTheExpectedCorner)
{
    const Corner c = GetParam();
    constexpr ULONG w = 6, h = 4;
    const ULONG bytes = c.yuy2 ? 2 : 3;
    const UCHAR marker[4] = {200, 60, 16, 220}, background[4] = {16, 128, 16, 128};  // Y0 U Y1 V
    Bytes picture(w * h * bytes), out(picture.size());
    for (size_t i = 0; i < picture.size(); ++i) picture[i] = c.yuy2 ? background[i % 4] : 0;
    if (c.yuy2) {
        std::copy_n(marker, 4, picture.begin());
        kv::FlipMirrorYuy2(picture.data(), out.data(), w, h, c.flip, c.mirror);
    } else {
        picture[0] = 1, picture[1] = 2, picture[2] = 3;
        kv::FlipMirrorRgb(picture.data(), out.data(), w, h, c.flip, c.mirror);
    }
    for (ULONG y = 0; y < h; ++y) {
        for (ULONG x = 0; x < w; ++x) {
            const bool here = x == c.x && y == c.y;
            const UCHAR* p = &out[(y * w + x) * bytes];
            if (c.yuy2) {
                EXPECT_EQ(p[0], here ? marker[0] : 16) << "luma at " << x << "," << y;
                const UCHAR* pGroup = &out[(y * w + x / 2 * 2) * 2];
                const bool markerGroup = y == c.y && x / 2 == c.x / 2;
                EXPECT_EQ(pGroup[1], markerGroup ? marker[1] : 128) << "U at " << x << "," << y;
                EXPECT_EQ(pGroup[3], markerGroup ? marker[3] : 128) << "V at " << x << "," << y;
            } else {
                EXPECT_EQ(Bytes(p, p + 3), (here ? Bytes{1, 2, 3} : Bytes{0, 0, 0})) << "at " << x << "," << y;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Variants, FlipMirror,
    testing::Values(Corner{false, false, true, 0, 0}, Corner{true, false, true, 0, 3}, Corner{false, true, true, 5, 0},
                    Corner{true, true, true, 5, 3}, Corner{false, false, false, 0, 0}, Corner{true, false, false, 0, 3},
                    Corner{false, true, false, 5, 0}, Corner{true, true, false, 5, 3}),
    [](const testing::TestParamInfo<Corner>& info) {
        const Corner& c = info.param;
        return std::string(c.yuy2 ? "Yuy2" : "Rgb") + (c.flip ? "Flip" : "") + (c.mirror ? "Mirror" : "") +
               (!c.flip && !c.mirror ? "Copy" : "");
    });

}  // namespace
