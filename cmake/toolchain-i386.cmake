# Cross build for i386 (Debian: g++-i686-linux-gnu), tests run under qemu-i386.
set(KORVEX_CROSS_TRIPLE i686-linux-gnu)
set(KORVEX_CROSS_PROCESSOR i686)
set(KORVEX_CROSS_QEMU qemu-i386)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
