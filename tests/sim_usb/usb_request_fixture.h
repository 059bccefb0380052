// The fixture of the bus request tests: the default camera plugged, its
// configuration read and selected, and a helper that commits a stream and
// selects an alternate setting. Shared by usb_bus_requests_test.cpp and
// usb_bus_timing_test.cpp.
#pragma once
#include <gtest/gtest.h>

#include "usb_test_util.h"

namespace usbtest {

constexpr UCHAR kRequestsVs = 1;  // the default camera's streaming interface

struct Fixture {
    Plugged dev;
    std::vector<uint8_t> config;
    Configured cfg;
    explicit Fixture(Speed speed = Speed::kHigh) {
        dev = Plug("default", speed);
        config = ReadConfiguration(dev.pdo);
        cfg = SelectConfiguration(dev.pdo, config);
    }
    ~Fixture() {
        if (dev.pdo) kvsim::usb::Unplug(dev.pdo);
    }
    // Commits YUY2 320x240 and selects the alternate setting whose
    // wMaxPacketSize is `wMaxPacketSize` (or the largest).
    USBD_PIPE_INFORMATION Stream(uint16_t wMaxPacketSize = 0x1400) {
        EXPECT_TRUE(ProbeCommit(dev.pdo, kRequestsVs, 1, 3, 333333));
        auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
        for (LONG alt = 1; alt < 32; ++alt) {
            auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, kRequestsVs, alt, -1, -1, -1);
            if (!d) continue;
            auto* e = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
                USBD_ParseDescriptors(cd, cd->wTotalLength, d, USB_ENDPOINT_DESCRIPTOR_TYPE));
            if (e && e->wMaxPacketSize == wMaxPacketSize) {
                Selected s = SelectInterface(dev.pdo, cfg.handle, kRequestsVs, (UCHAR)alt, 1);
                EXPECT_EQ(s.status, STATUS_SUCCESS);
                if (!s.pipes.empty()) return s.pipes[0];
            }
        }
        ADD_FAILURE() << "no alternate setting with wMaxPacketSize " << wMaxPacketSize;
        return {};
    }
    USBD_PIPE_INFORMATION InterruptPipe() const { return cfg.Interface(0)->Pipes[0]; }
};

}  // namespace usbtest
