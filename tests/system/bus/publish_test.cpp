// vorn publish: what the feed delivers is on the bus.

#include "process.h"
#include "tests/support/bus_records.h"
#include "tests/support/temp_dir.h"

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using bus_test::Process;
using testing::HasSubstr;
using vorn_bus::BusReader;
using vorn_bus::SlotResult;

int any_cpu() {
    cpu_set_t set;
    CPU_ZERO(&set);
    ::sched_getaffinity(0, sizeof(set), &set);
    int cpu = 0;
    while (!CPU_ISSET(cpu, &set)) {
        ++cpu;
    }
    return cpu;
}

class VornPublish : public testing::Test {
protected:
    ~VornPublish() override { vorn_bus::remove_bus(name_); }

    std::string config(const std::string& device) const {
        return dir_.write("feed.ini", "[config]\ndevice = " + device +
                                          "\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n"
                                          "recovery = enabled\ncpucore = " +
                                          std::to_string(any_cpu()) + "\n");
    }
    std::vector<std::string> command(const std::string& device) const {
        return {VORN_PROGRAM, "publish", "--config", config(device), "--bus", name_, "--json"};
    }

    support::TempDir dir_;
    const std::string name_ = support::own_bus_name();
};

TEST_F(VornPublish, ShowsEveryUpdateAndEventAndTheTable) {
    Process publish(command("sim:seed=5&instruments=20&changes=20000&eof=stop"));
    const auto& ended = publish.wait();
    ASSERT_EQ(ended.status, 0) << ended.err;
    const auto report = nlohmann::json::parse(ended.out);
    const BusReader bus(name_);
    EXPECT_EQ(bus.writer_state(), vorn_bus::WriterState::kClosed);
    EXPECT_EQ(report["bus_path"], bus.path());
    EXPECT_EQ(report["bus_generation"], 1);
    EXPECT_EQ(report["bus_records"], bus.ring_head());

    vorn_bus::RingCursor cursor = bus.follow_oldest();
    vorn_bus::RingRecord record;
    uint64_t updates = 0;
    std::vector<uint32_t> phases;
    std::map<uint32_t, instrument> last;
    while (cursor.next(record)) {
        if ((record.flags & vorn_bus::kFlagEvent) == 0) {
            ++updates;
            last[record.slot] = record.record;
        } else if (record.event.type == VORN_MD_EVENT_PHASE) {
            phases.push_back(record.event.phase);
        }
    }
    EXPECT_EQ(cursor.lost(), 0U);
    EXPECT_GT(updates, 1000U);
    EXPECT_EQ(report["updates"], updates);
    EXPECT_THAT(phases, testing::ElementsAre(VORN_MD_PHASE_BRING_UP, VORN_MD_PHASE_SNAPSHOT,
                                             VORN_MD_PHASE_REPLAY, VORN_MD_PHASE_LIVE,
                                             VORN_MD_PHASE_STOPPED));

    uint64_t filled = 0;
    vorn_bus::Slot slot;
    for (uint32_t i = 0; i < BusReader::slots(); ++i) {
        if (bus.read_slot(i, slot) == SlotResult::kFilled) {
            ++filled;
            const auto at = last.find(i);
            if (at != last.end()) {
                EXPECT_EQ(std::memcmp(&at->second, &slot.record, sizeof(instrument)), 0) << i;
            }
        }
    }
    EXPECT_EQ(filled, 20U) << "quiet instruments too";

    vorn_bus::Counters counters;
    ASSERT_EQ(bus.read_counters(counters), SlotResult::kFilled);
    EXPECT_EQ(counters.counters.updates - counters.counters.silent_updates, updates);
    EXPECT_EQ(report["decode_buffers"], counters.counters.frames);
    EXPECT_EQ(counters.counters.phase, static_cast<uint32_t>(VORN_MD_PHASE_STOPPED));
}

TEST_F(VornPublish, TellsOfGapsAndGoesOn) {
    Process publish(command("sim:seed=5&instruments=20&changes=20000&eof=stop&fault=gap"));
    const auto& ended = publish.wait();
    ASSERT_EQ(ended.status, 0) << ended.err << "a gap that the feed has recovered from";
    const BusReader bus(name_);
    vorn_bus::Counters counters;
    ASSERT_EQ(bus.read_counters(counters), SlotResult::kFilled);
    EXPECT_GT(counters.counters.gaps, 0U);
    vorn_bus::RingCursor cursor = bus.follow_oldest();
    vorn_bus::RingRecord record;
    uint64_t gaps = 0;
    uint64_t restarts = 0;
    while (cursor.next(record)) {
        if ((record.flags & vorn_bus::kFlagEvent) != 0) {
            gaps += record.event.type == VORN_MD_EVENT_GAP ? 1 : 0;
            restarts += record.event.type == VORN_MD_EVENT_RESTART ? 1 : 0;
        }
    }
    EXPECT_EQ(gaps, counters.counters.gaps);
    EXPECT_EQ(restarts, counters.counters.restarts);
}

TEST_F(VornPublish, IsRefusedWhileTheBusHasAWriter) {
    const vorn_bus::BusWriter writer({name_, 1024});
    Process publish(command("sim:seed=5&instruments=20&changes=20000&eof=stop"));
    const auto& ended = publish.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "");
    EXPECT_THAT(ended.err, HasSubstr("has a writer already, process " + std::to_string(::getpid()) +
                                     ": stop it, or choose"));
}

TEST_F(VornPublish, RefusesWhatCannotBe) {
    const struct {
        std::vector<std::string> more;
        const char* reason;
    } rows[] = {
        {{"--config", "missing.ini"}, "cannot read the configuration missing.ini"},
        {{"--config", config("sim:"), "--bus", "a/b"}, "'a/b' is not a name for a bus"},
        {{"--config", config("sim:"), "--ring", "1000"}, "must be a power of two from 1024"},
        {{}, "--config is required"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> words = {VORN_PROGRAM, "publish"};
        words.insert(words.end(), row.more.begin(), row.more.end());
        Process publish(words);
        EXPECT_EQ(publish.wait().status, 2);
        EXPECT_THAT(publish.wait().err, HasSubstr(row.reason));
    }
}

TEST_F(VornPublish, EndsInOrderOnATerminationSignal) {
    // A live session: it would go on for an hour.
    Process publish(command("sim:seed=5&instruments=20&seconds=3600&speed=1"));
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::unique_ptr<BusReader> bus;
    vorn_bus::Counters counters{};
    while (std::chrono::steady_clock::now() < until &&
           counters.counters.phase == VORN_MD_PHASE_STOPPED) {
        try {
            bus = std::make_unique<BusReader>(name_);
            (void)bus->read_counters(counters);
        } catch (const vorn_bus::BusError&) { // not there yet
        }
        ::usleep(2000);
    }
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->writer_pid(), static_cast<uint32_t>(publish.pid()));
    publish.send(SIGTERM);
    EXPECT_EQ(publish.wait().status, 0) << publish.wait().err;
    EXPECT_EQ(bus->writer_state(), vorn_bus::WriterState::kClosed);
}

#if !defined(__SANITIZE_ADDRESS__) &&                                                              \
    !defined(__SANITIZE_THREAD__) // which make mlockall do nothing

bool may_lock_memory() {
    constexpr std::size_t kMuch = std::size_t{1} << 30;
    void* room = ::mmap(nullptr, kMuch, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool may = ::mlock2(room, kMuch, MLOCK_ONFAULT) == 0;
    ::munmap(room, kMuch);
    return may;
}

// kB of the process that are locked.
long locked_kb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmLck:")) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

TEST_F(VornPublish, KeepsItsMemoryInRamWhereThatIsAllowed) {
    if (!may_lock_memory()) {
        GTEST_SKIP() << "this user may lock no memory";
    }
    auto words = command("sim:seed=5&instruments=20&seconds=3600&speed=1");
    words.emplace_back("--lock-memory");
    Process publish(words);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    // The feed's cache alone is 200 MiB.
    while (std::chrono::steady_clock::now() < until && locked_kb(publish.pid()) < 204800) {
        ::usleep(2000);
    }
    EXPECT_GE(locked_kb(publish.pid()), 204800);
    publish.send(SIGINT);
    EXPECT_EQ(publish.wait().status, 0) << publish.wait().err;
}

TEST_F(VornPublish, SaysThatItMayNotLockItsMemory) {
    std::vector<std::string> words = {"/usr/bin/prlimit", "--memlock=0:0"};
    if (::geteuid() == 0) { // whom no limit binds while root has the capability
        words.insert(words.begin(), {"/usr/bin/setpriv", "--bounding-set=-ipc_lock"});
    }
    for (const std::string& word : command("sim:seed=5&eof=stop")) {
        words.push_back(word);
    }
    words.emplace_back("--lock-memory");
    Process publish(words);
    EXPECT_EQ(publish.wait().status, 1);
    EXPECT_THAT(publish.wait().err, HasSubstr("the memory cannot be locked: "));
}

#endif

} // namespace
