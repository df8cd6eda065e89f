// The OpenMP analysis model shared by ryl's subcommands: one streaming pass
// over the files of a run directory rebuilds each thread's intervals with
// their exclusive times, the explicit tasks with their creator, creation site
// and dependences, the parallel regions with their site and per-thread work,
// and the task graph whose longest path is the span.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "ryl.h"

namespace ryl {

// What an interval of a thread's timeline is, by its task name.
enum class interval_kind { explicit_task, implicit_task, parallel, barrier, taskwait, taskgroup, other };
interval_kind kind_of_task_name(const std::string& name);

// One closed interval of a thread, handed to an interval_visitor as it closes
// (innermost intervals first).
struct interval {
    interval_kind kind = interval_kind::other;
    unsigned long file = 0;     // trace file number
    int depth = 0;              // open intervals below it on the thread
    id3 id, parent;
    uint64_t name = 0;          // string handle of the task name
    uint64_t begin = 0, end = 0;
    uint64_t exclusive = 0;     // duration minus the nested intervals
    uint64_t site = 0;          // code address of the task's creation site or region, 0 unknown
    bool closed_by_end = false; // still open when the file ended: closed at the file's last timestamp
};

struct interval_visitor {
    virtual ~interval_visitor() = default;
    virtual void on_interval(const interval&) {}
    // Every record, after the model has taken it in (the file being read is file).
    virtual void on_record(unsigned long /*file*/, const record&) {}
};

// Durations in powers of two from 1 microsecond: bucket 0 < 1 us, bucket n
// [2^(n-1), 2^n) us, the last bucket everything longer.
constexpr int histogram_buckets = 24;
struct duration_histogram {
    uint64_t counts[histogram_buckets] = {};
    void add(uint64_t ns);
};

struct task_kind_stats {
    uint64_t address = 0;   // the creation site (a return address), 0 for tasks without one
    uint64_t count = 0;     // tasks created (or seen, for tasks whose creation is not recorded)
    uint64_t total_ns = 0;  // exclusive time of their fragments
    uint64_t max_ns = 0;    // the longest task (sum of its fragments)
    duration_histogram histogram;
};

struct region_stats {
    uint64_t address = 0;
    uint64_t count = 0;       // regions run
    uint64_t total_ns = 0;    // wall time of the regions on their encountering thread
    std::vector<uint64_t> thread_work;  // by OpenMP thread number: implicit task own work + explicit tasks
    uint64_t barrier_ns = 0;  // time in barriers of all threads
    uint64_t imbalance_ns() const;
};

struct thread_stats {
    unsigned long file = 0;
    std::string name;            // "_ryl.N"
    long thread_num = -1;        // OpenMP thread number when recorded, else -1
    uint64_t first = 0, last = 0;
    uint64_t records = 0;
    uint64_t busy_ns = 0;        // exclusive time of explicit task fragments
    uint64_t own_ns = 0;         // exclusive time of implicit tasks
    uint64_t barrier_ns = 0, taskwait_ns = 0, taskgroup_ns = 0;
    uint64_t other_ns = 0;       // other tasks of the trace (not OpenMP)
    uint64_t idle_ns = 0;        // between first and last record, outside every interval
    uint64_t serial_ns = 0;      // the same on a thread that forks outermost regions: its serial code
    uint64_t left_open = 0;      // intervals still open at the end of the file
    uint64_t unmatched_ends = 0; // task_end records without an open task
};

// One step of the critical path: consecutive tasks of one kind merged.
struct path_step {
    uint64_t site = 0;
    interval_kind kind = interval_kind::explicit_task;
    uint64_t tasks = 0;
    uint64_t ns = 0;
};

struct analysis {
    bool detailed = false;         // the run was recorded with the detailed OpenMP translation
    bool openmp = false;           // OpenMP task names were seen
    uint64_t records = 0;
    uint64_t first = 0, last = 0;  // earliest and latest timestamp of the run
    uint64_t tasks_created = 0;    // explicit tasks with a recorded creation
    uint64_t dependences = 0;      // task-to-task dependence edges
    uint64_t work_ns = 0;          // explicit fragments + implicit own work, exclusive
    uint64_t span_ns = 0;          // longest path through the task graph
    std::vector<path_step> critical_path;
    std::map<uint64_t, task_kind_stats> task_kinds;  // by creation site
    std::map<uint64_t, region_stats> regions;        // by region site
    std::vector<thread_stats> threads;               // by trace file
    name_table names;
    std::vector<std::string> warnings;               // files cut short or malformed
    // Between kinds (creation sites): tasks created, by (creator's site,
    // whether the creator is a region's implicit task and the site the
    // region's, created task's site); task-to-task dependences by (from, to).
    std::map<std::tuple<uint64_t, bool, uint64_t>, uint64_t> created_edges;
    std::map<std::pair<uint64_t, uint64_t>, uint64_t> depends_edges;
    // Kept only when keep_ids is set before analyse_run (the timelines name
    // each task): the site of every explicit task and region by the first
    // word of its id, and the dependences as (task, successor) id words.
    bool keep_ids = false;
    std::unordered_map<uint64_t, uint64_t> task_site, region_site;
    std::vector<std::pair<uint64_t, uint64_t>> dependence_ids;
    // Outermost regions one after the other on a thread, by (site, next site).
    std::map<std::pair<uint64_t, uint64_t>, uint64_t> followed_edges;
    // Processes sharing the run directory count their task and region ids
    // alike: the model tells them apart by XOR-ing each id word with a salt
    // of the writing process (from the objects files; 0 in a run of one
    // process and for files no objects file names). The id words of
    // task_site, region_site and dependence_ids are salted so.
    std::unordered_map<unsigned long, uint64_t> salt_of_file;
    uint64_t salt(unsigned long file) const {
        const auto it = salt_of_file.find(file);
        return it == salt_of_file.end() ? 0 : it->second;
    }
};

// The salt of every file whose process an objects file names, when the run
// directories of files hold more than one process (see analysis::salt_of_file).
std::unordered_map<unsigned long, uint64_t> process_salts(const std::vector<trace_path>& files);

// Reads the trace files of a run directory once each, in file-number order;
// false (message printed) when they cannot be read. visitor may be null.
bool analyse_run(const std::vector<trace_path>& files, analysis& result, interval_visitor* visitor = nullptr);

}  // namespace ryl
