// Cost of records on threads that already have their writers, in both write
// modes, next to reference figures measured in the same run: one write(2) of
// a 40-byte line, a task_begin record's bytes formatted into memory, and the
// same formatted into a shared mapping whose pages were touched beforehand.
//
// The library is copied twice and each copy loaded with its own VUN_MODE and
// VUN_DIR (fresh directories under the working directory, or BENCH_DIR).
//
// Before the runs, BENCH_WARM_MB megabytes (default 1024) are written to a
// file there and deleted: on a virtual machine that hands freed memory back
// to its host, the first touch of a page costs microseconds, and without
// this the page cache of the first runs' files would pay it. Runs default
// to --benchmark_min_time=0.1, which keeps the files of a whole run small
// enough to stay in that warmed memory.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "zop_minimal.h"

namespace {

struct api_table {
    decltype(&__zop_task_begin) task_begin;
    decltype(&__zop_task_end) task_end;
    decltype(&__zop_relation_add) relation_add;
    ___zop_domain* domain;
    ___zop_string_handle* name;
};

api_table libraries[2];  // 0: stream mode, 1: mapped mode
std::string run_dir;

// Write system calls of this process so far (write, writev and the like).
long long write_calls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value)
        if (key == "syscw:") return value;
    return -1;
}

void task_begin_end(benchmark::State& state) {
    api_table& api = libraries[state.range(0)];
    __zop_id id{1, 0, 0}, parent{0, 0, 0};
    long long before = write_calls();
    for (auto _ : state) {
        api.task_begin(api.domain, id, parent, api.name);
        api.task_end(api.domain);
        ++id.d1;
    }
    if (state.thread_index() == 0 && state.threads() == 1 && before >= 0)
        state.counters["writes_per_pair"] = double(write_calls() - before) / double(state.iterations());
}

void relation_add(benchmark::State& state) {
    api_table& api = libraries[state.range(0)];
    __zop_id head{1, 0, 0}, tail{2, 1, 0};
    for (auto _ : state) {
        api.relation_add(api.domain, head, 7, tail);
        ++head.d1;
    }
}

// Reference: one write(2) of a 40-byte line to a file of the run directory.
void reference_write_40_bytes(benchmark::State& state) {
    std::string path = run_dir + "/reference_write." + std::to_string(state.thread_index());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const char line[] = "<field>1700000000123456789</field>\n<x>\n";  // 40 bytes
    for (auto _ : state) benchmark::DoNotOptimize(write(fd, line, 40));
    close(fd);
}

// The bytes of a task_begin and a task_end record, formatted as the library
// formats them (clock read included).
char* format_pair(char* out, unsigned long long id) {
    auto line = [&](const char* text) {
        size_t n = strlen(text);
        memcpy(out, text, n);
        out += n;
    };
    auto number = [&](unsigned long long v) {
        line("<field>");
        out = std::to_chars(out, out + 24, v).ptr;
        line("</field>\n");
    };
    auto stamp = [&] {
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        number(static_cast<unsigned long long>(ts.tv_sec * 1000000000LL + ts.tv_nsec));
    };
    line("<record>\n<field>task_begin</field>\n");
    stamp();
    number(94000000000000ULL);
    line("<compound_field>\n");
    number(id), number(0), number(0);
    line("</compound_field>\n<compound_field>\n");
    number(0), number(0), number(0);
    line("</compound_field>\n");
    number(94000000000512ULL);
    number(1);
    line("</record>\n<record>\n<field>task_end</field>\n");
    stamp();
    number(94000000000000ULL);
    line("</record>\n");
    return out;
}

void reference_format_into_memory(benchmark::State& state) {
    static thread_local char buffer[1 << 16];
    char* out = buffer;
    unsigned long long id = 1;
    for (auto _ : state) {
        if (out - buffer > (1 << 16) - 1024) out = buffer;
        out = format_pair(out, id++);
        benchmark::DoNotOptimize(out);
    }
}

void reference_format_into_touched_mapping(benchmark::State& state) {
    const size_t size = 64 << 20;
    std::string path = run_dir + "/reference_mapping." + std::to_string(state.thread_index());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (ftruncate(fd, off_t(size)) != 0) state.SkipWithError("ftruncate");
    char* map = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    for (size_t i = 0; i < size; i += 4096) map[i] = 1;  // touch every page
    char* out = map;
    unsigned long long id = 1;
    for (auto _ : state) {
        if (size_t(out - map) > size - 1024) out = map;
        out = format_pair(out, id++);
        benchmark::DoNotOptimize(out);
    }
    munmap(map, size);
    close(fd);
}

BENCHMARK(task_begin_end)->ArgName("mapped")->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(relation_add)->ArgName("mapped")->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(reference_write_40_bytes)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(reference_format_into_memory)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(reference_format_into_touched_mapping)->Threads(1)->Threads(2)->UseRealTime();

template <typename F>
void load(void* lib, F& fn, const char* symbol) {
    fn = reinterpret_cast<F>(dlsym(lib, symbol));
    if (!fn) {
        fprintf(stderr, "missing %s\n", symbol);
        exit(1);
    }
}

bool copy_file(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary);
    out << in.rdbuf();
    return bool(in) && bool(out);
}

// Loads a private copy of the library in the given mode.
bool load_library(api_table& api, const char* mode) {
    std::string dir = run_dir + "/" + mode;
    std::string copy = run_dir + "/libryl_xml_" + mode + ".so";
    if (mkdir(dir.c_str(), 0777) != 0 || !copy_file(RYL_LIB_PATH, copy)) return false;
    setenv("VUN_DIR", dir.c_str(), 1);
    setenv("VUN_MODE", mode, 1);
    void* lib = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    load(lib, api.task_begin, "__zop_task_begin");
    load(lib, api.task_end, "__zop_task_end");
    load(lib, api.relation_add, "__zop_relation_add");
    decltype(&__zop_domain_createA) domain_createA;
    decltype(&__zop_string_handle_createA) string_handle_createA;
    load(lib, domain_createA, "__zop_domain_createA");
    load(lib, string_handle_createA, "__zop_string_handle_createA");
    api.domain = domain_createA("bench");
    api.name = string_handle_createA("task");
    return true;
}

// Writes `megabytes` of zeros to a file of the run directory and deletes it.
void warm_memory(long megabytes) {
    std::string path = run_dir + "/warm";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    static char block[1 << 20];
    for (long i = 0; i < megabytes; ++i)
        if (write(fd, block, sizeof block) != ssize_t(sizeof block)) break;
    close(fd);
    unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const char* base = getenv("BENCH_DIR");
    run_dir = std::string(base && *base ? base : ".") + "/bench_trace_XXXXXX";
    if (!mkdtemp(&run_dir[0])) {
        perror("mkdtemp");
        return 1;
    }
    if (!load_library(libraries[0], "stream") || !load_library(libraries[1], "mapped")) return 1;
    fprintf(stderr, "trace files in %s\n", run_dir.c_str());
    const char* warm = getenv("BENCH_WARM_MB");
    warm_memory(warm && *warm ? atol(warm) : 1024);
    std::vector<char*> args(argv, argv + argc);
    bool min_time_given = false;
    for (char* arg : args) min_time_given |= strncmp(arg, "--benchmark_min_time", 20) == 0;
    char default_min_time[] = "--benchmark_min_time=0.1";
    if (!min_time_given) args.insert(args.begin() + 1, default_min_time);
    argc = int(args.size());
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
