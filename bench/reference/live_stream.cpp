#include "bench/reference/live_stream.h"

#include "bench/reference/market.h"
#include "wirekit/mirp.h"

#include <random>
#include <vector>

namespace bench {

namespace {

using wirekit::DecodeBufferBuilder;
using wirekit::Side;

// Prices in ticks from the codec price: level l of a side stands 4 * l ticks away from it, so that
// a level can be inserted in front without touching the other side.
constexpr int32_t kTicksApart = 4;

int32_t price_of(Side side, int32_t level) {
    return side == Side::kBid ? -level * kTicksApart : level * kTicksApart;
}

// One instrument's script: eight messages after which its book is as it was.
class Script {
public:
    explicit Script(uint32_t phase) : step_(phase % kSteps & ~1u) {}

    void append(DecodeBufferBuilder& message, std::minstd_rand& random) {
        const auto volume = [&] { return 1 + static_cast<uint32_t>(random() % 400); };
        const auto level = [&] { return static_cast<uint8_t>(2 + random() % 4); };
        const Side side = step_ / 4 == 0 ? Side::kBid : Side::kAsk;
        const Side other = side == Side::kBid ? Side::kAsk : Side::kBid;
        switch (step_ % 4) {
        case 0: { // a better price, which shifts the side
            message.insert(side, 1, price_of(side, 1) - (side == Side::kBid ? -2 : 2), volume());
            trade(message, random);
            break;
        }
        case 1: { // gone again: the side moves up and its fifth level comes back
            message.erase(side, 1);
            message.update(side, 5, price_of(side, 5), volume());
            break;
        }
        case 2: {
            const uint8_t at = level();
            message.update(side, at, price_of(side, at), volume());
            trade(message, random);
            break;
        }
        default: {
            const uint8_t first = level();
            const uint8_t second = level();
            message.update(side, first, price_of(side, first), volume());
            message.update(other, second, price_of(other, second), volume());
            break;
        }
        }
        step_ = (step_ + 1) % kSteps;
    }

private:
    static constexpr uint32_t kSteps = 8;

    static void trade(DecodeBufferBuilder& message, std::minstd_rand& random) {
        const auto lots = static_cast<int32_t>(random() % 50);
        const auto ticks = static_cast<int32_t>(random() % 7) - 3;
        message.deal(ticks, lots, int64_t{lots} * ticks, static_cast<int64_t>(random() % 9) - 4);
    }

    uint32_t step_;
};

} // namespace

FrameList make_live_stream(uint32_t instruments, uint32_t messages, uint64_t seed) {
    std::minstd_rand random(static_cast<uint32_t>(seed));
    std::vector<Script> scripts;
    for (uint32_t i = 0; i < instruments; ++i) {
        scripts.emplace_back(i);
    }
    std::vector<uint32_t> change_no(instruments, 0);
    FrameList frames;
    DecodeBufferBuilder message;
    for (uint32_t n = 0; n < messages; ++n) {
        const auto i = static_cast<uint32_t>(random() % instruments);
        const Address address = address_of(i, instruments);
        message.clear();
        message.topic(address.topic).time(33'000'000 + n / 1000, static_cast<uint16_t>(n % 1000));
        message.packet_no(static_cast<int32_t>(n)).instrument(address.number);
        message.change_no(++change_no[i]);
        scripts[i].append(message, random);
        frames.add(message.bytes().data(), message.bytes().size());
    }
    return frames;
}

FrameList make_wide_stream(uint32_t instruments, uint32_t messages, uint32_t fields,
                           uint64_t seed) {
    std::minstd_rand random(static_cast<uint32_t>(seed));
    std::vector<uint32_t> change_no(instruments, 0);
    FrameList frames;
    DecodeBufferBuilder message;
    for (uint32_t n = 0; n < messages; ++n) {
        const auto i = static_cast<uint32_t>(random() % instruments);
        const Address address = address_of(i, instruments);
        message.clear();
        message.topic(address.topic).instrument(address.number).change_no(++change_no[i]);
        for (uint32_t field = 0; field < fields; ++field) {
            const Side side = random() % 2 == 0 ? Side::kBid : Side::kAsk;
            const auto level = static_cast<uint8_t>(1 + random() % 5);
            message.update(side, level, price_of(side, level),
                           1 + static_cast<uint32_t>(random() % 400));
        }
        frames.add(message.bytes().data(), message.bytes().size());
    }
    return frames;
}

} // namespace bench
