// The collector where real programs meet it: killed processes, full disks and
// size limits, several processes in one run directory, fork, signal handlers
// and bad settings. Every case runs in fresh processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "child.h"
#include "trace_text.h"

// Allocation failure on demand: while set (in a child), operator new throws,
// also for the library, whose calls bind to this program's definition.
std::atomic<bool> fail_allocations{false};

void* operator new(std::size_t size) {
    void* p = fail_allocations.load(std::memory_order_relaxed) ? nullptr : std::malloc(size ? size : 1);
    if (!p) throw std::bad_alloc();
    return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const unsigned hc = std::thread::hardware_concurrency();
const int pool = hc ? int(hc) : 8;
// The write mode: the .mapped registration of the mode-dependent cases sets
// VUN_MODE, which their children inherit.
const bool mapped = getenv("VUN_MODE") && std::string(getenv("VUN_MODE")) == "mapped";

// Every file of a directory, parsed.
std::map<std::string, parsed_trace> read_run(const std::string& dir) {
    std::map<std::string, parsed_trace> files;
    for (const std::string& name : list_dir(dir)) files[name] = parse_trace(read_file(dir + "/" + name));
    return files;
}

// A counter shared with the children forked after it is made.
template <typename T>
std::atomic<T>* shared_counter() {
    return new (mmap(nullptr, sizeof(std::atomic<T>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        std::atomic<T>(0);
}

// 20000 records on one thread, then "done".
void fill(zop_api& api) {
    for (unsigned long i = 0; i < 20000; ++i) api.id_create(nullptr, {i, 0, 0});
    printf("done\n");
}

// A process killed at a random moment leaves, in every file, a header and
// whole lines, the last maybe cut by the kill, then only zero bytes; every
// record that had returned before the kill is there whole.
TEST(killed_process, files_hold_every_returned_record) {
    std::mt19937 random(12345);
    for (int round = 0; round < 3; ++round) {
        temp_dir dir;
        // How many records the child has finished, seen by the parent.
        std::atomic<long>* done = shared_counter<long>();
        started_child child = start_child({{{"VUN_DIR", dir.path}}}, [done](zop_api& api) {
            for (unsigned long i = 0;; ++i) {
                api.id_create(nullptr, {i, 0, 0});
                done->store(long(i + 1));
            }
        });
        while (done->load() < 1000) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 200));
        kill(child.pid, SIGKILL);
        child_result result = wait_child(child);
        ASSERT_EQ(result.status, 128 + SIGKILL);
        long returned = done->load();
        munmap(done, sizeof(std::atomic<long>));

        std::string text = read_file(dir.path + "/_ryl.0");
        size_t content = text.find('\0');
        EXPECT_EQ(text.find_first_not_of('\0', content), std::string::npos)
            << "data after zeros at " << content << " of " << text.size();
        parsed_trace trace = parse_whole_records(text);
        ASSERT_TRUE(trace.ok) << trace.error;
        EXPECT_FALSE(trace.finished);
        std::vector<std::string> ids = created_ids(trace);
        ASSERT_GE(long(ids.size()), returned);
        for (long i = 0; i < long(ids.size()); ++i) ASSERT_EQ(ids[size_t(i)], std::to_string(i) + ",0");
    }
}

// Output stops at the process's file size limit instead of raising SIGXFSZ;
// in mapped mode the reservation fails first and the file goes on with
// ordinary writes up to the limit. Both happen in the middle of a record and
// need no memory: they work while every allocation fails.
TEST(full_disk, file_size_limit_stops_output_without_a_signal) {
    temp_dir dir;
    child_options options{{{"VUN_DIR", dir.path}}};
    options.before_load = [] {
        rlimit limit{300 * 1024, 300 * 1024};
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    child_result child = run_in_child(options, [](zop_api& api) {
        api.task_end(nullptr);  // the thread's writer is assigned
        fail_allocations = true;
        fill(api);
        fail_allocations = false;
    });
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "done\n");
    std::string file = dir.path + "/_ryl.0";
    std::string expected = "WARNING write to " + file + " failed: file size limit reached; its later records are dropped\n";
    if (mapped)
        expected = "WARNING could not reserve space in " + file +
                   ": File too large; writing it with ordinary writes\n" + expected;
    EXPECT_EQ(child.err, expected);
    std::string text = read_file(file);
    EXPECT_LE(text.size(), 300u * 1024);
    EXPECT_GT(text.size(), 250u * 1024);
    EXPECT_EQ(text.find('\0'), std::string::npos);
    parsed_trace trace = parse_trace(text.substr(0, text.rfind("<record>\n")));
    EXPECT_TRUE(trace.ok) << trace.error;
}

// Mapped mode, when the reservation fails and so does the switch to ordinary
// writes (a sealed memory file, a little longer than what is reserved, that
// can neither grow nor shrink): the file's output stops, its header stays.
TEST(full_disk, failed_switch_to_ordinary_writes_leaves_the_file_alone) {
    temp_dir dir;
    static int memory_file = -1;
    static std::string path = dir.path + "/_ryl.0";
    child_options options{{{"VUN_DIR", dir.path}, {"VUN_MODE", "mapped"}}};
    options.before_load = [] {
        memory_file = memfd_create("trace", MFD_ALLOW_SEALING);
        if (symlink(("/proc/self/fd/" + std::to_string(memory_file)).c_str(), path.c_str()) != 0) _exit(91);
    };
    child_result child = run_in_child(options, [](zop_api& api) {
        api.task_end(nullptr);
        if (ftruncate(memory_file, lseek(memory_file, 0, SEEK_END) + 100) != 0) _exit(90);
        fcntl(memory_file, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK);
        fill(api);
        char head[23] = "";
        printf("%d\n", pread(memory_file, head, 22, 0) == 22 && strcmp(head, "<?xml version=\"1.0\"?>\n") == 0);
    });
    ASSERT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "done\n1\n");
    EXPECT_EQ(child.err, "WARNING could not reserve space in " + path +
                             ": Operation not permitted; writing it with ordinary writes\nWARNING write to " + path +
                             " failed: Operation not permitted; its later records are dropped\n");
}

// A small file system filled up: the program ends normally, with one line
// per file that could not be reserved or written.
TEST(full_disk, small_file_system_fills_up) {
    temp_dir dir;
    if (mount("tmpfs", dir.path.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here (" << strerror(errno) << "); the size-limit test covers it";
    child_result child = run_in_child({{{"VUN_DIR", dir.path}}}, fill);
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(child.out, "done\n");
    EXPECT_NE(child.err.find("WARNING write to " + dir.path + "/_ryl.0 failed: No space left on device"),
              std::string::npos)
        << child.err;
    umount(dir.path.c_str());
}

// Processes that share VUN_DIR, side by side: nobody's file is truncated;
// every record of every process is there exactly once; every file is
// finished once.
TEST(several_processes, shared_run_directory) {
    temp_dir dir;
    const int processes = 4, records = 300;
    // All processes are loaded and alive before any of them emits.
    std::atomic<int>* loaded = shared_counter<int>();
    std::vector<started_child> children;
    for (int p = 0; p < processes; ++p)
        children.push_back(start_child({{{"VUN_DIR", dir.path}}}, [p, loaded](zop_api& api) {
            ++*loaded;
            while (loaded->load() < processes) std::this_thread::yield();
            for (int i = 0; i < records; ++i) api.id_create(nullptr, {unsigned(i), unsigned(p), 0});
        }));
    for (const started_child& c : children) ASSERT_EQ(wait_child(c).status, 0);
    munmap(loaded, sizeof(std::atomic<int>));
    std::map<std::string, int> seen;
    auto files = read_run(dir.path);
    EXPECT_EQ(files.size(), size_t(processes * pool));
    for (const auto& file : files) {
        EXPECT_TRUE(file.second.ok && file.second.finished) << file.first << ": " << file.second.error;
        for (const std::string& id : created_ids(file.second)) ++seen[id];
    }
    EXPECT_EQ(seen.size(), size_t(processes * records));
    for (const auto& id : seen) EXPECT_EQ(id.second, 1) << id.first;
}

// Without VUN_DIR: two processes started side by side, most often in the same
// second, get a run directory each; in a working directory that has gone the
// run directory cannot be made: no crash, and the documented message. (A
// VUN_DIR pattern, one that cannot be made and an unknown VUN_MODE are cases
// of core_collector_test.)
TEST(without_vun_dir, same_second_gets_two_directories_and_gone_working_directory_none) {
    temp_dir cwd, gone_cwd;
    child_options options{{}, {"VUN_DIR"}, cwd.path}, gone{{}, {"VUN_DIR"}, gone_cwd.path};
    gone.before_load = [&] { rmdir(gone_cwd.path.c_str()); };
    started_child a = start_child(options, [](zop_api& api) { api.id_create(nullptr, {1, 0, 0}); });
    started_child b = start_child(options, [](zop_api& api) { api.id_create(nullptr, {2, 0, 0}); });
    started_child g = start_child(gone, [](zop_api& api) { api.task_end(nullptr); });
    child_result ra = wait_child(a), rb = wait_child(b), rg = wait_child(g);
    ASSERT_EQ(std::make_tuple(ra.status, rb.status, rg.status), std::make_tuple(0, 0, 0));
    EXPECT_EQ(ra.out + rb.out, "");
    EXPECT_TRUE(std::regex_match(rg.out, std::regex("WARNING when issuing: mkdir _vun_\\d{8}_\\d{6}\n"))) << rg.out;
    std::vector<std::string> dirs = list_dir(cwd.path);
    ASSERT_EQ(dirs.size(), 2u);
    std::set<std::string> ids;
    for (const std::string& d : dirs) {
        auto files = read_run(cwd.path + "/" + d);
        EXPECT_EQ(files.size(), size_t(pool));
        for (const std::string& id : created_ids(files["_ryl.0"])) ids.insert(id);
    }
    EXPECT_EQ(ids, (std::set<std::string>{"1,0", "2,0"}));
}

// fork() without exec: the child drops its parent's writers without writing
// to them; the parent's files end exactly as if there had been no child.
TEST(fork, child_never_touches_parent_files) {
    for (bool child_first : {true, false}) {
        temp_dir dir;
        child_result parent = run_in_child({{{"VUN_DIR", dir.path}}}, [&](zop_api& api) {
            api.id_create(nullptr, {1, 0, 0});
            std::thread([&] { api.id_create(nullptr, {2, 0, 0}); }).join();
            pid_t pid = fork();
            if (pid == 0) {
                if (!child_first) usleep(50000);
                api.id_create(nullptr, {10, 0, 0});
                std::thread([&] { api.id_create(nullptr, {11, 0, 0}); }).join();
                exit(0);
            }
            if (child_first) waitpid(pid, nullptr, 0);
            api.id_create(nullptr, {3, 0, 0});
            if (!child_first) waitpid(pid, nullptr, 0);
        });
        ASSERT_EQ(parent.status, 0) << parent.err;
        auto files = read_run(dir.path);
        ASSERT_EQ(files.size(), size_t(pool + 2)) << child_first;
        EXPECT_EQ(created_ids(files["_ryl.0"]), (std::vector<std::string>{"1,0", "3,0"}));
        // The child's threads got new files, numbered past the parent's.
        for (auto id : {std::make_pair(1, "2,0"), {pool, "10,0"}, {pool + 1, "11,0"}})
            EXPECT_EQ(created_ids(files["_ryl." + std::to_string(id.first)]), std::vector<std::string>{id.second});
        for (const auto& file : files)
            EXPECT_TRUE(file.second.ok && file.second.finished) << file.first << ": " << file.second.error;
    }
}

// A signal handler that emits while its thread is inside a record: the
// handler's record is dropped whole, nothing deadlocks, every file stays
// well-formed.
zop_api* handler_api;
std::atomic<long> handler_calls{0};
void emit_from_handler(int) {
    handler_api->id_create(nullptr, {999, 0, 0});
    handler_api->domain_createA("from handler");
    ++handler_calls;
}

// A thread held at a random point (often inside a record) by a signal
// handler that never returns, while the process exits: the exit waits about a
// second, never hangs or crashes, the other files are finished, and the held
// thread's file keeps whole records up to where it stopped.
void hold_forever(int) {
    for (;;) pause();
}

// In the first round the main thread first emits for half a second under
// emitting handlers, then a thread is held as in every round.
TEST(signal_handler, emitting_handler_and_thread_held_inside_a_record_at_exit) {
    for (int round = 0; round < 3; ++round) {
        temp_dir dir;
        child_options options{{{"VUN_DIR", dir.path}}};
        options.timeout_seconds = 20;
        // Runs after the collector's end and leaves at once: LeakSanitizer's
        // check at the very end cannot stop a thread held in a handler.
        options.before_load = [] { atexit([] { _exit(0); }); };
        auto start = std::chrono::steady_clock::now();
        child_result child = run_in_child(options, [round](zop_api& api) {
            api.task_end(nullptr);  // the main thread's file is _ryl.0
            if (round == 0) {
                handler_api = &api;
                // Made beforehand: in the handler it is a lookup, which allocates nothing.
                api.domain_createA("from handler");
                struct sigaction action {};
                action.sa_handler = emit_from_handler;
                sigaction(SIGPROF, &action, nullptr);
                itimerval timer{{0, 200}, {0, 200}};
                setitimer(ITIMER_PROF, &timer, nullptr);
                auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
                for (unsigned long i = 0; std::chrono::steady_clock::now() < end; ++i) {
                    api.id_create(nullptr, {i, 1, 0});
                    api.string_handle_createA(i % 2 ? "a" : "b");
                }
                itimerval off{};
                setitimer(ITIMER_PROF, &off, nullptr);
                printf("%d\n", handler_calls.load() > 0);
            }
            static std::atomic<long> emitted{0};
            signal(SIGUSR1, hold_forever);  // the handler never returns: no flags matter
            std::thread held([&api] {
                for (unsigned long i = 0;; ++i) {
                    api.id_create(nullptr, {i, 0, 0});
                    emitted.store(long(i + 1));
                }
            });
            while (emitted.load() < 1000 * (round + 1)) std::this_thread::yield();
            pthread_kill(held.native_handle(), SIGUSR1);
            held.detach();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        });
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ASSERT_EQ(child.status, 0) << child.err;
        EXPECT_EQ(child.out, round == 0 ? "1\n" : "");
        EXPECT_LT(seconds, 5.0);
        std::map<std::string, parsed_trace> files = read_run(dir.path);
        for (const auto& file : files)
            if (file.first != "_ryl.1")
                EXPECT_TRUE(file.second.ok && file.second.finished) << file.first << ": " << file.second.error;
        // The held file: possibly finished behind a record cut short, possibly
        // (held in the middle of a line) left with a zero-filled tail.
        parsed_trace trace = parse_whole_records(read_file(dir.path + "/_ryl.1"));
        ASSERT_TRUE(trace.ok) << trace.error;
        std::vector<std::string> ids = created_ids(trace);
        ASSERT_GE(ids.size(), size_t(1000 * (round + 1)));
        for (size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(ids[i], std::to_string(i) + ",0");
    }
}

}  // namespace
