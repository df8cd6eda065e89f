// ryl run [-o DIR] [--stream] [--plain] -- PROGRAM [ARGS]: runs a program with
// the collector loaded and a fresh run directory, then prints the summary of
// that directory. Files are written in mapped mode with the detailed OpenMP
// translation unless the flags, or the user's own VUN_MODE / VUN_OPENMP, say
// otherwise: a flag wins over the environment, the environment over the default.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "run_directory.h"
#include "ryl.h"

namespace ryl {

namespace {

bool readable(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

std::string absolute(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

// The library to load: RYL_LIBRARY; else, for an installed ryl, the
// library in the library directory beside its own directory (PREFIX/bin/ryl,
// PREFIX/LIBDIR/libryl_xml.so.0) or ../lib/libryl_xml.so; else the library of
// the build tree.
bool find_library(std::string& library) {
    const char* env = std::getenv("RYL_LIBRARY");
    if (env && *env) {
        if (!readable(env)) {
            error_line(std::string("RYL_LIBRARY=") + env + ": " + std::strerror(errno));
            return false;
        }
        library = absolute(env);
        return true;
    }
    std::vector<std::string> candidates;
    char self[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        const std::string exe(self, size_t(n));
        const std::string prefix = exe.substr(0, exe.rfind('/')) + "/../";
        const std::string installed = RYL_INSTALLED_LIBRARY;
        candidates.push_back(installed[0] == '/' ? installed : prefix + installed);
        candidates.push_back(prefix + "lib/libryl_xml.so");
    }
    candidates.push_back(RYL_BUILD_LIBRARY);
    std::string tried;
    for (const std::string& c : candidates) {
        if (readable(c)) {
            library = absolute(c);
            return true;
        }
        tried += (tried.empty() ? "" : ", ") + c;
    }
    error_line("cannot find libryl_xml.so (looked for " + tried + "); set RYL_LIBRARY to its path");
    return false;
}

bool holds_trace_files(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return false;
    bool found = false;
    while (const dirent* e = ::readdir(d)) found = found || std::strncmp(e->d_name, "_ryl.", 5) == 0;
    ::closedir(d);
    return found;
}

// The run directory: the one named (created when missing, refused when it
// already holds trace files), else a new "_vun_YYYYMMDD_HHMMSS" in the
// working directory, "_000" to "_999" appended when that name is taken.
bool make_run_directory(const std::string& named, std::string& dir) {
    if (!named.empty()) {
        struct stat st;
        if (::stat(named.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) {
                error_line(named + ": not a directory");
                return false;
            }
            if (holds_trace_files(named)) {
                error_line(named + ": already holds trace files; name a new or empty directory");
                return false;
            }
        } else if (::mkdir(named.c_str(), 0777) != 0) {
            error_line(named + ": cannot create: " + std::strerror(errno));
            return false;
        }
        dir = absolute(named);
        return true;
    }
    std::string name;
    const int error = run_directory::create_fresh(name);
    if (error == EEXIST) {
        error_line(name + ": cannot create: every name up to _999 is taken");
        return false;
    }
    if (error) {
        error_line(name + ": cannot create: " + std::strerror(error));
        return false;
    }
    dir = absolute(name);
    return true;
}

// name=value, with value put in front of an earlier value of the list.
void prepend(const char* name, const std::string& value, char separator) {
    const char* old = std::getenv(name);
    std::string v = value;
    if (old && *old) v += separator + std::string(old);
    ::setenv(name, v.c_str(), 1);
}

// Starts the program; -1 (message printed) when it cannot be started.
// The settings ryl run gives the program.
struct run_settings {
    bool stream = false;  // --stream: VUN_MODE=stream
    bool plain = false;   // --plain: VUN_OPENMP=plain
};

// Sets name to value when forced, else only when the user left it unset or empty.
void set_default(const char* name, const char* value, bool forced) {
    const char* old = std::getenv(name);
    if (forced || !old || !*old) ::setenv(name, value, 1);
}

pid_t start(const std::vector<std::string>& command, const std::string& library, const std::string& dir,
            const run_settings& settings, const struct sigaction& old_int, const struct sigaction& old_quit) {
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        error_line(std::string("cannot start ") + command[0] + ": " + std::strerror(errno));
        return -1;
    }
    // When the run began, by the clock that file times come from (the coarse
    // one), so that no file the run writes looks older.
    timespec began;
    clock_gettime(CLOCK_REALTIME_COARSE, &began);
    const std::string run_start = std::to_string(began.tv_sec * 1000000000LL + began.tv_nsec);
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(report[0]);
        ::sigaction(SIGINT, &old_int, nullptr);
        ::sigaction(SIGQUIT, &old_quit, nullptr);
        ::setenv("VUN_DIR", dir.c_str(), 1);
        ::setenv("VUN_RUN_START", run_start.c_str(), 1);
        set_default("VUN_MODE", settings.stream ? "stream" : "mapped", settings.stream);
        set_default("VUN_OPENMP", settings.plain ? "plain" : "detailed", settings.plain);
        prepend("LD_PRELOAD", library, ':');
        prepend("OMP_TOOL_LIBRARIES", library, ':');
        std::vector<char*> argv;
        for (const std::string& a : command) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        const int err = errno;
        (void)!::write(report[1], &err, sizeof err);
        ::_exit(127);
    }
    ::close(report[1]);
    if (pid < 0) {
        error_line(std::string("cannot start ") + command[0] + ": " + std::strerror(errno));
        ::close(report[0]);
        return -1;
    }
    int err = 0;
    ssize_t got;
    while ((got = ::read(report[0], &err, sizeof err)) < 0 && errno == EINTR) {
    }
    ::close(report[0]);
    if (got == ssize_t(sizeof err)) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        error_line("cannot run " + command[0] + ": " + std::strerror(err));
        return -1;
    }
    return pid;
}

}  // namespace

int run_command(const std::vector<std::string>& args) {
    std::string named;
    run_settings settings;
    size_t i = 0;
    bool bad = false;
    for (; i < args.size() && !bad; ++i) {
        if (args[i] == "-o" && i + 1 < args.size() && named.empty()) {
            named = args[++i];
            bad = named.empty();
        } else if (args[i] == "--stream") {
            settings.stream = true;
        } else if (args[i] == "--plain") {
            settings.plain = true;
        } else {
            break;
        }
    }
    const bool dashes = i < args.size() && args[i] == "--";
    if (dashes) ++i;
    if (bad || i >= args.size() || (!dashes && args[i][0] == '-')) {
        error_line("usage: ryl run [-o DIR] [--stream] [--plain] -- PROGRAM [ARGS]");
        return exit_usage;
    }
    const std::vector<std::string> command(args.begin() + long(i), args.end());
    std::string library, dir;
    if (!find_library(library) || !make_run_directory(named, dir)) return exit_error;
    error_line("tracing " + command[0] + " into " + dir);

    // Like system(): an interrupt from the terminal stops the program, and
    // ryl stays to summarise what it recorded.
    struct sigaction ignore = {}, old_int, old_quit;
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignore, &old_int);
    ::sigaction(SIGQUIT, &ignore, &old_quit);
    const pid_t pid = start(command, library, dir, settings, old_int, old_quit);
    int status = 0;
    if (pid > 0)
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    ::sigaction(SIGINT, &old_int, nullptr);
    ::sigaction(SIGQUIT, &old_quit, nullptr);
    if (pid < 0) return 127;

    int program_status = 0;
    if (WIFEXITED(status)) {
        program_status = WEXITSTATUS(status);
        if (program_status) error_line(command[0] + " exited with status " + std::to_string(program_status));
    } else if (WIFSIGNALED(status)) {
        program_status = 128 + WTERMSIG(status);
        error_line(command[0] + " was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
                   strsignal(WTERMSIG(status)) + ")");
    }
    const int summary = print_summary(dir);
    return summary != exit_ok ? summary : program_status;
}

}  // namespace ryl
