// Text helpers shared by the simulated registry and file system: UTF-8 <->
// UTF-16 conversion and the case folding that Windows applies to registry and
// file names (RtlUpcaseUnicodeChar). Internal to sim/kernel.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "kv/ntbase.h"

namespace kvsim::text {

std::u16string FromUtf8(std::string_view utf8);
std::string ToUtf8(std::u16string_view utf16);

// Upper case of one UTF-16 unit: ASCII, Latin-1, Latin Extended-A, Greek and
// Cyrillic letters (the ranges a name in practice uses; the full Windows
// upcase table is larger).
char16_t Upcase(char16_t c);
std::u16string Upcase(std::u16string_view s);
bool EqualNoCase(std::u16string_view a, std::u16string_view b);

// The characters of a counted string (Length is in bytes); an odd Length
// drops its last byte.
std::u16string FromCounted(const UNICODE_STRING* s);

// The little-endian bytes of a UTF-16 string, as REG_SZ data stores them,
// with a terminating NUL unit when `terminate` is set.
std::vector<uint8_t> Utf16Bytes(std::u16string_view s, bool terminate);

}  // namespace kvsim::text
