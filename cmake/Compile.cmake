# Settings shared by every target: language level, warnings, visibility, reproducible paths, ccache.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

# Installed programs and libraries find the libraries next to them, wherever the tree is moved.
file(RELATIVE_PATH lib_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set(CMAKE_INSTALL_RPATH $ORIGIN $ORIGIN/${lib_from_bin})

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Warnings are errors in the project's own presets only.
add_compile_options(-Wall -Wextra -Wconversion -Wshadow
                    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
# Nobody replaces the libraries' own functions from outside, so they may be inlined and called directly.
add_compile_options(-fno-semantic-interposition)
add_link_options(-Wl,--as-needed,-Bsymbolic-functions)

# Programs of 32 bits, too, look at files whatever their length and number: without this, the C library fails
# where they do not fit.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  # Precompiled headers are cached only with this sloppiness, which the code can bear: it uses
  # neither __DATE__ nor __TIME__.
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-fpch-preprocess)
  endif()
endif()

set(KORU_SANITIZE "" CACHE STRING "Sanitizers for every target, as in -fsanitize=")
if(KORU_SANITIZE)
  add_compile_options(-fsanitize=${KORU_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KORU_SANITIZE})
  # With the thread sanitizer, g++ sees overruns in its own strings.
  if(KORU_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-array-bounds -Wno-stringop-overflow)
  endif()
endif()

if(KORU_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# koru_debug_info(TARGET): for what becomes a part of a shared library.
function(koru_debug_info target)
  if(KORU_DEBUG_INFO)
    target_compile_options(${target} PRIVATE -g)
  endif()
endfunction()

# koru_library(TARGET): what the shared libraries have in common.
function(koru_library target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${KORU_ABI_NUMBER}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/Hidden.map)
  target_link_options(${target} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/Hidden.map)
  koru_debug_info(${target})
  target_precompile_headers(${target} PRIVATE
    <fmt/format.h> <algorithm> <functional> <map> <memory> <optional> <string> <vector>)
endfunction()
