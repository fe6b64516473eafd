#pragma once

#include <string>
#include <string_view>

namespace vorn_cli {

bool is_terminal(int descriptor);

// Colour is for people: on a terminal that can do it, unless NO_COLOR is set and not empty.
bool use_colour(int descriptor);

enum class Colour { kNone, kRed, kYellow, kGreen, kBold, kDim };

// `text` in the colour, or as it is when `on` is false.
std::string paint(std::string_view text, Colour colour, bool on);

// `text` with what a terminal would obey (control characters) written as \xNN. File names, values
// and identifiers come from elsewhere. UTF-8 passes.
std::string printable(std::string_view text);

} // namespace vorn_cli
