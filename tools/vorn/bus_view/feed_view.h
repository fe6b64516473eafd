#pragma once

// A running feed as a program sees it that looks at its bus: what state it is in, what happens, how
// much, which instruments move most, and their records.
//
//     FeedView view({.bus = "live"});
//     for (;;) {
//         view.poll();                       // takes in what has been written since
//         view.status().state; ...
//     }
//
// A bus that is not there is a state (absent), as is a writer that has died. The view opens the
// bus when it appears, and again when a new writer has taken over; the events of before stay.
//
// Poll often enough: the ring holds 65,536 records unless its writer was told otherwise, and what
// is overwritten before a poll counts as lost. Every 50 ms is enough for a million a second. An
// idle poll costs some microseconds. Nothing here waits for the writer or is seen by it.
//
// A FeedView is for one thread. Times that leave it are nanoseconds since the Unix epoch.

#include "ExanicMdMonitor.h"
#include "bus/bus_reader.h"
#include "tools/vorn/bus_view/feed_state.h"
#include "tools/vorn/bus_view/update_window.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

struct FeedViewOptions {
    std::string bus = vorn_bus::kDefaultName;
    uint64_t stale_after_ns = kStaleAfterNs;
    uint64_t window_ns = 5'000'000'000; // of the rates and of the busiest instruments
    std::size_t events = 256;           // the newest ones that are kept
};

enum class FeedEventKind : uint8_t {
    // What the feed tells.
    kPhase,    // phase, previous_phase
    kGap,      // slot, inst_id, expected, received; count: gaps so far
    kRestart,  // count: restarts so far
    kRound,    // feed; count: instrument numbers of its exchange
    kOverflow, // count: overflows so far
    // What is seen of the writer.
    kOpened, // a bus was opened, the first or that of a new writer; count: its generation; the time
             // is that of the writer's beginning
    kDead,   // the writer has died
    kClosed, // the writer has ended in order
    kRevived, // a writer that was taken for dead beats again
};
const char* feed_event_name(FeedEventKind kind); // "phase", "gap", ...

struct FeedEvent {
    uint64_t id = 0; // 1 for the first event of this view, then one more each
    uint64_t time_ns = 0;
    FeedEventKind kind = FeedEventKind::kPhase;
    uint32_t phase = 0; // of the feed, VORN_MD_PHASE_...
    uint32_t previous_phase = 0;
    uint64_t count = 0;
    uint32_t slot = vorn_bus::kNoSlot;
    uint32_t expected = 0;
    uint32_t received = 0;
    uint32_t feed = 0;   // VORN_MD_FEED_...
    std::string inst_id; // printable ASCII, see instrument_text()
};

struct FeedStatus {
    FeedState state = FeedState::kAbsent;
    std::string bus;             // name
    std::string problem;         // absent: why, and what to do; else empty
    uint64_t time_ns = 0;        // of the poll
    uint32_t phase = 0;          // VORN_MD_PHASE_...
    uint64_t phase_since_ns = 0; // 0: the feed has not begun
    // The newest update of the feed; 0: none yet. The age is that at the poll.
    uint64_t last_update_ns = 0;
    uint64_t age_ns = 0;

    uint32_t writer_pid = 0; // this and the next two: 0 when absent
    uint64_t generation = 0;
    uint64_t heartbeat_age_ns = 0;

    // Over the last window_ns, or since the first update. Zero unless the writer lives.
    double updates_per_s = 0; // update records on the bus
    double frames_per_s = 0;  // decode buffers, by the counters

    uint64_t ring_records = 0; // how many the ring holds
    uint64_t ring_head = 0;    // number of the newest
    uint64_t ring_lost = 0;    // overwritten before this view read them, since the bus was opened
    uint64_t ring_laps = 0;    // in how many pieces

    bool has_counters = false;      // the writer has beaten once
    vorn_md_counters_t counters{};  // as of the last heartbeat, its times CLOCK_MONOTONIC
    int64_t realtime_offset_ns = 0; // to be added to a CLOCK_MONOTONIC time of the bus
};

struct InstrumentState {
    uint32_t slot = 0;
    uint64_t sequence = 0; // another one means another record
    uint64_t time_ns = 0;  // when it was received, or taken over with the whole table
    instrument record{};
};

struct BusyInstrument {
    uint32_t slot = 0;
    std::string inst_id;
    uint64_t updates = 0;     // that were read in the window
    double updates_per_s = 0; // lost records shared out by what was read
};

// Told of everything that a poll takes in, in the order of the ring. After a bus has been opened
// that is first what its ring still holds, the newest half of its size at most.
class FeedListener {
public:
    FeedListener() = default;
    FeedListener(const FeedListener&) = delete;
    FeedListener& operator=(const FeedListener&) = delete;
    virtual ~FeedListener() = default;

    // Valid until the next call of on_open, or the end of the view.
    virtual void on_open(const vorn_bus::BusReader&) {}
    virtual void on_update(const vorn_bus::RingRecord&, uint64_t /*time_ns*/) {}
    virtual void on_event(const FeedEvent&) {}
    virtual void on_lost(uint64_t /*records*/) {} // before the records behind them
};

class FeedView {
public:
    // Opens nothing yet. Throws BusError when the name cannot be one.
    explicit FeedView(FeedViewOptions options);

    // Takes in all that has been written until now. `now_ns` is CLOCK_MONOTONIC.
    void poll(FeedListener* listener = nullptr);
    void poll(FeedListener* listener, uint64_t now_ns);

    const FeedViewOptions& options() const { return options_; }
    // As of the last poll.
    const FeedStatus& status() const { return status_; }
    const std::deque<FeedEvent>& events() const { return events_; } // oldest first
    std::vector<BusyInstrument> busiest(std::size_t most) const;
    uint64_t updates_in_window(uint32_t slot) const { return window_.updates(slot); }

    // Read now, from the table. Without a bus there are none.
    std::vector<InstrumentState> instruments() const; // all that have an identifier, by slot
    std::optional<InstrumentState> instrument_at(uint32_t slot) const;
    std::optional<InstrumentState> instrument_named(std::string_view inst_id) const;

private:
    struct FrameSample {
        uint64_t time_ns;
        uint64_t frames;
    };

    void follow_writer(FeedListener* listener, uint64_t now_ns);
    bool open(FeedListener* listener, uint64_t now_ns);
    void close(const std::string& problem);
    void read_ring(FeedListener* listener, uint64_t now_ns);
    void read_counters();
    void note_event(const vorn_md_event_t& event, FeedListener* listener);
    void note(FeedEvent event, FeedListener* listener);
    void note_condition(WriterCondition condition, FeedListener* listener, uint64_t now_ns);
    void judge(uint64_t now_ns);
    double frame_rate() const;
    uint64_t to_realtime(uint64_t time_ns) const;

    FeedViewOptions options_;
    FeedStatus status_;
    std::unique_ptr<vorn_bus::BusReader> reader_;
    std::optional<vorn_bus::RingCursor> cursor_; // of reader_
    WriterCondition condition_ = WriterCondition::kAlive;
    std::deque<FeedEvent> events_;
    uint64_t last_event_id_ = 0;
    UpdateWindow window_;
    std::deque<FrameSample> frame_samples_;
    // CLOCK_MONOTONIC; the newest of what ring and counters say.
    uint64_t last_update_ns_ = 0;
    uint64_t phase_since_ns_ = 0;
};

// An instrument identifier as text: up to the first NUL, every other byte than printable ASCII as
// '?'.
std::string instrument_text(const unsigned char (&inst_id)[16]);

} // namespace vorn_cli
