// The bus's slot timing: isochronous transfers complete at the end of their
// last (micro)frame, on the 125 us / 1 ms grid, back to back; a transfer
// whose start frame has passed gets its late packets marked. Split from
// usb_bus_streaming_test.cpp because these are exact simulated timestamps,
// which only the virtual clock gives: in Parallel mode (the tsan preset) the
// clock is the host's, and a completion routine reads it some time after the
// slot's end. So this executable forces Virtual mode, as ke_dispatcher_test
// does; usb_bus_streaming_test keeps its Parallel coverage.
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

}  // namespace

TEST(UsbBusStreaming, TransfersRunBackToBackOnTheMicroframeClock) {
    Session s;
    ASSERT_TRUE(s.Ready());
    auto p = s.RunFormat(1, 3, 5, 3);
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
}

TEST(UsbBusStreaming, FullSpeedTakesOnePacketAMillisecond) {
    Session s(Speed::kFull);
    ASSERT_TRUE(s.Ready());
    auto committed = ProbeCommit(s.dev.pdo, kVs, 1, 5, 333333);  // 160x120
    ASSERT_TRUE(committed);
    // At full speed only bits 0-10 count: 1024 a frame at most.
    auto [alt, endpoints] = s.AlternateFor(1);
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
}

TEST(UsbBusRequests, TransferWithAStartFrameInThePastGetsLatePackets) {
    Session f;
    USBD_PIPE_INFORMATION pipe = f.Stream();
    kvsim::RunFor(20 * kvsim::kMillisecond);
    IsoTransfer t(f.dev.pdo, 24, pipe.MaximumPacketSize);
    t.Build(pipe.PipeHandle, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK);
    ULONG now = (ULONG)(kvsim::Now() / kvsim::kMillisecond);
    // Its first frame is over and the current one has begun (high speed
    // schedules whole frames): only the third frame's 8 packets are on time.
    t.Iso().StartFrame = now - 1;
    ASSERT_EQ(t.irp.Send(t.urb.get()), STATUS_PENDING);
    ASSERT_TRUE(t.irp.Wait());
    EXPECT_EQ(t.irp.Status(), STATUS_SUCCESS);
    EXPECT_EQ(t.Iso().IsoPacket[0].Status, USBD_STATUS_ISO_NA_LATE_USBPORT);
    EXPECT_EQ(t.Iso().IsoPacket[15].Status, USBD_STATUS_ISO_NA_LATE_USBPORT);
    EXPECT_EQ(t.Iso().IsoPacket[16].Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(t.Iso().ErrorCount, 16u);
    // Far outside USBD_ISO_START_FRAME_RANGE: refused.
    t.Build(pipe.PipeHandle, USBD_TRANSFER_DIRECTION_IN);
    t.Iso().StartFrame = now + 5000;
    EXPECT_EQ(t.irp.Send(t.urb.get()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(t.Iso().Hdr.Status, USBD_STATUS_BAD_START_FRAME);
}
