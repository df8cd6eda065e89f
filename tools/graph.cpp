// ryl graph DIR -o graph.dot [--svg|--png]: the task graph in Graphviz DOT.
//
// Every id that a task_group record places becomes an entity with the name
// and parent of its first placement. Entities named "graph" or
// "composite_node" are drawn as clusters, nested as placed; everything placed
// under a cluster is drawn inside it: "node" entities as boxes, ports as
// small grey ellipses tied to their node by a dotted line. Relations of every
// kind are edges labelled with their kind; an end that no task_group places
// becomes a node of its own, drawn as a small diamond when only dependence
// relations (kind 7) name it. Metadata shows in the label of its id.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "analysis.h"
#include "ryl.h"
#include "symbols.h"

extern char** environ;

namespace ryl {

namespace {

constexpr size_t max_metadata_shown = 4;
// The relation graph, drawn entity by entity, is refused past this many nodes:
// dot takes minutes on a few thousand clusters and edges.
constexpr size_t max_relation_nodes = 5000;
constexpr int max_nesting = 64;  // parent chains are followed this far

struct entity {
    bool placed = false;
    uint64_t name = 0;
    id3 parent;
    std::vector<std::pair<uint64_t, std::string>> metadata;  // key handle, value
    bool only_dependences = true;  // unplaced: named only by kind 7 relations
};

using relation = std::tuple<id3, unsigned, id3>;

struct task_graph {
    name_table names;
    std::map<id3, entity> entities;
    std::set<relation> relations;
};

void on_record(task_graph& g, const record& rec) {
    switch (rec.kind) {
    case kind_domain_createA:
    case kind_string_handle_createA: note_name(g.names, rec); break;
    case kind_task_group: {
        entity& e = g.entities[rec.fields[1].id];
        if (!e.placed) {
            e.placed = true;
            e.parent = rec.fields[2].id;
            e.name = rec.fields[3].number;
        }
        break;
    }
    case kind_relation: {
        const unsigned kind = unsigned(rec.fields[2].number);
        if (!g.relations.emplace(rec.fields[1].id, kind, rec.fields[3].id).second) break;
        for (const id3& end : {rec.fields[1].id, rec.fields[3].id}) {
            entity& e = g.entities[end];
            if (kind != 7) e.only_dependences = false;
        }
        break;
    }
    case kind_metadata: {
        entity& e = g.entities[rec.fields[1].id];
        if (e.metadata.size() >= max_metadata_shown) break;
        const uint64_t value = rec.fields[5].number;
        e.metadata.emplace_back(rec.fields[2].number, rec.fields[3].number == 1 ? hex(value) : std::to_string(value));
        break;
    }
    case kind_metadata_stringA: {
        entity& e = g.entities[rec.fields[1].id];
        if (e.metadata.size() >= max_metadata_shown) break;
        std::string text = rec.fields[4].text.substr(0, 40);
        if (rec.fields[4].text_size > 40) text += "...";
        e.metadata.emplace_back(rec.fields[2].number, quoted(text));
        break;
    }
    default: break;
    }
}

// ---------------------------------------------------------------- drawing

// A DOT double-quoted string: valid UTF-8, quotation marks and backslashes
// escaped, line feeds as \n, "&" as an entity (Graphviz reads entities in labels).
std::string dot_string(const std::string& text) {
    std::string out = "\"";
    for (char c : valid_utf8(text)) {
        if (c == '"' || c == '\\')
            out += std::string("\\") + c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '&')
            out += "&amp;";
        else if (static_cast<unsigned char>(c) < 32 || c == 127)
            out += ' ';
        else
            out += c;
    }
    return out + "\"";
}

std::string node_id(const id3& id) {
    return "n_" + std::to_string(id.a) + "_" + std::to_string(id.b) + "_" + std::to_string(id.c);
}

struct drawing {
    const task_graph& g;
    std::string out;
    std::map<id3, std::vector<id3>> members;   // cluster: entities drawn directly inside it
    std::map<id3, std::vector<id3>> subclusters;
    std::vector<id3> top;                      // entities outside every cluster
    std::vector<id3> top_clusters;
    std::map<id3, id3> home;                   // entity: its innermost cluster
    std::set<id3> drawn;
};

std::string name_of(const drawing& d, const entity& e) { return string_name(d.g.names, e.name); }

bool is_cluster(const drawing& d, const id3& id) {
    const auto it = d.g.entities.find(id);
    if (it == d.g.entities.end() || !it->second.placed) return false;
    const std::string name = name_of(d, it->second);
    return name == "graph" || name == "composite_node";
}

// The innermost cluster that holds an entity placed under parent, if any.
bool cluster_above(const drawing& d, id3 parent, id3& cluster) {
    for (int i = 0; i < max_nesting && !is_null(parent); ++i) {
        if (is_cluster(d, parent)) {
            cluster = parent;
            return true;
        }
        const auto it = d.g.entities.find(parent);
        if (it == d.g.entities.end() || !it->second.placed) return false;
        parent = it->second.parent;
    }
    return false;
}

bool inside(const drawing& d, id3 id, const id3& cluster) {
    for (int i = 0; i < max_nesting; ++i) {
        const auto it = d.home.find(id);
        if (it == d.home.end()) return false;
        if (it->second == cluster) return true;
        id = it->second;
    }
    return false;
}

std::string label(const drawing& d, const id3& id, const entity& e) {
    std::string text;
    if (e.placed)
        text = name_of(d, e) + "\n" + id_text(id);
    else if (e.only_dependences && id.b == 0 && id.c == 0)
        text = "variable\n" + hex(id.a);
    else
        text = "id " + id_text(id);
    for (const auto& m : e.metadata) text += "\n" + string_name(d.g.names, m.first) + " = " + m.second;
    return dot_string(text);
}

void draw_node(drawing& d, const id3& id, const std::string& indent) {
    const entity& e = d.g.entities.at(id);
    std::string style;
    const std::string name = e.placed ? name_of(d, e) : "";
    if (!e.placed)
        style = e.only_dependences ? "shape=diamond, fontsize=8" : "shape=ellipse";
    else if (name == "node")
        style = "shape=box";
    else if (name.find("port") != std::string::npos)
        style = "shape=ellipse, style=filled, fillcolor=lightgrey, fontsize=8";
    else
        style = "shape=ellipse";
    d.out += indent + node_id(id) + " [" + style + ", label=" + label(d, id, e) + "];\n";
}

// Clusters nest as deep as a trace makes them: drawn with a stack of our own,
// not by recursion, so no crafted trace exhausts the thread's stack.
void draw_cluster(drawing& d, const id3& top, const std::string& indent) {
    struct frame {
        id3 id;
        size_t next = 0;  // subclusters drawn so far
    };
    std::vector<frame> stack;
    // Indentation stops growing past a depth nobody reads.
    auto padding = [&](size_t depth) { return indent + std::string(2 * std::min<size_t>(depth, 32), ' '); };
    auto open = [&](const id3& id) {
        const std::string pad = padding(stack.size());
        d.out += pad + "subgraph cluster_" + node_id(id).substr(2) + " {\n";
        d.out += pad + "  label=" + label(d, id, d.g.entities.at(id)) + ";\n";
        // The cluster's own point, where its relations start and end.
        d.out += pad + "  " + node_id(id) + " [shape=point, width=0.08];\n";
        stack.push_back({id, 0});
    };
    open(top);
    while (!stack.empty()) {
        frame& f = stack.back();
        const std::vector<id3>& subs = d.subclusters[f.id];
        if (f.next < subs.size()) {
            open(subs[f.next++]);
            continue;
        }
        const std::string pad = padding(stack.size() - 1);
        for (const id3& m : d.members[f.id]) draw_node(d, m, pad + "  ");
        d.out += pad + "}\n";
        stack.pop_back();
    }
}

std::string draw(const task_graph& g, size_t& drawn) {
    drawing d{g, {}, {}, {}, {}, {}, {}, {}};
    // What is drawn: the clusters with everything placed under them, every
    // end of a relation, and the parents that place drawn entities.
    for (const auto& kv : g.entities) {
        id3 cluster;
        const bool under = kv.second.placed && cluster_above(d, kv.second.parent, cluster);
        if (under) d.home[kv.first] = cluster;
        if (under || is_cluster(d, kv.first)) d.drawn.insert(kv.first);
    }
    for (const relation& r : g.relations) {
        d.drawn.insert(std::get<0>(r));
        d.drawn.insert(std::get<2>(r));
    }
    for (const id3& id : d.drawn) {
        const auto h = d.home.find(id);
        const bool cluster = is_cluster(d, id);
        if (h == d.home.end())
            (cluster ? d.top_clusters : d.top).push_back(id);
        else
            (cluster ? d.subclusters : d.members)[h->second].push_back(id);
    }

    drawn = d.drawn.size();
    if (drawn > max_relation_nodes) return std::string();
    d.out = "digraph trace {\n  compound=true;\n  node [fontname=\"Helvetica\", fontsize=10];\n"
            "  edge [fontname=\"Helvetica\", fontsize=9];\n";
    for (const id3& c : d.top_clusters) draw_cluster(d, c, "  ");
    for (const id3& n : d.top) draw_node(d, n, "  ");

    // A drawn entity placed under another drawn entity that is not a cluster
    // (a port under its node): a dotted line, in the direction of the flow.
    for (const id3& id : d.drawn) {
        const entity& e = g.entities.at(id);
        if (!e.placed || is_null(e.parent) || !d.drawn.count(e.parent) || is_cluster(d, e.parent)) continue;
        const bool input = name_of(d, e).find("input") != std::string::npos;
        const std::string& from = node_id(input ? id : e.parent);
        const std::string& to = node_id(input ? e.parent : id);
        d.out += "  " + from + " -> " + to + " [style=dotted, arrowhead=none];\n";
    }
    for (const relation& r : g.relations) {
        const id3& head = std::get<0>(r);
        const id3& tail = std::get<2>(r);
        std::string attrs = "label=\"" + std::to_string(std::get<1>(r)) + "\"";
        if (is_cluster(d, head) && !inside(d, tail, head)) attrs += ", ltail=cluster_" + node_id(head).substr(2);
        if (is_cluster(d, tail) && !inside(d, head, tail)) attrs += ", lhead=cluster_" + node_id(tail).substr(2);
        d.out += "  " + node_id(head) + " -> " + node_id(tail) + " [" + attrs + "];\n";
    }
    return d.out + "}\n";
}

// OpenMP runs: one node per task kind (creation site) and per parallel-region
// site, labelled with the source name, count and exclusive time; edges
// between them named by what they are, with their counts; the critical path
// in red. Past max_kind_nodes the lightest kinds share one node "other".
constexpr size_t max_kind_nodes = 100;

std::string ms_text(uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", double(ns) / 1e6);
    return text;
}

std::string draw_kinds(const analysis& a, symbolizer& symbols, size_t& summarised) {
    struct kind_node {
        bool region;
        uint64_t site, count, ns;
    };
    std::vector<kind_node> nodes;
    for (const auto& k : a.task_kinds) nodes.push_back({false, k.first, k.second.count, k.second.total_ns});
    for (const auto& r : a.regions) nodes.push_back({true, r.first, r.second.count, r.second.total_ns});
    std::stable_sort(nodes.begin(), nodes.end(), [](const kind_node& x, const kind_node& y) { return x.ns > y.ns; });
    summarised = nodes.size() > max_kind_nodes ? nodes.size() - (max_kind_nodes - 1) : 0;
    const size_t shown = summarised ? max_kind_nodes - 1 : nodes.size();
    // Node of a site: task kinds first (a creator that is an explicit task),
    // then regions (a creator that is an implicit task); "other" past the limit.
    std::map<uint64_t, std::string> task_node, region_node;
    for (size_t i = 0; i < nodes.size(); ++i)
        (nodes[i].region ? region_node : task_node)[nodes[i].site] = i < shown ? "k" + std::to_string(i) : "other";
    auto node_of = [&](uint64_t site) {
        const auto t = task_node.find(site);
        if (t != task_node.end()) return t->second;
        const auto r = region_node.find(site);
        return r != region_node.end() ? r->second : std::string("other");
    };
    auto name = [&](uint64_t site) { return site ? location_name(symbols.locate(site), site) : "(unknown)"; };
    // The critical path: its kinds and the steps between them.
    std::set<std::string> on_path;
    std::set<std::pair<std::string, std::string>> path_edges;
    for (size_t i = 0; i < a.critical_path.size(); ++i) {
        const path_step& p = a.critical_path[i];
        const std::string n = p.kind == interval_kind::explicit_task ? node_of(p.site)
                              : region_node.count(p.site)          ? region_node[p.site]
                                                                   : node_of(p.site);
        on_path.insert(n);
        if (i) {
            const path_step& q = a.critical_path[i - 1];
            const std::string m = q.kind == interval_kind::explicit_task ? node_of(q.site)
                                  : region_node.count(q.site)          ? region_node[q.site]
                                                                       : node_of(q.site);
            if (m != n) path_edges.emplace(m, n);
        }
    }
    const std::string red = ", color=red, fontcolor=red, penwidth=2";
    std::string out = "digraph tasks {\n  node [shape=box, style=rounded, fontname=\"Helvetica\", fontsize=10];\n"
                      "  edge [fontname=\"Helvetica\", fontsize=9];\n";
    uint64_t other_count = 0, other_ns = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const kind_node& k = nodes[i];
        if (i >= shown) {
            other_count += k.count, other_ns += k.ns;
            continue;
        }
        const std::string id = "k" + std::to_string(i);
        const std::string label = (k.region ? "parallel region\n" : "") + name(k.site) + "\n" +
                                  std::to_string(k.count) + (k.region ? " x, " : (k.count == 1 ? " task, " : " tasks, ")) +
                                  ms_text(k.ns);
        out += "  " + id + " [label=" + dot_string(label) + (k.region ? ", shape=box3d, style=\"\"" : "") +
               (on_path.count(id) ? red : "") + "];\n";
    }
    if (summarised)
        out += "  other [label=" +
               dot_string("other: " + std::to_string(summarised) + " lighter kinds\n" + std::to_string(other_count) +
                          " tasks and regions, " + ms_text(other_ns)) +
               ", style=dashed" + (on_path.count("other") ? red : "") + "];\n";
    // Edges between nodes, counts added up where kinds share a node.
    std::map<std::pair<std::string, std::string>, uint64_t> created, depends;
    auto region_of = [&](uint64_t site) {
        const auto r = region_node.find(site);
        return r != region_node.end() ? r->second : std::string("other");
    };
    for (const auto& e : a.created_edges) {
        const std::string from = std::get<1>(e.first) ? region_of(std::get<0>(e.first)) : node_of(std::get<0>(e.first));
        created[{from, node_of(std::get<2>(e.first))}] += e.second;
    }
    for (const auto& e : a.depends_edges) depends[{node_of(e.first.first), node_of(e.first.second)}] += e.second;
    for (const auto& e : created)
        out += "  " + e.first.first + " -> " + e.first.second + " [label=\"created " + std::to_string(e.second) + "\"" +
               (path_edges.count(e.first) ? red : "") + "];\n";
    for (const auto& e : depends)
        out += "  " + e.first.first + " -> " + e.first.second + " [label=\"depends " + std::to_string(e.second) +
               "\", style=dashed" + (path_edges.count(e.first) ? red : "") + "];\n";
    // Regions in program order: the serial code between them.
    std::map<std::pair<std::string, std::string>, uint64_t> then;
    for (const auto& e : a.followed_edges) then[{region_of(e.first.first), region_of(e.first.second)}] += e.second;
    for (const auto& e : then)
        out += "  " + e.first.first + " -> " + e.first.second + " [label=\"then " + std::to_string(e.second) +
               "\", style=dotted" + (path_edges.count(e.first) ? red : "") + "];\n";
    return out + "}\n";
}

// Runs Graphviz's dot on the DOT file; the exit status of ryl.
int render(const std::string& dot_file, const std::string& format, const std::string& picture) {
    const std::string type = "-T" + format;
    const char* argv[] = {"dot", type.c_str(), "-o", picture.c_str(), dot_file.c_str(), nullptr};
    pid_t pid;
    const int err = posix_spawnp(&pid, "dot", nullptr, nullptr, const_cast<char* const*>(argv), environ);
    if (err) {
        error_line("cannot make " + picture + ": Graphviz's dot " +
                   (err == ENOENT ? std::string("is not installed") : "cannot run: " + std::string(std::strerror(err))) +
                   " (" + dot_file + " is written)");
        return exit_error;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error_line("dot failed on " + dot_file + ": " + picture + " is not made");
        return exit_error;
    }
    return exit_ok;
}

}  // namespace

int graph_command(const std::vector<std::string>& args) {
    command_line cl;
    const bool parsed = parse_command_line(args, {"--svg", "--png", "--relations"}, cl);
    const bool relations = std::find(cl.flags.begin(), cl.flags.end(), "--relations") != cl.flags.end();
    const size_t pictures = cl.flags.size() - (relations ? 1 : 0);
    if (!parsed || pictures > 1 || (pictures && cl.out == "-")) {
        error_line("usage: ryl graph DIR [--relations] [-o FILE.dot [--svg | --png]]");
        return exit_usage;
    }
    std::vector<trace_path> files;
    if (!list_trace_files(cl.dir, files)) return exit_error;
    std::string text;
    analysis a;
    if (!relations && !analyse_run(files, a)) return exit_error;
    if (!relations && a.openmp && (!a.task_kinds.empty() || !a.regions.empty())) {
        symbolizer symbols;
        symbols.load(cl.dir);
        size_t summarised = 0;
        text = draw_kinds(a, symbols, summarised);
        if (summarised)
            error_line("note: " + std::to_string(summarised) + " task kinds and region sites beyond the " +
                       std::to_string(max_kind_nodes - 1) + " with the most time are drawn as one node \"other\"");
    } else {
        task_graph g;
        record rec;
        for (const trace_path& p : files) {
            trace_file f;
            if (!open_for_reading(f, p)) return exit_error;
            while (next_record(f, rec) == read_status::record) on_record(g, rec);
            if (!done_reading(f, p, true)) return exit_error;
        }
        size_t drawn = 0;
        text = draw(g, drawn);
        if (drawn > max_relation_nodes) {
            error_line("the relation graph has " + std::to_string(drawn) + " nodes, more than " +
                       std::to_string(max_relation_nodes) + " to draw; OpenMP runs are drawn by task kind without --relations");
            return exit_error;
        }
    }
    // With a picture: -o FILE.dot gives FILE.svg beside it; -o FILE.svg
    // names the picture, and the DOT text goes to FILE.dot.
    std::string dot_path = cl.out, picture, format;
    if (pictures) {
        format = (cl.flags[0] == "--relations" ? cl.flags[1] : cl.flags[0]).substr(2);
        const auto ends_with = [](const std::string& s, const std::string& tail) {
            return s.size() > tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
        };
        if (ends_with(cl.out, "." + format)) {
            picture = cl.out;
            dot_path = cl.out.substr(0, cl.out.size() - format.size()) + "dot";
        } else {
            picture = (ends_with(cl.out, ".dot") ? cl.out.substr(0, cl.out.size() - 4) : cl.out) + "." + format;
        }
    }
    output out;
    if (!open_output(out, dot_path)) return exit_error;
    std::fwrite(text.data(), 1, text.size(), out.file);
    if (!close_output(out)) return exit_error;
    if (!pictures) return exit_ok;
    return render(dot_path, format, picture);
}

}  // namespace ryl
