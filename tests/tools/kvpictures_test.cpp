// The driver's own overlay pictures as the build draws them into
// KV_PICTURES_DIR (tools/pictures/kvpictures.cpp): each is a bitmap the
// driver's reader accepts (54-byte header, 24 bits, 640x480 bottom-up, no
// bytes missing or extra); a photo frame lets the video through most of the
// picture and its middle while decorating its edge; a countdown picture puts
// its number in the middle, leaves the corners to the video, and no two
// counts look alike.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kWidth = 640, kHeight = 480;

Bytes Load(const std::string& file)
{
    const std::filesystem::path path = std::filesystem::path(KV_PICTURES_DIR) / file;
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    Bytes b(ec ? 0 : size);
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(b.data()), std::streamsize(b.size()));
    return b;
}
uint32_t Le(const Bytes& b, size_t at, int size)
{
    uint32_t v = 0;
    for (int i = size - 1; i >= 0; --i) v = v << 8 | b[at + size_t(i)];
    return v;
}
// Transparent: pure black. y counts from the top; the rows are stored bottom-up.
bool Black(const Bytes& b, int x, int y)
{
    const size_t at = 54 + (size_t(kHeight - 1 - y) * kWidth + size_t(x)) * 3;
    return (b[at] | b[at + 1] | b[at + 2]) == 0;
}
double BlackShare(const Bytes& b, int left, int top, int right, int bottom)
{
    int black = 0;
    for (int y = top; y < bottom; ++y)
        for (int x = left; x < right; ++x) black += Black(b, x, y);
    return double(black) / ((right - left) * (bottom - top));
}

std::vector<std::string> Frames()
{
    std::vector<std::string> out;
    for (int n = 1; n <= 7; ++n) out.push_back(std::to_string(n) + "_640_480.bmp");
    return out;
}
std::vector<std::string> Countdowns()
{
    std::vector<std::string> out;
    for (int n = 1; n <= 10; ++n) out.push_back("VGA" + std::to_string(n) + ".bmp");
    return out;
}
std::string TestName(const testing::TestParamInfo<std::string>& info)
{
    std::string name = info.param.substr(0, info.param.find('.'));
    for (char& c : name) c = std::isalnum(uint8_t(c)) ? c : '_';
    return name;
}

class Picture : public testing::TestWithParam<std::string> {};
class PhotoFrame : public testing::TestWithParam<std::string> {};
class Countdown : public testing::TestWithParam<std::string> {};

TEST_P(Picture, IsABitmapTheDriverReads)
{
    const Bytes b = Load(GetParam());
    ASSERT_EQ(b.size(), 54u + kWidth * kHeight * 3) << GetParam();
    EXPECT_EQ(b[0], 'B');
    EXPECT_EQ(b[1], 'M');
    struct Field {
        size_t at;
        int size;
        uint32_t value;
    };
    for (const Field& f : {Field{2, 4, uint32_t(b.size())}, Field{10, 4, 54}, Field{14, 4, 40}, Field{18, 4, kWidth},
                           Field{22, 4, kHeight}, Field{26, 2, 1}, Field{28, 2, 24}, Field{30, 4, 0},
                           Field{34, 4, kWidth * kHeight * 3}}) {
        EXPECT_EQ(Le(b, f.at, f.size), f.value) << GetParam() << " header byte " << f.at;
    }
}

TEST_P(PhotoFrame, VideoShowsInsideAndTheEdgeIsDecorated)
{
    const Bytes b = Load(GetParam());
    ASSERT_EQ(b.size(), 54u + kWidth * kHeight * 3);
    EXPECT_GE(BlackShare(b, 0, 0, kWidth, kHeight), 0.4);
    EXPECT_TRUE(Black(b, kWidth / 2, kHeight / 2));
    int ring = 0, ringBlack = 0;
    for (int x = 0; x < kWidth; ++x, ring += 2) ringBlack += Black(b, x, 0) + Black(b, x, kHeight - 1);
    for (int y = 1; y < kHeight - 1; ++y, ring += 2) ringBlack += Black(b, 0, y) + Black(b, kWidth - 1, y);
    EXPECT_LT(ringBlack * 4, ring) << "the outermost pixels are mostly transparent";
}

TEST_P(Countdown, NumberInTheMiddleCornersClear)
{
    const Bytes b = Load(GetParam());
    ASSERT_EQ(b.size(), 54u + kWidth * kHeight * 3);
    EXPECT_LE(BlackShare(b, kWidth / 2 - 60, kHeight / 2 - 90, kWidth / 2 + 60, kHeight / 2 + 90), 0.85);
    for (int cx : {0, kWidth - 80})
        for (int cy : {0, kHeight - 80}) EXPECT_EQ(BlackShare(b, cx, cy, cx + 80, cy + 80), 1.0) << cx << "," << cy;
}

TEST(Pictures, NoTwoAlike)
{
    for (const auto& files : {Frames(), Countdowns()}) {
        std::set<Bytes> seen;
        for (const std::string& f : files) EXPECT_TRUE(seen.insert(Load(f)).second) << f;
    }
}

INSTANTIATE_TEST_SUITE_P(All, Picture, testing::ValuesIn([] {
                             auto all = Frames(), counts = Countdowns();
                             all.insert(all.end(), counts.begin(), counts.end());
                             return all;
                         }()), TestName);
INSTANTIATE_TEST_SUITE_P(Frames, PhotoFrame, testing::ValuesIn(Frames()), TestName);
INSTANTIATE_TEST_SUITE_P(Counts, Countdown, testing::ValuesIn(Countdowns()), TestName);

}  // namespace
