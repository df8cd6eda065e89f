// ryl export --otf2 DIR... OUT: run directories as one OTF2 archive
// (OUT/traces.otf2 with its event and definition files), for Vampir, Scalasca,
// Cube and every other OTF2 reader.
//
// One location group (a process) per run directory, one location (a CPU
// thread) per trace file, one region per task name. Task
// begins and ends become Enter and Leave events, paired per file in file order
// as the timeline pairs them: an end closes the innermost open task, an end
// with none open is dropped, tasks still open are closed at the file's last
// timestamp. Every Enter carries the attributes "id" and "parent" (the first
// word of the task's id and of its parent's id), which is how the task graph's
// creation relation reaches OTF2 readers; an OpenMP task with dependences also
// carries "depends_on", its predecessors' ids as one string (OTF2 has no event
// for a dependence, and an attribute appears at most once per event). Files are read once, one at a time;
// the event writer's buffer is flushed to disk by OTF2 itself, and the
// definitions, which need every file's counts, are written at the end.
#include <otf2/otf2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "ryl.h"
#include "task_names.h"

namespace ryl {

namespace {

OTF2_FlushType pre_flush(void*, OTF2_FileType, OTF2_LocationRef, void*, bool) { return OTF2_FLUSH; }
OTF2_TimeStamp post_flush(void*, OTF2_FileType, OTF2_LocationRef) { return 0; }
const OTF2_FlushCallbacks flush_callbacks = {pre_flush, post_flush};

// Strings and regions of the archive, numbered as they are first needed.
struct definitions {
    std::vector<std::string> strings;
    std::map<std::string, OTF2_StringRef> string_refs;
    struct region {
        OTF2_StringRef name, canonical, file;
        uint32_t line;
        OTF2_RegionRole role;
        OTF2_Paradigm paradigm;
    };
    std::vector<region> regions;  // by region ref
    // A region per recorded task name and source: (recorded name, site).
    std::map<std::pair<std::string, uint64_t>, OTF2_RegionRef> region_of;
    struct location {
        std::string name;
        uint64_t events = 0;
        OTF2_LocationGroupRef process = 0;
    };
    std::vector<location> locations;
    std::vector<std::string> processes;  // the run directories, or "DIR (pid N)" of their processes
};

OTF2_StringRef string_ref(definitions& d, const std::string& text) {
    const auto it = d.string_refs.emplace(valid_utf8(text), OTF2_StringRef(d.strings.size()));
    if (it.second) d.strings.push_back(it.first->first);
    return it.first->second;
}

// OpenMP task names give the region's role and paradigm (implicit and
// explicit tasks are both tasks).
OTF2_RegionRole role_of(const std::string& recorded) {
    if (recorded == "omp_explicit") return OTF2_REGION_ROLE_TASK;
    if (recorded == "omp_parallel") return OTF2_REGION_ROLE_PARALLEL;
    if (recorded == "omp_barrier") return OTF2_REGION_ROLE_BARRIER;
    if (recorded == "omp_taskwait" || recorded == "omp_taskgroup") return OTF2_REGION_ROLE_TASK_WAIT;
    return OTF2_REGION_ROLE_TASK;
}

OTF2_RegionRef region_ref(definitions& d, const std::string& recorded, const source_name* source) {
    const uint64_t site = source ? std::strtoull(source->address.c_str(), nullptr, 16) : 0;
    const auto known = d.region_of.find({recorded, site});
    if (known != d.region_of.end()) return known->second;
    definitions::region r;
    r.name = string_ref(d, source ? source->function : recorded);
    r.canonical = string_ref(d, recorded);
    std::string file;
    r.line = 0;
    if (source && !source->source.empty()) {
        const size_t colon = source->source.rfind(':');
        file = source->source.substr(0, colon);
        r.line = uint32_t(std::strtoul(source->source.c_str() + colon + 1, nullptr, 10));
    }
    r.file = string_ref(d, file);
    r.role = role_of(recorded);
    r.paradigm = recorded.compare(0, 4, "omp_") == 0 ? OTF2_PARADIGM_OPENMP : OTF2_PARADIGM_USER;
    d.regions.push_back(r);
    return d.region_of[{recorded, site}] = OTF2_RegionRef(d.regions.size() - 1);
}

constexpr OTF2_AttributeRef attribute_id = 0, attribute_parent = 1, attribute_depends_on = 2;

// "3 7": the id words of the tasks a task depends on, in the order the
// runtime reported them, each once.
std::string id_list(std::vector<uint64_t> ids) {
    std::string text;
    for (size_t i = 0; i < ids.size(); ++i) {
        if (std::find(ids.begin(), ids.begin() + i, ids[i]) != ids.begin() + i) continue;
        if (!text.empty()) text += ' ';
        text += std::to_string(ids[i]);
    }
    return text;
}

// Reads one file into the event writer of its location.
bool export_file(OTF2_Archive* archive, definitions& d, const name_table& names, task_namer* namer,
                 const trace_path& p, size_t process, uint64_t origin, uint64_t& last_overall) {
    trace_file f;
    if (!open_for_reading(f, p)) return false;
    const OTF2_LocationRef location = d.locations.size();
    d.locations.push_back({p.name, 0, OTF2_LocationGroupRef(process)});
    OTF2_EvtWriter* w = OTF2_Archive_GetEvtWriter(archive, location);
    OTF2_AttributeList* attributes = OTF2_AttributeList_New();
    std::vector<OTF2_RegionRef> open;
    uint64_t last = origin, events = 0;
    record rec;
    while (next_record(f, rec) == read_status::record) {
        last = std::max(last, rec.timestamp);
        if (rec.kind == kind_task_begin) {
            const std::string& recorded = string_name(names, rec.fields[3].number);
            const OTF2_RegionRef region = region_ref(
                d, recorded, namer ? source_of(*namer, recorded, p.number, rec.fields[1].id, rec.fields[2].id) : nullptr);
            OTF2_AttributeValue v;
            v.uint64 = rec.fields[1].id.a;
            OTF2_AttributeList_AddAttribute(attributes, attribute_id, OTF2_TYPE_UINT64, v);
            v.uint64 = rec.fields[2].id.a;
            OTF2_AttributeList_AddAttribute(attributes, attribute_parent, OTF2_TYPE_UINT64, v);
            if (namer && !namer->predecessors.empty()) {
                // The model's ids carry the process's salt; the attributes the ids as written.
                const uint64_t salt = namer->a.salt(p.number);
                const auto preds = namer->predecessors.find(rec.fields[1].id.a ^ salt);
                if (preds != namer->predecessors.end()) {
                    std::vector<uint64_t> ids = preds->second;
                    for (uint64_t& id : ids) id ^= salt;
                    v.stringRef = string_ref(d, id_list(std::move(ids)));
                    OTF2_AttributeList_AddAttribute(attributes, attribute_depends_on, OTF2_TYPE_STRING, v);
                }
            }
            OTF2_EvtWriter_Enter(w, attributes, last, region);  // empties the list
            open.push_back(region);
            ++events;
        } else if (rec.kind == kind_task_end && !open.empty()) {
            OTF2_EvtWriter_Leave(w, nullptr, last, open.back());
            open.pop_back();
            ++events;
        }
    }
    for (; !open.empty(); open.pop_back(), ++events) OTF2_EvtWriter_Leave(w, nullptr, last, open.back());
    OTF2_AttributeList_Delete(attributes);
    OTF2_Archive_CloseEvtWriter(archive, w);
    d.locations.back().events = events;
    last_overall = std::max(last_overall, last);
    return done_reading(f, p, true);
}

void write_definitions(OTF2_Archive* archive, definitions& d, uint64_t origin, uint64_t last) {
    OTF2_Archive_OpenDefFiles(archive);
    for (size_t l = 0; l < d.locations.size(); ++l)
        OTF2_Archive_CloseDefWriter(archive, OTF2_Archive_GetDefWriter(archive, l));
    OTF2_Archive_CloseDefFiles(archive);

    const OTF2_StringRef empty = string_ref(d, ""), machine = string_ref(d, "machine"),
                         node = string_ref(d, "node"),
                         id_name = string_ref(d, "id"), parent_name = string_ref(d, "parent"),
                         id_text = string_ref(d, "first word of the task's id"),
                         parent_text = string_ref(d, "first word of the parent task's id"),
                         depends_name = string_ref(d, "depends_on"),
                         depends_text = string_ref(d, "ids of the tasks this task depends on, separated by spaces");
    std::vector<OTF2_StringRef> location_names;
    for (const auto& l : d.locations) location_names.push_back(string_ref(d, l.name));
    std::vector<OTF2_StringRef> process_names;
    for (const auto& p : d.processes) process_names.push_back(string_ref(d, "ryl " + p));

    OTF2_GlobalDefWriter* g = OTF2_Archive_GetGlobalDefWriter(archive);
    OTF2_GlobalDefWriter_WriteClockProperties(g, 1000000000, origin, last - origin + 1, OTF2_UNDEFINED_UINT64);
    for (size_t s = 0; s < d.strings.size(); ++s) OTF2_GlobalDefWriter_WriteString(g, s, d.strings[s].c_str());
    OTF2_GlobalDefWriter_WriteAttribute(g, attribute_id, id_name, id_text, OTF2_TYPE_UINT64);
    OTF2_GlobalDefWriter_WriteAttribute(g, attribute_parent, parent_name, parent_text, OTF2_TYPE_UINT64);
    OTF2_GlobalDefWriter_WriteAttribute(g, attribute_depends_on, depends_name, depends_text, OTF2_TYPE_STRING);
    for (size_t r = 0; r < d.regions.size(); ++r) {
        const definitions::region& x = d.regions[r];
        OTF2_GlobalDefWriter_WriteRegion(g, r, x.name, x.canonical, empty, x.role, x.paradigm, OTF2_REGION_FLAG_NONE,
                                         x.file, x.line, x.line);
    }
    OTF2_GlobalDefWriter_WriteSystemTreeNode(g, 0, machine, node, OTF2_UNDEFINED_SYSTEM_TREE_NODE);
    for (size_t p = 0; p < d.processes.size(); ++p)
        OTF2_GlobalDefWriter_WriteLocationGroup(g, p, process_names[p], OTF2_LOCATION_GROUP_TYPE_PROCESS, 0,
                                                OTF2_UNDEFINED_LOCATION_GROUP);
    for (size_t l = 0; l < d.locations.size(); ++l)
        OTF2_GlobalDefWriter_WriteLocation(g, l, location_names[l], OTF2_LOCATION_TYPE_CPU_THREAD,
                                           d.locations[l].events, d.locations[l].process);
}

}  // namespace

int export_command(const std::vector<std::string>& args) {
    bool bad = args.size() < 3 || args[0] != "--otf2";
    for (const std::string& a : args) bad = bad || a.empty();
    if (bad) {
        error_line("usage: ryl export --otf2 DIR... OUT");
        return exit_usage;
    }
    const std::vector<std::string> dirs(args.begin() + 1, args.end() - 1);
    const std::string& out = args.back();
    // Every directory is listed and its names read first: the run's earliest
    // timestamp is the archive's time origin.
    std::vector<std::vector<trace_path>> files(dirs.size());
    std::vector<name_table> names(dirs.size());
    uint64_t origin = UINT64_MAX;
    for (size_t i = 0; i < dirs.size(); ++i) {
        uint64_t first = 0;
        if (!list_trace_files(dirs[i], files[i]) || !collect_names(files[i], names[i], first)) return exit_error;
        origin = std::min(origin, first);
    }
    struct stat st;
    if (::stat(out.c_str(), &st) == 0) {
        error_line(out + ": already exists; name a new directory");
        return exit_error;
    }
    OTF2_Archive* archive = OTF2_Archive_Open(out.c_str(), "traces", OTF2_FILEMODE_WRITE, 1024 * 1024,
                                              4 * 1024 * 1024, OTF2_SUBSTRATE_POSIX, OTF2_COMPRESSION_NONE);
    if (!archive) {
        error_line(out + ": cannot write the OTF2 archive");
        return exit_error;
    }
    OTF2_Archive_SetFlushCallbacks(archive, &flush_callbacks, nullptr);
    OTF2_Archive_SetSerialCollectiveCallbacks(archive);
    OTF2_Archive_OpenEvtFiles(archive);
    definitions d;
    uint64_t last = origin;
    bool ok = true;
    for (size_t i = 0; i < dirs.size() && ok; ++i) {
        // A process per directory; where its objects files name several
        // processes, one per process (files that no objects file names, from
        // killed processes, go to the directory's).
        const std::unordered_map<unsigned long, unsigned long> writers = writers_of_files(dirs[i]);
        std::map<unsigned long, size_t> process_of_pid;
        size_t directory_process = SIZE_MAX;
        // OpenMP runs: regions named by source, one more pass over the directory.
        task_namer namer;
        namer.want_predecessors = true;
        bool openmp = false;
        for (const auto& dom : names[i].domains) openmp = openmp || dom.second == "openmp";
        if (openmp && !(ok = load_task_names(namer, dirs[i], files[i]))) break;
        for (const trace_path& p : files[i]) {
            const auto writer = writers.find(p.number);
            size_t process;
            if (writer == writers.end()) {
                if (directory_process == SIZE_MAX) {
                    d.processes.push_back(dirs[i]);
                    directory_process = d.processes.size() - 1;
                }
                process = directory_process;
            } else {
                auto known = process_of_pid.find(writer->second);
                if (known == process_of_pid.end()) {
                    d.processes.push_back(dirs[i] + " (pid " + std::to_string(writer->second) + ")");
                    known = process_of_pid.emplace(writer->second, d.processes.size() - 1).first;
                }
                process = known->second;
            }
            if (!(ok = export_file(archive, d, names[i], openmp ? &namer : nullptr, p, process, origin, last))) break;
        }
    }
    OTF2_Archive_CloseEvtFiles(archive);
    write_definitions(archive, d, origin, last);
    if (OTF2_Archive_Close(archive) != OTF2_SUCCESS) {
        error_line(out + ": write error in the OTF2 archive");
        return exit_error;
    }
    return ok ? exit_ok : exit_error;
}

}  // namespace ryl
