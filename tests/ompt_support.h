// Test helpers for the OpenMP adapter: its records as one line each.
#pragma once
#include <string>
#include <vector>

// One trace file of a run directory: whether it is whole, and its records as
// "name field field ...": handles as "@name", ids as "{a,b,c}". The
// processor number of a "task_begin" is left out; the record must have one.
struct rendered_trace {
    bool complete = false;  // as the format says, up to its end
    std::string error;      // what was wrong, when not complete
    std::vector<std::string> lines;
};

// The files "_ryl.0", "_ryl.1", ... of a run directory, by number, with the
// handles that the "domain_createA" and "string_handle_createA" records of
// any of them declare.
std::vector<rendered_trace> read_rendered(const std::string& dir);

// "{a,k,0}": the adapter's ids all end in 0.
std::string id(unsigned long long a, unsigned long long k = 0);

// The words of a line.
std::vector<std::string> words(const std::string& line);
