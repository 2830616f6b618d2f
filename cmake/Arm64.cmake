# Toolchain: 64-bit ARM, Debian's arm64.
set(koru_architecture arm64)
set(koru_triplet aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/Cross.cmake)
