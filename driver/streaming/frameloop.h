// The frame-processing loop: the body of the capture pin's system thread.
// It takes each finished frame from the transfer engine, drops bad and
// start-up frames, turns the frame into the pin's output format, runs the
// image stages the settings ask for in their fixed order, copies the result
// into the leading-edge stream pointer (of the still pin when a still is
// due) and fills the stream header.
#pragma once
#include "wdk.h"

class CCaptureDevice;
struct CapturePinContext;

class FrameLoop {
public:
    FrameLoop();
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
    ULONG m_SkipCounter;
    UCHAR m_DecodeResult;
    UCHAR m_FrameSeen;
};
