// ryl timeline DIR -o trace.json: the task timelines of every thread in the
// Chrome trace-event format (Perfetto's UI, chrome://tracing).
//
// Each trace file is one thread (pid 1, tid the file number). Task begins
// and ends become "B" and "E" events, paired per file in file order: an end
// closes the innermost open task, an end with no task open is dropped, and
// tasks still open are closed at the file's end_of_records record (or at its
// last timestamp when it is cut short). Async tasks become "b" and "e" events
// matched by domain and id. Times are microseconds after the run's earliest
// timestamp, kept monotonic per file. Events are written one at a time, so
// memory does not grow with the size of the run.
#include <algorithm>
#include <map>
#include <set>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include "perfetto.h"
#include "ryl.h"
#include "task_names.h"

namespace ryl {

namespace {

using json = nlohmann::json;

struct timeline {
    output out;
    const name_table* names = nullptr;
    task_namer* namer = nullptr;  // OpenMP runs: slices named by their source
    uint64_t origin = 0;
    bool first_event = true;
};

void emit(timeline& t, const json& event) {
    const std::string text = event.dump(-1, ' ', false, json::error_handler_t::replace);
    std::fputs(t.first_event ? "\n" : ",\n", t.out.file);
    std::fwrite(text.data(), 1, text.size(), t.out.file);
    t.first_event = false;
}

// Microseconds after the origin, to the nanosecond.
double micros(const timeline& t, uint64_t ns) { return double(ns - t.origin) / 1000.0; }

struct async_key {
    uint64_t domain;
    id3 id;
    bool operator<(const async_key& o) const { return domain != o.domain ? domain < o.domain : id < o.id; }
};

// What one file has open while it is read.
struct thread_state {
    unsigned long pid = 1;  // the writing process's pid where a directory holds several, else 1
    unsigned long tid = 0;
    uint64_t last = 0;   // latest timestamp so far
    uint64_t depth = 0;  // tasks open
    std::string file_name;    // "_ryl.N"
    bool thread_named = false;  // named by its OpenMP thread number
    std::map<async_key, uint64_t> async;  // open async tasks and their name handles
};

json event(const timeline& t, const thread_state& th, const char* phase, uint64_t ts) {
    return json{{"ph", phase}, {"pid", th.pid}, {"tid", th.tid}, {"ts", micros(t, ts)}};
}

// Dependence arrows at a task's first begin: those leaving it start there,
// those entering it end there (bound to the enclosing slice); each once.
void arrows(timeline& t, thread_state& th, uint64_t task) {
    for (auto* table : {&t.namer->arrows_out, &t.namer->arrows_in}) {
        const auto it = table->find(task);
        if (it == table->end()) continue;
        const bool out = table == &t.namer->arrows_out;
        for (uint64_t arrow : it->second) {
            json e = event(t, th, out ? "s" : "f", th.last);
            e["name"] = "depends";
            e["cat"] = "dependence";
            e["id"] = arrow;
            if (!out) e["bp"] = "e";
            emit(t, e);
        }
        table->erase(it);
    }
}

void close_all(timeline& t, thread_state& th, uint64_t ts) {
    for (; th.depth; --th.depth) emit(t, event(t, th, "E", ts));
    for (const auto& a : th.async) {
        json e = event(t, th, "e", ts);
        e["cat"] = domain_name(*t.names, a.first.domain);
        e["id"] = id_text(a.first.id);
        e["name"] = string_name(*t.names, a.second);
        emit(t, e);
    }
    th.async.clear();
}

void on_record(timeline& t, thread_state& th, const record& rec) {
    th.last = std::max(th.last, rec.timestamp);
    switch (rec.kind) {
    case kind_task_begin: {
        ++th.depth;
        json e = event(t, th, "B", th.last);
        const std::string& recorded = string_name(*t.names, rec.fields[3].number);
        e["name"] = recorded;
        e["cat"] = domain_name(*t.names, rec.fields[0].number);
        e["args"] = {{"id", id_text(rec.fields[1].id)}, {"parent", id_text(rec.fields[2].id)},
                     {"cpu", static_cast<int64_t>(rec.fields[4].number)}};
        const source_name* source =
            t.namer ? source_of(*t.namer, recorded, th.tid, rec.fields[1].id, rec.fields[2].id) : nullptr;
        if (source) {
            e["name"] = source->function;
            e["args"]["kind"] = recorded;
            e["args"]["address"] = source->address;
            if (!source->source.empty()) e["args"]["source"] = source->source;
        }
        emit(t, e);
        if (t.namer && recorded == "omp_explicit") arrows(t, th, rec.fields[1].id.a ^ t.namer->a.salt(th.tid));
        break;
    }
    case kind_task_end:
        if (th.depth) {
            --th.depth;
            emit(t, event(t, th, "E", th.last));
        }
        break;
    case kind_task_begin_async: {
        const async_key key{rec.fields[0].number, rec.fields[1].id};
        if (!th.async.emplace(key, rec.fields[3].number).second) break;  // already open
        json e = event(t, th, "b", th.last);
        e["cat"] = domain_name(*t.names, key.domain);
        e["id"] = id_text(key.id);
        e["name"] = string_name(*t.names, rec.fields[3].number);
        e["args"] = {{"parent", id_text(rec.fields[2].id)}, {"cpu", static_cast<int64_t>(rec.fields[4].number)}};
        emit(t, e);
        break;
    }
    case kind_task_end_async: {
        const auto it = th.async.find({rec.fields[0].number, rec.fields[1].id});
        if (it == th.async.end()) break;
        json e = event(t, th, "e", th.last);
        e["cat"] = domain_name(*t.names, it->first.domain);
        e["id"] = id_text(it->first.id);
        e["name"] = string_name(*t.names, it->second);
        emit(t, e);
        th.async.erase(it);
        break;
    }
    case kind_metadata:
        // The first OpenMP thread number recorded on a thread names it.
        if (!th.thread_named && string_name(*t.names, rec.fields[2].number) == "thread_num") {
            th.thread_named = true;
            emit(t, json{{"ph", "M"}, {"pid", th.pid}, {"tid", th.tid}, {"name", "thread_name"},
                         {"args", {{"name", "OpenMP thread " + std::to_string(rec.fields[5].number) + " (" +
                                                th.file_name + ")"}}}});
        }
        break;
    case kind_end_of_records: close_all(t, th, th.last); break;
    default: break;
    }
}

json metadata(const char* what, unsigned long pid, unsigned long tid, const json& args) {
    return json{{"ph", "M"}, {"pid", pid}, {"tid", tid}, {"name", what}, {"args", args}};
}

// The JSON timeline is about half the bytes of the trace files; the Perfetto
// UI fails to load JSON much past 250 MB.
void warn_when_too_large(const std::vector<trace_path>& files) {
    uint64_t bytes = 0;
    struct stat st;
    for (const trace_path& p : files)
        if (::stat(p.path.c_str(), &st) == 0) bytes += uint64_t(st.st_size);
    const uint64_t json_mb = bytes / 2 >> 20;
    if (json_mb > 250)
        error_line("warning: this JSON timeline will be about " + std::to_string(json_mb) +
                   " MB, too large for the Perfetto UI to open; write the compact form with --perfetto -o FILE.pftrace");
}

}  // namespace

int timeline_command(const std::vector<std::string>& args) {
    command_line cl;
    if (!parse_command_line(args, {"--perfetto"}, cl)) {
        error_line("usage: ryl timeline DIR [-o FILE.json | --perfetto -o FILE.pftrace]");
        return exit_usage;
    }
    const std::string& dir = cl.dir;
    std::vector<trace_path> files;
    if (!list_trace_files(dir, files)) return exit_error;
    name_table names;
    timeline t;
    t.names = &names;
    if (!collect_names(files, names, t.origin)) return exit_error;
    // OpenMP runs: one more pass first, for the sites and dependences.
    task_namer namer;
    bool openmp = false;
    for (const auto& d : names.domains) openmp = openmp || d.second == "openmp";
    if (openmp) {
        if (!load_task_names(namer, dir, files)) return exit_error;
        t.namer = &namer;
    }
    if (!cl.flags.empty()) return write_perfetto_timeline(dir, files, names, t.origin, cl.out, t.namer);
    warn_when_too_large(files);
    if (!open_output(t.out, cl.out)) return exit_error;

    const json other = {{"run_directory", dir}, {"time_origin_ns", std::to_string(t.origin)}};
    std::fprintf(t.out.file, "{\"displayTimeUnit\":\"ns\",\"otherData\":%s,\"traceEvents\":[",
                 other.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    // Several processes in the directory: one timeline process each.
    const std::unordered_map<unsigned long, unsigned long> writers = writers_of_files(dir);
    std::set<unsigned long> pids = {1};
    for (const auto& w : writers) pids.insert(w.second);
    for (unsigned long pid : pids)
        emit(t, metadata("process_name", pid, 0,
                         {{"name", "ryl " + dir + (pid == 1 ? "" : " (pid " + std::to_string(pid) + ")")}}));
    record rec;
    bool ok = true;
    for (const trace_path& p : files) {
        trace_file f;
        if (!open_for_reading(f, p)) {
            ok = false;
            break;
        }
        thread_state th;
        const auto writer = writers.find(p.number);
        if (writer != writers.end()) th.pid = writer->second;
        th.tid = p.number;
        th.last = t.origin;
        th.file_name = p.name;
        emit(t, metadata("thread_name", th.pid, th.tid, {{"name", p.name}}));
        emit(t, metadata("thread_sort_index", th.pid, th.tid, {{"sort_index", th.tid}}));
        while (next_record(f, rec) == read_status::record) on_record(t, th, rec);
        close_all(t, th, th.last);
        if (!done_reading(f, p, true)) {
            ok = false;
            break;
        }
    }
    std::fputs("\n]}\n", t.out.file);
    if (!close_output(t.out)) return exit_error;
    return ok ? exit_ok : exit_error;
}

}  // namespace ryl
