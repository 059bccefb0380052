// The simulated registry as a driver sees it: ZwOpenKey, ZwCreateKey,
// ZwQueryValueKey, ZwSetValueKey ... with the statuses and record layouts
// that learn.microsoft.com documents for them.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/registry.h"
#include "wdm.h"

namespace {

constexpr const char* kService = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV";

// A counted string over a wide literal (WCHAR is 2 bytes in this build).
struct Name {
    UNICODE_STRING us{};
    explicit Name(const wchar_t* s) {
        size_t n = 0;
        while (s[n]) ++n;
        us.Length = static_cast<USHORT>(n * 2);
        us.MaximumLength = static_cast<USHORT>(n * 2 + 2);
        us.Buffer = const_cast<wchar_t*>(s);
    }
    PUNICODE_STRING get() { return &us; }
};

NTSTATUS Open(const wchar_t* path, HANDLE* h, ACCESS_MASK access = KEY_ALL_ACCESS, HANDLE root = nullptr) {
    Name name(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    return ZwOpenKey(h, access, &oa);
}

NTSTATUS Create(const wchar_t* path, HANDLE* h, ULONG* disposition, HANDLE root = nullptr,
                ULONG options = REG_OPTION_NON_VOLATILE) {
    Name name(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    return ZwCreateKey(h, KEY_ALL_ACCESS, &oa, 0, nullptr, options, disposition);
}

class Registry : public testing::Test {
protected:
    void SetUp() override {
        kvsim::RegReset();
        ASSERT_TRUE(kvsim::RegCreateKey(std::string(kService) + "\\Data"));
    }
    void TearDown() override { kvsim::RegReset(); }
};

TEST_F(Registry, OpenIsCaseInsensitiveAndKeepsTheStoredCase) {
    kvsim::RegSetDword(std::string(kService) + "\\Data", "TrackingFocus", 2);
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\REGISTRY\\MACHINE\\SYSTEM\\currentcontrolset\\SERVICES\\usbkv\\DATA", &h), STATUS_SUCCESS);
    UCHAR buffer[64];
    ULONG needed = 0;
    Name value(L"trackingfocus");
    ASSERT_EQ(ZwQueryValueKey(h, value.get(), KeyValueBasicInformation, buffer, sizeof buffer, &needed),
              STATUS_SUCCESS);
    auto* basic = reinterpret_cast<KEY_VALUE_BASIC_INFORMATION*>(buffer);
    ASSERT_EQ(basic->NameLength, 13u * 2);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(basic->Name), 13), u"TrackingFocus");
    EXPECT_EQ(basic->Type, static_cast<ULONG>(REG_DWORD));
    EXPECT_EQ(kvsim::RegOpenKeyCount(), 1u);
    EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegOpenKeyCount(), 0u);
    // The subkey keeps the case it was created with.
    auto subkeys = kvsim::RegListSubkeys(kService);
    ASSERT_EQ(subkeys.size(), 1u);
    EXPECT_EQ(subkeys[0], "Data");
}

TEST_F(Registry, MissingKeyAndMissingValueAreNameNotFound) {
    HANDLE h = nullptr;
    EXPECT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Nope", &h),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(L"\\Registry\\Machine\\Nope\\Deeper\\Still", &h), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(L"Registry\\Machine", &h), STATUS_OBJECT_PATH_SYNTAX_BAD);  // relative without a root
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h), STATUS_SUCCESS);
    Name value(L"DropFrameCntVGA");
    UCHAR buffer[32];
    ULONG needed = 0xDEAD;
    EXPECT_EQ(ZwQueryValueKey(h, value.get(), KeyValuePartialInformation, buffer, sizeof buffer, &needed),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwDeleteValueKey(h, value.get()), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(h);
}

TEST_F(Registry, CreateKeyReportsNewThenExistingAndNeverCreatesParents) {
    HANDLE service = nullptr, h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV", &service), STATUS_SUCCESS);
    ULONG disposition = 0;
    ASSERT_EQ(Create(L"Property", &h, &disposition, service), STATUS_SUCCESS);
    EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
    ZwClose(h);
    ASSERT_EQ(Create(L"PROPERTY", &h, &disposition, service), STATUS_SUCCESS);
    EXPECT_EQ(disposition, static_cast<ULONG>(REG_OPENED_EXISTING_KEY));
    ZwClose(h);
    // "\Property\Last" needs "Property" first; "\Custom\Last" has no parent.
    EXPECT_EQ(Create(L"Custom\\Last", &h, &disposition, service), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(kvsim::RegKeyExists(std::string(kService) + "\\Custom"));
    ASSERT_EQ(Create(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Property\\Last", &h,
                     &disposition),
              STATUS_SUCCESS);
    EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
    ZwClose(h);
    EXPECT_EQ(Create(L"\\Property", &h, &disposition, service), STATUS_OBJECT_PATH_SYNTAX_BAD);
    ZwClose(service);
    EXPECT_TRUE(kvsim::RegKeyExists("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\USBKV\\Property\\Last"));
}

TEST_F(Registry, QueryValueKeyHasThreeSizeOutcomes) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h), STATUS_SUCCESS);
    const UCHAR sw[3] = {0x00, 0xC0, 0x01};
    Name name(L"SWSetting");
    ASSERT_EQ(ZwSetValueKey(h, name.get(), 0, REG_BINARY, const_cast<UCHAR*>(sw), sizeof sw), STATUS_SUCCESS);
    const ULONG needed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + 3;  // 15

    // Too small for the fixed part: nothing written, the size needed reported.
    UCHAR buffer[32];
    std::memset(buffer, 0xAB, sizeof buffer);
    ULONG result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, name.get(), KeyValuePartialInformation, buffer, 11, &result),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, needed);
    for (UCHAR b : buffer) ASSERT_EQ(b, 0xAB);

    // The fixed part fits but not the data: fixed part only.
    result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, name.get(), KeyValuePartialInformation, buffer, 13, &result),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, needed);
    auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    EXPECT_EQ(info->Type, static_cast<ULONG>(REG_BINARY));
    EXPECT_EQ(info->DataLength, 3u);
    EXPECT_EQ(info->Data[0], 0xAB);  // no data copied

    // Everything fits.
    result = 0;
    EXPECT_EQ(ZwQueryValueKey(h, name.get(), KeyValuePartialInformation, buffer, needed, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, needed);
    EXPECT_EQ(std::memcmp(info->Data, sw, 3), 0);
    EXPECT_EQ(buffer[needed], 0xAB);  // nothing beyond the record
    ZwClose(h);
}

TEST_F(Registry, DataAreStoredExactlyAsSet) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h), STATUS_SUCCESS);
    const UCHAR two[2] = {0x34, 0x12};
    Name name(L"BW");
    ASSERT_EQ(ZwSetValueKey(h, name.get(), 0, REG_DWORD, const_cast<UCHAR*>(two), 2), STATUS_SUCCESS);
    auto v = kvsim::RegGetValue(std::string(kService) + "\\Data", "bw");
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(v->type, static_cast<uint32_t>(REG_DWORD));
    EXPECT_EQ(v->data, (std::vector<uint8_t>{0x34, 0x12}));
    EXPECT_FALSE(kvsim::RegGetDword(std::string(kService) + "\\Data", "BW").has_value());  // not 4 bytes

    // Overwriting keeps the first name's case; the default value has the empty name.
    Name upper(L"BW_X");
    ULONG four = 7;
    ASSERT_EQ(ZwSetValueKey(h, upper.get(), 0, REG_DWORD, &four, 4), STATUS_SUCCESS);
    Name lower(L"bw_x");
    four = 8;
    ASSERT_EQ(ZwSetValueKey(h, lower.get(), 0, REG_DWORD, &four, 4), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetDword(std::string(kService) + "\\Data", "BW_X"), 8u);
    EXPECT_EQ(kvsim::RegListValues(std::string(kService) + "\\Data"), (std::vector<std::string>{"BW", "BW_X"}));
    UNICODE_STRING empty{0, 0, nullptr};
    const wchar_t text[] = L"x";
    ASSERT_EQ(ZwSetValueKey(h, &empty, 0, REG_SZ, const_cast<wchar_t*>(text), sizeof text), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::RegGetString(std::string(kService) + "\\Data", ""), "x");
    ZwClose(h);
}

TEST_F(Registry, RegistryCallAtDispatchLevelIsReported) {
    kvsim::TakeViolations();
    KIRQL old = 0;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    HANDLE h = nullptr;
    NTSTATUS status = Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h);
    KeLowerIrql(old);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("ZwOpenKey"), std::string::npos) << violations[0];
    EXPECT_NE(violations[0].find("IRQL 2"), std::string::npos) << violations[0];
    EXPECT_NE(violations[0].find("PASSIVE_LEVEL"), std::string::npos) << violations[0];
    if (NT_SUCCESS(status)) ZwClose(h);
}

TEST_F(Registry, EnumerationListsSubkeysSortedAndValuesInCreationOrder) {
    kvsim::RegCreateKey(std::string(kService) + "\\beta");
    kvsim::RegCreateKey(std::string(kService) + "\\Alpha");
    kvsim::RegSetDword(kService, "Zed", 1);
    kvsim::RegSetDword(kService, "Abc", 2);
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV", &h), STATUS_SUCCESS);
    std::vector<std::u16string> keys;
    UCHAR buffer[128];
    ULONG result = 0;
    for (ULONG i = 0;; ++i) {
        NTSTATUS status = ZwEnumerateKey(h, i, KeyBasicInformation, buffer, sizeof buffer, &result);
        if (status == STATUS_NO_MORE_ENTRIES) break;
        ASSERT_EQ(status, STATUS_SUCCESS);
        auto* info = reinterpret_cast<KEY_BASIC_INFORMATION*>(buffer);
        keys.emplace_back(reinterpret_cast<char16_t*>(info->Name), info->NameLength / 2);
    }
    EXPECT_EQ(keys, (std::vector<std::u16string>{u"Alpha", u"beta", u"Data"}));
    std::vector<std::u16string> values;
    for (ULONG i = 0;; ++i) {
        NTSTATUS status = ZwEnumerateValueKey(h, i, KeyValueFullInformation, buffer, sizeof buffer, &result);
        if (status == STATUS_NO_MORE_ENTRIES) break;
        ASSERT_EQ(status, STATUS_SUCCESS);
        auto* info = reinterpret_cast<KEY_VALUE_FULL_INFORMATION*>(buffer);
        values.emplace_back(reinterpret_cast<char16_t*>(info->Name), info->NameLength / 2);
        EXPECT_EQ(info->DataLength, 4u);
        EXPECT_EQ(info->DataOffset % 4, 0u);
        EXPECT_EQ(result, info->DataOffset + 4);
    }
    EXPECT_EQ(values, (std::vector<std::u16string>{u"Zed", u"Abc"}));
    ZwClose(h);
}

TEST_F(Registry, DeletedKeyFailsEverythingButClose) {
    HANDLE data = nullptr, service = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV", &service), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteKey(service), STATUS_CANNOT_DELETE);  // it has the subkey Data
    ASSERT_EQ(Open(L"Data", &data, KEY_ALL_ACCESS, service), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteKey(data), STATUS_SUCCESS);
    ULONG v = 1;
    Name name(L"X");
    EXPECT_EQ(ZwSetValueKey(data, name.get(), 0, REG_DWORD, &v, 4), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwClose(data), STATUS_SUCCESS);
    EXPECT_FALSE(kvsim::RegKeyExists(std::string(kService) + "\\Data"));
    ZwClose(service);
}

TEST_F(Registry, AccessRightsOfTheHandleAreChecked) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h, KEY_READ),
              STATUS_SUCCESS);
    ULONG v = 1;
    Name name(L"X");
    EXPECT_EQ(ZwSetValueKey(h, name.get(), 0, REG_DWORD, &v, 4), STATUS_ACCESS_DENIED);
    ZwClose(h);
}

TEST_F(Registry, KeyLeftOpenIsReportedOnce) {
    HANDLE h = nullptr;
    ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\USBKV\\Data", &h), STATUS_SUCCESS);
    auto leaks = kvsim::CheckOpenKeysAndFiles();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_NE(leaks[0].find("USBKV\\Data"), std::string::npos) << leaks[0];
    EXPECT_TRUE(kvsim::CheckOpenKeysAndFiles().empty());
    ZwClose(h);
}

}  // namespace
