// System threads, thread queries, time and work items of the simulated
// kernel. A system thread is a simulated thread on a host thread of its
// own; its ETHREAD is a registered kernel object (type *PsThreadType) and a
// dispatcher object that is signalled when the thread ends.
//
// A start routine that returns ends the thread as PsTerminateSystemThread
// (STATUS_SUCCESS) would: Windows does the same for a returning system
// thread, although the documented way for a driver is to call
// PsTerminateSystemThread (learn.microsoft.com/windows-hardware/drivers/ddi/
// wdm/nf-wdm-psterminatesystemthread, nf-wdm-pscreatesystemthread).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <unordered_map>

#include "ke_internal.h"
#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"
#include "verifier_internal.h"

using namespace kvsim::ke;

namespace {

// Thrown by PsTerminateSystemThread, caught at the bottom of the thread.
struct ThreadExit {
    NTSTATUS status;
};

void DestroyThreadObject(void* body) { delete static_cast<ETHREAD*>(body); }

void EndSystemThread(Kernel& k, SimThread* t, NTSTATUS exitStatus) {
    CheckLocksAtThreadEnd(t->name.c_str());
    CheckXStateAfterCallback(t, "system thread", nullptr);
    if (t->irql != PASSIVE_LEVEL)
        kvsim::ReportViolation("system thread '%s' ended at IRQL %u", t->name.c_str(), t->irql);
    ETHREAD* ethread = t->ethread;
    {
        std::lock_guard<std::mutex> guard(k.m);
        ethread->ExitStatus = exitStatus;
        ethread->Tcb.SimThread = nullptr;
        ethread->Tcb.Header.SignalState = 1;
        SignalLocked(k, &ethread->Tcb.Header);
        t->state = ThreadState::Ended;
        k.running--;
        k.threads.erase(std::find(k.threads.begin(), k.threads.end(), t));
        DispatchLocked(k);
    }
    delete t;
    ObDereferenceObject(ethread);  // the thread's own reference
}

void SystemThreadMain(Kernel& k, SimThread* t, SimThread** tls) {
    *tls = t;
    {
        std::unique_lock<std::mutex> lk(k.m);
        while (t->state != ThreadState::Running) t->cv.wait(lk);
    }
    NTSTATUS exitStatus = STATUS_SUCCESS;
    try {
        t->start(t->startContext);
    } catch (const ThreadExit& e) {
        exitStatus = e.status;
    }
    EndSystemThread(k, t, exitStatus);
}

}  // namespace

// The work item: opaque to drivers (IoSizeofWorkItem bytes of theirs when
// they use IoInitializeWorkItem).
struct _IO_WORKITEM {
    PDEVICE_OBJECT DeviceObject;
};

namespace {

// Fault injection sees IoAllocateWorkItem requests under this tag.
constexpr const char* kWorkItemTag = "IoWk";

// Every live work item, under the dispatcher lock: from IoAllocateWorkItem
// (until IoFreeWorkItem) or set up in the driver's storage by
// IoInitializeWorkItem (until IoUninitializeWorkItem).
struct WorkItemRecord {
    bool queued = false;
    bool initializedInPlace = false;
};

std::unordered_map<const _IO_WORKITEM*, WorkItemRecord>& WorkItems() {
    static auto* items = new std::unordered_map<const _IO_WORKITEM*, WorkItemRecord>;
    return *items;
}

}  // namespace

namespace kvsim::ke {

std::vector<std::string> TakeWorkItemsIn(const char* begin, const char* end) {
    std::vector<std::string> lines;
    Kernel* k = KernelIfStarted();
    if (k == nullptr) return lines;
    std::lock_guard<std::mutex> guard(k->m);
    auto& items = WorkItems();
    for (auto it = items.begin(); it != items.end();) {
        auto* at = reinterpret_cast<const char*>(it->first);
        if (!it->second.initializedInPlace || at < begin || at >= end) {
            ++it;
            continue;
        }
        char text[200];
        snprintf(text, sizeof text,
                 "the block holds work item %p, initialised by IoInitializeWorkItem and%s not uninitialised with "
                 "IoUninitializeWorkItem",
                 static_cast<const void*>(at), it->second.queued ? " still queued," : "");
        lines.emplace_back(text);
        it = items.erase(it);
    }
    return lines;
}

}  // namespace kvsim::ke

extern "C" {

PKTHREAD KeGetCurrentThread(VOID) { return KThreadOf(Self()); }
PETHREAD PsGetCurrentThread(VOID) { return Self()->ethread; }

// The simulation delivers no APCs; the critical-region depth is kept so that
// KeAreApcsDisabled answers and unbalanced calls are seen.
VOID KeEnterCriticalRegion(VOID) { Self()->criticalRegion++; }
VOID KeLeaveCriticalRegion(VOID) {
    SimThread* self = Self();
    if (self->criticalRegion == 0) {
        kvsim::ReportViolation("KeLeaveCriticalRegion without KeEnterCriticalRegion");
        return;
    }
    self->criticalRegion--;
}
BOOLEAN KeAreApcsDisabled(VOID) {
    SimThread* self = Self();
    return (self->criticalRegion > 0 || self->irql >= APC_LEVEL) ? TRUE : FALSE;
}
HANDLE PsGetCurrentThreadId(VOID) { return Self()->ethread->Cid.UniqueThread; }
HANDLE PsGetCurrentProcessId(VOID) { return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4)); }

BOOLEAN PsIsSystemThread(PETHREAD Thread) { return Thread != nullptr ? TRUE : FALSE; }

KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority) {
    if (Priority < LOW_PRIORITY + 1 || Priority > HIGH_PRIORITY)
        kvsim::ReportViolation("KeSetPriorityThread: priority %d is outside 1..31", static_cast<int>(Priority));
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    auto* t = static_cast<SimThread*>(Thread->SimThread);
    if (t == nullptr) return 0;
    KPRIORITY old = t->priority;
    t->priority = Priority;
    return old;
}

KPRIORITY KeQueryPriorityThread(PKTHREAD Thread) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    auto* t = static_cast<SimThread*>(Thread->SimThread);
    return t != nullptr ? t->priority : 0;
}

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext) {
    (void)DesiredAccess;
    (void)ObjectAttributes;
    (void)ProcessHandle;
    SimThread* self = Self();
    if (self->irql != PASSIVE_LEVEL)
        kvsim::ReportViolation("PsCreateSystemThread called at IRQL %u (must be PASSIVE_LEVEL)", self->irql);
    if (ThreadHandle == nullptr || StartRoutine == nullptr) return STATUS_INVALID_PARAMETER;
    Kernel& k = K();
    SimThread* t = new SimThread;
    t->kind = ThreadKind::System;
    t->start = StartRoutine;
    t->startContext = StartContext;
    t->ethread = new ETHREAD{};
    t->ethread->Tcb.Header.Type = KV_OBJECT_THREAD;
    InitializeListHead(&t->ethread->Tcb.Header.WaitListHead);
    t->ethread->Tcb.SimThread = t;
    kvsim::ObRegisterObject(t->ethread, *PsThreadType, DestroyThreadObject);
    HANDLE handle = kvsim::ObInsertHandle(t->ethread);
    {
        std::lock_guard<std::mutex> guard(k.m);
        ++k.threadNumber;
        t->ethread->Cid.UniqueProcess = PsGetCurrentProcessId();
        t->ethread->Cid.UniqueThread = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4 * (k.threadNumber + 1)));
        t->name = "system thread " + std::to_string(k.threadNumber) + " (" +
                  RoutineName(reinterpret_cast<const void*>(StartRoutine)) + ")";
        k.threads.push_back(t);
        MakeReadyLocked(k, t);
        DispatchLocked(k);
    }
    if (ClientId != nullptr) *ClientId = t->ethread->Cid;
    *ThreadHandle = handle;
    std::thread([&k, t] { SystemThreadMain(k, t, CurrentThreadSlot()); }).detach();
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus) {
    SimThread* self = Self();
    if (self->kind != ThreadKind::System) {
        kvsim::ReportViolation("PsTerminateSystemThread called on '%s', which is not a driver-created system thread",
                               self->name.c_str());
        return STATUS_INVALID_PARAMETER;
    }
    throw ThreadExit{ExitStatus};
}

// ---- time ---------------------------------------------------------------------------
VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = kSystemTimeEpoch + kvsim::Now(); }
VOID KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime) { KeQuerySystemTime(CurrentTime); }
ULONGLONG KeQueryInterruptTime(VOID) { return static_cast<ULONGLONG>(kvsim::Now()); }

ULONGLONG KeQueryInterruptTimePrecise(PULONGLONG QpcTimeStamp) {
    ULONGLONG now = static_cast<ULONGLONG>(kvsim::Now());
    if (QpcTimeStamp != nullptr) *QpcTimeStamp = now;
    return now;
}

// The performance counter runs at 10 MHz: one count per 100 ns of interrupt time.
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
    if (PerformanceFrequency != nullptr) PerformanceFrequency->QuadPart = 10'000'000;
    LARGE_INTEGER counter;
    counter.QuadPart = kvsim::Now();
    return counter;
}

// The default clock interval of Windows: 15.625 ms = 156250 units of 100 ns
// (learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-kequerytimeincrement).
ULONG KeQueryTimeIncrement(VOID) { return static_cast<ULONG>(kClockTick); }

VOID KeQueryTickCount(PLARGE_INTEGER CurrentCount) { CurrentCount->QuadPart = kvsim::Now() / 156250; }

// Busy-waits without giving up the processor; in Virtual mode the stall
// moves the clock (what is due then fires at the next idle moment).
VOID KeStallExecutionProcessor(ULONG MicroSeconds) {
    Kernel& k = K();
    if (k.mode == kvsim::ClockMode::Virtual) {
        std::lock_guard<std::mutex> guard(k.m);
        k.virtualNow.store(k.virtualNow.load() + static_cast<LONGLONG>(MicroSeconds) * kvsim::kMicrosecond);
        return;
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(MicroSeconds);
    while (std::chrono::steady_clock::now() < until) {
    }
}

// ---- work items ----------------------------------------------------------------------
// docs: learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-ioqueueworkitem
// (the I/O manager holds a reference to the device object until the routine
// has returned; the routine runs at PASSIVE_LEVEL in a system worker thread).
// IoAllocateWorkItem takes part in fault injection (kvsim/pool.h), as it
// does in Driver Verifier's low resources simulation
// (learn.microsoft.com/windows-hardware/drivers/devtest/low-resources-simulation).
PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    if (Self()->irql > DISPATCH_LEVEL)
        kvsim::ReportViolation("IoAllocateWorkItem called at IRQL %u (must be <= DISPATCH_LEVEL)", Self()->irql);
    if (kvsim::PoolTakeInjectedFailure(kvsim::PoolTag(kWorkItemTag))) return nullptr;
    auto* item = new _IO_WORKITEM{DeviceObject};
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    WorkItems()[item] = WorkItemRecord{};
    return item;
}

// docs: learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-ioinitializeworkitem
// (the storage is the driver's, IoSizeofWorkItem bytes of nonpaged pool; it
// must be uninitialised by IoUninitializeWorkItem before it is freed).
VOID IoInitializeWorkItem(PVOID IoObject, PIO_WORKITEM IoWorkItem) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    auto it = WorkItems().find(IoWorkItem);
    if (it != WorkItems().end() && it->second.queued) {
        kvsim::ReportViolation("IoInitializeWorkItem: work item %p is queued", static_cast<void*>(IoWorkItem));
        return;
    }
    IoWorkItem->DeviceObject = static_cast<PDEVICE_OBJECT>(IoObject);
    WorkItems()[IoWorkItem] = WorkItemRecord{false, true};
}

VOID IoUninitializeWorkItem(PIO_WORKITEM IoWorkItem) {
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    auto it = WorkItems().find(IoWorkItem);
    if (it == WorkItems().end() || !it->second.initializedInPlace) {
        kvsim::ReportViolation("IoUninitializeWorkItem(%p): not a work item set up by IoInitializeWorkItem",
                               static_cast<void*>(IoWorkItem));
        return;
    }
    if (it->second.queued) {
        kvsim::ReportViolation("IoUninitializeWorkItem: work item %p is still queued", static_cast<void*>(IoWorkItem));
        return;
    }
    WorkItems().erase(it);
}

ULONG IoSizeofWorkItem(VOID) { return sizeof(_IO_WORKITEM); }

VOID IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context) {
    (void)QueueType;  // one pool of worker threads serves every queue
    SimThread* self = Self();
    if (self->irql > DISPATCH_LEVEL)
        kvsim::ReportViolation("IoQueueWorkItem called at IRQL %u (must be <= DISPATCH_LEVEL)", self->irql);
    Kernel& k = K();
    std::lock_guard<std::mutex> guard(k.m);
    auto record = WorkItems().find(IoWorkItem);
    if (record == WorkItems().end()) {
        kvsim::ReportViolation("IoQueueWorkItem: %p is not a live work item", static_cast<void*>(IoWorkItem));
        return;
    }
    if (record->second.queued) {
        kvsim::ReportViolation("IoQueueWorkItem: work item %p is already queued", static_cast<void*>(IoWorkItem));
        return;
    }
    record->second.queued = true;
    PDEVICE_OBJECT device = IoWorkItem->DeviceObject;
    ObReferenceObject(device);
    k.counters.workItemsQueued++;
    k.counters.workItemsPending++;
    auto run = [IoWorkItem, WorkerRoutine, Context, device] {
        {
            Kernel& kk = K();
            std::lock_guard<std::mutex> g(kk.m);
            // Cleared first: the routine commonly frees its own work item.
            auto it = WorkItems().find(IoWorkItem);
            if (it != WorkItems().end()) it->second.queued = false;
        }
        WorkerRoutine(device, Context);
        ObDereferenceObject(device);
    };
    QueueWorkLocked(k, WorkEntry{std::move(run), true});
    DispatchLocked(k);
}

VOID IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    if (IoWorkItem == nullptr) return;
    {
        Kernel& k = K();
        std::lock_guard<std::mutex> guard(k.m);
        auto it = WorkItems().find(IoWorkItem);
        if (it == WorkItems().end() || it->second.initializedInPlace) {
            kvsim::ReportViolation("IoFreeWorkItem(%p): not a work item from IoAllocateWorkItem%s",
                                   static_cast<void*>(IoWorkItem),
                                   it == WorkItems().end() ? " (freed twice?)" : " (IoUninitializeWorkItem undoes "
                                                                                 "IoInitializeWorkItem)");
            return;
        }
        if (it->second.queued) {
            kvsim::ReportViolation("IoFreeWorkItem: work item %p is still queued", static_cast<void*>(IoWorkItem));
            return;
        }
        WorkItems().erase(it);
    }
    delete IoWorkItem;
}

}  // extern "C"
