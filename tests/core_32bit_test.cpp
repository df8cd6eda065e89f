// Records of the 32-bit build: addresses at or above 2^31 sign-extended to
// 64 bits, a failing sched_getcpu recorded as all ones, metadata values read
// as 32 bits for types 1 and 3; trace files beyond 32-bit offsets. Handles
// and data are placed at chosen addresses in pages mapped there, instead of
// hoping that an allocation lands high.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <thread>

#include "child.h"
#include "trace_text.h"

static_assert(sizeof(void*) == 4, "a test of the 32-bit build only");

namespace {
// The number that this program's sched_getcpu answers, unless unforced.
const int unforced = -2;
int forced_cpu = unforced;
}  // namespace

// This program's own sched_getcpu, exported (tests/bits32.cmake): the
// library's call binds to it ahead of the C library's, as it would to a
// preloaded one. Unless a child forces a number, it asks the C library.
extern "C" int sched_getcpu() noexcept {
    if (forced_cpu != unforced) return forced_cpu;
    using getcpu_fn = int (*)();
    static getcpu_fn libc_getcpu = reinterpret_cast<getcpu_fn>(dlsym(RTLD_NEXT, "sched_getcpu"));
    return libc_getcpu ? libc_getcpu() : -1;
}

namespace {

// An address as a 64-bit field: sign-extended from 32 bits.
constexpr unsigned long long sign_extended(std::uint32_t address) {
    return address >= 0x80000000u ? 0xFFFFFFFF00000000ull | address : address;
}
static_assert(sign_extended(4154462224u) == 18446744073569046544ull, "the example of the trace format");
static_assert(sign_extended(134529440u) == 134529440ull, "addresses below 2^31 stay as they are");

std::uint32_t address_of(const void* p) { return std::uint32_t(reinterpret_cast<std::uintptr_t>(p)); }

// Maps `pages` fresh read-write pages at page address `preferred`, or else at
// the first free page address from `lowest` up in steps of 1 MiB (below
// 2^32); nullptr if none is free. MAP_FIXED_NOREPLACE never replaces a
// mapping; a kernel that takes it for a hint and maps elsewhere is undone.
void* map_pages_near(std::uintptr_t preferred, std::uintptr_t lowest, unsigned pages = 1) {
    std::size_t size = std::size_t(sysconf(_SC_PAGESIZE)) * pages;
    for (std::uint64_t at = preferred, next = lowest; at + size <= 0x100000000ull; at = next, next += 1u << 20) {
        void* p = mmap(reinterpret_cast<void*>(at), size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (p == reinterpret_cast<void*>(at)) return p;
        if (p != MAP_FAILED) munmap(p, size);
    }
    return nullptr;
}

// The pages of the addresses 134529440 and 4154462224.
const std::uint32_t low_page = 0x0804C000u, high_page = 0xF7A01000u;

// A domain and a string handle built in place, as the library's would be.
___zop_domain* domain_at(void* where, const char* name) {
    return new (where) ___zop_domain{1, name, nullptr, nullptr, nullptr, nullptr};
}
___zop_string_handle* handle_at(void* where, const char* name) {
    return new (where) ___zop_string_handle{name, nullptr, nullptr, nullptr, nullptr};
}

// A whole trace file holding these records, timestamps masked.
std::string file_of(const std::string& records) {
    return header_lines(std::thread::hardware_concurrency()) + records + file_end();
}

// One child run: its first file, timestamps masked, and the 32-bit addresses
// it printed.
struct run_output {
    std::string file;
    std::uint32_t a[3] = {};
};

run_output run(const std::function<void(zop_api&)>& body) {
    temp_dir dir;
    child_options options{{{"VUN_DIR", dir.path}}};
    options.unload = true;
    child_result child = run_in_child(options, body);
    EXPECT_EQ(child.status, 0) << child.err;
    run_output result;
    sscanf(child.out.c_str(), "%u %u %u", &result.a[0], &result.a[1], &result.a[2]);
    result.file = mask_timestamps(read_file(dir.path + "/_ryl.0"));
    return result;
}

// Every field that holds a handle, recorded sign-extended. First a task_begin
// with a domain below 2^31, a name handle above it and CPU 3, as in the trace
// format's example (domain at 134529440, name at 4154462224) when those pages
// are free, else the same at other free pages (the shared libraries often
// occupy 0xF7A01000); then a high domain with the same name handle as key in
// every record kind. Metadata of types 1 and 3 both read the four bytes at
// data, and no more: the value is the last word of a page whose next page is
// inaccessible; a value at or above 2^31 is a number, not an address, and is
// not sign-extended. sched_getcpu failing with -1 gives the processor number
// 2^64 - 1 in both records that carry one; unforced, the records carry what
// the C library answers (the thread is pinned to CPU 0).
TEST(records_32bit, handles_processor_numbers_and_metadata_values) {
    const std::uint32_t values[] = {42, 0xF7A01010u, 0xFFFFFFFFu};
    run_output r = run([&](zop_api& api) {
        const long page_size = sysconf(_SC_PAGESIZE);
        char* low = static_cast<char*>(map_pages_near(low_page, 0x01000000u));
        char* high = static_cast<char*>(map_pages_near(high_page, 0x80000000u, 2));
        if (!low || !high || mprotect(high + page_size, page_size, PROT_NONE) != 0) _exit(90);
        ___zop_domain* low_d = domain_at(low + 0x1A0, "d");
        ___zop_string_handle* k = handle_at(high + 0x10, "h");
        ___zop_domain* d = domain_at(high + 0x800, "d");
        auto* last = reinterpret_cast<std::uint32_t*>(high + page_size - 4);
        const __zop_id a{1, 0, 0}, b{2, 0, 0};
        forced_cpu = 3;
        api.task_begin(low_d, {7, 0, 0}, {0, 0, 0}, k);
        api.id_create(d, a);
        api.id_destroy(d, a);
        api.task_begin(d, a, b, k);
        api.task_begin_async(d, a, b, k);
        api.task_end(d);
        api.task_end_async(d, a);
        api.region_begin(d, a, b, k);
        api.region_end(d, a);
        api.task_group(d, a, b, k);
        api.relation_add(d, a, 3, b);
        for (std::uint32_t v : values) {
            for (int type : {1, 3}) {
                *last = v;
                api.metadata_add(d, a, k, type, 1, last);
            }
        }
        api.metadata_str_addA(d, a, k, "text", 4);
        forced_cpu = -1;
        api.task_begin(d, a, b, k);
        api.task_begin_explicit(d, a, b, k);
        api.task_begin_async(d, a, b, k);
        forced_cpu = unforced;
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(0, &cpus);
        if (sched_setaffinity(0, sizeof cpus, &cpus) != 0) _exit(91);
        api.task_begin(d, a, b, k);
        printf("%u %u %u\n", address_of(low_d), address_of(k), address_of(d));
    });
    ASSERT_LT(r.a[0], 0x80000000u);
    ASSERT_GE(r.a[1], 0x80000000u);
    SCOPED_TRACE("domain at " + std::to_string(r.a[0]) + ", name at " + std::to_string(r.a[1]));
    const std::string k = field(sign_extended(r.a[1])), d = field(sign_extended(r.a[2]));
    const std::string a = id_field(1, 0, 0), b = id_field(2, 0, 0), task = d + a + b + k;
    const std::string all_ones = field("18446744073709551615");
    std::string expected =
        record("task_begin",
               field(sign_extended(r.a[0])) + id_field(7, 0, 0) + id_field(0, 0, 0) + k + field(3)) +
        record("id_create", d + a) + record("id_destroy", d + a) + record("task_begin", task + field(3)) +
        record("task_begin_async", task + field(3)) + record("task_end", d) +
        record("task_end_async", d + a) + record("region_begin", task) + record("region_end", d + a) +
        record("task_group", task) + record("relation", d + a + field(3) + b);
    for (std::uint32_t v : values)
        for (int type : {1, 3}) expected += record("metadata", d + a + k + field(type) + field(1) + field(v));
    expected += record("metadata_stringA", d + a + k + field(4) + field("text")) +
                record("task_begin", task + all_ones) + record("task_begin", task + all_ones) +
                record("task_begin_async", task + all_ones) + record("task_begin", task + field(0));
    EXPECT_EQ(r.file, file_of(expected));
}

// The library's own handles, wherever its allocator put them, are recorded
// by the same rule in their creation records and in every later one. They
// are made on a second thread, whose allocations come from a mapped arena,
// usually above 2^31 (below it when the process maps bottom-up, as with an
// unlimited stack size).
TEST(addresses_32bit, library_handles_recorded_by_the_same_rule) {
    run_output r = run([](zop_api& api) {
        forced_cpu = 0;
        std::thread([&] {
            ___zop_domain* d = api.domain_createA("d");
            ___zop_string_handle* h = api.string_handle_createA("h");
            api.task_begin(d, {1, 0, 0}, {0, 0, 0}, h);
            printf("%u %u\n", address_of(d), address_of(h));
        }).join();
    });
    SCOPED_TRACE("domain at " + std::to_string(r.a[0]) + ", name at " + std::to_string(r.a[1]));
    const std::string d = field(sign_extended(r.a[0])), h = field(sign_extended(r.a[1]));
    EXPECT_EQ(r.file, file_of(record("domain_createA", d + field(1) + field("d")) +
                              record("string_handle_createA", h + field(1) + field("h")) +
                              record("task_begin", d + id_field(1, 0, 0) + id_field(0, 0, 0) + h + field(0))));
}

// A trace file of an earlier run larger than 2 GiB (sparse: it takes no
// space) is emptied and reused like any other; its size does not fit a
// 32-bit file offset.
TEST(large_files_32bit, earlier_file_over_2_gib_is_reused) {
    temp_dir dir;
    std::string path = dir.path + "/_ryl.0";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_LARGEFILE, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate64(fd, 3ll << 30), 0);
    close(fd);
    child_result child = run_in_child({{{"VUN_DIR", dir.path}}}, [](zop_api& api) { api.task_end(nullptr); });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "");
    struct stat64 st;
    ASSERT_EQ(stat64(path.c_str(), &st), 0);
    ASSERT_LT(st.st_size, 1 << 20);
    EXPECT_EQ(mask_timestamps(read_file(path)), file_of(record("task_end", field(0))));
}

}  // namespace
