// The frame-processing loop.
//
// Choices worth knowing:
//  - A stream buffer smaller than the frame gets nothing: its header is
//    filled with DataUsed 0, so that no client buffer is written past its
//    extent. The frame-information extension is written only into headers
//    long enough to hold it.
//  - A frame without the JPEG start marker leaves the stream pointer unlocked
//    without ejecting it: the client's buffer waits for the next frame
//    instead of coming back empty.
//  - When the thread ends while it still holds the leading edge (a failed
//    decode keeps it for the next frame), it unlocks it, since ks.sys does
//    not let a pin stop with a locked stream pointer.
#include "streaming/frameloop.h"

#include "device/device.h"
#include "imaging/deadpixel.h"
#include "imaging/effects.h"
#include "imaging/facetracking.h"
#include "imaging/photoframes.h"
#include "imaging/primitives.h"
#include "streaming/capture.h"
#include "streaming/kvjp.h"
#include "streaming/stages.h"
#include "streaming/still.h"
#include "pooltag.h"

using namespace kv;

namespace {

// Every wait of the loop: 8 s.
constexpr LONGLONG kFrameWait = -80000000LL;
// The stream header with its frame-information extension.
constexpr ULONG kHeaderWithFrameInfo = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
constexpr ULONG kOptionsWithClock =
    KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT | KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;

// Where one frame goes and in which format.
struct Delivery {
    PKSSTREAM_POINTER pPointer;
    PKS_VIDEOINFOHEADER pFormat;  // the capture format, or the still pin's
    bool still;
    bool stillPinHeld;  // counted in the device's still-pin users until the frame is done
    PUCHAR pOutput;
    ULONG extent;
};

LONG Slot(const CCaptureDevice* pDevice, ULONG Index)
{
    return pDevice->m_Settings.m_Property != nullptr ? pDevice->m_Settings.m_Property->Slot[Index] : 0;
}

Stages ReadStages(const CCaptureDevice* pDevice)
{
    const DeviceSettings& settings = pDevice->m_Settings;
    const bool turning = settings.SwBit(SWBIT_MIRROR) || settings.SwBit(SWBIT_VFLIP);
    Stages s;
    s.effectsOn = Slot(pDevice, SLOT_SWSETTING_OPTION) != 0;
    s.effect = Slot(pDevice, SLOT_SPECIAL_EFFECT);
    s.photoFrame = Slot(pDevice, SLOT_SPECIAL_FRAME);
    s.tracking = static_cast<ULONG>(Slot(pDevice, SLOT_TRACKING_METHOD));
    s.countdown = pDevice->m_SelfTimer.m_CountdownCounter;
    s.rotate = Slot(pDevice, SLOT_ROTATE);
    s.flip = turning && settings.m_EffectiveVflip == 1;
    s.mirror = turning && settings.m_EffectiveMirror == 1;
    s.deadPixel = settings.m_EffectiveDeadPixel != 0;
    return s;
}

// The frame loop reads the ready buffer without the frame lock: a frame that
// ends meanwhile may overwrite it, which the design accepts (the loop holds
// at most one frame in hand). This is the one place that read happens.
void ReadReadyFrame(PUCHAR pDestination, const UCHAR* pReady, ULONG Length)
{
    RtlCopyMemory(pDestination, pReady, Length);
}

ULONG AbsHeight(const KS_VIDEOINFOHEADER* pFormat)
{
    LONG h = pFormat->bmiHeader.biHeight;
    return static_cast<ULONG>(h < 0 ? -h : h);
}

// The bytes an uncompressed picture of this format fills: RGB24 (0) or
// YUY2; in 64 bits, so that no width and height wrap.
ULONGLONG OutputBytes(const KS_VIDEOINFOHEADER* pFormat)
{
    const ULONGLONG bytesPerPixel = pFormat->bmiHeader.biCompression == 0 ? 3 : 2;
    return static_cast<ULONGLONG>(static_cast<ULONG>(pFormat->bmiHeader.biWidth)) * AbsHeight(pFormat) *
           bytesPerPixel;
}

// No still format the camera's descriptors give is wider or higher.
constexpr ULONG kMaxStillSide = 8192;

void RaiseStillEvent(PVOID pSender)
{
    static_cast<StillEventSender*>(pSender)->Request();
}

bool SameSize(const KS_VIDEOINFOHEADER* pA, const KS_VIDEOINFOHEADER* pB)
{
    return pA->bmiHeader.biWidth == pB->bmiHeader.biWidth && AbsHeight(pA) == AbsHeight(pB);
}

// The overlays are sized to the largest frame the camera offers, so that
// every format of the camera fits them.
SIZE_T LargestFrameBytes(const FormatTables& formats)
{
    SIZE_T largest = 0;
    for (ULONG i = 0; formats.m_pCaptureTable != nullptr && i < formats.m_nCaptureTable; ++i) {
        const KS_BITMAPINFOHEADER& bmi = formats.m_pCaptureTable[i].VideoInfoHeader.bmiHeader;
        const LONG height = bmi.biHeight < 0 ? -bmi.biHeight : bmi.biHeight;
        const SIZE_T bytes = static_cast<SIZE_T>(static_cast<ULONG>(bmi.biWidth)) * static_cast<ULONG>(height) * 3;
        if (bytes > largest) largest = bytes;
    }
    return largest;
}

}  // namespace

FrameLoop::FrameLoop()
    : m_FramesDelivered(0),
      m_DropCount(0),
      m_PictureNumber(0),
      m_FirstTime(0),
      m_LastTime(0),
      m_FirstTimeSet(0),
      m_SkipCounter(0),
      m_DecodeResult(0),
      m_FrameSeen(0),
      m_BadFrames(0),
      m_JpegFailures(0),
      m_NoBufferFrames(0),
      m_PhotoFrames(),
      m_pFaceTracker(nullptr)
{
    InitEffectState(&m_Effects);
    InitPhotoFrameState(&m_PhotoFrames, 0);
}

// A device that goes away with a tracker still held (its stream never
// reached run-to-pause) gives the tracker's memory back here.
FrameLoop::~FrameLoop()
{
    FaceTrackStop(m_pFaceTracker);
}

void FrameLoop::ResetCounters()
{
    m_FramesDelivered = 0;
    InterlockedExchange(&m_DropCount, 0);
    m_PictureNumber = 0;
    m_FirstTimeSet = 0;
    m_BadFrames = 0;
    m_JpegFailures = 0;
    m_NoBufferFrames = 0;
}

namespace {

// The loop's state for one thread.
class FrameWorker {
public:
    FrameWorker(CCaptureDevice* pDevice, CapturePinContext* pContext)
        : m_pDevice(pDevice),
          m_pContext(pContext),
          m_Stream(pDevice->m_Stream),
          m_Loop(pDevice->m_FrameLoop),
          m_pHeld(nullptr)
    {
        InitPhotoFrameState(&m_Loop.m_PhotoFrames, LargestFrameBytes(pDevice->m_Formats));
    }

    void Run();

private:
    bool Stopping() const { return m_pContext->StopByte != 0 || m_Stream.m_StopThread != 0; }
    bool TakeDelivery(Delivery* pDelivery);
    void ProcessOne(Delivery& delivery);
    void DeliverMjpeg(Delivery& delivery);
    void DeliverMjpegStill(Delivery& delivery);
    void DeliverUncompressed(Delivery& delivery, bool rgbOutput);
    void ToOutput(Delivery& delivery, bool isRgb, ULONG dataUsed);
    void WriteStillPicture(bool isRgb);
    void ScaleStill(Delivery& delivery, bool isRgb);
    void Finish(Delivery& delivery, ULONG dataUsed);
    void FillHeader(Delivery& delivery, ULONG dataUsed);
    void ClearTrackingWhereItCannotRun();

    CCaptureDevice* m_pDevice;
    CapturePinContext* m_pContext;
    IsoStream& m_Stream;
    FrameLoop& m_Loop;
    PKSSTREAM_POINTER m_pHeld;  // a leading edge kept locked for the next frame
    ULONG m_Width = 0;
    ULONG m_Height = 0;
};

void FrameWorker::Run()
{
    KeClearEvent(&m_Stream.m_ThreadExitEvent);
    for (;;) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = kFrameWait;
        NTSTATUS status = KeWaitForSingleObject(&m_Stream.m_FrameSemaphore, Executive, KernelMode, FALSE, &timeout);
        if (status == STATUS_TIMEOUT) {
            DbgPrint("ProcessFrame:TIMEOUT");
        }
        if (Stopping()) {
            if (m_pHeld != nullptr) {
                KsStreamPointerUnlock(m_pHeld, FALSE);
                m_pHeld = nullptr;
            }
            ReleasePhotoFrames(&m_Loop.m_PhotoFrames);
            ApplySpecialEffect(&m_Loop.m_Effects, 0, 0, 0, nullptr, nullptr);
            KeSetEvent(&m_Stream.m_ThreadExitEvent, IO_NO_INCREMENT, FALSE);
            return;
        }
        FrameBuffer* pFrame = m_Stream.TakeReadyFrame();
        if (pFrame == nullptr) {
            continue;
        }
        if (InterlockedExchange(&pFrame->ReadyBad, 0) != 0) {
            InterlockedIncrement(&m_Loop.m_DropCount);
            m_Loop.m_BadFrames++;
            continue;
        }
        if (m_Loop.m_SkipCounter < m_pDevice->m_Settings.m_DropFrameCntVGA) {
            m_Loop.m_SkipCounter++;
            continue;
        }
        // Settings may change again from the first frame of a stream on.
        m_pDevice->m_Requests.m_ControlReady = 1;
        ClearTrackingWhereItCannotRun();
        Delivery delivery = {};
        if (TakeDelivery(&delivery)) {
            ProcessOne(delivery);
        }
        FaceTrackEndFrame(m_Loop.m_pFaceTracker);
        if (delivery.stillPinHeld) {
            InterlockedDecrement(&m_pDevice->m_StillPinUsers);
        }
    }
}

// Face tracking runs only on uncompressed output up to 1280 pixels wide.
void FrameWorker::ClearTrackingWhereItCannotRun()
{
    const PKS_VIDEOINFOHEADER pFormat = m_pContext->pFormat;
    const ULONG compression = pFormat->bmiHeader.biCompression;
    if (m_Stream.m_Width > kMaxProcessingWidth || compression == 0 || compression == kFourccMjpg) {
        if (m_pDevice->m_Settings.m_Property != nullptr) {
            m_pDevice->m_Settings.m_Property->Slot[SLOT_TRACKING_METHOD] = 0;
            m_pDevice->m_Settings.m_Property->Slot[SLOT_ZOOM_SWITCH] = 0;
        }
    }
}

// The leading edge of the still pin when a still is due, else of the
// capture pin.
bool FrameWorker::TakeDelivery(Delivery* pDelivery)
{
    PKSPIN pCapture = m_pContext->pKsPin;
    PKSPIN pStill = nullptr;
    if (m_pDevice->m_SelfTimer.m_StillRequest != 0) {
        // Counted before the pin is read, so that its close, which clears
        // the pointer and then waits for the count, never frees it under us.
        InterlockedIncrement(&m_pDevice->m_StillPinUsers);
        pStill = static_cast<PKSPIN>(InterlockedCompareExchangePointer(
            reinterpret_cast<PVOID volatile*>(&m_pDevice->m_pStillPin), nullptr, nullptr));
        if (pStill == nullptr) {
            InterlockedDecrement(&m_pDevice->m_StillPinUsers);
        }
    }
    PKSSTREAM_POINTER pPointer = nullptr;
    if (pStill != nullptr) {
        pDelivery->stillPinHeld = true;
        m_pDevice->m_SelfTimer.m_StillRequest = 0;
        const PKS_VIDEOINFOHEADER pStillFormat = static_cast<StillPinContext*>(pStill->Context)->pFormat;
        const ULONG stillSize = pStillFormat->bmiHeader.biSizeImage;
        pPointer = KsPinGetLeadingEdgeStreamPointer(pStill, KSSTREAM_POINTER_STATE_LOCKED);
        while (pPointer != nullptr && pPointer->StreamHeader != nullptr &&
               pPointer->StreamHeader->FrameExtent < stillSize) {
            pPointer->StreamHeader->DataUsed = 0;
            pPointer->StreamHeader->OptionsFlags = 0;
            if (!NT_SUCCESS(KsStreamPointerAdvance(pPointer))) {
                DbgPrint("ProcessFrame:KsStreamPointerAdvance fail");
                pPointer = nullptr;
            }
        }
        pDelivery->pFormat = pStillFormat;
        pDelivery->still = true;
    } else {
        pPointer = m_pHeld != nullptr ? m_pHeld
                                      : KsPinGetLeadingEdgeStreamPointer(pCapture, KSSTREAM_POINTER_STATE_LOCKED);
        m_pHeld = nullptr;
        pDelivery->pFormat = m_pContext->pFormat;
        pDelivery->still = false;
    }
    m_Width = static_cast<ULONG>(m_pContext->pFormat->bmiHeader.biWidth);
    m_Height = AbsHeight(m_pContext->pFormat);
    m_Loop.m_FrameSeen = 1;
    if (pPointer == nullptr) {
        m_Loop.m_NoBufferFrames++;
        return false;
    }
    if (pPointer->StreamHeader == nullptr) {
        KsStreamPointerUnlock(pPointer, FALSE);
        return false;
    }
    pDelivery->pPointer = pPointer;
    pDelivery->pOutput = static_cast<PUCHAR>(pPointer->StreamHeader->Data);
    pDelivery->extent = pPointer->StreamHeader->FrameExtent;
    return true;
}

void FrameWorker::ProcessOne(Delivery& delivery)
{
    const ULONG output = delivery.pFormat->bmiHeader.biCompression;
    if (m_Stream.m_Uncompressed == 0) {
        if (delivery.still) {
            DeliverMjpegStill(delivery);
            return;
        }
        DeliverMjpeg(delivery);
    } else if (output == kFourccI420) {
        Finish(delivery, 0);
    } else {
        DeliverUncompressed(delivery, output == 0);
    }
}

void FrameWorker::DeliverMjpeg(Delivery& delivery)
{
    ULONG dataUsed = m_Width * m_Height * 2;
    const UCHAR* pReady = m_Stream.m_pReadyBuffer;
    UCHAR start[2];
    ReadReadyFrame(start, pReady, sizeof(start));
    // Either byte of the start marker is enough to pass.
    if (start[0] != 0xFF && start[1] != 0xD8) {
        DbgPrint("No FFD8");
        m_Loop.m_JpegFailures++;
        KsStreamPointerUnlock(delivery.pPointer, FALSE);
        return;
    }
    if (delivery.pFormat->bmiHeader.biCompression != 0) {
        if (dataUsed <= delivery.extent) {
            ReadReadyFrame(delivery.pOutput, pReady, dataUsed);
        }
        Finish(delivery, dataUsed);
        return;
    }
    dataUsed = m_Width * m_Height * 3;
    m_Loop.m_DecodeResult = DecodeJpg(pReady, dataUsed, m_Stream.m_pWorkBufferA);
    if (m_Loop.m_DecodeResult == 0) {
        // The same capture buffer serves the next frame; a still buffer
        // goes back to its pin.
        InterlockedIncrement(&m_Loop.m_DropCount);
        m_Loop.m_JpegFailures++;
        if (delivery.still) {
            KsStreamPointerUnlock(delivery.pPointer, FALSE);
        } else {
            m_pHeld = delivery.pPointer;
        }
        return;
    }
    if (dataUsed <= delivery.extent) {
        RtlCopyMemory(delivery.pOutput, m_Stream.m_pWorkBufferA, dataUsed);
    }
    Finish(delivery, dataUsed);
}

// A still from a motion-JPEG stream: decoded to RGB whatever the still's
// format, so that it gets the still event, the picture file and its own
// size and format. A frame that does not decode asks for the still again on
// the next frame.
void FrameWorker::DeliverMjpegStill(Delivery& delivery)
{
    const UCHAR* pReady = m_Stream.m_pReadyBuffer;
    UCHAR start[2];
    ReadReadyFrame(start, pReady, sizeof(start));
    const bool decoded = (start[0] == 0xFF || start[1] == 0xD8) &&
                         (m_Loop.m_DecodeResult = DecodeJpg(pReady, m_Width * m_Height * 3, m_Stream.m_pWorkBufferA)) != 0;
    if (!decoded) {
        InterlockedIncrement(&m_Loop.m_DropCount);
        m_Loop.m_JpegFailures++;
        m_pDevice->m_SelfTimer.m_StillRequest = 1;
        KsStreamPointerUnlock(delivery.pPointer, FALSE);
        return;
    }
    m_pDevice->m_StillEvents.Request();
    WriteStillPicture(true);
    if (SameSize(delivery.pFormat, m_pContext->pFormat) && delivery.pFormat->bmiHeader.biCompression == 0) {
        ToOutput(delivery, true, m_Width * m_Height * 3);
    } else {
        ScaleStill(delivery, true);
    }
}

void FrameWorker::DeliverUncompressed(Delivery& delivery, bool rgbOutput)
{
    const ULONG yuy2Size = m_Width * m_Height * 2;
    const ULONG rgbSize = m_Width * m_Height * 3;
    const Stages s = ReadStages(m_pDevice);
    if (delivery.extent < OutputBytes(delivery.pFormat)) {
        Finish(delivery, 0);
        return;
    }
    ReadReadyFrame(m_Stream.m_pWorkBufferA, m_Stream.m_pReadyBuffer, yuy2Size);
    StageContext context = {};
    context.Width = m_Width;
    context.Height = m_Height;
    context.pA = m_Stream.m_pWorkBufferA;
    context.pB = m_Stream.m_pWorkBufferB;
    context.pEffects = &m_Loop.m_Effects;
    context.pPhotoFrames = &m_Loop.m_PhotoFrames;
    context.pDeadPixels = &m_pContext->DeadPixels;
    context.DeadPixelPhase = m_Loop.m_FramesDelivered % kDeadPixelBands;
    context.pPanZoomWork = m_Stream.m_pPanZoomWork;
    context.pFaceTracker = m_Loop.m_pFaceTracker;
    context.pProperty = m_pDevice->m_Settings.m_Property;
    context.pFrameReload = &m_pDevice->m_Requests.m_SpecialFrameReload;
    context.TrackingWindowSize = m_pDevice->m_Settings.m_TrackingWindowSize;
    context.ShowCountdown = m_pContext->StillPinExists() || m_pDevice->m_SelfTimer.m_CountdownDisplay != 0;
    if (delivery.still) {
        context.pfnStillEvent = RaiseStillEvent;
        context.pStillEventContext = &m_pDevice->m_StillEvents;
    }
    const bool isRgb = RunPictureStages(s, context, rgbOutput);
    if (delivery.still) {
        WriteStillPicture(isRgb);
        if (!SameSize(delivery.pFormat, m_pContext->pFormat)) {
            ScaleStill(delivery, isRgb);
            return;
        }
    }
    ToOutput(delivery, isRgb, rgbOutput ? rgbSize : yuy2Size);
}

// A still is also written as "snapshot.bmp": the picture as it leaves the
// stages, bottom-up RGB. A frame that stayed YUY2 is converted into work
// buffer B for the file (the file always holds a picture, never raw YUY2).
void FrameWorker::WriteStillPicture(bool isRgb)
{
    const UCHAR* pPicture = m_Stream.m_pWorkBufferA;
    if (!isRgb) {
        Yuy2ToRgb24(m_Stream.m_pWorkBufferA, m_Width * 2, m_Stream.m_pWorkBufferB, m_Width * 3, m_Width, m_Height);
        MirrorInPlace(m_Stream.m_pWorkBufferB, static_cast<LONG>(m_Width * 3), m_Width, m_Height, kMirrorAxisRows);
        pPicture = m_Stream.m_pWorkBufferB;
    }
    SaveSnapshot(pPicture, m_Width, m_Height);
}

// A still format of another size than the stream's: the picture is taken to
// RGB, scaled with the primitives' Resize (pixel centres kept, nothing read
// or written outside either picture) and put into the still's format (RGB24
// or YUY2, the still formats the camera's descriptors give). Without the
// scratch buffers the picture goes unscaled when the still's buffer holds
// it, else nothing is delivered rather than a picture of the wrong size.
void FrameWorker::ScaleStill(Delivery& delivery, bool isRgb)
{
    const KS_VIDEOINFOHEADER* pStill = delivery.pFormat;
    const ULONG stillWidth = static_cast<ULONG>(pStill->bmiHeader.biWidth);
    const ULONG stillHeight = AbsHeight(pStill);
    const ULONG compression = pStill->bmiHeader.biCompression;
    const ULONGLONG stillBytes = static_cast<ULONGLONG>(stillWidth) * stillHeight * 3;
    const ULONGLONG captureBytes = static_cast<ULONGLONG>(m_Width) * m_Height * 3;
    if (stillWidth == 0 || stillHeight == 0 || stillWidth > kMaxStillSide || stillHeight > kMaxStillSide ||
        OutputBytes(pStill) > delivery.extent || (compression != 0 && compression != kFourccYuy2)) {
        Finish(delivery, 0);
        return;
    }
    const ImageRect from = {0, 0, static_cast<LONG>(m_Width), static_cast<LONG>(m_Height)};
    const ImageRect to = {0, 0, static_cast<LONG>(stillWidth), static_cast<LONG>(stillHeight)};
    LONG workBytes = 0;
    const SIZE_T scratchBytes = static_cast<SIZE_T>(captureBytes > stillBytes ? captureBytes : stillBytes);
    PUCHAR pSource = nullptr;
    PUCHAR pScaled = nullptr;
    PUCHAR pWork = nullptr;
    if (ResizeBufferSize(from, to, 3, kInterpolationBilinear, &workBytes) == STATUS_SUCCESS) {
        pSource = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, scratchBytes, kTagWork));
        pScaled = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, scratchBytes, kTagWork));
        pWork = static_cast<PUCHAR>(AllocImageBuffer(static_cast<SIZE_T>(workBytes)));
    }
    ULONG dataUsed = 0;
    if (pSource == nullptr || pScaled == nullptr || pWork == nullptr) {
        FreeTagged(pSource, kTagWork);
        FreeTagged(pScaled, kTagWork);
        FreeImageBuffer(pWork);
        ToOutput(delivery, isRgb, isRgb ? static_cast<ULONG>(captureBytes) : m_Width * m_Height * 2);
        return;
    }
    if (isRgb) {
        RtlCopyMemory(pSource, m_Stream.m_pWorkBufferA, static_cast<SIZE_T>(captureBytes));
    } else {
        Yuy2ToRgb24(m_Stream.m_pWorkBufferA, m_Width * 2, pSource, m_Width * 3, m_Width, m_Height);
        MirrorInPlace(pSource, static_cast<LONG>(m_Width * 3), m_Width, m_Height, kMirrorAxisRows);
    }
    const double xFactor = static_cast<double>(stillWidth) / m_Width;
    const double yFactor = static_cast<double>(stillHeight) / m_Height;
    const ImageSize sourceSize = {static_cast<LONG>(m_Width), static_cast<LONG>(m_Height)};
    if (Resize(pSource, sourceSize, static_cast<LONG>(m_Width * 3), from, pScaled, static_cast<LONG>(stillWidth * 3), to,
               xFactor, yFactor, 0.5 / xFactor - 0.5, 0.5 / yFactor - 0.5, kInterpolationBilinear,
               pWork) == STATUS_SUCCESS) {
        if (compression == 0) {
            RtlCopyMemory(delivery.pOutput, pScaled, static_cast<SIZE_T>(stillBytes));
            dataUsed = static_cast<ULONG>(stillBytes);
        } else {
            Rgb24ToYuy2BottomUp(pScaled, stillWidth * 3, delivery.pOutput, stillWidth * 2, stillWidth, stillHeight);
            dataUsed = stillWidth * stillHeight * 2;
        }
    }
    FreeTagged(pSource, kTagWork);
    FreeTagged(pScaled, kTagWork);
    FreeImageBuffer(pWork);
    Finish(delivery, dataUsed);
}

// Work buffer A into the client's buffer in the output format.
void FrameWorker::ToOutput(Delivery& delivery, bool isRgb, ULONG dataUsed)
{
    const bool rgbOutput = delivery.pFormat->bmiHeader.biCompression == 0;
    if (dataUsed > delivery.extent) {
        Finish(delivery, 0);
        return;
    }
    if (isRgb && !rgbOutput) {
        Rgb24ToYuy2BottomUp(m_Stream.m_pWorkBufferA, m_Width * 3, delivery.pOutput, m_Width * 2, m_Width, m_Height);
    } else {
        RtlCopyMemory(delivery.pOutput, m_Stream.m_pWorkBufferA, dataUsed);
    }
    Finish(delivery, dataUsed);
}

void FrameWorker::Finish(Delivery& delivery, ULONG dataUsed)
{
    FillHeader(delivery, dataUsed <= delivery.extent ? dataUsed : 0);
    KsStreamPointerUnlock(delivery.pPointer, TRUE);
}

void FrameWorker::FillHeader(Delivery& delivery, ULONG dataUsed)
{
    PKSSTREAM_HEADER pHeader = delivery.pPointer->StreamHeader;
    const LONGLONG avg = m_pContext->pFormat->AvgTimePerFrame;
    pHeader->DataUsed = dataUsed;
    m_Loop.m_FramesDelivered++;
    pHeader->Duration = avg;
    pHeader->PresentationTime.Numerator = 1;
    pHeader->PresentationTime.Denominator = 1;
    auto* pInfo = pHeader->Size >= kHeaderWithFrameInfo ? reinterpret_cast<PKS_FRAME_INFO>(pHeader + 1) : nullptr;
    PIKSREFERENCECLOCK pClock = m_pContext->pClock;
    if (pClock == nullptr || delivery.still) {
        pHeader->PresentationTime.Time = 0;
        pHeader->Duration = 0;
        pHeader->OptionsFlags = KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT;
        if (pInfo != nullptr) {
            pInfo->ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
            pInfo->dwFrameFlags = 0;
            pInfo->DropCount = m_Loop.m_DropCount;
        }
        return;
    }
    const LONGLONG now = pClock->GetTime();
    // Pictures count from the stream's first frame read against the clock:
    // its first frame, unless that one went to the still pin untimed (the
    // picture numbers would then count from an earlier stream's first time).
    if (m_Loop.m_FirstTimeSet == 0) {
        m_Loop.m_FirstTime = now;
        m_Loop.m_FirstTimeSet = 1;
    }
    m_Loop.m_LastTime = now;
    pHeader->PresentationTime.Time = now;
    LONGLONG drop = 0;
    if (avg > 0 && now >= avg) {
        m_Loop.m_PictureNumber = (now - m_Loop.m_FirstTime) / avg;
        drop = m_Loop.m_PictureNumber - static_cast<LONGLONG>(m_Loop.m_FramesDelivered);
        if (drop < 0) {
            drop = 0;
        }
    }
    // With a clock the frames lost are what the clock says.
    InterlockedExchange(&m_Loop.m_DropCount, static_cast<LONG>(drop));
    pHeader->OptionsFlags = kOptionsWithClock;
    if (pInfo != nullptr) {
        pInfo->ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
        pInfo->PictureNumber = m_Loop.m_PictureNumber;
        pInfo->DropCount = drop;
        pInfo->dwFrameFlags = 0;
    }
}

}  // namespace

void FrameLoop::ProcessFrame(CCaptureDevice* pDevice, CapturePinContext* pContext)
{
    KeSetPriorityThread(KeGetCurrentThread(), LOW_REALTIME_PRIORITY);
    InitEffectState(&pDevice->m_FrameLoop.m_Effects);
    FrameWorker worker(pDevice, pContext);
    worker.Run();
}
