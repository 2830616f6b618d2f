# Read by find_package(KoruRegFile): defines KoruRegFile::KoruRegFile, KoruRegFile::KoruPlatform and, where
# it was installed, KoruRegFile::KoruBoard. They demand C++20 themselves.
include(CMakeFindDependencyMacro)
find_dependency(fmt 9)
find_dependency(Boost 1.81 CONFIG)
include(${CMAKE_CURRENT_LIST_DIR}/KoruRegFileTargets.cmake)
