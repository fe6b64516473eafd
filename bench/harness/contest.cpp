#include "bench/harness/contest.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>

namespace bench {

Times::Times(const Contest& contest, std::vector<std::string> names)
    : operations_(contest.operations), names_(std::move(names)), seconds_(names_.size()) {}

void Times::add(std::size_t contender, double seconds) {
    seconds_[contender].push_back(seconds);
}

std::size_t Times::index_of(const std::string& name) const {
    const auto found = std::find(names_.begin(), names_.end(), name);
    if (found == names_.end()) {
        std::fprintf(stderr, "bench: no contender '%s'\n", name.c_str());
        std::abort();
    }
    return static_cast<std::size_t>(found - names_.begin());
}

double Times::ns(const std::string& name) const {
    return median(seconds_[index_of(name)]) * 1e9 / static_cast<double>(operations_);
}

double Times::ratio(const std::string& name, const std::string& reference) const {
    const auto& of = seconds_[index_of(name)];
    const auto& to = seconds_[index_of(reference)];
    std::vector<double> ratios;
    for (std::size_t round = 0; round < of.size(); ++round) {
        ratios.push_back(of[round] / to[round]);
    }
    return median(ratios);
}

Times run_contest(const Contest& contest, const std::vector<Contender>& contenders) {
    std::vector<std::string> names;
    for (const Contender& contender : contenders) {
        names.push_back(contender.name);
    }
    Times times(contest, names);
    for (int round = -contest.warmups; round < contest.rounds; ++round) {
        uint64_t expected = 0;
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            // Each round begins with another one, so that nobody always runs behind the same.
            const std::size_t at =
                (i + static_cast<std::size_t>(round + contest.warmups)) % contenders.size();
            const Contender& contender = contenders[at];
            if (contender.reset) {
                contender.reset();
            }
            const auto begin = std::chrono::steady_clock::now();
            contender.run();
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
            if (round >= 0) {
                times.add(at, elapsed.count());
            }
            const uint64_t hash = contender.hash ? contender.hash() : 0;
            expected = i == 0 ? hash : expected;
            if (hash != expected) {
                std::fprintf(stderr, "bench: %s computed something else than the others\n",
                             contender.name.c_str());
                std::exit(1);
            }
        }
    }
    return times;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double quantile(const std::vector<double>& sorted, double share) {
    const double at = share * static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(at + 0.5)];
}

uint64_t hash_bytes(const void* data, std::size_t size, uint64_t seed) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    uint64_t hash = seed ^ 0x9E3779B97F4A7C15u;
    for (; size >= 8; size -= 8, bytes += 8) {
        uint64_t word;
        std::memcpy(&word, bytes, sizeof(word));
        hash = (hash ^ word) * 0xD6E8FEB86659FD93u;
        hash ^= hash >> 32;
    }
    for (; size > 0; --size, ++bytes) {
        hash = (hash ^ *bytes) * 0xD6E8FEB86659FD93u;
    }
    return hash;
}

int pin_to_one_processor() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) {
        return -1;
    }
    for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            return sched_setaffinity(0, sizeof(one), &one) == 0 ? cpu : -1;
        }
    }
    return -1;
}

} // namespace bench
