// The simulated ks.sys's checks of the minidriver: Driver Verifier's rules for
// AVStream drivers ("verifier /domain ks") that are not about one call alone.
// https://learn.microsoft.com/windows-hardware/drivers/devtest/rules-for-avstream-drivers
//  - KsDeviceMutex: every KsAcquireDevice has its KsReleaseDevice within the
//    same callback (.../devtest/ks-ksdevicemutex);
//  - KsTimedDeviceCallbacks / KsTimedFilterCallbacks / KsTimedPinCallbacks:
//    a device, filter or pin callback returns within 500 ms
//    (.../devtest/ks-kstimeddevicecallbacks, ks-kstimedfiltercallbacks,
//    ks-kstimedpincallbacks; bug check 0xC4 parameters 0x82002 to 0x82004);
//  - KsProcessingMutex: the processing mutex is not acquired recursively and
//    not released without being acquired (.../devtest/ks-ksprocessingmutex);
//  - KsTimedProcessingMutex: the processing mutex is held for at most 100 ms
//    (.../devtest/ks-kstimedprocessingmutex, 0xC4 parameter 0x82005).
// Time is simulated time and is judged in the Virtual clock mode only: in the
// host-clock modes a slow host (a sanitizer run) would look like a slow
// driver. A callback that returns holding any other lock it took (a spin lock,
// a fast mutex, a KMUTEX) is reported as well (kvsim::CheckLocksReleased).
#include "kvsim/diag.h"
#include "kvsim/sched.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

constexpr LONGLONG kCallbackBudget = 500 * kvsim::kMillisecond;
constexpr LONGLONG kProcessingMutexBudget = 100 * kvsim::kMillisecond;

bool TimeIsJudged() { return kvsim::GetClockMode() == kvsim::ClockMode::Virtual; }

const char* OwnerName(CallbackOwner owner) {
    switch (owner) {
        case CallbackOwner::Device: return "device";
        case CallbackOwner::Filter: return "filter";
        case CallbackOwner::Pin: return "pin";
    }
    return "";
}

const char* TimedRule(CallbackOwner owner) {
    switch (owner) {
        case CallbackOwner::Device: return "KsTimedDeviceCallbacks";
        case CallbackOwner::Filter: return "KsTimedFilterCallbacks";
        case CallbackOwner::Pin: return "KsTimedPinCallbacks";
    }
    return "";
}

}  // namespace

MinidriverCall::MinidriverCall(KsDevice* device, CallbackOwner owner, const char* name, const void* routine)
    : device_(device),
      owner_(owner),
      name_(name),
      routine_(routine),
      start_(kvsim::Now()),
      deviceHolds_(device ? kvsim::HoldCount(&device->mutex) : 0),
      locks_(kvsim::CurrentHeldLocks()) {}

MinidriverCall::~MinidriverCall() {
    std::string what = std::string("KS ") + OwnerName(owner_) + " callback " + name_;
    if (device_ != nullptr) {
        size_t holds = kvsim::HoldCount(&device_->mutex);
        if (holds > deviceHolds_) {
            ReportViolation("%s returned with the device mutex acquired %zu more time(s) than released "
                            "(KsDeviceMutex: every KsAcquireDevice needs its KsReleaseDevice)",
                            what.c_str(), holds - deviceHolds_);
            for (; holds > deviceHolds_; --holds) KeReleaseMutex(&device_->mutex, FALSE);
        } else if (holds < deviceHolds_) {
            ReportViolation("%s released the device mutex %zu more time(s) than it acquired it (KsDeviceMutex)",
                            what.c_str(), deviceHolds_ - holds);
            for (; holds < deviceHolds_; ++holds)
                KeWaitForSingleObject(&device_->mutex, Executive, KernelMode, FALSE, nullptr);
        }
    }
    kvsim::CheckLocksReleased(locks_, what.c_str(), routine_, device_ ? &device_->mutex : nullptr);
    LONGLONG took = kvsim::Now() - start_;
    if (TimeIsJudged() && took > kCallbackBudget) {
        ReportViolation("%s took %lld ms (%s: at most %lld ms)", what.c_str(),
                        static_cast<long long>(took / kvsim::kMillisecond), TimedRule(owner_),
                        static_cast<long long>(kCallbackBudget / kvsim::kMillisecond));
    }
}

void AcquireProcessingMutex(PKMUTEX mutex, LONGLONG* since, const char* ownerKind, const void* owner,
                            bool byMinidriver) {
    bool outermost = kvsim::HoldCount(mutex) == 0;
    if (!outermost && byMinidriver) {
        // Taken anyway (a KMUTEX allows it), so that the releases balance.
        ReportViolation("the processing mutex of %s %p acquired again by the thread that holds it (KsProcessingMutex: "
                        "it is not recursive; a deadlock on Windows)",
                        ownerKind, owner);
    }
    KeWaitForSingleObject(mutex, Executive, KernelMode, FALSE, nullptr);
    if (outermost) *since = kvsim::Now();
}

void ReleaseProcessingMutex(PKMUTEX mutex, const LONGLONG* since, const char* ownerKind, const void* owner) {
    if (kvsim::HoldCount(mutex) == 0) {
        ReportViolation("the processing mutex of %s %p released by a thread that does not hold it (KsProcessingMutex)",
                        ownerKind, owner);
        return;
    }
    KeReleaseMutex(mutex, FALSE);
    if (kvsim::HoldCount(mutex) != 0) return;
    LONGLONG held = kvsim::Now() - *since;
    if (TimeIsJudged() && held > kProcessingMutexBudget) {
        ReportViolation("the processing mutex of %s %p was held for %lld ms (KsTimedProcessingMutex: at most %lld ms)",
                        ownerKind, owner, static_cast<long long>(held / kvsim::kMillisecond),
                        static_cast<long long>(kProcessingMutexBudget / kvsim::kMillisecond));
    }
}

}  // namespace kvsim::ks

using namespace kvsim::ks;

// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspinacquireprocessingmutex
extern "C" void KsPinAcquireProcessingMutex(PKSPIN Pin) {
    if (KsPin* pin = AsPin(HeaderFromObject(Pin))) {
        AcquireProcessingMutex(&pin->processingMutex, &pin->processingSince, "pin", Pin, true);
    }
}

extern "C" void KsPinReleaseProcessingMutex(PKSPIN Pin) {
    if (KsPin* pin = AsPin(HeaderFromObject(Pin))) {
        ReleaseProcessingMutex(&pin->processingMutex, &pin->processingSince, "pin", Pin);
    }
}

// Filter-centric processing (a filter Process dispatch) is not simulated;
// the filter's processing mutex is there for the minidriver to take.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksfilteracquireprocessingmutex
extern "C" void KsFilterAcquireProcessingMutex(PKSFILTER Filter) {
    if (KsFilter* filter = AsFilter(HeaderFromObject(Filter))) {
        AcquireProcessingMutex(&filter->processingMutex, &filter->processingSince, "filter", Filter, true);
    }
}

extern "C" void KsFilterReleaseProcessingMutex(PKSFILTER Filter) {
    if (KsFilter* filter = AsFilter(HeaderFromObject(Filter))) {
        ReleaseProcessingMutex(&filter->processingMutex, &filter->processingSince, "filter", Filter);
    }
}
