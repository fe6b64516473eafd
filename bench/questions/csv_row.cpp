// G8: a row of `vorn record -o x.csv --write-through` against the recorder's own fprintf and
// fflush. Either way every row is one write and in the file before the callback returns.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"

#include "tools/vorn/record/csv_row.h"
#include "tools/vorn/record/recorder.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

// Of the recorder, whose source is part of this program.
extern FILE* dumpHandler;
void notify(instrument* record);

namespace {

using namespace bench;

constexpr uint32_t kRows = 20'000;

// The records of a market at work, as a callback is handed them.
std::vector<instrument> some_updates() {
    IncrementalFeed feed(800);
    const FrameList frames = make_live_stream(800, kRows);
    serve(frames);
    std::vector<instrument> updates;
    while (updates.size() < kRows && feed.channel->UdpRecv() == RET_TO_CALLBACK) {
        instrument record = feed.market->table.instmts[feed.slot];
        record.turnover = 1e6 * static_cast<double>(record.change_no) + 12'345.67;
        record.open_interest = 399'593;
        updates.push_back(record);
    }
    return updates;
}

std::string content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(text).str();
}

// Writes that the process has asked the system for.
uint64_t writes_so_far() {
    std::ifstream file("/proc/self/io");
    for (std::string key; file >> key;) {
        uint64_t value = 0;
        file >> value;
        if (key == "syscw:") {
            return value;
        }
    }
    return 0;
}

} // namespace

int main() {
    report_run("csv_row", pin_to_one_processor());
    std::string directory = std::filesystem::temp_directory_path() / "vorn_bench_XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror("bench: mkdtemp");
        return 1;
    }
    std::vector<instrument> updates = some_updates();
    if (updates.size() != kRows) {
        std::fprintf(stderr, "bench: only %zu updates\n", updates.size());
        return 1;
    }
    const std::string vorn_file = directory + "/vorn.csv";
    const std::string recorder_file = directory + "/recorder.csv";
    static char buffer[65536]; // as the recorder has it
    std::unique_ptr<vorn_cli::Recorder> rows;
    uint64_t writes = 0;

    Contest contest;
    contest.operations = kRows;
    const Times times = run_contest(
        contest, {{"vorn",
                   [&] {
                       vorn_cli::RecordTarget target;
                       target.path = vorn_file;
                       target.force = true;
                       target.head = vorn_cli::csv_header();
                       vorn_cli::RecorderOptions options;
                       options.write_through = true;
                       rows = vorn_cli::make_row_recorder(
                           std::make_unique<vorn_cli::RecordFiles>(std::move(target)), options);
                       writes = writes_so_far();
                   },
                   [&] {
                       for (const instrument& record : updates) {
                           rows->on_update(record);
                       }
                   },
                   [&] {
                       writes = writes_so_far() - writes;
                       rows->finish(true);
                       const std::string bytes = content(vorn_file);
                       return hash_bytes(bytes.data(), bytes.size());
                   }},
                  {"recorder",
                   [&] {
                       dumpHandler = std::fopen(recorder_file.c_str(), "w");
                       std::setvbuf(dumpHandler, buffer, _IOFBF, sizeof(buffer));
                       std::fputs(std::string(vorn_cli::csv_header()).c_str(), dumpHandler);
                       std::fflush(dumpHandler);
                   },
                   [&] {
                       for (instrument& record : updates) {
                           notify(&record);
                       }
                   },
                   [&] {
                       std::fclose(dumpHandler);
                       const std::string bytes = content(recorder_file);
                       return hash_bytes(bytes.data(), bytes.size());
                   }}});
    std::filesystem::remove_all(directory);
    if (writes != kRows) {
        std::fprintf(stderr, "bench: %lu writes for %u rows\n", writes, kRows);
        return 1;
    }
    report_figure("G8", "vorn", "row", times.ns("vorn"), "ns");
    report_figure("G8", "recorder", "row", times.ns("recorder"), "ns");
    report_goal({"G8", "CSV row", times.ratio("recorder", "vorn"), Better::kLarger, 3, 4});
    return 0;
}
