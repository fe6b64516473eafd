#include "tools/vorn/info/session_tally.h"

#include "tools/vorn/capture/mdqp_walk.h"

namespace vorn_cli {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

} // namespace

SessionTallies::SessionTallies(const CaptureNames& names, ChangeTracker& instruments)
    : names_(names), instruments_(instruments) {}

// Its index, or kMaxSessions when there are too many.
std::size_t SessionTallies::session_of(const wirekit::ParsedFrame& frame, bool from_server) {
    const wirekit::Endpoint& server = from_server ? frame.from : frame.to;
    const wirekit::Endpoint& client = from_server ? frame.to : frame.from;
    for (std::size_t i = 0; i < tallies_.size(); ++i) {
        if (tallies_[i].client == client && tallies_[i].server == server) {
            return i;
        }
    }
    if (tallies_.size() < kMaxSessions) {
        tallies_.emplace_back();
        tallies_.back().server = server;
        tallies_.back().client = client;
        states_.emplace_back();
        return tallies_.size() - 1;
    }
    return kMaxSessions;
}

void SessionTallies::add(const wirekit::ParsedFrame& frame, bool cut, uint64_t time_ns) {
    const bool from_server = names_.is_snapshot_port(frame.from.port);
    const std::size_t index = session_of(frame, from_server);
    if (index == kMaxSessions) {
        ++not_kept_;
        return;
    }
    SessionTally& tally = tallies_[index];
    tally.first_ns = tally.segments == 0 ? time_ns : tally.first_ns;
    tally.last_ns = time_ns;
    ++tally.segments;
    tally.syn += (frame.tcp_flags & wirekit::kTcpSyn) != 0 ? 1 : 0;
    tally.fin += (frame.tcp_flags & wirekit::kTcpFin) != 0 ? 1 : 0;
    tally.rst += (frame.tcp_flags & wirekit::kTcpRst) != 0 ? 1 : 0;
    tally.cut += cut ? 1 : 0;
    if (!from_server) {
        return;
    }
    if ((frame.tcp_flags & (wirekit::kTcpSyn | wirekit::kTcpRst)) != 0) {
        end_round(index);
        states_[index].stream.restart(); // sequence numbers begin anew
        states_[index].holes_seen = states_[index].stream.holes();
    } else if (!frame.payload.empty()) {
        ++tally.data_segments;
        tally.bytes += frame.payload.size();
        if (frame.checksum_ok) {
            add_data(index, frame, time_ns);
        } else if (!cut) {
            ++tally.bad_checksums; // the feed rejects it, as it does a cut one
        }
    }
}

void SessionTallies::add_data(std::size_t index, const wirekit::ParsedFrame& frame,
                              uint64_t time_ns) {
    SessionTally& tally = tallies_[index];
    State& state = states_[index];
    const auto arrival =
        state.stream.add(frame.tcp_seq, frame.payload, [&](std::span<const uint8_t> message) {
            take_message(index, message, time_ns);
        });
    tally.retransmissions += arrival == SnapshotStream::Arrival::kOld ? 1 : 0;
    tally.out_of_order += arrival == SnapshotStream::Arrival::kAhead ? 1 : 0;
}

void SessionTallies::take_message(std::size_t index, std::span<const uint8_t> message,
                                  uint64_t time_ns) {
    SessionTally& tally = tallies_[index];
    State& state = states_[index];
    ++tally.messages;
    if (state.holes_seen != state.stream.holes()) {
        state.round.whole = false;
        state.holes_seen = state.stream.holes();
    }
    // A snapshot number begins a round, also when the last message of the one before was lost.
    mdqp::for_each_field(message, [&](uint16_t field_id, std::span<const uint8_t> data) {
        if (field_id != mdqp::kFieldSnap || data.size() < mdqp::kSnapSize) {
            return;
        }
        const int topic_id = static_cast<int16_t>(get_le16(&data[0]));
        const auto snap_no = static_cast<int32_t>(get_le32(&data[2]));
        if (state.in_round && state.round.topic_id == topic_id && state.round.snap_no == snap_no) {
            return;
        }
        end_round(index);
        ++tally.rounds_begun;
        state.in_round = true;
        state.round.topic_id = topic_id;
        state.round.snap_no = snap_no;
        state.round.first_ns = time_ns;
        state.topic = names_.topic(topic_id);
    });
    mdqp::for_each_field(message, [&](uint16_t field_id, std::span<const uint8_t> data) {
        take_field(state, field_id, data);
    });
    state.round.last_ns = time_ns;
    ++state.round.messages;
    if (message[0] == mdqp::kFlagLast) {
        // A capture may begin inside a round, of which it then has the end only.
        tally.rounds_complete += state.in_round ? 1 : 0;
        state.round.complete = true;
        end_round(index);
    }
}

void SessionTallies::take_field(State& state, uint16_t field_id, std::span<const uint8_t> data) {
    const bool is_info = field_id == mdqp::kFieldInstInfo && data.size() >= mdqp::kInstInfoSize;
    const bool is_deal = field_id == mdqp::kFieldDealInfo && data.size() >= mdqp::kDealInfoSize;
    if (!is_info && !is_deal) {
        return;
    }
    const uint32_t inst_no = get_le32(&data[is_info ? mdqp::kInstNoAt : 0]);
    if (state.topic == nullptr ||
        inst_no >= kSideLimit[static_cast<std::size_t>(state.topic->side)]) {
        return;
    }
    InstrumentTally& instrument = instruments_.instrument(state.topic->side, inst_no);
    auto& numbers = is_info ? state.listed : state.valued;
    uint32_t& count = is_info ? state.round.listed : state.round.instruments;
    count += numbers.test(inst_no) ? 0 : 1;
    numbers.set(inst_no);
    if (is_info) {
        instrument.inst_id = mdqp::identifier(data);
        instrument.product_class = static_cast<char>(data[mdqp::kProductClassAt]);
    } else {
        instrument.in_snapshot = true;
        instrument.snapshot_change_no = static_cast<int32_t>(get_le32(&data[mdqp::kChangeNoAt]));
    }
}

// What comes before the first snapshot number, or behind a round, belongs to none.
void SessionTallies::end_round(std::size_t index) {
    State& state = states_[index];
    std::vector<Round>& rounds = tallies_[index].rounds;
    if (state.in_round && rounds.size() < kMaxRounds) {
        rounds.push_back(state.round);
    }
    state.in_round = false;
    state.round = {};
    state.listed.reset();
    state.valued.reset();
}

void SessionTallies::finish() {
    for (std::size_t i = 0; i < tallies_.size(); ++i) {
        end_round(i);
        // What still waits was never reached.
        tallies_[i].holes = states_[i].stream.holes() + (states_[i].stream.waiting() != 0 ? 1 : 0);
    }
}

} // namespace vorn_cli
