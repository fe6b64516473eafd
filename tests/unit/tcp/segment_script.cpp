#include "tests/unit/tcp/segment_script.h"

#include <cstdlib>

namespace tcp_test {

Stream& Stream::start(int packet_no, std::size_t size, int16_t topic) {
    return raw(start_message(topic, packet_no, size));
}

Stream& Stream::message(int packet_no, std::size_t size, uint8_t flag) {
    return raw(plain_message(packet_no, size, flag));
}

Stream& Stream::raw(const Bytes& bytes) {
    wirekit::append(bytes_, bytes);
    return *this;
}

Bytes Stream::slice(std::size_t from, std::size_t to) const {
    return Bytes(bytes_.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes_.begin() + static_cast<std::ptrdiff_t>(to));
}

Bytes Stream::frame(std::size_t from, std::size_t to, uint16_t port) const {
    return segment(seq(from), slice(from, to), port).bytes();
}

std::vector<int> packet_numbers(const Log& log) {
    const std::string head = line('X', "_ParseMdqp", "packet_no: ");
    std::vector<int> numbers;
    for (const std::string& text : log) {
        if (text.compare(0, head.size(), head) == 0) {
            numbers.push_back(std::atoi(text.c_str() + head.size()));
        }
    }
    return numbers;
}

void Reassembly::play(const Stream& stream, const std::vector<Step>& steps, uint16_t port) {
    std::size_t number = 0;
    for (const Step& step : steps) {
        const Log log = deliver_logged(stream.frame(step.from, step.to, port));
        Log said;
        for (const std::string& text : log) {
            if (text[0] != 'X' && text[0] != 'D') {
                said.push_back(text);
            }
        }
        SCOPED_TRACE("segment " + std::to_string(++number) + ": " + step.why);
        const TcpSession& now = session(port);
        EXPECT_EQ(now.next_expt_seq, stream.seq(step.next));
        EXPECT_EQ(now.lost_buf_size, step.held);
        EXPECT_EQ(held_seqs(port).size(), step.held);
        EXPECT_EQ(now.lost_flag, step.held > 0 ? 1 : 0);
        EXPECT_EQ(now.frag_buf_offset, step.joined);
        EXPECT_EQ(now.frag_flag, step.joined > 0 ? 1 : 0);
        EXPECT_EQ(packet_numbers(log), step.decoded);
        EXPECT_EQ(said, step.said);
    }
}

std::vector<int> Reassembly::decoded_by(const std::function<void()>& action) {
    return packet_numbers(logged(action, "X"));
}

void Reassembly::establish(const Stream& stream, std::size_t to, uint16_t port) {
    deliver(stream.frame(0, to, port));
    ASSERT_EQ(session(port).init, 1);
}

} // namespace tcp_test
