// Digital pan and zoom (panzoom.h): the window's size and position from the
// level and the commands, its edge indications, and the enlargement of the
// crop to the frame through index and weight tables.
//
// The enlargement's weights are the fraction of i * (crop - 1) / frame in
// integer arithmetic, which is always 0: each output pixel is the crop pixel
// at the lower index. That look (no smoothing) is what users of the zoom
// know; the tables and the blend stay, so that a finer weight would only
// change the tables.
#include "imaging/panzoom.h"

#include "controls/settings.h"
#include "device/formats.h"

namespace {

// The window's size at each level, in percent of the frame: the window is
// frame * 100 / ZoomPercent[level]. Entry 0 is never read.
const USHORT ZoomPercent[kZoomLevelLargest + 1] = {
    100, 100, 101, 102, 103, 105, 106, 108, 109, 111, 112, 114, 115, 117, 119, 121, 123, 125, 126, 129, 131,
    133, 135, 137, 140, 142, 145, 148, 150, 153, 156, 160, 163, 166, 170, 173, 177, 181, 186, 190, 195, 200,
    205, 210, 216, 222, 228, 235, 242, 250, 258, 266, 275, 285, 296, 307, 320, 333, 347, 363, 380, 400,
};

constexpr ULONG kStateSignature = 0x5A50564B;  // "KVPZ": PanZoomStart has run on this area
constexpr ULONG kRgbBytes = 3;
constexpr ULONG kSmallestSide = 4;
constexpr LONG kCommandSet = 1;  // only exactly 1 is a command: the -1 written back is not
constexpr LONG kAtEdge = -1;
constexpr LONG kSettingByte = 0xFF;
constexpr int kWeightBits = 7;
constexpr LONG kWeightOne = 1 << kWeightBits;
constexpr LONG kWeightRound = kWeightOne / 2;
constexpr SIZE_T kPartAlignment = 16;

// Pan steps in pixels by frame width.
struct PanSteps {
    ULONG fromWidth;
    LONG x;
    LONG y;
};
const PanSteps kPanSteps[] = {{640, 4, 3}, {320, 2, 2}, {0, 1, 1}};

struct Window {
    LONG x0, y0, x1, y1;  // inclusive, y from the top of the picture
};

struct PanZoomState {
    ULONG signature;
    ULONG width;
    ULONG height;
    bool fTooSmall;
    LONG xStep;
    LONG yStep;
    Window window;
    // The crop and output sizes the tables were built for (0: not yet).
    ULONG tableCropWidth;
    ULONG tableCropHeight;
    ULONG tableWidth;
    ULONG tableHeight;
    // Offsets into the work area.
    SIZE_T xIndex;   // ULONG[width]
    SIZE_T yIndex;   // ULONG[height]
    SIZE_T xWeight;  // USHORT[width]
    SIZE_T yWeight;  // USHORT[height]
    SIZE_T row;      // one blended crop row, up to width * 3 bytes
    SIZE_T crop;     // up to width * height * 3 bytes
    SIZE_T end;
};

SIZE_T AlignPart(SIZE_T bytes)
{
    return (bytes + kPartAlignment - 1) & ~(kPartAlignment - 1);
}

void LayOut(PanZoomState* pState)
{
    const SIZE_T w = pState->width, h = pState->height;
    pState->xIndex = AlignPart(sizeof(PanZoomState));
    pState->yIndex = pState->xIndex + AlignPart(w * sizeof(ULONG));
    pState->xWeight = pState->yIndex + AlignPart(h * sizeof(ULONG));
    pState->yWeight = pState->xWeight + AlignPart(w * sizeof(USHORT));
    pState->row = pState->yWeight + AlignPart(h * sizeof(USHORT));
    pState->crop = pState->row + AlignPart(w * kRgbBytes);
    pState->end = pState->crop + w * h * kRgbBytes;
}

template <typename T>
T* Part(PUCHAR pWorkArea, SIZE_T offset)
{
    return reinterpret_cast<T*>(pWorkArea + offset);
}

PanZoomState* StateOf(PUCHAR pWorkArea)
{
    auto* pState = reinterpret_cast<PanZoomState*>(pWorkArea);
    return pWorkArea != nullptr && pState->signature == kStateSignature ? pState : nullptr;
}

Window WholeFrame(const PanZoomState& state)
{
    return {0, 0, static_cast<LONG>(state.width) - 1, static_cast<LONG>(state.height) - 1};
}

// The window's side at this level: between a quarter of the frame and the
// whole, made even (the window is placed as centre - side/2 + 1 to
// centre + side/2). An odd frame side stays whole at level 1: the even
// size would be one past the frame.
LONG WindowSide(ULONG frameSide, LONG level)
{
    const LONG frame = static_cast<LONG>(frameSide);
    LONG side = frame * 100 / ZoomPercent[level];
    side = side < frame / 4 ? frame / 4 : (side > frame ? frame : side);
    if (side % 2 != 0) {
        side++;
    }
    return side > frame ? frame : side;
}

// The direction slots, by the format whose picture the user sees.
struct DirectionSlots {
    ULONG left, right, up, down;
};
const DirectionSlots kRgbDirections = {SLOT_PAN_LEFT, SLOT_PAN_RIGHT, SLOT_PAN_UP, SLOT_PAN_DOWN};
const DirectionSlots kYuy2Directions = {SLOT_PAN_LEFT, SLOT_PAN_RIGHT, SLOT_PAN_DOWN, SLOT_PAN_UP};

bool IsSet(const DeviceProperty* pProperty, ULONG slot)
{
    return pProperty->Slot[slot] == kCommandSet;
}

LONG AtLeast(LONG value, LONG low)
{
    return value < low ? low : value;
}

LONG AtMost(LONG value, LONG high)
{
    return value > high ? high : value;
}

// The window after this frame's command and level, sides cw x ch.
struct Placement {
    LONG cx, cy, cw, ch, level;
    bool fReset;
};

// Only the first command set, in the order left, right, up, down, reset,
// is carried out.
void ApplyCommand(const PanZoomState& state, const DeviceProperty* pProperty, const DirectionSlots& slots,
                  Placement* pPlace)
{
    const LONG w = static_cast<LONG>(state.width), h = static_cast<LONG>(state.height);
    if (IsSet(pProperty, slots.left)) {
        pPlace->cx = AtLeast(pPlace->cx - state.xStep, pPlace->cw / 2 - 1);
    } else if (IsSet(pProperty, slots.right)) {
        pPlace->cx = AtMost(pPlace->cx + state.xStep, w - 1 - pPlace->cw / 2);
    } else if (IsSet(pProperty, slots.up)) {
        pPlace->cy = AtLeast(pPlace->cy - state.yStep, pPlace->ch / 2 - 1);
    } else if (IsSet(pProperty, slots.down)) {
        pPlace->cy = AtMost(pPlace->cy + state.yStep, h - 1 - pPlace->ch / 2);
    } else if (IsSet(pProperty, SLOT_PAN_RESET)) {
        pPlace->cx = w / 2 - 1;
        pPlace->cy = h / 2 - 1;
        pPlace->cw = w;
        pPlace->ch = h;
        pPlace->level = 1;
        pPlace->fReset = true;
    }
}

struct Edges {
    LONG left, right, up, down;
};

// The window from its centre, pushed back inside the frame at each edge it
// crosses or touches; the edges touched are reported.
Window PlaceWindow(const PanZoomState& state, const Placement& place, Edges* pEdges)
{
    const LONG w = static_cast<LONG>(state.width), h = static_cast<LONG>(state.height);
    Window window = {place.cx - place.cw / 2 + 1, place.cy - place.ch / 2 + 1, place.cx + place.cw / 2,
                     place.cy + place.ch / 2};
    if (place.level == 1) {
        window = WholeFrame(state);  // an odd frame side has no centred even window
    }
    *pEdges = {0, 0, 0, 0};
    if (window.x0 < 1) {
        window.x0 = 0, window.x1 = place.cw - 1, pEdges->left = kAtEdge;
    }
    if (window.x1 >= w - 1) {
        window.x0 = w - place.cw, window.x1 = w - 1, pEdges->right = kAtEdge;
    }
    if (window.y0 < 1) {
        window.y0 = 0, window.y1 = place.ch - 1, pEdges->up = kAtEdge;
    }
    if (window.y1 >= h - 1) {
        window.y0 = h - place.ch, window.y1 = h - 1, pEdges->down = kAtEdge;
    }
    return window;
}

void WriteBack(DeviceProperty* pProperty, const DirectionSlots& slots, const Placement& place, const Edges& edges)
{
    pProperty->Slot[SLOT_ZOOM_LEVEL] = place.level;
    pProperty->Slot[slots.left] = edges.left;
    pProperty->Slot[slots.right] = edges.right;
    pProperty->Slot[slots.up] = edges.up;
    pProperty->Slot[slots.down] = edges.down;
    if (place.fReset) {
        pProperty->Slot[SLOT_PAN_RESET] = 0;
    }
}

// Window row k (from the top of the picture) is buffer row
// height - 1 - y0 - k of the bottom-up frame.
void Crop(PUCHAR pWorkArea, const PanZoomState& state, const UCHAR* pFrame, const Window& window)
{
    const SIZE_T stride = static_cast<SIZE_T>(state.width) * kRgbBytes;
    const ULONG cw = static_cast<ULONG>(window.x1 - window.x0 + 1);
    const ULONG ch = static_cast<ULONG>(window.y1 - window.y0 + 1);
    PUCHAR pCrop = Part<UCHAR>(pWorkArea, state.crop);
    for (ULONG k = 0; k < ch; ++k) {
        const SIZE_T frameRow = state.height - 1 - static_cast<ULONG>(window.y0) - k;
        RtlCopyMemory(pCrop + static_cast<SIZE_T>(k) * cw * kRgbBytes,
                      pFrame + frameRow * stride + static_cast<SIZE_T>(window.x0) * kRgbBytes, cw * kRgbBytes);
    }
}

// index[i] = i * (crop - 1) / out and its weight in 1/128, which integer
// division makes 0.
void BuildAxis(ULONG* pIndex, USHORT* pWeight, ULONG out, ULONG crop, bool fWeights)
{
    for (ULONG i = 0; i < out; ++i) {
        const ULONGLONG scaled = static_cast<ULONGLONG>(i) * (crop - 1);
        pIndex[i] = static_cast<ULONG>(scaled / out);
        if (fWeights) {
            pWeight[i] = static_cast<USHORT>((scaled / out - pIndex[i]) * kWeightOne);
        }
    }
}

// Rebuilt when the crop or the frame size changes. A crop larger than the
// output in either direction (a window never is) rebuilds only the indexes.
void PrepareTables(PUCHAR pWorkArea, PanZoomState* pState, ULONG cw, ULONG ch)
{
    if (pState->tableCropWidth == cw && pState->tableCropHeight == ch && pState->tableWidth == pState->width &&
        pState->tableHeight == pState->height) {
        return;
    }
    const bool fWeights = cw <= pState->width && ch <= pState->height;
    BuildAxis(Part<ULONG>(pWorkArea, pState->xIndex), Part<USHORT>(pWorkArea, pState->xWeight), pState->width, cw,
              fWeights);
    BuildAxis(Part<ULONG>(pWorkArea, pState->yIndex), Part<USHORT>(pWorkArea, pState->yWeight), pState->height, ch,
              fWeights);
    pState->tableCropWidth = cw;
    pState->tableCropHeight = ch;
    pState->tableWidth = pState->width;
    pState->tableHeight = pState->height;
}

UCHAR Blend(UCHAR a, UCHAR b, LONG weight)
{
    return static_cast<UCHAR>((a * (kWeightOne - weight) + b * weight + kWeightRound) >> kWeightBits);
}

// The crop (cw x ch) enlarged to the frame: per output row, the two crop
// rows blended, then per output pixel the two crop pixels; the last row
// and column copy theirs. Output row j goes to buffer row height - 1 - j.
// A weight of 0 takes the lower row or pixel as it is, which the blend
// would give too.
void Enlarge(PUCHAR pWorkArea, const PanZoomState& state, PUCHAR pFrame, ULONG cw, ULONG ch)
{
    const ULONG* pXIndex = Part<ULONG>(pWorkArea, state.xIndex);
    const ULONG* pYIndex = Part<ULONG>(pWorkArea, state.yIndex);
    const USHORT* pXWeight = Part<USHORT>(pWorkArea, state.xWeight);
    const USHORT* pYWeight = Part<USHORT>(pWorkArea, state.yWeight);
    const UCHAR* pCrop = Part<UCHAR>(pWorkArea, state.crop);
    PUCHAR pRow = Part<UCHAR>(pWorkArea, state.row);
    const SIZE_T cropStride = static_cast<SIZE_T>(cw) * kRgbBytes;
    const SIZE_T frameStride = static_cast<SIZE_T>(state.width) * kRgbBytes;
    for (ULONG j = 0; j < state.height; ++j) {
        PUCHAR pOut = pFrame + (state.height - 1 - j) * frameStride;
        const LONG yWeight = j + 1 < state.height ? pYWeight[j] : 0;
        // Rows made from the same crop rows alike are alike: the row above
        // in the picture (the next in the buffer) is copied.
        if (j > 0 && pYIndex[j] == pYIndex[j - 1] && yWeight == pYWeight[j - 1]) {
            RtlCopyMemory(pOut, pOut + frameStride, frameStride);
            continue;
        }
        const UCHAR* pUpper = pCrop + pYIndex[j] * cropStride;
        const UCHAR* pSource = pUpper;
        if (yWeight != 0) {
            const UCHAR* pLower = pUpper + cropStride;
            for (SIZE_T k = 0; k < cropStride; ++k) {
                pRow[k] = Blend(pUpper[k], pLower[k], yWeight);
            }
            pSource = pRow;
        }
        for (ULONG i = 0; i < state.width; ++i, pOut += kRgbBytes) {
            const UCHAR* pPixel = pSource + static_cast<SIZE_T>(pXIndex[i]) * kRgbBytes;
            const LONG weight = i + 1 < state.width ? pXWeight[i] : 0;
            for (ULONG c = 0; c < kRgbBytes; ++c) {
                pOut[c] = weight != 0 ? Blend(pPixel[c], pPixel[c + kRgbBytes], weight) : pPixel[c];
            }
        }
    }
}

}  // namespace

NTSTATUS PanZoomStart(PUCHAR pWorkArea, ULONG Width, ULONG Height)
{
    if (pWorkArea == nullptr || Width == 0 || Height == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* pState = reinterpret_cast<PanZoomState*>(pWorkArea);
    RtlZeroMemory(pState, sizeof(PanZoomState));
    pState->width = Width;
    pState->height = Height;
    LayOut(pState);
    if (pState->end > PanZoomWorkAreaSize(Width, Height)) {
        return STATUS_INVALID_PARAMETER;
    }
    pState->fTooSmall = Width < kSmallestSide || Height < kSmallestSide;
    for (const PanSteps& steps : kPanSteps) {
        if (Width >= steps.fromWidth) {
            pState->xStep = steps.x;
            pState->yStep = steps.y;
            break;
        }
    }
    pState->window = WholeFrame(*pState);
    pState->signature = kStateSignature;
    return STATUS_SUCCESS;
}

void PanZoomFrame(PUCHAR pWorkArea, DeviceProperty* pProperty, PUCHAR pFrame, ULONG FourCC)
{
    PanZoomState* pState = StateOf(pWorkArea);
    if (pState == nullptr || pProperty == nullptr || pFrame == nullptr || pState->fTooSmall) {
        return;
    }
    const LONG method = pProperty->Slot[SLOT_TRACKING_METHOD] & kSettingByte;
    const LONG level = pProperty->Slot[SLOT_ZOOM_LEVEL] & kSettingByte;
    if (method > 1 || (pProperty->Slot[SLOT_ZOOM_SWITCH] & kSettingByte) == 0 || level < 1 ||
        level > kZoomLevelLargest) {
        return;
    }
    const DirectionSlots& slots = FourCC == kv::kFourccYuy2 ? kYuy2Directions : kRgbDirections;
    const Window& was = pState->window;
    Placement place = {(was.x0 + was.x1) / 2, (was.y0 + was.y1) / 2, WindowSide(pState->width, level),
                       WindowSide(pState->height, level), level, false};
    ApplyCommand(*pState, pProperty, slots, &place);
    Edges edges;
    const Window window = PlaceWindow(*pState, place, &edges);
    pState->window = window;
    WriteBack(pProperty, slots, place, edges);

    const LONG w = static_cast<LONG>(pState->width), h = static_cast<LONG>(pState->height);
    if (window.x0 < 0 || window.y0 < 0 || window.x1 > w - 1 || window.y1 > h - 1) {
        return;  // never crops outside the frame
    }
    const ULONG cw = static_cast<ULONG>(window.x1 - window.x0 + 1);
    const ULONG ch = static_cast<ULONG>(window.y1 - window.y0 + 1);
    if (cw >= pState->width && ch >= pState->height) {
        return;  // the whole frame: nothing to enlarge
    }
    Crop(pWorkArea, *pState, pFrame, window);
    PrepareTables(pWorkArea, pState, cw, ch);
    Enlarge(pWorkArea, *pState, pFrame, cw, ch);
}
