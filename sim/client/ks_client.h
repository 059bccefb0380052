// The client side of kernel streaming: what a video application (through
// ksproxy / ksuser.dll and DeviceIoControl) does with a KS filter, as a C++
// API for tests and kvcam. Everything goes to the driver as IRPs on file
// objects, exactly as the I/O manager would deliver them:
//  - filters are found by category among the enabled device interfaces and
//    opened with IRP_MJ_CREATE (file name "\<reference string>");
//  - pins are created with IRP_MJ_CREATE on the filter (related file object)
//    with the name KsCreatePin builds: "<KSSTRING_Pin>\" + KSPIN_CONNECT +
//    KSDATAFORMAT;
//  - properties, methods and events are METHOD_NEITHER IOCTL_KS_* requests:
//    Type3InputBuffer = the KSPROPERTY/KSEVENT (and what follows it),
//    UserBuffer = the data or the KSEVENTDATA (see sim/ks/automation.h);
//  - buffers are queued with IOCTL_KS_READ_STREAM, the KSSTREAM_HEADER
//    array being the output buffer; each buffer is its own IRP here.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/nf-ks-kscreatepin
// https://learn.microsoft.com/windows-hardware/drivers/ddi/ks/ni-ks-ioctl_ks_property
//
// Calls are synchronous (they wait in simulated time) except QueueBuffers,
// whose IRPs complete in the background; CollectFrames returns those done.
// Run from a PASSIVE_LEVEL thread of the simulation (a test's main thread).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ks.h"
#include "ksmedia.h"
#include "kvsim/devinterface.h"

namespace kvsim::client {

struct IoResult {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

// An enabled device interface of a KS filter.
using FilterInterface = kvsim::DeviceInterface;
std::vector<FilterInterface> EnumerateFilters(const GUID& category);

// File objects the client created and has not closed (a leak check).
size_t LiveClientFileObjects();

class Pin;

// A handle to a KS object (filter or pin): its file object.
class KsObject {
public:
    KsObject(const KsObject&) = delete;
    KsObject& operator=(const KsObject&) = delete;
    virtual ~KsObject();

    PFILE_OBJECT fileObject() const { return file_; }
    bool isOpen() const { return file_ != nullptr; }

    // Any DeviceIoControl: input as Type3InputBuffer, output as UserBuffer.
    IoResult Ioctl(ULONG code, void* input, ULONG inputLength, void* output, ULONG outputLength,
                   bool as32bit = false);
    // A property request with any request structure (KSPROPERTY, KSP_PIN,
    // KSP_NODE ... already filled in, flags included) and any data buffer.
    IoResult PropertyRaw(const void* request, ULONG requestLength, void* data, ULONG dataLength,
                         bool as32bit = false);
    // KSPROPERTY {set, id, flags} followed by `extra` bytes (e.g. the PinId
    // and Reserved of a KSP_PIN), with any data buffer.
    IoResult Property(const GUID& set, ULONG id, ULONG flags, void* data, ULONG dataLength,
                      const void* extra = nullptr, ULONG extraLength = 0, bool as32bit = false);
    template <class T>
    NTSTATUS Get(const GUID& set, ULONG id, T* value) {
        return Property(set, id, KSPROPERTY_TYPE_GET, value, sizeof(T)).status;
    }
    template <class T>
    NTSTATUS Set(const GUID& set, ULONG id, const T& value) {
        T copy = value;
        return Property(set, id, KSPROPERTY_TYPE_SET, &copy, sizeof(T)).status;
    }

    // IRP_MJ_CLOSE. Closing twice is harmless.
    NTSTATUS Close();

protected:
    KsObject() = default;
    // IRP_MJ_CREATE of a new file object named `name` (raw UTF-16 units, may
    // hold binary create parameters) on the stack of `pdo`.
    NTSTATUS Create(PDEVICE_OBJECT pdo, std::u16string name, PFILE_OBJECT related);
    PDEVICE_OBJECT top_ = nullptr;  // the stack's top, referenced while open

private:
    PFILE_OBJECT file_ = nullptr;
    std::u16string name_;  // FileName's storage
};

// An event the client waits on: a KEVENT behind a kernel handle, enabled on
// a filter or pin with KSEVENTF_EVENT_HANDLE.
class EventWaiter {
public:
    EventWaiter();
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    // IOCTL_KS_ENABLE_EVENT {set, id, KSEVENT_TYPE_ENABLE} with this
    // waiter's KSEVENTDATA.
    NTSTATUS Enable(KsObject& object, const GUID& set, ULONG id);
    // IOCTL_KS_DISABLE_EVENT with the same KSEVENTDATA.
    NTSTATUS Disable();
    // Waits (simulated time) until the event is signalled; true if it was.
    // Resets it afterwards.
    bool Wait(LONGLONG timeout100ns);
    bool IsSignalled() const;
    const KSEVENTDATA& eventData() const { return data_; }

private:
    KEVENT* event_ = nullptr;
    HANDLE handle_ = nullptr;
    KSEVENTDATA data_{};
    KsObject* enabledOn_ = nullptr;
};

// A master clock as a graph manager hands one to pins: a handle to a kernel
// file object (on Windows, the handle KsCreateClock returns for a KS clock).
// The pin that is given the handle references the file object itself, so
// the clock lives on after CloseHandle until the pin lets it go.
class MasterClock {
public:
    MasterClock();
    ~MasterClock();
    MasterClock(const MasterClock&) = delete;
    MasterClock& operator=(const MasterClock&) = delete;

    HANDLE handle() const { return handle_; }
    // The file object behind the handle (for tests).
    PFILE_OBJECT fileObject() const { return file_; }
    // ZwClose of the handle (closing twice is harmless).
    void CloseHandle();

private:
    PFILE_OBJECT file_ = nullptr;
    HANDLE handle_ = nullptr;
};

class Filter : public KsObject {
public:
    // Opens the filter behind a device interface.
    static NTSTATUS Open(const FilterInterface& where, std::unique_ptr<Filter>* out);

    // KSPROPSETID_Pin requests (KSP_PIN with the pin id).
    IoResult PinProperty(ULONG pinId, ULONG id, void* data, ULONG dataLength);
    NTSTATUS PinCount(ULONG* count);
    NTSTATUS PinDataFlow(ULONG pinId, KSPIN_DATAFLOW* flow);
    NTSTATUS PinCommunication(ULONG pinId, KSPIN_COMMUNICATION* communication);
    NTSTATUS PinCategory(ULONG pinId, GUID* category);
    NTSTATUS PinInstances(ULONG pinId, KSPIN_CINSTANCES* instances);
    // KSPROPERTY_PIN_DATARANGES: each range's bytes (size query first, as
    // clients do).
    NTSTATUS PinDataRanges(ULONG pinId, std::vector<std::vector<uint8_t>>* ranges);
    // KSPROPERTY_PIN_DATAINTERSECTION with one range: KSP_PIN followed by a
    // KSMULTIPLE_ITEM holding the range. `format` empty: the size query
    // (its status and *neededSize returned); else filled with the format.
    NTSTATUS Intersect(ULONG pinId, const void* range, ULONG rangeSize, std::vector<uint8_t>* format,
                       ULONG* neededSize = nullptr, bool sizeQueryOnly = false);

    // IRP_MJ_CREATE of a pin with `format` (FormatSize bytes).
    NTSTATUS CreatePin(ULONG pinId, const KSDATAFORMAT* format, std::unique_ptr<Pin>* out,
                       const KSPIN_CONNECT* connectTemplate = nullptr);

    const FilterInterface& where() const { return where_; }

private:
    FilterInterface where_;
};

// One finished buffer.
struct Frame {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    KSSTREAM_HEADER header{};
    bool hasFrameInfo = false;
    KS_FRAME_INFO frameInfo{};
    std::vector<uint8_t> data;  // DataUsed bytes
};

class Pin : public KsObject {
public:
    ~Pin() override;
    // KSPROPERTY_CONNECTION_STATE.
    NTSTATUS SetState(KSSTATE state);
    NTSTATUS GetState(KSSTATE* state);
    // KSPROPERTY_STREAM_MASTERCLOCK set (KSPROPSETID_Stream, id 3) with a
    // clock handle (null: none); the pin's KsPinGetReferenceClockInterface
    // works once one is assigned.
    NTSTATUS SetMasterClock(HANDLE clock);
    // KSPROPERTY_STREAM_MASTERCLOCK get.
    NTSTATUS GetMasterClock(HANDLE* clock);
    // Queues `count` buffers of `bufferSize` bytes, one IOCTL_KS_READ_STREAM
    // each; with `frameInfo` each header is followed by a KS_FRAME_INFO
    // (header Size = sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO)).
    // Returns the status of the last request (STATUS_PENDING when queued).
    NTSTATUS QueueBuffers(ULONG count, ULONG bufferSize, bool frameInfo = true);
    // Buffers completed since the last call, in the order they were queued.
    std::vector<Frame> CollectFrames();
    // Buffers queued and not completed.
    size_t PendingBuffers() const;
    // Runs the simulation until `count` buffers completed (or timeout).
    bool WaitForFrames(size_t count, LONGLONG timeout100ns);
    // IoCancelIrp of the `index`-th buffer still pending (0: the oldest), as
    // CancelIoEx with that buffer's OVERLAPPED does; its IoCancelIrp result
    // (false also when there is no such buffer).
    bool CancelBuffer(size_t index);

private:
    friend class Filter;
    struct Request;
    static NTSTATUS ReadDone(PDEVICE_OBJECT, PIRP irp, PVOID context);
    std::vector<std::unique_ptr<Request>> requests_;
};

}  // namespace kvsim::client
