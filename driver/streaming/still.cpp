// The still pin's create, close, format and state handling. Its data
// intersection is the capture pin's handler, which answers from the range
// of the pin asked about (the still table's ranges here).
#include "streaming/still.h"

#include "device/device.h"
#include "pageable.h"
#include "pooltag.h"
#include "streaming/capture.h"

using namespace kv;

namespace {

// A still carries the same stream header as a capture frame, with room for
// the frame information.
constexpr ULONG kStillHeaderSize = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO);
static_assert(kStillHeaderSize == 128, "the still pin's stream header with its frame information");

// Close's wait for a still being served: polled every millisecond.
constexpr LONGLONG kCloseWaitPoll = -10000LL;

StillPinContext* ContextOf(PKSPIN pKsPin) { return static_cast<StillPinContext*>(pKsPin->Context); }

void FreeContext(PVOID pItem)
{
    auto* pContext = static_cast<StillPinContext*>(pItem);
    FreeTagged(pContext->pFormat, kTagPinFormat);
    ExFreePoolWithTag(pContext, kTagPinFormat);
}

}  // namespace

NTSTATUS CStillPin::DispatchCreate(PKSPIN pKsPin, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    if (PageableCallTooHigh()) {
        return STATUS_UNSUCCESSFUL;
    }
    pKsPin->StreamHeaderSize = kStillHeaderSize;
    auto* pContext = static_cast<StillPinContext*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(StillPinContext), kTagPinFormat));
    if (pContext == nullptr) {
        DbgPrint("CStillPin::DispatchCreate: failed to alloc pin context\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pContext, sizeof(StillPinContext));
    pContext->pKsPin = pKsPin;
    pContext->pDevice = static_cast<CCaptureDevice*>(KsGetDevice(pKsPin)->Context);
    pContext->pFormat = static_cast<PKS_VIDEOINFOHEADER>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(KS_VIDEOINFOHEADER), kTagPinFormat));
    // A format that is not video info is accepted without a copy: the frame
    // loop then finds a zero size and serves no still.
    if (pContext->pFormat != nullptr) {
        RtlZeroMemory(pContext->pFormat, sizeof(KS_VIDEOINFOHEADER));
    }
    NTSTATUS status = pContext->pFormat != nullptr ? KsAddItemToObjectBag(pKsPin->Bag, pContext, FreeContext)
                                                   : STATUS_INSUFFICIENT_RESOURCES;
    if (!NT_SUCCESS(status)) {
        DbgPrint("CStillPin::DispatchCreate: failed to keep pin context\n");
        FreeContext(pContext);
        return status;
    }
    pKsPin->Context = pContext;
    status = CopyConnectionFormat(pKsPin, pContext->pFormat);
    if (NT_SUCCESS(status)) {
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&pContext->pDevice->m_pStillPin), pKsPin);
    }
    return status;
}

// The frame loop stops finding the pin, and a still it is serving now is
// waited out: the context and the pin go with the bag after this.
NTSTATUS CStillPin::DispatchClose(PKSPIN pKsPin, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    StillPinContext* pContext = ContextOf(pKsPin);
    if (pContext != nullptr) {
        CCaptureDevice* pDevice = pContext->pDevice;
        InterlockedCompareExchangePointer(reinterpret_cast<PVOID volatile*>(&pDevice->m_pStillPin), nullptr, pKsPin);
        while (InterlockedCompareExchange(&pDevice->m_StillPinUsers, 0, 0) != 0) {
            LARGE_INTEGER pause;
            pause.QuadPart = kCloseWaitPoll;
            KeDelayExecutionThread(KernelMode, FALSE, &pause);
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS CStillPin::SetDataFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, PKSMULTIPLE_ITEM pOldAttributeList,
                                  const KSDATARANGE* pDataRange, const KSATTRIBUTE_LIST* pAttributeRange)
{
    UNREFERENCED_PARAMETER(pOldAttributeList);
    UNREFERENCED_PARAMETER(pAttributeRange);
    return AcceptVideoFormat(pKsPin, pOldFormat, pDataRange, &ContextOf(pKsPin)->pFormat);
}

// Only pause to run does work: the format is copied again, as the frame
// loop reads the still's size from the copy.
NTSTATUS CStillPin::SetState(PKSPIN pKsPin, KSSTATE ToState, KSSTATE FromState)
{
    if (ToState == KSSTATE_RUN && FromState == KSSTATE_PAUSE) {
        StillPinContext* pContext = ContextOf(pKsPin);
        const auto* pFormat = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER*>(pKsPin->ConnectionFormat);
        if (pContext->pFormat != nullptr && pKsPin->ConnectionFormat->FormatSize >= sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) {
            RtlCopyMemory(pContext->pFormat, &pFormat->VideoInfoHeader, sizeof(KS_VIDEOINFOHEADER));
        }
    }
    return STATUS_SUCCESS;
}

const KSPIN_DISPATCH g_StillPinDispatch = {
    CStillPin::DispatchCreate,  // Create
    CStillPin::DispatchClose,   // Close
    nullptr,                    // Process: the frame loop delivers
    nullptr,                    // Reset
    CStillPin::SetDataFormat,   // SetDataFormat
    CStillPin::SetState,        // SetDeviceState
    nullptr,                    // Connect
    nullptr,                    // Disconnect
    nullptr,                    // Clock
    nullptr,                    // Allocator
};
