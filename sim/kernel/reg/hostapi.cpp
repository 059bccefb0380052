// The host API of the simulated registry (kvsim/registry.h) except the .reg
// files (regfile.cpp).
#include "hive.h"
#include "kvsim/files.h"
#include "kvsim/registry.h"
#include "text.h"

namespace kvsim {
namespace {

using reg::Node;

std::shared_ptr<Node> Find(std::string_view path) {  // lock held
    auto parts = reg::SplitHostPath(path);
    return parts ? reg::Walk(*parts, false) : nullptr;
}

std::shared_ptr<Node> FindOrCreate(std::string_view path) {  // lock held
    auto parts = reg::SplitHostPath(path);
    return parts ? reg::Walk(*parts, true) : nullptr;
}

}  // namespace

void RegReset() {
    std::lock_guard<std::mutex> guard(reg::Lock());
    reg::ResetLocked();
}

bool RegCreateKey(std::string_view path) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    return FindOrCreate(path) != nullptr;
}

bool RegKeyExists(std::string_view path) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    return Find(path) != nullptr;
}

bool RegDeleteKeyTree(std::string_view path) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    auto node = Find(path);
    if (!node || reg::IsHiveRoot(*node)) return false;
    reg::DeleteTree(node);
    return true;
}

std::vector<std::string> RegListSubkeys(std::string_view path) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    std::vector<std::string> out;
    if (auto node = Find(path))
        for (auto& [key, child] : node->children) out.push_back(text::ToUtf8(child->name));
    return out;
}

std::vector<std::string> RegListValues(std::string_view path) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    std::vector<std::string> out;
    if (auto node = Find(path))
        for (auto& v : node->values) out.push_back(text::ToUtf8(v.name));
    return out;
}

bool RegSetValue(std::string_view path, std::string_view name, uint32_t type, std::vector<uint8_t> data) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    auto node = FindOrCreate(path);
    if (!node) return false;
    node->SetValue(text::FromUtf8(name), type, std::move(data));
    return true;
}

bool RegSetDword(std::string_view path, std::string_view name, uint32_t value) {
    std::vector<uint8_t> data(4);
    for (int i = 0; i < 4; ++i) data[i] = static_cast<uint8_t>(value >> (8 * i));
    return RegSetValue(path, name, REG_DWORD, std::move(data));
}

bool RegSetQword(std::string_view path, std::string_view name, uint64_t value) {
    std::vector<uint8_t> data(8);
    for (int i = 0; i < 8; ++i) data[i] = static_cast<uint8_t>(value >> (8 * i));
    return RegSetValue(path, name, REG_QWORD, std::move(data));
}

bool RegSetString(std::string_view path, std::string_view name, std::string_view utf8, uint32_t type) {
    return RegSetValue(path, name, type, text::Utf16Bytes(text::FromUtf8(utf8), true));
}

bool RegSetMultiString(std::string_view path, std::string_view name, const std::vector<std::string>& strings) {
    std::vector<uint8_t> data;
    for (const auto& s : strings) {
        auto bytes = text::Utf16Bytes(text::FromUtf8(s), true);
        data.insert(data.end(), bytes.begin(), bytes.end());
    }
    data.insert(data.end(), {0, 0});
    return RegSetValue(path, name, REG_MULTI_SZ, std::move(data));
}

bool RegDeleteValue(std::string_view path, std::string_view name) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    auto node = Find(path);
    return node && node->DeleteValue(text::FromUtf8(name));
}

std::optional<RegValue> RegGetValue(std::string_view path, std::string_view name) {
    std::lock_guard<std::mutex> guard(reg::Lock());
    auto node = Find(path);
    if (!node) return std::nullopt;
    const reg::Value* v = node->FindValue(text::FromUtf8(name));
    if (!v) return std::nullopt;
    return RegValue{v->type, v->data};
}

std::optional<uint32_t> RegGetDword(std::string_view path, std::string_view name) {
    auto v = RegGetValue(path, name);
    if (!v || v->type != REG_DWORD || v->data.size() != 4) return std::nullopt;
    return static_cast<uint32_t>(v->data[0]) | (static_cast<uint32_t>(v->data[1]) << 8) |
           (static_cast<uint32_t>(v->data[2]) << 16) | (static_cast<uint32_t>(v->data[3]) << 24);
}

std::optional<std::string> RegGetString(std::string_view path, std::string_view name) {
    auto v = RegGetValue(path, name);
    if (!v || (v->type != REG_SZ && v->type != REG_EXPAND_SZ)) return std::nullopt;
    std::u16string s;
    for (size_t i = 0; i + 1 < v->data.size(); i += 2) {
        char16_t c = static_cast<char16_t>(v->data[i] | (v->data[i + 1] << 8));
        if (c == 0) break;
        s.push_back(c);
    }
    return text::ToUtf8(s);
}

size_t RegOpenKeyCount() {
    std::lock_guard<std::mutex> guard(reg::Lock());
    return reg::OpenKeyCountLocked();
}

std::vector<std::string> CheckOpenKeysAndFiles() {
    std::vector<std::string> out;
    for (auto& path : reg::TakeUnreportedOpenKeys()) out.push_back("registry key handle left open: " + path);
    for (auto& line : CheckOpenFiles()) out.push_back(line);
    return out;
}

}  // namespace kvsim
