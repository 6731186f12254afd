# The Windows build (MinGW-w64, see cmake/toolchain-mingw64.cmake): the platform is the system
# itself, so nothing is looked up for libcurl, OpenSSL or cpp-httplib; Boost.URL and GSL are used
# header-only from the build machine's Debian packages.

# Every program and DLL lands in one directory with the C++ runtime DLLs, so a program runs from
# there as it would from an installed package (Windows finds DLLs beside the program).
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
file(MAKE_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})

# Headers of the header-only dependencies, through a directory of their own: adding the build
# machine's /usr/include to the search path would put its C library headers before MinGW's.
set(TQ_WINDOWS_HEADER_ROOT /usr/include CACHE PATH
    "Where Boost (libboost-url1.81-dev) and GSL (libmsgsl-dev) headers are found")
set(TQ_DEPS_INCLUDE_DIR ${CMAKE_BINARY_DIR}/deps-include)
foreach(dir boost gsl)
  if(NOT EXISTS ${TQ_WINDOWS_HEADER_ROOT}/${dir})
    message(FATAL_ERROR "${TQ_WINDOWS_HEADER_ROOT}/${dir} is missing (scripts/setup.sh installs it)")
  endif()
  file(MAKE_DIRECTORY ${TQ_DEPS_INCLUDE_DIR})
  file(CREATE_LINK ${TQ_WINDOWS_HEADER_ROOT}/${dir} ${TQ_DEPS_INCLUDE_DIR}/${dir} SYMBOLIC)
endforeach()
set(GSL_INCLUDE_DIR ${TQ_DEPS_INCLUDE_DIR})

# Boost.URL header-only: its sources are compiled into tqutil (tqutil/boost_url.cc).
add_library(Boost::url INTERFACE IMPORTED)
set_target_properties(Boost::url PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${TQ_DEPS_INCLUDE_DIR}
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${TQ_DEPS_INCLUDE_DIR}
  INTERFACE_COMPILE_DEFINITIONS BOOST_URL_NO_LIB)

# Only the Unicode (W) entry points are called; keep <windows.h> from defining min and max.
add_compile_definitions(UNICODE _UNICODE NOMINMAX)

# The C++ runtime is shipped beside the DLLs rather than linked into each (see README): the
# API passes standard library objects, futures and exceptions between the host, tqutil.dll and
# tqnetwork.dll, which must then share one libstdc++, one libgcc and one winpthread.
set(TQ_RUNTIME_DLLS)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                  OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
    message(FATAL_ERROR "The MinGW runtime ${dll} was not found (${CMAKE_CXX_COMPILER})")
  endif()
  list(APPEND TQ_RUNTIME_DLLS ${path})
endforeach()
file(COPY ${TQ_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})

# Programs built here run under Wine: tests (ctest, and gtest's discovery at build time), the
# demo and the host check. bin/../wine-run runs one: its own prefix, no Wine debug chatter, no
# offer to install Mono or Gecko.
find_program(TQ_WINE NAMES wine64 PATHS /usr/lib/wine /usr/lib64/wine NO_CMAKE_FIND_ROOT_PATH)
if(NOT TQ_WINE)
  find_program(TQ_WINE NAMES wine NO_CMAKE_FIND_ROOT_PATH)
endif()
find_program(TQ_WINESERVER NAMES wineserver64 wineserver PATHS /usr/lib/wine /usr/lib64/wine
             NO_CMAKE_FIND_ROOT_PATH)
if(DEFINED ENV{WINEPREFIX} AND NOT "$ENV{WINEPREFIX}" STREQUAL "")
  set(tq_default_prefix "$ENV{WINEPREFIX}")
else()
  set(tq_default_prefix ${CMAKE_BINARY_DIR}/wine)
endif()
set(TQ_WINEPREFIX ${tq_default_prefix} CACHE PATH "The Wine prefix tests and programs run in")
if(TQ_WINE)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                  WORLD_READ WORLD_EXECUTE @ONLY)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
else()
  message(WARNING "Wine was not found: the Windows programs build but the tests cannot run")
endif()
