// Host-side control of the simulated registry (sim/kernel/reg): tests and
// kvcam set up and inspect the hive here, and move settings between the
// simulation and a real machine as .reg files. Not visible to the driver.
//
// Paths are UTF-8, case-insensitive, either kernel names
// ("\Registry\Machine\SYSTEM\...") or regedit names ("HKEY_LOCAL_MACHINE\...",
// "HKEY_USERS\..."; "HKLM\..." also). Value names are UTF-8; "" is the key's
// default value.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kv/zw.h"

namespace kvsim {

struct RegValue {
    uint32_t type = REG_NONE;
    std::vector<uint8_t> data;  // exactly the bytes stored
    bool operator==(const RegValue&) const = default;
};

// Empties the hive: only \Registry\Machine and \Registry\User remain. Key
// handles still open keep working on keys that are then marked deleted.
void RegReset();

// Keys (intermediate keys are created as needed).
bool RegCreateKey(std::string_view path);
bool RegKeyExists(std::string_view path);
bool RegDeleteKeyTree(std::string_view path);
std::vector<std::string> RegListSubkeys(std::string_view path);  // as ZwEnumerateKey orders them
std::vector<std::string> RegListValues(std::string_view path);   // as ZwEnumerateValueKey orders them

// Values: any type, raw bytes, stored as given. The setters create the key.
bool RegSetValue(std::string_view path, std::string_view name, uint32_t type, std::vector<uint8_t> data);
bool RegSetDword(std::string_view path, std::string_view name, uint32_t value);
bool RegSetQword(std::string_view path, std::string_view name, uint64_t value);
// REG_SZ (or REG_EXPAND_SZ) in UTF-16LE with its terminating zero.
bool RegSetString(std::string_view path, std::string_view name, std::string_view utf8, uint32_t type = REG_SZ);
bool RegSetMultiString(std::string_view path, std::string_view name, const std::vector<std::string>& strings);
bool RegDeleteValue(std::string_view path, std::string_view name);
std::optional<RegValue> RegGetValue(std::string_view path, std::string_view name);
// A REG_DWORD value of exactly 4 bytes.
std::optional<uint32_t> RegGetDword(std::string_view path, std::string_view name);
// A REG_SZ or REG_EXPAND_SZ value, up to its first zero.
std::optional<std::string> RegGetString(std::string_view path, std::string_view name);

// Key objects (handles from ZwOpenKey/ZwCreateKey) not yet destroyed.
size_t RegOpenKeyCount();

// .reg files in the format of the Registry Editor ("Windows Registry Editor
// Version 5.00" or "REGEDIT4"; UTF-16LE with BOM, UTF-8 or ASCII). Loading
// applies every well-formed line and reports each malformed one as
// "line N: ..."; it never stops at the first error.
struct RegFileResult {
    std::vector<std::string> errors;
    bool ok() const { return errors.empty(); }
};
RegFileResult RegLoadText(std::string_view fileBytes);
RegFileResult RegLoadFile(const std::string& hostPath);
// The subtree at rootPath (default: all of HKEY_LOCAL_MACHINE) as regedit
// exports it: UTF-16LE with BOM, CRLF line ends.
std::string RegExportText(std::string_view rootPath = "\\Registry\\Machine");
bool RegSaveFile(const std::string& hostPath, std::string_view rootPath = "\\Registry\\Machine");

// End-of-test check of the registry and file modules: one line for each key
// or file object left open that was not reported before.
std::vector<std::string> CheckOpenKeysAndFiles();

}  // namespace kvsim
