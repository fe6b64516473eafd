// `vorn verify` over captures with one byte of one live decode buffer changed. The session has one
// line, so that no other copy mends the damage.

#include "session_capture.h"
#include "session_program.h"

#include <functional>
#include <random>

using exchange_sim::testing::apply_decode_buffer;
using vorn_session::contains;
using vorn_session::InstrumentKey;

namespace {

struct Span {
    std::size_t offset; // in the decode buffer
    std::size_t size;
};

// Where the fields of a decode buffer stand that a kind of damage may hit.
using Finder =
    std::function<void(std::span<const uint8_t> field, std::size_t at, std::vector<Span>& found)>;

void find_prices(std::span<const uint8_t> field, std::size_t at, std::vector<Span>& found) {
    const uint16_t id = wirekit::get_le16(field.data());
    if (id == 0x1001) {
        found.push_back({at + 4, 4});
    } else if (id == 0x1002 || id == 0x1011 || id == 0x1012) {
        found.push_back({at + 2, 4});
    }
}

void find_volumes(std::span<const uint8_t> field, std::size_t at, std::vector<Span>& found) {
    const uint16_t id = wirekit::get_le16(field.data());
    if (id == 0x1001) {
        found.push_back({at + 8, 4});
    } else if (id == 0x1002) {
        found.push_back({at + 6, 4});
    } else if (id == 0x1019 || id == 0x101A) {
        found.push_back({at + 2, 4});
    }
}

void find_padding(std::span<const uint8_t> field, std::size_t at, std::vector<Span>& found) {
    if (wirekit::get_le16(field.data()) == 0x1001) {
        found.push_back({at + 13, 3});
    }
}

std::size_t field_size(uint16_t id) {
    switch (id) {
    case 0x1002:
        return 32;
    case 0x1011:
    case 0x1012:
        return 8;
    default:
        return 16;
    }
}

std::vector<Span> find(std::span<const uint8_t> buffer, const Finder& finder) {
    std::vector<Span> found;
    for (std::size_t at = 24; at < buffer.size();) {
        const std::size_t size = field_size(wirekit::get_le16(&buffer[at]));
        finder(buffer.subspan(at, size), at, found);
        at += size;
    }
    return found;
}

class Damage : public vorn_session::SessionProgram {
protected:
    struct Live {
        std::size_t frame;
        InstrumentKey key;
        exchange_sim::ExpectedRecord before; // what a consumer holds when the buffer comes
    };

    void SetUp() override {
        sim("s", {"--set", "lines=a", "--seed", "21"});
        original_ = content("s.pcap");
        vorn_session::SessionCapture capture(original_);
        const auto cached = replay("s.pcap")["cached"].get<std::size_t>();
        table_ = capture.first_rounds();
        ASSERT_EQ(table_.size(), 30u);
        for (std::size_t i = 0; i < capture.changes().size(); ++i) {
            const std::size_t frame = capture.changes()[i];
            const InstrumentKey key = capture.instrument(frame);
            auto& entry = table_.at(key);
            if (i >= cached) {
                live_.push_back({frame, key, entry.record});
            } else {
                early_.push_back(frame);
            }
            apply(entry.record, entry.scale, key, capture.buffer(frame));
        }
        ASSERT_GT(live_.size(), 2000u);
    }

    static exchange_sim::testing::Applied apply(exchange_sim::ExpectedRecord& record,
                                                const exchange_sim::testing::Scale& scale,
                                                InstrumentKey key,
                                                std::span<const uint8_t> buffer) {
        return apply_decode_buffer(record, scale, static_cast<uint16_t>(key.first), buffer);
    }

    support::ChildRun verify(const vorn_session::SessionCapture& capture) const {
        directory_.write("damaged.pcap", capture.bytes());
        return vorn({"verify", "damaged.pcap", "--truth", "s.truth"});
    }

    // Changes one byte of a span of a frame's buffer; the checksum is given up, as one that the
    // sender did not compute.
    void flip(vorn_session::SessionCapture& capture, std::size_t frame, Span span) {
        const auto buffer = capture.buffer(frame);
        buffer[span.offset + random_() % span.size] ^= static_cast<uint8_t>(1 + random_() % 255);
        capture.frame(frame)[40] = 0;
        capture.frame(frame)[41] = 0;
    }

    // Makes `wanted` flips that have an effect, and holds verify to each; those that have none
    // (of a price that a delete does not use, of a level that is pushed out again at once) must
    // pass.
    void flip_and_verify(
        int wanted,
        const std::function<std::vector<Span>(std::span<const uint8_t> buffer)>& spans) {
        int harmless = 0;
        for (int done = 0; done < wanted;) {
            const Live& live = live_[random_() % live_.size()];
            vorn_session::SessionCapture capture(original_);
            const auto choice = spans(capture.buffer(live.frame));
            if (choice.empty()) {
                continue;
            }
            const Span span = choice[random_() % choice.size()];
            const auto& entry = table_.at(live.key);
            auto right = live.before;
            ASSERT_EQ(apply(right, entry.scale, live.key, capture.buffer(live.frame)),
                      exchange_sim::testing::Applied::kYes);
            flip(capture, live.frame, span);
            auto wrong = live.before;
            apply(wrong, entry.scale, live.key, capture.buffer(live.frame));
            const std::string id = entry.record.inst_id.data();
            const std::string where = id + " change " + std::to_string(right.change_no) +
                                      " offset " + std::to_string(span.offset);
            if (wrong == right) {
                if (++harmless <= 3) {
                    const auto run = verify(capture);
                    EXPECT_EQ(run.exit_status, 0) << where << '\n' << run.err;
                }
                continue;
            }
            const auto run = verify(capture);
            EXPECT_EQ(run.exit_status, 3) << where << '\n' << run.out << run.err;
            EXPECT_TRUE(contains(run.out + run.err, id)) << where << '\n' << run.out << run.err;
            ++done;
        }
    }

    std::string original_;
    std::map<InstrumentKey, exchange_sim::testing::SnapshotEntry> table_;
    std::vector<Live> live_;
    std::vector<std::size_t> early_; // frames that come before the feed is live
    std::mt19937 random_{20260115};
};

TEST_F(Damage, OfALivePriceIsFound) {
    flip_and_verify(40, [](std::span<const uint8_t> buffer) { return find(buffer, find_prices); });
}

TEST_F(Damage, OfALiveVolumeIsFound) {
    flip_and_verify(40, [](std::span<const uint8_t> buffer) { return find(buffer, find_volumes); });
}

TEST_F(Damage, OfALiveChangeNumberIsFound) {
    flip_and_verify(30, [](std::span<const uint8_t>) { return std::vector<Span>{{18, 4}}; });
}

TEST_F(Damage, OfPaddingIsNone) {
    for (int done = 0; done < 3;) {
        const Live& live = live_[random_() % live_.size()];
        vorn_session::SessionCapture capture(original_);
        const auto padding = find(capture.buffer(live.frame), find_padding);
        if (!padding.empty()) {
            flip(capture, live.frame, padding[0]);
            const auto run = verify(capture);
            EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
            ++done;
        }
    }
}

// What the snapshot contains already is not applied.
TEST_F(Damage, BeforeTheSnapshotIsNone) {
    auto states = vorn_session::SessionCapture(original_).first_rounds();
    int done = 0;
    for (const std::size_t frame : early_) {
        vorn_session::SessionCapture capture(original_);
        const auto prices = find(capture.buffer(frame), find_prices);
        if (done < 3 && !prices.empty() &&
            capture.change_no(frame) <= states.at(capture.instrument(frame)).record.change_no) {
            flip(capture, frame, prices[0]);
            const auto run = verify(capture);
            EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
            ++done;
        }
    }
    EXPECT_EQ(done, 3);
}

} // namespace
