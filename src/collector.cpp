#include "collector.h"

#include <dirent.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>

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

bool directory_exists(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (!dir) return false;
    closedir(dir);
    return true;
}

void print_stdout_line(const std::string& text) {
    fputs(text.c_str(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

// VUN_MODE: unset, empty or "stream" writes with one call per lock span,
// "mapped" through shared mappings of the files.
write_mode mode_from_environment() {
    const char* value = getenv("VUN_MODE");
    if (!value || !*value || strcmp(value, "stream") == 0) return write_mode::stream;
    if (strcmp(value, "mapped") == 0) return write_mode::mapped;
    std::string line = std::string("WARNING unknown VUN_MODE '") + value + "': writing trace files in stream mode\n";
    fputs(line.c_str(), stderr);
    fflush(stderr);
    return write_mode::stream;
}

}  // namespace

ryl_collector::ryl_collector() {
    if (const char* dir = getenv("VUN_DIR")) directory = dir;
    mode = mode_from_environment();
    std::lock_guard<std::mutex> lock(mutex);
    if (unsigned n = std::thread::hardware_concurrency()) initial_writers = int(n);
    set_ryl_directory();
    int first = next_file_number;
    next_file_number += initial_writers;
    for (int number = first; number < first + initial_writers; ++number)
        writer_pool.push_back(new trace_writer(number, directory, mode));
}

void ryl_collector::set_ryl_directory() {
    std::lock_guard<std::mutex> lock(directory_mutex);
    if (!directory.empty()) return;
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    char base[64];
    strftime(base, sizeof base, "_vun_%Y%m%d_%H%M%S", &local);
    directory = base;
    if (directory_exists(directory)) {
        for (int counter = 0; counter < 1000; ++counter) {
            char candidate[80];
            snprintf(candidate, sizeof candidate, "%s_%03d", base, counter);
            if (!directory_exists(candidate)) {
                directory = candidate;
                break;
            }
        }
    }
    if (mkdir(directory.c_str(), 0777) != 0) print_stdout_line("WARNING when issuing: mkdir " + directory);
}

ryl_collector::~ryl_collector() {
    // Detach every thread first, then wait (briefly) for records in
    // progress, so no thread writes into a file being finished or freed.
    {
        std::lock_guard<std::mutex> lock(mutex);
        destroyed = true;
        for (trace_writer_wrapper* wrapper : wrappers) wrapper->collector.store(nullptr);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    std::lock_guard<std::mutex> lock(mutex);
    for (trace_writer_wrapper* wrapper : wrappers) {
        while (wrapper->in_record.load() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        trace_writer* writer = wrapper->thread_writer.exchange(nullptr);
        if (!writer) continue;
        bool idle = !wrapper->in_record.load();
        writer->finish();
        // A thread stuck inside a record may still touch its writer: leave it.
        if (idle) delete writer;
    }
    wrappers.clear();
    for (trace_writer* writer : writer_pool) {
        writer->finish();
        delete writer;
    }
    writer_pool.clear();
}

ryl_collector::trace_writer_wrapper* ryl_collector::new_wrapper() {
    std::lock_guard<std::mutex> lock(mutex);
    if (destroyed) return nullptr;
    auto* wrapper = new trace_writer_wrapper;
    wrapper->collector.store(this);
    wrappers.push_back(wrapper);
    return wrapper;
}

trace_writer* ryl_collector::assign_writer(trace_writer_wrapper* wrapper) {
    trace_writer* writer = nullptr;
    int number = 0;
    std::string dir;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (destroyed) return nullptr;
        // One lock whether the pool has a writer or a new number is taken,
        // so the pool's emptiness is never looked at without it.
        if (!writer_pool.empty()) {
            writer = writer_pool.front();
            writer_pool.pop_front();
        } else {
            number = next_file_number++;
            dir = directory;
        }
    }
    // A new file is created and its header written outside the collector lock.
    if (!writer) writer = new (std::nothrow) trace_writer(number, std::move(dir), mode);
    if (!writer) return nullptr;
    writer->in_record = &wrapper->in_record;
    wrapper->thread_writer.store(writer, std::memory_order_release);
    return writer;
}

trace_writer* begin_record(__zop_record_t kind) {
    ryl_collector* collector = get_ftc();
    ryl_collector::trace_writer_wrapper* wrapper = current_wrapper;
    if (!wrapper) {
        try {
            wrapper = collector->new_wrapper();
        } catch (...) {
            return nullptr;
        }
        if (!wrapper) return nullptr;
        current_wrapper = wrapper;
    }
    // A record already in progress on this thread: this one is dropped whole.
    if (wrapper->in_record.exchange(true)) return nullptr;
    trace_writer* writer = wrapper->thread_writer.load(std::memory_order_acquire);
    if (!wrapper->collector.load()) {
        wrapper->in_record.store(false, std::memory_order_release);
        return nullptr;
    }
    if (!writer) {
        try {
            writer = collector->assign_writer(wrapper);
        } catch (...) {
            writer = nullptr;
        }
    }
    if (!writer) {
        wrapper->in_record.store(false, std::memory_order_release);
        return nullptr;
    }
    write_begin_record(writer, kind);
    return writer;
}

}  // namespace writer
