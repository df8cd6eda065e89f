// ryl run: its exit statuses and messages, and the example programs traced
// through it (the environment it gives is checked with the default modes). The library is
// preloaded into programs built without sanitizers, so these tests do not
// run in the sanitizer builds.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "child.h"

namespace {

child_result ryl(std::vector<std::string> args, const std::vector<std::pair<std::string, std::string>>& env = {}) {
    args.insert(args.begin(), RYL_TOOL);
    return run_program(args, env, {"LD_PRELOAD", "OMP_TOOL_LIBRARIES", "RYL_LIBRARY"});
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

TEST(ryl_run, exit_statuses) {
    temp_dir dir;
    struct {
        std::vector<std::string> args;
        std::vector<std::pair<std::string, std::string>> env;
        int status;
        std::string message;
    } cases[] = {
        {{"run", "-o", dir.path + "/a", "--", "sh", "-c", "exit 3"}, {}, 3, "ryl: sh exited with status 3"},
        {{"run", "-o", dir.path + "/b", "--", "sh", "-c", "kill -9 $$"}, {}, 137,
         "ryl: sh was killed by signal 9 (Killed)"},
        {{"run", "-o", dir.path + "/a", "--", "true"}, {}, 1,
         "ryl: " + dir.path + "/a: already holds trace files; name a new or empty directory"},
        {{"run", "-o", dir.path + "/c", "--", "/no/such/program"}, {}, 127,
         "ryl: cannot run /no/such/program: No such file or directory"},
        {{"run", "-o", dir.path + "/no/d", "--", "true"}, {}, 1, "ryl: " + dir.path + "/no/d: cannot create: "},
        {{"run", "--", "true"}, {{"RYL_LIBRARY", "/no/lib.so"}}, 1, "ryl: RYL_LIBRARY=/no/lib.so: No such file"},
        {{"run", "-o", dir.path + "/e", "true"}, {}, 0, ""},  // "--" may be left out
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back());
        const child_result r = ryl(c.args, c.env);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_TRUE(has(r.err, c.message)) << r.err;
    }
    // The killed shell's files are cut short, and the summary says so.
    const child_result killed = ryl({"summary", dir.path + "/b"});
    EXPECT_TRUE(has(killed.out, "0 records, cut short: no complete record; the file ends after its header"))
        << killed.out;
}

#ifdef RYL_THREADS_EXAMPLE
// Once, and twice one after the other from a shell: the second process
// keeps to files of its own, so the run holds twice the records.
TEST(ryl_run, threads_example) {
    temp_dir dir;
    const std::string twice = std::string(RYL_THREADS_EXAMPLE) + " && " + RYL_THREADS_EXAMPLE;
    long records[2] = {0, 0};
    for (const int runs : {1, 2}) {
        std::vector<std::string> args = {"run", "-o", dir.path + "/run" + std::to_string(runs), "--"};
        if (runs == 1) args.push_back(RYL_THREADS_EXAMPLE);
        else args.insert(args.end(), {"sh", "-c", twice});
        const child_result r = ryl(args);
        ASSERT_EQ(0, r.status) << r.err;
        const size_t at = r.out.find(" trace files, ");
        ASSERT_NE(std::string::npos, at) << r.out;
        records[runs - 1] = std::atol(r.out.c_str() + at + 14);
        size_t files = 0;
        for (size_t f = 0; (f = r.out.find("  tasks: 4 begun, 4 ended\n", f)) != std::string::npos; ++f) ++files;
        EXPECT_EQ(size_t(3 * runs), files) << r.out;
        if (runs == 2) continue;
        for (const char* line : {"domains (1): \"example\"\n", "string handles (4): \"note\", \"size\", \"step\", \"work\"\n",
                                 "relations: 3 of kind 5\n"})
            EXPECT_TRUE(has(r.out, line)) << line << r.out;
    }
    EXPECT_EQ(2 * records[0], records[1]);
}
#endif

#ifdef RYL_OMP_EXAMPLE
TEST(ryl_run, openmp_example_summary_timeline_and_graph) {
    temp_dir dir;
    const std::string run_dir = dir.path + "/run";
    const child_result r = ryl({"run", "-o", run_dir, "--", RYL_OMP_EXAMPLE}, {{"OMP_NUM_THREADS", "2,2"}});
    ASSERT_EQ(0, r.status) << r.err << r.out;
    EXPECT_TRUE(has(r.out, "OpenMP: 3 regions, 6 implicit tasks, ")) << r.out;
    EXPECT_TRUE(has(r.out, " (4 with dependences), 7 dependences (3 in, 4 out) on 3 variables, ")) << r.out;

    ASSERT_EQ(0, ryl({"timeline", run_dir, "-o", dir.path + "/trace.json"}).status);
    std::map<int, int> depth;  // per thread: every E closes a B
    const nlohmann::json trace = nlohmann::json::parse(read_file(dir.path + "/trace.json"));
    for (const auto& e : trace.at("traceEvents")) {
        const std::string ph = e.at("ph");
        if (ph == "B" || ph == "E") EXPECT_GE(depth[e.at("tid").get<int>()] += ph == "B" ? 1 : -1, 0);
    }
    for (const auto& d : depth) EXPECT_EQ(0, d.second) << "thread " << d.first;
    // Slices named by their source, dependences as arrows: each arrow starts
    // once and ends once, on a task named by its construct.
    std::map<std::string, int> names, arrows;
    for (const auto& e : trace.at("traceEvents")) {
        const std::string ph = e.at("ph");
        if (ph == "B") names[e.at("name")]++;
        if (ph == "B" && e.at("name") == "make_tasks")
            EXPECT_EQ(0u, e.at("args").at("source").get<std::string>().find("omp_tasks.c:")) << e;
        if (ph == "s" || ph == "f") arrows[ph + std::to_string(e.at("id").get<int>())]++;
    }
    EXPECT_EQ(5, names["make_tasks"]);
    EXPECT_EQ(9, names["main"]);
    EXPECT_LE(6u, arrows.size());
    for (const auto& a : arrows) EXPECT_EQ(1, a.second) << a.first;
    for (const auto& a : arrows) EXPECT_EQ(1u, arrows.count((a.first[0] == 's' ? "f" : "s") + a.first.substr(1))) << a.first;

    // By task kind: five task constructs, two region sites, the tasks
    // created by the regions' implicit tasks, their dependences between kinds.
    ASSERT_EQ(0, ryl({"graph", run_dir, "-o", dir.path + "/graph.dot"}).status);
    const std::string dot = read_file(dir.path + "/graph.dot");
    EXPECT_EQ(5u, count(dot, "make_tasks (omp_tasks.c:")) << dot;
    EXPECT_EQ(2u, count(dot, "parallel region\\nmain (omp_tasks.c:")) << dot;
    EXPECT_EQ(5u, count(dot, "[label=\"created 1\"")) << dot;
    EXPECT_LE(3u, count(dot, "[label=\"depends 1\", style=dashed")) << dot;

    // Twice from a shell: two processes whose task ids are alike, counted apart.
    const std::string twice = std::string(RYL_OMP_EXAMPLE) + " && " + RYL_OMP_EXAMPLE;
    const child_result r2 = ryl({"run", "-o", dir.path + "/run2", "--", "sh", "-c", twice}, {{"OMP_NUM_THREADS", "2,2"}});
    ASSERT_EQ(0, r2.status) << r2.err << r2.out;
    EXPECT_TRUE(has(r2.out, " (8 with dependences), 14 dependences (6 in, 8 out) on 6 variables, ")) << r2.out;
    ASSERT_EQ(0, ryl({"timeline", dir.path + "/run2", "-o", dir.path + "/trace2.json"}).status);
    std::set<int> pids;  // of the slices: one per process
    const nlohmann::json trace2 = nlohmann::json::parse(read_file(dir.path + "/trace2.json"));
    for (const auto& e : trace2.at("traceEvents"))
        if (e.at("ph").get<std::string>() == "B") pids.insert(e.at("pid").get<int>());
    EXPECT_EQ(2u, pids.size());
    if (run_program({"sh", "-c", "command -v dot"}, {}).status != 0) GTEST_SKIP() << "Graphviz dot is not installed";
    ASSERT_EQ(0, ryl({"graph", run_dir, "--relations", "-o", dir.path + "/graph.dot", "--svg"}).status);
    EXPECT_TRUE(has(read_file(dir.path + "/graph.svg"), "composite_node"));
}
#endif

}  // namespace
