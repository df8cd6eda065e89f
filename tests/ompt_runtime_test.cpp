// The OpenMP example run under LLVM's OpenMP runtimes with the library as its
// tool: the trace files must agree with what the program reports it did. An
// unknown VUN_OPENMP value is named in a warning, and the translation is the
// plain one, without an objects file.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"
#include "ompt_support.h"

namespace {

// The first word of an id "{a,k,0}" when its second word is k, else "".
std::string value_of(const std::string& id, int k) {
    const size_t comma = id.find(',');
    const bool match = id[0] == '{' && comma != std::string::npos &&
                       id.substr(comma) == "," + std::to_string(k) + ",0}";
    return match ? id.substr(1, comma - 1) : "";
}

struct runtime_case {
    const char* name;
    int runtime;          // 14 or 16
    bool preload;         // LD_PRELOAD instead of OMP_TOOL_LIBRARIES
    const char* threads;  // OMP_NUM_THREADS
    bool all_barriers;    // VUN_BARRIERS=all
    const char* openmp = nullptr;  // VUN_OPENMP, if set
};

void PrintTo(const runtime_case& c, std::ostream* os) { *os << c.name; }

class ompt_runtime : public testing::TestWithParam<runtime_case> {};

TEST_P(ompt_runtime, trace_agrees_with_the_program) {
    const runtime_case& c = GetParam();
    std::vector<std::pair<std::string, std::string>> env = {{"OMP_NUM_THREADS", c.threads}};
    if (c.runtime == 16) {
        const char* dir = std::getenv("RYL_LIBOMP16_DIR");
        std::string lib_dir = std::string(dir && *dir ? dir : RYL_LIBOMP16_DIR) + "/usr/lib/llvm-16/lib";
        if (!file_exists(lib_dir + "/libomp.so.5"))
            GTEST_SKIP() << "OpenMP runtime 16 not found in " << lib_dir
                         << "; unpack it with tests/fetch_libomp16.sh " << RYL_LIBOMP16_DIR;
        env.emplace_back("LD_LIBRARY_PATH", lib_dir);
    }
    env.emplace_back(c.preload ? "LD_PRELOAD" : "OMP_TOOL_LIBRARIES", library_path());
    if (c.all_barriers) env.emplace_back("VUN_BARRIERS", "all");
    if (c.openmp) env.emplace_back("VUN_OPENMP", c.openmp);
    temp_dir dir;
    env.emplace_back("VUN_DIR", dir.path);
    child_result run = run_program({RYL_OMP_EXAMPLE}, env,
                                   {"OMP_TOOL", "VUN_BARRIERS", "VUN_OPENMP", "LD_LIBRARY_PATH", "LD_PRELOAD",
                                    "OMP_TOOL_LIBRARIES", "OMP_MAX_ACTIVE_LEVELS", "OMP_NESTED"});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, c.openmp ? "WARNING unknown VUN_OPENMP '" + std::string(c.openmp) +
                                      "': using the plain OpenMP translation\n"
                                : "");
    EXPECT_EQ(run.out.find("Could not register"), std::string::npos) << run.out;

    // What the program reports: its runtime, the address of its code, each
    // region's team size, and each explicit task's dependences as "in:V" or
    // "out:V" (V decimal; inout counts as out).
    std::string runtime;
    std::uint64_t code = 0;
    std::multiset<int> team_sizes;
    std::multiset<std::multiset<std::string>> declared;
    int tasks = 0;
    std::istringstream report(run.out);
    for (std::string line, word; std::getline(report, line);) {
        std::istringstream in(line);
        in >> word;
        if (word == "runtime") in >> runtime;
        if (word == "code") in >> std::hex >> code;
        if (word == "region") team_sizes.insert(std::stoi(line.substr(7)));
        if (word != "task") continue;
        ++tasks;
        std::multiset<std::string> deps;
        for (size_t colon; in >> word && (colon = word.find(':')) != std::string::npos;)
            deps.insert((word.substr(0, colon) == "in" ? "in:" : "out:") +
                        std::to_string(std::stoull(word.substr(colon + 1), nullptr, 16)));
        if (!deps.empty()) declared.insert(deps);
    }
    EXPECT_EQ(runtime.find("llvm-16") != std::string::npos, c.runtime == 16) << runtime;
    ASSERT_EQ(tasks, 5) << run.out;
    // The outer region and one nested region per thread of its team.
    ASSERT_EQ(team_sizes.size(), 1u + (c.threads[0] - '0')) << run.out;

    std::vector<std::string> regions;                        // R of each composite node
    std::map<std::string, int> members;                      // R -> implicit tasks under it
    std::map<std::string, std::multiset<std::string>> deps;  // T -> "in:V" / "out:V"
    std::set<std::string> task_nodes;                        // T of each task node
    std::vector<std::uint64_t> task_code;                    // code addresses of those tasks
    int explicit_begun = 0, barriers = 0, region_code = 0;
    for (const rendered_trace& t : read_rendered(dir.path)) {
        EXPECT_TRUE(t.complete) << t.error;
        for (size_t i = 0; i < t.lines.size(); ++i) {
            const std::vector<std::string> w = words(t.lines[i]);
            if (w.size() < 2 || w[1] != "@openmp") continue;
            EXPECT_NE(w.back(), "@omp_taskwait") << "a wait of the detailed translation";
            if (w[0] == "task_group" && w.back() == "@composite_node") regions.push_back(value_of(w[2], 1));
            if (w[0] == "task_group" && w.back() == "@node" && !value_of(w[2], 1).empty())
                task_nodes.insert(value_of(w[2], 1));
            if (w[0] == "task_begin" && w.back() == "@omp_implicit") ++members[value_of(w[3], 0)];
            if (w[0] == "task_begin" && w.back() == "@omp_barrier") ++barriers;
            if (w[0] == "task_begin" && w.back() == "@omp_explicit") {
                ++explicit_begun;
                // A task body without OpenMP constructs: it ends right away.
                EXPECT_TRUE(i + 1 < t.lines.size() && t.lines[i + 1] == "task_end @openmp") << t.lines[i];
            }
            if (w[0] == "relation" && w[3] == "7") {
                if (!value_of(w[2], 1).empty()) deps[value_of(w[2], 1)].insert("out:" + value_of(w[4], 0));
                else deps[value_of(w[4], 1)].insert("in:" + value_of(w[2], 0));
            }
            if (w[0] == "metadata" && w[3] == "@code_address") {
                if (!value_of(w[2], 1).empty()) ++region_code;
                else task_code.push_back(std::strtoull(w[6].c_str(), nullptr, 10));
            }
        }
    }

    // One composite node, one code address and one implicit task per team
    // member for every region that ran.
    std::multiset<int> sizes;
    for (const std::string& r : regions) sizes.insert(members[r]);
    EXPECT_EQ(sizes, team_sizes);
    EXPECT_EQ(std::set<std::string>(regions.begin(), regions.end()).size(), regions.size());
    EXPECT_EQ(region_code, int(regions.size()));

    // Every declared dependence, in its direction, on the node of its task.
    std::multiset<std::multiset<std::string>> recorded;
    for (const auto& task : deps) {
        recorded.insert(task.second);
        EXPECT_EQ(task_nodes.count(task.first), 1u) << "no node for task " << task.first;
    }
    EXPECT_EQ(recorded, declared);

    // Each task with dependences carries its creator's code address, in full.
    EXPECT_EQ(task_code.size(), declared.size());
    for (std::uint64_t tc : task_code)
        EXPECT_LT(tc > code ? tc - code : code - tc, 1u << 20) << std::hex << tc << " vs " << code;

    EXPECT_EQ(explicit_begun, tasks);
    EXPECT_EQ(barriers > 0, c.all_barriers) << barriers << " barriers";
    for (const std::string& name : list_dir(dir.path)) EXPECT_NE(name.compare(0, 8, "objects."), 0) << name;
}

INSTANTIATE_TEST_SUITE_P(
    examples, ompt_runtime,
    testing::Values(runtime_case{"runtime14_tool_libraries", 14, false, "2,2", false},
                    runtime_case{"runtime14_preload_unknown_translation", 14, true, "3,2", false, "Detailed"},
                    runtime_case{"runtime14_all_barriers", 14, false, "2,3", true},
                    runtime_case{"runtime16_tool_libraries", 16, false, "2,2", false},
                    runtime_case{"runtime16_preload_all_barriers", 16, true, "3,2", true}),
    [](const testing::TestParamInfo<runtime_case>& info) { return std::string(info.param.name); });

}  // namespace
