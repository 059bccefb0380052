// The classifier primitives against sums taken pixel by pixel: integral
// images, the windows' spread (both forms of the squared integral), and a
// stage's verdicts (the mask, the kept count, the accept-all threshold, the
// float integral) and a cascade's, on every primitives path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "face_pictures.h"
#include "imaging/classifier.h"

namespace {

struct Grey {
    LONG w, h;
    std::vector<UCHAR> pixels;
    std::vector<LONG> sum;
    std::vector<ULONG> squares;
    std::vector<LONGLONG> squares64;
    LONG Step() const { return (w + 1) * 4; }
};

Grey RandomGrey(LONG w, LONG h, unsigned seed)
{
    std::mt19937 rng(seed);
    Grey g{w, h, std::vector<UCHAR>(size_t(w) * h), {}, {}, {}};
    // Smooth patches with noise: windows with and without contrast.
    for (LONG y = 0; y < h; ++y)
        for (LONG x = 0; x < w; ++x) g.pixels[size_t(y) * w + x] = UCHAR(((x / 7 + y / 5) % 3) * 90 + rng() % 40);
    g.sum.resize(size_t(w + 1) * (h + 1));
    g.squares.resize(g.sum.size());
    g.squares64.resize(g.sum.size());
    EXPECT_EQ(kv::SqrIntegral(g.pixels.data(), w, g.sum.data(), g.Step(), g.squares.data(), g.Step(), {w, h}), 0);
    std::vector<LONG> again(g.sum.size());
    EXPECT_EQ(kv::SqrIntegral(g.pixels.data(), w, again.data(), g.Step(), g.squares64.data(), (w + 1) * 8, {w, h}), 0);
    EXPECT_EQ(again, g.sum);
    return g;
}

double PixelSum(const Grey& g, LONG x0, LONG y0, LONG w, LONG h, int power)
{
    double s = 0;
    for (LONG y = y0; y < y0 + h; ++y)
        for (LONG x = x0; x < x0 + w; ++x) s += std::pow(g.pixels[size_t(y) * g.w + x], power);
    return s;
}

TEST(Classifier, SpreadOfEveryWindowMatchesThePixels)
{
    const Grey g = RandomGrey(61, 37, 7);
    const kv::ImageRect window{1, 1, 18, 18};
    const kv::ImageSize positions{g.w - 19, g.h - 19};
    for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
        ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
        std::vector<float> spread(size_t(positions.width) * positions.height), wide(spread.size());
        ASSERT_EQ(kv::RectStdDev(g.sum.data(), g.Step(), g.squares.data(), g.Step(), spread.data(),
                                 positions.width * 4, positions, window), 0);
        ASSERT_EQ(kv::RectStdDev(g.sum.data(), g.Step(), g.squares64.data(), (g.w + 1) * 8, wide.data(),
                                 positions.width * 4, positions, window), 0);
        EXPECT_EQ(spread, wide) << "path " << int(path);
        for (LONG y = 0; y < positions.height; y += 5) {
            for (LONG x = 0; x < positions.width; x += 3) {
                const double n = 18.0 * 18.0, s = PixelSum(g, x + 1, y + 1, 18, 18, 1);
                const double sigma = std::sqrt(PixelSum(g, x + 1, y + 1, 18, 18, 2) / n - (s / n) * (s / n));
                EXPECT_NEAR(spread[size_t(y) * positions.width + x], sigma, 1e-3 * (sigma + 1));
            }
        }
    }
}

// A stage of one two-rectangle feature: the left half of a 10 x 10 window
// against the whole (the left half brighter than the window's mean).
struct StageCase {
    float threshold;  // the stage's
    bool keepsBright;  // a window brighter on the left survives
    bool keepsDark;
};

TEST(Classifier, AStageClearsTheWindowsItRejectsAndCountsTheRest)
{
    const kv::ImageRect rects[] = {{0, 0, 10, 10}, {0, 0, 5, 10}};
    const float weights[] = {-1, 2}, thresholds[] = {0.0f}, leaves[] = {-1.0f, 1.0f};
    const LONG counts[] = {2};
    kv::HaarClassifier* stage = nullptr;
    ASSERT_EQ(kv::HaarClassifierInit(&stage, rects, weights, thresholds, leaves, counts, 1), 0);
    kv::ImageSize window{};
    ASSERT_EQ(kv::HaarClassifierSize(stage, &window), 0);
    EXPECT_EQ(window.width, 10);
    // Columns bright for 10 pixels, then dark for 10.
    Grey g{64, 24, std::vector<UCHAR>(64 * 24), {}, {}, {}};
    for (LONG y = 0; y < g.h; ++y)
        for (LONG x = 0; x < g.w; ++x) g.pixels[size_t(y) * g.w + x] = (x % 20) < 10 ? 200 : 20;
    g.sum.resize(65 * 25);
    g.squares.resize(65 * 25);
    ASSERT_EQ(kv::SqrIntegral(g.pixels.data(), g.w, g.sum.data(), g.Step(), g.squares.data(), g.Step(), {64, 24}), 0);
    const kv::ImageSize positions{g.w - 9, g.h - 9};
    const std::vector<float> norm(size_t(positions.width) * positions.height, 1.0f);
    const StageCase cases[] = {{0.5f, true, false}, {-1.0f, true, true}, {1.5f, false, false},
                               {kv::kHaarAcceptAll, true, true}};
    for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
        ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
        for (const StageCase& c : cases) {
            SCOPED_TRACE("path " + std::to_string(int(path)) + " threshold " + std::to_string(c.threshold));
            std::vector<UCHAR> mask(norm.size(), 1);
            mask[3] = 0;  // a position cleared by an earlier stage stays cleared
            LONG kept = -1;
            ASSERT_EQ(kv::ApplyHaarClassifier(g.sum.data(), g.Step(), norm.data(), positions.width * 4, mask.data(),
                                              positions.width, positions, &kept, c.threshold, stage), 0);
            std::vector<float> floatSum(g.sum.begin(), g.sum.end());
            std::vector<UCHAR> floatMask(norm.size(), 1);
            floatMask[3] = 0;
            LONG floatKept = -1;
            ASSERT_EQ(kv::ApplyHaarClassifier(floatSum.data(), g.Step(), norm.data(), positions.width * 4,
                                              floatMask.data(), positions.width, positions, &floatKept, c.threshold,
                                              stage), 0);
            EXPECT_EQ(floatMask, mask);
            EXPECT_EQ(kept, std::count(mask.begin(), mask.end(), 1));
            EXPECT_EQ(mask[3], 0);
            EXPECT_EQ(mask[5] != 0, c.keepsBright);   // x = 5: bright on the left, dark on the right
            EXPECT_EQ(mask[15] != 0, c.keepsDark);    // x = 15: dark on the left, bright on the right
        }
    }
    kv::HaarClassifierFree(stage);
    EXPECT_EQ(stage, nullptr);
}

// A cascade of random stages over a textured picture wider than one strip
// of the cascade (with a ragged right edge): the same mask and count as the
// stages applied one by one, on every path.
TEST(Classifier, ACascadeKeepsWhatItsStagesKeepOneByOne)
{
    const Grey g = RandomGrey(300, 60, 11);
    const kv::ImageSize positions{g.w - 20, g.h - 20};
    std::mt19937 rng(5);
    std::vector<kv::HaarClassifier*> stages;
    std::vector<float> stageThresholds;
    for (int s = 0; s < 6; ++s) {
        const LONG n = 2 + s * 3;
        std::vector<kv::ImageRect> rects;
        std::vector<float> weights, thresholds, leaves;
        std::vector<LONG> counts;
        for (LONG f = 0; f < n; ++f) {
            const LONG x = LONG(rng() % 10), y = LONG(rng() % 10), w = 2 + LONG(rng() % 8), h = 2 + LONG(rng() % 8);
            const LONG nRects = 2 + LONG(rng() % 2);
            rects.push_back({x, y, w, h});
            weights.push_back(-1);
            rects.push_back({x, y, w / 2 + 1, h});
            weights.push_back(2);
            if (nRects == 3) {
                rects.push_back({x, y, w, h / 2 + 1});
                weights.push_back(3);
            }
            counts.push_back(nRects);
            thresholds.push_back(float(int(rng() % 200) - 100));
            leaves.push_back(float(rng() % 100) / 50 - 1);
            leaves.push_back(float(rng() % 100) / 50 - 1);
        }
        kv::HaarClassifier* stage = nullptr;
        ASSERT_EQ(kv::HaarClassifierInit(&stage, rects.data(), weights.data(), thresholds.data(), leaves.data(),
                                         counts.data(), n), 0);
        stages.push_back(stage);
        stageThresholds.push_back(s == 2 ? kv::kHaarAcceptAll : -0.3f * float(n) / 4);
    }
    std::vector<float> norm(size_t(positions.width) * positions.height);
    for (float& v : norm) v = 1.0f + float(rng() % 40);
    std::vector<UCHAR> marks(norm.size(), 0);
    for (size_t i = 0; i < marks.size(); i += 1 + rng() % 3) marks[i] = UCHAR(1 + i % 5);
    std::vector<UCHAR> first;
    for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
        ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
        SCOPED_TRACE("path " + std::to_string(int(path)));
        std::vector<UCHAR> byStage = marks, cascade = marks;
        LONG keptByStage = 0, keptCascade = -1;
        for (size_t s = 0; s < stages.size(); ++s) {
            ASSERT_EQ(kv::ApplyHaarClassifier(g.sum.data(), g.Step(), norm.data(), positions.width * 4,
                                              byStage.data(), positions.width, positions, &keptByStage,
                                              stageThresholds[s], stages[s]), 0);
        }
        ASSERT_EQ(kv::ApplyHaarCascade(g.sum.data(), g.Step(), norm.data(), positions.width * 4, cascade.data(),
                                       positions.width, positions, &keptCascade, stageThresholds.data(),
                                       stages.data(), LONG(stages.size())), 0);
        EXPECT_EQ(cascade, byStage);
        EXPECT_EQ(keptCascade, keptByStage);
        EXPECT_GT(keptCascade, 0);
        EXPECT_LT(keptCascade, std::count_if(marks.begin(), marks.end(), [](UCHAR m) { return m != 0; }));
        if (first.empty()) first = cascade;
        EXPECT_EQ(cascade, first);  // every path alike
    }
    for (kv::HaarClassifier*& stage : stages) kv::HaarClassifierFree(stage);
}

TEST(Classifier, StagesOutsideWhatTheEvaluatorHoldsAreRefused)
{
    const kv::ImageRect rects[] = {{0, 0, 10, 10}, {0, 0, 5, 10}};
    const float thresholds[] = {0.0f}, leaves[] = {-1.0f, 1.0f};
    const LONG counts[] = {2}, tooMany[] = {4};
    const float fractional[] = {-1, 2.5f}, whole[] = {-1, 2};
    kv::HaarClassifier* stage = nullptr;
    EXPECT_EQ(kv::HaarClassifierInit(&stage, rects, fractional, thresholds, leaves, counts, 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kv::HaarClassifierInit(&stage, rects, whole, thresholds, leaves, tooMany, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(stage, nullptr);
}

}  // namespace
