#include "trace_writer.h"

#include "record_kinds.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/membarrier.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <thread>
#include <type_traits>

namespace writer {

// The row numbers of the catalogue are the values of __zop_record_t.
static_assert(int(__zop_record_end_of_records) == trace_format::kind_end_of_records &&
                  trace_format::kind_count == 20,
              "record kinds and __zop_record_t differ");

namespace {

// Record names in zero-padded words, for forward_writer::put_padded.
struct padded_name {
    char text[24];
    size_t size;
};
struct padded_name_table {
    padded_name rows[trace_format::kind_count];
};
constexpr padded_name_table make_padded_names() {
    padded_name_table table{};
    for (int i = 0; i < trace_format::kind_count; ++i) {
        const char* name = trace_format::record_kinds[i].name;
        padded_name& row = table.rows[i];
        while (name[row.size]) {
            row.text[row.size] = name[row.size];
            ++row.size;
        }
    }
    return table;
}
constexpr padded_name_table padded_names = make_padded_names();

}  // namespace

bool asymmetric_barriers = false;

bool enable_asymmetric_barriers() {
#if defined(__SANITIZE_THREAD__)
    return false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    return false;
#endif
#endif
    long commands = syscall(__NR_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    if (commands < 0 || !(commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED)) return false;
    asymmetric_barriers = syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    return asymmetric_barriers;
}

void heavy_barrier() {
    // Registered processes cannot be refused this command (a forked child
    // inherits the registration).
    if (asymmetric_barriers) syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

namespace {

// One lock span: the writer's mutex, or for the owning thread of an
// unshared writer only its mark (raised, then `shared` looked at again: a
// claim in between sends the span to the mutex).
class span_guard {
public:
    explicit span_guard(trace_writer& w) : writer(w) {
        if (!w.shared.load(std::memory_order_relaxed)) {
            w.owner_writing.store(true, std::memory_order_relaxed);
            light_barrier();
            if (!w.shared.load(std::memory_order_relaxed)) return;
            w.owner_writing.store(false, std::memory_order_release);
        }
        w.mutex.lock();
        locked = true;
    }
    ~span_guard() {
        if (locked)
            writer.mutex.unlock();
        else
            writer.owner_writing.store(false, std::memory_order_release);
    }
    span_guard(const span_guard&) = delete;
    span_guard& operator=(const span_guard&) = delete;

private:
    trace_writer& writer;
    bool locked = false;
};

const char warning_text[] = "WARNING NO OPEN FILE: ";

// Mapped files grow by this much at a time, with one write of zeros. Larger
// writes get large page-cache folios, which cost more per byte here.
constexpr size_t chunk_size = 256 * 1024;
// The file is mapped this much at a time: a new window (and the unmapping of
// the old one, which interrupts every other CPU running the process to
// flush its TLB) comes once per many chunks. Smaller where address space is
// scarce.
constexpr size_t window_size = sizeof(void*) >= 8 ? 64 * chunk_size : 4 * chunk_size;
// Zeros for reserving chunks; in .bss, so it costs no space in the file.
char zero_chunk[chunk_size];
constexpr char field_open[] = "<field>";
constexpr char field_close[] = "</field>\n";

iovec piece(const char* text, size_t size) { return iovec{const_cast<char*>(text), size}; }
iovec piece(const char* text) { return piece(text, strlen(text)); }

// Writes every byte of the pieces, going on after short writes and signals.
bool write_all(int fd, iovec* parts, int count) {
    while (count > 0) {
        // One piece (a formatted span, most of the time) needs no vector.
        ssize_t n = count == 1 ? write(fd, parts->iov_base, parts->iov_len) : writev(fd, parts, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        while (count > 0 && size_t(n) >= parts->iov_len) {
            n -= ssize_t(parts->iov_len);
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + n;
            parts->iov_len -= size_t(n);
        }
    }
    return true;
}

// Stores eight bytes into a mapped file, then keeps the compiler from moving
// later stores before them. Where a word is two machine words, the lower
// half goes first, so the bytes still land front to back.
inline void store_in_order(char* to, uint64_t word) {
    if (sizeof(void*) >= 8) {
        memcpy(to, &word, 8);
    } else {
        uint32_t low = uint32_t(word), high = uint32_t(word >> 32);
        memcpy(to, &low, 4);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        memcpy(to + 4, &high, 4);
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Copies into a mapped file strictly front to back, eight bytes at a time,
// so that a process killed in the middle leaves a prefix of the text and
// never later bytes behind a gap (number formatting, for one, fills its
// digits from the back).
void copy_in_order(char* to, const char* from, size_t size) {
    if (size < 8) {
        for (; size > 0; --size) {
            *to++ = *from++;
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        return;
    }
    const char* last = from + size - 8;
    for (; from < last; to += 8, from += 8) {
        uint64_t word;
        memcpy(&word, from, 8);
        store_in_order(to, word);
    }
    // The last eight bytes, overlapping what is written already with the
    // same bytes.
    uint64_t word;
    memcpy(&word, last, 8);
    store_in_order(to - (from - last), word);
}

// Appends text to a fixed buffer; returns the new end.
char* append(char* out, const char* text, size_t size) {
    memcpy(out, text, size);
    return out + size;
}
template <size_t N>
char* append(char* out, const char (&text)[N]) {
    return append(out, text, N - 1);
}

// A short constant text as words of eight bytes, the first byte lowest, so
// that putting it compiles to a few constant stores.
struct text_words {
    uint64_t words[3];
    unsigned size;
};
constexpr text_words words_of(const char* text) {
    text_words t{};
    for (; text[t.size]; ++t.size) t.words[t.size / 8] |= uint64_t(static_cast<unsigned char>(text[t.size])) << (8 * (t.size % 8));
    return t;
}
constexpr text_words field_open_words = words_of("<field>");
constexpr text_words field_close_words = words_of("</field>\n");
constexpr text_words record_open_words = words_of("<record>\n");
constexpr text_words record_close_words = words_of("</record>\n");
constexpr text_words compound_open_words = words_of("<compound_field>\n");
constexpr text_words compound_close_words = words_of("</compound_field>\n");

// The eight decimal digits of v < 10^8, leading zeros included, as one word
// with the first digit lowest, without the '0' added to each: two 4-digit
// halves, then 2-digit quarters, then digits, each step in parallel lanes.
inline uint64_t eight_digit_values(uint32_t v) {
    uint64_t x = uint64_t(v / 10000) | (uint64_t(v % 10000) << 32);
    uint64_t q = ((x * 10486) >> 20) & 0x0000007F0000007FULL;  // x / 100 in each 32-bit lane
    x = q | ((x - q * 100) << 16);
    q = ((x * 103) >> 10) & 0x000F000F000F000FULL;  // x / 10 in each 16-bit lane
    return q | ((x - q * 10) << 8);
}

// Builds a lock span's text with 8-byte stores only, strictly front to back,
// each holding final bytes (and zeros past the end of the text). Written
// straight into a mapped file, a process killed at any instruction leaves a
// prefix of the text followed by zeros. The target needs eight bytes of
// room past the text.
struct forward_writer {
    char* out;
    uint64_t pending = 0;  // bytes not stored yet, the first lowest
    unsigned count = 0;    // how many (at most 7)

    // `size` (1 to 8) bytes, the first lowest; the word is zero above them.
    __attribute__((always_inline)) void put(uint64_t bytes, unsigned size) {
        pending |= bytes << (8 * count);
        count += size;
        if (count >= 8) {
            store();
            out += 8;
            count -= 8;
            pending = count ? bytes >> (8 * (size - count)) : 0;
        }
    }
    __attribute__((always_inline)) void put(const text_words& text) {
        for (unsigned i = 0; i < text.size; i += 8) put(text.words[i / 8], text.size - i < 8 ? text.size - i : 8);
    }
    // Text whose storage can be read in whole words up to `size` rounded up.
    __attribute__((always_inline)) void put_padded(const char* text, size_t size) {
        for (size_t i = 0; i < size; i += 8) {
            uint64_t word;
            memcpy(&word, text + i, 8);
            size_t n = size - i < 8 ? size - i : 8;
            if (n < 8) word &= ~0ULL >> (64 - 8 * n);
            put(word, unsigned(n));
        }
    }
    __attribute__((always_inline)) void put_decimal(unsigned long long v) {
        if (v < 100000000) {
            put_leading(uint32_t(v));
        } else if (v < 10000000000000000ULL) {
            put_leading(uint32_t(v / 100000000));
            put(eight_digit_values(uint32_t(v % 100000000)) | 0x3030303030303030ULL, 8);
        } else {
            unsigned long long rest = v % 10000000000000000ULL;
            put_leading(uint32_t(v / 10000000000000000ULL));
            put(eight_digit_values(uint32_t(rest / 100000000)) | 0x3030303030303030ULL, 8);
            put(eight_digit_values(uint32_t(rest % 100000000)) | 0x3030303030303030ULL, 8);
        }
    }
    // v < 10^8 without leading zeros (one digit for zero).
    __attribute__((always_inline)) void put_leading(uint32_t v) {
        uint64_t digits = eight_digit_values(v);
        unsigned zeros = digits ? unsigned(__builtin_ctzll(digits)) / 8 : 7;
        put((digits | 0x3030303030303030ULL) >> (8 * zeros), 8 - zeros);
    }
    // "<field>" number "</field>\n"
    template <typename T>
    __attribute__((always_inline)) void put_number_field(T value) {
        put(field_open_words);
        unsigned long long magnitude = static_cast<unsigned long long>(value);
        if (std::is_signed<T>::value && value < T(0)) {
            put('-', 1);
            magnitude = 0ULL - magnitude;
        }
        put_decimal(magnitude);
        put(field_close_words);
    }
    // Stores what is pending, zeros after it; returns the end of the text.
    __attribute__((always_inline)) char* finish() {
        store();
        return out + count;
    }
    __attribute__((always_inline)) void store() { store_in_order(out, pending); }
};


}  // namespace

long long timestamp_now() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

trace_writer::trace_writer(int file, std::string file_path, std::string dir, write_mode mode)
    : directory(std::move(dir)) {
    std::lock_guard<std::mutex> lock(mutex);
    path = std::move(file_path);
    fd = file;
    open_target(mode);
}

// Chooses the target and writes the header; the caller holds `mutex`.
void trace_writer::open_target(write_mode mode) {
    rlimit limit;
    size_limit = getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                     ? static_cast<unsigned long long>(limit.rlim_cur)
                     : ~0ULL;
    target = fd >= 0 ? target_state::file : target_state::diverted;
    if (fd >= 0 && mode == write_mode::mapped) {
        int error = 0;
        if (reserve_next_chunk(error))
            target = target_state::mapped;
        else
            unmap_to_stream(error);
    }
    char buf[160];
    char* end = append(buf, "<?xml version=\"1.0\"?>\n<trace version=\"0\" ts_frequency=\"1000000000\" "
                            "hardware_concurrency=\"");
    end = std::to_chars(end, end + 12, std::thread::hardware_concurrency()).ptr;
    end = append(end, "\">\n");
    iovec span = piece(buf, size_t(end - buf));
    emit(&span, 1);
}

trace_writer::~trace_writer() {
    unmap_window();
    if (fd >= 0) close(fd);
}

void trace_writer::emit(const iovec* parts, int count) {
    iovec v[8];
    int n = 0;
    if (target == target_state::closed || stopped) return;
    if (target == target_state::diverted) v[n++] = piece(warning_text, sizeof warning_text - 1);
    for (int i = 0; i < count && n < 8; ++i) v[n++] = parts[i];
    switch (target) {
    case target_state::diverted:
        write_all(STDERR_FILENO, v, n);
        return;
    case target_state::file:
        write_file(v, n);
        return;
    case target_state::mapped:
        write_mapped(v, n);
        return;
    case target_state::closed:
        return;
    }
}

bool trace_writer::write_file(iovec* parts, int count) {
    unsigned long long total = 0;
    for (int i = 0; i < count; ++i) total += parts[i].iov_len;
    // Writing past the file size limit would raise SIGXFSZ in the host.
    if (length + total > size_limit) {
        stop_output("file size limit reached");
        return false;
    }
    if (!write_all(fd, parts, count)) {
        stop_output(strerror(errno));
        return false;
    }
    length += total;
    return true;
}

void trace_writer::write_mapped(iovec* parts, int count) {
    for (int i = 0; i < count; ++i) {
        const char* text = static_cast<const char*>(parts[i].iov_base);
        size_t size = parts[i].iov_len;
        while (size > 0) {
            size_t room = size_t(reserved - length);
            if (room == 0) {
                int error = 0;
                if (!reserve_next_chunk(error)) {
                    // The rest of the span, and everything after it, goes
                    // through ordinary writes from where the content ends.
                    unmap_to_stream(error);
                    // Unless that failed too: the descriptor is not at the
                    // end of the content then.
                    if (target != target_state::file) return;
                    parts[i].iov_base = const_cast<char*>(text);
                    parts[i].iov_len = size;
                    write_file(parts + i, count - i);
                    return;
                }
                continue;
            }
            size_t n = size < room ? size : room;
            copy_in_order(window + (length - window_offset), text, n);
            length += n;
            text += n;
            size -= n;
        }
    }
}

// Reserves the next chunk of the file by writing it full of zeros (which
// allocates its blocks and brings its pages into the page cache in one call,
// so a full disk shows here and never as SIGBUS on a store), mapping a new
// window when the chunk lies past the current one.
bool trace_writer::reserve_next_chunk(int& error) {
    unsigned long long offset = reserved;
    if (offset + chunk_size > size_limit) {
        error = EFBIG;
        return false;
    }
    for (size_t done = 0; done < chunk_size;) {
        ssize_t n = pwrite(fd, zero_chunk + done, chunk_size - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? errno : ENOSPC;
            return false;
        }
        done += size_t(n);
    }
    if (!window || offset + chunk_size > window_offset + window_size) {
        // Mapping past the end of the file is allowed; only the reserved
        // part is ever touched.
        void* mapping = mmap(nullptr, window_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, off_t(offset));
        if (mapping == MAP_FAILED) {
            error = errno;
            return false;
        }
        unmap_window();
        window = static_cast<char*>(mapping);
        window_offset = offset;
    }
    reserved = offset + chunk_size;
    return true;
}

void trace_writer::unmap_window() {
    if (window) munmap(window, window_size);
    window = nullptr;
}

// Leaves the mapping and goes on with ordinary writes at the end of the
// content, after cutting off the reserved tail.
void trace_writer::unmap_to_stream(int error) {
    iovec line[] = {piece("WARNING could not reserve space in "), piece(path.c_str()), piece(": "),
                    piece(strerror(error)), piece("; writing it with ordinary writes\n")};
    write_all(STDERR_FILENO, line, 5);
    unmap_window();
    if (ftruncate(fd, off_t(length)) != 0 || lseek(fd, off_t(length), SEEK_SET) < 0) {
        stop_output(strerror(errno));
        return;
    }
    target = target_state::file;
}

// Reports a failed file once; the writer drops its later output. Allocates
// nothing: it runs in the middle of a record.
void trace_writer::stop_output(const char* why) {
    stopped = true;
    iovec line[] = {piece("WARNING write to "), piece(path.c_str()), piece(" failed: "), piece(why),
                    piece("; its later records are dropped\n")};
    write_all(STDERR_FILENO, line, 5);
}

void trace_writer::emit_span(const iovec* parts, int count) {
    span_guard guard(*this);
    emit(parts, count);
}

bool trace_writer::claim(std::chrono::steady_clock::time_point deadline) {
    auto wait = [deadline] {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        return true;
    };
    if (!shared.load(std::memory_order_relaxed)) {
        shared.store(true, std::memory_order_relaxed);
        // Pairs with the owner's light barrier between raising its mark and
        // looking at `shared`: either it sees the claim or its mark shows here.
        heavy_barrier();
        while (owner_writing.load(std::memory_order_acquire))
            if (!wait()) return false;
    }
    // A span in progress under the mutex (the owner's, where spans always
    // take it) is waited for the same way.
    while (!mutex.try_lock())
        if (!wait()) return false;
    mutex.unlock();
    return true;
}

// Writes one lock span of at most MaxSize bytes made by format(out), a
// forward_writer. A mapped file with room takes it in place; anything else
// gets it formatted on the stack through emit.
template <size_t MaxSize, typename F>
__attribute__((always_inline)) inline void format_span(trace_writer& w, F&& format) {
    span_guard guard(w);
    if (w.target == trace_writer::target_state::mapped && w.reserved - w.length >= MaxSize + 8) {
        char* to = w.window + (w.length - w.window_offset);
        forward_writer out{to};
        format(out);
        w.length += size_t(out.finish() - to);
        return;
    }
    char buf[MaxSize + 8];
    forward_writer out{buf};
    format(out);
    iovec span = piece(buf, size_t(out.finish() - buf));
    w.emit(&span, 1);
}

void trace_writer::write(unsigned long long value) {
    format_span<40>(*this, [value](forward_writer& out) __attribute__((always_inline)) { out.put_number_field(value); });
}

void trace_writer::write(long long value) {
    format_span<40>(*this, [value](forward_writer& out) __attribute__((always_inline)) { out.put_number_field(value); });
}

void trace_writer::write(const char* text) {
    iovec span[3] = {piece(field_open, sizeof field_open - 1), piece(text ? text : ""),
                     piece(field_close, sizeof field_close - 1)};
    emit_span(span, 3);
}

void trace_writer::write(const __zop_id& id) {
    format_span<160>(*this, [&id](forward_writer& out) __attribute__((always_inline)) {
        out.put(compound_open_words);
        out.put_number_field(id.d1);
        out.put_number_field(id.d2);
        out.put_number_field(id.d3);
        out.put(compound_close_words);
    });
}

void trace_writer::end_record() {
    format_span<16>(*this, [](forward_writer& out) __attribute__((always_inline)) { out.put(record_close_words); });
}

void trace_writer::finish() {
    // The caller made sure the owning thread is done with the writer, or
    // claimed it: then the owner's later spans take the mutex, and the end
    // goes out under one hold of it, so none of them lands inside the end.
    shared.store(true, std::memory_order_relaxed);
    char stamp[48];
    forward_writer out{stamp};
    out.put_number_field(static_cast<unsigned long long>(timestamp_now()));
    const iovec lines[] = {piece("<record>\n"), piece("<field>end_of_records</field>\n"),
                           piece(stamp, size_t(out.finish() - stamp)), piece("</record>\n"),
                           piece("</trace>\n")};
    std::lock_guard<std::mutex> lock(mutex);
    // Line by line, as each would be written on its own (a diverted writer
    // marks each with its warning).
    for (const iovec& line : lines) emit(&line, 1);
    if (window) {
        unmap_window();
        // A finished file holds its content only, as in stream mode; should
        // the cut fail, the file keeps a zero-filled tail, as after a kill.
        int cut = ftruncate(fd, off_t(length));
        (void)cut;
    }
    if (fd >= 0) close(fd);
    fd = -1;
    target = target_state::closed;
}

void trace_writer::abandon() {
    unmap_window();
    if (fd >= 0) close(fd);
    fd = -1;
    target = target_state::closed;
}

void write_begin_record(trace_writer* writer, __zop_record_t kind) {
    if (!writer) return;
    format_span<16>(*writer, [](forward_writer& out) __attribute__((always_inline)) { out.put(record_open_words); });
    unsigned row = static_cast<unsigned>(kind);
    const padded_name& name = padded_names.rows[row < trace_format::kind_count ? row : 0];
    size_t name_size = row < trace_format::kind_count ? name.size : 0;
    format_span<48>(*writer, [&name, name_size](forward_writer& out) __attribute__((always_inline)) {
        out.put(field_open_words);
        out.put_padded(name.text, name_size);
        out.put(field_close_words);
    });
    // The clock is read outside the writer's lock.
    writer->write(static_cast<unsigned long long>(timestamp_now()));
}

}  // namespace writer
