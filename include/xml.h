// XML document library of libryl_xml.so: reads an XML file such as a trace
// file into an element tree, finds elements in it and writes it back as text.
//
// The grammar is small: tags, attributes with double-quoted values, raw text,
// comments and one "<?xml ... ?>" declaration. Entity references are kept as
// written, CDATA sections and document type declarations are not recognised,
// names are bytes taken as written (no namespaces, no encoding).
//
// Messages (standard output, one line each, flushed):
//   "ERROR: Could not open <name>"                          file cannot be opened
//   "WARNING: buffer <size> is too small for string, truncating"  capture_string, per dropped character
//   "WARNING: buffer too small for data, truncating"          get_text, once per call
//
// Nesting limit: the parser refuses elements nested deeper than
// xml::max_nesting_depth (1000) levels, the root counting as level 1, by
// returning false. Neither the parser nor the operations on a tree
// (destruction, queries, dump) recurse, so hostile input cannot exhaust the
// stack of the caller's thread, however small.
//
// Objects of this library are used by one thread at a time; dump() shares one
// process-wide indentation level, so dumps must not run concurrently.
#ifndef RYL_XML_H
#define RYL_XML_H

#include <cstdio>
#include <iosfwd>
#include <map>
#include <new>
#include <string>
#include <vector>

#define XML_API __attribute__((visibility("default")))

namespace xml {

// Deepest element nesting the parser accepts; the root is level 1.
constexpr int max_nesting_depth = 1000;

// Token kinds returned by tokenizer::next_token; each value is the
// character code the kind has always had.
enum token_kind : int {
    token_end = -1,                // end of input or malformed construct
    token_string = '"',            // 34, a double-quoted string
    token_equals = '=',            // 61
    token_tag_close = '>',         // 62
    token_empty_tag_close = 'E',   // 69, "/>"
    token_declaration_close = 'X', // 88, "?>"
    token_start_tag = 'b',         // 98, "<" of a start tag
    token_comment = 'c',           // 99, a whole comment
    token_end_tag = 'e',           // 101, "</"
    token_name = 'n',              // 110
    token_declaration = 'x',       // 120, "<?"
};

// Splits the bytes of one file into tokens; next_token returns a token_kind.
// The end of input is kept in the look-ahead as the byte 0xFF, so a byte 0xFF
// in the file ends the input between tokens and in text content.
class XML_API tokenizer {
public:
    // Opens the named file for reading; prints "ERROR: Could not open <name>"
    // when it cannot. Without a name (null) there is no file and the base
    // getc reports end of input at once.
    explicit tokenizer(const char* filename);
    // Closes the file.
    ~tokenizer();
    tokenizer(const tokenizer&) = delete;
    tokenizer& operator=(const tokenizer&) = delete;

    // Next byte of the input (0..255) or -1 at its end; a derived class may
    // supply bytes from elsewhere. Once it has returned -1 it must keep doing so.
    virtual int getc();
    // True for every value but the printable ASCII characters 33..126 and -1.
    static bool is_whitespace(int c);
    // Moves on by one character, then past whitespace; returns the current character.
    int next_char();
    // Drops whitespace in front of the next character and returns it.
    int look_ahead();
    // Reads one token and returns its kind. A name or string is written to
    // buf, NUL-terminated and cut to size - 1 characters; a name's first
    // character is stored whatever the size, so a buffer that may receive a
    // name must hold at least two bytes. With no buffer (null, or size 0 or
    // less) nothing is written and the kind is still returned.
    int next_token(char* buf, int size);
    // Reads a double-quoted string that opens at the current character, like
    // a string token, printing a warning for every character that does not fit.
    // With no buffer the string is skipped silently.
    void capture_string(char* buf, int size);
    // Reads an element's raw content, nested markup included, up to the "</"
    // of its end tag; stores at most size - 2 characters and warns once when
    // more come. Empty content gives an empty text. A byte 0xFF ends the
    // content. With no buffer the content is skipped silently.
    void get_text(char* buf, int size);

    FILE* file;          // the named file; null when none was given or opened
    std::string name;    // the file name; empty when none was given
    char current;        // look-ahead: the character under examination,
    char next;           // the one after it
    char after_next;     // and the one after that; 0xFF stands for -1
    bool open_failed;    // the named file could not be opened
    bool own_getc = false;  // getc is not overridden: the bytes are read straight from file
};

// A node of the element tree. An element owns the elements in its child list
// and destroys them with itself.
class XML_API element {
public:
    // Copies name and text (null reads as empty). An element named "xml"
    // starts with the attribute version="1.0".
    element(const char* name, const char* text);
    // Destroys the whole subtree.
    ~element();
    element(const element&) = delete;
    element& operator=(const element&) = delete;

    // Every descendant in document order whose name is name (when given) and
    // whose attribute attribute equals value (when both are given; a missing
    // attribute reads as empty).
    std::vector<element*> children(const char* name, const char* attribute,
                                   const char* value) const;
    // The first element of the own child list, or null.
    element* first_child() const;
    // The first result of children(name, attribute, value), or null.
    element* first_child(const char* name, const char* attribute, const char* value) const;
    // The first descendant in document order whose attribute "id" equals id
    // (a missing one reads as empty), or null; null when id is null.
    element* child(const char* id) const;
    // Writes the element and its subtree, one element per line, indented by
    // three spaces per nesting level.
    void dump(std::ostream& os) const;

    // Elements (and documents) made with new get a block of their own; the
    // parser places the elements it reads side by side in large shared
    // blocks. Either way delete gives the memory back, and a shared block
    // goes when its last element does.
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* where) noexcept { return where; }
    static void operator delete(void* p) noexcept;
    static void operator delete(void* p, const std::nothrow_t&) noexcept { operator delete(p); }
    static void operator delete(void*, void*) noexcept {}

    std::string name;
    std::string text;                               // raw content; empty in child mode
    std::map<std::string, std::string> attributes;  // one value per name
    std::vector<element*> child_elements;           // owned, in document order
};

// One XML file: its element part is the declaration (named "xml"), followed
// by the root element and the tokenizer that reads the file.
class XML_API document : public element {
public:
    // Opens the file; nothing is read until parse.
    explicit document(const char* filename);
    // Destroys the root with its subtree and closes the file.
    ~document();

    // Destroys the current root, if it is another element, and adopts root.
    element* set_root(element* root);
    // Reads the whole file: any comments and declarations with at most one
    // element among them. False on malformed input; what was read stays.
    bool parse();
    // Reads the rest of a declaration after "<?" into the element part.
    bool parse_xml_tag();
    // Reads one element after its "<" with all its content and attaches it
    // to parent, or makes it the root when parent is null.
    bool parse_element(element* parent);

    // root->child(id), or null without a root.
    element* elem(const char* id) const;
    // root->children(name, null, null); empty without a root.
    std::vector<element*> elems(const char* name) const;
    // root->children(null, attribute, value); empty without a root.
    std::vector<element*> elems(const char* attribute, const char* value) const;
    // root->children(name, attribute, value); empty without a root.
    std::vector<element*> elems(const char* name, const char* attribute, const char* value) const;
    // Writes the declaration line, then the root if there is one.
    void dump(std::ostream& os) const;

    element* root;
    xml::tokenizer input;
};

// Writes three spaces per current nesting level of dump.
XML_API void dump_tab(std::ostream& os);

}  // namespace xml

#endif
