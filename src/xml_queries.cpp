// XML document library: queries over an element tree.
#include <cstring>

#include "xml.h"

namespace xml {

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

}  // namespace xml
