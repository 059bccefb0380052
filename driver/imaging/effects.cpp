// The special effects' entry point, their state and random numbers, and
// the effects that change each pixel (or each YUY2 group, or row) on its
// own: colour channels, greys, negatives, grain, curve tints, the soft
// light border and the three YUY2 effects. The effects that move pixels
// about are in effects_spatial.cpp.
//
// The frame loop runs an effect on every frame, up to 1280 x 1024 at 30
// frames a second, so the per-pixel loops are table lookups over row
// pointers, and the plain byte-wise effects run 16 bytes at a time with
// SSE2, which every x64 processor has and kernel code may use freely; the
// vector loops give exactly the bytes of their scalar tails.
#include "imaging/effects.h"

#include <emmintrin.h>

#include "imaging/effects_internal.h"
#include "imaging/effects_tables.h"
#include "pooltag.h"

using namespace kv::effects;

namespace {

constexpr ULONG kLastEffect = 17;

constexpr ULONG kRandomSeed = 0x78B7;
constexpr ULONG kRandomMultiplier = 0x6AC690C5;
constexpr ULONG kRandomMask = 0xFFFFF;

constexpr ULONG kVector = sizeof(__m128i);

UCHAR ClampByte(LONG value)
{
    return static_cast<UCHAR>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

__m128i Load(const UCHAR* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
void Store(UCHAR* p, __m128i value) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), value); }

// ---- 1, 2, 6: channels, grey, negative ---------------------------------------

// Keeps byte 0 of each pixel. Rows are packed, so the frame is one run of
// pixels and the mask's 48-byte period (16 pixels) never breaks.
void FirstChannelOnly(EffectState*, const EffectFrame& frame)
{
    PUCHAR p = frame.pFrame;
    const SIZE_T bytes = frame.RgbBytes();
    const __m128i keep0 = _mm_setr_epi8(-1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1);
    const __m128i keep1 = _mm_setr_epi8(0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0);
    const __m128i keep2 = _mm_setr_epi8(0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0);
    SIZE_T i = 0;
    for (; i + 3 * kVector <= bytes; i += 3 * kVector) {
        Store(p + i, _mm_and_si128(Load(p + i), keep0));
        Store(p + i + kVector, _mm_and_si128(Load(p + i + kVector), keep1));
        Store(p + i + 2 * kVector, _mm_and_si128(Load(p + i + 2 * kVector), keep2));
    }
    for (; i < bytes; i += kRgbBytes) {
        p[i + 1] = 0;
        p[i + 2] = 0;
    }
}

void CheapGrey(EffectState*, const EffectFrame& frame)
{
    PUCHAR p = frame.pFrame;
    const PUCHAR pEnd = p + frame.RgbBytes();
    for (; p < pEnd; p += kRgbBytes) {
        const UCHAR grey = static_cast<UCHAR>((p[1] + p[2]) >> 1);
        p[0] = grey;
        p[1] = grey;
        p[2] = grey;
    }
}

void Negative(EffectState*, const EffectFrame& frame)
{
    PUCHAR p = frame.pFrame;
    const SIZE_T bytes = frame.RgbBytes();
    const __m128i ones = _mm_set1_epi8(-1);
    SIZE_T i = 0;
    for (; i + kVector <= bytes; i += kVector) {
        Store(p + i, _mm_xor_si128(Load(p + i), ones));
    }
    for (; i < bytes; ++i) {
        p[i] = static_cast<UCHAR>(255 - p[i]);
    }
}

// ---- 7: film grain -------------------------------------------------------------

// Each row takes the texture row of its index mod 64; the three bytes of
// pixel x the texture's column x mod 64. The pattern's period is 12 vectors,
// so no vector straddles its end.
void GrainRow(PUCHAR pRow, SIZE_T rowBytes, const UCHAR* pAdd, const UCHAR* pSub)
{
    SIZE_T i = 0, phase = 0;
    for (; i + kVector <= rowBytes; i += kVector) {
        const __m128i lowered = _mm_subs_epu8(Load(pRow + i), Load(pSub + phase));
        Store(pRow + i, _mm_adds_epu8(lowered, Load(pAdd + phase)));
        phase = phase + kVector == kGrainPeriodBytes ? 0 : phase + kVector;
    }
    for (; i < rowBytes; ++i, ++phase) {
        pRow[i] = ClampByte(static_cast<LONG>(pRow[i]) + pAdd[phase] - pSub[phase]);
    }
}

void FilmGrain(EffectState*, const EffectFrame& frame)
{
    const SIZE_T rowBytes = static_cast<SIZE_T>(frame.Width) * kRgbBytes;
    for (ULONG row = 0; row < frame.Height; ++row) {
        const ULONG textureRow = row % kGrainSide;
        GrainRow(frame.pFrame + row * rowBytes, rowBytes, GrainPattern.Add[textureRow],
                 GrainPattern.Sub[textureRow]);
    }
}

// ---- 8, 11, 12: curve tints --------------------------------------------------------

// Each byte c becomes y + (t_c >> 1), y being half the luma of the three
// curve outputs t_c: (306 t2 + 601 t1 + 117 t0) >> 11. One table entry per
// byte carries both its weighted share and its half (effects_tables.h), so a
// pixel costs three lookups, one sum and three adds. The sum cannot exceed
// 127 + 127, so nothing is clamped.
void Tint(const EffectFrame& frame, const TintTable& table)
{
    const ULONG* pB = table.Channel[0];
    const ULONG* pG = table.Channel[1];
    const ULONG* pR = table.Channel[2];
    PUCHAR p = frame.pFrame;
    const PUCHAR pEnd = p + frame.RgbBytes();
    for (; p < pEnd; p += kRgbBytes) {
        const ULONG b = pB[p[0]];
        const ULONG g = pG[p[1]];
        const ULONG r = pR[p[2]];
        const ULONG halfLuma = ((b + g + r) & kTintWeightMask) >> 11;
        p[0] = static_cast<UCHAR>(halfLuma + (b >> kTintHalfShift));
        p[1] = static_cast<UCHAR>(halfLuma + (g >> kTintHalfShift));
        p[2] = static_cast<UCHAR>(halfLuma + (r >> kTintHalfShift));
    }
}

void WarmTone(EffectState*, const EffectFrame& frame) { Tint(frame, WarmTint); }
void RedTone(EffectState*, const EffectFrame& frame) { Tint(frame, RedTint); }
void BlueTone(EffectState*, const EffectFrame& frame) { Tint(frame, BlueTint); }

// ---- 15: soft light border ---------------------------------------------------------

constexpr ULONG kBorderMinLevels = 6;
constexpr ULONG kBorderMaxLevels = 60;
constexpr LONG kBorderWhite = 235;  // the outermost line's value

ULONG BorderLevels(ULONG side)
{
    const ULONG levels = side / 10;
    return levels < kBorderMinLevels ? kBorderMinLevels : (levels > kBorderMaxLevels ? kBorderMaxLevels : levels);
}

// Level a's lookup: b becomes clamp(235 - a + b * a / 255). At a = 0 every
// byte is 235; at the innermost levels a reaches 255 and darkens by up to
// 20, so the border ends in a faint seam, as it always has.
void BorderCurve(ULONG weight, UCHAR (&curve)[256])
{
    for (ULONG b = 0; b < 256; ++b) {
        curve[b] = ClampByte(kBorderWhite - static_cast<LONG>(weight) + static_cast<LONG>(b * weight / 255));
    }
}

// Pixels [first, last] of row `row`, when the row is in the frame.
void BorderRun(const EffectFrame& frame, LONG row, LONG first, LONG last, const UCHAR (&curve)[256])
{
    if (row < 0 || row >= static_cast<LONG>(frame.Height)) {
        return;
    }
    first = first < 0 ? 0 : first;
    last = last >= static_cast<LONG>(frame.Width) ? static_cast<LONG>(frame.Width) - 1 : last;
    PUCHAR p = frame.pFrame + (static_cast<SIZE_T>(row) * frame.Width + first) * kRgbBytes;
    for (LONG x = first; x <= last; ++x, p += kRgbBytes) {
        p[0] = curve[p[0]];
        p[1] = curve[p[1]];
        p[2] = curve[p[2]];
    }
}

// Rows [first, last] of column `column`, when the column is in the frame.
void BorderColumn(const EffectFrame& frame, LONG column, LONG first, LONG last, const UCHAR (&curve)[256])
{
    if (column < 0 || column >= static_cast<LONG>(frame.Width)) {
        return;
    }
    for (LONG row = first < 0 ? 0 : first; row <= last && row < static_cast<LONG>(frame.Height); ++row) {
        BorderRun(frame, row, column, column, curve);
    }
}

// n levels from the edge inwards, n from the larger side (6..60). The upper
// and lower bands take level i on rows i and height-1-i; the side bands
// take level i on columns i-1 and width-i, which makes them a level darker
// than the rows at the same distance. On frames smaller than the border
// the bands are clipped to the frame.
void SoftLightBorder(EffectState*, const EffectFrame& frame)
{
    const ULONG rowLevels = BorderLevels(frame.Width);
    const ULONG columnLevels = BorderLevels(frame.Height);
    const LONG levels = static_cast<LONG>(rowLevels > columnLevels ? rowLevels : columnLevels);
    const ULONG step = 255 / levels + 1;
    const LONG w = static_cast<LONG>(frame.Width), h = static_cast<LONG>(frame.Height);
    UCHAR curve[256];
    for (LONG i = 0; i < levels; ++i) {
        const ULONG weight = static_cast<ULONG>(i) * step;
        BorderCurve(weight < 255 ? weight : 255, curve);
        BorderRun(frame, i, i, w - 1 - i, curve);
        BorderRun(frame, h - 1 - i, i, w - 1 - i, curve);
        if (i >= 1) {
            BorderColumn(frame, i - 1, i, h - 1 - i, curve);
            BorderColumn(frame, w - i, i, h - 1 - i, curve);
        }
    }
}

// ---- 3, 16, 17: YUY2 ---------------------------------------------------------------

constexpr UCHAR kTintU = 128;  // no blue difference
constexpr UCHAR kTintV = 0x30; // well below 128: a cyan-green cast
constexpr ULONG kGroupBytes = 4;

// Every U of the working frame 128 and every V 48, luma kept. Rows are
// walked separately because an odd width ends each row with half a group.
void TintYuy2(EffectState*, const EffectFrame& frame)
{
    const SIZE_T rowBytes = static_cast<SIZE_T>(frame.Width) * kYuy2Bytes;
    const __m128i lumaMask = _mm_set1_epi32(0x00FF00FF);
    const __m128i chroma = _mm_set1_epi32(static_cast<int>((kTintV << 24) | (kTintU << 8)));
    for (ULONG row = 0; row < frame.Height; ++row) {
        PUCHAR p = frame.pWork + row * rowBytes;
        SIZE_T i = 0;
        for (; i + kVector <= rowBytes; i += kVector) {
            Store(p + i, _mm_or_si128(_mm_and_si128(Load(p + i), lumaMask), chroma));
        }
        for (; i < rowBytes; ++i) {
            if (i % kGroupBytes == 1) {
                p[i] = kTintU;
            } else if (i % kGroupBytes == 3) {
                p[i] = kTintV;
            }
        }
    }
}

// The lower half of the working frame becomes the upper half upside down.
void ReflectUpperHalf(EffectState*, const EffectFrame& frame)
{
    const SIZE_T rowBytes = static_cast<SIZE_T>(frame.Width) * kYuy2Bytes;
    for (ULONG i = 0; i < frame.Height / 2; ++i) {
        RtlCopyMemory(frame.pWork + (frame.Height - 1 - i) * rowBytes, frame.pWork + i * rowBytes, rowBytes);
    }
}

// Each row's left half is kept and repeated backwards in its right half,
// built in the output buffer: a group Y0 U Y1 V lands mirrored as Y1 U Y0 V
// (the pixels swap, the group's chroma stays). Width / 4 groups are
// mirrored; when the width is not a multiple of 4 the bytes between the
// halves keep what the output buffer held (the cameras' widths are
// multiples of 8). The result goes back into the working frame, which the
// later stages read.
void ReflectLeftHalf(EffectState*, const EffectFrame& frame)
{
    const SIZE_T rowBytes = static_cast<SIZE_T>(frame.Width) * kYuy2Bytes;
    const ULONG groups = frame.Width / 4;
    for (ULONG row = 0; row < frame.Height; ++row) {
        const UCHAR* pIn = frame.pWork + row * rowBytes;
        PUCHAR pOut = frame.pFrame + row * rowBytes;
        RtlCopyMemory(pOut, pIn, frame.Width);
        PUCHAR pTo = pOut + rowBytes;
        for (ULONG g = 0; g < groups; ++g, pIn += kGroupBytes) {
            pTo -= kGroupBytes;
            pTo[0] = pIn[2];
            pTo[1] = pIn[1];
            pTo[2] = pIn[0];
            pTo[3] = pIn[3];
        }
    }
    RtlCopyMemory(frame.pWork, frame.pFrame, rowBytes * frame.Height);
}

// ---- the table of effects ------------------------------------------------------------

enum class Buffers { None, Rgb, Work, OutputAndWork };

struct EffectEntry {
    void (*pApply)(EffectState* pState, const EffectFrame& frame);
    Buffers needs;
};

const EffectEntry g_Effects[kLastEffect + 1] = {
    {ReleaseGrid, Buffers::None},              // 0: free the picture grid
    {FirstChannelOnly, Buffers::Rgb},          // 1
    {CheapGrey, Buffers::Rgb},                 // 2
    {TintYuy2, Buffers::Work},                 // 3
    {PictureGrid, Buffers::Rgb},               // 4
    {CompoundEye, Buffers::Rgb},               // 5
    {Negative, Buffers::Rgb},                  // 6
    {FilmGrain, Buffers::Rgb},                 // 7
    {WarmTone, Buffers::Rgb},                  // 8
    {Emboss, Buffers::Rgb},                    // 9
    {Mosaic, Buffers::Rgb},                    // 10
    {RedTone, Buffers::Rgb},                   // 11
    {BlueTone, Buffers::Rgb},                  // 12
    {ZoomAnimation, Buffers::Rgb},             // 13
    {BrushStrokes, Buffers::Rgb},              // 14
    {SoftLightBorder, Buffers::Rgb},           // 15
    {ReflectUpperHalf, Buffers::Work},         // 16
    {ReflectLeftHalf, Buffers::OutputAndWork}, // 17
};

bool FrameUsable(const EffectEntry& entry, const EffectFrame& frame)
{
    if (entry.needs == Buffers::None) {
        return true;
    }
    if (frame.Width == 0 || frame.Height == 0 || frame.Width > kMaxSide || frame.Height > kMaxSide) {
        return false;
    }
    switch (entry.needs) {
    case Buffers::Rgb:
        return frame.pFrame != nullptr;
    case Buffers::Work:
        return frame.pWork != nullptr;
    case Buffers::OutputAndWork:
        return frame.pFrame != nullptr && frame.pWork != nullptr;
    case Buffers::None:
        break;
    }
    return true;
}

}  // namespace

namespace kv::effects {

PUCHAR CopyToScratch(const UCHAR* pSource, SIZE_T Bytes, SIZE_T ExtraBytes)
{
    const SIZE_T size = ScratchExtraOffset(Bytes) + ExtraBytes;
    auto pScratch = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, size, kv::kTagImage));
    if (pScratch != nullptr) {
        RtlCopyMemory(pScratch, pSource, Bytes);
    }
    return pScratch;
}

void FreeScratch(PUCHAR& pScratch) { kv::FreeTagged(pScratch, kv::kTagImage); }

}  // namespace kv::effects

void InitEffectState(EffectState* pState)
{
    RtlZeroMemory(pState, sizeof(*pState));
    pState->m_RandomState = kRandomSeed;
    pState->m_RandomCarry = 0;
}

void ApplySpecialEffect(EffectState* pState, ULONG Effect, ULONG Width, ULONG Height, PUCHAR pFrame, PUCHAR pWork)
{
    if (pState == nullptr || Effect > kLastEffect) {
        return;
    }
    const EffectEntry& entry = g_Effects[Effect];
    const EffectFrame frame = {Width, Height, pFrame, pWork};
    if (FrameUsable(entry, frame)) {
        entry.pApply(pState, frame);
    }
}

// A multiply-with-carry step: the carry is 0 for the first number only.
ULONG EffectRandom(EffectState* pState)
{
    pState->m_RandomState = pState->m_RandomState * kRandomMultiplier + pState->m_RandomCarry;
    pState->m_RandomCarry = 1;
    return pState->m_RandomState & kRandomMask;
}
