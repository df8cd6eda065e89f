// ryl on run directories written by hand and by the library: what check
// reports for complete, cut short and malformed files, exact summaries, the
// JSON of timeline, the DOT of graph, and the messages and exit statuses of
// wrong input.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <tuple>

#include "child.h"
#include "trace_text.h"

namespace {

child_result ryl(std::vector<std::string> args) {
    args.insert(args.begin(), RYL_TOOL);
    return run_program(args, {});
}

void write(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string rec(const std::string& name, unsigned long long ts, const std::string& fields = "") {
    return "<record>\n" + field(name) + field(ts) + fields + "</record>\n";
}
std::string finish(unsigned long long ts) { return rec("end_of_records", ts) + "</trace>\n"; }
std::string named(const char* kind, unsigned long long handle, const std::string& name) {
    return rec(kind, 100, field(handle) + field(std::min<size_t>(name.size(), 1000) & 0xff) + field(name));
}
std::string begin(unsigned long long ts, unsigned long long id, unsigned long long name) {
    return rec("task_begin", ts, field(7) + id_field(id, 0, 0) + id_field(0, 0, 0) + field(name) + field(2));
}
std::string end(unsigned long long ts) { return rec("task_end", ts, field(7)); }

// One thread's file: a domain, two names (one holding markup and quotes),
// two tasks, one of them nested, and an end without a begin.
const std::string thread0 = header_lines(8) + named("domain_createA", 7, "app") +
                            named("string_handle_createA", 21, "a<b & \"c\"") +
                            named("string_handle_createA", 22, "x</field>\n</record>\ny") + begin(1000, 1, 21) +
                            begin(1500, 2, 22) + end(1700) + end(3000) + end(3100) + finish(4000);
// A second thread's file, killed inside a relation: its last task stays open.
const std::string thread1_cut = header_lines(8) + begin(2000, 3, 22) +
                                rec("relation", 2500, field(7) + id_field(1, 0, 0) + field(5) + id_field(3, 0, 0)) +
                                "<record>\n" + field("relation") + field(2600) + field(7) + "<compound_field>\n<fi";

TEST(ryl_check, reports_each_file) {
    const std::string ok = header_lines(8) + begin(10, 1, 21) + end(20) + finish(30);
    const std::string task = begin(10, 1, 21);
    const std::tuple<const char*, std::string, int, const char*> cases[] = {
        {"complete", ok, 0, "ok, 3 records"},
        {"zero tail after the end", ok + std::string(64, '\0'), 0, "ok, 3 records, followed by 64 zero bytes"},
        {"empty", "", 3, "cut short: the file is empty; missing: the header, the end_of_records record and \"</trace>\""},
        {"zeros only", std::string(4096, '\0'), 3, "cut short: the file holds only 4096 zero bytes"},
        {"inside the header", header_lines(8).substr(0, 30), 3, "cut short: the file ends inside its header"},
        {"after a record", header_lines(8) + task, 3,
         "cut short: last complete record is record 1 (task_begin, line 3); the file ends after it; "
         "missing: the end_of_records record and \"</trace>\""},
        {"inside a field, zeros after", header_lines(8) + task + task.substr(0, 75) + std::string(100, '\0'), 3,
         "the file ends inside record 2 (task_begin, line 20) after its timestamp and 1 of its 5 further fields, "
         "followed by 100 zero bytes; missing: the rest of record 2, the end_of_records record and \"</trace>\""},
        {"inside a text", header_lines(8) + named("domain_createA", 7, "partial name").substr(0, 110), 3,
         "the file ends inside record 1 (domain_createA, line 3) after its timestamp and 2 of its 3 further fields"},
        {"no closing tag", header_lines(8) + rec("end_of_records", 5), 3,
         "the file ends after the end_of_records record, record 1 (end_of_records, line 3); missing: \"</trace>\""},
        {"not a trace file", "hello\n", 4, "not a trace file: line 1: it does not begin with <?xml version=\"1.0\"?>"},
        {"wrong version", "<?xml version=\"1.0\"?>\n<trace version=\"2\" ts_frequency=\"1000000000\" "
                          "hardware_concurrency=\"8\">\n", 4, "unsupported header attribute version=\"2\""},
        {"unknown kind", header_lines(8) + rec("task_start", 5), 4, "line 4: record 1: unknown record kind \"task_start\""},
        {"reserved kind", header_lines(8) + rec("api_version", 5), 4, "\"api_version\" is never written"},
        {"not a number", header_lines(8) + rec("task_end", 5, field("12a")), 4,
         "record 1 (task_end): the first field after the timestamp is not a number: \"12a\""},
        {"byte too big", header_lines(8) + rec("relation", 5, field(1) + id_field(1, 0, 0) + field(300) + id_field(2, 0, 0)),
         4, "the third field after the timestamp is not a number from 0 to 255: \"300\""},
        {"too many fields", header_lines(8) + rec("task_end", 5, field(1) + field(2)), 4,
         "record 1 (task_end): expected </record>, found \"<field\""},
        {"record after the end", header_lines(8) + rec("end_of_records", 5) + task, 4,
         "a record after the end_of_records record"},
        {"zero bytes inside", header_lines(8) + task + std::string(8, '\0') + task + finish(9), 4,
         "zero bytes inside the file from byte offset"},
    };
    temp_dir good;  // beside a complete directory, in either order, the status is the same
    write(good.path + "/_ryl.0", ok);
    for (const auto& [name, text, status, line] : cases) {
        SCOPED_TRACE(name);
        temp_dir dir;
        write(dir.path + "/_ryl.0", text);
        const child_result r = ryl({"check", dir.path});
        EXPECT_EQ(status, r.status) << r.out << r.err;
        EXPECT_EQ(status, ryl({"check", good.path, dir.path}).status);
        EXPECT_EQ(status, ryl({"check", dir.path, good.path}).status);
        EXPECT_NE(std::string::npos, r.out.find(dir.path + "/_ryl.0: ")) << r.out;
        EXPECT_NE(std::string::npos, r.out.find(line)) << r.out;
        EXPECT_EQ("", r.err);
    }
}

// Cut at every byte, with and without a zero-filled tail: always "cut short",
// and summary still reads exactly the records completed before the cut.
TEST(ryl_check, every_cut_is_cut_short) {
    temp_dir dir;
    for (size_t n = 0; n + 1 < thread0.size(); n += 5) {
        SCOPED_TRACE(n);
        const std::string part = thread0.substr(0, n);
        write(dir.path + "/_ryl.0", n % 2 ? part : part + std::string(512, '\0'));
        const child_result r = ryl({"check", dir.path});
        ASSERT_EQ(3, r.status) << r.out;
        if (n % 25) continue;
        size_t records = 0;
        for (size_t at = part.find("</record>\n"); at != std::string::npos; at = part.find("</record>\n", at + 1))
            ++records;
        if (part.find("x</field>\n</record>\n") != std::string::npos) --records;  // inside a name
        const child_result s = ryl({"summary", dir.path});
        ASSERT_EQ(0, s.status) << s.err;
        EXPECT_NE(std::string::npos, s.out.find("_ryl.0: " + std::to_string(records) + " record")) << s.out;
    }
}

TEST(ryl_summary, hand_made_run_and_its_timeline_pairing_tasks_per_thread) {
    temp_dir dir;
    write(dir.path + "/_ryl.0", thread0);
    write(dir.path + "/_ryl.1", thread1_cut);
    const child_result r = ryl({"summary", dir.path});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(
        "run directory " + dir.path + ": 2 trace files, 11 records, 1970-01-01 00:00:00.000000100 UTC to "
        "1970-01-01 00:00:00.000004000 UTC (0.000003900 s)\n"
        "_ryl.0: 9 records, complete\n"
        "  records: domain_createA 1, string_handle_createA 2, task_begin 2, task_end 3, end_of_records 1\n"
        "  time: +0.000000000 s to +0.000003900 s (0.000003900 s)\n"
        "  tasks: 2 begun, 3 ended, 1 end without a begin\n"
        "  busiest: \"a<b & \\\"c\\\"\" 1 (0.000001800 s), \"x</field>\\n</record>\\ny\" 1 (0.000000200 s)\n"
        "_ryl.1: 2 records, cut short: last complete record is record 2 (relation, line 20); the file ends inside "
        "record 3 (relation, line 36) after its timestamp and 1 of its 4 further fields; missing: the rest of "
        "record 3, the end_of_records record and \"</trace>\"\n"
        "  records: relation 1, task_begin 1\n"
        "  time: +0.000001900 s to +0.000002400 s (0.000000500 s)\n"
        "  tasks: 1 begun, 0 ended, 1 left open at the end\n"
        "  busiest: \"x</field>\\n</record>\\ny\" 1 (0.000000500 s)\n"
        "domains (1): \"app\"\n"
        "string handles (2): \"a<b & \\\"c\\\"\", \"x</field>\\n</record>\\ny\"\n"
        "relations: 1 of kind 5\n",
        r.out);

    // The same run as a Chrome JSON timeline, with a zero tail after the
    // first file and a third file.
    write(dir.path + "/_ryl.0", thread0 + std::string(100, '\0'));
    write(dir.path + "/_ryl.2", header_lines(8) + named("string_handle_createA", 30, "bad \xff\xc3(") +
                                    begin(150, 9, 30) + rec("task_begin_async", 160, field(7) + id_field(4, 0, 0) +
                                    id_field(0, 0, 0) + field(30) + field(1)) + finish(170));
    const std::string out = dir.path + "/trace.json";
    const child_result t = ryl({"timeline", dir.path, "-o", out});
    ASSERT_EQ(0, t.status) << t.err;
    EXPECT_NE(std::string::npos, t.err.find("warning: " + dir.path + "/_ryl.1: cut short")) << t.err;
    const nlohmann::json j = nlohmann::json::parse(read_file(out));
    // Per thread: phase, name or "", time in microseconds after the first record.
    std::map<int, std::vector<std::string>> seen;
    for (const auto& e : j.at("traceEvents"))
        if (e.at("ph") != "M")
            seen[e.at("tid").get<int>()].push_back(e.at("ph").get<std::string>() + " " + e.value("name", "") +
                                                   " " + std::to_string(e.at("ts").get<double>()));
    const std::string bad = "bad \xEF\xBF\xBD\xEF\xBF\xBD(";  // bytes that are not UTF-8 replaced
    const std::map<int, std::vector<std::string>> expected = {
        // The third end of thread 0 has no begin and is dropped.
        {0, {"B a<b & \"c\" 0.900000", "B x</field>\n</record>\ny 1.400000", "E  1.600000", "E  2.900000"}},
        {1, {"B x</field>\n</record>\ny 1.900000", "E  2.400000"}},
        // Closed at the end_of_records record.
        {2, {"B " + bad + " 0.050000", "b " + bad + " 0.060000", "E  0.070000", "e " + bad + " 0.070000"}}};
    EXPECT_EQ(expected, seen);
    EXPECT_EQ("app", j["traceEvents"][3].value("cat", ""));
}

// Records of one OpenMP region with an explicit task and a dependence, as the
// adapter writes them (fields after the timestamp); node names the task.
std::string openmp_graph(const std::string& node = "node") {
    using ull = unsigned long long;
    auto group = [](ull a, ull b, ull pa, ull pb, ull name) {
        return rec("task_group", 5, field(7) + id_field(a, b, 0) + id_field(pa, pb, 0) + field(name));
    };
    auto relation = [](ull ha, ull hb, int kind, ull ta, ull tb) {
        return rec("relation", 5, field(7) + id_field(ha, hb, 0) + field(kind) + id_field(ta, tb, 0));
    };
    return header_lines(2) + named("domain_createA", 7, "openmp") + named("string_handle_createA", 31, "graph") +
           named("string_handle_createA", 32, "composite_node") + named("string_handle_createA", 33, node) +
           named("string_handle_createA", 34, "input_port_0") + named("string_handle_createA", 35, "output_port_0") +
           named("string_handle_createA", 36, "code_address") + group(19, 0, 0, 0, 31) + relation(2, 0, 3, 10, 1) +
           group(10, 1, 19, 0, 32) + group(11, 0, 10, 1, 33) + group(12, 0, 11, 0, 34) + group(11, 35, 11, 0, 35) +
           relation(10, 1, 3, 12, 0) +
           rec("metadata", 5, field(7) + id_field(10, 1, 0) + field(36) + field(1) + field(1) + field(0x401000)) +
           relation(40, 0, 5, 2, 0) + group(40, 1, 2, 0, 33) + relation(40, 1, 7, 0x7f00, 0) + finish(9);
}

TEST(ryl_graph, clusters_nodes_ports_and_labelled_relations) {
    temp_dir dir;
    const std::string out = dir.path + "/graph.dot";
    // Clusters nested 4000 deep (each group under the one before) are drawn
    // without recursion; past 5000 nodes the drawing is refused in one line.
    const auto nested = [&](unsigned long long depth) {
        std::string deep = header_lines(8) + named("string_handle_createA", 1, "graph");
        for (unsigned long long i = 1; i <= depth; ++i)
            deep += rec("task_group", 5, field(7) + id_field(i, 0, 0) + id_field(i - 1, 0, 0) + field(1));
        write(dir.path + "/_ryl.0", deep + finish(9));
        return ryl({"graph", dir.path, "-o", out});
    };
    ASSERT_EQ(0, nested(4000).status);
    EXPECT_NE(std::string::npos, read_file(out).find(std::string(2 * 33, ' ') + "subgraph cluster_4000_0_0 {"));
    const child_result refused = nested(6000);
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ("ryl: the relation graph has 6000 nodes, more than 5000 to draw; OpenMP runs are drawn by task kind "
              "without --relations\n", refused.err);

    write(dir.path + "/_ryl.0", openmp_graph());
    const child_result r = ryl({"graph", dir.path, "-o", out});
    ASSERT_EQ(0, r.status) << r.err;
    const std::string dot = read_file(out);
    for (const char* part : {
             "subgraph cluster_19_0_0 {", "subgraph cluster_10_1_0 {",
             "label=\"composite_node\\n{10, 1, 0}\\ncode_address = 0x401000\"",
             "n_11_0_0 [shape=box, label=\"node\\n{11, 0, 0}\"]",
             "n_12_0_0 -> n_11_0_0 [style=dotted, arrowhead=none]",  // input port into its node
             "n_11_0_0 -> n_11_35_0 [style=dotted, arrowhead=none]",
             "n_2_0_0 -> n_10_1_0 [label=\"3\", lhead=cluster_10_1_0]",  // encountering task to the region
             "n_10_1_0 -> n_12_0_0 [label=\"3\"]",
             "n_40_0_0 -> n_2_0_0 [label=\"5\"]",
             "n_32512_0_0 [shape=diamond, fontsize=8, label=\"variable\\n0x7f00\"]",
             "n_40_1_0 -> n_32512_0_0 [label=\"7\"]",
         })
        EXPECT_NE(std::string::npos, dot.find(part)) << part << "\n" << dot;
    // The picture, when Graphviz is there, also from names with any bytes.
    if (run_program({"sh", "-c", "command -v dot"}, {}).status != 0) GTEST_SKIP() << "Graphviz dot is not installed";
    const child_result svg = ryl({"graph", dir.path, "-o", out, "--svg"});
    ASSERT_EQ(0, svg.status) << svg.err;
    EXPECT_NE(std::string::npos, read_file(dir.path + "/graph.svg").find("<svg"));
    write(dir.path + "/_ryl.0", openmp_graph("node\\\" <&amp; \xff\n}"));
    // -o naming the picture: the DOT text goes beside it.
    const child_result png = ryl({"graph", dir.path, "-o", dir.path + "/g.png", "--png"});
    ASSERT_EQ(0, png.status) << png.err;
    EXPECT_NE(std::string::npos, read_file(dir.path + "/g.dot").find("node\\\\\\\" <&amp;amp; \xEF\xBF\xBD\\n}"));
    EXPECT_TRUE(file_exists(dir.path + "/g.png"));
}

// Names that the trace file holds unescaped.
const char* const odd_names[] = {"a<b", "&amp; & x", "say \"hi\""};

// 105 records on the first thread: a domain, three names, 50 tasks and a
// text holding the closing lines of a record; killed before the end if asked.
void emit(zop_api& api, bool kill) {
    ___zop_domain* domain = api.domain_createA("dom");
    ___zop_string_handle* names[3];
    for (int i = 0; i < 3; ++i) names[i] = api.string_handle_createA(odd_names[i]);
    for (unsigned long long i = 0; i < 50; ++i) {
        api.task_begin(domain, {i + 1, 0, 0}, {0, 0, 0}, names[i % 3]);
        api.task_end(domain);
    }
    api.metadata_str_addA(domain, {1, 0, 0}, names[0], "</field>\n</record>\n<record>", 5);
    if (kill) raise(SIGKILL);
}

TEST(ryl_library_runs, finished_and_killed_streamed_and_mapped) {
    for (const char* mode : {"stream", "mapped"})
        for (const bool kill : {false, true}) {
            SCOPED_TRACE(std::string(mode) + (kill ? " killed" : " finished"));
            temp_dir dir;
            run_in_child({{{"VUN_DIR", dir.path}, {"VUN_MODE", mode}}, {}},
                         [&](zop_api& api) { emit(api, kill); });

            const child_result check = ryl({"check", dir.path});
            EXPECT_EQ(kill ? 3 : 0, check.status) << check.out;
            const child_result summary = ryl({"summary", dir.path});
            ASSERT_EQ(0, summary.status) << summary.err;
            const char* file = kill ? "_ryl.0: 105 records, cut short: last complete record is record 105 "
                                      "(metadata_stringA"
                                    : "_ryl.0: 106 records, complete";
            for (const char* part : {file, "  tasks: 50 begun, 50 ended\n",
                                     "string handles (3): \"&amp; & x\", \"a<b\", \"say \\\"hi\\\"\"\n"})
                EXPECT_NE(std::string::npos, summary.out.find(part)) << part << summary.out;

            const child_result timeline = ryl({"timeline", dir.path, "-o", dir.path + "/t.json"});
            ASSERT_EQ(0, timeline.status) << timeline.err;
            std::map<std::string, int> begins;
            const nlohmann::json trace = nlohmann::json::parse(read_file(dir.path + "/t.json"));
            for (const auto& e : trace.at("traceEvents"))
                if (e.at("ph") == "B") ++begins[e.at("name").get<std::string>()];
            EXPECT_EQ((std::map<std::string, int>{{odd_names[0], 17}, {odd_names[1], 17}, {odd_names[2], 16}}),
                      begins);
        }
}

// ryl must neither take over the files of the directory it reads (named by
// VUN_DIR) nor leave a run directory of its own behind.
TEST(ryl_self, leaves_run_directories_alone) {
    temp_dir dir, cwd;
    const std::string old = header_lines(2) + finish(10);
    const timespec long_ago[2] = {{1000000, 0}, {1000000, 0}};
    for (const char* name : {"/_ryl.0", "/_ryl.1"}) {
        write(dir.path + name, old);
        utimensat(AT_FDCWD, (dir.path + name).c_str(), long_ago, 0);
    }
    for (const std::string& vun_dir : {std::string(), dir.path}) {
        const auto r = run_program({RYL_TOOL, "summary", dir.path}, {{"VUN_DIR", vun_dir}}, {}, cwd.path);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(old + old, read_file(dir.path + "/_ryl.0") + read_file(dir.path + "/_ryl.1"));
        EXPECT_EQ((std::vector<std::string>{"_ryl.0", "_ryl.1"}), list_dir(dir.path));
        EXPECT_TRUE(list_dir(cwd.path).empty());
    }
}

TEST(ryl_errors, one_line_and_an_exit_status) {
    temp_dir dir;
    const std::string empty = dir.path + "/empty", bad = dir.path + "/bad", unreadable = dir.path + "/unreadable";
    const std::string good = dir.path + "/good";
    for (const std::string& d : {empty, bad, unreadable, good}) mkdir(d.c_str(), 0777);
    write(bad + "/_ryl.0", "not xml\n");
    write(good + "/_ryl.0", thread0);
    mkdir((unreadable + "/_ryl.0").c_str(), 0777);  // opens, but cannot be read
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{}, 2, "usage: ryl COMMAND ..."},
        {{"frobnicate"}, 2, "ryl: unknown command \"frobnicate\""},
        {{"check"}, 2, "ryl: usage: ryl check DIR"},
        {{"summary", dir.path + "/missing"}, 1, "ryl: " + dir.path + "/missing: No such file or directory"},
        {{"summary", empty}, 1, "ryl: " + empty + ": no trace files (_ryl.0, _ryl.1, ...) in this directory"},
        {{"summary", bad}, 1, "ryl: " + bad + "/_ryl.0: not a trace file: line 1: it does not begin with"},
        {{"timeline", unreadable}, 1, "ryl: " + unreadable + "/_ryl.0: read error: Is a directory"},
        {{"check", unreadable}, 1, "ryl: " + unreadable + "/_ryl.0: read error: Is a directory"},
        {{"timeline", good, "-o", dir.path + "/no/dir.json"}, 1, "ryl: " + dir.path + "/no/dir.json: cannot write: No such file"},
        {{"graph", empty, "--svg"}, 2, "ryl: usage: ryl graph DIR [--relations] [-o FILE.dot [--svg | --png]]"},
        {{"timeline", empty, "-x"}, 2, "ryl: usage: ryl timeline DIR [-o FILE.json | --perfetto -o FILE.pftrace]"},
        {{"run"}, 2, "ryl: usage: ryl run [-o DIR] [--stream] [--plain] -- PROGRAM [ARGS]"},
        {{"check", good + "/_ryl.0"}, 0, ""},  // one file instead of a directory
        {{"help"}, 0, ""},
    };
    for (const auto& [args, status, message] : cases) {
        SCOPED_TRACE(args.empty() ? "(none)" : args[0]);
        const child_result r = ryl(args);
        EXPECT_EQ(status, r.status) << r.err;
        EXPECT_EQ(0u, r.err.find(message)) << r.err;  // from the first byte: each message names ryl
    }
}

}  // namespace
