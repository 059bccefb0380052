// The ks.sys simulation's processing rules for the pin flags
// (KSPIN_DESCRIPTOR_EX.Flags):
//  - KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING: "processing will occur only
//    when KsPinAttemptProcessing is called" - never when buffers arrive or
//    the pin reaches PAUSE/RUN;
//  - KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY: Process is called in RUN only,
//    not in PAUSE (not even through KsPinAttemptProcessing).
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-_kspin_descriptor_ex
// Each rule is shown next to the same steps with the flag cleared, so that
// a simulation that ignored the flag fails.
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

TEST_F(KsTest, DoNotInitiateProcessingLeavesArrivingBuffersToAttemptProcessing) {
    SetCapturePinFlags(KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING);
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(2, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 0u);
    EXPECT_EQ(pin_->PendingBuffers(), 2u);
    // Going through PAUSE to RUN again does not start processing either.
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().processCalls, 0u);

    KsPinAttemptProcessing(Recorder().capturePin, FALSE);
    // Process made progress and frames remain: ks.sys calls it again.
    EXPECT_EQ(Recorder().framesFilled, 2u);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 2u);
    for (auto& f : frames) EXPECT_EQ(f.status, STATUS_SUCCESS);
}

TEST_F(KsTest, WithoutDoNotInitiateProcessingAnArrivingBufferIsProcessed) {
    SetCapturePinFlags(0);
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

TEST_F(KsTest, ProcessInRunStateOnlyIgnoresPauseEvenForAttemptProcessing) {
    SetCapturePinFlags(KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY);
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    KsPinAttemptProcessing(Recorder().capturePin, FALSE);
    EXPECT_EQ(Recorder().processCalls, 0u);
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
    // Back in PAUSE, a new buffer waits again.
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(pin_->PendingBuffers(), 1u);
}

TEST_F(KsTest, WithoutProcessInRunStateOnlyPauseProcesses) {
    SetCapturePinFlags(0);
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

}  // namespace
}  // namespace kvtest::ks
