#!/usr/bin/env bash
# The main job: builds the library and the examples, traces them, and shows
# where the trace files went and how many records of each kind each holds.
set -euo pipefail
cd "$(dirname "$0")/.."
bash .ci/install_deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"

# Prints, per trace file of a run directory, its records by kind.
show_trace() {
  local dir=$1
  echo "trace files in $dir:"
  for f in "$dir"/_ryl.*; do
    printf '  %s: ' "$(basename "$f")"
    awk 'prev == "<record>" { sub(/^<field>/, ""); sub(/<\/field>$/, ""); if (!($0 in n)) order[++kinds] = $0; n[$0]++ }
         { prev = $0 }
         END { for (i = 1; i <= kinds; i++) printf "%s%s %d", (i > 1 ? ", " : ""), order[i], n[order[i]]; print "" }' "$f"
  done
}

out=$PWD/build/traces
mkdir -p "$out"
run_dir=$(mktemp -d "$out/threads_example.XXXXXX")
echo
echo "== threads_example (linked with libryl_xml.so), VUN_DIR=$run_dir"
VUN_DIR=$run_dir ./build/examples/threads_example
show_trace "$run_dir"

echo
bash examples/run_omp_example.sh build

# The same OpenMP program under the ryl tool: summary, check, a timeline for
# Perfetto or chrome://tracing, and the task graph as a picture.
ryl=./build/tools/ryl
omp_dir=$(mktemp -d "$out/omp_example.XXXXXX")
echo
echo "== omp_tasks under ryl run (OMP_NUM_THREADS=2,2), VUN_DIR=$omp_dir"
OMP_NUM_THREADS=2,2 "$ryl" run -o "$omp_dir" -- ./build/examples/omp_tasks
"$ryl" check "$omp_dir"
"$ryl" timeline "$omp_dir" -o "$out/trace.json"
"$ryl" graph "$omp_dir" -o "$out/task_graph.dot" --svg

# A task program as a performance engineer traces it: ryl run (mapped files,
# the detailed OpenMP recording), then where its time goes, by source line.
cholesky_dir=$(mktemp -d "$out/omp_cholesky.XXXXXX")
rmdir "$cholesky_dir"
echo
echo "== omp_cholesky (tiled Cholesky, tasks with dependences) under ryl run, OMP_NUM_THREADS=2"
OMP_NUM_THREADS=2 "$ryl" run -o "$cholesky_dir" -- ./build/examples/omp_cholesky 16 64 > /dev/null
echo
echo "== ryl profile $cholesky_dir"
"$ryl" profile "$cholesky_dir"
"$ryl" profile "$cholesky_dir" --json -o "$out/profile.json"
"$ryl" timeline "$cholesky_dir" --perfetto -o "$out/cholesky.pftrace"
rm -rf "$out/cholesky.otf2"
"$ryl" export --otf2 "$cholesky_dir" "$out/cholesky.otf2"
echo
echo "timeline:   $out/trace.json  (open in https://ui.perfetto.dev or chrome://tracing)"
echo "task graph: $out/task_graph.svg  (Graphviz source: $out/task_graph.dot)"
echo "profile:    $out/profile.json"
echo "Cholesky:   $out/cholesky.pftrace (Perfetto), $out/cholesky.otf2/traces.otf2 (Vampir, otf2-print)"
