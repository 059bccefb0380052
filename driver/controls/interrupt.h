// The camera's button and the self-timer.
//
// The camera reports its snapshot button as UVC status packets on its
// interrupt-in endpoint. `InterruptEndpoint` (the device's `m_Int`) keeps one
// interrupt transfer outstanding, recycled from its own completion, hands
// each packet to a work item at PASSIVE_LEVEL, turns button states into
// clicks, double clicks and long presses, and acts on them as the registry's
// "Key1Function" (button mode) and "Key2Function" (report mode) ask: take a
// still (at once or after the self-timer), step through the effects and
// photo frames, or only report the button to applications.
//
// `SelfTimer` is the countdown: a one-second periodic timer whose DPC counts
// down and, at the end, asks the frame loop for a still. The button starts
// it, and so does the software trigger of the video-control property.
#pragma once

#include "wdk.h"

class DeviceSettings;

// A countdown is already running: the trigger is refused.
constexpr NTSTATUS kStatusCountdownRunning = static_cast<NTSTATUS>(0xC00000C1L);

class SelfTimer {
public:
    SelfTimer();
    SelfTimer(const SelfTimer&) = delete;
    SelfTimer& operator=(const SelfTimer&) = delete;

    // Device start: the timer and its DPC.
    void Initialize();
    // Starts a countdown of `Seconds`: the DPC runs a second from now, then
    // every second.
    void StartCountdown(LONG Seconds);
    // Device stop and remove, and the capture pin leaving run: a running
    // countdown is cancelled.
    void CancelCountdown();
    // Remove: the timer is cancelled whatever the counter says, and a DPC of
    // an expiry just before is waited for, as the device's memory goes next.
    void FlushCountdown();
    // A still from the button (TriggerSource 0) or from software (1): at once
    // when the self-timer (slot 34) is negative, else after its countdown.
    // kStatusCountdownRunning while a countdown runs.
    NTSTATUS Trigger(LONG SelfTimerSeconds, ULONG TriggerSource);

    LONG m_CountdownCounter;  // -1 when no countdown runs
    ULONG m_StillRequest;     // set when a still is due: the frame loop takes one
    ULONG m_SoftwareTrigger;  // 1 while the still was asked for by software, not the button
    ULONG m_CountdownDisplay; // 1: the frame loop draws the countdown even without a still pin
    ULONG m_TriggerSource;    // who asked for the still: 1 software, 0 the button

private:
    friend struct DriverTestAccess;
    static KDEFERRED_ROUTINE CountdownDpcRoutine;

    KTIMER m_CountdownTimer;
    KDPC m_CountdownDpc;
    UCHAR m_CountdownTimerReady;
};

// What the button's actions reach: the settings record (effect, frame,
// self-timer, the two button functions, the report mask), the self-timer and
// whether the device is streaming.
struct ButtonTargets {
    DeviceSettings* pSettings;
    SelfTimer* pSelfTimer;
    volatile LONG* pStreaming;
};

// The UVC status packet of a video-streaming interface (UVC 1.5, 2.4.2.2):
// bStatusType, bOriginator, bEvent, bValue.
constexpr ULONG INTERRUPT_BUFFER_SIZE = 64;
constexpr ULONG INTERRUPT_URB_SIZE = 128;

// The still-button event (KSEVENT_VIDCAPTOSTI_EXT_TRIGGER) to the clients
// of the device's first filter, raised by the frame loop when it serves a
// still. When the factory has a second filter the event is raised a second
// time on the first one, not on the second; applications that count the
// events rely on it. Always STATUS_SUCCESS.
NTSTATUS GenerateStillEvent(PKSDEVICE pKsDevice);

// GenerateStillEvent from a work item. The event is raised under the device
// mutex, which AVStream holds while it calls the pins' sleep callbacks, and
// the capture pin's sleep waits for the frame thread: the frame thread must
// not wait for the mutex itself, so it asks for the event here.
// https://learn.microsoft.com/windows-hardware/drivers/stream/device-mutex-in-avstream
class StillEventSender {
public:
    StillEventSender();
    StillEventSender(const StillEventSender&) = delete;
    StillEventSender& operator=(const StillEventSender&) = delete;

    // Device start.
    void Initialize(PKSDEVICE pKsDevice, PDEVICE_OBJECT pFunctionalDeviceObject);
    // Queues the event (IRQL <= DISPATCH_LEVEL); a work item that cannot be
    // had loses this one event, nothing else.
    void Request();
    // Stop and remove: the events asked for are raised (PASSIVE_LEVEL).
    void WaitForIdle();

private:
    static IO_WORKITEM_ROUTINE Worker;
    struct Item {
        PIO_WORKITEM pWorkItem;
        StillEventSender* pSender;
    };

    PKSDEVICE m_pKsDevice;
    PDEVICE_OBJECT m_pFunctionalDeviceObject;
    volatile LONG m_Pending;
};

class InterruptEndpoint {
public:
    InterruptEndpoint();
    ~InterruptEndpoint();
    InterruptEndpoint(const InterruptEndpoint&) = delete;
    InterruptEndpoint& operator=(const InterruptEndpoint&) = delete;

    // Device start: the IRP, URB, buffer and transfer record; the events,
    // timers, DPCs and lock. STATUS_INSUFFICIENT_RESOURCES when an
    // allocation fails (what was allocated is freed).
    NTSTATUS Initialize(const ButtonTargets& Targets, PDEVICE_OBJECT pFunctionalDeviceObject,
                        PDEVICE_OBJECT pNextDeviceObject, USBD_PIPE_HANDLE hPipe);
    // Sends the transfer; it stays outstanding until Cancel.
    NTSTATUS Start();
    // Device stop: cancels the transfer and waits until none is in flight
    // and no packet's work item is outstanding.
    void Cancel();
    // Device stop and remove: frees the transfer, cancels both timers and
    // waits out their DPCs. A second call is harmless.
    void Free();

    // One button state (bValue) through the press detector: 0 nothing yet,
    // 1 long press, 2 click.
    ULONG DetectPress(UCHAR State);
    // Mode 1: 0 nothing, 1 long press, 2 click, 3 double click.
    ULONG DetectClick(UCHAR State);
    // One received packet, as its work item handles it (PASSIVE_LEVEL):
    // pData is the whole receive buffer (INTERRUPT_BUFFER_SIZE bytes),
    // Length the packet's.
    void HandlePacket(const UCHAR* pData, ULONG Length);

    volatile LONG m_Running;  // set at start, cleared when resubmission fails

private:
    friend struct DriverTestAccess;
    struct WorkContext;
    static IO_COMPLETION_ROUTINE CompletionRoutine;
    static IO_WORKITEM_ROUTINE WorkItemRoutine;
    static KDEFERRED_ROUTINE LongPressDpcRoutine;
    static KDEFERRED_ROUTINE DoubleClickDpcRoutine;

    void BuildIrp();
    NTSTATUS Send();
    void QueuePacket();
    void HandleButton(UCHAR Value);
    void OnLongPress();
    void TriggerStill();
    void StepEffectOrFrame();
    void ClearEffectAndFrame();
    void ResetPress();

    ButtonTargets m_Targets;
    UCHAR m_LastState;     // 255: none
    UCHAR m_CurrentState;  // 255: none
    KTIMER m_LongPressTimer;
    KDPC m_LongPressDpc;
    volatile LONG m_PressDuration;  // ms
    KTIMER m_DoubleClickTimer;
    KDPC m_DoubleClickDpc;
    volatile LONG m_DoubleClickCounter;  // ms
    volatile LONG m_DoubleClickArmed;
    KSPIN_LOCK m_EffectLock;
    KEVENT m_IdleEvent;     // signalled while no transfer is in flight
    KEVENT m_DrainedEvent;  // signalled while no work item is outstanding
    volatile LONG m_Outstanding;
    volatile LONG m_InCompletion;  // completion routines under way
    PIRP m_pIrp;
    PURB m_pUrb;
    PUCHAR m_pBuffer;
    USBD_PIPE_HANDLE m_hPipe;
    PDEVICE_OBJECT m_pFunctionalDeviceObject;
    PDEVICE_OBJECT m_pNextDeviceObject;
    UCHAR m_Initialized;  // the events, timers and lock exist
};
