// Simulated Windows kernel headers: the run-time library's share of wdm.h
// (counted strings, integer conversion, memory helpers). Implemented in
// sim/kernel/rtl/rtl.cpp with the simulation's own loops: WCHAR is 2 bytes and
// the host's wide-character library cannot be used on it.
#pragma once
#include "kv/ntbase.h"

typedef const char* PCSZ;
typedef const STRING* PCSTRING;
typedef const ANSI_STRING* PCANSI_STRING;

#define UNICODE_STRING_MAX_BYTES ((USHORT)65534)
#define UNICODE_STRING_MAX_CHARS (32767)

// A UNICODE_STRING or STRING over a literal: RTL_CONSTANT_STRING(L"abc").
#ifdef __cplusplus
template <size_t N>
constexpr UNICODE_STRING KvConstantString(const WCHAR (&s)[N]) {
    return UNICODE_STRING{(USHORT)((N - 1) * sizeof(WCHAR)), (USHORT)(N * sizeof(WCHAR)), const_cast<PWSTR>(s)};
}
template <size_t N>
constexpr STRING KvConstantString(const CHAR (&s)[N]) {
    return STRING{(USHORT)(N - 1), (USHORT)N, const_cast<PCHAR>(s)};
}
#define RTL_CONSTANT_STRING(s) KvConstantString(s)
#endif
#define DECLARE_CONST_UNICODE_STRING(_var, _string) \
    const WCHAR _var##_buffer[] = _string;           \
    const UNICODE_STRING _var = {sizeof(_string) - sizeof(WCHAR), sizeof(_string), (PWCH)_var##_buffer}

#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlSecureZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlCopyBytes RtlCopyMemory
#define RtlZeroBytes RtlZeroMemory
#define RtlFillBytes RtlFillMemory

FORCEINLINE VOID RtlInitEmptyUnicodeString(PUNICODE_STRING UnicodeString, PWCHAR Buffer, USHORT BufferSize) {
    UnicodeString->Length = 0;
    UnicodeString->MaximumLength = BufferSize;
    UnicodeString->Buffer = Buffer;
}

KV_EXTERN_C_BEGIN
VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
VOID RtlInitString(PSTRING DestinationString, PCSZ SourceString);
VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
// Conversions that allocate (AllocateDestinationString TRUE) take the buffer
// from pool; RtlFreeUnicodeString / RtlFreeAnsiString return it.
NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, const ANSI_STRING* SourceString,
                                      BOOLEAN AllocateDestinationString);
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString);
VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
VOID RtlFreeAnsiString(PANSI_STRING AnsiString);
SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);
// The XSTATE_MASK_* features the system has enabled (ntddk.h), of those in
// FeatureMask; 0 when the system does not use XSAVE.
ULONG64 RtlGetEnabledExtendedFeatures(ULONG64 FeatureMask);
KV_EXTERN_C_END
