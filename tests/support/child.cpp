#include "child.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

const char* library_path() { return RYL_LIB_PATH; }

void* zop_api::sym(const char* name) const {
    void* p = dlsym(handle, name);
    if (!p) {
        fprintf(stderr, "missing symbol %s\n", name);
        _exit(101);
    }
    return p;
}

namespace {

template <typename F>
void load(const zop_api& api, F& fn, const char* name) {
    fn = reinterpret_cast<F>(api.sym(name));
}

void load_api(zop_api& api) {
    load(api, api.api_version, "__zop_api_version");
    load(api, api.api_fini, "__zop_api_fini");
    load(api, api.domain_createA, "__zop_domain_createA");
    load(api, api.domain_create, "__zop_domain_create");
    load(api, api.string_handle_createA, "__zop_string_handle_createA");
    load(api, api.string_handle_create, "__zop_string_handle_create");
    load(api, api.id_create, "__zop_id_create");
    load(api, api.id_destroy, "__zop_id_destroy");
    load(api, api.task_begin, "__zop_task_begin");
    load(api, api.task_begin_explicit, "__zop_task_begin_explicit");
    load(api, api.task_begin_async, "__zop_task_begin_async");
    load(api, api.task_end, "__zop_task_end");
    load(api, api.task_end_explicit, "__zop_task_end_explicit");
    load(api, api.task_end_async, "__zop_task_end_async");
    load(api, api.region_begin, "__zop_region_begin");
    load(api, api.region_end, "__zop_region_end");
    load(api, api.task_group, "__zop_task_group");
    load(api, api.relation_add, "__zop_relation_add");
    load(api, api.metadata_add, "__zop_metadata_add");
    load(api, api.metadata_str_addA, "__zop_metadata_str_addA");
    load(api, api.metadata_str_add, "__zop_metadata_str_add");
}

std::string temp_file_path(const char* tag) {
    const char* base = getenv("TMPDIR");
    std::string path = std::string(base && *base ? base : "/tmp") + "/ryl_test_" + tag + "_XXXXXX";
    int fd = mkstemp(&path[0]);
    if (fd >= 0) close(fd);
    return path;
}

int decode_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

void redirect(int fd, const std::string& path) {
    int f = open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT, 0600);
    if (f >= 0) {
        dup2(f, fd);
        close(f);
    }
}

void apply_env(const std::vector<std::pair<std::string, std::string>>& set_env,
               const std::vector<std::string>& unset_env) {
    for (const auto& name : unset_env) unsetenv(name.c_str());
    for (const auto& kv : set_env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
}

// Waits for the child; one that outlives its own alarm (a sanitizer may hold
// the signal back) is killed, so a hang fails the test instead of the run.
child_result collect(pid_t pid, const std::string& out_path, const std::string& err_path, int timeout_seconds) {
    child_result result;
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds + 10);
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.status = decode_status(status);
    result.out = read_file(out_path);
    result.err = read_file(err_path);
    unlink(out_path.c_str());
    unlink(err_path.c_str());
    return result;
}

}  // namespace

started_child start_child(const child_options& options, const std::function<void(zop_api&)>& body) {
    started_child child;
    child.out_path = temp_file_path("out");
    child.err_path = temp_file_path("err");
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(options.timeout_seconds);
        redirect(1, child.out_path);
        redirect(2, child.err_path);
        apply_env(options.set_env, options.unset_env);
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(102);
        if (options.before_load) options.before_load();
        zop_api api;
        api.handle = dlopen(library_path(), RTLD_NOW | RTLD_LOCAL);
        if (!api.handle) {
            fprintf(stderr, "dlopen: %s\n", dlerror());
            _exit(100);
        }
        load_api(api);
        body(api);
        fflush(stdout);
        if (options.unload) {
            dlclose(api.handle);
            _exit(0);
        }
        exit(0);
    }
    child.pid = pid;
    child.timeout_seconds = options.timeout_seconds;
    return child;
}

child_result wait_child(const started_child& child) {
    return collect(child.pid, child.out_path, child.err_path, child.timeout_seconds);
}

child_result run_in_child(const child_options& options, const std::function<void(zop_api&)>& body) {
    return wait_child(start_child(options, body));
}

child_result run_program(const std::vector<std::string>& argv,
                         const std::vector<std::pair<std::string, std::string>>& set_env,
                         const std::vector<std::string>& unset_env, const std::string& cwd,
                         int timeout_seconds) {
    std::string out_path = temp_file_path("out"), err_path = temp_file_path("err");
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(timeout_seconds);
        redirect(1, out_path);
        redirect(2, err_path);
        apply_env(set_env, unset_env);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(102);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        fprintf(stderr, "exec %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    return collect(pid, out_path, err_path, timeout_seconds);
}

temp_dir::temp_dir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/ryl_dir_XXXXXX";
    if (mkdtemp(&templ[0])) path = templ;
}

namespace {
void remove_tree(const std::string& path) {
    DIR* d = opendir(path.c_str());
    if (d) {
        while (dirent* e = readdir(d)) {
            if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
            std::string child = path + "/" + e->d_name;
            struct stat st;
            if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                chmod(child.c_str(), 0700);
                remove_tree(child);
            } else {
                unlink(child.c_str());
            }
        }
        closedir(d);
    }
    rmdir(path.c_str());
}
}  // namespace

temp_dir::~temp_dir() {
    if (!path.empty()) remove_tree(path);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string& path) {
    std::vector<std::string> names;
    DIR* d = opendir(path.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}
