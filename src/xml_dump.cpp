// XML document library: writes an element tree back as text.
#include <iostream>

#include "xml.h"

namespace xml {

// Nesting level of the element being written by dump: 0 for the declaration
// and the root. One counter for the process, as dump runs on one thread at a time.
static int g_nested_element_level = 0;

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
