#include "log_text.h"

#include <algorithm>
#include <sstream>

namespace recorder {

namespace {

constexpr std::string_view kEscape = "\x1b[";
constexpr std::string_view kLineEnd = "\x1b[0m \n";

std::string_view colour_of(char level) {
    switch (level) {
    case 'E':
        return "31";
    case 'W':
        return "33";
    case 'I':
        return "32";
    case 'D':
        return "37";
    case 'X':
        return "34";
    default:
        return "no such level";
    }
}

// Takes what `shape` describes off the front of `text`: '9' stands for a digit, everything else for
// itself.
bool take(std::string_view& text, std::string_view shape) {
    if (text.size() < shape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '9' ? !digit : text[i] != shape[i]) {
            return false;
        }
    }
    text.remove_prefix(shape.size());
    return true;
}

// Takes characters of `set`, at least one, and then `end`.
std::string take_run(std::string_view& text, std::string_view set, char end) {
    const auto length = std::min(text.find_first_not_of(set), text.size());
    if (length == 0 || length == text.size() || text[length] != end) {
        return {};
    }
    std::string run(text.substr(0, length));
    text.remove_prefix(length + 1);
    return run;
}

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";

// Colour, level, date, time, thread, "[file:line][function]" and the message.
std::string parse_line(std::string_view text) {
    const auto malformed = [whole = std::string(text)] { return "malformed: " + whole; };
    constexpr std::size_t kLevelAt = 9; // behind the colour's seven bytes, a blank and a bracket
    const char level = text.size() > kLevelAt ? text[kLevelAt] : '\0';
    if (!take(text, kEscape) || !take(text, colour_of(level)) || !take(text, ";1m [") ||
        !take(text, std::string(1, level)) || !take(text, "] [99999999][99:99:99][") ||
        take_run(text, kDigits, ']').empty() || !take(text, " [")) {
        return malformed();
    }
    const std::string file = take_run(text, kLetters, ':');
    const std::string line = take_run(text, kDigits, ']');
    if (file.empty() || line.empty() || !take(text, "[")) {
        return malformed();
    }
    const std::string function = take_run(text, kLetters, ']');
    if (function.empty()) {
        return malformed();
    }
    return std::string(1, level) + " " + file + " " + function + " " + std::string(text);
}

// Calls `line` with each log line without its end, `other` with what lies between.
template <typename OnLine, typename OnOther>
void take_apart(std::string_view text, OnLine line, OnOther other) {
    while (!text.empty()) {
        const std::size_t start = std::min(text.find(kEscape), text.size());
        other(text.substr(0, start));
        text.remove_prefix(start);
        const std::size_t end = text.find(kLineEnd);
        if (end == std::string_view::npos) {
            other(text); // an unfinished line
            return;
        }
        line(text.substr(0, end));
        text.remove_prefix(end + kLineEnd.size());
    }
}

std::string line_at(std::string_view text, std::size_t at) {
    if (at >= text.size()) {
        return "(end)";
    }
    return std::string(text.substr(at, text.find('\n', at) - at));
}

} // namespace

Lines log_lines(std::string_view text) {
    Lines lines;
    take_apart(
        text, [&](std::string_view line) { lines.push_back(parse_line(line)); },
        [](std::string_view) {});
    return lines;
}

Lines other_lines(std::string_view text) {
    std::string others;
    take_apart(
        text, [](std::string_view) {}, [&](std::string_view other) { others += other; });
    Lines lines;
    std::istringstream in(others);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t count_of(std::string_view part, std::string_view text) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

std::string first_difference(std::string_view actual, std::string_view expected) {
    if (actual == expected) {
        return {};
    }
    const auto [a, e] =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    const auto at = static_cast<std::size_t>(a - actual.begin());
    const auto before = actual.substr(0, at);
    const std::size_t line_start = before.rfind('\n') + 1; // 0 when there is none
    return "line " + std::to_string(count_of("\n", before) + 1) + ": \"" +
           line_at(actual, line_start) + "\" instead of \"" + line_at(expected, line_start) + "\"";
}

} // namespace recorder
