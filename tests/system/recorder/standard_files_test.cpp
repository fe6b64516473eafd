// The recorder with standard files that cannot be written. Rows do not depend on them.

#include "recording.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

namespace recorder {
namespace {

class StandardFiles : public testing::Test {
protected:
    void write_capture(int changes) {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
        for (int i = 0; i < changes; ++i) {
            const Change change = copper.next();
            capture.on_line(Line::kA, change);
            rows.push_back(change.row);
        }
    }
    Launch prepare(std::function<void()> before_exec) {
        config.device = capture_device(work.path("session.pcap"));
        Launch launch = work.prepare(config);
        launch.before_exec = std::move(before_exec);
        return launch;
    }
    Recording collect(const Launch& launch, Process& process) {
        const Recording run = work.collect(launch, process.finish());
        log_file = support::read_file(only_file(launch.directory, ".log"));
        return run;
    }
    Recording record(std::function<void()> before_exec) {
        const Launch launch = prepare(std::move(before_exec));
        Process process(launch);
        return collect(launch, process);
    }
    void expect_all_in_the_files(const Recording& run) {
        EXPECT_EQ(run.end.exit_status, 0);
        EXPECT_EQ(run.csv, csv_of(rows));
        EXPECT_EQ(log_lines(log_file),
                  joined({bring_up_lines(work, config),
                          snapshot_lines({"shfe2ps init finished, total instruments:4"}, 0)}));
        EXPECT_EQ(other_lines(log_file), Lines{});
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    std::vector<std::string> rows;
    std::string log_file;
};

// The CSV file must not get one of their numbers and with it what is meant for them.
TEST_F(StandardFiles, MayBeClosed) {
    write_capture(50);
    expect_all_in_the_files(record([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    }));
}

TEST_F(StandardFiles, MayBeOnAFullDisk) {
    write_capture(50);
    expect_all_in_the_files(record([] {
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDOUT_FILENO);
        dup2(full, STDERR_FILENO);
    }));
}

// The lines of `some` are lines of `all`, in its order.
bool is_selection(std::string_view some, std::string_view all) {
    while (!some.empty()) {
        const std::string_view line = some.substr(0, some.find('\n') + 1);
        std::size_t at = all.find(line);
        while (at != std::string_view::npos && at != 0 && all[at - 1] != '\n') {
            at = all.find(line, at + 1);
        }
        if (line.empty() || at == std::string_view::npos) {
            return false;
        }
        all.remove_prefix(at + line.size());
        some.remove_prefix(line.size());
    }
    return true;
}

// The log file holds whole lines: all up to the first that did not fit, then what still did.
// Standard output has them all.
TEST_F(StandardFiles, HaveTheLinesThatTheLogFileCannotTake) {
    constexpr std::size_t kRoom = 150'000; // enough for the rows and the card's registers
    write_capture(400);
    config.log_level = 31;
    const Launch launch = prepare([] {
        std::signal(SIGXFSZ, SIG_IGN);
        fill_pipe(STDOUT_FILENO);
    });
    Process process(launch);
    ASSERT_TRUE(process.wait_until(
        [&] { return size_of_csv(launch.directory) == kCsvHeader.size() && process.is_asleep(); }));
    process.limit_file_size(kRoom);
    const Recording run = collect(launch, process);
    const std::string out = run.end.out.substr(kFillerSize);

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_LT(run.csv.size(), kRoom);
    EXPECT_LE(log_file.size(), kRoom);
    EXPECT_GT(out.size(), log_file.size() + 10'000);
    EXPECT_TRUE(log_file.ends_with("\x1b[0m \n"));
    constexpr std::size_t kLine = 1024; // longer than any line
    ASSERT_GT(log_file.size(), kRoom - kLine);
    EXPECT_TRUE(out.starts_with(log_file.substr(0, kRoom - kLine)));
    EXPECT_TRUE(is_selection(log_file, out));
    EXPECT_TRUE(run.end.err.starts_with(
        "a log line could not be written to the log file and is lost: File too large\n"));
    EXPECT_LE(count_of("\n", run.end.err), 2u); // at most a sum at the end
}

} // namespace
} // namespace recorder
