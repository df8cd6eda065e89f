// ryl: runs programs under the collector and turns run directories into
// answers (check, summary) and pictures (timeline, graph).
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "ryl.h"

namespace {

// The library that holds the XML tokenizer is also the collector, and the
// collector starts when the library is loaded: it would create a run
// directory in the working directory, or take over (and empty) trace files
// of an earlier run in the user's VUN_DIR, which may be the very directory
// ryl is asked to read. So before any library initialiser runs, VUN_DIR is
// emptied in the environment and the working directory is a private one;
// main restores both and removes the private directory with the files the
// collector made there. ryl never records anything, so the collector only
// keeps writing into files that are gone.
//
// The environment array is changed in place: the C library resets its view
// of the environment to that array when it initialises, after this runs.
char private_dir[PATH_MAX];
int saved_cwd = -1;
char empty_vun_dir[] = "VUN_DIR=";
char** vun_dir_entry;       // where the environment named VUN_DIR
char* user_vun_dir_entry;   // what it held

void before_libraries(int, char**, char** envp) {
    for (char** e = envp; e && *e; ++e)
        if (std::strncmp(*e, "VUN_DIR=", 8) == 0 && !vun_dir_entry) {
            vun_dir_entry = e;
            user_vun_dir_entry = *e;
            *e = empty_vun_dir;
        }
    const char* tmp = getenv("TMPDIR");
    std::snprintf(private_dir, sizeof private_dir, "%s/ryl_self_XXXXXX", tmp && *tmp ? tmp : "/tmp");
    saved_cwd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (saved_cwd < 0 || !mkdtemp(private_dir) || chdir(private_dir) != 0) private_dir[0] = '\0';
}
__attribute__((section(".preinit_array"), used)) void (*const run_before_libraries)(int, char**, char**) =
    before_libraries;

void remove_tree(const std::string& path, int depth) {
    if (DIR* d = opendir(path.c_str())) {
        while (const dirent* e = readdir(d)) {
            if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, "..")) continue;
            const std::string child = path + "/" + e->d_name;
            if (unlink(child.c_str()) != 0 && depth > 0) remove_tree(child, depth - 1);
        }
        closedir(d);
    }
    rmdir(path.c_str());
}

void leave_private_dir() {
    if (vun_dir_entry && *vun_dir_entry == empty_vun_dir) *vun_dir_entry = user_vun_dir_entry;
    if (saved_cwd >= 0) {
        if (private_dir[0] && fchdir(saved_cwd) == 0) remove_tree(private_dir, 2);
        close(saved_cwd);
    }
}

const char usage[] =
    "usage: ryl COMMAND ...\n"
    "  ryl run [-o DIR] [--stream] [--plain] -- PROGRAM [ARGS]   run PROGRAM with the collector\n"
    "                                       (mapped files, detailed OpenMP), then print its summary\n"
    "  ryl check DIR                        validate every trace file of a run directory\n"
    "  ryl summary DIR                      what every thread recorded\n"
    "  ryl profile DIR [--json]             where the time goes: task kinds, regions, work and span\n"
    "  ryl timeline DIR [-o FILE.json]      task timelines as Chrome trace-event JSON\n"
    "  ryl graph DIR [-o FILE.dot [--svg | --png]]   the task graph in Graphviz DOT\n"
    "  ryl export --otf2 DIR... OUT           the runs as one OTF2 archive (OUT/traces.otf2)\n"
    "DIR is a run directory (its files _ryl.0, _ryl.1, ...) or one trace file.\n";

int dispatch(const std::string& command, const std::vector<std::string>& args) {
    if (command == "run") return ryl::run_command(args);
    if (command == "check") return ryl::check_command(args);
    if (command == "summary") return ryl::summary_command(args);
    if (command == "timeline") return ryl::timeline_command(args);
    if (command == "graph") return ryl::graph_command(args);
    if (command == "export") return ryl::export_command(args);
    if (command == "profile") return ryl::profile_command(args);
    if (command == "help" || command == "--help" || command == "-h") {
        std::fputs(usage, stdout);
        return ryl::exit_ok;
    }
    ryl::error_line("unknown command \"" + command + "\"");
    std::fputs(usage, stderr);
    return ryl::exit_usage;
}

}  // namespace

int main(int argc, char** argv) {
    leave_private_dir();
    if (argc < 2) {
        std::fputs(usage, stderr);
        return ryl::exit_usage;
    }
    try {
        return dispatch(argv[1], std::vector<std::string>(argv + 2, argv + argc));
    } catch (const std::bad_alloc&) {
        ryl::error_line("out of memory");
    } catch (const std::exception& e) {
        ryl::error_line(std::string("internal error: ") + e.what());
    }
    return ryl::exit_error;
}
