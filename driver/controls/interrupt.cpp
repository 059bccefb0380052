// The camera's button on its interrupt endpoint, and the self-timer.
#include "controls/interrupt.h"

#include "controls/settings.h"
#include "ksmedia.h"
#include "imaging/photoframes.h"
#include "pooltag.h"
#include "uvc.h"

using kv::FreeTagged;

namespace {

// The countdown's DPC: a second after the start, then once a second.
constexpr LONGLONG kCountdownFirstDue = -10000000LL;
constexpr LONG kCountdownPeriodMs = 1000;

// The button's two timers tick every 200 ms.
constexpr LONGLONG kButtonTickDue = -2000000LL;
constexpr LONG kButtonTickMs = 200;
// A press held this long is a long press (acted on without the release);
// one released before 2001 ms is a click.
constexpr LONG kLongPressMs = 2000;
constexpr LONG kClickLimitMs = 2001;
// A second click within this long of the first is a double click.
constexpr LONG kDoubleClickMs = 400;

constexpr UCHAR kNoState = 255;
// Stop's waits: a completion under way, and the work items, polled.
constexpr LONGLONG kDrainPoll = -10 * 10000LL;  // 10 ms

void PauseBriefly()
{
    LARGE_INTEGER pause;
    pause.QuadPart = -10000LL;  // 1 ms
    KeDelayExecutionThread(KernelMode, FALSE, &pause);
}

// Press detector and click detector results.
enum : ULONG {
    PRESS_NONE = 0,
    PRESS_LONG = 1,
    PRESS_CLICK = 2,
    PRESS_DOUBLE = 3,
};

// "Key1Function": what the button does.
constexpr ULONG kButtonModeReport = 0;  // stills while streaming, presses step or clear, or report bits
constexpr ULONG kButtonModeStill = 1;   // long press: still; click: step; double click: clear
// "Key2Function" 1: mode 0 only sets bits of the report mask.
constexpr ULONG kReportModeOn = 1;

// Bits of the report mask (the one-shot value of id 0x0918) by bValue.
constexpr LONG kReportReleased = 0x1;
constexpr LONG kReportPressed = 0x2;
constexpr LONG kReportReleased2 = 0x4;
constexpr LONG kReportPressed2 = 0x8;

// The status packet's fields (UVC 1.5, 2.4.2.2).
constexpr ULONG kStatusTypeOffset = 0;
constexpr ULONG kEventOffset = 2;
constexpr ULONG kValueOffset = 3;
constexpr UCHAR kStatusTypeStreaming = 2;
constexpr UCHAR kEventButton = 0;

// The effects and photo frames the button steps through: effects 1..17,
// then frames 1..11, then effect 1 again.
constexpr LONG kEffectCount = 18;
constexpr LONG kFrameCount = 12;
constexpr ULONG kStepFrameWidth = 640;
constexpr ULONG kStepFrameHeight = 480;

bool IsPressed(UCHAR State) { return State == 1 || State == 3; }
bool IsReleased(UCHAR State) { return State == 0 || State == 2; }

void StartTicks(PKTIMER pTimer, PKDPC pDpc)
{
    LARGE_INTEGER due;
    due.QuadPart = kButtonTickDue;
    KeSetTimerEx(pTimer, due, kButtonTickMs, pDpc);
}

}  // namespace

// ---- SelfTimer ----------------------------------------------------------------------------

SelfTimer::SelfTimer()
    : m_CountdownCounter(-1),
      m_StillRequest(0),
      m_SoftwareTrigger(0),
      m_CountdownDisplay(0),
      m_TriggerSource(0),
      m_CountdownTimer(),
      m_CountdownDpc(),
      m_CountdownTimerReady(0)
{
}

void SelfTimer::Initialize()
{
    KeInitializeTimerEx(&m_CountdownTimer, NotificationTimer);
    KeInitializeDpc(&m_CountdownDpc, CountdownDpcRoutine, this);
    m_CountdownTimerReady = 1;
}

void SelfTimer::StartCountdown(LONG Seconds)
{
    m_CountdownCounter = Seconds;
    if (m_CountdownTimerReady != 0) {
        LARGE_INTEGER due;
        due.QuadPart = kCountdownFirstDue;
        KeSetTimerEx(&m_CountdownTimer, due, kCountdownPeriodMs, &m_CountdownDpc);
    }
}

void SelfTimer::CancelCountdown()
{
    if (m_CountdownCounter >= 0) {
        if (m_CountdownTimerReady != 0) {
            KeCancelTimer(&m_CountdownTimer);
        }
        m_CountdownCounter = -1;
    }
}

void SelfTimer::FlushCountdown()
{
    if (m_CountdownTimerReady != 0) {
        KeCancelTimer(&m_CountdownTimer);
        KeFlushQueuedDpcs();
    }
}

NTSTATUS SelfTimer::Trigger(LONG SelfTimerSeconds, ULONG TriggerSource)
{
    if (m_CountdownCounter >= 0) {
        return kStatusCountdownRunning;
    }
    if (SelfTimerSeconds < 0) {
        m_StillRequest = 1;
        m_TriggerSource = TriggerSource;
    } else {
        StartCountdown(SelfTimerSeconds);
    }
    return STATUS_SUCCESS;
}

// Once a second while a countdown runs; the second after it reaches 0 the
// still is requested and the timer stops.
VOID SelfTimer::CountdownDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pTimer = static_cast<SelfTimer*>(pContext);
    if (pTimer->m_CountdownCounter < 1) {
        pTimer->m_CountdownCounter--;
        KeCancelTimer(&pTimer->m_CountdownTimer);
        pTimer->m_StillRequest = 1;
        pTimer->m_SoftwareTrigger = 0;
    } else {
        pTimer->m_CountdownCounter--;
    }
}

NTSTATUS GenerateStillEvent(PKSDEVICE pKsDevice)
{
    static const GUID eventSet = {STATICGUIDOF(KSEVENTSETID_VIDCAPTOSTI)};
    KsAcquireDevice(pKsDevice);
    PKSFILTERFACTORY pFactory = KsDeviceGetFirstChildFilterFactory(pKsDevice);
    PKSFILTER pFilter = pFactory != nullptr ? KsFilterFactoryGetFirstChildFilter(pFactory) : nullptr;
    if (pFilter != nullptr) {
        KsFilterGenerateEvents(pFilter, &eventSet, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER, 0, nullptr, nullptr, nullptr);
        if (KsFilterGetNextSiblingFilter(pFilter) != nullptr) {
            KsFilterGenerateEvents(pFilter, &eventSet, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER, 0, nullptr, nullptr, nullptr);
        }
    }
    KsReleaseDevice(pKsDevice);
    return STATUS_SUCCESS;
}

StillEventSender::StillEventSender() : m_pKsDevice(nullptr), m_pFunctionalDeviceObject(nullptr), m_Pending(0) {}

void StillEventSender::Initialize(PKSDEVICE pKsDevice, PDEVICE_OBJECT pFunctionalDeviceObject)
{
    m_pKsDevice = pKsDevice;
    m_pFunctionalDeviceObject = pFunctionalDeviceObject;
}

void StillEventSender::Request()
{
    if (m_pKsDevice == nullptr) {
        return;
    }
    auto* pItem = static_cast<Item*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Item), kv::kTagButtonWork));
    if (pItem == nullptr) {
        return;
    }
    pItem->pSender = this;
    pItem->pWorkItem = IoAllocateWorkItem(m_pFunctionalDeviceObject);
    if (pItem->pWorkItem == nullptr) {
        ExFreePoolWithTag(pItem, kv::kTagButtonWork);
        return;
    }
    InterlockedIncrement(&m_Pending);
    IoQueueWorkItem(pItem->pWorkItem, Worker, DelayedWorkQueue, pItem);
}

VOID StillEventSender::Worker(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pItem = static_cast<Item*>(pContext);
    StillEventSender* pSender = pItem->pSender;
    GenerateStillEvent(pSender->m_pKsDevice);
    IoFreeWorkItem(pItem->pWorkItem);
    ExFreePoolWithTag(pItem, kv::kTagButtonWork);
    InterlockedDecrement(&pSender->m_Pending);
}

void StillEventSender::WaitForIdle()
{
    while (InterlockedCompareExchange(&m_Pending, 0, 0) != 0) {
        PauseBriefly();
    }
}

// ---- InterruptEndpoint ---------------------------------------------------------------------

// One received packet on its way to PASSIVE_LEVEL: its length and the
// receive buffer as it stands (84 bytes).
struct InterruptEndpoint::WorkContext {
    ULONG Length;
    UCHAR Data[INTERRUPT_BUFFER_SIZE];
    PIO_WORKITEM pWorkItem;
    InterruptEndpoint* pEndpoint;
};

InterruptEndpoint::InterruptEndpoint()
    : m_Running(0),
      m_Targets{nullptr, nullptr, nullptr},
      m_LastState(kNoState),
      m_CurrentState(kNoState),
      m_LongPressTimer(),
      m_LongPressDpc(),
      m_PressDuration(0),
      m_DoubleClickTimer(),
      m_DoubleClickDpc(),
      m_DoubleClickCounter(0),
      m_DoubleClickArmed(0),
      m_EffectLock(0),
      m_IdleEvent(),
      m_DrainedEvent(),
      m_Outstanding(0),
      m_InCompletion(0),
      m_pIrp(nullptr),
      m_pUrb(nullptr),
      m_pBuffer(nullptr),
      m_hPipe(nullptr),
      m_pFunctionalDeviceObject(nullptr),
      m_pNextDeviceObject(nullptr),
      m_Initialized(0)
{
}

InterruptEndpoint::~InterruptEndpoint()
{
    Free();
}

NTSTATUS InterruptEndpoint::Initialize(const ButtonTargets& Targets, PDEVICE_OBJECT pFunctionalDeviceObject,
                                       PDEVICE_OBJECT pNextDeviceObject, USBD_PIPE_HANDLE hPipe)
{
    m_Targets = Targets;
    m_pFunctionalDeviceObject = pFunctionalDeviceObject;
    m_pNextDeviceObject = pNextDeviceObject;
    m_hPipe = hPipe;
    m_pIrp = IoAllocateIrp(pNextDeviceObject->StackSize, FALSE);
    m_pUrb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, INTERRUPT_URB_SIZE, kv::kTagInterrupt));
    m_pBuffer = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, INTERRUPT_BUFFER_SIZE, kv::kTagInterrupt));
    if (m_pIrp == nullptr || m_pUrb == nullptr || m_pBuffer == nullptr) {
        Free();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeInitializeEvent(&m_IdleEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&m_DrainedEvent, NotificationEvent, TRUE);
    m_Outstanding = 0;
    m_LastState = kNoState;
    m_CurrentState = kNoState;
    m_PressDuration = 0;
    m_DoubleClickCounter = 0;
    m_DoubleClickArmed = 0;
    KeInitializeTimerEx(&m_LongPressTimer, NotificationTimer);
    KeInitializeDpc(&m_LongPressDpc, LongPressDpcRoutine, this);
    KeInitializeTimerEx(&m_DoubleClickTimer, NotificationTimer);
    KeInitializeDpc(&m_DoubleClickDpc, DoubleClickDpcRoutine, this);
    KeInitializeSpinLock(&m_EffectLock);
    m_Initialized = 1;
    return STATUS_SUCCESS;
}

void InterruptEndpoint::BuildIrp()
{
    IoReuseIrp(m_pIrp, STATUS_UNSUCCESSFUL);
    PIO_STACK_LOCATION pStack = IoGetNextIrpStackLocation(m_pIrp);
    pStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pStack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    pStack->Parameters.Others.Argument1 = m_pUrb;
    IoSetCompletionRoutine(m_pIrp, CompletionRoutine, this, TRUE, TRUE, TRUE);
    RtlZeroMemory(m_pUrb, INTERRUPT_URB_SIZE);
    UsbBuildInterruptOrBulkTransferRequest(m_pUrb, static_cast<USHORT>(INTERRUPT_URB_SIZE), m_hPipe, m_pBuffer,
                                           nullptr, INTERRUPT_BUFFER_SIZE,
                                           USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, nullptr);
}

NTSTATUS InterruptEndpoint::Send()
{
    BuildIrp();
    KeClearEvent(&m_IdleEvent);
    return IoCallDriver(m_pNextDeviceObject, m_pIrp);
}

NTSTATUS InterruptEndpoint::Start()
{
    InterlockedExchange(&m_Running, 1);
    const NTSTATUS status = Send();
    if (!NT_SUCCESS(status)) {
        KeSetEvent(&m_IdleEvent, IO_NO_INCREMENT, FALSE);
    }
    return status;
}

// A completion that saw the running flag just before it was cleared sends
// the transfer once more; so the cancel is repeated until the transfer is
// idle with no completion under way. Then the packets' work items, which use
// this object, are waited out.
void InterruptEndpoint::Cancel()
{
    if (m_pIrp == nullptr) {
        return;
    }
    InterlockedExchange(&m_Running, 0);
    do {
        IoCancelIrp(m_pIrp);
        KeWaitForSingleObject(&m_IdleEvent, Executive, KernelMode, FALSE, nullptr);
        while (InterlockedCompareExchange(&m_InCompletion, 0, 0) != 0) {
            PauseBriefly();
        }
    } while (KeReadStateEvent(&m_IdleEvent) == 0);
    while (InterlockedCompareExchange(&m_Outstanding, 0, 0) != 0) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = kDrainPoll;
        KeWaitForSingleObject(&m_DrainedEvent, Executive, KernelMode, FALSE, &timeout);
    }
}

// The timers stay initialised (a second Free cancels them again).
void InterruptEndpoint::Free()
{
    if (m_Initialized != 0) {
        KeCancelTimer(&m_LongPressTimer);
        KeCancelTimer(&m_DoubleClickTimer);
        // A tick already queued must not run into freed memory.
        KeFlushQueuedDpcs();
    }
    if (m_pIrp != nullptr) {
        IoFreeIrp(m_pIrp);
        m_pIrp = nullptr;
    }
    FreeTagged(m_pUrb, kv::kTagInterrupt);
    FreeTagged(m_pBuffer, kv::kTagInterrupt);
    m_LastState = kNoState;
    m_CurrentState = kNoState;
}

// Any IRQL up to DISPATCH_LEVEL. The IRP belongs to the driver and is sent
// again from here, so the completion always ends it for the I/O manager.
NTSTATUS InterruptEndpoint::CompletionRoutine(PDEVICE_OBJECT pDeviceObject, PIRP pIrp, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pThis = static_cast<InterruptEndpoint*>(pContext);
    InterlockedIncrement(&pThis->m_InCompletion);
    KeSetEvent(&pThis->m_IdleEvent, IO_NO_INCREMENT, FALSE);
    if (!pIrp->Cancel && NT_SUCCESS(pIrp->IoStatus.Status) && pThis->m_Running != 0) {
        pThis->QueuePacket();
        if (!NT_SUCCESS(pThis->Send())) {
            InterlockedExchange(&pThis->m_Running, 0);
            KeSetEvent(&pThis->m_IdleEvent, IO_NO_INCREMENT, FALSE);
            DbgPrint("InterruptCompletion() fail to IoCallDriver, fail to recycle Interrupt Irp.\n");
        }
    }
    InterlockedDecrement(&pThis->m_InCompletion);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The packet just received, copied for a work item.
void InterruptEndpoint::QueuePacket()
{
    auto* pWork = static_cast<WorkContext*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(WorkContext), kv::kTagButtonWork));
    if (pWork == nullptr) {
        DbgPrint("InterruptCompletion() Failed to allocate memory for a workitem context\n");
        return;
    }
    ULONG length = m_pUrb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    // The bus never reports more than the buffer holds; a length beyond it
    // is not trusted.
    if (length > INTERRUPT_BUFFER_SIZE) {
        length = INTERRUPT_BUFFER_SIZE;
    }
    pWork->Length = length;
    // The whole receive buffer: a packet of 2 or 3 bytes is read with the
    // bytes after it as they stand there (the previous packet's).
    RtlCopyMemory(pWork->Data, m_pBuffer, INTERRUPT_BUFFER_SIZE);
    pWork->pEndpoint = this;
    pWork->pWorkItem = IoAllocateWorkItem(m_pFunctionalDeviceObject);
    if (pWork->pWorkItem == nullptr) {
        ExFreePoolWithTag(pWork, kv::kTagButtonWork);
        DbgPrint("InterruptCompletion() Failed to call IoAllocateWorkItem\n");
        return;
    }
    InterlockedIncrement(&m_Outstanding);
    KeClearEvent(&m_DrainedEvent);
    IoQueueWorkItem(pWork->pWorkItem, WorkItemRoutine, DelayedWorkQueue, pWork);
}

VOID InterruptEndpoint::WorkItemRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pWork = static_cast<WorkContext*>(pContext);
    InterruptEndpoint* pThis = pWork->pEndpoint;
    pThis->HandlePacket(pWork->Data, pWork->Length);
    IoFreeWorkItem(pWork->pWorkItem);
    ExFreePoolWithTag(pWork, kv::kTagButtonWork);
    if (InterlockedDecrement(&pThis->m_Outstanding) == 0) {
        KeSetEvent(&pThis->m_DrainedEvent, IO_NO_INCREMENT, FALSE);
    }
}

void InterruptEndpoint::HandlePacket(const UCHAR* pData, ULONG Length)
{
    if (Length < 2) {
        DbgPrint("InterruptWorkItem() get one broken interrupt packet ( len < 2), drop it.\n");
        return;
    }
    // Only the length test of 2 is made: pData is the whole receive buffer,
    // so a short packet's event and value bytes are read as they stand.
    if ((pData[kStatusTypeOffset] & 0x0F) != kStatusTypeStreaming || pData[kEventOffset] != kEventButton) {
        return;
    }
    HandleButton(pData[kValueOffset]);
}

void InterruptEndpoint::HandleButton(UCHAR Value)
{
    DeviceSettings& settings = *m_Targets.pSettings;
    const bool report = settings.m_Key2Function == kReportModeOn;
    if (settings.m_Key1Function == kButtonModeStill) {
        if (Value >= 2) {
            return;
        }
        switch (DetectClick(Value)) {
        case PRESS_LONG:
            TriggerStill();
            break;
        case PRESS_CLICK:
            StepEffectOrFrame();
            break;
        case PRESS_DOUBLE:
            ClearEffectAndFrame();
            break;
        default:
            break;
        }
        return;
    }
    if (settings.m_Key1Function != kButtonModeReport) {
        return;
    }
    // Work items may run at once: the report bits are set atomically.
    volatile LONG* pReport = &settings.m_OneShotValue;
    switch (Value) {
    case 0:
        if (report) InterlockedOr(pReport, kReportReleased);
        break;
    case 1:
        if (*m_Targets.pStreaming != 0) TriggerStill();
        if (report) InterlockedOr(pReport, kReportPressed);
        break;
    case 2:
        if (report) {
            InterlockedOr(pReport, kReportReleased2);
            break;
        }
        // "Treated as 3": the press detector then takes the value itself,
        // a release, which is what ends a press.
        [[fallthrough]];
    case 3:
        if (report) {
            InterlockedOr(pReport, kReportPressed2);
            break;
        }
        switch (DetectPress(Value)) {
        case PRESS_LONG:
            ClearEffectAndFrame();
            break;
        case PRESS_CLICK:
            StepEffectOrFrame();
            break;
        default:
            break;
        }
        break;
    default:
        break;
    }
}

void InterruptEndpoint::ResetPress()
{
    m_LastState = kNoState;
    m_CurrentState = kNoState;
    m_PressDuration = 0;
    KeCancelTimer(&m_LongPressTimer);
}

ULONG InterruptEndpoint::DetectPress(UCHAR State)
{
    m_CurrentState = State;
    if (m_LastState != kNoState) {
        if (!IsPressed(m_LastState)) {
            m_LastState = State;
            return PRESS_NONE;
        }
        if (IsReleased(State)) {
            const ULONG result = m_PressDuration < kClickLimitMs ? PRESS_CLICK : PRESS_LONG;
            ResetPress();
            return result;
        }
        if (IsPressed(State)) {
            m_CurrentState = kNoState;
            return PRESS_NONE;
        }
        m_LastState = State;
        return PRESS_NONE;
    }
    if (IsPressed(State)) {
        StartTicks(&m_LongPressTimer, &m_LongPressDpc);
        m_LastState = State;
    } else if (IsReleased(State)) {
        m_CurrentState = kNoState;
    } else {
        m_LastState = State;
    }
    return PRESS_NONE;
}

ULONG InterruptEndpoint::DetectClick(UCHAR State)
{
    if (m_DoubleClickArmed != 0) {
        ULONG result = DetectPress(State);
        if (result == PRESS_NONE) {
            return PRESS_NONE;
        }
        if (result == PRESS_CLICK && m_DoubleClickCounter < kDoubleClickMs) {
            result = PRESS_DOUBLE;
        }
        KeCancelTimer(&m_DoubleClickTimer);
        m_DoubleClickCounter = 0;
        m_DoubleClickArmed = 0;
        return result;
    }
    const ULONG result = DetectPress(State);
    if (result == PRESS_CLICK) {
        m_DoubleClickCounter = 0;
        StartTicks(&m_DoubleClickTimer, &m_DoubleClickDpc);
        m_DoubleClickArmed = 1;
    }
    return result;
}

// Every 200 ms while the button is held: at 2 s the long press acts without
// waiting for the release.
VOID InterruptEndpoint::LongPressDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pThis = static_cast<InterruptEndpoint*>(pContext);
    pThis->m_PressDuration += kButtonTickMs;
    if (pThis->m_PressDuration < kLongPressMs) {
        return;
    }
    pThis->ResetPress();
    pThis->OnLongPress();
}

VOID InterruptEndpoint::DoubleClickDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pThis = static_cast<InterruptEndpoint*>(pContext);
    pThis->m_DoubleClickCounter += kButtonTickMs;
    if (pThis->m_DoubleClickCounter >= kDoubleClickMs) {
        pThis->m_DoubleClickArmed = 0;
        pThis->m_DoubleClickCounter = 0;
        KeCancelTimer(&pThis->m_DoubleClickTimer);
    }
}

// At DISPATCH_LEVEL from the long-press DPC: both actions only set flags and
// slots (the frame loop loads what a photo frame needs).
void InterruptEndpoint::OnLongPress()
{
    if (m_Targets.pSettings->m_Key1Function == kButtonModeStill) {
        TriggerStill();
    } else {
        ClearEffectAndFrame();
    }
}

void InterruptEndpoint::TriggerStill()
{
    const DeviceProperty* pProperty = m_Targets.pSettings->m_Property;
    const LONG seconds = pProperty != nullptr ? pProperty->Slot[SLOT_SELF_TIMER] : -1;
    // A click during a countdown is refused; the countdown goes on.
    m_Targets.pSelfTimer->Trigger(seconds, 0);
}

void InterruptEndpoint::StepEffectOrFrame()
{
    DeviceProperty* pProperty = m_Targets.pSettings->m_Property;
    if (pProperty == nullptr) {
        return;
    }
    LONG frame = 0;
    do {
        KIRQL irql;
        KeAcquireSpinLock(&m_EffectLock, &irql);
        LONG effect = pProperty->Slot[SLOT_SPECIAL_EFFECT];
        frame = pProperty->Slot[SLOT_SPECIAL_FRAME];
        if (effect != 0 && frame != 0) {
            effect = (effect + 1) % kEffectCount;
            frame = 0;
        } else if (effect != 0) {
            effect = (effect + 1) % kEffectCount;
            if (effect == 0) {
                frame += 1;
            }
        } else if (frame != 0) {
            frame = (frame + 1) % kFrameCount;
        } else {
            effect = 1;
        }
        pProperty->Slot[SLOT_SPECIAL_EFFECT] = effect;
        pProperty->Slot[SLOT_SPECIAL_FRAME] = frame;
        KeReleaseSpinLock(&m_EffectLock, irql);
        // A photo frame whose picture does not load is skipped.
    } while (frame > 0 && !NT_SUCCESS(LoadFrameBitmap(static_cast<ULONG>(frame), kStepFrameWidth, kStepFrameHeight,
                                                      FRAME_LOAD_CHECK_ONLY, nullptr)));
}

void InterruptEndpoint::ClearEffectAndFrame()
{
    DeviceProperty* pProperty = m_Targets.pSettings->m_Property;
    if (pProperty == nullptr) {
        return;
    }
    KIRQL irql;
    KeAcquireSpinLock(&m_EffectLock, &irql);
    pProperty->Slot[SLOT_SPECIAL_EFFECT] = 0;
    pProperty->Slot[SLOT_SPECIAL_FRAME] = 0;
    KeReleaseSpinLock(&m_EffectLock, irql);
}
