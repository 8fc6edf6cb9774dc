# The common part of the cross toolchains. Programs find loader and libraries in the cross compiler's
# own folder, so that they run in place, with or without an emulator. DT_RPATH, unlike DT_RUNPATH,
# also covers indirect dependencies.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=${ORVEX_SYSROOT}/lib/${ORVEX_LOADER} \
-Wl,--disable-new-dtags,-rpath=${ORVEX_SYSROOT}/lib")

# Not every kernel can run programs of this platform: tries one, and emulates if it fails.
if(NOT DEFINED CACHE{ORVEX_RUNS_FOREIGN})
  set(probe ${CMAKE_BINARY_DIR}/foreign-probe)
  file(WRITE ${probe}.cpp "int main() { return 0; }\n")
  separate_arguments(link_flags UNIX_COMMAND "${CMAKE_EXE_LINKER_FLAGS_INIT}")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${probe}.cpp -o ${probe} ${link_flags}
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${probe} RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
  if(result EQUAL 0)
    set(runs TRUE)
  else()
    set(runs FALSE)
    message(STATUS "This kernel runs no ${CMAKE_SYSTEM_PROCESSOR} programs: using ${ORVEX_EMULATOR}")
  endif()
  set(ORVEX_RUNS_FOREIGN ${runs} CACHE BOOL "The kernel runs programs of this tool chain")
endif()
# ORVEX_EMULATE=yes in the environment always uses the emulator.
if(NOT ORVEX_RUNS_FOREIGN OR "$ENV{ORVEX_EMULATE}" STREQUAL "yes")
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVEX_EMULATOR})
endif()
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVEX_RUNS_FOREIGN)
