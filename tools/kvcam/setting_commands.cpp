// `kvcam get NAME|0xID`, `kvcam set NAME|0xID VALUE` and `kvcam controls`:
// settings read or written through the driver-control tunnel of the capture
// filter, exactly as an application does, by the registry name a setting is
// persisted under ("Brightness", "SelfTimer", "SpecialEffectNo", ...) or by
// its PropertyId.
#include <charconv>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "capture_offers.h"
#include "commands.h"
#include "controls/requests.h"
#include "controls/settings.h"
#include "json.h"
#include "system_options.h"
#include "tunnel.h"

namespace kvcam {
namespace {

struct Setting {
    USHORT id = 0;
    std::string name;  // the registry name, or the id in hexadecimal
};

std::u16string Wide(std::string_view text) { return std::u16string(text.begin(), text.end()); }

std::string Narrow(PCWSTR text)
{
    std::string out;
    for (; text != nullptr && *text != 0; ++text) out += static_cast<char>(*text);
    return out;
}

std::string Hex(USHORT id)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", id);
    return text;
}

// NAME or 0xID; an empty name when it is neither.
std::optional<Setting> ParseSetting(std::string_view text)
{
    Setting s;
    if (text.size() > 2 && (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X")) {
        unsigned value = 0;
        auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
        if (error != std::errc() || end != text.data() + text.size() || value > 0xFFFF) return std::nullopt;
        s.id = static_cast<USHORT>(value);
        PCWSTR name = SettingName(s.id);
        s.name = name != nullptr ? Narrow(name) : Hex(s.id);
        return s;
    }
    const std::u16string wide = Wide(text);
    if (!SettingIdForName(reinterpret_cast<PCWSTR>(wide.c_str()), &s.id)) return std::nullopt;
    s.name = std::string(text);
    return s;
}

// What the settings record holds, camera controls first.
std::vector<SettingSlotId> SlotIds()
{
    std::vector<SettingSlotId> ids(ListSettingIds(nullptr, 0));
    ListSettingIds(ids.data(), ULONG(ids.size()));
    return ids;
}

std::optional<SettingSlotId> FindSlotId(USHORT id)
{
    for (const SettingSlotId& s : SlotIds()) {
        if (s.Id == id) return s;
    }
    return std::nullopt;
}

// Whether the camera has a camera control, by its unit's bmControls as the
// driver reports them (0x0608 processing unit, 0x0609 camera terminal).
bool CameraHas(kvharness::Tunnel& tunnel, const SettingSlotId& s)
{
    const USHORT bitmapId = s.Entity == UVC_ENTITY_CAMERA_TERMINAL ? PROPID_CT_BITMAP : PROPID_PU_BITMAP;
    return (static_cast<ULONG>(tunnel.Read(bitmapId)) & s.ControlMask) != 0;
}

struct Range {
    LONG minimum = 0;
    LONG maximum = 0;
    LONG resolution = 0;
    LONG defaultValue = 0;
};

Range ReadRange(kvharness::Tunnel& tunnel, USHORT id)
{
    using kvharness::TunnelRequest;
    return {tunnel.Read(id, TunnelRequest::Minimum), tunnel.Read(id, TunnelRequest::Maximum),
            tunnel.Read(id, TunnelRequest::Resolution), tunnel.Read(id, TunnelRequest::Default)};
}

// The driver loads its saved settings ("\Property\Last") when a stream is
// set up, and saves them when it is torn down; a value set before a stream
// would be overwritten by the load. So with a registry file kvcam works as
// an application's settings page does beside a preview: the capture pin
// runs (until its first frame, when the driver takes controls again), the
// settings are read or written, and the pin stops, which saves them.
class PreviewSession {
public:
    explicit PreviewSession(kvharness::System& system) : system_(system) {}
    ~PreviewSession()
    {
        if (!pin_) return;
        pin_->SetState(KSSTATE_STOP);
        pin_->CollectFrames();
        pin_->Close();
    }
    PreviewSession(const PreviewSession&) = delete;
    PreviewSession& operator=(const PreviewSession&) = delete;

    bool Start()
    {
        const auto offers = kvharness::CaptureOffers(*system_.filter());
        if (offers.empty()) return false;
        kvharness::CaptureOffer offer = offers.front();
        if (system_.filter()->CreatePin(KV_PIN_CAPTURE, &offer.format.DataFormat, &pin_) != STATUS_SUCCESS) {
            return false;
        }
        if (pin_->SetState(KSSTATE_RUN) != STATUS_SUCCESS) return false;
        pin_->QueueBuffers(2, offer.ImageSize());
        return pin_->WaitForFrames(1, 10 * 10'000'000LL);
    }

private:
    kvharness::System& system_;
    std::unique_ptr<kvsim::client::Pin> pin_;
};

// Starts the preview when the settings are kept in a registry file.
bool StartPreviewIfSaved(PreviewSession& preview, const ParsedSystemOptions& options, const char* command)
{
    if (options.system.registryFile.empty() || preview.Start()) return true;
    std::fprintf(stderr, "kvcam %s: the capture pin did not deliver a frame, so the saved settings are not in effect\n",
                 command);
    return false;
}

struct Parsed {
    ParsedSystemOptions system;
    Setting setting;
    std::optional<LONG> value;
    bool json = false;
};

// The positional arguments after the system options: the setting, and for
// set its value (the tunnel carries 16-bit values).
Parsed Parse(std::span<const std::string_view> args, bool withValue)
{
    Parsed p{ParseSystemOptions(args), {}, std::nullopt, false};
    std::vector<std::string_view> positional;
    for (std::string_view a : p.system.rest) {
        if (a == "--json") {
            p.json = true;
        } else {
            positional.push_back(a);
        }
    }
    if (!p.system.error.empty()) return p;
    if (positional.size() != (withValue ? 2u : 1u)) {
        p.system.error = withValue ? "expected a setting and a value" : "expected one setting";
        return p;
    }
    auto setting = ParseSetting(positional[0]);
    if (!setting) {
        p.system.error = "unknown setting '" + std::string(positional[0]) + "' (a registry name or 0xID)";
        return p;
    }
    p.setting = *setting;
    if (withValue) {
        long value = 0;
        const std::string_view v = positional[1];
        auto [end, error] = std::from_chars(v.data(), v.data() + v.size(), value);
        if (error != std::errc() || end != v.data() + v.size() || value < -32768 || value > 32767) {
            p.system.error = "value '" + std::string(v) + "' is not a number in -32768..32767";
            return p;
        }
        p.value = static_cast<LONG>(value);
    }
    return p;
}

void Print(const Setting& s, LONG value, bool json)
{
    if (json) {
        Json j;
        j["name"] = s.name;
        j["id"] = Hex(s.id);
        j["value"] = value;
        std::printf("%s\n", JsonText(j).c_str());
    } else {
        std::printf("%s (%s) = %d\n", s.name.c_str(), Hex(s.id).c_str(), static_cast<int>(value));
    }
}

// A camera control's value outside the range the camera reports is refused
// before it is sent, as an application's slider would: the driver keeps
// whatever it is given in its record even when the camera stalls the
// request. False (with the message printed) when the value may not be set.
bool CheckCameraRange(kvharness::Tunnel& tunnel, const Setting& setting, LONG value)
{
    const auto slot = FindSlotId(setting.id);
    if (!slot || slot->Entity == 0) return true;
    if (!CameraHas(tunnel, *slot)) {
        std::fprintf(stderr, "kvcam set: the camera has no %s control\n", setting.name.c_str());
        return false;
    }
    const Range range = ReadRange(tunnel, setting.id);
    if (value < range.minimum || value > range.maximum) {
        std::fprintf(stderr, "kvcam set: %d is out of range for %s: the camera takes %d..%d\n",
                     static_cast<int>(value), setting.name.c_str(), static_cast<int>(range.minimum),
                     static_cast<int>(range.maximum));
        return false;
    }
    return true;
}

int Run(const char* command, const Parsed& p)
{
    return RunOnSystem(command, p.system, [&](kvharness::System& system) {
        if (!system.started() || system.OpenFilter() != STATUS_SUCCESS) {
            std::fprintf(stderr, "kvcam %s: the device did not start\n", command);
            return false;
        }
        PreviewSession preview(system);
        if (!StartPreviewIfSaved(preview, p.system, command)) return false;
        kvharness::Tunnel tunnel(*system.filter());
        if (p.value) {
            if (!CheckCameraRange(tunnel, p.setting, *p.value)) return false;
            const NTSTATUS status = tunnel.Write(p.setting.id, *p.value);
            if (status != STATUS_SUCCESS) {
                std::fprintf(stderr, "kvcam set: the driver refused %s (0x%08X)\n", p.setting.name.c_str(),
                             static_cast<unsigned>(status));
                return false;
            }
        }
        NTSTATUS status = STATUS_SUCCESS;
        const LONG value = tunnel.Read(p.setting.id, kvharness::TunnelRequest::Current, &status);
        if (status != STATUS_SUCCESS) {
            std::fprintf(stderr, "kvcam %s: reading %s failed (0x%08X)\n", command, p.setting.name.c_str(),
                         static_cast<unsigned>(status));
            return false;
        }
        Print(p.setting, value, p.json);
        // The tunnel's set succeeds whatever the driver did with the value:
        // one it did not take (out of its range) shows in the read-back.
        if (p.value && value != *p.value) {
            std::fprintf(stderr, "kvcam set: %s kept %d; the driver did not take %d\n", p.setting.name.c_str(),
                         static_cast<int>(value), static_cast<int>(*p.value));
            return false;
        }
        return true;
    });
}

// ---- kvcam controls ----

struct ControlRow {
    SettingSlotId slot;
    std::string name;  // the registry name; empty when the id is not persisted
    bool present = true;
    LONG current = 0;
    std::optional<Range> range;  // camera controls the camera has
};

std::vector<ControlRow> ReadControls(kvharness::Tunnel& tunnel)
{
    std::vector<ControlRow> rows;
    for (const SettingSlotId& s : SlotIds()) {
        ControlRow row;
        row.slot = s;
        PCWSTR name = SettingName(s.Id);
        row.name = name != nullptr ? Narrow(name) : "";
        if (s.Entity != 0) {
            row.present = CameraHas(tunnel, s);
            if (row.present) row.range = ReadRange(tunnel, s.Id);
        }
        if (row.present) row.current = tunnel.Read(s.Id);
        rows.push_back(row);
    }
    return rows;
}

void PrintControls(const std::vector<ControlRow>& rows, bool json)
{
    if (json) {
        Json list = Json::array();
        for (const ControlRow& r : rows) {
            Json o;
            o["id"] = Hex(r.slot.Id);
            o["name"] = r.name.empty() ? Json() : Json(r.name);
            o["camera_control"] = r.slot.Entity != 0;
            o["present"] = r.present;
            if (r.present) o["current"] = r.current;
            if (r.range) {
                o["minimum"] = r.range->minimum;
                o["maximum"] = r.range->maximum;
                o["resolution"] = r.range->resolution;
                o["default"] = r.range->defaultValue;
            }
            list.push_back(o);
        }
        std::printf("%s\n", JsonText(list).c_str());
        return;
    }
    std::printf("%-22s %-7s %8s %8s %8s %6s %8s\n", "setting", "id", "current", "minimum", "maximum", "step",
                "default");
    for (const ControlRow& r : rows) {
        const char* name = r.name.empty() ? "-" : r.name.c_str();
        if (!r.present) {
            std::printf("%-22s %-7s %8s   (the camera does not have it)\n", name, Hex(r.slot.Id).c_str(), "absent");
        } else if (r.range) {
            std::printf("%-22s %-7s %8d %8d %8d %6d %8d\n", name, Hex(r.slot.Id).c_str(), int(r.current),
                        int(r.range->minimum), int(r.range->maximum), int(r.range->resolution),
                        int(r.range->defaultValue));
        } else {
            std::printf("%-22s %-7s %8d\n", name, Hex(r.slot.Id).c_str(), int(r.current));
        }
    }
}

}  // namespace

bool SettingIdFromText(std::string_view text, uint16_t* id)
{
    const auto setting = ParseSetting(text);
    if (setting) *id = setting->id;
    return setting.has_value();
}

void PrintGetHelp()
{
    std::printf("usage: kvcam get NAME|0xID [system options] [--json]\n\n"
                "Reads one setting through the capture filter's driver-control property, as an application\n"
                "does: by the registry name it is persisted under (Brightness, Contrast, Hue, SelfTimer,\n"
                "SpecialEffectNo, ...) or by its id. The driver loads its saved settings when a stream starts,\n"
                "so with --registry the setting is read while the capture pin runs.\n\n%s",
                kSystemOptionsHelp);
}

void PrintSetHelp()
{
    std::printf("usage: kvcam set NAME|0xID VALUE [system options] [--json]\n\n"
                "Writes one setting (-32768..32767) through the capture filter's driver-control property and\n"
                "reads it back. A camera control's value must lie in the range the camera reports. Exit code 1\n"
                "when the value is out of range or the driver did not take it. The driver loads its saved\n"
                "settings when a stream starts and saves them when it stops, so with --registry the value is\n"
                "set while the capture pin runs, as beside a preview, and is there at the next run.\n\n%s",
                kSystemOptionsHelp);
}

void PrintControlsHelp()
{
    std::printf("usage: kvcam controls [system options] [--json]\n\n"
                "Lists every setting of the driver's record as an application reads it through the capture\n"
                "filter's driver-control property: its registry name, its id and current value, and for the\n"
                "camera's own controls the minimum, maximum, step and default the camera reports. A camera\n"
                "control the camera does not have is shown as absent. With --registry the settings are read\n"
                "while the capture pin runs, after the driver has loaded its saved settings.\n\n%s",
                kSystemOptionsHelp);
}

int RunControlsCommand(std::span<const std::string_view> args)
{
    ParsedSystemOptions parsed = ParseSystemOptions(args);
    const bool json = TakeJsonOnly(parsed);
    return RunOnSystem("controls", parsed, [json, &parsed](kvharness::System& system) {
        if (!system.started() || system.OpenFilter() != STATUS_SUCCESS) {
            std::fprintf(stderr, "kvcam controls: the device did not start\n");
            return false;
        }
        PreviewSession preview(system);
        if (!StartPreviewIfSaved(preview, parsed, "controls")) return false;
        kvharness::Tunnel tunnel(*system.filter());
        PrintControls(ReadControls(tunnel), json);
        return true;
    });
}

int RunGetCommand(std::span<const std::string_view> args) { return Run("get", Parse(args, false)); }

int RunSetCommand(std::span<const std::string_view> args) { return Run("set", Parse(args, true)); }

}  // namespace kvcam
