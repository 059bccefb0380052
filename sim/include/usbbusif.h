// Simulated Windows kernel headers: usbbusif.h, the USBDI bus interface that
// a client driver obtains from the bus driver with IRP_MN_QUERY_INTERFACE
// (USB_BUS_INTERFACE_USBDI_GUID); version 1 adds IsDeviceHighSpeed.
#pragma once

#include "usb.h"

// The INTERFACE header's reference callbacks (wdm.h). Redeclaring the same
// typedefs is allowed in C++, so kv/io.h may declare them too.
typedef VOID (*PINTERFACE_REFERENCE)(PVOID Context);
typedef VOID (*PINTERFACE_DEREFERENCE)(PVOID Context);

#define USB_BUSIFFN

typedef PVOID PUSB_DEVICE_HANDLE;

typedef NTSTATUS(USB_BUSIFFN* PUSB_BUSIFFN_SUBMIT_ISO_OUT_URB)(PVOID BusContext, PURB Urb);
typedef VOID(USB_BUSIFFN* PUSB_BUSIFFN_GETUSBDI_VERSION)(PVOID BusContext,
                                                          PUSBD_VERSION_INFORMATION VersionInformation,
                                                          PULONG HcdCapabilities);
typedef NTSTATUS(USB_BUSIFFN* PUSB_BUSIFFN_QUERY_BUS_TIME)(PVOID BusContext, PULONG CurrentUsbFrame);
typedef NTSTATUS(USB_BUSIFFN* PUSB_BUSIFFN_ENUM_LOG_ENTRY)(PVOID BusContext, ULONG DriverTag, ULONG EnumTag,
                                                            ULONG P1, ULONG P2);
typedef NTSTATUS(USB_BUSIFFN* PUSB_BUSIFFN_QUERY_BUS_INFORMATION)(PVOID BusContext, ULONG Level, PVOID BusInformationBuffer,
                                                                   PULONG BusInformationBufferLength,
                                                                   PULONG BusInformationActualLength);
typedef BOOLEAN(USB_BUSIFFN* PUSB_BUSIFFN_IS_DEVICE_HIGH_SPEED)(PVOID BusContext);

#define USB_HCD_CAPS_SUPPORTS_RT_THREADS 0x00000001

typedef struct _USB_BUS_INFORMATION_LEVEL_0 {
    ULONG TotalBandwidth;
    ULONG ConsumedBandwidth;
} USB_BUS_INFORMATION_LEVEL_0, *PUSB_BUS_INFORMATION_LEVEL_0;

#define USB_BUSIF_USBDI_VERSION_0 0x0000
#define USB_BUSIF_USBDI_VERSION_1 0x0001
#define USB_BUSIF_USBDI_VERSION_2 0x0002
#define USB_BUSIF_USBDI_VERSION_3 0x0003

DEFINE_GUID(USB_BUS_INTERFACE_USBDI_GUID, 0xb1a96a13, 0x3de0, 0x4574, 0x9b, 0x01, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6);

typedef struct _USB_BUS_INTERFACE_USBDI_V0 {
    USHORT Size;
    USHORT Version;
    PVOID BusContext;
    PINTERFACE_REFERENCE InterfaceReference;
    PINTERFACE_DEREFERENCE InterfaceDereference;
    PUSB_BUSIFFN_GETUSBDI_VERSION GetUSBDIVersion;
    PUSB_BUSIFFN_QUERY_BUS_TIME QueryBusTime;
    PUSB_BUSIFFN_SUBMIT_ISO_OUT_URB SubmitIsoOutUrb;
    PUSB_BUSIFFN_QUERY_BUS_INFORMATION QueryBusInformation;
} USB_BUS_INTERFACE_USBDI_V0, *PUSB_BUS_INTERFACE_USBDI_V0;

// 72 bytes.
typedef struct _USB_BUS_INTERFACE_USBDI_V1 {
    USHORT Size;
    USHORT Version;
    PVOID BusContext;
    PINTERFACE_REFERENCE InterfaceReference;
    PINTERFACE_DEREFERENCE InterfaceDereference;
    PUSB_BUSIFFN_GETUSBDI_VERSION GetUSBDIVersion;
    PUSB_BUSIFFN_QUERY_BUS_TIME QueryBusTime;
    PUSB_BUSIFFN_SUBMIT_ISO_OUT_URB SubmitIsoOutUrb;
    PUSB_BUSIFFN_QUERY_BUS_INFORMATION QueryBusInformation;
    PUSB_BUSIFFN_IS_DEVICE_HIGH_SPEED IsDeviceHighSpeed;
} USB_BUS_INTERFACE_USBDI_V1, *PUSB_BUS_INTERFACE_USBDI_V1;

typedef struct _USB_BUS_INTERFACE_USBDI_V2 {
    USHORT Size;
    USHORT Version;
    PVOID BusContext;
    PINTERFACE_REFERENCE InterfaceReference;
    PINTERFACE_DEREFERENCE InterfaceDereference;
    PUSB_BUSIFFN_GETUSBDI_VERSION GetUSBDIVersion;
    PUSB_BUSIFFN_QUERY_BUS_TIME QueryBusTime;
    PUSB_BUSIFFN_SUBMIT_ISO_OUT_URB SubmitIsoOutUrb;
    PUSB_BUSIFFN_QUERY_BUS_INFORMATION QueryBusInformation;
    PUSB_BUSIFFN_IS_DEVICE_HIGH_SPEED IsDeviceHighSpeed;
    PUSB_BUSIFFN_ENUM_LOG_ENTRY EnumLogEntry;
} USB_BUS_INTERFACE_USBDI_V2, *PUSB_BUS_INTERFACE_USBDI_V2;
