// The simulated ks.sys: the automation dispatcher (IOCTL_KS_PROPERTY,
// _METHOD, _ENABLE_EVENT, _DISABLE_EVENT on a filter or pin) and the
// property request itself, as KsPropertyHandler does it. Buffer convention:
// see automation.h.
//
// Statuses, with the pages they follow (learn.microsoft.com/windows-hardware/
// drivers/ddi/ks/ and .../stream/):
//  - property set not on the object: STATUS_PROPERTY_SET_NOT_FOUND
//    (Win32 ERROR_SET_NOT_FOUND, "The property set specified does not exist
//    on the object"); a set without the id: STATUS_NOT_FOUND (ERROR_NOT_FOUND).
//    IKsPropertySet::QuerySupported (ksproxy) tells the two apart as
//    E_PROP_SET_UNSUPPORTED and E_PROP_ID_UNSUPPORTED.
//  - KSPROPERTY_ITEM: "GetPropertyHandler ... If NULL, the property cannot be
//    read"; likewise for set: STATUS_NOT_FOUND (no handler for the direction).
//  - KSPROPERTY_ITEM.MinProperty ("minimum buffer length to hold the property
//    identifier. This must be at least sizeof(KSPROPERTY)"): shorter input is
//    STATUS_INVALID_PARAMETER; input shorter than a KSPROPERTY at all is
//    STATUS_INVALID_BUFFER_SIZE.
//  - KSPROPERTY_ITEM.MinData: a data buffer of length 0 is a size query,
//    answered STATUS_BUFFER_OVERFLOW with Information = MinData
//    (IKsControl::KsProperty: "To determine the buffer size ... call this
//    method with PropertyData set to NULL and DataLength equal to zero. The
//    method returns HRESULT_FROM_WIN32(ERROR_MORE_DATA), and BytesReturned
//    contains the size of the required buffer"); a non-zero shorter buffer is
//    STATUS_BUFFER_TOO_SMALL (Information = MinData as well).
//  - KSPROPERTY (Flags): SETSUPPORT "Queries if the driver supports this
//    property set" (success, no data); BASICSUPPORT "Queries the request types
//    that the driver handles for this property item. Returns
//    KSPROPERTY_TYPE_GET or KSPROPERTY_TYPE_SET or both" (a ULONG, or a
//    KSPROPERTY_DESCRIPTION with the item's Values); RELATIONS "the property
//    relations list ... or the amount of buffer room required by such a list
//    if the return buffer is the size of a ULONG"; SERIALIZESIZE "Returns a
//    ULONG specifying size of the property data when serialized".
//  - KsPropertyHandler: "can only be called at PASSIVE_LEVEL"; it sets
//    Irp->IoStatus.Information and places the KSPROPERTY_SET pointer in
//    Irp->Tail.Overlay.DriverContext (KSPROPERTY_SET_IRP_STORAGE).
// AVStream holds the object's control mutex around a minidriver's automation
// handlers ("Filter Control Mutex in AVStream"); ks.sys's own handlers lock
// as they need (the state set leaves it to ChangePinState, which takes it).
#include <cstring>
#include <memory>

#include "automation.h"
#include "kvsim/diag.h"

namespace kvsim::ks {
namespace {

thread_local ObjectHeader* t_current = nullptr;

// Restores the thread's current object when a dispatch ends.
class CurrentObjectScope {
public:
    explicit CurrentObjectScope(ObjectHeader* object) : saved_(t_current) { t_current = object; }
    ~CurrentObjectScope() { t_current = saved_; }
    CurrentObjectScope(const CurrentObjectScope&) = delete;
    CurrentObjectScope& operator=(const CurrentObjectScope&) = delete;

private:
    ObjectHeader* saved_;
};

// Kernel copies of the caller's buffers, exactly as long as they are.
struct KernelBuffers {
    std::unique_ptr<UCHAR[]> request;  // the KSPROPERTY and what follows
    std::unique_ptr<UCHAR[]> data;     // null when the data length is 0
    ULONG requestLength = 0;
    ULONG dataLength = 0;
};

// A property set seen through the merge of a minidriver table (dominant)
// over ks.sys's built-in sets with the same GUID.
struct MergedSet {
    const KSPROPERTY_SET* driver = nullptr;
    ULONG driverStride = sizeof(KSPROPERTY_ITEM);
    const KSPROPERTY_SET* builtin = nullptr;
    bool Found() const { return driver != nullptr || builtin != nullptr; }
};

const KSPROPERTY_SET* FindSet(const KSPROPERTY_SET* sets, ULONG count, const GUID& guid) {
    for (ULONG i = 0; i < count; ++i) {
        if (sets[i].Set != nullptr && IsEqualGUID(*sets[i].Set, guid)) return &sets[i];
    }
    return nullptr;
}

const KSPROPERTY_ITEM* FindItem(const KSPROPERTY_SET* set, ULONG stride, ULONG id) {
    if (set == nullptr) return nullptr;
    const auto* base = reinterpret_cast<const UCHAR*>(set->PropertyItem);
    for (ULONG i = 0; i < set->PropertiesCount; ++i) {
        const auto* item = reinterpret_cast<const KSPROPERTY_ITEM*>(base + size_t(i) * stride);
        if (item->PropertyId == id) return item;
    }
    return nullptr;
}

// Calls a handler as ks.sys does: at PASSIVE_LEVEL, with the object's control
// mutex held unless it is ks.sys's own handler (which locks as it needs),
// the data buffer as the IRP's system buffer for the call.
NTSTATUS CallHandler(PFNKSHANDLER handler, bool builtin, PIRP irp, ObjectHeader* object, const KSPROPERTY_SET* set,
                     const KSPROPERTY_ITEM* item, KernelBuffers& buffers) {
    PVOID savedSystemBuffer = irp->AssociatedIrp.SystemBuffer;
    PVOID savedContext0 = irp->Tail.Overlay.DriverContext[0];
    PVOID savedContext3 = irp->Tail.Overlay.DriverContext[3];
    irp->AssociatedIrp.SystemBuffer = buffers.data.get();
    irp->Tail.Overlay.DriverContext[0] = const_cast<KSPROPERTY_SET*>(set);   // KSPROPERTY_SET_IRP_STORAGE
    irp->Tail.Overlay.DriverContext[3] = const_cast<KSPROPERTY_ITEM*>(item);  // KSPROPERTY_ITEM_IRP_STORAGE
    bool lock = !builtin && object != nullptr;
    if (lock) KeWaitForSingleObject(&object->controlMutex, Executive, KernelMode, FALSE, nullptr);
    auto* request = reinterpret_cast<PKSIDENTIFIER>(buffers.request.get());
    NTSTATUS status;
    if (lock) {
        CallbackOwner owner = object->kind == ObjectKind::Pin ? CallbackOwner::Pin : CallbackOwner::Filter;
        status = CallMinidriver(object->device, owner, "property handler", handler, irp, request, buffers.data.get());
    } else {
        status = handler(irp, request, buffers.data.get());
    }
    if (lock) KeReleaseMutex(&object->controlMutex, FALSE);
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        ReportViolation("property handler %p returned at IRQL %u (called at PASSIVE_LEVEL)",
                        reinterpret_cast<void*>(handler), KeGetCurrentIrql());
    }
    irp->AssociatedIrp.SystemBuffer = savedSystemBuffer;
    irp->Tail.Overlay.DriverContext[0] = savedContext0;
    irp->Tail.Overlay.DriverContext[3] = savedContext3;
    return status;
}

// KSPROPERTY_TYPE_BASICSUPPORT without a support handler: the access flags,
// or a KSPROPERTY_DESCRIPTION followed by the item's members lists.
NTSTATUS DefaultBasicSupport(PIRP irp, const KSPROPERTY_ITEM* item, KernelBuffers& buffers) {
    ULONG access = (item->GetPropertyHandler ? KSPROPERTY_TYPE_GET : 0) |
                   (item->SetPropertyHandler ? KSPROPERTY_TYPE_SET : 0);
    const KSPROPERTY_VALUES* values = item->Values;
    ULONG total = sizeof(KSPROPERTY_DESCRIPTION);
    if (values != nullptr) {
        for (ULONG i = 0; i < values->MembersListCount; ++i) {
            const KSPROPERTY_MEMBERSHEADER& h = values->MembersList[i].MembersHeader;
            total += sizeof(KSPROPERTY_MEMBERSHEADER) + h.MembersSize * h.MembersCount;
        }
    }
    ULONG length = buffers.dataLength;
    if (length < sizeof(ULONG)) {
        irp->IoStatus.Information = total;
        return length == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
    }
    UCHAR* out = buffers.data.get();
    if (length < sizeof(KSPROPERTY_DESCRIPTION)) {
        std::memcpy(out, &access, sizeof access);
        irp->IoStatus.Information = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    KSPROPERTY_DESCRIPTION description{};
    description.AccessFlags = access;
    description.DescriptionSize = total;
    if (values != nullptr) {
        description.PropTypeSet = values->PropTypeSet;
        description.MembersListCount = values->MembersListCount;
    } else {
        description.PropTypeSet.Set = KSPROPTYPESETID_General;
    }
    std::memcpy(out, &description, sizeof description);
    if (length < total) {  // the header tells the caller how much to ask for
        irp->IoStatus.Information = sizeof description;
        return STATUS_SUCCESS;
    }
    ULONG offset = sizeof description;
    for (ULONG i = 0; values != nullptr && i < values->MembersListCount; ++i) {
        const KSPROPERTY_MEMBERSLIST& list = values->MembersList[i];
        std::memcpy(out + offset, &list.MembersHeader, sizeof list.MembersHeader);
        offset += sizeof list.MembersHeader;
        ULONG bytes = list.MembersHeader.MembersSize * list.MembersHeader.MembersCount;
        if (bytes != 0) std::memcpy(out + offset, list.Members, bytes);
        offset += bytes;
    }
    irp->IoStatus.Information = total;
    return STATUS_SUCCESS;
}

// KSPROPERTY_TYPE_RELATIONS: a KSMULTIPLE_ITEM and the related KSPROPERTYs.
NTSTATUS Relations(PIRP irp, const KSPROPERTY_ITEM* item, KernelBuffers& buffers) {
    ULONG total = sizeof(KSMULTIPLE_ITEM) + item->RelationsCount * sizeof(KSPROPERTY);
    if (buffers.dataLength == 0) {
        irp->IoStatus.Information = total;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (buffers.dataLength == sizeof(ULONG)) {
        std::memcpy(buffers.data.get(), &total, sizeof total);
        irp->IoStatus.Information = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    if (buffers.dataLength < total) {
        irp->IoStatus.Information = total;
        return STATUS_BUFFER_TOO_SMALL;
    }
    KSMULTIPLE_ITEM header{total, item->RelationsCount};
    std::memcpy(buffers.data.get(), &header, sizeof header);
    if (item->RelationsCount != 0) {
        std::memcpy(buffers.data.get() + sizeof header, item->Relations, item->RelationsCount * sizeof(KSPROPERTY));
    }
    irp->IoStatus.Information = total;
    return STATUS_SUCCESS;
}

// KSPROPERTY_TYPE_SETSUPPORT on GUID_NULL: the GUIDs of every set.
NTSTATUS ListSets(PIRP irp, const KSPROPERTY_SET* driverSets, ULONG driverCount, BuiltinSets builtin,
                  KernelBuffers& buffers) {
    std::vector<GUID> guids;
    for (ULONG i = 0; i < driverCount; ++i) guids.push_back(*driverSets[i].Set);
    for (ULONG i = 0; i < builtin.count; ++i) {
        if (FindSet(driverSets, driverCount, *builtin.sets[i].Set) == nullptr) guids.push_back(*builtin.sets[i].Set);
    }
    ULONG total = ULONG(guids.size() * sizeof(GUID));
    irp->IoStatus.Information = total;
    if (buffers.dataLength == 0) return STATUS_BUFFER_OVERFLOW;
    if (buffers.dataLength < total) return STATUS_BUFFER_TOO_SMALL;
    if (total != 0) std::memcpy(buffers.data.get(), guids.data(), total);
    return STATUS_SUCCESS;
}

// Reads the caller's request and data into kernel buffers.
NTSTATUS CaptureBuffers(PIRP irp, KernelBuffers& buffers) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    buffers.requestLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    buffers.dataLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    const void* request = stack->Parameters.DeviceIoControl.Type3InputBuffer;
    if (buffers.requestLength < sizeof(KSIDENTIFIER) || request == nullptr) return STATUS_INVALID_BUFFER_SIZE;
    if (buffers.dataLength != 0 && irp->UserBuffer == nullptr) return STATUS_INVALID_USER_BUFFER;
    buffers.request.reset(new UCHAR[buffers.requestLength]);
    std::memcpy(buffers.request.get(), request, buffers.requestLength);
    if (buffers.dataLength != 0) {
        buffers.data.reset(new UCHAR[buffers.dataLength]);
        std::memcpy(buffers.data.get(), irp->UserBuffer, buffers.dataLength);
    }
    return STATUS_SUCCESS;
}

// Copies what the handler produced back to the caller, as the I/O manager
// does for a buffered input operation: Information bytes unless the status
// is an error. A success claiming more bytes than the caller's buffer holds
// would overwrite the caller's memory on Windows.
void CopyBack(PIRP irp, NTSTATUS status, const KernelBuffers& buffers) {
    if (NT_ERROR(status) || buffers.dataLength == 0) return;
    ULONG_PTR n = irp->IoStatus.Information;
    if (n > buffers.dataLength) {
        if (NT_SUCCESS(status)) {
            ReportViolation("property request succeeded with Information %llu beyond the caller's %lu-byte buffer",
                            static_cast<unsigned long long>(n), static_cast<unsigned long>(buffers.dataLength));
        }
        n = buffers.dataLength;
    }
    std::memcpy(irp->UserBuffer, buffers.data.get(), n);
}

// The automation table a request addresses: the object's, or a node's when
// KSPROPERTY_TYPE_TOPOLOGY is set (a KSP_NODE request on a filter).
NTSTATUS SelectTable(ObjectHeader* object, const KernelBuffers& buffers, ULONG flags, const KSAUTOMATION_TABLE** table,
                     bool* useBuiltins) {
    *table = object->automationTable;
    *useBuiltins = true;
    if ((flags & KSPROPERTY_TYPE_TOPOLOGY) == 0) return STATUS_SUCCESS;
    KsFilter* filter = AsFilter(object);
    if (filter == nullptr) {
        KsPin* pin = AsPin(object);
        filter = pin ? pin->filter : nullptr;
    }
    if (buffers.requestLength < sizeof(KSP_NODE) || filter == nullptr) return STATUS_INVALID_PARAMETER;
    ULONG nodeId = reinterpret_cast<const KSP_NODE*>(buffers.request.get())->NodeId;
    const KSFILTER_DESCRIPTOR* descriptor = filter->pub.Descriptor;
    if (descriptor == nullptr || nodeId >= descriptor->NodeDescriptorsCount) return STATUS_INVALID_PARAMETER;
    ULONG stride = descriptor->NodeDescriptorSize ? descriptor->NodeDescriptorSize : sizeof(KSNODE_DESCRIPTOR);
    const auto* node = reinterpret_cast<const KSNODE_DESCRIPTOR*>(
        reinterpret_cast<const UCHAR*>(descriptor->NodeDescriptors) + size_t(nodeId) * stride);
    *table = node->AutomationTable;
    *useBuiltins = false;
    return STATUS_SUCCESS;
}

// The request once buffers are captured: set and item lookup, checks, the
// call. `driverSets` may be null (count 0).
NTSTATUS ResolveAndCall(PIRP irp, ObjectHeader* object, const KSPROPERTY_SET* driverSets, ULONG driverCount,
                        ULONG driverStride, BuiltinSets builtin, KernelBuffers& buffers) {
    const auto* property = reinterpret_cast<const KSPROPERTY*>(buffers.request.get());
    ULONG type = property->Flags & ~KSPROPERTY_TYPE_TOPOLOGY;
    if (type == KSPROPERTY_TYPE_SETSUPPORT && IsEqualGUID(property->Set, GUID_NULL)) {
        return ListSets(irp, driverSets, driverCount, builtin, buffers);
    }
    MergedSet set;
    set.driver = FindSet(driverSets, driverCount, property->Set);
    set.driverStride = driverStride ? driverStride : sizeof(KSPROPERTY_ITEM);
    set.builtin = FindSet(builtin.sets, builtin.count, property->Set);
    if (!set.Found()) return STATUS_PROPERTY_SET_NOT_FOUND;
    if (type == KSPROPERTY_TYPE_SETSUPPORT) return STATUS_SUCCESS;

    const KSPROPERTY_SET* owner = set.driver;
    const KSPROPERTY_ITEM* item = FindItem(set.driver, set.driverStride, property->Id);
    if (item == nullptr) {
        owner = set.builtin;
        item = FindItem(set.builtin, sizeof(KSPROPERTY_ITEM), property->Id);
    }
    if (item == nullptr) return STATUS_NOT_FOUND;
    if (buffers.requestLength < item->MinProperty) return STATUS_INVALID_PARAMETER;
    bool builtinItem = owner == set.builtin;

    switch (type) {
        case KSPROPERTY_TYPE_GET:
        case KSPROPERTY_TYPE_SET: {
            PFNKSHANDLER handler = type == KSPROPERTY_TYPE_GET ? item->GetPropertyHandler : item->SetPropertyHandler;
            if (handler == nullptr) return STATUS_NOT_FOUND;
            if (buffers.dataLength < item->MinData) {
                irp->IoStatus.Information = item->MinData;
                return buffers.dataLength == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
            }
            return CallHandler(handler, builtinItem, irp, object, owner, item, buffers);
        }
        case KSPROPERTY_TYPE_BASICSUPPORT:
            if (item->SupportHandler != nullptr) {
                return CallHandler(item->SupportHandler, builtinItem, irp, object, owner, item, buffers);
            }
            return DefaultBasicSupport(irp, item, buffers);
        case KSPROPERTY_TYPE_RELATIONS:
            return Relations(irp, item, buffers);
        case KSPROPERTY_TYPE_SERIALIZESIZE:
            if (buffers.dataLength < sizeof(ULONG)) {
                irp->IoStatus.Information = sizeof(ULONG);
                return buffers.dataLength == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
            }
            std::memcpy(buffers.data.get(), &item->SerializedSize, sizeof(ULONG));
            irp->IoStatus.Information = sizeof(ULONG);
            return STATUS_SUCCESS;
        default:
            if (item->SupportHandler != nullptr && (type & (KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET)) == 0) {
                // Serialization and default values belong to the set's support handler.
                return CallHandler(item->SupportHandler, builtinItem, irp, object, owner, item, buffers);
            }
            return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace

ObjectHeader* CurrentAutomationObject() { return t_current; }

ObjectHeader* SetCurrentAutomationObject(ObjectHeader* object) {
    ObjectHeader* previous = t_current;
    t_current = object;
    return previous;
}

NTSTATUS PropertyRequest(PIRP irp, ObjectHeader* object) {
    irp->IoStatus.Information = 0;
    KernelBuffers buffers;
    NTSTATUS status = CaptureBuffers(irp, buffers);
    if (!NT_SUCCESS(status)) return status;
    ULONG flags = reinterpret_cast<const KSPROPERTY*>(buffers.request.get())->Flags;
    const KSAUTOMATION_TABLE* table = nullptr;
    bool useBuiltins = true;
    status = SelectTable(object, buffers, flags, &table, &useBuiltins);
    if (!NT_SUCCESS(status)) return status;
    BuiltinSets builtin = useBuiltins ? BuiltinPropertySets(object->kind) : BuiltinSets{};
    CurrentObjectScope scope(object);
    status = ResolveAndCall(irp, object, table ? table->PropertySets : nullptr, table ? table->PropertySetsCount : 0,
                            table ? table->PropertyItemSize : 0, builtin, buffers);
    CopyBack(irp, status, buffers);
    return status;
}

NTSTATUS DispatchAutomationIoctl(PIRP irp, ObjectHeader* object) {
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        ReportViolation("KS automation request dispatched at IRQL %u (IRP_MJ_DEVICE_CONTROL runs at PASSIVE_LEVEL)",
                        KeGetCurrentIrql());
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status;
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_KS_PROPERTY:
            status = PropertyRequest(irp, object);
            break;
        case IOCTL_KS_ENABLE_EVENT:
            status = EnableEventRequest(irp, object);
            break;
        case IOCTL_KS_DISABLE_EVENT:
            status = DisableEventRequest(irp, object);
            break;
        case IOCTL_KS_METHOD:
            // Methods are not simulated: no object of the project has a method set.
            irp->IoStatus.Information = 0;
            status = STATUS_NOT_FOUND;
            break;
        default:
            irp->IoStatus.Information = 0;
            status = STATUS_INVALID_DEVICE_REQUEST;
            break;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace kvsim::ks

// ---- KsPropertyHandler: a minidriver's own dispatch of a property IRP ----------------------
extern "C" NTSTATUS KsPropertyHandler(PIRP Irp, ULONG PropertySetsCount, const KSPROPERTY_SET* PropertySet) {
    using namespace kvsim::ks;
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        kvsim::ReportViolation("KsPropertyHandler called at IRQL %u (PASSIVE_LEVEL only)", KeGetCurrentIrql());
    }
    Irp->IoStatus.Information = 0;
    KernelBuffers buffers;
    NTSTATUS status = CaptureBuffers(Irp, buffers);
    if (!NT_SUCCESS(status)) return status;
    status = ResolveAndCall(Irp, nullptr, PropertySet, PropertySetsCount, sizeof(KSPROPERTY_ITEM), BuiltinSets{},
                            buffers);
    CopyBack(Irp, status, buffers);
    return status;
}
