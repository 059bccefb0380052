// The simulated I/O manager's driver and device objects: IoCreateDevice,
// IoDeleteDevice, device stacks (attach, detach, the attached device), the
// host's LoadDriver/UnloadDriver/CallAddDevice, and the stand-alone physical
// device objects of simulated bus drivers.
//
// Device objects are kernel objects (kvsim::ObRegisterObject, type
// IoDeviceObjectType): IoDeleteDevice drops the creator's reference and the
// memory goes when the last reference does (a queued work item holds one).
// As on Windows the object, its device extension and the I/O manager's
// DEVOBJ_EXTENSION are one zero-filled allocation; a new device object has
// DO_DEVICE_INITIALIZING set and StackSize 1
// (learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-iocreatedevice).
// IoDeleteDevice of a device that is still attached to a lower one, or that
// has one attached above it, is a violation: RemoveDevice must IoDetachDevice
// first (nf-wdm-iodetachdevice), or the stack keeps a dangling pointer.
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "io_internal.h"
#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/pool.h"

namespace {

struct ObjectTypeName {
    const char* name;
};
ObjectTypeName g_deviceType{"Device"};
ObjectTypeName g_driverType{"Driver"};
POBJECT_TYPE g_deviceTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_deviceType);
POBJECT_TYPE g_driverTypePtr = reinterpret_cast<POBJECT_TYPE>(&g_driverType);

}  // namespace

extern "C" {
POBJECT_TYPE* IoDeviceObjectType = &g_deviceTypePtr;
POBJECT_TYPE* IoDriverObjectType = &g_driverTypePtr;
}

namespace kvsim {
namespace {

constexpr CSHORT kIoTypeDevobjExtension = 13;

struct DeviceInfo {
    std::u16string name;
    bool deleted = false;
    std::shared_ptr<PdoCallbacks> pdo;  // set for CreateBusPdo devices
};

// A driver object with the storage its strings point into.
struct DriverHolder {
    DRIVER_OBJECT driver{};
    DRIVER_EXTENSION extension{};
    std::u16string driverName;
    std::u16string serviceName;
};

struct DeviceState {
    std::mutex lock;
    std::unordered_map<PDEVICE_OBJECT, DeviceInfo> devices;
    std::map<std::u16string, PDRIVER_OBJECT> busDrivers;
};

DeviceState& State() {
    static DeviceState* state = new DeviceState;
    return *state;
}

size_t AlignUp(size_t n) { return (n + 15) & ~static_cast<size_t>(15); }

void SetUnicode(UNICODE_STRING* target, std::u16string& storage) {
    target->Buffer = reinterpret_cast<PWSTR>(storage.data());
    target->Length = static_cast<USHORT>(storage.size() * sizeof(WCHAR));
    target->MaximumLength = static_cast<USHORT>((storage.size() + 1) * sizeof(WCHAR));
}

std::u16string FromUnicode(PCUNICODE_STRING s) {
    if (s == nullptr || s->Buffer == nullptr) return {};
    return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

std::string Narrow(const std::u16string& s) {
    std::string out;
    for (char16_t c : s) out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

void DestroyDevice(void* body) {
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        s.devices.erase(static_cast<PDEVICE_OBJECT>(body));
    }
    std::free(body);
}

void DestroyDriver(void* body) { delete reinterpret_cast<DriverHolder*>(body); }

bool IsLiveDevice(PDEVICE_OBJECT device, DeviceInfo* out = nullptr) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.devices.find(device);
    if (it == s.devices.end() || it->second.deleted) return false;
    if (out) *out = it->second;
    return true;
}

PDRIVER_OBJECT CreateDriverObject(const std::u16string& name) {
    auto* holder = new DriverHolder;
    holder->driverName = u"\\Driver\\" + name;
    holder->serviceName = name;
    PDRIVER_OBJECT driver = &holder->driver;
    driver->Type = IO_TYPE_DRIVER;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverExtension = &holder->extension;
    holder->extension.DriverObject = driver;
    SetUnicode(&driver->DriverName, holder->driverName);
    SetUnicode(&holder->extension.ServiceKeyName, holder->serviceName);
    for (auto& slot : driver->MajorFunction) slot = io::InvalidDeviceRequest;
    static_assert(offsetof(DriverHolder, driver) == 0, "the holder is freed through its driver object");
    ObRegisterObject(driver, *IoDriverObjectType, DestroyDriver);
    return driver;
}

// ---- bus PDOs -------------------------------------------------------------------

// What a bus driver does with an IRP its PDO has no callback for.
NTSTATUS DefaultPdoDispatch(PDEVICE_OBJECT pdo, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    switch (sp->MajorFunction) {
    case IRP_MJ_PNP:
        switch (sp->MinorFunction) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
            status = STATUS_SUCCESS;
            break;
        default:
            break;  // unknown PnP IRPs keep the status they carry
        }
        break;
    case IRP_MJ_POWER:
        PoStartNextPowerIrp(irp);
        if (sp->MinorFunction == IRP_MN_SET_POWER || sp->MinorFunction == IRP_MN_QUERY_POWER) {
            if (sp->MinorFunction == IRP_MN_SET_POWER) {
                PoSetPowerState(pdo, sp->Parameters.Power.Type, sp->Parameters.Power.State);
            }
            status = STATUS_SUCCESS;
        }
        break;
    case IRP_MJ_SYSTEM_CONTROL:
        break;
    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

const PdoDispatch* PickCallback(const PdoCallbacks& c, UCHAR major) {
    const PdoDispatch* fn = &c.other;
    switch (major) {
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: fn = &c.internalDeviceControl; break;
    case IRP_MJ_DEVICE_CONTROL: fn = &c.deviceControl; break;
    case IRP_MJ_PNP: fn = &c.pnp; break;
    case IRP_MJ_POWER: fn = &c.power; break;
    case IRP_MJ_SYSTEM_CONTROL: fn = &c.systemControl; break;
    default: break;
    }
    return *fn ? fn : nullptr;
}

NTSTATUS BusDispatch(PDEVICE_OBJECT pdo, PIRP irp) {
    DeviceInfo info;
    if (!IsLiveDevice(pdo, &info) || !info.pdo) return DefaultPdoDispatch(pdo, irp);
    const PdoDispatch* fn = PickCallback(*info.pdo, IoGetCurrentIrpStackLocation(irp)->MajorFunction);
    if (fn == nullptr) return DefaultPdoDispatch(pdo, irp);
    return (*fn)(pdo, irp);
}

PDRIVER_OBJECT BusDriver(const std::u16string& busName) {
    auto& s = State();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.busDrivers.find(busName);
        if (it != s.busDrivers.end()) return it->second;
    }
    PDRIVER_OBJECT driver = CreateDriverObject(busName);
    for (auto& slot : driver->MajorFunction) slot = BusDispatch;
    std::lock_guard<std::mutex> guard(s.lock);
    s.busDrivers[busName] = driver;
    return driver;
}

}  // namespace

PDRIVER_OBJECT LoadDriver(const std::u16string& name, const std::u16string& registryPath, PDRIVER_INITIALIZE init,
                          NTSTATUS* status) {
    PDRIVER_OBJECT driver = CreateDriverObject(name);
    driver->DriverInit = init;
    // The registry path lives only for the call, as on Windows (DriverEntry
    // must copy what it keeps): AddressSanitizer catches a driver that keeps
    // the pointer.
    auto path = std::make_unique<std::u16string>(registryPath);
    UNICODE_STRING pathString;
    SetUnicode(&pathString, *path);
    NTSTATUS result = init(driver, &pathString);
    path.reset();
    if (status) *status = result;
    if (!NT_SUCCESS(result)) {
        if (driver->DeviceObject != nullptr) {
            ReportViolation("DriverEntry of %s failed (0x%08X) but left device objects behind", Narrow(name).c_str(),
                            static_cast<unsigned>(result));
        }
        ObDereferenceObject(driver);
        return nullptr;
    }
    return driver;
}

void UnloadDriver(PDRIVER_OBJECT driver) {
    if (driver->DriverUnload) driver->DriverUnload(driver);
    if (driver->DeviceObject != nullptr) {
        ReportViolation("driver %s unloaded with device objects still present",
                        Narrow(FromUnicode(&driver->DriverName)).c_str());
    }
    ObDereferenceObject(driver);
}

NTSTATUS CallAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    if (driver->DriverExtension->AddDevice == nullptr) {
        ReportViolation("CallAddDevice: the driver set no AddDevice routine");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return driver->DriverExtension->AddDevice(driver, pdo);
}

PDEVICE_OBJECT CreateBusPdo(const std::u16string& busName, PdoCallbacks callbacks, ULONG extensionSize,
                            DEVICE_TYPE type) {
    PDRIVER_OBJECT bus = BusDriver(busName);
    PDEVICE_OBJECT pdo = nullptr;
    NTSTATUS status =
        IoCreateDevice(bus, extensionSize, nullptr, type, FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pdo);
    if (!NT_SUCCESS(status)) return nullptr;
    pdo->Flags |= DO_BUS_ENUMERATED_DEVICE | DO_POWER_PAGABLE;
    pdo->Flags &= ~DO_DEVICE_INITIALIZING;
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.devices[pdo].pdo = std::make_shared<PdoCallbacks>(std::move(callbacks));
    return pdo;
}

void DeleteBusPdo(PDEVICE_OBJECT pdo) {
    {
        auto& s = State();
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.devices.find(pdo);
        if (it != s.devices.end()) it->second.pdo.reset();
    }
    IoDeleteDevice(pdo);
}

size_t LiveDeviceObjectCount() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    size_t n = 0;
    for (const auto& [device, info] : s.devices) n += info.deleted ? 0 : 1;
    return n;
}

}  // namespace kvsim

using kvsim::ReportViolation;

extern "C" NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                                   DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                   PDEVICE_OBJECT* DeviceObject) {
    kvsim::io::CheckIrqlAtMost(PASSIVE_LEVEL, "IoCreateDevice");
    *DeviceObject = nullptr;
    std::u16string name = kvsim::FromUnicode(DeviceName);
    auto& s = kvsim::State();
    if (!name.empty()) {
        std::lock_guard<std::mutex> guard(s.lock);
        for (const auto& [device, info] : s.devices) {
            if (!info.deleted && info.name == name) return STATUS_OBJECT_NAME_COLLISION;
        }
    }
    if (kvsim::PoolTakeInjectedFailure(kvsim::PoolTag(kvsim::io::kDeviceTag))) return STATUS_INSUFFICIENT_RESOURCES;
    size_t objectSize = kvsim::AlignUp(sizeof(DEVICE_OBJECT));
    size_t extensionSize = kvsim::AlignUp(DeviceExtensionSize);
    void* memory = std::calloc(1, objectSize + extensionSize + sizeof(DEVOBJ_EXTENSION));
    if (memory == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    auto device = static_cast<PDEVICE_OBJECT>(memory);
    auto* bytes = static_cast<UCHAR*>(memory);
    auto* doe = reinterpret_cast<PDEVOBJ_EXTENSION>(bytes + objectSize + extensionSize);
    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0) | (name.empty() ? 0 : DO_DEVICE_HAS_NAME);
    device->Characteristics = DeviceCharacteristics;
    device->DeviceExtension = DeviceExtensionSize ? bytes + objectSize : nullptr;
    device->DeviceType = DeviceType;
    device->StackSize = 1;
    device->AlignmentRequirement = FILE_BYTE_ALIGNMENT;
    InitializeListHead(&device->Queue.ListEntry);
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    device->DeviceObjectExtension = doe;
    doe->Type = kvsim::kIoTypeDevobjExtension;
    doe->Size = sizeof(DEVOBJ_EXTENSION);
    doe->DeviceObject = device;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        s.devices[device].name = name;
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    kvsim::ObRegisterObject(device, *IoDeviceObjectType, kvsim::DestroyDevice);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

extern "C" VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    kvsim::io::CheckIrqlAtMost(PASSIVE_LEVEL, "IoDeleteDevice");
    auto& s = kvsim::State();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.devices.find(DeviceObject);
        if (it == s.devices.end() || it->second.deleted) {
            ReportViolation("IoDeleteDevice(%p): not a live device object (deleted twice?)",
                            static_cast<void*>(DeviceObject));
            return;
        }
        it->second.deleted = true;
        PDEVICE_OBJECT* link = &DeviceObject->DriverObject->DeviceObject;
        while (*link != nullptr && *link != DeviceObject) link = &(*link)->NextDevice;
        if (*link == DeviceObject) *link = DeviceObject->NextDevice;
    }
    if (DeviceObject->AttachedDevice != nullptr) {
        ReportViolation("IoDeleteDevice(%p): device %p is still attached above it", static_cast<void*>(DeviceObject),
                        static_cast<void*>(DeviceObject->AttachedDevice));
        DeviceObject->AttachedDevice->DeviceObjectExtension->AttachedTo = nullptr;
    }
    PDEVICE_OBJECT lower = DeviceObject->DeviceObjectExtension->AttachedTo;
    if (lower != nullptr) {
        ReportViolation("IoDeleteDevice(%p): still attached to %p; IoDetachDevice must come first",
                        static_cast<void*>(DeviceObject), static_cast<void*>(lower));
        lower->AttachedDevice = nullptr;
    }
    ObDereferenceObject(DeviceObject);
}

extern "C" PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject) {
    while (DeviceObject->AttachedDevice != nullptr) DeviceObject = DeviceObject->AttachedDevice;
    return DeviceObject;
}

extern "C" PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    ObReferenceObject(top);
    return top;
}

extern "C" PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower = DeviceObject->DeviceObjectExtension->AttachedTo;
    if (lower != nullptr) ObReferenceObject(lower);
    return lower;
}

// Attaches to the top of the target's stack and returns that device, or NULL
// when the top is being deleted (nf-wdm-ioattachdevicetodevicestack).
extern "C" PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    if (SourceDevice->DeviceObjectExtension->AttachedTo != nullptr) {
        ReportViolation("IoAttachDeviceToDeviceStack(%p): the device is attached already",
                        static_cast<void*>(SourceDevice));
        return nullptr;
    }
    PDEVICE_OBJECT top = IoGetAttachedDevice(TargetDevice);
    if (!kvsim::IsLiveDevice(top)) return nullptr;
    top->AttachedDevice = SourceDevice;
    SourceDevice->DeviceObjectExtension->AttachedTo = top;
    SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    if (top->AlignmentRequirement > SourceDevice->AlignmentRequirement) {
        SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    }
    SourceDevice->SectorSize = top->SectorSize;
    return top;
}

extern "C" VOID IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
    if (upper == nullptr) {
        ReportViolation("IoDetachDevice(%p): nothing is attached to it", static_cast<void*>(TargetDevice));
        return;
    }
    upper->DeviceObjectExtension->AttachedTo = nullptr;
    TargetDevice->AttachedDevice = nullptr;
}
