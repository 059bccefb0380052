// The simulated ks.sys, core side (device, filter factories, filters, pins,
// the queue): declarations shared by sim/ks/{objects,device,filter,pin,
// queue}.cpp and not needed by the automation code (which uses
// ks_internal.h only).
#pragma once
#include <new>

#include "ks_internal.h"
#include "kvsim/pool.h"

namespace kvsim::ks {

// ---- objects in pool ---------------------------------------------------------------
// ks.sys takes its objects from non-paged pool; so does the simulation, so
// that a leaked filter or pin shows in the pool check at the end of a test.
inline const ULONG kObjectTag = PoolTag("KSob");
inline const ULONG kBagTag = PoolTag("KSbg");
inline const ULONG kFormatTag = PoolTag("KSfm");
inline const ULONG kStreamPointerTag = PoolTag("KSsp");

template <class T>
T* NewObject() {
    void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(T), kObjectTag);
    return memory ? new (memory) T() : nullptr;
}

template <class T>
void DeleteObject(T* object) {
    if (!object) return;
    object->~T();
    ExFreePoolWithTag(object, kObjectTag);
}

// Fills the header's common parts and registers the object for the
// public-address lookup. `parent` may be null (a device).
void InitHeader(ObjectHeader& header, ObjectKind kind, void* publicObject, ObjectHeader* parent, KsDevice* device,
                const KSAUTOMATION_TABLE* automation);
// Unlinks from the parent's children and from the lookup.
void UnlinkHeader(ObjectHeader& header);

// ---- bags ------------------------------------------------------------------------------
// A new empty bag (KSOBJECT_BAG) for an object of `device`, or null.
KSOBJECT_BAG NewBag(KsDevice* device);
// Frees every item (their free routines run, in the order they were added)
// and the bag itself.
void FreeBag(KSOBJECT_BAG bag);

// ---- device --------------------------------------------------------------------------
KsDevice* DeviceFromDeviceObject(PDEVICE_OBJECT fdo);
// Destroys a filter factory (its filters must be gone): disables its
// device interfaces, frees its bag, unlinks it.
void DestroyFilterFactory(KsFilterFactory* factory);
// Enables/disables the factory's device interfaces.
void SetFactoryInterfaces(KsFilterFactory* factory, bool enable);

// ---- create / close / I/O on filters and pins (IRP_MJ_* on the FDO) ---------------------
NTSTATUS CreateFilter(KsDevice* device, PIRP irp);
NTSTATUS CreatePin(KsFilter* filter, PIRP irp);
// Close of the object's file object: Close dispatch, automation, bag, free.
NTSTATUS CloseObject(ObjectHeader* object, PIRP irp);

// ---- pins ---------------------------------------------------------------------------
// Stream IOCTLs on a pin; completes or pends the IRP.
NTSTATUS DispatchStreamIoctl(KsPin* pin, PIRP irp);
// Completes every queued stream IRP with `status` (pin stop, close, removal).
void FlushPinQueue(KsPin* pin, NTSTATUS status);
// Calls Process as the pin's flags and state allow (the AVStream processing
// rules), synchronously in the calling thread.
void ProcessPin(KsPin* pin);
// Pin power callbacks of every pin of the device.
void NotifyPinsOfPower(KsDevice* device, DEVICE_POWER_STATE state, bool sleeping);
// Moves every pin of the device to STOP (surprise removal).
void StopAllPins(KsDevice* device);
// Frees the pin's stream pointers and format.
void ReleasePinResources(KsPin* pin);

}  // namespace kvsim::ks
