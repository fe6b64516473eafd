#include "tools/vorn/fanout/bus_source.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vorn_cli {

using vorn_bus::WriterState;

namespace {

constexpr int kRecordsAtOnce = 4096; // so that acknowledgements are looked at in between

int64_t clock_offset_ns() {
    return static_cast<int64_t>(vorn_bus::clock_ns(CLOCK_REALTIME)) -
           static_cast<int64_t>(vorn_bus::clock_ns(CLOCK_MONOTONIC));
}

} // namespace

const char* source_state_name(SourceState state) {
    constexpr const char* kNames[] = {"absent", "following", "closed", "dead"};
    return kNames[static_cast<int>(state)];
}

BusSource::BusSource(std::string name, uint64_t event_age_ns)
    : name_(std::move(name)), event_age_ns_(event_age_ns), change_no_(INSTRUMENT_SLOT_CNT) {
    vorn_bus::bus_path(name_);
}

bool BusSource::poll(Lanes& lanes, uint64_t now_ns) {
    bool took = false;
    if (now_ns >= next_look_ns_) {
        next_look_ns_ = now_ns + kLookNs;
        look_at_writer(lanes, now_ns);
    }
    if (cursor_) {
        took = read_ring(lanes, now_ns);
        // Not while the lanes are full: the ring goes first, and the table is behind it.
        if (table_due_ && cursor_->position() >= *table_due_ && !lanes.full()) {
            took = read_table(lanes, now_ns) || took;
        }
    }
    return took;
}

void BusSource::look_at_writer(Lanes& lanes, uint64_t now_ns) {
    if (!reader_ && !open(lanes, now_ns)) {
        return;
    }
    realtime_offset_ns_ = clock_offset_ns();
    const WriterState writer = reader_->writer_state();
    // A writer that has ended writes no more: when nothing is left of it, all has been taken in.
    const bool all = cursor_->behind() == 0 && !table_due_;
    if (writer == WriterState::kReplaced) {
        if (all || lanes.full()) { // a full house cannot hold up the feed of today
            if (!all) {
                counts_.dropped += cursor_->behind();
            }
            open(lanes, now_ns);
        }
        return;
    }
    const SourceState before = state_;
    state_ = writer == WriterState::kClosed ? SourceState::kClosed
             : writer == WriterState::kDead ? SourceState::kDead
                                            : SourceState::kFollowing;
    exhausted_ = all && state_ != SourceState::kFollowing;
    if (state_ != before && state_ != SourceState::kFollowing) {
        tell(state_ == SourceState::kClosed ? kEventClosed : kEventDead, reader_->generation(),
             lanes, now_ns);
    }
}

bool BusSource::open(Lanes& lanes, uint64_t now_ns) {
    realtime_offset_ns_ = clock_offset_ns();
    cursor_.reset();
    reader_.reset();
    exhausted_ = false;
    try {
        reader_ = std::make_unique<vorn_bus::BusReader>(name_);
    } catch (const vorn_bus::BusError& error) {
        problem_ = error.what();
        state_ = SourceState::kAbsent;
        return false;
    }
    problem_.clear();
    state_ = SourceState::kFollowing;
    cursor_ = reader_->follow_oldest();
    lost_ = 0;
    opened_at_ = reader_->ring_head();
    table_due_ = opened_at_;
    table_slot_ = 0;
    std::fill(change_no_.begin(), change_no_.end(), std::nullopt);
    tell(kEventOpened, reader_->generation(), lanes, now_ns);
    return true;
}

bool BusSource::read_ring(Lanes& lanes, uint64_t now_ns) {
    vorn_bus::RingRecord record;
    int taken = 0;
    while (taken < kRecordsAtOnce && !lanes.full() && cursor_->next(record)) {
        ++taken;
        if (cursor_->lost() != lost_) {
            note_lost(lanes, now_ns);
        }
        if ((record.flags & vorn_bus::kFlagEvent) != 0) {
            take_event(record, lanes, now_ns);
        } else if (record.slot < INSTRUMENT_SLOT_CNT) {
            take_update(record, lanes, now_ns);
        }
    }
    return taken != 0;
}

void BusSource::note_lost(Lanes& lanes, uint64_t now_ns) {
    counts_.dropped += cursor_->lost() - lost_;
    lost_ = cursor_->lost();
    table_due_ = reader_->ring_head();
    table_slot_ = 0;
    tell(kEventDropped, counts_.dropped, lanes, now_ns);
}

void BusSource::take_update(const vorn_bus::RingRecord& record, Lanes& lanes, uint64_t now_ns) {
    Outgoing message;
    message.receive_time_ns = to_realtime(record.receive_time_ns);
    message.sequence = record.number;
    message.generation = reader_->generation();
    message.flags = (record.flags & vorn_bus::kFlagReplay) != 0 ? kPayloadReplay : 0;
    message.slot = record.slot;
    message.record = record.record;
    change_no_[record.slot] = record.record.change_no;
    ++counts_.updates;
    lanes.push(record.slot, message, now_ns);
}

void BusSource::take_event(const vorn_bus::RingRecord& record, Lanes& lanes, uint64_t now_ns) {
    const vorn_md_event_t& event = record.event;
    if (event.type == VORN_MD_EVENT_PHASE && event.phase == VORN_MD_PHASE_LIVE) {
        table_due_ = std::max(record.number, table_due_.value_or(0));
        table_slot_ = 0;
    }
    const uint64_t age = now_ns > record.receive_time_ns ? now_ns - record.receive_time_ns : 0;
    if (record.number <= opened_at_ && age > event_age_ns_) {
        ++counts_.stale_events;
        return;
    }
    Outgoing message;
    message.is_event = true;
    message.receive_time_ns = to_realtime(record.receive_time_ns);
    message.sequence = record.number;
    message.generation = reader_->generation();
    message.slot = record.slot;
    message.event = event;
    message.event.time_ns = message.receive_time_ns;
    ++counts_.events;
    lanes.push(kEventLane, message, now_ns);
}

void BusSource::tell(uint32_t type, uint64_t count, Lanes& lanes, uint64_t now_ns) {
    Outgoing message;
    message.is_event = true;
    message.receive_time_ns = to_realtime(now_ns);
    message.sequence = cursor_->position();
    message.generation = reader_->generation();
    message.slot = vorn_bus::kNoSlot;
    message.event = {};
    message.event.size = sizeof(message.event);
    message.event.type = type;
    message.event.time_ns = message.receive_time_ns;
    message.event.count = count;
    ++counts_.events;
    lanes.push(kEventLane, message, now_ns);
}

// What the ring has told of, or will tell of, is passed over.
bool BusSource::read_table(Lanes& lanes, uint64_t now_ns) {
    bool took = false;
    for (; table_slot_ < INSTRUMENT_SLOT_CNT; ++table_slot_) {
        if (lanes.full()) {
            return took;
        }
        vorn_bus::Slot entry;
        if (reader_->read_slot(table_slot_, entry) != vorn_bus::SlotResult::kFilled ||
            entry.record.inst_id[0] == 0 || entry.ring_number > cursor_->position() ||
            (change_no_[table_slot_] && entry.record.change_no <= *change_no_[table_slot_])) {
            continue;
        }
        Outgoing message;
        message.receive_time_ns = to_realtime(entry.receive_time_ns);
        message.sequence = entry.ring_number;
        message.generation = reader_->generation();
        message.flags = kPayloadValue;
        message.slot = table_slot_;
        message.record = entry.record;
        change_no_[table_slot_] = entry.record.change_no;
        ++counts_.values;
        lanes.push(table_slot_, message, now_ns);
        took = true;
    }
    table_due_.reset();
    table_slot_ = 0;
    return took;
}

} // namespace vorn_cli
