// What the simulated bus delivers for each of the virtual camera's faults
// (issue 3, "One test per fault"): per-packet statuses and lengths, URB and
// IRP statuses, and the frames a careful reassembler makes of them.
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

constexpr UCHAR kVs = 1;
constexpr size_t kYuy2Size = 320 * 240 * 2;

struct Session {
    Plugged dev;
    std::vector<uint8_t> config;
    Configured cfg;
    std::optional<ProbeControl> committed;
    USBD_PIPE_INFORMATION pipe{};

    // Commits format 1 (YUY2) or 2 (MJPEG), 320x240 at 30 frames a second,
    // on the 3 x 1024 alternate setting.
    explicit Session(UCHAR format) {
        dev = Plug();
        config = ReadConfiguration(dev.pdo);
        cfg = SelectConfiguration(dev.pdo, config);
        committed = ProbeCommit(dev.pdo, kVs, format, 3, 333333);
        auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
        for (LONG alt = 1; alt < 32 && pipe.PipeHandle == nullptr; ++alt) {
            auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, kVs, alt, -1, -1, -1);
            auto* e = d ? reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
                              USBD_ParseDescriptors(cd, cd->wTotalLength, d, USB_ENDPOINT_DESCRIPTOR_TYPE))
                        : nullptr;
            if (e && e->wMaxPacketSize == 0x1400) {
                Selected s = SelectInterface(dev.pdo, cfg.handle, kVs, (UCHAR)alt, 1);
                if (!s.pipes.empty()) pipe = s.pipes[0];
            }
        }
    }
    ~Session() {
        if (dev.pdo) kvsim::usb::Unplug(dev.pdo);
    }
    bool Ready() const { return committed.has_value() && pipe.PipeHandle != nullptr; }
    UvcCamera& Camera() { return *dev.camera; }
};

size_t CountStatus(const Streamer& s, USBD_STATUS status) {
    size_t n = 0;
    for (const auto& p : s.packets) n += p.status == status;
    return n;
}

}  // namespace

TEST(UsbBusFaults, PacketErrorIsACrcPacketWithItsData) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kPacketError);
    st.Frames(5);
    ASSERT_EQ(CountStatus(st, USBD_STATUS_CRC), 1u);
    for (const auto& p : st.packets) {
        if (p.status == USBD_STATUS_CRC) {
            EXPECT_GT(p.length, 0u) << "the data of an errored packet is delivered";
        }
    }
    for (auto status : st.statuses) EXPECT_EQ(status, STATUS_SUCCESS) << "one bad packet does not fail the URB";
    ULONG errors = 0;
    for (auto e : st.errorCounts) errors += e;
    EXPECT_EQ(errors, 1u);
    size_t bad = 0;
    for (const auto& f : st.frames) bad += f.bad;
    EXPECT_EQ(bad, 1u);
}

TEST(UsbBusFaults, LostPacketIsNotAccessedAndEmpty) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kLostPacket);
    st.Frames(5);
    ASSERT_EQ(CountStatus(st, USBD_STATUS_ISO_NOT_ACCESSED_BY_HW), 1u);
    for (const auto& p : st.packets) {
        if (p.status == USBD_STATUS_ISO_NOT_ACCESSED_BY_HW) {
            EXPECT_EQ(p.length, 0u);
        }
    }
    bool shortBadFrame = false;
    for (const auto& f : st.frames) shortBadFrame |= f.bad && f.data.size() < kYuy2Size;
    EXPECT_TRUE(shortBadFrame);
}

TEST(UsbBusFaults, ShortAndLongFramesArriveWithTheirSizes) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kShortFrame, 100);
    st.Frames(4);
    s.Camera().ArmFault(Fault::kLongFrame, 40);
    st.Frames(7);
    std::vector<size_t> sizes;
    for (const auto& f : st.frames) sizes.push_back(f.data.size());
    EXPECT_NE(std::find(sizes.begin(), sizes.end(), kYuy2Size - 100), sizes.end());
    EXPECT_NE(std::find(sizes.begin(), sizes.end(), kYuy2Size + 40), sizes.end());
    for (auto status : st.statuses) EXPECT_EQ(status, STATUS_SUCCESS);
}

TEST(UsbBusFaults, MissingEndOfFrameShowsAsAFidChange) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kMissingEof);
    st.Frames(5);
    size_t withoutEof = 0;
    for (const auto& f : st.frames) withoutEof += !f.eof;
    EXPECT_EQ(withoutEof, 1u);
}

TEST(UsbBusFaults, HeaderErrorBitReachesTheClient) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kHeaderErrorBit);
    st.Frames(5);
    size_t errBit = 0;
    for (const auto& f : st.frames) errBit += f.errBit;
    EXPECT_EQ(errBit, 1u);
    EXPECT_EQ(CountStatus(st, USBD_STATUS_SUCCESS), st.packets.size()) << "the bus sees a good packet";
}

TEST(UsbBusFaults, OverPayloadPacketIsLargerThanCommitted) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    size_t before = st.maxPacket;
    EXPECT_LE(before, s.committed->maxPayloadTransferSize);
    s.Camera().ArmFault(Fault::kOverPayload, 256);
    st.Frames(4);
    EXPECT_GT(st.maxPacket, s.committed->maxPayloadTransferSize);
    EXPECT_LE(st.maxPacket, 3072u) << "never more than the slot carries";
}

TEST(UsbBusFaults, CorruptJpegStillArrivesWhole) {
    Session s(2);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe, 2);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kCorruptJpeg);
    st.Frames(5);
    size_t undecodable = 0;
    for (const auto& f : st.frames) {
        EXPECT_TRUE(f.eof);
        EXPECT_FALSE(f.bad);
        undecodable += !(f.data.size() > 2 && f.data[0] == 0xFF && f.data[1] == 0xD8 && DecodeJpeg(f.data));
    }
    EXPECT_EQ(undecodable, 1u);
}

TEST(UsbBusFaults, TruncatedJpegEndsWithoutEoi) {
    Session s(2);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe, 2);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kTruncatedJpeg, 500);
    st.Frames(5);
    size_t truncated = 0;
    for (const auto& f : st.frames) {
        bool eoi = f.data.size() >= 2 && f.data[f.data.size() - 2] == 0xFF && f.data.back() == 0xD9;
        if (!eoi) {
            ++truncated;
            EXPECT_EQ(f.data.size(), 500u);
        }
    }
    EXPECT_EQ(truncated, 1u);
}

TEST(UsbBusFaults, StalledPipeFailsUntilResetPipe) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
    st.Frames(2);
    s.Camera().ArmFault(Fault::kStallPipe);
    st.Frames(100, kvsim::kSecond);  // stops at the first failed transfer
    ASSERT_TRUE(st.Failed());
    EXPECT_EQ(st.statuses.back(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(st.usbdStatuses.back(), USBD_STATUS_STALL_PID);
    EXPECT_GT(CountStatus(st, USBD_STATUS_STALL_PID), 0u);
    // The other transfers in flight fail too; then the pipe refuses new ones.
    while (st.Step()) {
    }
    st.Stop();
    IsoTransfer refused(s.dev.pdo, 8, s.pipe.MaximumPacketSize);
    EXPECT_EQ(refused.Submit(s.pipe.PipeHandle), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(refused.Iso().Hdr.Status, USBD_STATUS_ENDPOINT_HALTED);
    // Reset pipe and clear stall: the camera's endpoint runs again.
    UrbBuffer reset(sizeof(struct _URB_PIPE_REQUEST));
    reset.get()->UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
    reset.get()->UrbHeader.Function = URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL;
    reset.get()->UrbPipeRequest.PipeHandle = s.pipe.PipeHandle;
    EXPECT_EQ(Submit(s.dev.pdo, reset.get()), STATUS_SUCCESS);
    EXPECT_FALSE(s.Camera().PipeStalled());
    Streamer again(s.dev.pdo, s.pipe);
    again.Frames(2);
    EXPECT_GE(again.frames.size(), 2u);
}

TEST(UsbBusFaults, ResetPipeWithTransfersPendingIsBusy) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    IsoTransfer t(s.dev.pdo, 128, s.pipe.MaximumPacketSize);
    ASSERT_EQ(t.Submit(s.pipe.PipeHandle), STATUS_PENDING);
    UrbBuffer reset(sizeof(struct _URB_PIPE_REQUEST));
    reset.get()->UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
    reset.get()->UrbHeader.Function = URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL;
    reset.get()->UrbPipeRequest.PipeHandle = s.pipe.PipeHandle;
    EXPECT_EQ(Submit(s.dev.pdo, reset.get()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(reset.get()->UrbHeader.Status, USBD_STATUS_ERROR_BUSY);
    ASSERT_TRUE(t.irp.Wait());
}

TEST(UsbBusFaults, CameraSideSurpriseRemovalEndsThePendingTransfers) {
    Session s(1);
    ASSERT_TRUE(s.Ready());
    Streamer st(s.dev.pdo, s.pipe);
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
