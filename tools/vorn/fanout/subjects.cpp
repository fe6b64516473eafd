#include "tools/vorn/fanout/subjects.h"

#include "tools/vorn/exit_code.h"

#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace vorn_cli {

namespace {

const char* exchange_token(uint32_t slot) { // by the slot rule, which holds for every record
    return slot < SHFE_MAX_INST_CNT ? "shfe" : "ine";
}

std::string token_of(const unsigned char (&inst_id)[16]) {
    std::string token;
    for (const unsigned char byte : inst_id) {
        if (byte == 0) {
            break;
        }
        if (byte <= ' ' || byte >= 0x7f ||
            std::string_view(".*>%?/").find(static_cast<char>(byte)) != std::string_view::npos) {
            token += fmt::format("%{:02X}", byte);
        } else {
            token += static_cast<char>(byte);
        }
    }
    return token.empty() ? "%00" : token;
}

std::vector<std::string> tokens_of(std::string_view subject) {
    std::vector<std::string> tokens;
    for (std::size_t begin = 0;;) {
        const std::size_t dot = subject.find('.', begin);
        tokens.emplace_back(subject.substr(begin, dot - begin));
        if (dot == std::string_view::npos) {
            return tokens;
        }
        begin = dot + 1;
    }
}

bool has_wildcard(const std::string& token) {
    return token.find_first_of("*?") != std::string::npos;
}

bool token_matches(std::string_view pattern, std::string_view text) {
    // The last '*' takes as little as will do; when the rest does not fit, one byte more.
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t retry = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t]) &&
            pattern[p] != '*') {
            ++p;
            ++t;
        } else if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            retry = t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++retry;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

void check_pattern(const std::string& pattern, const std::vector<std::string>& tokens) {
    const auto refuse = [&](const char* why) {
        throw Failure(kUsage, fmt::format("'{}' is not a subject: {} (as in 'md.shfe.cu*', 'cu*', "
                                          "'md.event.>')",
                                          pattern, why));
    };
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        if (tokens[i].empty()) {
            refuse("a part between dots is empty");
        }
        if (tokens[i].find('>') != std::string::npos &&
            (tokens[i] != ">" || i + 1 != tokens.size())) {
            refuse("'>' stands for the rest, alone and at the end");
        }
        if (tokens[i].find_first_of(" \t\r\n") != std::string::npos) {
            refuse("a blank in an identifier is written %20");
        }
    }
    if (tokens.front() != "md" && tokens.front() != "*" && tokens.front() != ">") {
        refuse("they all begin with md");
    }
}

// One pattern that takes in both, token by token.
std::vector<std::string> both(const std::vector<std::string>& a,
                              const std::vector<std::string>& b) {
    std::vector<std::string> merged;
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        if (i >= a.size() || i >= b.size() || a[i] == ">" || b[i] == ">") {
            merged.emplace_back(">");
            return merged;
        }
        merged.push_back(a[i] == b[i] ? a[i] : "*");
    }
    return merged;
}

} // namespace

std::string subject_of(const Outgoing& message) {
    if (message.is_event) {
        return std::string("md.event.") + event_kind_name(message.event.type);
    }
    return fmt::format("md.{}.{}", exchange_token(message.slot), token_of(message.record.inst_id));
}

std::string message_id_of(const Outgoing& message, const Stamp& stamp) {
    if (message.is_event) {
        // What a publisher sees of its bus has no place in the ring.
        return message.event.type >= kEventOpened
                   ? fmt::format("{}/event/{}/{}/{}{}", stamp.label, stamp.source,
                                 message.generation, event_kind_name(message.event.type),
                                 message.event.count)
                   : fmt::format("{}/event/{}/{}/{}", stamp.label, stamp.source, message.generation,
                                 message.sequence);
    }
    return fmt::format("{}/{}/{}/{}{}", stamp.label, exchange_token(message.slot),
                       token_of(message.record.inst_id), message.record.change_no,
                       (message.flags & kPayloadValue) != 0 ? "v" : "");
}

std::optional<UpdateId> parse_update_id(std::string_view id) {
    const std::size_t first = id.find('/');
    const std::size_t last = id.rfind('/');
    if (first == std::string_view::npos ||
        (!id.substr(first).starts_with("/shfe/") && !id.substr(first).starts_with("/ine/"))) {
        return std::nullopt;
    }
    UpdateId parsed;
    parsed.label = id.substr(0, first);
    std::string_view number = id.substr(last + 1);
    if (number.ends_with('v')) {
        parsed.is_value = true;
        number.remove_suffix(1);
    }
    const auto [end, error] =
        std::from_chars(number.data(), number.data() + number.size(), parsed.change_no);
    if (error != std::errc() || end != number.data() + number.size()) {
        return std::nullopt;
    }
    return parsed;
}

SubjectFilter::SubjectFilter(std::vector<std::string> patterns) {
    if (patterns.empty()) {
        patterns.emplace_back(kAllSubjects);
    }
    std::vector<std::string> server;
    for (std::string& pattern : patterns) {
        if (pattern.find('.') == std::string::npos && pattern != ">") {
            pattern.insert(0, "md.*.");
        }
        std::vector<std::string> tokens = tokens_of(pattern);
        check_pattern(pattern, tokens);
        patterns_.push_back(tokens);
        for (std::string& token : tokens) {
            if (has_wildcard(token)) {
                token = "*";
            }
        }
        server = patterns_.size() == 1 ? tokens : both(server, tokens);
    }
    // The stream holds nothing else, and asks for subjects of its own.
    if (server.front() != "md") {
        server = server.size() == 1 ? std::vector<std::string>{"md", ">"} : server;
        server.front() = "md";
    }
    server_subject_ = fmt::format("{}", fmt::join(server, "."));
}

bool SubjectFilter::matches(std::string_view subject) const {
    const std::vector<std::string> tokens = tokens_of(subject);
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const auto& pattern) {
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            if (pattern[i] == ">") {
                return tokens.size() > i;
            }
            if (i >= tokens.size() || !token_matches(pattern[i], tokens[i])) {
                return false;
            }
        }
        return tokens.size() == pattern.size();
    });
}

} // namespace vorn_cli
