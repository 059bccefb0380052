// The bus end to end, with the test in the client driver's role:
// configuration and alternate setting selected, probe/commit through
// class-interface URBs, three isochronous transfers kept in flight, 30 YUY2
// frames reassembled from the packets with consecutive frame numbers (what
// the frames hold, JPEG included, is the camera's: camera_streaming_test).
// Then what the bus itself makes of the camera's faults: per-packet statuses
// and lengths, URB and IRP statuses, stalls. The slot timing is in
// usb_bus_timing_test.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

constexpr size_t kYuy2Size = 320 * 240 * 2;

}  // namespace

TEST(UsbBusStreaming, ThirtyYuy2FramesThroughUrbs) {
    Session s;
    ASSERT_TRUE(s.Ready());
    auto yuy2 = s.RunFormat(1, 3, 30, 3);  // 320x240 at 30 frames a second
    ASSERT_TRUE(yuy2);
    ASSERT_GE(yuy2->frames.size(), 30u);
    EXPECT_TRUE(yuy2->irqlOk);
    std::optional<uint32_t> previous;
    for (size_t i = 0; i < 30; ++i) {
        const auto& f = yuy2->frames[i];
        EXPECT_TRUE(f.eof) << i;
        EXPECT_FALSE(f.bad) << i;
        ASSERT_EQ(f.data.size(), kYuy2Size) << i;
        auto n = ReadFrameNumber(f.data, 320, 240);
        ASSERT_TRUE(n.has_value()) << i;
        if (previous) { EXPECT_EQ(*n, *previous + 1) << "frame " << i; }
        previous = n;
    }
    EXPECT_EQ(kvsim::usb::GetDeviceState(s.dev.pdo).pendingTransfers, 0u);
}

// ---- the camera's faults as the client sees them -------------------------------------------
// Only what the bus adds: the frames' contents under each fault are checked
// by camera_streaming_test's CameraFaults.
namespace {

// One fault armed after two good YUY2 320x240 frames on the 0x1400 setting;
// the stream runs on to `frames` frames.
struct FaultCase {
    const char* name;
    Fault fault;
    uint32_t amount;
    size_t frames;
    // The streamer, the committed payload and the largest packet before the fault.
    std::function<void(const Streamer&, ULONG committed, size_t maxBefore)> check;
};

const FaultCase kFaults[] = {
    {"PacketErrorIsACrcPacketWithItsData", Fault::kPacketError, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         ASSERT_EQ(st.CountStatus(USBD_STATUS_CRC), 1u);
         for (const auto& p : st.packets) {
             if (p.status == USBD_STATUS_CRC) {
                 EXPECT_GT(p.length, 0u) << "the data of an errored packet is delivered";
             }
         }
         for (auto status : st.statuses) EXPECT_EQ(status, STATUS_SUCCESS) << "one bad packet does not fail the URB";
         EXPECT_EQ(std::accumulate(st.errorCounts.begin(), st.errorCounts.end(), 0u), 1u);
     }},
    {"LostPacketIsNotAccessedAndEmpty", Fault::kLostPacket, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         ASSERT_EQ(st.CountStatus(USBD_STATUS_ISO_NOT_ACCESSED_BY_HW), 1u);
         for (const auto& p : st.packets) {
             if (p.status == USBD_STATUS_ISO_NOT_ACCESSED_BY_HW) {
                 EXPECT_EQ(p.length, 0u);
             }
         }
     }},
    {"HeaderErrorBitReachesTheClient", Fault::kHeaderErrorBit, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         EXPECT_EQ(std::count_if(st.frames.begin(), st.frames.end(), [](const auto& f) { return f.errBit; }), 1);
         EXPECT_EQ(st.CountStatus(USBD_STATUS_SUCCESS), st.packets.size()) << "the bus sees a good packet";
     }},
    {"OverPayloadPacketIsLargerThanCommitted", Fault::kOverPayload, 256, 4,
     [](const Streamer& st, ULONG committed, size_t maxBefore) {
         EXPECT_LE(maxBefore, committed);
         EXPECT_GT(st.maxPacket, committed);
         EXPECT_LE(st.maxPacket, 3072u) << "never more than the slot carries";
     }},
};

class UsbBusFaults : public testing::TestWithParam<FaultCase> {};

}  // namespace

TEST_P(UsbBusFaults, ReachTheClientAsTheUsbStackReportsThem) {
    const FaultCase& c = GetParam();
    Session s;
    USBD_PIPE_INFORMATION pipe = s.Stream();
    ASSERT_TRUE(s.Ready() && pipe.PipeHandle);
    Streamer st(s.dev.pdo, pipe);
    st.Frames(2);
    size_t maxBefore = st.maxPacket;
    s.Camera().ArmFault(c.fault, c.amount);
    st.Frames(c.frames);
    c.check(st, s.committed->maxPayloadTransferSize, maxBefore);
}

INSTANTIATE_TEST_SUITE_P(EachFault, UsbBusFaults, testing::ValuesIn(kFaults),
                         [](const testing::TestParamInfo<FaultCase>& i) { return std::string(i.param.name); });

TEST(UsbBusFaults, StalledPipeFailsUntilResetPipe) {
    Session s;
    USBD_PIPE_INFORMATION pipe = s.Stream();
    ASSERT_TRUE(s.Ready() && pipe.PipeHandle);
    Streamer st(s.dev.pdo, pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kStallPipe);
    st.Frames(100, kvsim::kSecond);  // stops at the first failed transfer
    ASSERT_TRUE(st.Failed());
    EXPECT_EQ(st.statuses.back(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(st.usbdStatuses.back(), USBD_STATUS_STALL_PID);
    EXPECT_GT(st.CountStatus(USBD_STATUS_STALL_PID), 0u);
    // The other transfers in flight fail too; then the pipe refuses new ones.
    while (st.Step()) {
    }
    st.Stop();
    IsoTransfer refused(s.dev.pdo, 8, pipe.MaximumPacketSize);
    EXPECT_EQ(refused.Submit(pipe.PipeHandle), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(refused.Iso().Hdr.Status, USBD_STATUS_ENDPOINT_HALTED);
    // Reset pipe and clear stall: the camera's endpoint runs again.
    EXPECT_EQ(PipeRequest(s.dev.pdo, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipe.PipeHandle), STATUS_SUCCESS);
    EXPECT_FALSE(s.Camera().PipeStalled());
    Streamer again(s.dev.pdo, pipe);
    again.Frames(2);
    EXPECT_GE(again.frames.size(), 2u);
}

TEST(UsbBusFaults, ResetPipeWithTransfersPendingIsBusy) {
    Session s;
    USBD_PIPE_INFORMATION pipe = s.Stream();
    ASSERT_TRUE(s.Ready() && pipe.PipeHandle);
    IsoTransfer t(s.dev.pdo, 128, pipe.MaximumPacketSize);
    ASSERT_EQ(t.Submit(pipe.PipeHandle), STATUS_PENDING);
    USBD_STATUS usbd = 0;
    EXPECT_EQ(PipeRequest(s.dev.pdo, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipe.PipeHandle, &usbd),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(usbd, USBD_STATUS_ERROR_BUSY);
    ASSERT_TRUE(t.irp.Wait());
}
