#include "trace_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <thread>

namespace writer {

const record_description record_descriptions[20] = {
    {"definition", {9, 9, 13, 9, 9}},
    {"api_version", {9, 13}},
    {"domain_createA", {3, 9, 13}},
    {"domain_createW", {3, 9, 14}},
    {"id_create", {3, 2}},
    {"id_destroy", {3, 2}},
    {"metadata", {3, 2, 3, 9, 3}},
    {"metadata_stringA", {3, 2, 3, 3, 13}},
    {"metadata_stringW", {3, 2, 3, 3, 14}},
    {"relation", {3, 2, 9, 2}},
    {"string_handle_createA", {3, 9, 13}},
    {"string_handle_createW", {3, 9, 14}},
    {"task_begin", {3, 2, 2, 3, 3}},
    {"task_end", {3}},
    {"task_group", {3, 2, 2, 3}},
    {"region_begin", {3, 2, 2, 3}},
    {"region_end", {3, 2}},
    {"task_begin_async", {3, 2, 2, 3, 3}},
    {"task_end_async", {3, 2}},
    {"end_of_records", {}},
};

namespace {

const char warning_text[] = "WARNING NO OPEN FILE: ";
constexpr char field_open[] = "<field>";
constexpr char field_close[] = "</field>\n";

iovec piece(const char* text, size_t size) { return iovec{const_cast<char*>(text), size}; }
iovec piece(const char* text) { return piece(text, strlen(text)); }

// Writes every byte of the pieces, going on after short writes and signals.
bool write_all(int fd, iovec* parts, int count) {
    while (count > 0) {
        ssize_t n = writev(fd, parts, count);
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

// Appends text to a fixed buffer; returns the new end.
char* append(char* out, const char* text, size_t size) {
    memcpy(out, text, size);
    return out + size;
}
template <size_t N>
char* append(char* out, const char (&text)[N]) {
    return append(out, text, N - 1);
}

// "<field>" number "</field>\n"; the buffer holds at least 40 bytes.
template <typename T>
char* append_number_field(char* out, T value) {
    out = append(out, field_open);
    out = std::to_chars(out, out + 24, value).ptr;
    return append(out, field_close);
}

}  // namespace

long long timestamp_now() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

trace_writer::trace_writer(int number, std::string dir) : directory(std::move(dir)) {
    std::lock_guard<std::mutex> lock(mutex);
    std::string path = directory + "/_ryl." + std::to_string(number);
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    target = fd >= 0 ? target_state::file : target_state::diverted;
    char buf[160];
    char* end = append(buf, "<?xml version=\"1.0\"?>\n<trace version=\"0\" ts_frequency=\"1000000000\" "
                            "hardware_concurrency=\"");
    end = std::to_chars(end, end + 12, std::thread::hardware_concurrency()).ptr;
    end = append(end, "\">\n");
    iovec span = piece(buf, size_t(end - buf));
    emit(&span, 1);
}

trace_writer::~trace_writer() {
    if (fd >= 0) close(fd);
}

void trace_writer::emit(const iovec* parts, int count) {
    iovec v[8];
    int n = 0;
    switch (target) {
    case target_state::closed:
        return;
    case target_state::diverted:
        v[n++] = piece(warning_text, sizeof warning_text - 1);
        for (int i = 0; i < count && n < 8; ++i) v[n++] = parts[i];
        write_all(STDERR_FILENO, v, n);
        return;
    case target_state::file:
        if (write_failed) return;
        for (int i = 0; i < count && n < 8; ++i) v[n++] = parts[i];
        if (!write_all(fd, v, n)) write_failed = true;
        return;
    }
}

void trace_writer::emit_span(const iovec* parts, int count) {
    std::lock_guard<std::mutex> lock(mutex);
    emit(parts, count);
}

void trace_writer::write(unsigned long long value) {
    char buf[48];
    iovec span = piece(buf, size_t(append_number_field(buf, value) - buf));
    emit_span(&span, 1);
}

void trace_writer::write(long long value) {
    char buf[48];
    iovec span = piece(buf, size_t(append_number_field(buf, value) - buf));
    emit_span(&span, 1);
}

void trace_writer::write(const char* text) {
    iovec span[3] = {piece(field_open, sizeof field_open - 1), piece(text ? text : ""),
                     piece(field_close, sizeof field_close - 1)};
    emit_span(span, 3);
}

void trace_writer::write(const __zop_id& id) {
    char buf[200];
    char* end = append(buf, "<compound_field>\n");
    end = append_number_field(end, id.d1);
    end = append_number_field(end, id.d2);
    end = append_number_field(end, id.d3);
    end = append(end, "</compound_field>\n");
    iovec span = piece(buf, size_t(end - buf));
    emit_span(&span, 1);
}

void trace_writer::end_record() {
    static const char text[] = "</record>\n";
    iovec span = piece(text, sizeof text - 1);
    emit_span(&span, 1);
    if (in_record) in_record->store(false, std::memory_order_release);
}

void trace_writer::finish() {
    in_record = nullptr;
    write_begin_record(this, __zop_record_end_of_records);
    end_record();
    static const char text[] = "</trace>\n";
    iovec span = piece(text, sizeof text - 1);
    std::lock_guard<std::mutex> lock(mutex);
    emit(&span, 1);
    if (fd >= 0) close(fd);
    fd = -1;
    target = target_state::closed;
}

void write_begin_record(trace_writer* writer, __zop_record_t kind) {
    if (!writer) return;
    static const char open_text[] = "<record>\n";
    iovec open_span = piece(open_text, sizeof open_text - 1);
    writer->emit_span(&open_span, 1);

    unsigned row = static_cast<unsigned>(kind);
    const char* name = row < 20 ? record_descriptions[row].name : "";
    iovec name_span[3] = {piece(field_open, sizeof field_open - 1), piece(name),
                          piece(field_close, sizeof field_close - 1)};
    writer->emit_span(name_span, 3);

    writer->write(static_cast<unsigned long long>(timestamp_now()));
}

}  // namespace writer
