// Bytes that are not what they look like. The feed knows blank, tab, carriage return and line feed;
// every other byte is part of a name or a value.

#include "tools/vorn/check/check_context.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <string_view>

namespace vorn_cli {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
// A log line of the feed holds so many bytes.
constexpr std::size_t kLongLine = 4096;

struct Lookalike {
    char32_t code_point;
    const char* name;
    const char* plain; // what it looks like; empty: nothing, it is invisible
};

constexpr Lookalike kLookalikes[] = {
    {0x0085, "next line", ""},
    {0x00A0, "no-break space", " "},
    {0x00AD, "soft hyphen", ""},
    {0x1680, "ogham space mark", " "},
    {0x200B, "zero width space", ""},
    {0x200C, "zero width non-joiner", ""},
    {0x200D, "zero width joiner", ""},
    {0x2028, "line separator", ""},
    {0x2029, "paragraph separator", ""},
    {0x202F, "narrow no-break space", " "},
    {0x205F, "medium mathematical space", " "},
    {0x2060, "word joiner", ""},
    {0x3000, "ideographic space", " "},
    {0xFEFF, "byte order mark", ""},
    {0x2018, "left single quotation mark", "'"},
    {0x2019, "right single quotation mark", "'"},
    {0x201C, "left double quotation mark", "\""},
    {0x201D, "right double quotation mark", "\""},
    {0x2212, "minus sign", "-"},
    {0x3001, "ideographic comma", ","},
    {0x3002, "ideographic full stop", "."},
    {0x3010, "left black lenticular bracket", "["},
    {0x3011, "right black lenticular bracket", "]"},
    {0x03B1, "Greek alpha", "a"},
    {0x03BD, "Greek nu", "v"},
    {0x03BF, "Greek omicron", "o"},
    {0x03C1, "Greek rho", "p"},
    {0x0430, "Cyrillic a", "a"},
    {0x0435, "Cyrillic ie", "e"},
    {0x043E, "Cyrillic o", "o"},
    {0x0440, "Cyrillic er", "p"},
    {0x0441, "Cyrillic es", "c"},
    {0x0443, "Cyrillic u", "y"},
    {0x0445, "Cyrillic ha", "x"},
    {0x0455, "Cyrillic dze", "s"},
    {0x0456, "Cyrillic i", "i"},
    {0x0458, "Cyrillic je", "j"},
};

// The character at the front of `text` and its size; nothing when the bytes are not UTF-8.
std::optional<char32_t> first_character(std::string_view text, std::size_t& size) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    size = lead < 0x80                   ? 1
           : lead >= 0xC2 && lead < 0xE0 ? 2
           : lead >= 0xE0 && lead < 0xF0 ? 3
           : lead >= 0xF0 && lead < 0xF5 ? 4
                                         : 0;
    if (size == 0 || size > text.size()) {
        size = 1;
        return std::nullopt;
    }
    char32_t code_point = size == 1 ? lead : lead & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            size = 1;
            return std::nullopt;
        }
        code_point = code_point << 6 | (byte(i) & 0x3Fu);
    }
    return code_point;
}

// "U+3000 (ideographic space), which looks like a blank", and whether it has such a look.
struct Description {
    std::string text;
    std::string plain;
    bool lookalike = false;
    bool blank = false;
};

Description describe(std::optional<char32_t> code_point, unsigned char byte) {
    Description result;
    if (!code_point) {
        result.text = fmt::format("byte 0x{:02X}, which is neither ASCII nor UTF-8", byte);
        return result;
    }
    const auto number = static_cast<uint32_t>(*code_point);
    std::string name;
    if (number >= 0xFF01 && number <= 0xFF5E) {
        name = "fullwidth form";
        result.plain = static_cast<char>(number - 0xFEE0);
    } else if (number >= 0x2000 && number <= 0x200A) {
        name = "typographic space";
        result.plain = " ";
    } else if (number >= 0x2010 && number <= 0x2015) {
        name = "typographic hyphen or dash";
        result.plain = "-";
    } else {
        const auto* const known =
            std::find_if(std::begin(kLookalikes), std::end(kLookalikes),
                         [&](const Lookalike& one) { return one.code_point == *code_point; });
        if (known == std::end(kLookalikes)) {
            result.text = fmt::format("character U+{:04X}, which is not ASCII", number);
            return result;
        }
        name = known->name;
        result.plain = known->plain;
    }
    result.lookalike = true;
    result.blank = result.plain.empty() || result.plain == " ";
    result.text = fmt::format("U+{:04X} ({}), which {}", number, name,
                              result.plain.empty()  ? std::string("is invisible")
                              : result.plain == " " ? std::string("looks like a blank")
                                                    : "looks like " + result.plain);
    return result;
}

// Where a character stands decides what the feed takes it for.
std::string place_of(const IniLine& line, std::size_t offset) {
    switch (line.kind) {
    case IniLine::Kind::kHeader:
        return "the feed takes it as part of the section's name";
    case IniLine::Kind::kKey:
        return offset < line.text.find('=') ? "the feed takes it as part of the key"
                                            : "the feed takes it as part of the value";
    default:
        return "the feed skips the line";
    }
}

void report(CheckContext& context, const IniLine& line, std::size_t offset, std::size_t column,
            const Description& found) {
    const bool only_skipped = line.kind == IniLine::Kind::kNoEquals && found.blank &&
                              line.text.find_first_of("[=]") == std::string::npos;
    std::string what = fmt::format("column {} is {}", column, found.text);
    std::string instead = found.plain.empty()  ? found.lookalike ? "delete it" : "use ASCII"
                          : found.plain == " " ? "write a plain blank"
                                               : "write " + found.plain;
    context.explained.insert(line.number);
    std::string effect = place_of(line, offset);
    context.add(only_skipped ? Severity::kWarning : Severity::kError, line.number, "not-ascii",
                line.key, what, effect, instead);
}

// The first character of the line's content that is not ASCII. A device may be a path in any
// script; only blanks at its ends are then suspicious.
void check_characters(CheckContext& context, const IniLine& line) {
    const bool elsewhere = line.kind != IniLine::Kind::kHeader && !line.section.empty() &&
                           line.section != kConfigSection;
    if (elsewhere || context.explained.contains(line.number)) {
        return;
    }
    const std::size_t start = line.raw.find(line.text);
    std::size_t column = start + 1;
    const std::size_t value_start = line.text.size() - line.value.size();
    for (std::size_t offset = 0; offset < line.text.size(); ++column) {
        std::size_t size = 1;
        const auto code_point = first_character(std::string_view(line.text).substr(offset), size);
        if (!code_point || *code_point > 0x7E || *code_point == 0x7F) {
            const Description found =
                describe(code_point, static_cast<unsigned char>(line.text[offset]));
            const bool path = line.key == "device" && offset >= value_start;
            const bool at_end = offset == value_start || offset + size == line.text.size();
            if (!path || (found.blank && found.lookalike && at_end)) {
                report(context, line, offset, column, found);
                return;
            }
        }
        offset += size;
    }
}

void check_controls(CheckContext& context, const IniLine& line) {
    for (std::size_t i = 0; i < line.text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line.text[i]);
        if (byte == '\r') {
            context.error(line.number, "carriage-return", line.key,
                          fmt::format("a carriage return stands inside the line, before {}",
                                      quoted(line.text.substr(i + 1))),
                          "only a line feed ends a line, so the feed takes all this as one line",
                          "save the file with line feeds");
        } else if (byte < 0x20 && byte != '\t') {
            context.error(line.number, "control-character", line.key,
                          fmt::format("control character 0x{:02X} in the line", byte),
                          place_of(line, i), "delete it");
        } else {
            continue;
        }
        context.explained.insert(line.number);
        return;
    }
}

void check_byte_order_mark(CheckContext& context) {
    if (context.file.lines.empty() || !context.file.lines.front().raw.starts_with(kByteOrderMark)) {
        return;
    }
    const std::string rest = context.file.lines.front().raw.substr(kByteOrderMark.size());
    context.explained.insert(1);
    const std::string what = "the file begins with a byte order mark";
    const std::string instead = "save it as UTF-8 without one";
    const IniFile alone = read_ini(rest);
    if (alone.lines.empty() || alone.lines.front().kind == IniLine::Kind::kNothing) {
        context.warning(1, "byte-order-mark", "", what,
                        "the feed reads it as text and skips the first line, which is a comment",
                        instead);
        return;
    }
    context.error(1, "byte-order-mark", "", what,
                  fmt::format("the feed reads it as the beginning of {}, which is therefore not "
                              "understood",
                              quoted(trim_blanks(rest))),
                  instead);
}

} // namespace

bool check_encoding(CheckContext& context) {
    const auto& lines = context.file.lines;
    if (lines.empty()) {
        context.error(1, "empty-file", "", "the file is empty",
                      "the feed finds no device and does not start", "begin with [config]");
        return false;
    }
    const std::string& first = lines.front().raw;
    if (first.starts_with("\xFF\xFE") || first.starts_with("\xFE\xFF")) {
        context.error(1, "not-text", "", "the file is UTF-16",
                      "the feed reads bytes and understands none of its lines", "save it as UTF-8");
        return false;
    }
    std::size_t bytes = 0;
    std::size_t zeros = 0;
    for (const IniLine& line : lines) {
        bytes += line.raw.size() + 1;
        zeros += static_cast<std::size_t>(std::count(line.raw.begin(), line.raw.end(), '\0'));
    }
    if (zeros * 10 > bytes) {
        context.error(1, "not-text", "", "the file is binary",
                      "the feed reads it all the same and understands none of it",
                      "name a configuration file");
        return false;
    }
    check_byte_order_mark(context);
    for (const IniLine& line : lines) {
        if (line.raw.size() > kLongLine) {
            context.warning(line.number, "long-line", line.key,
                            fmt::format("the line has {} bytes", line.raw.size()),
                            fmt::format("the feed reads all of it, but its log shows {} bytes at "
                                        "most",
                                        kLongLine - 1));
        }
        check_controls(context, line);
        check_characters(context, line);
    }
    return true;
}

} // namespace vorn_cli
