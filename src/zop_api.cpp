// The exported instrumentation API: each call writes at most one record into
// the calling thread's trace file. No exception leaves these functions.
#include <sched.h>
#include <stdint.h>

#include <cstdlib>
#include <cstring>

#include "collector.h"
#include "record_kinds.h"
#include "registries.h"

using trace_format::field_type;

namespace internal {
const char api_version[] = "Quillon Collector 0.02";
}

namespace {

// An address as a 64-bit field: sign-extended from pointer width.
unsigned long long address_field(const void* p) {
    return static_cast<unsigned long long>(static_cast<long long>(reinterpret_cast<intptr_t>(p)));
}

// A name's length field: bytes counted up to 1000, cut to the low 8 bits.
uint8_t name_length_field(const char* name) { return uint8_t(strnlen(name, 1000)); }

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

// The field type that a value of each C++ type is written as.
template <typename T>
constexpr field_type type_of = field_type::none;
template <>
constexpr field_type type_of<__zop_id> = field_type::id;
template <>
constexpr field_type type_of<unsigned long long> = field_type::u64;
template <>
constexpr field_type type_of<uint8_t> = field_type::u8;
template <>
constexpr field_type type_of<const char*> = field_type::text;

template <__zop_record_t Kind, typename... Fields>
constexpr bool fields_match() {
    constexpr field_type given[] = {type_of<Fields>..., field_type::none};
    const trace_format::record_kind& row = trace_format::record_kinds[Kind];
    for (int i = 0; i < trace_format::max_fields; ++i)
        if (row.fields[i] != (i < int(sizeof...(Fields)) ? given[i] : field_type::none)) return false;
    return sizeof...(Fields) <= size_t(trace_format::max_fields);
}

void write_field(writer::trace_writer& w, const __zop_id& id) { w.write(id); }
void write_field(writer::trace_writer& w, unsigned long long v) { w.write(v); }
void write_field(writer::trace_writer& w, uint8_t v) { w.write(static_cast<unsigned long long>(v)); }
void write_field(writer::trace_writer& w, const char* text) { w.write(text); }

// Writes one record of Kind into the calling thread's file; the fields must
// be those of the record catalogue, in its order.
template <__zop_record_t Kind, typename... Fields>
void write_record(const Fields&... fields) noexcept {
    static_assert(fields_match<Kind, Fields...>(), "fields differ from the record catalogue");
    no_throw([&] {
        writer::open_record record(Kind);
        if (!record.writer) return;
        (write_field(*record.writer, fields), ...);
        record.writer->end_record();
    });
}

template <typename Handle>
void free_handle(Handle* h) {
    free(const_cast<char*>(h->name));
    free(h);
}

// Finds or registers the handle of `name`, then records the call.
template <__zop_record_t Kind, typename Handle>
Handle* create_handle(std::unordered_map<std::string, Handle*> internal::handle_registries::*registry,
                      const char* name) {
    // A call from inside a record of this thread (a signal handler) is dropped
    // whole: it must not wait for the collector mutex.
    if (!name || writer::thread_in_record()) return nullptr;
    Handle* handle = nullptr;
    no_throw([&] {
        writer::ryl_collector* collector = writer::get_ftc();
        auto& map = internal::registries().*registry;
        {
            writer::collector_lock lock(collector);
            if (!lock.mutex) return;
            auto found = map.find(name);
            if (found != map.end()) handle = found->second;
        }
        if (!handle) {
            Handle* fresh = make_handle(name, static_cast<Handle*>(nullptr));
            if (!fresh) return;
            bool inserted = false;
            {
                writer::collector_lock lock(collector);
                if (lock.mutex) {
                    auto entry = map.emplace(name, fresh);
                    inserted = entry.second;
                    handle = entry.first->second;
                }
            }
            // Another thread registered the name first: its handle wins.
            if (!inserted) free_handle(fresh);
            if (!handle) return;
        }
    });
    if (handle) write_record<Kind>(address_field(handle), name_length_field(name), name);
    return handle;
}

// The records of the task and region calls: domain, ids in order, then a name.
template <__zop_record_t Kind>
void write_task_record(const ___zop_domain* domain, const __zop_id& id, const __zop_id& parent,
                       const ___zop_string_handle* name) {
    write_record<Kind>(address_field(domain), id, parent, address_field(name));
}

// The same with the processor the thread runs on.
template <__zop_record_t Kind>
void write_task_begin(const ___zop_domain* domain, const __zop_id& id, const __zop_id& parent,
                      const ___zop_string_handle* name) {
    write_record<Kind>(address_field(domain), id, parent, address_field(name),
                       static_cast<unsigned long long>(static_cast<long long>(sched_getcpu())));
}

void write_metadata_string(const ___zop_domain* domain, const __zop_id& id, const ___zop_string_handle* key,
                           const char* data, size_t length) {
    write_record<__zop_record_metadata_stringA>(address_field(domain), id, address_field(key),
                                                static_cast<unsigned long long>(length), data);
}

}  // namespace

extern "C" {

const char* __zop_api_version(void) { return internal::api_version; }

void __zop_api_fini(void*) {}

___zop_domain* __zop_domain_createA(const char* name) {
    return create_handle<__zop_record_domain_createA>(&internal::handle_registries::domains, name);
}

___zop_domain* __zop_domain_create(const char* name) { return __zop_domain_createA(name); }

___zop_string_handle* __zop_string_handle_createA(const char* name) {
    return create_handle<__zop_record_string_handle_createA>(&internal::handle_registries::string_handles, name);
}

___zop_string_handle* __zop_string_handle_create(const char* name) {
    return __zop_string_handle_createA(name);
}

void __zop_id_create(const ___zop_domain* domain, __zop_id id) {
    write_record<__zop_record_id_create>(address_field(domain), id);
}

void __zop_id_destroy(const ___zop_domain* domain, __zop_id id) {
    write_record<__zop_record_id_destroy>(address_field(domain), id);
}

void __zop_task_begin(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                      ___zop_string_handle* name) {
    write_task_begin<__zop_record_task_begin>(domain, taskid, parentid, name);
}

void __zop_task_begin_explicit(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                               ___zop_string_handle* name) {
    write_task_begin<__zop_record_task_begin>(domain, taskid, parentid, name);
}

void __zop_task_begin_async(const ___zop_domain* domain, __zop_id taskid, __zop_id parentid,
                            ___zop_string_handle* name) {
    write_task_begin<__zop_record_task_begin_async>(domain, taskid, parentid, name);
}

void __zop_task_end(const ___zop_domain* domain) {
    write_record<__zop_record_task_end>(address_field(domain));
}

void __zop_task_end_explicit(const ___zop_domain* domain) {
    write_record<__zop_record_task_end>(address_field(domain));
}

void __zop_task_end_async(const ___zop_domain* domain, __zop_id taskid) {
    write_record<__zop_record_task_end_async>(address_field(domain), taskid);
}

void __zop_region_begin(const ___zop_domain* domain, __zop_id id, __zop_id parentid,
                        ___zop_string_handle* name) {
    write_task_record<__zop_record_region_begin>(domain, id, parentid, name);
}

void __zop_region_end(const ___zop_domain* domain, __zop_id id) {
    write_record<__zop_record_region_end>(address_field(domain), id);
}

void __zop_task_group(const ___zop_domain* domain, __zop_id id, __zop_id parentid,
                      ___zop_string_handle* name) {
    write_task_record<__zop_record_task_group>(domain, id, parentid, name);
}

void __zop_relation_add(const ___zop_domain* domain, __zop_id head, int relation, __zop_id tail) {
    write_record<__zop_record_relation>(address_field(domain), head, uint8_t(relation), tail);
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
    write_record<__zop_record_metadata>(address_field(domain), id, address_field(key), uint8_t(type),
                                        static_cast<unsigned long long>(count), value);
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
