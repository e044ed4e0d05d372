# Cross build for 32-bit ARM boards (hard-float) with Debian's cross compilers
# (crossbuild-essential-armhf) and the armhf multiarch development packages:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(ORKAD_CROSS_TRIPLET arm-linux-gnueabihf)
set(ORKAD_CROSS_PROCESSOR arm)
set(ORKAD_CROSS_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
