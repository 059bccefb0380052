// Media files for kvcam (media_files.h): the YUV4MPEG2, motion-JPEG and PNG
// writers and the readers of the camera's source pictures.
#include "media_files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <csetjmp>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include <jpeglib.h>
#include <png.h>

namespace kvharness {

namespace fs = std::filesystem;
using kvsim::camera::Yuy2Picture;

namespace {

// Every picture is at most this many pixels on a side: a header that claims
// more is refused before anything that size is allocated.
constexpr uint32_t kMaxSide = 8192;
// A YUV4MPEG2 header or FRAME line longer than this is taken as garbage.
constexpr size_t kMaxY4mLine = 1024;

constexpr std::string_view kY4mMagic = "YUV4MPEG2";
constexpr std::string_view kY4mFrame = "FRAME";
constexpr uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
// The bitmap file and info headers (BITMAPFILEHEADER + BITMAPINFOHEADER).
constexpr uint32_t kBmpHeaderSize = 54;
constexpr uint32_t kBmpInfoSize = 40;

// JPEG markers (ITU-T T.81 table B.1).
constexpr uint8_t kMarkerPrefix = 0xFF;
constexpr uint8_t kSoi = 0xD8, kEoi = 0xD9, kSos = 0xDA, kTem = 0x01;
constexpr uint8_t kRst0 = 0xD0, kRst7 = 0xD7, kStuffed = 0x00;

// ---- colour (the matrix in media_files.h) ----

struct Yuv {
    uint8_t y, u, v;
};

uint8_t Clamp8(int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

// The results stay within 16..235 and 16..240 for any input, so no clamp.
Yuv RgbToYuv(int r, int g, int b)
{
    return {static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16),
            static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128),
            static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128)};
}

void YuvToRgb(int y, int u, int v, uint8_t* rgb)
{
    int c = y - 16, d = u - 128, e = v - 128;
    rgb[0] = Clamp8((298 * c + 409 * e + 128) >> 8);
    rgb[1] = Clamp8((298 * c - 100 * d - 208 * e + 128) >> 8);
    rgb[2] = Clamp8((298 * c + 516 * d + 128) >> 8);
}

// An RGB picture, three bytes R, G, B a pixel, top-down, no padding.
struct RgbImage {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> rgb;
};

// Pads an odd width by repeating the last column (YUY2 groups hold two
// pixels); each pair's chroma is the rounded mean of its two pixels'.
Yuy2Picture RgbToYuy2(const RgbImage& in)
{
    uint32_t w = in.width + (in.width & 1);
    Yuy2Picture p{static_cast<uint16_t>(w), static_cast<uint16_t>(in.height),
                  std::vector<uint8_t>(size_t(w) * in.height * 2)};
    for (uint32_t y = 0; y < in.height; ++y) {
        const uint8_t* row = &in.rgb[size_t(y) * in.width * 3];
        uint8_t* out = &p.pixels[size_t(y) * w * 2];
        for (uint32_t x = 0; x < w; x += 2) {
            const uint8_t* a = row + size_t(x) * 3;
            const uint8_t* b = x + 1 < in.width ? a + 3 : a;
            Yuv ya = RgbToYuv(a[0], a[1], a[2]), yb = RgbToYuv(b[0], b[1], b[2]);
            out[x * 2] = ya.y;
            out[x * 2 + 1] = static_cast<uint8_t>((ya.u + yb.u + 1) / 2);
            out[x * 2 + 2] = yb.y;
            out[x * 2 + 3] = static_cast<uint8_t>((ya.v + yb.v + 1) / 2);
        }
    }
    return p;
}

std::string Describe(const VideoFormat& f)
{
    const char* name = f.layout == PixelLayout::Yuy2 ? "YUY2" : f.layout == PixelLayout::Bgr24BottomUp ? "RGB24" : "MJPEG";
    return std::to_string(f.width) + "x" + std::to_string(f.height) + " " + name;
}

std::string SystemError() { return std::strerror(errno); }

void SetError(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
}

// ---- JPEG decoding (libjpeg) ----

// libjpeg's default error handler ends the process; this one keeps the
// message and jumps back.
struct JpegErrorJump {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void OnJpegError(j_common_ptr cinfo)
{
    auto* e = reinterpret_cast<JpegErrorJump*>(cinfo->err);
    cinfo->err->format_message(cinfo, e->message);
    std::longjmp(e->jump, 1);
}
// Warnings (corrupt entropy data, a premature end) still give a picture, as
// video players show a damaged frame.
void OnJpegMessage(j_common_ptr, int) {}

// Decodes into *out through the pointer only, so that nothing this frame
// changes after setjmp is read after the jump.
bool DecodeJpegInto(std::span<const uint8_t> jpeg, RgbImage* out, std::string* why)
{
    jpeg_decompress_struct d{};
    JpegErrorJump err{};
    d.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = OnJpegError;
    err.mgr.emit_message = OnJpegMessage;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&d);
        *why = err.message;
        return false;
    }
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
    jpeg_read_header(&d, TRUE);
    if (d.image_width > kMaxSide || d.image_height > kMaxSide) {
        *why = std::to_string(d.image_width) + "x" + std::to_string(d.image_height) + " is larger than " +
               std::to_string(kMaxSide) + " pixels on a side";
        jpeg_destroy_decompress(&d);
        return false;
    }
    d.out_color_space = JCS_RGB;
    jpeg_start_decompress(&d);
    out->width = d.output_width;
    out->height = d.output_height;
    out->rgb.assign(size_t(out->width) * out->height * 3, 0);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = &out->rgb[size_t(d.output_scanline) * out->width * 3];
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return true;
}

// A camera's frame may leave out the Huffman tables (motion JPEG's
// convention); libjpeg needs them, so the standard ones go in first.
std::optional<RgbImage> DecodeJpegRgb(std::span<const uint8_t> jpeg, std::string* why)
{
    if (jpeg.size() < 2 || jpeg[0] != kMarkerPrefix || jpeg[1] != kSoi) {
        *why = "not a JPEG stream (no SOI marker)";
        return std::nullopt;
    }
    std::vector<uint8_t> whole = kvsim::camera::InsertStandardDht(jpeg);
    RgbImage image;
    if (!DecodeJpegInto(whole, &image, why)) return std::nullopt;
    return image;
}

// ---- files ----

std::optional<std::vector<uint8_t>> ReadWholeFile(const std::string& path, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        SetError(error, path + ": cannot open: " + SystemError());
        return std::nullopt;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        SetError(error, path + ": read error: " + SystemError());
        return std::nullopt;
    }
    return bytes;
}

bool WriteAll(std::FILE* file, const void* data, size_t size) { return std::fwrite(data, 1, size, file) == size; }

// ---- YUV4MPEG2 reading ----

// Chroma layouts of the 8-bit colourspaces (the C token of the YUV4MPEG2
// format notes; the 4:2:0 variants differ only in siting).
enum class Chroma { S420, S422, S444, Mono };

struct Y4mHeader {
    uint32_t width = 0, height = 0;
    Chroma chroma = Chroma::S420;  // no C token: 4:2:0 (C420jpeg)
    bool fullRange = false;

    uint32_t chromaWidth() const { return chroma == Chroma::S444 ? width : (width + 1) / 2; }
    uint32_t chromaHeight() const { return chroma == Chroma::S420 ? (height + 1) / 2 : height; }
    size_t frameBytes() const
    {
        size_t luma = size_t(width) * height;
        return chroma == Chroma::Mono ? luma : luma + 2 * size_t(chromaWidth()) * chromaHeight();
    }
};

std::optional<uint32_t> ParsePositive(std::string_view text)
{
    uint32_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || v == 0) return std::nullopt;
    return v;
}

// One line up to its newline, which is consumed and not returned. nullopt at
// the end of the file before any byte; an unterminated or overlong line is
// returned with `complete` false.
std::optional<std::string> ReadLine(std::istream& in, bool* complete)
{
    std::string line;
    *complete = false;
    for (int c; (c = in.get()) != EOF;) {
        if (c == '\n') {
            *complete = true;
            return line;
        }
        if (line.size() == kMaxY4mLine) return line;
        line.push_back(static_cast<char>(c));
    }
    if (line.empty()) return std::nullopt;
    return line;
}

// The header line's parameters are single-letter tagged words separated by
// spaces; unknown tags are ignored, as the format notes ask of readers.
bool ParseY4mHeader(const std::string& line, Y4mHeader* h, std::string* why)
{
    std::string_view rest(line);
    if (!rest.starts_with(kY4mMagic) || (rest.size() > kY4mMagic.size() && rest[kY4mMagic.size()] != ' ')) {
        *why = "not a YUV4MPEG2 stream";
        return false;
    }
    rest.remove_prefix(kY4mMagic.size());
    bool haveW = false, haveH = false;
    while (!rest.empty()) {
        size_t space = rest.find(' ');
        std::string_view word = rest.substr(0, space);
        rest.remove_prefix(space == std::string_view::npos ? rest.size() : space + 1);
        if (word.empty()) continue;
        std::string_view value = word.substr(1);
        switch (word[0]) {
        case 'W':
        case 'H': {
            auto v = ParsePositive(value);
            if (!v) {
                *why = "bad header: " + std::string(word) + " is not a positive size";
                return false;
            }
            (word[0] == 'W' ? h->width : h->height) = *v;
            (word[0] == 'W' ? haveW : haveH) = true;
            break;
        }
        case 'F': {
            size_t colon = value.find(':');
            if (colon == std::string_view::npos || !ParsePositive(value.substr(0, colon)) ||
                !ParsePositive(value.substr(colon + 1))) {
                *why = "bad header: frame rate " + std::string(word) + " is not N:D";
                return false;
            }
            break;
        }
        case 'C':
            if (value == "420jpeg" || value == "420paldv" || value == "420mpeg2" || value == "420") {
                h->chroma = Chroma::S420;
            } else if (value == "422") {
                h->chroma = Chroma::S422;
            } else if (value == "444") {
                h->chroma = Chroma::S444;
            } else if (value == "mono") {
                h->chroma = Chroma::Mono;
            } else {
                *why = "unsupported colourspace " + std::string(word) +
                       " (8-bit C420jpeg, C420paldv, C420mpeg2, C420, C422, C444 and Cmono are read)";
                return false;
            }
            break;
        case 'X':
            if (value == "COLORRANGE=FULL") h->fullRange = true;
            break;
        default:
            break;  // I (interlacing) and A (aspect) change nothing for a still picture
        }
    }
    if (!haveW || !haveH) {
        *why = std::string("bad header: no ") + (haveW ? "H" : "W") + " parameter";
        return false;
    }
    if (h->width > kMaxSide || h->height > kMaxSide) {
        *why = std::to_string(h->width) + "x" + std::to_string(h->height) + " is larger than " +
               std::to_string(kMaxSide) + " pixels on a side";
        return false;
    }
    return true;
}

// Full range (0..255) to studio range: Y to 16..235, chroma to 16..240.
uint8_t LimitLuma(uint8_t v) { return static_cast<uint8_t>(16 + (v * 219 + 127) / 255); }
uint8_t LimitChroma(uint8_t v) { return static_cast<uint8_t>(16 + (v * 224 + 127) / 255); }

// One frame's planes to a YUY2 picture (odd width padded as in RgbToYuy2).
Yuy2Picture Y4mFrameToYuy2(const Y4mHeader& h, const uint8_t* planes)
{
    const uint32_t w = h.width + (h.width & 1), cw = h.chromaWidth();
    const uint8_t* yp = planes;
    const uint8_t* up = yp + size_t(h.width) * h.height;
    const uint8_t* vp = up + size_t(cw) * h.chromaHeight();
    Yuy2Picture p{static_cast<uint16_t>(w), static_cast<uint16_t>(h.height), std::vector<uint8_t>(size_t(w) * h.height * 2)};
    for (uint32_t y = 0; y < h.height; ++y) {
        const uint8_t* yrow = yp + size_t(y) * h.width;
        const size_t crow = size_t(h.chroma == Chroma::S420 ? y / 2 : y) * cw;
        uint8_t* out = &p.pixels[size_t(y) * w * 2];
        for (uint32_t x = 0; x < w; x += 2) {
            const uint32_t x1 = x + 1 < h.width ? x + 1 : x;
            uint8_t u = 128, v = 128;
            if (h.chroma == Chroma::S444) {
                u = static_cast<uint8_t>((up[crow + x] + up[crow + x1] + 1) / 2);
                v = static_cast<uint8_t>((vp[crow + x] + vp[crow + x1] + 1) / 2);
            } else if (h.chroma != Chroma::Mono) {
                u = up[crow + x / 2];
                v = vp[crow + x / 2];
            }
            uint8_t y0 = yrow[x], y1 = yrow[x1];
            if (h.fullRange) {
                y0 = LimitLuma(y0);
                y1 = LimitLuma(y1);
                if (h.chroma != Chroma::Mono) {
                    u = LimitChroma(u);
                    v = LimitChroma(v);
                }
            }
            out[x * 2] = y0;
            out[x * 2 + 1] = u;
            out[x * 2 + 2] = y1;
            out[x * 2 + 3] = v;
        }
    }
    return p;
}

bool LoadY4m(const std::string& path, std::vector<Yuy2Picture>* pictures, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        SetError(error, path + ": cannot open: " + SystemError());
        return false;
    }
    bool complete = false;
    std::optional<std::string> line = ReadLine(in, &complete);
    if (!line || !complete) {
        SetError(error, path + ": bad header: no complete header line (at most " + std::to_string(kMaxY4mLine) +
                            " bytes and a newline)");
        return false;
    }
    Y4mHeader header;
    std::string why;
    if (!ParseY4mHeader(*line, &header, &why)) {
        SetError(error, path + ": " + why);
        return false;
    }
    std::vector<uint8_t> planes(header.frameBytes());
    size_t before = pictures->size();
    for (uint64_t frame = 1;; ++frame) {
        line = ReadLine(in, &complete);
        if (!line) break;  // the end of the file between frames
        const std::string_view tag(*line);
        if (!complete || !tag.starts_with(kY4mFrame) || (tag.size() > kY4mFrame.size() && tag[kY4mFrame.size()] != ' ')) {
            SetError(error, path + ": frame " + std::to_string(frame) + " does not start with a FRAME line");
            return false;
        }
        in.read(reinterpret_cast<char*>(planes.data()), static_cast<std::streamsize>(planes.size()));
        if (static_cast<size_t>(in.gcount()) != planes.size()) {
            SetError(error, path + ": frame " + std::to_string(frame) + " is truncated (" + std::to_string(in.gcount()) +
                                " of " + std::to_string(planes.size()) + " bytes)");
            return false;
        }
        pictures->push_back(Y4mFrameToYuy2(header, planes.data()));
    }
    if (in.bad()) {
        SetError(error, path + ": read error: " + SystemError());
        return false;
    }
    if (pictures->size() == before) {
        SetError(error, path + ": no frames");
        return false;
    }
    return true;
}

// ---- PNG and JPEG reading ----

bool LoadPng(const std::string& path, std::vector<Yuy2Picture>* pictures, std::string* error)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        SetError(error, path + ": cannot read PNG: " + image.message);
        return false;
    }
    if (image.width > kMaxSide || image.height > kMaxSide) {
        png_image_free(&image);
        SetError(error, path + ": " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                            " is larger than " + std::to_string(kMaxSide) + " pixels on a side");
        return false;
    }
    // 8-bit sRGB whatever the file holds (palette, grey, 16-bit); libpng
    // composes transparent pixels onto a black background. A 16-bit file
    // without gAMA or sRGB is taken as sRGB, as most tools mean it, not as
    // the linear light libpng's manual assumes by default.
    image.format = PNG_FORMAT_RGB;
    image.flags |= PNG_IMAGE_FLAG_16BIT_sRGB;
    RgbImage rgb{image.width, image.height, std::vector<uint8_t>(PNG_IMAGE_SIZE(image))};
    const png_color black{0, 0, 0};
    if (!png_image_finish_read(&image, &black, rgb.rgb.data(), 0, nullptr)) {
        SetError(error, path + ": cannot read PNG: " + image.message);
        return false;
    }
    pictures->push_back(RgbToYuy2(rgb));
    return true;
}

// A 24-bit uncompressed bitmap, bottom-up or top-down (negative height),
// rows padded to 4 bytes; every size is checked against the file.
bool LoadBmp(const std::string& path, std::vector<Yuy2Picture>* pictures, std::string* error)
{
    auto bytes = ReadWholeFile(path, error);
    if (!bytes) return false;
    const std::vector<uint8_t>& f = *bytes;
    auto get32 = [&](size_t at) {
        uint32_t v = 0;
        std::memcpy(&v, &f[at], 4);
        return v;
    };
    if (f.size() < kBmpHeaderSize) {
        SetError(error, path + ": a bitmap shorter than its header");
        return false;
    }
    const uint32_t offset = get32(10);
    const int32_t width = static_cast<int32_t>(get32(18));
    const int32_t height = static_cast<int32_t>(get32(22));
    const uint16_t bits = static_cast<uint16_t>(f[28] | (f[29] << 8));
    const uint32_t compression = get32(30);
    const uint32_t rows = height < 0 ? uint32_t(-int64_t(height)) : uint32_t(height);
    if (bits != 24 || compression != 0 || width <= 0 || rows == 0 || uint32_t(width) > kMaxSide || rows > kMaxSide) {
        SetError(error, path + ": only 24-bit uncompressed bitmaps up to " + std::to_string(kMaxSide) +
                            " pixels on a side are read");
        return false;
    }
    const uint64_t stride = (uint64_t(width) * 3 + 3) & ~uint64_t(3);
    if (offset < kBmpHeaderSize || offset + stride * rows > f.size()) {
        SetError(error, path + ": the bitmap's pixels run past the end of the file");
        return false;
    }
    RgbImage rgb{uint32_t(width), rows, std::vector<uint8_t>(size_t(width) * rows * 3)};
    for (uint32_t y = 0; y < rows; ++y) {
        const uint32_t fileRow = height < 0 ? y : rows - 1 - y;
        const uint8_t* in = &f[offset + fileRow * stride];
        uint8_t* out = &rgb.rgb[size_t(y) * width * 3];
        for (int32_t x = 0; x < width; ++x) {
            out[x * 3] = in[x * 3 + 2];
            out[x * 3 + 1] = in[x * 3 + 1];
            out[x * 3 + 2] = in[x * 3];
        }
    }
    pictures->push_back(RgbToYuy2(rgb));
    return true;
}

bool LoadJpeg(const std::string& path, std::vector<Yuy2Picture>* pictures, std::string* error)
{
    auto bytes = ReadWholeFile(path, error);
    if (!bytes) return false;
    std::string why;
    auto rgb = DecodeJpegRgb(*bytes, &why);
    if (!rgb) {
        SetError(error, path + ": cannot decode JPEG: " + why);
        return false;
    }
    pictures->push_back(RgbToYuy2(*rgb));
    return true;
}

// Any of the three by its first bytes.
bool LoadOneFile(const std::string& path, std::vector<Yuy2Picture>* pictures, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        SetError(error, path + ": cannot open: " + SystemError());
        return false;
    }
    uint8_t head[sizeof kPngSignature] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    const size_t got = static_cast<size_t>(in.gcount());
    in.close();
    const std::string_view text(reinterpret_cast<const char*>(head), got);
    // "YUV4" is enough to take the file for a stream whose header is damaged.
    if (text.starts_with(kY4mMagic.substr(0, 4))) return LoadY4m(path, pictures, error);
    if (got == sizeof kPngSignature && std::equal(head, head + got, kPngSignature)) {
        return LoadPng(path, pictures, error);
    }
    if (got >= 2 && head[0] == kMarkerPrefix && head[1] == kSoi) return LoadJpeg(path, pictures, error);
    if (got >= 2 && head[0] == 'B' && head[1] == 'M') return LoadBmp(path, pictures, error);
    SetError(error, path + (got == 0 ? ": empty file" : ": not a YUV4MPEG2, PNG, JPEG or BMP file"));
    return false;
}

bool IsPictureName(const fs::path& p)
{
    std::string ext = p.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".y4m" || ext == ".png" || ext == ".jpg" || ext == ".jpeg" || ext == ".bmp";
}

// Closes a writer's file once; a failing close is its last write error.
bool CloseWriterFile(std::FILE*& file, bool& failed, std::string& error, const std::string& path)
{
    if (file) {
        if (std::fclose(file) != 0 && !failed) {
            failed = true;
            error = path + ": write error: " + SystemError();
        }
        file = nullptr;
    }
    return !failed;
}

}  // namespace

size_t FrameBytes(const VideoFormat& f)
{
    switch (f.layout) {
    case PixelLayout::Yuy2:
        return size_t(f.width) * f.height * 2;
    case PixelLayout::Bgr24BottomUp:
        return size_t(f.width) * f.height * 3;
    case PixelLayout::Mjpeg:
        break;
    }
    return 0;
}

// ---- Y4mWriter ----

Y4mWriter::Y4mWriter(std::string path, const VideoFormat& format, std::FILE* file)
    : path_(std::move(path)), format_(format), file_(file)
{
}

Y4mWriter::~Y4mWriter() { Close(); }

std::unique_ptr<Y4mWriter> Y4mWriter::Create(const std::string& path, const VideoFormat& format, std::string* error)
{
    std::string why;
    if (format.layout == PixelLayout::Mjpeg) {
        why = "motion JPEG frames cannot go into a YUV4MPEG2 stream (write them as .mjpeg)";
    } else if (format.width == 0 || format.height == 0) {
        why = "no frame size";
    } else if (format.layout == PixelLayout::Yuy2 && (format.width & 1)) {
        why = "a YUY2 frame's width must be even, not " + std::to_string(format.width);
    } else if (format.fpsNumerator == 0 || format.fpsDenominator == 0) {
        why = "no frame rate";
    }
    if (!why.empty()) {
        SetError(error, path + ": " + why);
        return nullptr;
    }
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        SetError(error, path + ": cannot create: " + SystemError());
        return nullptr;
    }
    std::unique_ptr<Y4mWriter> writer(new Y4mWriter(path, format, file));
    const bool yuy2 = format.layout == PixelLayout::Yuy2;
    std::string header = "YUV4MPEG2 W" + std::to_string(format.width) + " H" + std::to_string(format.height) + " F" +
                         std::to_string(format.fpsNumerator) + ":" + std::to_string(format.fpsDenominator) +
                         " Ip A1:1 " + (yuy2 ? "C422" : "C444") + " XCOLORRANGE=LIMITED\n";
    if (!WriteAll(file, header.data(), header.size())) {
        SetError(error, path + ": write error: " + SystemError());
        return nullptr;
    }
    const size_t luma = size_t(format.width) * format.height;
    writer->planes_.resize(kY4mFrame.size() + 1 + (yuy2 ? luma * 2 : luma * 3));
    std::memcpy(writer->planes_.data(), "FRAME\n", kY4mFrame.size() + 1);
    return writer;
}

bool Y4mWriter::Write(std::span<const uint8_t> frame)
{
    if (failed_ || !file_) {
        if (!file_ && !failed_) error_ = path_ + ": written after Close";
        return false;
    }
    const size_t expected = FrameBytes(format_);
    if (frame.size() != expected) {
        error_ = path_ + ": frame of " + std::to_string(frame.size()) + " bytes, " + std::to_string(expected) +
                 " expected for " + Describe(format_);
        return false;
    }
    const uint32_t w = format_.width, h = format_.height;
    const size_t luma = size_t(w) * h;
    uint8_t* yp = planes_.data() + kY4mFrame.size() + 1;
    if (format_.layout == PixelLayout::Yuy2) {
        // Planar 4:2:2 keeps every sample: Y0 Y1 to the luma plane, each
        // group's U and V to the chroma planes of width w/2.
        uint8_t* up = yp + luma;
        uint8_t* vp = up + luma / 2;
        for (size_t g = 0; g < luma / 2; ++g) {
            const uint8_t* s = &frame[g * 4];
            yp[g * 2] = s[0];
            up[g] = s[1];
            yp[g * 2 + 1] = s[2];
            vp[g] = s[3];
        }
    } else {
        uint8_t* up = yp + luma;
        uint8_t* vp = up + luma;
        for (uint32_t y = 0; y < h; ++y) {
            const uint8_t* row = &frame[size_t(h - 1 - y) * w * 3];  // bottom-up source
            for (uint32_t x = 0; x < w; ++x) {
                const uint8_t* bgr = row + size_t(x) * 3;
                Yuv c = RgbToYuv(bgr[2], bgr[1], bgr[0]);
                const size_t at = size_t(y) * w + x;
                yp[at] = c.y;
                up[at] = c.u;
                vp[at] = c.v;
            }
        }
    }
    if (!WriteAll(file_, planes_.data(), planes_.size())) {
        failed_ = true;
        error_ = path_ + ": write error: " + SystemError();
        return false;
    }
    ++frames_;
    return true;
}

bool Y4mWriter::Close() { return CloseWriterFile(file_, failed_, error_, path_); }

// ---- MjpegWriter ----

MjpegWriter::MjpegWriter(std::string path, std::FILE* file) : path_(std::move(path)), file_(file) {}

MjpegWriter::~MjpegWriter() { Close(); }

std::unique_ptr<MjpegWriter> MjpegWriter::Create(const std::string& path, std::string* error)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        SetError(error, path + ": cannot create: " + SystemError());
        return nullptr;
    }
    return std::unique_ptr<MjpegWriter>(new MjpegWriter(path, file));
}

bool MjpegWriter::Write(std::span<const uint8_t> frame)
{
    if (failed_ || !file_) {
        if (!file_ && !failed_) error_ = path_ + ": written after Close";
        return false;
    }
    std::optional<size_t> length = JpegFrameLength(frame);
    if (!length) {
        error_ = path_ + ": frame " + std::to_string(frames_ + 1) + " of " + std::to_string(frame.size()) +
                 " bytes is not a whole JPEG stream (no SOI at its start or no EOI)";
        return false;
    }
    if (!WriteAll(file_, frame.data(), *length)) {
        failed_ = true;
        error_ = path_ + ": write error: " + SystemError();
        return false;
    }
    ++frames_;
    return true;
}

bool MjpegWriter::Close() { return CloseWriterFile(file_, failed_, error_, path_); }

// The marker segments are walked by their lengths (ITU-T T.81 annex B), so
// that bytes FF D9 inside a segment (an APP1 thumbnail, say) do not end the
// frame. In entropy-coded data after an SOS, FF 00 is a stuffed FF and FF D0
// to FF D7 are restart markers; any other marker ends the scan (EOI, or the
// tables and SOS of the next scan of a progressive frame).
std::optional<size_t> JpegFrameLength(std::span<const uint8_t> j)
{
    if (j.size() < 2 || j[0] != kMarkerPrefix || j[1] != kSoi) return std::nullopt;
    size_t pos = 2;
    bool inScan = false;
    while (pos < j.size()) {
        if (inScan) {
            if (j[pos] != kMarkerPrefix || pos + 1 >= j.size()) {
                ++pos;
                continue;
            }
            const uint8_t next = j[pos + 1];
            if (next == kStuffed || (next >= kRst0 && next <= kRst7)) {
                pos += 2;
                continue;
            }
            if (next == kMarkerPrefix) {  // a fill byte before a marker
                ++pos;
                continue;
            }
            inScan = false;
        }
        if (j[pos] != kMarkerPrefix) return std::nullopt;  // neither a segment nor scan data
        while (pos + 1 < j.size() && j[pos + 1] == kMarkerPrefix) ++pos;
        if (pos + 1 >= j.size()) return std::nullopt;
        const uint8_t marker = j[pos + 1];
        if (marker == kEoi) return pos + 2;
        if (marker == kTem || (marker >= kRst0 && marker <= kSoi)) {  // markers without a length
            pos += 2;
            continue;
        }
        if (pos + 3 >= j.size()) return std::nullopt;
        const size_t length = size_t(j[pos + 2]) << 8 | j[pos + 3];
        if (length < 2) return std::nullopt;
        pos += 2 + length;
        if (marker == kSos) inScan = true;
    }
    return std::nullopt;
}

// ---- PNG ----

namespace {

// A frame of any layout as top-down R, G, B.
bool FrameToRgb(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format, RgbImage* out,
                std::string* error)
{
    RgbImage& rgb = *out;
    if (format.layout == PixelLayout::Mjpeg) {
        std::string why;
        auto decoded = DecodeJpegRgb(frame, &why);
        if (!decoded) {
            SetError(error, path + ": cannot decode the JPEG frame: " + why);
            return false;
        }
        rgb = std::move(*decoded);
    } else {
        const size_t expected = FrameBytes(format);
        if (format.width == 0 || format.height == 0 || frame.size() != expected ||
            (format.layout == PixelLayout::Yuy2 && (format.width & 1))) {
            SetError(error, path + ": frame of " + std::to_string(frame.size()) + " bytes does not fit " + Describe(format) +
                                (format.layout == PixelLayout::Yuy2 && (format.width & 1) ? " (odd YUY2 width)" : ""));
            return false;
        }
        const uint32_t w = format.width, h = format.height;
        rgb = RgbImage{w, h, std::vector<uint8_t>(size_t(w) * h * 3)};
        for (uint32_t y = 0; y < h; ++y) {
            uint8_t* out = &rgb.rgb[size_t(y) * w * 3];
            if (format.layout == PixelLayout::Yuy2) {
                const uint8_t* row = &frame[size_t(y) * w * 2];
                for (uint32_t x = 0; x < w; x += 2) {
                    const uint8_t* g = row + size_t(x) * 2;
                    YuvToRgb(g[0], g[1], g[3], out + size_t(x) * 3);
                    YuvToRgb(g[2], g[1], g[3], out + size_t(x) * 3 + 3);
                }
            } else {
                const uint8_t* row = &frame[size_t(h - 1 - y) * w * 3];
                for (uint32_t x = 0; x < w; ++x) {
                    out[x * 3] = row[x * 3 + 2];
                    out[x * 3 + 1] = row[x * 3 + 1];
                    out[x * 3 + 2] = row[x * 3];
                }
            }
        }
    }
    return true;
}

}  // namespace

bool WritePng(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format, std::string* error)
{
    RgbImage rgb;
    if (!FrameToRgb(path, frame, format, &rgb, error)) return false;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = rgb.width;
    image.height = rgb.height;
    image.format = PNG_FORMAT_RGB;
    if (!png_image_write_to_file(&image, path.c_str(), 0, rgb.rgb.data(), 0, nullptr)) {
        SetError(error, path + ": cannot write PNG: " + image.message);
        return false;
    }
    return true;
}

bool WriteBmp(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format, std::string* error)
{
    RgbImage rgb;
    if (!FrameToRgb(path, frame, format, &rgb, error)) return false;
    const uint32_t w = rgb.width, h = rgb.height;
    const uint32_t stride = (w * 3 + 3) & ~3u;
    std::vector<uint8_t> file(kBmpHeaderSize + size_t(stride) * h, 0);
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(&file[at], &v, 4); };
    file[0] = 'B';
    file[1] = 'M';
    put32(2, static_cast<uint32_t>(file.size()));
    put32(10, kBmpHeaderSize);
    put32(14, kBmpInfoSize);
    put32(18, w);
    put32(22, h);
    file[26] = 1;
    file[28] = 24;
    put32(34, stride * h);
    for (uint32_t y = 0; y < h; ++y) {
        const uint8_t* in = &rgb.rgb[size_t(h - 1 - y) * w * 3];
        uint8_t* row = &file[kBmpHeaderSize + size_t(y) * stride];
        for (uint32_t x = 0; x < w; ++x) {
            row[x * 3] = in[x * 3 + 2];
            row[x * 3 + 1] = in[x * 3 + 1];
            row[x * 3 + 2] = in[x * 3];
        }
    }
    std::ofstream out(path, std::ios::binary);
    if (!out.write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()))) {
        SetError(error, path + ": cannot write: " + SystemError());
        return false;
    }
    return true;
}

bool WritePicture(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format,
                  std::string* error)
{
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".bmp" ? WriteBmp(path, frame, format, error) : WritePng(path, frame, format, error);
}

// ---- source pictures ----

std::optional<std::vector<Yuy2Picture>> LoadSourcePictures(const std::string& fileOrDirectory, std::string* error)
{
    std::error_code ec;
    const fs::file_status status = fs::status(fileOrDirectory, ec);
    if (status.type() == fs::file_type::not_found || ec) {
        SetError(error, fileOrDirectory + ": " +
                            (status.type() == fs::file_type::not_found ? "no such file or directory" : ec.message()));
        return std::nullopt;
    }
    std::vector<Yuy2Picture> pictures;
    if (!fs::is_directory(status)) {
        if (!LoadOneFile(fileOrDirectory, &pictures, error)) return std::nullopt;
        return pictures;
    }
    std::vector<fs::path> files;
    for (fs::directory_iterator it(fileOrDirectory, ec), end; !ec && it != end; it.increment(ec)) {
        if (IsPictureName(it->path()) && it->is_regular_file(ec)) files.push_back(it->path());
    }
    if (ec) {
        SetError(error, fileOrDirectory + ": cannot list: " + ec.message());
        return std::nullopt;
    }
    if (files.empty()) {
        SetError(error, fileOrDirectory + ": no .y4m, .png, .jpg, .jpeg or .bmp pictures in this directory");
        return std::nullopt;
    }
    std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) { return a.filename().string() < b.filename().string(); });
    for (const fs::path& file : files) {
        if (!LoadOneFile(file.string(), &pictures, error)) return std::nullopt;
    }
    return pictures;
}

}  // namespace kvharness
