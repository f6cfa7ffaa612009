# The libraries that VFileSys stands on: VLogger (logging), VIni (INI reader), safestr (bounds-checked
# strings). Either way the targets VFileSys::VLogger, VFileSys::VIni and VFileSys::safestr come out of it.

if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  add_subdirectory(platform)
elseif(VFILESYS_NEIGHBOURS STREQUAL "product")
  include(cmake/VFileSysNeighbours.cmake)
  # What is installed finds them where they were found now: the loader, the CMake package and the pkg-config file know
  # the directories that are not searched anyway.
  foreach(name VLogger VIni safestr)
    cmake_path(GET VFILESYS_${name}_LIBRARY PARENT_PATH vfs_directory)
    list(APPEND vfs_neighbour_libdirs "${vfs_directory}")
    list(APPEND vfs_neighbour_includedirs "${VFILESYS_${name}_INCLUDE_DIR}")
  endforeach()
  list(REMOVE_DUPLICATES vfs_neighbour_libdirs)
  list(REMOVE_DUPLICATES vfs_neighbour_includedirs)
  # An empty one is a neighbour's that the including project brings itself.
  list(REMOVE_ITEM vfs_neighbour_libdirs "" ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES})
  list(REMOVE_ITEM vfs_neighbour_includedirs "" ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
  list(APPEND VFS_PROGRAM_RPATH ${vfs_neighbour_libdirs})
  list(APPEND VFS_LIBRARY_RPATH ${vfs_neighbour_libdirs})
else()
  message(FATAL_ERROR "VFILESYS_NEIGHBOURS is '${VFILESYS_NEIGHBOURS}'; it must be 'bundled' or 'product'")
endif()
