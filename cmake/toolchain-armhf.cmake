# Cross build for armhf (Debian: g++-arm-linux-gnueabihf), tests run under qemu-arm.
set(KORVEX_CROSS_TRIPLE arm-linux-gnueabihf)
set(KORVEX_CROSS_PROCESSOR arm)
set(KORVEX_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
