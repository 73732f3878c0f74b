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
"$scratch/build/zoom_consumer"
PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig" pkg-config --cflags quorvel-render | grep -q "$scratch/prefix/"
# The Python module, where it was built, imports from the prefix with the usual PYTHONPATH.
if ls "$scratch"/prefix/lib/python3/dist-packages/quorvel*.so >/dev/null 2>&1; then
  PYTHONPATH="$scratch/prefix/lib/python3/dist-packages" /usr/bin/python3 -c "import quorvel"
fi
echo "installed package builds and runs a consumer"
