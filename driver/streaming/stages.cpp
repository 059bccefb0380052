// The picture stages of an uncompressed frame, in their fixed order.
#include "streaming/stages.h"

#include "controls/settings.h"
#include "imaging/deadpixel.h"
#include "imaging/effects.h"
#include "imaging/facetracking.h"
#include "imaging/panzoom.h"
#include "imaging/photoframes.h"
#include "imaging/primitives.h"

using namespace kv;

namespace {

// Dead-pixel correction's fixed arguments: the neighbourhood margin, and
// luma (not chroma) samples.
constexpr ULONG kDeadPixelMargin = 12;
constexpr ULONG kDeadPixelChroma = 0;

void StillEvent(const StageContext& c)
{
    if (c.pfnStillEvent != nullptr) {
        c.pfnStillEvent(c.pStillEventContext);
    }
}

// The YUY2 reflection writes its result into a frame-sized buffer before it
// copies it back into A: B, which is free at that stage. (The client's
// buffer would serve for a capture frame, but a still's may be smaller.)
void Yuy2Effect(const Stages& s, StageContext& c)
{
    if (c.Width <= kMaxProcessingWidth && IsYuy2Effect(static_cast<ULONG>(s.effect))) {
        ApplySpecialEffect(c.pEffects, static_cast<ULONG>(s.effect), c.Width, c.Height, c.pB, c.pA);
    }
}

// A (YUY2) into bottom-up RGB.
void ToRgb(StageContext& c)
{
    RtlCopyMemory(c.pB, c.pA, c.Width * c.Height * 2);
    Yuy2ToRgb24(c.pB, c.Width * 2, c.pA, c.Width * 3, c.Width, c.Height);
    MirrorInPlace(c.pA, static_cast<LONG>(c.Width * 3), c.Width, c.Height, kMirrorAxisRows);
}

// Effects, photo frame, tracking, countdown and rotation on the RGB frame.
void RgbStages(const Stages& s, StageContext& c)
{
    const ULONG rgbSize = c.Width * c.Height * 3;
    if (s.effectsOn) {
        if (c.Width <= kMaxProcessingWidth && s.effect != 0 && !IsYuy2Effect(static_cast<ULONG>(s.effect))) {
            ApplySpecialEffect(c.pEffects, static_cast<ULONG>(s.effect), c.Width, c.Height, c.pA, nullptr);
        }
        if (s.photoFrame != 0) {
            ApplyPhotoFrame(c.pPhotoFrames, static_cast<ULONG>(s.photoFrame), c.Width, c.Height, c.pA,
                            c.pFrameReload);
        }
    }
    if (s.tracking != 0) {
        RtlCopyMemory(c.pB, c.pA, rgbSize);
        if (s.tracking == kTrackingPanZoom) {
            // Wider frames have no work area.
            if (c.pPanZoomWork != nullptr && c.pProperty != nullptr) {
                PanZoomFrame(c.pPanZoomWork, c.pProperty, c.pA, kPanZoomRgbFrame);
            }
        } else if (s.tracking == kTrackingFace) {
            FaceTrackFrame(c.pFaceTracker, c.pB, c.pA, c.Width, c.Height, c.TrackingWindowSize);
        }
    }
    if (s.countdown > 0 && c.ShowCountdown) {
        ApplyCountdownPicture(c.pPhotoFrames, s.countdown, c.Width, c.Height, c.pA);
    }
    if (s.rotate != 0) {
        RtlCopyMemory(c.pB, c.pA, rgbSize);
        RotateFrame(s.rotate, c.Width, c.Height, c.pA, c.pB);
    }
}

}  // namespace

bool NeedsRgbStages(const Stages& s)
{
    return (s.effectsOn && (s.photoFrame != 0 || s.effect != 0)) || s.tracking != 0 || s.countdown > 0 ||
           s.rotate != 0;
}

bool RunPictureStages(const Stages& s, StageContext& c, bool rgbOutput)
{
    if (s.deadPixel && c.pDeadPixels != nullptr) {
        CorrectDeadPixels(c.pA, c.pDeadPixels, c.Width, c.Height, c.DeadPixelPhase, kDeadPixelMargin,
                          kDeadPixelChroma);
    }
    bool isRgb = false;
    if (!rgbOutput) {
        StillEvent(c);
        if (s.flip || s.mirror) {
            RtlCopyMemory(c.pB, c.pA, c.Width * c.Height * 2);
            FlipMirrorYuy2(c.pB, c.pA, c.Width, c.Height, s.flip, s.mirror);
        }
        Yuy2Effect(s, c);
        if (NeedsRgbStages(s)) {
            ToRgb(c);
            isRgb = true;
        }
    } else {
        Yuy2Effect(s, c);
        ToRgb(c);
        isRgb = true;
        StillEvent(c);
        if (s.flip || s.mirror) {
            RtlCopyMemory(c.pB, c.pA, c.Width * c.Height * 3);
            FlipMirrorRgb(c.pB, c.pA, c.Width, c.Height, s.flip, s.mirror);
        }
    }
    if (isRgb) {
        RgbStages(s, c);
    }
    return isRgb;
}
