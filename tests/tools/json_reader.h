// A small JSON reader for the tests of kvcam's --json output: parses the
// whole text into a tree (objects keep their members in order, so tests can
// check the exact key list) or fails with the offset of the first error.
// Numbers are kept as their text and as a double; integers also as int64.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace jsonr {

struct Value {
    enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = Kind::kNull;
    bool boolean = false;
    std::string text;  // string value, or a number's literal text
    std::vector<Value> items;                          // array
    std::vector<std::pair<std::string, Value>> members;  // object, in order

    bool isNull() const { return kind == Kind::kNull; }
    const Value* Find(std::string_view key) const {
        for (const auto& m : members) {
            if (m.first == key) return &m.second;
        }
        return nullptr;
    }
    std::vector<std::string> Keys() const {
        std::vector<std::string> keys;
        for (const auto& m : members) keys.push_back(m.first);
        return keys;
    }
    bool isInteger() const { return kind == Kind::kNumber && text.find_first_of(".eE") == std::string::npos; }
    int64_t AsInt() const { return std::strtoll(text.c_str(), nullptr, 10); }
};

class Parser {
public:
    explicit Parser(std::string_view text) : s_(text) {}

    // The value that is the whole text (whitespace around it allowed).
    std::optional<Value> ParseDocument() {
        Value v;
        if (!ParseValue(&v)) return std::nullopt;
        SkipSpace();
        if (pos_ != s_.size()) return Fail("trailing text");
        return v;
    }
    const std::string& error() const { return error_; }

private:
    std::optional<Value> Fail(const char* what) {
        if (error_.empty()) error_ = std::string(what) + " at offset " + std::to_string(pos_);
        return std::nullopt;
    }
    bool FailB(const char* what) { Fail(what); return false; }
    void SkipSpace() {
        while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\n' || s_[pos_] == '\r' || s_[pos_] == '\t')) ++pos_;
    }
    bool Literal(std::string_view word) {
        if (s_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }
    bool ParseValue(Value* v) {
        SkipSpace();
        if (pos_ >= s_.size()) return FailB("unexpected end");
        char c = s_[pos_];
        if (c == '{') return ParseObject(v);
        if (c == '[') return ParseArray(v);
        if (c == '"') { v->kind = Value::Kind::kString; return ParseString(&v->text); }
        if (Literal("null")) { v->kind = Value::Kind::kNull; return true; }
        if (Literal("true")) { v->kind = Value::Kind::kBool; v->boolean = true; return true; }
        if (Literal("false")) { v->kind = Value::Kind::kBool; return true; }
        return ParseNumber(v);
    }
    bool ParseNumber(Value* v) {
        size_t start = pos_;
        if (pos_ < s_.size() && s_[pos_] == '-') ++pos_;
        size_t digits = pos_;
        while (pos_ < s_.size() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
        if (pos_ == digits) return FailB("bad value");
        if (s_[digits] == '0' && pos_ - digits > 1) return FailB("leading zero");
        if (pos_ < s_.size() && s_[pos_] == '.') {
            ++pos_;
            size_t frac = pos_;
            while (pos_ < s_.size() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
            if (pos_ == frac) return FailB("bad fraction");
        }
        if (pos_ < s_.size() && (s_[pos_] == 'e' || s_[pos_] == 'E')) {
            ++pos_;
            if (pos_ < s_.size() && (s_[pos_] == '+' || s_[pos_] == '-')) ++pos_;
            size_t exp = pos_;
            while (pos_ < s_.size() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
            if (pos_ == exp) return FailB("bad exponent");
        }
        v->kind = Value::Kind::kNumber;
        v->text = std::string(s_.substr(start, pos_ - start));
        return true;
    }
    bool ParseString(std::string* out) {
        ++pos_;  // opening quote
        while (pos_ < s_.size()) {
            char c = s_[pos_++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return FailB("control character in string");
            if (c != '\\') { *out += c; continue; }
            if (pos_ >= s_.size()) break;
            char e = s_[pos_++];
            switch (e) {
                case '"': case '\\': case '/': *out += e; break;
                case 'n': *out += '\n'; break;
                case 't': *out += '\t'; break;
                case 'r': *out += '\r'; break;
                case 'b': *out += '\b'; break;
                case 'f': *out += '\f'; break;
                case 'u': {
                    if (pos_ + 4 > s_.size()) return FailB("short \\u escape");
                    unsigned code = std::stoul(std::string(s_.substr(pos_, 4)), nullptr, 16);
                    pos_ += 4;
                    if (code >= 0x80) return FailB("non-ASCII \\u escape (not needed by these tests)");
                    *out += static_cast<char>(code);
                    break;
                }
                default: return FailB("bad escape");
            }
        }
        return FailB("unterminated string");
    }
    bool ParseArray(Value* v) {
        v->kind = Value::Kind::kArray;
        ++pos_;
        SkipSpace();
        if (pos_ < s_.size() && s_[pos_] == ']') { ++pos_; return true; }
        for (;;) {
            Value item;
            if (!ParseValue(&item)) return false;
            v->items.push_back(std::move(item));
            SkipSpace();
            if (pos_ < s_.size() && s_[pos_] == ',') { ++pos_; continue; }
            if (pos_ < s_.size() && s_[pos_] == ']') { ++pos_; return true; }
            return FailB("expected , or ]");
        }
    }
    bool ParseObject(Value* v) {
        v->kind = Value::Kind::kObject;
        ++pos_;
        SkipSpace();
        if (pos_ < s_.size() && s_[pos_] == '}') { ++pos_; return true; }
        for (;;) {
            SkipSpace();
            if (pos_ >= s_.size() || s_[pos_] != '"') return FailB("expected key");
            std::string key;
            if (!ParseString(&key)) return false;
            if (v->Find(key) != nullptr) return FailB("duplicate key");
            SkipSpace();
            if (pos_ >= s_.size() || s_[pos_] != ':') return FailB("expected :");
            ++pos_;
            Value member;
            if (!ParseValue(&member)) return false;
            v->members.emplace_back(std::move(key), std::move(member));
            SkipSpace();
            if (pos_ < s_.size() && s_[pos_] == ',') { ++pos_; continue; }
            if (pos_ < s_.size() && s_[pos_] == '}') { ++pos_; return true; }
            return FailB("expected , or }");
        }
    }

    std::string_view s_;
    size_t pos_ = 0;
    std::string error_;
};

inline std::optional<Value> Parse(std::string_view text, std::string* error = nullptr) {
    Parser p(text);
    std::optional<Value> v = p.ParseDocument();
    if (!v && error) *error = p.error();
    return v;
}

}  // namespace jsonr
