# The Debian packages: what a program needs at run time, what it is built with, the command line tool, and
# for each of these with code the debug symbols.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR ${PROJECT_NAME})
# An address that can be written to is the owner's to give, as is the licence.
set(CPACK_PACKAGE_CONTACT "${PROJECT_NAME} maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL
  runtime development kit_runtime kit_development observe_runtime observe_development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Tasks with priorities, timers and descriptors on one event loop, and reports\non them. The library and the host runtime beneath it, for programs\nbuilt with it.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Tasks with priorities, timers and descriptors on one event loop, and reports\non them. The headers, and what CMake and pkg-config need to build\nprograms with it.")

set(CPACK_COMPONENT_KIT_RUNTIME_DESCRIPTION
  "Streams, listeners, signals, children and mailboxes for daemons on\nlibZelBrelo. The library, for programs built with it.")
set(CPACK_COMPONENT_KIT_DEVELOPMENT_DESCRIPTION
  "Streams, listeners, signals, children and mailboxes for daemons on\nlibZelBrelo. The headers, and what CMake and pkg-config need to build\nprograms with it.")

set(CPACK_COMPONENT_OBSERVE_RUNTIME_DESCRIPTION
  "A monitor, a detector of stalls and a socket to ask at, for daemons on\nlibZelBrelo. The library, for programs built with it.")
set(CPACK_COMPONENT_OBSERVE_DEVELOPMENT_DESCRIPTION
  "A monitor, a detector of stalls and a socket to ask at, for daemons on\nlibZelBrelo. The headers, and what CMake and pkg-config need to build\nprograms with it.")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "Looks into daemons on libZelBrelo over their sockets: a live view of their\ntasks, reports, stalls, timelines for Perfetto, metrics for Prometheus.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzelbrelo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KIT_RUNTIME_PACKAGE_NAME libbrelodaemon${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_KIT_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KIT_RUNTIME_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_OBSERVE_RUNTIME_PACKAGE_NAME libbreloobserve${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_OBSERVE_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_OBSERVE_RUNTIME_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_KIT_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME brelo)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
foreach(component IN ITEMS RUNTIME KIT_RUNTIME OBSERVE_RUNTIME TOOL)
  set(CPACK_DEBIAN_${component}_DEBUGINFO_PACKAGE ON)
endforeach()
set(debian ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${debian}/triggers "activate-noawait ldconfig\n")
function(brelo_shared_libraries component) # what dpkg is told of the libraries in a package
  set(shlibs ${debian}/${component}/shlibs)
  file(WRITE ${shlibs} "")
  foreach(library IN LISTS ARGN)
    file(APPEND ${shlibs}
      "${library} ${PROJECT_VERSION_MAJOR} ${CPACK_DEBIAN_${component}_PACKAGE_NAME} (>= ${PROJECT_VERSION})\n")
  endforeach()
  set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA ${debian}/triggers ${shlibs} PARENT_SCOPE)
endfunction()
brelo_shared_libraries(RUNTIME libZelBrelo libzel libnetnsaid)
brelo_shared_libraries(KIT_RUNTIME libBreloDaemon)
brelo_shared_libraries(OBSERVE_RUNTIME libBreloObserve)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzelbrelo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libzelbrelo${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libboost-dev, libevent-dev, libfmt-dev, libunwind-dev, pkg-config")

set(CPACK_DEBIAN_KIT_DEVELOPMENT_PACKAGE_NAME libbrelodaemon-dev)
set(CPACK_DEBIAN_KIT_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_KIT_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_KIT_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_KIT_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_OBSERVE_DEVELOPMENT_PACKAGE_NAME libbreloobserve-dev)
set(CPACK_DEBIAN_OBSERVE_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_OBSERVE_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_OBSERVE_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_OBSERVE_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), ${CPACK_DEBIAN_KIT_DEVELOPMENT_PACKAGE_NAME} (= ${PROJECT_VERSION})")

set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/WithoutScripts.cmake)
include(CPack)

# Each package says in Debian's form which version it is.
file(STRINGS CHANGELOG.md released REGEX "^## \\[${PROJECT_VERSION}\\] - " LIMIT_COUNT 1)
string(REGEX REPLACE ".* - " "" released "${released}")
execute_process(COMMAND date --utc --rfc-email --date=${released}
  OUTPUT_VARIABLE release_date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
configure_file(cmake/changelog.in debian/changelog @ONLY)
set(changelog ${debian}/changelog.gz)
execute_process(COMMAND gzip -9n --stdout ${debian}/changelog OUTPUT_FILE ${changelog} COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${changelog} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
