// The shared library under a consumer in C sees the updates that the recorder records.

#include "recording.h"

#include <gtest/gtest.h>

namespace recorder {
namespace {

TEST(SharedLibrary, HandsAConsumerInCTheUpdatesThatTheRecorderRecords) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    Contract oil({.feed = &kIne, .number = 12, .id = "sc2603"});
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        const auto rounds = [&] {
            capture.segments(shfe.one_by_one(round_messages(kShfe, {&copper})));
            capture.on_both_lines(copper.next());
            capture.segments(ine.one_by_one(round_messages(kIne, {&oil})));
        };
        rounds();
        for (int i = 0; i < 50; ++i) {
            capture.on_both_lines(copper.next());
            capture.on_both_lines(oil.next());
        }
        copper.lose_one();
        capture.on_both_lines(copper.next());
        // The second round leaves changes of its time in the cache, so that there is another gap.
        rounds();
        rounds();
        rounds();
        for (int i = 0; i < 50; ++i) {
            capture.on_both_lines(copper.next());
            capture.on_both_lines(oil.next());
        }
        capture.on_both_lines(copper.deal(7, 3));
    }
    const Config config{.device = capture_device(work.path("session.pcap")), .ine = true};
    const Recording recorded = work.record(config);
    Launch launch = work.prepare(config);
    launch.command[0] = VORN_CONSUMER;
    Process process(launch);
    const Ended end = process.finish();

    EXPECT_EQ(recorded.end.exit_status, 0);
    EXPECT_EQ(end.exit_status, 0);
    EXPECT_EQ(end.err, "");
    const auto updates = count_of("\n", recorded.csv) - 1;
    EXPECT_GT(updates, 200u);
    EXPECT_EQ(other_lines(end.out),
              Lines{"result 0, updates " + std::to_string(updates) + ", last cu2601 change " +
                    std::to_string(copper.change_no()) + " price 70070.00"});
    EXPECT_EQ(log_lines(end.out), recorded.log);
}

} // namespace
} // namespace recorder
