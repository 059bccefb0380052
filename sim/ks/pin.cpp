// The simulated ks.sys: pin creation (the connect request validated against
// the pin factory as ks.sys does), the pin state machine, pin power
// callbacks and the reference clock.
//
// Pin creation: IRP_MJ_CREATE with the filter as related file object and
// the file name "<KSSTRING_Pin>\" followed by a KSPIN_CONNECT and the
// KSDATAFORMAT (what KsCreatePin sends). Checks, in order: sizes; the pin id
// (STATUS_INVALID_PARAMETER); the instance count against InstancesPossible
// (STATUS_UNSUCCESSFUL; KSINSTANCE_INDETERMINATE = no limit); interface and
// medium against the pin's lists (default: standard streaming / standard
// devio; STATUS_NO_MATCH); the format against the data ranges: major format,
// subformat and specifier equal or the range's a wildcard (GUID_NULL);
// then SetDataFormat with OldFormat NULL for each matching range until one
// is accepted (STATUS_NO_MATCH from SetDataFormat tries the next), then the
// pin's Create.
// https://learn.microsoft.com/windows-hardware/drivers/stream/data-range-intersections-in-avstream
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnkspinsetdataformat
// Sizes beyond the 64-byte KSDATAFORMAT header are the minidriver's to check
// (a KS_DATARANGE_VIDEO is larger than the KS_DATAFORMAT_VIDEOINFOHEADER it
// describes, so a FormatSize comparison with the range would refuse every
// video format).
//
// State: KSPROPERTY_CONNECTION_STATE reaches SetDeviceState one step at a
// time (STOP <-> ACQUIRE <-> PAUSE <-> RUN).
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nc-ks-pfnkspinsetdevicestate
// https://learn.microsoft.com/windows-hardware/drivers/stream/ksproperty-connection-state
#include <atomic>
#include <cstring>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/sched.h"
#include "ks_core.h"

namespace kvsim::ks {
namespace {

// KSSTRING_Pin, the name ks.sys gives the pin create item.
constexpr char16_t kPinName[] = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}";

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

char16_t Upper(char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c; }

// The create parameters after "<KSSTRING_Pin>\" in the file name, or null.
const UCHAR* PinCreateParameters(PFILE_OBJECT file, size_t* size) {
    auto* name = reinterpret_cast<const char16_t*>(file->FileName.Buffer);
    size_t chars = file->FileName.Length / sizeof(WCHAR);
    size_t at = 0;
    if (chars > 0 && name[0] == u'\\') at = 1;
    const size_t prefix = sizeof(kPinName) / sizeof(char16_t) - 1;
    if (chars < at + prefix + 1) return nullptr;
    for (size_t i = 0; i < prefix; ++i) {
        if (Upper(name[at + i]) != kPinName[i]) return nullptr;
    }
    if (name[at + prefix] != u'\\') return nullptr;
    size_t offset = (at + prefix + 1) * sizeof(WCHAR);
    *size = file->FileName.Length - offset;
    return reinterpret_cast<const UCHAR*>(file->FileName.Buffer) + offset;
}

bool GuidMatches(const GUID& range, const GUID& format) { return range == GUID_NULL || range == format; }

bool IdentifierIn(const KSIDENTIFIER& wanted, ULONG count, const KSIDENTIFIER* list, const GUID& defaultSet,
                  ULONG defaultId) {
    if (count == 0 || !list) return wanted.Set == defaultSet && wanted.Id == defaultId;
    for (ULONG i = 0; i < count; ++i) {
        if (list[i].Set == wanted.Set && list[i].Id == wanted.Id) return true;
    }
    return false;
}

std::vector<const KSDATARANGE*> MatchingRanges(const KSPIN_DESCRIPTOR& pd, const KSDATAFORMAT& format) {
    std::vector<const KSDATARANGE*> out;
    for (ULONG i = 0; i < pd.DataRangesCount; ++i) {
        const KSDATARANGE* r = pd.DataRanges[i];
        if (GuidMatches(r->MajorFormat, format.MajorFormat) && GuidMatches(r->SubFormat, format.SubFormat) &&
            GuidMatches(r->Specifier, format.Specifier)) {
            out.push_back(r);
        }
    }
    return out;
}

void DeletePin(KsPin* pin) {
    FreeBag(pin->pub.Bag);
    ReleasePinResources(pin);
    UnlinkHeader(pin->header);
    DeleteObject(pin);
}

// Offers the format to the minidriver with each matching range in turn.
NTSTATUS ChooseRange(KsPin* pin, const std::vector<const KSDATARANGE*>& ranges) {
    const KSPIN_DISPATCH* dispatch = pin->pub.Descriptor->Dispatch;
    if (!dispatch || !dispatch->SetDataFormat) return STATUS_SUCCESS;
    NTSTATUS status = STATUS_NO_MATCH;
    for (const KSDATARANGE* range : ranges) {
        status = CallMinidriver(pin->header.device, CallbackOwner::Pin, "SetDataFormat", dispatch->SetDataFormat,
                                &pin->pub, nullptr, nullptr, range, nullptr);
        if (status != STATUS_NO_MATCH) break;
    }
    return status;
}

// ---- the reference clock ---------------------------------------------------------------------
// What KsPinGetReferenceClockInterface hands out: reads the simulated clock.
class ReferenceClock final : public IKsReferenceClock {
public:
    NTSTATUS QueryInterface(REFIID, PVOID* out) override {
        *out = nullptr;
        return STATUS_NOT_IMPLEMENTED;
    }
    ULONG AddRef() override { return ++refs_; }
    ULONG Release() override {
        ULONG left = --refs_;
        if (left == 0) {
            this->~ReferenceClock();
            ExFreePoolWithTag(this, PoolTag("KSck"));
        }
        return left;
    }
    LONGLONG GetTime() override { return kvsim::Now(); }
    LONGLONG GetPhysicalTime() override { return kvsim::Now(); }
    LONGLONG GetCorrelatedTime(PLONGLONG systemTime) override {
        LONGLONG now = kvsim::Now();
        if (systemTime) *systemTime = now;
        return now;
    }
    LONGLONG GetCorrelatedPhysicalTime(PLONGLONG systemTime) override { return GetCorrelatedTime(systemTime); }
    NTSTATUS GetResolution(PKSRESOLUTION resolution) override {
        resolution->Granularity = 1;
        resolution->Error = 0;
        return STATUS_SUCCESS;
    }
    NTSTATUS GetState(PKSSTATE state) override {
        *state = KSSTATE_RUN;
        return STATUS_SUCCESS;
    }

private:
    std::atomic<ULONG> refs_{1};
};

}  // namespace

NTSTATUS CreatePin(KsFilter* filter, PIRP irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    size_t size = 0;
    const UCHAR* params = PinCreateParameters(file, &size);
    if (!params) return Complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    if (size < sizeof(KSPIN_CONNECT) + sizeof(KSDATAFORMAT)) return Complete(irp, STATUS_INVALID_PARAMETER);
    KSPIN_CONNECT connect;
    memcpy(&connect, params, sizeof(connect));
    KSDATAFORMAT header;
    memcpy(&header, params + sizeof(KSPIN_CONNECT), sizeof(header));
    if (header.FormatSize < sizeof(KSDATAFORMAT) || size < sizeof(KSPIN_CONNECT) + header.FormatSize) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    const KSFILTER_DESCRIPTOR* fd = filter->pub.Descriptor;
    const KSPIN_DESCRIPTOR_EX* pd = FilterPinDescriptor(fd, connect.PinId);
    if (!pd) return Complete(irp, STATUS_INVALID_PARAMETER);
    if (pd->InstancesPossible != KSINSTANCE_INDETERMINATE &&
        PinInstanceCount(filter, connect.PinId) >= pd->InstancesPossible) {
        return Complete(irp, STATUS_UNSUCCESSFUL);
    }
    if (!IdentifierIn(connect.Interface, pd->PinDescriptor.InterfacesCount, pd->PinDescriptor.Interfaces,
                      KSINTERFACESETID_Standard, KSINTERFACE_STANDARD_STREAMING) ||
        !IdentifierIn(connect.Medium, pd->PinDescriptor.MediumsCount, pd->PinDescriptor.Mediums,
                      KSMEDIUMSETID_Standard, KSMEDIUM_STANDARD_DEVIO)) {
        return Complete(irp, STATUS_NO_MATCH);
    }
    std::vector<const KSDATARANGE*> ranges = MatchingRanges(pd->PinDescriptor, header);
    if (ranges.empty()) return Complete(irp, STATUS_NO_MATCH);

    KsDevice* device = filter->header.device;
    KsPin* pin = NewObject<KsPin>();
    KSOBJECT_BAG bag = pin ? NewBag(device) : nullptr;
    auto* format = static_cast<PKSDATAFORMAT>(
        bag ? ExAllocatePoolWithTag(NonPagedPool, header.FormatSize, kFormatTag) : nullptr);
    if (!format) {
        if (bag) FreeBag(bag);
        DeleteObject(pin);
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    }
    memcpy(format, params + sizeof(KSPIN_CONNECT), header.FormatSize);
    pin->formatStorage = format;
    pin->filter = filter;
    KSPIN& pub = pin->pub;
    pub.Descriptor = pd;
    pub.Bag = bag;
    pub.Context = filter->pub.Context;
    pub.Id = connect.PinId;
    pub.Communication = pd->PinDescriptor.Communication;
    pub.ConnectionIsExternal = connect.PinToHandle == nullptr;
    pub.ConnectionInterface = connect.Interface;
    pub.ConnectionMedium = connect.Medium;
    pub.ConnectionPriority = connect.Priority;
    pub.ConnectionFormat = format;
    pub.StreamHeaderSize = 0;  // 0: plain KSSTREAM_HEADER; the minidriver may set more in Create
    pub.DataFlow = pd->PinDescriptor.DataFlow;
    pub.DeviceState = KSSTATE_STOP;
    pub.ResetState = KSRESET_END;
    pub.ClientState = KSSTATE_STOP;
    KeInitializeSpinLock(&pin->queueLock);
    KeInitializeMutex(&pin->processingMutex, 0);
    InitHeader(pin->header, ObjectKind::Pin, &pub, &filter->header, device, pd->AutomationTable);
    pin->header.fileObject = file;
    file->FsContext = &pin->header;

    KsAcquireControl(&filter->pub);
    NTSTATUS status = ChooseRange(pin, ranges);
    if (NT_SUCCESS(status) && pd->Dispatch && pd->Dispatch->Create) {
        status = CallMinidriver(device, CallbackOwner::Pin, "Create", pd->Dispatch->Create, &pub, irp);
        if (status == STATUS_PENDING) {
            ReportViolation("ks.sys simulation: a pin Create returning STATUS_PENDING is not supported");
            status = STATUS_UNSUCCESSFUL;
        }
    }
    if (NT_SUCCESS(status)) ++filter->pinInstanceCounts[connect.PinId];
    KsReleaseControl(&filter->pub);
    if (!NT_SUCCESS(status)) {
        file->FsContext = nullptr;
        DeletePin(pin);
    }
    return Complete(irp, status);
}

void ReleasePinResources(KsPin* pin) {
    SetPinMasterClock(pin, nullptr);
    if (pin->leadingEdge) {
        ExFreePoolWithTag(pin->leadingEdge, kStreamPointerTag);
        pin->leadingEdge = nullptr;
    }
    if (pin->formatStorage) {
        ExFreePoolWithTag(pin->formatStorage, kFormatTag);
        pin->formatStorage = nullptr;
        pin->pub.ConnectionFormat = nullptr;
    }
}

// A pin that stops with its leading edge still locked (the minidriver had
// its SetDeviceState to let go): KsStreamPointerUnlock rule, "unlocks all
// stream pointers before ... the device stops".
// https://learn.microsoft.com/windows-hardware/drivers/devtest/ks-ksstreampointerunlock
namespace {
void CheckNoStreamPointerLocked(KsPin* pin) {
    KIRQL irql;
    KeAcquireSpinLock(&pin->queueLock, &irql);
    bool locked = pin->leadingEdge != nullptr && pin->leadingEdge->locked;
    KeReleaseSpinLock(&pin->queueLock, irql);
    if (locked) {
        ReportViolation("pin %p stopped with its leading-edge stream pointer %p still locked (KsStreamPointerUnlock: "
                        "every stream pointer is unlocked before the pin stops)",
                        static_cast<void*>(&pin->pub), static_cast<void*>(&pin->leadingEdge->pub));
    }
}
}  // namespace

NTSTATUS ChangePinState(KsPin* pin, KSSTATE target) {
    const KSPIN_DISPATCH* dispatch = pin->pub.Descriptor->Dispatch;
    NTSTATUS status = STATUS_SUCCESS;
    KsAcquireControl(&pin->pub);
    pin->pub.ClientState = target;
    while (pin->pub.DeviceState != target) {
        KSSTATE from = pin->pub.DeviceState;
        auto to = static_cast<KSSTATE>(from < target ? from + 1 : from - 1);
        if (dispatch && dispatch->SetDeviceState) {
            status = CallMinidriver(pin->header.device, CallbackOwner::Pin, "SetDeviceState",
                                    dispatch->SetDeviceState, &pin->pub, to, from);
        }
        if (!NT_SUCCESS(status)) {
            pin->pub.ClientState = from;
            break;
        }
        pin->pub.DeviceState = to;
        // Leaving ACQUIRE for STOP: the queue is flushed.
        if (to == KSSTATE_STOP) {
            CheckNoStreamPointerLocked(pin);
            FlushPinQueue(pin, STATUS_CANCELLED);
        }
    }
    KsReleaseControl(&pin->pub);
    if (NT_SUCCESS(status) && pin->pub.DeviceState >= KSSTATE_PAUSE &&
        !(pin->pub.Descriptor->Flags & KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING)) {
        ProcessPin(pin);
    }
    return status;
}

void SetPinMasterClock(KsPin* pin, PVOID clockFileObject) {
    PVOID previous = pin->masterClock;
    pin->masterClock = clockFileObject;
    if (previous) ObDereferenceObject(previous);
}

void NotifyPinsOfPower(KsDevice* device, DEVICE_POWER_STATE state, bool sleeping) {
    for (ObjectHeader* f : device->header.children) {
        for (ObjectHeader* fl : f->children) {
            KsFilter* filter = AsFilter(fl);
            if (!filter) continue;
            PFNKSFILTERPOWER fcb = sleeping ? filter->sleepCallback : filter->wakeCallback;
            if (fcb) {
                CallMinidriver(device, CallbackOwner::Filter, sleeping ? "Sleep" : "Wake", fcb, &filter->pub, state);
            }
            for (ObjectHeader* p : fl->children) {
                KsPin* pin = AsPin(p);
                if (!pin) continue;
                PFNKSPINPOWER cb = sleeping ? pin->sleepCallback : pin->wakeCallback;
                if (cb) {
                    CallMinidriver(device, CallbackOwner::Pin, sleeping ? "Sleep" : "Wake", cb, &pin->pub, state);
                }
            }
        }
    }
}

void StopAllPins(KsDevice* device) {
    std::vector<KsPin*> pins;
    for (ObjectHeader* f : device->header.children) {
        for (ObjectHeader* fl : f->children) {
            for (ObjectHeader* p : fl->children) {
                if (KsPin* pin = AsPin(p)) pins.push_back(pin);
            }
        }
    }
    // The stream IRPs fail first (the device is gone), then the pins walk
    // down to stop. ks.sys's exact status is not documented; the simulation
    // uses STATUS_DEVICE_REMOVED.
    for (KsPin* pin : pins) {
        FlushPinQueue(pin, STATUS_DEVICE_REMOVED);
        ChangePinState(pin, KSSTATE_STOP);
    }
}

}  // namespace kvsim::ks

using namespace kvsim::ks;

extern "C" void KsPinRegisterPowerCallbacks(PKSPIN Pin, PFNKSPINPOWER Sleep, PFNKSPINPOWER Wake) {
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    if (!pin) return;
    pin->sleepCallback = Sleep;
    pin->wakeCallback = Wake;
}

// STATUS_UNSUCCESSFUL when the client assigned no clock to the pin.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kspingetreferenceclockinterface
NTSTATUS KsPinGetReferenceClockInterface(PKSPIN Pin, PIKSREFERENCECLOCK* Interface) {
    KsPin* pin = AsPin(HeaderFromObject(Pin));
    if (!pin || !pin->masterClock) return STATUS_UNSUCCESSFUL;
    void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(ReferenceClock), kvsim::PoolTag("KSck"));
    if (!memory) return STATUS_INSUFFICIENT_RESOURCES;
    *Interface = new (memory) ReferenceClock();
    return STATUS_SUCCESS;
}
