// Source locations of code addresses through libdw's address-to-module
// mapping: every object of a process is reported at its load bias, so
// position-independent executables and shared libraries placed anywhere by
// address-space randomisation resolve like fixed ones.
#include "symbols.h"

#include <cxxabi.h>
#include <dirent.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace ryl {

namespace {

const Dwfl_Callbacks offline_callbacks = {
    dwfl_build_id_find_elf, dwfl_standard_find_debuginfo, dwfl_offline_section_address, nullptr};

bool parse_hex(const std::string& text, uint64_t& value) {
    if (text.size() < 3 || text.compare(0, 2, "0x") != 0) return false;
    char* end = nullptr;
    value = std::strtoull(text.c_str() + 2, &end, 16);
    return end && *end == 0;
}

std::string demangled(const char* name) {
    if (!name) return std::string();
    int status = 0;
    char* text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    if (status != 0 || !text) return name;
    std::string result(text);
    std::free(text);
    return result;
}

std::string base_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The compile unit holding address. libdw finds it through .debug_aranges;
// clang writes no such table and libdw 0.188 does not build it from the
// units, so then the units' own address ranges are searched.
Dwarf_Die* unit_of(Dwfl_Module* module, Dwarf_Addr address, Dwarf_Addr& bias) {
    if (Dwarf_Die* unit = dwfl_module_addrdie(module, address, &bias)) return unit;
    for (Dwarf_Die* unit = dwfl_module_nextcu(module, nullptr, &bias); unit;
         unit = dwfl_module_nextcu(module, unit, &bias))
        if (dwarf_haspc(unit, address - bias) > 0) return unit;
    return nullptr;
}

// A file name of the unit's line table as a path: a relative one (the
// compiler was given a relative source path) is taken from the unit's
// compilation directory.
std::string unit_path(Dwarf_Die* unit, const char* file) {
    if (!file || file[0] == '/') return file ? file : "";
    Dwarf_Attribute attribute;
    const char* dir = dwarf_formstring(dwarf_attr(unit, DW_AT_comp_dir, &attribute));
    return dir && *dir ? std::string(dir) + "/" + file : file;
}

// The file a subprogram is declared in. dwarf_decl_file refuses file number
// 0, which DWARF 5 gives the unit's primary source file: clang names every
// function of a file compiled by a relative path so.
std::string decl_path(Dwarf_Die* unit, Dwarf_Files* files, size_t count, Dwarf_Die* die) {
    Dwarf_Attribute attribute;
    Dwarf_Word index = 0;
    if (!files || dwarf_formudata(dwarf_attr_integrate(die, DW_AT_decl_file, &attribute), &index) != 0 ||
        index >= count)
        return std::string();
    return unit_path(unit, dwarf_filesrc(files, index, nullptr, nullptr));
}

// A body the compiler outlined (".omp_outlined..14") is no scope of the
// function it came from: that function is the one of the unit declared last
// before the line, in the same file.
void enclosing_by_line(Dwarf_Die* unit, code_location& where) {
    if (where.file.empty() || where.line == 0) return;
    Dwarf_Files* files = nullptr;
    size_t file_count = 0;
    if (dwarf_getsrcfiles(unit, &files, &file_count) != 0) return;
    Dwarf_Die child;
    if (dwarf_child(unit, &child) != 0) return;
    int best_line = 0;
    do {
        if (dwarf_tag(&child) != DW_TAG_subprogram) continue;
        const char* name = dwarf_diename(&child);
        int line = 0;
        if (!name || name[0] == '.' || dwarf_decl_line(&child, &line) != 0 ||
            decl_path(unit, files, file_count, &child) != where.file)
            continue;
        if (line <= int(where.line) && line > best_line) {
            best_line = line;
            Dwarf_Attribute attribute;
            const char* linkage = dwarf_formstring(dwarf_attr_integrate(&child, DW_AT_linkage_name, &attribute));
            where.function = linkage ? demangled(linkage) : name;
        }
    } while (dwarf_siblingof(&child, &child) == 0);
}

// File, line and the innermost function a user wrote at address: a function
// inlined there names it rather than the one it was inlined into (an OpenMP
// body outlined by the compiler as ".omp_outlined." is named by the function
// whose code it holds).
void locate_in_unit(Dwarf_Die* unit, Dwarf_Addr address, code_location& where) {
    if (Dwarf_Line* line = dwarf_getsrc_die(unit, address)) {
        int line_number = 0;
        if (const char* file = dwarf_linesrc(line, nullptr, nullptr)) where.file = unit_path(unit, file);
        if (dwarf_lineno(line, &line_number) == 0 && line_number > 0) where.line = unsigned(line_number);
    }
    Dwarf_Die* scopes = nullptr;
    const int count = dwarf_getscopes(unit, address, &scopes);
    for (int i = 0; i < count; ++i) {
        const int tag = dwarf_tag(&scopes[i]);
        if (tag != DW_TAG_inlined_subroutine && tag != DW_TAG_subprogram) continue;
        const char* name = dwarf_diename(&scopes[i]);
        if (!name || name[0] == '.') continue;  // made by the compiler
        // The symbol table's name is the qualified one: keep it for the
        // function itself, take the inlined function's own linkage name.
        if (tag == DW_TAG_subprogram && i == 0 && !where.function.empty() && where.function[0] != '.') break;
        Dwarf_Attribute attribute;
        const char* linkage = dwarf_formstring(dwarf_attr_integrate(&scopes[i], DW_AT_linkage_name, &attribute));
        where.function = linkage ? demangled(linkage) : name;
        break;
    }
    std::free(scopes);
    if (where.function.empty() || where.function[0] == '.') enclosing_by_line(unit, where);
}

}  // namespace

bool read_objects_file(const std::string& path, process_objects& objects) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line) || line != "ryl-objects 1") return false;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "pid") {
            words >> objects.pid;
        } else if (word == "object") {
            loaded_object object;
            std::string load, build_id;
            if (!(words >> load >> build_id) || !parse_hex(load, object.load)) continue;
            if (build_id != "-") object.build_id = build_id;
            const size_t path_start = size_t(words.tellg()) + 1;
            if (words.tellg() < 0 || path_start >= line.size()) continue;
            object.path = line.substr(path_start);
            objects.objects.push_back(object);
        } else if (word == "files") {
            unsigned long number;
            while (words >> number) objects.files.push_back(number);
        } else if (word == "end") {
            objects.complete = true;
        }
    }
    return true;
}

std::vector<process_objects> read_objects_files(const std::string& dir) {
    std::vector<process_objects> processes;
    DIR* d = opendir(dir.c_str());
    if (!d) return processes;
    std::vector<std::string> names;
    while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 8, "objects.") == 0 && name.size() > 8 &&
            name.find_first_not_of("0123456789", 8) == std::string::npos)
            names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        process_objects objects;
        if (read_objects_file(dir + "/" + name, objects)) processes.push_back(std::move(objects));
    }
    return processes;
}

std::unordered_map<unsigned long, unsigned long> writers_of_files(const std::string& dir) {
    std::unordered_map<unsigned long, unsigned long> writers;
    const std::vector<process_objects> processes = read_objects_files(dir);
    if (processes.size() > 1)
        for (const process_objects& process : processes)
            for (unsigned long file : process.files) writers[file] = process.pid;
    return writers;
}

// The libdw view of one process, with the locations found so far.
struct symbolizer::process_state {
    Dwfl* dwfl = nullptr;
    std::vector<loaded_object> unopened;  // objects libdw could not read
    std::unordered_map<uint64_t, code_location> cache;
    ~process_state() {
        if (dwfl) dwfl_end(dwfl);
    }
};

symbolizer::symbolizer() = default;
symbolizer::~symbolizer() = default;

bool symbolizer::load(const std::string& dir_or_file) {
    std::string dir = dir_or_file;
    if (DIR* probe = opendir(dir.c_str())) {
        closedir(probe);
    } else {
        const size_t slash = dir.rfind('/');
        dir = slash == std::string::npos ? "." : dir.substr(0, slash == 0 ? 1 : slash);
    }
    for (process_objects& objects : read_objects_files(dir)) {
        auto state = std::make_unique<process_state>();
        state->dwfl = dwfl_begin(&offline_callbacks);
        if (state->dwfl) {
            dwfl_report_begin(state->dwfl);
            for (const loaded_object& object : objects.objects) {
                // A module overlapping one reported before (an object listed
                // twice) or a file that is gone is only named by its offset.
                if (!dwfl_report_elf(state->dwfl, base_name(object.path).c_str(), object.path.c_str(), -1,
                                     object.load, false))
                    state->unopened.push_back(object);
            }
            dwfl_report_end(state->dwfl, nullptr, nullptr);
        } else {
            state->unopened = objects.objects;
        }
        for (unsigned long file : objects.files) process_of_file_.emplace(file, processes_.size());
        processes_.push_back(std::move(objects));
        states_.push_back(std::move(state));
    }
    return !processes_.empty();
}

const code_location& symbolizer::locate(uint64_t return_address) { return locate_in(0, return_address); }

const code_location& symbolizer::locate(uint64_t return_address, unsigned long file_number) {
    const auto it = process_of_file_.find(file_number);
    return locate_in(it == process_of_file_.end() ? 0 : it->second, return_address);
}

const code_location& symbolizer::locate_in(size_t first, uint64_t return_address) {
    static const code_location nowhere;
    if (states_.empty()) return nowhere;
    process_state& own = *states_[first];
    const auto cached = own.cache.find(return_address);
    if (cached != own.cache.end()) return cached->second;
    code_location& where = own.cache[return_address];
    if (return_address == 0) return where;
    const uint64_t address = return_address - 1;
    // The writing process first, then the others (a process without its own
    // objects file runs the same program).
    for (size_t n = 0; n < states_.size(); ++n) {
        process_state& state = *states_[(first + n) % states_.size()];
        Dwfl_Module* module = state.dwfl ? dwfl_addrmodule(state.dwfl, address) : nullptr;
        if (!module) continue;
        Dwarf_Addr start = 0;
        const char* path = nullptr;
        dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, &path, nullptr);
        Dwarf_Addr bias = 0;
        for (const loaded_object& object : processes_[(first + n) % states_.size()].objects)
            if (path && object.path == path) bias = object.load;
        where.object = path ? path : "";
        where.offset = address - bias;
        where.function = demangled(dwfl_module_addrname(module, address));
        Dwarf_Addr unit_bias = 0;
        if (Dwarf_Die* unit = unit_of(module, address, unit_bias)) locate_in_unit(unit, address - unit_bias, where);
        return where;
    }
    // An object libdw could not read: the nearest load address below.
    const loaded_object* nearest = nullptr;
    for (const loaded_object& object : own.unopened)
        if (object.load <= address && object.load != 0 && (!nearest || object.load > nearest->load))
            nearest = &object;
    if (nearest) {
        where.object = nearest->path;
        where.offset = address - nearest->load;
    }
    return where;
}

std::string without_parameters(const std::string& function) {
    size_t end = function.size();
    const std::string qualifier = " const";
    if (end > qualifier.size() && function.compare(end - qualifier.size(), qualifier.size(), qualifier) == 0)
        end -= qualifier.size();
    if (end == 0 || function[end - 1] != ')') return function;
    int depth = 0;
    for (size_t i = end; i-- > 0;) {
        if (function[i] == ')') ++depth;
        if (function[i] == '(' && --depth == 0) return i ? function.substr(0, i) : function;
    }
    return function;
}

std::string location_name(const code_location& where, uint64_t address) {
    char number[32];
    if (!where.function.empty()) {
        const std::string function = without_parameters(where.function);
        if (where.file.empty() || where.line == 0) return function;
        return function + " (" + base_name(where.file) + ":" + std::to_string(where.line) + ")";
    }
    if (!where.object.empty()) {
        std::snprintf(number, sizeof number, "+0x%llx", static_cast<unsigned long long>(where.offset));
        return base_name(where.object) + number;
    }
    std::snprintf(number, sizeof number, "0x%llx", static_cast<unsigned long long>(address));
    return number;
}

}  // namespace ryl
