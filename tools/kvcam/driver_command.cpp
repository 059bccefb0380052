// `kvcam driver`: describes the built kvdrv.sys from its PE file (machine,
// format, subsystem, entry point, image size, sections, imports), as text or
// as JSON. The default path is the kvdrv.sys of the same build tree, passed in
// at build time as KVCAM_DEFAULT_SYS.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "commands.h"
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

// JSON string literal: quotes, backslashes and control characters escaped;
// other bytes pass through (names in a PE file are ASCII).
std::string JsonString(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char esc[8];
            std::snprintf(esc, sizeof(esc), "\\u%04x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string JsonStrings(const std::vector<std::string>& items)
{
    std::vector<std::string> quoted;
    for (const std::string& s : items) {
        quoted.push_back(JsonString(s));
    }
    return "[" + Join(quoted, ", ") + "]";
}

void PrintJson(const std::string& path, const PeImage& image)
{
    std::printf("{\n");
    std::printf("  \"path\": %s,\n", JsonString(path).c_str());
    std::printf("  \"machine\": %s,\n  \"machine_code\": %u,\n", JsonString(MachineName(image.machine)).c_str(),
                image.machine);
    std::printf("  \"format\": \"%s\",\n", image.pe32Plus ? "PE32+" : "PE32");
    std::printf("  \"subsystem\": %s,\n  \"subsystem_code\": %u,\n", JsonString(SubsystemName(image.subsystem)).c_str(),
                image.subsystem);
    std::printf("  \"entry_point_rva\": %" PRIu32 ",\n", image.entryPointRva);
    std::printf("  \"image_base\": %" PRIu64 ",\n", image.imageBase);
    std::printf("  \"size_of_image\": %" PRIu32 ",\n", image.sizeOfImage);
    std::printf("  \"checksum\": %" PRIu32 ",\n  \"checksum_state\": \"%s\",\n", image.checksum,
                ChecksumState(image).c_str());
    std::printf("  \"dll_characteristics\": %s,\n", JsonStrings(DllCharacteristicNames(image.dllCharacteristics)).c_str());
    std::printf("  \"sections\": [");
    for (std::size_t i = 0; i < image.sections.size(); ++i) {
        const PeSection& s = image.sections[i];
        std::printf("%s\n    {\"name\": %s, \"virtual_address\": %" PRIu32 ", \"virtual_size\": %" PRIu32
                    ", \"raw_offset\": %" PRIu32 ", \"raw_size\": %" PRIu32 ", \"flags\": %s}",
                    i == 0 ? "" : ",", JsonString(s.name).c_str(), s.virtualAddress, s.virtualSize, s.rawOffset,
                    s.rawSize, JsonStrings(SectionFlagNames(s.characteristics)).c_str());
    }
    std::printf("\n  ],\n  \"imports\": [");
    for (std::size_t i = 0; i < image.imports.size(); ++i) {
        const PeImportedModule& m = image.imports[i];
        std::vector<std::string> names;
        for (const PeImportedFunction& f : m.functions) {
            names.push_back(FunctionLabel(f));
        }
        std::printf("%s\n    {\"module\": %s, \"functions\": %s}", i == 0 ? "" : ",", JsonString(m.module).c_str(),
                    JsonStrings(names).c_str());
    }
    std::printf("\n  ]\n}\n");
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
        PrintJson(options.path, *result.image);
    } else {
        PrintText(options.path, *result.image);
    }
    return kExitOk;
}

}  // namespace kvcam
