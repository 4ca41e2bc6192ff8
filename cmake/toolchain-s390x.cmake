# Cross build for s390x (Debian: g++-s390x-linux-gnu), tests run under qemu-s390x.
set(KORVEX_CROSS_TRIPLE s390x-linux-gnu)
set(KORVEX_CROSS_PROCESSOR s390x)
set(KORVEX_CROSS_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
