#include "run_directory.h"

#include <errno.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace run_directory {

int create_fresh(std::string& name) {
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    char base[64];
    strftime(base, sizeof base, "_vun_%Y%m%d_%H%M%S", &local);
    for (int counter = -1; counter < 1000; ++counter) {
        char candidate[80];
        snprintf(candidate, sizeof candidate, counter < 0 ? "%s" : "%s_%03d", base, counter);
        name = candidate;
        if (mkdir(candidate, 0777) == 0) return 0;
        if (errno != EEXIST) return errno;
    }
    name = base;
    return EEXIST;
}

std::string expand_pattern(const std::string& pattern) {
    std::string out;
    for (size_t i = 0; i < pattern.size(); ++i) {
        char next = i + 1 < pattern.size() ? pattern[i + 1] : '\0';
        if (pattern[i] != '%' || (next != 'p' && next != 'h' && next != '%')) {
            out += pattern[i];
            continue;
        }
        ++i;
        if (next == 'p') {
            out += std::to_string(getpid());
        } else if (next == 'h') {
            char host[256] = "";
            gethostname(host, sizeof host - 1);
            out += host;
        } else {
            out += '%';
        }
    }
    return out;
}

}  // namespace run_directory
