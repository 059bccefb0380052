// The self-timer's countdown: a one-second periodic timer whose DPC counts
// down and, at the end, asks the frame loop for a still. The camera's button
// (the interrupt endpoint) starts it; so does the driver-control property.
#pragma once

#include "wdk.h"

class SelfTimer {
public:
    SelfTimer();
    SelfTimer(const SelfTimer&) = delete;
    SelfTimer& operator=(const SelfTimer&) = delete;

    // Device start: the timer and its DPC.
    void Initialize();
    // Device stop and remove: a running countdown is cancelled.
    // Starts a countdown of `Seconds`: the DPC runs a second from now, then
    // every second.
    void StartCountdown(LONG Seconds);
    void CancelCountdown();
    // Remove: the timer is cancelled whatever the counter says, and a DPC of
    // an expiry just before is waited for, as the device's memory goes next.
    void FlushCountdown();

    LONG m_CountdownCounter;  // -1 when no countdown runs
    ULONG m_StillRequest;     // set when a countdown ends: the frame loop takes a still
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
