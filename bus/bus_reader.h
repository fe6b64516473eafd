#pragma once

// Reads a bus from any process; header-only, C++20. Needs nothing of the feed but the records of
// ExanicMdTypes.h and ExanicMdMonitor.h.
//
//     vorn_bus::BusReader bus("live");
//     vorn_bus::RingCursor cursor = bus.follow();
//     vorn_bus::RingRecord record;
//     while (bus.writer_state() == vorn_bus::WriterState::kAlive) {
//         while (cursor.next(record)) { ... }
//         ... // wait as you like; cursor.lost() says what you have missed
//     }
//
// The file is believed in nothing: what its header says is tested against its size when it is
// opened, kept, and not read again. Bad contents give bad records, never a crash. Only a file that
// somebody makes shorter while it is mapped does (SIGBUS); the writer never does that, and only its
// user can.
//
// A BusReader is for one thread at a time as far as it is moved or destroyed; everything const may
// be called from several. Nothing here waits for the writer.

#include "bus/bus_layout.h"
#include "bus/bus_process.h"

#include <algorithm>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace vorn_bus {

// Whether somebody writes.
enum class WriterState : uint8_t {
    kAlive,    // it runs, and its heartbeat is on time
    kStalled,  // it runs, but its heartbeat is late by more than ten intervals: stopped or starved
    kDead,     // it ended without closing the bus
    kClosed,   // it ended in order
    kReplaced, // another writer has taken over, or the file was removed: open the name again
};

// "alive" and so on; never null.
inline const char* writer_state_name(WriterState state) {
    constexpr const char* kNames[] = {"alive", "stalled", "dead", "closed", "replaced"};
    return kNames[static_cast<int>(state)];
}

// What a look at a slot, or at the counters, brought.
enum class SlotResult : uint8_t {
    kFilled, // it is there, and whole
    kEmpty,  // never written, or not a slot
    kBusy, // being written for longer than a reader waits: the writer is stopped, or died just then
};

// The mapped file and what its header said when it was opened.
class Mapping {
public:
    explicit Mapping(const std::string& path) : path_(path) {
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (file < 0) {
            throw BusError(errno == ENOENT
                               ? "there is no bus " + path + ": start its writer (vorn publish)"
                               : "cannot open the bus " + path + ": " + std::strerror(errno));
        }
        struct stat status {};
        const bool regular = ::fstat(file, &status) == 0 && S_ISREG(status.st_mode);
        inode_ = status.st_ino;
        device_ = status.st_dev;
        size_ = regular ? static_cast<uint64_t>(status.st_size) : 0;
        void* address = size_ >= kHeaderSize
                            ? ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, file, 0)
                            : MAP_FAILED;
        const int error = errno;
        ::close(file);
        if (size_ < kHeaderSize) {
            refuse(regular ? "it is too short" : "it is not a regular file");
        }
        if (address == MAP_FAILED) {
            refuse(std::strerror(error));
        }
        bytes_ = static_cast<const char*>(address);
        try {
            std::memcpy(&header_, bytes_, sizeof(header_));
            check();
        } catch (...) {
            unmap();
            throw;
        }
    }
    ~Mapping() { unmap(); }
    Mapping(Mapping&& other) noexcept
        : path_(std::move(other.path_)), bytes_(std::exchange(other.bytes_, nullptr)),
          size_(other.size_), inode_(other.inode_), device_(other.device_), header_(other.header_) {
    }
    Mapping& operator=(Mapping&& other) noexcept {
        if (this != &other) {
            unmap();
            path_ = std::move(other.path_);
            bytes_ = std::exchange(other.bytes_, nullptr);
            size_ = other.size_;
            inode_ = other.inode_;
            device_ = other.device_;
            header_ = other.header_;
        }
        return *this;
    }

    const std::string& path() const { return path_; }
    const Header& kept() const { return header_; }
    const Header& live() const { return *reinterpret_cast<const Header*>(bytes_); }
    const Counters& counters() const {
        return *reinterpret_cast<const Counters*>(bytes_ + header_.counters_offset);
    }
    const Slot& slot(uint32_t slot) const {
        return *reinterpret_cast<const Slot*>(bytes_ + header_.table_offset +
                                              uint64_t{slot} * header_.slot_size);
    }
    const RingRecord& record(uint64_t index) const {
        return *reinterpret_cast<const RingRecord*>(bytes_ + header_.ring_offset +
                                                    (index & (header_.ring_records - 1)) *
                                                        header_.ring_record_size);
    }
    // Whether the name leads to another file by now.
    bool name_has_moved() const {
        struct stat status {};
        return ::stat(path_.c_str(), &status) != 0 || status.st_ino != inode_ ||
               status.st_dev != device_;
    }

private:
    [[noreturn]] void refuse(const std::string& why) const {
        throw BusError(path_ + " is not a bus that can be read: " + why);
    }
    void unmap() {
        if (bytes_ != nullptr) {
            ::munmap(const_cast<char*>(bytes_), size_);
            bytes_ = nullptr;
        }
    }
    // `count` records of `step` bytes, each at least `least`, inside the file.
    void check_area(const char* what, uint64_t offset, uint64_t count, uint64_t step,
                    uint64_t least) const {
        if (step < least || step % 64 != 0 || step > 1u << 20) {
            refuse(std::string("size of ") + what + ": " + std::to_string(step));
        }
        if (offset < kHeaderSize || offset % 64 != 0 || offset > size_ ||
            count > (size_ - offset) / step) {
            refuse(std::string(what) + " reach beyond the file");
        }
    }
    void check() const {
        if (std::memcmp(header_.magic, kMagic, sizeof(kMagic)) != 0) {
            refuse("it begins otherwise");
        }
        if (header_.version != kVersion) {
            refuse("layout version " + std::to_string(header_.version) + ", this reader knows " +
                   std::to_string(kVersion) + ": use the reader that came with its writer");
        }
        if (header_.header_size != kHeaderSize || header_.record_size != sizeof(instrument)) {
            refuse("header of " + std::to_string(header_.header_size) + " and records of " +
                   std::to_string(header_.record_size) + " bytes");
        }
        if (header_.file_size != size_) {
            refuse("it has " + std::to_string(size_) + " bytes, its header says " +
                   std::to_string(header_.file_size));
        }
        if (header_.table_slots != INSTRUMENT_SLOT_CNT) {
            refuse(std::to_string(header_.table_slots) + " slots");
        }
        const uint64_t ring = header_.ring_records;
        if (ring < 2 || (ring & (ring - 1)) != 0) {
            refuse("ring of " + std::to_string(ring) + " records");
        }
        check_area("counters", header_.counters_offset, 1, header_.counters_size, sizeof(Counters));
        check_area("slots", header_.table_offset, header_.table_slots, header_.slot_size,
                   sizeof(Slot));
        check_area("ring records", header_.ring_offset, ring, header_.ring_record_size,
                   sizeof(RingRecord));
    }

    std::string path_;
    const char* bytes_ = nullptr;
    uint64_t size_ = 0;
    ino_t inode_ = 0;
    dev_t device_ = 0;
    Header header_{};
};

// A place in the ring. Valid as long as its BusReader, which must not be moved meanwhile.
class RingCursor {
public:
    // A cursor that was lapped goes on behind the writer by the ring divided by this: it gets as
    // much as it can without being lapped again at once.
    static constexpr uint64_t kResumeShare = 2;

    // Made by BusReader::follow.
    RingCursor(const Mapping& bus, uint64_t position) : bus_(&bus), position_(position) {}

    // The next record, in order. False when there is none yet. A lapped cursor goes on in the
    // middle of the ring, and lost() grows by what lay between.
    bool next(RingRecord& record) {
        for (int i = 0; i < kTries; ++i) {
            const RingRecord& at = bus_->record(position_);
            const uint64_t number = load_acquire(at.number);
            if (number == position_ + 1) {
                load_words(record, at);
                if (load_acquire(at.number) == number) {
                    record.number = number;
                    ++position_;
                    return true;
                }
            }
            if (!skip_if_lapped()) {
                return false;
            }
        }
        return false;
    }

    uint64_t lost() const { return lost_; }         // records missed so far
    uint64_t laps() const { return laps_; }         // how often
    uint64_t position() const { return position_; } // number of the last record taken or missed
    // Records written and not yet taken.
    uint64_t behind() const {
        const uint64_t head = load_acquire(bus_->live().ring_head);
        return head > position_ ? head - position_ : 0;
    }

private:
    static constexpr int kTries = 16; // only a file that somebody plays with takes more than three

    // False when the record is not there yet. The writer stores the head behind each record, so it
    // is a whole ring ahead before the place of a record is taken for another.
    bool skip_if_lapped() {
        const uint64_t head = load_acquire(bus_->live().ring_head);
        const uint64_t records = bus_->kept().ring_records;
        if (head <= position_ || head - position_ < records) {
            return false;
        }
        const uint64_t resume = head - records / kResumeShare;
        lost_ += resume - position_;
        ++laps_;
        position_ = resume;
        return true;
    }

    const Mapping* bus_;
    uint64_t position_;
    uint64_t lost_ = 0;
    uint64_t laps_ = 0;
};

// A bus that is open for reading. Movable; one thread at a time, as many readers as one likes.
class BusReader {
public:
    // By name ("live") or path. Throws BusError.
    explicit BusReader(const std::string& name) : bus_(bus_path(name)) {}

    const std::string& path() const { return bus_.path(); }            // of the file
    uint64_t generation() const { return bus_.kept().generation; }     // 1: first of the name
    uint32_t writer_pid() const { return bus_.kept().writer_pid; }     // as the writer saw it
    uint64_t ring_records() const { return bus_.kept().ring_records; } // how many the ring holds
    static constexpr uint32_t slots() { return INSTRUMENT_SLOT_CNT; }  // of the table
    const Header& header() const { return bus_.kept(); }               // as it was when opened

    // Copies the newest state of a slot; `entry` is written also when the result is not kFilled.
    SlotResult read_slot(uint32_t slot, Slot& entry) const {
        if (slot >= slots()) {
            return SlotResult::kEmpty;
        }
        return read_locked(bus_.slot(slot), entry);
    }
    // Changes whenever the slot does; for readers that show only what is new.
    uint64_t slot_sequence(uint32_t slot) const {
        return slot < slots() ? load_acquire(bus_.slot(slot).sequence) : 0;
    }

    // As of the last heartbeat.
    SlotResult read_counters(Counters& counters) const {
        return read_locked(bus_.counters(), counters);
    }

    // From the next record that is written.
    RingCursor follow() const { return {bus_, ring_head()}; }
    // From the oldest half of what the ring holds.
    RingCursor follow_oldest() const {
        const uint64_t head = ring_head();
        const uint64_t half = ring_records() / RingCursor::kResumeShare;
        return {bus_, head > half ? head - half : 0};
    }
    // Records written so far: the number of the newest one.
    uint64_t ring_head() const { return load_acquire(bus_.live().ring_head); }

    // How long ago the writer's last heartbeat was.
    uint64_t heartbeat_age_ns() const {
        const uint64_t beat = load_acquire(bus_.live().heartbeat_ns);
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        return now > beat ? now - beat : 0;
    }
    // Some microseconds: it asks the system. A writer in another pid namespace is judged by its
    // heartbeat alone.
    WriterState writer_state() const {
        const uint64_t state = load_acquire(bus_.live().state);
        if (state == kStateReplaced || bus_.name_has_moved()) {
            return WriterState::kReplaced;
        }
        if (state == kStateClosed) {
            return WriterState::kClosed;
        }
        const Header& header = bus_.kept();
        const bool late = heartbeat_age_ns() / 10 > header.heartbeat_interval_ns;
        if (header.writer_pid_namespace != own_pid_namespace()) {
            return late ? WriterState::kDead : WriterState::kAlive;
        }
        if (process_is_gone(header.writer_pid, header.writer_start_ticks)) {
            return WriterState::kDead;
        }
        return late ? WriterState::kStalled : WriterState::kAlive;
    }

    // A time of the bus as nanoseconds since the Unix epoch, by the clocks' difference at the last
    // heartbeat.
    uint64_t to_realtime_ns(uint64_t time_ns) const {
        Counters counters;
        if (read_counters(counters) == SlotResult::kFilled) {
            return counters.realtime_ns + (time_ns - counters.time_ns);
        }
        return bus_.kept().clock_realtime_ns + (time_ns - bus_.kept().clock_monotonic_ns);
    }

private:
    // Spins for a moment, then lets others run: the writer may have been taken off this CPU.
    static constexpr int kTries = 20000;
    static constexpr int kTriesAtOnce = 1000;

    template <typename Record>
    static SlotResult read_locked(const Record& from, Record& to) {
        for (int i = 0; i < kTries; ++i) {
            const uint64_t before = load_acquire(from.sequence);
            if (before == 0) {
                return SlotResult::kEmpty;
            }
            if (before % 2 == 0) {
                load_words(to, from);
                if (load_acquire(from.sequence) == before) {
                    to.sequence = before;
                    return SlotResult::kFilled;
                }
            }
            if (i % kTriesAtOnce == kTriesAtOnce - 1) {
                sched_yield();
            }
        }
        return SlotResult::kBusy;
    }

    Mapping bus_;
};

} // namespace vorn_bus
