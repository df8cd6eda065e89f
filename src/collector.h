// The collector: the run directory, the pool of pre-opened trace writers and
// one writer per emitting thread.
#pragma once
#include <atomic>
#include <list>
#include <mutex>
#include <string>

#include "trace_writer.h"

namespace writer {

class ryl_collector {
public:
    // The per-thread holder of a thread's writer. Never freed: a thread may
    // still reach it after its file is finished. A cache line of its own, so
    // that threads setting their flags do not slow each other down.
    struct alignas(64) trace_writer_wrapper {
        virtual ~trace_writer_wrapper() {}
        std::atomic<ryl_collector*> collector{nullptr};     // null once the files are finished
        std::atomic<trace_writer*> thread_writer{nullptr};  // null until the thread's first record
        // Set from the opening of a record until its end: a record begun
        // while it is set (a signal handler, a re-entry) is dropped, and the
        // collector waits for it before finishing the thread's file.
        std::atomic<bool> in_record{false};
    };

    // Reads VUN_DIR, creates the run directory and opens the writer pool.
    ryl_collector();
    ryl_collector(const ryl_collector&) = delete;
    ryl_collector& operator=(const ryl_collector&) = delete;
    // Never destroyed (see zop_minimal.cpp): events during and after the end
    // still find it.

    // Finishes every trace file, once: threads' files in the order of their
    // first records, then the writers nobody took. Later events are dropped.
    void finish_files();

    // Chooses and creates the run directory when VUN_DIR did not name one.
    void set_ryl_directory();

    // Opens the writer of the first free file number from `number` on.
    trace_writer* open_writer(int& number);
    // In a forked child: drops the parent's writers without writing to them.
    void forget_parent_writers();
    // A wrapper for the calling thread, registered; null once finished.
    trace_writer_wrapper* new_wrapper();
    // Gives the wrapper a pooled or new writer; null once finished.
    trace_writer* assign_writer(trace_writer_wrapper* wrapper);

    std::mutex mutex;            // guards the fields below and the handle registries
    std::mutex directory_mutex;  // guards the choice of the run directory
    std::string directory;
    write_mode mode = write_mode::stream;  // from VUN_MODE
    long long load_time = 0;  // files modified since then belong to this run (VUN_RUN_START, else the load)
    int initial_writers = 8;
    int next_file_number = 0;
    std::list<trace_writer_wrapper*> wrappers;
    std::list<trace_writer*> writer_pool;
    bool finished = false;  // finish_files has begun: no wrapper or writer is handed out
};

// Holds the collector mutex unless the calling thread holds it already (a
// signal handler that interrupted the thread inside the library): then
// `mutex` is null and the caller gives up instead of deadlocking.
struct collector_lock {
    explicit collector_lock(ryl_collector* collector);
    ~collector_lock();
    collector_lock(const collector_lock&) = delete;
    collector_lock& operator=(const collector_lock&) = delete;
    std::mutex* mutex;
};

// The process-wide collector.
RYL_EXPORT ryl_collector* get_ftc();

// True while the calling thread is writing a record (a signal handler that
// interrupted it there must not wait for any lock of the library).
bool thread_in_record();

// One record on the calling thread's writer. The constructor opens it
// ("<record>", name, timestamp) and sets `writer`, or leaves `writer` null
// when no record can be written (the event is dropped); the caller then
// writes the kind's fields and ends with writer->end_record(). The thread's
// record-in-progress flag is raised from the start until this goes, on every
// path (an exception included).
class open_record {
public:
    explicit open_record(__zop_record_t kind);
    open_record(const open_record&) = delete;
    open_record& operator=(const open_record&) = delete;

    trace_writer* writer = nullptr;

private:
    struct raised_flag {
        std::atomic<bool>* flag = nullptr;
        ~raised_flag() {
            if (flag) flag->store(false, std::memory_order_release);
        }
    } in_record;
};

}  // namespace writer
