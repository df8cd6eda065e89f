#include "ompt_support.h"

#include <cstdlib>
#include <iterator>
#include <map>
#include <sstream>

#include "child.h"
#include "trace_text.h"

std::vector<rendered_trace> read_rendered(const std::string& dir) {
    std::map<unsigned long, std::string> paths;
    for (const std::string& name : list_dir(dir))
        if (name.size() > 5 && name.compare(0, 5, "_ryl.") == 0)
            paths[std::strtoul(name.c_str() + 5, nullptr, 10)] = dir + "/" + name;
    std::vector<parsed_trace> traces;
    std::map<std::string, std::string> names;  // handle fields (the recorded addresses) to "@name"
    for (const auto& p : paths) {
        traces.push_back(parse_trace(read_file(p.second)));
        for (const parsed_record& r : traces.back().records)
            if ((r.name == "domain_createA" || r.name == "string_handle_createA") && r.fields.size() == 3)
                names[r.fields[0]] = "@" + r.fields[2];
    }
    std::vector<rendered_trace> rendered;
    for (const parsed_trace& t : traces) {
        rendered.push_back({t.ok && t.finished, t.error, {}});
        for (const parsed_record& r : t.records) {
            std::string line = r.name;
            size_t n = r.fields.size();
            const bool has_cpu = r.name == "task_begin" && n > 0 &&
                                 r.fields.back().find_first_not_of("0123456789") == std::string::npos;
            if (has_cpu) --n;
            else if (r.name == "task_begin") line += " <no processor number>";
            for (size_t i = 0; i < n; ++i) {
                auto name = names.find(r.fields[i]);
                line += " " + (name != names.end() ? name->second : r.fields[i]);
            }
            rendered.back().lines.push_back(line);
        }
    }
    return rendered;
}

std::string id(unsigned long long a, unsigned long long k) {
    return "{" + std::to_string(a) + "," + std::to_string(k) + ",0}";
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}
