#!/usr/bin/env bash
# Configures, builds and runs the whole test suite.
#
#   tools/test.sh [BUILD_DIR] [CMAKE_ARGS...]
#
# BUILD_DIR defaults to build (relative to the current folder); any further
# arguments go to the CMake configure step, e.g.
#   tools/test.sh build-asan -DZEMACAD_SANITIZE=ON
# ZEMACAD_JOBS sets the build's parallelism (default: all cores).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=build
if [[ $# -gt 0 && $1 != -* ]]; then
  build=$1
  shift
fi

generator=()
if [[ ! -f $build/CMakeCache.txt ]] && command -v ninja >/dev/null 2>&1; then
  generator=(-G Ninja)
fi

cmake -S "$root" -B "$build" "${generator[@]}" "$@"
cmake --build "$build" --parallel "${ZEMACAD_JOBS:-$(nproc)}"
ctest --test-dir "$build" --output-on-failure -j2
