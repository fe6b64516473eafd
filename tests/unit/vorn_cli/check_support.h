#pragma once

#include "tools/vorn/check/check.h"

#include <string>

namespace vorn_cli_test {

// A configuration without surprises, to be spoilt line by line.
//   1 [config]
//   2 device = card0
//   3 insts = all
//   4 shfe2ps = enabled
//   5 ine2ps = enabled
//   6 cpucore = 0
inline constexpr char kGoodFile[] = "[config]\n"
                                    "device = card0\n"
                                    "insts = all\n"
                                    "shfe2ps = enabled\n"
                                    "ine2ps = enabled\n"
                                    "cpucore = 0\n";

// The good file with one line: in the place of the line that sets the same key, else at the end, as
// line 7.
std::string good_file_with(const std::string& line);

// Four processors, of which CPU 2 is out of bounds; every device can be opened but one named
// "absent".
vorn_cli::Machine test_machine();

vorn_cli::Findings check(const std::string& content,
                         const vorn_cli::CaptureSurvey* capture = nullptr);

// One line for each finding, for messages.
std::string to_text(const vorn_cli::Findings& findings);

} // namespace vorn_cli_test
