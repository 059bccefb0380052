// kvcam's reader of Portable Executable images (kvdrv.sys and friends).
//
// A small, bounds-checked reader of what `kvcam driver` shows: the file and
// optional headers, the section table and the import directory. Every read is
// checked against the bytes actually present, so a truncated or corrupted
// file gives an error message and never a read outside the buffer.
// Layouts follow Microsoft's PE format documentation:
// https://learn.microsoft.com/windows/win32/debug/pe-format
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvcam {

struct PeSection {
    std::string name;              // up to 8 characters
    std::uint32_t virtualAddress = 0;
    std::uint32_t virtualSize = 0;
    std::uint32_t rawOffset = 0;   // PointerToRawData
    std::uint32_t rawSize = 0;     // SizeOfRawData
    std::uint32_t characteristics = 0;
};

struct PeImportedFunction {
    std::string name;              // empty when imported by ordinal
    std::uint16_t hint = 0;        // name imports: index hint into the export table
    std::optional<std::uint16_t> ordinal;
};

struct PeImportedModule {
    std::string module;            // as written in the image, e.g. "ntoskrnl.exe"
    std::vector<PeImportedFunction> functions;
};

struct PeImage {
    std::uint16_t machine = 0;               // IMAGE_FILE_MACHINE_*
    std::uint16_t fileCharacteristics = 0;   // IMAGE_FILE_*
    bool pe32Plus = false;                   // optional-header Magic 0x20b
    std::uint64_t imageBase = 0;
    std::uint32_t entryPointRva = 0;
    std::uint32_t sizeOfImage = 0;
    std::uint32_t sizeOfHeaders = 0;
    std::uint32_t sectionAlignment = 0;
    std::uint32_t fileAlignment = 0;
    std::uint32_t checksum = 0;              // as stored in the optional header
    std::uint32_t computedChecksum = 0;      // recomputed over the file
    std::uint16_t subsystem = 0;             // IMAGE_SUBSYSTEM_*
    std::uint16_t dllCharacteristics = 0;    // IMAGE_DLLCHARACTERISTICS_*
    std::vector<PeSection> sections;
    std::vector<PeImportedModule> imports;
};

// Either an image or a one-line description of what is wrong with the file.
struct PeParseResult {
    std::optional<PeImage> image;
    std::string error;
};

PeParseResult ParsePe(std::span<const std::uint8_t> bytes);
PeParseResult ReadPeFile(const std::filesystem::path& path);

// The PE checksum algorithm (16-bit one's-complement-style sum of the file
// with the checksum field taken as zero, plus the file length). Returns 0 when
// the file is too short to hold the field at checksumOffset.
std::uint32_t ComputePeChecksum(std::span<const std::uint8_t> bytes, std::size_t checksumOffset);

// Display names; unknown values come back as hex.
std::string MachineName(std::uint16_t machine);
std::string SubsystemName(std::uint16_t subsystem);
std::vector<std::string> SectionFlagNames(std::uint32_t characteristics);
std::vector<std::string> DllCharacteristicNames(std::uint16_t dllCharacteristics);

}  // namespace kvcam
