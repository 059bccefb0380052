// The ks.sys simulation's pins: a connection is accepted or refused by the
// pin factory's data ranges and instance count as ks.sys decides, reaching
// SetDataFormat with the matched range; state changes reach SetDeviceState
// one step at a time.
#include <cstring>

#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

size_t CountCalls(const char* name) {
    size_t n = 0;
    for (auto& c : Recorder().calls) n += c == name ? 1 : 0;
    return n;
}

// Both ranges match by GUIDs: each is offered to SetDataFormat in turn, which
// refuses a frame size its range lacks.
TEST_F(KsTest, ConnectionMatchingASecondRangeReachesSetDataFormatWithThatRange) {
    AddAndStart();
    OpenFilter();
    KS_DATAFORMAT_VIDEOINFOHEADER format = MakeTestFormat(0);
    format.VideoInfoHeader.bmiHeader.biWidth = 800;  // no range has 800x600
    format.VideoInfoHeader.bmiHeader.biHeight = 600;
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_), STATUS_NO_MATCH);
    EXPECT_EQ(CountCalls("SetDataFormat"), 2u);
    EXPECT_EQ(CountCalls("PinCreate"), 0u);
    // The first range is refused (frame size), the second accepted.
    ASSERT_EQ(ConnectCapture(1), STATUS_SUCCESS);
    EXPECT_EQ(CountCalls("SetDataFormat"), 4u);
    EXPECT_EQ(Recorder().lastMatchedRange, &TestRange(1).DataRange);
    PKSPIN pin = Recorder().capturePin;
    ASSERT_NE(pin, nullptr);
    EXPECT_EQ(pin->Id, kCapturePinId);
    EXPECT_EQ(pin->DataFlow, KSPIN_DATAFLOW_OUT);
    EXPECT_EQ(pin->DeviceState, KSSTATE_STOP);
    ASSERT_NE(pin->ConnectionFormat, nullptr);
    KS_DATAFORMAT_VIDEOINFOHEADER expected = MakeTestFormat(1);
    EXPECT_EQ(memcmp(pin->ConnectionFormat, &expected, sizeof(expected)), 0);
    EXPECT_EQ(KsPinGetParentFilter(pin), Recorder().filter);
    EXPECT_EQ(KsGetDevice(pin), Recorder().device);
}

TEST_F(KsTest, ConnectionsWithAnotherFormatPinOrInterfaceAreRefusedBeforeTheMinidriverSeesThem) {
    AddAndStart();
    OpenFilter();
    KS_DATAFORMAT_VIDEOINFOHEADER format = MakeTestFormat(0);
    format.DataFormat.SubFormat = KSDATAFORMAT_SUBTYPE_MJPG;
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_), STATUS_NO_MATCH);
    format = MakeTestFormat(0);
    format.DataFormat.MajorFormat = KSDATAFORMAT_TYPE_STREAM;
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_), STATUS_NO_MATCH);
    format = MakeTestFormat(0);
    format.DataFormat.Specifier = KSDATAFORMAT_SPECIFIER_VIDEOINFO2;
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_), STATUS_NO_MATCH);
    format = MakeTestFormat(0);
    EXPECT_EQ(filter_->CreatePin(kPinCount, &format.DataFormat, &pin_), STATUS_INVALID_PARAMETER);
    format.DataFormat.FormatSize = sizeof(KSDATAFORMAT) - 8;
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_), STATUS_INVALID_PARAMETER);
    // A bridge pin cannot be instantiated (InstancesPossible 0).
    KSDATAFORMAT bridge{};
    bridge.FormatSize = sizeof(KSDATAFORMAT);
    bridge.MajorFormat = KSDATAFORMAT_TYPE_ANALOGVIDEO;
    bridge.SubFormat = KSDATAFORMAT_SUBTYPE_NONE;
    bridge.Specifier = KSDATAFORMAT_SPECIFIER_ANALOGVIDEO;
    EXPECT_EQ(filter_->CreatePin(kBridgePinId, &bridge, &pin_), STATUS_UNSUCCESSFUL);
    // Another interface than standard streaming.
    KSPIN_CONNECT connect{};
    connect.Interface.Set = KSINTERFACESETID_Standard;
    connect.Interface.Id = KSINTERFACE_STANDARD_LOOPED_STREAMING;
    connect.Medium.Set = KSMEDIUMSETID_Standard;
    format = MakeTestFormat(0);
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_, &connect), STATUS_NO_MATCH);
    EXPECT_EQ(CountCalls("SetDataFormat"), 0u);
    EXPECT_EQ(CountCalls("PinCreate"), 0u);
    EXPECT_EQ(pin_, nullptr);
}

TEST_F(KsTest, SecondCapturePinIsRefusedByTheInstanceCount) {
    OpenCapturePin();
    EXPECT_EQ(KsFilterGetChildPinCount(Recorder().filter, kCapturePinId), 1u);
    std::unique_ptr<kvsim::client::Pin> second;
    KS_DATAFORMAT_VIDEOINFOHEADER format = MakeTestFormat(0);
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &second), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(second, nullptr);
    // Once the first closes, a new one may be created.
    pin_.reset();
    EXPECT_EQ(KsFilterGetChildPinCount(Recorder().filter, kCapturePinId), 0u);
    EXPECT_EQ(filter_->CreatePin(kCapturePinId, &format.DataFormat, &second), STATUS_SUCCESS);
    second.reset();
}

TEST_F(KsTest, StateWalkStopRunStopAndCloseInRunCallSetDeviceStateForEachStep) {
    OpenCapturePin();
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().capturePin->DeviceState, KSSTATE_RUN);
    ASSERT_EQ(pin_->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    auto& steps = Recorder().stateSteps;
    ASSERT_EQ(steps.size(), 6u);
    const KSSTATE expected[6][2] = {{KSSTATE_ACQUIRE, KSSTATE_STOP}, {KSSTATE_PAUSE, KSSTATE_ACQUIRE},
                                    {KSSTATE_RUN, KSSTATE_PAUSE},    {KSSTATE_PAUSE, KSSTATE_RUN},
                                    {KSSTATE_ACQUIRE, KSSTATE_PAUSE}, {KSSTATE_STOP, KSSTATE_ACQUIRE}};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(steps[i].to, expected[i][0]) << "step " << i;
        EXPECT_EQ(steps[i].from, expected[i][1]) << "step " << i;
    }
    KSSTATE state = KSSTATE_RUN;
    ASSERT_EQ(pin_->GetState(&state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_STOP);
    // Closing a running pin walks it down to STOP the same way.
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    pin_.reset();
    ASSERT_EQ(steps.size(), 12u);
    EXPECT_EQ(steps.back().to, KSSTATE_STOP);
    EXPECT_EQ(Recorder().calls.back(), "PinClose");
}

TEST_F(KsTest, FailingStateStepLeavesThePinInTheLastStateReached) {
    OpenCapturePin();
    Recorder().failStateEnabled = true;
    Recorder().failStateTo = KSSTATE_PAUSE;
    EXPECT_FALSE(NT_SUCCESS(pin_->SetState(KSSTATE_RUN)));
    EXPECT_EQ(Recorder().capturePin->DeviceState, KSSTATE_ACQUIRE);
    ASSERT_EQ(Recorder().stateSteps.size(), 1u);
    Recorder().failStateEnabled = false;
    ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(Recorder().capturePin->DeviceState, KSSTATE_RUN);
}

}  // namespace
}  // namespace kvtest::ks
