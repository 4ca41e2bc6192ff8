#!/bin/sh
# Installs the build into a temporary prefix and imports the module from there with the system
# Python: the module and its stub land in the prefix's dist-packages directory.
# Usage: install_check.sh BUILD_DIR PYTHON SITE_DIR_UNDER_PREFIX
set -eu
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$1" --prefix "$tmp" >/dev/null
test -f "$tmp/$3/korvex.pyi"
cd "$tmp"
PYTHONPATH="$tmp/$3" "$2" -c 'import korvex, sys; assert korvex.__file__.startswith(sys.argv[1]), korvex.__file__' "$tmp/"
echo "installed module ok"
