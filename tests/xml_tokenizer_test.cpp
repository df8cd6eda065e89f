// Tokenizer: token kinds and texts, raw element text, look-ahead, messages.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "child.h"
#include "xml.h"

namespace {

// The input written to a file of a fresh temporary directory.
struct input_file {
    temp_dir dir;
    std::string path;
    explicit input_file(const std::string& text) : path(dir.path + "/in.xml") {
        std::ofstream(path, std::ios::binary) << text;
    }
};

// Tokens of the input, each as its character (END for -1), names as n(text)
// and strings as "(text); stops after END.
std::string tokens(const std::string& input) {
    input_file file(input);
    xml::tokenizer t(file.path.c_str());
    char buf[1024];
    std::string out;
    for (int i = 0; i < 64; ++i) {
        const int kind = t.next_token(buf, sizeof buf);
        if (!out.empty()) out += ' ';
        if (kind == -1) return out + "END";
        out += static_cast<char>(kind);
        if (kind == 110 || kind == 34) out += "(" + std::string(buf) + ")";
    }
    return out + "...";
}

struct token_case {
    const char* name;
    std::string input;
    const char* expected;
};

const token_case token_cases[] = {
    {"empty_file", "", "END"},
    {"empty_element_with_attribute", "<a b=\"1\"/>", "b n(a) n(b) = \"(1) E END"},
    {"empty_element_with_space", "<a />", "b n(a) E END"},
    {"slash_belongs_to_name", "<a/>", "b n(a/) > END"},
    {"declaration", "<?xml version=\"1.0\"?>", "x n(xml) n(version) = \"(1.0) X END"},
    {"end_tag", "</x>", "e n(x) > END"},
    {"name_ends_at_delimiters", "a=b>c?>d\te", "n(a) = n(b) > n(c) X n(d) n(e) END"},
    {"name_keeps_lt_slash_quote", "a<b/\"c", "n(a<b/\"c) END"},
    {"comment_between_tokens", "<a> <!-- <b> - -- x --> </a>", "b n(a) > c e n(a) > END"},
    {"comment_empty", "<!---->x", "c n(x) END"},
    {"comment_dash_gt_does_not_close", "<!-->x-->y", "c n(y) END"},
    {"comment_three_dashes", "<!-- a --->y", "c n(y) END"},
    {"comment_single_dash", "<!- a -->", "END"},
    {"doctype", "<!DOCTYPE x>", "END"},
    {"cdata", "<![CDATA[x]]>", "END"},
    {"slash_without_gt", "/ >", "END"},
    {"question_without_gt", "?x", "END"},
    {"string_escaped_quote", "\"a\\\"b\"", "\"(a\\\"b) END"},
    {"string_two_backslashes_do_not_close", "\"a\\\\\"b\" c", "\"(a\\\\\"b) n(c) END"},
    {"string_keeps_whitespace", "\" a\n\tb \"", "\"( a\n\tb ) END"},
    {"high_bytes_are_whitespace_between_tokens", "\x80" "a\xFE" "b", "n(a) n(b) END"},
    {"high_bytes_copied_in_string", "\"\x80\xFE\"", "\"(\x80\xFE) END"},
    {"ff_between_tokens_ends_input", "a \xFF b", "n(a) END"},
    {"ff_inside_name", "a\xFF" "b c", "n(a\xFF" "b) n(c) END"},
    {"ff_inside_string", "\"\xFF\xFF" "x\"", "\"(\xFF\xFF" "x) END"},
    {"eof_inside_name", "<abc", "b n(abc) END"},
    {"eof_inside_string", "a=\"abc", "n(a) = END"},
    {"eof_inside_comment", "<!-- abc -", "END"},
};

void PrintTo(const token_case& c, std::ostream* os) { *os << testing::PrintToString(c.input); }

class token : public testing::TestWithParam<token_case> {};

TEST_P(token, kinds_and_texts) {
    EXPECT_EQ(tokens(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(xml, token, testing::ValuesIn(token_cases),
                         [](const testing::TestParamInfo<token_case>& info) { return info.param.name; });

TEST(xml_token, long_name_is_cut_and_no_buffer_takes_nothing) {
    input_file file(std::string(2000, 'n') + " x \"s\" =");
    xml::tokenizer t(file.path.c_str());
    char buf[1024];
    EXPECT_EQ(t.next_token(buf, sizeof buf), 110);
    EXPECT_EQ(std::string(buf), std::string(1023, 'n'));
    char untouched[4] = "abc";
    EXPECT_EQ(t.next_token(nullptr, 0), 110);
    EXPECT_EQ(t.next_token(untouched, 0), 34);
    EXPECT_EQ(t.next_token(nullptr, 0), 61);
    EXPECT_STREQ(untouched, "abc");
}

// A tokenizer standing after the ">" of the start tag of the input's first element.
struct after_start_tag {
    input_file file;
    xml::tokenizer t;
    explicit after_start_tag(const std::string& input) : file(input), t(file.path.c_str()) {
        char buf[64];
        while (t.next_token(buf, sizeof buf) != 62) {
        }
    }
};

struct text_case {
    const char* input;
    const char* text;
};

TEST(xml_text, raw_content_up_to_closing_end_tag) {
    const text_case cases[] = {
        {"<p>x <b>y</b> z</p>", "x <b>y</b> z"},
        {"<p>a<br/>b</p>", "a<br/>b"},
        {"<p><b>y</b></p>", "<b>y</b>"},
        {"<p>a &amp; \x80\xFE</p>", "a &amp; \x80\xFE"},
        {"<data></data>", ""},
        {"<data>  </data>", "  "},
    };
    for (const text_case& c : cases) {
        after_start_tag s(c.input);
        char text[256];
        s.t.get_text(text, sizeof text);
        EXPECT_STREQ(text, c.text) << c.input;
        EXPECT_EQ(s.t.next_token(nullptr, 0), 101) << c.input;
    }
    after_start_tag s("<a>  \n  hello</a>");
    EXPECT_EQ(s.t.look_ahead(), 'h');
    char text[16];
    s.t.get_text(text, sizeof text);
    EXPECT_STREQ(text, "hello");
}

TEST(xml_text, too_small_buffer_warns_once) {
    after_start_tag s("<d>abcdefg</d>");
    char text[5];
    testing::internal::CaptureStdout();
    s.t.get_text(text, sizeof text);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARNING: buffer too small for data, truncating\n");
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(s.t.next_token(nullptr, 0), 101);
}

TEST(xml_text, capture_string_warns_per_dropped_character) {
    input_file file("a = \"hello\" b");
    xml::tokenizer t(file.path.c_str());
    char buf[4];
    ASSERT_EQ(t.next_token(buf, sizeof buf), 110);
    ASSERT_EQ(t.next_token(nullptr, 0), 61);
    ASSERT_EQ(t.next_char(), '"');
    testing::internal::CaptureStdout();
    t.capture_string(buf, sizeof buf);
    const std::string line = "WARNING: buffer 4 is too small for string, truncating\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
    EXPECT_STREQ(buf, "hel");
    EXPECT_EQ(t.next_token(buf, sizeof buf), 110);
    EXPECT_STREQ(buf, "b");
}

TEST(xml_open, missing_file_prints_error_and_ends_input) {
    temp_dir dir;
    const std::string path = dir.path + "/missing.xml";
    testing::internal::CaptureStdout();
    xml::tokenizer t(path.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Could not open " + path + "\n");
    EXPECT_TRUE(t.open_failed);
    EXPECT_EQ(t.next_token(nullptr, 0), -1);
}

TEST(xml_open, file_is_closed_with_tokenizer) {
    input_file file("<a/>");
    const size_t before = list_dir("/proc/self/fd").size();
    {
        xml::tokenizer t(file.path.c_str());
        EXPECT_EQ(list_dir("/proc/self/fd").size(), before + 1);
    }
    EXPECT_EQ(list_dir("/proc/self/fd").size(), before);
}

TEST(xml_open, no_name_reads_end_of_input_silently) {
    testing::internal::CaptureStdout();
    xml::tokenizer t(nullptr);
    EXPECT_EQ(t.next_token(nullptr, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
