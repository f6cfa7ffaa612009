# What `cmake --install` puts in place, and the CMake package and the pkg-config file that find it again.

include(CMakePackageConfigHelpers)

install(TARGETS VFileSys EXPORT VFileSysTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/VFileSys")
install(TARGETS VCopyFileListIni vfilelist RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
# systemd looks here for units, below /usr and /usr/local; the directory is lib on every architecture.
install(FILES BaseAPI/VFileList/vfilelist-resume.service DESTINATION lib/systemd/system)
install(FILES docs/vfilelist.schema.json DESTINATION "${CMAKE_INSTALL_DOCDIR}")
# The documents that headers, programs and examples name, and those that these refer to.
foreach(document behaviour findings fleet making-packages packages performance reliability upgrade-tool vfilelist)
  install(FILES docs/${document}.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
endforeach()
# The licence, and the notices of the libraries whose code the programs contain.
install(FILES LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(FILES docs/third-party/vfilesys-tools.txt DESTINATION "${CMAKE_INSTALL_DOCDIR}/third-party")
install(DIRECTORY examples/ DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")
install(FILES completions/VCopyFileListIni completions/vfilelist
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions")
foreach(page vfilelist.1 VCompressAndDeCompress.3 VDir.3 VFile.3 VFixFirewall.3 VMonitorFiles.3 VPath.3 vfilelist.5
        VFileSys.7 VCopyFileListIni.8)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES docs/man/${page} DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  install(TARGETS VLogger VIni safestr EXPORT VFileSysStandInsTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/VFileSys")
  install(FILES docs/third-party/vfilesys-standins.txt DESTINATION "${CMAKE_INSTALL_DOCDIR}/third-party")
endif()

# The stand-ins have a file of targets of their own, so that they can be taken out of an installation, and the product's
# neighbours are found then.
set(vfs_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/VFileSys")
install(EXPORT VFileSysTargets NAMESPACE VFileSys:: DESTINATION "${vfs_package_dir}")
if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  install(EXPORT VFileSysStandInsTargets NAMESPACE VFileSys:: DESTINATION "${vfs_package_dir}")
endif()
install(FILES cmake/VFileSysNeighbours.cmake DESTINATION "${vfs_package_dir}")
configure_package_config_file(cmake/VFileSysConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfig.cmake"
                              INSTALL_DESTINATION "${vfs_package_dir}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/VFileSysConfigVersion.cmake"
        DESTINATION "${vfs_package_dir}")

# The package may be moved as a whole: the file gives all from its own place. Below /usr it names the places themselves,
# so that pkg-config leaves out those that the compiler and the linker search anyway.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
           OUTPUT_VARIABLE vfs_libdir_from_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
           OUTPUT_VARIABLE vfs_includedir_from_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
           OUTPUT_VARIABLE vfs_prefix_from_pkgconfig)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(vfs_pkgconfig_prefix "/usr")
else()
  set(vfs_pkgconfig_prefix "\${pcfiledir}/${vfs_prefix_from_pkgconfig}")
endif()
# For programs that use the product's logger as well.
list(TRANSFORM vfs_neighbour_libdirs PREPEND " -L" OUTPUT_VARIABLE vfs_neighbour_libs)
list(JOIN vfs_neighbour_libs "" vfs_neighbour_libs)
list(TRANSFORM vfs_neighbour_includedirs PREPEND " -I" OUTPUT_VARIABLE vfs_neighbour_cflags)
list(JOIN vfs_neighbour_cflags "" vfs_neighbour_cflags)
configure_file(cmake/VFileSys.pc.in "${CMAKE_CURRENT_BINARY_DIR}/VFileSys.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VFileSys.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
