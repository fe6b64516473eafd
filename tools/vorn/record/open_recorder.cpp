#include "tools/vorn/record/open_recorder.h"

#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/card_time.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/globals.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/record/csv_row.h"
#include "tools/vorn/record/pcap_format.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>

#include <charconv>
#include <csignal>
#include <span>
#include <string_view>

namespace vorn_cli {

namespace {

struct Unit {
    std::string_view name;
    uint64_t factor;
};
constexpr uint64_t kSecond = 1'000'000'000;
constexpr Unit kSizes[] = {{"", 1}, {"K", 1u << 10}, {"M", 1u << 20}, {"G", 1u << 30}};
constexpr Unit kDurations[] = {{"s", kSecond}, {"m", 60 * kSecond}, {"h", 3600 * kSecond}};
constexpr uint64_t kLargestRing = uint64_t{16} << 30;

uint64_t parse_amount(const char* option, const std::string& text, std::span<const Unit> units,
                      const char* examples) {
    if (text.empty()) {
        return 0;
    }
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view rest(end, text.data() + text.size());
    for (const Unit& unit : units) {
        if (error == std::errc() && rest == unit.name && number != 0 &&
            number <= UINT64_MAX / unit.factor) {
            return number * unit.factor;
        }
    }
    throw Failure(kUsage, fmt::format("{} takes {}, not '{}'", option, examples, text));
}

} // namespace

const std::vector<std::string>& recording_suffixes() {
    static const std::vector<std::string> suffixes = {".pcap", ".csv"};
    return suffixes;
}

std::unique_ptr<Recorder> open_recorder(const RecorderRequest& request) {
    const bool rows = suffix_of(request.output, recording_suffixes()) == ".csv";
    if (request.write_through && !rows) {
        throw Failure(kUsage, "--write-through is for rows: -o updates.csv");
    }
    RecordTarget target;
    target.path = request.output;
    target.force = request.force;
    target.head = rows ? std::string(csv_header()) : pcap_file_head();
    target.rotate_bytes = request.rotate_bytes;
    target.rotate_ns = request.rotate_ns;
    RecorderOptions options;
    options.in_step = works_in_step(request.config.device);
    options.feed_cpu = request.config.cpucore;
    options.write_through = request.write_through;
    if (request.ring_bytes > kLargestRing) {
        throw Failure(kUsage, "--ring-size is at most 16G");
    }
    if (request.ring_bytes != 0) {
        options.ring_bytes = request.ring_bytes;
    }
    ::signal(SIGXFSZ, SIG_IGN); // a limit on the size of files is met as a full disk
    auto files = std::make_unique<RecordFiles>(std::move(target));
    files->on_trouble([](const std::string& trouble) {
        write_message(
            printable("vorn: " + trouble + " (what is lost is counted; the recording goes on)"));
    });
    return rows ? make_row_recorder(std::move(files), options)
                : make_frame_recorder(std::move(files), DecodeWrapper(request.config), options);
}

uint64_t parse_size(const char* option, const std::string& text) {
    return parse_amount(option, text, kSizes, "a size such as 64K, 500M or 1G");
}

uint64_t parse_duration(const char* option, const std::string& text) {
    return parse_amount(option, text, kDurations, "a time such as 30s, 15m or 1h");
}

std::string loss_text(const RecorderCounts& counts) {
    std::string text = fmt::format("the recording is incomplete: {} of {} were lost",
                                   grouped(counts.lost()), grouped(counts.lost() + counts.records));
    if (counts.lost_in_ring != 0) {
        text += fmt::format("; {} because the ring was full (a larger --ring-size or a faster disk "
                            "helps)",
                            grouped(counts.lost_in_ring));
    }
    if (counts.lost_on_disk != 0) {
        text += fmt::format("; {} on the disk: {}", grouped(counts.lost_on_disk), counts.trouble);
    }
    return text;
}

} // namespace vorn_cli
