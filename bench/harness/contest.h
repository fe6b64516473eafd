#pragma once

// Contenders that do the same work, timed side by side in one run.
//
// Rounds are interleaved: each round runs every contender once, in turn, from a state that reset()
// restores outside of the timing. A result is the median over the rounds; a ratio is the median of
// the rounds' own ratios, so that what slows the whole machine for a moment slows both sides of it.
// All contenders must end with the same hash of what they computed, else the program stops.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Contender {
    std::string name;
    std::function<void()> reset;    // not timed; may be empty
    std::function<void()> run;      // timed: all operations of a round
    std::function<uint64_t()> hash; // of what it computed, after run(); may be empty
};

struct Contest {
    uint64_t operations = 0; // in one run
    int warmups = 2;
    int rounds = 11; // at least 7
};

class Times {
public:
    Times(const Contest& contest, std::vector<std::string> names);
    void add(std::size_t contender, double seconds);

    // Median nanoseconds of one operation.
    double ns(const std::string& name) const;
    // Median over the rounds of how many times as long `name` takes as `reference`.
    double ratio(const std::string& name, const std::string& reference) const;

private:
    std::size_t index_of(const std::string& name) const;

    uint64_t operations_;
    std::vector<std::string> names_;
    std::vector<std::vector<double>> seconds_; // by contender and round
};

Times run_contest(const Contest& contest, const std::vector<Contender>& contenders);

double median(std::vector<double> values);
// The value below which `share` (0 to 1) of the sorted values lie.
double quantile(const std::vector<double>& sorted, double share);

uint64_t hash_bytes(const void* data, std::size_t size, uint64_t seed = 0);

// Binds the calling thread to the last processor that it may use and locks nothing else; returns
// its number. Threads started later share it.
int pin_to_one_processor();

// Tells the compiler that `value` is used and memory may have changed.
template <typename T>
inline void keep(const T& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

} // namespace bench
