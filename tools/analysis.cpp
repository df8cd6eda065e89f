// One pass over each file of a run: task_begin and task_end nest on a thread,
// so a stack per file gives every interval and its exclusive time. Explicit
// tasks keep a compact node each (creator, site, work, first begin, end) for
// the span; everything else is aggregated by site as it is read.
#include "analysis.h"

#include <malloc.h>

#include <algorithm>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "symbols.h"

namespace ryl {

namespace {

constexpr uint32_t no_node = UINT32_MAX;
constexpr size_t max_open = 1 << 16;  // deeper nesting is counted, not timed

// A task of the graph: explicit, implicit or a parallel region's own task.
struct task_node {
    uint32_t creator = no_node;
    interval_kind kind = interval_kind::explicit_task;
    uint32_t waits = 0;            // waits the task has finished
    uint32_t waits_at_creation = 0;  // the creator's finished waits when this task was created
    uint32_t thread = 0;           // implicit tasks: OpenMP thread number, else the file's index
    uint64_t site = 0;
    uint64_t offset = 0;           // the creator's own work before this task was created
    uint64_t work = 0;             // exclusive time of its fragments
    uint64_t first_begin = UINT64_MAX, end = 0;
};

struct open_interval {
    uint64_t name;
    id3 id, parent;
    uint64_t begin;
    uint64_t nested = 0;
    uint32_t node = no_node;
    interval_kind resumed_wait = interval_kind::other;  // the wait this task was run from, if any
};

struct wait_mark {
    uint32_t node, ordinal;
    uint64_t work;  // the task's own work when the wait began
};

struct state {
    state(analysis& result, interval_visitor* v) : out(result), visitor(v) {}
    analysis& out;
    interval_visitor* visitor;
    std::unordered_map<uint64_t, interval_kind> kind_by_handle;
    std::set<uint64_t> thread_num_keys;  // one string handle per process
    std::unordered_map<uint64_t, uint32_t> node_of_task;    // explicit and implicit tasks by id word
    std::unordered_map<uint64_t, uint32_t> node_of_region;  // parallel regions by id word
    std::unordered_map<uint64_t, uint64_t> region_site;     // region id word -> code address
    std::unordered_map<uint64_t, uint64_t> region_of_implicit;
    std::unordered_map<uint64_t, uint64_t> region_barrier;  // region id word -> barrier time of all threads
    std::unordered_map<uint64_t, std::vector<uint64_t>> region_work;  // region id word -> work by thread
    std::vector<task_node> nodes;
    std::vector<wait_mark> waits;
    std::vector<std::pair<uint32_t, uint32_t>> edges;  // dependences: before, after
    // A wait just closed on this file (or a task run from it just ended): the
    // gap up to the next task run from the wait, or to the wait begun again,
    // is the runtime scheduling, so it counts as waiting, not as own work.
    interval_kind pending_wait = interval_kind::other;
    uint64_t pending_since = 0;
    size_t pending_depth = 0;
    uint64_t pending_task = 0;  // id word of the waiting task
    // Outermost regions of a file in order (previous, next id word), and the last one.
    std::vector<std::pair<uint64_t, uint64_t>> region_order;
    uint64_t last_region = 0;
    bool early_use = false;  // a string handle was used before the file that names it was read
    // Dependences of one creator's file: the last writer and readers since, by variable.
    std::map<id3, std::pair<uint32_t, std::vector<uint32_t>>> variables;
};

void learn_name(state& s, uint64_t handle, const std::string& name) {
    const interval_kind k = kind_of_task_name(name);
    if (k != interval_kind::other) s.kind_by_handle.emplace(handle, k), s.out.openmp = true;
    if (name == "omp_taskwait" || name == "omp_taskgroup") s.out.detailed = true;
    if (name == "thread_num") s.thread_num_keys.insert(handle);
}

interval_kind kind_of(const state& s, uint64_t handle) {
    const auto it = s.kind_by_handle.find(handle);
    return it == s.kind_by_handle.end() ? interval_kind::other : it->second;
}

uint32_t node_for(state& s, uint64_t task, interval_kind kind) {
    const auto found = s.node_of_task.emplace(task, uint32_t(s.nodes.size()));
    if (found.second) {
        s.nodes.emplace_back();
        s.nodes.back().kind = kind;
    }
    return found.first->second;
}

// The work a task has done so far on this thread, counting the open fragment on top.
uint64_t work_so_far(const state& s, const std::vector<open_interval>& stack, uint32_t node, uint64_t now) {
    uint64_t work = s.nodes[node].work;
    if (!stack.empty() && stack.back().node == node && now > stack.back().begin + stack.back().nested)
        work += now - stack.back().begin - stack.back().nested;
    return work;
}

// The innermost task running on the thread (a fragment or an implicit task).
uint32_t running_task(const std::vector<open_interval>& stack, const state& s) {
    for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
        const interval_kind k = kind_of(s, it->name);
        if (k == interval_kind::explicit_task || k == interval_kind::implicit_task) return it->node;
        if (k == interval_kind::barrier || k == interval_kind::taskwait || k == interval_kind::taskgroup) return no_node;
    }
    return no_node;
}

bool is_wait(interval_kind k) {
    return k == interval_kind::barrier || k == interval_kind::taskwait || k == interval_kind::taskgroup;
}

void add_wait_time(state& s, thread_stats& t, interval_kind k, uint64_t waiting_task, uint64_t ns) {
    if (k == interval_kind::barrier) {
        t.barrier_ns += ns;
        const auto r = s.region_of_implicit.find(waiting_task);
        if (r != s.region_of_implicit.end()) s.region_barrier[r->second] += ns;
    } else if (k == interval_kind::taskwait) {
        t.taskwait_ns += ns;
    } else if (k == interval_kind::taskgroup) {
        t.taskgroup_ns += ns;
    }
}

void close_interval(state& s, thread_stats& t, std::vector<open_interval>& stack, uint64_t now, bool by_end,
                    unsigned long file) {
    const open_interval top = stack.back();
    stack.pop_back();
    const uint64_t duration = now > top.begin ? now - top.begin : 0;
    const uint64_t exclusive = duration > top.nested ? duration - top.nested : 0;
    if (!stack.empty()) stack.back().nested += duration;
    const interval_kind k = kind_of(s, top.name);
    uint64_t site = 0;
    if (k == interval_kind::explicit_task || k == interval_kind::implicit_task) {
        // Work of the region whose implicit task runs here, by thread.
        const open_interval* implicit = k == interval_kind::implicit_task ? &top : nullptr;
        for (auto it = stack.rbegin(); !implicit && it != stack.rend(); ++it)
            if (kind_of(s, it->name) == interval_kind::implicit_task) implicit = &*it;
        if (implicit) {
            const size_t thread = t.thread_num >= 0 ? size_t(t.thread_num) : s.out.threads.size();
            std::vector<uint64_t>& work = s.region_work[implicit->parent.a];
            if (thread < 4096) {
                if (work.size() <= thread) work.resize(thread + 1, 0);
                work[thread] += exclusive;
            }
        }
    }
    switch (k) {
    case interval_kind::explicit_task:
        t.busy_ns += exclusive;
        if (top.node != no_node) {
            task_node& n = s.nodes[top.node];
            n.work += exclusive;
            n.end = std::max(n.end, now);
            site = n.site;
        }
        break;
    case interval_kind::implicit_task:
        t.own_ns += exclusive;
        if (top.node != no_node) {
            task_node& n = s.nodes[top.node];
            n.work += exclusive;
            n.end = std::max(n.end, now);
        }
        break;
    case interval_kind::parallel: {
        t.own_ns += exclusive;
        const auto r = s.node_of_region.find(top.id.a);
        if (r != s.node_of_region.end()) {
            task_node& n = s.nodes[r->second];
            n.work += exclusive;
            n.end = std::max(n.end, now);
        }
        break;
    }
    case interval_kind::barrier:
    case interval_kind::taskwait:
    case interval_kind::taskgroup: add_wait_time(s, t, k, top.id.a, exclusive); break;
    case interval_kind::other: t.other_ns += exclusive; break;
    }
    s.pending_wait = interval_kind::other;
    if (is_wait(k)) {
        // The waiting task is the interval's id: one more finished wait.
        const auto w = s.node_of_task.find(top.id.a);
        if (w != s.node_of_task.end()) ++s.nodes[w->second].waits;
        s.pending_wait = k, s.pending_task = top.id.a;
    } else if (k == interval_kind::explicit_task && top.resumed_wait != interval_kind::other && !stack.empty()) {
        s.pending_wait = top.resumed_wait, s.pending_task = stack.back().id.a;
    }
    s.pending_since = now;
    s.pending_depth = stack.size();
    if (s.visitor) {
        interval iv;
        iv.kind = k;
        iv.file = file;
        iv.depth = int(stack.size());
        iv.id = top.id;
        iv.parent = top.parent;
        iv.name = top.name;
        iv.begin = top.begin;
        iv.end = now;
        iv.exclusive = exclusive;
        iv.site = site;
        iv.closed_by_end = by_end;
        s.visitor->on_interval(iv);
    }
}

void on_record(state& s, thread_stats& t, std::vector<open_interval>& stack, uint64_t& depth, const record& rec,
               unsigned long file) {
    switch (rec.kind) {
    case kind_domain_createA: note_name(s.out.names, rec); break;
    case kind_string_handle_createA: {
        note_name(s.out.names, rec);
        learn_name(s, rec.fields[0].number, rec.fields[2].text);
        break;
    }
    case kind_task_begin: {
        if (!s.out.names.strings.count(rec.fields[3].number)) s.early_use = true;
        if (depth++ >= max_open) break;
        open_interval o;
        o.name = rec.fields[3].number;
        o.id = rec.fields[1].id;
        o.parent = rec.fields[2].id;
        o.begin = rec.timestamp;
        const interval_kind k = kind_of(s, o.name);
        if (s.pending_wait != interval_kind::other && stack.size() == s.pending_depth && !stack.empty() &&
            (k == interval_kind::explicit_task || k == s.pending_wait) && rec.timestamp >= s.pending_since) {
            const uint64_t gap = rec.timestamp - s.pending_since;
            add_wait_time(s, t, s.pending_wait, s.pending_task, gap);
            stack.back().nested += gap;
            if (k == interval_kind::explicit_task) o.resumed_wait = s.pending_wait;
        }
        s.pending_wait = interval_kind::other;
        if (k == interval_kind::explicit_task || k == interval_kind::implicit_task) {
            o.node = node_for(s, o.id.a, k);
            task_node& n = s.nodes[o.node];
            if (n.first_begin == UINT64_MAX) {
                n.first_begin = rec.timestamp;
                if (k == interval_kind::implicit_task) {
                    n.thread = uint32_t(s.out.threads.size());
                    s.region_of_implicit[o.id.a] = o.parent.a;
                    const auto r = s.node_of_region.find(o.parent.a);
                    if (r != s.node_of_region.end()) n.creator = r->second;
                }
            }
        } else if (k == interval_kind::barrier || k == interval_kind::taskwait || k == interval_kind::taskgroup) {
            // The waiting task's work so far marks where the wait sits in it.
            const auto w = s.node_of_task.find(o.id.a);
            if (w != s.node_of_task.end())
                s.waits.push_back({w->second, s.nodes[w->second].waits, work_so_far(s, stack, w->second, rec.timestamp)});
        } else if (k == interval_kind::parallel) {
            if (stack.empty()) {
                t.serial_ns = 1;  // marks the thread; the time is filled in at the end
                if (s.last_region) s.region_order.emplace_back(s.last_region, o.id.a);
                s.last_region = o.id.a;
            }
            const auto found = s.node_of_region.emplace(o.id.a, uint32_t(s.nodes.size()));
            if (found.second) {
                s.nodes.emplace_back();
                s.nodes.back().kind = k;
                s.nodes.back().first_begin = rec.timestamp;
                // A region inside a task is that task's child, which it
                // waits for at once: what the task does next follows the region.
                const uint32_t creator = running_task(stack, s);
                if (creator != no_node) {
                    task_node& n = s.nodes.back();
                    n.creator = creator;
                    n.offset = work_so_far(s, stack, creator, rec.timestamp);
                    n.waits_at_creation = s.nodes[creator].waits++;
                    s.waits.push_back({creator, n.waits_at_creation, n.offset});
                }
            }
            o.node = found.first->second;
        }
        stack.push_back(o);
        break;
    }
    case kind_task_end:
        if (depth == 0) {
            ++t.unmatched_ends;
        } else if (--depth < stack.size()) {
            close_interval(s, t, stack, rec.timestamp, false, file);
        }
        break;
    case kind_relation: {
        const unsigned kind = unsigned(rec.fields[2].number);
        const id3& head = rec.fields[1].id;
        const id3& tail = rec.fields[3].id;
        if (kind == 5 && head.b == 0 && head.c == 0) {
            // A new explicit task: its creator is the task running here.
            const uint32_t node = node_for(s, head.a, interval_kind::explicit_task);
            const uint32_t creator = running_task(stack, s);
            ++s.out.tasks_created;
            if (creator != no_node && creator != node) {
                task_node& n = s.nodes[node];
                n.creator = creator;
                n.offset = work_so_far(s, stack, creator, rec.timestamp);
                n.waits_at_creation = s.nodes[creator].waits;
            }
        } else if (kind == 7) {
            const bool out = head.b == 1;  // the task node writes the variable
            const id3 var = out ? tail : head;
            const uint32_t node = node_for(s, (out ? head : tail).a, interval_kind::explicit_task);
            auto& v = s.variables[var];
            if (v.first != 0 && v.first - 1 != node) s.edges.emplace_back(v.first - 1, node);
            if (out) {
                for (uint32_t r : v.second)
                    if (r != node) s.edges.emplace_back(r, node);
                v.first = node + 1;
                v.second.clear();
            } else if (v.second.size() < 64) {
                v.second.push_back(node);
            }
        }
        break;
    }
    case kind_metadata: {
        const id3& id = rec.fields[1].id;
        if (!s.out.names.strings.count(rec.fields[2].number)) s.early_use = true;
        if (s.thread_num_keys.count(rec.fields[2].number)) {
            t.thread_num = long(rec.fields[5].number);
            const auto node = s.node_of_task.find(id.a);
            if (node != s.node_of_task.end()) s.nodes[node->second].thread = uint32_t(rec.fields[5].number);
        } else if (rec.fields[3].number == 1 && id.c == 0) {
            // A code address: on {T,0,0} a task's creation site, on {R,1,0} a region's.
            if (id.b == 0) s.nodes[node_for(s, id.a, interval_kind::explicit_task)].site = rec.fields[5].number;
            if (id.b == 1) s.region_site[id.a] = rec.fields[5].number;
        }
        break;
    }
    case kind_end_of_records:
        while (!stack.empty()) close_interval(s, t, stack, rec.timestamp, true, file);
        break;
    default: break;
    }
}

// Longest paths: every task's start and end are visited in time order, so
// creators, predecessors and waited-for children are done before they count.
void compute_span(state& s) {
    const size_t n = s.nodes.size();
    std::vector<uint32_t> child_start(n + 1, 0), children;
    for (const task_node& t : s.nodes)
        if (t.creator != no_node) ++child_start[t.creator + 1];
    for (size_t i = 0; i < n; ++i) child_start[i + 1] += child_start[i];
    children.resize(child_start[n]);
    {
        std::vector<uint32_t> fill(child_start.begin(), child_start.end() - 1);
        for (uint32_t i = 0; i < n; ++i)
            if (s.nodes[i].creator != no_node) children[fill[s.nodes[i].creator]++] = i;
    }
    std::sort(s.edges.begin(), s.edges.end(), [](const auto& x, const auto& y) { return x.second < y.second; });
    std::sort(s.waits.begin(), s.waits.end(), [](const wait_mark& x, const wait_mark& y) {
        return x.node != y.node ? x.node < y.node : x.ordinal < y.ordinal;
    });
    auto wait_work = [&](uint32_t node, uint32_t ordinal, uint64_t fallback) {
        const auto it = std::lower_bound(s.waits.begin(), s.waits.end(), wait_mark{node, ordinal, 0},
                                         [](const wait_mark& x, const wait_mark& y) {
                                             return x.node != y.node ? x.node < y.node : x.ordinal < y.ordinal;
                                         });
        return it != s.waits.end() && it->node == node && it->ordinal == ordinal ? it->work : fallback;
    };
    // Tasks by start and by end time (ends first at equal times, then by
    // index): two lists of indices, a quarter of the memory of events.
    auto end_time = [&](uint32_t i) { return std::max(s.nodes[i].end, s.nodes[i].first_begin); };
    std::vector<uint32_t> by_start, by_end;
    for (uint32_t i = 0; i < n; ++i)
        if (s.nodes[i].first_begin != UINT64_MAX) by_start.push_back(i);
    by_end = by_start;
    std::sort(by_start.begin(), by_start.end(), [&](uint32_t x, uint32_t y) {
        return s.nodes[x].first_begin != s.nodes[y].first_begin ? s.nodes[x].first_begin < s.nodes[y].first_begin
                                                                 : x < y;
    });
    std::sort(by_end.begin(), by_end.end(), [&](uint32_t x, uint32_t y) {
        return end_time(x) != end_time(y) ? end_time(x) < end_time(y) : x < y;
    });
    // The longest path into each task's start and into its end.
    std::vector<uint64_t> start_path(n, 0), end_path(n, 0);
    // Where the longest path into a task's start and into its end came from:
    // the end from a child's end or the task's own start; the start from an
    // end (a predecessor, a waited-for sibling, what ran before a region) or
    // from the creator's start.
    std::vector<uint32_t> start_via(n, no_node), end_via(n, no_node);
    std::vector<bool> start_from_creator(n, false), start_from_sibling(n, false);
    uint64_t finished_max = 0;
    uint32_t finished_arg = no_node;
    // The longest path to the ends that no creator waits for (regions,
    // tasks of an initial thread, tasks that outlive their creator): a
    // region without a creator starts after those. Threads of the program
    // that start regions of their own run side by side, so a region does not
    // wait for the tasks of another thread's region.
    uint64_t roots_finished_max = 0;
    uint32_t roots_finished_arg = no_node;
    for (size_t next_start = 0, next_end = 0; next_start < by_start.size() || next_end < by_end.size();) {
        const bool is_start = next_end == by_end.size() ||
                              (next_start < by_start.size() &&
                               s.nodes[by_start[next_start]].first_begin < end_time(by_end[next_end]));
        const uint32_t i = is_start ? by_start[next_start++] : by_end[next_end++];
        const task_node& t = s.nodes[i];
        if (is_start) {
            uint64_t start = 0;
            if (t.creator != no_node) {
                start = start_path[t.creator] + t.offset;
                start_via[i] = t.creator;
                start_from_creator[i] = true;
                // Children the creator waited for before creating this task.
                for (uint32_t k = child_start[t.creator]; k < child_start[t.creator + 1]; ++k) {
                    const task_node& sib = s.nodes[children[k]];
                    if (sib.waits_at_creation >= t.waits_at_creation || sib.end > t.first_begin) continue;
                    const uint64_t at = wait_work(t.creator, sib.waits_at_creation, t.offset);
                    const uint64_t path = end_path[children[k]] + (t.offset > at ? t.offset - at : 0);
                    if (path > start)
                        start = path, start_via[i] = children[k], start_from_creator[i] = false,
                        start_from_sibling[i] = true;
                }
            } else if (t.kind != interval_kind::explicit_task) {
                start = roots_finished_max;  // a region starts after the regions before it
                start_via[i] = roots_finished_arg;
            }
            auto edge = std::lower_bound(s.edges.begin(), s.edges.end(), std::make_pair(uint32_t(0), i),
                                         [](const auto& x, const auto& y) { return x.second < y.second; });
            for (; edge != s.edges.end() && edge->second == i; ++edge)
                if (end_path[edge->first] > start)
                    start = end_path[edge->first], start_via[i] = edge->first, start_from_creator[i] = false,
                    start_from_sibling[i] = false;
            start_path[i] = start;
        } else {
            uint64_t end = start_path[i] + t.work;
            for (uint32_t k = child_start[i]; k < child_start[i + 1]; ++k) {
                const task_node& c = s.nodes[children[k]];
                if (c.end > t.end || c.first_begin == UINT64_MAX) continue;
                // A child waited for (or of a region's barrier) delays what follows.
                const uint64_t at = c.waits_at_creation < t.waits ? wait_work(i, c.waits_at_creation, t.work) : t.work;
                const uint64_t path = end_path[children[k]] + (t.work > at ? t.work - at : 0);
                if (path > end) end = path, end_via[i] = children[k];
            }
            end_path[i] = end;
            if (end >= finished_max) finished_max = end, finished_arg = i;
            // Ends no creator's end takes in (no creator, or one that ended first).
            if ((t.creator == no_node || s.nodes[t.creator].end < t.end) && end >= roots_finished_max)
                roots_finished_max = end, roots_finished_arg = i;
        }
    }
    s.out.span_ns = finished_max;
    // The path back from the last task to finish: from a task's end to the
    // child it waited for or to its own start, from a start to the end it
    // waited for or to its creator's start. Each task on it is listed once,
    // where the path first meets it, with the time of its own that lies on
    // the path (as the longest paths above counted it): these add up to the span.
    std::vector<uint32_t> walk;
    std::unordered_map<uint32_t, uint64_t> on_path;
    uint32_t i = finished_arg;
    bool at_end = true;
    for (size_t steps = 0; i != no_node && steps < 4 * n + 4; ++steps) {
        const task_node& t = s.nodes[i];
        if (at_end) {
            // Its work after waiting for that child, or all of it.
            uint64_t own = t.work;
            if (end_via[i] != no_node) {
                const task_node& c = s.nodes[end_via[i]];
                const uint64_t at = c.waits_at_creation < t.waits ? wait_work(i, c.waits_at_creation, t.work) : t.work;
                own = t.work > at ? t.work - at : 0;
            }
            on_path[i] += own;
            if (own || end_via[i] == no_node) walk.push_back(i);
            if (end_via[i] != no_node)
                i = end_via[i];
            else
                at_end = false;
        } else {
            // The creator's work before the creation, or since the wait for
            // the sibling the path goes on to.
            uint64_t creator_part = 0;
            if (start_from_creator[i]) {
                creator_part = t.offset;
            } else if (start_from_sibling[i]) {
                const uint64_t at = wait_work(t.creator, s.nodes[start_via[i]].waits_at_creation, t.offset);
                creator_part = t.offset > at ? t.offset - at : 0;
            }
            if (creator_part || start_from_creator[i]) {
                on_path[t.creator] += creator_part;
                walk.push_back(t.creator);
            }
            at_end = !start_from_creator[i];
            i = start_via[i];
        }
    }
    std::unordered_set<uint32_t> listed;
    for (auto w = walk.rbegin(); w != walk.rend(); ++w) {
        if (!listed.insert(*w).second) continue;
        const task_node& t = s.nodes[*w];
        if (!s.out.critical_path.empty() && s.out.critical_path.back().site == t.site &&
            s.out.critical_path.back().kind == t.kind) {
            ++s.out.critical_path.back().tasks;
            s.out.critical_path.back().ns += on_path[*w];
        } else {
            s.out.critical_path.push_back({t.site, t.kind, 1, on_path[*w]});
        }
    }
}

}  // namespace

interval_kind kind_of_task_name(const std::string& name) {
    if (name == "omp_explicit") return interval_kind::explicit_task;
    if (name == "omp_implicit") return interval_kind::implicit_task;
    if (name == "omp_parallel") return interval_kind::parallel;
    if (name == "omp_barrier") return interval_kind::barrier;
    if (name == "omp_taskwait") return interval_kind::taskwait;
    if (name == "omp_taskgroup") return interval_kind::taskgroup;
    return interval_kind::other;
}

void duration_histogram::add(uint64_t ns) {
    int bucket = 0;
    for (uint64_t us = ns / 1000; us > 0 && bucket < histogram_buckets - 1; us >>= 1) ++bucket;
    ++counts[bucket];
}

uint64_t region_stats::imbalance_ns() const {
    if (thread_work.empty()) return 0;
    uint64_t max = 0, sum = 0;
    for (uint64_t w : thread_work) max = std::max(max, w), sum += w;
    return max - sum / thread_work.size();
}

namespace {

// The id fields of a record XOR-ed with salt (once to salt, again to undo).
void salt_ids(record& rec, uint64_t salt) {
    if (rec.kind < 0 || rec.kind >= trace_format::kind_count) return;
    const auto& types = trace_format::record_kinds[rec.kind].fields;
    for (int i = 0; i < trace_format::max_fields && types[i] != trace_format::field_type::none; ++i)
        if (types[i] == trace_format::field_type::id) rec.fields[i].id.a ^= salt;
}

}  // namespace

std::unordered_map<unsigned long, uint64_t> process_salts(const std::vector<trace_path>& files) {
    // The writer's pid makes the salt: one objects file per pid, so two
    // processes of a directory never share one.
    std::unordered_map<unsigned long, uint64_t> salts;
    std::set<std::string> dirs;
    for (const trace_path& p : files) {
        const size_t cut = p.path.size() >= p.name.size() + 1 ? p.path.size() - p.name.size() - 1 : 0;
        dirs.insert(cut ? p.path.substr(0, cut) : ".");
    }
    for (const std::string& dir : dirs)
        for (const auto& writer : writers_of_files(dir)) salts[writer.first] = writer.second * 0x9E3779B97F4A7C15ULL;
    return salts;
}

namespace {

// One pass; with names_first the names of every file are read before.
bool analyse_pass(const std::vector<trace_path>& files, analysis& result, interval_visitor* visitor,
                  bool names_first, bool& early_use) {
    state s(result, visitor);
    if (names_first) {
        uint64_t first = 0;
        if (!collect_names(files, result.names, first)) return false;
        for (const auto& h : result.names.strings) learn_name(s, h.first, h.second);
    }
    result.first = UINT64_MAX;
    std::vector<open_interval> stack;
    for (const trace_path& p : files) {
        trace_file f;
        if (!open_for_reading(f, p)) return false;
        thread_stats t;
        t.file = p.number;
        t.name = p.name;
        t.first = UINT64_MAX;
        stack.clear();
        s.variables.clear();
        s.pending_wait = interval_kind::other;
        s.last_region = 0;
        uint64_t depth = 0;
        record rec;
        const uint64_t salt = result.salt(p.number);
        while (next_record(f, rec) == read_status::record) {
            ++t.records;
            if (t.first == UINT64_MAX) t.first = rec.timestamp;
            t.last = std::max(t.last, rec.timestamp);
            if (salt) salt_ids(rec, salt);
            on_record(s, t, stack, depth, rec, p.number);
            if (salt) salt_ids(rec, salt);
            if (visitor) visitor->on_record(p.number, rec);
        }
        t.left_open = depth;
        if (!done_reading(f, p, true)) return false;
        if (t.first == UINT64_MAX) t.first = 0;
        const uint64_t lifetime = t.last - t.first;
        const uint64_t accounted = t.busy_ns + t.own_ns + t.barrier_ns + t.taskwait_ns + t.taskgroup_ns + t.other_ns;
        t.idle_ns = lifetime > accounted ? lifetime - accounted : 0;
        // The initial task is no interval: outside the regions it forks, its
        // thread runs the program's serial code.
        if (t.serial_ns) t.serial_ns = t.idle_ns, t.idle_ns = 0;
        result.records += t.records;
        if (t.records) result.first = std::min(result.first, t.first), result.last = std::max(result.last, t.last);
        result.threads.push_back(t);
    }
    if (result.first == UINT64_MAX) result.first = 0;
    for (const auto& reg : s.node_of_region) {
        const auto site_it = s.region_site.find(reg.first);
        region_stats& rs = result.regions[site_it == s.region_site.end() ? 0 : site_it->second];
        rs.address = site_it == s.region_site.end() ? 0 : site_it->second;
        ++rs.count;
        const task_node& n = s.nodes[reg.second];
        if (n.end > n.first_begin) rs.total_ns += n.end - n.first_begin;
        const auto barrier = s.region_barrier.find(reg.first);
        if (barrier != s.region_barrier.end()) rs.barrier_ns += barrier->second;
    }
    // Explicit tasks by kind; implicit tasks' work by region and thread.
    for (size_t i = 0; i < s.nodes.size(); ++i) {
        const task_node& n = s.nodes[i];
        if (n.kind == interval_kind::explicit_task) {
            result.work_ns += n.work;
            task_kind_stats& k = result.task_kinds[n.site];
            k.address = n.site;
            ++k.count;
            k.total_ns += n.work;
            k.max_ns = std::max(k.max_ns, n.work);
            k.histogram.add(n.work);
        } else if (n.kind == interval_kind::implicit_task) {
            result.work_ns += n.work;
        }
    }
    for (const auto& rw : s.region_work) {
        const auto site_it = s.region_site.find(rw.first);
        region_stats& rs = result.regions[site_it == s.region_site.end() ? 0 : site_it->second];
        if (rs.thread_work.size() < rw.second.size()) rs.thread_work.resize(rw.second.size(), 0);
        for (size_t i = 0; i < rw.second.size(); ++i) rs.thread_work[i] += rw.second[i];
    }
    // Regions and their implicit tasks are named by the region's site.
    for (const auto& reg : s.node_of_region) {
        const auto site_it = s.region_site.find(reg.first);
        if (site_it != s.region_site.end()) s.nodes[reg.second].site = site_it->second;
    }
    for (task_node& n : s.nodes)
        if (n.kind == interval_kind::implicit_task && n.creator != no_node) n.site = s.nodes[n.creator].site;
    for (const task_node& n : s.nodes)
        if (n.kind == interval_kind::explicit_task && n.creator != no_node)
            ++result.created_edges[{s.nodes[n.creator].site, s.nodes[n.creator].kind != interval_kind::explicit_task,
                                    n.site}];
    for (const auto& e : s.edges) ++result.depends_edges[{s.nodes[e.first].site, s.nodes[e.second].site}];
    for (const auto& r : s.region_order) {
        const auto from = s.region_site.find(r.first), to = s.region_site.find(r.second);
        ++result.followed_edges[{from == s.region_site.end() ? 0 : from->second, to == s.region_site.end() ? 0 : to->second}];
    }
    result.dependences = s.edges.size();
    if (result.keep_ids) {
        std::vector<uint64_t> id_of(s.nodes.size(), 0);
        for (const auto& t : s.node_of_task) {
            id_of[t.second] = t.first;
            if (s.nodes[t.second].kind == interval_kind::explicit_task && s.nodes[t.second].site)
                result.task_site.emplace(t.first, s.nodes[t.second].site);
        }
        for (const auto& e : s.edges) result.dependence_ids.emplace_back(id_of[e.first], id_of[e.second]);
        result.region_site = s.region_site;
    }
    // The ids are not needed past the reading: their memory goes before the span's.
    std::unordered_map<uint64_t, uint32_t>().swap(s.node_of_task);
    malloc_trim(0);  // its many small blocks, back to the system before the span's arrays
    compute_span(s);
    early_use = s.early_use;
    return true;
}

}  // namespace

bool analyse_run(const std::vector<trace_path>& files, analysis& result, interval_visitor* visitor) {
    // Names are created at start-up on the first thread, so one pass is the
    // rule; a run whose names come in a later file than their first use is
    // read again with every name known (without a visitor, which has seen it).
    bool early_use = false;
    result.salt_of_file = process_salts(files);
    if (!analyse_pass(files, result, visitor, false, early_use)) return false;
    if (!early_use || visitor) return true;
    const bool keep_ids = result.keep_ids;
    result = analysis();
    result.keep_ids = keep_ids;
    result.salt_of_file = process_salts(files);
    return analyse_pass(files, result, nullptr, true, early_use);
}

}  // namespace ryl
