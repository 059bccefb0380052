// The virtual UVC camera (uvc_camera.h): default-pipe requests, the
// control table, probe/commit, isochronous payload production, faults and
// the interrupt endpoint.
#include "uvc_camera.h"

#include <algorithm>
#include <cstring>

namespace kvsim::camera {

using uvc::RequestError;

// One camera-terminal or processing-unit control (UVC 1.1 sections 4.2.2.1
// and 4.2.2.3): its bmControls bit, wire size and range. Compound controls
// (several fields in one value) are stored and returned but not range
// checked. The ranges are those of typical webcams.
struct UvcCamera::ControlDef {
    EntityKind kind;
    uint8_t selector;
    uint8_t bit;
    uint8_t size;
    bool isSigned;
    int64_t min, max, res, def;
    bool compound = false;
    bool modeBitmap = false;  // auto-exposure mode: res is the bitmap of supported modes
    bool readOnly = false;
    bool autoUpdate = false;
};

namespace {

using Def = UvcCamera::ControlDef;
constexpr EntityKind CT = EntityKind::kCameraTerminal;
constexpr EntityKind PU = EntityKind::kProcessingUnit;

// clang-format off
const Def kControls[] = {
    // kind selector bit size signed    min    max  res   def
    {CT, uvc::kCtScanningMode,          0, 1, false,    0,     1,  1,    0},
    {CT, uvc::kCtAeMode,                1, 1, false,    0,     0,  0x09, 0x08, false, true},  // manual | aperture priority
    {CT, uvc::kCtAePriority,            2, 1, false,    0,     1,  1,    0},
    {CT, uvc::kCtExposureTimeAbsolute,  3, 4, false,    3,  2047,  1,  156, false, false, false, true},
    {CT, 0x05 /* exposure relative */,  4, 1, true,    -1,     1,  1,    0},
    {CT, uvc::kCtFocusAbsolute,         5, 2, false,    0,   255,  5,    0, false, false, false, true},
    {CT, 0x07 /* focus relative */,     6, 2, false,    0,     0,  0,    0, true},
    {CT, uvc::kCtIrisAbsolute,          7, 2, false,    0,  1000,  1,  100},
    {CT, 0x0A /* iris relative */,      8, 1, true,    -1,     1,  1,    0},
    {CT, uvc::kCtZoomAbsolute,          9, 2, false,  100,   400,  1,  100},
    {CT, 0x0C /* zoom relative */,     10, 3, false,    0,     0,  0,    0, true},
    {CT, uvc::kCtPanTiltAbsolute,      11, 8, false,    0,     0,  0,    0, true},
    {CT, 0x0E /* pan-tilt relative */, 12, 4, false,    0,     0,  0,    0, true},
    {CT, uvc::kCtRollAbsolute,         13, 2, true,  -180,   180,  1,    0},
    {CT, 0x10 /* roll relative */,     14, 2, false,    0,     0,  0,    0, true},
    {CT, uvc::kCtFocusAuto,            17, 1, false,    0,     1,  1,    1},
    {CT, uvc::kCtPrivacy,              18, 1, false,    0,     1,  1,    0},
    {PU, uvc::kPuBrightness,            0, 2, true,   -64,    64,  1,    0},
    {PU, uvc::kPuContrast,              1, 2, false,    0,    64,  1,   32},
    {PU, uvc::kPuHue,                   2, 2, true,   -40,    40,  1,    0, false, false, false, true},
    {PU, uvc::kPuSaturation,            3, 2, false,    0,   128,  1,   64},
    {PU, uvc::kPuSharpness,             4, 2, false,    0,     6,  1,    3},
    {PU, uvc::kPuGamma,                 5, 2, false,   72,   500,  1,  100},
    {PU, uvc::kPuWhiteBalanceTemperature, 6, 2, false, 2800, 6500, 10, 4600, false, false, false, true},
    {PU, 0x0C /* WB component */,       7, 4, false,    0,     0,  0,    0, true},
    {PU, uvc::kPuBacklightCompensation, 8, 2, false,    0,     2,  1,    1},
    {PU, uvc::kPuGain,                  9, 2, false,    0,   100,  1,    0},
    {PU, uvc::kPuPowerLineFrequency,   10, 1, false,    0,     2,  1,    1},
    {PU, uvc::kPuHueAuto,              11, 1, false,    0,     1,  1,    0},
    {PU, uvc::kPuWhiteBalanceTemperatureAuto, 12, 1, false, 0, 1, 1,    1},
    {PU, 0x0D /* WB component auto */, 13, 1, false,    0,     1,  1,    1},
    {PU, 0x0E /* digital multiplier */, 14, 2, false,   1,    10,  1,    1},
    {PU, 0x0F /* multiplier limit */,  15, 2, false,    1,    10,  1,   10},
    {PU, 0x11 /* analog standard */,   16, 1, false,    0,     0,  0,    0, false, false, true},
    {PU, 0x12 /* analog lock */,       17, 1, false,    0,     1,  1,    0, false, false, true},
};
// clang-format on

const Def* FindDef(EntityKind kind, uint8_t selector) {
    for (const auto& d : kControls)
        if (d.kind == kind && d.selector == selector) return &d;
    return nullptr;
}

uint16_t Key(uint8_t entity, uint8_t selector) { return static_cast<uint16_t>(entity << 8 | selector); }

std::vector<uint8_t> Encode(int64_t v, size_t size) {
    std::vector<uint8_t> b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i));
    return b;
}

int64_t Decode(std::span<const uint8_t> b, size_t size, bool isSigned) {
    uint64_t v = 0;
    for (size_t i = 0; i < size && i < b.size(); ++i) v |= static_cast<uint64_t>(b[i]) << (8 * i);
    if (isSigned && size < 8 && (v >> (8 * size - 1)) & 1) v |= ~uint64_t{0} << (8 * size);
    return static_cast<int64_t>(v);
}

// The 32-bit source time clock at bus time t (100 ns units).
uint32_t Stc(uint64_t t, uint32_t hz) {
    return static_cast<uint32_t>((t / 10000000) * hz + (t % 10000000) * hz / 10000000);
}

bool IsIn(const SetupPacket& s) { return (s.bmRequestType & 0x80) != 0; }

}  // namespace

// ---------------------------------------------------------------- probe block

std::vector<uint8_t> ProbeControl::Pack(size_t size) const {
    std::vector<uint8_t> b(std::max<size_t>(size, uvc::kProbeSize10));
    uvc::Wr16(b, 0, bmHint);
    b[2] = formatIndex;
    b[3] = frameIndex;
    uvc::Wr32(b, 4, frameInterval);
    uvc::Wr16(b, 8, keyFrameRate);
    uvc::Wr16(b, 10, pFrameRate);
    uvc::Wr16(b, 12, compQuality);
    uvc::Wr16(b, 14, compWindowSize);
    uvc::Wr16(b, 16, delay);
    uvc::Wr32(b, 18, maxVideoFrameSize);
    uvc::Wr32(b, 22, maxPayloadTransferSize);
    return b;
}

ProbeControl ProbeControl::Unpack(std::span<const uint8_t> b) {
    ProbeControl p;
    p.bmHint = uvc::Rd16(b, 0);
    p.formatIndex = uvc::Rd8(b, 2);
    p.frameIndex = uvc::Rd8(b, 3);
    p.frameInterval = uvc::Rd32(b, 4);
    p.keyFrameRate = uvc::Rd16(b, 8);
    p.pFrameRate = uvc::Rd16(b, 10);
    p.compQuality = uvc::Rd16(b, 12);
    p.compWindowSize = uvc::Rd16(b, 14);
    p.delay = uvc::Rd16(b, 16);
    p.maxVideoFrameSize = uvc::Rd32(b, 18);
    p.maxPayloadTransferSize = uvc::Rd32(b, 22);
    return p;
}

// ---------------------------------------------------------------- creation

struct UvcCamera::Stream {
    const StreamingInterface* vs = nullptr;
    uint8_t alternate = 0;
    ProbeControl probe;
    std::optional<ProbeControl> committed;
    // Running stream.
    bool running = false;
    const Format* format = nullptr;
    const Frame* frame = nullptr;
    uint32_t interval = 333333;
    uint32_t payloadLimit = 0;
    bool clockStarted = false;
    uint64_t t0 = 0, nextDue = 0, captureTime = 0;
    bool sending = false, eofPending = false, missingEof = false;
    uint8_t fid = 0;
    std::vector<uint8_t> data;
    size_t sent = 0;
};

UvcCamera::UvcCamera(DescriptorSet descriptors, CameraModel model, CameraOptions options)
    : descriptors_(std::move(descriptors)), model_(std::move(model)), options_(options) {
    highSpeed_ = options_.highSpeed.value_or(model_.bcdUsb >= 0x0200);
    source_ = MakeTestPatternSource();
    for (const auto& e : model_.entities) {
        if (e.kind != CT && e.kind != PU) continue;
        for (const auto& d : kControls)
            if (d.kind == e.kind && (e.controls >> d.bit) & 1) values_[Key(e.id, d.selector)] = d.def;
    }
    for (const auto& vs : model_.streaming) {
        auto st = std::make_unique<Stream>();
        st->vs = &vs;
        st->probe = DefaultProbe(vs);
        streams_.push_back(std::move(st));
    }
}

UvcCamera::~UvcCamera() = default;

std::unique_ptr<UvcCamera> UvcCamera::Create(DescriptorSet descriptors, CameraOptions options) {
    auto parsed = ParseCameraModel(descriptors.device, descriptors.configuration);
    if (!parsed.ok) return nullptr;
    return std::unique_ptr<UvcCamera>(new UvcCamera(std::move(descriptors), std::move(parsed.model), options));
}

std::unique_ptr<UvcCamera> UvcCamera::CreateDefault(CameraOptions options) {
    return Create(BuildDescriptors(DefaultCameraSpec()), options);
}

// ---------------------------------------------------------------- default pipe

ControlResult UvcCamera::Stall(RequestError error) {
    requestError_ = error;
    return ControlResult{ControlResult::Status::kStall, 0};
}

ControlResult UvcCamera::Answer(std::span<uint8_t> data, const SetupPacket& s, std::span<const uint8_t> bytes) {
    size_t n = std::min({bytes.size(), size_t{s.wLength}, data.size()});
    std::copy_n(bytes.begin(), n, data.begin());
    return ControlResult{ControlResult::Status::kOk, n};
}

ControlResult UvcCamera::Control(const SetupPacket& s, std::span<uint8_t> data) {
    if (!connected_) return ControlResult{ControlResult::Status::kNoDevice, 0};
    switch ((s.bmRequestType >> 5) & 3) {
    case 0: return Standard(s, data);
    case 1: return Class(s, data);
    default: return Stall(RequestError::kInvalidRequest);
    }
}

ControlResult UvcCamera::Standard(const SetupPacket& s, std::span<uint8_t> data) {
    const ControlResult stall{ControlResult::Status::kStall, 0};
    const ControlResult ok{ControlResult::Status::kOk, 0};
    uint8_t recipient = s.bmRequestType & 0x1F;
    uint8_t low = static_cast<uint8_t>(s.wIndex);
    switch (s.bRequest) {
    case uvc::kReqGetDescriptor: {
        if (!IsIn(s) || recipient != 0) return stall;
        uint8_t type = s.wValue >> 8, index = s.wValue & 0xFF;
        if (type == uvc::kDescDevice && index == 0) return Answer(data, s, descriptors_.device);
        if (type == uvc::kDescConfiguration && index == 0) return Answer(data, s, descriptors_.configuration);
        if (type == uvc::kDescString && index == 0) {
            const uint8_t languages[] = {4, uvc::kDescString, 0x09, 0x04};
            return Answer(data, s, languages);
        }
        return stall;
    }
    case uvc::kReqSetConfiguration: {
        if (IsIn(s) || recipient != 0) return stall;
        uint8_t value = s.wValue & 0xFF;
        if (value != 0 && value != model_.configurationValue) return stall;
        configured_ = value != 0;
        for (auto& st : streams_) { st->alternate = 0; st->running = false; }
        return ok;
    }
    case uvc::kReqGetConfiguration: {
        const uint8_t v[] = {configured_ ? model_.configurationValue : uint8_t{0}};
        return IsIn(s) ? Answer(data, s, v) : stall;
    }
    case uvc::kReqGetStatus: {
        const uint8_t v[] = {static_cast<uint8_t>(recipient == 2 && pipeStalled_ ? 1 : 0), 0};
        return IsIn(s) ? Answer(data, s, v) : stall;
    }
    case uvc::kReqSetInterface: {
        if (IsIn(s) || recipient != 1 || !configured_) return stall;
        uint8_t alt = s.wValue & 0xFF;
        if (!model_.HasInterface(low, alt)) return stall;
        for (auto& st : streams_) {
            if (st->vs->number != low) continue;
            st->alternate = alt;
            st->running = false;
            if (alt != 0) StartStream(*st->vs);
        }
        return ok;
    }
    case uvc::kReqGetInterface: {
        if (!IsIn(s) || recipient != 1 || !configured_ || !model_.HasInterface(low, 0)) return stall;
        const uint8_t v[] = {CurrentAlternate(low)};
        return Answer(data, s, v);
    }
    case uvc::kReqClearFeature:
    case uvc::kReqSetFeature: {
        if (recipient != 2 || s.wValue != uvc::kFeatureEndpointHalt) return stall;
        bool streamingEndpoint = false;
        for (const auto& vs : model_.streaming)
            for (const auto& a : vs.alternates) streamingEndpoint |= a.endpointAddress == low && low != 0;
        bool interruptEndpoint = model_.interruptEndpoint && model_.interruptEndpoint->address == low;
        if (!streamingEndpoint && !interruptEndpoint && low != 0) return stall;
        if (streamingEndpoint) pipeStalled_ = s.bRequest == uvc::kReqSetFeature;
        return ok;
    }
    default:
        return stall;
    }
}

ControlResult UvcCamera::Class(const SetupPacket& s, std::span<uint8_t> data) {
    if ((s.bmRequestType & 0x1F) != 1 || !configured_) return Stall(RequestError::kWrongState);
    bool setRequest = s.bRequest == uvc::kSetCur;
    if (setRequest == IsIn(s)) return Stall(RequestError::kInvalidRequest);
    if (setRequest && data.size() < s.wLength) return Stall(RequestError::kInvalidRequest);
    uint8_t iface = s.wIndex & 0xFF, entity = s.wIndex >> 8, selector = s.wValue >> 8;
    if (model_.controlInterface && *model_.controlInterface == iface) {
        if (entity == 0) {
            if (selector != uvc::kVcRequestErrorCodeControl) return Stall(RequestError::kInvalidControl);
            // Reading the error code does not change it.
            const uint8_t code[] = {static_cast<uint8_t>(requestError_)};
            const uint8_t info[] = {uvc::kInfoGet};
            if (s.bRequest == uvc::kGetCur) return Answer(data, s, code);
            if (s.bRequest == uvc::kGetInfo) return Answer(data, s, info);
            return Stall(RequestError::kInvalidRequest);
        }
        const Entity* e = model_.FindEntity(entity);
        if (!e) return Stall(RequestError::kInvalidUnit);
        if (e->kind == EntityKind::kExtensionUnit && e->id == 4 && selector == 3) return ExtensionRegister(s, data);
        return UnitControl(*e, s, data);
    }
    if (const StreamingInterface* vs = model_.FindStreaming(iface)) {
        if (entity != 0) return Stall(RequestError::kInvalidUnit);
        return StreamingControl(*vs, s, data);
    }
    return Stall(RequestError::kInvalidUnit);
}

ControlResult UvcCamera::UnitControl(const Entity& e, const SetupPacket& s, std::span<uint8_t> data) {
    uint8_t selector = s.wValue >> 8;
    const Def* d = FindDef(e.kind, selector);
    if (!d || !((e.controls >> d->bit) & 1) || (e.kind != CT && e.kind != PU))
        return Stall(RequestError::kInvalidControl);
    int64_t& cur = values_[Key(e.id, selector)];
    // Controls that the automatic mode of a sibling control owns.
    auto valueOf = [&](uint8_t sel, int64_t fallback) {
        auto it = values_.find(Key(e.id, sel));
        return it == values_.end() ? fallback : it->second;
    };
    bool disabled = false;
    if (e.kind == CT && selector == uvc::kCtExposureTimeAbsolute) {
        int64_t mode = valueOf(uvc::kCtAeMode, 1);
        disabled = mode != 1 && mode != 4;  // only manual and shutter priority let the host set it
    }
    if (e.kind == CT && selector == uvc::kCtFocusAbsolute) disabled = valueOf(uvc::kCtFocusAuto, 0) != 0;
    if (e.kind == PU && selector == uvc::kPuWhiteBalanceTemperature)
        disabled = valueOf(uvc::kPuWhiteBalanceTemperatureAuto, 0) != 0;
    if (e.kind == PU && selector == uvc::kPuHue) disabled = valueOf(uvc::kPuHueAuto, 0) != 0;
    if (e.kind == PU && selector == 0x0C) disabled = valueOf(0x0D, 0) != 0;

    auto answerValue = [&](int64_t v) {
        if (s.wLength < d->size) return Stall(RequestError::kInvalidRequest);
        auto b = Encode(v, d->size);
        requestError_ = RequestError::kNoError;
        return Answer(data, s, b);
    };
    switch (s.bRequest) {
    case uvc::kGetInfo: {
        uint8_t info = uvc::kInfoGet | (d->readOnly ? 0 : uvc::kInfoSet) | (disabled ? uvc::kInfoDisabledByAuto : 0) |
                       (d->autoUpdate ? uvc::kInfoAutoUpdate : 0);
        const uint8_t b[] = {info};
        requestError_ = RequestError::kNoError;
        return Answer(data, s, b);
    }
    case uvc::kGetLen: {
        if (s.wLength < 2) return Stall(RequestError::kInvalidRequest);
        auto b = Encode(d->size, 2);
        requestError_ = RequestError::kNoError;
        return Answer(data, s, b);
    }
    case uvc::kGetCur: return answerValue(cur);
    case uvc::kGetDef: return answerValue(d->def);
    case uvc::kGetRes: return answerValue(d->res);
    case uvc::kGetMin:
    case uvc::kGetMax:
        if (d->modeBitmap) return Stall(RequestError::kInvalidRequest);  // UVC 4.2.2.1.2: not supported
        if (d->compound) return answerValue(s.bRequest == uvc::kGetMin ? 0 : -1);
        return answerValue(s.bRequest == uvc::kGetMin ? d->min : d->max);
    case uvc::kSetCur: {
        if (d->readOnly) return Stall(RequestError::kInvalidRequest);
        if (s.wLength < d->size) return Stall(RequestError::kInvalidRequest);
        if (disabled) return Stall(RequestError::kWrongState);
        int64_t v = Decode(data, d->size, d->isSigned);
        if (d->modeBitmap) {
            if (v == 0 || (v & (v - 1)) != 0 || (v & ~d->res) != 0) return Stall(RequestError::kInvalidValueWithinRange);
        } else if (!d->compound) {
            if (v < d->min || v > d->max) return Stall(RequestError::kOutOfRange);
            if (d->res > 1 && (v - d->min) % d->res != 0) return Stall(RequestError::kInvalidValueWithinRange);
        }
        cur = v;
        requestError_ = RequestError::kNoError;
        return ControlResult{ControlResult::Status::kOk, s.wLength};
    }
    default:
        return Stall(RequestError::kInvalidRequest);
    }
}

ControlResult UvcCamera::ExtensionRegister(const SetupPacket& s, std::span<uint8_t> data) {
    const Entity* e = model_.FindEntity(4);
    if (!e || !((e->controls >> 2) & 1)) return Stall(RequestError::kInvalidControl);
    auto answer = [&](std::initializer_list<uint8_t> bytes) {
        requestError_ = RequestError::kNoError;
        return Answer(data, s, std::span<const uint8_t>(bytes.begin(), bytes.size()));
    };
    switch (s.bRequest) {
    case uvc::kGetInfo: return answer({uvc::kInfoGet | uvc::kInfoSet});
    case uvc::kGetLen: return answer({3, 0});
    case uvc::kGetMin:
    case uvc::kGetDef: return answer({0, 0, 0});
    case uvc::kGetMax: return answer({0xFF, 0xFF, 0xFF});
    case uvc::kGetRes: return answer({1, 1, 1});
    case uvc::kGetCur:
        if (s.wLength == 2) return answer({selectedRegister_, registers_[selectedRegister_]});
        if (s.wLength >= 3) return answer({0x00, selectedRegister_, registers_[selectedRegister_]});
        return Stall(RequestError::kInvalidRequest);
    case uvc::kSetCur:
        if (s.wLength < 2) return Stall(RequestError::kInvalidRequest);
        if (data[0] == 0x80) {
            selectedRegister_ = data[1];
        } else if (data[0] == 0x00 && s.wLength >= 3) {
            selectedRegister_ = data[1];
            registers_[data[1]] = data[2];
        } else {
            return Stall(RequestError::kInvalidValueWithinRange);
        }
        lastRegisterCommand_ = data[0];
        requestError_ = RequestError::kNoError;
        return ControlResult{ControlResult::Status::kOk, s.wLength};
    default:
        return Stall(RequestError::kInvalidRequest);
    }
}

// ---------------------------------------------------------------- probe/commit

namespace {

uint32_t SnapInterval(const Frame& f, uint32_t wanted) {
    if (f.intervals.empty()) return f.defaultInterval;
    if (f.continuous) {
        uint32_t lo = f.intervals[0], hi = std::max(f.intervals[0], f.intervals[1]), step = f.intervals[2];
        if (wanted == 0) wanted = f.defaultInterval;
        uint32_t v = std::clamp(wanted, lo, hi);
        if (step > 0) v = lo + static_cast<uint32_t>((uint64_t{v - lo} + step / 2) / step * step);
        return std::min(v, hi);
    }
    if (wanted == 0) {
        bool listed = std::find(f.intervals.begin(), f.intervals.end(), f.defaultInterval) != f.intervals.end();
        return listed ? f.defaultInterval : f.intervals.front();
    }
    uint32_t best = f.intervals.front();
    for (uint32_t i : f.intervals) {
        auto dist = [&](uint32_t x) { return x > wanted ? x - wanted : wanted - x; };
        if (dist(i) < dist(best) || (dist(i) == dist(best) && i < best)) best = i;
    }
    return best;
}

uint32_t FrameBound(const Format& fmt, const Frame& fr) {
    uint32_t pixels = uint32_t{fr.width} * fr.height;
    if (fmt.kind == FormatKind::kUncompressed) return pixels * std::max<uint32_t>(fmt.bitsPerPixel, 8) / 8;
    if (fmt.kind == FormatKind::kMjpeg && fr.maxFrameBufferSize) return fr.maxFrameBufferSize;
    return pixels * 2;
}

}  // namespace

ProbeControl UvcCamera::DefaultProbe(const StreamingInterface& vs) const {
    ProbeControl p;
    if (vs.formats.empty()) return p;
    const Format& f = vs.formats.front();
    p.formatIndex = f.index;
    const Frame* fr = f.FindFrame(f.defaultFrameIndex);
    if (!fr && !f.frames.empty()) fr = &f.frames.front();
    if (!fr) return p;
    p.frameIndex = fr->index;
    p.frameInterval = 0;
    return Negotiate(vs, p).value_or(p);
}

std::optional<ProbeControl> UvcCamera::Negotiate(const StreamingInterface& vs, ProbeControl p) const {
    const Format* fmt = vs.FindFormat(p.formatIndex);
    if (!fmt) return std::nullopt;
    const Frame* fr = fmt->FindFrame(p.frameIndex);
    if (!fr) return std::nullopt;
    p.frameInterval = SnapInterval(*fr, p.frameInterval);
    p.maxVideoFrameSize = FrameBound(*fmt, *fr);
    // Bytes one (micro)frame must carry to send the frame within its
    // interval; motion JPEG is budgeted at a quarter of its bound.
    uint64_t slotTime = highSpeed_ ? 1250 : 10000;
    uint64_t slots = std::max<uint64_t>(1, p.frameInterval / slotTime);
    uint64_t estimate = fmt->kind == FormatKind::kUncompressed ? p.maxVideoFrameSize : p.maxVideoFrameSize / 4;
    uint64_t need = (estimate + slots - 1) / slots + uvc::kPayloadHeaderSize;
    uint32_t chosen = 0, largest = 0;
    for (const auto& a : vs.alternates) {
        if (!a.isochronous || a.capacity == 0 || (!highSpeed_ && a.capacity > 1023)) continue;
        largest = std::max(largest, a.capacity);
        if (a.capacity >= need && (chosen == 0 || a.capacity < chosen)) chosen = a.capacity;
    }
    p.maxPayloadTransferSize = chosen ? chosen : largest ? largest : static_cast<uint32_t>(need);
    return p;
}

ControlResult UvcCamera::StreamingControl(const StreamingInterface& vs, const SetupPacket& s,
                                          std::span<uint8_t> data) {
    uint8_t selector = s.wValue >> 8;
    Stream* st = nullptr;
    for (auto& x : streams_)
        if (x->vs == &vs) st = x.get();
    if (!st) return Stall(RequestError::kInvalidUnit);
    auto ok = [&](std::span<const uint8_t> b) {
        requestError_ = RequestError::kNoError;
        return Answer(data, s, b);
    };
    if (selector == uvc::kVsStreamErrorCodeControl) {
        const uint8_t code[] = {streamError_};
        const uint8_t info[] = {uvc::kInfoGet};
        if (s.bRequest == uvc::kGetCur) return ok(code);
        if (s.bRequest == uvc::kGetInfo) return ok(info);
        return Stall(RequestError::kInvalidRequest);
    }
    if (selector != uvc::kVsProbeControl && selector != uvc::kVsCommitControl)
        return Stall(RequestError::kInvalidControl);
    bool commit = selector == uvc::kVsCommitControl;
    size_t size = ProbeSize();
    switch (s.bRequest) {
    case uvc::kGetInfo: { const uint8_t b[] = {uvc::kInfoGet | uvc::kInfoSet}; return ok(b); }
    case uvc::kGetLen: { auto b = Encode(static_cast<int64_t>(size), 2); return ok(b); }
    case uvc::kGetCur: {
        auto b = (commit && st->committed ? *st->committed : st->probe).Pack(size);
        return ok(b);
    }
    case uvc::kGetDef: {
        if (commit) return Stall(RequestError::kInvalidRequest);
        auto b = DefaultProbe(vs).Pack(size);
        return ok(b);
    }
    case uvc::kGetRes: {
        if (commit) return Stall(RequestError::kInvalidRequest);
        auto b = ProbeControl{}.Pack(size);
        return ok(b);
    }
    case uvc::kGetMin:
    case uvc::kGetMax: {
        if (commit) return Stall(RequestError::kInvalidRequest);
        ProbeControl p = st->probe;
        const Format* fmt = vs.FindFormat(p.formatIndex);
        const Frame* fr = fmt ? fmt->FindFrame(p.frameIndex) : nullptr;
        if (fr && !fr->intervals.empty()) {
            bool min = s.bRequest == uvc::kGetMin;
            if (fr->continuous) p.frameInterval = min ? fr->intervals[0] : fr->intervals[1];
            else p.frameInterval = min ? *std::min_element(fr->intervals.begin(), fr->intervals.end())
                                       : *std::max_element(fr->intervals.begin(), fr->intervals.end());
            p = Negotiate(vs, p).value_or(p);
        }
        auto b = p.Pack(size);
        return ok(b);
    }
    case uvc::kSetCur: {
        if (s.wLength < uvc::kProbeSize10) return Stall(RequestError::kInvalidRequest);
        if (commit && st->alternate != 0) return Stall(RequestError::kWrongState);
        auto negotiated = Negotiate(vs, ProbeControl::Unpack(data.first(s.wLength)));
        if (!negotiated) return Stall(RequestError::kOutOfRange);
        st->probe = *negotiated;
        if (commit) st->committed = *negotiated;
        requestError_ = RequestError::kNoError;
        return ControlResult{ControlResult::Status::kOk, s.wLength};
    }
    default:
        return Stall(RequestError::kInvalidRequest);
    }
}

// ---------------------------------------------------------------- streaming

uint8_t UvcCamera::CurrentAlternate(uint8_t interfaceNumber) const {
    for (const auto& st : streams_)
        if (st->vs->number == interfaceNumber) return st->alternate;
    return 0;
}

std::optional<ProbeControl> UvcCamera::Committed(uint8_t interfaceNumber) const {
    for (const auto& st : streams_)
        if (st->vs->number == interfaceNumber) return st->committed;
    return std::nullopt;
}

bool UvcCamera::Streaming(uint8_t interfaceNumber) const {
    for (const auto& st : streams_)
        if (st->vs->number == interfaceNumber) return st->running;
    return false;
}

void UvcCamera::StartStream(const StreamingInterface& vs) {
    for (auto& st : streams_) {
        if (st->vs != &vs) continue;
        Stream& s = *st;
        s.running = false;
        s.clockStarted = s.sending = s.eofPending = s.missingEof = false;
        s.fid = 0;
        s.data.clear();
        s.sent = 0;
        if (!s.committed) return;  // nothing negotiated: the camera stays silent
        s.format = vs.FindFormat(s.committed->formatIndex);
        s.frame = s.format ? s.format->FindFrame(s.committed->frameIndex) : nullptr;
        if (!s.frame) return;
        s.interval = std::max<uint32_t>(s.committed->frameInterval, 1);
        s.payloadLimit = s.committed->maxPayloadTransferSize;
        s.running = true;
    }
}

UvcCamera::Stream* UvcCamera::StreamFor(uint8_t endpoint) {
    for (auto& st : streams_) {
        if (st->alternate == 0) continue;
        const AltSetting* a = st->vs->FindAlternate(st->alternate);
        if (endpoint == 0 || (a && a->endpointAddress == endpoint)) return st.get();
    }
    return nullptr;
}

bool UvcCamera::TakeFault(Fault f, uint32_t* amount) {
    std::lock_guard<std::mutex> guard(faultLock_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->first != f) continue;
        if (amount) *amount = it->second;
        faults_.erase(it);
        return true;
    }
    return false;
}

void UvcCamera::ArmFault(Fault fault, uint32_t amount) {
    if (fault == Fault::kStallPipe) { pipeStalled_ = true; return; }
    if (fault == Fault::kSurpriseRemoval) { connected_ = false; return; }
    std::lock_guard<std::mutex> guard(faultLock_);
    faults_.emplace_back(fault, amount);
}

std::vector<uint8_t> UvcCamera::RenderFrame(Stream& st, uint32_t number) {
    const Format& fmt = *st.format;
    const Frame& fr = *st.frame;
    Yuy2Picture pic = source_->Render(number, static_cast<uint16_t>(fr.width & ~1u), fr.height);
    std::vector<uint8_t> out;
    bool jpeg = fmt.kind != FormatKind::kUncompressed;
    if (jpeg) {
        out = EncodeJpeg(pic, options_.jpegQuality);
        if (options_.mjpegWithoutDht) out = StripDht(out);
    } else {
        out = std::move(pic.pixels);
        out.resize(FrameBound(fmt, fr), 0x80);  // other uncompressed layouts: same bytes, their size
    }
    uint32_t amount = 0;
    if (jpeg && TakeFault(Fault::kCorruptJpeg)) {
        if (!out.empty()) out[0] = 0x00;  // no SOI
        for (size_t i = out.size() / 2; i < out.size() / 2 + 64 && i < out.size(); ++i) out[i] ^= 0x5A;
    }
    if (jpeg && TakeFault(Fault::kTruncatedJpeg, &amount)) out.resize(amount ? std::min<size_t>(amount, out.size()) : out.size() / 2);
    if (TakeFault(Fault::kShortFrame, &amount)) out.resize(out.size() - std::min<size_t>(out.size(), amount ? amount : 1));
    if (TakeFault(Fault::kLongFrame, &amount)) out.resize(out.size() + (amount ? amount : 1), 0x80);
    st.missingEof = TakeFault(Fault::kMissingEof);
    return out;
}

void UvcCamera::Header(std::vector<uint8_t>& out, const Stream& st, uint64_t time, bool eof, bool err) const {
    uint32_t hz = model_.clockFrequency ? model_.clockFrequency : 48000000;
    uint8_t info = static_cast<uint8_t>((st.fid ? uvc::kHeaderFid : 0) | (eof ? uvc::kHeaderEof : 0) | uvc::kHeaderPts |
                                        uvc::kHeaderScr | uvc::kHeaderEndOfHeader | (err ? uvc::kHeaderError : 0));
    size_t at = out.size();
    out.resize(at + uvc::kPayloadHeaderSize);
    std::span<uint8_t> h(out.data() + at, uvc::kPayloadHeaderSize);
    h[0] = uvc::kPayloadHeaderSize;
    h[1] = info;
    uvc::Wr32(h, 2, Stc(st.captureTime, hz));
    uvc::Wr32(h, 6, Stc(time, hz));
    uvc::Wr16(h, 10, static_cast<uint16_t>((time / 10000) & 0x7FF));
}

IsoPacket UvcCamera::Produce(Stream& st, uint64_t time, size_t capacity) {
    IsoPacket p;
    if (!st.clockStarted) {
        st.clockStarted = true;
        st.t0 = st.nextDue = time;
    }
    if (capacity < uvc::kPayloadHeaderSize) return p;
    if (st.eofPending) {
        Header(p.data, st, time, true, false);
        st.eofPending = false;
        st.fid ^= 1;
        return p;
    }
    if (!st.sending) {
        if (time < st.nextDue) {
            if (options_.idle == IdleFill::kHeaderOnly) Header(p.data, st, time, false, false);
            return p;
        }
        uint64_t slot = (time - st.t0) / st.interval;
        st.nextDue = st.t0 + (slot + 1) * st.interval;
        st.captureTime = st.t0 + slot * st.interval;
        st.data = RenderFrame(st, static_cast<uint32_t>(slot));
        st.sent = 0;
        st.sending = true;
        ++framesStarted_;
    }
    size_t room = std::min<size_t>(capacity, st.payloadLimit ? st.payloadLimit : capacity);
    uint32_t over = 0;
    bool babble = false;
    if (TakeFault(Fault::kOverPayload, &over)) {
        room += over ? over : 512;
        if (room > capacity) { room = capacity; babble = true; }
    }
    bool lost = TakeFault(Fault::kLostPacket);
    bool error = TakeFault(Fault::kPacketError);
    bool headerError = TakeFault(Fault::kHeaderErrorBit);
    if (headerError) streamError_ = 3;  // data discontinuity
    size_t chunk = std::min(room - uvc::kPayloadHeaderSize, st.data.size() - st.sent);
    Header(p.data, st, time, false, headerError);
    p.data.insert(p.data.end(), st.data.begin() + st.sent, st.data.begin() + st.sent + chunk);
    st.sent += chunk;
    if (st.sent >= st.data.size()) {
        st.sending = false;
        if (st.missingEof) st.fid ^= 1;  // the next frame just starts
        else st.eofPending = true;
    }
    if (lost) return IsoPacket{{}, PacketStatus::kNotAccessed};
    p.status = babble ? PacketStatus::kBabble : error ? PacketStatus::kError : PacketStatus::kOk;
    return p;
}

IsoPacket UvcCamera::NextPacket(uint64_t time, size_t capacity, uint8_t endpoint) {
    if (!connected_) return IsoPacket{{}, PacketStatus::kDeviceGone};
    Stream* st = StreamFor(endpoint);
    if (!st) return IsoPacket{};
    if (pipeStalled_) return IsoPacket{{}, PacketStatus::kStalled};
    if (!st->running) return IsoPacket{};
    return Produce(*st, time, capacity);
}

std::vector<IsoPacket> UvcCamera::NextPackets(uint64_t time, uint64_t step, size_t count, size_t capacity,
                                              uint8_t endpoint) {
    std::vector<IsoPacket> out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i) out.push_back(NextPacket(time + i * step, capacity, endpoint));
    return out;
}

// ---------------------------------------------------------------- interrupt, inspection

void UvcCamera::QueueStatusPacket(std::vector<uint8_t> packet) {
    std::lock_guard<std::mutex> guard(interruptLock_);
    interrupt_.push_back(std::move(packet));
}

size_t UvcCamera::PendingInterruptPackets() const {
    std::lock_guard<std::mutex> guard(interruptLock_);
    return interrupt_.size();
}

void UvcCamera::QueueButton(bool pressed) {
    uint8_t vs = model_.streaming.empty() ? 1 : model_.streaming.front().number;
    QueueStatusPacket({uvc::kStatusTypeVideoStreaming, vs, uvc::kStatusEventButton, static_cast<uint8_t>(pressed ? 1 : 0)});
}

std::optional<std::vector<uint8_t>> UvcCamera::ReadInterrupt(size_t maxLength) {
    std::lock_guard<std::mutex> guard(interruptLock_);
    if (!connected_ || interrupt_.empty()) return std::nullopt;
    auto p = std::move(interrupt_.front());
    interrupt_.pop_front();
    if (p.size() > maxLength) p.resize(maxLength);
    return p;
}

std::optional<int64_t> UvcCamera::ControlValue(uint8_t entityId, uint8_t selector) const {
    auto it = values_.find(Key(entityId, selector));
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

}  // namespace kvsim::camera
