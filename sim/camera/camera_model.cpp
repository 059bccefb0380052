// Parser of a camera's descriptors into its CameraModel (camera_model.h).
// One small function per descriptor kind, dispatched on type and subtype;
// each checks bLength against the fields it reads before reading them, and
// everything goes through the bounds-checked uvc::Rd* helpers as well.
#include "camera_model.h"

#include <algorithm>
#include <cstring>

#include "uvc_spec.h"

namespace kvsim::camera {

using uvc::Rd16;
using uvc::Rd32;
using uvc::Rd8;

const Frame* Format::FindFrame(uint8_t frameIndex) const {
    for (const auto& f : frames)
        if (f.index == frameIndex) return &f;
    return nullptr;
}

bool Format::IsYuy2() const {
    return kind == FormatKind::kUncompressed && std::memcmp(guid.data(), uvc::kGuidYuy2, 16) == 0;
}

const Format* StreamingInterface::FindFormat(uint8_t formatIndex) const {
    for (const auto& f : formats)
        if (f.index == formatIndex) return &f;
    return nullptr;
}

const AltSetting* StreamingInterface::FindAlternate(uint8_t alternate) const {
    for (const auto& a : alternates)
        if (a.alternate == alternate) return &a;
    return nullptr;
}

const Entity* CameraModel::FindEntity(uint8_t id) const {
    for (const auto& e : entities)
        if (e.id == id) return &e;
    return nullptr;
}

const Entity* CameraModel::FindByKind(EntityKind kind) const {
    for (const auto& e : entities)
        if (e.kind == kind) return &e;
    return nullptr;
}

const StreamingInterface* CameraModel::FindStreaming(uint8_t interfaceNumber) const {
    for (const auto& s : streaming)
        if (s.number == interfaceNumber) return &s;
    return nullptr;
}

bool CameraModel::HasInterface(uint8_t number, uint8_t alternate) const {
    return std::find(interfaces.begin(), interfaces.end(), std::make_pair(number, alternate)) !=
           interfaces.end();
}

namespace {

// State of the walk: which interface we are in and which format collects
// the frame and still descriptors that follow it.
struct Walk {
    ParseResult& out;
    uint8_t ifClass = 0, ifSubclass = 0, ifNumber = 0, ifAlternate = 0;
    int streamingIdx = -1;  // into out.model.streaming
    int formatIdx = -1;     // into that interface's formats

    CameraModel& M() { return out.model; }
    void Warn(const std::string& s) { out.warnings.push_back(s); }
    bool Need(std::span<const uint8_t> d, size_t n, const char* what) {
        if (d.size() >= n) return true;
        Warn(std::string(what) + ": bLength " + std::to_string(d.size()) + " below " + std::to_string(n));
        return false;
    }
    StreamingInterface& Streaming() {
        for (size_t i = 0; i < M().streaming.size(); ++i)
            if (M().streaming[i].number == ifNumber) { streamingIdx = static_cast<int>(i); return M().streaming[i]; }
        M().streaming.push_back(StreamingInterface{});
        M().streaming.back().number = ifNumber;
        streamingIdx = static_cast<int>(M().streaming.size() - 1);
        return M().streaming.back();
    }
    Format* CurrentFormat() {
        if (streamingIdx < 0 || formatIdx < 0) return nullptr;
        auto& fs = M().streaming[streamingIdx].formats;
        return formatIdx < static_cast<int>(fs.size()) ? &fs[formatIdx] : nullptr;
    }
};

uint64_t ReadBitmap(std::span<const uint8_t> d, size_t off, size_t size) {
    uint64_t v = 0;
    for (size_t i = 0; i < size && i < 8; ++i) v |= static_cast<uint64_t>(Rd8(d, off + i)) << (8 * i);
    return v;
}

void OnInterface(Walk& w, std::span<const uint8_t> d) {
    if (!w.Need(d, 9, "interface")) return;
    w.ifNumber = Rd8(d, 2);
    w.ifAlternate = Rd8(d, 3);
    w.ifClass = Rd8(d, 5);
    w.ifSubclass = Rd8(d, 6);
    w.M().interfaces.emplace_back(w.ifNumber, w.ifAlternate);
    w.formatIdx = -1;
    if (w.ifClass != uvc::kClassVideo) return;
    if (w.ifSubclass == uvc::kSubclassVideoControl && !w.M().controlInterface) w.M().controlInterface = w.ifNumber;
    if (w.ifSubclass == uvc::kSubclassVideoStreaming) {
        auto& s = w.Streaming();
        if (!s.FindAlternate(w.ifAlternate)) s.alternates.push_back(AltSetting{w.ifAlternate, 0, 0, 0, false});
    }
}

void OnEndpoint(Walk& w, std::span<const uint8_t> d) {
    if (!w.Need(d, 7, "endpoint")) return;
    Endpoint ep{Rd8(d, 2), Rd8(d, 3), Rd16(d, 4), Rd8(d, 6)};
    if (w.ifClass != uvc::kClassVideo) return;
    if (w.ifSubclass == uvc::kSubclassVideoControl && (ep.attributes & 3) == 3 && (ep.address & 0x80) &&
        !w.M().interruptEndpoint)
        w.M().interruptEndpoint = ep;
    if (w.ifSubclass == uvc::kSubclassVideoStreaming) {
        auto& s = w.Streaming();
        for (auto& a : s.alternates) {
            if (a.alternate != w.ifAlternate || a.endpointAddress != 0) continue;
            a.endpointAddress = ep.address;
            a.wMaxPacketSize = ep.wMaxPacketSize;
            a.isochronous = (ep.attributes & 3) == 1;
            a.capacity = a.isochronous ? uvc::IsoCapacity(ep.wMaxPacketSize) : (ep.wMaxPacketSize & 0x7FF);
        }
    }
}

void OnVideoControl(Walk& w, std::span<const uint8_t> d) {
    uint8_t sub = Rd8(d, 2);
    auto& m = w.M();
    Entity e;
    switch (sub) {
    case uvc::kVcHeader:
        if (!w.Need(d, 12, "VC header")) return;
        m.bcdUvc = Rd16(d, 3);
        m.clockFrequency = Rd32(d, 7);
        return;
    case uvc::kVcInputTerminal:
        if (!w.Need(d, 8, "input terminal")) return;
        e.id = Rd8(d, 3);
        e.terminalType = Rd16(d, 4);
        e.kind = EntityKind::kInputTerminal;
        if (e.terminalType == uvc::kIttCamera) {
            if (!w.Need(d, 15, "camera terminal")) return;
            e.kind = EntityKind::kCameraTerminal;
            uint8_t n = Rd8(d, 14);
            e.controls = ReadBitmap(d, 15, std::min<size_t>(n, d.size() > 15 ? d.size() - 15 : 0));
        }
        break;
    case uvc::kVcOutputTerminal:
        if (!w.Need(d, 9, "output terminal")) return;
        e.id = Rd8(d, 3);
        e.terminalType = Rd16(d, 4);
        e.kind = EntityKind::kOutputTerminal;
        break;
    case uvc::kVcSelectorUnit:
        if (!w.Need(d, 5, "selector unit")) return;
        e.id = Rd8(d, 3);
        e.kind = EntityKind::kSelectorUnit;
        break;
    case uvc::kVcProcessingUnit: {
        if (!w.Need(d, 8, "processing unit")) return;
        e.id = Rd8(d, 3);
        e.kind = EntityKind::kProcessingUnit;
        uint8_t n = Rd8(d, 7);
        e.controls = ReadBitmap(d, 8, std::min<size_t>(n, d.size() - 8));
        break;
    }
    case uvc::kVcExtensionUnit: {
        if (!w.Need(d, 24, "extension unit")) return;
        e.id = Rd8(d, 3);
        e.kind = EntityKind::kExtensionUnit;
        for (size_t i = 0; i < 16; ++i) e.guid[i] = Rd8(d, 4 + i);
        e.numControls = Rd8(d, 20);
        size_t p = Rd8(d, 21);
        size_t sizeAt = 22 + p;
        if (!w.Need(d, sizeAt + 1, "extension unit sources")) return;
        size_t n = Rd8(d, sizeAt);
        e.controls = ReadBitmap(d, sizeAt + 1, std::min(n, d.size() - sizeAt - 1));
        break;
    }
    default:
        return;
    }
    if (e.id == 0 || m.FindEntity(e.id)) {
        w.Warn("VC entity with id 0 or a duplicate id " + std::to_string(e.id) + " skipped");
        return;
    }
    m.entities.push_back(e);
}

void ReadFrame(Walk& w, std::span<const uint8_t> d, Format& f, bool frameBased) {
    // Uncompressed/MJPEG: dwMaxVideoFrameBufferSize 17, default 21, type 25,
    // intervals 26. Frame based: default 17, type 21, dwBytesPerLine 22, 26.
    if (!w.Need(d, 26, "frame")) return;
    Frame fr;
    fr.index = Rd8(d, 3);
    fr.width = Rd16(d, 5);
    fr.height = Rd16(d, 7);
    fr.minBitRate = Rd32(d, 9);
    fr.maxBitRate = Rd32(d, 13);
    fr.maxFrameBufferSize = frameBased ? 0 : Rd32(d, 17);
    fr.defaultInterval = Rd32(d, frameBased ? 17 : 21);
    uint8_t type = Rd8(d, frameBased ? 21 : 25);
    size_t count = type == 0 ? 3 : type;
    if (!w.Need(d, 26 + 4 * count, "frame intervals")) return;
    fr.continuous = type == 0;
    for (size_t i = 0; i < count; ++i) fr.intervals.push_back(Rd32(d, 26 + 4 * i));
    if (fr.index == 0 || f.FindFrame(fr.index)) {
        w.Warn("frame with index 0 or a duplicate index skipped");
        return;
    }
    f.frames.push_back(std::move(fr));
}

void OnVideoStreaming(Walk& w, std::span<const uint8_t> d) {
    uint8_t sub = Rd8(d, 2);
    auto& s = w.Streaming();
    switch (sub) {
    case uvc::kVsInputHeader:
        if (w.Need(d, 13, "VS input header")) s.endpointAddress = Rd8(d, 6);
        return;
    case uvc::kVsFormatUncompressed:
    case uvc::kVsFormatFrameBased:
    case uvc::kVsFormatMjpeg: {
        if (!w.Need(d, sub == uvc::kVsFormatMjpeg ? 11 : 23, "format")) return;
        Format f;
        f.index = Rd8(d, 3);
        if (sub == uvc::kVsFormatMjpeg) {
            f.kind = FormatKind::kMjpeg;
            f.defaultFrameIndex = Rd8(d, 6);
        } else {
            f.kind = sub == uvc::kVsFormatUncompressed ? FormatKind::kUncompressed : FormatKind::kFrameBased;
            for (size_t i = 0; i < 16; ++i) f.guid[i] = Rd8(d, 5 + i);
            f.bitsPerPixel = Rd8(d, 21);
            f.defaultFrameIndex = Rd8(d, 22);
        }
        if (f.index == 0 || s.FindFormat(f.index)) {
            w.Warn("format with index 0 or a duplicate index skipped");
            w.formatIdx = -1;
            return;
        }
        s.formats.push_back(f);
        w.formatIdx = static_cast<int>(s.formats.size() - 1);
        return;
    }
    case uvc::kVsFrameUncompressed:
    case uvc::kVsFrameMjpeg:
    case uvc::kVsFrameFrameBased: {
        Format* f = w.CurrentFormat();
        FormatKind want = sub == uvc::kVsFrameUncompressed ? FormatKind::kUncompressed
                        : sub == uvc::kVsFrameMjpeg        ? FormatKind::kMjpeg
                                                           : FormatKind::kFrameBased;
        if (!f || f->kind != want) {
            w.Warn("frame descriptor without a matching format skipped");
            return;
        }
        ReadFrame(w, d, *f, sub == uvc::kVsFrameFrameBased);
        return;
    }
    case uvc::kVsStillImageFrame: {
        Format* f = w.CurrentFormat();
        if (!f || !w.Need(d, 5, "still image frame")) return;
        size_t n = Rd8(d, 4);
        if (!w.Need(d, 5 + 4 * n, "still image sizes")) return;
        for (size_t i = 0; i < n; ++i) f->stills.push_back(StillSize{Rd16(d, 5 + 4 * i), Rd16(d, 7 + 4 * i)});
        return;
    }
    default:
        return;
    }
}

}  // namespace

ParseResult ParseCameraModel(std::span<const uint8_t> dev, std::span<const uint8_t> cfg) {
    ParseResult r;
    Walk w{r};
    auto& m = r.model;
    if (dev.size() < 18 || Rd8(dev, 0) < 18 || Rd8(dev, 1) != uvc::kDescDevice) {
        r.warnings.push_back("device descriptor missing or malformed");
        return r;
    }
    m.bcdUsb = Rd16(dev, 2);
    m.maxPacketSize0 = Rd8(dev, 7);
    m.idVendor = Rd16(dev, 8);
    m.idProduct = Rd16(dev, 10);
    m.numConfigurations = Rd8(dev, 17);
    if (cfg.size() < 9 || Rd8(cfg, 0) < 9 || Rd8(cfg, 1) != uvc::kDescConfiguration) {
        r.warnings.push_back("configuration descriptor missing or malformed");
        return r;
    }
    m.totalLength = Rd16(cfg, 2);
    m.numInterfaces = Rd8(cfg, 4);
    m.configurationValue = Rd8(cfg, 5);
    m.configAttributes = Rd8(cfg, 7);
    if (m.totalLength < 9) {
        r.warnings.push_back("wTotalLength below 9");
        return r;
    }
    size_t end = std::min<size_t>(m.totalLength, cfg.size());
    if (end < m.totalLength) r.warnings.push_back("configuration descriptor shorter than wTotalLength");
    size_t pos = Rd8(cfg, 0);
    while (pos + 2 <= end) {
        size_t len = cfg[pos];
        if (len < 2 || pos + len > end) {
            r.warnings.push_back("descriptor at " + std::to_string(pos) + " with bLength " + std::to_string(len) +
                                 " ends the walk");
            break;
        }
        auto d = cfg.subspan(pos, len);
        switch (d[1]) {
        case uvc::kDescInterface: OnInterface(w, d); break;
        case uvc::kDescEndpoint: OnEndpoint(w, d); break;
        case uvc::kDescCsInterface:
            if (len >= 3 && w.ifClass == uvc::kClassVideo && w.ifSubclass == uvc::kSubclassVideoControl)
                OnVideoControl(w, d);
            else if (len >= 3 && w.ifClass == uvc::kClassVideo && w.ifSubclass == uvc::kSubclassVideoStreaming)
                OnVideoStreaming(w, d);
            break;
        default: break;
        }
        pos += len;
    }
    r.ok = true;
    return r;
}

}  // namespace kvsim::camera
