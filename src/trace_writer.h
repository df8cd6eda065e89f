// The trace writer: one trace file, written line by line.
#pragma once
#include <sys/uio.h>

#include <atomic>
#include <mutex>
#include <string>

#include "zop_minimal.h"

#define RYL_EXPORT __attribute__((visibility("default")))

namespace writer {

// One row of the record catalogue: the name written as the record's first
// field and the type codes of the fields its producer appends.
struct record_description {
    const char* name;
    int field_types[5];
};

// Indexed by __zop_record_t.
extern const record_description record_descriptions[20];

class trace_writer {
public:
    // Creates "<directory>/_ryl.<number>" (emptying a file of that name) and
    // writes the header. A file that cannot be created diverts the writer's
    // text to standard error, each lock span preceded by a warning.
    trace_writer(int number, std::string directory);
    ~trace_writer();
    trace_writer(const trace_writer&) = delete;
    trace_writer& operator=(const trace_writer&) = delete;

    // One scalar field line; integers in decimal, a string byte for byte
    // (a null string as an empty field).
    void write(unsigned long long value);
    void write(unsigned long value) { write(static_cast<unsigned long long>(value)); }
    void write(unsigned int value) { write(static_cast<unsigned long long>(value)); }
    void write(long long value);
    void write(long value) { write(static_cast<long long>(value)); }
    void write(int value) { write(static_cast<long long>(value)); }
    void write(const char* text);
    // An id as one compound field (five lines, one span).
    void write(const __zop_id& id);
    // "</record>"; also ends the owning thread's record in progress.
    void end_record();
    // The end_of_records record and "</trace>", then the file is closed.
    // Later spans of this writer are dropped.
    void finish();

    // Writes the text of one lock span to the writer's target; the caller
    // holds `mutex`.
    void emit(const iovec* parts, int count);
    // Locks, emits one span, unlocks.
    void emit_span(const iovec* parts, int count);

    enum class target_state { file, diverted, closed };

    std::string directory;
    std::mutex mutex;                  // guards everything below
    int fd = -1;                       // the trace file
    target_state target = target_state::diverted;
    bool write_failed = false;         // a write to the file failed: drop the rest
    // The owning thread's "record in progress" flag, cleared by end_record.
    std::atomic<bool>* in_record = nullptr;
};

// Opens a record: "<record>", the name field and the timestamp field, each
// its own lock span.
RYL_EXPORT void write_begin_record(trace_writer* writer, __zop_record_t kind);

// Nanoseconds since the Unix epoch from the realtime clock.
long long timestamp_now();

}  // namespace writer
