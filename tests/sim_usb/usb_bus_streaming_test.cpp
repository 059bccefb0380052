// The bus end to end, with the test in the client driver's role (issue 3,
// first "Must show"): descriptors read through URBs, configuration and
// alternate setting selected, probe/commit through class-interface URBs, two
// or three isochronous transfers kept in flight, 30 YUY2 and then 30
// motion-JPEG frames reassembled from the packets and checked (frame
// numbers; the JPEGs decode). The slot timing is in usb_bus_timing_test.
#include <gtest/gtest.h>

#include "usb_streaming_session.h"

using namespace usbtest;

namespace {

void ExpectConsecutive(const std::vector<uint32_t>& numbers) {
    for (size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1) << "frame " << i;
}

}  // namespace

TEST(UsbBusStreaming, ThirtyYuy2ThenThirtyMjpegFramesThroughUrbs) {
    Session s;
    Open(s);
    if (HasFatalFailure()) return;
    // The interrupt pipe of the video-control interface.
    ASSERT_EQ(s.cfg.Interface(0)->NumberOfPipes, 1u);
    EXPECT_EQ(s.cfg.Interface(0)->Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_EQ(s.cfg.Interface(0)->Class, USB_DEVICE_CLASS_VIDEO);
    EXPECT_EQ(s.cfg.Interface(1)->NumberOfPipes, 0u);

    // YUY2 320x240 at 30 frames a second, three transfers in flight.
    auto yuy2 = RunFormat(s, 1, 3, 333333, 30, 3);
    ASSERT_TRUE(yuy2);
    ASSERT_GE(yuy2->frames.size(), 30u);
    EXPECT_TRUE(yuy2->irqlOk);
    std::vector<uint32_t> numbers;
    for (size_t i = 0; i < 30; ++i) {
        const auto& f = yuy2->frames[i];
        EXPECT_TRUE(f.eof) << i;
        EXPECT_FALSE(f.bad) << i;
        ASSERT_EQ(f.data.size(), 320u * 240 * 2) << i;
        auto n = ReadFrameNumber(f.data, 320, 240);
        ASSERT_TRUE(n.has_value()) << i;
        numbers.push_back(*n);
    }
    ExpectConsecutive(numbers);

    // Motion JPEG 320x240, two transfers in flight.
    auto mjpeg = RunFormat(s, 2, 3, 333333, 30, 2);
    ASSERT_TRUE(mjpeg);
    ASSERT_GE(mjpeg->frames.size(), 30u);
    numbers.clear();
    for (size_t i = 0; i < 30; ++i) {
        const auto& f = mjpeg->frames[i];
        EXPECT_TRUE(f.eof) << i;
        EXPECT_FALSE(f.bad) << i;
        ASSERT_GE(f.data.size(), 2u);
        EXPECT_EQ(f.data[0], 0xFF);
        EXPECT_EQ(f.data[1], 0xD8);
        auto picture = DecodeJpeg(f.data);
        ASSERT_TRUE(picture.has_value()) << "frame " << i << " does not decode";
        ASSERT_EQ(picture->width, 320);
        auto n = ReadFrameNumber(picture->pixels, picture->width, picture->height);
        ASSERT_TRUE(n.has_value()) << i;
        numbers.push_back(*n);
    }
    ExpectConsecutive(numbers);
    EXPECT_EQ(kvsim::usb::GetDeviceState(s.dev.pdo).pendingTransfers, 0u);
    kvsim::usb::Unplug(s.dev.pdo);
}

// TransfersRunBackToBackOnTheMicroframeClock and FullSpeedTakesOnePacketAMillisecond:
// usb_bus_timing_test.cpp (virtual mode).

TEST(UsbBusStreaming, HighSpeedRejectsPacketCountsThatAreNotMultiplesOfEight) {
    Session s;
    Open(s);
    if (HasFatalFailure()) return;
    auto committed = ProbeCommit(s.dev.pdo, kVs, 1, 3, 333333);
    ASSERT_TRUE(committed);
    auto [alt, endpoints] = AlternateFor(s.config, kVs, committed->maxPayloadTransferSize);
    Selected sel = SelectInterface(s.dev.pdo, s.cfg.handle, kVs, alt, endpoints);
    ASSERT_EQ(sel.pipes.size(), 1u);
    IsoTransfer odd(s.dev.pdo, 12, sel.pipes[0].MaximumPacketSize);
    EXPECT_EQ(odd.Submit(sel.pipes[0].PipeHandle), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(odd.Iso().Hdr.Status, USBD_STATUS_INVALID_PARAMETER);
    IsoTransfer tooMany(s.dev.pdo, 1032, 16);
    EXPECT_EQ(tooMany.Submit(sel.pipes[0].PipeHandle), STATUS_INVALID_PARAMETER);
    IsoTransfer ok(s.dev.pdo, 8, sel.pipes[0].MaximumPacketSize);
    EXPECT_EQ(ok.Submit(sel.pipes[0].PipeHandle), STATUS_PENDING);
    ASSERT_TRUE(ok.irp.Wait());
    EXPECT_EQ(ok.irp.Status(), STATUS_SUCCESS);
    kvsim::usb::Unplug(s.dev.pdo);
}
