// ryl timeline --perfetto: task timelines in Perfetto's protobuf trace format.
#pragma once

#include "ryl.h"
#include "task_names.h"

namespace ryl {

// Writes the timelines of files to out ("-" for standard output) as a
// Perfetto trace; the exit status. With a namer (OpenMP runs) slices are
// named by their source and dependences drawn as flows.
int write_perfetto_timeline(const std::string& dir, const std::vector<trace_path>& files, const name_table& names,
                            uint64_t origin, const std::string& out, task_namer* namer);

}  // namespace ryl
