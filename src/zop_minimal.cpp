// Objects that must be built in order when the library is loaded: the
// collector first (it opens the trace files), then the handle registries.
// Exit-time destruction runs in reverse, so the registries go first and the
// collector finishes the files last.
#include "collector.h"
#include "registries.h"

namespace writer {

namespace {
ryl_collector ftc;
}

ryl_collector* get_ftc() { return &ftc; }

}  // namespace writer

namespace internal {

std::unordered_map<std::string, ___zop_domain*> domain_map;
std::unordered_map<std::string, ___zop_string_handle*> string_handle_map;
std::unordered_map<std::wstring, ___zop_domain*> domainW_map;
std::unordered_map<std::wstring, ___zop_string_handle*> string_handleW_map;
bool registries_open = false;

namespace {
// Opens the registries after they are built and closes them before they are
// destroyed, so late lookups find them closed instead of destroyed.
struct registries_guard {
    registries_guard() {
        std::lock_guard<std::mutex> lock(writer::get_ftc()->mutex);
        registries_open = true;
    }
    ~registries_guard() {
        std::lock_guard<std::mutex> lock(writer::get_ftc()->mutex);
        registries_open = false;
    }
} guard;
}  // namespace

}  // namespace internal
