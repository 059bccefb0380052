# Tests beyond the GoogleTest executables (included at the end of
# tests/CMakeLists.txt):
#  - the PE check of the real kvdrv.sys built by the Windows sub-build, and
#    tests of the check itself (it must reject bad images);
#  - the link of tests/tools/*_test.cpp with kvcam's library;
#  - zlib for the media suite's own PNG reader.

# kvcam's PE reader (tools/CMakeLists.txt is processed after tests/; target
# names are resolved at generate time).
if(TARGET pe_reader_test)
  target_link_libraries(pe_reader_test PRIVATE kvcam_pe)
endif()
# The system harness and kvcam's reports; the kvcam test also runs the kvcam
# binary of this build tree.
foreach(t harness_test kvcam_cli_test)
  if(TARGET ${t})
    target_link_libraries(${t} PRIVATE kvcam_report)
  endif()
endforeach()
if(TARGET kvcam_cli_test)
  target_compile_definitions(kvcam_cli_test PRIVATE KVCAM_EXE="$<TARGET_FILE:kvcam>")
  add_dependencies(kvcam_cli_test kvcam)
endif()

# The imaging primitives' YUY2 conversion is checked against libyuv's bytes
# when libyuv is installed.
if(TARGET primitives_test AND TARGET kv_libyuv)
  target_link_libraries(primitives_test PRIVATE kv_libyuv)
endif()

# The media suite reads back the PNGs it writes with its own small decoder
# over zlib, so that a fault in how libpng is driven cannot hide behind
# libpng reading its own output.
if(TARGET media_files_test)
  find_package(ZLIB REQUIRED)
  target_link_libraries(media_files_test PRIVATE ZLIB::ZLIB)
endif()

if(NOT KV_WITH_WINDOWS_BUILD)
  return()
endif()

find_program(KV_MINGW_OBJDUMP x86_64-w64-mingw32-objdump REQUIRED)
find_program(KV_MINGW_GCC x86_64-w64-mingw32-gcc REQUIRED)
set(KV_PE_CHECK ${CMAKE_CURRENT_SOURCE_DIR}/windows/check_pe.cmake)
# Same path as KV_WINDOWS_SYS of cmake/KvWindowsSubbuild.cmake, which is
# included after tests/ on the first configure.
set(KV_PE_CHECK_SYS ${CMAKE_BINARY_DIR}/windows/driver/kvdrv.sys)

# The check runs on the driver as it is now: a setup test brings the
# sub-build up to date first (a no-op after a full build).
add_test(NAME kvdrv_sys_subbuild_is_up_to_date
         COMMAND ${CMAKE_COMMAND} --build ${CMAKE_BINARY_DIR} --target kvdrv_windows)
set_tests_properties(kvdrv_sys_subbuild_is_up_to_date PROPERTIES FIXTURES_SETUP kvdrv_sys)

add_test(NAME kvdrv_sys_is_native_x64_driver_with_kernel_imports_only
         COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${KV_MINGW_OBJDUMP} -DPE_FILE=${KV_PE_CHECK_SYS}
                 -P ${KV_PE_CHECK})
set_tests_properties(kvdrv_sys_is_native_x64_driver_with_kernel_imports_only PROPERTIES
  FIXTURES_REQUIRED kvdrv_sys)

# The check itself: a host ELF file (the cmake program) is not a driver.
add_test(NAME pe_check_rejects_host_elf_file
         COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${KV_MINGW_OBJDUMP} -DPE_FILE=${CMAKE_COMMAND}
                 -P ${KV_PE_CHECK})
set_tests_properties(pe_check_rejects_host_elf_file PROPERTIES WILL_FAIL TRUE)

# ... a missing file fails, and says why.
add_test(NAME pe_check_rejects_missing_file
         COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${KV_MINGW_OBJDUMP}
                 -DPE_FILE=${CMAKE_CURRENT_BINARY_DIR}/no-such-driver.sys -P ${KV_PE_CHECK})
set_tests_properties(pe_check_rejects_missing_file PROPERTIES
  PASS_REGULAR_EXPRESSION "pe_check: FAIL: no such file")

# ... a native, relocatable image that imports from user-mode kernel32.dll
# fails on exactly that import.
set(KV_BAD_IMPORT_SYS ${CMAKE_CURRENT_BINARY_DIR}/user_mode_import.sys)
add_custom_command(
  OUTPUT ${KV_BAD_IMPORT_SYS}
  COMMAND ${KV_MINGW_GCC} -nostdlib -Wl,--subsystem,native -Wl,--entry,start
          -Wl,--dynamicbase -Wl,--nxcompat
          ${CMAKE_CURRENT_SOURCE_DIR}/windows/user_mode_import.c
          -o ${KV_BAD_IMPORT_SYS} -lkernel32 -lntoskrnl
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/windows/user_mode_import.c
  COMMENT "PE check fixture: a native image importing from kernel32.dll"
  VERBATIM)
add_custom_target(pe_check_fixtures ALL DEPENDS ${KV_BAD_IMPORT_SYS})
add_test(NAME pe_check_rejects_user_mode_import
         COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${KV_MINGW_OBJDUMP} -DPE_FILE=${KV_BAD_IMPORT_SYS}
                 -P ${KV_PE_CHECK})
set_tests_properties(pe_check_rejects_user_mode_import PROPERTIES
  PASS_REGULAR_EXPRESSION "pe_check: FAIL: imports from 'kernel32\\.dll'"
  FAIL_REGULAR_EXPRESSION "pe_check: OK")

# kvcam reads the same driver with its own PE reader.
add_test(NAME kvcam_driver_describes_the_built_kvdrv_sys COMMAND kvcam driver --sys ${KV_PE_CHECK_SYS})
set_tests_properties(kvcam_driver_describes_the_built_kvdrv_sys PROPERTIES
  FIXTURES_REQUIRED kvdrv_sys
  PASS_REGULAR_EXPRESSION "format +PE32\\+.*subsystem +native \\(1\\).*ntoskrnl\\.exe.*ExAllocatePoolWithTag")
add_test(NAME kvcam_driver_json_describes_the_built_kvdrv_sys COMMAND kvcam driver --json --sys ${KV_PE_CHECK_SYS})
set_tests_properties(kvcam_driver_json_describes_the_built_kvdrv_sys PROPERTIES
  FIXTURES_REQUIRED kvdrv_sys
  PASS_REGULAR_EXPRESSION "\"format\": \"PE32\\+\".*\"subsystem\": \"native\".*\"module\": \"ntoskrnl\\.exe\"")
