// Media files (tools/harness/media_files.h): YUY2 frames survive a y4m round
// trip byte for byte; RGB frames land in C444 where the floating-point
// BT.601 studio-range formulas put them and come back through a PNG close to
// where they started; every y4m colourspace read maps its samples to the
// right YUY2 bytes; damaged or unsupported inputs are refused with the
// file's name; directories load in name order; motion-JPEG frames are cut at
// their EOI; and ffprobe, when installed, reads the written files. PNGs are
// read back by this file's own decoder over zlib, not by libpng.
#include <gtest/gtest.h>
#include <zlib.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <tuple>

#include "camera/frame_source.h"
#include "media_files.h"

namespace {

namespace fs = std::filesystem;
using kvharness::PixelLayout;
using kvharness::VideoFormat;
using kvsim::camera::Yuy2Picture;
using Bytes = std::vector<uint8_t>;

Bytes ReadAll(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
void WriteAll(const fs::path& p, std::string_view bytes) { std::ofstream(p, std::ios::binary) << bytes; }
std::string Text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// An 8-bit RGB, non-interlaced PNG (what WritePng writes): chunks checked by
// their CRC, IDAT inflated by zlib, each row's filter undone (the five
// filter types of PNG's W3C Recommendation, clause 9). Width 0 on any fault.
struct Rgb {
    uint32_t width = 0, height = 0;
    Bytes rgb;
};
Rgb DecodePng(const Bytes& f)
{
    auto be32 = [&](size_t at) { return uint32_t(f[at]) << 24 | f[at + 1] << 16 | f[at + 2] << 8 | f[at + 3]; };
    Rgb out;
    Bytes idat;
    for (size_t pos = 8; pos + 12 <= f.size();) {
        const uint32_t len = be32(pos);
        if (pos + 12 + len > f.size() || crc32(0, &f[pos + 4], len + 4) != be32(pos + 8 + len)) return {};
        const std::string type(f.begin() + pos + 4, f.begin() + pos + 8);
        if (type == "IHDR" && (f[pos + 16] != 8 || f[pos + 17] != 2 || f[pos + 20] != 0)) return {};
        if (type == "IHDR") out.width = be32(pos + 8), out.height = be32(pos + 12);
        if (type == "IDAT") idat.insert(idat.end(), f.begin() + pos + 8, f.begin() + pos + 8 + len);
        pos += 12 + len;
    }
    const size_t stride = size_t(out.width) * 3;
    Bytes raw(out.height * (stride + 1));
    uLongf rawSize = raw.size();
    if (uncompress(raw.data(), &rawSize, idat.data(), idat.size()) != Z_OK || rawSize != raw.size()) return {};
    out.rgb.resize(out.height * stride);
    for (size_t y = 0; y < out.height; ++y) {
        const uint8_t filter = raw[y * (stride + 1)];
        for (size_t i = 0; i < stride; ++i) {
            int a = i >= 3 ? out.rgb[y * stride + i - 3] : 0, b = y ? out.rgb[(y - 1) * stride + i] : 0;
            int c = i >= 3 && y ? out.rgb[(y - 1) * stride + i - 3] : 0, p = a + b - c;
            int pred = filter == 1 ? a : filter == 2 ? b : filter == 3 ? (a + b) / 2 : 0;
            if (filter == 4) pred = std::abs(p - a) <= std::abs(p - b) && std::abs(p - a) <= std::abs(p - c) ? a
                                    : std::abs(p - b) <= std::abs(p - c) ? b : c;
            out.rgb[y * stride + i] = uint8_t(raw[y * (stride + 1) + 1 + i] + pred);
        }
    }
    return out;
}

// BT.601 studio range in floating point, the reference for the integer rule.
std::array<double, 3> RefYuv(double r, double g, double b)
{
    return {16 + 219 * (0.299 * r + 0.587 * g + 0.114 * b) / 255, 128 + 224 * (-0.168736 * r - 0.331264 * g + 0.5 * b) / 255,
            128 + 224 * (0.5 * r - 0.418688 * g - 0.081312 * b) / 255};
}
std::array<double, 3> RefRgb(double y, double u, double v)
{
    auto c = [](double x) { return std::clamp(x, 0.0, 255.0); };
    y = (y - 16) * 255 / 219, u = (u - 128) * 255 / 224, v = (v - 128) * 255 / 224;
    return {c(y + 1.402 * v), c(y - 0.344136 * u - 0.714136 * v), c(y + 1.772 * u)};
}

class MediaFilesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("kvmedia_" + std::to_string(::getpid()) + "_" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string Path(const std::string& name) const { return (dir_ / name).string(); }

    fs::path dir_;
};

// A pattern whose every byte differs from its neighbours and from frame to frame.
Bytes Pattern(size_t n, int seed)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(i * 37 + seed * 101 + (i >> 7));
    return b;
}

// The frames through a Y4mWriter (a wrong-sized frame between them is
// refused and skipped); "" or what went wrong.
std::string WriteY4m(const std::string& path, const VideoFormat& format, const std::vector<Bytes>& frames)
{
    std::string error;
    auto writer = kvharness::Y4mWriter::Create(path, format, &error);
    for (size_t i = 0; writer && i < frames.size(); ++i) {
        if (!writer->Write(frames[i])) return writer->error();
        if (writer->Write(Bytes(100)) || writer->error().find("100 bytes") == std::string::npos) return "took 100 bytes";
    }
    if (writer && (!writer->Close() || writer->frames() != frames.size())) return writer->error() + " (or a frame lost)";
    return error;
}

TEST_F(MediaFilesTest, Yuy2FramesRoundTripThroughY4mByteForByte)
{
    const std::vector<Bytes> frames = {Pattern(64 * 48 * 2, 0), Pattern(64 * 48 * 2, 1), Pattern(64 * 48 * 2, 2)};
    ASSERT_EQ(WriteY4m(Path("a.y4m"), {64, 48, PixelLayout::Yuy2, 15, 2}, frames), "");
    const std::string header = "YUV4MPEG2 W64 H48 F15:2 Ip A1:1 C422 XCOLORRANGE=LIMITED\n";
    Bytes file = ReadAll(Path("a.y4m"));
    EXPECT_EQ(Text(file).substr(0, header.size()), header);
    EXPECT_EQ(file.size(), header.size() + 3 * (6 + 64 * 48 * 2));

    std::string error;
    auto pictures = kvharness::LoadSourcePictures(Path("a.y4m"), &error);
    ASSERT_TRUE(pictures) << error;
    ASSERT_EQ(pictures->size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ((*pictures)[i].width * 1000 + (*pictures)[i].height, 64048);
        EXPECT_EQ((*pictures)[i].pixels, frames[i]) << "frame " << i;
    }
}

TEST_F(MediaFilesTest, RgbFramesBecomeStudioRangeC444TopDownAndComeBackThroughPng)
{
    // Bottom-up B,G,R with every colour distinct; pixels come in equal
    // pairs so that the 4:2:2 of the loaded picture loses no colour.
    const uint32_t w = 16, h = 8;
    Bytes bgr(w * h * 3);
    for (size_t px = 0; px < w * h; ++px)
        for (size_t c = 0, q = px / 2; c < 3; ++c) bgr[px * 3 + c] = uint8_t(q * (53 + 40 * c) + 255 * (c == q % 3));
    ASSERT_EQ(WriteY4m(Path("rgb.y4m"), {w, h, PixelLayout::Bgr24BottomUp}, {bgr}), "");
    const std::string header = "YUV4MPEG2 W16 H8 F30:1 Ip A1:1 C444 XCOLORRANGE=LIMITED\nFRAME\n";
    Bytes file = ReadAll(Path("rgb.y4m"));
    ASSERT_EQ(file.size(), header.size() + w * h * 3);
    ASSERT_EQ(Text(file).substr(0, header.size()), header);
    const uint8_t* planes = &file[header.size()];
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            const uint8_t* s = &bgr[((h - 1 - y) * w + x) * 3];
            auto ref = RefYuv(s[2], s[1], s[0]);
            for (int p = 0; p < 3; ++p)
                EXPECT_NEAR(planes[p * w * h + y * w + x], ref[p], 1.0) << "plane " << p << " at " << x << "," << y;
        }
    }
    std::string error;
    auto pictures = kvharness::LoadSourcePictures(Path("rgb.y4m"), &error);
    ASSERT_TRUE(pictures) << error;
    ASSERT_TRUE(kvharness::WritePng(Path("back.png"), (*pictures)[0].pixels, {w, h, PixelLayout::Yuy2}, &error)) << error;
    Rgb back = DecodePng(ReadAll(Path("back.png")));
    ASSERT_EQ(back.width, w);
    ASSERT_EQ(back.height, h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w * 3; ++x)
            EXPECT_NEAR(back.rgb[y * w * 3 + x], bgr[(h - 1 - y) * w * 3 + x / 3 * 3 + 2 - x % 3], 3) << x / 3 << "," << y;
}

TEST_F(MediaFilesTest, PngOfYuy2FollowsTheBt601FormulasAndRgb24IsReorderedTopDown)
{
    // Groups Y0 U Y1 V from black to white, saturated chroma (clamped), grey.
    const Bytes yuy2 = {16, 128, 235, 128, 235, 128, 240, 240, 81, 90, 145, 54, 41, 240, 126, 128};
    std::string error;
    ASSERT_TRUE(kvharness::WritePng(Path("y.png"), yuy2, {8, 1, PixelLayout::Yuy2}, &error)) << error;
    Rgb png = DecodePng(ReadAll(Path("y.png")));
    ASSERT_EQ(png.width, 8u);
    for (int x = 0; x < 8; ++x) {
        auto ref = RefRgb(yuy2[x / 2 * 4 + (x & 1) * 2], yuy2[x / 2 * 4 + 1], yuy2[x / 2 * 4 + 3]);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(png.rgb[x * 3 + c], ref[c], 2.0) << "pixel " << x << " channel " << c;
    }
    const Bytes bgr = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};  // 2x2, bottom row first
    ASSERT_TRUE(kvharness::WritePng(Path("b.png"), bgr, {2, 2, PixelLayout::Bgr24BottomUp}, &error)) << error;
    EXPECT_EQ(DecodePng(ReadAll(Path("b.png"))).rgb, (Bytes{9, 8, 7, 12, 11, 10, 3, 2, 1, 6, 5, 4}));
}

TEST_F(MediaFilesTest, PngOfMotionJpegDecodesFramesWithoutHuffmanTablesAndWithTrailingBytes)
{
    Yuy2Picture grey{32, 16, Bytes(32 * 16 * 2, 128)};
    Bytes jpeg = kvsim::camera::StripDht(kvsim::camera::EncodeJpeg(grey));
    jpeg.insert(jpeg.end(), {0, 0, 0xFF, 0xD9, 7});
    std::string error;
    ASSERT_TRUE(kvharness::WritePng(Path("m.png"), jpeg, {0, 0, PixelLayout::Mjpeg}, &error)) << error;
    Rgb png = DecodePng(ReadAll(Path("m.png")));
    ASSERT_EQ(png.width, 32u);
    ASSERT_EQ(png.height, 16u);
    for (uint8_t v : png.rgb) ASSERT_NEAR(v, 128, 2) << "JPEG's full-range YCbCr 128 is mid grey";

    const std::tuple<Bytes, VideoFormat, const char*> bad[] = {
        {Bytes(10), {4, 2, PixelLayout::Yuy2}, "does not fit 4x2 YUY2"}, {Bytes(12), {3, 2}, "odd YUY2 width"},
        {Bytes(7, 0xFF), {0, 0, PixelLayout::Mjpeg}, "no SOI"},
        {Bytes(jpeg.begin(), jpeg.begin() + 40), {0, 0, PixelLayout::Mjpeg}, "cannot decode"}};
    for (const auto& [frame, format, says] : bad) {
        EXPECT_FALSE(kvharness::WritePng(Path("bad.png"), frame, format, &error));
        EXPECT_NE(error.find(says), std::string::npos) << error;
    }
}

// Each colourspace's planes for a small picture, and the YUY2 they must give.
TEST_F(MediaFilesTest, EachY4mColourspaceMapsItsSamplesToYuy2)
{
    struct Case {
        std::string header;
        Bytes planes, yuy2;
    };
    const Bytes p420 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 21, 22, 23, 24, 31, 32, 33, 34};  // 3x3: 3x3 Y, 2x2 U and V
    const Bytes y420 = {1, 21, 2, 31, 3, 22, 3, 32, 4, 21, 5, 31, 6, 22, 6, 32, 7, 23, 8, 33, 9, 24, 9, 34};
    const Case cases[] = {
        {"W3 H3", p420, y420},
        {"W3 H3 C420jpeg", p420, y420},
        {"W3 H3 C420mpeg2 XYSCSS=420MPEG2", p420, y420},
        {"W3 H3 C420paldv F25:1 A0:0 Ib", p420, y420},
        {"W3 H3 C420", p420, y420},
        {"W3 H2 C422", {1, 2, 3, 4, 5, 6, 21, 22, 23, 24, 31, 32, 33, 34},
         {1, 21, 2, 31, 3, 22, 3, 32, 4, 23, 5, 33, 6, 24, 6, 34}},
        {"W2 H1 C444", {1, 2, 20, 23, 30, 33}, {1, 22, 2, 32}},
        {"W3 H1 Cmono", {1, 2, 3}, {1, 128, 2, 128, 3, 128, 3, 128}},
        {"W2 H1 C422 XCOLORRANGE=FULL", {0, 255, 0, 255}, {16, 16, 235, 240}},
    };
    for (const Case& c : cases) {
        std::string y4m = "YUV4MPEG2 " + c.header + "\nFRAME\n" + Text(c.planes) + "FRAME Ixyz\n" + Text(c.planes);
        WriteAll(Path("c.y4m"), y4m);
        std::string error;
        auto pictures = kvharness::LoadSourcePictures(Path("c.y4m"), &error);
        ASSERT_TRUE(pictures) << c.header << ": " << error;
        ASSERT_EQ(pictures->size(), 2u) << c.header;
        EXPECT_EQ((*pictures)[1].width, (c.yuy2.size() / 2) / (*pictures)[1].height) << c.header;
        EXPECT_EQ((*pictures)[1].pixels, c.yuy2) << c.header;
    }
}

// A bitmap header alone: width, height, bits per pixel; pixels at 54.
std::string BmpHeader(uint32_t w, uint32_t h, uint16_t bits)
{
    std::string f(54, '\0');
    f[0] = 'B';
    f[1] = 'M';
    const uint32_t offset = 54;
    std::memcpy(&f[10], &offset, 4);
    std::memcpy(&f[18], &w, 4);
    std::memcpy(&f[22], &h, 4);
    std::memcpy(&f[28], &bits, 2);
    return f;
}

TEST_F(MediaFilesTest, DamagedOrUnsupportedInputsAreRefusedNamingTheFile)
{
    const std::string frame422 = "FRAME\n" + std::string(8, 'y');  // W2 H2 C422: 8 bytes
    const struct {
        const char* name;
        std::string bytes;
        const char* says;
    } cases[] = {
        {"a.y4m", "", "empty file"},
        {"a.txt", "hello, world", "not a YUV4MPEG2, PNG, JPEG or BMP file"},
        {"a.bmp", "BM" + std::string(20, '\0'), "a bitmap shorter than its header"},
        {"a.bmp", BmpHeader(100, 100, 24) + std::string(100, 'p'), "pixels run past the end of the file"},
        {"a.bmp", BmpHeader(2, 2, 8) + std::string(16, 'p'), "only 24-bit uncompressed bitmaps"},
        {"a.y4m", "YUV4MPEG2 W2 H2", "bad header: no complete header line"},
        {"a.y4m", "YUV4MPEG2 W2 H2 " + std::string(2000, 'X') + "\n", "bad header: no complete header line"},
        {"a.y4m", "YUV4MPEG W2 H2\n", "not a YUV4MPEG2 stream"},
        {"a.y4m", "YUV4MPEG2 W0 H2\n", "W0 is not a positive size"},
        {"a.y4m", "YUV4MPEG2 W99999999999 H2\n", "not a positive size"},
        {"a.y4m", "YUV4MPEG2 W2\n", "bad header: no H parameter"},
        {"a.y4m", "YUV4MPEG2 W2 H2 F30\n", "frame rate F30 is not N:D"},
        {"a.y4m", "YUV4MPEG2 W9000 H2\n", "larger than 8192"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C411\n", "unsupported colourspace C411"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C420p10\n", "unsupported colourspace C420p10"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C444alpha\n", "unsupported colourspace C444alpha"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C422\n", "no frames"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C422\nFRAME\nyyy", "frame 1 is truncated (3 of 8 bytes)"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C422\n" + frame422 + "FRAME\nyyyyyyy", "frame 2 is truncated (7 of 8 bytes)"},
        {"a.y4m", "YUV4MPEG2 W2 H2 C422\n" + frame422 + "FRAME", "frame 2 does not start with a FRAME line"},
        {"a.png", "\x89PNG\r\n\x1a\n garbage", "cannot read PNG"},
        {"a.jpg", "\xFF\xD8\xFF\xE0", "cannot decode JPEG"},
    };
    for (const auto& c : cases) {
        WriteAll(Path(c.name), c.bytes);
        std::string error;
        EXPECT_FALSE(kvharness::LoadSourcePictures(Path(c.name), &error)) << c.says;
        EXPECT_EQ(error.rfind(Path(c.name) + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.says), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
    std::string error;
    EXPECT_FALSE(kvharness::LoadSourcePictures(Path("missing.png"), &error));
    EXPECT_NE(error.find("no such file"), std::string::npos) << error;
    fs::create_directory(dir_ / "empty");
    WriteAll(dir_ / "empty" / "notes.txt", "not a picture");
    EXPECT_FALSE(kvharness::LoadSourcePictures(Path("empty"), &error));
    EXPECT_NE(error.find("no .y4m, .png, .jpg, .jpeg or .bmp pictures"), std::string::npos) << error;
    WriteAll(dir_ / "empty" / "z.png", "not a png");
    EXPECT_FALSE(kvharness::LoadSourcePictures(Path("empty"), &error));
    EXPECT_EQ(error.rfind((dir_ / "empty" / "z.png").string() + ": not a YUV4MPEG2", 0), 0u) << error;
}

TEST_F(MediaFilesTest, DirectoryLoadsPicturesInNameOrderPaddingOddWidths)
{
    fs::create_directory(dir_ / "pics");
    auto in = [&](const char* name) { return (dir_ / "pics" / name).string(); };
    std::string error;
    Bytes bgr(5 * 3 * 3, 200);  // 5x3, an odd width, its last column black
    for (int y = 0; y < 3; ++y) std::fill_n(&bgr[(y * 5 + 4) * 3], 3, 0);
    ASSERT_TRUE(kvharness::WritePng(in("b.png"), bgr, {5, 3, PixelLayout::Bgr24BottomUp}, &error)) << error;
    Yuy2Picture grey{8, 4, Bytes(8 * 4 * 2, 128)};
    Bytes jpeg = kvsim::camera::EncodeJpeg(grey);
    WriteAll(in("c.JPG"), Text(jpeg));
    WriteAll(in("a.y4m"), "YUV4MPEG2 W2 H1 C444\nFRAME\n123456FRAME\n123456");
    WriteAll(in("readme.txt"), "skipped");
    fs::create_directory(dir_ / "pics" / "d.png");

    auto pictures = kvharness::LoadSourcePictures((dir_ / "pics").string(), &error);
    ASSERT_TRUE(pictures) << error;
    ASSERT_EQ(pictures->size(), 4u);
    const std::pair<int, int> sizes[] = {{2, 1}, {2, 1}, {6, 3}, {8, 4}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ((*pictures)[i].width, sizes[i].first) << i;
        EXPECT_EQ((*pictures)[i].height, sizes[i].second) << i;
    }
    // RGB 200 is Y 188 in studio range; the padded column repeats the last.
    const Bytes& png = (*pictures)[2].pixels;
    EXPECT_NEAR(png[0], 16 + 219 * 200 / 255.0, 1);
    EXPECT_EQ(png[8], 16);
    EXPECT_EQ(png[10], 16) << "column 5 is a copy of column 4";
    // The JPEG's full-range 128 is mid grey, which is studio Y 126.
    for (size_t i = 0; i < (*pictures)[3].pixels.size(); i += 2) ASSERT_NEAR((*pictures)[3].pixels[i], 126, 2) << i;
}

TEST_F(MediaFilesTest, MotionJpegFramesAreCutAtTheirEoiAndBrokenFramesSkipped)
{
    Yuy2Picture picture{16, 8, Pattern(16 * 8 * 2, 3)};
    const Bytes plain = kvsim::camera::EncodeJpeg(picture);
    // An APP1 segment holding FF D9, as a thumbnail can, must not end the frame.
    Bytes app = plain;
    app.insert(app.begin() + 2, {0xFF, 0xE1, 0x00, 0x06, 0xFF, 0xD9, 0xFF, 0xD9});
    Bytes trailing = kvsim::camera::StripDht(plain);
    const size_t frameEnd = trailing.size();
    trailing.insert(trailing.end(), {0xFF, 0xD9, 0xAB, 0xCD});

    std::string error;
    auto writer = kvharness::MjpegWriter::Create(Path("a.mjpeg"), &error);
    ASSERT_NE(writer, nullptr) << error;
    EXPECT_TRUE(writer->Write(app));
    EXPECT_FALSE(writer->Write(Bytes(plain.begin() + 1, plain.end()))) << "no SOI";
    EXPECT_FALSE(writer->Write(Bytes(plain.begin(), plain.end() - 2))) << "no EOI";
    EXPECT_NE(writer->error().find("frame 2"), std::string::npos) << writer->error();
    EXPECT_TRUE(writer->Write(trailing));
    ASSERT_TRUE(writer->Close());
    EXPECT_EQ(writer->frames(), 2u);
    Bytes expected = app;
    expected.insert(expected.end(), trailing.begin(), trailing.begin() + frameEnd);
    EXPECT_EQ(ReadAll(Path("a.mjpeg")), expected);

    // Scan data: a stuffed FF, a restart marker and fill bytes before EOI.
    const Bytes scan = {0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x02, 0x12, 0xFF, 0x00, 0x34, 0xFF, 0xD3, 0x56, 0xFF, 0xFF, 0xFF, 0xD9};
    EXPECT_EQ(kvharness::JpegFrameLength(scan), scan.size());
    EXPECT_EQ(kvharness::JpegFrameLength(Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 0xFF, 0xD9}), std::nullopt)
        << "a segment running past the end";
}

TEST_F(MediaFilesTest, WritersRefuseFormatsTheyCannotWrite)
{
    const std::pair<VideoFormat, const char*> cases[] = {{{64, 48, PixelLayout::Mjpeg}, "motion JPEG"},
                                                          {{0, 48}, "no frame size"},
                                                          {{63, 48}, "width must be even"},
                                                          {{64, 48, PixelLayout::Yuy2, 30, 0}, "no frame rate"}};
    std::string error;
    for (const auto& [format, says] : cases) {
        EXPECT_EQ(kvharness::Y4mWriter::Create(Path("x.y4m"), format, &error), nullptr) << says;
        EXPECT_NE(error.find(says), std::string::npos) << error;
    }
    EXPECT_EQ(kvharness::Y4mWriter::Create(Path("no/such/dir.y4m"), {2, 2}, &error), nullptr);
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
    EXPECT_EQ(kvharness::MjpegWriter::Create(Path("no/such/dir.mjpeg"), &error), nullptr);
    EXPECT_FALSE(kvharness::WritePng(Path("no/such/dir.png"), Bytes(8), {2, 2, PixelLayout::Yuy2}, &error));
    EXPECT_NE(error.find("cannot write PNG"), std::string::npos) << error;
}

// ffprobe (ffmpeg) reads what the writers wrote: frame count, size, pixel format.
TEST_F(MediaFilesTest, FfprobeReadsTheWrittenStreams)
{
    if (std::system("ffprobe -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "ffprobe is not installed";
    const std::vector<Bytes> yuy2(4, Pattern(64 * 48 * 2, 1)), bgr(4, Pattern(64 * 48 * 3, 2));
    ASSERT_EQ(WriteY4m(Path("yuy2.y4m"), {64, 48, PixelLayout::Yuy2}, yuy2), "");
    ASSERT_EQ(WriteY4m(Path("bgr.y4m"), {64, 48, PixelLayout::Bgr24BottomUp}, bgr), "");
    std::string error;
    auto mjpeg = kvharness::MjpegWriter::Create(Path("f.mjpeg"), &error);
    ASSERT_NE(mjpeg, nullptr) << error;
    const Bytes jpeg = kvsim::camera::EncodeJpeg({64, 48, Pattern(64 * 48 * 2, 1)});
    for (const Bytes& frame : {jpeg, kvsim::camera::StripDht(jpeg), jpeg}) ASSERT_TRUE(mjpeg->Write(frame));
    ASSERT_TRUE(mjpeg->Close());

    const std::pair<std::string, std::string> probes[] = {
        {"-f yuv4mpegpipe yuy2.y4m", "codec_name=rawvideo width=64 height=48 pix_fmt=yuv422p color_range=tv nb_read_frames=4"},
        {"-f yuv4mpegpipe bgr.y4m", "codec_name=rawvideo width=64 height=48 pix_fmt=yuv444p color_range=tv nb_read_frames=4"},
        {"-f mjpeg f.mjpeg", "codec_name=mjpeg width=64 height=48 nb_read_frames=3"},
    };
    for (const auto& [input, expected] : probes) {
        const std::string command = "cd " + dir_.string() + " && ffprobe -v error -count_frames -show_entries "
                                    "stream=codec_name,width,height,pix_fmt,color_range,nb_read_frames "
                                    "-of default=noprint_wrappers=1 " + input;
        std::string out;
        FILE* pipe = ::popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        for (int c; (c = std::fgetc(pipe)) != EOF;) out.push_back(c == '\n' ? ' ' : char(c));
        ASSERT_EQ(::pclose(pipe), 0) << command;
        std::istringstream words(expected);
        for (std::string word; words >> word;) EXPECT_NE(out.find(word + " "), std::string::npos) << input << ": " << out;
    }
}

}  // namespace
