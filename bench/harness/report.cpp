#include "bench/harness/report.h"

#include <cmath>
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
    const char* const sign = smaller ? "<=" : ">=";
    const bool has_must = !std::isnan(goal.must);
    char must[64] = "";
    if (has_must) {
        std::snprintf(must, sizeof(must), "must %s %g %s", sign, goal.must,
                      holds(goal.must) ? "PASS" : "SHORT");
    }
    std::fprintf(stderr, "  %-4s %-34s %8.2f%s   %-18s  aim %s %g %s\n", goal.id.c_str(),
                 goal.case_name.c_str(), goal.value, goal.unit.c_str(), must, sign, goal.aim,
                 holds(goal.aim) ? "PASS" : "short");
    std::snprintf(must, sizeof(must), "%g", goal.must);
    std::printf("{\"kind\":\"goal\",\"id\":\"%s\",\"case\":\"%s\",\"value\":%.6g,\"unit\":\"%s\","
                "\"better\":\"%s\",\"must\":%s,\"aim\":%g,\"target\":\"%s\"}\n",
                goal.id.c_str(), goal.case_name.c_str(), goal.value, goal.unit.c_str(),
                smaller ? "smaller" : "larger", has_must ? must : "null", goal.aim, kTarget);
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
