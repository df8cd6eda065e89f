#include "trace_text.h"

#include <cstdlib>
#include <sstream>

std::string field(const std::string& text) { return "<field>" + text + "</field>\n"; }
std::string field(unsigned long long value) { return field(std::to_string(value)); }

std::string id_field(unsigned long long a, unsigned long long b, unsigned long long c) {
    return "<compound_field>\n" + field(a) + field(b) + field(c) + "</compound_field>\n";
}

std::string header_lines(unsigned hardware_concurrency) {
    return "<?xml version=\"1.0\"?>\n<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"" +
           std::to_string(hardware_concurrency) + "\">\n";
}

std::string record(const std::string& name, const std::string& fields) {
    return "<record>\n" + field(name) + field("TS") + fields + "</record>\n";
}

std::string record(trace_format::record_kind_index kind, const std::vector<std::string>& fields) {
    const trace_format::record_kind& row = trace_format::record_kinds[kind];
    if (int(fields.size()) != trace_format::field_count(row))
        return "<" + std::to_string(fields.size()) + " fields given for " + row.name + ">\n";
    std::string text;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (row.fields[i] != trace_format::field_type::id) {
            text += field(fields[i]);
            continue;
        }
        std::string words = fields[i] + ",";
        text += "<compound_field>\n";
        for (size_t at = 0, comma; (comma = words.find(',', at)) != std::string::npos; at = comma + 1)
            text += field(words.substr(at, comma - at));
        text += "</compound_field>\n";
    }
    return record(row.name, text);
}

std::string file_end() { return record("end_of_records") + "</trace>\n"; }

namespace {
bool all_digits(const std::string& s) { return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos; }

std::vector<std::string> split_lines(const std::string& text, bool& ends_with_newline) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ends_with_newline = text.empty() || text.back() == '\n';
    return lines;
}

// The text of "<field>x</field>", or false.
bool field_text(const std::string& line, std::string& text) {
    if (line.size() < 15 || line.compare(0, 7, "<field>") != 0 || line.compare(line.size() - 8, 8, "</field>") != 0)
        return false;
    text = line.substr(7, line.size() - 15);
    return true;
}
// A record of a kind the library writes, with the kind's fields: compound
// where the catalogue has an id, scalar elsewhere (numbers never start with
// "{"; a text may).
bool fits_catalogue(const parsed_record& rec) {
    for (const trace_format::record_kind& row : trace_format::record_kinds) {
        if (rec.name != row.name) continue;
        if (!row.written || int(rec.fields.size()) != trace_format::field_count(row)) return false;
        for (size_t i = 0; i < rec.fields.size(); ++i)
            if (row.fields[i] != trace_format::field_type::text &&
                (row.fields[i] == trace_format::field_type::id) != (rec.fields[i][0] == '{'))
                return false;
        return true;
    }
    return false;
}
}  // namespace

std::string mask_timestamps(const std::string& trace) {
    bool nl = true;
    std::vector<std::string> lines = split_lines(trace, nl);
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string text;
        bool ts = i >= 2 && lines[i - 2] == "<record>" && field_text(lines[i], text) && all_digits(text);
        out += (ts ? "<field>TS</field>" : lines[i]) + (i + 1 < lines.size() || nl ? "\n" : "");
    }
    return out;
}

parsed_trace parse_trace(const std::string& text) {
    parsed_trace result;
    bool nl = true;
    std::vector<std::string> lines = split_lines(text, nl);
    auto fail = [&](size_t line, const std::string& why) {
        result.error = "line " + std::to_string(line + 1) + ": " + why;
        return result;
    };
    if (!nl) return fail(lines.size() - 1, "last line has no line feed");
    if (lines.size() < 2 || lines[0] != "<?xml version=\"1.0\"?>") return fail(0, "bad header line 1");
    static const std::string h2 = "<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"";
    if (lines[1].compare(0, h2.size(), h2) != 0 || lines[1].size() < h2.size() + 3 ||
        lines[1].compare(lines[1].size() - 2, 2, "\">") != 0 ||
        !all_digits(lines[1].substr(h2.size(), lines[1].size() - h2.size() - 2)))
        return fail(1, "bad header line 2");
    result.hardware_concurrency = unsigned(std::strtoul(lines[1].c_str() + h2.size(), nullptr, 10));
    size_t i = 2;
    while (i < lines.size()) {
        if (lines[i] == "</trace>") {
            if (i + 1 != lines.size()) return fail(i + 1, "text after </trace>");
            if (result.records.empty() || result.records.back().name != "end_of_records")
                return fail(i, "</trace> without end_of_records");
            result.records.pop_back();
            result.finished = true;
            result.ok = true;
            return result;
        }
        if (!result.records.empty() && result.records.back().name == "end_of_records")
            return fail(i, "record after end_of_records");
        if (lines[i] != "<record>") return fail(i, "expected <record>, got '" + lines[i] + "'");
        parsed_record rec;
        std::string ts;
        if (i + 2 >= lines.size() || !field_text(lines[i + 1], rec.name) || !field_text(lines[i + 2], ts) ||
            !all_digits(ts))
            return fail(i, "record without name and timestamp");
        rec.timestamp = std::strtoull(ts.c_str(), nullptr, 10);
        i += 3;
        for (;;) {
            if (i >= lines.size()) return fail(i, "record cut short");
            std::string value;
            if (lines[i] == "</record>") {
                ++i;
                break;
            }
            if (lines[i] == "<compound_field>") {
                std::string a, b, c;
                if (i + 4 >= lines.size() || !field_text(lines[i + 1], a) || !field_text(lines[i + 2], b) ||
                    !field_text(lines[i + 3], c) || lines[i + 4] != "</compound_field>")
                    return fail(i, "bad compound field");
                rec.fields.push_back("{" + a + "," + b + "," + c + "}");
                i += 5;
            } else if (field_text(lines[i], value)) {
                rec.fields.push_back(value);
                ++i;
            } else {
                return fail(i, "unexpected line '" + lines[i] + "'");
            }
        }
        if (!fits_catalogue(rec)) return fail(i - 1, "fields of " + rec.name + " differ from the catalogue");
        result.records.push_back(rec);
    }
    // Complete records but no end: a file of a process that did not finish it.
    result.ok = true;
    return result;
}

parsed_trace parse_whole_records(const std::string& file) {
    std::string text = file.substr(0, file.find('\0'));
    size_t end = text.rfind("<record>\n<field>end_of_records</field>\n");
    if (end != std::string::npos) text.resize(end);
    text.resize(text.rfind('\n') + 1);  // a line cut short
    parsed_trace trace = parse_trace(text);
    if (!trace.ok) trace = parse_trace(text.substr(0, text.rfind("<record>\n")));  // a record cut short
    return trace;
}

std::vector<std::string> created_ids(const parsed_trace& trace) {
    std::vector<std::string> ids;
    for (const parsed_record& r : trace.records)
        if (r.name == "id_create") ids.push_back(r.fields[1].substr(1, r.fields[1].rfind(',') - 1));
    return ids;
}
