#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the examples need,
# when they are missing. Usage: bash .ci/install_deps.sh [extra packages...]
set -euo pipefail
packages=(cmake ninja-build g++ clang libomp-14-dev libclang-rt-14-dev libgtest-dev
          libbenchmark-dev binutils pkg-config libpugixml-dev libtinyxml2-dev libxml2-dev
          libexpat1-dev nlohmann-json3-dev graphviz g++-multilib googletest
          libotf2-trace-dev otf2-tools libprotobuf-dev protobuf-compiler
          dpkg-dev libdw-dev "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
