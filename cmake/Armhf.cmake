# Toolchain: 32-bit ARM with a floating-point unit, Debian's armhf.
set(koru_architecture armhf)
set(koru_triplet arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/Cross.cmake)
# (Notes about compilers older than any that this can be built with.)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
