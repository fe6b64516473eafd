#include "check_support.h"

#include "tests/support/temp_dir.h"
#include "tools/vorn/check/capture_survey.h"
#include "tools/vorn/exit_code.h"
#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>
#include <random>

using namespace vorn_cli;
using namespace vorn_cli_test;

namespace {

using wirekit::Bytes;

Bytes dictionary(int16_t topic, const std::vector<std::string>& identifiers) {
    auto message = wirekit::mdqp_message(wirekit::kFlagMore);
    message.snap(topic, 1);
    int32_t number = 0;
    for (const std::string& inst_id : identifiers) {
        message.inst({.inst_id = inst_id, .inst_no = number++});
    }
    return message.packet_no(1).bytes();
}

// Two feeds as they are by default: dictionaries from port 33022, changes on both lines of SHFE and
// on line A of INE.
CaptureSurvey default_survey() {
    CaptureSurveyor surveyor;
    surveyor.add_frame(wirekit::tcp_segment()
                           .to(0x0A010102, 50001)
                           .payload(dictionary(1000, {"cu2603", "cu2604", "al2603", "cu2603C70000",
                                                      "zn2605P20000"}))
                           .bytes());
    surveyor.add_frame(wirekit::tcp_segment()
                           .to(0x0A010102, 50002)
                           .payload(dictionary(5000, {"sc2604", "sc2604TAS"}))
                           .bytes());
    const auto change = [&](uint32_t group, uint16_t port, uint16_t topic) {
        const Bytes buffer = wirekit::decode_buffer().topic(topic).change_no(1).bytes();
        surveyor.add_frame(wirekit::udp_datagram().to(group, port).payload(buffer).bytes());
    };
    change(0xEF042A48, 21000, 1000);
    change(0xEF032A47, 21000, 1000);
    change(0xEF033447, 25000, 5000);
    return surveyor.take();
}

std::vector<std::string> identifiers(const CaptureSurvey& survey) {
    std::vector<std::string> names;
    for (const auto& instrument : survey.instruments) {
        names.push_back(instrument.inst_id);
    }
    return names;
}

struct CaptureCase {
    const char* name;
    const char* line_text;
    uint32_t line;
    const char* rule;
    const char* says;
};

// clang-format off
const CaptureCase kCaptureCases[] = {
    {"NoSuchContract",   "insts = cu2607",               3, "capture-instrument", "lists no such instrument"},
    {"CloseContract",    "insts = cu2603,al2609",        3, "capture-instrument", "did you mean al2603?"},
    {"NoSuchProduct",    "insts = cu,ni",                3, "capture-instrument", "\"ni\" matches no instrument"},
    {"SnapshotPort",     "md2ps_snap_port = 33023",      7, "capture-port", "write md2ps_snap_port = 33022"},
    {"Topic",            "shfe2ps_topic_id = 1001",      7, "capture-topic", "snapshots have topic 1000, 5000"},
    {"BothLinesOfIne",   "ine2ps_ip_a = 239.3.52.70:25000", 7, "capture-group", "its topic comes to 239.3.52.71:25000"},
};
// clang-format on

class CheckCapture : public testing::TestWithParam<CaptureCase> {};

TEST_P(CheckCapture, HasOneFinding) {
    const CaptureCase& row = GetParam();
    const CaptureSurvey survey = default_survey();
    const Findings findings = check(good_file_with(row.line_text), &survey);
    ASSERT_EQ(findings.size(), 1u) << to_text(findings);
    EXPECT_EQ(findings[0].line, row.line) << to_text(findings);
    EXPECT_EQ(findings[0].rule, row.rule) << to_text(findings);
    EXPECT_NE(findings[0].text().find(row.says), std::string::npos) << to_text(findings);
}

INSTANTIATE_TEST_SUITE_P(Rows, CheckCapture, testing::ValuesIn(kCaptureCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(CheckCaptures, WhatTheCaptureHasIsSilent) {
    const CaptureSurvey survey = default_survey();
    for (const char* line : {"insts = all", "insts = cu", "insts = cu2603, sc2604, al",
                             "insts = zn", "options = recv"}) {
        EXPECT_EQ(to_text(check(good_file_with(line), &survey)), "") << line;
    }
}

TEST(CheckCaptures, AnEntryThatOnlyOptionsMatchIsFoundWhenOptionsAreOff) {
    const CaptureSurvey survey = default_survey();
    const Findings findings = check(good_file_with("insts = zn") + "options = norecv\n", &survey);
    ASSERT_EQ(findings.size(), 1u) << to_text(findings);
    EXPECT_NE(findings[0].text().find("only options such as zn2605P20000"), std::string::npos);
}

TEST(CheckCaptures, AnEntryOfAFeedThatIsOffIsFound) {
    const CaptureSurvey survey = default_survey();
    std::string content = good_file_with("insts = sc2604,cu");
    content.replace(content.find("ine2ps = enabled"), 16, "ine2ps = disabled");
    const Findings findings = check(content, &survey);
    ASSERT_EQ(findings.size(), 1u) << to_text(findings);
    EXPECT_NE(findings[0].text().find("only topic 5000 lists it"), std::string::npos);
}

TEST(CheckCaptures, ACaptureWithoutDictionarySaysSo) {
    CaptureSurveyor surveyor;
    surveyor.add_frame(
        wirekit::tcp_segment().payload(dictionary(1000, {"cu2603"})).bad_checksum().bytes());
    const CaptureSurvey survey = surveyor.take();
    EXPECT_EQ(survey.bad_checksums, 1u);
    const Findings findings = check(good_file_with("insts = cu"), &survey);
    ASSERT_EQ(findings.size(), 1u) << to_text(findings);
    EXPECT_EQ(findings[0].rule, "capture-dictionary");
    EXPECT_NE(findings[0].text().find("wrong TCP checksum"), std::string::npos);
}

TEST(CaptureSurvey, JoinsSegmentsInAnyOrderAndTheirRepetitions) {
    std::vector<std::string> names;
    for (int i = 0; i < 60; ++i) {
        names.push_back("cu" + std::to_string(2600 + i));
    }
    const Bytes stream = dictionary(1000, names);
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<Bytes> frames;
    // The sequence number wraps on the way.
    const uint32_t start = 0xFFFFFFFF - 2000;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t size = std::min<std::size_t>(1 + random() % 700, stream.size() - at);
        const std::size_t overlap = std::min<std::size_t>(at, random() % 20);
        frames.push_back(wirekit::tcp_segment()
                             .seq(start + static_cast<uint32_t>(at - overlap))
                             .payload({stream.data() + at - overlap, size + overlap})
                             .bytes());
        at += size;
    }
    std::shuffle(frames.begin() + 1, frames.end(), random); // the first one begins the stream
    frames.insert(frames.end(), frames.begin(), frames.begin() + 3);
    CaptureSurveyor surveyor;
    for (const Bytes& frame : frames) {
        surveyor.add_frame(frame);
    }
    EXPECT_EQ(identifiers(surveyor.take()), names);
}

TEST(CaptureSurvey, GoesOnBehindALostSegment) {
    CaptureSurveyor surveyor;
    uint32_t seq = 1;
    const auto send = [&](const Bytes& payload, bool lost = false) {
        if (!lost) {
            surveyor.add_frame(wirekit::tcp_segment().seq(seq).payload(payload).bytes());
        }
        seq += static_cast<uint32_t>(payload.size());
    };
    send(dictionary(1000, {"cu2603"}));
    send(dictionary(1000, {"cu2604"}), true);
    send(Bytes(100, 0xAA)); // the end of a message whose begin is lost
    for (int i = 0; i < 600; ++i) {
        send(dictionary(1000, {"al" + std::to_string(2600 + i)}));
    }
    const auto names = identifiers(surveyor.take());
    ASSERT_EQ(names.size(), 601u);
    EXPECT_EQ(names.front(), "cu2603");
    EXPECT_EQ(names.back(), "al3199");
}

TEST(CaptureSurvey, TakesNothingFromNoise) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    CaptureSurveyor surveyor;
    for (int i = 0; i < 20000; ++i) {
        Bytes payload(random() % 300);
        for (uint8_t& byte : payload) {
            byte = static_cast<uint8_t>(random());
        }
        if (payload.size() > 2 && i % 2 == 0) {
            payload[0] = 0x11;
            payload[1] = 0x32;
        }
        Bytes frame = wirekit::tcp_segment()
                          .to(1, static_cast<uint16_t>(i % 7))
                          .seq(static_cast<uint32_t>(random() % 2000))
                          .payload(payload)
                          .bytes();
        frame.resize(frame.size() - random() % 2);
        surveyor.add_frame(frame);
        surveyor.add_frame(payload);
    }
    EXPECT_EQ(surveyor.take().frames, 40000u);
}

TEST(CaptureSurvey, RefusesWhatIsNoCapture) {
    const support::TempDir directory;
    const std::string path = directory.write("x.pcap", "not a capture");
    EXPECT_THROW(survey_capture(path, [](uint64_t) {}), Failure);
    EXPECT_THROW(survey_capture(path + ".absent", [](uint64_t) {}), Failure);
}

} // namespace
