// Tokenizer: token kinds and texts, raw element text, look-ahead, messages.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "child.h"
#include "xml.h"

namespace {

// The input written to a file of a fresh temporary directory.
struct input_file {
    temp_dir dir;
    std::string path = dir.path + "/in.xml";
    explicit input_file(const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
};

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

// Without a buffer (null, or size 0) names and strings are read and not stored.
TEST(xml_token, no_buffer_takes_nothing) {
    input_file file("n \"s\" = m \"t\"");
    xml::tokenizer t(file.path.c_str());
    char untouched[4] = "abc";
    EXPECT_EQ(t.next_token(untouched, 0), xml::token_name);
    EXPECT_EQ(t.next_token(untouched, 0), xml::token_string);
    EXPECT_EQ(t.next_token(nullptr, 0), xml::token_equals);
    EXPECT_EQ(t.next_token(nullptr, 0), xml::token_name);
    EXPECT_EQ(t.next_token(nullptr, 0), xml::token_string);
    EXPECT_STREQ(untouched, "abc");
}

// A tokenizer standing after the ">" of the start tag of the input's first element.
struct after_start_tag {
    input_file file;
    xml::tokenizer t{file.path.c_str()};
    explicit after_start_tag(const std::string& input) : file(input) {
        while (t.next_token(nullptr, 0) != xml::token_tag_close) {
        }
    }
};

// Raw content up to the end tag that closes the element; a buffer too small
// for it keeps size - 2 characters and warns once.
TEST(xml_text, raw_content_up_to_closing_end_tag) {
    const std::string warning = "WARNING: buffer too small for data, truncating\n";
    const std::tuple<const char*, int, const char*, std::string> cases[] = {
        {"<p>x <b>y</b> z</p>", 64, "x <b>y</b> z", ""}, {"<p>a<br/>b</p>", 64, "a<br/>b", ""},
        {"<p><b>y</b></p>", 64, "<b>y</b>", ""}, {"<p>a &amp; \x80\xFE</p>", 64, "a &amp; \x80\xFE", ""},
        {"<data></data>", 64, "", ""}, {"<data>  </data>", 64, "  ", ""},
        {"<d>abcdefg</d>", 5, "abc", warning}};
    for (const auto& [input, size, expected, out] : cases) {
        after_start_tag s(input);
        std::vector<char> text(size);  // exactly the size given, so that a write past it shows
        testing::internal::CaptureStdout();
        s.t.get_text(text.data(), size);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), out) << input;
        EXPECT_STREQ(text.data(), expected) << input;
        EXPECT_EQ(s.t.next_token(nullptr, 0), xml::token_end_tag) << input;
    }
    after_start_tag s("<a>  \n  hello</a>");
    EXPECT_EQ(s.t.look_ahead(), 'h');
    char text[16];
    s.t.get_text(text, sizeof text);
    EXPECT_STREQ(text, "hello");
}

// capture_string warns once per dropped character.
TEST(xml_text, capture_string_warns_per_dropped_character) {
    input_file file("= \"hello\" b");
    xml::tokenizer t(file.path.c_str());
    char buf[4];
    ASSERT_EQ(t.next_token(nullptr, 0), xml::token_equals);
    ASSERT_EQ(t.next_char(), '"');
    testing::internal::CaptureStdout();
    t.capture_string(buf, sizeof buf);
    const std::string line = "WARNING: buffer 4 is too small for string, truncating\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
    EXPECT_STREQ(buf, "hel");
    EXPECT_EQ(t.next_token(buf, sizeof buf), xml::token_name);
    EXPECT_STREQ(buf, "b");
}

// The file is closed with the tokenizer; without a name there is no file.
TEST(xml_open, file_is_closed_with_tokenizer) {
    input_file file("<a/>");
    const size_t before = list_dir("/proc/self/fd").size();
    auto* t = new xml::tokenizer(file.path.c_str());
    EXPECT_EQ(list_dir("/proc/self/fd").size(), before + 1);
    delete t;
    EXPECT_EQ(list_dir("/proc/self/fd").size(), before);
    xml::tokenizer none(nullptr);
    EXPECT_EQ(none.next_token(nullptr, 0), xml::token_end);
}

}  // namespace
