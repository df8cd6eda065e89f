// A small instrumented program: a few threads report a domain, tasks with
// parents, relations between them and metadata. Trace files go to VUN_DIR,
// or to a new "_vun_<date>_<time>" directory in the working directory.
#include <cstdio>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "zop_minimal.h"

int main() {
    ___zop_domain* domain = __zop_domain_createA("example");
    ___zop_string_handle* work = __zop_string_handle_createA("work");
    ___zop_string_handle* step = __zop_string_handle_createA("step");
    ___zop_string_handle* size_key = __zop_string_handle_createA("size");
    ___zop_string_handle* note_key = __zop_string_handle_createA("note");

    const __zop_id root{1, 0, 0};
    __zop_id_create(domain, root);
    __zop_task_group(domain, root, {0, 0, 0}, work);

    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 3; ++t) {
        threads.emplace_back([=] {
            __zop_id task{100 + t, 0, 0};
            __zop_id_create(domain, task);
            __zop_task_group(domain, task, root, work);
            __zop_relation_add(domain, task, 5, root);
            __zop_task_begin(domain, task, root, work);
            for (unsigned i = 0; i < 3; ++i) {
                __zop_id sub{1000 * (t + 1) + i, 0, 0};
                __zop_task_begin(domain, sub, task, step);
                uint32_t size = 64u << i;
                __zop_metadata_add(domain, sub, size_key, 3, 1, &size);
                __zop_task_end(domain);
            }
            std::string note = "thread " + std::to_string(t) + " done";
            __zop_metadata_str_addA(domain, task, note_key, note.c_str(), note.size());
            __zop_task_end(domain);
        });
    }
    for (auto& th : threads) th.join();
    __zop_id_destroy(domain, root);
    printf("example: 3 threads traced with %s\n", __zop_api_version());
    return 0;
}
