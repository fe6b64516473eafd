// The log at other levels than the default, and its two places.

#include "recording.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace recorder {
namespace {

class LogLevels : public testing::Test {
protected:
    LogLevels() {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        const auto segments = connection.one_by_one(round_messages(kShfe, {&copper}));
        capture.segments({segments.begin(), segments.end() - 1});
        send(capture, copper.next());
        cached_rows = rows.size();
        capture.segment(segments.back());
        for (int i = 0; i < 20; ++i) {
            send(capture, copper.next());
        }
        send(capture, copper.burst());
        rows.erase(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(cached_rows));
    }
    void send(CaptureWriter& capture, const Change& change) {
        capture.on_line(Line::kA, change);
        rows.push_back(change.row);
    }
    Recording record(int log_level) {
        config.device = capture_device(work.path("session.pcap"));
        config.log_level = log_level;
        const Launch launch = work.prepare(config);
        Process process(launch);
        const Recording run = work.collect(launch, process.finish());
        log_file = support::read_file(only_file(launch.directory, ".log"));
        return run;
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    std::vector<std::string> rows;
    std::size_t cached_rows = 0;
    std::string log_file;
};

// The levels that occur in a log but for its first two lines, which come before the configuration
// has its say.
std::string levels_of(const Lines& log) {
    std::string levels;
    for (std::size_t i = 2; i < log.size(); ++i) {
        if (levels.find(log[i][0]) == std::string::npos) {
            levels += log[i][0];
        }
    }
    std::sort(levels.begin(), levels.end());
    return levels;
}

TEST_F(LogLevels, SelectTheLinesAndNothingElse) {
    const std::pair<int, const char*> cases[] = {{0, ""},    {7, "I"},  {8, "D"},
                                                 {15, "DI"}, {16, "X"}, {31, "DIX"}};
    for (const auto& [level, expected] : cases) {
        SCOPED_TRACE(level);
        const Recording run = record(level);
        EXPECT_EQ(levels_of(run.log), expected);
        EXPECT_EQ(run.csv, csv_of(rows));
        EXPECT_EQ(run.end.exit_status, 0);
        EXPECT_EQ(run.end.err, "");
        // Standard output holds what the file holds, and the line about the signal.
        EXPECT_EQ(run.end.out, log_file + std::string(kSignalLine) + "\n");
    }
}

TEST_F(LogLevels, TellEverythingAboutALiveChange) {
    const Recording run = record(31);
    const Lines expected{
        "X ExanicUdpFunc UdpRecv receive decode length: 120",
        "X ExanicUdpFunc _ParseMirp topicID: 0x3e8, snapMillisec: 500, snapTime: 93005, "
        "packetNo: 22",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x3, instrumentNo: 3, changeNo: 22",
        "X ExanicUdpFunc _ParseMirp snap instrumentID: cu2601, changeNo: 21",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x1002",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x1019",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x101a",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x1001",
        "X ExanicUdpFunc _ParseMirp fieldID: 0x1001",
    };
    ASSERT_GE(run.log.size(), expected.size());
    EXPECT_EQ(Lines(run.log.end() - static_cast<std::ptrdiff_t>(expected.size()), run.log.end()),
              expected);
}

// The lines in this order, with others between them.
void expect_in_order(const Lines& log, const Lines& expected) {
    auto at = log.begin();
    for (const std::string& line : expected) {
        const auto found = std::find(at, log.end(), line);
        ASSERT_TRUE(found != log.end()) << line << "\nis not behind\n"
                                        << (at == log.begin() ? "the start" : *(at - 1));
        at = found + 1;
    }
}

// Two threads at a time log, each in its own order.
TEST_F(LogLevels, TellTheSnapshotAndTheReplay) {
    const Recording run = record(31);
    expect_in_order(
        run.log,
        {"D ConfigParse InitConfig configure param: device: " + config.device +
             ", insts: all,\n"
             "shfe2ps_ip_a: 239.4.42.72:21000, shfe2ps_ip_b: 239.3.42.71:21000, "
             "shfe4ps_ip_a: 239.3.2.3:21101, shfe4ps_ip_b: 239.4.2.4:21101,"
             "ine2ps_ip_b: 239.4.52.72:25000, ine2ps_ip_a: 239.3.52.71:25000, "
             "ine4ps_ip_b: 239.3.151.91:25101, ine4ps_ip_a: 239.4.151.92:25101,\n"
             "hfe2ps_topic_id: 1000, hfe4ps_topic_id: 1101, ne2ps_topic_id: 5000, "
             "ne4ps_topic_id: 5101,md2ps_snap_port: 33022, md4ps_snap_port: 22000, cpucore: " +
             std::to_string(config.cpu) +
             ", recvall: 1, options: 1, split_all_field: 1,\n"
             "shfe2ps: 1, shfe4ps: 0, ine2ps: 0, ine4ps: 0,timeout_cnt: 10, log_level: 31",
         "X ConfigParse InitConfig inst: all",
         "X ExanicUdpFunc CachePacket cache decode buffer offset: 0, count: 0",
         "I ExanicMdImpl vorn_recv process decode buffer 1 frames",
         "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 56"});
    expect_in_order(
        run.log,
        {"I ExanicTcpFunc RunTcpDecoder start initialization, enabled mask 0x1",
         "X ExanicTcpFunc _PacketHandler topic ID: 1000, snap No: 1, TCP dst port: 50001",
         "X ExanicTcpFunc _ParseMdqp inst_id: cu2601, inst_no: 3, vol_multi: 5, price_tick: "
         "10.000000, codec_price: 70000.000000",
         "D ExanicTcpFunc _ParseMdqp instrument [cu2601] subscribed, inst_no [3]",
         "X ExanicTcpFunc _ParseMdqp MDQP flag: 0x1, type_id: 0x32, length: 408, requset_id: 0",
         "I ExanicTcpFunc _ParseMdqp shfe2ps init finished, total instruments:4",
         "I ExanicTcpFunc RunTcpDecoder initialization completed",
         "I ExanicMdImpl vorn_recv process decode buffer 1 frames"});
}

} // namespace
} // namespace recorder
