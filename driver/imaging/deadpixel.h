// Dead-pixel correction of the YUY2 frame: hides isolated sensor defects in
// the luma. Each frame searches one of four horizontal bands for samples
// far outside their neighbours' range, replaces them by their neighbours'
// mean and remembers where they were; the other three bands are repaired
// from what their last search found. A full search is thus spread over
// four frames, at a quarter of the cost per frame.
#pragma once
#include "wdk.h"

constexpr ULONG kDeadPixelBands = 4;
// A band's list: word 0 the number of entries; entry n (from 1) in words
// 2n (row, counted from the band's first searched row) and 2n + 1 (byte
// offset of the sample in its row). At most 2,048 entries are gathered and
// the count never exceeds 2,047.
constexpr ULONG kBadPixelListWords = 4096;
// The search tests the limit before each group of two samples, so the
// group that crosses it may write entries in words 4,096 to 4,099.
constexpr ULONG kBadPixelListSlack = 4;
constexpr ULONG kClipTableBytes = 1024;

// The correction's state for one stream, reset when the pin starts running.
struct DeadPixelState {
    USHORT BadPixelList[kDeadPixelBands][kBadPixelListWords + kBadPixelListSlack];
    // 0 for indexes 0..255, the index - 256 for 256..511, 255 above: read
    // from byte 256 on, it clamps -256..767 to 0..255.
    UCHAR ClipTable[kClipTableBytes];
};

// Empty lists and a built clip table.
void ResetDeadPixelState(DeadPixelState* pState);

// One YUY2 frame (stride Width * 2) in place: band Phase is searched (none
// when Phase > 3), the others repaired from their lists. A sample is a
// defect when it lies more than Margin (12 in the frame loop) below the
// darkest or above the brightest of its eight neighbours. Chroma != 0 tests
// the chroma bytes instead of the luma. Frames narrower or lower than 4
// pixels are left alone; an odd width's lone last pixel is never tested.
void CorrectDeadPixels(PUCHAR pFrame, DeadPixelState* pState, ULONG Width, ULONG Height, ULONG Phase, ULONG Margin,
                       ULONG Chroma);
