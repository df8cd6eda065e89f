// The XML document library: token kinds and texts, raw element text,
// look-ahead and messages; parser outcomes, limits and queries, checked
// through the dumped tree; serialiser bytes; and round trips through the
// trace files that the collector writes.
#include <gtest/gtest.h>
#include <pthread.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "child.h"
#include "trace_text.h"
#include "xml.h"

namespace {

// The input written to a file of a fresh temporary directory.
struct input_file {
    temp_dir dir;
    std::string path = dir.path + "/in.xml";
    explicit input_file(const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
};

// A document on such a file, and what parse answered.
struct text_doc : input_file {
    xml::document doc{path.c_str()};
    bool ok = doc.parse();
    explicit text_doc(const std::string& text) : input_file(text) {}
};

template <typename T>  // an element or a document
std::string dump_of(const T& e) {
    std::ostringstream out;
    e.dump(out);
    return out.str();
}

// The dump of a document, without the declaration line when it is the preset one.
std::string tree_of(const xml::document& doc) {
    const std::string text = dump_of(doc), preset = "<?xml  version=\"1.0\"?>\n";
    return text.compare(0, preset.size(), preset) == 0 ? text.substr(preset.size()) : text;
}

// ---------------------------------------------------------------- tokenizer

// Bytes from memory through an overridden getc, as ryl's trace reader does.
struct memory_tokenizer : xml::tokenizer {
    std::string bytes;
    size_t at = 0;
    explicit memory_tokenizer(std::string b) : xml::tokenizer(nullptr), bytes(std::move(b)) {}
    int getc() override { return at < bytes.size() ? static_cast<unsigned char>(bytes[at++]) : -1; }
};

// Tokens of t, each as its character (END for -1), names as n(text) and
// strings as "(text); stops after END.
std::string tokens_of(xml::tokenizer& t) {
    char buf[1024];
    std::string out;
    for (int i = 0; i < 64; ++i) {
        const int kind = t.next_token(buf, sizeof buf);
        if (kind == xml::token_end) return out + "END";
        out += static_cast<char>(kind);
        out += kind == xml::token_name || kind == xml::token_string ? "(" + std::string(buf) + ") " : " ";
    }
    return out + "...";
}

// The tokens of the input read from a file; an overridden getc must give the same.
std::string tokens(const std::string& input) {
    input_file file(input);
    xml::tokenizer t(file.path.c_str());
    memory_tokenizer m(input);
    const std::string out = tokens_of(t);
    EXPECT_EQ(tokens_of(m), out) << "overridden getc";
    return out;
}

TEST(xml_token, kinds_and_texts) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "END"},
        {"<a b=\"1\"/>", "b n(a) n(b) = \"(1) E END"},
        {"<a />", "b n(a) E END"},
        {"<a/>", "b n(a/) > END"},  // the slash belongs to the name
        {"<?xml version=\"1.0\"?>", "x n(xml) n(version) = \"(1.0) X END"},
        {"</x>", "e n(x) > END"},
        {"a=b>c?>d\te", "n(a) = n(b) > n(c) X n(d) n(e) END"},
        {"a<b/\"c", "n(a<b/\"c) END"},
        {std::string(2000, 'n') + " x", "n(" + std::string(1023, 'n') + ") n(x) END"},
        // A comment ends at two or more dashes and ">".
        {"<a> <!-- <b> - -- x --> </a>", "b n(a) > c e n(a) > END"},
        {"<!---->x <!-->x-->y <!-- a --->z", "c n(x) c n(y) c n(z) END"},
        // Constructs the tokenizer does not know end the input.
        {"<!- a -->", "END"}, {"<!DOCTYPE x>", "END"}, {"<![CDATA[x]]>", "END"}, {"/ >", "END"},
        {"?x", "END"},
        // A backslash takes the next character into the string, a backslash too.
        {"\"a\\\"b\" \"a\\\\\"b\" c", "\"(a\\\"b) \"(a\\\\\"b) n(c) END"},
        {"\" a\n\tb \"", "\"( a\n\tb ) END"},
        // Bytes 0x80..0xFE separate tokens; 0xFF ends the input between tokens.
        {"\x80" "a\xFE" "b \"\x80\xFE\"", "n(a) n(b) \"(\x80\xFE) END"},
        {"a\xFF" "b \"\xFF\xFF" "x\" c \xFF d", "n(a\xFF" "b) \"(\xFF\xFF" "x) n(c) END"},
        {"<abc", "b n(abc) END"}, {"a=\"abc", "n(a) = END"}, {"<!-- abc -", "END"},
    };
    for (const auto& c : cases) EXPECT_EQ(tokens(c.first), c.second) << testing::PrintToString(c.first);
}

// Without a buffer (null, or size 0) names and strings are read and not
// stored; capture_string into a small one warns once per dropped character.
TEST(xml_token, no_buffer_takes_nothing_and_small_buffer_warns) {
    input_file file("n \"s\" = m \"t\" = \"hello\" b");
    xml::tokenizer t(file.path.c_str());
    char untouched[4] = "abc";
    for (int kind : {xml::token_name, xml::token_string}) EXPECT_EQ(t.next_token(untouched, 0), kind);
    for (int kind : {xml::token_equals, xml::token_name, xml::token_string, xml::token_equals})
        EXPECT_EQ(t.next_token(nullptr, 0), kind);
    EXPECT_STREQ(untouched, "abc");
    char buf[4];
    ASSERT_EQ(t.next_char(), '"');
    testing::internal::CaptureStdout();
    t.capture_string(buf, sizeof buf);
    const std::string line = "WARNING: buffer 4 is too small for string, truncating\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
    EXPECT_STREQ(buf, "hel");
    EXPECT_EQ(t.next_token(buf, sizeof buf), xml::token_name);
    EXPECT_STREQ(buf, "b");
}

// Raw content up to the end tag that closes the element; a buffer too small
// for it keeps size - 2 characters and warns once. Whitespace that look_ahead
// (when a character is given) skips is gone from the text.
TEST(xml_text, raw_content_up_to_closing_end_tag) {
    const std::string warning = "WARNING: buffer too small for data, truncating\n";
    const std::tuple<const char*, int, const char*, std::string, char> cases[] = {
        {"<p>x <b>y</b> z</p>", 64, "x <b>y</b> z", "", 0}, {"<p>a<br/>b</p>", 64, "a<br/>b", "", 0},
        {"<p><b>y</b></p>", 64, "<b>y</b>", "", 0}, {"<data></data>", 64, "", "", 0},
        {"<p>a &amp; \x80\xFE</p>", 64, "a &amp; \x80\xFE", "", 0}, {"<data>  </data>", 64, "  ", "", 0},
        {"<d>abcdefg</d>", 5, "abc", warning, 0}, {"<a>  \n  hello</a>", 16, "hello", "", 'h'}};
    for (const auto& [input, size, expected, out, ahead] : cases) {
        input_file file(input);
        xml::tokenizer t(file.path.c_str());
        while (t.next_token(nullptr, 0) != xml::token_tag_close) {  // up to the ">" of the start tag
        }
        if (ahead) EXPECT_EQ(t.look_ahead(), ahead) << input;
        std::vector<char> text(size);  // exactly the size given, so that a write past it shows
        testing::internal::CaptureStdout();
        t.get_text(text.data(), size);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), out) << input;
        EXPECT_STREQ(text.data(), expected) << input;
        EXPECT_EQ(t.next_token(nullptr, 0), xml::token_end_tag) << input;
    }
}

// The file is closed with the tokenizer; without a name there is no file. A
// missing file gives a document without a root, in which queries find nothing.
TEST(xml_open, file_closed_with_tokenizer_and_missing_file_gives_empty_document) {
    input_file file("<a/>");
    const size_t before = list_dir("/proc/self/fd").size();
    auto* t = new xml::tokenizer(file.path.c_str());
    EXPECT_EQ(list_dir("/proc/self/fd").size(), before + 1);
    delete t;
    EXPECT_EQ(list_dir("/proc/self/fd").size(), before);
    EXPECT_EQ(xml::tokenizer(nullptr).next_token(nullptr, 0), xml::token_end);

    const std::string path = file.dir.path + "/none.xml";
    testing::internal::CaptureStdout();
    xml::document doc(path.c_str());
    EXPECT_TRUE(doc.parse());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Could not open " + path + "\n");
    EXPECT_TRUE(doc.input.open_failed);
    EXPECT_EQ(doc.root, nullptr);
    EXPECT_EQ(tree_of(doc), "");
    EXPECT_EQ(doc.elem("7"), nullptr);
    EXPECT_TRUE(doc.elems("a").empty());
    EXPECT_TRUE(doc.elems("k", "v").empty());
}

// ---------------------------------------------------------------- parser

// What parse answered, and the tree it left.
std::pair<bool, std::string> parse(const std::string& input) {
    text_doc t(input);
    return {t.ok, tree_of(t.doc)};
}

// What parse answers and the tree it leaves, for well-formed input first.
TEST(xml_parse, well_formed_and_malformed) {
    const std::string n(2000, 'n'), v(2000, 'v'), t(150000, 't'), cut = n.substr(0, 1023);
    const std::pair<std::string, std::string> cases[] = {
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
        // Names and values are cut to 1023 characters, text to 99998 with a
        // warning; the end tag's name is cut the same way, so it still matches.
        {"<" + n + " " + n + "=\"" + v + "\">" + t + "</" + n + ">",
         "<" + cut + "  " + cut + "=\"" + v.substr(0, 1023) + "\">" + t.substr(0, 99998) + "</" + cut +
             ">\n"},
    };
    testing::internal::CaptureStdout();
    for (const auto& c : cases)
        EXPECT_EQ(parse(c.first), std::make_pair(true, c.second)) << c.first.substr(0, 100);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARNING: buffer too small for data, truncating\n");

    // Malformed input, grouped by the tree that stays: what was read before the fault.
    const std::pair<const char*, std::vector<std::string>> malformed[] = {
        {"", {"<?php x?>", "<?xml version=\"1.0\" <a/>", "hello", "</a>"}},
        {"<a/>\n", {"<a>", "<a />\n<b />", "<a><!DOCTYPE x></a>", "<a><!-- x</a>", "<a><?xml?></a>",
                    "<a b='1'/>", "<a b>", "<a b=\"1"}},
        {"<a>\n   <b/>\n</a>\n", {"<a><b /> t <c /></a>", "<a><b></c></a>", "<a><b /></a"}},
        {"<a//>\n", {"<a/>"}}, {"<a>text</a>\n", {"<a>text"}}, {"<a  b=\"1\"/>\n", {"<a b=\"1\" c>"}},
    };
    for (const auto& c : malformed)
        for (const std::string& input : c.second)
            EXPECT_EQ(parse(input), std::make_pair(false, std::string(c.first))) << input;
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
    text_doc a(repeat("<e>", limit) + repeat("</e>", limit)),
        b(repeat("<e>", limit + 1) + repeat("</e>", limit + 1)), c(repeat("<e>", 200000));
    const size_t below_root = limit - 1;
    bool& ok = *static_cast<bool*>(result);
    ok = a.ok && a.doc.elems("e").size() == below_root && !b.ok && !c.ok &&
         c.doc.elems("e").size() == below_root && tree_of(a.doc).size() > 3u * below_root * limit;
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
    text_doc file("<r n=\"r\" id=\"7\"><a n=\"a\" id=\"1\"><b n=\"ab\" k=\"v\"/></a>"
                    "<c n=\"c\"><b n=\"cb\" id=\"7\" k=\"\"/></c>"
                    "<b n=\"b\" id=\"7\" k=\"v\"/><d n=\"d\" k=\"w\"/></r>");
    ASSERT_TRUE(file.ok);
    const std::string before = tree_of(file.doc);
    const xml::element& r = *file.doc.root;
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
    EXPECT_EQ(labels({file.doc.elem("7")}), "cb");
    EXPECT_EQ(labels(file.doc.elems("r")), "");
    EXPECT_EQ(labels(file.doc.elems("k", "v")), "ab b");
    EXPECT_EQ(labels(file.doc.elems("b", "k", "")), "cb");
    EXPECT_EQ(labels(file.doc.elems("q", "missing")), "");
    EXPECT_EQ(tree_of(file.doc), before);
    // set_root keeps the same root alive and replaces another.
    EXPECT_EQ(file.doc.set_root(file.doc.root), &r);
    EXPECT_EQ(file.doc.set_root(new xml::element("z", nullptr))->name, "z");
}

// Parsed elements share large blocks of memory: each still lives on its own.
// Taken out of a document that is then destroyed, deleted one by one on
// several threads, mixed with elements made with every form of new.
TEST(xml_memory, parsed_elements_live_and_die_one_by_one) {
    std::string text = "<r>";
    for (int i = 0; i < 3000; ++i) text += "<e n=\"" + std::to_string(i) + "\">t" + std::to_string(i) + "</e>";
    std::vector<xml::element*> taken;
    {
        text_doc t(text + "</r>");
        ASSERT_TRUE(t.ok);
        taken.swap(t.doc.root->child_elements);
        t.doc.root->child_elements.push_back(taken.back());  // the document still owns this one
        taken.pop_back();
        t.doc.root->child_elements.push_back(new xml::element("made", "by new"));
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
    std::thread other([&taken] {
        for (size_t i = 1; i < taken.size(); i += 2) delete taken[i];
    });
    for (size_t i = 0; i < taken.size(); i += 2) delete taken[i];
    other.join();
}

// ---------------------------------------------------------------- dump

xml::element* add(xml::element& parent, const char* name, const char* text = nullptr) {
    return parent.child_elements.emplace_back(new xml::element(name, text));
}

// The text written between one flush of the stream and the next.
struct flush_log : std::stringbuf {
    std::vector<std::string> lines;
    int sync() override {
        lines.push_back(str());
        str("");
        return 0;
    }
};

// Each line is flushed as soon as it is written.
TEST(xml_dump, element_forms_flushed_line_by_line) {
    xml::element e("e", nullptr);
    EXPECT_EQ(dump_of(e), "<e/>\n");
    e.attributes = {{"a", "1"}, {"id", "2"}, {"b", "<&\""}};
    EXPECT_EQ(dump_of(e), "<e  id=\"2\"  a=\"1\"  b=\"<&\"\"/>\n");
    add(*add(e, "c"), "d", "t");
    add(e, "xml");
    flush_log log;
    std::ostream out(&log);
    e.dump(out);
    EXPECT_EQ(log.lines, (std::vector<std::string>{"<e  id=\"2\"  a=\"1\"  b=\"<&\"\">\n", "   <c>\n",
                                                  "      <d>t</d>\n", "   </c>\n",
                                                  "<?xml  version=\"1.0\"?>\n", "</e>\n"}));
    EXPECT_EQ(log.str(), "");  // nothing after the last flush
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

// ---------------------------------------------------------------- round trip

// An element written back in the layout of a trace file: its tags on lines
// of their own, or its text between them when it has no children.
std::string trace_layout(const xml::element& e) {
    if (e.child_elements.empty()) return "<" + e.name + ">" + e.text + "</" + e.name + ">\n";
    std::string out = "<" + e.name + ">\n";
    for (const xml::element* child : e.child_elements) out += trace_layout(*child);
    return out + "</" + e.name + ">\n";
}

// Every file the collector writes (here a few records on two threads of a
// child) is a trace the strict reader accepts, and the tree holds all of it:
// written back in the same layout it gives the file's bytes. Dumped and
// parsed again, the document gives the same text.
TEST(xml_round_trip, collector_output) {
    temp_dir run;
    child_result child = run_in_child({{{"VUN_DIR", run.path}}, {}}, [](zop_api& api) {
        auto emit = [&api](unsigned long long task) {
            ___zop_domain* d = api.domain_createA("xml_round_trip");
            ___zop_string_handle* h = api.string_handle_createA("task \"name\" &amp; more");
            __zop_id id{task, 0, 18446744073709551615ULL}, none{0, 0, 0};
            api.task_begin(d, id, none, h);
            api.relation_add(d, id, 5, none);
            api.task_end(d);
        };
        emit(1);
        std::thread(emit, 2).join();
    });
    ASSERT_EQ(child.status, 0) << child.out << child.err;
    size_t task_begins = 0;  // both threads' files are read
    for (const std::string& name : list_dir(run.path)) {
        const std::string text = read_file(run.path + "/" + name);
        const parsed_trace expected = parse_trace(text);
        ASSERT_TRUE(expected.ok && expected.finished) << name << ": " << expected.error;
        for (const parsed_record& r : expected.records) task_begins += r.name == "task_begin";
        text_doc t(text);
        ASSERT_TRUE(t.ok) << name;
        std::string layout = header_lines(std::stoul(t.doc.root->attributes.at("hardware_concurrency")));
        for (const xml::element* r : t.doc.root->child_elements) layout += trace_layout(*r);
        EXPECT_EQ(layout + "</trace>\n", text) << name;
        const std::string dumped = dump_of(t.doc);
        text_doc again(dumped);
        EXPECT_TRUE(again.ok) << name;
        EXPECT_EQ(dump_of(again.doc), dumped) << name;
    }
    EXPECT_EQ(task_begins, 2u);
}

}  // namespace
