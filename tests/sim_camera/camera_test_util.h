// Helpers shared by the virtual camera's tests (tests/sim_camera): the
// host's side of the default pipe (standard and class requests), the
// probe/commit exchange and a bus-like loop that polls isochronous slots.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "camera/payload_decoder.h"
#include "camera/uvc_camera.h"

namespace camtest {

using namespace kvsim::camera;

// The built-in camera and the real cameras of ../shared/cameras.
inline const std::vector<std::string> kAllCameras = {"default", "trust_webcam", "logitech_c270", "elp_h264"};

inline DescriptorSet LoadReal(const std::string& name) {
    auto set = LoadDescriptorFiles(std::string(KV_SHARED_DIR) + "/cameras", name);
    EXPECT_TRUE(set.has_value()) << name;
    return set.value_or(DescriptorSet{});
}

inline std::unique_ptr<UvcCamera> Camera(const std::string& name, CameraOptions o = {}) {
    if (name == "default") return UvcCamera::CreateDefault(o);
    return UvcCamera::Create(LoadReal(name), o);
}

inline ControlResult Out(UvcCamera& c, uint8_t type, uint8_t req, uint16_t value, uint16_t index,
                         std::vector<uint8_t> data = {}) {
    SetupPacket s{type, req, value, index, static_cast<uint16_t>(data.size())};
    return c.Control(s, data);
}

inline ControlResult In(UvcCamera& c, uint8_t type, uint8_t req, uint16_t value, uint16_t index, uint16_t length,
                        std::vector<uint8_t>* out) {
    std::vector<uint8_t> buf(length);
    SetupPacket s{type, req, value, index, length};
    auto r = c.Control(s, buf);
    buf.resize(r.length);
    if (out) *out = buf;
    return r;
}

inline bool Configure(UvcCamera& c) {
    return Out(c, 0x00, uvc::kReqSetConfiguration, c.Model().configurationValue, 0).ok();
}

inline bool SetInterface(UvcCamera& c, uint8_t iface, uint8_t alt) {
    return Out(c, 0x01, uvc::kReqSetInterface, alt, iface).ok();
}

// A class request to the video-control interface: entity, selector.
inline ControlResult VcGet(UvcCamera& c, uint8_t req, uint8_t entity, uint8_t selector, uint16_t len,
                           std::vector<uint8_t>* out) {
    return In(c, 0xA1, req, static_cast<uint16_t>(selector << 8),
              static_cast<uint16_t>(entity << 8 | c.Model().controlInterface.value_or(0)), len, out);
}
inline ControlResult VcSet(UvcCamera& c, uint8_t entity, uint8_t selector, std::vector<uint8_t> data) {
    return Out(c, 0x21, uvc::kSetCur, static_cast<uint16_t>(selector << 8),
               static_cast<uint16_t>(entity << 8 | c.Model().controlInterface.value_or(0)), std::move(data));
}

// A probe/commit block asking for `format`, `frame` and `interval` (0: the
// frame's default).
inline ProbeControl Pc(uint8_t format, uint8_t frame, uint32_t interval = 0) {
    return ProbeControl{.formatIndex = format, .frameIndex = frame, .frameInterval = interval};
}

inline ControlResult Probe(UvcCamera& c, uint8_t iface, bool commit, const ProbeControl& p) {
    return Out(c, 0x21, uvc::kSetCur, commit ? 0x0200 : 0x0100, iface, p.Pack());
}
inline std::optional<ProbeControl> ProbeGet(UvcCamera& c, uint8_t iface, uint8_t req = uvc::kGetCur, bool commit = false) {
    std::vector<uint8_t> b;
    if (!In(c, 0xA1, req, commit ? 0x0200 : 0x0100, iface, 26, &b).ok() || b.size() < 26) return std::nullopt;
    return ProbeControl::Unpack(b);
}

// The smallest alternate setting of the interface whose capacity carries
// maxPayload, as a host driver picks it.
inline const AltSetting* AlternateFor(const StreamingInterface& vs, uint32_t maxPayload) {
    for (const auto& a : vs.alternates)
        if (a.alternate != 0 && a.capacity >= maxPayload) return &a;
    return nullptr;
}

// Configure, probe, commit and select the alternate setting; returns the
// committed block.
inline std::optional<ProbeControl> StartStreaming(UvcCamera& c, uint8_t iface, uint8_t format, uint8_t frame,
                                                  uint32_t interval) {
    if (!Configure(c)) return std::nullopt;
    if (!Probe(c, iface, false, Pc(format, frame, interval)).ok()) return std::nullopt;
    auto got = ProbeGet(c, iface);
    if (!got || !Probe(c, iface, true, *got).ok()) return std::nullopt;
    const AltSetting* alt = AlternateFor(*c.Model().FindStreaming(iface), got->maxPayloadTransferSize);
    if (!alt || !SetInterface(c, iface, alt->alternate)) return std::nullopt;
    return got;
}

struct Capture {
    std::vector<ReassembledFrame> frames;
    std::vector<IsoPacket> packets;
    std::vector<uint64_t> frameStartTimes;  // time of each frame's first data packet
    uint64_t endTime = 0;
    size_t MaxPacket() const {
        size_t m = 0;
        for (const auto& p : packets) m = std::max(m, p.data.size());
        return m;
    }
};

// Polls high-speed slots (125 us) from `time` until `frames` frames have
// been reassembled or `maxSlots` have passed.
inline Capture Poll(UvcCamera& c, size_t frames, size_t capacity, uint64_t time = 0, size_t maxSlots = 400000,
                   uint64_t step = 1250) {
    Capture cap;
    Reassembler r;
    bool inFrame = false;
    for (size_t i = 0; i < maxSlots && cap.frames.size() < frames; ++i, time += step) {
        auto p = c.NextPacket(time, capacity);
        if (!inFrame && p.data.size() > uvc::kPayloadHeaderSize) {
            cap.frameStartTimes.push_back(time);
            inFrame = true;
        }
        if (p.data.size() >= 2 && (p.data[1] & uvc::kHeaderEof)) inFrame = false;
        r.Push(p);
        cap.packets.push_back(std::move(p));
        for (auto& f : r.TakeFrames()) cap.frames.push_back(std::move(f));
    }
    cap.endTime = time;
    return cap;
}

}  // namespace camtest
