# SPDX-License-Identifier: Apache-2.0
# Debian packages, made by CPack from the install components:
#   libtavren1     "runtime": the shared library and its SONAME link
#   libtavren-dev  "dev": headers, the unversioned link, CMake package, tavren.pc
#   tavren-tools   "tools": tavren-send, tavren-listen and their man pages
#
# CPack rather than a debian/ folder: the install rules above are the one
# description of what goes where, and CI builds the packages straight from
# the tree with CMake alone, without dpkg-buildpackage and debhelper.
# scripts/package.sh configures with the prefix /usr (so GNUInstallDirs picks
# the multiarch library folder) and a Release build, and runs CPack.

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "Packages: configure with -DCMAKE_INSTALL_PREFIX=/usr for the Debian layout "
                 "(scripts/package.sh does)")
endif()

set(TAVREN_PACKAGE_MAINTAINER "The libtavren developers <maintainers@libtavren.invalid>"
  CACHE STRING "Maintainer field of the Debian packages")
set(TAVREN_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(_tavren_runtime_package libtavren${PROJECT_VERSION_MAJOR})
set(_tavren_deb_version ${PROJECT_VERSION}-${TAVREN_PACKAGE_RELEASE})

# Every package carries its copyright file, as Debian asks.
foreach(_component runtime dev tools)
  if(_component STREQUAL "runtime")
    set(_package ${_tavren_runtime_package})
  elseif(_component STREQUAL "dev")
    set(_package libtavren-dev)
  else()
    set(_package tavren-tools)
  endif()
  if(_component STREQUAL "tools" AND NOT TAVREN_BUILD_TOOLS)
    continue()
  endif()
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_package}
    COMPONENT ${_component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtavren)
set(CPACK_PACKAGE_VENDOR "The libtavren developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TAVREN_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TAVREN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TAVREN_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# The library: its Depends (libapr1, libuuid1, libssl3, libsqlite3-0, libstdc++6, libc6, libgcc-s1,
# with their minimum versions) come from dpkg-shlibdeps; its shlibs file
# lets other packages depend on it the same way.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_tavren_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "STOMP client library over TCP and TLS
libtavren lets an application on a small Linux device exchange text
messages with a message broker (RabbitMQ, ActiveMQ) over STOMP 1.0, 1.1
and 1.2 over TCP or TLS. It reconnects and subscribes again by itself.
.
This package contains the shared library.")

# The development files: the headers use nothing of APR or libuuid, but the
# CMake package and tavren.pc look both up through pkg-config.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtavren-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${_tavren_runtime_package} (= ${_tavren_deb_version}), libapr1-dev, uuid-dev, pkg-config | pkgconf")
set(CPACK_DEBIAN_DEV_DESCRIPTION "STOMP client library over TCP and TLS (development files)
libtavren lets an application on a small Linux device exchange text
messages with a message broker over STOMP, over TCP or TLS.
.
This package contains the headers, the CMake package (find_package(tavren))
and the pkg-config file (tavren.pc).")

# The tools need exactly this build of the library; the rest of their
# dependencies come through it, and dpkg-shlibdeps adds libc6 and libstdc++6.
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tavren-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${_tavren_runtime_package} (= ${_tavren_deb_version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "command-line tools to send and receive STOMP messages
tavren-send sends text to a queue of a STOMP broker (an argument, each line
of standard input, or a file); tavren-listen prints the messages of a queue
and acknowledges or rejects them. Both use libtavren.")

include(CPack)
