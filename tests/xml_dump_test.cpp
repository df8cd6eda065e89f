// Serialiser bytes, and round trips through trace files, hand-written and
// written by the collector.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"
#include "trace_text.h"
#include "xml.h"

namespace {

template <typename T>  // an element or a document
std::string dump_of(const T& e) {
    std::ostringstream out;
    e.dump(out);
    return out.str();
}

xml::element* add(xml::element& parent, const char* name, const char* text = nullptr) {
    return parent.child_elements.emplace_back(new xml::element(name, text));
}

TEST(xml_dump, element_forms) {
    xml::element e("e", nullptr);
    EXPECT_EQ(dump_of(e), "<e/>\n");
    e.attributes = {{"a", "1"}, {"id", "2"}, {"b", "<&\""}};
    EXPECT_EQ(dump_of(e), "<e  id=\"2\"  a=\"1\"  b=\"<&\"\"/>\n");
    add(*add(e, "c"), "d", "t");
    add(e, "xml");
    EXPECT_EQ(dump_of(e), "<e  id=\"2\"  a=\"1\"  b=\"<&\"\">\n   <c>\n      <d>t</d>\n   </c>\n"
                          "<?xml  version=\"1.0\"?>\n</e>\n");
    e.text = "t <x>\n\"&";  // text wins over children
    EXPECT_EQ(dump_of(e), "<e  id=\"2\"  a=\"1\"  b=\"<&\"\">t <x>\n\"&</e>\n");

    xml::document doc(nullptr);
    EXPECT_EQ(dump_of(doc), "<?xml  version=\"1.0\"?>\n");
    add(*doc.set_root(new xml::element("a", nullptr)), "b", "hi");
    EXPECT_EQ(dump_of(doc), "<?xml  version=\"1.0\"?>\n<a>\n   <b>hi</b>\n</a>\n");

    xml::element decl("xml", nullptr);
    decl.attributes["id"] = "d";
    EXPECT_EQ(dump_of(decl), "<?xml  id=\"d\"  version=\"1.0\"?>\n");
    decl.text = "t";
    EXPECT_EQ(dump_of(decl), "<?xml  id=\"d\"  version=\"1.0\">t</xml>\n");
}

// Records what the stream held at each flush.
struct flush_log : std::stringbuf {
    std::vector<std::string> at_flush;
    int sync() override {
        at_flush.push_back(str());
        return 0;
    }
};

TEST(xml_dump, every_line_is_flushed) {
    xml::element a("a", nullptr);
    add(a, "b");
    flush_log log;
    std::ostream out(&log);
    a.dump(out);
    EXPECT_EQ(log.at_flush, (std::vector<std::string>{"<a>\n", "<a>\n   <b/>\n", "<a>\n   <b/>\n</a>\n"}));
}

// ---------------------------------------------------------------- round trip

// A document parsed from text written to a file.
struct text_doc {
    temp_dir dir;
    std::string path = dir.path + "/t.xml";
    xml::document doc;
    bool ok;
    explicit text_doc(const std::string& text) : doc(write(path, text)), ok(doc.parse()) {}
    static const char* write(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
        return path.c_str();
    }
};

// A record element as "name timestamp fields...", compound fields as {a,b,c}.
std::string line_of(const xml::element& r) {
    std::string out;
    for (const xml::element* f : r.child_elements) {
        std::string text = f->name == "compound_field" ? "" : f->text;
        for (const xml::element* word : f->child_elements) text += (text.empty() ? "{" : ",") + word->text;
        out += (out.empty() ? "" : " ") + text + (f->name == "compound_field" ? "}" : "");
    }
    return out;
}

// Written out and parsed again, the document gives the same text.
void expect_dump_round_trip(const xml::document& doc) {
    const std::string dumped = dump_of(doc);
    text_doc again(dumped);
    EXPECT_TRUE(again.ok);
    EXPECT_EQ(dump_of(again.doc), dumped);
}

// Every file the collector writes reads as the strict trace reader reads it.
TEST(xml_round_trip, collector_output) {
    temp_dir run;
    child_result emitter = run_program({RYL_XML_EMITTER}, {{"VUN_DIR", run.path}});
    ASSERT_EQ(emitter.status, 0) << emitter.out << emitter.err;
    std::vector<std::string> files = list_dir(run.path);
    ASSERT_FALSE(files.empty());
    size_t task_begins = 0;
    for (const std::string& name : files) {
        const std::string text = read_file(run.path + "/" + name);
        const parsed_trace expected = parse_trace(text);
        ASSERT_TRUE(expected.ok && expected.finished) << name << ": " << expected.error;
        text_doc t(text);
        ASSERT_TRUE(t.ok) << name;
        EXPECT_EQ(t.doc.root->attributes.at("hardware_concurrency"),
                  std::to_string(expected.hardware_concurrency));
        std::vector<std::string> lines, expected_lines;
        for (const xml::element* r : t.doc.elems("record")) lines.push_back(line_of(*r));
        for (const parsed_record& r : expected.records) {
            expected_lines.push_back(r.name + " " + std::to_string(r.timestamp));
            for (const std::string& f : r.fields) expected_lines.back() += " " + f;
        }
        ASSERT_EQ(lines.size(), expected_lines.size() + 1) << name;
        EXPECT_EQ(lines.back().substr(0, lines.back().find(' ')), "end_of_records");
        lines.pop_back();
        EXPECT_EQ(lines, expected_lines) << name;
        for (const std::string& line : lines) task_begins += line.rfind("task_begin ", 0) == 0;
        expect_dump_round_trip(t.doc);
    }
    EXPECT_EQ(task_begins, 2u);
}

}  // namespace
