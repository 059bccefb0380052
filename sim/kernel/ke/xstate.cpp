// Extended processor state (AVX and later XSAVE components) in kernel code:
// KeSaveExtendedProcessorState, KeRestoreExtendedProcessorState and
// RtlGetEnabledExtendedFeatures. The simulation saves no registers (host
// threads keep their own); it keeps the bookkeeping Windows keeps and checks
// the rules the documentation gives:
//  - both routines at IRQL <= DISPATCH_LEVEL;
//  - the mask names only features the system has enabled;
//  - saves and restores nest: a restore takes back the innermost save of the
//    same thread, at the IRQL of that save;
//  - code restores what it saved before it exits (checked when a DPC, work
//    item or system thread's callback returns, and at the end of a test).
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-kesaveextendedprocessorstate
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-kerestoreextendedprocessorstate
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ntddk/nf-ntddk-rtlgetenabledextendedfeatures
//
// KeSaveExtendedProcessorState may fail with STATUS_INSUFFICIENT_RESOURCES
// (it may allocate the save area): each call is an allocation request with
// the tag "XSav" for the pool's fault injection.
#include <cpuid.h>

#include <cstdio>
#include <string>

#include "ke_internal.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"

using namespace kvsim::ke;

namespace {

const char kXStateTag[] = "XSav";
constexpr unsigned kCpuidOsXsave = 1u << 27;  // CPUID.1:ECX: the OS set CR4.OSXSAVE

// The host's XCR0: the state components its operating system saves, which
// is what Windows reports as enabled.
ULONG64 ReadHostEnabledFeatures() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx) || (ecx & kCpuidOsXsave) == 0) return 0;
    unsigned lo = 0, hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<ULONG64>(hi) << 32) | lo;
}

// Read once: it does not change while the process runs, and CPUID traps to
// the hypervisor on a virtual machine, which made every save cost
// microseconds.
ULONG64 HostEnabledFeatures() {
    static const ULONG64 enabled = ReadHostEnabledFeatures();
    return enabled;
}

bool CheckAtMostDispatch(SimThread* self, const char* what) {
    if (self->irql <= DISPATCH_LEVEL) return true;
    kvsim::ReportViolation("%s called at IRQL %u (must be <= DISPATCH_LEVEL)", what, self->irql);
    return false;
}

}  // namespace

namespace kvsim::ke {

std::string TakeUnrestoredXState(SimThread* t) {
    if (t->xstateTop == nullptr) return "";
    char text[120];
    snprintf(text, sizeof text, "extended processor state saved (mask 0x%llx) and not restored",
             static_cast<unsigned long long>(t->xstateTop->XStateContext.Mask));
    t->xstateTop = nullptr;
    return text;
}

void CheckXStateAfterCallback(SimThread* self, const char* what, const void* routine) {
    const std::string left = TakeUnrestoredXState(self);
    if (left.empty()) return;
    ReportViolation("%s %s ended with %s", what, routine ? RoutineName(routine).c_str() : "", left.c_str());
}

}  // namespace kvsim::ke

extern "C" {

ULONG64 RtlGetEnabledExtendedFeatures(ULONG64 FeatureMask) {
    SimThread* self = Self();
    if (self->irql != PASSIVE_LEVEL)
        kvsim::ReportViolation("RtlGetEnabledExtendedFeatures called at IRQL %u (must be PASSIVE_LEVEL)", self->irql);
    return HostEnabledFeatures() & FeatureMask;
}

NTSTATUS KeSaveExtendedProcessorState(ULONG64 Mask, PXSTATE_SAVE XStateSave) {
    SimThread* self = Self();
    CheckAtMostDispatch(self, "KeSaveExtendedProcessorState");
    // The legacy x87 and SSE state exists on every x64 system, XSAVE or not.
    const ULONG64 notEnabled = Mask & ~(HostEnabledFeatures() | XSTATE_MASK_LEGACY);
    if (notEnabled != 0)
        kvsim::ReportViolation("KeSaveExtendedProcessorState: mask 0x%llx names features the system has not enabled",
                               static_cast<unsigned long long>(notEnabled));
    if (kvsim::PoolTakeInjectedFailure(kvsim::PoolTag(kXStateTag))) return STATUS_INSUFFICIENT_RESOURCES;
    XStateSave->Prev = self->xstateTop;
    XStateSave->Thread = KThreadOf(self);
    XStateSave->Level = self->irql;
    XStateSave->XStateContext = XSTATE_CONTEXT{};
    XStateSave->XStateContext.Mask = Mask;
    self->xstateTop = XStateSave;
    return STATUS_SUCCESS;
}

VOID KeRestoreExtendedProcessorState(PXSTATE_SAVE XStateSave) {
    SimThread* self = Self();
    CheckAtMostDispatch(self, "KeRestoreExtendedProcessorState");
    if (XStateSave != self->xstateTop) {
        kvsim::ReportViolation(
            "KeRestoreExtendedProcessorState: %p is not the innermost state this thread saved (%s)",
            static_cast<void*>(XStateSave),
            self->xstateTop == nullptr ? "it has none saved" : "saves and restores must nest");
        return;
    }
    if (XStateSave->Level != self->irql)
        kvsim::ReportViolation("KeRestoreExtendedProcessorState at IRQL %u, but the state was saved at IRQL %u",
                               self->irql, XStateSave->Level);
    self->xstateTop = XStateSave->Prev;
}

}  // extern "C"
