# Finds kissfft for single precision and defines the target KissfftFloat::KissfftFloat.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(KissfftFloat_PC QUIET IMPORTED_TARGET kissfft-float)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(KissfftFloat REQUIRED_VARS KissfftFloat_PC_LINK_LIBRARIES
                                  VERSION_VAR KissfftFloat_PC_VERSION)

if(KissfftFloat_FOUND AND NOT TARGET KissfftFloat::KissfftFloat)
  add_library(KissfftFloat::KissfftFloat INTERFACE IMPORTED)
  target_link_libraries(KissfftFloat::KissfftFloat INTERFACE PkgConfig::KissfftFloat_PC)
endif()
