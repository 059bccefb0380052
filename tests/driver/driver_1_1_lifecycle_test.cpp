// Part 1.1: Driver entry and device lifecycle, driven through the simulated
// PnP and power managers (sim/ks/pnp.h) with the virtual camera on the
// simulated USB bus: the dispatch table, Add, the start sequence and its
// failure at every step and every allocation, stop, remove, surprise
// removal, capabilities, the idle-power scheme in virtual time, system
// sleep, the countdown timer, and the three real cameras.
#include <gtest/gtest.h>

#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

constexpr NTSTATUS kNoMemory = STATUS_INSUFFICIENT_RESOURCES;

// ---- Driver entry and Add ----------------------------------------------------------

TEST(Part11DriverEntry, PrintsItsLineAndRegistersTheDispatchTable)
{
    kvsim::ClearDebugLog();
    Rig rig;
    EXPECT_TRUE(DebugSaid("init Driver entry get called\n"));
    const KSDEVICE_DISPATCH* d = g_KvDeviceDescriptor.Dispatch;
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(g_KvDeviceDescriptor.FilterDescriptorsCount, 0u);
    EXPECT_EQ(g_KvDeviceDescriptor.FilterDescriptors, nullptr);
    EXPECT_NE(d->Add, nullptr);
    EXPECT_NE(d->Start, nullptr);
    EXPECT_EQ(d->PostStart, nullptr);
    EXPECT_EQ(d->QueryStop, nullptr);
    EXPECT_EQ(d->CancelStop, nullptr);
    EXPECT_NE(d->Stop, nullptr);
    EXPECT_EQ(d->QueryRemove, nullptr);
    EXPECT_EQ(d->CancelRemove, nullptr);
    EXPECT_NE(d->Remove, nullptr);
    EXPECT_NE(d->QueryCapabilities, nullptr);
    EXPECT_NE(d->SurpriseRemoval, nullptr);
    EXPECT_NE(d->QueryPower, nullptr);
    EXPECT_NE(d->SetPower, nullptr);
    EXPECT_EQ(d->QueryInterface, nullptr);
}

TEST(Part11Add, CreatesTheDeviceObjectWithTheInitialValues)
{
    Rig rig;
    ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVaC")).currentCount, 1u);
    CCaptureDevice& dev = rig.Dev();
    EXPECT_EQ(dev.m_pKsDevice, rig.KsDevice());
    EXPECT_EQ(dev.m_pFunctionalDeviceObject, rig.Fdo());
    EXPECT_EQ(dev.m_pPhysicalDeviceObject, rig.Pdo());
    EXPECT_EQ(dev.m_IdlePowerEnabled, 0u);
    EXPECT_EQ(dev.m_IdleActive, 0u);
    EXPECT_EQ(dev.m_DevicePowerState, 1u);
    EXPECT_EQ(dev.m_SystemStateFrom, PowerSystemWorking);
    EXPECT_EQ(dev.m_SystemStateTo, PowerSystemWorking);
    EXPECT_EQ(dev.m_ResumePending, 0);
    EXPECT_EQ(dev.m_SuppressTimerRestart, 0);
    EXPECT_EQ(dev.m_StreamBusy, 0u);
    EXPECT_EQ(dev.m_OpenFilterCount, 0u);
    EXPECT_EQ(dev.m_pIdleWorkItem, nullptr);
    EXPECT_FALSE(dev.m_FilterFactoryCreated);
    EXPECT_EQ(dev.m_CountdownCounter, -1);
}

TEST(Part11Add, AllocationFailureGivesInsufficientResources)
{
    Rig rig;
    kvsim::PoolFailTag(kvsim::PoolTag("KVaC"));
    EXPECT_EQ(rig.Add(), kNoMemory);
    kvsim::PoolResetFaultInjection();
    EXPECT_FALSE(pnp::HasFunctionDevice(rig.Pdo()));
}

// Every allocation of the add, one at a time (I/O manager, ks.sys and the
// driver's "KVaC"): the add either succeeds or fails and leaves nothing.
TEST(Part11Add, AllocationFailureAtEveryAllocationLeavesNothing)
{
    uint64_t allocations = 0;
    {
        Rig rig;
        const uint64_t before = kvsim::PoolAllocationCount();
        ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
        allocations = kvsim::PoolAllocationCount() - before;
    }
    kvsim::PoolEndOfTestCheck();
    ASSERT_GE(allocations, 2u);
    size_t failures = 0;
    for (uint64_t n = 1; n <= allocations; ++n) {
        SCOPED_TRACE("allocation #" + std::to_string(n));
        Rig rig;
        kvsim::PoolFailNthAllocation(n);
        NTSTATUS status = rig.Add();
        kvsim::PoolResetFaultInjection();
        if (!NT_SUCCESS(status)) {
            ++failures;
            EXPECT_FALSE(pnp::HasFunctionDevice(rig.Pdo()));
            EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
        } else {
            EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVaC")).currentCount, 1u);
        }
    }
    EXPECT_GE(failures, 2u);
}

// ---- Start ----------------------------------------------------------------------------

TEST(Part11Start, StartsTheDefaultCameraAndCreatesTheFilterFactory)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    CCaptureDevice& dev = rig.Dev();
    EXPECT_TRUE(dev.m_FilterFactoryCreated);
    EXPECT_NE(dev.m_pFilterFactory, nullptr);
    EXPECT_EQ(dev.m_ControlReady, 1u);
    EXPECT_NE(dev.m_Property, nullptr);
    EXPECT_GT(dev.m_nCaptureTable, 0);
    EXPECT_GT(dev.m_nStillTable, 0);
    EXPECT_EQ(dev.m_FilterDescriptor.PinDescriptors, dev.m_PinDescriptors);
    EXPECT_EQ(dev.m_FilterDescriptor.PinDescriptorsCount, 3u);
    EXPECT_EQ(dev.m_FilterDescriptor.PinDescriptorSize, 136u);
    EXPECT_EQ(dev.m_FilterDescriptor.NodeDescriptorsCount, 4u);
    EXPECT_EQ(dev.m_FilterDescriptor.NodeDescriptorSize, 24u);
    EXPECT_EQ(dev.m_FilterDescriptor.NodeDescriptors, dev.m_pNodeDescriptors);
    EXPECT_EQ(dev.m_FilterDescriptor.ConnectionsCount, 6u);
    EXPECT_EQ(dev.m_FilterDescriptor.Connections, dev.m_pTopologyConnections);
    const KSPIN_DESCRIPTOR& capture = dev.m_PinDescriptors[KV_PIN_CAPTURE].PinDescriptor;
    ASSERT_EQ(capture.DataRangesCount, dev.m_nCaptureTable);
    for (ULONG i = 0; i < capture.DataRangesCount; ++i) {
        EXPECT_EQ(static_cast<const void*>(capture.DataRanges[i]), static_cast<const void*>(&dev.m_pCaptureTable[i]));
    }
    const KSPIN_DESCRIPTOR& still = dev.m_PinDescriptors[KV_PIN_STILL].PinDescriptor;
    ASSERT_EQ(still.DataRangesCount, dev.m_nStillTable);
    EXPECT_EQ(static_cast<const void*>(still.DataRanges[0]), static_cast<const void*>(&dev.m_pStillTable[0]));
    // The factory's device interfaces are on: a client finds the filter.
    EXPECT_FALSE(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).empty());
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
}

TEST(Part11Start, IsSkippedWhenTheDeviceIsAlreadyStarted)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    const uint64_t before = kvsim::PoolAllocationCount();
    kvsim::ClearDebugLog();
    PKSDEVICE ks = rig.KsDevice();
    ASSERT_TRUE(ks->Started);
    EXPECT_EQ(g_KvDeviceDescriptor.Dispatch->Start(ks, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::PoolAllocationCount(), before);
}

// A start failing at one step: (tag whose allocations fail, status, the
// step's message or "" when the step prints none of its own).
struct StepFailure {
    const char* tag;
    NTSTATUS status;
    std::string message;
};

std::vector<StepFailure> StepFailures()
{
    const std::string nm = Hex(kNoMemory);
    return {
        {"KVdd", kNoMemory, "Kvdrv PnP start exit1 (Status " + nm + " )"},
        {"KVcd", kNoMemory, "Kvdrv PnP start exit1 (Status " + nm + " )"},
        {"KVaT", kNoMemory, "Kvdrv PnP start exit2 (Status " + nm + " )"},
        {"KVVd", kNoMemory, "Kvdrv PnP start : ExtractVSInfo return error (Status " + nm + " )"},
        {"KVVp", kNoMemory, "Kvdrv PnP start exit3 (Status " + nm + " )"},
        {"KVVs", kNoMemory, "Kvdrv PnP start : ExtractStillInfo return error (Status " + nm + " )"},
        {"KVVr", kNoMemory, "Kvdrv PnP start exit4 (Status " + nm + " )"},
        {"KVNd", kNoMemory,
         "CCaptureDevice::InitNodeAndTopologyDescriptor() InitNodeDescriptorSize() Failed Status 0xc000009a\n"},
        {"KVCn", kNoMemory,
         "CCaptureDevice::InitNodeAndTopologyDescriptor() InitNodeDescriptorSize() Failed Status 0xc000009a\n"},
    };
}

class Part11StartStepFailure : public ::testing::TestWithParam<StepFailure> {};

// Edge case: a start that fails at any step leaves the tables allocated so
// far to be released by remove; after remove no pool block is left.
TEST_P(Part11StartStepFailure, FailsWithTheStepsStatusAndMessageAndRemoveFreesEverything)
{
    const StepFailure& f = GetParam();
    Rig rig;
    ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    kvsim::PoolFailTag(kvsim::PoolTag(f.tag));
    EXPECT_EQ(rig.Start(), f.status);
    kvsim::PoolResetFaultInjection();
    EXPECT_TRUE(DebugSaid(f.message)) << f.tag << ::testing::PrintToString(kvsim::DebugMessages());
    // Only the failing step's line: no "Kvdrv PnP start" line of another step.
    auto lines = DebugStartingWith("Kvdrv PnP start");
    EXPECT_LE(lines.size(), 1u);
    EXPECT_FALSE(rig.Dev().m_FilterFactoryCreated);
    kvsim::ClearDebugLog();
    rig.Remove();
    EXPECT_TRUE(DebugSaid("PnP Remove\n"));
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
}

INSTANTIATE_TEST_SUITE_P(EveryStep, Part11StartStepFailure, ::testing::ValuesIn(StepFailures()),
                         [](const auto& info) { return std::string(info.param.tag); });

// Allocation failure injected at every allocation of the start sequence, one
// at a time: the start fails with the status of the step the allocation
// belongs to and that step's message (or, for the allocations the Parts
// tolerate - registry buffers, the bus interface - succeeds), and remove
// frees everything.
TEST(Part11StartFaultInjection, EveryAllocationOfTheStartOneAtATime)
{
    uint64_t allocations = 0;
    {
        Rig rig;
        ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
        const uint64_t before = kvsim::PoolAllocationCount();
        ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
        allocations = kvsim::PoolAllocationCount() - before;
    }
    kvsim::PoolEndOfTestCheck();
    ASSERT_GT(allocations, 10u);
    size_t failedStarts = 0;
    for (uint64_t n = 1; n <= allocations; ++n) {
        SCOPED_TRACE("allocation #" + std::to_string(n));
        Rig rig;
        ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
        kvsim::ClearDebugLog();
        kvsim::PoolFailNthAllocation(n);
        NTSTATUS status = rig.Start();
        const bool injected = kvsim::PoolInjectedFailureCount() == 1;
        kvsim::PoolResetFaultInjection();
        EXPECT_TRUE(injected);
        if (!NT_SUCCESS(status)) {
            ++failedStarts;
            auto lines = DebugStartingWith("Kvdrv PnP start");
            auto topology = DebugStartingWith("CCaptureDevice::InitNodeAndTopologyDescriptor()");
            // At most one step reports the failure (the first failing step
            // ends the start), with the start's status. Steps 7 and 8 and a
            // start IRP the I/O manager could not allocate print no start
            // line of their own.
            EXPECT_LE(lines.size() + topology.size(), 1u);
            if (lines.size() == 1) {
                EXPECT_NE(lines[0].find("(Status " + Hex(status) + " )"), std::string::npos) << lines[0];
            }
            EXPECT_FALSE(rig.Dev().m_FilterFactoryCreated);
        } else {
            EXPECT_TRUE(rig.Dev().m_FilterFactoryCreated);
        }
        rig.Remove();
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
        kvsim::PoolEndOfTestCheck();
    }
    EXPECT_GT(failedStarts, 8u);
}

// A start failing after step 3 with idle power on gets no stop: remove
// ends the idle scheme, so no timer or DPC outlives the device.
TEST(Part11StartFailure, RemoveEndsTheIdleSchemeAFailedStartLeftRunning)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
    kvsim::PoolFailTag(kvsim::PoolTag("KVVs"));
    EXPECT_EQ(rig.Start(), kNoMemory);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    rig.Remove();
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    kvsim::ResetSchedCounters();
    kvsim::RunFor(20 * kvsim::kSecond);
    EXPECT_EQ(kvsim::GetSchedCounters().dpcsRun, 0u);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
}

// Pageable dispatch routines check the level they are called at.
TEST(Part11Pageable, ADispatchRoutineAboveApcLevelPrintsTheIrqlLine)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    DEVICE_CAPABILITIES caps{};
    KIRQL old = KeRaiseIrqlToDpcLevel();
    g_KvDeviceDescriptor.Dispatch->QueryCapabilities(rig.KsDevice(), nullptr, &caps);
    KeLowerIrql(old);
    EXPECT_TRUE(DebugSaid("EX: Pageable code called at IRQL 2\n"));
    EXPECT_EQ(caps.SurpriseRemovalOK, 1u);
    kvsim::ClearDebugLog();
    g_KvDeviceDescriptor.Dispatch->QueryCapabilities(rig.KsDevice(), nullptr, &caps);
    EXPECT_TRUE(DebugStartingWith("EX: Pageable").empty());
}

// ---- The real cameras -------------------------------------------------------------------

TEST(Part11Cameras, TrustWebcamStarts)
{
    auto camera = SharedCamera("trust_webcam");
    ASSERT_NE(camera, nullptr);
    Rig rig(camera);
    EXPECT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    EXPECT_GT(rig.Dev().m_nStillTable, 0);
}

class Part11CamerasWithoutStill : public ::testing::TestWithParam<const char*> {};

TEST_P(Part11CamerasWithoutStill, FailTheStartInExtractStillInfo)
{
    auto camera = SharedCamera(GetParam());
    ASSERT_NE(camera, nullptr);
    Rig rig(camera);
    ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    EXPECT_EQ(rig.Start(), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(DebugSaid("Kvdrv PnP start : ExtractStillInfo return error (Status 0xC000000D )"));
    EXPECT_GT(rig.Dev().m_nCaptureTable, 0);  // step 5 did its part
    rig.Remove();
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(RealCameras, Part11CamerasWithoutStill, ::testing::Values("logitech_c270", "elp_h264"));

// ---- Stop, remove, surprise removal, capabilities ------------------------------------------

TEST(Part11Stop, WritesDeviceExist2UnderDataAndFreesTheAllocations)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 2u);
    // Of the driver's blocks only the device object itself is left (ks.sys
    // keeps its device and object bag).
    std::vector<std::string> driverBlocks;
    for (const auto& block : kvsim::PoolLiveBlocks()) {
        const std::string tag = kvsim::PoolTagText(block.tag);
        if (tag.rfind("KV", 0) == 0) driverBlocks.push_back(tag);
    }
    EXPECT_EQ(driverBlocks, std::vector<std::string>{"KVaC"});
    EXPECT_FALSE(usb::GetDeviceState(rig.Pdo()).configured);
    EXPECT_EQ(rig.Dev().m_pCaptureTable, nullptr);
    EXPECT_EQ(rig.Dev().m_Property, nullptr);
    EXPECT_TRUE(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).empty());
}

TEST(Part11Stop, TheDeviceStartsAgainAfterAStop)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
    EXPECT_TRUE(rig.Dev().m_FilterFactoryCreated);
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).size(), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
}

TEST(Part11Stop, CancelsARunningCountdown)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    CCaptureDevice& dev = rig.Dev();
    dev.m_CountdownCounter = 5;
    LARGE_INTEGER due;
    due.QuadPart = -10'000'000;
    KeSetTimerEx(&dev.m_CountdownTimer, due, 1000, &dev.m_CountdownDpc);
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
}

TEST(Part11Remove, PrintsPnPRemoveAndLeavesNoPoolBlock)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    rig.Remove();
    EXPECT_TRUE(DebugSaid("PnP Remove\n"));
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
    EXPECT_FALSE(pnp::HasFunctionDevice(rig.Pdo()));
}

TEST(Part11Remove, AfterAStopLeavesNoPoolBlock)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    rig.Remove();
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
}

TEST(Part11Capabilities, ClearRemovableAndSetSurpriseRemovalOK)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    DEVICE_CAPABILITIES caps{};
    ASSERT_EQ(pnp::QueryCapabilities(rig.Pdo(), &caps), STATUS_SUCCESS);
    EXPECT_EQ(caps.Removable, 0u);
    EXPECT_EQ(caps.SurpriseRemovalOK, 1u);
}

TEST(Part11SurpriseRemoval, EndsIdleManagementAndTheFinalRemoveFreesEverything)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Dev().m_IdleActive, 1u);
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    usb::SurpriseRemove(rig.Pdo());
    ASSERT_EQ(pnp::SurpriseRemoveDevice(rig.Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(rig.Dev().m_IdleActive, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    kvsim::ResetSchedCounters();
    kvsim::RunFor(20 * kvsim::kSecond);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 0u);
    kvsim::ClearDebugLog();
    rig.MarkRemoved();
    pnp::FinishSurpriseRemoval(rig.Pdo());
    EXPECT_TRUE(DebugSaid("PnP Remove\n"));
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
}

// ---- Idle power -------------------------------------------------------------------------------

// Edge case: with m_IdlePowerEnabled 0 no timer, DPC or work item of the
// idle scheme is ever armed.
TEST(Part11IdleDisabled, NoIdleTimerDpcOrWorkItemIsEverArmed)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Dev().m_IdlePowerEnabled, 0u);
    EXPECT_EQ(rig.Dev().m_IdleActive, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    kvsim::ResetSchedCounters();
    kvsim::RunFor(60 * kvsim::kSecond);
    auto counters = kvsim::GetSchedCounters();
    EXPECT_EQ(counters.timersArmed, 0u);
    EXPECT_EQ(counters.dpcsRun, 0u);
    EXPECT_EQ(counters.workItemsQueued, 0u);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD0);
    // A system sleep announced to it does not start anything either.
    ASSERT_EQ(pnp::SleepSystem(rig.Pdo()), STATUS_SUCCESS);
    ASSERT_EQ(pnp::WakeSystem(rig.Pdo()), STATUS_SUCCESS);
    kvsim::RunFor(20 * kvsim::kSecond);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    EXPECT_EQ(rig.Dev().m_ResumePending, 0);
}

// Edge case: ... and stop skips step 1 (no power-up request: a device put in
// D3 by its policy owner stays there through the stop).
TEST(Part11IdleDisabled, StopSkipsStep1)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD3), STATUS_SUCCESS);
    ASSERT_EQ(rig.BusPower(), PowerDeviceD3);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD3);
}

// The counterpart: with idle power, stop step 1 asks for D0 first.
TEST(Part11IdleEnabled, StopPowersTheDeviceUpAndEndsIdleManagement)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD3), STATUS_SUCCESS);
    ASSERT_EQ(rig.BusPower(), PowerDeviceD3);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD0);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
    kvsim::ResetSchedCounters();
    kvsim::RunFor(20 * kvsim::kSecond);
    EXPECT_EQ(kvsim::GetSchedCounters().dpcsRun, 0u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 2u);
}

// StartArmsTheIdleTimerForFiveSecondsThenEvery5000ms: driver_1_1_idle_timing_test.cpp (virtual mode).

// An idle device goes to D3 after the first idle pass.
TEST(Part11IdleEnabled, AnIdleDeviceGoesToD3AfterTheFirstIdlePass)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    g_KvIdlePowerDownRequested = 0;
    kvsim::RunFor(4 * kvsim::kSecond);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD0);
    EXPECT_EQ(rig.Dev().m_DevicePowerState, 1u);
    kvsim::RunFor(2 * kvsim::kSecond);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD3);
    EXPECT_EQ(rig.Dev().m_DevicePowerState, static_cast<ULONG>(PowerDeviceD3));
    EXPECT_EQ(g_KvIdlePowerDownRequested, 1u);
    EXPECT_EQ(rig.Dev().m_pIdleWorkItem, nullptr);
    // Later passes find it powered down and leave it there.
    kvsim::ResetSchedCounters();
    kvsim::RunFor(20 * kvsim::kSecond);
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 0u);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD3);
}

TEST(Part11IdleEnabled, ABusyStreamKeepsTheDeviceInD0)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    rig.Dev().m_StreamBusy = 1;
    kvsim::RunFor(30 * kvsim::kSecond);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD0);
    rig.Dev().m_StreamBusy = 0;
    kvsim::RunFor(6 * kvsim::kSecond);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD3);
}

// QueryPowerStopsTheIdleTimerAndTheNextSetPowerRestartsItOnce: driver_1_1_idle_timing_test.cpp
// (virtual mode).

TEST(Part11SystemSleep, ASleepAndWakeRestartTheIdleTimerExactlyOnce)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    kvsim::ResetSchedCounters();
    ASSERT_EQ(pnp::SleepSystem(rig.Pdo()), STATUS_SUCCESS);
    ASSERT_EQ(pnp::WakeSystem(rig.Pdo()), STATUS_SUCCESS);
    kvsim::RunUntilIdle();
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsQueued, 1u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    EXPECT_EQ(rig.Dev().m_LastPowerAction, PowerActionSleep);
    EXPECT_EQ(rig.Dev().m_DevicePowerState, 1u);
    // The restarted scheme still powers an idle device down.
    kvsim::RunFor(6 * kvsim::kSecond);
    EXPECT_EQ(rig.BusPower(), PowerDeviceD3);
}

TEST(Part11SetPower, RecordsTheStatesBeingEnteredAndLeft)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(rig.Dev().m_DevicePowerState, static_cast<ULONG>(PowerDeviceD3));
    EXPECT_EQ(rig.Dev().m_DevicePowerStateFrom, PowerDeviceD0);
    ASSERT_EQ(pnp::SetDevicePower(rig.Pdo(), PowerDeviceD0), STATUS_SUCCESS);
    EXPECT_EQ(rig.Dev().m_DevicePowerState, 1u);
    EXPECT_EQ(rig.Dev().m_DevicePowerStateFrom, PowerDeviceD3);
}

// ---- Countdown timer (step 10) ----------------------------------------------------------------

TEST(Part11Countdown, TheDpcCountsDownThenRaisesTheStillRequestAndStops)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    CCaptureDevice& dev = rig.Dev();
    dev.m_CountdownCounter = 2;
    dev.m_SoftwareTrigger = 1;
    LARGE_INTEGER due;
    due.QuadPart = -10'000'000;
    KeSetTimerEx(&dev.m_CountdownTimer, due, 1000, &dev.m_CountdownDpc);
    kvsim::RunFor(1 * kvsim::kSecond);
    EXPECT_EQ(dev.m_CountdownCounter, 1);
    kvsim::RunFor(1 * kvsim::kSecond);
    EXPECT_EQ(dev.m_CountdownCounter, 0);
    EXPECT_EQ(dev.m_StillRequest, 0u);
    kvsim::RunFor(1 * kvsim::kSecond);
    EXPECT_EQ(dev.m_CountdownCounter, -1);
    EXPECT_EQ(dev.m_StillRequest, 1u);
    EXPECT_EQ(dev.m_SoftwareTrigger, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
}

}  // namespace
