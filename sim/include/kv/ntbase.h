// Simulated Windows kernel headers: the base types, status codes and small
// records that every other header of the simulation uses (ntdef.h's share of
// the WDK). Layouts are those of Windows x64: LONG and ULONG are 32-bit,
// pointers and ULONG_PTR 64-bit, WCHAR 16-bit (the host build compiles with
// -fshort-wchar, see cmake/KvHost.cmake).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#if !defined(__SIZEOF_WCHAR_T__) || __SIZEOF_WCHAR_T__ != 2
#error "the simulation needs a 2-byte wchar_t: compile with -fshort-wchar"
#endif

#ifdef __cplusplus
#define KV_EXTERN_C extern "C"
#define KV_EXTERN_C_BEGIN extern "C" {
#define KV_EXTERN_C_END }
#else
#define KV_EXTERN_C
#define KV_EXTERN_C_BEGIN
#define KV_EXTERN_C_END
#endif

// Calling-convention and annotation macros are empty on x64 Windows too.
#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define NTHALAPI
#define DECLSPEC_IMPORT
#define STDMETHODCALLTYPE
#define __stdcall
#define __cdecl
#define __fastcall
#define FASTCALL
#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define FORCEINLINE static inline __attribute__((always_inline))
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))

#ifndef NULL
#define NULL 0
#endif
#define TRUE 1
#define FALSE 0

typedef void VOID, *PVOID, **PPVOID;
typedef const void* PCVOID;
typedef char CHAR, *PCHAR, *PSTR, *LPSTR;
typedef const char *PCSTR, *PCCH, *LPCSTR;
typedef signed char SCHAR, *PSCHAR;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE, BOOLEAN, *PBOOLEAN;
typedef char CCHAR;
typedef int16_t SHORT, *PSHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD, *PWORD;
typedef int32_t LONG, *PLONG, INT, *PINT, LONG32, *PLONG32, BOOL;
typedef uint32_t ULONG, *PULONG, UINT, *PUINT, DWORD, *PDWORD, ULONG32, *PULONG32;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, *PLONG64, INT64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, *PULONG64, DWORD64, UINT64;
typedef int64_t LONG_PTR, *PLONG_PTR, INT_PTR, SSIZE_T;
typedef uint64_t ULONG_PTR, *PULONG_PTR, UINT_PTR, SIZE_T, *PSIZE_T, DWORD_PTR, KAFFINITY;
typedef float FLOAT;
typedef double DOUBLE;
typedef wchar_t WCHAR, *PWCHAR, *PWCH, *PWSTR, *LPWSTR;
typedef const wchar_t *PCWSTR, *PCWCH, *LPCWSTR;
typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef LONG KPRIORITY;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG LOGICAL;
typedef CCHAR KPROCESSOR_MODE;

static_assert(sizeof(LONG) == 4 && sizeof(ULONG) == 4, "Windows x64 LONG is 32-bit");
static_assert(sizeof(ULONG_PTR) == 8 && sizeof(PVOID) == 8, "x64 only");
static_assert(sizeof(WCHAR) == 2, "WCHAR is 16-bit");

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _UNICODE_STRING {
    USHORT Length;         // bytes, without a terminator
    USHORT MaximumLength;  // bytes
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PANSI_STRING, *PSTRING;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID, *LPGUID, CLSID, IID;
typedef const GUID *LPCGUID, *REFGUID_PTR;
#ifdef __cplusplus
typedef const GUID& REFGUID;
typedef const GUID& REFIID;
typedef const GUID& REFCLSID;
#else
typedef const GUID* REFGUID;
#endif

// As guiddef.h: IsEqualGUID takes references in C++ and pointers in C.
#ifdef __cplusplus
static inline bool IsEqualGUID(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }
static inline bool operator==(const GUID& a, const GUID& b) { return IsEqualGUID(a, b); }
static inline bool operator!=(const GUID& a, const GUID& b) { return !IsEqualGUID(a, b); }
#else
#define IsEqualGUID(a, b) (memcmp((a), (b), sizeof(GUID)) == 0)
#endif

// DEFINE_GUID defines the GUID where INITGUID is set (as guiddef.h does) and
// declares it elsewhere; the simulation defines them inline so that every
// translation unit may use them without a guid library.
#ifdef __cplusplus
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    inline constexpr GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    static const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#endif

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;
static_assert(sizeof(IO_STATUS_BLOCK) == 16, "IO_STATUS_BLOCK x64 layout");

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
static_assert(sizeof(OBJECT_ATTRIBUTES) == 48, "OBJECT_ATTRIBUTES x64 layout");

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
// Access checks as for a user-mode caller even on a kernel handle; the
// simulation has one user, who may open everything it maps.
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define CONTAINING_RECORD(address, type, field) ((type*)((PCHAR)(address) - (ULONG_PTR)(&((type*)0)->field)))
#define ARGUMENT_PRESENT(p) ((CHAR*)((ULONG_PTR)(p)) != (CHAR*)(NULL))
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment)-1))
#define ALIGN_UP_BY(length, alignment) (ALIGN_DOWN_BY(((ULONG_PTR)(length) + (alignment)-1), alignment))
#define MAKEFOURCC(a, b, c, d) \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | ((ULONG)(UCHAR)(d) << 24))

#define KernelMode 0
#define UserMode 1

// ---- NTSTATUS values (ntstatus.h) -----------------------------------------
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_WAIT_0 ((NTSTATUS)0x00000000L)
#define STATUS_WAIT_1 ((NTSTATUS)0x00000001L)
#define STATUS_WAIT_63 ((NTSTATUS)0x0000003FL)
#define STATUS_ABANDONED ((NTSTATUS)0x00000080L)
#define STATUS_ABANDONED_WAIT_0 ((NTSTATUS)0x00000080L)
#define STATUS_USER_APC ((NTSTATUS)0x000000C0L)
#define STATUS_ALERTED ((NTSTATUS)0x00000101L)
#define STATUS_TIMEOUT ((NTSTATUS)0x00000102L)
#define STATUS_PENDING ((NTSTATUS)0x00000103L)
#define STATUS_REPARSE ((NTSTATUS)0x00000104L)
#define STATUS_MORE_ENTRIES ((NTSTATUS)0x00000105L)
#define STATUS_NOT_ALL_ASSIGNED ((NTSTATUS)0x00000106L)
#define STATUS_SOME_NOT_MAPPED ((NTSTATUS)0x00000107L)
#define STATUS_BUFFER_OVERFLOW ((NTSTATUS)0x80000005L)
#define STATUS_NO_MORE_FILES ((NTSTATUS)0x80000006L)
#define STATUS_NO_MORE_ENTRIES ((NTSTATUS)0x8000001AL)
#define STATUS_UNSUCCESSFUL ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED ((NTSTATUS)0xC0000002L)
#define STATUS_INVALID_INFO_CLASS ((NTSTATUS)0xC0000003L)
#define STATUS_INFO_LENGTH_MISMATCH ((NTSTATUS)0xC0000004L)
#define STATUS_ACCESS_VIOLATION ((NTSTATUS)0xC0000005L)
#define STATUS_INVALID_HANDLE ((NTSTATUS)0xC0000008L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_NO_SUCH_DEVICE ((NTSTATUS)0xC000000EL)
#define STATUS_NO_SUCH_FILE ((NTSTATUS)0xC000000FL)
#define STATUS_INVALID_DEVICE_REQUEST ((NTSTATUS)0xC0000010L)
#define STATUS_END_OF_FILE ((NTSTATUS)0xC0000011L)
#define STATUS_NO_MEMORY ((NTSTATUS)0xC0000017L)
#define STATUS_ACCESS_DENIED ((NTSTATUS)0xC0000022L)
#define STATUS_BUFFER_TOO_SMALL ((NTSTATUS)0xC0000023L)
#define STATUS_OBJECT_TYPE_MISMATCH ((NTSTATUS)0xC0000024L)
#define STATUS_OBJECT_NAME_INVALID ((NTSTATUS)0xC0000033L)
#define STATUS_OBJECT_NAME_NOT_FOUND ((NTSTATUS)0xC0000034L)
#define STATUS_OBJECT_NAME_COLLISION ((NTSTATUS)0xC0000035L)
#define STATUS_OBJECT_PATH_INVALID ((NTSTATUS)0xC0000039L)
#define STATUS_OBJECT_PATH_NOT_FOUND ((NTSTATUS)0xC000003AL)
#define STATUS_OBJECT_PATH_SYNTAX_BAD ((NTSTATUS)0xC000003BL)
#define STATUS_DATA_ERROR ((NTSTATUS)0xC000003EL)
#define STATUS_SHARING_VIOLATION ((NTSTATUS)0xC0000043L)
#define STATUS_DELETE_PENDING ((NTSTATUS)0xC0000056L)
#define STATUS_MUTANT_NOT_OWNED ((NTSTATUS)0xC0000046L)
#define STATUS_SEMAPHORE_LIMIT_EXCEEDED ((NTSTATUS)0xC0000047L)
#define STATUS_INSUFFICIENT_RESOURCES ((NTSTATUS)0xC000009AL)
#define STATUS_DEVICE_DATA_ERROR ((NTSTATUS)0xC000009CL)
#define STATUS_DEVICE_NOT_CONNECTED ((NTSTATUS)0xC000009DL)
#define STATUS_FILE_IS_A_DIRECTORY ((NTSTATUS)0xC00000BAL)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define STATUS_IO_TIMEOUT ((NTSTATUS)0xC00000B5L)
#define STATUS_DEVICE_BUSY ((NTSTATUS)0x80000011L)
#define STATUS_INTERNAL_ERROR ((NTSTATUS)0xC00000E5L)
#define STATUS_INVALID_PARAMETER_1 ((NTSTATUS)0xC00000EFL)
#define STATUS_INVALID_PARAMETER_2 ((NTSTATUS)0xC00000F0L)
#define STATUS_INVALID_PARAMETER_3 ((NTSTATUS)0xC00000F1L)
#define STATUS_CANCELLED ((NTSTATUS)0xC0000120L)
#define STATUS_NOT_FOUND ((NTSTATUS)0xC0000225L)
#define STATUS_INVALID_DEVICE_STATE ((NTSTATUS)0xC0000184L)
#define STATUS_DEVICE_REMOVED ((NTSTATUS)0xC00002B6L)
#define STATUS_DEVICE_POWER_FAILURE ((NTSTATUS)0xC000028EL)
#define STATUS_POWER_STATE_INVALID ((NTSTATUS)0xC00002D3L)
#define STATUS_INVALID_BUFFER_SIZE ((NTSTATUS)0xC0000206L)
#define STATUS_PROPERTY_SET_NOT_FOUND ((NTSTATUS)0xC0000435L)
#define STATUS_MORE_PROCESSING_REQUIRED ((NTSTATUS)0xC0000016L)
#define STATUS_CONNECTION_REFUSED ((NTSTATUS)0xC0000236L)
#define STATUS_NO_MATCH ((NTSTATUS)0xC0000272L)
#define STATUS_INVALID_USER_BUFFER ((NTSTATUS)0xC00000E8L)
#define STATUS_DEVICE_NOT_READY ((NTSTATUS)0xC00000A3L)
#define STATUS_DEVICE_CONFIGURATION_ERROR ((NTSTATUS)0xC0000182L)
#define STATUS_ALLOTTED_SPACE_EXCEEDED ((NTSTATUS)0xC0000099L)
