// The ryl command: what its subcommands share.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

#include "trace_reader.h"

namespace ryl {

// Exit statuses of ryl.
constexpr int exit_ok = 0;
constexpr int exit_error = 1;       // unreadable input, unwritable output, a tool that failed
constexpr int exit_usage = 2;       // a wrong command line
constexpr int exit_cut_short = 3;   // check: a file ends before "</trace>"
constexpr int exit_malformed = 4;   // check: a file breaks the trace format
// The status of several inputs: an error wins over malformed, malformed over cut short.
inline int worse_status(int a, int b) {
    const auto rank = [](int s) { return s == exit_error ? 3 : s == exit_malformed ? 2 : s == exit_cut_short ? 1 : 0; };
    return rank(b) > rank(a) ? b : a;
}

// One trace file "_ryl.N" of a run directory.
struct trace_path {
    std::string path;    // as given, joined with the file name
    std::string name;    // "_ryl.N"
    unsigned long number = 0;
};

// The trace files of a run directory, in file-number order; a path that
// names one file gives that file. False, with the message printed, when there
// is nothing to read.
bool list_trace_files(const std::string& dir, std::vector<trace_path>& files);

// Names of domains and string handles, by handle.
struct name_table {
    std::unordered_map<uint64_t, std::string> domains;
    std::unordered_map<uint64_t, std::string> strings;
};
// Takes the name from a domain or string-handle record; the first name of a handle stays.
void note_name(name_table& names, const record& rec);
// The name of a string handle: its text, "(none)" for 0, else "handle 0x...".
std::string string_name(const name_table& names, uint64_t handle);
// The name of a domain, the same way.
std::string domain_name(const name_table& names, uint64_t handle);
// Reads every file once for the names of domains and string handles and the
// earliest timestamp; false (message printed) when a file cannot be read.
bool collect_names(const std::vector<trace_path>& files, name_table& names, uint64_t& first_timestamp);

// Opens a file for a subcommand that reads records: false, with the message
// printed, when the file cannot be read or is not a trace file. A file cut
// short in its header is opened and holds no records.
bool open_for_reading(trace_file& file, const trace_path& path);
// After the last record: false (message printed) when reading failed. With
// warn, a warning for a malformed file (its records after the flaw are not
// read) and for a file cut short.
bool done_reading(const trace_file& file, const trace_path& path, bool warn);

// "ryl: " + text on standard error.
void error_line(const std::string& text);
// The text as valid UTF-8: every byte that is not part of a valid sequence
// becomes U+FFFD.
std::string valid_utf8(const std::string& text);
// The text quoted for a terminal: printable bytes and valid UTF-8 as they
// are, quotation marks and backslashes escaped, other bytes as \xNN.
std::string quoted(const std::string& text);
// An id as {a, b, c}.
std::string id_text(const id3& id);
// A number in hexadecimal with "0x".
std::string hex(uint64_t value);
// Nanoseconds as seconds with nine decimals.
std::string seconds(uint64_t ns);
// An output file, "-" for standard output.
struct output {
    std::FILE* file = nullptr;
    std::string name;
};
bool open_output(output& out, const std::string& name);
// Closes the output; false (message printed) when anything failed to be written.
bool close_output(output& out);

// The command line of a subcommand that reads a run directory: DIR, "-o FILE"
// (default "-") and flags from known; false for anything else.
struct command_line {
    std::string dir;
    std::string out = "-";
    std::vector<std::string> flags;
};
bool parse_command_line(const std::vector<std::string>& args, const std::vector<std::string>& known,
                        command_line& line);

int check_command(const std::vector<std::string>& args);
int summary_command(const std::vector<std::string>& args);
int timeline_command(const std::vector<std::string>& args);
int graph_command(const std::vector<std::string>& args);
int profile_command(const std::vector<std::string>& args);
int run_command(const std::vector<std::string>& args);
int export_command(const std::vector<std::string>& args);
// Prints the summary of a run directory to standard output; the exit status.
int print_summary(const std::string& dir);

}  // namespace ryl
