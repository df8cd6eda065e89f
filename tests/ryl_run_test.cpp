// ryl run: its exit statuses and messages, the settings it gives a program,
// and the example programs traced through it, read back by every reader: the
// summary, the JSON timeline, the Perfetto timeline (through the code
// generated from the same schema), the graph and ryl export --otf2 (through
// OTF2's own otf2-print). The library is preloaded into programs built
// without sanitizers, so these tests do not run in the sanitizer builds.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <nlohmann/json.hpp>

#include "child.h"
#include "perfetto_trace.pb.h"

namespace {

using env_list = std::vector<std::pair<std::string, std::string>>;

child_result ryl(std::vector<std::string> args, const env_list& env = {}) {
    args.insert(args.begin(), RYL_TOOL);
    return run_program(args, env, {"LD_PRELOAD", "OMP_TOOL_LIBRARIES", "RYL_LIBRARY", "VUN_MODE", "VUN_OPENMP"});
}

// ryl run -o DIR FLAGS -- PROGRAM...
std::vector<std::string> run_args(const std::string& dir, std::vector<std::string> program,
                                  const std::vector<std::string>& flags = {}) {
    std::vector<std::string> args = {"run", "-o", dir};
    args.insert(args.end(), flags.begin(), flags.end());
    args.push_back("--");
    args.insert(args.end(), program.begin(), program.end());
    return args;
}

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

bool installed(const char* program) {
    return run_program({"sh", "-c", std::string("command -v ") + program}, {}).status == 0;
}

int trace_files(const std::string& dir) {
    int files = 0;
    for (const std::string& f : list_dir(dir)) files += f.rfind("_ryl.", 0) == 0;
    return files;
}

// Slices of a Perfetto timeline by interned name; ordering and nesting per track.
struct perfetto_summary {
    std::map<std::string, int> begins;
    int ends = 0, threads = 0, processes = 0, flows = 0;
    bool ordered = true, nested = true;
};

perfetto_summary read_perfetto(const std::string& path) {
    ryl::perfetto::Trace trace;
    EXPECT_TRUE(trace.ParseFromString(read_file(path)));
    perfetto_summary s;
    std::map<uint64_t, std::string> names;
    std::map<uint64_t, uint64_t> last;
    std::map<uint64_t, int> depth;
    for (const auto& p : trace.packet()) {
        for (const auto& n : p.interned_data().event_names()) names[n.iid()] = n.name();
        s.threads += p.track_descriptor().has_thread();
        s.processes += p.track_descriptor().has_process();
        if (!p.has_track_event()) continue;
        const auto& e = p.track_event();
        s.flows += e.terminating_flow_ids_size();
        const bool begin = e.type() == ryl::perfetto::TrackEvent::TYPE_SLICE_BEGIN;
        begin ? void(s.begins[names.at(e.name_iid())]++) : void(s.ends++);
        s.ordered = s.ordered && p.timestamp() >= last[e.track_uuid()];
        last[e.track_uuid()] = p.timestamp();
        s.nested = s.nested && (depth[e.track_uuid()] += begin ? 1 : -1) >= 0;
    }
    return s;
}

struct otf2_summary {
    std::map<std::string, int> enters, leaves;  // by region name
    bool ordered = true;                        // timestamps never go back on a location
    int depth_errors = 0;                       // leaves without an enter on their location
    std::set<std::string> ids;                  // "id" attributes of the enters
    std::vector<std::string> depends_on;        // the ids each "depends_on" attribute names
};

// Reads otf2-print's event listing of an archive.
otf2_summary read_archive(const std::string& archive) {
    const child_result r = run_program({"otf2-print", archive}, {});
    EXPECT_EQ(0, r.status) << r.err;
    static const std::regex event("^(ENTER|LEAVE) +(\\d+) +(\\d+) +Region: \"([^\"]*)\""),
        id("\\(\"id\" <0>; UINT64; (\\d+)\\)"), depends_on("\\(\"depends_on\" <2>; STRING; \"([^\"]*)\"");
    otf2_summary s;
    std::map<std::string, unsigned long long> last;  // by location
    std::map<std::string, int> depth;
    std::istringstream in(r.out);
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (std::regex_search(line, m, id)) s.ids.insert(m[1]);
        if (std::regex_search(line, m, depends_on)) {
            std::istringstream list(m[1]);
            for (std::string each; list >> each;) s.depends_on.push_back(each);
        }
        if (!std::regex_search(line, m, event)) continue;
        const bool enter = m[1] == "ENTER";
        const unsigned long long ts = std::stoull(m[3]);
        (enter ? s.enters : s.leaves)[m[4]]++;
        s.ordered = s.ordered && ts >= last[m[2]];
        last[m[2]] = ts;
        s.depth_errors += (depth[m[2]] += enter ? 1 : -1) < 0;
    }
    return s;
}

TEST(ryl_run, exit_statuses) {
    temp_dir dir;
    struct {
        std::vector<std::string> args;
        env_list env;
        int status;
        std::string message;
    } cases[] = {
        {{"run", "-o", dir.path + "/a", "--", "sh", "-c", "exit 3"}, {}, 3, "ryl: sh exited with status 3"},
        {{"run", "-o", dir.path + "/a", "--", "true"}, {}, 1,
         "ryl: " + dir.path + "/a: already holds trace files; name a new or empty directory"},
        {{"run", "-o", dir.path + "/c", "--", "/no/such/program"}, {}, 127,
         "ryl: cannot run /no/such/program: No such file or directory"},
        {{"run", "-o", dir.path + "/no/d", "--", "true"}, {}, 1, "ryl: " + dir.path + "/no/d: cannot create: "},
        {{"run", "--", "true"}, {{"RYL_LIBRARY", "/no/lib.so"}}, 1, "ryl: RYL_LIBRARY=/no/lib.so: No such file"},
        {{"run", "-o", dir.path + "/e", "true"}, {}, 0, ""},  // "--" may be left out
        {{"export", "--otf2", "DIR"}, {}, 2, "ryl: usage: ryl export --otf2 DIR... OUT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back());
        const child_result r = ryl(c.args, c.env);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(c.message)) << r.err;
    }
}

// The settings a program gets, and whether a killed program's files end in the
// zero bytes of mapped mode: flag over the user's environment over the default.
// The killed program's files, cut short after their headers, still give an
// archive and a timeline, without events.
TEST(ryl_run, default_modes) {
    struct {
        std::vector<std::string> flags;
        env_list env;
        const char* mode;
        const char* openmp;
    } rows[] = {{{}, {}, "mapped", "detailed"},
                {{"--stream", "--plain"}, {}, "stream", "plain"},
                {{}, {{"VUN_MODE", "stream"}, {"VUN_OPENMP", "plain"}}, "stream", "plain"},
                {{"--stream"}, {{"VUN_MODE", "mapped"}}, "stream", "detailed"}};
    for (const auto& r : rows) {
        temp_dir dir;
        const std::string run = dir.path + "/env", killed = dir.path + "/killed";
        const child_result k = ryl(run_args(killed, {"sh", "-c", "kill -9 $$"}, r.flags), r.env);
        EXPECT_EQ(137, k.status);
        EXPECT_EQ("ryl: tracing sh into " + killed + "\nryl: sh was killed by signal 9 (Killed)\n", k.err);
        EXPECT_LT(0u, count(k.out, "0 records, cut short: no complete record; the file ends after its header")) << k.out;
        const child_result check = ryl({"check", killed});
        EXPECT_EQ(std::string(r.mode) == "mapped", count(check.out, "zero bytes") > 0) << check.out;
        ASSERT_EQ(0, ryl({"export", "--otf2", killed, dir.path + "/otf2"}).status);
        if (installed("otf2-print")) EXPECT_TRUE(read_archive(dir.path + "/otf2/traces.otf2").enters.empty());
        ASSERT_EQ(0, ryl({"timeline", killed, "--perfetto", "-o", dir.path + "/t.pftrace"}).status);
        const perfetto_summary p = read_perfetto(dir.path + "/t.pftrace");
        EXPECT_TRUE(p.begins.empty() && p.ends == 0 && p.processes == 1) << p.ends << " " << p.processes;
        EXPECT_EQ(trace_files(killed), p.threads);
        // env reports nothing: the pre-opened files, each finished, then the summary.
        const child_result c = ryl(run_args(run, {"env"}, r.flags), r.env);
        const std::string lib = library_path();
        EXPECT_EQ("ryl: tracing env into " + run + "\n", c.err);
        for (const std::string& line : {std::string("\nVUN_MODE=") + r.mode + "\n",
                                        std::string("\nVUN_OPENMP=") + r.openmp + "\n", "\nVUN_DIR=" + run + "\n",
                                        "\nLD_PRELOAD=" + lib + "\n", "\nOMP_TOOL_LIBRARIES=" + lib + "\n",
                                        "run directory " + run + ": "})
            EXPECT_EQ(1u, count(c.out, line)) << line << c.out;
        EXPECT_EQ(0, ryl({"check", run}).status);
    }
}

// The examples once, and twice one after the other from a shell: the second
// process keeps to files of its own, and the OpenMP example's processes,
// whose task ids are alike, are counted apart. Every reader shows the same
// slices, nested and in order on each thread, and the same dependences.
TEST(ryl_run, examples_through_every_reader) {
    struct row {
        std::vector<std::string> program;
        std::map<std::string, size_t> summary;  // parts of ryl run's summary, how often
        std::map<std::string, int> slices;      // exact counts by name, where known
        int processes;                          // writing processes told apart
        int dependences;                        // at least this many recorded, and none if 0
        std::map<std::string, size_t> graph;    // parts of the DOT text, how often
        std::vector<std::string> definitions;   // parts of the archive's definitions
    };
    std::vector<row> rows;
#ifdef RYL_THREADS_EXAMPLE
    const std::string threads = RYL_THREADS_EXAMPLE;
    const std::string tasks = "  tasks: 4 begun, 4 ended\n";
    rows.push_back({{threads},
                    {{tasks, 3}, {"domains (1): \"example\"\n", 1}, {"relations: 3 of kind 5\n", 1},
                     {"string handles (4): \"note\", \"size\", \"step\", \"work\"\n", 1}},
                    {{"work", 3}, {"step", 9}}, 1, 0, {}, {}});
    rows.push_back({{"sh", "-c", threads + " && " + threads}, {{tasks, 6}, {"relations: 6 of kind 5\n", 1}},
                    {{"work", 6}, {"step", 18}}, 1, 0, {}, {}});
#endif
#ifdef RYL_OMP_EXAMPLE
    // Regions by source: 3 parallel regions and 6 implicit tasks in main, 5
    // tasks in make_tasks; by task kind, five task constructs and two region
    // sites, the tasks created by the regions' implicit tasks.
    const std::string omp = RYL_OMP_EXAMPLE;
    const std::vector<std::string> definitions = {
        "Name: \"make_tasks\" <", "(Aka. \"omp_explicit\" <",
        "Role: TASK, Paradigm: OPENMP, Flags: NONE, File: \"omp_tasks.c\"", "Role: PARALLEL, Paradigm: OPENMP"};
    rows.push_back({{omp},
                    {{"OpenMP: 3 regions, 6 implicit tasks, ", 1},
                     {" (4 with dependences), 7 dependences (3 in, 4 out) on 3 variables, ", 1}},
                    {{"main", 9}, {"make_tasks", 5}}, 1, 3,
                    {{"make_tasks (omp_tasks.c:", 5}, {"parallel region\\nmain (omp_tasks.c:", 2},
                     {"[label=\"created 1\"", 5}}, definitions});
    rows.push_back({{"sh", "-c", omp + " && " + omp},
                    {{" (8 with dependences), 14 dependences (6 in, 8 out) on 6 variables, ", 1}},
                    {{"main", 18}, {"make_tasks", 10}}, 2, 6,
                    {{"make_tasks (omp_tasks.c:", 10}, {"parallel region\\nmain (omp_tasks.c:", 4},
                     {"[label=\"created 1\"", 10}}, definitions});
#endif
    const bool otf2 = installed("otf2-print"), graphviz = installed("dot");
    long records_once = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.program.back());
        temp_dir dir;
        const std::string run = dir.path + "/run";
        const child_result c = ryl(run_args(run, r.program), {{"OMP_NUM_THREADS", "2,2"}});
        ASSERT_EQ(0, c.status) << c.err << c.out;
        for (const auto& part : r.summary) EXPECT_EQ(part.second, count(c.out, part.first)) << part.first << c.out;
        const size_t at = c.out.find(" trace files, ");
        ASSERT_NE(std::string::npos, at) << c.out;
        const long records = std::atol(c.out.c_str() + at + 14);
        if (r.program.size() == 1) records_once = records;
        else if (r.dependences == 0) EXPECT_EQ(2 * records_once, records);  // the threads example twice

        ASSERT_EQ(0, ryl({"timeline", run, "-o", dir.path + "/t.json"}).status);
        std::map<std::pair<int, int>, int> depth;  // per thread: every E closes a B
        std::map<std::string, int> begins, arrows;
        std::set<int> pids;  // of the slices: one per process
        const nlohmann::json trace = nlohmann::json::parse(read_file(dir.path + "/t.json"));
        for (const auto& e : trace.at("traceEvents")) {
            const std::string ph = e.at("ph");
            const std::pair<int, int> thread = {e.at("pid"), e.at("tid")};
            if (ph == "B" || ph == "E") EXPECT_GE(depth[thread] += ph == "B" ? 1 : -1, 0);
            if (ph == "B") pids.insert(e.at("pid").get<int>());
            if (ph == "B") ++begins[e.at("name")];
            // Slices named by their source.
            if (ph == "B" && e.at("name") == "make_tasks")
                EXPECT_EQ(0u, e.at("args").at("source").get<std::string>().find("omp_tasks.c:")) << e;
            if (ph == "s" || ph == "f") arrows[ph + std::to_string(e.at("id").get<int>())]++;
        }
        for (const auto& d : depth) EXPECT_EQ(0, d.second) << "thread " << d.first.second;
        for (const auto& n : r.slices) EXPECT_EQ(n.second, begins[n.first]) << n.first;
        EXPECT_EQ(size_t(r.processes), pids.size());
        // Dependences as arrows: each starts once and ends once.
        for (const auto& a : arrows) {
            EXPECT_EQ(1, a.second) << a.first;
            EXPECT_EQ(1u, arrows.count((a.first[0] == 's' ? "f" : "s") + a.first.substr(1))) << a.first;
        }

        ASSERT_EQ(0, ryl({"timeline", run, "--perfetto", "-o", dir.path + "/t.pftrace"}).status);
        const perfetto_summary p = read_perfetto(dir.path + "/t.pftrace");
        EXPECT_EQ(begins, p.begins);
        EXPECT_TRUE(p.ordered && p.nested);
        int slices = 0;
        for (const auto& n : begins) slices += n.second;
        EXPECT_EQ(slices, p.ends);
        EXPECT_EQ(2 * size_t(p.flows), arrows.size());
        EXPECT_LE(r.dependences, p.flows);
        EXPECT_EQ(r.dependences > 0, p.flows > 0);
        EXPECT_EQ(trace_files(run), p.threads);
        // One process for the directory, one more for each process its objects files name, if several.
        EXPECT_EQ(r.processes > 1 ? r.processes + 1 : 1, p.processes);

        ASSERT_EQ(0, ryl({"graph", run, "-o", dir.path + "/graph.dot"}).status);
        const std::string dot = read_file(dir.path + "/graph.dot");
        for (const auto& part : r.graph) EXPECT_EQ(part.second, count(dot, part.first)) << part.first << dot;
        // Dependences between task kinds: the example's task constructs are all different kinds.
        EXPECT_EQ(size_t(p.flows), count(dot, "[label=\"depends 1\", style=dashed")) << dot;
        if (graphviz && r.program.size() == 1 && r.dependences) {
            ASSERT_EQ(0, ryl({"graph", run, "--relations", "-o", dir.path + "/graph.dot", "--svg"}).status);
            EXPECT_LT(0u, count(read_file(dir.path + "/graph.svg"), "composite_node"));
        }

        if (!otf2) continue;
        ASSERT_EQ(0, ryl({"export", "--otf2", run, dir.path + "/otf2"}).status);
        const otf2_summary s = read_archive(dir.path + "/otf2/traces.otf2");
        EXPECT_EQ(begins, s.enters);
        EXPECT_EQ(s.enters, s.leaves);
        EXPECT_TRUE(s.ordered);
        EXPECT_EQ(0, s.depth_errors);
        EXPECT_EQ(size_t(p.flows), s.depends_on.size());
        for (const std::string& id : s.depends_on) EXPECT_EQ(1u, s.ids.count(id)) << id;
        // A location group per process of the directory, if several.
        const std::string defs = run_program({"otf2-print", "-G", dir.path + "/otf2/traces.otf2"}, {}).out;
        for (const std::string& part : r.definitions) EXPECT_LT(0u, count(defs, part)) << part << defs;
        const std::regex group("\nLOCATION_GROUP +\\d+ +Name: \"[^\"]* \\(pid ");
        EXPECT_EQ(r.processes > 1 ? r.processes : 0,
                  std::distance(std::sregex_iterator(defs.begin(), defs.end(), group), std::sregex_iterator()))
            << defs;
        // Two directories: two processes in one archive, every event twice.
        ASSERT_EQ(0, ryl({"export", "--otf2", run, run, dir.path + "/two"}).status);
        for (const auto& n : read_archive(dir.path + "/two/traces.otf2").enters)
            EXPECT_EQ(2 * s.enters.at(n.first), n.second) << n.first;
        const child_result again = ryl({"export", "--otf2", run, dir.path + "/otf2"});
        EXPECT_EQ("ryl: " + dir.path + "/otf2: already exists; name a new directory\n", again.err);
    }
    if (!otf2 || !graphviz) GTEST_SKIP() << "otf2-print or Graphviz dot is missing: not every reader was checked";
}

}  // namespace
