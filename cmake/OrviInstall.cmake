# Installs the headers, liborvi, a CMake package config (find_package(orvi))
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(ORVI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/orvi)

# orvi::headers is exported for the adapters that build on it (orvi::sqlite).
set_target_properties(orvi_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS orvi orvi_headers EXPORT orviTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/orvi DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/orvi/version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvi)

install(EXPORT orviTargets NAMESPACE orvi:: DESTINATION ${ORVI_CMAKE_DIR})
if(NOT ORVI_NET_TLS)
  set(ORVI_NET_TLS FALSE)
endif()
configure_package_config_file(cmake/orviConfig.cmake.in
  ${PROJECT_BINARY_DIR}/orviConfig.cmake INSTALL_DESTINATION ${ORVI_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orviConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/orviConfig.cmake ${PROJECT_BINARY_DIR}/orviConfigVersion.cmake
  DESTINATION ${ORVI_CMAKE_DIR})

configure_file(cmake/orvi.pc.in ${PROJECT_BINARY_DIR}/orvi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
