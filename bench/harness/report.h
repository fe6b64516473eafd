#pragma once

// What a bench program prints: lines for people on standard error, one JSON object a line on
// standard output (read by bench/report.py).

#include <limits>
#include <string>

namespace bench {

enum class Better { kSmaller, kLarger };

constexpr double kNoMust = std::numeric_limits<double>::quiet_NaN();

// One measured goal. `must` (or kNoMust) and `aim` bound `value` from above or below.
struct Goal {
    std::string id;        // "G1"
    std::string case_name; // "800 instruments"
    double value;
    Better better;
    double must;
    double aim;
    std::string unit = "x";
};

void report_goal(const Goal& goal);

// One measured number, for pictures and tables: the time of a contender, a point of a curve.
void report_figure(const std::string& id, const std::string& series, const std::string& at,
                   double value, const std::string& unit);

// Program, flags and processor; first line of every program.
void report_run(const std::string& program, int processor);

} // namespace bench
