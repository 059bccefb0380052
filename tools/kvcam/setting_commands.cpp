// `kvcam get NAME|0xID` and `kvcam set NAME|0xID VALUE`: one setting read or
// written through the driver-control tunnel of the capture filter, exactly
// as an application does, by the registry name it is persisted under
// ("Brightness", "SelfTimer", "SpecialEffectNo", ...) or by its PropertyId.
#include <charconv>
#include <cstdio>
#include <string>

#include "commands.h"
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

int Run(const char* command, const Parsed& p)
{
    return RunOnSystem(command, p.system, [&](kvharness::System& system) {
        if (!system.started() || system.OpenFilter() != STATUS_SUCCESS) {
            std::fprintf(stderr, "kvcam %s: the device did not start\n", command);
            return false;
        }
        kvharness::Tunnel tunnel(*system.filter());
        if (p.value) {
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
        // The tunnel's set succeeds whatever the camera answered: a value
        // that did not take shows in the read-back.
        if (p.value && value != *p.value) {
            std::fprintf(stderr, "kvcam set: %s kept %d; the driver or the camera did not take %d\n",
                         p.setting.name.c_str(), static_cast<int>(value), static_cast<int>(*p.value));
            return false;
        }
        return true;
    });
}

}  // namespace

void PrintGetHelp()
{
    std::printf("usage: kvcam get NAME|0xID [system options] [--json]\n\n"
                "Reads one setting through the capture filter's driver-control property, as an application\n"
                "does: by the registry name it is persisted under (Brightness, Contrast, Hue, SelfTimer,\n"
                "SpecialEffectNo, ...) or by its id.\n\n%s",
                kSystemOptionsHelp);
}

void PrintSetHelp()
{
    std::printf("usage: kvcam set NAME|0xID VALUE [system options] [--json]\n\n"
                "Writes one setting (-32768..32767) through the capture filter's driver-control property and\n"
                "reads it back; exit code 1 when the driver or the camera did not take the value.\n\n%s",
                kSystemOptionsHelp);
}

int RunGetCommand(std::span<const std::string_view> args) { return Run("get", Parse(args, false)); }

int RunSetCommand(std::span<const std::string_view> args) { return Run("set", Parse(args, true)); }

}  // namespace kvcam
