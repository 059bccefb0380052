// `kvcam driver`: describes the built kvdrv.sys from its PE file (machine,
// format, subsystem, entry point, image size, sections, imports), as text or
// as JSON (the same layout as kvcam's other --json output, json.h). The
// default path is the kvdrv.sys of the same build tree, passed in
// at build time as KVCAM_DEFAULT_SYS.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "commands.h"
#include "json.h"
#include "pe_reader.h"

#ifndef KVCAM_DEFAULT_SYS
#define KVCAM_DEFAULT_SYS "kvdrv.sys"
#endif

namespace kvcam {
namespace {

struct DriverOptions {
    std::string path = KVCAM_DEFAULT_SYS;
    bool json = false;
};

std::string Join(const std::vector<std::string>& items, const char* separator)
{
    std::string out;
    for (const std::string& s : items) {
        out += out.empty() ? "" : separator;
        out += s;
    }
    return out;
}

std::string FunctionLabel(const PeImportedFunction& f)
{
    return f.ordinal ? "#" + std::to_string(*f.ordinal) : f.name;
}

std::string ChecksumState(const PeImage& image)
{
    if (image.checksum == 0) {
        return "not set";
    }
    return image.checksum == image.computedChecksum ? "valid" : "invalid";
}

void PrintText(const std::string& path, const PeImage& image)
{
    std::printf("%s\n", path.c_str());
    std::printf("  machine       %s (0x%04x)\n", MachineName(image.machine).c_str(), image.machine);
    std::printf("  format        %s\n", image.pe32Plus ? "PE32+" : "PE32");
    std::printf("  subsystem     %s (%u)\n", SubsystemName(image.subsystem).c_str(), image.subsystem);
    std::printf("  entry point   RVA 0x%" PRIx32 "\n", image.entryPointRva);
    std::printf("  image base    0x%" PRIx64 "\n", image.imageBase);
    std::printf("  image size    0x%" PRIx32 " (%" PRIu32 " bytes)\n", image.sizeOfImage, image.sizeOfImage);
    std::printf("  checksum      0x%08" PRIx32 " (%s)\n", image.checksum, ChecksumState(image).c_str());
    std::printf("  dll flags     %s\n", Join(DllCharacteristicNames(image.dllCharacteristics), ", ").c_str());
    std::printf("  sections (%zu):\n", image.sections.size());
    for (const PeSection& s : image.sections) {
        std::printf("    %-8s RVA 0x%06" PRIx32 "  size 0x%06" PRIx32 "  raw 0x%06" PRIx32 "  %s\n", s.name.c_str(),
                    s.virtualAddress, s.virtualSize, s.rawSize, Join(SectionFlagNames(s.characteristics), ",").c_str());
    }
    std::printf("  imports (%zu modules):\n", image.imports.size());
    for (const PeImportedModule& m : image.imports) {
        std::printf("    %s (%zu)\n", m.module.c_str(), m.functions.size());
        for (const PeImportedFunction& f : m.functions) {
            std::printf("      %s\n", FunctionLabel(f).c_str());
        }
    }
}

Json Strings(const std::vector<std::string>& items)
{
    Json array = Json::array();
    for (const std::string& s : items) {
        array.push_back(s);
    }
    return array;
}

Json ImageJson(const std::string& path, const PeImage& image)
{
    Json o = Json::object();
    o["path"] = path;
    o["machine"] = MachineName(image.machine);
    o["machine_code"] = image.machine;
    o["format"] = image.pe32Plus ? "PE32+" : "PE32";
    o["subsystem"] = SubsystemName(image.subsystem);
    o["subsystem_code"] = image.subsystem;
    o["entry_point_rva"] = image.entryPointRva;
    o["image_base"] = image.imageBase;
    o["size_of_image"] = image.sizeOfImage;
    o["checksum"] = image.checksum;
    o["checksum_state"] = ChecksumState(image);
    o["dll_characteristics"] = Strings(DllCharacteristicNames(image.dllCharacteristics));
    Json sections = Json::array();
    for (const PeSection& s : image.sections) {
        Json section = Json::object();
        section["name"] = s.name;
        section["virtual_address"] = s.virtualAddress;
        section["virtual_size"] = s.virtualSize;
        section["raw_offset"] = s.rawOffset;
        section["raw_size"] = s.rawSize;
        section["flags"] = Strings(SectionFlagNames(s.characteristics));
        sections.push_back(std::move(section));
    }
    o["sections"] = std::move(sections);
    Json imports = Json::array();
    for (const PeImportedModule& m : image.imports) {
        std::vector<std::string> names;
        for (const PeImportedFunction& f : m.functions) {
            names.push_back(FunctionLabel(f));
        }
        Json module = Json::object();
        module["module"] = m.module;
        module["functions"] = Strings(names);
        imports.push_back(std::move(module));
    }
    o["imports"] = std::move(imports);
    return o;
}

bool ParseOptions(std::span<const std::string_view> args, DriverOptions& options)
{
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view a = args[i];
        if (a == "--json") {
            options.json = true;
        } else if (a == "--sys" && i + 1 < args.size()) {
            options.path = std::string(args[++i]);
        } else if (a.starts_with("--sys=")) {
            options.path = std::string(a.substr(6));
        } else if ((a == "--seed" || a == "--trace") && i + 1 < args.size()) {
            // Accepted as on every command; reading a file runs no simulation,
            // so there is nothing to seed or trace.
            ++i;
        } else {
            std::fprintf(stderr, "kvcam driver: unexpected argument '%.*s' (try kvcam driver --help)\n",
                         static_cast<int>(a.size()), a.data());
            return false;
        }
    }
    return true;
}

}  // namespace

void PrintDriverHelp()
{
    std::printf("usage: kvcam driver [--sys PATH] [--json]\n\n"
                "Describes a built kvdrv.sys from its PE headers: machine, PE32/PE32+, subsystem,\n"
                "entry point, image size, checksum, sections and imported functions per module.\n\n"
                "  --sys PATH   the driver file (default: %s)\n"
                "  --json       print one JSON object instead of text\n",
                KVCAM_DEFAULT_SYS);
}

int RunDriverCommand(std::span<const std::string_view> args)
{
    DriverOptions options;
    if (!ParseOptions(args, options)) {
        return kExitUsage;
    }
    PeParseResult result = ReadPeFile(options.path);
    if (!result.image) {
        std::fprintf(stderr, "kvcam driver: %s: %s\n", options.path.c_str(), result.error.c_str());
        return kExitFailure;
    }
    if (options.json) {
        std::fputs((JsonText(ImageJson(options.path, *result.image)) + "\n").c_str(), stdout);
    } else {
        PrintText(options.path, *result.image);
    }
    return kExitOk;
}

}  // namespace kvcam
