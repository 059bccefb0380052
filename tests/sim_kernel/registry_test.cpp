// The simulated registry as kvdrv sees it: ZwOpenKey, ZwQueryValueKey and
// ZwSetValueKey with the statuses and record layouts that
// learn.microsoft.com documents for them; and its .reg files: what
// regedit exports loads into the simulation, and what the simulation saves
// regedit can import, with every value's type, bytes and name case intact.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/registry.h"
#include "wdm.h"

namespace {

constexpr const char* kService = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV";
constexpr const wchar_t* kDataKey = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data";

// A counted string over a wide literal (WCHAR is 2 bytes in this build).
UNICODE_STRING Us(const wchar_t* s) {
    UNICODE_STRING u;
    RtlInitUnicodeString(&u, s);
    return u;
}

NTSTATUS Open(const wchar_t* path, HANDLE* h, ACCESS_MASK access = KEY_ALL_ACCESS, HANDLE root = nullptr) {
    UNICODE_STRING name = Us(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    return ZwOpenKey(h, access, &oa);
}

class Registry : public testing::Test {
protected:
    void SetUp() override {
        kvsim::RegReset();
        ASSERT_TRUE(kvsim::RegCreateKey(std::string(kService) + "\\Data"));
    }
    void TearDown() override { kvsim::RegReset(); }
};

TEST_F(Registry, QueryValueKeyHasThreeSizeOutcomes) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(kDataKey, &h), STATUS_SUCCESS);
    const UCHAR sw[3] = {0x00, 0xC0, 0x01};
    UNICODE_STRING name = Us(L"SWSetting");
    ASSERT_EQ(ZwSetValueKey(h, &name, 0, REG_BINARY, const_cast<UCHAR*>(sw), sizeof sw), STATUS_SUCCESS);
    const ULONG needed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + 3;  // 15

    // Too small for the fixed part: nothing written, the size needed reported.
    UCHAR buffer[32];
    std::memset(buffer, 0xAB, sizeof buffer);
    ULONG result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, &name, KeyValuePartialInformation, buffer, 11, &result),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, needed);
    for (UCHAR b : buffer) ASSERT_EQ(b, 0xAB);

    // The fixed part fits but not the data: fixed part only.
    result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, &name, KeyValuePartialInformation, buffer, 13, &result),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, needed);
    auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    EXPECT_EQ(info->Type, static_cast<ULONG>(REG_BINARY));
    EXPECT_EQ(info->DataLength, 3u);
    EXPECT_EQ(info->Data[0], 0xAB);  // no data copied

    // Everything fits.
    result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, &name, KeyValuePartialInformation, buffer, needed, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, needed);
    EXPECT_EQ(std::memcmp(info->Data, sw, 3), 0);
    EXPECT_EQ(buffer[needed], 0xAB);  // nothing beyond the record
    ZwClose(h);
}

TEST_F(Registry, RegistryCallAtDispatchLevelIsReported) {
    kvsim::TakeViolations();
    KIRQL old = 0;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    HANDLE h = nullptr;
    NTSTATUS status = Open(kDataKey, &h);
    KeLowerIrql(old);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("ZwOpenKey"), std::string::npos) << violations[0];
    EXPECT_NE(violations[0].find("IRQL 2"), std::string::npos) << violations[0];
    EXPECT_NE(violations[0].find("PASSIVE_LEVEL"), std::string::npos) << violations[0];
    if (NT_SUCCESS(status)) ZwClose(h);
}

TEST_F(Registry, AccessRightsOfTheHandleAreChecked) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(kDataKey, &h, KEY_READ), STATUS_SUCCESS);
    ULONG v = 1;
    UNICODE_STRING name = Us(L"X");
    EXPECT_EQ(ZwSetValueKey(h, &name, 0, REG_DWORD, &v, 4), STATUS_ACCESS_DENIED);
    ZwClose(h);
}

TEST_F(Registry, KeyLeftOpenIsReportedOnce) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(kDataKey, &h), STATUS_SUCCESS);
    auto leaks = kvsim::CheckOpenKeysAndFiles();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_NE(leaks[0].find("USBKV\\Data"), std::string::npos) << leaks[0];
    EXPECT_TRUE(kvsim::CheckOpenKeysAndFiles().empty());
    ZwClose(h);
}

const std::string kData = "\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data";
const std::string kLast = "\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Property\\Last";

std::string Utf16File(const std::u16string& text) {
    std::string bytes = "\xFF\xFE";
    for (char16_t c : text) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>(c >> 8));
    }
    return bytes;
}

std::u16string FromUtf16File(const std::string& bytes) {
    std::u16string out;
    for (size_t i = 2; i + 1 < bytes.size(); i += 2)
        out.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
    return out;
}

class RegFile : public testing::Test {
protected:
    void SetUp() override { kvsim::RegReset(); }
    void TearDown() override { kvsim::RegReset(); }
};

TEST_F(RegFile, ValuesRoundTripThroughAHostFileWithTypesAndNameCase) {
    std::vector<uint8_t> big(100);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
    kvsim::RegSetDword(kData, "TrackingWindowSize", 4);
    kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, {0x00, 0xC0, 0x01});
    kvsim::RegSetValue(kData, "Big", REG_BINARY, big);
    kvsim::RegSetString(kLast, "CustomerFrame1", "C:\\frames\\\"quoted\".bmp");
    kvsim::RegSetString(kLast, "Expand", "%SystemRoot%\\x", REG_EXPAND_SZ);
    kvsim::RegSetMultiString(kLast, "Multi", {"one", "two"});
    kvsim::RegSetQword(kLast, "Q", 0x0123456789ABCDEFull);
    kvsim::RegSetString(kLast, "", "default text");
    kvsim::RegSetValue(kLast, "ShortDword", REG_DWORD, {0x01, 0x02});
    kvsim::RegSetValue(kLast, "None", REG_NONE, {});
    kvsim::RegSetValue(kLast, "Odd", 0x1234, {0xFF});
    kvsim::RegSetValue(kLast, "Unterminated", REG_SZ, {'a', 0});
    kvsim::RegCreateKey("\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Property\\Empty");

    std::vector<std::pair<std::string, std::vector<std::string>>> keys = {{kData, {}}, {kLast, {}}};
    std::vector<std::pair<std::string, kvsim::RegValue>> before;
    for (auto& [key, names] : keys) {
        names = kvsim::RegListValues(key);
        for (auto& n : names) before.emplace_back(key + "|" + n, *kvsim::RegGetValue(key, n));
    }
    const std::string path = testing::TempDir() + "/kv_regfile_test.reg";  // through a host file
    ASSERT_TRUE(kvsim::RegSaveFile(path));
    kvsim::RegReset();
    ASSERT_FALSE(kvsim::RegKeyExists(kData));
    auto result = kvsim::RegLoadFile(path);
    ASSERT_TRUE(result.ok()) << result.errors[0];
    std::remove(path.c_str());

    for (auto& [key, names] : keys) EXPECT_EQ(kvsim::RegListValues(key), names) << key;  // names with their case
    for (auto& [where, value] : before) {
        auto bar = where.find('|');
        auto after = kvsim::RegGetValue(where.substr(0, bar), where.substr(bar + 1));
        ASSERT_TRUE(after.has_value()) << where;
        EXPECT_EQ(after->type, value.type) << where;
        EXPECT_EQ(after->data, value.data) << where;
    }
    EXPECT_TRUE(kvsim::RegKeyExists("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Property\\Empty"));
    EXPECT_FALSE(kvsim::RegLoadFile(path).ok()) << "a missing file";
}

TEST_F(RegFile, ExportLooksLikeRegedit) {
    kvsim::RegSetDword(kData, "DeviceExist", 2);
    kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, {0x00, 0xC0, 0x01});
    kvsim::RegSetString(kLast, "CustomerFrame1", "C:\\a.bmp");
    std::string bytes = kvsim::RegExportText("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV");
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    std::u16string text = FromUtf16File(bytes);
    EXPECT_EQ(text.find(u"Windows Registry Editor Version 5.00\r\n\r\n"), 0u);
    EXPECT_NE(text.find(u"\r\n[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\r\n"
                        u"\"DeviceExist\"=dword:00000002\r\n\"SWSetting\"=hex:00,c0,01\r\n"),
              std::u16string::npos);
    EXPECT_NE(text.find(u"\"CustomerFrame1\"=\"C:\\\\a.bmp\"\r\n"), std::u16string::npos);
    // No bare line feeds: every line ends with CRLF.
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'\n') {
            ASSERT_TRUE(i > 0 && text[i - 1] == u'\r') << "bare LF at " << i;
        }
    }
}

TEST_F(RegFile, RegeditUtf16AndPlainUtf8FilesLoad) {
    std::u16string text =
        u"Windows Registry Editor Version 5.00\r\n"
        u"\r\n"
        u"; exported from a real machine\r\n"
        u"[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\r\n"
        u"\"SWSetting\"=hex:00,c0,01\r\n"
        u"\"TrackingFocus\"=dword:00000002\r\n"
        u"@=\"Default \\\"value\\\"\"\r\n"
        u"\"Wrapped\"=hex(7):6f,00,6e,00,65,00,00,00,74,00,\\\r\n"
        u"  77,00,6f,00,00,00,00,00\r\n"
        u"\"Big\"=hex(b):ef,cd,ab,89,67,45,23,01\r\n"
        u"\"Gone\"=dword:1\r\n"
        u"\"Gone\"=-\r\n"
        u"\r\n"
        u"[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Junk]\r\n"
        u"\r\n"
        u"[-HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Junk]\r\n";
    auto result = kvsim::RegLoadText(Utf16File(text));
    ASSERT_TRUE(result.ok()) << result.errors[0];
    EXPECT_EQ(kvsim::RegGetValue(kData, "swsetting")->data, (std::vector<uint8_t>{0x00, 0xC0, 0x01}));
    EXPECT_EQ(kvsim::RegGetValue(kData, "SWSetting")->type, static_cast<uint32_t>(REG_BINARY));
    EXPECT_EQ(kvsim::RegGetDword(kData, "TrackingFocus"), 2u);
    EXPECT_EQ(kvsim::RegGetString(kData, ""), "Default \"value\"");
    auto multi = kvsim::RegGetValue(kData, "Wrapped");
    ASSERT_TRUE(multi.has_value());
    EXPECT_EQ(multi->type, static_cast<uint32_t>(REG_MULTI_SZ));
    EXPECT_EQ(multi->data.size(), 18u);
    auto qword = kvsim::RegGetValue(kData, "Big");
    EXPECT_EQ(qword->type, static_cast<uint32_t>(REG_QWORD));
    EXPECT_FALSE(kvsim::RegGetValue(kData, "Gone").has_value());
    EXPECT_FALSE(kvsim::RegKeyExists("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Junk"));
    // UTF-8 without a byte-order mark and with bare line feeds loads too.
    result = kvsim::RegLoadText(
        "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\n"
        "\"BW\"=dword:00000001\n");
    ASSERT_TRUE(result.ok()) << result.errors[0];
    EXPECT_EQ(kvsim::RegGetDword(kData, "BW"), 1u);
}

TEST_F(RegFile, MalformedLinesAreReportedWithTheirNumbers) {
    auto result = kvsim::RegLoadText(
        "Windows Registry Editor Version 5.00\r\n"                                       // 1
        "\r\n"                                                                            // 2
        "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\USBKV\\Data]\r\n"     // 3
        "\"A\"=dword:123456789\r\n"                                                       // 4: 9 digits
        "\"B\"=hex:00,zz\r\n"                                                             // 5
        "\"C\"=\"unterminated\r\n"                                                        // 6
        "garbage\r\n"                                                                     // 7
        "\"D\"=dword:00000004\r\n"                                                        // 8: good
        "[HKEY_CURRENT_USER\\Software]\r\n"                                               // 9: not simulated
        "\"E\"=dword:1\r\n");                                                             // 10: outside a key
    ASSERT_EQ(result.errors.size(), 6u);
    const char* expected[] = {"line 4:", "line 5:", "line 6:", "line 7:", "line 9:", "line 10:"};
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(result.errors[i].rfind(expected[i], 0), 0u) << result.errors[i];
    EXPECT_EQ(kvsim::RegGetDword(kData, "D"), 4u);  // good lines still apply
    EXPECT_FALSE(kvsim::RegGetValue(kData, "A").has_value());

    auto notReg = kvsim::RegLoadText("hello\n");
    ASSERT_EQ(notReg.errors.size(), 1u);
    EXPECT_EQ(notReg.errors[0].rfind("line 1:", 0), 0u);
}

TEST_F(RegFile, RandomMutationsNeverCrashTheLoader) {
    kvsim::RegSetDword(kData, "TrackingWindowSize", 4);
    kvsim::RegSetValue(kData, "SWSetting", REG_BINARY, std::vector<uint8_t>(60, 0x5A));
    kvsim::RegSetString(kLast, "CustomerFrame1", "C:\\x.bmp");
    kvsim::RegSetMultiString(kLast, "M", {"a", "b"});
    const std::string original = kvsim::RegExportText();
    std::mt19937 random(12345);
    size_t rejected = 0;
    for (int round = 0; round < 300; ++round) {
        std::string mutated = original;
        int edits = 1 + static_cast<int>(random() % 8);
        for (int e = 0; e < edits && !mutated.empty(); ++e) {
            size_t at = random() % mutated.size();
            switch (random() % 4) {
                case 0: mutated[at] = static_cast<char>(random()); break;
                case 1: mutated.erase(at, 1 + random() % 4); break;
                case 2: mutated.insert(at, 1, "\\\"[]=:,-@\r\n;"[random() % 12]); break;
                default: mutated.insert(at, mutated.substr(random() % mutated.size(), random() % 40)); break;
            }
        }
        kvsim::RegReset();
        auto result = kvsim::RegLoadText(mutated);
        for (const auto& error : result.errors) {
            ASSERT_TRUE(error.rfind("line ", 0) == 0 || error.rfind("end of file", 0) == 0) << error;
        }
        if (!result.ok()) ++rejected;
    }
    EXPECT_GT(rejected, 0u);  // the mutations did reach the error paths
}

}  // namespace
