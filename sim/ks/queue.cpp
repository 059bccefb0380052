// The simulated ks.sys: a pin's queue of client buffers and its leading-edge
// stream pointer, the Process dispatch, and the stream IOCTLs.
//
// IOCTL_KS_READ_STREAM / IOCTL_KS_WRITE_STREAM are METHOD_NEITHER: the
// KSSTREAM_HEADER array is the output buffer (Irp->UserBuffer,
// OutputBufferLength bytes). Each header is Size bytes long (a plain
// KSSTREAM_HEADER, or the pin's StreamHeaderSize with an extension such as
// KS_FRAME_INFO behind it) and describes one frame: Data, FrameExtent,
// DataUsed. Every header becomes one frame of the queue; the IRP completes
// when its last frame is ejected, with Information = the header bytes.
// https://learn.microsoft.com/windows-hardware/drivers/stream/ioctl-ks-read-stream
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-ksstream_header
//
// The leading edge: KsPinGetLeadingEdgeStreamPointer returns NULL when no
// frame is queued and the edge was asked for locked (unlocked, it returns the
// edge, without a frame); OffsetOut (a read pin) starts at the frame's Data with
// Count = Remaining = FrameExtent; KsStreamPointerUnlock(.., TRUE) ejects
// the frame (completing it to the client since no trailing edge holds it);
// KsStreamPointerAdvance moves to the next frame (a locked pointer gets
// STATUS_DEVICE_NOT_READY when there is none; an unlocked one always
// succeeds).
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspingetleadingedgestreampointer
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksstreampointerunlock
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksstreampointeradvance
//
// Processing: Process is called when a buffer arrives at an empty queue (or
// at every arrival with KSPIN_FLAG_INITIATE_PROCESSING_ON_EVERY_ARRIVAL),
// when the pin reaches PAUSE/RUN, and on KsPinAttemptProcessing; never with
// KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING except through
// KsPinAttemptProcessing; only in RUN with
// KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY (else PAUSE or RUN); only with a
// frame queued unless KSPIN_FLAG_FRAMES_NOT_REQUIRED_FOR_PROCESSING. A
// Process returning STATUS_SUCCESS is called again while frames remain and
// it made progress; STATUS_PENDING or an error stops the round.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-_kspin_descriptor_ex
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnkspin (AVStrMiniPinProcess)
//
// Cancellation: a queued stream IRP carries ks.sys's cancel routine. On
// IoCancelIrp its frames leave the queue and it completes with
// STATUS_CANCELLED (Information 0); the leading edge, when it stood
// unlocked on one of them, moves to the next frame. "If a frame has a
// locked stream pointer referencing it, the IRP that corresponds to this
// frame cannot be canceled": the cancellation then waits until the edge is
// unlocked or moves off the frame (an IRP whose last frame is ejected
// meanwhile completes normally).
// https://learn.microsoft.com/windows-hardware/drivers/stream/stream-pointers-and-irp-cancellation
// https://learn.microsoft.com/windows-hardware/drivers/stream/locking-and-unlocking-stream-pointers
// Whoever takes an IRP out of the queue clears its cancel routine first; if
// IoCancelIrp got there before (the routine is NULL and cancellation was not
// deferred), the IRP stays listed and the running cancel routine completes
// it. Not simulated: clones' CancelCallback (clones are not simulated). The
// queue is also flushed on stop, close, reset and removal.
#include <algorithm>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/sched.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

struct Done {
    PIRP irp;
    NTSTATUS status;
    bool withInformation;  // Information = the header bytes (a finished IRP)
};

VOID CancelStreamIrp(PDEVICE_OBJECT, PIRP irp);

// Takes the IRP's cancel routine away; false when IoCancelIrp took it first
// and the IRP belongs to the running cancel routine.
bool ClaimFromCancel(const QueuedIrp& q) {
    return IoSetCancelRoutine(q.irp, nullptr) != nullptr || q.cancelDeferred;
}

// The IRP of the frame the leading edge holds locked, or null.
PIRP LockedIrp(const KsPin* pin) {
    if (!pin->leadingEdge || !pin->leadingEdge->locked || pin->frames.empty()) return nullptr;
    return pin->frames.front().header == pin->leadingEdge->pub.StreamHeader ? pin->frames.front().irp : nullptr;
}

// Removes the IRP's frames and entry and adds it to `done` as cancelled.
// Under queueLock.
void DropCancelled(KsPin* pin, std::vector<QueuedIrp>::iterator it, std::vector<Done>& done) {
    PIRP irp = it->irp;
    std::erase_if(pin->frames, [irp](const QueuedFrame& f) { return f.irp == irp; });
    pin->irps.erase(it);
    done.push_back({irp, STATUS_CANCELLED, false});
}

// Carries out cancellations that waited for the locked edge to let go.
// Under queueLock.
void ApplyDeferredCancels(KsPin* pin, std::vector<Done>& done) {
    PIRP locked = LockedIrp(pin);
    for (auto it = pin->irps.begin(); it != pin->irps.end();) {
        if (it->cancelDeferred && it->irp != locked) {
            DropCancelled(pin, it, done);
            it = pin->irps.begin();
        } else {
            ++it;
        }
    }
}

bool ReadPin(const KsPin* pin) { return pin->pub.DataFlow == KSPIN_DATAFLOW_OUT; }

// Points the leading edge at the front frame (offsets reset when the frame
// changed). Under queueLock. False when the queue is empty.
bool AimLeadingEdge(KsPin* pin) {
    KsStreamPointer* edge = pin->leadingEdge;
    if (pin->frames.empty()) {
        edge->pub.StreamHeader = nullptr;
        edge->pub.OffsetIn = edge->pub.OffsetOut = {};
        edge->pub.Offset = nullptr;
        return false;
    }
    PKSSTREAM_HEADER header = pin->frames.front().header;
    if (edge->pub.StreamHeader == header) return true;
    edge->pub.StreamHeader = header;
    KSSTREAM_POINTER_OFFSET offset{};
    offset.Data = static_cast<PUCHAR>(header->Data);
    if (ReadPin(pin)) {
        offset.Count = offset.Remaining = header->FrameExtent;
        edge->pub.OffsetOut = offset;
        edge->pub.OffsetIn = {};
        edge->pub.Offset = &edge->pub.OffsetOut;
    } else {
        offset.Count = offset.Remaining = header->DataUsed;
        edge->pub.OffsetIn = offset;
        edge->pub.OffsetOut = {};
        edge->pub.Offset = &edge->pub.OffsetIn;
    }
    return true;
}

// Retires the front frame; the IRP it belongs to is returned in `done` when
// this was its last frame. Under queueLock.
void RetireFront(KsPin* pin, std::vector<Done>& done) {
    if (pin->frames.empty()) return;
    PIRP irp = pin->frames.front().irp;
    pin->frames.pop_front();
    for (auto it = pin->irps.begin(); it != pin->irps.end(); ++it) {
        if (it->irp != irp) continue;
        if (--it->framesLeft == 0) {
            if (ClaimFromCancel(*it)) {
                done.push_back({irp, it->status, true});
                pin->irps.erase(it);
            } else {
                it->awaitingCancelRoutine = true;
            }
        }
        break;
    }
}

void CompleteAll(const std::vector<Done>& done) {
    for (const Done& d : done) {
        d.irp->IoStatus.Status = d.status;
        d.irp->IoStatus.Information =
            d.withInformation ? IoGetCurrentIrpStackLocation(d.irp)->Parameters.DeviceIoControl.OutputBufferLength
                              : 0;
        IoCompleteRequest(d.irp, IO_NO_INCREMENT);
    }
}

KsStreamPointer* EdgeOf(PKSSTREAM_POINTER sp) {
    auto* edge = reinterpret_cast<KsStreamPointer*>(sp);
    if (!edge || !edge->pin || edge->pin->leadingEdge != edge) {
        ReportViolation("ks.sys: %p is not a stream pointer handed out by ks.sys", static_cast<void*>(sp));
        return nullptr;
    }
    return edge;
}

// Moves the edge off its frame: the frame is retired (ejected). Returns
// whether the edge stands on a next frame.
bool MoveToNextFrame(KsPin* pin, std::vector<Done>& done) {
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    RetireFront(pin, done);
    AimLeadingEdge(pin);
    ApplyDeferredCancels(pin, done);
    bool more = AimLeadingEdge(pin);
    KeReleaseSpinLock(&pin->queueLock, irql);
    return more;
}

// Unlocks the edge; a cancellation that waited for it takes effect.
void UnlockEdge(KsStreamPointer* edge) {
    std::vector<Done> done;
    KIRQL irql;
    KeAcquireSpinLock(&edge->pin->queueLock, &irql);
    edge->locked = false;
    ApplyDeferredCancels(edge->pin, done);
    AimLeadingEdge(edge->pin);
    KeReleaseSpinLock(&edge->pin->queueLock, irql);
    CompleteAll(done);
}

bool CanProcess(KsPin* pin) {
    const KSPIN_DESCRIPTOR_EX* pd = pin->pub.Descriptor;
    if (!pd->Dispatch || !pd->Dispatch->Process) return false;
    KSSTATE state = pin->pub.DeviceState;
    if (pd->Flags & KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY) {
        if (state != KSSTATE_RUN) return false;
    } else if (state < KSSTATE_PAUSE) {
        return false;
    }
    if (pd->Flags & KSPIN_FLAG_FRAMES_NOT_REQUIRED_FOR_PROCESSING) return true;
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    bool any = !pin->frames.empty();
    KeReleaseSpinLock(&pin->queueLock, irql);
    return any;
}

size_t QueuedFrames(KsPin* pin) {
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    size_t n = pin->frames.size();
    KeReleaseSpinLock(&pin->queueLock, irql);
    return n;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS QueueStreamIrp(KsPin* pin, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    ULONG code = sp->Parameters.DeviceIoControl.IoControlCode;
    bool read = code == IOCTL_KS_READ_STREAM;
    irp->IoStatus.Information = 0;
    if (read != ReadPin(pin)) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    KsDevice* device = pin->header.device;
    if (device->removed || device->surpriseRemoved) return Complete(irp, STATUS_DEVICE_REMOVED);
    if (pin->pub.DeviceState == KSSTATE_STOP) return Complete(irp, STATUS_INVALID_DEVICE_STATE);
    ULONG length = sp->Parameters.DeviceIoControl.OutputBufferLength;
    auto* base = static_cast<PUCHAR>(irp->UserBuffer);
    ULONG minimum = pin->pub.StreamHeaderSize ? pin->pub.StreamHeaderSize : ULONG(sizeof(KSSTREAM_HEADER));
    if (!base || length < sizeof(KSSTREAM_HEADER)) return Complete(irp, STATUS_INVALID_BUFFER_SIZE);
    // Walk the headers first: the whole IRP is refused if one is malformed.
    std::vector<PKSSTREAM_HEADER> headers;
    for (ULONG at = 0; at < length;) {
        auto* h = reinterpret_cast<PKSSTREAM_HEADER>(base + at);
        if (length - at < sizeof(KSSTREAM_HEADER) || h->Size < minimum || h->Size % 8 != 0 || h->Size > length - at) {
            return Complete(irp, STATUS_INVALID_BUFFER_SIZE);
        }
        headers.push_back(h);
        at += h->Size;
    }
    IoMarkIrpPending(irp);
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    bool wasEmpty = pin->frames.empty();
    for (ULONG i = 0; i < headers.size(); ++i) {
        if (read) headers[i]->DataUsed = 0;
        pin->frames.push_back({irp, headers[i], i});
    }
    pin->irps.push_back({irp, static_cast<ULONG>(headers.size()), STATUS_SUCCESS});
    // The cancel routine goes on under the queue lock; an IRP cancelled
    // before that (Cancel set, no routine to call) is dropped here.
    std::vector<Done> cancelled;
    IoSetCancelRoutine(irp, CancelStreamIrp);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        DropCancelled(pin, pin->irps.end() - 1, cancelled);
        if (pin->leadingEdge) AimLeadingEdge(pin);
    }
    KeReleaseSpinLock(&pin->queueLock, irql);
    CompleteAll(cancelled);
    ULONG flags = pin->pub.Descriptor->Flags;
    if (!(flags & KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING) &&
        (wasEmpty || (flags & KSPIN_FLAG_INITIATE_PROCESSING_ON_EVERY_ARRIVAL))) {
        ProcessPin(pin);
    }
    return STATUS_PENDING;
}

NTSTATUS ResetState(KsPin* pin, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (sp->Parameters.DeviceIoControl.InputBufferLength < sizeof(KSRESET) ||
        !sp->Parameters.DeviceIoControl.Type3InputBuffer) {
        return Complete(irp, STATUS_INVALID_BUFFER_SIZE);
    }
    KSRESET reset = *static_cast<KSRESET*>(sp->Parameters.DeviceIoControl.Type3InputBuffer);
    pin->pub.ResetState = reset;
    if (reset == KSRESET_BEGIN) {
        FlushPinQueue(pin, STATUS_CANCELLED);
        const KSPIN_DISPATCH* dispatch = pin->pub.Descriptor->Dispatch;
        if (dispatch && dispatch->Reset) {
            CallMinidriver(pin->header.device, CallbackOwner::Pin, "Reset", dispatch->Reset, &pin->pub);
        }
    }
    return Complete(irp, STATUS_SUCCESS);
}

// The cancel routine ks.sys puts on queued stream IRPs (called by
// IoCancelIrp at DISPATCH_LEVEL with the cancel spin lock held).
VOID CancelStreamIrp(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KsPin* pin = AsPin(HeaderFromIrp(irp));
    if (!pin) {
        // The pin closed after its flush left the IRP to this routine.
        irp->IoStatus.Status = STATUS_CANCELLED;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return;
    }
    std::vector<Done> done;
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    auto it = std::find_if(pin->irps.begin(), pin->irps.end(), [irp](const QueuedIrp& q) { return q.irp == irp; });
    if (it == pin->irps.end()) {
        ReportViolation("ks.sys simulation: cancel routine for IRP %p, which is not queued on pin %p",
                        static_cast<void*>(irp), static_cast<void*>(&pin->pub));
    } else if (!it->awaitingCancelRoutine && it->irp == LockedIrp(pin)) {
        it->cancelDeferred = true;
    } else {
        DropCancelled(pin, it, done);
        if (pin->leadingEdge) AimLeadingEdge(pin);
    }
    KeReleaseSpinLock(&pin->queueLock, irql);
    CompleteAll(done);
}

}  // namespace

NTSTATUS DispatchStreamIoctl(KsPin* pin, PIRP irp) {
    ULONG code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
    if (code == IOCTL_KS_RESET_STATE) return ResetState(pin, irp);
    return QueueStreamIrp(pin, irp);
}

void FlushPinQueue(KsPin* pin, NTSTATUS status) {
    std::vector<Done> done;
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    // IRPs whose cancel routine is already running stay listed (without
    // frames) for it to complete.
    std::vector<QueuedIrp> left;
    for (auto& q : pin->irps) {
        if (ClaimFromCancel(q)) {
            done.push_back({q.irp, status, false});
        } else {
            q.awaitingCancelRoutine = true;
            left.push_back(q);
        }
    }
    pin->irps = std::move(left);
    pin->frames.clear();
    if (pin->leadingEdge) {
        AimLeadingEdge(pin);
        pin->leadingEdge->locked = false;
    }
    KeReleaseSpinLock(&pin->queueLock, irql);
    CompleteAll(done);
}

void ProcessPin(KsPin* pin) {
    {
        KIRQL irql;
        KeAcquireSpinLock(&pin->queueLock, &irql);
        bool busy = pin->inProcess;
        if (busy) pin->processPending = true;  // the running round calls Process again
        else pin->inProcess = true;
        KeReleaseSpinLock(&pin->queueLock, irql);
        if (busy) return;
    }
    AcquireProcessingMutex(&pin->processingMutex, &pin->processingSince, "pin", &pin->pub, false);
    for (;;) {
        if (!CanProcess(pin)) break;
        size_t before = QueuedFrames(pin);
        pin->processPending = false;
        NTSTATUS status = CallMinidriver(pin->header.device, CallbackOwner::Pin, "Process",
                                         pin->pub.Descriptor->Dispatch->Process, &pin->pub);
        bool again = pin->processPending || (status == STATUS_SUCCESS && QueuedFrames(pin) < before);
        if (status == STATUS_PENDING || !NT_SUCCESS(status)) again = pin->processPending;
        if (!again) break;
    }
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    pin->inProcess = false;
    pin->processPending = false;
    KeReleaseSpinLock(&pin->queueLock, irql);
    ReleaseProcessingMutex(&pin->processingMutex, &pin->processingSince, "pin", &pin->pub);
}

}  // namespace kvsim::ks

using namespace kvsim::ks;
using kvsim::ReportViolation;

extern "C" PKSSTREAM_POINTER KsPinGetLeadingEdgeStreamPointer(PKSPIN Pin, KSSTREAM_POINTER_STATE State) {
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    if (!pin) return nullptr;
    if (!pin->leadingEdge) {
        void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(KsStreamPointer), kStreamPointerTag);
        if (!memory) return nullptr;
        pin->leadingEdge = new (memory) KsStreamPointer();
        pin->leadingEdge->pin = pin;
        pin->leadingEdge->pub.Pin = Pin;
    }
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    bool any = AimLeadingEdge(pin);
    if (any && State == KSSTREAM_POINTER_STATE_LOCKED) pin->leadingEdge->locked = true;
    KeReleaseSpinLock(&pin->queueLock, irql);
    // Locked: NULL when no frame is queued. Unlocked: the edge "regardless of
    // whether it references a data frame or not" (no StreamHeader then).
    if (!any && State == KSSTREAM_POINTER_STATE_LOCKED) return nullptr;
    return &pin->leadingEdge->pub;
}

// A distinct trailing edge (KSPIN_FLAG_DISTINCT_TRAILING_EDGE) is not
// simulated: no trailing-edge pointer.
extern "C" PKSSTREAM_POINTER KsPinGetTrailingEdgeStreamPointer(PKSPIN, KSSTREAM_POINTER_STATE) { return nullptr; }

extern "C" NTSTATUS KsStreamPointerLock(PKSSTREAM_POINTER StreamPointer) {
    KsStreamPointer* edge = EdgeOf(StreamPointer);
    if (!edge) return STATUS_INVALID_PARAMETER;
    // https://learn.microsoft.com/windows-hardware/drivers/devtest/ks-ksstreampointerlock
    if (edge->locked) {
        ReportViolation("KsStreamPointerLock: stream pointer %p is locked already (KsStreamPointerLock: a locked "
                        "stream pointer must not be locked again)",
                        static_cast<void*>(StreamPointer));
    }
    KIRQL irql;
    KeAcquireSpinLock(&edge->pin->queueLock, &irql);
    bool any = AimLeadingEdge(edge->pin);
    if (any) edge->locked = true;
    KeReleaseSpinLock(&edge->pin->queueLock, irql);
    return any ? STATUS_SUCCESS : STATUS_DEVICE_NOT_READY;
}

extern "C" void KsStreamPointerUnlock(PKSSTREAM_POINTER StreamPointer, BOOLEAN Eject) {
    KsStreamPointer* edge = EdgeOf(StreamPointer);
    if (!edge) return;
    if (!edge->locked) ReportViolation("KsStreamPointerUnlock: the stream pointer %p is not locked",
                                       static_cast<void*>(StreamPointer));
    if (!Eject || !edge->pub.StreamHeader) {
        UnlockEdge(edge);
        return;
    }
    edge->locked = false;
    std::vector<Done> done;
    MoveToNextFrame(edge->pin, done);
    CompleteAll(done);
}

// An unlocked pointer "always succeeds": whether it stands on a frame then
// takes a lock to tell.
extern "C" NTSTATUS KsStreamPointerAdvance(PKSSTREAM_POINTER StreamPointer) {
    KsStreamPointer* edge = EdgeOf(StreamPointer);
    if (!edge) return STATUS_INVALID_PARAMETER;
    bool wasLocked = edge->locked;
    if (!edge->pub.StreamHeader) return wasLocked ? STATUS_DEVICE_NOT_READY : STATUS_SUCCESS;
    std::vector<Done> done;
    bool more = MoveToNextFrame(edge->pin, done);
    if (!more) edge->locked = false;
    CompleteAll(done);
    return more || !wasLocked ? STATUS_SUCCESS : STATUS_DEVICE_NOT_READY;
}

extern "C" NTSTATUS KsStreamPointerAdvanceOffsets(PKSSTREAM_POINTER StreamPointer, ULONG InUsed, ULONG OutUsed,
                                                  BOOLEAN Eject) {
    KsStreamPointer* edge = EdgeOf(StreamPointer);
    if (!edge) return STATUS_INVALID_PARAMETER;
    if (!edge->pub.StreamHeader) return STATUS_DEVICE_NOT_READY;
    auto consume = [](KSSTREAM_POINTER_OFFSET& o, ULONG used) {
        if (used > o.Remaining) {
            ReportViolation("KsStreamPointerAdvanceOffsets: %u bytes used of %u remaining", used, o.Remaining);
            used = o.Remaining;
        }
        o.Data += used;
        o.Remaining -= used;
    };
    consume(edge->pub.OffsetIn, InUsed);
    consume(edge->pub.OffsetOut, OutUsed);
    KSSTREAM_POINTER_OFFSET& mine = ReadPin(edge->pin) ? edge->pub.OffsetOut : edge->pub.OffsetIn;
    if (!Eject && mine.Remaining != 0) return STATUS_SUCCESS;
    std::vector<Done> done;
    bool more = MoveToNextFrame(edge->pin, done);
    CompleteAll(done);
    return more ? STATUS_SUCCESS : STATUS_DEVICE_NOT_READY;
}

extern "C" void KsStreamPointerAdvanceOffsetsAndUnlock(PKSSTREAM_POINTER StreamPointer, ULONG InUsed, ULONG OutUsed,
                                                       BOOLEAN Eject) {
    KsStreamPointerAdvanceOffsets(StreamPointer, InUsed, OutUsed, Eject);
    if (KsStreamPointer* edge = EdgeOf(StreamPointer)) UnlockEdge(edge);
}

extern "C" NTSTATUS KsStreamPointerSetStatusCode(PKSSTREAM_POINTER StreamPointer, NTSTATUS Status) {
    KsStreamPointer* edge = EdgeOf(StreamPointer);
    if (!edge || !edge->pub.StreamHeader) return STATUS_INVALID_PARAMETER;
    KsPin* pin = edge->pin;
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    if (!pin->frames.empty()) {
        for (auto& q : pin->irps) {
            if (q.irp == pin->frames.front().irp) q.status = Status;
        }
    }
    KeReleaseSpinLock(&pin->queueLock, irql);
    return STATUS_SUCCESS;
}

// Clones are not simulated: the minidrivers here use the leading edge only.
extern "C" NTSTATUS KsStreamPointerClone(PKSSTREAM_POINTER, PFNKSSTREAMPOINTER, ULONG, PKSSTREAM_POINTER* Clone) {
    if (Clone) *Clone = nullptr;
    ReportViolation("ks.sys simulation: KsStreamPointerClone is not simulated");
    return STATUS_NOT_SUPPORTED;
}

extern "C" void KsStreamPointerDelete(PKSSTREAM_POINTER StreamPointer) {
    ReportViolation("KsStreamPointerDelete(%p): only clones may be deleted, and there are none",
                    static_cast<void*>(StreamPointer));
}

// Asynchronous (or called above PASSIVE_LEVEL for a pin without
// KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING): Process runs on a worker thread.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspinattemptprocessing
extern "C" void KsPinAttemptProcessing(PKSPIN Pin, BOOLEAN Asynchronous) {
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    if (!pin) return;
    bool passiveOnly = !(pin->pub.Descriptor->Flags & KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING);
    if (Asynchronous || (passiveOnly && KeGetCurrentIrql() > PASSIVE_LEVEL)) {
        kvsim::Post([Pin] {
            // The pin may have closed meanwhile.
            if (KsPin* live = AsPin(FindHeader(Pin))) ProcessPin(live);
        });
        return;
    }
    ProcessPin(pin);
}

// KsPinAcquireProcessingMutex / KsPinReleaseProcessingMutex: sim/ks/rules.cpp.
