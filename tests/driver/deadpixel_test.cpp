// Dead-pixel correction on YUY2 frames: which samples count as defects,
// the search spread over four frames with the other bands repaired from
// what their last search found, a band with too many defects, and frames
// of awkward sizes, which must never be read or written out of bounds.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "driver_test_support.h"
#include "imaging/deadpixel.h"

namespace {

using Bytes = std::vector<UCHAR>;

constexpr ULONG kMargin = 12;  // the frame loop's
const char kTooMany[] = "Bad pixel too many, now processing will break \n";

// A YUY2 frame with every luma `luma` and the chroma bytes 128.
Bytes Frame(ULONG w, ULONG h, UCHAR luma)
{
    Bytes frame(size_t(2) * w * h);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = i % 2 == 0 ? luma : 128;
    return frame;
}

UCHAR& Luma(Bytes& frame, ULONG w, ULONG x, ULONG y)
{
    return frame[(size_t(y) * w + x) * 2];
}

struct Corrector {
    std::unique_ptr<DeadPixelState> pState = std::make_unique<DeadPixelState>();
    Corrector() { ResetDeadPixelState(pState.get()); }
    void Run(Bytes& frame, ULONG w, ULONG h, ULONG phase)
    {
        CorrectDeadPixels(frame.data(), pState.get(), w, h, phase, kMargin, 0);
    }
    USHORT Count(ULONG band) const { return pState->BadPixelList[band][0]; }
};

// A sample more than 12 outside the range of its eight neighbours is
// replaced by the mean of the four beside it; at 12 it is a real detail.
TEST(DeadPixel, ReplacesASampleMoreThanTwelveOutsideItsNeighbours)
{
    struct Case {
        const char* name;
        UCHAR sample;
        bool replaced;
    };
    // Neighbours 90..100: the darkest 90, the brightest 100.
    const Case cases[] = {{"13 above the brightest", 113, true}, {"12 above the brightest", 112, false},
                          {"13 below the darkest", 77, true},    {"12 below the darkest", 78, false},
                          {"white", 255, true},                  {"inside the range", 95, false}};
    constexpr ULONG w = 16, h = 16, x = 5, y = 5;  // band 1 holds rows 4..7
    for (const Case& c : cases) {
        Bytes frame = Frame(w, h, 95);
        const UCHAR around[3][3] = {{90, 100, 92}, {96, 0, 94}, {98, 91, 97}};
        for (int dy = -1; dy <= 1; ++dy) {
            for (int dx = -1; dx <= 1; ++dx) Luma(frame, w, x + dx, y + dy) = around[dy + 1][dx + 1];
        }
        Luma(frame, w, x, y) = c.sample;
        Corrector corrector;
        corrector.Run(frame, w, h, 1);
        const UCHAR mean = (96 + 94 + 100 + 91) / 4;
        EXPECT_EQ(Luma(frame, w, x, y), c.replaced ? mean : c.sample) << c.name;
        EXPECT_EQ(corrector.Count(1), c.replaced ? 1 : 0) << c.name;
    }
}

// A picture without defects (a smooth ramp, random chroma, which is not
// examined) goes through four frames untouched and leaves every list empty.
TEST(DeadPixel, ACleanPictureStaysAsItIsAndLeavesEmptyLists)
{
    constexpr ULONG w = 64, h = 48;
    Bytes frame(2 * w * h);
    std::mt19937 rng(5);
    for (ULONG y = 0; y < h; ++y) {
        for (ULONG i = 0; i < 2 * w; ++i) frame[y * 2 * w + i] = i % 2 == 0 ? UCHAR(16 + i / 4 + y) : UCHAR(rng());
    }
    const Bytes original = frame;
    Corrector corrector;
    for (ULONG phase = 0; phase < 4; ++phase) corrector.Run(frame, w, h, phase);
    EXPECT_EQ(frame, original);
    for (ULONG band = 0; band < 4; ++band) EXPECT_EQ(corrector.Count(band), 0) << band;
}

// Found on frame k, a defect is repaired on frames k+1..k+3 from the list,
// even when the sample has since become sound; frame k+4 searches again.
TEST(DeadPixel, ADefectFoundOnOneFrameIsRepairedOnTheNextThreeFromTheList)
{
    constexpr ULONG w = 32, h = 16, x = 7, y = 2;  // band 0: rows 1..3
    Corrector corrector;
    Bytes frame = Frame(w, h, 100);
    Luma(frame, w, x, y) = 200;
    corrector.Run(frame, w, h, 0);
    ASSERT_EQ(Luma(frame, w, x, y), 100);
    ASSERT_EQ(corrector.Count(0), 1);
    for (ULONG phase : {1u, 2u, 3u}) {
        frame = Frame(w, h, 100);
        Luma(frame, w, x, y) = 105;  // within the margin: not a defect by itself
        corrector.Run(frame, w, h, phase);
        EXPECT_EQ(Luma(frame, w, x, y), 100) << "phase " << phase;
    }
    for (ULONG phase : {0u, 1u}) {
        frame = Frame(w, h, 100);
        Luma(frame, w, x, y) = 105;
        corrector.Run(frame, w, h, phase);
        EXPECT_EQ(Luma(frame, w, x, y), 105) << "searched again: no longer listed (phase " << phase << ")";
    }
}

// Isolated white samples on every other luma of every other row of band 1
// (rows 120..239): far more than the list holds. The search stops with the
// message; the repairs made so far stay, the list keeps the count of its
// last search, and the other bands are still repaired from theirs.
TEST(DeadPixel, ABandWithTooManyDefectsStopsAndKeepsItsPreviousList)
{
    constexpr ULONG w = 640, h = 480;
    Corrector corrector;
    Bytes frame = Frame(w, h, 0);
    Luma(frame, w, 11, 130) = 255;
    corrector.Run(frame, w, h, 1);
    Luma(frame, w, 21, 250) = 255;  // band 2
    corrector.Run(frame, w, h, 2);
    ASSERT_EQ(corrector.Count(1), 1);
    ASSERT_EQ(corrector.Count(2), 1);

    frame = Frame(w, h, 0);
    for (ULONG y = 120; y < 240; y += 2) {
        for (ULONG x = 1; x < w - 1; x += 2) Luma(frame, w, x, y) = 255;
    }
    Luma(frame, w, 21, 250) = 30;  // sound now, but listed
    kvsim::ClearDebugLog();
    corrector.Run(frame, w, h, 1);
    EXPECT_TRUE(drvtest::DebugSaid(kTooMany));
    EXPECT_EQ(corrector.Count(1), 1) << "the count of the last complete search";
    EXPECT_EQ(Luma(frame, w, 1, 120), 0) << "the first defect was repaired";
    EXPECT_EQ(Luma(frame, w, w - 3, 238), 255) << "the search ended before the band's end";
    EXPECT_EQ(Luma(frame, w, 21, 250), 0) << "band 2 repaired from its list";
}

// Frames too small to search, odd widths, and lists gathered on a large
// frame applied to a small one: every access stays inside the frame (the
// buffers are sized exactly, so AddressSanitizer would see a stray one).
TEST(DeadPixel, StaysInsideFramesOfAnySizeAndIgnoresListsFromLargerFrames)
{
    struct Size {
        ULONG w, h;
    };
    Corrector corrector;
    Bytes noisy = Frame(640, 480, 100);
    std::mt19937 rng(9);
    for (int i = 0; i < 4000; ++i) Luma(noisy, 640, rng() % 640, rng() % 480) = 255;
    for (ULONG phase = 0; phase < 4; ++phase) corrector.Run(noisy, 640, 480, phase);
    for (ULONG band = 0; band < 4; ++band) ASSERT_GT(corrector.Count(band), 100) << band;
    for (const Size s : {Size{1, 1}, Size{3, 3}, Size{4, 3}, Size{3, 4}, Size{4, 4}, Size{5, 5}, Size{7, 6},
                         Size{9, 17}, Size{639, 479}}) {
        Bytes frame(size_t(2) * s.w * s.h);
        for (auto& b : frame) b = UCHAR(rng());
        const Bytes original = frame;
        Corrector fresh;
        for (ULONG phase = 0; phase < 4; ++phase) {
            corrector.Run(frame, s.w, s.h, phase + 1);  // repairs only, from the 640 x 480 lists
            fresh.Run(frame, s.w, s.h, phase);
        }
        if (s.w < 4 || s.h < 4) {
            EXPECT_EQ(frame, original) << s.w << "x" << s.h << " is too small to search";
        }
        for (ULONG y = 0; s.w % 2 != 0 && y < s.h; ++y) {
            const size_t last = (size_t(y) * s.w + s.w - 1) * 2;
            EXPECT_EQ(frame[last], original[last]) << s.w << "x" << s.h << ": the lone last pixel of row " << y;
        }
    }
}

}  // namespace
