// Test fixture for the ks.sys simulation's tests: the test minidriver loaded
// through the simulated PnP manager on the PDO of a plugged USB camera (the
// simulated hub answers PnP, capabilities and power as for kvdrv), and
// helpers to open its filter and capture pin with the client API. TearDown
// closes what is open and removes the device, so that the end-of-test checks
// see no leaks.
#pragma once
#include <gtest/gtest.h>

#include <memory>

#include "client/ks_client.h"
#include "ks/pnp.h"
#include "kvsim/io.h"
#include "sim_ks/test_minidriver.h"
#include "usb/usb_bus.h"

namespace kvtest::ks {

class KsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetTestRecorder();
        pdo_ = kvsim::usb::PlugCamera(kvsim::camera::UvcCamera::CreateDefault(), kvsim::usb::Speed::kHigh);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = kvsim::pnp::LoadDriver(u"kstestdrv", TestDriverEntry, &status);
        ASSERT_NE(driver_, nullptr);
        ASSERT_EQ(status, STATUS_SUCCESS);
    }

    void TearDown() override {
        pin_.reset();
        filter_.reset();
        if (kvsim::pnp::HasFunctionDevice(pdo_)) {
            if (surpriseRemoved_) {
                kvsim::pnp::FinishSurpriseRemoval(pdo_);
            } else {
                kvsim::pnp::RemoveDevice(pdo_);
            }
        }
        kvsim::usb::Unplug(pdo_);
        if (driver_) kvsim::pnp::UnloadDriver(driver_);
    }

    void AddAndStart() {
        ASSERT_EQ(kvsim::pnp::AddDevice(driver_, pdo_), STATUS_SUCCESS);
        ASSERT_EQ(kvsim::pnp::StartDevice(pdo_), STATUS_SUCCESS);
    }

    void OpenFilter() {
        auto filters = kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE);
        ASSERT_EQ(filters.size(), 1u);
        ASSERT_EQ(kvsim::client::Filter::Open(filters[0], &filter_), STATUS_SUCCESS);
    }

    NTSTATUS ConnectCapture(ULONG rangeIndex) {
        KS_DATAFORMAT_VIDEOINFOHEADER format = MakeTestFormat(rangeIndex);
        return filter_->CreatePin(kCapturePinId, &format.DataFormat, &pin_);
    }

    // Start, open the filter, connect the capture pin with range 0.
    void OpenCapturePin() {
        AddAndStart();
        OpenFilter();
        ASSERT_EQ(ConnectCapture(0), STATUS_SUCCESS);
        ASSERT_NE(Recorder().capturePin, nullptr);
    }

    // OpenCapturePin, then RUN with `count` buffers of `bytes` queued (with
    // `fill` false, Process leaves them in the queue).
    void RunWithBuffers(ULONG count, ULONG bytes, bool fill = true) {
        OpenCapturePin();
        if (HasFatalFailure()) return;
        Recorder().fillOnProcess = fill;
        ASSERT_EQ(pin_->SetState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(pin_->QueueBuffers(count, bytes), STATUS_PENDING);
    }

    PDEVICE_OBJECT pdo_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    std::unique_ptr<kvsim::client::Filter> filter_;
    std::unique_ptr<kvsim::client::Pin> pin_;
    bool surpriseRemoved_ = false;
};

}  // namespace kvtest::ks
