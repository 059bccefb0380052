// The simulated I/O manager's IRPs: allocation, the IoBuild* requests,
// IoCallDriver, IoCompleteRequest, cancellation, IoIs32bitProcess and the IRP
// leak check.
//
// Documented behaviour followed here (learn.microsoft.com/windows-hardware/
// drivers/ddi/wdm/ and .../kernel/):
//  - IoCallDriver moves to the next stack location, stores the target in its
//    DeviceObject and calls the target driver's MajorFunction. No location
//    left is bug check 0x35 NO_MORE_IRP_STACK_LOCATIONS (a violation here;
//    the IRP is not passed on).
//  - IoCompleteRequest walks the stack upwards. A location's completion
//    routine runs when its SL_INVOKE_ON_SUCCESS / _ERROR bit matches
//    NT_SUCCESS(IoStatus.Status) or SL_INVOKE_ON_CANCEL is set and
//    Irp->Cancel; it gets the device object of the location above (NULL at
//    the top, "Implementing an IoCompletion Routine"). Irp->PendingReturned
//    is the completed location's SL_PENDING_RETURNED; without a routine the
//    I/O manager marks the next location pending itself. A routine returning
//    STATUS_MORE_PROCESSING_REQUIRED stops the walk: the IRP belongs to its
//    owner again and may be completed again later.
//  - Past the top, a threaded IRP (IoBuildDeviceIoControlRequest,
//    IoBuildSynchronousFsdRequest) is finished by the I/O manager: buffered
//    output copied back, IoStatus copied to UserIosb, the IRP freed, UserEvent
//    set. Windows does this in an APC in the issuing thread; the simulation
//    does it at once, which a waiting issuer cannot tell apart. Other IRPs
//    must be stopped by their owner's completion routine (IoAllocateIrp:
//    "the driver's IoCompletion routine must free it and return
//    STATUS_MORE_PROCESSING_REQUIRED"); reaching the top with one is a
//    violation and the IRP is left alone.
//  - IoCompleteRequest above DISPATCH_LEVEL, a second completion, completing
//    with STATUS_PENDING or with a cancel routine still set are violations
//    (Driver Verifier's I/O checks, bug checks 0x44 and 0xC9).
//  - A dispatch routine either completes the IRP and returns its
//    IoStatus.Status, or marks it pending (IoMarkIrpPending) and returns
//    STATUS_PENDING; a routine that passes the IRP on returns what the lower
//    driver returned, and a completion routine then propagates the pending
//    mark (if Irp->PendingReturned, IoMarkIrpPending). Violations: returning
//    STATUS_PENDING for a location never marked pending (judged when the
//    completion passes the location, since a completion routine may mark it
//    after the dispatch routine returned), marking it pending and returning
//    anything else, returning another status without completing the IRP, and
//    returning a status other than the one the IRP was completed with
//    (learn.microsoft.com/windows-hardware/drivers/devtest/wdm-markirppending,
//    .../devtest/wdm-markirppending2, .../devtest/wdm-completerequeststatuscheck,
//    .../kernel/constraints-on-dispatch-routines).
//  - A completion routine that returns holding a lock it acquired is a
//    violation (kvsim::CheckLocksReleased).
//  - IoCancelIrp sets Cancel, takes the cancel spin lock, clears and calls
//    the cancel routine at DISPATCH_LEVEL with CancelIrql set; the routine
//    must release the cancel spin lock. No routine: FALSE.
//  - IoReuseIrp: only for IRPs from IoAllocateIrp or raw memory, never for
//    IoBuild* IRPs (nf-wdm-ioreuseirp, Remarks).
// MDLs are not simulated: the direct-I/O forms pass the caller's buffer in
// Irp->UserBuffer and leave MdlAddress NULL.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "io_internal.h"
#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/sched.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "kvsim/verifier.h"

namespace kvsim {
namespace {

struct IrpInfo {
    uint64_t sequence = 0;
    bool threaded = false;      // built by IoBuildDeviceIoControlRequest / IoBuildSynchronousFsdRequest
    bool is32bit = false;
    bool copyBackOutput = false;  // buffered output to copy to UserBuffer on success
    ULONG outputLength = 0;
    void* ownedBuffer = nullptr;  // SystemBuffer the I/O manager allocated
};

// A dispatch routine running now (IofCallDriver), and what the completion
// saw of its stack location when it passed it.
struct DispatchCall {
    PIRP irp;
    CHAR location;
    bool completed = false;      // the completion passed the location
    bool markedPending = false;  // SL_PENDING_RETURNED then
    NTSTATUS status = STATUS_SUCCESS;  // IoStatus.Status then
    bool freed = false;          // freed (or reused) before it was completed: not ours to judge
};

struct IrpState {
    std::mutex lock;
    std::unordered_map<PIRP, IrpInfo> irps;
    uint64_t sequence = 0;
    std::vector<DispatchCall*> calls;
    // Locations whose dispatch routine returned STATUS_PENDING unmarked with
    // the IRP gone on to a lower driver: a completion routine must mark them
    // before the completion passes them.
    std::set<std::pair<PIRP, CHAR>> owedMarks;
};

IrpState& State() {
    static IrpState* state = new IrpState;
    return *state;
}

thread_local bool t_is32bit = false;

// The cancel spin lock and the host thread holding it (to check that a
// cancel routine released it).
KSPIN_LOCK g_cancelLock = 0;
std::atomic<std::thread::id> g_cancelOwner{};

bool LookupIrp(PIRP irp, IrpInfo* out) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.irps.find(irp);
    if (it == s.irps.end()) return false;
    if (out) *out = it->second;
    return true;
}

void UpdateIrp(PIRP irp, const IrpInfo& info) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.irps.find(irp);
    if (it != s.irps.end()) it->second = info;
}

// Under State().lock: forgets what the pending checks hold of `irp` (freed
// or reused).
void ForgetPendingChecksLocked(IrpState& s, PIRP irp) {
    for (DispatchCall* c : s.calls)
        if (c->irp == irp && !c->completed) c->freed = true;
    for (auto it = s.owedMarks.begin(); it != s.owedMarks.end();) {
        it = it->first == irp ? s.owedMarks.erase(it) : std::next(it);
    }
}

// Frees an IRP this module allocated, with the buffer it owns.
void ReleaseIrp(PIRP irp) {
    IrpInfo info;
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.irps.find(irp);
        if (it == s.irps.end()) return;
        info = it->second;
        s.irps.erase(it);
        ForgetPendingChecksLocked(s, irp);
    }
    std::free(info.ownedBuffer);
    std::memset(irp, 0xDD, irp->Size);
    std::free(irp);
}

PIO_STACK_LOCATION TopLocation(PIRP irp) {
    return reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + (irp->StackCount - 1);
}

void ClearStackLocation(PIO_STACK_LOCATION sp) {
    sp->MinorFunction = 0;
    sp->Flags = 0;
    sp->Control &= SL_ERROR_RETURNED;
    std::memset(&sp->Parameters.Others, 0, sizeof(sp->Parameters.Others));
    sp->FileObject = nullptr;
    sp->CompletionRoutine = nullptr;
    sp->Context = nullptr;
}

// IofCompleteRequest, just before it leaves stack location `location`.
void NotePassing(PIRP irp, CHAR location, bool marked, NTSTATUS status) {
    bool owedUnpaid = false;
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        for (DispatchCall* c : s.calls) {
            if (c->irp != irp || c->location != location || c->completed) continue;
            c->completed = true;
            c->markedPending = marked;
            c->status = status;
        }
        owedUnpaid = s.owedMarks.erase({irp, location}) != 0 && !marked;
    }
    if (owedUnpaid) {
        ReportViolation("IRP %p: a dispatch routine returned STATUS_PENDING for stack location %d without "
                        "IoMarkIrpPending, and the location was still not marked pending when the IRP completed "
                        "(a completion routine must call IoMarkIrpPending when Irp->PendingReturned)",
                        static_cast<void*>(irp), location);
    }
}

// IofCallDriver, once the dispatch routine returned `returned`. The IRP
// itself is not read: once the routine returned, another thread may be
// completing it (or marking its location pending from a completion routine).
void EndDispatch(DispatchCall& call, NTSTATUS returned, PDEVICE_OBJECT device, UCHAR major,
                 PDRIVER_DISPATCH dispatch) {
    char problem[200] = "";
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        s.calls.erase(std::find(s.calls.begin(), s.calls.end(), &call));
        if (call.freed) return;
        if (returned == STATUS_PENDING && !call.completed) {
            // Marked now or by a completion routine later: seen when the
            // completion passes the location.
            s.owedMarks.insert({call.irp, call.location});
            return;
        }
        if (returned == STATUS_PENDING) {
            if (call.markedPending) return;
            snprintf(problem, sizeof problem, "returned STATUS_PENDING without IoMarkIrpPending");
        } else if (!call.completed) {
            snprintf(problem, sizeof problem,
                     "returned 0x%08X without completing the IRP (or marking it pending and returning "
                     "STATUS_PENDING)",
                     static_cast<unsigned>(returned));
        } else if (call.markedPending) {
            snprintf(problem, sizeof problem, "called IoMarkIrpPending but returned 0x%08X, not STATUS_PENDING",
                     static_cast<unsigned>(returned));
        } else if (returned != call.status) {
            snprintf(problem, sizeof problem, "returned 0x%08X but completed the IRP with IoStatus.Status 0x%08X",
                     static_cast<unsigned>(returned), static_cast<unsigned>(call.status));
        } else {
            return;
        }
    }
    ReportViolation("dispatch routine %s of device %p (major 0x%02x, IRP %p) %s",
                    RoutineName(reinterpret_cast<const void*>(dispatch)).c_str(), static_cast<void*>(device), major,
                    static_cast<void*>(call.irp), problem);
}

bool ShouldInvoke(PIRP irp, PIO_STACK_LOCATION sp) {
    if (sp->CompletionRoutine == nullptr) return false;
    NTSTATUS status = irp->IoStatus.Status;
    if (NT_SUCCESS(status) && (sp->Control & SL_INVOKE_ON_SUCCESS)) return true;
    if (!NT_SUCCESS(status) && (sp->Control & SL_INVOKE_ON_ERROR)) return true;
    return irp->Cancel && (sp->Control & SL_INVOKE_ON_CANCEL);
}

// The I/O manager's part after the last stack location (see the file head).
void FinishAtTop(PIRP irp, CCHAR boost) {
    IrpInfo info;
    if (!LookupIrp(irp, &info) || !info.threaded) {
        ReportViolation(
            "IRP %p completed past its top stack location, but it is not a threaded IRP from IoBuild*: its owner's "
            "completion routine must free it and return STATUS_MORE_PROCESSING_REQUIRED",
            static_cast<void*>(irp));
        return;
    }
    if (info.copyBackOutput && !NT_ERROR(irp->IoStatus.Status) && irp->UserBuffer != nullptr) {
        size_t n = std::min<size_t>(irp->IoStatus.Information, info.outputLength);
        std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, n);
    }
    if (irp->UserIosb) *irp->UserIosb = irp->IoStatus;
    PKEVENT event = irp->UserEvent;
    ReleaseIrp(irp);
    if (event) KeSetEvent(event, boost, FALSE);
}

// Allocates the SystemBuffer of a buffered request; false when fault
// injection refuses it.
bool AttachSystemBuffer(PIRP irp, IrpInfo& info, const void* input, ULONG inputLength, ULONG bufferLength) {
    if (bufferLength == 0) return true;
    if (PoolTakeInjectedFailure(PoolTag(io::kIoBufferTag))) return false;
    void* buffer = std::malloc(bufferLength);
    if (buffer == nullptr) return false;
    std::memset(buffer, 0xCD, bufferLength);
    if (input && inputLength) std::memcpy(buffer, input, inputLength);
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    info.ownedBuffer = buffer;
    return true;
}

PIRP BuildThreadedIrp(PDEVICE_OBJECT device, PKEVENT event, PIO_STATUS_BLOCK iosb, bool threaded) {
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp == nullptr) return nullptr;
    irp->RequestorMode = KernelMode;
    irp->UserIosb = iosb;
    irp->UserEvent = event;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    IrpInfo info;
    LookupIrp(irp, &info);
    info.threaded = threaded;
    UpdateIrp(irp, info);
    return irp;
}

}  // namespace

namespace io {

void CheckIrqlAtMost(KIRQL max, const char* routine) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > max) ReportViolation("%s called at IRQL %u (allowed up to %u)", routine, irql, max);
}

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

PIRP AllocateIrp(CCHAR stackSize, bool injectable) {
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp");
    if (stackSize < 1) {
        ReportViolation("IoAllocateIrp(StackSize %d): an IRP needs at least one stack location", stackSize);
        return nullptr;
    }
    if (injectable && PoolTakeInjectedFailure(PoolTag(kIrpTag))) return nullptr;
    USHORT size = IoSizeOfIrp(stackSize);
    auto irp = static_cast<PIRP>(std::malloc(size));
    if (irp == nullptr) return nullptr;
    IoInitializeIrp(irp, size, stackSize);
    irp->AllocationFlags = IRP_ALLOCATED_FIXED_SIZE;
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    IrpInfo info;
    info.sequence = ++s.sequence;
    info.is32bit = t_is32bit;
    s.irps[irp] = info;
    return irp;
}

}  // namespace io

void SetCurrentThreadIs32bit(bool is32bit) { t_is32bit = is32bit; }

void SetIrpFrom32bitProcess(PIRP irp, bool is32bit) {
    IrpInfo info;
    if (!LookupIrp(irp, &info)) {
        ReportViolation("SetIrpFrom32bitProcess(%p): not an IRP from IoAllocateIrp", static_cast<void*>(irp));
        return;
    }
    info.is32bit = is32bit;
    UpdateIrp(irp, info);
}

size_t LiveIrpCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.irps.size();
}

std::vector<std::string> IoEndOfTestCheck() {
    std::vector<std::pair<uint64_t, PIRP>> leaked;
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        for (const auto& [irp, info] : s.irps) leaked.emplace_back(info.sequence, irp);
    }
    std::sort(leaked.begin(), leaked.end());
    std::vector<std::string> lines;
    for (const auto& [sequence, irp] : leaked) {
        PIO_STACK_LOCATION sp = irp->CurrentLocation <= irp->StackCount ? IoGetCurrentIrpStackLocation(irp)
                                                                        : TopLocation(irp);
        char text[160];
        std::snprintf(text, sizeof(text), "IRP still allocated: #%llu, major 0x%02x minor 0x%02x, location %d of %d",
                      static_cast<unsigned long long>(sequence), sp->MajorFunction, sp->MinorFunction,
                      irp->CurrentLocation, irp->StackCount);
        lines.emplace_back(text);
        ReleaseIrp(irp);
    }
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        s.sequence = 0;
        s.owedMarks.clear();
    }
    t_is32bit = false;
    io::ResetPowerCounters();
    return lines;
}

}  // namespace kvsim

using kvsim::ReportViolation;
namespace io = kvsim::io;

extern "C" PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) { return io::AllocateIrp(StackSize, true); }

extern "C" VOID IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    std::memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = static_cast<CHAR>(StackSize + 1);
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + StackSize;
}

extern "C" VOID IoFreeIrp(PIRP Irp) {
    io::CheckIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp");
    kvsim::IrpInfo info;
    if (!kvsim::LookupIrp(Irp, &info)) {
        ReportViolation("IoFreeIrp(%p): not a live IRP from IoAllocateIrp (freed twice?)", static_cast<void*>(Irp));
        return;
    }
    if (info.threaded) {
        ReportViolation("IoFreeIrp(%p): a threaded IRP from IoBuild* belongs to the I/O manager; complete it instead",
                        static_cast<void*>(Irp));
        return;
    }
    if (Irp->CancelRoutine != nullptr) {
        ReportViolation("IoFreeIrp(%p) with a cancel routine still set", static_cast<void*>(Irp));
    }
    kvsim::ReleaseIrp(Irp);
}

extern "C" VOID IoReuseIrp(PIRP Irp, NTSTATUS Iostatus) {
    io::CheckIrqlAtMost(DISPATCH_LEVEL, "IoReuseIrp");
    kvsim::IrpInfo info;
    if (kvsim::LookupIrp(Irp, &info) && info.threaded) {
        ReportViolation("IoReuseIrp(%p) on an IRP from IoBuild* (not allowed, see IoReuseIrp Remarks)",
                        static_cast<void*>(Irp));
    }
    if (Irp->CancelRoutine != nullptr) {
        ReportViolation("IoReuseIrp(%p) with a cancel routine still set", static_cast<void*>(Irp));
    }
    {
        auto& s = kvsim::State();
        std::lock_guard<std::mutex> guard(s.lock);
        kvsim::ForgetPendingChecksLocked(s, Irp);
    }
    UCHAR allocationFlags = Irp->AllocationFlags;
    IoInitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocationFlags;
    Irp->IoStatus.Status = Iostatus;
}

extern "C" PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                              ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                              BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                              PIO_STATUS_BLOCK IoStatusBlock) {
    io::CheckIrqlAtMost(PASSIVE_LEVEL, "IoBuildDeviceIoControlRequest");
    PIRP irp = kvsim::BuildThreadedIrp(DeviceObject, Event, IoStatusBlock, true);
    if (irp == nullptr) return nullptr;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    next->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    kvsim::IrpInfo info;
    kvsim::LookupIrp(irp, &info);
    bool ok = true;
    switch (METHOD_FROM_CTL_CODE(IoControlCode)) {
    case METHOD_BUFFERED:
        ok = kvsim::AttachSystemBuffer(irp, info, InputBuffer, InputBufferLength,
                                       std::max(InputBufferLength, OutputBufferLength));
        irp->UserBuffer = OutputBuffer;
        info.copyBackOutput = OutputBufferLength != 0;
        info.outputLength = OutputBufferLength;
        if (OutputBufferLength != 0) irp->Flags |= IRP_INPUT_OPERATION;
        break;
    case METHOD_IN_DIRECT:
    case METHOD_OUT_DIRECT:
        ok = kvsim::AttachSystemBuffer(irp, info, InputBuffer, InputBufferLength, InputBufferLength);
        irp->UserBuffer = OutputBuffer;  // no MDL in the simulation
        break;
    default:  // METHOD_NEITHER
        next->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
        break;
    }
    kvsim::UpdateIrp(irp, info);
    if (!ok) {
        kvsim::ReleaseIrp(irp);
        return nullptr;
    }
    return irp;
}

namespace {

PIRP BuildFsdRequest(const char* routine, ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                     PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock, bool threaded) {
    io::CheckIrqlAtMost(threaded ? PASSIVE_LEVEL : DISPATCH_LEVEL, routine);
    PIRP irp = kvsim::BuildThreadedIrp(DeviceObject, Event, IoStatusBlock, threaded);
    if (irp == nullptr) return nullptr;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = static_cast<UCHAR>(MajorFunction);
    if (MajorFunction != IRP_MJ_READ && MajorFunction != IRP_MJ_WRITE) return irp;
    next->Parameters.Read.Length = Length;
    next->Parameters.Read.ByteOffset.QuadPart = StartingOffset ? StartingOffset->QuadPart : 0;
    irp->UserBuffer = Buffer;
    if (!(DeviceObject->Flags & DO_BUFFERED_IO)) return irp;  // neither or direct I/O (no MDL simulated)
    kvsim::IrpInfo info;
    kvsim::LookupIrp(irp, &info);
    bool read = MajorFunction == IRP_MJ_READ;
    bool ok = kvsim::AttachSystemBuffer(irp, info, read ? nullptr : Buffer, read ? 0 : Length, Length);
    if (read) {
        irp->Flags |= IRP_INPUT_OPERATION;
        info.copyBackOutput = true;
        info.outputLength = Length;
    }
    kvsim::UpdateIrp(irp, info);
    if (!ok) {
        kvsim::ReleaseIrp(irp);
        return nullptr;
    }
    return irp;
}

}  // namespace

extern "C" PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                             ULONG Length, PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                             PIO_STATUS_BLOCK IoStatusBlock) {
    return BuildFsdRequest("IoBuildSynchronousFsdRequest", MajorFunction, DeviceObject, Buffer, Length,
                           StartingOffset, Event, IoStatusBlock, true);
}

extern "C" PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer,
                                              ULONG Length, PLARGE_INTEGER StartingOffset,
                                              PIO_STATUS_BLOCK IoStatusBlock) {
    return BuildFsdRequest("IoBuildAsynchronousFsdRequest", MajorFunction, DeviceObject, Buffer, Length,
                           StartingOffset, nullptr, IoStatusBlock, false);
}

extern "C" NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    io::CheckIrqlAtMost(DISPATCH_LEVEL, "IoCallDriver");
    if (Irp == nullptr || Irp->Type != IO_TYPE_IRP) {
        ReportViolation("IoCallDriver(%p, %p): not an IRP", static_cast<void*>(DeviceObject), static_cast<void*>(Irp));
        return STATUS_INVALID_PARAMETER;
    }
    if (DeviceObject == nullptr || DeviceObject->Type != IO_TYPE_DEVICE) {
        ReportViolation("IoCallDriver(%p): not a device object", static_cast<void*>(DeviceObject));
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp->CurrentLocation <= 1) {
        ReportViolation("IoCallDriver: IRP %p has no stack location left for %p (bug check 0x35 "
                        "NO_MORE_IRP_STACK_LOCATIONS)",
                        static_cast<void*>(Irp), static_cast<void*>(DeviceObject));
        return STATUS_INVALID_PARAMETER;
    }
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    sp->DeviceObject = DeviceObject;
    if (sp->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION) {
        ReportViolation("IoCallDriver: major function 0x%x out of range", sp->MajorFunction);
        return STATUS_INVALID_PARAMETER;
    }
    PDRIVER_DISPATCH dispatch = DeviceObject->DriverObject->MajorFunction[sp->MajorFunction];
    UCHAR major = sp->MajorFunction;  // the IRP may be gone when the routine returns
    kvsim::DispatchCall call{Irp, Irp->CurrentLocation};
    {
        auto& s = kvsim::State();
        std::lock_guard<std::mutex> guard(s.lock);
        s.calls.push_back(&call);
    }
    KIRQL before = KeGetCurrentIrql();
    NTSTATUS status = dispatch(DeviceObject, Irp);
    KIRQL after = KeGetCurrentIrql();
    if (after != before) {
        ReportViolation("dispatch routine for major 0x%x of device %p returned at IRQL %u, called at %u", major,
                        static_cast<void*>(DeviceObject), after, before);
    }
    kvsim::EndDispatch(call, status, DeviceObject, major, dispatch);
    kvsim::PreemptionPoint();
    return status;
}

extern "C" VOID IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    io::CheckIrqlAtMost(DISPATCH_LEVEL, "IoCompleteRequest");
    // One location past the last one is where a driver-built IRP rests when
    // its owner's completion routine stopped completion with
    // STATUS_MORE_PROCESSING_REQUIRED: the owner then calls IoCompleteRequest
    // to let the I/O manager finish it ("the dispatch routine waits for the
    // event and then calls IoCompleteRequest to complete the IRP",
    // learn.microsoft.com/windows-hardware/drivers/kernel/how-to-complete-an-irp-in-a-dispatch-routine).
    // FinishAtTop accepts that only for threaded IRPs from IoBuild*.
    if (Irp->Type == IO_TYPE_IRP && Irp->CurrentLocation == Irp->StackCount + 1) {
        kvsim::FinishAtTop(Irp, PriorityBoost);
        return;
    }
    // Further out no driver owns the IRP: it was completed (or never sent).
    // Windows catches that as bug check 0x44.
    if (Irp->CurrentLocation > Irp->StackCount || Irp->Type != IO_TYPE_IRP) {
        ReportViolation("IoCompleteRequest(%p): no driver holds the IRP, it was completed already (bug check 0x44 "
                        "MULTIPLE_IRP_COMPLETE_REQUESTS)",
                        static_cast<void*>(Irp));
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        ReportViolation("IoCompleteRequest(%p) with IoStatus.Status STATUS_PENDING", static_cast<void*>(Irp));
    }
    // Read as IoCancelIrp writes it (interlocked): a cancel on another
    // processor may race the completion, which Windows allows.
    if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_ACQUIRE) != nullptr) {
        ReportViolation("IoCompleteRequest(%p) with a cancel routine still set", static_cast<void*>(Irp));
    }
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
        Irp->PendingReturned = (sp->Control & SL_PENDING_RETURNED) != 0;
        kvsim::NotePassing(Irp, Irp->CurrentLocation, Irp->PendingReturned, Irp->IoStatus.Status);
        bool invoke = kvsim::ShouldInvoke(Irp, sp);
        PIO_COMPLETION_ROUTINE routine = sp->CompletionRoutine;
        PVOID context = sp->Context;
        kvsim::ClearStackLocation(sp);
        IoSkipCurrentIrpStackLocation(Irp);
        bool atTop = Irp->CurrentLocation > Irp->StackCount;
        if (!invoke) {
            if (Irp->PendingReturned && !atTop) IoMarkIrpPending(Irp);
            continue;
        }
        PDEVICE_OBJECT device = atTop ? nullptr : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
        KIRQL before = KeGetCurrentIrql();
        kvsim::HeldLocks locks = kvsim::CurrentHeldLocks();
        NTSTATUS result = routine(device, Irp, context);
        kvsim::CheckLocksReleased(locks, "completion routine", reinterpret_cast<const void*>(routine));
        if (KeGetCurrentIrql() != before) {
            ReportViolation("completion routine %p returned at IRQL %u, called at %u",
                            reinterpret_cast<void*>(routine), KeGetCurrentIrql(), before);
        }
        if (result == STATUS_MORE_PROCESSING_REQUIRED) return;
    }
    kvsim::FinishAtTop(Irp, PriorityBoost);
}

extern "C" VOID IoAcquireCancelSpinLock(PKIRQL Irql) {
    KeAcquireSpinLock(&kvsim::g_cancelLock, Irql);
    kvsim::g_cancelOwner.store(std::this_thread::get_id());
}

extern "C" VOID IoReleaseCancelSpinLock(KIRQL Irql) {
    if (kvsim::g_cancelOwner.load() != std::this_thread::get_id()) {
        ReportViolation("IoReleaseCancelSpinLock: the cancel spin lock is not held by this thread");
        return;
    }
    kvsim::g_cancelOwner.store(std::thread::id());
    KeReleaseSpinLock(&kvsim::g_cancelLock, Irql);
}

extern "C" BOOLEAN IoCancelIrp(PIRP Irp) {
    io::CheckIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp");
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    // The owner may clear the flag without the lock before it sends the IRP
    // again (InterlockedExchange8), so it is written interlocked here too.
    __atomic_store_n(&Irp->Cancel, TRUE, __ATOMIC_SEQ_CST);
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT device =
        Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
    routine(device, Irp);
    if (kvsim::g_cancelOwner.load() == std::this_thread::get_id()) {
        ReportViolation("cancel routine %p returned without releasing the cancel spin lock",
                        reinterpret_cast<void*>(routine));
        IoReleaseCancelSpinLock(irql);
    }
    return TRUE;
}

namespace {

// IoSetCompletionRoutineEx's record: the wrapper is always invoked, so that
// it can drop the device reference whatever the outcome.
struct CompletionEx {
    PDEVICE_OBJECT device;
    PIO_COMPLETION_ROUTINE routine;
    PVOID context;
    UCHAR control;  // the caller's SL_INVOKE_ON_* bits
};

NTSTATUS CompletionExWrapper(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    auto* ex = static_cast<CompletionEx*>(context);
    NTSTATUS status = irp->IoStatus.Status;
    bool invoke = (NT_SUCCESS(status) && (ex->control & SL_INVOKE_ON_SUCCESS)) ||
                  (!NT_SUCCESS(status) && (ex->control & SL_INVOKE_ON_ERROR)) ||
                  (irp->Cancel && (ex->control & SL_INVOKE_ON_CANCEL));
    NTSTATUS result = STATUS_SUCCESS;  // STATUS_CONTINUE_COMPLETION
    if (invoke) {
        result = ex->routine(device, irp, ex->context);
    } else if (irp->PendingReturned && irp->CurrentLocation <= irp->StackCount) {
        IoMarkIrpPending(irp);
    }
    ObDereferenceObject(ex->device);
    delete ex;
    return result;
}

}  // namespace

extern "C" NTSTATUS IoSetCompletionRoutineEx(PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                             PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                             BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
    if (kvsim::PoolTakeInjectedFailure(kvsim::PoolTag(io::kCompletionExTag))) return STATUS_INSUFFICIENT_RESOURCES;
    UCHAR control = (InvokeOnSuccess ? SL_INVOKE_ON_SUCCESS : 0) | (InvokeOnError ? SL_INVOKE_ON_ERROR : 0) |
                    (InvokeOnCancel ? SL_INVOKE_ON_CANCEL : 0);
    auto* ex = new CompletionEx{DeviceObject, CompletionRoutine, Context, control};
    ObReferenceObject(DeviceObject);
    IoSetCompletionRoutine(Irp, CompletionExWrapper, ex, TRUE, TRUE, TRUE);
    return STATUS_SUCCESS;
}

extern "C" BOOLEAN IoIs32bitProcess(PIRP Irp) {
    if (Irp == nullptr) return kvsim::t_is32bit;
    kvsim::IrpInfo info;
    if (!kvsim::LookupIrp(Irp, &info)) return FALSE;
    return info.is32bit;
}
