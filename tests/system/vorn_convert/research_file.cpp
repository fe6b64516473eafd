#include "research_file.h"

#include "tests/support/temp_dir.h"

#include <cstring>

namespace vorn_convert {

using vorn_cli::ResearchRow;

namespace {

constexpr std::size_t kRowSize = 384;

std::vector<ResearchRow> chosen(const std::vector<ResearchRow>& rows, bool events) {
    std::vector<ResearchRow> result;
    for (const ResearchRow& row : rows) {
        if ((row.event != 0) == events) {
            result.push_back(row);
        }
    }
    return result;
}

} // namespace

std::vector<ResearchRow> ResearchFile::updates() const {
    return chosen(rows, false);
}

std::vector<ResearchRow> ResearchFile::events() const {
    return chosen(rows, true);
}

ResearchFile read_research_file(const std::string& path) {
    ResearchFile file;
    const std::string bytes = support::read_file(path);
    if (bytes.size() < 10 || bytes.compare(0, 6, "\x93NUMPY") != 0 || bytes[6] != 1) {
        file.problem = "no .npy file of version 1";
        return file;
    }
    const std::size_t text = static_cast<uint8_t>(bytes[8]) + 256u * static_cast<uint8_t>(bytes[9]);
    file.header = bytes.substr(10, text);
    const std::size_t shape = file.header.find("'shape': (");
    if (shape == std::string::npos || file.header.back() != '\n') {
        file.problem = "a header without shape or end";
        return file;
    }
    const auto count = std::stoull(file.header.substr(shape + 10));
    const std::size_t data = 10 + text;
    if (count > (bytes.size() - data) / kRowSize) {
        file.problem = "fewer rows than the header says: " + std::to_string(count);
        return file;
    }
    file.rows.resize(count);
    if (count > 0) {
        std::memcpy(static_cast<void*>(file.rows.data()), bytes.data() + data, count * kRowSize);
    }
    return file;
}

bool same_bytes(const ResearchRow& a, const ResearchRow& b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

std::string inst_id_of(const ResearchRow& row) {
    const auto* const text = reinterpret_cast<const char*>(row.record.inst_id);
    return {text, strnlen(text, sizeof(row.record.inst_id))};
}

std::string event_names(const std::vector<ResearchRow>& events) {
    std::string names;
    for (const ResearchRow& row : events) {
        names += names.empty() ? "" : " ";
        names += vorn_cli::row_event_name(static_cast<vorn_cli::RowEvent>(row.event));
    }
    return names;
}

} // namespace vorn_convert
