// Sections, keys, and lines that are neither.

#include "tools/vorn/check/check_context.h"
#include "tools/vorn/suggest.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

using Kind = IniLine::Kind;

constexpr char kDropped[] = "the feed drops what stands there";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// "device, insts and 12 more keys"
std::string name_some(const std::vector<std::string>& names) {
    constexpr std::size_t kShown = 4;
    std::string text;
    const std::size_t shown = names.size() > kShown + 1 ? kShown : names.size();
    for (std::size_t i = 0; i < shown; ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    if (shown < names.size()) {
        text += fmt::format(" and {} more keys", names.size() - shown);
    }
    return text;
}

// Keys that stand below a header, up to the next one.
std::vector<std::string> keys_below(const IniFile& file, std::size_t header_index) {
    std::vector<std::string> names;
    for (std::size_t i = header_index + 1;
         i < file.lines.size() && file.lines[i].kind != Kind::kHeader; ++i) {
        if (file.lines[i].kind == Kind::kKey && !file.lines[i].key.empty()) {
            names.push_back(file.lines[i].key);
        }
    }
    return names;
}

bool means_config(const std::string& section) {
    const std::string name = lower(trim_blanks(section));
    return name.size() >= 3 && edit_distance(name, kConfigSection) <= 2;
}

void check_text_behind(CheckContext& context, const IniLine& line) {
    if (line.behind.empty()) {
        return;
    }
    const std::string what = fmt::format("{} behind the section header", quoted(line.behind));
    if (line.behind.find('=') == std::string::npos) {
        context.warning(line.number, "text-behind-header", "", what, "the feed ignores it");
    } else {
        context.error(line.number, "text-behind-header", "", what, "the feed ignores it",
                      "put it on a line of its own");
    }
}

// A header that names another section. True when it was probably meant to be "config".
bool check_foreign_section(CheckContext& context, std::size_t index) {
    const IniLine& line = context.file.lines[index];
    const auto names = keys_below(context.file, index);
    const std::string keys = names.empty() ? "its keys are not read"
                                           : fmt::format("{} below it: not read", name_some(names));
    if (line.section.empty()) {
        context.error(line.number, "section-name", "", "a section header without a name",
                      names.empty() ? kDropped : name_some(names) + " below it: dropped",
                      "write [config]");
        return true;
    }
    if (means_config(line.section)) {
        const bool blanks = lower(trim_blanks(line.section)) == kConfigSection &&
                            trim_blanks(line.section) != line.section;
        context.error(line.number, "section-name", "",
                      fmt::format("section [{}]{}", line.section,
                                  blanks ? " has blanks inside its brackets" : ""),
                      "the feed reads section [config] only; " + keys, "write [config]");
        return true;
    }
    context.warning(line.number, "foreign-section", "", fmt::format("section [{}]", line.section),
                    "the feed reads section [config] only; " + keys);
    return false;
}

// `before` are the keys of the section that this header empties.
void check_repeated_section(CheckContext& context, const IniLine& line,
                            const std::map<std::string, uint32_t>& before, uint32_t first_line) {
    std::vector<std::string> lost;
    lost.reserve(before.size());
    for (const auto& [key, number] : before) {
        lost.push_back(fmt::format("{} (line {})", key, number));
    }
    const std::string what = fmt::format("section [config] again, after line {}", first_line);
    if (lost.empty()) {
        context.warning(line.number, "repeated-section", "", what,
                        "the feed starts the section afresh; nothing stood in it yet",
                        "keep one of the two");
    } else {
        context.error(line.number, "repeated-section", "", what,
                      "the feed discards what stood in it: " + name_some(lost),
                      "put all keys under one header");
    }
}

void check_line_without_equals(CheckContext& context, const IniLine& line) {
    // "device: exanic0" and "device exanic0"
    const std::size_t end = line.text.find_first_of(": \t");
    const std::string word = line.text.substr(0, end);
    std::string instead = "write key = value, or begin it with # if it is a comment";
    if (find_key(word) != nullptr && end != std::string::npos) {
        const std::size_t value = line.text.find_first_not_of(": \t", end);
        if (value != std::string::npos) {
            instead = fmt::format("write {} = {}", word, line.text.substr(value));
        }
    }
    context.error(line.number, "no-equals", "", fmt::format("no '=' in {}", quoted(line.text)),
                  "the feed skips the line", instead);
}

void check_key(CheckContext& context, const IniLine& line) {
    if (line.key.empty()) {
        context.error(line.number, "empty-key", "",
                      fmt::format("no key before '=' in {}", quoted(line.text)),
                      "the feed keeps the value under an empty name and never reads it");
        return;
    }
    if (find_key(line.key) != nullptr) {
        return;
    }
    if (line.key == "shfe4ps" || line.key == "ine4ps") {
        const std::string what = fmt::format("{} = {}", line.key, line.value);
        const std::string effect = "no key switches a 4PS feed on; it stays off";
        if (line.value == "enabled") {
            context.error(
                line.number, "4ps-switch", line.key, what, effect,
                fmt::format("use {}2ps = enabled", line.key.substr(0, line.key.size() - 3)));
        } else {
            context.warning(line.number, "4ps-switch", line.key, what, effect, "delete the line");
        }
        return;
    }
    std::string guess = closest(line.key, known_key_names());
    context.error(line.number, "unknown-key", line.key,
                  fmt::format("unknown key {}", quoted(line.key)), "the feed ignores it",
                  guess.empty() ? "" : "did you mean " + guess + "?");
}

// Keys above the first header; one finding for all of them, at the first.
void check_keys_above(CheckContext& context) {
    std::vector<std::string> names;
    uint32_t first = 0;
    for (const IniLine& line : context.file.lines) {
        if (line.kind == Kind::kHeader) {
            break;
        }
        if (line.kind == Kind::kKey) {
            names.push_back(line.key);
            first = first == 0 ? line.number : first;
        }
    }
    if (first != 0) {
        context.error(first, "key-outside-section", names.front(),
                      name_some(names) + (names.size() == 1 ? " stands" : " stand") +
                          " above any section",
                      std::string("the feed drops ") + (names.size() == 1 ? "it" : "them"),
                      "put [config] above");
    }
}

} // namespace

bool check_structure(CheckContext& context) {
    const auto& lines = context.file.lines;
    const bool has_section = context.file.sections.contains(std::string(kConfigSection));
    bool meant = context.explained.contains(1); // a byte order mark before the header
    std::map<std::string, uint32_t> keys;       // of [config], since its last header
    uint32_t config_line = 0;

    for (std::size_t i = 0; i < lines.size(); ++i) {
        const IniLine& line = lines[i];
        const bool explained = context.explained.contains(line.number);
        if (line.kind == Kind::kUnterminatedHeader && !explained) {
            meant = true;
            const std::string where = line.section.empty()
                                          ? std::string("are dropped")
                                          : fmt::format("stay in [{}]", line.section);
            context.error(line.number, "unterminated-header", "",
                          fmt::format("{} has no ']'", quoted(line.text)),
                          "the feed skips the line; the keys below it " + where, "write [config]");
        } else if (line.kind == Kind::kHeader) {
            if (line.section == kConfigSection) {
                if (config_line != 0) {
                    check_repeated_section(context, line, keys, config_line);
                }
                config_line = line.number;
                keys.clear();
            } else if (!explained) {
                meant = check_foreign_section(context, i) || meant;
            } else {
                meant = true;
            }
            check_text_behind(context, line);
        } else if (line.kind == Kind::kNoEquals && !explained) {
            check_line_without_equals(context, line);
        } else if (line.kind == Kind::kNoEquals) {
            meant = true; // e.g. a header in other brackets
        } else if (line.kind == Kind::kKey && line.section == kConfigSection) {
            if (!explained) {
                check_key(context, line);
            }
            const auto [known, is_new] = keys.emplace(line.key, line.number);
            if (!is_new && find_key(line.key) != nullptr) {
                context.warning(line.number, "repeated-key", line.key,
                                fmt::format("{} again, after line {}", line.key, known->second),
                                "the feed takes the last one", "keep one of the two");
                known->second = line.number;
            }
        }
    }
    if (!has_section && !meant) {
        const bool any = std::any_of(lines.begin(), lines.end(), [](const IniLine& line) {
            return line.kind == Kind::kKey || line.kind == Kind::kHeader;
        });
        context.error(1, "no-section", "", "there is no section [config]",
                      "the feed reads no parameter, finds no device and does not start",
                      any ? "put [config] above the keys" : "begin with [config]");
        return false;
    }
    if (!meant || has_section) {
        check_keys_above(context);
    }
    return has_section;
}

} // namespace vorn_cli
