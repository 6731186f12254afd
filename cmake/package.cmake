# cpack -G DEB (the `package` target): a Debian package of what cmake --install puts in place,
# under /usr. Its run-time dependencies are found by dpkg-shlibdeps from the libraries the files
# link, so they are named as Debian names them (libcurl4, libssl3, libboost-url1.81.0, ...) on
# the system that builds the package.
if(WIN32)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tqnetwork)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "HTTP networking library for desktop host applications")
string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "HTTP networking library for desktop host applications\n"
  "HTTP requests read as streams, a revalidating disk cache of URLs, and an http/https\n"
  "file protocol for a host's file layer, over libcurl. Carries the libraries, the headers\n"
  "(in include/tqnetwork/), a CMake package, a pkg-config file and the tqfetch tool.")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # tqnetwork_<version>_<arch>.deb
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tqnetwork maintainers <tqnetwork@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file and the ldconfig trigger, so that the loader knows the libraries at once.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
