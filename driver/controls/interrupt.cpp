// The self-timer's countdown timer and DPC.
#include "controls/interrupt.h"

namespace {

// The countdown's DPC: a second after the start, then once a second.
constexpr LONGLONG kCountdownFirstDue = -10000000LL;
constexpr LONG kCountdownPeriodMs = 1000;

}  // namespace

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
