// The usbd library routines (USBD_ParseConfigurationDescriptorEx,
// USBD_ParseDescriptors, USBD_CreateConfigurationRequestEx,
// USBD_GetInterfaceLength, USBD_CreateConfigurationRequest) and every camera
// of ../shared/cameras on the bus: it loads, its descriptors read back byte
// for byte, the configuration built by USBD_CreateConfigurationRequestEx
// selects, and every streaming alternate setting selects with the pipe the
// real stack reports.
#include <gtest/gtest.h>

#include "kvsim/pool.h"
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

TEST(Usbd, ParseConfigurationDescriptorExMatchesEachCriterion) {
    auto cam = UvcCamera::CreateDefault();
    auto config = cam->Descriptors().configuration;
    auto* cd = Cd(config);
    auto* vc = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    ASSERT_NE(vc, nullptr);
    EXPECT_EQ(vc->bInterfaceSubClass, 1);
    auto* vs = USBD_ParseConfigurationDescriptorEx(cd, cd, -1, -1, 0x0E, 0x02, -1);
    ASSERT_NE(vs, nullptr);
    EXPECT_EQ(vs->bInterfaceNumber, 1);
    EXPECT_EQ(vs->bAlternateSetting, 0);
    // From past the first streaming descriptor: its next alternate setting.
    auto* next = USBD_ParseConfigurationDescriptorEx(cd, reinterpret_cast<uint8_t*>(vs) + vs->bLength, 1, -1, -1, -1, -1);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->bAlternateSetting, 1);
    EXPECT_EQ(USBD_ParseConfigurationDescriptorEx(cd, cd, 5, -1, -1, -1, -1), nullptr);
    EXPECT_EQ(USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, 0x03, -1, -1), nullptr);
    EXPECT_EQ(USBD_ParseConfigurationDescriptor(cd, 1, 1), next);
    // The endpoint of alternate setting 1 and the interface's length.
    auto* ep = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(
        USBD_ParseDescriptors(cd, cd->wTotalLength, next, USB_ENDPOINT_DESCRIPTOR_TYPE));
    ASSERT_NE(ep, nullptr);
    EXPECT_EQ(ep->bEndpointAddress, 0x81);
    EXPECT_EQ(USBD_GetInterfaceLength(next, config.data() + config.size()), 9u + 7u);
    EXPECT_EQ(USBD_ParseDescriptors(cd, cd->wTotalLength, cd, 0x42), nullptr);
    USBD_VERSION_INFORMATION v{};
    USBD_GetUSBDIVersion(&v);
    EXPECT_EQ(v.USBDI_Version, (ULONG)USBDI_VERSION);
}

TEST(Usbd, CreateConfigurationRequestExSizesEachInterface) {
    auto cam = UvcCamera::CreateDefault();
    auto config = cam->Descriptors().configuration;
    auto* cd = Cd(config);
    USBD_INTERFACE_LIST_ENTRY list[3] = {{USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1), nullptr},
                                         {USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 1, -1, -1, -1), nullptr},
                                         {nullptr, nullptr}};
    ASSERT_NE(list[0].InterfaceDescriptor, nullptr);
    ASSERT_NE(list[1].InterfaceDescriptor, nullptr);
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list);
    ASSERT_NE(urb, nullptr);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 1u) << "the URB comes from the pool";
    EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(urb->UrbHeader.Length, GET_SELECT_CONFIGURATION_REQUEST_SIZE(2, 2));
    EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationDescriptor, cd);
    ASSERT_EQ(list[0].Interface, &urb->UrbSelectConfiguration.Interface);
    EXPECT_EQ(list[0].Interface->Length, GET_USBD_INTERFACE_SIZE(1));
    EXPECT_EQ(list[0].Interface->NumberOfPipes, 1u);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(list[1].Interface),
              reinterpret_cast<uint8_t*>(list[0].Interface) + list[0].Interface->Length);
    EXPECT_EQ(list[1].Interface->InterfaceNumber, 1);
    EXPECT_EQ(list[1].Interface->AlternateSetting, 1);
    EXPECT_EQ(list[1].Interface->Pipes[0].MaximumTransferSize, USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE);
    ExFreePool(urb);
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);

    USHORT size = 0;
    PURB all = USBD_CreateConfigurationRequest(cd, &size);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(size, GET_SELECT_CONFIGURATION_REQUEST_SIZE(2, 1));  // alternate 0 of the VS interface has no endpoint
    ExFreePool(all);
}

TEST(UsbBusCameras, EveryCameraLoadsReadsBackAndSelects) {
    for (const auto& name : Cameras()) {
        SCOPED_TRACE(name);
        Plugged p = Plug(name);
        ASSERT_NE(p.camera, nullptr);
        ASSERT_NE(p.pdo, nullptr);
        std::vector<uint8_t> device;
        ASSERT_EQ(GetDescriptor(p.pdo, USB_DEVICE_DESCRIPTOR_TYPE, 0, 18, &device), STATUS_SUCCESS);
        EXPECT_EQ(device, p.camera->Descriptors().device);
        std::vector<uint8_t> config = ReadConfiguration(p.pdo);
        EXPECT_EQ(config, p.camera->Descriptors().configuration);
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
