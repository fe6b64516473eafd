#pragma once

// Reads a configuration file by the feed's own rules, and remembers for every line what became of
// it. The feed keeps no line numbers and drops silently what it cannot use; what it drops is what
// the checks are about. A test holds the table built here against the feed's parser.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

// The only section that the feed reads.
inline constexpr std::string_view kConfigSection = "config";

struct IniLine {
    enum class Kind {
        kNothing,            // blank, or a comment
        kHeader,             // [section]
        kUnterminatedHeader, // '[' without ']': skipped
        kKey,                // key = value
        kNoEquals,           // skipped
    };
    uint32_t number = 0; // from 1
    Kind kind = Kind::kNothing;
    std::string raw;     // whole line, without its line feed
    std::string text;    // without comment and outer blanks
    std::string comment; // from the first ';' or '#', with it; empty if there is none
    std::string section; // header: the one it names; else the one it stands in, empty before any
    std::string key;     // kKey
    std::string value;   // kKey
    std::string behind;  // kHeader: what follows the ']', without outer blanks
};

struct IniEntry {
    std::string value;
    uint32_t line = 0;
};

struct IniFile {
    std::vector<IniLine> lines;
    // What the feed is left with: section, key, value. A section header met again has emptied it, a
    // key met again has replaced the first.
    std::map<std::string, std::map<std::string, IniEntry>> sections;

    // The entry of section "config", or null.
    const IniEntry* find(const std::string& key) const;
    // Where to report what is about the whole file: the last header of section "config", else 1.
    uint32_t header_line() const;
};

std::string trim_blanks(const std::string& text); // blank, tab, carriage return, line feed

IniFile read_ini(std::string_view content);

} // namespace vorn_cli
