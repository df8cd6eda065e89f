// How run directories are named, for the collector and for `ryl run`.
#pragma once
#include <string>

namespace run_directory {

// Creates a fresh run directory in the working directory: "_vun_" and the
// local date and time ("_vun_20240307_091502"), or the first free of that
// name followed by "_000" to "_999". Each name is claimed by creating it, so
// processes started in the same second get different ones. Returns 0 with
// `name` set, or an errno value: EEXIST with `name` the base name when every
// name is taken, else the error of creating `name`.
int create_fresh(std::string& name);

// A VUN_DIR holding a percent sign is a pattern: %p the process id, %h the
// host name, %% a percent sign; any other sequence stays as written.
std::string expand_pattern(const std::string& pattern);

}  // namespace run_directory
