#include "bus/bus_writer.h"

#include "bus/bus_process.h"
#include "bus/bus_reader.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vorn_bus {

namespace {

constexpr mode_t kMode = 0640;
constexpr mode_t kLockMode = 0600; // a reader must not be able to hold the writers' lock
constexpr instrument kEmptyRecord{};

uint64_t next_page(uint64_t offset) {
    return (offset + 4095) & ~uint64_t{4095};
}

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
    throw BusError("cannot " + what + " " + path + ": " + std::strerror(error));
}

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    int get() const { return number_; }

private:
    int number_;
};

std::string lock_path(const std::string& path) {
    return path + ".lock";
}

// The lock of the name. The kernel takes it back when the process ends, however that happens; the
// file stays, so that all writers mean the same one.
Descriptor take_lock(const std::string& path) {
    const std::string lock = lock_path(path);
    Descriptor file(
        ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kLockMode));
    if (file.get() < 0) {
        fail("open", lock, errno);
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        return file;
    }
    if (errno != EWOULDBLOCK) {
        fail("lock", lock, errno);
    }
    std::string who = "a process";
    try {
        who = "process " + std::to_string(Mapping(path).kept().writer_pid);
    } catch (const BusError&) { // it has the lock, but not yet a file
    }
    throw BusError("the bus " + path + " has a writer already, " + who +
                   ": stop it, or choose another name");
}

// The file that another is about to be put in the place of.
struct PreviousBus {
    uint64_t generation = 0; // 0: there is none, or nothing of ours
    Descriptor file;

    explicit PreviousBus(const std::string& path) {
        try {
            generation = Mapping(path).kept().generation;
            file = Descriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        } catch (const BusError&) { // there is nobody to be told
        }
    }
    // Tells the readers that have it mapped. What else is in it stays as its writer left it.
    void mark_replaced() const {
        void* address = file.get() < 0 ? MAP_FAILED
                                       : ::mmap(nullptr, kHeaderSize, PROT_READ | PROT_WRITE,
                                                MAP_SHARED, file.get(), 0);
        if (address != MAP_FAILED) {
            store_release(static_cast<Header*>(address)->state, kStateReplaced);
            ::munmap(address, kHeaderSize);
        }
    }
};

Header make_header(const WriterOptions& options, uint64_t generation) {
    Header header{};
    std::memcpy(header.magic, kMagic, sizeof(kMagic));
    header.version = kVersion;
    header.header_size = kHeaderSize;
    header.generation = generation;
    header.counters_offset = kHeaderSize;
    header.counters_size = sizeof(Counters);
    header.record_size = sizeof(instrument);
    header.table_offset = next_page(header.counters_offset + sizeof(Counters));
    header.table_slots = INSTRUMENT_SLOT_CNT;
    header.slot_size = sizeof(Slot);
    header.ring_offset = next_page(header.table_offset + sizeof(Slot) * INSTRUMENT_SLOT_CNT);
    header.ring_records = options.ring_records;
    header.ring_record_size = sizeof(RingRecord);
    header.file_size = next_page(header.ring_offset + sizeof(RingRecord) * options.ring_records);
    header.writer_pid = static_cast<uint32_t>(::getpid());
    header.writer_start_ticks = process_stat(header.writer_pid).start_ticks;
    header.writer_pid_namespace = own_pid_namespace();
    header.heartbeat_interval_ns = options.heartbeat_interval_ns;
    header.clock_monotonic_ns = clock_ns(CLOCK_MONOTONIC);
    header.clock_realtime_ns = clock_ns(CLOCK_REALTIME);
    header.state = kStateOpen;
    header.heartbeat_ns = header.clock_monotonic_ns;
    return header;
}

} // namespace

// The lock and the mapped file.
struct BusWriter::File {
    Descriptor lock;
    void* address = MAP_FAILED;
    std::size_t size = 0;

    File() = default;
    ~File() {
        if (address != MAP_FAILED) {
            ::munmap(address, size);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Makes the file under a name of its own and, when it is whole, gives it its place.
    void make(const std::string& path, const Header& header) {
        const std::string part = path + ".part";
        ::unlink(part.c_str()); // of a writer that died just then: the lock is ours
        const Descriptor file(
            ::open(part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kMode));
        if (file.get() < 0) {
            fail("create", part, errno);
        }
        try {
            fill(file.get(), part, header);
            if (::rename(part.c_str(), path.c_str()) != 0) {
                fail("put a new file in the place of", path, errno);
            }
        } catch (...) {
            ::unlink(part.c_str());
            throw;
        }
    }

private:
    void fill(int file, const std::string& part, const Header& header) {
        // All of it now: without this, a full file system ends the process in a later store.
        const int error = ::posix_fallocate(file, 0, static_cast<off_t>(header.file_size));
        if (error != 0) {
            fail("get " + std::to_string(header.file_size >> 20) + " MiB for", part, error);
        }
        if (::fchmod(file, kMode) != 0) {
            fail("set the mode of", part, errno);
        }
        // Populated: the feed's thread meets no page for the first time.
        address = ::mmap(nullptr, header.file_size, PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_POPULATE, file, 0);
        if (address == MAP_FAILED) {
            fail("map", part, errno);
        }
        size = header.file_size;
        std::memcpy(address, &header, sizeof(header));
    }
};

BusWriter::BusWriter(const WriterOptions& options)
    : path_(bus_path(options.name)), file_(std::make_unique<File>()),
      ring_mask_(options.ring_records - 1) {
    if (!is_ring_size(options.ring_records)) {
        throw BusError("a ring of " + std::to_string(options.ring_records) +
                       " records cannot be: choose a power of two from 1024 to 16777216");
    }
    file_->lock = take_lock(path_);
    const PreviousBus previous(path_);
    const Header header = make_header(options, previous.generation + 1);
    file_->make(path_, header);
    previous.mark_replaced();

    char* bytes = static_cast<char*>(file_->address);
    header_ = reinterpret_cast<Header*>(bytes);
    counters_ = reinterpret_cast<Counters*>(bytes + header.counters_offset);
    table_ = reinterpret_cast<Slot*>(bytes + header.table_offset);
    ring_ = reinterpret_cast<RingRecord*>(bytes + header.ring_offset);
}

BusWriter::~BusWriter() {
    store_release(header_->state, kStateClosed);
}

uint64_t BusWriter::generation() const {
    return header_->generation;
}

uint64_t BusWriter::ring_head() const {
    return load_acquire(header_->ring_head);
}

void BusWriter::store_slot(const instrument& record, uint32_t slot, uint64_t time_ns,
                           uint64_t ring_number) noexcept {
    Slot& entry = table_[slot];
    const uint64_t sequence = entry.sequence;
    store_release(entry.sequence, sequence + 1);
    store_release(entry.receive_time_ns, time_ns);
    store_release(entry.ring_number, ring_number);
    store_words(entry.record, record);
    store_release(entry.sequence, sequence + 2);
}

RingRecord& BusWriter::begin_record() noexcept {
    RingRecord& record = ring_[head_ & ring_mask_];
    store_release(record.number, 0);
    return record;
}

void BusWriter::end_record(RingRecord& record) noexcept {
    ++head_;
    store_release(record.number, head_);
    store_release(header_->ring_head, head_);
}

void BusWriter::publish(const instrument& record, uint32_t slot, uint32_t flags) noexcept {
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    store_slot(record, slot, now, head_ + 1);
    RingRecord& entry = begin_record();
    store_release(entry.receive_time_ns, now);
    __atomic_store_n(&entry.slot, slot, __ATOMIC_RELEASE);
    __atomic_store_n(&entry.flags, flags & ~kFlagEvent, __ATOMIC_RELEASE);
    store_words(entry.record, record);
    end_record(entry);
}

void BusWriter::publish_event(const vorn_md_event_t& event) noexcept {
    RingRecord& entry = begin_record();
    store_release(entry.receive_time_ns, event.time_ns);
    const bool has_slot = event.type == VORN_MD_EVENT_GAP;
    __atomic_store_n(&entry.slot, has_slot ? event.slot : kNoSlot, __ATOMIC_RELEASE);
    __atomic_store_n(&entry.flags, kFlagEvent, __ATOMIC_RELEASE);
    instrument padded = kEmptyRecord;
    static_assert(sizeof(padded) >= sizeof(event));
    std::memcpy(static_cast<void*>(&padded), &event, sizeof(event));
    store_words(entry.record, padded);
    end_record(entry);
}

void BusWriter::refresh(const share& table) noexcept {
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    for (uint32_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
        const instrument& record = table.instmts[slot];
        if (record.inst_id[0] != 0 || table_[slot].record.inst_id[0] != 0) {
            store_slot(record, slot, now, head_);
        }
    }
}

void BusWriter::beat(const vorn_md_counters_t& counters) noexcept {
    const uint64_t sequence = counters_->sequence;
    store_release(counters_->sequence, sequence + 1);
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    store_release(counters_->time_ns, now);
    store_release(counters_->realtime_ns, clock_ns(CLOCK_REALTIME));
    store_words(counters_->counters, counters);
    store_release(counters_->sequence, sequence + 2);
    store_release(header_->heartbeat_ns, now);
}

void remove_bus(const std::string& name) {
    const std::string path = bus_path(name);
    ::unlink(path.c_str());
    ::unlink(lock_path(path).c_str());
}

} // namespace vorn_bus
