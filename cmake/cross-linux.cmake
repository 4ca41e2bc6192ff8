# Shared part of the cross toolchain files (cmake/toolchain-<target>.cmake): Debian's cross compilers
# (g++-<triple>) and the target's C library under /usr/<triple>; the test programs run under qemu-user
# with that directory as the target's root, or natively when KORVEX_CROSS_QEMU is empty (i386 on an
# x86-64 host; the toolchain file then names the loader, KORVEX_CROSS_LOADER). Each toolchain file sets
# KORVEX_CROSS_TRIPLE, KORVEX_CROSS_PROCESSOR and KORVEX_CROSS_QEMU before including this one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${KORVEX_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${KORVEX_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORVEX_CROSS_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${KORVEX_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(KORVEX_CROSS_QEMU)
  find_program(KORVEX_CROSS_QEMU_PATH ${KORVEX_CROSS_QEMU})
  if(NOT KORVEX_CROSS_QEMU_PATH)
    message(FATAL_ERROR "${KORVEX_CROSS_QEMU} not found (Debian: qemu-user)")
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVEX_CROSS_QEMU_PATH} -L /usr/${KORVEX_CROSS_TRIPLE})
  # Tests run several times slower under the emulator.
  set(KORVEX_TEST_TIMEOUT 900)
else()
  # Run natively (the host kernel runs the target's programs): programs take the target C library's
  # loader and find its libraries (libc, libstdc++, libgcc_s) under /usr/<triple>/lib, for the shared
  # library's own dependencies as well.
  set(KORVEX_CROSS_LIBDIR /usr/${KORVEX_CROSS_TRIPLE}/lib)
  set(CMAKE_EXE_LINKER_FLAGS_INIT
      "-Wl,--dynamic-linker=${KORVEX_CROSS_LIBDIR}/${KORVEX_CROSS_LOADER} -Wl,-rpath,${KORVEX_CROSS_LIBDIR}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath,${KORVEX_CROSS_LIBDIR}")
endif()
# GoogleTest is built from Debian's source package (googletest) for the target.
set(KORVEX_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest source tree, built with the tests")
