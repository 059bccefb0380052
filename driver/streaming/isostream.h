// The isochronous transfer engine: 2 or 3 transfers of 32 or 128 packets
// kept in flight on the camera's streaming endpoint, each completion parsing
// the video-class payload headers of its packets and reassembling whole
// frames, which the frame loop takes from the ready list.
//
// One frame descriptor serves the whole stream: every transfer inserts the
// same descriptor into the free list, which then links the entry to itself,
// so that taking the free list's head always yields it and the list never
// reports empty. The pixels travel through the ready buffer, overwritten at
// every good end of frame; the loop holds at most one frame in hand.
#pragma once
#include "wdk.h"

class CCaptureDevice;
struct StreamObject;

// The descriptor of the frame being collected, then of the frame finished.
struct FrameBuffer {
    ULONG Signature;         // FRAME_BUFFER_SIGNATURE, written at every URB build
    ULONG Reserved0;
    LIST_ENTRY ListEntry;    // on the free list or the ready list
    UCHAR Bad;               // the frame being collected had a bad packet
    UCHAR Reserved1[3];
    ULONG PayloadPackets;
    ULONG Capacity;          // width x height x 2 for every format
    ULONG Capacity2;
    ULONG BytesReceived;
    ULONG WriteOffset;       // where the next payload goes in the collection buffer
    ULONGLONG Trailer;       // cleared at every URB build
    // The verdict on the frame last put on the ready list. The collecting
    // side resets Bad for the next frame at once (the descriptor is that
    // frame's too), so the loop reads the finished frame's verdict here.
    volatile LONG ReadyBad;
    ULONG Reserved2;
};
static_assert(sizeof(FrameBuffer) == 64, "the frame descriptor is 64 bytes");

constexpr ULONG FRAME_BUFFER_SIGNATURE = 0x45425253;  // "SRBE" in memory order

// One transfer in flight: its IRP, its isochronous URB and its data buffer.
struct TransferObject {
    PIRP pIrp;            // null once freed
    PURB pUrb;
    PUCHAR pDataBuffer;   // packets x maximum packet size x 2
    ULONG Resubmissions;
    ULONG PacketsSeen;
    ULONG Counter;        // summed at stop with the others, read nowhere else
    ULONG BadPackets;
    StreamObject* pStream;
    CCaptureDevice* pDevice;
    ULONG FrameSize;      // bytes copied per finished frame
    volatile LONG Cancelled;
    ULONGLONG Reserved[2];
};
static_assert(sizeof(TransferObject) == 80, "the transfer object is 80 bytes");

// The running stream. Its fixed part is followed by the transfer pointers.
struct StreamObject {
    volatile LONG PendingIrpCount;  // changed only by interlocked operations
    KEVENT NoPendingIrpEvent;
    USBD_PIPE_HANDLE ResetPipeHandle;
    PIO_WORKITEM pResetWorkItem;     // null when none is queued
    UCHAR ResetKind;                 // RESET_PIPE_AND_CLEAR_STALL or an abort
    CCaptureDevice* pDevice;
    PUSBD_PIPE_INFORMATION pPipeInformation;
    FrameBuffer* pFrame;
    ULONG NextStartFrame;
    UCHAR EndOfFrameSeen;
    ULONG HeaderLength;
    ULONG PacketFlags;               // PACKET_BAD
    volatile LONG Stopping;
    TransferObject* TransferObjectList[1];  // one per transfer in flight
};

// What the payload parser reports for one packet.
constexpr ULONG PACKET_BAD = 2;
// Reset-pipe kinds.
constexpr UCHAR RESET_PIPE_AND_CLEAR_STALL = 1;
constexpr UCHAR RESET_PIPE_ABORT = 0;

// The largest number of transfers in flight.
constexpr ULONG MAX_TRANSFERS_IN_FLIGHT = 3;
constexpr ULONG TRANSFERS_UNCOMPRESSED = 3;
constexpr ULONG TRANSFERS_MJPEG = 2;

// The stream's share of the device: buffers, lists, the frame semaphore
// and the collection state of the payload parser.
class IsoStream {
public:
    IsoStream();
    IsoStream(const IsoStream&) = delete;
    IsoStream& operator=(const IsoStream&) = delete;

    // The device the stream belongs to; initialises the kernel objects that
    // live as long as the device.
    void Attach(CCaptureDevice* pDevice);

    // Start streaming with the connected format (the video-info header) and
    // the pin's output compression (0 for RGB).
    NTSTATUS IsoUsb_StartIsoStream(PKS_VIDEOINFOHEADER pFormat, ULONG OutputCompression);
    // Stop streaming with the pin's stop value; a second call returns at once.
    NTSTATUS IsoUsb_StopIsoStream(UCHAR StopValue);

    // The completion routine's work for one request, also run by the
    // benchmarks on pre-built requests.
    NTSTATUS ProcessRequest(TransferObject* pTransfer);
    // The payload parser for one packet: the payload bytes to append.
    ULONG ParsePacket(const USBD_ISO_PACKET_DESCRIPTOR* pPacket, const UCHAR* pData, PULONG pAccumulated);

    // The frame loop's side: the next finished frame's descriptor, or null.
    FrameBuffer* TakeReadyFrame();

    StreamObject* m_streamObject;
    FrameBuffer* m_pFrameBuffer;       // "KVER"
    PUCHAR m_pCollectBuffer;           // written by the completion routine
    PUCHAR m_pReadyBuffer;             // read by the frame loop
    ULONG m_ReadySize;
    PUCHAR m_pWorkBufferA;             // width x height x 3, "KVSs"
    PUCHAR m_pWorkBufferB;
    PUCHAR m_pPanZoomWork;             // width x height x 9 + 40000, "KVSs"
    PLIST_ENTRY m_pReadyList;
    PKSPIN_LOCK m_pReadyLock;
    PLIST_ENTRY m_pFreeList;
    PKSPIN_LOCK m_pFreeLock;
    FrameBuffer* m_pCurrentFrame;      // null when no frame is being collected
    KSPIN_LOCK m_FrameSpinLock;
    KSEMAPHORE m_FrameSemaphore;
    KEVENT m_ThreadExitEvent;
    volatile LONG m_Streaming;
    volatile UCHAR m_StopThread;
    ULONG m_StopFlags;
    ULONG m_Width;
    ULONG m_Height;
    ULONG m_Width2;
    ULONG m_Width3;
    ULONG m_ExpectedFrameSize;         // width x height x 2
    ULONG m_Compression;               // the camera's: "YUY2", "MJPG", ...
    ULONG m_OutputCompression;         // the pin's: 0 for RGB
    ULONG m_ImageSize;
    ULONG m_Uncompressed;              // 1 for every camera format but "MJPG"
    UCHAR m_AfterEndOfFrame;
    ULONG m_StartupPackets;
    USHORT m_PtsPresent;
    USHORT m_ScrPresent;
    ULONG m_TransfersInFlight;         // 3 uncompressed, 2 motion JPEG
    ULONG m_PacketsPerTransfer;        // 128 high speed, 32 full speed

private:
    NTSTATUS AllocateStreamBuffers();
    NTSTATUS AllocateLists();
    NTSTATUS CreateTransfer(ULONG Index);
    void BuildUrb(TransferObject* pTransfer, BOOLEAN Asap);
    NTSTATUS SubmitTransfer(TransferObject* pTransfer);
    NTSTATUS ResetPipe(USBD_PIPE_HANDLE hPipe, UCHAR Kind);
    // Whether a frame was being collected (and so ended).
    bool EndFrame(TransferObject* pTransfer, BOOLEAN FrameError);
    void Append(const UCHAR* pData, ULONG Length);
    void ReleaseStream();
    void FreeTransfer(TransferObject*& pTransfer);
    void FreeBuffers();

    // Sets the stream up for requests fed from memory (tests, benchmarks).
    friend class IsoStreamFeederAccess;

    static NTSTATUS TransferCompletion(PDEVICE_OBJECT pDeviceObject, PIRP pIrp, PVOID pContext);
    static VOID ResetPipeWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext);

    CCaptureDevice* m_pDevice;
};
