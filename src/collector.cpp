#include "collector.h"

#include "run_directory.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

namespace writer {

namespace {

// The calling thread's wrapper. A plain pointer with constant initialisation
// registers no thread-exit handler, so the library can still be unloaded.
thread_local ryl_collector::trace_writer_wrapper* current_wrapper = nullptr;
// Set while this thread holds the collector mutex, so that a signal handler
// interrupting it there gives up instead of deadlocking.
thread_local bool holding_collector_mutex = false;

void print_line(FILE* stream, const std::string& text) {
    fputs((text + "\n").c_str(), stream);
    fflush(stream);
}

void report_mkdir_failure(const std::string& directory) {
    print_line(stdout, "WARNING when issuing: mkdir " + directory);
}

// VUN_MODE: unset, empty or "stream" writes with one call per lock span,
// "mapped" through shared mappings of the files.
write_mode mode_from_environment() {
    const char* value = getenv("VUN_MODE");
    if (!value || !*value || strcmp(value, "stream") == 0) return write_mode::stream;
    if (strcmp(value, "mapped") == 0) return write_mode::mapped;
    print_line(stderr, std::string("WARNING unknown VUN_MODE '") + value + "': writing trace files in stream mode");
    return write_mode::stream;
}

bool is_directory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Gives a writer to its thread; the caller holds the collector mutex. From
// here only that thread writes to it, until finish_files claims it.
void hand_over(trace_writer* writer, ryl_collector::trace_writer_wrapper* wrapper) {
    writer->shared.store(!asymmetric_barriers, std::memory_order_relaxed);
    wrapper->thread_writer.store(writer, std::memory_order_release);
}

// Fork handlers: the child must never write into, finish or truncate its
// parent's files.
void before_fork() {
    get_ftc()->mutex.lock();
}

void after_fork_in_parent() {
    get_ftc()->mutex.unlock();
}

void after_fork_in_child() {
    get_ftc()->forget_parent_writers();
    current_wrapper = nullptr;
    get_ftc()->mutex.unlock();
}

}  // namespace

// The flag is up from before the lock is taken until after it is released:
// a signal arriving in between then gives up rather than wait for a mutex
// its own thread may hold.
collector_lock::collector_lock(ryl_collector* collector) : mutex(&collector->mutex) {
    if (holding_collector_mutex) {
        mutex = nullptr;
        return;
    }
    holding_collector_mutex = true;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    mutex->lock();
}

collector_lock::~collector_lock() {
    if (!mutex) return;
    mutex->unlock();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    holding_collector_mutex = false;
}

ryl_collector::ryl_collector() {
    if (const char* dir = getenv("VUN_DIR")) directory = dir;
    mode = mode_from_environment();
    load_time = timestamp_now();
    // ryl run states when its run began: files modified since then belong to
    // processes of the run that have ended already, and are never taken over.
    if (const char* start = getenv("VUN_RUN_START")) {
        char* end = nullptr;
        errno = 0;
        const unsigned long long value = strtoull(start, &end, 10);
        if (*start >= '0' && *start <= '9' && end && !*end && errno == 0 && value > 0 &&
            value < static_cast<unsigned long long>(load_time))
            load_time = static_cast<long long>(value);
    }
    enable_asymmetric_barriers();
    std::lock_guard<std::mutex> lock(mutex);
    if (unsigned n = std::thread::hardware_concurrency()) initial_writers = int(n);
    set_ryl_directory();
    for (int i = 0; i < initial_writers; ++i) {
        int number = next_file_number++;
        writer_pool.push_back(open_writer(number));
        next_file_number = number + 1;
    }
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

void ryl_collector::set_ryl_directory() {
    std::lock_guard<std::mutex> lock(directory_mutex);
    if (!directory.empty()) {
        if (directory.find('%') == std::string::npos) return;
        directory = run_directory::expand_pattern(directory);
        if (mkdir(directory.c_str(), 0777) != 0 && !(errno == EEXIST && is_directory(directory)))
            report_mkdir_failure(directory);
        return;
    }
    if (run_directory::create_fresh(directory) != 0) report_mkdir_failure(directory);
}

// Opens the trace file of `number`, or of the first later number whose file
// no other process of the run owns; `number` is left at the one taken. A
// file is taken over (emptied) only when no live process holds its lock and
// it is older than this process's collector (a file of an earlier run).
trace_writer* ryl_collector::open_writer(int& number) {
    for (;; ++number) {
        std::string path = directory + "/_ryl." + std::to_string(number);
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) return new trace_writer(-1, path, directory, mode);  // diverted
        if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            close(fd);
            continue;
        }
        struct stat st;
        bool known = fstat(fd, &st) == 0;
        if (known && st.st_size > 0 && st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec >= load_time) {
            close(fd);
            continue;
        }
        // An empty file is left alone: emptying it anyway would make ext4
        // start writing the whole trace back when the file is closed.
        if (!(known && st.st_size == 0) && ftruncate(fd, 0) != 0) {
            close(fd);
            return new trace_writer(-1, path, directory, mode);
        }
        return new trace_writer(fd, path, directory, mode);
    }
}

void ryl_collector::forget_parent_writers() {
    // Only the forking thread lives on; whatever other threads held (their
    // writers' locks included) is left untouched.
    for (trace_writer_wrapper* wrapper : wrappers) {
        wrapper->collector.store(nullptr);
        if (trace_writer* w = wrapper->thread_writer.exchange(nullptr)) w->abandon();
    }
    for (trace_writer* w : writer_pool) w->abandon();
    wrappers.clear();
    writer_pool.clear();
}

void ryl_collector::finish_files() {
    // Detach every thread and take the lists, then wait (briefly) for records
    // in progress without the mutex, so that a thread whose first record
    // needs it is never waited for while it waits for us.
    std::list<trace_writer_wrapper*> threads;
    std::list<trace_writer*> pool;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (finished) return;
        finished = true;
        for (trace_writer_wrapper* wrapper : wrappers) wrapper->collector.store(nullptr, std::memory_order_relaxed);
        threads.swap(wrappers);
        pool.swap(writer_pool);
    }
    heavy_barrier();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (trace_writer_wrapper* wrapper : threads) {
        // One sight of the flag down is enough: any record the thread begins
        // afterwards sees the collector gone and leaves the writer alone.
        bool idle = !wrapper->in_record.load(std::memory_order_acquire);
        while (!idle && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            idle = !wrapper->in_record.load(std::memory_order_acquire);
        }
        trace_writer* writer = wrapper->thread_writer.exchange(nullptr);
        if (!writer) continue;
        // A thread stuck inside a record may still touch its writer: it is
        // finished between the thread's spans (its later spans are dropped)
        // and never freed. One stuck in the middle of a span is left alone.
        if (idle || writer->claim(std::chrono::steady_clock::now() + std::chrono::milliseconds(100)))
            writer->finish();
        if (idle)
            delete writer;
        else
            wrapper->thread_writer.store(writer);  // kept, as the wrapper is
    }
    for (trace_writer* writer : pool) {
        writer->finish();
        delete writer;
    }
}

ryl_collector::trace_writer_wrapper* ryl_collector::new_wrapper() {
    collector_lock lock(this);
    if (!lock.mutex || finished) return nullptr;
    auto* wrapper = new trace_writer_wrapper;
    wrapper->collector.store(this);
    wrappers.push_back(wrapper);
    return wrapper;
}

// A writer reaches the wrapper only under the mutex and before the end, so
// finish_files finds every writer that was handed out.
trace_writer* ryl_collector::assign_writer(trace_writer_wrapper* wrapper) {
    trace_writer* writer = nullptr;
    int number = 0;
    {
        collector_lock lock(this);
        if (!lock.mutex || finished) return nullptr;
        if (!writer_pool.empty()) {
            writer = writer_pool.front();
            writer_pool.pop_front();
            hand_over(writer, wrapper);
            return writer;
        }
        number = next_file_number++;
    }
    // A new file is created and its header written outside the collector
    // lock; numbers owned by other processes are skipped.
    writer = open_writer(number);
    collector_lock lock(this);
    if (lock.mutex && next_file_number <= number) next_file_number = number + 1;
    if (!lock.mutex || finished) {
        // Too late: the file is finished at once, empty.
        writer->finish();
        delete writer;
        return nullptr;
    }
    hand_over(writer, wrapper);
    return writer;
}

bool thread_in_record() {
    ryl_collector::trace_writer_wrapper* wrapper = current_wrapper;
    return wrapper && wrapper->in_record.load(std::memory_order_relaxed);
}

open_record::open_record(__zop_record_t kind) {
    ryl_collector* collector = get_ftc();
    ryl_collector::trace_writer_wrapper* wrapper = current_wrapper;
    if (!wrapper) {
        try {
            wrapper = collector->new_wrapper();
        } catch (...) {
            return;
        }
        if (!wrapper) return;
        current_wrapper = wrapper;
    }
    // Once the collector is gone the thread leaves its flag alone, so the
    // end's wait for it ends at once.
    if (!wrapper->collector.load(std::memory_order_relaxed)) return;
    // A record already in progress on this thread (a signal handler that
    // interrupted it): this one is dropped whole. A handler running between
    // the look and the raise writes its whole record before this one starts.
    if (wrapper->in_record.load(std::memory_order_relaxed)) return;
    wrapper->in_record.store(true, std::memory_order_relaxed);
    in_record.flag = &wrapper->in_record;
    // Flag up, then look at the collector; finish_files does the opposite,
    // so either it waits for this record or this record sees it gone.
    light_barrier();
    if (!wrapper->collector.load(std::memory_order_relaxed)) return;
    trace_writer* w = wrapper->thread_writer.load(std::memory_order_acquire);
    if (!w) {
        try {
            w = collector->assign_writer(wrapper);
        } catch (...) {
            return;
        }
        if (!w) return;
    }
    write_begin_record(w, kind);
    writer = w;
}

}  // namespace writer
