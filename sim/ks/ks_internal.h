// The simulated ks.sys: its internal object model, shared by the files of
// sim/ks (device and PnP, filters and pins, the queue: helper H7; automation,
// i.e. property/method/event dispatch and the built-in sets: helper H8).
//
// Every AVStream object is a C++ struct that embeds the public structure
// FIRST (KSDEVICE, KSFILTERFACTORY, KSFILTER, KSPIN), followed by an
// ObjectHeader that is common to all four kinds. The minidriver only ever
// sees the public structure's address; HeaderFromObject maps that address
// back (and rejects addresses that are no live AVStream object, which
// ks.sys would crash on; we report a violation instead).
//
// Filters and pins are reached from I/O through their FILE_OBJECT: ks.sys
// keeps the object in FileObject->FsContext (here: the ObjectHeader*), so
// HeaderFromFileObject / HeaderFromIrp read the IRP's current stack
// location's FileObject.
//
// Locking: as in AVStream, each filter and pin has its own control mutex
// (KsAcquireControl), taken around its create/close/state/property
// dispatch; the device mutex (KsAcquireDevice) is taken around PnP and
// power dispatch and around changes of the object tree (children lists).
#pragma once
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "ks.h"
#include "kvsim/verifier.h"

namespace kvsim::ks {

enum class ObjectKind { Device, FilterFactory, Filter, Pin };

struct KsDevice;
struct KsFilterFactory;
struct KsFilter;
struct KsPin;

// What every AVStream object has.
struct ObjectHeader {
    ObjectKind kind;
    void* publicObject = nullptr;  // &KSDEVICE / &KSFILTERFACTORY / &KSFILTER / &KSPIN
    ObjectHeader* parent = nullptr;
    std::vector<ObjectHeader*> children;  // creation order (KsGetFirstChild / KsGetNextSibling)
    KsDevice* device = nullptr;           // the owning device (itself for a device)
    // The object's own file object: a filter's or pin's handle (null for a
    // device and a filter factory).
    PFILE_OBJECT fileObject = nullptr;
    // The minidriver's automation table from the descriptor (filter
    // descriptor, pin descriptor), or null. ks.sys adds its built-in sets
    // (KSPROPSETID_Pin, General, Topology on a filter; Connection, Stream on a
    // pin): that is H8's dispatch code, not a merged table.
    const KSAUTOMATION_TABLE* automationTable = nullptr;
    KMUTEX controlMutex;  // KsAcquireControl / KsReleaseControl
    // Enabled events on this object (KSEVENT_ENTRY.ListEntry); H8 owns the
    // list's contents and its lock. Initialised empty by the creator.
    LIST_ENTRY eventList;
    KSPIN_LOCK eventLock = 0;
    // Free for the automation code (H8) to hang per-object state on; H8
    // frees it from AutomationObjectClosing.
    void* automationState = nullptr;
};

// ---- device --------------------------------------------------------------------
struct KsDevice {
    KSDEVICE pub;  // first: PKSDEVICE == (KsDevice*)
    ObjectHeader header;
    KMUTEX mutex;  // KsAcquireDevice / KsReleaseDevice
    bool removed = false;          // IRP_MN_REMOVE_DEVICE (or surprise removal) seen
    bool surpriseRemoved = false;
    POWER_ACTION lastPowerAction = PowerActionNone;
    // S-state -> D-state from the last IRP_MN_QUERY_CAPABILITIES
    // (PowerDeviceUnspecified: not known; S0 -> D0, others -> D3 then).
    DEVICE_POWER_STATE systemToDevice[PowerSystemMaximum] = {};
};

// ---- filter factory -------------------------------------------------------------
struct KsFilterFactory {
    KSFILTERFACTORY pub;
    ObjectHeader header;
    std::u16string referenceString;      // matched against the create file name
    ULONG createItemFlags = 0;           // KSCREATE_ITEM_*
    PFNKSFILTERFACTORYPOWER sleepCallback = nullptr;
    PFNKSFILTERFACTORYPOWER wakeCallback = nullptr;
    std::vector<std::u16string> symbolicLinks;  // one device interface per category
    bool interfacesEnabled = false;
};

// ---- filter --------------------------------------------------------------------
struct KsFilter {
    KSFILTER pub;
    ObjectHeader header;
    KsFilterFactory* factory = nullptr;
    std::vector<ULONG> pinInstanceCounts;  // per pin id: pins open now
    PFNKSFILTERPOWER sleepCallback = nullptr;
    PFNKSFILTERPOWER wakeCallback = nullptr;
    KMUTEX processingMutex;       // KsFilterAcquireProcessingMutex
    LONGLONG processingSince = 0;  // when it was last acquired (outermost)
};

// One client buffer: a KSSTREAM_HEADER of an IOCTL_KS_READ_STREAM /
// IOCTL_KS_WRITE_STREAM IRP.
struct QueuedFrame {
    PIRP irp = nullptr;
    PKSSTREAM_HEADER header = nullptr;
    ULONG index = 0;  // which header of the IRP's array
};

// One IRP of the queue, with its frames; completed when every frame of it
// has been ejected (or on cancellation/flush).
struct QueuedIrp {
    PIRP irp = nullptr;
    ULONG framesLeft = 0;
    NTSTATUS status = STATUS_SUCCESS;
    // IoCancelIrp came while a locked stream pointer held one of its frames
    // ("Data frames pointed to by locked stream pointers cannot be
    // canceled"): the cancellation takes effect once the pointer lets go.
    bool cancelDeferred = false;
    // Its frames left the queue (flush) while its cancel routine was
    // already running: the cancel routine completes it.
    bool awaitingCancelRoutine = false;
};

struct KsStreamPointer;

// ---- pin -----------------------------------------------------------------------
struct KsPin {
    KSPIN pub;
    ObjectHeader header;
    KsFilter* filter = nullptr;
    PKSDATAFORMAT formatStorage = nullptr;  // pub.ConnectionFormat points here (pool)
    // The queue (IOCTL_KS_READ_STREAM / WRITE_STREAM); guarded by queueLock.
    KSPIN_LOCK queueLock = 0;
    std::deque<QueuedFrame> frames;      // not yet ejected, oldest first
    std::vector<QueuedIrp> irps;         // IRPs with frames still queued
    KsStreamPointer* leadingEdge = nullptr;  // made on first use, freed at close; on the front frame
    // Processing.
    KMUTEX processingMutex;  // KsPinAcquireProcessingMutex; held around Process
    LONGLONG processingSince = 0;  // when it was last acquired (outermost)
    bool processPending = false;        // KsPinAttemptProcessing while processing
    bool inProcess = false;
    // The clock the client assigned (KSPROPERTY_STREAM_MASTERCLOCK set):
    // the clock's file object, referenced while assigned; null when none
    // (SetPinMasterClock).
    PVOID masterClock = nullptr;
    PFNKSPINPOWER sleepCallback = nullptr;
    PFNKSPINPOWER wakeCallback = nullptr;
};

// The stream pointer ks.sys hands out: public structure first.
struct KsStreamPointer {
    KSSTREAM_POINTER pub;
    KsPin* pin = nullptr;
    bool locked = false;
};

// ---- lookups ---------------------------------------------------------------------
// The header of a live AVStream object given its public address (PKSDEVICE,
// PKSFILTER, ...), or null (with a violation reported) when it is none.
ObjectHeader* HeaderFromObject(const void* object);
// Without the violation: for probing.
ObjectHeader* FindHeader(const void* object);
// The object a filter's or pin's file object stands for (FsContext), or null.
ObjectHeader* HeaderFromFileObject(PFILE_OBJECT fileObject);
// The same for the current stack location's FileObject of `irp`.
ObjectHeader* HeaderFromIrp(PIRP irp);

inline KsDevice* AsDevice(ObjectHeader* h) {
    return h && h->kind == ObjectKind::Device ? static_cast<KsDevice*>(h->publicObject) : nullptr;
}
inline KsFilterFactory* AsFactory(ObjectHeader* h) {
    return h && h->kind == ObjectKind::FilterFactory ? static_cast<KsFilterFactory*>(h->publicObject) : nullptr;
}
inline KsFilter* AsFilter(ObjectHeader* h) {
    return h && h->kind == ObjectKind::Filter ? static_cast<KsFilter*>(h->publicObject) : nullptr;
}
inline KsPin* AsPin(ObjectHeader* h) {
    return h && h->kind == ObjectKind::Pin ? static_cast<KsPin*>(h->publicObject) : nullptr;
}

// ---- what the automation code (H8) needs from filters and pins ---------------------
// The pin descriptor of pin id `pinId` of a filter (using PinDescriptorSize
// as the stride, as ks.sys does), or null when the id is out of range.
const KSPIN_DESCRIPTOR_EX* FilterPinDescriptor(const KSFILTER_DESCRIPTOR* descriptor, ULONG pinId);
// Pins of id `pinId` open on the filter now (KSPROPERTY_PIN_CINSTANCES).
ULONG PinInstanceCount(KsFilter* filter, ULONG pinId);

// Moves the pin's state to `target` one step at a time (STOP <-> ACQUIRE <->
// PAUSE <-> RUN), calling the pin's SetDeviceState(pin, to, from) for each
// step; on a failing step the pin stays in the last state reached and the
// failure is returned. Sets KSPIN.ClientState to the target first and
// KSPIN.DeviceState after each successful step. Processing is attempted
// when the pin reaches PAUSE/RUN as the pin flags allow. Called at
// PASSIVE_LEVEL by the KSPROPERTY_CONNECTION_STATE set handler (H8). It
// takes the pin's control mutex (the filter's; a KMUTEX, so a caller that
// already holds it may call it).
NTSTATUS ChangePinState(KsPin* pin, KSSTATE target);

// The KSPROPERTY_STREAM_MASTERCLOCK set handler's work: the pin's reference
// clock from now on, given as the clock's file object with a reference that
// the pin takes over (null: none; KsPinGetReferenceClockInterface then
// fails). The reference of a previous clock is dropped, as is the last one
// when the pin closes. The simulated clock's time is kvsim::Now().
void SetPinMasterClock(KsPin* pin, PVOID clockFileObject);

// ---- the automation code's entry points (implemented by H8 in
// sim/ks/automation*.cpp) -----------------------------------------------------------------
// IOCTL_KS_PROPERTY / IOCTL_KS_ENABLE_EVENT / IOCTL_KS_DISABLE_EVENT /
// IOCTL_KS_METHOD on `object` (a filter or a pin). Completes the IRP and
// returns its status (or returns STATUS_PENDING having marked it pending).
NTSTATUS DispatchAutomationIoctl(PIRP irp, ObjectHeader* object);
// Called when `object` closes (before its bag is freed and before it is
// unlinked): disables the events enabled on it and frees automationState.
void AutomationObjectClosing(ObjectHeader* object);

// ---- ks.sys's checks of the minidriver ---------------------------------------------------
// Driver Verifier's rules for AVStream drivers (sim/ks/rules.cpp;
// https://learn.microsoft.com/windows-hardware/drivers/devtest/rules-for-avstream-drivers).
enum class CallbackOwner { Device, Filter, Pin };

// Around one call into the minidriver: when it returns, the device mutex must
// be held as often as before (KsDeviceMutex), every other lock the callback
// took must be released, and in the Virtual clock mode at most 500 ms of
// simulated time may have passed (KsTimedDeviceCallbacks,
// KsTimedFilterCallbacks, KsTimedPinCallbacks). What is wrong is reported
// and put right (locks released, the device mutex rebalanced).
class MinidriverCall {
public:
    MinidriverCall(KsDevice* device, CallbackOwner owner, const char* name, const void* routine);
    ~MinidriverCall();
    MinidriverCall(const MinidriverCall&) = delete;
    MinidriverCall& operator=(const MinidriverCall&) = delete;

private:
    KsDevice* device_;
    CallbackOwner owner_;
    const char* name_;
    const void* routine_;
    LONGLONG start_;
    size_t deviceHolds_;
    kvsim::HeldLocks locks_;
};

// Calls the minidriver's `fn` (a device, filter or pin callback named `name`)
// under MinidriverCall's checks and returns what it returns.
template <class Fn, class... Args>
decltype(auto) CallMinidriver(KsDevice* device, CallbackOwner owner, const char* name, Fn fn, Args&&... args) {
    MinidriverCall call(device, owner, name, reinterpret_cast<const void*>(fn));
    return fn(std::forward<Args>(args)...);
}

// The processing mutexes of pins and filters (`owner` is the KSPIN or
// KSFILTER, `ownerKind` "pin" or "filter"). Not recursive (KsProcessingMutex:
// the minidriver acquiring it again on the same thread is reported, a
// deadlock on Windows; ks.sys's own Process dispatch nests inside a
// minidriver's hold, as KsPinAttemptProcessing may be called under it); held
// for at most 100 ms of simulated time in the Virtual clock mode
// (KsTimedProcessingMutex). A release by a thread that does not hold it is
// reported.
void AcquireProcessingMutex(PKMUTEX mutex, LONGLONG* since, const char* ownerKind, const void* owner,
                            bool byMinidriver);
void ReleaseProcessingMutex(PKMUTEX mutex, const LONGLONG* since, const char* ownerKind, const void* owner);

}  // namespace kvsim::ks
