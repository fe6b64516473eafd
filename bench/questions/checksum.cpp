// G6, second half: the checksum of a full segment in place, against the plainest 64-bit sum.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"

#include "tcp/Checksum.h"

#include <cstring>
#include <vector>

namespace {

using namespace bench;

constexpr uint32_t kSegments = 200;
constexpr uint32_t kPasses = 500;

// Eight bytes at a time with the carry added back, the rest as one padded word.
uint64_t sum_64(const char* data, std::size_t size) {
    uint64_t sum = 0;
    for (; size >= 8; size -= 8, data += 8) {
        uint64_t word;
        std::memcpy(&word, data, sizeof(word));
        sum += word;
        sum += sum < word ? 1 : 0;
    }
    uint64_t rest = 0;
    std::memcpy(&rest, data, size);
    sum += rest;
    sum += sum < rest ? 1 : 0;
    return (sum & 0xFFFFFFFF) + (sum >> 32);
}

void ask(std::size_t size) {
    std::vector<char> bytes(kSegments * size);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 2654435761u >> 13);
    }
    uint64_t hash = 0;
    const auto loop = [&](auto&& sum) {
        for (uint32_t pass = 0; pass < kPasses; ++pass) {
            for (uint32_t i = 0; i < kSegments; ++i) {
                hash = hash * 31 + FoldSum(sum(&bytes[i * size], size));
            }
        }
    };
    const auto reset = [&] { hash = 0; };
    Contest contest;
    contest.operations = uint64_t{kSegments} * kPasses;
    const Times times =
        run_contest(contest, {{"vorn", reset, [&] { loop(SumWords); }, [&] { return hash; }},
                              {"64-bit sum", reset, [&] { loop(sum_64); }, [&] { return hash; }}});
    const std::string name = "checksum of " + std::to_string(size) + " bytes";
    report_figure("G6", "vorn", name, times.ns("vorn"), "ns");
    report_figure("G6", "64-bit sum", name, times.ns("64-bit sum"), "ns");
    report_goal({"G6", name, times.ratio("vorn", "64-bit sum"), Better::kSmaller, 1.2, 1.0});
}

} // namespace

int main() {
    report_run("checksum", pin_to_one_processor());
    ask(1480);
    ask(320);
    return 0;
}
