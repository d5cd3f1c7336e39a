# Installation: headers, both libraries, the CMake package and the pkg-config file. Components:
# runtime, development, and program (in app/).

include(CMakePackageConfigHelpers)

foreach(header IN LISTS DNNVAD_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH directory)
  install(FILES ${header} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${directory}"
          COMPONENT development)
endforeach()

# An export set each, so that hosts of the shared library need no FFT library to be installed.
install(TARGETS dnnvad EXPORT dnnvad_shared
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS dnnvad_static EXPORT dnnvad_static ARCHIVE COMPONENT development)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/dnnvad")
foreach(kind shared static)
  install(EXPORT dnnvad_${kind} NAMESPACE dnnvad:: DESTINATION "${package_dir}"
          FILE dnnvad-${kind}-targets.cmake COMPONENT development)
endforeach()
configure_package_config_file(cmake/dnnvad-config.cmake.in dnnvad-config.cmake
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(dnnvad-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/dnnvad-config.cmake"
  "${PROJECT_BINARY_DIR}/dnnvad-config-version.cmake"
  cmake/Find${DNNVAD_FFT_PACKAGE}.cmake
  DESTINATION "${package_dir}" COMPONENT development)

# The prefix follows from where the file stands, so that an installed tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" OUTPUT_VARIABLE pc_prefix)
configure_file(cmake/dnnvad.pc.in dnnvad.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/dnnvad.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT development)
