// Cost of tracing an OpenMP task program: BOTS-style fib (about 1 M tasks at
// the default argument) on 2 threads, run as a child process untraced, with
// the plain translation and with the detailed one, both in mapped mode. Wall
// time of each child is reported as manual time; compare the medians
// (--benchmark_repetitions=5 --benchmark_report_aggregates_only=true).
// The first argument not taken by Google Benchmark is fib's n (default 28).
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

std::string fib_n = "28";

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

void remove_directory(const std::string& dir) {
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
                unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir.c_str());
}

// Runs fib with the given settings added to (and the tool settings removed
// from) the environment; returns the wall time in seconds, or -1.
double run_fib(const std::vector<std::string>& settings) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "OMP_TOOL", 8) && std::strncmp(*e, "LD_PRELOAD=", 11) &&
            std::strncmp(*e, "VUN_", 4) && std::strncmp(*e, "OMP_NUM_THREADS=", 16))
            env.push_back(*e);
    env.push_back("OMP_NUM_THREADS=2");
    env.insert(env.end(), settings.begin(), settings.end());
    std::vector<char*> envp, argv = {const_cast<char*>(RYL_OMP_FIB), const_cast<char*>(fib_n.c_str()), nullptr};
    for (std::string& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const double start = now();
    const pid_t pid = fork();
    if (pid == 0) {
        if (!std::freopen("/dev/null", "w", stdout)) _exit(126);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const double seconds = now() - start;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

void fib(benchmark::State& state, const char* translation) {
    for (auto _ : state) {
        char pattern[] = "/tmp/bench_omp_XXXXXX";
        const char* base = mkdtemp(pattern);
        if (!base) {
            state.SkipWithError("no temporary directory");
            return;
        }
        std::vector<std::string> settings;
        if (translation) {
            settings = {std::string("OMP_TOOL_LIBRARIES=") + RYL_LIB_PATH, std::string("VUN_DIR=") + base,
                        "VUN_MODE=mapped", std::string("VUN_OPENMP=") + translation};
        }
        const double seconds = run_fib(settings);
        remove_directory(base);
        if (seconds < 0) {
            state.SkipWithError("fib failed");
            return;
        }
        state.SetIterationTime(seconds);
    }
}

BENCHMARK_CAPTURE(fib, untraced, nullptr)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_CAPTURE(fib, plain_mapped, "plain")->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_CAPTURE(fib, detailed_mapped, "detailed")->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc > 1) fib_n = argv[1];
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
