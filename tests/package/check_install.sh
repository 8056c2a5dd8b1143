#!/usr/bin/env bash
# Installs the build into an empty folder, builds a foreign C project against it with find_package,
# and runs that project's program.
# usage: check_install.sh BUILD_DIR CONSUMER_SOURCE C_COMPILER
set -euo pipefail
build=$1 consumer=$2 cc=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" ||
    { cat "$work/install.log"; exit 1; }
cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/build" >"$work/build.log" || { cat "$work/build.log"; exit 1; }
LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libxelsch.so)") "$work/build/consumer"
