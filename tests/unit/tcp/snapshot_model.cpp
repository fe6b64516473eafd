#include "tests/unit/tcp/snapshot_model.h"

#include <cstdarg>
#include <cstdio>

namespace tcp_test {

namespace {

using Bytes = wirekit::Bytes;

constexpr const char* kHandler = "_PacketHandler";
constexpr std::size_t kSlack = 256;

unsigned be16(const Bytes& memory, std::size_t at) {
    return memory.at(at) * 256u + memory.at(at + 1);
}
uint32_t be32(const Bytes& memory, std::size_t at) {
    return be16(memory, at) * 65536u + be16(memory, at + 2);
}
unsigned le16(const Bytes& memory, std::size_t at) {
    return memory.at(at) + memory.at(at + 1) * 256u;
}
uint32_t as_found(const Bytes& memory, std::size_t at) {
    return le16(memory, at) + le16(memory, at + 2) * 65536u;
}

bool message_start(const Bytes& memory, std::size_t at, std::size_t size) {
    return size >= 2 && (memory.at(at) & 0xEF) == 1 && memory.at(at + 1) == 0x32;
}

Bytes with_slack(Bytes bytes) {
    bytes.resize(bytes.size() + kSlack, 0);
    return bytes;
}

uint32_t seq_of(const Bytes& frame) {
    return be32(frame, 14 + (frame.at(14) & 15u) * 4 + 4);
}

} // namespace

void SnapshotModel::say(char level, const char* function, const char* format, ...) {
    if (!keep_log) {
        return;
    }
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    log.push_back(std::string(1, level) + " ExanicTcpFunc " + function + " " + text);
}

bool SnapshotModel::check(const Bytes& frame) {
    Segment segment;
    return parse_frame(frame, segment);
}

bool SnapshotModel::parse_frame(const Bytes& frame, Segment& segment) {
    const int length = static_cast<int>(frame.size());
    if (length < 34) {
        say('X', kHandler, "packet too short for IP, packetLen=%u", static_cast<unsigned>(length));
        return false;
    }
    const int ip_size = (frame[14] & 15) * 4;
    if (ip_size < 20 || ip_size > 60 || length < ip_size + 14) {
        say('X', kHandler, "invalid IP header, ip_hdr_len=%d packetLen=%u", ip_size,
            static_cast<unsigned>(length));
        return false;
    }
    const int protocol = frame[23];
    if (protocol != 6) {
        if (protocol != 1 && protocol != 2 && protocol != 17) {
            say('X', kHandler, "ip_p [%d]", protocol);
        }
        return false;
    }
    if (length < ip_size + 34) {
        say('X', kHandler, "packet too short for TCP header");
        return false;
    }
    const std::size_t tcp = 14 + static_cast<std::size_t>(ip_size);
    const unsigned src_port = be16(frame, tcp);
    if (src_port != settings_.port_2ps && src_port != settings_.port_4ps) {
        return false;
    }
    const int tcp_size = (frame[tcp + 12] >> 4) * 4;
    if (tcp_size < 20 || tcp_size > 60 || length < ip_size + tcp_size + 14) {
        say('X', kHandler, "invalid TCP header or truncated packet");
        return false;
    }
    const int present = length - 14 - ip_size - tcp_size;
    const int total = static_cast<int>(be16(frame, 16));
    const int announced = total - ip_size - tcp_size;
    const int payload = present < announced ? present : announced;
    if (payload <= 0) {
        say('X', kHandler, "payloadSize<=0, max_payload=%d", present);
        return false;
    }
    const int tcp_total = total - ip_size;
    bool right = tcp_total >= 20 && length - 14 - ip_size >= tcp_total && tcp_total <= 2036;
    if (right) {
        uint64_t sum = 6u + static_cast<unsigned>(tcp_total);
        for (std::size_t at = 26; at < 34; at += 2) {
            sum += be16(frame, at);
        }
        for (int i = 0; i < tcp_total; ++i) {
            const unsigned byte = frame[tcp + static_cast<std::size_t>(i)];
            sum += i % 2 == 0 ? byte * 256u : byte;
        }
        // The sum of 16-bit words modulo 65535 is 0 exactly when the folded sum is all ones.
        right = sum % 65535 == 0;
    }
    if (!right) {
        say('D', kHandler, "tcp checksum is not correct");
        return false;
    }
    segment.memory = with_slack(frame);
    segment.frame_size = frame.size();
    segment.at = tcp + static_cast<std::size_t>(tcp_size);
    segment.size = static_cast<std::size_t>(payload);
    segment.seq = be32(frame, tcp + 4);
    segment.src_port = static_cast<uint16_t>(src_port);
    segment.dst_port = static_cast<uint16_t>(be16(frame, tcp + 2));
    return true;
}

void SnapshotModel::frame(const Bytes& frame) {
    Segment segment;
    if (!parse_frame(frame, segment)) {
        return;
    }
    const unsigned flags = frame[14 + (frame[14] & 15u) * 4 + 13];
    if ((flags & 0x14) == 0x14) {
        clean();
        return;
    }
    Session& session = sessions[segment.dst_port];
    const bool was_finished = settings_.enabled == finished;
    const uint64_t checks = price_checks;
    if (session.init) {
        go_on(session, segment);
    } else {
        start(session, segment);
    }
    // A frame that completed the snapshot is checked also when an error ended it afterwards.
    if (!was_finished && price_checks == checks) {
        finish();
    }
}

void SnapshotModel::start(Session& session, Segment& segment) {
    session.buffer = true;
    session.src_host = as_found(segment.memory, 26);
    session.dst_host = as_found(segment.memory, 30);
    session.src_port = segment.src_port;
    session.dst_port = segment.dst_port;
    session.held_count = 0;
    session.joined.clear();

    const Bytes& memory = segment.memory;
    if (segment.size < 45 || memory.at(segment.at) != 0x11 || memory.at(segment.at + 1) != 0x32) {
        finish();
        return;
    }
    session.first_seq = segment.seq;
    session.next_seq = segment.seq + static_cast<uint32_t>(segment.size);
    if (!walk(session, segment)) {
        session.init = false;
        session.type = kUnknown;
        return;
    }
    const std::size_t first_size = le16(memory, segment.at + 2) + 8;
    const bool fits = segment.size >= first_size;
    split(session, segment.memory, segment.at, segment.size, segment.dst_port);
    if (fits) {
        finish();
    }
}

// True when the messages are to be decoded.
bool SnapshotModel::walk(Session& session, const Segment& segment) {
    const Bytes& memory = segment.memory;
    std::size_t at = 8;
    for (std::size_t iter = 0; at + 4 <= segment.size; ++iter) {
        const unsigned id = le16(memory, segment.at + at);
        const unsigned size = le16(memory, segment.at + at + 2);
        if (size == 0 || iter >= segment.size / 4 + 1) {
            say('W', kHandler, "invalid field data, break field iteration, iter=%d payloadSize=%d",
                static_cast<int>(iter), static_cast<int>(segment.size));
            return false;
        }
        if (id == 0x1001 && size == 6) {
            const auto topic = static_cast<int16_t>(le16(memory, segment.at + at + 4));
            const auto snap_no = static_cast<int32_t>(as_found(memory, segment.at + at + 6));
            say('X', kHandler, "topic ID: %d, snap No: %d, TCP dst port: %d", topic, snap_no,
                segment.dst_port);
            if (!choose(session, topic)) {
                return false;
            }
        }
        at += 4 + size;
    }
    return true;
}

bool SnapshotModel::choose(Session& session, int topic) {
    const auto open = [&](unsigned bit) {
        return (settings_.enabled & bit) != 0 && (finished & bit) == 0;
    };
    if (topic == settings_.topic_ine2ps && open(0x04)) {
        session.type = kIne2ps;
    } else if (topic == settings_.topic_shfe2ps && open(0x01)) {
        session.type = kShfe2ps;
    } else if (topic == settings_.topic_shfe4ps && open(0x02)) {
        session.type = kShfe4ps;
    } else if (topic == settings_.topic_ine4ps && open(0x08)) {
        session.type = kIne4ps;
    } else {
        return false;
    }
    session.init = true;
    return true;
}

void SnapshotModel::go_on(Session& session, Segment& segment) {
    if (as_found(segment.memory, 26) != session.src_host ||
        as_found(segment.memory, 30) != session.dst_host) {
        finish();
        return;
    }
    if (segment.seq < session.next_seq) {
        finish();
        return;
    }
    if (segment.seq > session.next_seq) {
        if (hold(session, segment)) {
            finish();
        }
        return;
    }
    session.next_seq += static_cast<uint32_t>(segment.size);
    if (session.frag) {
        const auto from = segment.memory.begin() + static_cast<std::ptrdiff_t>(segment.at);
        const Bytes payload(from, from + static_cast<std::ptrdiff_t>(segment.size));
        if (append(session, payload, 65535, segment.dst_port) != Appended::kDecoded) {
            return;
        }
    } else {
        if (!message_start(segment.memory, segment.at, segment.size)) {
            return;
        }
        split(session, segment.memory, segment.at, segment.size, segment.dst_port);
    }
    if (session.lost && !drain(session, segment.dst_port)) {
        return;
    }
    finish();
}

bool SnapshotModel::hold(Session& session, const Segment& segment) {
    const Bytes copy(segment.memory.begin(),
                     segment.memory.begin() + static_cast<std::ptrdiff_t>(segment.frame_size));
    if (!session.lost) {
        session.held = {copy};
        session.lost = true;
        ++session.held_count;
        return true;
    }
    if (session.held_count >= 500) {
        say('E', kHandler, "break tcp seq detected. expt: %u, got: %u", session.next_seq,
            segment.seq);
        clean();
        return false;
    }
    for (std::size_t i = 0; i < session.held.size(); ++i) {
        const auto here = session.held.begin() + static_cast<std::ptrdiff_t>(i);
        const uint32_t seq = seq_of(*here);
        if (segment.seq == seq) {
            return true;
        }
        if (segment.seq < seq) {
            session.held.insert(here, copy);
            ++session.held_count;
            return true;
        }
        if (i + 1 == session.held.size() || segment.seq <= seq_of(*(here + 1))) {
            session.held.insert(here + 1, copy);
            ++session.held_count;
            return true;
        }
    }
    return true;
}

bool SnapshotModel::drain(Session& session, uint16_t port) {
    while (!session.held.empty()) {
        const uint32_t seq = seq_of(session.held.front());
        if (session.next_seq < seq) {
            break;
        }
        const Bytes frame = session.held.front();
        session.held.erase(session.held.begin());
        --session.held_count;
        if (session.held.empty()) {
            session.lost = false;
            session.held_count = 0;
        }
        if (seq < session.next_seq) {
            continue;
        }
        const std::size_t ip_size = (frame.at(14) & 15u) * 4;
        const std::size_t tcp_size = (frame.at(14 + ip_size + 12) >> 4) * 4u;
        const std::size_t at = 14 + ip_size + tcp_size;
        const std::size_t size = be16(frame, 16) - ip_size - tcp_size;
        session.next_seq += static_cast<uint32_t>(size);
        Bytes memory = with_slack(frame);
        Appended result = Appended::kDecoded;
        if (session.frag) {
            const auto from = frame.begin() + static_cast<std::ptrdiff_t>(at);
            result = append(session, Bytes(from, from + static_cast<std::ptrdiff_t>(size)), 100000,
                            port);
        } else if (message_start(memory, at, size)) {
            split(session, memory, at, size, port);
        } else {
            result = Appended::kBadHeader;
        }
        if (result == Appended::kCleared) {
            return false;
        }
        if (result == Appended::kBadHeader) {
            say('E', kHandler, "not a mdqp header, check program logic");
            return false;
        }
    }
    return true;
}

SnapshotModel::Appended SnapshotModel::append(Session& session, const Bytes& payload,
                                              std::size_t limit, uint16_t port) {
    if (session.joined.size() + payload.size() > limit) {
        say('W', kHandler, "ignore tcp message!");
        clean();
        return Appended::kCleared;
    }
    wirekit::append(session.joined, payload);
    const std::size_t size = session.joined.size();
    Bytes memory = with_slack(session.joined);
    if (!message_start(memory, 0, size)) {
        return Appended::kBadHeader;
    }
    if (size < 8 || size < le16(memory, 2) + 8u) {
        return Appended::kIncomplete;
    }
    std::size_t at = 0;
    while (size - at >= 8 && size - at >= le16(memory, at + 2) + 8u) {
        const std::size_t message_size = le16(memory, at + 2) + 8u;
        message(memory, at, port);
        at += message_size;
    }
    session.joined.assign(memory.begin() + static_cast<std::ptrdiff_t>(at),
                          memory.begin() + static_cast<std::ptrdiff_t>(size));
    session.frag = !session.joined.empty();
    return Appended::kDecoded;
}

// False when the payload is shorter than its first message.
bool SnapshotModel::split(Session& session, Bytes& memory, std::size_t at, std::size_t size,
                          uint16_t port) {
    const auto keep = [&](std::size_t from, std::size_t count) {
        const auto first = memory.begin() + static_cast<std::ptrdiff_t>(from);
        session.joined.assign(first, first + static_cast<std::ptrdiff_t>(count));
        session.frag = true;
    };
    if (size < 8 || size < le16(memory, at + 2) + 8u) {
        keep(at, size);
        return false;
    }
    if (size == le16(memory, at + 2) + 8u) {
        message(memory, at, port);
        return true;
    }
    std::size_t rest = size;
    while (rest >= 8 && rest >= le16(memory, at + 2) + 8u) {
        const std::size_t message_size = le16(memory, at + 2) + 8u;
        message(memory, at, port);
        at += message_size;
        rest -= message_size;
    }
    if (rest > 0) {
        keep(at, rest);
    } else {
        session.joined.clear();
        session.frag = false;
    }
    return true;
}

void SnapshotModel::finish() {
    if (settings_.enabled != finished) {
        return;
    }
    ++price_checks;
    if (price_check() != 0) {
        say('W', kHandler, "price check is error");
        clean();
    }
}

void SnapshotModel::clean() {
    ++cleans;
    records.clear();
    scales.clear();
    limits.clear();
    shfe_count = ine_count = shfe_packet_no = ine_packet_no = 0;
    finished = 0;
    warn_shfe_80 = warn_ine_80 = warn_shfe_no = warn_ine_no = false;
    for (auto& [port, session] : sessions) {
        session.frag = session.lost = session.init = false;
        session.joined.clear();
        session.buffer = false;
        session.held.clear();
        session.held_count = 0;
        session.type = kUnknown;
    }
}

} // namespace tcp_test
