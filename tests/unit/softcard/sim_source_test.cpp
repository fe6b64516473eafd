#include "softcard/sources/sim_source.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using Options = std::map<std::string, std::string>;

std::unique_ptr<FrameSource> open_good(const Options& options) {
    std::string error;
    auto source = open_sim_source(options, error);
    EXPECT_NE(source, nullptr) << error;
    return source;
}

const Options kSmall = {{"seed", "7"}, {"instruments", "20"}, {"changes", "2000"}};

TEST(SimSource, GivesTheSameFramesForTheSameOptions) {
    const auto one = open_good(kSmall);
    const auto two = open_good(kSmall);
    SourceFrame a, b;
    uint64_t previous_ns = 0;
    std::size_t frames = 0;
    while (one->next(a)) {
        ASSERT_TRUE(two->next(b));
        ASSERT_EQ(a.timestamp_ns, b.timestamp_ns);
        ASSERT_TRUE(std::equal(a.bytes.begin(), a.bytes.end(), b.bytes.begin(), b.bytes.end()));
        ASSERT_GE(a.timestamp_ns, previous_ns);
        previous_ns = a.timestamp_ns;
        ++frames;
    }
    EXPECT_FALSE(two->next(b));
    EXPECT_FALSE(one->next(a));
    EXPECT_GT(frames, 2000u);
}

TEST(SimSource, CarriesBothPaths) {
    const auto source = open_good(kSmall);
    const auto window = test::new_window();
    test::program_lines(window->program_view());
    test::switch_on(window->program_view());
    std::size_t decode = 0, raw = 0, ignored = 0;
    for (SourceFrame frame; source->next(frame);) {
        switch (classify(frame.bytes, window->switches(), *window).path) {
        case Path::kDecode:
            ++decode;
            break;
        case Path::kRaw:
            ++raw;
            break;
        case Path::kIgnored:
            ++ignored;
            break;
        }
    }
    EXPECT_GT(decode, 2000u);
    EXPECT_GT(raw, 0u);
    EXPECT_EQ(ignored, 0u);
}

TEST(SimSource, SaysInOneLineWhatIsWrongWithAnOption) {
    const Options bad[] = {{{"nonsense", "1"}}, {{"seed", "x"}}, {{"instruments", "0"}}};
    for (const Options& options : bad) {
        std::string error;
        EXPECT_EQ(open_sim_source(options, error), nullptr);
        EXPECT_EQ(error.find("sim: "), 0u) << error;
        EXPECT_NE(error.find(options.begin()->first), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

} // namespace
} // namespace softcard
