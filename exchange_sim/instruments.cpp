#include "exchange_sim/instruments.h"

#include "exchange_sim/rng.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace exchange_sim {

namespace {

constexpr uint64_t kCatalogueStream = 1;
constexpr int32_t kMaxStrikeDistance = 400;

struct Contract {
    uint32_t year_month; // yymm, as it stands in the identifier
    uint32_t rank;       // 0 is the next to expire
    int64_t price_milli; // settlement price
};

// Share of a product's activity by rank: the third month is the main one.
constexpr uint32_t kRankActivity[] = {28, 70, 100, 58, 40, 24, 15, 10, 7, 5, 4, 3, 2};

uint32_t rank_activity(uint32_t rank) {
    return kRankActivity[std::min<std::size_t>(rank, std::size(kRankActivity) - 1)];
}

int64_t round_to(int64_t value, int64_t step) {
    return (value + step / 2) / step * step;
}

std::string contract_id(const Product& product, const Contract& contract) {
    return std::string(product.code) + std::to_string(contract.year_month);
}

uint32_t depth_for(uint32_t activity) {
    return activity >= 2000 ? 90 : activity >= 300 ? 48 : activity >= 30 ? 26 : 12;
}

// Builds the candidates of one exchange and keeps as many of each kind as its size asks for.
class ExchangeListing {
public:
    ExchangeListing(Exchange exchange, const SessionOptions& options, Rng& rng)
        : exchange_(exchange), options_(options), rng_(rng) {
        list_contracts();
    }

    std::vector<Instrument> take(uint32_t count) {
        uint32_t spreads = count * options_.spreads_percent / 100;
        const uint32_t wanted_options = count * options_.options_percent / 100;
        add_futures(count - wanted_options - spreads);
        add_tas(spreads / 2);
        // What the futures could not fill is options' room; what the TAS contracts could not is the
        // calendar spreads'.
        add_spreads(spreads - tas_added_);
        add_options(count - static_cast<uint32_t>(taken_.size()));
        std::stable_sort(taken_.begin(), taken_.end(), [](const auto& a, const auto& b) {
            return a.kind != b.kind ? a.kind < b.kind : a.id < b.id;
        });
        assign_numbers();
        return std::move(taken_);
    }

private:
    void list_contracts() {
        const auto all = products();
        contracts_.resize(all.size());
        for (std::size_t index = 0; index < all.size(); ++index) {
            const Product& product = all[index];
            if (product.exchange != exchange_) {
                continue;
            }
            // Another seed is another day: the level moves by up to three percent.
            const int64_t level = product.price_milli * (1000 + rng_.between(-30, 30)) / 1000;
            uint32_t year = options_.date / 10000 % 100;
            uint32_t month = options_.date / 100 % 100;
            uint32_t rank = 0;
            for (uint32_t ahead = 0; ahead < product.listed_months; ++ahead) {
                if ((product.months >> (month - 1) & 1) != 0) {
                    const int64_t price = level + level * product.carry_per_myriad *
                                                      static_cast<int64_t>(ahead) / 10000;
                    contracts_[index].push_back(
                        {year * 100 + month, rank++, round_to(price, product.tick_milli)});
                }
                month = month % 12 + 1;
                year = (year + (month == 1 ? 1 : 0)) % 100;
            }
        }
    }

    template <typename Visit>
    void for_each_contract(Visit&& visit) const {
        for (std::size_t index = 0; index < contracts_.size(); ++index) {
            for (const Contract& contract : contracts_[index]) {
                visit(static_cast<uint16_t>(index), products()[index], contract);
            }
        }
    }

    void add_futures(uint32_t count) {
        std::vector<Instrument> candidates;
        for_each_contract([&](uint16_t index, const Product& product, const Contract& contract) {
            Instrument future = base(index, InstrumentKind::kFuture, product.tick_milli);
            future.id = contract_id(product, contract);
            future.underlying_id = product.code;
            future.activity = product.activity * rank_activity(contract.rank) / 10;
            future.pre_open_interest = static_cast<int64_t>(future.activity) * 40 + 100;
            future.fair_slope = 1000 * contract.price_milli;
            const int64_t band = contract.price_milli * product.limit_per_mille / 1000;
            set_prices(future, contract.price_milli, contract.price_milli, band);
            candidates.push_back(std::move(future));
        });
        take_most_active(candidates, count);
    }

    void add_tas(uint32_t count) {
        std::vector<Instrument> candidates;
        for_each_contract([&](uint16_t index, const Product& product, const Contract& contract) {
            Instrument tas = base(index, InstrumentKind::kTas, product.tick_milli);
            tas.id = contract_id(product, contract) + "TAS";
            tas.underlying_id = contract_id(product, contract);
            tas.activity = product.activity * rank_activity(contract.rank) / 400;
            // Traded as a distance from the settlement price to come, a few ticks either way.
            set_prices(tas, 0, 0, int64_t{20} * product.tick_milli);
            candidates.push_back(std::move(tas));
        });
        tas_added_ = take_most_active(candidates, count);
    }

    void add_spreads(uint32_t count) {
        std::vector<Instrument> candidates;
        for (std::size_t index = 0; index < contracts_.size(); ++index) {
            const Product& product = products()[index];
            const auto& legs = contracts_[index];
            for (std::size_t near = 0; near < legs.size(); ++near) {
                for (std::size_t far = near + 1; far < legs.size(); ++far) {
                    Instrument spread = base(static_cast<uint16_t>(index), InstrumentKind::kSpread,
                                             product.tick_milli);
                    spread.id =
                        contract_id(product, legs[near]) + "-" + contract_id(product, legs[far]);
                    spread.underlying_id = contract_id(product, legs[near]);
                    spread.activity = product.activity * rank_activity(legs[near].rank) /
                                      static_cast<uint32_t>(200 * (far - near));
                    const int64_t price = legs[near].price_milli - legs[far].price_milli;
                    const int64_t band = legs[near].price_milli * product.limit_per_mille / 4000;
                    const bool counted_from_zero = rng_.chance(500);
                    set_prices(spread, price, counted_from_zero ? 0 : price, band);
                    candidates.push_back(std::move(spread));
                }
            }
        }
        take_most_active(candidates, count);
    }

    // Strike by strike outwards from the money, so that a larger catalogue has more strikes.
    void add_options(uint32_t count) {
        std::vector<Instrument> candidates;
        for (int32_t step = 0; step <= kMaxStrikeDistance && candidates.size() < count; ++step) {
            for_each_contract(
                [&](uint16_t index, const Product& product, const Contract& contract) {
                    if (product.option_tick_milli != 0) {
                        add_strike(candidates, index, contract, step);
                        if (step > 0) {
                            add_strike(candidates, index, contract, -step);
                        }
                    }
                });
        }
        candidates.resize(std::min<std::size_t>(candidates.size(), count));
        std::move(candidates.begin(), candidates.end(), std::back_inserter(taken_));
    }

    void add_strike(std::vector<Instrument>& candidates, uint16_t index, const Contract& contract,
                    int32_t step) {
        const Product& product = products()[index];
        const int64_t future = contract.price_milli;
        const int64_t strike =
            round_to(future, product.strike_step_milli) + step * product.strike_step_milli;
        if (strike <= 0) {
            return;
        }
        for (const char type : {'C', 'P'}) {
            Instrument option = base(index, InstrumentKind::kOption, product.option_tick_milli);
            option.id = contract_id(product, contract) + type + std::to_string(strike / 1000);
            option.underlying_id = contract_id(product, contract);
            option.option_type = type == 'C' ? '1' : '2';
            option.strike_price = static_cast<double>(strike) / 1000.0;
            option.activity = product.activity * rank_activity(contract.rank) /
                              static_cast<uint32_t>(40 * (4 + step * step));
            option.pre_open_interest = static_cast<int64_t>(option.activity) * 60 + 10;
            // Worth what it would pay now and time value that falls away from the money, over a
            // width of six percent of the future's price.
            const int64_t in_the_money =
                std::max<int64_t>(0, type == 'C' ? future - strike : strike - future);
            const int64_t width = future * 6 / 100;
            const int64_t distance = (future - strike) * 1000 / width; // in thousandths
            const int64_t at_the_money = future * 25 / 1000 * (4 + contract.rank) / 6;
            const int64_t time_value =
                at_the_money * 1'000'000 / (1'000'000 + 3 * distance * distance);
            const int64_t price = std::max<int64_t>(in_the_money + time_value,
                                                    int64_t{3} * product.option_tick_milli);
            const int64_t call_delta = std::clamp<int64_t>(500 + distance / 3, 10, 990);
            option.fair_slope = (type == 'C' ? call_delta : call_delta - 1000) * future;
            set_prices(option, price, price, future * product.limit_per_mille / 1000);
            candidates.push_back(std::move(option));
        }
    }

    Instrument base(uint16_t product_index, InstrumentKind kind, int32_t tick_milli) const {
        Instrument instrument;
        instrument.exchange = exchange_;
        instrument.kind = kind;
        instrument.product = product_index;
        instrument.volume_multiple = products()[product_index].volume_multiple;
        instrument.tick_milli = tick_milli;
        instrument.price_tick = static_cast<double>(tick_milli) / 1000.0;
        return instrument;
    }

    // Codec price, reference and limits from prices in thousandths. Only contracts that may cost
    // less than nothing have a lower limit below one tick.
    void set_prices(Instrument& instrument, int64_t price, int64_t codec_near, int64_t band) {
        const int64_t tick = instrument.tick_milli;
        const bool signed_price =
            instrument.kind == InstrumentKind::kSpread || instrument.kind == InstrumentKind::kTas;
        if (codec_near == 0 || (!signed_price && rng_.chance(125))) {
            instrument.codec_milli = 0;
            instrument.codec_unpublished = true;
        } else {
            // Near the settlement price, not on it; never 0, which would mean something else.
            const int64_t ticks = codec_near / tick + rng_.between(-12, 12);
            instrument.codec_milli =
                (ticks == 0 || (ticks < 0 && !signed_price) ? 1 : ticks) * tick;
        }
        instrument.codec_price = static_cast<double>(instrument.codec_milli) / 1000.0;
        const int64_t reference = price / tick;
        const int64_t codec_ticks = instrument.codec_milli / tick;
        const int64_t lowest =
            signed_price ? reference - band / tick : std::max<int64_t>(1, reference - band / tick);
        instrument.reference_ticks = static_cast<int32_t>(reference - codec_ticks);
        instrument.lower_limit_ticks = static_cast<int32_t>(lowest - codec_ticks);
        instrument.upper_limit_ticks = static_cast<int32_t>(reference + band / tick - codec_ticks);
    }

    uint32_t take_most_active(std::vector<Instrument>& candidates, uint32_t count) {
        std::stable_sort(candidates.begin(), candidates.end(),
                         [](const auto& a, const auto& b) { return a.activity > b.activity; });
        candidates.resize(std::min<std::size_t>(candidates.size(), count));
        std::move(candidates.begin(), candidates.end(), std::back_inserter(taken_));
        return static_cast<uint32_t>(candidates.size());
    }

    // Ascending, with a hole here and there where an instrument has been delisted.
    void assign_numbers() {
        const uint32_t limit =
            exchange_ == Exchange::kShfe ? kMaxShfeInstruments : kMaxIneInstruments;
        uint32_t room = limit - static_cast<uint32_t>(taken_.size());
        uint32_t number = 0;
        for (Instrument& instrument : taken_) {
            if (room > 0 && rng_.chance(40)) {
                ++number;
                --room;
            }
            instrument.number = static_cast<uint16_t>(number++);
            instrument.activity = std::max(instrument.activity, 1u);
            instrument.depth = depth_for(instrument.activity);
        }
    }

    Exchange exchange_;
    const SessionOptions& options_;
    Rng& rng_;
    std::vector<std::vector<Contract>> contracts_; // by product
    std::vector<Instrument> taken_;
    uint32_t tas_added_ = 0;
};

void append_listing(std::vector<Instrument>& catalogue, Exchange exchange, uint32_t count,
                    const SessionOptions& options, Rng& rng) {
    if (count == 0) {
        return;
    }
    auto listed = ExchangeListing(exchange, options, rng).take(count);
    if (listed.size() != count) {
        throw std::length_error("the products do not yield so many instruments");
    }
    std::move(listed.begin(), listed.end(), std::back_inserter(catalogue));
}

} // namespace

std::vector<Instrument> make_catalogue(const SessionOptions& options) {
    // INE has a fifth of the numbers, and so a fifth of the instruments.
    uint32_t ine = 0;
    if (options.feeds == Feeds::kIne) {
        ine = options.instruments;
    } else if (options.feeds == Feeds::kBoth) {
        ine = std::max(options.instruments / 5, 1u);
    }
    Rng rng(options.seed, kCatalogueStream);
    std::vector<Instrument> catalogue;
    catalogue.reserve(options.instruments);
    append_listing(catalogue, Exchange::kShfe, options.instruments - ine, options, rng);
    append_listing(catalogue, Exchange::kIne, ine, options, rng);
    return catalogue;
}

} // namespace exchange_sim
