// The simulated USB bus's requests, one behaviour each: asynchronous control
// transfers, descriptor reads, pipe information (3072 for 0x1400), stalled
// class requests, select-interface checks, the checks of isochronous
// transfers, cancel and abort of pending ones, interrupt transfers, surprise
// removal, the USBDI bus interface, capabilities and power.
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

USB_BUS_INTERFACE_USBDI_V1 QueryBusInterface(PDEVICE_OBJECT pdo, NTSTATUS* status) {
    USB_BUS_INTERFACE_USBDI_V1 bi{};
    auto r = kvsim::SendPnpIrp(pdo, IRP_MN_QUERY_INTERFACE, [&](PIO_STACK_LOCATION sp) {
        sp->Parameters.QueryInterface.InterfaceType = &USB_BUS_INTERFACE_USBDI_GUID;
        sp->Parameters.QueryInterface.Size = sizeof(bi);
        sp->Parameters.QueryInterface.Version = USB_BUSIF_USBDI_VERSION_1;
        sp->Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(&bi);
    });
    *status = r.status;
    return bi;
}

}  // namespace

TEST(UsbBusRequests, ControlTransfersCompleteLaterAtDispatchLevel) {
    Session f;
    UrbBuffer urb(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    std::vector<uint8_t> buffer(18);
    UsbBuildGetDescriptorRequest(urb.get(), (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer.data(), nullptr, 18, nullptr);
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
}

TEST(UsbBusRequests, PartialConfigurationReadGivesTheHeaderAndStringZeroTheLanguage) {
    Session f;
    std::vector<uint8_t> head;
    ASSERT_EQ(GetDescriptor(f.dev.pdo, USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 9, &head), STATUS_SUCCESS);
    ASSERT_EQ(head.size(), 9u);
    const auto& full = f.dev.camera->Descriptors().configuration;
    EXPECT_EQ(head[2] | head[3] << 8, (int)full.size());
    std::vector<uint8_t> lang;
    ASSERT_EQ(GetDescriptor(f.dev.pdo, USB_STRING_DESCRIPTOR_TYPE, 0, 255, &lang), STATUS_SUCCESS);
    ASSERT_GE(lang.size(), 4u);
    EXPECT_EQ(lang[2] | lang[3] << 8, 0x0409);
}

TEST(UsbBusRequests, HighSpeedIsochronousPipeReportsThreeTransactionsAs3072) {
    Session f;
    ASSERT_EQ(f.cfg.status, STATUS_SUCCESS);
    USBD_PIPE_INFORMATION pipe = f.Stream();
    EXPECT_EQ(pipe.MaximumPacketSize, 3072);
    EXPECT_EQ(pipe.EndpointAddress, 0x81);
    EXPECT_EQ(pipe.PipeType, UsbdPipeTypeIsochronous);
    EXPECT_EQ(pipe.Interval, 1);
    EXPECT_NE(pipe.PipeHandle, nullptr);
    // The interrupt pipe of interface 0 and the interface records.
    const auto* vc = f.cfg.Interface(0);
    EXPECT_EQ(vc->Class, 0x0E);
    EXPECT_EQ(vc->SubClass, 0x01);
    EXPECT_NE(vc->InterfaceHandle, nullptr);
    EXPECT_EQ(vc->Pipes[0].EndpointAddress, 0x83);
    EXPECT_EQ(vc->Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_EQ(vc->Pipes[0].MaximumTransferSize, USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE);
    EXPECT_EQ(f.cfg.Interface(1)->SubClass, 0x02);
}

TEST(UsbBusRequests, StalledClassRequestFailsWithStallPid) {
    Session f;
    ProbeControl bad;
    bad.formatIndex = 99;  // no such format: the camera stalls
    bad.frameIndex = 1;
    auto bytes = bad.Pack();
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
    USBD_PIPE_INFORMATION pipe = f.InterruptPipe();
    UrbBuffer urb(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
    std::vector<uint8_t> buffer(64);
    UsbBuildInterruptOrBulkTransferRequest(urb.get(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                           pipe.PipeHandle, buffer.data(), nullptr, 64,
                                           USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, nullptr);
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
    UsbBuildInterruptOrBulkTransferRequest(urb.get(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                           pipe.PipeHandle, buffer.data(), nullptr, 64, USBD_TRANSFER_DIRECTION_IN,
                                           nullptr);
    f.dev.camera->QueueButton(false);
    irp.Send(urb.get());
    ASSERT_TRUE(irp.Wait());
    EXPECT_EQ(irp.Status(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.get()->UrbHeader.Status, USBD_STATUS_ERROR_SHORT_TRANSFER);

    // A pending interrupt transfer can be cancelled.
    UsbBuildInterruptOrBulkTransferRequest(urb.get(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                           pipe.PipeHandle, buffer.data(), nullptr, 64, 3, nullptr);
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
    UsbBuildInterruptOrBulkTransferRequest(intr.get(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                           f.InterruptPipe().PipeHandle, buffer.data(), nullptr, 64, 3, nullptr);
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

TEST(UsbBusRequests, BusInterfaceReportsTheSpeed) {
    for (Speed speed : {Speed::kHigh, Speed::kFull}) {
        Session f(speed);
        NTSTATUS status;
        auto bi = QueryBusInterface(f.dev.pdo, &status);
        ASSERT_EQ(status, STATUS_SUCCESS);
        EXPECT_EQ(bi.Version, USB_BUSIF_USBDI_VERSION_1);
        EXPECT_EQ(bi.Size, sizeof(USB_BUS_INTERFACE_USBDI_V1));
        ASSERT_NE(bi.IsDeviceHighSpeed, nullptr);
        EXPECT_EQ(bi.IsDeviceHighSpeed(bi.BusContext), speed == Speed::kHigh ? TRUE : FALSE);
        EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).busInterfaceReferences, 1);
        USBD_VERSION_INFORMATION v{};
        ULONG caps = 99;
        bi.GetUSBDIVersion(bi.BusContext, &v, &caps);
        EXPECT_EQ(v.USBDI_Version, (ULONG)USBDI_VERSION);
        EXPECT_EQ(v.Supported_USB_Version, 0x0200u);
        kvsim::RunFor(5 * kvsim::kMillisecond);
        ULONG frame = 0;
        EXPECT_EQ(bi.QueryBusTime(bi.BusContext, &frame), STATUS_SUCCESS);
        EXPECT_EQ(frame, (ULONG)(kvsim::Now() / kvsim::kMillisecond));
        USB_BUS_INFORMATION_LEVEL_0 info{};
        ULONG length = sizeof(info), actual = 0;
        EXPECT_EQ(bi.QueryBusInformation(bi.BusContext, 0, &info, &length, &actual), STATUS_SUCCESS);
        EXPECT_EQ(info.TotalBandwidth, speed == Speed::kHigh ? 480000000u : 12000000u);
        bi.InterfaceDereference(bi.BusContext);
        EXPECT_EQ(kvsim::usb::GetDeviceState(f.dev.pdo).busInterfaceReferences, 0);
    }
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

TEST(UsbBusRequests, SelectConfigurationWithoutDescriptorUnconfigures) {
    Session f;
    ASSERT_TRUE(f.dev.camera->Configured());
    UrbBuffer urb(sizeof(struct _URB_SELECT_CONFIGURATION));
    UsbBuildSelectConfigurationRequest(urb.get(), (USHORT)sizeof(struct _URB_SELECT_CONFIGURATION), nullptr);
    EXPECT_EQ(Submit(f.dev.pdo, urb.get()), STATUS_SUCCESS);
    EXPECT_EQ(urb.get()->UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_FALSE(f.dev.camera->Configured());
    auto st = kvsim::usb::GetDeviceState(f.dev.pdo);
    EXPECT_FALSE(st.configured);
    EXPECT_EQ(st.openPipes, 0u);
}

TEST(UsbBusRequests, EndOfTestCheckReportsAndUnplugsForgottenDevices) {
    Plugged p = Plug();
    ASSERT_NE(p.pdo, nullptr);
    UrbBuffer urb(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    std::vector<uint8_t> buffer(18);
    UsbBuildGetDescriptorRequest(urb.get(), (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer.data(), nullptr, 18, nullptr);
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

