// Simulated Windows kernel headers: usbdlib.h, the usbd.sys helpers of a USB
// client driver: the UsbBuild* request builders (macros, as in the WDK), the
// URB size macros and the descriptor parsing and configuration-request
// routines (implemented by the simulation's usbd, sim/usb).
#pragma once

#include "usb.h"

typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

// The builders fill only the fields they name: the caller zeroes the URB.
#define UsbBuildInterruptOrBulkTransferRequest(urb, length, pipeHandle, transferBuffer, transferBufferMDL,     \
                                               transferBufferLength, transferFlags, link)                      \
    {                                                                                                          \
        (urb)->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;                                   \
        (urb)->UrbHeader.Length = (length);                                                                    \
        (urb)->UrbBulkOrInterruptTransfer.PipeHandle = (pipeHandle);                                           \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferLength = (transferBufferLength);                       \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferMDL = (transferBufferMDL);                             \
        (urb)->UrbBulkOrInterruptTransfer.TransferBuffer = (transferBuffer);                                   \
        (urb)->UrbBulkOrInterruptTransfer.TransferFlags = (transferFlags);                                     \
        (urb)->UrbBulkOrInterruptTransfer.UrbLink = (link);                                                    \
    }

#define UsbBuildGetDescriptorRequest(urb, length, descriptorType, descriptorIndex, languageId, transferBuffer,    \
                                     transferBufferMDL, transferBufferLength, link)                              \
    {                                                                                                            \
        (urb)->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;                                     \
        (urb)->UrbHeader.Length = (length);                                                                      \
        (urb)->UrbControlDescriptorRequest.TransferBufferLength = (transferBufferLength);                         \
        (urb)->UrbControlDescriptorRequest.TransferBufferMDL = (transferBufferMDL);                               \
        (urb)->UrbControlDescriptorRequest.TransferBuffer = (transferBuffer);                                     \
        (urb)->UrbControlDescriptorRequest.DescriptorType = (descriptorType);                                     \
        (urb)->UrbControlDescriptorRequest.Index = (descriptorIndex);                                             \
        (urb)->UrbControlDescriptorRequest.LanguageId = (languageId);                                             \
        (urb)->UrbControlDescriptorRequest.UrbLink = (link);                                                      \
    }

#define UsbBuildGetStatusRequest(urb, op, index, transferBuffer, transferBufferMDL, link)   \
    {                                                                                       \
        (urb)->UrbHeader.Function = (op);                                                   \
        (urb)->UrbHeader.Length = sizeof(struct _URB_CONTROL_GET_STATUS_REQUEST);           \
        (urb)->UrbControlGetStatusRequest.TransferBufferLength = sizeof(USHORT);            \
        (urb)->UrbControlGetStatusRequest.TransferBufferMDL = (transferBufferMDL);          \
        (urb)->UrbControlGetStatusRequest.TransferBuffer = (transferBuffer);                \
        (urb)->UrbControlGetStatusRequest.Index = (index);                                  \
        (urb)->UrbControlGetStatusRequest.UrbLink = (link);                                 \
    }

#define UsbBuildFeatureRequest(urb, op, featureSelector, index, link)            \
    {                                                                            \
        (urb)->UrbHeader.Function = (op);                                        \
        (urb)->UrbHeader.Length = sizeof(struct _URB_CONTROL_FEATURE_REQUEST);   \
        (urb)->UrbControlFeatureRequest.FeatureSelector = (featureSelector);     \
        (urb)->UrbControlFeatureRequest.Index = (index);                         \
        (urb)->UrbControlFeatureRequest.UrbLink = (link);                        \
    }

#define UsbBuildSelectConfigurationRequest(urb, length, configurationDescriptor)       \
    {                                                                                  \
        (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;                 \
        (urb)->UrbHeader.Length = (length);                                            \
        (urb)->UrbSelectConfiguration.ConfigurationDescriptor = (configurationDescriptor); \
    }

// The interface information's length is what remains of the URB after the
// header and the configuration handle.
#define UsbBuildSelectInterfaceRequest(urb, length, configurationHandle, interfaceNumber, alternateSetting)    \
    {                                                                                                          \
        (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;                                             \
        (urb)->UrbHeader.Length = (length);                                                                    \
        (urb)->UrbSelectInterface.Interface.AlternateSetting = (alternateSetting);                             \
        (urb)->UrbSelectInterface.Interface.InterfaceNumber = (interfaceNumber);                               \
        (urb)->UrbSelectInterface.Interface.Length =                                                           \
            (USHORT)((length) - sizeof(struct _URB_HEADER) - sizeof(USBD_CONFIGURATION_HANDLE));               \
        (urb)->UrbSelectInterface.ConfigurationHandle = (configurationHandle);                                 \
    }

#define UsbBuildVendorRequest(urb, cmd, length, transferFlags, reservedbits, request, value, index, transferBuffer, \
                              transferBufferMDL, transferBufferLength, link)                                       \
    {                                                                                                              \
        (urb)->UrbHeader.Function = (cmd);                                                                         \
        (urb)->UrbHeader.Length = (length);                                                                        \
        (urb)->UrbControlVendorClassRequest.TransferBufferLength = (transferBufferLength);                          \
        (urb)->UrbControlVendorClassRequest.TransferBufferMDL = (transferBufferMDL);                                \
        (urb)->UrbControlVendorClassRequest.TransferBuffer = (transferBuffer);                                      \
        (urb)->UrbControlVendorClassRequest.RequestTypeReservedBits = (reservedbits);                               \
        (urb)->UrbControlVendorClassRequest.Request = (request);                                                    \
        (urb)->UrbControlVendorClassRequest.Value = (value);                                                        \
        (urb)->UrbControlVendorClassRequest.Index = (index);                                                        \
        (urb)->UrbControlVendorClassRequest.TransferFlags = (transferFlags);                                        \
        (urb)->UrbControlVendorClassRequest.UrbLink = (link);                                                       \
    }

#define URB_STATUS(urb) ((urb)->UrbHeader.Status)

#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                         \
    (sizeof(struct _URB_SELECT_CONFIGURATION) +                                                    \
     (((totalInterfaces) - 1) * sizeof(USBD_INTERFACE_INFORMATION)) +                              \
     (((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_SELECT_INTERFACE_REQUEST_SIZE(totalPipes) \
    (sizeof(struct _URB_SELECT_INTERFACE) + (((totalPipes) - 1) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_USBD_INTERFACE_SIZE(numEndpoints) \
    (sizeof(USBD_INTERFACE_INFORMATION) + (sizeof(USBD_PIPE_INFORMATION) * (numEndpoints)) - sizeof(USBD_PIPE_INFORMATION))
// As the WDK defines it: the first packet descriptor inside the structure is
// counted once more.
#define GET_ISO_URB_SIZE(n) (sizeof(struct _URB_ISOCH_TRANSFER) + sizeof(USBD_ISO_PACKET_DESCRIPTOR) * (n))

KV_EXTERN_C_BEGIN
VOID USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation);
PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptor(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                            UCHAR InterfaceNumber, UCHAR AlternateSetting);
PURB USBD_CreateConfigurationRequest(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PUSHORT Siz);
PUSB_COMMON_DESCRIPTOR USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength, PVOID StartPosition,
                                             LONG DescriptorType);
PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                              PVOID StartPosition, LONG InterfaceNumber,
                                                              LONG AlternateSetting, LONG InterfaceClass,
                                                              LONG InterfaceSubClass, LONG InterfaceProtocol);
PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
ULONG USBD_GetInterfaceLength(PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor, PUCHAR BufferEnd);
KV_EXTERN_C_END
