# The PE check: is a file a loadable 64-bit native kernel driver that imports
# only from the kernel modules kvdrv.sys may use?
#
#   cmake -DOBJDUMP=<x86_64-w64-mingw32-objdump> -DPE_FILE=<file> -P check_pe.cmake
#
# Reads `objdump -p` and fails (non-zero exit, one "pe_check: FAIL: ..." line
# per problem) unless the file is
#  - PE32+ for x86-64 ("file format pei-x86-64", optional-header Magic 020b),
#  - of the native subsystem (00000001), as every kernel-mode driver is,
#  - relocatable (DYNAMIC_BASE and a non-empty base-relocation directory: the
#    kernel loads drivers at addresses of its own choosing) and NX_COMPAT,
#  - importing from ntoskrnl.exe and otherwise only from hal.dll, ks.sys,
#    usbd.sys and KVJP.SYS (compared case-insensitively, as the loader does).
# Written as a CMake script so that it needs nothing beyond cmake and objdump.
cmake_minimum_required(VERSION 3.25)

set(KV_ALLOWED_IMPORTS ntoskrnl.exe hal.dll ks.sys usbd.sys kvjp.sys)
string(JOIN ", " KV_ALLOWED_TEXT ${KV_ALLOWED_IMPORTS})

set(kv_failures "")
macro(kv_fail reason)
  list(APPEND kv_failures "${reason}")
endmacro()

if(NOT OBJDUMP)
  message(FATAL_ERROR "pe_check: FAIL: pass -DOBJDUMP=<x86_64-w64-mingw32-objdump>")
endif()
if(NOT PE_FILE OR NOT EXISTS "${PE_FILE}" OR IS_DIRECTORY "${PE_FILE}")
  message(FATAL_ERROR "pe_check: FAIL: no such file: '${PE_FILE}'")
endif()

execute_process(COMMAND "${OBJDUMP}" -p "${PE_FILE}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE dump ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pe_check: FAIL: objdump could not read '${PE_FILE}': ${err}")
endif()

# Machine and PE32+.
if(NOT dump MATCHES "file format pei-x86-64\n")
  string(REGEX MATCH "file format [^\n]*" format "${dump}")
  kv_fail("not an x86-64 PE image (${format})")
endif()
if(NOT dump MATCHES "\nMagic[ \t]+020b")
  kv_fail("optional header Magic is not 020b (PE32+)")
endif()

# Subsystem.
string(REGEX MATCH "\nSubsystem[ \t]+([0-9a-fA-F]+)" _ "${dump}")
if(NOT CMAKE_MATCH_1 STREQUAL "00000001")
  kv_fail("subsystem is '${CMAKE_MATCH_1}', not 00000001 (native)")
endif()

# Relocatable and NX.
foreach(flag DYNAMIC_BASE NX_COMPAT)
  if(NOT dump MATCHES "\n[ \t]+${flag}\n")
    kv_fail("DllCharacteristics lacks ${flag}")
  endif()
endforeach()
string(REGEX MATCH "\nEntry 5 [0-9a-fA-F]+ ([0-9a-fA-F]+) Base Relocation" _ "${dump}")
if("${CMAKE_MATCH_1}" STREQUAL "" OR CMAKE_MATCH_1 MATCHES "^0+$")
  kv_fail("no base relocations: the kernel could not load the image at another address")
endif()

# Imports.
string(REGEX MATCHALL "DLL Name: [^\n]+" names "${dump}")
set(imports "")
foreach(line IN LISTS names)
  string(REGEX REPLACE "^DLL Name: " "" dll "${line}")
  string(STRIP "${dll}" dll)
  string(TOLOWER "${dll}" dll)
  list(APPEND imports "${dll}")
  if(NOT dll IN_LIST KV_ALLOWED_IMPORTS)
    kv_fail("imports from '${dll}', which a kernel driver must not use (allowed: ${KV_ALLOWED_TEXT})")
  endif()
endforeach()
string(JOIN ", " imports_text ${imports})
if(NOT "ntoskrnl.exe" IN_LIST imports)
  kv_fail("does not import from ntoskrnl.exe (imports: ${imports_text})")
endif()

if(kv_failures)
  foreach(reason IN LISTS kv_failures)
    message("pe_check: FAIL: ${reason}")
  endforeach()
  message(FATAL_ERROR "pe_check: '${PE_FILE}' is not an acceptable kernel driver")
endif()
message("pe_check: OK: '${PE_FILE}' is a PE32+ x86-64 native driver importing from: ${imports_text}")
