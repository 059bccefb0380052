// The simulated ks.sys: KsInitializeDriver, AddDevice, the device's PnP and
// power dispatch (calling the minidriver's KSDEVICE_DISPATCH), the create,
// close and device-control dispatch that route to filters and pins, the
// device mutex and filter factories.
//
// Where ks.sys's order is documented it is followed:
//  - KsInitializeDriver sets the driver's PnP, power, create, close, device
//    control and system control dispatch and AddDevice; a NULL descriptor is
//    allowed (the minidriver then calls KsInitializeDevice itself or has no
//    device dispatch).
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksinitializedriver
//  - Start is called after the start IRP went down the stack and succeeded,
//    with the translated and untranslated resource lists; PostStart after a
//    successful Start; KSDEVICE.Started is TRUE once Start succeeded.
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnksdevicepnpstart
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnksdevice (PostStart)
//  - QueryStop/QueryRemove may veto; Cancel* and QueryCapabilities are called
//    once the lower drivers completed the IRP; Stop, SurpriseRemoval and
//    Remove before it goes down (the usual WDM order for a function driver).
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnksdeviceirp
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnksdevicequerycapabilities
//  - Filter factories created with KSCREATE_ITEM_FREEONSTOP are freed when
//    the device stops.
//    https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kscreatefilterfactory
// PostStart runs synchronously after Start here (ks.sys runs it from a
// worker thread right after the start completes).
#include <mutex>
#include <unordered_map>

#include "kvsim/diag.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

std::mutex g_driversLock;
std::unordered_map<PDRIVER_OBJECT, const KSDEVICE_DESCRIPTOR*> g_descriptors;

NTSTATUS SignalDone(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends the IRP to the next-lower driver and waits until it completed there;
// the IRP is ours again afterwards.
NTSTATUS ForwardAndWait(KsDevice* device, PIRP irp) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, SignalDone, &done, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(device->pub.NextDeviceObject, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = irp->IoStatus.Status;
    }
    return status;
}

NTSTATUS PassDown(KsDevice* device, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(device->pub.NextDeviceObject, irp);
}

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

const KSDEVICE_DISPATCH* DispatchOf(KsDevice* device) {
    return device->pub.Descriptor ? device->pub.Descriptor->Dispatch : nullptr;
}

class DeviceLock {
public:
    explicit DeviceLock(KsDevice* device) : device_(device) { KsAcquireDevice(&device->pub); }
    ~DeviceLock() { KsReleaseDevice(&device_->pub); }
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

private:
    KsDevice* device_;
};

std::vector<KsFilterFactory*> Factories(KsDevice* device) {
    std::vector<KsFilterFactory*> out;
    for (ObjectHeader* child : device->header.children) {
        if (KsFilterFactory* f = AsFactory(child)) out.push_back(f);
    }
    return out;
}

void SetAllInterfaces(KsDevice* device, bool enable) {
    for (KsFilterFactory* f : Factories(device)) SetFactoryInterfaces(f, enable);
}

// Factories marked KSCREATE_ITEM_FREEONSTOP go away at stop; one with a
// filter still open cannot (the PnP manager does not stop a device with open
// handles), so it stays and is reported.
void FreeFactoriesOnStop(KsDevice* device, bool all) {
    for (KsFilterFactory* f : Factories(device)) {
        if (!all && !(f->createItemFlags & KSCREATE_ITEM_FREEONSTOP)) continue;
        if (!f->header.children.empty()) {
            ReportViolation("ks.sys: filter factory %p destroyed while a filter of it is still open",
                            static_cast<void*>(&f->pub));
            continue;
        }
        DestroyFilterFactory(f);
    }
}

// ---- PnP -------------------------------------------------------------------------------------
NTSTATUS PnpStart(KsDevice* device, PIRP irp) {
    NTSTATUS status = ForwardAndWait(device, irp);
    if (!NT_SUCCESS(status)) return Complete(irp, status);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    if (dispatch && dispatch->Start) {
        status = CallMinidriver(device, CallbackOwner::Device, "Start", dispatch->Start, &device->pub, irp,
                                sp->Parameters.StartDevice.AllocatedResourcesTranslated,
                                sp->Parameters.StartDevice.AllocatedResources);
        if (status == STATUS_PENDING) {
            // KsCompletePendingRequest is not simulated.
            ReportViolation("ks.sys simulation: a Start dispatch returning STATUS_PENDING is not supported");
            status = STATUS_UNSUCCESSFUL;
        }
        if (!NT_SUCCESS(status)) return Complete(irp, status);
    }
    device->pub.Started = TRUE;
    SetAllInterfaces(device, true);
    if (dispatch && dispatch->PostStart) {
        NTSTATUS post = CallMinidriver(device, CallbackOwner::Device, "PostStart", dispatch->PostStart, &device->pub);
        if (!NT_SUCCESS(post)) DbgPrint("ks.sys: PostStart failed 0x%08X\n", static_cast<unsigned>(post));
    }
    return Complete(irp, STATUS_SUCCESS);
}

void StopDevice(KsDevice* device, PIRP irp) {
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    if (dispatch && dispatch->Stop) {
        CallMinidriver(device, CallbackOwner::Device, "Stop", dispatch->Stop, &device->pub, irp);
    }
    device->pub.Started = FALSE;
    SetAllInterfaces(device, false);
    FreeFactoriesOnStop(device, false);
}

void DeleteDevice(KsDevice* device) {
    FreeFactoriesOnStop(device, true);
    PDEVICE_OBJECT fdo = device->pub.FunctionalDeviceObject;
    IoDetachDevice(device->pub.NextDeviceObject);
    FreeBag(device->pub.Bag);
    UnlinkHeader(device->header);
    DeleteObject(device);
    IoDeleteDevice(fdo);
}

NTSTATUS PnpRemove(KsDevice* device, PIRP irp) {
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    {
        DeviceLock lock(device);
        // A remove without a stop first (after a surprise removal, or a
        // remove of a started device): the stop work happens now.
        if (device->pub.Started) StopDevice(device, irp);
        StopAllPins(device);
        SetAllInterfaces(device, false);
        device->removed = true;
        if (dispatch && dispatch->Remove) {
            CallMinidriver(device, CallbackOwner::Device, "Remove", dispatch->Remove, &device->pub, irp);
        }
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS status = PassDown(device, irp);
    DeleteDevice(device);
    return status;
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT fdo, PIRP irp) {
    KsDevice* device = DeviceFromDeviceObject(fdo);
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status;
    switch (sp->MinorFunction) {
        case IRP_MN_START_DEVICE: {
            DeviceLock lock(device);
            return PnpStart(device, irp);
        }
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE: {
            bool stop = sp->MinorFunction == IRP_MN_QUERY_STOP_DEVICE;
            PFNKSDEVICEIRP query = !dispatch ? nullptr : stop ? dispatch->QueryStop : dispatch->QueryRemove;
            if (query) {
                DeviceLock lock(device);
                status = CallMinidriver(device, CallbackOwner::Device, stop ? "QueryStop" : "QueryRemove", query,
                                        &device->pub, irp);
                if (!NT_SUCCESS(status)) return Complete(irp, status);
            }
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(device, irp);
        }
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE: {
            bool stop = sp->MinorFunction == IRP_MN_CANCEL_STOP_DEVICE;
            irp->IoStatus.Status = STATUS_SUCCESS;
            status = ForwardAndWait(device, irp);
            PFNKSDEVICEIRPVOID cancel = !dispatch ? nullptr : stop ? dispatch->CancelStop : dispatch->CancelRemove;
            if (cancel) {
                DeviceLock lock(device);
                CallMinidriver(device, CallbackOwner::Device, stop ? "CancelStop" : "CancelRemove", cancel,
                               &device->pub, irp);
            }
            return Complete(irp, status);
        }
        case IRP_MN_STOP_DEVICE: {
            {
                DeviceLock lock(device);
                StopAllPins(device);
                StopDevice(device, irp);
            }
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(device, irp);
        }
        case IRP_MN_SURPRISE_REMOVAL: {
            {
                DeviceLock lock(device);
                device->surpriseRemoved = true;
                SetAllInterfaces(device, false);
                if (dispatch && dispatch->SurpriseRemoval) {
                    CallMinidriver(device, CallbackOwner::Device, "SurpriseRemoval", dispatch->SurpriseRemoval,
                                   &device->pub, irp);
                }
            }
            // Pins go to stop and their stream IRPs complete with an error
            // (outside the device mutex: SetDeviceState may take it).
            StopAllPins(device);
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(device, irp);
        }
        case IRP_MN_REMOVE_DEVICE:
            return PnpRemove(device, irp);
        case IRP_MN_QUERY_CAPABILITIES: {
            status = ForwardAndWait(device, irp);
            if (NT_SUCCESS(status) && dispatch && dispatch->QueryCapabilities) {
                DeviceLock lock(device);
                status = CallMinidriver(device, CallbackOwner::Device, "QueryCapabilities",
                                        dispatch->QueryCapabilities, &device->pub, irp,
                                        sp->Parameters.DeviceCapabilities.Capabilities);
            }
            if (NT_SUCCESS(status)) {
                // The S -> D mapping the power policy owner uses later.
                PDEVICE_CAPABILITIES caps = sp->Parameters.DeviceCapabilities.Capabilities;
                for (int s = 0; s < PowerSystemMaximum; ++s) device->systemToDevice[s] = caps->DeviceState[s];
            }
            return Complete(irp, status);
        }
        case IRP_MN_QUERY_INTERFACE: {
            if (dispatch && dispatch->QueryInterface && device->pub.Descriptor->Version >= MIN_DEV_VER_FOR_QI) {
                status = CallMinidriver(device, CallbackOwner::Device, "QueryInterface", dispatch->QueryInterface,
                                        &device->pub, irp);
                if (status != STATUS_NOT_SUPPORTED) return Complete(irp, status);
            }
            return PassDown(device, irp);
        }
        default:
            return PassDown(device, irp);
    }
}

// ---- power ------------------------------------------------------------------------------------
DEVICE_POWER_STATE DeviceStateFor(KsDevice* device, SYSTEM_POWER_STATE system) {
    if (system <= PowerSystemUnspecified || system >= PowerSystemMaximum) return PowerDeviceD3;
    DEVICE_POWER_STATE mapped = device->systemToDevice[system];
    if (mapped != PowerDeviceUnspecified) return mapped;
    return system == PowerSystemWorking ? PowerDeviceD0 : PowerDeviceD3;
}

void PowerRequestDone(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
}

// As the device's power policy owner: a D-IRP for `state`, waited for.
void RequestDevicePower(KsDevice* device, DEVICE_POWER_STATE state) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    POWER_STATE ps;
    ps.DeviceState = state;
    if (PoRequestPowerIrp(device->pub.PhysicalDeviceObject, IRP_MN_SET_POWER, ps, PowerRequestDone, &done,
                          nullptr) == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
}

NTSTATUS PowerPassDown(KsDevice* device, PIRP irp) {
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(device->pub.NextDeviceObject, irp);
}

NTSTATUS PowerQuery(KsDevice* device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    SYSTEM_POWER_STATE systemTo = device->pub.SystemPowerState;
    DEVICE_POWER_STATE deviceTo;
    POWER_ACTION action = PowerActionNone;
    if (sp->Parameters.Power.Type == SystemPowerState) {
        systemTo = sp->Parameters.Power.State.SystemState;
        deviceTo = DeviceStateFor(device, systemTo);
        action = sp->Parameters.Power.ShutdownType;
        device->lastPowerAction = action;
    } else {
        deviceTo = sp->Parameters.Power.State.DeviceState;
    }
    if (dispatch && dispatch->QueryPower) {
        DeviceLock lock(device);
        NTSTATUS status = CallMinidriver(device, CallbackOwner::Device, "QueryPower", dispatch->QueryPower,
                                         &device->pub, irp, deviceTo, device->pub.DevicePowerState, systemTo,
                                         device->pub.SystemPowerState, action);
        if (!NT_SUCCESS(status)) {
            PoStartNextPowerIrp(irp);
            return Complete(irp, status);
        }
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return PowerPassDown(device, irp);
}

void CallFactoryPowerCallbacks(KsDevice* device, DEVICE_POWER_STATE state, bool sleeping) {
    for (KsFilterFactory* f : Factories(device)) {
        PFNKSFILTERFACTORYPOWER cb = sleeping ? f->sleepCallback : f->wakeCallback;
        if (cb) {
            CallMinidriver(device, CallbackOwner::Filter, sleeping ? "factory Sleep" : "factory Wake", cb, &f->pub,
                           state);
        }
    }
}

NTSTATUS PowerSetDevice(KsDevice* device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    const KSDEVICE_DISPATCH* dispatch = DispatchOf(device);
    DEVICE_POWER_STATE to = sp->Parameters.Power.State.DeviceState;
    DEVICE_POWER_STATE from = device->pub.DevicePowerState;
    POWER_STATE ps;
    ps.DeviceState = to;
    if (to > from) {
        // Powering down: the objects sleep first, then the minidriver, then
        // the hardware below.
        NotifyPinsOfPower(device, to, true);
        CallFactoryPowerCallbacks(device, to, true);
        if (dispatch && dispatch->SetPower) {
            DeviceLock lock(device);
            CallMinidriver(device, CallbackOwner::Device, "SetPower", dispatch->SetPower, &device->pub, irp, to, from);
        }
        device->pub.DevicePowerState = to;
        PoSetPowerState(device->pub.FunctionalDeviceObject, DevicePowerState, ps);
        irp->IoStatus.Status = STATUS_SUCCESS;
        return PowerPassDown(device, irp);
    }
    // Powering up (or no change): the hardware below first.
    NTSTATUS status = ForwardAndWait(device, irp);
    if (NT_SUCCESS(status)) {
        device->pub.DevicePowerState = to;
        PoSetPowerState(device->pub.FunctionalDeviceObject, DevicePowerState, ps);
        if (dispatch && dispatch->SetPower) {
            DeviceLock lock(device);
            CallMinidriver(device, CallbackOwner::Device, "SetPower", dispatch->SetPower, &device->pub, irp, to, from);
        }
        if (to < from) {
            CallFactoryPowerCallbacks(device, to, false);
            NotifyPinsOfPower(device, to, false);
        }
    }
    PoStartNextPowerIrp(irp);
    return Complete(irp, status);
}

NTSTATUS PowerSetSystem(KsDevice* device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    SYSTEM_POWER_STATE to = sp->Parameters.Power.State.SystemState;
    DEVICE_POWER_STATE wanted = DeviceStateFor(device, to);
    device->pub.SystemPowerState = to;
    // As power policy owner ks.sys asks for the D-state that goes with the
    // new S-state: before the S-IRP goes down when sleeping, after it came
    // back when waking.
    if (to != PowerSystemWorking) {
        if (wanted != device->pub.DevicePowerState) RequestDevicePower(device, wanted);
        irp->IoStatus.Status = STATUS_SUCCESS;
        return PowerPassDown(device, irp);
    }
    NTSTATUS status = ForwardAndWait(device, irp);
    if (NT_SUCCESS(status) && wanted != device->pub.DevicePowerState) RequestDevicePower(device, wanted);
    PoStartNextPowerIrp(irp);
    return Complete(irp, status);
}

NTSTATUS DispatchPower(PDEVICE_OBJECT fdo, PIRP irp) {
    KsDevice* device = DeviceFromDeviceObject(fdo);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (device->removed) {
        PoStartNextPowerIrp(irp);
        return Complete(irp, STATUS_NO_SUCH_DEVICE);
    }
    switch (sp->MinorFunction) {
        case IRP_MN_QUERY_POWER:
            return PowerQuery(device, irp);
        case IRP_MN_SET_POWER:
            return sp->Parameters.Power.Type == SystemPowerState ? PowerSetSystem(device, irp)
                                                                 : PowerSetDevice(device, irp);
        default:
            return PowerPassDown(device, irp);
    }
}

NTSTATUS DispatchSystemControl(PDEVICE_OBJECT fdo, PIRP irp) {
    return PassDown(DeviceFromDeviceObject(fdo), irp);
}

// ---- create / close / device control -------------------------------------------------------------
NTSTATUS DispatchCreate(PDEVICE_OBJECT fdo, PIRP irp) {
    KsDevice* device = DeviceFromDeviceObject(fdo);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    irp->IoStatus.Information = 0;
    if (device->removed || device->surpriseRemoved) return Complete(irp, STATUS_DELETE_PENDING);
    PFILE_OBJECT file = sp->FileObject;
    if (!file) return Complete(irp, STATUS_INVALID_PARAMETER);
    if (!file->RelatedFileObject) return CreateFilter(device, irp);
    KsFilter* filter = AsFilter(HeaderFromFileObject(file->RelatedFileObject));
    if (!filter) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    return CreatePin(filter, irp);
}

NTSTATUS DispatchClose(PDEVICE_OBJECT, PIRP irp) {
    ObjectHeader* object = HeaderFromIrp(irp);
    if (!object) return Complete(irp, STATUS_SUCCESS);
    return CloseObject(object, irp);
}

NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT, PIRP irp) {
    ObjectHeader* object = HeaderFromIrp(irp);
    if (!object) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    ULONG code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
    switch (code) {
        case IOCTL_KS_PROPERTY:
        case IOCTL_KS_ENABLE_EVENT:
        case IOCTL_KS_DISABLE_EVENT:
        case IOCTL_KS_METHOD:
            return DispatchAutomationIoctl(irp, object);
        case IOCTL_KS_READ_STREAM:
        case IOCTL_KS_WRITE_STREAM:
        case IOCTL_KS_RESET_STATE:
            if (KsPin* pin = AsPin(object)) return DispatchStreamIoctl(pin, irp);
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

// The filter factories of a device descriptor's static filter descriptors:
// reference string = the descriptor's ReferenceGuid as text (ks.sys uses
// the GUID's string form).
NTSTATUS CreateStaticFactories(KsDevice* device) {
    const KSDEVICE_DESCRIPTOR* descriptor = device->pub.Descriptor;
    if (!descriptor) return STATUS_SUCCESS;
    for (ULONG i = 0; i < descriptor->FilterDescriptorsCount; ++i) {
        const KSFILTER_DESCRIPTOR* fd = descriptor->FilterDescriptors[i];
        char text[40];
        const GUID& g = fd->ReferenceGuid ? *fd->ReferenceGuid : GUID_NULL;
        snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                 static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                 g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        WCHAR ref[40];
        size_t n = 0;
        for (; text[n]; ++n) ref[n] = static_cast<WCHAR>(text[n]);
        ref[n] = 0;
        NTSTATUS status = KsCreateFilterFactory(device->pub.FunctionalDeviceObject, fd, ref, nullptr, 0, nullptr,
                                                nullptr, nullptr);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

}  // namespace

KsDevice* DeviceFromDeviceObject(PDEVICE_OBJECT fdo) {
    return fdo && fdo->DeviceExtension ? *static_cast<KsDevice**>(fdo->DeviceExtension) : nullptr;
}

}  // namespace kvsim::ks

using namespace kvsim::ks;

extern "C" NTSTATUS KsInitializeDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING,
                                      const KSDEVICE_DESCRIPTOR* Descriptor) {
    {
        std::lock_guard lock(g_driversLock);
        g_descriptors[DriverObject] = Descriptor;
    }
    DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchSystemControl;
    DriverObject->DriverExtension->AddDevice = KsAddDevice;
    return STATUS_SUCCESS;
}

// KsAddDevice: the FDO (FILE_DEVICE_KS) with a KSDEVICE, attached to the
// PDO, then the static filter factories and the minidriver's Add.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksadddevice
extern "C" NTSTATUS KsAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
    const KSDEVICE_DESCRIPTOR* descriptor = nullptr;
    {
        std::lock_guard lock(g_driversLock);
        auto it = g_descriptors.find(DriverObject);
        if (it != g_descriptors.end()) descriptor = it->second;
    }
    PDEVICE_OBJECT fdo = nullptr;
    NTSTATUS status = IoCreateDevice(DriverObject, sizeof(KsDevice*), nullptr, FILE_DEVICE_KS,
                                     FILE_DEVICE_SECURE_OPEN | FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &fdo);
    if (!NT_SUCCESS(status)) return status;
    KsDevice* device = NewObject<KsDevice>();
    KSOBJECT_BAG bag = device ? NewBag(device) : nullptr;
    if (!bag) {
        DeleteObject(device);
        IoDeleteDevice(fdo);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *static_cast<KsDevice**>(fdo->DeviceExtension) = device;
    device->pub.Descriptor = descriptor;
    device->pub.Bag = bag;
    device->pub.FunctionalDeviceObject = fdo;
    device->pub.PhysicalDeviceObject = PhysicalDeviceObject;
    device->pub.Started = FALSE;
    device->pub.SystemPowerState = PowerSystemWorking;
    device->pub.DevicePowerState = PowerDeviceD0;
    KeInitializeMutex(&device->mutex, 0);
    InitHeader(device->header, ObjectKind::Device, &device->pub, nullptr, device, nullptr);
    device->pub.NextDeviceObject = IoAttachDeviceToDeviceStack(fdo, PhysicalDeviceObject);
    fdo->Flags |= DO_DIRECT_IO | DO_POWER_PAGABLE;
    fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    status = CreateStaticFactories(device);
    const KSDEVICE_DISPATCH* dispatch = descriptor ? descriptor->Dispatch : nullptr;
    if (NT_SUCCESS(status) && dispatch && dispatch->Add) {
        status = CallMinidriver(device, CallbackOwner::Device, "Add", dispatch->Add, &device->pub);
    }
    if (!NT_SUCCESS(status)) {
        // Add failed: the device goes away again, as if it never was.
        for (ObjectHeader* child : std::vector<ObjectHeader*>(device->header.children)) {
            if (KsFilterFactory* f = AsFactory(child)) DestroyFilterFactory(f);
        }
        IoDetachDevice(device->pub.NextDeviceObject);
        FreeBag(device->pub.Bag);
        UnlinkHeader(device->header);
        DeleteObject(device);
        IoDeleteDevice(fdo);
    }
    return status;
}

extern "C" PKSDEVICE KsGetDeviceForDeviceObject(PDEVICE_OBJECT FunctionalDeviceObject) {
    KsDevice* device = DeviceFromDeviceObject(FunctionalDeviceObject);
    return device ? &device->pub : nullptr;
}

// The device mutex: a KMUTEX, so it may be taken recursively by its owner
// and only at PASSIVE_LEVEL.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-ksacquiredevice
extern "C" void KsAcquireDevice(PKSDEVICE Device) {
    KsDevice* device = AsDevice(HeaderFromObject(Device));
    if (device) KeWaitForSingleObject(&device->mutex, Executive, KernelMode, FALSE, nullptr);
}

// Releasing it without holding it breaks KsDeviceMutex
// (https://learn.microsoft.com/windows-hardware/drivers/devtest/ks-ksdevicemutex).
extern "C" void KsReleaseDevice(PKSDEVICE Device) {
    KsDevice* device = AsDevice(HeaderFromObject(Device));
    if (!device) return;
    if (kvsim::HoldCount(&device->mutex) == 0) {
        kvsim::ReportViolation("KsReleaseDevice(%p): the device mutex is not held by this thread (KsDeviceMutex: "
                               "a KsReleaseDevice without its KsAcquireDevice)",
                               static_cast<void*>(Device));
        return;
    }
    KeReleaseMutex(&device->mutex, FALSE);
}
