// Tests of kvcam's PE reader (tools/kvcam/pe_reader.h): a small synthetic
// 64-bit native driver image is read correctly, and every truncation and a
// table of corrupted headers give an error message, never an out-of-bounds
// read (the suite runs under AddressSanitizer; each input is an exact-size
// heap buffer so that one byte too far is caught).
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "pe_reader.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Layout of the synthetic image: headers, .text at RVA 0x1000 and .idata at
// RVA 0x2000 (file offsets 0x200 and 0x400), each 0x200 bytes.
constexpr std::size_t kPeHeader = 0x40;
constexpr std::size_t kCoff = kPeHeader + 4;
constexpr std::size_t kOptional = kCoff + 20;
constexpr std::size_t kOptionalSize = 240;
constexpr std::size_t kSectionTable = kOptional + kOptionalSize;
constexpr std::size_t kTextRaw = 0x200;
constexpr std::size_t kIdataRaw = 0x400;
constexpr std::uint32_t kIdataRva = 0x2000;
constexpr std::size_t kFileSize = 0x600;

// RVAs inside .idata.
constexpr std::uint32_t kNtosLookup = 0x2040;
constexpr std::uint32_t kKsLookup = 0x2060;
constexpr std::uint32_t kNtosAddresses = 0x2080;
constexpr std::uint32_t kKsAddresses = 0x20A0;
constexpr std::uint32_t kDbgPrintName = 0x2100;
constexpr std::uint32_t kExAllocateName = 0x2110;
constexpr std::uint32_t kKsInitializeName = 0x2130;
constexpr std::uint32_t kNtosModuleName = 0x2160;
constexpr std::uint32_t kKsModuleName = 0x2170;
constexpr std::uint64_t kOrdinalFlag = 0x8000000000000000ull;

std::size_t IdataOffset(std::uint32_t rva) { return kIdataRaw + (rva - kIdataRva); }

void Put(Bytes& b, std::size_t at, std::uint64_t value, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i) {
        b.at(at + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}
void Put16(Bytes& b, std::size_t at, std::uint16_t v) { Put(b, at, v, 2); }
void Put32(Bytes& b, std::size_t at, std::uint32_t v) { Put(b, at, v, 4); }
void Put64(Bytes& b, std::size_t at, std::uint64_t v) { Put(b, at, v, 8); }
void PutString(Bytes& b, std::size_t at, const std::string& s)
{
    for (std::size_t i = 0; i < s.size(); ++i) {
        b.at(at + i) = static_cast<std::uint8_t>(s[i]);
    }
    b.at(at + s.size()) = 0;
}

void PutSection(Bytes& b, std::size_t index, const char* name, std::uint32_t rva, std::uint32_t raw,
                std::uint32_t characteristics)
{
    std::size_t at = kSectionTable + index * 40;
    PutString(b, at, name);
    Put32(b, at + 8, 0x200);  // VirtualSize
    Put32(b, at + 12, rva);
    Put32(b, at + 16, 0x200);  // SizeOfRawData
    Put32(b, at + 20, raw);
    Put32(b, at + 36, characteristics);
}

void PutHintName(Bytes& b, std::uint32_t rva, std::uint16_t hint, const std::string& name)
{
    Put16(b, IdataOffset(rva), hint);
    PutString(b, IdataOffset(rva) + 2, name);
}

void PutThunks(Bytes& b, std::uint32_t rva, const std::vector<std::uint64_t>& thunks)
{
    for (std::size_t i = 0; i < thunks.size(); ++i) {
        Put64(b, IdataOffset(rva) + 8 * i, thunks[i]);
    }
}

void StoreChecksum(Bytes& b) { Put32(b, kOptional + 64, kvcam::ComputePeChecksum(b, kOptional + 64)); }

// A minimal kvdrv.sys look-alike: x86-64, PE32+, native, importing
// DbgPrint and ExAllocatePoolWithTag from ntoskrnl.exe and ordinal 5 and
// KsInitializeDriver from ks.sys.
Bytes MakeDriverImage()
{
    Bytes b(kFileSize, 0);
    PutString(b, 0, "MZ");
    Put32(b, 0x3C, kPeHeader);
    PutString(b, kPeHeader, "PE");
    Put16(b, kCoff + 0, 0x8664);  // Machine
    Put16(b, kCoff + 2, 2);       // NumberOfSections
    Put16(b, kCoff + 16, kOptionalSize);
    Put16(b, kCoff + 18, 0x0022);  // executable, large address aware
    Put16(b, kOptional + 0, 0x20B);
    Put32(b, kOptional + 16, 0x1000);  // AddressOfEntryPoint
    Put64(b, kOptional + 24, 0x140000000ull);
    Put32(b, kOptional + 32, 0x1000);
    Put32(b, kOptional + 36, 0x200);
    Put32(b, kOptional + 56, 0x3000);  // SizeOfImage
    Put32(b, kOptional + 60, 0x200);   // SizeOfHeaders
    Put16(b, kOptional + 68, 1);       // native
    Put16(b, kOptional + 70, 0x2160);  // high-entropy-va, dynamic-base, nx-compat, wdm-driver
    Put32(b, kOptional + 108, 16);     // NumberOfRvaAndSizes
    Put32(b, kOptional + 112 + 8, kIdataRva);  // import directory
    Put32(b, kOptional + 112 + 12, 60);
    PutSection(b, 0, ".text", 0x1000, kTextRaw, 0x60000020);
    PutSection(b, 1, ".idata", kIdataRva, kIdataRaw, 0xC0000040);
    b[kTextRaw] = 0xC3;  // ret

    // Import descriptors: ntoskrnl.exe, ks.sys, terminator.
    auto descriptor = [&](std::size_t i, std::uint32_t lookup, std::uint32_t name, std::uint32_t addresses) {
        std::size_t at = IdataOffset(kIdataRva) + 20 * i;
        Put32(b, at + 0, lookup);
        Put32(b, at + 12, name);
        Put32(b, at + 16, addresses);
    };
    descriptor(0, kNtosLookup, kNtosModuleName, kNtosAddresses);
    descriptor(1, kKsLookup, kKsModuleName, kKsAddresses);
    PutThunks(b, kNtosLookup, {kDbgPrintName, kExAllocateName, 0});
    PutThunks(b, kNtosAddresses, {kDbgPrintName, kExAllocateName, 0});
    PutThunks(b, kKsLookup, {kOrdinalFlag | 5, kKsInitializeName, 0});
    PutThunks(b, kKsAddresses, {kOrdinalFlag | 5, kKsInitializeName, 0});
    PutHintName(b, kDbgPrintName, 0x42, "DbgPrint");
    PutHintName(b, kExAllocateName, 0x77, "ExAllocatePoolWithTag");
    PutHintName(b, kKsInitializeName, 0x7E, "KsInitializeDriver");
    PutString(b, IdataOffset(kNtosModuleName), "ntoskrnl.exe");
    PutString(b, IdataOffset(kKsModuleName), "ks.sys");
    StoreChecksum(b);
    return b;
}

kvcam::PeImage ParseOk(const Bytes& b)
{
    kvcam::PeParseResult r = kvcam::ParsePe(b);
    EXPECT_TRUE(r.image.has_value()) << r.error;
    return r.image.value_or(kvcam::PeImage{});
}

TEST(PeReader, ReadsHeadersSectionsAndImportsOfA64BitNativeDriver)
{
    kvcam::PeImage image = ParseOk(MakeDriverImage());
    EXPECT_EQ(image.machine, 0x8664);
    EXPECT_EQ(kvcam::MachineName(image.machine), "x86-64");
    EXPECT_TRUE(image.pe32Plus);
    EXPECT_EQ(image.subsystem, 1);
    EXPECT_EQ(kvcam::SubsystemName(image.subsystem), "native");
    EXPECT_EQ(image.entryPointRva, 0x1000u);
    EXPECT_EQ(image.sizeOfImage, 0x3000u);
    EXPECT_EQ(image.imageBase, 0x140000000ull);
    EXPECT_NE(image.checksum, 0u);
    EXPECT_EQ(image.checksum, image.computedChecksum);
    EXPECT_EQ(kvcam::DllCharacteristicNames(image.dllCharacteristics),
              (std::vector<std::string>{"high-entropy-va", "dynamic-base", "nx-compat", "wdm-driver"}));

    ASSERT_EQ(image.sections.size(), 2u);
    EXPECT_EQ(image.sections[0].name, ".text");
    EXPECT_EQ(image.sections[0].virtualAddress, 0x1000u);
    EXPECT_EQ(image.sections[0].rawOffset, kTextRaw);
    EXPECT_EQ(kvcam::SectionFlagNames(image.sections[0].characteristics),
              (std::vector<std::string>{"code", "execute", "read"}));
    EXPECT_EQ(image.sections[1].name, ".idata");
    EXPECT_EQ(image.sections[1].rawSize, 0x200u);

    ASSERT_EQ(image.imports.size(), 2u);
    EXPECT_EQ(image.imports[0].module, "ntoskrnl.exe");
    ASSERT_EQ(image.imports[0].functions.size(), 2u);
    EXPECT_EQ(image.imports[0].functions[0].name, "DbgPrint");
    EXPECT_EQ(image.imports[0].functions[0].hint, 0x42);
    EXPECT_EQ(image.imports[0].functions[1].name, "ExAllocatePoolWithTag");
    EXPECT_EQ(image.imports[1].module, "ks.sys");
    ASSERT_EQ(image.imports[1].functions.size(), 2u);
    EXPECT_EQ(image.imports[1].functions[0].ordinal, std::optional<std::uint16_t>(5));
    EXPECT_EQ(image.imports[1].functions[1].name, "KsInitializeDriver");
}

// Still read right: an eight-character section name (no terminator: its NUL
// lands on VirtualSize, rewritten next), and ntoskrnl's imports without a
// lookup table (OriginalFirstThunk 0: the address table is read; the lookup
// table is emptied so that a wrong choice shows). Bytes changed after the
// checksum was stored show as a mismatch.
TEST(PeReader, ReadsUnterminatedSectionNamesAndImportsWithoutALookupTable)
{
    Bytes b = MakeDriverImage();
    PutString(b, kSectionTable, ".textbss");
    Put32(b, kSectionTable + 8, 0x200);
    Put32(b, IdataOffset(kIdataRva) + 0, 0);
    PutThunks(b, kNtosLookup, {0});
    kvcam::PeImage image = ParseOk(b);
    ASSERT_EQ(image.sections.size(), 2u);
    EXPECT_EQ(image.sections[0].name, ".textbss");
    ASSERT_EQ(image.imports.size(), 2u);
    EXPECT_EQ(image.imports[0].functions.size(), 2u);
    EXPECT_NE(image.checksum, image.computedChecksum);
}

TEST(PeReader, EveryTruncationIsAnErrorNotAnOutOfBoundsRead)
{
    const Bytes full = MakeDriverImage();
    for (std::size_t n = 0; n < full.size(); ++n) {
        Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        cut.shrink_to_fit();
        kvcam::PeParseResult r = kvcam::ParsePe(cut);
        EXPECT_FALSE(r.image.has_value()) << "truncated to " << n << " bytes";
        EXPECT_FALSE(r.error.empty()) << "truncated to " << n << " bytes";
    }
}

struct Corruption {
    const char* name;
    std::function<void(Bytes&)> apply;
    const char* expectedError;
};

// Test names and failure messages show the corruption by name, not as bytes.
void PrintTo(const Corruption& c, std::ostream* os) { *os << c.name; }

class PeReaderCorruption : public ::testing::TestWithParam<Corruption> {};

TEST_P(PeReaderCorruption, IsRejectedWithAClearMessage)
{
    Bytes b = MakeDriverImage();
    GetParam().apply(b);
    b.shrink_to_fit();
    kvcam::PeParseResult r = kvcam::ParsePe(b);
    EXPECT_FALSE(r.image.has_value());
    EXPECT_NE(r.error.find(GetParam().expectedError), std::string::npos) << "error was: " << r.error;
}

const Corruption kCorruptions[] = {
    {"NoMzHeader", [](Bytes& b) { b[0] = 'X'; }, "no \"MZ\" header"},
    {"PeOffsetPastEnd", [](Bytes& b) { Put32(b, 0x3C, 0x10000); }, "past the end of the file"},
    {"PeOffsetNear4GB", [](Bytes& b) { Put32(b, 0x3C, 0xFFFFFFFE); }, "past the end of the file"},
    {"PeOffsetLeavesNoRoomForCoffHeader", [](Bytes& b) { Put32(b, 0x3C, kFileSize - 8); PutString(b, kFileSize - 8, "PE"); },
     "truncated COFF file header"},
    {"NoPeSignature", [](Bytes& b) { b[kPeHeader] = 'Q'; }, "no \"PE\" signature"},
    {"UnknownOptionalMagic", [](Bytes& b) { Put16(b, kOptional, 0x999); }, "unknown optional header Magic"},
    {"OptionalHeaderTooSmallForMagic", [](Bytes& b) { Put16(b, kCoff + 16, 1); }, "too small for its Magic"},
    {"OptionalHeaderTooSmallForFields", [](Bytes& b) { Put16(b, kCoff + 16, 40); }, "optional header too small"},
    {"OptionalHeaderPastEnd", [](Bytes& b) { Put16(b, kCoff + 16, 0xFFFF); }, "truncated optional header"},
    {"TooManyDataDirectories", [](Bytes& b) { Put32(b, kOptional + 108, 0x7FFFFFFF); }, "data directories"},
    {"DataDirectoriesBeyondHeader", [](Bytes& b) { Put16(b, kCoff + 16, 120); }, "data directories"},
    {"ImplausibleSectionCount", [](Bytes& b) { Put16(b, kCoff + 2, 0xFFFF); }, "implausible section count"},
    {"SectionTablePastEnd",
     [](Bytes& b) { Put16(b, kCoff + 16, static_cast<std::uint16_t>(kFileSize - kOptional - 40)); Put32(b, kOptional + 108, 16); },
     "truncated section table"},
    {"SectionRawDataPastEnd", [](Bytes& b) { Put32(b, kSectionTable + 40 + 20, 0xFFFFFFF0); }, "extends past the end"},
    {"SectionRawSizePastEnd", [](Bytes& b) { Put32(b, kSectionTable + 40 + 16, 0x201); }, "extends past the end"},
    {"SectionWrapsAddressSpace", [](Bytes& b) { Put32(b, kSectionTable + 12, 0xFFFFFF00); }, "wraps around"},
    {"ImportDirectoryOutsideSections", [](Bytes& b) { Put32(b, kOptional + 120, 0x9000); }, "import directory at RVA"},
    {"ImportDirectoryWithoutTerminator",
     [](Bytes& b) {
         // The last descriptor slot of .idata holds a valid descriptor; the
         // next one would start past the section.
         Put32(b, kOptional + 120, 0x21EC);
         Put32(b, IdataOffset(0x21EC) + 0, kNtosLookup);
         Put32(b, IdataOffset(0x21EC) + 12, kNtosModuleName);
     },
     "import directory runs past its section"},
    {"ModuleNameOutsideFile", [](Bytes& b) { Put32(b, IdataOffset(kIdataRva) + 12, 0x7000); }, "imported module name"},
    // Unterminated names run to the end of .text, which the file continues
    // with .idata: the bound must be the section, not the file.
    {"ModuleNameUnterminated",
     [](Bytes& b) {
         Put32(b, IdataOffset(kIdataRva) + 12, 0x11F0);
         for (std::size_t i = kTextRaw + 0x1F0; i < kTextRaw + 0x200; ++i) b[i] = 'A';
     },
     "imported module name"},
    {"LookupTableOutsideFile", [](Bytes& b) { Put32(b, IdataOffset(kIdataRva), 0x8000); }, "import table of ntoskrnl.exe"},
    {"LookupTableWithoutTerminator",
     [](Bytes& b) {
         Put32(b, IdataOffset(kIdataRva), 0x21F8);
         Put64(b, IdataOffset(0x21F8), kOrdinalFlag | 1);
     },
     "runs past its section"},
    {"FunctionNameOutsideFile", [](Bytes& b) { PutThunks(b, kNtosLookup, {0x5000}); }, "imported name of ntoskrnl.exe"},
    {"FunctionHintAtSectionEnd", [](Bytes& b) { PutThunks(b, kNtosLookup, {0x21FF}); }, "imported name of ntoskrnl.exe"},
    {"FunctionNameUnterminated",
     [](Bytes& b) {
         PutThunks(b, kNtosLookup, {0x11F0});
         for (std::size_t i = kTextRaw + 0x1F2; i < kTextRaw + 0x200; ++i) b[i] = 'B';
     },
     "not terminated"},
};

INSTANTIATE_TEST_SUITE_P(PeReader, PeReaderCorruption, ::testing::ValuesIn(kCorruptions),
                         [](const ::testing::TestParamInfo<Corruption>& info) { return std::string(info.param.name); });

}  // namespace
