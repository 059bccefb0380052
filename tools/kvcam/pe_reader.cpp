// kvcam's bounds-checked PE reader (see pe_reader.h).
//
// Every field is read through ByteReader, whose reads fail (instead of
// reading) when the requested bytes are not all
// present. Parsing goes header by header and stops at the first problem with
// a message naming it. Loops over file-controlled counts are bounded by the
// data present and by fixed limits, so corrupt counts cannot make them spin.
#include "pe_reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <limits>

namespace kvcam {
namespace {

// Header constants of the PE format (Microsoft's pe-format documentation).
constexpr std::uint16_t kDosMagic = 0x5A4D;               // "MZ"
constexpr std::uint32_t kPeSignature = 0x00004550;        // "PE\0\0"
constexpr std::size_t kDosLfanewOffset = 0x3C;
constexpr std::size_t kCoffHeaderSize = 20;
constexpr std::uint16_t kMagicPe32 = 0x10B;
constexpr std::uint16_t kMagicPe32Plus = 0x20B;
constexpr std::size_t kSectionHeaderSize = 40;
constexpr std::size_t kImportDescriptorSize = 20;
constexpr std::uint32_t kImportDirectoryIndex = 1;
constexpr std::uint32_t kMaxDataDirectories = 16;

// The Windows loader refuses more than 96 sections; imports get generous
// limits of our own so that corrupt tables end quickly.
constexpr std::size_t kMaxSections = 96;
constexpr std::size_t kMaxImportedModules = 4096;
constexpr std::size_t kMaxFunctionsPerModule = 65536;
constexpr std::size_t kMaxNameLength = 4096;

// Where the fields the reader uses sit in the two optional-header layouts.
struct OptionalHeaderLayout {
    std::size_t imageBase;
    std::size_t imageBaseSize;
    std::size_t numberOfRvaAndSizes;
    std::size_t dataDirectories;
    std::uint64_t ordinalFlag;
    std::size_t thunkSize;
};
constexpr OptionalHeaderLayout kPe32Layout{28, 4, 92, 96, 0x80000000ull, 4};
constexpr OptionalHeaderLayout kPe32PlusLayout{24, 8, 108, 112, 0x8000000000000000ull, 8};
// Offsets common to both layouts.
constexpr std::size_t kOptEntryPoint = 16;
constexpr std::size_t kOptSectionAlignment = 32;
constexpr std::size_t kOptFileAlignment = 36;
constexpr std::size_t kOptSizeOfImage = 56;
constexpr std::size_t kOptSizeOfHeaders = 60;
constexpr std::size_t kOptCheckSum = 64;
constexpr std::size_t kOptSubsystem = 68;
constexpr std::size_t kOptDllCharacteristics = 70;

// Little-endian reads that fail rather than read past the end.
class ByteReader {
public:
    explicit ByteReader(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

    std::size_t Size() const { return m_bytes.size(); }

    bool Has(std::size_t offset, std::size_t count) const
    {
        return offset <= m_bytes.size() && count <= m_bytes.size() - offset;
    }

    template <typename T>
    bool Read(std::size_t offset, T& value) const
    {
        if (!Has(offset, sizeof(T))) {
            return false;
        }
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < sizeof(T); ++i) {
            v |= static_cast<std::uint64_t>(m_bytes[offset + i]) << (8 * i);
        }
        value = static_cast<T>(v);
        return true;
    }

    // A NUL-terminated string starting at offset that ends before limit.
    bool ReadCString(std::size_t offset, std::size_t limit, std::string& out) const
    {
        out.clear();
        limit = std::min(limit, m_bytes.size());
        for (std::size_t i = offset; i < limit && out.size() <= kMaxNameLength; ++i) {
            if (m_bytes[i] == 0) {
                return true;
            }
            out.push_back(static_cast<char>(m_bytes[i]));
        }
        return false;
    }

private:
    std::span<const std::uint8_t> m_bytes;
};

std::string Hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// Maps an RVA to a file offset through the section table: the RVA must fall
// inside a section's raw data (already checked to lie inside the file).
// `end` receives the end of that raw data, the bound for strings and tables.
bool RvaToOffset(const std::vector<PeSection>& sections, std::uint32_t rva, std::size_t& offset, std::size_t& end)
{
    for (const PeSection& s : sections) {
        if (rva >= s.virtualAddress && rva - s.virtualAddress < s.rawSize) {
            offset = static_cast<std::size_t>(s.rawOffset) + (rva - s.virtualAddress);
            end = static_cast<std::size_t>(s.rawOffset) + s.rawSize;
            return true;
        }
    }
    return false;
}

struct Parser {
    ByteReader reader;
    PeImage image;
    std::string error;
    std::size_t optionalHeader = 0;
    std::size_t optionalHeaderSize = 0;
    const OptionalHeaderLayout* layout = nullptr;
    std::uint32_t importRva = 0;
    std::uint32_t importSize = 0;

    bool Fail(std::string message)
    {
        error = std::move(message);
        return false;
    }

    bool ParseHeaders(std::size_t& sectionTable, std::uint16_t& sectionCount)
    {
        std::uint16_t dosMagic = 0;
        if (!reader.Read(0, dosMagic) || dosMagic != kDosMagic) {
            return Fail("not a PE file: no \"MZ\" header");
        }
        std::uint32_t lfanew = 0;
        if (!reader.Read(kDosLfanewOffset, lfanew)) {
            return Fail("truncated DOS header");
        }
        std::uint32_t signature = 0;
        if (!reader.Read(lfanew, signature)) {
            return Fail("PE header offset " + Hex(lfanew) + " is past the end of the file");
        }
        if (signature != kPeSignature) {
            return Fail("not a PE file: no \"PE\" signature at " + Hex(lfanew));
        }
        std::size_t coff = static_cast<std::size_t>(lfanew) + 4;
        std::uint16_t optionalSize = 0;
        if (!reader.Has(coff, kCoffHeaderSize) || !reader.Read(coff + 0, image.machine) ||
            !reader.Read(coff + 2, sectionCount) || !reader.Read(coff + 16, optionalSize) ||
            !reader.Read(coff + 18, image.fileCharacteristics)) {
            return Fail("truncated COFF file header");
        }
        optionalHeader = coff + kCoffHeaderSize;
        optionalHeaderSize = optionalSize;
        if (!reader.Has(optionalHeader, optionalHeaderSize)) {
            return Fail("truncated optional header (" + std::to_string(optionalHeaderSize) + " bytes declared)");
        }
        if (sectionCount > kMaxSections) {
            return Fail("implausible section count " + std::to_string(sectionCount));
        }
        sectionTable = optionalHeader + optionalHeaderSize;
        return ParseOptionalHeader();
    }

    // Reads a field of the optional header, which must lie inside its
    // declared size (not merely inside the file).
    template <typename T>
    bool ReadOptional(std::size_t offset, T& value)
    {
        return offset + sizeof(T) <= optionalHeaderSize && reader.Read(optionalHeader + offset, value);
    }

    bool ParseOptionalHeader()
    {
        std::uint16_t magic = 0;
        if (!ReadOptional(0, magic)) {
            return Fail("optional header too small for its Magic field");
        }
        if (magic == kMagicPe32Plus) {
            layout = &kPe32PlusLayout;
            image.pe32Plus = true;
        } else if (magic == kMagicPe32) {
            layout = &kPe32Layout;
        } else {
            return Fail("unknown optional header Magic " + Hex(magic));
        }
        std::uint32_t imageBase32 = 0;
        std::uint32_t rvaAndSizes = 0;
        bool ok = ReadOptional(kOptEntryPoint, image.entryPointRva) &&
                  ReadOptional(kOptSectionAlignment, image.sectionAlignment) &&
                  ReadOptional(kOptFileAlignment, image.fileAlignment) &&
                  ReadOptional(kOptSizeOfImage, image.sizeOfImage) &&
                  ReadOptional(kOptSizeOfHeaders, image.sizeOfHeaders) &&
                  ReadOptional(kOptCheckSum, image.checksum) &&
                  ReadOptional(kOptSubsystem, image.subsystem) &&
                  ReadOptional(kOptDllCharacteristics, image.dllCharacteristics) &&
                  (layout->imageBaseSize == 8 ? ReadOptional(layout->imageBase, image.imageBase)
                                              : ReadOptional(layout->imageBase, imageBase32)) &&
                  ReadOptional(layout->numberOfRvaAndSizes, rvaAndSizes);
        if (!ok) {
            return Fail("optional header too small (" + std::to_string(optionalHeaderSize) + " bytes)");
        }
        if (layout->imageBaseSize == 4) {
            image.imageBase = imageBase32;
        }
        if (rvaAndSizes > kMaxDataDirectories ||
            layout->dataDirectories + std::size_t{rvaAndSizes} * 8 > optionalHeaderSize) {
            return Fail("optional header declares " + std::to_string(rvaAndSizes) +
                        " data directories, more than it holds");
        }
        if (rvaAndSizes > kImportDirectoryIndex) {
            std::size_t entry = layout->dataDirectories + kImportDirectoryIndex * 8;
            ReadOptional(entry, importRva);
            ReadOptional(entry + 4, importSize);
        }
        return true;
    }

    bool ParseSections(std::size_t table, std::uint16_t count)
    {
        if (!reader.Has(table, std::size_t{count} * kSectionHeaderSize)) {
            return Fail("truncated section table (" + std::to_string(count) + " sections declared)");
        }
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t at = table + i * kSectionHeaderSize;
            PeSection s;
            std::string rawName;
            reader.ReadCString(at, at + 8, rawName);  // an 8-character name has no NUL
            s.name = rawName.substr(0, 8);
            reader.Read(at + 8, s.virtualSize);
            reader.Read(at + 12, s.virtualAddress);
            reader.Read(at + 16, s.rawSize);
            reader.Read(at + 20, s.rawOffset);
            reader.Read(at + 36, s.characteristics);
            if (s.rawSize != 0 && !reader.Has(s.rawOffset, s.rawSize)) {
                return Fail("section " + s.name + " raw data (" + Hex(s.rawOffset) + " + " + Hex(s.rawSize) +
                            ") extends past the end of the file");
            }
            if (std::uint64_t{s.virtualAddress} + std::max(s.virtualSize, s.rawSize) >
                std::numeric_limits<std::uint32_t>::max()) {
                return Fail("section " + s.name + " wraps around the 4 GB address space");
            }
            image.sections.push_back(std::move(s));
        }
        return true;
    }

    bool ParseImportedFunctions(PeImportedModule& module, std::uint32_t thunkRva)
    {
        std::size_t at = 0;
        std::size_t end = 0;
        if (!RvaToOffset(image.sections, thunkRva, at, end)) {
            return Fail("import table of " + module.module + " at RVA " + Hex(thunkRva) + " is outside the file");
        }
        for (std::size_t n = 0;; ++n, at += layout->thunkSize) {
            if (n == kMaxFunctionsPerModule) {
                return Fail("import table of " + module.module + " has no end");
            }
            std::uint64_t thunk = 0;
            std::uint32_t thunk32 = 0;
            bool ok = at + layout->thunkSize <= end &&
                      (layout->thunkSize == 8 ? reader.Read(at, thunk) : reader.Read(at, thunk32));
            if (layout->thunkSize == 4) {
                thunk = thunk32;
            }
            if (!ok) {
                return Fail("import table of " + module.module + " runs past its section");
            }
            if (thunk == 0) {
                return true;
            }
            PeImportedFunction f;
            if (thunk & layout->ordinalFlag) {
                f.ordinal = static_cast<std::uint16_t>(thunk & 0xFFFF);
            } else if (!ParseHintName(module, static_cast<std::uint32_t>(thunk & 0x7FFFFFFF), f)) {
                return false;
            }
            module.functions.push_back(std::move(f));
        }
    }

    bool ParseHintName(const PeImportedModule& module, std::uint32_t rva, PeImportedFunction& f)
    {
        std::size_t at = 0;
        std::size_t end = 0;
        if (!RvaToOffset(image.sections, rva, at, end) || at + 2 > end || !reader.Read(at, f.hint)) {
            return Fail("imported name of " + module.module + " at RVA " + Hex(rva) + " is outside the file");
        }
        if (!reader.ReadCString(at + 2, end, f.name)) {
            return Fail("imported name of " + module.module + " at RVA " + Hex(rva) + " is not terminated");
        }
        return true;
    }

    bool ParseImports()
    {
        if (importRva == 0 || importSize == 0) {
            return true;
        }
        std::size_t at = 0;
        std::size_t end = 0;
        if (!RvaToOffset(image.sections, importRva, at, end)) {
            return Fail("import directory at RVA " + Hex(importRva) + " is outside the file");
        }
        for (std::size_t n = 0;; ++n, at += kImportDescriptorSize) {
            if (n == kMaxImportedModules) {
                return Fail("import directory has no end");
            }
            std::array<std::uint32_t, 5> d{};  // OriginalFirstThunk, TimeDateStamp, ForwarderChain, Name, FirstThunk
            if (at + kImportDescriptorSize > end) {
                return Fail("import directory runs past its section");
            }
            for (std::size_t i = 0; i < d.size(); ++i) {
                reader.Read(at + 4 * i, d[i]);
            }
            if (d == std::array<std::uint32_t, 5>{}) {
                return true;
            }
            PeImportedModule module;
            std::size_t nameAt = 0;
            std::size_t nameEnd = 0;
            if (!RvaToOffset(image.sections, d[3], nameAt, nameEnd) ||
                !reader.ReadCString(nameAt, nameEnd, module.module)) {
                return Fail("imported module name at RVA " + Hex(d[3]) + " is outside the file or not terminated");
            }
            // The lookup table (OriginalFirstThunk) keeps the names after
            // binding; old linkers leave it 0 and only fill FirstThunk.
            if (!ParseImportedFunctions(module, d[0] != 0 ? d[0] : d[4])) {
                return false;
            }
            image.imports.push_back(std::move(module));
        }
    }
};

}  // namespace

std::uint32_t ComputePeChecksum(std::span<const std::uint8_t> bytes, std::size_t checksumOffset)
{
    if (checksumOffset > bytes.size() || bytes.size() - checksumOffset < 4) {
        return 0;
    }
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        if (i >= checksumOffset && i < checksumOffset + 4) {
            continue;  // the field itself counts as zero
        }
        std::uint32_t word = bytes[i];
        if (i + 1 < bytes.size()) {
            word |= std::uint32_t{bytes[i + 1]} << 8;
        }
        sum += word;
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint32_t>(sum + bytes.size());
}

PeParseResult ParsePe(std::span<const std::uint8_t> bytes)
{
    Parser p{ByteReader(bytes), {}, {}};
    std::size_t sectionTable = 0;
    std::uint16_t sectionCount = 0;
    if (!p.ParseHeaders(sectionTable, sectionCount) || !p.ParseSections(sectionTable, sectionCount) ||
        !p.ParseImports()) {
        return {std::nullopt, p.error};
    }
    p.image.computedChecksum = ComputePeChecksum(bytes, p.optionalHeader + kOptCheckSum);
    return {std::move(p.image), {}};
}

PeParseResult ReadPeFile(const std::filesystem::path& path)
{
    // Drivers are a few hundred kilobytes; refuse anything absurd rather than
    // trying to hold it in memory.
    constexpr std::uintmax_t kMaxFileSize = 256u << 20;
    std::error_code ec;
    std::uintmax_t size = std::filesystem::file_size(path, ec);
    if (ec) {
        return {std::nullopt, "cannot open " + path.string() + ": " + ec.message()};
    }
    if (size > kMaxFileSize) {
        return {std::nullopt, "file too large for a driver (" + std::to_string(size) + " bytes)"};
    }
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    if (!in || !in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
        return {std::nullopt, "cannot read " + path.string()};
    }
    return ParsePe(bytes);
}

std::string MachineName(std::uint16_t machine)
{
    switch (machine) {
    case 0x8664: return "x86-64";
    case 0x014C: return "i386";
    case 0xAA64: return "arm64";
    case 0x01C4: return "arm";
    default: return "unknown " + Hex(machine);
    }
}

std::string SubsystemName(std::uint16_t subsystem)
{
    switch (subsystem) {
    case 1: return "native";
    case 2: return "windows-gui";
    case 3: return "windows-console";
    case 10: return "efi-application";
    case 11: return "efi-boot-service-driver";
    case 12: return "efi-runtime-driver";
    default: return "unknown " + Hex(subsystem);
    }
}

namespace {
struct FlagName {
    std::uint32_t bit;
    const char* name;
};
constexpr FlagName kSectionFlags[] = {
    {0x00000020, "code"},        {0x00000040, "initialized-data"}, {0x00000080, "uninitialized-data"},
    {0x02000000, "discardable"}, {0x08000000, "not-paged"},        {0x10000000, "shared"},
    {0x20000000, "execute"},     {0x40000000, "read"},             {0x80000000, "write"},
};
constexpr FlagName kDllFlags[] = {
    {0x0020, "high-entropy-va"}, {0x0040, "dynamic-base"}, {0x0080, "force-integrity"},
    {0x0100, "nx-compat"},       {0x0200, "no-isolation"}, {0x0400, "no-seh"},
    {0x2000, "wdm-driver"},      {0x4000, "guard-cf"},
};
template <std::size_t N>
std::vector<std::string> Names(const FlagName (&table)[N], std::uint32_t value)
{
    std::vector<std::string> names;
    for (const FlagName& f : table) {
        if (value & f.bit) {
            names.emplace_back(f.name);
        }
    }
    return names;
}
}  // namespace

std::vector<std::string> SectionFlagNames(std::uint32_t characteristics) { return Names(kSectionFlags, characteristics); }
std::vector<std::string> DllCharacteristicNames(std::uint16_t dllCharacteristics) { return Names(kDllFlags, dllCharacteristics); }

}  // namespace kvcam
