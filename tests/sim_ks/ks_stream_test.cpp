// The ks.sys simulation's queue: client buffers reach the minidriver's
// Process as the leading-edge stream pointer, a filled and ejected frame
// reaches the client with its stream header and KS_FRAME_INFO, a pin with
// nothing queued has no stream pointer, and the reference clock reads the
// simulated clock once the client assigned one (KSPROPERTY_STREAM_MASTERCLOCK).
#include <algorithm>

#include "kvsim/object.h"
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

TEST_F(KsTest, BuffersHeaderShorterThanTheStreamHeaderSizeAreRefused) {
    OpenCapturePin();
    Recorder().capturePin->StreamHeaderSize = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0), false), STATUS_INVALID_BUFFER_SIZE);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].status, STATUS_INVALID_BUFFER_SIZE);
}

TEST_F(KsTest, NoBufferQueuedGivesNoStreamPointer) {
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    PKSPIN pin = Recorder().capturePin;
    EXPECT_EQ(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED), nullptr);
    // Nothing queued: RUN alone does not call Process.
    EXPECT_EQ(Recorder().processCalls, 0u);

    // With a buffer queued (and Process not consuming it) there is one,
    // spanning the whole buffer.
    Recorder().fillOnProcess = false;
    ASSERT_EQ(pin_->QueueBuffers(1, 4096), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 1u);
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
    OpenCapturePin();
    Recorder().fillOnProcess = false;
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(2, 1000), STATUS_PENDING);
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

TEST_F(KsTest, BuffersQueuedInTheStopStateAreRefused) {
    OpenCapturePin();
    EXPECT_EQ(pin_->QueueBuffers(1, 4096), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

TEST_F(KsTest, ProcessInRunStateOnlyWaitsForRun) {
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    EXPECT_EQ(Recorder().processCalls, 0u);  // KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().framesFilled, 1u);
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

TEST_F(KsTest, StoppingThePinCancelsItsQueuedBuffers) {
    OpenCapturePin();
    Recorder().fillOnProcess = false;
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(pin_->QueueBuffers(3, 512), STATUS_PENDING);
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 3u);
    for (auto& f : frames) EXPECT_EQ(f.status, STATUS_CANCELLED);
}

// AttemptProcessingAsynchronouslyRunsProcessOnAWorker and
// ReferenceClockReadsTheSimulatedClockOnceTheClientAssignsOne: ks_reference_clock_test.cpp (virtual
// mode).

TEST_F(KsTest, MasterClockGetAnswersANullHandle) {
    OpenCapturePin();
    kvsim::client::MasterClock master;
    ASSERT_EQ(pin_->SetMasterClock(master.handle()), STATUS_SUCCESS);
    HANDLE answered = reinterpret_cast<HANDLE>(0x77);
    EXPECT_EQ(pin_->GetMasterClock(&answered), STATUS_SUCCESS);
    EXPECT_EQ(answered, nullptr);
}

TEST_F(KsTest, MasterClockSetWithABadHandleFailsAndAssignsNothing) {
    OpenCapturePin();
    EXPECT_EQ(pin_->SetMasterClock(reinterpret_cast<HANDLE>(0x1234)), STATUS_INVALID_HANDLE);
    // A handle to an object that is no file object.
    kvsim::client::EventWaiter event;
    EXPECT_EQ(pin_->SetMasterClock(event.eventData().EventHandle.Event), STATUS_OBJECT_TYPE_MISMATCH);
    PIKSREFERENCECLOCK clock = nullptr;
    EXPECT_EQ(KsPinGetReferenceClockInterface(Recorder().capturePin, &clock), STATUS_UNSUCCESSFUL);
    // The master clock property is answered on pins only.
    HANDLE none = nullptr;
    EXPECT_EQ(filter_->Set(KSPROPSETID_Stream, KSPROPERTY_STREAM_MASTERCLOCK, none), STATUS_PROPERTY_SET_NOT_FOUND);
}

TEST_F(KsTest, ClosingThePinReleasesItsMasterClock) {
    OpenCapturePin();
    size_t before = kvsim::ObLiveObjectCount();
    {
        kvsim::client::MasterClock master;
        ASSERT_EQ(pin_->SetMasterClock(master.handle()), STATUS_SUCCESS);
    }
    // The client's handle is closed; the pin's reference keeps the clock.
    EXPECT_EQ(kvsim::ObLiveObjectCount(), before + 1);
    ASSERT_EQ(pin_->Close(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::ObLiveObjectCount(), before);
}

}  // namespace
}  // namespace kvtest::ks
