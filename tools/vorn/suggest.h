#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

// Number of insertions, deletions, replacements and swaps of neighbours that lead from `a` to `b`.
std::size_t edit_distance(std::string_view a, std::string_view b);

// The candidate that was most likely meant by `word`: the nearest one, if it is near in proportion
// to the length of the word. Upper and lower case count as the same here. Empty if none is.
std::string closest(std::string_view word, const std::vector<std::string>& candidates);

// "; did you mean X?" with the closest candidate in it, or nothing.
std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates);

} // namespace vorn_cli
