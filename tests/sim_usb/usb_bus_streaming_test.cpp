// The bus end to end, with the test in the client driver's role:
// descriptors read through URBs, configuration and alternate setting
// selected, probe/commit through class-interface URBs, two or three
// isochronous transfers kept in flight, 30 YUY2 and then 30 motion-JPEG
// frames reassembled from the packets and checked (frame numbers; the JPEGs
// decode). Then what the bus delivers for each of the virtual camera's
// faults: per-packet statuses and lengths, URB and IRP statuses, and the
// frames a careful reassembler makes of them. The slot timing is in
// usb_bus_timing_test.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

constexpr size_t kYuy2Size = 320 * 240 * 2;

void ExpectConsecutive(const std::vector<uint32_t>& numbers) {
    for (size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1) << "frame " << i;
}

}  // namespace

TEST(UsbBusStreaming, ThirtyYuy2ThenThirtyMjpegFramesThroughUrbs) {
    Session s;
    ASSERT_TRUE(s.Ready());
    std::vector<uint8_t> device;
    ASSERT_EQ(GetDescriptor(s.dev.pdo, USB_DEVICE_DESCRIPTOR_TYPE, 0, 18, &device), STATUS_SUCCESS);
    EXPECT_EQ(device, s.Camera().Descriptors().device);
    // The interrupt pipe of the video-control interface.
    ASSERT_EQ(s.cfg.Interface(0)->NumberOfPipes, 1u);
    EXPECT_EQ(s.cfg.Interface(0)->Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_EQ(s.cfg.Interface(0)->Class, USB_DEVICE_CLASS_VIDEO);
    EXPECT_EQ(s.cfg.Interface(1)->NumberOfPipes, 0u);

    // YUY2 320x240 at 30 frames a second, three transfers in flight.
    auto yuy2 = s.RunFormat(1, 3, 30, 3);
    ASSERT_TRUE(yuy2);
    ASSERT_GE(yuy2->frames.size(), 30u);
    EXPECT_TRUE(yuy2->irqlOk);
    std::vector<uint32_t> numbers;
    for (size_t i = 0; i < 30; ++i) {
        const auto& f = yuy2->frames[i];
        EXPECT_TRUE(f.eof) << i;
        EXPECT_FALSE(f.bad) << i;
        ASSERT_EQ(f.data.size(), kYuy2Size) << i;
        auto n = ReadFrameNumber(f.data, 320, 240);
        ASSERT_TRUE(n.has_value()) << i;
        numbers.push_back(*n);
    }
    ExpectConsecutive(numbers);

    // Motion JPEG 320x240, two transfers in flight.
    auto mjpeg = s.RunFormat(2, 3, 30, 2);
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
}

// ---- the camera's faults as the client sees them -------------------------------------------
namespace {

// One fault armed after two good frames of format 1 (YUY2) or 2 (MJPEG),
// 320x240 on the 0x1400 setting; the stream runs on to `frames` frames.
struct FaultCase {
    const char* name;
    UCHAR format;
    Fault fault;
    uint32_t amount;
    size_t frames;
    // The streamer, the committed payload and the largest packet before the fault.
    std::function<void(const Streamer&, ULONG committed, size_t maxBefore)> check;
};

size_t Frames(const Streamer& st, bool ReassembledFrame::*flag, bool value = true) {
    return std::count_if(st.frames.begin(), st.frames.end(), [&](const auto& f) { return f.*flag == value; });
}

bool HasFrameOfSize(const Streamer& st, size_t size) {
    return std::any_of(st.frames.begin(), st.frames.end(), [&](const auto& f) { return f.data.size() == size; });
}

void AllUrbsSucceeded(const Streamer& st) {
    for (auto status : st.statuses) EXPECT_EQ(status, STATUS_SUCCESS);
}

const FaultCase kFaults[] = {
    {"PacketErrorIsACrcPacketWithItsData", 1, Fault::kPacketError, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         ASSERT_EQ(st.CountStatus(USBD_STATUS_CRC), 1u);
         for (const auto& p : st.packets) {
             if (p.status == USBD_STATUS_CRC) {
                 EXPECT_GT(p.length, 0u) << "the data of an errored packet is delivered";
             }
         }
         for (auto status : st.statuses) EXPECT_EQ(status, STATUS_SUCCESS) << "one bad packet does not fail the URB";
         EXPECT_EQ(std::accumulate(st.errorCounts.begin(), st.errorCounts.end(), 0u), 1u);
         EXPECT_EQ(Frames(st, &ReassembledFrame::bad), 1u);
     }},
    {"LostPacketIsNotAccessedAndEmpty", 1, Fault::kLostPacket, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         ASSERT_EQ(st.CountStatus(USBD_STATUS_ISO_NOT_ACCESSED_BY_HW), 1u);
         for (const auto& p : st.packets) {
             if (p.status == USBD_STATUS_ISO_NOT_ACCESSED_BY_HW) {
                 EXPECT_EQ(p.length, 0u);
             }
         }
         EXPECT_TRUE(std::any_of(st.frames.begin(), st.frames.end(),
                                 [](const auto& f) { return f.bad && f.data.size() < kYuy2Size; }));
     }},
    {"ShortFrameArrivesWithItsSize", 1, Fault::kShortFrame, 100, 5,
     [](const Streamer& st, ULONG, size_t) {
         EXPECT_TRUE(HasFrameOfSize(st, kYuy2Size - 100));
         AllUrbsSucceeded(st);
     }},
    {"LongFrameArrivesWithItsSize", 1, Fault::kLongFrame, 40, 5,
     [](const Streamer& st, ULONG, size_t) {
         EXPECT_TRUE(HasFrameOfSize(st, kYuy2Size + 40));
         AllUrbsSucceeded(st);
     }},
    {"MissingEndOfFrameShowsAsAFidChange", 1, Fault::kMissingEof, 0, 5,
     [](const Streamer& st, ULONG, size_t) { EXPECT_EQ(Frames(st, &ReassembledFrame::eof, false), 1u); }},
    {"HeaderErrorBitReachesTheClient", 1, Fault::kHeaderErrorBit, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         EXPECT_EQ(Frames(st, &ReassembledFrame::errBit), 1u);
         EXPECT_EQ(st.CountStatus(USBD_STATUS_SUCCESS), st.packets.size()) << "the bus sees a good packet";
     }},
    {"OverPayloadPacketIsLargerThanCommitted", 1, Fault::kOverPayload, 256, 4,
     [](const Streamer& st, ULONG committed, size_t maxBefore) {
         EXPECT_LE(maxBefore, committed);
         EXPECT_GT(st.maxPacket, committed);
         EXPECT_LE(st.maxPacket, 3072u) << "never more than the slot carries";
     }},
    {"CorruptJpegStillArrivesWhole", 2, Fault::kCorruptJpeg, 0, 5,
     [](const Streamer& st, ULONG, size_t) {
         size_t undecodable = 0;
         for (const auto& f : st.frames) {
             EXPECT_TRUE(f.eof);
             EXPECT_FALSE(f.bad);
             undecodable += !(f.data.size() > 2 && f.data[0] == 0xFF && f.data[1] == 0xD8 && DecodeJpeg(f.data));
         }
         EXPECT_EQ(undecodable, 1u);
     }},
    {"TruncatedJpegEndsWithoutEoi", 2, Fault::kTruncatedJpeg, 500, 5,
     [](const Streamer& st, ULONG, size_t) {
         size_t truncated = 0;
         for (const auto& f : st.frames) {
             bool eoi = f.data.size() >= 2 && f.data[f.data.size() - 2] == 0xFF && f.data.back() == 0xD9;
             if (!eoi) {
                 ++truncated;
                 EXPECT_EQ(f.data.size(), 500u);
             }
         }
         EXPECT_EQ(truncated, 1u);
     }},
};

class UsbBusFaults : public testing::TestWithParam<FaultCase> {};

}  // namespace

TEST_P(UsbBusFaults, ReachTheClientAsTheUsbStackReportsThem) {
    const FaultCase& c = GetParam();
    Session s;
    USBD_PIPE_INFORMATION pipe = s.Stream(c.format);
    ASSERT_TRUE(s.Ready() && pipe.PipeHandle);
    Streamer st(s.dev.pdo, pipe, c.format == 1 ? 3 : 2);
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

TEST(UsbBusFaults, CameraSideSurpriseRemovalEndsThePendingTransfers) {
    Session s;
    USBD_PIPE_INFORMATION pipe = s.Stream();
    ASSERT_TRUE(s.Ready() && pipe.PipeHandle);
    Streamer st(s.dev.pdo, pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kSurpriseRemoval);
    st.Frames(100, kvsim::kSecond);
    ASSERT_TRUE(st.Failed());
    EXPECT_EQ(st.statuses.back(), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(st.usbdStatuses.back(), USBD_STATUS_DEVICE_GONE);
    st.Stop();  // the abort itself is refused now; every transfer has completed
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(st.Transfer(i).irp.Done());
        EXPECT_FALSE(NT_SUCCESS(st.Transfer(i).irp.Status()));
    }
    EXPECT_FALSE(kvsim::usb::GetDeviceState(s.dev.pdo).present);
    EXPECT_EQ(kvsim::usb::GetDeviceState(s.dev.pdo).pendingTransfers, 0u);
}
