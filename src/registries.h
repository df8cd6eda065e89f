// The handle registries of the instrumentation API: one handle per distinct
// name, guarded by the collector mutex.
#pragma once
#include <string>
#include <unordered_map>

#include "zop_minimal.h"

namespace internal {

struct handle_registries {
    std::unordered_map<std::string, ___zop_domain*> domains;
    std::unordered_map<std::string, ___zop_string_handle*> string_handles;
};

// Built at load right after the collector and, like it, never destroyed: a
// handle created while the process exits is registered as any other.
handle_registries& registries();

extern const char api_version[];

}  // namespace internal
