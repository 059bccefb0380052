// The face detector of face tracking: the stored frontal-face cascade run
// over a pyramid of reduced grey copies of the RGB frame, its hits grouped
// into faces. One detector per stream, used by the frame thread alone.
//
// A picture is searched once per detection: BeginFacePicture forgets the
// last picture's faces; each DetectFaces then searches the pyramid's levels
// for faces of at least the current minimum size, reusing the levels an
// earlier call already searched on the same picture, and adds the faces it
// groups to the list. Faces are squares in the picture as shown (rows
// counted from the top), in frame pixels.
#pragma once
#include "wdk.h"

namespace kv {

struct FaceBox {
    LONG x;     // the square's left column and top row, as shown
    LONG y;
    LONG size;
    LONG hits;  // the windows the cascade accepted around it
};

// How a detector searches.
struct FaceSearch {
    LONG columnStep;      // pixels between window positions along a row, at levels of faces
                          // twice the cascade's window or larger (below: the larger of the two steps)
    LONG rowStep;         // and between the rows of positions
    LONG minHits;         // a face needs more hits than this
    double minSize;       // the smallest face looked for, in frame pixels
    double maxSizePercent;// the largest, as a share of the frame's shorter side
};

struct FaceDetector;

// The detector with the cascade's stages built (memory: tag "KVMI").
// STATUS_INSUFFICIENT_RESOURCES when the pool has no room.
NTSTATUS CreateFaceDetector(FaceDetector** ppDetector, const FaceSearch& search);
void FreeFaceDetector(FaceDetector*& pDetector);

void SetFaceMinSize(FaceDetector* pDetector, double minSize);
void BeginFacePicture(FaceDetector* pDetector);

// Searches the bottom-up RGB frame (rows of Width * 3 bytes) and adds the
// faces found to the list. A failure (no memory for the pyramid, a frame too
// small for the cascade) leaves the list as it was.
NTSTATUS DetectFaces(FaceDetector* pDetector, const UCHAR* pFrame, ULONG Width, ULONG Height);

LONG FaceCount(const FaceDetector* pDetector);
const FaceBox* Faces(const FaceDetector* pDetector);

}  // namespace kv
