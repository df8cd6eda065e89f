// ryl check DIR: validates every trace file of a run directory.
#include "ryl.h"

namespace ryl {

namespace {

int check_directory(const std::string& dir) {
    std::vector<trace_path> files;
    if (!list_trace_files(dir, files)) return exit_error;

    unsigned ok = 0, cut = 0, bad = 0, failed = 0;
    record rec;
    for (const trace_path& p : files) {
        trace_file f;
        if (open_trace(f, p.path))
            while (next_record(f, rec) == read_status::record) {
            }
        std::string line = p.path + ": ";
        if (f.status == read_status::finished && f.in->inner_zeros) {
            // Every record is complete, yet the file has a hole.
            f.status = read_status::malformed;
            f.problem = "zero bytes inside the file from byte offset " + std::to_string(f.in->inner_zeros_offset);
        }
        switch (f.status) {
        case read_status::finished: {
            ++ok;
            line += "ok, " + std::to_string(f.records) + (f.records == 1 ? " record" : " records");
            const uint64_t zeros = trailing_zero_bytes(f);
            if (zeros) line += ", followed by " + std::to_string(zeros) + " zero bytes";
            break;
        }
        case read_status::cut_short:
            ++cut;
            line += f.problem;
            break;
        case read_status::malformed:
            ++bad;
            line += (f.header_read ? "malformed: " : "not a trace file: ") + f.problem;
            break;
        default:
            ++failed;
            error_line(p.path + ": " + f.problem);
            continue;
        }
        std::printf("%s\n", line.c_str());
    }
    std::printf("%zu file%s: %u ok, %u cut short, %u malformed", files.size(), files.size() == 1 ? "" : "s", ok, cut, bad);
    if (failed) std::printf(", %u unreadable", failed);
    std::printf("\n");
    std::fflush(stdout);
    if (failed) return exit_error;
    if (bad) return exit_malformed;
    if (cut) return exit_cut_short;
    return exit_ok;
}

}  // namespace

// Several directories (the processes of one run) are checked one after the
// other; the status is the worst: unreadable, then malformed, then cut short.
int check_command(const std::vector<std::string>& args) {
    if (args.empty()) {
        error_line("usage: ryl check DIR...");
        return exit_usage;
    }
    int worst = exit_ok;
    for (const std::string& dir : args) worst = worse_status(worst, check_directory(dir));
    return worst;
}

}  // namespace ryl
