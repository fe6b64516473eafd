#include "ini_model.h"

#include <limits>
#include <string_view>

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string stripped(std::string_view text) {
    while (!text.empty() && kBlanks.find(text.front()) != std::string_view::npos) {
        text.remove_prefix(1);
    }
    while (!text.empty() && kBlanks.find(text.back()) != std::string_view::npos) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

} // namespace

IniModel::IniModel(const std::string& text) {
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = start;
        std::size_t content_end = std::string::npos;
        for (; end < text.size() && text[end] != '\n'; ++end) {
            if ((text[end] == ';' || text[end] == '#') && content_end == std::string::npos) {
                content_end = end;
            }
        }
        const std::size_t stop = content_end == std::string::npos ? end : content_end;
        const std::string line = stripped(std::string_view(text).substr(start, stop - start));
        start = end + 1;
        if (line.empty()) {
            continue;
        }
        const std::size_t bracket = line.find(']');
        const std::size_t equals = line.find('=');
        if (line.front() == '[') {
            if (bracket != std::string::npos) {
                events_.push_back({true, line.substr(1, bracket - 1), ""});
            }
        } else if (equals != std::string::npos) {
            events_.push_back(
                {false, stripped(line.substr(0, equals)), stripped(line.substr(equals + 1))});
        }
    }
}

const std::string* IniModel::value(const std::string& key) const {
    // Backwards: candidates are kept until the header above them shows whose they are. The first
    // "config" header met ends the search, because it emptied what stands above it.
    const std::string* candidate = nullptr;
    for (std::size_t i = events_.size(); i-- > 0;) {
        const Event& event = events_[i];
        if (event.is_header) {
            if (event.name == "config") {
                return candidate;
            }
            candidate = nullptr;
        } else if (candidate == nullptr && event.name == key) {
            candidate = &event.text;
        }
    }
    return nullptr;
}

long long IniModel::number(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size() &&
           std::string_view(" \t\n\v\f\r").find(text[at]) != std::string::npos) {
        ++at;
    }
    const bool negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) {
        ++at;
    }
    constexpr long long kMost = std::numeric_limits<long long>::max();
    constexpr long long kLeast = std::numeric_limits<long long>::min();
    __extension__ __int128 sum = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        sum = sum * 10 + (text[at] - '0');
        if (sum > static_cast<__int128_t>(kMost) + 1) {
            return negative ? kLeast : kMost;
        }
    }
    if (negative) {
        return static_cast<long long>(-sum);
    }
    return sum > kMost ? kMost : static_cast<long long>(sum);
}

std::vector<std::string> IniModel::items(const std::string& text) {
    std::vector<std::string> result;
    std::string item;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != ',') {
            item.push_back(text[i]);
            continue;
        }
        if (std::string clean = stripped(item); !clean.empty()) {
            result.push_back(std::move(clean));
        }
        item.clear();
    }
    return result;
}
