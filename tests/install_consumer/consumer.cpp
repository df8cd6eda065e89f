// A C++ program built against an installed libryl_xml.
//   consumer_cxx           emits a few records from two threads and checks
//                          that each thread's trace file holds them (VUN_DIR)
//   consumer_cxx --read F  reads the finished trace file F with the xml
//                          library and checks its records
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "xml.h"
#include "zop_minimal.h"

namespace {

// The whole file, or an empty string.
std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// One task with a name and a relation, on the calling thread.
void emit(___zop_domain* domain, unsigned long long task_number) {
    ___zop_string_handle* name = __zop_string_handle_createA("work");
    const __zop_id task{task_number, 0, 0};
    const __zop_id none{0, 0, 0};
    __zop_task_begin(domain, task, none, name);
    __zop_relation_add(domain, task, 3, none);
    __zop_task_end(domain);
}

int emit_and_check(const char* dir) {
    ___zop_domain* domain = __zop_domain_createA("consumer_cxx");
    emit(domain, 1);
    std::thread other(emit, domain, 2);
    other.join();
    // The main thread reported first, the other thread second.
    for (const char* file : {"_ryl.0", "_ryl.1"}) {
        const std::string path = std::string(dir) + "/" + file;
        const std::string text = read_file(path);
        for (const char* record : {"<field>task_begin</field>", "<field>relation</field>",
                                   "<field>task_end</field>"}) {
            if (text.find(record) == std::string::npos) {
                std::cerr << "consumer_cxx: " << path << " lacks " << record << "\n";
                return 1;
            }
        }
    }
    std::cout << "consumer_cxx: " << dir << "/_ryl.0 and _ryl.1 hold the records\n";
    return 0;
}

int read_and_check(const char* path) {
    xml::document doc(path);
    if (!doc.parse() || !doc.root || doc.root->name != "trace") {
        std::cerr << "consumer_cxx: " << path << " is not a finished trace file\n";
        return 1;
    }
    int task_begins = 0;
    std::string last;
    for (xml::element* record : doc.elems("record")) {
        xml::element* kind = record->first_child();
        last = kind ? kind->text : "";
        task_begins += last == "task_begin";
    }
    if (task_begins == 0 || last != "end_of_records") {
        std::cerr << "consumer_cxx: " << path << ": " << task_begins
                  << " task_begin records, last record '" << last << "'\n";
        return 1;
    }
    std::cout << "consumer_cxx: " << path << " read back, " << task_begins
              << " task_begin records\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--read") == 0) return read_and_check(argv[2]);
    const char* dir = std::getenv("VUN_DIR");
    if (argc != 1 || !dir || !*dir) {
        std::cerr << "usage: VUN_DIR=<dir> consumer_cxx | consumer_cxx --read <trace file>\n";
        return 2;
    }
    return emit_and_check(dir);
}
