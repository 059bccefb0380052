// The virtual camera's view of its own descriptors (the device's side of the
// configuration and format tables a host driver reads at start): what a UVC
// camera needs to know about itself to behave - its units and their control bitmaps, its streaming interfaces with
// formats, frames, intervals, still sizes and alternate settings, and its
// interrupt endpoint. ParseCameraModel builds it from ANY device +
// configuration descriptor pair (the built-in default or a real camera's);
// every read is bounds-checked, so a truncated or garbage blob yields a
// partial model or an error, never a crash.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvsim::camera {

enum class EntityKind : uint8_t { kCameraTerminal, kInputTerminal, kOutputTerminal, kSelectorUnit,
                                  kProcessingUnit, kExtensionUnit };

struct Entity {
    uint8_t id = 0;
    EntityKind kind = EntityKind::kInputTerminal;
    uint16_t terminalType = 0;           // terminals only
    uint64_t controls = 0;               // bmControls, up to 8 bytes, little-endian
    std::array<uint8_t, 16> guid{};      // extension units only
    uint8_t numControls = 0;             // extension units only
};

enum class FormatKind : uint8_t { kUncompressed, kMjpeg, kFrameBased };

struct Frame {
    uint8_t index = 0;                   // bFrameIndex
    uint16_t width = 0, height = 0;
    uint32_t minBitRate = 0, maxBitRate = 0;
    uint32_t maxFrameBufferSize = 0;     // 0 for frame-based frames (no such field)
    uint32_t defaultInterval = 0;        // 100 ns units
    // Discrete intervals in descriptor order, or (continuous) min, max, step.
    std::vector<uint32_t> intervals;
    bool continuous = false;
};

struct StillSize { uint16_t width = 0, height = 0; };

struct Format {
    uint8_t index = 0;                   // bFormatIndex
    FormatKind kind = FormatKind::kUncompressed;
    std::array<uint8_t, 16> guid{};      // uncompressed and frame-based
    uint8_t bitsPerPixel = 16;
    uint8_t defaultFrameIndex = 1;
    std::vector<Frame> frames;
    std::vector<StillSize> stills;       // from the still image frame descriptor(s)
    const Frame* FindFrame(uint8_t frameIndex) const;
    bool IsYuy2() const;
};

struct AltSetting {
    uint8_t alternate = 0;
    uint8_t endpointAddress = 0;         // 0 when the setting has no endpoint
    uint16_t wMaxPacketSize = 0;
    uint32_t capacity = 0;               // bytes per (micro)frame, uvc::IsoCapacity
    bool isochronous = false;
};

struct StreamingInterface {
    uint8_t number = 0;
    uint8_t endpointAddress = 0;         // from the VS input header
    std::vector<Format> formats;
    std::vector<AltSetting> alternates;  // including alternate setting 0
    const Format* FindFormat(uint8_t formatIndex) const;
    const AltSetting* FindAlternate(uint8_t alternate) const;
};

struct Endpoint { uint8_t address = 0; uint8_t attributes = 0; uint16_t wMaxPacketSize = 0; uint8_t interval = 0; };

struct CameraModel {
    // Device descriptor.
    uint16_t bcdUsb = 0, idVendor = 0, idProduct = 0;
    uint8_t maxPacketSize0 = 0, numConfigurations = 0;
    // Configuration descriptor.
    uint16_t totalLength = 0;
    uint8_t numInterfaces = 0, configurationValue = 0, configAttributes = 0;
    std::vector<std::pair<uint8_t, uint8_t>> interfaces;  // (number, alternate) of every interface descriptor
    // Video control.
    std::optional<uint8_t> controlInterface;
    uint16_t bcdUvc = 0x0100;
    uint32_t clockFrequency = 0;
    std::vector<Entity> entities;
    std::optional<Endpoint> interruptEndpoint;
    std::vector<StreamingInterface> streaming;

    const Entity* FindEntity(uint8_t id) const;
    const Entity* FindByKind(EntityKind kind) const;  // the first one
    const StreamingInterface* FindStreaming(uint8_t interfaceNumber) const;
    bool HasInterface(uint8_t number, uint8_t alternate) const;
};

struct ParseResult {
    CameraModel model;
    std::vector<std::string> warnings;  // descriptors skipped as malformed
    bool ok = false;                    // false: unusable (no valid device/configuration header)
};

// Parses the 18-byte device descriptor and the configuration descriptor
// (wTotalLength bytes; a shorter blob is walked as far as it goes). A
// descriptor whose bLength is below 2 or runs past the end ends the walk; a
// descriptor too short for the fields read is skipped with a warning.
ParseResult ParseCameraModel(std::span<const uint8_t> deviceDescriptor,
                             std::span<const uint8_t> configDescriptor);

}  // namespace kvsim::camera
