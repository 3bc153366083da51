# What is installed: the shared libraries and, for development, the public headers and what
# find_package and pkg-config read. The tree may be moved after the install.
include(CMakePackageConfigHelpers)

function(brelo_install_headers folder component)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
  cmake_path(GET folder FILENAME name)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name} COMPONENT ${component})
endfunction()
foreach(folder IN ITEMS Brelo ZelBrelo host/Zel host/timeout host/netnsaid)
  brelo_install_headers(${folder} development)
endforeach()
brelo_install_headers(BreloDaemon kit_development)
brelo_install_headers(BreloObserve observe_development)

# One export set for each namespace, so that a host can supply a library of its own for any of them,
# and one for each library above the runtime, which may or may not be installed beside it. The
# components have the name `runtime` and `development` behind the argument COMPONENT, if there is one.
set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ZelBrelo)
function(brelo_install namespace target)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "COMPONENT" "")
  # One folder and one path for both trees. An installer that edits the path pads it with empty
  # elements, and each of these is the working directory to the dynamic linker.
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
    INSTALL_RPATH $ORIGIN
    BUILD_WITH_INSTALL_RPATH ON)
  install(TARGETS ${target} EXPORT ${target}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${arg_COMPONENT}runtime NAMELINK_COMPONENT ${arg_COMPONENT}development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${arg_COMPONENT}development)
  install(EXPORT ${target} NAMESPACE ${namespace}:: FILE ${target}Targets.cmake
    DESTINATION ${config_folder} COMPONENT ${arg_COMPONENT}development)
endfunction()
brelo_install(timeout timeout)
brelo_install(netnsaid netnsaid)
brelo_install(Zel zel)
brelo_install(ZelBrelo ZelBrelo)
brelo_install(ZelBrelo BreloDaemon COMPONENT kit_)
brelo_install(ZelBrelo BreloObserve COMPONENT observe_)

configure_package_config_file(cmake/ZelBreloConfig.cmake.in ${PROJECT_BINARY_DIR}/ZelBreloConfig.cmake
  INSTALL_DESTINATION ${config_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZelBreloConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZelBreloConfig.cmake ${PROJECT_BINARY_DIR}/ZelBreloConfigVersion.cmake
  DESTINATION ${config_folder} COMPONENT development)

cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE prefix_from_pc)
function(brelo_install_pc name component)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endfunction()
brelo_install_pc(ZelBrelo development)
brelo_install_pc(BreloDaemon kit_development)
brelo_install_pc(BreloObserve observe_development)
