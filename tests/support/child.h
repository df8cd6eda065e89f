// Test helpers: run code in a fresh child process that loads the library with
// dlopen, so every test starts from load-time state of its own.
#pragma once
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "zop_minimal.h"

// The exported instrumentation API, looked up with dlsym in a child: the
// member f is __zop_f.
#define RYL_API_FUNCTIONS(X)                                                                              \
    X(api_version) X(api_fini) X(domain_createA) X(domain_create) X(string_handle_createA)                \
    X(string_handle_create) X(id_create) X(id_destroy) X(task_begin) X(task_begin_explicit)               \
    X(task_begin_async) X(task_end) X(task_end_explicit) X(task_end_async) X(region_begin) X(region_end)  \
    X(task_group) X(relation_add) X(metadata_add) X(metadata_str_addA) X(metadata_str_add)
struct zop_api {
    void* handle = nullptr;
#define RYL_API_MEMBER(f) decltype(&__zop_##f) f;
    RYL_API_FUNCTIONS(RYL_API_MEMBER)
#undef RYL_API_MEMBER
    // Looks up a symbol of the loaded library; aborts the child if missing.
    void* sym(const char* name) const;
};

struct child_options {
    std::vector<std::pair<std::string, std::string>> set_env;  // set before loading
    std::vector<std::string> unset_env;                        // unset before loading
    std::string cwd;            // working directory of the child, if not empty
    bool unload = false;        // dlclose at the end (else: exit() runs the exit handlers)
    int timeout_seconds = 60;   // the child is killed with SIGALRM after this
    std::function<void()> before_load;  // runs in the child just before dlopen
};

struct child_result {
    int status = -1;   // exit code, or 128 + signal number
    std::string out;   // everything the child wrote to standard output
    std::string err;   // everything the child wrote to standard error
};

// Forks; the child applies the options, loads the library, runs body and
// ends (unload or exit). Returns once the child has ended.
child_result run_in_child(const child_options& options, const std::function<void(zop_api&)>& body);

// The same in two steps, for children that run side by side or are killed.
struct started_child {
    int pid = -1;
    int timeout_seconds = 60;
    std::string out_path, err_path;
};
started_child start_child(const child_options& options, const std::function<void(zop_api&)>& body);
child_result wait_child(const started_child& child);

// Runs a program with extra environment settings; output is captured.
child_result run_program(const std::vector<std::string>& argv,
                         const std::vector<std::pair<std::string, std::string>>& set_env,
                         const std::vector<std::string>& unset_env = {},
                         const std::string& cwd = "", int timeout_seconds = 120);

// A fresh directory under the system's temporary directory, removed with its
// contents when the object goes.
struct temp_dir {
    std::string path;
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
};

std::string read_file(const std::string& path);
bool file_exists(const std::string& path);
// Names of the entries of a directory, sorted; empty when it cannot be read.
std::vector<std::string> list_dir(const std::string& path);
// Path of the library under test.
const char* library_path();
