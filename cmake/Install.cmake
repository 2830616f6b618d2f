# Installation: libraries, tools, headers, man pages, and what CMake and pkg-config need to find them.
include(CMakePackageConfigHelpers)

set(KORU_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KoruRegFile)

install(TARGETS KoruPlatform KoruRegFile EXPORT KoruRegFileTargets)
set(headers ${CMAKE_SOURCE_DIR}/platform/ ${CMAKE_SOURCE_DIR}/KoruRegFile)
if(KORU_TOOLS)
  install(TARGETS KoruBoard EXPORT KoruRegFileTargets)
  list(APPEND headers ${CMAKE_SOURCE_DIR}/board)
  install(TARGETS korureg korud)
  install(FILES agent/korud.service DESTINATION lib/systemd/system)
endif()
if(TARGET korusim)
  install(TARGETS korusim)
  install(TARGETS KoruSimulator DESTINATION ${CMAKE_INSTALL_LIBDIR}/koru)
  install(DIRECTORY examples/simulator DESTINATION ${CMAKE_INSTALL_DATADIR}/koru/examples
          FILES_MATCHING PATTERN "*.toml" PATTERN "*.csv")
endif()
install(DIRECTORY ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE)
foreach(section 1 5)
  file(GLOB pages ${CMAKE_SOURCE_DIR}/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

install(EXPORT KoruRegFileTargets NAMESPACE KoruRegFile:: DESTINATION ${KORU_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KoruRegFileConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES cmake/KoruRegFileConfig.cmake ${CMAKE_BINARY_DIR}/KoruRegFileConfigVersion.cmake
        DESTINATION ${KORU_CMAKE_DIR})

# The prefix is written relative to the file, so that the installed tree can be moved.
file(RELATIVE_PATH KORU_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
set(pkgconfigs koruregfile)
if(KORU_TOOLS)
  list(APPEND pkgconfigs koruboard)
endif()
foreach(name ${pkgconfigs})
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
