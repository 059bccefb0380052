// The simulated ks.sys: KS events. IOCTL_KS_ENABLE_EVENT looks the event up
// in the object's automation table, makes a KSEVENT_ENTRY (with the item's
// ExtraEntryData behind it) and hands it to the item's AddHandler or to
// KsDefaultAddEventHandler, which puts it on the object's event list;
// KsGenerateEvents signals every matching entry on an object's list;
// IOCTL_KS_DISABLE_EVENT and the object's close take entries off again.
//
// Documented behaviour followed (learn.microsoft.com/windows-hardware/drivers/
// ddi/ks/ and .../stream/):
//  - KSEVENT_ITEM: DataInput is the minimum size of the caller's data (the
//    KSEVENTDATA and what follows); ExtraEntryData bytes are allocated behind
//    the KSEVENT_ENTRY for the minidriver; AddHandler/RemoveHandler/
//    SupportHandler replace the defaults when set. A RemoveHandler takes the
//    entry off the list itself (RemoveEntryList).
//  - KSEVENTDATA.NotificationType KSEVENTF_EVENT_HANDLE: EventHandle.Event is
//    a handle to an event object, referenced for as long as the event is
//    enabled and set (KeSetEvent) on each notification; KSEVENTF_EVENT_OBJECT
//    and KSEVENTF_DPC carry kernel pointers and are only taken from kernel-mode
//    callers. Other notification types are not simulated
//    (STATUS_INVALID_PARAMETER).
//  - KSEVENT_TYPE_ONESHOT: the event is signalled once, then disabled.
//    KSEVENT_TYPE_SETSUPPORT / BASICSUPPORT: whether the set / the item is
//    supported (the SupportHandler when there is one).
//  - IOCTL_KS_DISABLE_EVENT: the input is the KSEVENTDATA the event was
//    enabled with (its address identifies the event for the file object); no
//    input disables every event of the file object. An unknown KSEVENTDATA
//    is STATUS_UNSUCCESSFUL.
//  - KsGenerateEvents: "callable at IRQL <= DISPATCH_LEVEL"; EventSet NULL
//    means any set; CallBack, when given, is asked for each matching entry
//    and returns TRUE to have it signalled.
//  - KsDefaultAddEventHandler adds the entry to the list of the filter or pin
//    that the IRP addresses; KsAddEvent (KsFilterAddEvent/KsPinAddEvent) to
//    the given object's list.
// Unknown event set / id: STATUS_PROPERTY_SET_NOT_FOUND / STATUS_NOT_FOUND as
// for properties (automation_property.cpp).
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <vector>

#include "automation.h"
#include "kvsim/diag.h"

namespace kvsim::ks {
namespace {

constexpr ULONG kEventTag = 'veSK';  // "KSev"

// ks.sys's private record of one enabled event; the KSEVENT_ENTRY the
// minidriver sees is `entry`, followed by ExtraEntryData bytes.
struct EventRecord {
    ObjectHeader* owner;        // the object whose list holds the entry (null: not added)
    PFILE_OBJECT fileObject;    // the handle that enabled it
    const void* userEventData;  // the caller's KSEVENTDATA address: the event's identity
    PVOID referenced;           // the event object referenced from a handle, or null
    KSEVENTDATA data;           // the kernel copy handed to the add handler
    KSEVENT_ENTRY entry;
};

EventRecord* RecordOf(PKSEVENT_ENTRY entry) {
    return reinterpret_cast<EventRecord*>(reinterpret_cast<UCHAR*>(entry) - offsetof(EventRecord, entry));
}

// Every enabled record; touched at PASSIVE_LEVEL only (enable, disable,
// close). The lists themselves are guarded by each object's eventLock.
std::mutex g_recordsMutex;
std::vector<EventRecord*> g_records;

const KSEVENT_SET* FindEventSet(const KSAUTOMATION_TABLE* table, const GUID& guid) {
    if (table == nullptr) return nullptr;
    for (ULONG i = 0; i < table->EventSetsCount; ++i) {
        if (table->EventSets[i].Set != nullptr && IsEqualGUID(*table->EventSets[i].Set, guid)) {
            return &table->EventSets[i];
        }
    }
    return nullptr;
}

const KSEVENT_ITEM* FindEventItem(const KSEVENT_SET* set, ULONG stride, ULONG id) {
    const auto* base = reinterpret_cast<const UCHAR*>(set->EventItem);
    for (ULONG i = 0; i < set->EventsCount; ++i) {
        const auto* item = reinterpret_cast<const KSEVENT_ITEM*>(base + size_t(i) * stride);
        if (item->EventId == id) return item;
    }
    return nullptr;
}

// Takes the record's entry off its object's list (through the item's
// RemoveHandler when it has one), drops the event object and frees it.
void DestroyRecord(EventRecord* record) {
    PKSEVENT_ENTRY entry = &record->entry;
    if (ObjectHeader* owner = record->owner) {
        KIRQL irql;
        KeAcquireSpinLock(&owner->eventLock, &irql);
        if (entry->EventItem->RemoveHandler != nullptr) {
            entry->EventItem->RemoveHandler(record->fileObject, entry);
        } else {
            RemoveEntryList(&entry->ListEntry);
        }
        KeReleaseSpinLock(&owner->eventLock, irql);
    }
    if (record->referenced != nullptr) ObDereferenceObject(record->referenced);
    ExFreePoolWithTag(record, kEventTag);
}

// Unregisters and destroys the records `pick` selects; returns how many.
template <typename Pick>
size_t DestroyRecords(Pick pick) {
    std::vector<EventRecord*> doomed;
    {
        std::lock_guard<std::mutex> lock(g_recordsMutex);
        auto keep = std::stable_partition(g_records.begin(), g_records.end(), [&](EventRecord* r) { return !pick(r); });
        doomed.assign(keep, g_records.end());
        g_records.erase(keep, g_records.end());
    }
    for (EventRecord* record : doomed) DestroyRecord(record);
    return doomed.size();
}

// Resolves the notification target of `data` for the entry.
NTSTATUS ResolveNotification(PIRP irp, const KSEVENTDATA& data, PVOID* object, PVOID* referenced) {
    *referenced = nullptr;
    switch (data.NotificationType) {
        case KSEVENTF_EVENT_HANDLE: {
            NTSTATUS status = ObReferenceObjectByHandle(data.EventHandle.Event, 0x0002 /* EVENT_MODIFY_STATE */,
                                                        *ExEventObjectType, irp->RequestorMode, object, nullptr);
            if (!NT_SUCCESS(status)) return status;
            *referenced = *object;
            return STATUS_SUCCESS;
        }
        case KSEVENTF_EVENT_OBJECT:
            if (irp->RequestorMode != KernelMode || data.EventObject.Event == nullptr) return STATUS_INVALID_PARAMETER;
            *object = data.EventObject.Event;
            return STATUS_SUCCESS;
        case KSEVENTF_DPC:
            if (irp->RequestorMode != KernelMode || data.Dpc.Dpc == nullptr) return STATUS_INVALID_PARAMETER;
            *object = data.Dpc.Dpc;
            return STATUS_SUCCESS;
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

// The enable itself, once the item is known.
NTSTATUS EnableItem(PIRP irp, ObjectHeader* object, const KSEVENT_SET* set, const KSEVENT_ITEM* item, ULONG type) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG dataLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    ULONG needed = std::max<ULONG>(item->DataInput, sizeof(KSEVENTDATA));
    if (dataLength < needed || irp->UserBuffer == nullptr) return STATUS_BUFFER_TOO_SMALL;
    KSEVENTDATA data;
    std::memcpy(&data, irp->UserBuffer, sizeof data);
    PVOID target = nullptr;
    PVOID referenced = nullptr;
    NTSTATUS status = ResolveNotification(irp, data, &target, &referenced);
    if (!NT_SUCCESS(status)) return status;

    size_t size = offsetof(EventRecord, entry) + sizeof(KSEVENT_ENTRY) + item->ExtraEntryData;
    auto* record = static_cast<EventRecord*>(ExAllocatePoolZero(NonPagedPoolNx, size, kEventTag));
    if (record == nullptr) {
        if (referenced) ObDereferenceObject(referenced);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    record->fileObject = stack->FileObject;
    record->userEventData = irp->UserBuffer;
    record->referenced = referenced;
    record->data = data;
    PKSEVENT_ENTRY entry = &record->entry;
    InitializeListHead(&entry->ListEntry);
    entry->Object = target;
    entry->EventData = &record->data;
    entry->NotificationType = data.NotificationType;
    entry->EventSet = set;
    entry->EventItem = item;
    entry->FileObject = stack->FileObject;
    entry->Flags = (type == KSEVENT_TYPE_ONESHOT) ? KSEVENT_ENTRY_ONESHOT : 0;

    KeWaitForSingleObject(&object->controlMutex, Executive, KernelMode, FALSE, nullptr);
    CallbackOwner owner = object->kind == ObjectKind::Pin ? CallbackOwner::Pin : CallbackOwner::Filter;
    status = item->AddHandler ? CallMinidriver(object->device, owner, "event add handler", item->AddHandler, irp,
                                               &record->data, entry)
                              : KsDefaultAddEventHandler(irp, &record->data, entry);
    KeReleaseMutex(&object->controlMutex, FALSE);
    if (!NT_SUCCESS(status)) {
        DestroyRecord(record);
        return status;
    }
    std::lock_guard<std::mutex> lock(g_recordsMutex);
    g_records.push_back(record);
    return status;
}

// Signals one entry by its notification type (DISPATCH_LEVEL at most).
void Signal(PKSEVENT_ENTRY entry) {
    switch (entry->NotificationType) {
        case KSEVENTF_EVENT_HANDLE:
        case KSEVENTF_EVENT_OBJECT:
            KeSetEvent(static_cast<PRKEVENT>(entry->Object), IO_NO_INCREMENT, FALSE);
            break;
        case KSEVENTF_DPC:
            KeInsertQueueDpc(static_cast<PRKDPC>(entry->Object), entry, nullptr);
            break;
        default:
            break;
    }
}

}  // namespace

NTSTATUS EnableEventRequest(PIRP irp, ObjectHeader* object) {
    irp->IoStatus.Information = 0;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const void* input = stack->Parameters.DeviceIoControl.Type3InputBuffer;
    if (stack->Parameters.DeviceIoControl.InputBufferLength < sizeof(KSEVENT) || input == nullptr) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    KSEVENT request;
    std::memcpy(&request, input, sizeof request);
    ULONG type = request.Flags & ~KSEVENT_TYPE_TOPOLOGY;
    const KSAUTOMATION_TABLE* table = object->automationTable;
    const KSEVENT_SET* set = FindEventSet(table, request.Set);
    if (set == nullptr) return STATUS_PROPERTY_SET_NOT_FOUND;
    if (type == KSEVENT_TYPE_SETSUPPORT) return STATUS_SUCCESS;
    ULONG stride = table->EventItemSize ? table->EventItemSize : sizeof(KSEVENT_ITEM);
    const KSEVENT_ITEM* item = FindEventItem(set, stride, request.Id);
    if (item == nullptr) return STATUS_NOT_FOUND;
    switch (type) {
        case KSEVENT_TYPE_BASICSUPPORT:
            if (item->SupportHandler == nullptr) return STATUS_SUCCESS;
            return item->SupportHandler(irp, &request, irp->UserBuffer);
        case KSEVENT_TYPE_ENABLE:
        case KSEVENT_TYPE_ONESHOT:
        case KSEVENT_TYPE_ENABLEBUFFERED: {
            ObjectHeader* saved = SetCurrentAutomationObject(object);
            NTSTATUS status = EnableItem(irp, object, set, item, type);
            SetCurrentAutomationObject(saved);
            return status;
        }
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS DisableEventRequest(PIRP irp, ObjectHeader* object) {
    irp->IoStatus.Information = 0;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    const void* input = stack->Parameters.DeviceIoControl.Type3InputBuffer;
    ULONG length = stack->Parameters.DeviceIoControl.InputBufferLength;
    (void)object;
    if (input == nullptr && length == 0) {
        DestroyRecords([&](EventRecord* r) { return r->fileObject == fileObject; });
        return STATUS_SUCCESS;
    }
    if (length < sizeof(KSEVENTDATA) || input == nullptr) return STATUS_INVALID_BUFFER_SIZE;
    size_t n = DestroyRecords([&](EventRecord* r) { return r->fileObject == fileObject && r->userEventData == input; });
    return n != 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

void GenerateEvents(ObjectHeader* object, const GUID* eventSet, ULONG eventId, PFNKSGENERATEEVENTCALLBACK callBack,
                    PVOID callBackContext) {
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
        ReportViolation("KsGenerateEvents called at IRQL %u (DISPATCH_LEVEL at most)", KeGetCurrentIrql());
        return;
    }
    KIRQL irql;
    KeAcquireSpinLock(&object->eventLock, &irql);
    PLIST_ENTRY head = &object->eventList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PKSEVENT_ENTRY entry = CONTAINING_RECORD(link, KSEVENT_ENTRY, ListEntry);
        if (entry->Flags & KSEVENT_ENTRY_DELETED) continue;
        if (eventSet != nullptr && !IsEqualGUID(*entry->EventSet->Set, *eventSet)) continue;
        if (entry->EventItem->EventId != eventId) continue;
        if (callBack != nullptr && !callBack(callBackContext, entry)) continue;
        Signal(entry);
        // A one-shot event stays on the list, dead, until disabled or closed.
        if (entry->Flags & KSEVENT_ENTRY_ONESHOT) entry->Flags |= KSEVENT_ENTRY_DELETED;
    }
    KeReleaseSpinLock(&object->eventLock, irql);
}

void AutomationObjectClosing(ObjectHeader* object) {
    PFILE_OBJECT fileObject = object->fileObject;
    DestroyRecords([&](EventRecord* r) {
        return r->owner == object || (fileObject != nullptr && r->fileObject == fileObject);
    });
    object->automationState = nullptr;
}

size_t EnabledEventCount() {
    std::lock_guard<std::mutex> lock(g_recordsMutex);
    return g_records.size();
}

}  // namespace kvsim::ks

// ---- the ks.sys exports ------------------------------------------------------------------------
namespace {

void AddToObject(kvsim::ks::ObjectHeader* object, PKSEVENT_ENTRY entry) {
    auto* record = kvsim::ks::RecordOf(entry);
    KIRQL irql;
    KeAcquireSpinLock(&object->eventLock, &irql);
    InsertTailList(&object->eventList, &entry->ListEntry);
    record->owner = object;
    KeReleaseSpinLock(&object->eventLock, irql);
}

}  // namespace

extern "C" void KsAddEvent(PVOID Object, PKSEVENT_ENTRY EventEntry) {
    kvsim::ks::ObjectHeader* object = kvsim::ks::HeaderFromObject(Object);
    if (object != nullptr) AddToObject(object, EventEntry);
}

extern "C" NTSTATUS KsDefaultAddEventHandler(PIRP Irp, PKSEVENTDATA, PKSEVENT_ENTRY EventEntry) {
    kvsim::ks::ObjectHeader* object = kvsim::ks::CurrentAutomationObject();
    if (object == nullptr) object = kvsim::ks::HeaderFromIrp(Irp);
    if (object == nullptr) return STATUS_INVALID_PARAMETER;
    AddToObject(object, EventEntry);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS KsGenerateEvent(PKSEVENT_ENTRY EventEntry) {
    kvsim::ks::Signal(EventEntry);
    return STATUS_SUCCESS;
}

extern "C" void KsGenerateEvents(PVOID Object, const GUID* EventSet, ULONG EventId, ULONG, PVOID,
                                 PFNKSGENERATEEVENTCALLBACK CallBack, PVOID CallBackContext) {
    kvsim::ks::ObjectHeader* object = kvsim::ks::HeaderFromObject(Object);
    if (object != nullptr) kvsim::ks::GenerateEvents(object, EventSet, EventId, CallBack, CallBackContext);
}
