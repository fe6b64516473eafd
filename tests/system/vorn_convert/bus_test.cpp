// The rows of a bus, and files whose writer is killed. The test itself writes the bus, so that it
// knows what is on it at every moment.

#include "convert_program.h"

#include "bus/bus_writer.h"
#include "tests/support/bus_records.h"
#include "tests/system/bus/process.h"
#include "tests/system/vorn_check/run_program.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sys/resource.h>

using bus_test::becomes_true;
using bus_test::Process;
using support::numbered_record;
using vorn_cli::ResearchRow;
using vorn_cli::RowEvent;
using vorn_convert::read_research_file;
using vorn_convert::ResearchFile;
using vorn_session::contains;

namespace {

class ConvertBus : public vorn_convert::ConvertProgram {
protected:
    void SetUp() override {
        writer_ = std::make_unique<vorn_bus::BusWriter>(vorn_bus::WriterOptions{bus_, 1024});
    }
    ~ConvertBus() override {
        writer_.reset();
        vorn_bus::remove_bus(bus_);
    }

    void publish(uint64_t count) {
        for (uint64_t i = 0; i < count; ++i) {
            ++published_;
            writer_->publish(numbered_record(published_), static_cast<uint32_t>(published_ % 100),
                             published_ % 7 == 0 ? vorn_bus::kFlagReplay : 0);
        }
    }
    std::unique_ptr<Process> follow(const std::string& file) const {
        return std::make_unique<Process>(
            std::vector<std::string>{VORN_PROGRAM, "convert", "--bus", bus_, "-o", name(file)});
    }
    // The rows that the file says it has.
    std::size_t rows_in(const std::string& file) const {
        if (!std::filesystem::exists(name(file))) {
            return 0;
        }
        const ResearchFile read = read_research_file(name(file));
        return read.rows.size();
    }

    const std::string bus_ = support::own_bus_name();
    std::unique_ptr<vorn_bus::BusWriter> writer_;
    uint64_t published_ = 0;
};

TEST_F(ConvertBus, HasItsRecordsAndEventsInOrder) {
    publish(20);
    vorn_md_event_t event{};
    event.size = sizeof(event);
    event.type = VORN_MD_EVENT_GAP;
    event.slot = 5;
    event.expected = 7;
    event.received = 9;
    event.count = 3;
    std::memcpy(event.inst_id, "cu2603", 7);
    writer_->publish_event(event);
    publish(10);
    const ResearchFile file = rows("b", {"--bus", bus_, "--no-follow"});
    ASSERT_EQ(file.rows.size(), 31u);
    uint64_t sequence = 0;
    uint64_t number = 0;
    for (const ResearchRow& row : file.rows) {
        EXPECT_EQ(row.sequence, ++sequence);
        if (row.event != 0) {
            continue;
        }
        ++number;
        EXPECT_EQ(support::number_of(row.record), number);
        EXPECT_EQ(row.slot, number % 100);
        EXPECT_EQ(row.flags, number % 7 == 0 ? vorn_cli::kRowReplay : 0);
    }
    const ResearchRow& gap = file.rows[20];
    EXPECT_EQ(gap.event, VORN_MD_EVENT_GAP);
    EXPECT_EQ(gap.slot, 5u);
    EXPECT_EQ(gap.expected, 7u);
    EXPECT_EQ(gap.received, 9u);
    EXPECT_EQ(gap.count, 3u);
    EXPECT_EQ(vorn_convert::inst_id_of(gap), "cu2603");
    // Times are those of the wall, here of now: 2020 to 2100.
    EXPECT_GT(file.rows[0].receive_time_ns, 1'577'836'800'000'000'000u);
    EXPECT_LT(file.rows[0].receive_time_ns, 4'102'444'800'000'000'000u);
}

TEST_F(ConvertBus, SaysWhatWasGoneBeforeItCame) {
    publish(5000); // of which the newer half of the ring is taken
    const ResearchFile file = rows("b", {"--bus", bus_, "--no-follow"});
    ASSERT_EQ(file.rows.size(), 513u);
    EXPECT_EQ(file.rows[0].event, static_cast<uint16_t>(RowEvent::kLost));
    EXPECT_EQ(file.rows[0].count, 4488u);
    EXPECT_EQ(file.rows[1].sequence, 4489u);
}

TEST_F(ConvertBus, FollowsUntilTheWriterEnds) {
    publish(10);
    const auto process = follow("b.npy");
    ASSERT_TRUE(becomes_true([&] { return rows_in("b.npy.part") == 10; }));
    publish(100);
    ASSERT_TRUE(becomes_true([&] { return rows_in("b.npy.part") == 110; }));
    publish(7);
    writer_.reset();
    const auto& ended = process->wait();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(contains(ended.err, "117 rows")) << ended.err;
    EXPECT_EQ(read("b.npy").rows.size(), 117u);
    EXPECT_FALSE(std::filesystem::exists(name("b.npy.part")));
}

TEST_F(ConvertBus, EndsInOrderOnASignal) {
    publish(10);
    const auto process = follow("b.npy");
    ASSERT_TRUE(becomes_true([&] { return rows_in("b.npy.part") == 10; }));
    process->send(SIGINT);
    EXPECT_EQ(process->wait().status, 0) << process->wait().err;
    EXPECT_TRUE(contains(process->wait().err, "interrupted")) << process->wait().err;
    EXPECT_EQ(read("b.npy").rows.size(), 10u);
}

TEST_F(ConvertBus, WhatItWasTooSlowForIsARowAndAStatus) {
    publish(10);
    const auto process = follow("b.npy");
    ASSERT_TRUE(becomes_true([&] { return rows_in("b.npy.part") == 10; }));
    process->send(SIGSTOP);
    publish(5000);
    process->send(SIGCONT);
    ASSERT_TRUE(becomes_true([&] { return rows_in("b.npy.part") >= 523; }));
    writer_.reset();
    EXPECT_EQ(process->wait().status, 3);
    EXPECT_TRUE(contains(process->wait().err, "were overwritten")) << process->wait().err;
    const ResearchFile file = read("b.npy");
    uint64_t next = 1;
    uint64_t lost = 0;
    for (const ResearchRow& row : file.rows) {
        if (row.event != 0) {
            EXPECT_EQ(row.event, static_cast<uint16_t>(RowEvent::kLost));
            next += row.count;
            lost += row.count;
        } else {
            EXPECT_EQ(row.sequence, next);
            ++next;
        }
    }
    EXPECT_EQ(next, 5011u);
    EXPECT_GT(lost, 0u);
}

// What came from a bus cannot be had again: it is kept when it cannot be finished.
TEST_F(ConvertBus, ADiskThatIsFullCostsNothingOfWhatIsThere) {
    publish(400);
    for (const char* file : {"full.npy", "full.csv"}) {
        const auto run = vorn_check::run_program(
            {VORN_PROGRAM, "convert", "--bus", bus_, "--no-follow", "-o", name(file)},
            directory_.path(), [] {
                const rlimit limit{50'000, 50'000};
                ::setrlimit(RLIMIT_FSIZE, &limit);
            });
        EXPECT_EQ(run.exit_status, 1);
        EXPECT_TRUE(contains(run.err, "cannot be written: File too large; the rows until then are "
                                      "in " +
                                          name(file) + ".part"))
            << run.err;
        EXPECT_FALSE(std::filesystem::exists(name(file)));
        EXPECT_EQ(read_research_file(name("full.npy.part")).problem, "");
    }
}

// A file whose writer is killed, at moments of every kind: it loads, and every row of it is whole.
TEST_F(ConvertBus, AKilledWriterLeavesAFileThatLoads) {
    publish(10);
    for (int round = 1; round <= 6; ++round) {
        const std::string file = "k" + std::to_string(round) + ".npy";
        const auto process = follow(file);
        const std::size_t wanted = 50 * static_cast<std::size_t>(round);
        ASSERT_TRUE(becomes_true([&] {
            publish(3);
            return rows_in(file + ".part") > wanted;
        }));
        process->send(SIGKILL);
        EXPECT_EQ(process->wait().signal, SIGKILL);
        EXPECT_FALSE(std::filesystem::exists(name(file)));
        const ResearchFile left = read(file + ".part");
        EXPECT_GT(left.rows.size(), wanted);
        uint64_t sequence = left.rows[0].event != 0 ? left.rows[0].sequence : 0;
        for (std::size_t i = sequence != 0 ? 1 : 0; i < left.rows.size(); ++i) {
            const ResearchRow& row = left.rows[i];
            EXPECT_EQ(row.sequence, ++sequence);
            EXPECT_EQ(support::number_of(row.record), row.sequence);
        }
        // It is not replaced by accident, and can be converted as it is.
        const auto again = vorn({"convert", "--bus", bus_, "-o", file});
        EXPECT_EQ(again.exit_status, 2);
        EXPECT_TRUE(contains(again.err, "left of an earlier run")) << again.err;
        EXPECT_EQ(rows("whole", {file + ".part"}).rows.size(), left.rows.size());
    }
}

// Killed while it reads a capture: what is there is a beginning of the whole file.
TEST_F(ConvertBus, AKilledConversionOfACaptureLeavesABeginning) {
    session("s", "60000");
    const ResearchFile whole = rows("whole", {"s.pcap"});
    for (std::size_t wanted = 0; wanted < whole.rows.size(); wanted += 10000) {
        Process process({VORN_PROGRAM, "convert", "-f", name("s.pcap"), "-o", name("k.npy")});
        ASSERT_TRUE(becomes_true([&] {
            std::error_code error;
            const auto size = std::filesystem::file_size(name("k.npy.part"), error);
            return (!error && size >= 4096 + wanted * sizeof(ResearchRow)) ||
                   std::filesystem::exists(name("k.npy"));
        }));
        process.send(SIGKILL);
        process.wait();
        const bool finished = std::filesystem::exists(name("k.npy"));
        const bool begun = std::filesystem::exists(name("k.npy.part"));
        ASSERT_TRUE(finished || begun);
        const ResearchFile left = read(finished ? "k.npy" : "k.npy.part");
        ASSERT_LE(left.rows.size(), whole.rows.size());
        for (std::size_t i = 0; i < left.rows.size(); ++i) {
            ASSERT_TRUE(vorn_convert::same_bytes(left.rows[i], whole.rows[i])) << i;
        }
        std::filesystem::remove(name("k.npy"));
        std::filesystem::remove(name("k.npy.part")); // the next one is to make its own
    }
}

} // namespace
