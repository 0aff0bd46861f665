#!/usr/bin/env bash
# Installs into an empty folder, moves what was installed, and then builds and runs an application against it,
# once with CMake and once with pkg-config: install_and_use.sh BUILD-FOLDER SOURCE-FOLDER COMPILER
set -euo pipefail
build=$1 source=$2 compiler=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >"$work/install.log"
prefix="$work/moved here"
mv "$work/first" "$prefix"
lib=$(dirname "$(find "$prefix" -name libMivra.Common.so)")

expect() {  # WHAT EXPECTED FOUND
    [ "$2" = "$3" ] || { printf '%s: expected "%s", found "%s"\n' "$@" && exit 1; }
}
expect "file behind the links" libMivra.Common.so.2.3.0 "$(basename "$(readlink -f "$lib/libMivra.Common.so")")"
expect "SONAME" libMivra.Common.so.2 "$(objdump -p "$lib/libMivra.Common.so" | awk '$1 == "SONAME" {print $2}')"
if grep -rIl -e "$build" -e "$source" "$prefix"; then
    echo "The files above name the tree that they were built in." && exit 1
fi
if [ -x "$prefix/bin/mivra" ]; then
    expect "installed tool" 2.3.0.0208 "$("$prefix/bin/mivra" --version)"
fi

cmake -S "$source/tests/house/consumer" -B "$work/consumer" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log"
cmake --build "$work/consumer" >"$work/build.log" || { cat "$work/build.log" && exit 1; }
expect "consumer with CMake" "2.3.0.0208" "$("$work/consumer/consumer" "$work/cmake.log")"

export PKG_CONFIG_PATH="$lib/pkgconfig"
expect "version of the module" 2.3.0 "$(pkg-config --modversion mivra-common)"
eval "flags=($(pkg-config --cflags --libs mivra-common))"
"$compiler" -std=c++20 "$source/tests/house/consumer/Consumer.cpp" -o "$work/with-pkg-config" "${flags[@]}"
expect "consumer with pkg-config" "2.3.0.0208" \
    "$(LD_LIBRARY_PATH="$lib" "$work/with-pkg-config" "$work/pkg-config.log")"
echo "installed, moved, and used with CMake and with pkg-config"
