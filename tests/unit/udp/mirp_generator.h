#pragma once

// Random worlds and random decode buffers for the comparison with the model: instruments of both
// exchanges with odd tick sizes, and messages from well-formed to plain noise, with enough of each
// kind that every way through the decoder is taken often.

#include "mirp_model.h"
#include "wirekit/mirp.h"

#include <random>
#include <string>
#include <vector>

namespace mirp_model {

struct Instrument {
    bool ine = false;
    uint32_t number = 0;
    uint32_t slot = 0;
};

class Generator {
public:
    explicit Generator(uint64_t seed);

    const Settings& settings() const { return settings_; }
    const std::vector<Instrument>& instruments() const { return instruments_; }

    // Random contents for a slot: an identifier that stays the same for the slot, then anything.
    Record record(const Instrument& instrument);
    Scaling scaling();

    // The next message for the model's present state.
    wirekit::Bytes message(Model& model);

    // True in one of `n` cases.
    bool one_in(uint32_t n) { return below(n) == 0; }
    const Instrument& any_instrument() { return instruments_[below(instruments_.size())]; }

private:
    uint64_t bits() { return random_(); }
    uint32_t below(std::size_t n) { return static_cast<uint32_t>(bits() % n); }
    template <typename Value, std::size_t Size>
    Value pick(const Value (&values)[Size]) {
        return values[below(Size)];
    }

    uint16_t topic(const Instrument& instrument);
    uint32_t change_no(Model& model, const Instrument& instrument);
    int32_t price_ticks(bool ask, int level);
    uint32_t volume();
    int64_t amount_offset();
    void add_price_change(wirekit::DecodeBufferBuilder& builder);
    void add_odd_price_change(wirekit::DecodeBufferBuilder& builder);
    void add_field(wirekit::DecodeBufferBuilder& builder);
    void add_noise(wirekit::DecodeBufferBuilder& builder);
    BookSide book_side(bool ask);

    std::mt19937_64 random_;
    Settings settings_;
    std::vector<Instrument> instruments_;
    std::vector<std::string> ids_; // parallel to instruments_
};

} // namespace mirp_model
