// Face tracking (facetracking.h): the glide towards the last detection's
// target, the choice of the target, the output by Resize, and the thumbnail.
// Coordinates here are the frame's own: rows bottom-up, as stored.
#include "imaging/facetracking.h"

#include "imaging/facedetect.h"
#include "imaging/primitives.h"

using namespace kv;

namespace {

constexpr ULONG kDetectionPeriod = 10;      // frames from one detection to the next
constexpr double kSmoothing = 100.0;        // a glide covers 1/100 of the way a frame
constexpr double kFaceShare = 1.3;          // the shown half width is 1.3 face sizes
constexpr double kStillDistance = 10.0;     // percent: a face this close keeps the picture still
constexpr double kStillSize = 2.0;
constexpr double kMatchDistance = 50.0;     // percent: the same face in two detections
constexpr double kMatchSize = 5.0;
constexpr double kLargerFaces = 40.0;       // detector mode 2 searches again from 40 pixels
constexpr ULONG kBoxThicknessDivisor = 64;  // the face box's lines are W / 64 thick
constexpr ULONG kRgbBytes = 3;
constexpr ULONG kSearchTwiceMode = 2;

// The detector's set-up by mode ("TrackingFocus").
struct DetectorSetup {
    LONG columnStep;  // pixels between window positions along a row (FaceSearch)
    LONG rowStep;     // and between their rows
    LONG minHits;     // a face needs more hits than this
    double minSize;   // frame pixels
    double maxSize;   // percent of the frame's shorter side
};

const DetectorSetup kDetectorModes[] = {
    {1, 2, 2, 15.0, 100.0},  // 0: smaller faces too
    {1, 2, 3, 20.0, 100.0},  // 1: fewer false faces
    {1, 2, 2, 20.0, 100.0},  // 2: faces from 20, then again from 40 pixels
};
constexpr ULONG kDefaultMode = 2;

}  // namespace

struct FaceTracker {
    ULONG mode;
    ULONG width, height;
    ULONG frameCount;
    bool previousHandled;
    bool handledNow;  // FaceTrackFrame handled the frame in hand
    double centreX, centreY, zoom;
    LONG targetX, targetY;
    double targetZoom;
    double stepX, stepY, stepZoom;
    // The face followed since the last detection (its centre, as stored).
    bool following;
    LONG faceX, faceY, faceSize;
    FaceDetector* pDetector;
    UCHAR* pResizeWork;
};

namespace {

LONG Round(double v)
{
    return static_cast<LONG>(v >= 0 ? v + 0.5 : v - 0.5);
}

bool AllocResizeWork(FaceTracker* p, ULONG Width, ULONG Height)
{
    FreeImageBuffer(p->pResizeWork);
    const ImageRect whole = {0, 0, static_cast<LONG>(Width), static_cast<LONG>(Height)};
    LONG bytes = 0;
    if (!NT_SUCCESS(ResizeBufferSize(whole, whole, kRgbBytes, kInterpolationBilinear, &bytes))) {
        return false;
    }
    p->pResizeWork = static_cast<UCHAR*>(AllocImageBuffer(static_cast<SIZE_T>(bytes)));
    p->width = Width;
    p->height = Height;
    return p->pResizeWork != nullptr;
}

void ShowWholePicture(FaceTracker* p)
{
    p->centreX = p->width / 2.0;
    p->centreY = p->height / 2.0;
    p->zoom = 1.0;
}

// The face to follow: the one that matches the face followed so far, else
// the largest (the nearest to the camera). Its centre in stored rows.
bool FindTrackedFace(FaceTracker* p, LONG* pX, LONG* pY, LONG* pSize)
{
    const LONG n = FaceCount(p->pDetector);
    const FaceBox* pFaces = Faces(p->pDetector);
    LONG best = -1;
    bool bestMatches = false;
    for (LONG i = 0; i < n; ++i) {
        const LONG x = pFaces[i].x + pFaces[i].size / 2;
        const LONG y = static_cast<LONG>(p->height) - (pFaces[i].y + pFaces[i].size / 2);
        const bool matches = p->following && SameFace(p->faceX, p->faceY, p->faceSize, x, y, pFaces[i].size,
                                                      kMatchDistance, kMatchSize);
        if (best < 0 || (matches && !bestMatches) ||
            (matches == bestMatches && pFaces[i].size > pFaces[best].size)) {
            best = i;
            bestMatches = matches;
            *pX = x;
            *pY = y;
            *pSize = pFaces[i].size;
        }
    }
    return best >= 0;
}

ULONG KnownMode(ULONG mode)
{
    return mode < sizeof(kDetectorModes) / sizeof(kDetectorModes[0]) ? mode : kDefaultMode;
}

// A target centre whose shown part (hw, hh either way) would leave the
// frame is pushed inwards.
LONG PushInside(LONG centre, LONG half, LONG side)
{
    if (centre + half >= side) {
        centre = side - half;
    }
    if (centre - half < 1) {
        centre = half;
    }
    return centre;
}

// False when the search failed (no memory for it): the target is left as
// it was.
bool ChooseTarget(FaceTracker* p, const UCHAR* pSource)
{
    const LONG W = static_cast<LONG>(p->width), H = static_cast<LONG>(p->height);
    if (!NT_SUCCESS(FaceTrackDetect(p->pDetector, p->mode, pSource, p->width, p->height))) {
        return false;
    }
    LONG x = 0, y = 0, size = 0;
    p->following = FindTrackedFace(p, &x, &y, &size);
    if (!p->following) {
        p->targetX = W / 2;
        p->targetY = H / 2;
        p->stepZoom = (1.0 - p->zoom) / kSmoothing;
    } else {
        p->faceX = x, p->faceY = y, p->faceSize = size;
        double zoom = (W / 2.0) / (size * kFaceShare);
        const LONG hw = Round((W / 2.0) / zoom), hh = Round((H / 2.0) / zoom);
        // The picture holds still while the face's centre stays within a
        // tenth of the new half width of the current centre: both sizes are
        // that half width (with the face's own size against it, 1.3 times
        // larger, the 2 % size test could never hold).
        if (SameFace(p->centreX, p->centreY, hw, x, y, hw, kStillDistance, kStillSize)) {
            p->targetX = Round(p->centreX);
            p->targetY = Round(p->centreY);
        } else if (zoom <= 1.0) {
            zoom = 1.0;
            p->targetX = W / 2;
            p->targetY = H / 2;
        } else {
            p->targetX = PushInside(x, hw, W);
            p->targetY = PushInside(y, hh, H);
        }
        p->targetZoom = zoom;
        p->stepZoom = (zoom - p->zoom) / kSmoothing;
    }
    p->stepX = (p->targetX - p->centreX) / kSmoothing;
    p->stepY = (p->targetY - p->centreY) / kSmoothing;
    return true;
}

void Glide(FaceTracker* p)
{
    p->centreX += p->stepX;
    p->centreY += p->stepY;
    p->zoom += p->stepZoom;
    if (p->zoom <= 1.0) {
        ShowWholePicture(p);
    } else if (p->stepZoom > 0 && p->zoom > p->targetZoom) {
        p->zoom = p->targetZoom;
    }
}

// The shown part enlarged to the whole frame: destination pixel i shows
// source point centre + (i - W/2) / zoom. The shift of -(centre x zoom -
// W/2) output pixels is, in the source pixels Resize takes it in,
// centre - (W/2) / zoom.
LONG ShowPart(const FaceTracker* p, const UCHAR* pSource, PUCHAR pFrame)
{
    const LONG W = static_cast<LONG>(p->width), H = static_cast<LONG>(p->height);
    const ImageRect whole = {0, 0, W, H};
    const LONG step = W * static_cast<LONG>(kRgbBytes);
    return Resize(pSource, ImageSize{W, H}, step, whole, pFrame, step, whole, p->zoom, p->zoom,
           p->centreX - (W / 2.0) / p->zoom, p->centreY - (H / 2.0) / p->zoom, kInterpolationBilinear,
           p->pResizeWork);
}

void DrawBox(const FaceTracker* p, PUCHAR pSource)
{
    const LONG W = static_cast<LONG>(p->width), H = static_cast<LONG>(p->height), s = p->faceSize;
    const LONG t = W / static_cast<LONG>(kBoxThicknessDivisor) > 1 ? W / static_cast<LONG>(kBoxThicknessDivisor) : 1;
    LONG x0 = p->faceX - s / 2 > 0 ? p->faceX - s / 2 : 0;
    LONG y0 = p->faceY - s / 2 > 0 ? p->faceY - s / 2 : 0;
    x0 = x0 + s > W ? W - s : x0;
    y0 = y0 + s > H ? H - s : y0;
    x0 = x0 > 0 ? x0 : 0;
    y0 = y0 > 0 ? y0 : 0;
    const LONG x1 = x0 + s < W - t ? x0 + s : W - t;
    const LONG y1 = y0 + s < H - t ? y0 + s : H - t;
    auto paint = [&](LONG x, LONG y) {
        if (x >= 0 && x < W && y >= 0 && y < H) {
            UCHAR* pPixel = pSource + (static_cast<SIZE_T>(y) * W + x) * kRgbBytes;
            pPixel[0] = 0;  // yellow: no blue, full green and red
            pPixel[1] = 255;
            pPixel[2] = 255;
        }
    };
    for (LONG k = 0; k < t; ++k) {
        for (LONG x = x0; x < x1; ++x) {
            paint(x, y1 - k);
            paint(x, y0 + k);
        }
        for (LONG y = y0; y < y1; ++y) {
            paint(x0 + k, y);
            paint(x1 - k, y);
        }
    }
}

// The whole scene reduced by the divisor into the lower right corner as
// the picture is shown. Shown top-down, the bottom-up frame's lower right
// corner is its first rows' right end.
void DrawThumbnail(const FaceTracker* p, const UCHAR* pSource, PUCHAR pFrame, ULONG divisor)
{
    const LONG W = static_cast<LONG>(p->width), H = static_cast<LONG>(p->height);
    const LONG w = W / static_cast<LONG>(divisor), h = H / static_cast<LONG>(divisor);
    if (w == 0 || h == 0) {
        return;
    }
    const ImageRect whole = {0, 0, W, H};
    const ImageRect corner = {(static_cast<LONG>(divisor) - 1) * W / static_cast<LONG>(divisor), 0, w, h};
    const double xFactor = static_cast<double>(w) / W, yFactor = static_cast<double>(h) / H;
    const LONG step = W * static_cast<LONG>(kRgbBytes);
    Resize(pSource, ImageSize{W, H}, step, whole, pFrame, step, corner, xFactor, yFactor, 0.5 / xFactor - 0.5,
           0.5 / yFactor - 0.5, kInterpolationBilinear, p->pResizeWork);
}

}  // namespace

FaceSearch FaceTrackSearch(ULONG DetectorMode)
{
    const DetectorSetup& setup = kDetectorModes[KnownMode(DetectorMode)];
    return {setup.columnStep, setup.rowStep, setup.minHits, setup.minSize, setup.maxSize};
}

NTSTATUS FaceTrackDetect(FaceDetector* pDetector, ULONG DetectorMode, const UCHAR* pFrame, ULONG Width,
                         ULONG Height)
{
    const ULONG mode = KnownMode(DetectorMode);
    BeginFacePicture(pDetector);
    SetFaceMinSize(pDetector, kDetectorModes[mode].minSize);
    NTSTATUS status = DetectFaces(pDetector, pFrame, Width, Height);
    if (NT_SUCCESS(status) && mode == kSearchTwiceMode) {
        SetFaceMinSize(pDetector, kLargerFaces);
        status = DetectFaces(pDetector, pFrame, Width, Height);
    }
    return status;
}

bool SameFace(double x1, double y1, double size1, double x2, double y2, double size2, double distancePercent,
              double sizePercent)
{
    const double larger = size1 > size2 ? size1 : size2;
    const double smaller = size1 > size2 ? size2 : size1;
    const double reach = larger * distancePercent / 100.0;
    const double dx = x1 - x2, dy = y1 - y2;
    return dx * dx + dy * dy <= reach * reach && smaller * (1.0 + sizePercent / 100.0) >= larger;
}

NTSTATUS FaceTrackStart(FaceTracker** ppTracker, ULONG Width, ULONG Height, ULONG DetectorMode)
{
    if (ppTracker == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (*ppTracker != nullptr) {
        return STATUS_SUCCESS;
    }
    auto* p = static_cast<FaceTracker*>(AllocImageBuffer(sizeof(FaceTracker)));
    if (p == nullptr) {
        DbgPrint("FaceTracking: Memory allocating fail, exit.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(p, sizeof(FaceTracker));
    p->mode = KnownMode(DetectorMode);
    NTSTATUS status = CreateFaceDetector(&p->pDetector, FaceTrackSearch(p->mode));
    if (NT_SUCCESS(status) && !AllocResizeWork(p, Width, Height)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(status)) {
        if (status == STATUS_INSUFFICIENT_RESOURCES) {
            DbgPrint("FaceTracking: Memory allocating fail, exit.\n");
        }
        FaceTrackStop(p);
        return status;
    }
    p->previousHandled = false;
    *ppTracker = p;
    return STATUS_SUCCESS;
}

void FaceTrackFrame(FaceTracker* pTracker, PUCHAR pSource, PUCHAR pFrame, ULONG Width, ULONG Height,
                    ULONG WindowDivisor)
{
    FaceTracker* p = pTracker;
    if (p == nullptr || pSource == nullptr || pFrame == nullptr || Width == 0 || Height == 0) {
        return;
    }
    if (Width != p->width || Height != p->height) {
        // Another frame size: start again on it.
        if (!AllocResizeWork(p, Width, Height)) {
            DbgPrint("FaceTracking: Memory allocating fail, exit.\n");
            p->width = p->height = 0;
            return;
        }
        p->frameCount = 0;
    }
    if (p->frameCount == 0 || !p->previousHandled) {
        ShowWholePicture(p);
        p->frameCount = 0;
        p->following = false;
    }
    p->previousHandled = true;
    if (p->frameCount % kDetectionPeriod != 0) {
        Glide(p);
    } else if (!ChooseTarget(p, pSource)) {
        // The detector printed why; this frame passes as it came.
        p->previousHandled = false;
        return;
    }
    p->frameCount++;
    p->handledNow = true;
    if (!NT_SUCCESS(ShowPart(p, pSource, pFrame))) {
        return;  // Resize wrote nothing: the frame as it came, without a thumbnail
    }
    if (WindowDivisor != 0) {
        if (p->following) {
            DrawBox(p, pSource);
        }
        DrawThumbnail(p, pSource, pFrame, WindowDivisor);
    }
}

void FaceTrackEndFrame(FaceTracker* pTracker)
{
    if (pTracker != nullptr) {
        if (!pTracker->handledNow) {
            pTracker->previousHandled = false;
        }
        pTracker->handledNow = false;
    }
}

void FaceTrackShownPart(const FaceTracker* pTracker, double* pCentreX, double* pCentreY, double* pZoom)
{
    const bool shown = pTracker != nullptr && pTracker->previousHandled;
    *pCentreX = shown ? pTracker->centreX : 0.0;
    *pCentreY = shown ? pTracker->centreY : 0.0;
    *pZoom = shown ? pTracker->zoom : 1.0;
}

void FaceTrackStop(FaceTracker*& pTracker)
{
    if (pTracker == nullptr) {
        return;
    }
    FreeFaceDetector(pTracker->pDetector);
    FreeImageBuffer(pTracker->pResizeWork);
    FreeImageBuffer(pTracker);
}
