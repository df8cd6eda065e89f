// The catalogue of record kinds: each kind's name and the types of the fields
// that follow its name and timestamp. The library writes records by it, the
// ryl tool reads and checks them by it, and the tests build expected text
// from it. Row numbers are the values of __zop_record_t.
#pragma once

namespace trace_format {

// How a field is written.
enum field_type : unsigned char {
    id_field = 2,         // three 64-bit words as a compound field
    u64_field = 3,        // decimal number
    u8_field = 9,         // decimal number 0 to 255
    text_field = 13,      // narrow string, byte for byte
    wide_text_field = 14  // never written
};

constexpr int max_fields = 6;

struct record_kind {
    const char* name;
    field_type fields[max_fields];  // in order; the list ends at the first 0
    bool written;                   // false: the name is reserved, no call writes it
};

enum record_kind_index {
    kind_definition, kind_api_version, kind_domain_createA, kind_domain_createW,
    kind_id_create, kind_id_destroy, kind_metadata, kind_metadata_stringA,
    kind_metadata_stringW, kind_relation, kind_string_handle_createA,
    kind_string_handle_createW, kind_task_begin, kind_task_end, kind_task_group,
    kind_region_begin, kind_region_end, kind_task_begin_async, kind_task_end_async,
    kind_end_of_records, kind_count
};

constexpr record_kind record_kinds[kind_count] = {
    {"definition", {u8_field, u8_field, text_field, u8_field, u8_field}, false},
    {"api_version", {u8_field, text_field}, false},
    {"domain_createA", {u64_field, u8_field, text_field}, true},
    {"domain_createW", {u64_field, u8_field, wide_text_field}, false},
    {"id_create", {u64_field, id_field}, true},
    {"id_destroy", {u64_field, id_field}, true},
    // domain, id, key, type, count, value
    {"metadata", {u64_field, id_field, u64_field, u8_field, u64_field, u64_field}, true},
    {"metadata_stringA", {u64_field, id_field, u64_field, u64_field, text_field}, true},
    {"metadata_stringW", {u64_field, id_field, u64_field, u64_field, wide_text_field}, false},
    {"relation", {u64_field, id_field, u8_field, id_field}, true},
    {"string_handle_createA", {u64_field, u8_field, text_field}, true},
    {"string_handle_createW", {u64_field, u8_field, wide_text_field}, false},
    // domain, id, parent id, name, processor
    {"task_begin", {u64_field, id_field, id_field, u64_field, u64_field}, true},
    {"task_end", {u64_field}, true},
    {"task_group", {u64_field, id_field, id_field, u64_field}, true},
    {"region_begin", {u64_field, id_field, id_field, u64_field}, true},
    {"region_end", {u64_field, id_field}, true},
    {"task_begin_async", {u64_field, id_field, id_field, u64_field, u64_field}, true},
    {"task_end_async", {u64_field, id_field}, true},
    {"end_of_records", {}, true},
};

constexpr int field_count(const record_kind& kind) {
    int n = 0;
    while (n < max_fields && kind.fields[n]) ++n;
    return n;
}

}  // namespace trace_format
