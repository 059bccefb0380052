// Frame sources, the frame-number stamp and the JPEG glue (frame_source.h).
#include "frame_source.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <jpeglib.h>

namespace kvsim::camera {

namespace {

constexpr int kStampRows = 16;
constexpr int kStampCells = 18;
constexpr uint8_t kWhite = 235, kBlack = 16;

void SetLuma(Yuy2Picture& p, int x, int y, uint8_t v) { p.pixels[(size_t(y) * p.width + x) * 2] = v; }
void SetPixel(Yuy2Picture& p, int x, int y, uint8_t yv, uint8_t u, uint8_t v) {
    size_t at = (size_t(y) * p.width + x) * 2;
    p.pixels[at] = yv;
    p.pixels[at + 1] = (x & 1) ? v : u;
}

class TestPattern : public FrameSource {
public:
    Yuy2Picture Render(uint32_t frame, uint16_t w, uint16_t h) override {
        // Y, U, V of the classic 75% bars: white, yellow, cyan, green,
        // magenta, red, blue, black.
        static constexpr uint8_t bars[8][3] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                                               {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
        Yuy2Picture p{w, h, std::vector<uint8_t>(size_t(w) * h * 2)};
        int barWidth = std::max(1, w / 8);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                int bar = ((x + int(frame % 2048) * 4) / barWidth) % 8;
                SetPixel(p, x, y, bars[bar][0], bars[bar][1], bars[bar][2]);
            }
        StampFrameNumber(p, frame);
        return p;
    }
};

class Sequence : public FrameSource {
public:
    Sequence(std::vector<Yuy2Picture> pictures, bool stamp) : pictures_(std::move(pictures)), stamp_(stamp) {}
    Yuy2Picture Render(uint32_t frame, uint16_t w, uint16_t h) override {
        Yuy2Picture p = pictures_.empty() ? Yuy2Picture{w, h, std::vector<uint8_t>(size_t(w) * h * 2, 128)}
                                          : ScalePicture(pictures_[frame % pictures_.size()], w, h);
        if (stamp_) StampFrameNumber(p, frame);
        return p;
    }
private:
    std::vector<Yuy2Picture> pictures_;
    bool stamp_;
};

}  // namespace

std::unique_ptr<FrameSource> MakeTestPatternSource() { return std::make_unique<TestPattern>(); }
std::unique_ptr<FrameSource> MakeStillSource(Yuy2Picture picture, bool stamp) {
    std::vector<Yuy2Picture> v;
    v.push_back(std::move(picture));
    return std::make_unique<Sequence>(std::move(v), stamp);
}
std::unique_ptr<FrameSource> MakeSequenceSource(std::vector<Yuy2Picture> pictures, bool stamp) {
    return std::make_unique<Sequence>(std::move(pictures), stamp);
}

void StampFrameNumber(Yuy2Picture& p, uint32_t frame) {
    int cell = p.width / kStampCells;
    if (cell < 2 || p.height < kStampRows) return;
    for (int c = 0; c < kStampCells; ++c) {
        bool on = c == 0 ? true : c == 1 ? false : ((frame >> (15 - (c - 2))) & 1) != 0;
        for (int y = 0; y < kStampRows; ++y)
            for (int x = c * cell; x < (c + 1) * cell; ++x) {
                SetLuma(p, x, y, on ? kWhite : kBlack);
                p.pixels[(size_t(y) * p.width + x) * 2 + 1] = 128;
            }
    }
}

std::optional<uint32_t> ReadFrameNumber(std::span<const uint8_t> yuy2, uint16_t w, uint16_t h) {
    int cell = w / kStampCells;
    if (cell < 2 || h < kStampRows || yuy2.size() < size_t(w) * h * 2) return std::nullopt;
    auto level = [&](int c) {
        // The middle of the cell, away from edges that JPEG smears.
        int x0 = c * cell + cell / 4, x1 = c * cell + cell - cell / 4;
        unsigned sum = 0, n = 0;
        for (int y = 4; y < kStampRows - 4; ++y)
            for (int x = x0; x < std::max(x1, x0 + 1); ++x, ++n) sum += yuy2[(size_t(y) * w + x) * 2];
        return sum / n;
    };
    if (level(0) < 160 || level(1) > 90) return std::nullopt;
    uint32_t v = 0;
    for (int c = 2; c < kStampCells; ++c) v = (v << 1) | (level(c) >= 128 ? 1u : 0u);
    return v;
}

Yuy2Picture ScalePicture(const Yuy2Picture& in, uint16_t w, uint16_t h) {
    Yuy2Picture out{w, h, std::vector<uint8_t>(size_t(w) * h * 2, 128)};
    if (in.width == 0 || in.height == 0 || in.pixels.size() < size_t(in.width) * in.height * 2) return out;
    for (int y = 0; y < h; ++y) {
        int sy = int(int64_t(y) * in.height / h);
        for (int x = 0; x < w; x += 2) {
            int sx = int(int64_t(x) * in.width / w) & ~1;
            const uint8_t* s = &in.pixels[(size_t(sy) * in.width + sx) * 2];
            uint8_t* d = &out.pixels[(size_t(y) * w + x) * 2];
            d[0] = s[0];
            d[1] = s[1];
            if (x + 1 < w) { d[2] = s[2]; d[3] = s[3]; }
        }
    }
    return out;
}

namespace {

// libjpeg's default error handler exits the process; ours jumps back.
struct JpegError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};
void OnJpegError(j_common_ptr cinfo) {
    auto* e = reinterpret_cast<JpegError*>(cinfo->err);
    std::longjmp(e->jump, 1);
}
void OnJpegMessage(j_common_ptr, int) {}  // warnings (corrupt data) are not fatal

}  // namespace

namespace {

// The sensor's YUY2 is studio range (BT.601: luma 16-235, chroma 16-240);
// JFIF's YCbCr is full range (ITU-T T.871). The camera's JPEG engine scales
// between the two, so that a decoder's colours are the sensor's.
uint8_t Saturate(int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }
uint8_t LumaToFull(uint8_t y) { return Saturate(((int(y) - 16) * 255 + 109) / 219); }
uint8_t ChromaToFull(uint8_t c)
{
    const int d = (int(c) - 128) * 255;
    return Saturate(128 + (d >= 0 ? (d + 112) / 224 : (d - 112) / 224));
}
uint8_t LumaToStudio(uint8_t y) { return static_cast<uint8_t>(16 + (int(y) * 219 + 127) / 255); }
uint8_t ChromaToStudio(uint8_t c)
{
    const int d = (int(c) - 128) * 224;
    return static_cast<uint8_t>(128 + (d >= 0 ? (d + 127) / 255 : (d - 127) / 255));
}

}  // namespace

std::vector<uint8_t> EncodeJpeg(const Yuy2Picture& p, int quality) {
    std::vector<uint8_t> result;
    if (p.width == 0 || p.height == 0 || p.pixels.size() < size_t(p.width) * p.height * 2) return result;
    jpeg_compress_struct c{};
    JpegError err{};
    c.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = OnJpegError;
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    std::vector<uint8_t> row(size_t(p.width) * 3);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&c);
        free(out);
        return {};
    }
    jpeg_create_compress(&c);
    jpeg_mem_dest(&c, &out, &outSize);
    c.image_width = p.width;
    c.image_height = p.height;
    c.input_components = 3;
    c.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    // 4:2:2: luma 2x1, chroma 1x1 (what UVC motion-JPEG cameras send).
    c.comp_info[0].h_samp_factor = 2;
    c.comp_info[0].v_samp_factor = 1;
    c.comp_info[1].h_samp_factor = c.comp_info[2].h_samp_factor = 1;
    c.comp_info[1].v_samp_factor = c.comp_info[2].v_samp_factor = 1;
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        const uint8_t* s = &p.pixels[size_t(c.next_scanline) * p.width * 2];
        for (int x = 0; x < p.width; ++x) {
            int pair = (x & ~1) * 2;
            row[x * 3] = LumaToFull(s[x * 2]);
            row[x * 3 + 1] = ChromaToFull(s[pair + 1]);
            row[x * 3 + 2] = (pair + 3 < p.width * 2) ? ChromaToFull(s[pair + 3]) : 128;
        }
        JSAMPROW rp = row.data();
        jpeg_write_scanlines(&c, &rp, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    result.assign(out, out + outSize);
    free(out);
    return result;
}

namespace {

// Walks the marker segments before the scan: calls f(offset, marker,
// segmentLength incl. marker) for each; stops at SOS or at malformed data.
template <class F>
void ForEachHeaderSegment(std::span<const uint8_t> j, F f) {
    size_t pos = 2;  // after SOI
    while (pos + 4 <= j.size() && j[pos] == 0xFF) {
        uint8_t marker = j[pos + 1];
        size_t len = 2 + ((size_t(j[pos + 2]) << 8) | j[pos + 3]);
        if (pos + len > j.size()) return;
        if (!f(pos, marker, len)) return;
        if (marker == 0xDA) return;
        pos += len;
    }
}

bool IsJpeg(std::span<const uint8_t> j) { return j.size() >= 4 && j[0] == 0xFF && j[1] == 0xD8; }

std::vector<uint8_t> StandardDhtSegment() {
    // The tables libjpeg writes by default are the annex K.3 tables; take
    // them from a tiny encoded picture rather than retyping them.
    static const std::vector<uint8_t> seg = [] {
        Yuy2Picture tiny{16, 8, std::vector<uint8_t>(16 * 8 * 2, 128)};
        auto j = EncodeJpeg(tiny, 80);
        std::vector<uint8_t> out;
        ForEachHeaderSegment(j, [&](size_t pos, uint8_t marker, size_t len) {
            if (marker == 0xC4) out.insert(out.end(), j.begin() + pos, j.begin() + pos + len);
            return true;
        });
        return out;
    }();
    return seg;
}

}  // namespace

bool HasDht(std::span<const uint8_t> j) {
    bool found = false;
    if (!IsJpeg(j)) return false;
    ForEachHeaderSegment(j, [&](size_t, uint8_t marker, size_t) {
        if (marker == 0xC4) found = true;
        return !found;
    });
    return found;
}

std::vector<uint8_t> StripDht(std::span<const uint8_t> j) {
    std::vector<uint8_t> out(j.begin(), j.end());
    if (!IsJpeg(j)) return out;
    std::vector<std::pair<size_t, size_t>> cuts;
    ForEachHeaderSegment(j, [&](size_t pos, uint8_t marker, size_t len) {
        if (marker == 0xC4) cuts.emplace_back(pos, len);
        return true;
    });
    for (auto it = cuts.rbegin(); it != cuts.rend(); ++it)
        out.erase(out.begin() + it->first, out.begin() + it->first + it->second);
    return out;
}

std::vector<uint8_t> InsertStandardDht(std::span<const uint8_t> j) {
    std::vector<uint8_t> out(j.begin(), j.end());
    if (!IsJpeg(j) || HasDht(j)) return out;
    size_t sos = 0;
    ForEachHeaderSegment(j, [&](size_t pos, uint8_t marker, size_t) {
        if (marker == 0xDA) sos = pos;
        return true;
    });
    if (sos == 0) return out;
    auto dht = StandardDhtSegment();
    out.insert(out.begin() + sos, dht.begin(), dht.end());
    return out;
}

std::optional<Yuy2Picture> DecodeJpeg(std::span<const uint8_t> jpeg) {
    if (jpeg.size() < 4) return std::nullopt;
    jpeg_decompress_struct d{};
    JpegError err{};
    d.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = OnJpegError;
    err.mgr.emit_message = OnJpegMessage;
    Yuy2Picture p;
    std::vector<uint8_t> row;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&d);
        return std::nullopt;
    }
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
    jpeg_read_header(&d, TRUE);
    d.out_color_space = JCS_YCbCr;
    jpeg_start_decompress(&d);
    if (d.output_components != 3 || d.output_width > 8192 || d.output_height > 8192) {
        jpeg_destroy_decompress(&d);
        return std::nullopt;
    }
    p.width = static_cast<uint16_t>(d.output_width);
    p.height = static_cast<uint16_t>(d.output_height);
    p.pixels.resize(size_t(p.width) * p.height * 2);
    row.resize(size_t(p.width) * 3);
    while (d.output_scanline < d.output_height) {
        JSAMPROW rp = row.data();
        size_t y = d.output_scanline;
        jpeg_read_scanlines(&d, &rp, 1);
        uint8_t* o = &p.pixels[y * p.width * 2];
        for (int x = 0; x < p.width; ++x) {
            o[x * 2] = LumaToStudio(row[x * 3]);
            o[x * 2 + 1] = ChromaToStudio((x & 1) ? row[x * 3 + 2] : row[x * 3 + 1]);
        }
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return p;
}

std::optional<Yuy2Picture> LoadPictureFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (IsJpeg(bytes)) return DecodeJpeg(InsertStandardDht(bytes));
    // Raw pictures are named NAME.WxH.yuy2.
    const std::string suffix = ".yuy2";
    if (path.size() <= suffix.size() || path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0)
        return std::nullopt;
    std::string stem = path.substr(0, path.size() - suffix.size());
    size_t dot = stem.rfind('.'), x = stem.rfind('x');
    if (dot == std::string::npos || x == std::string::npos || x < dot) return std::nullopt;
    auto number = [](const std::string& t) -> int {
        if (t.empty() || t.size() > 5 || t.find_first_not_of("0123456789") != std::string::npos) return 0;
        return std::stoi(t);
    };
    int w = number(stem.substr(dot + 1, x - dot - 1)), h = number(stem.substr(x + 1));
    if (w <= 0 || h <= 0 || w > 65535 || h > 65535) return std::nullopt;
    Yuy2Picture p{static_cast<uint16_t>(w), static_cast<uint16_t>(h), {}};
    if (bytes.size() != size_t(p.width) * p.height * 2) return std::nullopt;
    p.pixels = std::move(bytes);
    return p;
}

}  // namespace kvsim::camera
