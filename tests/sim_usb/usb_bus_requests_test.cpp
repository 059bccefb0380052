// The simulated USB bus's requests, one behaviour each: every camera's
// descriptors and pipes, asynchronous control transfers, stalled class
// requests, select-interface checks, the checks of isochronous transfers,
// cancel and abort of pending ones, interrupt transfers, surprise removal,
// capabilities and power.
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

void BuildDeviceDescriptorRequest(UrbBuffer& urb, std::vector<uint8_t>& buffer) {
    buffer.assign(18, 0);
    UsbBuildGetDescriptorRequest(urb.get(), (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer.data(), nullptr, 18, nullptr);
}

void BuildInterruptIn(UrbBuffer& urb, USBD_PIPE_HANDLE pipe, std::vector<uint8_t>& buffer, ULONG flags) {
    UsbBuildInterruptOrBulkTransferRequest(urb.get(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), pipe,
                                           buffer.data(), nullptr, (ULONG)buffer.size(), flags, nullptr);
}

}  // namespace

// Every camera of ../shared/cameras on the bus: it loads, its descriptors
// read back byte for byte (a longer request gets them whole, a second
// configuration a stall), the configuration built with the usbd library
// (USBD_ParseConfigurationDescriptorEx, USBD_CreateConfigurationRequestEx)
// selects with an interface record per interface, and every streaming
// alternate setting selects with the pipe the real stack reports
// (MaximumPacketSize with the additional transactions: 0x1400 is 3072).
TEST(UsbBusCameras, EveryCameraLoadsReadsBackAndSelects) {
    for (const std::string name : {"default", "trust_webcam", "logitech_c270", "elp_h264"}) {
        SCOPED_TRACE(name);
        Plugged p = Plug(name);
        ASSERT_NE(p.camera, nullptr);
        ASSERT_NE(p.pdo, nullptr);
        std::vector<uint8_t> device;
        ASSERT_EQ(GetDescriptor(p.pdo, USB_DEVICE_DESCRIPTOR_TYPE, 0, 18, &device), STATUS_SUCCESS);
        EXPECT_EQ(device, p.camera->Descriptors().device);
        std::vector<uint8_t> config = ReadConfiguration(p.pdo), longer;
        EXPECT_EQ(config, p.camera->Descriptors().configuration);
        // A longer request gets a short answer; there is no second configuration.
        ASSERT_EQ(GetDescriptor(p.pdo, USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0xFFFF, &longer), STATUS_SUCCESS);
        EXPECT_EQ(longer, config);
        EXPECT_FALSE(NT_SUCCESS(GetDescriptor(p.pdo, USB_CONFIGURATION_DESCRIPTOR_TYPE, 1, 9, nullptr)));
        if (name != "default") {
            auto files = LoadDescriptorFiles(std::string(KV_SHARED_DIR) + "/cameras", name);
            ASSERT_TRUE(files);
            EXPECT_EQ(device, files->device);
            EXPECT_EQ(config, files->configuration);
        }
        Configured c = SelectConfiguration(p.pdo, config);
        EXPECT_EQ(c.status, STATUS_SUCCESS);
        EXPECT_EQ(c.usbd, USBD_STATUS_SUCCESS);
        EXPECT_TRUE(p.camera->Configured());
        auto* cd = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config.data());
        ASSERT_EQ(c.interfaces.size(), cd->bNumInterfaces);
        for (size_t i = 0; i < c.interfaces.size(); ++i) {
            const auto* info = c.Interface(i);
            auto* d = USBD_ParseConfigurationDescriptorEx(cd, cd, info->InterfaceNumber, 0, -1, -1, -1);
            ASSERT_NE(d, nullptr);
            EXPECT_EQ(info->NumberOfPipes, d->bNumEndpoints);
            EXPECT_EQ(info->Class, d->bInterfaceClass);
            EXPECT_NE(info->InterfaceHandle, nullptr);
        }
        // Every streaming alternate setting selects; its pipe carries
        // wMaxPacketSize with the additional transactions.
        for (const auto& vs : p.camera->Model().streaming) {
            for (const auto& alt : vs.alternates) {
                if (alt.alternate == 0 || !alt.isochronous) continue;
                Selected s = SelectInterface(p.pdo, c.handle, vs.number, alt.alternate, 1);
                EXPECT_EQ(s.status, STATUS_SUCCESS) << "alternate " << int(alt.alternate);
                ASSERT_EQ(s.pipes.size(), 1u);
                EXPECT_EQ(s.pipes[0].MaximumPacketSize, uvc::IsoCapacity(alt.wMaxPacketSize));
                EXPECT_EQ(s.pipes[0].EndpointAddress, alt.endpointAddress);
            }
            EXPECT_EQ(SelectInterface(p.pdo, c.handle, vs.number, 0, 0).status, STATUS_SUCCESS);
        }
        kvsim::usb::Unplug(p.pdo);
    }
}

TEST(UsbBusRequests, ControlTransfersCompleteLaterAtDispatchLevel) {
    Session f;
    UrbBuffer urb(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    std::vector<uint8_t> buffer;
    BuildDeviceDescriptorRequest(urb, buffer);
    UrbIrp irp(f.dev.pdo);
    LONGLONG sent = kvsim::Now();
    EXPECT_EQ(irp.Send(urb.get()), STATUS_PENDING);
    EXPECT_FALSE(irp.Done()) << "a control transfer must not complete inside IoCallDriver";
    ASSERT_TRUE(irp.Wait());
    EXPECT_EQ(irp.Status(), STATUS_SUCCESS);
    EXPECT_EQ(irp.CompletionIrql(), DISPATCH_LEVEL);
    if (kvsim::GetClockMode() == kvsim::ClockMode::Virtual)
        EXPECT_EQ(irp.CompletedAt() - sent, (uint64_t)kvsim::usb::kControlTransferLatency);
    else
        EXPECT_GE(irp.CompletedAt() - sent, (uint64_t)kvsim::usb::kControlTransferLatency);
    EXPECT_EQ(buffer, f.dev.camera->Descriptors().device);
    // String descriptor 0 is the language list.
    std::vector<uint8_t> lang;
    ASSERT_EQ(GetDescriptor(f.dev.pdo, USB_STRING_DESCRIPTOR_TYPE, 0, 255, &lang), STATUS_SUCCESS);
    ASSERT_GE(lang.size(), 4u);
    EXPECT_EQ(lang[2] | lang[3] << 8, 0x0409);
}

TEST(UsbBusRequests, StalledClassRequestFailsWithStallPid) {
    Session f;
    auto bytes = ProbeControl{.formatIndex = 99, .frameIndex = 1}.Pack();  // no such format: the camera stalls
    USBD_STATUS usbd = 0;
    EXPECT_EQ(ClassInterface(f.dev.pdo, false, uvc::kSetCur, 0x0100, kVs, bytes, &usbd), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(usbd, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(USBD_HALTED(usbd));
    // The default pipe works again at once.
    std::vector<uint8_t> got(26);
    EXPECT_EQ(ClassInterface(f.dev.pdo, true, uvc::kGetCur, 0x0100, kVs, got, &usbd), STATUS_SUCCESS);
    EXPECT_EQ(usbd, USBD_STATUS_SUCCESS);
}

TEST(UsbBusRequests, SelectInterfaceChecksLengthAndAlternate) {
    Session f;
    ASSERT_EQ(f.cfg.status, STATUS_SUCCESS);
    Selected tooShort = SelectInterface(f.dev.pdo, f.cfg.handle, kVs, 1, 1,
                                        (USHORT)(sizeof(USBD_INTERFACE_INFORMATION) - sizeof(USBD_PIPE_INFORMATION)));
    EXPECT_FALSE(NT_SUCCESS(tooShort.status));
    EXPECT_EQ(tooShort.usbd, USBD_STATUS_BUFFER_TOO_SMALL);
    Selected missing = SelectInterface(f.dev.pdo, f.cfg.handle, kVs, 77, 1);
    EXPECT_EQ(missing.status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(missing.usbd, USBD_STATUS_INTERFACE_NOT_FOUND);
    Selected wrongHandle = SelectInterface(f.dev.pdo, reinterpret_cast<USBD_CONFIGURATION_HANDLE>(0x1234), kVs, 1, 1);
    EXPECT_EQ(wrongHandle.status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(f.dev.camera->CurrentAlternate(kVs), 0);
}

TEST(UsbBusRequests, IsochronousTransfersWithBadHandlesOrPacketCountsAreRejected) {
    Session f;
    USBD_PIPE_INFORMATION pipe = f.Stream();
    IsoTransfer bogus(f.dev.pdo, 8, 3072);
    EXPECT_EQ(bogus.Submit(reinterpret_cast<USBD_PIPE_HANDLE>(0x5678)), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(bogus.Iso().Hdr.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    // The interrupt pipe is not an isochronous one.
    IsoTransfer wrongType(f.dev.pdo, 8, 16);
    EXPECT_EQ(wrongType.Submit(f.InterruptPipe().PipeHandle), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(wrongType.Iso().Hdr.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    // High speed takes multiples of 8 packets, at most 1024.
    IsoTransfer odd(f.dev.pdo, 12, pipe.MaximumPacketSize);
    EXPECT_EQ(odd.Submit(pipe.PipeHandle), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(odd.Iso().Hdr.Status, USBD_STATUS_INVALID_PARAMETER);
    IsoTransfer tooMany(f.dev.pdo, 1032, 16);
    EXPECT_EQ(tooMany.Submit(pipe.PipeHandle), STATUS_INVALID_PARAMETER);
    IsoTransfer ok(f.dev.pdo, 8, pipe.MaximumPacketSize);
    EXPECT_EQ(ok.Submit(pipe.PipeHandle), STATUS_PENDING);
    ASSERT_TRUE(ok.irp.Wait());
    EXPECT_EQ(ok.irp.Status(), STATUS_SUCCESS);
    // Back to alternate setting 0: the old handle is closed.
    ASSERT_EQ(SelectInterface(f.dev.pdo, f.cfg.handle, kVs, 0, 0).status, STATUS_SUCCESS);
    IsoTransfer stale(f.dev.pdo, 8, 3072);
    EXPECT_EQ(stale.Submit(pipe.PipeHandle), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stale.Iso().Hdr.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST(UsbBusRequests, CancelAndAbortOfPendingIsochronousTransfers) {
    Session f;
    USBD_PIPE_INFORMATION pipe = f.Stream();
    IsoTransfer first(f.dev.pdo, 128, pipe.MaximumPacketSize), second(f.dev.pdo, 128, pipe.MaximumPacketSize);
    ASSERT_EQ(first.Submit(pipe.PipeHandle), STATUS_PENDING);
    ASSERT_EQ(second.Submit(pipe.PipeHandle), STATUS_PENDING);
    EXPECT_TRUE(IoCancelIrp(second.irp.irp()));
    ASSERT_TRUE(second.irp.Done());
    EXPECT_EQ(second.irp.Status(), STATUS_CANCELLED);
    EXPECT_EQ(second.Iso().Hdr.Status, USBD_STATUS_CANCELED);
    EXPECT_FALSE(first.irp.Done());
    ASSERT_TRUE(first.irp.Wait());
    EXPECT_EQ(first.irp.Status(), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).pendingTransfers, 0u);

    // URB_FUNCTION_ABORT_PIPE completes every pending transfer.
    std::vector<std::unique_ptr<IsoTransfer>> xfers;
    for (int i = 0; i < 3; ++i) {
        xfers.push_back(std::make_unique<IsoTransfer>(f.dev.pdo, 128, pipe.MaximumPacketSize));
        ASSERT_EQ(xfers.back()->Submit(pipe.PipeHandle), STATUS_PENDING);
    }
    EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).pendingTransfers, 3u);
    USBD_STATUS usbd = 0;
    EXPECT_EQ(PipeRequest(f.dev.pdo, URB_FUNCTION_ABORT_PIPE, pipe.PipeHandle, &usbd), STATUS_SUCCESS);
    EXPECT_EQ(usbd, USBD_STATUS_SUCCESS);
    for (auto& x : xfers) {
        ASSERT_TRUE(x->irp.Done());
        EXPECT_EQ(x->irp.Status(), STATUS_CANCELLED);
        EXPECT_EQ(x->Iso().Hdr.Status, USBD_STATUS_CANCELED);
    }
    EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).pendingTransfers, 0u);
    // The pipe streams again after the abort.
    Streamer s(f.dev.pdo, pipe, 2);
    s.Frames(2);
    EXPECT_GE(s.frames.size(), 2u);
}

TEST(UsbBusRequests, InterruptTransferWaitsForAStatusPacket) {
    Session f;
    USBD_PIPE_HANDLE pipe = f.InterruptPipe().PipeHandle;
    UrbBuffer urb(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
    std::vector<uint8_t> buffer(64);
    BuildInterruptIn(urb, pipe, buffer, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK);
    UrbIrp irp(f.dev.pdo);
    EXPECT_EQ(irp.Send(urb.get()), STATUS_PENDING);
    kvsim::RunFor(50 * kvsim::kMillisecond);
    EXPECT_FALSE(irp.Done()) << "no status packet yet: the transfer stays pending";
    f.dev.camera->QueueButton(true);
    ASSERT_TRUE(irp.Wait());
    EXPECT_EQ(irp.Status(), STATUS_SUCCESS);
    ASSERT_EQ(urb.get()->UrbBulkOrInterruptTransfer.TransferBufferLength, 4u);
    EXPECT_EQ(buffer[0], 0x02);
    EXPECT_EQ(buffer[3], 0x01);

    // Without USBD_SHORT_TRANSFER_OK a short packet is an error.
    BuildInterruptIn(urb, pipe, buffer, USBD_TRANSFER_DIRECTION_IN);
    f.dev.camera->QueueButton(false);
    irp.Send(urb.get());
    ASSERT_TRUE(irp.Wait());
    EXPECT_EQ(irp.Status(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.get()->UrbHeader.Status, USBD_STATUS_ERROR_SHORT_TRANSFER);

    // A pending interrupt transfer can be cancelled.
    BuildInterruptIn(urb, pipe, buffer, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK);
    irp.Send(urb.get());
    EXPECT_TRUE(IoCancelIrp(irp.irp()));
    ASSERT_TRUE(irp.Done());
    EXPECT_EQ(irp.Status(), STATUS_CANCELLED);
}

TEST(UsbBusRequests, SurpriseRemovalWithTransfersPending) {
    Session f;
    USBD_PIPE_INFORMATION pipe = f.Stream();
    std::vector<std::unique_ptr<IsoTransfer>> xfers;
    for (int i = 0; i < 3; ++i) {
        xfers.push_back(std::make_unique<IsoTransfer>(f.dev.pdo, 128, pipe.MaximumPacketSize));
        ASSERT_EQ(xfers.back()->Submit(pipe.PipeHandle), STATUS_PENDING);
    }
    UrbBuffer intr(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
    std::vector<uint8_t> buffer(64);
    BuildInterruptIn(intr, f.InterruptPipe().PipeHandle, buffer, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK);
    UrbIrp intrIrp(f.dev.pdo);
    ASSERT_EQ(intrIrp.Send(intr.get()), STATUS_PENDING);
    kvsim::RunFor(3 * kvsim::kMillisecond);

    kvsim::usb::SurpriseRemove(f.dev.pdo);
    for (auto& x : xfers) {
        ASSERT_TRUE(x->irp.Done());
        EXPECT_EQ(x->irp.Status(), STATUS_NO_SUCH_DEVICE);
        EXPECT_EQ(x->Iso().Hdr.Status, USBD_STATUS_DEVICE_GONE);
    }
    ASSERT_TRUE(intrIrp.Done());
    EXPECT_EQ(intrIrp.Status(), STATUS_NO_SUCH_DEVICE);
    EXPECT_FALSE(f.dev.camera->Connected());
    // Later requests fail at once.
    IsoTransfer late(f.dev.pdo, 8, pipe.MaximumPacketSize);
    EXPECT_EQ(late.Submit(pipe.PipeHandle), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_TRUE(late.irp.Done());
    std::vector<uint8_t> d;
    EXPECT_EQ(GetDescriptor(f.dev.pdo, USB_DEVICE_DESCRIPTOR_TYPE, 0, 18, &d), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_FALSE(kvsim::usb::GetDeviceState(f.dev.pdo).present);
}

TEST(UsbBusRequests, CapabilitiesAreThoseOfARemovableUsbDeviceAndOtherQueriesKeepTheIrpStatus) {
    Session f;
    DEVICE_CAPABILITIES caps{};
    caps.Size = sizeof(caps);
    caps.Version = 1;
    auto r = kvsim::SendPnpIrp(f.dev.pdo, IRP_MN_QUERY_CAPABILITIES,
                               [&](PIO_STACK_LOCATION sp) { sp->Parameters.DeviceCapabilities.Capabilities = &caps; });
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_TRUE(caps.Removable);
    EXPECT_FALSE(caps.SurpriseRemovalOK);
    EXPECT_EQ(caps.DeviceState[PowerSystemWorking], PowerDeviceD0);
    EXPECT_EQ(caps.DeviceState[PowerSystemSleeping3], PowerDeviceD3);
    EXPECT_EQ(caps.DeviceState[PowerSystemHibernate], PowerDeviceD3);

    static const GUID other = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    INTERFACE iface{};
    r = kvsim::SendPnpIrp(f.dev.pdo, IRP_MN_QUERY_INTERFACE, [&](PIO_STACK_LOCATION sp) {
        sp->Parameters.QueryInterface.InterfaceType = &other;
        sp->Parameters.QueryInterface.Size = sizeof(iface);
        sp->Parameters.QueryInterface.Interface = &iface;
    });
    EXPECT_EQ(r.status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kvsim::SendPnpIrp(f.dev.pdo, IRP_MN_QUERY_RESOURCES).status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(kvsim::SendPnpIrp(f.dev.pdo, IRP_MN_START_DEVICE).status, STATUS_SUCCESS);
}

TEST(UsbBusRequests, DeviceInD3DoesNotStream) {
    Session f;
    USBD_PIPE_INFORMATION pipe = f.Stream();
    IsoTransfer pending(f.dev.pdo, 128, pipe.MaximumPacketSize);
    ASSERT_EQ(pending.Submit(pipe.PipeHandle), STATUS_PENDING);
    uint64_t before = kvsim::PoStartNextPowerIrpCount();
    EXPECT_EQ(kvsim::SendDevicePowerIrp(f.dev.pdo, IRP_MN_SET_POWER, PowerDeviceD3).status, STATUS_SUCCESS);
    EXPECT_GT(kvsim::PoStartNextPowerIrpCount(), before);
    EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).power, PowerDeviceD3);
    EXPECT_EQ(kvsim::RecordedDevicePowerState(f.dev.pdo), PowerDeviceD3);
    // The transfer pending across the change: no packet is accessed.
    ASSERT_TRUE(pending.irp.Wait());
    EXPECT_EQ(pending.irp.Status(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(pending.Iso().Hdr.Status, USBD_STATUS_ISOCH_REQUEST_FAILED);
    EXPECT_EQ(pending.Iso().ErrorCount, 128u);
    EXPECT_EQ(pending.Iso().IsoPacket[0].Status, USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);
    // New URBs fail while the device is powered off.
    IsoTransfer refused(f.dev.pdo, 128, pipe.MaximumPacketSize);
    EXPECT_EQ(refused.Submit(pipe.PipeHandle), (NTSTATUS)0x8000000F);  // STATUS_DEVICE_POWERED_OFF
    // Back in D0 it streams again.
    EXPECT_EQ(kvsim::SendDevicePowerIrp(f.dev.pdo, IRP_MN_SET_POWER, PowerDeviceD0).status, STATUS_SUCCESS);
    Streamer s(f.dev.pdo, pipe, 2);
    s.Frames(2);
    EXPECT_GE(s.frames.size(), 2u);
}

TEST(UsbBusRequests, EndOfTestCheckReportsAndUnplugsForgottenDevices) {
    Plugged p = Plug();
    ASSERT_NE(p.pdo, nullptr);
    UrbBuffer urb(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    std::vector<uint8_t> buffer;
    BuildDeviceDescriptorRequest(urb, buffer);
    UrbIrp irp(p.pdo);
    ASSERT_EQ(irp.Send(urb.get()), STATUS_PENDING);
    size_t devices = kvsim::LiveDeviceObjectCount();
    auto lines = kvsim::usb::UsbEndOfTestCheck();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(irp.Done()) << "the pending control transfer is completed";
    EXPECT_EQ(irp.Status(), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(kvsim::LiveDeviceObjectCount(), devices - 1);
    EXPECT_TRUE(kvsim::usb::UsbEndOfTestCheck().empty());
}

