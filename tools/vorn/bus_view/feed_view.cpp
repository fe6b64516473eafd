#include "tools/vorn/bus_view/feed_view.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace vorn_cli {

namespace {

using vorn_bus::SlotResult;
using vorn_bus::WriterState;

InstrumentState state_of(uint32_t slot, const vorn_bus::Slot& entry) {
    return {slot, entry.sequence, entry.receive_time_ns, entry.record};
}

} // namespace

const char* feed_event_name(FeedEventKind kind) {
    static constexpr const char* kNames[] = {"phase",  "gap",  "restart", "round",  "overflow",
                                             "opened", "dead", "closed",  "revived"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(FeedEventKind::kRevived) + 1);
    return kNames[static_cast<std::size_t>(kind)];
}

std::string instrument_text(const unsigned char (&inst_id)[16]) {
    std::string text;
    for (const unsigned char byte : inst_id) {
        if (byte == 0) {
            break;
        }
        text += byte > 0x20 && byte < 0x7f ? static_cast<char>(byte) : '?';
    }
    return text;
}

FeedView::FeedView(FeedViewOptions options)
    : options_(std::move(options)), window_(options_.window_ns) {
    vorn_bus::bus_path(options_.bus);
    status_.bus = options_.bus;
}

void FeedView::poll(FeedListener* listener) {
    poll(listener, vorn_bus::clock_ns(CLOCK_MONOTONIC));
}

void FeedView::poll(FeedListener* listener, uint64_t now_ns) {
    window_.advance(now_ns);
    follow_writer(listener, now_ns);
    judge(now_ns);
}

void FeedView::follow_writer(FeedListener* listener, uint64_t now_ns) {
    if (!reader_ && !open(listener, now_ns)) {
        return;
    }
    // Asked first: a writer that is known to have been replaced or to have ended writes no more,
    // so that the ring is then read to its end.
    WriterState writer = reader_->writer_state();
    read_ring(listener, now_ns);
    if (writer == WriterState::kReplaced) {
        if (!open(listener, now_ns)) {
            return;
        }
        writer = reader_->writer_state();
        read_ring(listener, now_ns);
    }
    read_counters();
    // By this clock, which a caller may have set ahead.
    const uint64_t beat = vorn_bus::clock_ns(CLOCK_MONOTONIC) - reader_->heartbeat_age_ns();
    status_.heartbeat_age_ns = now_ns > beat ? now_ns - beat : 0;
    if (writer == WriterState::kClosed) {
        note_condition(WriterCondition::kClosed, listener, now_ns);
    } else if (writer == WriterState::kDead || status_.heartbeat_age_ns > kDeadAfterNs) {
        note_condition(WriterCondition::kDead, listener, now_ns);
    } else {
        note_condition(WriterCondition::kAlive, listener, now_ns);
    }
}

bool FeedView::open(FeedListener* listener, uint64_t now_ns) {
    std::unique_ptr<vorn_bus::BusReader> reader;
    try {
        reader = std::make_unique<vorn_bus::BusReader>(options_.bus);
    } catch (const vorn_bus::BusError& error) {
        close(error.what());
        return false;
    }
    close("");
    reader_ = std::move(reader);
    cursor_ = reader_->follow_oldest();
    condition_ = WriterCondition::kAlive;
    window_.begin_at(now_ns);
    window_.advance(now_ns);
    const vorn_bus::Header& header = reader_->header();
    status_.writer_pid = header.writer_pid;
    status_.generation = header.generation;
    status_.ring_records = header.ring_records;
    status_.realtime_offset_ns =
        static_cast<int64_t>(header.clock_realtime_ns - header.clock_monotonic_ns);
    if (listener != nullptr) {
        listener->on_open(*reader_);
    }
    FeedEvent event;
    event.kind = FeedEventKind::kOpened;
    event.time_ns = header.clock_realtime_ns;
    event.count = header.generation;
    note(event, listener);
    return true;
}

// Forgets all of a bus but its events.
void FeedView::close(const std::string& problem) {
    cursor_.reset();
    reader_.reset();
    status_ = {};
    status_.bus = options_.bus;
    status_.problem = problem;
    window_.clear();
    frame_samples_.clear();
    last_update_ns_ = 0;
    phase_since_ns_ = 0;
}

void FeedView::read_ring(FeedListener* listener, uint64_t now_ns) {
    vorn_bus::RingRecord record;
    const uint64_t end = reader_->ring_head();
    while (cursor_->position() < end && cursor_->next(record)) {
        const uint64_t time_ns = std::min(record.receive_time_ns, now_ns);
        if (const uint64_t lost = cursor_->lost() - status_.ring_lost; lost > 0) {
            status_.ring_lost += lost;
            window_.add_lost(lost, now_ns);
            if (listener != nullptr) {
                listener->on_lost(lost);
            }
        }
        if ((record.flags & vorn_bus::kFlagEvent) != 0) {
            note_event(record.event, listener);
            continue;
        }
        if (last_update_ns_ == 0) {
            window_.begin_at(time_ns);
        }
        window_.add(record.slot, time_ns);
        last_update_ns_ = std::max(last_update_ns_, time_ns);
        if (listener != nullptr && record.slot < vorn_bus::BusReader::slots()) {
            listener->on_update(record, to_realtime(time_ns));
        }
    }
    status_.ring_head = reader_->ring_head();
    status_.ring_laps = cursor_->laps();
}

void FeedView::read_counters() {
    vorn_bus::Counters block;
    if (reader_->read_counters(block) != SlotResult::kFilled) {
        return;
    }
    status_.has_counters = true;
    status_.counters = block.counters;
    status_.realtime_offset_ns = static_cast<int64_t>(block.realtime_ns - block.time_ns);
    last_update_ns_ = std::max(last_update_ns_, block.counters.last_update_ns);
    // The ring may know of a phase that was not there yet at the last heartbeat.
    if (block.counters.phase_since_ns >= phase_since_ns_) {
        phase_since_ns_ = block.counters.phase_since_ns;
        status_.phase = block.counters.phase;
    }
    if (!frame_samples_.empty() && block.counters.frames < frame_samples_.back().frames) {
        frame_samples_.clear(); // the feed was begun anew
    }
    if (frame_samples_.empty() || frame_samples_.back().time_ns < block.time_ns) {
        frame_samples_.push_back({block.time_ns, block.counters.frames});
    }
    while (frame_samples_.size() > 2 &&
           frame_samples_.back().time_ns - frame_samples_[1].time_ns >= options_.window_ns) {
        frame_samples_.pop_front();
    }
}

void FeedView::note_event(const vorn_md_event_t& event, FeedListener* listener) {
    if (event.type < VORN_MD_EVENT_PHASE || event.type > VORN_MD_EVENT_OVERFLOW) {
        return; // of a writer that knows more
    }
    FeedEvent noted;
    noted.kind = static_cast<FeedEventKind>(event.type - VORN_MD_EVENT_PHASE);
    noted.time_ns = to_realtime(event.time_ns);
    noted.phase = event.phase;
    noted.previous_phase = event.previous_phase;
    noted.count = event.count;
    noted.feed = event.feed;
    if (noted.kind == FeedEventKind::kGap) {
        noted.slot = event.slot;
        noted.expected = event.expected;
        noted.received = event.received;
        noted.inst_id = instrument_text(event.inst_id);
    }
    if (noted.kind == FeedEventKind::kPhase && event.time_ns >= phase_since_ns_) {
        phase_since_ns_ = event.time_ns;
        status_.phase = event.phase;
    }
    note(noted, listener);
}

void FeedView::note(FeedEvent event, FeedListener* listener) {
    event.id = ++last_event_id_;
    events_.push_back(std::move(event));
    if (listener != nullptr) {
        listener->on_event(events_.back());
    }
    while (events_.size() > std::max<std::size_t>(options_.events, 1)) {
        events_.pop_front();
    }
}

void FeedView::note_condition(WriterCondition condition, FeedListener* listener, uint64_t now_ns) {
    if (condition == condition_) {
        return;
    }
    condition_ = condition;
    FeedEvent event;
    event.kind = condition == WriterCondition::kDead     ? FeedEventKind::kDead
                 : condition == WriterCondition::kClosed ? FeedEventKind::kClosed
                                                         : FeedEventKind::kRevived;
    event.time_ns = to_realtime(now_ns);
    event.phase = status_.phase;
    note(event, listener);
}

void FeedView::judge(uint64_t now_ns) {
    FeedSigns signs;
    signs.bus = reader_ != nullptr;
    signs.writer = condition_;
    signs.heartbeat_age_ns = status_.heartbeat_age_ns;
    signs.phase = status_.phase;
    signs.phase_since_ns = phase_since_ns_;
    signs.last_update_ns = last_update_ns_;
    signs.now_ns = now_ns;
    signs.stale_after_ns = options_.stale_after_ns;
    status_.state = feed_state(signs);
    status_.time_ns = vorn_bus::clock_ns(CLOCK_REALTIME);
    status_.phase_since_ns = to_realtime(phase_since_ns_);
    status_.last_update_ns = to_realtime(last_update_ns_);
    const bool aged = last_update_ns_ != 0 && now_ns > last_update_ns_;
    status_.age_ns = aged ? now_ns - last_update_ns_ : 0;
    const bool lives = reader_ != nullptr && condition_ == WriterCondition::kAlive;
    status_.frames_per_s = lives ? frame_rate() : 0;
    status_.updates_per_s = lives ? static_cast<double>(window_.updates() + window_.lost()) * 1e9 /
                                        static_cast<double>(window_.span_ns(now_ns))
                                  : 0;
}

double FeedView::frame_rate() const {
    if (frame_samples_.size() < 2) {
        return 0;
    }
    const FrameSample& first = frame_samples_.front();
    const FrameSample& last = frame_samples_.back();
    return static_cast<double>(last.frames - first.frames) * 1e9 /
           static_cast<double>(last.time_ns - first.time_ns);
}

uint64_t FeedView::to_realtime(uint64_t time_ns) const {
    return time_ns == 0 ? 0 : time_ns + static_cast<uint64_t>(status_.realtime_offset_ns);
}

std::vector<BusyInstrument> FeedView::busiest(std::size_t most) const {
    const double read = static_cast<double>(window_.updates());
    const double share = read > 0 ? status_.updates_per_s / read : 0;
    std::vector<BusyInstrument> busy;
    for (const UpdateWindow::Count& count : window_.busiest(most)) {
        const auto state = instrument_at(count.slot);
        busy.push_back({count.slot, state ? instrument_text(state->record.inst_id) : std::string(),
                        count.updates, static_cast<double>(count.updates) * share});
    }
    return busy;
}

std::vector<InstrumentState> FeedView::instruments() const {
    std::vector<InstrumentState> all;
    for (uint32_t slot = 0; slot < vorn_bus::BusReader::slots(); ++slot) {
        if (auto state = instrument_at(slot)) {
            all.push_back(*state);
        }
    }
    return all;
}

std::optional<InstrumentState> FeedView::instrument_at(uint32_t slot) const {
    vorn_bus::Slot entry;
    if (!reader_ || reader_->read_slot(slot, entry) != SlotResult::kFilled ||
        entry.record.inst_id[0] == 0) {
        return std::nullopt;
    }
    InstrumentState state = state_of(slot, entry);
    state.time_ns = to_realtime(state.time_ns);
    return state;
}

std::optional<InstrumentState> FeedView::instrument_named(std::string_view inst_id) const {
    for (uint32_t slot = 0; slot < vorn_bus::BusReader::slots(); ++slot) {
        const auto state = instrument_at(slot);
        if (state && instrument_text(state->record.inst_id) == inst_id) {
            return state;
        }
    }
    return std::nullopt;
}

} // namespace vorn_cli
