// Kernel C++ runtime of kvdrv.sys (Windows target only): the few ABI hooks
// that g++ output needs when linked -nostdlib.
//
// Decisions:
//  - The image's entry point is DriverEntry itself, as the I/O manager
//    expects. Nothing runs constructors of namespace-scope objects before
//    it, so driver code has none with dynamic initialisers: its tables are
//    constant data (the KS descriptor tables are const), and
//    per-device state lives in CCaptureDevice. A global with a destructor
//    fails to link (g++ would register it with atexit, which this runtime
//    deliberately does not provide).
//  - A pure virtual call is a driver bug; it goes to ntoskrnl's own _purecall,
//    the same routine MSVC-built drivers import, so the failure looks the
//    same as theirs.
#include "wdk.h"

extern "C" int __cdecl _purecall();

extern "C" void __cxa_pure_virtual()
{
    _purecall();
}
