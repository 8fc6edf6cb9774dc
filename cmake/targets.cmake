# Options of every target in the project, and the three kinds of target:
#   orvex_library(NAME sources... LINKS libraries...)   a folder of the daemon
#   orvex_program(NAME sources... LINKS libraries...)   a program
#   orvex_test(NAME sources... LINKS libraries... [LABELS labels...])   tests (tests/CMakeLists.txt)

if(ORVEX_CCACHE)
  find_program(ORVEX_CCACHE_PROGRAM ccache)
  mark_as_advanced(ORVEX_CCACHE_PROGRAM)
  if(ORVEX_CCACHE_PROGRAM)
    # Paths below the checkout are made relative: all checkouts share what one has compiled.
    set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
        CCACHE_SLOPPINESS=pch_defines,time_macros ${ORVEX_CCACHE_PROGRAM})
  endif()
endif()

add_library(orvex_options INTERFACE)
target_include_directories(orvex_options INTERFACE ${PROJECT_SOURCE_DIR})
# No program uses RTTI. They share classes, so all are built without it.
target_compile_options(orvex_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -fno-rtti)
target_compile_definitions(orvex_options INTERFACE ORVEX_VERSION="${PROJECT_VERSION}")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # A 32-bit time_t overflows in January 2038.
  target_compile_definitions(orvex_options INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()
if(ORVEX_WERROR)
  target_compile_options(orvex_options INTERFACE -Werror)
endif()
if(ORVEX_SANITIZE)
  # For everything linked together, including GoogleTest. The vptr check would need RTTI.
  add_compile_options(-fsanitize=${ORVEX_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORVEX_SANITIZE})
endif()
if(ORVEX_FUZZ)
  # The fuzzer records the paths through the daemon.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# The daemon throws nothing.
add_library(orvex_daemon_options INTERFACE)
target_compile_options(orvex_daemon_options INTERFACE -fno-exceptions)
target_link_libraries(orvex_daemon_options INTERFACE orvex_options)

# A turn of the loop calls many small functions in other folders. Link-time optimization inlines them,
# which saves a fifth of an event's instructions and half of the program's size.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT ORVEX_LTO OUTPUT ORVEX_LTO_REASON LANGUAGES CXX)
  if(ORVEX_LTO AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    add_link_options(-flto=thin)  # else tests, not optimized themselves, can't link the libraries
  endif()
endif()

function(orvex_library name)
  cmake_parse_arguments(ARG "" "" "LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE orvex_daemon_options)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  set_target_properties(${name} PROPERTIES INTERPROCEDURAL_OPTIMIZATION "${ORVEX_LTO}")
endfunction()

function(orvex_program name)
  cmake_parse_arguments(ARG "" "" "LINKS" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} orvex_options)
  set_target_properties(${name} PROPERTIES INTERPROCEDURAL_OPTIMIZATION "${ORVEX_LTO}")
endfunction()
