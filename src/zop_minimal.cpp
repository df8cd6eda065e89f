// Objects built in order when the library is loaded: the collector first (it
// opens the trace files), then the handle registries. Neither is ever
// destroyed, so events that come during or after the end (exit handlers,
// threads still running) find them alive; the collector finishes its files
// from an exit-time function that also runs when the library is unloaded.
#include <new>

#include "collector.h"
#include "registries.h"

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* dso_handle);
// This library's own handle: functions registered against it run at exit and
// at its dlclose.
extern "C" void* __dso_handle;

namespace {

alignas(writer::ryl_collector) unsigned char collector_storage[sizeof(writer::ryl_collector)];
alignas(internal::handle_registries) unsigned char registries_storage[sizeof(internal::handle_registries)];

void finish_files(void*) { writer::get_ftc()->finish_files(); }

struct start_up {
    start_up() {
        new (collector_storage) writer::ryl_collector;
        __cxa_atexit(finish_files, nullptr, &__dso_handle);
        new (registries_storage) internal::handle_registries;
    }
} start;

}  // namespace

namespace writer {
ryl_collector* get_ftc() { return std::launder(reinterpret_cast<ryl_collector*>(collector_storage)); }
}  // namespace writer

namespace internal {
handle_registries& registries() {
    return *std::launder(reinterpret_cast<handle_registries*>(registries_storage));
}
}  // namespace internal
