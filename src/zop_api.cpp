// The exported instrumentation API: each call writes at most one record into
// the calling thread's trace file. No exception leaves these functions.
#include <sched.h>
#include <stdint.h>

#include <cstdlib>
#include <cstring>

#include "collector.h"
#include "registries.h"

using writer::trace_writer;

namespace internal {
const char api_version[] = "Quillon Collector 0.02";
}

namespace {

// An address as a 64-bit field: sign-extended from pointer width.
unsigned long long address_field(const void* p) {
    return static_cast<unsigned long long>(static_cast<long long>(reinterpret_cast<intptr_t>(p)));
}

// A name's length field: bytes counted up to 1000, cut to the low 8 bits.
int name_length_field(const char* name) { return int(strnlen(name, 1000) & 0xff); }

template <typename F>
void no_throw(F&& body) noexcept {
    try {
        body();
    } catch (...) {
    }
}

___zop_domain* make_handle(const char* name, ___zop_domain*) {
    auto* h = static_cast<___zop_domain*>(calloc(1, sizeof(___zop_domain)));
    if (!h) return nullptr;
    h->flags = 1;
    h->name = strdup(name);
    return h;
}

___zop_string_handle* make_handle(const char* name, ___zop_string_handle*) {
    auto* h = static_cast<___zop_string_handle*>(calloc(1, sizeof(___zop_string_handle)));
    if (!h) return nullptr;
    h->name = strdup(name);
    return h;
}

template <typename Handle>
void free_handle(Handle* h) {
    free(const_cast<char*>(h->name));
    free(h);
}

// Finds or registers the handle of `name`, then records the call.
template <typename Handle>
Handle* create_handle(std::unordered_map<std::string, Handle*>& registry, const char* name,
                      __zop_record_t kind) {
    // A call from inside a record of this thread (a signal handler) is dropped
    // whole: it must not wait for the collector mutex.
    if (!name || writer::thread_in_record()) return nullptr;
    Handle* handle = nullptr;
    no_throw([&] {
        writer::ryl_collector* collector = writer::get_ftc();
        {
            writer::collector_lock lock(collector);
            if (!lock.mutex || !internal::registries_open) return;
            auto found = registry.find(name);
            if (found != registry.end()) handle = found->second;
        }
        if (!handle) {
            Handle* fresh = make_handle(name, static_cast<Handle*>(nullptr));
            if (!fresh) return;
            bool inserted = false;
            {
                writer::collector_lock lock(collector);
                if (lock.mutex && internal::registries_open) {
                    auto entry = registry.emplace(name, fresh);
                    inserted = entry.second;
                    handle = entry.first->second;
                }
            }
            // Another thread registered the name first: its handle wins.
            if (!inserted) free_handle(fresh);
            if (!handle) return;
        }
        trace_writer* w = writer::begin_record(kind);
        if (!w) return;
        w->write(address_field(handle));
        w->write(name_length_field(name));
        w->write(name);
        w->end_record();
    });
    return handle;
}

// The records of the task and region calls: domain, ids in order, then a name.
void write_task_record(__zop_record_t kind, const ___zop_domain* domain, const __zop_id& id,
                       const __zop_id& parent, const ___zop_string_handle* name, bool with_cpu) {
    no_throw([&] {
        trace_writer* w = writer::begin_record(kind);
        if (!w) return;
        w->write(address_field(domain));
        w->write(id);
        w->write(parent);
        w->write(address_field(name));
        if (with_cpu) w->write(static_cast<unsigned long long>(static_cast<long long>(sched_getcpu())));
        w->end_record();
    });
}

// Records of a domain and, optionally, one id.
void write_domain_record(__zop_record_t kind, const ___zop_domain* domain, const __zop_id* id) {
    no_throw([&] {
        trace_writer* w = writer::begin_record(kind);
        if (!w) return;
        w->write(address_field(domain));
        if (id) w->write(*id);
        w->end_record();
    });
}

void write_metadata_string(const ___zop_domain* domain, const __zop_id& id, const ___zop_string_handle* key,
                           const char* data, size_t length) {
    no_throw([&] {
        trace_writer* w = writer::begin_record(__zop_record_metadata_stringA);
        if (!w) return;
        w->write(address_field(domain));
        w->write(id);
        w->write(address_field(key));
        w->write(static_cast<unsigned long long>(length));
        w->write(data);
        w->end_record();
    });
}

}  // namespace

extern "C" {

const char* __zop_api_version(void) { return internal::api_version; }

void __zop_api_fini(void*) {}

___zop_domain* __zop_domain_createA(const char* name) {
    return create_handle(internal::domain_map, name, __zop_record_domain_createA);
}

___zop_domain* __zop_domain_create(const char* name) { return __zop_domain_createA(name); }

___zop_string_handle* __zop_string_handle_createA(const char* name) {
    return create_handle(internal::string_handle_map, name, __zop_record_string_handle_createA);
}

___zop_string_handle* __zop_string_handle_create(const char* name) {
    return __zop_string_handle_createA(name);
}

void __zop_id_create(const ___zop_domain* domain, __zop_id id) {
    write_domain_record(__zop_record_id_create, domain, &id);
}

void __zop_id_destroy(const ___zop_domain* domain, __zop_id id) {
    write_domain_record(__zop_record_id_destroy, domain, &id);
}

void __zop_task_begin(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                      ___zop_string_handle* name) {
    write_task_record(__zop_record_task_begin, domain, taskid, parentid, name, true);
}

void __zop_task_begin_explicit(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                               ___zop_string_handle* name) {
    write_task_record(__zop_record_task_begin, domain, taskid, parentid, name, true);
}

void __zop_task_begin_async(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                            ___zop_string_handle* name) {
    write_task_record(__zop_record_task_begin_async, domain, taskid, parentid, name, true);
}

void __zop_task_end(const ___zop_domain* domain) {
    write_domain_record(__zop_record_task_end, domain, nullptr);
}

void __zop_task_end_explicit(const ___zop_domain* domain) {
    write_domain_record(__zop_record_task_end, domain, nullptr);
}

void __zop_task_end_async(const ___zop_domain* domain, __zop_id taskid) {
    write_domain_record(__zop_record_task_end_async, domain, &taskid);
}

void __zop_region_begin(const ___zop_domain* domain, __zop_id id, __zop_id parentid,
                        ___zop_string_handle* name) {
    write_task_record(__zop_record_region_begin, domain, id, parentid, name, false);
}

void __zop_region_end(const ___zop_domain* domain, __zop_id id) {
    write_domain_record(__zop_record_region_end, domain, &id);
}

void __zop_task_group(const ___zop_domain* domain, __zop_id id, __zop_id parentid,
                      ___zop_string_handle* name) {
    write_task_record(__zop_record_task_group, domain, id, parentid, name, false);
}

void __zop_relation_add(const ___zop_domain* domain, __zop_id head, int relation, __zop_id tail) {
    no_throw([&] {
        trace_writer* w = writer::begin_record(__zop_record_relation);
        if (!w) return;
        w->write(address_field(domain));
        w->write(head);
        w->write(relation & 0xff);
        w->write(tail);
        w->end_record();
    });
}

void __zop_metadata_add(const ___zop_domain* domain, __zop_id id, ___zop_string_handle* key, int type,
                        size_t count, void* data) {
    // Only single values of type 1 (pointer width) and 3 (32 bits) are recorded.
    if (count != 1 || (type != 1 && type != 3) || !data) return;
    unsigned long long value = 0;
    if (type == 1) {
        uintptr_t v;
        memcpy(&v, data, sizeof v);
        value = v;
    } else {
        uint32_t v;
        memcpy(&v, data, sizeof v);
        value = v;
    }
    no_throw([&] {
        trace_writer* w = writer::begin_record(__zop_record_metadata);
        if (!w) return;
        w->write(address_field(domain));
        w->write(id);
        w->write(address_field(key));
        w->write(type);
        w->write(static_cast<unsigned long long>(count));
        w->write(value);
        w->end_record();
    });
}

void __zop_metadata_str_addA(const ___zop_domain* domain, __zop_id id, ___zop_string_handle* key,
                             const char* data, size_t length) {
    write_metadata_string(domain, id, key, data, length);
}

void __zop_metadata_str_add(const ___zop_domain* domain, __zop_id id, ___zop_string_handle* key,
                            const char* data, size_t length) {
    write_metadata_string(domain, id, key, data, length);
}

}  // extern "C"
