// Simulated Windows kernel headers: debug output and assertions.
// ASSERT is the checked-build form: a failed assertion calls RtlAssert, which
// the simulation reports as a violation that fails the running test.
#pragma once
#include "kv/ntbase.h"

KV_EXTERN_C_BEGIN
ULONG DbgPrint(PCSTR Format, ...) __attribute__((format(printf, 1, 2)));
ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...) __attribute__((format(printf, 3, 4)));
VOID RtlAssert(PVOID VoidFailedAssertion, PVOID VoidFileName, ULONG LineNumber, PSTR MutableMessage);
VOID DbgBreakPoint(VOID);
KV_EXTERN_C_END

#define KdPrint(_x_) DbgPrint _x_
#define KdPrintEx(_x_) DbgPrintEx _x_
#define KdBreakPoint() DbgBreakPoint()
#define ASSERT(exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, NULL), FALSE) : TRUE)
#define ASSERTMSG(msg, exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)), FALSE) : TRUE)
#define NT_ASSERT(exp) ASSERT(exp)
