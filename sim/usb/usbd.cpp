// The simulation's usbd.sys library routines (usbdlib.h): descriptor parsing
// and building select-configuration requests, as documented on
// learn.microsoft.com/windows-hardware/drivers/ddi/usbdlib/:
//  - USBD_ParseDescriptors: the first descriptor of the given type at or
//    after StartPosition within TotalLength bytes of DescriptorBuffer, else
//    NULL. A descriptor whose bLength is 0 ends the walk (we: a corrupt one).
//  - USBD_ParseConfigurationDescriptorEx: the first interface descriptor at
//    or after StartPosition that matches every criterion that is not -1.
//  - USBD_CreateConfigurationRequestEx: one URB from non-paged pool sized
//    for every list entry's interface and its endpoints, Hdr filled for
//    URB_FUNCTION_SELECT_CONFIGURATION, each USBD_INTERFACE_INFORMATION's
//    Length, InterfaceNumber, AlternateSetting and NumberOfPipes set, each
//    pipe's MaximumTransferSize USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE, and each
//    list entry's Interface pointing at its record; the list ends at the
//    first entry whose InterfaceDescriptor is NULL. The caller frees the URB
//    with ExFreePool.
//  - USBD_GetInterfaceLength: the interface descriptor and the descriptors
//    that follow it up to the next interface descriptor or BufferEnd.
#include <cstring>
#include <vector>

#include "kv/ex.h"
#include "usbdlib.h"

namespace {

// 'USBD' in memory order reads "DBSU" in pool tools, as usbd.sys's own tag.
constexpr ULONG kUsbdTag = 0x44425355UL;

const uint8_t* Bytes(const void* p) { return static_cast<const uint8_t*>(p); }

}  // namespace

extern "C" VOID USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation) {
    if (!VersionInformation) return;
    VersionInformation->USBDI_Version = USBDI_VERSION;
    VersionInformation->Supported_USB_Version = 0x0200;
}

extern "C" PUSB_COMMON_DESCRIPTOR USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                        PVOID StartPosition, LONG DescriptorType) {
    const uint8_t* base = Bytes(DescriptorBuffer);
    const uint8_t* end = base + TotalLength;
    const uint8_t* p = Bytes(StartPosition);
    if (p < base) return nullptr;
    while (p + sizeof(USB_COMMON_DESCRIPTOR) <= end) {
        auto* d = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(p);
        if (d->bLength == 0 || p + d->bLength > end) return nullptr;
        if (d->bDescriptorType == DescriptorType) return const_cast<PUSB_COMMON_DESCRIPTOR>(d);
        p += d->bLength;
    }
    return nullptr;
}

extern "C" PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol) {
    if (!ConfigurationDescriptor) return nullptr;
    const ULONG total = ConfigurationDescriptor->wTotalLength;
    PVOID at = StartPosition ? StartPosition : ConfigurationDescriptor;
    auto matches = [](LONG wanted, UCHAR value) { return wanted == -1 || wanted == value; };
    while (auto* d = USBD_ParseDescriptors(ConfigurationDescriptor, total, at, USB_INTERFACE_DESCRIPTOR_TYPE)) {
        if (d->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            auto* i = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(d);
            if (matches(InterfaceNumber, i->bInterfaceNumber) && matches(AlternateSetting, i->bAlternateSetting) &&
                matches(InterfaceClass, i->bInterfaceClass) && matches(InterfaceSubClass, i->bInterfaceSubClass) &&
                matches(InterfaceProtocol, i->bInterfaceProtocol))
                return i;
        }
        at = reinterpret_cast<uint8_t*>(d) + d->bLength;
    }
    return nullptr;
}

extern "C" PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptor(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, UCHAR InterfaceNumber, UCHAR AlternateSetting) {
    return USBD_ParseConfigurationDescriptorEx(ConfigurationDescriptor, ConfigurationDescriptor, InterfaceNumber,
                                               AlternateSetting, -1, -1, -1);
}

extern "C" ULONG USBD_GetInterfaceLength(PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor, PUCHAR BufferEnd) {
    const uint8_t* p = Bytes(InterfaceDescriptor);
    ULONG length = InterfaceDescriptor->bLength;
    p += InterfaceDescriptor->bLength;
    while (p + sizeof(USB_COMMON_DESCRIPTOR) <= BufferEnd) {
        auto* d = reinterpret_cast<const USB_COMMON_DESCRIPTOR*>(p);
        if (d->bLength == 0 || d->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE || p + d->bLength > BufferEnd)
            break;
        length += d->bLength;
        p += d->bLength;
    }
    return length;
}

extern "C" PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                  PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    if (!ConfigurationDescriptor || !InterfaceList) return nullptr;
    size_t size = sizeof(struct _URB_SELECT_CONFIGURATION) - sizeof(USBD_INTERFACE_INFORMATION);
    size_t count = 0;
    for (auto* e = InterfaceList; e->InterfaceDescriptor; ++e, ++count)
        size += GET_USBD_INTERFACE_SIZE(e->InterfaceDescriptor->bNumEndpoints);
    if (count == 0) size += sizeof(USBD_INTERFACE_INFORMATION);
    if (size > 0xFFFF) return nullptr;
    auto* urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, kUsbdTag));
    if (!urb) return nullptr;
    std::memset(urb, 0, size);
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb->UrbHeader.Length = static_cast<USHORT>(size);
    urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
    auto* cursor = reinterpret_cast<uint8_t*>(&urb->UrbSelectConfiguration.Interface);
    for (auto* e = InterfaceList; e->InterfaceDescriptor; ++e) {
        auto* info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(cursor);
        const UCHAR pipes = e->InterfaceDescriptor->bNumEndpoints;
        info->Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(pipes));
        info->InterfaceNumber = e->InterfaceDescriptor->bInterfaceNumber;
        info->AlternateSetting = e->InterfaceDescriptor->bAlternateSetting;
        info->NumberOfPipes = pipes;
        for (UCHAR i = 0; i < pipes; ++i) info->Pipes[i].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        e->Interface = info;
        cursor += info->Length;
    }
    return urb;
}

extern "C" PURB USBD_CreateConfigurationRequest(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                PUSHORT Siz) {
    if (Siz) *Siz = 0;
    if (!ConfigurationDescriptor) return nullptr;
    // Alternate setting 0 of every interface, in descriptor order.
    std::vector<USBD_INTERFACE_LIST_ENTRY> list;
    PVOID at = ConfigurationDescriptor;
    while (auto* i = USBD_ParseConfigurationDescriptorEx(ConfigurationDescriptor, at, -1, 0, -1, -1, -1)) {
        list.push_back({i, nullptr});
        at = reinterpret_cast<uint8_t*>(i) + i->bLength;
    }
    list.push_back({nullptr, nullptr});
    PURB urb = USBD_CreateConfigurationRequestEx(ConfigurationDescriptor, list.data());
    if (urb && Siz) *Siz = urb->UrbHeader.Length;
    return urb;
}
