// ryl timeline --perfetto: the task timelines as a Perfetto protobuf trace,
// several times smaller than the JSON timeline and loaded by the Perfetto UI
// and trace processor in a fraction of the memory.
//
// One process track for the run and one thread track per trace file (tid the
// file number). Tasks become slice begin/end events on their file's track,
// paired as in the JSON timeline: an end closes the innermost open task, an
// end with none open is dropped, tasks still open are closed at the file's
// last timestamp. Task names are interned: the first use of a name on the
// single packet sequence carries it in interned_data, later events only its
// iid. Packets are written one at a time, each as field 1 (length-delimited)
// of the Trace message, so memory does not grow with the run.
#include "perfetto.h"

#include <algorithm>
#include <map>

#include "perfetto_trace.pb.h"

namespace ryl {

namespace {

constexpr uint32_t sequence_id = 1;
constexpr uint32_t incremental_state_cleared = 1, needs_incremental_state = 2;
constexpr uint64_t process_uuid = 1;

struct writer {
    output out;
    std::string bytes;
    bool first = true;
    std::unordered_map<std::string, uint64_t> iid_of_name;  // slice name -> interned iid
    perfetto::TracePacket event;  // reused: no allocation per event
    std::string body;
};

void put_varint(std::string& s, uint64_t v) {
    for (; v >= 0x80; v >>= 7) s.push_back(char(v | 0x80));
    s.push_back(char(v));
}

void emit(writer& w, perfetto::TracePacket& packet) {
    packet.set_trusted_packet_sequence_id(sequence_id);
    if (w.first) packet.set_sequence_flags(incremental_state_cleared);
    w.first = false;
    packet.SerializeToString(&w.body);
    w.bytes.assign(1, char(0x0a));  // Trace.packet: field 1, length-delimited
    put_varint(w.bytes, w.body.size());
    w.bytes += w.body;
    std::fwrite(w.bytes.data(), 1, w.bytes.size(), w.out.file);
}

// A slice begin (with its name and the flows it starts and ends) or end.
void slice(writer& w, uint64_t track, uint64_t ts, bool begin, const std::string& name = std::string(),
           const std::vector<uint64_t>* flows_out = nullptr, const std::vector<uint64_t>* flows_in = nullptr) {
    perfetto::TracePacket& packet = w.event;
    packet.Clear();
    packet.set_timestamp(ts);
    perfetto::TrackEvent* e = packet.mutable_track_event();
    e->set_track_uuid(track);
    e->set_type(begin ? perfetto::TrackEvent::TYPE_SLICE_BEGIN : perfetto::TrackEvent::TYPE_SLICE_END);
    if (begin) {
        const auto it = w.iid_of_name.emplace(name, w.iid_of_name.size() + 1);
        if (it.second) {
            perfetto::EventName* n = packet.mutable_interned_data()->add_event_names();
            n->set_iid(it.first->second);
            n->set_name(valid_utf8(name));
        }
        e->set_name_iid(it.first->second);
        if (flows_out)
            for (uint64_t f : *flows_out) e->add_flow_ids(f);
        if (flows_in)
            for (uint64_t f : *flows_in) e->add_terminating_flow_ids(f);
    }
    packet.set_sequence_flags(needs_incremental_state);
    emit(w, packet);
}

// The flows of a task's first begin, each once.
const std::vector<uint64_t>* take(std::unordered_map<uint64_t, std::vector<uint64_t>>& table, uint64_t task,
                                  std::vector<uint64_t>& into) {
    const auto it = table.find(task);
    if (it == table.end()) return nullptr;
    into.swap(it->second);
    table.erase(it);
    return &into;
}

}  // namespace

int write_perfetto_timeline(const std::string& dir, const std::vector<trace_path>& files, const name_table& names,
                            uint64_t origin, const std::string& out, task_namer* namer) {
    writer w;
    if (!open_output(w.out, out)) return exit_error;
    // Several processes in the directory: one process track each, after the
    // directory's own (pid 1); a thread track's uuid follows its file number.
    const std::unordered_map<unsigned long, unsigned long> writers = writers_of_files(dir);
    std::map<unsigned long, uint64_t> process_track = {{1, process_uuid}};
    for (const auto& wr : writers) process_track.emplace(wr.second, 0);
    uint64_t next_track = ~uint64_t(0);  // far from the thread tracks
    for (auto& pt : process_track) {
        if (pt.first != 1) pt.second = next_track--;
        perfetto::TracePacket packet;
        perfetto::TrackDescriptor* d = packet.mutable_track_descriptor();
        d->set_uuid(pt.second);
        d->mutable_process()->set_pid(int32_t(pt.first));
        d->mutable_process()->set_process_name(
            valid_utf8("ryl " + dir + (pt.first == 1 ? "" : " (pid " + std::to_string(pt.first) + ")")));
        emit(w, packet);
    }
    bool ok = true;
    record rec;
    std::vector<uint64_t> flows_out, flows_in;
    for (const trace_path& p : files) {
        trace_file f;
        if (!(ok = open_for_reading(f, p))) break;
        const uint64_t track = process_uuid + 1 + p.number;
        perfetto::TracePacket packet;
        perfetto::TrackDescriptor* d = packet.mutable_track_descriptor();
        const auto writer = writers.find(p.number);
        const unsigned long pid = writer == writers.end() ? 1 : writer->second;
        d->set_uuid(track);
        d->set_parent_uuid(process_track.at(pid));
        d->mutable_thread()->set_pid(int32_t(pid));
        d->mutable_thread()->set_tid(int32_t(p.number + 1));
        d->mutable_thread()->set_thread_name(p.name);
        emit(w, packet);
        uint64_t last = origin, depth = 0;
        while (next_record(f, rec) == read_status::record) {
            last = std::max(last, rec.timestamp);
            if (rec.kind == kind_task_begin) {
                const std::string& recorded = string_name(names, rec.fields[3].number);
                const source_name* source =
                    namer ? source_of(*namer, recorded, p.number, rec.fields[1].id, rec.fields[2].id) : nullptr;
                const std::vector<uint64_t>*out_flows = nullptr, *in_flows = nullptr;
                if (namer && recorded == "omp_explicit") {
                    const uint64_t task = rec.fields[1].id.a ^ namer->a.salt(p.number);
                    out_flows = take(namer->arrows_out, task, flows_out);
                    in_flows = take(namer->arrows_in, task, flows_in);
                }
                slice(w, track, last, true, source ? source->function : recorded, out_flows, in_flows);
                ++depth;
            } else if (rec.kind == kind_task_end && depth) {
                slice(w, track, last, false);
                --depth;
            }
        }
        for (; depth; --depth) slice(w, track, last, false);
        if (!(ok = done_reading(f, p, true))) break;
    }
    if (!close_output(w.out)) return exit_error;
    return ok ? exit_ok : exit_error;
}

}  // namespace ryl
