// Class requests made at DISPATCH_LEVEL are deferred to a work item. These
// tests look at the moment before the work item runs, which only the virtual
// clock holds still, so this executable forces Virtual mode.
#include <gtest/gtest.h>

#include "controls_rig.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"

namespace {

using namespace controls_rig;

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

bool RunTheWorkItems()
{
    return kvsim::RunUntil([] { return kvsim::GetSchedCounters().workItemsPending == 0; }, kvsim::kSecond);
}

class DeferredRequests : public ::testing::Test {
protected:
    void SetUp() override { rig.Start(); }
    Rig rig;
};

// The request reaches the camera from a work item; without the memory for
// its record the deferral fails.
TEST_F(DeferredRequests, ARequestIssuedAtDispatchLevelIsDeferredAndReachesTheCameraLater)
{
    const auto before = kvsim::GetSchedCounters();
    static UCHAR data[2] = {0x05, 0x00};  // sharpness 5; lives until the work item has run
    static ULONG length = 2;
    EXPECT_EQ(AtDispatchLevel([&] {
                  return rig.Req().SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, 0x0800, data, &length);
              }),
              STATUS_PENDING);
    EXPECT_EQ(rig.RequestCount(), 0u);              // nothing sent yet
    EXPECT_EQ(rig.CameraValue(3, 0x08), 3);         // the camera still has its default
    EXPECT_EQ(kvsim::PoolStatsForTag(kv::kTagRequest).currentCount, 2u);  // context + record

    ASSERT_TRUE(RunTheWorkItems());
    EXPECT_EQ(rig.CameraValue(3, 0x08), 5);
    ASSERT_EQ(rig.RequestCount(), 1u);
    EXPECT_EQ(Seen()[0].irql, PASSIVE_LEVEL);  // sent from the work item
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsRun, before.workItemsRun + 1);
    // The record, the URB and the work item are freed (the test main checks work items).
    EXPECT_EQ(kvsim::PoolStatsForTag(kv::kTagRequest).currentCount, 1u);
    EXPECT_EQ(kvsim::LiveIrpCount(), 0u);

    // Without the record the deferral fails and queues nothing.
    kvsim::PoolFailTag(kv::kTagRequest);
    EXPECT_EQ(AtDispatchLevel([&] {
                  return rig.Req().SendClassRequest(UVC_ENTITY_PROCESSING_UNIT, UVC_SET_CUR, 0x0800, data, &length);
              }),
              STATUS_INSUFFICIENT_RESOURCES);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(kvsim::GetSchedCounters().workItemsPending, 0u);
}

// Sets a processing-unit control at DISPATCH_LEVEL from a frame of its own,
// so that SetProcessingUnit's two-byte buffer and length are gone when the
// work item runs.
[[gnu::noinline]] NTSTATUS SetSharpnessAtDispatchLevel(Rig& rig, LONG value)
{
    return AtDispatchLevel([&] { return rig.Req().SetDeviceProperty(PROPID_SHARPNESS, value); });
}

// Writes over the stack below the caller, where the frame above lived.
[[gnu::noinline]] void ClobberStack()
{
    volatile UCHAR junk[8192];
    for (auto& b : junk) b = 0x7F;
}

TEST_F(DeferredRequests, ADeferredRequestSendsTheCallersDataEvenAfterTheCallersFrameIsGone)
{
    EXPECT_EQ(SetSharpnessAtDispatchLevel(rig, 5), STATUS_SUCCESS);
    ClobberStack();
    EXPECT_EQ(rig.RequestCount(), 0u);
    ASSERT_TRUE(RunTheWorkItems());
    ASSERT_EQ(rig.RequestCount(), 1u);
    EXPECT_EQ(Seen()[0].out, (std::vector<UCHAR>{0x05, 0x00}));
    EXPECT_EQ(Seen()[0].length, 2u);
    EXPECT_EQ(rig.CameraValue(3, 0x08), 5);
    EXPECT_EQ(kvsim::PoolStatsForTag(kv::kTagRequest).currentCount, 1u);  // the record is gone
}

TEST_F(DeferredRequests, ARequestDeferredAtDispatchLevelLeavesTheResultUnwritten)
{
    LONG value = 1234;
    EXPECT_EQ(AtDispatchLevel([&] { return rig.Req().GetDeviceProperty(PROPID_BRIGHTNESS, UVC_GET_MAX, &value); }),
              STATUS_PENDING);
    EXPECT_EQ(value, 1234);  // no camera answer yet, so nothing is made up
    ASSERT_TRUE(RunTheWorkItems());
    ASSERT_EQ(rig.RequestCount(), 1u);
    EXPECT_EQ(Seen()[0].request, UVC_GET_MAX);
    EXPECT_EQ(value, 1234);
}

}  // namespace
