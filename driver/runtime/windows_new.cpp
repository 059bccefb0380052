// Kernel C++ runtime of kvdrv.sys (Windows target only; the host build leaves
// runtime/windows_*.cpp out and uses the C++ library's allocator instead):
// every global operator new / delete that g++ may call, on the non-paged
// pool.
//
// Decisions:
//  - Pool tag "KVnw" for everything allocated by a plain global new (every
//    tag of the driver begins with "KV", so poolmon shows the driver's use
//    at a glance; objects that need their own tag use the driver's tagged
//    allocation instead).
//  - NonPagedPoolNx: objects may be touched at DISPATCH_LEVEL (spin locks,
//    completion routines), and data must not be executable (NX pool exists
//    from Windows 8 on; Windows 7 would need NonPagedPool instead).
//    https://learn.microsoft.com/windows-hardware/drivers/kernel/no-execute-nonpaged-pool
//  - new returns null on failure instead of throwing (-fno-exceptions); the
//    driver is compiled with -fcheck-new so that g++ tests the result before
//    running a constructor, and every caller checks it.
//  - Over-aligned types (alignof > 16, C++17 align_val_t forms): the pool
//    only guarantees 16-byte alignment on x64, so these over-allocate, align
//    inside the block and keep the pool's pointer just below the object.
#include "wdk.h"
#include "pooltag.h"
#include <new>

namespace {

constexpr ULONG kNewTag = kv::kTagNew;

// The pool's own alignment on x64 (MEMORY_ALLOCATION_ALIGNMENT).
constexpr SIZE_T kPoolAlignment = 16;

void* AllocateFromPool(SIZE_T cb)
{
    // operator new(0) must return a distinct pointer: ask for one byte.
    return ExAllocatePoolWithTag(NonPagedPoolNx, cb == 0 ? 1 : cb, kNewTag);
}

void FreeToPool(void* p)
{
    if (p != nullptr) {
        ExFreePoolWithTag(p, kNewTag);
    }
}

void* AllocateAligned(SIZE_T cb, SIZE_T alignment)
{
    if (alignment <= kPoolAlignment) {
        return AllocateFromPool(cb);
    }
    // Room for the alignment slack and the saved pool pointer; refuse sizes
    // whose total would wrap.
    SIZE_T extra = alignment + sizeof(void*);
    if (cb > static_cast<SIZE_T>(-1) - extra) {
        return nullptr;
    }
    void* pBlock = AllocateFromPool(cb + extra);
    if (pBlock == nullptr) {
        return nullptr;
    }
    ULONG_PTR base = reinterpret_cast<ULONG_PTR>(pBlock) + sizeof(void*);
    ULONG_PTR aligned = (base + alignment - 1) & ~(static_cast<ULONG_PTR>(alignment) - 1);
    reinterpret_cast<void**>(aligned)[-1] = pBlock;
    return reinterpret_cast<void*>(aligned);
}

void FreeAligned(void* p, SIZE_T alignment)
{
    if (p == nullptr) {
        return;
    }
    FreeToPool(alignment <= kPoolAlignment ? p : static_cast<void**>(p)[-1]);
}

}  // namespace

// Plain forms.
void* operator new(std::size_t cb) { return AllocateFromPool(cb); }
void* operator new[](std::size_t cb) { return AllocateFromPool(cb); }
void* operator new(std::size_t cb, const std::nothrow_t&) noexcept { return AllocateFromPool(cb); }
void* operator new[](std::size_t cb, const std::nothrow_t&) noexcept { return AllocateFromPool(cb); }

void operator delete(void* p) noexcept { FreeToPool(p); }
void operator delete[](void* p) noexcept { FreeToPool(p); }
void operator delete(void* p, std::size_t) noexcept { FreeToPool(p); }
void operator delete[](void* p, std::size_t) noexcept { FreeToPool(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { FreeToPool(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { FreeToPool(p); }

// Over-aligned forms (C++17).
void* operator new(std::size_t cb, std::align_val_t al) { return AllocateAligned(cb, static_cast<SIZE_T>(al)); }
void* operator new[](std::size_t cb, std::align_val_t al) { return AllocateAligned(cb, static_cast<SIZE_T>(al)); }
void* operator new(std::size_t cb, std::align_val_t al, const std::nothrow_t&) noexcept
{
    return AllocateAligned(cb, static_cast<SIZE_T>(al));
}
void* operator new[](std::size_t cb, std::align_val_t al, const std::nothrow_t&) noexcept
{
    return AllocateAligned(cb, static_cast<SIZE_T>(al));
}

void operator delete(void* p, std::align_val_t al) noexcept { FreeAligned(p, static_cast<SIZE_T>(al)); }
void operator delete[](void* p, std::align_val_t al) noexcept { FreeAligned(p, static_cast<SIZE_T>(al)); }
void operator delete(void* p, std::size_t, std::align_val_t al) noexcept { FreeAligned(p, static_cast<SIZE_T>(al)); }
void operator delete[](void* p, std::size_t, std::align_val_t al) noexcept { FreeAligned(p, static_cast<SIZE_T>(al)); }
void operator delete(void* p, std::align_val_t al, const std::nothrow_t&) noexcept
{
    FreeAligned(p, static_cast<SIZE_T>(al));
}
void operator delete[](void* p, std::align_val_t al, const std::nothrow_t&) noexcept
{
    FreeAligned(p, static_cast<SIZE_T>(al));
}
