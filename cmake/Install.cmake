# Installation, in components: libraries, development, tools, agent, documentation (and python, in its own folder).
# Headers, what CMake and pkg-config need to find them, programs with their manual pages, and the agent as a service.
include(CMakePackageConfigHelpers)
include(cmake/Headers.cmake)

set(KORU_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KoruRegFile)
set(KORU_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/koruregfile)

# koru_install_library(TARGET): the link without a number is for linking only.
function(koru_install_library target)
  install(TARGETS ${target} EXPORT KoruRegFileTargets
          LIBRARY COMPONENT libraries NAMELINK_COMPONENT development)
endfunction()

# koru_install_pages(COMPONENT page...)
function(koru_install_pages component)
  foreach(page ${ARGN})
    string(REGEX REPLACE ".*\\." "" section ${page})
    install(FILES man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endforeach()
endfunction()

koru_install_library(KoruPlatform)
koru_install_library(KoruRegFile)
koru_install_headers(${PROJECT_SOURCE_DIR}/platform ${KORU_PLATFORM_HEADERS})
koru_install_headers(${PROJECT_SOURCE_DIR} ${KORU_REGFILE_HEADERS})
set(pkgconfigs koruregfile)

if(KORU_TOOLS)
  koru_install_library(KoruBoard)
  koru_install_headers(${PROJECT_SOURCE_DIR} ${KORU_BOARD_HEADERS})
  list(APPEND pkgconfigs koruboard)
  install(TARGETS korureg COMPONENT tools)
  foreach(program korureg-top korureg-web)
    if(TARGET ${program})
      install(TARGETS ${program} DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/koruregfile COMPONENT tools)
    endif()
  endforeach()
  koru_install_pages(tools korureg.1 koru-map.5 koruregfile.7)
  install(FILES tools/completion/korureg.bash RENAME korureg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  install(FILES tools/completion/_korureg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
endif()
if(TARGET korud)
  install(TARGETS korud COMPONENT agent)
  koru_install_pages(agent korud.8 korud.toml.5)
  include(cmake/Service.cmake)
endif()
if(TARGET korusim)
  install(TARGETS korusim COMPONENT tools)
  install(TARGETS KoruSimulator DESTINATION ${CMAKE_INSTALL_LIBDIR}/koru COMPONENT tools)
  koru_install_pages(tools korusim.1)
endif()

install(DIRECTORY docs DESTINATION ${KORU_DOC_DIR} COMPONENT documentation FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
install(FILES README.md DESTINATION ${KORU_DOC_DIR} COMPONENT documentation)
install(DIRECTORY examples DESTINATION ${KORU_DOC_DIR} COMPONENT documentation)

install(EXPORT KoruRegFileTargets NAMESPACE KoruRegFile:: DESTINATION ${KORU_CMAKE_DIR} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KoruRegFileConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES cmake/KoruRegFileConfig.cmake ${PROJECT_BINARY_DIR}/KoruRegFileConfigVersion.cmake
        DESTINATION ${KORU_CMAKE_DIR} COMPONENT development)

# The prefix is written relative to the file, so that the installed tree can be moved.
file(RELATIVE_PATH KORU_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name ${pkgconfigs})
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()
