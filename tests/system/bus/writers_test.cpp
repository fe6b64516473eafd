// Writers that die, stop and take over, as their readers see it.

#include "process.h"
#include "tests/support/bus_records.h"

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

using bus_test::becomes_true;
using bus_test::Process;
using vorn_bus::BusReader;
using vorn_bus::WriterState;

class BusWriterProcess : public testing::Test {
protected:
    ~BusWriterProcess() override { vorn_bus::remove_bus(name_); }

    // A reader of a bus on which something has been written.
    BusReader open() const {
        std::unique_ptr<BusReader> bus;
        EXPECT_TRUE(becomes_true([&] {
            try {
                bus = std::make_unique<BusReader>(name_);
            } catch (const vorn_bus::BusError&) {
                return false;
            }
            return bus->writer_state() != WriterState::kReplaced && bus->ring_head() > 5000;
        }));
        return std::move(*bus);
    }

    const std::string name_ = support::own_bus_name();
    const std::vector<std::string> command_ = {BUS_STAGE, "write", name_};
};

TEST_F(BusWriterProcess, ThatWasKilledIsSeenAsDead) {
    Process writer(command_);
    const BusReader bus = open();
    EXPECT_EQ(bus.writer_pid(), static_cast<uint32_t>(writer.pid()));
    EXPECT_TRUE(becomes_true([&] { return bus.writer_state() == WriterState::kAlive; }));
    writer.send(SIGKILL);
    EXPECT_TRUE(becomes_true([&] { return bus.writer_state() == WriterState::kDead; }))
        << "before anybody has waited for it";
    EXPECT_EQ(writer.wait().signal, SIGKILL);
    EXPECT_EQ(bus.writer_state(), WriterState::kDead);

    // What it left can be read: at most one slot and one record are half written.
    vorn_bus::Slot slot;
    uint64_t filled = 0;
    int busy = 0;
    for (uint32_t i = 0; i < BusReader::slots(); ++i) {
        const vorn_bus::SlotResult result = bus.read_slot(i, slot);
        busy += result == vorn_bus::SlotResult::kBusy ? 1 : 0;
        if (result == vorn_bus::SlotResult::kFilled) {
            ++filled;
            EXPECT_NE(support::number_of(slot.record), 0U);
        }
    }
    EXPECT_GT(filled, 4000U);
    EXPECT_LE(busy, 1);
    vorn_bus::RingCursor cursor = bus.follow_oldest();
    vorn_bus::RingRecord record;
    uint64_t taken = 0;
    while (cursor.next(record)) {
        ++taken;
    }
    EXPECT_GE(taken, bus.ring_records() / 2);
    EXPECT_LE(taken, bus.ring_records() / 2 + 1);
}

TEST_F(BusWriterProcess, ThatIsStoppedIsStalledUntilItGoesOn) {
    Process writer(command_);
    const BusReader bus = open();
    writer.send(SIGSTOP);
    EXPECT_TRUE(becomes_true([&] { return bus.writer_state() == WriterState::kStalled; }));
    writer.send(SIGCONT);
    EXPECT_TRUE(becomes_true([&] { return bus.writer_state() == WriterState::kAlive; }));
}

TEST_F(BusWriterProcess, TakesOverFromOneThatDied) {
    Process first(command_);
    const BusReader old_bus = open();
    first.send(SIGKILL);
    first.wait();
    Process second(command_);
    EXPECT_TRUE(becomes_true([&] { return old_bus.writer_state() == WriterState::kReplaced; }));
    const BusReader bus = open();
    EXPECT_EQ(bus.writer_pid(), static_cast<uint32_t>(second.pid()));
    EXPECT_EQ(bus.generation(), old_bus.generation() + 1);
    EXPECT_TRUE(becomes_true([&] { return bus.writer_state() == WriterState::kAlive; }));
}

TEST_F(BusWriterProcess, KeepsOthersFromItsName) {
    const Process first(command_);
    const BusReader bus = open();
    Process second(command_);
    const auto& ended = second.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("has a writer already, process " + std::to_string(first.pid())),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(BusReader(name_).generation(), bus.generation());
}

} // namespace
