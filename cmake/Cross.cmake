# For the toolchain files next to it: Debian's cross compiler for `koru_triplet`, against the sysroot of
# the architecture `koru_architecture`, which `scripts/sysroot` makes and leaves a link to.
set(CMAKE_SYSTEM_NAME Linux)
set(koru_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${koru_architecture})
if(NOT EXISTS ${koru_sysroot})
  message(FATAL_ERROR "there is no sysroot for ${koru_architecture}: 'scripts/sysroot ${koru_architecture}' makes it")
endif()
file(REAL_PATH ${koru_sysroot} CMAKE_SYSROOT)

set(CMAKE_CXX_COMPILER ${koru_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${koru_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${koru_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
