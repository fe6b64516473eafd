#include "tools/vorn/feed/card_tap.h"

#include "ExanicMdImpl.h"
#include "tools/vorn/feed/card_time.h"
#include "wirekit/bytes.h"

#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

namespace vorn_cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDecodePort = 0;
constexpr int kRawPort = 1;
constexpr uint32_t kRawSwitch = 512; // word of the register window
constexpr ssize_t kLapped = -256;
constexpr int64_t kCacheEntryHead = 8;
constexpr int64_t kLargestCacheEntry = kCacheEntryHead + RECV_BUF_SIZE;
constexpr uint32_t kSmallestBuffer = 24;
constexpr std::size_t kOptionCodeIndex = 6;
constexpr uint16_t kIncremental = 3; // header of an incremental message

// One run. The feed's calls have no context argument, so there is one for the process.
struct Tap {
    TapTopics topics;
    FeedWatcher* watcher = nullptr;
    FrameKeeper* keeper = nullptr;
    bool in_step = false;          // the keeper's answer
    std::atomic<bool> busy{false}; // in step: one path is being polled
    TapCounters counters;
    std::atomic<uint64_t> raw_frames{0}; // counted on the snapshot decoder's thread

    share* table = nullptr;
    const volatile uint32_t* registers = nullptr;
    // The buffer that a port's reader has now; a restart acquires new ones.
    std::array<std::atomic<exanic_rx_t*>, 2> rx{};

    FeedPhase phase = FeedPhase::kBringUp;
    Clock::time_point phase_since{};

    // The feed's cache as its put offset and its count: they decide how long a replay lasts.
    int64_t cache_offset = 0;
    int64_t cached = 0;
    uint64_t updates = 0; // callbacks, to tell an applied buffer
    bool updated = false; // there was a callback in this cycle

    // The last live poll handed out a buffer that follows its record's change number: it is
    // applied, with a callback, or undone, without one.
    bool pending = false;
    uint64_t updates_before = 0;
};

Tap* g_tap = nullptr;

void enter(Tap& tap, FeedPhase phase) {
    if (phase == tap.phase) {
        return;
    }
    const auto now = Clock::now();
    tap.counters.time_in[static_cast<std::size_t>(tap.phase)] += now - tap.phase_since;
    tap.phase = phase;
    tap.phase_since = now;
    tap.watcher->on_phase(phase);
}

// Slot of an instrument, or -1.
int64_t slot_of(const TapTopics& topics, int topic, uint32_t number) {
    if (topic == topics.shfe[0] || topic == topics.shfe[1]) {
        return number < SHFE_MAX_INST_CNT ? int64_t{number} : -1;
    }
    if (topic == topics.ine[0] || topic == topics.ine[1]) {
        return number < INE_MAX_INST_CNT ? LAST_SLOT - int64_t{number} : -1;
    }
    return -1;
}

// Whether the buffer handed out by the poll before was applied.
void settle(Tap& tap) {
    if (tap.pending) {
        tap.pending = false;
        ++(tap.updates != tap.updates_before ? tap.counters.applied : tap.counters.restored);
    }
}

// What the feed will do with a live buffer, told from the record as it is before.
void judge_live(Tap& tap, const uint8_t* buffer) {
    TapCounters& counters = tap.counters;
    const int64_t slot =
        slot_of(tap.topics, wirekit::get_le16(buffer), wirekit::get_le32(buffer + 14));
    const bool incremental = wirekit::get_le16(buffer + 12) == kIncremental;
    if (slot < 0 || tap.table == nullptr) {
        ++counters.other;
        return;
    }
    const instrument& record = tap.table->instmts[slot];
    const uint32_t change_no = wirekit::get_le32(buffer + 18);
    if (record.inst_id[0] == '\0') {
        ++counters.unsubscribed;
    } else if (!tap.topics.options && record.inst_id[kOptionCodeIndex] != '\0') {
        ++counters.options_skipped;
    } else if (!incremental) {
        ++counters.other;
    } else if (change_no == record.change_no + 1) {
        tap.pending = true;
        tap.updates_before = tap.updates;
    } else if (change_no <= record.change_no) {
        ++counters.stale;
    } else {
        ++counters.gaps;
    }
}

// The poll was made to put something into the cache.
void note_cached(Tap& tap, uint32_t size) {
    if (tap.cache_offset + kLargestCacheEntry > CACHE_BUF_SIZE) {
        tap.cache_offset = 0;
        tap.cached = 0;
    }
    tap.cache_offset += kCacheEntryHead + size;
    ++tap.cached;
    ++tap.counters.cached;
}

// Which phase this poll of the decode port belongs to.
void follow_phase(Tap& tap) {
    const bool raw_on = tap.registers != nullptr && tap.registers[kRawSwitch] != 0;
    if (raw_on) {
        enter(tap, FeedPhase::kSnapshot);
    } else if (tap.phase == FeedPhase::kSnapshot) {
        enter(tap, tap.cached > 0 ? FeedPhase::kReplay : FeedPhase::kLive);
    } else if (tap.phase == FeedPhase::kReplay && tap.cached == 0) {
        enter(tap, FeedPhase::kLive);
    }
}

void before_decode_poll(Tap& tap) {
    settle(tap);
    follow_phase(tap);
}

void after_decode_poll(Tap& tap, const char* buffer, ssize_t result) {
    const bool usable = result >= static_cast<ssize_t>(kSmallestBuffer) && result <= RECV_BUF_SIZE;
    if (usable) {
        ++tap.counters.decode_buffers;
        tap.watcher->on_decode_buffer({buffer, static_cast<std::size_t>(result)});
    } else if (result == kLapped) {
        ++tap.counters.overflows;
    } else if (result < 0) {
        ++tap.counters.damaged;
    } else if (result > 0) {
        ++tap.counters.abnormal;
    }
    if (tap.phase == FeedPhase::kLive) {
        if (usable) {
            judge_live(tap, reinterpret_cast<const uint8_t*>(buffer));
        }
        return;
    }
    if (usable) {
        note_cached(tap, static_cast<uint32_t>(result));
    }
    if (tap.phase == FeedPhase::kReplay) {
        // Each pass of the replay takes one in, if there is one, and one out.
        --tap.cached;
        ++tap.counters.replayed;
    }
}

void on_update(instrument* record) {
    Tap& tap = *g_tap;
    ++tap.updates;
    if (!tap.updated) {
        tap.updated = true;
        tap.watcher->on_first_update(
            tap.phase == FeedPhase::kReplay ? static_cast<uint64_t>(tap.cached) : 0);
    }
    tap.watcher->on_update(
        *record, tap.table == nullptr ? 0 : static_cast<uint32_t>(record - tap.table->instmts));
}

} // namespace

uint64_t time_of_receipt_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

const char* phase_name(FeedPhase phase) {
    static constexpr const char* kNames[kFeedPhases] = {"bring-up", "snapshot", "replay", "live",
                                                        "over"};
    return kNames[static_cast<std::size_t>(phase)];
}

CardTap::CardTap(const TapTopics& topics, FeedWatcher& watcher) {
    g_tap = new Tap;
    g_tap->topics = topics;
    g_tap->watcher = &watcher;
    g_tap->keeper = watcher.frame_keeper();
    g_tap->in_step = g_tap->keeper != nullptr && g_tap->keeper->in_step();
    g_tap->phase_since = Clock::now();
    set_update_md_callback(on_update);
}

CardTap::~CardTap() {
    set_update_md_callback(nullptr);
    delete g_tap;
    g_tap = nullptr;
}

void CardTap::finish() {
    settle(*g_tap);
    g_tap->counters.raw_frames = g_tap->raw_frames.load();
    enter(*g_tap, FeedPhase::kOver);
}

const TapCounters& CardTap::counters() const {
    return g_tap->counters;
}

} // namespace vorn_cli

using vorn_cli::g_tap;

// The linker's names: __wrap_X is called where X was, __real_X is X.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

exanic_t* __real_exanic_acquire_handle(const char* device_name);
exanic_rx_t* __real_exanic_acquire_rx_buffer(exanic_t* exanic, int port_number, int buffer_number);
volatile uint32_t* __real_exanic_get_devkit_registers(exanic_t* exanic);
ssize_t __real_exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                                    exanic_cycles32_t* timestamp);
int __real_posix_memalign(void** memory, size_t alignment, size_t size);

exanic_t* __wrap_exanic_acquire_handle(const char* device_name) {
    if (g_tap != nullptr) {
        vorn_cli::settle(*g_tap); // a cycle may end without another poll
        ++g_tap->counters.cycles;
        g_tap->updated = false;
        // A cache that failed in its replay was cleared; one that ran dry keeps its put offset,
        // unless recovery starts every cycle with an empty one.
        if (g_tap->topics.recovery || g_tap->phase == vorn_cli::FeedPhase::kReplay) {
            g_tap->cache_offset = 0;
        }
        g_tap->cached = 0;
        vorn_cli::enter(*g_tap, vorn_cli::FeedPhase::kBringUp);
    }
    return __real_exanic_acquire_handle(device_name);
}

exanic_rx_t* __wrap_exanic_acquire_rx_buffer(exanic_t* exanic, int port_number, int buffer_number) {
    exanic_rx_t* rx = __real_exanic_acquire_rx_buffer(exanic, port_number, buffer_number);
    if (g_tap != nullptr &&
        (port_number == vorn_cli::kDecodePort || port_number == vorn_cli::kRawPort)) {
        g_tap->rx[static_cast<std::size_t>(port_number)].store(rx);
    }
    return rx;
}

volatile uint32_t* __wrap_exanic_get_devkit_registers(exanic_t* exanic) {
    volatile uint32_t* registers = __real_exanic_get_devkit_registers(exanic);
    if (g_tap != nullptr) {
        g_tap->registers = registers;
    }
    return registers;
}

// One poll of the card, with what comes of it handed to the keeper. In step, a poll that finds the
// other path being polled is one that finds nothing.
static ssize_t poll_card(vorn_cli::Tap& tap, bool decode, exanic_rx_t* rx, char* rx_buf,
                         size_t rx_buf_size, exanic_cycles32_t* timestamp) {
    if (tap.keeper == nullptr) {
        return __real_exanic_receive_frame(rx, rx_buf, rx_buf_size, timestamp);
    }
    if (tap.in_step && tap.busy.exchange(true, std::memory_order_acquire)) {
        return 0;
    }
    const ssize_t result = __real_exanic_receive_frame(rx, rx_buf, rx_buf_size, timestamp);
    if (result > 0 && static_cast<size_t>(result) <= rx_buf_size) {
        const std::span<const char> frame(rx_buf, static_cast<size_t>(result));
        const uint64_t time_ns = vorn_cli::frame_time_ns(rx);
        if (decode) {
            tap.keeper->keep_decode(frame, time_ns);
        } else {
            tap.keeper->keep_raw(frame, time_ns);
        }
    }
    if (tap.in_step) {
        tap.busy.store(false, std::memory_order_release);
    }
    return result;
}

ssize_t __wrap_exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                                    exanic_cycles32_t* timestamp) {
    if (g_tap == nullptr) {
        return __real_exanic_receive_frame(rx, rx_buf, rx_buf_size, timestamp);
    }
    vorn_cli::Tap& tap = *g_tap;
    if (rx == tap.rx[vorn_cli::kDecodePort].load(std::memory_order_relaxed)) {
        vorn_cli::before_decode_poll(tap);
        const ssize_t result = poll_card(tap, true, rx, rx_buf, rx_buf_size, timestamp);
        if (result != 0 || tap.phase == vorn_cli::FeedPhase::kReplay) {
            vorn_cli::after_decode_poll(tap, rx_buf, result);
        }
        return result;
    }
    const ssize_t result = poll_card(tap, false, rx, rx_buf, rx_buf_size, timestamp);
    if (result > 0 && static_cast<size_t>(result) <= rx_buf_size) {
        tap.raw_frames.fetch_add(1, std::memory_order_relaxed);
        tap.watcher->on_raw_frame({rx_buf, static_cast<size_t>(result)});
    }
    return result;
}

// The instrument table is the one block of this size and alignment.
int __wrap_posix_memalign(void** memory, size_t alignment, size_t size) {
    const int result = __real_posix_memalign(memory, alignment, size);
    if (result == 0 && g_tap != nullptr && alignment == 8 && size == sizeof(share)) {
        g_tap->table = static_cast<share*>(*memory);
    }
    return result;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
