// OpenMP tool adapter: an OMPT tool that turns the events of an OpenMP
// runtime into calls of the library's own instrumentation API, so that a
// program's parallel regions and tasks show as a graph of composite nodes,
// nodes and ports and as a timeline of tasks on each thread.
//
// The adapter calls only the exported __zop_* functions, through the dynamic
// symbols as any instrumented application would. It keeps no table and takes
// no lock: whatever it must remember about a thread, region or task lives in
// the ompt_data_t slot that the runtime keeps for it, and every id it records
// is built from slot values. Its globals are written by ompt_start_tool and
// ompt_initialize before the first callback is registered, and only read
// afterwards.
//
// VUN_OPENMP=detailed registers a second set of callbacks (the detailed
// translation, at the end of the file): those keep a small state per task in
// its slot and a stack of open intervals per thread, still without a lock.
//
// Callbacks run inside someone else's process: none lets an exception out,
// and none dereferences a data pointer that the runtime may pass as null.

#include <omp-tools.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "objects_file.h"
#include "zop_minimal.h"

namespace {

// ---------------------------------------------------------------------------
// State
// ---------------------------------------------------------------------------

/// 1 once a runtime version string containing ".2018" was seen (those
/// runtimes announce a task switch with status 4); never reset.
int old_version = 0;
/// VUN_BARRIERS=all: implicit, explicit and implementation barriers (kinds 2,
/// 3 and 4) show as "omp_barrier" tasks too, not only kind 1, which today's
/// runtimes no longer report.
bool all_barriers = false;

/// Domain "openmp": the domain of every call the adapter makes.
___zop_domain* omp_domain = nullptr;
/// "omp_parallel": the task of a region on the thread that opens it.
___zop_string_handle* omp_str_handle = nullptr;
/// "omp_barrier": a thread waiting in a barrier.
___zop_string_handle* barrier_str_handle = nullptr;
/// "omp_implicit": an implicit task of a team.
___zop_string_handle* implicit_str_handle = nullptr;
/// "node": the begin and end node of a region, the node of a task.
___zop_string_handle* node_str_handle = nullptr;
/// "omp_explicit": an explicit task while it runs.
___zop_string_handle* variable_node = nullptr;
/// "graph": the group that holds every region's composite node.
___zop_string_handle* omp_graph_handle = nullptr;
/// "composite_node": one per parallel region.
___zop_string_handle* composite_node_handle = nullptr;
/// "input_port_0" and "output_port_0": the ports of the region nodes.
___zop_string_handle* input_port_handle = nullptr;
___zop_string_handle* output_port_handle = nullptr;
/// "code_address": metadata key of a region's or task's code address.
___zop_string_handle* task_address_handle = nullptr;

/// Entry points of the runtime, from its lookup function. ompt_get_task_info
/// and ompt_get_thread_data are kept but not called.
ompt_set_callback_t ompt_set_callback = nullptr;
ompt_get_task_info_t ompt_get_task_info = nullptr;
ompt_get_unique_id_t ompt_get_unique_id = nullptr;
ompt_get_thread_data_t ompt_get_thread_data = nullptr;
ompt_get_parallel_info_t ompt_get_parallel_info = nullptr;

/// The value of the graph id {19, 0, 0}.
void* const graph_value = reinterpret_cast<void*>(std::uintptr_t{19});

/// Second id words: several graph entities are made from one value.
enum : unsigned long long {
    task_word = 0,             ///< tasks, a region's begin node, ports, variables
    node_word = 1,             ///< a region's composite node, a task's node
    begin_output_port_word = 35,
    end_node_word = 36,
    end_input_port_word = 37,
};

/// Relation kinds drawn between ids.
enum : int {
    contains_relation = 3,    ///< task -> region, region -> its outer ports
    created_by_relation = 5,  ///< new task -> the task that created it
    dependence_relation = 7,  ///< writer -> variable, variable -> reader
};

/// Synchronisation kinds by number: the standard's names for 1 and 2 are
/// deprecated, and 4 means the implementation's barriers (a reduction's,
/// under LLVM's runtimes).
enum : int {
    barrier_kind = 1,
    implicit_barrier_kind = 2,
    explicit_barrier_kind = 3,
    implementation_barrier_kind = 4,
};

// ---------------------------------------------------------------------------
// Slots and ids
// ---------------------------------------------------------------------------

/// The value the adapter keeps in a slot, read through the pointer-sized
/// member; a slot the runtime did not pass reads as 0.
void* slot(const ompt_data_t* data) { return data ? data->ptr : nullptr; }

/// Stores a fresh unique id in a slot's 64-bit member. The id is taken also
/// when the runtime passed no slot, so that the ids that follow do not depend
/// on it.
void store_unique_id(ompt_data_t* data) {
    std::uint64_t id = ompt_get_unique_id();
    if (data) data->value = id;
}

/// A fresh unique id cut to pointer size, as a slot would give it back.
void* fresh_value() {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(ompt_get_unique_id()));
}

/// The id {value, word, 0}; the value is widened with zero bits.
__zop_id id_of(const void* value, unsigned long long word = task_word) {
    return {reinterpret_cast<std::uintptr_t>(value), word, 0};
}

/// Creates {value, k, 0} and places it under {parent, 0, 0} with the given
/// name; k is 1 for the names of nodes, 0 for everything else.
void ompt2zop_make_task_group(void* parent, void* value, ___zop_string_handle* name) {
    unsigned long long word =
        (name == node_str_handle || name == composite_node_handle) ? node_word : task_word;
    __zop_id_create(omp_domain, id_of(value, word));
    __zop_task_group(omp_domain, id_of(value, word), id_of(parent), name);
}

/// Task {task, 0, 0} begins on the calling thread under {parent, 0, 0}.
void ompt2zop_task_begin(void* task, void* parent, ___zop_string_handle* name) {
    __zop_task_begin(omp_domain, id_of(task), id_of(parent), name);
}

/// Barriers shown as "omp_barrier" tasks.
bool shows_as_barrier(int kind) {
    if (kind == barrier_kind) return true;
    return all_barriers && (kind == implicit_barrier_kind || kind == explicit_barrier_kind ||
                            kind == implementation_barrier_kind);
}

// ---------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------

void ompt_callback_thread_begin_fn(ompt_thread_t, ompt_data_t* thread_data) try {
    store_unique_id(thread_data);
} catch (...) {
}

// A region becomes a composite node under the graph, holding a begin node
// with an input and an output port; the encountering task points at it, and
// the thread that opens it runs an "omp_parallel" task until it ends.
void record_parallel_begin(ompt_data_t* parallel_data, void* encountering) {
    store_unique_id(parallel_data);
    void* region = slot(parallel_data);
    void* begin_node = fresh_value();
    void* input_port = fresh_value();

    __zop_relation_add(omp_domain, id_of(encountering), contains_relation, id_of(region, node_word));
    ompt2zop_make_task_group(graph_value, region, composite_node_handle);
    __zop_task_group(omp_domain, id_of(begin_node), id_of(region, node_word), node_str_handle);
    ompt2zop_make_task_group(begin_node, input_port, input_port_handle);
    __zop_task_group(omp_domain, id_of(begin_node, begin_output_port_word), id_of(begin_node),
                     output_port_handle);
    __zop_task_group(omp_domain, id_of(input_port), id_of(region, node_word), input_port_handle);
    __zop_relation_add(omp_domain, id_of(region, node_word), contains_relation, id_of(input_port));
    ompt2zop_make_task_group(nullptr, region, omp_str_handle);
    ompt2zop_task_begin(region, nullptr, omp_str_handle);
}

void ompt_callback_parallel_begin_fn(ompt_data_t* encountering_task_data, const ompt_frame_t*,
                                     ompt_data_t* parallel_data, unsigned int, int,
                                     const void*) try {
    record_parallel_begin(parallel_data, slot(encountering_task_data));
} catch (...) {
}

// The region's end node with its two ports, and its code address; ends the
// "omp_parallel" task.
void ompt_callback_parallel_end_fn(ompt_data_t* parallel_data, ompt_data_t*, int,
                                   const void* codeptr_ra) try {
    void* region = slot(parallel_data);
    void* end_node = fresh_value();
    void* output_port = fresh_value();

    __zop_metadata_add(omp_domain, id_of(region, node_word), task_address_handle, 1, 1, &codeptr_ra);
    __zop_task_group(omp_domain, id_of(end_node, end_node_word), id_of(region, node_word),
                     node_str_handle);
    __zop_task_group(omp_domain, id_of(output_port), id_of(end_node, end_node_word),
                     output_port_handle);
    __zop_task_group(omp_domain, id_of(end_node, end_input_port_word), id_of(end_node, end_node_word),
                     input_port_handle);
    __zop_task_group(omp_domain, id_of(output_port), id_of(region, node_word), output_port_handle);
    __zop_relation_add(omp_domain, id_of(region, node_word), contains_relation, id_of(output_port));
    __zop_task_end(omp_domain);
} catch (...) {
}

// Every implicit task gets a unique id; those of a team (not the initial task)
// run as "omp_implicit" tasks under their region's "omp_parallel" task. The
// region is the calling thread's innermost one as the runtime reports it; if
// the runtime has no answer, the callback's own parallel_data stands.
void ompt_callback_implicit_task_fn(ompt_scope_endpoint_t endpoint, ompt_data_t* parallel_data,
                                    ompt_data_t* task_data, unsigned int, unsigned int,
                                    int flags) try {
    if (endpoint == ompt_scope_begin) {
        store_unique_id(task_data);
        if (!(flags & ompt_task_implicit)) return;
        if (ompt_get_parallel_info) ompt_get_parallel_info(0, &parallel_data, nullptr);
        void* task = slot(task_data);
        void* region = slot(parallel_data);
        ompt2zop_make_task_group(region, task, implicit_str_handle);
        ompt2zop_task_begin(task, region, implicit_str_handle);
    } else if (endpoint == ompt_scope_end) {
        // Also for the initial task, whose begin recorded nothing.
        __zop_task_end(omp_domain);
    }
} catch (...) {
}

// Barriers interrupt the thread's current task with an "omp_barrier" task
// carrying the id of the task that waits.
void ompt_callback_sync_region_fn(ompt_sync_region_t kind, ompt_scope_endpoint_t endpoint,
                                  ompt_data_t* parallel_data, ompt_data_t* task_data,
                                  const void*) try {
    if (!shows_as_barrier(kind)) return;
    if (endpoint == ompt_scope_begin) {
        __zop_task_end(omp_domain);
        ompt2zop_task_begin(slot(task_data), slot(parallel_data), barrier_str_handle);
    } else if (endpoint == ompt_scope_end) {
        __zop_task_end(omp_domain);
    }
} catch (...) {
}

// An explicit task with dependences: a node under the task that created it,
// related to its creator and carrying its code address.
void record_task_node(void* task, void* encountering, const void* codeptr_ra) {
    __zop_id_create(omp_domain, id_of(task));
    __zop_id_create(omp_domain, id_of(encountering));
    __zop_relation_add(omp_domain, id_of(task), created_by_relation, id_of(encountering));
    ompt2zop_make_task_group(encountering, task, node_str_handle);
    __zop_metadata_add(omp_domain, id_of(task), task_address_handle, 1, 1, &codeptr_ra);
}

// Every new task gets a unique id. The initial task's also gives the region
// around it one. An explicit task with dependences becomes a node under the
// task that created it, related to its creator and carrying its code address;
// any other task enters the trace only when it runs.
void ompt_callback_task_create_fn(ompt_data_t* encountering_task_data, const ompt_frame_t*,
                                  ompt_data_t* new_task_data, int flags, int has_dependences,
                                  const void* codeptr_ra) try {
    store_unique_id(new_task_data);
    void* task = slot(new_task_data);
    if (flags & ompt_task_initial) {
        ompt_data_t* region = nullptr;
        if (ompt_get_parallel_info && ompt_get_parallel_info(0, &region, nullptr) != 0 && region)
            store_unique_id(region);
        return;
    }
    if (!(flags & ompt_task_explicit) || !has_dependences) return;
    record_task_node(task, slot(encountering_task_data), codeptr_ra);
} catch (...) {
}

// What a task status means here:
//   7 switch      the next task starts to run: it begins as "omp_explicit"
//                 with no parent, whatever kind of task it is; the prior
//                 task is not ended.
//   4 detach      runtimes of 2018 used 4 for a switch: treated as 7 when
//                 such a runtime was seen, otherwise ignored.
//   1 complete    the prior task ends; the task resumed is not begun again.
//   2 yield, 3 cancel, 5 and 6 fulfil, 8 taskwait complete: ignored.
void ompt_callback_task_schedule_fn(ompt_data_t*, ompt_task_status_t prior_task_status,
                                    ompt_data_t* next_task_data) try {
    if (prior_task_status == ompt_task_switch ||
        (old_version && prior_task_status == ompt_task_detach)) {
        ompt2zop_task_begin(slot(next_task_data), nullptr, variable_node);
    } else if (prior_task_status == ompt_task_complete) {
        __zop_task_end(omp_domain);
    }
} catch (...) {
}

// A dependence relates the task's node and the variable: a task that writes
// (bit value 2: out, inout) points at the variable, a variable that is read
// (bit value 1: in) points at the task. Other types are not shown.
void record_dependences(void* task, const ompt_dependence_t* deps, int ndeps) {
    for (int i = 0; deps && i < ndeps; ++i) {
        void* variable = slot(&deps[i].variable);
        // Read as a plain number: a newer runtime may send types that the
        // enumeration of this header does not list (5.1's *_all_memory).
        int type;
        static_assert(sizeof type == sizeof deps[i].dependence_type, "dependence type width");
        std::memcpy(&type, &deps[i].dependence_type, sizeof type);
        if (type & 2) {
            __zop_relation_add(omp_domain, id_of(task, node_word), dependence_relation,
                               id_of(variable));
        } else if (type & 1) {
            __zop_relation_add(omp_domain, id_of(variable), dependence_relation,
                               id_of(task, node_word));
        }
    }
}

void ompt_callback_dependences_fn(ompt_data_t* task_data, const ompt_dependence_t* deps,
                                  int ndeps) try {
    record_dependences(slot(task_data), deps, ndeps);
} catch (...) {
}

int ompt_callback_control_tool_fn(std::uint64_t, std::uint64_t, void*, const void*) { return 0; }

// ---------------------------------------------------------------------------
// Detailed translation (VUN_OPENMP=detailed)
//
// Every thread's timeline becomes well nested: each task_end closes the
// innermost open task_begin of the same file. The open intervals of a thread
// form a stack of levels, one per implicit task it runs (nested regions, or a
// region opened inside an explicit task, push a level); above a level's
// implicit task at most one interval is open: a fragment of an explicit task
// or a wait (barrier, taskwait, taskgroup). Whatever switches the thread to
// another task ends that interval first, so the thread's own state decides
// what to end, never the runtime's pointers, which for untied tasks (LLVM
// returns from a part without telling) may be stale.
//
// A task's slot holds a task_state allocated at its creation (explicit) or at
// its begin (implicit, initial) and freed at its completion or end.
// ---------------------------------------------------------------------------

/// VUN_OPENMP=detailed was set when the runtime started the tool.
bool detailed = false;
/// "omp_taskwait", "omp_taskgroup": the waits of the detailed translation.
___zop_string_handle* taskwait_str_handle = nullptr;
___zop_string_handle* taskgroup_str_handle = nullptr;
/// "thread_num": metadata key of an implicit task's number in its team.
___zop_string_handle* thread_num_handle = nullptr;

enum : unsigned char { implicit_task, initial_task, explicit_task, other_task };

struct task_state {
    void* value;                  ///< the task's id {value, 0, 0}
    void* parent;                 ///< creator (explicit task) or region (implicit task)
    ___zop_string_handle* wait;   ///< the wait the task is in, or null
    std::uint32_t thread_num;     ///< implicit task: its number in the team
    unsigned char kind;
    /// A worker's implicit task ended at the barrier that closes its region.
    bool ended_early;
};

/// One implicit task on a thread and whether an interval is open above it.
struct level_state {
    task_state* implicit;
    bool top_open;
};

/// Deeper nesting is still counted, but shares the deepest level's state.
constexpr unsigned max_levels = 16;

struct thread_state {
    unsigned depth;  ///< levels[0] stands for "no implicit task yet"
    unsigned overflow;
    level_state levels[max_levels];
};

/// Zero-initialised and trivially destructible: no constructor, no guard.
thread_local thread_state this_thread;

level_state& current_level() { return this_thread.levels[this_thread.depth]; }

task_state* state_of(const ompt_data_t* data) {
    return data ? static_cast<task_state*>(data->ptr) : nullptr;
}
void* value_of(const task_state* task) { return task ? task->value : nullptr; }

/// A fresh task state in the slot; null (and the slot cleared) without memory.
task_state* new_task_state(ompt_data_t* data, void* parent, unsigned char kind) {
    void* value = fresh_value();
    auto* task = static_cast<task_state*>(std::malloc(sizeof(task_state)));
    if (task) *task = task_state{value, parent, nullptr, 0, kind, false};
    if (data) {
        data->value = 0;
        data->ptr = task;
    }
    return task;
}

void end_top(level_state& level) {
    if (!level.top_open) return;
    __zop_task_end(omp_domain);
    level.top_open = false;
}

void begin_top(level_state& level, void* task, void* parent, ___zop_string_handle* name) {
    ompt2zop_task_begin(task, parent, name);
    level.top_open = true;
}

/// The thread runs `task` again: its wait, or its fragment, begins again; an
/// implicit task not waiting is still open underneath.
void resume(level_state& level, const task_state* task) {
    if (!task) return;
    if (task->wait)
        begin_top(level, task->value, task->parent, task->wait);
    else if (task->kind == explicit_task)
        begin_top(level, task->value, task->parent, variable_node);
}

___zop_string_handle* wait_name(int kind) {
    switch (kind) {
    case ompt_sync_region_taskwait: return taskwait_str_handle;
    case ompt_sync_region_taskgroup: return taskgroup_str_handle;
    case ompt_sync_region_reduction: return nullptr;
    case 1: case 2: case 3: case 4: case 8: case 9: case 10: return barrier_str_handle;
    default: return nullptr;
    }
}

void thread_begin_detailed(ompt_thread_t, ompt_data_t* thread_data) try {
    store_unique_id(thread_data);
} catch (...) {
}

// Closes what the runtime never ended on this thread (a worker's barrier).
void thread_end_detailed(ompt_data_t*) try {
    thread_state& t = this_thread;
    for (;;) {
        level_state& level = t.levels[t.depth];
        end_top(level);
        if (t.depth == 0) break;
        task_state* task = level.implicit;
        if (task && task->kind == implicit_task && !task->ended_early) __zop_task_end(omp_domain);
        std::free(task);
        level.implicit = nullptr;
        --t.depth;
    }
    t.overflow = 0;
} catch (...) {
}

void parallel_begin_detailed(ompt_data_t* encountering_task_data, const ompt_frame_t*,
                             ompt_data_t* parallel_data, unsigned int, int, const void*) try {
    objects_file::start_after_fork();
    record_parallel_begin(parallel_data, value_of(state_of(encountering_task_data)));
} catch (...) {
}

// Implicit tasks push a level; a team member's also records its number.
void implicit_task_detailed(ompt_scope_endpoint_t endpoint, ompt_data_t* parallel_data,
                            ompt_data_t* task_data, unsigned int, unsigned int index,
                            int flags) try {
    thread_state& t = this_thread;
    if (endpoint == ompt_scope_begin) {
        const bool implicit = flags & ompt_task_implicit;
        if (implicit && ompt_get_parallel_info) ompt_get_parallel_info(0, &parallel_data, nullptr);
        void* region = implicit ? slot(parallel_data) : nullptr;
        task_state* task =
            new_task_state(task_data, region, implicit ? implicit_task : initial_task);
        if (t.depth + 1 < max_levels) {
            t.levels[++t.depth] = level_state{task, false};
        } else {
            ++t.overflow;
            std::free(task);
            task = nullptr;
            if (task_data) task_data->ptr = nullptr;
        }
        if (!implicit) return;
        void* value = value_of(task);
        if (!task) value = fresh_value();
        ompt2zop_make_task_group(region, value, implicit_str_handle);
        ompt2zop_task_begin(value, region, implicit_str_handle);
        std::uint32_t number = index;
        __zop_metadata_add(omp_domain, id_of(value), thread_num_handle, 3, 1, &number);
        if (task) task->thread_num = number;
    } else if (endpoint == ompt_scope_end) {
        // The level's own state, not task_data: a worker hears of its end
        // only at the next fork, through a copy of its slot.
        if (t.overflow) {
            --t.overflow;
            if (flags & ompt_task_implicit) __zop_task_end(omp_domain);
            return;
        }
        if (t.depth == 0) return;
        level_state& level = t.levels[t.depth];
        end_top(level);
        task_state* task = level.implicit;
        if (task && task->kind == implicit_task && !task->ended_early) __zop_task_end(omp_domain);
        std::free(task);
        level.implicit = nullptr;
        --t.depth;
    }
} catch (...) {
}

// Waits are intervals of their own. An implicit task keeps its interval open
// under the wait, except a worker's at the barrier that closes its region
// (LLVM reports that barrier without a code address on workers, and its end
// with the implicit task's only at the next fork): its work ends there.
void sync_region_detailed(ompt_sync_region_t kind, ompt_scope_endpoint_t endpoint,
                          ompt_data_t* parallel_data, ompt_data_t* task_data,
                          const void* codeptr_ra) try {
    ___zop_string_handle* name = wait_name(kind);
    if (!name) return;
    level_state& level = current_level();
    task_state* task = state_of(task_data);
    if (endpoint == ompt_scope_begin) {
        end_top(level);
        if (!task) {
            begin_top(level, nullptr, nullptr, name);
            return;
        }
        const bool closes_region = (kind == 1 || kind == 2 || kind == 9) && !codeptr_ra &&
                                   task == level.implicit && task->kind == implicit_task &&
                                   task->thread_num != 0 && !task->ended_early;
        if (closes_region) {
            __zop_task_end(omp_domain);
            task->ended_early = true;
        }
        task->wait = name;
        begin_top(level, task->value, task->parent, name);
    } else if (endpoint == ompt_scope_end) {
        end_top(level);
        if (!task) task = level.implicit;  // a worker's late end may pass an empty slot
        if (!task) return;
        task->wait = nullptr;
        if (task->kind == explicit_task) {
            begin_top(level, task->value, task->parent, variable_node);
        } else if (task->ended_early && parallel_data) {
            // Not the region's last barrier after all: the work goes on.
            ompt2zop_task_begin(task->value, task->parent, implicit_str_handle);
            task->ended_early = false;
        }
    }
} catch (...) {
}

// Every explicit task is recorded at creation: its creator (relation 5) and
// its code address, with its node when it has dependences.
void task_create_detailed(ompt_data_t* encountering_task_data, const ompt_frame_t*,
                          ompt_data_t* new_task_data, int flags, int has_dependences,
                          const void* codeptr_ra) try {
    objects_file::start_after_fork();
    void* creator = value_of(state_of(encountering_task_data));
    if (flags & ompt_task_initial) {
        new_task_state(new_task_data, nullptr, initial_task);
        ompt_data_t* region = nullptr;
        if (ompt_get_parallel_info && ompt_get_parallel_info(0, &region, nullptr) != 0 && region)
            store_unique_id(region);
        return;
    }
    const bool is_explicit = flags & ompt_task_explicit;
    task_state* task = new_task_state(new_task_data, creator, is_explicit ? explicit_task : other_task);
    if (!is_explicit || !task) return;
    if (has_dependences) {
        record_task_node(task->value, creator, codeptr_ra);
    } else {
        __zop_relation_add(omp_domain, id_of(task->value), created_by_relation, id_of(creator));
        __zop_metadata_add(omp_domain, id_of(task->value), task_address_handle, 1, 1, &codeptr_ra);
    }
} catch (...) {
}

// A switch ends what runs on the thread and begins the next task's fragment;
// a completion also frees the finished task and resumes the next one (its
// fragment, or its wait). The fulfil statuses come after the task's
// execution has been reported and change nothing on the thread.
void task_schedule_detailed(ompt_data_t* prior_task_data, ompt_task_status_t prior_task_status,
                            ompt_data_t* next_task_data) try {
    level_state& level = current_level();
    int status = prior_task_status;
    if (old_version && status == ompt_task_detach) status = ompt_task_switch;
    switch (status) {
    case ompt_task_switch:
    case ompt_task_yield:
        end_top(level);
        resume(level, state_of(next_task_data));
        break;
    case ompt_task_complete:
    case ompt_task_cancel:
    case ompt_task_detach:
    case ompt_taskwait_complete: {
        if (status != ompt_taskwait_complete) end_top(level);
        task_state* prior = state_of(prior_task_data);
        if (prior && (prior->kind == explicit_task || prior->kind == other_task)) {
            std::free(prior);
            prior_task_data->ptr = nullptr;
        }
        if (status != ompt_taskwait_complete) resume(level, state_of(next_task_data));
        break;
    }
    default:
        break;
    }
} catch (...) {
}

void dependences_detailed(ompt_data_t* task_data, const ompt_dependence_t* deps, int ndeps) try {
    record_dependences(value_of(state_of(task_data)), deps, ndeps);
} catch (...) {
}

/// VUN_OPENMP: unset, empty or "plain" for the plain translation, "detailed"
/// for the detailed one; anything else is named in a warning and means plain.
bool detailed_translation_wanted() {
    const char* value = std::getenv("VUN_OPENMP");
    if (!value || !*value || std::strcmp(value, "plain") == 0) return false;
    if (std::strcmp(value, "detailed") == 0) return true;
    std::fprintf(stderr, "WARNING unknown VUN_OPENMP '%s': using the plain OpenMP translation\n",
                 value);
    std::fflush(stderr);
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Start-up
// ---------------------------------------------------------------------------

// Registers ompt_callback_<x> with ompt_callback_<x>_fn, whose signature must
// be the standard's; a runtime that will never deliver the event is told on
// standard output, and start-up goes on.
#define REGISTER_AS(event, function)                                                      \
    do {                                                                                  \
        if (ompt_set_callback(event, reinterpret_cast<ompt_callback_t>(                   \
                                         static_cast<event##_t>(&function))) ==           \
            ompt_set_never) {                                                             \
            std::printf("0: Could not register callback '" #event "'\n");                 \
            std::fflush(stdout);                                                          \
        }                                                                                 \
    } while (0)
#define REGISTER_CALLBACK(event) REGISTER_AS(event, event##_fn)

extern "C" {

// Creates the domain, the names and the graph group, then registers the
// callbacks. Declines (returns 0) only when the runtime offers no way to
// register callbacks or to get unique ids.
__attribute__((visibility("hidden"))) int ompt_initialize(ompt_function_lookup_t lookup, int,
                                                          ompt_data_t*) try {
    omp_domain = __zop_domain_createA("openmp");
    if (omp_domain) omp_domain->flags = 1;
    omp_str_handle = __zop_string_handle_createA("omp_parallel");
    barrier_str_handle = __zop_string_handle_createA("omp_barrier");
    implicit_str_handle = __zop_string_handle_createA("omp_implicit");
    node_str_handle = __zop_string_handle_createA("node");
    variable_node = __zop_string_handle_createA("omp_explicit");
    omp_graph_handle = __zop_string_handle_createA("graph");
    composite_node_handle = __zop_string_handle_createA("composite_node");
    input_port_handle = __zop_string_handle_createA("input_port_0");
    output_port_handle = __zop_string_handle_createA("output_port_0");
    task_address_handle = __zop_string_handle_createA("code_address");
    ompt2zop_make_task_group(nullptr, graph_value, omp_graph_handle);
    detailed = detailed_translation_wanted();
    if (detailed) {
        taskwait_str_handle = __zop_string_handle_createA("omp_taskwait");
        taskgroup_str_handle = __zop_string_handle_createA("omp_taskgroup");
        thread_num_handle = __zop_string_handle_createA("thread_num");
        objects_file::start();
    }

    const char* barriers = std::getenv("VUN_BARRIERS");
    all_barriers = barriers && std::strcmp(barriers, "all") == 0;

    if (lookup) {
        ompt_set_callback = reinterpret_cast<ompt_set_callback_t>(lookup("ompt_set_callback"));
        ompt_get_task_info = reinterpret_cast<ompt_get_task_info_t>(lookup("ompt_get_task_info"));
        ompt_get_unique_id = reinterpret_cast<ompt_get_unique_id_t>(lookup("ompt_get_unique_id"));
        ompt_get_thread_data =
            reinterpret_cast<ompt_get_thread_data_t>(lookup("ompt_get_thread_data"));
        ompt_get_parallel_info =
            reinterpret_cast<ompt_get_parallel_info_t>(lookup("ompt_get_parallel_info"));
    }
    if (!ompt_set_callback || !ompt_get_unique_id) return 0;

    if (detailed) {
        REGISTER_AS(ompt_callback_implicit_task, implicit_task_detailed);
        REGISTER_CALLBACK(ompt_callback_control_tool);
        REGISTER_AS(ompt_callback_parallel_begin, parallel_begin_detailed);
        REGISTER_CALLBACK(ompt_callback_parallel_end);
        REGISTER_AS(ompt_callback_task_create, task_create_detailed);
        REGISTER_AS(ompt_callback_task_schedule, task_schedule_detailed);
        REGISTER_AS(ompt_callback_dependences, dependences_detailed);
        REGISTER_AS(ompt_callback_thread_begin, thread_begin_detailed);
        REGISTER_AS(ompt_callback_sync_region, sync_region_detailed);
        REGISTER_AS(ompt_callback_thread_end, thread_end_detailed);
        return 1;
    }
    REGISTER_CALLBACK(ompt_callback_implicit_task);
    REGISTER_CALLBACK(ompt_callback_control_tool);
    REGISTER_CALLBACK(ompt_callback_parallel_begin);
    REGISTER_CALLBACK(ompt_callback_parallel_end);
    REGISTER_CALLBACK(ompt_callback_task_create);
    REGISTER_CALLBACK(ompt_callback_task_schedule);
    REGISTER_CALLBACK(ompt_callback_dependences);
    REGISTER_CALLBACK(ompt_callback_thread_begin);
    REGISTER_CALLBACK(ompt_callback_sync_region);
    return 1;
} catch (...) {
    return 0;
}

// The runtime is shutting down; the trace files are finished at unload.
__attribute__((visibility("hidden"))) void ompt_finalize(ompt_data_t*) { __zop_api_fini(nullptr); }

// How an OpenMP runtime finds the tool. Never declines.
__attribute__((visibility("default"))) ompt_start_tool_result_t* ompt_start_tool(
    unsigned int, const char* runtime_version) {
    static ompt_start_tool_result_t ompt_fns = {&ompt_initialize, &ompt_finalize, {0}};
    // Searched in place: no copy is needed to find ".2018" anywhere in it.
    if (runtime_version && std::strstr(runtime_version, ".2018")) old_version = 1;
    return &ompt_fns;
}

}  // extern "C"
