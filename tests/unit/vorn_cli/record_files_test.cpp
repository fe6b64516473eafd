#include "tools/vorn/record/record_files.h"

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tools/vorn/exit_code.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace vorn_cli;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;

void add(RecordFiles& files, const std::string& record, uint64_t time_ns = 0) {
    files.begin_record(time_ns) += record;
    files.end_record();
}

class RecordFilesTest : public testing::Test {
protected:
    RecordTarget target(const std::string& name = "day.pcap") const {
        RecordTarget made;
        made.path = path(name);
        made.head = "HEAD";
        return made;
    }
    std::string path(const std::string& name) const { return (directory_.path() / name).string(); }
    std::string content(const std::string& name) const { return support::read_file(path(name)); }

    support::TempDir directory_;
};

TEST_F(RecordFilesTest, WholeRecordsBehindTheHead) {
    RecordFiles files(target());
    add(files, "one");
    add(files, "two");
    EXPECT_EQ(content("day.pcap.part"), "HEAD"); // the block is not full, nor old
    files.flush();
    EXPECT_EQ(content("day.pcap.part"), "HEADonetwo");
    add(files, "three");
    files.close();
    EXPECT_EQ(content("day.pcap"), "HEADonetwothree");
    EXPECT_EQ(files.records(), 3u);
    EXPECT_EQ(files.bytes(), 15u);
    EXPECT_EQ(files.lost(), 0u);
    EXPECT_EQ(files.names(), std::vector<std::string>{path("day.pcap")});
}

TEST_F(RecordFilesTest, AFullBlockIsWritten) {
    RecordFiles files(target());
    add(files, std::string(RecordFiles::kBlockSize, 'x'));
    EXPECT_EQ(fs::file_size(path("day.pcap.part")), 4 + RecordFiles::kBlockSize);
}

TEST_F(RecordFilesTest, AnEmptyRecordingStaysOrGoes) {
    RecordFiles kept(target());
    kept.close();
    EXPECT_EQ(content("day.pcap"), "HEAD");
    RecordFiles dropped(target("other.pcap"));
    dropped.close(false);
    EXPECT_FALSE(fs::exists(path("other.pcap")));
    EXPECT_FALSE(fs::exists(path("other.pcap.part")));
}

TEST_F(RecordFilesTest, ANewFileBeforeOneBecomesTooLarge) {
    RecordTarget rotating = target();
    rotating.rotate_bytes = 14;
    RecordFiles files(rotating);
    for (const char* record : {"aaaaa", "bbbbb", "c", "ddddddddddddddddddd", "e"}) {
        add(files, record);
    }
    files.close();
    EXPECT_EQ(content("day.0001.pcap"), "HEADaaaaabbbbb"); // exactly as large as may be
    EXPECT_EQ(content("day.0002.pcap"), "HEADc");
    EXPECT_EQ(content("day.0003.pcap"), "HEADddddddddddddddddddd"); // too large alone
    EXPECT_EQ(content("day.0004.pcap"), "HEADe");
    EXPECT_EQ(files.names().size(), 4u);
    EXPECT_EQ(files.records(), 5u);
}

TEST_F(RecordFilesTest, ANewFileWhenOneHoldsEnoughTime) {
    RecordTarget rotating = target();
    rotating.rotate_ns = kSecond;
    RecordFiles files(rotating);
    add(files, "a", 5 * kSecond);
    add(files, "b", 6 * kSecond - 1);
    add(files, "c", 6 * kSecond);
    add(files, "d", 60 * kSecond);
    files.close();
    EXPECT_EQ(content("day.0001.pcap"), "HEADab");
    EXPECT_EQ(content("day.0002.pcap"), "HEADc");
    EXPECT_EQ(content("day.0003.pcap"), "HEADd");
}

// A part that was left behind may be all that is left of a session.
TEST_F(RecordFilesTest, TheRestOfAKilledRecordingIsNotTakenOver) {
    directory_.write("day.pcap.part", "records");
    try {
        RecordFiles files(target());
        FAIL() << "it was";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), kUsage);
        EXPECT_NE(std::string(failure.what()).find("-f"), std::string::npos);
    }
    EXPECT_EQ(content("day.pcap.part"), "records");
    RecordTarget forced = target();
    forced.force = true;
    RecordFiles files(forced);
    files.close();
    EXPECT_EQ(content("day.pcap"), "HEAD");
}

// A limit on the size of files stands for a full disk: it takes a part of a write, too.
TEST_F(RecordFilesTest, GoesOnWhenAFullDiskHasRoomAgain) {
    const auto child = support::run_child(directory_.path(), [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        RecordFiles files(target());
        std::vector<std::string> told;
        files.on_trouble([&](const std::string& trouble) { told.push_back(trouble); });
        const auto limit_to = [](rlim_t bytes) {
            rlimit limit{};
            ::getrlimit(RLIMIT_FSIZE, &limit);
            limit.rlim_cur = bytes;
            ::setrlimit(RLIMIT_FSIZE, &limit);
        };
        limit_to(12);
        add(files, "aaaaa");
        add(files, "bbbbb"); // does not fit
        add(files, "c");     // lost with it: behind it in the block
        files.flush();
        EXPECT_EQ(content("day.pcap.part"), "HEADaaaaa");
        EXPECT_EQ(files.lost(), 2u);
        add(files, "dddd");
        files.flush();
        EXPECT_EQ(content("day.pcap.part"), "HEADaaaaa");
        limit_to(RLIM_INFINITY);
        add(files, "eeeee");
        files.close();
        EXPECT_EQ(files.lost(), 3u);
        EXPECT_EQ(files.records(), 2u);
        EXPECT_EQ(files.bytes(), 14u);
        EXPECT_EQ(told.size(), 1u);
        EXPECT_EQ(told, std::vector<std::string>{files.trouble()});
    });
    EXPECT_EQ(child.exit_status, 0) << child.out << child.err;
    EXPECT_EQ(content("day.pcap"), "HEADaaaaaeeeee");
}

TEST_F(RecordFilesTest, AHeadThatDidNotFitComesLater) {
    const auto child = support::run_child(directory_.path(), [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        RecordTarget rotating = target();
        rotating.rotate_bytes = 9;
        RecordFiles files(rotating);
        add(files, "aaaaa");
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        const rlim_t before = limit.rlim_cur;
        files.flush();
        limit.rlim_cur = 2;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        add(files, "bbbbb");
        files.flush();
        EXPECT_EQ(content("day.0002.pcap.part"), "");
        limit.rlim_cur = before;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        add(files, "ccccc");
        files.close();
        EXPECT_EQ(files.lost(), 1u);
    });
    EXPECT_EQ(child.exit_status, 0) << child.out << child.err;
    EXPECT_EQ(content("day.0001.pcap"), "HEADaaaaa");
    EXPECT_EQ(content("day.0002.pcap"), "HEADccccc");
}

// Nothing that was recorded is thrown away because somebody took the name meanwhile.
TEST_F(RecordFilesTest, AFileThatCannotGetItsNameKeepsItsPart) {
    RecordFiles files(target());
    add(files, "mine");
    directory_.write("day.pcap", "theirs");
    files.close();
    EXPECT_TRUE(files.unnamed());
    EXPECT_NE(files.trouble().find("day.pcap.part"), std::string::npos) << files.trouble();
    EXPECT_EQ(content("day.pcap"), "theirs");
    EXPECT_EQ(content("day.pcap.part"), "HEADmine");
}

} // namespace
