#include "exchange_sim/pcap_writer.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <string>
#include <unistd.h>

namespace exchange_sim {
namespace {

SessionOptions short_session() {
    SessionOptions options;
    options.instruments = 40;
    options.changes = 3000;
    return options;
}

// The working directory is the test program's own; each test has a directory below it.
class PcapWriter : public ::testing::Test {
protected:
    PcapWriter() { std::filesystem::create_directory(directory_); }
    ~PcapWriter() override { std::filesystem::remove_all(directory_); }
    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() /
        ("vorn-pcap-" + std::to_string(::getpid()) + "-" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(PcapWriter, FileHoldsTheSessionsFrames) {
    const std::string file = path("session.pcap");
    const WriteResult result = write_session(file, short_session());
    ASSERT_TRUE(result.ok()) << result.error;
    EXPECT_FALSE(std::filesystem::exists(file + ".part"));

    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const capture =
        pcap_open_offline_with_tstamp_precision(file.c_str(), PCAP_TSTAMP_PRECISION_NANO, error);
    ASSERT_NE(capture, nullptr) << error;
    EXPECT_EQ(pcap_datalink(capture), DLT_EN10MB);
    Session session(short_session());
    uint64_t frames = 0;
    uint64_t bytes = 0;
    for (WireFrame wire; session.next(wire); ++frames) {
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        ASSERT_EQ(pcap_next_ex(capture, &header, &data), 1);
        ASSERT_EQ(header->caplen, wire.bytes.size());
        ASSERT_EQ(header->len, wire.bytes.size());
        ASSERT_TRUE(std::equal(wire.bytes.begin(), wire.bytes.end(), data));
        ASSERT_EQ(static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000 +
                      static_cast<uint64_t>(header->ts.tv_usec),
                  wire.timestamp_ns);
        bytes += wire.bytes.size();
    }
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    EXPECT_EQ(pcap_next_ex(capture, &header, &data), PCAP_ERROR_BREAK);
    pcap_close(capture);
    EXPECT_EQ(result.frames, frames);
    EXPECT_EQ(result.bytes, bytes);
    EXPECT_EQ(result.counters.changes, session.counters().changes);
}

TEST_F(PcapWriter, MagicSaysNanoseconds) {
    const std::string file = path("session.pcap");
    ASSERT_TRUE(write_session(file, short_session()).ok());
    std::ifstream stream(file, std::ios::binary);
    uint32_t magic = 0;
    stream.read(reinterpret_cast<char*>(&magic), sizeof(magic));
    EXPECT_EQ(magic, 0xA1B23C4Du);
}

TEST_F(PcapWriter, ErrorsNameThePathAndLeaveNothingBehind) {
    const WriteResult missing = write_session(path("no/such/directory.pcap"), short_session());
    EXPECT_NE(missing.error.find("no/such"), std::string::npos) << missing.error;

    std::filesystem::create_directory(path("taken"));
    const WriteResult taken = write_session(path("taken"), short_session());
    EXPECT_FALSE(taken.ok());
    EXPECT_FALSE(std::filesystem::exists(path("taken.part")));

    SessionOptions endless = short_session();
    endless.changes = 0;
    EXPECT_FALSE(write_session(path("endless.pcap"), endless).ok());
    SessionOptions wrong = short_session();
    wrong.instruments = 0;
    EXPECT_FALSE(write_session(path("wrong.pcap"), wrong).ok());
    EXPECT_FALSE(std::filesystem::exists(path("wrong.pcap")));
}

TEST_F(PcapWriter, FullDiskIsReported) {
    // Every write to this device fails for want of room.
    std::filesystem::create_symlink("/dev/full", path("full.pcap.part"));
    const WriteResult result = write_session(path("full.pcap"), short_session());
    EXPECT_NE(result.error.find("cannot write"), std::string::npos) << result.error;
    EXPECT_FALSE(std::filesystem::exists(path("full.pcap")));
}

} // namespace
} // namespace exchange_sim
