# Cross toolchain for the real Windows x64 kernel driver (kvdrv.sys):
# mingw-w64's gcc/g++ with its DDK headers. Used by the `windows` preset and by
# the host build's sub-build (cmake/KvWindowsSubbuild.cmake).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(KV_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KV_MINGW_PREFIX}-gcc)
set(CMAKE_CXX_COMPILER ${KV_MINGW_PREFIX}-g++)
set(CMAKE_RC_COMPILER ${KV_MINGW_PREFIX}-windres)
find_program(KV_MINGW_DLLTOOL ${KV_MINGW_PREFIX}-dlltool REQUIRED)

set(CMAKE_FIND_ROOT_PATH /usr/${KV_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The kernel headers (wdm.h, ntddk.h, ks.h's companions) live in include/ddk.
set(KV_DDK_INCLUDE_DIR /usr/share/mingw-w64/include/ddk)

# CMake's compiler checks would link a user-mode program against the C
# runtime; a static library needs neither, and neither does the driver.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
