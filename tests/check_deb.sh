#!/usr/bin/env bash
# Builds the Debian package of a configured build directory with CPack and
# checks it:
#  1. extracts it with dpkg -x and checks that it holds the required files
#     under /usr, exactly the files `cmake --install` puts into a prefix, and
#     a pkg-config file naming /usr;
#  2. where possible (root, unshare and overlay mounts), installs it with
#     dpkg -i into a throwaway copy-on-write view of this machine's root
#     (the machine itself is left untouched) and there runs an OpenMP program
#     with OMP_TOOL_LIBRARIES=libryl_xml.so, builds and runs a C program with
#     pkg-config and without any library path, and removes the package.
# Usage: bash tests/check_deb.sh BUILD_DIR [--no-install]
set -euo pipefail

if [ $# -lt 1 ] || [ ! -f "$1/CMakeCache.txt" ]; then
  echo "usage: bash tests/check_deb.sh BUILD_DIR [--no-install]  (BUILD_DIR: a configured build)" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
try_install=1
[ "${2:-}" = "--no-install" ] && try_install=0
src=$(cd "$(dirname "$0")/.." && pwd)

fail() { echo "check_deb: FAILED: $*" >&2; exit 1; }
cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

libdir=$(cache_value CMAKE_INSTALL_LIBDIR)
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake" 2>/dev/null || true)
[ -n "$libdir" ] || fail "CMAKE_INSTALL_LIBDIR not in $build/CMakeCache.txt"
[ -n "$version" ] || fail "no CPack configuration in $build (configure with RYL_INSTALL=ON)"
major=${version%%.*}

work=$(mktemp -d "${TMPDIR:-/tmp}/ryl_check_deb.XXXXXX")
cleanup() { rm -rf "$work"; }
trap cleanup EXIT

echo "==== build the installed targets and package $build"
targets=(ryl_xml)
[ -d "$build/tools" ] && targets+=(ryl)
cmake --build "$build" --target "${targets[@]}"
rm -f "$build"/package/*.deb
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$build/package"
debs=("$build"/package/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one .deb in $build/package"
deb=${debs[0]}
echo "package: $deb"
dpkg-deb --info "$deb"

echo "==== extract with dpkg -x"
dpkg -x "$deb" "$work/root"
required=(
  "usr/$libdir/libryl_xml.so.$version"
  "usr/$libdir/libryl_xml.so.$major"
  "usr/$libdir/libryl_xml.so"
  usr/include/zop_minimal.h
  usr/include/xml.h
  "usr/$libdir/cmake/ryl_xml/ryl_xml-config.cmake"
  "usr/$libdir/cmake/ryl_xml/ryl_xml-config-version.cmake"
  "usr/$libdir/cmake/ryl_xml/ryl_xml-targets.cmake"
  "usr/$libdir/pkgconfig/ryl_xml.pc"
  usr/share/doc/ryl_xml/README.md)
for f in "${required[@]}"; do
  [ -e "$work/root/$f" ] || fail "the package lacks /$f"
done
[ "$(readlink "$work/root/usr/$libdir/libryl_xml.so")" = "libryl_xml.so.$major" ] ||
  fail "/usr/$libdir/libryl_xml.so does not point to libryl_xml.so.$major"
[ "$(readlink "$work/root/usr/$libdir/libryl_xml.so.$major")" = "libryl_xml.so.$version" ] ||
  fail "/usr/$libdir/libryl_xml.so.$major does not point to libryl_xml.so.$version"
grep -qx 'prefix=/usr' "$work/root/usr/$libdir/pkgconfig/ryl_xml.pc" ||
  fail "the pkg-config file does not name the prefix /usr"

# The same files as a plain install into a prefix.
cmake --install "$build" --prefix "$work/prefix" >/dev/null
(cd "$work/root/usr" && find . ! -type d | sort) > "$work/deb.list"
(cd "$work/prefix" && find . ! -type d | sort) > "$work/install.list"
diff -u "$work/install.list" "$work/deb.list" ||
  fail "the package's files under /usr differ from those of cmake --install"
echo "files under /usr:"
sed 's|^\.|  /usr|' "$work/deb.list"
if [ -e "$work/root/usr/bin/ryl" ]; then echo "the ryl tool is in the package"; fi

if [ "$try_install" -eq 0 ]; then echo "check_deb: passed (dpkg -i not tried: --no-install)"; exit 0; fi
# The throwaway root: inside a private mount namespace, a tmpfs holds the
# changes to the root, which is seen through an overlay.
mkdir -p "$work/overlay"
overlay_root() {
  mount -t tmpfs tmpfs "$work/overlay" &&
  mkdir -p "$work/overlay/upper" "$work/overlay/work" "$work/overlay/root" &&
  mount -t overlay overlay \
    -o "lowerdir=/,upperdir=$work/overlay/upper,workdir=$work/overlay/work" "$work/overlay/root"
}
export -f overlay_root
export work
if [ "$(id -u)" -ne 0 ] || ! command -v unshare >/dev/null ||
   ! unshare -m --propagation private bash -c overlay_root 2>/dev/null; then
  echo "check_deb: passed (dpkg -x only: dpkg -i here needs root, mount namespaces and overlay mounts)"
  exit 0
fi

echo "==== dpkg -i in a throwaway view of this machine's root"
cp "$deb" "$work/ryl-xml.deb"
cp "$src/tests/install_consumer/consumer.c" "$work/consumer.c"
cat > "$work/omp_program.c" <<'EOF'
#include <stdio.h>
int main(void) {
    int sum = 0;
#pragma omp parallel num_threads(2) reduction(+ : sum)
    sum += 1;
    printf("threads: %d\n", sum);
    return 0;
}
EOF
sed "s|LIBDIR|$libdir|g" > "$work/inside.sh" <<'EOF'
set -euo pipefail
cd /tmp/ryl_check
fail() { echo "check_deb: FAILED inside: $*" >&2; exit 1; }
dpkg -i ryl-xml.deb
dpkg -s ryl-xml | grep -q '^Status: install ok installed' || fail "ryl-xml not installed"
ldconfig -p | grep -q 'libryl_xml\.so\.0 ' || fail "libryl_xml.so.0 not in the loader's cache"
if command -v clang >/dev/null; then
  clang -fopenmp -o omp_program omp_program.c
  mkdir omp_trace
  VUN_DIR=$PWD/omp_trace OMP_TOOL_LIBRARIES=libryl_xml.so ./omp_program
  grep -q '<field>openmp</field>' omp_trace/_ryl.* ||
    fail "OMP_TOOL_LIBRARIES=libryl_xml.so: no record of the openmp domain in omp_trace"
  echo "OMP_TOOL_LIBRARIES=libryl_xml.so: the OpenMP runtime loaded the installed collector"
else
  echo "clang not found: the OpenMP check is skipped"
fi
cc -std=c99 -Wall -Wextra -pedantic -Werror consumer.c $(pkg-config --cflags --libs ryl_xml) -o consumer_c
mkdir c_trace
env -u LD_LIBRARY_PATH VUN_DIR=$PWD/c_trace ./consumer_c
loaded=$(ldd consumer_c | sed -n 's/.*libryl_xml\.so\.0 => \([^ ]*\).*/\1/p')
[ "$(realpath "$loaded")" = "$(realpath /usr/LIBDIR/libryl_xml.so.0)" ] ||
  fail "consumer_c loads '$loaded', not /usr/LIBDIR/libryl_xml.so.0"
echo "consumer_c loads $loaded"
if [ -e /usr/bin/ryl ]; then
  ! ldd /usr/bin/ryl | grep 'not found' || fail "/usr/bin/ryl misses libraries"
fi
dpkg -r ryl-xml
[ ! -e /usr/include/zop_minimal.h ] || fail "dpkg -r left /usr/include/zop_minimal.h"
echo "dpkg -i, use and dpkg -r: passed"
EOF
unshare -m --propagation private bash -c '
  set -euo pipefail
  overlay_root
  root=$work/overlay/root
  for fs in proc sys dev; do mount --rbind "/$fs" "$root/$fs"; done
  mkdir -p "$root/tmp/ryl_check"
  cp "$work/ryl-xml.deb" "$work/consumer.c" "$work/omp_program.c" "$work/inside.sh" "$root/tmp/ryl_check/"
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root bash /tmp/ryl_check/inside.sh
' || fail "dpkg -i test (output above)"
echo "check_deb: passed"
