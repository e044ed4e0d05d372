# Cross build for 64-bit ARM boards with Debian's cross compilers
# (crossbuild-essential-arm64) and the arm64 multiarch development packages:
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(ORKAD_CROSS_TRIPLET aarch64-linux-gnu)
set(ORKAD_CROSS_PROCESSOR aarch64)
set(ORKAD_CROSS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
