// The decode-buffer cache: what is kept while the snapshot is loading, where, and how it is
// replayed. The buffer of these tests has the real capacity and lies between two pages that must
// not be touched.

#include "MdMonitor.h"
#include "guarded_memory.h"
#include "udp_fixture.h"

namespace udp_test {
namespace {

using support::ScriptedCard;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using wirekit::Bytes;

constexpr int kDecodePort = 0;
constexpr int32_t kCapacity = 209715200;

class UdpCacheTest : public UdpTest {
protected:
    UdpCacheTest() { cache_ = CacheBufInfo{buffer_.begin(), 0, 0, 0}; }

    Outcome cache_packet() {
        return watch([&] {
            udp_.CachePacket();
            return 0;
        });
    }
    Outcome cache_packet(const Bytes& frame) {
        ScriptedCard::instance().push(kDecodePort, frame);
        return cache_packet();
    }
    Outcome process() {
        return watch([&] { return udp_.ProcessCached(); });
    }

    uint8_t* at(int32_t offset) { return reinterpret_cast<uint8_t*>(buffer_.begin()) + offset; }
    Bytes bytes_at(int32_t offset, std::size_t size) {
        return Bytes(at(offset), at(offset) + size);
    }
    // An entry as CachePacket writes it.
    void put_entry(int32_t offset, uint32_t size, const Bytes& frame = {}) {
        wirekit::put_le32(at(offset), size);
        std::copy(frame.begin(), frame.end(), at(offset) + 8);
    }
    void expect_offsets(int32_t put, int32_t consume, int32_t count) {
        EXPECT_EQ(cache_.piOffset, put);
        EXPECT_EQ(cache_.ciOffset, consume);
        EXPECT_EQ(cache_.cachedCount, count);
        EXPECT_EQ(cache_.pCacheBuf, buffer_.begin());
    }

    static Bytes frame_of(std::size_t size) {
        Bytes frame(size);
        for (std::size_t i = 0; i < size; ++i) {
            frame[i] = static_cast<uint8_t>(1 + i % 251);
        }
        return frame;
    }

    GuardedMemory buffer_{kCapacity};
};

TEST_F(UdpCacheTest, KeepsNothingWhenNothingIsWaiting) {
    const Outcome outcome = cache_packet();
    EXPECT_THAT(outcome.log, IsEmpty());
    expect_offsets(0, 0, 0);
    EXPECT_EQ(ScriptedCard::instance().polls(kDecodePort), 1u);
}

TEST_F(UdpCacheTest, DropsUnusableLengths) {
    struct Row {
        const char* name;
        ssize_t result;
        const char* text;
    };
    const Row rows[] = {
        {"One", 1, "1"},
        {"HeaderLessOne", 23, "23"},
        {"AboveTheBuffer", 2049, "2049"},
        {"HardwareError", -1, "4294967295"},
        {"Lapped", -256, "4294967040"},
        {"TooLarge", -257, "4294967039"},
        {"MostNegative", INT32_MIN, "2147483648"},
    };
    cache_.piOffset = kCapacity; // no room: nothing unusable may empty the cache
    cache_.ciOffset = 3;
    cache_.cachedCount = 5;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedCard::instance().push_result(kDecodePort, row.result);
        const Outcome outcome = cache_packet();
        EXPECT_THAT(outcome.log,
                    ElementsAre("D ExanicUdpFunc CachePacket receive abnormal decode length: " +
                                std::string(row.text)));
        expect_offsets(kCapacity, 3, 5);
    }
    // Nor does a poll without a frame.
    cache_packet();
    expect_offsets(kCapacity, 3, 5);
}

TEST_F(UdpCacheTest, KeepsFramesAsReceivedBackToBack) {
    std::memset(buffer_.begin(), 0xAB, 8192);
    int32_t offset = 0;
    int32_t count = 0;
    for (const std::size_t size : {24u, 25u, 2047u, 2048u, 31u}) {
        SCOPED_TRACE(size);
        const Bytes frame = frame_of(size);
        const Outcome outcome = cache_packet(frame);
        EXPECT_THAT(outcome.log,
                    ElementsAre("X ExanicUdpFunc CachePacket receive decode length: " +
                                    std::to_string(size),
                                "X ExanicUdpFunc CachePacket cache decode buffer offset: " +
                                    std::to_string(offset) + ", count: " + std::to_string(count)));
        EXPECT_EQ(wirekit::get_le32(at(offset)), size);
        EXPECT_EQ(wirekit::get_le32(at(offset + 4)), 0xABABABABu); // reserved, left as it was
        EXPECT_EQ(bytes_at(offset + 8, size), frame);
        offset += 8 + static_cast<int32_t>(size);
        ++count;
        EXPECT_EQ(*at(offset), 0xAB); // nothing behind the entry
        expect_offsets(offset, 0, count);
    }
}

TEST_F(UdpCacheTest, DecodesNothingWhileCaching) {
    const Outcome outcome = cache_packet(message().highest(5).bytes());
    EXPECT_THAT(outcome.changed, IsEmpty());
    EXPECT_THAT(outcome.stores, IsEmpty());
    EXPECT_EQ(outcome.slot, kNoSlot);
    EXPECT_EQ(table_->shfe_pktno, -11);
    EXPECT_EQ(table_->ine_pktno, -12);
}

TEST_F(UdpCacheTest, TakesOneFrameACall) {
    auto& card = ScriptedCard::instance();
    card.push(kDecodePort, frame_of(24));
    card.push(kDecodePort, frame_of(30));
    cache_packet();
    expect_offsets(32, 0, 1);
    EXPECT_EQ(card.left(kDecodePort), 1u);
    cache_packet();
    expect_offsets(70, 0, 2);
}

TEST_F(UdpCacheTest, OffersTheCardExactlyTheReceiveBuffer) {
    const Outcome outcome = cache_packet(Bytes(2049, 1)); // does not fit, and the card says so
    EXPECT_THAT(outcome.log, ElementsAre("D ExanicUdpFunc CachePacket receive abnormal decode "
                                         "length: 4294967039"));
    expect_offsets(0, 0, 0);
}

TEST_F(UdpCacheTest, TheLastPlaceForAFrameIsTheLargestEntryBeforeTheEnd) {
    for (const std::size_t size : {2048u, 24u}) {
        SCOPED_TRACE(size);
        const int32_t last = kCapacity - 2056;
        cache_.piOffset = last;
        cache_.ciOffset = 17;
        cache_.cachedCount = 4;
        const Bytes frame = frame_of(size);
        const Outcome outcome = cache_packet(frame);
        EXPECT_THAT(at_levels(outcome, "EWID"), IsEmpty());
        expect_offsets(last + 8 + static_cast<int32_t>(size), 17, 5);
        EXPECT_EQ(wirekit::get_le32(at(last)), size);
        EXPECT_EQ(bytes_at(last + 8, size), frame);
    }
}

TEST_F(UdpCacheTest, OneByteFurtherEverythingIsAbandoned) {
    for (const std::size_t size : {24u, 2048u}) { // the test is made with the largest entry
        SCOPED_TRACE(size);
        std::memset(buffer_.begin(), 0xAB, 8192);
        *at(kCapacity - 1) = 0xCD;
        cache_.piOffset = kCapacity - 2055;
        cache_.ciOffset = 17;
        cache_.cachedCount = 4;
        const Bytes frame = frame_of(size);
        const Outcome outcome = cache_packet(frame);
        EXPECT_THAT(outcome.log,
                    ElementsAre("X ExanicUdpFunc CachePacket receive decode length: " +
                                    std::to_string(size),
                                "W ExanicUdpFunc CachePacket too many packet to cache, clear 4",
                                "X ExanicUdpFunc CachePacket cache decode buffer offset: 0, "
                                "count: 0"));
        expect_offsets(8 + static_cast<int32_t>(size), 0, 1);
        EXPECT_EQ(wirekit::get_le32(at(0)), size);
        EXPECT_EQ(bytes_at(8, size), frame);
        // The old bytes stay: nothing is zeroed.
        EXPECT_EQ(wirekit::get_le32(at(4)), 0xABABABABu);
        EXPECT_EQ(*at(8 + static_cast<int32_t>(size)), 0xAB);
        EXPECT_EQ(*at(kCapacity - 1), 0xCD);
    }
}

TEST_F(UdpCacheTest, CountsWhatIsAbandoned) {
    const uint64_t before = g_mdMonitor.caller.cacheDropped.Get();
    const uint64_t cached = g_mdMonitor.caller.cached.Get();
    cache_.piOffset = kCapacity;
    cache_.cachedCount = 9;
    (void)cache_packet(frame_of(24));
    EXPECT_EQ(g_mdMonitor.caller.cacheDropped.Get(), before + 9);
    EXPECT_EQ(g_mdMonitor.caller.cached.Get(), cached + 1);
}

TEST_F(UdpCacheTest, WarnsOfEveryOverflow) {
    for (int round = 0; round < 2; ++round) {
        cache_.piOffset = kCapacity;
        cache_.cachedCount = 9;
        EXPECT_THAT(at_levels(cache_packet(frame_of(24)), "EWID"),
                    ElementsAre("W ExanicUdpFunc CachePacket too many packet to cache, clear 9"));
    }
}

TEST_F(UdpCacheTest, HasNothingToReplayWhenEmpty) {
    for (const int32_t count : {0, -1}) {
        cache_.piOffset = 100;
        cache_.ciOffset = kCapacity; // not looked at
        cache_.cachedCount = count;
        const Outcome outcome = process();
        EXPECT_EQ(outcome.result, RET_OK);
        EXPECT_THAT(outcome.log,
                    ElementsAre("W ExanicUdpFunc ProcessCached no cached packet to process"));
        expect_offsets(100, kCapacity, count);
    }
}

TEST_F(UdpCacheTest, ReplaysOneEntryACallInTheOrderOfArrival) {
    subscribe(LAST_SLOT, "sc2609");
    cache_packet(message().highest(200).bytes());
    cache_packet(message().topic(kIne2psTopic).instrument(0).lowest(20).bytes());
    cache_packet(message().change_no(kChangeNo + 2).highest(300).bytes());

    instrument expected = record();
    expected.type = EXCHANGE_TYPE_SHFE;
    expected.update_time = kTime;
    expected.update_milli_sec = kMillisec;
    expected.change_no = kChangeNo + 1;
    expected.highest_price = 200.0;
    const Outcome first = process();
    EXPECT_EQ(first.result, RET_TO_CALLBACK);
    EXPECT_EQ(first.slot, kSlot);
    EXPECT_THAT(first.changed, ElementsAre(kSlot));
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_EQ(first.log[0],
              "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 32");
    EXPECT_EQ(first.log[1], "X ExanicUdpFunc _ParseMirp topicID: 0x3e8, snapMillisec: 500, "
                            "snapTime: 93000, packetNo: 4711");
    expect_offsets(120, 40, 2);

    const Outcome second = process();
    EXPECT_EQ(second.result, RET_TO_CALLBACK);
    EXPECT_EQ(second.slot, static_cast<uint32_t>(LAST_SLOT));
    EXPECT_EQ(second.log[0],
              "X ExanicUdpFunc ProcessCached process decode buffer offset: 40, size: 32");
    EXPECT_EQ(record(LAST_SLOT).lowest_price, 20.0);
    expect_offsets(120, 80, 1);

    EXPECT_EQ(process().result, RET_TO_CALLBACK);
    EXPECT_EQ(record().highest_price, 300.0);
    expect_offsets(120, 120, 0);
    EXPECT_EQ(process().result, RET_OK);
    expect_offsets(120, 120, 0);
}

TEST_F(UdpCacheTest, AnEntryIsConsumedWhateverItsResult) {
    struct Row {
        const char* name;
        Bytes frame;
        int32_t result;
    };
    const Row rows[] = {
        {"Applied", message().bytes(), RET_TO_CALLBACK},
        {"Stale", message().change_no(kChangeNo).bytes(), RET_OK},
        {"Undone", message().update(wirekit::Side::kBid, 1, 500, 1).bytes(), RET_OK},
        {"Gap", message().change_no(kChangeNo + 2).bytes(), RET_FAILED},
        {"UnknownTopic", message().topic(1).bytes(), RET_FAILED},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        subscribe(kSlot, "cu2609");
        cache_ = CacheBufInfo{buffer_.begin(), 0, 0, 0};
        cache_packet(row.frame);
        cache_packet(row.frame);
        const auto size = static_cast<int32_t>(row.frame.size());
        EXPECT_EQ(process().result, row.result);
        expect_offsets(2 * (8 + size), 8 + size, 1); // also after a failure: the caller clears
        EXPECT_EQ(bytes_at(8, row.frame.size()), row.frame);
    }
}

TEST_F(UdpCacheTest, FramesThatArriveDuringTheReplayComeBehindTheBacklog) {
    for (uint32_t i = 1; i <= 3; ++i) {
        cache_packet(message().change_no(kChangeNo + i).bytes());
    }
    uint32_t replayed = 0;
    for (uint32_t i = 4; i <= 8; ++i) {
        cache_packet(message().change_no(kChangeNo + i).bytes());
        EXPECT_EQ(process().result, RET_TO_CALLBACK);
        ++replayed;
        EXPECT_EQ(record().change_no, kChangeNo + replayed);
    }
    while (cache_.cachedCount > 0) {
        EXPECT_EQ(process().result, RET_TO_CALLBACK);
        ++replayed;
    }
    EXPECT_EQ(record().change_no, kChangeNo + 8);
    expect_offsets(8 * 32, 8 * 32, 0);
}

TEST_F(UdpCacheTest, TheReservedNumberOfAnEntryIsNotRead) {
    for (const uint32_t packet_no : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
        subscribe(kSlot, "cu2609");
        cache_ = CacheBufInfo{buffer_.begin(), 0, 0, 0};
        cache_packet(message().bytes());
        wirekit::put_le32(at(4), packet_no);
        EXPECT_EQ(process().result, RET_TO_CALLBACK);
        EXPECT_EQ(table_->shfe_pktno, kPacketNo);
    }
}

TEST_F(UdpCacheTest, AnEntryBelowTheHeadersSizeFailsInTheDecoder) {
    put_entry(0, 23);
    cache_ = CacheBufInfo{buffer_.begin(), 31, 0, 1};
    const Outcome outcome = process();
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(outcome.log,
                ElementsAre("X ExanicUdpFunc ProcessCached process decode buffer offset: 0, "
                            "size: 23",
                            "E ExanicUdpFunc _ParseMirp packet length too small: 23"));
    expect_offsets(31, 31, 0);
}

struct EdgeCase {
    const char* name;
    int32_t consume;
    int64_t size; // -1: no header can be read there
    const char* error;
    const char* why;
};

const EdgeCase kCorruptCases[] = {
    {"OffsetSevenBeforeTheEnd", kCapacity - 7, -1, "ciOffset out of range: 209715193",
     "the header would cross the end"},
    {"OffsetAtTheEnd", kCapacity, -1, "ciOffset out of range: 209715200", "nothing is there"},
    {"OffsetBehindTheEnd", kCapacity + 1, -1, "ciOffset out of range: 209715201",
     "nothing is there"},
    {"LargestOffset", INT32_MAX, -1, "ciOffset out of range: 2147483647",
     "plus eight it has no 32-bit value"},
    {"LargestSize", 0, 0xFFFFFFFF, "cached packet size out of range, offset: 0, size: 4294967295",
     "no 32-bit sum"},
    {"SizeWrappingToZero", 0, 0xFFFFFFF8,
     "cached packet size out of range, offset: 0, size: 4294967288", "no 32-bit sum"},
    {"SizeWrappingToTheHeader", 32, 0xFFFFFFFF - 31,
     "cached packet size out of range, offset: 32, size: 4294967264", "no 32-bit sum"},
    {"SignBitSize", 0, 0x80000000, "cached packet size out of range, offset: 0, size: 2147483648",
     "no signed sum"},
    {"OneByteTooLong", 0, kCapacity - 7,
     "cached packet size out of range, offset: 0, size: 209715193", "one byte behind the end"},
    {"OneByteTooLongAtTheEnd", kCapacity - 32, 25,
     "cached packet size out of range, offset: 209715168, size: 25", "one byte behind the end"},
    {"OneByteInTheLastHeader", kCapacity - 8, 1,
     "cached packet size out of range, offset: 209715192, size: 1", "one byte behind the end"},
};

TEST_F(UdpCacheTest, ACorruptCacheIsClearedAndFails) {
    for (const EdgeCase& row : kCorruptCases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        if (row.size >= 0) {
            put_entry(row.consume, static_cast<uint32_t>(row.size));
        }
        *at(100000) = 0xEE;
        cache_.piOffset = 12345;
        cache_.ciOffset = row.consume;
        cache_.cachedCount = 7;
        const Outcome outcome = process();
        EXPECT_EQ(outcome.result, RET_FAILED);
        std::vector<std::string> expected;
        if (row.size >= 0) {
            expected.push_back("X ExanicUdpFunc ProcessCached process decode buffer offset: " +
                               std::to_string(row.consume) + ", size: " + std::to_string(row.size));
        }
        expected.push_back(std::string("E ExanicUdpFunc ProcessCached ") + row.error);
        expected.push_back("I ExanicUdpFunc ClearCache decode buffer cleared");
        EXPECT_THAT(outcome.log, ::testing::ElementsAreArray(expected));
        expect_offsets(0, 0, 0);
        EXPECT_EQ(*at(100000), 0);
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_EQ(outcome.slot, kNoSlot);
    }
}

TEST_F(UdpCacheTest, WithTheLevelsOffTheSameHappensWithoutALine) {
    support::ScriptedCard& card = support::ScriptedCard::instance();
    const support::LogCapture capture(0);
    cache_.cachedCount = 0;
    EXPECT_EQ(udp_.ProcessCached(), RET_OK) << "nothing is cached";
    put_entry(0, 0xFFFFFFFF);
    cache_.cachedCount = 1;
    EXPECT_EQ(udp_.ProcessCached(), RET_FAILED) << "an entry behind the end";
    cache_.ciOffset = kCapacity - 7;
    cache_.cachedCount = 1;
    EXPECT_EQ(udp_.ProcessCached(), RET_FAILED) << "a header behind the end";
    card.push_result(0, 5);
    udp_.CachePacket();
    card.push_result(0, 5);
    EXPECT_EQ(udp_.UdpRecv(), RET_OK) << "too short";
    EXPECT_EQ(capture.text(), "");
    expect_offsets(0, 0, 0);
}

TEST_F(UdpCacheTest, EntriesThatEndAtTheCapacityAreReplayed) {
    const Bytes frame = message().bytes();
    put_entry(kCapacity - 32, 24, frame);
    cache_ = CacheBufInfo{buffer_.begin(), kCapacity, kCapacity - 32, 1};
    EXPECT_EQ(process().result, RET_TO_CALLBACK);
    expect_offsets(kCapacity, kCapacity, 0);

    // A field that is cut at the very end of the buffer: nothing behind it is read.
    Bytes cut = message().change_no(kChangeNo + 2).highest(3).bytes();
    cut.pop_back();
    put_entry(kCapacity - 39, 31, cut);
    cache_ = CacheBufInfo{buffer_.begin(), kCapacity, kCapacity - 39, 1};
    const Outcome outcome = process();
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_THAT(
        at_levels(outcome, "EWID"),
        ElementsAre("E ExanicUdpFunc _ParseMirp abnormal process fieldID: 0x1011 length: 7"));
    expect_offsets(kCapacity, kCapacity, 0);

    // A header without bytes behind it.
    put_entry(kCapacity - 8, 0);
    cache_ = CacheBufInfo{buffer_.begin(), kCapacity, kCapacity - 8, 2};
    const Outcome empty = process();
    EXPECT_EQ(empty.result, RET_FAILED);
    EXPECT_THAT(at_levels(empty, "EWID"),
                ElementsAre("E ExanicUdpFunc _ParseMirp packet length too small: 0"));
    expect_offsets(kCapacity, kCapacity, 1);
    // And behind that there is nothing but a corrupt offset.
    EXPECT_THAT(at_levels(process(), "EWID"),
                ElementsAre("E ExanicUdpFunc ProcessCached ciOffset out of range: 209715200",
                            "I ExanicUdpFunc ClearCache decode buffer cleared"));
    expect_offsets(0, 0, 0);
}

TEST_F(UdpCacheTest, AnEntryThatFillsTheWholeCacheIsHandedOn) {
    put_entry(0, kCapacity - 8, message().topic(2).bytes());
    cache_ = CacheBufInfo{buffer_.begin(), kCapacity, 0, 1};
    const Outcome outcome = process();
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(at_levels(outcome, "EWID"),
                ElementsAre("E ExanicUdpFunc _ParseMirp unsupported topicID: 0x2"));
    expect_offsets(kCapacity, kCapacity, 0);
}

TEST_F(UdpCacheTest, AnAbandonedBacklogShowsAsAGap) {
    cache_packet(message().bytes());
    cache_.piOffset = kCapacity; // full
    cache_packet(message().change_no(kChangeNo + 2).bytes());
    expect_offsets(32, 0, 1);
    const Outcome outcome = process();
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(at_levels(outcome, "EWID"),
                ElementsAre("E ExanicUdpFunc _ParseMirp discontinuous changeNo: 9, expected "
                            "changeNo: 8, instrumentID: cu2609, instrumentNo: 17, "
                            "instrumentNo: 17"));
    expect_offsets(32, 32, 0);
}

TEST_F(UdpCacheTest, ClearingZeroesEveryByteAndSaysSo) {
    std::memset(buffer_.begin(), 0xA5, kCapacity);
    cache_ = CacheBufInfo{buffer_.begin(), 5000, 300, 12};
    const Outcome outcome = watch([&] {
        udp_.ClearCache();
        return 0;
    });
    EXPECT_THAT(outcome.log, ElementsAre("I ExanicUdpFunc ClearCache decode buffer cleared"));
    expect_offsets(0, 0, 0);
    EXPECT_EQ(*at(0), 0);
    EXPECT_EQ(std::memcmp(at(0), at(1), kCapacity - 1), 0); // every byte equals the first
    // The cache works on.
    cache_packet(message().bytes());
    expect_offsets(32, 0, 1);
    EXPECT_EQ(process().result, RET_TO_CALLBACK);
}

TEST_F(UdpCacheTest, ClearingWhatIsNotFullClearsAllTheSame) {
    const support::LogCapture quiet(0);
    // Only the far end is dirty: the counters say nothing about it.
    *at(kCapacity - 1) = 0xA5;
    *at(kCapacity / 2) = 0xA5;
    udp_.ClearCache();
    EXPECT_EQ(*at(kCapacity - 1), 0);
    EXPECT_EQ(*at(kCapacity / 2), 0);
}

} // namespace
} // namespace udp_test
