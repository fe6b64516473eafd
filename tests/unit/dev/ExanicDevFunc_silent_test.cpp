// With the levels off, what goes wrong goes wrong in silence and with the same result.

#include "dev_fixture.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

using support::LogCapture;
using Call = ScriptedCard::Call;

TEST(ExanicDevSilent, ARefusalFailsWithoutALine) {
    const struct {
        Call call;
        int port;
    } rows[] = {{Call::kAcquireHandle, -1},
                {Call::kRegisters, -1},
                {Call::kRxBuffer, 1},
                {Call::kRxBuffer, 0}};
    for (const auto& row : rows) {
        DevFixture fixture;
        fixture.card.fail(row.call, "No such device", row.port);
        const LogCapture capture(0);
        EXPECT_EQ(fixture.dev.InitDev(), -1);
        EXPECT_EQ(capture.text(), "");
        fixture.dev.ReleaseDev();
    }
}

TEST(ExanicDevSilent, ACpuThatCannotBeBoundIsNoFailure) {
    for (const int16_t cpu : std::initializer_list<int16_t>{-1, 0}) {
        DevFixture fixture;
        fixture.config.cpucore = cpu;
        system_calls::set_affinity_result(-1);
        const LogCapture capture(0);
        EXPECT_EQ(fixture.dev.InitDev(), 0);
        EXPECT_EQ(capture.text(), "");
        fixture.dev.ReleaseDev();
    }
}

} // namespace
