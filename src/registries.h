// The handle registries of the instrumentation API: one handle per distinct
// name, guarded by the collector mutex.
#pragma once
#include <string>
#include <unordered_map>

#include "zop_minimal.h"

namespace internal {

extern std::unordered_map<std::string, ___zop_domain*> domain_map;
extern std::unordered_map<std::string, ___zop_string_handle*> string_handle_map;
// No entry point takes wide names: these two stay empty.
extern std::unordered_map<std::wstring, ___zop_domain*> domainW_map;
extern std::unordered_map<std::wstring, ___zop_string_handle*> string_handleW_map;

// True from the registries' construction to the start of their destruction;
// read and written under the collector mutex.
extern bool registries_open;

extern const char api_version[];

}  // namespace internal
