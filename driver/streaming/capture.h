// CCapturePin: the filter's video capture pin. It checks and keeps the
// connected format, answers data intersections from the capture table, runs
// the KS state machine, and on the pause-to-run transition negotiates
// bandwidth with the camera (probe and commit), selects the alternate
// setting, starts the transfer engine and the frame thread; on the way back
// it stops them and returns the interface to alternate setting 0.
#pragma once
#include "wdk.h"
#include "imaging/deadpixel.h"

class CCaptureDevice;

// The pin's context, allocated with the pin and freed through its bag.
struct CapturePinContext {
    volatile UCHAR StopByte;       // 1: the frame thread must end
    UCHAR StopValue;               // handed to the stop path (1 on run-to-pause)
    UCHAR Reserved;
    PKS_VIDEOINFOHEADER pFormat;   // copy of the connected video-info header, "KVIV"
    PIKSREFERENCECLOCK pClock;     // from stop-to-acquire to stop; null without a clock
    PKSPIN pKsPin;
    CCaptureDevice* pDevice;
    PVOID pThread;                 // the frame thread's object, referenced
    DeadPixelState DeadPixels;     // the frame thread's; reset before it starts

    // Whether the filter has a still pin now.
    bool StillPinExists() const;
};

// The probe/commit block of the video-streaming interface (26 bytes).
constexpr ULONG PROBE_COMMIT_SIZE = 26;

class CCapturePin {
public:
    static NTSTATUS DispatchCreate(PKSPIN pKsPin, PIRP pIrp);
    static NTSTATUS DispatchClose(PKSPIN pKsPin, PIRP pIrp);
    static NTSTATUS SetDataFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, PKSMULTIPLE_ITEM pOldAttributeList,
                                  const KSDATARANGE* pDataRange, const KSATTRIBUTE_LIST* pAttributeRange);
    static NTSTATUS SetState(PKSPIN pKsPin, KSSTATE ToState, KSSTATE FromState);
    static NTSTATUS IntersectHandler(PVOID pContext, PIRP pIrp, PKSP_PIN pKspPinInstance,
                                     PKSDATARANGE pCallerDataRange, PKSDATARANGE pDescriptorDataRange,
                                     ULONG ulBufferSize, PVOID pData, PULONG pulDataSize);
    static void Sleep(PKSPIN pKsPin, DEVICE_POWER_STATE State);
    static void Wake(PKSPIN pKsPin, DEVICE_POWER_STATE State);

    static NTSTATUS BandwidthNegotiation(CapturePinContext* pContext, LONG lHeight, LONG lWidth,
                                         LONGLONG llFrameInterval, ULONG dwDataFormat);

    // Descriptor walks over the camera's configuration descriptor.
    // The requested interval when the frame lists it, else the frame's
    // first interval (unchanged when no such frame is found).
    static LONGLONG CheckFrameInterval(const UCHAR* pConfiguration, ULONG Length, LONG Width, LONG Height,
                                       ULONG CameraCode, LONGLONG Interval);
    // bFormatIndex and bFrameIndex of the camera code at this size (the last
    // match wins); 0 when not found.
    static void FindFormatAndFrame(const UCHAR* pConfiguration, ULONG Length, LONG Width, LONG Height,
                                   ULONG CameraCode, PUCHAR pFormatIndex, PUCHAR pFrameIndex);
    // The first streaming alternate setting (not 0) whose endpoint carries
    // MaxPayload bytes a (micro)frame; 0 when none does.
    static UCHAR FindAlternateSetting(const UCHAR* pConfiguration, ULONG Length, ULONG MaxPayload);
    // The camera's format for an output compression: RGB (0) asks for MJPG.
    static ULONG CameraCode(ULONG OutputCompression);

private:
    static NTSTATUS PauseToRun(CapturePinContext* pContext);
    static void RunToPause(CapturePinContext* pContext);
    static void ToStop(CapturePinContext* pContext);
    static VOID ThreadRoutine(PVOID pStartContext);

public:
    // The pin's own copy of its descriptor and framing: three frames of the
    // image size (the still pin's too).
    static NTSTATUS EditFraming(PKSPIN pKsPin, ULONG ImageSize);
};

// The set-format checks both video pins make: a video-info format of the
// range's width, height and compression whose header lies inside it and
// whose size fits its image size; with an old format (not a query) and the
// pin stopped, the format is copied into *ppCopy (allocated, "KVIV", when
// null).
NTSTATUS AcceptVideoFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, const KSDATARANGE* pDataRange,
                           PKS_VIDEOINFOHEADER* ppCopy);
// The connection format into pCopy and the pin's framing edited for its
// image size (nothing for a format that is not video info).
NTSTATUS CopyConnectionFormat(PKSPIN pKsPin, PKS_VIDEOINFOHEADER pCopy);

extern const KSPIN_DISPATCH g_CapturePinDispatch;
