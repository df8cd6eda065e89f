// ryl run's default modes seen through the files they leave; ryl export
// --otf2 read back with OTF2's own otf2-print and ryl timeline --perfetto with
// the code generated from the same schema: counts, names and ordering.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "child.h"
#include "perfetto_trace.pb.h"

namespace {

child_result ryl(std::vector<std::string> args, const std::vector<std::pair<std::string, std::string>>& env = {}) {
    args.insert(args.begin(), RYL_TOOL);
    return run_program(args, env, {"LD_PRELOAD", "OMP_TOOL_LIBRARIES", "RYL_LIBRARY", "VUN_MODE", "VUN_OPENMP"});
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The settings a program gets, and whether a killed program's files end in the
// zero bytes of mapped mode: flag over the user's environment over the default.
TEST(ryl_export, run_default_modes) {
    struct row {
        std::vector<std::string> flags;
        std::vector<std::pair<std::string, std::string>> env;
        const char* mode;
        const char* openmp;
    };
    const row rows[] = {{{}, {}, "mapped", "detailed"},
                        {{"--stream", "--plain"}, {}, "stream", "plain"},
                        {{}, {{"VUN_MODE", "stream"}, {"VUN_OPENMP", "plain"}}, "stream", "plain"},
                        {{"--stream"}, {{"VUN_MODE", "mapped"}}, "stream", "detailed"}};
    for (const row& r : rows) {
        temp_dir dir;
        for (const bool killed : {false, true}) {
            std::vector<std::string> a = {"run", "-o", dir.path + (killed ? "/killed" : "/env")};
            a.insert(a.end(), r.flags.begin(), r.flags.end());
            if (killed) a.insert(a.end(), {"--", "sh", "-c", "kill -9 $$"});
            else a.insert(a.end(), {"--", "env"});
            const child_result c = ryl(a, r.env);
            if (killed) {
                EXPECT_EQ(137, c.status) << c.err;
                const child_result check = ryl({"check", dir.path + "/killed"});
                EXPECT_EQ(std::string(r.mode) == "mapped", has(check.out, "zero bytes")) << check.out;
                continue;
            }
            // env reports nothing: the pre-opened files, each finished, then the summary.
            const std::string lib = library_path();
            EXPECT_EQ("ryl: tracing env into " + dir.path + "/env\n", c.err);
            for (const std::string& line :
                 {std::string("\nVUN_MODE=") + r.mode + "\n", std::string("\nVUN_OPENMP=") + r.openmp + "\n",
                  "\nVUN_DIR=" + dir.path + "/env\n", "\nLD_PRELOAD=" + lib + "\n", "\nOMP_TOOL_LIBRARIES=" + lib + "\n",
                  "run directory " + dir.path + "/env: "})
                EXPECT_TRUE(has(c.out, line)) << line << c.out;
            EXPECT_EQ(0, ryl({"check", dir.path + "/env"}).status);
        }
    }
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
    otf2_summary s;
    std::map<unsigned long, unsigned long long> last;
    std::map<unsigned long, int> depth;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        const std::string id_tag = "(\"id\" <0>; UINT64; ", deps_tag = "(\"depends_on\" <2>; STRING; \"";
        const size_t ids = line.find(id_tag), deps = line.find(deps_tag);
        if (ids != std::string::npos)
            s.ids.insert(line.substr(ids + id_tag.size(), line.find(')', ids) - ids - id_tag.size()));
        if (deps != std::string::npos) {
            const size_t from = deps + deps_tag.size();
            std::istringstream list(line.substr(from, line.find('"', from) - from));
            for (std::string id; list >> id;) s.depends_on.push_back(id);
        }
        std::istringstream words(line);
        std::string event;
        unsigned long location = 0;
        unsigned long long ts = 0;
        if (!(words >> event >> location >> ts) || (event != "ENTER" && event != "LEAVE")) continue;
        const size_t q = line.find('"');
        const std::string name = line.substr(q + 1, line.find('"', q + 1) - q - 1);
        (event == "ENTER" ? s.enters : s.leaves)[name]++;
        if (ts < last[location]) s.ordered = false;
        last[location] = ts;
        if ((depth[location] += event == "ENTER" ? 1 : -1) < 0) s.depth_errors++;
    }
    return s;
}

TEST(ryl_export, otf2_round_trips) {
    if (run_program({"sh", "-c", "command -v otf2-print"}, {}).status != 0) GTEST_SKIP() << "otf2-tools missing";
    struct row {
        std::vector<std::string> program;
        std::map<std::string, int> enters;  // exact counts, where known
        int status;
    };
    const row rows[] = {
#ifdef RYL_THREADS_EXAMPLE
        {{RYL_THREADS_EXAMPLE}, {{"work", 3}, {"step", 9}}, 0},
#endif
#ifdef RYL_OMP_EXAMPLE
        // Regions by source: 3 parallel regions and 6 implicit tasks in main, 5 tasks in make_tasks.
        {{RYL_OMP_EXAMPLE}, {{"main", 9}, {"make_tasks", 5}}, 0},
        // Twice from a shell: a location group per process of the directory.
        {{"sh", "-c", RYL_OMP_EXAMPLE " && " RYL_OMP_EXAMPLE}, {{"main", 18}, {"make_tasks", 10}}, 0},
#endif
        {{"sh", "-c", "kill -9 $$"}, {}, 137},
    };
    for (const row& r : rows) {
        temp_dir dir;
        std::vector<std::string> args = {"run", "-o", dir.path + "/run", "--"};
        args.insert(args.end(), r.program.begin(), r.program.end());
        ASSERT_EQ(r.status, ryl(args, {{"OMP_NUM_THREADS", "2,2"}}).status);
        const child_result e = ryl({"export", "--otf2", dir.path + "/run", dir.path + "/otf2"});
        ASSERT_EQ(0, e.status) << e.err;
        const otf2_summary s = read_archive(dir.path + "/otf2/traces.otf2");
        EXPECT_EQ(s.enters, s.leaves);
        EXPECT_TRUE(s.ordered);
        EXPECT_EQ(0, s.depth_errors);
        for (const auto& n : r.enters) EXPECT_EQ(n.second, s.enters.at(n.first)) << n.first;
        if (r.enters.empty()) EXPECT_TRUE(s.enters.empty());
        for (const std::string& id : s.depends_on) EXPECT_EQ(1u, s.ids.count(id)) << id;
        if (r.enters.count("make_tasks")) {
            const std::string defs =
                run_program({"otf2-print", "-G", dir.path + "/otf2/traces.otf2"}, {}).out;
            EXPECT_NE(defs.find("Name: \"make_tasks\" <"), std::string::npos) << defs;
            EXPECT_NE(defs.find("(Aka. \"omp_explicit\" <"), std::string::npos) << defs;
            EXPECT_NE(defs.find("Role: TASK, Paradigm: OPENMP, Flags: NONE, File: \"omp_tasks.c\""), std::string::npos);
            EXPECT_NE(defs.find("Role: PARALLEL, Paradigm: OPENMP"), std::string::npos);
            size_t processes = 0;
            std::istringstream lines(defs);
            for (std::string line; std::getline(lines, line);)
                processes += line.rfind("LOCATION_GROUP", 0) == 0 && line.find(" (pid ") != std::string::npos;
            EXPECT_EQ(r.enters.at("main") == 18 ? 2u : 0u, processes) << defs;
        }
        ASSERT_EQ(0, ryl({"timeline", dir.path + "/run", "--perfetto", "-o", dir.path + "/t.pftrace"}).status);
        const perfetto_summary p = read_perfetto(dir.path + "/t.pftrace");
        EXPECT_EQ(s.enters, p.begins);
        EXPECT_TRUE(p.ordered && p.nested);
        int enters = 0;
        for (const auto& n : s.enters) enters += n.second;
        EXPECT_EQ(enters, p.ends);
        // The same dependences as the timeline's arrows; the example's chain has some.
        EXPECT_EQ(int(s.depends_on.size()), p.flows);
        EXPECT_EQ(r.enters.count("make_tasks") == 1, p.flows > 0);
        int files = 0;
        for (const std::string& f : list_dir(dir.path + "/run")) files += f.rfind("_ryl.", 0) == 0;
        EXPECT_EQ(files, p.threads);
        // One process for the directory, one more for each process its objects files name, if several.
        EXPECT_EQ(r.enters.count("main") && r.enters.at("main") == 18 ? 3 : 1, p.processes);
        // Two directories: two processes in one archive, every event twice.
        ASSERT_EQ(0, ryl({"export", "--otf2", dir.path + "/run", dir.path + "/run", dir.path + "/two"}).status);
        for (const auto& n : read_archive(dir.path + "/two/traces.otf2").enters)
            EXPECT_EQ(2 * s.enters.at(n.first), n.second) << n.first;
        const child_result again = ryl({"export", "--otf2", dir.path + "/run", dir.path + "/otf2"});
        EXPECT_EQ("ryl: " + dir.path + "/otf2: already exists; name a new directory\n", again.err);
    }
    EXPECT_EQ(2, ryl({"export", "--otf2", "DIR"}).status);
}

}  // namespace
