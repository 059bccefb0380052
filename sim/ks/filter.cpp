// The simulated ks.sys: filter factories (KsCreateFilterFactory and their
// device interfaces), filter creation from IRP_MJ_CREATE on the device with
// the factory's reference string as the file name, and the close of a
// filter or pin (Close dispatch, events, object bag).
//
// KsCreateFilterFactory registers one device interface per filter category
// with the reference string and enables them when the device is started.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kscreatefilterfactory
// The filter's Context starts as its factory's Context (KSFILTER page), and
// everything in the filter's bag is freed when the filter is deleted.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ns-ks-_ksfilter
#include <string>

#include "kvsim/diag.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

char16_t Upper(char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c; }

bool EqualNoCase(const std::u16string& a, const std::u16string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (Upper(a[i]) != Upper(b[i])) return false;
    }
    return true;
}

std::u16string FromPwstr(PCWSTR s) {
    std::u16string out;
    for (; s && *s; ++s) out.push_back(static_cast<char16_t>(*s));
    return out;
}

UNICODE_STRING AsUnicode(const std::u16string& s) {
    UNICODE_STRING u;
    u.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(s.data()));
    u.Length = static_cast<USHORT>(s.size() * sizeof(WCHAR));
    u.MaximumLength = u.Length;
    return u;
}

// The create file name without its leading backslash.
std::u16string CreateName(PFILE_OBJECT file) {
    std::u16string name(reinterpret_cast<const char16_t*>(file->FileName.Buffer),
                        file->FileName.Length / sizeof(WCHAR));
    if (!name.empty() && name[0] == u'\\') name.erase(0, 1);
    return name;
}

KsFilterFactory* FindFactory(KsDevice* device, const std::u16string& name) {
    for (ObjectHeader* child : device->header.children) {
        KsFilterFactory* f = AsFactory(child);
        if (f && EqualNoCase(f->referenceString, name)) return f;
    }
    return nullptr;
}

void DeleteFilter(KsFilter* filter) {
    FreeBag(filter->pub.Bag);
    UnlinkHeader(filter->header);
    DeleteObject(filter);
}

NTSTATUS CloseFilter(KsFilter* filter, PIRP irp) {
    // A filter's file object is referenced by its pins' file objects, so
    // Windows closes the pins first; a client that did not is reported and
    // its pins are closed now.
    while (!filter->header.children.empty()) {
        ReportViolation("ks.sys: filter %p closed while a pin of it is still open", static_cast<void*>(&filter->pub));
        CloseObject(filter->header.children.front(), nullptr);
    }
    // The object's events are freed before its Close dispatch runs, with the
    // filter control mutex held (AVStrMiniFilterClose / AVStrMiniPinClose).
    AutomationObjectClosing(&filter->header);
    const KSFILTER_DISPATCH* dispatch = filter->pub.Descriptor->Dispatch;
    if (dispatch && dispatch->Close) {
        KsAcquireControl(&filter->pub);
        NTSTATUS status = CallMinidriver(filter->header.device, CallbackOwner::Filter, "Close", dispatch->Close,
                                         &filter->pub, irp);
        KsReleaseControl(&filter->pub);
        if (status == STATUS_PENDING) ReportViolation("ks.sys simulation: a filter Close returning STATUS_PENDING");
    }
    if (filter->header.fileObject) filter->header.fileObject->FsContext = nullptr;
    DeleteFilter(filter);
    return STATUS_SUCCESS;
}

NTSTATUS ClosePin(KsPin* pin, PIRP irp) {
    // Closing a pin takes it to stop first (ks.sys walks the states down).
    ChangePinState(pin, KSSTATE_STOP);
    FlushPinQueue(pin, STATUS_CANCELLED);
    AutomationObjectClosing(&pin->header);
    const KSPIN_DISPATCH* dispatch = pin->pub.Descriptor->Dispatch;
    if (dispatch && dispatch->Close) {
        KsAcquireControl(&pin->pub);
        NTSTATUS status =
            CallMinidriver(pin->header.device, CallbackOwner::Pin, "Close", dispatch->Close, &pin->pub, irp);
        KsReleaseControl(&pin->pub);
        if (status == STATUS_PENDING) ReportViolation("ks.sys simulation: a pin Close returning STATUS_PENDING");
    }
    KsFilter* filter = pin->filter;
    if (pin->pub.Id < filter->pinInstanceCounts.size()) --filter->pinInstanceCounts[pin->pub.Id];
    if (pin->header.fileObject) pin->header.fileObject->FsContext = nullptr;
    FreeBag(pin->pub.Bag);
    ReleasePinResources(pin);
    UnlinkHeader(pin->header);
    DeleteObject(pin);
    return STATUS_SUCCESS;
}

}  // namespace

void SetFactoryInterfaces(KsFilterFactory* factory, bool enable) {
    if (factory->interfacesEnabled == enable) return;
    for (auto& link : factory->symbolicLinks) {
        UNICODE_STRING u = AsUnicode(link);
        IoSetDeviceInterfaceState(&u, enable);
    }
    factory->interfacesEnabled = enable;
}

void DestroyFilterFactory(KsFilterFactory* factory) {
    SetFactoryInterfaces(factory, false);
    FreeBag(factory->pub.Bag);
    UnlinkHeader(factory->header);
    DeleteObject(factory);
}

NTSTATUS CreateFilter(KsDevice* device, PIRP irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    KsFilterFactory* factory = FindFactory(device, CreateName(file));
    if (!factory) return Complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    const KSFILTER_DESCRIPTOR* descriptor = factory->pub.FilterDescriptor;
    KsFilter* filter = NewObject<KsFilter>();
    KSOBJECT_BAG bag = filter ? NewBag(device) : nullptr;
    if (!bag) {
        DeleteObject(filter);
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    }
    filter->pub.Descriptor = descriptor;
    filter->pub.Bag = bag;
    filter->pub.Context = factory->pub.Context;
    filter->factory = factory;
    filter->pinInstanceCounts.assign(descriptor->PinDescriptorsCount, 0);
    KeInitializeMutex(&filter->processingMutex, 0);
    InitHeader(filter->header, ObjectKind::Filter, &filter->pub, &factory->header, device, descriptor->AutomationTable);
    filter->header.fileObject = file;
    file->FsContext = &filter->header;
    NTSTATUS status = STATUS_SUCCESS;
    if (descriptor->Dispatch && descriptor->Dispatch->Create) {
        status = CallMinidriver(device, CallbackOwner::Filter, "Create", descriptor->Dispatch->Create, &filter->pub,
                                irp);
        if (status == STATUS_PENDING) {
            ReportViolation("ks.sys simulation: a filter Create returning STATUS_PENDING is not supported");
            status = STATUS_UNSUCCESSFUL;
        }
    }
    if (!NT_SUCCESS(status)) {
        file->FsContext = nullptr;
        DeleteFilter(filter);
    }
    return Complete(irp, status);
}

NTSTATUS CloseObject(ObjectHeader* object, PIRP irp) {
    NTSTATUS status = STATUS_SUCCESS;
    if (KsFilter* filter = AsFilter(object)) status = CloseFilter(filter, irp);
    else if (KsPin* pin = AsPin(object)) status = ClosePin(pin, irp);
    if (irp) return Complete(irp, status);
    return status;
}

ULONG PinInstanceCount(KsFilter* filter, ULONG pinId) {
    return pinId < filter->pinInstanceCounts.size() ? filter->pinInstanceCounts[pinId] : 0;
}

const KSPIN_DESCRIPTOR_EX* FilterPinDescriptor(const KSFILTER_DESCRIPTOR* descriptor, ULONG pinId) {
    if (!descriptor || pinId >= descriptor->PinDescriptorsCount) return nullptr;
    auto* base = reinterpret_cast<const UCHAR*>(descriptor->PinDescriptors);
    return reinterpret_cast<const KSPIN_DESCRIPTOR_EX*>(base + size_t(pinId) * descriptor->PinDescriptorSize);
}

}  // namespace kvsim::ks

using namespace kvsim::ks;

extern "C" NTSTATUS KsCreateFilterFactory(PDEVICE_OBJECT DeviceObject, const KSFILTER_DESCRIPTOR* Descriptor,
                                          PWSTR RefString, PSECURITY_DESCRIPTOR, ULONG CreateItemFlags,
                                          PFNKSFILTERFACTORYPOWER SleepCallback, PFNKSFILTERFACTORYPOWER WakeCallback,
                                          PKSFILTERFACTORY* FilterFactory) {
    KsDevice* device = DeviceFromDeviceObject(DeviceObject);
    if (!device || !Descriptor) return STATUS_INVALID_PARAMETER;
    KsFilterFactory* factory = NewObject<KsFilterFactory>();
    KSOBJECT_BAG bag = factory ? NewBag(device) : nullptr;
    if (!bag) {
        DeleteObject(factory);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    factory->pub.FilterDescriptor = Descriptor;
    factory->pub.Bag = bag;
    factory->pub.Context = device->pub.Context;
    factory->referenceString = FromPwstr(RefString);
    factory->createItemFlags = CreateItemFlags;
    factory->sleepCallback = SleepCallback;
    factory->wakeCallback = WakeCallback;
    InitHeader(factory->header, ObjectKind::FilterFactory, &factory->pub, &device->header, device, nullptr);
    UNICODE_STRING ref = AsUnicode(factory->referenceString);
    for (ULONG i = 0; i < Descriptor->CategoriesCount; ++i) {
        UNICODE_STRING link{};
        NTSTATUS status = IoRegisterDeviceInterface(device->pub.PhysicalDeviceObject, &Descriptor->Categories[i],
                                                    factory->referenceString.empty() ? nullptr : &ref, &link);
        if (!NT_SUCCESS(status)) {
            DestroyFilterFactory(factory);
            return status;
        }
        factory->symbolicLinks.emplace_back(reinterpret_cast<const char16_t*>(link.Buffer),
                                            link.Length / sizeof(WCHAR));
        RtlFreeUnicodeString(&link);
    }
    if (device->pub.Started) SetFactoryInterfaces(factory, true);
    if (FilterFactory) *FilterFactory = &factory->pub;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS KsFilterFactorySetDeviceClassesState(PKSFILTERFACTORY FilterFactory, BOOLEAN NewState) {
    KsFilterFactory* factory = AsFactory(HeaderFromObject(FilterFactory));
    if (!factory) return STATUS_INVALID_PARAMETER;
    SetFactoryInterfaces(factory, NewState != FALSE);
    return STATUS_SUCCESS;
}

// The registry cache of filter data (FilterData) is not simulated.
extern "C" NTSTATUS KsFilterFactoryUpdateCacheData(PKSFILTERFACTORY, const KSFILTER_DESCRIPTOR*) {
    return STATUS_SUCCESS;
}

extern "C" void KsFilterRegisterPowerCallbacks(PKSFILTER Filter, PFNKSFILTERPOWER Sleep, PFNKSFILTERPOWER Wake) {
    KsFilter* filter = AsFilter(HeaderFromObject(Filter));
    if (!filter) return;
    filter->sleepCallback = Sleep;
    filter->wakeCallback = Wake;
}
