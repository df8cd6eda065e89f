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

// A handle's field: its address, sign-extended to 64 bits.
std::string address(const void* p) {
    return std::to_string(static_cast<unsigned long long>(static_cast<long long>(reinterpret_cast<intptr_t>(p))));
}

// A case makes its calls, with a domain d and a string handle h made
// beforehand, and returns the records they must leave.
struct api_case {
    const char* name;
    std::string (*emit)(zop_api& a, ___zop_domain* d, ___zop_string_handle* h);
};

const __zop_id id7{7, 0, 1};
const __zop_id null_id{0, 0, 0};

const api_case api_cases[] = {
    // Numbers around every digit count, and full words.
    {"ids",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle*) {
         const std::string ds = address(d);
         std::string records;
         for (unsigned long long power = 10, k = 1; k < 20; power *= 10, ++k) {
             a.id_create(nullptr, {power - 1, power, power + 1});
             records += record(kind_id_create, {"0", std::to_string(power - 1) + "," + std::to_string(power) +
                                                         "," + std::to_string(power + 1)});
         }
         a.id_create(d, {18446744073709551615ULL, 9999999999999999999ULL, 10000000000000000000ULL});
         a.id_destroy(d, {18446744073709551615ULL, 4294967296ULL, 255});
         return records +
                record(kind_id_create, {ds, "18446744073709551615,9999999999999999999,10000000000000000000"}) +
                record(kind_id_destroy, {ds, "18446744073709551615,4294967296,255"});
     }},
    // Every form of task begin (explicit is the same kind) and end, regions,
    // groups and relations. Null handles are recorded as 0; a relation keeps
    // the low 8 bits of its kind.
    {"tasks_regions_groups_and_relations",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         const std::string ds = address(d), hs = address(h);
         a.task_begin(d, {7, 0, 0}, null_id, h);
         a.task_begin_explicit(d, id7, {3, 2, 1}, h);
         a.task_begin_async(d, id7, null_id, h);
         a.task_end(d);
         a.task_end_explicit(d);
         a.task_end_async(d, id7);
         a.region_begin(d, id7, {1, 0, 0}, h);
         a.region_end(d, id7);
         a.task_group(d, {19, 0, 0}, null_id, h);
         a.task_group(nullptr, id7, null_id, nullptr);
         std::string records = record(kind_task_begin, {ds, "7,0,0", "0,0,0", hs, "0"}) +
                               record(kind_task_begin, {ds, "7,0,1", "3,2,1", hs, "0"}) +
                               record(kind_task_begin_async, {ds, "7,0,1", "0,0,0", hs, "0"}) +
                               record(kind_task_end, {ds}) + record(kind_task_end, {ds}) +
                               record(kind_task_end_async, {ds, "7,0,1"}) +
                               record(kind_region_begin, {ds, "7,0,1", "1,0,0", hs}) +
                               record(kind_region_end, {ds, "7,0,1"}) +
                               record(kind_task_group, {ds, "19,0,0", "0,0,0", hs}) +
                               record(kind_task_group, {"0", "7,0,1", "0,0,0", "0"});
         for (int kind : {3, 259, 256, -1}) a.relation_add(d, {5, 1, 0}, kind, {9, 0, 0});
         for (const char* kind : {"3", "3", "0", "255"})
             records += record(kind_relation, {ds, "5,1,0", kind, "9,0,0"});
         return records;
     }},
    // Type 1 is read at full pointer width (a code address), type 3 as 32
    // bits even where more follow; other counts, types and null data are
    // dropped, and the file still takes records afterwards. A string's
    // length field is the given length, its text the whole string (empty for
    // null).
    {"metadata",
     [](zop_api& a, ___zop_domain* d, ___zop_string_handle* h) {
         const std::string ds = address(d), hs = address(h);
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
         a.metadata_str_addA(d, id7, h, "abc", 10);
         a.metadata_str_add(d, id7, h, "abc", 0);
         a.metadata_str_addA(d, id7, h, "a<b&c\"\nd", 3);
         a.metadata_str_addA(d, id7, h, nullptr, 5);
         return record(kind_metadata, {ds, "7,0,1", hs, "3", "1", "42"}) +
                record(kind_metadata, {ds, "7,0,1", hs, "1", "1", std::to_string(code)}) +
                record(kind_metadata, {ds, "7,0,1", hs, "3", "1", "7"}) + record(kind_task_end, {ds}) +
                record(kind_metadata_stringA, {ds, "7,0,1", hs, "10", "abc"}) +
                record(kind_metadata_stringA, {ds, "7,0,1", hs, "0", "abc"}) +
                record(kind_metadata_stringA, {ds, "7,0,1", hs, "3", "a<b&c\"\nd"}) +
                record(kind_metadata_stringA, {ds, "7,0,1", hs, "5", ""});
     }},
    // One handle per name and registry, holding its own copy of the name, and
    // a record per call (the wide forms write the narrow kinds); a null name
    // gives a null handle and no record; records after fini still arrive.
    // Length fields count bytes up to 1000 and keep the low 8 bits; the text
    // is always whole (the empty name is a name too). A handle or version that
    // is not as it should be is reported on standard error.
    {"handles_and_version",
     [](zop_api& a, ___zop_domain*, ___zop_string_handle*) {
         const char* v = a.api_version();
         a.api_fini(nullptr);
         char name[] = "openmp";
         ___zop_domain* o = a.domain_createA(name);
         name[0] = 'X';  // the registry and the handle keep their own copies
         o->flags = 5;   // callers may change the fields; the handle keeps them
         ___zop_string_handle* s = a.string_handle_createA("openmp");
         ___zop_domain* other = a.domain_createA("Openmp");
         ___zop_domain* fresh = a.domain_createA("fresh");
         if (strcmp(v, "Quillon Collector 0.02") != 0 || v != a.api_version() || a.domain_create("openmp") != o ||
             a.domain_createA("openmp")->flags != 5 || a.string_handle_create("openmp") != s || other == o ||
             fresh->flags != 1 || static_cast<void*>(s) == static_cast<void*>(o) || strcmp(o->name, "openmp") != 0 ||
             strcmp(s->name, "openmp") != 0 || s->name == o->name || o->reserved1 || o->reserved4 || s->reserved1 ||
             s->reserved4 || a.domain_createA(nullptr) || a.domain_create(nullptr) ||
             a.string_handle_createA(nullptr) || a.string_handle_create(nullptr))
             fprintf(stderr, "handles not as they should be (version %s)\n", v);
         const std::string os = address(o), ss = address(s);
         std::string records = record(kind_domain_createA, {os, "6", "openmp"}) +
                               record(kind_string_handle_createA, {ss, "6", "openmp"}) +
                               record(kind_domain_createA, {address(other), "6", "Openmp"}) +
                               record(kind_domain_createA, {address(fresh), "5", "fresh"}) +
                               record(kind_domain_createA, {os, "6", "openmp"}) +
                               record(kind_domain_createA, {os, "6", "openmp"}) +
                               record(kind_string_handle_createA, {ss, "6", "openmp"});
         for (auto length : {std::make_pair(0, 0), {255, 255}, {256, 0}, {300, 44}, {999, 231}, {1000, 232},
                             {5000, 232}}) {
             const std::string n(size_t(length.first), 'n'), field = std::to_string(length.second);
             records += record(kind_domain_createA, {address(a.domain_createA(n.c_str())), field, n});
             records += record(kind_string_handle_createA, {address(a.string_handle_create(n.c_str())), field, n});
         }
         return records;
     }},
};

class api_records : public ::testing::TestWithParam<api_case> {};

// Each case runs in a fresh child pinned to CPU 0 that makes the handles
// first, and prints the whole file its first thread must leave.
TEST_P(api_records, written_byte_for_byte) {
    temp_dir dir;
    auto emit = GetParam().emit;
    child_result child = run_in_child({{{"VUN_DIR", dir.path}}}, [emit](zop_api& api) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(0, &cpus);
        sched_setaffinity(0, sizeof cpus, &cpus);
        ___zop_domain* d = api.domain_createA("d");
        ___zop_string_handle* h = api.string_handle_createA("h");
        std::string expected = header_lines(std::thread::hardware_concurrency()) +
                               record(kind_domain_createA, {address(d), "1", "d"}) +
                               record(kind_string_handle_createA, {address(h), "1", "h"}) + emit(api, d, h);
        fputs((expected + file_end()).c_str(), stdout);
    });
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(mask_timestamps(read_file(dir.path + "/_ryl.0")), child.out);
    EXPECT_EQ(child.err, "");
}

INSTANTIATE_TEST_SUITE_P(all, api_records, ::testing::ValuesIn(api_cases),
                         [](const ::testing::TestParamInfo<api_case>& info) { return info.param.name; });

}  // namespace
