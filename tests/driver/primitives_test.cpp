// The frame loop's imaging primitives: the colour conversions give libyuv's
// bytes (YUY2 to RGB) and the driver's rule (RGB to YUY2) on every path the
// machine can run, whatever the size; the AVX2 path falls back when the AVX
// state cannot be saved; turned and mirrored pictures put a corner where a
// viewer expects it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
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
// YUY2 the marker's group has its own U and V, which stay with it; mirrored,
// its V also lands one group to the left (each odd pixel takes the byte
// before its mirrored luma).
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
                const bool vFringe = c.mirror && y == c.y && x / 2 == (c.x - 2) / 2;
                EXPECT_EQ(pGroup[1], markerGroup ? marker[1] : 128) << "U at " << x << "," << y;
                EXPECT_EQ(pGroup[3], markerGroup || vFringe ? marker[3] : 128) << "V at " << x << "," << y;
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

// ---- Resize, Rotate and the frame loop's quarter turns ---------------------------
namespace {

using kv::ImageRect;
using kv::ImageSize;

// Bilinear in double precision: destination (i, j) shows source point
// (i / xf + xs, j / yf + ys), held inside the source.
Bytes ReferenceResize(const Bytes& src, LONG step, LONG sw, LONG sh, LONG dw, LONG dh, double xs, double ys)
{
    const double xf = double(dw) / sw, yf = double(dh) / sh;
    Bytes out(size_t(3) * dw * dh);
    for (LONG j = 0; j < dh; ++j) {
        const double sy = std::clamp(j / yf + ys, 0.0, double(sh - 1));
        const LONG y0 = LONG(sy), y1 = std::min(y0 + 1, sh - 1);
        for (LONG i = 0; i < dw; ++i) {
            const double sx = std::clamp(i / xf + xs, 0.0, double(sw - 1));
            const LONG x0 = LONG(sx), x1 = std::min(x0 + 1, sw - 1);
            const double fx = sx - x0, fy = sy - y0;
            for (int c = 0; c < 3; ++c) {
                auto at = [&](LONG x, LONG y) { return double(src[size_t(y) * step + 3 * x + c]); };
                const double v = (at(x0, y0) * (1 - fx) + at(x1, y0) * fx) * (1 - fy) +
                                 (at(x0, y1) * (1 - fx) + at(x1, y1) * fx) * fy;
                out[(size_t(j) * dw + i) * 3 + c] = UCHAR(std::lround(v));
            }
        }
    }
    return out;
}

struct ResizeCase {
    LONG sw, sh, dw, dh;
};
void PrintTo(const ResizeCase& c, std::ostream* os) { *os << c.sw << "x" << c.sh << "to" << c.dw << "x" << c.dh; }

class ResizeEveryPath : public testing::TestWithParam<ResizeCase> {
protected:
    void TearDown() override { kv::InitPrimitives(); }
};

// The source rectangle sits inside a larger picture whose frame of extreme
// samples must not leak in; the destination rectangle inside a larger one
// whose other pixels must stay. Centred pixels and plain i / factor.
TEST_P(ResizeEveryPath, MatchesDoubleBilinearWithinOneAndGivesTheScalarBytes)
{
    const auto [sw, sh, dw, dh] = GetParam();
    const LONG srcStep = 3 * (sw + 3) + 2, dstStep = 3 * (dw + 4) + 1;
    const ImageSize srcSize{sw + 3, sh + 2};
    const ImageRect srcRect{2, 1, sw, sh}, dstRect{3, 2, dw, dh};
    Bytes src = RandomBytes(size_t(srcStep) * (sh + 2), sw * 7 + dh);
    Bytes inside(size_t(srcStep) * sh);  // the rectangle alone, for the reference
    for (LONG y = 0; y < sh; ++y) std::copy_n(&src[size_t(y + 1) * srcStep + 6], 3 * sw, &inside[size_t(y) * srcStep]);
    LONG workSize = 0;
    ASSERT_EQ(kv::ResizeBufferSize(srcRect, dstRect, 3, kv::kInterpolationBilinear, &workSize), STATUS_SUCCESS);
    for (const bool centred : {true, false}) {
        const double xf = double(dw) / sw, yf = double(dh) / sh;
        const double xs = centred ? 0.5 / xf - 0.5 : 0, ys = centred ? 0.5 / yf - 0.5 : 0;
        const Bytes expected = ReferenceResize(inside, srcStep, sw, sh, dw, dh, xs, ys);
        Bytes scalar;
        for (PrimitivesPath path : {PrimitivesPath::Scalar, PrimitivesPath::Sse2, PrimitivesPath::Avx2}) {
            if (!kv::SetPrimitivesPathForTest(path)) continue;
            Bytes dst(size_t(dstStep) * (dh + 3), kUntouched), work(workSize);
            ASSERT_EQ(kv::Resize(src.data(), srcSize, srcStep, srcRect, dst.data(), dstStep, dstRect, xf, yf, xs, ys,
                                 kv::kInterpolationBilinear, work.data()),
                      STATUS_SUCCESS);
            if (path == PrimitivesPath::Scalar) {
                scalar = dst;
                int worst = 0;
                for (LONG j = 0; j < dh; ++j) {
                    for (LONG k = 0; k < 3 * dw; ++k) {
                        const int d = std::abs(int(dst[size_t(j + 2) * dstStep + 9 + k]) - expected[size_t(j) * 3 * dw + k]);
                        worst = std::max(worst, d);
                    }
                }
                EXPECT_LE(worst, 1) << (centred ? "centred" : "corner");
                size_t touched = 0;
                for (size_t i = 0; i < dst.size(); ++i) {
                    const LONG row = LONG(i / dstStep), col = LONG(i % dstStep);
                    const bool in = row >= 2 && row < 2 + dh && col >= 9 && col < 9 + 3 * dw;
                    touched += !in && dst[i] != kUntouched;
                }
                EXPECT_EQ(touched, 0u) << "bytes written outside the destination rectangle";
            } else {
                EXPECT_TRUE(SameBytes(scalar, dst)) << Name(path) << (centred ? " centred" : " corner");
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ResizeEveryPath,
                         testing::Values(ResizeCase{1280, 720, 640, 480}, ResizeCase{640, 480, 480, 360},
                                         ResizeCase{320, 240, 640, 480}, ResizeCase{7, 5, 13, 11},
                                         ResizeCase{13, 11, 7, 5}, ResizeCase{1, 1, 5, 3}, ResizeCase{5, 3, 1, 1},
                                         ResizeCase{33, 17, 101, 9}, ResizeCase{101, 3, 37, 8},
                                         ResizeCase{64, 2, 65, 2}),
                         [](const testing::TestParamInfo<ResizeCase>& info) {
                             const ResizeCase& c = info.param;
                             return std::to_string(c.sw) + "x" + std::to_string(c.sh) + "to" + std::to_string(c.dw) +
                                    "x" + std::to_string(c.dh);
                         });

TEST(Primitives, ResizeAndRotateRefuseWhatTheyCannotDoWithoutWriting)
{
    Bytes src(3 * 4 * 4, 9), dst(3 * 4 * 4, kUntouched), work(4096);
    const ImageSize size{4, 4};
    const ImageRect whole{0, 0, 4, 4};
    struct Case {
        const char* name;
        ImageRect srcRect, dstRect;
        double factor, shift;  // the factor is Resize's only
        int interpolation;
        LONG expected;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Case cases[] = {
        {"source rectangle past the picture", {1, 0, 4, 4}, whole, 1, 0, 2, STATUS_INVALID_PARAMETER},
        {"empty destination", whole, {0, 0, 0, 4}, 1, 0, 2, STATUS_INVALID_PARAMETER},
        {"destination row past its step", whole, {1, 0, 4, 4}, 1, 0, 2, STATUS_INVALID_PARAMETER},
        {"NaN shift", whole, whole, 1, nan, 2, STATUS_INVALID_PARAMETER},
        {"nearest neighbour", whole, whole, 1, 0, 1, STATUS_NOT_SUPPORTED},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(kv::Resize(src.data(), size, 12, c.srcRect, dst.data(), 12, c.dstRect, c.factor, c.factor, c.shift,
                             c.shift, c.interpolation, work.data()),
                  c.expected)
            << c.name;
        EXPECT_EQ(kv::Rotate(src.data(), size, 12, c.srcRect, dst.data(), 12, c.dstRect, 90, c.shift, c.shift,
                             c.interpolation),
                  c.expected)
            << c.name;
    }
    EXPECT_EQ(kv::Resize(src.data(), size, 12, whole, dst.data(), 12, whole, 0, 1, 0, 0, 2, work.data()),
              STATUS_INVALID_PARAMETER)
        << "zero factor";
    EXPECT_EQ(dst, Bytes(dst.size(), kUntouched));
    EXPECT_EQ(kv::RotateFrame(1, 0, 4, dst.data(), src.data()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(kv::RotateFrame(1, 4, 4, nullptr, src.data()), STATUS_INVALID_PARAMETER);
}

// A picture of w x h pixels numbered from 1 in each pixel's three bytes
// (B = low, G = high byte of the number, R = 7), bottom-up as the frame loop
// holds it.
Bytes NumberedFrame(ULONG w, ULONG h)
{
    Bytes frame(size_t(3) * w * h);
    for (size_t p = 0; p < size_t(w) * h; ++p) {
        frame[3 * p] = UCHAR(p + 1), frame[3 * p + 1] = UCHAR((p + 1) >> 8), frame[3 * p + 2] = 7;
    }
    return frame;
}

// Picture coordinates (x right, y down as the viewer sees it) of a
// bottom-up frame's pixel.
const UCHAR* Seen(const Bytes& frame, ULONG w, ULONG h, ULONG x, ULONG y)
{
    return &frame[(size_t(h - 1 - y) * w + x) * 3];
}

// Rotation turns clockwise as the viewer sees it, by the setting modulo 4;
// every pixel moves exactly (a square frame, or a half turn of any frame).
TEST(Primitives, RotateFrameTurnsClockwiseAsSeenAndMovesEveryPixelExactly)
{
    struct Case {
        LONG setting;
        ULONG w, h;
        int clockwiseQuarters;
    };
    const Case cases[] = {{1, 6, 6, 1}, {2, 6, 6, 2}, {3, 6, 6, 3}, {4, 6, 6, 0},  {-1, 6, 6, 3},
                          {5, 5, 5, 1}, {2, 7, 4, 2}, {-2, 9, 5, 2}, {0, 7, 4, 0}, {2, 1280, 720, 2}};
    for (const Case& c : cases) {
        const Bytes src = NumberedFrame(c.w, c.h);
        Bytes dst(src.size(), kUntouched);
        ASSERT_EQ(kv::RotateFrame(c.setting, c.w, c.h, dst.data(), src.data()), STATUS_SUCCESS) << c.setting;
        for (ULONG y = 0; y < c.h; ++y) {
            for (ULONG x = 0; x < c.w; ++x) {
                // Where the viewer's (x, y) lands after the clockwise quarters.
                ULONG tx = x, ty = y, side = c.w;
                for (int q = 0; q < c.clockwiseQuarters; ++q) {
                    const ULONG nx = (q % 2 == 0 ? c.h : c.w) - 1 - ty, ny = tx;
                    tx = nx, ty = ny, side = side == c.w ? c.h : c.w;
                }
                const UCHAR* pWas = Seen(src, c.w, c.h, x, y);
                const UCHAR* pNow = Seen(dst, c.w, c.h, tx, ty);
                ASSERT_EQ(Bytes(pNow, pNow + 3), Bytes(pWas, pWas + 3))
                    << "setting " << c.setting << " " << c.w << "x" << c.h << ": pixel " << x << "," << y;
            }
        }
    }
}

// A quarter turn of 640 x 480 cannot fill the frame: the picture, shrunk to
// 480 x 360 and turned, stands 360 wide in the middle, black on both sides.
// The viewer's top-left block ends top-right (1) or bottom-left (3).
TEST(Primitives, RotateFrameLetterboxesAQuarterTurnOfAWideFrame)
{
    constexpr ULONG w = 640, h = 480, side = 40;
    Bytes src(size_t(3) * w * h, 100);
    for (ULONG y = 0; y < side; ++y) {
        for (ULONG x = 0; x < side; ++x) std::fill_n(const_cast<UCHAR*>(Seen(src, w, h, x, y)), 3, 250);
    }
    struct Case {
        LONG setting;
        ULONG blockX, blockY;  // the shrunk block's (30 x 30) corner, as seen
    };
    for (const Case c : {Case{1, 140 + 360 - 30, 0}, Case{3, 140, 480 - 30}}) {
        Bytes reference;
        for (PrimitivesPath path : {PrimitivesPath::Scalar, PrimitivesPath::Sse2, PrimitivesPath::Avx2}) {
            if (!kv::SetPrimitivesPathForTest(path)) continue;
            Bytes dst(src.size(), kUntouched);
            ASSERT_EQ(kv::RotateFrame(c.setting, w, h, dst.data(), src.data()), STATUS_SUCCESS);
            if (path != PrimitivesPath::Scalar) {
                EXPECT_TRUE(SameBytes(reference, dst)) << Name(path);
                continue;
            }
            reference = dst;
            for (ULONG y = 0; y < h; ++y) {
                for (ULONG x = 0; x < w; ++x) {
                    const UCHAR v = *Seen(dst, w, h, x, y);
                    const bool bar = x < 140 || x >= 500;
                    const bool block = x >= c.blockX + 1 && x + 1 < c.blockX + 30 && y >= c.blockY + 1 &&
                                       y + 1 < c.blockY + 30;
                    const bool nearBlock = x + 1 >= c.blockX && x <= c.blockX + 30 && y + 1 >= c.blockY &&
                                           y <= c.blockY + 30;
                    if (bar) {
                        ASSERT_EQ(v, 0) << "setting " << c.setting << " at " << x << "," << y;
                    } else if (block) {
                        ASSERT_EQ(v, 250) << "setting " << c.setting << " at " << x << "," << y;
                    } else if (!nearBlock) {
                        ASSERT_EQ(v, 100) << "setting " << c.setting << " at " << x << "," << y;
                    }
                }
            }
        }
    }
    kv::InitPrimitives();
}

// Without the work buffers the frame goes on unturned.
TEST(Primitives, RotateFrameWithoutWorkBuffersLeavesTheFrameAsItWas)
{
    constexpr ULONG w = 64, h = 48;
    const Bytes src = RandomBytes(3 * w * h, 3);
    Bytes dst(src.size(), kUntouched);
    kvsim::PoolFailTag(kvsim::PoolTag("KVMI"));
    EXPECT_EQ(kv::RotateFrame(1, w, h, dst.data(), src.data()), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_TRUE(SameBytes(src, dst));
}

// Any angle: a turned uniform picture keeps its colour up to its border
// (nothing outside it is read), and pixels it does not reach keep theirs.
// A hair off 90 degrees takes the interpolating path, which must agree
// with the exact quarter turn.
TEST(Primitives, RotateByAnyAngleAgreesWithTheQuarterTurnAndKeepsUnreachedPixels)
{
    constexpr LONG n = 21, step = 3 * n;
    const ImageSize size{n, n};
    const ImageRect whole{0, 0, n, n};
    Bytes uniform(3 * n * n, 77), turned(3 * n * n, kUntouched);
    // 45 degrees about the centre: x' = x c + y s + xs with the centre fixed.
    const double r = 1 / std::sqrt(2.0), centre = (n - 1) / 2.0;
    const double xs = centre - centre * r - centre * r, ys = centre + centre * r - centre * r;
    ASSERT_EQ(kv::Rotate(uniform.data(), size, step, whole, turned.data(), step, whole, 45, xs, ys, 2), STATUS_SUCCESS);
    EXPECT_EQ(turned[(10 * n + 10) * 3], 77) << "centre";
    EXPECT_EQ(turned[(10 * n + 0) * 3], 77) << "middle of the left edge (a corner of the diamond)";
    for (size_t corner : {size_t(0), size_t(n - 1), size_t(n * (n - 1)), size_t(n * n - 1)}) {
        EXPECT_EQ(turned[corner * 3], kUntouched) << "corner pixel " << corner;
    }
    for (UCHAR v : turned) EXPECT_TRUE(v == 77 || v == kUntouched);

    const Bytes src = RandomBytes(3 * n * n, 11);
    Bytes exact(src.size(), 0), near(src.size(), 0);
    ASSERT_EQ(kv::Rotate(src.data(), size, step, whole, exact.data(), step, whole, 90, 0, n - 1, 2), STATUS_SUCCESS);
    ASSERT_EQ(kv::Rotate(src.data(), size, step, whole, near.data(), step, whole, 90.0000001, 0, n - 1, 2),
              STATUS_SUCCESS);
    EXPECT_TRUE(SameBytes(exact, near));
}

TEST(Primitives, ImageBuffersAreAlignedForVectorsAndReleasedWithTheirTag)
{
    for (SIZE_T size : {SIZE_T(1), SIZE_T(63), SIZE_T(4096), SIZE_T(640 * 480 * 3)}) {
        auto* p = static_cast<UCHAR*>(kv::AllocImageBuffer(size));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % kv::kImageBufferAlignment, 0u);
        EXPECT_EQ(kv::SetBytes(0x5A, p, LONG(size)), STATUS_SUCCESS);  // every byte is ours
        EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVMI")).currentCount, 1u);
        kv::FreeImageBuffer(p);
        EXPECT_EQ(p, nullptr);
    }
    EXPECT_EQ(kv::AllocImageBuffer(0), nullptr);
    EXPECT_EQ(kv::ZeroBytes(nullptr, 4), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(kv::CopyBytes(nullptr, nullptr, -1), STATUS_INVALID_PARAMETER);
    // SetImage writes the region's width of each row, not the step's padding.
    Bytes grey(10 * 3, kUntouched);
    EXPECT_EQ(kv::SetImage(0, grey.data(), 10, ImageSize{7, 3}), STATUS_SUCCESS);
    for (size_t i = 0; i < grey.size(); ++i) EXPECT_EQ(grey[i], i % 10 < 7 ? 0 : kUntouched) << i;
}

}  // namespace
