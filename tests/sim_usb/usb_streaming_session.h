// A streaming session on the simulated bus for the tests in tests/sim_usb:
// plug the default camera, read its descriptors, select the configuration,
// then per format probe/commit, select the smallest alternate setting that
// carries the payload, stream, and go back to alternate setting 0. Shared by
// usb_bus_streaming_test (any clock mode) and usb_bus_timing_test (virtual).
#pragma once
#include <memory>
#include <utility>
#include <vector>

#include "usb_test_util.h"

namespace usbtest {

constexpr UCHAR kVs = 1;  // the default camera's streaming interface

// The smallest alternate setting of interface `iface` whose endpoint carries
// `payload` bytes a (micro)frame, read from the configuration descriptor as
// a driver does: (alternate, endpoints).
inline std::pair<UCHAR, ULONG> AlternateFor(std::vector<uint8_t>& config, UCHAR iface, ULONG payload) {
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

inline void Open(Session& s, Speed speed = Speed::kHigh) {
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
inline std::unique_ptr<Streamer> RunFormat(Session& s, UCHAR format, UCHAR frame, ULONG interval, size_t count,
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

}  // namespace usbtest
