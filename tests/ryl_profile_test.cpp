// ryl profile on detailed OpenMP runs of known shape written by hand: exact
// counts, work and span of a dependent chain beside an independent task, and
// source locations of code addresses through an objects file.
#include <gtest/gtest.h>
#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <set>
#include <nlohmann/json.hpp>

#include "child.h"
#include "trace_text.h"

namespace {

child_result ryl(std::vector<std::string> args) {
    args.insert(args.begin(), RYL_TOOL);
    return run_program(args, {});
}

std::string rec(const std::string& name, unsigned long long ts, const std::string& fields = "") {
    return "<record>\n" + field(name) + field(ts) + fields + "</record>\n";
}
std::string named(unsigned long long handle, const std::string& name) {
    return rec("string_handle_createA", 1, field(handle) + field(name.size()) + field(name));
}
std::string begin(unsigned long long ts, unsigned long long id, unsigned long long parent, unsigned long long name) {
    return rec("task_begin", ts, field(1) + id_field(id, 0, 0) + id_field(parent, 0, 0) + field(name) + field(0));
}
std::string end(unsigned long long ts) { return rec("task_end", ts, field(1)); }
std::string meta(unsigned long long ts, unsigned long long id, unsigned long long b, unsigned long long key,
                 unsigned type, unsigned long long value) {
    return rec("metadata", ts, field(1) + id_field(id, b, 0) + field(key) + field(type) + field(1) + field(value));
}
std::string relation(unsigned long long ts, const std::string& head, unsigned kind, const std::string& tail) {
    return rec("relation", ts, field(1) + head + field(kind) + tail);
}
std::string create(unsigned long long ts, unsigned long long task, unsigned long long creator, uint64_t site) {
    return relation(ts, id_field(task, 0, 0), 5, id_field(creator, 0, 0)) + meta(ts, task, 0, 17, 1, site);
}
std::string finish(unsigned long long ts) { return rec("end_of_records", ts) + "</trace>\n"; }

enum : unsigned { parallel = 10, implicit, explicit_task, barrier, taskwait, taskgroup, thread_num, code_address };

// A function whose address the objects file resolves: the return address
// recorded for a task construct is one past a call.
__attribute__((noinline)) uint64_t task_site() { return uint64_t(__builtin_return_address(0)); }
uint64_t known_site = task_site();
constexpr unsigned known_line = __LINE__ - 1;

// The domain and the first n of the adapter's names.
std::string openmp_names(unsigned n) {
    std::string names = rec("domain_createA", 1, field(1) + field(6) + field("openmp"));
    const char* texts[] = {"omp_parallel", "omp_implicit", "omp_explicit", "omp_barrier", "omp_taskwait",
                           "omp_taskgroup", "thread_num", "code_address"};
    for (unsigned i = 0; i < n; ++i) names += named(parallel + i, texts[i]);
    return names;
}

// Thread 0 runs the region: its implicit task creates A, B (B depends on A)
// and C, runs A then B and waits in the barrier; thread 1 runs C. Every task
// takes 1 ms: work 3 ms plus the implicit tasks' own 0.2 ms, span 2 ms.
void write_run(const std::string& dir, uint64_t site_ab, uint64_t site_c) {
    const unsigned long long us = 1000;
    const std::string t0 =
        header_lines(2) + openmp_names(8) + begin(0, 100, 0, parallel) + begin(0, 1, 100, implicit) +
        meta(0, 1, 0, thread_num, 3, 0) + create(10 * us, 200, 1, site_ab) + create(20 * us, 201, 1, site_ab) +
        relation(20 * us, id_field(200, 1, 0), 7, id_field(9, 9, 9)) +
        relation(20 * us, id_field(9, 9, 9), 7, id_field(201, 1, 0)) + create(30 * us, 202, 1, site_c) +
        begin(100 * us, 200, 1, explicit_task) + end(1100 * us) + begin(1100 * us, 201, 1, explicit_task) +
        end(2100 * us) + begin(2100 * us, 1, 100, barrier) + end(2200 * us) + end(2200 * us) +
        meta(2200 * us, 100, 1, code_address, 1, site_c) + end(2200 * us) + finish(2300 * us);
    const std::string t1 = header_lines(2) + begin(0, 2, 100, implicit) + meta(0, 2, 0, thread_num, 3, 1) +
                           begin(100 * us, 202, 1, explicit_task) + end(1100 * us) + end(1100 * us) +
                           begin(1100 * us, 2, 100, barrier) +
                           end(2200 * us) + finish(2300 * us);
    std::ofstream(dir + "/_ryl.0") << t0;
    std::ofstream(dir + "/_ryl.1") << t1;
}

// The values at JSON pointers; a pointer that names nothing reads as null.
void expect_values(const nlohmann::json& j, const std::vector<std::pair<std::string, nlohmann::json>>& expected) {
    for (const auto& e : expected) {
        const nlohmann::json::json_pointer at(e.first);
        EXPECT_EQ(j.contains(at) ? j.at(at) : nlohmann::json(), e.second) << e.first;
    }
}

// The run of write_run through ryl profile, summary and timeline, and ryl
// graph of it: a node per task kind and region site, edges named by what
// they are with their counts, the critical path in red; past 100 nodes the
// lightest kinds in one node "other".
TEST(ryl_profile, work_span_counts_and_graph_of_a_chain_beside_an_independent_task) {
    temp_dir dir;
    write_run(dir.path, 0x1001, 0x2001);
    const child_result r = ryl({"profile", dir.path, "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const nlohmann::json j = nlohmann::json::parse(r.out);
    EXPECT_NEAR(j["span_ns"].get<double>(), 2000000, 250000);
    EXPECT_NEAR(j["parallelism"].get<double>(), 1.6, 0.2);
    // The critical path by kind, the longest first: the chain A -> B. No
    // objects file: the kinds are numbers only.
    expect_values(j, {{"/tasks_created", 3}, {"/work_ns", 3200000}, {"/task_kinds/0/address", "0x1001"},
                      {"/task_kinds/0/count", 2}, {"/task_kinds/0/total_ns", 2000000},
                      {"/task_kinds/0/max_ns", 1000000}, {"/task_kinds/0/function", ""}, {"/task_kinds/1/count", 1},
                      {"/task_kinds/2", nullptr}, {"/regions/0/thread_work_ns", nlohmann::json::array({2100000, 1100000})},
                      {"/regions/0/imbalance_ns", 500000}, {"/regions/1", nullptr}, {"/threads/1/thread_num", 1},
                      {"/threads/1/busy_ns", 1000000}, {"/threads/1/own_ns", 100000},
                      {"/threads/1/waiting_ns", 1100000}, {"/threads/2", nullptr},
                      {"/critical_path/0/address", "0x1001"}, {"/critical_path/0/kind", "explicit task"},
                      {"/critical_path/0/tasks", 2}, {"/critical_path/0/ns", 2000000}});
    const nlohmann::json two = nlohmann::json::parse(ryl({"profile", dir.path, dir.path, "--json"}).out);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[1]["work_ns"], 3200000);
    const child_result human = ryl({"profile", dir.path});
    EXPECT_NE(human.out.find("no objects file"), std::string::npos) << human.out;
    // The summary counts tasks created, not their fragments.
    EXPECT_NE(ryl({"summary", dir.path}).out.find("3 explicit tasks (2 with dependences)"), std::string::npos);
    // The timeline names threads by their OpenMP thread number.
    EXPECT_NE(ryl({"timeline", dir.path}).out.find("\"OpenMP thread 1 (_ryl.1)\""), std::string::npos);

    const std::string dot_file = dir.path + "/graph.dot";
    ASSERT_EQ(ryl({"graph", dir.path, "-o", dot_file}).status, 0);
    std::string dot = read_file(dot_file);
    const std::string red = ", color=red, fontcolor=red, penwidth=2";
    for (const std::string& part :
         {"k0 [label=\"parallel region\\n0x2001\\n1 x, 2.200 ms\", shape=box3d, style=\"\"" + red + "];",
          "k1 [label=\"0x1001\\n2 tasks, 2.000 ms\"" + red + "];", std::string("k2 [label=\"0x2001\\n1 task, 1.000 ms\"];"),
          "k0 -> k1 [label=\"created 2\"" + red + "];", std::string("k0 -> k2 [label=\"created 1\"];"),
          std::string("k1 -> k1 [label=\"depends 1\", style=dashed];")})
        EXPECT_NE(dot.find(part), std::string::npos) << part << "\n" << dot;
    // 150 kinds of one task each, created by the implicit task.
    std::string many = header_lines(2) + openmp_names(3) + begin(0, 100, 0, parallel) + begin(0, 1, 100, implicit);
    for (unsigned long long t = 0; t < 150; ++t)
        many += create(10 + 100 * t, 200 + t, 1, 0x1000 + t) + begin(20 + 100 * t, 200 + t, 1, explicit_task) +
                end(30 + 100 * t + t);
    std::ofstream(dir.path + "/_ryl.0") << many + end(20000) + end(20000) + finish(20000);
    std::remove((dir.path + "/_ryl.1").c_str());
    const child_result g = ryl({"graph", dir.path, "-o", dot_file});
    ASSERT_EQ(g.status, 0) << g.err;
    EXPECT_EQ(g.err, "ryl: note: 52 task kinds and region sites beyond the 99 with the most time are drawn as one "
                     "node \"other\"\n");
    dot = read_file(dot_file);
    EXPECT_NE(dot.find("other [label=\"other: 52 lighter kinds\\n52 tasks and regions, "), std::string::npos) << dot;
    EXPECT_NE(dot.find("k98 [label=\"0x10"), std::string::npos);
    EXPECT_EQ(dot.find("k99 ["), std::string::npos);
}

// Sites in this PIE test program (with debug information), in the C library
// (a shared library placed by address-space randomisation, symbols only), in
// an object that is gone (object+offset) and outside every object (a number).
TEST(ryl_profile, resolves_sites_through_the_objects_file) {
    char exe[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    Dl_info self, libc;  // where this program and the C library are loaded (PIE: at their load bias)
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&task_site), &self), 0);
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&abort), &libc), 0);
    char objects[8192];
    std::snprintf(objects, sizeof objects,
                  "ryl-objects 1\npid 4242\nobject %p - %s\nobject %p - %s\nfiles 0 1\n"
                  "object 0x7f0000000000 ab12 /nonexistent/libgone.so\nend\n",
                  self.dli_fbase, exe, libc.dli_fbase, libc.dli_fname);
    struct {
        uint64_t site;
        const char* function;  // nullptr: none
        const char* file;      // a part of the file name ("": no file), nullptr: not checked
        unsigned line;
        const char* name;      // nullptr: not checked
    } cases[] = {
        {known_site, "", "ryl_profile_test.cpp", known_line, nullptr},
        {uint64_t(&abort) + 2, "abort", nullptr, 0, nullptr},
        {0x7f0000001235, nullptr, "", 0, "libgone.so+0x1234"},
        {0x10, nullptr, "", 0, "0x10"},
    };
    temp_dir dir;
    std::ofstream(dir.path + "/objects.4242") << objects;
    for (const auto& c : cases) {
        write_run(dir.path, c.site, 0x10);
        const child_result r = ryl({"profile", dir.path, "--json"});
        ASSERT_EQ(r.status, 0) << r.err;
        const nlohmann::json k = nlohmann::json::parse(r.out)["task_kinds"][0];
        if (!c.function) EXPECT_EQ(k["function"], "") << k;
        if (c.function && *c.function) EXPECT_EQ(k["function"], c.function) << k;
        if (c.function && !*c.function) EXPECT_FALSE(k["function"].get<std::string>().empty()) << k;
        if (c.file && !*c.file) EXPECT_EQ(k["file"], "") << k;
        if (c.file && *c.file) EXPECT_NE(k["file"].get<std::string>().find(c.file), std::string::npos) << k;
        if (c.line) EXPECT_EQ(k["line"], c.line) << k;
        if (c.name) EXPECT_EQ(k["name"], c.name) << k;
    }
}

#ifdef RYL_OMP_SHAPES
// The tasks of the site at `line` on the critical path.
int chain_tasks(const nlohmann::json& profile, int line) {
    int tasks = 0;
    for (const auto& k : profile["critical_path"]) tasks += k["line"] == line ? k["tasks"].get<int>() : 0;
    return tasks;
}

// Programs of known shape (clang, PIE, -g) traced through ryl run: exact task
// counts, creation sites named by the function that holds them (inlined,
// outlined, in a shared object loaded with dlopen, without debug
// information), a killed run, and the chain beside independent tasks: its
// span is the chain, its work all the tasks.
TEST(ryl_profile, programs_of_known_shape_under_ryl_run) {
    temp_dir scratch;
    const std::string bare = scratch.path + "/omp_shapes_without_debug_info";
    const std::string relative = RYL_OMP_SHAPES "_relative";  // compiled from a relative source path
    ASSERT_EQ(run_program({"objcopy", "--strip-debug", RYL_OMP_SHAPES, bare}, {}).status, 0);
    const struct {
        std::vector<std::string> program;
        int created;
        std::set<std::string> functions;  // of the task kinds
        size_t lines;            // task constructs (a construct inlined twice has two sites); 0: no lines
        int barriers = 0;        // barrier waits in ryl run's summary, when known (0: not checked)
    } cases[] = {
        // Chain tasks of ~20 ms beside independent ones of ~5 ms: the chain
        // stays the longest path unless one independent task is held off its
        // CPU for over 150 ms (a loaded machine: the case is run again).
        // Both threads wait at the single's end (one of them running the
        // tasks from there, in many intervals) and at the region's end.
        {{RYL_OMP_SHAPES, "chain", "100"}, 16, {"chain"}, 2, 4},
        // The chain in two threads of the program, side by side: the span
        // is one chain.
        {{RYL_OMP_SHAPES, "two_threads", "100"}, 32, {"chain"}, 2},
        {{RYL_OMP_SHAPES, "nested"}, 126, {"tree"}, 2, 4},
        {{RYL_OMP_SHAPES, "untied"}, 126, {"untied_tree"}, 2},
        {{RYL_OMP_SHAPES, "taskgroup"}, 16, {"taskgroup"}, 2},
        {{RYL_OMP_SHAPES, "nested_parallel"}, 4, {"nested_parallel"}, 1},
        {{RYL_OMP_SHAPES, "dlopen", RYL_TEST_PLUGIN, "tasks"}, 130, {"tree", "ryl_test_plugin_tasks"}, 3},
        {{RYL_OMP_SHAPES, "killed"}, 126, {"tree"}, 2},
        {{RYL_OMP_SHAPES, "fork_tasks"}, 3 * 126, {"tree"}, 2},  // the child's ids continue the parent's counts
        {{relative, "taskgroup"}, 16, {"taskgroup"}, 2},
        // Two processes one after the other, whose task ids are counted alike.
        {{"sh", "-c", RYL_OMP_SHAPES " taskgroup && " RYL_OMP_SHAPES " nested"}, 142, {"taskgroup", "tree"}, 4},
        {{bare, "nested"}, 126, {"tree", ".omp_outlined."}, 0},  // symbols only: the outlined body is its own
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program[0] + " " + c.program[1]);
        const bool chain = c.program[1] == "chain" || c.program[1] == "two_threads";
        const std::string dir = scratch.path + "/run";
        nlohmann::json j;
        for (int attempt = 1;; ++attempt) {
            run_program({"rm", "-rf", dir}, {});
            std::vector<std::string> args = {RYL_TOOL, "run", "-o", dir, "--"};
            args.insert(args.end(), c.program.begin(), c.program.end());
            const child_result run = run_program(args, {{"OMP_NUM_THREADS", "2"}});
            EXPECT_EQ(run.status, c.program[1] == "killed" ? 137 : 0) << run.err;
            EXPECT_NE(run.out.find(" " + std::to_string(c.created) + " explicit tasks"), std::string::npos) << run.out;
            if (c.barriers)
                EXPECT_NE(run.out.find(", " + std::to_string(c.barriers) + " barriers\n"), std::string::npos) << run.out;
            const child_result r = ryl({"profile", dir, "--json"});
            ASSERT_EQ(r.status, 0) << r.err;
            j = nlohmann::json::parse(r.out);
            // Which path is longest depends on the machine's load; everything
            // else must hold on the first run.
            int first_line = INT_MAX;
            for (const auto& k : j["task_kinds"]) first_line = std::min(first_line, k["line"].get<int>());
            if (!chain || attempt == 3 ||
                (j["critical_path"][0]["line"] == first_line && chain_tasks(j, first_line) == 8))
                break;
        }
        EXPECT_EQ(j["tasks_created"], c.created);
        std::set<int> lines;
        std::set<std::string> functions;
        int counted = 0;
        uint64_t task_time = 0;
        for (const auto& k : j["task_kinds"]) {
            counted += k["count"].get<int>();
            task_time += k["total_ns"].get<uint64_t>();
            const std::string function = k["function"];
            functions.insert(function.compare(0, 14, ".omp_outlined.") ? function : ".omp_outlined.");
            const char* source = function == "ryl_test_plugin_tasks" ? "plugin.c" : "omp_shapes.c";
            if (c.lines) EXPECT_NE(k["file"].get<std::string>().find(source), std::string::npos) << k;
            lines.insert(k["line"].get<int>());
        }
        EXPECT_EQ(functions, c.functions) << j["task_kinds"];
        EXPECT_EQ(lines.size(), c.lines ? c.lines : 1) << j["task_kinds"];
        EXPECT_EQ(counted, c.created);
        // The times on the critical path add up to the span.
        uint64_t on_path = 0;
        for (const auto& k : j["critical_path"]) on_path += k["ns"].get<uint64_t>();
        EXPECT_EQ(on_path, j["span_ns"].get<uint64_t>()) << j["critical_path"];
        if (chain) {
            // The chain's construct comes first in the source; its kind is
            // the one on the critical path, and the span is the chain.
            EXPECT_EQ(j["critical_path"][0]["line"], *lines.begin()) << j["critical_path"];
            const double chain_ns = j["critical_path"][0]["ns"];
            EXPECT_NEAR(j["work_ns"].get<double>(), double(task_time), 0.15 * double(task_time));
            EXPECT_NEAR(j["span_ns"].get<double>(), chain_ns, 0.25 * chain_ns);
            // One chain, whichever thread's: the second thread's region does
            // not wait for the first one's tasks that ended before it began.
            EXPECT_EQ(chain_tasks(j, *lines.begin()), 8) << j["critical_path"];
        }
    }
}
#endif

}  // namespace
