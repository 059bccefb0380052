# libyuv, the reference the imaging primitives are measured and checked
# against (kvbench's Compare benchmarks, primitives_test). Debian's
# libyuv-dev ships no pkg-config file, so the header and the library are
# looked up directly. Optional: without it the comparisons are left out.
# Defines the imported target kv_libyuv when found.
include_guard(GLOBAL)
find_path(KV_LIBYUV_INCLUDE_DIR libyuv.h)
find_library(KV_LIBYUV_LIBRARY yuv)
if(KV_LIBYUV_INCLUDE_DIR AND KV_LIBYUV_LIBRARY)
  add_library(kv_libyuv UNKNOWN IMPORTED GLOBAL)
  set_target_properties(kv_libyuv PROPERTIES
    IMPORTED_LOCATION ${KV_LIBYUV_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${KV_LIBYUV_INCLUDE_DIR}
    INTERFACE_COMPILE_DEFINITIONS KV_HAVE_LIBYUV)
else()
  message(STATUS "libyuv not found (Debian package libyuv-dev): comparisons with it are left out")
endif()
