// The channel against the model: the same random frames to both, then everything that can be seen
// is compared. VORN_TEST_SEED in the environment chooses other traffic; a failure prints the seed
// of its batch.

#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/random_traffic.h"
#include "tests/unit/tcp/segment_script.h"
#include "tests/unit/tcp/snapshot_model.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

namespace tcp_test {
namespace {

using support::ScriptedCard;

// Batches of 40 sequences, of good and of hostile traffic each. A sanitizer makes each many times
// as slow and finds nothing in the later ones that it does not find in the first.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kBatches = 10;
#else
constexpr uint64_t kBatches = 40;
#endif

uint64_t base_seed() {
    const char* const text = std::getenv("VORN_TEST_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : 20260818;
}

instrument as_instrument(const SnapshotModel::Record& from) {
    instrument record{};
    std::memcpy(record.inst_id, from.inst_id.data(), from.inst_id.size());
    record.last_px = from.last_px;
    record.volume = from.volume;
    record.update_milli_sec = from.milli_sec;
    record.change_no = from.change_no;
    record.turnover = from.turnover;
    record.open_interest = from.open_interest;
    record.bid_totvol = from.bid_totvol;
    record.ask_totvol = from.ask_totvol;
    record.bid_totamount = from.bid_totamount;
    record.ask_totamount = from.ask_totamount;
    record.highest_price = from.highest;
    record.lowest_price = from.lowest;
    for (std::size_t i = 0; i < 10; ++i) {
        record.bid_px[i] = from.bid.px[i];
        record.bid_vol[i] = from.bid.vol[i];
        record.ask_px[i] = from.ask.px[i];
        record.ask_vol[i] = from.ask.vol[i];
    }
    return record;
}

template <typename Value>
bool same_bits(const Value& left, const Value& right) {
    return std::memcmp(&left, &right, sizeof(Value)) == 0;
}

class RandomDifferential : public SnapshotChannel {
protected:
    RandomDifferential() : card_(ScriptedCard::instance()) { card_.reset(); }
    ~RandomDifferential() override { card_.reset(); }

    // A configuration and a feed mix of the batch's own, for both sides.
    SnapshotModel configure(RandomTraffic& choice) {
        const uint8_t masks[] = {0x01, 0x04, 0x05, 0x09, 0x0A, 0x0F};
        enabled.mask = masks[choice.below(6)];
        std::vector<int16_t> topics = {kShfe2psTopic, kShfe4psTopic, kIne2psTopic, kIne4psTopic};
        for (int feed = 0; feed < 4; ++feed) { // mostly those of enabled feeds
            if ((enabled.mask >> feed & 1) != 0) {
                topics.insert(topics.end(), 5, topics[static_cast<std::size_t>(feed)]);
            }
        }
        choice.set_topics(topics);
        config.recvall = choice.one_in(2) ? 1 : 0;
        config.options = choice.one_in(2) ? 1 : 0;
        config.shield_price_check = choice.one_in(3);
        config.listen_insts = choice.one_in(2)
                                  ? std::vector<std::string>{"cu", "sc2612"}
                                  : std::vector<std::string>{"al2601", "", "cu2601", "zn26"};
        config.total_listen_cnt = static_cast<uint32_t>(config.listen_insts.size());
        rebuild();
        core->InitTcp(card_.registers(), nullptr);
        return SnapshotModel({.port_2ps = config.md2ps_snap_port,
                              .port_4ps = config.md4ps_snap_port,
                              .topic_shfe2ps = config.shfe2ps_topic_id,
                              .topic_shfe4ps = config.shfe4ps_topic_id,
                              .topic_ine2ps = config.ine2ps_topic_id,
                              .topic_ine4ps = config.ine4ps_topic_id,
                              .recvall = config.recvall != 0,
                              .options = config.options != 0,
                              .shield = config.shield_price_check,
                              .listen = config.listen_insts,
                              .enabled = enabled.mask});
    }

    std::string sessions_differ(const SnapshotModel& model) {
        for (const auto& [port, expected] : model.sessions) {
            const auto local = static_cast<uint16_t>(port);
            const TcpSession& now = session(local);
            const std::string where = "session " + std::to_string(port) + " ";
            if (now.init != expected.init || now.em_dqp_data_type != expected.type) {
                return where + "state";
            }
            if (now.next_expt_seq != expected.next_seq || now.current_seq != expected.first_seq) {
                return where + "sequence";
            }
            if (now.src_host != expected.src_host || now.dst_host != expected.dst_host ||
                now.src_port != expected.src_port || now.dst_port != expected.dst_port) {
                return where + "addresses";
            }
            if (now.frag_flag != expected.frag || (now.frag_buf != nullptr) != expected.buffer ||
                joined(local) != expected.joined) {
                return where + "joining";
            }
            if (now.lost_flag != expected.lost || now.lost_buf_size != expected.held_count) {
                return where + "held count";
            }
            std::size_t i = 0;
            for (const TcpLostBuf* node = now.lost_buf_head; node != nullptr; node = node->next) {
                if (i >= expected.held.size() || node->len != expected.held[i].size() ||
                    std::memcmp(node->buf, expected.held[i].data(), node->len) != 0) {
                    return where + "held segments";
                }
                ++i;
            }
            if (i != expected.held.size()) {
                return where + "held segments";
            }
        }
        return "";
    }

    std::string slot_differs(const SnapshotModel& model, int index) {
        const auto record = model.records.find(index);
        const instrument expected =
            record != model.records.end() ? as_instrument(record->second) : instrument{};
        if (!same_bits(slot(index), expected)) {
            return "record " + std::to_string(index);
        }
        const auto scale = model.scales.find(index);
        const auto scaling = scale != model.scales.end() ? scale->second : SnapshotModel::Scale{};
        if (!same_bits(calc->priceTick[index], scaling.tick) ||
            !same_bits(calc->codecPrice[index], scaling.codec) ||
            calc->volumeMulti[index] != scaling.multiple) {
            return "scaling " + std::to_string(index);
        }
        const auto limit = model.limits.find(index);
        const auto limits = limit != model.limits.end() ? limit->second : SnapshotModel::Limits{};
        if (!same_bits(core->inter_infos[index].upper_limit_price, limits.upper) ||
            !same_bits(core->inter_infos[index].lower_limit_price, limits.lower)) {
            return "limits " + std::to_string(index);
        }
        return "";
    }

    // Empty when both sides agree; every slot is looked at when `all` is set.
    std::string differs(const SnapshotModel& model, bool all) {
        if (table->shfe_inst_cnt != model.shfe_count || table->ine_inst_cnt != model.ine_count) {
            return "counts";
        }
        if (table->shfe_pktno != model.shfe_packet_no || table->ine_pktno != model.ine_packet_no) {
            return "packet numbers";
        }
        if (finished.mask != model.finished) {
            return "finished mask";
        }
        if (core->shfe_cnt_80_flag != model.warn_shfe_80 ||
            core->ine_cnt_80_flag != model.warn_ine_80 ||
            core->shfe_cnt_flag != model.warn_shfe_no || core->ine_cnt_flag != model.warn_ine_no) {
            return "warning switches";
        }
        std::string difference = sessions_differ(model);
        for (const auto& [index, record] : model.records) {
            difference = difference.empty() ? slot_differs(model, index) : difference;
        }
        for (int index = 0; all && index < INSTRUMENT_SLOT_CNT; ++index) {
            difference = difference.empty() ? slot_differs(model, index) : difference;
        }
        return difference;
    }

    void expect_same_log(const Log& log, const Log& expected) {
        for (std::size_t i = 0; i < std::max(log.size(), expected.size()); ++i) {
            ASSERT_EQ(i < log.size() ? log[i] : "nothing",
                      i < expected.size() ? expected[i] : "nothing")
                << "line " << i;
        }
    }

    // How much of the traffic reached the interesting places.
    struct Totals {
        uint64_t frames = 0;
        uint64_t messages = 0;
        uint64_t cleans = 0;
        uint64_t checks = 0;
        uint64_t stores = 0;
    };

    void run_batch(uint64_t seed, bool hostile, Totals& totals);

    ScriptedCard& card_;
};

void RandomDifferential::run_batch(uint64_t seed, bool hostile, Totals& totals) {
    SCOPED_TRACE((hostile ? "hostile batch, VORN_TEST_SEED=" : "good batch, VORN_TEST_SEED=") +
                 std::to_string(seed));
    RandomTraffic traffic(
        seed, {.src_ports = {kMd2psPort, kMd4psPort}, .topics = {}, .hostile = hostile});
    SnapshotModel model = configure(traffic);
    for (int number = 0; number < 40; ++number) {
        const bool with_log = number % 10 == 3;
        const bool with_stores = number % 10 < 4;
        card_.record_stores(with_stores);
        card_.clear_stores();
        model.stores.clear();
        model.log.clear();
        model.keep_log = with_log;
        const std::vector<Bytes> frames = traffic.sequence();
        const auto all = [&] {
            for (const Bytes& frame : frames) {
                deliver(frame);
            }
        };
        for (const Bytes& frame : frames) {
            model.frame(frame);
        }
        totals.frames += frames.size();
        totals.stores += model.stores.size();
        if (with_log) {
            const Log log = logged(all);
            expect_same_log(log, model.log);
        } else {
            all();
        }
        if (with_stores) {
            std::vector<support::RegisterStore> expected;
            for (const auto& [word, value] : model.stores) {
                expected.push_back({word, value});
            }
            ASSERT_EQ(card_.stores(), expected);
        }
        ASSERT_EQ(differs(model, number % 20 == 19), "") << "sequence " << number;
        if (HasFatalFailure()) {
            return;
        }
        // The decoder thread does so at the start of a phase; a finished snapshot takes no more.
        if (traffic.one_in(model.finished != 0 ? 2 : 4)) {
            core->_Cleandata();
            model.clean();
        }
    }
    totals.messages += model.messages;
    totals.cleans += model.cleans;
    totals.checks += model.price_checks;
}

TEST_F(RandomDifferential, TheChannelDoesWhatTheModelDoes) {
    const uint64_t seed = base_seed();
    std::cout << "VORN_TEST_SEED=" << seed << "\n";
    Totals good;
    Totals hostile;
    for (uint64_t batch = 0; batch < kBatches && !HasFatalFailure(); ++batch) {
        run_batch(seed + 2 * batch, false, good);
        run_batch(seed + 2 * batch + 1, true, hostile);
    }
    for (const Totals& totals : {good, hostile}) {
        std::cout << totals.frames << " frames, " << totals.messages << " messages, "
                  << totals.stores << " register stores, " << totals.checks << " price checks, "
                  << totals.cleans << " cleans\n";
        // The traffic must not degenerate.
        EXPECT_GT(totals.messages, 1000u);
        EXPECT_GT(totals.checks, 50u);
        EXPECT_GT(totals.cleans, 50u);
        EXPECT_GT(totals.stores, 500u);
    }
}

} // namespace
} // namespace tcp_test
