// Cost of records on threads that already have their writers, written into a
// real directory. The library is loaded after VUN_DIR is set, so the run
// directory is a fresh one under the working directory (or BENCH_DIR).
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "zop_minimal.h"

namespace {

struct api_table {
    decltype(&__zop_domain_createA) domain_createA;
    decltype(&__zop_string_handle_createA) string_handle_createA;
    decltype(&__zop_task_begin) task_begin;
    decltype(&__zop_task_end) task_end;
    decltype(&__zop_relation_add) relation_add;
} api;

___zop_domain* domain;
___zop_string_handle* name;

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
    __zop_id id{1, 0, 0}, parent{0, 0, 0};
    long long before = write_calls();
    for (auto _ : state) {
        api.task_begin(domain, id, parent, name);
        api.task_end(domain);
        ++id.d1;
    }
    if (state.thread_index() == 0 && state.threads() == 1 && before >= 0)
        state.counters["writes_per_pair"] = double(write_calls() - before) / double(state.iterations());
}

void relation_add(benchmark::State& state) {
    __zop_id head{1, 0, 0}, tail{2, 1, 0};
    long long before = write_calls();
    for (auto _ : state) {
        api.relation_add(domain, head, 7, tail);
        ++head.d1;
    }
    if (state.thread_index() == 0 && state.threads() == 1 && before >= 0)
        state.counters["writes_per_record"] = double(write_calls() - before) / double(state.iterations());
}

BENCHMARK(task_begin_end)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(relation_add)->Threads(1)->Threads(2)->UseRealTime();

template <typename F>
void load(void* lib, F& fn, const char* symbol) {
    fn = reinterpret_cast<F>(dlsym(lib, symbol));
    if (!fn) {
        fprintf(stderr, "missing %s\n", symbol);
        exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* base = getenv("BENCH_DIR");
    std::string dir = std::string(base && *base ? base : ".") + "/bench_trace_XXXXXX";
    if (!mkdtemp(&dir[0])) {
        perror("mkdtemp");
        return 1;
    }
    setenv("VUN_DIR", dir.c_str(), 1);
    void* lib = dlopen(RYL_LIB_PATH, RTLD_NOW);
    if (!lib) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    load(lib, api.domain_createA, "__zop_domain_createA");
    load(lib, api.string_handle_createA, "__zop_string_handle_createA");
    load(lib, api.task_begin, "__zop_task_begin");
    load(lib, api.task_end, "__zop_task_end");
    load(lib, api.relation_add, "__zop_relation_add");
    domain = api.domain_createA("bench");
    name = api.string_handle_createA("task");
    fprintf(stderr, "trace files in %s\n", dir.c_str());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    dlclose(lib);
    return 0;
}
