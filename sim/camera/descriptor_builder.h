// The virtual camera's descriptor sets: a small builder that turns
// a readable camera table (CameraSpec) into the device descriptor and the
// whole configuration descriptor of a UVC 1.0 camera, the table of the
// built-in default camera, and a loader for real cameras' captured
// descriptors (NAME.dev_desc.bin + NAME.cfg_desc.bin).
//
// The built configuration has: an interface association; the video-control
// interface 0 (header, camera terminal 1, processing unit 3, extension unit
// 4, output terminal 5, interrupt endpoint 0x83 with its class endpoint
// descriptor); the video-streaming interface 1 (input header, one format
// descriptor per FormatSpec with its frame descriptors, a still image frame
// descriptor and a color matching descriptor, then one alternate setting per
// entry of altPacketSizes, each with isochronous endpoint 0x81).
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "camera_model.h"

namespace kvsim::camera {

struct DescriptorSet {
    std::vector<uint8_t> device;         // 18 bytes
    std::vector<uint8_t> configuration;  // wTotalLength bytes
};

struct FrameSpec {
    uint16_t width = 0, height = 0;
    std::vector<uint32_t> intervals;     // discrete, 100 ns units; the first is the default
    bool continuous = false;             // intervals = {min, max, step}; min is the default
};

struct FormatSpec {
    FormatKind kind = FormatKind::kUncompressed;  // kUncompressed is YUY2 here
    std::vector<FrameSpec> frames;
    std::vector<StillSize> stills;       // empty: no still image frame descriptor
};

struct CameraSpec {
    uint16_t idVendor = 0, idProduct = 0, bcdDevice = 0x0100;
    bool highSpeed = true;               // bcdUSB 0x0200 (else 0x0110)
    uint32_t clockFrequency = 48000000;  // dwClockFrequency of the VC header
    uint32_t cameraTerminalControls = 0; // 3-byte bmControls
    uint16_t processingUnitControls = 0; // 2-byte bmControls
    uint8_t extensionUnitId = 4;
    std::array<uint8_t, 16> extensionUnitGuid{};
    uint16_t extensionUnitControls = 0;
    uint8_t extensionUnitNumControls = 0;
    // The video-control interface's status endpoint is optional (UVC 1.1,
    // 3.8.2.2): 0 builds a camera without it.
    uint16_t interruptPacketSize = 16;
    std::vector<FormatSpec> formats;
    std::vector<uint16_t> altPacketSizes;  // wMaxPacketSize of alternate settings 1..n
};

// The built-in default camera (product id 0x8034), as a table.
const CameraSpec& DefaultCameraSpec();

// Builds the descriptor set that a camera described by spec returns.
DescriptorSet BuildDescriptors(const CameraSpec& spec);

// Reads dir/NAME.dev_desc.bin and dir/NAME.cfg_desc.bin; nullopt when either
// cannot be read.
std::optional<DescriptorSet> LoadDescriptorFiles(const std::string& dir, const std::string& name);

}  // namespace kvsim::camera
