# Cross build for aarch64 (Debian: g++-aarch64-linux-gnu), tests run under qemu-aarch64.
set(KORVEX_CROSS_TRIPLE aarch64-linux-gnu)
set(KORVEX_CROSS_PROCESSOR aarch64)
set(KORVEX_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
