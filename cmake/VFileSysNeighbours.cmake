# Finds the neighbours that libVFileSys.so was built on, as VFileSys::VLogger, VFileSys::VIni and
# VFileSys::safestr. Used by the build, and by the installed package, with the product's own neighbours.

function(vfs_find_neighbour name header)
  if(TARGET VFileSys::${name})
    return()
  endif()
  find_library(VFILESYS_${name}_LIBRARY NAMES ${name} HINTS ${vfs_neighbour_libdirs} REQUIRED
               DOC "The product's lib${name}.so")
  find_path(VFILESYS_${name}_INCLUDE_DIR NAMES ${header} HINTS ${vfs_neighbour_includedirs}
            PATH_SUFFIXES VFileSys REQUIRED
            DOC "The directory of the product's ${header}")
  add_library(VFileSys::${name} SHARED IMPORTED GLOBAL)
  set_target_properties(VFileSys::${name} PROPERTIES
    IMPORTED_LOCATION "${VFILESYS_${name}_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${VFILESYS_${name}_INCLUDE_DIR}")
endfunction()

vfs_find_neighbour(VLogger VLogger.h)
vfs_find_neighbour(VIni VIni.h)
vfs_find_neighbour(safestr safestr.h)
