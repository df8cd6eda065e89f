// What the subcommands share: the files of a run directory, names of
// handles, messages, text for terminals, JSON and DOT, output files.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ryl.h"

namespace ryl {

void error_line(const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "ryl: %s\n", text.c_str());
    std::fflush(stderr);
}

namespace {

// "_ryl." followed by decimal digits.
bool trace_file_number(const char* name, unsigned long& number) {
    if (std::strncmp(name, "_ryl.", 5) != 0 || !name[5]) return false;
    number = 0;
    for (const char* p = name + 5; *p; ++p) {
        if (*p < '0' || *p > '9' || number > 100000000) return false;
        number = number * 10 + unsigned(*p - '0');
    }
    return true;
}

}  // namespace

bool list_trace_files(const std::string& dir, std::vector<trace_path>& files) {
    files.clear();
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) {
        error_line(dir + ": " + std::strerror(errno));
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        trace_path p;
        p.path = dir;
        const size_t slash = dir.rfind('/');
        p.name = slash == std::string::npos ? dir : dir.substr(slash + 1);
        trace_file_number(p.name.c_str(), p.number);
        files.push_back(p);
        return true;
    }
    DIR* d = ::opendir(dir.c_str());
    if (!d) {
        error_line(dir + ": " + std::strerror(errno));
        return false;
    }
    while (const dirent* e = ::readdir(d)) {
        trace_path p;
        if (!trace_file_number(e->d_name, p.number)) continue;
        p.name = e->d_name;
        p.path = dir + (dir.empty() || dir.back() == '/' ? "" : "/") + p.name;
        files.push_back(p);
    }
    ::closedir(d);
    if (files.empty()) {
        error_line(dir + ": no trace files (_ryl.0, _ryl.1, ...) in this directory");
        return false;
    }
    std::sort(files.begin(), files.end(),
              [](const trace_path& a, const trace_path& b) { return a.number < b.number; });
    return true;
}

void note_name(name_table& names, const record& rec) {
    if (rec.kind == kind_domain_createA)
        names.domains.emplace(rec.fields[0].number, rec.fields[2].text);
    else if (rec.kind == kind_string_handle_createA)
        names.strings.emplace(rec.fields[0].number, rec.fields[2].text);
}

namespace {
std::string lookup(const std::unordered_map<uint64_t, std::string>& table, uint64_t handle) {
    if (handle == 0) return "(none)";
    const auto it = table.find(handle);
    return it == table.end() ? "handle " + hex(handle) : it->second;
}
}  // namespace

std::string string_name(const name_table& names, uint64_t handle) { return lookup(names.strings, handle); }
std::string domain_name(const name_table& names, uint64_t handle) { return lookup(names.domains, handle); }

bool open_for_reading(trace_file& file, const trace_path& path) {
    if (open_trace(file, path.path) || file.status == read_status::cut_short) return true;
    if (file.status == read_status::failed)
        error_line(path.path + ": " + file.problem);
    else
        error_line(path.path + ": not a trace file: " + file.problem);
    return false;
}

bool done_reading(const trace_file& file, const trace_path& path, bool warn) {
    if (file.status == read_status::failed) {
        error_line(path.path + ": " + file.problem);
        return false;
    }
    if (!warn) return true;
    if (file.status == read_status::malformed)
        error_line("warning: " + path.path + ": " + file.problem + "; the records after it are not read");
    else if (file.status == read_status::cut_short)
        error_line("warning: " + path.path + ": " + file.problem + "; its " + std::to_string(file.records) +
                   " complete records are read");
    return true;
}

bool collect_names(const std::vector<trace_path>& files, name_table& names, uint64_t& first_timestamp) {
    first_timestamp = UINT64_MAX;
    record rec;
    for (const trace_path& p : files) {
        trace_file f;
        if (!open_for_reading(f, p)) return false;
        while (next_record(f, rec) == read_status::record) {
            note_name(names, rec);
            first_timestamp = std::min(first_timestamp, rec.timestamp);
        }
        if (!done_reading(f, p, false)) return false;
    }
    if (first_timestamp == UINT64_MAX) first_timestamp = 0;
    return true;
}

// ---------------------------------------------------------------- text

namespace {

// Length of the valid UTF-8 sequence at s (n bytes left), or 0.
size_t utf8_length(const unsigned char* s, size_t n) {
    const unsigned char c = s[0];
    if (c < 0x80) return 1;
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (n < len || s[1] < lo || s[1] > hi) return 0;
    for (size_t i = 2; i < len; ++i)
        if (s[i] < 0x80 || s[i] > 0xBF) return 0;
    return len;
}

}  // namespace

std::string valid_utf8(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        const size_t len = utf8_length(s + i, text.size() - i);
        if (len) {
            out.append(text, i, len);
            i += len;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return out;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = s[i];
        const size_t len = utf8_length(s + i, text.size() - i);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if ((c >= 32 && c < 127) || len > 1) {
            out.append(text, i, len);
            i += len;
            continue;
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
        ++i;
    }
    return out + "\"";
}

std::string id_text(const id3& id) {
    return "{" + std::to_string(id.a) + ", " + std::to_string(id.b) + ", " + std::to_string(id.c) + "}";
}

std::string hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string seconds(uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%llu.%09llu", static_cast<unsigned long long>(ns / 1000000000),
                  static_cast<unsigned long long>(ns % 1000000000));
    return text;
}

bool parse_command_line(const std::vector<std::string>& args, const std::vector<std::string>& known,
                        command_line& line) {
    bool have_out = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "-o" && i + 1 < args.size() && !have_out) {
            line.out = args[++i];
            have_out = true;
        } else if (std::find(known.begin(), known.end(), a) != known.end()) {
            line.flags.push_back(a);
        } else if (line.dir.empty() && !a.empty() && a[0] != '-') {
            line.dir = a;
        } else {
            return false;
        }
    }
    return !line.dir.empty() && !line.out.empty();
}

bool open_output(output& out, const std::string& name) {
    out.name = name;
    if (name == "-") {
        out.file = stdout;
        return true;
    }
    out.file = std::fopen(name.c_str(), "wb");
    if (!out.file) {
        error_line(name + ": cannot write: " + std::strerror(errno));
        return false;
    }
    return true;
}

bool close_output(output& out) {
    bool ok = std::fflush(out.file) == 0 && !std::ferror(out.file);
    const int err = errno;
    if (out.file != stdout) ok = std::fclose(out.file) == 0 && ok;
    out.file = nullptr;
    if (!ok) error_line(out.name + ": write error: " + std::strerror(err ? err : EIO));
    return ok;
}

}  // namespace ryl
