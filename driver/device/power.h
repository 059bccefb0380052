// Idle power and the device's power states. When "SWSetting" enables it, a
// periodic idle timer looks every 5 s for a device that is in D0 with no
// open filter and no stream, and a work item then asks for D3; an open
// filter asks for D0 again. A system sleep stops the timer and the set-power
// that follows it restarts it once.
#pragma once

#include "wdk.h"

// Set by the idle work item when it asks for D3.
extern ULONG g_KvIdlePowerDownRequested;

class IdlePower {
public:
    IdlePower();
    IdlePower(const IdlePower&) = delete;
    IdlePower& operator=(const IdlePower&) = delete;

    // Our functional device object (for work items) and the physical one
    // (power IRPs go to the top of the device stack through it).
    void Attach(PDEVICE_OBJECT pFunctionalDeviceObject, PDEVICE_OBJECT pPhysicalDeviceObject);

    // Arms the idle timer (device start, when enabled).
    void StartIdleManagement();
    // Device stop (PowerUp TRUE: the camera is brought back to D0 first),
    // surprise removal and remove (FALSE): no idle routine runs after it
    // returns.
    void EndIdleManagement(BOOLEAN PowerUp);
    // A D0 set-power request; m_PowerUpEvent is set when it has completed.
    NTSTATUS RequestPowerUp();
    // A capture pin starts to run: with idle power, the device is marked
    // busy, powered up when it sleeps, and the idle timer starts again.
    void StreamStarts();
    // The device's QueryPower and SetPower dispatch, under the device mutex.
    NTSTATUS QueryPower(POWER_ACTION Action, SYSTEM_POWER_STATE SystemTo, SYSTEM_POWER_STATE SystemFrom);
    void SetPower(DEVICE_POWER_STATE To, DEVICE_POWER_STATE From);

    ULONG m_IdlePowerEnabled;  // "SWSetting" bit 0
    ULONG m_IdleActive;
    ULONG m_StreamBusy;        // a pin holds the device-wide streaming slot
    ULONG m_OpenFilterCount;
    ULONG m_DevicePowerState;  // the state being entered, a DEVICE_POWER_STATE
    DEVICE_POWER_STATE m_DevicePowerStateFrom;
    POWER_ACTION m_LastPowerAction;
    SYSTEM_POWER_STATE m_SystemStateFrom;
    SYSTEM_POWER_STATE m_SystemStateTo;
    UCHAR m_ResumePending;

private:
    friend struct DriverTestAccess;

    bool DeviceIdle() const;
    static KDEFERRED_ROUTINE IdleDpcRoutine;
    static IO_WORKITEM_ROUTINE IdleWorkRoutine;
    static IO_WORKITEM_ROUTINE TimerRestartWorkRoutine;

    PDEVICE_OBJECT m_pFunctionalDeviceObject;
    PDEVICE_OBJECT m_pPhysicalDeviceObject;
    KTIMER m_IdleTimer;
    KDPC m_IdleDpc;
    KSPIN_LOCK m_IdleSpinLock;
    PIO_WORKITEM m_pIdleWorkItem;
    PIO_WORKITEM m_pTimerRestartWorkItem;
    KEVENT m_IdlePassEvent;
    KEVENT m_PowerUpEvent;
    // Signalled while no timer-restart work item is outstanding, so that the
    // end of idle management can wait for one still queued.
    KEVENT m_TimerRestartIdle;
    // Nothing sets it today: a set-power it would skip always restarts the timer.
    UCHAR m_SuppressTimerRestart;
    // Set while the idle timer and DPC are initialised (start until
    // EndIdleManagement), so that remove can end a scheme that a failed
    // start left running (such a device gets no stop).
    UCHAR m_IdleTimerStarted;
};
