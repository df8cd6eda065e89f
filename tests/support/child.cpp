#include "child.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

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

std::string temp_base() {
    const char* base = getenv("TMPDIR");
    return std::string(base && *base ? base : "/tmp");
}

std::string temp_file_path(const char* tag) {
    std::string path = temp_base() + "/ryl_test_" + tag + "_XXXXXX";
    int fd = mkstemp(&path[0]);
    if (fd >= 0) close(fd);
    return path;
}

void redirect(int fd, const std::string& path) {
    int f = open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT, 0600);
    if (f >= 0) dup2(f, fd), close(f);
}

// Forks; the child sets up its alarm, output, environment and directory and
// runs body, which must not return. Returns the child's pid.
pid_t fork_child(const std::string& out_path, const std::string& err_path,
                 const std::vector<std::pair<std::string, std::string>>& set_env,
                 const std::vector<std::string>& unset_env, const std::string& cwd, int timeout_seconds,
                 const std::function<void()>& body) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(timeout_seconds);
    redirect(1, out_path);
    redirect(2, err_path);
    for (const auto& name : unset_env) unsetenv(name.c_str());
    for (const auto& kv : set_env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(102);
    body();
    _exit(103);
}

// Waits for the child; one that outlives its own alarm (a sanitizer may hold
// the signal back) is killed, so a hang fails the test instead of the run.
child_result collect(pid_t pid, const std::string& out_path, const std::string& err_path, int timeout_seconds) {
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
    child_result result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    result.out = read_file(out_path);
    result.err = read_file(err_path);
    unlink(out_path.c_str());
    unlink(err_path.c_str());
    return result;
}

}  // namespace

started_child start_child(const child_options& options, const std::function<void(zop_api&)>& body) {
    started_child child{-1, options.timeout_seconds, temp_file_path("out"), temp_file_path("err")};
    child.pid = fork_child(child.out_path, child.err_path, options.set_env, options.unset_env, options.cwd,
                           options.timeout_seconds, [&] {
        if (options.before_load) options.before_load();
        zop_api api;
        api.handle = dlopen(library_path(), RTLD_NOW | RTLD_LOCAL);
        if (!api.handle) {
            fprintf(stderr, "dlopen: %s\n", dlerror());
            _exit(100);
        }
#define RYL_LOAD(f) api.f = reinterpret_cast<decltype(api.f)>(api.sym("__zop_" #f));
        RYL_API_FUNCTIONS(RYL_LOAD)
#undef RYL_LOAD
        body(api);
        fflush(stdout);
        if (options.unload) {
            dlclose(api.handle);
            _exit(0);
        }
        exit(0);
    });
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
    pid_t pid = fork_child(out_path, err_path, set_env, unset_env, cwd, timeout_seconds, [&] {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        fprintf(stderr, "exec %s: %s\n", args[0], strerror(errno));
        _exit(127);
    });
    return collect(pid, out_path, err_path, timeout_seconds);
}

temp_dir::temp_dir() {
    std::string templ = temp_base() + "/ryl_dir_XXXXXX";
    if (mkdtemp(&templ[0])) path = templ;
}

namespace {
void remove_tree(const std::string& path) {
    for (const std::string& name : list_dir(path)) {
        std::string child = path + "/" + name;
        struct stat st;
        if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            chmod(child.c_str(), 0700);
            remove_tree(child);
        } else {
            unlink(child.c_str());
        }
    }
    rmdir(path.c_str());
}
}  // namespace

temp_dir::~temp_dir() {
    if (!path.empty()) remove_tree(path);
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string& path) {
    std::vector<std::string> names;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}
