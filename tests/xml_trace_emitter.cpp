// Writes a few records on two threads through the instrumentation API, for
// the round-trip test: run with VUN_DIR set, the trace files land there.
#include <thread>

#include "zop_minimal.h"

namespace {

void emit(unsigned long long task) {
    ___zop_domain* d = __zop_domain_createA("xml_round_trip");
    ___zop_string_handle* h = __zop_string_handle_createA("task \"name\" &amp; more");
    __zop_id id{task, 0, 18446744073709551615ULL}, none{0, 0, 0};
    __zop_task_begin(d, id, none, h);
    __zop_relation_add(d, id, 5, none);
    __zop_task_end(d);
}

}  // namespace

int main() {
    emit(1);
    std::thread(emit, 2).join();
}
