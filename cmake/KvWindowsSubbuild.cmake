# The host build also produces the real kvdrv.sys, so that one configure,
# build and ctest covers both worlds (the PE check test reads its output).
include(ExternalProject)
find_program(KV_MINGW_GXX x86_64-w64-mingw32-g++)
if(NOT KV_MINGW_GXX)
  message(FATAL_ERROR "x86_64-w64-mingw32-g++ not found: install g++-mingw-w64-x86-64 and mingw-w64-x86-64-dev, "
                      "or configure with -DKV_WITH_WINDOWS_BUILD=OFF")
endif()
set(KV_WINDOWS_BINARY_DIR ${CMAKE_BINARY_DIR}/windows)
ExternalProject_Add(kvdrv_windows
  SOURCE_DIR ${CMAKE_SOURCE_DIR}
  BINARY_DIR ${KV_WINDOWS_BINARY_DIR}
  CMAKE_ARGS -DKV_WINDOWS=ON
             -DCMAKE_TOOLCHAIN_FILE=${CMAKE_SOURCE_DIR}/cmake/toolchain-mingw64.cmake
             -DCMAKE_BUILD_TYPE=Release
             -DKV_CASCADE_TABLE_CPP=${KV_CASCADE_TABLE_CPP}
  DEPENDS kv_cascade_table
  BUILD_ALWAYS ON
  INSTALL_COMMAND "")
set(KV_WINDOWS_SYS ${KV_WINDOWS_BINARY_DIR}/driver/kvdrv.sys CACHE INTERNAL "")
install(FILES ${KV_WINDOWS_SYS} DESTINATION SystemRoot/System32/drivers COMPONENT windows_package)
