#include "tools/session_report/recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace session_report {

namespace {

void add_row(Recording& recording, const std::string& row, const std::string& file) {
    ++recording.rows;
    const auto columns = static_cast<std::size_t>(std::count(row.begin(), row.end(), ',')) + 1;
    if (columns != kCsvColumns) {
        throw std::runtime_error(fmt::format("{}: row {} has {} columns, not {}", file,
                                             recording.rows, columns, kCsvColumns));
    }
    const std::size_t begin = row.find(',') + 1;
    InstrumentRows& instrument =
        recording.instruments[row.substr(begin, row.find(',', begin) - begin)];
    ++instrument.rows;
    instrument.last_row = row;
}

} // namespace

Recording read_recording(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error(
            fmt::format("cannot read {}: {}", path.string(), std::strerror(errno)));
    }
    std::string line;
    if (!std::getline(file, line) || line != kCsvHeader) {
        throw std::runtime_error(
            fmt::format("{} is not a recording: its first line is not the header", path.string()));
    }
    Recording recording;
    recording.bytes = line.size() + 1;
    while (std::getline(file, line)) {
        if (file.eof()) {
            break; // no line feed: torn by a kill
        }
        recording.bytes += line.size() + 1;
        add_row(recording, line, path.string());
    }
    return recording;
}

} // namespace session_report
