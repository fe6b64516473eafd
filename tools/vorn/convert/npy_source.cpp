// Rows of a research file, and which kind of file one is.

#include "tools/session_report/recording.h"
#include "tools/vorn/convert/npy_file.h"
#include "tools/vorn/convert/row_sources.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/run_flag.h"
#include "wirekit/bytes.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>

namespace vorn_cli {

namespace {

constexpr std::size_t kSniffed = 16;
constexpr uint32_t kCaptureMagics[] = {0xa1b2c3d4, 0xd4c3b2a1, 0xa1b23c4d, 0x4d3cb2a1, 0x0a0d0d0a};

} // namespace

const char* source_kind_name(SourceKind kind) {
    static constexpr const char* kNames[] = {"capture", "csv", "npy", "bus"};
    return kNames[static_cast<std::size_t>(kind)];
}

SourceKind kind_of_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::array<char, kSniffed> bytes{};
    if (!file || (!file.read(bytes.data(), bytes.size()) && file.bad())) {
        throw Failure(kFailed, fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    }
    const std::string_view begin(bytes.data(), static_cast<std::size_t>(file.gcount()));
    if (begin.size() >= 4) {
        const uint32_t word = wirekit::get_le32(reinterpret_cast<const uint8_t*>(bytes.data()));
        for (const uint32_t magic : kCaptureMagics) {
            if (word == magic) {
                return SourceKind::kCapture;
            }
        }
    }
    if (begin.starts_with("\x93NUMPY")) {
        return SourceKind::kNpy;
    }
    if (begin.starts_with("VORNBUS")) {
        return SourceKind::kBus;
    }
    if (begin == session_report::kCsvHeader.substr(0, begin.size()) && begin.size() == kSniffed) {
        return SourceKind::kCsv;
    }
    throw Failure(kFailed, fmt::format("{} is none of what can be converted: a capture (pcap, "
                                       "pcapng), a CSV of the recorder, an .npy file of vorn "
                                       "convert, a bus",
                                       path));
}

SourceEnd rows_of_npy(const std::string& path, RowTaker& taker) {
    const NpyRows file(path);
    const RunFlag run;
    for (const ResearchRow& row : file.rows()) {
        if (taker.done()) {
            break;
        }
        if (!run.running()) {
            return {.interrupted = true, .remark = {}, .failed = false, .lost = false};
        }
        taker.put_numbered(row);
    }
    return {};
}

} // namespace vorn_cli
