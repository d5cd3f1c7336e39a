# What every target of the project is compiled with: tests, benchmarks and tools included.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release)
endif()

add_compile_options(
  # A multiplication and an addition stay two roundings unless the code says fma, or results would
  # differ between processors.
  -ffp-contract=off
  # Assertions are part of the behaviour in every build type; this undoes CMake's -DNDEBUG.
  -UNDEBUG
  # Log lines and assertions name files relative to the repository.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  if(DNNVAD_ARM_FPU STREQUAL "neon-vfpv4")
    add_compile_options(-march=armv7-a+neon-vfpv4 -mfloat-abi=hard -mfpu=auto)
  elseif(DNNVAD_ARM_FPU STREQUAL "neon")
    add_compile_options(-march=armv7-a+simd -mfloat-abi=hard -mfpu=auto)
  else()
    message(FATAL_ERROR "DNNVAD_ARM_FPU is '${DNNVAD_ARM_FPU}'; it may be neon-vfpv4 or neon")
  endif()
  add_compile_options(-Wno-psabi)  # notes on an ABI change of GCC 7
endif()

add_compile_options(-Wall -Wextra)
if(DNNVAD_WERROR)
  add_compile_options(-Werror)
endif()
# The library and the program are held to more than tests are.
set(DNNVAD_STRICT_WARNINGS -Wpedantic -Wshadow -Wconversion)

# Whoever feeds the library is not trusted: what a fault could do is held down.
add_compile_options(-fstack-protector-strong)
add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
include(CheckPIESupported)
check_pie_supported()
if(NOT DNNVAD_SANITIZE)  # (sanitizers check the same functions themselves)
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                      $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

if(DNNVAD_SANITIZE)
  # The instrumentation hides initialisations from the compiler: only plain builds can warn of them.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_compile_options(-fsanitize=${DNNVAD_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${DNNVAD_SANITIZE})
endif()
