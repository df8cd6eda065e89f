// The OpenMP tool adapter in a 32-bit process, driven by a fake runtime: a
// slot reads back the low 32 bits of the unique id stored in it, and every
// pointer-sized value (slot, dependence address, code address) at or above
// 2^31 enters an id or a metadata value zero-extended, never sign-extended.
#include <gtest/gtest.h>
#include <omp-tools.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "child.h"
#include "ompt_support.h"
#include "pages_32bit.h"

namespace {

// A fake runtime in the child process: a lookup that offers set_callback,
// unique ids and parallel info; the callbacks it was given.
namespace fake {
ompt_callback_t callbacks[64];
// Unique ids above 2^32 whose low 32 bits are at or above 2^31.
std::uint64_t next_id = 0x1FFFFFFF0ull;
ompt_data_t* region = nullptr;

ompt_set_result_t set_callback(ompt_callbacks_t event, ompt_callback_t callback) {
    callbacks[event] = callback;
    return ompt_set_always;
}
std::uint64_t get_unique_id() { return next_id++; }
int get_parallel_info(int level, ompt_data_t** data, int*) {
    if (level != 0 || !region) return 0;
    *data = region;
    return 2;
}
ompt_interface_fn_t lookup(const char* name) {
    if (!strcmp(name, "ompt_set_callback")) return reinterpret_cast<ompt_interface_fn_t>(&set_callback);
    if (!strcmp(name, "ompt_get_unique_id")) return reinterpret_cast<ompt_interface_fn_t>(&get_unique_id);
    if (!strcmp(name, "ompt_get_parallel_info"))
        return reinterpret_cast<ompt_interface_fn_t>(&get_parallel_info);
    return nullptr;
}
}  // namespace fake

// The registered callback of an event, with its standard type.
#define CB(event) reinterpret_cast<event##_t>(fake::callbacks[event])

// The low 32 bits of the n-th unique id, as the adapter reads them back.
std::uint64_t unique(unsigned n) { return std::uint32_t(0x1FFFFFFF0ull + n); }

void start_tool(zop_api& api) {
    auto start = reinterpret_cast<ompt_start_tool_result_t* (*)(unsigned, const char*)>(
        api.sym("ompt_start_tool"));
    ompt_start_tool_result_t* fns = start(201811, "LLVM OMP version: 5.0.20140926");
    printf("initialize %d\n", fns->initialize(fake::lookup, 0, &fns->tool_data));
}

// The first file's records after the 13 of start-up, one line each; the
// child's standard output in `out`.
std::vector<std::string> events(const std::function<void(zop_api&)>& body, std::string& out) {
    temp_dir dir;
    child_options options;
    options.set_env = {{"VUN_DIR", dir.path}};
    options.unset_env = {"VUN_BARRIERS"};
    child_result child = run_in_child(options, body);
    EXPECT_EQ(child.status, 0) << child.err;
    out = child.out;
    std::vector<parsed_trace> traces = read_traces(dir.path);
    if (traces.empty()) return {"NO TRACE FILE"};
    handle_names names;
    learn_handles(traces[0], names);
    EXPECT_TRUE(traces[0].ok && traces[0].finished) << traces[0].error;
    std::vector<std::string> lines = render(traces[0], names);
    lines.erase(lines.begin(), lines.begin() + std::min<size_t>(13, lines.size()));
    return lines;
}

template <typename... F>
std::string rec(const std::string& name, const F&... fields) {
    std::string line = name + " @openmp";
    ((line += " " + std::string(fields)), ...);
    return line;
}

const auto barrier = static_cast<ompt_sync_region_t>(1);

// A region with one implicit task and a barrier on one thread: every id made
// from a slot or a fresh unique id holds the id's low 32 bits, zero-extended.
TEST(ompt_32bit, slots_read_the_low_32_bits_of_unique_ids) {
    const std::uint64_t E = unique(0), R = unique(1), F = unique(2), I = unique(3), TA = unique(4),
                        J = unique(5), O = unique(6);
    std::string out;
    std::vector<std::string> lines = events(
        [](zop_api& api) {
            start_tool(api);
            ompt_data_t e{}, r{}, ta{};
            CB(ompt_callback_implicit_task)(ompt_scope_begin, nullptr, &e, 1, 1, ompt_task_initial);
            CB(ompt_callback_parallel_begin)(&e, nullptr, &r, 1, ompt_parallel_team, nullptr);
            fake::region = &r;
            CB(ompt_callback_implicit_task)(ompt_scope_begin, &r, &ta, 1, 0, ompt_task_implicit);
            CB(ompt_callback_sync_region)(barrier, ompt_scope_begin, &r, &ta, nullptr);
            CB(ompt_callback_sync_region)(barrier, ompt_scope_end, &r, &ta, nullptr);
            CB(ompt_callback_implicit_task)(ompt_scope_end, nullptr, &ta, 1, 0, ompt_task_implicit);
            CB(ompt_callback_parallel_end)(&r, &e, ompt_parallel_team, nullptr);
            printf("%llx %x\n", static_cast<unsigned long long>(r.value), address_of(r.ptr));
        },
        out);
    // The runtime stored 64 bits; the pointer-sized member holds the low 32.
    EXPECT_EQ(out, "initialize 1\n1fffffff1 fffffff1\n");
    EXPECT_EQ(lines, (std::vector<std::string>{
                         rec("relation", id(E), "3", id(R, 1)),
                         rec("id_create", id(R, 1)),
                         rec("task_group", id(R, 1), id(19), "@composite_node"),
                         rec("task_group", id(F), id(R, 1), "@node"),
                         rec("id_create", id(I)),
                         rec("task_group", id(I), id(F), "@input_port_0"),
                         rec("task_group", id(F, 35), id(F), "@output_port_0"),
                         rec("task_group", id(I), id(R, 1), "@input_port_0"),
                         rec("relation", id(R, 1), "3", id(I)),
                         rec("id_create", id(R)),
                         rec("task_group", id(R), id(0), "@omp_parallel"),
                         rec("task_begin", id(R), id(0), "@omp_parallel"),
                         rec("id_create", id(TA)),
                         rec("task_group", id(TA), id(R), "@omp_implicit"),
                         rec("task_begin", id(TA), id(R), "@omp_implicit"),
                         rec("task_end"),
                         rec("task_begin", id(TA), id(R), "@omp_barrier"),
                         rec("task_end"),
                         rec("task_end"),
                         rec("metadata", id(R, 1), "@code_address", "1", "1", "0"),
                         rec("task_group", id(J, 36), id(R, 1), "@node"),
                         rec("task_group", id(O), id(J, 36), "@output_port_0"),
                         rec("task_group", id(J, 37), id(J, 36), "@input_port_0"),
                         rec("task_group", id(O), id(R, 1), "@output_port_0"),
                         rec("relation", id(R, 1), "3", id(O)),
                         rec("task_end"),
                     }));
}

// An explicit task whose dependence variables and code address lie at or
// above 2^31: a variable at 0xC0000000 (the page mapped there, or another
// high page if that one is taken) is the id {3221225472, 0, 0}, and the code
// address is recorded whole.
TEST(ompt_32bit, high_dependence_and_code_addresses_zero_extended) {
    std::string out;
    std::vector<std::string> lines = events(
        [](zop_api& api) {
            start_tool(api);
            char* vars = static_cast<char*>(map_pages_near(0xC0000000u, 0x80000000u));
            char* code = static_cast<char*>(map_pages_near(0xF7A01000u, 0x80000000u));
            if (!vars || !code) _exit(90);
            ompt_data_t t{}, next{};
            ompt_dependence_t deps[2] = {};
            deps[0].variable.ptr = vars;
            deps[0].dependence_type = ompt_dependence_type_in;
            deps[1].variable.ptr = vars + 8;
            deps[1].dependence_type = ompt_dependence_type_out;
            CB(ompt_callback_task_create)(nullptr, nullptr, &t, ompt_task_explicit, 1, code + 0x10);
            CB(ompt_callback_dependences)(&t, deps, 2);
            CB(ompt_callback_task_schedule)(&next, ompt_task_switch, &t);
            CB(ompt_callback_task_schedule)(&t, ompt_task_complete, &next);
            printf("%u %u\n", address_of(vars), address_of(code + 0x10));
        },
        out);
    unsigned long long vars = 0, code = 0;
    ASSERT_EQ(sscanf(out.c_str(), "initialize 1\n%llu %llu", &vars, &code), 2) << out;
    ASSERT_GE(vars, 0x80000000ull);
    const std::uint64_t T = unique(0);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         rec("id_create", id(T)),
                         rec("id_create", id(0)),
                         rec("relation", id(T), "5", id(0)),
                         rec("id_create", id(T, 1)),
                         rec("task_group", id(T, 1), id(0), "@node"),
                         rec("metadata", id(T), "@code_address", "1", "1", std::to_string(code)),
                         rec("relation", id(vars), "7", id(T, 1)),
                         rec("relation", id(T, 1), "7", id(vars + 8)),
                         rec("task_begin", id(T), id(0), "@omp_explicit"),
                         rec("task_end"),
                     }))
        << "variables at " << vars << ", code at " << code;
}

}  // namespace
