// The collector: run directory, writer pool, files per thread, finishing at
// exit and unload, late events, and the library's exported symbols.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "child.h"
#include "trace_text.h"

namespace {

const unsigned hc = std::thread::hardware_concurrency();
const int pool = hc ? int(hc) : 8;

std::string ryl(const std::string& dir, int n) { return dir + "/_ryl." + std::to_string(n); }
// A file whose thread made one task_end record.
std::string task_end_file() { return header_lines(hc) + record("task_end", field(0)) + file_end(); }

// "_ryl.0" to "_ryl.<count - 1>" and any extra name, sorted.
std::vector<std::string> pool_names(int count, const char* extra = nullptr) {
    std::vector<std::string> names;
    if (extra) names.push_back(extra);
    for (int i = 0; i < count; ++i) names.push_back("_ryl." + std::to_string(i));
    std::sort(names.begin(), names.end());
    return names;
}

// VUN_DIR names an existing directory: the pool files are made in it,
// close-on-exec; a file of an earlier run is emptied, a number nobody opens
// is kept, and a file written after the load belongs to another process of
// the run, even without a lock on it: its number is skipped. Threads that
// start one after another: the first ones take the pool in order of their
// first records, later ones get new files; an ended thread's file is never
// handed on. dlclose finishes every file and really unloads the library (the
// collector lives in the library's own storage); loading it again starts a
// fresh collector, which reads VUN_DIR and VUN_MODE again: here a VUN_DIR
// pattern of host name, process id and a literal percent sign (anything else
// stays as it is), and an unknown VUN_MODE, with its warning.
TEST(collector_directory, vun_dir_existing_files_in_emission_order_and_unload) {
    temp_dir dir, second;
    std::ofstream(ryl(dir.path, 0)) << "old contents that are longer than a header line\n";
    fclose(fopen(ryl(dir.path, 500).c_str(), "w"));
    const int threads = pool + 2;
    child_options options{{{"VUN_DIR", dir.path}}};
    options.unload = true;
    started_child started = start_child(options, [&](zop_api& api) {
        int trace_fds = 0, inheritable = 0;
        for (const std::string& fd : list_dir("/proc/self/fd")) {
            char target[4096];
            ssize_t n = readlink(("/proc/self/fd/" + fd).c_str(), target, sizeof target - 1);
            if (n <= 0 || (target[n] = 0, !strstr(target, "/_ryl."))) continue;
            ++trace_fds;
            inheritable += !(fcntl(std::stoi(fd), F_GETFD) & FD_CLOEXEC);
        }
        printf("%d %d\n", trace_fds, inheritable);
        std::ofstream(ryl(dir.path, pool)) << "another process's records\n";
        for (int i = 0; i < threads; ++i) std::thread([&api, i] { api.id_create(nullptr, {unsigned(i), 0, 0}); }).join();
        dlclose(api.handle);
        printf("unloaded=%d\n", dlopen(library_path(), RTLD_NOW | RTLD_NOLOAD) == nullptr);
        setenv("VUN_DIR", (second.path + "/run-%h-%p-%%-%x-%").c_str(), 1);
        setenv("VUN_MODE", "fast", 1);
        api.handle = dlopen(library_path(), RTLD_NOW | RTLD_LOCAL);
        reinterpret_cast<decltype(&__zop_task_end)>(dlsym(api.handle, "__zop_task_end"))(nullptr);
    });
    child_result child = wait_child(started);
    ASSERT_EQ(child.status, 0);
    EXPECT_EQ(child.out, std::to_string(pool) + " 0\nunloaded=1\n");
    EXPECT_EQ(child.err, "WARNING unknown VUN_MODE 'fast': writing trace files in stream mode\n");
    EXPECT_EQ(list_dir(dir.path), pool_names(threads + 1, "_ryl.500"));
    EXPECT_EQ(read_file(ryl(dir.path, pool)), "another process's records\n");
    for (int i = 0; i < threads; ++i)
        EXPECT_EQ(mask_timestamps(read_file(ryl(dir.path, i < pool ? i : i + 1))),
                  header_lines(hc) + record(trace_format::kind_id_create, {"0", std::to_string(i) + ",0,0"}) + file_end());
    // The fresh collector's files; the ones nobody took are finished at the
    // unload too.
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const std::string made = "run-" + std::string(host) + "-" + std::to_string(started.pid) + "-%-%x-%";
    EXPECT_EQ(list_dir(second.path), std::vector<std::string>{made});
    EXPECT_EQ(list_dir(second.path + "/" + made), pool_names(pool));
    for (int i = 0; i < pool; ++i)
        EXPECT_EQ(mask_timestamps(read_file(ryl(second.path + "/" + made, i))),
                  i ? header_lines(hc) + file_end() : task_end_file());
}

// Makes the run directory base names of the next seconds (and, with
// numbered, every numbered candidate of each) in cwd; returns the bases.
std::set<std::string> occupy(const std::string& cwd, int seconds, bool numbered) {
    std::set<std::string> bases;
    for (time_t t = time(nullptr), end = t + seconds; t < end; ++t) {
        tm local;
        localtime_r(&t, &local);
        char base[64], name[4200];
        strftime(base, sizeof base, "_vun_%Y%m%d_%H%M%S", &local);
        bases.insert(base);
        mkdir((cwd + "/" + base).c_str(), 0777);
        for (int i = 0; numbered && i < 1000; ++i) {
            snprintf(name, sizeof name, "%s/%s_%03d", cwd.c_str(), base, i);
            mkdir(name, 0777);
        }
    }
    return bases;
}

// VUN_DIR unset or empty, the base names of the next seconds taken: the
// "_000" candidate, whichever second the child starts in. Every candidate
// taken as well: the base directory is used, with the mkdir warning.
TEST(collector_directory, unset_or_empty_vun_dir_takes_next_free_name) {
    for (const std::string setting : {"unset", "empty", "all taken"}) {
        temp_dir cwd;
        std::set<std::string> bases = occupy(cwd.path, 4, setting == "all taken");
        child_options options{{}, {"VUN_DIR"}, cwd.path};
        if (setting == "empty") options.set_env = {{"VUN_DIR", ""}};
        child_result child = run_in_child(options, [](zop_api& api) { api.task_end(nullptr); });
        ASSERT_EQ(child.status, 0) << setting;
        std::string made;
        if (setting == "all taken") {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(child.out, m, std::regex("WARNING when issuing: mkdir (_vun_\\d{8}_\\d{6})\n")))
                << child.out;
            made = m[1].str();
            EXPECT_TRUE(bases.count(made));
        } else {
            EXPECT_EQ(child.out, "");
            for (const std::string& name : list_dir(cwd.path))
                if (!bases.count(name)) made += name;
            ASSERT_EQ(made.size(), 24u) << made;
            EXPECT_TRUE(bases.count(made.substr(0, 20))) << made;
            EXPECT_EQ(made.substr(20), "_000");
            EXPECT_EQ(list_dir(cwd.path + "/" + made), pool_names(pool));
        }
        EXPECT_EQ(mask_timestamps(read_file(cwd.path + "/" + made + "/_ryl.0")), task_end_file());
    }
}

// VUN_DIR naming a missing directory, a file, a path too long, or a pattern
// whose result cannot be made (too long, or its parent missing: only the last
// level is made): every writer diverts its text to standard error.
TEST(collector_directory, unusable_vun_dir_diverts_to_standard_error) {
    temp_dir dir;
    std::string missing = dir.path + "/does/not/exist", file = dir.path + "/plain_file";
    std::string too_long = dir.path + "/" + std::string(PATH_MAX + 10, 'x');
    fclose(fopen(file.c_str(), "w"));
    // One warning line before the text of each lock span.
    const std::string w = "WARNING NO OPEN FILE: ";
    auto spans = [&w](std::initializer_list<std::string> texts) {
        std::string lines;
        for (const std::string& text : texts) lines += w + text;
        return lines;
    };
    std::string expected;
    for (int i = 0; i < pool; ++i) expected += w + header_lines(hc);
    // The compound field's five lines are one span; so is a text field,
    // however it is put together.
    expected += spans({"<record>\n", field("id_create"), field("TS"), field(0), id_field(1, 2, 3), "</record>\n"});
    expected += spans({"<record>\n", field("metadata_stringA"), field("TS"), field(0), id_field(4, 5, 6), field(0),
                       field(4), field("text"), "</record>\n"});
    for (int i = 0; i < pool; ++i)
        expected += spans({"<record>\n", field("end_of_records"), field("TS"), "</record>\n", "</trace>\n"});
    for (const std::string& vun_dir : {missing, file, too_long, too_long + "%p", missing + "/%p"}) {
        child_result child = run_in_child({{{"VUN_DIR", vun_dir}}}, [](zop_api& api) {
            api.id_create(nullptr, {1, 2, 3});
            api.metadata_str_addA(nullptr, {4, 5, 6}, nullptr, "text", 4);
        });
        ASSERT_EQ(child.status, 0);
        // A pattern is expanded (%p is the process id), and mkdir of the result fails.
        std::string out = std::regex_replace(child.out, std::regex("\\d+\n$"), "%p\n");
        EXPECT_EQ(out, vun_dir.find('%') != std::string::npos ? "WARNING when issuing: mkdir " + vun_dir + "\n" : "");
        EXPECT_FALSE(file_exists(missing));
        std::string err =
            std::regex_replace(child.err, std::regex(w + "<field>\\d{12,}</field>"), w + "<field>TS</field>");
        EXPECT_EQ(err, expected) << vun_dir.substr(0, 100);
    }
}

// Many threads at once, many records each: every thread's records in a file
// of its own, whole and in order. Then, while the process exits, a thread goes
// on emitting and creating handles between its records, and new threads make
// their first records: the exit does not stall, every file is finished, and
// each thread's records are whole and in order up to a point, never with a
// gap. Events after the end (exit handlers, threads) are dropped and make no
// file; handles are still given.
TEST(collector_threads, concurrent_records_and_events_during_and_after_the_end) {
    temp_dir dir;
    static zop_api* late_api;
    static std::atomic<bool> stop{false};
    // Joined, not detached, by the last exit handler (the thread sanitizer
    // misreads the exit of detached threads).
    static std::vector<std::thread>& threads = *new std::vector<std::thread>;
    static std::chrono::steady_clock::time_point exit_start;
    const int writers = 8, records = 2000, starters = 32;
    child_options options{{{"VUN_DIR", dir.path}}};
    // Registered before the library is loaded: runs after the end.
    options.before_load = [] {
        atexit([] {
            auto took = std::chrono::steady_clock::now() - exit_start;
            late_api->task_end(nullptr);
            std::thread([] {
                late_api->task_end(nullptr);
                printf("late handle %d\n", late_api->domain_createA("late") != nullptr);
            }).join();
            printf("exit stalled %d\n", took > std::chrono::milliseconds(500));
            stop = true;
            for (std::thread& t : threads) t.join();
        });
    };
    child_result child = run_in_child(options, [&](zop_api& api) {
        late_api = &api;
        std::atomic<bool> go{false};
        std::vector<std::thread> writing;
        for (int t = 0; t < writers; ++t)
            writing.emplace_back([&, t] {
                while (!go.load()) std::this_thread::yield();
                ___zop_string_handle* name = api.string_handle_createA(t % 2 ? "odd" : "even");
                for (int i = 0; i < records; ++i) {
                    api.task_begin(nullptr, {unsigned(t), unsigned(i), 0}, {0, 0, 0}, name);
                    api.metadata_str_addA(nullptr, {unsigned(t), unsigned(i), 0}, name, "v", 1);
                    api.task_end(nullptr);
                }
            });
        go = true;
        for (auto& th : writing) th.join();
        // Many names, so that destroying registries at exit would take a while.
        for (int i = 0; i < 20000; ++i) api.string_handle_createA(std::to_string(i).c_str());
        threads.emplace_back([&api] {
            for (unsigned long i = 0; !stop; ++i) {
                api.domain_createA("loop");
                api.id_create(nullptr, {i, 0, 0});
            }
        });
        static std::atomic<bool> start{false};
        for (int i = 0; i < starters; ++i)
            threads.emplace_back([&api] {
                while (!start) std::this_thread::yield();
                api.task_end(nullptr);
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        start = true;
        exit_start = std::chrono::steady_clock::now();
    });
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "late handle 1\nexit stalled 0\n");
    std::set<int> seen;  // the writers' numbers, and -1 for the thread emitting through the exit
    for (const std::string& name : list_dir(dir.path)) {
        parsed_trace trace = parse_trace(read_file(dir.path + "/" + name));
        ASSERT_TRUE(trace.ok && trace.finished) << name << ": " << trace.error;
        const std::vector<parsed_record>& r = trace.records;
        if (!r.empty() && r[0].name == "domain_createA") {
            EXPECT_TRUE(seen.insert(-1).second);
            ASSERT_GT(r.size(), 100u);
            for (size_t i = 0; i < r.size(); ++i)
                ASSERT_EQ(r[i].name + " " + r[i].fields.back(),
                          i % 2 ? "id_create {" + std::to_string(i / 2) + ",0,0}" : "domain_createA loop")
                    << "record " << i;
        } else if (r.size() > 1 && r[1].name == "task_begin") {
            ASSERT_EQ(r.size(), size_t(1 + 3 * records)) << name;
            int t = std::stoi(r[1].fields[1].substr(1));
            EXPECT_TRUE(seen.insert(t).second);
            for (int i = 0; i < records; ++i) {
                std::string id = "{" + std::to_string(t) + "," + std::to_string(i) + ",0}";
                EXPECT_EQ(r[1 + 3 * i].fields[1], id);
                EXPECT_EQ(r[2 + 3 * i].fields[1], id);
                EXPECT_EQ(r[3 + 3 * i].name, "task_end");
            }
        }
    }
    EXPECT_EQ(seen.size(), size_t(writers + 1));
}

}  // namespace
