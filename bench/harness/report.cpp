#include "bench/harness/report.h"

#include <cstdio>

namespace bench {

namespace {

#if defined(__AVX512F__)
constexpr char kTarget[] = "native, AVX-512";
#elif defined(__AVX2__)
constexpr char kTarget[] = "native, AVX2";
#else
constexpr char kTarget[] = "x86-64";
#endif

} // namespace

void report_goal(const Goal& goal) {
    const bool smaller = goal.better == Better::kSmaller;
    const auto holds = [&](double bound) {
        return smaller ? goal.value <= bound : goal.value >= bound;
    };
    std::fprintf(stderr, "  %-4s %-34s %8.2f%s   must %s %g %-5s  aim %s %g %s\n", goal.id.c_str(),
                 goal.case_name.c_str(), goal.value, goal.unit.c_str(),
                 smaller ? "<=" : ">=", goal.must, holds(goal.must) ? "PASS" : "SHORT",
                 smaller ? "<=" : ">=", goal.aim, holds(goal.aim) ? "PASS" : "short");
    std::printf("{\"kind\":\"goal\",\"id\":\"%s\",\"case\":\"%s\",\"value\":%.6g,\"unit\":\"%s\","
                "\"better\":\"%s\",\"must\":%g,\"aim\":%g,\"target\":\"%s\"}\n",
                goal.id.c_str(), goal.case_name.c_str(), goal.value, goal.unit.c_str(),
                smaller ? "smaller" : "larger", goal.must, goal.aim, kTarget);
}

void report_figure(const std::string& id, const std::string& series, const std::string& at,
                   double value, const std::string& unit) {
    std::fprintf(stderr, "       %-14s %-20s %10.2f %s\n", series.c_str(), at.c_str(), value,
                 unit.c_str());
    std::printf("{\"kind\":\"figure\",\"id\":\"%s\",\"series\":\"%s\",\"at\":\"%s\",\"value\":%.6g,"
                "\"unit\":\"%s\",\"target\":\"%s\"}\n",
                id.c_str(), series.c_str(), at.c_str(), value, unit.c_str(), kTarget);
}

void report_run(const std::string& program, int processor) {
    std::fprintf(stderr, "%s (GCC %s, %s, processor %d)\n", program.c_str(), __VERSION__, kTarget,
                 processor);
    std::printf("{\"kind\":\"run\",\"program\":\"%s\",\"compiler\":\"%s\",\"target\":\"%s\","
                "\"processor\":%d}\n",
                program.c_str(), __VERSION__, kTarget, processor);
}

} // namespace bench
