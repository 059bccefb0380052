// A writer of configuration descriptors byte by byte (odd, short and lying
// ones the camera builder never makes), and the real cameras' descriptors.
#pragma once
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "camera/descriptor_builder.h"

namespace blob {

inline void Le16(std::vector<uint8_t>& v, uint32_t x) { v.push_back(x & 0xFF); v.push_back((x >> 8) & 0xFF); }
inline void Le32(std::vector<uint8_t>& v, uint32_t x) { Le16(v, x & 0xFFFF); Le16(v, x >> 16); }

// A configuration descriptor under construction: Finish() writes wTotalLength.
struct Config {
    std::vector<uint8_t> b;
    explicit Config(uint8_t numInterfaces = 2) { b = {9, 2, 0, 0, numInterfaces, 1, 0, 0x80, 50}; }
    Config& Interface(uint8_t number, uint8_t alternate, uint8_t subClass, uint8_t numEndpoints = 0) {
        b.insert(b.end(), {9, 4, number, alternate, numEndpoints, 0x0E, subClass, 0, 0});
        return *this;
    }
    Config& Raw(std::initializer_list<uint8_t> bytes) { b.insert(b.end(), bytes); return *this; }
    Config& Raw(const std::vector<uint8_t>& bytes) { b.insert(b.end(), bytes.begin(), bytes.end()); return *this; }
    // Camera terminal with a 3-byte bmControls (byte 15..17).
    Config& CameraTerminal(uint32_t controls) {
        b.insert(b.end(), {18, 0x24, 0x02, 1, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 3});
        b.push_back(controls & 0xFF); b.push_back((controls >> 8) & 0xFF); b.push_back((controls >> 16) & 0xFF);
        return *this;
    }
    Config& ProcessingUnit(uint16_t controls) {
        b.insert(b.end(), {11, 0x24, 0x05, 3, 1, 0, 0, 2});
        Le16(b, controls);
        b.push_back(0);
        return *this;
    }
    // Format descriptor (uncompressed 0x04: 27 bytes; MJPEG 0x06: 11 bytes).
    Config& Format(uint8_t subtype, uint8_t index, uint8_t numFrames) {
        if (subtype == 0x04) {
            b.insert(b.end(), {27, 0x24, 0x04, index, numFrames, 'Y', 'U', 'Y', '2', 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA,
                               0, 0x38, 0x9B, 0x71, 16, 1, 0, 0, 0, 0});
        } else {
            b.insert(b.end(), {11, 0x24, 0x06, index, numFrames, 0, 1, 0, 0, 0, 0});
        }
        return *this;
    }
    // Frame descriptor with discrete intervals (type = count unless given).
    Config& Frame(uint8_t subtype, uint8_t index, uint16_t w, uint16_t h, std::vector<uint32_t> intervals,
                  int intervalType = -1, uint32_t minRate = 0, uint32_t maxRate = 0) {
        std::vector<uint8_t> f = {0, 0x24, subtype, index, 0};
        Le16(f, w); Le16(f, h);
        Le32(f, minRate ? minRate : uint32_t(w) * h * 16 * 5);
        Le32(f, maxRate ? maxRate : uint32_t(w) * h * 16 * 30);
        Le32(f, uint32_t(w) * h * 2);
        Le32(f, intervals.empty() ? 0 : intervals[0]);
        f.push_back(static_cast<uint8_t>(intervalType >= 0 ? intervalType : int(intervals.size())));
        for (uint32_t i : intervals) Le32(f, i);
        f[0] = static_cast<uint8_t>(f.size());
        return Raw(f);
    }
    // Still image frame descriptor with (w, h) pairs.
    Config& Still(std::vector<std::pair<uint16_t, uint16_t>> sizes, int claimed = -1) {
        std::vector<uint8_t> s = {0, 0x24, 0x03, 0, static_cast<uint8_t>(claimed >= 0 ? claimed : int(sizes.size()))};
        for (auto [w, h] : sizes) { Le16(s, w); Le16(s, h); }
        s.push_back(0);  // bNumCompressionPattern
        s[0] = static_cast<uint8_t>(s.size());
        return Raw(s);
    }
    std::vector<uint8_t> Finish() {
        b[2] = b.size() & 0xFF;
        b[3] = (b.size() >> 8) & 0xFF;
        return b;
    }
};

inline kvsim::camera::DescriptorSet LoadReal(const std::string& name) {
    auto set = kvsim::camera::LoadDescriptorFiles(std::string(KV_SHARED_DIR) + "/cameras", name);
    return set.value_or(kvsim::camera::DescriptorSet{});
}

}  // namespace blob
