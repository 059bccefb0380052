// The picture stages of an uncompressed frame, in the frame loop's fixed
// order: dead-pixel correction, flip and mirror, the YUY2 effects, the turn
// into bottom-up RGB, the RGB effects and the photo frame, pan and zoom or
// face tracking, the countdown picture, rotation. The frame loop runs them on
// every frame it delivers; kvcam's picture preview runs the same routine on
// a picture file, so that a preview shows exactly what a stream would.
#pragma once
#include "wdk.h"

struct DeadPixelState;
struct DeviceProperty;
struct EffectState;
struct FaceTracker;
struct PhotoFrameState;

// Effects and face tracking run on frames up to this width.
constexpr ULONG kMaxProcessingWidth = 1280;
// The tracking methods ("TrackingMethod"): digital pan and zoom, face tracking.
constexpr ULONG kTrackingPanZoom = 1;
constexpr ULONG kTrackingFace = 2;

// The settings a frame's stages read, taken once per frame.
struct Stages {
    bool effectsOn;   // the software-effects switch: RGB effects and photo frames
    LONG effect;
    LONG photoFrame;
    ULONG tracking;   // 1 pan and zoom, 2 face tracking
    LONG countdown;   // the self-timer's remaining seconds (-1: none)
    LONG rotate;      // quarter turns
    bool flip;
    bool mirror;
    bool deadPixel;
};

// What the stages work on and keep between frames.
struct StageContext {
    ULONG Width;
    ULONG Height;
    PUCHAR pA;  // the frame: YUY2 in, YUY2 or bottom-up RGB out (width x height x 3 bytes)
    PUCHAR pB;  // the second work buffer, as large
    EffectState* pEffects;
    PhotoFrameState* pPhotoFrames;
    DeadPixelState* pDeadPixels;
    ULONG DeadPixelPhase;    // which band is searched (frames delivered mod 4)
    PUCHAR pPanZoomWork;     // null for frames too wide for pan and zoom
    FaceTracker* pFaceTracker;  // null: no face tracking this stream
    DeviceProperty* pProperty;
    PULONG pFrameReload;     // the user changed a frame's file: read it again
    ULONG TrackingWindowSize;
    bool ShowCountdown;      // a still pin is open, or the countdown is always shown
    // Raised where the still event belongs in the order (null: none).
    void (*pfnStillEvent)(PVOID pContext);
    PVOID pStillEventContext;
};

// Whether any stage on the RGB frame is asked for.
bool NeedsRgbStages(const Stages& s);

// The frame in c.pA (YUY2) through every stage. rgbOutput: the client wants
// RGB, so the frame is turned into RGB whatever the stages. Returns whether
// c.pA now holds the bottom-up RGB frame (else it is still YUY2).
bool RunPictureStages(const Stages& s, StageContext& c, bool rgbOutput);
