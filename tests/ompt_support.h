// Test helpers for the OpenMP adapter: its records as one line each.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "trace_text.h"

// Handle fields (the recorded addresses) to "@name".
using handle_names = std::map<std::string, std::string>;

// Learns the handles that a file's "domain_createA" and
// "string_handle_createA" records declare.
void learn_handles(const parsed_trace& trace, handle_names& names);

// "name field field ...": handles as "@name", ids as "{a,b,c}". The
// processor number of a "task_begin" is left out; the record must have one.
std::string render(const parsed_record& record, const handle_names& names);
std::vector<std::string> render(const parsed_trace& trace, const handle_names& names);

// "{a,k,0}": the adapter's ids all end in 0.
std::string id(unsigned long long a, unsigned long long k = 0);

// The files "_ryl.0", "_ryl.1", ... of a run directory, parsed, by number.
std::vector<parsed_trace> read_traces(const std::string& dir);
