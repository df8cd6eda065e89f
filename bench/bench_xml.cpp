// Parsing a generated 50 MB trace file into a tree with the XML library, next
// to established parsers on the same file in the same run (those found at
// build time): pugixml, tinyxml2 and libxml2 build a tree as well, expat only
// reports events (no tree). Throughput is MB/s of the file; peak_MB is how far
// the resident set of a fresh child process grew while it parsed the file
// once and held the result; records counts the <record> elements found, as a
// check that every parser read the whole file.
//
// The file goes to BENCH_DIR if set, else to a temporary directory, and is
// removed at the end. TRACE_MB overrides the size.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "xml.h"

#ifdef HAVE_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef HAVE_TINYXML2
#include <tinyxml2.h>
#endif
#ifdef HAVE_LIBXML2
#include <libxml/parser.h>
#include <libxml/tree.h>
#endif
#ifdef HAVE_EXPAT
#include <expat.h>
#endif

namespace {

std::string trace_path;
size_t trace_bytes = 0;

// A trace file as the collector writes it: task begins and ends, relations,
// ids as compound fields, until the size is reached; then the end record.
void generate_trace(const std::string& path, size_t target) {
    std::ofstream out(path, std::ios::binary);
    std::mt19937_64 random(42);
    unsigned long long ts = 1700000000123456789ULL;
    auto field = [&](const std::string& text) { out << "<field>" << text << "</field>\n"; };
    auto id = [&](unsigned long long a) {
        out << "<compound_field>\n";
        field(std::to_string(a));
        field("0");
        field("0");
        out << "</compound_field>\n";
    };
    out << "<?xml version=\"1.0\"?>\n"
        << "<trace version=\"0\" ts_frequency=\"1000000000\" hardware_concurrency=\"2\">\n";
    const std::string domain = "94700667150288", name = "94700667150640";
    while (static_cast<size_t>(out.tellp()) < target) {
        ts += random() % 5000;
        const unsigned long long task = random() % 100000;
        out << "<record>\n";
        switch (random() % 3) {
        case 0:
            field("task_begin");
            field(std::to_string(ts));
            field(domain);
            id(task);
            id(0);
            field(name);
            field(std::to_string(random() % 64));
            break;
        case 1:
            field("task_end");
            field(std::to_string(ts));
            field(domain);
            break;
        default:
            field("relation");
            field(std::to_string(ts));
            field(domain);
            id(task);
            field("5");
            id(random() % 100000);
            break;
        }
        out << "</record>\n";
    }
    out << "<record>\n";
    field("end_of_records");
    field(std::to_string(ts + 1));
    out << "</record>\n</trace>\n";
    trace_bytes = static_cast<size_t>(out.tellp());
}

// A parser under test: one whole parse of the file into its result, which is
// freed again, with or without counting the <record> elements.
struct parser {
    const char* name;
    std::function<long()> parse_and_count;  // parses, counts, frees
    std::function<void()> parse_only;       // parses and frees
};

long kb_of(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(status, line))
        if (line.compare(0, n, key) == 0) return std::atol(line.c_str() + n);
    return -1;
}

struct memory_figures {
    double peak_mb = -1;
    long records = -1;
};

// Parses once in a fresh child: the growth of its peak resident set over its
// resident set before parsing, and the records found.
memory_figures measure_in_child(const parser& p) {
    malloc_trim(0);
    int pipe_fd[2];
    if (pipe(pipe_fd) != 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fd[0]);
        { std::ofstream("/proc/self/clear_refs") << "5"; }  // peak := current
        const long before = kb_of("VmRSS:");
        long values[2];
        values[1] = p.parse_and_count();
        values[0] = kb_of("VmHWM:") - before;
        if (write(pipe_fd[1], values, sizeof values) != sizeof values) _exit(1);
        _exit(0);
    }
    close(pipe_fd[1]);
    long values[2] = {-1, -1};
    const bool got = read(pipe_fd[0], values, sizeof values) == sizeof values;
    close(pipe_fd[0]);
    waitpid(pid, nullptr, 0);
    memory_figures m;
    if (got) {
        m.peak_mb = values[0] / 1024.0;
        m.records = values[1];
    }
    return m;
}

void run_parser(benchmark::State& state, const parser& p) {
    const memory_figures m = measure_in_child(p);
    for (auto _ : state) p.parse_only();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * trace_bytes));
    state.counters["peak_MB"] = m.peak_mb;
    state.counters["records"] = static_cast<double>(m.records);
}

// ---------------------------------------------------------------- parsers

long ryl_count() {
    xml::document doc(trace_path.c_str());
    if (!doc.parse()) return -1;
    return static_cast<long>(doc.elems("record").size());
}

void ryl_parse() {
    xml::document doc(trace_path.c_str());
    benchmark::DoNotOptimize(doc.parse());
}

#ifdef HAVE_PUGIXML
long pugixml_count() {
    pugi::xml_document doc;
    if (!doc.load_file(trace_path.c_str())) return -1;
    long n = 0;
    for (pugi::xml_node r = doc.child("trace").child("record"); r; r = r.next_sibling("record")) ++n;
    return n;
}
void pugixml_parse() {
    pugi::xml_document doc;
    benchmark::DoNotOptimize(doc.load_file(trace_path.c_str()).status);
}
#endif

#ifdef HAVE_TINYXML2
long tinyxml2_count() {
    tinyxml2::XMLDocument doc;
    if (doc.LoadFile(trace_path.c_str()) != tinyxml2::XML_SUCCESS) return -1;
    long n = 0;
    for (auto* r = doc.FirstChildElement("trace")->FirstChildElement("record"); r;
         r = r->NextSiblingElement("record"))
        ++n;
    return n;
}
void tinyxml2_parse() {
    tinyxml2::XMLDocument doc;
    benchmark::DoNotOptimize(doc.LoadFile(trace_path.c_str()));
}
#endif

#ifdef HAVE_LIBXML2
long libxml2_count() {
    xmlDocPtr doc = xmlReadFile(trace_path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
    if (!doc) return -1;
    long n = 0;
    for (xmlNodePtr r = xmlDocGetRootElement(doc)->children; r; r = r->next)
        if (r->type == XML_ELEMENT_NODE && !xmlStrcmp(r->name, BAD_CAST "record")) ++n;
    xmlFreeDoc(doc);
    return n;
}
void libxml2_parse() {
    xmlDocPtr doc = xmlReadFile(trace_path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
    benchmark::DoNotOptimize(doc);
    xmlFreeDoc(doc);
}
#endif

#ifdef HAVE_EXPAT
// Streams the file through expat in 64 KiB pieces; counts record start tags.
long expat_run() {
    XML_Parser p = XML_ParserCreate(nullptr);
    long n = 0;
    XML_SetUserData(p, &n);
    XML_SetStartElementHandler(p, [](void* data, const XML_Char* name, const XML_Char**) {
        if (!std::strcmp(name, "record")) ++*static_cast<long*>(data);
    });
    FILE* f = std::fopen(trace_path.c_str(), "rb");
    bool ok = f != nullptr;
    while (ok) {
        void* buf = XML_GetBuffer(p, 1 << 16);
        const size_t got = buf ? std::fread(buf, 1, 1 << 16, f) : 0;
        ok = buf && XML_ParseBuffer(p, static_cast<int>(got), got == 0) != XML_STATUS_ERROR;
        if (got == 0) break;
    }
    if (f) std::fclose(f);
    XML_ParserFree(p);
    return ok ? n : -1;
}
#endif

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::string dir;
    const char* bench_dir = std::getenv("BENCH_DIR");
    bool own_dir = false;
    if (bench_dir && *bench_dir) {
        dir = bench_dir;
    } else {
        char templ[] = "/tmp/bench_xml_XXXXXX";
        if (!mkdtemp(templ)) return 1;
        dir = templ;
        own_dir = true;
    }
    const char* mb = std::getenv("TRACE_MB");
    trace_path = dir + "/trace.xml";
    generate_trace(trace_path, (mb ? std::atol(mb) : 50) * 1000000UL);

    const parser parsers[] = {
        {"ryl_xml", ryl_count, ryl_parse},
#ifdef HAVE_PUGIXML
        {"pugixml", pugixml_count, pugixml_parse},
#endif
#ifdef HAVE_TINYXML2
        {"tinyxml2", tinyxml2_count, tinyxml2_parse},
#endif
#ifdef HAVE_LIBXML2
        {"libxml2", libxml2_count, libxml2_parse},
#endif
#ifdef HAVE_EXPAT
        {"expat_no_tree", expat_run, [] { benchmark::DoNotOptimize(expat_run()); }},
#endif
    };
    for (const parser& p : parsers)
        benchmark::RegisterBenchmark((std::string("parse_trace/") + p.name).c_str(),
                                     [&p](benchmark::State& state) { run_parser(state, p); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::remove(trace_path.c_str());
    if (own_dir) rmdir(dir.c_str());
    return 0;
}
