#include "objects_file.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "collector.h"

namespace objects_file {
namespace {

int file = -1;
pid_t owner = 0;                     // the process that writes the file
std::vector<std::string>* at_start;  // object lines written at start; never freed
bool exit_hook = false;              // finish is registered (a forked child inherits it)
std::atomic<bool> forked{false};     // a child of fork whose file is still its parent's

// In the child only one thread runs here: the work waits for its first
// OpenMP event (start_after_fork), where the loader's lock is free to take.
void on_fork_in_child() {
    if (owner) forked.store(true, std::memory_order_relaxed);
}

std::string hex(unsigned long long value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", value);
    return text;
}

// The GNU build id among the object's notes, lowercase hex, or "-".
std::string build_id(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_NOTE) continue;
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        const char* end = p + ph.p_memsz;
        while (p + sizeof(ElfW(Nhdr)) <= end) {
            const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
            const char* name = p + sizeof(ElfW(Nhdr));
            const char* desc = name + ((note->n_namesz + 3) & ~3u);
            const char* next = desc + ((note->n_descsz + 3) & ~3u);
            if (next > end) break;
            if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
                std::string id;
                char byte[3];
                for (unsigned j = 0; j < note->n_descsz; ++j) {
                    std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(desc[j]));
                    id += byte;
                }
                return id.empty() ? "-" : id;
            }
            p = next;
        }
    }
    return "-";
}

std::string main_program_path() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, size_t(n)) : std::string();
}

// "object <address> <build id> <path>" for every loaded object with a path,
// the main program first; the vdso and nameless objects are left out.
int add_object(dl_phdr_info* info, size_t, void* data) {
    try {
        auto& lines = *static_cast<std::vector<std::string>*>(data);
        std::string path = info->dlpi_name ? info->dlpi_name : "";
        if (lines.empty() && path.empty()) path = main_program_path();
        if (path.empty() || path[0] != '/') return 0;
        lines.push_back("object " + hex(info->dlpi_addr) + " " + build_id(info) + " " + path + "\n");
    } catch (...) {
    }
    return 0;
}

std::vector<std::string> loaded_objects() {
    std::vector<std::string> lines;
    dl_iterate_phdr(add_object, &lines);
    return lines;
}

bool write_all(const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(file, text.data() + done, text.size() - done);
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

// The numbers of the trace files this process holds (its threads' and its
// pool's), read under the collector mutex while the collector is alive.
std::string trace_file_numbers() {
    std::vector<long> numbers;
    writer::ryl_collector* collector = writer::get_ftc();
    writer::collector_lock lock(collector);
    if (!lock.mutex || collector->finished) return "";
    auto add = [&](const writer::trace_writer* w) {
        if (!w) return;
        size_t dot = w->path.rfind("/_ryl.");
        if (dot != std::string::npos) numbers.push_back(std::strtol(w->path.c_str() + dot + 6, nullptr, 10));
    };
    for (auto* wrapper : collector->wrappers) add(wrapper->thread_writer.load());
    for (auto* w : collector->writer_pool) add(w);
    std::sort(numbers.begin(), numbers.end());
    std::string line = "files";
    for (long n : numbers) line += " " + std::to_string(n);
    return line + "\n";
}

// At exit, before the collector finishes the trace files (registered after
// it, so run before it): the files line, the objects loaded since start, the
// end. A forked child leaves its parent's file alone.
void finish() {
    try {
        if (file < 0 || getpid() != owner) return;
        std::string text = trace_file_numbers();
        for (const std::string& line : loaded_objects())
            if (std::find(at_start->begin(), at_start->end(), line) == at_start->end()) text += line;
        text += "end\n";
        write_all(text);
        close(file);
        file = -1;
    } catch (...) {
    }
}

}  // namespace

void start() {
    try {
        if (owner) return;
        owner = getpid();
        std::string path = writer::get_ftc()->directory + "/objects." + std::to_string(owner);
        file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (file < 0) return;
        if (!at_start) at_start = new std::vector<std::string>();
        *at_start = loaded_objects();
        std::string text = "ryl-objects 1\npid " + std::to_string(owner) + "\n";
        for (const std::string& line : *at_start) text += line;
        if (!exit_hook) {
            exit_hook = std::atexit(finish) == 0;
            pthread_atfork(nullptr, nullptr, on_fork_in_child);
        }
        if (!write_all(text) || !exit_hook) {
            close(file);
            file = -1;
        }
    } catch (...) {
    }
}

void start_after_fork() {
    if (!forked.load(std::memory_order_relaxed) || !forked.exchange(false)) return;
    if (file >= 0) close(file);  // the parent's
    file = -1;
    owner = 0;
    start();
}

}  // namespace objects_file
