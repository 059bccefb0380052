// The ks.sys simulation's queue: client buffers reach the minidriver's
// Process as the leading-edge stream pointer, a filled and ejected frame
// reaches the client with its stream header and KS_FRAME_INFO, a pin with
// nothing queued has no locked stream pointer but an unlocked leading edge
// (the documented exception); the processing rules of the pin flags
// (KSPIN_DESCRIPTOR_EX.Flags):
//  - KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING: "processing will occur only
//    when KsPinAttemptProcessing is called" - never when buffers arrive or
//    the pin reaches PAUSE/RUN;
//  - KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY: Process is called in RUN only,
//    not in PAUSE (not even through KsPinAttemptProcessing),
// each rule next to the same steps with the flag cleared, so that a
// simulation that ignored the flag fails
// (https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-_kspin_descriptor_ex);
// and the cancellation of queued stream IRPs: IoCancelIrp of a pending
// IOCTL_KS_READ_STREAM completes it with STATUS_CANCELLED and its frame
// leaves the queue (the minidriver's leading edge no longer sees it), unless
// a locked stream pointer holds the frame: then the cancellation waits until
// the pointer is unlocked
// (https://learn.microsoft.com/windows-hardware/drivers/stream/stream-pointers-and-irp-cancellation).

#include <algorithm>
#include <vector>

#include "kvsim/sched.h"
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

TEST_F(KsTest, FilledAndEjectedFramesReachTheClientWithTheirHeaders) {
    OpenCapturePin();
    PKSPIN pin = Recorder().capturePin;
    pin->StreamHeaderSize = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(2, TestFrameBytes(0) + 100), STATUS_PENDING);
    ASSERT_TRUE(pin_->WaitForFrames(2, kvsim::kSecond));
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 2u);
    for (ULONG i = 0; i < 2; ++i) {
        const auto& f = frames[i];
        EXPECT_EQ(f.status, STATUS_SUCCESS);
        EXPECT_EQ(f.information, sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO));
        EXPECT_EQ(f.header.DataUsed, TestFrameBytes(0));
        EXPECT_EQ(f.header.FrameExtent, TestFrameBytes(0) + 100);
        EXPECT_EQ(f.header.Duration, kFrameInterval);
        EXPECT_TRUE(f.header.OptionsFlags & KSSTREAM_HEADER_OPTIONSF_DURATIONVALID);
        ASSERT_TRUE(f.hasFrameInfo);
        EXPECT_EQ(f.frameInfo.PictureNumber, LONGLONG(i + 1));
        ASSERT_EQ(f.data.size(), TestFrameBytes(0));
        EXPECT_TRUE(std::all_of(f.data.begin(), f.data.end(), [&](uint8_t b) { return b == i + 1; }));
    }
    EXPECT_EQ(Recorder().framesFilled, 2u);
}

// Refused: buffers queued in the STOP state, and buffers whose header is
// shorter than the pin's StreamHeaderSize.
TEST_F(KsTest, BuffersInTheStopStateOrWithAShortHeaderAreRefused) {
    OpenCapturePin();
    EXPECT_EQ(pin_->QueueBuffers(1, 4096), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
    Recorder().capturePin->StreamHeaderSize = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0), false), STATUS_INVALID_BUFFER_SIZE);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_INVALID_BUFFER_SIZE);
}

// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspingetleadingedgestreampointer
TEST_F(KsTest, NoBufferQueuedGivesNoLockedStreamPointerButAnUnlockedEdge) {
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    PKSPIN pin = Recorder().capturePin;
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED), nullptr);
    // Nothing queued: RUN alone does not call Process.
    EXPECT_EQ(Recorder().processCalls, 0u);
    // Asked for unlocked, the edge is there without a frame: it cannot be
    // locked, and advancing it "always succeeds".
    PKSSTREAM_POINTER edge = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_UNLOCKED);
    ASSERT_NE(edge, nullptr);
    EXPECT_EQ(edge->StreamHeader, nullptr);
    EXPECT_EQ(KsStreamPointerLock(edge), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(KsStreamPointerAdvance(edge), STATUS_SUCCESS);

    // With a buffer queued (and Process not consuming it) the same edge
    // stands on it, and a locked one spans the whole buffer.
    Recorder().fillOnProcess = false;
    ASSERT_EQ(pin_->QueueBuffers(1, 4096), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_UNLOCKED), edge);
    ASSERT_NE(edge->StreamHeader, nullptr);
    EXPECT_EQ(edge->StreamHeader->FrameExtent, 4096u);
    EXPECT_EQ(KsStreamPointerLock(edge), STATUS_SUCCESS);
    KsStreamPointerUnlock(edge, FALSE);
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    EXPECT_EQ(sp->Pin, pin);
    EXPECT_EQ(sp->OffsetOut.Count, 4096u);
    EXPECT_EQ(sp->OffsetOut.Remaining, 4096u);
    EXPECT_EQ(sp->StreamHeader->FrameExtent, 4096u);
    EXPECT_EQ(static_cast<void*>(sp->OffsetOut.Data), sp->StreamHeader->Data);
    // Advancing past the only frame completes it and leaves nothing.
    sp->StreamHeader->DataUsed = 10;
    EXPECT_EQ(KsStreamPointerAdvance(sp), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED), nullptr);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].header.DataUsed, 10u);
}

TEST_F(KsTest, AdvancingOffsetsPartlyKeepsTheFrameAndUnlockWithoutEjectKeepsItQueued) {
    RunWithBuffers(2, 1000, false);
    PKSPIN pin = Recorder().capturePin;
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    PKSSTREAM_HEADER first = sp->StreamHeader;
    EXPECT_EQ(KsStreamPointerAdvanceOffsets(sp, 0, 400, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(sp->OffsetOut.Remaining, 600u);
    EXPECT_EQ(sp->StreamHeader, first);
    KsStreamPointerUnlock(sp, FALSE);
    EXPECT_EQ(pin_->PendingBuffers(), 2u);
    // The edge comes back where it was.
    sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    EXPECT_EQ(sp->OffsetOut.Remaining, 600u);
    // Using the rest moves the edge to the second frame.
    EXPECT_EQ(KsStreamPointerAdvanceOffsets(sp, 0, 600, FALSE), STATUS_SUCCESS);
    EXPECT_NE(sp->StreamHeader, first);
    EXPECT_EQ(sp->OffsetOut.Remaining, 1000u);
    KsStreamPointerUnlock(sp, TRUE);
    EXPECT_EQ(pin_->PendingBuffers(), 0u);
    EXPECT_EQ(pin_->CollectFrames().size(), 2u);
}

TEST_F(KsTest, StoppingThePinCancelsItsQueuedBuffers) {
    RunWithBuffers(3, 512, false);
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 3u);
    for (auto& f : frames) EXPECT_EQ(f.status, STATUS_CANCELLED);
}

TEST_F(KsTest, DoNotInitiateProcessingLeavesArrivingBuffersToAttemptProcessing) {
    SetCapturePinFlags(KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING);
    RunWithBuffers(2, TestFrameBytes(0));
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

// The same steps with both flags cleared: a buffer arriving in PAUSE is
// processed at once.
TEST_F(KsTest, WithNeitherFlagABufferArrivingInPauseIsProcessed) {
    SetCapturePinFlags(0);
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

using KsCancelTest = KsTest;

TEST_F(KsCancelTest, CancellingAQueuedReadCompletesItCancelled) {
    RunWithBuffers(3, 1000, false);
    EXPECT_TRUE(pin_->CancelBuffer(1));
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_CANCELLED);
    EXPECT_EQ(frames[0].information, 0u);
    EXPECT_EQ(pin_->PendingBuffers(), 2u);

    // The minidriver walks the two frames left, then there is none.
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(Recorder().capturePin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    sp->StreamHeader->DataUsed = 1;
    EXPECT_EQ(KsStreamPointerAdvance(sp), STATUS_SUCCESS);
    sp->StreamHeader->DataUsed = 3;
    EXPECT_EQ(KsStreamPointerAdvance(sp), STATUS_DEVICE_NOT_READY);
    frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].status, STATUS_SUCCESS);
    EXPECT_EQ(frames[0].header.DataUsed, 1u);
    EXPECT_EQ(frames[1].status, STATUS_SUCCESS);
    EXPECT_EQ(frames[1].header.DataUsed, 3u);
}

TEST_F(KsCancelTest, CancellingTheFrameUnderAnUnlockedEdgeMovesTheEdgeOn) {
    RunWithBuffers(2, 1000, false);
    PKSPIN pin = Recorder().capturePin;
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_UNLOCKED);
    ASSERT_NE(sp, nullptr);
    PKSSTREAM_HEADER first = sp->StreamHeader;
    EXPECT_TRUE(pin_->CancelBuffer(0));
    ASSERT_EQ(pin_->PendingBuffers(), 1u);
    sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_UNLOCKED);
    ASSERT_NE(sp, nullptr);
    EXPECT_NE(sp->StreamHeader, first);
    // Cancelling the last one leaves no stream pointer at all.
    EXPECT_TRUE(pin_->CancelBuffer(0));
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED), nullptr);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 2u);
    for (auto& f : frames) EXPECT_EQ(f.status, STATUS_CANCELLED);
}

TEST_F(KsCancelTest, ALockedStreamPointerHoldsTheCancellationUntilUnlocked) {
    RunWithBuffers(2, 1000, false);
    PKSPIN pin = Recorder().capturePin;
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    PKSSTREAM_HEADER first = sp->StreamHeader;
    EXPECT_TRUE(pin_->CancelBuffer(0));
    // Still queued: the frame is locked.
    EXPECT_EQ(pin_->PendingBuffers(), 2u);
    EXPECT_EQ(sp->StreamHeader, first);
    KsStreamPointerUnlock(sp, FALSE);
    EXPECT_EQ(pin_->PendingBuffers(), 1u);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_CANCELLED);
    sp = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    EXPECT_NE(sp->StreamHeader, first);
    KsStreamPointerUnlock(sp, FALSE);
}

TEST_F(KsCancelTest, ALockedFrameEjectedAfterTheCancelCompletesNormally) {
    RunWithBuffers(1, 1000, false);
    PKSSTREAM_POINTER sp = KsPinGetLeadingEdgeStreamPointer(Recorder().capturePin, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(sp, nullptr);
    EXPECT_TRUE(pin_->CancelBuffer(0));
    sp->StreamHeader->DataUsed = 7;
    KsStreamPointerUnlock(sp, TRUE);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_SUCCESS);
    EXPECT_EQ(frames[0].header.DataUsed, 7u);
}

TEST_F(KsCancelTest, ACompletedReadCannotBeCancelled) {
    RunWithBuffers(1, TestFrameBytes(0));
    ASSERT_EQ(pin_->PendingBuffers(), 0u);
    EXPECT_FALSE(pin_->CancelBuffer(0));
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace kvtest::ks
