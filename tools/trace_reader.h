// Streaming reader of trace files: one record at a time, in bounded memory,
// on top of the library's xml::tokenizer. A file that ends early (a killed
// process, possibly followed by zero bytes) is told apart from a malformed one,
// and both are described precisely: line, record, what is missing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "record_kinds.h"
#include "xml.h"

namespace ryl {

// An id of a task, group, node or port: three 64-bit words.
struct id3 {
    uint64_t a = 0, b = 0, c = 0;
};
inline bool operator==(const id3& x, const id3& y) { return x.a == y.a && x.b == y.b && x.c == y.c; }
inline bool operator!=(const id3& x, const id3& y) { return !(x == y); }
inline bool operator<(const id3& x, const id3& y) {
    if (x.a != y.a) return x.a < y.a;
    if (x.b != y.b) return x.b < y.b;
    return x.c < y.c;
}
inline bool is_null(const id3& x) { return x.a == 0 && x.b == 0 && x.c == 0; }

// The record catalogue (record_kinds, kind_* row numbers, field types).
using namespace trace_format;

// Longest text kept of a text field; the rest is read and dropped.
constexpr size_t max_text = 65536;

struct field {
    uint64_t number = 0;   // u64 and u8 fields
    id3 id;                // id fields
    std::string text;      // text fields, cut to max_text bytes
    uint64_t text_size = 0;  // the text's full length in the file
};

struct record {
    int kind = -1;
    uint64_t timestamp = 0;
    uint64_t index = 0;    // 1 for the first record of the file
    uint64_t line = 0;     // line of its "<record>"
    field fields[max_fields];  // the fields after the timestamp, in catalogue order
};

// Bytes of one file for the tokenizer, read in large blocks. Counts what it
// hands out so that positions and the end of the file can be told exactly.
class trace_input final : public xml::tokenizer {
public:
    explicit trace_input(int fd);
    ~trace_input();
    int getc() override;

    int fd;
    std::vector<unsigned char> buffer;
    size_t pos = 0, len = 0;        // unread bytes are buffer[pos, len)
    bool eof = false;               // read() reported the end of the file
    int read_error = 0;             // errno of a failed read, else 0
    uint64_t calls = 0;             // getc calls so far
    uint64_t delivered = 0;         // getc calls that returned a byte
    uint64_t line_feeds = 0;        // line feeds among the delivered bytes
    uint64_t zero_run = 0;          // zero bytes delivered since the last other byte
    uint64_t zero_run_start = 0;    // offset of the first byte of that run
    bool inner_zeros = false;       // zero bytes were followed by other bytes
    uint64_t inner_zeros_offset = 0;
};

// How reading a file stands.
enum class read_status {
    record,     // a complete record was read
    finished,   // "</trace>" was read after the end_of_records record
    cut_short,  // the file ends before "</trace>"; problem says where and what is missing
    malformed,  // the file breaks the format; problem says where and how
    failed      // the file cannot be opened or read; problem says why
};

// One trace file being read.
struct trace_file {
    std::string path;
    std::unique_ptr<trace_input> in;
    read_status status = read_status::record;
    std::string problem;             // set with cut_short, malformed and failed
    bool header_read = false;        // both header lines were read
    unsigned long long hardware_concurrency = 0;
    uint64_t records = 0;            // complete records, end_of_records included
    int last_kind = -1;              // kind of the last complete record
    uint64_t last_line = 0;          // line of its "<record>"
    bool end_record_read = false;    // the end_of_records record was read
    // The record being read: its line, kind (-1 before its name) and fields read.
    uint64_t open_line = 0;
    int open_kind = -1;
    int open_fields = 0;             // 0 name not read, 1 name, 2 timestamp, 2 + n own fields
    char token[128];                 // text of the last name or string token
};

// Opens a file and reads its header; false (with status and problem set) when
// that fails.
bool open_trace(trace_file& file, const std::string& path);
// Reads the next record into rec. After any other result than record, the
// file stays at that result.
read_status next_record(trace_file& file, record& rec);
// Zero bytes at the end of the file, known once the file has been read to its end.
uint64_t trailing_zero_bytes(const trace_file& file);

// Index of a record name in the catalogue, or -1.
int kind_of(const char* name, size_t size);

}  // namespace ryl
