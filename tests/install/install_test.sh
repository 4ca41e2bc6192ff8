#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds the C and C++ examples against the installed
# tree, once through pkg-config and once through find_package(korvex).
set -euo pipefail
build=$1; src=$2
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(ls -d "$tmp"/prefix/lib*/ | head -n 1)
export PKG_CONFIG_PATH="$libdir/pkgconfig"
export LD_LIBRARY_PATH="$libdir"
cc -std=c11 -Wall -Werror "$src/examples/hello.c" $(pkg-config --cflags --libs korvex) -o "$tmp/hello_c"
c++ -std=c++17 -Wall -Werror "$src/examples/hello.cpp" $(pkg-config --cflags --libs korvex) -o "$tmp/hello_cpp"
"$tmp/hello_c" 2>/dev/null | grep -q 'hello.c ok'
"$tmp/hello_cpp" 2>/dev/null | grep -q 'hello.cpp ok'
cmake -S "$src/examples/consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
"$tmp/consumer/hello_c" 2>/dev/null | grep -q 'hello.c ok'
"$tmp/consumer/hello_cpp" 2>/dev/null | grep -q 'hello.cpp ok'
"$tmp/consumer/hello_c_static" 2>/dev/null | grep -q 'hello.c ok'
# The static library: its targets publish the installed include folder only, and a program whose own
# globals bear internal names of the library links with it and runs.
if grep -q '/src' "$libdir/cmake/korvex/korvexTargets.cmake"; then
  echo "the installed targets name a source folder"; exit 1
fi
cc -std=c11 -Wall -Werror "$src/tests/install/clash.c" $(pkg-config --cflags korvex) "$libdir/libkorvex.a" \
  -lpthread -ldl -o "$tmp/clash"
"$tmp/clash" 2>/dev/null | grep -q 'clash.c ok'
echo "install test ok"
