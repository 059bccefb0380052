// The camera's USB configuration: synchronous URB submission, reading the
// device and configuration descriptors, selecting the configuration
// (alternate setting 0 of every interface) and later alternate settings,
// deconfiguring, and the USBDI bus interface that tells the bus speed.
//
// Choices worth knowing, each also noted at its routine:
//  - SelectUsbInterfaces bounds its search for interface numbers by the
//    configuration's length (at most wTotalLength / 9 interfaces fit).
//  - The header and full configuration buffers are freed after failed reads.
//  - The pipe array is sized for the largest bNumEndpoints of any interface
//    setting of the configuration, so SelectAlternateInterface always fits.
//  - SubmitUrb returns the wait's status for a pended request; the callers
//    here also read the URB's own status: a URB that failed behind a
//    successful submit gives STATUS_UNSUCCESSFUL.
//  - No descriptor byte the device did not return is read: a device
//    descriptor shorter than 18 bytes or a configuration header shorter than
//    9 fails with STATUS_DEVICE_DATA_ERROR; a configuration descriptor that
//    comes back shorter than wTotalLength keeps what came, with wTotalLength
//    lowered to it, so that every later walk stops there.
//  - GetBusInterface allocates its buffer before building the IRP (an IRP of
//    IoBuildSynchronousFsdRequest can only be disposed of by completing it
//    after it was sent), and frees the buffer when the query fails.
#include "device/usb.h"

#include "device/descriptor_reader.h"
#include "pooltag.h"

using namespace kv;

namespace {

// USB_BUS_INTERFACE_USBDI_GUID {B1A96A13-3DE0-4574-9B01-C08FEAB318D6}, kept
// here so that the driver does not depend on an INITGUID translation unit.
const GUID kUsbBusInterfaceUsbdiGuid = {0xb1a96a13, 0x3de0, 0x4574, {0x9b, 0x01, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6}};

constexpr ULONG kDeviceDescriptorSize = 18;
constexpr ULONG kConfigurationHeaderSize = 9;
constexpr ULONG kMaximumTransferSize = 0x10000;
constexpr ULONG kPipeInformationSize = sizeof(USBD_PIPE_INFORMATION);  // 24
// Packets per isochronous transfer: 16 ms of microframes at high speed, 32 ms
// of frames at full speed.
constexpr ULONG kPacketsPerTransferHighSpeed = 128;
constexpr ULONG kPacketsPerTransferFullSpeed = 32;

// The status of a request: the submit's, or the URB's own when the submit
// succeeded but the URB did not.
NTSTATUS RequestStatus(NTSTATUS submitStatus, const URB* pUrb)
{
    if (NT_SUCCESS(submitStatus) && !USBD_SUCCESS(pUrb->UrbHeader.Status)) {
        return STATUS_UNSUCCESSFUL;
    }
    return submitStatus;
}

// Fills a get-descriptor-from-device request into a zeroed 136-byte block.
void BuildGetDescriptor(PURB pUrb, UCHAR descriptorType, PVOID pBuffer, ULONG cbBuffer)
{
    RtlZeroMemory(pUrb, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    UsbBuildGetDescriptorRequest(pUrb, static_cast<USHORT>(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST)),
                                 descriptorType, 0, 0, pBuffer, nullptr, cbBuffer, nullptr);
}

// The largest bNumEndpoints of any interface descriptor in the configuration.
ULONG LargestEndpointCount(const USB_CONFIGURATION_DESCRIPTOR* pConfiguration)
{
    const UCHAR* pBytes = reinterpret_cast<const UCHAR*>(pConfiguration);
    DescriptorWalker walker(pBytes, pConfiguration->wTotalLength);
    ULONG nLargest = 0;
    DescriptorView d;
    while (walker.Next(&d)) {
        if (d.Type() == USB_INTERFACE_DESCRIPTOR_TYPE && d.Has(5) && d.U8(4) > nLargest) {
            nLargest = d.U8(4);
        }
    }
    return nLargest;
}

// Stores a new block in a field, freeing what the field held (a second start).
template <typename T>
void ReplaceTagged(T** ppField, T* pNew, ULONG tag)
{
    if (*ppField != nullptr) {
        ExFreePoolWithTag(*ppField, tag);
    }
    *ppField = pNew;
}

// GetBusInterface's completion routine: wake the waiting thread and keep the
// IRP, which the waiter completes again.
NTSTATUS BusInterfaceQueryCompleted(PDEVICE_OBJECT, PIRP, PVOID pContext)
{
    KeSetEvent(static_cast<PKEVENT>(pContext), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

UsbConfiguration::UsbConfiguration()
    : m_pDeviceDescriptor(nullptr),
      m_pConfigurationDescriptor(nullptr),
      m_ConfigurationHandle(nullptr),
      m_pInterfaceInformation(nullptr),
      m_pPipes(nullptr),
      m_nPipes(0),
      m_IsoInPipe(nullptr),
      m_IsoOutPipe(nullptr),
      m_InterruptPipe(nullptr),
      m_pBusInterface(nullptr),
      m_HighSpeed(0),
      m_SpeedPacketCount(0),
      m_pNextDeviceObject(nullptr),
      m_RemoteWakeup(0),
      m_nPipeCapacity(0)
{
}

UsbConfiguration::~UsbConfiguration()
{
    Release();
}

void UsbConfiguration::ReleaseConfiguration()
{
    m_ConfigurationHandle = nullptr;
    m_IsoInPipe = nullptr;
    m_IsoOutPipe = nullptr;
    m_InterruptPipe = nullptr;
    m_nPipes = 0;
    m_nPipeCapacity = 0;
    FreeTagged(m_pPipes, kTagPipes);
    FreeTagged(m_pConfigurationDescriptor, kTagConfigurationDescriptor);
    FreeTagged(m_pDeviceDescriptor, kTagDeviceDescriptor);
    FreeTagged(m_pInterfaceInformation, kTagInterfaceList);
}

void UsbConfiguration::ReleaseBusInterface()
{
    if (m_pBusInterface != nullptr && m_pBusInterface->InterfaceDereference != nullptr) {
        // The bus took a reference when it answered IRP_MN_QUERY_INTERFACE;
        // the interface's user gives it back before dropping the interface.
        // https://learn.microsoft.com/windows-hardware/drivers/kernel/irp-mn-query-interface
        m_pBusInterface->InterfaceDereference(m_pBusInterface->BusContext);
    }
    FreeTagged(m_pBusInterface, kTagBusInterface);
}

NTSTATUS UsbConfiguration::SubmitUrb(PURB pUrb)
{
    KEVENT event;
    IO_STATUS_BLOCK ioStatus;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP pIrp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, m_pNextDeviceObject, nullptr, 0, nullptr,
                                              0, TRUE, &event, &ioStatus);
    if (pIrp == nullptr) {
        DbgPrint("SubmitUrb: IoBuildDeviceIoControlRequest failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION pNextStack = IoGetNextIrpStackLocation(pIrp);
    ASSERT(pNextStack != NULL);
    pNextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNextStack->Parameters.Others.Argument1 = pUrb;
    NTSTATUS status = IoCallDriver(m_pNextDeviceObject, pIrp);
    if (status == STATUS_PENDING) {
        // The wait's result, not the request's: callers read the URB's status.
        status = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    return status;
}

NTSTATUS UsbConfiguration::ReadandSelectUsbDescriptors()
{
    PURB pUrb = static_cast<PURB>(
        ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), kTagRequest));
    if (pUrb == nullptr) {
        DbgPrint("ReadandSelectUsbDescriptors: Failed to allocate memory for urb\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto deviceDescriptor =
        static_cast<PUSB_DEVICE_DESCRIPTOR>(ExAllocatePoolWithTag(NonPagedPoolNx, kDeviceDescriptorSize, kTagDeviceDescriptor));
    if (deviceDescriptor == nullptr) {
        DbgPrint("ReadandSelectUsbDescriptors: Failed to allocate memory for deviceDescriptor\n");
        ExFreePoolWithTag(pUrb, kTagRequest);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(deviceDescriptor, kDeviceDescriptorSize);
    BuildGetDescriptor(pUrb, USB_DEVICE_DESCRIPTOR_TYPE, deviceDescriptor, kDeviceDescriptorSize);
    NTSTATUS status = RequestStatus(SubmitUrb(pUrb), pUrb);
    if (NT_SUCCESS(status) && pUrb->UrbControlDescriptorRequest.TransferBufferLength < kDeviceDescriptorSize) {
        DbgPrint("ReadandSelectUsbDescriptors: short device descriptor (%u bytes)\n",
                 pUrb->UrbControlDescriptorRequest.TransferBufferLength);
        status = STATUS_DEVICE_DATA_ERROR;
    }
    if (NT_SUCCESS(status)) {
        ASSERT(deviceDescriptor->bNumConfigurations);
        ReplaceTagged(&m_pDeviceDescriptor, deviceDescriptor, kTagDeviceDescriptor);
        status = ConfigureUsbDevice();
    } else {
        ExFreePoolWithTag(deviceDescriptor, kTagDeviceDescriptor);
    }
    ExFreePoolWithTag(pUrb, kTagRequest);
    return status;
}

// The configuration descriptor, header first for wTotalLength, then whole;
// then SelectUsbInterfaces.
NTSTATUS UsbConfiguration::ConfigureUsbDevice()
{
    PURB pUrb = static_cast<PURB>(
        ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), kTagRequest));
    if (pUrb == nullptr) {
        DbgPrint("ConfigureUsbDevice: Failed to allocate memory for urb\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = STATUS_SUCCESS;
    PUSB_CONFIGURATION_DESCRIPTOR pConfiguration = nullptr;
    ULONG cbTotal = 0;

    // The nine-byte header, for wTotalLength.
    auto pHeader = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(
        ExAllocatePoolWithTag(NonPagedPoolNx, kConfigurationHeaderSize, kTagConfigurationDescriptor));
    if (pHeader == nullptr) {
        DbgPrint("ConfigureUsbDevice: Failed to allocate mem for config Descriptor\n");
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    if (NT_SUCCESS(status)) {
        RtlZeroMemory(pHeader, kConfigurationHeaderSize);
        BuildGetDescriptor(pUrb, USB_CONFIGURATION_DESCRIPTOR_TYPE, pHeader, kConfigurationHeaderSize);
        status = RequestStatus(SubmitUrb(pUrb), pUrb);
        if (!NT_SUCCESS(status)) {
            DbgPrint("ConfigureUsbDevice: UsbBuildGetDescriptorRequest failed\n");
        } else if (pUrb->UrbControlDescriptorRequest.TransferBufferLength < kConfigurationHeaderSize ||
                   pHeader->wTotalLength < kConfigurationHeaderSize) {
            DbgPrint("ConfigureUsbDevice: bad configuration descriptor header (%u bytes, wTotalLength %u)\n",
                     pUrb->UrbControlDescriptorRequest.TransferBufferLength, pHeader->wTotalLength);
            status = STATUS_DEVICE_DATA_ERROR;
        } else {
            cbTotal = pHeader->wTotalLength;
        }
        ExFreePoolWithTag(pHeader, kTagConfigurationDescriptor);
        pHeader = nullptr;
    }

    // The whole configuration descriptor.
    if (NT_SUCCESS(status)) {
        pConfiguration = static_cast<PUSB_CONFIGURATION_DESCRIPTOR>(
            ExAllocatePoolWithTag(NonPagedPoolNx, cbTotal, kTagConfigurationDescriptor));
        if (pConfiguration == nullptr) {
            DbgPrint("ConfigureUsbDevice: Failed to alloc mem for config Descriptor\n");
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    if (NT_SUCCESS(status)) {
        RtlZeroMemory(pConfiguration, cbTotal);
        BuildGetDescriptor(pUrb, USB_CONFIGURATION_DESCRIPTOR_TYPE, pConfiguration, cbTotal);
        status = RequestStatus(SubmitUrb(pUrb), pUrb);
        const ULONG cbReturned = pUrb->UrbControlDescriptorRequest.TransferBufferLength;
        if (!NT_SUCCESS(status)) {
            DbgPrint("ConfigureUsbDevice: Failed to read configuration descriptor\n");
        } else if (cbReturned < kConfigurationHeaderSize) {
            DbgPrint("ConfigureUsbDevice: configuration descriptor of %u bytes\n", cbReturned);
            status = STATUS_DEVICE_DATA_ERROR;
        } else if (cbReturned < pConfiguration->wTotalLength || pConfiguration->wTotalLength > cbTotal) {
            // Walks read wTotalLength bytes: never more than came, nor than we hold.
            const ULONG cbKept = cbReturned < cbTotal ? cbReturned : cbTotal;
            DbgPrint("ConfigureUsbDevice: configuration descriptor cut to %u of %u bytes\n", cbKept,
                     pConfiguration->wTotalLength);
            pConfiguration->wTotalLength = static_cast<USHORT>(cbKept);
        }
        if (!NT_SUCCESS(status)) {
            ExFreePoolWithTag(pConfiguration, kTagConfigurationDescriptor);
            pConfiguration = nullptr;
        }
    }

    if (NT_SUCCESS(status)) {
        ReplaceTagged(&m_pConfigurationDescriptor, pConfiguration, kTagConfigurationDescriptor);
        m_RemoteWakeup = (pConfiguration->bmAttributes & USB_CONFIG_REMOTE_WAKEUP) != 0 ? 1 : 0;
        status = SelectUsbInterfaces(pConfiguration);
    }
    ExFreePoolWithTag(pUrb, kTagRequest);
    return status;
}

// Selects the configuration with alternate setting 0 of every interface and
// keeps the first interface and its pipes.
NTSTATUS UsbConfiguration::SelectUsbInterfaces(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor)
{
    const ULONG nInterfaces = pConfigurationDescriptor->bNumInterfaces;
    const ULONG cbList = (nInterfaces + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY);
    auto pList = static_cast<PUSBD_INTERFACE_LIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPoolNx, cbList, kTagInterfaceList));
    if (pList == nullptr) {
        DbgPrint("SelectUsbInterfaces: Failed to allocate mem for interfaceList\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pList, cbList);

    // Interfaces 0, 1, 2, ... with alternate setting 0 until n are found; no
    // more than wTotalLength / 9 interface descriptors can be there.
    const ULONG nSearchLimit = pConfigurationDescriptor->wTotalLength / kConfigurationHeaderSize;
    ULONG nFound = 0;
    for (ULONG number = 0; nFound < nInterfaces && number < nSearchLimit && number <= 0xFF; number++) {
        PUSB_INTERFACE_DESCRIPTOR pInterface = USBD_ParseConfigurationDescriptorEx(
            pConfigurationDescriptor, pConfigurationDescriptor, static_cast<LONG>(number), 0, -1, -1, -1);
        if (pInterface != nullptr) {
            pList[nFound].InterfaceDescriptor = pInterface;
            nFound++;
        }
    }

    NTSTATUS status = STATUS_SUCCESS;
    PURB pUrb = USBD_CreateConfigurationRequestEx(pConfigurationDescriptor, pList);
    if (pUrb == nullptr) {
        DbgPrint("SelectUsbInterfaces: USBD_CreateConfigurationRequestEx failed\n");
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    PUSBD_INTERFACE_INFORMATION pInfo = pList[0].Interface;
    if (NT_SUCCESS(status) && pInfo != nullptr) {
        for (ULONG i = 0; i < pInfo->NumberOfPipes; i++) {
            pInfo->Pipes[i].MaximumTransferSize = kMaximumTransferSize;
        }
    }
    if (NT_SUCCESS(status)) {
        status = RequestStatus(SubmitUrb(pUrb), pUrb);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Failed to select an interface\n");
        }
    }
    if (NT_SUCCESS(status) && pInfo != nullptr) {
        status = KeepFirstInterface(pInfo, pUrb->UrbSelectConfiguration.ConfigurationHandle);
    }
    if (pUrb != nullptr) {
        ExFreePool(pUrb);
    }
    ExFreePoolWithTag(pList, kTagInterfaceList);
    return status;
}

// The copies of the first interface and its pipes, and the three pipe
// references.
NTSTATUS UsbConfiguration::KeepFirstInterface(PUSBD_INTERFACE_INFORMATION pInfo, USBD_CONFIGURATION_HANDLE hConfiguration)
{
    auto pInfoCopy =
        static_cast<PUSBD_INTERFACE_INFORMATION>(ExAllocatePoolWithTag(NonPagedPoolNx, pInfo->Length, kTagInterfaceList));
    if (pInfoCopy == nullptr) {
        DbgPrint("SelectUsbInterfaces: memory alloc for UsbInterface failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(pInfoCopy, pInfo, pInfo->Length);
    ReplaceTagged(&m_pInterfaceInformation, pInfoCopy, kTagInterfaceList);
    m_ConfigurationHandle = hConfiguration;

    // Room for the largest alternate setting (SelectAlternateInterface), even
    // when the first interface has no pipes: a camera without the optional
    // interrupt endpoint still streams through its alternate settings.
    ULONG nCapacity = LargestEndpointCount(m_pConfigurationDescriptor);
    if (nCapacity < pInfo->NumberOfPipes) {
        nCapacity = pInfo->NumberOfPipes;
    }
    if (nCapacity == 0) {
        return STATUS_SUCCESS;
    }
    auto pPipes = static_cast<PUSBD_PIPE_INFORMATION>(
        ExAllocatePoolWithTag(NonPagedPoolNx, nCapacity * kPipeInformationSize, kTagPipes));
    if (pPipes == nullptr) {
        DbgPrint("SelectUsbInterfaces: memory alloc for UsbInterface failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pPipes, nCapacity * kPipeInformationSize);
    ReplaceTagged(&m_pPipes, pPipes, kTagPipes);
    m_nPipeCapacity = nCapacity;
    m_IsoInPipe = nullptr;
    m_IsoOutPipe = nullptr;
    m_InterruptPipe = nullptr;
    for (ULONG i = 0; i < pInfo->NumberOfPipes; i++) {
        m_pPipes[i] = pInfo->Pipes[i];
        if (m_pPipes[i].PipeType != UsbdPipeTypeIsochronous) {
            m_InterruptPipe = &m_pPipes[i];
        } else if (USB_ENDPOINT_DIRECTION_OUT(m_pPipes[i].EndpointAddress)) {
            m_IsoOutPipe = &m_pPipes[i];
        } else {
            m_IsoInPipe = &m_pPipes[i];
        }
    }
    m_nPipes = pInfo->NumberOfPipes;
    return STATUS_SUCCESS;
}

NTSTATUS UsbConfiguration::SelectAlternateInterface(UCHAR InterfaceNumber, UCHAR AlternateSetting,
                                                  UCHAR InterfaceSubClass)
{
    if (m_pConfigurationDescriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    PUSB_INTERFACE_DESCRIPTOR pInterface =
        USBD_ParseConfigurationDescriptorEx(m_pConfigurationDescriptor, m_pConfigurationDescriptor, InterfaceNumber,
                                            AlternateSetting, -1, InterfaceSubClass, -1);
    if (pInterface == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG nEndpoints = pInterface->bNumEndpoints;
    // (e - 1) x 24 + 80 bytes: the URB with its e pipes (56 for e = 0).
    const ULONG cbUrb = nEndpoints * kPipeInformationSize + sizeof(struct _URB_SELECT_INTERFACE) - kPipeInformationSize;
    const ULONG cbInfo = GET_USBD_INTERFACE_SIZE(nEndpoints);
    PURB pUrb = static_cast<PURB>(ExAllocatePool(NonPagedPoolNx, cbUrb));
    if (pUrb == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto pInfo = static_cast<PUSBD_INTERFACE_INFORMATION>(ExAllocatePool(NonPagedPoolNx, cbInfo));
    if (pInfo == nullptr) {
        ExFreePool(pUrb);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pUrb, cbUrb);
    RtlZeroMemory(pInfo, cbInfo);
    pUrb->UrbHeader.Length = static_cast<USHORT>(cbUrb);
    pUrb->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;
    pUrb->UrbSelectInterface.ConfigurationHandle = m_ConfigurationHandle;
    PUSBD_INTERFACE_INFORMATION pRequest = &pUrb->UrbSelectInterface.Interface;
    pRequest->Length = static_cast<USHORT>(cbInfo);
    pRequest->InterfaceNumber = InterfaceNumber;
    pRequest->AlternateSetting = AlternateSetting;
    for (ULONG i = 0; i < nEndpoints; i++) {
        pRequest->Pipes[i].MaximumTransferSize = kMaximumTransferSize;
    }

    NTSTATUS status = RequestStatus(SubmitUrb(pUrb), pUrb);
    if (NT_SUCCESS(status)) {
        const ULONG cbReturned = pRequest->Length < cbInfo ? pRequest->Length : cbInfo;
        RtlCopyMemory(pInfo, pRequest, cbReturned);
        // The returned pipes, in order, over the pipe array from its start;
        // never more than the request had room for nor the array holds.
        ULONG nPipes = pRequest->NumberOfPipes;
        if (nPipes > nEndpoints) {
            nPipes = nEndpoints;
        }
        if (nPipes > m_nPipeCapacity) {
            nPipes = m_nPipeCapacity;
        }
        for (ULONG i = 0; i < nPipes; i++) {
            m_pPipes[i] = pRequest->Pipes[i];
        }
    }
    ExFreePool(pInfo);
    ExFreePool(pUrb);
    return status;
}

NTSTATUS UsbConfiguration::DeconfigureUsbDevice()
{
    constexpr ULONG cbUrb = sizeof(struct _URB_SELECT_CONFIGURATION);  // 88
    PURB pUrb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPoolNx, cbUrb, kTagSelectConfiguration));
    if (pUrb == nullptr) {
        DbgPrint("DeconfigureUsbDevice: Failed to allocate urb\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pUrb, cbUrb);
    UsbBuildSelectConfigurationRequest(pUrb, static_cast<USHORT>(cbUrb), nullptr);
    NTSTATUS status = RequestStatus(SubmitUrb(pUrb), pUrb);
    if (!NT_SUCCESS(status)) {
        // The message's "%08.8x" is kept as tools that read the debug log
        // know it; its '0' flag is redundant with the precision, which is
        // all GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
        DbgPrint("DeconfigureUsbDevice: Failed to deconfigure device %08.8x\n", static_cast<ULONG>(status));
#pragma GCC diagnostic pop
    }
    ExFreePoolWithTag(pUrb, kTagSelectConfiguration);
    return status;
}

// The buffer is allocated before the IRP is built (see the file's head) and
// freed again when the query fails.
NTSTATUS UsbConfiguration::GetBusInterface()
{
    constexpr ULONG cbInterface = sizeof(USB_BUS_INTERFACE_USBDI_V1);  // 72
    auto pInterface = static_cast<PUSB_BUS_INTERFACE_USBDI_V1>(
        ExAllocatePoolWithTag(NonPagedPoolNx, cbInterface, kTagBusInterface));
    if (pInterface == nullptr) {
        DbgPrint("[CCaptureDevice::GetBusInterface] Failded to allocate memory \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pInterface, cbInterface);

    KEVENT event;
    IO_STATUS_BLOCK ioStatus;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP pIrp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, m_pNextDeviceObject, nullptr, 0, nullptr, &event, &ioStatus);
    if (pIrp == nullptr) {
        DbgPrint("[CCaptureDevice::GetBusInterface] failed IoBuildSynchronousFsdRequest()\n");
        ExFreePoolWithTag(pInterface, kTagBusInterface);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // PnP IRPs start as "not supported" so that a driver that does not
    // handle them passes that on (learn.microsoft.com, "Sending PnP IRPs").
    pIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoSetCompletionRoutine(pIrp, BusInterfaceQueryCompleted, &event, TRUE, TRUE, TRUE);
    PIO_STACK_LOCATION pNextStack = IoGetNextIrpStackLocation(pIrp);
    ASSERT(pNextStack != NULL);
    pNextStack->MajorFunction = IRP_MJ_PNP;
    pNextStack->MinorFunction = IRP_MN_QUERY_INTERFACE;
    pNextStack->Parameters.QueryInterface.InterfaceType = &kUsbBusInterfaceUsbdiGuid;
    pNextStack->Parameters.QueryInterface.Size = static_cast<USHORT>(cbInterface);
    pNextStack->Parameters.QueryInterface.Version = USB_BUSIF_USBDI_VERSION_1;
    pNextStack->Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(pInterface);
    pNextStack->Parameters.QueryInterface.InterfaceSpecificData = nullptr;

    NTSTATUS status = IoCallDriver(m_pNextDeviceObject, pIrp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    status = pIrp->IoStatus.Status;
    if (!NT_SUCCESS(status)) {
        DbgPrint("[CCaptureDevice::GetBusInterface] failed to retrieve version 1 of bus interface (0x%08x)\n",
                 static_cast<ULONG>(status));
        ExFreePoolWithTag(pInterface, kTagBusInterface);
    } else {
        ReplaceBusInterface(pInterface);
    }
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

// Keeps a queried bus interface, giving back the reference of one kept before.
void UsbConfiguration::ReplaceBusInterface(PUSB_BUS_INTERFACE_USBDI_V1 pInterface)
{
    if (m_pBusInterface != nullptr) {
        if (m_pBusInterface->InterfaceDereference != nullptr) {
            m_pBusInterface->InterfaceDereference(m_pBusInterface->BusContext);
        }
        ExFreePoolWithTag(m_pBusInterface, kTagBusInterface);
    }
    m_pBusInterface = pInterface;
}

NTSTATUS UsbConfiguration::InitDeviceSpeed()
{
    if (m_pBusInterface == nullptr) {
        DbgPrint("[CCaptureDevice::InitDeviceSpeed] Device have no interface V1\n");
        m_HighSpeed = 0;
    } else if (m_pBusInterface->IsDeviceHighSpeed == nullptr) {
        m_HighSpeed = 0;
    } else {
        m_HighSpeed = m_pBusInterface->IsDeviceHighSpeed(m_pBusInterface->BusContext) ? 1 : 0;
    }
    if (m_HighSpeed) {
        DbgPrint("[CCaptureDevice::InitDeviceSpeed] Device is operating at high speed\n");
        m_SpeedPacketCount = kPacketsPerTransferHighSpeed;
    } else {
        DbgPrint("[CCaptureDevice::InitDeviceSpeed] Device is operating at full speed\n");
        m_SpeedPacketCount = kPacketsPerTransferFullSpeed;
    }
    return STATUS_SUCCESS;
}
