// The figures of `vorn info --json` are those that tshark counts with the dissector.

#include "info_program.h"

#include "tests/system/vorn_check/run_program.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

using nlohmann::json;
using vorn_session::SessionCapture;

namespace {

using Texts = std::vector<std::string>;

class InfoAndTshark : public vorn_info::InfoProgram {
protected:
    // The values of `fields` in the frames that pass the filter, a line each, tabs between.
    Texts tshark(const std::string& filter, const Texts& fields, const Texts& more = {}) {
        Texts command = {VORN_TSHARK, "-n",     "-X", std::string("lua_script:") + VORN_DISSECTOR,
                         "-r",        "c.pcap", "-Y", filter,
                         "-T",        "fields"};
        for (const std::string& field : fields) {
            command.insert(command.end(), {"-e", field});
        }
        command.insert(command.end(), more.begin(), more.end());
        const auto run = vorn_check::run_program(command, directory_.path(), [this] {
            ::setenv("HOME", directory_.path().c_str(), 1);
            ::setenv("XDG_CONFIG_HOME", directory_.path().c_str(), 1);
            ::unsetenv("WIRESHARK_CONFIG_DIR");
        });
        EXPECT_EQ(run.exit_status, 0) << run.err;
        Texts lines;
        std::istringstream out(run.out);
        for (std::string line; std::getline(out, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    std::size_t frames(const std::string& filter, const Texts& more = {}) {
        return tshark(filter, {"frame.number"}, more).size();
    }
    // All values of all frames, also where a frame has several.
    Texts values(const std::string& filter, const std::string& field) {
        Texts all;
        for (const std::string& line : tshark(filter, {field})) {
            std::istringstream parts(line);
            for (std::string value; std::getline(parts, value, ',');) {
                all.push_back(value);
            }
        }
        return all;
    }
};

uint64_t total(const json& object, const char* figure) {
    return object["shfe"][figure].get<uint64_t>() + object["ine"][figure].get<uint64_t>();
}

TEST_F(InfoAndTshark, AgreeOnDatagramsAndBytesOfEveryLine) {
    write(session());
    const json object = summary();
    ASSERT_EQ(object["lines"].size(), 4u);
    for (const json& line : object["lines"]) {
        const std::string group = line["group"];
        const std::size_t colon = group.find(':');
        const Texts lengths = tshark("ip.dst == " + group.substr(0, colon) +
                                         " && udp.dstport == " + group.substr(colon + 1),
                                     {"frame.len"});
        uint64_t bytes = 0;
        for (const std::string& length : lengths) {
            bytes += std::stoull(length);
        }
        EXPECT_EQ(line["datagrams"], lengths.size()) << group;
        EXPECT_EQ(line["bytes"], bytes) << group;
    }
    EXPECT_EQ(object["line_datagrams"], frames("vorn.mirp.field_id == 3"));
    EXPECT_EQ(object["snapshot_segments"], frames("tcp.port == 33022"));
}

TEST_F(InfoAndTshark, AgreeOnMessagesAndRoundsOfEverySession) {
    write(session());
    const json object = summary();
    ASSERT_EQ(object["sessions"].size(), 2u);
    for (const json& one : object["sessions"]) {
        const std::string client = one["client"];
        const std::string of_it = "tcp.port == " + client.substr(client.find(':') + 1);
        const Texts flags = values(of_it, "vorn.mdqp.flag");
        EXPECT_EQ(one["messages"], flags.size());
        EXPECT_EQ(one["rounds_complete"], std::count(flags.begin(), flags.end(), "0x01"));
        EXPECT_EQ(one["segments"], frames(of_it));
        EXPECT_EQ(one["syn"], frames(of_it + " && tcp.flags.syn == 1"));
        EXPECT_EQ(one["fin"], frames(of_it + " && tcp.flags.fin == 1"));
        const Texts begun = values(of_it, "vorn.snap_no");
        ASSERT_EQ(one["rounds"].size(), begun.size());
        for (std::size_t i = 0; i < begun.size(); ++i) {
            EXPECT_EQ(std::to_string(one["rounds"][i]["snap_no"].get<int>()), begun[i]);
        }
    }
}

TEST_F(InfoAndTshark, AgreeOnTheInstrumentsOfEachExchange) {
    write(session());
    std::map<std::string, std::set<std::string>> listed;
    for (const json& one : info({"--instruments"})) {
        if (one["type"] == "instrument") {
            listed[one["exchange"]].insert(one["inst_id"].get<std::string>());
        }
    }
    for (const auto& [exchange, client] :
         {std::pair("SHFE", "tcp.port == 50001"), {"INE", "tcp.port == 50002"}}) {
        const Texts names = values(client, "vorn.inst_id");
        EXPECT_EQ(listed[exchange], std::set<std::string>(names.begin(), names.end()));
    }
}

TEST_F(InfoAndTshark, AgreeOnGapsAndLateChanges) {
    auto capture = session();
    std::vector<std::size_t> dropped;
    const auto& changes = capture.changes();
    for (std::size_t i = 500; i < changes.size(); i += 97) { // on both lines
        for (const std::size_t frame :
             capture.copies(capture.instrument(changes[i]), capture.change_no(changes[i]))) {
            capture.drop(frame);
        }
    }
    for (std::size_t i = 530; i < changes.size(); i += 41) { // on one line
        capture.drop(changes[i]);
    }
    write(capture);
    const json object = summary();
    uint64_t missing = 0;
    for (const std::string& number : values("vorn.gap", "vorn.missing")) {
        missing += std::stoull(number);
    }
    const std::size_t gaps = frames("vorn.gap");
    EXPECT_GT(gaps, 10u);
    EXPECT_EQ(total(object, "gaps"), gaps);
    EXPECT_EQ(total(object, "late"), frames("vorn.late"));
    EXPECT_EQ(total(object, "duplicates"), frames("vorn.duplicate"));
    // What came late is not missing.
    EXPECT_EQ(total(object, "missing") + total(object, "late"), missing);
    std::set<std::string> numbers;
    for (const json& gap : info({"--gaps"})) {
        if (gap["type"] == "gap") {
            numbers.insert(std::to_string(gap["frame"].get<uint64_t>()));
        }
    }
    const Texts seen = values("vorn.gap", "frame.number");
    EXPECT_EQ(numbers, std::set<std::string>(seen.begin(), seen.end()));
}

// Which line was first and by how much, from the frames that tshark pairs.
TEST_F(InfoAndTshark, AgreeOnTheLeadOfOneLineOverTheOther) {
    write(session());
    const json object = summary();
    struct Stamp {
        uint64_t ns = 0;
        bool on_a = false;
    };
    const std::set<std::string> lines_a = {"239.4.42.72", "239.3.52.71"};
    std::map<std::string, Stamp> stamps;
    std::map<std::string, std::vector<uint64_t>> leads; // by exchange and line
    for (const std::string& line : tshark("udp", {"frame.number", "frame.time_epoch", "ip.dst",
                                                  "vorn.exchange", "vorn.duplicate_of"})) {
        std::istringstream parts(line);
        std::string number, time, group, exchange, first;
        parts >> number >> time >> group >> exchange >> first;
        const std::size_t point = time.find('.');
        Stamp stamp;
        stamp.ns = std::stoull(time.substr(0, point)) * 1'000'000'000 +
                   std::stoull((time.substr(point + 1) + "000000000").substr(0, 9));
        stamp.on_a = lines_a.contains(group);
        stamps[number] = stamp;
        if (!first.empty()) {
            const Stamp& earlier = stamps.at(first);
            leads[exchange + (earlier.on_a ? " a" : " b")].push_back(stamp.ns - earlier.ns);
        }
    }
    for (const auto& [key, side, figure] : {std::tuple("SHFE a", "shfe", "a_first"),
                                            {"SHFE b", "shfe", "b_first"},
                                            {"INE a", "ine", "a_first"},
                                            {"INE b", "ine", "b_first"}}) {
        SCOPED_TRACE(key);
        std::vector<uint64_t>& all = leads[key];
        ASSERT_FALSE(all.empty());
        std::sort(all.begin(), all.end());
        const json& lead = object[side][figure];
        EXPECT_EQ(lead["count"], all.size());
        EXPECT_EQ(lead["max_ns"], all.back());
        const auto median = static_cast<double>(all[(all.size() - 1) / 2]);
        const auto p99 = static_cast<double>(all[(all.size() * 99 + 99) / 100 - 1]);
        EXPECT_LE(lead["median_ns"].get<double>(), median);
        EXPECT_GE(lead["median_ns"].get<double>(), median * 0.99 - 1);
        EXPECT_LE(lead["p99_ns"].get<double>(), p99);
        EXPECT_GE(lead["p99_ns"].get<double>(), p99 * 0.99 - 1);
    }
}

TEST_F(InfoAndTshark, AgreeOnRepeatedAndBrokenSegments) {
    auto capture = session();
    std::vector<std::size_t> data;
    for (std::size_t i = 0; i < capture.size(); ++i) {
        const auto parsed = wirekit::parse_frame(capture.frame(i));
        if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp && parsed.from.port == 33022 &&
            parsed.to.port == 50001 && parsed.payload.size() > 1000) {
            data.push_back(i);
        }
    }
    ASSERT_GT(data.size(), 8u);
    // One comes early, in the place of the one before it; one is broken; one never comes.
    std::swap(capture.frame(data[2]), capture.frame(data[3]));
    capture.frame(data[5]).back() ^= 1;
    capture.drop(data[7]);
    write(capture);
    const json one = summary()["sessions"][0];
    EXPECT_EQ(one["client"], "172.20.21.2:50001");
    const Texts check = {"-o", "tcp.check_checksum:TRUE"};
    EXPECT_EQ(one["bad_checksums"],
              frames("tcp.dstport == 50001 && tcp.checksum.status == 0", check));
    EXPECT_EQ(one["bad_checksums"], 1);
    EXPECT_EQ(one["segments"], frames("tcp.port == 50001"));
    EXPECT_GE(one["out_of_order"], 1);
    EXPECT_EQ(one["rst"], frames("tcp.port == 50001 && tcp.flags.reset == 1"));
}

} // namespace
