# Cross build for i386 (Debian: g++-i686-linux-gnu). No emulator: an x86-64 Linux kernel runs 32-bit x86
# programs natively, so the tests run directly, with the cross C library's own loader and libraries.
set(KORVEX_CROSS_TRIPLE i686-linux-gnu)
set(KORVEX_CROSS_PROCESSOR i686)
set(KORVEX_CROSS_QEMU "")
set(KORVEX_CROSS_LOADER ld-linux.so.2)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
