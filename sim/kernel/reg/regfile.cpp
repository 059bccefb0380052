// .reg files for the simulated registry (kvsim/registry.h): the format the
// Registry Editor imports and exports, so that settings move between a real
// machine and the simulation. Format as documented in Microsoft's "How to
// add, modify, or delete registry subkeys and values by using a .reg file"
// (support.microsoft.com, KB 310516):
//   Windows Registry Editor Version 5.00      (or REGEDIT4, ANSI strings)
//   [HKEY_LOCAL_MACHINE\SYSTEM\...]            key, created with its parents
//   [-HKEY_LOCAL_MACHINE\SYSTEM\...]           key deleted with its subtree
//   "Name"=dword:00000002   "Name"="text"  (\\ and \" escaped)
//   "Name"=hex:00,c0,01     "Name"=hex(N):..   (N: the type, in hex)
//   @=...                   the default value;   "Name"=-  deletes it
//   ; comment; a hex list continues on the next line after a trailing "\".
// regedit writes UTF-16LE with a BOM and CRLF line ends, strings of other
// than well-formed REG_SZ data as hex(N), and wraps hex lists at 80 columns.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "hive.h"
#include "kvsim/registry.h"
#include "text.h"

namespace kvsim {
namespace {

using reg::Node;

constexpr std::u16string_view kHeader5 = u"Windows Registry Editor Version 5.00";
constexpr std::u16string_view kHeader4 = u"REGEDIT4";

// ---- Decoding ---------------------------------------------------------------

std::u16string Decode(std::string_view bytes, std::vector<std::string>& errors) {
    auto u8 = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    bool utf16 = false;
    size_t start = 0;
    if (bytes.size() >= 2 && u8(0) == 0xFF && u8(1) == 0xFE) {
        utf16 = true;
        start = 2;
    } else if (bytes.size() >= 3 && u8(0) == 0xEF && u8(1) == 0xBB && u8(2) == 0xBF) {
        start = 3;
    } else if (bytes.size() >= 2 && u8(0) != 0 && u8(1) == 0) {
        utf16 = true;  // UTF-16LE without a BOM
    }
    if (!utf16) return text::FromUtf8(bytes.substr(start));
    std::u16string out;
    for (size_t i = start; i + 1 < bytes.size(); i += 2) out.push_back(static_cast<char16_t>(u8(i) | (u8(i + 1) << 8)));
    if ((bytes.size() - start) % 2 != 0) errors.push_back("end of file: odd number of bytes in UTF-16 text");
    return out;
}

std::vector<std::u16string> SplitLines(std::u16string_view s) {
    std::vector<std::u16string> lines;
    std::u16string current;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == u'\r' || s[i] == u'\n') {
            lines.push_back(current);
            current.clear();
            if (s[i] == u'\r' && i + 1 < s.size() && s[i + 1] == u'\n') ++i;
        } else {
            current.push_back(s[i]);
        }
    }
    if (!current.empty()) lines.push_back(current);
    return lines;
}

bool IsSpace(char16_t c) { return c == u' ' || c == u'\t'; }

std::u16string Trim(std::u16string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && IsSpace(s[b])) ++b;
    while (e > b && IsSpace(s[e - 1])) --e;
    return std::u16string(s.substr(b, e - b));
}

int HexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

bool StartsWithNoCase(std::u16string_view s, std::u16string_view prefix) {
    return s.size() >= prefix.size() && text::EqualNoCase(s.substr(0, prefix.size()), prefix);
}

// ---- Parsing one value line ---------------------------------------------------

// Reads a quoted string at s[pos] == '"' with \\ and \" escapes; pos ends
// after the closing quote. False when the quote is not closed.
bool ReadQuoted(std::u16string_view s, size_t& pos, std::u16string& out) {
    ++pos;
    while (pos < s.size()) {
        char16_t c = s[pos++];
        if (c == u'"') return true;
        if (c == u'\\' && pos < s.size()) {
            char16_t next = s[pos];
            if (next == u'\\' || next == u'"') {
                out.push_back(next);
                ++pos;
                continue;
            }
        }
        out.push_back(c);
    }
    return false;
}

// "xx,xx , xx" (possibly empty) into bytes; false on anything else.
bool ParseHexList(std::u16string_view s, std::vector<uint8_t>& out) {
    std::u16string body = Trim(s);
    if (body.empty()) return true;
    size_t pos = 0;
    while (true) {
        while (pos < body.size() && IsSpace(body[pos])) ++pos;
        int value = 0, digits = 0;
        while (pos < body.size() && HexDigit(body[pos]) >= 0 && digits < 3) value = value * 16 + HexDigit(body[pos++]), ++digits;
        if (digits == 0 || digits > 2) return false;
        out.push_back(static_cast<uint8_t>(value));
        while (pos < body.size() && IsSpace(body[pos])) ++pos;
        if (pos == body.size()) return true;
        if (body[pos] != u',') return false;
        ++pos;
        while (pos < body.size() && IsSpace(body[pos])) ++pos;
        if (pos == body.size()) return true;  // a trailing comma
    }
}

struct ParsedValue {
    std::u16string name;
    bool remove = false;
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;
};

// Parses `line` (continuations already joined); an empty result is success.
std::string ParseValueLine(std::u16string_view line, bool ansi, ParsedValue& v) {
    size_t pos = 0;
    if (line[0] == u'@') {
        pos = 1;
    } else if (!ReadQuoted(line, pos, v.name)) {
        return "value name without closing quote";
    }
    while (pos < line.size() && IsSpace(line[pos])) ++pos;
    if (pos >= line.size() || line[pos] != u'=') return "missing '=' after the value name";
    std::u16string data = Trim(line.substr(pos + 1));
    if (data == u"-") {
        v.remove = true;
        return {};
    }
    if (!data.empty() && data[0] == u'"') {
        size_t p = 0;
        std::u16string s;
        if (!ReadQuoted(data, p, s)) return "string without closing quote";
        if (!Trim(std::u16string_view(data).substr(p)).empty()) return "text after the closing quote";
        v.type = REG_SZ;
        v.data = text::Utf16Bytes(s, true);
        return {};
    }
    if (StartsWithNoCase(data, u"dword:")) {
        std::u16string digits = data.substr(6);
        if (digits.empty() || digits.size() > 8) return "dword needs 1 to 8 hex digits";
        uint32_t value = 0;
        for (char16_t c : digits) {
            if (HexDigit(c) < 0) return "dword needs 1 to 8 hex digits";
            value = value * 16 + HexDigit(c);
        }
        v.type = REG_DWORD;
        for (int i = 0; i < 4; ++i) v.data.push_back(static_cast<uint8_t>(value >> (8 * i)));
        return {};
    }
    if (StartsWithNoCase(data, u"hex")) {
        size_t p = 3;
        v.type = REG_BINARY;
        if (p < data.size() && data[p] == u'(') {
            size_t close = data.find(u')', p);
            if (close == std::u16string::npos || close == p + 1 || close - p - 1 > 8) return "bad hex(type)";
            uint32_t type = 0;
            for (size_t i = p + 1; i < close; ++i) {
                if (HexDigit(data[i]) < 0) return "bad hex(type)";
                type = type * 16 + HexDigit(data[i]);
            }
            v.type = type;
            p = close + 1;
        }
        if (p >= data.size() || data[p] != u':') return "missing ':' after hex";
        if (!ParseHexList(std::u16string_view(data).substr(p + 1), v.data)) return "bad hex byte list";
        // REGEDIT4 files hold the strings of these types as ANSI bytes.
        if (ansi && (v.type == REG_SZ || v.type == REG_EXPAND_SZ || v.type == REG_MULTI_SZ)) {
            std::vector<uint8_t> wide;
            for (uint8_t b : v.data) wide.insert(wide.end(), {b, 0});
            v.data = std::move(wide);
        }
        return {};
    }
    return "unknown value data";
}

// ---- Loading ------------------------------------------------------------------

struct Loader {
    std::vector<std::string> errors;
    std::shared_ptr<Node> key;   // the section's key, null outside a section
    bool deletedSection = false; // inside a [-KEY] section: values are ignored
    bool ansi = false;

    void Error(size_t lineNo, const std::string& what) {
        errors.push_back("line " + std::to_string(lineNo) + ": " + what);
    }

    void Section(size_t lineNo, std::u16string_view inner) {
        key = nullptr;
        deletedSection = !inner.empty() && inner[0] == u'-';
        std::u16string path = Trim(deletedSection ? inner.substr(1) : inner);
        auto parts = path.empty() || path[0] == u'\\' ? std::nullopt : reg::SplitHostPath(text::ToUtf8(path));
        if (!parts) {
            Error(lineNo, "key path must start with HKEY_LOCAL_MACHINE or HKEY_USERS: " + text::ToUtf8(path));
            return;
        }
        std::lock_guard<std::mutex> guard(reg::Lock());
        if (deletedSection) {
            auto node = reg::Walk(*parts, false);
            if (node && !reg::IsHiveRoot(*node)) reg::DeleteTree(node);
            return;
        }
        key = reg::Walk(*parts, true);
    }

    void ValueLine(size_t lineNo, std::u16string_view line) {
        ParsedValue v;
        std::string problem = ParseValueLine(line, ansi, v);
        if (!problem.empty()) return Error(lineNo, problem);
        if (deletedSection) return;
        if (!key) return Error(lineNo, "value outside a key section");
        std::lock_guard<std::mutex> guard(reg::Lock());
        if (key->deleted) return;
        if (v.remove) {
            key->DeleteValue(v.name);
        } else {
            key->SetValue(v.name, v.type, std::move(v.data));
        }
    }

    void Run(const std::vector<std::u16string>& lines) {
        size_t i = 0;
        while (i < lines.size() && Trim(lines[i]).empty()) ++i;
        std::u16string header = i < lines.size() ? Trim(lines[i]) : u"";
        if (header == kHeader4) {
            ansi = true;
        } else if (header != kHeader5) {
            Error(i + 1, "not a registry file (expected \"Windows Registry Editor Version 5.00\" or \"REGEDIT4\")");
            return;
        }
        for (++i; i < lines.size(); ++i) {
            size_t lineNo = i + 1;
            std::u16string line = Trim(lines[i]);
            if (line.empty() || line[0] == u';') continue;
            if (line[0] == u'[') {
                if (line.back() != u']') {
                    Error(lineNo, "key line without closing ']'");
                    key = nullptr;
                    deletedSection = false;
                    continue;
                }
                Section(lineNo, std::u16string_view(line).substr(1, line.size() - 2));
                continue;
            }
            if (line[0] != u'"' && line[0] != u'@') {
                Error(lineNo, "unrecognised line");
                continue;
            }
            // A hex list continues while its line ends with a backslash.
            size_t eq = line.find(u"=hex");
            if (eq == std::u16string::npos) eq = line.find(u"=HEX");
            if (eq != std::u16string::npos) {
                while (!line.empty() && line.back() == u'\\' && i + 1 < lines.size()) {
                    line.pop_back();
                    line += Trim(lines[++i]);
                }
            }
            ValueLine(lineNo, line);
        }
    }
};

// ---- Writing --------------------------------------------------------------------

std::u16string Quote(std::u16string_view s) {
    std::u16string out = u"\"";
    for (char16_t c : s) {
        if (c == u'\\' || c == u'"') out.push_back(u'\\');
        out.push_back(c);
    }
    out.push_back(u'"');
    return out;
}

// REG_SZ data that a quoted string reproduces byte for byte.
bool IsPlainString(const reg::Value& v, std::u16string& s) {
    if (v.type != REG_SZ || v.data.size() < 2 || v.data.size() % 2 != 0) return false;
    for (size_t i = 0; i + 2 < v.data.size(); i += 2) {
        char16_t c = static_cast<char16_t>(v.data[i] | (v.data[i + 1] << 8));
        if (c == 0 || c == u'\r' || c == u'\n') return false;
        s.push_back(c);
    }
    return v.data[v.data.size() - 2] == 0 && v.data.back() == 0;
}

std::u16string Ascii(const std::string& s) { return std::u16string(s.begin(), s.end()); }

void WriteValue(const reg::Value& v, std::u16string& out) {
    std::u16string line = v.name.empty() ? u"@=" : Quote(v.name) + u"=";
    std::u16string s;
    if (IsPlainString(v, s)) {
        out += line + Quote(s) + u"\r\n";
        return;
    }
    if (v.type == REG_DWORD && v.data.size() == 4) {
        char buf[16];
        uint32_t d = v.data[0] | (v.data[1] << 8) | (v.data[2] << 16) | (static_cast<uint32_t>(v.data[3]) << 24);
        std::snprintf(buf, sizeof buf, "dword:%08x", d);
        out += line + Ascii(buf) + u"\r\n";
        return;
    }
    if (v.type == REG_BINARY) {
        line += u"hex:";
    } else {
        char buf[24];
        std::snprintf(buf, sizeof buf, "hex(%x):", v.type);
        line += Ascii(buf);
    }
    // Wrapped as regedit does: no line longer than 80 columns with its "\".
    for (size_t i = 0; i < v.data.size(); ++i) {
        char buf[4];
        std::snprintf(buf, sizeof buf, "%02x", v.data[i]);
        line += Ascii(buf);
        if (i + 1 == v.data.size()) break;
        line += u",";
        if (line.size() > 76) {
            out += line + u"\\\r\n";
            line = u"  ";
        }
    }
    out += line + u"\r\n";
}

std::u16string RegeditPath(const Node& node) {
    std::u16string path = reg::PathOf(node);  // \REGISTRY\MACHINE\...
    std::vector<std::u16string> parts;
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find(u'\\', start);
        if (end == std::u16string::npos) end = path.size();
        parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    std::u16string out = text::EqualNoCase(parts.at(1), u"USER") ? u"HKEY_USERS" : u"HKEY_LOCAL_MACHINE";
    for (size_t i = 2; i < parts.size(); ++i) out += u"\\" + parts[i];
    return out;
}

void WriteKey(const Node& node, std::u16string& out) {
    out += u"[" + RegeditPath(node) + u"]\r\n";
    for (const auto& v : node.values) WriteValue(v, out);
    out += u"\r\n";
    for (const auto& [key, child] : node.children) WriteKey(*child, out);
}

}  // namespace

RegFileResult RegLoadText(std::string_view fileBytes) {
    Loader loader;
    std::u16string textContent = Decode(fileBytes, loader.errors);
    loader.Run(SplitLines(textContent));
    return RegFileResult{std::move(loader.errors)};
}

RegFileResult RegLoadFile(const std::string& hostPath) {
    std::ifstream in(hostPath, std::ios::binary);
    if (!in) return RegFileResult{{"cannot open " + hostPath}};
    std::ostringstream content;
    content << in.rdbuf();
    return RegLoadText(content.str());
}

std::string RegExportText(std::string_view rootPath) {
    std::u16string out = std::u16string(kHeader5) + u"\r\n\r\n";
    {
        std::lock_guard<std::mutex> guard(reg::Lock());
        auto parts = reg::SplitHostPath(rootPath);
        if (parts) {
            if (auto node = reg::Walk(*parts, false)) WriteKey(*node, out);
        } else if (text::EqualNoCase(text::FromUtf8(rootPath), u"\\Registry")) {
            for (const auto& [key, hive] : reg::Root()->children) WriteKey(*hive, out);
        }
    }
    std::string bytes = "\xFF\xFE";
    for (char16_t c : out) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>(c >> 8));
    }
    return bytes;
}

bool RegSaveFile(const std::string& hostPath, std::string_view rootPath) {
    std::ofstream file(hostPath, std::ios::binary | std::ios::trunc);
    if (!file) return false;
    std::string bytes = RegExportText(rootPath);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

}  // namespace kvsim
