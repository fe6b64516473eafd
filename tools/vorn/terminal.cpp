#include "tools/vorn/terminal.h"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

namespace vorn_cli {

bool is_terminal(int descriptor) {
    return ::isatty(descriptor) == 1;
}

bool use_colour(int descriptor) {
    const char* const no_colour = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    return is_terminal(descriptor) && (no_colour == nullptr || *no_colour == '\0') &&
           term != nullptr && std::string_view(term) != "dumb";
}

std::string paint(std::string_view text, Colour colour, bool on) {
    const char* code = "";
    switch (colour) {
    case Colour::kNone:
        break;
    case Colour::kRed:
        code = "\x1b[1;31m";
        break;
    case Colour::kYellow:
        code = "\x1b[1;33m";
        break;
    case Colour::kGreen:
        code = "\x1b[32m";
        break;
    case Colour::kBold:
        code = "\x1b[1m";
        break;
    case Colour::kDim:
        code = "\x1b[2m";
        break;
    }
    if (!on || *code == '\0') {
        return std::string(text);
    }
    return std::string(code) + std::string(text) + "\x1b[0m";
}

std::string printable(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // C2 80 to C2 9F are control characters too.
        const bool c1 =
            byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (byte < 0x20 || byte == 0x7F || c1) {
            result += fmt::format("\\x{:02x}", byte);
        } else {
            result += text[i];
        }
    }
    return result;
}

} // namespace vorn_cli
