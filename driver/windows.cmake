# The real Windows x64 kernel driver kvdrv.sys, built with mingw-w64.
# Included by driver/CMakeLists.txt when KV_WINDOWS is ON; ${KVDRV_SRC} holds
# every driver .cpp, including the kernel C++ runtime in runtime/windows_*.cpp.
#
# Compile decisions:
#  -fno-exceptions -fno-rtti      kernel C++: no unwinder, no typeinfo.
#  -fcheck-new                    our operator new returns null on failure;
#                                 g++ must test it before constructing.
#  -fno-threadsafe-statics        no __cxa_guard_* in the kernel.
#  -mno-red-zone                  interrupts and DPCs may use the stack below
#                                 rsp; the Windows x64 ABI has no red zone,
#                                 say so explicitly.
#  -fno-stack-protector           no /GS cookie runtime to back it.
#  unwind tables are KEPT          (no -fno-asynchronous-unwind-tables): x64
#                                 Windows walks .pdata/.xdata for stack traces,
#                                 bug-check analysis and SEH that passes
#                                 through our frames.
#  no -ffreestanding              keeps g++'s builtins (small memcpy/memset
#                                 inlined); -nostdlib guarantees that no C
#                                 library code is linked in anyway: whatever
#                                 is not exported by the kernel fails to link.
# Link decisions: an executable image (like MSVC's /DRIVER, no DLL flag),
# native subsystem, WDM driver flag, relocatable (kernel images are loaded at
# arbitrary addresses), NX, page-aligned sections; no auto-import: every data
# import must be __declspec(dllimport), there is no runtime relocator.
set(KVDRV_WINDOWS_COMPILE_OPTIONS
    -fno-exceptions -fno-rtti -fcheck-new -fno-threadsafe-statics
    -mno-red-zone -fno-stack-protector
    -O2 -Wall -Wextra -Wno-unused-parameter -Wno-multichar)

# Import library for KVJP.SYS, from its .def file.
set(KVJP_DEF ${CMAKE_CURRENT_SOURCE_DIR}/kvjp/kvjp.def)
set(KVJP_IMPLIB ${CMAKE_CURRENT_BINARY_DIR}/libkvjp.a)
add_custom_command(
  OUTPUT ${KVJP_IMPLIB}
  COMMAND ${KV_MINGW_DLLTOOL} --machine i386:x86-64 --input-def ${KVJP_DEF}
          --output-lib ${KVJP_IMPLIB}
  DEPENDS ${KVJP_DEF}
  COMMENT "Import library for KVJP.SYS"
  VERBATIM)
add_custom_target(kvjp_implib DEPENDS ${KVJP_IMPLIB})

# CMake's default Windows libraries (kernel32, user32, ...) are user mode.
set(CMAKE_CXX_STANDARD_LIBRARIES "")
set(CMAKE_C_STANDARD_LIBRARIES "")
add_executable(kvdrv ${KVDRV_SRC})
add_dependencies(kvdrv kvjp_implib)
set_target_properties(kvdrv PROPERTIES
  OUTPUT_NAME kvdrv
  SUFFIX .sys
  CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_compile_definitions(kvdrv PRIVATE KV_TARGET_WINDOWS)
target_include_directories(kvdrv PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_include_directories(kvdrv SYSTEM PRIVATE ${KV_DDK_INCLUDE_DIR})
target_compile_options(kvdrv PRIVATE ${KVDRV_WINDOWS_COMPILE_OPTIONS})
# The AVX2 kernels (see driver/CMakeLists.txt). g++ for Windows assumes
# 32-byte aligned stack slots when it spills an AVX register, but the x64
# ABI aligns the stack to 16 only (GCC bug 54412): the assembler is told to
# write every aligned vector move as an unaligned one, which is as fast on
# aligned data.
set_source_files_properties(${KVDRV_AVX2_SRC} PROPERTIES
  COMPILE_OPTIONS "-mavx2;-Wa,-muse-unaligned-vector-move")
target_link_options(kvdrv PRIVATE
  -nostdlib
  LINKER:--subsystem,native
  LINKER:--entry,DriverEntry
  LINKER:--image-base,0x140000000
  LINKER:--dynamicbase LINKER:--nxcompat LINKER:--wdmdriver
  LINKER:--file-alignment,0x200 LINKER:--section-alignment,0x1000
  LINKER:--stack,0x40000
  LINKER:--disable-auto-import LINKER:--disable-runtime-pseudo-reloc
  LINKER:--no-undefined)
# The kernel exports memcpy/memset/memmove/memcmp; libgcc gives the stack
# probe ___chkstk_ms for frames larger than a page.
# ksguid: the KS GUID objects (KSCATEGORY_VIDEO, KSPROPSETID_Pin ...) that
# mingw's ks.h/ksmedia.h only declare.
target_link_libraries(kvdrv PRIVATE ntoskrnl hal ks usbd ksguid ${KVJP_IMPLIB} gcc)
