// Test helpers for trace file text: expected lines, and a strict reader that
// splits a file into records.
#pragma once
#include <string>
#include <vector>

#include "record_kinds.h"

// "<field>text</field>\n"
std::string field(const std::string& text);
std::string field(unsigned long long value);
// A compound field of three words (five lines).
std::string id_field(unsigned long long a, unsigned long long b, unsigned long long c);
// The two header lines.
std::string header_lines(unsigned hardware_concurrency);
// A whole record whose timestamp line reads "<field>TS</field>".
std::string record(const std::string& name, const std::string& fields = "");
// A whole record of a catalogue kind (masked timestamp), its fields in
// order: an id field given as "a,b,c", any other as its text. A field list
// that does not fit the kind's yields a line saying so.
std::string record(trace_format::record_kind_index kind, const std::vector<std::string>& fields);
// The end_of_records record and "</trace>" with a masked timestamp.
std::string file_end();
// Replaces the timestamp line of every record by "<field>TS</field>"; a
// timestamp that is not a plain decimal number is left as it is.
std::string mask_timestamps(const std::string& trace);

struct parsed_record {
    std::string name;
    unsigned long long timestamp = 0;
    // Scalar fields as their text, compound fields as "{a,b,c}".
    std::vector<std::string> fields;
};

struct parsed_trace {
    bool ok = false;        // header, records (fields as the catalogue says) and end as the format says
    bool finished = false;  // ends with end_of_records and "</trace>"
    unsigned hardware_concurrency = 0;
    std::vector<parsed_record> records;  // without the end_of_records record
    std::string error;                   // what was wrong, when not ok
};

// Reads trace file text line by line; stops at the first line that does not fit.
parsed_trace parse_trace(const std::string& text);
// The whole records of a file that may stop anywhere (a killed process, a
// thread held inside a record when its file was finished): the text before
// the first zero byte and before an end record, cut to whole records.
parsed_trace parse_whole_records(const std::string& text);
// The ids {a, b, c} of a trace's id_create records, as "a,b".
std::vector<std::string> created_ids(const parsed_trace& trace);
