// The catalogue of record kinds: each kind's name and the types of the fields
// that follow its name and timestamp. The library writes records by it, the
// ryl tool reads and checks them by it, and the tests build expected text
// from it. Row numbers are the values of __zop_record_t.
#pragma once

namespace trace_format {

// How a field is written.
enum class field_type : unsigned char {
    none = 0,
    id = 2,         // three 64-bit words as a compound field
    u64 = 3,        // decimal number
    u8 = 9,         // decimal number 0 to 255
    text = 13,      // narrow string, byte for byte
    wide_text = 14  // never written
};

constexpr int max_fields = 6;

struct record_kind {
    const char* name;
    field_type fields[max_fields];  // in order; the list ends at the first none
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
    {"definition", {field_type::u8, field_type::u8, field_type::text, field_type::u8, field_type::u8}, false},
    {"api_version", {field_type::u8, field_type::text}, false},
    {"domain_createA", {field_type::u64, field_type::u8, field_type::text}, true},
    {"domain_createW", {field_type::u64, field_type::u8, field_type::wide_text}, false},
    {"id_create", {field_type::u64, field_type::id}, true},
    {"id_destroy", {field_type::u64, field_type::id}, true},
    // domain, id, key, type, count, value
    {"metadata",
     {field_type::u64, field_type::id, field_type::u64, field_type::u8, field_type::u64, field_type::u64},
     true},
    {"metadata_stringA",
     {field_type::u64, field_type::id, field_type::u64, field_type::u64, field_type::text},
     true},
    {"metadata_stringW",
     {field_type::u64, field_type::id, field_type::u64, field_type::u64, field_type::wide_text},
     false},
    {"relation", {field_type::u64, field_type::id, field_type::u8, field_type::id}, true},
    {"string_handle_createA", {field_type::u64, field_type::u8, field_type::text}, true},
    {"string_handle_createW", {field_type::u64, field_type::u8, field_type::wide_text}, false},
    // domain, id, parent id, name, processor
    {"task_begin", {field_type::u64, field_type::id, field_type::id, field_type::u64, field_type::u64}, true},
    {"task_end", {field_type::u64}, true},
    {"task_group", {field_type::u64, field_type::id, field_type::id, field_type::u64}, true},
    {"region_begin", {field_type::u64, field_type::id, field_type::id, field_type::u64}, true},
    {"region_end", {field_type::u64, field_type::id}, true},
    {"task_begin_async",
     {field_type::u64, field_type::id, field_type::id, field_type::u64, field_type::u64},
     true},
    {"task_end_async", {field_type::u64, field_type::id}, true},
    {"end_of_records", {}, true},
};

constexpr int field_count(const record_kind& kind) {
    int n = 0;
    while (n < max_fields && kind.fields[n] != field_type::none) ++n;
    return n;
}

}  // namespace trace_format
