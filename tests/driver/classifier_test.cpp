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

// Random stages of two- and three-rectangle features that share corners, as
// published cascades' do, side-by-side pairs whose shared corners cancel,
// and (in stage 1) a rectangle less itself, which reads no corner. Leaves are multiples of 1/32 and thresholds and
// spreads whole numbers, so every sum is exact: a window's verdict does not
// depend on the order its leaves are added in and can be taken from the
// rectangles' own pixel sums.
struct RandomStage {
    std::vector<kv::ImageRect> rects;
    std::vector<float> weights, thresholds, leaves;
    std::vector<LONG> counts;
    float threshold;
};

std::vector<RandomStage> RandomStages(std::mt19937& rng)
{
    std::vector<RandomStage> stages(6);
    for (size_t s = 0; s < stages.size(); ++s) {
        RandomStage& st = stages[s];
        const LONG n = 2 + LONG(s) * 3;
        for (LONG f = 0; f < n; ++f) {
            const LONG x = LONG(rng() % 10), y = LONG(rng() % 10), w = 2 + LONG(rng() % 8), h = 2 + LONG(rng() % 8);
            const LONG kind = s == 1 && f == 0 ? 3 : LONG(rng() % 3);
            if (kind == 2) {  // the pair less itself one row down: values either side of 0
                const LONG half = w / 2 + 1;
                st.rects.insert(st.rects.end(), {{x, y, half, h}, {x + half, y, half, h}, {x, y + 1, 2 * half, h}});
                st.weights.insert(st.weights.end(), {1, 1, -1});
            } else if (kind == 3) {
                st.rects.insert(st.rects.end(), {{x, y, w, h}, {x, y, w, h}});
                st.weights.insert(st.weights.end(), {1, -1});
            } else {
                st.rects.insert(st.rects.end(), {{x, y, w, h}, {x, y, w / 2 + 1, h}});
                st.weights.insert(st.weights.end(), {-1, 2});
                if (kind == 1) {
                    st.rects.push_back({x, y, w, h / 2 + 1});
                    st.weights.push_back(3);
                }
            }
            st.counts.push_back(kind == 1 || kind == 2 ? 3 : 2);
            st.thresholds.push_back(float(int(rng() % 200) - 100));
            st.leaves.push_back(float(int(rng() % 64) - 32) / 32);
            st.leaves.push_back(float(int(rng() % 64) - 32) / 32);
        }
        st.threshold = s == 2 ? kv::kHaarAcceptAll : -0.25f * float(n);
    }
    return stages;
}

// The verdict of every stage in turn at window position (x, y), from pixels.
bool CascadeKeeps(const Grey& g, const std::vector<RandomStage>& stages, LONG x, LONG y, float norm)
{
    for (const RandomStage& st : stages) {
        if (st.threshold <= kv::kHaarAcceptAll) continue;
        double total = 0;
        for (size_t f = 0, r = 0; f < st.counts.size(); r += size_t(st.counts[f]), ++f) {
            double value = 0;
            for (size_t k = r; k < r + size_t(st.counts[f]); ++k) {
                const kv::ImageRect& b = st.rects[k];
                value += st.weights[k] * PixelSum(g, x + b.x, y + b.y, b.width, b.height, 1);
            }
            total += value < double(st.thresholds[f]) * norm ? st.leaves[2 * f] : st.leaves[2 * f + 1];
        }
        if (total < st.threshold) return false;
    }
    return true;
}

// A cascade over a textured picture wider than one strip of the cascade
// (with a ragged right edge), at positions every column and every second
// and third column (on folded integrals): the windows it keeps are the
// ones the pixels say, on every path, and at every column they are what its
// stages applied one by one keep.
TEST(Classifier, ACascadeKeepsTheWindowsThePixelsSayOnPlainAndFoldedColumns)
{
    const Grey g = RandomGrey(600, 40, 11);
    const kv::ImageSize positions{g.w - 20, g.h - 20};
    std::mt19937 rng(2);
    const std::vector<RandomStage> random = RandomStages(rng);
    std::vector<kv::HaarClassifier*> stages;
    std::vector<float> stageThresholds;
    for (const RandomStage& st : random) {
        kv::HaarClassifier* stage = nullptr;
        ASSERT_EQ(kv::HaarClassifierInit(&stage, st.rects.data(), st.weights.data(), st.thresholds.data(),
                                         st.leaves.data(), st.counts.data(), LONG(st.counts.size())), 0);
        stages.push_back(stage);
        stageThresholds.push_back(st.threshold);
    }
    std::vector<float> norm(size_t(positions.width) * positions.height);
    for (float& v : norm) v = 1.0f + float(rng() % 40);
    std::vector<UCHAR> marks(norm.size(), 0);
    for (size_t i = 0; i < marks.size(); i += 1 + rng() % 3) marks[i] = UCHAR(1 + i % 5);
    for (LONG step : {1, 2, 3}) {
        const kv::ImageSize searched{(positions.width + step - 1) / step, positions.height};
        std::vector<LONG> folded(g.sum.size());
        ASSERT_EQ(kv::FoldColumns(g.sum.data(), g.Step(), folded.data(), g.Step(), {g.w + 1, g.h + 1}, step), 0);
        std::vector<float> searchedNorm;
        std::vector<UCHAR> searchedMarks;
        for (LONG y = 0; y < searched.height; ++y)
            for (LONG j = 0; j < searched.width; ++j) {
                searchedNorm.push_back(norm[size_t(y) * positions.width + j * step]);
                searchedMarks.push_back(marks[size_t(y) * positions.width + j * step]);
            }
        std::vector<UCHAR> expected(searchedMarks.size(), 0);
        for (LONG y = 0; y < searched.height; ++y)
            for (LONG j = 0; j < searched.width; ++j) {
                const size_t i = size_t(y) * searched.width + j;
                expected[i] = searchedMarks[i] != 0 && CascadeKeeps(g, random, j * step, y, searchedNorm[i])
                                  ? searchedMarks[i] : 0;
            }
        const LONG expectedKept = LONG(std::count_if(expected.begin(), expected.end(), [](UCHAR m) { return m; }));
        ASSERT_GT(expectedKept, 0);
        ASSERT_LT(expectedKept, std::count_if(searchedMarks.begin(), searchedMarks.end(), [](UCHAR m) { return m; }));
        for (kv::PrimitivesPath path : facetest::RunnablePaths()) {
            ASSERT_TRUE(kv::SetPrimitivesPathForTest(path));
            SCOPED_TRACE("step " + std::to_string(step) + " path " + std::to_string(int(path)));
            std::vector<UCHAR> cascade = searchedMarks;
            LONG kept = -1;
            const kv::HaarColumns columns = step == 1 ? kv::kHaarEveryColumn : kv::HaarColumns{step, g.w + 1};
            ASSERT_EQ(kv::ApplyHaarCascade(step == 1 ? g.sum.data() : folded.data(), g.Step(), searchedNorm.data(),
                                           searched.width * 4, cascade.data(), searched.width, searched, &kept,
                                           stageThresholds.data(), stages.data(), LONG(stages.size()), columns), 0);
            EXPECT_EQ(cascade, expected);
            EXPECT_EQ(kept, expectedKept);
            if (step != 1) continue;
            std::vector<UCHAR> byStage = searchedMarks;
            LONG keptByStage = 0;
            for (size_t s = 0; s < stages.size(); ++s) {
                ASSERT_EQ(kv::ApplyHaarClassifier(g.sum.data(), g.Step(), norm.data(), positions.width * 4,
                                                  byStage.data(), positions.width, positions, &keptByStage,
                                                  stageThresholds[s], stages[s]), 0);
            }
            EXPECT_EQ(byStage, expected);
            EXPECT_EQ(keptByStage, expectedKept);
        }
    }
    // A folded layout is taken when its positions' windows reach exactly its
    // last column, and refused one column short or with a step it cannot be.
    LONG window = 0;
    for (kv::HaarClassifier* stage : stages) {
        kv::ImageSize size{};
        ASSERT_EQ(kv::HaarClassifierSize(stage, &size), 0);
        window = std::max(window, size.width);
    }
    const kv::ImageSize half{(positions.width + 1) / 2, positions.height};
    const LONG reach = (half.width - 1) * 2 + window + 1;
    const kv::HaarColumns layouts[] = {{2, reach}, {2, reach - 1}, {0, reach}, {-1, reach}, {257, reach}};
    for (const kv::HaarColumns& layout : layouts) {
        std::vector<UCHAR> mask(norm.size(), 1);
        LONG kept = 0;
        EXPECT_EQ(kv::ApplyHaarCascade(g.sum.data(), g.Step(), norm.data(), half.width * 4, mask.data(), half.width,
                                       half, &kept, stageThresholds.data(), stages.data(), LONG(stages.size()), layout),
                  layout.step == 2 && layout.columns == reach ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER)
            << "step " << layout.step << " columns " << layout.columns;
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
