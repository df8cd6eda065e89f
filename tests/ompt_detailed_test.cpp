// The detailed OpenMP translation (VUN_OPENMP=detailed) on real programs of
// known shape under LLVM's runtime 14: per-thread intervals well nested, every
// explicit task recorded at creation under its creator, waits as intervals of
// their own, and the objects file beside the traces.
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

struct shape_case {
    const char* shape;
    int created;             // explicit tasks the program creates
    const char* wait;        // a wait that must show ("" for none)
    int status = 0;          // exit status (137: killed)
};

void PrintTo(const shape_case& c, std::ostream* os) { *os << c.shape; }

// Hex text to the bytes it spells.
std::string unhex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes += char(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

class ompt_detailed : public testing::TestWithParam<shape_case> {};

TEST_P(ompt_detailed, intervals_tasks_and_objects) {
    const shape_case& c = GetParam();
    temp_dir dir;
    child_result run = run_program(
        {RYL_OMP_SHAPES, c.shape, RYL_TEST_PLUGIN},
        {{"OMP_NUM_THREADS", "2"}, {"OMP_TOOL_LIBRARIES", library_path()}, {"VUN_DIR", dir.path},
         {"VUN_OPENMP", "detailed"}},
        {"OMP_TOOL", "LD_PRELOAD", "OMP_MAX_ACTIVE_LEVELS", "OMP_NESTED", "VUN_MODE"});
    ASSERT_EQ(run.status, c.status) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    const bool killed = c.status != 0;
    if (!killed) EXPECT_NE(run.out.find("created " + std::to_string(c.created) + "\n"), std::string::npos) << run.out;

    const std::vector<rendered_trace> traces = read_rendered(dir.path);
    std::map<std::string, std::string> creator;      // explicit task id -> creator id (relation 5)
    std::map<std::string, std::set<std::string>> parents;  // task id -> parents of its intervals
    std::map<std::string, std::set<std::string>> numbers;  // region id -> thread numbers
    std::map<std::string, std::string> implicit_region;     // implicit task id -> region id
    std::map<std::string, int> begun;                // interval name -> count
    std::vector<std::pair<std::string, std::string>> explicit_begins;  // id, parent
    for (const rendered_trace& t : traces) {
        EXPECT_EQ(t.complete, !killed) << t.error;
        std::vector<std::string> open;  // names of the open intervals, innermost last
        for (const std::string& line : t.lines) {
            const std::vector<std::string> w = words(line);
            if (w.size() < 2 || w[1] != "@openmp") continue;
            if (w[0] == "relation" && w[3] == "5") creator[w[2]] = w[4];
            if (w[0] == "metadata" && w[3] == "@thread_num")
                numbers[implicit_region[w[2]]].insert(w.back());
            if (w[0] == "task_end") {
                ASSERT_FALSE(open.empty()) << "a task_end closes nothing";
                open.pop_back();
            }
            if (w[0] != "task_begin") continue;
            const std::string& name = w[4];
            const std::string below = open.empty() ? "" : open.back();
            ++begun[name];
            parents[w[2]].insert(w[3]);
            // A fragment or a wait sits right on an implicit task (or on
            // nothing: a worker's barrier after its implicit task ended).
            if (name == "@omp_explicit" || name == "@omp_barrier" || name == "@omp_taskwait" ||
                name == "@omp_taskgroup")
                EXPECT_TRUE(below == "" || below == "@omp_implicit") << name << " on " << below;
            if (name == "@omp_implicit") {
                EXPECT_TRUE(below == "" || below == "@omp_parallel") << "implicit task on " << below;
                implicit_region[w[2]] = w[3];
            }
            if (name == "@omp_explicit") explicit_begins.emplace_back(w[2], w[3]);
            open.push_back(name);
        }
        // At a normal end nothing is open but a worker's last barrier, whose
        // end the runtime reports only when it shuts its threads down.
        if (!killed)
            EXPECT_TRUE(open.empty() || (open.size() == 1 && open[0] == "@omp_barrier"))
                << open.size() << " open, innermost " << open.back();
    }

    if (!killed) EXPECT_EQ(int(creator.size()), c.created);
    for (const auto& b : explicit_begins) EXPECT_EQ(creator[b.first], b.second) << b.first;
    // A task's intervals, waits included, all name one parent.
    for (const auto& p : parents) EXPECT_EQ(p.second.size(), 1u) << p.first;
    if (*c.wait) EXPECT_GT(begun[c.wait], 0) << c.wait;
    for (const auto& region : numbers) {
        std::set<std::string> expected;
        for (size_t i = 0; i < region.second.size(); ++i) expected.insert(std::to_string(i));
        EXPECT_EQ(region.second, expected) << "thread numbers of region " << region.first;
    }

    // The objects file: the program first, at its load address, with the
    // build id of its own note; at a normal end the trace files of the run,
    // a dlopen'ed object and "end" (once: a forked child adds nothing).
    std::string objects;  // the objects file of the run, if any
    for (const std::string& name : list_dir(dir.path))
        if (name.compare(0, 8, "objects.") == 0) objects += read_file(dir.path + "/" + name);
    std::istringstream in(objects);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "ryl-objects 1");
    const std::vector<std::string> program = words(lines[2]);
    ASSERT_EQ(program.size(), 4u) << lines[2];
    EXPECT_EQ(program[0], "object");
    EXPECT_EQ(program[3], RYL_OMP_SHAPES);
    EXPECT_EQ(program[2].size(), 40u);
    EXPECT_NE(read_file(RYL_OMP_SHAPES).find(unhex(program[2])), std::string::npos) << program[2];
    const size_t at = run.out.find("main 0x");
    if (!killed && at != std::string::npos) {
        std::uint64_t main_address = std::strtoull(run.out.c_str() + at + 5, nullptr, 16);
        std::uint64_t load = std::strtoull(program[1].c_str(), nullptr, 16);
        EXPECT_LT(main_address - load, read_file(RYL_OMP_SHAPES).size()) << program[1];
    }
    std::string files = "files";
    for (size_t i = 0; i < traces.size(); ++i) files += " " + std::to_string(i);
    size_t files_line = 0, plugin_line = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].compare(0, 6, "files ") == 0) EXPECT_EQ(lines[files_line = i], files);
        if (lines[i] == "end") EXPECT_EQ(i + 1, lines.size()) << "a second end (a forked child's?)";
        if (lines[i].find(RYL_TEST_PLUGIN) != std::string::npos) plugin_line = i;
    }
    EXPECT_EQ(lines.back() == "end", !killed);
    EXPECT_EQ(files_line != 0, !killed);
    EXPECT_EQ(plugin_line > files_line, std::string(c.shape) == "dlopen");
}

INSTANTIATE_TEST_SUITE_P(
    shapes, ompt_detailed,
    testing::Values(shape_case{"chain", 16, "@omp_barrier"}, shape_case{"nested", 126, "@omp_taskwait"},
                    shape_case{"untied", 126, "@omp_taskwait"},
                    shape_case{"taskgroup", 16, "@omp_taskgroup"},
                    shape_case{"nested_parallel", 4, "@omp_barrier"}, shape_case{"detach", 8, ""},
                    shape_case{"dlopen", 126, ""}, shape_case{"fork", 126, ""},
                    shape_case{"killed", 126, "", 128 + 9}),
    [](const testing::TestParamInfo<shape_case>& info) { return std::string(info.param.shape); });

}  // namespace
