// The trace writer: one trace file, written line by line.
#pragma once
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "zop_minimal.h"

#define RYL_EXPORT __attribute__((visibility("default")))

namespace writer {

// Ordering between a thread's hot path and the rare party that meets it
// there (the collector, finishing files). Where the kernel can run a full
// barrier on every thread of the process on request (membarrier), the hot
// side needs only a compiler barrier and the rare side pays the system call;
// elsewhere both sides fence.
extern bool asymmetric_barriers;
// Registers the process for those barriers; false where the kernel (or a
// sandbox) refuses, or under the thread sanitizer, which cannot see them.
bool enable_asymmetric_barriers();
inline void light_barrier() {
    if (asymmetric_barriers)
        std::atomic_signal_fence(std::memory_order_seq_cst);
    else
        std::atomic_thread_fence(std::memory_order_seq_cst);
}
void heavy_barrier();

// How trace files are written: one write call per lock span, or copies into
// a shared mapping of the file.
enum class write_mode { stream, mapped };

// On cache lines of its own: each thread writes its own writer's fields.
class alignas(64) trace_writer {
public:
    // Writes the header into the trace file at `path`, which the collector
    // has opened, locked and emptied. fd < 0 (the file could not be created)
    // diverts the writer's text to standard error, each lock span preceded
    // by a warning.
    trace_writer(int fd, std::string path, std::string directory, write_mode mode);
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
    // "</record>".
    void end_record();
    // The end_of_records record and "</trace>", then the file is cut to its
    // content and closed. Later spans of this writer are dropped.
    void finish();
    // Takes the writer from the thread that owns it, which may be in the
    // middle of a span: afterwards every span, the owner's too, takes
    // `mutex`. False when the owner is still inside its span at the deadline.
    bool claim(std::chrono::steady_clock::time_point deadline);
    // Forgets the file without writing to it (a forked child's copy of its
    // parent's writer): the mapping and the descriptor go, the file stays.
    void abandon();

    // Writes the text of one lock span to the writer's target; the caller
    // holds `mutex`.
    void emit(const iovec* parts, int count);
    // Locks, emits one span, unlocks.
    void emit_span(const iovec* parts, int count);

    enum class target_state { file, mapped, diverted, closed };

    std::string directory;
    // While `shared` is false only the owning thread writes, and its spans
    // raise `owner_writing` instead of taking `mutex` (see claim).
    std::atomic<bool> shared{true};
    std::atomic<bool> owner_writing{false};
    std::mutex mutex;   // guards everything below
    std::string path;   // the trace file, for messages
    int fd = -1;
    target_state target = target_state::diverted;
    bool stopped = false;               // a write failed or the size limit came: drop the rest
    unsigned long long length = 0;      // bytes of content in the file
    unsigned long long size_limit = 0;  // the process's file size limit
    // Mapped mode: a window of the file mapped at `window`, starting at file
    // offset `window_offset`; the file is reserved (zero-filled) up to
    // `reserved`, which never passes the window's end.
    char* window = nullptr;
    unsigned long long window_offset = 0;
    unsigned long long reserved = 0;

private:
    void open_target(write_mode mode);
    bool write_file(iovec* parts, int count);
    void write_mapped(iovec* parts, int count);
    bool reserve_next_chunk(int& error);
    void unmap_window();
    void unmap_to_stream(int error);
    void stop_output(const char* why);
};

// Opens a record: "<record>", the name field and the timestamp field, each
// its own lock span.
RYL_EXPORT void write_begin_record(trace_writer* writer, __zop_record_t kind);

// Nanoseconds since the Unix epoch from the realtime clock.
long long timestamp_now();

}  // namespace writer
