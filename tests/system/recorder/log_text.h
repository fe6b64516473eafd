#pragma once

// Standard output and log file of a recorder, taken apart.

#include <string>
#include <string_view>
#include <vector>

namespace recorder {

using Lines = std::vector<std::string>;

// The log lines, each as "I ExanicMdImpl vorn_recv software version: ...": level, file, function,
// message. A line with anything wrong about it (colour, stamps, end) comes as "malformed: ...".
Lines log_lines(std::string_view text);

// What stands between the log lines, line by line.
Lines other_lines(std::string_view text);

// How often `part` occurs in `text`.
std::size_t count_of(std::string_view part, std::string_view text);

// Where two texts of lines differ first, with the lines; empty when they are equal. For texts too
// long to be printed whole.
std::string first_difference(std::string_view actual, std::string_view expected);

} // namespace recorder
