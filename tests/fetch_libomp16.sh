#!/bin/sh
# Unpacks LLVM's OpenMP runtime 16 (Debian package libomp5-16) into DIR
# without installing it, so that programs built against runtime 14 can be run
# under 16 with LD_LIBRARY_PATH=DIR/usr/lib/llvm-16/lib. Installing
# libomp-16-dev instead would remove libomp-14-dev.
# Usage: tests/fetch_libomp16.sh DIR
set -eu
if [ $# -ne 1 ]; then
    echo "usage: $0 DIR" >&2
    exit 2
fi
dir=$1
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
if [ -e "$dir/usr/lib/llvm-16/lib/libomp.so.5" ]; then
    echo "runtime 16 already in $dir"
    exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# apt-get download writes into the working directory; as root it hands the
# download to the unprivileged _apt user, which must be able to write there.
chmod 0777 "$work"
sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo
if ! (cd "$work" && apt-get download libomp5-16); then
    # Package lists may be missing (a fresh container): fetch them once.
    $sudo apt-get update -qq
    (cd "$work" && apt-get download libomp5-16)
fi
dpkg -x "$work"/libomp5-16_*.deb "$dir"
lib="$dir/usr/lib/llvm-16/lib/libomp.so.5"
if [ ! -e "$lib" ]; then
    echo "$0: no libomp.so.5 in the package" >&2
    exit 1
fi
echo "runtime 16: $lib"
