# Install rules: the three libraries, the public headers, a CMake package
# (find_package(zarvel_aux) gives zarvel::aux, zarvel::frame and zarvel::core) and
# pkg-config files.
include(CMakePackageConfigHelpers)

install(TARGETS zarvel_core zarvel_frame zarvel_aux
        EXPORT zarvel_auxTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zarvel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zarvel_aux)
install(EXPORT zarvel_auxTargets NAMESPACE zarvel:: DESTINATION ${_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zarvel_auxConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/zarvel_auxConfig.cmake
                              INSTALL_DESTINATION ${_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zarvel_auxConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zarvel_auxConfig.cmake
              ${PROJECT_BINARY_DIR}/zarvel_auxConfigVersion.cmake
        DESTINATION ${_cmake_dir})

# The .pc files find their prefix relative to their own folder, so an installed tree can move.
file(RELATIVE_PATH ZARVEL_PC_RELATIVE_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
foreach(_pc zarvel zarvel_core zarvel_aux)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${_pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${_pc}.pc
                 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${_pc}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
