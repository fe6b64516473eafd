#include "tools/vorn/suggest.h"

#include <algorithm>
#include <cctype>

namespace vorn_cli {

namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

} // namespace

std::size_t edit_distance(std::string_view a, std::string_view b) {
    // Three rows of the table are alive: the one being filled and the two above it.
    std::vector<std::size_t> before_last(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        last[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replace = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replace});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
        before_last.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

std::string closest(std::string_view word, const std::vector<std::string>& candidates) {
    constexpr std::size_t kLongestWord = 64; // nobody mistypes a page
    if (word.empty() || word.size() > kLongestWord) {
        return {};
    }
    const std::string wanted = lower(word);
    std::string best;
    // One slip in three characters is a guess worth making, more is noise.
    std::size_t best_distance = std::max<std::size_t>(word.size() / 3, 1) + 1;
    for (const std::string& candidate : candidates) {
        const std::size_t distance = edit_distance(wanted, lower(candidate));
        if (distance < best_distance) {
            best_distance = distance;
            best = candidate;
        }
    }
    return best;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string best = closest(word, candidates);
    return best.empty() ? "" : "; did you mean " + best + "?";
}

} // namespace vorn_cli
