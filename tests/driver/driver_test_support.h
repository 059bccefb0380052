// What the driver tests share: the service key's paths, the debug log, a call
// at DISPATCH_LEVEL, and DriverTestAccess to the kernel objects IdlePower and
// SelfTimer keep private (they name it their friend).
#pragma once
#include <cstdio>
#include <string>
#include <vector>

#include "controls/interrupt.h"
#include "device/power.h"
#include "kvsim/diag.h"

struct DriverTestAccess {
    // The idle pass's work item.
    static PIO_WORKITEM IdleWorkItem(const IdlePower& idle) { return idle.m_pIdleWorkItem; }

    // Starts a countdown as the camera's button does: the DPC runs every second.
    static void StartCountdown(SelfTimer& timer, LONG seconds) { timer.StartCountdown(seconds); }
};

namespace drvtest {

inline const std::string kService = "\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\USBKV";
inline const std::string kData = kService + "\\Data";

// Whether a debug message is exactly `text`.
inline bool DebugSaid(const std::string& text)
{
    for (const auto& m : kvsim::DebugMessages()) {
        if (m == text) return true;
    }
    return false;
}

// Messages that begin with `prefix`.
inline std::vector<std::string> DebugStartingWith(const std::string& prefix)
{
    std::vector<std::string> out;
    for (const auto& m : kvsim::DebugMessages()) {
        if (m.rfind(prefix, 0) == 0) out.push_back(m);
    }
    return out;
}

inline std::string Hex(NTSTATUS status)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(status));
    return text;
}

// Runs `call` at DISPATCH_LEVEL and returns what it returns.
template <class Call>
auto AtDispatchLevel(Call call)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    auto result = call();
    KeLowerIrql(old);
    return result;
}

}  // namespace drvtest
