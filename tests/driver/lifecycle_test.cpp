// The device's life as Windows drives it: add and start with a failure at
// every allocation, stop, surprise removal, the real cameras, the self-timer.
#include <gtest/gtest.h>

#include <algorithm>

#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

// The tags of the driver's blocks still held, sorted ("KV..." only: ks.sys
// and the I/O manager keep blocks of their own).
std::vector<std::string> DriverBlockTags()
{
    std::vector<std::string> tags;
    for (const auto& block : kvsim::PoolLiveBlocks()) {
        const std::string tag = kvsim::PoolTagText(block.tag);
        if (tag.rfind("KV", 0) == 0) tags.push_back(tag);
    }
    std::sort(tags.begin(), tags.end());
    return tags;
}

// Every allocation of the add failing in turn (I/O manager, ks.sys, the
// driver's device object "KVaC"): the add succeeds, or fails with
// STATUS_INSUFFICIENT_RESOURCES and leaves nothing.
TEST(DeviceAdd, AnAllocationFailureAtAnyAllocationLeavesNothing)
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
            EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_FALSE(pnp::HasFunctionDevice(rig.Pdo()));
            EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
        } else {
            EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVaC")).currentCount, 1u);
        }
    }
    EXPECT_GE(failures, 2u);
}

// Every allocation of the start sequence failing in turn (USB requests and
// descriptors, settings, format tables, the pins' data ranges, the node
// tables, ks.sys's factory): the start fails with the status of the step the
// allocation belongs to and that step's one line, or succeeds where the step
// does without it (registry buffers, the bus interface); no filter factory
// is left after a failure before the factory's step (the button's step comes
// after it), and remove ("PnP Remove") frees everything and detaches the
// device. Over the sweep every
// step's line appears, in the order of the steps.
TEST(DeviceStart, AnAllocationFailureAtAnyAllocationFailsTheStartAtItsStepAndRemoveFreesEverything)
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
    const std::string nm = " (Status " + Hex(STATUS_INSUFFICIENT_RESOURCES) + " )";
    std::vector<std::string> stepLines;
    for (const char* step : {"exit1", "exit2", ": ExtractVSInfo return error", "exit3",
                             ": ExtractStillInfo return error", "exit4"}) {
        stepLines.push_back(std::string("Kvdrv PnP start ") + step + nm);
    }
    stepLines.push_back(
        "CCaptureDevice::InitNodeAndTopologyDescriptor() InitNodeDescriptorSize() Failed Status 0xc000009a\n");
    const std::string buttonLine = "Kvdrv PnP start m_Int.Initialize return error" + nm;
    stepLines.push_back(buttonLine);
    std::vector<std::string> seen;  // the lines of the failed starts, repeats folded
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
            // The first failing step ends the start. The factory's step and a
            // start IRP the I/O manager could not allocate print no line.
            EXPECT_LE(lines.size() + topology.size(), 1u);
            if (lines.size() == 1) {
                EXPECT_NE(lines[0].find("(Status " + Hex(status) + " )"), std::string::npos) << lines[0];
            }
            lines.insert(lines.end(), topology.begin(), topology.end());
            for (const auto& line : lines) {
                if (seen.empty() || seen.back() != line) seen.push_back(line);
            }
            const bool afterFactory = !lines.empty() && lines.back() == buttonLine;
            EXPECT_EQ(rig.Dev().m_Filter.m_FilterFactoryCreated, afterFactory);
        } else {
            EXPECT_TRUE(rig.Dev().m_Filter.m_FilterFactoryCreated);
        }
        kvsim::ClearDebugLog();
        rig.Remove();
        EXPECT_TRUE(DebugSaid("PnP Remove\n"));
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u) << ::testing::PrintToString(kvsim::PoolLeakReport());
        EXPECT_FALSE(pnp::HasFunctionDevice(rig.Pdo()));
        kvsim::PoolEndOfTestCheck();
    }
    EXPECT_GT(failedStarts, 8u);
    EXPECT_EQ(seen, stepLines);
}

// The real cameras of ../shared/cameras: the one with still-image
// descriptors starts; the two without fail the start in ExtractStillInfo,
// after the capture table was made, and remove frees what the start left.
struct RealCamera {
    const char* name;
    NTSTATUS start;
};
void PrintTo(const RealCamera& camera, std::ostream* os) { *os << camera.name; }

class RealCameraStart : public ::testing::TestWithParam<RealCamera> {};

TEST_P(RealCameraStart, StartsOnlyWithStillImageDescriptors)
{
    auto camera = SharedCamera(GetParam().name);
    ASSERT_NE(camera, nullptr);
    Rig rig(camera);
    ASSERT_EQ(rig.Add(), STATUS_SUCCESS);
    kvsim::ClearDebugLog();
    EXPECT_EQ(rig.Start(), GetParam().start);
    EXPECT_GT(rig.Dev().m_Formats.m_nCaptureTable, 0);
    if (NT_SUCCESS(GetParam().start)) {
        EXPECT_GT(rig.Dev().m_Formats.m_nStillTable, 0);
    } else {
        EXPECT_TRUE(DebugSaid("Kvdrv PnP start : ExtractStillInfo return error (Status 0xC000000D )"));
        rig.Remove();
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(SharedCameras, RealCameraStart,
                         ::testing::Values(RealCamera{"trust_webcam", STATUS_SUCCESS},
                                           RealCamera{"logitech_c270", STATUS_INVALID_PARAMETER},
                                           RealCamera{"elp_h264", STATUS_INVALID_PARAMETER}),
                         [](const auto& info) { return std::string(info.param.name); });

// The start leaves the tables, the settings and the filter factory in place,
// every lasting block under its owner's tag, and "DeviceExist" = 1; a start
// dispatched again does nothing. Stop writes "DeviceExist" = 2, deconfigures
// the camera and frees the driver's blocks but the device object (ks.sys
// keeps its device and object bag); the device then starts again.
TEST(DeviceStartStop, StartBuildsTheTablesStopFreesThemAndTheDeviceStartsAgain)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    const CCaptureDevice& dev = rig.Dev();
    EXPECT_TRUE(dev.m_Filter.m_FilterFactoryCreated);
    EXPECT_EQ(dev.m_Requests.m_ControlReady, 1u);
    EXPECT_NE(dev.m_Settings.m_Property, nullptr);
    EXPECT_GT(dev.m_Formats.m_nCaptureTable, 0);
    EXPECT_GT(dev.m_Formats.m_nStillTable, 0);
    EXPECT_EQ(DriverBlockTags(), (std::vector<std::string>{"KVB1", "KVCn", "KVNd", "KVVd", "KVVp", "KVVr", "KVVs",
                                                           "KVaC", "KVaT", "KVcd", "KVdd", "KVit", "KVit", "KVle",
                                                           "KVrb", "KVtx"}));
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
    const uint64_t before = kvsim::PoolAllocationCount();
    ASSERT_TRUE(rig.KsDevice()->Started);
    EXPECT_EQ(g_KvDeviceDescriptor.Dispatch->Start(rig.KsDevice(), nullptr, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::PoolAllocationCount(), before);

    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 2u);
    EXPECT_EQ(DriverBlockTags(), std::vector<std::string>{"KVaC"});
    EXPECT_FALSE(usb::GetDeviceState(rig.Pdo()).configured);
    EXPECT_EQ(dev.m_Formats.m_pCaptureTable, nullptr);
    EXPECT_EQ(dev.m_Settings.m_Property, nullptr);
    EXPECT_TRUE(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).empty());

    ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
    EXPECT_TRUE(dev.m_Filter.m_FilterFactoryCreated);
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).size(), 1u);
    EXPECT_EQ(kvsim::RegGetDword(kData, "DeviceExist"), 1u);
}

// A camera pulled out: idle management ends at once (no power request, no
// idle pass after it), and the remove that follows frees everything.
TEST(DeviceSurpriseRemoval, EndsIdleManagementAndTheFinalRemoveFreesEverything)
{
    Rig rig(DefaultCamera(), /*idlePower=*/true);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Idle().m_IdleActive, 1u);
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    usb::SurpriseRemove(rig.Pdo());
    ASSERT_EQ(pnp::SurpriseRemoveDevice(rig.Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(rig.Idle().m_IdleActive, 0u);
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

// A request deferred just before a stop reaches the camera while it is still
// configured: stop waits for deferred requests before it deconfigures the
// camera (which would refuse every class request after that).
TEST(DeviceStartStop, ARequestDeferredBeforeAStopReachesTheConfiguredCamera)
{
    auto camera = DefaultCamera();
    Rig rig(camera);
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    EXPECT_EQ(drvtest::AtDispatchLevel([&] { return rig.Dev().m_Requests.SetDeviceProperty(PROPID_BRIGHTNESS, 42); }),
              STATUS_SUCCESS);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_FALSE(camera->Configured());
    EXPECT_EQ(camera->ControlValue(3, UVC_PU_BRIGHTNESS_CONTROL >> 8), 42);
}

// The DPC counts down once a second; the second after 0 it asks for a still
// (no longer a software trigger) and stops the timer. Stop cancels a
// countdown that runs.
TEST(SelfTimerCountdown, CountsDownThenRaisesTheStillRequestAndStopCancelsIt)
{
    Rig rig;
    ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
    SelfTimer& timer = rig.Dev().m_SelfTimer;
    timer.m_SoftwareTrigger = 1;
    // The counting, not the clock tick, is under test: each second exactly,
    // looked at half a second after each tick (with the host's clock in
    // Parallel mode, a look at the tick itself races the DPC).
    kvsim::SetExactTimers(true);
    DriverTestAccess::StartCountdown(timer, 2);
    kvsim::RunFor(kvsim::kSecond + kvsim::kSecond / 2);
    EXPECT_EQ(timer.m_CountdownCounter, 1);
    kvsim::RunFor(1 * kvsim::kSecond);
    EXPECT_EQ(timer.m_CountdownCounter, 0);
    EXPECT_EQ(timer.m_StillRequest, 0u);
    kvsim::RunFor(1 * kvsim::kSecond);
    EXPECT_EQ(timer.m_CountdownCounter, -1);
    EXPECT_EQ(timer.m_StillRequest, 1u);
    EXPECT_EQ(timer.m_SoftwareTrigger, 0u);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);

    DriverTestAccess::StartCountdown(timer, 5);
    ASSERT_EQ(kvsim::GetSchedCounters().timersArmed, 1u);
    ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::GetSchedCounters().timersArmed, 0u);
}

// A countdown second that expired while another processor was busy leaves
// its DPC queued; cancelling the timer does not take it back. Stop (before
// the next start initialises the DPC again) and removal (before the device's
// memory goes) wait it out; otherwise freeing the device with the DPC still
// queued is bug check 0xC7.
TEST(SelfTimerCountdown, StopAndRemovalWaitOutADpcQueuedOnABusyProcessor)
{
    enum class Path { Stop, Remove, SurpriseRemoval };
    for (Path path : {Path::Stop, Path::Remove, Path::SurpriseRemoval}) {
        SCOPED_TRACE(static_cast<int>(path));
        // Idle power off: nothing else on these paths flushes DPCs; no
        // button, so the only DPC is the countdown's.
        Rig rig(CameraWithoutButton());
        ASSERT_EQ(rig.AddAndStart(), STATUS_SUCCESS);
        kvsim::SetExactTimers(true);
        DriverTestAccess::StartCountdown(rig.Dev().m_SelfTimer, 5);
        kvsim::HoldDpcs(true);
        kvsim::RunFor(kvsim::kSecond);
        ASSERT_EQ(kvsim::GetSchedCounters().dpcsQueued, 1u);
        switch (path) {
            case Path::Stop:
                ASSERT_EQ(rig.Stop(), STATUS_SUCCESS);
                break;
            case Path::Remove:
                ASSERT_EQ(rig.Remove(), STATUS_SUCCESS);
                break;
            case Path::SurpriseRemoval:
                usb::SurpriseRemove(rig.Pdo());
                ASSERT_EQ(pnp::SurpriseRemoveDevice(rig.Pdo()), STATUS_SUCCESS);
                rig.MarkRemoved();
                ASSERT_EQ(pnp::FinishSurpriseRemoval(rig.Pdo()), STATUS_SUCCESS);
                break;
        }
        EXPECT_EQ(kvsim::GetSchedCounters().dpcsQueued, 0u);
        kvsim::HoldDpcs(false);
    }
}

}  // namespace
