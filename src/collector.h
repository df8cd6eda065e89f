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
    // still reach it after the collector is gone.
    struct trace_writer_wrapper {
        virtual ~trace_writer_wrapper() {}
        std::atomic<ryl_collector*> collector{nullptr};     // null once the collector is destroyed
        std::atomic<trace_writer*> thread_writer{nullptr};  // null until the thread's first record
        // Set from the opening of a record until its end: a record begun
        // while it is set (a signal handler, a re-entry) is dropped, and the
        // collector waits for it before finishing the thread's file.
        std::atomic<bool> in_record{false};
    };

    // Reads VUN_DIR, creates the run directory and opens the writer pool.
    ryl_collector();
    // Finishes every trace file: threads' files in the order of their first
    // records, then the writers nobody took.
    ~ryl_collector();
    ryl_collector(const ryl_collector&) = delete;
    ryl_collector& operator=(const ryl_collector&) = delete;

    // Chooses and creates the run directory when VUN_DIR did not name one.
    void set_ryl_directory();

    // A wrapper for the calling thread, registered; null once destroyed.
    trace_writer_wrapper* new_wrapper();
    // Gives the wrapper a pooled or new writer; null once destroyed.
    trace_writer* assign_writer(trace_writer_wrapper* wrapper);

    std::mutex mutex;            // guards the fields below and the handle registries
    std::mutex directory_mutex;  // guards the choice of the run directory
    std::string directory;
    write_mode mode = write_mode::stream;  // from VUN_MODE
    int initial_writers = 8;
    int next_file_number = 0;
    std::list<trace_writer_wrapper*> wrappers;
    std::list<trace_writer*> writer_pool;
    bool destroyed = false;
};

// The process-wide collector.
RYL_EXPORT ryl_collector* get_ftc();

// Opens a record of `kind` on the calling thread's writer and returns the
// writer, or null when no record can be written (the event is dropped). The
// caller writes the kind's fields and ends with end_record().
trace_writer* begin_record(__zop_record_t kind);

}  // namespace writer
