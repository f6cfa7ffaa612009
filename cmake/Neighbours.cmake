# The libraries that VFileSys stands on: VLogger (logging), VIni (INI reader), safestr (bounds-checked
# strings). Either way the targets VFileSys::VLogger, VFileSys::VIni and VFileSys::safestr come out of it.

if(VFILESYS_NEIGHBOURS STREQUAL "bundled")
  add_subdirectory(platform)
elseif(VFILESYS_NEIGHBOURS STREQUAL "product")
  include(cmake/VFileSysNeighbours.cmake)
else()
  message(FATAL_ERROR "VFILESYS_NEIGHBOURS is '${VFILESYS_NEIGHBOURS}'; it must be 'bundled' or 'product'")
endif()
