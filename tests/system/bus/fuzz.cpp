// A bus file with hostile contents: refused or read through, never the end of the reader.
//
//   bus_fuzz [ROUNDS [SEED]]
//
// The input lies over the header and over what stands at the beginnings of counters, table and ring
// of a file that was written properly. LLVMFuzzerTestOneInput is what a fuzzer's main calls; the
// main here makes inputs of its own.

#include "bus/bus_writer.h"
#include "tests/support/bus_look.h"
#include "tests/support/bus_records.h"
#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace {

// Where a byte of the input goes.
constexpr struct {
    std::size_t offset;
    std::size_t size;
} kAreas[] = {{0, 320}, {4096, 448}, {8192, 768}, {8192 + 384 * 20480, 1536}};

class Target {
public:
    Target() {
        const std::string name = (dir_.path() / "bus").string();
        {
            vorn_bus::BusWriter writer({name, 1024});
            for (uint64_t i = 1; i <= 1500; ++i) {
                writer.publish(support::numbered_record(i), static_cast<uint32_t>(i % 40));
            }
            writer.beat(support::numbered_counters(1));
        }
        path_ = name;
        file_.open(path_, std::ios::binary | std::ios::in | std::ios::out);
        for (const auto& area : kAreas) {
            std::vector<char> bytes(area.size);
            file_.seekg(static_cast<std::streamoff>(area.offset))
                .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            proper_.insert(proper_.end(), bytes.begin(), bytes.end());
        }
    }
    const std::vector<char>& proper() const { return proper_; }

    std::string try_input(const uint8_t* data, std::size_t size) {
        std::vector<char> bytes = proper_;
        std::copy_n(data, std::min(size, bytes.size()), bytes.begin());
        std::size_t at = 0;
        for (const auto& area : kAreas) {
            file_.seekp(static_cast<std::streamoff>(area.offset))
                .write(bytes.data() + at, static_cast<std::streamsize>(area.size));
            at += area.size;
        }
        file_.flush();
        return support::look_through(path_);
    }

private:
    support::TempDir dir_;
    std::string path_;
    std::fstream file_;
    std::vector<char> proper_; // of all areas, one behind the other
};

Target& target() {
    static Target the_target;
    return the_target;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    (void)target().try_input(data, size);
    return 0;
}

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5000;
    const auto seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
    std::printf("%d rounds, seed %lu\n", rounds, seed);
    std::mt19937_64 random(seed);
    constexpr uint64_t kEdges[] = {0, 1, 63, 64, 4096, 0x7fffffff, 0xffffffff, 1ull << 63, ~0ull};
    std::map<std::string, int> outcomes;
    for (int round = 0; round < rounds; ++round) {
        std::vector<char> input = target().proper();
        for (auto change = random() % 4 + 1; change > 0; --change) {
            const std::size_t range = random() % 4 == 0 ? input.size() - 8 : 312;
            const std::size_t at = random() % range;
            uint64_t value = 0;
            std::memcpy(&value, &input[at], sizeof(value));
            switch (random() % 3) {
            case 0:
                value ^= 1ull << random() % 64;
                break;
            case 1:
                value = random();
                break;
            default:
                value = kEdges[random() % std::size(kEdges)];
            }
            std::memcpy(&input[at], &value, random() % 2 == 0 ? 8 : 4);
        }
        const std::string refusal =
            target().try_input(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++outcomes[refusal.empty() ? "read" : "refused"];
    }
    for (const auto& [outcome, count] : outcomes) {
        std::printf("%-8s %d\n", outcome.c_str(), count);
    }
    return outcomes.size() == 2 ? 0 : 1; // inputs of both kinds, else the loop tests nothing
}
