// The camera's USB configuration: its descriptors, the selected
// configuration and first interface, the pipe array with the three pipes the
// driver uses, the USBDI bus interface and the bus speed; and the routines
// that read and select them. Every request goes down as a URB on
// IOCTL_INTERNAL_USB_SUBMIT_URB to the next-lower device object.
#pragma once

#include "wdk.h"

class UsbConfiguration {
public:
    UsbConfiguration();
    ~UsbConfiguration();
    UsbConfiguration(const UsbConfiguration&) = delete;
    UsbConfiguration& operator=(const UsbConfiguration&) = delete;

    // The device object that URBs are sent to (the one below ours).
    void Attach(PDEVICE_OBJECT pNextDeviceObject) { m_pNextDeviceObject = pNextDeviceObject; }

    // Device descriptor, configuration descriptor, then the configuration
    // with alternate setting 0 of every interface.
    NTSTATUS ReadandSelectUsbDescriptors();
    // The capture pin's bandwidth change: an alternate setting of a
    // streaming interface; its pipes replace the pipe array's first entries.
    NTSTATUS SelectAlternateInterface(UCHAR InterfaceNumber, UCHAR AlternateSetting, UCHAR InterfaceSubClass);
    // A select-configuration without a configuration: the unconfigured state.
    NTSTATUS DeconfigureUsbDevice();
    // USB_BUS_INTERFACE_USBDI_V1 from the bus driver (IRP_MN_QUERY_INTERFACE).
    NTSTATUS GetBusInterface();
    // m_HighSpeed and the packets per isochronous transfer.
    NTSTATUS InitDeviceSpeed();
    // Frees the descriptors, the interface and the pipe array with their tags
    // (a second call is harmless).
    void ReleaseConfiguration();
    // Gives the bus interface's reference back and frees it.
    void ReleaseBusInterface();
    void Release()
    {
        ReleaseConfiguration();
        ReleaseBusInterface();
    }

    // Read by the pins, the control requests and the format tables.
    PUSB_DEVICE_DESCRIPTOR m_pDeviceDescriptor;                // 18 bytes, "KVdd"
    PUSB_CONFIGURATION_DESCRIPTOR m_pConfigurationDescriptor;  // wTotalLength bytes, "KVcd"
    USBD_CONFIGURATION_HANDLE m_ConfigurationHandle;
    PUSBD_INTERFACE_INFORMATION m_pInterfaceInformation;       // first interface, "KVle"
    PUSBD_PIPE_INFORMATION m_pPipes;                           // pipe array, "KVtx"
    ULONG m_nPipes;                                            // pipes the array holds now
    PUSBD_PIPE_INFORMATION m_IsoInPipe;                        // references into m_pPipes
    PUSBD_PIPE_INFORMATION m_IsoOutPipe;
    PUSBD_PIPE_INFORMATION m_InterruptPipe;
    PUSB_BUS_INTERFACE_USBDI_V1 m_pBusInterface;               // 72 bytes, "KVB1"
    ULONG m_HighSpeed;
    ULONG m_SpeedPacketCount;                                  // 128 high speed, 32 full speed

    // One URB, synchronously. For a pended request the answer is the wait's
    // status; callers that care read the URB's own status too.
    NTSTATUS SubmitUrb(PURB pUrb);

private:
    NTSTATUS ConfigureUsbDevice();
    NTSTATUS SelectUsbInterfaces(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor);
    NTSTATUS KeepFirstInterface(PUSBD_INTERFACE_INFORMATION pInfo, USBD_CONFIGURATION_HANDLE hConfiguration);
    void ReplaceBusInterface(PUSB_BUS_INTERFACE_USBDI_V1 pInterface);

    PDEVICE_OBJECT m_pNextDeviceObject;
    UCHAR m_RemoteWakeup;   // bmAttributes bit 0x20
    ULONG m_nPipeCapacity;  // entries allocated: the largest alternate setting's endpoints
};
