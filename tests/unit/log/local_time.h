#pragma once

// This program's own localtime_r stands in front of the C library's: a test sets the time that the
// logger prints and makes the conversion fail.

#include <ctime>

namespace local_time {

// Every conversion answers `when` from now on.
void set(const std::tm& when);
// The next `calls` conversions fail; -1: all of them.
void fail(int calls);
// Conversions asked for so far, and the time that the last one was to convert.
int calls();
std::time_t last_argument();

std::tm at(int year, int month, int day, int hour, int minute, int second);

} // namespace local_time
