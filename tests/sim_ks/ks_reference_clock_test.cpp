// The ks.sys simulation's reference clock: the master clock property
// (KSPROPERTY_STREAM_MASTERCLOCK) takes a clock's handle, on pins only, and
// the pin keeps the clock until it closes or gets a NULL handle; meanwhile
// KsPinGetReferenceClockInterface reads the simulated clock and frames carry
// a presentation time. Split from
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
    EXPECT_EQ(pin_->SetMasterClock(reinterpret_cast<HANDLE>(0x1234)), STATUS_INVALID_HANDLE);
    kvsim::client::EventWaiter event;  // a handle to an object that is no file object
    EXPECT_EQ(pin_->SetMasterClock(event.eventData().EventHandle.Event), STATUS_OBJECT_TYPE_MISMATCH);
    HANDLE none = nullptr;
    EXPECT_EQ(filter_->Set(KSPROPSETID_Stream, KSPROPERTY_STREAM_MASTERCLOCK, none), STATUS_PROPERTY_SET_NOT_FOUND);
    size_t before = kvsim::ObLiveObjectCount();
    {
        kvsim::client::MasterClock master;
        ASSERT_EQ(pin_->SetMasterClock(master.handle()), STATUS_SUCCESS);
        HANDLE answered = reinterpret_cast<HANDLE>(0x77);  // the get answers a NULL handle
        EXPECT_EQ(pin_->GetMasterClock(&answered), STATUS_SUCCESS);
        EXPECT_EQ(answered, nullptr);
    }
    // The client's handle is closed; the pin's reference keeps the clock.
    EXPECT_EQ(kvsim::ObLiveObjectCount(), before + 1);
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
    // A NULL handle takes the clock away again, and so does closing the pin.
    ASSERT_EQ(pin_->SetMasterClock(nullptr), STATUS_SUCCESS);
    EXPECT_EQ(KsPinGetReferenceClockInterface(pin, &clock), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(kvsim::ObLiveObjectCount(), before);
    {
        kvsim::client::MasterClock again;
        ASSERT_EQ(pin_->SetMasterClock(again.handle()), STATUS_SUCCESS);
    }
    ASSERT_EQ(pin_->Close(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::ObLiveObjectCount(), before);
}

}  // namespace
}  // namespace kvtest::ks
