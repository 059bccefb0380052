// The frame-processing loop: the body of the capture pin's system thread.
// It takes each finished frame from the transfer engine, drops bad and
// start-up frames, turns the frame into the pin's output format, runs the
// image stages the settings ask for in their fixed order, copies the result
// into the leading-edge stream pointer (of the still pin when a still is
// due) and fills the stream header.
#pragma once
#include "wdk.h"
#include "imaging/effects.h"
#include "imaging/facetracking.h"
#include "imaging/photoframes.h"

class CCaptureDevice;
struct CapturePinContext;

class FrameLoop {
public:
    FrameLoop();
    ~FrameLoop();
    FrameLoop(const FrameLoop&) = delete;
    FrameLoop& operator=(const FrameLoop&) = delete;

    // Stream start: delivered frames, the drop count and the picture number.
    void ResetCounters();

    // The thread's work until streaming stops.
    static void ProcessFrame(CCaptureDevice* pDevice, CapturePinContext* pContext);

    ULONG m_FramesDelivered;
    volatile LONG m_DropCount;
    LONGLONG m_PictureNumber;
    LONGLONG m_FirstTime;
    LONGLONG m_LastTime;
    UCHAR m_FirstTimeSet;  // this stream's first time was read
    ULONG m_SkipCounter;
    UCHAR m_DecodeResult;
    UCHAR m_FrameSeen;
    // Why frames went undelivered since the stream started (for a
    // debugger and the developer's tools): a bad frame from the engine, a
    // JPEG frame the decoder refused (or without its start marker), a frame
    // that found no client buffer queued.
    ULONG m_BadFrames;
    ULONG m_JpegFailures;
    ULONG m_NoBufferFrames;
    // The special effects' animation and grid, for this stream alone.
    EffectState m_Effects;
    // The photo-frame and countdown overlays of the running stream.
    PhotoFrameState m_PhotoFrames;
    // Face tracking's state for this stream, from the pin's pause-to-run to
    // its run-to-pause (null: tracking leaves frames alone).
    FaceTracker* m_pFaceTracker;
};
