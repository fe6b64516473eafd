#include "tools/vorn/serve/access.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <strings.h>

namespace vorn_cli {

namespace {

constexpr std::size_t kShortest = 8;
constexpr std::size_t kLongest = 256;
constexpr std::string_view kTokenCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.~";

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

} // namespace

std::string token_fault(std::string_view token) {
    if (token.size() < kShortest || token.size() > kLongest) {
        return fmt::format("a token has {} to {} characters, this one {}", kShortest, kLongest,
                           token.size());
    }
    if (token.find_first_not_of(kTokenCharacters) != std::string_view::npos) {
        return "a token is made of letters, digits, '-', '_', '.' and '~'";
    }
    return {};
}

std::string read_token_file(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line)) {
        throw Failure(kUsage, fmt::format("cannot read a token from {}: {}", path,
                                          file.is_open() ? "it is empty" : std::strerror(errno)));
    }
    std::string token(trimmed(line));
    if (const std::string fault = token_fault(token); !fault.empty()) {
        throw Failure(kUsage, fmt::format("{}: {}", path, fault));
    }
    return token;
}

bool same_token(std::string_view given, std::string_view token) {
    volatile unsigned difference = given.size() == token.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size() && !token.empty(); ++i) {
        difference = difference | static_cast<unsigned char>(given[i] ^ token[i % token.size()]);
    }
    return difference == 0 && !token.empty();
}

std::string_view cookie_value(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const std::size_t semicolon = header.find(';');
        const std::string_view pair = trimmed(header.substr(0, semicolon));
        if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
            return pair.substr(name.size() + 1);
        }
        header =
            semicolon == std::string_view::npos ? std::string_view() : header.substr(semicolon + 1);
    }
    return {};
}

std::string_view bearer_token(std::string_view header) {
    constexpr std::string_view kScheme = "Bearer ";
    if (header.size() <= kScheme.size() ||
        ::strncasecmp(header.data(), kScheme.data(), kScheme.size()) != 0) {
        return {};
    }
    return trimmed(header.substr(kScheme.size()));
}

std::string without_token(std::string_view target) {
    const std::size_t question = target.find('?');
    std::string result(target.substr(0, question));
    if (question == std::string_view::npos) {
        return result;
    }
    std::string_view rest = target.substr(question + 1);
    char separator = '?';
    while (!rest.empty()) {
        const std::size_t ampersand = rest.find('&');
        const std::string_view parameter = rest.substr(0, ampersand);
        if (!parameter.empty() && !parameter.starts_with("token=")) {
            result += separator;
            result += parameter;
            separator = '&';
        }
        rest =
            ampersand == std::string_view::npos ? std::string_view() : rest.substr(ampersand + 1);
    }
    return result;
}

} // namespace vorn_cli
