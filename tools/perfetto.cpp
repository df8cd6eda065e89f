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
    std::unordered_map<uint64_t, uint64_t> iid_of_handle;  // task name handle -> interned iid
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

void slice(writer& w, uint64_t track, uint64_t ts, bool begin, uint64_t name_handle, const name_table& names) {
    perfetto::TracePacket& packet = w.event;
    packet.Clear();
    packet.set_timestamp(ts);
    perfetto::TrackEvent* e = packet.mutable_track_event();
    e->set_track_uuid(track);
    e->set_type(begin ? perfetto::TrackEvent::TYPE_SLICE_BEGIN : perfetto::TrackEvent::TYPE_SLICE_END);
    if (begin) {
        const auto it = w.iid_of_handle.emplace(name_handle, w.iid_of_handle.size() + 1);
        if (it.second) {
            perfetto::EventName* n = packet.mutable_interned_data()->add_event_names();
            n->set_iid(it.first->second);
            n->set_name(valid_utf8(string_name(names, name_handle)));
        }
        e->set_name_iid(it.first->second);
    }
    packet.set_sequence_flags(needs_incremental_state);
    emit(w, packet);
}

}  // namespace

int write_perfetto_timeline(const std::string& dir, const std::vector<trace_path>& files, const name_table& names,
                            uint64_t origin, const std::string& out) {
    writer w;
    if (!open_output(w.out, out)) return exit_error;
    {
        perfetto::TracePacket packet;
        perfetto::TrackDescriptor* d = packet.mutable_track_descriptor();
        d->set_uuid(process_uuid);
        d->mutable_process()->set_pid(1);
        d->mutable_process()->set_process_name(valid_utf8("ryl " + dir));
        emit(w, packet);
    }
    bool ok = true;
    record rec;
    for (const trace_path& p : files) {
        trace_file f;
        if (!(ok = open_for_reading(f, p))) break;
        const uint64_t track = process_uuid + 1 + p.number;
        perfetto::TracePacket packet;
        perfetto::TrackDescriptor* d = packet.mutable_track_descriptor();
        d->set_uuid(track);
        d->set_parent_uuid(process_uuid);
        d->mutable_thread()->set_pid(1);
        d->mutable_thread()->set_tid(int32_t(p.number + 1));
        d->mutable_thread()->set_thread_name(p.name);
        emit(w, packet);
        uint64_t last = origin, depth = 0;
        while (next_record(f, rec) == read_status::record) {
            last = std::max(last, rec.timestamp);
            if (rec.kind == kind_task_begin) {
                slice(w, track, last, true, rec.fields[3].number, names);
                ++depth;
            } else if (rec.kind == kind_task_end && depth) {
                slice(w, track, last, false, 0, names);
                --depth;
            }
        }
        for (; depth; --depth) slice(w, track, last, false, 0, names);
        if (!(ok = done_reading(f, p, true))) break;
    }
    if (!close_output(w.out)) return exit_error;
    return ok ? exit_ok : exit_error;
}

}  // namespace ryl
