# cmake --install: the libraries, tqfetch, the public headers, a CMake package
# (find_package(tqnetwork) gives tqnetwork::tqnetwork, tqnetwork::tqutil, tqnetwork::tqplatform)
# and a pkg-config file. The headers go to include/tqnetwork/ (net/, tqutil/, platform/ below it):
# include/net/ is the system's own directory, and a platform/wininet.h on a global include path
# would shadow the real one in a program that also builds for Windows. The CMake package and the
# pkg-config file add include/tqnetwork/, so that consumers keep writing #include "net/...". On Windows: bin/ holds tqutil.dll, tqnetwork.dll and the C++ runtime
# DLLs they need, lib/ the import libraries; tqplatform names the system's WinINet, URL Moniker
# and COM libraries.
include(CMakePackageConfigHelpers)

set(TQ_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tqnetwork)
install(TARGETS tqutil tqplatform tqnetwork
  EXPORT tqnetworkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tqfetch RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY tqutil/ DESTINATION ${TQ_INSTALL_INCLUDEDIR}/tqutil FILES_MATCHING PATTERN "*.h"
        PATTERN "sys_file_faults.h" EXCLUDE   # a test seam, not interface
        PATTERN "sys_path.h" EXCLUDE PATTERN "percent_encoding.h" EXCLUDE   # internal
        PATTERN "dot_segments.h" EXCLUDE
        PATTERN "sys_file_internal.h" EXCLUDE)
install(DIRECTORY net/ DESTINATION ${TQ_INSTALL_INCLUDEDIR}/net FILES_MATCHING PATTERN "*.h")
if(WIN32)
  install(FILES ${TQ_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(TQ_PC_LIBS "-ltqnetwork -ltqutil -lwininet -lurlmon -lole32 -luuid")
else()
  # Only the Windows SDK subset is public in platform/; the rest is its Linux implementation.
  install(FILES ${PROJECT_SOURCE_DIR}/platform/windows_types.h
                ${PROJECT_SOURCE_DIR}/platform/wininet.h ${PROJECT_SOURCE_DIR}/platform/urlmon.h
          DESTINATION ${TQ_INSTALL_INCLUDEDIR}/platform)
  set(TQ_PC_LIBS "-ltqnetwork -ltqplatform -ltqutil")
endif()

set(TQ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tqnetwork)
install(EXPORT tqnetworkTargets NAMESPACE tqnetwork:: DESTINATION ${TQ_CMAKE_DIR})
configure_package_config_file(cmake/tqnetworkConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tqnetworkConfig.cmake INSTALL_DESTINATION ${TQ_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tqnetworkConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tqnetworkConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tqnetworkConfigVersion.cmake DESTINATION ${TQ_CMAKE_DIR})

file(RELATIVE_PATH TQ_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/tqnetwork.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tqnetwork.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tqnetwork.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
