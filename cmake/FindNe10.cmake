# Finds Ne10, ARM's DSP library, and defines the target Ne10::Ne10. (Its pkg-config file, where a
# distribution ships one, names directories that do not exist.)
find_path(Ne10_INCLUDE_DIR NAMES NE10.h PATH_SUFFIXES ne10)
find_library(Ne10_LIBRARY NAMES NE10)
mark_as_advanced(Ne10_INCLUDE_DIR Ne10_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Ne10 REQUIRED_VARS Ne10_LIBRARY Ne10_INCLUDE_DIR)

if(Ne10_FOUND AND NOT TARGET Ne10::Ne10)
  add_library(Ne10::Ne10 UNKNOWN IMPORTED)
  set_target_properties(Ne10::Ne10 PROPERTIES
    IMPORTED_LOCATION "${Ne10_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${Ne10_INCLUDE_DIR}")
endif()
