// Dead-pixel correction (deadpixel.h): the band layout, the search of one
// band and the repair of the others from their lists.
#include "imaging/deadpixel.h"

namespace {

constexpr ULONG kEntryWords = 2;
// The search stops gathering once a band's list holds this many words.
constexpr ULONG kListFullWords = kBadPixelListWords;
constexpr ULONG kLargestCount = 2047;
constexpr ULONG kClipZero = 256;  // ClipTable's byte for index 0
constexpr ULONG kClipRampEnd = 512;
constexpr ULONG kLargestMargin = 256;  // what the clip table can absorb
constexpr ULONG kYuy2Bytes = 2;
constexpr ULONG kGroupBytes = 4;
constexpr ULONG kSampleStep = 2;  // bytes between two samples of one kind
constexpr ULONG kSmallestSide = 4;
// A list entry's row and offset are 16-bit words.
constexpr ULONG kLargestWord = 0xFFFF;

// The bands, with q = height / 4: band b's first searched row is
// firstPerQuarter * q + firstExtra, and it has
// rowsPerHeight * height + rowsPerQuarter * q + rowsExtra rows. The first
// and last rows of the frame have no row beyond them and are never examined.
struct BandRule {
    LONG firstPerQuarter;
    LONG firstExtra;
    LONG rowsPerHeight;
    LONG rowsPerQuarter;
    LONG rowsExtra;
};

const BandRule kBands[kDeadPixelBands] = {
    {0, 1, 0, 1, -1},   // rows 1 .. q-1
    {1, 0, 0, 1, 0},    // rows q .. 2q-1
    {2, 0, 0, 1, 0},    // rows 2q .. 3q-1
    {3, 0, 1, -3, -1},  // rows 3q .. height-2
};

struct Band {
    ULONG firstRow;
    ULONG rows;
};

// Heights of at least 4 give every band rows inside 1..height-2.
Band BandOf(ULONG band, ULONG height)
{
    const BandRule& rule = kBands[band];
    const LONG q = static_cast<LONG>(height / 4);
    const LONG h = static_cast<LONG>(height);
    Band result;
    result.firstRow = static_cast<ULONG>(rule.firstPerQuarter * q + rule.firstExtra);
    result.rows = static_cast<ULONG>(rule.rowsPerHeight * h + rule.rowsPerQuarter * q + rule.rowsExtra);
    return result;
}

// The frame as the workers see it.
struct Frame {
    PUCHAR pPixels;
    ULONG stride;      // bytes from one row to the next
    ULONG usedBytes;   // bytes of each row made of whole groups
    ULONG height;
};

UCHAR MeanOfFour(const UCHAR* p, ULONG stride)
{
    return static_cast<UCHAR>((p[-static_cast<LONG>(kSampleStep)] + p[kSampleStep] + p[-static_cast<LONG>(stride)] +
                               p[stride]) >> 2);
}

// Whether sample p lies more than the margin outside the range of its
// eight neighbours (the same kind of sample, left, right, above and below
// and on the diagonals).
bool IsDefect(const UCHAR* p, ULONG stride, const UCHAR* pClip, ULONG margin)
{
    // Most samples lie within the margin of their left neighbour, so
    // within the range of all eight: no need to find the range.
    const LONG m = static_cast<LONG>(margin);
    const LONG left = p[-static_cast<LONG>(kSampleStep)];
    if (*p <= left + m && *p + m >= left) {
        return false;
    }
    const UCHAR* pAbove = p - stride;
    const UCHAR* pBelow = p + stride;
    const UCHAR around[8] = {pAbove[-2], pAbove[0], pAbove[2], p[-2], p[2], pBelow[-2], pBelow[0], pBelow[2]};
    LONG lo = around[0], hi = around[0];
    for (UCHAR v : around) {
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
    }
    return *p < pClip[lo - m] || *p > pClip[hi + m];
}

// Searches `rows` rows from firstRow, repairing each defect at once (so a
// repaired sample is a neighbour of the next test) and rebuilding the list.
void ScanBand(const Frame& frame, ULONG firstRow, USHORT* pList, const UCHAR* pClip, ULONG rows, ULONG margin,
              ULONG chroma)
{
    // Luma at g + 2 and g + 4 of each group g; chroma one byte on. Neither
    // the row's first sample nor its last of a kind is tested: each tested
    // sample has both neighbours within the row's whole groups.
    const ULONG firstSample = chroma != 0 ? 3 : 2;
    ULONG words = 0;
    for (ULONG r = 0; r < rows; ++r) {
        PUCHAR pRow = frame.pPixels + static_cast<SIZE_T>(firstRow + r) * frame.stride;
        for (ULONG g = 0; g + kGroupBytes < frame.usedBytes; g += kGroupBytes) {
            if (words >= kListFullWords) {
                DbgPrint("Bad pixel too many, now processing will break \n");
                return;
            }
            for (ULONG x = g + firstSample; x <= g + firstSample + kSampleStep; x += kSampleStep) {
                PUCHAR p = pRow + x;
                if (IsDefect(p, frame.stride, pClip, margin)) {
                    *p = MeanOfFour(p, frame.stride);
                    words += kEntryWords;
                    pList[words] = static_cast<USHORT>(r);
                    pList[words + 1] = static_cast<USHORT>(x);
                }
            }
        }
    }
    const ULONG count = words / kEntryWords;
    pList[0] = static_cast<USHORT>(count > kLargestCount ? kLargestCount : count);
}

// Replaces each remembered sample by its neighbours' mean, whatever it
// holds now. An entry that does not lie inside this frame with all four
// neighbours (a list from a frame of another size) is passed over.
void RepairFromList(const Frame& frame, ULONG firstRow, const USHORT* pList)
{
    const ULONG count = pList[0] <= kLargestCount ? pList[0] : kLargestCount;
    for (ULONG n = 1; n <= count; ++n) {
        const ULONG row = firstRow + pList[kEntryWords * n];
        const ULONG x = pList[kEntryWords * n + 1];
        if (row < 1 || row + 1 >= frame.height || x < kSampleStep || x + kSampleStep >= frame.usedBytes) {
            continue;
        }
        PUCHAR p = frame.pPixels + static_cast<SIZE_T>(row) * frame.stride + x;
        *p = MeanOfFour(p, frame.stride);
    }
}

}  // namespace

void ResetDeadPixelState(DeadPixelState* pState)
{
    if (pState == nullptr) {
        return;
    }
    RtlZeroMemory(pState->BadPixelList, sizeof(pState->BadPixelList));
    for (ULONG i = 0; i < kClipTableBytes; ++i) {
        pState->ClipTable[i] = static_cast<UCHAR>(i < kClipZero ? 0 : (i < kClipRampEnd ? i - kClipZero : 255));
    }
}

void CorrectDeadPixels(PUCHAR pFrame, DeadPixelState* pState, ULONG Width, ULONG Height, ULONG Phase, ULONG Margin,
                       ULONG Chroma)
{
    if (pFrame == nullptr || pState == nullptr || Width < kSmallestSide || Height < kSmallestSide ||
        Width * kYuy2Bytes > kLargestWord || Height > kLargestWord) {
        return;
    }
    Frame frame;
    frame.pPixels = pFrame;
    frame.stride = Width * kYuy2Bytes;
    frame.usedBytes = (Width / 2) * kGroupBytes;
    frame.height = Height;
    const ULONG margin = Margin < kLargestMargin ? Margin : kLargestMargin;
    const UCHAR* pClip = pState->ClipTable + kClipZero;
    for (ULONG b = 0; b < kDeadPixelBands; ++b) {
        const Band band = BandOf(b, Height);
        if (b == Phase) {
            ScanBand(frame, band.firstRow, pState->BadPixelList[b], pClip, band.rows, margin, Chroma);
        } else {
            RepairFromList(frame, band.firstRow, pState->BadPixelList[b]);
        }
    }
}
