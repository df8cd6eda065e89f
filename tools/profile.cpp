// ryl profile DIR [--json]: where the time of an OpenMP run goes, by source
// location: task kinds and regions, the threads' work and waiting, work, span
// and parallelism, the critical path and what the recording itself cost.
#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "analysis.h"
#include "symbols.h"

namespace ryl {

namespace {

// Rough cost of one record of the detailed OpenMP recording in mapped mode,
// the runtime's tool callbacks included: (traced - untraced time) / records
// measured with ryl run on 2 cores, 440 ns on BOTS fib, 780 ns on LULESH.
constexpr uint64_t record_cost_ns = 400;
// A task or region shorter than this many times its recording cost is flagged.
constexpr uint64_t cost_factor = 10;
// Rows of each table in the human form (the JSON has them all).
constexpr size_t rows_shown = 20;
constexpr size_t path_rows_shown = 10;

// The critical path by kind and site: how much of the span each one is.
std::vector<path_step> path_by_kind(const std::vector<path_step>& path) {
    std::map<std::pair<uint64_t, int>, path_step> merged;
    for (const path_step& p : path) {
        path_step& m = merged.emplace(std::make_pair(p.site, int(p.kind)), path_step{p.site, p.kind, 0, 0}).first->second;
        m.tasks += p.tasks;
        m.ns += p.ns;
    }
    std::vector<path_step> steps;
    for (const auto& m : merged) steps.push_back(m.second);
    std::sort(steps.begin(), steps.end(), [](const path_step& x, const path_step& y) { return x.ns > y.ns; });
    return steps;
}

void print_more(std::FILE* o, size_t total, size_t shown) {
    if (total > shown) std::fprintf(o, "  ... and %zu more (--json lists them all)\n", total - shown);
}

std::string kind_text(interval_kind k) {
    switch (k) {
    case interval_kind::explicit_task: return "explicit task";
    case interval_kind::implicit_task: return "implicit task";
    case interval_kind::parallel: return "parallel region";
    default: return "other";
    }
}

std::string ms(uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", double(ns) / 1e6);
    return text;
}

void put_location(nlohmann::json& j, symbolizer& symbols, uint64_t address) {
    const code_location& where = symbols.locate(address);
    j["address"] = hex(address);
    j["function"] = where.function;
    j["file"] = where.file;
    j["line"] = where.line;
    j["name"] = address ? location_name(where, address) : "(unknown)";
}

std::string name_of(symbolizer& symbols, uint64_t address) {
    return address ? location_name(symbols.locate(address), address) : "(unknown)";
}

// The median duration of a histogram, as the upper edge of its bucket.
uint64_t median_upper_ns(const duration_histogram& h) {
    uint64_t total = 0, seen = 0;
    for (uint64_t c : h.counts) total += c;
    for (int b = 0; b < histogram_buckets; ++b) {
        seen += h.counts[b];
        if (total && seen * 2 >= total) return 1000ull << b;
    }
    return 0;
}

}  // namespace

namespace {

// One run directory's profile: printed to o, or added to runs as JSON.
bool profile_directory(const std::string& dir, std::FILE* o, nlohmann::json* runs) {
    std::vector<trace_path> files;
    if (!list_trace_files(dir, files)) return false;
    analysis a;
    if (!analyse_run(files, a)) return false;
    symbolizer symbols;
    const bool have_objects = symbols.load(dir);

    duration_histogram all_tasks;
    uint64_t task_count = 0;
    for (const auto& k : a.task_kinds) {
        for (int b = 0; b < histogram_buckets; ++b) all_tasks.counts[b] += k.second.histogram.counts[b];
        task_count += k.second.count;
    }
    const uint64_t cost_ns = a.records * record_cost_ns;
    const uint64_t median_task = median_upper_ns(all_tasks);
    // A detailed task is about four records (creation, begin, end and its site).
    const bool costly = task_count && median_task < cost_factor * 4 * record_cost_ns;
    const double parallelism = a.span_ns ? double(a.work_ns) / double(a.span_ns) : 0.0;

    std::vector<std::pair<uint64_t, const task_kind_stats*>> kinds;
    for (const auto& k : a.task_kinds) kinds.emplace_back(k.second.total_ns, &k.second);
    std::sort(kinds.begin(), kinds.end(), [](const auto& x, const auto& y) { return x.first > y.first; });

    std::vector<const region_stats*> regions;
    for (const auto& r : a.regions) regions.push_back(&r.second);
    std::stable_sort(regions.begin(), regions.end(),
                     [](const region_stats* x, const region_stats* y) { return x->total_ns > y->total_ns; });

    if (runs) {
        nlohmann::json j;
        j["run_directory"] = dir;
        j["detailed"] = a.detailed;
        j["records"] = a.records;
        j["duration_ns"] = a.last - a.first;
        j["work_ns"] = a.work_ns;
        j["span_ns"] = a.span_ns;
        j["parallelism"] = parallelism;
        j["tasks_created"] = a.tasks_created;
        j["dependences"] = a.dependences;
        j["critical_path"] = nlohmann::json::array();
        j["critical_path_steps"] = a.critical_path.size();
        for (const path_step& p : path_by_kind(a.critical_path)) {
            nlohmann::json step;
            put_location(step, symbols, p.site);
            step["kind"] = kind_text(p.kind);
            step["tasks"] = p.tasks;
            step["ns"] = p.ns;
            j["critical_path"].push_back(step);
        }
        j["task_kinds"] = nlohmann::json::array();
        for (const auto& k : kinds) {
            nlohmann::json e;
            put_location(e, symbols, k.second->address);
            e["count"] = k.second->count;
            e["total_ns"] = k.second->total_ns;
            e["mean_ns"] = k.second->count ? k.second->total_ns / k.second->count : 0;
            e["max_ns"] = k.second->max_ns;
            e["histogram_us_log2"] = k.second->histogram.counts;
            j["task_kinds"].push_back(e);
        }
        j["regions"] = nlohmann::json::array();
        for (const region_stats* r : regions) {
            nlohmann::json e;
            put_location(e, symbols, r->address);
            e["count"] = r->count;
            e["total_ns"] = r->total_ns;
            e["thread_work_ns"] = r->thread_work;
            e["imbalance_ns"] = r->imbalance_ns();
            e["barrier_ns"] = r->barrier_ns;
            j["regions"].push_back(e);
        }
        j["threads"] = nlohmann::json::array();
        for (const thread_stats& t : a.threads) {
            j["threads"].push_back({{"file", t.name}, {"thread_num", t.thread_num}, {"records", t.records},
                                    {"busy_ns", t.busy_ns}, {"own_ns", t.own_ns},
                                    {"waiting_ns", t.barrier_ns + t.taskwait_ns + t.taskgroup_ns},
                                    {"barrier_ns", t.barrier_ns}, {"taskwait_ns", t.taskwait_ns},
                                    {"taskgroup_ns", t.taskgroup_ns}, {"idle_ns", t.idle_ns},
                                    {"serial_ns", t.serial_ns}});
        }
        nlohmann::json cost = {{"records", a.records}, {"record_cost_ns", record_cost_ns},
                               {"estimate_ns", cost_ns}, {"median_task_ns", median_task}};
        if (costly) cost["warning"] = "median task is not much longer than the cost of recording it";
        j["tracing_cost"] = cost;
        if (!a.detailed) j["note"] = "plain OpenMP recording: the detailed mode gives more";
        runs->push_back(std::move(j));
        return true;
    }

    std::fprintf(o, "run: %s ms, %llu records in %zu files%s\n", ms(a.last - a.first).c_str(),
                 (unsigned long long)a.records, a.threads.size(), have_objects ? "" : " (no objects file: addresses as numbers)");
    if (!a.detailed)
        std::fprintf(o, "plain OpenMP recording: tasks switched away from and waits are not seen; "
                        "the detailed mode (ryl run) gives more\n");
    std::fprintf(o, "work %s ms, span %s ms, parallelism %.2f\n", ms(a.work_ns).c_str(), ms(a.span_ns).c_str(),
                 parallelism);
    // Sites with one name (a construct inlined at several places) share a row.
    std::vector<std::pair<std::string, task_kind_stats>> kind_rows;
    for (const auto& k : kinds) {
        const std::string name = name_of(symbols, k.second->address);
        auto row = std::find_if(kind_rows.begin(), kind_rows.end(), [&](const auto& r) { return r.first == name; });
        if (row == kind_rows.end()) {
            kind_rows.emplace_back(name, *k.second);
            continue;
        }
        row->second.count += k.second->count;
        row->second.total_ns += k.second->total_ns;
        row->second.max_ns = std::max(row->second.max_ns, k.second->max_ns);
    }
    if (!kind_rows.empty()) {
        std::fprintf(o, "\n%-48s %10s %12s %10s %10s\n", "task kind", "count", "total ms", "mean us", "max us");
        for (size_t i = 0; i < kind_rows.size() && i < rows_shown; ++i) {
            const task_kind_stats& s = kind_rows[i].second;
            std::fprintf(o, "%-48s %10llu %12s %10.1f %10.1f\n", kind_rows[i].first.c_str(),
                         (unsigned long long)s.count, ms(s.total_ns).c_str(),
                         s.count ? double(s.total_ns) / s.count / 1e3 : 0.0, double(s.max_ns) / 1e3);
        }
        print_more(o, kind_rows.size(), rows_shown);
    }
    std::vector<std::pair<std::string, region_stats>> region_rows;
    for (const region_stats* r : regions) {
        const std::string name = name_of(symbols, r->address);
        auto row = std::find_if(region_rows.begin(), region_rows.end(), [&](const auto& x) { return x.first == name; });
        if (row == region_rows.end()) {
            region_rows.emplace_back(name, *r);
            continue;
        }
        region_stats& m = row->second;
        m.count += r->count;
        m.total_ns += r->total_ns;
        m.barrier_ns += r->barrier_ns;
        if (m.thread_work.size() < r->thread_work.size()) m.thread_work.resize(r->thread_work.size(), 0);
        for (size_t t = 0; t < r->thread_work.size(); ++t) m.thread_work[t] += r->thread_work[t];
    }
    std::stable_sort(region_rows.begin(), region_rows.end(),
                     [](const auto& x, const auto& y) { return x.second.total_ns > y.second.total_ns; });
    if (!region_rows.empty()) {
        std::fprintf(o, "\n%-48s %8s %12s %14s %12s\n", "parallel region", "count", "total ms", "imbalance ms",
                     "barrier ms");
        for (size_t i = 0; i < region_rows.size() && i < rows_shown; ++i) {
            const region_stats& r = region_rows[i].second;
            std::fprintf(o, "%-48s %8llu %12s %14s %12s\n", region_rows[i].first.c_str(), (unsigned long long)r.count,
                         ms(r.total_ns).c_str(), ms(r.imbalance_ns()).c_str(), ms(r.barrier_ns).c_str());
        }
        print_more(o, region_rows.size(), rows_shown);
    }
    std::fprintf(o, "\n%-10s %6s %12s %12s %12s %12s %12s\n", "file", "thread", "tasks ms", "own work ms",
                 "waiting ms", "serial ms", "idle ms");
    for (const thread_stats& t : a.threads)
        std::fprintf(o, "%-10s %6s %12s %12s %12s %12s %12s\n", t.name.c_str(),
                     t.thread_num < 0 ? "-" : std::to_string(t.thread_num).c_str(), ms(t.busy_ns).c_str(),
                     ms(t.own_ns).c_str(), ms(t.barrier_ns + t.taskwait_ns + t.taskgroup_ns).c_str(),
                     ms(t.serial_ns).c_str(), ms(t.idle_ns).c_str());
    if (!a.critical_path.empty()) {
        const std::vector<path_step> steps = path_by_kind(a.critical_path);
        std::fprintf(o, "\ncritical path (%zu steps), by time on it:\n", a.critical_path.size());
        for (size_t i = 0; i < steps.size() && i < path_rows_shown; ++i)
            std::fprintf(o, "  %-46s %8llu x %12s ms  (%s)\n", name_of(symbols, steps[i].site).c_str(),
                         (unsigned long long)steps[i].tasks, ms(steps[i].ns).c_str(), kind_text(steps[i].kind).c_str());
        print_more(o, steps.size(), path_rows_shown);
    }
    std::fprintf(o, "\ntracing cost: %llu records, about %s ms\n", (unsigned long long)a.records, ms(cost_ns).c_str());
    if (costly)
        std::fprintf(o, "WARNING the median task (under %s us) is not much longer than the cost of recording it\n",
                     ms(median_task * 1000).c_str());
    return true;
}

}  // namespace

// Several directories (the processes of one run) are profiled one after the
// other: a block each, headed by the directory, or a JSON array of objects.
int profile_command(const std::vector<std::string>& args) {
    std::vector<std::string> dirs;
    std::string out_name = "-";
    bool json = false, have_out = false, usage = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            json = true;
        } else if (args[i] == "-o" && i + 1 < args.size() && !have_out) {
            out_name = args[++i];
            have_out = true;
        } else if (!args[i].empty() && args[i][0] != '-') {
            dirs.push_back(args[i]);
        } else {
            usage = true;
        }
    }
    if (usage || dirs.empty()) {
        error_line("usage: ryl profile DIR... [--json] [-o FILE]");
        return exit_usage;
    }
    output out;
    if (!open_output(out, out_name)) return exit_error;
    nlohmann::json runs = nlohmann::json::array();
    bool ok = true;
    for (size_t i = 0; i < dirs.size() && ok; ++i) {
        if (!json && dirs.size() > 1) std::fprintf(out.file, "%s== %s\n", i ? "\n" : "", dirs[i].c_str());
        ok = profile_directory(dirs[i], out.file, json ? &runs : nullptr);
    }
    if (ok && json) std::fprintf(out.file, "%s\n", (dirs.size() == 1 ? runs[0] : runs).dump(2).c_str());
    return close_output(out) && ok ? exit_ok : exit_error;
}

}  // namespace ryl
