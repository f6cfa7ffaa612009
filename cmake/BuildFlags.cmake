# The flags that every target of this project is compiled and linked with, as the interface target
# vfs_build_flags. Targets link it privately, so nothing of it reaches the users of the library.

add_library(vfs_build_flags INTERFACE)
target_compile_features(vfs_build_flags INTERFACE cxx_std_17 c_std_11)
target_compile_options(vfs_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>
  # __FILE__ begins with the source tree's own directories on every machine; log readers rely on it.
  # It has to be the file map: a package build's own file map would beat a macro map.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(VFILESYS_COVERAGE)
  # Counters that threads share, and no tail that is left out of them.
  target_compile_options(vfs_build_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(vfs_build_flags INTERFACE --coverage)
endif()
if(VFILESYS_SANITIZE)
  target_compile_options(vfs_build_flags INTERFACE
    -fsanitize=${VFILESYS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vfs_build_flags INTERFACE -fsanitize=${VFILESYS_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # clang's sanitizers are part of the program, so that a library has undefined names. Takes back what the
    # libraries ask for themselves.
    target_link_options(vfs_build_flags INTERFACE LINKER:-z,undefs)
  endif()
else()
  # Fortified functions need the optimiser; they are switched off again in the few sources whose calls
  # they would rename (see BaseAPI/VFileSys/CMakeLists.txt).
  target_compile_options(vfs_build_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>
    -fstack-protector-strong -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|AMD64)$")
    target_compile_options(vfs_build_flags INTERFACE -fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    target_compile_options(vfs_build_flags INTERFACE -mbranch-protection=standard)
  endif()
endif()
if(VFILESYS_BUILD_FUZZERS)
  # Tells the fuzzing engine which branches an input reaches.
  target_compile_options(vfs_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_link_options(vfs_build_flags INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)

# Hidden unless a declaration says otherwise, position-independent everywhere.
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# Installed programs and libraries find each other relative to their own place, whatever the prefix.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_FULL_BINDIR}"
           OUTPUT_VARIABLE vfs_libdir_from_bindir)
set(VFS_PROGRAM_RPATH "$ORIGIN/${vfs_libdir_from_bindir}")
set(VFS_LIBRARY_RPATH "$ORIGIN")
# The build tree's own run paths are relative too, so that the same sources give the same bytes anywhere.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
