// Days on which the machine has nothing left: a file system that is full and is not full any more,
// and no descriptor for anything new. What was recorded stays, whole, and the recorder ends in
// order.

#include "recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace recorder {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::HasSubstr;

class BadDay : public testing::Test {
protected:
    // A round, changes without a gap, and with `gap` a change that is ahead.
    void write_capture(int changes, bool gap) {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
        for (int i = 0; i < changes; ++i) {
            const Change change = copper.next();
            capture.on_line(Line::kA, change);
            rows.push_back(change.row);
        }
        if (gap) {
            copper.lose_one();
            capture.on_line(Line::kA, copper.next());
        }
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    std::vector<std::string> rows;
};

// --- A real file system, in a mount namespace of this process.

class FullFileSystem : public BadDay {
protected:
    static constexpr std::size_t kPage = 4096;
    static constexpr std::size_t kRoom = 30 * kPage; // for rows

    ~FullFileSystem() override {
        if (!mounted_.empty()) {
            umount2(mounted_.c_str(), MNT_DETACH);
        }
    }
    // False: may not be done here.
    bool mount_small(const std::filesystem::path& where) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", where.c_str(), "tmpfs", 0, "size=1M") != 0) {
            return false;
        }
        mounted_ = where;
        return true;
    }
    // Leaves so much room.
    void fill_up(const std::filesystem::path& ballast) const {
        const int file = open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::array<char, kPage> page{};
        off_t size = 0;
        while (write(file, page.data(), page.size()) == static_cast<ssize_t>(page.size())) {
            size += kPage;
        }
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(ftruncate(file, size - static_cast<off_t>(kRoom)), 0);
        close(file);
    }
    std::size_t pages_left() const {
        struct statvfs now {};
        statvfs(mounted_.c_str(), &now);
        return now.f_bfree;
    }

private:
    std::filesystem::path mounted_;
};

// The recorder says that a row was lost before it goes on. Nobody reads that, so that it stops
// there; meanwhile there is room again.
TEST_F(FullFileSystem, LosesTheRowThatMetItAndGoesOnWhenThereIsRoom) {
    write_capture(1500, false);
    config.device = capture_device(work.path("session.pcap"));
    Launch launch = work.prepare(config);
    if (!mount_small(launch.directory)) {
        GTEST_SKIP() << "a file system for this test alone cannot be mounted here (needs root): "
                     << std::strerror(errno);
    }
    launch.before_exec = [] {
        fill_pipe(STDOUT_FILENO);
        fill_pipe(STDERR_FILENO);
    };
    Process process(launch);
    // It waits for somebody to read its first line.
    ASSERT_TRUE(process.wait_until(
        [&] { return size_of_csv(launch.directory) == kCsvHeader.size() && process.is_asleep(); }));
    const std::filesystem::path ballast = launch.directory / "ballast";
    fill_up(ballast);
    process.read_errors(false);
    ASSERT_TRUE(process.read_until([&] {
        return pages_left() <= 1 && size_of_csv(launch.directory) > kRoom / 2 &&
               process.is_asleep();
    }));
    std::filesystem::remove(ballast);
    process.read_errors(true);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err.substr(kFillerSize),
              "a row could not be written and is lost: No space left on device\n"
              "1 rows could not be written and are lost\n");
    const std::string whole = csv_of(rows);
    const auto [kept, lost] =
        std::mismatch(run.csv.begin(), run.csv.end(), whole.begin(), whole.end());
    const auto fitting = std::count(run.csv.begin(), kept, '\n') - 1; // without the header
    ASSERT_GT(fitting, 100);
    ASSERT_LT(fitting, 1499);
    rows.erase(rows.begin() + fitting);
    EXPECT_EQ(first_difference(run.csv, csv_of(rows)), "");
}

// --- No descriptors. AddressSanitizer needs some itself, to look at memory and for leaks.

#ifndef __SANITIZE_ADDRESS__

// Whatever number there are: it records everything, or says what it lacks; it does not crash and
// does not wait.
TEST_F(BadDay, EveryNumberOfDescriptorsEndsInOrder) {
    write_capture(50, false);
    config.device = capture_device(work.path("session.pcap"));
    bool recorded = false;
    for (rlim_t descriptors = 4; descriptors < 16; ++descriptors) {
        Launch launch = work.prepare(config);
        launch.before_exec = [descriptors] {
            close_range(3, ~0U, 0); // what whoever runs the tests has left open
            // Loading the program takes one beside the standard ones.
            const rlimit limit{descriptors, descriptors};
            setrlimit(RLIMIT_NOFILE, &limit);
        };
        Process process(launch);
        const Ended end = process.finish();
        EXPECT_EQ(end.signal, 0) << descriptors;
        std::string csv;
        for (const auto& entry : std::filesystem::directory_iterator(launch.directory)) {
            if (entry.path().extension() == ".csv") {
                csv = support::read_file(entry.path());
            }
        }
        recorded = csv == csv_of(rows);
        if (!recorded) {
            EXPECT_THAT(csv, AnyOf(std::string(), std::string(kCsvHeader))) << descriptors;
            EXPECT_THAT(end.out + end.err, AnyOf(HasSubstr("fopen"), HasSubstr("failed"),
                                                 HasSubstr("Too many open files")))
                << descriptors;
        }
    }
    EXPECT_TRUE(recorded) << "fifteen are enough";
}

// They are used up while the feed is live. It needs none until a gap takes it back to the
// configuration file, and then says so and ends; the rows up to there are all in the file.
TEST_F(BadDay, WithoutDescriptorsRecordsUpToTheNextGap) {
    write_capture(1000, true);
    const std::string capture = support::read_file(work.path("session.pcap"));
    const std::string pipe = work.path("session.fifo").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    config.device = capture_device(pipe);
    const Launch launch = work.prepare(config);
    Process process(launch);
    const int writer = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    fcntl(writer, F_SETPIPE_SZ, 1 << 20);
    const std::size_t first = capture.size() / 2;
    ASSERT_EQ(write(writer, capture.data(), first), static_cast<ssize_t>(first));
    ASSERT_TRUE(process.read_until(
        [&] { return size_of_csv(launch.directory) > csv_of(rows).size() / 4; }));
    const rlimit none{0, 0};
    ASSERT_EQ(prlimit(process.pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    ASSERT_EQ(write(writer, capture.data() + first, capture.size() - first),
              static_cast<ssize_t>(capture.size() - first));
    close(writer);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(first_difference(run.csv, csv_of(rows)), "");
    EXPECT_THAT(run.log, Contains("E ConfigParse _LoadConfig unable to open config file: " +
                                  work.config_path().string()));
    EXPECT_EQ(run.log.back(), "E ExanicMdImpl vorn_recv failed to initialize config data");
}

#endif

} // namespace
} // namespace recorder
