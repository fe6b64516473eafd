#include "softcard/firmware/classifier.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using test::decode_payload;
using namespace test;

class Classifier : public testing::Test {
protected:
    void SetUp() override {
        program_lines(registers());
        switch_on(registers());
    }

    volatile uint32_t* registers() { return window_->program_view(); }
    Classified judge(const Bytes& frame) {
        frame_ = frame;
        return classify(frame_, window_->switches(), *window_);
    }
    void let_through(Exchange exchange, uint32_t number) {
        const uint32_t word = exchange == Exchange::kShfe ? kShfeAddressWord : kIneAddressWord;
        registers()[word] = number;
        registers()[word + 1] = 1;
    }
    static Bytes datagram(uint32_t group, uint16_t port, uint32_t instrument_no) {
        return wirekit::udp_datagram()
            .to(group, port)
            .payload(decode_payload(instrument_no, 1))
            .bytes();
    }

private:
    std::unique_ptr<RegisterWindow> window_ = new_window();
    Bytes frame_;
};

TEST_F(Classifier, DeliversThePayloadOfADatagramToAProgrammedLine) {
    const struct {
        uint32_t group;
        uint16_t port;
    } lines[] = {{kShfeGroupA, kShfePort},
                 {kShfeGroupB, kShfePort},
                 {kIneGroupA, kInePort},
                 {kIneGroupB, kInePort}};
    for (const auto& line : lines) {
        const Classified result = judge(datagram(line.group, line.port, 9));
        ASSERT_EQ(result.path, Path::kDecode) << std::hex << line.group;
        EXPECT_EQ(Bytes(result.delivered.begin(), result.delivered.end()), decode_payload(9, 1));
    }
}

TEST_F(Classifier, IgnoresOtherGroupsAndPorts) {
    EXPECT_EQ(judge(datagram(kShfeGroupA + 1, kShfePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort + 1, 9)).path, Path::kIgnored);
    // Each line has its own pair: one's group does not go with another's port.
    EXPECT_EQ(judge(datagram(kShfeGroupA, kInePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(kIneGroupA, kShfePort, 9)).path, Path::kIgnored);
}

TEST_F(Classifier, IgnoresALineThatIsNotProgrammed) {
    registers()[16] = 0;
    registers()[18] = 0;
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(0, 0, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(kShfeGroupB, kShfePort, 9)).path, Path::kDecode);
}

TEST_F(Classifier, ComparesTheWholePortRegister) {
    registers()[18] = 0x10000 + kShfePort;
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 9)).path, Path::kIgnored);
}

TEST_F(Classifier, PassesOnlyFilterEntriesWhileTheAllPassSwitchIsOff) {
    let_through(Exchange::kShfe, 9);
    let_through(Exchange::kIne, 7);
    registers()[kAllShfeSwitchWord] = 0;
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 9)).path, Path::kDecode);
    EXPECT_EQ(judge(datagram(kShfeGroupB, kShfePort, 9)).path, Path::kDecode);
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 7)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(kIneGroupA, kInePort, 9)).path, Path::kDecode); // INE passes all
    registers()[kAllIneSwitchWord] = 0;
    EXPECT_EQ(judge(datagram(kIneGroupA, kInePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(datagram(kIneGroupA, kInePort, 7)).path, Path::kDecode);
    EXPECT_EQ(judge(datagram(kIneGroupB, kInePort, 4096 + 7)).path, Path::kIgnored);
    registers()[kAllIneSwitchWord] = 2; // a switch is on at 1 only
    EXPECT_EQ(judge(datagram(kIneGroupA, kInePort, 9)).path, Path::kIgnored);
}

TEST_F(Classifier, PassesABufferWithoutAnInstrumentOnlyWhereAllPass) {
    Bytes payload(17, 0);
    let_through(Exchange::kShfe, 0);
    const auto frame = [&] {
        return wirekit::udp_datagram().to(kShfeGroupA, kShfePort).payload(payload).bytes();
    };
    EXPECT_EQ(judge(frame()).path, Path::kDecode);
    registers()[kAllShfeSwitchWord] = 0;
    EXPECT_EQ(judge(frame()).path, Path::kIgnored);
    payload.resize(18);
    EXPECT_EQ(judge(frame()).path, Path::kDecode);
}

TEST_F(Classifier, IgnoresADatagramWithoutPayload) {
    EXPECT_EQ(judge(wirekit::udp_datagram().to(kShfeGroupA, kShfePort).bytes()).path,
              Path::kIgnored);
}

TEST_F(Classifier, LeavesPaddingBehindTheDatagramAway) {
    Bytes frame = wirekit::udp_datagram().to(kShfeGroupA, kShfePort).payload(Bytes(4, 1)).bytes();
    frame.resize(60);
    EXPECT_EQ(judge(frame).delivered.size(), 4u);
}

TEST_F(Classifier, TakesIpOptionsInItsStride) {
    Bytes frame = datagram(kShfeGroupA, kShfePort, 9);
    frame.insert(frame.begin() + 34, 8, 0);
    frame[14] = 0x47;
    wirekit::put_be16(&frame[16], static_cast<uint16_t>(frame.size() - 14));
    const Classified result = judge(frame);
    ASSERT_EQ(result.path, Path::kDecode);
    EXPECT_EQ(Bytes(result.delivered.begin(), result.delivered.end()), decode_payload(9, 1));
}

TEST_F(Classifier, IgnoresDatagramsThatAreNotWhole) {
    const Bytes good = datagram(kShfeGroupA, kShfePort, 9);
    const auto changed = [&](std::size_t at, uint16_t value) {
        Bytes frame = good;
        wirekit::put_be16(&frame[at], value);
        return judge(frame).path;
    };
    EXPECT_EQ(changed(20, 0x2000), Path::kIgnored); // more fragments follow
    EXPECT_EQ(changed(20, 0x0001), Path::kIgnored); // a later fragment
    EXPECT_EQ(changed(16, 2000), Path::kIgnored);   // IP says more than there is
    EXPECT_EQ(changed(16, 27), Path::kIgnored);     // no room for the UDP header
    EXPECT_EQ(changed(38, 2000), Path::kIgnored);   // UDP says more than IP
    EXPECT_EQ(changed(38, 7), Path::kIgnored);      // UDP says less than its header
    Bytes small_header = good;
    small_header[14] = 0x44;
    EXPECT_EQ(judge(small_header).path, Path::kIgnored);
    for (std::size_t size = 0; size < good.size(); ++size) {
        Bytes frame(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(judge(frame).path, Path::kIgnored) << size;
    }
}

TEST_F(Classifier, MirrorsTcpFramesWholeWhileTheRawSwitchIsOn) {
    const Bytes frame = wirekit::tcp_segment().payload(more()).padding(6).bytes();
    const Classified result = judge(frame);
    ASSERT_EQ(result.path, Path::kRaw);
    EXPECT_EQ(Bytes(result.delivered.begin(), result.delivered.end()), frame);
    registers()[kRawSwitchWord] = 0;
    EXPECT_EQ(judge(frame).path, Path::kIgnored);
}

TEST_F(Classifier, LeavesWhatIsWrongWithATcpFrameToItsReceiver) {
    EXPECT_EQ(judge(wirekit::tcp_segment().payload(more()).bad_checksum().bytes()).path,
              Path::kRaw);
    EXPECT_EQ(judge(wirekit::tcp_segment().bytes()).path, Path::kRaw); // a pure acknowledgement
    Bytes cut = wirekit::tcp_segment().payload(more()).bytes();
    cut.resize(34);
    EXPECT_EQ(judge(cut).path, Path::kRaw);
}

TEST_F(Classifier, DropsDecodeFramesWhileTheDecodeSwitchIsOff) {
    registers()[kDecodeSwitchWord] = 0;
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(wirekit::tcp_segment().bytes()).path, Path::kRaw);
}

TEST_F(Classifier, DeliversNothingInReset) {
    registers()[kResetWord] = 1;
    EXPECT_EQ(judge(datagram(kShfeGroupA, kShfePort, 9)).path, Path::kIgnored);
    EXPECT_EQ(judge(wirekit::tcp_segment().bytes()).path, Path::kIgnored);
    registers()[kResetWord] = 0;
    EXPECT_EQ(judge(wirekit::tcp_segment().bytes()).path, Path::kRaw);
}

TEST_F(Classifier, IgnoresOtherProtocols) {
    Bytes frame = wirekit::tcp_segment().bytes();
    frame[23] = 1; // ICMP
    EXPECT_EQ(judge(frame).path, Path::kIgnored);
    frame = wirekit::tcp_segment().bytes();
    wirekit::put_be16(&frame[12], 0x86DD); // IPv6
    EXPECT_EQ(judge(frame).path, Path::kIgnored);
    wirekit::put_be16(&frame[12], 0x8100); // VLAN
    EXPECT_EQ(judge(frame).path, Path::kIgnored);
    EXPECT_EQ(judge({}).path, Path::kIgnored);
}

} // namespace
} // namespace softcard
