// Simulated Windows kernel headers: the kernel's (Ke), process manager's (Ps)
// and work-item share of wdm.h: IRQL, spin locks, dispatcher objects (events,
// semaphores, mutexes, timers, threads), waits, DPCs, time, system threads,
// Interlocked* and the LIST_ENTRY helpers, work items and fast mutexes.
//
// Names, parameter lists and the fields drivers touch are those of the
// Windows x64 WDK; the sizes of the opaque parts are not. The behaviour is
// implemented in sim/kernel/ke/ on top of the scheduler described in
// kvsim/sched.h.
#pragma once
#include "kv/ntbase.h"

// ---- IRQL -------------------------------------------------------------------
typedef UCHAR KIRQL, *PKIRQL;

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define CMCI_LEVEL 5
#define CLOCK_LEVEL 13
#define IPI_LEVEL 14
#define POWER_LEVEL 14
#define PROFILE_LEVEL 15
#define HIGH_LEVEL 15

// ---- priorities ---------------------------------------------------------------
#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
#define MAXIMUM_PRIORITY 32

// Priority increments for KeSetEvent/KeReleaseSemaphore/IoCompleteRequest.
#define IO_NO_INCREMENT 0
#define EVENT_INCREMENT 1
#define SEMAPHORE_INCREMENT 1
#define IO_KEYBOARD_INCREMENT 6
#define IO_VIDEO_INCREMENT 1
#define IO_SOUND_INCREMENT 8

// ---- wait types and reasons -----------------------------------------------------
typedef enum _WAIT_TYPE { WaitAll, WaitAny, WaitNotification, WaitDequeue, WaitDpc } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    WrFreePage,
    WrPageIn,
    WrPoolAllocation,
    WrDelayExecution,
    WrSuspended,
    WrUserRequest,
    WrSpare0,
    WrQueue,
    WrLpcReceive,
    WrLpcReply,
    WrVirtualMemory,
    WrPageOut,
    WrRendezvous,
    WrKeyedEvent,
    WrTerminated,
    WrProcessInSwap,
    WrCpuRateControl,
    WrCalloutStack,
    WrKernel,
    WrResource,
    WrPushLock,
    WrMutex,
    WrQuantumEnd,
    WrDispatchInt,
    WrPreempted,
    WrYieldExecution,
    WrFastMutex,
    WrGuardedMutex,
    WrRundown,
    WrAlertByThreadId,
    WrDeferredPreempt,
    MaximumWaitReason
} KWAIT_REASON;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

// ---- dispatcher objects -----------------------------------------------------------
// DISPATCHER_HEADER.Type values (the kernel's KOBJECTS numbering).
#define KV_OBJECT_EVENT_NOTIFICATION 0
#define KV_OBJECT_EVENT_SYNCHRONIZATION 1
#define KV_OBJECT_MUTANT 2
#define KV_OBJECT_SEMAPHORE 5
#define KV_OBJECT_THREAD 6
#define KV_OBJECT_TIMER_NOTIFICATION 8
#define KV_OBJECT_TIMER_SYNCHRONIZATION 9

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;
typedef struct _EPROCESS *PEPROCESS;
typedef struct _KPROCESS *PKPROCESS;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, *PRKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    UCHAR WaitType;
    UCHAR BlockState;
    USHORT WaitKey;
    PKTHREAD Thread;
    PVOID Object;
    PVOID SparePtr;
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;

// The simulation's thread object. Drivers treat it as opaque; it is a
// dispatcher object (signalled when the thread has ended) so that
// KeWaitForSingleObject works on it.
typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

struct _KTHREAD {
    DISPATCHER_HEADER Header;
    PVOID SimThread;  // the scheduler's record (sim/kernel/ke), NULL once ended
    KWAIT_BLOCK WaitBlock[THREAD_WAIT_OBJECTS + 1];
};
struct _ETHREAD {
    struct _KTHREAD Tcb;
    CLIENT_ID Cid;
    NTSTATUS ExitStatus;
};
typedef struct _KTHREAD KTHREAD;
typedef struct _ETHREAD ETHREAD;

// ---- DPCs ----------------------------------------------------------------------------
typedef struct _KDPC* PKDPC;
typedef struct _KDPC* PRKDPC;
typedef VOID KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                               PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

typedef enum _KDPC_IMPORTANCE { LowImportance, MediumImportance, HighImportance, MediumHighImportance } KDPC_IMPORTANCE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;  // non-NULL while the DPC is queued
} KDPC;

// ---- timers ----------------------------------------------------------------------------
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;  // interrupt time of the next expiry while set
    LIST_ENTRY TimerListEntry;
    struct _KDPC* Dpc;
    ULONG Processor;
    LONG Period;  // milliseconds, 0 for a one-shot timer
} KTIMER, *PKTIMER, *PRKTIMER;

// ---- spin locks ------------------------------------------------------------------------
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

typedef struct _KSPIN_LOCK_QUEUE {
    struct _KSPIN_LOCK_QUEUE* volatile Next;
    PKSPIN_LOCK volatile Lock;
} KSPIN_LOCK_QUEUE, *PKSPIN_LOCK_QUEUE;

typedef struct _KLOCK_QUEUE_HANDLE {
    KSPIN_LOCK_QUEUE LockQueue;
    KIRQL OldIrql;
} KLOCK_QUEUE_HANDLE, *PKLOCK_QUEUE_HANDLE;

// ---- fast mutexes -------------------------------------------------------------------------
typedef struct _FAST_MUTEX {
    volatile LONG Count;  // 1 free, 0 owned
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX, KGUARDED_MUTEX, *PKGUARDED_MUTEX;

// ---- system threads and work items --------------------------------------------------------------
typedef VOID KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _IO_WORKITEM* PIO_WORKITEM;
typedef VOID IO_WORKITEM_ROUTINE(PDEVICE_OBJECT DeviceObject, PVOID Context);
typedef IO_WORKITEM_ROUTINE* PIO_WORKITEM_ROUTINE;

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    NormalWorkQueue,
    BackgroundWorkQueue,
    RealTimeWorkQueue,
    SuperCriticalWorkQueue,
    MaximumWorkQueue,
    CustomPriorityWorkQueue = 32
} WORK_QUEUE_TYPE;

#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()

// ---- extended processor state (XSAVE) -------------------------------------------------------------
// Feature bits of the XSAVE state components (Intel SDM vol. 1, 13.1): the
// masks KeSaveExtendedProcessorState and RtlGetEnabledExtendedFeatures take.
#define XSTATE_LEGACY_FLOATING_POINT 0
#define XSTATE_LEGACY_SSE 1
#define XSTATE_GSSE 2
#define XSTATE_AVX XSTATE_GSSE
#define XSTATE_MASK_LEGACY_FLOATING_POINT (1ULL << XSTATE_LEGACY_FLOATING_POINT)
#define XSTATE_MASK_LEGACY_SSE (1ULL << XSTATE_LEGACY_SSE)
#define XSTATE_MASK_LEGACY (XSTATE_MASK_LEGACY_FLOATING_POINT | XSTATE_MASK_LEGACY_SSE)
#define XSTATE_MASK_GSSE (1ULL << XSTATE_GSSE)
#define XSTATE_MASK_AVX XSTATE_MASK_GSSE

typedef struct _XSAVE_AREA XSAVE_AREA, *PXSAVE_AREA;  // opaque: the simulation saves no registers

typedef struct _XSTATE_CONTEXT {
    ULONG64 Mask;
    ULONG Length;
    ULONG Reserved1;
    PXSAVE_AREA Area;
    PVOID Buffer;
} XSTATE_CONTEXT, *PXSTATE_CONTEXT;

// The x64 layout. The simulation keeps each thread's saves as Windows does:
// a stack linked through Prev, with the saving thread and its IRQL.
typedef struct _XSTATE_SAVE {
    struct _XSTATE_SAVE* Prev;
    struct _KTHREAD* Thread;
    UCHAR Level;
    XSTATE_CONTEXT XStateContext;
} XSTATE_SAVE, *PXSTATE_SAVE;

// ---- functions ---------------------------------------------------------------------------
KV_EXTERN_C_BEGIN
KIRQL KeGetCurrentIrql(VOID);
VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
VOID KeLowerIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(VOID);

NTSTATUS KeSaveExtendedProcessorState(ULONG64 Mask, PXSTATE_SAVE XStateSave);
VOID KeRestoreExtendedProcessorState(PXSTATE_SAVE XStateSave);

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock);
VOID KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle);
VOID KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle);
VOID KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle);
VOID KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle);

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
LONG KeResetEvent(PRKEVENT Event);
VOID KeClearEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);

VOID KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait);
LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore);

VOID KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
LONG KeReadStateMutex(PRKMUTEX Mutex);

VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex);
VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex);
VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex);
BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);
VOID ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex);
VOID ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex);

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout);
NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

VOID KeInitializeTimer(PKTIMER Timer);
VOID KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
BOOLEAN KeCancelTimer(PKTIMER Timer);
BOOLEAN KeReadStateTimer(PKTIMER Timer);

VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
VOID KeInitializeThreadedDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
VOID KeFlushQueuedDpcs(VOID);
VOID KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance);

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
VOID KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime);
ULONGLONG KeQueryInterruptTime(VOID);
ULONGLONG KeQueryInterruptTimePrecise(PULONGLONG QpcTimeStamp);
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
ULONG KeQueryTimeIncrement(VOID);
VOID KeQueryTickCount(PLARGE_INTEGER CurrentCount);
VOID KeStallExecutionProcessor(ULONG MicroSeconds);

PKTHREAD KeGetCurrentThread(VOID);
VOID KeEnterCriticalRegion(VOID);
VOID KeLeaveCriticalRegion(VOID);
BOOLEAN KeAreApcsDisabled(VOID);
PETHREAD PsGetCurrentThread(VOID);
HANDLE PsGetCurrentThreadId(VOID);
HANDLE PsGetCurrentProcessId(VOID);
KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
KPRIORITY KeQueryPriorityThread(PKTHREAD Thread);
NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext);
NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
BOOLEAN PsIsSystemThread(PETHREAD Thread);

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
VOID IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context);
VOID IoFreeWorkItem(PIO_WORKITEM IoWorkItem);
ULONG IoSizeofWorkItem(VOID);
VOID IoInitializeWorkItem(PVOID IoObject, PIO_WORKITEM IoWorkItem);
VOID IoUninitializeWorkItem(PIO_WORKITEM IoWorkItem);

PLIST_ENTRY ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock);
PLIST_ENTRY ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock);
PLIST_ENTRY ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock);
PSINGLE_LIST_ENTRY ExInterlockedPushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY ListEntry,
                                              PKSPIN_LOCK Lock);
PSINGLE_LIST_ENTRY ExInterlockedPopEntryList(PSINGLE_LIST_ENTRY ListHead, PKSPIN_LOCK Lock);
KV_EXTERN_C_END

// On x64 KeAcquireSpinLock is a macro over KeAcquireSpinLockRaiseToDpc.
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))
#define KeInitializeGuardedMutex(m) ExInitializeFastMutex(m)
#define KeAcquireGuardedMutex(m) ExAcquireFastMutex(m)
#define KeReleaseGuardedMutex(m) ExReleaseFastMutex(m)
#define KeTryToAcquireGuardedMutex(m) ExTryToAcquireFastMutex(m)
#define KeWaitForMutexObject KeWaitForSingleObject

// ---- Interlocked (full barriers, as the x64 intrinsics) ----------------------------------------
#define KV_ATOMIC_SEQ __ATOMIC_SEQ_CST
FORCEINLINE LONG InterlockedIncrement(LONG volatile* Addend) { return __atomic_add_fetch(Addend, 1, KV_ATOMIC_SEQ); }
FORCEINLINE LONG InterlockedDecrement(LONG volatile* Addend) { return __atomic_sub_fetch(Addend, 1, KV_ATOMIC_SEQ); }
FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE CHAR InterlockedExchange8(CHAR volatile* Target, CHAR Value) {
    return __atomic_exchange_n(Target, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) {
    return __atomic_fetch_add(Addend, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG InterlockedAdd(LONG volatile* Addend, LONG Value) {
    return __atomic_add_fetch(Addend, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, KV_ATOMIC_SEQ, KV_ATOMIC_SEQ);
    return Comparand;
}
FORCEINLINE LONG InterlockedAnd(LONG volatile* Destination, LONG Value) {
    return __atomic_fetch_and(Destination, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG InterlockedOr(LONG volatile* Destination, LONG Value) {
    return __atomic_fetch_or(Destination, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG InterlockedXor(LONG volatile* Destination, LONG Value) {
    return __atomic_fetch_xor(Destination, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile* Addend) {
    return __atomic_add_fetch(Addend, 1, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile* Addend) {
    return __atomic_sub_fetch(Addend, 1, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile* Target, LONG64 Value) {
    return __atomic_exchange_n(Target, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedExchangeAdd64(LONG64 volatile* Addend, LONG64 Value) {
    return __atomic_fetch_add(Addend, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedAdd64(LONG64 volatile* Addend, LONG64 Value) {
    return __atomic_add_fetch(Addend, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 Exchange, LONG64 Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, KV_ATOMIC_SEQ, KV_ATOMIC_SEQ);
    return Comparand;
}
FORCEINLINE LONG64 InterlockedAnd64(LONG64 volatile* Destination, LONG64 Value) {
    return __atomic_fetch_and(Destination, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE LONG64 InterlockedOr64(LONG64 volatile* Destination, LONG64 Value) {
    return __atomic_fetch_or(Destination, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, KV_ATOMIC_SEQ);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, KV_ATOMIC_SEQ, KV_ATOMIC_SEQ);
    return Comparand;
}
FORCEINLINE BOOLEAN InterlockedBitTestAndSet(LONG volatile* Base, LONG Offset) {
    LONG mask = (LONG)(1UL << (Offset & 31));
    return (BOOLEAN)((__atomic_fetch_or(Base + (Offset >> 5), mask, KV_ATOMIC_SEQ) & mask) != 0);
}
FORCEINLINE BOOLEAN InterlockedBitTestAndReset(LONG volatile* Base, LONG Offset) {
    LONG mask = (LONG)(1UL << (Offset & 31));
    return (BOOLEAN)((__atomic_fetch_and(Base + (Offset >> 5), ~mask, KV_ATOMIC_SEQ) & mask) != 0);
}
FORCEINLINE LONG ReadNoFence(LONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
FORCEINLINE LONG ReadAcquire(LONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_ACQUIRE); }
FORCEINLINE VOID WriteRelease(LONG volatile* Destination, LONG Value) {
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE VOID KeMemoryBarrier(VOID) { __atomic_thread_fence(KV_ATOMIC_SEQ); }
#define MemoryBarrier() KeMemoryBarrier()
#define YieldProcessor() __builtin_ia32_pause()

// ---- LIST_ENTRY helpers (as wdm.h) ----------------------------------------------------------------
FORCEINLINE VOID InitializeListHead(PLIST_ENTRY ListHead) { ListHead->Flink = ListHead->Blink = ListHead; }
FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead) { return (BOOLEAN)(ListHead->Flink == ListHead); }
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY next = Entry->Flink;
    PLIST_ENTRY prev = Entry->Blink;
    prev->Flink = next;
    next->Blink = prev;
    return (BOOLEAN)(next == prev);
}
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY entry = ListHead->Flink;
    PLIST_ENTRY next = entry->Flink;
    ListHead->Flink = next;
    next->Blink = ListHead;
    return entry;
}
FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY entry = ListHead->Blink;
    PLIST_ENTRY prev = entry->Blink;
    ListHead->Blink = prev;
    prev->Flink = ListHead;
    return entry;
}
FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY prev = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = prev;
    prev->Flink = Entry;
    ListHead->Blink = Entry;
}
FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY next = ListHead->Flink;
    Entry->Flink = next;
    Entry->Blink = ListHead;
    next->Blink = Entry;
    ListHead->Flink = Entry;
}
FORCEINLINE VOID AppendTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListToAppend) {
    PLIST_ENTRY end = ListHead->Blink;
    ListHead->Blink->Flink = ListToAppend;
    ListHead->Blink = ListToAppend->Blink;
    ListToAppend->Blink->Flink = ListHead;
    ListToAppend->Blink = end;
}
FORCEINLINE VOID PushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY Entry) {
    Entry->Next = ListHead->Next;
    ListHead->Next = Entry;
}
FORCEINLINE PSINGLE_LIST_ENTRY PopEntryList(PSINGLE_LIST_ENTRY ListHead) {
    PSINGLE_LIST_ENTRY first = ListHead->Next;
    if (first != NULL) ListHead->Next = first->Next;
    return first;
}
