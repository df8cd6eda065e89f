// Code addresses of a run turned into source locations: the "objects.<pid>"
// files of the run directory say where each object was loaded, and the
// objects' own symbol tables and debug information (read with elfutils'
// libdw) say what lies at an address.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace ryl {

struct code_location {
    std::string function;  // empty when unknown
    std::string file;      // source file, empty without debug information
    unsigned line = 0;     // 0 when unknown
    std::string object;    // path of the object holding the address, empty when none does
    uint64_t offset = 0;   // address - the object's load address
};

// One object line of an objects file.
struct loaded_object {
    uint64_t load = 0;       // the load bias: 0 for an executable that is not position independent
    std::string build_id;    // lowercase hex, empty when the object has none
    std::string path;
};

// One "objects.<pid>" file.
struct process_objects {
    unsigned long pid = 0;
    std::vector<loaded_object> objects;   // the main program first
    std::vector<unsigned long> files;     // trace file numbers this process wrote
    bool complete = false;                // "end" was read: the process was not killed
};

// Reads one objects file; false when it cannot be read or is not one.
bool read_objects_file(const std::string& path, process_objects& objects);
// The objects files of a run directory, in the order of their names.
std::vector<process_objects> read_objects_files(const std::string& dir);
// The pid of the process that wrote each trace file (by file number), when
// the objects files of dir name more than one process; empty otherwise.
std::unordered_map<unsigned long, unsigned long> writers_of_files(const std::string& dir);

// Addresses of one run directory turned into source locations through its
// objects files and the objects' debug information. Without an objects file
// every address stays a number.
class symbolizer {
public:
    symbolizer();
    ~symbolizer();
    symbolizer(const symbolizer&) = delete;
    symbolizer& operator=(const symbolizer&) = delete;

    // Reads the "objects.<pid>" files of dir (a file path: its directory);
    // false when there is none.
    bool load(const std::string& dir);
    // The location of a code address recorded as a return address (looks up
    // address - 1); cached.
    const code_location& locate(uint64_t return_address);
    // The same for an address recorded in trace file file_number: the
    // process that wrote that file is asked first.
    const code_location& locate(uint64_t return_address, unsigned long file_number);
    // The processes read by load.
    const std::vector<process_objects>& processes() const { return processes_; }

private:
    struct process_state;
    std::vector<process_objects> processes_;
    std::vector<std::unique_ptr<process_state>> states_;
    std::unordered_map<unsigned long, size_t> process_of_file_;
    const code_location& locate_in(size_t first, uint64_t return_address);
};

// A short name for reports: "fib (fib.c:12)", "fib", "prog+0x1234" or
// "0x401234"; C++ functions without their parameter list ("ns::f", not
// "ns::f(int, double)").
std::string without_parameters(const std::string& function);
std::string location_name(const code_location& where, uint64_t address);

}  // namespace ryl
