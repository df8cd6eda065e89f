// Source names of OpenMP tasks and regions for the timelines: one analysis
// pass keeps every task's and region's creation site, the symbolizer turns
// sites into functions, and dependences become numbered arrows.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "analysis.h"
#include "symbols.h"

namespace ryl {

struct source_name {
    std::string function;  // "fib", "ns::f", or "prog+0x1234" without symbols
    std::string source;    // "fib.c:12", empty without debug information
    std::string address;   // "0x55d0c0de1234"
};

struct task_namer {
    analysis a;
    symbolizer symbols;
    std::unordered_map<uint64_t, source_name> by_site;
    // Dependence arrows by task id word: numbered from 1, the arrow's start on
    // the task it leaves, its end on the task it enters.
    std::unordered_map<uint64_t, std::vector<uint64_t>> arrows_out, arrows_in;
    // With want_predecessors set before loading: the tasks each task depends
    // on, by id word, instead of the arrows.
    bool want_predecessors = false;
    std::unordered_map<uint64_t, std::vector<uint64_t>> predecessors;
};

// Reads the run once; false (message printed) when it cannot be read.
bool load_task_names(task_namer& namer, const std::string& dir, const std::vector<trace_path>& files);

// The source of a task of the recorded name begun in trace file file
// ("omp_explicit" by its creation site, "omp_implicit" and "omp_parallel" by
// their region's), or null when there is none: the recorded name stays.
const source_name* source_of(task_namer& namer, const std::string& recorded, unsigned long file, const id3& id,
                             const id3& parent);

}  // namespace ryl
