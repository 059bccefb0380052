// The client side of kernel streaming (see ks_client.h): file objects,
// IRP_MJ_CREATE/CLOSE, IOCTL_KS_* requests and stream reads, built as the
// I/O manager builds them for a user-mode caller.
#include "ks_client.h"

#include <atomic>
#include <cstring>

#include "kvsim/io.h"
#include "kvsim/object.h"
#include "kvsim/sched.h"

namespace kvsim::client {
namespace {

std::atomic<size_t> g_liveFiles{0};

// KSSTRING_Pin: the pin create item's name.
constexpr char16_t kPinName[] = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}";

ULONG Align8(ULONG n) { return (n + 7u) & ~7u; }

// An IRP for the top of the stack, its first location filled by `setup`,
// sent and waited for.
IoResult SendAndWait(PDEVICE_OBJECT top, PFILE_OBJECT file, bool as32bit, PVOID userBuffer,
                     void (*setup)(PIO_STACK_LOCATION, const void*), const void* ctx) {
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (!irp) return {STATUS_INSUFFICIENT_RESOURCES, 0};
    irp->RequestorMode = UserMode;
    irp->UserBuffer = userBuffer;
    irp->Tail.Overlay.OriginalFileObject = file;
    if (as32bit) kvsim::SetIrpFrom32bitProcess(irp, true);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->FileObject = file;
    setup(sp, ctx);
    IoResult result;
    result.status = kvsim::CallDriverAndWait(top, irp);
    result.information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    return result;
}

struct IoctlArgs {
    ULONG code;
    void* input;
    ULONG inputLength;
    ULONG outputLength;
};

void SetupIoctl(PIO_STACK_LOCATION sp, const void* ctx) {
    auto* a = static_cast<const IoctlArgs*>(ctx);
    sp->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    sp->Parameters.DeviceIoControl.IoControlCode = a->code;
    sp->Parameters.DeviceIoControl.Type3InputBuffer = a->input;
    sp->Parameters.DeviceIoControl.InputBufferLength = a->inputLength;
    sp->Parameters.DeviceIoControl.OutputBufferLength = a->outputLength;
}

void SetupCreate(PIO_STACK_LOCATION sp, const void*) { sp->MajorFunction = IRP_MJ_CREATE; }

}  // namespace

std::vector<FilterInterface> EnumerateFilters(const GUID& category) {
    return kvsim::EnabledDeviceInterfaces(category);
}

size_t LiveClientFileObjects() { return g_liveFiles.load(); }

// ---- KsObject ---------------------------------------------------------------------------
KsObject::~KsObject() { Close(); }

NTSTATUS KsObject::Create(PDEVICE_OBJECT pdo, std::u16string name, PFILE_OBJECT related) {
    name_ = std::move(name);
    auto* file = new FILE_OBJECT{};
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = pdo;
    file->RelatedFileObject = related;
    file->FileName.Buffer = reinterpret_cast<PWSTR>(name_.data());
    file->FileName.Length = static_cast<USHORT>(name_.size() * sizeof(WCHAR));
    file->FileName.MaximumLength = file->FileName.Length;
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    top_ = IoGetAttachedDeviceReference(pdo);
    IoResult r = SendAndWait(top_, file, false, nullptr, SetupCreate, nullptr);
    if (!NT_SUCCESS(r.status)) {
        delete file;
        ObDereferenceObject(top_);
        top_ = nullptr;
        return r.status;
    }
    file_ = file;
    ++g_liveFiles;
    return r.status;
}

// Closing a handle does not fail for want of memory on Windows: the driver
// always gets its IRP_MJ_CLOSE. So the close's IRP is the I/O manager's own,
// outside fault injection (a failed allocation would leave the object open
// in the driver for good).
NTSTATUS KsObject::Close() {
    if (!file_) return STATUS_SUCCESS;
    PFILE_OBJECT file = file_;
    NTSTATUS status =
        kvsim::SendIrpAndWait(top_, IRP_MJ_CLOSE, 0, [file](PIO_STACK_LOCATION sp) { sp->FileObject = file; }).status;
    delete file_;
    file_ = nullptr;
    --g_liveFiles;
    ObDereferenceObject(top_);
    top_ = nullptr;
    return status;
}

IoResult KsObject::Ioctl(ULONG code, void* input, ULONG inputLength, void* output, ULONG outputLength, bool as32bit) {
    if (!file_) return {STATUS_INVALID_HANDLE, 0};
    IoctlArgs args{code, input, inputLength, outputLength};
    return SendAndWait(top_, file_, as32bit, output, SetupIoctl, &args);
}

IoResult KsObject::PropertyRaw(const void* request, ULONG requestLength, void* data, ULONG dataLength, bool as32bit) {
    return Ioctl(IOCTL_KS_PROPERTY, const_cast<void*>(request), requestLength, data, dataLength, as32bit);
}

IoResult KsObject::Property(const GUID& set, ULONG id, ULONG flags, void* data, ULONG dataLength, const void* extra,
                            ULONG extraLength, bool as32bit) {
    std::vector<uint64_t> request((sizeof(KSPROPERTY) + extraLength + 7) / 8);
    auto* p = reinterpret_cast<KSPROPERTY*>(request.data());
    p->Set = set;
    p->Id = id;
    p->Flags = flags;
    if (extraLength) memcpy(p + 1, extra, extraLength);
    return PropertyRaw(p, sizeof(KSPROPERTY) + extraLength, data, dataLength, as32bit);
}

// ---- EventWaiter ----------------------------------------------------------------------------
EventWaiter::EventWaiter() {
    event_ = new KEVENT;
    KeInitializeEvent(event_, NotificationEvent, FALSE);
    kvsim::ObRegisterObject(event_, *ExEventObjectType, [](void* body) { delete static_cast<KEVENT*>(body); });
    handle_ = kvsim::ObInsertHandle(event_);
    data_.NotificationType = KSEVENTF_EVENT_HANDLE;
    data_.EventHandle.Event = handle_;
}

EventWaiter::~EventWaiter() {
    ZwClose(handle_);
    ObDereferenceObject(event_);
}

NTSTATUS EventWaiter::Enable(KsObject& object, const GUID& set, ULONG id) {
    KSEVENT request{};
    request.Set = set;
    request.Id = id;
    request.Flags = KSEVENT_TYPE_ENABLE;
    IoResult r = object.Ioctl(IOCTL_KS_ENABLE_EVENT, &request, sizeof(request), &data_, sizeof(data_));
    if (NT_SUCCESS(r.status)) enabledOn_ = &object;
    return r.status;
}

NTSTATUS EventWaiter::Disable() {
    if (!enabledOn_) return STATUS_INVALID_PARAMETER;
    IoResult r = enabledOn_->Ioctl(IOCTL_KS_DISABLE_EVENT, &data_, sizeof(data_), nullptr, 0);
    enabledOn_ = nullptr;
    return r.status;
}

bool EventWaiter::Wait(LONGLONG timeout100ns) {
    LARGE_INTEGER due;
    due.QuadPart = -timeout100ns;
    NTSTATUS status = KeWaitForSingleObject(event_, Executive, KernelMode, FALSE, &due);
    KeClearEvent(event_);
    return status == STATUS_SUCCESS;
}

bool EventWaiter::IsSignalled() const { return KeReadStateEvent(event_) != 0; }

// ---- MasterClock ----------------------------------------------------------------------------
MasterClock::MasterClock() {
    file_ = new FILE_OBJECT{};
    file_->Type = IO_TYPE_FILE;
    file_->Size = sizeof(FILE_OBJECT);
    kvsim::ObRegisterObject(file_, *IoFileObjectType, [](void* body) { delete static_cast<PFILE_OBJECT>(body); });
    handle_ = kvsim::ObInsertHandle(file_);
    ObDereferenceObject(file_);  // the handle's reference (and a pin's) keep it
}

MasterClock::~MasterClock() { CloseHandle(); }

void MasterClock::CloseHandle() {
    if (!handle_) return;
    ZwClose(handle_);
    handle_ = nullptr;
    file_ = nullptr;
}

// ---- Filter ---------------------------------------------------------------------------------
NTSTATUS Filter::Open(const FilterInterface& where, std::unique_ptr<Filter>* out) {
    std::unique_ptr<Filter> filter(new Filter());
    filter->where_ = where;
    NTSTATUS status = filter->Create(where.pdo, u"\\" + where.referenceString, nullptr);
    if (NT_SUCCESS(status)) *out = std::move(filter);
    return status;
}

IoResult Filter::PinProperty(ULONG pinId, ULONG id, void* data, ULONG dataLength) {
    ULONG extra[2] = {pinId, 0};  // KSP_PIN: PinId, Reserved
    return Property(KSPROPSETID_Pin, id, KSPROPERTY_TYPE_GET, data, dataLength, extra, sizeof(extra));
}

NTSTATUS Filter::PinCount(ULONG* count) { return Get(KSPROPSETID_Pin, KSPROPERTY_PIN_CTYPES, count); }

NTSTATUS Filter::PinDataFlow(ULONG pinId, KSPIN_DATAFLOW* flow) {
    return PinProperty(pinId, KSPROPERTY_PIN_DATAFLOW, flow, sizeof(*flow)).status;
}

NTSTATUS Filter::PinCommunication(ULONG pinId, KSPIN_COMMUNICATION* communication) {
    return PinProperty(pinId, KSPROPERTY_PIN_COMMUNICATION, communication, sizeof(*communication)).status;
}

NTSTATUS Filter::PinCategory(ULONG pinId, GUID* category) {
    return PinProperty(pinId, KSPROPERTY_PIN_CATEGORY, category, sizeof(*category)).status;
}

NTSTATUS Filter::PinInstances(ULONG pinId, KSPIN_CINSTANCES* instances) {
    return PinProperty(pinId, KSPROPERTY_PIN_CINSTANCES, instances, sizeof(*instances)).status;
}

NTSTATUS Filter::PinDataRanges(ULONG pinId, std::vector<std::vector<uint8_t>>* ranges) {
    IoResult size = PinProperty(pinId, KSPROPERTY_PIN_DATARANGES, nullptr, 0);
    if (size.status != STATUS_BUFFER_OVERFLOW) return NT_SUCCESS(size.status) ? STATUS_UNSUCCESSFUL : size.status;
    std::vector<uint64_t> buffer((size.information + 7) / 8);
    IoResult r = PinProperty(pinId, KSPROPERTY_PIN_DATARANGES, buffer.data(), static_cast<ULONG>(size.information));
    if (!NT_SUCCESS(r.status)) return r.status;
    auto* bytes = reinterpret_cast<const uint8_t*>(buffer.data());
    KSMULTIPLE_ITEM header;
    memcpy(&header, bytes, sizeof(header));
    ranges->clear();
    ULONG at = sizeof(KSMULTIPLE_ITEM);
    for (ULONG i = 0; i < header.Count && at + sizeof(KSDATARANGE) <= r.information; ++i) {
        KSDATARANGE range;
        memcpy(&range, bytes + at, sizeof(range));
        if (at + range.FormatSize > r.information) return STATUS_INVALID_BUFFER_SIZE;
        ranges->emplace_back(bytes + at, bytes + at + range.FormatSize);
        at += Align8(range.FormatSize);
    }
    return r.status;
}

NTSTATUS Filter::Intersect(ULONG pinId, const void* range, ULONG rangeSize, std::vector<uint8_t>* format,
                           ULONG* neededSize, bool sizeQueryOnly) {
    // KSP_PIN, then a KSMULTIPLE_ITEM with the caller's ranges.
    ULONG multipleSize = sizeof(KSMULTIPLE_ITEM) + Align8(rangeSize);
    std::vector<uint64_t> request((sizeof(KSP_PIN) + multipleSize + 7) / 8);
    auto* pin = reinterpret_cast<KSP_PIN*>(request.data());
    pin->Property.Set = KSPROPSETID_Pin;
    pin->Property.Id = KSPROPERTY_PIN_DATAINTERSECTION;
    pin->Property.Flags = KSPROPERTY_TYPE_GET;
    pin->PinId = pinId;
    auto* items = reinterpret_cast<KSMULTIPLE_ITEM*>(pin + 1);
    items->Size = multipleSize;
    items->Count = 1;
    memcpy(items + 1, range, rangeSize);
    ULONG requestLength = sizeof(KSP_PIN) + multipleSize;
    IoResult size = PropertyRaw(pin, requestLength, nullptr, 0);
    if (neededSize) *neededSize = static_cast<ULONG>(size.information);
    if (sizeQueryOnly || size.status != STATUS_BUFFER_OVERFLOW) return size.status;
    std::vector<uint64_t> out((size.information + 7) / 8);
    IoResult r = PropertyRaw(pin, requestLength, out.data(), static_cast<ULONG>(size.information));
    if (NT_SUCCESS(r.status)) {
        auto* bytes = reinterpret_cast<const uint8_t*>(out.data());
        format->assign(bytes, bytes + r.information);
    }
    return r.status;
}

NTSTATUS Filter::CreatePin(ULONG pinId, const KSDATAFORMAT* format, std::unique_ptr<Pin>* out,
                           const KSPIN_CONNECT* connectTemplate) {
    KSPIN_CONNECT connect{};
    if (connectTemplate) {
        connect = *connectTemplate;
    } else {
        connect.Interface.Set = KSINTERFACESETID_Standard;
        connect.Interface.Id = KSINTERFACE_STANDARD_STREAMING;
        connect.Medium.Set = KSMEDIUMSETID_Standard;
        connect.Medium.Id = KSMEDIUM_STANDARD_DEVIO;
        connect.Priority.PriorityClass = KSPRIORITY_NORMAL;
        connect.Priority.PrioritySubClass = 1;
    }
    connect.PinId = pinId;
    // The name KsCreatePin builds: KSSTRING_Pin, a backslash, then the
    // connect structure and the format as raw bytes.
    size_t bytes = sizeof(KSPIN_CONNECT) + format->FormatSize;
    std::vector<uint8_t> raw(bytes + (bytes & 1));
    memcpy(raw.data(), &connect, sizeof(connect));
    memcpy(raw.data() + sizeof(connect), format, format->FormatSize);
    std::u16string name(kPinName);
    name += u'\\';
    size_t at = name.size();
    name.resize(at + raw.size() / 2);
    memcpy(name.data() + at, raw.data(), raw.size());
    std::unique_ptr<Pin> pin(new Pin());
    NTSTATUS status = pin->Create(where_.pdo, std::move(name), fileObject());
    if (NT_SUCCESS(status)) *out = std::move(pin);
    return status;
}

// ---- Pin -------------------------------------------------------------------------------------
struct Pin::Request {
    // Kept (not freed at completion) until the request is collected, so that
    // CancelBuffer never touches a freed IRP.
    PIRP irp = nullptr;
    std::vector<uint64_t> headers;  // KSSTREAM_HEADER (+ KS_FRAME_INFO), 8-aligned
    std::vector<uint8_t> buffer;
    ULONG headerSize = 0;
    std::atomic<bool> done{false};
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    ~Request() {
        if (irp && done) IoFreeIrp(irp);
    }
};

Pin::~Pin() {
    // Closing flushes the queue: every read completes before the requests go.
    Close();
}

NTSTATUS Pin::SetState(KSSTATE state) { return Set(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_STATE, state); }

NTSTATUS Pin::GetState(KSSTATE* state) { return Get(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_STATE, state); }

NTSTATUS Pin::SetMasterClock(HANDLE clock) {
    return Set(KSPROPSETID_Stream, KSPROPERTY_STREAM_MASTERCLOCK, clock);
}

NTSTATUS Pin::GetMasterClock(HANDLE* clock) { return Get(KSPROPSETID_Stream, KSPROPERTY_STREAM_MASTERCLOCK, clock); }

NTSTATUS Pin::ReadDone(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* request = static_cast<Request*>(context);
    request->status = irp->IoStatus.Status;
    request->information = irp->IoStatus.Information;
    request->done = true;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS Pin::QueueBuffers(ULONG count, ULONG bufferSize, bool frameInfo) {
    NTSTATUS last = STATUS_SUCCESS;
    for (ULONG i = 0; i < count; ++i) {
        if (!isOpen()) return STATUS_INVALID_HANDLE;
        auto request = std::make_unique<Request>();
        request->headerSize = sizeof(KSSTREAM_HEADER) + (frameInfo ? sizeof(KS_FRAME_INFO) : 0);
        request->headers.assign((request->headerSize + 7) / 8, 0);
        request->buffer.assign(bufferSize, 0);
        auto* header = reinterpret_cast<PKSSTREAM_HEADER>(request->headers.data());
        header->Size = request->headerSize;
        header->FrameExtent = bufferSize;
        header->Data = request->buffer.data();
        if (frameInfo) reinterpret_cast<PKS_FRAME_INFO>(header + 1)->ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
        PIRP irp = IoAllocateIrp(top_->StackSize, FALSE);
        if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
        irp->RequestorMode = UserMode;
        irp->UserBuffer = header;
        irp->Tail.Overlay.OriginalFileObject = fileObject();
        PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
        sp->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        sp->FileObject = fileObject();
        sp->Parameters.DeviceIoControl.IoControlCode = IOCTL_KS_READ_STREAM;
        sp->Parameters.DeviceIoControl.OutputBufferLength = request->headerSize;
        IoSetCompletionRoutine(irp, ReadDone, request.get(), TRUE, TRUE, TRUE);
        Request* raw = request.get();
        raw->irp = irp;
        requests_.push_back(std::move(request));
        last = IoCallDriver(top_, irp);
        if (last != STATUS_PENDING && raw->done) last = raw->status;
    }
    return last;
}

std::vector<Frame> Pin::CollectFrames() {
    std::vector<Frame> frames;
    for (auto it = requests_.begin(); it != requests_.end();) {
        Request& r = **it;
        if (!r.done) {
            ++it;
            continue;
        }
        Frame f;
        f.status = r.status;
        f.information = r.information;
        auto* header = reinterpret_cast<PKSSTREAM_HEADER>(r.headers.data());
        f.header = *header;
        if (r.headerSize >= sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO)) {
            f.hasFrameInfo = true;
            f.frameInfo = *reinterpret_cast<PKS_FRAME_INFO>(header + 1);
        }
        ULONG used = std::min<ULONG>(header->DataUsed, static_cast<ULONG>(r.buffer.size()));
        f.data.assign(r.buffer.begin(), r.buffer.begin() + used);
        frames.push_back(std::move(f));
        it = requests_.erase(it);
    }
    return frames;
}

bool Pin::CancelBuffer(size_t index) {
    for (auto& r : requests_) {
        if (r->done) continue;
        if (index-- == 0) return IoCancelIrp(r->irp) != FALSE;
    }
    return false;
}

size_t Pin::PendingBuffers() const {
    size_t n = 0;
    for (auto& r : requests_) n += r->done ? 0 : 1;
    return n;
}

bool Pin::WaitForFrames(size_t count, LONGLONG timeout100ns) {
    return kvsim::RunUntil(
        [&] {
            size_t done = 0;
            for (auto& r : requests_) done += r->done ? 1 : 0;
            return done >= count;
        },
        timeout100ns);
}

}  // namespace kvsim::client
