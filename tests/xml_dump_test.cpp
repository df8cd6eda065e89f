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

std::string dump_of(const xml::element& e) {
    std::ostringstream out;
    e.dump(out);
    return out.str();
}

std::string dump_of(const xml::document& doc) {
    std::ostringstream out;
    doc.dump(out);
    return out.str();
}

xml::element* add(xml::element& parent, const char* name, const char* text = nullptr) {
    parent.child_elements.push_back(new xml::element(name, text));
    return parent.child_elements.back();
}

TEST(xml_dump, document_example) {
    xml::document doc(nullptr);
    EXPECT_EQ(dump_of(doc), "<?xml  version=\"1.0\"?>\n");
    xml::element* a = doc.set_root(new xml::element("a", nullptr));
    a->attributes = {{"x", "1"}, {"id", "r"}};
    add(*a, "b", "hi");
    add(*a, "c");
    EXPECT_EQ(dump_of(doc),
              "<?xml  version=\"1.0\"?>\n"
              "<a  id=\"r\"  x=\"1\">\n"
              "   <b>hi</b>\n"
              "   <c/>\n"
              "</a>\n");
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

const char* written(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    return path.c_str();
}

// The text written to a file and parsed from there.
struct trace_doc {
    temp_dir dir;
    std::string path;
    xml::document doc;
    bool ok;
    explicit trace_doc(const std::string& text)
        : path(dir.path + "/_ryl.0"), doc(written(path, text)), ok(doc.parse()) {}
};

// Records whose name field is name.
std::vector<xml::element*> records_named(const xml::document& doc, const std::string& name) {
    std::vector<xml::element*> out;
    for (xml::element* r : doc.elems("record"))
        if (r->first_child() && r->first_child()->text == name) out.push_back(r);
    return out;
}

// A record element in the form of the strict trace reader: scalar fields as
// their text, compound fields as {a,b,c}.
parsed_record as_record(const xml::element& r) {
    parsed_record out;
    for (const xml::element* f : r.child_elements) {
        std::string text = f->text;
        if (f->name == "compound_field") {
            text = "{";
            for (const xml::element* word : f->child_elements)
                text += (text.size() > 1 ? "," : "") + word->text;
            text += "}";
        }
        if (out.name.empty()) {
            out.name = text;
        } else if (out.timestamp == 0) {
            out.timestamp = std::stoull(text);
        } else {
            out.fields.push_back(text);
        }
    }
    return out;
}

const std::string hand_written =
    "<?xml version=\"1.0\"?>\n"
    "<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"2\">\n"
    "<record>\n<field>task_begin</field>\n<field>1700000000123456789</field>\n"
    "<field>140000000000</field>\n"
    "<compound_field>\n<field>1</field>\n<field>0</field>\n<field>18446744073709551615</field>\n"
    "</compound_field>\n"
    "<field>3</field>\n</record>\n"
    "<record>\n<field>task_end</field>\n<field>1700000000123456800</field>\n"
    "<field>140000000000</field>\n</record>\n"
    "<record>\n<field>end_of_records</field>\n<field>1700000000123456999</field>\n</record>\n"
    "</trace>\n";

TEST(xml_round_trip, hand_written_trace) {
    trace_doc t(hand_written);
    ASSERT_TRUE(t.ok);
    EXPECT_EQ(t.doc.elems("record").size(), 3u);
    std::vector<xml::element*> begins = records_named(t.doc, "task_begin");
    ASSERT_EQ(begins.size(), 1u);
    const parsed_record r = as_record(*begins[0]);
    EXPECT_EQ(r.timestamp, 1700000000123456789ULL);
    EXPECT_EQ(r.fields, (std::vector<std::string>{"140000000000", "{1,0,18446744073709551615}", "3"}));

    const std::string dumped = dump_of(t.doc);
    EXPECT_EQ(dumped,
              "<?xml  version=\"1.0\"?>\n"
              "<trace  hardware_concurrency=\"2\"  ts_frequency=\"1000000000\"  version=\"0\">\n"
              "   <record>\n      <field>task_begin</field>\n      <field>1700000000123456789</field>\n"
              "      <field>140000000000</field>\n"
              "      <compound_field>\n         <field>1</field>\n         <field>0</field>\n"
              "         <field>18446744073709551615</field>\n      </compound_field>\n"
              "      <field>3</field>\n   </record>\n"
              "   <record>\n      <field>task_end</field>\n      <field>1700000000123456800</field>\n"
              "      <field>140000000000</field>\n   </record>\n"
              "   <record>\n      <field>end_of_records</field>\n      <field>1700000000123456999</field>\n"
              "   </record>\n"
              "</trace>\n");
    trace_doc again(dumped);
    ASSERT_TRUE(again.ok);
    EXPECT_EQ(dump_of(again.doc), dumped);
}

TEST(xml_round_trip, collector_output) {
    temp_dir run_dir;
    const std::string& run = run_dir.path;
    child_result emitter = run_program({RYL_XML_EMITTER}, {{"VUN_DIR", run}});
    ASSERT_EQ(emitter.status, 0) << emitter.out << emitter.err;
    std::vector<std::string> files = list_dir(run);
    ASSERT_FALSE(files.empty());
    size_t task_begins = 0;
    for (const std::string& name : files) {
        const std::string text = read_file(run + "/" + name);
        const parsed_trace expected = parse_trace(text);
        ASSERT_TRUE(expected.ok && expected.finished) << name << ": " << expected.error;
        trace_doc t(text);
        ASSERT_TRUE(t.ok) << name;
        EXPECT_EQ(t.doc.root->attributes.at("hardware_concurrency"),
                  std::to_string(expected.hardware_concurrency));
        std::vector<xml::element*> records = t.doc.elems("record");
        ASSERT_EQ(records.size(), expected.records.size() + 1) << name;
        for (size_t i = 0; i < expected.records.size(); ++i) {
            const parsed_record r = as_record(*records[i]);
            EXPECT_EQ(r.name, expected.records[i].name);
            EXPECT_EQ(r.timestamp, expected.records[i].timestamp);
            EXPECT_EQ(r.fields, expected.records[i].fields);
        }
        EXPECT_EQ(as_record(*records.back()).name, "end_of_records");
        task_begins += records_named(t.doc, "task_begin").size();

        const std::string dumped = dump_of(t.doc);
        trace_doc again(dumped);
        ASSERT_TRUE(again.ok) << name;
        EXPECT_EQ(dump_of(again.doc), dumped) << name;
    }
    EXPECT_EQ(task_begins, 2u);
}

}  // namespace
