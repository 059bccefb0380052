// The simulated run-time library: counted strings, integer conversion and
// RtlCompareMemory. WCHAR is 2 bytes (-fshort-wchar), so every string routine
// is a loop of its own; the host's wcs* functions assume 4 bytes.
//
// Behaviour as documented on learn.microsoft.com/windows-hardware/drivers/ddi/
// wdm/ (nf-wdm-rtl...): lengths are in bytes and exclude the terminator; the
// copy and append routines add a terminating null only when the destination
// has room for it; RtlCopyUnicodeString truncates to the destination's
// MaximumLength; the append routines fail with STATUS_BUFFER_TOO_SMALL and
// leave the destination unchanged; RtlIntegerToUnicodeString accepts bases
// 2, 8, 10 and 16 (0 means 10) and fails with STATUS_BUFFER_OVERFLOW when the
// digits do not fit; RtlUnicodeStringToInteger skips leading blanks, takes a
// sign and, for base 0, a 0x/0o/0b prefix, and stops at the first character
// that is not a digit of the base.
#include <cstring>

#include "kv/ex.h"
#include "kv/rtl.h"
#include "kvsim/pool.h"

namespace {

// The pool tag of strings the Rtl conversions allocate ("Strg").
const ULONG kStringTag = kvsim::PoolTag("Strg");

size_t WideLength(PCWSTR s) {
    size_t n = 0;
    while (s[n] != 0) ++n;
    return n;
}

size_t Chars(const UNICODE_STRING* s) { return s->Length / sizeof(WCHAR); }

// Appends `count` characters to `dest` when they fit; adds a terminator
// when there is room for one after them.
NTSTATUS AppendChars(PUNICODE_STRING dest, const WCHAR* src, size_t count) {
    size_t bytes = count * sizeof(WCHAR);
    if (dest->Length + bytes > dest->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    std::memmove(reinterpret_cast<UCHAR*>(dest->Buffer) + dest->Length, src, bytes);
    dest->Length = static_cast<USHORT>(dest->Length + bytes);
    if (dest->Length + sizeof(WCHAR) <= dest->MaximumLength) dest->Buffer[Chars(dest)] = 0;
    return STATUS_SUCCESS;
}

int DigitValue(WCHAR c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'z') return c - L'a' + 10;
    if (c >= L'A' && c <= L'Z') return c - L'A' + 10;
    return 99;
}

}  // namespace

extern "C" VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = WideLength(SourceString) * sizeof(WCHAR);
    if (bytes > UNICODE_STRING_MAX_BYTES - sizeof(WCHAR)) bytes = UNICODE_STRING_MAX_BYTES - sizeof(WCHAR);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

extern "C" VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t n = std::strlen(SourceString);
    if (n > 0xFFFE) n = 0xFFFE;
    DestinationString->Length = static_cast<USHORT>(n);
    DestinationString->MaximumLength = static_cast<USHORT>(n + 1);
}

extern "C" VOID RtlInitString(PSTRING DestinationString, PCSZ SourceString) {
    RtlInitAnsiString(DestinationString, SourceString);
}

extern "C" VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = SourceString->Length < DestinationString->MaximumLength ? SourceString->Length
                                                                           : DestinationString->MaximumLength;
    bytes &= ~static_cast<USHORT>(1);
    std::memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength) DestinationString->Buffer[bytes / sizeof(WCHAR)] = 0;
}

extern "C" NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    if (Source == nullptr) return STATUS_SUCCESS;
    return AppendChars(Destination, Source, WideLength(Source));
}

extern "C" NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return AppendChars(Destination, Source->Buffer, Chars(Source));
}

// Simple case mapping: ASCII, Latin-1 (except the two characters whose
// upper case lies outside it), Greek and Cyrillic basic letters.
extern "C" WCHAR RtlUpcaseUnicodeChar(WCHAR c) {
    if (c >= L'a' && c <= L'z') return static_cast<WCHAR>(c - 0x20);
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<WCHAR>(c - 0x20);
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return static_cast<WCHAR>(c - 0x20);
    if (c >= 0x430 && c <= 0x44F) return static_cast<WCHAR>(c - 0x20);
    if (c >= 0x450 && c <= 0x45F) return static_cast<WCHAR>(c - 0x50);
    return c;
}

extern "C" LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                        BOOLEAN CaseInSensitive) {
    size_t n1 = Chars(String1), n2 = Chars(String2);
    size_t n = n1 < n2 ? n1 : n2;
    for (size_t i = 0; i < n; ++i) {
        WCHAR a = String1->Buffer[i], b = String2->Buffer[i];
        if (CaseInSensitive) {
            a = RtlUpcaseUnicodeChar(a);
            b = RtlUpcaseUnicodeChar(b);
        }
        if (a != b) return static_cast<LONG>(a) - static_cast<LONG>(b);
    }
    return static_cast<LONG>(n1) - static_cast<LONG>(n2);
}

extern "C" BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                         BOOLEAN CaseInSensitive) {
    if (String1->Length != String2->Length) return FALSE;
    return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

extern "C" NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    if (Base == 0) Base = 10;
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) return STATUS_INVALID_PARAMETER;
    WCHAR digits[33];
    size_t n = 0;
    do {
        ULONG d = Value % Base;
        digits[n++] = static_cast<WCHAR>(d < 10 ? L'0' + d : L'A' + d - 10);
        Value /= Base;
    } while (Value != 0);
    if (n * sizeof(WCHAR) > String->MaximumLength) return STATUS_BUFFER_OVERFLOW;
    for (size_t i = 0; i < n; ++i) String->Buffer[i] = digits[n - 1 - i];
    String->Length = static_cast<USHORT>(n * sizeof(WCHAR));
    if (String->Length + sizeof(WCHAR) <= String->MaximumLength) String->Buffer[n] = 0;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
    if (Base != 0 && Base != 2 && Base != 8 && Base != 10 && Base != 16) return STATUS_INVALID_PARAMETER;
    const WCHAR* p = String->Buffer;
    size_t n = Chars(String), i = 0;
    while (i < n && (p[i] == L' ' || p[i] == L'\t')) ++i;
    bool negative = false;
    if (i < n && (p[i] == L'-' || p[i] == L'+')) negative = p[i++] == L'-';
    if (Base == 0) {
        Base = 10;
        if (i + 1 < n && p[i] == L'0') {
            WCHAR prefix = p[i + 1];
            ULONG prefixed = prefix == L'x' ? 16 : prefix == L'o' ? 8 : prefix == L'b' ? 2 : 0;
            if (prefixed != 0) {
                Base = prefixed;
                i += 2;
            }
        }
    }
    ULONG result = 0;
    for (; i < n; ++i) {
        int d = DigitValue(p[i]);
        if (d >= static_cast<int>(Base)) break;
        result = result * Base + static_cast<ULONG>(d);
    }
    *Value = negative ? static_cast<ULONG>(0u - result) : result;
    return STATUS_SUCCESS;
}

// Characters above 0x7F become '?' (the simulation has no code pages).
extern "C" NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                                 BOOLEAN AllocateDestinationString) {
    size_t n = Chars(SourceString);
    if (AllocateDestinationString) {
        DestinationString->Buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, n + 1, kStringTag));
        if (DestinationString->Buffer == nullptr) return STATUS_NO_MEMORY;
        DestinationString->MaximumLength = static_cast<USHORT>(n + 1);
    } else if (n > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < n; ++i) {
        WCHAR c = SourceString->Buffer[i];
        DestinationString->Buffer[i] = c < 0x80 ? static_cast<CHAR>(c) : '?';
    }
    DestinationString->Length = static_cast<USHORT>(n);
    if (n < DestinationString->MaximumLength) DestinationString->Buffer[n] = 0;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, const ANSI_STRING* SourceString,
                                                 BOOLEAN AllocateDestinationString) {
    size_t n = SourceString->Length;
    size_t bytes = n * sizeof(WCHAR);
    if (bytes > UNICODE_STRING_MAX_BYTES - sizeof(WCHAR)) return STATUS_INVALID_PARAMETER_2;
    if (AllocateDestinationString) {
        DestinationString->Buffer =
            static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), kStringTag));
        if (DestinationString->Buffer == nullptr) return STATUS_NO_MEMORY;
        DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < n; ++i) {
        DestinationString->Buffer[i] = static_cast<WCHAR>(static_cast<UCHAR>(SourceString->Buffer[i]));
    }
    DestinationString->Length = static_cast<USHORT>(bytes);
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength) DestinationString->Buffer[n] = 0;
    return STATUS_SUCCESS;
}

extern "C" VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer != nullptr) ExFreePoolWithTag(UnicodeString->Buffer, kStringTag);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

extern "C" VOID RtlFreeAnsiString(PANSI_STRING AnsiString) {
    if (AnsiString->Buffer != nullptr) ExFreePoolWithTag(AnsiString->Buffer, kStringTag);
    AnsiString->Buffer = nullptr;
    AnsiString->Length = AnsiString->MaximumLength = 0;
}

extern "C" SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length) {
    auto a = static_cast<const UCHAR*>(Source1);
    auto b = static_cast<const UCHAR*>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i]) ++i;
    return i;
}
