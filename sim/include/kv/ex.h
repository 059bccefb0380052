// Simulated Windows kernel headers: the executive's pool allocator (wdm.h's
// ExAllocatePoolWithTag family). Implemented in sim/kernel/ex/pool.cpp; tests
// inspect and steer it through kvsim/pool.h.
#pragma once
#include "kv/ntbase.h"

// POOL_TYPE as wdm.h numbers it. Only "paged or not" matters to the
// simulation (for the IRQL rules); every block is one host allocation.
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool = 1,
    NonPagedPoolMustSucceed = NonPagedPool + 2,
    DontUseThisType = 3,
    NonPagedPoolCacheAligned = NonPagedPool + 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolCacheAlignedMustS = NonPagedPool + 6,
    MaxPoolType = 7,
    NonPagedPoolBase = 0,
    NonPagedPoolBaseMustSucceed = NonPagedPoolBase + 2,
    NonPagedPoolBaseCacheAligned = NonPagedPoolBase + 4,
    NonPagedPoolBaseCacheAlignedMustS = NonPagedPoolBase + 6,
    NonPagedPoolSession = 32,
    PagedPoolSession = NonPagedPoolSession + 1,
    NonPagedPoolMustSucceedSession = PagedPoolSession + 1,
    DontUseThisTypeSession = NonPagedPoolMustSucceedSession + 1,
    NonPagedPoolCacheAlignedSession = DontUseThisTypeSession + 1,
    PagedPoolCacheAlignedSession = NonPagedPoolCacheAlignedSession + 1,
    NonPagedPoolCacheAlignedMustSSession = PagedPoolCacheAlignedSession + 1,
    NonPagedPoolNx = 512,
    NonPagedPoolNxCacheAligned = NonPagedPoolNx + 4,
    NonPagedPoolSessionNx = NonPagedPoolNx + 32,
} POOL_TYPE;

// Modifier bits a caller may OR into PoolType (wdm.h).
#define POOL_COLD_ALLOCATION 256
#define POOL_NX_ALLOCATION 512
#define POOL_QUOTA_FAIL_INSTEAD_OF_RAISE 8
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16

// ExAllocatePool2's flags (the Windows 10 2004 replacement): the simulation
// honours POOL_FLAG_PAGED / NON_PAGED and zeroes unless UNINITIALIZED.
typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_REQUIRED_START 0x0000000000000001ULL
#define POOL_FLAG_USE_QUOTA 0x0000000000000001ULL
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_SESSION 0x0000000000000004ULL
#define POOL_FLAG_CACHE_ALIGNED 0x0000000000000008ULL
#define POOL_FLAG_RAISE_ON_FAILURE 0x0000000000000020ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL

KV_EXTERN_C_BEGIN
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePoolWithQuotaTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);
VOID ExFreePoolWithTag(PVOID P, ULONG Tag);
VOID ExFreePool(PVOID P);
// ExAllocatePool exists as an export too; wdm.h maps it to the tagged form
// with the tag 'enoN' (reads "None" in memory and in pool tools), as here.
PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
KV_EXTERN_C_END

// 0x656E6F4E == 'enoN' (spelt as a number: multi-character literals warn).
#define ExAllocatePool(type, size) ExAllocatePoolWithTag((type), (size), 0x656E6F4EUL)
