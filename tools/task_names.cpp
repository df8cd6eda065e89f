#include "task_names.h"

namespace ryl {

bool load_task_names(task_namer& namer, const std::string& dir, const std::vector<trace_path>& files) {
    namer.a.keep_ids = true;
    if (!analyse_run(files, namer.a)) return false;
    namer.symbols.load(dir);
    uint64_t arrow = 0;
    for (const auto& d : namer.a.dependence_ids) {
        if (namer.want_predecessors) {
            namer.predecessors[d.second].push_back(d.first);
            continue;
        }
        namer.arrows_out[d.first].push_back(++arrow);
        namer.arrows_in[d.second].push_back(arrow);
    }
    std::vector<std::pair<uint64_t, uint64_t>>().swap(namer.a.dependence_ids);
    return true;
}

const source_name* source_of(task_namer& namer, const std::string& recorded, unsigned long file, const id3& id,
                             const id3& parent) {
    const std::unordered_map<uint64_t, uint64_t>* sites = nullptr;
    uint64_t key = 0;
    if (recorded == "omp_explicit") sites = &namer.a.task_site, key = id.a;
    if (recorded == "omp_implicit") sites = &namer.a.region_site, key = parent.a;
    if (recorded == "omp_parallel") sites = &namer.a.region_site, key = id.a;
    if (!sites) return nullptr;
    const auto site = sites->find(key ^ namer.a.salt(file));
    if (site == sites->end() || site->second == 0) return nullptr;
    const auto known = namer.by_site.find(site->second);
    if (known != namer.by_site.end()) return &known->second;
    const code_location& where = namer.symbols.locate(site->second, file);
    source_name name;
    name.address = hex(site->second);
    name.function = where.function.empty() ? location_name(where, site->second) : without_parameters(where.function);
    if (!where.file.empty() && where.line) {
        const size_t slash = where.file.rfind('/');
        name.source = where.file.substr(slash == std::string::npos ? 0 : slash + 1) + ":" + std::to_string(where.line);
    }
    return &namer.by_site.emplace(site->second, name).first->second;
}

}  // namespace ryl
