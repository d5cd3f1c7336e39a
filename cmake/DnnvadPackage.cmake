# Debian packages: libdnnvad1 (shared library), libdnnvad-dev (headers, static library), dnnvad
# (program, models, man page, completion). `cpack -G DEB` in a build folder writes them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "dnnvad developers <dnnvad@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development program)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

set(runtime_package "libdnnvad${PROJECT_VERSION_MAJOR}")
set(about "Decides on a small Linux device when a person starts and stops speaking: a
small neural network scores each 10 ms frame of 8 or 16 kHz audio, a state
machine turns the scores into utterances.
.
This package holds")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${about} the shared library.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libdnnvad-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${runtime_package} (= ${PROJECT_VERSION}), lib${DNNVAD_FFT_DEBIAN}-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${about} the headers and the static library.")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME dnnvad)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION "${about} the program, which listens to recordings or a microphone,
cuts and plots utterances and tunes the detector, and the models.")

# The loader's cache, and which package a program that links the library needs.
file(WRITE "${PROJECT_BINARY_DIR}/packaging/triggers" "activate-noawait ldconfig\n")
file(WRITE "${PROJECT_BINARY_DIR}/packaging/shlibs"
  "libdnnvad ${PROJECT_VERSION_MAJOR} ${runtime_package} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${PROJECT_BINARY_DIR}/packaging/triggers;${PROJECT_BINARY_DIR}/packaging/shlibs")

# Each package says who made it and what changed.
execute_process(COMMAND gzip -9nc "${PROJECT_SOURCE_DIR}/packaging/changelog"
  OUTPUT_FILE "${PROJECT_BINARY_DIR}/packaging/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
foreach(component runtime development program)
  string(TOUPPER ${component} upper)
  if(component STREQUAL "program" AND NOT DNNVAD_BUILD_APP)
    continue()
  endif()
  install(FILES packaging/copyright "${PROJECT_BINARY_DIR}/packaging/changelog.gz"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}"
    COMPONENT ${component})
endforeach()

install(FILES docs/integration.md docs/parameters.md
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libdnnvad-dev" COMPONENT development)
install(FILES examples/minimal_host.cpp
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libdnnvad-dev/examples" COMPONENT development)

include(CPack)
