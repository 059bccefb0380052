// The bus end to end, with the test in the client driver's role (issue 3,
// first "Must show"): descriptors read through URBs, configuration and
// alternate setting selected, probe/commit through class-interface URBs, two
// or three isochronous transfers kept in flight, 30 YUY2 and then 30
// motion-JPEG frames reassembled from the packets and checked (frame
// numbers; the JPEGs decode). Also the slot timing of the transfers.
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

constexpr UCHAR kVs = 1;  // the default camera's streaming interface

// The smallest alternate setting of interface `iface` whose endpoint carries
// `payload` bytes a (micro)frame, read from the configuration descriptor as
// a driver does: (alternate, endpoints).
std::pair<UCHAR, ULONG> AlternateFor(std::vector<uint8_t>& config, UCHAR iface, ULONG payload) {
    auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
    for (LONG alt = 1; alt < 32; ++alt) {
        auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, iface, alt, -1, -1, -1);
        if (!d) continue;
        auto* e = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
            USBD_ParseDescriptors(cd, cd->wTotalLength, d, USB_ENDPOINT_DESCRIPTOR_TYPE));
        if (e && uvc::IsoCapacity(e->wMaxPacketSize) >= payload) return {static_cast<UCHAR>(alt), d->bNumEndpoints};
    }
    return {0, 0};
}

struct Session {
    Plugged dev;
    std::vector<uint8_t> config;
    Configured cfg;
};

void Open(Session& s, Speed speed = Speed::kHigh) {
    s.dev = Plug("default", speed);
    ASSERT_NE(s.dev.pdo, nullptr);
    std::vector<uint8_t> device;
    ASSERT_EQ(GetDescriptor(s.dev.pdo, USB_DEVICE_DESCRIPTOR_TYPE, 0, 18, &device), STATUS_SUCCESS);
    EXPECT_EQ(device, s.dev.camera->Descriptors().device);
    s.config = ReadConfiguration(s.dev.pdo);
    ASSERT_EQ(s.config, s.dev.camera->Descriptors().configuration);
    s.cfg = SelectConfiguration(s.dev.pdo, s.config);
    ASSERT_EQ(s.cfg.status, STATUS_SUCCESS);
    ASSERT_EQ(s.cfg.usbd, USBD_STATUS_SUCCESS);
    ASSERT_NE(s.cfg.handle, nullptr);
    ASSERT_EQ(s.cfg.interfaces.size(), 2u);
}

// Probe/commit, select the alternate setting, stream `count` frames, go back
// to alternate setting 0.
std::unique_ptr<Streamer> RunFormat(Session& s, UCHAR format, UCHAR frame, ULONG interval, size_t count,
                                    size_t inFlight) {
    auto committed = ProbeCommit(s.dev.pdo, kVs, format, frame, interval);
    EXPECT_TRUE(committed.has_value());
    if (!committed) return nullptr;
    auto [alt, endpoints] = AlternateFor(s.config, kVs, committed->maxPayloadTransferSize);
    EXPECT_NE(alt, 0);
    Selected sel = SelectInterface(s.dev.pdo, s.cfg.handle, kVs, alt, endpoints);
    EXPECT_EQ(sel.status, STATUS_SUCCESS);
    EXPECT_EQ(sel.pipes.size(), 1u);
    if (sel.pipes.empty()) return nullptr;
    EXPECT_EQ(sel.pipes[0].PipeType, UsbdPipeTypeIsochronous);
    EXPECT_GE(sel.pipes[0].MaximumPacketSize, committed->maxPayloadTransferSize);
    auto r = std::make_unique<Streamer>(s.dev.pdo, sel.pipes[0], inFlight);
    r->Frames(count);
    r->Stop();
    Selected zero = SelectInterface(s.dev.pdo, s.cfg.handle, kVs, 0, 0);
    EXPECT_EQ(zero.status, STATUS_SUCCESS);
    EXPECT_TRUE(zero.pipes.empty());
    return r;
}

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

TEST(UsbBusStreaming, TransfersRunBackToBackOnTheMicroframeClock) {
    Session s;
    Open(s);
    if (HasFatalFailure()) return;
    auto p = RunFormat(s, 1, 3, 333333, 5, 3);
    ASSERT_TRUE(p);
    const Streamer& r = *p;
    ASSERT_GE(r.completionTimes.size(), 4u);
    for (size_t i = 0; i < r.completionTimes.size(); ++i) {
        EXPECT_EQ(r.completionTimes[i] % 1250, 0u) << "completion off the 125 us grid";
        EXPECT_EQ(r.statuses[i], STATUS_SUCCESS);
        // Completion at the end of the last slot: (StartFrame x 8 + 128) slots.
        EXPECT_EQ(r.completionTimes[i], (uint64_t(r.startFrames[i]) * 8 + 128) * 1250) << i;
        if (i > 0) {
            EXPECT_EQ(r.completionTimes[i] - r.completionTimes[i - 1], 128u * 1250) << "gap between transfers " << i;
        }
    }
    // A packet never carries more than the alternate setting's capacity.
    EXPECT_LE(r.maxPacket, 3072u);
    kvsim::usb::Unplug(s.dev.pdo);
}

TEST(UsbBusStreaming, FullSpeedTakesOnePacketAMillisecond) {
    Session s;
    Open(s, Speed::kFull);
    if (HasFatalFailure()) return;
    auto committed = ProbeCommit(s.dev.pdo, kVs, 1, 5, 333333);  // 160x120
    ASSERT_TRUE(committed);
    // At full speed only bits 0-10 count: 1024 a frame at most.
    auto [alt, endpoints] = AlternateFor(s.config, kVs, 1);
    Selected sel = SelectInterface(s.dev.pdo, s.cfg.handle, kVs, alt, endpoints);
    ASSERT_EQ(sel.status, STATUS_SUCCESS);
    ASSERT_EQ(sel.pipes.size(), 1u);
    IsoTransfer t(s.dev.pdo, 32, sel.pipes[0].MaximumPacketSize);
    LONGLONG before = kvsim::Now();
    ASSERT_EQ(t.Submit(sel.pipes[0].PipeHandle), STATUS_PENDING);
    ASSERT_TRUE(t.irp.Wait());
    EXPECT_EQ(t.irp.Status(), STATUS_SUCCESS);
    // 32 packets, one a millisecond, from the next frame on.
    EXPECT_GE(t.irp.CompletedAt() - before, 32u * 10000);
    EXPECT_LE(t.irp.CompletedAt() - before, 33u * 10000);
    EXPECT_EQ(t.irp.CompletedAt() % 10000, 0u);
    // Full speed rejects more than 255 packets; high speed needs multiples of 8.
    IsoTransfer big(s.dev.pdo, 256, 64);
    EXPECT_EQ(big.Submit(sel.pipes[0].PipeHandle), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(big.Iso().Hdr.Status, USBD_STATUS_INVALID_PARAMETER);
    kvsim::usb::Unplug(s.dev.pdo);
}

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
