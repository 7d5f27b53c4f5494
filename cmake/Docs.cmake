# SPDX-License-Identifier: Apache-2.0
# The API reference from the public headers (docs/Doxyfile): the target
# "docs" writes BUILD/docs/html. Not part of the default build; any doxygen
# warning (an undocumented public name, a broken reference) fails it.
find_program(TAVREN_DOXYGEN doxygen)
if(NOT TAVREN_DOXYGEN)
  message(STATUS "doxygen not found: no docs target")
  return()
endif()

# tavren/Version.h is generated into the build tree.
set(_tavren_generated_input "")
if(EXISTS ${PROJECT_BINARY_DIR}/include/tavren/Version.h)
  set(_tavren_generated_input ${PROJECT_BINARY_DIR}/include/tavren/Version.h)
endif()
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
  COMMAND ${CMAKE_COMMAND} -E env
    TAVREN_DOCS_OUTPUT=${PROJECT_BINARY_DIR}/docs
    TAVREN_VERSION=${PROJECT_VERSION}
    TAVREN_GENERATED_INPUT=${_tavren_generated_input}
    TAVREN_GENERATED_STRIP=${PROJECT_BINARY_DIR}/include
    ${TAVREN_DOXYGEN} ${PROJECT_SOURCE_DIR}/docs/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference: ${PROJECT_BINARY_DIR}/docs/html/index.html"
  VERBATIM)
