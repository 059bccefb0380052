// The special effects as a viewer sees them: tints give the expected colours,
// grain and emboss follow their rules on every byte, mosaic blocks have the
// size the width asks for and stay inside the frame, the border's levels and
// seam, the picture grid's first frame and cadence, the zoom animation's
// phases, the brush strokes' random sequence, the YUY2 reflections, and no
// effect writes outside its frame, whatever its size.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "imaging/effects.h"
#include "imaging/effects_tables.h"
#include "kvsim/pool.h"

namespace {

using Bytes = std::vector<UCHAR>;

constexpr size_t kGuardBytes = 64;
constexpr UCHAR kGuard = 0xA5;

Bytes RandomBytes(size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes bytes(count);
    for (auto& b : bytes) b = UCHAR(rng() >> 8);
    return bytes;
}

Bytes Uniform(ULONG w, ULONG h, UCHAR b, UCHAR g, UCHAR r)
{
    Bytes frame(size_t(3) * w * h);
    for (size_t i = 0; i < frame.size(); i += 3) frame[i] = b, frame[i + 1] = g, frame[i + 2] = r;
    return frame;
}

const UCHAR* Pixel(const Bytes& frame, ULONG w, ULONG x, ULONG y) { return &frame[(size_t(y) * w + x) * 3]; }
Bytes Bgr(const Bytes& frame, ULONG w, ULONG x, ULONG y)
{
    const UCHAR* p = Pixel(frame, w, x, y);
    return Bytes(p, p + 3);
}

// A buffer with guard bytes on both sides.
struct Guarded {
    explicit Guarded(const Bytes& content) : bytes(content.size() + 2 * kGuardBytes, kGuard)
    {
        std::copy(content.begin(), content.end(), bytes.begin() + kGuardBytes);
    }
    PUCHAR data() { return bytes.data() + kGuardBytes; }
    Bytes Content() const { return Bytes(bytes.begin() + kGuardBytes, bytes.end() - kGuardBytes); }
    bool GuardsIntact() const
    {
        for (size_t i = 0; i < kGuardBytes; ++i) {
            if (bytes[i] != kGuard || bytes[bytes.size() - 1 - i] != kGuard) return false;
        }
        return true;
    }
    Bytes bytes;
};

class Effects : public testing::Test {
protected:
    void SetUp() override { InitEffectState(&m_State); }
    // Effect 0 gives the grid's buffers back; the pool reports any leak.
    void TearDown() override { ApplySpecialEffect(&m_State, 0, 0, 0, nullptr, nullptr); }

    Bytes Rgb(ULONG effect, ULONG w, ULONG h, Bytes frame)
    {
        ApplySpecialEffect(&m_State, effect, w, h, frame.data(), nullptr);
        return frame;
    }

    EffectState m_State;
};

// ---- colour rules ---------------------------------------------------------------

// Pixels whose results were worked out from the curves by hand: the extremes
// and pixels that land on different stretches of each curve, so that a
// mistyped curve entry or a wrong luma share shows.
TEST_F(Effects, CurveTintsGiveTheColoursOfTheirCurves)
{
    struct Case {
        ULONG effect;
        UCHAR in[3], out[3];  // B, G, R
    };
    const Case cases[] = {
        {8, {0, 0, 0}, {0, 0, 0}},           {8, {255, 255, 255}, {248, 253, 253}},
        {8, {128, 64, 200}, {67, 85, 163}},  {8, {17, 230, 99}, {89, 207, 155}},
        {8, {200, 100, 50}, {93, 94, 81}},   {11, {255, 255, 255}, {237, 237, 247}},
        {11, {128, 64, 200}, {96, 65, 158}}, {11, {200, 100, 50}, {125, 73, 72}},
        {12, {255, 255, 255}, {245, 235, 235}}, {12, {17, 230, 99}, {83, 174, 104}},
        {12, {200, 100, 50}, {145, 69, 46}},
    };
    for (const Case& c : cases) {
        // 7 pixels: the one under test last, after whole groups of two.
        Bytes frame = Uniform(7, 1, 9, 9, 9);
        std::copy_n(c.in, 3, &frame[18]);
        const Bytes out = Rgb(c.effect, 7, 1, frame);
        EXPECT_EQ(Bgr(out, 7, 6, 0), Bytes(c.out, c.out + 3))
            << "effect " << c.effect << " on " << int(c.in[0]) << "," << int(c.in[1]) << "," << int(c.in[2]);
    }
}

// Every entry of every curve, each against 256 different partners in the
// other two bytes: the FNV-1a hash of the result, worked out from the
// curves as published, shows any mistyped entry (a single one moves the
// half-luma of some of its 256 pixels).
TEST_F(Effects, CurveTintsMatchTheirCurvesEntryByEntry)
{
    constexpr ULONG w = 256, h = 256;
    Bytes frame(3 * w * h);
    for (ULONG y = 0; y < h; ++y) {
        for (ULONG x = 0; x < w; ++x) {
            UCHAR* p = &frame[(y * w + x) * 3];
            p[0] = UCHAR(x), p[1] = UCHAR(x + y), p[2] = UCHAR(3 * x + 5 * y);
        }
    }
    auto fnv1a = [](const Bytes& bytes) {
        uint32_t hash = 0x811C9DC5;
        for (UCHAR b : bytes) hash = (hash ^ b) * 0x01000193;
        return hash;
    };
    EXPECT_EQ(fnv1a(Rgb(8, w, h, frame)), 0xF515774Au) << "warm";
    EXPECT_EQ(fnv1a(Rgb(11, w, h, frame)), 0x18B19ED4u) << "red";
    EXPECT_EQ(fnv1a(Rgb(12, w, h, frame)), 0xA946D6EDu) << "blue";
}

// The byte-wise effects, vector body and scalar tail alike, on frames whose
// byte count is not a multiple of the vector.
TEST_F(Effects, PixelRulesHoldOnEveryByte)
{
    struct Case {
        ULONG effect;
        std::function<Bytes(const UCHAR* p, ULONG x, ULONG y)> expected;
    };
    const Case cases[] = {
        {1, [](const UCHAR* p, ULONG, ULONG) { return Bytes{p[0], 0, 0}; }},
        {2, [](const UCHAR* p, ULONG, ULONG) { UCHAR g = UCHAR((p[1] + p[2]) >> 1); return Bytes{g, g, g}; }},
        {6, [](const UCHAR* p, ULONG, ULONG) { return Bytes{UCHAR(~p[0]), UCHAR(~p[1]), UCHAR(~p[2])}; }},
        {7,
         [](const UCHAR* p, ULONG x, ULONG y) {
             const int n = GrainTable.Values[(y % 64) * 64 + x % 64];
             Bytes out(3);
             for (int c = 0; c < 3; ++c) out[c] = UCHAR(std::clamp(p[c] + n, 0, 255));
             return out;
         }},
    };
    for (const auto& [w, h] : {std::pair<ULONG, ULONG>{131, 70}, {5, 3}, {64, 2}}) {
        const Bytes in = RandomBytes(size_t(3) * w * h, w + h);
        for (const Case& c : cases) {
            const Bytes out = Rgb(c.effect, w, h, in);
            for (ULONG y = 0; y < h; ++y) {
                for (ULONG x = 0; x < w; ++x) {
                    ASSERT_EQ(Bgr(out, w, x, y), c.expected(Pixel(in, w, x, y), x, y))
                        << "effect " << c.effect << ", " << w << "x" << h << " at " << x << "," << y;
                }
            }
        }
    }
}

TEST(EffectTables, GrainIsCentredAndSpansItsRange)
{
    int low = 0, high = 0;
    long sum = 0;
    for (SCHAR v : GrainTable.Values) low = std::min<int>(low, v), high = std::max<int>(high, v), sum += v;
    EXPECT_EQ(low, -74);
    EXPECT_EQ(high, 71);
    EXPECT_LT(std::abs(double(sum) / std::size(GrainTable.Values)), 1.0);
}

// ---- emboss, mosaic, border ------------------------------------------------------------

TEST_F(Effects, EmbossComparesWithTheNextRowsStartAtARowsEnd)
{
    constexpr ULONG w = 5, h = 3;
    const Bytes in = RandomBytes(3 * w * h, 9);
    const Bytes out = Rgb(9, w, h, in);
    for (ULONG y = 0; y + 1 < h; ++y) {
        for (ULONG x = 0; x < w; ++x) {
            // Two pixels on by plain offset: x + 2 of this row, or 0 and 1 of the next.
            const ULONG rx = (x + 2) % w, ry = x + 2 < w ? y : y + 1;
            for (int c = 0; c < 3; ++c) {
                const int expected = std::clamp(Pixel(in, w, x, y + 1)[c] - Pixel(in, w, rx, ry)[c] + 127, 0, 255);
                EXPECT_EQ(Pixel(out, w, x, y)[c], expected) << x << "," << y << " byte " << c;
            }
        }
    }
    EXPECT_EQ(Bgr(out, w, 2, h - 1), Bgr(in, w, 2, h - 1)) << "the last row keeps its input";
    const Bytes column = RandomBytes(3 * 4, 3);
    EXPECT_EQ(Rgb(9, 1, 4, column), column) << "a frame one pixel wide is left alone";
}

struct MosaicCase {
    ULONG width, height, block;
};

class MosaicBlocks : public Effects, public testing::WithParamInterface<MosaicCase> {};

// Every block (cut at the frame's edges) is one colour, the average of
// what it covered, and blocks have the size the width asks for.
TEST_P(MosaicBlocks, AreUniformAveragesOfTheirPixels)
{
    const auto [w, h, b] = GetParam();
    const Bytes in = RandomBytes(size_t(3) * w * h, w);
    Guarded frame(in);
    ApplySpecialEffect(&m_State, 10, w, h, frame.data(), nullptr);
    ASSERT_TRUE(frame.GuardsIntact());
    const Bytes out = frame.Content();
    for (ULONG top = 0; top < h; top += b) {
        for (ULONG left = 0; left < w; left += b) {
            const ULONG right = std::min(left + b, w), bottom = std::min(top + b, h);
            unsigned sum[3] = {};
            for (ULONG y = top; y < bottom; ++y)
                for (ULONG x = left; x < right; ++x)
                    for (int c = 0; c < 3; ++c) sum[c] += Pixel(in, w, x, y)[c];
            const unsigned n = (right - left) * (bottom - top);
            const Bytes average = {UCHAR(sum[0] / n), UCHAR(sum[1] / n), UCHAR(sum[2] / n)};
            for (ULONG y = top; y < bottom; ++y)
                for (ULONG x = left; x < right; ++x)
                    ASSERT_EQ(Bgr(out, w, x, y), average) << "block " << left << "," << top << ", pixel " << x << "," << y;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Widths, MosaicBlocks,
                         testing::Values(MosaicCase{176, 144, 8}, MosaicCase{80, 60, 2}, MosaicCase{320, 240, 10},
                                         MosaicCase{352, 288, 16}, MosaicCase{640, 480, 16},
                                         MosaicCase{100, 75, 8}, MosaicCase{640, 470, 16}, MosaicCase{3, 5, 8}),
                         [](const testing::TestParamInfo<MosaicCase>& info) {
                             return std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
                         });

// 640 x 480: 60 levels, 5 apart. On grey 100 the outermost lines are 235,
// level 1 (a = 5) gives 231, level 2 (a = 10) 228, and from level 51 on
// (a = 255) the border darkens by 20: the seam at its inner edge.
TEST_F(Effects, SoftLightBorderLevelsAndSeam)
{
    constexpr ULONG w = 640, h = 480;
    const Bytes out = Rgb(15, w, h, Uniform(w, h, 100, 100, 100));
    auto at = [&](ULONG x, ULONG y) { return int(Pixel(out, w, x, y)[1]); };
    EXPECT_EQ(at(0, 0), 235);
    EXPECT_EQ(at(320, 0), 235);
    EXPECT_EQ(at(639, 479), 235);
    EXPECT_EQ(at(320, 1), 231) << "upper band, level 1";
    EXPECT_EQ(at(0, 240), 231) << "side band: column 0 takes level 1";
    EXPECT_EQ(at(1, 240), 228) << "side band: column 1 takes level 2";
    EXPECT_EQ(at(320, 59), 80) << "innermost row, darkened by 20";
    EXPECT_EQ(at(58, 240), 80) << "innermost side column";
    EXPECT_EQ(at(59, 240), 100) << "inside the border";
    EXPECT_EQ(at(320, 60), 100);
    EXPECT_EQ(at(320, 420), 80);
}

// ---- picture grid -------------------------------------------------------------------

struct Cell {
    ULONG left, top, width, height;  // in buffer rows (the first row is the picture's bottom)
};

// Whether the frame is black but for `cells`, each filled with its colour.
using Cells = std::vector<std::pair<Cell, Bytes>>;
testing::AssertionResult GridShows(const Bytes& frame, ULONG w, ULONG h, const Cells& cells)
{
    for (ULONG y = 0; y < h; ++y) {
        for (ULONG x = 0; x < w; ++x) {
            Bytes expected = {0, 0, 0};
            for (const auto& [cell, colour] : cells) {
                if (x >= cell.left && x < cell.left + cell.width && y >= cell.top && y < cell.top + cell.height) {
                    expected = colour;
                }
            }
            if (Bgr(frame, w, x, y) != expected) {
                return testing::AssertionFailure() << "pixel " << x << "," << y << " is not as expected";
            }
        }
    }
    return testing::AssertionSuccess();
}

TEST_F(Effects, PictureGridFillsOneCellEveryTenFrames)
{
    constexpr ULONG w = 640, h = 480;
    const Bytes red = {0, 0, 200}, green = {0, 200, 0};
    // 640: cells 207 x 154, gaps 5 and 4; cell 0 is in the last band of rows.
    const Cell cell0 = {5, 2 * (154 + 4) + 4, 207, 154}, cell1 = {5 + 212, cell0.top, 207, 154};
    const Bytes first = Rgb(4, w, h, Uniform(w, h, 0, 0, 200));
    EXPECT_TRUE(GridShows(first, w, h, {{cell0, red}}));
    for (int frame = 1; frame < 10; ++frame) {
        ASSERT_EQ(Rgb(4, w, h, Uniform(w, h, 0, 200, 0)), first) << "frame " << frame << " shows the grid as it was";
    }
    EXPECT_TRUE(GridShows(Rgb(4, w, h, Uniform(w, h, 0, 200, 0)), w, h, {{cell0, red}, {cell1, green}}));

    // A new size starts over: 320 has cells 101 x 76, gaps 4 and 3.
    EXPECT_TRUE(GridShows(Rgb(4, 320, 240, Uniform(320, 240, 0, 200, 0)), 320, 240,
                          {{Cell{4, 2 * (76 + 3) + 3, 101, 76}, green}}));
}

// Sizes the table does not have take the 640 x 480 cells scaled to the
// frame, and stay inside it.
TEST_F(Effects, PictureGridScalesItsCellsToOtherSizes)
{
    struct Case {
        ULONG w, h;
        Cell cell0;
    };
    const Case cases[] = {
        {1280, 720, {10, 2 * (231 + 6) + 6, 414, 231}},  // a width outside the table
        {640, 360, {5, 2 * (115 + 3) + 3, 207, 115}},    // a table width too short for its row
        {800, 600, {6, 2 * (192 + 5) + 5, 258, 192}},
    };
    const Bytes blue = {180, 0, 0};
    for (const Case& c : cases) {
        Guarded frame(Uniform(c.w, c.h, 180, 0, 0));
        ApplySpecialEffect(&m_State, 4, c.w, c.h, frame.data(), nullptr);
        EXPECT_TRUE(frame.GuardsIntact());
        EXPECT_TRUE(GridShows(frame.Content(), c.w, c.h, {{c.cell0, blue}})) << c.w << "x" << c.h;
    }
}

// Without memory for their buffers, the effects that need one leave the
// frame as it came.
TEST_F(Effects, WithoutMemoryTheFrameIsUntouched)
{
    constexpr ULONG w = 64, h = 48;
    const Bytes in = RandomBytes(3 * w * h, 5);
    kvsim::PoolFailTag(kvsim::PoolTag("KVMI"));
    for (ULONG effect : {4u, 5u, 9u, 13u}) {
        EXPECT_EQ(Rgb(effect, w, h, in), in) << "effect " << effect;
    }
    EXPECT_GE(kvsim::PoolInjectedFailureCount(), 4u);
    kvsim::PoolResetFaultInjection();
}

// ---- compound eye, zoom animation, resize ----------------------------------------------

// A frame whose pixels name their own column and row: each output pixel
// shows the source pixel of the tile mapping, columns past the right edge
// keep their own, rows are held inside the frame.
TEST_F(Effects, CompoundEyeReadsEachTileAtTwiceItsDistance)
{
    constexpr ULONG w = 60, h = 30;
    Bytes in(3 * w * h);
    for (ULONG y = 0; y < h; ++y)
        for (ULONG x = 0; x < w; ++x) in[(y * w + x) * 3] = UCHAR(x), in[(y * w + x) * 3 + 1] = UCHAR(y);
    const Bytes out = Rgb(5, w, h, in);
    const std::pair<ULONG, ULONG> columns[] = {{0, 0},   {11, 22}, {12, 0},  {24, 23},
                                               {36, 47}, {37, 24}, {55, 55}, {59, 59}};
    const std::pair<ULONG, ULONG> rows[] = {{0, 0}, {12, 0}, {20, 15}, {29, 29}};
    for (const auto& [ox, sx] : columns) {
        for (const auto& [oy, sy] : rows) {
            EXPECT_EQ(Pixel(out, w, ox, oy)[0], sx) << "column of " << ox << "," << oy;
            EXPECT_EQ(Pixel(out, w, ox, oy)[1], sy) << "row of " << ox << "," << oy;
        }
    }
}

// 24 x 12 (step 4): the vertical phase shrinks to a third and grows back,
// the horizontal phase opens with one whole frame, shrinks and grows, and
// the vertical phase comes round again. Each frame shows the rectangle of
// the step before, enlarged.
TEST_F(Effects, ZoomAnimationRunsItsPhasesInTurn)
{
    constexpr ULONG w = 24, h = 12;
    struct Rect {
        LONG x0, y0, x1, y1;
    };
    const Rect whole = {0, 0, 23, 11}, tall = {0, 4, 23, 7};
    const Rect shown[] = {whole, tall, whole, whole, {4, 0, 19, 11}, {8, 0, 15, 11}, {4, 0, 19, 11}, whole, tall};
    const Bytes in = RandomBytes(3 * w * h, 13);
    for (size_t frame = 0; frame < std::size(shown); ++frame) {
        const Rect& r = shown[frame];
        Bytes expected(in.size());
        const ResizeSource source = {in.data(), w, h, r.x0, r.y0, r.x1, r.y1};
        const ResizeDestination destination = {expected.data(), w, h};
        ResizeBilinear(&source, &destination, 3);
        ASSERT_EQ(Rgb(13, w, h, in), expected) << "frame " << frame;
        if (r.x1 - r.x0 == 23 && r.y1 - r.y0 == 11) {
            ASSERT_EQ(expected, in) << "a whole-frame step shows the frame";
        }
    }
}

// A one-pixel rectangle (the rule's index would fall before it) fills the
// destination with its pixel; a rectangle reaching outside does nothing.
TEST(ResizeBilinear, SinglePixelsAndRectanglesOutsideThePicture)
{
    const Bytes picture = {9, 9, 9, 9, 9, 40, 80, 9, 9, 9, 9, 9};  // 4 x 3
    Bytes out(4, 0x11);
    const ResizeDestination four = {out.data(), 4, 1};
    const ResizeSource single = {picture.data(), 4, 3, 2, 1, 2, 1};
    ResizeBilinear(&single, &four, 1);
    EXPECT_EQ(out, (Bytes{80, 80, 80, 80}));
    const ResizeSource outside = {picture.data(), 4, 3, 2, 1, 4, 1};
    std::fill(out.begin(), out.end(), 0x11);
    ResizeBilinear(&outside, &four, 1);
    EXPECT_EQ(out, Bytes(4, 0x11));
}

// The resize's rule written out directly, for rectangles at least two
// pixels on each side: 10-bit weights taken after the index is held at
// span - 2, the low byte of the sum kept.
Bytes ReferenceResize(const Bytes& in, ULONG stride, LONG x0, LONG y0, LONG x1, LONG y1, ULONG w, ULONG h, ULONG bpp)
{
    const LONG rw = x1 - x0 + 1, rh = y1 - y0 + 1;
    const LONG stepX = 0x100000 / ((LONG(w) << 10) / rw), stepY = 0x100000 / ((LONG(h) << 10) / rh);
    auto p = [&](LONG y, LONG x, ULONG c) { return LONG(in[((y0 + y) * LONG(stride) + x0 + x) * bpp + c]); };
    Bytes out(size_t(w) * h * bpp);
    for (LONG j = 0; j < LONG(h); ++j) {
        const LONG fy = j * stepY, iy = std::min(fy >> 10, rh - 2), wy = fy - 1024 * iy;
        for (LONG i = 0; i < LONG(w); ++i) {
            const LONG fx = i * stepX, ix = std::min(fx >> 10, rw - 2), wx = fx - 1024 * ix;
            for (ULONG c = 0; c < bpp; ++c) {
                const int64_t upper = (1024 - wx) * p(iy, ix, c) + wx * p(iy, ix + 1, c);
                const int64_t lower = (1024 - wx) * p(iy + 1, ix, c) + wx * p(iy + 1, ix + 1, c);
                out[(size_t(j) * w + i) * bpp + c] = UCHAR((((1024 - wy) * upper + wy * lower) >> 20) & 0xFF);
            }
        }
    }
    return out;
}

// Enlargements (with their extrapolated last rows and columns) and
// reductions, 1 to 4 bytes a pixel, with the row buffer and without it
// (when the pool has no memory the resize blends directly).
TEST(ResizeBilinear, FollowsTheRuleWithOrWithoutItsRowBuffer)
{
    struct Case {
        ULONG stride, height;
        LONG x0, y0, x1, y1;
        ULONG w, h, bpp;
    };
    const Case cases[] = {
        {40, 30, 3, 2, 22, 15, 64, 48, 3}, {640, 480, 0, 0, 639, 479, 207, 154, 3},
        {9, 7, 2, 1, 6, 4, 37, 29, 1},     {33, 5, 1, 0, 31, 1, 70, 9, 4},
        {21, 21, 0, 0, 20, 20, 8, 60, 2},  {1280, 4, 0, 0, 1279, 3, 1280, 4, 3},
    };
    for (bool memory : {true, false}) {
        for (const Case& c : cases) {
            const Bytes in = RandomBytes(size_t(c.stride) * c.height * c.bpp, c.w);
            Bytes out(size_t(c.w) * c.h * c.bpp);
            const ResizeSource source = {in.data(), c.stride, c.height, c.x0, c.y0, c.x1, c.y1};
            const ResizeDestination destination = {out.data(), c.w, c.h};
            if (!memory) kvsim::PoolFailTag(kvsim::PoolTag("KVMI"));
            ResizeBilinear(&source, &destination, c.bpp);
            kvsim::PoolResetFaultInjection();
            EXPECT_EQ(out, ReferenceResize(in, c.stride, c.x0, c.y0, c.x1, c.y1, c.w, c.h, c.bpp))
                << c.w << "x" << c.h << " from " << c.stride << " wide, " << c.bpp << " bytes, memory " << memory;
        }
    }
}

// ---- brush strokes -------------------------------------------------------------------

TEST_F(Effects, BrushStrokesFollowTheRandomSequenceFromItsStart)
{
    // state = state * 0x6AC690C5 + carry (carry 0 the first time, 1 after),
    // from 0x78B7: 0x78B7 * 0x6AC690C5 = 0x3259_67CD_D4D3 keeps 0x67CDD4D3,
    // whose low 20 bits are 0xDD4D3; and so on.
    EffectState state;
    InitEffectState(&state);
    const ULONG expected[] = {0xDD4D3, 0xD7660, 0x217E1, 0xF026};
    for (ULONG value : expected) EXPECT_EQ(EffectRandom(&state), value);

    // One row, black then white from pixel 3: the first pixel differs from
    // the one three on, so a stroke starts. Lengths from the first two
    // numbers: 0xDD4D3 % 3 = 1, so factor 10, L = 10 * 0xD7660 / 0xFFFFF + 1
    // = 9. Pixel 3: the colour moves 255 * 9 * (0x10000 / 90) >> 15 = 50
    // towards white, and the pixel becomes (255 + 2 * 50) / 3 = 118; later
    // pixels re-aim at the white further on.
    constexpr ULONG w = 16;
    Bytes row = Uniform(w, 1, 255, 255, 255);
    std::fill_n(row.begin(), 9, 0);
    const Bytes out = Rgb(14, w, 1, row);
    const UCHAR grey[w] = {0, 0, 0, 118, 142, 81, 112, 141, 132, 136, 156, 157, 169, 255, 255, 255};
    for (ULONG x = 0; x < w; ++x) EXPECT_EQ(Bgr(out, w, x, 0), Bytes(3, grey[x])) << "pixel " << x;
    EXPECT_EQ(EffectRandom(&m_State), 0xD2B1Du) << "the strokes took the numbers they should";

    // A frame without edges draws nothing and takes no numbers.
    InitEffectState(&m_State);
    const Bytes flat = Uniform(w, 4, 10, 20, 30);
    EXPECT_EQ(Rgb(14, w, 4, flat), flat);
    EXPECT_EQ(EffectRandom(&m_State), 0xDD4D3u);
}

// ---- YUY2 effects -----------------------------------------------------------------------

TEST_F(Effects, Yuy2TintSetsChromaAndKeepsLuma)
{
    for (ULONG w : {8u, 7u, 13u}) {
        constexpr ULONG h = 3;
        const Bytes in = RandomBytes(2 * w * h, w);
        Bytes work = in;
        ApplySpecialEffect(&m_State, 3, w, h, nullptr, work.data());
        for (size_t i = 0; i < work.size(); ++i) {
            const size_t inRow = i % (2 * w);
            const UCHAR expected = inRow % 2 == 0 ? in[i] : (inRow % 4 == 1 ? 128 : 0x30);
            ASSERT_EQ(work[i], expected) << "width " << w << ", byte " << i;
        }
    }
}

TEST_F(Effects, Yuy2ReflectionsMirrorTheKeptHalf)
{
    // 16: the lower rows repeat the upper ones upside down; an odd middle row stays.
    constexpr ULONG w = 4, h = 5, rowBytes = 2 * w;
    const Bytes in = RandomBytes(rowBytes * h, 1);
    Bytes work = in;
    ApplySpecialEffect(&m_State, 16, w, h, nullptr, work.data());
    for (ULONG y = 0; y < h; ++y) {
        const ULONG from = y < h / 2 + 1 ? y : h - 1 - y;
        EXPECT_EQ(Bytes(&work[y * rowBytes], &work[y * rowBytes] + rowBytes),
                  Bytes(&in[from * rowBytes], &in[from * rowBytes] + rowBytes))
            << "row " << y;
    }

    // 17 on 8 pixels: the left half's groups Y0 U Y1 V come back from the
    // right edge as Y1 U Y0 V, in the output and then in the working frame.
    Bytes row = {10, 100, 11, 101, 12, 102, 13, 103, 0, 0, 0, 0, 0, 0, 0, 0};
    Bytes output(row.size(), 0x77);
    ApplySpecialEffect(&m_State, 17, 8, 1, output.data(), row.data());
    const Bytes mirrored = {10, 100, 11, 101, 12, 102, 13, 103, 13, 102, 12, 103, 11, 100, 10, 101};
    EXPECT_EQ(output, mirrored);
    EXPECT_EQ(row, mirrored);

    // 6 pixels: one group is mirrored; the two bytes between keep what the
    // output buffer held.
    Bytes six = {10, 100, 11, 101, 12, 102, 0, 0, 0, 0, 0, 0};
    Bytes sixOut(six.size(), 0x77);
    ApplySpecialEffect(&m_State, 17, 6, 1, sixOut.data(), six.data());
    EXPECT_EQ(sixOut, (Bytes{10, 100, 11, 101, 12, 102, 0x77, 0x77, 11, 100, 10, 101}));
}

// ---- bounds -----------------------------------------------------------------------------

TEST_F(Effects, UnknownNumbersAndBadFramesChangeNothing)
{
    constexpr ULONG w = 16, h = 8;
    const Bytes in = RandomBytes(3 * w * h, 2);
    for (ULONG effect : {18u, 100u, 0xFFFFFFFFu}) EXPECT_EQ(Rgb(effect, w, h, in), in) << "effect " << effect;
    for (ULONG effect = 1; effect <= 17; ++effect) {
        Bytes frame = in, work = in;
        ApplySpecialEffect(&m_State, effect, 0, h, frame.data(), work.data());
        ApplySpecialEffect(&m_State, effect, w, 0, frame.data(), work.data());
        ApplySpecialEffect(&m_State, effect, w, h, nullptr, nullptr);
        EXPECT_EQ(frame, in) << "effect " << effect;
        EXPECT_EQ(work, in) << "effect " << effect;
    }
}

// Every effect, on sizes down to one pixel and across its block and vector
// sizes, several frames running: nothing outside the frame (and for the
// YUY2 effects the working frame) is written. Exactly sized buffers let
// AddressSanitizer catch reads past them too.
class EffectBounds : public Effects, public testing::WithParamInterface<std::pair<ULONG, ULONG>> {};

TEST_P(EffectBounds, StayInsideTheFrame)
{
    const auto [w, h] = GetParam();
    for (ULONG effect = 1; effect <= 17; ++effect) {
        const size_t bytes = size_t(IsYuy2Effect(effect) ? 2 : 3) * w * h;
        Guarded frame(RandomBytes(bytes, effect)), work(RandomBytes(bytes, effect + 100));
        for (int repeat = 0; repeat < 12; ++repeat) {
            ApplySpecialEffect(&m_State, effect, w, h, frame.data(), IsYuy2Effect(effect) ? work.data() : nullptr);
        }
        EXPECT_TRUE(frame.GuardsIntact()) << "effect " << effect;
        EXPECT_TRUE(work.GuardsIntact()) << "effect " << effect;
        Bytes exact = RandomBytes(bytes, effect), exactWork = exact;
        ApplySpecialEffect(&m_State, effect, w, h, exact.data(), IsYuy2Effect(effect) ? exactWork.data() : nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, EffectBounds,
                         testing::Values(std::pair<ULONG, ULONG>{1, 1}, std::pair<ULONG, ULONG>{2, 1},
                                         std::pair<ULONG, ULONG>{1, 3}, std::pair<ULONG, ULONG>{3, 2},
                                         std::pair<ULONG, ULONG>{5, 4}, std::pair<ULONG, ULONG>{7, 5},
                                         std::pair<ULONG, ULONG>{13, 11}, std::pair<ULONG, ULONG>{33, 17},
                                         std::pair<ULONG, ULONG>{100, 75}, std::pair<ULONG, ULONG>{162, 9}),
                         [](const testing::TestParamInfo<std::pair<ULONG, ULONG>>& info) {
                             return std::to_string(info.param.first) + "x" + std::to_string(info.param.second);
                         });

}  // namespace
