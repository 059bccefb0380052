// UTF conversions and name case folding for sim/kernel (see text.h).
#include "text.h"

namespace kvsim::text {

std::u16string FromUtf8(std::string_view s) {
    std::u16string out;
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        char32_t cp = 0xFFFD;
        size_t extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 99;
        if (extra == 0) {
            cp = c;
        } else if (extra != 99 && i + extra < s.size()) {
            cp = c & (0x3F >> extra);
            bool good = true;
            for (size_t k = 1; k <= extra; ++k) {
                unsigned char cc = static_cast<unsigned char>(s[i + k]);
                if ((cc & 0xC0) != 0x80) {
                    good = false;
                    break;
                }
                cp = (cp << 6) | (cc & 0x3F);
            }
            if (!good) {
                cp = 0xFFFD;
                extra = 0;
            }
        } else {
            extra = 0;
        }
        i += extra + 1;
        if (cp >= 0x10000 && cp <= 0x10FFFF) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp > 0x10FFFF ? 0xFFFD : cp));
        }
    }
    return out;
}

std::string ToUtf8(std::u16string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        char32_t cp = s[i];
        if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        }
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

char16_t Upcase(char16_t c) {
    if (c >= u'a' && c <= u'z') return c - 0x20;
    if (c < 0xE0) return c;
    if (c <= 0xFE) return c == 0xF7 ? c : c - 0x20;  // Latin-1, except the division sign
    if (c == 0xFF) return 0x178;
    if (c >= 0x100 && c <= 0x17F) {                  // Latin Extended-A: pairs, upper case first
        bool oddPairs = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
        if (oddPairs) return (c % 2 == 0) ? c - 1 : c;
        if (c == 0x131 || c == 0x138 || c == 0x149 || c == 0x17F) return c;
        return (c % 2 == 1) ? c - 1 : c;
    }
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return c - 0x20;  // Greek
    if (c >= 0x430 && c <= 0x44F) return c - 0x20;                // Cyrillic
    if (c >= 0x450 && c <= 0x45F) return c - 0x50;
    return c;
}

std::u16string Upcase(std::u16string_view s) {
    std::u16string out(s);
    for (auto& c : out) c = Upcase(c);
    return out;
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    return true;
}

std::u16string FromCounted(const UNICODE_STRING* s) {
    if (s == nullptr || s->Buffer == nullptr) return {};
    std::u16string out(s->Length / 2, u'\0');
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char16_t>(s->Buffer[i]);
    return out;
}

std::vector<uint8_t> Utf16Bytes(std::u16string_view s, bool terminate) {
    std::vector<uint8_t> out;
    out.reserve((s.size() + (terminate ? 1 : 0)) * 2);
    for (char16_t c : s) {
        out.push_back(static_cast<uint8_t>(c & 0xFF));
        out.push_back(static_cast<uint8_t>(c >> 8));
    }
    if (terminate) out.insert(out.end(), {0, 0});
    return out;
}

}  // namespace kvsim::text
