# The stored face cascade: tools/cascade/kvcascade turns the published
# frontal-face cascade (Debian's opencv-data) into a C++ source of const
# tables, which both driver builds compile in. Sets KV_CASCADE_TABLE_CPP.
#
# Host build: kvcascade is built and run at build time (target
# kv_cascade_table). The Windows sub-build gets the host's generated file
# passed in (-DKV_CASCADE_TABLE_CPP=...). A Windows build configured on its
# own builds kvcascade with the host's compiler while it configures.
set(KV_CASCADE_XML /usr/share/opencv4/haarcascades/haarcascade_frontalface_alt.xml
    CACHE FILEPATH "The frontal-face cascade compiled into the driver")
set(KV_CASCADE_GENERATED ${CMAKE_BINARY_DIR}/generated/face_cascade_table.cpp)
set(KV_CASCADE_TOOL_SRC ${CMAKE_SOURCE_DIR}/tools/cascade/kvcascade.cpp)

if(NOT KV_WINDOWS OR NOT KV_CASCADE_TABLE_CPP)
  if(NOT EXISTS ${KV_CASCADE_XML})
    message(FATAL_ERROR "${KV_CASCADE_XML} not found: install opencv-data "
                        "(apt-get install opencv-data), or set KV_CASCADE_XML")
  endif()
endif()

if(NOT KV_WINDOWS)
  add_executable(kvcascade ${KV_CASCADE_TOOL_SRC})
  target_compile_features(kvcascade PRIVATE cxx_std_20)
  # The generator runs at build time: no sanitizer runtime needed for it.
  add_custom_command(OUTPUT ${KV_CASCADE_GENERATED}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/generated
                     COMMAND kvcascade ${KV_CASCADE_XML} ${KV_CASCADE_GENERATED}
                     DEPENDS kvcascade ${KV_CASCADE_XML}
                     COMMENT "Generating the driver's face cascade tables")
  add_custom_target(kv_cascade_table DEPENDS ${KV_CASCADE_GENERATED})
  set(KV_CASCADE_TABLE_CPP ${KV_CASCADE_GENERATED})
elseif(NOT KV_CASCADE_TABLE_CPP)
  find_program(KV_HOST_CXX NAMES c++ g++ REQUIRED)
  set(tool ${CMAKE_BINARY_DIR}/kvcascade-host)
  execute_process(COMMAND ${KV_HOST_CXX} -std=c++20 -O1 ${KV_CASCADE_TOOL_SRC} -o ${tool}
                  RESULT_VARIABLE built)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/generated)
  execute_process(COMMAND ${tool} ${KV_CASCADE_XML} ${KV_CASCADE_GENERATED} RESULT_VARIABLE generated)
  if(NOT built EQUAL 0 OR NOT generated EQUAL 0)
    message(FATAL_ERROR "could not build or run kvcascade with ${KV_HOST_CXX}")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KV_CASCADE_XML} ${KV_CASCADE_TOOL_SRC})
  set(KV_CASCADE_TABLE_CPP ${KV_CASCADE_GENERATED})
endif()
set_source_files_properties(${KV_CASCADE_TABLE_CPP} PROPERTIES GENERATED TRUE)
