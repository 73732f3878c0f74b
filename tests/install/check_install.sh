#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, builds a consumer project against it with
# nothing but find_package, runs it, and checks the pkg-config file points at the prefix.
set -euo pipefail
build_dir=$1 source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir/tests/install/consumer" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/consumer"
PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig" pkg-config --cflags quorvel-render | grep -q "$scratch/prefix/"
echo "installed package builds and runs a consumer"
