// The ks.sys simulation's device side: the PnP manager's IRPs reach the
// minidriver's KSDEVICE_DISPATCH in the documented order, power IRPs reach
// QueryPower/SetPower and the pins' power callbacks, and a surprise removal
// while a pin runs stops the pin and fails its queued buffers; a filter
// opens by its reference string only, and its object bag is emptied (free
// routines run) when it closes. (Filter factories' device interfaces at
// start and stop: the driver's filter_test and lifecycle_test.)
#include "sim_ks/ks_fixture.h"

#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"

namespace kvtest::ks {
namespace {

using Calls = std::vector<std::string>;

TEST_F(KsTest, PnpStartStopRemoveCallsTheDispatchTableInOrder) {
    AddAndStart();
    EXPECT_TRUE(Recorder().startHadIrp);
    EXPECT_TRUE(Recorder().startSawStartedFalse);
    ASSERT_NE(Recorder().device, nullptr);
    EXPECT_TRUE(Recorder().device->Started);
    EXPECT_EQ(Recorder().device->PhysicalDeviceObject, pdo_);
    EXPECT_EQ(KsGetDeviceForDeviceObject(Recorder().device->FunctionalDeviceObject), Recorder().device);

    ASSERT_EQ(kvsim::pnp::StopDevice(pdo_), STATUS_SUCCESS);
    EXPECT_FALSE(Recorder().device->Started);
    ASSERT_EQ(kvsim::pnp::RemoveDevice(pdo_), STATUS_SUCCESS);
    EXPECT_FALSE(kvsim::pnp::HasFunctionDevice(pdo_));
    EXPECT_EQ(Recorder().calls, (Calls{"Add", "Start", "PostStart", "QueryStop", "Stop", "QueryRemove", "Remove"}));
}

TEST_F(KsTest, VetoedQueryStopOrRemoveIsCancelledAndTheRunningDeviceIsStoppedBeforeItsRemove) {
    AddAndStart();
    Recorder().failQueryStop = true;
    EXPECT_EQ(kvsim::pnp::StopDevice(pdo_), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Recorder().device->Started);
    EXPECT_EQ(Recorder().calls, (Calls{"Add", "Start", "PostStart", "QueryStop", "CancelStop"}));
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).size(), 1u);
    Recorder().failQueryRemove = true;
    EXPECT_EQ(kvsim::pnp::RemoveDevice(pdo_), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(kvsim::pnp::HasFunctionDevice(pdo_));
    EXPECT_EQ(Recorder().calls.back(), "CancelRemove");
    // Removing the started device stops it first.
    Recorder().failQueryRemove = false;
    Recorder().calls.clear();
    ASSERT_EQ(kvsim::pnp::RemoveDevice(pdo_), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().calls, (Calls{"QueryRemove", "Stop", "Remove"}));
}

TEST_F(KsTest, FailedStartLeavesTheDeviceNotStarted) {
    Recorder().failStart = true;
    ASSERT_EQ(kvsim::pnp::AddDevice(driver_, pdo_), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::pnp::StartDevice(pdo_), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(Recorder().device->Started);
    EXPECT_EQ(Recorder().calls, (Calls{"Add", "Start"}));  // no PostStart
}

TEST_F(KsTest, SystemSleepAndResumeReachQueryPowerSetPowerAndThePinCallbacks) {
    OpenCapturePin();
    ASSERT_EQ(kvsim::pnp::QueryCapabilities(pdo_), STATUS_SUCCESS);
    Recorder().calls.clear();
    ASSERT_EQ(kvsim::pnp::SleepSystem(pdo_, PowerSystemSleeping3, PowerActionSleep), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().lastQueryPowerSystemTo, PowerSystemSleeping3);
    EXPECT_EQ(Recorder().lastQueryPowerAction, PowerActionSleep);
    EXPECT_EQ(Recorder().lastSetPowerTo, PowerDeviceD3);
    EXPECT_EQ(Recorder().lastSetPowerFrom, PowerDeviceD0);
    EXPECT_EQ(Recorder().device->DevicePowerState, PowerDeviceD3);
    EXPECT_EQ(Recorder().device->SystemPowerState, PowerSystemSleeping3);
    EXPECT_EQ(Recorder().calls, (Calls{"QueryPower", "PinSleep", "SetPower"}));

    Recorder().calls.clear();
    ASSERT_EQ(kvsim::pnp::WakeSystem(pdo_), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().lastSetPowerTo, PowerDeviceD0);
    EXPECT_EQ(Recorder().lastSetPowerFrom, PowerDeviceD3);
    EXPECT_EQ(Recorder().device->DevicePowerState, PowerDeviceD0);
    EXPECT_EQ(Recorder().calls, (Calls{"SetPower", "PinWake"}));
    EXPECT_EQ(kvsim::RecordedDevicePowerState(Recorder().device->FunctionalDeviceObject), PowerDeviceD0);
}

TEST_F(KsTest, SurpriseRemovalWhileAPinRunsStopsItAndFailsItsBuffers) {
    RunWithBuffers(2, TestFrameBytes(0), false);  // the buffers stay queued
    EXPECT_EQ(pin_->PendingBuffers(), 2u);
    Recorder().stateSteps.clear();

    ASSERT_EQ(kvsim::pnp::SurpriseRemoveDevice(pdo_), STATUS_SUCCESS);
    surpriseRemoved_ = true;
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 2u);
    for (auto& f : frames) {
        EXPECT_EQ(f.status, STATUS_DEVICE_REMOVED);
        EXPECT_EQ(f.header.DataUsed, 0u);
    }
    // RUN -> PAUSE -> ACQUIRE -> STOP.
    ASSERT_EQ(Recorder().stateSteps.size(), 3u);
    EXPECT_EQ(Recorder().stateSteps.back().to, KSSTATE_STOP);
    EXPECT_EQ(Recorder().capturePin->DeviceState, KSSTATE_STOP);
    EXPECT_NE(std::find(Recorder().calls.begin(), Recorder().calls.end(), "SurpriseRemoval"), Recorder().calls.end());
    // No new buffers, no new handles; the interfaces are gone.
    EXPECT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_DEVICE_REMOVED);
    pin_->CollectFrames();
    EXPECT_TRUE(kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).empty());

    // The application closes its handles, then the PnP manager removes.
    pin_.reset();
    filter_.reset();
    ASSERT_EQ(kvsim::pnp::FinishSurpriseRemoval(pdo_), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().calls.back(), "Remove");
    EXPECT_FALSE(kvsim::pnp::HasFunctionDevice(pdo_));
}

TEST_F(KsTest, NoPoolIrpOrHandleIsLeftAfterCloseAndRemove) {
    size_t handlesBefore = kvsim::ObOpenHandleCount();
    RunWithBuffers(3, TestFrameBytes(0));
    ASSERT_TRUE(pin_->WaitForFrames(3, kvsim::kSecond));
    pin_->CollectFrames();
    Recorder().fillOnProcess = false;
    ASSERT_EQ(pin_->QueueBuffers(2, TestFrameBytes(0)), STATUS_PENDING);  // left queued: close flushes them
    {
        kvsim::client::EventWaiter waiter;  // a handle while it lives
    }
    pin_.reset();
    filter_.reset();
    EXPECT_EQ(kvsim::client::LiveClientFileObjects(), 0u);
    ASSERT_EQ(kvsim::pnp::RemoveDevice(pdo_), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);
    EXPECT_EQ(kvsim::ObOpenHandleCount(), handlesBefore);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << (kvsim::PoolLeakReport().empty() ? "" : kvsim::PoolLeakReport()[0]);
}

TEST_F(KsTest, ObjectBagFreeRoutinesRunWhenTheFilterCloses) {
    AddAndStart();
    OpenFilter();
    EXPECT_EQ(Recorder().bagItemsFreed, 0u);
    filter_.reset();
    EXPECT_EQ(Recorder().bagItemsFreed, 1u);
    EXPECT_EQ(Recorder().calls.back(), "FilterClose");
}

TEST_F(KsTest, OpeningAnUnknownReferenceStringFails) {
    AddAndStart();
    auto where = kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).at(0);
    where.referenceString = u"NOSUCH";
    std::unique_ptr<kvsim::client::Filter> filter;
    EXPECT_EQ(kvsim::client::Filter::Open(where, &filter), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(filter, nullptr);
    // The reference string matches without regard to case.
    where.referenceString = u"global";
    EXPECT_EQ(kvsim::client::Filter::Open(where, &filter), STATUS_SUCCESS);
}

}  // namespace
}  // namespace kvtest::ks
