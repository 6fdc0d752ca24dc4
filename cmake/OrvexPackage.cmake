# Lets `cmake --install` add the files by which find_package(Orvex) works for projects of solver modules.

if(NOT TARGET OrvexKernel)
  return()
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Orvex)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/OrvexConfig.cmake.in OrvexConfig.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_LIBDIR)
# Until 1.0 a minor version may change the classes. So a module must be built against the version that loads it.
write_basic_package_version_file(OrvexConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(EXPORT OrvexTargets NAMESPACE Orvex:: DESTINATION ${package_dir})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvexConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/OrvexConfigVersion.cmake
        DESTINATION ${package_dir})
install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
