// The virtual camera's descriptors: the built-in default parses back into
// the table that built it, the real cameras load with the right model, and
// malformed blobs never crash the parser or the camera. (GET_DESCRIPTOR:
// usb_bus_requests_test, over the bus.)
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "camera_test_util.h"

using namespace camtest;

TEST(CameraDescriptors, DefaultCameraParsesBackIntoTheTableThatBuiltIt) {
    const CameraSpec& spec = DefaultCameraSpec();
    auto set = BuildDescriptors(spec);
    ASSERT_EQ(set.device.size(), 18u);
    ASSERT_EQ(uvc::Rd16(set.configuration, 2), set.configuration.size());
    auto parsed = ParseCameraModel(set.device, set.configuration);
    ASSERT_TRUE(parsed.ok);
    EXPECT_TRUE(parsed.warnings.empty()) << parsed.warnings.front();
    const CameraModel& m = parsed.model;
    EXPECT_EQ(m.idVendor, spec.idVendor);
    EXPECT_EQ(m.idProduct, 0x8034);
    EXPECT_EQ(m.bcdUsb, 0x0200);
    EXPECT_EQ(m.clockFrequency, spec.clockFrequency);
    ASSERT_TRUE(m.controlInterface.has_value());
    EXPECT_EQ(*m.controlInterface, 0);
    const Entity* ct = m.FindByKind(EntityKind::kCameraTerminal);
    const Entity* pu = m.FindByKind(EntityKind::kProcessingUnit);
    const Entity* xu = m.FindEntity(4);
    ASSERT_TRUE(ct && pu && xu);
    EXPECT_EQ(ct->controls, spec.cameraTerminalControls);
    EXPECT_EQ(pu->controls, spec.processingUnitControls);
    EXPECT_EQ(xu->kind, EntityKind::kExtensionUnit);
    EXPECT_EQ(xu->controls, spec.extensionUnitControls);
    EXPECT_EQ(xu->guid, spec.extensionUnitGuid);
    ASSERT_TRUE(m.interruptEndpoint.has_value());
    EXPECT_EQ(m.interruptEndpoint->address, 0x83);
    ASSERT_EQ(m.streaming.size(), 1u);
    const StreamingInterface& vs = m.streaming[0];
    EXPECT_EQ(vs.number, 1);
    ASSERT_EQ(vs.formats.size(), spec.formats.size());
    for (size_t i = 0; i < spec.formats.size(); ++i) {
        const FormatSpec& fs = spec.formats[i];
        const Format& f = vs.formats[i];
        EXPECT_EQ(f.index, i + 1);
        EXPECT_EQ(f.kind, fs.kind);
        if (fs.kind == FormatKind::kUncompressed) { EXPECT_TRUE(f.IsYuy2()); }
        ASSERT_EQ(f.frames.size(), fs.frames.size());
        for (size_t j = 0; j < fs.frames.size(); ++j) {
            EXPECT_EQ(f.frames[j].index, j + 1);
            EXPECT_EQ(f.frames[j].width, fs.frames[j].width);
            EXPECT_EQ(f.frames[j].height, fs.frames[j].height);
            EXPECT_EQ(f.frames[j].intervals, fs.frames[j].intervals);
            EXPECT_FALSE(f.frames[j].continuous);
        }
        ASSERT_EQ(f.stills.size(), fs.stills.size());
        for (size_t j = 0; j < fs.stills.size(); ++j) {
            EXPECT_EQ(f.stills[j].width, fs.stills[j].width);
            EXPECT_EQ(f.stills[j].height, fs.stills[j].height);
        }
    }
    ASSERT_EQ(vs.alternates.size(), spec.altPacketSizes.size() + 1);
    EXPECT_EQ(vs.alternates[0].endpointAddress, 0);
    for (size_t k = 0; k < spec.altPacketSizes.size(); ++k) {
        EXPECT_EQ(vs.alternates[k + 1].alternate, k + 1);
        EXPECT_EQ(vs.alternates[k + 1].wMaxPacketSize, spec.altPacketSizes[k]);
        EXPECT_TRUE(vs.alternates[k + 1].isochronous);
    }
    EXPECT_EQ(vs.alternates.back().capacity, 3072u);  // 0x1400: 3 x 1024
}

TEST(CameraDescriptors, TrustWebcamLoadsWithItsYuy2FramesAndStillSizes) {
    auto cam = Camera("trust_webcam");
    ASSERT_TRUE(cam);
    const auto& m = cam->Model();
    EXPECT_EQ(m.idVendor, 0x0C45);
    EXPECT_EQ(m.idProduct, 0x6340);
    ASSERT_EQ(m.streaming.size(), 1u);
    ASSERT_EQ(m.streaming[0].formats.size(), 1u);
    const Format& f = m.streaming[0].formats[0];
    EXPECT_TRUE(f.IsYuy2());
    std::vector<std::pair<int, int>> sizes, stills;
    for (const auto& fr : f.frames) sizes.emplace_back(fr.width, fr.height);
    for (const auto& s : f.stills) stills.emplace_back(s.width, s.height);
    std::vector<std::pair<int, int>> want = {{640, 480}, {352, 288}, {320, 240}, {176, 144}, {1280, 1024}, {160, 120}};
    EXPECT_EQ(sizes, want);
    std::vector<std::pair<int, int>> wantStills = {{640, 480}, {352, 288}, {320, 240}, {176, 144}, {160, 120}};
    EXPECT_EQ(stills, wantStills);
    ASSERT_TRUE(m.interruptEndpoint);
    EXPECT_EQ(m.interruptEndpoint->address, 0x83);
    EXPECT_EQ(m.streaming[0].alternates.back().capacity, 3072u);
    EXPECT_TRUE(m.FindEntity(4) && m.FindEntity(4)->kind == EntityKind::kExtensionUnit);
}

TEST(CameraDescriptors, LogitechC270LoadsWithNineteenYuy2AndNineteenMjpegSizes) {
    auto cam = Camera("logitech_c270");
    ASSERT_TRUE(cam);
    const auto& m = cam->Model();
    EXPECT_EQ(m.idVendor, 0x046D);
    EXPECT_EQ(m.idProduct, 0x0825);
    ASSERT_EQ(m.streaming.size(), 1u);  // the audio interfaces are not video streaming
    ASSERT_EQ(m.streaming[0].formats.size(), 2u);
    EXPECT_TRUE(m.streaming[0].formats[0].IsYuy2());
    EXPECT_EQ(m.streaming[0].formats[1].kind, FormatKind::kMjpeg);
    EXPECT_EQ(m.streaming[0].formats[0].frames.size(), 19u);
    EXPECT_EQ(m.streaming[0].formats[1].frames.size(), 19u);
    EXPECT_TRUE(m.streaming[0].formats[0].stills.empty());
    EXPECT_TRUE(m.streaming[0].formats[1].stills.empty());
    EXPECT_EQ(m.streaming[0].alternates.size(), 12u);
    EXPECT_EQ(m.FindByKind(EntityKind::kProcessingUnit)->id, 2);
}

TEST(CameraDescriptors, ElpH264LoadsWithMjpegYuy2AndAFrameBasedFormat) {
    auto cam = Camera("elp_h264");
    ASSERT_TRUE(cam);
    const auto& m = cam->Model();
    EXPECT_EQ(m.idVendor, 0x32E4);
    ASSERT_EQ(m.streaming.size(), 2u);
    const auto& vs1 = m.streaming[0];
    ASSERT_EQ(vs1.formats.size(), 2u);
    EXPECT_EQ(vs1.formats[0].kind, FormatKind::kMjpeg);
    EXPECT_EQ(vs1.formats[0].frames.size(), 8u);
    EXPECT_TRUE(vs1.formats[1].IsYuy2());
    EXPECT_EQ(vs1.formats[1].frames.size(), 6u);
    const auto& vs2 = m.streaming[1];
    EXPECT_EQ(vs2.number, 2);
    ASSERT_EQ(vs2.formats.size(), 1u);
    EXPECT_EQ(vs2.formats[0].kind, FormatKind::kFrameBased);
    EXPECT_EQ(std::memcmp(vs2.formats[0].guid.data(), uvc::kGuidH264, 16), 0);
    EXPECT_EQ(vs2.formats[0].frames.size(), 8u);
    EXPECT_EQ(vs2.formats[0].frames[0].width, 1920);
    EXPECT_EQ(vs2.alternates.back().endpointAddress, 0x82);
}

namespace {

// Exercises a camera made from a (possibly broken) descriptor set: every
// probe over its model, every alternate setting, a few packets.
void Exercise(UvcCamera& cam, bool stream) {
    Configure(cam);
    for (const auto& vs : cam.Model().streaming) {
        for (const auto& f : vs.formats)
            for (const auto& fr : f.frames) {
                Probe(cam, vs.number, false, Pc(f.index, fr.index, 1));
                ProbeGet(cam, vs.number);
                ProbeGet(cam, vs.number, uvc::kGetMax);
            }
        for (const auto& a : vs.alternates) SetInterface(cam, vs.number, a.alternate);
    }
    for (const auto& e : cam.Model().entities)
        for (uint8_t sel = 0; sel < 0x14; ++sel) VcGet(cam, uvc::kGetCur, e.id, sel, 8, nullptr);
    if (!stream) return;
    for (const auto& vs : cam.Model().streaming) {
        if (!Probe(cam, vs.number, true, Pc(1, 1)).ok()) continue;
        auto got = ProbeGet(cam, vs.number);
        if (!got) continue;
        const auto* fmt = vs.FindFormat(1);
        const auto* fr = fmt ? fmt->FindFrame(1) : nullptr;
        if (!fr || uint32_t{fr->width} * fr->height > 320 * 240) continue;  // keep the loop fast
        for (const auto& a : vs.alternates) {
            if (a.alternate == 0) continue;
            SetInterface(cam, vs.number, a.alternate);
            for (int i = 0; i < 20; ++i) cam.NextPacket(i * 1250, a.capacity);
            break;
        }
    }
}

}  // namespace

TEST(CameraDescriptors, TruncatedAndMutatedBlobsNeverCrash) {
    std::mt19937 rng(20261122);
    size_t usable = 0, runs = 0;
    for (const std::string& name : kAllCameras) {
        DescriptorSet original = name == "default" ? BuildDescriptors(DefaultCameraSpec()) : LoadReal(name);
        // Every truncation of the configuration descriptor (wTotalLength kept).
        for (size_t n = 0; n <= original.configuration.size(); n += (n < 64 ? 1 : 37)) {
            DescriptorSet s{original.device, {original.configuration.begin(), original.configuration.begin() + n}};
            auto parsed = ParseCameraModel(s.device, s.configuration);
            if (n < 9) { EXPECT_FALSE(parsed.ok) << n; }
            if (auto cam = UvcCamera::Create(s)) {
                ++usable;
                Exercise(*cam, false);
            }
            ++runs;
        }
        for (size_t n = 0; n < 18; ++n) {
            DescriptorSet s{{original.device.begin(), original.device.begin() + n}, original.configuration};
            EXPECT_EQ(UvcCamera::Create(s), nullptr) << n;
        }
        // Random mutations: bytes overwritten, lengths and counts included.
        for (int round = 0; round < 300; ++round) {
            DescriptorSet s = original;
            int edits = 1 + static_cast<int>(rng() % 8);
            for (int e = 0; e < edits; ++e) {
                size_t at = rng() % s.configuration.size();
                s.configuration[at] = static_cast<uint8_t>(rng());
            }
            if (rng() % 4 == 0) s.configuration.resize(rng() % s.configuration.size());
            if (auto cam = UvcCamera::Create(s)) {
                ++usable;
                Exercise(*cam, round % 25 == 0);
            }
            ++runs;
        }
    }
    // Pure garbage.
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> dev(18), cfg(rng() % 600);
        for (auto& b : dev) b = static_cast<uint8_t>(rng());
        for (auto& b : cfg) b = static_cast<uint8_t>(rng());
        dev[0] = 18;
        dev[1] = 1;
        if (cfg.size() >= 2) { cfg[0] = 9; cfg[1] = 2; }
        if (auto cam = UvcCamera::Create({dev, cfg})) Exercise(*cam, false);
        ++runs;
    }
    EXPECT_GT(usable, runs / 4);  // most mutations still give a (partial) camera
}
