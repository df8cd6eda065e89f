// Every entry point of the instrumentation API, checked byte for byte in the
// trace file of the calling thread.
#include <gtest/gtest.h>
#include <sched.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>

#include "child.h"
#include "trace_text.h"

namespace {

using namespace trace_format;

// What a case emits and what it must leave between the header and the end.
struct api_case {
    const char* name;
    void (*emit)(zop_api& api, ___zop_domain* d, ___zop_string_handle* h);
    // Expected records; d and h are the handle fields as recorded.
    std::string (*expected)(const std::string& d, const std::string& h);
};

// Runs one case in a fresh child pinned to CPU 0 and returns the text of the
// first thread's file, the recorded handle fields, and what the file must
// hold before the case's records: the header and the two handle records.
struct case_output {
    child_result child;
    std::string trace, d, h, prefix;
};

unsigned long long address(const void* p) {
    return static_cast<unsigned long long>(static_cast<long long>(reinterpret_cast<intptr_t>(p)));
}

case_output run_case(void (*emit)(zop_api&, ___zop_domain*, ___zop_string_handle*)) {
    temp_dir dir;
    case_output result;
    result.child = run_in_child({{{"VUN_DIR", dir.path}}}, [&](zop_api& api) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(0, &cpus);
        sched_setaffinity(0, sizeof cpus, &cpus);
        ___zop_domain* d = api.domain_createA("d");
        ___zop_string_handle* h = api.string_handle_createA("h");
        printf("%llu %llu\n", address(d), address(h));
        emit(api, d, h);
    });
    char d[32] = "", h[32] = "";
    sscanf(result.child.out.c_str(), "%31s %31s", d, h);
    result.d = d, result.h = h;
    result.trace = mask_timestamps(read_file(dir.path + "/_ryl.0"));
    result.prefix = header_lines(std::thread::hardware_concurrency()) +
                    record(kind_domain_createA, {result.d, "1", "d"}) +
                    record(kind_string_handle_createA, {result.h, "1", "h"});
    return result;
}

const __zop_id id7{7, 0, 1};
const __zop_id null_id{0, 0, 0};

const api_case api_cases[] = {
    {"ids_full_words",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle*) {
         a.id_create(d, id7);
         a.id_destroy(d, {18446744073709551615ULL, 4294967296ULL, 255});
     },
     [](const std::string& d, const std::string&) {
         return record(kind_id_create, {d, "7,0,1"}) +
                record(kind_id_destroy, {d, "18446744073709551615,4294967296,255"});
     }},
    {"numbers_around_every_digit_count",
     [](zop_api& a, ___zop_domain*, ___zop_string_handle*) {
         for (unsigned long long power = 10, k = 1; k < 20; power *= 10, ++k)
             a.id_create(nullptr, {power - 1, power, power + 1});
         a.id_create(nullptr, {18446744073709551615ULL, 9999999999999999999ULL, 10000000000000000000ULL});
     },
     [](const std::string&, const std::string&) {
         std::string records;
         for (unsigned long long power = 10, k = 1; k < 20; power *= 10, ++k)
             records += record(kind_id_create, {"0", std::to_string(power - 1) + "," + std::to_string(power) +
                                                         "," + std::to_string(power + 1)});
         return records +
                record(kind_id_create, {"0", "18446744073709551615,9999999999999999999,10000000000000000000"});
     }},
    // Every form of task begin (explicit is the same kind) and end.
    {"tasks",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         a.task_begin(d, {7, 0, 0}, null_id, h);
         a.task_begin_explicit(d, id7, {3, 2, 1}, h);
         a.task_begin_async(d, id7, null_id, h);
         a.task_end(d);
         a.task_end_explicit(d);
         a.task_end_async(d, id7);
     },
     [](const std::string& d, const std::string& h) {
         return record(kind_task_begin, {d, "7,0,0", "0,0,0", h, "0"}) +
                record(kind_task_begin, {d, "7,0,1", "3,2,1", h, "0"}) +
                record(kind_task_begin_async, {d, "7,0,1", "0,0,0", h, "0"}) + record(kind_task_end, {d}) +
                record(kind_task_end, {d}) + record(kind_task_end_async, {d, "7,0,1"});
     }},
    {"region_group_and_null_handles",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         a.region_begin(d, id7, {1, 0, 0}, h);
         a.region_end(d, id7);
         a.task_group(d, {19, 0, 0}, null_id, h);
         a.task_group(nullptr, id7, null_id, nullptr);
     },
     [](const std::string& d, const std::string& h) {
         return record(kind_region_begin, {d, "7,0,1", "1,0,0", h}) + record(kind_region_end, {d, "7,0,1"}) +
                record(kind_task_group, {d, "19,0,0", "0,0,0", h}) + record(kind_task_group, {"0", "7,0,1", "0,0,0", "0"});
     }},
    {"relation_low_8_bits",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle*) {
         for (int kind : {3, 259, 256, -1}) a.relation_add(d, {5, 1, 0}, kind, {9, 0, 0});
     },
     [](const std::string& d, const std::string&) {
         std::string records;
         for (const char* kind : {"3", "3", "0", "255"}) records += record(kind_relation, {d, "5,1,0", kind, "9,0,0"});
         return records;
     }},
    // Type 1 is read at full pointer width (a code address), type 3 as 32
    // bits even where more follow; other counts, types and null data are
    // dropped, and the file still takes records afterwards.
    {"metadata",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         uint32_t small = 42;
         a.metadata_add(d, id7, h, 3, 1, &small);
         uintptr_t code = sizeof(void*) == 8 ? uintptr_t(0x7f12345678abULL) : uintptr_t(0x8048000);
         a.metadata_add(d, id7, h, 1, 1, &code);
         uint64_t wide = 0x100000007ULL;
         a.metadata_add(d, id7, h, 3, 1, &wide);
         for (size_t count : {0, 2}) a.metadata_add(d, id7, h, 3, count, &wide);
         for (int type : {0, 2, 4, -1, 259}) a.metadata_add(d, id7, h, type, 1, &wide);
         a.metadata_add(d, id7, h, 1, 1, nullptr);
         a.metadata_add(d, id7, h, 3, 1, nullptr);
         a.task_end(d);
     },
     [](const std::string& d, const std::string& h) {
         std::string code = sizeof(void*) == 8 ? std::to_string(0x7f12345678abULL) : std::to_string(0x8048000);
         return record(kind_metadata, {d, "7,0,1", h, "3", "1", "42"}) +
                record(kind_metadata, {d, "7,0,1", h, "1", "1", code}) +
                record(kind_metadata, {d, "7,0,1", h, "3", "1", "7"}) + record(kind_task_end, {d});
     }},
    {"metadata_strings",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         a.metadata_str_addA(d, id7, h, "abc", 10);
         a.metadata_str_add(d, id7, h, "abc", 0);
         a.metadata_str_addA(d, id7, h, "a<b&c\"\nd", 3);
         a.metadata_str_addA(d, id7, h, nullptr, 5);
     },
     [](const std::string& d, const std::string& h) {
         return record(kind_metadata_stringA, {d, "7,0,1", h, "10", "abc"}) +
                record(kind_metadata_stringA, {d, "7,0,1", h, "0", "abc"}) +
                record(kind_metadata_stringA, {d, "7,0,1", h, "3", "a<b&c\"\nd"}) +
                record(kind_metadata_stringA, {d, "7,0,1", h, "5", ""});
     }},
};

class api_records : public ::testing::TestWithParam<api_case> {};

TEST_P(api_records, written_byte_for_byte) {
    const api_case& c = GetParam();
    case_output out = run_case(c.emit);
    ASSERT_EQ(out.child.status, 0) << out.child.err;
    EXPECT_EQ(out.trace, out.prefix + c.expected(out.d, out.h) + file_end());
    EXPECT_EQ(out.child.err, "");
}

INSTANTIATE_TEST_SUITE_P(all, api_records, ::testing::ValuesIn(api_cases),
                         [](const ::testing::TestParamInfo<api_case>& info) { return info.param.name; });

// One handle per name and registry, holding its own copy of the name; a null
// name gives a null handle and no record; records after fini still arrive.
// Length fields count bytes up to 1000 and keep the low 8 bits; the text is
// always whole (the empty name is a name too).
TEST(api_handles, one_per_name_lengths_and_version) {
    const std::pair<size_t, int> lengths[] = {{0, 0}, {255, 255}, {256, 0}, {300, 44}, {999, 231}, {1000, 232}, {5000, 232}};
    temp_dir dir;
    child_result child = run_in_child({{{"VUN_DIR", dir.path}}}, [&](zop_api& api) {
        const char* v = api.api_version();
        api.api_fini(nullptr);
        char name[] = "openmp";
        ___zop_domain* a = api.domain_createA(name);
        name[0] = 'X';  // the registry and the handle keep their own copies
        ___zop_domain* b = api.domain_create("openmp");
        ___zop_string_handle* s = api.string_handle_createA("openmp");
        ___zop_string_handle* t = api.string_handle_create("openmp");
        a->flags = 5;  // callers may change the fields; the handle keeps them
        bool ok = a && a == b && s == t && static_cast<void*>(s) != static_cast<void*>(a) &&
                  api.domain_createA("openmp")->flags == 5 && strcmp(a->name, "openmp") == 0 &&
                  strcmp(s->name, "openmp") == 0 && s->name != a->name && !a->reserved1 && !a->reserved4 &&
                  !s->reserved1 && !s->reserved4 && api.domain_createA("Openmp") != a;
        bool null_handles = !api.domain_createA(nullptr) && !api.domain_create(nullptr) &&
                            !api.string_handle_createA(nullptr) && !api.string_handle_create(nullptr);
        printf("%s|%d %s %d %d\n", v, v == api.api_version(), ok ? "same" : "different",
               api.domain_createA("fresh")->flags, null_handles);
        for (const auto& length : lengths) {
            std::string n(length.first, 'n');
            api.domain_createA(n.c_str());
            api.string_handle_create(n.c_str());
        }
    });
    ASSERT_EQ(child.status, 0);
    EXPECT_EQ(child.out, "Quillon Collector 0.02|1 same 1 1\n");
    parsed_trace trace = parse_trace(read_file(dir.path + "/_ryl.0"));
    ASSERT_TRUE(trace.ok) << trace.error;
    ASSERT_EQ(trace.records.size(), 7 + 2 * (sizeof lengths / sizeof lengths[0]));  // the null names leave none
    EXPECT_EQ(trace.records[0].fields, trace.records[1].fields);  // same handle, name and length
    EXPECT_EQ(trace.records[1].name, "domain_createA");
    EXPECT_EQ(trace.records[2].name, "string_handle_createA");
    EXPECT_NE(trace.records[2].fields[0], trace.records[0].fields[0]);
    for (size_t i = 7; i < trace.records.size(); ++i) {
        const auto& length = lengths[(i - 7) / 2];
        EXPECT_EQ(trace.records[i].name, i % 2 ? "domain_createA" : "string_handle_createA");
        EXPECT_EQ(trace.records[i].fields[1], std::to_string(length.second)) << length.first << " bytes";
        EXPECT_EQ(trace.records[i].fields[2], std::string(length.first, 'n'));
    }
}

}  // namespace
