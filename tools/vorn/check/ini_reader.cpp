#include "tools/vorn/check/ini_reader.h"

#include <algorithm>

namespace vorn_cli {

namespace {

constexpr char kBlanks[] = " \t\r\n";

// Sorts the line into its kind; `section` is the current one and changes with a header.
void classify(IniLine& line, std::string& section) {
    line.section = section;
    if (line.text.empty()) {
        return;
    }
    if (line.text.front() == '[') {
        const std::size_t end = line.text.find(']');
        if (end == std::string::npos) {
            line.kind = IniLine::Kind::kUnterminatedHeader;
            return;
        }
        line.kind = IniLine::Kind::kHeader;
        section = line.text.substr(1, end - 1);
        line.section = section;
        line.behind = trim_blanks(line.text.substr(end + 1));
        return;
    }
    const std::size_t equals = line.text.find('=');
    if (equals == std::string::npos) {
        line.kind = IniLine::Kind::kNoEquals;
        return;
    }
    line.kind = IniLine::Kind::kKey;
    line.key = trim_blanks(line.text.substr(0, equals));
    line.value = trim_blanks(line.text.substr(equals + 1));
}

} // namespace

std::string trim_blanks(const std::string& text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

IniFile read_ini(std::string_view content) {
    IniFile file;
    std::string section;
    while (!content.empty()) {
        IniLine line;
        line.number = static_cast<uint32_t>(file.lines.size() + 1);
        line.raw = content.substr(0, content.find('\n'));
        content.remove_prefix(std::min(line.raw.size() + 1, content.size()));

        const std::string trimmed = trim_blanks(line.raw);
        const std::size_t comment = std::min(trimmed.find_first_of(";#"), trimmed.size());
        line.comment = trimmed.substr(comment);
        line.text = trim_blanks(trimmed.substr(0, comment));
        classify(line, section);
        if (line.kind == IniLine::Kind::kHeader) {
            file.sections[line.section].clear();
        } else if (line.kind == IniLine::Kind::kKey && !line.section.empty()) {
            file.sections[line.section][line.key] = {line.value, line.number};
        }
        file.lines.push_back(std::move(line));
    }
    return file;
}

const IniEntry* IniFile::find(const std::string& key) const {
    const auto section = sections.find(std::string(kConfigSection));
    if (section == sections.end()) {
        return nullptr;
    }
    const auto entry = section->second.find(key);
    return entry == section->second.end() ? nullptr : &entry->second;
}

uint32_t IniFile::header_line() const {
    uint32_t number = 1;
    for (const IniLine& line : lines) {
        if (line.kind == IniLine::Kind::kHeader && line.section == kConfigSection) {
            number = line.number;
        }
    }
    return number;
}

} // namespace vorn_cli
