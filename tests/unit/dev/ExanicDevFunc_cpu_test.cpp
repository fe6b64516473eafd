// Binding the receiving thread to its CPU.

#include "dev_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <sys/sysinfo.h>
#include <thread>
#include <vector>

namespace {

using support::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

struct CpuCase {
    const char* name;
    int16_t cpu;
    int processors;
    int kernel_result;
    std::vector<int> bound; // CPUs of the set handed to the kernel; empty with `asked` false
    bool asked;
    int result;
    const char* log;
};

class BindCpu : public testing::TestWithParam<CpuCase> {};

TEST_P(BindCpu, ChecksTheNumberThenAsksTheKernel) {
    const CpuCase& row = GetParam();
    DevFixture fixture;
    fixture.config.cpucore = row.cpu;
    system_calls::set_processors(row.processors);
    system_calls::set_affinity_result(row.kernel_result);
    const LogCapture capture;
    EXPECT_EQ(fixture.dev._BindCpu(), row.result);
    EXPECT_THAT(capture.summary(),
                ElementsAre(std::string(row.log).insert(1, " ExanicDevFunc _BindCpu")));
    if (!row.asked) {
        EXPECT_THAT(system_calls::affinity_calls(), IsEmpty());
        return;
    }
    ASSERT_EQ(system_calls::affinity_calls().size(), 1U);
    const system_calls::AffinityCall& call = system_calls::affinity_calls().front();
    EXPECT_EQ(call.pid, 0);
    EXPECT_EQ(call.size, 128U);
    EXPECT_EQ(call.cpus, row.bound);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Numbers, BindCpu,
    testing::Values(
        CpuCase{"First", 0, 4, 0, {0}, true, 0, "I set CPU[0] affinity successful"},
        CpuCase{"Last", 3, 4, 0, {3}, true, 0, "I set CPU[3] affinity successful"},
        // The number of processors itself passes the check on purpose; the kernel refuses it.
        CpuCase{"EqualToTheCount", 4, 4, -1, {4}, true, -1, "W set CPU[4] affinity failed"},
        CpuCase{"OneAboveTheCount", 5, 4, 0, {}, false, -1, "W CPU[5] exceed max procs"},
        CpuCase{"FarAbove", 32767, 4, 0, {}, false, -1, "W CPU[32767] exceed max procs"},
        CpuCase{"MinusOne", -1, 4, 0, {}, false, -1, "W CPU[-1] exceed max procs"},
        CpuCase{"Least", -32768, 4, 0, {}, false, -1, "W CPU[-32768] exceed max procs"},
        CpuCase{"Refused", 2, 4, -1, {2}, true, -1, "W set CPU[2] affinity failed"},
        CpuCase{"LastOfTheSet", 1023, 2000, 0, {1023}, true, 0, "I set CPU[1023] affinity successful"},
        // No bit of the set stands for it, and nothing beside the set is written.
        CpuCase{"BeyondTheSet", 1024, 2000, -1, {}, true, -1, "W set CPU[1024] affinity failed"},
        CpuCase{"FarBeyondTheSet", 30000, 32000, -1, {}, true, -1, "W set CPU[30000] affinity failed"}),
    [](const auto& row) { return std::string(row.param.name); });
// clang-format on

TEST(BindCpu, BindsTheCallingThreadForGood) {
    DevFixture fixture;
    system_calls::reset(); // the kernel itself
    cpu_set_t before;
    ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
    int cpu = 0;
    while (!CPU_ISSET(cpu, &before)) {
        ++cpu;
    }
    system_calls::set_processors(CPU_SETSIZE);
    fixture.config.cpucore = static_cast<int16_t>(cpu);
    const LogCapture capture;
    std::thread([&] {
        EXPECT_EQ(fixture.dev._BindCpu(), 0);
        cpu_set_t after;
        EXPECT_EQ(::sched_getaffinity(0, sizeof after, &after), 0);
        EXPECT_EQ(CPU_COUNT(&after), 1);
        EXPECT_TRUE(CPU_ISSET(cpu, &after));
        std::thread([&] {
            cpu_set_t inherited;
            EXPECT_EQ(::sched_getaffinity(0, sizeof inherited, &inherited), 0);
            EXPECT_TRUE(CPU_EQUAL(&inherited, &after));
        }).join();
    }).join();
}

TEST(BindCpu, IsRefusedByTheKernelForACpuThatIsNotThere) {
    DevFixture fixture;
    system_calls::reset();
    system_calls::set_processors(1023);
    fixture.config.cpucore = 1023;
    const LogCapture capture;
    EXPECT_EQ(fixture.dev._BindCpu(), -1);
    EXPECT_THAT(capture.summary(),
                ElementsAre("W ExanicDevFunc _BindCpu set CPU[1023] affinity failed"));
}

TEST(BindCpu, DoesNotDecideWhetherTheDeviceComesUp) {
    DevFixture fixture;
    fixture.config.cpucore = -1;
    const LogCapture capture;
    EXPECT_EQ(fixture.dev.InitDev(), 0);
    EXPECT_THAT(capture.summary(),
                ElementsAre("W ExanicDevFunc _BindCpu CPU[-1] exceed max procs",
                            "I ExanicDevFunc _InitReg FPGA version: 0, update data: 0"));
    EXPECT_EQ(fixture.card.calls().size(), 3U);
}

TEST(BindCpu, ComesBeforeTheCardIsTouched) {
    DevFixture fixture;
    fixture.card.fail(ScriptedCard::Call::kAcquireHandle, "absent");
    const LogCapture capture;
    EXPECT_EQ(fixture.dev.InitDev(), -1);
    EXPECT_EQ(system_calls::affinity_calls().size(), 1U);
}

} // namespace
