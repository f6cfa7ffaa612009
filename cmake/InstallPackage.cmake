# What `cmake --install` puts in place, and the CMake package that finds it again.

include(CMakePackageConfigHelpers)

install(TARGETS VFileSys EXPORT VFileSysTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/VFileSys")
install(TARGETS VCopyFileListIni vfilelist RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES docs/vfilelist.schema.json DESTINATION "${CMAKE_INSTALL_DOCDIR}")
if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  install(TARGETS VLogger VIni safestr EXPORT VFileSysTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/VFileSys")
endif()

set(vfs_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/VFileSys")
install(EXPORT VFileSysTargets NAMESPACE VFileSys:: DESTINATION "${vfs_package_dir}")
set(vfs_config_neighbours "")
if(VFILESYS_NEIGHBOURS STREQUAL "product")
  # The bundled neighbours are targets of the package; the product's have to be found again.
  set(vfs_config_neighbours "include(\"\${CMAKE_CURRENT_LIST_DIR}/VFileSysNeighbours.cmake\")")
  install(FILES cmake/VFileSysNeighbours.cmake DESTINATION "${vfs_package_dir}")
endif()
configure_package_config_file(cmake/VFileSysConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfig.cmake"
                              INSTALL_DESTINATION "${vfs_package_dir}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfigVersion.cmake"
        DESTINATION "${vfs_package_dir}")
