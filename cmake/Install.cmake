# What `cmake --install` puts under the prefix: the four shared libraries, their
# headers (include/Dovel, include/Basalt, include/Tessel, include/Quant), the dovel
# tool with its man page, bash completion and documents, and the CMake package that
# find_package(Dovel) reads.
include(CMakePackageConfigHelpers)

install(TARGETS Dovel Tessel Basalt Quant EXPORT DovelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS dovel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/docs/dovel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/tools/dovel/completion/dovel.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME dovel)
install(FILES ${PROJECT_SOURCE_DIR}/docs/tree-format.md ${PROJECT_SOURCE_DIR}/docs/query-module.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/Dovel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Dovel
        FILES_MATCHING PATTERN "*.h")
foreach(host Basalt Tessel Quant)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/${host}/
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${host} FILES_MATCHING PATTERN "*.h")
endforeach()

set(DOVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Dovel)
install(EXPORT DovelTargets NAMESPACE Dovel:: DESTINATION ${DOVEL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/DovelConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/DovelConfig.cmake
                              INSTALL_DESTINATION ${DOVEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DovelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/DovelConfig.cmake ${PROJECT_BINARY_DIR}/DovelConfigVersion.cmake
        DESTINATION ${DOVEL_CMAKE_DIR})
