// Fuzz target: any bytes as an XML file through parse, the queries and dump,
// and through the tokenizer directly with small buffers.
#include <sys/mman.h>
#include <unistd.h>

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

// The tokenizer on its own, with exact-size heap buffers so that any write
// past them is caught.
void tokenize(const char* path, uint8_t selector) {
    const int size = 2 + selector % 8;
    std::vector<char> name(size), text(size);
    xml::tokenizer t(path);
    for (int i = 0; i < 1 << 16; ++i) {
        const int kind = t.next_token(name.data(), size);
        if (kind == -1 && (selector & 0x80)) break;
        if (kind == -1 && t.next == static_cast<char>(0xFF) && t.after_next == static_cast<char>(0xFF)) break;
        if (kind == 62 && (selector & 0x40)) {
            t.look_ahead();
            t.get_text(text.data(), size);
        } else if (kind == 61 && t.look_ahead() == '"') {
            t.next_char();
            t.capture_string(name.data(), size);
        }
    }
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
    tokenize(input_path(data, size), size ? data[0] : 0);
    return 0;
}
