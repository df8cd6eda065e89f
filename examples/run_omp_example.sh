#!/bin/sh
# Builds the library and the OpenMP example, runs the example with the library
# as its OpenMP tool, and prints where the trace went and how many records of
# each kind every trace file holds.
#
# Usage: examples/run_omp_example.sh [BUILD_DIR]        (default: build)
# Environment: OMP_NUM_THREADS (default "2,2": two levels of two threads),
# VUN_BARRIERS=all to show every barrier, VUN_DIR for the run directory
# (default: a new directory under BUILD_DIR).
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$src" -B "$build" -G Ninja
fi
cmake --build "$build" --target ryl_xml omp_example
build=$(cd "$build" && pwd)
program=$build/examples/omp_tasks
[ -x "$program" ] || program=$build/tests/omp_tasks
trace=${VUN_DIR:-$(mktemp -d "$build/omp_trace.XXXXXX")}
mkdir -p "$trace"

OMP_NUM_THREADS=${OMP_NUM_THREADS:-2,2} OMP_TOOL_LIBRARIES=$build/libryl_xml.so VUN_DIR=$trace \
    "$program"

echo "trace written to $trace"
for file in $(ls "$trace" | grep '^_ryl\.[0-9]*$' | sort -t. -k2 -n); do
    echo "$file:"
    # The line after "<record>" holds the record's name.
    awk 'previous == "<record>" { sub(/^<field>/, ""); sub(/<\/field>$/, ""); count[$0]++ }
         { previous = $0 }
         END { for (name in count) printf "  %6d %s\n", count[name], name }' "$trace/$file" |
        sort -k2
done
