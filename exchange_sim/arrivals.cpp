#include "exchange_sim/arrivals.h"

#include <algorithm>

namespace exchange_sim {

namespace {

// Cumulative probabilities, in millionths, of having no child, one child, ... : Poisson around
// 0.65. A first arrival and all that descends from it are then 1 / (1 - 0.65) arrivals on average.
constexpr uint32_t kChildren[] = {522'046, 861'376, 971'658, 995'552, 999'435};
constexpr uint32_t kFirstPerMille = 350;

constexpr uint64_t kFastNs = 30'000;     // answers of machines
constexpr uint64_t kSlowNs = 2'000'000;  // quotes moved after the price
constexpr uint64_t kLateNs = 60'000'000; // attention
constexpr uint32_t kFastPerMille = 500;
constexpr uint32_t kSlowPerMille = 350;
constexpr uint32_t kRelatedPerMille = 180; // children in another contract of the product

} // namespace

Arrivals::Arrivals(const std::vector<Instrument>& catalogue, uint64_t start_ns, uint32_t rate,
                   Rng rng)
    : rng_(rng), mean_gap_ns_(1'000'000'000ull * 1024 * 1000 / (uint64_t{rate} * kFirstPerMille)) {
    const std::size_t count = catalogue.size();
    by_product_.resize(products().size());
    uint64_t total = 0;
    for (uint32_t index = 0; index < count; ++index) {
        total += catalogue[index].activity;
        product_of_.push_back(catalogue[index].product);
        by_product_[catalogue[index].product].push_back(index);
    }
    for (auto& members : by_product_) {
        std::stable_sort(members.begin(), members.end(), [&](uint32_t left, uint32_t right) {
            return catalogue[left].activity > catalogue[right].activity;
        });
    }

    // Each entry of the table gets `total` units of weight, filled from one instrument that has too
    // little and one that has enough.
    std::vector<uint64_t> weight(count);
    std::vector<uint32_t> poor;
    std::vector<uint32_t> rich;
    for (uint32_t index = 0; index < count; ++index) {
        weight[index] = catalogue[index].activity * uint64_t{count};
        (weight[index] < total ? poor : rich).push_back(index);
    }
    threshold_.assign(count, UINT32_MAX);
    alias_.resize(count);
    for (uint32_t index = 0; index < count; ++index) {
        alias_[index] = index;
    }
    while (!poor.empty() && !rich.empty()) {
        const uint32_t low = poor.back();
        const uint32_t high = rich.back();
        poor.pop_back();
        // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): with a total of zero nothing is poor
        threshold_[low] = static_cast<uint32_t>((weight[low] << 20) / total << 12);
        alias_[low] = high;
        weight[high] -= total - weight[low];
        if (weight[high] < total) {
            rich.pop_back();
            poor.push_back(high);
        }
    }

    next_first_ = {start_ns + rng_.exponential(mean_gap_ns_) / 1024, pick_instrument(), true};
}

uint64_t Arrivals::next_time() const {
    return children_.empty() ? next_first_.time_ns
                             : std::min(next_first_.time_ns, children_.front().time_ns);
}

Arrival Arrivals::pop() {
    Arrival arrival;
    if (children_.empty() || next_first_.time_ns <= children_.front().time_ns) {
        arrival = next_first_;
        next_first_ = {arrival.time_ns + rng_.exponential(mean_gap_ns_) / 1024, pick_instrument(),
                       true};
    } else {
        std::pop_heap(children_.begin(), children_.end(), Later());
        arrival = children_.back();
        children_.pop_back();
    }
    add_children(arrival);
    return arrival;
}

void Arrivals::add_children(const Arrival& parent) {
    const uint32_t draw = rng_.below(1'000'000);
    for (std::size_t i = 0; i < std::size(kChildren) && draw >= kChildren[i]; ++i) {
        const uint32_t kind = rng_.below(1000);
        const uint64_t mean = kind < kFastPerMille                   ? kFastNs
                              : kind < kFastPerMille + kSlowPerMille ? kSlowNs
                                                                     : kLateNs;
        const uint32_t instrument =
            rng_.chance(kRelatedPerMille) ? pick_related(parent.instrument) : parent.instrument;
        children_.push_back({parent.time_ns + rng_.exponential(mean) + 1, instrument, false});
        std::push_heap(children_.begin(), children_.end(), Later());
    }
}

uint32_t Arrivals::pick_instrument() {
    const uint32_t entry = rng_.below(static_cast<uint32_t>(threshold_.size()));
    return static_cast<uint32_t>(rng_.next() >> 32) <= threshold_[entry] ? entry : alias_[entry];
}

// Another contract of the same product, rather one of the more active.
uint32_t Arrivals::pick_related(uint32_t instrument) {
    const auto& members = by_product_[product_of_[instrument]];
    return members[rng_.below(rng_.below(static_cast<uint32_t>(members.size())) + 1)];
}

} // namespace exchange_sim
