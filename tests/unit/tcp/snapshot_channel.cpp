#include "tests/unit/tcp/snapshot_channel.h"

#include "CommonLog.h"
#include "tests/support/log_capture.h"

#include <algorithm>
#include <cstring>

namespace tcp_test {

namespace {

Bytes raw_bytes(const void* at, std::size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(at);
    return Bytes(bytes, bytes + size);
}

bool same(const Bytes& saved, const void* now) {
    return std::memcmp(saved.data(), now, saved.size()) == 0;
}

Bytes joined_of(const TcpSession& session) {
    if (session.frag_buf == nullptr || session.frag_buf_offset <= 0) {
        return {};
    }
    return raw_bytes(session.frag_buf, static_cast<std::size_t>(session.frag_buf_offset));
}

std::vector<Bytes> held_of(const TcpSession& session) {
    std::vector<Bytes> frames;
    for (const TcpLostBuf* node = session.lost_buf_head; node != nullptr; node = node->next) {
        frames.push_back(raw_bytes(node->buf, node->len));
    }
    return frames;
}

} // namespace

SnapshotChannel::SnapshotChannel() : registers(kRegisterWords) {
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(0));
    config.md2ps_snap_port = kMd2psPort;
    config.md4ps_snap_port = kMd4psPort;
    config.shfe2ps_topic_id = kShfe2psTopic;
    config.shfe4ps_topic_id = kShfe4psTopic;
    config.ine2ps_topic_id = kIne2psTopic;
    config.ine4ps_topic_id = kIne4psTopic;
    config.recvall = 1;
    config.options = 1;
    config.timeout_cnt = 10;
    enabled.mask = 0x0F;
    rebuild();
}

SnapshotChannel::~SnapshotChannel() {
    core.reset();
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(15));
}

void SnapshotChannel::rebuild() {
    core.reset();
    table = std::make_unique<share>();
    calc = std::make_unique<PriceCalcInfo>();
    finished.mask = 0;
    core = std::make_unique<CExanicTcpFunc>(config, table.get(), enabled, finished, *calc);
    core->InitTcp(registers.data(), nullptr);
}

void SnapshotChannel::deliver(const Bytes& frame) {
    const auto copy = std::make_unique<char[]>(frame.size() + DECODE_SLACK); // zeroed
    std::memcpy(copy.get(), frame.data(), frame.size());
    core->_PacketHandler(copy.get(), static_cast<unsigned int>(frame.size()));
}

Bytes SnapshotChannel::parse(const Bytes& message, uint16_t port) {
    const auto copy = std::make_unique<char[]>(message.size() + DECODE_SLACK); // zeroed
    std::memcpy(copy.get(), message.data(), message.size());
    EXPECT_EQ(core->_ParseMdqp(reinterpret_cast<MdqpHeader*>(copy.get()), port), 0);
    return raw_bytes(copy.get(), message.size());
}

Bytes SnapshotChannel::parse_as(EMdqpDataType type, const Bytes& message) {
    session().em_dqp_data_type = type;
    return parse(message);
}

Log SnapshotChannel::logged(const std::function<void()>& action, const std::string& levels) {
    Log lines;
    {
        const support::LogCapture capture(31);
        action();
        lines = capture.summary(levels);
    }
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(0));
    return lines;
}

Log SnapshotChannel::deliver_logged(const Bytes& frame, const std::string& levels) {
    return logged([&] { deliver(frame); }, levels);
}

Bytes SnapshotChannel::joined(uint16_t port) {
    return joined_of(session(port));
}

std::vector<uint32_t> SnapshotChannel::held_seqs(uint16_t port) {
    std::vector<uint32_t> numbers;
    for (const Bytes& frame : held_of(session(port))) {
        const std::size_t tcp_offset = 14 + (frame[14] & 0x0Fu) * 4u;
        numbers.push_back(wirekit::get_be32(frame.data() + tcp_offset + 4));
    }
    return numbers;
}

void SnapshotChannel::subscribe(int slot_index, const std::string& inst_id) {
    wirekit::put_text(slot(slot_index).inst_id, sizeof(instrument::inst_id), inst_id);
}

void SnapshotChannel::plant_bad_book() {
    subscribe(0, "bad");
    slot(0).bid_px[0] = 5.0; // price without volume
    table->shfe_inst_cnt = 1;
}

void SnapshotChannel::set_masks(uint8_t enabled_mask, uint8_t finished_mask) {
    enabled.mask = enabled_mask;
    finished.mask = finished_mask;
}

ChannelState SnapshotChannel::state() const {
    ChannelState now;
    now.table = raw_bytes(table.get(), sizeof(share));
    now.calc = raw_bytes(calc.get(), sizeof(PriceCalcInfo));
    now.limits = raw_bytes(core->inter_infos, sizeof(core->inter_infos));
    now.sessions = raw_bytes(core->m_sessions, sizeof(core->m_sessions));
    for (uint32_t port = 0; port < MAX_SESSION_CNT; ++port) {
        const TcpSession& session = core->m_sessions[port];
        if (session.frag_buf != nullptr) {
            now.joined[port] = joined_of(session);
        }
        if (session.lost_buf_head != nullptr) {
            now.held[port] = held_of(session);
        }
    }
    now.finished = finished.mask;
    now.switches = {core->shfe_cnt_80_flag, core->ine_cnt_80_flag, core->shfe_cnt_flag,
                    core->ine_cnt_flag};
    return now;
}

std::string SnapshotChannel::difference(const ChannelState& before) const {
    if (!same(before.table, table.get())) {
        return "table";
    }
    if (!same(before.calc, calc.get())) {
        return "price scaling";
    }
    if (!same(before.limits, core->inter_infos)) {
        return "limits";
    }
    if (!same(before.sessions, core->m_sessions)) {
        return "sessions";
    }
    for (const auto& [port, bytes] : before.joined) {
        if (joined_of(core->m_sessions[port]) != bytes) {
            return "joined bytes";
        }
    }
    for (const auto& [port, frames] : before.held) {
        if (held_of(core->m_sessions[port]) != frames) {
            return "held segments";
        }
    }
    if (before.finished != finished.mask) {
        return "finished mask";
    }
    if (before.switches != std::array<bool, 4>{core->shfe_cnt_80_flag, core->ine_cnt_80_flag,
                                               core->shfe_cnt_flag, core->ine_cnt_flag}) {
        return "warning switches";
    }
    return "";
}

std::string line(char level, const std::string& function, const std::string& message) {
    return std::string(1, level) + " ExanicTcpFunc " + function + " " + message;
}

Log only(const Log& log, const std::string& what) {
    Log found;
    std::copy_if(log.begin(), log.end(), std::back_inserter(found),
                 [&](const std::string& text) { return text.find(what) != std::string::npos; });
    return found;
}

std::string at(const Log& log, std::size_t index) {
    return index < log.size() ? log[index] : "";
}

std::string last(const Log& log) {
    return log.empty() ? "" : log.back();
}

wirekit::TcpSegmentBuilder segment(uint32_t seq, const Bytes& payload, uint16_t port) {
    return wirekit::tcp_segment()
        .from(kExchangeIp, kMd2psPort)
        .to(kLocalIp, port)
        .seq(seq)
        .payload(payload);
}

Bytes start_message(int16_t topic, int packet_no, std::size_t size) {
    auto message = wirekit::mdqp_message(wirekit::kFlagMore);
    message.snap(topic, 1).packet_no(packet_no);
    const Bytes filler(size - message.size() - 4, 0x55);
    return message.field(0x1002, static_cast<uint16_t>(filler.size()), filler).bytes();
}

Bytes plain_message(int packet_no, std::size_t size, uint8_t flag) {
    auto message = wirekit::mdqp_message(flag);
    message.packet_no(packet_no);
    const Bytes filler(size - message.size() - 4, 0x55);
    return message.field(0x1002, static_cast<uint16_t>(filler.size()), filler).bytes();
}

} // namespace tcp_test
