// XML document library: tokenizer, element tree, parser, queries, serialiser.
#include "xml.h"

#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <typeinfo>

namespace xml {

// Nesting level of the element being written by dump: 0 for the declaration
// and the root. One counter for the process, as dump runs on one thread at a time.
static int g_nested_element_level = 0;

namespace {

constexpr char end_byte = static_cast<char>(0xFF);  // -1 as kept in a slot
constexpr int name_size = 1024;
constexpr int value_size = 1024;
constexpr int text_size = 100000;

// A slot as a character value: bytes 0x80..0xFF are negative, 0xFF is -1.
inline int value_of(char slot) { return static_cast<signed char>(slot); }

// The whitespace test of the tokenizer, inlined in its loops.
inline bool whitespace(int c) { return !(c >= 33 && c <= 126) && c != -1; }

// The next byte as getc gives it; without an override of getc the file is
// read directly, saving a call per byte.
inline int fetch(tokenizer& t) {
    if (t.own_getc) return t.file ? getc_unlocked(t.file) : -1;
    return t.getc();
}

// Moves the look-ahead on by one character; returns what getc gave, which
// tells the end of input (-1) from a byte 0xFF (255).
inline int shift(tokenizer& t) {
    t.current = t.next;
    t.next = t.after_next;
    int c = fetch(t);
    t.after_next = static_cast<char>(c);
    return c;
}

// Shifts once, then past whitespace; returns the current character.
inline int skip_to_next(tokenizer& t) {
    shift(t);
    while (whitespace(value_of(t.current))) shift(t);
    return value_of(t.current);
}

void say(const char* line) {
    std::fputs(line, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// The loop shared by string tokens and capture_string: the current character
// is the opening quotation mark. A backslash makes the character after it part
// of the string. Returns 34, or -1 when the input ends inside the string.
int read_string(tokenizer& t, char* buf, int size, bool warn) {
    const bool store = buf && size > 0;
    int stored = 0;
    for (;;) {
        int got;
        if (t.current == '\\') {
            got = shift(t);
        } else {
            got = shift(t);
            if (t.current == '"') break;
        }
        // After the end of input getc keeps answering -1, so once it has and
        // both current and next hold 0xFF no closing mark can come any more.
        if (got == -1 && t.current == end_byte && t.next == end_byte) {
            if (store) buf[stored] = '\0';
            return -1;
        }
        if (store && stored < size - 1) {
            buf[stored++] = t.current;
        } else if (store && warn) {
            std::fprintf(stdout, "WARNING: buffer %d is too small for string, truncating\n", size);
            std::fflush(stdout);
        }
    }
    if (store) buf[stored] = '\0';
    return 34;
}

// The input ended inside a construct: every later token is the end too.
int stay_at_end(tokenizer& t) {
    t.current = t.next = t.after_next = end_byte;
    return -1;
}

// Reads a comment after "<!": the current slot holds "<", the next "!". The
// body is read with getc directly up to a run of two or more dashes followed
// by ">". Returns 99 with that ">" as the current character, or -1.
int read_comment(tokenizer& t) {
    if (t.after_next != '-') return -1;
    int c = fetch(t);
    if (c != '-') return c == -1 ? stay_at_end(t) : -1;
    for (;;) {
        c = fetch(t);
        if (c == '-') {
            int dashes = 1;
            while ((c = fetch(t)) == '-') ++dashes;
            if (dashes >= 2 && c == '>') break;
        }
        if (c == -1) return stay_at_end(t);
    }
    t.next = '>';
    t.after_next = static_cast<char>(fetch(t));
    skip_to_next(t);
    return 99;
}

}  // namespace

// ---------------------------------------------------------------- tokenizer

tokenizer::tokenizer(const char* filename)
    : file(nullptr), current(0), next(0), after_next(0), open_failed(false) {
    if (!filename) return;
    name = filename;
    file = std::fopen(filename, "r");
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
    return skip_to_next(*this);
}

int tokenizer::look_ahead() {
    while (whitespace(value_of(next))) {
        next = after_next;
        after_next = static_cast<char>(fetch(*this));
    }
    return value_of(next);
}

int tokenizer::next_token(char* buf, int size) {
    if (open_failed) return -1;
    if (current == 0 && next == 0) {  // nothing read yet: fill the look-ahead
        own_getc = typeid(*this) == typeid(tokenizer);
        next = static_cast<char>(fetch(*this));
        after_next = static_cast<char>(fetch(*this));
    }
    const int c = skip_to_next(*this);
    switch (c) {
    case -1:
    case '=':
    case '>':
        return c;
    case '/':
        if (next != '>') return -1;
        skip_to_next(*this);
        return 69;
    case '?':
        if (next != '>') return -1;
        skip_to_next(*this);
        return 88;
    case '<':
        if (next == '?') {
            skip_to_next(*this);
            return 120;
        }
        if (next == '!') return read_comment(*this);
        if (next == '/') {
            skip_to_next(*this);
            return 101;
        }
        return 98;  // the name is read by the next call
    case '"':
        return read_string(*this, buf, size, false);
    default:
        break;
    }

    // A name: up to whitespace, "=", ">" or "?".
    const bool store = buf && size > 0;
    int stored = 0;
    if (store) buf[stored++] = current;
    for (;;) {
        const int n = value_of(next);
        if (whitespace(n) || n == '=' || n == '>' || n == '?') break;
        if (n == -1 && value_of(after_next) == -1) {
            // Bytes 0xFF or the end of input: the end repeats, a byte does not.
            if (shift(*this) == -1) break;
        } else {
            shift(*this);
        }
        if (store && stored < size - 1) buf[stored++] = current;
    }
    if (store) buf[stored] = '\0';
    return 110;
}

void tokenizer::capture_string(char* buf, int size) {
    read_string(*this, buf, size, true);
}

void tokenizer::get_text(char* buf, int size) {
    const bool store = buf && size > 0;
    const int room = size - 2;
    int stored = 0;
    // Content that is its own end tag at once is empty.
    if (next != '<' || after_next != '/') {
        shift(*this);
        long depth = current == '<' ? 1 : 0;
        bool warned = false;
        while (current != end_byte) {
            if (store && stored < room) {
                buf[stored++] = current;
            } else if (store && !warned) {
                say("WARNING: buffer too small for data, truncating");
                warned = true;
            }
            if (next == '<') {
                if (after_next == '/') {
                    if (depth <= 0) break;
                    --depth;
                } else {
                    ++depth;
                }
            } else if (next == '/' && after_next == '>') {
                --depth;
            }
            shift(*this);
        }
    }
    if (store) buf[stored] = '\0';
}

// ---------------------------------------------------------------- element tree

element::element(const char* name, const char* text)
    : name(name ? name : ""), text(text ? text : "") {
    if (this->name == "xml") attributes["version"] = "1.0";
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

// Name, value and text buffers of one parse, on the heap (not zeroed: the
// tokenizer terminates what it writes before the parser reads it).
struct parse_buffers {
    char name[name_size];
    char value[value_size];
    char text[text_size];
};

// What a start tag leaves to do: nothing more, read children, or give up.
enum class start_result { failed, complete, has_children };

// One parse over a document's tokenizer with one set of buffers.
struct parser {
    document& doc;
    tokenizer& in;
    char* name;
    char* value;
    char* text;

    parser(document& d, char* name_buf, char* value_buf, char* text_buf)
        : doc(d), in(d.input), name(name_buf), value(value_buf), text(text_buf) {}

    // name="value": the name token has been read into name.
    bool attribute(element& e) {
        if (in.next_token(nullptr, 0) != '=') return false;
        if (in.next_token(value, value_size) != '"') return false;
        e.attributes[name] = value;
        return true;
    }

    // After "<?": the name xml, attributes, "?>".
    bool xml_tag() {
        if (in.next_token(name, name_size) != 'n' || std::strcmp(name, "xml") != 0) return false;
        for (;;) {
            const int token = in.next_token(name, name_size);
            if (token != 'n') return token == 'X';
            if (!attribute(doc)) return false;
        }
    }

    // After "</": the element's own name and ">".
    bool end_tag(const element& e) {
        if (in.next_token(name, name_size) != 'n' || e.name != name) return false;
        return in.next_token(nullptr, 0) == '>';
    }

    // After "<": the name and attributes, attaching the new element; then
    // text content with its end tag, or nothing more for "/>".
    start_result start_tag(element* parent, element*& created) {
        if (in.next_token(name, name_size) != 'n') return start_result::failed;
        auto owned = std::make_unique<element>(name, nullptr);
        element* e = owned.get();
        if (parent) {
            // Room for a few children at once: fewer reallocations for short lists.
            if (parent->child_elements.empty()) parent->child_elements.reserve(4);
            parent->child_elements.push_back(e);
            owned.release();
        } else {
            doc.set_root(owned.release());
        }
        created = e;
        for (;;) {
            const int token = in.next_token(name, name_size);
            if (token == 'n') {
                if (!attribute(*e)) return start_result::failed;
            } else if (token == 'E') {
                return start_result::complete;
            } else if (token == '>') {
                break;
            } else {
                return start_result::failed;
            }
        }
        // "data" and "text" always hold text; other elements hold text when
        // their content, past leading whitespace, does not begin with "<".
        if (e->name != "data" && e->name != "text" && in.look_ahead() == '<')
            return start_result::has_children;
        in.get_text(text, text_size);
        e->text = text;
        if (in.next_token(nullptr, 0) != 'e' || !end_tag(*e)) return start_result::failed;
        return start_result::complete;
    }

    // One element with its whole subtree. Elements whose children are being
    // read are kept on an explicit stack, so the depth of the input costs no
    // stack of the calling thread.
    bool element_tree(element* parent) {
        element* e = nullptr;
        start_result r = start_tag(parent, e);
        if (r != start_result::has_children) return r == start_result::complete;
        std::vector<element*> open{e};
        while (!open.empty()) {
            const int token = in.next_token(nullptr, 0);
            if (token == 'c') continue;
            if (token == 'e') {
                if (!end_tag(*open.back())) return false;
                open.pop_back();
                continue;
            }
            if (token != 'b' || open.size() >= static_cast<size_t>(max_nesting_depth)) return false;
            r = start_tag(open.back(), e);
            if (r == start_result::failed) return false;
            if (r == start_result::has_children) open.push_back(e);
        }
        return true;
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
        std::unique_ptr<parse_buffers> buffers(new parse_buffers);
        return parser(*this, buffers->name, buffers->value, buffers->text).top_level();
    } catch (...) {  // out of memory: refuse the rest of the input
        return false;
    }
}

bool document::parse_xml_tag() {
    try {
        char name[name_size];
        char value[value_size];
        return parser(*this, name, value, nullptr).xml_tag();
    } catch (...) {
        return false;
    }
}

bool document::parse_element(element* parent) {
    try {
        std::unique_ptr<parse_buffers> buffers(new parse_buffers);
        return parser(*this, buffers->name, buffers->value, buffers->text).element_tree(parent);
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------- queries

namespace {

// The attribute's value, empty when the element lacks it.
const char* attribute_or_empty(const element& e, const char* attribute) {
    auto found = e.attributes.find(attribute);
    return found == e.attributes.end() ? "" : found->second.c_str();
}

bool matches(const element& e, const char* name, const char* attribute, const char* value) {
    if (name && e.name != name) return false;
    return !attribute || !value || std::strcmp(attribute_or_empty(e, attribute), value) == 0;
}

// Calls visit for every descendant of from in document order until it
// returns true; returns that element, or null. The path is kept on the heap.
template <typename Visit>
element* find_descendant(const element& from, Visit visit) {
    struct level {
        const element* e;
        size_t next;
    };
    std::vector<level> path{{&from, 0}};
    while (!path.empty()) {
        level& l = path.back();
        if (l.next == l.e->child_elements.size()) {
            path.pop_back();
            continue;
        }
        element* c = l.e->child_elements[l.next++];
        if (!c) continue;
        if (visit(c)) return c;
        path.push_back({c, 0});
    }
    return nullptr;
}

}  // namespace

std::vector<element*> element::children(const char* name, const char* attribute,
                                        const char* value) const {
    std::vector<element*> out;
    try {
        find_descendant(*this, [&](element* e) {
            if (matches(*e, name, attribute, value)) out.push_back(e);
            return false;
        });
    } catch (...) {  // out of memory: what was found so far
    }
    return out;
}

element* element::first_child() const {
    return child_elements.empty() ? nullptr : child_elements.front();
}

element* element::first_child(const char* name, const char* attribute, const char* value) const {
    try {
        return find_descendant(*this, [&](element* e) { return matches(*e, name, attribute, value); });
    } catch (...) {
        return nullptr;
    }
}

element* element::child(const char* id) const {
    if (!id) return nullptr;
    try {
        return find_descendant(*this, [&](element* e) {
            return std::strcmp(attribute_or_empty(*e, "id"), id) == 0;
        });
    } catch (...) {
        return nullptr;
    }
}

element* document::elem(const char* id) const {
    return root ? root->child(id) : nullptr;
}

std::vector<element*> document::elems(const char* name) const {
    return root ? root->children(name, nullptr, nullptr) : std::vector<element*>();
}

std::vector<element*> document::elems(const char* attribute, const char* value) const {
    return root ? root->children(nullptr, attribute, value) : std::vector<element*>();
}

std::vector<element*> document::elems(const char* name, const char* attribute, const char* value) const {
    return root ? root->children(name, attribute, value) : std::vector<element*>();
}

// ---------------------------------------------------------------- serialiser

void dump_tab(std::ostream& os) {
    for (int i = 0; i < g_nested_element_level; ++i) os << "   ";
}

namespace {

// Puts the nesting level back as it was, also when the stream throws.
struct keep_level {
    int saved = g_nested_element_level;
    keep_level() = default;
    keep_level(const keep_level&) = delete;
    keep_level& operator=(const keep_level&) = delete;
    ~keep_level() { g_nested_element_level = saved; }
};

// Writes the start of e's line; true when its children follow on lines of
// their own (then only ">" and the end of line are written).
bool dump_opening(const element& e, std::ostream& os) {
    const bool declaration = e.name == "xml";
    if (declaration) {
        os << "<?xml";
    } else {
        dump_tab(os);
        os << '<' << e.name;
    }
    auto id = e.attributes.find("id");
    if (id != e.attributes.end()) os << "  id=\"" << id->second << '"';
    for (const auto& attribute : e.attributes)
        if (attribute.first != "id") os << "  " << attribute.first << "=\"" << attribute.second << '"';

    if (!e.text.empty()) {
        os << '>' << e.text << "</" << e.name << '>' << std::endl;
        return false;
    }
    if (!e.child_elements.empty()) {
        os << '>' << std::endl;
        return true;
    }
    os << (declaration ? "?>" : "/>") << std::endl;
    return false;
}

}  // namespace

void element::dump(std::ostream& os) const {
    // Elements whose children are being written, each with the next child,
    // kept on the heap so that any depth of tree is safe.
    struct level {
        const element* e;
        size_t next;
    };
    keep_level keep;
    try {
        std::vector<level> open;
        const element* e = this;
        while (e) {
            if (dump_opening(*e, os)) {
                ++g_nested_element_level;
                open.push_back({e, 0});
            }
            e = nullptr;
            while (!e && !open.empty()) {
                level& l = open.back();
                if (l.next < l.e->child_elements.size()) {
                    e = l.e->child_elements[l.next++];
                    continue;
                }
                --g_nested_element_level;
                dump_tab(os);
                os << "</" << l.e->name << '>' << std::endl;
                open.pop_back();
            }
        }
    } catch (const std::bad_alloc&) {  // out of memory: the output stops, the stream says so
        os.setstate(std::ios::badbit);
    }
}

void document::dump(std::ostream& os) const {
    g_nested_element_level = 0;
    element::dump(os);
    if (root) root->dump(os);
}

}  // namespace xml
