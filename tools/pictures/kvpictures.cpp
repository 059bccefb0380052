// kvpictures: draws the driver's own overlay pictures, the seven photo frames
// "1_640_480.bmp".."7_640_480.bmp" and the self-timer's countdown pictures
// "VGA1.bmp".."VGA10.bmp", as the 24-bit bitmaps the driver reads from
// "\SystemRoot\".
//
//   kvpictures [--png] OUTDIR
//
// The driver lays a picture over the video by replacing every video pixel
// whose picture pixel is not pure black; pure black lets the video through.
// So each picture here is a shader that, pixel by pixel, either gives a
// colour (the decoration) or nothing (the video). A colour that happens to
// come out pure black is painted (8,8,8) instead, so that dark decoration
// never turns into a hole. Soft edges towards the video cannot fade (there is
// no partial transparency), so they are dithered: an ordered pattern whose
// density falls off towards the video. Everything is computed from pixel
// positions alone: the same bytes on every run.
//
// --png also writes a PNG preview of each picture beside it (uncompressed
// deflate blocks, so no compression library is needed).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <numbers>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr int kWidth = 640, kHeight = 480;
constexpr double kPi = std::numbers::pi;

struct Rgb {
    uint8_t r, g, b;
};
// What a shader gives for one pixel: a colour, or nothing (the video shows).
using Pixel = std::optional<Rgb>;
using Shader = std::function<Pixel(int x, int y)>;

// ---------------------------------------------------------------- colour

uint8_t Clamp8(double v) { return uint8_t(std::clamp(std::lround(v), 0L, 255L)); }
double Clamp01(double v) { return std::clamp(v, 0.0, 1.0); }
double Smooth(double t) { t = Clamp01(t); return t * t * (3 - 2 * t); }
Rgb Mix(Rgb a, Rgb b, double t)
{
    t = Clamp01(t);
    return {Clamp8(a.r + (b.r - a.r) * t), Clamp8(a.g + (b.g - a.g) * t), Clamp8(a.b + (b.b - a.b) * t)};
}
Rgb Scale(Rgb c, double k) { return {Clamp8(c.r * k), Clamp8(c.g * k), Clamp8(c.b * k)}; }
Rgb Hsv(double hue, double sat, double val)
{
    const double h = std::fmod(std::fmod(hue, 360) + 360, 360) / 60;
    auto channel = [&](double n) {
        const double k = std::fmod(n + h, 6);
        return 255 * val * (1 - sat * std::clamp(std::min(k, 4 - k), 0.0, 1.0));
    };
    return {Clamp8(channel(5)), Clamp8(channel(3)), Clamp8(channel(1))};
}

// Deterministic per-pixel grain in [0, 1): an integer hash, not a random
// generator, so that the bytes never change.
double Noise(int x, int y)
{
    uint32_t h = uint32_t(x) * 374761393u + uint32_t(y) * 668265263u;
    h = (h ^ (h >> 13)) * 1274126177u;
    return double((h ^ (h >> 16)) & 0xFFFF) / 65536;
}
// The 8x8 ordered-dither threshold: a pixel of a soft edge is painted when
// its coverage exceeds this, which spreads the painted pixels evenly.
bool Dither(int x, int y, double coverage)
{
    int v = 0;
    for (int bit = 0; bit < 3; ++bit) {
        v |= (((x ^ y) >> bit) & 1) << (5 - 2 * bit) | ((y >> bit) & 1) << (4 - 2 * bit);
    }
    return coverage > (v + 0.5) / 64;
}

// ---------------------------------------------------------------- shapes

// Signed distance to a rectangle with rounded corners (negative inside).
double RoundRect(double px, double py, double left, double top, double right, double bottom, double radius)
{
    const double qx = std::abs(px - (left + right) / 2) - ((right - left) / 2 - radius);
    const double qy = std::abs(py - (top + bottom) / 2) - ((bottom - top) / 2 - radius);
    return std::hypot(std::max(qx, 0.0), std::max(qy, 0.0)) + std::min(std::max(qx, qy), 0.0) - radius;
}
// Distance of a pixel centre to the picture's nearest edge.
double EdgeDistance(double px, double py) { return std::min({px, py, kWidth - px, kHeight - py}); }

struct Stroke {
    double ax, ay, bx, by;
};
double Distance(const Stroke& s, double px, double py)
{
    const double dx = s.bx - s.ax, dy = s.by - s.ay, len2 = dx * dx + dy * dy;
    const double t = len2 > 0 ? Clamp01(((px - s.ax) * dx + (py - s.ay) * dy) / len2) : 0;
    return std::hypot(px - s.ax - t * dx, py - s.ay - t * dy);
}

// Seven-segment numbers: round-ended strokes, slanted a little, each digit's
// lit segments centred as a whole (a "1" sits in the middle, not at the
// right of an empty box). A glyph box is 1 wide and 2 high; bit 0 of a
// digit's mask is segment a (top), then b, c clockwise, d (bottom), e, f, g.
constexpr std::array<std::array<double, 4>, 7> kSegments = {{
    {0, 0, 1, 0}, {1, 0, 1, 1}, {1, 1, 1, 2}, {0, 2, 1, 2}, {0, 1, 0, 2}, {0, 0, 0, 1}, {0, 1, 1, 1},
}};
constexpr std::array<uint8_t, 10> kDigitSegments = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};

struct Lettering {
    std::vector<Stroke> strokes;
    double radius;  // half the stroke width
    // Signed distance to the strokes' edge (negative inside).
    double Distance(double px, double py) const
    {
        double d = std::numeric_limits<double>::max();
        for (const Stroke& s : strokes) d = std::min(d, ::Distance(s, px, py));
        return d - radius;
    }
};

Lettering SevenSegment(std::string_view digits, double cx, double cy, double height, double radius)
{
    constexpr double kSlant = 0.1;
    const double w = height * 0.5, h = height / 2, gap = radius * 1.3, spacing = 2 * radius + w * 0.35;
    Lettering out{{}, radius};
    double pen = 0;
    for (char c : digits) {
        const uint8_t mask = kDigitSegments[size_t(c - '0')];
        double lo = 1, hi = 0;
        for (size_t i = 0; i < kSegments.size(); ++i) {
            if (!(mask & (1 << i))) continue;
            lo = std::min({lo, kSegments[i][0], kSegments[i][2]});
            hi = std::max({hi, kSegments[i][0], kSegments[i][2]});
        }
        for (size_t i = 0; i < kSegments.size(); ++i) {
            if (!(mask & (1 << i))) continue;
            const auto& s = kSegments[i];
            const double ax = pen + (s[0] - lo) * w, ay = s[1] * h, bx = pen + (s[2] - lo) * w, by = s[3] * h;
            // Shortened at both ends so that the segments stay apart.
            const double len = std::hypot(bx - ax, by - ay), ux = (bx - ax) / len * gap, uy = (by - ay) / len * gap;
            out.strokes.push_back({ax + ux, ay + uy, bx - ux, by - uy});
        }
        pen += (hi - lo) * w + spacing;
    }
    const double left = cx - (pen - spacing) / 2, top = cy - height / 2;
    for (Stroke& s : out.strokes) {
        s = {left + s.ax + (h - s.ay) * kSlant, top + s.ay, left + s.bx + (h - s.by) * kSlant, top + s.by};
    }
    return out;
}

// ---------------------------------------------------------------- photo frames

// A carved wooden moulding, 44 pixels wide, mitred at the corners. The grain
// runs along each piece; light from the top left brightens the outer slope of
// the top and left pieces and the inner slope of the bottom and right ones.
Pixel WoodFrame(int x, int y)
{
    constexpr double kBorder = 44;
    const double px = x + 0.5, py = y + 0.5;
    std::array<double, 4> edge = {py, kWidth - px, kHeight - py, px};  // top, right, bottom, left
    const int side = int(std::min_element(edge.begin(), edge.end()) - edge.begin());
    const double d = edge[size_t(side)];
    if (d >= kBorder) return std::nullopt;
    if (d > kBorder - 2) return Rgb{58, 34, 16};  // the lip where the picture sits
    const double along = side % 2 == 0 ? px : py;
    const double ring = d * 0.8 + 3.5 * std::sin(along * 0.011 + side * 1.7) + 1.5 * std::sin(along * 0.047 + side);
    const double grain = 0.5 + 0.5 * std::sin(ring * 1.3 + 2 * std::sin(ring * 0.21));
    const Rgb wood = Mix({172, 112, 62}, {110, 64, 30}, grain * 0.8 + Noise(x, y) * 0.2);
    const bool litOuter = side == 0 || side == 3;
    double light = 1.0;
    if (d < 10) light = litOuter ? 1.3 - 0.02 * d : 0.7 + 0.02 * d;
    else if (d > kBorder - 12) light = litOuter ? 0.72 : 1.22;
    std::sort(edge.begin(), edge.end());
    if (edge[1] - edge[0] < 1.0) light *= 0.6;  // the mitre joint
    return Scale(wood, light);
}

// An instant-print card: off-white, rounded corners, a deep bottom band, and
// a strip of tape holding it at the top.
Pixel InstantPrintFrame(int x, int y)
{
    const double px = x + 0.5, py = y + 0.5;
    const double card = RoundRect(px, py, 0, 0, kWidth, kHeight, 22);
    if (card > 0) return std::nullopt;
    const double turn = -0.05, tx = px - kWidth / 2.0, ty = py - 26;
    const double u = tx * std::cos(turn) + ty * std::sin(turn), v = ty * std::cos(turn) - tx * std::sin(turn);
    const double torn = 3 * std::abs(std::fmod(std::abs(v) + 100, 6) - 3);  // serrated ends
    if (std::abs(v) < 17 && std::abs(u) < 64 + torn) return Scale({238, 230, 188}, 0.96 + 0.05 * Noise(x, y));
    const double window = RoundRect(px, py, 30, 30, kWidth - 30, kHeight - 100, 12);
    if (window < 0) return std::nullopt;
    Rgb paper = Scale({246, 244, 236}, 0.97 + 0.03 * Noise(x, y));
    if (window < 5) paper = Mix({160, 158, 150}, paper, window / 5);  // the print's recessed edge
    if (card > -2) paper = Mix(paper, {196, 194, 186}, card + 2);
    return paper;
}

// A strip of film: dark bands with sprocket holes (the video shows through
// them) and amber edge numbers, thin dividers at the sides.
Pixel FilmStripFrame(int x, int y)
{
    constexpr double kBand = 62, kSide = 10, kPitch = 40;
    static const Lettering numbers = [] {
        Lettering all{{}, 1.3};
        for (int i = 0; i < 4; ++i) {
            for (double cy : {45.0, kHeight - 45.0}) {
                const Lettering n = SevenSegment(std::to_string(24 + i), 80 + 160 * i, cy, 12, 1.3);
                all.strokes.insert(all.strokes.end(), n.strokes.begin(), n.strokes.end());
            }
        }
        return all;
    }();
    const double px = x + 0.5, py = y + 0.5, fromEdge = std::min(py, kHeight - py);
    if (fromEdge >= kBand && px >= kSide && px <= kWidth - kSide) return std::nullopt;
    const Rgb base = Scale({44, 40, 36}, 0.94 + 0.1 * Noise(x, y));
    if (fromEdge >= kBand) return base;
    const double hx = std::fmod(px, kPitch);
    if (RoundRect(hx, fromEdge, kPitch / 2 - 11, 12, kPitch / 2 + 11, 28, 3) < 0) return std::nullopt;
    if (fromEdge > kBand - 2) return Rgb{74, 68, 60};
    return Mix(base, {236, 150, 48}, 0.5 - numbers.Distance(px, py));
}

// A soft rainbow border: the hue turns once around the picture, and the inner
// edge dissolves into the video over 30 pixels.
Pixel RainbowFrame(int x, int y)
{
    constexpr double kBorder = 58, kFeather = 30;
    const double px = x + 0.5, py = y + 0.5, d = EdgeDistance(px, py);
    if (d >= kBorder) return std::nullopt;
    if (d > kBorder - kFeather && !Dither(x, y, Smooth((kBorder - d) / kFeather))) return std::nullopt;
    const double angle = std::atan2(py - kHeight / 2.0, px - kWidth / 2.0);
    return Hsv(angle * 180 / kPi + 200, 0.55, 0.8 + 0.2 * (1 - d / kBorder));
}

// Hearts and stars gathered in the corners over a stitched pink ribbon. One
// corner's charms are listed; the other corners mirror their places.
struct Charm {
    bool heart;
    double x, y, size, turn;
    Rgb colour;
};
constexpr Rgb kRed{222, 44, 76}, kPink{246, 140, 178}, kGoldStar{252, 204, 64}, kPale{255, 246, 226};
constexpr std::array<Charm, 9> kCharms = {{
    {true, 50, 48, 30, -0.35, kRed},
    {true, 118, 32, 15, 0.3, kPink},
    {true, 30, 116, 14, -0.5, kPink},
    {false, 104, 88, 19, 0.15, kGoldStar},
    {false, 160, 28, 10, 0.4, kGoldStar},
    {false, 28, 166, 10, 0.0, kGoldStar},
    {true, 70, 140, 10, 0.2, kRed},
    {true, 168, 66, 9, -0.3, kRed},
    {false, 140, 118, 7, 0.3, kPale},
}};

// Unit shapes: a heart about 2 across, a five-pointed star of radius 1.
bool InHeart(double u, double v)
{
    v = -v + 0.15;  // upright
    const double a = u * u + v * v - 1;
    return a * a * a - u * u * v * v * v <= 0;
}
bool InStar(double u, double v)
{
    const double sector = 2 * kPi / 10, angle = std::atan2(u, -v) + 2 * kPi;
    const double a = std::abs(std::fmod(angle, 2 * sector) - sector), r = std::hypot(u, v);
    // Folded into one half point: inside the edge from the tip (1, 0) to the
    // notch (0.45 at one sector).
    const double qx = r * std::cos(sector - a), qy = r * std::sin(sector - a);
    const double nx = 0.45 * std::cos(sector), ny = 0.45 * std::sin(sector);
    return (nx - 1) * qy - ny * (qx - 1) >= 0;
}

Pixel CharmsFrame(int x, int y)
{
    const double px = x + 0.5, py = y + 0.5;
    const double fx = std::min(px, kWidth - px), fy = std::min(py, kHeight - py);
    for (const Charm& c : kCharms) {
        // Mirrored positions, but always upright.
        const double dx = fx - c.x, dy = (py < kHeight / 2.0 ? 1 : -1) * (fy - c.y);
        const double cs = std::cos(c.turn), sn = std::sin(c.turn), u = dx * cs + dy * sn, v = dy * cs - dx * sn;
        auto inside = [&](double size) {
            return c.heart ? InHeart(u / size, v / size) : InStar(u / size, v / size);
        };
        if (inside(c.size)) {
            const double gloss = Clamp01(1 - std::hypot(u / c.size + 0.4, v / c.size + 0.35) / 0.45);
            return Mix(Scale(c.colour, 0.9 + 0.1 * v / c.size), {255, 255, 255}, gloss * 0.7);
        }
        if (inside(c.size + 3)) return Rgb{255, 252, 248};
    }
    const double d = std::min(fx, fy);
    if (d >= 14) return std::nullopt;
    const double along = fy < fx ? px : py;
    if (d > 5 && d < 9 && std::fmod(along, 12) < 6) return Rgb{255, 240, 246};  // stitching
    return Scale(kPink, d > 12 ? 0.8 : 1.0);
}

// A gilded frame: a broad gold moulding, a band of wine-red velvet strung
// with gold beads, a fine inner gold line, and a rosette on each inner corner.
Rgb Gilt(double t)  // t across a moulding, 0..1: two bright ridges
{
    return Mix({124, 86, 22}, {255, 230, 140}, 0.5 + 0.5 * std::cos(t * 3 * kPi + 0.6));
}
Pixel GildedFrame(int x, int y)
{
    const double px = x + 0.5, py = y + 0.5;
    const double fx = std::min(px, kWidth - px), fy = std::min(py, kHeight - py), d = std::min(fx, fy);
    const double rx = fx - 52, ry = fy - 52, r = std::hypot(rx, ry);
    if (r < 24) {
        const double petal = 13 + 10 * std::pow(std::abs(std::cos(2 * std::atan2(ry, rx))), 0.6);
        if (r < 5) return Rgb{255, 238, 160};
        if (r < 7) return Rgb{110, 74, 18};
        if (r < petal - 1.5) return Gilt(r / petal * 0.8);
        if (r < petal) return Rgb{110, 74, 18};
    }
    if (d < 20) return Gilt(d / 20);
    if (d < 30) {
        const double bx = std::fmod(fy < fx ? px : py, 14) - 7, by = d - 25;
        if (std::hypot(bx, by) < 2.8) return Mix({255, 232, 150}, {150, 110, 30}, std::hypot(bx + 1, by + 1) / 3.5);
        return Scale({100, 16, 34}, 0.85 + 0.3 * std::sin((d - 20) / 10 * kPi));
    }
    if (d < 36) return Gilt((d - 30) / 6);
    return std::nullopt;
}

// An oval vignette: the video in a soft-edged oval, a deep blue damask of
// diamonds and dots outside it, darkening towards the corners.
Pixel OvalFrame(int x, int y)
{
    constexpr double kFeather = 0.12;
    const double px = x + 0.5, py = y + 0.5;
    const double q = std::hypot((px - kWidth / 2.0) / 292, (py - kHeight / 2.0) / 212);
    if (q < 1 || (q < 1 + kFeather && !Dither(x, y, Smooth((q - 1) / kFeather)))) return std::nullopt;
    const Rgb base = Mix({58, 76, 128}, {18, 24, 52}, (q - 1) / 0.6);
    const double u = std::fmod(px + 18, 36) - 18, v = std::fmod(py + 18, 36) - 18;
    const double su = std::fmod(px, 36) - 18, sv = std::fmod(py, 36) - 18;
    if (std::abs(u) + std::abs(v) < 7) return Scale(base, 1.4);
    if (std::abs(u) + std::abs(v) < 9) return Scale(base, 0.8);
    if (std::hypot(su, sv) < 2.5) return Scale(base, 1.3);
    return base;
}

struct PhotoFrame {
    const char* file;
    Pixel (*shade)(int x, int y);
};
constexpr std::array<PhotoFrame, 7> kPhotoFrames = {{
    {"1_640_480.bmp", WoodFrame},
    {"2_640_480.bmp", InstantPrintFrame},
    {"3_640_480.bmp", FilmStripFrame},
    {"4_640_480.bmp", RainbowFrame},
    {"5_640_480.bmp", CharmsFrame},
    {"6_640_480.bmp", GildedFrame},
    {"7_640_480.bmp", OvalFrame},
}};

// ---------------------------------------------------------------- countdown

// The count's number, large, white warming to amber downwards, in a dark
// outline so that it reads over any video; around it a ring of ten segments,
// one per second of the self-timer, lit clockwise from the top for the
// seconds that remain.
constexpr int kLongestCount = 10;
Pixel CountdownPicture(const Lettering& number, int count, int x, int y)
{
    constexpr Rgb kInk{8, 8, 8}, kLit{255, 168, 36}, kUnlit{84, 84, 92};
    constexpr double kOutline = 7, kRing = 188, kRingHalf = 12, kSegmentGap = 7;
    const double px = x + 0.5, py = y + 0.5;
    const double d = number.Distance(px, py);
    if (d < kOutline) return Mix(Mix({255, 255, 255}, {255, 208, 110}, (py - 130) / 220), kInk, d + 0.5);
    const double dx = px - kWidth / 2.0, dy = py - kHeight / 2.0, r = std::hypot(dx, dy);
    const double step = 2 * kPi / kLongestCount, angle = std::atan2(dx, -dy) + 2 * kPi;
    const int segment = int(angle / step) % kLongestCount;
    const double arc = std::abs(std::fmod(angle, step) - step / 2) * r;  // from the segment's middle
    const double ring = std::max(std::abs(r - kRing) - kRingHalf, arc - (step / 2 * r - kSegmentGap));
    if (ring >= 3) return std::nullopt;
    const Rgb fill = segment < count ? Mix(kLit, {255, 226, 120}, (kRing + kRingHalf - r) / 24) : kUnlit;
    return Mix(fill, kInk, ring + 0.5);
}

// ---------------------------------------------------------------- files

std::vector<Rgb> Render(const Shader& shade)
{
    std::vector<Rgb> pixels(size_t(kWidth) * kHeight, Rgb{0, 0, 0});
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            if (const Pixel c = shade(x, y)) {
                pixels[size_t(y) * kWidth + size_t(x)] = c->r | c->g | c->b ? *c : Rgb{8, 8, 8};
            }
        }
    }
    return pixels;
}

void PutLE(Bytes& out, uint32_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
void PutBE(Bytes& out, uint32_t v)
{
    for (int i = 3; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
}

// The bitmap as the driver reads it: the 54-byte header, then bottom-up rows
// of width x 3 bytes, blue first (640 x 3 needs no row padding).
Bytes Bitmap(const std::vector<Rgb>& pixels)
{
    constexpr uint32_t kHeader = 54, kImage = uint32_t(kWidth) * kHeight * 3;
    Bytes out{'B', 'M'};
    for (uint32_t v : {kHeader + kImage, 0u, kHeader, 40u, uint32_t(kWidth), uint32_t(kHeight)}) PutLE(out, v, 4);
    PutLE(out, 1, 2);   // planes
    PutLE(out, 24, 2);  // bits per pixel
    for (uint32_t v : {0u, kImage, 0u, 0u, 0u, 0u}) PutLE(out, v, 4);
    for (int y = kHeight - 1; y >= 0; --y) {
        for (int x = 0; x < kWidth; ++x) {
            const Rgb& c = pixels[size_t(y) * kWidth + size_t(x)];
            out.insert(out.end(), {c.b, c.g, c.r});
        }
    }
    return out;
}

uint32_t Crc32(const uint8_t* p, size_t n)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k) crc = crc >> 1 ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}
void PngChunk(Bytes& out, const char* type, const Bytes& data)
{
    PutBE(out, uint32_t(data.size()));
    const size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    PutBE(out, Crc32(out.data() + start, out.size() - start));
}
// An 8-bit RGB PNG whose zlib stream holds stored (uncompressed) blocks.
Bytes Png(const std::vector<Rgb>& pixels)
{
    Bytes raw;
    for (int y = 0; y < kHeight; ++y) {
        raw.push_back(0);  // no row filter
        for (int x = 0; x < kWidth; ++x) {
            const Rgb& c = pixels[size_t(y) * kWidth + size_t(x)];
            raw.insert(raw.end(), {c.r, c.g, c.b});
        }
    }
    Bytes z{0x78, 0x01};
    for (size_t at = 0; at < raw.size(); at += 65535) {
        const size_t n = std::min<size_t>(65535, raw.size() - at);
        z.push_back(at + n == raw.size() ? 1 : 0);
        PutLE(z, uint32_t(n), 2);
        PutLE(z, uint32_t(~n & 0xFFFF), 2);
        z.insert(z.end(), raw.begin() + long(at), raw.begin() + long(at + n));
    }
    uint32_t a = 1, b = 0;
    for (uint8_t v : raw) a = (a + v) % 65521, b = (b + a) % 65521;
    PutBE(z, b << 16 | a);
    Bytes header;
    PutBE(header, kWidth);
    PutBE(header, kHeight);
    header.insert(header.end(), {8, 2, 0, 0, 0});  // 8-bit RGB, not interlaced
    Bytes out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    PngChunk(out, "IHDR", header);
    PngChunk(out, "IDAT", z);
    PngChunk(out, "IEND", {});
    return out;
}

bool WriteFile(const fs::path& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    out.close();
    if (out) return true;
    std::fprintf(stderr, "kvpictures: cannot write %s\n", path.string().c_str());
    return false;
}

bool Save(const fs::path& dir, const std::string& file, const Shader& shade, bool png)
{
    const std::vector<Rgb> pixels = Render(shade);
    return WriteFile(dir / file, Bitmap(pixels)) &&
           (!png || WriteFile(dir / fs::path(file).replace_extension(".png"), Png(pixels)));
}

}  // namespace

int main(int argc, char** argv)
{
    const bool png = argc == 3 && std::string_view(argv[1]) == "--png";
    if (argc != 2 && !png) {
        std::fprintf(stderr, "usage: kvpictures [--png] OUTDIR\n");
        return 2;
    }
    const fs::path dir = argv[argc - 1];
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) {
        std::fprintf(stderr, "kvpictures: cannot create %s: %s\n", dir.string().c_str(), ec.message().c_str());
        return 1;
    }
    bool ok = true;
    for (const PhotoFrame& frame : kPhotoFrames) ok = Save(dir, frame.file, frame.shade, png) && ok;
    for (int count = 1; count <= kLongestCount; ++count) {
        const Lettering number = SevenSegment(std::to_string(count), kWidth / 2.0, kHeight / 2.0, 220, 15);
        const Shader shade = [&](int x, int y) { return CountdownPicture(number, count, x, y); };
        ok = Save(dir, "VGA" + std::to_string(count) + ".bmp", shade, png) && ok;
    }
    return ok ? 0 : 1;
}
