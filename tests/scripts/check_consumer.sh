#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, builds the consumer project
# against it with find_package(orvi), runs it, and checks the pkg-config file.
set -euo pipefail
build_dir=$1 consumer_src=$2 work=$3

rm -rf "$work"
prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
cmake -S "$consumer_src" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$work/build/orvi_consumer"

libdir=$(find "$prefix" -name orvi.pc -printf '%h\n' | head -n 1)
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs orvi)
echo "pkg-config: $flags"
case "$flags" in *-lorvi*) ;; *) echo "pkg-config does not link -lorvi" >&2; exit 1 ;; esac
ls "$prefix"/lib*/liborvi.so.0 >/dev/null

# The adapters, as optional components, when this build installed them.
if [ -f "$(dirname "$(find "$prefix" -name orviConfig.cmake | head -n 1)")/orviNetTargets.cmake" ]; then
  cmake -S "$consumer_src/adapters" -B "$work/adapters" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/adapters" >/dev/null
  LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$work/adapters/orvi_consumer_adapters"
fi
