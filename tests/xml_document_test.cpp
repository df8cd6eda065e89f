// Parser outcomes, limits and queries, checked through the dumped tree.
#include <gtest/gtest.h>
#include <pthread.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child.h"
#include "xml.h"

namespace {

struct input_file {
    temp_dir dir;
    std::string path = dir.path + "/in.xml";
    explicit input_file(const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
};

// The dump, without the declaration line when it is the preset one.
std::string dump_of(const xml::document& doc) {
    std::ostringstream out;
    doc.dump(out);
    const std::string text = out.str(), preset = "<?xml  version=\"1.0\"?>\n";
    return text.compare(0, preset.size(), preset) == 0 ? text.substr(preset.size()) : text;
}

// What parse answered, and the tree it left.
std::pair<bool, std::string> parse(const std::string& input) {
    input_file file(input);
    xml::document doc(file.path.c_str());
    const bool ok = doc.parse();
    return {ok, dump_of(doc)};
}

TEST(xml_parse, well_formed) {
    const std::pair<std::string, const char*> cases[] = {
        {"", ""},
        {"<?xml version=\"1.0\"?>\n<a x=\"1\" y=\"2\"></a>\n", "<a  x=\"1\"  y=\"2\"/>\n"},
        {"<?xml version=\"1.1\" encoding=\"UTF-8\"?><a />",
         "<?xml  encoding=\"UTF-8\"  version=\"1.1\"?>\n<a/>\n"},
        {"<a /><?xml version=\"2\"?>", "<?xml  version=\"2\"?>\n<a/>\n"},
        {"<a>  hello  </a>", "<a>hello  </a>\n"},
        {"<data>  hello</data>", "<data>  hello</data>\n"},
        {"<data></data>", "<data/>\n"},
        {"<text><b>x</b></text>", "<text><b>x</b></text>\n"},
        {"<p>x <b>y</b></p>", "<p>x <b>y</b></p>\n"},
        // Whitespace between children is skipped; <b/> names an element b/.
        {"<a>\n <b/></b/>\n <c>t</c>\n</a>", "<a>\n   <b//>\n   <c>t</c>\n</a>\n"},
        {"<a b=\"&amp;&lt;\" c=\"x>y\">&lt;t&gt;</a>", "<a  b=\"&amp;&lt;\"  c=\"x>y\">&lt;t&gt;</a>\n"},
        {"<a b=\"1\" b=\"2\"/>", "<a  b=\"2\"/>\n"},
        {"<r><xml /><xml k=\"v\" version=\"2\" /></r>",
         "<r>\n<?xml  version=\"1.0\"?>\n<?xml  k=\"v\"  version=\"2\"?>\n</r>\n"},
        {"<!--a--><?xml version=\"1.0\"?><!--b--><r><!--c--><e /></r><!--d-->", "<r>\n   <e/>\n</r>\n"},
        // "<!" counts as an opening tag in raw text, so the comment stays in it.
        {"<p>a<!--c--></p></p>", "<p>a<!--c--></p></p>\n"},
        {"<a />\n<!DOCTYPE x>\n<b />", "<a/>\n"},  // ends the input at the top level
        {"<a>ab\xFF</a>", "<a>ab</a>\n"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parse(c.first), std::make_pair(true, std::string(c.second))) << c.first;
}

// Malformed input, grouped by the tree that stays: what was read before the fault.
TEST(xml_parse, malformed) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {"<?php x?>", "<?xml version=\"1.0\" <a/>", "hello", "</a>"}},
        {"<a/>\n", {"<a>", "<a />\n<b />", "<a><!DOCTYPE x></a>", "<a><!-- x</a>", "<a><?xml?></a>",
                    "<a b='1'/>", "<a b>", "<a b=\"1"}},
        {"<a>\n   <b/>\n</a>\n", {"<a><b /> t <c /></a>", "<a><b></c></a>", "<a><b /></a"}},
        {"<a//>\n", {"<a/>"}}, {"<a>text</a>\n", {"<a>text"}}, {"<a  b=\"1\"/>\n", {"<a b=\"1\" c>"}},
    };
    for (const auto& c : cases)
        for (const std::string& input : c.second)
            EXPECT_EQ(parse(input), std::make_pair(false, std::string(c.first))) << input;
}

// A missing file gives a document without a root, in which queries find nothing.
TEST(xml_parse, missing_file_gives_empty_document) {
    temp_dir dir;
    const std::string path = dir.path + "/none.xml";
    testing::internal::CaptureStdout();
    xml::document doc(path.c_str());
    EXPECT_TRUE(doc.parse());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Could not open " + path + "\n");
    EXPECT_TRUE(doc.input.open_failed);
    EXPECT_EQ(doc.root, nullptr);
    EXPECT_EQ(dump_of(doc), "");
    EXPECT_EQ(doc.elem("7"), nullptr);
    EXPECT_TRUE(doc.elems("a").empty());
    EXPECT_TRUE(doc.elems("k", "v").empty());
}

TEST(xml_parse, long_names_values_and_text_are_cut) {
    const std::string name(2000, 'n'), value(2000, 'v'), text(150000, 't');
    input_file file("<" + name + " " + name + "=\"" + value + "\">" + text + "</" + name + ">");
    xml::document doc(file.path.c_str());
    testing::internal::CaptureStdout();
    EXPECT_TRUE(doc.parse());  // the end tag's name is cut the same way, so it still matches
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARNING: buffer too small for data, truncating\n");
    ASSERT_NE(doc.root, nullptr);
    EXPECT_EQ(doc.root->name, name.substr(0, 1023));
    EXPECT_EQ(doc.root->attributes.at(name.substr(0, 1023)), value.substr(0, 1023));
    EXPECT_EQ(doc.root->text, text.substr(0, 99998));
}

std::string repeat(const char* text, int times) {
    std::string out;
    while (times-- > 0) out += text;
    return out;
}

// At and past the nesting limit on a thread with a 256 KiB stack: parsing,
// queries, dump and destruction stay within it, hostile depth is refused.
void* deep_documents(void* result) {
    const int limit = xml::max_nesting_depth;
    input_file deepest(repeat("<e>", limit) + repeat("</e>", limit)), hostile(repeat("<e>", 200000)),
        too_deep(repeat("<e>", limit + 1) + repeat("</e>", limit + 1));
    xml::document a(deepest.path.c_str()), b(too_deep.path.c_str()), c(hostile.path.c_str());
    const size_t below_root = limit - 1;
    bool& ok = *static_cast<bool*>(result);
    ok = a.parse() && a.elems("e").size() == below_root && !b.parse() && !c.parse() &&
         c.elems("e").size() == below_root && dump_of(a).size() > 3u * below_root * limit;
    // A tree built by hand has no limit: queries and destruction still fit.
    xml::element deep("e", nullptr);
    xml::element* leaf = &deep;
    for (int i = 0; i < 100000; ++i) leaf = leaf->child_elements.emplace_back(new xml::element("e", nullptr));
    leaf->attributes["id"] = "leaf";
    ok = ok && deep.child("leaf") == leaf && deep.children("e", nullptr, nullptr).size() == 100000;
    return nullptr;
}

TEST(xml_parse, nesting_limit_on_small_stack) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    bool ok = false;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, deep_documents, &ok), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(ok);
}

// The attributes n of the elements, "none" for null.
std::string labels(const std::vector<xml::element*>& elements) {
    std::string out;
    for (const xml::element* e : elements)
        out += (out.empty() ? "" : " ") + (e ? e->attributes.at("n") : "none");
    return out;
}

TEST(xml_query, descendants_in_document_order_and_tree_unchanged) {
    input_file file("<r n=\"r\" id=\"7\"><a n=\"a\" id=\"1\"><b n=\"ab\" k=\"v\"/></a>"
                    "<c n=\"c\"><b n=\"cb\" id=\"7\" k=\"\"/></c>"
                    "<b n=\"b\" id=\"7\" k=\"v\"/><d n=\"d\" k=\"w\"/></r>");
    xml::document doc(file.path.c_str());
    ASSERT_TRUE(doc.parse());
    const std::string before = dump_of(doc);
    const xml::element& r = *doc.root;
    EXPECT_EQ(labels(r.children(nullptr, nullptr, nullptr)), "a ab c cb b d");
    EXPECT_EQ(labels(r.children("b", nullptr, nullptr)), "ab cb b");
    EXPECT_EQ(labels(r.children("b", "k", nullptr)), "ab cb b");
    EXPECT_EQ(labels(r.children(nullptr, "k", "")), "a c cb");
    EXPECT_EQ(labels(r.children("b", "k", "v")), "ab b");
    EXPECT_EQ(labels(r.children("zz", nullptr, nullptr)), "");
    EXPECT_EQ(labels({r.first_child(), r.first_child("b", nullptr, nullptr),
                      r.first_child("x", nullptr, nullptr)}),
              "a ab none");
    EXPECT_EQ(labels({r.child("7"), r.child(""), r.child(nullptr)}), "cb ab none");
    const xml::element* leaf = r.child_elements.back();
    EXPECT_EQ(leaf->first_child(), nullptr);
    EXPECT_TRUE(leaf->children(nullptr, nullptr, nullptr).empty());
    // The document's shortcuts search below the root (names as literals).
    EXPECT_EQ(labels({doc.elem("7")}), "cb");
    EXPECT_EQ(labels(doc.elems("r")), "");
    EXPECT_EQ(labels(doc.elems("k", "v")), "ab b");
    EXPECT_EQ(labels(doc.elems("b", "k", "")), "cb");
    EXPECT_EQ(labels(doc.elems("q", "missing")), "");
    EXPECT_EQ(dump_of(doc), before);
    // set_root keeps the same root alive and replaces another.
    EXPECT_EQ(doc.set_root(doc.root), &r);
    EXPECT_EQ(doc.set_root(new xml::element("z", nullptr))->name, "z");
}

// Parsed elements share large blocks of memory: each still lives on its own.
// Taken out of a document that is then destroyed, deleted one by one on
// several threads, mixed with elements made with every form of new.
TEST(xml_memory, parsed_elements_live_and_die_one_by_one) {
    std::string text = "<r>";
    for (int i = 0; i < 3000; ++i) text += "<e n=\"" + std::to_string(i) + "\">t" + std::to_string(i) + "</e>";
    input_file file(text + "</r>");
    std::vector<xml::element*> taken;
    {
        xml::document doc(file.path.c_str());
        ASSERT_TRUE(doc.parse());
        taken.swap(doc.root->child_elements);
        doc.root->child_elements.push_back(taken.back());  // the document still owns this one
        taken.pop_back();
        doc.root->child_elements.push_back(new xml::element("made", "by new"));
    }
    ASSERT_EQ(taken.size(), 2999u);
    for (size_t i = 0; i < taken.size(); ++i) {
        ASSERT_EQ(taken[i]->attributes.at("n"), std::to_string(i));
        ASSERT_EQ(taken[i]->text, "t" + std::to_string(i));
    }
    taken[5]->child_elements.push_back(new (std::nothrow) xml::element("nothrow", nullptr));
    taken[6]->child_elements.push_back(taken.back());
    taken.pop_back();
    alignas(xml::element) unsigned char place[sizeof(xml::element)];
    xml::element* placed = new (place) xml::element("placed", nullptr);
    placed->child_elements.push_back(taken.back());
    taken.pop_back();
    placed->~element();
    // Every other element on a second thread, at the same time as the rest here.
    std::vector<xml::element*> odd, even;
    for (size_t i = 0; i < taken.size(); ++i) (i % 2 ? odd : even).push_back(taken[i]);
    std::thread other([&odd] {
        for (xml::element* e : odd) delete e;
    });
    for (xml::element* e : even) delete e;
    other.join();
}

}  // namespace
