#!/usr/bin/env bash
# The 32-bit (i386) build: configures the library and its tests with
# cmake/toolchain-i386.cmake, builds them and runs the suite. Installs
# nothing; needs Debian's g++-multilib and googletest (the GoogleTest
# sources, built here for 32 bits), which .ci/install_deps.sh installs.
# Usage: bash tests/run_32bit.sh [BUILD_DIR [--build-only]]
#   BUILD_DIR    default build-32 in the source tree
#   --build-only configure and build, leave running ctest to the caller
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-32}
jobs=$(nproc)

probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'int main() { return sizeof(void*) == 4 ? 0 : 1; }' > "$probe/probe.cpp"
if ! "${CXX:-c++}" -m32 "$probe/probe.cpp" -o "$probe/probe" 2> "$probe/err"; then
  cat "$probe/err" >&2
  echo "run_32bit.sh: cannot build 32-bit programs (Debian: apt-get install g++-multilib)" >&2
  exit 1
fi
# A kernel without 32-bit support (no IA32 emulation) builds i386 programs but
# cannot run them, and test discovery runs every test program at build time:
# then only the library and the tool are built, which still proves they compile.
runs=1
"$probe/probe" 2>/dev/null || runs=0
if [ -f "$build/CMakeCache.txt" ] &&
   ! grep -q '^CMAKE_TOOLCHAIN_FILE:.*toolchain-i386\.cmake$' "$build/CMakeCache.txt"; then
  echo "run_32bit.sh: $build holds another build; remove it or name a new directory" >&2
  exit 1
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-i386.cmake"
if [ "$runs" = 0 ]; then
  echo "run_32bit.sh: this kernel cannot run 32-bit programs: building the library and ryl only, no tests" >&2
  cmake --build "$build" -j "$jobs" --target ryl_xml $(grep -q '^RYL_BUILD_TOOLS:BOOL=ON' "$build/CMakeCache.txt" && echo ryl)
  touch "$build/tests_not_built"
  exit 0
fi
rm -f "$build/tests_not_built"
cmake --build "$build" -j "$jobs"
if [ "${2:-}" != "--build-only" ]; then
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
fi
