// The simulated kernel's extended processor state routines hold code to the
// documented rules: saves and restores nest per thread at one IRQL, at
// DISPATCH_LEVEL or below, for enabled features only, and nothing returns
// with a state still saved. A save can fail as a pool allocation does.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {

const bool g_virtual = (kvsim::SetClockMode(kvsim::ClockMode::Virtual), true);

// A feature the system cannot have enabled (bit 63 is reserved in XCR0).
constexpr ULONG64 kReservedFeature = 1ULL << 63;

std::string Violations() {
    std::string all;
    for (const auto& v : kvsim::TakeViolations()) all += v + "\n";
    return all;
}

void SaveInDpcAndKeep(PKDPC, PVOID context, PVOID, PVOID) {
    KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, static_cast<PXSTATE_SAVE>(context));
}

TEST(XState, NestedSavesRestoredInOrderAreQuiet) {
    XSTATE_SAVE outer, inner;
    ASSERT_EQ(KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &outer), STATUS_SUCCESS);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ASSERT_EQ(KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &inner), STATUS_SUCCESS);
    KeRestoreExtendedProcessorState(&inner);
    KeLowerIrql(old);
    KeRestoreExtendedProcessorState(&outer);
    EXPECT_EQ(Violations(), "");
}

TEST(XState, EachBrokenRuleIsReported) {
    struct Case {
        const char* rule;
        std::function<void()> run;
        const char* report;
    };
    static XSTATE_SAVE a, b;
    const Case cases[] = {
        {"restore without a save", [] { KeRestoreExtendedProcessorState(&a); }, "it has none saved"},
        {"outer restored first",
         [] {
             KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &a);
             KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &b);
             KeRestoreExtendedProcessorState(&a);
             KeRestoreExtendedProcessorState(&b);
             KeRestoreExtendedProcessorState(&a);
         },
         "must nest"},
        {"restore at another IRQL",
         [] {
             KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &a);
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             KeRestoreExtendedProcessorState(&a);
             KeLowerIrql(old);
         },
         "saved at IRQL 0"},
        {"save above DISPATCH_LEVEL",
         [] {
             KIRQL old;
             KeRaiseIrql(HIGH_LEVEL, &old);
             KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &a);
             KeRestoreExtendedProcessorState(&a);
             KeLowerIrql(old);
         },
         "must be <= DISPATCH_LEVEL"},
        {"a feature not enabled",
         [] {
             KeSaveExtendedProcessorState(kReservedFeature, &a);
             KeRestoreExtendedProcessorState(&a);
         },
         "has not enabled"},
        {"a DPC keeps its save",
         [] {
             KDPC dpc;
             KeInitializeDpc(&dpc, SaveInDpcAndKeep, &a);
             KeInsertQueueDpc(&dpc, nullptr, nullptr);
             KeFlushQueuedDpcs();
         },
         "ended with extended processor state saved"},
    };
    for (const Case& c : cases) {
        c.run();
        const std::string reported = Violations();
        EXPECT_NE(reported.find(c.report), std::string::npos) << c.rule << ": " << reported;
    }
}

TEST(XState, SaveFailsWhenItsAllocationIsRefused) {
    kvsim::PoolFailTag(kvsim::PoolTag("XSav"));
    XSTATE_SAVE state;
    EXPECT_EQ(KeSaveExtendedProcessorState(XSTATE_MASK_LEGACY_SSE, &state), STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    KeRestoreExtendedProcessorState(&state);
    EXPECT_NE(Violations().find("it has none saved"), std::string::npos) << "a failed save saved nothing";
}

}  // namespace
