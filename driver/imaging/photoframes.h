// Photo frames, the self-timer's countdown pictures and the snapshot file.
//
// Overlays come from 24-bit bitmap files: the photo frame chosen by
// "SpecialFrameNo" (1..7 the driver's own "1_640_480.bmp".."7_640_480.bmp"
// under "\SystemRoot\", 8..11 the user's own, whose full paths the registry
// keeps as "CustomerFrame1".."CustomerFrame4"), and the countdown picture
// "VGA1.bmp".."VGA10.bmp" of the self-timer's remaining count. Black pixels
// of an overlay are transparent. A snapshot writes the processed frame as
// "\SystemRoot\snapshot.bmp".
//
// Files are read at PASSIVE_LEVEL (the frame thread and the button's work
// item). A file that cannot be read, or whose header does not describe
// pixels the file holds, loads as all black: the picture shows unchanged.
#pragma once
#include "wdk.h"

// LoadFrameBitmap's modes: read and fit into the destination, or only
// check that the file is there and readable (the button's stepping).
enum : ULONG {
    FRAME_LOAD_INTO = 0,
    FRAME_LOAD_CHECK_ONLY = 1,
};

// The bitmap files as this driver reads and writes them: a 54-byte header,
// then bottom-up rows of exactly width x 3 bytes.
constexpr ULONG BITMAP_HEADER_SIZE = 54;
constexpr ULONG BITMAP_WIDTH_OFFSET = 18;
constexpr ULONG BITMAP_HEIGHT_OFFSET = 22;

// The overlays of one stream: the buffers (allocated on first use, sized to
// the largest frame the camera offers) and what each holds.
struct PhotoFrameState {
    SIZE_T BufferBytes;          // each buffer's size
    PUCHAR pFrameOverlay;        // "KVMI"
    ULONG FrameNumber;           // what pFrameOverlay holds
    ULONG FrameWidth;
    ULONG FrameHeight;
    PUCHAR pCountdownOverlay;    // "KVMI"
    LONG CountdownNumber;        // what pCountdownOverlay holds
    ULONG CountdownWidth;
};

// Stream start: no buffers yet; each will hold BufferBytes.
void InitPhotoFrameState(PhotoFrameState* pState, SIZE_T BufferBytes);
// Streaming ends: both buffers freed (a second call is harmless).
void ReleasePhotoFrames(PhotoFrameState* pState);

// Reads photo frame `FrameNumber` (1..11) and fits it to Width x Height into
// pDestination (FRAME_LOAD_INTO), or only reads it (FRAME_LOAD_CHECK_ONLY).
// A file neither 640 wide nor 480 high is refused.
NTSTATUS LoadFrameBitmap(ULONG FrameNumber, ULONG Width, ULONG Height, ULONG Mode, PUCHAR pDestination);
// "\SystemRoot\" + pName, read and fitted to Width x Height, any size.
NTSTATUS LoadBitmapFile(PCWSTR pName, ULONG Width, ULONG Height, PUCHAR pDestination);
// Every overlay pixel that is not pure black replaces the frame's.
void OverlayKeyed(ULONG Width, ULONG Height, const UCHAR* pOverlay, PUCHAR pFrame);

// The per-frame calls (RGB frame, bottom-up). *pReload set: the user changed
// a frame's file name, so the picture is read again; the flag is cleared.
NTSTATUS ApplyPhotoFrame(PhotoFrameState* pState, ULONG FrameNumber, ULONG Width, ULONG Height, PUCHAR pFrame,
                         PULONG pReload);
NTSTATUS ApplyCountdownPicture(PhotoFrameState* pState, LONG Count, ULONG Width, ULONG Height, PUCHAR pFrame);

// "\SystemRoot\snapshot.bmp" from the frame as it stands.
NTSTATUS SaveSnapshot(const UCHAR* pFrame, ULONG Width, ULONG Height);
// "\SystemRoot\" + pName: the 54-byte header, then width x height x 3 bytes.
NTSTATUS WriteBitmapFile(PCWSTR pName, const UCHAR* pPixels, ULONG Width, ULONG Height);
