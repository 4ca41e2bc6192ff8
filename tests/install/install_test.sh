#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds the C and C++ examples against the installed
# tree, once through pkg-config and once through find_package(korvex) from the installed examples.
# The installed programs run without LD_LIBRARY_PATH, also after the tree is moved; the manual pages,
# the examples and the Wireshark dissector are in place.
set -euo pipefail
build=$1; src=$2; examples=${3:-ON}  # OFF: a build without the example programs (korvex_demo)
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/first" >/dev/null
mv "$tmp/first" "$tmp/prefix"
libdir=$(ls -d "$tmp"/prefix/lib*/ | head -n 1)
docdir="$tmp/prefix/share/doc/korvex"
if [ -x "$tmp/prefix/bin/korvex-dump" ]; then
  for tool in korvex-dump korvex-mkframe korvex-view korvex-export; do
    env -u LD_LIBRARY_PATH "$tmp/prefix/bin/$tool" --help >/dev/null
    page="$tmp/prefix/share/man/man1/$tool.1"
    grep -q '^\.SH OPTIONS' "$page" || { echo "$page: no OPTIONS section"; exit 1; }
  done
  lua="$libdir/wireshark/plugins/korvex_link.lua"
  test -f "$lua" || { echo "the dissector is not in $libdir/wireshark/plugins"; exit 1; }
  # Wireshark loads it from its plugin folder: the installed folder linked in as a user's Lua plugins.
  if command -v tshark >/dev/null; then
    mkdir -p "$tmp/home/.local/lib/wireshark"
    ln -s "$libdir/wireshark/plugins" "$tmp/home/.local/lib/wireshark/plugins"
    HOME="$tmp/home" XDG_CONFIG_HOME="$tmp/home" tshark -G protocols 2>/dev/null | grep -q '^korvex link protocol' ||
      { echo "tshark does not load the installed $lua"; exit 1; }
  fi
fi
if [ "$examples" = ON ]; then
  env -u LD_LIBRARY_PATH "$tmp/prefix/bin/korvex_demo" 2>/dev/null | grep -q 'demo session done' || {
    echo "the installed korvex_demo does not run without LD_LIBRARY_PATH"; exit 1; }
  for f in demo.c hello.c hello.cpp consumer/CMakeLists.txt python/plates_to_csv.py; do
    test -f "$docdir/examples/$f" || { echo "example $f not installed"; exit 1; }
  done
fi
export PKG_CONFIG_PATH="$libdir/pkgconfig"
export LD_LIBRARY_PATH="$libdir"
cc -std=c11 -Wall -Werror "$src/examples/hello.c" $(pkg-config --cflags --libs korvex) -o "$tmp/hello_c"
c++ -std=c++17 -Wall -Werror "$src/examples/hello.cpp" $(pkg-config --cflags --libs korvex) -o "$tmp/hello_cpp"
"$tmp/hello_c" 2>/dev/null | grep -q 'hello.c ok'
"$tmp/hello_cpp" 2>/dev/null | grep -q 'hello.cpp ok'
# find_package through the consumer project: installed with the examples, else taken from the sources.
consumer="$docdir/examples/consumer"; [ "$examples" = ON ] || consumer="$src/examples/consumer"
cmake -S "$consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
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
