// The ks.sys simulation's reference clock: once the client assigned a
// master clock (KSPROPERTY_STREAM_MASTERCLOCK), KsPinGetReferenceClockInterface
// reads the simulated clock and frames carry a presentation time. Split from
// ks_stream_test.cpp because it compares clock readings to the 100 ns, which
// only the virtual clock gives: in Parallel mode (the tsan preset) the clock
// is the host's and moves between two reads. So this executable forces
// Virtual mode, as ke_dispatcher_test does; ks_stream_test keeps its Parallel
// coverage. KsPinAttemptProcessing's asynchronous form is here too: it shows
// that Process has not run yet when the call returns, which holds only while
// one simulated thread runs at a time (in Parallel mode a worker may run it
// at once, and the test's read of processCalls would race with it).
#include "kvsim/object.h"
#include "kvsim/sched.h"
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

TEST_F(KsTest, AttemptProcessingAsynchronouslyRunsProcessOnAWorker) {
    RunWithBuffers(1, TestFrameBytes(0), false);
    Recorder().fillOnProcess = true;
    ULONG before = Recorder().processCalls;
    KsPinAttemptProcessing(Recorder().capturePin, TRUE);
    EXPECT_EQ(Recorder().processCalls, before);  // not yet: a worker runs it
    ASSERT_TRUE(pin_->WaitForFrames(1, kvsim::kSecond));
    EXPECT_EQ(pin_->CollectFrames().size(), 1u);
}

TEST_F(KsTest, ReferenceClockReadsTheSimulatedClockOnceTheClientAssignsOne) {
    OpenCapturePin();
    PKSPIN pin = Recorder().capturePin;
    PIKSREFERENCECLOCK clock = nullptr;
    EXPECT_EQ(KsPinGetReferenceClockInterface(pin, &clock), STATUS_UNSUCCESSFUL);
    kvsim::client::MasterClock master;
    ASSERT_EQ(pin_->SetMasterClock(master.handle()), STATUS_SUCCESS);
    // The pin holds the clock's file object, not the client's handle.
    master.CloseHandle();
    ASSERT_EQ(KsPinGetReferenceClockInterface(pin, &clock), STATUS_SUCCESS);
    kvsim::RunFor(5 * kvsim::kMillisecond);
    EXPECT_EQ(clock->GetTime(), kvsim::Now());
    clock->Release();
    // Frames now carry a presentation time.
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    LONGLONG queuedAt = kvsim::Now();
    ASSERT_EQ(pin_->QueueBuffers(1, TestFrameBytes(0)), STATUS_PENDING);
    auto frames = pin_->CollectFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_TRUE(frames[0].header.OptionsFlags & KSSTREAM_HEADER_OPTIONSF_TIMEVALID);
    EXPECT_EQ(frames[0].header.PresentationTime.Time, queuedAt);
    // A NULL handle takes the clock away again.
    ASSERT_EQ(pin_->SetMasterClock(nullptr), STATUS_SUCCESS);
    EXPECT_EQ(KsPinGetReferenceClockInterface(pin, &clock), STATUS_UNSUCCESSFUL);
}

}  // namespace
}  // namespace kvtest::ks
