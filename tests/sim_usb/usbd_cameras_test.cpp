// Every camera of ../shared/cameras on the bus: it loads, its descriptors
// read back byte for byte (a longer request gets them whole, a second
// configuration a stall), the configuration built with the usbd library
// (USBD_ParseConfigurationDescriptorEx, USBD_CreateConfigurationRequestEx)
// selects with an interface record per interface, and every streaming
// alternate setting selects with the pipe the real stack reports
// (MaximumPacketSize with the additional transactions: 0x1400 is 3072).
#include <gtest/gtest.h>

#include "usb_test_util.h"

using namespace usbtest;

namespace {

const std::vector<std::string>& Cameras() {
    static const std::vector<std::string> names = {"default", "trust_webcam", "logitech_c270", "elp_h264"};
    return names;
}

PUSB_CONFIGURATION_DESCRIPTOR Cd(std::vector<uint8_t>& bytes) {
    return reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
}

}  // namespace

TEST(UsbBusCameras, EveryCameraLoadsReadsBackAndSelects) {
    for (const auto& name : Cameras()) {
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
        auto* cd = Cd(config);
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
