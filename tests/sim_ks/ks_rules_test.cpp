// The ks.sys simulation's checks of Driver Verifier's rules for AVStream
// drivers, each broken on purpose by one callback of a small minidriver:
// callbacks slower than 500 ms (KsTimedDeviceCallbacks and its filter and pin
// forms),
// the processing mutex held longer than 100 ms (KsTimedProcessingMutex) or
// taken again by its holder (KsProcessingMutex), KsAcquireDevice and
// KsReleaseDevice out of balance (KsDeviceMutex), a lock kept past the end of
// a callback, a stream pointer locked twice (KsStreamPointerLock) or still
// locked when the pin stops (KsStreamPointerUnlock). And the documented
// leading edge: asked for unlocked, it is there even with nothing queued; and
// closing a handle reaches the minidriver even when no IRP can be allocated.
// https://learn.microsoft.com/windows-hardware/drivers/devtest/rules-for-avstream-drivers
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspingetleadingedgestreampointer
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "client/ks_client.h"
#include "ks/pnp.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "usb/usb_bus.h"

namespace {

// The time budgets are judged in simulated time.
const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

// ---- the minidriver: one filter with one capture pin; the callback named
// in g_misstep runs the test's misstep ----------------------------------------------------------
struct Misstep {
    const char* callback = nullptr;
    void (*act)(PKSPIN) = nullptr;
};
Misstep g_misstep;
PKSDEVICE g_device;
PKSPIN g_pin;
FAST_MUTEX g_fast;

void Step(const char* callback, PKSPIN pin = nullptr) {
    if (g_misstep.callback != nullptr && strcmp(g_misstep.callback, callback) == 0) g_misstep.act(pin);
}

NTSTATUS PinSetDeviceState(PKSPIN pin, KSSTATE, KSSTATE) {
    g_pin = pin;
    Step("SetDeviceState", pin);
    return STATUS_SUCCESS;
}
NTSTATUS PinProcess(PKSPIN pin) {  // leaves the frames queued
    Step("Process", pin);
    return STATUS_PENDING;
}
KSPIN_DISPATCH PinDispatch() {
    KSPIN_DISPATCH dispatch{};
    dispatch.Process = PinProcess;
    dispatch.SetDeviceState = PinSetDeviceState;
    return dispatch;
}
const KSPIN_DISPATCH g_pinDispatch = PinDispatch();
const KSDATARANGE g_anyRange = {{sizeof(KSDATARANGE), 0, 0, 0, {}, {}, {}}};  // GUID_NULL: any format
const PKSDATARANGE g_ranges[] = {const_cast<PKSDATARANGE>(&g_anyRange)};
const KSPIN_DESCRIPTOR_EX g_pins[] = {
    {&g_pinDispatch, nullptr,
     {0, nullptr, 0, nullptr, 1, g_ranges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &PINNAME_VIDEO_CAPTURE,
      nullptr, {0}},
     0, 1, 0, nullptr, nullptr}};
const GUID g_categories[] = {{STATIC_KSCATEGORY_CAPTURE}};
const KSFILTER_DESCRIPTOR g_filter = {nullptr, nullptr, KSFILTER_DESCRIPTOR_VERSION, 0, &KSNAME_Filter,
                                      DEFINE_KSFILTER_PIN_DESCRIPTORS(g_pins), DEFINE_KSFILTER_CATEGORIES(g_categories),
                                      DEFINE_KSFILTER_NODE_DESCRIPTORS_NULL, DEFINE_KSFILTER_DEFAULT_CONNECTIONS,
                                      nullptr};
const KSFILTER_DESCRIPTOR* const g_filters[] = {&g_filter};

NTSTATUS DevicePostStart(PKSDEVICE device) {  // called with the device mutex held
    g_device = device;
    Step("PostStart");
    return STATUS_SUCCESS;
}
KSDEVICE_DISPATCH DeviceDispatch() {
    KSDEVICE_DISPATCH dispatch{};
    dispatch.PostStart = DevicePostStart;
    return dispatch;
}
const KSDEVICE_DISPATCH g_deviceDispatch = DeviceDispatch();
const KSDEVICE_DESCRIPTOR g_deviceDescriptor = {&g_deviceDispatch, 1, g_filters, KSDEVICE_DESCRIPTOR_VERSION};

NTSTATUS RulesDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    return KsInitializeDriver(driver, path, &g_deviceDescriptor);
}

void Delay(LONGLONG ms) {
    LARGE_INTEGER interval;
    interval.QuadPart = -ms * kvsim::kMillisecond;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

std::string Violations() {
    std::string all;
    for (auto& v : kvsim::TakeViolations()) all += v + "\n";
    return all;
}

class KsRules : public ::testing::Test {
protected:
    void SetUp() override {
        g_misstep = {};
        ExInitializeFastMutex(&g_fast);
        pdo_ = kvsim::usb::PlugCamera(kvsim::camera::UvcCamera::CreateDefault(), kvsim::usb::Speed::kHigh);
        driver_ = kvsim::pnp::LoadDriver(u"ksrules", RulesDriverEntry);
        ASSERT_NE(driver_, nullptr);
    }
    void TearDown() override {
        pin_.reset();
        filter_.reset();
        if (kvsim::pnp::HasFunctionDevice(pdo_)) kvsim::pnp::RemoveDevice(pdo_);
        kvsim::usb::Unplug(pdo_);
        kvsim::pnp::UnloadDriver(driver_);
    }
    // Starts the device and connects the pin.
    void OpenPin() {
        ASSERT_EQ(kvsim::pnp::AddDevice(driver_, pdo_), STATUS_SUCCESS);
        ASSERT_EQ(kvsim::pnp::StartDevice(pdo_), STATUS_SUCCESS);
        auto filters = kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE);
        ASSERT_EQ(filters.size(), 1u);
        ASSERT_EQ(kvsim::client::Filter::Open(filters[0], &filter_), STATUS_SUCCESS);
        KSDATAFORMAT format{};
        format.FormatSize = sizeof(KSDATAFORMAT);
        format.MajorFormat = KSDATAFORMAT_TYPE_VIDEO;
        ASSERT_EQ(filter_->CreatePin(0, &format, &pin_), STATUS_SUCCESS);
    }

    PDEVICE_OBJECT pdo_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    std::unique_ptr<kvsim::client::Filter> filter_;
    std::unique_ptr<kvsim::client::Pin> pin_;
};

struct RuleCase {
    const char* name;
    Misstep misstep;
    const char* expected;
};
void PrintTo(const RuleCase& c, std::ostream* os) { *os << c.name; }

class BrokenRule : public KsRules, public ::testing::WithParamInterface<RuleCase> {};

// Start, connect, run, one buffer (Process), stop, close: the misstep runs in
// its callback on the way.
TEST_P(BrokenRule, IsReported) {
    g_misstep = GetParam().misstep;
    OpenPin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, 4096), STATUS_PENDING);
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    pin_->Close();
    std::string reported = Violations();
    EXPECT_NE(reported.find(GetParam().expected), std::string::npos) << reported;
}

PKSSTREAM_POINTER LockedEdge(PKSPIN pin) { return KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED); }

INSTANTIATE_TEST_SUITE_P(
    Minidriver, BrokenRule,
    ::testing::Values(
        RuleCase{"SlowPostStart", {"PostStart", [](PKSPIN) { Delay(600); }},
                 "KS device callback PostStart took 600 ms (KsTimedDeviceCallbacks"},
        RuleCase{"SlowProcess", {"Process", [](PKSPIN) { Delay(150); }}, "held for 150 ms (KsTimedProcessingMutex"},
        RuleCase{"DeviceMutexKept", {"PostStart", [](PKSPIN) { KsAcquireDevice(g_device); }},
                 "PostStart returned with the device mutex acquired 1 more time(s) than released"},
        RuleCase{"DeviceMutexReleasedTooOften", {"PostStart", [](PKSPIN) { KsReleaseDevice(g_device); }},
                 "PostStart released the device mutex 1 more time(s) than it acquired it"},
        RuleCase{"FastMutexKept", {"SetDeviceState", [](PKSPIN) { ExAcquireFastMutex(&g_fast); }},
                 "KS pin callback SetDeviceState"},
        RuleCase{"ProcessingMutexTakenAgain",
                 {"Process",
                  [](PKSPIN pin) {
                      KsPinAcquireProcessingMutex(pin);
                      KsPinReleaseProcessingMutex(pin);
                  }},
                 "acquired again by the thread that holds it (KsProcessingMutex"},
        RuleCase{"StreamPointerLockedTwice",
                 {"Process",
                  [](PKSPIN pin) {
                      PKSSTREAM_POINTER edge = LockedEdge(pin);
                      KsStreamPointerLock(edge);
                      KsStreamPointerUnlock(edge, FALSE);
                  }},
                 "is locked already"},
        RuleCase{"StreamPointerLockedAtStop", {"Process", [](PKSPIN pin) { LockedEdge(pin); }},
                 "stopped with its leading-edge stream pointer"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KsRules, UnlockedLeadingEdgeIsThereWithoutAFrame) {
    OpenPin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    PKSSTREAM_POINTER edge = KsPinGetLeadingEdgeStreamPointer(g_pin, KSSTREAM_POINTER_STATE_UNLOCKED);
    ASSERT_NE(edge, nullptr);
    EXPECT_EQ(edge->StreamHeader, nullptr);
    EXPECT_EQ(KsStreamPointerLock(edge), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(KsStreamPointerAdvance(edge), STATUS_SUCCESS);  // unlocked: "always succeeds"
    EXPECT_EQ(LockedEdge(g_pin), nullptr);
    // A buffer arrives: the same edge stands on it.
    ASSERT_EQ(pin_->QueueBuffers(1, 4096), STATUS_PENDING);
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(g_pin, KSSTREAM_POINTER_STATE_UNLOCKED), edge);
    ASSERT_NE(edge->StreamHeader, nullptr);
    EXPECT_EQ(edge->StreamHeader->FrameExtent, 4096u);
    EXPECT_EQ(KsStreamPointerLock(edge), STATUS_SUCCESS);
    KsStreamPointerUnlock(edge, FALSE);
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
}

// Closing a handle cannot fail for want of memory: with every IRP allocation
// failing, the pin and the filter still close (the device is then removed
// without a filter left open).
TEST_F(KsRules, ClosesReachTheMinidriverWhenIrpsCannotBeAllocated) {
    OpenPin();
    kvsim::PoolFailTag(kvsim::PoolTag("Irp "));
    EXPECT_EQ(pin_->Close(), STATUS_SUCCESS);
    EXPECT_EQ(filter_->Close(), STATUS_SUCCESS);
    kvsim::PoolResetFaultInjection();
}

}  // namespace
