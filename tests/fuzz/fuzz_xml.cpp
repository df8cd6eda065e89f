// Fuzz target: any bytes as an XML file through parse, the queries and dump,
// and through the tokenizer directly with small buffers.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "xml.h"

namespace {

// The input as a file that the document can open by name.
const char* input_path(const uint8_t* data, size_t size) {
    static int fd = memfd_create("xml_fuzz", 0);
    static char path[64];
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return path;
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

std::string dump_of(const xml::document& doc) {
    std::ostringstream out;
    doc.dump(out);
    return out.str();
}

// Queries with names and values taken from the tree; results must fit the filters.
void query(const xml::document& doc) {
    if (!doc.root) {
        check(doc.elems("a").empty() && doc.elem("") == nullptr);
        return;
    }
    const xml::element& r = *doc.root;
    std::vector<xml::element*> all = r.children(nullptr, nullptr, nullptr);
    for (size_t i = 0; i < all.size() && i < 8; ++i) {
        const xml::element& e = *all[i];
        for (xml::element* found : doc.elems(e.name.c_str())) check(found->name == e.name);
        for (const auto& attribute : e.attributes) {
            std::vector<xml::element*> found = doc.elems(attribute.first.c_str(), attribute.second.c_str());
            check(!found.empty());
            std::string name = e.name;
            check(!doc.elems(&name[0], attribute.first.c_str(), attribute.second.c_str()).empty());
        }
        auto id = e.attributes.find("id");
        xml::element* by_id = doc.elem(id == e.attributes.end() ? "" : id->second.c_str());
        check(by_id != nullptr);
        check(r.first_child(e.name.c_str(), nullptr, nullptr) != nullptr);
    }
    check(r.first_child() == (all.empty() ? nullptr : all.front()));
}

// Bytes from memory through an overriding getc: the tokenizer's byte-by-byte
// path, against which the path that reads the file's buffer is checked.
struct memory_tokenizer : xml::tokenizer {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    memory_tokenizer(const uint8_t* d, size_t n) : xml::tokenizer(nullptr), data(d), size(n) {}
    int getc() override { return at < size ? data[at++] : -1; }
};

// One tokenizer's view after each step: the kind, the text, the slots.
struct step {
    int kind;
    std::string text;
    char slots[3];
    bool operator==(const step& o) const {
        return kind == o.kind && text == o.text && std::equal(slots, slots + 3, o.slots);
    }
};

step take(xml::tokenizer& t, int kind, const std::vector<char>& buf) {
    return {kind, std::string(buf.data()), {t.current, t.next, t.after_next}};
}

// The tokenizer on its own, with exact-size heap buffers so that any write
// past them is caught: the file's tokenizer and one reading the same bytes
// through getc take the same steps and must see the same.
void tokenize(const char* path, const uint8_t* data, size_t size) {
    const uint8_t selector = size ? data[0] : 0;
    const int buffer_size = 2 + selector % 8;
    std::vector<char> a(buffer_size), b(buffer_size);
    xml::tokenizer file(path);
    memory_tokenizer memory(data, size);
    for (int i = 0; i < 1 << 16; ++i) {
        a[0] = b[0] = '\0';
        const int kind = file.next_token(a.data(), buffer_size);
        check(take(file, kind, a) == take(memory, memory.next_token(b.data(), buffer_size), b));
        if (kind == -1 && (selector & 0x80)) break;
        if (kind == -1 && file.next == static_cast<char>(0xFF) && file.after_next == static_cast<char>(0xFF)) break;
        if (kind == 62 && (selector & 0x40)) {
            check(file.look_ahead() == memory.look_ahead());
            file.get_text(a.data(), buffer_size);
            memory.get_text(b.data(), buffer_size);
        } else if (kind == 61 && file.look_ahead() == '"') {
            check(memory.look_ahead() == '"' && file.next_char() == memory.next_char());
            file.capture_string(a.data(), buffer_size);
            memory.capture_string(b.data(), buffer_size);
        } else {
            continue;
        }
        check(take(file, 0, a) == take(memory, 0, b));
    }
    check(!file.file || std::ftell(file.file) == static_cast<long>(memory.at));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Warnings of the library go to standard output; keep the log readable.
    if (!freopen("/dev/null", "w", stdout)) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = input_path(data, size);
    {
        xml::document doc(path);
        doc.parse();
        const std::string before = dump_of(doc);
        query(doc);
        check(dump_of(doc) == before);  // queries change nothing
        xml::document again(input_path(reinterpret_cast<const uint8_t*>(before.data()), before.size()));
        again.parse();
        dump_of(again);
    }
    tokenize(input_path(data, size), data, size);
    return 0;
}
