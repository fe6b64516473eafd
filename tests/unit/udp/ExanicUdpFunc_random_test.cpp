// The decoder against the model: the same random buffers into both, and everything that they leave
// behind compared bit for bit. VORN_TEST_SEED chooses another run; the seed is printed.

#include "guarded_memory.h"
#include "mirp_generator.h"
#include "udp_fixture.h"

#include <cstdlib>
#include <deque>
#include <iostream>

namespace udp_test {
namespace {

using mirp_model::Generator;
using mirp_model::Instrument;
using mirp_model::Model;
using mirp_model::Path;
using support::ScriptedCard;
using wirekit::Bytes;

constexpr uint32_t kWorlds = 24;
constexpr uint32_t kMessages = 25000;       // of a world
constexpr uint32_t kLoggedMessages = 600;   // of them with the log compared
constexpr uint32_t kReseedEvery = 150;      // messages until a slot gets a new record
constexpr uint32_t kUntouched = 0x5AC0FFEE; // register value between messages

uint64_t base_seed() {
    const char* text = std::getenv("VORN_TEST_SEED");
    const uint64_t seed = text != nullptr ? std::strtoull(text, nullptr, 0) : 20260818;
    std::cout << "seed " << seed << std::endl;
    return seed;
}

std::string hex(const Bytes& bytes) {
    std::string text;
    char digits[4];
    for (const uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x ", byte);
        text += digits;
    }
    return text;
}

class UdpRandomTest : public UdpTest {
protected:
    // An empty table and the generator's configuration, with a record on each of its slots.
    void start_world(Model& model, Generator& generator) {
        const mirp_model::Settings& settings = generator.settings();
        config_.shfe2ps_topic_id = settings.shfe_2ps_topic;
        config_.shfe4ps_topic_id = settings.shfe_4ps_topic;
        config_.ine2ps_topic_id = settings.ine_2ps_topic;
        config_.ine4ps_topic_id = settings.ine_4ps_topic;
        config_.options = settings.options;
        std::memset(static_cast<void*>(table_.get()), 0, sizeof(share));
        *calc_ = PriceCalcInfo{};
        cur_inst_no_ = 0;
        ScriptedCard::instance().record_stores(false); // a plain store instead of a trap
        for (const Instrument& instrument : generator.instruments()) {
            put(model, instrument, generator);
        }
    }

    // A new record and scaling for a slot, the same on both sides.
    void put(Model& model, const Instrument& instrument, Generator& generator) {
        const mirp_model::Record fresh = generator.record(instrument);
        model.records[instrument.slot] = fresh;
        const auto image = mirp_model::record_image(fresh);
        std::memcpy(&table_->instmts[instrument.slot], image.data(), image.size());
        const mirp_model::Scaling scaling = generator.scaling();
        model.scalings[instrument.slot] = scaling;
        calc_->priceTick[instrument.slot] = scaling.tick;
        calc_->codecPrice[instrument.slot] = scaling.codec_price;
        calc_->volumeMulti[instrument.slot] = scaling.volume_multiple;
    }

    ::testing::AssertionResult same_slot(const Model& model, uint32_t slot) {
        const auto found = model.records.find(slot);
        const auto image = mirp_model::record_image(
            found != model.records.end() ? found->second : mirp_model::Record{});
        instrument expected;
        static_assert(sizeof expected == mirp_model::kRecordSize);
        std::memcpy(&expected, image.data(), image.size());
        return same_record(expected, record(slot));
    }

    // One message into the model and, by `decode`, into the feed; false when they differ.
    template <typename Decode>
    bool step(Model& model, const Bytes& bytes, Decode&& decode) {
        volatile uint32_t& snap_time = ScriptedCard::instance().registers()[kSnapTimeWord];
        snap_time = kUntouched;
        model.snap_time_register = kUntouched;
        const int32_t expected = model.parse(bytes.data(), static_cast<uint32_t>(bytes.size()));
        EXPECT_EQ(decode(), expected);
        EXPECT_EQ(cur_inst_no_, model.slot);
        EXPECT_TRUE(same_slot(model, model.slot));
        EXPECT_EQ(table_->shfe_pktno, model.shfe_packet_no);
        EXPECT_EQ(table_->ine_pktno, model.ine_packet_no);
        const uint32_t stored = snap_time;
        EXPECT_EQ(stored, model.snap_time_register);
        if (HasFailure()) {
            ADD_FAILURE() << bytes.size() << " bytes: " << hex(bytes);
        }
        return !HasFailure();
    }

    void expect_equal_tables(const Model& model) {
        for (uint32_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
            ASSERT_TRUE(same_slot(model, slot)) << "slot " << slot;
        }
    }
};

class UdpDecoderRandomTest : public UdpRandomTest {
protected:
    // A channel, a configuration and a table of its own for each seed; stops at a difference.
    void run_world(uint64_t seed) {
        Generator generator(seed);
        Model model(generator.settings());
        start_world(model, generator);
        CExanicUdpFunc channel(config_, table_.get(), cache_, *calc_, cur_inst_no_);
        auto& card = ScriptedCard::instance();
        channel.InitUdp(card.registers(), card.rx(0));
        const auto run = [&](uint32_t count) {
            for (uint32_t i = 0; i < count; ++i) {
                if (i % kReseedEvery == 0) {
                    put(model, generator.any_instrument(), generator);
                }
                const Bytes bytes = generator.message(model);
                // The last byte of the message is the last one that can be read.
                char* const at = memory_.end() - bytes.size();
                std::copy(bytes.begin(), bytes.end(), at);
                const auto len = static_cast<uint32_t>(bytes.size());
                if (!step(model, bytes, [&] { return channel._ParseMirp(at, len); })) {
                    ADD_FAILURE() << "message " << i;
                    return;
                }
            }
        };
        std::vector<std::string> log;
        model.keep_log = true;
        {
            const support::LogCapture capture(31);
            run(kLoggedMessages);
            log = capture.summary();
        }
        model.keep_log = false;
        for (std::size_t i = 0; i < log.size() && i < model.log.size(); ++i) {
            ASSERT_EQ(log[i], model.log[i]) << "line " << i;
        }
        ASSERT_EQ(log.size(), model.log.size());
        {
            const support::LogCapture quiet(0);
            run(kMessages - kLoggedMessages);
        }
        expect_equal_tables(model);
        for (std::size_t i = 0; i < taken_.size(); ++i) {
            taken_[i] += model.taken[i];
        }
    }

    GuardedMemory memory_{4096};
    decltype(Model::taken) taken_{};
};

TEST_F(UdpDecoderRandomTest, LeavesTheSameBehindAsTheModel) {
    const uint64_t seed = base_seed();
    for (uint32_t world = 0; world < kWorlds && !HasFailure(); ++world) {
        SCOPED_TRACE("world " + std::to_string(world));
        run_world(seed * 1000 + world);
    }
    // The buffers reached everything that the decoder can do.
    for (std::size_t path = 0; path < taken_.size() && !HasFailure(); ++path) {
        EXPECT_GE(taken_[path], 500u) << "path " << path;
    }
}

class UdpCacheRandomTest : public UdpRandomTest {};

// Caching and replaying in any order, with overflows: a queue of frames and the offsets that
// follow from their sizes.
TEST_F(UdpCacheRandomTest, ReplaysWhatAQueueWouldAndCountsItsBytes) {
    const uint64_t seed = base_seed();
    Generator generator(seed * 1000 + 999);
    Model model(generator.settings());
    start_world(model, generator);
    const GuardedMemory buffer(CACHE_BUF_SIZE);
    const int32_t start = CACHE_BUF_SIZE - 60000; // an overflow every few hundred frames
    cache_ = CacheBufInfo{buffer.begin(), start, start, 0};
    auto& card = ScriptedCard::instance();
    const support::LogCapture quiet(0);

    std::deque<Bytes> queue;
    int32_t put_offset = start;
    int32_t consume_offset = start;
    int overflows = 0;
    for (int round = 0; round < 30000 && !HasFailure(); ++round) {
        Bytes bytes = generator.message(model);
        bytes.resize(std::min<std::size_t>(bytes.size(), RECV_BUF_SIZE));
        card.push(0, bytes);
        udp_.CachePacket();
        if (bytes.size() >= 24) {
            if (put_offset > CACHE_BUF_SIZE - 2056) {
                queue.clear();
                put_offset = 0;
                consume_offset = 0;
                ++overflows;
            }
            queue.push_back(bytes);
            put_offset += 8 + static_cast<int32_t>(bytes.size());
        }
        if (put_offset > 500000 && put_offset < start) { // back to the end of the buffer
            queue.clear();
            put_offset = consume_offset = start;
            cache_ = CacheBufInfo{buffer.begin(), start, start, 0};
        }
        for (int i = generator.one_in(2) ? 2 : 0; i > 0 && !queue.empty(); --i) {
            const Bytes next = queue.front();
            queue.pop_front();
            consume_offset += 8 + static_cast<int32_t>(next.size());
            step(model, next, [&] { return udp_.ProcessCached(); });
        }
        ASSERT_EQ(cache_.piOffset, put_offset);
        ASSERT_EQ(cache_.ciOffset, consume_offset);
        ASSERT_EQ(cache_.cachedCount, static_cast<int32_t>(queue.size()));
    }
    EXPECT_GE(overflows, 3);
    expect_equal_tables(model);
}

} // namespace
} // namespace udp_test
