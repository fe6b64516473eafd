// Which feeds are on, and how their messages are told apart.

#include "tools/vorn/check/check_context.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool says_off(const std::string& value) {
    constexpr std::array kWords = {"disabled", "off", "no", "false", "0", "none"};
    return std::find(kWords.begin(), kWords.end(), value) != kWords.end();
}

// `what` is what the key switches on, as in "the feed".
void check_switch(CheckContext& context, const std::string& key, const std::string& what) {
    const IniEntry* const entry = context.entry(key);
    if (entry == nullptr || entry->value == "enabled" || says_off(entry->value)) {
        return;
    }
    if (entry->value.empty()) {
        context.warning(entry->line, "switch", key, fmt::format("{} has no value", key),
                        what + " is off", "write enabled or disabled");
        return;
    }
    context.error(entry->line, "switch", key, fmt::format("{} = {}", key, quoted(entry->value)),
                  lower(entry->value) == "enabled"
                      ? fmt::format("only enabled in small letters switches {} on; it is off", what)
                      : fmt::format("only the word enabled switches {} on; it is off", what),
                  "write enabled or disabled");
}

// Messages are matched against the topics in a fixed order: the incremental channel tries both of
// SHFE before both of INE, so a topic that SHFE has is never INE's, whichever feed is on.
void check_topics(CheckContext& context) {
    const EffectiveConfig& config = context.config;
    const std::array feeds = {&config.shfe2ps, &config.shfe4ps, &config.ine2ps, &config.ine4ps};
    for (std::size_t i = 0; i < feeds.size(); ++i) {
        for (std::size_t j = i + 1; j < feeds.size(); ++j) {
            const FeedConfig& first = *feeds[i];
            const FeedConfig& second = *feeds[j];
            if (first.topic_id != second.topic_id || first.topic_id <= 0) {
                continue;
            }
            const std::string first_key = first.name + "_topic_id";
            const std::string second_key = second.name + "_topic_id";
            const uint32_t line = std::max(context.line_of(first_key), context.line_of(second_key));
            const std::string what =
                fmt::format("{} and {} are both {}", first_key, second_key, first.topic_id);
            if (first.exchange == second.exchange) {
                context.warning(line, "same-topic", second_key, what,
                                "the 4PS feed is never on, so nothing follows from it",
                                "give each feed its own topic");
            } else if (second.enabled) {
                context.error(line, "same-topic", second_key, what,
                              fmt::format("every incremental message with that topic counts as "
                                          "{}'s, so {} never matches and its books stand still",
                                          first.exchange, second.name),
                              "give each feed its own topic");
            } else {
                context.warning(line, "same-topic", second_key, what,
                                fmt::format("{} would never match", second.name),
                                "give each feed its own topic");
            }
        }
    }
}

} // namespace

void check_feeds(CheckContext& context) {
    check_switch(context, "shfe2ps", "the feed");
    check_switch(context, "ine2ps", "the feed");
    check_switch(context, "recovery", "recovery");
    if (!context.config.any_feed()) {
        // At the first of the two switches if there is one.
        const IniEntry* const shfe = context.file.find("shfe2ps");
        const IniEntry* const ine = context.file.find("ine2ps");
        const uint32_t line = shfe != nullptr  ? shfe->line
                              : ine != nullptr ? ine->line
                                               : context.file.header_line();
        context.error(line, "no-feed", "", "no feed is enabled",
                      "the feed logs \"all SHFE and INE are disabled\" and does not start",
                      "write shfe2ps = enabled, ine2ps = enabled, or both");
    }
    check_topics(context);
}

} // namespace vorn_cli
