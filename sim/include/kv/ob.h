// Simulated Windows kernel headers: the object manager's share. Handles are
// kernel handles (OBJ_KERNEL_HANDLE values, as ZwXxx callers in a driver get);
// one handle table serves threads, registry keys and files, so ZwClose closes
// any of them.
#pragma once
#include "kv/ntbase.h"

typedef struct _OBJECT_TYPE* POBJECT_TYPE;
typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

KV_EXTERN_C_BEGIN
extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* ExEventObjectType;
extern POBJECT_TYPE* CmKeyObjectType;

NTSTATUS ZwClose(HANDLE Handle);
NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation);
LONG_PTR ObfReferenceObject(PVOID Object);
LONG_PTR ObfDereferenceObject(PVOID Object);
KV_EXTERN_C_END

#define ObReferenceObject(o) ObfReferenceObject(o)
#define ObDereferenceObject(o) ObfDereferenceObject(o)
