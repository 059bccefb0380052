// Tests of the simulation's ks.h, ksmedia.h and USB headers as the driver sees
// them (through driver/wdk.h, KV_TARGET_HOST): the GUID values, the WDK
// macros that build tables and URBs, and the interface spelling. Sizes and
// offsets are checked at compile time by driver/layout_asserts.h (in both
// worlds); these tests check what only running code can show.
#include "wdk.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

// Parses "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" (the registry spelling).
GUID ParseGuid(const char* text)
{
    unsigned d1 = 0, d2 = 0, d3 = 0, b[8] = {};
    int n = std::sscanf(text, "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &d1, &d2, &d3, &b[0], &b[1], &b[2], &b[3],
                        &b[4], &b[5], &b[6], &b[7]);
    EXPECT_EQ(n, 11) << text;
    GUID g{};
    g.Data1 = d1;
    g.Data2 = static_cast<USHORT>(d2);
    g.Data3 = static_cast<USHORT>(d3);
    for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<UCHAR>(b[i]);
    return g;
}

struct NamedGuid {
    const char* name;
    const GUID* object;
    GUID fromStatic;  // built from the STATIC_ initialiser list
    const char* text;
};

#define KV_NAMED_GUID(name, text) {#name, &name, {STATIC_##name}, text}

// Values as the WDK documents them (and as the spec quotes the specifiers).
const NamedGuid kGuids[] = {
    KV_NAMED_GUID(KSDATAFORMAT_TYPE_VIDEO, "73646976-0000-0010-8000-00AA00389B71"),
    KV_NAMED_GUID(KSDATAFORMAT_SUBTYPE_YUY2, "32595559-0000-0010-8000-00AA00389B71"),
    KV_NAMED_GUID(KSDATAFORMAT_SUBTYPE_MJPG, "47504A4D-0000-0010-8000-00AA00389B71"),
    KV_NAMED_GUID(KSDATAFORMAT_SUBTYPE_I420, "30323449-0000-0010-8000-00AA00389B71"),
    KV_NAMED_GUID(KSDATAFORMAT_SUBTYPE_RGB24, "E436EB7D-524F-11CE-9F53-0020AF0BA770"),
    KV_NAMED_GUID(KSDATAFORMAT_SPECIFIER_VIDEOINFO, "05589F80-C356-11CE-BF01-00AA0055595A"),
    KV_NAMED_GUID(KSDATAFORMAT_SPECIFIER_MPEG2_VIDEO, "E06D80E3-DB46-11CF-B4D1-00805F6CBBEA"),
    KV_NAMED_GUID(KSCATEGORY_VIDEO, "6994AD05-93EF-11D0-A3CC-00A0C9223196"),
    KV_NAMED_GUID(KSCATEGORY_CAPTURE, "65E8773D-8F56-11D0-A3B9-00A0C9223196"),
    KV_NAMED_GUID(KSPROPSETID_Pin, "8C134960-51AD-11CF-878A-94F801C10000"),
    KV_NAMED_GUID(PINNAME_VIDEO_CAPTURE, "FB6C4281-0353-11D1-905F-0000C0CC16BA"),
    KV_NAMED_GUID(PINNAME_VIDEO_STILL, "FB6C428A-0353-11D1-905F-0000C0CC16BA"),
    KV_NAMED_GUID(PROPSETID_VIDCAP_VIDEOPROCAMP, "C6E13360-30AC-11D0-A18C-00A0C9118956"),
    KV_NAMED_GUID(PROPSETID_VIDCAP_CAMERACONTROL, "C6E13370-30AC-11D0-A18C-00A0C9118956"),
    KV_NAMED_GUID(PROPSETID_VIDCAP_DROPPEDFRAMES, "C6E13344-30AC-11D0-A18C-00A0C9118956"),
    KV_NAMED_GUID(PROPSETID_VIDCAP_VIDEOCONTROL, "6A2E0670-28E4-11D0-A18C-00A0C9118956"),
    KV_NAMED_GUID(KSEVENTSETID_VIDCAPTOSTI, "DB47DE20-F628-11D1-BA41-00A0C90D2B05"),
    KV_NAMED_GUID(KSNODETYPE_VIDEO_CAMERA_TERMINAL, "DFF229E6-F70F-11D0-B917-00A0C9223196"),
    KV_NAMED_GUID(KSNODETYPE_VIDEO_PROCESSING, "DFF229E5-F70F-11D0-B917-00A0C9223196"),
    KV_NAMED_GUID(KSNODETYPE_VIDEO_STREAMING, "DFF229E1-F70F-11D0-B917-00A0C9223196"),
    KV_NAMED_GUID(KSNODETYPE_DEV_SPECIFIC, "941C7AC0-C559-11D0-8A2B-00A0C9255AC1"),
    KV_NAMED_GUID(KSNAME_Filter, "9B365890-165F-11D0-A195-0020AFD156E4"),
};

TEST(KsHeaders, GuidObjectsAndStaticInitialisersHaveTheDocumentedValues)
{
    for (const NamedGuid& g : kGuids) {
        GUID expected = ParseGuid(g.text);
        EXPECT_TRUE(IsEqualGUID(*g.object, expected)) << g.name;
        EXPECT_TRUE(IsEqualGUID(g.fromStatic, expected)) << "STATIC_" << g.name;
    }
}

TEST(KsHeaders, UsbBusInterfaceGuidHasTheDocumentedValue)
{
    EXPECT_TRUE(IsEqualGUID(USB_BUS_INTERFACE_USBDI_GUID, ParseGuid("B1A96A13-3DE0-4574-9B01-C08FEAB318D6")));
}

// A property table written as a driver writes it lands in the right fields.
NTSTATUS GetHandler(PIRP, PKSIDENTIFIER, PVOID) { return STATUS_SUCCESS; }
NTSTATUS SetHandler(PIRP, PKSIDENTIFIER, PVOID) { return STATUS_UNSUCCESSFUL; }

DEFINE_KSPROPERTY_TABLE(kDroppedFramesProperties){
    DEFINE_KSPROPERTY_ITEM(KSPROPERTY_DROPPEDFRAMES_CURRENT, GetHandler, sizeof(KSPROPERTY),
                           sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S), SetHandler, NULL, 0, NULL, NULL, 0),
};
DEFINE_KSPROPERTY_SET_TABLE(kPropertySets){
    DEFINE_KSPROPERTY_SET(&PROPSETID_VIDCAP_DROPPEDFRAMES, SIZEOF_ARRAY(kDroppedFramesProperties),
                          kDroppedFramesProperties, 0, NULL),
};
DEFINE_KSEVENT_TABLE(kButtonEvents){
    DEFINE_KSEVENT_ITEM(KSEVENT_VIDCAPTOSTI_EXT_TRIGGER, sizeof(KSEVENT), 0, NULL, NULL, NULL),
};
DEFINE_KSEVENT_SET_TABLE(kEventSets){
    DEFINE_KSEVENT_SET(&KSEVENTSETID_VIDCAPTOSTI, SIZEOF_ARRAY(kButtonEvents), kButtonEvents),
};
DEFINE_KSAUTOMATION_TABLE(kAutomation){
    DEFINE_KSAUTOMATION_PROPERTIES(kPropertySets),
    DEFINE_KSAUTOMATION_METHODS_NULL,
    DEFINE_KSAUTOMATION_EVENTS(kEventSets),
};

TEST(KsHeaders, AutomationTableMacrosFillTheWdkFields)
{
    EXPECT_EQ(kAutomation.PropertySetsCount, 1u);
    EXPECT_EQ(kAutomation.PropertyItemSize, 72u);
    EXPECT_EQ(kAutomation.MethodSetsCount, 0u);
    EXPECT_EQ(kAutomation.MethodSets, nullptr);
    EXPECT_EQ(kAutomation.EventSetsCount, 1u);
    EXPECT_EQ(kAutomation.EventItemSize, 40u);
    const KSPROPERTY_ITEM& item = kAutomation.PropertySets[0].PropertyItem[0];
    EXPECT_EQ(item.GetPropertyHandler, &GetHandler);
    EXPECT_EQ(item.SetPropertyHandler, &SetHandler);
    EXPECT_EQ(item.MinProperty, sizeof(KSPROPERTY));
    EXPECT_EQ(item.MinData, 48u);
    EXPECT_EQ(kAutomation.EventSets[0].EventItem[0].DataInput, sizeof(KSEVENT));
    EXPECT_TRUE(IsEqualGUID(*kAutomation.EventSets[0].Set, KSEVENTSETID_VIDCAPTOSTI));
}

DECLARE_SIMPLE_FRAMING_EX(kFraming, STATICGUIDOF(KSMEMORY_TYPE_KERNEL_NONPAGED), KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY,
                          2, 0, 640 * 480 * 2, 640 * 480 * 3);

TEST(KsHeaders, SimpleFramingDeclaresOneItemWithTheFrameRange)
{
    EXPECT_EQ(kFraming.CountItems, 1u);
    EXPECT_TRUE(IsEqualGUID(kFraming.FramingItem[0].MemoryType, KSMEMORY_TYPE_KERNEL_NONPAGED));
    EXPECT_TRUE(IsEqualGUID(kFraming.FramingItem[0].BusType, GUID_NULL));
    EXPECT_EQ(kFraming.FramingItem[0].Flags, ULONG(KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY));
    EXPECT_EQ(kFraming.FramingItem[0].Frames, 2u);
    EXPECT_EQ(kFraming.FramingItem[0].FramingRange.Range.MinFrameSize, 640u * 480 * 2);
    EXPECT_EQ(kFraming.FramingItem[0].FramingRange.Range.MaxFrameSize, 640u * 480 * 3);
    EXPECT_EQ(kFraming.FramingItem[0].PhysicalRange.MaxFrameSize, ULONG(-1));
}

// A pin's reference clock is called through the interface as in the WDK.
struct FixedClock final : IKsReferenceClock {
    NTSTATUS QueryInterface(REFIID, PVOID*) override { return STATUS_NOT_IMPLEMENTED; }
    ULONG AddRef() override { return ++refs; }
    ULONG Release() override { return --refs; }
    LONGLONG GetTime() override { return 333333; }
    LONGLONG GetPhysicalTime() override { return 0; }
    LONGLONG GetCorrelatedTime(PLONGLONG) override { return 0; }
    LONGLONG GetCorrelatedPhysicalTime(PLONGLONG) override { return 0; }
    NTSTATUS GetResolution(PKSRESOLUTION) override { return STATUS_SUCCESS; }
    NTSTATUS GetState(PKSSTATE state) override
    {
        *state = KSSTATE_RUN;
        return STATUS_SUCCESS;
    }
    ULONG refs = 1;
};

TEST(KsHeaders, ReferenceClockIsCalledThroughTheInterfacePointer)
{
    FixedClock clock;
    PIKSREFERENCECLOCK pClock = &clock;
    EXPECT_EQ(pClock->GetTime(), 333333);
    KSSTATE state = KSSTATE_STOP;
    EXPECT_EQ(pClock->GetState(&state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_RUN);
    EXPECT_EQ(pClock->Release(), 0u);
}

TEST(UsbHeaders, SelectInterfaceRequestSizeGrowsByOnePipeInformation)
{
    EXPECT_EQ(GET_SELECT_INTERFACE_REQUEST_SIZE(1), 80u);
    for (ULONG e = 1; e <= 4; ++e) EXPECT_EQ(GET_SELECT_INTERFACE_REQUEST_SIZE(e), (e - 1) * 24 + 80) << e;
    EXPECT_EQ(GET_ISO_URB_SIZE(128), 152u + 12 * 128);
}

TEST(UsbHeaders, UsbBuildGetDescriptorRequestFillsHeaderAndRequest)
{
    URB urb;
    memset(&urb, 0xCD, sizeof(urb));
    UCHAR buffer[18] = {};
    UsbBuildGetDescriptorRequest(&urb, (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer, NULL, sizeof(buffer), NULL);
    EXPECT_EQ(urb.UrbHeader.Length, 136);
    EXPECT_EQ(urb.UrbHeader.Function, URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.DescriptorType, USB_DEVICE_DESCRIPTOR_TYPE);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.Index, 0);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.LanguageId, 0);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.TransferBuffer, buffer);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.TransferBufferLength, 18u);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.TransferBufferMDL, nullptr);
    EXPECT_EQ(urb.UrbControlDescriptorRequest.UrbLink, nullptr);
}

TEST(UsbHeaders, UsbBuildSelectInterfaceRequestSetsTheInterfaceLength)
{
    const ULONG endpoints = 3;
    const USHORT size = (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(endpoints);
    std::vector<UCHAR> storage(size, 0);
    PURB urb = reinterpret_cast<PURB>(storage.data());
    int configurationHandle = 0;
    UsbBuildSelectInterfaceRequest(urb, size, &configurationHandle, 1, 5);
    EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_INTERFACE);
    EXPECT_EQ(urb->UrbHeader.Length, size);
    EXPECT_EQ(urb->UrbSelectInterface.ConfigurationHandle, &configurationHandle);
    EXPECT_EQ(urb->UrbSelectInterface.Interface.InterfaceNumber, 1);
    EXPECT_EQ(urb->UrbSelectInterface.Interface.AlternateSetting, 5);
    // Part 1.2: the interface information is e * 24 + 24 bytes.
    EXPECT_EQ(urb->UrbSelectInterface.Interface.Length, endpoints * 24 + 24);
}

TEST(UsbHeaders, UsbBuildVendorRequestFillsAClassInterfaceRequest)
{
    URB urb{};
    UCHAR data[26] = {};
    UsbBuildVendorRequest(&urb, URB_FUNCTION_CLASS_INTERFACE, (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                          USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, 0, 0x81, 0x0100, 0x0001, data, NULL,
                          sizeof(data), NULL);
    EXPECT_EQ(urb.UrbHeader.Function, URB_FUNCTION_CLASS_INTERFACE);
    EXPECT_EQ(urb.UrbHeader.Length, 136);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.Request, 0x81);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.Value, 0x0100);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.Index, 0x0001);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferFlags, ULONG(USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK));
    EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferBufferLength, 26u);
}

TEST(UsbHeaders, DescriptorsOverlayTheWireBytes)
{
    // An endpoint descriptor as it arrives: 7 bytes, wMaxPacketSize little-endian.
    const UCHAR wire[] = {0x07, 0x05, 0x81, 0x05, 0x00, 0x14, 0x01, 0xEE};
    auto* ep = reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(wire);
    EXPECT_EQ(ep->bEndpointAddress, 0x81);
    EXPECT_EQ(ep->bmAttributes & USB_ENDPOINT_TYPE_MASK, USB_ENDPOINT_TYPE_ISOCHRONOUS);
    EXPECT_EQ(ep->wMaxPacketSize, 0x1400);
    EXPECT_EQ(ep->bInterval, 1);
    EXPECT_TRUE(USB_ENDPOINT_DIRECTION_IN(ep->bEndpointAddress));
}

TEST(UsbHeaders, StatusMacrosClassifyUsbdStatus)
{
    EXPECT_TRUE(USBD_SUCCESS(USBD_STATUS_SUCCESS));
    EXPECT_TRUE(USBD_PENDING(USBD_STATUS_PENDING));
    EXPECT_FALSE(USBD_ERROR(USBD_STATUS_PENDING));
    EXPECT_TRUE(USBD_ERROR(USBD_STATUS_STALL_PID));
    EXPECT_TRUE(USBD_ERROR(USBD_STATUS_INVALID_PARAMETER));
    EXPECT_EQ(IOCTL_INTERNAL_USB_SUBMIT_URB, 0x220003u);
}

}  // namespace
