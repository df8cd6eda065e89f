// XML document library: tokenizer, element memory and tree, parser. The
// queries are in xml_queries.cpp, the serialiser in xml_dump.cpp.
#include "xml.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <typeinfo>

namespace xml {

namespace {

constexpr char end_byte = static_cast<char>(0xFF);  // -1 as kept in a slot
constexpr int name_size = 1024;
constexpr int value_size = 1024;
constexpr int text_size = 100000;

// A slot as a character value: bytes 0x80..0xFF are negative, 0xFF is -1.
inline int value_of(char slot) { return static_cast<signed char>(slot); }

// The whitespace test of the tokenizer, inlined in its loops.
inline bool whitespace(int c) { return !(c >= 33 && c <= 126) && c != -1; }

#define XML_INLINE inline __attribute__((always_inline))

// Tests of two slots at once. The compiler merges "a.x == 1 && a.y == 2" on
// neighbouring fields into one wider load, which would keep a cursor (below)
// in memory instead of registers; tests on plain values are left alone.
XML_INLINE bool pair_is(char first, char second, char a, char b) {
    return first == a && second == b;
}
XML_INLINE bool both_end(char first, char second) {
    return pair_is(first, second, end_byte, end_byte);
}

// One operation's view of a tokenizer: its look-ahead and its unread input,
// held in locals while the operation runs, so that the loops work in
// registers rather than through the object, which every byte stored into a
// caller's buffer might alias. The slots and the read position go back into
// the tokenizer when the cursor goes.
//
// Without an override of getc, the bytes come straight from the stdio
// buffer of the file (what getc_unlocked does, without going through memory
// for every byte); the position is put back into the stream, so the file is
// always exactly where getc would have left it.
struct cursor {
    tokenizer& t;
    char current;
    char next;
    char after_next;
    bool direct;                     // reading the stdio buffer of t.file
    const unsigned char* read = nullptr;  // its unread bytes: [read, end)
    const unsigned char* end = nullptr;

    // The slots are loaded one byte each: the compiler would otherwise merge
    // them into wider loads, which stall behind the byte stores of the last
    // operation's put_back (no store forwarding).
    explicit cursor(tokenizer& owner)
        : t(owner),
          current(__atomic_load_n(&owner.current, __ATOMIC_RELAXED)),
          next(__atomic_load_n(&owner.next, __ATOMIC_RELAXED)),
          after_next(__atomic_load_n(&owner.after_next, __ATOMIC_RELAXED)),
          direct(owner.own_getc && owner.file) {
#ifdef __GLIBC__
        if (direct) {
            read = reinterpret_cast<const unsigned char*>(t.file->_IO_read_ptr);
            end = reinterpret_cast<const unsigned char*>(t.file->_IO_read_end);
        }
#endif
    }
    XML_INLINE ~cursor() { put_back(); }
    cursor(const cursor&) = delete;
    cursor& operator=(const cursor&) = delete;

    XML_INLINE void put_back() {
        t.current = current;
        t.next = next;
        t.after_next = after_next;
#ifdef __GLIBC__
        if (direct) t.file->_IO_read_ptr = reinterpret_cast<char*>(const_cast<unsigned char*>(read));
#endif
    }

    // The next byte as getc gives it.
    XML_INLINE int fetch() {
        if (read < end) return *read++;
        return refill();
    }

    // Inlined as well: an out-of-line call would take the cursor's address
    // and send the loops' state back to memory.
    XML_INLINE int refill() {
#ifdef __GLIBC__
        if (direct) {
            t.file->_IO_read_ptr = reinterpret_cast<char*>(const_cast<unsigned char*>(read));
            const int c = getc_unlocked(t.file);
            read = reinterpret_cast<const unsigned char*>(t.file->_IO_read_ptr);
            end = reinterpret_cast<const unsigned char*>(t.file->_IO_read_end);
            return c;
        }
#endif
        if (t.own_getc) return t.file ? getc_unlocked(t.file) : -1;
        put_back();  // an overriding getc sees the look-ahead as it stands
        return t.getc();
    }

    // Moves the look-ahead on by one character; returns what getc gave, which
    // tells the end of input (-1) from a byte 0xFF (255).
    XML_INLINE int shift() {
        current = next;
        next = after_next;
        const int c = fetch();
        after_next = static_cast<char>(c);
        return c;
    }

    // Shifts once, then past whitespace; returns the current character.
    XML_INLINE int skip_to_next() {
        shift();
        while (whitespace(value_of(current))) shift();
        return value_of(current);
    }

    // Drops whitespace in the next slot, leaving the current one alone.
    XML_INLINE int look_ahead() {
        while (whitespace(value_of(next))) {
            next = after_next;
            after_next = static_cast<char>(fetch());
        }
        return value_of(next);
    }
};

void say(const char* line) {
    std::fputs(line, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Bounded output of a scan: at most room characters are kept; the rest is
// dropped (what is said about it is up to the caller's warn).
struct bounded_buffer {
    char* buf;
    int room;
    int stored = 0;
    bool store;
    bounded_buffer(char* b, int size, int reserve)
        : buf(b), room(size - reserve), store(b && size > 0) {}
    XML_INLINE bool put(char c) {
        if (stored < room) {
            buf[stored++] = c;
            return true;
        }
        return false;
    }
    void finish() {
        if (store) buf[stored] = '\0';
    }
};

// The loop shared by string tokens and capture_string: the current character
// is the opening quotation mark. A backslash makes the character after it part
// of the string. Returns 34, or -1 when the input ends inside the string.
XML_INLINE int read_string(cursor& c, char* buf, int size, bool warn) {
    bounded_buffer out(buf, size, 1);
    int result = 34;
    for (;;) {
        int got;
        if (c.current == '\\') {
            got = c.shift();
        } else {
            got = c.shift();
            if (c.current == '"') break;
        }
        // After the end of input getc keeps answering -1, so once it has and
        // both current and next hold 0xFF no closing mark can come any more.
        if (got == -1 && both_end(c.current, c.next)) {
            result = -1;
            break;
        }
        if (out.store && !out.put(c.current) && warn) {
            std::fprintf(stdout, "WARNING: buffer %d is too small for string, truncating\n", size);
            std::fflush(stdout);
        }
    }
    out.finish();
    return result;
}

// The input ended inside a construct: every later token is the end too.
XML_INLINE int stay_at_end(cursor& c) {
    c.current = c.next = c.after_next = end_byte;
    return -1;
}

// Reads a comment after "<!": the current slot holds "<", the next "!". The
// body is read with getc directly up to a run of two or more dashes followed
// by ">". Returns 99 with that ">" as the current character, or -1.
XML_INLINE int read_comment(cursor& c) {
    if (c.after_next != '-') return -1;
    int b = c.fetch();
    if (b != '-') return b == -1 ? stay_at_end(c) : -1;
    for (;;) {
        b = c.fetch();
        if (b == '-') {
            int dashes = 1;
            while ((b = c.fetch()) == '-') ++dashes;
            if (dashes >= 2 && b == '>') break;
        }
        if (b == -1) return stay_at_end(c);
    }
    c.next = '>';
    c.after_next = static_cast<char>(c.fetch());
    c.skip_to_next();
    return 99;
}

// next_token on a cursor.
XML_INLINE int read_token(cursor& in, char* buf, int size) {
    const int c = in.skip_to_next();
    switch (c) {
    case -1:
    case '=':
    case '>':
        return c;
    case '/':
        if (in.next != '>') return -1;
        in.skip_to_next();
        return 69;
    case '?':
        if (in.next != '>') return -1;
        in.skip_to_next();
        return 88;
    case '<':
        if (in.next == '?') {
            in.skip_to_next();
            return 120;
        }
        if (in.next == '!') return read_comment(in);
        if (in.next == '/') {
            in.skip_to_next();
            return 101;
        }
        return 98;  // the name is read by the next call
    case '"':
        return read_string(in, buf, size, false);
    default:
        break;
    }

    // A name: up to whitespace, "=", ">" or "?". Its first character is
    // stored whatever the size.
    bounded_buffer out(buf, size, 1);
    if (out.store) buf[out.stored++] = in.current;
    for (;;) {
        const int n = value_of(in.next);
        if (whitespace(n) || n == '=' || n == '>' || n == '?') break;
        if (n == -1 && value_of(in.after_next) == -1) {
            // Bytes 0xFF or the end of input: the end repeats, a byte does not.
            if (in.shift() == -1) break;
        } else {
            in.shift();
        }
        if (out.store) out.put(in.current);
    }
    out.finish();
    return 110;
}

// get_text on a cursor: every character of the content goes to keep(char),
// in order; keep says what it does with characters past its room.
template <typename Keep>
XML_INLINE void read_text(cursor& c, Keep& keep) {
    // Content that is its own end tag at once is empty.
    if (pair_is(c.next, c.after_next, '<', '/')) return;
    c.shift();
    long depth = c.current == '<' ? 1 : 0;
    while (c.current != end_byte) {
        keep(c.current);
        if (c.next == '<') {
            if (c.after_next == '/') {
                if (depth <= 0) break;
                --depth;
            } else {
                ++depth;
            }
        } else if (pair_is(c.next, c.after_next, '/', '>')) {
            --depth;
        }
        c.shift();
    }
}

// Fills the look-ahead when nothing has been read yet (current and next
// slots both 0), as the first next_token does. The slots are read one byte
// each, like the cursor's.
XML_INLINE void prime(tokenizer& t) {
    if (__atomic_load_n(&t.current, __ATOMIC_RELAXED) != 0 || __atomic_load_n(&t.next, __ATOMIC_RELAXED) != 0)
        return;
    t.own_getc = typeid(t) == typeid(tokenizer);
    cursor c(t);
    c.next = static_cast<char>(c.fetch());
    c.after_next = static_cast<char>(c.fetch());
}

}  // namespace

// ---------------------------------------------------------------- tokenizer

tokenizer::tokenizer(const char* filename)
    : file(nullptr), current(0), next(0), after_next(0), open_failed(false) {
    if (!filename) return;
    name = filename;
    file = std::fopen(filename, "re");
    if (!file) {
        std::fprintf(stdout, "ERROR: Could not open %s\n", filename);
        std::fflush(stdout);
        open_failed = true;
    }
}

tokenizer::~tokenizer() {
    if (file) std::fclose(file);
}

int tokenizer::getc() {
    // Single-threaded use: the unlocked read gives the bytes fgetc would.
    return file ? getc_unlocked(file) : -1;
}

bool tokenizer::is_whitespace(int c) {
    return whitespace(c);
}

int tokenizer::next_char() {
    cursor c(*this);
    return c.skip_to_next();
}

int tokenizer::look_ahead() {
    cursor c(*this);
    return c.look_ahead();
}

int tokenizer::next_token(char* buf, int size) {
    if (open_failed) return -1;
    prime(*this);
    cursor c(*this);
    return read_token(c, buf, size);
}

void tokenizer::capture_string(char* buf, int size) {
    cursor c(*this);
    read_string(c, buf, size, true);
}

void tokenizer::get_text(char* buf, int size) {
    struct {
        bounded_buffer out;
        bool warned = false;
        XML_INLINE void operator()(char ch) {
            if (out.store && !out.put(ch) && !warned) {
                say("WARNING: buffer too small for data, truncating");
                warned = true;
            }
        }
    } keep{bounded_buffer(buf, size, 2)};
    cursor c(*this);
    read_text(c, keep);
    keep.out.finish();
}

// ---------------------------------------------------------------- element memory

namespace {

// A shared block of elements: a header, then room for capacity elements,
// each behind a pointer back to the header. The parser fills it from the
// front; references counts the elements in it, plus the places not yet
// filled and one for the parser while a parser still fills it, so the block
// is freed by whoever drops the count to zero, on any thread.
struct element_slab {
    std::atomic<std::size_t> references;
    std::size_t used;
    std::size_t capacity;
};

// What stands in front of every element made with new: its shared block,
// or null for a block of its own. Padded to keep the element aligned.
struct alignas(alignof(element)) block_header {
    element_slab* slab;
};

constexpr std::size_t round_up(std::size_t n, std::size_t to) { return (n + to - 1) / to * to; }
constexpr std::size_t header_size = sizeof(block_header);
constexpr std::size_t block_stride = header_size + round_up(sizeof(element), alignof(element));
constexpr std::size_t slab_first_block = round_up(sizeof(element_slab), alignof(block_header));
// 64 KiB: a few hundred elements per allocation; small enough that the C
// library serves it from its heap and a freed block is reused at once.
constexpr std::size_t slab_bytes = 64 * 1024;
constexpr std::size_t slab_capacity = (slab_bytes - slab_first_block) / block_stride;

void release(element_slab* slab, std::size_t count) {
    if (slab->references.fetch_sub(count, std::memory_order_acq_rel) == count) std::free(slab);
}

// The shared block a parse is filling. The places it leaves unfilled are
// given up when it moves on to a new block or the parse ends.
struct element_blocks {
    element_slab* slab = nullptr;

    element_blocks() = default;
    element_blocks(const element_blocks&) = delete;
    element_blocks& operator=(const element_blocks&) = delete;
    ~element_blocks() { give_up_rest(); }

    void give_up_rest() {
        if (slab) release(slab, slab->capacity - slab->used + 1);
        slab = nullptr;
    }

    // A new element in the block; throws std::bad_alloc without memory.
    element* make(const char* name) {
        if (!slab || slab->used == slab->capacity) {
            give_up_rest();
            void* memory = std::malloc(slab_bytes);
            if (!memory) throw std::bad_alloc();
            slab = new (memory) element_slab{{slab_capacity + 1}, 0, slab_capacity};
        }
        char* block = reinterpret_cast<char*>(slab) + slab_first_block + slab->used * block_stride;
        ++slab->used;
        new (block) block_header{slab};
        try {
            return new (block + header_size) element(name, nullptr);
        } catch (...) {
            release(slab, 1);
            throw;
        }
    }
};

}  // namespace

void* element::operator new(std::size_t size) {
    void* p = operator new(size, std::nothrow);
    if (!p) throw std::bad_alloc();
    return p;
}

void* element::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    void* memory = std::malloc(header_size + size);
    if (!memory) return nullptr;
    new (memory) block_header{nullptr};
    return static_cast<char*>(memory) + header_size;
}

void element::operator delete(void* p) noexcept {
    if (!p) return;
    auto* header = reinterpret_cast<block_header*>(static_cast<char*>(p) - header_size);
    if (header->slab)
        release(header->slab, 1);
    else
        std::free(header);
}

// ---------------------------------------------------------------- element tree

element::element(const char* name, const char* text)
    : name(name ? name : ""), text(text ? text : "") {
    if (this->name.size() == 3 && this->name == "xml") attributes["version"] = "1.0";
}

element::~element() {
    // Without recursion, so any depth of tree is safe: each child hands its
    // own children to this list before it goes. Only when the list cannot
    // grow does a child destroy its subtree itself.
    std::vector<element*>& pending = child_elements;
    while (!pending.empty()) {
        element* e = pending.back();
        pending.pop_back();
        if (!e) continue;
        try {
            pending.insert(pending.end(), e->child_elements.begin(), e->child_elements.end());
            e->child_elements.clear();
        } catch (...) {
        }
        delete e;
    }
}

document::document(const char* filename) : element("xml", nullptr), root(nullptr), input(filename) {}

document::~document() {
    delete root;
}

element* document::set_root(element* new_root) {
    if (new_root != root) {
        delete root;
        root = new_root;
    }
    return new_root;
}

// ---------------------------------------------------------------- parser

namespace {

// An element's text content as get_text with a buffer of text_size bytes
// followed by a copy into the element gives it: at most text_size - 2
// characters, one warning when more come, and the text ends at its first NUL.
// The characters gather in a small chunk and are appended to the element's
// text from there, so no text buffer is needed. The chunk lies outside the
// keeper, so that the keeper's counts can stay in registers.
constexpr int text_chunk_size = 256;
struct text_keeper {
    std::string& text;
    char* chunk;  // text_chunk_size bytes
    int counted = 0;
    int in_chunk = 0;
    bool warned = false;
    bool cut = false;  // a NUL came: nothing more is kept

    text_keeper(std::string& t, char* c) : text(t), chunk(c) {}
    XML_INLINE void operator()(char ch) {
        if (counted >= text_size - 2) {
            if (!warned) {
                say("WARNING: buffer too small for data, truncating");
                warned = true;
            }
            return;
        }
        ++counted;
        if (cut || ch == '\0') {
            cut = true;
            return;
        }
        chunk[in_chunk++] = ch;
        if (in_chunk == text_chunk_size) flush();
    }
    XML_INLINE void flush() {
        text.append(chunk, static_cast<size_t>(in_chunk));
        in_chunk = 0;
    }
};

// Whether the NUL-terminated name equals the element's name; inline, as
// names are short and a library call per end tag costs more than the loop.
XML_INLINE bool is_name(const std::string& expected, const char* name) {
    size_t i = 0;
    while (i < expected.size() && expected[i] == name[i]) ++i;
    return i == expected.size() && name[i] == '\0';
}

// One parse over a document's tokenizer with its name and value buffers.
struct parser {
    document& doc;
    tokenizer& in;
    element_blocks blocks;
    char name[name_size];
    char value[value_size];
    char text_chunk[text_chunk_size];

    explicit parser(document& d) : doc(d), in(d.input) {}

    // name="value": the name token has been read into name.
    XML_INLINE bool attribute(cursor& c, element& e) {
        if (read_token(c, nullptr, 0) != '=') return false;
        if (read_token(c, value, value_size) != '"') return false;
        e.attributes[name] = value;
        return true;
    }

    // After "<?": the name xml, attributes, "?>".
    bool xml_tag() {
        if (in.next_token(name, name_size) != 'n' || std::strcmp(name, "xml") != 0) return false;
        cursor c(in);
        for (;;) {
            const int token = read_token(c, name, name_size);
            if (token != 'n') return token == 'X';
            if (!attribute(c, doc)) return false;
        }
    }

    // The elements whose children are being read, outermost first, kept on
    // the heap so that the depth of the input costs no stack of the calling
    // thread. Their children gather in one list and each element takes its
    // own in one exactly sized piece at its end tag (fewer allocations than
    // growing every list). Whatever is still open when the parse stops,
    // failed or not, takes what was read.
    struct open_elements {
        struct level {
            element* e;
            size_t first_child;  // its children: children[first_child..]
        };
        std::vector<level> levels;
        std::vector<element*> children;

        open_elements() = default;
        open_elements(const open_elements&) = delete;
        open_elements& operator=(const open_elements&) = delete;
        ~open_elements() {
            while (!levels.empty()) close();
        }
        // The innermost element takes its children; false when out of
        // memory, and then they are destroyed rather than lost.
        bool close() {
            const level l = levels.back();
            levels.pop_back();
            const auto first = children.begin() + static_cast<std::ptrdiff_t>(l.first_child);
            bool adopted = true;
            try {
                l.e->child_elements.insert(l.e->child_elements.end(), first, children.end());
            } catch (...) {
                for (auto c = first; c != children.end(); ++c) delete *c;
                adopted = false;
            }
            children.erase(first, children.end());
            return adopted;
        }
    };

    // One element with its whole subtree after its "<", appended to parent's
    // children (or the root without a parent). One loop over one cursor:
    // each start tag is read with its attributes; an element with text
    // content stays open like one with children until the loop reads its end
    // tag, which must come right after the text.
    bool element_tree(element* parent) {
        if (in.open_failed) return false;
        prime(in);
        cursor c(in);
        open_elements open;
        std::vector<element*>* siblings = parent ? &parent->child_elements : nullptr;
        for (;;) {
            if (read_token(c, name, name_size) != 'n') return false;
            std::unique_ptr<element> owned(blocks.make(name));
            element* e = owned.get();
            if (siblings) {
                siblings->push_back(e);
                owned.release();
            } else {
                doc.set_root(owned.release());
            }
            int token;
            bool text_read = false;
            while ((token = read_token(c, name, name_size)) == 'n')
                if (!attribute(c, *e)) return false;
            if (token == '>') {
                open.levels.push_back({e, open.children.size()});
                // "data" and "text" always hold text; other elements hold
                // text when their content, past leading whitespace, does not
                // begin with "<".
                const bool always_text = e->name.size() == 4 && (e->name == "data" || e->name == "text");
                if (always_text || c.look_ahead() != '<') {
                    text_keeper keep(e->text, text_chunk);
                    read_text(c, keep);
                    keep.flush();
                    text_read = true;
                }
            } else if (token != 'E') {
                return false;
            }
            // Then end tags, comments and start tags, up to the next start tag.
            for (;;) {
                if (open.levels.empty()) return true;
                token = read_token(c, nullptr, 0);
                if (text_read && token != 'e') return false;
                text_read = false;
                if (token == 'c') continue;
                if (token != 'e') break;
                if (read_token(c, name, name_size) != 'n' ||
                    !is_name(open.levels.back().e->name, name) ||
                    read_token(c, nullptr, 0) != '>' || !open.close())
                    return false;
            }
            if (token != 'b' || open.levels.size() >= static_cast<size_t>(max_nesting_depth))
                return false;
            siblings = &open.children;
        }
    }

    // Comments and declarations with at most one element among them.
    bool top_level() {
        bool root_read = false;
        for (;;) {
            switch (in.next_token(name, name_size)) {
            case -1:
                return true;
            case 'c':
                break;
            case 'x':
                if (!xml_tag()) return false;
                break;
            case 'b':
                if (root_read || !element_tree(nullptr)) return false;
                root_read = true;
                break;
            default:
                return false;
            }
        }
    }
};

}  // namespace

bool document::parse() {
    try {
        return parser(*this).top_level();
    } catch (...) {  // out of memory: refuse the rest of the input
        return false;
    }
}

bool document::parse_xml_tag() {
    try {
        return parser(*this).xml_tag();
    } catch (...) {
        return false;
    }
}

bool document::parse_element(element* parent) {
    try {
        return parser(*this).element_tree(parent);
    } catch (...) {
        return false;
    }
}

}  // namespace xml
