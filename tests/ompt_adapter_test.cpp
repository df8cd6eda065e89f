// The OpenMP tool adapter driven by a fake OpenMP runtime: start-up,
// registration, and the records that each event leaves, ids included. The
// same cases run in the 32-bit build, where a slot reads back the low 32 bits
// of the unique id stored in it, and every pointer-sized value (slot,
// dependence address, code address) at or above 2^31 must enter an id or a
// metadata value zero-extended, never sign-extended.
#include <gtest/gtest.h>
#include <omp-tools.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "ompt_support.h"

namespace {

// A fake runtime in the child process: its own lookup, a set_callback that
// keeps the callbacks and gives a chosen answer, a unique-id counter, and a
// parallel-info entry point that reports a settable region.
namespace fake {
int answer = ompt_set_always, region_answer = 2;
std::vector<int> registered;
ompt_callback_t callbacks[64];
std::vector<std::string> missing;
// Unique ids above 2^32, so that an id cut to 32 bits would show, whose low
// 32 bits are at or above 2^31.
const std::uint64_t first_id = 0x1FFFFFFF0ull;
std::atomic<std::uint64_t> next_id{first_id};
ompt_data_t* region = nullptr;

ompt_set_result_t set_callback(ompt_callbacks_t event, ompt_callback_t callback) {
    registered.push_back(event);
    callbacks[event] = callback;
    return static_cast<ompt_set_result_t>(answer);
}
std::uint64_t get_unique_id() { return next_id++; }
int get_parallel_info(int level, ompt_data_t** data, int*) {
    if (level == 0 && region_answer != 0) *data = region;
    return region_answer;
}
ompt_interface_fn_t lookup(const char* name) {
    if (std::find(missing.begin(), missing.end(), name) != missing.end()) return nullptr;
    if (!strcmp(name, "ompt_set_callback")) return reinterpret_cast<ompt_interface_fn_t>(&set_callback);
    if (!strcmp(name, "ompt_get_unique_id")) return reinterpret_cast<ompt_interface_fn_t>(&get_unique_id);
    if (!strcmp(name, "ompt_get_parallel_info"))
        return reinterpret_cast<ompt_interface_fn_t>(&get_parallel_info);
    return nullptr;  // kept by the adapter, never called
}
}  // namespace fake

// The n-th unique id, and any pointer-sized value the runtime passes, as the
// adapter records it: whole in a 64-bit process, the low 32 bits in a 32-bit one.
std::uint64_t pointer_sized(std::uint64_t value) { return std::uintptr_t(value); }
std::uint64_t unique(unsigned n) { return pointer_sized(fake::first_id + n); }

// The registered callback of an event, with its standard type.
#define CB(event) reinterpret_cast<event##_t>(fake::callbacks[event])

const auto barrier = static_cast<ompt_sync_region_t>(1);
const char* const runtime_14 = "LLVM OMP version: 5.0.20140926";

// Starts the tool as a runtime does, once per version string given; prints
// what ompt_initialize answered.
void start_tool(zop_api& api, std::vector<const char*> versions = {runtime_14}) {
    auto start = reinterpret_cast<ompt_start_tool_result_t* (*)(unsigned, const char*)>(
        api.sym("ompt_start_tool"));
    ompt_start_tool_result_t* fns = nullptr;
    for (const char* v : versions) {
        ompt_start_tool_result_t* again = start(201811, v);
        if (fns && again != fns) printf("another record\n");
        fns = again;
    }
    if (fns->tool_data.value != 0) printf("tool_data set\n");
    printf("initialize %d\n", fns->initialize(fake::lookup, 0, &fns->tool_data));
}

// One child run: what it printed and each file's records as lines.
struct session {
    child_result child;
    std::vector<std::vector<std::string>> files;
    // The records after the 13 of start-up in the first file.
    std::vector<std::string> events() const {
        return {files.at(0).begin() + std::min<size_t>(13, files.at(0).size()), files.at(0).end()};
    }
};

session run(const std::function<void(zop_api&)>& body,
            std::vector<std::pair<std::string, std::string>> env = {}) {
    temp_dir dir;
    env.emplace_back("VUN_DIR", dir.path);
    session s;
    s.child = run_in_child({env, {"VUN_BARRIERS"}}, body);
    EXPECT_EQ(s.child.status, 0) << s.child.err;
    for (const rendered_trace& t : read_rendered(dir.path)) {
        EXPECT_TRUE(t.complete) << t.error;
        s.files.push_back(t.lines);
    }
    if (s.files.empty()) s.files.emplace_back();
    return s;
}

// An adapter record: name, the domain "openmp", then the given fields.
template <typename... F>
std::string rec(const std::string& name, const F&... fields) {
    std::string line = name + " @openmp";
    ((line += " " + std::string(fields)), ...);
    return line;
}

std::vector<std::string> start_up_records() {
    std::vector<std::string> lines = {"domain_createA @openmp 6 openmp"};
    for (std::string n : {"omp_parallel", "omp_barrier", "omp_implicit", "node", "omp_explicit", "graph",
                          "composite_node", "input_port_0", "output_port_0", "code_address"})
        lines.push_back("string_handle_createA @" + n + " " + std::to_string(n.size()) + " " + n);
    lines.push_back(rec("id_create", id(19)));
    lines.push_back(rec("task_group", id(19), id(0), "@graph"));
    return lines;
}

// Registration order: the event numbers, and the names in the refusal lines.
const std::pair<int, const char*> registrations[] = {
    {7, "implicit_task"}, {11, "control_tool"}, {3, "parallel_begin"}, {4, "parallel_end"},
    {5, "task_create"}, {6, "task_schedule"}, {18, "dependences"}, {1, "thread_begin"}, {23, "sync_region"}};

// Whatever the runtime answers, the same records and registrations; only
// ompt_set_never is a refusal, and each prints its line. Without
// ompt_set_callback or ompt_get_unique_id the adapter declines and registers
// nothing.
TEST(ompt_start_up, records_registrations_and_refusals) {
    std::string order, refused;
    for (const auto& r : registrations) {
        order += std::to_string(r.first) + " ";
        refused += "0: Could not register callback 'ompt_callback_" + std::string(r.second) + "'\n";
    }
    const std::pair<int, std::string> cases[] = {  // the answer, and the entry point missing
        {ompt_set_error, ""}, {ompt_set_never, ""}, {ompt_set_impossible, ""},
        {ompt_set_sometimes_paired, ""}, {ompt_set_always, ""},
        {ompt_set_never, "ompt_set_callback"}, {ompt_set_never, "ompt_get_unique_id"}};
    for (const auto& c : cases) {
        session s = run([&](zop_api& api) {
            fake::answer = c.first;
            fake::missing = {c.second};
            start_tool(api);
            for (int event : fake::registered) printf("%d ", event);
        });
        const bool declined = !c.second.empty();
        SCOPED_TRACE("answer " + std::to_string(c.first) + ", missing " + c.second);
        EXPECT_EQ(s.files[0], start_up_records());
        EXPECT_EQ(s.child.out, (c.first == ompt_set_never && !declined ? refused : "") + "initialize " +
                                   (declined ? "0\n" : "1\n" + order));
        EXPECT_EQ(s.child.err, "");
    }
}

// Runs steps on several threads in one global order.
struct relay {
    std::atomic<int> turn{0};
    void at(int t, const std::function<void()>& step) {
        while (turn != t) std::this_thread::yield();
        step();
        ++turn;
    }
};

// How the runtime reports the events of the two-thread region below: with
// every slot and code address; without any data (then every id made from a
// slot reads as 0, the fresh ones of the region's ports and nodes stay, and
// nothing crashes); or with slots but without ompt_get_parallel_info (then an
// implicit task stays under the region that its callback names, if any).
class two_threads : public testing::TestWithParam<const char*> {};

// One region with two implicit tasks on threads A and B; inside it, A creates
// an explicit task with an out dependence, which B runs.
TEST_P(two_threads, give_the_records_of_region_and_task) {
    const std::string replay = GetParam();
    const bool null_data = replay == "null_data", no_info = replay == "no_parallel_info";
    // Unique ids in the order taken, also for a missing slot; unique(5) is B's thread data.
    const auto slot_id = [&](unsigned n) { return null_data ? 0 : unique(n); };
    const std::uint64_t E = slot_id(0), R = slot_id(1), F = unique(2), I = unique(3), TA = slot_id(4),
                        TB = slot_id(6), T = slot_id(7), J = unique(8), O = unique(9), RB = no_info ? 0 : R;
    // The runtime stores V whole; the adapter reads the pointer-sized member.
    const std::uint64_t V = 0x7ffdc0001000;
    const std::uintptr_t region_code = null_data ? 0 : std::uintptr_t(0x7f12f4567890),
                         task_code = null_data ? 0 : std::uintptr_t(0x55aaf7a01010);
    session s = run([&](zop_api& api) {
        if (no_info) fake::missing = {"ompt_get_parallel_info"};
        start_tool(api);
        ompt_data_t e{}, r{}, ta{}, tb{}, t{}, thread_b{};
        const auto D = [&](ompt_data_t& d) { return null_data ? nullptr : &d; };
        ompt_dependence_t out{};
        out.variable.value = V;
        out.dependence_type = ompt_dependence_type_out;
        relay turns;
        std::thread a([&] {
            turns.at(0, [&] {
                CB(ompt_callback_implicit_task)(ompt_scope_begin, nullptr, D(e), 1, 1, ompt_task_initial);
                CB(ompt_callback_parallel_begin)(D(e), nullptr, D(r), 2, ompt_parallel_team, nullptr);
                fake::region = D(r);
                CB(ompt_callback_implicit_task)(ompt_scope_begin, D(r), D(ta), 2, 0, ompt_task_implicit);
            });
            turns.at(2, [&] {
                CB(ompt_callback_task_create)(D(ta), nullptr, D(t), ompt_task_explicit, 1,
                                              reinterpret_cast<const void*>(task_code));
                CB(ompt_callback_dependences)(D(t), &out, 1);
            });
            turns.at(4, [&] {
                CB(ompt_callback_sync_region)(barrier, ompt_scope_begin, D(r), D(ta), nullptr);
                CB(ompt_callback_sync_region)(barrier, ompt_scope_end, D(r), D(ta), nullptr);
            });
            turns.at(6, [&] {
                CB(ompt_callback_implicit_task)(ompt_scope_end, nullptr, D(ta), 2, 0, ompt_task_implicit);
                CB(ompt_callback_parallel_end)(D(r), D(e), ompt_parallel_team,
                                               reinterpret_cast<const void*>(region_code));
            });
        });
        std::thread b([&] {
            turns.at(1, [&] {
                CB(ompt_callback_thread_begin)(ompt_thread_worker, D(thread_b));
                // No parallel_data: B must find the region through the runtime.
                CB(ompt_callback_implicit_task)(ompt_scope_begin, nullptr, D(tb), 2, 1, ompt_task_implicit);
            });
            turns.at(3, [&] {
                CB(ompt_callback_task_schedule)(D(tb), ompt_task_switch, D(t));
                CB(ompt_callback_task_schedule)(D(t), ompt_task_complete, D(tb));
            });
            turns.at(5, [&] {
                CB(ompt_callback_sync_region)(barrier, ompt_scope_begin, D(r), D(tb), nullptr);
                CB(ompt_callback_sync_region)(barrier, ompt_scope_end, D(r), D(tb), nullptr);
                CB(ompt_callback_implicit_task)(ompt_scope_end, nullptr, D(tb), 2, 1, ompt_task_implicit);
            });
        });
        a.join();
        b.join();
        // An initial task's creation writes nothing; it gives the region that
        // the runtime reports around it a unique id, the one after the task's.
        CB(ompt_callback_task_create)(nullptr, nullptr, D(e), ompt_task_initial, 0, nullptr);
        printf("region %llu\n", static_cast<unsigned long long>(r.value));
    });
    EXPECT_EQ(s.child.out, "initialize 1\nregion " +
                               std::to_string(null_data ? 0 : fake::first_id + (no_info ? 1 : 11)) + "\n");
    ASSERT_GE(s.files.size(), 3u);
    EXPECT_EQ(s.files[0], start_up_records());
    // One line per callback: parallel begin (three), implicit task begin, task
    // create, dependences, barrier, implicit task end, parallel end (two).
    EXPECT_EQ(s.files[1], (std::vector<std::string>{
        rec("relation", id(E), "3", id(R, 1)), rec("id_create", id(R, 1)),
        rec("task_group", id(R, 1), id(19), "@composite_node"), rec("task_group", id(F), id(R, 1), "@node"),
        rec("id_create", id(I)), rec("task_group", id(I), id(F), "@input_port_0"),
        rec("task_group", id(F, 35), id(F), "@output_port_0"),
        rec("task_group", id(I), id(R, 1), "@input_port_0"),
        rec("relation", id(R, 1), "3", id(I)), rec("id_create", id(R)),
        rec("task_group", id(R), id(0), "@omp_parallel"), rec("task_begin", id(R), id(0), "@omp_parallel"),
        rec("id_create", id(TA)), rec("task_group", id(TA), id(R), "@omp_implicit"),
        rec("task_begin", id(TA), id(R), "@omp_implicit"),
        rec("id_create", id(T)), rec("id_create", id(TA)), rec("relation", id(T), "5", id(TA)),
        rec("id_create", id(T, 1)), rec("task_group", id(T, 1), id(TA), "@node"),
        rec("metadata", id(T), "@code_address", "1", "1", std::to_string(task_code)),
        rec("relation", id(T, 1), "7", id(pointer_sized(V))),
        rec("task_end"), rec("task_begin", id(TA), id(R), "@omp_barrier"), rec("task_end"),
        rec("task_end"),
        rec("metadata", id(R, 1), "@code_address", "1", "1", std::to_string(region_code)),
        rec("task_group", id(J, 36), id(R, 1), "@node"),
        rec("task_group", id(O), id(J, 36), "@output_port_0"),
        rec("task_group", id(J, 37), id(J, 36), "@input_port_0"),
        rec("task_group", id(O), id(R, 1), "@output_port_0"),
        rec("relation", id(R, 1), "3", id(O)), rec("task_end")}));
    // Implicit task begin, the explicit task's switch and completion, barrier,
    // implicit task end.
    EXPECT_EQ(s.files[2], (std::vector<std::string>{
        rec("id_create", id(TB)), rec("task_group", id(TB), id(RB), "@omp_implicit"),
        rec("task_begin", id(TB), id(RB), "@omp_implicit"),
        rec("task_begin", id(T), id(0), "@omp_explicit"), rec("task_end"),
        rec("task_end"), rec("task_begin", id(TB), id(R), "@omp_barrier"), rec("task_end"),
        rec("task_end")}));
}

INSTANTIATE_TEST_SUITE_P(
    ompt_translation, two_threads, testing::Values("with_data", "null_data", "no_parallel_info"),
    [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// Types by bit value: 2 (out, inout, sink, inoutset; 34 and 35 are the
// *_all_memory types of newer runtimes) writes task -> variable, else 1 (in,
// source) variable -> task; anything else nothing.
TEST(ompt_translation, dependence_direction_follows_the_type_bits) {
    const std::uint64_t V = 0x7ffdc0002000, v = pointer_sized(V);
    const std::pair<int, char> cases[] = {{0, '-'}, {1, 'i'}, {2, 'o'}, {3, 'o'},  {4, '-'}, {5, 'i'},
                                          {6, 'o'}, {7, 'o'}, {8, '-'}, {34, 'o'}, {35, 'o'}};
    session s = run([&](zop_api& api) {
        start_tool(api);
        ompt_data_t t{};
        t.value = 1000;
        ompt_dependence_t dep{};
        dep.variable.value = V;
        dep.dependence_type = ompt_dependence_type_out;
        CB(ompt_callback_dependences)(&t, &dep, 0);  // no dependences: none, fewer than none, no array
        CB(ompt_callback_dependences)(&t, &dep, -1);
        CB(ompt_callback_dependences)(&t, nullptr, 1);
        for (const auto& c : cases) {
            t.value = c.first;  // the task's id tells the case
            int type = c.first;  // stored as a number: 8, 34 and 35 are not in the enumeration
            std::memcpy(&dep.dependence_type, &type, sizeof type);
            CB(ompt_callback_dependences)(&t, &dep, 1);
        }
    });
    std::vector<std::string> expected;
    for (const auto& c : cases) {
        if (c.second == 'o') expected.push_back(rec("relation", id(c.first, 1), "7", id(v)));
        if (c.second == 'i') expected.push_back(rec("relation", id(v), "7", id(c.first, 1)));
    }
    EXPECT_EQ(s.events(), expected);
}

// Kind 1 always shows as a barrier; kinds 2 to 4 only with VUN_BARRIERS=all.
TEST(ompt_translation, sync_region_kinds_shown_as_barriers) {
    const std::uint64_t R = 0x1234;
    const std::pair<const char*, std::vector<int>> cases[] = {
        {nullptr, {1}}, {"all", {1, 2, 3, 4}}, {"ALL", {1}}, {"", {1}}, {"1", {1}}};
    for (const auto& c : cases) {
        std::vector<std::pair<std::string, std::string>> env;
        if (c.first) env.emplace_back("VUN_BARRIERS", c.first);
        session s = run([](zop_api& api) {
            start_tool(api);
            ompt_data_t task{}, region{};
            region.value = R;
            for (int kind = 1; kind <= 10; ++kind) {
                task.value = kind;  // the barrier's task tells the kind
                for (auto endpoint : {ompt_scope_begin, ompt_scope_end, ompt_scope_beginend})
                    CB(ompt_callback_sync_region)(static_cast<ompt_sync_region_t>(kind), endpoint, &region,
                                                  &task, nullptr);
            }
        }, env);
        std::vector<std::string> expected;
        for (int kind : c.second)
            for (const std::string& r : {rec("task_end"), rec("task_begin", id(kind), id(R), "@omp_barrier"),
                                         rec("task_end")})
                expected.push_back(r);
        EXPECT_EQ(s.events(), expected) << "VUN_BARRIERS=" << (c.first ? c.first : "(unset)");
    }
}

// Status 7 begins the next task; 1 ends one; 4 begins it only after a
// runtime version containing ".2018"; every other status writes nothing.
TEST(ompt_translation, task_status_four_depends_on_the_runtime_version) {
    const std::uint64_t N = 0x5000;
    const std::pair<std::vector<const char*>, bool> cases[] = {
        {{runtime_14}, false}, {{"LLVM OMP version: 5.0.20181105"}, true},
        {{"LLVM OMP version: 5.0.20190308"}, false}, {{"version 2018"}, false}, {{nullptr}, false},
        {{"x.2018", runtime_14, nullptr}, true}};
    for (const auto& c : cases) {
        session s = run([&](zop_api& api) {
            start_tool(api, c.first);
            ompt_data_t next{};
            next.value = N;
            for (int status = 1; status <= 8; ++status)
                CB(ompt_callback_task_schedule)(nullptr, static_cast<ompt_task_status_t>(status), &next);
        });
        std::vector<std::string> expected = {rec("task_end")};
        if (c.second) expected.push_back(rec("task_begin", id(N), id(0), "@omp_explicit"));
        expected.push_back(rec("task_begin", id(N), id(0), "@omp_explicit"));
        EXPECT_EQ(s.events(), expected) << c.first.front();
        EXPECT_EQ(s.child.out, "initialize 1\n");
    }
}

// Which new tasks enter the trace at creation, and which implicit-task
// scopes: the initial task's records only its end; the initial task's
// creation gives the region around it a unique id, if there is a region.
TEST(ompt_translation, initial_and_plain_tasks_write_nothing_at_creation) {
    session s = run([&](zop_api& api) {
        start_tool(api);
        ompt_data_t initial{}, region{}, thread{}, plain{}, undeferred{}, implicit{};
        fake::region = &region;
        CB(ompt_callback_thread_begin)(ompt_thread_initial, &thread);
        CB(ompt_callback_task_create)(nullptr, nullptr, &initial, ompt_task_initial, 0, nullptr);
        fake::region_answer = 0;
        CB(ompt_callback_task_create)(nullptr, nullptr, &initial, ompt_task_initial, 0, nullptr);
        CB(ompt_callback_task_create)(&initial, nullptr, &plain, ompt_task_explicit, 0, nullptr);
        CB(ompt_callback_task_create)(&initial, nullptr, &undeferred, ompt_task_undeferred, 1, nullptr);
        CB(ompt_callback_implicit_task)(ompt_scope_begin, &region, &implicit, 1, 0, ompt_task_initial);
        printf("control %d\n", CB(ompt_callback_control_tool)(1, 2, nullptr, nullptr));
        CB(ompt_callback_implicit_task)(ompt_scope_end, nullptr, &implicit, 1, 0, ompt_task_initial);
        CB(ompt_callback_implicit_task)(ompt_scope_beginend, &region, &implicit, 1, 0, ompt_task_implicit);
        for (ompt_data_t* d : {&thread, &initial, &region, &plain, &undeferred, &implicit})
            printf("%llu ", static_cast<unsigned long long>(d->value - fake::first_id));
    });
    EXPECT_EQ(s.events(), std::vector<std::string>{rec("task_end")});
    // The region keeps the id of the first creation, made when it was reported.
    EXPECT_EQ(s.child.out, "initialize 1\ncontrol 0\n0 3 2 4 5 6 ");
}

}  // namespace
