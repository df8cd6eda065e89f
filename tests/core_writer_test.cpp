// The trace writer on its own: the end of the run claims a writer whose
// thread is still writing records and finishes it between two of its spans.
// Run under the thread sanitizer (label threads) this also checks that the
// two sides share nothing unsynchronised.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "child.h"
#include "trace_text.h"
#include "trace_writer.h"

TEST(writer_claim, finished_while_its_thread_writes) {
    temp_dir dir;
    for (int round = 0; round < 20; ++round) {
        std::string path = dir.path + "/_ryl." + std::to_string(round);
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        ASSERT_GE(fd, 0);
        writer::trace_writer w(fd, path, dir.path, round % 2 ? writer::write_mode::mapped : writer::write_mode::stream);
        w.shared = false;  // the owner's spans take no lock until the claim
        std::atomic<unsigned long long> written{0};
        std::thread owner([&] {
            // After the finish the owner's spans are dropped.
            for (unsigned long long i = 0; i < 20000; ++i) {
                writer::write_begin_record(&w, __zop_record_id_create);
                w.write(0ULL);
                w.write(__zop_id{i, 0, 0});
                w.end_record();
                written = i + 1;
            }
        });
        while (written < 100) std::this_thread::yield();
        unsigned long long before_claim = written;
        ASSERT_TRUE(w.claim(std::chrono::steady_clock::now() + std::chrono::seconds(5)));
        w.finish();
        owner.join();
        // Whole records in order, maybe one cut short, then the end.
        std::string text = read_file(path);
        std::string masked = mask_timestamps(text), end = file_end();
        EXPECT_EQ(masked.compare(masked.size() - end.size(), end.size(), end), 0) << round;
        parsed_trace trace = parse_whole_records(text);
        ASSERT_TRUE(trace.ok) << trace.error;
        std::vector<std::string> ids = created_ids(trace);
        ASSERT_GE(ids.size(), before_claim);
        for (size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(ids[i], std::to_string(i) + ",0");
    }
}
