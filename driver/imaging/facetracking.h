// Face tracking: while the tracking method is 2, a digital camera move
// follows the user's face. Every tenth frame the face detector looks for a
// face; a zoom that makes the face fill a set share of the picture and a
// centre on the face become the target, and the frames between glide the
// shown part of the picture towards it. A small copy of the whole scene,
// with the followed face boxed in yellow, may be laid into the lower right
// corner. Frames are bottom-up RGB (rows of Width * 3 bytes).
//
// The state belongs to one stream (the frame loop's), so it needs no lock:
// only the stream's frame thread uses it between start and stop.
#pragma once
#include "imaging/facedetect.h"
#include "wdk.h"

struct FaceTracker;

// At the pin's pause-to-run: the state, the detector and its cascade stages
// for the detector mode (the "TrackingFocus" value: 0, 1 or 2; any other
// value is taken as 2). Nothing happens while a state exists. On failure
// *ppTracker stays null and frames pass unchanged.
NTSTATUS FaceTrackStart(FaceTracker** ppTracker, ULONG Width, ULONG Height, ULONG DetectorMode);

// One frame: pSource is an untouched copy of the frame (the face box is
// drawn into it for the thumbnail), pFrame receives the output. A divisor of
// 0 means no thumbnail. With no state, or when a detection finds no memory
// for its search, pFrame is left as it is (and the next frame starts again
// from the whole picture).
void FaceTrackFrame(FaceTracker* pTracker, PUCHAR pSource, PUCHAR pFrame, ULONG Width, ULONG Height,
                    ULONG WindowDivisor);

// The end of every frame of the stream: a frame FaceTrackFrame did not
// handle (another tracking method, a frame that never reached the picture
// stages) makes the next tracked frame start again from the whole picture.
void FaceTrackEndFrame(FaceTracker* pTracker);

// The part of the frame shown now: its centre (stored rows, bottom-up) and
// the zoom (1.0: the whole frame). Zoom 1.0 at (0, 0) before the first
// tracked frame and when there is no state.
void FaceTrackShownPart(const FaceTracker* pTracker, double* pCentreX, double* pCentreY, double* pZoom);

// At run-to-pause: frees everything and clears the pointer.
void FaceTrackStop(FaceTracker*& pTracker);

// What a detection frame of the detector mode does, for tools and tests:
// the search the mode sets a detector up with, and the searches it runs
// on one frame (the list begun afresh; the faces left in the detector;
// STATUS_SUCCESS, or the status of the search that failed, after which
// no further search runs).
kv::FaceSearch FaceTrackSearch(ULONG DetectorMode);
NTSTATUS FaceTrackDetect(kv::FaceDetector* pDetector, ULONG DetectorMode, const UCHAR* pFrame, ULONG Width,
                         ULONG Height);

// True when the centres lie within distancePercent of the larger size of
// each other (compared as squares) and the smaller size grown by
// sizePercent reaches the larger.
bool SameFace(double x1, double y1, double size1, double x2, double y2, double size2, double distancePercent,
              double sizePercent);
