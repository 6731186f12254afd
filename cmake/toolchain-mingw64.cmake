# Cross-building for Windows x86-64 with Debian's MinGW-w64 (g++-mingw-w64-x86-64-posix: the
# POSIX thread model, which std::thread and std::mutex need).
#   cmake -S . -B build-windows -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TQ_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TQ_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TQ_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TQ_MINGW_TRIPLET}-windres)

# Libraries, headers and packages come from the MinGW tree and from the prefixes named in
# CMAKE_PREFIX_PATH (which then hold Windows packages, e.g. an installed tqnetwork); programs
# (ninja, nginx, wine) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${TQ_MINGW_TRIPLET} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
