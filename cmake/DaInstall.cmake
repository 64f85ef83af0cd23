# Installation: libraries, public headers, the CMake package `DataAccess`
# and pkg-config files for both libraries.
include(CMakePackageConfigHelpers)

install(TARGETS DataAccess tobasCClient EXPORT DataAccessTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Public headers are installed by da_layer() from the PUBLIC_HEADERS list of
# each layer (cmake/DaLayers.cmake).

install(EXPORT DataAccessTargets NAMESPACE DataAccess::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DataAccess)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/DataAccessConfig.cmake.in
  ${PROJECT_BINARY_DIR}/DataAccessConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DataAccess)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DataAccessConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/DataAccessConfig.cmake
  ${PROJECT_BINARY_DIR}/DataAccessConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DataAccess)

# pkg-config files find their prefix relative to where they are installed.
file(RELATIVE_PATH DA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(pc DataAccess tobasCClient)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
