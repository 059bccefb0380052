// The kernel objects the tests read or arm although the driver keeps them
// private: the idle timer (its due time and period), the idle work item, and
// the self-timer's countdown timer and DPC. IdlePower and SelfTimer name
// DriverTestAccess their friend; nothing else of theirs is reached this way.
#pragma once

#include "controls/interrupt.h"
#include "device/power.h"

struct DriverTestAccess {
    static const KTIMER& IdleTimer(const IdlePower& idle) { return idle.m_IdleTimer; }
    static PIO_WORKITEM IdleWorkItem(const IdlePower& idle) { return idle.m_pIdleWorkItem; }

    // Starts a countdown of `seconds` as the camera's button does: the DPC
    // runs once a second from one second on.
    static void StartCountdown(SelfTimer& timer, LONG seconds)
    {
        timer.m_CountdownCounter = seconds;
        LARGE_INTEGER due;
        due.QuadPart = -10'000'000;
        KeSetTimerEx(&timer.m_CountdownTimer, due, 1000, &timer.m_CountdownDpc);
    }
};
