#pragma once

// Who may look: nobody is asked on loopback without a token; with one, everybody is.

#include <string>
#include <string_view>

namespace vorn_cli {

inline constexpr char kTokenCookie[] = "vorn_token";

// At least 8 of letters, digits, '-', '_', '.' and '~': what stands in a header, a cookie and an
// address without quoting. Empty: fine; otherwise what is wrong, in one line.
std::string token_fault(std::string_view token);

// The first line of a file. Throws Failure when it cannot be read or is not a token.
std::string read_token_file(const std::string& path);

// Takes the same time for every `given` of one length, however much of it is right.
bool same_token(std::string_view given, std::string_view token);

// The value of a cookie in a Cookie header; empty when it is not there.
std::string_view cookie_value(std::string_view header, std::string_view name);

// The token of "Bearer TOKEN" (in any case); empty when the header is something else.
std::string_view bearer_token(std::string_view header);

// A request line's target without its token= parameters: what a browser is sent on to.
std::string without_token(std::string_view target);

} // namespace vorn_cli
