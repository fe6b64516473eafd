#pragma once

// The bus: a mapped file in which one writer shows a running feed to any number of readers in other
// processes. docs/bus.md has the layout for readers in other languages; a test holds the two
// together.
//
//   header | counters | table of 20480 slots | ring of fixed records
//
// Readers map the file read-only and take nothing: no lock, no count, no place in a queue. The
// writer cannot tell how many there are, so none of them can slow it; a reader that falls behind
// finds its place overwritten and knows by the record numbers how much it has missed.
//
// What makes that safe is a number in front of everything that changes: it says by its value
// whether the bytes behind it are whole, and a reader that copies looks at it before and after.
// Words are stored with release and loaded with acquire order, which on x86-64 are plain moves.
//
// All numbers are little-endian. Times are CLOCK_MONOTONIC in nanoseconds.
//
// The writer never changes the size of a file. A writer that takes over makes a file of its own,
// puts it in the place of the old one and marks the old one as replaced; readers of the old one
// keep what they have mapped until they open the name again.

#include "ExanicMdMonitor.h"
#include "ExanicMdTypes.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vorn_bus {

// The first bytes of a file.
inline constexpr char kMagic[8] = {'V', 'O', 'R', 'N', 'B', 'U', 'S', '\0'};
inline constexpr uint32_t kVersion = 1;          // of the layout; a reader refuses another
inline constexpr uint32_t kNoSlot = 0xffffffff;  // an event without an instrument
inline constexpr char kDirectory[] = "/dev/shm"; // where the files of names lie
inline constexpr char kDefaultName[] = "live";   // of a bus that nobody has named

// Values of Header::state.
inline constexpr uint64_t kStateOpen = 1;     // the writer writes, or has died
inline constexpr uint64_t kStateClosed = 2;   // the writer has ended in order
inline constexpr uint64_t kStateReplaced = 3; // another writer has taken over, in a file of its own

// Bits of RingRecord::flags.
inline constexpr uint32_t kFlagEvent = 1;  // carries a vorn_md_event_t instead of an instrument
inline constexpr uint32_t kFlagReplay = 2; // update of the cached changes behind a snapshot

// All but the last three members are written before the file has its name and never again.
struct Header {
    char magic[8];                 //   0: kMagic
    uint32_t version;              //   8: kVersion
    uint32_t header_size;          //  12: 4096
    uint64_t file_size;            //  16: bytes
    uint64_t generation;           //  24: 1 for the first writer of the name, then one more each
    uint64_t counters_offset;      //  32: bytes from the beginning of the file, as all offsets
    uint32_t counters_size;        //  40: bytes of the counters' block
    uint32_t record_size;          //  44: bytes of an instrument record, 336
    uint64_t table_offset;         //  48
    uint32_t table_slots;          //  56: 20480
    uint32_t slot_size;            //  60: bytes from one slot to the next
    uint64_t ring_offset;          //  64
    uint64_t ring_records;         //  72: a power of two
    uint32_t ring_record_size;     //  80: bytes from one record to the next
    uint32_t writer_pid;           //  84
    uint64_t writer_start_ticks;   //  88: when it began, field 22 of /proc/PID/stat
    uint64_t writer_pid_namespace; //  96: inode of its /proc/self/ns/pid; a pid means nothing else-
                                   //      where
    uint64_t heartbeat_interval_ns; // 104
    uint64_t clock_monotonic_ns;    // 112: the moment at which the file was made
    uint64_t clock_realtime_ns;     // 120: the same moment, since the Unix epoch
    alignas(64) uint64_t state;     // 128: kState...
    alignas(64) uint64_t
        heartbeat_ns;               // 192: stored every heartbeat interval, whatever the feed does
    alignas(64) uint64_t ring_head; // 256: how many ring records have been written
};

// The feed's counters as of the last heartbeat.
struct alignas(64) Counters {
    uint64_t sequence;           //  0: odd while the block is written
    uint64_t time_ns;            //  8: when they were read
    uint64_t realtime_ns;        // 16: the same moment, since the Unix epoch
    vorn_md_counters_t counters; // 24
};

// The newest state of one instrument.
struct alignas(64) Slot {
    uint64_t sequence;        //  0: odd while the slot is written, 0 before the first time
    uint64_t receive_time_ns; //  8: when the update came, or the table was taken over as a whole
    uint64_t ring_number; // 16: the ring record of this update; of the newest one before it when
                          //     the table was taken over as a whole
    instrument record;    // 24
};

// An update or an event of the ring.
struct alignas(64) RingRecord {
    uint64_t number; //  0: 1 for the first record, then one more each; 0 while it is written
    uint64_t receive_time_ns; //  8
    uint32_t slot;            // 16: of the instrument; kNoSlot: an event without one
    uint32_t flags;           // 20: kFlag...
    union {
        instrument record;     // 24: without kFlagEvent
        vorn_md_event_t event; // 24: with kFlagEvent; the rest is 0
    };
};

inline constexpr uint32_t kHeaderSize = 4096; // bytes in front of the counters

static_assert(sizeof(Header) == 320 && sizeof(Header) <= kHeaderSize);
static_assert(offsetof(Header, clock_realtime_ns) == 120);
static_assert(offsetof(Header, state) == 128);
static_assert(offsetof(Header, heartbeat_ns) == 192);
static_assert(offsetof(Header, ring_head) == 256);
static_assert(sizeof(Counters) == 448 && offsetof(Counters, counters) == 24);
static_assert(sizeof(Slot) == 384 && offsetof(Slot, record) == 24);
static_assert(sizeof(RingRecord) == 384 && offsetof(RingRecord, record) == 24);
static_assert(offsetof(RingRecord, event) == 24 && offsetof(RingRecord, flags) == 20);

// What cannot be opened, and why, in one line that says what to do.
class BusError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Letters, digits, '_', '-' and '.', not at the beginning; at most 64.
inline bool is_bus_name(std::string_view name) {
    constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    return !name.empty() && name.size() <= 64 && name.front() != '.' &&
           name.find_first_not_of(kAllowed) == std::string_view::npos;
}

// Path of a bus by name. A name with a slash is a path already.
inline std::string bus_path(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    if (!is_bus_name(name)) {
        throw BusError("'" + name +
                       "' is not a name for a bus: at most 64 letters, digits, '_', '-' and '.'");
    }
    return std::string(kDirectory) + "/vorn." + name + ".bus";
}

// A word that another process changes.
inline uint64_t load_acquire(const uint64_t& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
// The same from the other side.
inline void store_release(uint64_t& word, uint64_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// A word of a record, whatever its members are.
typedef uint64_t Word __attribute__((may_alias));

// Copies records word by word, each one whole. Acquire: what is loaded after these words is not
// older than they are. Release: what was stored before them is seen by whoever sees one of them.
template <typename Record>
void load_words(Record& to, const Record& from) {
    static_assert(sizeof(Record) % sizeof(uint64_t) == 0);
    const auto* word = reinterpret_cast<const Word*>(&from);
    auto* bytes = reinterpret_cast<char*>(&to);
    for (std::size_t i = 0; i < sizeof(Record) / sizeof(uint64_t); ++i) {
        const uint64_t value = __atomic_load_n(&word[i], __ATOMIC_ACQUIRE);
        std::memcpy(bytes + i * sizeof(value), &value, sizeof(value));
    }
}
// The same from the other side.
template <typename Record>
void store_words(Record& to, const Record& from) {
    static_assert(sizeof(Record) % sizeof(uint64_t) == 0);
    auto* word = reinterpret_cast<Word*>(&to);
    const auto* bytes = reinterpret_cast<const char*>(&from);
    for (std::size_t i = 0; i < sizeof(Record) / sizeof(uint64_t); ++i) {
        uint64_t value = 0;
        std::memcpy(&value, bytes + i * sizeof(value), sizeof(value));
        __atomic_store_n(&word[i], value, __ATOMIC_RELEASE);
    }
}

} // namespace vorn_bus
