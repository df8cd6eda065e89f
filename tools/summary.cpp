// ryl summary DIR: what each thread recorded, the names of the run, and for
// OpenMP runs its regions, tasks and dependences.
#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include "analysis.h"
#include "ryl.h"
#include "symbols.h"

namespace ryl {

namespace {

// Begins beyond this depth of open tasks are counted but not timed.
constexpr size_t max_open_tasks = 1 << 20;
constexpr size_t busiest_shown = 5;
constexpr size_t names_shown = 50;

struct task_stat {
    uint64_t begun = 0;
    uint64_t time = 0;  // nanoseconds between begins and their ends, nested tasks excluded
};

struct open_task {
    uint64_t name;
    uint64_t since;
    uint64_t nested = 0;  // time of the tasks nested in it, not its own
};

struct file_summary {
    std::string name;
    read_status status = read_status::record;
    std::string problem;
    uint64_t records = 0;
    uint64_t by_kind[kind_count] = {};
    uint64_t first = UINT64_MAX, last = 0;
    uint64_t begun = 0, ended = 0, unmatched_ends = 0, left_open = 0;
    uint64_t async_begun = 0, async_ended = 0;
    std::unordered_map<uint64_t, task_stat> tasks;  // by name handle
};

struct run_summary {
    name_table names;
    std::vector<file_summary> files;
    std::unordered_map<uint64_t, uint64_t> groups;  // task_group records by name handle
    uint64_t relations[256] = {};
    uint64_t dependences_in = 0, dependences_out = 0;
    std::set<id3> variables;
    std::set<id3> dependent_tasks;  // the task ends of dependence relations
    // Code addresses recorded as metadata on explicit tasks ({T,0,0}) and
    // regions ({R,1,0}): tasks created and regions run per site.
    std::unordered_map<uint64_t, uint64_t> task_sites, region_sites;
    uint64_t barrier_waits = 0;  // a wait split into intervals counts once (barrier_slot)
    std::unordered_map<uint64_t, interval_kind> kind_of_handle;  // names known when first used
};

// Barrier waits: the detailed recording ends the wait's interval when a
// task is run from it, begins it again when the task is done, and ends it
// when the wait is over. A barrier ended and followed at once by an explicit
// task was left for that task: its next begin at this depth resumes it.
struct barrier_slot {
    uint64_t open_id = 0;      // the barrier interval open at this depth
    uint64_t ended_id = 0;     // the barrier that ended here just now
    uint64_t left_for_tasks = 0;  // the barrier whose wait runs tasks
};

// Pairs task begins with ends per file, the innermost open task first.
struct task_pairing {
    std::vector<open_task> open;
    uint64_t depth = 0;
    std::vector<barrier_slot> barriers;  // by depth, the 64 outermost
};

interval_kind kind_of(run_summary& run, uint64_t handle) {
    const auto known = run.kind_of_handle.find(handle);
    if (known != run.kind_of_handle.end()) return known->second;
    const auto name = run.names.strings.find(handle);
    if (name == run.names.strings.end()) return interval_kind::other;
    return run.kind_of_handle[handle] = kind_of_task_name(name->second);
}

void barrier_begin(run_summary& run, task_pairing& tp, const record& rec) {
    if (tp.depth >= 64) return;
    if (tp.barriers.size() <= tp.depth) tp.barriers.resize(tp.depth + 1);
    barrier_slot& b = tp.barriers[tp.depth];
    const uint64_t id = rec.fields[1].id.a;
    const interval_kind k = kind_of(run, rec.fields[3].number);
    if (k == interval_kind::barrier) {
        if (!id || id != b.left_for_tasks) ++run.barrier_waits;
        b.left_for_tasks = 0;
        b.open_id = id;
    } else if (k == interval_kind::explicit_task) {
        if (b.ended_id) b.left_for_tasks = b.ended_id;
    } else if (id == b.left_for_tasks) {
        b.left_for_tasks = 0;  // the waiting task goes on
    }
    b.ended_id = 0;
}

void barrier_end(run_summary& run, task_pairing& tp, uint64_t name) {
    if (tp.depth >= tp.barriers.size()) return;  // depth: of the interval that ends
    barrier_slot& b = tp.barriers[tp.depth];
    b.ended_id = kind_of(run, name) == interval_kind::barrier ? b.open_id : 0;
}

// The innermost open task ends: its own time is its duration minus what was nested in it.
void close_task(file_summary& fs, task_pairing& tp, uint64_t now) {
    const open_task t = tp.open.back();
    tp.open.pop_back();
    const uint64_t duration = now > t.since ? now - t.since : 0;
    fs.tasks[t.name].time += duration > t.nested ? duration - t.nested : 0;
    if (!tp.open.empty()) tp.open.back().nested += duration;
}

void on_record(run_summary& run, file_summary& fs, task_pairing& tp, const record& rec, uint64_t salt) {
    ++fs.records;
    ++fs.by_kind[rec.kind];
    fs.first = std::min(fs.first, rec.timestamp);
    fs.last = std::max(fs.last, rec.timestamp);
    switch (rec.kind) {
    case kind_domain_createA:
    case kind_string_handle_createA:
        note_name(run.names, rec);
        break;
    case kind_task_begin: {
        barrier_begin(run, tp, rec);
        ++fs.begun;
        ++fs.tasks[rec.fields[3].number].begun;
        if (tp.depth++ < max_open_tasks) tp.open.push_back({rec.fields[3].number, rec.timestamp, 0});
        break;
    }
    case kind_task_end:
        ++fs.ended;
        if (tp.depth == 0) {
            ++fs.unmatched_ends;
        } else if (--tp.depth < tp.open.size()) {
            barrier_end(run, tp, tp.open.back().name);
            close_task(fs, tp, rec.timestamp);
        }
        break;
    case kind_task_begin_async: ++fs.async_begun; break;
    case kind_task_end_async: ++fs.async_ended; break;
    case kind_task_group: ++run.groups[rec.fields[3].number]; break;
    case kind_relation: {
        const unsigned kind = unsigned(rec.fields[2].number);
        ++run.relations[kind];
        if (kind == 7) {
            // A task node has 1 as its second word; the other end is the variable.
            const bool out = rec.fields[1].id.b == 1;
            ++(out ? run.dependences_out : run.dependences_in);
            // Ids of several processes are told apart by their salts.
            id3 variable = out ? rec.fields[3].id : rec.fields[1].id, task = out ? rec.fields[1].id : rec.fields[3].id;
            variable.a ^= salt, task.a ^= salt;
            run.variables.insert(variable);
            run.dependent_tasks.insert(task);
        }
        break;
    }
    case kind_metadata:
        // A code address (type 1) on a task or a region id.
        if (rec.fields[3].number == 1 && rec.fields[1].id.c == 0 &&
            string_name(run.names, rec.fields[2].number) == "code_address") {
            if (rec.fields[1].id.b == 0) ++run.task_sites[rec.fields[5].number];
            if (rec.fields[1].id.b == 1) ++run.region_sites[rec.fields[5].number];
        }
        break;
    case kind_end_of_records:
        // Tasks still open are closed by the end of the file.
        fs.left_open = tp.depth;
        while (!tp.open.empty()) close_task(fs, tp, rec.timestamp);
        tp.open.clear();
        tp.depth = 0;
        break;
    default: break;
    }
}

std::string plural(uint64_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// "2023-11-14 22:13:20.123456789 UTC"
std::string utc(uint64_t ns) {
    const time_t secs = time_t(ns / 1000000000);
    struct tm tm;
    gmtime_r(&secs, &tm);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%09llu UTC", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned long long>(ns % 1000000000));
    return text;
}

void print_file(const run_summary& run, const file_summary& fs, uint64_t origin) {
    std::string state;
    if (fs.status == read_status::finished)
        state = "complete";
    else if (fs.status == read_status::cut_short)
        state = fs.problem;
    else
        state = "malformed: " + fs.problem + "; the records after it are not read";
    std::printf("%s: %s, %s\n", fs.name.c_str(), plural(fs.records, "record", "records").c_str(), state.c_str());
    if (!fs.records) return;

    std::string kinds;
    for (int k = 0; k < kind_count; ++k)
        if (fs.by_kind[k])
            kinds += std::string(kinds.empty() ? "" : ", ") + record_kinds[k].name + " " + std::to_string(fs.by_kind[k]);
    std::printf("  records: %s\n", kinds.c_str());
    std::printf("  time: +%s s to +%s s (%s s)\n", seconds(fs.first - origin).c_str(), seconds(fs.last - origin).c_str(),
                seconds(fs.last - fs.first).c_str());
    if (fs.begun || fs.ended) {
        std::printf("  tasks: %llu begun, %llu ended", static_cast<unsigned long long>(fs.begun),
                    static_cast<unsigned long long>(fs.ended));
        if (fs.unmatched_ends) std::printf(", %s", plural(fs.unmatched_ends, "end without a begin", "ends without a begin").c_str());
        if (fs.left_open) std::printf(", %llu left open at the end", static_cast<unsigned long long>(fs.left_open));
        std::printf("\n");
    }
    if (fs.async_begun || fs.async_ended)
        std::printf("  async tasks: %llu begun, %llu ended\n", static_cast<unsigned long long>(fs.async_begun),
                    static_cast<unsigned long long>(fs.async_ended));
    if (fs.tasks.empty()) return;

    struct named_stat {
        std::string name;
        task_stat stat;
    };
    std::vector<named_stat> busiest;
    for (const auto& t : fs.tasks) busiest.push_back({string_name(run.names, t.first), t.second});
    std::sort(busiest.begin(), busiest.end(), [](const named_stat& a, const named_stat& b) {
        if (a.stat.time != b.stat.time) return a.stat.time > b.stat.time;
        if (a.stat.begun != b.stat.begun) return a.stat.begun > b.stat.begun;
        return a.name < b.name;
    });
    std::string line;
    for (size_t i = 0; i < busiest.size() && i < busiest_shown; ++i)
        line += (i ? ", " : "") + quoted(busiest[i].name) + " " + std::to_string(busiest[i].stat.begun) + " (" +
                seconds(busiest[i].stat.time) + " s)";
    std::printf("  busiest: %s\n", line.c_str());
}

void print_names(const char* title, const std::unordered_map<uint64_t, std::string>& table) {
    std::vector<std::string> names;
    for (const auto& n : table) names.push_back(n.second);
    std::sort(names.begin(), names.end());
    std::string line;
    for (size_t i = 0; i < names.size() && i < names_shown; ++i) line += (i ? ", " : "") + quoted(names[i]);
    if (names.size() > names_shown) line += ", and " + std::to_string(names.size() - names_shown) + " more";
    std::printf("%s (%zu): %s\n", title, names.size(), names.empty() ? "none" : line.c_str());
}

// Count of a statistic kept by name handle, summed over the handles of that name.
uint64_t by_name(const name_table& names, const std::unordered_map<uint64_t, uint64_t>& counts, const char* name) {
    uint64_t n = 0;
    for (const auto& c : counts)
        if (string_name(names, c.first) == name) n += c.second;
    return n;
}

// "fib (fib.c:102) 121392, fib (fib.c:104) 121392": the sites by count, the
// most frequent first, through the run's objects files when there are any.
void print_sites(const char* title, const std::unordered_map<uint64_t, uint64_t>& sites, symbolizer& symbols) {
    if (sites.empty()) return;
    // Sites with one name (a construct inlined at several places) count together.
    std::map<std::string, uint64_t> by_name;
    for (const auto& site : sites) by_name[location_name(symbols.locate(site.first), site.first)] += site.second;
    std::vector<std::pair<std::string, uint64_t>> sorted(by_name.begin(), by_name.end());
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string line;
    for (size_t i = 0; i < sorted.size() && i < names_shown; ++i)
        line += (i ? ", " : "") + sorted[i].first + " " + std::to_string(sorted[i].second);
    if (sorted.size() > names_shown) line += ", and " + std::to_string(sorted.size() - names_shown) + " more";
    std::printf("%s (%zu): %s\n", title, sorted.size(), line.c_str());
}

void print_openmp(const run_summary& run, const std::string& dir) {
    bool openmp = false;
    for (const auto& d : run.names.domains) openmp = openmp || d.second == "openmp";
    if (!openmp) return;
    std::unordered_map<uint64_t, uint64_t> begins;
    for (const file_summary& fs : run.files)
        for (const auto& t : fs.tasks) begins[t.first] += t.second.begun;
    // The detailed recording begins a task again after every switch but
    // records each creation once (relation 5); the plain one records
    // creations only of tasks with dependences.
    bool detailed = false;
    for (const auto& h : run.names.strings) detailed = detailed || h.second == "omp_taskwait";
    const uint64_t explicit_tasks = detailed ? run.relations[5] : by_name(run.names, begins, "omp_explicit");
    const uint64_t with_dependences = detailed ? run.dependent_tasks.size() : run.relations[5];
    std::printf("OpenMP: %s, %s, %s (%llu with dependences), %s (%llu in, %llu out) on %s, %s\n",
                plural(by_name(run.names, run.groups, "composite_node"), "region", "regions").c_str(),
                plural(by_name(run.names, begins, "omp_implicit"), "implicit task", "implicit tasks").c_str(),
                plural(explicit_tasks, "explicit task", "explicit tasks").c_str(),
                static_cast<unsigned long long>(with_dependences),
                plural(run.relations[7], "dependence", "dependences").c_str(),
                static_cast<unsigned long long>(run.dependences_in),
                static_cast<unsigned long long>(run.dependences_out),
                plural(run.variables.size(), "variable", "variables").c_str(),
                plural(run.barrier_waits, "barrier", "barriers").c_str());
    symbolizer symbols;
    symbols.load(dir);
    print_sites("OpenMP task sites", run.task_sites, symbols);
    print_sites("OpenMP region sites", run.region_sites, symbols);
}

}  // namespace

int print_summary(const std::string& dir) {
    std::vector<trace_path> files;
    if (!list_trace_files(dir, files)) return exit_error;
    run_summary run;
    record rec;
    const std::unordered_map<unsigned long, uint64_t> salts = process_salts(files);
    for (const trace_path& p : files) {
        const auto salt = salts.find(p.number);
        trace_file f;
        if (!open_for_reading(f, p)) return exit_error;
        file_summary fs;
        fs.name = p.name;
        task_pairing tp;
        while (next_record(f, rec) == read_status::record)
            on_record(run, fs, tp, rec, salt == salts.end() ? 0 : salt->second);
        if (!done_reading(f, p, false)) return exit_error;
        fs.status = f.status;
        fs.problem = f.problem;
        // A file cut short closes its open tasks at its last timestamp.
        for (const open_task& t : tp.open)
            if (fs.last > t.since) fs.tasks[t.name].time += fs.last - t.since;
        if (tp.depth) fs.left_open = tp.depth;
        run.files.push_back(std::move(fs));
    }

    uint64_t first = UINT64_MAX, last = 0, records = 0;
    for (const file_summary& fs : run.files) {
        records += fs.records;
        if (!fs.records) continue;
        first = std::min(first, fs.first);
        last = std::max(last, fs.last);
    }
    std::printf("run directory %s: %s, %s", dir.c_str(), plural(files.size(), "trace file", "trace files").c_str(),
                plural(records, "record", "records").c_str());
    if (records) std::printf(", %s to %s (%s s)", utc(first).c_str(), utc(last).c_str(), seconds(last - first).c_str());
    std::printf("\n");
    for (const file_summary& fs : run.files) print_file(run, fs, records ? first : 0);
    print_names("domains", run.names.domains);
    print_names("string handles", run.names.strings);
    std::string relations;
    for (unsigned k = 0; k < 256; ++k)
        if (run.relations[k]) relations += (relations.empty() ? "" : ", ") + std::to_string(run.relations[k]) + " of kind " + std::to_string(k);
    if (!relations.empty()) std::printf("relations: %s\n", relations.c_str());
    print_openmp(run, dir);
    std::fflush(stdout);
    return std::ferror(stdout) ? exit_error : exit_ok;
}

int summary_command(const std::vector<std::string>& args) {
    if (args.empty()) {
        error_line("usage: ryl summary DIR...");
        return exit_usage;
    }
    int worst = exit_ok;
    for (size_t i = 0; i < args.size(); ++i) {
        if (i) std::printf("\n");
        worst = worse_status(worst, print_summary(args[i]));
    }
    return worst;
}

}  // namespace ryl
