// Time and peak memory of ryl on a large run directory.
//
// Writes a run directory of the given size (default 1024 MB) under BENCH_DIR
// (or TMPDIR, or /tmp): eight thread files of nested tasks, relations,
// metadata and texts holding "<", "&" and quotation marks, the last file cut
// short inside a record and followed by a zero-filled tail. Then runs check,
// summary, timeline and graph on it, one process each, and reports the wall
// time and the peak resident memory of each (getrusage of the child). The
// directory is removed at the end. Usage: bench_ryl [MEGABYTES]
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int files = 8;
constexpr int names = 64;      // string handles
constexpr int graph_ids = 4096;  // ids that relations join: the graph stays small

struct writer {
    std::string buf;
    unsigned long long ts = 1700000000000000000ULL;

    void line(const char* text) { buf += text; buf += '\n'; }
    void field(unsigned long long v) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, v).ptr;
        buf += "<field>";
        buf.append(digits, end);
        buf += "</field>\n";
    }
    void text(const std::string& t) { buf += "<field>" + t + "</field>\n"; }
    void id(unsigned long long a, unsigned long long b) {
        buf += "<compound_field>\n";
        field(a);
        field(b);
        field(0);
        buf += "</compound_field>\n";
    }
    void begin(const char* name) {
        buf += "<record>\n<field>";
        buf += name;
        buf += "</field>\n";
        field(ts += 137);
    }
    void end() { buf += "</record>\n"; }
};

const unsigned long long domain = 94000000001000ULL;
unsigned long long name_handle(int i) { return 94000000002000ULL + 64 * unsigned(i); }

void handles(writer& w) {
    w.begin("domain_createA");
    w.field(domain);
    w.field(5);
    w.text("bench");
    w.end();
    for (int i = 0; i < names; ++i) {
        const std::string name = "task_" + std::to_string(i) + (i % 8 ? "" : " <&\"x\">");
        w.begin("string_handle_createA");
        w.field(name_handle(i));
        w.field(name.size());
        w.text(name);
        w.end();
    }
}

// One round: a task with a nested task, a relation, a metadata value and,
// now and then, a text.
void round(writer& w, unsigned long long n) {
    w.begin("task_begin");
    w.field(domain);
    w.id(n, 0);
    w.id(0, 0);
    w.field(name_handle(int(n % names)));
    w.field(n % 4);
    w.end();
    w.begin("task_begin");
    w.field(domain);
    w.id(n, 2);
    w.id(n, 0);
    w.field(name_handle(int((n * 7) % names)));
    w.field(n % 4);
    w.end();
    w.begin("relation");
    w.field(domain);
    w.id(n % graph_ids, 1);
    w.field(7);
    w.id((n + 1) % graph_ids, 0);
    w.end();
    w.begin("task_end");
    w.field(domain);
    w.end();
    w.begin("metadata");
    w.field(domain);
    w.id(n % graph_ids, 0);
    w.field(name_handle(1));
    w.field(3);
    w.field(1);
    w.field(n & 0xffffffff);
    w.end();
    if (n % 16 == 0) {
        w.begin("metadata_stringA");
        w.field(domain);
        w.id(n % graph_ids, 0);
        w.field(name_handle(2));
        w.field(28);
        w.text("a <b> & \"c\" </field>\nmore text");
        w.end();
    }
    w.begin("task_end");
    w.field(domain);
    w.end();
}

bool write_all(int fd, const std::string& s) {
    for (size_t done = 0; done < s.size();) {
        const ssize_t n = ::write(fd, s.data() + done, s.size() - done);
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

bool make_run(const std::string& dir, unsigned long long bytes) {
    const unsigned long long per_file = bytes / files;
    unsigned long long n = 1;
    for (int f = 0; f < files; ++f) {
        const std::string path = dir + "/_ryl." + std::to_string(f);
        FILE* out = std::fopen(path.c_str(), "wb");
        if (!out) return false;
        const int fd = fileno(out);
        writer w;
        w.line("<?xml version=\"1.0\"?>");
        w.line("<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"8\">");
        if (f == 0) handles(w);
        unsigned long long written = 0;
        while (written + w.buf.size() < per_file) {
            round(w, n++);
            if (w.buf.size() >= (1 << 22)) {
                if (!write_all(fd, w.buf)) return false;
                written += w.buf.size();
                w.buf.clear();
            }
        }
        if (f + 1 < files) {
            w.begin("end_of_records");
            w.end();
            w.line("</trace>");
        } else {
            round(w, n++);
            w.buf.resize(w.buf.size() - 40);  // killed inside its last record
            w.buf.append(65536, '\0');         // the rest of a mapped chunk
        }
        if (!write_all(fd, w.buf)) return false;
        std::fclose(out);
    }
    return true;
}

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

struct result {
    int status;
    double seconds;
    long peak_kb;
};

result run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::fflush(stdout);
    const double start = now();
    const pid_t pid = fork();
    if (pid == 0) {
        if (!freopen("/dev/null", "w", stdout)) _exit(126);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), now() - start, usage.ru_maxrss};
}

unsigned long long directory_bytes(const std::string& dir) {
    unsigned long long total = 0;
    for (int f = 0; f < files; ++f) {
        struct stat st;
        if (stat((dir + "/_ryl." + std::to_string(f)).c_str(), &st) == 0) total += st.st_size;
    }
    return total;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned long long megabytes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const char* base = std::getenv("BENCH_DIR");
    if (!base || !*base) base = std::getenv("TMPDIR");
    std::string dir = std::string(base && *base ? base : "/tmp") + "/bench_ryl_XXXXXX";
    if (!mkdtemp(&dir[0])) {
        std::perror("mkdtemp");
        return 1;
    }
    std::printf("writing %llu MB into %s ...\n", megabytes, dir.c_str());
    std::fflush(stdout);
    const double start = now();
    if (!make_run(dir, megabytes << 20)) {
        std::perror("writing the run directory");
        return 1;
    }
    const double mb = double(directory_bytes(dir)) / (1 << 20);
    std::printf("run directory: %.0f MB in %d files, written in %.1f s\n\n", mb, files, now() - start);
    std::printf("%-10s %6s %9s %9s %14s\n", "command", "exit", "seconds", "MB/s", "peak RSS (MB)");

    const std::string json = dir + "/trace.json", dot = dir + "/graph.dot";
    const std::vector<std::vector<std::string>> commands = {
        {RYL_TOOL, "check", dir}, {RYL_TOOL, "summary", dir}, {RYL_TOOL, "profile", dir, "-o", dir + "/profile.txt"},
        {RYL_TOOL, "timeline", dir, "-o", json}, {RYL_TOOL, "graph", dir, "-o", dot},
        {RYL_TOOL, "export", "--otf2", dir, dir + "/otf2"},
        {RYL_TOOL, "timeline", dir, "--perfetto", "-o", dir + "/trace.pftrace"}};
    int failed = 0;
    for (const auto& c : commands) {
        const result r = run(c);
        std::printf("%-10s %6d %9.2f %9.1f %14.1f\n", c.back() == dir + "/trace.pftrace" ? "perfetto" : c[1].c_str(),
                    r.status, r.seconds, mb / r.seconds,
                    double(r.peak_kb) / 1024);
        // check reports the file that was cut short (3); the others succeed.
        failed += r.status != (c[1] == "check" ? 3 : 0);
    }
    struct stat st;
    if (stat(json.c_str(), &st) == 0) std::printf("\ntrace.json: %.0f MB\n", double(st.st_size) / (1 << 20));
    std::fflush(stdout);
    if (stat((dir + "/trace.pftrace").c_str(), &st) == 0)
        std::printf("trace.pftrace: %.0f MB\n", double(st.st_size) / (1 << 20));
    if (std::system(("du -sm '" + dir + "/otf2' | sed 's/\t.*/ MB: OTF2 archive/'").c_str()) != 0) std::puts("no OTF2 archive");
    std::string cleanup = "rm -rf '" + dir + "'";
    if (std::system(cleanup.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", dir.c_str());
    return failed ? 1 : 0;
}
