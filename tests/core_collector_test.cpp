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
// fresh collector, which reads VUN_DIR again.
TEST(collector_directory, vun_dir_existing_files_in_emission_order_and_unload) {
    temp_dir dir, second;
    FILE* old = fopen(ryl(dir.path, 0).c_str(), "w");
    fputs("old contents that are longer than a header line\n", old);
    fclose(old);
    fclose(fopen(ryl(dir.path, 500).c_str(), "w"));
    const int threads = pool + 2;
    child_options options{{{"VUN_DIR", dir.path}}};
    options.unload = true;
    child_result child = run_in_child(options, [&](zop_api& api) {
        int trace_fds = 0, inheritable = 0;
        for (const std::string& fd : list_dir("/proc/self/fd")) {
            char target[4096];
            ssize_t n = readlink(("/proc/self/fd/" + fd).c_str(), target, sizeof target - 1);
            if (n <= 0 || (target[n] = 0, !strstr(target, "/_ryl."))) continue;
            ++trace_fds;
            inheritable += !(fcntl(std::stoi(fd), F_GETFD) & FD_CLOEXEC);
        }
        printf("%d %d\n", trace_fds, inheritable);
        FILE* newer = fopen(ryl(dir.path, pool).c_str(), "w");
        fputs("another process's records\n", newer);
        fclose(newer);
        for (int i = 0; i < threads; ++i) std::thread([&api, i] { api.id_create(nullptr, {unsigned(i), 0, 0}); }).join();
        dlclose(api.handle);
        printf("unloaded=%d\n", dlopen(library_path(), RTLD_NOW | RTLD_NOLOAD) == nullptr);
        setenv("VUN_DIR", second.path.c_str(), 1);
        api.handle = dlopen(library_path(), RTLD_NOW | RTLD_LOCAL);
        reinterpret_cast<decltype(&__zop_task_end)>(dlsym(api.handle, "__zop_task_end"))(nullptr);
    });
    ASSERT_EQ(child.status, 0);
    EXPECT_EQ(child.out, std::to_string(pool) + " 0\nunloaded=1\n");
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(list_dir(dir.path), pool_names(threads + 1, "_ryl.500"));
    EXPECT_EQ(read_file(ryl(dir.path, pool)), "another process's records\n");
    for (int i = 0; i < threads; ++i)
        EXPECT_EQ(mask_timestamps(read_file(ryl(dir.path, i < pool ? i : i + 1))),
                  header_lines(hc) + record(trace_format::kind_id_create, {"0", std::to_string(i) + ",0,0"}) + file_end());
    // The fresh collector's files; the ones nobody took are finished at the
    // unload too.
    EXPECT_EQ(mask_timestamps(read_file(ryl(second.path, 0))),
              header_lines(hc) + record("task_end", field(0)) + file_end());
    for (int i = 1; i < pool; ++i)
        EXPECT_EQ(mask_timestamps(read_file(ryl(second.path, i))), header_lines(hc) + file_end());
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
        child_options options;
        options.cwd = cwd.path;
        if (setting == "empty") options.set_env = {{"VUN_DIR", ""}};
        else options.unset_env = {"VUN_DIR"};
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
        EXPECT_EQ(mask_timestamps(read_file(cwd.path + "/" + made + "/_ryl.0")),
                  header_lines(hc) + record("task_end", field(0)) + file_end());
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

// Many threads at once, many records each: every file complete, every
// thread's records in its own file in order.
TEST(collector_threads, concurrent_records_stay_whole) {
    temp_dir dir;
    const int threads = 8, records = 2000;
    child_result child = run_in_child({{{"VUN_DIR", dir.path}}}, [&](zop_api& api) {
        std::atomic<bool> go{false};
        std::vector<std::thread> pool_threads;
        for (int t = 0; t < threads; ++t)
            pool_threads.emplace_back([&, t] {
                while (!go.load()) std::this_thread::yield();
                ___zop_string_handle* name = api.string_handle_createA(t % 2 ? "odd" : "even");
                for (int i = 0; i < records; ++i) {
                    api.task_begin(nullptr, {unsigned(t), unsigned(i), 0}, {0, 0, 0}, name);
                    api.metadata_str_addA(nullptr, {unsigned(t), unsigned(i), 0}, name, "v", 1);
                    api.task_end(nullptr);
                }
            });
        go = true;
        for (auto& th : pool_threads) th.join();
    });
    ASSERT_EQ(child.status, 0) << child.err;
    std::set<int> seen;
    for (const std::string& name : list_dir(dir.path)) {
        parsed_trace trace = parse_trace(read_file(dir.path + "/" + name));
        ASSERT_TRUE(trace.ok && trace.finished) << name << ": " << trace.error;
        if (trace.records.empty()) continue;
        ASSERT_EQ(trace.records.size(), size_t(1 + 3 * records)) << name;
        int t = std::stoi(trace.records[1].fields[1].substr(1));
        EXPECT_TRUE(seen.insert(t).second);
        for (int i = 0; i < records; ++i) {
            std::string id = "{" + std::to_string(t) + "," + std::to_string(i) + ",0}";
            EXPECT_EQ(trace.records[1 + 3 * i].fields[1], id);
            EXPECT_EQ(trace.records[2 + 3 * i].fields[1], id);
            EXPECT_EQ(trace.records[3 + 3 * i].name, "task_end");
        }
    }
    EXPECT_EQ(seen.size(), size_t(threads));
}

// While the process exits, a thread goes on emitting and creating handles
// between its records, and new threads make their first records: the exit
// does not stall, every file is finished, and each thread's records are whole
// and in order up to a point, never with a gap. Events after the end (exit
// handlers, threads) are dropped and make no file; handles are still given.
TEST(collector_late_events, during_and_after_the_end) {
    temp_dir dir;
    static zop_api* late_api;
    static std::atomic<bool> stop{false};
    // Joined, not detached, by the last exit handler (the thread sanitizer
    // misreads the exit of detached threads).
    static std::vector<std::thread>& threads = *new std::vector<std::thread>;
    static std::chrono::steady_clock::time_point exit_start;
    const int starters = 32;
    child_options options;
    options.set_env = {{"VUN_DIR", dir.path}};
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
        // Many names, so that destroying registries at exit would take a while.
        for (int i = 0; i < 20000; ++i) api.string_handle_createA(std::to_string(i).c_str());
        threads.emplace_back([&api] {
            for (unsigned long i = 0; !stop; ++i) {
                api.domain_createA("loop");
                api.id_create(nullptr, {i, 0, 0});
            }
        });
        static std::atomic<bool> go{false};
        for (int i = 0; i < starters; ++i)
            threads.emplace_back([&api] {
                while (!go) std::this_thread::yield();
                api.task_end(nullptr);
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        go = true;
        exit_start = std::chrono::steady_clock::now();
    });
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "late handle 1\nexit stalled 0\n");
    for (const std::string& name : list_dir(dir.path)) {
        parsed_trace trace = parse_trace(read_file(dir.path + "/" + name));
        EXPECT_TRUE(trace.ok && trace.finished) << name << ": " << trace.error;
        if (name != "_ryl.1") continue;
        ASSERT_GT(trace.records.size(), 100u);
        for (size_t i = 0; i < trace.records.size(); ++i)
            ASSERT_EQ(trace.records[i].name + " " + trace.records[i].fields.back(),
                      i % 2 ? "id_create {" + std::to_string(i / 2) + ",0,0}" : "domain_createA loop")
                << "record " << i;
    }
}

}  // namespace
