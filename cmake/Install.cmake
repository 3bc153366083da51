# What is installed: the shared libraries and, for development, the public headers and what
# find_package and pkg-config read. The tree may be moved after the install.
include(CMakePackageConfigHelpers)

foreach(folder IN ITEMS Brelo ZelBrelo host/Zel host/timeout host/netnsaid)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
  cmake_path(GET folder FILENAME name)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name} COMPONENT development)
endforeach()

# One export set for each namespace, so that a host can supply a library of its own for any of them.
set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ZelBrelo)
function(brelo_install namespace target)
  # One folder and one path for both trees. An installer that edits the path pads it with empty
  # elements, and each of these is the working directory to the dynamic linker.
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
    INSTALL_RPATH $ORIGIN
    BUILD_WITH_INSTALL_RPATH ON)
  install(TARGETS ${target} EXPORT ${namespace}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(EXPORT ${namespace} NAMESPACE ${namespace}:: FILE ${namespace}Targets.cmake
    DESTINATION ${config_folder} COMPONENT development)
endfunction()
brelo_install(timeout timeout)
brelo_install(netnsaid netnsaid)
brelo_install(Zel zel)
brelo_install(ZelBrelo ZelBrelo)

configure_package_config_file(cmake/ZelBreloConfig.cmake.in ${PROJECT_BINARY_DIR}/ZelBreloConfig.cmake
  INSTALL_DESTINATION ${config_folder} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZelBreloConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZelBreloConfig.cmake ${PROJECT_BINARY_DIR}/ZelBreloConfigVersion.cmake
  DESTINATION ${config_folder} COMPONENT development)

cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE prefix_from_pc)
configure_file(cmake/ZelBrelo.pc.in ZelBrelo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ZelBrelo.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
