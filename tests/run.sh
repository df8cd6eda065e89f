#!/usr/bin/env bash
# Runs every test: the normal build's suite, the Debian package check, the
# 32-bit build's suite, the whole suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer, the threaded tests under ThreadSanitizer, and
# the XML fuzzer for a bounded time.
# Usage: bash tests/run.sh [--quick]   (--quick: the normal build's suite only)
set -euo pipefail
cd "$(dirname "$0")/.."
bash .ci/install_deps.sh
jobs=$(nproc)
root=$PWD

step() { echo; echo "==== $*"; }
passed=0; failed=0
# ctest with the given arguments; its counts add to the closing summary.
run_ctest() {
  local log
  log=$(mktemp)
  set +e
  ctest "$@" 2>&1 | tee "$log"
  local status=${PIPESTATUS[0]}
  set -e
  local counts
  counts=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1 || true)
  rm -f "$log"
  if [ -n "$counts" ]; then
    local f total
    f=$(echo "$counts" | sed -E 's/.*passed, ([0-9]+) tests? failed out of ([0-9]+).*/\1/')
    total=$(echo "$counts" | sed -E 's/.*out of ([0-9]+).*/\1/')
    passed=$((passed + total - f)); failed=$((failed + f))
  fi
  if [ "$status" -ne 0 ]; then echo "$passed passed, $((failed > 0 ? failed : 1)) failed"; exit "$status"; fi
}

step "build and test (RelWithDebInfo)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
bash tests/fetch_libomp16.sh "$root/build/libomp16" || echo "LLVM OpenMP runtime 16 not fetched: its tests are skipped"
run_ctest --test-dir build --output-on-failure -j "$jobs"

if [ "${1:-}" = "--quick" ]; then echo "$passed passed, $failed failed"; exit 0; fi

step "Debian package: build, contents, install into a throwaway root"
bash tests/check_deb.sh build

step "32-bit (i386) build and test"
bash tests/run_32bit.sh "$root/build-32" --build-only
if [ ! -f build-32/tests_not_built ]; then
  run_ctest --test-dir build-32 --output-on-failure -j "$jobs"
fi

step "whole suite under AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DRYL_SANITIZE=address,undefined \
  -DRYL_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 LSAN_OPTIONS=suppressions=$root/tests/lsan.supp:print_suppressions=0 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE no_sanitizer

step "threaded tests under ThreadSanitizer"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DRYL_SANITIZE=thread -DRYL_BUILD_BENCH=OFF
cmake --build build-tsan -j "$jobs"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  run_ctest --test-dir build-tsan --output-on-failure -j "$jobs" -L threads -LE no_sanitizer

step "XML fuzzer"
bash tests/fuzz/run_fuzz.sh "$root/build-fuzz" "${FUZZ_SECONDS:-60}"
echo
echo "$passed passed, $failed failed"
