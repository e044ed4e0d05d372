# Shared part of the ARM toolchain files: Debian's cross compilers for
# ORKAD_CROSS_TRIPLET, libraries and headers from that architecture's
# multiarch folders, pkg-config answering for that architecture, and qemu-user
# as the emulator, so test discovery and ctest run the ARM binaries here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${ORKAD_CROSS_PROCESSOR})

set(CMAKE_C_COMPILER ${ORKAD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORKAD_CROSS_TRIPLET}-g++)
set(CMAKE_STRIP ${ORKAD_CROSS_TRIPLET}-strip CACHE FILEPATH "")
set(CMAKE_LIBRARY_ARCHITECTURE ${ORKAD_CROSS_TRIPLET})

# Multiarch: the target's libraries live in /usr/lib/<triplet>, its headers
# mostly in /usr/include, so the host root stays the search root; programs
# (pkg-config, python, sqlite3) are the host's.
set(CMAKE_FIND_ROOT_PATH /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${ORKAD_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(PKG_CONFIG_EXECUTABLE ${ORKAD_CROSS_TRIPLET}-pkg-config CACHE FILEPATH "")
if(NOT EXISTS /usr/bin/${ORKAD_CROSS_TRIPLET}-pkg-config)
    set(PKG_CONFIG_EXECUTABLE pkg-config CACHE FILEPATH "" FORCE)
endif()

find_program(ORKAD_QEMU ${ORKAD_CROSS_QEMU})
if(ORKAD_QEMU)
    # The multiarch loader and libraries are in the host root.
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ORKAD_QEMU};-L;/)
endif()

