// ryl: runs programs under the collector and turns run directories into
// answers (check, summary) and pictures (timeline, graph).
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "ryl.h"

namespace {

const char usage[] =
    "usage: ryl COMMAND ...\n"
    "  ryl run [-o DIR] [--stream] [--plain] -- PROGRAM [ARGS]   run PROGRAM with the collector\n"
    "                                       (mapped files, detailed OpenMP), then print its summary\n"
    "  ryl check DIR...                     validate every trace file of run directories\n"
    "  ryl summary DIR...                   what every thread recorded\n"
    "  ryl profile DIR... [--json] [-o FILE] where the time goes: task kinds, regions, work and span\n"
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
