#!/usr/bin/env bash
# Builds the XML fuzzer (clang, AddressSanitizer, UndefinedBehaviorSanitizer)
# in the given build directory and runs it for a bounded time. Exits non-zero
# on any finding; a crashing input is left in <build-dir>/findings.
# Usage: bash tests/fuzz/run_fuzz.sh <build-dir> [seconds=60]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: run_fuzz.sh <build-dir> [seconds]}
seconds=${2:-60}

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER="${CLANGXX:-clang++}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build"

# New inputs go to the first corpus directory; the seeds stay untouched.
mkdir -p "$build/corpus" "$build/findings"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$build/xml_fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
  -dict="$here/xml.dict" -artifact_prefix="$build/findings/" -print_final_stats=1 \
  "$build/corpus" "$here/corpus"
