// Streaming reader of trace files. Tags go through xml::tokenizer; field
// contents are taken byte by byte from the tokenizer's look-ahead, because a
// text field holds its string unescaped ("<", "&", line feeds and all).
#include "trace_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace ryl {

int kind_of(const char* name, size_t size) {
    static const std::array<size_t, kind_count> lengths = [] {
        std::array<size_t, kind_count> l{};
        for (int k = 0; k < kind_count; ++k) l[size_t(k)] = std::strlen(record_kinds[k].name);
        return l;
    }();
    for (int k = 0; k < kind_count; ++k)
        if (lengths[size_t(k)] == size && std::memcmp(record_kinds[k].name, name, size) == 0) return k;
    return -1;
}

// ---------------------------------------------------------------- input

namespace {
constexpr size_t block_size = 1 << 16;
}

trace_input::trace_input(int descriptor) : xml::tokenizer(nullptr), fd(descriptor), buffer(2 * block_size) {}

trace_input::~trace_input() {
    if (fd >= 0) ::close(fd);
}

namespace {

// Reads until at least need unread bytes are buffered or the file ends.
bool fill(trace_input& in, size_t need) {
    if (in.pos > 0 && in.len - in.pos < need) {
        std::memmove(in.buffer.data(), in.buffer.data() + in.pos, in.len - in.pos);
        in.len -= in.pos;
        in.pos = 0;
    }
    while (in.len - in.pos < need && !in.eof) {
        if (in.buffer.size() - in.len < block_size) in.buffer.resize(in.len + block_size);
        ssize_t got = ::read(in.fd, in.buffer.data() + in.len, in.buffer.size() - in.len);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) in.read_error = errno;
        if (got <= 0) {
            in.eof = true;  // later growth of the file is not read
            break;
        }
        in.len += size_t(got);
    }
    return in.len - in.pos >= need;
}

}  // namespace

int trace_input::getc() {
    ++calls;
    if (pos == len && !fill(*this, 1)) return -1;
    const unsigned char b = buffer[pos++];
    ++delivered;
    if (b == '\n') {
        ++line_feeds;
    } else if (b == 0) {
        if (zero_run++ == 0) zero_run_start = delivered - 1;
        return b;
    }
    if (zero_run) {
        if (!inner_zeros) inner_zeros_offset = zero_run_start;
        inner_zeros = true;
        zero_run = 0;
    }
    return b;
}

namespace {

// The tokenizer's three slots were filled by the last three getc calls, the
// after-next slot by the last one (steady state after the first token).
// Slot 0 current, 1 next, 2 after-next: true when it holds the end of input.
bool slot_at_end(const trace_input& in, int slot) {
    const int64_t filled_by = int64_t(in.calls) - 3 + slot;
    return filled_by < 0 || uint64_t(filled_by) >= in.delivered;
}

// Byte i of the input ahead of the current slot (0 is the next slot), or -1
// past the end.
int peek(trace_input& in, size_t i) {
    if (i == 0) return slot_at_end(in, 1) ? -1 : static_cast<unsigned char>(in.next);
    if (i == 1) return slot_at_end(in, 2) ? -1 : static_cast<unsigned char>(in.after_next);
    const size_t k = i - 2;
    if (in.pos + k >= in.len && !fill(in, k + 1)) return -1;
    return in.buffer[in.pos + k];
}

// Takes one byte into the current slot, as the tokenizer does.
inline void shift(trace_input& in) {
    in.current = in.next;
    in.next = in.after_next;
    in.after_next = static_cast<char>(in.getc());
}

// k shifts at once. When the k bytes they take from the buffer are there
// and none is zero, the slots are filled from it and the counts moved on as
// k calls of getc would; else byte by byte.
void advance(trace_input& in, size_t k) {
    const unsigned char* b = in.buffer.data() + in.pos;
    size_t line_feeds = 0;
    bool zero = false;
    if (k >= 3 && in.pos + k <= in.len) {
        // Eight bytes at a time: a high bit in each zero byte, exactly.
        auto zero_bytes = [](uint64_t v) {
            const uint64_t low7 = 0x7F7F7F7F7F7F7F7FULL;
            return ~(((v & low7) + low7) | v | low7);
        };
        size_t i = 0;
        uint64_t zeros = 0;
        for (; i + 8 <= k; i += 8) {
            uint64_t word;
            std::memcpy(&word, b + i, 8);
            zeros |= zero_bytes(word);
            line_feeds += size_t(((zero_bytes(word ^ 0x0A0A0A0A0A0A0A0AULL) >> 7) * 0x0101010101010101ULL) >> 56);
        }
        for (; i < k; ++i) line_feeds += b[i] == '\n', zeros |= b[i] == 0;
        zero = zeros != 0;
    }
    if (k < 3 || in.pos + k > in.len || zero) {
        while (k--) shift(in);
        return;
    }
    // After k shifts the slots hold the stream bytes k, k+1 and k+2 counted
    // from the current slot; the buffer begins at stream byte 3.
    in.current = static_cast<char>(b[k - 3]);
    in.next = static_cast<char>(b[k - 2]);
    in.after_next = static_cast<char>(b[k - 1]);
    in.calls += k;
    in.delivered += k;
    in.line_feeds += line_feeds;
    if (in.zero_run) {  // zero bytes followed by others, as getc notes them
        if (!in.inner_zeros) in.inner_zeros_offset = in.zero_run_start;
        in.inner_zeros = true;
        in.zero_run = 0;
    }
    in.pos += k;
}

// When the input from the next slot on is line feeds and then text, as the
// collector writes its tags, the number of line feeds; else SIZE_MAX.
size_t tag_ahead(trace_input& in, const char* text, size_t size) {
    size_t at = 0;
    while (peek(in, at) == '\n') ++at;
    // The bytes in the slots one by one, the rest in the buffer at once.
    size_t i = 0;
    for (; i < size && at + i < 2; ++i)
        if (peek(in, at + i) != static_cast<unsigned char>(text[i])) return SIZE_MAX;
    if (i == size) return at;
    const size_t from = at + i - 2, need = from + size - i;
    if (in.len - in.pos < need && !fill(in, need)) return SIZE_MAX;
    return std::memcmp(in.buffer.data() + in.pos + from, text + i, size - i) == 0 ? at : SIZE_MAX;
}

// Such a tag taken at once: the tokenizer would read the same bytes into the
// same tokens.
template <size_t N>
bool quick(trace_input& in, const char (&text)[N]) {
    // As the collector writes them: the tag in the next slot, or a line feed
    // there and the tag from the after-next slot on, its rest buffered.
    constexpr size_t size = N - 1;
    size_t at = SIZE_MAX;
    if (slot_at_end(in, 2)) {
        at = tag_ahead(in, text, size);
    } else if (in.next == text[0] && in.after_next == text[1] && in.len - in.pos >= size - 2) {
        if (std::memcmp(in.buffer.data() + in.pos, text + 2, size - 2) == 0) at = 0;
    } else if (in.next == '\n' && in.after_next == text[0] && in.len - in.pos >= size - 1) {
        if (std::memcmp(in.buffer.data() + in.pos, text + 1, size - 1) == 0) at = 1;
    } else {
        at = tag_ahead(in, text, size);
    }
    if (at == SIZE_MAX) return false;
    advance(in, at + N - 1);
    return true;
}

// Line of the current slot, counting from 1.
uint64_t current_line(const trace_input& in) {
    uint64_t lf = in.line_feeds;
    for (int slot = 0; slot < 3; ++slot) {
        const char c = slot == 0 ? in.current : slot == 1 ? in.next : in.after_next;
        if (c == '\n' && !slot_at_end(in, slot)) --lf;
    }
    return lf + 1;
}

std::string printable(const char* text, size_t size) {
    std::string out;
    for (size_t i = 0; i < size && out.size() < 40; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 32 && c < 127) {
            out += char(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    if (size > 40) out += "...";
    return out;
}

// ---------------------------------------------------------------- outcomes

std::string record_label(int kind, uint64_t index, uint64_t line) {
    std::string s = "record " + std::to_string(index) + " (";
    if (kind >= 0) s += std::string(record_kinds[kind].name) + ", ";
    return s + "line " + std::to_string(line) + ")";
}

std::string zero_note(const trace_input& in) {
    if (!in.inner_zeros) return "";
    return " (zero bytes inside the file from byte offset " + std::to_string(in.inner_zeros_offset) + ")";
}

read_status set_malformed(trace_file& f, const std::string& what) {
    std::string where = "line " + std::to_string(current_line(*f.in)) + ": ";
    if (f.open_line) {
        where += "record " + std::to_string(f.records + 1);
        if (f.open_kind >= 0) where += std::string(" (") + record_kinds[f.open_kind].name + ")";
        where += ": ";
    }
    f.problem = where + what + zero_note(*f.in);
    return f.status = read_status::malformed;
}

read_status set_cut_short(trace_file& f) {
    const trace_input& in = *f.in;
    const std::string tail = in.zero_run ? ", followed by " + std::to_string(in.zero_run) + " zero bytes" : "";
    const std::string finish = "the end_of_records record and \"</trace>\"";
    std::string text;
    if (!f.header_read) {
        if (in.delivered == 0)
            text = "the file is empty";
        else if (in.zero_run == in.delivered)
            text = "the file holds only " + std::to_string(in.zero_run) + " zero bytes";
        else
            text = "the file ends inside its header" + tail;
        text += std::string("; missing: ") + (in.delivered > in.zero_run ? "the rest of " : "") + "the header, " + finish;
    } else if (f.end_record_read) {
        text = "the file ends after the end_of_records record, " + record_label(f.last_kind, f.records, f.last_line) +
               tail + "; missing: \"</trace>\"";
    } else {
        text = f.records ? "last complete record is " + record_label(f.last_kind, f.records, f.last_line)
                         : std::string("no complete record");
        if (!f.open_line) {
            text += std::string("; the file ends after ") + (f.records ? "it" : "its header") + tail + "; missing: " + finish;
        } else {
            text += "; the file ends inside " + record_label(f.open_kind, f.records + 1, f.open_line);
            const int own = f.open_fields - 2;
            if (f.open_fields == 0)
                text += " before its name is complete";
            else if (f.open_fields == 1)
                text += " after its name";
            else if (own == 0)
                text += " after its timestamp";
            else
                text += " after its timestamp and " + std::to_string(own) + " of its " +
                        std::to_string(field_count(record_kinds[f.open_kind])) + " further fields";
            text += tail + "; missing: ";
            if (f.open_kind == kind_end_of_records)
                text += "the rest of the end_of_records record and \"</trace>\"";
            else
                text += "the rest of record " + std::to_string(f.records + 1) + ", " + finish;
        }
    }
    f.problem = "cut short: " + text;
    return f.status = read_status::cut_short;
}

// Which field a message is about: index -2 the record's name, -1 its
// timestamp, 0.. the fields after it; word 1..3 within a compound field.
struct field_ref {
    int index;
    int word;
};

std::string field_text(const field_ref* ref) {
    static const char* const ordinals[] = {"first", "second", "third", "fourth", "fifth", "sixth"};
    if (!ref) return "";
    std::string text = ref->index == -2   ? "the record's name"
                       : ref->index == -1 ? "the timestamp"
                                          : std::string("the ") + ordinals[ref->index] + " field after the timestamp";
    if (ref->word) text = "word " + std::to_string(ref->word) + " of " + text;
    return text;
}

// "expected X" or "expected X with the field".
std::string expectation(const char* expected, const field_ref* ref) {
    return std::string("expected ") + expected + (ref ? " with " + field_text(ref) : std::string());
}

// A token of -1: the end of the file, a construct cut off by it ("?" or "/"
// as the last byte), or a construct the tokenizer refuses.
read_status at_minus_one(trace_file& f, const char* expected, const field_ref* ref = nullptr) {
    trace_input& in = *f.in;
    if (!slot_at_end(in, 0))
        while (peek(in, 0) == 0) shift(in);  // a zero-filled tail after the construct
    if (slot_at_end(in, 0) || slot_at_end(in, 1)) {
        if (f.in->read_error) {
            f.problem = std::string("read error: ") + std::strerror(f.in->read_error);
            return f.status = read_status::failed;
        }
        return set_cut_short(f);
    }
    return set_malformed(f, expectation(expected, ref) + ", found bytes that are not XML");
}

int token(trace_file& f) { return f.in->next_token(f.token, sizeof f.token); }

inline bool same(const char* a, const char* b) {
    while (*a && *a == *b) ++a, ++b;
    return *a == *b;
}

// What a token of kind t is, for messages; reads the tag name after "<" or "</".
std::string describe(trace_file& f, int t) {
    switch (t) {
    case xml::token_end: return "bytes that are not XML";
    case xml::token_string: return "a quoted string";
    case xml::token_equals: return "\"=\"";
    case xml::token_tag_close: return "\">\"";
    case xml::token_empty_tag_close: return "\"/>\"";
    case xml::token_declaration_close: return "\"?>\"";
    case xml::token_comment: return "a comment";
    case xml::token_declaration: return "\"<?\"";
    case xml::token_start_tag:
    case xml::token_end_tag: {
        std::string tag = t == xml::token_start_tag ? "<" : "</";
        if (token(f) == xml::token_name) tag += printable(f.token, std::strlen(f.token));
        return "\"" + tag + "\"";
    }
    default: return "\"" + printable(f.token, std::strlen(f.token)) + "\"";
    }
}

// True when nothing but whitespace follows: a wrong token there is the
// beginning of the right one, cut off.
bool nothing_follows(trace_file& f) { return token(f) == xml::token_end && slot_at_end(*f.in, 0); }

bool is_prefix(const char* part, const char* whole) {
    const size_t n = std::strlen(part);
    return n < std::strlen(whole) && std::strncmp(part, whole, n) == 0;
}

// Reads a token that must be of kind t (and, for a name, have the given text).
// When the file ends right after the beginning of that token, it is cut short.
bool expect(trace_file& f, int t, const char* name, const char* expected, const field_ref* ref = nullptr) {
    const int got = token(f);
    if (got == t && (t != xml::token_name || same(f.token, name))) return true;
    if (got == xml::token_end) {
        at_minus_one(f, expected, ref);
        return false;
    }
    std::string found;
    // "<", and "/" or "?" may be missing
    if (got == xml::token_start_tag && (t == xml::token_end_tag || t == xml::token_declaration)) {
        const int after = token(f);
        if (after == xml::token_end && slot_at_end(*f.in, 0)) return set_cut_short(f), false;
        found = "\"<" + (after == xml::token_name ? printable(f.token, std::strlen(f.token)) : std::string()) + "\"";
    } else if (got == xml::token_name && t == xml::token_name && is_prefix(f.token, name)) {  // a name cut off
        found = describe(f, got);
        if (nothing_follows(f)) return set_cut_short(f), false;
    } else {
        found = describe(f, got);
    }
    set_malformed(f, expectation(expected, ref) + ", found " + found);
    return false;
}

// "<name>" and "</name>"; expected is the tag as written.
template <size_t N>
bool open_tag(trace_file& f, const char* name, const char (&expected)[N], const field_ref* ref = nullptr) {
    if (quick(*f.in, expected)) return true;
    return expect(f, xml::token_start_tag, "", expected, ref) && expect(f, xml::token_name, name, expected, ref) &&
           expect(f, xml::token_tag_close, "", expected, ref);
}
template <size_t N>
bool close_tag(trace_file& f, const char* name, const char (&expected)[N]) {
    if (quick(*f.in, expected)) return true;
    return expect(f, xml::token_end_tag, "", expected) && expect(f, xml::token_name, name, expected) &&
           expect(f, xml::token_tag_close, "", expected);
}

// Content of a field that cannot hold "<": bytes up to the next "<", the end
// of the file or a zero byte. False when more than size - 1 bytes come.
bool plain_content(trace_input& in, char* buf, size_t size, size_t& n) {
    n = 0;
    bool fits = true;
    for (;;) {
        const int c = peek(in, n);
        if (c == '<' || c <= 0) break;
        if (n + 1 >= size) {
            fits = false;
            break;
        }
        buf[n++] = char(c);
    }
    advance(in, n);
    return fits;
}

bool parse_number(const char* text, size_t n, uint64_t& value) {
    if (n == 0 || n > 20 || (n > 1 && text[0] == '0')) return false;
    value = 0;
    for (size_t i = 0; i < n; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        const uint64_t digit = uint64_t(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

// The content of a field stopped at the end of the file or at a zero byte:
// the file is cut short there, unless more follows the zero bytes.
bool cut_inside(trace_file& f, const field_ref& ref) {
    if (close_tag(f, "field", "</field>")) set_malformed(f, "zero bytes inside " + field_text(&ref));
    return false;
}

// "<field>" number "</field>".
bool number_field(trace_file& f, uint64_t& value, uint64_t max, const field_ref& ref) {
    if (!open_tag(f, "field", "<field>", &ref)) return false;
    char text[32];
    size_t n = 0;
    const bool fits = plain_content(*f.in, text, sizeof text, n);
    if (fits && peek(*f.in, 0) != '<') return cut_inside(f, ref);
    if (!fits || !parse_number(text, n, value) || value > max) {
        set_malformed(f, field_text(&ref) + " is not a number" + (max == 255 ? " from 0 to 255" : "") + ": \"" +
                             printable(text, n) + (fits ? "\"" : "...\""));
        return false;
    }
    return close_tag(f, "field", "</field>");
}

bool id_field(trace_file& f, id3& id, int index) {
    const field_ref ref{index, 0}, a{index, 1}, b{index, 2}, c{index, 3};
    if (!open_tag(f, "compound_field", "<compound_field>", &ref)) return false;
    return number_field(f, id.a, UINT64_MAX, a) && number_field(f, id.b, UINT64_MAX, b) &&
           number_field(f, id.c, UINT64_MAX, c) && close_tag(f, "compound_field", "</compound_field>");
}

// Compares the input from peek index at with text: 1 when it matches (at is
// moved past it), 0 when it differs, 2 when what was written ends first.
int match(trace_input& in, size_t& at, const char* text) {
    for (; *text; ++text, ++at) {
        const int c = peek(in, at);
        if (c <= 0) return 2;
        if (c != static_cast<unsigned char>(*text)) return 0;
    }
    return 1;
}

// Whether the end of a text field, "</field>\n</record>\n", starts at the
// next slot and what comes after it can follow a record: the end of what was
// written, "</trace>", or the first lines of a record of a kind the collector
// writes. The file may end anywhere on the way.
bool at_text_end(trace_input& in) {
    size_t at = 0;
    int m = match(in, at, "</field>\n</record>\n");
    if (m != 1) return m == 2 && at >= 18;  // cut after "</record>"
    if (peek(in, at) <= 0) return true;
    size_t trace_at = at;
    if (match(in, trace_at, "</trace>") != 0) return true;
    m = match(in, at, "<record>\n<field>");
    if (m != 1) return m == 2;
    char name[32];
    size_t n = 0;
    for (int c; (c = peek(in, at)) != '<'; ++at) {
        if (c <= 0) return true;
        if (n == sizeof name) return false;
        name[n++] = char(c);
    }
    const int kind = kind_of(name, n);
    return kind >= 0 && record_kinds[kind].written;
}

// A text field is the last field of its record and written unescaped, so its
// text runs up to "</field>\n</record>\n" followed by what can follow a
// record. A domain or string-handle name must also have its recorded length
// (at most 1000, low 8 bits) there; the length of a metadata text is as the
// caller gave it and says nothing.
bool text_field(trace_file& f, field& out, const record& rec, int kind, int index) {
    const field_ref ref{index, 0};
    if (!open_tag(f, "field", "<field>", &ref)) return false;
    trace_input& in = *f.in;
    const bool has_length = kind == kind_domain_createA || kind == kind_string_handle_createA;
    const uint64_t length = rec.fields[1].number;
    out.text.clear();
    out.text_size = 0;
    for (;;) {
        const int c = peek(in, 0);
        if (c <= 0) return cut_inside(f, ref);  // the end of the file or of what was written
        if (c == '<' && at_text_end(in) &&
            (!has_length || ((out.text_size < 1000 ? out.text_size : 1000) & 0xff) == length))
            break;
        if (out.text.size() < max_text) out.text.push_back(char(c));
        ++out.text_size;
        shift(in);
    }
    return close_tag(f, "field", "</field>");
}


}  // namespace

// ---------------------------------------------------------------- reading

bool open_trace(trace_file& f, const std::string& path) {
    f = trace_file();
    f.path = path;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        f.problem = std::strerror(errno);
        f.status = read_status::failed;
        return false;
    }
    f.in.reset(new trace_input(fd));
    const char* const decl = "the declaration <?xml version=\"1.0\"?>";
    const int first = token(f);
    if (first != xml::token_declaration) {
        if (first == xml::token_end && slot_at_end(*f.in, 0) &&
            (f.in->read_error || f.in->delivered == f.in->zero_run)) {
            at_minus_one(f, decl);  // empty, or zero bytes only
        } else if (first == xml::token_start_tag && nothing_follows(f)) {
            set_cut_short(f);  // "<" alone
        } else if (first == xml::token_end) {
            at_minus_one(f, decl);
        } else {
            set_malformed(f, "it does not begin with <?xml version=\"1.0\"?>");
        }
        return false;
    }
    if (!expect(f, xml::token_name, "xml", decl) || !expect(f, xml::token_name, "version", decl) ||
        !expect(f, xml::token_equals, "", decl) || !expect(f, xml::token_string, "", decl))
        return false;
    if (std::strcmp(f.token, "1.0") != 0) {
        set_malformed(f, "XML version \"" + printable(f.token, std::strlen(f.token)) + "\"");
        return false;
    }
    if (!expect(f, xml::token_declaration_close, "", decl)) return false;
    const char* const head = "<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"N\">";
    if (!expect(f, xml::token_start_tag, "", head) || !expect(f, xml::token_name, "trace", head)) return false;
    // The three attributes, in this order.
    static const char* const names[] = {"version", "ts_frequency", "hardware_concurrency"};
    for (const char* name : names) {
        if (!expect(f, xml::token_name, name, head) || !expect(f, xml::token_equals, "", head) ||
            !expect(f, xml::token_string, "", head))
            return false;
        uint64_t value = 0;
        if (!parse_number(f.token, std::strlen(f.token), value) ||
            (name == names[0] && value != 0) || (name == names[1] && value != 1000000000)) {
            set_malformed(f, std::string("unsupported header attribute ") + name + "=\"" +
                                 printable(f.token, std::strlen(f.token)) + "\"");
            return false;
        }
        f.hardware_concurrency = value;
    }
    if (!expect(f, xml::token_tag_close, "", head)) return false;
    f.header_read = true;
    return true;
}

// "<record>" after line feeds, as the collector writes it: taken at once,
// with the record's line that of its "<".
bool quick_record_start(trace_file& f) {
    trace_input& in = *f.in;
    const size_t at = tag_ahead(in, "<record>", sizeof "<record>" - 1);
    if (at == SIZE_MAX) return false;
    advance(in, at + 1);
    f.open_line = current_line(in);
    f.open_kind = -1;
    f.open_fields = 0;
    advance(in, sizeof "record>" - 1);
    return true;
}

read_status next_record(trace_file& f, record& rec) {
    if (f.status != read_status::record) return f.status;
    const char* const next = "<record> or </trace>";
    if (f.end_record_read || !quick_record_start(f)) {
        const int t = token(f);
        if (t == xml::token_end) return at_minus_one(f, next);
        if (t == xml::token_end_tag) {
            if (!expect(f, xml::token_name, "trace", next) || !expect(f, xml::token_tag_close, "", next))
                return f.status;
            if (!f.end_record_read) return set_malformed(f, "\"</trace>\" before the end_of_records record");
            const int after = token(f);
            if (after == xml::token_end && slot_at_end(*f.in, 0)) return f.status = read_status::finished;
            return set_malformed(f, "more after \"</trace>\": " + describe(f, after));
        }
        if (t != xml::token_start_tag)
            return set_malformed(f, std::string("expected ") + next + ", found " + describe(f, t));
        if (f.end_record_read) {
            if (nothing_follows(f)) return set_cut_short(f);  // "<" of "</trace>"
            return set_malformed(f, "a record after the end_of_records record");
        }
        f.open_line = current_line(*f.in);
        f.open_kind = -1;
        f.open_fields = 0;
        if (!expect(f, xml::token_name, "record", next) || !expect(f, xml::token_tag_close, "", next))
            return f.status;
    }

    // The record's name.
    const field_ref name_ref{-2, 0}, timestamp_ref{-1, 0};
    if (!open_tag(f, "field", "<field>", &name_ref)) return f.status;
    char name[64];
    size_t n = 0;
    const bool fits = plain_content(*f.in, name, sizeof name, n);
    if (fits && peek(*f.in, 0) != '<') return cut_inside(f, name_ref), f.status;
    const int kind = fits ? kind_of(name, n) : -1;
    if (kind < 0) return set_malformed(f, "unknown record kind \"" + printable(name, n) + (fits ? "\"" : "...\""));
    if (!record_kinds[kind].written)
        return set_malformed(f, std::string("record kind \"") + record_kinds[kind].name +
                                    "\" is never written by the collector");
    if (!close_tag(f, "field", "</field>")) return f.status;
    f.open_kind = kind;
    f.open_fields = 1;

    rec.kind = kind;
    if (!number_field(f, rec.timestamp, UINT64_MAX, timestamp_ref)) return f.status;
    f.open_fields = 2;
    const record_kind& row = record_kinds[kind];
    for (int i = 0; i < field_count(row); ++i) {
        const field_ref ref{i, 0};
        field& fl = rec.fields[i];
        bool ok = false;
        switch (row.fields[i]) {
        case field_type::u64: ok = number_field(f, fl.number, UINT64_MAX, ref); break;
        case field_type::u8: ok = number_field(f, fl.number, 255, ref); break;
        case field_type::id: ok = id_field(f, fl.id, i); break;
        case field_type::text: ok = text_field(f, fl, rec, kind, i); break;
        default: break;  // wide texts: their kinds are never written
        }
        if (!ok) return f.status;
        ++f.open_fields;
    }
    if (!close_tag(f, "record", "</record>")) return f.status;
    rec.index = ++f.records;
    rec.line = f.open_line;
    f.last_kind = kind;
    f.last_line = f.open_line;
    f.open_line = 0;
    f.open_kind = -1;
    if (kind == kind_end_of_records) f.end_record_read = true;
    return read_status::record;
}

uint64_t trailing_zero_bytes(const trace_file& f) {
    return f.in && f.in->eof && f.in->pos == f.in->len ? f.in->zero_run : 0;
}

}  // namespace ryl
