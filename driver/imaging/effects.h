// The special effects: the driver's own per-frame picture operations chosen
// by the SpecialEffectNo setting, and the bilinear resize they share with
// the photo-frame loader. Effects 3, 16 and 17 work on the camera's YUY2
// frame before conversion; every other nonzero effect works on the 24-bit
// RGB frame (B, G, R, rows packed, stride width * 3) after it.
//
// Everything an effect keeps between frames (the picture grid, the zoom
// animation, the brush strokes' random sequence) lives in one EffectState
// per stream, so two cameras streaming at once each animate on their own.
// Only the stream's frame thread touches its state, so it is not locked.
#pragma once
#include "wdk.h"

// The state of one stream's effects. InitEffectState sets it up; effect 0
// releases what it holds.
struct EffectState {
    // Effect 4, the 3 x 3 picture grid: the grid as shown and the reduced
    // copy of the latest frame, both m_GridBytes long (sized to the frame),
    // the width the grid was built for, the cell the next capture fills and
    // the frames since the last capture.
    PUCHAR m_pGrid;
    PUCHAR m_pTile;
    SIZE_T m_GridBytes;
    ULONG m_GridWidth;
    ULONG m_GridCell;
    ULONG m_GridCounter;

    // Effect 13, the zoom animation: the source rectangle (inclusive pixel
    // bounds), the frame size it was set up for, the phase (0 vertical, 1
    // horizontal) and per phase whether the rectangle is growing and whether
    // it has grown back once since it last shrank.
    LONG m_ZoomX0;
    LONG m_ZoomY0;
    LONG m_ZoomX1;
    LONG m_ZoomY1;
    ULONG m_ZoomWidth;
    ULONG m_ZoomHeight;
    ULONG m_ZoomPhase;
    UCHAR m_fZoomWidening[2];
    UCHAR m_fZoomWidenedOnce[2];

    // EffectRandom's multiply-with-carry state.
    ULONG m_RandomState;
    ULONG m_RandomCarry;
};

// The initial state: no grid buffers, nothing recorded, the random
// sequence at its start.
void InitEffectState(EffectState* pState);

// The effects that work on YUY2 frames; every other nonzero effect works on
// the RGB frame.
constexpr bool IsYuy2Effect(ULONG Effect) { return Effect == 17 || Effect == 3 || Effect == 16; }

// Applies effect `Effect` to a Width x Height frame.
//  - RGB effects (1, 2, 4..15): pFrame is the RGB frame, changed in place;
//    pWork is not used. Effects 5, 9 and 13 take a scratch copy for the
//    call; when it cannot be allocated the frame stays as it is.
//  - YUY2 effects: pWork is the YUY2 working frame. Effects 3 and 16 change
//    it in place; effect 17 builds its result in pFrame (the caller's
//    output buffer, Width * Height * 2 bytes) and copies it back into pWork.
//  - Effect 0 frees the picture grid's buffers (the frame loop calls it so
//    when streaming ends); numbers above 17 do nothing.
// A frame with a zero or absurd side, or a missing buffer, is left alone.
void ApplySpecialEffect(EffectState* pState, ULONG Effect, ULONG Width, ULONG Height, PUCHAR pFrame, PUCHAR pWork);

// The source of ResizeBilinear: the rectangle X0..X1, Y0..Y1 (inclusive)
// of a picture Width pixels apart row to row and Height rows high.
struct ResizeSource {
    const UCHAR* pPixels;
    ULONG Width;
    ULONG Height;
    LONG X0;
    LONG Y0;
    LONG X1;
    LONG Y1;
};

// The destination of ResizeBilinear: the whole of a packed picture.
struct ResizeDestination {
    PUCHAR pPixels;
    ULONG Width;
    ULONG Height;
};

// Scales the source rectangle onto the whole destination, 1 to 4 bytes a
// pixel, with 10-bit fixed-point bilinear weights. Near the last row or
// column of an enlargement the weights extrapolate; each byte keeps the low
// 8 bits of its sum, as the rule has it.
// A rectangle outside the source, an empty picture or a reduction beyond
// 1024 to 1 does nothing.
void ResizeBilinear(const ResizeSource* pSource, const ResizeDestination* pDestination, ULONG BytesPerPixel);
// Whether ResizeBilinear takes these pictures (else it writes nothing).
bool ResizeBilinearAccepts(const ResizeSource* pSource, const ResizeDestination* pDestination, ULONG BytesPerPixel);

// The brush strokes' pseudo-random numbers: 20 bits (0..0xFFFFF) from a
// multiply-with-carry generator in pState.
ULONG EffectRandom(EffectState* pState);
