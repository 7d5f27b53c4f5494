# SPDX-License-Identifier: Apache-2.0
# What an application needs to find an installed libtavren: a CMake package
# (find_package(tavren CONFIG) gives tavren::tavren) and a pkg-config file.
# Both belong to the "dev" component; src/CMakeLists.txt installs the library
# and the headers.
include(CMakePackageConfigHelpers)

set(TAVREN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tavren)

install(EXPORT tavrenTargets
  NAMESPACE tavren::
  DESTINATION ${TAVREN_CMAKE_DIR}
  COMPONENT dev)
# What tavrenConfig.cmake must find again: a static libtavren.a leaves its
# private dependencies (OpenSSL, and SQLite for file outboxes) to the
# application's link as well.
set(TAVREN_PACKAGE_STATIC OFF)
if(TAVREN_LIBRARY_TYPE STREQUAL "STATIC")
  set(TAVREN_PACKAGE_STATIC ON)
endif()
set(TAVREN_PACKAGE_FILE_OUTBOX ${TAVREN_FILE_OUTBOX})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tavrenConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tavrenConfig.cmake
  INSTALL_DESTINATION ${TAVREN_CMAKE_DIR})
# One SONAME per major version: any 1.x satisfies a request for 1.y, y <= x.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavrenConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/tavrenConfig.cmake
    ${PROJECT_BINARY_DIR}/tavrenConfigVersion.cmake
  DESTINATION ${TAVREN_CMAKE_DIR}
  COMPONENT dev)

# The .pc file names its directories relative to ${prefix}, unless GNUInstallDirs
# gave absolute ones.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(TAVREN_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(TAVREN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(TAVREN_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(TAVREN_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# Under /usr (the packages) the prefix is written out; anywhere else it is
# found from the .pc file's own place, so `cmake --install --prefix DIR`
# gives a working file too.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(TAVREN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _tavren_up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" _tavren_up "${_tavren_up}")
  set(TAVREN_PC_PREFIX "\${pcfiledir}/${_tavren_up}")
endif()
set(TAVREN_PC_REQUIRES_PRIVATE "apr-1 uuid")
if(TAVREN_PACKAGE_STATIC)
  string(APPEND TAVREN_PC_REQUIRES_PRIVATE " libssl libcrypto")
  if(TAVREN_FILE_OUTBOX)
    string(APPEND TAVREN_PC_REQUIRES_PRIVATE " sqlite3")
  endif()
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavren.pc.in ${PROJECT_BINARY_DIR}/tavren.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavren.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
