#pragma once

// A second opinion on the file format, written without the tables of the parser: it looks at the
// whole text at once. A lookup scans backwards for the last pair that counts.

#include <string>
#include <vector>

class IniModel {
public:
    explicit IniModel(const std::string& text);

    // The value of a key of section "config" that is in force at the end of the text, or null. It
    // lives as long as the model.
    const std::string* value(const std::string& key) const;

    // Decimal digits behind blanks and a sign, the nearest 64-bit number when there are too many.
    static long long number(const std::string& text);
    // Items between the separators, trimmed, without the empty ones.
    static std::vector<std::string> items(const std::string& text);

private:
    // A pair (name and text) or a section header (name alone).
    struct Event {
        bool is_header;
        std::string name;
        std::string text;
    };
    std::vector<Event> events_;
};
