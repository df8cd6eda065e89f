#include "ompt_support.h"

#include <cstdlib>

#include "child.h"

void learn_handles(const parsed_trace& trace, handle_names& names) {
    for (const parsed_record& r : trace.records)
        if ((r.name == "domain_createA" || r.name == "string_handle_createA") && r.fields.size() == 3)
            names[r.fields[0]] = "@" + r.fields[2];
}

std::string render(const parsed_record& record, const handle_names& names) {
    std::string line = record.name;
    size_t n = record.fields.size();
    bool has_cpu = record.name == "task_begin" && n > 0 &&
                   record.fields.back().find_first_not_of("0123456789") == std::string::npos;
    if (has_cpu) --n;
    else if (record.name == "task_begin") line += " <no processor number>";
    for (size_t i = 0; i < n; ++i) {
        auto name = names.find(record.fields[i]);
        line += " " + (name != names.end() ? name->second : record.fields[i]);
    }
    return line;
}

std::vector<std::string> render(const parsed_trace& trace, const handle_names& names) {
    std::vector<std::string> lines;
    for (const parsed_record& r : trace.records) lines.push_back(render(r, names));
    return lines;
}

std::string id(unsigned long long a, unsigned long long k) {
    return "{" + std::to_string(a) + "," + std::to_string(k) + ",0}";
}

std::vector<parsed_trace> read_traces(const std::string& dir) {
    std::map<unsigned long, std::string> paths;
    for (const std::string& name : list_dir(dir))
        if (name.size() > 5 && name.compare(0, 5, "_ryl.") == 0)
            paths[std::strtoul(name.c_str() + 5, nullptr, 10)] = dir + "/" + name;
    std::vector<parsed_trace> traces;
    for (const auto& p : paths) traces.push_back(parse_trace(read_file(p.second)));
    return traces;
}
