#include "session.h"

#include "tests/support/child_process.h"
#include "tests/system/vorn_check/run_program.h"
#include "tools/vorn/feed/feed_run.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

namespace vorn_fanout {

namespace {

class Keeper final : public vorn_cli::FeedWatcher {
public:
    void on_update(const instrument& record, uint32_t slot) override {
        updates.push_back({slot, 0, record});
    }
    Updates updates;
};

} // namespace

Updates replay_session(int changes, int instruments, const std::string& lines) {
    const support::TempDir directory;
    const auto made =
        vorn_check::run_program({VORN_PROGRAM, "sim", "-q", "--no-truth", "-o", "s.pcap", "--seed",
                                 "11", "--changes", std::to_string(changes), "--instruments",
                                 std::to_string(instruments), "--set", "lines=" + lines},
                                directory.path());
    EXPECT_EQ(made.exit_status, 0) << made.err;
    const auto child = support::run_child(directory.path(), [] {
        Keeper keeper;
        vorn_cli::FeedRunOptions options;
        options.capture = "s.pcap";
        const vorn_cli::FeedReport report = run_feed(options, keeper);
        ASSERT_EQ(report.result, 0) << vorn_cli::reason_of(report.log);
        ASSERT_EQ(report.counters.gaps, 0u);
        std::ofstream("updates", std::ios::binary)
            .write(reinterpret_cast<const char*>(keeper.updates.data()),
                   static_cast<std::streamsize>(keeper.updates.size() * sizeof(Update)));
    });
    EXPECT_EQ(child.exit_status, 0) << child.out << child.err;
    const std::string bytes = support::read_file(directory.path() / "updates");
    Updates updates(bytes.size() / sizeof(Update));
    std::memcpy(static_cast<void*>(updates.data()), bytes.data(), updates.size() * sizeof(Update));
    EXPECT_FALSE(updates.empty());
    return updates;
}

std::string inst_id_of(const instrument& record) {
    return reinterpret_cast<const char*>(record.inst_id);
}

std::vector<Change> changes_of(const Updates& updates) {
    std::vector<Change> changes;
    for (const Update& update : updates) {
        changes.emplace_back(inst_id_of(update.record), update.record.change_no);
    }
    return changes;
}

std::map<std::string, std::vector<uint32_t>> by_instrument(const std::vector<Change>& changes) {
    std::map<std::string, std::vector<uint32_t>> numbers;
    for (const Change& change : changes) {
        numbers[change.first].push_back(change.second);
    }
    return numbers;
}

std::map<std::string, instrument> newest_of(const Updates& updates) {
    std::map<std::string, instrument> newest;
    for (const Update& update : updates) {
        newest[inst_id_of(update.record)] = update.record;
    }
    return newest;
}

SessionBus::SessionBus(const std::string& path, uint64_t ring)
    : path_(path), writer_(std::make_unique<vorn_bus::BusWriter>(
                       vorn_bus::WriterOptions{path, ring, 100'000'000})) {}

void SessionBus::show(const Updates& updates, std::size_t first, std::size_t last) {
    for (std::size_t i = first; i < last; ++i) {
        writer_->publish(updates[i].record, updates[i].slot);
    }
}

} // namespace vorn_fanout
