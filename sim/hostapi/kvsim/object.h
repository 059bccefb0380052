// Host-side control of the simulated object manager (sim/kernel/base/ob.cpp).
// Simulation modules register their kernel objects here so that handles,
// ObReferenceObjectByHandle, ObDereferenceObject and ZwClose work for all of
// them alike. Not visible to the driver.
#pragma once
#include "kv/ob.h"

namespace kvsim {

// Called when an object's last reference (handle or pointer) goes away.
using ObjectDestroy = void (*)(void* body);

// Registers `body` as a kernel object of `type` with one pointer reference
// held by the caller; `destroy` runs when the count reaches zero.
void ObRegisterObject(void* body, POBJECT_TYPE type, ObjectDestroy destroy);

// Creates a kernel handle that holds its own reference to a registered object.
HANDLE ObInsertHandle(void* body);

// The object a handle names, with a new reference, or nullptr (no reference
// taken) when the handle is not open or names another type (type may be null
// for any type).
void* ObReferenceByHandle(HANDLE handle, POBJECT_TYPE type);

// Number of objects still registered, for leak checks at the end of a test.
size_t ObLiveObjectCount();
size_t ObOpenHandleCount();
// Handle values start again from the first when none is open.
void ObResetHandleNumbering();

}  // namespace kvsim
