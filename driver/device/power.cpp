// Idle power management and the device's power dispatch.
//
// Choices worth knowing:
//  - The end of idle management flushes queued DPCs and waits for an
//    outstanding timer-restart work item, and that work item re-arms the
//    timer only while idle management is active; so no idle routine runs
//    after stop, surprise removal or remove have returned.
//  - A power-up request that PoRequestPowerIrp refuses sets the power-up
//    event at once, so that nobody waits for a completion that never comes.
#include "device/power.h"

ULONG g_KvIdlePowerDownRequested = 0;

namespace {

// Idle timer: first expiry after 5 s (relative, 100-ns units), then every
// 5000 ms.
constexpr LONGLONG kIdleFirstDue = -50000000LL;
constexpr LONG kIdlePeriodMs = 5000;
// The idle work item waits for its D3 request in 5-second slices.
constexpr LONGLONG kPowerDownWaitSlice = -50000000LL;

void SetIdleTimer(PKTIMER pTimer, PKDPC pDpc)
{
    LARGE_INTEGER due;
    due.QuadPart = kIdleFirstDue;
    KeSetTimerEx(pTimer, due, kIdlePeriodMs, pDpc);
}

// Completion of a power IRP the driver requested: signal the event given
// as context.
VOID SignalPowerEvent(PDEVICE_OBJECT pDeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID pContext,
                      PIO_STATUS_BLOCK pIoStatus)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    UNREFERENCED_PARAMETER(pIoStatus);
    KeSetEvent(static_cast<PKEVENT>(pContext), IO_NO_INCREMENT, FALSE);
}

}  // namespace

IdlePower::IdlePower()
    : m_IdlePowerEnabled(0),
      m_IdleActive(0),
      m_StreamBusy(0),
      m_OpenFilterCount(0),
      m_DevicePowerState(PowerDeviceD0),
      m_DevicePowerStateFrom(PowerDeviceD0),
      m_LastPowerAction(PowerActionNone),
      m_SystemStateFrom(PowerSystemWorking),
      m_SystemStateTo(PowerSystemWorking),
      m_ResumePending(0),
      m_pFunctionalDeviceObject(nullptr),
      m_pPhysicalDeviceObject(nullptr),
      m_IdleTimer(),
      m_IdleDpc(),
      m_IdleSpinLock(0),
      m_pIdleWorkItem(nullptr),
      m_pTimerRestartWorkItem(nullptr),
      m_IdlePassEvent(),
      m_PowerUpEvent(),
      m_TimerRestartIdle(),
      m_SuppressTimerRestart(0),
      m_IdleTimerStarted(0)
{
}

void IdlePower::Attach(PDEVICE_OBJECT pFunctionalDeviceObject, PDEVICE_OBJECT pPhysicalDeviceObject)
{
    m_pFunctionalDeviceObject = pFunctionalDeviceObject;
    m_pPhysicalDeviceObject = pPhysicalDeviceObject;
}

// In D0 (or unspecified), no stream and no open filter.
bool IdlePower::DeviceIdle() const
{
    return m_DevicePowerState <= PowerDeviceD0 && m_StreamBusy == 0 && m_OpenFilterCount == 0;
}

// A coming system sleep (sleep, hibernate, shutdown and beyond) stops the
// idle timer; the set-power that follows the wake restarts it.
NTSTATUS IdlePower::QueryPower(POWER_ACTION Action, SYSTEM_POWER_STATE SystemTo, SYSTEM_POWER_STATE SystemFrom)
{
    m_LastPowerAction = Action;
    if (m_IdlePowerEnabled != 0) {
        m_SystemStateTo = SystemTo;
        m_SystemStateFrom = SystemFrom;
        if (Action >= PowerActionSleep) {
            m_ResumePending = 1;
            if (m_IdleTimerStarted != 0) {
                KeCancelTimer(&m_IdleTimer);
            }
        }
    }
    return STATUS_SUCCESS;
}

// The set-power after an announced system sleep restarts the idle timer
// once, from a work item.
void IdlePower::SetPower(DEVICE_POWER_STATE To, DEVICE_POWER_STATE From)
{
    m_DevicePowerState = static_cast<ULONG>(To);
    m_DevicePowerStateFrom = From;
    if (m_IdlePowerEnabled == 0 || m_ResumePending != 1) {
        return;
    }
    if (m_SuppressTimerRestart != 0) {
        m_SuppressTimerRestart = 0;
        return;
    }
    m_ResumePending = 0;
    // Under the idle lock: once EndIdleManagement has cleared m_IdleActive no
    // restart is queued, and the slot and the event change together with the
    // work routine's.
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_IdleSpinLock, &oldIrql);
    if (m_IdleTimerStarted != 0 && m_IdleActive != 0 && m_pTimerRestartWorkItem == nullptr) {
        m_pTimerRestartWorkItem = IoAllocateWorkItem(m_pFunctionalDeviceObject);
        if (m_pTimerRestartWorkItem != nullptr) {
            KeClearEvent(&m_TimerRestartIdle);
            IoQueueWorkItem(m_pTimerRestartWorkItem, TimerRestartWorkRoutine, DelayedWorkQueue, this);
        }
    }
    KeReleaseSpinLock(&m_IdleSpinLock, oldIrql);
}

void IdlePower::TimerRestartWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pIdle = static_cast<IdlePower*>(pContext);
    // Checked and armed under the lock that EndIdleManagement clears
    // m_IdleActive under: a timer armed before the clear is cancelled after
    // it, and none is armed after it. The event is set under the lock too;
    // EndIdleManagement takes the lock once more after its wait, so that
    // this routine has let go of the device before the device can go.
    KIRQL oldIrql;
    KeAcquireSpinLock(&pIdle->m_IdleSpinLock, &oldIrql);
    if (pIdle->m_IdleActive != 0) {
        SetIdleTimer(&pIdle->m_IdleTimer, &pIdle->m_IdleDpc);
    }
    PIO_WORKITEM pWorkItem = pIdle->m_pTimerRestartWorkItem;
    pIdle->m_pTimerRestartWorkItem = nullptr;
    KeSetEvent(&pIdle->m_TimerRestartIdle, IO_NO_INCREMENT, FALSE);
    KeReleaseSpinLock(&pIdle->m_IdleSpinLock, oldIrql);
    IoFreeWorkItem(pWorkItem);
}

NTSTATUS IdlePower::RequestPowerUp()
{
    KeClearEvent(&m_PowerUpEvent);
    POWER_STATE state;
    state.DeviceState = PowerDeviceD0;
    NTSTATUS status =
        PoRequestPowerIrp(m_pPhysicalDeviceObject, IRP_MN_SET_POWER, state, SignalPowerEvent, &m_PowerUpEvent, nullptr);
    if (status != STATUS_PENDING) {
        KeSetEvent(&m_PowerUpEvent, IO_NO_INCREMENT, FALSE);
    }
    return status;
}

void IdlePower::StreamStarts()
{
    if (m_IdlePowerEnabled == 0) {
        return;
    }
    m_StreamBusy = 1;
    if (m_DevicePowerState > PowerDeviceD0) {
        RequestPowerUp();
        KeWaitForSingleObject(&m_PowerUpEvent, Executive, KernelMode, FALSE, nullptr);
    }
    // Armed under the idle lock and only while the scheme is active, as the
    // restart work item does: a stop that ended the scheme has cancelled
    // the timer for good.
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_IdleSpinLock, &oldIrql);
    if (m_IdleTimerStarted != 0 && m_IdleActive != 0) {
        SetIdleTimer(&m_IdleTimer, &m_IdleDpc);
    }
    KeReleaseSpinLock(&m_IdleSpinLock, oldIrql);
}

void IdlePower::StartIdleManagement()
{
    KeInitializeSpinLock(&m_IdleSpinLock);
    KeInitializeDpc(&m_IdleDpc, IdleDpcRoutine, this);
    KeInitializeTimerEx(&m_IdleTimer, NotificationTimer);
    KeInitializeEvent(&m_IdlePassEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&m_PowerUpEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&m_TimerRestartIdle, NotificationEvent, TRUE);
    SetIdleTimer(&m_IdleTimer, &m_IdleDpc);
    m_pIdleWorkItem = nullptr;
    m_IdleTimerStarted = 1;
}

void IdlePower::EndIdleManagement(BOOLEAN PowerUp)
{
    if (m_IdleTimerStarted == 0) {
        return;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_IdleSpinLock, &oldIrql);
    m_IdleActive = 0;
    KeReleaseSpinLock(&m_IdleSpinLock, oldIrql);
    if (PowerUp) {
        RequestPowerUp();
        KeWaitForSingleObject(&m_PowerUpEvent, Executive, KernelMode, FALSE, nullptr);
    }
    KeCancelTimer(&m_IdleTimer);
    // A DPC of an expiry just before the cancel may still be queued; once it
    // has run, the idle-pass event tells whether its work item is done.
    KeFlushQueuedDpcs();
    KeWaitForSingleObject(&m_IdlePassEvent, Executive, KernelMode, FALSE, nullptr);
    // A restart queued before m_IdleActive was cleared leaves the timer
    // alone (it re-arms only while active); it must still finish first, and
    // release the idle lock it signals under.
    KeWaitForSingleObject(&m_TimerRestartIdle, Executive, KernelMode, FALSE, nullptr);
    KeAcquireSpinLock(&m_IdleSpinLock, &oldIrql);
    KeReleaseSpinLock(&m_IdleSpinLock, oldIrql);
    m_IdleTimerStarted = 0;
}

// One idle pass. The pass ends (event set) here, or in the work item it
// queues.
VOID IdlePower::IdleDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pIdle = static_cast<IdlePower*>(pContext);
    KeClearEvent(&pIdle->m_IdlePassEvent);
    if (pIdle->DeviceIdle() && pIdle->m_pIdleWorkItem == nullptr && pIdle->m_IdleActive == 1) {
        pIdle->m_pIdleWorkItem = IoAllocateWorkItem(pIdle->m_pFunctionalDeviceObject);
        if (pIdle->m_pIdleWorkItem != nullptr) {
            IoQueueWorkItem(pIdle->m_pIdleWorkItem, IdleWorkRoutine, DelayedWorkQueue, pIdle);
            return;
        }
    }
    KeSetEvent(&pIdle->m_IdlePassEvent, IO_NO_INCREMENT, FALSE);
}

// Powers down an idle device, or up a device that a filter needs again.
VOID IdlePower::IdleWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pIdle = static_cast<IdlePower*>(pContext);
    if (pIdle->DeviceIdle() && pIdle->m_IdleActive != 0) {
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        POWER_STATE state;
        state.DeviceState = PowerDeviceD3;
        NTSTATUS status =
            PoRequestPowerIrp(pIdle->m_pPhysicalDeviceObject, IRP_MN_SET_POWER, state, SignalPowerEvent, &done, nullptr);
        g_KvIdlePowerDownRequested = 1;
        if (status == STATUS_PENDING) {
            LARGE_INTEGER slice;
            slice.QuadPart = kPowerDownWaitSlice;
            do {
                status = KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, &slice);
            } while (status == STATUS_TIMEOUT);
            if (status != STATUS_SUCCESS) {
                DbgPrint("Wait not ended with success, and not with timeout?? Status= 0x%x\n",
                         static_cast<ULONG>(status));
            }
        }
    } else if (pIdle->m_OpenFilterCount != 0 && pIdle->m_DevicePowerState > PowerDeviceD0) {
        pIdle->RequestPowerUp();
    }
    PIO_WORKITEM pWorkItem = pIdle->m_pIdleWorkItem;
    pIdle->m_pIdleWorkItem = nullptr;
    IoFreeWorkItem(pWorkItem);
    KeSetEvent(&pIdle->m_IdlePassEvent, IO_NO_INCREMENT, FALSE);
}
