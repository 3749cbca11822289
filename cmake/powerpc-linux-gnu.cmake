# Cross build for the target board: 32-bit big-endian PowerPC Linux.
# Tests run under qemu-ppc through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

# Board libraries and packages are searched only below these roots, never in
# the build machine's own /usr. Besides the compiler's sysroot, every prefix
# the host names (CMAKE_PREFIX_PATH, in the cache or the environment, and
# CMAKE_STAGING_PREFIX) is a root of its own: a package installed for the
# board under such a prefix is found there with no further setting.
set(DTKIT_PPC_SYSROOT /usr/powerpc-linux-gnu)
set(_dtkit_roots ${DTKIT_PPC_SYSROOT} ${CMAKE_PREFIX_PATH})
if(DEFINED ENV{CMAKE_PREFIX_PATH})
  string(REPLACE ":" ";" _dtkit_env_prefixes "$ENV{CMAKE_PREFIX_PATH}")
  list(APPEND _dtkit_roots ${_dtkit_env_prefixes})
endif()
if(CMAKE_STAGING_PREFIX)
  list(APPEND _dtkit_roots ${CMAKE_STAGING_PREFIX})
endif()
# Installed with the library (<prefix>/<libdir>/cmake/dtkit): its own prefix
# is a root as well, found by walking up to the folder that holds include/dtkit.
if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/dtkitConfig.cmake)
  set(_dtkit_up ${CMAKE_CURRENT_LIST_DIR})
  foreach(_dtkit_level 1 2 3 4)
    get_filename_component(_dtkit_up ${_dtkit_up} DIRECTORY)
    if(IS_DIRECTORY ${_dtkit_up}/include/dtkit)
      list(APPEND _dtkit_roots ${_dtkit_up})
      break()
    endif()
  endforeach()
endif()
list(REMOVE_DUPLICATES _dtkit_roots)
set(CMAKE_FIND_ROOT_PATH ${_dtkit_roots})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
find_program(DTKIT_QEMU_PPC qemu-ppc)
if(DTKIT_QEMU_PPC)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DTKIT_QEMU_PPC} -L ${DTKIT_PPC_SYSROOT})
endif()
