// The simulated ks.sys: the object hierarchy (device -> filter factories ->
// filters -> pins), the lookup from a public object address or a file
// object to its header, the control mutex, and object bags.
//
// The hierarchy and its accessors follow "AVStream Object Hierarchy" and the
// KsGetParent / KsGetFirstChild / KsGetNextSibling pages:
// https://learn.microsoft.com/windows-hardware/drivers/stream/avstream-object-hierarchy
// Object bags follow "Object Bags" and KsAddItemToObjectBag /
// KsRemoveItemFromObjectBag / _KsEdit: an item may be in several bags and is
// freed when it leaves the last one.
// https://learn.microsoft.com/windows-hardware/drivers/stream/object-bags
#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kvsim/diag.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

// Public address -> header of every live AVStream object. A host mutex: the
// lookup is called at any IRQL and never blocks for long.
std::mutex g_objectsLock;
std::unordered_map<const void*, ObjectHeader*> g_objects;

struct BagItem {
    PVOID item;
    PFNKSFREE free;
};

struct Bag {
    KsDevice* device = nullptr;
    std::vector<BagItem> items;
};

// How many bags hold each item, across all bags (ks.sys counts references
// so that an item shared by two bags is freed once, when the last lets go).
std::mutex g_bagLock;
std::unordered_map<PVOID, ULONG> g_itemRefs;

void FreeItem(const BagItem& entry) {
    if (entry.free) {
        entry.free(entry.item);
    } else {
        ExFreePool(entry.item);
    }
}

// Drops one reference of `item`; true when that was the last.
bool DropItemRef(PVOID item) {
    std::lock_guard lock(g_bagLock);
    auto it = g_itemRefs.find(item);
    if (it == g_itemRefs.end()) return true;
    if (--it->second == 0) {
        g_itemRefs.erase(it);
        return true;
    }
    return false;
}

}  // namespace

void InitHeader(ObjectHeader& header, ObjectKind kind, void* publicObject, ObjectHeader* parent, KsDevice* device,
                const KSAUTOMATION_TABLE* automation) {
    header.kind = kind;
    header.publicObject = publicObject;
    header.parent = parent;
    header.device = device;
    header.automationTable = automation;
    KeInitializeMutex(&header.controlMutex, 0);
    InitializeListHead(&header.eventList);
    KeInitializeSpinLock(&header.eventLock);
    if (parent) parent->children.push_back(&header);
    std::lock_guard lock(g_objectsLock);
    g_objects[publicObject] = &header;
}

void UnlinkHeader(ObjectHeader& header) {
    if (header.parent) {
        auto& siblings = header.parent->children;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), &header), siblings.end());
        header.parent = nullptr;
    }
    std::lock_guard lock(g_objectsLock);
    g_objects.erase(header.publicObject);
}

ObjectHeader* FindHeader(const void* object) {
    std::lock_guard lock(g_objectsLock);
    auto it = g_objects.find(object);
    return it == g_objects.end() ? nullptr : it->second;
}

ObjectHeader* HeaderFromObject(const void* object) {
    ObjectHeader* header = FindHeader(object);
    if (!header) {
        ReportViolation("ks.sys: %p is not a live AVStream object (device, filter factory, filter or pin)", object);
    }
    return header;
}

ObjectHeader* HeaderFromFileObject(PFILE_OBJECT fileObject) {
    if (!fileObject || !fileObject->FsContext) return nullptr;
    // FsContext holds the header of a filter or pin; check it is still live.
    auto* candidate = static_cast<ObjectHeader*>(fileObject->FsContext);
    std::lock_guard lock(g_objectsLock);
    for (auto& [pub, header] : g_objects) {
        if (header == candidate) return header;
    }
    return nullptr;
}

ObjectHeader* HeaderFromIrp(PIRP irp) {
    return irp ? HeaderFromFileObject(IoGetCurrentIrpStackLocation(irp)->FileObject) : nullptr;
}

// ---- bags ----------------------------------------------------------------------------------
KSOBJECT_BAG NewBag(KsDevice* device) {
    void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(Bag), kBagTag);
    if (!memory) return nullptr;
    auto* bag = new (memory) Bag();
    bag->device = device;
    return bag;
}

void FreeBag(KSOBJECT_BAG handle) {
    auto* bag = static_cast<Bag*>(handle);
    if (!bag) return;
    // Items in the order they were added, as the bag's owner set them up.
    std::vector<BagItem> items;
    items.swap(bag->items);
    for (auto& entry : items) {
        if (DropItemRef(entry.item)) FreeItem(entry);
    }
    bag->~Bag();
    ExFreePoolWithTag(bag, kBagTag);
}

}  // namespace kvsim::ks

using namespace kvsim::ks;

// ---- object hierarchy -------------------------------------------------------------------------
extern "C" PVOID KsGetParent(PVOID Object) {
    ObjectHeader* header = HeaderFromObject(Object);
    return header && header->parent ? header->parent->publicObject : nullptr;
}

extern "C" PVOID KsGetFirstChild(PVOID Object) {
    ObjectHeader* header = HeaderFromObject(Object);
    return header && !header->children.empty() ? header->children.front()->publicObject : nullptr;
}

extern "C" PVOID KsGetNextSibling(PVOID Object) {
    ObjectHeader* header = HeaderFromObject(Object);
    if (!header || !header->parent) return nullptr;
    auto& siblings = header->parent->children;
    auto it = std::find(siblings.begin(), siblings.end(), header);
    if (it == siblings.end() || ++it == siblings.end()) return nullptr;
    return (*it)->publicObject;
}

extern "C" PKSDEVICE KsGetDevice(PVOID Object) {
    ObjectHeader* header = HeaderFromObject(Object);
    return header && header->device ? &header->device->pub : nullptr;
}

extern "C" PKSFILTER KsPinGetParentFilter(PKSPIN Pin) {
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    return pin ? &pin->filter->pub : nullptr;
}

extern "C" PKSPIN KsPinGetNextSiblingPin(PKSPIN Pin) {
    // The next pin of the same pin id on the same filter.
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    if (!pin) return nullptr;
    auto& siblings = pin->filter->header.children;
    auto it = std::find(siblings.begin(), siblings.end(), &pin->header);
    for (++it; it < siblings.end(); ++it) {
        KsPin* other = AsPin(*it);
        if (other && other->pub.Id == Pin->Id) return &other->pub;
    }
    return nullptr;
}

extern "C" ULONG KsFilterGetChildPinCount(PKSFILTER Filter, ULONG PinId) {
    KsFilter* filter = AsFilter(HeaderFromObject(Filter));
    return filter ? PinInstanceCount(filter, PinId) : 0;
}

extern "C" PKSPIN KsFilterGetFirstChildPin(PKSFILTER Filter, ULONG PinId) {
    KsFilter* filter = AsFilter(HeaderFromObject(Filter));
    if (!filter) return nullptr;
    for (ObjectHeader* child : filter->header.children) {
        KsPin* pin = AsPin(child);
        if (pin && pin->pub.Id == PinId) return &pin->pub;
    }
    return nullptr;
}

extern "C" PKSFILTER KsGetFilterFromIrp(PIRP Irp) {
    ObjectHeader* header = HeaderFromIrp(Irp);
    if (KsFilter* filter = AsFilter(header)) return &filter->pub;
    if (KsPin* pin = AsPin(header)) return &pin->filter->pub;  // documented: the pin's parent filter
    return nullptr;
}

extern "C" PKSPIN KsGetPinFromIrp(PIRP Irp) {
    KsPin* pin = AsPin(HeaderFromIrp(Irp));
    return pin ? &pin->pub : nullptr;
}

extern "C" KSOBJECTTYPE KsGetObjectTypeFromIrp(PIRP Irp) {
    ObjectHeader* header = HeaderFromIrp(Irp);
    if (!header) return KsObjectTypeDevice;  // an IRP on the device itself
    switch (header->kind) {
        case ObjectKind::Device: return KsObjectTypeDevice;
        case ObjectKind::FilterFactory: return KsObjectTypeFilterFactory;
        case ObjectKind::Filter: return KsObjectTypeFilter;
        case ObjectKind::Pin: return KsObjectTypePin;
    }
    return KsObjectTypeDevice;
}

extern "C" PVOID KsGetObjectFromFileObject(PFILE_OBJECT FileObject) {
    ObjectHeader* header = HeaderFromFileObject(FileObject);
    return header ? header->publicObject : nullptr;
}

// A pin's control mutex is its parent filter's ("Mutexes in AVStream").
// https://learn.microsoft.com/windows-hardware/drivers/stream/mutexes-in-avstream
namespace {
PKMUTEX ControlMutexOf(PVOID object) {
    ObjectHeader* header = HeaderFromObject(object);
    if (!header) return nullptr;
    if (KsPin* pin = AsPin(header)) return &pin->filter->header.controlMutex;
    return &header->controlMutex;
}
}  // namespace

extern "C" void KsAcquireControl(PVOID Object) {
    if (PKMUTEX m = ControlMutexOf(Object)) KeWaitForSingleObject(m, Executive, KernelMode, FALSE, nullptr);
}

extern "C" void KsReleaseControl(PVOID Object) {
    if (PKMUTEX m = ControlMutexOf(Object)) KeReleaseMutex(m, FALSE);
}

// ---- object bags ----------------------------------------------------------------------------------
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksadditemtoobjectbag
extern "C" NTSTATUS KsAddItemToObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, PFNKSFREE Free) {
    auto* bag = static_cast<Bag*>(ObjectBag);
    if (!bag || !Item) return STATUS_INVALID_PARAMETER;
    for (auto& entry : bag->items) {
        if (entry.item == Item) return STATUS_SUCCESS;  // already in this bag
    }
    bag->items.push_back({Item, Free});
    std::lock_guard lock(g_bagLock);
    ++g_itemRefs[Item];
    return STATUS_SUCCESS;
}

// Returns the number of bags the item is still in (0 once it left the last).
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksremoveitemfromobjectbag
extern "C" ULONG KsRemoveItemFromObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, BOOLEAN Free) {
    auto* bag = static_cast<Bag*>(ObjectBag);
    if (!bag) return 0;
    auto it = std::find_if(bag->items.begin(), bag->items.end(), [&](const BagItem& e) { return e.item == Item; });
    if (it == bag->items.end()) return 0;
    BagItem entry = *it;
    bag->items.erase(it);
    bool last = DropItemRef(Item);
    if (last && Free) FreeItem(entry);
    if (last) return 0;
    std::lock_guard lock(g_bagLock);
    auto ref = g_itemRefs.find(Item);
    return ref == g_itemRefs.end() ? 0 : ref->second;
}

extern "C" NTSTATUS KsAllocateObjectBag(PKSDEVICE Device, KSOBJECT_BAG* ObjectBag) {
    KsDevice* device = AsDevice(HeaderFromObject(Device));
    *ObjectBag = NewBag(device);
    return *ObjectBag ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

extern "C" void KsFreeObjectBag(KSOBJECT_BAG ObjectBag) { FreeBag(ObjectBag); }

// KsEdit: a copy of *PointerToPointerToItem at NewSize bytes (zero-filled
// beyond OldSize) goes into the bag and replaces the pointer; the old item
// is removed from the bag and freed if the bag held it.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-_ksedit
extern "C" NTSTATUS _KsEdit(KSOBJECT_BAG ObjectBag, PVOID* PointerToPointerToItem, ULONG NewSize, ULONG OldSize,
                           ULONG Tag) {
    auto* bag = static_cast<Bag*>(ObjectBag);
    if (!bag) return STATUS_INVALID_PARAMETER;
    PVOID old = *PointerToPointerToItem;
    bool held = std::any_of(bag->items.begin(), bag->items.end(), [&](const BagItem& e) { return e.item == old; });
    // An item the bag already holds with enough room is edited in place.
    if (held && NewSize <= OldSize) return STATUS_SUCCESS;
    PVOID copy = ExAllocatePoolWithTag(NonPagedPool, NewSize, Tag);
    if (!copy) return STATUS_INSUFFICIENT_RESOURCES;
    memset(copy, 0, NewSize);
    if (old) memcpy(copy, old, std::min(NewSize, OldSize));
    NTSTATUS status = KsAddItemToObjectBag(ObjectBag, copy, nullptr);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(copy, Tag);
        return status;
    }
    if (held) KsRemoveItemFromObjectBag(ObjectBag, old, TRUE);
    *PointerToPointerToItem = copy;
    return STATUS_SUCCESS;
}

// The node a property, method or event request addresses: the NodeId of its
// KSP_NODE when the request carries the TOPOLOGY flag, else KSFILTER_NODE.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksgetnodeidfromirp
extern "C" ULONG KsGetNodeIdFromIrp(PIRP Irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    if (sp->MajorFunction != IRP_MJ_DEVICE_CONTROL) return KSFILTER_NODE;
    ULONG code = sp->Parameters.DeviceIoControl.IoControlCode;
    if (code != IOCTL_KS_PROPERTY && code != IOCTL_KS_METHOD && code != IOCTL_KS_ENABLE_EVENT) return KSFILTER_NODE;
    auto* request = static_cast<const KSP_NODE*>(sp->Parameters.DeviceIoControl.Type3InputBuffer);
    if (!request || sp->Parameters.DeviceIoControl.InputBufferLength < sizeof(KSP_NODE)) return KSFILTER_NODE;
    if (!(request->Property.Flags & KSPROPERTY_TYPE_TOPOLOGY)) return KSFILTER_NODE;
    return request->NodeId;
}
