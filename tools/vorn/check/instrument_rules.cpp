// The subscription. An entry matches an identifier in one of two ways: two characters are compared
// with its first two (a product), anything else with its first six. What has neither form matches
// nothing, silently.

#include "tools/vorn/check/check_context.h"
#include "tools/vorn/suggest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fmt/format.h>
#include <set>

namespace vorn_cli {

namespace {

constexpr std::size_t kProductSize = 2;
constexpr std::size_t kComparedSize = 6;
constexpr std::size_t kKeptSize = 15; // of an identifier, in the feed's records

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool is_small_letters(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](unsigned char c) { return c >= 'a' && c <= 'z'; });
}

// As in cu2603: product, year, month.
bool is_contract(const std::string& text) {
    if (text.size() != kComparedSize || !is_small_letters(text.substr(0, kProductSize))) {
        return false;
    }
    const std::string digits = text.substr(kProductSize);
    return std::all_of(digits.begin(), digits.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

struct Problem {
    std::string what;
    std::string effect;
    std::string instead;
};

constexpr char kMatchesNothing[] = "it matches no instrument";

Problem problem_of_long_entry(const std::string& item) {
    Problem problem{fmt::format("{} has {} characters", quoted(item), item.size()),
                    "entries are compared with the first six characters of an identifier, so it "
                    "matches nothing",
                    ""};
    if (item.find_first_of(" \t|/") != std::string::npos) {
        problem.instead = "separate identifiers with commas";
    } else if (item.size() > kKeptSize) {
        problem.what += fmt::format(", more than the {} that the feed keeps", kKeptSize);
    }
    if (problem.instead.empty() && is_contract(item.substr(0, kComparedSize))) {
        problem.instead = fmt::format("write {}, which includes it and every other identifier that "
                                      "begins so",
                                      item.substr(0, kComparedSize));
    }
    return problem;
}

Problem problem_of_short_entry(const std::string& item) {
    Problem problem{fmt::format("{} has {} character{}", quoted(item), item.size(),
                                item.size() == 1 ? "" : "s"),
                    "it is compared with whole identifiers, which have at least six; it matches "
                    "nothing",
                    "write a two-character product or a six-character contract"};
    const std::string product = item.substr(0, kProductSize);
    if (item.size() > kProductSize && is_small_letters(product)) {
        problem.instead = fmt::format("write {} for the whole product, or a contract such as "
                                      "{}2603",
                                      product, product);
    }
    return problem;
}

// What is wrong with the form of an entry; an empty `what` if nothing is.
Problem problem_of(const std::string& item) {
    if (item.find_first_of("*?%") != std::string::npos) {
        return {fmt::format("{} has a wildcard", quoted(item)),
                fmt::format("the feed knows none; {}", kMatchesNothing),
                "write a two-character product for all of its contracts"};
    }
    if (item.size() > kComparedSize) {
        return problem_of_long_entry(item);
    }
    if (item.size() != kProductSize && item.size() != kComparedSize) {
        return problem_of_short_entry(item);
    }
    const std::string small = lower(item);
    if (small != item) {
        return {fmt::format("{} has capital letters", quoted(item)),
                fmt::format("the exchanges write identifiers in small ones; {}", kMatchesNothing),
                "write " + small};
    }
    if (item.size() == kProductSize && !is_small_letters(item)) {
        return {fmt::format("{} is no product", quoted(item)), kMatchesNothing,
                "write two letters"};
    }
    if (item.size() == kComparedSize && !is_contract(item)) {
        return {fmt::format("{} is no contract", quoted(item)), kMatchesNothing,
                "write product, year and month, as in cu2603"};
    }
    if (item.size() == kComparedSize) {
        const int month = std::stoi(item.substr(4));
        if (month < 1 || month > 12) {
            return {fmt::format("{} ends in month {:02}", quoted(item), month), kMatchesNothing,
                    "write product, year and month, as in cu2603"};
        }
    }
    return {};
}

void check_items(CheckContext& context, const IniEntry& entry) {
    const auto& items = context.config.listen_insts;
    const std::size_t commas =
        static_cast<std::size_t>(std::count(entry.value.begin(), entry.value.end(), ','));
    if (commas + 1 > items.size()) {
        context.warning(entry.line, "empty-item", "insts",
                        fmt::format("{} empty item{} in insts", commas + 1 - items.size(),
                                    commas == items.size() ? "" : "s"),
                        "the feed leaves empty items out", "write one comma between two items");
    }
    std::set<std::string> seen;
    for (const std::string& item : items) {
        if (lower(item) == "all") {
            context.error(entry.line, "all-and-more", "insts",
                          fmt::format("{} among other items", quoted(item)),
                          "all means every instrument only when it is the whole value; here it is "
                          "an entry that matches nothing",
                          "write insts = all, or leave it out");
            continue;
        }
        if (!seen.insert(item).second) {
            context.warning(entry.line, "repeated-item", "insts",
                            fmt::format("{} is listed twice", quoted(item)),
                            "the second does nothing", "list it once");
            continue;
        }
        const Problem problem = problem_of(item);
        if (!problem.what.empty()) {
            context.error(entry.line, "instrument", "insts", problem.what, problem.effect,
                          problem.instead);
        }
    }
}

void check_insts(CheckContext& context) {
    const IniEntry* const entry = context.entry("insts");
    const std::string does_not_start =
        "the feed logs \"no subscribed instrument\" and does not start";
    if (context.file.find("insts") == nullptr) {
        context.error(context.file.header_line(), "no-instruments", "insts", "insts is missing",
                      does_not_start, "write insts = all, or a list");
    } else if (entry != nullptr && context.config.listen_insts.empty()) {
        context.error(entry->line, "no-instruments", "insts", "insts names no instrument",
                      does_not_start, "write insts = all, or a list");
    } else if (entry != nullptr && !context.config.recvall && lower(entry->value) == "all") {
        context.error(entry->line, "all-spelling", "insts", fmt::format("insts = {}", entry->value),
                      "only all in small letters means every instrument; this is one identifier "
                      "and matches nothing",
                      "write insts = all");
    } else if (entry != nullptr && !context.config.recvall) {
        check_items(context, *entry);
    }
}

void check_options(CheckContext& context) {
    const IniEntry* const entry = context.entry("options");
    if (entry == nullptr || entry->value == "norecv") {
        return;
    }
    constexpr std::array kOn = {"", "recv", "yes", "on", "enabled", "true", "1", "all"};
    constexpr std::array kOff = {"no", "off", "false", "0", "none", "disabled", "never", "ignore"};
    const std::string small = lower(entry->value);
    const auto is_in = [&](const auto& words) {
        return std::find(words.begin(), words.end(), small) != words.end();
    };
    if (is_in(kOn)) {
        return;
    }
    const std::string what = fmt::format("options = {}", quoted(entry->value));
    if (is_in(kOff) || !closest(small, {"norecv"}).empty()) {
        context.error(entry->line, "options", "options", what,
                      "only the word norecv switches options off; they are handled",
                      "write options = norecv");
    } else {
        context.warning(entry->line, "options", "options", what,
                        "anything but norecv means that options are handled",
                        "write options = recv or options = norecv");
    }
}

} // namespace

void check_instruments(CheckContext& context) {
    check_insts(context);
    check_options(context);
}

} // namespace vorn_cli
