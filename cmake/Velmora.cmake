# Helpers shared by every subsystem's CMakeLists.

# velmora_library(<name> DEPS <targets...> [PRIVATE_DEPS ...] [DIRS ...]
#                  [SYSTEM_INCLUDES ...]): one library per subsystem folder,
# built from every .cpp in the folder (and its subfolders given in DIRS).
function(velmora_library name)
  cmake_parse_arguments(ARG "" "" "DEPS;PRIVATE_DEPS;DIRS;SYSTEM_INCLUDES" ${ARGN})
  set(globs ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(d IN LISTS ARG_DIRS)
    list(APPEND globs ${CMAKE_CURRENT_SOURCE_DIR}/${d}/*.cpp)
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${globs})
  if(sources)
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
    if(ARG_SYSTEM_INCLUDES)
      target_include_directories(${name} SYSTEM PRIVATE ${ARG_SYSTEM_INCLUDES})
    endif()
  else()
    # A subsystem with headers only (or not written yet).
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE ${ARG_DEPS} ${ARG_PRIVATE_DEPS})
  endif()
endfunction()

# velmora_tests(<subsystem> DEPS <targets...>): one GoogleTest executable per
# label from tests/<subsystem>/. A file's label comes from its name:
# *_net_test.cpp -> net (loopback UDP), *_gl_test.cpp -> gl (software GL),
# *_e2e_test.cpp -> e2e (the built executable), *_pipewire_test.cpp ->
# pipewire (a private PipeWire daemon), *_x11_test.cpp -> x11 (the built
# executable against a private Xorg with dummy monitors), anything else -> unit.
# SERIAL <files...>: each of these files becomes an executable of its own,
# <subsystem>_<file stem>, whose tests run with no other test beside them
# (they load the whole machine, which would upset others' timing).
function(velmora_tests subsystem)
  cmake_parse_arguments(ARG "" "" "DEPS;SERIAL" ${ARGN})
  file(GLOB all CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(serial IN LISTS ARG_SERIAL)
    set(f ${CMAKE_CURRENT_SOURCE_DIR}/${serial})
    list(REMOVE_ITEM all ${f})
    get_filename_component(stem ${serial} NAME_WE)
    string(REGEX MATCH "_(net|gl|e2e|pipewire|x11)_test$" suffix ${stem})
    set(l unit)
    if(suffix)
      set(l ${CMAKE_MATCH_1})
    endif()
    set(exe ${subsystem}_${stem}s)
    add_executable(${exe} ${f} ${PROJECT_SOURCE_DIR}/tests/support/TestMain.cpp)
    target_include_directories(${exe} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${exe} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock)
    target_compile_definitions(${exe} PRIVATE VELMORA_BINARY_DIR="${PROJECT_BINARY_DIR}"
      VELMORA_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    gtest_discover_tests(${exe} PROPERTIES LABELS ${l} RUN_SERIAL TRUE DISCOVERY_TIMEOUT 60)
  endforeach()
  foreach(label unit net gl e2e pipewire x11)
    set(files "")
    foreach(f IN LISTS all)
      get_filename_component(n ${f} NAME)
      if(n MATCHES "_(net|gl|e2e|pipewire|x11)_test\\.cpp$")
        set(l ${CMAKE_MATCH_1})
      else()
        set(l unit)
      endif()
      if(l STREQUAL label)
        list(APPEND files ${f})
      endif()
    endforeach()
    if(files)
      set(exe ${subsystem}_${label}_tests)
      add_executable(${exe} ${files} ${PROJECT_SOURCE_DIR}/tests/support/TestMain.cpp)
      target_include_directories(${exe} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
      target_link_libraries(${exe} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock)
      target_compile_definitions(${exe} PRIVATE
        VELMORA_BINARY_DIR="${PROJECT_BINARY_DIR}"
        VELMORA_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
        VELMORA_VERSION="${PROJECT_VERSION}"
        # The NDI runtime double's folder (tests/outputs builds it).
        VELMORA_NDI_DOUBLE_DIR="${PROJECT_BINARY_DIR}/tests/ndi-runtime")
      gtest_discover_tests(${exe} PROPERTIES LABELS ${label} DISCOVERY_TIMEOUT 60)
    endif()
  endforeach()
endfunction()
