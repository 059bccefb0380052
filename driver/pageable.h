// Pageable routines call this on entry. Above APC_LEVEL a page fault cannot
// be served, so the call prints "EX: Pageable code called at IRQL %d\n" and
// answers true; the routine goes on, as PAGED_CODE's check is a diagnostic.
// https://learn.microsoft.com/windows-hardware/drivers/kernel/paged-code
#pragma once
#include "wdk.h"

namespace kv {

inline bool PageableCallTooHigh()
{
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        DbgPrint("EX: Pageable code called at IRQL %d\n", irql);
        return true;
    }
    return false;
}

}  // namespace kv
