// What a reader sees of a writer, in one process and one thread.

#include "bus_fixture.h"

#include <gmock/gmock.h>

namespace {

using support::number_of;
using support::numbered_record;
using vorn_bus::BusReader;
using vorn_bus::RingCursor;
using vorn_bus::RingRecord;
using vorn_bus::Slot;
using vorn_bus::SlotResult;
using vorn_bus::WriterState;

class BusTable : public BusFixture {};
class BusRing : public BusFixture {};
class BusHeartbeat : public BusFixture {};
class BusWriters : public BusFixture {};

TEST_F(BusTable, HasTheNewestRecordOfASlot) {
    const BusReader bus(name_);
    Slot slot;
    EXPECT_EQ(bus.read_slot(7, slot), SlotResult::kEmpty);
    const uint64_t before = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    writer_->publish(numbered_record(1), 7);
    writer_->publish(numbered_record(2), 7);
    writer_->publish(numbered_record(3), 20479);
    ASSERT_EQ(bus.read_slot(7, slot), SlotResult::kFilled);
    EXPECT_EQ(number_of(slot.record), 2U);
    EXPECT_EQ(slot.ring_number, 2U);
    EXPECT_GE(slot.receive_time_ns, before);
    EXPECT_LE(slot.receive_time_ns, vorn_bus::clock_ns(CLOCK_MONOTONIC));
    ASSERT_EQ(bus.read_slot(20479, slot), SlotResult::kFilled);
    EXPECT_EQ(number_of(slot.record), 3U);
    EXPECT_EQ(bus.read_slot(8, slot), SlotResult::kEmpty);
    EXPECT_EQ(bus.read_slot(20480, slot), SlotResult::kEmpty) << "not a slot";
}

TEST_F(BusTable, TellsByASlotsSequenceWhetherItHasChanged) {
    const BusReader bus(name_);
    EXPECT_EQ(bus.slot_sequence(5), 0U);
    writer_->publish(numbered_record(1), 5);
    const uint64_t first = bus.slot_sequence(5);
    EXPECT_EQ(bus.slot_sequence(5), first);
    writer_->publish(numbered_record(1), 5);
    EXPECT_NE(bus.slot_sequence(5), first);
    EXPECT_EQ(bus.slot_sequence(20480), 0U);
}

TEST_F(BusTable, IsTakenOverWholeAndForgetsWhatIsGone) {
    const BusReader bus(name_);
    publish(1, 3);
    const auto table = std::make_unique<share>();
    table->instmts[2] = numbered_record(20);
    table->instmts[900] = numbered_record(90);
    writer_->refresh(*table);
    Slot slot;
    ASSERT_EQ(bus.read_slot(2, slot), SlotResult::kFilled);
    EXPECT_EQ(number_of(slot.record), 20U);
    EXPECT_EQ(slot.ring_number, 3U) << "newer than every record of the ring until now";
    ASSERT_EQ(bus.read_slot(900, slot), SlotResult::kFilled);
    EXPECT_EQ(number_of(slot.record), 90U);
    ASSERT_EQ(bus.read_slot(1, slot), SlotResult::kFilled);
    EXPECT_EQ(slot.record.inst_id[0], 0) << "no longer there";
    EXPECT_EQ(bus.slot_sequence(901), 0U) << "never was";
    EXPECT_EQ(bus.ring_head(), 3U);
}

TEST_F(BusRing, DeliversRecordsAndEventsInOrder) {
    const BusReader bus(name_);
    RingCursor cursor = bus.follow();
    RingRecord record;
    EXPECT_FALSE(cursor.next(record));
    writer_->publish(numbered_record(1), 17, vorn_bus::kFlagReplay);
    vorn_md_event_t event{};
    event.size = sizeof(event);
    event.type = VORN_MD_EVENT_GAP;
    event.time_ns = 1234;
    event.slot = 17;
    event.expected = 5;
    event.received = 9;
    std::memcpy(event.inst_id, "cu2603", 6);
    writer_->publish_event(event);
    event.type = VORN_MD_EVENT_RESTART;
    writer_->publish_event(event);
    writer_->publish(numbered_record(2), 18);
    EXPECT_EQ(cursor.behind(), 4U);

    ASSERT_TRUE(cursor.next(record));
    EXPECT_EQ(record.number, 1U);
    EXPECT_EQ(record.slot, 17U);
    EXPECT_EQ(record.flags, vorn_bus::kFlagReplay);
    EXPECT_EQ(number_of(record.record), 1U);
    ASSERT_TRUE(cursor.next(record));
    EXPECT_EQ(record.number, 2U);
    EXPECT_EQ(record.slot, 17U);
    EXPECT_EQ(record.flags, vorn_bus::kFlagEvent);
    EXPECT_EQ(record.receive_time_ns, 1234U);
    EXPECT_EQ(record.event.received, 9U);
    EXPECT_STREQ(reinterpret_cast<const char*>(record.event.inst_id), "cu2603");
    ASSERT_TRUE(cursor.next(record));
    EXPECT_EQ(record.slot, vorn_bus::kNoSlot);
    EXPECT_EQ(record.event.type, static_cast<uint32_t>(VORN_MD_EVENT_RESTART));
    ASSERT_TRUE(cursor.next(record));
    EXPECT_EQ(number_of(record.record), 2U);
    EXPECT_EQ(record.flags, 0U);
    EXPECT_FALSE(cursor.next(record));
    EXPECT_EQ(cursor.lost(), 0U);
    EXPECT_EQ(cursor.position(), 4U);
}

TEST_F(BusRing, KeepsAReaderThatIsJustInTime) {
    const BusReader bus(name_);
    RingCursor cursor = bus.follow();
    RingRecord record;
    for (uint64_t round = 0; round < 5; ++round) {
        publish(round * kRing + 1, (round + 1) * kRing);
        for (uint64_t i = 1; i <= kRing; ++i) {
            ASSERT_TRUE(cursor.next(record));
            ASSERT_EQ(number_of(record.record), round * kRing + i);
        }
        EXPECT_FALSE(cursor.next(record));
    }
    EXPECT_EQ(cursor.lost(), 0U);
    EXPECT_EQ(cursor.laps(), 0U);
}

TEST_F(BusRing, TellsALappedReaderHowMuchItLost) {
    const BusReader bus(name_);
    RingCursor cursor = bus.follow();
    RingRecord record;
    publish(1, kRing + 1); // the first record is overwritten, and with it the reader's place
    uint64_t taken = 0;
    while (cursor.next(record)) {
        ASSERT_EQ(number_of(record.record), record.number);
        ++taken;
    }
    EXPECT_EQ(cursor.laps(), 1U);
    EXPECT_EQ(taken, kRing / 2);
    EXPECT_EQ(taken + cursor.lost(), kRing + 1);

    publish(kRing + 2, 10 * kRing);
    taken = 0;
    const uint64_t lost_before = cursor.lost();
    while (cursor.next(record)) {
        ++taken;
    }
    EXPECT_EQ(cursor.laps(), 2U);
    EXPECT_EQ(taken + cursor.lost() - lost_before, 10 * kRing - (kRing + 1));
}

TEST_F(BusRing, CanBeFollowedFromItsOlderHalf) {
    publish(1, 100);
    const BusReader bus(name_);
    RingRecord record;
    RingCursor young = bus.follow_oldest();
    ASSERT_TRUE(young.next(record));
    EXPECT_EQ(record.number, 1U);
    publish(101, 5000);
    RingCursor old = bus.follow_oldest();
    ASSERT_TRUE(old.next(record));
    EXPECT_EQ(record.number, 5000 - kRing / 2 + 1);
}

TEST_F(BusHeartbeat, CarriesTheCountersAndTheClocks) {
    const BusReader bus(name_);
    vorn_bus::Counters counters;
    EXPECT_EQ(bus.read_counters(counters), SlotResult::kEmpty);
    writer_->beat(support::numbered_counters(77));
    ASSERT_EQ(bus.read_counters(counters), SlotResult::kFilled);
    EXPECT_TRUE(support::are_whole(counters.counters));
    EXPECT_EQ(counters.counters.frames, 77U);
    EXPECT_EQ(bus.to_realtime_ns(counters.time_ns + 5), counters.realtime_ns + 5);
    EXPECT_LE(counters.time_ns, vorn_bus::clock_ns(CLOCK_MONOTONIC));
}

TEST_F(BusHeartbeat, IsYoungerAfterABeat) {
    const BusReader bus(name_);
    const uint64_t opened = bus.header().heartbeat_ns;
    writer_->beat({});
    EXPECT_LE(bus.heartbeat_age_ns(), vorn_bus::clock_ns(CLOCK_MONOTONIC) - opened);
    EXPECT_EQ(bus.writer_state(), WriterState::kAlive);
}

TEST_F(BusWriters, CloseTheirBus) {
    const BusReader bus(name_);
    publish(1, 1);
    writer_.reset();
    EXPECT_EQ(bus.writer_state(), WriterState::kClosed);
    const BusReader late(name_);
    Slot slot;
    EXPECT_EQ(late.read_slot(1, slot), SlotResult::kFilled) << "what was there last";
    EXPECT_EQ(late.writer_state(), WriterState::kClosed);
}

TEST_F(BusWriters, TakeOverInAFileOfTheirOwn) {
    BusReader bus(name_);
    publish(1, 10);
    EXPECT_EQ(bus.generation(), 1U);
    const vorn_bus::Mapping old_file(bus.path());
    EXPECT_EQ(old_file.live().state, vorn_bus::kStateOpen);
    start();
    EXPECT_EQ(bus.writer_state(), WriterState::kReplaced);
    EXPECT_EQ(old_file.live().state, vorn_bus::kStateReplaced) << "told, not only outrun";
    Slot slot;
    EXPECT_EQ(bus.read_slot(1, slot), SlotResult::kFilled) << "the old file is still mapped";
    RingCursor cursor = bus.follow();
    publish(11, 20);
    RingRecord record;
    EXPECT_FALSE(cursor.next(record)) << "and nobody writes to it";

    bus = BusReader(name_);
    EXPECT_EQ(bus.generation(), 2U);
    EXPECT_EQ(bus.writer_state(), WriterState::kAlive);
    EXPECT_EQ(bus.ring_head(), 10U);
    EXPECT_EQ(bus.read_slot(1, slot), SlotResult::kEmpty);
}

TEST_F(BusWriters, TakeTheNameFromAFileThatIsNoBus) {
    writer_.reset();
    std::FILE* file = std::fopen(vorn_bus::bus_path(name_).c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("something else", file);
    std::fclose(file);
    start();
    EXPECT_EQ(BusReader(name_).generation(), 1U);
}

TEST_F(BusWriters, AreOneAName) {
    try {
        const vorn_bus::BusWriter second(vorn_bus::WriterOptions{name_, kRing});
        FAIL() << "a second writer";
    } catch (const vorn_bus::BusError& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("has a writer already, process " +
                                                     std::to_string(::getpid())));
    }
    EXPECT_EQ(BusReader(name_).writer_state(), WriterState::kAlive) << "the first goes on";
}

TEST_F(BusWriters, KeepTheFileFromOtherUsersAndTheLockFromReaders) {
    struct stat status {};
    ASSERT_EQ(::stat(writer_->path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    ASSERT_EQ(::stat((writer_->path() + ".lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(BusWriters, RefuseARingThatIsNoPowerOfTwo) {
    for (const uint64_t records : {uint64_t{0}, uint64_t{512}, uint64_t{1025}, uint64_t{1} << 25}) {
        EXPECT_THROW(vorn_bus::BusWriter({name_ + "r", records}), vorn_bus::BusError) << records;
    }
}

TEST(BusNames, AreLettersDigitsAndAFewSigns) {
    for (const char* name : {"live", "A-1_b.c", "0"}) {
        EXPECT_TRUE(vorn_bus::is_bus_name(name)) << name;
    }
    const std::string long_name(65, 'a');
    for (const std::string& name : {std::string(), std::string("."), std::string("a b"), long_name,
                                    std::string("a\n"), std::string("\xc3\xa4")}) {
        EXPECT_FALSE(vorn_bus::is_bus_name(name)) << name;
        EXPECT_THROW(vorn_bus::bus_path(name), vorn_bus::BusError);
    }
    EXPECT_EQ(vorn_bus::bus_path("live"), "/dev/shm/vorn.live.bus");
    EXPECT_EQ(vorn_bus::bus_path("/tmp/x"), "/tmp/x");
}

TEST(BusProcesses, AreKnownByTheTimeAtWhichTheyBegan) {
    const auto pid = static_cast<uint32_t>(::getpid());
    const vorn_bus::ProcessStat own = vorn_bus::process_stat(pid);
    ASSERT_TRUE(own.known);
    EXPECT_GT(own.start_ticks, 0U);
    EXPECT_FALSE(vorn_bus::process_is_gone(pid, own.start_ticks));
    EXPECT_TRUE(vorn_bus::process_is_gone(pid, own.start_ticks + 1)) << "the pid given again";
    for (const uint32_t wrong : {0U, 0x80000000U, 0xffffffffU, 0x7fffffffU}) {
        EXPECT_TRUE(vorn_bus::process_is_gone(wrong, 1)) << wrong;
    }
}

} // namespace
