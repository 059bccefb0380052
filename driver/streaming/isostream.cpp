// The isochronous transfer engine and payload reassembly.
//
// Choices worth knowing:
//  - Payload is copied with RtlCopyMemory rather than byte by byte; what the
//    frame loop sees is the same.
//  - The ready side of a frame's verdict is kept in the descriptor's
//    ReadyBad (see FrameBuffer), so that a bad frame is counted as dropped
//    although the descriptor is at once the next frame's.
//  - A request that the bus fails before IoCallDriver returns is not
//    resubmitted, so that a halted pipe cannot recurse without end.
//  - The transfer object, its URB and data buffer, the collection and ready
//    buffers and the list heads carry tags of their own ("KVto", "KVur",
//    "KVdb", "KVfb", "KVls"), so that a leak names its owner; the stream
//    object is an untagged block.
#include "streaming/isostream.h"

#include "device/device.h"
#include "imaging/panzoom.h"
#include "pooltag.h"
#include "uvc.h"

using namespace kv;

namespace {

// The accumulated payload of the frame being collected: one counter for
// every device the driver serves.
ULONG g_AccumulatedFrameSize = 0;

constexpr ULONG kTransferObjectSize = sizeof(TransferObject);
// The URB block is twice what the request needs; the request uses the
// first 152 + 12 x packets bytes of its 304 + 24 x packets.
constexpr ULONG UrbAllocationSize(ULONG Packets) { return 304 + 24 * Packets; }
constexpr ULONG UrbRequestSize(ULONG Packets) { return 152 + 12 * Packets; }
// The request's size is GET_ISO_URB_SIZE's: the structure (one packet
// included) and 12 bytes a packet.
static_assert(UrbRequestSize(0) == sizeof(_URB_ISOCH_TRANSFER), "the isochronous request starts at 152 bytes");
static_assert(sizeof(USBD_ISO_PACKET_DESCRIPTOR) == 12, "an isochronous packet descriptor is 12 bytes");
// Pan and zoom runs on frames up to this width.
constexpr ULONG kPanZoomMaxWidth = 1280;
constexpr LONG kFrameSemaphoreLimit = 0x7fffffff;
// Stop waits 3 s for the frame thread (then on, saying so, rather than free
// what it uses) and 5 s for the transfers.
constexpr LONGLONG kThreadExitWait = -30000000LL;
constexpr LONGLONG kPendingIrpWait = -50000000LL;
// The first two non-empty packets after start poison their frame.
constexpr ULONG kStartupPackets = 2;
// The settings record's slot that carries the stream's width.
constexpr ULONG kSlotStreamWidth = 30;
constexpr ULONG kStopFlagStopping = 1;

bool DeviceGone(NTSTATUS Status)
{
    return Status == STATUS_CANCELLED || Status == STATUS_DEVICE_NOT_CONNECTED || Status == STATUS_DELETE_PENDING ||
           Status == STATUS_NO_SUCH_DEVICE;
}

PVOID AllocateZeroed(SIZE_T Size, ULONG Tag)
{
    PVOID p = ExAllocatePoolWithTag(NonPagedPool, Size, Tag);
    if (p != nullptr) {
        RtlZeroMemory(p, Size);
    }
    return p;
}

template <typename T>
void FreeUntagged(T*& p)
{
    if (p != nullptr) {
        ExFreePool(p);
        p = nullptr;
    }
}

}  // namespace

IsoStream::IsoStream()
    : m_streamObject(nullptr),
      m_pFrameBuffer(nullptr),
      m_pCollectBuffer(nullptr),
      m_pReadyBuffer(nullptr),
      m_ReadySize(0),
      m_pWorkBufferA(nullptr),
      m_pWorkBufferB(nullptr),
      m_pPanZoomWork(nullptr),
      m_pReadyList(nullptr),
      m_pReadyLock(nullptr),
      m_pFreeList(nullptr),
      m_pFreeLock(nullptr),
      m_pCurrentFrame(nullptr),
      m_FrameSpinLock(0),
      m_FrameSemaphore(),
      m_ThreadExitEvent(),
      m_Streaming(0),
      m_StopThread(0),
      m_StopFlags(0),
      m_Width(0),
      m_Height(0),
      m_Width2(0),
      m_Width3(0),
      m_ExpectedFrameSize(0),
      m_Compression(0),
      m_OutputCompression(0),
      m_ImageSize(0),
      m_Uncompressed(1),
      m_AfterEndOfFrame(0),
      m_StartupPackets(0),
      m_PtsPresent(0),
      m_ScrPresent(0),
      m_TransfersInFlight(TRANSFERS_UNCOMPRESSED),
      m_PacketsPerTransfer(0),
      m_pDevice(nullptr)
{
}

void IsoStream::Attach(CCaptureDevice* pDevice)
{
    m_pDevice = pDevice;
    KeInitializeSpinLock(&m_FrameSpinLock);
    KeInitializeSemaphore(&m_FrameSemaphore, 0, kFrameSemaphoreLimit);
    KeInitializeEvent(&m_ThreadExitEvent, NotificationEvent, FALSE);
}

// ---- start ---------------------------------------------------------------------------------

NTSTATUS IsoStream::IsoUsb_StartIsoStream(PKS_VIDEOINFOHEADER pFormat, ULONG OutputCompression)
{
    m_pDevice->m_FrameLoop.ResetCounters();
    m_Streaming = 1;
    m_StopFlags = 0;
    m_OutputCompression = OutputCompression;
    m_PacketsPerTransfer = m_pDevice->m_Usb.m_SpeedPacketCount;

    SIZE_T cbStream = FIELD_OFFSET(StreamObject, TransferObjectList) + sizeof(TransferObject*) * MAX_TRANSFERS_IN_FLIGHT;
    m_streamObject = static_cast<StreamObject*>(ExAllocatePool(NonPagedPool, cbStream));
    if (m_streamObject == nullptr) {
        DbgPrint("failed to alloc mem for streamObject\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(m_streamObject, cbStream);
    m_streamObject->Stopping = 0;

    PUSBD_PIPE_INFORMATION pPipe = nullptr;
    for (ULONG i = 0; i < m_pDevice->m_Usb.m_nPipes; ++i) {
        if (m_pDevice->m_Usb.m_pPipes[i].PipeType == UsbdPipeTypeIsochronous) {
            pPipe = &m_pDevice->m_Usb.m_pPipes[i];
            break;
        }
    }
    if (pPipe == nullptr) {
        DbgPrint("IsoUsb_StartTransfer: no isochronous pipe\n");
        FreeUntagged(m_streamObject);
        return STATUS_INVALID_PARAMETER;
    }

    m_streamObject->pDevice = m_pDevice;
    m_pDevice->m_FrameLoop.m_SkipCounter = 0;
    m_Compression = pFormat->bmiHeader.biCompression;
    m_Height = static_cast<ULONG>(pFormat->bmiHeader.biHeight < 0 ? -pFormat->bmiHeader.biHeight
                                                                   : pFormat->bmiHeader.biHeight);
    m_Width = static_cast<ULONG>(pFormat->bmiHeader.biWidth);
    m_Width2 = m_Width * 2;
    m_Width3 = m_Width * 3;
    m_AfterEndOfFrame = 0;
    m_StopThread = 0;
    if (m_pDevice->m_Settings.m_Property != nullptr) {
        m_pDevice->m_Settings.m_Property->Slot[kSlotStreamWidth] = static_cast<LONG>(m_Width);
    }

    m_pDevice->m_Settings.LoadPropertySet(PropertySetLast);

    m_ExpectedFrameSize = m_Width * m_Height * 2;
    m_StartupPackets = 0;
    m_ImageSize = pFormat->bmiHeader.biSizeImage;

    NTSTATUS status = AllocateStreamBuffers();
    if (!NT_SUCCESS(status)) {
        return status;
    }

    ResetPipe(pPipe->PipeHandle, RESET_PIPE_AND_CLEAR_STALL);
    m_streamObject->pPipeInformation = pPipe;
    KeInitializeEvent(&m_streamObject->NoPendingIrpEvent, NotificationEvent, FALSE);
    // The stream's own count, given up by stop: the count reaches 0, and the
    // event is set, only once stop waits and the last request is back.
    m_streamObject->PendingIrpCount = 1;

    status = AllocateLists();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_pCurrentFrame = nullptr;

    for (ULONG i = 0; i < m_TransfersInFlight; ++i) {
        status = CreateTransfer(i);
        if (!NT_SUCCESS(status)) {
            DbgPrint("IsoUsb_StartTransfer [%d] - failed\n", i);
            if (status == STATUS_INSUFFICIENT_RESOURCES) {
                ASSERT(m_streamObject->TransferObjectList[i] == NULL);
            }
        }
    }
    return status;
}

// The frame descriptor, the pan-and-zoom area, the work buffers, and the
// ready and collection buffers.
NTSTATUS IsoStream::AllocateStreamBuffers()
{
    m_pFrameBuffer = static_cast<FrameBuffer*>(AllocateZeroed(sizeof(FrameBuffer), kTagFrameDescriptor));
    if (m_pFrameBuffer == nullptr) {
        DbgPrint("IsoUsb_StartTransfer: failed to alloc frame descriptor\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG pixels = m_Width * m_Height;
    if (m_Width <= kPanZoomMaxWidth) {
        m_pPanZoomWork = static_cast<PUCHAR>(
            ExAllocatePoolWithTag(NonPagedPool, PanZoomWorkAreaSize(m_Width, m_Height), kTagWork));
        if (m_pPanZoomWork == nullptr || !NT_SUCCESS(PanZoomStart(m_pPanZoomWork, m_Width, m_Height))) {
            DbgPrint("IsoUsb_StartTransfer: failed to alloc pan and zoom area\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    m_pFrameBuffer->Capacity = pixels * 2;
    const bool workBuffers = m_Uncompressed == 0 || m_OutputCompression == kFourccYuy2 || m_OutputCompression == 0;
    if (workBuffers) {
        m_pWorkBufferA = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, pixels * 3, kTagWork));
        m_pWorkBufferB = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, pixels * 3, kTagWork));
        if (m_pWorkBufferA == nullptr || m_pWorkBufferB == nullptr) {
            DbgPrint("IsoUsb_StartTransfer: failed to alloc work buffers\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    m_pReadyBuffer = static_cast<PUCHAR>(AllocateZeroed(m_pFrameBuffer->Capacity, kTagFrameData));
    m_pCollectBuffer = static_cast<PUCHAR>(AllocateZeroed(m_pFrameBuffer->Capacity, kTagFrameData));
    if (m_pReadyBuffer == nullptr || m_pCollectBuffer == nullptr) {
        DbgPrint("IsoUsb_StartTransfer: failed to alloc frame buffers\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// Each list head (16 bytes) and each lock (8 bytes) a block of its own.
NTSTATUS IsoStream::AllocateLists()
{
    m_pReadyList = static_cast<PLIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPool, sizeof(LIST_ENTRY), kTagLists));
    m_pReadyLock = static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KSPIN_LOCK), kTagLists));
    m_pFreeList = static_cast<PLIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPool, sizeof(LIST_ENTRY), kTagLists));
    m_pFreeLock = static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KSPIN_LOCK), kTagLists));
    if (m_pReadyList == nullptr || m_pReadyLock == nullptr || m_pFreeList == nullptr || m_pFreeLock == nullptr) {
        DbgPrint("IsoUsb_StartTransfer: failed to alloc frame lists\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    InitializeListHead(m_pReadyList);
    KeInitializeSpinLock(m_pReadyLock);
    InitializeListHead(m_pFreeList);
    KeInitializeSpinLock(m_pFreeLock);
    return STATUS_SUCCESS;
}

NTSTATUS IsoStream::CreateTransfer(ULONG Index)
{
    const ULONG packets = m_PacketsPerTransfer;
    const ULONG maxPacket = m_streamObject->pPipeInformation->MaximumPacketSize;
    PDEVICE_OBJECT pNext = m_pDevice->m_pNextDeviceObject;
    auto* pTransfer = static_cast<TransferObject*>(AllocateZeroed(kTransferObjectSize, kTagTransfer));
    if (pTransfer == nullptr) {
        DbgPrint("failed to alloc mem for transferObject\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pTransfer->pIrp = IoAllocateIrp(static_cast<CCHAR>(pNext->StackSize + 1), FALSE);
    if (pTransfer->pIrp == nullptr) {
        DbgPrint("failed to alloc mem for irp\n");
        FreeTransfer(pTransfer);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pTransfer->pDataBuffer =
        static_cast<PUCHAR>(AllocateZeroed(static_cast<SIZE_T>(packets) * maxPacket * 2, kTagTransferData));
    if (pTransfer->pDataBuffer == nullptr) {
        DbgPrint("failed to alloc mem for DataBuffer\n");
        FreeTransfer(pTransfer);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pTransfer->pUrb = static_cast<PURB>(AllocateZeroed(UrbAllocationSize(packets), kTagUrb));
    if (pTransfer->pUrb == nullptr) {
        DbgPrint("failed to alloc mem for Urb\n");
        FreeTransfer(pTransfer);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pTransfer->pStream = m_streamObject;
    pTransfer->pDevice = m_pDevice;

    FrameBuffer* pFrame = m_pFrameBuffer;
    m_streamObject->pFrame = pFrame;
    pFrame->WriteOffset = 0;
    pFrame->PayloadPackets = 0;
    pFrame->BytesReceived = 0;
    pFrame->Bad = 0;
    pFrame->Capacity = m_Width * m_Height * 2;
    // Every transfer inserts the one descriptor: from the second insertion
    // on, the entry links to itself and the free list never runs empty.
    ExInterlockedInsertTailList(m_pFreeList, &pFrame->ListEntry, m_pFreeLock);

    pTransfer->FrameSize = pFrame->Capacity;
    BuildUrb(pTransfer, TRUE);
    m_streamObject->NextStartFrame += packets;
    m_streamObject->TransferObjectList[Index] = pTransfer;
    InterlockedIncrement(&m_streamObject->PendingIrpCount);
    return SubmitTransfer(pTransfer);
}

void IsoStream::BuildUrb(TransferObject* pTransfer, BOOLEAN Asap)
{
    const ULONG packets = m_PacketsPerTransfer;
    const ULONG maxPacket = m_streamObject->pPipeInformation->MaximumPacketSize;
    // Completions on two processors may build at once: the shared
    // descriptor's two fields are written interlocked.
    InterlockedExchange(reinterpret_cast<volatile LONG*>(&m_pFrameBuffer->Signature),
                        static_cast<LONG>(FRAME_BUFFER_SIGNATURE));
    InterlockedExchange64(reinterpret_cast<volatile LONG64*>(&m_pFrameBuffer->Trailer), 0);

    auto& iso = pTransfer->pUrb->UrbIsochronousTransfer;
    RtlZeroMemory(&iso, UrbRequestSize(packets));
    iso.Hdr.Length = static_cast<USHORT>(UrbRequestSize(packets));
    iso.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER;
    iso.PipeHandle = m_streamObject->pPipeInformation->PipeHandle;
    iso.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    if (Asap) {
        iso.TransferFlags |= USBD_START_ISO_TRANSFER_ASAP;
    }
    iso.TransferBuffer = pTransfer->pDataBuffer;
    iso.TransferBufferMDL = nullptr;
    iso.TransferBufferLength = packets * maxPacket;
    // With ASAP the bus driver ignores the start frame.
    iso.StartFrame = Asap ? m_streamObject->NextStartFrame * 4 : m_streamObject->NextStartFrame;
    iso.NumberOfPackets = packets;
    iso.ErrorCount = 0;
    for (ULONG i = 0; i < packets; ++i) {
        iso.IsoPacket[i].Offset = i * maxPacket;
    }
}

NTSTATUS IsoStream::SubmitTransfer(TransferObject* pTransfer)
{
    PIRP pIrp = pTransfer->pIrp;
    PIO_STACK_LOCATION pNextStack = IoGetNextIrpStackLocation(pIrp);
    ASSERT(pNextStack != NULL);
    pNextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNextStack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    pNextStack->Parameters.Others.Argument1 = pTransfer->pUrb;
    IoSetCompletionRoutine(pIrp, TransferCompletion, pTransfer, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(m_pDevice->m_pNextDeviceObject, pIrp);
    return NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

// ---- completion ----------------------------------------------------------------------------

NTSTATUS IsoStream::TransferCompletion(PDEVICE_OBJECT pDeviceObject, PIRP pIrp, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pTransfer = static_cast<TransferObject*>(pContext);
    StreamObject* pStream = pTransfer->pStream;
    IsoStream& stream = pTransfer->pDevice->m_Stream;
    // A request the bus failed at once (a halted pipe) would fail again
    // inside the resubmission, each time one call deeper: it is not
    // resubmitted.
    const bool failedAtOnce = !pIrp->PendingReturned && USBD_ERROR(pTransfer->pUrb->UrbHeader.Status);
    if (InterlockedCompareExchange(&pStream->Stopping, 0, 0) == 0 && !failedAtOnce) {
        NTSTATUS status = stream.ProcessRequest(pTransfer);
        if (!DeviceGone(status)) {
            stream.BuildUrb(pTransfer, TRUE);
            InterlockedExchange8(reinterpret_cast<volatile CHAR*>(&pIrp->Cancel), FALSE);
            pTransfer->Resubmissions++;
            // The resubmitted request keeps the completed one's place in the
            // pending count, so that the count never passes 0 while the
            // request is still on its way. A request that fails has been
            // completed, and its own completion settled the count.
            stream.SubmitTransfer(pTransfer);
            return STATUS_MORE_PROCESSING_REQUIRED;
        }
    }
    // Not resubmitted: the IRP stays with the transfer for the stop path to
    // free, since that path may be cancelling it right now. Nothing of the
    // stream is touched after the count reaches 0: stop frees it then.
    if (InterlockedDecrement(&pStream->PendingIrpCount) == 0) {
        KeSetEvent(&pStream->NoPendingIrpEvent, IO_NO_INCREMENT, FALSE);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS IsoStream::ProcessRequest(TransferObject* pTransfer)
{
    PURB pUrb = pTransfer->pUrb;
    NTSTATUS status = pTransfer->pIrp != nullptr ? pTransfer->pIrp->IoStatus.Status : STATUS_SUCCESS;
    if (USBD_ERROR(pUrb->UrbHeader.Status)) {
        return status;
    }
    const auto& iso = pUrb->UrbIsochronousTransfer;
    KIRQL oldIrql = DISPATCH_LEVEL;
    const bool atDpc = KeGetCurrentIrql() >= DISPATCH_LEVEL;
    if (atDpc) {
        KeAcquireSpinLockAtDpcLevel(&m_FrameSpinLock);
    } else {
        KeAcquireSpinLock(&m_FrameSpinLock, &oldIrql);
    }
    BOOLEAN frameError = FALSE;
    StreamObject* pStream = pTransfer->pStream;
    const ULONG packets = iso.NumberOfPackets;
    for (ULONG i = 0; i < packets; ++i) {
        const USBD_ISO_PACKET_DESCRIPTOR& packet = iso.IsoPacket[i];
        pTransfer->PacketsSeen++;
        if (USBD_ERROR(packet.Status)) {
            pTransfer->BadPackets++;
        }
        pStream->EndOfFrameSeen = 0;
        pStream->HeaderLength = 0;
        pStream->PacketFlags = 0;
        const UCHAR* pData = pTransfer->pDataBuffer + packet.Offset;
        ULONG payload = ParsePacket(&packet, pData, &g_AccumulatedFrameSize);
        if ((pStream->PacketFlags & PACKET_BAD) != 0) {
            frameError = TRUE;
        }
        const UCHAR* pPayload = pData + pStream->HeaderLength;
        if (pStream->EndOfFrameSeen == 0) {
            Append(pPayload, payload);
            continue;
        }
        if (EndFrame(pTransfer, frameError)) {
            frameError = FALSE;
        }
        Append(pPayload, payload);
    }
    if (atDpc) {
        KeReleaseSpinLockFromDpcLevel(&m_FrameSpinLock);
    } else {
        KeReleaseSpinLock(&m_FrameSpinLock, oldIrql);
    }
    if (packets > 0 && USBD_ERROR(iso.IsoPacket[packets - 1].Status)) {
        pTransfer->BadPackets++;
    }
    return status;
}

// Appends payload to the frame being collected when it fits; otherwise the
// bytes are dropped.
void IsoStream::Append(const UCHAR* pData, ULONG Length)
{
    FrameBuffer* pFrame = m_pCurrentFrame;
    if (pFrame == nullptr || Length == 0 || pFrame->WriteOffset + Length > pFrame->Capacity) {
        return;
    }
    RtlCopyMemory(m_pCollectBuffer + pFrame->WriteOffset, pData, Length);
    pFrame->PayloadPackets++;
    pFrame->BytesReceived += Length;
    pFrame->WriteOffset += Length;
}

// A header-only end of frame: the frame goes to the ready list (copied to
// the ready buffer when good) and collection starts again on the free
// list's head.
bool IsoStream::EndFrame(TransferObject* pTransfer, BOOLEAN FrameError)
{
    FrameBuffer* pFrame = m_pCurrentFrame;
    const bool ended = pFrame != nullptr;
    if (ended) {
        if (FrameError) {
            pFrame->Bad = 1;
        }
        if (pFrame->Bad == 0) {
            RtlCopyMemory(m_pReadyBuffer, m_pCollectBuffer, pTransfer->FrameSize);
            m_ReadySize = pTransfer->FrameSize;
        }
        InterlockedExchange(&pFrame->ReadyBad, pFrame->Bad);
        ExInterlockedInsertTailList(m_pReadyList, &pFrame->ListEntry, m_pReadyLock);
        KeReleaseSemaphore(&m_FrameSemaphore, IO_NO_INCREMENT, 1, FALSE);
        ExInterlockedInsertTailList(m_pFreeList, &m_streamObject->pFrame->ListEntry, m_pFreeLock);
    }
    PLIST_ENTRY pEntry = ExInterlockedRemoveHeadList(m_pFreeList, m_pFreeLock);
    if (pEntry == nullptr) {
        m_pCurrentFrame = nullptr;
        return ended;
    }
    pFrame = CONTAINING_RECORD(pEntry, FrameBuffer, ListEntry);
    m_pCurrentFrame = pFrame;
    pFrame->WriteOffset = 0;
    pFrame->PayloadPackets = 0;
    pFrame->BytesReceived = 0;
    pFrame->Bad = 0;
    pFrame->Capacity = pTransfer->FrameSize;
    pFrame->Capacity2 = pTransfer->FrameSize;
    return ended;
}

ULONG IsoStream::ParsePacket(const USBD_ISO_PACKET_DESCRIPTOR* pPacket, const UCHAR* pData, PULONG pAccumulated)
{
    StreamObject* pStream = m_streamObject;
    pStream->HeaderLength = 0;
    pStream->PacketFlags = 0;
    const ULONG length = pPacket->Length;
    if (length == 0) {
        return 0;
    }
    const bool error = USBD_ERROR(pPacket->Status);
    if (m_StartupPackets < kStartupPackets) {
        pStream->PacketFlags |= PACKET_BAD;
        m_StartupPackets++;
    }
    const bool header = pData[0] == UVC_PAYLOAD_HEADER_LENGTH;
    auto bad = [&]() -> ULONG {
        pStream->PacketFlags |= PACKET_BAD;
        *pAccumulated = 0;
        return 0;
    };
    // End of frame: a header with the end-of-frame bit and no data.
    if (header && length == UVC_PAYLOAD_HEADER_LENGTH && (pData[1] & UVC_STREAM_EOF) != 0) {
        m_ScrPresent = (pData[1] & UVC_STREAM_SCR) != 0 ? 1 : 0;
        m_PtsPresent = (pData[1] & UVC_STREAM_PTS) != 0 ? 1 : 0;
        pStream->HeaderLength = UVC_PAYLOAD_HEADER_LENGTH;
        pStream->EndOfFrameSeen = 1;
        m_AfterEndOfFrame = 1;
        if (m_Uncompressed != 0 && *pAccumulated != m_ExpectedFrameSize) {
            pStream->PacketFlags |= PACKET_BAD;
        }
        *pAccumulated = 0;
        if (error) {
            pStream->PacketFlags |= PACKET_BAD;
        }
        return 0;
    }
    if (!header) {
        *pAccumulated += length;
        return error ? bad() : length;
    }
    if (length <= UVC_PAYLOAD_HEADER_LENGTH) {
        return bad();
    }
    const ULONG payload = length - UVC_PAYLOAD_HEADER_LENGTH;
    pStream->HeaderLength = UVC_PAYLOAD_HEADER_LENGTH;
    *pAccumulated += payload;
    if (m_AfterEndOfFrame != 0) {
        // The first data after an end of frame is taken without a size check.
        m_AfterEndOfFrame = 0;
        return error ? bad() : payload;
    }
    const ULONG limit = m_Uncompressed != 0 ? m_ExpectedFrameSize : m_ExpectedFrameSize - 1;
    if (*pAccumulated > limit) {
        return bad();
    }
    return error ? bad() : payload;
}

// The one descriptor is linked into both lists, so the removal from the
// ready list also holds the free list's lock: otherwise the completion's
// insertion into the free list and this removal would write the same links
// at once, and the ready list could end up pointing at the free list's head.
FrameBuffer* IsoStream::TakeReadyFrame()
{
    KIRQL oldIrql;
    KeAcquireSpinLock(m_pFreeLock, &oldIrql);
    PLIST_ENTRY pEntry = ExInterlockedRemoveHeadList(m_pReadyList, m_pReadyLock);
    KeReleaseSpinLock(m_pFreeLock, oldIrql);
    return pEntry != nullptr ? CONTAINING_RECORD(pEntry, FrameBuffer, ListEntry) : nullptr;
}

// ---- reset pipe ------------------------------------------------------------------------------

NTSTATUS IsoStream::ResetPipe(USBD_PIPE_HANDLE hPipe, UCHAR Kind)
{
    if (m_streamObject->pResetWorkItem == nullptr) {
        m_streamObject->pResetWorkItem = IoAllocateWorkItem(m_pDevice->m_pFunctionalDeviceObject);
        if (m_streamObject->pResetWorkItem == nullptr) {
            DbgPrint("failed to alloc Reset Pipe work item \n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    m_streamObject->ResetKind = Kind;
    m_streamObject->ResetPipeHandle = hPipe;
    IoQueueWorkItem(m_streamObject->pResetWorkItem, ResetPipeWorkRoutine, DelayedWorkQueue, m_streamObject);
    return STATUS_SUCCESS;
}

VOID IsoStream::ResetPipeWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pStream = static_cast<StreamObject*>(pContext);
    auto* pUrb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, sizeof(_URB_PIPE_REQUEST), kTagRequest));
    if (pUrb != nullptr) {
        RtlZeroMemory(pUrb, sizeof(_URB_PIPE_REQUEST));
        pUrb->UrbHeader.Length = sizeof(_URB_PIPE_REQUEST);
        pUrb->UrbHeader.Function = pStream->ResetKind == RESET_PIPE_AND_CLEAR_STALL
                                       ? URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL
                                       : URB_FUNCTION_ABORT_PIPE;
        pUrb->UrbPipeRequest.PipeHandle = pStream->ResetPipeHandle;
        pStream->pDevice->m_Usb.SubmitUrb(pUrb);
        ExFreePoolWithTag(pUrb, kTagRequest);
    }
    PIO_WORKITEM pWorkItem = pStream->pResetWorkItem;
    pStream->pResetWorkItem = nullptr;
    IoFreeWorkItem(pWorkItem);
}

// ---- stop ----------------------------------------------------------------------------------

NTSTATUS IsoStream::IsoUsb_StopIsoStream(UCHAR StopValue)
{
    m_StopThread = StopValue;
    m_StopFlags |= kStopFlagStopping;
    if (m_streamObject != nullptr) {
        InterlockedExchange(&m_streamObject->Stopping, StopValue);
    }
    // Stop may come from the state change and from the pin's sleep at once.
    if (InterlockedExchange(&m_Streaming, 0) == 0) {
        return STATUS_SUCCESS;
    }
    m_pDevice->m_Settings.SavePropertySet(PropertySetLast);

    KeReleaseSemaphore(&m_FrameSemaphore, IO_NO_INCREMENT, 1, TRUE);
    LARGE_INTEGER timeout;
    timeout.QuadPart = kThreadExitWait;
    if (KeWaitForSingleObject(&m_ThreadExitEvent, Executive, KernelMode, FALSE, &timeout) == STATUS_TIMEOUT) {
        // The thread is still inside a frame (a picture file on a slow
        // disk, say) and uses the buffers freed below: freeing them now
        // would be a use after free, so the wait goes on until it leaves.
        DbgPrint("IsoUsb_StopIsoStream: the frame thread is late\n");
        KeWaitForSingleObject(&m_ThreadExitEvent, Executive, KernelMode, FALSE, nullptr);
    }
    KeInitializeSemaphore(&m_FrameSemaphore, 0, kFrameSemaphoreLimit);
    ReleaseStream();
    return STATUS_SUCCESS;
}

// Cancels the transfers, waits for them (5 s at most) and frees everything.
void IsoStream::ReleaseStream()
{
    StreamObject* pStream = m_streamObject;
    if (pStream != nullptr) {
        for (ULONG i = 0; i < MAX_TRANSFERS_IN_FLIGHT; ++i) {
            TransferObject* pTransfer = pStream->TransferObjectList[i];
            if (pTransfer != nullptr && pTransfer->pIrp != nullptr) {
                IoCancelIrp(pTransfer->pIrp);
                InterlockedExchange(&pTransfer->Cancelled, 1);
            }
        }
        if (InterlockedDecrement(&pStream->PendingIrpCount) != 0) {
            LARGE_INTEGER timeout;
            timeout.QuadPart = kPendingIrpWait;
            NTSTATUS status =
                KeWaitForSingleObject(&pStream->NoPendingIrpEvent, Executive, KernelMode, FALSE, &timeout);
            if (status == STATUS_TIMEOUT) {
                DbgPrint("Kvdrv.sys : !!! There is Irp havn't be completed. NoPendingIrpEvent [Time out][Pending "
                         "Irps %d] \n",
                         InterlockedCompareExchange(&pStream->PendingIrpCount, 0, 0));
                // The bus still holds requests that will complete into the
                // stream object and the transfers: those stay allocated.
                m_streamObject = nullptr;
                FreeBuffers();
                return;
            }
        }
        // A reset still queued runs before its stream object goes.
        while (pStream->pResetWorkItem != nullptr) {
            LARGE_INTEGER poll;
            poll.QuadPart = -10000LL;
            KeDelayExecutionThread(KernelMode, FALSE, &poll);
        }
        for (ULONG i = 0; i < MAX_TRANSFERS_IN_FLIGHT; ++i) {
            FreeTransfer(pStream->TransferObjectList[i]);
        }
        FreeUntagged(m_streamObject);
    }
    FreeBuffers();
}

void IsoStream::FreeTransfer(TransferObject*& pTransfer)
{
    if (pTransfer == nullptr) {
        return;
    }
    if (pTransfer->pIrp != nullptr) {
        IoFreeIrp(pTransfer->pIrp);
        pTransfer->pIrp = nullptr;
    }
    FreeTagged(pTransfer->pUrb, kTagUrb);
    FreeTagged(pTransfer->pDataBuffer, kTagTransferData);
    FreeTagged(pTransfer, kTagTransfer);
}

void IsoStream::FreeBuffers()
{
    FreeTagged(m_pFrameBuffer, kTagFrameDescriptor);
    FreeTagged(m_pWorkBufferA, kTagWork);
    FreeTagged(m_pWorkBufferB, kTagWork);
    FreeTagged(m_pReadyBuffer, kTagFrameData);
    FreeTagged(m_pCollectBuffer, kTagFrameData);
    FreeTagged(m_pPanZoomWork, kTagWork);
    FreeTagged(m_pFreeList, kTagLists);
    FreeTagged(m_pFreeLock, kTagLists);
    FreeTagged(m_pReadyList, kTagLists);
    FreeTagged(m_pReadyLock, kTagLists);
    m_pCurrentFrame = nullptr;
}
