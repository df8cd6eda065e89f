// Parser outcomes, limits and queries, checked through the dumped tree.
#include <gtest/gtest.h>
#include <pthread.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"
#include "xml.h"

namespace {

struct input_file {
    temp_dir dir;
    std::string path;
    explicit input_file(const std::string& text) : path(dir.path + "/in.xml") {
        std::ofstream(path, std::ios::binary) << text;
    }
};

struct parsed {
    bool ok;
    std::string dump;  // without the declaration line when it is the preset one
};

std::string dump_of(const xml::document& doc) {
    std::ostringstream out;
    doc.dump(out);
    std::string text = out.str();
    const std::string preset = "<?xml  version=\"1.0\"?>\n";
    return text.compare(0, preset.size(), preset) == 0 ? text.substr(preset.size()) : text;
}

parsed parse(const std::string& input) {
    input_file file(input);
    xml::document doc(file.path.c_str());
    const bool ok = doc.parse();
    return {ok, dump_of(doc)};
}

struct parse_case {
    const char* name;
    std::string input;
    bool ok;
    const char* dump;
};

const parse_case parse_cases[] = {
    {"empty_file", "", true, ""},
    {"declaration_and_attributes", "<?xml version=\"1.0\"?>\n<a x=\"1\" y=\"2\"></a>\n", true,
     "<a  x=\"1\"  y=\"2\"/>\n"},
    {"declaration_replaces_version", "<?xml version=\"1.1\" encoding=\"UTF-8\"?><a />", true,
     "<?xml  encoding=\"UTF-8\"  version=\"1.1\"?>\n<a/>\n"},
    {"declaration_after_root", "<a /><?xml version=\"2\"?>", true, "<?xml  version=\"2\"?>\n<a/>\n"},
    {"text_drops_leading_whitespace", "<a>  hello  </a>", true, "<a>hello  </a>\n"},
    {"data_keeps_leading_whitespace", "<data>  hello</data>", true, "<data>  hello</data>\n"},
    {"data_empty", "<data></data>", true, "<data/>\n"},
    {"text_element_with_markup", "<text><b>x</b></text>", true, "<text><b>x</b></text>\n"},
    {"text_with_markup", "<p>x <b>y</b></p>", true, "<p>x <b>y</b></p>\n"},
    {"children_skip_whitespace", "<a>\n <b/></b/>\n <c>t</c>\n</a>", true,
     "<a>\n   <b//>\n   <c>t</c>\n</a>\n"},
    {"values_and_text_unescaped", "<a b=\"&amp;&lt;\" c=\"x>y\">&lt;t&gt;</a>", true,
     "<a  b=\"&amp;&lt;\"  c=\"x>y\">&lt;t&gt;</a>\n"},
    {"attribute_repeated", "<a b=\"1\" b=\"2\"/>", true, "<a  b=\"2\"/>\n"},
    {"xml_element_in_tree", "<r><xml /><xml k=\"v\" version=\"2\" /></r>", true,
     "<r>\n<?xml  version=\"1.0\"?>\n<?xml  k=\"v\"  version=\"2\"?>\n</r>\n"},
    {"comments_everywhere", "<!--a--><?xml version=\"1.0\"?><!--b--><r><!--c--><e /></r><!--d-->", true,
     "<r>\n   <e/>\n</r>\n"},
    // "<!" counts as an opening tag in raw text, so the comment stays in it.
    {"comment_in_text", "<p>a<!--c--></p></p>", true, "<p>a<!--c--></p></p>\n"},
    {"slash_name_closed", "<a/></a/>", true, "<a//>\n"},
    {"doctype_at_top_level_ends_input", "<a />\n<!DOCTYPE x>\n<b />", true, "<a/>\n"},
    {"element_slash_name_needs_end_tag", "<a/>", false, "<a//>\n"},
    {"element_text_between_children", "<a><b /> t <c /></a>", false, "<a>\n   <b/>\n</a>\n"},
    {"element_mismatched_end", "<a><b></c></a>", false, "<a>\n   <b/>\n</a>\n"},
    {"element_missing_end_tag", "<a><b /></a", false, "<a>\n   <b/>\n</a>\n"},
    {"element_unclosed", "<a>", false, "<a/>\n"},
    {"element_unclosed_text", "<a>text", false, "<a>text</a>\n"},
    {"element_ff_byte_ends_text", "<a>ab\xFF</a>", true, "<a>ab</a>\n"},
    {"element_second_root", "<a />\n<b />", false, "<a/>\n"},
    {"element_doctype_inside", "<a><!DOCTYPE x></a>", false, "<a/>\n"},
    {"element_unterminated_comment", "<a><!-- x</a>", false, "<a/>\n"},
    {"element_declaration_inside", "<a><?xml?></a>", false, "<a/>\n"},
    {"attribute_single_quoted", "<a b='1'/>", false, "<a/>\n"},
    {"attribute_without_equals", "<a b>", false, "<a/>\n"},
    {"attribute_unterminated", "<a b=\"1", false, "<a/>\n"},
    {"attribute_kept_before_error", "<a b=\"1\" c>", false, "<a  b=\"1\"/>\n"},
    {"pi_not_xml", "<?php x?>", false, ""},
    {"declaration_unclosed", "<?xml version=\"1.0\" <a/>", false, ""},
    {"stray_text", "hello", false, ""},
    {"stray_end_tag", "</a>", false, ""},
};

void PrintTo(const parse_case& c, std::ostream* os) { *os << testing::PrintToString(c.input); }

class parse_outcome : public testing::TestWithParam<parse_case> {};

TEST_P(parse_outcome, result_and_tree) {
    const parsed p = parse(GetParam().input);
    EXPECT_EQ(p.ok, GetParam().ok);
    EXPECT_EQ(p.dump, GetParam().dump);
}

INSTANTIATE_TEST_SUITE_P(xml, parse_outcome, testing::ValuesIn(parse_cases),
                         [](const testing::TestParamInfo<parse_case>& info) { return info.param.name; });

TEST(xml_parse, missing_file_gives_empty_document) {
    temp_dir dir;
    const std::string path = dir.path + "/none.xml";
    testing::internal::CaptureStdout();
    xml::document doc(path.c_str());
    EXPECT_TRUE(doc.parse());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Could not open " + path + "\n");
    EXPECT_EQ(doc.root, nullptr);
    EXPECT_EQ(dump_of(doc), "");
}

TEST(xml_parse, long_names_values_and_text_are_cut) {
    const std::string long_name(2000, 'n'), long_value(2000, 'v'), long_text(150000, 't');
    input_file file("<" + long_name + " " + long_name + "=\"" + long_value + "\">" + long_text + "</" +
                    long_name + ">");
    xml::document doc(file.path.c_str());
    testing::internal::CaptureStdout();
    // The end tag's name is cut the same way, so it still matches.
    EXPECT_TRUE(doc.parse());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARNING: buffer too small for data, truncating\n");
    ASSERT_NE(doc.root, nullptr);
    EXPECT_EQ(doc.root->name, long_name.substr(0, 1023));
    EXPECT_EQ(doc.root->attributes.at(long_name.substr(0, 1023)), long_value.substr(0, 1023));
    EXPECT_EQ(doc.root->text, long_text.substr(0, 99998));
}

std::string nested(int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<e>";
    for (int i = 0; i < depth; ++i) text += "</e>";
    return text;
}

// At and past the nesting limit on a thread with a 256 KiB stack: parsing,
// queries, dump and destruction stay within it, hostile depth is refused.
void* deep_documents(void* result) {
    std::string endless;
    for (int i = 0; i < 200000; ++i) endless += "<e>";
    input_file deepest(nested(xml::max_nesting_depth));
    input_file too_deep(nested(xml::max_nesting_depth + 1)), hostile(endless);
    xml::document a(deepest.path.c_str()), b(too_deep.path.c_str()), c(hostile.path.c_str());
    const size_t below_root = xml::max_nesting_depth - 1;
    *static_cast<bool*>(result) = a.parse() && a.elems("e").size() == below_root && !b.parse() &&
                                  !c.parse() && c.elems("e").size() == below_root &&
                                  dump_of(a).size() > 3u * below_root * xml::max_nesting_depth;
    // A tree built by hand has no limit: queries and destruction still fit.
    xml::element deep("e", nullptr);
    xml::element* leaf = &deep;
    for (int i = 0; i < 100000; ++i) {
        leaf->child_elements.push_back(new xml::element("e", nullptr));
        leaf = leaf->child_elements.back();
    }
    leaf->attributes["id"] = "leaf";
    *static_cast<bool*>(result) &=
        deep.child("leaf") == leaf && deep.children("e", nullptr, nullptr).size() == 100000;
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

TEST(xml_tree, set_root_replaces_root) {
    xml::document doc(nullptr);
    xml::element* a = doc.set_root(new xml::element("a", "t"));
    EXPECT_EQ(doc.set_root(a), a);  // the same root stays alive
    EXPECT_EQ(doc.root->text, "t");
    EXPECT_EQ(doc.set_root(new xml::element("b", nullptr))->name, "b");
}

// ---------------------------------------------------------------- queries

const char* query_input =
    "<r n=\"r\" id=\"7\">"
    "<a n=\"a\" id=\"1\"><b n=\"ab\" k=\"v\"/></a>"
    "<c n=\"c\"><b n=\"cb\" id=\"7\" k=\"\"/></c>"
    "<b n=\"b\" id=\"7\" k=\"v\"/>"
    "<d n=\"d\" k=\"w\"/>"
    "</r>";

std::string labels(const std::vector<xml::element*>& elements) {
    std::string out;
    for (const xml::element* e : elements) out += (out.empty() ? "" : " ") + e->attributes.at("n");
    return out;
}

std::string label(const xml::element* e) { return e ? e->attributes.at("n") : "none"; }

class xml_query : public testing::Test {
protected:
    input_file file{query_input};
    xml::document doc{file.path.c_str()};
    void SetUp() override { ASSERT_TRUE(doc.parse()); }
};

TEST_F(xml_query, descendants_in_document_order) {
    const xml::element& r = *doc.root;
    EXPECT_EQ(labels(r.children(nullptr, nullptr, nullptr)), "a ab c cb b d");
    EXPECT_EQ(labels(r.children("b", nullptr, nullptr)), "ab cb b");
    EXPECT_EQ(labels(r.children("b", "k", nullptr)), "ab cb b");
    EXPECT_EQ(labels(r.children(nullptr, "k", "")), "a c cb");
    EXPECT_EQ(labels(r.children("b", "k", "v")), "ab b");
    EXPECT_EQ(labels(r.children("zz", nullptr, nullptr)), "");
    EXPECT_EQ(label(r.first_child()), "a");
    EXPECT_EQ(label(r.first_child("b", nullptr, nullptr)), "ab");
    EXPECT_EQ(label(r.first_child("x", nullptr, nullptr)), "none");
    EXPECT_EQ(label(r.child("7")), "cb");
    EXPECT_EQ(label(r.child("")), "ab");
    EXPECT_EQ(label(r.child(nullptr)), "none");
    const xml::element* leaf = r.child_elements.back();
    EXPECT_EQ(leaf->first_child(), nullptr);
    EXPECT_TRUE(leaf->children(nullptr, nullptr, nullptr).empty());
}

TEST_F(xml_query, document_shortcuts_search_below_root_and_change_nothing) {
    const std::string before = dump_of(doc);
    EXPECT_EQ(label(doc.elem("7")), "cb");
    EXPECT_EQ(labels(doc.elems("r")), "");
    EXPECT_EQ(labels(doc.elems("k", "v")), "ab b");
    char name[] = "b";
    EXPECT_EQ(labels(doc.elems(name, "k", "")), "cb");
    EXPECT_EQ(labels(doc.elems("q", "missing")), "");
    EXPECT_EQ(dump_of(doc), before);
}

TEST(xml_query_no_root, empty_results) {
    xml::document doc(nullptr);
    EXPECT_TRUE(doc.parse());
    EXPECT_EQ(doc.elem("7"), nullptr);
    EXPECT_TRUE(doc.elems("a").empty());
    EXPECT_TRUE(doc.elems("k", "v").empty());
}

}  // namespace
