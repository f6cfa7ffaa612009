# Builds for AArch64 on another machine, with Debian's cross compiler, and runs what was built in the emulator.
# The libraries are Debian's packages for AArch64, unpacked by ./dev arm64 (scripts/arm64.sh).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

get_filename_component(vfs_arm64_debian "${CMAKE_CURRENT_LIST_DIR}/../build/arm64/debian" ABSOLUTE)

# Programs are this machine's; everything else is the sysroot's, or the project's that is built upon.
set(CMAKE_FIND_ROOT_PATH "${vfs_arm64_debian}/sysroot" ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers that differ from architecture to architecture, which others of their package include.
foreach(language C CXX)
  set(CMAKE_${language}_STANDARD_INCLUDE_DIRECTORIES "${vfs_arm64_debian}/sysroot/usr/include/aarch64-linux-gnu")
endforeach()

# Libraries that only libraries need are looked for by the linker, which knows nothing of the above.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${vfs_arm64_debian}/sysroot/usr/lib/aarch64-linux-gnu")

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/arm64-emulator.sh")
