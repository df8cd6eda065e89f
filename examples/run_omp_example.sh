#!/bin/sh
# Builds the library and the OpenMP example, runs the example with the library
# as its OpenMP tool (OMP_TOOL_LIBRARIES), and prints where the trace went and
# how many records of each kind every trace file holds.
#
# Usage: examples/run_omp_example.sh [BUILD_DIR]     (default: build)
# Environment: OMP_NUM_THREADS (default "2,2": two levels of two threads),
# VUN_BARRIERS=all to show every barrier, VUN_DIR for the run directory
# (default: a new directory under BUILD_DIR/traces).
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$src/build}
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$src" -B "$build" -G Ninja
fi
cmake --build "$build" --target ryl_xml omp_example
build=$(cd "$build" && pwd)
program=$build/examples/omp_tasks
[ -x "$program" ] || program=$build/tests/omp_tasks
if [ -z "${VUN_DIR:-}" ]; then
    mkdir -p "$build/traces"
    VUN_DIR=$(mktemp -d "$build/traces/omp_tasks.XXXXXX")
fi
mkdir -p "$VUN_DIR"
threads=${OMP_NUM_THREADS:-2,2}

echo "== omp_tasks (OpenMP, LLVM's runtime, OMP_TOOL_LIBRARIES=$build/libryl_xml.so)," \
    "OMP_NUM_THREADS=$threads, VUN_DIR=$VUN_DIR"
OMP_NUM_THREADS=$threads OMP_TOOL_LIBRARIES=$build/libryl_xml.so VUN_DIR=$VUN_DIR "$program"

echo "trace files in $VUN_DIR:"
for file in $(ls "$VUN_DIR" | grep '^_ryl\.[0-9]*$' | sort -t. -k2 -n); do
    printf '  %s: ' "$file"
    # The line after "<record>" holds the record's name; kinds in order of
    # first appearance.
    awk 'previous == "<record>" {
             sub(/^<field>/, ""); sub(/<\/field>$/, "")
             if (!($0 in count)) order[++kinds] = $0
             count[$0]++
         }
         { previous = $0 }
         END {
             for (i = 1; i <= kinds; i++)
                 printf "%s%s %d", (i > 1 ? ", " : ""), order[i], count[order[i]]
             print ""
         }' "$VUN_DIR/$file"
done
