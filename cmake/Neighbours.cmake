# The libraries that VFileSys stands on: VLogger (logging), VIni (INI reader), safestr (bounds-checked
# strings). Either way the targets VFileSys::VLogger, VFileSys::VIni and VFileSys::safestr come out of it.

function(vfs_find_neighbour name header)
  find_library(VFILESYS_${name}_LIBRARY NAMES ${name} REQUIRED
               DOC "The product's lib${name}.so")
  find_path(VFILESYS_${name}_INCLUDE_DIR NAMES ${header} PATH_SUFFIXES VFileSys REQUIRED
            DOC "The directory of the product's ${header}")
  add_library(VFileSys::${name} SHARED IMPORTED GLOBAL)
  set_target_properties(VFileSys::${name} PROPERTIES
    IMPORTED_LOCATION "${VFILESYS_${name}_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${VFILESYS_${name}_INCLUDE_DIR}")
endfunction()

if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  add_subdirectory(platform)
elseif(VFILESYS_NEIGHBOURS STREQUAL "product")
  vfs_find_neighbour(VLogger VLogger.h)
  vfs_find_neighbour(VIni VIni.h)
  vfs_find_neighbour(safestr safestr.h)
else()
  message(FATAL_ERROR "VFILESYS_NEIGHBOURS is '${VFILESYS_NEIGHBOURS}'; it must be 'bundled' or 'product'")
endif()
