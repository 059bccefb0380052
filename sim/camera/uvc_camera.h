// The virtual UVC camera, device side: the device's half of what a host
// driver does with it (descriptors and configuration, probe/commit,
// isochronous streaming, control requests, the interrupt endpoint of the
// still-image button). A plain C++ model with no dependency on the
// simulated kernel: the simulated USB bus (sim/usb) calls it for
// every control transfer on the default pipe, every isochronous packet slot
// and every interrupt transfer.
//
// Behaviour, as real cameras do it (decisions marked "we"):
// - Descriptors: GET_DESCRIPTOR device (type 1) and configuration (type 2,
//   index 0) answer min(wLength, size) bytes, so a 9-byte read gives the
//   header with wTotalLength; string descriptor 0 gives the US-English
//   language id; anything else stalls.
// - SET_CONFIGURATION with 0 or bConfigurationValue; SET_INTERFACE only when
//   configured and for an (interface, alternate) pair that the configuration
//   descriptor has. Alternate setting 0 of a streaming interface stops its
//   stream; a non-zero one starts it with the committed parameters (no
//   commit yet: the stream stays silent, empty packets).
// - Class requests to the video-control interface: wIndex = entity << 8 |
//   interface. Camera-terminal and processing-unit controls exist when their
//   bmControls bit is set; each has a size, a range and a default (table in
//   uvc_camera.cpp). GET requests answer min(wLength, size) bytes (a longer
//   wLength gets a short answer; a shorter one stalls). SET_CUR needs at
//   least the control's size (extra bytes ignored: the cameras kvdrv drives
//   accept the 2 bytes it sends for 1-byte controls such as power-line
//   frequency, see driver/controls/requests.cpp), a value inside
//   [min, max] on the resolution grid, and the control not disabled by its
//   automatic mode (exposure time while auto-exposure is in an automatic
//   mode, white-balance temperature while its auto is on): otherwise STALL.
//   Every request sets the request error code control (entity 0, selector 2)
//   that GET_CUR then reads; unannounced controls stall with "invalid
//   control", unknown entities with "invalid unit".
// - Extension unit 4, selector 3 (when announced): the register window of
//   kvdrv's AccessExtensionRegister over a 256-byte register file.
//     SET_CUR {0x80, reg}        selects reg for reading;
//     SET_CUR {0x00, reg, value} writes value into reg (and selects it);
//     GET_CUR 2 bytes            answers {reg, value};
//     GET_CUR 3 bytes            answers {0x00, reg, value};
//     GET_LEN 3, GET_INFO 3. Any other first byte stalls. Other extension
//   unit controls stall (we do not model vendors' private controls).
// - Probe/commit on a streaming interface (entity 0): the 26-byte UVC 1.0
//   block (34 bytes when bcdUVC >= 1.1). SET_CUR probe/commit with a format
//   or frame index that the interface does not have STALLs ("out of range");
//   a frame interval that is not supported snaps to the nearest supported
//   one (continuous ranges: clamped and put on the step grid); 0 takes the
//   frame's default. The answer carries dwMaxVideoFrameSize (width x height
//   x bits-per-pixel/8 for uncompressed; dwMaxVideoFrameBufferSize of the
//   frame, else width x height x 2, for motion JPEG and frame-based) and
//   dwMaxPayloadTransferSize: the capacity of the smallest alternate setting
//   that carries the frame (for motion JPEG a quarter of its bound) within
//   one frame interval, with 12 header bytes per packet, or the largest one.
//   GET_MIN/GET_MAX give the current format and frame with the shortest and
//   longest intervals; GET_DEF the first format, its default frame and
//   interval; GET_RES zeros. Commit while streaming stalls ("wrong state").
// - Streaming: NextPacket is called once per (micro)frame slot with the
//   bus's time and the slot's capacity. Sensor frames are due every
//   committed interval from the first slot after streaming started; frame
//   number = slot index since then (a frame still being sent when its
//   successor is due makes the camera skip that successor, so gaps in
//   numbers show dropped sensor frames). A frame goes out as packets of
//   12-byte header + payload, each at most min(capacity,
//   dwMaxPayloadTransferSize); then one 12-byte header-only packet with EOF
//   (as the cameras kvdrv drives end a frame); FID toggles per frame; PTS (the
//   frame's capture time) and SCR (time of the packet + 1 ms SOF counter)
//   in dwClockFrequency units are in every header. Between frames: empty
//   packets (or header-only without EOF, IdleFill::kHeaderOnly).
//   Frame-based formats (H.264) carry the test picture as JPEG: the model
//   has no H.264 encoder.
#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "camera_model.h"
#include "descriptor_builder.h"
#include "frame_source.h"
#include "uvc_spec.h"

namespace kvsim::camera {

struct SetupPacket {
    uint8_t bmRequestType = 0;
    uint8_t bRequest = 0;
    uint16_t wValue = 0;
    uint16_t wIndex = 0;
    uint16_t wLength = 0;
};

struct ControlResult {
    enum class Status { kOk, kStall, kNoDevice } status = Status::kOk;
    size_t length = 0;  // bytes returned (IN) or taken (OUT)
    bool ok() const { return status == Status::kOk; }
};

// The outcome of one isochronous slot, which the bus turns into the
// packet's length and USBD status.
enum class PacketStatus {
    kOk,
    kError,        // transmission error (CRC, bit stuffing): data delivered, status failed
    kNotAccessed,  // the packet was lost: no data
    kBabble,       // the device sent more than the slot's capacity (data cut to capacity)
    kStalled,      // the endpoint is halted
    kDeviceGone,   // the camera was removed
};

struct IsoPacket {
    std::vector<uint8_t> data;
    PacketStatus status = PacketStatus::kOk;
};

// The probe/commit block (UVC 1.1 section 4.3.1.1).
struct ProbeControl {
    uint16_t bmHint = 0;
    uint8_t formatIndex = 0, frameIndex = 0;
    uint32_t frameInterval = 0;
    uint16_t keyFrameRate = 0, pFrameRate = 0, compQuality = 0, compWindowSize = 0, delay = 0;
    uint32_t maxVideoFrameSize = 0, maxPayloadTransferSize = 0;
    std::vector<uint8_t> Pack(size_t size = uvc::kProbeSize10) const;
    static ProbeControl Unpack(std::span<const uint8_t> bytes);
};

enum class Fault {
    kPacketError,     // next data packet: status kError (its data still counted)
    kLostPacket,      // next data packet: lost (kNotAccessed, its bytes never arrive)
    kShortFrame,      // next frame: `amount` payload bytes fewer (default 1)
    kLongFrame,       // next frame: `amount` extra payload bytes (default 1)
    kMissingEof,      // next frame: no header-only EOF packet; the next frame follows with FID toggled
    kCorruptJpeg,     // next MJPEG frame: SOI and entropy-coded bytes overwritten
    kTruncatedJpeg,   // next MJPEG frame: cut to `amount` bytes (default half), no EOI
    kOverPayload,     // next data packet: `amount` bytes (default 512) beyond dwMaxPayloadTransferSize
    kHeaderErrorBit,  // next data packet: ERR bit set; stream error code 3 (data discontinuity)
    kStallPipe,       // the isochronous endpoint halts now, until CLEAR_FEATURE(ENDPOINT_HALT)
    kSurpriseRemoval, // the camera is gone now: every request fails with kNoDevice / kDeviceGone
};

enum class IdleFill { kEmpty, kHeaderOnly };

struct CameraOptions {
    std::optional<bool> highSpeed;  // default: bcdUSB >= 0x0200
    bool mjpegWithoutDht = false;   // strip DHT from every motion-JPEG frame
    int jpegQuality = 80;
    IdleFill idle = IdleFill::kEmpty;
};

class UvcCamera {
public:
    // nullptr when the descriptors are unusable (no device or configuration
    // header). Any parsable set gives a camera, however odd.
    static std::unique_ptr<UvcCamera> Create(DescriptorSet descriptors, CameraOptions options = {});
    static std::unique_ptr<UvcCamera> CreateDefault(CameraOptions options = {});
    ~UvcCamera();
    UvcCamera(const UvcCamera&) = delete;
    UvcCamera& operator=(const UvcCamera&) = delete;

    const DescriptorSet& Descriptors() const { return descriptors_; }
    const CameraModel& Model() const { return model_; }
    bool HighSpeed() const { return highSpeed_; }

    // One control transfer on the default pipe. For IN requests `data` is
    // the receive buffer (at least wLength bytes are expected; never more
    // than data.size() are written); for OUT requests it holds wLength bytes.
    ControlResult Control(const SetupPacket& setup, std::span<uint8_t> data);

    // One isochronous slot of the streaming endpoint `endpoint` (0: the first
    // streaming interface that runs) at bus time `time` (100 ns units) with
    // `capacity` bytes. The data never exceeds capacity.
    IsoPacket NextPacket(uint64_t time, size_t capacity, uint8_t endpoint = 0);
    // `count` consecutive slots `step` apart (1250 at high speed, 10000 at
    // full speed), as one isochronous transfer.
    std::vector<IsoPacket> NextPackets(uint64_t time, uint64_t step, size_t count, size_t capacity,
                                       uint8_t endpoint = 0);

    bool Configured() const { return configured_; }
    uint8_t CurrentAlternate(uint8_t interfaceNumber) const;
    std::optional<ProbeControl> Committed(uint8_t interfaceNumber) const;
    bool Streaming(uint8_t interfaceNumber) const;
    uint32_t FramesStarted() const { return framesStarted_; }

    void SetFrameSource(std::unique_ptr<FrameSource> source) { source_ = std::move(source); }
    void SetMjpegWithoutDht(bool on) { options_.mjpegWithoutDht = on; }
    void SetIdleFill(IdleFill fill) { options_.idle = fill; }

    // Faults (see Fault). Armed faults are one-shot, in arming order.
    void ArmFault(Fault fault, uint32_t amount = 0);
    bool Connected() const { return connected_; }
    bool PipeStalled() const { return pipeStalled_; }
    void ClearPipeStall() { pipeStalled_ = false; }

    // Interrupt endpoint: status packets queued by tests, read by the bus.
    void QueueStatusPacket(std::vector<uint8_t> packet);
    // A video-streaming button event: {0x02, VS interface, 0x00, pressed}.
    void QueueButton(bool pressed);
    // The oldest packet, cut to maxLength; nullopt when none is queued (the
    // bus keeps the interrupt transfer pending, NAK).
    std::optional<std::vector<uint8_t>> ReadInterrupt(size_t maxLength);
    size_t PendingInterruptPackets() const;

    // The extension unit's register file, for tests.
    uint8_t Register(uint8_t address) const { return registers_[address]; }
    void SetRegister(uint8_t address, uint8_t value) { registers_[address] = value; }

    // The current value of a camera-terminal or processing-unit control.
    std::optional<int64_t> ControlValue(uint8_t entityId, uint8_t selector) const;
    uvc::RequestError LastRequestError() const { return requestError_; }

    struct ControlDef;  // uvc_camera.cpp

private:
    struct Stream;
    UvcCamera(DescriptorSet descriptors, CameraModel model, CameraOptions options);

    ControlResult Standard(const SetupPacket& s, std::span<uint8_t> data);
    ControlResult Class(const SetupPacket& s, std::span<uint8_t> data);
    ControlResult UnitControl(const Entity& e, const SetupPacket& s, std::span<uint8_t> data);
    ControlResult ExtensionRegister(const SetupPacket& s, std::span<uint8_t> data);
    ControlResult StreamingControl(const StreamingInterface& vs, const SetupPacket& s, std::span<uint8_t> data);
    ControlResult Stall(uvc::RequestError error);
    ControlResult Answer(std::span<uint8_t> data, const SetupPacket& s, std::span<const uint8_t> bytes);

    std::optional<ProbeControl> Negotiate(const StreamingInterface& vs, ProbeControl wanted) const;
    ProbeControl DefaultProbe(const StreamingInterface& vs) const;
    size_t ProbeSize() const { return model_.bcdUvc >= 0x0110 ? uvc::kProbeSize11 : uvc::kProbeSize10; }

    Stream* StreamFor(uint8_t endpoint);
    void StartStream(const StreamingInterface& vs);
    std::vector<uint8_t> RenderFrame(Stream& st, uint32_t number);
    IsoPacket Produce(Stream& st, uint64_t time, size_t capacity);
    void Header(std::vector<uint8_t>& out, const Stream& st, uint64_t time, bool eof, bool err) const;
    bool TakeFault(Fault f, uint32_t* amount = nullptr);

    DescriptorSet descriptors_;
    CameraModel model_;
    CameraOptions options_;
    bool highSpeed_ = true;
    bool configured_ = false;
    std::atomic<bool> connected_{true};   // the bus reads it on its own thread
    std::atomic<bool> pipeStalled_{false};
    uvc::RequestError requestError_ = uvc::RequestError::kNoError;
    uint8_t streamError_ = 0;
    std::map<uint16_t, int64_t> values_;              // (entity << 8 | selector) -> current value
    std::array<uint8_t, 256> registers_{};
    uint8_t selectedRegister_ = 0;
    uint8_t lastRegisterCommand_ = 0;
    // Status packets: queued by a test's or a tool's thread, read by the
    // bus on its own.
    mutable std::mutex interruptLock_;
    std::deque<std::vector<uint8_t>> interrupt_;
    // Armed by a test's thread, taken by the bus's.
    mutable std::mutex faultLock_;
    std::deque<std::pair<Fault, uint32_t>> faults_;
    std::unique_ptr<FrameSource> source_;
    std::vector<std::unique_ptr<Stream>> streams_;    // one per streaming interface
    uint32_t framesStarted_ = 0;
};

}  // namespace kvsim::camera
