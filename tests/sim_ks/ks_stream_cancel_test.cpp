// The ks.sys simulation's cancellation of queued stream IRPs: IoCancelIrp of
// a pending IOCTL_KS_READ_STREAM completes it with STATUS_CANCELLED and its
// frame leaves the queue (the minidriver's leading edge no longer sees it),
// unless a locked stream pointer holds the frame: then the cancellation
// waits until the pointer is unlocked.
// https://learn.microsoft.com/windows-hardware/drivers/stream/stream-pointers-and-irp-cancellation
#include <vector>

#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

class KsCancelTest : public KsTest {
protected:
    // RUN with `count` buffers queued that Process leaves alone.
    void QueueUnprocessed(ULONG count) {
        OpenCapturePin();
        Recorder().fillOnProcess = false;
        ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(pin_->QueueBuffers(count, 1000), STATUS_PENDING);
    }
};

TEST_F(KsCancelTest, CancellingAQueuedReadCompletesItCancelled) {
    QueueUnprocessed(3);
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
    QueueUnprocessed(2);
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
    QueueUnprocessed(2);
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
    QueueUnprocessed(1);
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
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    ASSERT_EQ(pin_->PendingBuffers(), 0u);
    EXPECT_FALSE(pin_->CancelBuffer(0));
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace kvtest::ks
