// The simulated object manager: reference-counted kernel objects and one
// kernel handle table shared by threads, registry keys and files.
//
// Handle values follow what a driver sees for OBJ_KERNEL_HANDLE handles on
// x64 Windows: multiples of 4 with the top bit set, never NULL.
#include "kvsim/object.h"

#include <map>
#include <mutex>

#include "kvsim/diag.h"

namespace {

struct ObjectType {
    const char* name;
};
ObjectType g_threadType{"Thread"};
ObjectType g_fileType{"File"};
ObjectType g_eventType{"Event"};
ObjectType g_keyType{"Key"};
POBJECT_TYPE g_threadTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_threadType);
POBJECT_TYPE g_fileTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_fileType);
POBJECT_TYPE g_eventTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_eventType);
POBJECT_TYPE g_keyTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_keyType);

struct ObjectEntry {
    POBJECT_TYPE type;
    kvsim::ObjectDestroy destroy;
    LONG_PTR references;
};

struct ObState {
    std::mutex lock;
    std::map<void*, ObjectEntry> objects;
    std::map<ULONG_PTR, void*> handles;
    ULONG_PTR nextHandle = 0xFFFFFFFF80000004ull;
};

ObState& State() {
    static ObState* state = new ObState;
    return *state;
}

// Drops one reference; returns the destroy routine to call outside the lock
// when it was the last.
kvsim::ObjectDestroy DropLocked(ObState& s, void* body, LONG_PTR* remaining) {
    auto it = s.objects.find(body);
    if (it == s.objects.end()) {
        kvsim::ReportViolation("ObDereferenceObject on %p, which is not a live object", body);
        *remaining = -1;
        return nullptr;
    }
    *remaining = --it->second.references;
    if (*remaining > 0) return nullptr;
    kvsim::ObjectDestroy destroy = it->second.destroy;
    s.objects.erase(it);
    return destroy;
}

}  // namespace

extern "C" {
POBJECT_TYPE* PsThreadType = &g_threadTypePtr;
POBJECT_TYPE* IoFileObjectType = &g_fileTypePtr;
POBJECT_TYPE* ExEventObjectType = &g_eventTypePtr;
POBJECT_TYPE* CmKeyObjectType = &g_keyTypePtr;
}

namespace kvsim {

void ObRegisterObject(void* body, POBJECT_TYPE type, ObjectDestroy destroy) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.objects[body] = ObjectEntry{type, destroy, 1};
}

HANDLE ObInsertHandle(void* body) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.objects.find(body);
    if (it == s.objects.end()) return nullptr;
    ++it->second.references;
    ULONG_PTR value = s.nextHandle;
    s.nextHandle += 4;
    s.handles[value] = body;
    return reinterpret_cast<HANDLE>(value);
}

void* ObReferenceByHandle(HANDLE handle, POBJECT_TYPE type) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto h = s.handles.find(reinterpret_cast<ULONG_PTR>(handle));
    if (h == s.handles.end()) return nullptr;
    auto it = s.objects.find(h->second);
    if (it == s.objects.end()) return nullptr;
    if (type != nullptr && it->second.type != type) return nullptr;
    ++it->second.references;
    return h->second;
}

size_t ObLiveObjectCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.objects.size();
}

void ObResetHandleNumbering() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.handles.empty()) s.nextHandle = 0xFFFFFFFF80000004ull;
}

size_t ObOpenHandleCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.handles.size();
}

}  // namespace kvsim

extern "C" NTSTATUS ZwClose(HANDLE Handle) {
    auto& s = State();
    kvsim::ObjectDestroy destroy = nullptr;
    void* body = nullptr;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto h = s.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
        // ZwClose of a handle that is not open: STATUS_INVALID_HANDLE (a bug
        // check with handle tracing on; the simulation reports it).
        if (h == s.handles.end()) {
            kvsim::ReportViolation("ZwClose(%p): not an open handle", Handle);
            return STATUS_INVALID_HANDLE;
        }
        body = h->second;
        s.handles.erase(h);
        LONG_PTR remaining = 0;
        destroy = DropLocked(s, body, &remaining);
    }
    if (destroy) destroy(body);
    return STATUS_SUCCESS;
}

// ObReferenceObjectByHandle: STATUS_INVALID_HANDLE for a handle that is not
// open, STATUS_OBJECT_TYPE_MISMATCH for one of another type (docs:
// learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-obreferenceobjectbyhandle).
extern "C" NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                              KPROCESSOR_MODE AccessMode, PVOID* Object,
                                              POBJECT_HANDLE_INFORMATION HandleInformation) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto h = s.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
    if (h == s.handles.end()) return STATUS_INVALID_HANDLE;
    auto it = s.objects.find(h->second);
    if (it == s.objects.end()) return STATUS_INVALID_HANDLE;
    if (ObjectType != nullptr && it->second.type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    ++it->second.references;
    *Object = h->second;
    if (HandleInformation) {
        HandleInformation->HandleAttributes = 0;
        HandleInformation->GrantedAccess = DesiredAccess;
    }
    return STATUS_SUCCESS;
}

extern "C" LONG_PTR ObfReferenceObject(PVOID Object) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.objects.find(Object);
    if (it == s.objects.end()) {
        kvsim::ReportViolation("ObReferenceObject on %p, which is not a live object", Object);
        return 0;
    }
    return ++it->second.references;
}

extern "C" LONG_PTR ObfDereferenceObject(PVOID Object) {
    auto& s = State();
    kvsim::ObjectDestroy destroy = nullptr;
    LONG_PTR remaining = 0;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        destroy = DropLocked(s, Object, &remaining);
    }
    if (destroy) destroy(Object);
    return remaining;
}
